// The binary packet format of RFC 4253, section 6, at its limits and with peers that violate it.

#include <sys/socket.h>

#include "support/pattern.h"
#include "wire/all_algorithms.h"
#include "wire/test_session.h"

using namespace peer;

namespace {

/// Any payload, of any length.
class RawPacket : public cindral::Packet {
public:
    explicit RawPacket(Bytes const& payload) : Packet(payload.empty() ? 0 : payload[0]), _bytes(payload) {}
    ByteString Payload(cindral::BlockCipher& cipher) override {
        auto const block = static_cast<int>(cipher._rep->BlockSize());
        int const padding = block - static_cast<int>((_bytes.size() + 5) % static_cast<std::size_t>(block));
        _padLen = padding < 5 ? padding + block : padding;
        return ByteString(_bytes.data(), static_cast<unsigned>(_bytes.size()));
    }

private:
    Bytes _bytes;
};

Bytes Pattern(std::size_t size) { return ToBytes(support::Pattern(size)); }

ServerSettings Pinned(std::string const& cipher, std::string const& mac) {
    ServerSettings settings;
    settings.kexInit.Pin(cipher, mac);
    settings.group = DhGroup::Modp(1024);
    if (mac == "hmac-sha2-512") settings.group = DhGroup::Modp(2048);
    return settings;
}

/// The next packet as the peer sent it: what comes after the padding length, without padding.
Bytes PayloadOf(ByteString const& packet) {
    Bytes const bytes = ToPeer(packet);
    if (bytes.empty()) throw PeerError("empty packet");
    return Slice(bytes, 1, bytes.size() - 1 - bytes[0]);
}

std::string ReadOutcome(TestSession& session) {
    return Outcome([&] { return static_cast<int>(session._in.ReadPacket().Length()); });
}

/// A session right after the identification lines, with no cipher, and a script that goes on from there.
struct PlainSession {
    explicit PlainSession(ScriptedPeer::Script const& script)
        : server([script](Connection& c) {
              c.Identify();
              script(c);
          }),
          session(server.Port()) {
        EXPECT_EQ(session.Connect(10), 0);
    }

    ScriptedPeer server;
    TestSession session;
};

/// A session right after NEWKEYS.
struct EncryptedSession {
    explicit EncryptedSession(ScriptedPeer::Script const& script,
                              ServerSettings const& settings = Pinned("aes128-ctr", "hmac-sha1"))
        : server(
              [script](Connection& c) {
                  c.WellBehaved(Stage::NewKeys);
                  script(c);
              },
              settings),
          session(server.Port()) {
        EXPECT_EQ(session.Connect(10), 0);
        EXPECT_EQ(session.KeyExchange(), 0);
    }

    ScriptedPeer server;
    TestSession session;
};

std::string PlainLength(std::uint32_t length, std::size_t bytesAfter) {
    PlainSession plain([&](Connection& c) { c.SendRaw(Writer().U32(length).Raw(Bytes(bytesAfter))); });
    std::string const outcome = ReadOutcome(plain.session);
    plain.server.Finish();
    return outcome;
}

class Framing : public testing::TestWithParam<Algorithms> {};

} // namespace

TEST(PacketLength, BelowTwoIsRefused) {
    EXPECT_EQ(PlainLength(0, 100), closedEarly);
    EXPECT_EQ(PlainLength(1, 100), closedEarly);
    EXPECT_EQ(PlainLength(2, 100), "2");
}

TEST(PacketLength, AboveTheMaximumIsRefused) {
    EXPECT_EQ(PlainLength(0x40000, 0x40000), std::to_string(0x40000));
    EXPECT_EQ(PlainLength(0x40001, 0x40001), "SshProtocolError: packet length exceeds maximum value: 262145");
    EXPECT_EQ(PlainLength(0x7fffffff, 100),
              "SshProtocolError: packet length exceeds maximum value: 2147483647");
    EXPECT_EQ(PlainLength(0xffffffff, 100).rfind("SshProtocolError: packet length exceeds maximum value", 0),
              0u);
}

TEST(PacketLength, PacketOfTheMaximumArrivesWhole) {
    Bytes const body = Concat({Bytes{0}, Pattern(0x40000 - 1)});
    PlainSession plain([&](Connection& c) { c.SendRaw(Writer().U32(0x40000).Raw(body)); });
    EXPECT_EQ(Difference(body, ToPeer(plain.session._in.ReadPacket())), "");
    EXPECT_EQ(plain.session._in._byteCount, 0x40004u);
    plain.server.Finish();
}

TEST(PacketLength, NeedNotBeAMultipleOfTheBlockSize) {
    PlainSession plain([](Connection& c) {
        c.SendRaw(Writer().U32(11).U8(4).Raw("abcdef").Raw(Bytes(4)));
        c.SendPacket(ToBytes("next"));
    });
    EXPECT_EQ(PayloadOf(plain.session._in.ReadPacket()), ToBytes("abcdef"));
    EXPECT_EQ(PayloadOf(plain.session._in.ReadPacket()), ToBytes("next"));
    plain.server.Finish();
}

TEST(PacketLength, WrongLengthUnderACipherIsAProtocolErrorOrBadMac) {
    for (std::uint32_t length : {0u, 1u}) {
        EncryptedSession encrypted([&](Connection& c) {
            SendOptions options;
            options.packetLength = length;
            c.SendPacket(Writer().U8(IGNORE).String("x"), options);
        });
        EXPECT_EQ(ReadOutcome(encrypted.session), closedEarly);
        encrypted.server.Finish();
    }
    EncryptedSession tooLong([](Connection& c) {
        SendOptions options;
        options.packetLength = 0x40001;
        c.SendPacket(Writer().U8(IGNORE).String("x"), options);
    });
    EXPECT_EQ(ReadOutcome(tooLong.session), "SshProtocolError: packet length exceeds maximum value: 262145");
    tooLong.server.Finish();

    EncryptedSession shorter([](Connection& c) {
        SendOptions options;
        options.packetLength = 12;
        c.SendPacket(Writer().U8(IGNORE).String("a text of some length"), options);
    });
    EXPECT_EQ(ReadOutcome(shorter.session), "SshProtocolError: invalid mac value");
    shorter.server.Finish();
}

TEST(ReceivedPadding, AnyAmountIsAccepted) {
    for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4}, std::size_t{255}}) {
        PlainSession plain([&](Connection& c) {
            SendOptions options;
            options.padding = Bytes(size, 0xaa);
            c.SendPacket(ToBytes("payload"), options);
            c.SendPacket(ToBytes("next"));
        });
        EXPECT_EQ(PayloadOf(plain.session._in.ReadPacket()), ToBytes("payload")) << size;
        EXPECT_EQ(PayloadOf(plain.session._in.ReadPacket()), ToBytes("next")) << size;
        plain.server.Finish();
    }
}

TEST(ReceivedPadding, MoreThanThePacketHoldsIsIgnoredByTheDecoder) {
    EncryptedSession encrypted([](Connection& c) {
        c.ExpectPacket(SERVICE_REQUEST);
        SendOptions options;
        options.paddingLength = 255;
        c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"), options);
    });
    EXPECT_EQ(Outcome([&] {
                  encrypted.session.InitiateAuthentication();
                  return 0;
              }),
              "0");
    encrypted.server.Finish();
}

TEST(ReceivedPadding, FewerBytesThanPresentIsRefusedByTheDecoder) {
    EncryptedSession encrypted([](Connection& c) {
        c.ExpectPacket(SERVICE_REQUEST);
        SendOptions options;
        options.padding = Bytes(10);
        options.paddingLength = 9;
        c.SendPacket(Writer().U8(SERVICE_ACCEPT).String("ssh-userauth"), options);
    });
    EXPECT_EQ(Outcome([&] {
                  encrypted.session.InitiateAuthentication();
                  return 0;
              }),
              "SshProtocolError: additional characters in packet after padding: SSH_MSG_SERVICE_ACCEPT");
    encrypted.server.Finish();
}

TEST(PacketMac, EachChangedByteIsDetected) {
    for (auto const& [mac, length] :
         {std::pair<char const*, std::size_t>{"hmac-sha1", 20}, {"hmac-sha1-96", 12}, {"hmac-md5", 16}}) {
        for (std::size_t i = 0; i < length; ++i) {
            EncryptedSession encrypted(
                [i](Connection& c) {
                    SendOptions options;
                    options.flipMacByte = i;
                    c.SendPacket(Writer().U8(IGNORE).String("x"), options);
                },
                Pinned("aes128-ctr", mac));
            EXPECT_EQ(encrypted.session._in._sshBuffer._sequence, 4u);
            EXPECT_EQ(ReadOutcome(encrypted.session), "SshProtocolError: invalid mac value")
                << mac << " " << i;
            EXPECT_EQ(encrypted.session._in._sshBuffer._sequence, 4u);
            encrypted.server.Finish();
        }
    }
}

TEST(PacketMac, EachChangedByteOfThePacketIsDetected) {
    // The effect of a change in the length field, or in its block in CBC, depends on the resulting length.
    for (auto const& [cipher, first] :
         {std::pair<char const*, std::size_t>{"aes128-ctr", 4}, {"3des-cbc", 8}}) {
        for (std::size_t i = first; i < 32; ++i) {
            EncryptedSession encrypted(
                [i](Connection& c) {
                    c.Wire().faults.flipSent = c.Wire().SentCount() + i;
                    SendOptions options;
                    options.padding = Bytes(32 - 5 - 6);
                    c.SendPacket(Writer().U8(IGNORE).String("x"), options);
                },
                Pinned(cipher, "hmac-md5"));
            EXPECT_EQ(ReadOutcome(encrypted.session), "SshProtocolError: invalid mac value")
                << cipher << " " << i;
            encrypted.server.Finish();
        }
    }
}

TEST(PacketMac, TruncatedMacIsComparedAsFarAsReceived) {
    for (std::size_t came = 0; came < 20; ++came) {
        EncryptedSession encrypted([came](Connection& c) {
            SendOptions options;
            options.macBytes = came;
            c.SendPacket(Writer().U8(IGNORE).String("x"), options);
        });
        ByteString const packet = encrypted.session._in.ReadPacket();
        EXPECT_EQ(PayloadOf(packet), Writer().U8(IGNORE).String("x").Data()) << came;
        EXPECT_EQ(encrypted.session._in._sshBuffer._sequence, 5u);
        EXPECT_EQ(ReadOutcome(encrypted.session), closedEarly) << came;
        encrypted.server.Finish();
    }
}

TEST(PacketMac, TruncatedMacWithAChangedByteIsRefused) {
    for (std::size_t came = 1; came < 20; ++came) {
        EncryptedSession encrypted([came](Connection& c) {
            SendOptions options;
            options.macBytes = came;
            options.flipMacByte = came - 1;
            c.SendPacket(Writer().U8(IGNORE).String("x"), options);
        });
        EXPECT_EQ(ReadOutcome(encrypted.session), "SshProtocolError: invalid mac value") << came;
        encrypted.server.Finish();
    }
}

TEST(PacketMac, IsBoundToTheSequenceNumber) {
    EncryptedSession encrypted([](Connection& c) {
        c.SetSendSequence(5);
        c.SendPacket(Writer().U8(IGNORE).String("x"));
    });
    EXPECT_EQ(ReadOutcome(encrypted.session), "SshProtocolError: invalid mac value");
    encrypted.server.Finish();
}

TEST(ConnectionClose, CloseBetweenPacketsFailsAtTheLength) {
    PlainSession plain([](Connection& c) { c.SendPacket(ToBytes("one")); });
    EXPECT_EQ(PayloadOf(plain.session._in.ReadPacket()), ToBytes("one"));
    EXPECT_EQ(ReadOutcome(plain.session), closedEarly);
    EXPECT_EQ(ReadOutcome(plain.session), closedEarly);
    plain.server.Finish();

    EncryptedSession encrypted([](Connection& c) { c.SendPacket(ToBytes("one")); });
    EXPECT_EQ(PayloadOf(encrypted.session._in.ReadPacket()), ToBytes("one"));
    EXPECT_EQ(ReadOutcome(encrypted.session), closedEarly);
    encrypted.server.Finish();
}

TEST(ConnectionClose, CloseWithinTheLengthFailsThere) {
    for (std::size_t came = 0; came < 4; ++came) {
        PlainSession plain([came](Connection& c) {
            c.Wire().faults.cutAfterSent = c.Wire().SentCount() + came;
            c.SendRaw(Writer().U32(0x01020304).Raw(Bytes(100)));
        });
        EXPECT_EQ(ReadOutcome(plain.session), closedEarly) << came;
        plain.server.Join();
    }
}

TEST(ConnectionClose, CloseWithinTheBodyKeepsTheFullSize) {
    for (std::size_t came : {16u, 32u, 48u}) {
        EncryptedSession encrypted([came](Connection& c) {
            c.Wire().faults.cutAfterSent = c.Wire().SentCount() + came;
            SendOptions options;
            options.padding = Bytes(64 - 5 - 1);
            c.SendPacket({IGNORE}, options);
        });
        EXPECT_EQ(ReadOutcome(encrypted.session), "60") << came;
        EXPECT_EQ(ReadOutcome(encrypted.session), closedEarly) << came;
        encrypted.server.Finish();
    }
}

TEST(ConnectionClose, ResetInsteadOfTheMacGivesAnEmptyPacket) {
    EncryptedSession encrypted([](Connection& c) {
        Bytes const packet = c.Encode(Writer().U8(IGNORE).String("x"));
        c.SendRaw(Slice(packet, 0, packet.size() - 20));
        c.Wire().Reset();
    });
    unsigned const counted = encrypted.session._in._byteCount;
    EXPECT_EQ(ReadOutcome(encrypted.session), "0");
    EXPECT_EQ(encrypted.session._in._byteCount, counted);
    EXPECT_EQ(encrypted.session._in._sshBuffer._sequence, 4u);
    EXPECT_EQ(ReadOutcome(encrypted.session), closedEarly);
    encrypted.server.Finish();
}

TEST(ConnectionSilence, SilenceIsAFailedReadAfterTheTimeLimit) {
    // Nothing, a part of the first block, a part of the body, all but the MAC.
    std::vector<std::pair<std::size_t, std::string>> const cases = {
        {0, closedEarly}, {3, closedEarly}, {16, "0"}, {32, "0"}};
    for (auto const& [came, outcome] : cases) {
        EncryptedSession encrypted([came = came](Connection& c) {
            Bytes const packet = c.Encode(Writer().U8(IGNORE).String("sixteen and more"));
            c.SendRaw(Slice(packet, 0, came));
            c.ReadUntilClosed();
        });
        EXPECT_EQ(encrypted.session._in._socketBuffer._timeout, 180u);
        encrypted.session._in._socketBuffer._timeout = 1;
        EXPECT_EQ(ReadOutcome(encrypted.session), outcome) << came;
        shutdown(encrypted.session._fd, SHUT_WR);
        encrypted.server.Finish();
    }
}

TEST(PacketCounters, SequenceAndByteCountAdvanceWithoutAMac) {
    PlainSession plain([](Connection& c) {
        c.SendPacket(ToBytes("one"));
        c.SendPacket(ToBytes("a second one"));
        c.ReadPacket();
    });
    plain.session._in.ReadPacket();
    EXPECT_EQ(plain.session._in._sshBuffer._sequence, 1u);
    EXPECT_EQ(plain.session._in._byteCount, 16u);
    plain.session._in.ReadPacket();
    EXPECT_EQ(plain.session._in._sshBuffer._sequence, 2u);
    EXPECT_EQ(plain.session._in._byteCount, 16u + 24u);
    RawPacket packet(ToBytes("three"));
    plain.session._out.WritePacket(packet);
    EXPECT_EQ(plain.session._out._sshBuffer._sequence, 1u);
    EXPECT_EQ(plain.session._out._byteCount, 16u);
    plain.server.Finish();
}

TEST(PacketCounters, MacsAreNotCounted) {
    EncryptedSession encrypted([](Connection& c) {
        c.SendPacket(ToBytes("one"));
        c.ReadPacket();
    });
    unsigned const in = encrypted.session._in._byteCount;
    unsigned const out = encrypted.session._out._byteCount;
    encrypted.session._in.ReadPacket();
    EXPECT_EQ(encrypted.session._in._byteCount, in + 16);
    RawPacket packet(ToBytes("three"));
    encrypted.session._out.WritePacket(packet);
    EXPECT_EQ(encrypted.session._out._byteCount, out + 16);
    encrypted.server.Finish();
}

TEST(SentPadding, FollowsTheRuleAtEveryPayloadLength) {
    std::vector<std::size_t> const plainPadding = {11, 10, 9, 8, 7, 6, 5, 12, 11};
    PlainSession plain([&](Connection& c) {
        for (std::size_t i = 0; i < plainPadding.size(); ++i) c.ReadPacket();
    });
    for (std::size_t i = 0; i < plainPadding.size(); ++i) {
        RawPacket packet(Pattern(i));
        plain.session._out.WritePacket(packet);
    }
    plain.server.Finish();
    auto const& received = plain.server.At(0).received;
    for (std::size_t i = 0; i < plainPadding.size(); ++i) {
        EXPECT_EQ(received[i].payload, Pattern(i));
        EXPECT_EQ(received[i].padding, Bytes(plainPadding[i])) << i;
    }
}

TEST(PacketWrite, WriteToAClosedPeerIsNeitherThrownNorCounted) {
    PlainSession plain([](Connection& c) { c.Wire().Reset(); });
    bool counted = true;
    for (int i = 0; i < 1000 && counted; ++i) {
        unsigned const before = plain.session._out._byteCount;
        RawPacket packet(Pattern(100));
        plain.session._out.WritePacket(packet);
        RawPacket large(Pattern(100000));
        plain.session._out.WritePacket(large);
        counted = plain.session._out._byteCount == before + 112 + 100016;
    }
    EXPECT_FALSE(counted);
    plain.server.Finish();
}

TEST_P(Framing, PayloadsOfManySizesPassInBothDirections) {
    auto const [cipher, mac] = GetParam();
    std::vector<std::size_t> const sizes = {1,    2,    15,   16,    8170,  8171,  8172,   8179,  8187,
                                            8191, 8192, 8193, 16379, 16384, 32768, 100000, 262000};
    EncryptedSession encrypted(
        [&](Connection& c) {
            for (std::size_t size : sizes) {
                if (c.ReadPacket() != Pattern(size))
                    throw PeerError("changed on the way: " + std::to_string(size));
                c.SendPacket(Pattern(size));
            }
        },
        Pinned(cipher, mac));
    TestSession::SetNodelay(encrypted.session._fd);
    for (std::size_t size : sizes) {
        RawPacket packet(Pattern(size));
        encrypted.session._out.WritePacket(packet);
        EXPECT_EQ(Difference(Pattern(size), PayloadOf(encrypted.session._in.ReadPacket())), "") << size;
    }
    encrypted.server.Finish();
    EXPECT_EQ(encrypted.session._out._sshBuffer._sequence, 4 + sizes.size());
    for (PacketRecord const& record : encrypted.server.At(0).received) {
        EXPECT_GE(record.paddingLength, 5);
        EXPECT_LE(record.paddingLength, record.blockSize + 4);
        EXPECT_EQ((record.packetLength + 4) % record.blockSize, 0u);
    }
}

TEST_P(Framing, ManyPacketsInOneSegmentAreRead) {
    auto const [cipher, mac] = GetParam();
    EncryptedSession encrypted(
        [&](Connection& c) {
            std::vector<Bytes> payloads;
            for (std::size_t i = 1; i < 300; ++i) payloads.push_back(Pattern(i));
            c.SendTogether(payloads);
        },
        Pinned(cipher, mac));
    for (std::size_t i = 1; i < 300; ++i)
        ASSERT_EQ(Difference(Pattern(i), PayloadOf(encrypted.session._in.ReadPacket())), "") << i;
    encrypted.server.Finish();
}

INSTANTIATE_TEST_SUITE_P(Every, Framing, AllAlgorithms(), AlgorithmsName);
