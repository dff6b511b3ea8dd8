// What a StandardDialect can be set to.

#include <brantle/standard/standard_dialect.h>

#include <string>

#include <gtest/gtest.h>

#include <brantle/apps/ssh_cmd_session.h>
#include <brantle/cindral/exceptions.h>

using cindral::InvalidArgument;
using cindral::SshCmdSession;
using cindral::StandardDialect;

namespace {

class StandardSettings : public testing::Test {
protected:
    SshCmdSession session{22, "127.0.0.1", "true"};
    StandardDialect dialect{session};
};

/// What `set` is refused for; empty if it is not.
template <class Set>
std::string Refusal(Set const& set) {
    try {
        set();
        return "";
    } catch (InvalidArgument const& refusal) {
        return refusal.Detail().Text();
    }
}

} // namespace

TEST_F(StandardSettings, SecondDialectOfASessionIsRefused) {
    EXPECT_THROW(StandardDialect second(session), InvalidArgument);
}

TEST_F(StandardSettings, NamesMustBeKnownAndNotBeRepeated) {
    EXPECT_EQ(Refusal([&] { dialect.SetCiphers("aes256-ctr,aes128-gcm@openssh.com"); }), "");
    EXPECT_EQ(Refusal([&] { dialect.SetCiphers("aes128-cbc"); }),
              "algorithm \"aes128-cbc\" is not supported");
    EXPECT_EQ(Refusal([&] { dialect.SetMacs("hmac-sha1,hmac-sha1"); }),
              "algorithm \"hmac-sha1\" is there twice");
    EXPECT_EQ(Refusal([&] { dialect.SetHostKeyAlgorithms("ssh-rsa"); }),
              "algorithm \"ssh-rsa\" is not supported");
    EXPECT_EQ(Refusal([&] { dialect.SetPublicKeyAlgorithms("ssh-ed25519,"); }), "a name is empty");
    EXPECT_EQ(Refusal([&] { dialect.SetKexAlgorithms(""); }), "no algorithm");
}

TEST_F(StandardSettings, NumbersMustBeWithinTheirLimits) {
    EXPECT_EQ(Refusal([&] { dialect.SetRekeyLimit(1024, 0); }), "");
    EXPECT_EQ(Refusal([&] { dialect.SetRekeyLimit(1023, 0); }), "less than 1024 bytes");
    for (unsigned int const count : {1u, 1024u})
        EXPECT_EQ(Refusal([&] { dialect.SetRequestsInFlight(count); }), "");
    for (unsigned int const count : {0u, 1025u})
        EXPECT_EQ(Refusal([&] { dialect.SetRequestsInFlight(count); }), "not from 1 to 1024");
}

TEST_F(StandardSettings, KeepaliveMustAllowForOneWithoutAnAnswer) {
    EXPECT_EQ(Refusal([&] { dialect.SetKeepalive(5, 1); }), "");
    EXPECT_EQ(Refusal([&] { dialect.SetKeepalive(0, 0); }), "") << "it is off";
    EXPECT_EQ(Refusal([&] { dialect.SetKeepalive(5, 0); }), "no keepalive may be unanswered");
}

TEST_F(StandardSettings, NothingIsKnownBeforeTheConnection) {
    EXPECT_EQ(dialect.ExitStatus(), -1);
    EXPECT_EQ(dialect.KeyExchanges(), 0u);
    EXPECT_EQ(dialect.RemotePort(), 0u);
    EXPECT_FALSE(dialect.IsStrict());
    for (String_t const* text :
         {&dialect.ExitSignal(), &dialect.KexName(), &dialect.HostKeyName(), &dialect.LastError()})
        EXPECT_TRUE(*text == "");
}

TEST_F(StandardSettings, LoginWithoutKeysInForceIsRefused) {
    cindral::EnterPassword enter(0, "");
    cindral::KbdInteractiveCallback questions;
    EXPECT_EQ(session.KeyExchange(), -1);
    EXPECT_TRUE(dialect.LastError() == "the session is not connected") << dialect.LastError().Text();
    EXPECT_EQ(session.Authenticate("", "me", "secret", enter, questions), -1);
    EXPECT_TRUE(dialect.LastError() == "no keys are in force: KeyExchange has not succeeded");
}
