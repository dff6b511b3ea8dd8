#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "support/servers/real_server.h"
#include "support/servers/test_keys.h"

namespace servers {

namespace {

constexpr std::chrono::seconds START_LIMIT{60};
constexpr std::chrono::milliseconds POLL_INTERVAL{10};
constexpr int PORTS_TRIED = 20;

/// The files of the server's directory that hold what it prints and logs.
constexpr char const* OUTPUT_FILE = "output";
constexpr char const* LOG_FILE = "log";

/// A TCP socket that closes itself.
class Socket {
public:
    Socket() : _descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() { close(_descriptor); }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;
    int Descriptor() const { return _descriptor; }

private:
    int _descriptor;
};

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool IsFree(std::uint16_t port) {
    Socket const probe;
    sockaddr_in const address = Loopback(port);
    return bind(probe.Descriptor(), reinterpret_cast<sockaddr const*>(&address), sizeof(address)) == 0;
}

/// A port that nothing listens on, below those that the kernel assigns.
std::uint16_t PickPort() {
    static std::mt19937 generator{std::random_device{}()};
    std::uniform_int_distribution<unsigned int> ports(20000, 32000);
    std::uint16_t port;
    do {
        port = static_cast<std::uint16_t>(ports(generator));
    } while (!IsFree(port));
    return port;
}

/// Whether the first line after `port` is an SSH server's identification (RFC 4253, section 4.2).
bool SendsIdentification(std::uint16_t port) {
    Socket const probe;
    sockaddr_in const address = Loopback(port);
    timeval const limit{5, 0};
    setsockopt(probe.Descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (connect(probe.Descriptor(), reinterpret_cast<sockaddr const*>(&address), sizeof(address)) != 0)
        return false;
    std::array<char, 4> start{};
    return recv(probe.Descriptor(), start.data(), start.size(), MSG_WAITALL) == 4 &&
           std::memcmp(start.data(), "SSH-", start.size()) == 0;
}

/// The inode of the socket that listens on 127.0.0.1 and `port`, as /proc/net/tcp has it; empty for none.
std::string ListeningSocket(std::uint16_t port) {
    std::ostringstream wanted;
    wanted << "0100007F:" << std::uppercase << std::hex;
    wanted.width(4);
    wanted.fill('0');
    wanted << port;
    std::ifstream table("/proc/net/tcp");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
        fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >>
            inode;
        if (local == wanted.str() && state == "0A") return inode;
    }
    return {};
}

/// Whether it is this process that listens on the port, and not another that was quicker.
bool ListensOn(pid_t pid, std::uint16_t port) {
    std::string const link = "socket:[" + ListeningSocket(port) + "]";
    std::error_code ignored;
    for (auto const& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored)) {
        if (std::filesystem::read_symlink(entry.path(), ignored) == link) return true;
    }
    return false;
}

} // namespace

RealServer::RealServer(std::string user, std::string password, Keys keys)
    : _user(std::move(user)), _password(std::move(password)) {
    if (keys == Keys::MADE) MakeTestKeys(_directory.Path().string());
}

RealServer::~RealServer() = default;

std::string RealServer::Log() const { return ReadFile(File(LOG_FILE)); }

void RealServer::Start(std::vector<std::string> const& arguments) {
    _process.reset();
    _process = std::make_unique<ChildProcess>(Command{arguments, {}, {}, File(OUTPUT_FILE), File(LOG_FILE)});
}

bool RealServer::WaitUntil(std::function<bool()> const& isReady) {
    auto const limit = std::chrono::steady_clock::now() + START_LIMIT;
    while (_process->IsRunning() && std::chrono::steady_clock::now() < limit) {
        if (isReady()) return true;
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
    return false;
}

bool RealServer::Answers() const { return ListensOn(Pid(), _port) && SendsIdentification(_port); }

std::runtime_error RealServer::Failure(std::string const& what) const {
    return std::runtime_error(what + "; its log:\n" + Log());
}

void RealServer::StartAndReadPort(std::vector<std::string> const& arguments) {
    std::string const announcement = "ready on port ";
    Start(arguments);
    bool const announced = WaitUntil([&] {
        std::string const output = ReadFile(File(OUTPUT_FILE));
        std::size_t const at = output.find(announcement);
        if (at == std::string::npos || output.find('\n', at) == std::string::npos) return false;
        _port = static_cast<std::uint16_t>(std::stoul(output.substr(at + announcement.size())));
        return true;
    });
    if (!announced) throw Failure(arguments[0] + " announced no port");
    if (!WaitUntil([this] { return Answers(); })) throw Failure(arguments[0] + " does not answer");
}

void RealServer::StartOnFreePort(std::function<std::vector<std::string>(std::uint16_t)> const& command) {
    for (int tried = 0; tried < PORTS_TRIED; ++tried) {
        _port = PickPort();
        Start(command(_port));
        if (WaitUntil([this] { return Answers(); })) return;
        if (_process->IsRunning()) break;
    }
    throw Failure("the server does not answer");
}

std::string FillIn(std::string text, std::map<std::string, std::string> const& values) {
    for (auto const& [name, value] : values) {
        std::string const mark = "@" + name + "@";
        for (std::size_t at = text.find(mark); at != std::string::npos;
             at = text.find(mark, at + value.size()))
            text.replace(at, mark.size(), value);
    }
    return text;
}

} // namespace servers
