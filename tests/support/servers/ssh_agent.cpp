#include <chrono>
#include <stdexcept>
#include <thread>

#include "support/servers/ssh_agent.h"

namespace servers {

namespace {

constexpr std::chrono::seconds START_LIMIT{30};
constexpr std::chrono::milliseconds POLL_INTERVAL{5};
constexpr int NO_KEYS = 1; // ssh-add's status when the agent answers and holds none

} // namespace

SshAgent::SshAgent() : _process({{"ssh-agent", "-D", "-a", Socket()}}) {
    std::vector<std::string> const environment{"SSH_AUTH_SOCK=" + Socket()};
    auto const limit = std::chrono::steady_clock::now() + START_LIMIT;
    while (Run({"ssh-add", "-l"}, {}, environment).status != NO_KEYS) {
        if (!_process.IsRunning() || std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("ssh-agent does not answer");
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

std::string SshAgent::SshAdd(std::vector<std::string> const& arguments) const {
    std::vector<std::string> command{"ssh-add"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunOrThrow(command, {}, {"SSH_AUTH_SOCK=" + Socket()});
}

void SshAgent::Add(std::string const& keyFile) const { SshAdd({"-q", keyFile}); }

void SshAgent::RemoveAll() const { SshAdd({"-q", "-D"}); }

/// ssh-add asks for the passphrase with a program, since it has no terminal here.
void SshAgent::Lock(char const* option, std::string const& passphrase) const {
    std::string const asker = _directory / "ask";
    WriteFile(_directory / "passphrase", passphrase + "\n");
    WriteFile(asker, "#!/bin/sh\ncat '" + (_directory / "passphrase") + "'\n", 0700);
    RunOrThrow({"ssh-add", option}, {},
               {"SSH_AUTH_SOCK=" + Socket(), "SSH_ASKPASS=" + asker, "SSH_ASKPASS_REQUIRE=force"});
}

void SshAgent::Lock(std::string const& passphrase) const { Lock("-x", passphrase); }
void SshAgent::Unlock(std::string const& passphrase) const { Lock("-X", passphrase); }

std::string SshAgent::List() const {
    Outcome const outcome = Run({"ssh-add", "-L"}, {}, {"SSH_AUTH_SOCK=" + Socket()});
    return outcome.status == 0 ? outcome.output : std::string();
}

} // namespace servers
