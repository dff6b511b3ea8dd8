// User authentication of the standard dialect with OpenSSH's sshd as it comes, but for paths and methods.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/session/ssh_session.h>
#include <brantle/standard.h>

#include "support/servers/openssh_server.h"
#include "support/servers/ssh_agent.h"
#include "support/session/captured_streams.h"
#include "support/session/recording_callbacks.h"

using cindral::SshProtocolError;
using cindral::SshSession;
using cindral::StandardDialect;
using servers::ThrowAwayUser;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char const* CONFIGURATION = R"(
Port @PORT@
ListenAddress 127.0.0.1
HostKey @DIRECTORY@/host_ed25519
PidFile @DIRECTORY@/sshd.pid
AuthorizedKeysFile @DIRECTORY@/authorized
Banner @DIRECTORY@/banner
StrictModes no
UsePAM yes
MaxStartups 1000
KbdInteractiveAuthentication no
Match User @USER@-two
    AuthenticationMethods publickey,password
Match User @USER@-keys
    AuthenticationMethods publickey,publickey
Match User @USER@-ask
    PubkeyAuthentication no
    PasswordAuthentication no
    KbdInteractiveAuthentication yes
)";

constexpr char const* PASSPHRASE = "passphrase";
constexpr char const* TYPES[] = {"ed25519", "ecdsa", "rsa"};
constexpr unsigned int STRANGERS = 7;

/// An sshd for four users: the plain one by key or password, "-two" by both, "-keys" by two keys, "-ask" by
/// PAM's questions.
class AuthServer : public servers::RealServer {
public:
    AuthServer() : RealServer(ThrowAwayUser::NameFor(getpid()), "An-0pen-Secret") {
        for (char const* suffix : {"", "-two", "-keys", "-ask"})
            _accounts.push_back(
                std::make_unique<ThrowAwayUser>(User() + suffix, File("home") + suffix, Password()));
        Keygen("host_ed25519", "ed25519", "");
        std::string authorized;
        for (std::string const type : TYPES) {
            Keygen(type, type, "");
            Keygen("locked_" + type, type, PASSPHRASE);
            authorized +=
                servers::ReadFile(File(type + ".pub")) + servers::ReadFile(File("locked_" + type + ".pub"));
        }
        for (unsigned int i = 0; i < STRANGERS; ++i) Keygen("stranger" + std::to_string(i), "ed25519", "");
        Keygen("locked_stranger", "ed25519", PASSPHRASE);
        servers::WriteFile(File("authorized"), authorized, 0644);
        servers::WriteFile(File("banner"), "Hello\n\x1b]0;title\x07\n", 0644);
        if (chmod(File("").c_str(), 0711) != 0) throw std::runtime_error("cannot open " + File(""));
        std::filesystem::create_directories("/run/sshd");
        StartOnFreePort([&](std::uint16_t port) {
            servers::WriteFile(File("sshd_config"),
                               servers::FillIn(CONFIGURATION, {{"PORT", std::to_string(port)},
                                                               {"DIRECTORY", File(".")},
                                                               {"USER", User()}}));
            return std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", File("sshd_config")};
        });
    }
    ~AuthServer() override { Stop(); }

private:
    void Keygen(std::string const& name, std::string const& type, std::string const& passphrase) const {
        servers::RunOrThrow(
            {"ssh-keygen", "-q", "-t", type, "-a", "1", "-N", passphrase, "-C", name, "-f", File(name)});
    }

    std::vector<std::unique_ptr<ThrowAwayUser>> _accounts;
};

class StandardAuth : public testing::Test {
protected:
    static void SetUpTestSuite() { server = std::make_unique<AuthServer>(); }
    static void TearDownTestSuite() { server.reset(); }
    ~StandardAuth() override { unsetenv("SSH_AUTH_SOCK"); }

    /// Logs in on a connection of its own; `suffix` says which of the users.
    int Login(std::string const& suffix, std::string const& identity, std::string const& password) {
        SshSession session(SshSession::CLIENT,
                           (server->Host() + ":" + std::to_string(server->Port())).c_str());
        StandardDialect dialect(session);
        EXPECT_EQ(session.Connect(20), 0);
        EXPECT_EQ(session.KeyExchange(), 0) << dialect.LastError();
        std::string const user = server->User() + suffix;
        int const result =
            session.Authenticate(identity.c_str(), user.c_str(), password.c_str(), enter, questions);
        error = dialect.LastError().Text() ? dialect.LastError().Text() : "";
        return result;
    }
    void UseAgent(std::vector<std::string> const& keys) {
        agent = std::make_unique<servers::SshAgent>();
        for (std::string const& key : keys) agent->Add(server->File(key));
        setenv("SSH_AUTH_SOCK", agent->Socket().c_str(), 1);
    }
    static std::vector<std::string> Strangers(unsigned int count) {
        std::vector<std::string> names;
        for (unsigned int i = 0; i < count; ++i) names.push_back("stranger" + std::to_string(i));
        return names;
    }

    static std::unique_ptr<AuthServer> server;

    Captured captured{std::cout};
    RecordingPassword enter{0};
    RecordingCallback questions;
    std::unique_ptr<servers::SshAgent> agent;
    std::string error;
};

std::unique_ptr<AuthServer> StandardAuth::server;

} // namespace

TEST_F(StandardAuth, KeysOfEveryTypeFromFiles) {
    for (std::string const type : TYPES)
        EXPECT_EQ(Login("", server->File(type), ""), 0) << type << ": " << error;
}

TEST_F(StandardAuth, KeysOfEveryTypeUnderAPassphrase) {
    for (std::string const type : TYPES) {
        EXPECT_EQ(Login("", server->File("locked_" + type), PASSPHRASE), 0) << type << ": " << error;
        EXPECT_EQ(enter.questions.size(), 0u);
    }
}

TEST_F(StandardAuth, KeysOfEveryTypeByTheAgent) {
    for (std::string const type : TYPES) {
        UseAgent({"stranger0", "stranger1", type});
        EXPECT_EQ(Login("", "", ""), 0) << type << ": " << error;
    }
}

TEST_F(StandardAuth, PassphraseIsAskedForOnlyIfTheServerAcceptsTheKey) {
    enter._tries = 1;
    enter.answers = {"wrong password", PASSPHRASE};
    EXPECT_EQ(Login("", server->File("locked_stranger"), ""), -1);
    EXPECT_EQ(Login("", server->File("locked_rsa"), ""), 0) << error;
    EXPECT_THAT(enter.questions, ElementsAre(StartsWith("Password for|"),
                                             "Enter passphrase for|" + server->File("locked_rsa")));
}

TEST_F(StandardAuth, PasswordGivenAndTyped) {
    EXPECT_EQ(Login("", "", server->Password()), 0) << error;
    enter._tries = 2;
    enter.answers = {"wrong", server->Password()};
    EXPECT_EQ(Login("", "", ""), 0) << error;
    ASSERT_EQ(enter.questions.size(), 2u);
    EXPECT_THAT(enter.questions[0], StartsWith("Password for|" + server->User() + "@127.0.0.1:"));
}

TEST_F(StandardAuth, WrongPasswordIsARefusalWithItsReason) {
    EXPECT_EQ(Login("", "", "wrong"), -1);
    EXPECT_EQ(error, "login failed: the server accepts publickey,password; publickey: there is no key, in a "
                     "file or an agent; password: refused");
}

TEST_F(StandardAuth, ManyKeysOfTheAgentLeaveRoomForThePassword) {
    UseAgent(Strangers(STRANGERS));
    EXPECT_EQ(Login("", "", server->Password()), 0) << error;
    EXPECT_THAT(server->Log(), Not(HasSubstr("Too many authentication failures")));
}

TEST_F(StandardAuth, NamedKeyComesBeforeManyKeysOfTheAgent) {
    std::vector<std::string> keys = Strangers(STRANGERS);
    UseAgent(keys);
    EXPECT_EQ(Login("", server->File("rsa"), ""), 0) << error;
    keys.push_back("rsa");
    UseAgent(keys);
    EXPECT_EQ(Login("", server->File("rsa"), ""), 0) << error;
}

TEST_F(StandardAuth, KeyAndPassword) {
    EXPECT_EQ(Login("-two", server->File("ed25519"), server->Password()), 0) << error;
    EXPECT_EQ(Login("-two", server->File("rsa"), "wrong"), -1);
    EXPECT_EQ(error, "login failed: the server accepts password; password: refused");
    EXPECT_EQ(Login("-two", server->File("stranger0"), server->Password()), -1);
    EXPECT_EQ(error, "login failed: the server accepts publickey; " + server->File("stranger0") +
                         ": ssh-ed25519 refused");
}

TEST_F(StandardAuth, TwoKeys) {
    UseAgent({"stranger0", "ed25519", "stranger1", "rsa"});
    EXPECT_EQ(Login("-keys", "", ""), 0) << error;
    UseAgent({"ed25519", "stranger1"});
    EXPECT_EQ(Login("-keys", "", ""), -1);
    EXPECT_EQ(error,
              "login failed: the server accepts publickey; agent's key stranger1: ssh-ed25519 refused");
}

TEST_F(StandardAuth, ServerEndsAConnectionThatOffersOnlyKeys) {
    UseAgent(Strangers(STRANGERS));
    try {
        Login("-keys", "", "");
        ADD_FAILURE() << error;
    } catch (SshProtocolError const& failure) {
        EXPECT_THAT(failure.what(), HasSubstr("Too many authentication failures"));
    }
}

TEST_F(StandardAuth, QuestionsOfPam) {
    questions.answers = {{server->Password()}, {}};
    EXPECT_EQ(Login("-ask", "", "wrong, and for no question"), 0) << error;
    ASSERT_GE(questions.requests.size(), 1u);
    EXPECT_EQ(questions.requests[0].prompts.size(), 1u);
    questions = RecordingCallback();
    questions.answers = {{"wrong"}, {}};
    EXPECT_EQ(Login("-ask", "", ""), -1);
    EXPECT_EQ(error, "login failed: the server accepts keyboard-interactive; keyboard-interactive: refused");
}

TEST_F(StandardAuth, BannerIsPrintedFiltered) {
    EXPECT_EQ(Login("", server->File("ed25519"), ""), 0) << error;
    EXPECT_EQ(captured.Text(), "Hello\n\\x1b]0;title\\x07\n");
}
