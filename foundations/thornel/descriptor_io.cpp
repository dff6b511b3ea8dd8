#include <brantle/thornel/descriptor_io.h>

#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "deadline.h"

namespace {

/// Prevents delivery of the SIGPIPE of a write in this thread, for descriptors that do not support
/// MSG_NOSIGNAL. A SIGPIPE that was pending before stays pending.
class SigpipeShield {
public:
    SigpipeShield() : _consume(true) {
        sigemptyset(&_sigpipe);
        sigaddset(&_sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &_sigpipe, &_before);
        if (sigismember(&_before, SIGPIPE)) {
            sigset_t pending;
            sigpending(&pending);
            _consume = !sigismember(&pending, SIGPIPE);
        }
    }

    /// `broken` says that the write has raised the signal.
    void Drop(bool broken) {
        int error = errno;
        timespec const now{0, 0};
        if (broken && _consume) {
            while (sigtimedwait(&_sigpipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
        errno = error;
    }

private:
    sigset_t _sigpipe;
    sigset_t _before;
    bool _consume;
};

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

int SendFlags(unsigned int limit, bool more) {
    return (limit ? MSG_NOSIGNAL | MSG_DONTWAIT : MSG_NOSIGNAL) | (more ? MSG_MORE : 0);
}

iovec Part(DescriptorIO::Range const& range) { return {const_cast<char*>(range._from), range.Size()}; }

} // namespace

DescriptorIO::Calls& DescriptorIO::SystemCalls() {
    static Calls calls{::recv, ::send, ::sendmsg, ::read, ::write, ::poll};
    return calls;
}

void DescriptorIO::Set(int fd) {
    _fd = fd;
    _kind = OTHER;
    _drained = false;
    struct stat status;
    if (fd < 0 || fstat(fd, &status) < 0) return;
    if (S_ISSOCK(status.st_mode)) _kind = SOCKET;
    if (S_ISFIFO(status.st_mode)) _kind = PIPE;
}

int DescriptorIO::Read(char* to, std::size_t size, unsigned int limit) const {
    return static_cast<int>(ReadOnce(to, size, 0, limit));
}

int DescriptorIO::ReadUntil(char* to, std::size_t size, char last, unsigned int limit) const {
    if (_kind != SOCKET) return Read(to, std::min<std::size_t>(size, 1), limit);
    ssize_t ahead = ReadOnce(to, size, MSG_PEEK, limit);
    if (ahead < 1) return static_cast<int>(ahead);
    auto wanted = static_cast<std::size_t>(ahead);
    if (auto* stop = static_cast<char*>(std::memchr(to, last, wanted))) {
        wanted = static_cast<std::size_t>(stop - to) + 1;
    }
    return Read(to, wanted, limit);
}

int DescriptorIO::Write(char const*& from, char const* end, unsigned int limit, bool more) const {
    int const flags = SendFlags(limit, more);
    while (from != end) {
        ssize_t written = WriteOnce(from, static_cast<std::size_t>(end - from), limit, flags);
        if (written < 0) return -1;
        from += written;
    }
    return 0;
}

int DescriptorIO::Write(Range& first, Range& second, unsigned int limit, bool more) const {
    while (_kind == SOCKET && !first.IsEmpty() && !second.IsEmpty()) {
        ssize_t const written = SendOnce(first, second, limit, SendFlags(limit, more));
        if (written < 0) return -1;
        ssize_t const ofFirst = std::min<ssize_t>(written, first._end - first._from);
        first._from += ofFirst;
        second._from += written - ofFirst;
    }
    if (!first.IsEmpty() && Write(first._from, first._end, limit, more) < 0) return -1;
    return Write(second._from, second._end, limit, more);
}

void DescriptorIO::Uncork() const {
    int const uncorked = 0;
    if (_kind == SOCKET) setsockopt(_fd, IPPROTO_TCP, TCP_CORK, &uncorked, sizeof uncorked);
}

bool DescriptorIO::HasInput() const {
    pollfd input{_fd, POLLIN, 0};
    return SystemCalls().poll(&input, 1, 0) > 0;
}

ssize_t DescriptorIO::ReadOnce(char* to, std::size_t size, int flags, unsigned int limit) const {
    if (_fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (limit && (_kind != SOCKET || _drained) && Wait(POLLIN, limit) < 0) return -1;
    for (;;) {
        ssize_t count = _kind == SOCKET
                            ? SystemCalls().recv(_fd, to, size, limit ? flags | MSG_DONTWAIT : flags)
                            : SystemCalls().read(_fd, to, size);
        if (count >= 0) {
            _drained = static_cast<std::size_t>(count) < size;
            return count;
        }
        if (errno == EINTR) continue;
        if (!WouldBlock() || Wait(POLLIN, limit) < 0) return -1;
    }
}

ssize_t DescriptorIO::WriteOnce(char const* from, std::size_t size, unsigned int limit, int flags) const {
    if (_fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (limit && _kind != SOCKET) {
        if (Wait(POLLOUT, limit) < 0) return -1;
        size = std::min<std::size_t>(size, PIPE_BUF); // what a ready pipe accepts without blocking
    }
    return Retry(
        [=] {
            if (_kind == SOCKET) return SystemCalls().send(_fd, from, size, flags);
            if (_kind == OTHER) return SystemCalls().write(_fd, from, size);
            SigpipeShield shield;
            ssize_t const count = SystemCalls().write(_fd, from, size);
            shield.Drop(count < 0 && errno == EPIPE);
            return count;
        },
        limit);
}

/// WriteOnce for a socket and two ranges.
ssize_t DescriptorIO::SendOnce(Range const& first, Range const& second, unsigned int limit, int flags) const {
    iovec parts[] = {Part(first), Part(second)};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    return Retry([&] { return SystemCalls().sendmsg(_fd, &message, flags); }, limit);
}

/// Repeats a system call that writes until it has written something or failed.
template <class Call>
ssize_t DescriptorIO::Retry(Call const& call, unsigned int limit) const {
    for (;;) {
        ssize_t const count = call();
        if (count > 0) return count;
        if (count == 0) errno = EIO;
        if (count < 0 && errno == EINTR) continue;
        if (!WouldBlock() || Wait(POLLOUT, limit) < 0) return -1;
    }
}

int DescriptorIO::Wait(short events, unsigned int limit) const {
    return Deadline(std::chrono::seconds(limit)).Wait(SystemCalls().poll, _fd, events);
}
