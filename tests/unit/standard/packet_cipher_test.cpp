#include <vector>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "packet_vectors.h"
#include "standard/bytes.h"
#include "standard/packet_cipher.h"
#include "support/expect_error.h"

using namespace cindral;
using namespace cindral::standard;
using support::ExpectError;

static std::ostream& operator<<(std::ostream& out, PacketVector const& vector) {
    return out << vector.cipher << ' ' << vector.mac;
}

namespace {

constexpr std::size_t LENGTH_FIELD = 4;

Bytes FromHex(std::string const& digits) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

Bytes Pattern(std::size_t size, std::size_t start) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(start + 7 * i);
    return bytes;
}

SecretBytes Secret(Bytes const& bytes) { return SecretBytes(bytes.begin(), bytes.end()); }

/// As packet_vectors.py makes them.
DirectionKeys MakeKeys(PacketVector const& vector) {
    KeySizes const sizes = KeySizesOf(vector.cipher, vector.mac);
    DirectionKeys keys;
    keys.cipher = Secret(Pattern(sizes.cipher, 1));
    keys.mac = Secret(Pattern(sizes.mac, 2));
    if (sizes.iv > 0) {
        keys.iv = Secret(Pattern(sizes.iv - 8, 3));
        keys.iv.insert(keys.iv.end(), 7, 0xff);
        keys.iv.push_back(0xfe);
    }
    return keys;
}

/// A plain packet with `size` bytes after its length field.
Bytes Packet(std::size_t size, std::size_t start) {
    Bytes packet(LENGTH_FIELD);
    StoreInt(packet.data(), static_cast<unsigned int>(size));
    Bytes const rest = Pattern(size, start);
    packet.insert(packet.end(), rest.begin(), rest.end());
    return packet;
}

class PacketCipher : public testing::TestWithParam<PacketVector> {
protected:
    PacketCipher()
        : _sealer(PacketSealer::Create(GetParam().cipher, GetParam().mac, MakeKeys(GetParam()))),
          _opener(PacketOpener::Create(GetParam().cipher, GetParam().mac, MakeKeys(GetParam()))) {}

    /// The least size after the length field, aligned, that holds `size` bytes.
    std::size_t Aligned(std::size_t size) const {
        std::size_t const extra = _sealer->LengthIsOutside() ? 0 : LENGTH_FIELD;
        std::size_t const unit = _sealer->Alignment();
        return (std::max<std::size_t>(size, 1) + extra + unit - 1) / unit * unit - extra;
    }
    Bytes Seal(unsigned int sequence, Bytes packet) {
        std::size_t const length = packet.size();
        packet.resize(length + _sealer->TagSize());
        _sealer->Seal(sequence, packet.data(), length);
        return packet;
    }
    /// The packet as it is after opening, without its tag; nothing if it is refused.
    Bytes Open(unsigned int sequence, Bytes sealed) {
        std::size_t const length = sealed.size() - _opener->TagSize();
        _opener->PeekLength(sequence, sealed.data());
        if (!_opener->Open(sequence, sealed.data(), length)) return Bytes();
        sealed.resize(length);
        return sealed;
    }
    std::unique_ptr<PacketOpener> FreshOpener() const {
        return PacketOpener::Create(GetParam().cipher, GetParam().mac, MakeKeys(GetParam()));
    }

    std::unique_ptr<PacketSealer> _sealer;
    std::unique_ptr<PacketOpener> _opener;
};

TEST_P(PacketCipher, SealsLikeAnotherImplementationWhileAllCountersWrap) {
    unsigned int sequence = FIRST_SEQUENCE;
    for (std::size_t i = 0; i < 3; ++i) {
        Bytes const expected = FromHex(GetParam().packets[i]);
        Bytes const plain = Packet(expected.size() - _sealer->TagSize() - LENGTH_FIELD, i);
        EXPECT_EQ(Seal(sequence++, plain), expected) << "packet " << i;
    }
    EXPECT_EQ(sequence, 1u);
}

TEST_P(PacketCipher, OpensPacketsOfAnotherImplementation) {
    unsigned int sequence = FIRST_SEQUENCE;
    for (std::size_t i = 0; i < 3; ++i) {
        Bytes const sealed = FromHex(GetParam().packets[i]);
        EXPECT_EQ(Open(sequence++, sealed), Packet(sealed.size() - _opener->TagSize() - LENGTH_FIELD, i))
            << "packet " << i;
    }
}

TEST_P(PacketCipher, OpensPacketsOfEverySize) {
    unsigned int sequence = 0;
    for (std::size_t size = 0; size <= 300; ++size, ++sequence) {
        Bytes const plain = Packet(Aligned(size), size);
        Bytes const sealed = Seal(sequence, plain);
        ASSERT_EQ(sealed.size(), plain.size() + _opener->TagSize());
        EXPECT_NE(View(sealed.data() + LENGTH_FIELD, 8), View(plain.data() + LENGTH_FIELD, 8)) << size;
        ASSERT_EQ(Open(sequence, sealed), plain) << size;
    }
    for (std::size_t size : {32768u, 35000u, 262144u}) {
        Bytes const plain = Packet(Aligned(size), size);
        ASSERT_EQ(Open(sequence, Seal(sequence, plain)), plain) << size;
        ++sequence;
    }
}

TEST_P(PacketCipher, LengthIsKnownFromTheFirstBytes) {
    for (unsigned int sequence = 0; sequence < 3; ++sequence) {
        Bytes const plain = Packet(Aligned(100), sequence);
        Bytes sealed = Seal(sequence, plain);
        Bytes head(sealed.begin(), sealed.begin() + static_cast<std::ptrdiff_t>(_opener->LengthBytes()));
        EXPECT_EQ(_opener->PeekLength(sequence, head.data()), plain.size() - LENGTH_FIELD);
        // The rest of the packet arrives, in other memory.
        std::copy(head.begin(), head.end(), sealed.begin());
        EXPECT_EQ(_opener->PeekLength(sequence, sealed.data()), plain.size() - LENGTH_FIELD);
        ASSERT_TRUE(_opener->Open(sequence, sealed.data(), plain.size()));
        sealed.resize(plain.size());
        EXPECT_EQ(sealed, plain);
    }
}

TEST_P(PacketCipher, PacketWithAnyBitFlippedIsRefused) {
    Bytes const sealed = Seal(7, Packet(Aligned(20), 1));
    for (std::size_t bit = 0; bit < sealed.size() * 8; ++bit) {
        _opener = FreshOpener();
        Bytes forged = sealed;
        forged[bit / 8] = static_cast<unsigned char>(forged[bit / 8] ^ 1 << bit % 8);
        EXPECT_EQ(Open(7, forged), Bytes()) << "bit " << bit;
    }
    _opener = FreshOpener();
    EXPECT_NE(Open(7, sealed), Bytes());
}

TEST_P(PacketCipher, PacketReplayedIsRefused) {
    Bytes const sealed = Seal(7, Packet(Aligned(20), 1));
    ASSERT_NE(Open(7, sealed), Bytes());
    EXPECT_EQ(Open(8, sealed), Bytes());
}

TEST_P(PacketCipher, MissingPacketIsDetected) {
    Seal(7, Packet(Aligned(20), 1));
    EXPECT_EQ(Open(7, Seal(8, Packet(Aligned(20), 2))), Bytes());
}

TEST_P(PacketCipher, PacketOfOtherKeysIsRefused) {
    KeySizes const sizes = KeySizesOf(GetParam().cipher, GetParam().mac);
    DirectionKeys keys = MakeKeys(GetParam());
    // The last byte of the MAC key, or else the first of the cipher's: all the keys that a tag depends on.
    (sizes.mac > 0 ? keys.mac.back() : keys.cipher.front()) ^= 1;
    _opener = PacketOpener::Create(GetParam().cipher, GetParam().mac, keys);
    EXPECT_EQ(Open(7, Seal(7, Packet(Aligned(20), 1))), Bytes());
}

TEST_P(PacketCipher, BytesAfterTheTagAreUnchanged) {
    Bytes packet = Packet(Aligned(20), 1);
    std::size_t const length = packet.size();
    packet.resize(length + _sealer->TagSize() + 8, 0xee);
    _sealer->Seal(0, packet.data(), length);
    EXPECT_EQ(View(packet.data() + packet.size() - 8, 8), View(Bytes(8, 0xee)));
}

TEST_P(PacketCipher, LongerKeysAreCut) {
    DirectionKeys keys = MakeKeys(GetParam());
    for (SecretBytes* key : {&keys.iv, &keys.cipher, &keys.mac}) key->push_back(0);
    _sealer = PacketSealer::Create(GetParam().cipher, GetParam().mac, keys);
    Bytes const plain = Packet(Aligned(20), 1);
    EXPECT_EQ(Open(3, Seal(3, plain)), plain);
}

TEST_P(PacketCipher, KeysTooShortAreRefused) {
    KeySizes const sizes = KeySizesOf(GetParam().cipher, GetParam().mac);
    for (int which = 0; which < 3; ++which) {
        DirectionKeys keys = MakeKeys(GetParam());
        SecretBytes& key = which == 0 ? keys.iv : which == 1 ? keys.cipher : keys.mac;
        std::size_t const size = which == 0 ? sizes.iv : which == 1 ? sizes.cipher : sizes.mac;
        EXPECT_EQ(key.size(), size);
        if (size == 0) continue;
        key.pop_back();
        ExpectError<InvalidArgument>("packet cipher", "key too short",
                                     [&] { PacketSealer::Create(GetParam().cipher, GetParam().mac, keys); });
        ExpectError<InvalidArgument>("packet cipher", "key too short",
                                     [&] { PacketOpener::Create(GetParam().cipher, GetParam().mac, keys); });
    }
}

std::string Title(testing::TestParamInfo<PacketVector> const& info) {
    std::string title;
    for (char c : std::string(info.param.cipher) + "_" + info.param.mac)
        title += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return title;
}

INSTANTIATE_TEST_SUITE_P(All, PacketCipher, testing::ValuesIn(PACKET_VECTORS), Title);

TEST(PacketCipherOverTheCiphertext, ForgedPacketIsNotDecrypted) {
    for (PacketVector const& vector : PACKET_VECTORS) {
        std::string const names = std::string(vector.cipher) + ' ' + vector.mac;
        if (names.find("chacha") == std::string::npos && names.find("etm") == std::string::npos) continue;
        Bytes sealed = FromHex(vector.packets[0]);
        sealed.back() = static_cast<unsigned char>(sealed.back() ^ 1);
        Bytes bytes = sealed;
        auto const opener = PacketOpener::Create(vector.cipher, vector.mac, MakeKeys(vector));
        opener->PeekLength(FIRST_SEQUENCE, bytes.data());
        EXPECT_FALSE(opener->Open(FIRST_SEQUENCE, bytes.data(), bytes.size() - opener->TagSize())) << names;
        EXPECT_EQ(bytes, sealed) << names;
    }
}

struct Shape {
    char const* cipher;
    char const* mac;
    unsigned int alignment;
    unsigned int tagSize;
    bool lengthIsOutside;
    std::size_t lengthBytes;
    std::size_t iv, key, macKey;
};

TEST(PacketCipherShape, IsThatOfTheAlgorithms) {
    for (Shape const& shape : {
             Shape{"aes128-gcm@openssh.com", "", 16, 16, true, 4, 12, 16, 0},
             Shape{"aes256-gcm@openssh.com", "hmac-sha1", 16, 16, true, 4, 12, 32, 0},
             Shape{"chacha20-poly1305@openssh.com", "", 8, 16, true, 4, 0, 64, 0},
             Shape{"aes128-ctr", "hmac-sha2-256", 16, 32, false, 16, 16, 16, 32},
             Shape{"aes192-ctr", "hmac-sha1", 16, 20, false, 16, 16, 24, 20},
             Shape{"aes256-ctr", "hmac-sha2-512-etm@openssh.com", 16, 64, true, 4, 16, 32, 64},
         }) {
        SCOPED_TRACE(shape.cipher);
        KeySizes const sizes = KeySizesOf(shape.cipher, shape.mac);
        EXPECT_EQ(sizes.iv, shape.iv);
        EXPECT_EQ(sizes.cipher, shape.key);
        EXPECT_EQ(sizes.mac, shape.macKey);
        DirectionKeys keys{SecretBytes(16), SecretBytes(64), SecretBytes(64)};
        auto const sealer = PacketSealer::Create(shape.cipher, shape.mac, keys);
        auto const opener = PacketOpener::Create(shape.cipher, shape.mac, keys);
        for (PacketFormat const* format : {static_cast<PacketFormat const*>(sealer.get()),
                                           static_cast<PacketFormat const*>(opener.get())}) {
            EXPECT_EQ(format->Alignment(), shape.alignment);
            EXPECT_EQ(format->TagSize(), shape.tagSize);
            EXPECT_EQ(format->LengthIsOutside(), shape.lengthIsOutside);
        }
        EXPECT_EQ(opener->LengthBytes(), shape.lengthBytes);
    }
}

TEST(PacketCipherNames, AreRefusedWhereNotSupported) {
    ExpectError<InvalidArgument>("algorithm not supported", "3des-cbc",
                                 [] { KeySizesOf("3des-cbc", "hmac-sha1"); });
    ExpectError<InvalidArgument>("algorithm not supported", "hmac-md5",
                                 [] { PacketSealer::Create("aes128-ctr", "hmac-md5", DirectionKeys()); });
    ExpectError<InvalidArgument>("algorithm not supported", "",
                                 [] { PacketOpener::Create("aes128-ctr", "", DirectionKeys()); });
}

TEST(NoCipher, LeavesPacketsAsTheyAre) {
    auto const sealer = PacketSealer::None();
    auto const opener = PacketOpener::None();
    EXPECT_EQ(sealer->Alignment(), 8u);
    EXPECT_EQ(sealer->TagSize(), 0u);
    EXPECT_FALSE(sealer->LengthIsOutside());
    EXPECT_EQ(opener->LengthBytes(), 4u);
    Bytes packet = Packet(12, 1);
    Bytes const plain = packet;
    sealer->Seal(0, packet.data(), packet.size());
    EXPECT_EQ(opener->PeekLength(0, packet.data()), 12u);
    EXPECT_TRUE(opener->Open(0, packet.data(), packet.size()));
    EXPECT_EQ(packet, plain);
}

} // namespace
