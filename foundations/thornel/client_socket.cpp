#include <brantle/thornel/client_socket.h>

#include <fcntl.h>
#include <netdb.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "deadline.h"

namespace {

using std::chrono::milliseconds;

/// Closes the descriptor, keeps errno and returns -1.
int CloseKeepingErrno(int fd) {
    int error = errno;
    close(fd);
    errno = error;
    return -1;
}

/// The host in a text without its brackets; empty if they do not match.
String_t WithoutBrackets(char const* begin, std::size_t length) {
    if (length > 0 && *begin == '[') {
        if (length < 2 || begin[length - 1] != ']') return String_t();
        ++begin;
        length -= 2;
    }
    return String_t(begin, static_cast<unsigned int>(length));
}

bool ParsePort(char const* text, unsigned short& port) {
    unsigned int value = 0;
    if (*text == '\0') return false;
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') return false;
        value = value * 10 + static_cast<unsigned int>(*text - '0');
        if (value > 65535) return false;
    }
    port = static_cast<unsigned short>(value);
    return true;
}

/// Splits "host:port" or "[host]:port"; an empty host means that the text is neither.
SockIO::SockAddr ParseTarget(char const* target) {
    char const* hostEnd =
        target ? (*target == '[' ? std::strchr(target, ']') : std::strchr(target, ':')) : nullptr;
    if (hostEnd && *target == '[') ++hostEnd;
    unsigned short port = 0;
    if (!hostEnd || *hostEnd != ':' || !ParsePort(hostEnd + 1, port)) return SockIO::SockAddr();
    return SockIO::SockAddr(WithoutBrackets(target, static_cast<std::size_t>(hostEnd - target)), port);
}

/// The errno value closest to the result of getaddrinfo.
int ErrnoOf(int addressError) {
    switch (addressError) {
    case EAI_AGAIN:
        return EAGAIN;
    case EAI_MEMORY:
        return ENOMEM;
    case EAI_SYSTEM:
        return errno;
    case EAI_FAIL:
        return EHOSTUNREACH;
    default:
        return ENOENT;
    }
}

/// Connects a TCP socket, which is blocking afterwards. Returns it, or -1 with errno set.
int ConnectIn(sockaddr_storage const& address, socklen_t length, Deadline const& deadline) {
    int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<sockaddr const*>(&address), length) < 0) {
        if (errno != EINPROGRESS && errno != EINTR) return CloseKeepingErrno(fd);
        if (deadline.Wait(::poll, fd, POLLOUT) < 0) return CloseKeepingErrno(fd);
        int error = 0;
        socklen_t size = sizeof(error);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0) return CloseKeepingErrno(fd);
        if (error != 0) {
            errno = error;
            return CloseKeepingErrno(fd);
        }
    }
    if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) < 0) return CloseKeepingErrno(fd);
    return fd;
}

int SetSendLimit(int fd, milliseconds limit) {
    timeval value{static_cast<time_t>(limit.count() / 1000),
                  static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof(value));
}

} // namespace

ClientSocketIn::ClientSocketIn(char const* target) : _addr(ParseTarget(target)) { Resolve(); }

ClientSocketIn::ClientSocketIn(unsigned short port, char const* host)
    : _addr(host ? WithoutBrackets(host, std::strlen(host)) : String_t(), port) {
    Resolve();
}

void ClientSocketIn::Resolve() {
    if (str_empty(_addr.Host().Text())) {
        errno = EINVAL;
        return;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    char service[8];
    std::snprintf(service, sizeof(service), "%u", static_cast<unsigned int>(_addr.Port()));
    addrinfo* found = nullptr;
    int failed = getaddrinfo(_addr.Host().Text(), service, &hints, &found);
    if (failed) {
        errno = ErrnoOf(failed);
        return;
    }
    for (addrinfo* info = found; info; info = info->ai_next) {
        if (info->ai_family != AF_INET && info->ai_family != AF_INET6) continue;
        Address address{{}, info->ai_addrlen};
        std::memcpy(&address._storage, info->ai_addr, info->ai_addrlen);
        _addresses.push_back(address);
    }
    freeaddrinfo(found);
    if (_addresses.empty()) {
        errno = ENOENT;
        return;
    }
    _addr.SetAddress(reinterpret_cast<sockaddr const*>(&_addresses[0]._storage), _addresses[0]._length);
}

int ClientSocketIn::Connect(unsigned int seconds, int& error) {
    Deadline const whole{std::chrono::seconds(seconds)};
    error = EINVAL;
    // An address that does not respond uses no more than its share of the time.
    for (std::size_t i = 0; i < _addresses.size(); ++i) {
        milliseconds share(0);
        if (whole.IsLimited()) {
            share = whole.Remaining() / static_cast<long>(_addresses.size() - i);
            if (share.count() == 0) {
                error = ETIMEDOUT;
                break;
            }
        }
        Address const& address = _addresses[i];
        int fd = ConnectIn(address._storage, address._length, Deadline(share));
        if (fd >= 0) {
            _addr.SetAddress(reinterpret_cast<sockaddr const*>(&address._storage), address._length);
            error = 0;
            return fd;
        }
        error = errno;
    }
    return -1;
}

String_t ClientSocketIn::RefString() const {
    bool const literal = _addr.Host().Text() && std::strchr(_addr.Host().Text(), ':');
    char port[8];
    std::snprintf(port, sizeof(port), ":%u", static_cast<unsigned int>(_addr.Port()));
    String_t text(literal ? "[" : "");
    text += _addr.Host();
    text += literal ? "]" : "";
    text += port;
    return text;
}

ClientSocketUn::ClientSocketUn(String_t const& path) : _address{} {
    _address.sun_family = AF_UNIX;
    std::size_t const length = str_len(path.Text());
    if (length == 0 || length >= sizeof(_address.sun_path)) {
        errno = length == 0 ? EINVAL : ENAMETOOLONG;
        return;
    }
    std::memcpy(_address.sun_path, path.Text(), length);
}

ClientSocketUn::~ClientSocketUn() = default;

int ClientSocketUn::Connect(unsigned int seconds, int& error) {
    if (!*this) {
        error = EINVAL;
        return -1;
    }
    // poll can't wait for a server whose queue is full: connect itself waits, up to the send timeout.
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Deadline const deadline{std::chrono::seconds(seconds)};
    int connected = fd;
    while (connected >= 0) {
        milliseconds limit =
            deadline.IsLimited() ? std::max(deadline.Remaining(), milliseconds(1)) : milliseconds(0);
        connected = SetSendLimit(fd, limit);
        if (connected == 0)
            connected = connect(fd, reinterpret_cast<sockaddr const*>(&_address), sizeof(_address));
        if (connected == 0) connected = SetSendLimit(fd, milliseconds(0));
        if (connected == 0) {
            error = 0;
            return fd;
        }
        if (errno == EINTR) connected = 0;
    }
    error = errno == EAGAIN ? ETIMEDOUT : errno;
    if (fd >= 0) close(fd);
    return -1;
}
