// Forwards TCP ports through a connection, alongside a command or a shell, or alone until it is interrupted.
//
// In the reduced dialect, -R needs a server that announces connections without the originator's address.
// Standard servers send it, and with them the first connection ends the session (docs/dialect.md).

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "login.h"

namespace {

using cindral::SshSession;
using examples::Fail;

/// Gets a byte for each interrupt. Its pipe stays open until the process ends: a handler may be about to
/// write.
volatile std::sig_atomic_t interruptPipe = -1;

extern "C" void NoteInterrupt(int) {
    if (write(interruptPipe, "", 1) < 0) _exit(examples::DONE);
}

/// Lets interrupts write to a pipe as long as it lives.
class InterruptHandler {
public:
    InterruptHandler() {
        for (int number : {SIGINT, SIGTERM}) std::signal(number, NoteInterrupt);
    }
    ~InterruptHandler() {
        for (int number : {SIGINT, SIGTERM}) std::signal(number, SIG_DFL);
    }
    InterruptHandler(InterruptHandler const&) = delete;
    InterruptHandler& operator=(InterruptHandler const&) = delete;
};

/// Ends a session when its pipe has something to read.
class Interrupt : public IOMultiplexerDispatcher {
public:
    explicit Interrupt(SshSession& session) : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session) {}
    Interrupt* Clone() const override { return new Interrupt(*this); }
    int Dispatch(int) override {
        _session.Disconnect(cindral::Packet::SSH_DISCONNECT_BY_APPLICATION, "interrupted");
        _session.Terminate();
        return 0;
    }

private:
    SshSession& _session;
};

/// A session that only forwards.
class ForwardingSession : public SshSession {
public:
    explicit ForwardingSession(String_t const& target) : SshSession(CLIENT, target) {}

    /// Returns 1, like the sessions of the library, if the server refuses the channel.
    int Run() override {
        if (Open() < 0) return 1;
        InitDispatcher();
        Multiplexer().Unregister(STDIN_FILENO); // nothing at the other end would read it
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) < 0) return errno;
        interruptPipe = ends[1];
        Multiplexer().Register(ends[0], Interrupt(*this));
        InterruptHandler const handler;
        return SshSession::Run();
    }
};

bool IsLocal(char const* option) { return std::strcmp(option, "-L") == 0; }
bool IsForwarding(char const* option) {
    return option && (IsLocal(option) || std::strcmp(option, "-R") == 0);
}

bool IsReadable(char const* spec) {
    String_t bindAddress, host;
    unsigned int listenPort, port;
    return SshSession::ParseFwdSpec(spec, bindAddress, listenPort, host, port) == 0;
}

/// Says which port the server has chosen, if it was asked to.
void ShowRemotePort(char const* spec, cindral::StandardDialect const* dialect) {
    String_t bindAddress, host;
    unsigned int listenPort = 0, port = 0;
    SshSession::ParseFwdSpec(spec, bindAddress, listenPort, host, port);
    if (dialect && listenPort == 0)
        std::cerr << spec << ": the server listens on port " << dialect->RemotePort() << std::endl;
}

/// Starts the forwardings from `option` on, two words each. Returns DONE, or the status of a failure that has
/// been reported.
int StartForwardings(SshSession& session, cindral::StandardDialect const* dialect, char** option) {
    for (; IsForwarding(*option); option += 2) {
        int const result = IsLocal(*option) ? session.StartLocalForwarding(option[1])
                                            : session.StartRemoteForwarding(option[1]);
        if (result == 0) {
            if (!IsLocal(*option)) ShowRemotePort(option[1], dialect);
            continue;
        }
        String_t what(option[1]);
        what += ": ";
        what += result == -1 ? "refused, or forwarded already" : std::strerror(-result);
        return Fail(examples::NOT_FORWARDED, what);
    }
    return examples::DONE;
}

} // namespace

int main(int, char** argv) {
    char const usage[] =
        "usage: forward [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] FORWARDING... [-s | COMMAND...]\n"
        "FORWARDING: -L or -R [BIND_ADDRESS:]LISTEN_PORT:HOST:PORT\n"
        "-s: run a shell, too";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    char** rest = arguments._rest;
    if (!IsForwarding(*rest)) return Fail(examples::USAGE, usage);
    for (; IsForwarding(*rest); rest += 2)
        if (!IsReadable(rest[1])) return Fail(examples::USAGE, usage);

    auto const start = [&](SshSession& session, cindral::StandardDialect const* dialect) {
        return StartForwardings(session, dialect, arguments._rest);
    };
    auto const forward = [&](SshSession& session, cindral::StandardDialect const* dialect) {
        int const status = start(session, dialect);
        return status == examples::DONE ? examples::RunToTheEnd(session, dialect) : status;
    };
    if (!*rest) return examples::LoginAndWork<ForwardingSession>(arguments, forward);
    if (std::strcmp(*rest, "-s") == 0)
        return examples::RunSession<cindral::SshInteractiveSession>(arguments, start);
    return examples::RunSession<cindral::SshCmdSession>(arguments, start, examples::Command(rest));
}
