#include <filesystem>
#include <regex>
#include <vector>

#include "support/servers/stock_sshd.h"

namespace servers {

namespace {

constexpr char const* PACKAGE_CONFIGURATION = "/usr/share/openssh/sshd_config";

constexpr char const* CHANGED = R"(
Port @PORT@
ListenAddress 127.0.0.1
HostKey @DIRECTORY@/host_ed25519
HostKey @DIRECTORY@/host_ecdsa
HostKey @DIRECTORY@/host_rsa
PidFile @DIRECTORY@/sshd.pid
)";

} // namespace

/// The folder of an administrator's own additions is left out, and so is the package's subsystem if a test
/// brings one: a second one is an error.
std::string StockConfiguration(std::string const& package, std::string const& lines, std::uint16_t port,
                               std::string const& directory) {
    std::string const keywords =
        lines.find("Subsystem") == std::string::npos ? "Include" : "Include|Subsystem";
    return lines + FillIn(CHANGED, {{"PORT", std::to_string(port)}, {"DIRECTORY", directory}}) +
           std::regex_replace(ReadFile(package), std::regex("(^|\n)(" + keywords + ")\\s[^\n]*"), "\n");
}

StockSshd::StockSshd(std::string const& lines) {
    std::filesystem::create_directories("/run/sshd");
    StartOnFreePort([&](std::uint16_t port) {
        WriteFile(File("sshd_config"), StockConfiguration(PACKAGE_CONFIGURATION, lines, port, File(".")));
        return std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", File("sshd_config")};
    });
}

StockSshd::~StockSshd() { Stop(); }

} // namespace servers
