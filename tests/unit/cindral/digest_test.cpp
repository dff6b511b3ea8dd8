#include <brantle/cindral/digest.h>

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/exceptions.h>

#include "hex.h"

using namespace cindral;

namespace {

std::string Finish(Digest& digest) {
    digest._rep->Finish();
    return ToHex(digest._rep->_value);
}

/// The digest of raw bytes.
std::string Raw(char const* hex) {
    Digest digest(DIGEST_SHA1);
    ByteString const bytes = FromHex(hex);
    digest._rep->Update(bytes.Data(), bytes.Length());
    return Finish(digest);
}

TEST(Digest, MatchesKnownVectors) { // FIPS 180
    EXPECT_EQ(Raw("616263"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Raw(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(Digest, Sha1HasTheNumber2) {
    Digest digest(static_cast<DigestType>(2));
    EXPECT_EQ(Finish(digest), Raw(""));
}

TEST(Digest, OtherTypesAreRefused) {
    EXPECT_THROW(Digest(static_cast<DigestType>(1)), InvalidArgument);
    EXPECT_THROW(Digest(static_cast<DigestType>(3)), InvalidArgument);
}

TEST(Digest, ByteAndIntAreBigEndian) {
    Digest digest(DIGEST_SHA1);
    digest.UpdateByte(0xfe);
    digest.UpdateInt(0x01020304);
    EXPECT_EQ(Finish(digest), Raw("fe 01020304"));
}

TEST(Digest, TextIsFedWithItsLength) {
    Digest digest(DIGEST_SHA1);
    digest.UpdateString("abc");
    EXPECT_EQ(Finish(digest), Raw("00000003 616263"));
}

TEST(Digest, BytesAreFedWithTheirLength) {
    Digest digest(DIGEST_SHA1);
    digest.Update(FromHex("00ff"));
    EXPECT_EQ(Finish(digest), Raw("00000002 00ff"));
}

TEST(Digest, EmptyValuesFeedFourZeroBytes) {
    Digest bytes(DIGEST_SHA1);
    bytes.Update(ByteString());
    EXPECT_EQ(Finish(bytes), Raw("00000000"));
    Digest text(DIGEST_SHA1);
    text.UpdateString(String_t());
    EXPECT_EQ(Finish(text), Raw("00000000"));
    Digest number(DIGEST_SHA1);
    number.Update(static_cast<bignum_st const*>(nullptr));
    EXPECT_EQ(Finish(number), Raw("00000000"));
}

TEST(Digest, NumberIsFedAsMpint) {
    BigNum number;
    BN_set_word(number._bn, 0x80);
    Digest digest(DIGEST_SHA1);
    digest.Update(number._bn);
    EXPECT_EQ(Finish(digest), Raw("00000002 0080"));
}

} // namespace
