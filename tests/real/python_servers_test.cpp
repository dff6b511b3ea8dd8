// The library with the servers of asyncssh and of paramiko.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/server_kinds.h"
#include "real/session_cases.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"

using client::Report;
using client::SessionClient;
using kinds::Names;
using testing::StartsWith;

namespace {

struct Asyncssh : kinds::Asyncssh {
    static constexpr char const* VERSION = "SSH-2.0-AsyncSSH";
    static constexpr char const* OTHER_MAC = "hmac-sha1-96";
};

struct Paramiko : kinds::Paramiko {
    static constexpr char const* VERSION = "SSH-2.0-paramiko";
    static constexpr char const* OTHER_MAC = "hmac-md5";
};

template <class Kind>
class PythonServer : public servers::ServerSuite<typename Kind::Server> {
protected:
    Peer _peer{this->TheServer()};
};

using Kinds = testing::Types<Asyncssh, Paramiko>;
TYPED_TEST_SUITE(PythonServer, Kinds, Names);

TYPED_TEST(PythonServer, AgreesOnTheFirstChoices) {
    Report const report = SessionClient(this->TheServer()).As(this->TheServer().OpenUser()).LogIn();
    EXPECT_THAT(report["server-version"], StartsWith(TypeParam::VERSION));
    EXPECT_EQ(report["group-exchange"], "yes");
    EXPECT_EQ(report["cipher"], "aes128-ctr,aes128-ctr");
    EXPECT_EQ(report["mac"], "hmac-sha1,hmac-sha1");
}

TYPED_TEST(PythonServer, AcceptsAUserWithoutCredentials) {
    ExpectOpenUserNeedsNothing(this->_peer, this->TheServer().OpenUser());
}
TYPED_TEST(PythonServer, AcceptsKeys) { ExpectKeyLogins(this->_peer); }
TYPED_TEST(PythonServer, AcceptsEncryptedKeysWithTheirPassphrase) { ExpectEncryptedKeyLogins(this->_peer); }
TYPED_TEST(PythonServer, RefusesWrongPassphrase) { ExpectWrongPassphraseRefused(this->_peer); }
TYPED_TEST(PythonServer, AcceptsDefaultKeys) { ExpectDefaultKeyLogins(this->_peer); }
TYPED_TEST(PythonServer, AcceptsKeysOfAnAgent) { ExpectAgentLogins(this->_peer); }
TYPED_TEST(PythonServer, RefusesUnknownKey) { ExpectUnknownKeyRefused(this->_peer); }
TYPED_TEST(PythonServer, AcceptsThePassword) { ExpectPasswordLogin(this->_peer); }
TYPED_TEST(PythonServer, RefusesAWrongPassword) { ExpectWrongPasswordRefused(this->_peer); }
TYPED_TEST(PythonServer, AcceptsATypedPassword) { ExpectPasswordTypedOnTheTerminal(this->_peer); }
TYPED_TEST(PythonServer, AcceptsKeyboardInteractive) { ExpectKeyboardInteractiveLogin(this->_peer, "1"); }
TYPED_TEST(PythonServer, RefusesAWrongAnswer) { ExpectWrongAnswerRefused(this->_peer); }

TYPED_TEST(PythonServer, HostIsLearntThenFound) {
    ExpectHostLearntThenFound(this->_peer, "ssh-rsa", "host_rsa");
}
TYPED_TEST(PythonServer, ChangedHostKeyIsRefused) { ExpectChangedHostKeyRefused(this->_peer); }

TYPED_TEST(PythonServer, InputIsEchoed) { ExpectInputComesBack(this->_peer); }
TYPED_TEST(PythonServer, ErrorOutputIsWrittenToDescriptor1) { ExpectErrorOutputOnDescriptor1(this->_peer); }
TYPED_TEST(PythonServer, SignalEndsTheCommand) { ExpectEndedBySignal(this->_peer); }
TYPED_TEST(PythonServer, RunsAShellOnATerminal) { ExpectShellOnTerminal(this->_peer); }

TYPED_TEST(PythonServer, BannerDsaHostKeyCbcAndAnotherMacWork) {
    std::string const banner = "a word before\n";
    typename TypeParam::Server const server(
        {"--banner", banner, "--host-key", "dsa", "--ciphers", "aes128-cbc", "--macs", TypeParam::OTHER_MAC});
    Peer peer{server};
    peer.banner = banner;
    ExpectHostLearntThenFound(peer, "ssh-dss", "host_dsa");
    ExpectInputComesBack(peer);
    Report const report = SessionClient(server).WithKey("user_dsa").LogIn();
    EXPECT_EQ(report["cipher"], "aes128-cbc,aes128-cbc") << report;
    std::string const mac = TypeParam::OTHER_MAC;
    EXPECT_EQ(report["mac"], mac + "," + mac);
    EXPECT_EQ(report.output, banner);
}

} // namespace
