#ifndef BRANTLE_TESTS_DOCS_SHOWN_SUITE_H
#define BRANTLE_TESTS_DOCS_SHOWN_SUITE_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "docs/code_blocks.h"
#include "docs/installed_tree.h"
#include "support/servers/stock_sshd.h"

namespace docs {

/// What a document shows, run as it is printed there: a user's directory and home, beside what README.md
/// installs. Only the host and its account are put in the place of "me@host", and free ports in that of the
/// ports shown.
class ShownSuite : public testing::Test {
protected:
    /// Installed once for all the documents.
    static InstalledTree& Installed() {
        static InstalledTree tree;
        return tree;
    }

    ShownSuite() { std::filesystem::create_directory(Here(".ssh")); }

    /// Logs in at that server from now on, with its key of that type.
    void Use(servers::StockSshd const& server, std::string const& type = "ed25519") {
        servers::WriteFile(Here(".ssh/id_" + type), servers::ReadFile(server.UserKey(type)));
        servers::WriteFile(Here(".ssh/id_" + type + ".pub"),
                           servers::ReadFile(server.UserKey(type) + ".pub"));
        _target = server.User() + "@127.0.0.1:" + std::to_string(server.Port());
    }

    std::string Here(std::string const& name) const { return _here / name; }
    /// A text with the server in the place of the one shown.
    std::string Addressed(std::string const& text) const { return Replaced(text, "me@host", _target); }

    std::vector<std::string> Environment() const {
        std::vector<std::string> environment = Installed().Environment();
        environment.push_back("HOME=" + _here.Path().string());
        environment.insert(environment.end(), _more.begin(), _more.end());
        return environment;
    }
    servers::Outcome Run(std::string const& commands, std::string const& input = {}) const {
        return RunInShell(commands, _here.Path(), Environment(), input);
    }
    /// Makes a program of the text, and runs it, by the commands of the document that do so.
    servers::Outcome CompileAndRun(std::string const& file, std::string const& program) const {
        servers::WriteFile(Here("hello.cpp"), program);
        return Run(Addressed(CodeBlockWith(file, "sh", "g++ -std=c++17 hello.cpp")));
    }

    std::vector<std::string> _more; ///< variables of the environment

private:
    servers::TemporaryDirectory _here;
    std::string _target;
};

/// The same with OpenSSH's sshd as it is packaged, which the tests of a suite share.
class SuiteWithSshd : public ShownSuite {
protected:
    static void SetUpTestSuite() { _server = std::make_unique<servers::StockSshd>(); }
    static void TearDownTestSuite() { _server.reset(); }
    void SetUp() override {
        ASSERT_TRUE(_server) << "the server did not start";
        Use(*_server);
    }

    static inline std::unique_ptr<servers::StockSshd> _server;
};

} // namespace docs

#endif
