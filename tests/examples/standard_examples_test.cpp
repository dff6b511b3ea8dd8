// The example programs as a user runs them, with OpenSSH's sshd as it is packaged.

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/servers/server_suite.h"
#include "support/servers/ssh_agent.h"
#include "support/servers/stock_sshd.h"
#include "wire/tcp_end.h"

using servers::Outcome;
using servers::ReadFile;
using servers::WriteFile;
using testing::AllOf;
using testing::Field;
using testing::HasSubstr;

namespace {

using Words = std::vector<std::string>;

Words operator+(Words words, Words const& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

auto Ends(int status, std::string const& output = {}, std::string const& errors = {}) {
    return AllOf(Field(&Outcome::status, status), Field(&Outcome::output, output),
                 Field(&Outcome::errors, errors));
}

/// A user with a home directory of their own, and a key that the server accepts in it.
class StandardExamples : public servers::ServerSuite<servers::StockSshd> {
protected:
    StandardExamples() {
        std::filesystem::create_directory(Here(".ssh"));
        UseKey("ed25519", "id_ed25519");
    }

    void UseKey(std::string const& type, std::string const& name) {
        std::filesystem::copy(TheServer().UserKey(type), Here(".ssh/" + name));
    }
    static std::string Target() { return TheServer().User() + "@127.0.0.1:" + Port(); }
    static std::string Port() { return std::to_string(TheServer().Port()); }
    std::string Home() const { return _home.Path(); }
    std::string Here(std::string const& name) const { return _home / name; }
    /// A file in the account on the server.
    static std::string There(std::string const& name) { return TheServer().Home() + "/" + name; }

    /// In a session of its own, so that no prompt reaches the terminal of who runs the tests.
    Words Line(std::string const& program, Words const& arguments) const {
        return Words{"env", "HOME=" + Home(), "setsid", "-w", program} + arguments;
    }
    Outcome Run(std::string const& program, Words const& arguments, std::string const& input = {}) const {
        return servers::Run(Line(program, arguments), input);
    }
    Outcome RunCommand(std::string const& command, std::string const& input = {}) const {
        return Run(RUN_COMMAND, {Target(), command}, input);
    }

private:
    servers::TemporaryDirectory _home;
};

} // namespace

TEST_F(StandardExamples, CommandExitsWithTheRemoteStatus) {
    for (int const status : {0, 3, 255})
        EXPECT_THAT(RunCommand("exit " + std::to_string(status)), Ends(status));
}

TEST_F(StandardExamples, CommandPassesItsInputItsOutputAndItsErrors) {
    EXPECT_THAT(RunCommand("cat; echo wrong >&2", "typed"), Ends(0, "typed", "wrong\n"));
}

TEST_F(StandardExamples, CommandThatASignalEndsExitsAsInAShell) {
    EXPECT_THAT(RunCommand("kill -KILL $$"),
                Ends(128 + SIGKILL, "", "the remote command was ended by the signal KILL\n"));
    EXPECT_THAT(RunCommand("kill -TERM $$").status, 128 + SIGTERM);
}

TEST_F(StandardExamples, CommandGetsAllOfALargeOutput) {
    EXPECT_EQ(RunCommand("head -c 20000000 /dev/zero").output.size(), 20000000u);
}

TEST_F(StandardExamples, EveryDefaultIdentityLogsIn) {
    for (auto const& [type, name] : {std::pair("ecdsa256", "id_ecdsa"), std::pair("rsa", "id_rsa")}) {
        std::filesystem::remove_all(Here(".ssh"));
        std::filesystem::create_directory(Here(".ssh"));
        UseKey(type, name);
        EXPECT_THAT(RunCommand("exit 7"), Ends(7)) << type;
    }
}

TEST_F(StandardExamples, KeyOfTheAgentLogsIn) {
    std::filesystem::remove(Here(".ssh/id_ed25519"));
    servers::SshAgent const agent;
    agent.Add(TheServer().UserKey("ed25519"));
    Words const words =
        Words{"env", "SSH_AUTH_SOCK=" + agent.Socket()} + Line(RUN_COMMAND, {Target(), "exit 7"});
    EXPECT_THAT(servers::Run(words), Ends(7));
}

TEST_F(StandardExamples, VerboseCommandShowsWhatIsAgreed) {
    Words const words = Words{"env", "VERBOSE=1"} + Line(RUN_COMMAND, {Target(), "true"});
    EXPECT_THAT(servers::Run(words).errors,
                testing::MatchesRegex("server SSH-2.0-OpenSSH[^;]*; curve25519-sha256 with ssh-ed25519; "
                                      "to the server [^;]*; from it [^;]*\n"));
}

TEST_F(StandardExamples, AnotherHostKeyThanTheKnownOneIsRefused) {
    std::string const other = ReadFile(TheServer().UserKey("ed25519") + ".pub");
    WriteFile(Here(".ssh/known_hosts"), "[127.0.0.1]:" + Port() + " " + other);
    EXPECT_THAT(RunCommand("true"),
                Ends(255, "",
                     "the host key of 127.0.0.1 has changed: " + Here(".ssh/known_hosts") +
                         ":1 has another ssh-ed25519 key; remove that line if you know why\n"));
}

TEST_F(StandardExamples, LoginWithoutAnAcceptedKeyIsRefused) {
    servers::RunOrThrow({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", Here("stranger")});
    Outcome const outcome = Run(RUN_COMMAND, {"-i", Here("stranger"), Target(), "true"});
    EXPECT_THAT(outcome, AllOf(Field(&Outcome::status, 255), Field(&Outcome::output, "")));
    EXPECT_THAT(outcome.errors,
                testing::EndsWith("login failed: the server accepts publickey,password; " + Here("stranger") +
                                  ": ssh-ed25519 refused; password: none was entered\n"));
    EXPECT_THAT(Run(RUN_COMMAND, {"-i", Here("none"), Target(), "true"}).errors,
                HasSubstr("; " + Here("none") + ": No such file or directory; "));
}

TEST_F(StandardExamples, ConnectionThatFailsIsReported) {
    std::string const port = std::to_string(tcp::FreePort());
    EXPECT_THAT(Run(RUN_COMMAND, {"me@127.0.0.1:" + port, "true"}),
                Ends(255, "", "can't connect to 127.0.0.1:" + port + ": Connection refused\n"));
    EXPECT_THAT(Run(RUN_COMMAND, {"me@127.0.0.1:0x", "true"}),
                Ends(255, "", "unknown host, or invalid port: 127.0.0.1:0x\n"));
    EXPECT_THAT(Run(SCP_COPY, {"me@127.0.0.1:" + port, "put", "/dev/null", "x"}),
                Ends(4, "", "can't connect to 127.0.0.1:" + port + ": Connection refused\n"));
}

TEST_F(StandardExamples, ReducedDialectHasNothingInCommonWithTheServer) {
    EXPECT_THAT(Run(RUN_COMMAND, {"--reduced", Target(), "true"}),
                Ends(5, "",
                     "key exchange failed: no common algorithm, or the host key is not trusted (does it "
                     "differ from the one in ~/.ssh/known_hosts?)\n"));
}

TEST_F(StandardExamples, ShellExitsWithTheRemoteStatus) {
    Outcome const outcome = Run(SHELL, {Target()}, "echo $((6 * 7)); exit 5\n");
    EXPECT_EQ(outcome.status, 5);
    EXPECT_THAT(outcome.output, HasSubstr("42\n"));
    EXPECT_EQ(outcome.errors, "");
}

TEST_F(StandardExamples, ScpCopiesBothWays) {
    std::string const content(3000000, 'x');
    WriteFile(Here("file"), content);
    EXPECT_THAT(Run(SCP_COPY, {Target(), "put", Here("file"), "copied"}), Ends(0));
    EXPECT_TRUE(ReadFile(There("copied")) == content);
    std::filesystem::create_directory(Here("back"));
    EXPECT_THAT(Run(SCP_COPY, {Target(), "get", "copied", Here("back")}), Ends(0));
    EXPECT_TRUE(ReadFile(Here("back/copied")) == content);
}

TEST_F(StandardExamples, ScpNamesWhatItCanNotCopy) {
    WriteFile(Here("a\nb"), "x");
    EXPECT_THAT(Run(SCP_COPY, {Target(), "put", Here("a\nb"), "x"}),
                Ends(10, "", "scp can't name the file a\\x0ab: its name has control characters\n"));
    EXPECT_THAT(Run(SCP_COPY, {Target(), "put", Here("missing"), "x"}),
                Ends(10, "", Here("missing") + ": No such file or directory\n"));
}

TEST_F(StandardExamples, ScpShowsTheTextsOfTheServerWithoutControlCharacters) {
    EXPECT_THAT(Run(SCP_COPY, {Target(), "get", "missing", Home()}),
                Ends(10, "", "scp terminated with error: scp: missing: No such file or directory\n"));
    servers::StockSshd const hostile("ForceCommand printf '\\1\\33[2Jno\\n'; sleep 1\n");
    std::string const target = hostile.User() + "@127.0.0.1:" + std::to_string(hostile.Port());
    Words const login{"-i", hostile.UserKey("ed25519"), target};
    EXPECT_THAT(Run(SCP_COPY, login + Words{"get", "x", Home()}),
                Ends(10, "", "scp terminated with error: \\x1b[2Jno\n"));
    EXPECT_THAT(Run(SCP_COPY, login + Words{"put", "/dev/null", "x"}),
                Ends(10, "", "scp terminated with error: \\x1b[2Jno\n"));
}

TEST_F(StandardExamples, FullDeviceIsReported) {
    WriteFile(There("full"), "x", 0644);
    EXPECT_THAT(Run(SCP_COPY, {Target(), "get", "full", "/dev"}),
                Ends(10, "", "full: No space left on device\n"));
    Words const words = Line(RUN_COMMAND, {Target(), "echo x"});
    EXPECT_THAT(servers::Run(Words{"sh", "-c", "exec \"$@\" >/dev/full", "to-full"} + words),
                Ends(255, "", "connection failed: write failed: No space left on device\n"));
}

TEST_F(StandardExamples, WhatTheServerRefusesIsNamed) {
    servers::StockSshd const closed("MaxSessions 0\nSubsystem other /bin/false\n");
    std::string const target = closed.User() + "@127.0.0.1:" + std::to_string(closed.Port());
    EXPECT_THAT(Run(RUN_COMMAND, {"-i", closed.UserKey("ed25519"), target, "true"}),
                Ends(255, "", "the server refused the channel: open failed (connect failed)\n"));
    servers::StockSshd const other("Subsystem other /bin/false\n");
    EXPECT_THAT(
        Run(SFTP_LS,
            {"-i", other.UserKey("ed25519"), other.User() + "@127.0.0.1:" + std::to_string(other.Port())}),
        Ends(8, "", "connection failed: the server refused a request: subsystem (it does not offer SFTP)\n"));
}

TEST_F(StandardExamples, LocalForwardingCarriesConnectionsDuringACommand) {
    std::string const port = std::to_string(tcp::FreePort());
    EXPECT_THAT(Run(FORWARD, {Target(), "-L", port + ":127.0.0.1:" + Port(),
                              "exec 3<>/dev/tcp/127.0.0.1/" + port + "; head -c 4 <&3; exit 4"}),
                Ends(4, "SSH-"));
}

TEST_F(StandardExamples, RemoteForwardingCarriesConnectionsDuringACommand) {
    std::string const port = std::to_string(tcp::FreePort());
    EXPECT_THAT(Run(FORWARD, {Target(), "-R", port + ":127.0.0.1:" + Port(),
                              "exec 3<>/dev/tcp/127.0.0.1/" + port + "; head -c 4 <&3; exit 4"}),
                Ends(4, "SSH-"));
}

TEST_F(StandardExamples, PortThatTheServerChoosesIsShown) {
    Outcome const outcome = Run(FORWARD, {Target(), "-R", "0:127.0.0.1:" + Port(), "true"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.errors, testing::MatchesRegex("0:127.0.0.1:" + Port() +
                                                      ": the server listens on port [1-9][0-9]+\n"));
}

TEST_F(StandardExamples, ForwardingThatFailsIsNamed) {
    tcp::Service const taken;
    std::string const spec = std::to_string(taken.Port()) + ":127.0.0.1:1";
    EXPECT_THAT(Run(FORWARD, {Target(), "-L", spec}), Ends(13, "", spec + ": Address already in use\n"));
    EXPECT_THAT(Run(FORWARD, {Target(), "-L", spec, "true"}),
                Ends(255, "", spec + ": Address already in use\n"));
    EXPECT_THAT(Run(FORWARD, {Target(), "-R", "1:127.0.0.1:1", "true"}), // for root alone
                Ends(255, "", "1:127.0.0.1:1: refused, or forwarded already\n"));
}

TEST_F(StandardExamples, ForwardingWithoutACommandLastsUntilInterrupted) {
    std::uint16_t const port = tcp::FreePort();
    servers::ChildProcess forward({{FORWARD, Target(), "-L", std::to_string(port) + ":127.0.0.1:" + Port()},
                                   {"HOME=" + Home()},
                                   {},
                                   {},
                                   Here("errors")});
    while (forward.IsRunning() && !tcp::End::Accepts(port)) usleep(20000);
    ASSERT_TRUE(forward.IsRunning()) << ReadFile(Here("errors"));
    EXPECT_EQ(tcp::End::To(port).Receive(4), "SSH-");
    kill(forward.Pid(), SIGINT);
    EXPECT_EQ(forward.Wait(), 0);
    EXPECT_EQ(ReadFile(Here("errors")), "");
}
