#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_STOCK_SSHD_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_STOCK_SSHD_H

#include <cstdint>
#include <string>

#include "support/servers/openssh_server.h"

namespace servers {

/// OpenSSH's sshd with the configuration of Debian's package, of which only port, host keys and paths are
/// changed, and what a test adds. Needs root.
class StockSshd : public RealServer {
public:
    /// `lines` come first in the configuration, where the first value of a keyword counts.
    explicit StockSshd(std::string const& lines = {});
    ~StockSshd() override;

    /// The path of a private key that the user logs in with: "ed25519", "ecdsa" or "rsa".
    std::string UserKey(std::string const& type) const { return File("stock_user_" + type); }
    /// The user's home directory, which is theirs.
    std::string Home() const { return File("home"); }

private:
    ThrowAwayUser _account;
};

} // namespace servers

#endif
