#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/servers/proftpd_server.h"
#include "support/servers/standard_servers.h"
#include "support/servers/stock_sshd.h"

namespace servers {

namespace {

using Words = std::vector<std::string>;

/// The line that runs a script with arguments; what it mounts is seen by itself alone, and ends with it.
Words InOwnMounts(char const* script, Words const& arguments) {
    Words line{"unshare", "--mount", "--propagation", "private", "bash", "-c", script, "bash"};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

/// A server's directory without a slash at its end.
std::string Directory(RealServer const& server) {
    std::string directory = server.File("");
    while (directory.back() == '/') directory.pop_back();
    return directory;
}

// --- sshd of Debian 13

constexpr char const* ROOT_SCRIPT = BRANTLE_SOURCE_DIR "/script/debian13-sshd";
constexpr char const* ROOT_USER = "tester";
constexpr uid_t ROOT_USER_ID = 61000; ///< as the script has it

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

// --- tinyssh

/// Homes in a directory that everybody may write to are refused: temporary ones are not in such a one here.
constexpr char const* RUN_SOCAT = R"(set -e
cd "$1"
parent=$(dirname "$1")
mount -t tmpfs -o mode=755 tmpfs "$parent"
mkdir -m 711 "$1"
mount --no-canonicalize --bind . "$1"
cd /
exec socat "TCP-LISTEN:$2,bind=127.0.0.1,reuseaddr,fork" \
    "EXEC:/usr/sbin/tinysshd -v -x sftp=/usr/lib/openssh/sftp-server $1/tinyssh,nofork"
)";

// --- ProFTPD

constexpr char const* PROFTPD_HOST_KEYS = R"(
SFTPHostKey @DIRECTORY@/host_ed25519
SFTPHostKey @DIRECTORY@/host_ecdsa
SFTPHostKey @DIRECTORY@/host_rsa
)";

} // namespace

Debian13Sshd::Debian13Sshd(std::string const& lines) : StandardServer(ROOT_USER, PASSWORD) {
    std::string const root = WithoutLineEnd(RunOrThrow({ROOT_SCRIPT}));
    std::filesystem::create_directory(Home() + "/.ssh");
    std::filesystem::copy(File("authorized_keys"), Home() + "/.ssh/authorized_keys");
    for (std::string const& path : {Home(), Home() + "/.ssh", Home() + "/.ssh/authorized_keys"})
        GiveToRootUser(path);
    std::string const directory = Directory(*this);
    StartOnFreePort([&](std::uint16_t port) {
        WriteFile(File("sshd_config"),
                  StockConfiguration(root + "/usr/share/openssh/sshd_config", lines, port, directory));
        return InOwnMounts(RUN_IN_ROOT, {root, directory});
    });
}

Debian13Sshd::~Debian13Sshd() { Stop(); }

StandardDropbear::StandardDropbear(Words const& options) {
    Words line{"/usr/sbin/dropbear", "-F", "-E"};
    for (std::string const type : {"ed25519", "ecdsa", "rsa"}) {
        RunOrThrow({"dropbearkey", "-t", type, "-f", File("dropbear_" + type)});
        line.insert(line.end(), {"-r", File("dropbear_" + type)});
    }
    line.insert(line.end(), options.begin(), options.end());
    StartOnFreePort([&](std::uint16_t port) {
        Words whole = line;
        whole.insert(whole.end(), {"-P", File("dropbear.pid"), "-p", "127.0.0.1:" + std::to_string(port)});
        return whole;
    });
}

StandardDropbear::~StandardDropbear() { Stop(); }

Tinyssh::Tinyssh() {
    RunOrThrow({"/usr/sbin/tinysshd-makekey", "-q", File("tinyssh")});
    StartOnFreePort(
        [&](std::uint16_t port) { return InOwnMounts(RUN_SOCAT, {Directory(*this), std::to_string(port)}); });
}

Tinyssh::~Tinyssh() { Stop(); }

StandardProftpd::StandardProftpd(std::string const& lines)
    : StandardServer(ProftpdServer::CurrentUser(), PASSWORD) {
    std::string authorized;
    for (std::string const& type : KeyTypes())
        authorized += RunOrThrow({"ssh-keygen", "-e", "-f", UserKey(type) + ".pub"});
    WriteFile(File("authorized_rfc4716"), authorized);
    ProftpdServer::WriteAccounts(*this);
    std::string const keys = FillIn(PROFTPD_HOST_KEYS, {{"DIRECTORY", File(".")}});
    StartOnFreePort(
        [&](std::uint16_t port) { return ProftpdServer::CommandLine(*this, port, keys + lines); });
}

StandardPython::StandardPython(std::string const& script, Words const& options)
    : StandardServer("tester", PASSWORD) {
    // -B: no byte code is left in the source tree.
    Words line{"/usr/bin/python3", "-B",       std::string(BRANTLE_SERVER_SCRIPTS) + "/" + script,
               "--as-it-comes",    "--user",   User(),
               "--password",       Password(), File("")};
    line.insert(line.end(), options.begin(), options.end());
    StartAndReadPort(line);
}

} // namespace servers
