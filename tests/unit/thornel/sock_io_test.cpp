#include <brantle/thornel/sock_io.h>

#include <fcntl.h>
#include <netinet/in.h>

#include <string>

#include <gtest/gtest.h>

#include "support/descriptors.h"

using support::DescriptorPair;

namespace {

TEST(SockIO, SetCloseOnExecSetsTheFlag) {
    DescriptorPair pair = DescriptorPair::Sockets();
    EXPECT_EQ(SockIO::SetCloseOnExec(pair.Ours()), 0);
    EXPECT_EQ(fcntl(pair.Ours(), F_GETFD), FD_CLOEXEC);
    errno = 0;
    EXPECT_EQ(SockIO::SetCloseOnExec(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(SockIO, PollFdHasTheLayoutOfThePollRecord) {
    SockIO::PollFd records[2] = {SockIO::PollFd(5, POLLIN), SockIO::PollFd(6, POLLOUT, POLLHUP)};
    pollfd const* raw = records;
    EXPECT_EQ(raw[1].fd, 6);
    EXPECT_EQ(raw[1].events, POLLOUT);
    EXPECT_EQ(raw[1].revents, POLLHUP);
    EXPECT_EQ(SockIO::PollFd().fd, -1);
}

TEST(SockIO, PollFdsCompareOnlyByDescriptor) {
    SockIO::PollFd low(3, POLLIN);
    SockIO::PollFd high(4, 0);
    EXPECT_LT(SockIO::PollFd::Compare::Cmp(low, high), 0);
    EXPECT_GT(SockIO::PollFd::Compare::Cmp(high, low), 0);
    EXPECT_EQ(SockIO::PollFd::Compare::Cmp(low, SockIO::PollFd(3, POLLOUT)), 0);
}

TEST(SockAddr, HoldsHostPortAndAddress) {
    SockIO::SockAddr addr(String_t("name"), 22);
    EXPECT_STREQ(addr.Host().Text(), "name");
    EXPECT_EQ(addr.Port(), 22);
    EXPECT_TRUE(addr.IpAddr() == "");
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    addr.SetAddress(reinterpret_cast<sockaddr*>(&loopback), sizeof(loopback));
    EXPECT_STREQ(addr.IpAddr().Text(), "::1");
}

} // namespace
