#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_OPENSSH_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_OPENSSH_SERVER_H

#include <cstdint>
#include <string>

#include "support/servers/real_server.h"

namespace servers {

/// A system account made for one test program and removed after it. Needs root; throws
/// std::runtime_error otherwise.
class ThrowAwayUser {
public:
    /// `name` is NameFor this process, or begins with it. An empty password means that none is needed.
    ThrowAwayUser(std::string const& name, std::string const& home, std::string const& password);
    ~ThrowAwayUser();
    ThrowAwayUser(ThrowAwayUser const&) = delete;
    ThrowAwayUser& operator=(ThrowAwayUser const&) = delete;

    /// The name of the account that a process has.
    static std::string NameFor(pid_t pid);

private:
    std::string const _name;
};

/// What sshd offers, each list as its configuration has it.
struct OpensshAlgorithms {
    std::string ciphers = "aes128-ctr,aes128-cbc";
    std::string macs = "hmac-sha1";
    std::string hostKeys = "ssh-rsa,ssh-dss";
};

/// OpenSSH's sshd, for throw-away users: every login method, commands, shells, SFTP,
/// forwarding. Needs root, for passwords are PAM's to check. Between the end of a login and the answer
/// to the first channel it sends a GLOBAL_REQUEST and, after a key, two DEBUG messages.
class OpensshServer : public RealServer {
public:
    explicit OpensshServer(OpensshAlgorithms const& algorithms = {});
    ~OpensshServer() override;

    /// The name that the method none lets in.
    std::string OpenUser() const { return User() + "-open"; }

private:
    std::string Configuration(std::uint16_t port, OpensshAlgorithms const& algorithms) const;

    ThrowAwayUser _account;
    ThrowAwayUser _openAccount;
};

} // namespace servers

#endif
