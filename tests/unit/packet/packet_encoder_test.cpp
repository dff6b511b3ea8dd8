#include <brantle/packet/packet_encoder.h>

#include <memory>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <brantle/cindral/digest.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/cindral/signature.h>

#include "wire.h"

using namespace cindral;

namespace {

/// What `write` leaves in an encoder of a small capacity; the count must be its length.
template <typename Write>
std::string Encoded(Write write) {
    PacketEncoder encoder(4);
    write(encoder);
    encoder.Terminate();
    EXPECT_EQ(encoder._count, encoder.Len());
    return std::string(encoder.Str(), encoder._count);
}

unsigned char const* Raw(char const* text) { return reinterpret_cast<unsigned char const*>(text); }

TEST(PacketEncoder, NewEncoderIsEmpty) {
    EXPECT_EQ(Encoded([](PacketEncoder&) {}), "");
}

TEST(PacketEncoder, NumbersAreBigEndian) {
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteByte(0xfe); }), Wire("fe"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteShort(0x0102); }), Wire("0102"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteInt(0x01020304); }), Wire("01020304"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteLong(0x0102030405060708); }),
              Wire("0102030405060708"));
}

TEST(PacketEncoder, TypeCodeAndBoolKeepTheLowEightBits) {
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteTypeCode(94); }), Wire("5e"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteTypeCode(0x15e); }), Wire("5e"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBool(1); }), Wire("01"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBool(2); }), Wire("02"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBool(-1); }), Wire("ff"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBool(256); }), Wire("00"));
}

TEST(PacketEncoder, StringHasItsLengthAndNoTerminator) {
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteString("testing"); }), Wire("00000007 'testing'"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteString(""); }), Wire("00000000"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteString(nullptr); }), Wire("00000000"));
}

TEST(PacketEncoder, BytesHaveTheirLength) {
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytes(Raw("a\0b"), 3); }), Wire("00000003 610062"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytes(Bytes("ab")); }), Wire("00000002 'ab'"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytes(Raw("ab"), 0); }), Wire("00000000"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytes(ByteString()); }), Wire("00000000"));
}

TEST(PacketEncoder, RawBytesHaveNoLength) {
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytesRaw(Raw("a\0b"), 3); }), Wire("610062"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytesRaw(Bytes("ab")); }), "ab");
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WriteBytesRaw(ByteString()); }), "");
}

/// The examples of RFC 4251, section 5.
TEST(PacketEncoder, MpintsAreEncodedAsInRfc4251) {
    struct Example {
        char const* _number;
        char const* _wire;
    };
    for (Example const& example : {
             Example{"0", "00000000"},
             Example{"9A378F9B2E332A7", "00000008 09a378f9b2e332a7"},
             Example{"80", "00000002 0080"},
             Example{"-1234", "00000002 edcc"},
             Example{"-DEADBEEF", "00000005 ff21524111"},
         }) {
        BigNum number;
        ASSERT_NE(BN_hex2bn(&number._bn, example._number), 0);
        EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteBignum2(number._bn); }), Wire(example._wire))
            << example._number;
    }
}

TEST(PacketEncoder, OlderBignumFormStartsWithTheBitCount) {
    BigNum number;
    BN_set_word(number._bn, 0x1ff);
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteBignum(number._bn); }), Wire("0009 01ff"));
}

TEST(PacketEncoder, PublicKeyIsItsBlob) {
    std::string const blob = Wire("00000007 'ssh-rsa' 00000003 010001 00000005 00c0ffee01");
    PublicKey key(Bytes(blob));
    ASSERT_NE(key._rep, nullptr);
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WritePublicKey(key); }), Wire("0000001b") + blob);
}

TEST(PacketEncoder, EmptyKeysWriteEmptyValues) {
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WritePublicKey(PublicKey()); }), Wire("00000000"));
    EXPECT_EQ(Encoded([](PacketEncoder& out) { out.WritePrivateKey(PrivateKey()); }), "");
}

TEST(PacketEncoder, PrivateKeyHasNoLength) {
    PrivateKey key;
    key._rep = new PrivateKey::Rep(EVP_RSA_gen(1024));
    std::string const written = Encoded([&](PacketEncoder& out) { out.WritePrivateKey(key); });
    EXPECT_EQ(written.substr(0, 11), Wire("00000007 'ssh-rsa'"));
    EXPECT_EQ(written, Text(key._rep->EncodeSSH()));
}

/// FIPS 180-2, appendix A.1.
TEST(PacketEncoder, DigestIsAString) {
    Digest digest(DIGEST_SHA1);
    digest._rep->Update(Raw("abc"), 3);
    digest._rep->Finish();
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteDigest(digest); }),
              Wire("00000014 a9993e364706816aba3e25717850c26c9cd0d89d"));
}

TEST(PacketEncoder, SignatureIsItsBlob) {
    std::string const blob = Wire("00000007 'ssh-rsa' 00000004 deadbeef");
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteSignature(Signature(Bytes(blob))); }),
              Wire("00000013") + blob);
}

TEST(PacketEncoder, StringListIsItsCountAndItsStrings) {
    TOList<String_t> list;
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteStringList(list); }), Wire("00000000"));
    list.Append("one");
    list.Append(String_t());
    list.Append("two");
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteStringList(list); }),
              Wire("00000003 00000003 'one' 00000000 00000003 'two'"));
}

TEST(PacketEncoder, CountIsTheSumOfAllFields) {
    PacketEncoder encoder(256);
    encoder.WriteTypeCode(1);
    encoder.WriteBool(1);
    encoder.WriteShort(1);
    encoder.WriteInt(1);
    encoder.WriteLong(1);
    encoder.WriteString("abc");
    EXPECT_EQ(encoder._count, 1u + 1 + 2 + 4 + 8 + 7);
}

TEST(PacketEncoder, BufferGrowsPastItsCapacity) {
    std::string const large(100000, 'x');
    EXPECT_EQ(Encoded([&](PacketEncoder& out) { out.WriteBytes(Bytes(large)); }), Wire("000186a0") + large);
}

TEST(PacketEncoder, PaddingFillsUpTheBlock) {
    struct Example {
        unsigned int _count;
        unsigned int _block;
        int _padding;
    };
    for (Example const& example : {Example{0, 8, 11}, Example{2, 8, 9}, Example{3, 8, 8}, Example{6, 8, 5},
                                   Example{7, 8, 12}, Example{27, 8, 8}, Example{0, 16, 11},
                                   Example{6, 16, 5}, Example{7, 16, 20}, Example{11, 16, 16}}) {
        PacketEncoder encoder(256);
        encoder.WriteBytesRaw(Bytes(std::string(example._count, 'x')));
        EXPECT_EQ(encoder.PadLen(example._block), example._padding)
            << example._count << " bytes in blocks of " << example._block;
    }
}

TEST(PacketEncoder, PaddingIsBetweenFiveAndTheBlockSizePlusFour) {
    for (unsigned int block : {8u, 16u}) {
        PacketEncoder encoder(256);
        for (unsigned int count = 0; count < 3 * block; ++count) {
            unsigned int const padding = static_cast<unsigned int>(encoder.PadLen(block));
            EXPECT_GE(padding, 5u);
            EXPECT_LE(padding, block + 4);
            EXPECT_EQ((4 + 1 + count + padding) % block, 0u);
            encoder.WriteByte(0);
        }
    }
}

TEST(PacketEncoder, BufferHoldsTheBytesOnceThePaddingIsKnown) {
    PacketEncoder encoder(256);
    encoder.WriteInt(1);
    encoder.PadLen(8);
    EXPECT_EQ(std::string(encoder.Str(), encoder.Len()), Wire("00000001"));
}

} // namespace
