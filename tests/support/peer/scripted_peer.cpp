#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>

#include "support/peer/scripted_peer.h"

namespace peer {

struct ScriptedPeer::Run {
    Run(int fd, int abortFd, ServerSettings const& settings, std::size_t index)
        : connection(fd, abortFd, settings, index) {}

    Connection connection;
    std::thread thread;
    std::exception_ptr failure;
    std::string error;
    bool cut = false;
    bool ended = false;
};

namespace {

int Check(int result, char const* call) {
    if (result < 0) throw PeerError(std::string(call) + ": " + std::strerror(errno));
    return result;
}

/// A sockaddr_in, or a sockaddr_in6, on any port.
sockaddr_in6 LoopbackAddress(bool ipv6) {
    sockaddr_in6 address{};
    if (ipv6) {
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
    } else {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::memcpy(&address, &v4, sizeof v4);
    }
    return address;
}

/// A socket bound to an ephemeral port of the loopback interface that no other socket of this process has
/// had: clients remember the host key of a port for as long as they run.
int BindToNewPort(bool ipv6, std::uint16_t& port) {
    static std::mutex mutex;
    static std::set<std::uint16_t> used;
    std::lock_guard<std::mutex> const lock(mutex);
    for (;;) {
        sockaddr_in6 address = LoopbackAddress(ipv6);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        int const fd = Check(socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
        Check(bind(fd, generic, length), "bind");
        Check(getsockname(fd, generic, &length), "getsockname");
        port = ntohs(address.sin6_port); // where sockaddr_in has it, too
        if (used.insert(port).second) return fd;
        close(fd);
    }
}

void Raise(int eventFd) {
    std::uint64_t const one = 1;
    if (write(eventFd, &one, sizeof one) != sizeof one) std::terminate();
}

} // namespace

ScriptedPeer::ScriptedPeer(Script script, ServerSettings settings)
    : _script(std::move(script)), _settings(std::move(settings)) {
    _stopFd = Check(eventfd(0, EFD_CLOEXEC), "eventfd");
    _abortFd = Check(eventfd(0, EFD_CLOEXEC), "eventfd");
    _listener = BindToNewPort(_settings.ipv6, _port);
    Check(listen(_listener, 64), "listen");
    _acceptor = std::thread([this] { Accept(); });
}

ScriptedPeer::~ScriptedPeer() {
    Raise(_abortFd);
    Stop();
    for (int fd : {_listener, _stopFd, _abortFd}) close(fd);
}

void ScriptedPeer::Accept() {
    for (;;) {
        std::array<pollfd, 2> fds{pollfd{_listener, POLLIN, 0}, pollfd{_stopFd, POLLIN, 0}};
        if (poll(fds.data(), fds.size(), -1) < 0) continue;
        if (fds[1].revents != 0) return;
        int const fd = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::lock_guard<std::mutex> const lock(_mutex);
        _runs.push_back(std::make_unique<Run>(fd, _abortFd, _settings, _runs.size()));
        Run& run = *_runs.back();
        run.thread = std::thread([this, &run] { Perform(run); });
    }
}

void ScriptedPeer::Perform(Run& run) {
    try {
        _script(run.connection);
    } catch (Cut const&) {
        run.cut = true;
    } catch (std::exception const& error) {
        run.failure = std::current_exception();
        run.error = error.what();
    }
    run.connection.Wire().ShutdownWrite();
    {
        std::lock_guard<std::mutex> const lock(_mutex);
        run.ended = true;
        _changed.notify_all();
    }
    run.connection.Wire().DrainUntil(_stopFd);
}

void ScriptedPeer::Stop() {
    if (!_acceptor.joinable()) return;
    Raise(_stopFd);
    _acceptor.join();
    for (auto const& run : _runs) run->thread.join();
}

void ScriptedPeer::Join(std::size_t connections) {
    bool complete = false;
    {
        std::unique_lock<std::mutex> lock(_mutex);
        complete = _changed.wait_for(lock, 2 * Link::timeLimit, [&] {
            std::size_t ended = 0;
            for (auto const& run : _runs) ended += run->ended ? 1 : 0;
            return ended >= connections && ended == _runs.size();
        });
    }
    if (!complete) Raise(_abortFd);
    Stop();
    if (!complete)
        throw PeerError("scripts of " + std::to_string(connections) + " connections did not end in time");
}

void ScriptedPeer::Finish(std::size_t connections) {
    Join(connections);
    for (auto const& run : _runs)
        if (run->failure) std::rethrow_exception(run->failure);
}

std::string ScriptedPeer::Error(std::size_t index) const { return _runs.at(index)->error; }

bool ScriptedPeer::RanToItsEnd(std::size_t index) const {
    Run const& run = *_runs.at(index);
    return run.ended && !run.cut && !run.failure;
}

Connection const& ScriptedPeer::At(std::size_t index) const { return _runs.at(index)->connection; }

} // namespace peer
