#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <stdexcept>
#include <vector>

#include "support/servers/stock_sshd.h"

namespace servers {

namespace {

constexpr char const* PACKAGE_CONFIGURATION = "/usr/share/openssh/sshd_config";

constexpr char const* CHANGED = R"(
Port @PORT@
ListenAddress 127.0.0.1
HostKey @DIRECTORY@/stock_host_ed25519
HostKey @DIRECTORY@/stock_host_ecdsa
HostKey @DIRECTORY@/stock_host_rsa
PidFile @DIRECTORY@/sshd.pid
)";

/// The package's configuration without the folder of an administrator's own additions, and without its
/// subsystem if a test brings one: a second one is an error.
std::string PackageConfiguration(std::string const& lines) {
    std::string const keywords =
        lines.find("Subsystem") == std::string::npos ? "Include" : "Include|Subsystem";
    return std::regex_replace(ReadFile(PACKAGE_CONFIGURATION),
                              std::regex("(^|\n)(" + keywords + ")\\s[^\n]*"), "\n");
}

/// Each server of a process has a user of its own.
std::string NextUser() {
    static unsigned int users = 0;
    return ThrowAwayUser::NameFor(getpid()) + "-" + std::to_string(users++);
}

/// Gives a file or directory to a user, with that mode.
void Give(std::string const& path, std::string const& user, mode_t mode) {
    passwd const* const entry = getpwnam(user.c_str());
    if (!entry || chown(path.c_str(), entry->pw_uid, entry->pw_gid) != 0 || chmod(path.c_str(), mode) != 0)
        throw std::runtime_error("cannot give " + path + " to " + user);
}

} // namespace

StockSshd::StockSshd(std::string const& lines)
    : RealServer(NextUser(), "An-0pen-Secret"), _account(User(), Home(), Password()) {
    std::string authorized;
    for (std::string const type : {"ed25519", "ecdsa", "rsa"}) {
        for (std::string const owner : {"stock_host_", "stock_user_"})
            RunOrThrow({"ssh-keygen", "-q", "-t", type, "-N", "", "-f", File(owner + type)});
        authorized += ReadFile(UserKey(type) + ".pub");
    }
    std::filesystem::create_directory(Home() + "/.ssh");
    WriteFile(Home() + "/.ssh/authorized_keys", authorized);
    Give(Home() + "/.ssh", User(), 0700);
    Give(Home() + "/.ssh/authorized_keys", User(), 0600);
    if (chmod(File("").c_str(), 0711) != 0) throw std::runtime_error("cannot open " + File(""));
    std::filesystem::create_directories("/run/sshd");
    StartOnFreePort([&](std::uint16_t port) {
        WriteFile(File("sshd_config"),
                  lines + FillIn(CHANGED, {{"PORT", std::to_string(port)}, {"DIRECTORY", File(".")}}) +
                      PackageConfiguration(lines));
        return std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", File("sshd_config")};
    });
}

StockSshd::~StockSshd() { Stop(); }

} // namespace servers
