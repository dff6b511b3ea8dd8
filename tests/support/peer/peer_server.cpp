#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>

#include "support/peer/peer_server.h"

namespace peer {

namespace {

int Check(int result, char const* call) {
    if (result < 0) throw PeerError(std::string(call) + ": " + std::strerror(errno));
    return result;
}

/// A sockaddr_in, or a sockaddr_in6, on any port.
sockaddr_in6 LoopbackAddress(bool ipv6) {
    sockaddr_in6 address{};
    if (ipv6) {
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
    } else {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::memcpy(&address, &v4, sizeof v4);
    }
    return address;
}

/// A socket bound to an ephemeral port of the loopback interface that no other socket of this process has
/// had: clients remember the host key of a port for as long as they run.
int BindToNewPort(bool ipv6, std::uint16_t& port) {
    static std::mutex mutex;
    static std::set<std::uint16_t> used;
    std::lock_guard<std::mutex> const lock(mutex);
    for (;;) {
        sockaddr_in6 address = LoopbackAddress(ipv6);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        int const fd = Check(socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
        Check(bind(fd, generic, length), "bind");
        Check(getsockname(fd, generic, &length), "getsockname");
        port = ntohs(address.sin6_port); // where sockaddr_in has it, too
        if (used.insert(port).second) return fd;
        close(fd);
    }
}

void Raise(int eventFd) {
    std::uint64_t const one = 1;
    if (write(eventFd, &one, sizeof one) != sizeof one) std::terminate();
}

} // namespace

PeerListener::PeerListener(bool ipv6) {
    _stopFd = Check(eventfd(0, EFD_CLOEXEC), "eventfd");
    _abortFd = Check(eventfd(0, EFD_CLOEXEC), "eventfd");
    _fd = BindToNewPort(ipv6, _port);
    Check(listen(_fd, 64), "listen");
}

PeerListener::~PeerListener() {
    for (int fd : {_fd, _stopFd, _abortFd}) close(fd);
}

int PeerListener::Accept() const {
    for (;;) {
        std::array<pollfd, 2> fds{pollfd{_fd, POLLIN, 0}, pollfd{_stopFd, POLLIN, 0}};
        if (poll(fds.data(), fds.size(), -1) < 0) continue;
        if (fds[1].revents != 0) return -1;
        int const fd = accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) return fd;
    }
}

void PeerListener::Stop() const { Raise(_stopFd); }

void PeerListener::Abort() const { Raise(_abortFd); }

} // namespace peer
