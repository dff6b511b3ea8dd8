#ifndef BRANTLE_CHANNEL_X11_FORWARDING_H
#define BRANTLE_CHANNEL_X11_FORWARDING_H

#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// The local X server for remote X clients, its cookie, and the cookie that is sent to the peer instead (RFC
/// 4254, section 6.3). A session has one at most, created by SshSession::StartX11Forwarding.
class BRANTLE_API SshSession::X11Forwarding {
public:
    /// Asks `xauth` for the cookie of `display`, which is [host] ":" number ["." screen], and generates the
    /// peer's. Without an entry, or without `xauth`, the X server's cookie stays empty. The host name is cut
    /// at its first dot. `singleConnection` is sent in the request to the SSH server.
    ///
    /// REQUIRES: `display` is trusted text: it is passed to a shell unquoted.
    X11Forwarding(String_t const& display, int singleConnection);
    X11Forwarding(X11Forwarding const&) = delete;
    X11Forwarding& operator=(X11Forwarding const&) = delete;

    /// A cookie as lower-case hexadecimal text.
    static String_t CookieString(ByteString const& cookie);

    /// Connects to the X server within `timeout` seconds: over TCP if the display has a host other than
    /// "unix", otherwise over its Unix-domain socket. Returns a descriptor that the caller owns, or a
    /// negative value; `error` is then the errno value, or unchanged if the address itself is unusable.
    int Connect(unsigned int timeout, int& error);

    static constexpr unsigned int COOKIE_LENGTH = 16; ///< bytes

    static char const* const _defaultAuthMethod; ///< "MIT-MAGIC-COOKIE-1"
    static char const* const _localSocketPrefix; ///< "/tmp/.X11-unix/X"

    String_t _display;
    String_t _authMethod;   ///< name of the authentication method sent to the X server
    ByteString _realCookie; ///< the X server's; may be empty
    ByteString _fakeCookie; ///< the peer's, random
    String_t _host;
    String_t _localSocket;
    unsigned int _displayNumber;
    unsigned int _screenNumber;
    int _singleConnection;
    int _unixSocket; ///< 1 if the last Connect used the Unix-domain socket

private:
    void AskXauth();
    void TakeEntry(String_t const& line);
    void SplitDisplay();
};

} // namespace cindral

#endif
