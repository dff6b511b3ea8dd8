#ifndef BRANTLE_STANDARD_TCP_CONNECTOR_H
#define BRANTLE_STANDARD_TCP_CONNECTOR_H

#include <netdb.h>

#include <memory>
#include <string>

#include <brantle/thornel/file_descriptor.h>

namespace cindral::standard {

/// Connects to a host and port without blocking, trying each of the host's addresses in turn. The look-up of
/// a name may block in the resolver.
class TcpConnector {
public:
    TcpConnector(std::string const& host, unsigned int port);

    /// Tries the next address. Returns a descriptor to be polled for output, which the object owns, or -1
    /// when there is no address left.
    int Next();
    /// Whether the descriptor is connected, once it is ready.
    bool IsConnected() const;
    /// The connected, non-blocking descriptor, for the caller to take over.
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
