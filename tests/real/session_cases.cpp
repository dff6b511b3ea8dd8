#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/session_cases.h"
#include "support/pattern.h"
#include "support/servers/test_keys.h"

using client::Report;
using client::SessionClient;
using servers::RealServer;
using support::Pattern;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

std::string const STOPPED = "-1"; ///< the result of Run when the remote program has ended
std::string const RSA_AND_DSA[] = {"user_rsa", "user_dsa"};

/// Logs in, runs a command, and expects success.
Report RunCommand(Peer const& peer, SessionClient const& client, std::string const& command,
                  std::string const& input = {}) {
    Report const report = client.Run(command + peer.lastWords, input);
    EXPECT_EQ(report["authenticate"], "0") << report;
    EXPECT_EQ(report["run"], STOPPED) << report;
    EXPECT_EQ(report["thrown"], "") << report;
    EXPECT_EQ(report["end"], "reached") << report;
    EXPECT_EQ(report.errors, "");
    EXPECT_EQ(report.status, 0);
    return report;
}

/// Logs in and opens a channel.
void ExpectWelcome(SessionClient const& client) {
    Report const report = client.OpenChannel();
    EXPECT_EQ(report["authenticate"], "0") << report;
    EXPECT_EQ(report["open"], "0") << report;
    EXPECT_EQ(report.errors, "");
    EXPECT_EQ(report.status, 0);
}

void ExpectRefused(SessionClient const& client) {
    Report const report = client.LogIn();
    EXPECT_EQ(report["authenticate"], "-1") << report;
    EXPECT_EQ(report["end"], "reached") << report;
    EXPECT_EQ(report.errors, "");
    EXPECT_EQ(report.status, 0);
}

/// The base64 text of a public key in a file of "TYPE KEY COMMENT".
std::string KeyIn(std::string const& file) {
    std::istringstream words(servers::ReadFile(file));
    std::string type, key;
    words >> type >> key;
    return key;
}

std::string HostName(RealServer const& server) { return "[127.0.0.1]:" + std::to_string(server.Port()); }

} // namespace

void ExpectKeyLogins(Peer const& peer) {
    for (std::string const& key : RSA_AND_DSA)
        for (std::string const format : {"", ".openssh"}) {
            SCOPED_TRACE(key + format);
            SessionClient client(peer.server);
            client.WithKey(key + format).ReadingUnsolicited(peer.unsolicitedAfterKey);
            ExpectWelcome(client);
        }
}

void ExpectEncryptedKeyLogins(Peer const& peer) {
    for (std::string const& key : RSA_AND_DSA)
        for (std::string const format : {".encrypted", ".openssh.encrypted"}) {
            SCOPED_TRACE(key + format);
            SessionClient client(peer.server);
            client.WithKey(key + format, servers::KEY_PASSPHRASE)
                .ReadingUnsolicited(peer.unsolicitedAfterKey);
            ExpectWelcome(client);
        }
}

void ExpectWrongPassphraseRefused(Peer const& peer) {
    ExpectRefused(SessionClient(peer.server).WithKey("user_rsa.openssh.encrypted", "wrong"));
}

void ExpectDefaultKeyLogins(Peer const& peer) {
    for (std::string const type : {"rsa", "dsa"}) {
        SCOPED_TRACE(type);
        SessionClient client(peer.server);
        for (std::string const end : {"", ".pub"})
            std::filesystem::copy_file(peer.server.File("user_" + type + end),
                                       client.File(".ssh/id_" + type + end));
        client.ReadingUnsolicited(peer.unsolicitedAfterKey);
        ExpectWelcome(client);
    }
}

void ExpectAgentLogins(Peer const& peer) {
    servers::SshAgent agent;
    for (std::string const& key : RSA_AND_DSA) {
        SCOPED_TRACE(key);
        SessionClient client(peer.server);
        client.WithKeyInAgent(key, agent).ReadingUnsolicited(peer.unsolicitedAfterKey);
        agent.Add(peer.server.File(key));
        ExpectWelcome(client);
        agent.RemoveAll();
        client.ReadingUnsolicited(0);
        ExpectRefused(client);
    }
}

void ExpectUnknownKeyRefused(Peer const& peer) {
    ExpectRefused(SessionClient(peer.server).WithKey("host_rsa"));
}

void ExpectPasswordLogin(Peer const& peer) {
    SessionClient client(peer.server);
    client.WithPassword(peer.server.Password()).ReadingUnsolicited(peer.unsolicitedOtherwise);
    EXPECT_EQ(RunCommand(peer, client, "echo welcome").output, "welcome\n");
}

void ExpectOpenUserNeedsNothing(Peer const& peer, std::string const& openUser) {
    SessionClient client(peer.server);
    client.As(openUser).ReadingUnsolicited(peer.unsolicitedOtherwise);
    EXPECT_EQ(RunCommand(peer, client, "echo welcome").output, "welcome\n");
    ExpectRefused(client.As(peer.server.User()).ReadingUnsolicited(0));
}

void ExpectWrongPasswordRefused(Peer const& peer) {
    ExpectRefused(SessionClient(peer.server).WithPassword("wrong"));
}

void ExpectPasswordTypedOnTheTerminal(Peer const& peer) {
    support::Terminal terminal(80, 24);
    SessionClient client(peer.server);
    client.AskingForAPassword();
    auto const session = client.StartOnTerminal("login", terminal);
    client::WaitUntil(*session, [&] { return !terminal.Echoes(); });
    terminal.Type(peer.server.Password() + "\n");
    client::WaitUntil(*session, [&] { return terminal.Echoes(); });
    Report const report = client.ReportOf(*session);
    EXPECT_EQ(report["authenticate"], "0") << report;
    EXPECT_THAT(terminal.Screen(), HasSubstr("Password for " + peer.server.User() + "@127.0.0.1"));
    EXPECT_THAT(terminal.Screen(), Not(HasSubstr(peer.server.Password())));
    EXPECT_EQ(report.status, 0);
}

void ExpectKeyboardInteractiveLogin(Peer const& peer, std::string const& prompts) {
    SessionClient client(peer.server);
    client.Answering(peer.server.Password()).ReadingUnsolicited(peer.unsolicitedOtherwise);
    Report const report = RunCommand(peer, client, "echo welcome");
    EXPECT_EQ(report.output, "welcome\n");
    EXPECT_EQ(report["prompts"], prompts);
}

void ExpectWrongAnswerRefused(Peer const& peer) {
    ExpectRefused(SessionClient(peer.server).Answering("wrong"));
}

void ExpectHostLearntThenFound(Peer const& peer, std::string const& algorithm, std::string const& file) {
    SessionClient client(peer.server);
    client.WithKey("user_rsa").ReadingUnsolicited(peer.unsolicitedAfterKey);
    ExpectWelcome(client);
    std::string const line =
        HostName(peer.server) + " " + algorithm + " " + KeyIn(peer.server.File(file + ".pub")) + "\n";
    EXPECT_EQ(servers::ReadFile(client.KnownHosts()), line);
    ExpectWelcome(client);
    EXPECT_EQ(servers::ReadFile(client.KnownHosts()), line);
}

void ExpectChangedHostKeyRefused(Peer const& peer) {
    SessionClient client(peer.server);
    std::string const line =
        HostName(peer.server) + " ssh-rsa " + KeyIn(peer.server.File("user_rsa.pub")) + "\n";
    servers::WriteFile(client.KnownHosts(), line);
    Report const report = client.WithKey("user_rsa").LogIn();
    EXPECT_EQ(report["key-exchange"], "-1") << report;
    EXPECT_EQ(report["authenticate"], "");
    EXPECT_EQ(servers::ReadFile(client.KnownHosts()), line);
    EXPECT_EQ(report.status, 0);
}

void ExpectInputComesBack(Peer const& peer) {
    std::string const input = Pattern(1 << 20);
    SessionClient client(peer.server);
    client.WithKey("user_rsa").ReadingUnsolicited(peer.unsolicitedAfterKey);
    Report const report = RunCommand(peer, client, "cat", input);
    EXPECT_TRUE(report.output == peer.banner + input) << report.output.size() << " bytes came back";
}

void ExpectErrorOutputOnDescriptor1(Peer const& peer) {
    SessionClient client(peer.server);
    client.WithKey("user_rsa").ReadingUnsolicited(peer.unsolicitedAfterKey);
    EXPECT_EQ(RunCommand(peer, client, "echo complaint >&2").output, "complaint\n");
}

void ExpectEndedBySignal(Peer const& peer) {
    SessionClient client(peer.server);
    client.WithKey("user_rsa").ReadingUnsolicited(peer.unsolicitedAfterKey);
    RunCommand(peer, client, "kill -TERM $$");
}

void ExpectShellOnTerminal(Peer const& peer) {
    support::Terminal terminal(133, 41);
    termios const before = terminal.Settings();
    SessionClient client(peer.server);
    client.WithKey("user_rsa").ReadingUnsolicited(peer.unsolicitedAfterKey).WithVariable("TERM=vt220");
    auto const session = client.StartOnTerminal("shell", terminal);
    client::WaitUntil(*session, [&] { return terminal.IsRaw(); });
    terminal.Type("stty size; echo type=$TERM" + peer.lastWords + "; exit\r");
    // Read all along, for the session waits for a screen that is full.
    client::WaitUntil(*session, [&] { return terminal.Screen().find(" closed.") != std::string::npos; });
    Report const report = client.ReportOf(*session);
    EXPECT_THAT(terminal.Screen(), HasSubstr("41 133\r\n"));
    EXPECT_THAT(terminal.Screen(), HasSubstr("type=vt220\r\n"));
    EXPECT_THAT(terminal.Screen(), EndsWith("Connection to 127.0.0.1 closed.\r\n"));
    EXPECT_TRUE(terminal.Has(before)) << "the terminal is not as it was";
    EXPECT_EQ(report["run"], STOPPED) << report;
    EXPECT_EQ(report.status, 0);
}

int FirstMessageUnprompted(RealServer const& server) {
    struct Connection {
        int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ~Connection() { close(fd); }
    } const connection;
    timeval const limit{10, 0};
    setsockopt(connection.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.Port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(connection.fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot connect");
    auto const next = [&connection] {
        unsigned char byte;
        if (recv(connection.fd, &byte, 1, 0) != 1) throw std::runtime_error("the server waits");
        return byte;
    };
    while (next() != '\n') {
    }
    constexpr int LENGTHS_IN_FRONT = 5; // of the packet and of its padding
    for (int i = 0; i < LENGTHS_IN_FRONT; ++i) next();
    return next();
}
