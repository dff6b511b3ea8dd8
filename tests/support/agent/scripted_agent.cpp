#include "support/agent/scripted_agent.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace peer {

namespace {

int Check(int result, char const* call) {
    if (result < 0) throw PeerError(std::string(call) + ": " + std::strerror(errno));
    return result;
}

} // namespace

ScriptedAgent::ScriptedAgent(Script script) : _script(std::move(script)) {
    _directory = (std::filesystem::temp_directory_path() / "brantle-agent-XXXXXX").string();
    if (!mkdtemp(_directory.data())) throw PeerError("mkdtemp");
    _path = _directory + "/socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (_path.size() >= sizeof address.sun_path) throw PeerError("path of the agent's socket is too long");
    std::memcpy(address.sun_path, _path.c_str(), _path.size() + 1);
    _stopFd = Check(eventfd(0, EFD_CLOEXEC), "eventfd");
    _listener = Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    Check(bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
    Check(listen(_listener, 8), "listen");
    Check(setenv("SSH_AUTH_SOCK", _path.c_str(), 1), "setenv");
    _thread = std::thread([this] { Accept(); });
}

ScriptedAgent::~ScriptedAgent() {
    std::uint64_t const one = 1;
    if (write(_stopFd, &one, sizeof one) != sizeof one) std::terminate();
    _thread.join();
    unsetenv("SSH_AUTH_SOCK");
    for (int fd : {_listener, _stopFd}) close(fd);
    std::error_code ignored;
    std::filesystem::remove_all(_directory, ignored);
}

ScriptedAgent::Script ScriptedAgent::Holding(KeyPair const& key) {
    return [&key](Bytes const& request) -> std::optional<Bytes> {
        Reader reader(request);
        if (reader.U8() != signRequest || reader.Blob() != key.Blob()) return Bytes{failure};
        return Writer().U8(signResponse).String(key.Sign(reader.Blob())).Data();
    };
}

std::vector<Bytes> ScriptedAgent::Requests() const {
    std::lock_guard<std::mutex> const lock(_mutex);
    return _requests;
}

std::size_t ScriptedAgent::Connections() const {
    std::lock_guard<std::mutex> const lock(_mutex);
    return _connections;
}

void ScriptedAgent::Accept() {
    while (WaitReadable(_listener)) {
        int const fd = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            ++_connections;
        }
        Serve(fd);
        close(fd);
    }
}

void ScriptedAgent::Serve(int fd) {
    for (;;) {
        auto const length = Receive(fd, 4);
        if (!length) return;
        auto const request = Receive(fd, Reader(*length).U32());
        if (!request) return;
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            _requests.push_back(*request);
        }
        auto const reply = _script(*request);
        if (!reply) return;
        Bytes const frame = Writer().String(*reply);
        if (send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) return;
    }
}

/// False when the agent is to stop.
bool ScriptedAgent::WaitReadable(int fd) const {
    std::array<pollfd, 2> fds{pollfd{fd, POLLIN, 0}, pollfd{_stopFd, POLLIN, 0}};
    while (poll(fds.data(), fds.size(), -1) < 0) {
    }
    return fds[1].revents == 0;
}

std::optional<Bytes> ScriptedAgent::Receive(int fd, std::size_t count) const {
    Bytes bytes(count);
    for (std::size_t have = 0; have < count;) {
        if (!WaitReadable(fd)) return std::nullopt;
        ssize_t const n = recv(fd, bytes.data() + have, count - have, 0);
        if (n <= 0) return std::nullopt;
        have += static_cast<std::size_t>(n);
    }
    return bytes;
}

} // namespace peer
