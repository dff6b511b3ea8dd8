#ifndef BRANTLE_THORNEL_SOCK_IO_H
#define BRANTLE_THORNEL_SOCK_IO_H

#include <poll.h>
#include <sys/socket.h>

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// Utilities for descriptors and socket addresses.
class THORNEL_API SockIO {
public:
    /// The operating system's poll record, with an order by descriptor.
    struct PollFd : pollfd {
        PollFd() : pollfd{-1, 0, 0} {}
        PollFd(int descriptor, short wanted, short ready = 0) : pollfd{descriptor, wanted, ready} {}

        /// Orders records by their descriptors.
        struct Compare {
            static int Cmp(PollFd const& a, PollFd const& b) { return (a.fd > b.fd) - (a.fd < b.fd); }
            int operator()(PollFd const& a, PollFd const& b) const { return Cmp(a, b); }
        };
    };

    /// A host by name and port, with its address once that is known.
    class THORNEL_API SockAddr {
    public:
        SockAddr();
        SockAddr(String_t const& host, unsigned short port);

        /// The host as given by the program, without brackets.
        String_t const& Host() const { return _host; }
        unsigned short Port() const { return _port; }
        /// The numeric address, as in "127.0.0.1" or "::1"; empty while it is not known.
        String_t IpAddr() const;

        /// Stores the address, which is a sockaddr_in or sockaddr_in6.
        void SetAddress(sockaddr const* address, socklen_t length);

    private:
        String_t _host;
        unsigned short _port;
        sockaddr_storage _address;
        socklen_t _length;
    };

    /// Sets the close-on-exec flag. Returns 0, or -1 with errno set.
    static int SetCloseOnExec(int fd);
};

static_assert(sizeof(SockIO::PollFd) == sizeof(pollfd), "a vector of PollFd is handed to poll as it stands");

#endif
