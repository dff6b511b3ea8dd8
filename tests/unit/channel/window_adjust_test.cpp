#include <brantle/channel/window_adjust.h>

#include <brantle/channel/ssh_channel.h>

#include "plain_connection.h"

namespace cindral {
namespace {

constexpr unsigned int WINDOW = 0x200000;

class WindowAdjust : public testing::Test {
protected:
    /// What a check sends for that count; the count as it is left stands in `_count`.
    std::vector<Bytes> Check(unsigned int count, unsigned int window = WINDOW) {
        _count = count;
        CheckForWindowAdjust(_count, window, 7, _connection._out);
        return _connection.Sent();
    }

    PlainConnection _connection;
    unsigned int _count = 0;
};

TEST_F(WindowAdjust, CountOfTwoThirdsSendsNothing) {
    EXPECT_TRUE(Check(1398102).empty());
    EXPECT_EQ(1398102u, _count);
}

TEST_F(WindowAdjust, CountAboveTwoThirdsIsGrantedAndResets) {
    EXPECT_EQ((std::vector<Bytes>{{93, 0, 0, 0, 7, 0x00, 0x15, 0x55, 0x57}}), Check(1398103));
    EXPECT_EQ(0u, _count);
}

TEST_F(WindowAdjust, CountOfTheWholeWindowIsStillGranted) {
    EXPECT_EQ((std::vector<Bytes>{{93, 0, 0, 0, 7, 0x00, 0x20, 0x00, 0x00}}), Check(WINDOW));
}

TEST_F(WindowAdjust, CountBeyondTheWindowNeverSendsAgain) {
    for (unsigned int count : {WINDOW + 1, WINDOW + 700000, 0x7fffffffu, 0xffffffffu}) {
        EXPECT_TRUE(Check(count).empty()) << count;
        EXPECT_EQ(count, _count);
    }
}

TEST_F(WindowAdjust, WindowOfNothingSendsNothing) {
    for (unsigned int count : {0u, 1u, 1398103u, 0xffffffffu}) EXPECT_TRUE(Check(count, 0).empty()) << count;
}

class ChannelWindow : public testing::Test {
protected:
    PlainConnection _connection;
    SshChannel _channel{0, 5, "client-session", WINDOW, -1, -1, -1, &_connection._in, &_connection._out};
};

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

TEST_F(ChannelWindow, OutputOneByteShortOfTheThresholdSendsDataAlone) {
    _connection._out._byteCount = 1398102 - 24;
    _channel.ForwardToSshd("abcd", 4);
    EXPECT_EQ(1u, _connection.Sent().size());
    EXPECT_EQ(1398102u, _connection._out._byteCount);
}

} // namespace
} // namespace cindral
