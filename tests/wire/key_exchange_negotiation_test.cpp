// KEXINIT and the choice of algorithms, RFC 4253 section 7.1.

#include "wire/test_session.h"

using namespace peer;

namespace {

/// A session whose key exchange has been tried against a server with these settings.
struct Tried {
    Tried(ServerSettings const& settings, ScriptedPeer::Script const& script) : server(script, settings) {
        {
            TestSession session(server.Port());
            EXPECT_EQ(session.Connect(10), 0);
            outcome = Outcome([&] { return session.KeyExchange(); });
            kexType = session._kexType;
            need = session._keyNeed;
            for (int i = 0; i < 2; ++i) {
                ciphers[i] = Text(session._cipherNames[i]);
                macs[i] = Text(session._macNames[i]);
            }
        }
        server.Finish();
    }

    ScriptedPeer server;
    std::string outcome;
    cindral::KexType kexType = cindral::KEX_NONE;
    unsigned need = 0;
    std::string ciphers[2];
    std::string macs[2];
};

void Complete(Connection& c) {
    c.WellBehaved(Stage::NewKeys);
    c.ExpectClosed();
}

/// After the two KEXINITs the client sends nothing.
void RefusedByLists(Connection& c) {
    c.WellBehaved(Stage::KexInitExchanged);
    c.ExpectClosed();
}

Tried Refused(ServerSettings const& settings) { return Tried(settings, RefusedByLists); }

} // namespace

TEST(Negotiation, ClientKexInitIsExactExceptForItsCookie) {
    Tried const tried({}, Complete);
    EXPECT_EQ(tried.outcome, "0");
    Bytes const payload = tried.server.At(0).kex.clientKexInit;
    std::string const ciphers = "aes128-ctr,aes128-cbc,aes192-ctr,aes256-ctr,aes192-cbc,aes256-cbc,3des-cbc";
    std::string const macs = "hmac-sha1,hmac-sha1-96,hmac-md5,hmac-sha2-256,hmac-sha2-512";
    Bytes const expected =
        Writer()
            .U8(KEXINIT)
            .Raw(Slice(payload, 1, 16))
            .String(
                "diffie-hellman-group-exchange-sha1,diffie-hellman-group14-sha1,diffie-hellman-group1-sha1")
            .String("ssh-rsa,ssh-dss")
            .String(ciphers)
            .String(ciphers)
            .String(macs)
            .String(macs)
            .String("none")
            .String("none")
            .String("")
            .String("")
            .U8(0)
            .U32(0);
    EXPECT_EQ(Difference(expected, payload), "");
}

TEST(Negotiation, CookiesDiffer) {
    Tried const first({}, Complete);
    Tried const second({}, Complete);
    EXPECT_NE(Slice(first.server.At(0).kex.clientKexInit, 1, 16),
              Slice(second.server.At(0).kex.clientKexInit, 1, 16));
}

TEST(Negotiation, ClientPreferenceWins) {
    ServerSettings settings; // its lists are the client's in reverse
    Tried const tried(settings, Complete);
    EXPECT_EQ(tried.outcome, "0");
    EXPECT_EQ(tried.kexType, cindral::KEX_GEX);
    EXPECT_EQ(tried.ciphers[0], "aes128-ctr");
    EXPECT_EQ(tried.ciphers[1], "aes128-ctr");
    EXPECT_EQ(tried.macs[0], "hmac-sha1");
    EXPECT_EQ(tried.macs[1], "hmac-sha1");
    EXPECT_EQ(tried.need, 20u);
}

TEST(Negotiation, ClientPreferenceWinsForMethodsToo) {
    ServerSettings settings;
    settings.kexInit.kex = "diffie-hellman-group1-sha1,diffie-hellman-group14-sha1,unknown,"
                           "diffie-hellman-group-exchange-sha1";
    Tried const tried(settings, Complete);
    EXPECT_EQ(tried.outcome, "0");
    EXPECT_EQ(tried.kexType, cindral::KEX_GEX);
}

TEST(Negotiation, DirectionsAreNegotiatedIndependently) {
    ServerSettings settings;
    settings.kexInit.cipherClientToServer = "unknown,3des-cbc";
    settings.kexInit.cipherServerToClient = "aes256-ctr";
    settings.kexInit.macClientToServer = "hmac-md5";
    settings.kexInit.macServerToClient = "hmac-sha1-96";
    ScriptedPeer server([](Connection& c) { c.WellBehaved(Stage::Service); }, settings);
    TestSession session(server.Port());
    ASSERT_EQ(session.Connect(10), 0);
    ASSERT_EQ(session.KeyExchange(), 0);
    session.InitiateAuthentication();
    server.Finish();
    EXPECT_EQ(Text(session._cipherNames[0]), "3des-cbc");
    EXPECT_EQ(Text(session._cipherNames[1]), "aes256-ctr");
    EXPECT_EQ(Text(session._macNames[0]), "hmac-md5");
    EXPECT_EQ(Text(session._macNames[1]), "hmac-sha1-96");
    EXPECT_EQ(session._keyNeed, 32u);
    EXPECT_EQ(server.At(0).kex.preferred, 4096u);
}

TEST(Negotiation, WithoutACommonMethodNoFurtherPacketIsSent) {
    for (char const* methods : {"", "curve25519-sha256", "diffie-hellman-group-exchange-sha256,none"}) {
        ServerSettings settings;
        settings.kexInit.kex = methods;
        Tried const tried = Refused(settings);
        EXPECT_EQ(tried.outcome, "-1") << methods;
        EXPECT_EQ(tried.kexType, cindral::KEX_NONE);
        EXPECT_EQ(tried.server.At(0).received.size(), 1u);
        EXPECT_EQ(tried.ciphers[0], "");
    }
}

TEST(Negotiation, WithoutACommonCipherOrMacEarlierChoicesAreKept) {
    ServerSettings settings;
    settings.kexInit.cipherClientToServer = "arcfour";
    EXPECT_EQ(Refused(settings).outcome, "-1");
    EXPECT_EQ(Refused(settings).kexType, cindral::KEX_GEX);

    settings = {};
    settings.kexInit.cipherServerToClient = "";
    EXPECT_EQ(Refused(settings).outcome, "-1");
    EXPECT_EQ(Refused(settings).ciphers[0], "aes128-ctr");
    EXPECT_EQ(Refused(settings).ciphers[1], "");

    settings = {};
    settings.kexInit.macClientToServer = "umac-64@openssh.com";
    EXPECT_EQ(Refused(settings).outcome, "-1");
    EXPECT_EQ(Refused(settings).ciphers[1], "aes128-ctr");
    EXPECT_EQ(Refused(settings).macs[0], "");

    settings = {};
    settings.kexInit.macServerToClient = "none";
    EXPECT_EQ(Refused(settings).outcome, "-1");
    EXPECT_EQ(Refused(settings).macs[0], "hmac-sha1");
    EXPECT_EQ(Refused(settings).macs[1], "");
    EXPECT_EQ(Refused(settings).need, 16u);
}

TEST(Negotiation, FixedGroupsAreChosenAndFailInTheirArithmetic) {
    ServerSettings settings;
    settings.kexInit.kex = "diffie-hellman-group1-sha1";
    Tried const group1 = Refused(settings);
    EXPECT_EQ(group1.outcome, "InvalidArgument: DhExchange::GenerateKey: need out of range");
    EXPECT_EQ(group1.kexType, cindral::KEX_GROUP1);

    settings.kexInit.kex = "diffie-hellman-group14-sha1,diffie-hellman-group1-sha1";
    Tried const group14 = Refused(settings);
    EXPECT_EQ(group14.outcome, "InvalidArgument: DhExchange::GenerateKey: need out of range");
    EXPECT_EQ(group14.kexType, cindral::KEX_GROUP14);
}

TEST(Negotiation, HostKeyCompressionAndLanguageListsAreNotCompared) {
    ServerSettings settings;
    settings.kexInit.hostKey = "ssh-ed25519";
    settings.kexInit.compressionClientToServer = settings.kexInit.compressionServerToClient = "zlib";
    settings.kexInit.languagesClientToServer = settings.kexInit.languagesServerToClient = "de,fr";
    EXPECT_EQ(Tried(settings, Complete).outcome, "0");
    settings.kexInit.hostKey = settings.kexInit.compressionClientToServer =
        settings.kexInit.compressionServerToClient = "";
    EXPECT_EQ(Tried(settings, Complete).outcome, "0");
}

TEST(Negotiation, ReservedWordIsNotChecked) {
    ServerSettings settings;
    settings.kexInit.reserved = 0xdeadbeef;
    EXPECT_EQ(Tried(settings, Complete).outcome, "0");
}

TEST(Negotiation, GuessedPacketIsNotSkipped) {
    ServerSettings settings;
    settings.kexInit.firstKexPacketFollows = true;
    Tried const tried(settings, [](Connection& c) {
        c.Identify();
        c.SendTogether({c.settings.kexInit.Payload(), Writer().U8(KEXDH_INIT).Mpint({5})});
        c.ReceiveKexInit();
        c.ReceiveGroupRequest();
        c.ExpectClosed();
    });
    EXPECT_EQ(tried.outcome, "SshProtocolError: expected KEX_DH_GEX_GROUP package, received: 30");
}

TEST(Negotiation, AnnouncedGuessThatIsNotSentIsHarmless) {
    ServerSettings settings;
    settings.kexInit.firstKexPacketFollows = true;
    EXPECT_EQ(Tried(settings, Complete).outcome, "0");
}

TEST(Negotiation, FirstPacketMustBeKexInit) {
    std::vector<std::pair<Bytes, std::string>> const messages = {
        {Writer().U8(IGNORE).String("x"), "2"},
        {Writer().U8(DEBUG).Bool(false).String("x").String(""), "4"},
        {Writer().U8(DISCONNECT).U32(11).String("bye").String(""), "1"},
        {Writer().U8(NEWKEYS), "21"},
        {Writer().U8(0), "0"},
        {Writer().U8(255), "255"},
    };
    for (auto const& [message, number] : messages) {
        ScriptedPeer server([&message = message](Connection& c) {
            c.Identify();
            c.SendPacket(message);
            c.ReceiveKexInit();
            c.ExpectClosed();
        });
        EXPECT_EQ(ExchangeKeys(server.Port()),
                  "SshProtocolError: expected KEXINIT package, received: " + number);
        server.Finish();
    }
}

TEST(Negotiation, KexInitMustEndWithItsLastField) {
    ScriptedPeer server([](Connection& c) {
        c.Identify();
        c.SendPacket(Writer().Raw(c.settings.kexInit.Payload()).U8(0));
        c.ReceiveKexInit();
        c.ExpectClosed();
    });
    EXPECT_EQ(ExchangeKeys(server.Port()),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_KEXINIT");
    server.Finish();
}

TEST(Negotiation, KexInitThatEndsEarlyIsRefused) {
    Bytes const whole = KexInitLists().Payload();
    // More is missing than the padding after it could replace.
    for (std::size_t length = 1; length + 40 < whole.size(); length += 7) {
        ScriptedPeer server([&](Connection& c) {
            c.Identify();
            c.SendPacket(Slice(whole, 0, length));
            c.ReceiveKexInit();
            c.ExpectClosed();
        });
        std::string const outcome = ExchangeKeys(server.Port());
        EXPECT_TRUE(outcome.rfind("BadInput: ", 0) == 0 ||
                    outcome == "SshProtocolError: string length exceeds packet length")
            << length << ": " << outcome;
        server.Finish();
    }
}

TEST(Negotiation, ListLongerThanThePacketIsRefused) {
    ScriptedPeer server([](Connection& c) {
        c.Identify();
        c.SendPacket(Writer().U8(KEXINIT).Raw(Bytes(16)).U32(0x7fffffff).Raw("abc"));
        c.ReceiveKexInit();
        c.ExpectClosed();
    });
    EXPECT_EQ(ExchangeKeys(server.Port()), "SshProtocolError: string length exceeds packet length");
    server.Finish();
}
