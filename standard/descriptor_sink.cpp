#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <brantle/cindral/exceptions.h>

#include "standard/descriptor_sink.h"

namespace cindral::standard {

namespace {

/// Keeps a SIGPIPE caused by this thread from being delivered.
class NoSigpipe {
public:
    NoSigpipe() {
        sigset_t pending;
        sigemptyset(&_sigpipe);
        sigaddset(&_sigpipe, SIGPIPE);
        sigpending(&pending);
        _wasPending = sigismember(&pending, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &_sigpipe, &_before);
    }
    ~NoSigpipe() {
        int const error = errno;
        timespec const now{0, 0};
        if (error == EPIPE && !_wasPending)
            while (sigtimedwait(&_sigpipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
        errno = error;
    }

private:
    sigset_t _sigpipe;
    sigset_t _before;
    bool _wasPending;
};

int OpenAgain(int fd) {
    std::string const path = "/proc/self/fd/" + std::to_string(fd);
    return open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

[[noreturn]] void Failed(int error) {
    throw SystemError("write failed", error, String_t(std::strerror(error)));
}

} // namespace

DescriptorSink::DescriptorSink(int fd, bool borrows) {
    struct stat status{};
    bool const isPipe = fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
    if (S_ISSOCK(status.st_mode)) _kind = Kind::SOCKET;
    if (isPipe) _kind = Kind::PIPE;
    if (isPipe || isatty(fd)) {
        _own._fd = OpenAgain(fd);
        _waits = _own._fd < 0 && !(fcntl(fd, F_GETFL) & O_NONBLOCK);
    }
    if (_own._fd < 0) _own._fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    _fd = _own._fd;
    if (_fd >= 0) return;
    if (!borrows || (errno != EMFILE && errno != ENFILE)) Failed(errno);
    _fd = fd;
}

std::size_t DescriptorSink::Write(View data) {
    std::size_t left = 0;
    if (!IsEmpty()) {
        left = WriteSome(View(_kept.data() + _pos, _kept.size() - _pos));
        _pos += left;
        if (IsEmpty()) Clear();
    }
    std::size_t const direct = IsEmpty() ? WriteSome(data) : 0;
    if (_pos > _kept.size() / 2) { // what has been written is dropped, though a rest always remains
        _kept.erase(_kept.begin(), _kept.begin() + static_cast<std::ptrdiff_t>(_pos));
        _pos = 0;
    }
    _kept.insert(_kept.end(), data.begin() + direct, data.end());
    return left + direct;
}

void DescriptorSink::Clear() {
    _kept = Bytes();
    _pos = 0;
}

std::size_t DescriptorSink::WriteSome(View data) {
    std::size_t done = 0;
    while (done < data.size()) {
        long const written = WriteOnce(View(data.data() + done, data.size() - done));
        if (written > 0) {
            done += static_cast<std::size_t>(written);
        } else if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else if (written == 0 || errno != EINTR) {
            Failed(written == 0 ? EIO : errno);
        }
    }
    return done;
}

long DescriptorSink::WriteOnce(View data) const {
    if (_kind == Kind::SOCKET) return send(_fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    std::size_t size = data.size();
    if (_waits) {
        pollfd room{_fd, POLLOUT, 0};
        if (poll(&room, 1, 0) == 0) {
            errno = EAGAIN;
            return -1;
        }
        size = std::min<std::size_t>(size, PIPE_BUF);
    }
    if (_kind != Kind::PIPE) return write(_fd, data.data(), size);
    NoSigpipe const shield;
    return write(_fd, data.data(), size);
}

} // namespace cindral::standard
