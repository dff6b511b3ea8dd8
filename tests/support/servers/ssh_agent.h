#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_SSH_AGENT_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_SSH_AGENT_H

#include <string>

#include "support/servers/process.h"

namespace servers {

/// OpenSSH's ssh-agent on a separate socket, running for as long as the object lives.
class SshAgent {
public:
    /// Returns when the agent answers; throws std::runtime_error when it does not.
    SshAgent();

    /// The value of SSH_AUTH_SOCK for a program that is to use this agent.
    std::string Socket() const { return _directory / "agent"; }
    /// Adds the private key in a file, which has no passphrase.
    void Add(std::string const& keyFile) const;
    void RemoveAll() const;
    /// Refuses every use until Unlock with the same text.
    void Lock(std::string const& passphrase) const;
    void Unlock(std::string const& passphrase) const;
    /// The public keys held, one a line, as `ssh-add -L` lists them; empty for none.
    std::string List() const;

private:
    std::string SshAdd(std::vector<std::string> const& arguments) const;
    void Lock(char const* option, std::string const& passphrase) const;

    TemporaryDirectory _directory;
    ChildProcess _process;
};

} // namespace servers

#endif
