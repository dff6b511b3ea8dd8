#include <brantle/cindral/bin_buffer.h>

#include <cstring>
#include <functional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/string_buffer.h>

using namespace cindral;

namespace {

unsigned char const* Octets(char const* text) { return reinterpret_cast<unsigned char const*>(text); }

/// A stream buffer that takes a few bytes and no more.
class Narrow : public std::streambuf {
public:
    explicit Narrow(int room) : _room(room) {}
    int_type overflow(int_type byte) override { return _room-- > 0 ? byte : traits_type::eof(); }

private:
    int _room;
};

TEST(BinBuffer, WritersPutTheMostSignificantByteFirst) {
    std::ostringstream out;
    EXPECT_EQ(BinBuffer::WriteByte(out, 0xff), 1u);
    EXPECT_EQ(BinBuffer::WriteShort(out, 0x8001), 2u);
    EXPECT_EQ(BinBuffer::WriteInt(out, 0x80000001u), 4u);
    EXPECT_EQ(BinBuffer::WriteLong(out, 0x8000000000000001ull), 8u);
    EXPECT_EQ(out.str(), std::string("\xff"
                                     "\x80\x01"
                                     "\x80\0\0\x01"
                                     "\x80\0\0\0\0\0\0\x01",
                                     15));
    EXPECT_TRUE(out.good());
}

TEST(BinBuffer, StringsAreWrittenWithoutAndByteStringsWithTheirLength) {
    std::ostringstream out;
    EXPECT_EQ(BinBuffer::WriteString(out, Octets("a\0b"), 3), 3u);
    EXPECT_EQ(BinBuffer::WriteByteString(out, ByteString("c\0d", 3)), 7u);
    EXPECT_EQ(BinBuffer::WriteCharString(out, "ef"), 6u);
    EXPECT_EQ(out.str(), std::string("a\0b\0\0\0\3c\0d\0\0\0\2ef", 16));
}

TEST(BinBuffer, EmptyAndNullTextsHaveLengthZero) {
    std::ostringstream out;
    EXPECT_EQ(BinBuffer::WriteString(out, nullptr, 0), 0u);
    EXPECT_EQ(BinBuffer::WriteByteString(out, ByteString()), 4u);
    EXPECT_EQ(BinBuffer::WriteCharString(out, nullptr), 4u);
    EXPECT_EQ(BinBuffer::WriteCharString(out, ""), 4u);
    EXPECT_EQ(out.str(), std::string(12, '\0'));
    EXPECT_TRUE(out.good());
}

TEST(BinBuffer, WritersReportAFullSink) {
    Narrow sink(3);
    std::ostream out(&sink);
    EXPECT_EQ(BinBuffer::WriteInt(out, 1), 3u);
    EXPECT_TRUE(out.bad());
    out.clear();
    EXPECT_EQ(BinBuffer::WriteByte(out, 1), 0u);
    EXPECT_TRUE(out.bad());
}

TEST(BinBuffer, Byte255IsNotAFailure) {
    Narrow sink(1);
    std::ostream out(&sink);
    EXPECT_EQ(BinBuffer::WriteByte(out, 0xff), 1u);
    EXPECT_TRUE(out.good());
}

TEST(BinBuffer, ReadersReadWhatWritersWrote) {
    std::istringstream in(std::string("\xff\x80\x01\x80\0\0\x01\x80\0\0\0\0\0\0\x01"
                                      "a\0b!",
                                      19));
    EXPECT_EQ(BinBuffer::ReadByte(in), 0xff);
    EXPECT_EQ(BinBuffer::ReadShort(in), 0x8001);
    EXPECT_EQ(BinBuffer::ReadInt(in), 0x80000001u);
    EXPECT_EQ(BinBuffer::ReadLong(in), 0x8000000000000001ull);
    unsigned char bytes[4] = {9, 9, 9, 9};
    EXPECT_EQ(BinBuffer::ReadString(in, bytes, 3), 3u);
    EXPECT_EQ(std::memcmp(bytes, "a\0b\x09", 4), 0);
    EXPECT_EQ(BinBuffer::ReadString(in, nullptr, 0), 0u);
    EXPECT_EQ(BinBuffer::ReadByte(in), '!');
    EXPECT_TRUE(in.good());
}

TEST(BinBuffer, PrematureEndThrowsAndLeavesStreamState) {
    unsigned char bytes[8];
    struct {
        std::size_t _needs;
        std::function<void(std::istream&)> _read;
    } const readers[] = {
        {1, [](std::istream& in) { BinBuffer::ReadByte(in); }},
        {2, [](std::istream& in) { BinBuffer::ReadShort(in); }},
        {4, [](std::istream& in) { BinBuffer::ReadInt(in); }},
        {8, [](std::istream& in) { BinBuffer::ReadLong(in); }},
        {5, [&bytes](std::istream& in) { BinBuffer::ReadString(in, bytes, 5); }},
    };
    for (auto const& reader : readers) {
        std::string const enough(reader._needs, 'x');
        std::istringstream whole(enough);
        EXPECT_NO_THROW(reader._read(whole));
        EXPECT_TRUE(whole.good());
        for (std::size_t size = 0; size < reader._needs; ++size) {
            std::istringstream cut(enough.substr(0, size));
            EXPECT_THROW(reader._read(cut), BadInput);
            EXPECT_TRUE(cut.eof() && cut.fail());
        }
    }
}

TEST(BinBuffer, NothingIsReadAfterTheEndOfTheMemory) {
    char const memory[] = "abcdef";
    IStringBuffer source(memory, 3);
    SBufAdapter adapter(source);
    std::istream in(&adapter);
    EXPECT_THROW(BinBuffer::ReadInt(in), BadInput);
    source.Assign(memory + 2, 2);
    in.clear();
    unsigned char bytes[4] = {};
    EXPECT_THROW(BinBuffer::ReadString(in, bytes, 4), BadInput);
    EXPECT_EQ(std::memcmp(bytes, "cd\0\0", 4), 0);
}

} // namespace
