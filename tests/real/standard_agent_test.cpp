// The keys of the standard dialect with OpenSSH's ssh-agent.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standard/agent_client.h"
#include "standard/find_identities.h"
#include "standard/known_hosts_line.h"
#include "standard/signature_scheme.h"
#include "support/servers/process.h"
#include "support/servers/ssh_agent.h"

using cindral::standard::AgentClient;
using cindral::standard::Bytes;
using cindral::standard::FindIdentities;
using cindral::standard::Identities;
using cindral::standard::Verify;
using cindral::standard::View;

namespace {

constexpr char const* TYPES[] = {"ed25519", "ecdsa", "rsa"};

class RealAgentKeys : public testing::Test {
protected:
    static void SetUpTestSuite() {
        _keys = std::make_unique<servers::TemporaryDirectory>();
        for (std::string const type : TYPES)
            servers::RunOrThrow(
                {"ssh-keygen", "-q", "-t", type, "-N", "", "-C", "the " + type, "-f", File(type)});
    }
    static void TearDownTestSuite() { _keys.reset(); }

    static std::string File(std::string const& name) { return *_keys / name; }
    static Bytes PublicKey(std::string const& name) {
        std::string const line = servers::ReadFile(File(name + ".pub"));
        std::size_t const begin = line.find(' ') + 1;
        Bytes blob;
        EXPECT_TRUE(cindral::standard::DecodeBase64(line.substr(begin, line.find(' ', begin) - begin), blob));
        return blob;
    }

    servers::SshAgent agent;
    Bytes const data = View("some data").Copy();

private:
    static std::unique_ptr<servers::TemporaryDirectory> _keys;
};

std::unique_ptr<servers::TemporaryDirectory> RealAgentKeys::_keys;

} // namespace

TEST_F(RealAgentKeys, KeysAreListedInOrderWithTheirComments) {
    AgentClient client(agent.Socket());
    EXPECT_TRUE(client.List().empty());
    EXPECT_EQ(client.Error(), "");
    for (char const* type : TYPES) agent.Add(File(type));
    auto const keys = client.List();
    ASSERT_EQ(keys.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(keys[i].blob, PublicKey(TYPES[i]));
        EXPECT_EQ(keys[i].comment, std::string("the ") + TYPES[i]);
    }
}

TEST_F(RealAgentKeys, SignaturesVerify) {
    for (char const* type : TYPES) agent.Add(File(type));
    AgentClient client(agent.Socket());
    struct {
        char const* type;
        char const* algorithm;
        unsigned int flags;
    } const cases[] = {{"ed25519", "ssh-ed25519", 0},
                       {"ecdsa", "ecdsa-sha2-nistp256", 0},
                       {"rsa", "rsa-sha2-512", AgentClient::RSA_SHA2_512},
                       {"rsa", "rsa-sha2-256", AgentClient::RSA_SHA2_256}};
    for (auto const& one : cases) {
        Bytes signature;
        ASSERT_TRUE(client.Sign(PublicKey(one.type), data, one.flags, signature)) << client.Error();
        EXPECT_TRUE(Verify(one.algorithm, PublicKey(one.type), data, signature)) << one.algorithm;
        EXPECT_FALSE(Verify(one.algorithm, PublicKey(one.type), View("other data"), signature))
            << one.algorithm;
    }
}

TEST_F(RealAgentKeys, LockedAgentRefusesUntilUnlocked) {
    agent.Add(File("ed25519"));
    AgentClient client(agent.Socket());
    Bytes signature;
    agent.Lock("locked");
    EXPECT_TRUE(client.List().empty());
    EXPECT_FALSE(client.Sign(PublicKey("ed25519"), data, 0, signature));
    EXPECT_EQ(client.Error(), "the agent refused");
    agent.Unlock("locked");
    EXPECT_TRUE(client.Sign(PublicKey("ed25519"), data, 0, signature));
}

TEST_F(RealAgentKeys, KeyOfTheAgentSignsForAFileThatIsGone) {
    agent.Add(File("rsa"));
    servers::TemporaryDirectory const directory;
    std::filesystem::copy(File("rsa.pub"), directory / "rsa.pub");
    cindral::EnterPassword nobody(0, "");
    std::vector<std::string> notes;
    Identities const found = FindIdentities(directory / "rsa", std::make_shared<AgentClient>(agent.Socket()),
                                            View(), nobody, notes);
    ASSERT_EQ(found.size(), 1u);
    Bytes signature;
    std::string reason;
    ASSERT_TRUE(found[0]->Sign("rsa-sha2-512", data, signature, reason)) << reason;
    EXPECT_TRUE(Verify("rsa-sha2-512", PublicKey("rsa"), data, signature));
    agent.RemoveAll();
    EXPECT_FALSE(found[0]->Sign("rsa-sha2-512", data, signature, reason));
    EXPECT_EQ(reason, "the agent refused");
}
