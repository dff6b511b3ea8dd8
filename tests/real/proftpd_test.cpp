// The library with ProFTPD, which serves no commands: as far as the login and the channel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/session_cases.h"
#include "support/servers/proftpd_server.h"
#include "support/servers/server_suite.h"
#include "support/servers/test_keys.h"

using client::Report;
using client::SessionClient;
using servers::ProftpdServer;
using testing::StartsWith;

namespace {

constexpr int KEXINIT = 20;

void ExpectLogin(SessionClient const& client) {
    Report const report = client.OpenChannel();
    EXPECT_THAT(report["server-version"], StartsWith("SSH-2.0-mod_sftp"));
    EXPECT_EQ(report["group-exchange"], "yes");
    EXPECT_EQ(report["cipher"], "aes128-ctr,aes128-ctr");
    EXPECT_EQ(report["mac"], "hmac-sha1,hmac-sha1");
    EXPECT_EQ(report["authenticate"], "0") << report;
    EXPECT_EQ(report["open"], "0") << report;
    EXPECT_EQ(report.errors, "");
    EXPECT_EQ(report.status, 0);
}

void ExpectKeyLogins(ProftpdServer const& server) {
    for (std::string const key : {"user_rsa", "user_dsa"}) ExpectLogin(SessionClient(server).WithKey(key));
}

void ExpectAgentLogins(ProftpdServer const& server) {
    servers::SshAgent agent;
    for (std::string const key : {"user_rsa", "user_dsa"}) {
        SessionClient client(server);
        client.WithKeyInAgent(key, agent);
        EXPECT_EQ(client.LogIn()["authenticate"], "-1");
        agent.Add(server.File(key));
        ExpectLogin(client);
    }
}

void ExpectPasswordLogin(ProftpdServer const& server) {
    ExpectLogin(SessionClient(server).WithPassword(server.Password()));
    EXPECT_EQ(SessionClient(server).WithPassword("wrong").LogIn()["authenticate"], "-1");
}

} // namespace

using Proftpd = servers::ServerSuite<ProftpdServer>;

TEST_F(Proftpd, AcceptsKeys) { ExpectKeyLogins(TheServer()); }
TEST_F(Proftpd, AcceptsAnEncryptedKey) {
    ExpectLogin(SessionClient(TheServer()).WithKey("user_rsa.openssh.encrypted", servers::KEY_PASSPHRASE));
}
TEST_F(Proftpd, AcceptsKeysOfAnAgent) { ExpectAgentLogins(TheServer()); }
TEST_F(Proftpd, AcceptsThePassword) { ExpectPasswordLogin(TheServer()); }
TEST_F(Proftpd, RefusesUnknownKey) { ExpectUnknownKeyRefused({TheServer()}); }
TEST_F(Proftpd, ChangedHostKeyIsRefused) { ExpectChangedHostKeyRefused({TheServer()}); }

TEST(ProftpdEarly, KexinitAfterTheIdentificationLosesNothing) {
    ProftpdServer const server(ProftpdServer::Kexinit::EARLY);
    EXPECT_EQ(FirstMessageUnprompted(server), KEXINIT);
    ExpectKeyLogins(server);
    ExpectAgentLogins(server);
    ExpectPasswordLogin(server);
}
