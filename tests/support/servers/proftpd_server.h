#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_PROFTPD_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_PROFTPD_SERVER_H

#include <cstdint>
#include <string>
#include <vector>

#include "support/servers/real_server.h"

namespace servers {

/// ProFTPD with mod_sftp, as the user of this process: logins by key and by password, and SFTP; no
/// commands. The account carries this user's own name, its home is File("home").
class ProftpdServer : public RealServer {
public:
    /// When the server sends its KEXINIT: at once with its identification line, or after the client's.
    enum class Kexinit { EARLY, AFTER_CLIENT };

    explicit ProftpdServer(Kexinit kexinit = Kexinit::AFTER_CLIENT);

    /// Writes the files "passwd" and "group" of a server's directory: its user, as this process's own.
    static void WriteAccounts(RealServer const& server);
    static std::string CurrentUser();
    /// Writes the configuration of a server's directory, with `lines` for its mod_sftp, and returns the
    /// command line that runs it. The keys of its users are in the file "authorized_rfc4716".
    static std::vector<std::string> CommandLine(RealServer const& server, std::uint16_t port,
                                                std::string const& lines);

private:
    static std::string CurrentGroup();
};

} // namespace servers

#endif
