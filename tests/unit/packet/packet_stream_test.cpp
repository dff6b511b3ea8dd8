#include <brantle/packet/packet_stream.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/kex_messages.h>
#include <brantle/packet/packet.h>
#include <brantle/packet/packet_encoder.h>

#include "support/descriptors.h"
#include "support/holds_buffer.h"

namespace cindral {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes BigEndian(std::uint32_t value) {
    return {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
            static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
}

Bytes operator+(Bytes left, Bytes const& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes ToBytes(ByteString const& value) { return Bytes(value.Data(), value.Data() + value.Length()); }

/// A packet whose payload is any bytes.
class RawPacket : public Packet {
public:
    explicit RawPacket(Bytes const& payload, int padding) : Packet(0) {
        _payload = ByteString(payload.data(), static_cast<unsigned int>(payload.size()));
        _padLen = padding;
    }
};

Bytes const CIPHER_KEY(16, 0x41);
Bytes const CIPHER_IV(16, 0x17);
Bytes const MAC_KEY(20, 0x66);

ByteString ToByteString(Bytes const& bytes) {
    return ByteString(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

/// The far end's own cipher and MAC, straight from OpenSSL.
class FarEnd {
public:
    FarEnd() : _context(EVP_CIPHER_CTX_new()) {
        EVP_CipherInit_ex(_context, EVP_aes_128_ctr(), nullptr, CIPHER_KEY.data(), CIPHER_IV.data(), 1);
    }
    ~FarEnd() { EVP_CIPHER_CTX_free(_context); }
    FarEnd(FarEnd const&) = delete;
    FarEnd& operator=(FarEnd const&) = delete;

    /// Counter mode is its own inverse.
    Bytes Crypt(Bytes const& in) {
        Bytes out(in.size());
        int length = 0;
        EVP_CipherUpdate(_context, out.data(), &length, in.data(), static_cast<int>(in.size()));
        return out;
    }

    static Bytes Mac(std::uint32_t sequence, Bytes const& plain) {
        Bytes const text = BigEndian(sequence) + plain;
        Bytes mac(20);
        unsigned int length = 0;
        HMAC(EVP_sha1(), MAC_KEY.data(), static_cast<int>(MAC_KEY.size()), text.data(), text.size(),
             mac.data(), &length);
        return mac;
    }

private:
    EVP_CIPHER_CTX* _context;
};

class PacketStream : public testing::Test {
protected:
    PacketStream() : _out(_outCipher, _outMac), _in(_inCipher, _inMac) {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, _fds));
        int const size = 1 << 20;
        for (int fd : _fds) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        _out._socketBuffer.Bind(_fds[0]);
        _in._socketBuffer.Bind(_fds[0]);
    }
    ~PacketStream() override {
        close(_fds[0]);
        HangUp();
    }

    void UseKeys() {
        _outCipher.Redefine("aes128-ctr", BlockCipher::ENCRYPT, ToByteString(CIPHER_KEY),
                            ToByteString(CIPHER_IV));
        _inCipher.Redefine("aes128-ctr", BlockCipher::DECRYPT, ToByteString(CIPHER_KEY),
                           ToByteString(CIPHER_IV));
        _outMac.Redefine("hmac-sha1", ToByteString(MAC_KEY));
        _inMac.Redefine("hmac-sha1", ToByteString(MAC_KEY));
    }

    void Send(Bytes const& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(_fds[1], bytes.data(), bytes.size(), 0));
    }

    void HangUp() {
        if (_fds[1] >= 0) close(_fds[1]);
        _fds[1] = -1;
    }

    Bytes Received() {
        Bytes all(1 << 20);
        ssize_t const n = recv(_fds[1], all.data(), all.size(), MSG_DONTWAIT);
        all.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return all;
    }

    std::string ReadFailure() {
        try {
            _in.ReadPacket();
        } catch (SshProtocolError const& failure) {
            return failure.what();
        }
        return "no failure";
    }

    BlockCipher _outCipher;
    BlockCipher _inCipher;
    Mac _outMac;
    Mac _inMac;
    OSshPacketStream _out;
    ISshPacketStream _in;
    int _fds[2];
};

TEST_F(PacketStream, PaddingBeforeKeysIsAllZero) {
    PacketNewKeys packet;
    _out.WritePacket(packet);
    EXPECT_EQ((Bytes{0, 0, 0, 12, 10, 21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), Received());
}

TEST_F(PacketStream, EmptyPayloadGetsElevenBytesOfPadding) {
    RawPacket packet({}, 11);
    _out.WritePacket(packet);
    EXPECT_EQ((Bytes{0, 0, 0, 12, 11}) + Bytes(11, 0), Received());
}

TEST_F(PacketStream, PayloadOfThreeBytesGetsAWholeBlockOfPadding) {
    class ThreeBytes : public Packet {
    public:
        ThreeBytes() : Packet(SSH_MSG_IGNORE) {}
        ByteString Payload(BlockCipher& cipher) override {
            return Encode(cipher, SMALL, [](auto& out) { out.WriteShort(0x0102); });
        }
    } packet;
    _out.WritePacket(packet);
    EXPECT_EQ((Bytes{0, 0, 0, 12, 8, 2, 1, 2}) + Bytes(8, 0), Received());
}

TEST_F(PacketStream, PaddingWithACipherIsNotAllZero) {
    UseKeys();
    RawPacket packet(Bytes(3, 7), 255);
    _out.WritePacket(packet);
    Bytes const wire = Received();
    ASSERT_EQ(4u + 1 + 3 + 255 + 20, wire.size());
    Bytes const plain = FarEnd().Crypt(Bytes(wire.begin(), wire.end() - 20));
    EXPECT_NE(Bytes(255, 0), Bytes(plain.begin() + 8, plain.end()));
}

TEST_F(PacketStream, EncryptedPacketHasAMacOverSequenceNumberAndPlainText) {
    PacketNewKeys first;
    _out.WritePacket(first);
    Received();
    UseKeys();
    RawPacket packet({94, 1, 2, 3}, 7);
    _out.WritePacket(packet);
    Bytes const wire = Received();
    ASSERT_EQ(16u + 20, wire.size());
    Bytes const plain = FarEnd().Crypt(Bytes(wire.begin(), wire.begin() + 16));
    EXPECT_EQ((Bytes{0, 0, 0, 12, 7, 94, 1, 2, 3}), Bytes(plain.begin(), plain.begin() + 9));
    // One unencrypted packet has gone before: the sequence number counts it.
    EXPECT_EQ(FarEnd::Mac(1, plain), Bytes(wire.begin() + 16, wire.end()));
}

TEST_F(PacketStream, PayloadLargerThanTheBufferHasOneMac) {
    UseKeys();
    for (std::size_t size : {8192u, 32768u}) {
        unsigned int const sequence = _out._sshBuffer._sequence;
        Bytes payload(size);
        for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<unsigned char>(i * 7);
        RawPacket packet(payload, 11);
        unsigned int const before = _out._sshBuffer._plainBytes;
        _out.WritePacket(packet);
        EXPECT_EQ(before + 4 + 1 + size + 11, _out._sshBuffer._plainBytes);
        EXPECT_EQ(sequence + 1, _out._sshBuffer._sequence);
        Bytes const wire = Received();
        ASSERT_EQ(4 + 1 + size + 11 + 20, wire.size());
        static FarEnd farEnd;
        Bytes const plain = farEnd.Crypt(Bytes(wire.begin(), wire.end() - 20));
        EXPECT_EQ(BigEndian(static_cast<std::uint32_t>(1 + size + 11)) + Bytes{11} + payload,
                  Bytes(plain.begin(), plain.end() - 11));
        EXPECT_EQ(FarEnd::Mac(sequence, plain), Bytes(wire.end() - 20, wire.end()));
    }
}

TEST_F(PacketStream, PacketWrittenTwiceKeepsItsPadding) {
    PacketChannelData packet(0, "abc", 3);
    _out.WritePacket(packet);
    Bytes const first = Received();
    UseKeys();
    _out.WritePacket(packet);
    EXPECT_EQ(first.size() + 20, Received().size());
}

TEST_F(PacketStream, ByteCountsIncludeTheLengthFieldButNotTheMac) {
    UseKeys();
    RawPacket packet({94, 1, 2, 3}, 7);
    _out.WritePacket(packet);
    EXPECT_EQ(16u, _out._byteCount);
    Send(Received());
    _in.ReadPacket();
    EXPECT_EQ(16u, _in._byteCount);
    EXPECT_EQ(0u, _in._sshBuffer._plainBytes);
}

TEST_F(PacketStream, ReadsPaddingLengthPayloadAndPadding) {
    Send({0, 0, 0, 12, 10, 21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ((Bytes{10, 21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, ReadsAnEncryptedPacketAfterPlainOnes) {
    Send({0, 0, 0, 12, 10, 21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    _in.ReadPacket();
    UseKeys();
    Bytes const plain = Bytes{0, 0, 0, 28, 11} + Bytes(16, 94) + Bytes(11, 5);
    Send(FarEnd().Crypt(plain) + FarEnd::Mac(1, plain));
    EXPECT_EQ(Bytes(plain.begin() + 4, plain.end()), ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, ReadsAPacketLargerThanTheBufferAndReportsReadAhead) {
    UseKeys();
    FarEnd farEnd;
    Bytes const large = BigEndian(32768 + 12) + Bytes{11} + Bytes(32768, 9) + Bytes(11, 1);
    Bytes const small = Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 3);
    Bytes wire = farEnd.Crypt(large) + FarEnd::Mac(0, large);
    wire = wire + farEnd.Crypt(small) + FarEnd::Mac(1, small);
    Send(wire);
    EXPECT_FALSE(_in.HasBufferedInput());
    EXPECT_EQ(Bytes(large.begin() + 4, large.end()), ToBytes(_in.ReadPacket()));
    EXPECT_TRUE(_in.HasBufferedInput());
    EXPECT_EQ(Bytes(small.begin() + 4, small.end()), ToBytes(_in.ReadPacket()));
    EXPECT_FALSE(_in.HasBufferedInput());
}

TEST_F(PacketStream, WholePacketIsDistinguishedFromAPart) {
    UseKeys();
    FarEnd farEnd;
    Bytes const plain[] = {Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 3),
                           Bytes{0, 0, 0, 28, 10, 94} + Bytes(26, 4)};
    Bytes const last = Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 5);
    std::uint32_t sequence = 0;
    auto const encoded = [&](Bytes const& packet) {
        Bytes const bytes = farEnd.Crypt(packet);
        return bytes + FarEnd::Mac(sequence++, packet);
    };
    auto const payload = [](Bytes const& packet) { return Bytes(packet.begin() + 4, packet.end()); };
    std::size_t const size = plain[1].size() + 20;
    for (std::size_t part = 0; part < size; ++part) {
        Bytes const first = encoded(plain[0]);
        Bytes const second = encoded(plain[1]);
        auto const end = second.begin() + static_cast<std::ptrdiff_t>(part);
        Send(first + Bytes(second.begin(), end));
        EXPECT_FALSE(_in.HasBufferedPacket());
        EXPECT_EQ(payload(plain[0]), ToBytes(_in.ReadPacket()));
        for (int i = 0; i < 2; ++i) EXPECT_FALSE(_in.HasBufferedPacket()) << part;
        EXPECT_EQ(part > 0, _in.HasBufferedInput()) << part;
        Send(Bytes(end, second.end()) + encoded(last));
        EXPECT_EQ(payload(plain[1]), ToBytes(_in.ReadPacket()));
        for (int i = 0; i < 2; ++i) EXPECT_TRUE(_in.HasBufferedPacket()) << part;
        EXPECT_EQ(payload(last), ToBytes(_in.ReadPacket()));
        EXPECT_FALSE(_in.HasBufferedPacket());
    }
    EXPECT_EQ(sequence, _in._sshBuffer._sequence);
    EXPECT_EQ(sequence / 3 * (16 + 32 + 16), _in._byteCount);
}

TEST_F(PacketStream, WholePacketWithoutAMacNeedsNone) {
    Bytes const packet{0, 0, 0, 12, 10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    Send(packet + packet);
    _in.ReadPacket();
    EXPECT_TRUE(_in.HasBufferedPacket());
    EXPECT_EQ(12u, _in.ReadPacket().Length());
    Send(packet + Bytes{0, 0, 0, 2, 0, 2, 0, 0}); // shorter than a block, which is all that it takes
    _in.ReadPacket();
    EXPECT_TRUE(_in.HasBufferedPacket());
    EXPECT_EQ((Bytes{0, 2}), ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, PacketThatIsTooShortIsNotWaitedFor) {
    Bytes const packet{0, 0, 0, 12, 10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    Send(packet + Bytes{0, 0, 0, 1, 0, 0, 0, 0});
    _in.ReadPacket();
    EXPECT_TRUE(_in.HasBufferedPacket());
    EXPECT_EQ("packet length less than 2", ReadFailure());
}

TEST_F(PacketStream, PacketThatIsTooLongIsNotWaitedFor) {
    Bytes const packet{0, 0, 0, 12, 10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    Send(packet + Bytes{0, 4, 0, 1, 0, 0, 0, 0});
    _in.ReadPacket();
    EXPECT_TRUE(_in.HasBufferedPacket());
    EXPECT_EQ("packet length exceeds maximum value: 262145", ReadFailure());
}

TEST_F(PacketStream, PacketLargerThanTheBufferIsNeverBufferedWhole) {
    Bytes const packet{0, 0, 0, 12, 10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    Send(packet + Bytes{0, 0, 0x40, 4} + Bytes(0x4004, 6));
    _in.ReadPacket();
    EXPECT_FALSE(_in.HasBufferedPacket());
    EXPECT_EQ(Bytes(0x4004, 6), ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, PacketLengthOfOneIsRefused) {
    Send({0, 0, 0, 1, 0, 0, 0, 0});
    EXPECT_EQ("packet length less than 2", ReadFailure());
}

TEST_F(PacketStream, PacketLengthOfTwoIsAccepted) {
    Send({0, 0, 0, 2, 0, 2, 0, 0});
    EXPECT_EQ((Bytes{0, 2}), ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, LargestPacketLengthIsAccepted) {
    Bytes const body(0x40000, 6);
    Send(Bytes{0, 4, 0, 0} + body);
    EXPECT_EQ(body, ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, PacketLengthAboveTheLargestIsRefusedWithItsValue) {
    Send({0, 4, 0, 1, 0, 0, 0, 0});
    EXPECT_EQ("packet length exceeds maximum value: 262145", ReadFailure());
}

TEST_F(PacketStream, ConnectionClosedBetweenPacketsReadsAsNoLength) {
    HangUp();
    EXPECT_EQ("packet length less than 2", ReadFailure());
}

TEST_F(PacketStream, WrongMacIsRefusedAndKeepsTheSequenceNumber) {
    UseKeys();
    Bytes const plain = Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 3);
    Bytes mac = FarEnd::Mac(0, plain);
    mac.back() ^= 1;
    Send(FarEnd().Crypt(plain) + mac);
    EXPECT_EQ("invalid mac value", ReadFailure());
    EXPECT_EQ(0u, _in._sshBuffer._sequence);
    EXPECT_EQ(0u, _in._byteCount);
}

TEST_F(PacketStream, MacTruncatedByTheEndOfTheConnectionIsComparedAsFarAsReceived) {
    Bytes const plain = Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 3);
    UseKeys();
    Bytes const mac = FarEnd::Mac(0, plain);
    Send(FarEnd().Crypt(plain) + Bytes(mac.begin(), mac.begin() + 7));
    HangUp();
    EXPECT_EQ(Bytes(plain.begin() + 4, plain.end()), ToBytes(_in.ReadPacket()));
    EXPECT_EQ("packet length less than 2", ReadFailure());
}

TEST_F(PacketStream, PacketIsAcceptedWhenTheConnectionEndsBeforeItsMac) {
    Bytes const plain = Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 3);
    UseKeys();
    Send(FarEnd().Crypt(plain));
    HangUp();
    EXPECT_EQ(Bytes(plain.begin() + 4, plain.end()), ToBytes(_in.ReadPacket()));
    EXPECT_EQ("packet length less than 2", ReadFailure());
}

TEST_F(PacketStream, BytesMissingFromTheBodyReadAsZero) {
    Send({0, 0, 0, 12, 4, 2, 9, 9, 9});
    HangUp();
    EXPECT_EQ((Bytes{4, 2, 9, 9, 9, 0, 0, 0, 0, 0, 0, 0}), ToBytes(_in.ReadPacket()));
}

TEST_F(PacketStream, WithoutAMacFinalizeReadsNothingAndCounts) {
    Send({1, 2, 3});
    EXPECT_EQ(0, _in._sshBuffer.FinalizePacket());
    EXPECT_EQ(1u, _in._sshBuffer._sequence);
    EXPECT_FALSE(_in.HasBufferedInput());
}

TEST_F(PacketStream, FailedReadOfTheMacGivesAnEmptyPacket) {
    UseKeys();
    Bytes const plain = Bytes{0, 0, 0, 12, 10, 2} + Bytes(10, 3);
    Send(FarEnd().Crypt(plain));
    _in._socketBuffer._timeout = 1;
    EXPECT_EQ(0u, _in.ReadPacket().Length());
    EXPECT_EQ(0u, _in._byteCount);
}

TEST_F(PacketStream, PeerThatStallsInsideAPacketIsAFailedRead) {
    Send({0, 0});
    _in._socketBuffer._timeout = 1;
    EXPECT_EQ("packet length less than 2", ReadFailure());
}

TEST_F(PacketStream, TimeLimitsAreThreeMinutes) {
    EXPECT_EQ(180u, _in._socketBuffer._timeout);
    EXPECT_EQ(180u, _out._socketBuffer._timeout);
}

TEST_F(PacketStream, FailedWriteIsNeitherCountedNorThrown) {
    HangUp();
    RawPacket packet(Bytes(32768, 1), 11);
    EXPECT_NO_THROW(_out.WritePacket(packet));
    EXPECT_EQ(0u, _out._byteCount);
    EXPECT_EQ(0u, _out._sshBuffer._sequence);
}

TEST_F(PacketStream, PaddingThatDoesNotFitIsDropped) {
    UseKeys();
    HangUp();
    RawPacket packet(Bytes(32768, 1), 255);
    for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(_out.WritePacket(packet));
    EXPECT_NO_THROW(_out.WritePadChars(100000));
    EXPECT_EQ(0u, _out._byteCount);
}

TEST_F(PacketStream, LowEightBitsOfThePaddingCount) {
    RawPacket seven({94, 1, 2, 3}, 256 + 7);
    _out.WritePacket(seven);
    EXPECT_EQ((Bytes{0, 0, 0, 12, 7, 94, 1, 2, 3}) + Bytes(7, 0), Received());
    RawPacket most({94}, -1);
    _out.WritePacket(most);
    EXPECT_EQ((Bytes{0, 0, 1, 1, 255, 94}) + Bytes(255, 0), Received());
}

TEST(MessageNumber, IsTheByteAfterThePaddingLengthAndZeroWithoutOne) {
    EXPECT_EQ(94, MessageNumber(ByteString("\x05\x5e\x01", 3)));
    EXPECT_EQ(0, MessageNumber(ByteString("\x05", 1)));
    EXPECT_EQ(0, MessageNumber(ByteString()));
}

TEST_F(PacketStream, PacketFollowedByOthersIsSentWithMsgMore) {
    using Sent = support::SendRecorder::Sent;
    support::SendRecorder recorder;
    RawPacket packet({94}, 10);
    _out.WritePacket(packet, true);
    _out.WritePacket(packet, false);
    _out.WritePacket(packet);
    EXPECT_EQ((std::vector<Sent>{{16, true}, {16, false}, {16, false}}), recorder.Take());
}

TEST_F(PacketStream, PacketSizeIsTheByteCount) {
    RawPacket packet(Bytes(100, 94), 255);
    unsigned int const size = _out.SizeOf(packet);
    _out.WritePacket(packet);
    EXPECT_EQ(_out._byteCount, size);
}

TEST_F(PacketStream, FullDataMessageIsSentWithItsMacInOneCall) {
    UseKeys();
    support::SendRecorder recorder;
    RawPacket packet(Bytes(9 + 8144, 94), 18);
    _out.WritePacket(packet);
    EXPECT_EQ(recorder.Take().size(), 1u);
}

TEST_F(PacketStream, FullDataMessageFollowedByOthersIsSentInOneCallWithMsgMore) {
    UseKeys();
    support::SendRecorder recorder;
    PacketChannelData packet(0, std::string(8144, 'x').data(), 8144);
    _out.WritePacket(packet, true);
    EXPECT_EQ(recorder.Take(), (std::vector<support::SendRecorder::Sent>{{8176 + 20, true}}));
    _out.WritePacket(packet);
    EXPECT_EQ(recorder.Take(), (std::vector<support::SendRecorder::Sent>{{8176 + 20, false}}));
    EXPECT_FALSE(_out._socketBuffer.IsCorked());
}

TEST_F(PacketStream, BuffersAreEmbeddedInTheStreams) {
    EXPECT_TRUE(support::HoldsBuffer(_out, _out._socketBuffer));
    EXPECT_TRUE(support::HoldsBuffer(_out, _out._sshBuffer));
    EXPECT_TRUE(support::HoldsBuffer(_out, _out._adapter));
    EXPECT_TRUE(support::HoldsBuffer(_in, _in._socketBuffer));
    EXPECT_TRUE(support::HoldsBuffer(_in, _in._sshBuffer));
    EXPECT_TRUE(support::HoldsBuffer(_in, _in._adapter));
}

TEST_F(PacketStream, HasInputOncePartOfAPacketHasArrived) {
    EXPECT_FALSE(_in.HasInput());
    Send({0, 0, 0, 12});
    EXPECT_TRUE(_in.HasInput());
}

} // namespace
} // namespace cindral
