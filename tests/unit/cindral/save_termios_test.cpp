#include <brantle/cindral/save_termios.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "support/terminal.h"

using namespace cindral;

namespace {

class SavedTermios : public testing::Test {
protected:
    termios Now() const { return _terminal.Settings(); }
    bool IsRaw() const { return _terminal.IsRaw(); }

    support::Terminal _terminal;
    int const _slave = _terminal.Fd();
};

TEST_F(SavedTermios, RemembersTheSettings) {
    termios const before = Now();
    SaveTermios const saved(_slave);
    EXPECT_EQ(saved.Settings().c_lflag, before.c_lflag);
    EXPECT_EQ(saved.Settings().c_iflag, before.c_iflag);
    EXPECT_EQ(std::memcmp(saved.Settings().c_cc, before.c_cc, sizeof before.c_cc), 0);
}

TEST_F(SavedTermios, ConstructionChangesNothing) {
    SaveTermios const saved(_slave);
    EXPECT_FALSE(IsRaw());
}

TEST_F(SavedTermios, RawModeIsSetAndReset) {
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

TEST_F(SavedTermios, DestructorRestoresTheSettings) {
    termios const before = Now();
    {
        SaveTermios saved(_slave);
        saved.SetRaw();
    }
    EXPECT_EQ(Now().c_lflag, before.c_lflag);
    EXPECT_EQ(Now().c_oflag, before.c_oflag);
}

TEST_F(SavedTermios, DestructorUndoesForeignChanges) {
    termios const before = Now();
    {
        SaveTermios const saved(_slave);
        termios changed = before;
        changed.c_cc[VINTR] = 5;
        tcsetattr(_slave, TCSANOW, &changed);
    }
    EXPECT_EQ(Now().c_cc[VINTR], before.c_cc[VINTR]);
}

TEST_F(SavedTermios, LostTerminalIsReportedByErrno) {
    int const own = dup(_slave);
    SaveTermios saved(own);
    close(own);
    EXPECT_EQ(saved.SetRaw(), -EBADF);
    EXPECT_EQ(saved.LeaveRaw(), -EBADF);
}

TEST_F(SavedTermios, DescriptorThatIsNoTerminalIsIgnored) {
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
