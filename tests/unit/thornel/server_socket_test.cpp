#include <brantle/thornel/server_socket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/file_descriptor.h>

#include "support/text.h"

using support::Text;

namespace {

sockaddr_in LocalAddress(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address;
}

TEST(ServerSocketIn, AcceptReportsThePeer) {
    ServerSocketIn server(0, String_t("127.0.0.1"));
    EXPECT_LT(server.Fd(), 0);
    ASSERT_EQ(server.Listen(1), 0);
    ASSERT_GE(server.Fd(), 0);
    ClientSocketIn client(ntohs(LocalAddress(server.Fd()).sin_port), "127.0.0.1");
    int error = 0;
    FileDescriptor ours(client.Connect(5, error));
    ASSERT_GE(ours._fd, 0);
    sockaddr_in peer{};
    FileDescriptor accepted(server.AcceptConnection(peer, 60));
    ASSERT_GE(accepted._fd, 0);
    EXPECT_EQ(fcntl(accepted._fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(peer.sin_port, LocalAddress(ours._fd).sin_port);

    String_t name;
    String_t address;
    unsigned short port = 0;
    EXPECT_EQ(ServerSocketIn::DecodeCaller(peer, name, address, port), 0);
    EXPECT_EQ(Text(address), "127.0.0.1");
    EXPECT_EQ(port, ntohs(LocalAddress(ours._fd).sin_port));
    EXPECT_NE(Text(name), "");
}

TEST(ServerSocketIn, EmptyAddressAndStarAreAllAddresses) {
    for (char const* address : {"", "*", static_cast<char const*>(nullptr)}) {
        ServerSocketIn server(0, String_t(address));
        ASSERT_EQ(server.Listen(1), 0);
        EXPECT_EQ(LocalAddress(server.Fd()).sin_addr.s_addr, htonl(INADDR_ANY));
    }
}

TEST(ServerSocketIn, AddressMayBeAName) {
    ServerSocketIn server(0, String_t("localhost"));
    ASSERT_EQ(server.Listen(1), 0);
    EXPECT_EQ(LocalAddress(server.Fd()).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST(ServerSocketIn, PortInUseFailsWithErrno) {
    ServerSocketIn first(0, String_t("127.0.0.1"));
    ASSERT_EQ(first.Listen(1), 0);
    ServerSocketIn second(ntohs(LocalAddress(first.Fd()).sin_port), String_t("127.0.0.1"));
    errno = 0;
    EXPECT_LT(second.Listen(1), 0);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_LT(second.Fd(), 0);
}

TEST(ServerSocketIn, PortOutOfRangeIsInvalid) {
    for (int port : {-1, 65536}) {
        ServerSocketIn server(port, String_t("127.0.0.1"));
        errno = 0;
        EXPECT_LT(server.Listen(1), 0);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(ServerSocketIn, InvalidAddressFailsWithErrno) {
    ServerSocketIn server(0, String_t("no-such-host.invalid"));
    errno = 0;
    EXPECT_LT(server.Listen(1), 0);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(ServerSocketIn, AcceptTimesOut) {
    ServerSocketIn server(0, String_t("127.0.0.1"));
    sockaddr_in peer{};
    errno = 0;
    EXPECT_EQ(server.AcceptConnection(peer, 1), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_EQ(server.Listen(1), 0);
    EXPECT_EQ(server.AcceptConnection(peer, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(ServerSocketIn, DestructorClosesTheListener) {
    int fd;
    {
        ServerSocketIn server(0, String_t("127.0.0.1"));
        ASSERT_EQ(server.Listen(1), 0);
        fd = server.Fd();
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(ServerSocketIn, DecodeCallerRefusesAnotherFamily) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET6;
    String_t name;
    String_t address;
    unsigned short port = 0;
    EXPECT_LT(ServerSocketIn::DecodeCaller(peer, name, address, port), 0);
    EXPECT_LT(ServerSocketIn::DecodeCaller(peer, address, port), 0);
}

TEST(ServerSocketIn, DecodeCallerGivesAddressAndPortWithoutANameToo) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(0xc0000201); // 192.0.2.1
    peer.sin_port = htons(4711);
    String_t address;
    unsigned short port = 0;
    EXPECT_EQ(ServerSocketIn::DecodeCaller(peer, address, port), 0);
    EXPECT_EQ(Text(address), "192.0.2.1");
    EXPECT_EQ(port, 4711);
}

} // namespace
