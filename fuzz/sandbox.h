#ifndef BRANTLE_FUZZ_SANDBOX_H
#define BRANTLE_FUZZ_SANDBOX_H

#include <string>

#include "support/temporary_directory.h"

namespace fuzz {

/// Directories for a target whose code writes files: one to write into, one with a file to send, and the
/// working directory, which nothing may be written into.
class Sandbox {
public:
    /// Makes the directories and changes to the third.
    Sandbox();
    /// Leaves the directories, and removes them.
    ~Sandbox();
    Sandbox(Sandbox const&) = delete;
    Sandbox& operator=(Sandbox const&) = delete;

    std::string Target() const { return _root / "target"; }
    std::string Source() const { return _root / "source"; }
    /// The name of the file to send.
    static constexpr char const* FILE = "file";

    /// Requires that nothing has been created but plain files right in the target, and removes these.
    void CheckAndClear() const;

private:
    support::TemporaryDirectory _root;
};

} // namespace fuzz

#endif
