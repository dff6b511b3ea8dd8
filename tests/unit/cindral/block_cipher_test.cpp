#include <brantle/cindral/block_cipher.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "hex.h"

using namespace cindral;

namespace {

struct Vector {
    char const* _name;
    unsigned int _keyLength;
    unsigned int _blockSize;
    char const* _key;
    char const* _iv;
    char const* _plain;
    char const* _cipher;
};

constexpr char const* PLAIN = "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
                              "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710";
constexpr char const* KEY128 = "2b7e151628aed2a6abf7158809cf4f3c";
constexpr char const* KEY192 = "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b";
constexpr char const* KEY256 = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
constexpr char const* CBC_IV = "000102030405060708090a0b0c0d0e0f";
constexpr char const* CTR_IV = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";

/// AES: NIST SP 800-38A appendices F.2 and F.5. Triple DES: the three blocks of NIST SP 800-67
/// appendix B, each combined with the cipher block before it.
constexpr Vector VECTORS[] = {
    {"aes128-ctr", 16, 16, KEY128, CTR_IV, PLAIN,
     "874d6191b620e3261bef6864990db6ce 9806f66b7970fdff8617187bb9fffdff"
     "5ae4df3edbd5d35e5b4f09020db03eab 1e031dda2fbe03d1792170a0f3009cee"},
    {"aes128-cbc", 16, 16, KEY128, CBC_IV, PLAIN,
     "7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"},
    {"aes192-ctr", 24, 16, KEY192, CTR_IV, PLAIN,
     "1abc932417521ca24f2b0459fe7e6e0b 090339ec0aa6faefd5ccc2c6f4ce8e94"
     "1e36b26bd1ebc670d1bd1d665620abf7 4f78a7f6d29809585a97daec58c6b050"},
    {"aes256-ctr", 32, 16, KEY256, CTR_IV, PLAIN,
     "601ec313775789a5b7a7f504bbf3d228 f443e3ca4d62b59aca84e990cacaf5c5"
     "2b0930daa23de94ce87017ba2d84988d dfc9c58db67aada613c2dd08457941a6"},
    {"aes192-cbc", 24, 16, KEY192, CBC_IV, PLAIN,
     "4f021db243bc633d7178183a9fa071e8 b4d9ada9ad7dedf4e5e738763f69145a"
     "571b242012fb7ae07fa9baac3df102e0 08b0e27988598881d920a9e64f5615cd"},
    {"aes256-cbc", 32, 16, KEY256, CBC_IV, PLAIN,
     "f58c4c04d6e5f1ba779eabfb5f7bfbd6 9cfc4e967edb808d679f777bc6702c7d"
     "39f23369a9d9bacfa530e26304231461 b2eb05e2c39be9fcda6c19078c6a9d1b"},
    {"3des-cbc", 24, 8, "0123456789abcdef23456789abcdef01456789abcdef0123", "0000000000000000",
     "5468652071756663 c3069ffe8a4ceb7f aa8d64a178500296",
     "a826fd8ce53b855f cce21c8112256fe6 68d5c05dd9b6b900"},
};

std::ostream& operator<<(std::ostream& out, Vector const& vector) { return out << vector._name; }

/// A vector's texts, and the cipher over them in pieces of whole blocks.
class CipherVector : public testing::TestWithParam<Vector> {
protected:
    void Start(BlockCipher::Mode mode) {
        _cipher.Redefine(GetParam()._name, mode, FromHex(GetParam()._key), FromHex(GetParam()._iv));
        _cipher._rep->SetPadding(0);
    }
    std::string Process(std::string const& hex, unsigned int piece) {
        ByteString const source = FromHex(hex);
        ByteString result(source.Length());
        for (unsigned int done = 0; done < source.Length(); done += piece) {
            unsigned int const length = std::min(piece, source.Length() - done);
            EXPECT_EQ(_cipher._rep->Process(source.Data() + done, length, result.Data() + done),
                      static_cast<int>(length));
        }
        return ToHex(result);
    }
    static std::string Plain() { return ToHex(FromHex(GetParam()._plain)); }
    static std::string Cipher() { return ToHex(FromHex(GetParam()._cipher)); }

    BlockCipher _cipher;
};

TEST_P(CipherVector, IsEncrypted) {
    Start(BlockCipher::ENCRYPT);
    EXPECT_EQ(Process(Plain(), 64), Cipher());
}

TEST_P(CipherVector, IsDecrypted) {
    Start(BlockCipher::DECRYPT);
    EXPECT_EQ(Process(Cipher(), 64), Plain());
}

TEST_P(CipherVector, StateIsKeptBetweenPieces) {
    Start(BlockCipher::ENCRYPT);
    EXPECT_EQ(Process(Plain(), GetParam()._blockSize), Cipher());
    Start(BlockCipher::DECRYPT);
    EXPECT_EQ(Process(Cipher(), GetParam()._blockSize), Plain());
}

TEST_P(CipherVector, WorksInPlace) {
    ByteString bytes = FromHex(Plain());
    for (auto mode : {BlockCipher::ENCRYPT, BlockCipher::DECRYPT}) {
        Start(mode);
        ASSERT_EQ(_cipher._rep->Process(bytes.Data(), bytes.Length(), bytes.Data()),
                  static_cast<int>(bytes.Length()));
        EXPECT_EQ(ToHex(bytes), mode == BlockCipher::ENCRYPT ? Cipher() : Plain());
    }
}

TEST_P(CipherVector, OnlyTheFirstBytesOfALongerKeyAndVectorCount) {
    _cipher.Redefine(GetParam()._name, BlockCipher::ENCRYPT,
                     FromHex(std::string(GetParam()._key) + "aabbccdd"),
                     FromHex(std::string(GetParam()._iv) + "eeff"));
    EXPECT_EQ(Process(Plain(), 64), Cipher());
}

TEST_P(CipherVector, ShortKeyOrVectorIsRefusedAndKeepsTheOldCipher) {
    Start(BlockCipher::ENCRYPT);
    ByteString const key = FromHex(GetParam()._key);
    ByteString const iv = FromHex(GetParam()._iv);
    char const* name = GetParam()._name;
    EXPECT_THROW(_cipher.Redefine(name, BlockCipher::ENCRYPT, key.SubStr(0, key.Length() - 1), iv),
                 InvalidArgument);
    EXPECT_THROW(_cipher.Redefine(name, BlockCipher::ENCRYPT, key, iv.SubStr(0, iv.Length() - 1)),
                 InvalidArgument);
    EXPECT_THROW(_cipher.Redefine(name, BlockCipher::ENCRYPT, ByteString(), ByteString()), InvalidArgument);
    EXPECT_EQ(Process(Plain(), 64), Cipher());
}

TEST_P(CipherVector, SizesAreFoundByName) {
    EXPECT_EQ(BlockCipher::KeyLen(GetParam()._name), GetParam()._keyLength);
    EXPECT_EQ(BlockCipher::BlockSize(GetParam()._name), GetParam()._blockSize);
    Start(BlockCipher::ENCRYPT);
    EXPECT_EQ(_cipher._rep->BlockSize(), GetParam()._blockSize);
    EXPECT_NE(_cipher._rep->Kind(), BlockCipher::NONE);
}

TEST_P(CipherVector, EmptyInputGivesEmptyOutput) {
    Start(BlockCipher::ENCRYPT);
    EXPECT_EQ(_cipher._rep->Process(nullptr, 0, nullptr), 0);
}

INSTANTIATE_TEST_SUITE_P(BlockCipher, CipherVector, testing::ValuesIn(VECTORS), [](auto const& tested) {
    std::string name = tested.param._name;
    for (char& c : name)
        if (c == '-') c = '_';
    return name;
});

TEST(BlockCipher, PartOfABlockIsRefusedInChainingModeOnly) {
    BlockCipher cipher;
    unsigned char bytes[16] = {};
    cipher.Redefine("aes128-cbc", BlockCipher::ENCRYPT, FromHex(KEY128), FromHex(CBC_IV));
    errno = 0;
    EXPECT_LT(cipher._rep->Process(bytes, 15, bytes), 0);
    EXPECT_EQ(errno, EINVAL);
    cipher.Redefine("aes128-ctr", BlockCipher::ENCRYPT, FromHex(KEY128), FromHex(CTR_IV));
    EXPECT_EQ(cipher._rep->Process(bytes, 15, bytes), 15);
}

TEST(BlockCipher, DefaultIsNone) {
    BlockCipher cipher;
    EXPECT_EQ(cipher._rep->BlockSize(), 8u);
    EXPECT_EQ(cipher._rep->Kind(), BlockCipher::NONE);
    unsigned char const source[] = "seven b";
    unsigned char target[sizeof source] = {};
    EXPECT_EQ(cipher._rep->Process(source, sizeof source, target), static_cast<int>(sizeof source));
    EXPECT_EQ(std::memcmp(source, target, sizeof source), 0);
    EXPECT_EQ(cipher._rep->Process(target, sizeof target, target), static_cast<int>(sizeof target));
    EXPECT_EQ(cipher._rep->Process(nullptr, 0, nullptr), 0);
}

TEST(BlockCipher, CanBeSetBackToNone) {
    BlockCipher cipher;
    cipher.Redefine("aes128-ctr", BlockCipher::ENCRYPT, FromHex(KEY128), FromHex(CTR_IV));
    cipher.Redefine("none", BlockCipher::ENCRYPT, ByteString(), ByteString());
    EXPECT_EQ(cipher._rep->Kind(), BlockCipher::NONE);
    EXPECT_EQ(BlockCipher::BlockSize("none"), 8u);
    EXPECT_EQ(BlockCipher::KeyLen("none"), 0u);
}

TEST(BlockCipher, PaddingIsNotOffered) {
    BlockCipher cipher;
    EXPECT_EQ(cipher._rep->SetPadding(0), 0);
    EXPECT_LT(cipher._rep->SetPadding(1), 0);
    cipher.Redefine("aes128-cbc", BlockCipher::DECRYPT, FromHex(KEY128), FromHex(CBC_IV));
    EXPECT_EQ(cipher._rep->SetPadding(0), 0);
    EXPECT_LT(cipher._rep->SetPadding(1), 0);
}

TEST(BlockCipher, HandlesOfDifferentThreadsAreIndependent) {
    std::vector<std::thread> threads;
    for (Vector const& vector : VECTORS)
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&vector] {
                BlockCipher cipher;
                cipher.Redefine(vector._name, BlockCipher::ENCRYPT, FromHex(vector._key),
                                FromHex(vector._iv));
                ByteString bytes = FromHex(vector._plain);
                cipher._rep->Process(bytes.Data(), bytes.Length(), bytes.Data());
                EXPECT_EQ(ToHex(bytes), ToHex(FromHex(vector._cipher)));
            });
    for (std::thread& thread : threads) thread.join();
}

TEST(BlockCipher, UnknownNameHasNoSizesAndIsRefused) {
    for (char const* name : {static_cast<char const*>(nullptr), "", "aes128", "aes128-ctr,aes128-cbc"}) {
        EXPECT_EQ(BlockCipher::BlockSize(name), 0u);
        EXPECT_EQ(BlockCipher::KeyLen(name), 0u);
        BlockCipher cipher;
        EXPECT_THROW(cipher.Redefine(name, BlockCipher::ENCRYPT, ByteString(64u), ByteString(64u)),
                     InvalidArgument);
        EXPECT_EQ(cipher._rep->Kind(), BlockCipher::NONE);
    }
}

TEST(BlockCipher, OffersItsNamesInOrder) {
    EXPECT_STREQ(BlockCipher::AvailableCiphers().Text(),
                 "aes128-ctr,aes128-cbc,aes192-ctr,aes256-ctr,aes192-cbc,aes256-cbc,3des-cbc");
}

} // namespace
