#include <filesystem>

#include "support/servers/process.h"
#include "support/servers/test_keys.h"

namespace servers {

namespace {

void MakeKey(std::string const& path, std::string const& type) {
    std::string const bits = type == "rsa" ? "2048" : "1024";
    RunOrThrow({"ssh-keygen", "-q", "-t", type, "-b", bits, "-m", "PEM", "-N", "", "-C", "brantle-test", "-f",
                path});
}

/// Copies a key and writes the copy in another format ("PEM" or "RFC4716", which is ssh-keygen's word
/// for its own format) under another passphrase.
void Reformat(std::string const& path, std::string const& copy, std::string const& format,
              std::string const& passphrase) {
    std::filesystem::copy_file(path, copy);
    std::filesystem::copy_file(path + ".pub", copy + ".pub");
    RunOrThrow({"ssh-keygen", "-q", "-p", "-m", format, "-P", "", "-N", passphrase, "-f", copy});
}

} // namespace

void MakeTestKeys(std::string const& directory) {
    std::string authorized;
    std::string authorizedRfc4716;
    for (std::string const type : {"rsa", "dsa"}) {
        MakeKey(directory + "/host_" + type, type);
        std::string const user = directory + "/user_" + type;
        MakeKey(user, type);
        Reformat(user, user + ".openssh", "RFC4716", "");
        Reformat(user, user + ".encrypted", "PEM", KEY_PASSPHRASE);
        Reformat(user, user + ".openssh.encrypted", "RFC4716", KEY_PASSPHRASE);
        authorized += ReadFile(user + ".pub");
        authorizedRfc4716 += RunOrThrow({"ssh-keygen", "-e", "-f", user + ".pub"});
    }
    WriteFile(directory + "/authorized_keys", authorized, 0644);
    WriteFile(directory + "/authorized_rfc4716", authorizedRfc4716, 0600);
}

} // namespace servers
