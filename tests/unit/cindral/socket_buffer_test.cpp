#include <brantle/cindral/socket_buffer.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/descriptors.h"
#include "support/overriding_streams.h"

using namespace cindral;
using support::CallCounter;
using support::DescriptorPair;
using support::FaultyCalls;

namespace {

class SocketBuffers : public testing::Test {
protected:
    SocketBuffers() : _pair(DescriptorPair::Sockets()) {
        _in.Bind(_pair.Ours());
        _out.Bind(_pair.Ours());
    }
    int Put(std::string const& text) { return _out.put(text.data(), text.data() + text.size()); }

    DescriptorPair _pair;
    ISocketBuffer _in;
    OSocketBuffer _out;
    char _bytes[16384];
};

TEST_F(SocketBuffers, HaveNoTimeLimitByDefault) {
    EXPECT_EQ(_in._timeout, 0u);
    EXPECT_EQ(_out._timeout, 0u);
}

TEST_F(SocketBuffers, ReadAheadStaysInTheBuffer) {
    _pair.Send("abcdef");
    EXPECT_FALSE(_in._pos < _in._end);
    EXPECT_EQ(_in.get(_bytes, _bytes + 4), 4);
    EXPECT_TRUE(_in._pos < _in._end);
    EXPECT_EQ(_in.getchr(_bytes[0]), 1);
    EXPECT_EQ(_in.getchr(_bytes[0]), 1);
    EXPECT_EQ(_bytes[0], 'f');
    EXPECT_FALSE(_in._pos < _in._end);
}

TEST_F(SocketBuffers, GetWaitsUntilTheRangeIsFull) {
    std::thread peer([this] {
        for (int i = 0; i < 8; ++i) {
            _pair.Send("ab");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    EXPECT_EQ(_in.get(_bytes, _bytes + 16), 16);
    peer.join();
    EXPECT_EQ(std::string(_bytes, 16), "abababababababab");
}

TEST_F(SocketBuffers, GetReadsAWholeBufferAtATime) {
    _pair.Send(std::string(10000, 'x'));
    CallCounter counter;
    for (int i = 0; i < 100; ++i) EXPECT_EQ(_in.get(_bytes, _bytes + 100), 100);
    EXPECT_EQ(counter.Transfers(), 2);
    EXPECT_EQ(counter.Polls(), 0);
}

TEST_F(SocketBuffers, EndOfInputIsReturnedAfterTheBytesReceived) {
    _pair.Send("abc");
    _pair.ClosePeer();
    EXPECT_EQ(_in.get(_bytes, _bytes + 8), 3);
    EXPECT_EQ(_in.get(_bytes, _bytes + 8), 0);
    EXPECT_EQ(_in.getchr(_bytes[0]), 0);
}

TEST_F(SocketBuffers, ReadFromAStalledPeerTimesOutForGood) {
    _in._timeout = 1;
    _pair.Send("abc");
    auto const started = std::chrono::steady_clock::now();
    EXPECT_EQ(_in.get(_bytes, _bytes + 8), 3);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(990));
    CallCounter counter;
    errno = 0;
    EXPECT_LT(_in.get(_bytes, _bytes + 8), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    errno = 0;
    EXPECT_LT(_in.Fill(), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(counter.Transfers() + counter.Polls(), 0);
}

TEST_F(SocketBuffers, LimitAppliesToEachWait) {
    _in._timeout = 2;
    std::thread peer([this] {
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            _pair.Send("ab");
        }
    });
    EXPECT_EQ(_in.get(_bytes, _bytes + 6), 6);
    peer.join();
}

TEST_F(SocketBuffers, WriteToAStalledPeerTimesOutForGood) {
    _out._timeout = 1;
    errno = 0;
    EXPECT_LT(Put(std::string(4 << 20, 'x')), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    CallCounter counter;
    errno = 0;
    EXPECT_LT(Put(std::string(8192, 'y')), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(counter.Transfers() + counter.Polls(), 0);
}

TEST_F(SocketBuffers, SmallRangesAreBufferedUntilTheFlush) {
    EXPECT_EQ(Put("abc"), 3);
    EXPECT_EQ(_out.putchr('d'), 0);
    EXPECT_EQ(_pair.Received(), "");
    EXPECT_EQ(_out.Flush(), 4);
    EXPECT_EQ(_pair.Received(), "abcd");
    Put("e");
    EXPECT_EQ(_out.Finalize(), 0);
    EXPECT_EQ(_pair.Received(), "e");
}

TEST_F(SocketBuffers, RangeAsLargeAsTheBufferIsWrittenThrough) {
    CallCounter counter;
    EXPECT_EQ(Put(std::string(8191, 'x')), 8191);
    EXPECT_EQ(counter.Transfers(), 0);
    EXPECT_EQ(_out.Flush(), 8191);
    EXPECT_EQ(Put(std::string(8192, 'y')), 8192);
    EXPECT_EQ(counter.Transfers(), 2);
    EXPECT_EQ(_out.Flush(), 0);
    EXPECT_EQ(_pair.Received(), std::string(8191, 'x') + std::string(8192, 'y'));
}

TEST_F(SocketBuffers, OutputBufferHolds8192Bytes) {
    EXPECT_EQ(_out._capacity, 8192u);
    EXPECT_EQ(_out._end - _out._start, 8192);
    for (int i = 0; i < 8192; ++i) _out.putchr('x');
    EXPECT_EQ(_pair.Received(), "");
    _out.putchr('y');
    EXPECT_EQ(_pair.Received(), std::string(8192, 'x'));
}

TEST_F(SocketBuffers, DataIsSentAfter8193BytesPutInPiecesOfAnySize) {
    for (std::size_t piece : {1u, 20u, 100u, 4096u, 8192u}) {
        std::size_t put = 0;
        for (; put + piece <= 8192; put += piece) Put(std::string(piece, 'x'));
        if (piece < 8192) {
            EXPECT_EQ(_pair.Received(), "") << piece;
        }
        Put(std::string(8193 - put, 'y'));
        EXPECT_GE(_pair.Received().size(), 8192u) << piece;
        _out.Flush();
        _pair.Received();
    }
}

TEST_F(SocketBuffers, RangeThatDoesNotFitIsSentInOneCallWithTheBufferedBytes) {
    CallCounter counter;
    Put("abc");
    EXPECT_EQ(Put(std::string(20000, 'x')), 20000);
    EXPECT_EQ(counter.Transfers(), 1);
    EXPECT_EQ(_pair.Received(), "abc" + std::string(20000, 'x'));
    EXPECT_EQ(_out.Flush(), 0);
}

TEST_F(SocketBuffers, BufferedBytesStayWhenSendingThemWithARangeFails) {
    _out.Bind(-1);
    Put("abc");
    errno = 0;
    EXPECT_LT(Put(std::string(20000, 'x')), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(std::string(_out._start, _out._pos), "abc");
    EXPECT_EQ(_out.Status(), SockStream::FAILED);
}

TEST_F(SocketBuffers, OrderIsKeptWhenTheBufferIsNotEmpty) {
    Put("abc");
    EXPECT_EQ(Put(std::string(20000, 'x')), 20000);
    Put("z");
    _out.Flush();
    EXPECT_EQ(_pair.Received(), "abc" + std::string(20000, 'x') + "z");
}

TEST_F(SocketBuffers, InterruptsAndShortCountsAreHandled) {
    {
        FaultyCalls faults(500);
        EXPECT_EQ(Put(std::string(8192, 'x') + "end"), 8195);
        EXPECT_EQ(_out.Finalize(), 0);
        EXPECT_EQ(faults.Interrupted(), 17);
    }
    EXPECT_EQ(_pair.Received(), std::string(8192, 'x') + "end");
    {
        FaultyCalls faults(500);
        Put(std::string(8000, 'x'));
        EXPECT_EQ(Put(std::string(1000, 'y')), 1000);
        EXPECT_EQ(faults.Interrupted(), 18);
    }
    EXPECT_EQ(_pair.Received(), std::string(8000, 'x') + std::string(1000, 'y'));
    FaultyCalls faults(5);
    _pair.Send("abcdefghijklmnop");
    EXPECT_EQ(_in.get(_bytes, _bytes + 16), 16);
    EXPECT_EQ(std::string(_bytes, 16), "abcdefghijklmnop");
}

TEST_F(SocketBuffers, WriteToAClosedPeerFailsWithoutASignal) {
    _pair.ClosePeer();
    Put("abc");
    errno = 0;
    EXPECT_EQ(_out.Finalize(), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_LT(Put(std::string(2 * 8192, 'x')), 0);
}

TEST_F(SocketBuffers, FailedWriteDoesNotReachTheNextDescriptor) {
    _pair.ClosePeer();
    Put("old");
    _out.Flush();
    DescriptorPair other = DescriptorPair::Sockets();
    _out.Bind(other.Ours());
    Put("new");
    EXPECT_EQ(_out.Flush(), 3);
    EXPECT_EQ(other.Received(), "new");
}

TEST_F(SocketBuffers, AreSocketStreamsToo) {
    _out << 5u;
    _out.Flush();
    EXPECT_EQ(_pair.Received(), std::string("\0\0\0\5", 4));
    _pair.Send("line\nrest");
    String_t line;
    _in.Readln(line, "\n");
    EXPECT_STREQ(line.Text(), "line");
    EXPECT_FALSE(_in._pos < _in._end);
}

TEST_F(SocketBuffers, DescriptorMayBeAPipe) {
    DescriptorPair incoming = DescriptorPair::Pipe(true);
    DescriptorPair outgoing = DescriptorPair::Pipe(false);
    _in.Bind(incoming.Ours());
    _out.Bind(outgoing.Ours());
    incoming.Send("abc");
    EXPECT_EQ(_in.get(_bytes, _bytes + 3), 3);
    EXPECT_EQ(Put(std::string(8192, 'x')), 8192);
    EXPECT_EQ(outgoing.Received(), std::string(8192, 'x'));
}

TEST_F(SocketBuffers, RangeLargerThanTheBufferIsReceivedDirectly) {
    std::string const text = "abc" + std::string(20000, 'x') + "yz";
    _pair.Send(text);
    EXPECT_EQ(_in.get(_bytes, _bytes + 1), 1);
    CallCounter counter;
    std::string rest(20004, '\0');
    EXPECT_EQ(_in.get(rest.data(), rest.data() + 20004), 20004);
    EXPECT_EQ(rest, text.substr(1));
    EXPECT_EQ(counter.Transfers(), 1);
}

TEST_F(SocketBuffers, TiedStreamIsFlushedOnceForEachReadThatWaits) {
    support::CountingOutput<OSockStream> tied(_pair.Ours());
    _in.Tie(&tied);
    for (std::size_t size : {1u, 8192u, 8193u, 10000u}) {
        _pair.Send(std::string(size, 'x'));
        tied._flushes = 0;
        EXPECT_EQ(_in.get(_bytes, _bytes + size), static_cast<int>(size));
        EXPECT_EQ(tied._flushes, 1) << size;
    }
}

TEST_F(SocketBuffers, EndWithinALargeRangeIsReturnedAfterTheBytesReceived) {
    _pair.Send(std::string(9000, 'x'));
    _pair.ClosePeer();
    std::string range(20000, '\0');
    EXPECT_EQ(_in.get(range.data(), range.data() + 20000), 9000);
    EXPECT_EQ(_in.get(range.data(), range.data() + 20000), 0);
}

TEST_F(SocketBuffers, FullBufferIsSentTogetherWithItsTrailer) {
    using Sent = support::SendRecorder::Sent;
    support::SendRecorder recorder;
    Put(std::string(8176, 'x'));
    Put(std::string(20, 'm'));
    EXPECT_EQ(_out.Flush(), 0);
    EXPECT_EQ(recorder.Take(), (std::vector<Sent>{{8196, false}}));
    EXPECT_EQ(_pair.Received(), std::string(8176, 'x') + std::string(20, 'm'));
    _out.SetMoreToCome(true);
    Put(std::string(8176, 'x'));
    Put(std::string(20, 'm'));
    EXPECT_EQ(_out.Flush(), 0);
    EXPECT_TRUE(_out.IsCorked());
    EXPECT_EQ(recorder.Take(), (std::vector<Sent>{{8196, true}}));
}

TEST_F(SocketBuffers, FlushBeforeMoreIsSentWithMsgMore) {
    using Sent = support::SendRecorder::Sent;
    support::SendRecorder recorder;
    Put("abc");
    _out.SetMoreToCome(true);
    EXPECT_EQ(_out.Flush(), 3);
    EXPECT_TRUE(_out.IsCorked());
    Put("de");
    EXPECT_EQ(_out.Flush(), 2);
    EXPECT_FALSE(_out.IsCorked());
    EXPECT_EQ(recorder.Take(), (std::vector<Sent>{{3, true}, {2, false}}));
    EXPECT_EQ(_pair.Received(), "abcde");
}

TEST(TcpBuffer, FlushOfAnEmptyBufferUncorks) {
    DescriptorPair pair = DescriptorPair::Tcp();
    OSocketBuffer out;
    out.Bind(pair.Ours());
    std::string const text = "abc";
    out.put(text.data(), text.data() + text.size());
    out.SetMoreToCome(true);
    out.Flush();
    EXPECT_EQ(out.Flush(), 0);
    EXPECT_FALSE(out.IsCorked());
    EXPECT_EQ(support::Unsent(pair.Ours()), 0);
}

TEST_F(SocketBuffers, FailedFlushAfterACorkedOneSetsItsOwnErrno) {
    Put("abc");
    _out.SetMoreToCome(true);
    _out.Flush();
    _pair.ClosePeer();
    Put("de");
    errno = 0;
    EXPECT_EQ(_out.Flush(), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(SocketBuffers, BindForgetsTheCorkedState) {
    Put("abc");
    _out.SetMoreToCome(true);
    _out.Flush();
    _out.Bind(_pair.Ours());
    EXPECT_FALSE(_out.IsCorked());
}

} // namespace
