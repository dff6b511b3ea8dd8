#include <brantle/thornel/byte_string.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "support/text.h"

using support::Bytes;
using support::Text;

namespace {

TEST(ByteString, DefaultHasNullDataAndLengthZero) {
    ByteString const bytes;
    ASSERT_NE(bytes._rep, nullptr);
    EXPECT_EQ(bytes._rep->_data, nullptr);
    EXPECT_EQ(bytes._rep->_count, 1);
    EXPECT_EQ(bytes.Data(), nullptr);
    EXPECT_EQ(bytes.Length(), 0u);
}

TEST(ByteString, RepHoldsDataThenLengthThenCount) {
    EXPECT_EQ(offsetof(ByteString::Srep, _data), 0u);
    EXPECT_EQ(offsetof(ByteString::Srep, _length), sizeof(unsigned char*));
    EXPECT_EQ(offsetof(ByteString::Srep, _count), sizeof(unsigned char*) + sizeof(unsigned int));
    EXPECT_EQ(offsetof(ByteString, _rep), 0u);
}

TEST(ByteString, LengthIsZeroWithNullDataWhateverTheRepSays) {
    ByteString bytes;
    bytes._rep->_length = 7;
    EXPECT_EQ(bytes.Length(), 0u);
    EXPECT_TRUE(bytes == ByteString());
}

TEST(ByteString, SizedValueIsUnsharedAndWritable) {
    ByteString bytes(3u);
    ASSERT_EQ(bytes.Length(), 3u);
    std::memcpy(bytes.Data(), "xyz", 3);
    EXPECT_EQ(Text(bytes), "xyz");
    EXPECT_EQ(bytes._rep->_count, 1);
}

TEST(ByteString, CopiesTheBytesGiven) {
    char source[] = {'a', '\0', 'c'};
    ByteString const bytes(source, 3);
    source[0] = 'X';
    EXPECT_EQ(Text(bytes), std::string("a\0c", 3));
}

TEST(ByteString, NullDataGivesNoBytes) {
    EXPECT_EQ(ByteString(nullptr, 0).Length(), 0u);
    EXPECT_EQ(ByteString(nullptr, 5).Length(), 0u);
}

TEST(ByteString, CopyAndAssignmentShareTheRep) {
    ByteString bytes = Bytes("shared");
    ByteString target = Bytes("old");
    {
        ByteString const copy(bytes);
        target = bytes;
        EXPECT_EQ(copy._rep, bytes._rep);
        EXPECT_EQ(target._rep, bytes._rep);
        EXPECT_EQ(bytes._rep->_count, 3);
    }
    EXPECT_EQ(bytes._rep->_count, 2);
}

TEST(ByteString, SelfAssignmentKeepsTheBytes) {
    ByteString bytes = Bytes("self");
    ByteString const& same = bytes;
    bytes = same;
    EXPECT_EQ(Text(bytes), "self");
    EXPECT_EQ(bytes._rep->_count, 1);
}

TEST(ByteString, SubStrClampsALengthAfterTheEnd) {
    ByteString const bytes = Bytes("abcde");
    EXPECT_EQ(Text(bytes.SubStr(3, 4294967295u)), "de");
    EXPECT_EQ(Text(bytes.SubStr(1, 3)), "bcd");
    EXPECT_EQ(Text(bytes.SubStr(4, 1)), "e");
    EXPECT_EQ(bytes.SubStr(5, 1).Length(), 0u);
    EXPECT_EQ(bytes.SubStr(4294967295u, 4294967295u).Length(), 0u);
    EXPECT_EQ(bytes.SubStr(0, 0).Length(), 0u);
    EXPECT_EQ(ByteString().SubStr(0, 1).Length(), 0u);
}

TEST(ByteString, ReserveSetsTheLengthAndKeepsWhatFits) {
    ByteString bytes = Bytes("abc");
    bytes.Reserve(5);
    EXPECT_EQ(bytes.Length(), 5u);
    EXPECT_EQ(Text(bytes).substr(0, 3), "abc");
    bytes.Reserve(2);
    EXPECT_EQ(Text(bytes), "ab");
    bytes.Reserve(0);
    EXPECT_EQ(bytes.Length(), 0u);
}

TEST(ByteString, ReserveDoesNotAffectCopies) {
    ByteString bytes = Bytes("abc");
    ByteString const copy(bytes);
    bytes.Reserve(2);
    bytes.Data()[0] = 'X';
    EXPECT_EQ(Text(bytes), "Xb");
    EXPECT_EQ(Text(copy), "abc");
    EXPECT_EQ(copy._rep->_count, 1);
}

TEST(ByteString, ReserveOnADefaultValue) {
    ByteString bytes;
    bytes.Reserve(2);
    ASSERT_NE(bytes.Data(), nullptr);
    std::memcpy(bytes.Data(), "ab", 2);
    EXPECT_EQ(Text(bytes), "ab");
}

TEST(ByteString, AppendGrowsAndDoesNotAffectCopies) {
    ByteString bytes = Bytes("ab");
    ByteString const copy(bytes);
    bytes.Append("cd", 2);
    EXPECT_EQ(Text(bytes), "abcd");
    EXPECT_EQ(Text(copy), "ab");
}

TEST(ByteString, AppendToADefaultValueAndOfNothing) {
    ByteString bytes;
    bytes.Append(nullptr, 0);
    bytes.Append("x", 0);
    EXPECT_EQ(bytes.Data(), nullptr);
    bytes.Append("x", 1);
    EXPECT_EQ(Text(bytes), "x");
}

TEST(ByteString, AppendOfItsOwnBytes) {
    ByteString bytes = Bytes("abc");
    bytes.Append(bytes.Data() + 1, 2);
    EXPECT_EQ(Text(bytes), "abcbc");
}

TEST(ByteString, LengthBeyond32BitsIsRefused) {
    ByteString bytes = Bytes("abc");
    bytes._rep->_length = 4294967295u;
    EXPECT_THROW(bytes.Append("x", 1), std::bad_alloc);
    bytes._rep->_length = 3;
    EXPECT_EQ(Text(bytes), "abc");
}

TEST(ByteString, EqualityIsOfLengthAndBytes) {
    EXPECT_TRUE(Bytes("abc") == Bytes("abc"));
    EXPECT_FALSE(Bytes("abc") == Bytes("abd"));
    EXPECT_TRUE(Bytes("abc") != Bytes("ab"));
    EXPECT_TRUE(ByteString() == Bytes(""));
    EXPECT_TRUE(ByteString() != Bytes("a"));
}

} // namespace
