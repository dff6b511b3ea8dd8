#include <brantle/channel/window_adjust.h>

#include "plain_connection.h"

namespace cindral {
namespace {

constexpr unsigned int WINDOW = 0x200000;

class WindowAdjust : public testing::Test {
protected:
    /// What a check sends for that count. `_count` is the count afterwards.
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

TEST_F(WindowAdjust, CountAboveTheWindowSendsNothing) {
    for (unsigned int count : {WINDOW + 1, WINDOW + 700000, 0x7fffffffu, 0xffffffffu}) {
        EXPECT_TRUE(Check(count).empty()) << count;
        EXPECT_EQ(count, _count);
    }
}

TEST_F(WindowAdjust, EmptyWindowSendsNothing) {
    for (unsigned int count : {0u, 1u, 1398103u, 0xffffffffu}) EXPECT_TRUE(Check(count, 0).empty()) << count;
}

} // namespace

} // namespace cindral
