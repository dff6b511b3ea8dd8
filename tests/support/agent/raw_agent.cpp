#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <utility>

#include "support/agent/raw_agent.h"

namespace support {

namespace {

bool Receive(int fd, std::string& bytes) {
    return bytes.empty() ||
           recv(fd, bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
}

bool ReceiveMessage(int fd, std::string& body) {
    std::string length(4, '\0');
    if (!Receive(fd, length)) return false;
    std::size_t size = 0;
    for (char byte : length) size = size << 8 | static_cast<unsigned char>(byte);
    body.assign(size, '\0');
    return Receive(fd, body);
}

} // namespace

RawAgent::RawAgent(Script script) : _script(std::move(script)) {
    std::string const path = Path();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("path of the agent's socket is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    _listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(_listener, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        listen(_listener, 16) != 0)
        throw std::runtime_error("bind");
    _thread = std::thread([this] { Run(); });
}

RawAgent::RawAgent(std::string const& answer) : RawAgent([answer](std::string const&) { return answer; }) {}

RawAgent::~RawAgent() {
    {
        std::lock_guard<std::mutex> const lock(_mutex);
        _stopping = true;
        shutdown(_listener, SHUT_RDWR);
        if (_connection >= 0) shutdown(_connection, SHUT_RDWR);
    }
    _thread.join();
    close(_listener);
}

std::vector<std::string> RawAgent::Requests() const {
    std::lock_guard<std::mutex> const lock(_mutex);
    return _requests;
}

unsigned int RawAgent::Connections() const {
    std::lock_guard<std::mutex> const lock(_mutex);
    return _connections;
}

void RawAgent::Run() {
    for (;;) {
        // accept4 takes the lowest free number before it waits; no test should find that number in use.
        pollfd waiting = {_listener, POLLIN, 0};
        poll(&waiting, 1, -1);
        int const fd = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            ++_connections;
            _connection = fd;
            if (_stopping) shutdown(fd, SHUT_RDWR);
        }
        Serve(fd);
        std::lock_guard<std::mutex> const lock(_mutex);
        _connection = -1;
        close(fd);
    }
}

void RawAgent::Serve(int fd) {
    std::string body;
    while (ReceiveMessage(fd, body)) {
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            _requests.push_back(body);
        }
        std::string const answer = _script(body);
        if (answer.empty()) return;
        if (send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(answer.size()))
            return;
    }
}

} // namespace support
