#ifndef BRANTLE_STANDARD_TCP_CONNECTOR_H
#define BRANTLE_STANDARD_TCP_CONNECTOR_H

#include <netdb.h>

#include <memory>
#include <string>

#include <brantle/thornel/file_descriptor.h>

namespace cindral::standard {

/// Connects to a host and port without waiting for the connection: each of the host's addresses in turn. The
/// look-up of a name may wait for the resolver.
class TcpConnector {
public:
    TcpConnector(std::string const& host, unsigned int port);

    /// Begins with the next address. Returns a descriptor to be watched for output, which the object owns, or
    /// -1 when there is no address left.
    int Next();
    /// Once the descriptor is ready: whether it is connected.
    bool IsConnected() const;
    /// Gives up the connected descriptor, which does not block.
    FileDescriptor& Take() { return _fd; }

private:
    struct Free {
        void operator()(addrinfo* list) const { freeaddrinfo(list); }
    };

    std::unique_ptr<addrinfo, Free> _addresses;
    addrinfo const* _next = nullptr;
    FileDescriptor _fd;
};

} // namespace cindral::standard

#endif
