// The agent access with OpenSSH's ssh-agent, and ssh-add as the judge of what the agent holds.

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/enter_password.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/trust/ssh_agent_access.h>

#include "support/servers/process.h"
#include "support/servers/ssh_agent.h"
#include "support/servers/test_keys.h"

using cindral::BadInput;
using cindral::PrivateKey;
using cindral::PublicKey;
using cindral::Signature;
using cindral::SshAgentAccess;

namespace {

char const* const KEYS[] = {"user_rsa", "user_dsa"};

/// An agent that holds nothing at first, and throw-away keys.
class RealAgent : public testing::Test {
protected:
    static void SetUpTestSuite() {
        _keys = std::make_unique<servers::TemporaryDirectory>();
        servers::MakeTestKeys(_keys->Path().string());
    }
    static void TearDownTestSuite() { _keys.reset(); }

    RealAgent() : agent(std::make_unique<servers::SshAgent>()) {
        setenv("SSH_AUTH_SOCK", agent->Socket().c_str(), 1);
    }
    ~RealAgent() override { unsetenv("SSH_AUTH_SOCK"); }

    static std::string File(std::string const& name) { return *_keys / name; }

    static PublicKey ReadPublic(std::string const& name) {
        PublicKey key;
        EXPECT_EQ(key.ReadSSH(File(name + ".pub").c_str()), 0);
        return key;
    }
    static void ReadPrivate(std::string const& name, PrivateKey& key) {
        cindral::EnterPassword none(0, "");
        ASSERT_EQ(key.Read(File(name).c_str(), none), 0);
    }

    /// A key as `ssh-add -L` lists it.
    static std::string Line(std::string const& name, std::string const& comment) {
        PublicKey const key = ReadPublic(name);
        return std::string(key._rep->Name()) + " " + key._rep->EncodeSSH64().Text() + " " + comment + "\n";
    }

    std::unique_ptr<servers::SshAgent> agent;
    ByteString const data{"some data", 9};

private:
    static std::unique_ptr<servers::TemporaryDirectory> _keys;
};

std::unique_ptr<servers::TemporaryDirectory> RealAgent::_keys;

} // namespace

TEST_F(RealAgent, EmptyAgentListsNothing) {
    SshAgentAccess access(nullptr);
    SshAgentAccess::Iterator identity(access);
    EXPECT_FALSE(identity);
    EXPECT_EQ(identity.Err(), 0);
    EXPECT_EQ(access.IsAvailable(ReadPublic("user_rsa")), 0);
}

TEST_F(RealAgent, ListsKeysAddedBySshAdd) {
    for (char const* name : KEYS) agent->Add(File(name));
    SshAgentAccess access(nullptr);
    std::string listed;
    for (SshAgentAccess::Iterator identity(access); identity; ++identity) {
        PublicKey const key = identity.Key();
        ASSERT_NE(key._rep, nullptr);
        listed += std::string(key._rep->Name()) + " " + key._rep->EncodeSSH64().Text() + " " +
                  identity.Name().Text() + "\n";
    }
    EXPECT_EQ(listed, agent->List());
    for (char const* name : KEYS) EXPECT_EQ(access.IsAvailable(ReadPublic(name)), 1) << name;
    EXPECT_EQ(access.IsAvailable(ReadPublic("host_rsa")), 0);
}

TEST_F(RealAgent, KeysAreAddedAndRemoved) {
    SshAgentAccess access(nullptr);
    for (char const* name : KEYS) {
        PrivateKey key;
        ReadPrivate(name, key);
        EXPECT_EQ(access.Add(key, "put in here"), 0) << name;
    }
    EXPECT_EQ(agent->List(), Line("user_rsa", "put in here") + Line("user_dsa", "put in here"));
    EXPECT_EQ(access.Remove(ReadPublic("user_rsa")), 0);
    EXPECT_EQ(agent->List(), Line("user_dsa", "put in here"));
    EXPECT_EQ(access.Remove(ReadPublic("user_rsa")), -5);
    EXPECT_EQ(access.Clear(), 0);
    EXPECT_EQ(agent->List(), "");
}

TEST_F(RealAgent, SignatureVerifies) {
    SshAgentAccess access(nullptr);
    for (char const* name : KEYS) {
        agent->Add(File(name));
        PublicKey const key = ReadPublic(name);
        Signature signature(key._rep->Type());
        EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), 0) << name;
        EXPECT_EQ(signature.Verify(data, cindral::DIGEST_SHA1, key), 1) << name;
        EXPECT_NE(signature.Verify(ByteString("other data", 10), cindral::DIGEST_SHA1, key), 1) << name;
    }
}

TEST_F(RealAgent, UnknownKeyIsNotSignedWith) {
    SshAgentAccess access(nullptr);
    PublicKey const key = ReadPublic("user_rsa");
    Signature signature(key._rep->Type());
    EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), -5);
    EXPECT_EQ(signature._rep->Encode().Length(), 0u);
}

TEST_F(RealAgent, LockedAgentRefusesEverything) {
    agent->Add(File("user_rsa"));
    SshAgentAccess access(nullptr);
    PublicKey const key = ReadPublic("user_rsa");
    Signature signature(key._rep->Type());
    agent->Lock("secret");
    EXPECT_EQ(access.IsAvailable(key), 0);
    EXPECT_EQ(access.Sign(key, data, cindral::DIGEST_SHA1, signature), -5);
    EXPECT_EQ(access.Clear(), -5);
    agent->Unlock("secret");
    EXPECT_EQ(access.IsAvailable(key), 1);
}

TEST_F(RealAgent, DeadAgentIsAFailureResult) {
    SshAgentAccess access(nullptr);
    EXPECT_EQ(access.Clear(), 0);
    agent.reset();
    for (int i = 0; i < 3; ++i) EXPECT_THROW(access.Clear(), BadInput);
    EXPECT_THROW(access.IsAvailable(ReadPublic("user_rsa")), BadInput);
}
