#ifndef BRANTLE_TESTS_DOCS_INSTALLED_TREE_H
#define BRANTLE_TESTS_DOCS_INSTALLED_TREE_H

#include <string>
#include <vector>

#include "support/servers/process.h"

namespace docs {

/// A copy of this source tree, built and installed by the exact commands that README.md shows, without a
/// trace on the system: the copy is in a temporary directory, DESTDIR directs what is installed into another,
/// apt-get simulates, and ldconfig works on that other directory.
class InstalledTree {
public:
    /// Throws std::runtime_error if a command fails.
    InstalledTree();

    /// The commands that have been run.
    std::string const& Commands() const { return _commands; }
    /// The copy of the source tree.
    std::string Tree() const { return _directory / "tree"; }
    /// The environment of a user's shell who finds what is installed, and the examples along PATH.
    std::vector<std::string> Environment() const;

private:
    support::TemporaryDirectory _directory;
    std::string _commands;
};

/// Runs commands as a user types them into a shell, in that directory; the first that fails ends them.
servers::Outcome RunInShell(std::string const& commands, std::string const& directory,
                            std::vector<std::string> const& environment, std::string const& input = {});

} // namespace docs

#endif
