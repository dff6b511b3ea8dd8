// The library with paramiko.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/session_cases.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"

using client::Report;
using client::SessionClient;
using testing::StartsWith;

namespace {

class Paramiko : public servers::ServerSuite<servers::ParamikoServer> {
protected:
    static Peer ThePeer() { return {TheServer()}; }
};

} // namespace

TEST_F(Paramiko, AgreesOnTheFirstChoices) {
    Report const report = SessionClient(TheServer()).As(TheServer().OpenUser()).LogIn();
    EXPECT_THAT(report["server-version"], StartsWith("SSH-2.0-paramiko"));
    EXPECT_EQ(report["group-exchange"], "yes");
    EXPECT_EQ(report["cipher"], "aes128-ctr,aes128-ctr");
    EXPECT_EQ(report["mac"], "hmac-sha1,hmac-sha1");
}

TEST_F(Paramiko, LetsOpenUserInWithNothing) { ExpectOpenUserNeedsNothing(ThePeer(), TheServer().OpenUser()); }
TEST_F(Paramiko, TakesKeys) { ExpectKeyLogins(ThePeer()); }
TEST_F(Paramiko, TakesEncryptedKeysWithTheirPassphrase) { ExpectEncryptedKeyLogins(ThePeer()); }
TEST_F(Paramiko, RefusesWrongPassphrase) { ExpectWrongPassphraseRefused(ThePeer()); }
TEST_F(Paramiko, TakesDefaultKeys) { ExpectDefaultKeyLogins(ThePeer()); }
TEST_F(Paramiko, TakesKeysOfAnAgent) { ExpectAgentLogins(ThePeer()); }
TEST_F(Paramiko, RefusesUnknownKey) { ExpectUnknownKeyRefused(ThePeer()); }
TEST_F(Paramiko, TakesThePassword) { ExpectPasswordLogin(ThePeer()); }
TEST_F(Paramiko, RefusesAnotherPassword) { ExpectWrongPasswordRefused(ThePeer()); }
TEST_F(Paramiko, TakesThePasswordTyped) { ExpectPasswordTypedOnTheTerminal(ThePeer()); }
TEST_F(Paramiko, TakesKeyboardInteractive) { ExpectKeyboardInteractiveLogin(ThePeer(), "1"); }
TEST_F(Paramiko, RefusesAnotherAnswer) { ExpectWrongAnswerRefused(ThePeer()); }

TEST_F(Paramiko, HostIsLearntThenFound) { ExpectHostLearntThenFound(ThePeer(), "ssh-rsa", "host_rsa"); }
TEST_F(Paramiko, ChangedHostKeyIsRefused) { ExpectChangedHostKeyRefused(ThePeer()); }

TEST_F(Paramiko, InputComesBack) { ExpectInputComesBack(ThePeer()); }
TEST_F(Paramiko, ErrorOutputComesOnDescriptor1) { ExpectErrorOutputOnDescriptor1(ThePeer()); }
TEST_F(Paramiko, SignalEndsTheCommand) { ExpectEndedBySignal(ThePeer()); }
TEST_F(Paramiko, GivesAShellOnATerminal) { ExpectShellOnTerminal(ThePeer()); }

TEST(ParamikoOtherChoices, BannerDsaHostKeyCbcAndMd5MacWork) {
    std::string const banner = "a word before\n";
    servers::ParamikoServer const server(
        {"--banner", banner, "--host-key", "dsa", "--ciphers", "aes128-cbc", "--macs", "hmac-md5"});
    Peer peer{server};
    peer.banner = banner;
    ExpectHostLearntThenFound(peer, "ssh-dss", "host_dsa");
    ExpectInputComesBack(peer);
    Report const report = SessionClient(server).WithKey("user_dsa").LogIn();
    EXPECT_EQ(report["cipher"], "aes128-cbc,aes128-cbc") << report;
    EXPECT_EQ(report["mac"], "hmac-md5,hmac-md5");
    EXPECT_EQ(report.output, banner);
}
