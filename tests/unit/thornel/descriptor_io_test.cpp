#include <brantle/thornel/descriptor_io.h>

#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/descriptors.h"

using support::CallCounter;
using support::DescriptorPair;
using support::FaultyCalls;

namespace {

/// Both kinds of descriptor a stream meets; true is a socket.
class EitherDescriptor : public testing::TestWithParam<bool> {
protected:
    DescriptorPair ForReading() {
        return GetParam() ? DescriptorPair::Sockets() : DescriptorPair::Pipe(true);
    }
    DescriptorPair ForWriting() {
        return GetParam() ? DescriptorPair::Sockets() : DescriptorPair::Pipe(false);
    }
};

INSTANTIATE_TEST_SUITE_P(DescriptorIO, EitherDescriptor, testing::Bool(),
                         [](auto const& kind) { return kind.param ? "Socket" : "Pipe"; });

TEST_P(EitherDescriptor, ReadReturnsAvailableBytes) {
    DescriptorPair pair = ForReading();
    pair.Send("abc");
    char bytes[8];
    EXPECT_EQ(DescriptorIO(pair.Ours()).Read(bytes, sizeof(bytes), 0), 3);
    EXPECT_EQ(std::string(bytes, 3), "abc");
}

TEST_P(EitherDescriptor, ReadReturnsZeroAtTheEnd) {
    DescriptorPair pair = ForReading();
    pair.ClosePeer();
    char bytes[8];
    EXPECT_EQ(DescriptorIO(pair.Ours()).Read(bytes, sizeof(bytes), 0), 0);
    EXPECT_EQ(DescriptorIO(pair.Ours()).Read(bytes, sizeof(bytes), 1), 0);
}

TEST_P(EitherDescriptor, InterruptedReadsContinue) {
    DescriptorPair pair = ForReading();
    pair.Send("abcdef");
    DescriptorIO io(pair.Ours());
    FaultyCalls faults(2);
    char bytes[8];
    EXPECT_EQ(io.Read(bytes, sizeof(bytes), 0), 2);
    EXPECT_EQ(io.Read(bytes, sizeof(bytes), 5), 2);
    EXPECT_GE(faults.Interrupted(), 2);
}

TEST_P(EitherDescriptor, InterruptedAndShortWritesContinueToTheEnd) {
    for (unsigned int limit : {0u, 5u}) {
        DescriptorPair pair = ForWriting();
        DescriptorIO io(pair.Ours());
        std::string const text(100, 'w');
        FaultyCalls faults(7);
        char const* from = text.data();
        EXPECT_EQ(io.Write(from, text.data() + text.size(), limit), 0);
        EXPECT_EQ(from, text.data() + text.size());
        EXPECT_GE(faults.Interrupted(), 15);
        EXPECT_EQ(pair.Received(), text);
    }
}

TEST_P(EitherDescriptor, ReadEndsAtTheTimeLimit) {
    DescriptorPair pair = ForReading();
    char bytes[8];
    EXPECT_EQ(DescriptorIO(pair.Ours()).Read(bytes, sizeof(bytes), 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_P(EitherDescriptor, WriteEndsAtTheTimeLimitAndReturnsTheBytesWritten) {
    DescriptorPair pair = ForWriting();
    std::string const text(4 << 20, 'w');
    char const* from = text.data();
    EXPECT_EQ(DescriptorIO(pair.Ours()).Write(from, text.data() + text.size(), 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(pair.Received().size(), static_cast<std::size_t>(from - text.data()));
}

TEST_P(EitherDescriptor, WriteToAClosedPeerFailsWithoutASignal) {
    for (unsigned int limit : {0u, 5u}) {
        DescriptorPair pair = ForWriting();
        pair.ClosePeer();
        char const* from = "x";
        EXPECT_EQ(DescriptorIO(pair.Ours()).Write(from, from + 1, limit), -1);
        EXPECT_EQ(errno, EPIPE);
    }
}

TEST_P(EitherDescriptor, NonBlockingDescriptorIsWaitedFor) {
    DescriptorPair pair = ForReading();
    fcntl(pair.Ours(), F_SETFL, O_NONBLOCK);
    std::thread peer([&pair] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        pair.Send("late");
    });
    char bytes[8];
    EXPECT_EQ(DescriptorIO(pair.Ours()).Read(bytes, sizeof(bytes), 0), 4);
    peer.join();
}

TEST_P(EitherDescriptor, ReadUntilReadsNoByteAfterTheDelimiter) {
    DescriptorPair pair = ForReading();
    pair.Send("line\nrest");
    DescriptorIO io(pair.Ours());
    std::string got;
    for (char bytes[64]; got.empty() || got.back() != '\n';) {
        int count = io.ReadUntil(bytes, sizeof(bytes), '\n', 0);
        ASSERT_GT(count, 0);
        got.append(bytes, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(got, "line\n");
    EXPECT_EQ(pair.Left(), "rest");
}

TEST_P(EitherDescriptor, ReadUntilReturnsZeroAtTheEnd) {
    DescriptorPair pair = ForReading();
    pair.ClosePeer();
    char bytes[8];
    EXPECT_EQ(DescriptorIO(pair.Ours()).ReadUntil(bytes, sizeof(bytes), '\n', 0), 0);
}

TEST(DescriptorIO, SocketTransferWithALimitIsASingleCall) {
    DescriptorPair pair = DescriptorPair::Sockets();
    pair.Send("abc");
    DescriptorIO io(pair.Ours());
    CallCounter counter;
    char bytes[8];
    EXPECT_EQ(io.Read(bytes, sizeof(bytes), 180), 3);
    char const* from = "abc";
    EXPECT_EQ(io.Write(from, from + 3, 180), 0);
    EXPECT_EQ(counter.Transfers(), 2);
    EXPECT_EQ(counter.Polls(), 0);
}

TEST(DescriptorIO, EmptyWriteMakesNoCall) {
    DescriptorPair pair = DescriptorPair::Sockets();
    DescriptorIO io(pair.Ours());
    CallCounter counter;
    char const* from = "";
    EXPECT_EQ(io.Write(from, from, 0), 0);
    EXPECT_EQ(counter.Transfers(), 0);
}

TEST_P(EitherDescriptor, InterruptedAndShortWritesOfTwoRangesContinueToTheEnd) {
    for (unsigned int limit : {0u, 5u}) {
        for (std::size_t most : {1u, 7u, 9u, 50u}) {
            DescriptorPair pair = ForWriting();
            DescriptorIO io(pair.Ours());
            std::string const head(18, 'h');
            std::string const tail(25, 't');
            DescriptorIO::Range first{head.data(), head.data() + head.size()};
            DescriptorIO::Range second{tail.data(), tail.data() + tail.size()};
            FaultyCalls faults(most);
            EXPECT_EQ(io.Write(first, second, limit), 0);
            EXPECT_TRUE(first.IsEmpty());
            EXPECT_TRUE(second.IsEmpty());
            EXPECT_GE(faults.Interrupted(), 2);
            EXPECT_EQ(pair.Received(), head + tail);
        }
    }
}

TEST_P(EitherDescriptor, FailedWriteOfTwoRangesReturnsTheBytesWritten) {
    DescriptorPair pair = ForWriting();
    std::string const head(100, 'h');
    std::string const tail(4 << 20, 't');
    DescriptorIO::Range first{head.data(), head.data() + head.size()};
    DescriptorIO::Range second{tail.data(), tail.data() + tail.size()};
    EXPECT_EQ(DescriptorIO(pair.Ours()).Write(first, second, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_TRUE(first.IsEmpty());
    EXPECT_EQ(pair.Received().size(), head.size() + tail.size() - second.Size());
}

TEST(DescriptorIO, SocketTakesTwoRangesInOneCall) {
    using Sent = support::SendRecorder::Sent;
    DescriptorPair pair = DescriptorPair::Sockets();
    DescriptorIO const io(pair.Ours());
    std::string const text = "headtail";
    support::SendRecorder recorder;
    for (bool more : {true, false}) {
        DescriptorIO::Range first{text.data(), text.data() + 4};
        DescriptorIO::Range second{text.data() + 4, text.data() + 8};
        EXPECT_EQ(io.Write(first, second, 0, more), 0);
        EXPECT_EQ(recorder.Take(), (std::vector<Sent>{{8, more}}));
        EXPECT_EQ(pair.Received(), text);
    }
}

TEST(DescriptorIO, NoDescriptorFailsWithEbadf) {
    DescriptorIO io;
    char byte = 'x';
    errno = 0;
    EXPECT_EQ(io.Read(&byte, 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    char const* from = &byte;
    errno = 0;
    EXPECT_EQ(io.Write(from, from + 1, 1), -1);
    EXPECT_EQ(errno, EBADF);
    DescriptorIO::Range first{from, from + 1};
    DescriptorIO::Range second = first;
    errno = 0;
    EXPECT_EQ(io.Write(first, second, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(DescriptorIO, PendingSigpipeOfTheThreadStaysPending) {
    sigset_t sigpipe;
    sigset_t before;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    pthread_kill(pthread_self(), SIGPIPE);
    DescriptorPair pair = DescriptorPair::Pipe(false);
    pair.ClosePeer();
    char const* from = "x";
    EXPECT_EQ(DescriptorIO(pair.Ours()).Write(from, from + 1, 0), -1);
    timespec const now{0, 0};
    EXPECT_EQ(sigtimedwait(&sigpipe, nullptr, &now), SIGPIPE);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(DescriptorIO, BlockedSigpipeIsNotLeftPending) {
    sigset_t sigpipe;
    sigset_t before;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    DescriptorPair pair = DescriptorPair::Pipe(false);
    pair.ClosePeer();
    char const* from = "x";
    EXPECT_EQ(DescriptorIO(pair.Ours()).Write(from, from + 1, 0), -1);
    timespec const now{0, 0};
    EXPECT_EQ(sigtimedwait(&sigpipe, nullptr, &now), -1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(DescriptorIO, TerminalIsReadAndWritten) {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    char name[64];
    ASSERT_EQ(ptsname_r(master, name, sizeof(name)), 0);
    int slave = open(name, O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    char const* from = "out";
    EXPECT_EQ(DescriptorIO(slave).Write(from, from + 3, 5), 0);
    char bytes[8];
    EXPECT_EQ(DescriptorIO(master).Read(bytes, sizeof(bytes), 5), 3);
    ASSERT_EQ(write(master, "in\n", 3), 3);
    EXPECT_EQ(DescriptorIO(slave).Read(bytes, sizeof(bytes), 5), 3);
    EXPECT_EQ(std::string(bytes, 3), "in\n");
    close(slave);
    close(master);
}

TEST(DescriptorIO, BytesFollowedByOthersAreSentWithMsgMore) {
    using Sent = support::SendRecorder::Sent;
    DescriptorPair pair = DescriptorPair::Sockets();
    DescriptorIO const io(pair.Ours());
    support::SendRecorder recorder;
    std::string const text = "abcdef";
    for (unsigned int limit : {0u, 5u}) {
        char const* from = text.data();
        EXPECT_EQ(io.Write(from, text.data() + 4, limit, true), 0);
        EXPECT_EQ(io.Write(from, text.data() + 6, limit), 0);
        EXPECT_EQ(recorder.Take(), (std::vector<Sent>{{4, true}, {2, false}}));
        EXPECT_EQ(pair.Received(), text);
    }
}

TEST(DescriptorIO, PipeAcceptsCorkedBytesAndUncork) {
    DescriptorPair pair = DescriptorPair::Pipe(false);
    DescriptorIO const io(pair.Ours());
    std::string const text = "abc";
    char const* from = text.data();
    EXPECT_EQ(io.Write(from, text.data() + 3, 0, true), 0);
    EXPECT_EQ(pair.Received(), text);
    io.Uncork();
}

TEST(DescriptorIO, UncorkSendsCorkedBytes) {
    DescriptorPair pair = DescriptorPair::Tcp();
    DescriptorIO const io(pair.Ours());
    std::string const text = "abc";
    char const* from = text.data();
    EXPECT_EQ(io.Write(from, text.data() + 3, 0, true), 0);
    io.Uncork();
    EXPECT_EQ(support::Unsent(pair.Ours()), 0);
}

TEST_P(EitherDescriptor, HasInputReportsBytesAndTheEndWithoutWaiting) {
    DescriptorPair pair = ForReading();
    DescriptorIO const io(pair.Ours());
    EXPECT_FALSE(io.HasInput());
    pair.Send("a");
    EXPECT_TRUE(io.HasInput());
    pair.Left();
    EXPECT_FALSE(io.HasInput());
    pair.ClosePeer();
    EXPECT_TRUE(io.HasInput());
}

TEST(DescriptorIO, ReadOfADrainedSocketWaitsFirst) {
    DescriptorPair pair = DescriptorPair::Sockets();
    DescriptorIO const io(pair.Ours());
    char bytes[4];
    pair.Send("abcdef");
    CallCounter counter;
    EXPECT_EQ(io.Read(bytes, 4, 5), 4);
    EXPECT_EQ(io.Read(bytes, 4, 5), 2);
    EXPECT_EQ(counter.Polls(), 0);
    pair.Send("g");
    EXPECT_EQ(io.Read(bytes, 4, 5), 1);
    EXPECT_EQ(counter.Polls(), 1);
    EXPECT_EQ(counter.Transfers(), 3);
}

} // namespace
