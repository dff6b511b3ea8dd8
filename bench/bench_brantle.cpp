// The benchmark program of the reduced dialect: one job a run, with a RESULT line for the harness.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <string>

#include <brantle/brantle.h>

#include "bench/bench_program.h"

namespace {

using namespace bench;
using namespace cindral;

/// What OpenSSH's server sends between a login by key and the first channel.
constexpr int UNSOLICITED_PACKETS = 3;

/// The session channel, with a count of the bytes received and the time of the last ones.
class CountingChannel : public SshChannelMgr::TtyChannel {
public:
    struct Total {
        long long _bytes = 0;
        double _last = 0;
    };

    class Maker : public SshChannelMakerBase {
    public:
        explicit Maker(Total& total) : _total(total) {}
        SshChannel* operator()(unsigned int localId, unsigned int remoteId, String_t const& name,
                               unsigned int windowSize, ISshPacketStream* in,
                               OSshPacketStream* out) const override {
            return new CountingChannel(_total, localId, remoteId, name, windowSize, in, out);
        }

    private:
        Total& _total;
    };

    CountingChannel(Total& total, unsigned int localId, unsigned int remoteId, String_t const& name,
                    unsigned int windowSize, ISshPacketStream* in, OSshPacketStream* out)
        : TtyChannel(localId, remoteId, name, windowSize, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, in,
                     out),
          _total(total) {}

    void Forward(char const* data, unsigned int n) override {
        TtyChannel::Forward(data, n);
        _total._bytes += n;
        _total._last = Now();
    }

private:
    Total& _total;
};

void LogIn(SshSession& session, Target const& target) {
    if (int const error = session.Connect(CONNECT_SECONDS); error < 0)
        Die("connect: " + std::to_string(error));
    SshSession::SetNodelay(session.Fd()); // as the programs of the other clients do
    if (session.KeyExchange() < 0) Die("key exchange failed");
    EnterPassword none(0, String_t());
    KbdCopyCallback empty((String_t()));
    if (session.Authenticate(target._key, target._user, String_t(), none, empty) < 0) Die("login failed");
}

void DrainPendingMessages(SshSession& session) {
    for (int i = 0; i < UNSOLICITED_PACKETS; ++i) session.AuthReadPacket();
}

class BenchSession : public SshSession {
public:
    explicit BenchSession(Target const& target) : SshSession(CLIENT, target._port, String_t(target._host)) {
        LogIn(*this, target);
    }

    /// Runs a command whose output goes to descriptor 1 and whose input comes from descriptor 0.
    CountingChannel::Total RunCommand(String_t const& command) {
        CountingChannel::Total total;
        if (Open() < 0) Die("channel refused");
        StartCommand(command);
        InitDispatcher();
        ReplaceChannel(0, CountingChannel::Maker(total));
        Run();
        return total;
    }
};

int Handshake(Target const& target, Report& report, char** arguments) {
    long const count = std::atol(arguments[0]);
    Usage const start = Usage::Current();
    for (long i = 0; i < count; ++i) BenchSession session(target);
    report.Print(start, Usage::Current(), 0, count);
    return 0;
}

int ExecSource(Target const& target, Report& report, char** arguments) {
    Redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
    Redirect(STDOUT_FILENO, arguments[1], O_WRONLY | O_CREAT | O_TRUNC);
    BenchSession session(target);
    DrainPendingMessages(session);
    Usage const start = Usage::Current();
    // Data after exit-status is dropped, so the command outlives its output.
    String_t command("head -c ");
    ((command += arguments[0]) += " /dev/zero; sleep 1");
    CountingChannel::Total const total = session.RunCommand(command);
    Usage end = Usage::Current();
    end._wall = total._last;
    report.Print(start, end, total._bytes, 0);
    return total._bytes == std::atoll(arguments[0]) ? 0 : 1;
}

int ExecSink(Target const& target, Report& report, char** arguments) {
    Redirect(STDIN_FILENO, arguments[0], O_RDONLY);
    BenchSession session(target);
    DrainPendingMessages(session);
    Usage const start = Usage::Current();
    session.RunCommand("cat >/dev/null");
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int ScpGet(Target const& target, Report& report, char** arguments) {
    ScpSession session(target._port, String_t(target._host));
    LogIn(session, target);
    DrainPendingMessages(session);
    Pathname const local(arguments[1]);
    TOList<String_t> remote;
    remote.Append(arguments[0]);
    Usage const start = Usage::Current();
    if (session.StartReceive(String_t(), remote) != 0) Die("scp did not start");
    if (session.ReceiveFile(local.Dir(), local.Leaf(nullptr)) != 0) Die("scp failed");
    // The harness receives into a device; its server is on this host.
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int ScpPut(Target const& target, Report& report, char** arguments) {
    ScpSession session(target._port, String_t(target._host));
    LogIn(session, target);
    DrainPendingMessages(session);
    Pathname const local(arguments[0]);
    Usage const start = Usage::Current();
    if (session.StartSend(String_t(arguments[1])) != 0) Die("scp did not start");
    if (session.SendFile(local.Dir(), local.Leaf(nullptr)) != 0) Die("scp failed");
    session.TerminateSend();
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

class BenchSftpSession : public SftpClientSession {
public:
    explicit BenchSftpSession(Target const& target)
        : SftpClientSession(target._port, String_t(target._host)) {
        LogIn(*this, target);
        DrainPendingMessages(*this);
        if (Start() != 0) Die("sftp did not start");
    }
};

void Expect(int result, SftpStatus const& status) {
    if (result == 0) return;
    Die("sftp failed: " + std::to_string(result) + " " + str_text(status._message.Text()));
}

int SftpGet(Target const& target, Report& report, char** arguments) {
    BenchSftpSession session(target);
    SftpStatus status;
    Usage const start = Usage::Current();
    Expect(session.Receive(status, String_t(arguments[0]), String_t(arguments[1])), status);
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int SftpPut(Target const& target, Report& report, char** arguments) {
    BenchSftpSession session(target);
    SftpStatus status;
    Usage const start = Usage::Current();
    Expect(session.Send(status, String_t(arguments[0]), String_t(arguments[1])), status);
    report.Print(start, Usage::Current(), SizeOf(arguments[0]), 0);
    return 0;
}

int Hold(Target const& target, Report&, char**) {
    BenchSession session(target);
    HoldUntilEndOfInput();
    return 0;
}

SshSession* forwarding;

int Forward(Target const& target, Report&, char** arguments) {
    BenchSession session(target);
    DrainPendingMessages(session);
    if (session.Open() < 0) Die("channel refused");
    session.InitDispatcher();
    session.Multiplexer().Unregister(STDIN_FILENO);
    forwarding = &session;
    std::signal(SIGTERM, [](int) { forwarding->Terminate(); }); // poll(2) returns, and with it Run
    auto const number = [](char const* text) { return static_cast<unsigned int>(std::atoi(text)); };
    if (session.StartLocalForwarding(number(arguments[2]), arguments[1], number(arguments[0]), "127.0.0.1") !=
        0)
        Die("can't listen");
    session.Run();
    return 0;
}

std::map<std::string, Job> const jobs = {
    {"handshake", {1, Handshake}},
    {"exec-source", {2, ExecSource}},
    {"exec-sink", {1, ExecSink}},
    {"scp-get", {2, ScpGet}},
    {"scp-put", {2, ScpPut}},
    {"sftp-get", {2, SftpGet}}, // there is only one request at a time
    {"sftp-get-sync", {2, SftpGet}},
    {"sftp-put", {2, SftpPut}},
    {"sftp-put-sync", {2, SftpPut}},
    {"fwd", {3, Forward}},
    {"hold", {0, Hold}},
};

} // namespace

int main(int argc, char** argv) { return Main(argc, argv, jobs); }
