#include <brantle/thornel/file_descriptor.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>

#include <gtest/gtest.h>

#include "support/descriptors.h"

using support::DescriptorPair;

namespace {

TEST(FileDescriptor, ClosesWhatItOwns) {
    DescriptorPair pair = DescriptorPair::Sockets();
    int closed = dup(pair.Ours());
    int given = dup(pair.Ours());
    {
        FileDescriptor owner(closed);
        FileDescriptor giver(given);
        FileDescriptor none;
        EXPECT_EQ(none._fd, -1);
        EXPECT_EQ(giver.Release(), given);
        EXPECT_EQ(giver._fd, -1);
        EXPECT_EQ(none.Release(), -1);
    }
    EXPECT_EQ(fcntl(closed, F_GETFD), -1);
    EXPECT_EQ(fcntl(given, F_GETFD), 0);
    close(given);
}

TEST(FileDescriptor, ConvertsToTheDescriptor) {
    FileDescriptor owner(dup(0));
    int const plain = owner;
    EXPECT_EQ(plain, owner._fd);
    EXPECT_LT(FileDescriptor(), 0);
}

TEST(FileDescriptor, DescriptorIsItsFirstMember) {
    static_assert(offsetof(FileDescriptor, _fd) == 0, "the descriptor comes first");
    FileDescriptor owner;
    owner._fd = dup(0);
    EXPECT_GE(owner._fd, 0);
}

TEST(FileDescriptor, ResetClosesTheOldDescriptorAndOwnsTheNew) {
    int const first = dup(0);
    int const second = dup(0);
    FileDescriptor owner(first);
    owner.Reset(second);
    EXPECT_EQ(owner._fd, second);
    EXPECT_EQ(fcntl(first, F_GETFD), -1);
    EXPECT_NE(fcntl(second, F_GETFD), -1);
    owner.Reset();
    EXPECT_EQ(owner._fd, -1);
    EXPECT_EQ(fcntl(second, F_GETFD), -1);
}

TEST(FileDescriptor, ResetToTheDescriptorOwnedLeavesItOpen) {
    FileDescriptor owner(dup(0));
    owner.Reset(owner);
    EXPECT_NE(fcntl(owner, F_GETFD), -1);
}

} // namespace
