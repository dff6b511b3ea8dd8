#ifndef BRANTLE_STANDARD_SOCKET_CONNECTOR_H
#define BRANTLE_STANDARD_SOCKET_CONNECTOR_H

#include <sys/socket.h>

#include <string>
#include <utility>
#include <vector>

#include <brantle/thornel/file_descriptor.h>

namespace cindral::standard {

/// Where a socket can be connected to.
struct SocketAddress {
    sockaddr_storage address;
    socklen_t size;
};
using SocketAddresses = std::vector<SocketAddress>;

/// The addresses of a host's port; none if the host is not known. May block in the resolver.
SocketAddresses ResolveHost(std::string const& host, unsigned int port);
/// The address of a Unix-domain socket; none if the path is too long.
SocketAddresses LocalAddress(std::string const& path);

/// Connects a stream socket without blocking, trying each of several addresses in turn. TCP sends small
/// pieces at once (TCP_NODELAY).
class SocketConnector {
public:
    explicit SocketConnector(SocketAddresses addresses) : _addresses(std::move(addresses)) {}

    /// Tries the next address. Returns a descriptor to be polled for output, which the object owns, or -1
    /// when there is no address left.
    int Next();
    /// Whether the descriptor is connected, once it is ready.
    bool IsConnected() const;
    /// The connected, non-blocking descriptor, for the caller to take over.
    FileDescriptor& Take() { return _fd; }

private:
    SocketAddresses const _addresses;
    std::size_t _next = 0;
    FileDescriptor _fd;
};

} // namespace cindral::standard

#endif
