// The library with OpenSSH's sshd, which sends messages of its own between the login and the answer to the
// first channel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/session_cases.h"
#include "support/servers/openssh_server.h"
#include "support/servers/server_suite.h"

using client::Report;
using client::SessionClient;
using servers::OpensshAlgorithms;
using servers::OpensshServer;
using testing::StartsWith;

namespace {

/// Sends a GLOBAL_REQUEST after every login, and two DEBUG more after one with a key; may report the end
/// of a command before its last output.
Peer PeerAt(OpensshServer const& server) { return {server, 3, 1, {}, "; sleep 1"}; }

class Openssh : public servers::ServerSuite<OpensshServer> {
protected:
    static Peer ThePeer() { return PeerAt(TheServer()); }
};

} // namespace

TEST_F(Openssh, AcceptsAUserWithoutCredentials) {
    ExpectOpenUserNeedsNothing(ThePeer(), TheServer().OpenUser());
}
TEST_F(Openssh, AcceptsKeys) { ExpectKeyLogins(ThePeer()); }
TEST_F(Openssh, AcceptsEncryptedKeysWithTheirPassphrase) { ExpectEncryptedKeyLogins(ThePeer()); }
TEST_F(Openssh, RefusesWrongPassphrase) { ExpectWrongPassphraseRefused(ThePeer()); }
TEST_F(Openssh, AcceptsDefaultKeys) { ExpectDefaultKeyLogins(ThePeer()); }
TEST_F(Openssh, AcceptsKeysOfAnAgent) { ExpectAgentLogins(ThePeer()); }
TEST_F(Openssh, RefusesUnknownKey) { ExpectUnknownKeyRefused(ThePeer()); }
TEST_F(Openssh, AcceptsThePassword) { ExpectPasswordLogin(ThePeer()); }
TEST_F(Openssh, RefusesAWrongPassword) { ExpectWrongPasswordRefused(ThePeer()); }
TEST_F(Openssh, AcceptsATypedPassword) { ExpectPasswordTypedOnTheTerminal(ThePeer()); }
// PAM has a second request, which asks nothing.
TEST_F(Openssh, AcceptsKeyboardInteractive) { ExpectKeyboardInteractiveLogin(ThePeer(), "1,0"); }
TEST_F(Openssh, RefusesAWrongAnswer) { ExpectWrongAnswerRefused(ThePeer()); }

TEST_F(Openssh, OpenThrowsOnMessagesAfterTheLogin) {
    std::string const expected = "SshProtocolError: expected either CHANNEL_OPEN_CONFIRMATION or "
                                 "CHANNEL_OPEN_FAILURE packet";
    for (auto const setUp : {+[](SessionClient& client) { client.WithKey("user_rsa"); },
                             +[](SessionClient& client) { client.As(TheServer().OpenUser()); },
                             +[](SessionClient& client) { client.WithPassword(TheServer().Password()); },
                             +[](SessionClient& client) { client.Answering(TheServer().Password()); }}) {
        SessionClient client(TheServer());
        setUp(client);
        Report const report = client.OpenChannel();
        EXPECT_EQ(report["authenticate"], "0") << report;
        EXPECT_EQ(report["thrown"], expected) << report;
        EXPECT_EQ(report["end"], "reached");
        EXPECT_EQ(report.status, 0);
    }
}

TEST_F(Openssh, MessagesAfterTheLoginAreKnown) {
    std::string const globalRequest = "80", debug = "4";
    SessionClient client(TheServer());
    EXPECT_EQ(client.WithKey("user_rsa").ReadingUnsolicited(3).LogIn()["unsolicited"],
              globalRequest + "," + debug + "," + debug);
    client.ReadingUnsolicited(1);
    EXPECT_EQ(client.WithPassword(TheServer().Password()).LogIn()["unsolicited"], globalRequest);
    EXPECT_EQ(client.As(TheServer().OpenUser()).LogIn()["unsolicited"], globalRequest);
}

TEST_F(Openssh, HostIsLearntThenFound) { ExpectHostLearntThenFound(ThePeer(), "ssh-rsa", "host_rsa"); }
TEST_F(Openssh, ChangedHostKeyIsRefused) { ExpectChangedHostKeyRefused(ThePeer()); }

TEST_F(Openssh, InputIsEchoed) { ExpectInputComesBack(ThePeer()); }
TEST_F(Openssh, ErrorOutputIsWrittenToDescriptor1) { ExpectErrorOutputOnDescriptor1(ThePeer()); }
TEST_F(Openssh, SignalEndsTheCommand) { ExpectEndedBySignal(ThePeer()); }
TEST_F(Openssh, RunsAShellOnATerminal) { ExpectShellOnTerminal(ThePeer()); }

namespace {

/// Another sshd works with the first choices among what it offers.
void ExpectAgreement(OpensshAlgorithms const& algorithms) {
    OpensshServer const server(algorithms);
    Report const report = SessionClient(server).WithKey("user_dsa").LogIn();
    EXPECT_THAT(report["server-version"], StartsWith("SSH-2.0-OpenSSH"));
    EXPECT_EQ(report["cipher"], algorithms.ciphers + "," + algorithms.ciphers) << report;
    EXPECT_EQ(report["mac"], algorithms.macs + "," + algorithms.macs);
    Peer const peer = PeerAt(server);
    bool const isDss = algorithms.hostKeys == "ssh-dss";
    ExpectHostLearntThenFound(peer, algorithms.hostKeys, isDss ? "host_dsa" : "host_rsa");
    ExpectInputComesBack(peer);
}

/// Keys longer than a SHA-1 digest come out otherwise than RFC 4253, section 7.2, has them, so that the
/// first packet under them says nothing to the server.
void ExpectNoCommonKeys(OpensshAlgorithms const& algorithms) {
    OpensshServer const server(algorithms);
    Report const report = SessionClient(server).WithKey("user_rsa").LogIn();
    EXPECT_EQ(report["key-exchange"], "0") << report;
    EXPECT_EQ(report["cipher"], algorithms.ciphers + "," + algorithms.ciphers);
    EXPECT_EQ(report["mac"], algorithms.macs + "," + algorithms.macs);
    EXPECT_EQ(report["authenticate"], "");
    EXPECT_EQ(report["thrown"], "SshProtocolError: packet length less than 2") << report;
    EXPECT_EQ(report["end"], "reached");
    EXPECT_EQ(report.status, 0);
}

} // namespace

TEST(OpensshOtherChoices, CtrWithSha1) { ExpectAgreement({"aes128-ctr", "hmac-sha1", "ssh-rsa"}); }
TEST(OpensshOtherChoices, CbcWithMd5AndDsaHostKey) { ExpectAgreement({"aes128-cbc", "hmac-md5", "ssh-dss"}); }
TEST(OpensshOtherChoices, CtrWithShortSha1) { ExpectAgreement({"aes128-ctr", "hmac-sha1-96", "ssh-rsa"}); }

TEST(OpensshLongKeys, LongCipherKeysFailAtTheFirstPacket) {
    ExpectNoCommonKeys({"aes256-ctr", "hmac-sha1", "ssh-rsa"});
}
TEST(OpensshLongKeys, LongMacKeysFailAtTheFirstPacket) {
    ExpectNoCommonKeys({"aes128-ctr", "hmac-sha2-256", "ssh-rsa"});
}
