#include <brantle/cindral/big_num.h>

#include <cstddef>
#include <memory>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>

#include <brantle/cindral/exceptions.h>

#include "hex.h"

using namespace cindral;

namespace {

BigNum Number(char const* hex) {
    BigNum number;
    BN_hex2bn(&number._bn, hex);
    return number;
}

std::string Hex(BigNum const& number) {
    std::unique_ptr<char, void (*)(char*)> text(BN_bn2hex(number._bn), [](char* t) { OPENSSL_free(t); });
    return text.get();
}

std::string Bytes(std::string const& hex) {
    ByteString const bytes = FromHex(hex);
    return std::string(reinterpret_cast<char const*>(bytes.Data()), bytes.Length());
}

struct Vector {
    char const* _number;
    char const* _wire;
};

std::ostream& operator<<(std::ostream& out, Vector const& vector) { return out << vector._number; }

/// The examples of RFC 4251 section 5, and numbers around a sign byte.
constexpr Vector MPINTS[] = {
    {"0", "00000000"},
    {"9A378F9B2E332A7", "0000000809a378f9b2e332a7"},
    {"80", "000000020080"},
    {"-1234", "00000002edcc"},
    {"-DEADBEEF", "00000005ff21524111"},
    {"1", "0000000101"},
    {"7F", "000000017f"},
    {"FF", "0000000200ff"},
    {"0100", "000000020100"},
    {"-1", "00000001ff"},
    {"-80", "0000000180"},
    {"-81", "00000002ff7f"},
    {"-0100", "00000002ff00"},
    {"-8000", "000000028000"},
};

class Mpint : public testing::TestWithParam<Vector> {};

TEST_P(Mpint, IsWrittenAsInRfc4251) {
    std::ostringstream out;
    BigNum const number = Number(GetParam()._number);
    int const written = BigNum::Write2(out, number._bn);
    EXPECT_EQ(ToHex(out.str()), GetParam()._wire);
    EXPECT_EQ(static_cast<std::size_t>(written), out.str().size());
}

TEST_P(Mpint, IsReadAsInRfc4251) {
    std::istringstream in(Bytes(GetParam()._wire) + "rest");
    BigNum number = Number("1234");
    BigNum::Read2(in, number._bn);
    BigNum const expected = Number(GetParam()._number);
    EXPECT_EQ(BN_cmp(number._bn, expected._bn), 0) << Hex(number);
    EXPECT_EQ(in.tellg(), static_cast<std::streamoff>(Bytes(GetParam()._wire).size()));
}

INSTANTIATE_TEST_SUITE_P(BigNum, Mpint, testing::ValuesIn(MPINTS));

TEST(BigNum, NullIsWrittenAsZero) {
    std::ostringstream out;
    EXPECT_EQ(BigNum::Write2(out, nullptr), 4);
    EXPECT_EQ(ToHex(out.str()), "00000000");
}

TEST(BigNum, SuperfluousLeadingBytesAreIgnored) {
    std::istringstream in(Bytes("00000003000005"));
    BigNum number;
    BigNum::Read2(in, number._bn);
    EXPECT_EQ(Hex(number), "05");
}

TEST(BigNum, PrematureEndIsRefused) {
    for (char const* wire : {"", "000000", "00000001", "0000000201", "ffffffff0102"}) {
        std::istringstream in(Bytes(wire));
        BigNum number;
        EXPECT_THROW(BigNum::Read2(in, number._bn), BadInput) << wire;
    }
}

TEST(BigNum, LongNumberOfManyPiecesIsReadWhole) {
    std::string const body = "\x01" + std::string(9999, '\x5a');
    std::istringstream in(Bytes("00002710") + body);
    BigNum number;
    BigNum::Read2(in, number._bn);
    EXPECT_EQ(BN_num_bits(number._bn), 9999 * 8 + 1);
}

TEST(BigNum, ReadingIntoNullIsRefused) {
    std::istringstream in(Bytes("0000000101"));
    EXPECT_THROW(BigNum::Read2(in, nullptr), InvalidArgument);
    EXPECT_THROW(BigNum::Read(in, nullptr), InvalidArgument);
}

TEST(BigNum, OlderFormCountsBits) {
    Vector const vectors[] = {{"0", "0000"}, {"1", "000101"}, {"FF", "0008ff"}, {"0100", "00090100"}};
    for (Vector const& vector : vectors) {
        std::ostringstream out;
        BigNum const number = Number(vector._number);
        int const written = BigNum::Write(out, number._bn);
        EXPECT_EQ(static_cast<std::size_t>(written), out.str().size());
        EXPECT_EQ(ToHex(out.str()), vector._wire);
        std::istringstream in(out.str());
        BigNum read = Number("77");
        BigNum::Read(in, read._bn);
        EXPECT_EQ(BN_cmp(read._bn, number._bn), 0);
    }
}

TEST(BigNum, OlderFormEndsAt65535Bits) {
    BigNum number;
    std::ostringstream out;
    BN_set_bit(number._bn, 65534);
    EXPECT_EQ(BigNum::Write(out, number._bn), 2 + 8192);
    BN_set_bit(number._bn, 65535);
    EXPECT_THROW(BigNum::Write(out, number._bn), InvalidArgument);
}

TEST(BigNum, OlderFormRefusesPrematureEnd) {
    for (char const* wire : {"", "00", "0009ff"}) {
        std::istringstream in(Bytes(wire));
        BigNum number;
        EXPECT_THROW(BigNum::Read(in, number._bn), BadInput) << wire;
    }
}

TEST(BigNum, DefaultIsAnAllocatedZero) {
    BigNum const number;
    ASSERT_NE(number._bn, nullptr);
    EXPECT_TRUE(BN_is_zero(number._bn));
}

TEST(BigNum, NumberIsItsFirstMember) { EXPECT_EQ(offsetof(BigNum, _bn), 0u); }

TEST(BigNum, BytesAreBigEndianAndNotNegative) {
    unsigned char const bytes[] = {0x80, 0x00, 0x01};
    EXPECT_EQ(Hex(BigNum(bytes, 3)), "800001");
    EXPECT_EQ(Hex(BigNum(nullptr, 0)), "0");
}

TEST(BigNum, CopiesAreIndependent) {
    BigNum const first = Number("1234");
    BigNum second(first);
    BigNum third;
    third = first;
    BN_add_word(second._bn, 1);
    BN_add_word(third._bn, 2);
    EXPECT_EQ(Hex(first), "1234");
    EXPECT_EQ(Hex(second), "1235");
    EXPECT_EQ(Hex(third), "1236");
    EXPECT_EQ(Hex(BigNum(static_cast<bignum_st const*>(first._bn))), "1234");
}

TEST(BigNum, SelfAssignmentKeepsTheNumber) {
    BigNum number = Number("1234");
    BigNum const& same = number;
    number = same;
    EXPECT_EQ(Hex(number), "1234");
}

TEST(BigNum, ReleasedNumberIsStillAValue) {
    BigNum number = Number("1234");
    BigNum const moved(std::move(number));
    EXPECT_EQ(Hex(moved), "1234");
    EXPECT_EQ(number._bn, nullptr);
    BigNum const copy(number);
    EXPECT_EQ(copy._bn, nullptr);
    number = moved;
    EXPECT_EQ(Hex(number), "1234");
}

} // namespace
