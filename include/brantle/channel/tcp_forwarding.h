#ifndef BRANTLE_CHANNEL_TCP_FORWARDING_H
#define BRANTLE_CHANNEL_TCP_FORWARDING_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/server_socket.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Where a forwarding leads. The listening port is the key under which a session keeps it.
class BRANTLE_API SshSession::ForwardingInfo {
public:
    ForwardingInfo();
    ForwardingInfo(String_t const& bindAddress, unsigned int port, String_t const& host);

    String_t _bindAddress; ///< listened on: here for a local forwarding, at the peer for a remote one
    String_t _host;        ///< the target
    unsigned int _port;    ///< the target's
};

/// A forwarding with its listener in this process, which it owns. A copy or an assignment takes the
/// listener over and leaves the source without one: there is one owner at a time.
class BRANTLE_API SshSession::LocalForwarding : public SshSession::ForwardingInfo {
public:
    /// Without a listener.
    LocalForwarding();
    /// Its listener is opened by ServerSocketIn::Listen alone.
    LocalForwarding(String_t const& bindAddress, unsigned int listenPort, unsigned int port,
                    String_t const& host);
    LocalForwarding(LocalForwarding const& other);
    LocalForwarding& operator=(LocalForwarding const& other);
    /// Closes the listener.
    ~LocalForwarding();

    mutable ServerSocketIn* _server; ///< owned, null if there is none
};

} // namespace cindral

#endif
