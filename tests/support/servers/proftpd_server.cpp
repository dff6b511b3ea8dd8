#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/servers/proftpd_server.h"

namespace servers {

namespace {

/// Up to what distinguishes the servers.
constexpr char const* CONFIGURATION = R"(
LoadModule mod_sftp.c
ServerName peer
ServerType standalone
DefaultAddress 127.0.0.1
SocketBindTight on
Port @PORT@
UseIPv6 off
User @USER@
Group @GROUP@
RootLogin on
PidFile @DIRECTORY@/proftpd.pid
ScoreboardFile @DIRECTORY@/scoreboard
DelayEngine off
WtmpLog off
TransferLog none
SystemLog @DIRECTORY@/log
RequireValidShell off
UseFtpUsers off
AuthOrder mod_auth_file.c
AuthUserFile @DIRECTORY@/passwd
AuthGroupFile @DIRECTORY@/group
AllowOverwrite on
<IfModule mod_sftp.c>
SFTPEngine on
SFTPLog @DIRECTORY@/mod_sftp.log
SFTPAuthorizedUserKeys file:@DIRECTORY@/authorized_rfc4716
)";

/// That of the reduced dialect.
constexpr char const* REDUCED = R"(SFTPHostKey @DIRECTORY@/host_rsa
SFTPHostKey @DIRECTORY@/host_dsa
SFTPDHParamFile /etc/proftpd/dhparams.pem
SFTPKeyExchanges diffie-hellman-group-exchange-sha1
SFTPCiphers aes128-ctr aes128-cbc
SFTPDigests hmac-sha1
SFTPAuthMethods publickey password
SFTPOptions NoHostkeyRotation @KEXINIT@
SFTPRekey none
)";

std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

} // namespace

ProftpdServer::ProftpdServer(Kexinit kexinit) : RealServer(CurrentUser(), "an open secret") {
    WriteAccounts(*this);
    std::string const lines =
        FillIn(REDUCED, {{"DIRECTORY", File(".")},
                         {"KEXINIT", kexinit == Kexinit::AFTER_CLIENT ? "PessimisticKexinit" : ""}});
    StartOnFreePort([&](std::uint16_t port) { return CommandLine(*this, port, lines); });
}

void ProftpdServer::WriteAccounts(RealServer const& server) {
    std::filesystem::create_directories(server.File("home"));
    std::string const hash = WithoutLineEnd(RunOrThrow({"openssl", "passwd", "-6", server.Password()}));
    std::string const uid = std::to_string(geteuid());
    std::string const gid = std::to_string(getegid());
    WriteFile(server.File("passwd"), server.User() + ":" + hash + ":" + uid + ":" + gid +
                                         "::" + server.File("home") + ":/bin/bash\n");
    WriteFile(server.File("group"), CurrentGroup() + ":x:" + gid + ":\n");
}

std::string ProftpdServer::CurrentUser() {
    passwd const* const entry = getpwuid(geteuid());
    if (!entry) throw std::runtime_error("this process's user has no name");
    return entry->pw_name;
}

std::string ProftpdServer::CurrentGroup() {
    group const* const entry = getgrgid(getegid());
    if (!entry) throw std::runtime_error("this process's group has no name");
    return entry->gr_name;
}

std::vector<std::string> ProftpdServer::CommandLine(RealServer const& server, std::uint16_t port,
                                                    std::string const& lines) {
    WriteFile(server.File("proftpd.conf"), FillIn(CONFIGURATION, {{"PORT", std::to_string(port)},
                                                                  {"USER", server.User()},
                                                                  {"GROUP", CurrentGroup()},
                                                                  {"DIRECTORY", server.File(".")}}) +
                                               lines + "\n</IfModule>\n");
    return {"/usr/sbin/proftpd", "-n", "-c", server.File("proftpd.conf")};
}

} // namespace servers
