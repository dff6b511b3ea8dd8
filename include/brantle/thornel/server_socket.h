#ifndef BRANTLE_THORNEL_SERVER_SOCKET_H
#define BRANTLE_THORNEL_SERVER_SOCKET_H

#include <netinet/in.h>

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// A listening TCP socket over IPv4, closed by the destructor.
class THORNEL_API ServerSocketIn {
public:
    /// Will listen on `port`, 0 for one that the system picks, and on the local address `address`: a
    /// numeric address or a name; empty or "*" for all. Opens nothing yet.
    ServerSocketIn(int port, String_t const& address);
    virtual ~ServerSocketIn();
    ServerSocketIn(ServerSocketIn const&) = delete;
    ServerSocketIn& operator=(ServerSocketIn const&) = delete;

    /// Starts the listener with room for `backlog` waiting connections. Returns 0, or a negative value
    /// with errno set: EINVAL for a port out of range, EADDRNOTAVAIL for an address that is none.
    virtual int Listen(int backlog);

    /// The listening descriptor, negative before Listen.
    int Fd() const { return _fd; }

    /// Accepts one connection within `seconds` (0 is no limit) and stores the peer's address. Returns
    /// the new descriptor, which is the caller's, or -1 with errno set, ETIMEDOUT when none came.
    int AcceptConnection(sockaddr_in& peer, unsigned int seconds);

    /// Splits an address into name, numeric text and port. An address without a name has its numeric
    /// text for one. Returns 0, or a negative value for an address that is not IPv4.
    static int DecodeCaller(sockaddr_in const& peer, String_t& name, String_t& address, unsigned short& port);
    /// The same without the name, which takes a reverse look-up and may block for its time limit.
    static int DecodeCaller(sockaddr_in const& peer, String_t& address, unsigned short& port);

private:
    int _port;
    String_t _address;
    int _fd;
};

#endif
