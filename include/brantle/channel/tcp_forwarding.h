#ifndef BRANTLE_CHANNEL_TCP_FORWARDING_H
#define BRANTLE_CHANNEL_TCP_FORWARDING_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/server_socket.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// The target of a forwarding. The listening port is the key under which the session stores it.
class BRANTLE_API SshSession::ForwardingInfo {
public:
    ForwardingInfo();
    ForwardingInfo(String_t const& bindAddress, unsigned int port, String_t const& host);

    String_t
        _bindAddress;   ///< listened on: by this process for a local forwarding, by the peer for a remote one
    String_t _host;     ///< the target
    unsigned int _port; ///< the target's
};

/// A forwarding with its listener in this process, which it owns. Copying or assigning it moves the listener
/// and leaves the source without one: there is one owner at a time.
class BRANTLE_API SshSession::LocalForwarding : public SshSession::ForwardingInfo {
public:
    /// Without a listener.
    LocalForwarding();
    /// Only ServerSocketIn::Listen opens the listener.
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
