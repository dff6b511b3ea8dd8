#ifndef TESTS_SUPPORT_X11_FAKE_XAUTH_H
#define TESTS_SUPPORT_X11_FAKE_XAUTH_H

#include <string>
#include <vector>

#include "support/temporary_directory.h"

namespace x11 {

/// The `xauth` command of this process, as long as it lives: prints a text and takes notes.
class FakeXauth {
public:
    explicit FakeXauth(std::string const& output, int status = 0);
    ~FakeXauth();
    FakeXauth(FakeXauth const&) = delete;
    FakeXauth& operator=(FakeXauth const&) = delete;

    /// The arguments of each call so far, as in "list|:0".
    std::vector<std::string> Calls() const;

private:
    support::TemporaryDirectory _directory;
    std::string _path; ///< before
};

/// No `xauth` can be found as long as it lives.
class NoXauth {
public:
    NoXauth();
    ~NoXauth();
    NoXauth(NoXauth const&) = delete;
    NoXauth& operator=(NoXauth const&) = delete;

private:
    support::TemporaryDirectory _directory;
    std::string _path;
};

} // namespace x11

#endif
