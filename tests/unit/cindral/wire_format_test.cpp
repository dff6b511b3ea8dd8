#include <string>

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <brantle/cindral/big_num.h>
#include <brantle/thornel/big_endian.h>

#include "foundations/cindral/wire_format.h"
#include "hex.h"

using namespace cindral;

namespace {

struct Mpint {
    char const* _number; ///< hexadecimal, as OpenSSL writes it
    char const* _body;   ///< as RFC 4251, section 5, has it
};

/// The examples of RFC 4251, and numbers around a change of length.
constexpr Mpint MPINTS[] = {{"0", ""},
                            {"9A378F9B2E332A7", "09a378f9b2e332a7"},
                            {"80", "0080"},
                            {"-1234", "edcc"},
                            {"-DEADBEEF", "ff21524111"},
                            {"7F", "7f"},
                            {"FF", "00ff"},
                            {"100", "0100"},
                            {"-1", "ff"},
                            {"-80", "80"},
                            {"-81", "ff7f"}};

TEST(WireFormat, MpintIsEncodedAndDecoded) {
    for (Mpint const& mpint : MPINTS) {
        BigNum number;
        ASSERT_NE(BN_hex2bn(&number._bn, mpint._number), 0);
        ByteString const body = FromHex(mpint._body);
        ByteString const encoded = EncodeMpint(number._bn);
        EXPECT_EQ(GetBigEndian<unsigned int>(encoded.Data()), body.Length()) << mpint._number;
        EXPECT_EQ(ToHex(encoded.SubStr(4, encoded.Length() - 4)), mpint._body);
        BigNum decoded;
        EXPECT_TRUE(DecodeMpint(body.Data(), body.Length(), decoded._bn));
        EXPECT_EQ(BN_cmp(decoded._bn, number._bn), 0) << mpint._number;
    }
}

TEST(WireFormat, NullMpintIsZero) { EXPECT_EQ(ToHex(EncodeMpint(nullptr)), "00000000"); }

TEST(WireFormat, SuperfluousLeadingBytesOfAnMpintAreIgnored) {
    BigNum number;
    ByteString const positive = FromHex("0000 7f");
    EXPECT_TRUE(DecodeMpint(positive.Data(), positive.Length(), number._bn));
    EXPECT_TRUE(BN_is_word(number._bn, 0x7f));
    ByteString const negative = FromHex("ffff 80");
    EXPECT_TRUE(DecodeMpint(negative.Data(), negative.Length(), number._bn));
    EXPECT_TRUE(BN_is_negative(number._bn));
    EXPECT_TRUE(BN_abs_is_word(number._bn, 0x80));
}

TEST(WireFormat, StringIsItsLengthAndItsBytes) {
    ByteString bytes;
    AppendString(bytes, "ssh-rsa");
    AppendString(bytes, "\0x", 2);
    AppendString(bytes, "");
    EXPECT_EQ(ToHex(bytes), "000000077373682d727361"
                            "000000020078"
                            "00000000");
}

TEST(WireFormat, ViewEqualsOnlyATextOfItsLength) {
    unsigned char const text[] = "none";
    EXPECT_TRUE((ByteView{text, 4}.Is("none")));
    EXPECT_FALSE((ByteView{text, 3}.Is("none")));
    EXPECT_FALSE((ByteView{text, 4}.Is("non")));
    EXPECT_TRUE((ByteView{text, 0}.Is("")));
}

TEST(WireReader, FieldsAreReadInTurn) {
    ByteString const bytes = FromHex("00000007 00000002 6162 00000001 05 6364");
    WireReader reader(bytes.Data(), bytes.Length());
    EXPECT_EQ(reader.Int(), 7u);
    EXPECT_TRUE(reader.String().Is("ab"));
    BigNum number;
    reader.Mpint(number._bn);
    EXPECT_TRUE(BN_is_word(number._bn, 5));
    EXPECT_FALSE(reader.AtEnd());
    EXPECT_TRUE(reader.Rest().Is("cd"));
    EXPECT_TRUE(reader.AtEnd());
    EXPECT_TRUE(reader.Ok());
}

TEST(WireReader, FieldBeyondTheEndAndAllAfterItAreEmpty) {
    ByteString const bytes = FromHex("00000003 6162");
    WireReader reader(bytes.Data(), bytes.Length());
    EXPECT_EQ(reader.String()._length, 0u);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.Int(), 0u);
    EXPECT_EQ(reader.Rest()._length, 0u);
}

TEST(WireReader, TruncatedNumberIsZero) {
    ByteString const bytes = FromHex("ffffff");
    WireReader reader(bytes.Data(), bytes.Length());
    EXPECT_EQ(reader.Int(), 0u);
    EXPECT_FALSE(reader.Ok());
}

TEST(WireReader, MpintWithoutATargetIsAFailure) {
    ByteString const bytes = FromHex("00000001 05");
    WireReader reader(bytes.Data(), bytes.Length());
    reader.Mpint(nullptr);
    EXPECT_FALSE(reader.Ok());
}

} // namespace
