#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/servers/standard_server.h"

namespace servers {

namespace {

void MakeKey(std::string const& path, std::string const& type, std::string const& bits) {
    std::vector<std::string> line{"ssh-keygen", "-q", "-t", type, "-N", "", "-C", "brantle-test", "-f", path};
    if (!bits.empty()) line.insert(line.end(), {"-b", bits});
    RunOrThrow(line);
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

std::vector<std::string> const& StandardServer::KeyTypes() {
    static std::vector<std::string> const types{"ed25519", "ecdsa256", "ecdsa384", "ecdsa521", "rsa"};
    return types;
}

StandardServer::StandardServer(std::string user, std::string password)
    : RealServer(std::move(user), std::move(password), Keys::NONE) {
    for (std::string const type : {"ed25519", "ecdsa", "rsa"})
        MakeKey(File("host_" + type), type, type == "rsa" ? "2048" : "");
    std::string authorized;
    for (std::string const& type : KeyTypes()) {
        bool const isEcdsa = type.rfind("ecdsa", 0) == 0;
        MakeKey(UserKey(type), isEcdsa ? "ecdsa" : type,
                isEcdsa         ? type.substr(5)
                : type == "rsa" ? "2048"
                                : "");
        authorized += ReadFile(UserKey(type) + ".pub");
    }
    WriteFile(File("authorized_keys"), authorized);
    std::filesystem::create_directory(Home());
    if (chmod(File("").c_str(), 0711) != 0) throw std::runtime_error("cannot open " + File(""));
}

AccountServer::AccountServer() : StandardServer(NextUser(), PASSWORD), _account(User(), Home(), Password()) {
    std::filesystem::create_directory(Home() + "/.ssh");
    std::filesystem::copy(File("authorized_keys"), Home() + "/.ssh/authorized_keys");
    Give(Home() + "/.ssh", User(), 0700);
    Give(Home() + "/.ssh/authorized_keys", User(), 0600);
}

} // namespace servers
