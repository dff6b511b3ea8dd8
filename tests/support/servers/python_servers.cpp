#include "support/servers/python_servers.h"

namespace servers {

PythonServer::PythonServer(std::string const& script, std::vector<std::string> const& options)
    : RealServer("tester", "an open secret") {
    // -B: no byte code is left in the source tree.
    std::vector<std::string> arguments{
        "/usr/bin/python3", "-B",       std::string(BRANTLE_SERVER_SCRIPTS) + "/" + script,
        File(""),           "--user",   User(),
        "--password",       Password(), "--open-user",
        _openUser};
    arguments.insert(arguments.end(), options.begin(), options.end());
    StartAndReadPort(arguments);
}

AsyncsshServer::AsyncsshServer(std::vector<std::string> const& options)
    : PythonServer("asyncssh_server.py", options) {}

ParamikoServer::ParamikoServer(std::vector<std::string> const& options)
    : PythonServer("paramiko_server.py", options) {}

} // namespace servers
