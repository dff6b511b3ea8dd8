#ifndef BRANTLE_TESTS_SUPPORT_CLIENT_SESSION_CLIENT_H
#define BRANTLE_TESTS_SUPPORT_CLIENT_SESSION_CLIENT_H

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/servers/process.h"
#include "support/servers/real_server.h"
#include "support/servers/ssh_agent.h"
#include "support/terminal.h"

namespace client {

/// The outcome of a session.
struct Report {
    /// The result of a step, those of a repeated one joined by commas; empty for a step not reached.
    std::string operator[](std::string const& step) const;

    std::map<std::string, std::string> steps;
    std::string output; ///< on descriptor 1
    std::string errors; ///< on descriptor 2
    int status = 0;     ///< of the program: 0 unless it crashed, or a sanitizer found something
};

std::ostream& operator<<(std::ostream& out, Report const& report);

/// Waits for a condition while a process lives; throws std::runtime_error when the process ends first, or
/// after a minute.
void WaitUntil(servers::ChildProcess& process, std::function<bool()> const& condition);

/// A program that uses this library to log in to a server, in a separate process with its own home directory.
/// It has only the credentials given, so that a login shows which method succeeded. Runs of one object share
/// the home, and with it the hosts known.
class SessionClient {
public:
    explicit SessionClient(servers::RealServer const& server);

    SessionClient& As(std::string const& user) { return Set("user", user); }
    /// With a private key of the server's directory, and its passphrase.
    SessionClient& WithKey(std::string const& name, std::string const& passphrase = {});
    /// With a public key of the server's directory, the private half of which an agent holds.
    SessionClient& WithKeyInAgent(std::string const& name, servers::SshAgent const& agent);
    SessionClient& WithPassword(std::string const& password);
    /// With an answer to every keyboard-interactive prompt.
    SessionClient& Answering(std::string const& answer) { return Set("answer", answer); }
    /// Asking for a password on the terminal when the first try, with an empty one, has failed.
    SessionClient& AskingForAPassword() { return Set("tries", "2").Set("ask", "yes"); }
    /// Reads that many packets between the login and the channel.
    SessionClient& ReadingUnsolicited(unsigned int packets) {
        return Set("unsolicited", std::to_string(packets));
    }

    /// Forwarding X11 to that display.
    SessionClient& WithDisplay(std::string const& display) { return Set("display", display); }

    /// With forwardings, as ParseFwdSpec reads them. A local one that listens on port 0 picks a port.
    SessionClient& WithLocalForwarding(std::string const& spec) { return Set("local", spec); }
    SessionClient& WithRemoteForwarding(std::string const& spec) { return Set("remote", spec); }

    /// With "NAME=VALUE" in its environment.
    SessionClient& WithVariable(std::string const& variable);

    /// Each runs a session and gives its outcome: as far as the login, as far as the session channel, or
    /// a command with that input.
    Report LogIn() const { return Finish(Arguments("login"), {}); }
    Report OpenChannel() const { return Finish(Arguments("open"), {}); }
    Report Run(std::string const& command, std::string const& input = {}) const;

    /// Starts a command whose input and output are these descriptors; -1 is /dev/null.
    std::unique_ptr<servers::ChildProcess> StartCommand(std::string const& command, int input,
                                                        int output) const;
    /// Starts a shell (or, for "login", only a login) with that terminal for its three descriptors.
    std::unique_ptr<servers::ChildProcess> StartOnTerminal(std::string const& action,
                                                           support::Terminal const& terminal) const;
    /// Starts a session that only forwards, until SIGTERM.
    std::unique_ptr<servers::ChildProcess> StartForwarding() const;
    /// The outcome of a session so far.
    Report ReportSoFar() const;
    /// The outcome of a session that was started, when it has ended.
    Report ReportOf(servers::ChildProcess& process) const;

    std::string File(std::string const& name) const { return _files / name; }
    std::string KnownHosts() const { return File(".ssh/known_hosts"); }

private:
    SessionClient& Set(std::string const& name, std::string const& value);
    std::vector<std::string> Arguments(std::string const& action) const;
    std::vector<std::string> CommandArguments(std::string const& command) const;
    Report Finish(std::vector<std::string> const& arguments, std::string const& input) const;

    servers::RealServer const& _server;
    std::map<std::string, std::string> _options;
    std::vector<std::string> _environment;
    servers::TemporaryDirectory _files; ///< the home directory too
};

} // namespace client

#endif
