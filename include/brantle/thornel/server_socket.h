#ifndef BRANTLE_THORNEL_SERVER_SOCKET_H
#define BRANTLE_THORNEL_SERVER_SOCKET_H

#include <netinet/in.h>

#include <brantle/thornel/export.h>
#include <brantle/thornel/string_t.h>

/// A listening TCP socket over IPv4, closed by the destructor.
class THORNEL_API ServerSocketIn {
public:
    /// Sets the port, 0 for one that the system chooses, and the local address: a numeric address or a name,
    /// empty or "*" for all. Does not open the socket yet.
    ServerSocketIn(int port, String_t const& address);
    virtual ~ServerSocketIn();
    ServerSocketIn(ServerSocketIn const&) = delete;
    ServerSocketIn& operator=(ServerSocketIn const&) = delete;

    /// Starts the listener with room for `backlog` waiting connections. Returns 0, or a negative value with
    /// errno set: EINVAL for a port out of range, EADDRNOTAVAIL for an invalid address.
    virtual int Listen(int backlog);

    /// The listening descriptor, negative before Listen.
    int Fd() const { return _fd; }

    /// Accepts one connection within `seconds` (0 means no limit) and stores the peer's address. Returns the
    /// new descriptor, which the caller owns, or -1 with errno set: ETIMEDOUT if there was no connection.
    int AcceptConnection(sockaddr_in& peer, unsigned int seconds);

    /// Splits an address into name, numeric text and port. For an address without a name, the name is its
    /// numeric text. Returns 0, or a negative value for an address that is not IPv4.
    static int DecodeCaller(sockaddr_in const& peer, String_t& name, String_t& address, unsigned short& port);
    /// The same without the name, which would need a reverse look-up that can block until it times out.
    static int DecodeCaller(sockaddr_in const& peer, String_t& address, unsigned short& port);

private:
    int _port;
    String_t _address;
    int _fd;
};

#endif
