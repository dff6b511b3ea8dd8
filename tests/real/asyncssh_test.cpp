// The library with asyncssh.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/session_cases.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"

using client::Report;
using client::SessionClient;
using testing::StartsWith;

namespace {

class Asyncssh : public servers::ServerSuite<servers::AsyncsshServer> {
protected:
    static Peer ThePeer() { return {TheServer()}; }
};

} // namespace

TEST_F(Asyncssh, AgreesOnTheFirstChoices) {
    Report const report = SessionClient(TheServer()).As(TheServer().OpenUser()).LogIn();
    EXPECT_THAT(report["server-version"], StartsWith("SSH-2.0-AsyncSSH"));
    EXPECT_EQ(report["group-exchange"], "yes");
    EXPECT_EQ(report["cipher"], "aes128-ctr,aes128-ctr");
    EXPECT_EQ(report["mac"], "hmac-sha1,hmac-sha1");
}

TEST_F(Asyncssh, LetsOpenUserInWithNothing) { ExpectOpenUserNeedsNothing(ThePeer(), TheServer().OpenUser()); }
TEST_F(Asyncssh, TakesKeys) { ExpectKeyLogins(ThePeer()); }
TEST_F(Asyncssh, TakesEncryptedKeysWithTheirPassphrase) { ExpectEncryptedKeyLogins(ThePeer()); }
TEST_F(Asyncssh, RefusesWrongPassphrase) { ExpectWrongPassphraseRefused(ThePeer()); }
TEST_F(Asyncssh, TakesDefaultKeys) { ExpectDefaultKeyLogins(ThePeer()); }
TEST_F(Asyncssh, TakesKeysOfAnAgent) { ExpectAgentLogins(ThePeer()); }
TEST_F(Asyncssh, RefusesUnknownKey) { ExpectUnknownKeyRefused(ThePeer()); }
TEST_F(Asyncssh, TakesThePassword) { ExpectPasswordLogin(ThePeer()); }
TEST_F(Asyncssh, RefusesAnotherPassword) { ExpectWrongPasswordRefused(ThePeer()); }
TEST_F(Asyncssh, TakesThePasswordTyped) { ExpectPasswordTypedOnTheTerminal(ThePeer()); }
TEST_F(Asyncssh, TakesKeyboardInteractive) { ExpectKeyboardInteractiveLogin(ThePeer(), "1"); }
TEST_F(Asyncssh, RefusesAnotherAnswer) { ExpectWrongAnswerRefused(ThePeer()); }

TEST_F(Asyncssh, HostIsLearntThenFound) { ExpectHostLearntThenFound(ThePeer(), "ssh-rsa", "host_rsa"); }
TEST_F(Asyncssh, ChangedHostKeyIsRefused) { ExpectChangedHostKeyRefused(ThePeer()); }

TEST_F(Asyncssh, InputComesBack) { ExpectInputComesBack(ThePeer()); }
TEST_F(Asyncssh, ErrorOutputComesOnDescriptor1) { ExpectErrorOutputOnDescriptor1(ThePeer()); }
TEST_F(Asyncssh, SignalEndsTheCommand) { ExpectEndedBySignal(ThePeer()); }
TEST_F(Asyncssh, GivesAShellOnATerminal) { ExpectShellOnTerminal(ThePeer()); }

TEST(AsyncsshOtherChoices, BannerDsaHostKeyCbcAndShortMacWork) {
    std::string const banner = "a word before\n";
    servers::AsyncsshServer const server(
        {"--banner", banner, "--host-key", "dsa", "--ciphers", "aes128-cbc", "--macs", "hmac-sha1-96"});
    Peer peer{server};
    peer.banner = banner;
    ExpectHostLearntThenFound(peer, "ssh-dss", "host_dsa");
    ExpectInputComesBack(peer);
    Report const report = SessionClient(server).WithKey("user_dsa").LogIn();
    EXPECT_EQ(report["cipher"], "aes128-cbc,aes128-cbc") << report;
    EXPECT_EQ(report["mac"], "hmac-sha1-96,hmac-sha1-96");
    EXPECT_EQ(report.output, banner);
}
