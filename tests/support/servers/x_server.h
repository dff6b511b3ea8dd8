#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_X_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_X_SERVER_H

#include <string>

#include "support/servers/process.h"

namespace servers {

/// Xvfb, an X server without a screen, running under a display number of its own for as long as the object
/// lives. It lets in those who show its cookie, over its Unix-domain socket and over TCP.
class XServer {
public:
    /// Returns when the X server answers; throws std::runtime_error when it does not.
    XServer();

    /// The display over the Unix-domain socket, and over TCP.
    std::string Display() const { return ":" + _number; }
    std::string DisplayOverTcp() const { return "localhost:" + _number; }
    /// The value of XAUTHORITY for a program that is to know the cookie.
    std::string Authority() const { return _directory / "authority"; }
    /// The cookie as hexadecimal text.
    std::string const& Cookie() const { return _cookie; }

private:
    /// Writes the entry that lets the holder of the cookie in.
    void AddEntry(std::string const& file, std::string const& display) const;

    TemporaryDirectory _directory;
    std::string _cookie;
    std::string _number;
    ChildProcess _process;
};

} // namespace servers

#endif
