#include <brantle/thornel/sock_stream.h>

#include <chrono>
#include <climits>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "largest_allocation.h"
#include "support/descriptors.h"
#include "support/holds_buffer.h"
#include "support/overriding_streams.h"
#include "support/text.h"

using support::CallCounter;
using support::DescriptorPair;
using support::FaultyCalls;
using support::Text;

namespace {

std::string Bytes(ByteString const& bytes) {
    return std::string(reinterpret_cast<char const*>(bytes.Data()), bytes.Length());
}

std::string Length(unsigned int length) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(length >> shift & 0xff);
    return bytes;
}

class SockStreams : public testing::Test {
protected:
    SockStreams() : _pair(DescriptorPair::Sockets()), _in(nullptr), _out(_pair.Ours()) {
        _in.Bind(_pair.Ours());
    }

    /// What the peer gets when everything written so far is flushed.
    std::string Flushed() {
        _out.Flush();
        return _pair.Received();
    }
    std::string ReadLine(char const* eol = "\n") {
        String_t line("before");
        _in.Readln(line, eol);
        return Text(line);
    }

    DescriptorPair _pair;
    ISockStream _in;
    OSockStream _out;
};

TEST_F(SockStreams, NumbersAreBigEndian) {
    _out << static_cast<unsigned char>(0x80) << 0x01020304u << -2 << 0x0102030405060708ull << -2ll;
    EXPECT_EQ(Flushed(), std::string("\x80"
                                     "\x01\x02\x03\x04"
                                     "\xff\xff\xff\xfe"
                                     "\x01\x02\x03\x04\x05\x06\x07\x08"
                                     "\xff\xff\xff\xff\xff\xff\xff\xfe",
                                     25));
}

TEST_F(SockStreams, NumbersSurviveARoundTrip) {
    _pair.Send(std::string("\x80\xff\x02\x03\x04\xff\xff\xff\xfe\xff\x02\x03\x04\x05\x06\x07\x08"
                           "\x80\x00\x00\x00\x00\x00\x00\x00",
                           25));
    unsigned char byte = 0;
    unsigned int word = 0;
    int number = 0;
    unsigned long long wide = 0;
    long long wideNumber = 0;
    _in >> byte >> word >> number >> wide >> wideNumber;
    EXPECT_EQ(byte, 0x80);
    EXPECT_EQ(word, 0xff020304u);
    EXPECT_EQ(number, -2);
    EXPECT_EQ(wide, 0xff02030405060708ull);
    EXPECT_EQ(wideNumber, LLONG_MIN);
    EXPECT_EQ(_in.Status(), 0u);
}

TEST_F(SockStreams, ByteStringIsItsLengthAndItsBytes) {
    _out << ByteString("a\0b", 3) << ByteString();
    EXPECT_EQ(Flushed(), std::string("\0\0\0\3a\0b\0\0\0\0", 11));
    _pair.Send(std::string("\0\0\0\3a\0b\0\0\0\0", 11));
    ByteString three;
    ByteString none("x", 1);
    _in >> three >> none;
    EXPECT_EQ(Bytes(three), std::string("a\0b", 3));
    EXPECT_EQ(none.Length(), 0u);
    EXPECT_EQ(_in.Status(), 0u);
}

TEST_F(SockStreams, ByteStringTooLongToCountIsNotWritten) {
    ByteString bytes("x", 1);
    bytes._rep->_length = 0x80000000u;
    _out << bytes;
    bytes._rep->_length = 1;
    EXPECT_EQ(_out.Status(), SockStream::FAILED);
    EXPECT_EQ(Flushed(), "");
}

TEST_F(SockStreams, ShortReadKeepsEveryTarget) {
    unsigned char byte = 1;
    unsigned int word = 2;
    int number = 3;
    unsigned long long wide = 4;
    long long wideNumber = 5;
    ByteString bytes("six", 3);
    _pair.Send("abc");
    _pair.ClosePeer();
    _in >> word;
    EXPECT_EQ(_in.Status(), SockStream::END_OF_INPUT);
    _in >> byte >> number >> wide >> wideNumber >> bytes;
    EXPECT_EQ(byte, 1);
    EXPECT_EQ(word, 2u);
    EXPECT_EQ(number, 3);
    EXPECT_EQ(wide, 4u);
    EXPECT_EQ(wideNumber, 5);
    EXPECT_EQ(Bytes(bytes), "six");
}

TEST_F(SockStreams, TruncatedByteStringKeepsTheTarget) {
    for (unsigned int length : {3u, 70000u}) {
        DescriptorPair pair = DescriptorPair::Sockets();
        ISockStream in(nullptr);
        in.Bind(pair.Ours());
        pair.Send(Length(length) + "ab");
        pair.ClosePeer();
        ByteString bytes("old", 3);
        in >> bytes;
        EXPECT_EQ(Bytes(bytes), "old");
        EXPECT_EQ(in.Status(), SockStream::END_OF_INPUT);
    }
}

TEST_F(SockStreams, LongestFrameIsAccepted) {
    std::string body(ISockStream::MAX_FRAME, 'f');
    body.front() = 'b';
    body.back() = 'e';
    ASSERT_EQ(body.size(), 16777216u);
    std::thread peer([this, &body] {
        OSockStream out(_pair.Peer());
        out << static_cast<unsigned int>(body.size());
        out.Write(body.data(), static_cast<int>(body.size())).Flush();
    });
    ByteString bytes;
    _in >> bytes;
    peer.join();
    EXPECT_EQ(_in.Status(), 0u);
    EXPECT_TRUE(Bytes(bytes) == body);
}

TEST_F(SockStreams, FrameAboveTheLongestIsRefusedUnread) {
    for (unsigned int length : {ISockStream::MAX_FRAME + 1, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        _in.SetStatus(0);
        _pair.Send(Length(length) + "Z");
        ByteString bytes("old", 3);
        _in >> bytes;
        EXPECT_EQ(_in.Status(), SockStream::MALFORMED);
        EXPECT_EQ(Bytes(bytes), "old");
        unsigned char next = 0;
        _in >> next;
        EXPECT_EQ(next, 'Z');
    }
}

TEST_F(SockStreams, FramesAroundTheFirstPieceAreReadWhole) {
    for (unsigned int length : {65535u, 65536u, 65537u, 131073u, 300000u}) {
        std::string body(length, 'x');
        body[length / 2] = 'y';
        body.back() = 'z';
        std::thread peer([this, &body] {
            OSockStream out(_pair.Peer());
            out << ByteString(body.data(), static_cast<unsigned int>(body.size())) << endm;
        });
        ByteString bytes;
        _in >> bytes;
        peer.join();
        EXPECT_TRUE(Bytes(bytes) == body) << length;
    }
}

TEST_F(SockStreams, MemoryOfAFrameGrowsWithTheBytesReceived) {
    ByteString bytes;
    _pair.Send(Length(ISockStream::MAX_FRAME) + std::string(1000, 'x'));
    _pair.ClosePeer();
    TakeLargestAllocation();
    _in >> bytes;
    EXPECT_LE(TakeLargestAllocation(), 64u * 1024);
    EXPECT_EQ(_in.Status(), SockStream::END_OF_INPUT);
}

TEST_F(SockStreams, ReadDeliversExactlyTheBytesRequested) {
    _pair.Send("abcdef");
    char bytes[8];
    EXPECT_EQ(&_in.Read(bytes, 4), &_in);
    EXPECT_EQ(std::string(bytes, 4), "abcd");
    EXPECT_EQ(_in.Gcount(), 4);
    EXPECT_EQ(_in.Status(), 0u);
    EXPECT_EQ(_in._end - _in._pos, 2);
}

TEST_F(SockStreams, ReadOfANegativeCountReadsNothing) {
    _pair.Send("abc");
    char bytes[8];
    _in.Read(bytes, 1);
    _in.Read(bytes, -1);
    EXPECT_EQ(_in.Gcount(), 0);
    EXPECT_EQ(_in.Status(), 0u);
    EXPECT_EQ(_in._end - _in._pos, 2);
}

TEST_F(SockStreams, ReadAtTheEndReportsTheCount) {
    _pair.Send("abc");
    _pair.ClosePeer();
    char bytes[8];
    _in.Read(bytes, 8);
    EXPECT_EQ(_in.Gcount(), 3);
    EXPECT_EQ(_in.Status(), SockStream::END_OF_INPUT);
    _in.Read(bytes, 0);
    EXPECT_EQ(_in.Gcount(), 0);
}

TEST_F(SockStreams, StatusDoesNotStopReading) {
    _in.SetStatus(SockStream::MALFORMED);
    _pair.Send("ab");
    unsigned char byte = 0;
    _in >> byte;
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(_in.Status(), SockStream::MALFORMED);
    _pair.ClosePeer();
    char bytes[8];
    _in.Read(bytes, 8);
    EXPECT_EQ(_in.Status(), SockStream::MALFORMED | SockStream::END_OF_INPUT);
}

TEST_F(SockStreams, OneReadFromTheDescriptorFillsTheWholeBuffer) {
    std::string const text(8192, 'x');
    _pair.Send(text + "y");
    CallCounter counter;
    char bytes[8192];
    _in.Read(bytes, 100);
    _in.Read(bytes, 8092);
    EXPECT_EQ(counter.Transfers(), 1);
    EXPECT_EQ(_pair.Left(), "y");
}

TEST_F(SockStreams, ReadsContinueAfterInterruptsAndShortCounts) {
    _pair.Send("\x01\x02\x03\x04line\nrest");
    FaultyCalls faults(1);
    unsigned int number = 0;
    _in >> number;
    EXPECT_EQ(number, 0x01020304u);
    EXPECT_EQ(ReadLine(), "line");
    EXPECT_GE(faults.Interrupted(), 9);
    EXPECT_EQ(_pair.Left(), "rest");
}

TEST_F(SockStreams, WritesContinueAfterInterruptsAndShortCounts) {
    FaultyCalls faults(3);
    _out << 0x01020304u;
    _out.Write("abcdef", 6);
    EXPECT_EQ(_out.Flush(), 10);
    EXPECT_EQ(_pair.Received(), "\x01\x02\x03\x04"
                                "abcdef");
    EXPECT_EQ(faults.Interrupted(), 4);
}

TEST_F(SockStreams, NothingIsWrittenBeforeTheBufferIsFull) {
    std::string const text(8192, 'x');
    _out.Write(text.data(), 8192);
    EXPECT_EQ(_pair.Received(), "");
    _out << static_cast<unsigned char>('y');
    EXPECT_EQ(_pair.Received(), text);
    EXPECT_EQ(Flushed(), "y");
}

TEST_F(SockStreams, BytesLargerThanTheBufferBypassIt) {
    std::string const large(8193, 'l');
    support::CallCounter const calls;
    _out.Write(large.data(), 8193);
    EXPECT_EQ(calls.Transfers(), 1);
    EXPECT_EQ(_pair.Received(), large);
    _out.Write("before", 6);
    _out.Write(large.data(), 8193);
    EXPECT_EQ(calls.Transfers(), 2);
    EXPECT_EQ(_pair.Received(), "before" + large);
    EXPECT_EQ(_out.Flush(), 0);
}

TEST_F(SockStreams, FlushReturnsTheNumberOfBytes) {
    EXPECT_EQ(_out.Flush(), 0);
    _out.Write("abc", 3);
    EXPECT_EQ(_out.Flush(), 3);
    EXPECT_EQ(_out.Flush(), 0);
}

TEST_F(SockStreams, EndmFlushes) {
    _out << 1 << endm;
    EXPECT_EQ(_pair.Received(), std::string("\0\0\0\1", 4));
}

TEST_F(SockStreams, WritelnAddsTheLineEnd) {
    _out.Writeln(String_t("text"), "\n").Writeln(String_t(), "\r\n");
    EXPECT_EQ(Flushed(), "text\n\r\n");
}

TEST_F(SockStreams, EmptyWritesWriteNothing) {
    _out.Write(nullptr, 0).Write("x", -1);
    EXPECT_EQ(Flushed(), "");
    EXPECT_EQ(_out.Status(), 0u);
}

TEST_F(SockStreams, DestructorWritesNothing) {
    {
        OSockStream out(_pair.Ours());
        out.Write("lost", 4);
    }
    EXPECT_EQ(_pair.Received(), "");
}

TEST_F(SockStreams, WriteToAClosedPeerFailsWithoutASignal) {
    _pair.ClosePeer();
    _out.Write("abc", 3);
    EXPECT_EQ(_out.Status(), 0u);
    errno = 0;
    EXPECT_EQ(_out.Flush(), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(_out.Status(), SockStream::FAILED);
}

TEST_F(SockStreams, FailedOutputStaysFailedUntilRebound) {
    _out._timeout = 1;
    std::string const text(4 << 20, 'x');
    _out.Write(text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(_out.Status(), SockStream::FAILED);
    _pair.Received();
    CallCounter counter;
    errno = 0;
    EXPECT_EQ(_out.Flush(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(counter.Transfers(), 0);
    _out.Bind(_pair.Ours());
    EXPECT_EQ(_out.Status(), 0u);
    _out.Write("fresh", 5);
    EXPECT_EQ(Flushed(), "fresh");
}

TEST_F(SockStreams, UnboundStreamsFailWithEbadf) {
    _in.Unbind();
    _out.Write("old", 3);
    _out.Unbind();
    EXPECT_EQ(_in.Fd(), -1);
    errno = 0;
    EXPECT_EQ(_in.Fill(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(_out.Flush(), 0);
    _out.Write("abc", 3);
    errno = 0;
    EXPECT_EQ(_out.Flush(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(_pair.Received(), "");
    EXPECT_EQ(fcntl(_pair.Ours(), F_GETFD), 0); // still open
}

TEST_F(SockStreams, BindDropsReadAhead) {
    _pair.Send("old");
    char byte;
    EXPECT_EQ(_in.Get(byte), 1);
    DescriptorPair other = DescriptorPair::Sockets();
    other.Send("new");
    _in.Bind(other.Ours());
    EXPECT_EQ(_in.Get(byte), 1);
    EXPECT_EQ(byte, 'n');
}

TEST_F(SockStreams, ReadTimesOut) {
    _in._timeout = 1;
    _pair.Send("abc");
    char bytes[8];
    errno = 0;
    _in.Read(bytes, 8);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(_in.Gcount(), 3);
    EXPECT_EQ(_in.Status(), SockStream::END_OF_INPUT);
    CallCounter counter;
    errno = 0;
    EXPECT_EQ(_in.Fill(), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(counter.Transfers(), 0);
}

TEST_F(SockStreams, TiedStreamIsFlushedBeforeEveryWait) {
    _in.Tie(&_out);
    _out.Write("ask", 3);
    _pair.Send("xy");
    char byte;
    EXPECT_EQ(_in.Get(byte), 1);
    EXPECT_EQ(_pair.Received(), "ask");
    _out.Write("held", 4);
    EXPECT_EQ(_in.Get(byte), 1); // from the buffer
    EXPECT_EQ(_pair.Received(), "");
    _pair.Send("z");
    _in.Read(&byte, 1);
    EXPECT_EQ(_pair.Received(), "held");
    _out.Write("line", 4);
    _pair.Send("l\n");
    EXPECT_EQ(ReadLine(), "l");
    EXPECT_EQ(_pair.Received(), "line");
    _out.Write("fill", 4);
    _pair.Send("f");
    EXPECT_EQ(_in.Fill(), 1);
    EXPECT_EQ(_pair.Received(), "fill");
}

TEST_F(SockStreams, TiedStreamIsFlushedOnceForEachReadThatWaits) {
    support::CountingOutput<OSockStream> tied(_pair.Ours());
    _in.Tie(&tied);
    char bytes[3];
    String_t line;
    unsigned int number = 0;
    std::function<void()> const reads[] = {
        [&] { _in.Get(bytes[0]); }, [&] { _in.Read(bytes, 3); },       [&] { _in.Readln(line, "\n"); },
        [&] { _in >> number; },     [&] { EXPECT_EQ(_in.Fill(), 4); },
    };
    for (auto const& read : reads) {
        _in.Bind(_pair.Ours());
        tied._flushes = 0;
        tied.Write("ask", 3);
        _pair.Send("abc\n");
        read();
        EXPECT_EQ(tied._flushes, 1);
        EXPECT_EQ(_pair.Received(), "ask");
        _pair.Left();
    }
    _in.Bind(_pair.Ours());
    tied._flushes = 0;
    _pair.Send("ab");
    _in.Read(bytes, 1);
    _in.Read(bytes, 1); // from the buffer
    EXPECT_EQ(tied._flushes, 1);
}

/// Fills itself in two steps from the descriptor.
class TwoStepStream : public ISockStream {
public:
    TwoStepStream() : ISockStream(nullptr) {}
    int Fill() override { return ISockStream::Fill() < 1 ? 0 : ISockStream::Fill(); }
};

TEST_F(SockStreams, TiedStreamIsFlushedOnceForEachReadOfADerivedFill) {
    support::CountingOutput<OSockStream> tied(_pair.Ours());
    TwoStepStream in;
    in.Bind(_pair.Ours());
    in.Tie(&tied);
    _pair.Send(std::string(8192, 'x') + "y");
    char byte = 0;
    EXPECT_EQ(in.Get(byte), 1);
    EXPECT_EQ(byte, 'y');
    EXPECT_EQ(tied._flushes, 2);
}

TEST_F(SockStreams, HoldTheirBuffersInThemselves) {
    EXPECT_TRUE(support::HoldsBuffer(_in, _in));
    EXPECT_TRUE(support::HoldsBuffer(_out, _out));
    EXPECT_EQ(_in._capacity, 8192u);
    EXPECT_EQ(_out._capacity, 8192u);
}

/// A stream whose bytes come from elsewhere, as those over a channel do.
class LetterStream : public ISockStream {
public:
    LetterStream() : ISockStream(nullptr) {}
    int Fill() override {
        *_start = _next++;
        _pos = _start;
        _end = _start + 1;
        return 1;
    }
    char _next = 'a';
};

TEST_F(SockStreams, TiedStreamIsFlushedBeforeADerivedFill) {
    LetterStream letters;
    letters.Tie(&_out);
    char bytes[2];
    _out.Write("1", 1);
    letters.Read(bytes, 2);
    EXPECT_EQ(_pair.Received(), "1");
    EXPECT_EQ(std::string(bytes, 2), "ab");
    _out.Write("2", 1);
    letters.Get(bytes[0]);
    EXPECT_EQ(_pair.Received(), "2");
    _out.Write("3", 1);
    String_t line;
    letters.Readln(line, "f");
    EXPECT_EQ(Text(line), "de");
    EXPECT_EQ(_pair.Received(), "3");
}

TEST_F(SockStreams, IOSockStreamTiesItsHalves) {
    IOSockStream both(_pair.Ours());
    both << 7u;
    _pair.Send(std::string("\0\0\0\2ok", 6));
    ByteString answer;
    both >> answer;
    EXPECT_EQ(Bytes(answer), "ok");
    EXPECT_EQ(_pair.Received(), std::string("\0\0\0\7", 4));
}

TEST_F(SockStreams, IOSockStreamBindsBothHalves) {
    IOSockStream both;
    both.Bind(_pair.Ours());
    both.Write("x", 1);
    EXPECT_EQ(both.Flush(), 1);
    EXPECT_EQ(_pair.Received(), "x");
    _pair.Send("y");
    char byte = 0;
    EXPECT_EQ(both.Get(byte), 1);
    EXPECT_EQ(byte, 'y');
    both.Unbind();
    EXPECT_EQ(both.ISockStream::Fd(), -1);
    EXPECT_EQ(both.OSockStream::Fd(), -1);
}

TEST_F(SockStreams, ReadlnReadsNoByteAfterTheLineEnd) {
    _pair.Send("SSH-2.0-x\r\nbinary\nmore");
    EXPECT_EQ(ReadLine(), "SSH-2.0-x\r");
    EXPECT_EQ(_in.Status(), 0u);
    EXPECT_EQ(_in._pos, _in._end);
    EXPECT_EQ(_pair.Left(), "binary\nmore");
}

TEST_F(SockStreams, ReadlnReadsNoByteAfterTheLineEndFromAPipe) {
    DescriptorPair pipe = DescriptorPair::Pipe(true);
    pipe.Send("line\nrest");
    _in.Bind(pipe.Ours());
    EXPECT_EQ(ReadLine(), "line");
    EXPECT_EQ(pipe.Left(), "rest");
}

TEST_F(SockStreams, ReadlnUsesTheBufferFirst) {
    _pair.Send("xone\ntwo");
    char byte;
    _in.Get(byte);
    _pair.Send("2\nthree");
    EXPECT_EQ(ReadLine(), "one");
    EXPECT_EQ(ReadLine(), "two2");
    EXPECT_EQ(_pair.Left(), "three");
}

TEST_F(SockStreams, ReadlnFindsATerminatorThatSpansReads) {
    _pair.Send("a\nb\r");
    std::thread peer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        _pair.Send("\nrest");
    });
    EXPECT_EQ(ReadLine("\r\n"), "a\nb");
    peer.join();
    EXPECT_EQ(_pair.Left(), "rest");
}

TEST_F(SockStreams, ReadlnAtTheEndStoresTheRest) {
    _pair.Send("cut");
    _pair.ClosePeer();
    EXPECT_EQ(ReadLine(), "cut");
    EXPECT_EQ(_in.Status(), SockStream::END_OF_INPUT);
    EXPECT_EQ(ReadLine(), "");
}

TEST_F(SockStreams, ReadlnAcceptsAnEmptyLine) {
    _pair.Send("\nx");
    EXPECT_EQ(ReadLine(), "");
    EXPECT_EQ(_in.Status(), 0u);
}

TEST_F(SockStreams, ReadlnWithoutATerminatorUsesTheLineFeed) {
    _pair.Send("one\ntwo\nrest");
    EXPECT_EQ(ReadLine(""), "one");
    EXPECT_EQ(ReadLine(nullptr), "two");
    EXPECT_EQ(_pair.Left(), "rest");
}

class LongLines : public SockStreams, public testing::WithParamInterface<char const*> {
protected:
    /// Reads the first line of a text that the peer sends piece by piece.
    std::string FirstLineOf(std::string const& text, char const* eol) {
        std::thread peer([this, &text] {
            OSockStream out(_pair.Peer());
            out.Write(text.data(), static_cast<int>(text.size())).Flush();
        });
        std::string line = ReadLine(eol);
        peer.join();
        return line;
    }
};

INSTANTIATE_TEST_SUITE_P(SockStreams, LongLines, testing::Values("\n", "\r\n"),
                         [](auto const& kind) { return kind.param[0] == '\n' ? "Lf" : "CrLf"; });

TEST_P(LongLines, LongestLineIsAccepted) {
    std::string const line(256 * 1024, 'l');
    EXPECT_TRUE(FirstLineOf(line + GetParam() + "z", GetParam()) == line);
    EXPECT_EQ(_in.Status(), 0u);
    EXPECT_EQ(_pair.Left(), "z");
}

TEST_P(LongLines, LineAboveTheLongestIsMalformedAndKept) {
    std::string const line(256 * 1024 + 1, 'l');
    std::string got = FirstLineOf(line + GetParam() + "z", GetParam());
    EXPECT_EQ(_in.Status(), SockStream::MALFORMED);
    EXPECT_GE(got.size(), 256u * 1024);
    EXPECT_EQ(got.compare(0, 256 * 1024, line, 0, 256 * 1024), 0);
}

} // namespace
