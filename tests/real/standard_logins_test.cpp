// What the standard dialect does with particular servers, beside the table of standard_servers_test.cpp.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/standard_client.h"
#include "support/servers/ssh_agent.h"
#include "support/servers/standard_servers.h"
#include "support/servers/stock_sshd.h"

using servers::Outcome;
using servers::ReadFile;
using servers::RunOrThrow;
using servers::StandardServer;
using testing::HasSubstr;

namespace {

constexpr int REFUSED = 100;
constexpr int THROWN = 101;
constexpr std::size_t LARGE = 4 << 20;

class StandardLogins : public testing::Test {
protected:
    using Words = std::vector<std::string>;

    StandardLogins() {
        std::filesystem::create_directory(File(".ssh"));
        for (std::string const name : {"stranger", "other_stranger"})
            RunOrThrow({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", name, "-f", File(name)});
    }

    Outcome Do(StandardServer const& server, std::string const& job, std::string const& key,
               Words const& options = {}, Words const& arguments = {}, std::string const& input = {}) const {
        return servers::Run(StandardProgramLine(server, _home.Path().string(), options, job, key, arguments),
                            input, _environment);
    }
    Outcome LogIn(StandardServer const& server, std::string const& key, Words const& options = {}) const {
        return Do(server, "login", key, options);
    }
    /// From now on sessions have an agent with these keys, in this order.
    void UseAgent(Words const& files) {
        _agent = std::make_unique<servers::SshAgent>();
        for (std::string const& file : files) _agent->Add(file);
        _environment = {"SSH_AUTH_SOCK=" + _agent->Socket()};
    }
    std::string File(std::string const& name) const { return (_home.Path() / name).string(); }
    /// Makes a copy of a key the identity of that name.
    void Install(std::string const& key, std::string const& identity) const {
        for (std::string const end : {"", ".pub"})
            std::filesystem::copy_file(key + end, File(".ssh/" + identity + end),
                                       std::filesystem::copy_options::overwrite_existing);
    }

    support::TemporaryDirectory _home;
    std::unique_ptr<servers::SshAgent> _agent;
    Words _environment;
};

std::size_t Count(std::string const& text, std::string const& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

} // namespace

TEST_F(StandardLogins, IdentityOfEachTypeIsFoundInTheHomeDirectory) {
    servers::StockSshd const server;
    EXPECT_EQ(LogIn(server, "").status, REFUSED);
    struct Case {
        char const* type;
        char const* identity;
    };
    for (auto const& [type, identity] :
         {Case{"ed25519", "id_ed25519"}, Case{"ecdsa384", "id_ecdsa"}, Case{"rsa", "id_rsa"}}) {
        Install(server.UserKey(type), identity);
        Outcome const outcome = LogIn(server, "");
        EXPECT_EQ(outcome.status, 0) << identity << ": " << outcome.errors;
        std::filesystem::remove(File(std::string(".ssh/") + identity));
    }
}

TEST_F(StandardLogins, LaterIdentityIsTriedWhenTheFirstIsRefused) {
    servers::StockSshd const server;
    Install(File("stranger"), "id_ed25519");
    Install(server.UserKey("rsa"), "id_rsa");
    Outcome const outcome = LogIn(server, "");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
}

TEST_F(StandardLogins, KeyThatIsNamedComesFirstWhereTwoTriesAreAllowed) {
    servers::StockSshd const server("MaxAuthTries 2\n");
    UseAgent({File("stranger"), File("other_stranger"), server.UserKey("ecdsa256")});
    Outcome const outcome = LogIn(server, server.UserKey("ecdsa256"));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    UseAgent({File("stranger"), File("other_stranger")});
    EXPECT_EQ(LogIn(server, server.UserKey("rsa")).status, 0);
}

TEST_F(StandardLogins, SecondKeyOfTheAgentIsTriedWhereTwoTriesAreAllowed) {
    servers::StockSshd const server("MaxAuthTries 2\n");
    UseAgent({File("stranger"), server.UserKey("ed25519")});
    Outcome const outcome = LogIn(server, "");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
}

TEST_F(StandardLogins, ServerThatEndsTheConnectionAfterTwoTriesIsQuoted) {
    servers::StockSshd const server("MaxAuthTries 2\n");
    UseAgent({File("stranger"), File("other_stranger"), server.UserKey("ed25519")});
    Outcome const outcome = LogIn(server, "");
    EXPECT_EQ(outcome.status, THROWN);
    EXPECT_THAT(outcome.errors, HasSubstr("Too many authentication failures"));
}

TEST_F(StandardLogins, FailedLoginDoesNotConnectAgain) {
    servers::Debian13Sshd const server("LogLevel VERBOSE\n");
    std::string const connection = "Connection from 127.0.0.1";
    std::size_t const before = Count(server.Log(), connection);
    EXPECT_EQ(LogIn(server, File("stranger"), {"password=wrong"}).status, REFUSED);
    EXPECT_EQ(Count(server.Log(), connection), before + 1);
    EXPECT_EQ(
        LogIn(server, File("stranger"), {"ciphers=aes192-ctr", "kex=diffie-hellman-group14-sha256"}).status,
        REFUSED);
    EXPECT_EQ(Count(server.Log(), connection), before + 2);
    // Its penalties have not added up to a refusal.
    EXPECT_THAT(server.Log(), testing::Not(HasSubstr("drop connection")));
    EXPECT_EQ(LogIn(server, server.UserKey("ed25519")).status, 0);
}

TEST_F(StandardLogins, KeyAndPasswordOfProftpd) {
    servers::StandardProftpd const server("SFTPAuthMethods publickey+password");
    Outcome const outcome = LogIn(server, server.UserKey("rsa"), {"password=" + server.Password()});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    Outcome const wrong = LogIn(server, server.UserKey("rsa"), {"password=wrong"});
    EXPECT_EQ(wrong.status, REFUSED);
    EXPECT_THAT(wrong.errors, HasSubstr("password: refused"));
}

TEST_F(StandardLogins, PasswordAloneLogsInAtEachServer) {
    std::vector<std::unique_ptr<StandardServer>> all;
    all.push_back(std::make_unique<servers::StockSshd>());
    all.push_back(std::make_unique<servers::Debian13Sshd>());
    all.push_back(std::make_unique<servers::StandardDropbear>());
    all.push_back(std::make_unique<servers::StandardPython>("asyncssh_server.py"));
    all.push_back(std::make_unique<servers::StandardPython>("paramiko_server.py"));
    all.push_back(std::make_unique<servers::StandardProftpd>());
    for (auto const& server : all) {
        Outcome const outcome = LogIn(*server, "", {"password=" + server->Password()});
        EXPECT_EQ(outcome.status, 0) << outcome.errors << server->Log();
        EXPECT_EQ(LogIn(*server, "", {"password=wrong"}).status, REFUSED);
    }
}

TEST_F(StandardLogins, InputPassesTheSmallWindowOfDropbear) {
    servers::StandardDropbear const server({"-W", "2048"});
    std::string const input(LARGE, 'x');
    Outcome const outcome = Do(server, "run", server.UserKey("ed25519"), {}, {"cat"}, input);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_TRUE(outcome.output == input);
}
