#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_STOCK_SSHD_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_STOCK_SSHD_H

#include <cstdint>
#include <string>

#include "support/servers/standard_server.h"

namespace servers {

/// OpenSSH's sshd with the configuration of Debian's package, of which only port, host keys and paths are
/// changed, and what a test adds. Needs root.
class StockSshd : public AccountServer {
public:
    /// `lines` come first in the configuration, where the first value of a keyword counts.
    explicit StockSshd(std::string const& lines = {});
    ~StockSshd() override;
};

/// The configuration of an sshd as the two classes run it: that of a package, preceded by `lines` and by what
/// is changed. It serves `port`, with keys and files in `directory`.
std::string StockConfiguration(std::string const& package, std::string const& lines, std::uint16_t port,
                               std::string const& directory);

} // namespace servers

#endif
