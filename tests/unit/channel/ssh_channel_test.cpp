#include <brantle/channel/ssh_channel.h>

#include "plain_connection.h"
#include "support/holds_buffer.h"

namespace cindral {

namespace {

constexpr unsigned int WINDOW = 0x200000;

class ChannelWindow : public testing::Test {
protected:
    PlainConnection _connection;
    SshChannel _channel{0, 5, "client-session", WINDOW, -1, -1, -1, &_connection._in, &_connection._out};
};

TEST(SshChannel, HoldsItsTwoStreamBuffersInItself) {
    SshChannel const channel;
    EXPECT_TRUE(support::HoldsBuffer(channel, channel._outStream));
    EXPECT_TRUE(support::HoldsBuffer(channel, channel._errStream));
    EXPECT_EQ(channel._outStream._capacity, 8192u);
    EXPECT_EQ(channel._errStream._capacity, 8192u);
}

TEST(DefaultSshChannel, HasNothingAndSendsNothing) {
    SshChannel channel;
    EXPECT_EQ(0u, channel._localId);
    EXPECT_EQ(0u, channel._remoteId);
    EXPECT_EQ(0u, channel._windowSize);
    EXPECT_EQ(-1, channel._fdIn);
    EXPECT_EQ(-1, channel._fdOut);
    EXPECT_EQ(-1, channel._fdErr);
    EXPECT_EQ(nullptr, channel._in);
    EXPECT_EQ(nullptr, channel._out);
    channel.ForwardToSshd("x", 1);
    channel.CheckForInWindowAdjust();
    channel.CheckForOutWindowAdjust();
    channel.Flush();
}

TEST_F(ChannelWindow, DataIsSentAsOneMessageWhateverItsSize) {
    _channel.ForwardToSshd("hello", 5);
    EXPECT_EQ((std::vector<Bytes>{{94, 0, 0, 0, 5, 0, 0, 0, 5, 'h', 'e', 'l', 'l', 'o'}}),
              _connection.Sent());
    std::string const large(100000, 'x');
    _channel.ForwardToSshd(large.data(), 100000);
    auto const sent = _connection.Sent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(100009u, sent[0].size());
}

TEST_F(ChannelWindow, InputCheckRunsBeforeTheDataAndLeavesTheOutputCount) {
    _connection._in._byteCount = 1398103;
    _connection._out._byteCount = 100;
    _channel.CheckForInWindowAdjust();
    EXPECT_EQ((std::vector<Bytes>{{93, 0, 0, 0, 5, 0x00, 0x15, 0x55, 0x57}}), _connection.Sent());
    EXPECT_EQ(0u, _connection._in._byteCount);
    EXPECT_EQ(124u, _connection._out._byteCount); // the adjustment itself has been counted: 24 bytes
}

TEST_F(ChannelWindow, OutputCheckRunsAfterTheDataAndClearsTheAdjustmentToo) {
    _connection._out._byteCount = 1398103 - 24;
    _channel.ForwardToSshd("abcd", 4); // 5 + 13 bytes and 6 of padding make 24
    EXPECT_EQ((std::vector<Bytes>{{94, 0, 0, 0, 5, 0, 0, 0, 4, 'a', 'b', 'c', 'd'},
                                  {93, 0, 0, 0, 5, 0x00, 0x15, 0x55, 0x57}}),
              _connection.Sent());
    EXPECT_EQ(0u, _connection._out._byteCount);
}

TEST_F(ChannelWindow, OutputOneByteBelowTheThresholdSendsOnlyData) {
    _connection._out._byteCount = 1398102 - 24;
    _channel.ForwardToSshd("abcd", 4);
    EXPECT_EQ(1u, _connection.Sent().size());
    EXPECT_EQ(1398102u, _connection._out._byteCount);
}

} // namespace
} // namespace cindral
