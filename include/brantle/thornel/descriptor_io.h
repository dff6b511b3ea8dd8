#ifndef BRANTLE_THORNEL_DESCRIPTOR_IO_H
#define BRANTLE_THORNEL_DESCRIPTOR_IO_H

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

#include <brantle/thornel/export.h>

/// Reads and writes on one descriptor: the one place where interrupted calls, short counts, closed
/// peers, non-blocking descriptors and time limits are dealt with.
///
/// Sockets, pipes, terminals and files are distinguished once, when the descriptor is set, so that a transfer
/// on the fast path is a single system call. A write to a closed peer fails with EPIPE and raises no SIGPIPE.
/// The caller continues to own the descriptor. A time limit is in seconds and applies to each wait
/// separately; 0 means no limit; a wait that exceeds it fails with ETIMEDOUT.
class THORNEL_API DescriptorIO {
public:
    /// The system calls used, replaceable as a set so that tests can interrupt and shorten them.
    struct Calls {
        ssize_t (*recv)(int, void*, std::size_t, int);
        ssize_t (*send)(int, void const*, std::size_t, int);
        ssize_t (*sendmsg)(int, msghdr const*, int);
        ssize_t (*read)(int, void*, std::size_t);
        ssize_t (*write)(int, void const*, std::size_t);
        int (*poll)(pollfd*, nfds_t, int);
    };
    static Calls& SystemCalls();

    /// Bytes that are still to be written.
    struct Range {
        char const* _from;
        char const* _end;

        bool IsEmpty() const { return _from == _end; }
        std::size_t Size() const { return static_cast<std::size_t>(_end - _from); }
    };

    explicit DescriptorIO(int fd = -1) { Set(fd); }

    /// Uses `fd` from now on; a negative value means none, and every transfer then fails with EBADF.
    void Set(int fd);
    int Fd() const { return _fd; }

    /// Reads what is available, at least one byte and at most `size`, waiting if there is none. Returns the
    /// number, 0 at the end of the input, -1 on failure with errno set.
    int Read(char* to, std::size_t size, unsigned int limit) const;

    /// As Read, but stops after the first `last` and reads no byte after that from the descriptor.
    int ReadUntil(char* to, std::size_t size, char last, unsigned int limit) const;

    /// Writes everything from `from` to `end` and advances `from` by what has been written. Returns 0, or -1
    /// with errno set. With `more`, other bytes follow immediately: a TCP socket may delay the last partial
    /// segment until those bytes or an Uncork, but for no longer than 200 ms.
    int Write(char const*& from, char const* end, unsigned int limit, bool more = false) const;

    /// The same for two ranges, one after the other. A socket takes both in one system call.
    int Write(Range& first, Range& second, unsigned int limit, bool more = false) const;

    /// Sends what a socket is delaying because of `more`.
    void Uncork() const;

    /// Whether a read would return input, end of file or an error without waiting.
    bool HasInput() const;

private:
    enum Kind { SOCKET, PIPE, OTHER };

    ssize_t ReadOnce(char* to, std::size_t size, int flags, unsigned int limit) const;
    ssize_t WriteOnce(char const* from, std::size_t size, unsigned int limit, int flags) const;
    ssize_t SendOnce(Range const& first, Range const& second, unsigned int limit, int flags) const;
    template <class Call>
    ssize_t Retry(Call const& call, unsigned int limit) const;
    int Wait(short events, unsigned int limit) const;

    int _fd;
    Kind _kind;
    mutable bool _drained; ///< the last read got fewer bytes than it had room for, so the next one will wait
};

#endif
