#include <brantle/cindral/string_buffer.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <brantle/thornel/byte_string.h>

using namespace cindral;

namespace {

std::string Content(OStringBuffer const& buffer) { return std::string(buffer.Str(), buffer.Len()); }

int Put(CascadableStreamBuf& buffer, std::string const& text) {
    return buffer.put(text.data(), text.data() + text.size());
}

TEST(OStringBuffer, EmptyBufferHasAPointerAndLengthZero) {
    OStringBuffer none;
    OStringBuffer zero(0);
    OStringBuffer roomy(100);
    for (OStringBuffer* buffer : {&none, &zero, &roomy}) {
        EXPECT_NE(buffer->Str(), nullptr);
        EXPECT_EQ(buffer->Len(), 0u);
        ByteString bytes(buffer->Str(), 0);
        EXPECT_EQ(bytes.Length(), 0u);
    }
}

TEST(OStringBuffer, KeepsEveryByteWritten) {
    OStringBuffer buffer(2);
    EXPECT_EQ(buffer.putchr('a'), 0);
    EXPECT_EQ(buffer.putchr('\0'), 0);
    EXPECT_EQ(buffer.putchr('\xff'), 0);
    EXPECT_EQ(Put(buffer, "text"), 4);
    EXPECT_EQ(Put(buffer, ""), 0);
    EXPECT_EQ(Content(buffer), std::string("a\0\xfftext", 7));
}

TEST(OStringBuffer, GrowsPastItsCapacity) {
    for (unsigned int capacity : {0u, 1u, 256u, 70000u}) {
        OStringBuffer buffer(capacity);
        std::string expected;
        for (int i = 0; i < 3000; ++i) {
            std::string piece(static_cast<std::size_t>(i % 50), static_cast<char>(i));
            Put(buffer, piece);
            expected += piece;
        }
        EXPECT_TRUE(Content(buffer) == expected) << capacity;
    }
}

TEST(OStringBuffer, StaysInPlaceWithinItsCapacity) {
    OStringBuffer buffer(1000);
    Put(buffer, "x");
    char const* before = buffer.Str();
    Put(buffer, std::string(999, 'y'));
    EXPECT_EQ(buffer.Str(), before);
    EXPECT_EQ(buffer.Len(), 1000u);
}

TEST(OStringBuffer, FinalizeDoesNothing) {
    OStringBuffer buffer;
    EXPECT_EQ(buffer.Finalize(), 0);
}

TEST(IStringBuffer, ReadsATextUpToItsTerminator) {
    IStringBuffer buffer("abc");
    char bytes[8];
    EXPECT_EQ(buffer.get(bytes, bytes + 8), 3);
    EXPECT_EQ(std::string(bytes, 3), "abc");
    EXPECT_EQ(buffer.get(bytes, bytes + 8), 0);
    EXPECT_EQ(buffer.getchr(bytes[0]), 0);
}

TEST(IStringBuffer, ReadsZerosOfACountedText) {
    IStringBuffer buffer("a\0b", 3);
    char byte = 'x';
    EXPECT_EQ(buffer.getchr(byte), 1);
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(buffer.getchr(byte), 1);
    EXPECT_EQ(byte, '\0');
    char bytes[8];
    EXPECT_EQ(buffer.get(bytes, bytes + 8), 1);
    EXPECT_EQ(bytes[0], 'b');
}

TEST(IStringBuffer, DoesNotCopy) {
    char text[] = "abc";
    IStringBuffer buffer(text, 3);
    text[0] = 'z';
    char byte;
    EXPECT_EQ(buffer.getchr(byte), 1);
    EXPECT_EQ(byte, 'z');
}

TEST(IStringBuffer, AssignRestarts) {
    IStringBuffer buffer("abc");
    char byte;
    buffer.getchr(byte);
    buffer.Assign("xy", 2);
    char bytes[8];
    EXPECT_EQ(buffer.get(bytes, bytes + 8), 2);
    EXPECT_EQ(std::string(bytes, 2), "xy");
}

TEST(IStringBuffer, NullIsEmpty) {
    IStringBuffer text(nullptr);
    IStringBuffer counted(nullptr, 5);
    char bytes[8];
    EXPECT_EQ(text.get(bytes, bytes + 8), 0);
    EXPECT_EQ(counted.get(bytes, bytes + 8), 0);
    EXPECT_EQ(counted.getchr(bytes[0]), 0);
}

TEST(OStringBuffer, ReleaseReturnsTheBytesWithoutACopy) {
    OStringBuffer buffer(8);
    std::string const text = "abc";
    buffer.put(text.data(), text.data() + 3);
    char const* const bytes = buffer.Str();
    ByteString const released = buffer.Release();
    EXPECT_EQ(reinterpret_cast<char const*>(released.Data()), bytes);
    EXPECT_TRUE(released == ByteString("abc", 3));
    EXPECT_EQ(buffer.Len(), 0u);
    buffer.putchr('d');
    EXPECT_TRUE(buffer.Release() == ByteString("d", 1));
    EXPECT_EQ(buffer.Release().Length(), 0u);
}

TEST(IStringBuffer, SkipReturnsTheSkippedBytes) {
    char const text[] = "abcdef";
    IStringBuffer buffer(text, 6);
    unsigned int size = 4;
    EXPECT_EQ(buffer.Skip(size), text);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(buffer.Skip(size), text + 4);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(buffer.Skip(size), text + 6);
    EXPECT_EQ(size, 0u);
    IStringBuffer nothing(nullptr);
    size = 1;
    EXPECT_EQ(nothing.Skip(size), nullptr);
    EXPECT_EQ(size, 0u);
}

} // namespace
