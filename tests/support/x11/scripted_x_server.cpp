#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "support/peer/wire.h"
#include "support/x11/scripted_x_server.h"

namespace x11 {

namespace {

constexpr int WAIT_MILLISECONDS = 30000;
// Real servers begin at 0, and forwarded displays at 10.
constexpr unsigned int FIRST_NUMBER = 300;
constexpr unsigned int NUMBERS = 700;
constexpr char const* DIRECTORY = "/tmp/.X11-unix";

void WaitReadable(int fd, char const* what) {
    pollfd record{fd, POLLIN, 0};
    if (poll(&record, 1, WAIT_MILLISECONDS) != 1) throw peer::PeerError(std::string("no ") + what);
}

/// An address in the file system, or with `abstract` one without a file, gone with its last socket.
sockaddr_un UnixAddress(std::string const& path, bool abstract) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + (abstract ? 1 : 0), path.data(), path.size());
    return address;
}

bool BindUnix(int fd, std::string const& path, bool abstract) {
    sockaddr_un const address = UnixAddress(path, abstract);
    auto const length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 1 : 0));
    return bind(fd, reinterpret_cast<sockaddr const*>(&address), length) == 0;
}

bool BindTcp(int fd, unsigned int port) {
    int const on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

void CloseAndForget(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

} // namespace

std::string XConnection::ReadSome(std::size_t most) {
    WaitReadable(_fd, "bytes for the X server");
    std::string bytes(most, '\0');
    ssize_t const count = recv(_fd, bytes.data(), most, 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

std::string XConnection::Read(std::size_t count) {
    std::string bytes;
    while (bytes.size() < count) {
        std::string const more = ReadSome(count - bytes.size());
        if (more.empty()) throw peer::PeerError("the X client has closed");
        bytes += more;
    }
    return bytes;
}

std::string XConnection::ReadToTheEnd() {
    std::string bytes, more;
    do {
        more = ReadSome(65536);
        bytes += more;
    } while (!more.empty());
    return bytes;
}

void XConnection::Write(std::string const& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        ssize_t const count = send(_fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (count < 0) throw peer::PeerError("the X client takes nothing");
        at += static_cast<std::size_t>(count);
    }
}

void XConnection::ShutdownWrite() { shutdown(_fd, SHUT_WR); }

void XConnection::Close() { CloseAndForget(_fd); }

ScriptedXServer::ScriptedXServer(Transport transport) : _transport(transport) {
    mkdir(DIRECTORY, 01777);
    chmod(DIRECTORY, 01777); // fails where another user has made it, with the same mode
    auto const offset = static_cast<unsigned int>(getpid());
    for (unsigned int i = 0; i < NUMBERS; ++i)
        if (Claim(FIRST_NUMBER + (offset + i) % NUMBERS)) return;
    throw peer::PeerError("no display number is free");
}

ScriptedXServer::~ScriptedXServer() {
    StopListening();
    CloseAndForget(_claim);
}

/// Claims a number by the name without a file under which X servers listen too.
bool ScriptedXServer::Claim(unsigned int number) {
    _number = number;
    _claim = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (BindUnix(_claim, SocketPath(), true) && Listen()) return true;
    StopListening();
    CloseAndForget(_claim);
    return false;
}

bool ScriptedXServer::Listen() {
    if (_transport == Transport::Tcp) {
        _listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (!BindTcp(_listener, 6000 + _number)) return false;
    } else {
        unlink(SocketPath().c_str()); // of a test that was killed
        _listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (!BindUnix(_listener, SocketPath(), false)) return false;
    }
    return listen(_listener, 50) == 0;
}

void ScriptedXServer::StopListening() {
    if (_listener >= 0 && _transport == Transport::Unix) unlink(SocketPath().c_str());
    CloseAndForget(_listener);
}

std::string ScriptedXServer::Display() const {
    return (_transport == Transport::Tcp ? "localhost:" : ":") + std::to_string(_number);
}

std::string ScriptedXServer::SocketPath() const {
    return DIRECTORY + std::string("/X") + std::to_string(_number);
}

XConnection ScriptedXServer::Accept() {
    WaitReadable(_listener, "connection to the X server");
    return XConnection(accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC));
}

bool ScriptedXServer::HasVisitor() const {
    pollfd record{_listener, POLLIN, 0};
    return poll(&record, 1, 0) == 1;
}

} // namespace x11
