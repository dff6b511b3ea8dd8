// Socket streams derived by a program, which override Flush() or Fill().

#include <string>

#include <gtest/gtest.h>

#include <brantle/thornel/sock_stream.h>

#include "support/descriptors.h"
#include "support/overriding_streams.h"

using support::DescriptorPair;
using support::OperationName;
using support::ReadOperation;
using support::Shifted;
using support::WriteOperation;

namespace {

class OverriddenSockStreamFlush : public testing::TestWithParam<WriteOperation> {
protected:
    template <class Stream>
    void Write(Stream& out) {
        out.OSockStream::Bind(_pair.Ours());
        GetParam()._write(out);
        out.Flush();
    }

    DescriptorPair _pair = DescriptorPair::Sockets();
};

INSTANTIATE_TEST_SUITE_P(SockStreams, OverriddenSockStreamFlush,
                         testing::ValuesIn(support::WriteOperations()), OperationName());

TEST_P(OverriddenSockStreamFlush, SeesEveryByteOfAnOutputStream) {
    support::CountingOutput<OSockStream> out;
    Write(out);
    EXPECT_EQ(out._bytes, GetParam()._bytes.size());
    EXPECT_EQ(_pair.Received(), GetParam()._bytes);
}

TEST_P(OverriddenSockStreamFlush, ChangesEveryByteOfAnOutputStream) {
    support::ShiftingOutput<OSockStream> out;
    Write(out);
    EXPECT_EQ(_pair.Received(), Shifted(GetParam()._bytes));
}

TEST_P(OverriddenSockStreamFlush, SeesEveryByteOfABidirectionalStream) {
    support::CountingOutput<IOSockStream, OSockStream> both;
    Write(both);
    EXPECT_EQ(both._bytes, GetParam()._bytes.size());
    EXPECT_EQ(_pair.Received(), GetParam()._bytes);
}

class OverriddenSockStreamFill : public testing::TestWithParam<ReadOperation> {
protected:
    template <class Stream>
    std::string Read(Stream& in, std::string const& wire) {
        in.ISockStream::Bind(_pair.Ours());
        _pair.Send(wire);
        _pair.ClosePeer();
        return GetParam()._read(in);
    }

    DescriptorPair _pair = DescriptorPair::Sockets();
};

INSTANTIATE_TEST_SUITE_P(SockStreams, OverriddenSockStreamFill, testing::ValuesIn(support::ReadOperations()),
                         OperationName());

TEST_P(OverriddenSockStreamFill, SeesEveryByteOfAnInputStream) {
    support::CountingInput<ISockStream> in(nullptr);
    EXPECT_EQ(Read(in, GetParam()._bytes), GetParam()._bytes);
    EXPECT_EQ(in._bytes, GetParam()._bytes.size());
}

TEST_P(OverriddenSockStreamFill, ChangesEveryByteOfAnInputStream) {
    support::ShiftingInput<ISockStream> in(nullptr);
    EXPECT_EQ(Read(in, Shifted(GetParam()._bytes)), GetParam()._bytes);
}

TEST_P(OverriddenSockStreamFill, OfAPipeSeesEveryByte) {
    DescriptorPair pipe = DescriptorPair::Pipe(true);
    support::CountingInput<ISockStream> in(nullptr);
    in.Bind(pipe.Ours());
    pipe.Send(GetParam()._bytes);
    pipe.ClosePeer();
    EXPECT_EQ(GetParam()._read(in), GetParam()._bytes);
    EXPECT_EQ(in._bytes, GetParam()._bytes.size());
}

TEST_P(OverriddenSockStreamFill, OfABidirectionalStreamSeesEveryByte) {
    support::CountingInput<IOSockStream> both;
    EXPECT_EQ(Read(both, GetParam()._bytes), GetParam()._bytes);
    EXPECT_EQ(both._bytes, GetParam()._bytes.size());
}

TEST(OverriddenSockStreamFill, LeavesWhatFollowsALineToTheDescriptor) {
    DescriptorPair pair = DescriptorPair::Sockets();
    support::CountingInput<ISockStream> in(nullptr);
    in.Bind(pair.Ours());
    pair.Send("line\nrest");
    String_t line;
    in.Readln(line, "\n");
    EXPECT_STREQ(line.Text(), "line");
    EXPECT_EQ(in._bytes, 5u);
    EXPECT_EQ(pair.Left(), "rest");
}

/// Counts its calls and lets none succeed that finds something to send.
class RefusingOutput : public OSockStream {
public:
    int Flush() override {
        ++_flushes;
        return _pos == _start ? 0 : -5;
    }
    int _flushes = 0;
};

TEST(OverriddenSockStreamFlush, FailsAWriteThatItMakesNoRoomFor) {
    RefusingOutput out;
    std::string const large(20000, 'x');
    out.Write(large.data(), 20000);
    EXPECT_EQ(out.Status(), SockStream::FAILED);
    EXPECT_EQ(out._flushes, 1);
    EXPECT_EQ(out._pos - out._start, 8192);
}

} // namespace
