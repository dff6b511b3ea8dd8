// The group exchange of RFC 4419, the checks of the server's reply, and NEWKEYS.

#include <openssl/bn.h>

#include "wire/test_session.h"

using namespace peer;

namespace {

char const* const tooManyRetries = "CryptoException: too many retries:  DhExchange::GenerateKey";

void Complete(Connection& c) {
    c.WellBehaved(Stage::NewKeys);
    c.ExpectClosed();
}

ServerSettings Pinned(std::string const& cipher = "aes128-ctr", std::string const& mac = "hmac-md5") {
    ServerSettings settings;
    settings.kexInit.Pin(cipher, mac);
    return settings;
}

/// Runs a key exchange against a script; the script must run to its end.
std::string Try(ScriptedPeer::Script const& script, ServerSettings const& settings = Pinned()) {
    ScriptedPeer server(script, settings);
    std::string outcome = ExchangeKeys(server.Port());
    server.Finish();
    return outcome;
}

void UpToGroupRequest(Connection& c) {
    c.WellBehaved(Stage::KexInitExchanged);
    c.Negotiate();
    c.ReceiveGroupRequest();
}

void UpToGroupInit(Connection& c) {
    UpToGroupRequest(c);
    c.SendGroup();
    c.ReceiveGroupInit();
}

/// A server that puts this message in the place of its group.
std::string TryGroup(Bytes const& message) {
    return Try([&](Connection& c) {
        UpToGroupRequest(c);
        c.SendPacket(message);
        c.ExpectClosed();
    });
}

/// A server that changes its reply before it is sent; the client must stop there.
std::string TryReply(std::function<void(Connection&, GroupReply&)> const& change) {
    return Try([&](Connection& c) {
        UpToGroupInit(c);
        GroupReply reply = c.MakeGroupReply();
        change(c, reply);
        c.SendGroupReply(reply);
        c.ExpectClosed();
    });
}

std::string TryReplyMessage(Bytes const& message) {
    return Try([&](Connection& c) {
        UpToGroupInit(c);
        c.SendPacket(message);
        c.ExpectClosed();
    });
}

std::string TryNewKeysMessage(Bytes const& message) {
    return Try([&](Connection& c) {
        UpToGroupInit(c);
        c.SendGroupReply(c.MakeGroupReply());
        c.SendPacket(message);
        c.ReceiveNewKeys();
        c.Wire().ReceiveUpTo(1);
    });
}

/// The public value 2 ^ exponent, with secret, hash and signature that fit it.
void ReplyWithExponent(Connection& c, GroupReply& reply, unsigned exponent) {
    Bytes power{std::uint8_t(1u << exponent % 8)};
    power.resize(1 + exponent / 8);
    reply.f = c.kex.f = power;
    c.kex.k = ModularPower(c.kex.e, {std::uint8_t(exponent >> 8), std::uint8_t(exponent)}, c.kex.group.p);
    c.kex.hash = ExchangeHash({c.kex.clientVersion, c.kex.serverVersion, c.kex.clientKexInit,
                               c.kex.serverKexInit, reply.hostKeyBlob, c.kex.min, c.kex.preferred, c.kex.max,
                               c.kex.group.p, c.kex.group.g, c.kex.e, c.kex.f, c.kex.k});
    reply.signature = c.settings.hostKey->Sign(c.kex.hash);
}

Bytes GroupMessage(Bytes const& p, Bytes const& g) { return Writer().U8(GEX_GROUP).Mpint(p).Mpint(g); }

/// An odd number of exactly so many bits, the lower ones of a known prime.
Bytes OddNumber(unsigned bits) {
    Bytes number = DhGroup::Modp(8192).p;
    number.insert(number.begin(), 2, 0xff);
    number = Slice(number, number.size() - (bits + 7) / 8, number.size());
    unsigned const top = (bits - 1) % 8;
    number[0] = static_cast<std::uint8_t>((number[0] & ((1u << top) - 1)) | 1u << top);
    return number;
}

std::string TryNumberAsModulus(unsigned bits) {
    ServerSettings settings = Pinned();
    settings.group = DhGroup{OddNumber(bits), {2}, bits};
    return Try(Complete, settings);
}

} // namespace

struct NeedCase {
    char const* cipher;
    char const* mac;
    unsigned need;
    unsigned preferred;
    std::size_t keyLength;
};

class KeyNeed : public testing::TestWithParam<NeedCase> {};

TEST_P(KeyNeed, SetsGroupSizeAndKeys) {
    NeedCase const& param = GetParam();
    ScriptedPeer server([](Connection& c) { c.WellBehaved(Stage::Service); },
                        Pinned(param.cipher, param.mac));
    TestSession session(server.Port());
    ASSERT_EQ(session.Connect(10), 0);
    ASSERT_EQ(session.KeyExchange(), 0);
    session.InitiateAuthentication();
    server.Finish();
    KexState const& kex = server.At(0).kex;
    EXPECT_EQ(kex.min, 1024u);
    EXPECT_EQ(kex.preferred, param.preferred);
    EXPECT_EQ(kex.max, 8192u);
    EXPECT_EQ(kex.need, param.need);
    EXPECT_EQ(session._keyNeed, param.need);
    EXPECT_EQ(ToPeer(session._sessionId), kex.hash);
    cindral::BigNum const secret(kex.k.data(), static_cast<unsigned>(kex.k.size()));
    for (unsigned char letter = 'A'; letter <= 'F'; ++letter) {
        Bytes const key = ToPeer(session.DeriveKey(cindral::DIGEST_SHA1, letter, session._sessionId, secret));
        EXPECT_EQ(key.size(), param.keyLength);
        EXPECT_EQ(Difference(kex.keys[static_cast<char>(letter)], key), "") << letter;
    }
}

INSTANTIATE_TEST_SUITE_P(Needs, KeyNeed,
                         testing::Values(NeedCase{"aes128-ctr", "hmac-md5", 16, 1024, 20},
                                         NeedCase{"aes128-cbc", "hmac-sha1", 20, 2048, 20},
                                         NeedCase{"3des-cbc", "hmac-sha1", 24, 2048, 40},
                                         NeedCase{"aes192-ctr", "hmac-md5", 24, 2048, 40},
                                         NeedCase{"aes256-ctr", "hmac-sha1", 32, 4096, 40},
                                         NeedCase{"aes128-ctr", "hmac-sha2-256", 32, 4096, 40},
                                         NeedCase{"aes128-ctr", "hmac-sha2-512", 64, 4096, 80}));

TEST(KeyDerivation, ServerWithTheStandardDerivationDisagreesAbove20Bytes) {
    ServerSettings settings = Pinned("aes256-ctr", "hmac-sha1");
    settings.keyExtension = KeyExtension::Rfc4253;
    ScriptedPeer server([](Connection& c) { c.WellBehaved(Stage::Service); }, settings);
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        ASSERT_EQ(session.KeyExchange(), 0);
        EXPECT_EQ(Outcome([&] {
                      session.InitiateAuthentication();
                      return 0;
                  }),
                  closedEarly);
    }
    server.Join();
    EXPECT_NE(server.Error(), "");
}

TEST(KeyDerivation, ServerWithTheStandardDerivationAgreesUpTo20Bytes) {
    ServerSettings settings = Pinned("aes128-ctr", "hmac-sha1");
    settings.keyExtension = KeyExtension::Rfc4253;
    ScriptedPeer server([](Connection& c) { c.WellBehaved(Stage::Service); }, settings);
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        ASSERT_EQ(session.KeyExchange(), 0);
        session.InitiateAuthentication();
    }
    server.Finish();
}

TEST(GexGroup, SizeLimitsAreInclusive) {
    EXPECT_EQ(TryNumberAsModulus(1024), "0");
    EXPECT_EQ(TryNumberAsModulus(8192), "0");
    EXPECT_EQ(TryGroup(GroupMessage(OddNumber(1023), {2})), "-1");
    EXPECT_EQ(TryGroup(GroupMessage(OddNumber(8193), {2})), "-1");
    EXPECT_EQ(TryGroup(GroupMessage({}, {2})), "-1");
}

TEST(GexGroup, AnySizeWithinTheLimitsIsAcceptedWhateverThePreference) {
    for (unsigned bits : {1024u, 1536u, 3072u}) {
        ServerSettings settings = Pinned("aes128-ctr", "hmac-sha1");
        settings.group = DhGroup::Modp(bits);
        EXPECT_EQ(Try(Complete, settings), "0") << bits;
    }
}

TEST(GexGroup, TwiceTheNeedMustBeBelowTheModulusSize) {
    ServerSettings settings = Pinned("aes128-ctr", "hmac-sha2-512");
    settings.group = DhGroup::Modp(1024);
    EXPECT_EQ(Try(
                  [](Connection& c) {
                      UpToGroupRequest(c);
                      c.SendGroup();
                      c.ExpectClosed();
                  },
                  settings),
              "InvalidArgument: DhExchange::GenerateKey: need out of range");
    settings.group = DhGroup{OddNumber(1025), {2}, 1025};
    EXPECT_EQ(Try(Complete, settings), "0");
}

TEST(GexGroup, PrimalityIsNotChecked) {
    DhGroup const composite{OddNumber(1100), {3}, 1100};
    ServerSettings settings = Pinned();
    settings.group = composite;
    EXPECT_EQ(Try(Complete, settings), "0");
}

TEST(GexGroup, GeneratorWithoutAValidPublicValueRunsOutOfTries) {
    Bytes const& p = DhGroup::Modp(1024).p;
    EXPECT_EQ(TryGroup(GroupMessage(p, {1})), tooManyRetries);
    EXPECT_EQ(TryGroup(GroupMessage(p, {})), tooManyRetries);
    EXPECT_EQ(TryGroup(GroupMessage(p, AddSmall(p, -1))), tooManyRetries);
}

TEST(GexGroup, EvenModulusFailsInTheArithmetic) {
    EXPECT_EQ(TryGroup(GroupMessage(AddSmall(DhGroup::Modp(1024).p, 1), {2})),
              "OpenSSLError: DH_generate_key");
}

TEST(GexGroup, OtherMessagesAreRefused) {
    EXPECT_EQ(TryGroup(Writer().U8(IGNORE).String("")),
              "SshProtocolError: expected KEX_DH_GEX_GROUP package, received: 2");
    EXPECT_EQ(TryGroup(Writer().U8(GEX_REPLY)),
              "SshProtocolError: expected KEX_DH_GEX_GROUP package, received: 33");
    EXPECT_EQ(TryGroup(KexInitLists().Payload()),
              "SshProtocolError: expected KEX_DH_GEX_GROUP package, received: 20");
}

TEST(GexGroup, MessageMustEndWithTheGenerator) {
    EXPECT_EQ(TryGroup(Writer().Raw(GroupMessage(DhGroup::Modp(1024).p, {2})).U8(0)),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_KEXDH_REPLY");
}

TEST(GexGroup, CloseInsteadOfTheGroupIsAClosedConnection) {
    EXPECT_EQ(Try(UpToGroupRequest), closedEarly);
    EXPECT_EQ(Try(UpToGroupInit), closedEarly);
    EXPECT_EQ(Try([](Connection& c) {
                  UpToGroupInit(c);
                  c.SendGroupReply(c.MakeGroupReply());
                  c.ReceiveNewKeys();
              }),
              closedEarly);
}

TEST(GexInit, PublicValueIsInTheGroup) {
    ScriptedPeer server(Complete, Pinned());
    EXPECT_EQ(ExchangeKeys(server.Port()), "0");
    server.Finish();
    KexState const& kex = server.At(0).kex;
    EXPECT_GT(kex.e.size(), 100u);
    EXPECT_LE(kex.e.size(), kex.group.p.size());
    if (kex.e.size() == kex.group.p.size()) {
        EXPECT_LT(kex.e, kex.group.p);
    }
}

TEST(GexReply, InvalidPublicValuesOfTheServerAreRefused) {
    // Each of these is sent with the matching secret, hash and signature.
    for (unsigned exponent : {0u, 1u, 2u, 7u, 8u, 160u, 1000u, 1023u})
        EXPECT_EQ(TryReply([&](Connection& c, GroupReply& reply) { ReplyWithExponent(c, reply, exponent); }),
                  "-1")
            << exponent;
    Bytes const p = DhGroup::Modp(1024).p;
    for (Bytes const& f : {Bytes{}, AddSmall(p, -1), p, AddSmall(p, 1), AddSmall(p, 1000)})
        EXPECT_EQ(TryReply([&](Connection&, GroupReply& reply) { reply.f = f; }), "-1") << Hex(f);
}

TEST(GexReply, NegativePublicValueIsRefused) {
    EXPECT_EQ(Try([](Connection& c) {
                  UpToGroupInit(c);
                  GroupReply const reply = c.MakeGroupReply();
                  c.SendPacket(Writer()
                                   .U8(GEX_REPLY)
                                   .String(reply.hostKeyBlob)
                                   .String(Bytes{0xf3, 0x55})
                                   .String(reply.signature));
                  c.ExpectClosed();
              }),
              "-1");
}

TEST(GexReply, SignatureMustVerify) {
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.signature.back() ^= 1; }), "-1");
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.signature[20] ^= 0x80; }), "-1");
    EXPECT_EQ(TryReply([](Connection& c, GroupReply& reply) {
                  reply.signature = KeyPair::OtherHostRsa().Sign(c.kex.hash);
              }),
              "-1");
    EXPECT_EQ(TryReply([](Connection& c, GroupReply& reply) {
                  reply.signature = KeyPair::HostDsa().Sign(c.kex.hash);
              }),
              "-1");
    EXPECT_EQ(TryReply([](Connection& c, GroupReply& reply) {
                  reply.signature = c.settings.hostKey->Sign(Sha1(c.kex.hash));
              }),
              "-1");
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.signature.clear(); }), "-1");
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.signature.resize(11); }), "-1");
    EXPECT_EQ(TryReply([](Connection&, GroupReply& reply) { reply.signature = Bytes(40, 0xff); }), "-1");
}

TEST(GexReply, BothKeyTypesVerify) {
    ServerSettings settings = Pinned();
    EXPECT_EQ(Try(Complete, settings), "0");
    settings.hostKey = &KeyPair::HostDsa();
    EXPECT_EQ(Try(Complete, settings), "0");
    settings.kexInit.hostKey = "ssh-ed25519"; // the list decides nothing, the key in the reply does
    EXPECT_EQ(Try(Complete, settings), "0");
}

TEST(GexReply, MalformedHostKeyBlobIsRefused) {
    for (Bytes const& blob :
         {Bytes{}, Bytes(30, 0xff), Writer().String("ssh-ed25519").String(Bytes(32, 1)).Data(),
          Writer().String("ssh-rsa").Data(), Slice(KeyPair::HostRsa().Blob(), 0, 100)})
        EXPECT_EQ(TryReply([&](Connection&, GroupReply& reply) { reply.hostKeyBlob = blob; }), "-1")
            << Hex(blob);
}

TEST(GexReply, OtherMessagesAreRefused) {
    EXPECT_EQ(TryReplyMessage(Writer().U8(DEBUG).Bool(true).String("").String("")),
              "SshProtocolError: expected KEX_DH_GEX_REPLY package, received: 4");
    EXPECT_EQ(TryReplyMessage(Writer().U8(KEXDH_REPLY)),
              "SshProtocolError: expected KEX_DH_GEX_REPLY package, received: 31");
}

TEST(GexReply, MessageMustEndWithTheSignature) {
    EXPECT_EQ(Try([](Connection& c) {
                  UpToGroupInit(c);
                  c.SendPacket(Writer().Raw(c.MakeGroupReply().Payload()).Raw("more"));
                  c.ExpectClosed();
              }),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_KEX_DH_GEX_REPLY");
}

TEST(GexReply, LengthAboveThePacketIsRefused) {
    EXPECT_EQ(TryReplyMessage(Writer().U8(GEX_REPLY).U32(100000)),
              "SshProtocolError: string length exceeds packet length");
}

TEST(HostKey, ChangeIsRefusedAndTheOldKeyIsKept) {
    ScriptedPeer server(
        [](Connection& c) {
            if (c.index == 1) c.settings.hostKey = &KeyPair::OtherHostRsa();
            if (c.index == 2) c.settings.hostKey = &KeyPair::HostDsa();
            UpToGroupInit(c);
            c.SendGroupReply(c.MakeGroupReply());
            if (c.index != 1 && c.index != 2) c.NewKeys();
            c.ExpectClosed();
        },
        Pinned());
    EXPECT_EQ(ExchangeKeys(server.Port()), "0");
    EXPECT_EQ(ExchangeKeys(server.Port()), "-1");
    EXPECT_EQ(ExchangeKeys(server.Port()), "-1");
    EXPECT_EQ(ExchangeKeys(server.Port()), "0");
    server.Finish(4);
}

TEST(HostKey, IsLearntBeforeItsSignatureIsChecked) {
    ScriptedPeer server(
        [](Connection& c) {
            if (c.index == 1) c.settings.hostKey = &KeyPair::OtherHostRsa();
            UpToGroupInit(c);
            GroupReply reply = c.MakeGroupReply();
            if (c.index == 0) reply.signature.back() ^= 1;
            c.SendGroupReply(reply);
            c.ExpectClosed();
        },
        Pinned());
    EXPECT_EQ(ExchangeKeys(server.Port()), "-1");
    EXPECT_EQ(ExchangeKeys(server.Port()), "-1");
    server.Finish(2);
}

TEST(NewKeys, OtherMessagesAreRefusedAfterTheLocalNewKeys) {
    EXPECT_EQ(TryNewKeysMessage(Writer().U8(IGNORE).String("")),
              "SshProtocolError: expected NEWKEYS package, received: 2");
    EXPECT_EQ(TryNewKeysMessage(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth")),
              "SshProtocolError: expected NEWKEYS package, received: 6");
}

TEST(NewKeys, MustBeEmpty) {
    EXPECT_EQ(TryNewKeysMessage(Writer().U8(NEWKEYS).U8(0)),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_NEWKEYS");
}

TEST(NewKeys, BothDirectionsChangeTogether) {
    ScriptedPeer server(
        [](Connection& c) {
            UpToGroupInit(c);
            c.SendGroupReply(c.MakeGroupReply());
            c.ReceiveNewKeys();
            // Nothing arrives under the new keys until the peer has sent its NEWKEYS.
            if (c.Wire().WaitReadable(std::chrono::milliseconds(100))) throw PeerError("sent too early");
            c.SendNewKeys();
            c.ServiceAccept();
        },
        Pinned());
    {
        TestSession session(server.Port());
        ASSERT_EQ(session.Connect(10), 0);
        ASSERT_EQ(session.KeyExchange(), 0);
        session.InitiateAuthentication();
    }
    server.Finish();
    EXPECT_FALSE(server.At(0).received[3].encrypted);
    EXPECT_TRUE(server.At(0).received[4].encrypted);
    EXPECT_EQ(server.At(0).received[4].sequence, 4u);
}
