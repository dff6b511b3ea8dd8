#include <brantle/cindral/sbuf_adapter.h>

#include <istream>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/hex_buffer.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/thornel/string_t.h>

using namespace cindral;

namespace {

/// An end layer that takes and gives a few bytes at a time and then fails.
class Limited : public CascadableStreamBuf {
public:
    explicit Limited(int bytes) : _bytes(bytes) {}
    int putchr(char) override { return _bytes-- > 0 ? 0 : -1; }
    int getchr(char& byte) override {
        byte = 'g';
        return _bytes-- > 0 ? 1 : -1;
    }
    int put(char const* begin, char const* end) override { return Part(end - begin); }
    int get(char* begin, char* end) override {
        int count = Part(end - begin);
        for (int i = 0; i < count; ++i) begin[i] = 'g';
        return count;
    }

private:
    int Part(std::ptrdiff_t wanted) {
        if (_bytes < 1) return -1;
        int count = static_cast<int>(wanted < 2 ? wanted : 2);
        if (count > _bytes) count = _bytes;
        _bytes -= count;
        return count;
    }
    int _bytes;
};

std::string Content(OStringBuffer const& buffer) { return std::string(buffer.Str(), buffer.Len()); }

TEST(SBufAdapter, OutputReachesTheLayerImmediately) {
    OStringBuffer memory;
    SBufAdapter adapter(memory);
    std::ostream out(&adapter);
    out.put('a');
    EXPECT_EQ(Content(memory), "a");
    out << "bc" << 12 << '\xff';
    EXPECT_EQ(Content(memory), "abc12\xff");
    out.flush();
    EXPECT_TRUE(out.good());
}

TEST(SBufAdapter, PeekDoesNotConsume) {
    IStringBuffer memory("abcdef");
    SBufAdapter adapter(memory);
    std::istream in(&adapter);
    char bytes[8];
    EXPECT_EQ(in.peek(), 'a');
    EXPECT_EQ(in.peek(), 'a');
    EXPECT_EQ(in.get(), 'a');
    EXPECT_EQ(in.get(), 'b');
    EXPECT_EQ(in.peek(), 'c');
    in.read(bytes, 3);
    EXPECT_EQ(std::string(bytes, 3), "cde");
    EXPECT_EQ(in.get(), 'f');
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_TRUE(in.eof() && in.fail());
}

TEST(SBufAdapter, PeekAtTheEndSetsOnlyEofbit) {
    IStringBuffer memory("");
    SBufAdapter adapter(memory);
    std::istream in(&adapter);
    EXPECT_EQ(in.peek(), std::char_traits<char>::eof());
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.fail());
}

TEST(SBufAdapter, Byte255IsNotTheEnd) {
    IStringBuffer memory("\xff\xff\xff", 3);
    SBufAdapter adapter(memory);
    std::istream in(&adapter);
    EXPECT_EQ(in.peek(), 0xff);
    EXPECT_EQ(in.get(), 0xff);
    EXPECT_EQ(in.get(), 0xff);
    in.ignore();
    EXPECT_TRUE(in.good());
}

TEST(SBufAdapter, LinesAndWordsAreRead) {
    IStringBuffer memory("one two\nthree\n");
    SBufAdapter adapter(memory);
    std::istream in(&adapter);
    std::string word;
    in >> word;
    EXPECT_EQ(word, "one");
    String_t line;
    EXPECT_TRUE(String_t::Getline(in, line, "\n"));
    EXPECT_STREQ(line.Text(), " two");
    std::getline(in, word);
    EXPECT_EQ(word, "three");
    EXPECT_FALSE(std::getline(in, word));
}

TEST(SBufAdapter, ReadPastTheEndCountsTheBytesRead) {
    IStringBuffer memory("abc");
    SBufAdapter adapter(memory);
    std::istream in(&adapter);
    char bytes[8];
    in.read(bytes, 8);
    EXPECT_EQ(in.gcount(), 3);
    EXPECT_TRUE(in.eof());
}

TEST(SBufAdapter, RangesMayBeMovedInSeveralParts) {
    Limited layer(7);
    SBufAdapter adapter(layer);
    EXPECT_EQ(adapter.sputn("abcde", 5), 5);
    EXPECT_EQ(adapter.sputn("abcde", 5), 2);
    Limited source(7);
    SBufAdapter reader(source);
    char bytes[8];
    EXPECT_EQ(reader.sgetn(bytes, 5), 5);
    EXPECT_EQ(reader.sgetn(bytes, 5), 2);
}

TEST(SBufAdapter, FailureOfTheLayerSetsTheStreamState) {
    Limited layer(1);
    SBufAdapter adapter(layer);
    std::ostream out(&adapter);
    out.put('a');
    EXPECT_TRUE(out.good());
    out.put('b');
    EXPECT_TRUE(out.bad());
    std::istream in(&adapter);
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
}

TEST(SBufAdapter, FlushOfTheStreamFlushesTheLayer) {
    OStringBuffer memory;
    OHexBuffer hex(&memory, 72, ' ', 0);
    SBufAdapter adapter(hex);
    std::ostream out(&adapter);
    out << "AB";
    EXPECT_EQ(memory.Len(), 0u);
    out.flush();
    EXPECT_EQ(Content(memory), "4142");
}

} // namespace
