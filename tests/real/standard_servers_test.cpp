// The standard dialect with the servers that people run, each with all jobs of a table.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/standard_client.h"
#include "real/standard_servers_table.h"
#include "support/servers/standard_servers.h"
#include "support/servers/stock_sshd.h"
#include "support/servers/x_server.h"
#include "support/temporary_directory.h"
#include "wire/tcp_end.h"

using servers::Outcome;
using servers::ReadFile;
using servers::StandardServer;
using servers::WriteFile;
using testing::HasSubstr;

namespace {

using Words = std::vector<std::string>;

constexpr int REFUSED = 100;
constexpr int THROWN = 101;
constexpr std::size_t MEBIBYTE = 1 << 20;
constexpr std::size_t BULK = BUILT_WITH_SANITIZER ? 8 * MEBIBYTE : 64 * MEBIBYTE;
constexpr std::size_t REKEYED = BUILT_WITH_SANITIZER ? 2 * MEBIBYTE : 8 * MEBIBYTE;
constexpr std::size_t VERY_MANY = 2200 * MEBIBYTE;
constexpr std::size_t CONNECTIONS = 8;
constexpr std::size_t SMALL = 8192; ///< so little that no keys are renewed for it

/// Bytes without a period that a packet or a window could hide.
std::string Noise(std::size_t size, unsigned int seed = 1) {
    std::string bytes(size, '\0');
    unsigned int state = seed;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

// --- the servers

/// A row of the table: how its server is started and what a session with it needs.
struct Kind {
    std::string name;
    std::function<std::unique_ptr<StandardServer>()> start;
    bool runsCommands = true;
    bool asksPassword = false;
    std::string firstErrors{}; ///< what a command's error output begins with
    bool isSlow = false;       ///< with so much to do that it gets an eighth of the bulk
};

template <class Server, class... Arguments>
std::function<std::unique_ptr<StandardServer>()> Starts(Arguments... arguments) {
    return [=] { return std::make_unique<Server>(arguments...); };
}

constexpr char HARDENED[] =
    "Ciphers chacha20-poly1305@openssh.com,aes256-gcm@openssh.com,aes128-gcm@openssh.com\n"
    "MACs hmac-sha2-512-etm@openssh.com,hmac-sha2-256-etm@openssh.com\n"
    "KexAlgorithms curve25519-sha256,curve25519-sha256@libssh.org,diffie-hellman-group16-sha512\n";
constexpr char FORCED[] = "ForceCommand echo forced >&2; eval \"$SSH_ORIGINAL_COMMAND\"\n";
constexpr char WITH_PASSWORD[] = "AuthenticationMethods publickey,password\n";
constexpr char WITH_QUESTIONS[] = "AuthenticationMethods publickey,keyboard-interactive\n"
                                  "KbdInteractiveAuthentication yes\n";

std::vector<Kind> const& Kinds() {
    using namespace servers;
    using Strings = std::vector<std::string>;
    std::string const asyncssh = "asyncssh_server.py", paramiko = "paramiko_server.py";
    Strings const rekeying{"--rekey-bytes", std::to_string(MEBIBYTE)};
    static std::vector<Kind> const kinds{
        {"sshd 9.2", Starts<StockSshd>()},
        {"sshd 9.2, AEAD and EtM alone", Starts<StockSshd>(HARDENED)},
        {"sshd 9.2, RekeyLimit 64K", Starts<StockSshd>("RekeyLimit 64K\n"), true, false, "", true},
        {"sshd 9.2, RekeyLimit 1M 5s", Starts<StockSshd>("RekeyLimit 1M 5s\n")},
        {"sshd 9.2, ClientAliveInterval 1", Starts<StockSshd>("ClientAliveInterval 1\n")},
        {"sshd 9.2, ForceCommand", Starts<StockSshd>(FORCED), true, false, "forced\n"},
        {"sshd 9.2, ForceCommand internal-sftp", Starts<StockSshd>("ForceCommand internal-sftp\n"), false},
        {"sshd 9.2, key and password", Starts<StockSshd>(WITH_PASSWORD), true, true},
        {"sshd 9.2, key and questions", Starts<StockSshd>(WITH_QUESTIONS), true, true},
        {"sshd 10.0", Starts<Debian13Sshd>()},
        {"dropbear 2022.83", Starts<StandardDropbear>()},
        {"asyncssh 2.10", Starts<StandardPython>(asyncssh)},
        {"asyncssh 2.10, rekey_bytes 1 MiB", Starts<StandardPython>(asyncssh, rekeying)},
        {"paramiko 2.12", Starts<StandardPython>(paramiko)},
        {"paramiko 2.12, REKEY_BYTES 1 MiB", Starts<StandardPython>(paramiko, rekeying)},
        {"ProFTPD 1.3.8 mod_sftp", Starts<StandardProftpd>(), false},
        {"ProFTPD 1.3.8 mod_sftp, SFTPRekey 1 MB", Starts<StandardProftpd>("SFTPRekey required 3600 1"),
         false},
        {"tinyssh 20230101", Starts<Tinyssh>()},
    };
    return kinds;
}

Kind const& FindKind(std::string const& name) {
    for (Kind const& kind : Kinds())
        if (kind.name == name) return kind;
    throw std::runtime_error("no server is started as " + name);
}

// --- the table

struct Cell {
    std::string server;
    std::string job;
    std::string mark; ///< "+", or the number of a reason
};

void PrintTo(Cell const& cell, std::ostream* out) {
    *out << cell.server << ", " << cell.job << ": " << cell.mark;
}

Words FieldsOf(std::string const& line) {
    Words fields;
    std::istringstream rest(line.substr(std::min<std::size_t>(line.size(), 1)));
    for (std::string field; std::getline(rest, field, '|');) {
        std::size_t const first = field.find_first_not_of(' ');
        fields.push_back(field.substr(first, field.find_last_not_of(' ') + 1 - first));
    }
    return fields;
}

std::vector<Cell> Cells() {
    std::vector<Cell> cells;
    std::istringstream lines(standard_servers::TABLE);
    Words jobs;
    for (std::string line; std::getline(lines, line);) {
        Words const fields = FieldsOf(line);
        if (fields.empty() || fields[0] == "---") continue;
        if (jobs.empty()) {
            jobs = fields;
            continue;
        }
        if (fields.size() != jobs.size()) throw std::runtime_error("a row of another length: " + line);
        for (std::size_t i = 1; i < jobs.size(); ++i) cells.push_back({fields[0], jobs[i], fields[i]});
    }
    return cells;
}

/// Letters and digits of the server's and the job's name.
std::string NameOf(testing::TestParamInfo<Cell> const& info) {
    std::string name;
    auto const append = [&name](std::string const& text) {
        for (char const c : text)
            if (std::isalnum(static_cast<unsigned char>(c))) name += c;
    };
    append(info.param.server);
    name += '_';
    if (info.param.job[0] == '-') name += info.param.job[1] == 'L' ? "local" : "remote";
    if (info.param.job[0] != '-') append(info.param.job);
    return name;
}

// --- what the jobs need

/// Sends back what comes on each connection until its end, half-closed ones included.
class EchoService {
public:
    EchoService() : _thread([this] { Serve(); }) {}
    ~EchoService() {
        _isOver = true;
        tcp::End::Accepts(_service.Port());
        _thread.join();
        for (std::thread& user : _users) user.join();
    }
    EchoService(EchoService const&) = delete;
    EchoService& operator=(EchoService const&) = delete;

    std::string Port() const { return std::to_string(_service.Port()); }

private:
    void Serve() {
        while (!_isOver) {
            try {
                _users.emplace_back([end = _service.Accept()] { Echo(end); });
            } catch (std::runtime_error const&) {
                continue; // nobody came within the limit
            }
        }
    }
    static void Echo(tcp::End const& end) {
        try {
            for (std::string piece; !(piece = end.Receive(16384)).empty();) end.Send(piece);
        } catch (std::runtime_error const&) {
            return; // the connection has been cut, which its other end notices as well
        }
    }

    tcp::Service _service;
    std::atomic<bool> _isOver{false};
    std::vector<std::thread> _users;
    std::thread _thread;
};

/// Whether all that is sent to a port comes back, and then the end.
bool ComesBack(std::uint16_t port, unsigned int seed, std::size_t size) {
    std::string const sent = Noise(size, seed);
    try {
        tcp::End const end = tcp::End::To(port);
        std::future<void> const sender = std::async(std::launch::async, [&] {
            end.Send(sent);
            end.EndSending();
        });
        return end.ReceiveAll() == sent;
    } catch (std::runtime_error const&) {
        return false;
    }
}

std::size_t CountComingBack(std::string const& portText, std::size_t size) {
    auto const port = static_cast<std::uint16_t>(std::stoul(portText));
    std::atomic<std::size_t> right{0};
    std::vector<std::thread> users;
    for (unsigned int i = 0; i < CONNECTIONS; ++i)
        users.emplace_back([&right, port, i, size] { right += ComesBack(port, i + 1, size) ? 1 : 0; });
    for (std::thread& user : users) user.join();
    return right;
}

bool IsLong() { return std::getenv("BRANTLE_LONG") != nullptr; }

// --- the jobs

class StandardServers : public testing::TestWithParam<Cell> {
protected:
    static void TearDownTestSuite() {
        server.reset();
        serverName.clear();
    }
    /// A server runs for as long as its tests follow each other.
    void SetUp() override {
        if (serverName == GetParam().server) return;
        TearDownTestSuite();
        server = TheKind().start();
        serverName = GetParam().server;
    }

    void TearDown() override {
        if (!HasFailure()) return;
        std::string const log = server->Log();
        std::cerr << log.substr(log.size() - std::min<std::size_t>(log.size(), 2000)) << '\n';
    }

    static Kind const& TheKind() { return FindKind(GetParam().server); }

    Words Line(Words const& options, std::string const& job, Words const& arguments,
               std::string const& key = "ed25519") const {
        Words all = options;
        if (TheKind().asksPassword) all.push_back("password=" + server->Password());
        return StandardProgramLine(*server, _home.Path().string(), all, job, server->UserKey(key), arguments);
    }
    Outcome Do(Words const& options, std::string const& job, Words const& arguments,
               std::string const& input = {}) const {
        return servers::Run(Line(options, job, arguments), input);
    }
    Outcome Command(std::string const& command, std::string const& input = {}) const {
        return Do({}, "run", {command}, input);
    }
    std::string File(std::string const& name) const { return (_home.Path() / name).string(); }
    static std::string Remote(std::string const& name) { return server->Home() + "/" + name; }
    std::string Reported(std::string const& name) const {
        std::string const report = ReadFile(File("report"));
        std::size_t const at = report.find(name + "=");
        if (at == std::string::npos) return "not reported";
        std::size_t const from = at + name.size() + 1;
        return report.substr(from, report.find('\n', from) - from);
    }

    void Key();
    void Exec();
    void Signal();
    void Bulk();
    void Sftp();
    void Scp();
    void LocalForwarding(std::size_t size);
    void RemoteForwarding(std::size_t size);
    void X11();
    void Rekeying();
    void RekeyingByTheServer();

    void Cannot();
    void NoRekeying(bool afterMany);
    void NoCommand();
    void NoX11();
    void NoLocalForwarding();

    void CarriesBothWays(Words const& options, std::size_t size);

    static inline std::unique_ptr<StandardServer> server;
    static inline std::string serverName;
    support::TemporaryDirectory _home;
};

/// A session in its loop, with a command that reads its input, until that is ended.
class RunningSession {
public:
    RunningSession(Words const& line, std::string const& directory) : _directory(directory) {
        std::string const input = directory + "/input";
        if (mkfifo(input.c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
        _input = open(input.c_str(), O_RDWR | O_CLOEXEC); // else the start would wait for a writer
        _process = std::make_unique<servers::ChildProcess>(
            servers::Command{line, {}, input, directory + "/output", directory + "/errors"});
    }
    ~RunningSession() { close(_input); }
    RunningSession(RunningSession const&) = delete;
    RunningSession& operator=(RunningSession const&) = delete;

    /// Waits until the file is there; false if the session has ended before, or after a minute.
    bool Await(std::string const& file) const {
        auto const limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!std::filesystem::exists(file)) {
            if (!_process->IsRunning() || std::chrono::steady_clock::now() > limit) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    /// Ends it, or what is left of it after a minute.
    Outcome End() {
        close(std::exchange(_input, -1));
        return AwaitEnd();
    }
    /// Waits until it has ended by itself, and ends what is left of it after a minute.
    Outcome AwaitEnd() {
        auto const limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (_process->IsRunning() && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        _process->Stop();
        int const status = _process->Wait();
        return {status, ReadFile(_directory + "/output"), ReadFile(_directory + "/errors")};
    }

private:
    std::string _directory;
    int _input = -1;
    std::unique_ptr<servers::ChildProcess> _process;
};

void StandardServers::Key() {
    Outcome const outcome = servers::Run(Line({}, "login", {}, GetParam().job));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
}

void StandardServers::Exec() {
    Outcome const outcome = Command("cat; echo err >&2; exit 7", "some input\n");
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.output, "some input\n");
    EXPECT_EQ(outcome.errors, TheKind().firstErrors + "err\n");
}

void StandardServers::Signal() {
    Outcome const outcome = Command("kill -KILL $$");
    EXPECT_EQ(outcome.status, REFUSED) << outcome.errors;
    EXPECT_EQ(Reported("signal"), "KILL");
}

/// Through a command where the server runs some, else over SFTP.
void StandardServers::CarriesBothWays(Words const& options, std::size_t size) {
    std::string const noise = Noise(size);
    if (TheKind().runsCommands) {
        Outcome const outcome = Do(options, "run", {"cat"}, noise);
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_TRUE(outcome.output == noise) << outcome.output.size() << " bytes";
        return;
    }
    WriteFile(File("noise"), noise);
    EXPECT_EQ(Do(options, "put", {File("noise"), Remote("noise")}).errors, "");
    EXPECT_TRUE(ReadFile(Remote("noise")) == noise);
    EXPECT_EQ(Do(options, "get", {Remote("noise"), File("back")}).errors, "");
    EXPECT_TRUE(ReadFile(File("back")) == noise);
    std::filesystem::remove(Remote("noise"));
}

void StandardServers::Bulk() { CarriesBothWays({}, TheKind().isSlow && !IsLong() ? BULK / 8 : BULK); }

void StandardServers::Sftp() {
    std::string const noise = Noise(3 * MEBIBYTE + 12345);
    WriteFile(File("a file"), noise);
    EXPECT_EQ(Do({}, "put", {File("a file"), Remote("a file")}).errors, "");
    EXPECT_TRUE(ReadFile(Remote("a file")) == noise);
    WriteFile(File("empty"), "");
    EXPECT_EQ(Do({}, "put", {File("empty"), Remote("an empty file")}).errors, "");
    std::filesystem::create_directory(File("to"));
    EXPECT_EQ(Do({}, "mget", {Remote("a*file"), File("to")}).errors, "");
    EXPECT_TRUE(ReadFile(File("to/a file")) == noise);
    EXPECT_EQ(ReadFile(File("to/an empty file")), "");
    EXPECT_EQ(Do({}, "ls", {server->Home()}).output, "a file\nan empty file\n");
    Outcome const missing = Do({}, "get", {Remote("missing"), File("missing")});
    EXPECT_EQ(missing.status, REFUSED);
    EXPECT_THAT(missing.errors, HasSubstr("No such file"));
    std::filesystem::remove(Remote("a file"));
    std::filesystem::remove(Remote("an empty file"));
}

void StandardServers::Scp() {
    std::string const noise = Noise(3 * MEBIBYTE + 12345);
    WriteFile(File("scp-file"), noise);
    EXPECT_EQ(Do({}, "scp-put", {_home.Path().string(), server->Home(), "scp-file"}).errors,
              TheKind().firstErrors);
    EXPECT_TRUE(ReadFile(Remote("scp-file")) == noise);
    std::filesystem::create_directory(File("to"));
    EXPECT_EQ(Do({}, "scp-get", {server->Home(), File("to"), "scp-file"}).errors, TheKind().firstErrors);
    EXPECT_TRUE(ReadFile(File("to/scp-file")) == noise);
    std::filesystem::remove(Remote("scp-file"));
}

void StandardServers::LocalForwarding(std::size_t size) {
    EchoService const target;
    std::string const port = std::to_string(tcp::FreePort());
    RunningSession session(Line({"local=" + port + ":127.0.0.1:" + target.Port()}, "forward", {}),
                           _home.Path().string());
    ASSERT_TRUE(session.Await(File("report"))) << session.End().errors;
    EXPECT_EQ(CountComingBack(port, size), CONNECTIONS);
    Outcome const outcome = session.End();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
}

void StandardServers::RemoteForwarding(std::size_t size) {
    EchoService const target;
    RunningSession session(Line({"remote=0:127.0.0.1:" + target.Port()}, "forward", {}),
                           _home.Path().string());
    ASSERT_TRUE(session.Await(File("report"))) << session.End().errors;
    EXPECT_EQ(CountComingBack(Reported("port"), size), CONNECTIONS);
    Outcome const outcome = session.End();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errors, "");
}

void StandardServers::X11() {
    servers::XServer const display;
    Words line = Line({"display=" + display.Display()}, "run",
                      {"for i in 1 2 3 4; do if type xdpyinfo >/dev/null 2>&1; then xdpyinfo >/dev/null; "
                       "else xset q >/dev/null; fi && echo shown & done; wait"});
    line.insert(line.begin() + 1, "XAUTHORITY=" + display.Authority());
    Outcome const outcome = servers::Run(line);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output, "shown\nshown\nshown\nshown\n") << outcome.errors;
}

void StandardServers::Rekeying() {
    CarriesBothWays({"rekey=200000"}, REKEYED);
    // Over SFTP the requests that are on the way are answered first.
    EXPECT_GT(std::stoul(Reported("exchanges")), TheKind().runsCommands ? REKEYED / 1000000 : 1);
}

void StandardServers::RekeyingByTheServer() {
    CarriesBothWays({}, REKEYED);
    EXPECT_GT(std::stoul(Reported("exchanges")), 1u);
}

// --- what can't be done

/// The server starts no key exchange, or only after very many bytes.
void StandardServers::NoRekeying(bool afterMany) {
    if (!afterMany || !IsLong()) {
        CarriesBothWays({}, REKEYED);
        EXPECT_EQ(Reported("exchanges"), "1");
        return;
    }
    // The bytes are counted, as they would fill the memory.
    Words line = Line({}, "run", {"head -c " + std::to_string(VERY_MANY) + " /dev/zero"});
    line.insert(line.begin(), {"sh", "-c", "\"$@\" | wc -c", "sh"});
    EXPECT_EQ(servers::Run(line).output, std::to_string(VERY_MANY) + "\n");
    EXPECT_GT(std::stoul(Reported("exchanges")), 1u);
}

void StandardServers::NoCommand() {
    Outcome const outcome = Command("echo mine");
    bool const isSshd = GetParam().mark == "2";
    EXPECT_EQ(outcome.status, isSshd ? 1 : THROWN);
    EXPECT_EQ(outcome.output, isSshd ? "This service allows sftp connections only.\n" : "");
    EXPECT_EQ(outcome.errors, isSshd ? "" : "the server refused a request: exec\n");
}

/// The command runs without a display.
void StandardServers::NoX11() {
    servers::XServer const display;
    Words line = Line({"display=" + display.Display()}, "run", {"echo \"<$DISPLAY>\""});
    line.insert(line.begin() + 1, "XAUTHORITY=" + display.Authority());
    Outcome const outcome = servers::Run(line);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.output, "<>\n");
    EXPECT_EQ(Reported("error"), "the server refused the request \"x11-req\"");
}

/// The connection is closed; ProFTPD ends the whole session after its answer.
void StandardServers::NoLocalForwarding() {
    std::string const port = std::to_string(tcp::FreePort());
    RunningSession session(Line({"local=" + port + ":127.0.0.1:1"}, "forward", {}), _home.Path().string());
    ASSERT_TRUE(session.Await(File("report"))) << session.End().errors;
    EXPECT_TRUE(tcp::End::To(static_cast<std::uint16_t>(std::stoul(port))).IsClosedByPeer());
    bool const endsAll = GetParam().server.rfind("ProFTPD", 0) == 0;
    Outcome const outcome = endsAll ? session.AwaitEnd() : session.End();
    EXPECT_EQ(outcome.status, endsAll ? THROWN : 0);
    EXPECT_EQ(outcome.errors, endsAll ? "disconnected by the server: Application disconnected\n" : "");
    if (!endsAll) {
        EXPECT_THAT(Reported("error"), HasSubstr("the server refused the channel"));
    }
}

void StandardServers::Cannot() {
    std::string const& job = GetParam().job;
    std::string const& reason = GetParam().mark;
    if (job == "rekeyed") return NoRekeying(reason == "4");
    if (reason == "8") return job == "-L" ? LocalForwarding(SMALL) : RemoteForwarding(SMALL);
    if (job == "-L") return NoLocalForwarding();
    if (job == "-R") {
        Outcome const outcome = Do({"remote=0:127.0.0.1:1"}, "run", {"true"});
        EXPECT_EQ(outcome.status, REFUSED);
        EXPECT_EQ(outcome.errors, "the server refused the remote forwarding\n");
    } else if (job == "scp") {
        WriteFile(File("file"), "content");
        Outcome const outcome = Do({}, "scp-put", {_home.Path().string(), server->Home(), "file"});
        EXPECT_EQ(outcome.status, THROWN);
        EXPECT_EQ(outcome.errors, "scp returned illegal error code\n");
    } else if (reason == "7") {
        Outcome const outcome = servers::Run(Line({}, "login", {}, job));
        EXPECT_EQ(outcome.status, REFUSED);
        EXPECT_THAT(outcome.errors, HasSubstr("refused"));
    } else if (reason == "3") {
        NoX11();
    } else {
        NoCommand();
    }
}

TEST_P(StandardServers, WorkAsTheTableSays) {
    std::string const& job = GetParam().job;
    if (GetParam().mark != "+") return Cannot();
    if (job == "exec") return Exec();
    if (job == "signal") return Signal();
    if (job == "bulk") return Bulk();
    if (job == "SFTP") return Sftp();
    if (job == "scp") return Scp();
    if (job == "-L") return LocalForwarding(MEBIBYTE);
    if (job == "-R") return RemoteForwarding(MEBIBYTE);
    if (job == "X11") return X11();
    if (job == "rekey") return Rekeying();
    if (job == "rekeyed") return RekeyingByTheServer();
    Key();
}

INSTANTIATE_TEST_SUITE_P(Table, StandardServers, testing::ValuesIn(Cells()), NameOf);

} // namespace
