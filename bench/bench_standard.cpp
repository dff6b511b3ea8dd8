// The benchmark program of the standard dialect: one job a run, with a RESULT line for the harness. The
// variables BENCH_KEX, BENCH_SIGNATURES, BENCH_CIPHERS and BENCH_MACS of the environment set what is offered.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <string>

#include <brantle/brantle.h>
#include <brantle/standard.h>

#include "bench/bench_program.h"

namespace {

using namespace bench;
using namespace cindral;

/// A session of some class with the dialect, logged in.
template <class Session>
class Standard : public Session {
public:
    template <class... Arguments>
    explicit Standard(Target const& target, Arguments const&... arguments)
        : Session(target._port, String_t(target._host), arguments...), _dialect(*this) {
        Offer("BENCH_KEX", &StandardDialect::SetKexAlgorithms);
        Offer("BENCH_SIGNATURES", &StandardDialect::SetHostKeyAlgorithms);
        Offer("BENCH_SIGNATURES", &StandardDialect::SetPublicKeyAlgorithms);
        Offer("BENCH_CIPHERS", &StandardDialect::SetCiphers);
        Offer("BENCH_MACS", &StandardDialect::SetMacs);
        LogIn(target);
    }

    StandardDialect& Dialect() { return _dialect; }
    [[noreturn]] void Fail(char const* what) {
        Die(std::string(what) + ": " + str_text(_dialect.LastError().Text()));
    }

private:
    void Offer(char const* variable, void (StandardDialect::*set)(String_t const&)) {
        if (char const* names = std::getenv(variable)) (_dialect.*set)(names);
    }
    void LogIn(Target const& target) {
        if (this->Connect(CONNECT_SECONDS) < 0) Fail("connect");
        SshSession::SetNodelay(this->Fd()); // as the programs of the other clients do
        if (this->KeyExchange() < 0) Fail("key exchange");
        EnterPassword none(0, String_t());
        KbdCopyCallback empty((String_t()));
        if (this->Authenticate(target._key, target._user, String_t(), none, empty) < 0) Fail("login");
    }

    StandardDialect _dialect;
};

/// A session without a command.
class PlainSession : public SshSession {
public:
    PlainSession(unsigned short port, String_t const& host) : SshSession(CLIENT, port, host) {}
};

int Handshake(Target const& target, Report& report, char** arguments) {
    long const count = std::atol(arguments[0]);
    Usage const start = Usage::Current();
    for (long i = 0; i < count; ++i) Standard<PlainSession> const session(target);
    report.Print(start, Usage::Current(), 0, count);
    return 0;
}

/// Runs a command with descriptors 0 and 1.
int Run(Target const& target, Report& report, String_t const& command, long long bytes) {
    Standard<SshCmdSession> session(target, command);
    Usage const start = Usage::Current();
    session.Run();
    report.Print(start, Usage::Current(), bytes, 0);
    if (session.Dialect().ExitStatus() != 0) session.Fail("command failed");
    return 0;
}

int ExecSource(Target const& target, Report& report, char** arguments) {
    Redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
    Redirect(STDOUT_FILENO, arguments[1], O_WRONLY | O_CREAT | O_TRUNC);
    String_t command("head -c ");
    (command += arguments[0]) += " /dev/zero";
    return Run(target, report, command, std::atoll(arguments[0]));
}

int ExecSink(Target const& target, Report& report, char** arguments) {
    Redirect(STDIN_FILENO, arguments[0], O_RDONLY);
    return Run(target, report, "cat >/dev/null", SizeOf(arguments[0]));
}

int ScpGet(Target const& target, Report& report, char** arguments) {
    Standard<ScpSession> session(target);
    Pathname const local(arguments[1]);
    TOList<String_t> remote;
    remote.Append(arguments[0]);
    Usage const start = Usage::Current();
    if (session.StartReceive(String_t(), remote) != 0) session.Fail("scp did not start");
    if (session.ReceiveFile(local.Dir(), local.Leaf(nullptr)) != 0) session.Fail("scp");
    // The harness receives into a device; its server is on this host.
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int ScpPut(Target const& target, Report& report, char** arguments) {
    Standard<ScpSession> session(target);
    Pathname const local(arguments[0]);
    Usage const start = Usage::Current();
    if (session.StartSend(String_t(arguments[1])) != 0) session.Fail("scp did not start");
    if (session.SendFile(local.Dir(), local.Leaf(nullptr)) != 0) session.Fail("scp");
    session.TerminateSend();
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int SftpGet(Target const& target, Report& report, char** arguments, unsigned int requests) {
    Standard<SftpClientSession> session(target);
    session.Dialect().SetRequestsInFlight(requests);
    if (session.Start() != 0) session.Fail("sftp did not start");
    SftpStatus status;
    Usage const start = Usage::Current();
    if (session.Receive(status, arguments[0], arguments[1]) != 0) session.Fail("sftp");
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int SftpPut(Target const& target, Report& report, char** arguments, unsigned int requests) {
    Standard<SftpClientSession> session(target);
    session.Dialect().SetRequestsInFlight(requests);
    if (session.Start() != 0) session.Fail("sftp did not start");
    SftpStatus status;
    Usage const start = Usage::Current();
    if (session.Send(status, arguments[0], arguments[1]) != 0) session.Fail("sftp");
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int Hold(Target const& target, Report&, char**) {
    Standard<PlainSession> const session(target);
    HoldUntilEndOfInput();
    return 0;
}

SshSession* forwarding;

int Forward(Target const& target, Report&, char** arguments) {
    Standard<PlainSession> session(target);
    if (session.Open() < 0) session.Fail("channel");
    session.InitDispatcher();
    session.Multiplexer().Unregister(STDIN_FILENO);
    forwarding = &session;
    std::signal(SIGTERM, [](int) { forwarding->Terminate(); }); // poll(2) returns, and with it Run
    auto const number = [](char const* text) { return static_cast<unsigned int>(std::atoi(text)); };
    if (session.StartLocalForwarding(number(arguments[2]), arguments[1], number(arguments[0]), "127.0.0.1") !=
        0)
        session.Fail("can't listen");
    session.Run();
    return 0;
}

constexpr unsigned int IN_FLIGHT = 64;

template <int (*run)(Target const&, Report&, char**, unsigned int), unsigned int requests>
int With(Target const& target, Report& report, char** arguments) {
    return run(target, report, arguments, requests);
}

std::map<std::string, Job> const jobs = {
    {"handshake", {1, Handshake}},
    {"exec-source", {2, ExecSource}},
    {"exec-sink", {1, ExecSink}},
    {"scp-get", {2, ScpGet}},
    {"scp-put", {2, ScpPut}},
    {"sftp-get", {2, With<SftpGet, IN_FLIGHT>}},
    {"sftp-get-sync", {2, With<SftpGet, 1>}},
    {"sftp-put", {2, With<SftpPut, IN_FLIGHT>}},
    {"sftp-put-sync", {2, With<SftpPut, 1>}},
    {"fwd", {3, Forward}},
    {"hold", {0, Hold}},
};

} // namespace

int main(int argc, char** argv) { return Main(argc, argv, jobs); }
