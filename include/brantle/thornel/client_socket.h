#ifndef BRANTLE_THORNEL_CLIENT_SOCKET_H
#define BRANTLE_THORNEL_CLIENT_SOCKET_H

#include <sys/un.h>

#include <vector>

#include <brantle/thornel/export.h>
#include <brantle/thornel/sock_io.h>
#include <brantle/thornel/string_t.h>

/// Connects to a TCP server: its name is resolved at construction, to IPv6 and IPv4 addresses, and Connect
/// tries them in turn. Holds no descriptor: each Connect returns a new one, which the caller owns.
class THORNEL_API ClientSocketIn {
public:
    /// `target` is "host:port" or "[host]:port". A name with more than one colon needs the brackets.
    explicit ClientSocketIn(char const* target);
    /// `host` may be enclosed in brackets.
    ClientSocketIn(unsigned short port, char const* host);

    /// Non-zero when the address could not be set up. The constructor has then set errno: EINVAL for a text
    /// without a host or a port from 0 to 65535, ENOENT for a name that does not exist or has no address,
    /// EAGAIN when the name service did not answer, EHOSTUNREACH when it failed, ENOMEM, or the error that
    /// the system reported.
    int operator!() const { return _addresses.empty(); }

    /// Connects within `seconds` in total, regardless of the number of addresses; 0 means no limit. Returns a
    /// blocking descriptor that the caller owns, or -1 with the errno value in `error`: that of the last
    /// address tried, ETIMEDOUT when the time was up.
    int Connect(unsigned int seconds, int& error);

    /// The peer as text, "host:port" or "[host]:port".
    String_t RefString() const;
    /// The peer; its IpAddr() is the address connected to or, before that, the first one.
    SockIO::SockAddr const& Addr() const { return _addr; }

private:
    struct Address {
        sockaddr_storage _storage;
        socklen_t _length;
    };

    void Resolve();

    SockIO::SockAddr _addr;
    std::vector<Address> _addresses;
};

/// Connects to a server on a Unix-domain socket. Holds no descriptor: each Connect returns a new one.
class THORNEL_API ClientSocketUn {
public:
    /// `path` of 1 to 107 bytes; otherwise the construction has failed, with errno EINVAL or
    /// ENAMETOOLONG.
    explicit ClientSocketUn(String_t const& path);
    ~ClientSocketUn();

    /// Non-zero when construction failed.
    int operator!() const { return _address.sun_path[0] == '\0'; }

    /// Connects within `seconds`; 0 means no limit. Returns a blocking descriptor that the caller owns, or -1
    /// with the errno value in `error`.
    int Connect(unsigned int seconds, int& error);

private:
    sockaddr_un _address;
};

#endif
