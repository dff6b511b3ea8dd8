#include <brantle/cindral/sock_stream_adapter.h>

#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/socket_buffer.h>
#include <brantle/cindral/string_buffer.h>

#include "support/descriptors.h"
#include "support/overriding_streams.h"

using namespace cindral;
using support::DescriptorPair;

namespace {

std::string Content(OStringBuffer const& buffer) { return std::string(buffer.Str(), buffer.Len()); }

/// A layer over another that returns no more than it has been allowed, like one that frames packets.
class Fence : public CascadableIStreamBuffer {
public:
    explicit Fence(CascadableIStreamBuf* next) : CascadableIStreamBuffer(next, 4) {}
    int Fill() override {
        if (_allowed == 0) return 0;
        int count = _next->get(_start, _start + (_allowed < 4 ? _allowed : 4));
        if (count < 1) return count;
        _allowed -= count;
        _pos = _start;
        _end = _start + count;
        return count;
    }
    int _allowed = 0;
};

/// A sink that refuses, or accepts less than it is given.
class Grudging : public CascadableOStreamBuf {
public:
    int put(char const* begin, char const* end) override {
        if (_failing) return -6;
        int count = end - begin > 3 ? 3 : static_cast<int>(end - begin);
        _text.append(begin, begin + count);
        return count;
    }
    std::string _text;
    bool _failing = false;
};

TEST(ISockStreamAdapter, TypedValuesAreReadFromTheLayer) {
    IStringBuffer memory("\0\0\0\7\0\0\0\2ok!", 11);
    ISockStreamAdapter in(memory);
    unsigned int number = 0;
    ByteString bytes;
    unsigned char last = 0;
    in >> number >> bytes >> last;
    EXPECT_EQ(number, 7u);
    EXPECT_TRUE(bytes == ByteString("ok", 2));
    EXPECT_EQ(last, '!');
    EXPECT_EQ(in.Status(), 0u);
    in >> number;
    EXPECT_EQ(number, 7u);
    EXPECT_EQ(in.Status(), SockStream::END_OF_INPUT);
}

TEST(ISockStreamAdapter, FillReturnsTheResultOfTheLayer) {
    IStringBuffer memory("abc");
    ISockStreamAdapter in(memory);
    EXPECT_EQ(in.Fill(), 3);
    EXPECT_EQ(std::string(in._pos, in._end), "abc");
    EXPECT_EQ(in.Fill(), 0);
    EXPECT_EQ(in._pos, in._end);
    OStringBuffer wrong;
    ISockStreamAdapter failing(wrong);
    EXPECT_EQ(failing.Fill(), -1);
    char byte;
    EXPECT_EQ(failing.Get(byte), -1);
}

TEST(ISockStreamAdapter, LargeRangesGoPastTheBuffer) {
    std::string const text = "head" + std::string(3 * ISockStream::BUFFER_SIZE, 'b') + "tail";
    IStringBuffer memory(text.data(), static_cast<unsigned int>(text.size()));
    Fence fence(&memory);
    ISockStreamAdapter in(fence);
    fence._allowed = static_cast<int>(text.size()) - 4;
    std::string read(4 + 3 * ISockStream::BUFFER_SIZE, '-');
    in.Read(read.data(), 4);
    in.Read(read.data() + 4, 3 * ISockStream::BUFFER_SIZE);
    EXPECT_EQ(in.Gcount(), static_cast<int>(3 * ISockStream::BUFFER_SIZE));
    EXPECT_EQ(in.Status(), 0u);
    EXPECT_EQ(read, text.substr(0, text.size() - 4));
    std::string rest(ISockStream::BUFFER_SIZE, '-');
    fence._allowed = 2;
    in.Read(rest.data(), ISockStream::BUFFER_SIZE);
    EXPECT_EQ(in.Gcount(), 2);
    EXPECT_EQ(in.Status(), SockStream::END_OF_INPUT);
    EXPECT_EQ(rest.substr(0, 3), "ta-");
}

TEST(ISockStreamAdapter, TiedStreamIsFlushedOnceBeforeTheLayerIsAsked) {
    std::string const text(20000, 'x');
    OStringBuffer sink;
    for (int size : {1, 8192}) {
        IStringBuffer memory(text.data(), static_cast<unsigned int>(text.size()));
        ISockStreamAdapter in(memory);
        support::CountingOutput<OSockStreamAdapter> tied(sink);
        in.Tie(&tied);
        std::string bytes(8192, '-');
        in.Read(bytes.data(), size);
        EXPECT_EQ(tied._flushes, 1) << size;
        in._pos = in._end;
        EXPECT_EQ(in.Fill(), 8192);
        EXPECT_EQ(tied._flushes, 2) << size;
    }
}

TEST(ISockStreamAdapter, LinesAreReadFromTheLayer) {
    IStringBuffer memory("one\ntwo");
    ISockStreamAdapter in(memory);
    String_t line;
    in.Readln(line, "\n");
    EXPECT_STREQ(line.Text(), "one");
    in.Readln(line, "\n");
    EXPECT_STREQ(line.Text(), "two");
    EXPECT_EQ(in.Status(), SockStream::END_OF_INPUT);
}

TEST(ISockStreamAdapter, EndOfInputIsNotFinal) {
    IStringBuffer memory("\0\0\0\1ab\0\0\0\2cd", 12);
    Fence fence(&memory);
    ISockStreamAdapter in(fence);
    unsigned int number = 0;
    fence._allowed = 6;
    char bytes[8];
    in >> number;
    EXPECT_EQ(number, 1u);
    in.Read(bytes, 4);
    EXPECT_EQ(in.Gcount(), 2);
    EXPECT_EQ(in.Status(), SockStream::END_OF_INPUT);
    fence._allowed = 6;
    in >> number;
    EXPECT_EQ(number, 2u);
    in.Read(bytes, 2);
    EXPECT_EQ(in.Gcount(), 2);
    EXPECT_EQ(std::string(bytes, 2), "cd");
}

TEST(ISockStreamAdapter, NoByteAfterTheFenceIsReadFromTheSocket) {
    DescriptorPair pair = DescriptorPair::Sockets();
    ISocketBuffer socket;
    socket.Bind(pair.Ours());
    Fence fence(&socket);
    ISockStreamAdapter in(fence);
    pair.Send("packetMAC");
    fence._allowed = 6;
    char bytes[8];
    in.Read(bytes, 6);
    EXPECT_EQ(std::string(bytes, 6), "packet");
    EXPECT_EQ(socket.get(bytes, bytes + 3), 3);
    EXPECT_EQ(std::string(bytes, 3), "MAC");
}

TEST(OSockStreamAdapter, TypedValuesReachTheLayerOnFlush) {
    OStringBuffer memory;
    OSockStreamAdapter out(memory);
    out << 7u << ByteString("ok", 2);
    EXPECT_EQ(memory.Len(), 0u);
    EXPECT_EQ(out.Flush(), 10);
    EXPECT_EQ(out.Flush(), 0);
    EXPECT_EQ(Content(memory), std::string("\0\0\0\7\0\0\0\2ok", 10));
}

TEST(OSockStreamAdapter, LongRangesPassThrough) {
    OStringBuffer memory;
    OSockStreamAdapter out(memory);
    std::string const text(100000, 'x');
    out.Write(text.data(), 100000);
    EXPECT_GE(memory.Len(), 100000u - 8192u);
    out.Flush();
    EXPECT_TRUE(Content(memory) == text);
}

TEST(OSockStreamAdapter, WriteCharsRepeatsTheCharacter) {
    OStringBuffer memory;
    OSockStreamAdapter out(memory);
    for (unsigned int count : {0u, 1u, 63u, 64u, 65u, 300u}) {
        unsigned int before = memory.Len();
        EXPECT_EQ(&out.WriteChars('c', count), &out);
        out.Flush();
        EXPECT_EQ(memory.Len() - before, count);
    }
    out.WriteChars('\0', 2);
    out.Flush();
    EXPECT_EQ(Content(memory), std::string(493, 'c') + std::string(2, '\0'));
}

TEST(OSockStreamAdapter, FlushContinuesWhereTheLayerStopped) {
    Grudging layer;
    OSockStreamAdapter out(layer);
    out.Write("abcde", 5);
    EXPECT_EQ(out.Flush(), 3);
    EXPECT_EQ(out.Flush(), 2);
    EXPECT_EQ(layer._text, "abcde");
}

TEST(OSockStreamAdapter, RefusalOfTheLayerKeepsTheBytes) {
    Grudging layer;
    OSockStreamAdapter out(layer);
    out.Write("abc", 3);
    layer._failing = true;
    EXPECT_EQ(out.Flush(), -6);
    EXPECT_EQ(out.Status(), SockStream::FAILED);
    layer._failing = false;
    EXPECT_EQ(out.Flush(), 3);
    EXPECT_EQ(layer._text, "abc");
}

TEST(OSockStreamAdapter, DestructorDropsBufferedBytes) {
    OStringBuffer memory;
    {
        OSockStreamAdapter out(memory);
        out.Write("lost", 4);
    }
    EXPECT_EQ(memory.Len(), 0u);
}

} // namespace
