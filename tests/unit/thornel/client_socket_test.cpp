#include <brantle/thornel/client_socket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/thornel/file_descriptor.h>

#include "support/temporary_directory.h"
#include "support/text.h"

using support::Text;

namespace {

/// A listener on loopback whose queue can be filled so that further connections get no answer.
class Listener {
public:
    explicit Listener(int family, int backlog = 4) : _fd(socket(family, SOCK_STREAM, 0)) {
        sockaddr_in v4{};
        sockaddr_in6 v6{};
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        v6.sin6_family = AF_INET6;
        v6.sin6_addr = in6addr_loopback;
        auto* address =
            family == AF_INET ? reinterpret_cast<sockaddr*>(&v4) : reinterpret_cast<sockaddr*>(&v6);
        socklen_t length = family == AF_INET ? sizeof(v4) : sizeof(v6);
        EXPECT_EQ(bind(_fd._fd, address, length), 0);
        EXPECT_EQ(listen(_fd._fd, backlog), 0);
        EXPECT_EQ(getsockname(_fd._fd, address, &length), 0);
        _port = ntohs(family == AF_INET ? v4.sin_port : v6.sin6_port);
    }
    unsigned short Port() const { return _port; }
    std::string Target(std::string const& host) const { return host + ":" + std::to_string(_port); }
    int Accept() { return accept(_fd._fd, nullptr, nullptr); }

private:
    FileDescriptor _fd;
    unsigned short _port;
};

/// A path for a socket in a temporary directory.
class SocketPath {
public:
    std::string Path() const { return _directory / "s"; }
    int Listen(int backlog) const {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        Path().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(fd, backlog), 0);
        return fd;
    }

private:
    support::TemporaryDirectory _directory;
};

TEST(ClientSocketIn, ConnectsToAHostAndPortText) {
    Listener listener(AF_INET);
    ClientSocketIn client(listener.Target("127.0.0.1").c_str());
    ASSERT_EQ(!client, 0);
    EXPECT_EQ(Text(client.Addr().Host()), "127.0.0.1");
    EXPECT_EQ(client.Addr().Port(), listener.Port());
    EXPECT_EQ(Text(client.Addr().IpAddr()), "127.0.0.1");
    int error = -1;
    FileDescriptor fd(client.Connect(5, error));
    ASSERT_GE(fd._fd, 0);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(fcntl(fd._fd, F_GETFL) & O_NONBLOCK, 0);
    FileDescriptor accepted(listener.Accept());
    ASSERT_EQ(write(accepted._fd, "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(fd._fd, &byte, 1), 1);
    EXPECT_EQ(Text(client.RefString()), listener.Target("127.0.0.1"));
}

TEST(ClientSocketIn, ConnectsWithoutALimit) {
    Listener listener(AF_INET);
    ClientSocketIn client(listener.Port(), "127.0.0.1");
    int error = -1;
    FileDescriptor fd(client.Connect(0, error));
    EXPECT_GE(fd._fd, 0);
}

TEST(ClientSocketIn, ConnectsToAnIpv6Literal) {
    Listener listener(AF_INET6);
    ClientSocketIn inBrackets(listener.Target("[::1]").c_str());
    ClientSocketIn portApart(listener.Port(), "::1");
    ClientSocketIn both(listener.Port(), "[::1]");
    for (ClientSocketIn* client : {&inBrackets, &portApart, &both}) {
        ASSERT_EQ(!*client, 0);
        EXPECT_EQ(Text(client->Addr().Host()), "::1");
        EXPECT_EQ(Text(client->Addr().IpAddr()), "::1");
        EXPECT_EQ(Text(client->RefString()), listener.Target("[::1]"));
        int error = -1;
        FileDescriptor fd(client->Connect(5, error));
        EXPECT_GE(fd._fd, 0) << error;
    }
}

TEST(ClientSocketIn, HostInBracketsIsAccepted) {
    Listener listener(AF_INET);
    ClientSocketIn client(listener.Target("[127.0.0.1]").c_str());
    ASSERT_EQ(!client, 0);
    EXPECT_EQ(Text(client.Addr().Host()), "127.0.0.1");
    int error = -1;
    FileDescriptor fd(client.Connect(5, error));
    EXPECT_GE(fd._fd, 0);
}

TEST(ClientSocketIn, EveryAddressOfANameIsTried) {
    Listener listener(AF_INET);
    ClientSocketIn client(listener.Target("localhost").c_str()); // perhaps ::1 first, without a listener
    ASSERT_EQ(!client, 0);
    int error = -1;
    FileDescriptor fd(client.Connect(5, error));
    ASSERT_GE(fd._fd, 0) << error;
    EXPECT_EQ(Text(client.Addr().IpAddr()), "127.0.0.1");
    EXPECT_EQ(Text(client.RefString()), listener.Target("localhost"));
}

TEST(ClientSocketIn, MalformedTargetIsInvalid) {
    for (char const* target : {"", "host", ":22", "host:", "host:x", "host:2x", "host:-1", "host: 22",
                               "host:65536", "host:99999999999", "::1:22", "::1", "a:b:22", "[::1]",
                               "[::1]22", "[::1", "[]:22", "[::1]:", "[::1]:65536"}) {
        errno = 0;
        ClientSocketIn client(target);
        int error = errno;
        EXPECT_NE(!client, 0) << target;
        EXPECT_EQ(error, EINVAL) << target;
    }
    errno = 0;
    ClientSocketIn none(static_cast<char const*>(nullptr));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(!none, 0);
    for (char const* host : {"", "[]", "[::1", static_cast<char const*>(nullptr)}) {
        errno = 0;
        ClientSocketIn client(22, host);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(!client, 0);
    }
}

TEST(ClientSocketIn, LargestPortIsAccepted) {
    ClientSocketIn client("127.0.0.1:65535");
    EXPECT_EQ(!client, 0);
    EXPECT_EQ(client.Addr().Port(), 65535);
}

TEST(ClientSocketIn, UnknownNameIsReported) {
    errno = 0;
    ClientSocketIn client("no-such-host.invalid:22");
    int const error = errno;
    EXPECT_NE(!client, 0);
    EXPECT_TRUE(error == ENOENT || error == EAGAIN) << error;
    EXPECT_EQ(Text(client.Addr().Host()), "no-such-host.invalid");
    EXPECT_EQ(Text(client.Addr().IpAddr()), "");
    int connectError = 0;
    EXPECT_EQ(client.Connect(1, connectError), -1);
    EXPECT_EQ(connectError, EINVAL);
}

TEST(ClientSocketIn, RefusedConnectionIsReported) {
    unsigned short port = Listener(AF_INET).Port(); // closed again by now
    ClientSocketIn client(port, "127.0.0.1");
    int error = 0;
    EXPECT_EQ(client.Connect(5, error), -1);
    EXPECT_EQ(error, ECONNREFUSED);
}

TEST(ClientSocketIn, SilentPeerTimesOut) {
    Listener listener(AF_INET, 0);
    ClientSocketIn client(listener.Port(), "127.0.0.1");
    int error = 0;
    std::vector<int> queued; // fills the listener's queue, which then drops what knocks
    auto const started = std::chrono::steady_clock::now();
    for (int fd; queued.size() < 8 && (fd = client.Connect(1, error)) >= 0;) queued.push_back(fd);
    EXPECT_LT(queued.size(), 8u);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    for (int fd : queued) close(fd);
}

TEST(ClientSocketUn, ConnectsToAListener) {
    SocketPath path;
    FileDescriptor listener(path.Listen(4));
    ClientSocketUn client{String_t(path.Path().c_str())};
    ASSERT_EQ(!client, 0);
    for (unsigned int limit : {5u, 0u}) {
        int error = -1;
        FileDescriptor fd(client.Connect(limit, error));
        ASSERT_GE(fd._fd, 0);
        EXPECT_EQ(error, 0);
        FileDescriptor accepted(accept(listener._fd, nullptr, nullptr));
        ASSERT_EQ(write(accepted._fd, "x", 1), 1);
        char byte = 0;
        EXPECT_EQ(read(fd._fd, &byte, 1), 1);
    }
}

TEST(ClientSocketUn, FullQueueTimesOut) {
    SocketPath path;
    FileDescriptor listener(path.Listen(0));
    ClientSocketUn client{String_t(path.Path().c_str())};
    int error = 0;
    std::vector<int> queued;
    for (int fd; queued.size() < 8 && (fd = client.Connect(1, error)) >= 0;) queued.push_back(fd);
    EXPECT_LT(queued.size(), 8u);
    EXPECT_EQ(error, ETIMEDOUT);
    for (int fd : queued) close(fd);
}

TEST(ClientSocketUn, MissingSocketIsReported) {
    ClientSocketUn client{String_t("/nonexistent/socket")};
    EXPECT_EQ(!client, 0);
    int error = 0;
    EXPECT_EQ(client.Connect(1, error), -1);
    EXPECT_EQ(error, ENOENT);
}

TEST(ClientSocketUn, PathOutOfBoundsFailsTheConstruction) {
    errno = 0;
    ClientSocketUn none{String_t()};
    EXPECT_EQ(errno, EINVAL);
    EXPECT_NE(!none, 0);
    ClientSocketUn longest{String_t(std::string(107, 'p').c_str())};
    EXPECT_EQ(!longest, 0);
    errno = 0;
    ClientSocketUn tooLong{String_t(std::string(108, 'p').c_str())};
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_NE(!tooLong, 0);
    int error = 0;
    EXPECT_EQ(tooLong.Connect(1, error), -1);
    EXPECT_EQ(error, EINVAL);
}

} // namespace
