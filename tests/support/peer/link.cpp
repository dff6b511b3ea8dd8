#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "support/peer/link.h"

namespace peer {

namespace {

void SwitchOn(int fd, int tcpOption) {
    int const on = 1;
    setsockopt(fd, IPPROTO_TCP, tcpOption, &on, sizeof on);
}

} // namespace

Link::Link(int fd, int abortFd) : _fd(fd), _abortFd(abortFd) { SwitchOn(_fd, TCP_NODELAY); }

Link::~Link() {
    if (_fd >= 0) close(_fd);
}

void Link::Begin() {
    if (faults.cutAfterSent == std::size_t{0} || faults.cutAfterReceived == std::size_t{0}) CutNow();
}

void Link::Send(Bytes const& bytes) {
    Bytes rest = bytes;
    if (faults.flipSent && *faults.flipSent >= _sentCount && *faults.flipSent - _sentCount < rest.size())
        rest[*faults.flipSent - _sentCount] ^= faults.flipMask;
    bool cut = false;
    if (faults.cutAfterSent && *faults.cutAfterSent - _sentCount <= rest.size()) {
        rest.resize(*faults.cutAfterSent - _sentCount);
        cut = true;
    }
    std::size_t const step = faults.segment == 0 ? std::max<std::size_t>(rest.size(), 1) : faults.segment;
    for (std::size_t at = 0; at < rest.size(); at += step) {
        if (faults.delay.count() > 0) std::this_thread::sleep_for(faults.delay);
        SendPiece(Slice(rest, at, step));
    }
    if (cut) CutNow();
}

void Link::SendPiece(Bytes const& piece) {
    std::size_t at = 0;
    while (at < piece.size()) {
        ssize_t const n = send(_fd, piece.data() + at, piece.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            at += static_cast<std::size_t>(n);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            WaitFor(POLLOUT, "write");
        } else if (errno != EINTR) {
            throw Closed(std::string("write: ") + std::strerror(errno));
        }
    }
    _sentCount += piece.size();
    if (recording) _sent.insert(_sent.end(), piece.begin(), piece.end());
}

Bytes Link::Receive(std::size_t count) {
    Bytes bytes = ReceiveUpTo(count);
    if (bytes.size() < count)
        throw Closed("the client has closed: " + std::to_string(count) + " bytes wanted, " +
                     std::to_string(bytes.size()) + " came");
    return bytes;
}

Bytes Link::ReceiveUpTo(std::size_t count) {
    bool cut = false;
    if (faults.cutAfterReceived && *faults.cutAfterReceived - _receivedCount <= count) {
        count = *faults.cutAfterReceived - _receivedCount;
        cut = true;
    }
    Bytes bytes(count);
    std::size_t at = 0;
    while (at < count) {
        // A client that leaves Nagle's algorithm on must not wait 40 ms for each acknowledgement. The kernel
        // forgets the option again.
        SwitchOn(_fd, TCP_QUICKACK);
        WaitFor(POLLIN, "read");
        ssize_t const n = recv(_fd, bytes.data() + at, count - at, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) break;
        if (n < 0 && errno != EAGAIN && errno != EINTR)
            throw PeerError(std::string("read: ") + std::strerror(errno));
        if (n > 0) at += static_cast<std::size_t>(n);
    }
    bytes.resize(at);
    _receivedCount += at;
    if (recording) _received.insert(_received.end(), bytes.begin(), bytes.end());
    if (cut && at == count) CutNow();
    return bytes;
}

void Link::LimitReceiving(int bytes) { setsockopt(_fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes); }

bool Link::WaitReadable(std::chrono::milliseconds limit) {
    pollfd fd{_fd, POLLIN, 0};
    return poll(&fd, 1, static_cast<int>(limit.count())) > 0;
}

void Link::WaitFor(short events, char const* what) {
    if (_fd < 0) throw Closed(std::string("connection was reset before this ") + what);
    std::array<pollfd, 2> fds{pollfd{_fd, events, 0}, pollfd{_abortFd, POLLIN, 0}};
    auto const end = std::chrono::steady_clock::now() + waitLimit;
    for (;;) {
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        int const n = left.count() > 0 ? poll(fds.data(), fds.size(), static_cast<int>(left.count())) : 0;
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) throw PeerError(std::string("time limit reached in ") + what);
        if (fds[1].revents != 0) throw PeerError(std::string("given up by the test in ") + what);
        return;
    }
}

void Link::ShutdownWrite() {
    if (_fd >= 0 && !_writeShut) shutdown(_fd, SHUT_WR);
    _writeShut = true;
}

void Link::Reset() {
    linger const hard{1, 0};
    setsockopt(_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(_fd);
    _fd = -1;
}

void Link::DrainUntil(int stopFd) {
    std::array<char, 65536> buffer;
    auto const end = std::chrono::steady_clock::now() + timeLimit;
    while (_fd >= 0 && std::chrono::steady_clock::now() < end) {
        std::array<pollfd, 2> fds{pollfd{_fd, POLLIN, 0}, pollfd{stopFd, POLLIN, 0}};
        if (poll(fds.data(), fds.size(), 1000) <= 0) continue;
        if (fds[0].revents == 0) return;
        ssize_t const n = recv(_fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return;
        if (n > 0) _droppedCount += static_cast<std::size_t>(n);
    }
}

void Link::CutNow() {
    if (faults.reset)
        Reset();
    else
        ShutdownWrite();
    throw Cut("cut as asked for");
}

} // namespace peer
