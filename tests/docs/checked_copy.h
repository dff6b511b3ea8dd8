#ifndef BRANTLE_TESTS_DOCS_CHECKED_COPY_H
#define BRANTLE_TESTS_DOCS_CHECKED_COPY_H

#include <filesystem>
#include <string>

#include <gmock/gmock.h>

#include "support/servers/process.h"

namespace docs {

inline std::filesystem::path const SOURCES = BRANTLE_SOURCE_DIR;

/// Runs a check of the folder script/ on a tree.
inline servers::Outcome Check(std::string const& script, std::filesystem::path const& tree) {
    return servers::Run({SOURCES / "script" / script, tree});
}

/// The outcome of a check that fails with this line.
inline auto Complains(std::string const& line) {
    using servers::Outcome;
    return testing::AllOf(testing::Field(&Outcome::status, 1),
                          testing::Field(&Outcome::errors, testing::HasSubstr(line + "\n")));
}

/// A copy of those parts of this tree that a check reads, to go against its rules.
class CheckedCopy : public testing::Test {
protected:
    /// Copies a folder of this tree, or a file at its top.
    void Copy(std::string const& name) {
        std::filesystem::copy(SOURCES / name, Path() / name, std::filesystem::copy_options::recursive);
    }
    std::filesystem::path const& Path() const { return _tree.Path(); }
    void Append(std::string const& file, std::string const& text) const {
        servers::WriteFile(_tree / file, servers::ReadFile(_tree / file) + text);
    }
    void Replace(std::string const& file, std::string const& from, std::string const& to) const {
        std::string text = servers::ReadFile(_tree / file);
        std::size_t const at = text.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        servers::WriteFile(_tree / file, text.replace(at, from.size(), to));
    }

private:
    servers::TemporaryDirectory _tree;
};

} // namespace docs

#endif
