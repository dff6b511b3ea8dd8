// One session of the library with a real server. The arguments, each NAME=VALUE, say what to do; the result
// of each step is written line by line to the file `report`, as "STEP RESULT". What the session prints, and
// what the remote program prints, is this program's own output.
//
//     report=FILE port=N user=NAME
//     identity=FILE password=TEXT
//     answer=TEXT                               to every keyboard-interactive prompt
//     tries=N                                   passwords tried at most
//     ask=yes                                   asks for passwords on the terminal
//     unsolicited=N                                 packets to read between the login and the channel
//     display=TEXT                              X11 is forwarded to it
//     local=SPEC remote=SPEC                    forwardings, of which a local one may listen on port 0
//     action=login|open|command|shell|forward   how far to go; "forward" goes on until SIGTERM
//     command=TEXT

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include <brantle/brantle.h>

namespace {

using Options = std::map<std::string, std::string>;

constexpr unsigned int CONNECT_SECONDS = 20;

Options ReadOptions(char** arguments) {
    Options options;
    for (; *arguments; ++arguments) {
        std::string const text = *arguments;
        std::size_t const equals = text.find('=');
        if (equals == std::string::npos) std::abort();
        options[text.substr(0, equals)] = text.substr(equals + 1);
    }
    return options;
}

unsigned int Number(Options& options, char const* name) {
    return static_cast<unsigned int>(std::atoi(options[name].c_str()));
}

String_t Text(Options& options, char const* name) { return String_t(options[name].c_str()); }

class Report {
public:
    explicit Report(std::string const& path) : _file(path) {}

    template <class Result>
    void operator()(char const* step, Result const& result) {
        _file << step << ' ' << result << std::endl;
    }

private:
    std::ofstream _file;
};

/// Gives the same answer to every prompt, and reports how many prompts each request has.
class ReportedAnswers : public cindral::KbdCopyCallback {
public:
    ReportedAnswers(String_t const& answer, Report& report) : KbdCopyCallback(answer), _report(report) {}

    TOList<String_t> operator()(String_t const& name, String_t const& instruction,
                                TOList<cindral::Prompt> const& prompts) override {
        _report("prompts", prompts.Len());
        return KbdCopyCallback::operator()(name, instruction, prompts);
    }

private:
    Report& _report;
};

/// Has no user to ask.
class NobodyThere : public cindral::EnterPassword {
public:
    using EnterPassword::EnterPassword;

    int operator()(char*, unsigned int) override { return -1; }
};

std::unique_ptr<cindral::EnterPassword> NewEnterPassword(Options& options) {
    unsigned int const tries = Number(options, "tries");
    if (options["ask"] == "yes") return std::make_unique<cindral::EnterPassword>(tries, String_t());
    return std::make_unique<NobodyThere>(tries, String_t());
}

/// A session only for forwardings: its channel has no command, and its Run ends with SIGTERM.
class Forwarder : public cindral::SshSession {
public:
    Forwarder(unsigned short port, String_t const& host, Options& options, Report& report)
        : SshSession(CLIENT, port, host), _options(options), _report(report) {}

    int Run() override {
        if (!_options["remote"].empty()) _report("remote", StartRemoteForwarding(Text(_options, "remote")));
        int const opened = Open();
        _report("open", opened);
        if (opened != 0) return opened;
        InitDispatcher();
        _mux.Unregister(STDIN_FILENO);
        if (pipe(_signals) != 0) std::abort();
        _mux.Register(_signals[0], Ender(*this));
        std::signal(SIGTERM, [](int) {
            if (write(_signals[1], "", 1) != 1) std::abort();
        });
        if (!_options["local"].empty()) _report("local", StartLocalForwarding(Text(_options, "local")));
        if (LocalForwarding const* forwarding = _localForwardings.Find(0)) {
            sockaddr_in address{};
            socklen_t size = sizeof address;
            getsockname(forwarding->_server->Fd(), reinterpret_cast<sockaddr*>(&address), &size);
            _report("listening-port", ntohs(address.sin_port));
        }
        _report("started", "yes");
        int const result = SshSession::Run();
        _report("channels-left", ChannelsLeft());
        return result;
    }

private:
    class Ender : public IOMultiplexerDispatcher {
    public:
        explicit Ender(Forwarder& session) : IOMultiplexerDispatcher(IOMultiplexerRead), _session(session) {}
        Ender* Clone() const override { return new Ender(*this); }
        int Dispatch(int) override {
            _session.Terminate();
            return 0;
        }

    private:
        Forwarder& _session;
    };

    /// How many channels there are beside that of the session.
    int ChannelsLeft() const {
        int left = 0;
        for (unsigned int id = 1; id < _channels.NextId(); ++id)
            if (_channels.Find(static_cast<int>(id))) ++left;
        return left;
    }

    Options& _options;
    Report& _report;
    static inline int _signals[2];
};

std::unique_ptr<cindral::SshSession> NewSession(Options& options, Report& report) {
    auto const port = static_cast<unsigned short>(Number(options, "port"));
    String_t const host("127.0.0.1");
    if (options["action"] == "command")
        return std::make_unique<cindral::SshCmdSession>(port, host, Text(options, "command"));
    if (options["action"] == "forward") return std::make_unique<Forwarder>(port, host, options, report);
    if (options["action"] == "shell") return std::make_unique<cindral::SshInteractiveSession>(port, host);
    return std::make_unique<cindral::SshSession>(cindral::SshSession::CLIENT, port, host);
}

/// The most memory that this process has ever had resident, in KiB.
long PeakMemory() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != "VmHWM:") {
    }
    long peak = 0;
    status >> peak;
    return peak;
}

/// Whether the session is logged in now.
bool LogIn(cindral::SshSession& session, Options& options, Report& report) {
    int result = session.Connect(CONNECT_SECONDS);
    report("connect", result);
    if (result != 0) return false;
    report("server-version", session.ServerVersion());
    result = session.KeyExchange();
    report("key-exchange", result);
    if (result != 0) return false;
    report("group-exchange", session.KexMethod() == cindral::KEX_GEX ? "yes" : "no");
    for (int direction : {0, 1}) {
        report("cipher", session.CipherName(direction));
        report("mac", session.MacName(direction));
    }
    std::unique_ptr<cindral::EnterPassword> const enter = NewEnterPassword(options);
    ReportedAnswers answers(Text(options, "answer"), report);
    result = session.Authenticate(Text(options, "identity"), Text(options, "user"), Text(options, "password"),
                                  *enter, answers);
    report("authenticate", result);
    for (unsigned int left = Number(options, "unsolicited"); left > 0; --left)
        report("unsolicited", cindral::MessageNumber(session.AuthReadPacket()));
    return result == 0;
}

void Use(cindral::SshSession& session, Options& options, Report& report) {
    if (!LogIn(session, options, report) || options["action"] == "login") return;
    if (!options["display"].empty()) report("x11", session.StartX11Forwarding(0, Text(options, "display")));
    if (options["action"] == "open") return report("open", session.Open());
    report("peak-kib-before", PeakMemory());
    report("run", session.Run());
    report("peak-kib", PeakMemory());
}

std::string Kind(Except const& failure) {
    if (dynamic_cast<cindral::SshProtocolError const*>(&failure)) return "SshProtocolError";
    if (dynamic_cast<cindral::BadInput const*>(&failure)) return "BadInput";
    if (dynamic_cast<cindral::InvalidArgument const*>(&failure)) return "InvalidArgument";
    if (dynamic_cast<cindral::SystemError const*>(&failure)) return "SystemError";
    return "Except";
}

} // namespace

int main(int, char** arguments) {
    Options options = ReadOptions(arguments + 1);
    Report report(options["report"]);
    try {
        std::unique_ptr<cindral::SshSession> const session = NewSession(options, report);
        Use(*session, options, report);
    } catch (Except const& failure) {
        report("thrown", Kind(failure) + ": " + failure.what());
    }
    report("end", "reached");
}
