#ifndef BRANTLE_TESTS_SUPPORT_DESCRIPTORS_H
#define BRANTLE_TESTS_SUPPORT_DESCRIPTORS_H

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <brantle/thornel/descriptor_io.h>

namespace support {

/// Two connected descriptors, closed at the end.
class DescriptorPair {
public:
    static DescriptorPair Sockets() {
        DescriptorPair pair;
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair._fds) < 0) throw std::runtime_error("socketpair");
        return pair;
    }
    /// A TCP connection on loopback.
    static DescriptorPair Tcp() {
        DescriptorPair pair;
        int const listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const name = reinterpret_cast<sockaddr*>(&address);
        pair._fds[0] = socket(AF_INET, SOCK_STREAM, 0);
        bool const connected = bind(listener, name, size) == 0 && listen(listener, 1) == 0 &&
                               getsockname(listener, name, &size) == 0 &&
                               connect(pair._fds[0], name, size) == 0;
        if (connected) pair._fds[1] = accept(listener, nullptr, nullptr);
        close(listener);
        if (pair._fds[1] < 0) throw std::runtime_error("no TCP connection");
        return pair;
    }
    /// `ours` is the reading end of the pipe when `reading`, else the writing one.
    static DescriptorPair Pipe(bool reading) {
        DescriptorPair pair;
        if (pipe(pair._fds) < 0) throw std::runtime_error("pipe");
        if (!reading) std::swap(pair._fds[0], pair._fds[1]);
        return pair;
    }
    DescriptorPair(DescriptorPair&& other) : _fds{other._fds[0], other._fds[1]} {
        other._fds[0] = other._fds[1] = -1;
    }
    ~DescriptorPair() {
        CloseOurs();
        ClosePeer();
    }

    int Ours() const { return _fds[0]; }
    int Peer() const { return _fds[1]; }
    void CloseOurs() { Close(_fds[0]); }
    void ClosePeer() { Close(_fds[1]); }

    /// The peer writes all of `bytes`, which must fit the descriptor's own buffer.
    void Send(std::string const& bytes) {
        if (write(_fds[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("peer could not write");
        }
    }
    /// What has arrived at the peer by now.
    std::string Received() { return Drain(_fds[1]); }
    /// What has arrived on this side by now and was not taken.
    std::string Left() { return Drain(_fds[0]); }

private:
    DescriptorPair() : _fds{-1, -1} {}

    static void Close(int& fd) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    static std::string Drain(int fd) {
        std::string bytes;
        char piece[4096];
        pollfd record{fd, POLLIN, 0};
        while (poll(&record, 1, 0) > 0 && (record.revents & POLLIN)) {
            ssize_t count = read(fd, piece, sizeof(piece));
            if (count < 1) break;
            bytes.append(piece, static_cast<std::size_t>(count));
        }
        return bytes;
    }

    int _fds[2];
};

/// While it lives, the system calls below the streams are interrupted every other time and move at
/// most `most` bytes when they are not.
class FaultyCalls {
public:
    explicit FaultyCalls(std::size_t most) : _before(DescriptorIO::SystemCalls()) {
        _most = most;
        _turn = 0;
        _interrupted = 0;
        DescriptorIO::SystemCalls() = {Recv, Send, SendMessage, Read, Write, Poll};
    }
    ~FaultyCalls() { DescriptorIO::SystemCalls() = _before; }
    FaultyCalls(FaultyCalls const&) = delete;
    FaultyCalls& operator=(FaultyCalls const&) = delete;

    int Interrupted() const { return _interrupted; }

private:
    static bool Interrupt() {
        if (_turn++ % 2 != 0) return false;
        ++_interrupted;
        errno = EINTR;
        return true;
    }
    static std::size_t Short(std::size_t size) { return size < _most ? size : _most; }
    static ssize_t SendMessage(int fd, msghdr const* message, int flags) {
        return Send(fd, message->msg_iov[0].iov_base, message->msg_iov[0].iov_len, flags);
    }
    static ssize_t Recv(int fd, void* to, std::size_t size, int flags) {
        return Interrupt() ? -1 : recv(fd, to, Short(size), flags);
    }
    static ssize_t Send(int fd, void const* from, std::size_t size, int flags) {
        return Interrupt() ? -1 : send(fd, from, Short(size), flags);
    }
    static ssize_t Read(int fd, void* to, std::size_t size) {
        return Interrupt() ? -1 : read(fd, to, Short(size));
    }
    static ssize_t Write(int fd, void const* from, std::size_t size) {
        return Interrupt() ? -1 : write(fd, from, Short(size));
    }
    static int Poll(pollfd* records, nfds_t count, int limit) {
        return Interrupt() ? -1 : poll(records, count, limit);
    }

    DescriptorIO::Calls _before;
    static inline std::size_t _most;
    static inline int _turn;
    static inline int _interrupted;
};

/// Counts the system calls below the streams while it lives.
class CallCounter {
public:
    CallCounter() : _before(DescriptorIO::SystemCalls()) {
        _transfers = _polls = 0;
        DescriptorIO::SystemCalls() = {Recv, Send, SendMessage, Read, Write, Poll};
    }
    ~CallCounter() { DescriptorIO::SystemCalls() = _before; }
    CallCounter(CallCounter const&) = delete;
    CallCounter& operator=(CallCounter const&) = delete;

    int Transfers() const { return _transfers; }
    int Polls() const { return _polls; }

private:
    static ssize_t Recv(int fd, void* to, std::size_t size, int flags) {
        ++_transfers;
        return recv(fd, to, size, flags);
    }
    static ssize_t Send(int fd, void const* from, std::size_t size, int flags) {
        ++_transfers;
        return send(fd, from, size, flags);
    }
    static ssize_t SendMessage(int fd, msghdr const* message, int flags) {
        ++_transfers;
        return sendmsg(fd, message, flags);
    }
    static ssize_t Read(int fd, void* to, std::size_t size) {
        ++_transfers;
        return read(fd, to, size);
    }
    static ssize_t Write(int fd, void const* from, std::size_t size) {
        ++_transfers;
        return write(fd, from, size);
    }
    static int Poll(pollfd* records, nfds_t count, int limit) {
        ++_polls;
        return poll(records, count, limit);
    }

    DescriptorIO::Calls _before;
    static inline int _transfers;
    static inline int _polls;
};

/// While it lives, notes each send(2) and sendmsg(2) below the streams.
class SendRecorder {
public:
    struct Sent {
        std::size_t _size;
        bool _more; ///< handed over as bytes that others follow

        friend bool operator==(Sent const& a, Sent const& b) {
            return a._size == b._size && a._more == b._more;
        }
        friend std::ostream& operator<<(std::ostream& out, Sent const& sent) {
            return out << sent._size << (sent._more ? " and more" : "");
        }
    };

    SendRecorder() : _before(DescriptorIO::SystemCalls()) {
        _sent.clear();
        DescriptorIO::SystemCalls().send = Send;
        DescriptorIO::SystemCalls().sendmsg = SendMessage;
    }
    ~SendRecorder() { DescriptorIO::SystemCalls() = _before; }
    SendRecorder(SendRecorder const&) = delete;
    SendRecorder& operator=(SendRecorder const&) = delete;

    /// What has been sent since the last call.
    std::vector<Sent> Take() { return std::exchange(_sent, {}); }

private:
    static ssize_t Send(int fd, void const* from, std::size_t size, int flags) {
        _sent.push_back({size, (flags & MSG_MORE) != 0});
        return send(fd, from, size, flags);
    }

    static ssize_t SendMessage(int fd, msghdr const* message, int flags) {
        std::size_t size = 0;
        for (std::size_t i = 0; i < message->msg_iovlen; ++i) size += message->msg_iov[i].iov_len;
        _sent.push_back({size, (flags & MSG_MORE) != 0});
        return sendmsg(fd, message, flags);
    }

    DescriptorIO::Calls _before;
    static inline std::vector<Sent> _sent;
};

/// Bytes written to a TCP socket that have not been put into a segment yet.
inline int Unsent(int fd) {
    int count = -1;
    return ioctl(fd, SIOCOUTQNSD, &count) < 0 ? -1 : count;
}

} // namespace support

#endif
