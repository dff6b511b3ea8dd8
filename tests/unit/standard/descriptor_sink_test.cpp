#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "standard/descriptor_sink.h"

using cindral::standard::DescriptorSink;
using cindral::standard::View;

namespace {

/// A pipe whose reader the test controls.
class Sink : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    void TearDown() override {
        for (int const end : ends)
            if (end >= 0) close(end);
    }
    /// Reads that many bytes, which have to be there.
    std::string Read(std::size_t size) const {
        std::string text(size, '\0');
        ssize_t const count = read(ends[0], text.data(), size);
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }
    static std::string Block(char letter) { return std::string(64 * 1024, letter); }

    int ends[2] = {-1, -1};
};

} // namespace

TEST_F(Sink, DataThatTheReaderDoesNotTakeIsKeptAndWrittenInOrder) {
    DescriptorSink sink(ends[1]);
    std::size_t const written = sink.Write(Block('a'));
    EXPECT_EQ(sink.Write(Block('b')), 0u);
    EXPECT_FALSE(sink.IsEmpty());
    EXPECT_EQ(Read(written), std::string(written, 'a'));
    EXPECT_GT(sink.Resume(), 0u);
    EXPECT_EQ(Read(100), Block('b').substr(0, 100));
}

TEST_F(Sink, MemoryIsBoundedWhereTheReaderNeverCatchesUp) {
    DescriptorSink sink(ends[1]);
    std::size_t left = sink.Write(Block('a') + Block('b') + Block('c'));
    for (int i = 0; i < 1000; ++i) {
        Read(left);
        left = sink.Write(Block('d')); // as much as the reader has made room for
        EXPECT_FALSE(sink.IsEmpty());
    }
    EXPECT_LE(sink.Capacity(), 16 * Block('d').size());
}

TEST_F(Sink, ReaderThatIsGoneIsAFailure) {
    DescriptorSink sink(ends[1]);
    close(ends[0]);
    ends[0] = -1;
    EXPECT_THROW(sink.Write("data"), cindral::SystemError);
}

TEST_F(Sink, WithoutADescriptorOfItsOwnItBorrowsTheCallersOnlyIfItMay) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    int const next = dup(ends[0]);
    close(next);
    rlimit const none{static_cast<rlim_t>(next), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_THROW(DescriptorSink sink(ends[1]), cindral::SystemError);
    EXPECT_THROW(DescriptorSink sink(-1, true), cindral::SystemError);
    DescriptorSink sink(ends[1], true);
    EXPECT_EQ(sink.Fd(), ends[1]);
    std::size_t const written = sink.Write(Block('a') + Block('a')); // without blocking
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(sink.IsEmpty());
    EXPECT_EQ(Read(written), std::string(written, 'a'));
}
