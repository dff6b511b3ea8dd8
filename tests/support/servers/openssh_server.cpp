#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/servers/openssh_server.h"

namespace servers {

namespace {

constexpr char const* CONFIGURATION = R"(
Port @PORT@
ListenAddress 127.0.0.1
HostKey @DIRECTORY@/host_rsa
HostKey @DIRECTORY@/host_dsa
PidFile @DIRECTORY@/sshd.pid
KexAlgorithms diffie-hellman-group-exchange-sha1
HostKeyAlgorithms @HOST_KEYS@
PubkeyAcceptedAlgorithms +ssh-rsa,ssh-dss
Ciphers @CIPHERS@
MACs @MACS@
AuthorizedKeysFile @DIRECTORY@/authorized_keys
PasswordAuthentication yes
KbdInteractiveAuthentication yes
PermitRootLogin yes
UsePAM yes
StrictModes no
MaxStartups 1000
X11Forwarding yes
AllowTcpForwarding yes
Subsystem sftp /usr/lib/openssh/sftp-server
Match User @OPEN_USER@
PermitEmptyPasswords yes
)";

constexpr char const* USER_PREFIX = "brantle-test-";
constexpr std::chrono::seconds LOCK_LIMIT{60};
constexpr std::chrono::milliseconds LOCK_INTERVAL{50};

/// Runs a program that changes the account files, again while another program holds their lock.
void ChangeAccounts(std::vector<std::string> const& arguments, std::string const& input = {},
                    int toleratedStatus = 0) {
    auto const limit = std::chrono::steady_clock::now() + LOCK_LIMIT;
    Outcome outcome = Run(arguments, input);
    while (outcome.status != 0 && outcome.errors.find("lock") != std::string::npos &&
           std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(LOCK_INTERVAL);
        outcome = Run(arguments, input);
    }
    if (outcome.status != 0 && outcome.status != toleratedStatus)
        throw std::runtime_error(arguments[0] + " ended with " + std::to_string(outcome.status) + ": " +
                                 outcome.errors);
}

void RemoveUser(std::string const& name) {
    int const noSuchUser = 6;
    ChangeAccounts({"/usr/sbin/userdel", "--force", name}, {}, noSuchUser);
}

/// The accounts that killed test programs have left.
std::vector<std::string> OrphanedUsers() {
    std::string const prefix = USER_PREFIX;
    std::vector<std::string> result;
    setpwent();
    while (passwd const* entry = getpwent()) {
        std::string const name = entry->pw_name;
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        pid_t const owner = std::atoi(name.c_str() + prefix.size());
        if (kill(owner, 0) != 0 && errno == ESRCH) result.push_back(name);
    }
    endpwent();
    return result;
}

} // namespace

std::string ThrowAwayUser::NameFor(pid_t pid) { return USER_PREFIX + std::to_string(pid); }

ThrowAwayUser::ThrowAwayUser(std::string const& name, std::string const& home, std::string const& password)
    : _name(name) {
    if (geteuid() != 0) throw std::runtime_error("a system account can be made by root alone");
    for (std::string const& orphan : OrphanedUsers()) RemoveUser(orphan);
    ChangeAccounts(
        {"/usr/sbin/useradd", "--no-create-home", "--home-dir", home, "--shell", "/bin/bash", name});
    if (password.empty())
        ChangeAccounts({"passwd", "--delete", name});
    else
        ChangeAccounts({"/usr/sbin/chpasswd"}, name + ":" + password + "\n");
    passwd const* const entry = getpwnam(name.c_str());
    std::filesystem::create_directory(home);
    if (!entry || chown(home.c_str(), entry->pw_uid, entry->pw_gid) != 0)
        throw std::runtime_error("cannot give " + home + " to " + name);
}

ThrowAwayUser::~ThrowAwayUser() {
    try {
        RemoveUser(_name);
    } catch (std::exception const&) {
        // The next test program removes it as an orphan.
    }
}

OpensshServer::OpensshServer(OpensshAlgorithms const& algorithms)
    : RealServer(ThrowAwayUser::NameFor(getpid()), "An-0pen-Secret"),
      _account(User(), File("home"), Password()), _openAccount(OpenUser(), File("open_home"), {}) {
    // sshd reads authorized_keys, and its sessions their home, as the user who logs in.
    if (chmod(File("").c_str(), 0711) != 0) throw std::runtime_error("cannot open " + File(""));
    std::filesystem::create_directories("/run/sshd");
    StartOnFreePort([&](std::uint16_t port) {
        WriteFile(File("sshd_config"), Configuration(port, algorithms));
        return std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", File("sshd_config")};
    });
}

OpensshServer::~OpensshServer() { Stop(); }

std::string OpensshServer::Configuration(std::uint16_t port, OpensshAlgorithms const& algorithms) const {
    return FillIn(CONFIGURATION, {{"PORT", std::to_string(port)},
                                  {"DIRECTORY", File(".")},
                                  {"OPEN_USER", OpenUser()},
                                  {"CIPHERS", algorithms.ciphers},
                                  {"MACS", algorithms.macs},
                                  {"HOST_KEYS", algorithms.hostKeys}});
}

} // namespace servers
