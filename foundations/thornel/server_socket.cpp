#include <brantle/thornel/server_socket.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "deadline.h"

namespace {

/// The IPv4 address in a text: numeric, a name, or the wildcard. False if there is none.
bool ToAddress(String_t const& text, in_addr& address) {
    if (str_empty(text.Text()) || text == "*") {
        address.s_addr = htonl(INADDR_ANY);
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(text.Text(), nullptr, &hints, &found) != 0) return false;
    address = reinterpret_cast<sockaddr_in const*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

int OpenListener(sockaddr_in const& address, int backlog) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int const reuse = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) < 0 ||
        bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof(address)) < 0 ||
        listen(fd, backlog) < 0) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

/// Whether accept failed only because that connection is gone, so that the next one is worth a try.
bool IsPassing(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED ||
           error == EPROTO;
}

} // namespace

ServerSocketIn::ServerSocketIn(int port, String_t const& address) : _port(port), _address(address), _fd(-1) {}

ServerSocketIn::~ServerSocketIn() {
    if (_fd >= 0) close(_fd);
}

int ServerSocketIn::Listen(int backlog) {
    if (_port < 0 || _port > 65535) {
        errno = EINVAL;
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(_port));
    if (!ToAddress(_address, address.sin_addr)) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    int fd = OpenListener(address, backlog);
    if (fd < 0) return -1;
    if (_fd >= 0) close(_fd);
    _fd = fd;
    return 0;
}

int ServerSocketIn::AcceptConnection(sockaddr_in& peer, unsigned int seconds) {
    if (_fd < 0) {
        errno = EBADF;
        return -1;
    }
    Deadline const deadline{std::chrono::seconds(seconds)};
    for (;;) {
        if (deadline.Wait(::poll, _fd, POLLIN) < 0) return -1;
        socklen_t length = sizeof(peer);
        int fd = accept4(_fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd >= 0 || !IsPassing(errno)) return fd;
    }
}

int ServerSocketIn::DecodeCaller(sockaddr_in const& peer, String_t& name, String_t& address,
                                 unsigned short& port) {
    int const result = DecodeCaller(peer, address, port);
    if (result < 0) return result;
    char host[NI_MAXHOST];
    int unnamed = getnameinfo(reinterpret_cast<sockaddr const*>(&peer), sizeof(peer), host, sizeof(host),
                              nullptr, 0, NI_NAMEREQD);
    name = unnamed ? address : String_t(host);
    return 0;
}

int ServerSocketIn::DecodeCaller(sockaddr_in const& peer, String_t& address, unsigned short& port) {
    char text[INET_ADDRSTRLEN];
    if (peer.sin_family != AF_INET || !inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text))) return -1;
    address = text;
    port = ntohs(peer.sin_port);
    return 0;
}
