// The first key exchange of the standard dialect at servers that break its rules.

#include "wire/standard_fixture.h"

using namespace peer;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

char const chacha[] = "chacha20-poly1305@openssh.com"; ///< whose keys depend on the sequence numbers
char const strictServer[] = "kex-strict-s-v00@openssh.com";

/// The steps of a first exchange, after each of which the server may put a message of its own.
enum class Place { BeforeKexInit, AfterKexInit, AfterReply };

void ExchangeWith(StandardConnection& c, Place place, Bytes const& message) {
    c.Identify();
    if (place == Place::BeforeKexInit) c.SendPacket(message);
    c.SendKexInit();
    c.ReceiveKexInit();
    if (place == Place::AfterKexInit) c.SendPacket(message);
    c.ReceiveKexMessage();
    c.SendReply(c.MakeReply());
    if (place == Place::AfterReply) c.SendPacket(message);
    c.SendNewKeys();
    c.ReceiveNewKeys();
}

void ServeTheRest(StandardConnection& c) {
    c.ServiceAccept();
    c.Authenticate();
    c.ConfirmOpen();
    c.ReadChannelRequest();
    c.SendTogether({Data("output"), Eof(), ExitStatus(0), Close()});
    c.ReadToTheEnd();
}

Bytes Unimplemented() { return Writer().U8(UNIMPLEMENTED).U32(0); }

using Intruder = std::tuple<Place, Bytes>;

class StandardFirstExchange : public StandardTest, public testing::WithParamInterface<Intruder> {
protected:
    StandardResult RunWithIntruder() {
        return RunFrom([](StandardConnection& c) {
            ExchangeWith(c, std::get<0>(GetParam()), std::get<1>(GetParam()));
            ServeTheRest(c);
        });
    }
};

TEST_P(StandardFirstExchange, MessageWithinAStrictOneEndsIt) {
    StandardResult const result = RunWithIntruder();
    EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: message "));
    EXPECT_THAT(result.outcome, HasSubstr("in a strict key exchange"));
    EXPECT_EQ(Seen().CountReceived(SERVICE_REQUEST), 0u);
    EXPECT_FALSE(server->RanToItsEnd());
}

TEST_P(StandardFirstExchange, MessageWithinOneWithoutStrictRulesIsAccepted) {
    settings.strict = false;
    settings.Pin(chacha);
    StandardResult const result = RunWithIntruder();
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_FALSE(result.isStrict);
    EXPECT_EQ(server->Error(), "");
}

std::string Name(Intruder const& intruder) {
    static char const* const places[] = {"BeforeKexInit", "AfterKexInit", "AfterReply"};
    return places[static_cast<int>(std::get<0>(intruder))] + std::to_string(std::get<1>(intruder)[0]);
}

INSTANTIATE_TEST_SUITE_P(Intruders, StandardFirstExchange,
                         testing::Combine(testing::Values(Place::BeforeKexInit, Place::AfterKexInit,
                                                          Place::AfterReply),
                                          testing::Values(Ignore("text"), Debug("text"), Unimplemented())),
                         [](auto const& param) { return Name(param.param); });

class StandardStrictRules : public StandardTest {};

TEST_F(StandardStrictRules, SequenceNumbersBeginAgainWithEachNewKeys) {
    settings.Pin(chacha);
    StandardResult const result = Run([](StandardConnection& c) {
        c.Rekey();
        EXPECT_EQ(c.SendSequence(), 0u);
        EXPECT_EQ(c.ReceiveSequence(), 0u);
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_TRUE(result.isStrict);
}

TEST_F(StandardStrictRules, ExtInfoAndUnknownNumbersWithinTheFirstExchangeEndIt) {
    Bytes const extensions = Writer().U8(EXT_INFO).U32(1).String("server-sig-algs").String("ssh-rsa");
    for (Bytes const& message : {extensions, Bytes{0}, Bytes{8}, Bytes{19}, Bytes{192}, Bytes{255}})
        for (Place const place : {Place::BeforeKexInit, Place::AfterKexInit, Place::AfterReply}) {
            SCOPED_TRACE("message " + std::to_string(message[0]));
            StandardResult const result =
                RunFrom([&](StandardConnection& c) { ExchangeWith(c, place, message); });
            // Whether the rules are strict is known only after both KEXINITs.
            EXPECT_THAT(
                result.outcome,
                StartsWith(place == Place::BeforeKexInit
                               ? "KeyExchange SshProtocolError: message before the first keys"
                               : "KeyExchange SshProtocolError: message within a strict key exchange"));
            EXPECT_EQ(Seen().CountReceived(UNIMPLEMENTED), 0u);
            EXPECT_EQ(Seen().CountReceived(SERVICE_REQUEST), 0u);
        }
}

TEST_F(StandardStrictRules, ServerThatCountsOnIsForged) {
    settings.Pin(chacha);
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.resets = false;
        c.WellBehaved(Stage::Opened);
    });
    EXPECT_THAT(result.outcome, HasSubstr(" SshProtocolError: packet length out of bounds"));
    EXPECT_FALSE(result.isAuthenticated);
}

TEST_F(StandardStrictRules, SequenceNumbersGoOnWithoutThem) {
    settings.strict = false;
    settings.Pin(chacha);
    StandardResult const result = Run([](StandardConnection& c) {
        std::uint32_t const before = c.SendSequence();
        c.Rekey();
        EXPECT_GT(c.SendSequence(), before);
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(result.exitStatus, 3);
}

TEST_F(StandardStrictRules, MarkerInALaterKexInitIsIgnored) {
    settings.strict = false;
    settings.Pin(chacha);
    StandardResult const result = Run([](StandardConnection& c) {
        c.settings.kexInit.kex += std::string(",") + strictServer;
        c.Rekey();
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_FALSE(result.isStrict);
}

TEST_F(StandardStrictRules, MessagesWithinALaterExchangeAreAccepted) {
    StandardResult const result = Run([](StandardConnection& c) {
        c.SendKexInit();
        c.SendPacket(Ignore());
        c.ReceiveKexInit();
        c.ReceiveKexMessage();
        c.SendPacket(Debug("text"));
        c.SendReply(c.MakeReply());
        c.SendPacket(Unimplemented());
        c.SendNewKeys();
        c.ReceiveNewKeys();
        c.SendTogether(Ending(3));
    });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_EQ(result.exchanges, 2u);
}

TEST_F(StandardStrictRules, ClientOffersThemInItsFirstKexInitAlone) {
    Run([](StandardConnection& c) {
        EXPECT_THAT(KexInitLists::Parse(c.kex.clientInit).kex, HasSubstr("kex-strict-c-v00@openssh.com"));
        EXPECT_THAT(KexInitLists::Parse(c.kex.clientInit).kex, HasSubstr("ext-info-c"));
        c.Rekey();
        EXPECT_THAT(KexInitLists::Parse(c.kex.clientInit).kex, testing::Not(HasSubstr("kex-strict")));
        EXPECT_THAT(KexInitLists::Parse(c.kex.clientInit).kex, testing::Not(HasSubstr("ext-info")));
        c.SendTogether(Ending());
    });
}

// --- the order of messages

class StandardExchangeOrder : public StandardTest {
protected:
    /// The outcome at a server that sends that message after both KEXINIT.
    std::string AfterKexInit(Bytes const& message) {
        StandardResult const result = RunFrom([message](StandardConnection& c) {
            c.WellBehaved(Stage::KexInitExchanged);
            c.SendPacket(message);
            c.ReadToTheEnd();
        });
        EXPECT_EQ(Seen().CountReceived(NEWKEYS), 0u);
        return result.outcome;
    }
};

TEST_F(StandardExchangeOrder, NewKeysBeforeTheReplyAreRefused) {
    EXPECT_THAT(AfterKexInit({NEWKEYS}), StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardExchangeOrder, SecondKexInitIsRefused) {
    EXPECT_THAT(AfterKexInit(settings.kexInit.Payload()), StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardExchangeOrder, MessageOfAnotherMethodIsRefused) {
    EXPECT_THAT(AfterKexInit(Writer().U8(GEX_REPLY).String("").String("").String("")),
                StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardExchangeOrder, MessageOfTheConnectionIsRefused) {
    settings.strict = false;
    EXPECT_THAT(AfterKexInit(Writer().U8(USERAUTH_SUCCESS)), StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardExchangeOrder, ExtInfoBeforeThereAreKeysIsRefused) {
    settings.strict = false;
    EXPECT_EQ(AfterKexInit(Writer().U8(EXT_INFO).U32(1).String("server-sig-algs").String("ssh-rsa")),
              "KeyExchange SshProtocolError: message before the first keys: 7");
}

TEST_F(StandardExchangeOrder, NewKeysWithoutAKexInitAreRefused) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.Identify();
        c.SendPacket({NEWKEYS});
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardExchangeOrder, SecondReplyIsRefused) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        c.ReceiveKexMessage();
        KexReply const reply = c.MakeReply();
        c.SendReply(reply);
        c.SendReply(reply);
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: "));
}

// --- guesses

class StandardGuess : public StandardTest {
protected:
    /// The outcome of a whole session whose server announces a guess and sends that packet.
    StandardResult RunWithGuess(std::optional<Bytes> const& guess) {
        settings.kexInit.firstKexPacketFollows = true;
        return RunFrom([guess](StandardConnection& c) {
            c.Identify();
            c.SendKexInit();
            if (guess) c.SendPacket(*guess);
            c.ReceiveKexInit();
            c.settings.kexInit.firstKexPacketFollows = false;
            c.FinishExchange();
            ServeTheRest(c);
        });
    }
};

TEST_F(StandardGuess, WrongOneIsSkipped) {
    settings.kexInit.kex = "ecdh-sha2-nistp256,curve25519-sha256";
    StandardResult const result = RunWithGuess(Writer().U8(KEXDH_REPLY).String("wrong"));
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardGuess, WrongOneOfTheHostKeyIsSkipped) {
    settings.kexInit.hostKey = "rsa-sha2-256,ssh-ed25519";
    StandardResult const result = RunWithGuess(Writer().U8(KEXDH_REPLY).String("wrong"));
    EXPECT_EQ(result.outcome, RUN_ENDED);
}

TEST_F(StandardGuess, RightOneIsUsed) {
    StandardResult const result = RunWithGuess(std::nullopt);
    EXPECT_EQ(result.outcome, RUN_ENDED);
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(StandardGuess, OnlyOnePacketIsSkipped) {
    settings.kexInit.kex = "ecdh-sha2-nistp256,curve25519-sha256";
    settings.kexInit.firstKexPacketFollows = true;
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.Identify();
        c.SendKexInit();
        c.SendPacket(Writer().U8(KEXDH_REPLY).String("wrong"));
        c.SendPacket(Writer().U8(KEXDH_REPLY).String("wrong again"));
        c.ReadToTheEnd();
    });
    EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: "));
}

TEST_F(StandardGuess, KexInitAndNewKeysAreNeverOne) {
    settings.kexInit.kex = "ecdh-sha2-nistp256,curve25519-sha256";
    for (Bytes const& message : {settings.kexInit.Payload(), Bytes{NEWKEYS}})
        EXPECT_THAT(RunWithGuess(message).outcome, StartsWith("KeyExchange SshProtocolError: "));
}

// --- nothing in common

struct List {
    char const* name;
    std::string KexInitLists::* list;
    char const* offered; ///< part of the client's list
};

class StandardNothingInCommon : public StandardTest, public testing::WithParamInterface<List> {};

TEST_P(StandardNothingInCommon, RefusalNamesBothLists) {
    settings.Pin("aes128-ctr", "hmac-sha2-256");
    settings.kexInit.*GetParam().list = "one@server,two@server";
    StandardResult const result = RunFrom([](StandardConnection& c) {
        c.WellBehaved(Stage::KexInitExchanged);
        Reader disconnect = c.ExpectPacket(DISCONNECT);
        EXPECT_EQ(disconnect.U32(), 3u); // key exchange failed
    });
    EXPECT_EQ(result.outcome, "KeyExchange -1");
    EXPECT_THAT(result.lastError, HasSubstr("one@server,two@server"));
    EXPECT_THAT(result.lastError, HasSubstr(GetParam().offered));
    EXPECT_EQ(server->Error(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Lists, StandardNothingInCommon,
    testing::Values(List{"Kex", &KexInitLists::kex, "curve25519-sha256"},
                    List{"HostKey", &KexInitLists::hostKey, "ssh-ed25519"},
                    List{"CipherOut", &KexInitLists::cipherClientToServer, "aes128-ctr"},
                    List{"CipherIn", &KexInitLists::cipherServerToClient, "aes128-ctr"},
                    List{"MacOut", &KexInitLists::macClientToServer, "hmac-sha2-256"},
                    List{"MacIn", &KexInitLists::macServerToClient, "hmac-sha2-256"},
                    List{"CompressionOut", &KexInitLists::compressionClientToServer, "none"},
                    List{"CompressionIn", &KexInitLists::compressionServerToClient, "none"}),
    [](auto const& param) { return std::string(param.param.name); });

class StandardOffer : public StandardTest {};

TEST_F(StandardOffer, ControlCharactersOfTheServersListAreFiltered) {
    settings.kexInit.kex = "evil\x1b[2J\nname";
    StandardResult const result =
        RunFrom([](StandardConnection& c) { c.WellBehaved(Stage::KexInitExchanged); });
    EXPECT_EQ(result.outcome, "KeyExchange -1");
    EXPECT_THAT(result.lastError, HasSubstr("evil"));
    for (char const c : result.lastError) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << result.lastError;
}

TEST_F(StandardOffer, MacsAreNotComparedForCiphersThatAuthenticateByThemselves) {
    settings.Pin("aes128-gcm@openssh.com", "none@server");
    EXPECT_EQ(Run([](StandardConnection& c) { c.SendTogether(Ending(3)); }).exitStatus, 3);
}

TEST_F(StandardOffer, DirectionsAreAgreedOnByThemselves) {
    settings.kexInit.cipherClientToServer = "aes128-ctr";
    settings.kexInit.macClientToServer = "hmac-sha2-512-etm@openssh.com";
    settings.kexInit.cipherServerToClient = chacha;
    settings.kexInit.macServerToClient = "none@server";
    EXPECT_EQ(Run([](StandardConnection& c) { c.SendTogether(Ending(3)); }).exitStatus, 3);
}

TEST_F(StandardOffer, KexInitThatEndsEarlyOrLateIsRefused) {
    Bytes const whole = settings.kexInit.Payload();
    std::vector<Bytes> broken{Concat({whole, {0}})};
    for (std::size_t size : {1u, 16u, 20u, 60u}) broken.push_back(Slice(whole, 0, size));
    broken.push_back(Slice(whole, 0, whole.size() - 1));
    for (Bytes const& payload : broken) {
        StandardResult const result = RunFrom([payload](StandardConnection& c) {
            c.Identify();
            c.SendPacket(payload);
            c.ReadToTheEnd();
        });
        EXPECT_THAT(result.outcome, StartsWith("KeyExchange SshProtocolError: KEXINIT message "));
    }
}

} // namespace
