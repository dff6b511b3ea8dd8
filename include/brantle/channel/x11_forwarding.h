#ifndef BRANTLE_CHANNEL_X11_FORWARDING_H
#define BRANTLE_CHANNEL_X11_FORWARDING_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// The local X server that remote X clients are led to, its cookie, and the cookie that the peer is
/// given instead (RFC 4254, section 6.3). One for a session, made by SshSession::StartX11Forwarding.
class BRANTLE_API SshSession::X11Forwarding {
public:
    /// Asks `xauth` for the cookie of `display`, which is [host] ":" number ["." screen], and draws the
    /// peer's. Without an entry, or without `xauth`, the X server's cookie stays empty. The host ends at
    /// its first dot. `singleConnection` goes into the request to the SSH server.
    ///
    /// REQUIRES: `display` is trusted text: a shell gets it as it is.
    X11Forwarding(String_t const& display, int singleConnection);
    X11Forwarding(X11Forwarding const&) = delete;
    X11Forwarding& operator=(X11Forwarding const&) = delete;

    /// A cookie as lower-case hexadecimal text.
    static String_t CookieString(ByteString const& cookie);

    /// Connects to the X server within `timeout` seconds: over TCP if the display has a host other than
    /// "unix", else over its Unix-domain socket. Returns a descriptor that is the caller's, or a negative
    /// value; `error` is then the errno value, or as before if the address itself is unusable.
    int Connect(unsigned int timeout, int& error);

    static constexpr unsigned int COOKIE_LENGTH = 16; ///< bytes

    static char const* const _defaultAuthMethod; ///< "MIT-MAGIC-COOKIE-1"
    static char const* const _localSocketPrefix; ///< "/tmp/.X11-unix/X"

    String_t _display;
    String_t _authMethod;   ///< what the X server is told to check
    ByteString _realCookie; ///< the X server's; may be empty
    ByteString _fakeCookie; ///< the peer's, random
    String_t _host;
    String_t _localSocket;
    unsigned int _displayNumber;
    unsigned int _screenNumber;
    int _singleConnection;
    int _unixSocket; ///< 1 if the last Connect went to the Unix-domain socket

private:
    void AskXauth();
    void TakeEntry(String_t const& line);
    void SplitDisplay();
};

} // namespace cindral

#endif
