#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_STANDARD_SERVERS_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_STANDARD_SERVERS_H

#include <string>
#include <vector>

#include "support/servers/standard_server.h"

namespace servers {

/// The sshd of Debian 13 with its package's configuration, in the root directory that script/debian13-sshd
/// makes. The home and the server's directory are there under their paths here; so is nothing else.
class Debian13Sshd : public StandardServer {
public:
    /// `lines` as for StockSshd.
    explicit Debian13Sshd(std::string const& lines = {});
    ~Debian13Sshd() override;
};

/// Dropbear with accounts: `options` are of its command line.
class StandardDropbear : public AccountServer {
public:
    explicit StandardDropbear(std::vector<std::string> const& options = {});
    ~StandardDropbear() override;
};

/// tinyssh, for each connection a process, with OpenSSH's sftp-server.
class Tinyssh : public AccountServer {
public:
    Tinyssh();
    ~Tinyssh() override;
};

/// ProFTPD's mod_sftp with its own defaults; `lines` are added to its section.
class StandardProftpd : public StandardServer {
public:
    explicit StandardProftpd(std::string const& lines = {});
};

/// asyncssh or paramiko ("asyncssh_server.py", "paramiko_server.py") with their own defaults. Commands run as
/// the user of this process. `options` as the scripts take them.
class StandardPython : public StandardServer {
public:
    explicit StandardPython(std::string const& script, std::vector<std::string> const& options = {});
};

} // namespace servers

#endif
