#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_STANDARD_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_STANDARD_SERVER_H

#include <string>
#include <vector>

#include "support/servers/openssh_server.h"

namespace servers {

/// A server as people run it today, for one user with keys of all types.
class StandardServer : public RealServer {
public:
    /// "ed25519", "ecdsa256", "ecdsa384", "ecdsa521" and "rsa".
    static std::vector<std::string> const& KeyTypes();

    /// The path of a private key that the user logs in with.
    std::string UserKey(std::string const& type) const { return File("user_" + type); }
    /// The user's home directory, under the same path on both sides.
    std::string Home() const { return File("home"); }

protected:
    /// Makes the keys: host_ed25519, host_ecdsa and host_rsa, the user's, and authorized_keys.
    StandardServer(std::string user, std::string password);

    static constexpr char const* PASSWORD = "An-0pen-Secret";
};

/// One whose user has an account on this machine, with an authorized_keys of their own. Needs root.
class AccountServer : public StandardServer {
protected:
    AccountServer();

private:
    ThrowAwayUser _account;
};

} // namespace servers

#endif
