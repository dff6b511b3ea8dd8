#ifndef TESTS_WIRE_TCP_END_H
#define TESTS_WIRE_TCP_END_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace tcp {

inline sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// The local port of a socket.
inline std::uint16_t PortOf(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) < 0)
        throw std::runtime_error("getsockname");
    return ntohs(address.sin_port);
}

/// One end of a TCP connection, in the hands of a test. A wait of 30 seconds throws.
class End {
public:
    explicit End(int fd) : _fd(fd) {
        timeval const limit{30, 0};
        setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    End(End&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    End& operator=(End&& other) noexcept {
        std::swap(_fd, other._fd);
        return *this;
    }
    ~End() { Close(); }

    /// A connection to a port of 127.0.0.1.
    static End To(std::uint16_t port) {
        End end(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in const address = Loopback(port);
        if (connect(end._fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) < 0)
            throw std::runtime_error("connect");
        return end;
    }
    static bool Accepts(std::uint16_t port) {
        try {
            To(port);
            return true;
        } catch (std::runtime_error const&) {
            return false;
        }
    }

    int Fd() const { return _fd; }
    std::uint16_t Port() const { return PortOf(_fd); }

    void Send(std::string const& bytes) const {
        for (std::size_t sent = 0; sent < bytes.size();) {
            ssize_t const n = send(_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n < 0) throw std::runtime_error("send");
            sent += static_cast<std::size_t>(n);
        }
    }
    /// So many bytes, or fewer if the stream ends before.
    std::string Receive(std::size_t count) const {
        std::string bytes;
        std::array<char, 65536> piece;
        while (bytes.size() < count) {
            ssize_t const n = recv(_fd, piece.data(), std::min(piece.size(), count - bytes.size()), 0);
            if (n < 0) throw std::runtime_error("recv");
            if (n == 0) break;
            bytes.append(piece.data(), static_cast<std::size_t>(n));
        }
        return bytes;
    }
    std::string ReceiveAll() const { return Receive(std::string::npos); }
    /// Waits for the next event of the other end. Returns whether that is its end, with or without a reset.
    bool IsClosedByPeer() const {
        char byte;
        ssize_t const n = recv(_fd, &byte, 1, 0);
        if (n < 0 && errno != ECONNRESET) throw std::runtime_error("recv");
        return n <= 0;
    }

    void EndSending() const { shutdown(_fd, SHUT_WR); }
    void Close() {
        if (_fd >= 0) close(_fd);
        _fd = -1;
    }
    void Reset() {
        linger const reset{1, 0};
        setsockopt(_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        Close();
    }

private:
    int _fd;
};

/// A service on 127.0.0.1, the connections of which a test accepts.
class Service {
public:
    Service() : _fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in const address = Loopback(0);
        if (bind(_fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) < 0 || listen(_fd, 10) < 0)
            throw std::runtime_error("listen");
        timeval const limit{30, 0};
        setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~Service() { Stop(); }
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;

    std::uint16_t Port() const { return PortOf(_fd); }
    End Accept() const {
        int const fd = accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) throw std::runtime_error("accept");
        return End(fd);
    }
    /// From now on connections are refused.
    void Stop() {
        if (_fd >= 0) close(_fd);
        _fd = -1;
    }

private:
    int _fd;
};

/// A port that no process listens on.
inline std::uint16_t FreePort() { return Service().Port(); }

} // namespace tcp

#endif
