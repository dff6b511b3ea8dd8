#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_OPENSSH_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_OPENSSH_SERVER_H

#include <cstdint>
#include <string>

#include "support/servers/real_server.h"

namespace servers {

/// A system account made for one test program and removed behind it; its name carries this process's
/// number. Needs root; throws std::runtime_error otherwise.
class ThrowAwayUser {
public:
    ThrowAwayUser(std::string const& home, std::string const& password);
    ~ThrowAwayUser();
    ThrowAwayUser(ThrowAwayUser const&) = delete;
    ThrowAwayUser& operator=(ThrowAwayUser const&) = delete;

    /// The name of the account that a process has.
    static std::string NameFor(pid_t pid);
};

/// OpenSSH's sshd, for a throw-away user: every login method but none, commands, shells, SFTP,
/// forwarding. Needs root, for passwords are PAM's to check. Between the end of a login and the answer
/// to the first channel it sends a GLOBAL_REQUEST and, after a key, two DEBUG messages.
class OpensshServer : public RealServer {
public:
    OpensshServer();
    ~OpensshServer() override;

private:
    std::string Configuration(std::uint16_t port) const;

    ThrowAwayUser _account;
};

} // namespace servers

#endif
