#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_PYTHON_SERVERS_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_PYTHON_SERVERS_H

#include <string>
#include <vector>

#include "support/servers/real_server.h"

namespace servers {

/// What the two servers written in Python share: tests/real/servers/NAME.py run by Debian's Python.
/// Commands run as the user of this process, regardless of the login name.
class PythonServer : public RealServer {
public:
    /// The name that the method none lets in.
    std::string const& OpenUser() const { return _openUser; }

protected:
    PythonServer(std::string const& script, std::vector<std::string> const& options);

private:
    std::string const _openUser = "anybody";
};

/// asyncssh: every login method, commands, shells, sftp, forwarding. Sends nothing between the end of
/// a login and the answer to the first channel. `options` as asyncssh_server.py takes them.
class AsyncsshServer : public PythonServer {
public:
    explicit AsyncsshServer(std::vector<std::string> const& options = {});
};

/// paramiko: the same, with windows of its own size. `options` as paramiko_server.py takes them.
class ParamikoServer : public PythonServer {
public:
    explicit ParamikoServer(std::vector<std::string> const& options = {});
};

} // namespace servers

#endif
