#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/servers/proftpd_server.h"
#include "support/servers/standard_servers.h"
#include "support/servers/stock_sshd.h"

namespace servers {

namespace {

// --- sshd of Debian 13

constexpr char const* ROOT_SCRIPT = BRANTLE_SOURCE_DIR "/script/debian13-sshd";
constexpr char const* ROOT_USER = "tester";
constexpr uid_t ROOT_USER_ID = 61000; ///< as the script has it

/// Everything is mounted in a namespace of the server's own, and ends with it.
constexpr char const* RUN_IN_ROOT = R"(set -e
root=$1 directory=$2
mount -t tmpfs tmpfs "$root/tmp"
mount -t tmpfs tmpfs "$root/run"
mkdir -p "$root/run/sshd" "$root$directory"
mount --bind "$directory" "$root$directory"
mount --bind "$directory/home" "$root/home/tester"
mount -t proc proc "$root/proc"
mount -t devpts -o newinstance,gid=5,mode=620,ptmxmode=666 devpts "$root/dev/pts"
exec chroot "$root" /usr/sbin/sshd -D -e -f "$directory/sshd_config"
)";

std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

void GiveToRootUser(std::string const& path) {
    if (chown(path.c_str(), ROOT_USER_ID, ROOT_USER_ID) != 0)
        throw std::runtime_error("cannot give away " + path);
}

// --- ProFTPD

constexpr char const* PROFTPD_CONFIGURATION = R"(
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
SFTPHostKey @DIRECTORY@/host_ed25519
SFTPHostKey @DIRECTORY@/host_ecdsa
SFTPHostKey @DIRECTORY@/host_rsa
SFTPAuthorizedUserKeys file:@DIRECTORY@/authorized_rfc4716
@LINES@
</IfModule>
)";

} // namespace

Debian13Sshd::Debian13Sshd(std::string const& lines) : StandardServer(ROOT_USER, PASSWORD) {
    std::string const root = WithoutLineEnd(RunOrThrow({ROOT_SCRIPT}));
    std::filesystem::create_directory(Home() + "/.ssh");
    std::filesystem::copy(File("authorized_keys"), Home() + "/.ssh/authorized_keys");
    for (std::string const& path : {Home(), Home() + "/.ssh", Home() + "/.ssh/authorized_keys"})
        GiveToRootUser(path);
    std::string directory = File("");
    while (directory.back() == '/') directory.pop_back();
    StartOnFreePort([&](std::uint16_t port) {
        WriteFile(File("sshd_config"),
                  StockConfiguration(root + "/usr/share/openssh/sshd_config", lines, port, directory));
        return std::vector<std::string>{"unshare", "--mount", "--propagation", "private", "bash", "-c",
                                        RUN_IN_ROOT, "run_in_root", root, directory};
    });
}

Debian13Sshd::~Debian13Sshd() { Stop(); }

StandardDropbear::StandardDropbear(std::vector<std::string> const& options) {
    std::vector<std::string> line{"/usr/sbin/dropbear", "-F", "-E"};
    for (std::string const type : {"ed25519", "ecdsa", "rsa"}) {
        RunOrThrow({"dropbearkey", "-t", type, "-f", File("dropbear_" + type)});
        line.insert(line.end(), {"-r", File("dropbear_" + type)});
    }
    line.insert(line.end(), options.begin(), options.end());
    StartOnFreePort([&](std::uint16_t port) {
        std::vector<std::string> whole = line;
        whole.insert(whole.end(),
                     {"-P", File("dropbear.pid"), "-p", "127.0.0.1:" + std::to_string(port)});
        return whole;
    });
}

StandardDropbear::~StandardDropbear() { Stop(); }

Tinyssh::Tinyssh() {
    RunOrThrow({"/usr/sbin/tinysshd-makekey", "-q", File("tinyssh")});
    StartOnFreePort([&](std::uint16_t port) {
        return std::vector<std::string>{
            "socat", "TCP-LISTEN:" + std::to_string(port) + ",bind=127.0.0.1,reuseaddr,fork",
            "EXEC:/usr/sbin/tinysshd -v -x sftp=/usr/lib/openssh/sftp-server " + File("tinyssh") + ",nofork"};
    });
}

Tinyssh::~Tinyssh() { Stop(); }

StandardProftpd::StandardProftpd(std::string const& lines)
    : StandardServer(ProftpdServer::CurrentUser(), PASSWORD) {
    std::string authorized;
    for (std::string const& type : KeyTypes())
        authorized += RunOrThrow({"ssh-keygen", "-e", "-f", UserKey(type) + ".pub"});
    WriteFile(File("authorized_rfc4716"), authorized);
    ProftpdServer::WriteAccounts(*this);
    StartOnFreePort([&](std::uint16_t port) {
        WriteFile(File("proftpd.conf"),
                  FillIn(PROFTPD_CONFIGURATION, {{"PORT", std::to_string(port)},
                                                 {"USER", User()},
                                                 {"GROUP", ProftpdServer::CurrentGroup()},
                                                 {"DIRECTORY", File(".")},
                                                 {"LINES", lines}}));
        return std::vector<std::string>{"/usr/sbin/proftpd", "-n", "-c", File("proftpd.conf")};
    });
}

StandardPython::StandardPython(std::string const& script, std::vector<std::string> const& options)
    : StandardServer("tester", PASSWORD) {
    // -B: no byte code is left in the source tree.
    std::vector<std::string> line{
        "/usr/bin/python3", "-B",   std::string(BRANTLE_SERVER_SCRIPTS) + "/" + script,
        "--as-it-comes",    "--user", User(), "--password", Password(), File("")};
    line.insert(line.end(), options.begin(), options.end());
    StartAndReadPort(line);
}

} // namespace servers
