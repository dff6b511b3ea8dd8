#include <brantle/cindral/hex_buffer.h>

#include <cerrno>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/string_buffer.h>

using namespace cindral;

namespace {

std::string Hex(std::string const& bytes, unsigned int lineLength, char separator, unsigned int column = 0) {
    OStringBuffer memory(128);
    OHexBuffer hex(&memory, lineLength, separator, column);
    EXPECT_EQ(hex.put(bytes.data(), bytes.data() + bytes.size()), static_cast<int>(bytes.size()));
    EXPECT_EQ(hex.Flush(), 0);
    return std::string(memory.Str(), memory.Len());
}

/// Decodes what there is of a text; `result` is what ended it.
std::string Bytes(std::string const& text, int& result) {
    IStringBuffer memory(text.data(), static_cast<unsigned int>(text.size()));
    IHexBuffer hex(&memory);
    std::string bytes;
    char piece[100];
    while ((result = hex.get(piece, piece + sizeof(piece))) > 0) bytes.append(piece, piece + result);
    EXPECT_EQ(hex.get(piece, piece + 1), result); // and so it stays
    return bytes;
}

TEST(OHexBuffer, SixteenBytesAreThirtyTwoDigits) {
    EXPECT_EQ(
        Hex(std::string("\x00\x01\x23\x45\x67\x89\xab\xcd\xef\xff\x80\x7f\x0a\x0d\x20\x41", 16), 72, ' '),
        "00012345"
        "6789abcd"
        "efff807f"
        "0a0d2041");
}

TEST(OHexBuffer, CookieTextThroughAStandardStream) {
    OStringBuffer memory(128);
    {
        OHexBuffer hex(&memory, 72, ' ', 0);
        SBufAdapter adapter(hex);
        std::ostream out(&adapter);
        BinBuffer::WriteString(out, reinterpret_cast<unsigned char const*>("\xde\xad\xbe\xef"), 4);
    }
    EXPECT_EQ(std::string(memory.Str(), memory.Len()), "deadbeef");
}

TEST(OHexBuffer, SeparatorIsWrittenOnlyBetweenLines) {
    EXPECT_EQ(Hex(std::string(36, 'A'), 72, ' ').size(), 72u);
    std::string line;
    for (int i = 0; i < 36; ++i) line += "41";
    EXPECT_EQ(Hex(std::string(37, 'A'), 72, ' '), line + " 41");
    EXPECT_EQ(Hex(std::string(72, 'A'), 72, '\n'), line + "\n" + line);
    EXPECT_EQ(Hex(std::string(73, 'A'), 72, '\n'), line + "\n" + line + "\n41");
}

TEST(OHexBuffer, ColumnShortensTheFirstLine) {
    EXPECT_EQ(Hex("AAA", 4, '|', 2), "41|4141");
    EXPECT_EQ(Hex("AAA", 4, '|', 4), "|4141|41");
}

TEST(OHexBuffer, PairsAreNotSplitAndWidthZeroIsOneLine) {
    EXPECT_EQ(Hex("AAA", 3, '|'), "41|41|41");
    EXPECT_EQ(Hex("AAA", 1, '|'), "41|41|41");
    EXPECT_EQ(Hex(std::string(100, 'A'), 0, '|').find('|'), std::string::npos);
}

TEST(OHexBuffer, LinesContinueAcrossFlushes) {
    OStringBuffer memory;
    OHexBuffer hex(&memory, 4, '|', 0);
    for (int i = 0; i < 3; ++i) {
        hex.putchr('A');
        EXPECT_EQ(hex.Flush(), 0);
    }
    EXPECT_EQ(hex.Flush(), 0);
    EXPECT_EQ(std::string(memory.Str(), memory.Len()), "4141|41");
}

TEST(OHexBuffer, LongDataPassesThroughTheBuffer) {
    std::string bytes;
    for (int i = 0; i < 1000; ++i) bytes += static_cast<char>(i);
    int result = 1;
    EXPECT_EQ(Bytes(Hex(bytes, 72, '\n'), result), bytes);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Bytes(Hex(bytes, 1, ' '), result), bytes);
}

TEST(IHexBuffer, ReadsDigitsOfEitherCase) {
    int result = 1;
    EXPECT_EQ(Bytes("00ffABcd", result), std::string("\0\xff\xab\xcd", 4));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Bytes("", result), "");
    EXPECT_EQ(result, 0);
}

TEST(IHexBuffer, SkipsWhiteSpaceBetweenPairs) {
    int result = 1;
    EXPECT_EQ(Bytes(" \t41 42\r\n43\v\f44 \n", result), "ABCD");
    EXPECT_EQ(result, 0);
}

TEST(IHexBuffer, TextThatIsNotHexadecimalFails) {
    for (char const* text : {"g0", "0g", "4g", "x", "4 1", "4", "/0", ":0", "@0", "`0", "G0"}) {
        int result = 1;
        errno = 0;
        EXPECT_EQ(Bytes(text, result), "") << text;
        EXPECT_LT(result, 0) << text;
        EXPECT_EQ(errno, EINVAL) << text;
    }
}

TEST(IHexBuffer, FailureIsReturnedAfterTheBytesReceived) {
    int result = 1;
    EXPECT_EQ(Bytes("4142zz43", result), "AB");
    EXPECT_LT(result, 0);
    EXPECT_EQ(Bytes("414", result), "A");
    EXPECT_LT(result, 0);
}

TEST(IHexBuffer, CanFeedABinaryReader) {
    IStringBuffer memory("00112233445566778899aabbccddeeff");
    IHexBuffer hex(&memory);
    SBufAdapter adapter(hex);
    std::istream in(&adapter);
    unsigned char cookie[16];
    EXPECT_EQ(BinBuffer::ReadString(in, cookie, 16), 16u);
    EXPECT_EQ(cookie[0], 0x00);
    EXPECT_EQ(cookie[15], 0xff);
    EXPECT_THROW(BinBuffer::ReadByte(in), BadInput);
}

} // namespace
