#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "docs/code_blocks.h"
#include "docs/installed_tree.h"

namespace docs {

namespace {

using std::filesystem::copy_options;

/// Everything but what builds leave, and the history.
void CopyTree(std::filesystem::path const& to) {
    std::filesystem::create_directory(to);
    for (auto const& entry : std::filesystem::directory_iterator(BRANTLE_SOURCE_DIR)) {
        std::string const name = entry.path().filename();
        if (name == ".git" || name.compare(0, 5, "build") == 0) continue;
        std::filesystem::copy(entry.path(), to / name, copy_options::recursive);
    }
}

/// The variables that make compilers use ccache, regardless of the directory's name.
std::vector<std::string> Cached() {
    return {"CMAKE_CXX_COMPILER_LAUNCHER=ccache",
            "CCACHE_BASEDIR=" + std::filesystem::temp_directory_path().string()};
}

} // namespace

InstalledTree::InstalledTree() : _commands(CodeBlockWith("README.md", "sh", "cmake --install")) {
    CopyTree(Tree());
    for (char const* name : {"bin", "root", "root/etc"}) std::filesystem::create_directory(_directory / name);
    servers::WriteFile(_directory / "apt.conf", "APT::Get::Simulate \"true\";\n");
    servers::WriteFile(_directory / "bin/ldconfig",
                       "#!/bin/sh\nexec /sbin/ldconfig -r \"$DESTDIR\" /usr/local/lib \"$@\"\n", 0700);
    std::vector<std::string> environment = Cached();
    environment.insert(environment.end(),
                       {"PATH=" + _directory / "bin" + ":" + std::getenv("PATH"),
                        "DESTDIR=" + _directory / "root", "APT_CONFIG=" + _directory / "apt.conf"});
    servers::Outcome const outcome = RunInShell(_commands, Tree(), environment);
    if (outcome.status != 0)
        throw std::runtime_error("README.md's commands end with " + std::to_string(outcome.status) + ":\n" +
                                 outcome.output + outcome.errors);
}

std::vector<std::string> InstalledTree::Environment() const {
    std::string const prefix = _directory / "root/usr/local";
    std::vector<std::string> environment = Cached();
    environment.insert(environment.end(),
                       {"PATH=" + Tree() + "/build/install/examples:" + std::getenv("PATH"),
                        "PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig", "CMAKE_PREFIX_PATH=" + prefix,
                        "LD_LIBRARY_PATH=" + prefix + "/lib"});
    return environment;
}

servers::Outcome RunInShell(std::string const& commands, std::string const& directory,
                            std::vector<std::string> const& environment, std::string const& input) {
    // In a new session, so that no prompt reaches the terminal of the user who runs the tests.
    return servers::Run({"setsid", "-w", "bash", "-e", "-c", "cd \"$0\"\n" + commands, directory}, input,
                        environment);
}

} // namespace docs
