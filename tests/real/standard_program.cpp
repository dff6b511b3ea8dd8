// A session with the standard dialect, for the tests of real servers.
//
//   standard_program [NAME=VALUE...] JOB TARGET KEY ARGUMENT...
//
//     login                    nothing after the login
//     run COMMAND              with descriptors 0, 1 and 2; exits with the command's status
//     forward                  serves forwardings alone until descriptor 0 has something to read, or its end
//     get REMOTE LOCAL         over SFTP, as put LOCAL REMOTE, cat REMOTE, mget PATTERN DIRECTORY, ls
//     DIRECTORY scp-get DIR TO NAME      through the remote scp, as scp-put DIR TO NAME
//
// An empty KEY leaves the choice to the session. Names: kex, hostkeys, ciphers, macs set what is offered;
// password is what questions are answered with, too; rekey the bytes between key exchanges; local and remote
// a forwarding; display the X server. What was agreed goes to the file that "report" names, before Run and at
// the end. Exit status 100: a refusal, with the reason on the error output; 101: an exception.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <brantle/brantle.h>
#include <brantle/standard.h>

using namespace cindral;

namespace {

constexpr int REFUSED = 100;
constexpr int THROWN = 101;

using Options = std::map<std::string, std::string>;
using Arguments = std::vector<std::string>;

char const* Get(Options const& options, char const* name) {
    auto const found = options.find(name);
    return found == options.end() ? nullptr : found->second.c_str();
}

void Configure(StandardDialect& dialect, Options const& options) {
    if (char const* names = Get(options, "kex")) dialect.SetKexAlgorithms(names);
    if (char const* names = Get(options, "hostkeys")) dialect.SetHostKeyAlgorithms(names);
    if (char const* names = Get(options, "ciphers")) dialect.SetCiphers(names);
    if (char const* names = Get(options, "macs")) dialect.SetMacs(names);
    if (char const* bytes = Get(options, "rekey"))
        dialect.SetRekeyLimit(std::strtoull(bytes, nullptr, 10), 0);
}

int Refuse(StandardDialect const& dialect) {
    std::cerr << dialect.LastError() << '\n';
    return REFUSED;
}

/// Connects and logs in; 0 or REFUSED.
int LogIn(SshSession& session, StandardDialect& dialect, Options const& options, std::string const& user,
          std::string const& key) {
    Configure(dialect, options);
    EnterPassword enter(0, "");
    String_t const password = Get(options, "password");
    KbdCopyCallback questions(password);
    if (session.Connect(20) < 0 || session.KeyExchange() < 0 ||
        session.Authenticate(key.c_str(), user.c_str(), password, enter, questions) < 0)
        return Refuse(dialect);
    return 0;
}

/// Written whole or not at all, for whoever waits for it.
void Report(SshSession const& session, StandardDialect const& dialect, Options const& options) {
    char const* const file = Get(options, "report");
    if (!file) return;
    std::string const part = std::string(file) + ".part";
    std::ofstream(part) << "kex=" << dialect.KexName() << "\nhostkey=" << dialect.HostKeyName()
                        << "\ncipher=" << session.CipherName(0) << "\nmac=" << session.MacName(0)
                        << "\nstrict=" << dialect.IsStrict() << "\nexchanges=" << dialect.KeyExchanges()
                        << "\nsignal=" << dialect.ExitSignal() << "\nport=" << dialect.RemotePort()
                        << "\nerror=" << dialect.LastError() << '\n';
    if (std::rename(part.c_str(), file) != 0) throw std::runtime_error("cannot write the report");
}

int OnlyLogIn(Options const& options, std::string const& host, std::string const& user,
              Arguments const& args) {
    SshSession session(SshSession::CLIENT, host.c_str());
    StandardDialect dialect(session);
    if (int const result = LogIn(session, dialect, options, user, args.at(0))) return result;
    Report(session, dialect, options);
    return 0;
}

/// 0 or REFUSED.
int StartForwardings(SshSession& session, StandardDialect const& dialect, Options const& options) {
    if (char const* spec = Get(options, "local"))
        if (session.StartLocalForwarding(spec) < 0) return Refuse(dialect);
    if (char const* spec = Get(options, "remote"))
        if (session.StartRemoteForwarding(spec) < 0) return Refuse(dialect);
    return 0;
}

int RunCommand(Options const& options, std::string const& host, std::string const& user,
               Arguments const& args) {
    SshCmdSession session(host.c_str(), args.at(1).c_str());
    StandardDialect dialect(session);
    if (int const result = LogIn(session, dialect, options, user, args.at(0))) return result;
    if (int const result = StartForwardings(session, dialect, options)) return result;
    if (char const* display = Get(options, "display")) session.StartX11Forwarding(0, display);
    Report(session, dialect, options);
    session.Run();
    Report(session, dialect, options);
    return dialect.ExitStatus() < 0 ? Refuse(dialect) : dialect.ExitStatus();
}

/// Ends a session when its descriptor can be read.
class Stop : public IOMultiplexerDispatcher {
public:
    explicit Stop(SshSession& session) : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session) {}
    Stop* Clone() const override { return new Stop(*this); }
    int Dispatch(int) override {
        _session.Disconnect(Packet::SSH_DISCONNECT_BY_APPLICATION, "done");
        _session.Terminate();
        return 0;
    }

private:
    SshSession& _session;
};

/// A session whose channel runs nothing.
class Forwarder : public SshSession {
public:
    explicit Forwarder(char const* host) : SshSession(CLIENT, host) {}
    int Run() override {
        if (Open() < 0) return -1;
        InitDispatcher();
        // A descriptor of its own: the dialect watches the first one as it sees fit.
        Multiplexer().Register(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0), Stop(*this));
        SshSession::Run();
        return 0;
    }
};

int Forward(Options const& options, std::string const& host, std::string const& user, Arguments const& args) {
    Forwarder session(host.c_str());
    StandardDialect dialect(session);
    if (int const result = LogIn(session, dialect, options, user, args.at(0))) return result;
    if (int const result = StartForwardings(session, dialect, options)) return result;
    Report(session, dialect, options);
    int const result = session.Run();
    Report(session, dialect, options);
    return result < 0 ? Refuse(dialect) : 0;
}

int List(SftpClientSession& session, SftpStatus& status, char const* directory) {
    TSet<DirEntry, DirEntry::Compare> entries;
    int const result = session.ListDir(status, entries, directory, 0);
    TSet<DirEntry, DirEntry::Compare>::ConstIterator next(entries, 0);
    for (; next.Curr(); ++next) std::cout << next->_name << '\n';
    return result;
}

int CopyOverSftp(std::string const& job, Options const& options, std::string const& host,
                 std::string const& user, Arguments const& args) {
    SftpClientSession session(host.c_str());
    StandardDialect dialect(session);
    if (int const result = LogIn(session, dialect, options, user, args.at(0))) return result;
    if (session.Start() != 0) return Refuse(dialect);
    SftpStatus status;
    int result = -1;
    if (job == "get") result = session.Get(status, args.at(1).c_str(), args.at(2).c_str());
    if (job == "put") result = session.Put(status, args.at(1).c_str(), args.at(2).c_str());
    if (job == "cat") result = session.Cat(status, args.at(1).c_str());
    if (job == "mget") result = session.MGet(status, args.at(1).c_str(), args.at(2).c_str());
    if (job == "ls") result = List(session, status, args.at(1).c_str());
    Report(session, dialect, options);
    return result < 0 ? Refuse(dialect) : 0;
}

int CopyThroughScp(std::string const& job, Options const& options, std::string const& host,
                   std::string const& user, Arguments const& args) {
    ScpSession session(host.c_str());
    StandardDialect dialect(session);
    if (int const result = LogIn(session, dialect, options, user, args.at(0))) return result;
    char const *from = args.at(1).c_str(), *to = args.at(2).c_str(), *name = args.at(3).c_str();
    int const result =
        job == "scp-put" ? session.SendFile(from, to, name) : session.ReceiveFile(from, to, name);
    return result < 0 ? Refuse(dialect) : 0;
}

int Main(Arguments arguments) {
    Options options;
    while (!arguments.empty() && arguments.front().find('=') != std::string::npos) {
        std::size_t const at = arguments.front().find('=');
        options[arguments.front().substr(0, at)] = arguments.front().substr(at + 1);
        arguments.erase(arguments.begin());
    }
    std::string const job = arguments.at(0), target = arguments.at(1);
    std::size_t const at = target.find('@');
    std::string const user = target.substr(0, at), host = target.substr(at + 1);
    Arguments const rest(arguments.begin() + 2, arguments.end());
    if (job == "login") return OnlyLogIn(options, host, user, rest);
    if (job == "forward") return Forward(options, host, user, rest);
    if (job == "run") return RunCommand(options, host, user, rest);
    if (job.rfind("scp-", 0) == 0) return CopyThroughScp(job, options, host, user, rest);
    return CopyOverSftp(job, options, host, user, rest);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Main(Arguments(argv + 1, argv + argc));
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
        return THROWN;
    }
}
