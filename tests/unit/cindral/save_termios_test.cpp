#include <brantle/cindral/save_termios.h>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

using namespace cindral;

namespace {

class SaveTermiosTest : public testing::Test {
protected:
    SaveTermiosTest() { EXPECT_EQ(openpty(&_master, &_slave, nullptr, nullptr, nullptr), 0); }
    ~SaveTermiosTest() override {
        close(_master);
        close(_slave);
    }
    termios Now() const {
        termios settings{};
        EXPECT_EQ(tcgetattr(_slave, &settings), 0);
        return settings;
    }
    bool IsRaw() const {
        return !(Now().c_lflag & (ECHO | ICANON | ISIG | IEXTEN)) && !(Now().c_oflag & OPOST);
    }

    int _master = -1;
    int _slave = -1;
};

TEST_F(SaveTermiosTest, RemembersTheSettings) {
    termios const before = Now();
    SaveTermios const saved(_slave);
    EXPECT_EQ(saved.Settings().c_lflag, before.c_lflag);
    EXPECT_EQ(saved.Settings().c_iflag, before.c_iflag);
    EXPECT_EQ(std::memcmp(saved.Settings().c_cc, before.c_cc, sizeof before.c_cc), 0);
}

TEST_F(SaveTermiosTest, BuildingChangesNothing) {
    SaveTermios const saved(_slave);
    EXPECT_FALSE(IsRaw());
}

TEST_F(SaveTermiosTest, RawModeGoesOnAndOff) {
    termios const before = Now();
    SaveTermios saved(_slave);
    EXPECT_EQ(saved.SetRaw(), 0);
    EXPECT_TRUE(IsRaw());
    EXPECT_EQ(Now().c_cc[VMIN], 1);
    EXPECT_EQ(Now().c_cc[VTIME], 0);
    EXPECT_EQ(saved.Settings().c_lflag, before.c_lflag);
    EXPECT_EQ(saved.LeaveRaw(), 0);
    EXPECT_FALSE(IsRaw());
    EXPECT_EQ(Now().c_lflag, before.c_lflag);
    EXPECT_EQ(saved.LeaveRaw(), 0);
    EXPECT_EQ(saved.SetRaw(), 0);
    EXPECT_TRUE(IsRaw());
}

TEST_F(SaveTermiosTest, DestructorPutsTheSettingsBack) {
    termios const before = Now();
    {
        SaveTermios saved(_slave);
        saved.SetRaw();
    }
    EXPECT_EQ(Now().c_lflag, before.c_lflag);
    EXPECT_EQ(Now().c_oflag, before.c_oflag);
}

TEST_F(SaveTermiosTest, DestructorUndoesChangesOfOthersToo) {
    termios const before = Now();
    {
        SaveTermios const saved(_slave);
        termios changed = before;
        changed.c_cc[VINTR] = 5;
        tcsetattr(_slave, TCSANOW, &changed);
    }
    EXPECT_EQ(Now().c_cc[VINTR], before.c_cc[VINTR]);
}

TEST_F(SaveTermiosTest, GoneTerminalIsToldByErrno) {
    int const own = dup(_slave);
    SaveTermios saved(own);
    close(own);
    EXPECT_EQ(saved.SetRaw(), -EBADF);
    EXPECT_EQ(saved.LeaveRaw(), -EBADF);
}

TEST(SaveTermios, DescriptorThatIsNoTerminalIsLeftAlone) {
    int const null = open("/dev/null", O_RDWR);
    for (int fd : {null, -1}) {
        SaveTermios saved(fd);
        EXPECT_EQ(saved.Settings().c_lflag, 0u);
        EXPECT_EQ(saved.Settings().c_cc[VINTR], 0);
        EXPECT_EQ(saved.SetRaw(), 0);
        EXPECT_EQ(saved.LeaveRaw(), 0);
    }
    close(null);
}

} // namespace
