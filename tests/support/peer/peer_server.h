#ifndef TESTS_SUPPORT_PEER_PEER_SERVER_H
#define TESTS_SUPPORT_PEER_PEER_SERVER_H

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/peer/link.h"

namespace peer {

/// A listening socket of the loopback interface, on a port that no other socket of this process has had, and
/// the signals that end what runs at it.
class PeerListener {
public:
    explicit PeerListener(bool ipv6);
    ~PeerListener();
    PeerListener(PeerListener const&) = delete;
    PeerListener& operator=(PeerListener const&) = delete;

    std::uint16_t Port() const { return _port; }
    /// The next connection; -1 once Stop() has been called.
    int Accept() const;
    /// Accept no more, stop draining.
    void Stop() const;
    /// Scripts give up.
    void Abort() const;
    int StopFd() const { return _stopFd; }
    int AbortFd() const { return _abortFd; }

private:
    int _fd = -1;
    int _stopFd = -1;
    int _abortFd = -1;
    std::uint16_t _port = 0;
};

/// The listener of a scripted peer, which runs the script once for every connection, each in a thread of its
/// own. ConnectionT is what a script works with; ConnectionT::Settings has the member ipv6.
template <class ConnectionT>
class PeerServer {
public:
    using Settings = typename ConnectionT::Settings;
    using Script = std::function<void(ConnectionT&)>;

    explicit PeerServer(Script script, Settings settings = {})
        : _script(std::move(script)), _settings(std::move(settings)), _listener(_settings.ipv6) {
        _acceptor = std::thread([this] { Accept(); });
    }
    /// Gives up scripts that still run.
    ~PeerServer() {
        _listener.Abort();
        Stop();
    }
    PeerServer(PeerServer const&) = delete;
    PeerServer& operator=(PeerServer const&) = delete;

    std::uint16_t Port() const { return _listener.Port(); }

    /// Waits until `connections` scripts have ended, then stops. Throws the first failure of
    /// a script, and if fewer connections came within the time limit.
    void Finish(std::size_t connections = 1) {
        Join(connections);
        for (auto const& run : _runs)
            if (run->failure) std::rethrow_exception(run->failure);
    }
    /// The same, but failures of scripts are left to Error(): for clients that are expected to break off.
    void Join(std::size_t connections = 1);
    /// Text of the failure that ended the script of that connection; empty if it ran to its end or was cut.
    std::string Error(std::size_t index = 0) const { return _runs.at(index)->error; }
    /// The script ran to its last line (not cut, not failed).
    bool RanToItsEnd(std::size_t index = 0) const {
        Run const& run = *_runs.at(index);
        return run.ended && !run.cut && !run.failure;
    }

    /// The record of a connection; to be read after Finish or Join.
    ConnectionT const& At(std::size_t index) const { return _runs.at(index)->connection; }

private:
    struct Run {
        Run(int fd, int abortFd, Settings const& settings, std::size_t index)
            : connection(fd, abortFd, settings, index) {}

        ConnectionT connection;
        std::thread thread;
        std::exception_ptr failure;
        std::string error;
        bool cut = false;
        bool ended = false;
    };

    void Accept() {
        for (int fd; (fd = _listener.Accept()) >= 0;) {
            std::lock_guard<std::mutex> const lock(_mutex);
            _runs.push_back(std::make_unique<Run>(fd, _listener.AbortFd(), _settings, _runs.size()));
            Run& run = *_runs.back();
            run.thread = std::thread([this, &run] { Perform(run); });
        }
    }
    void Perform(Run& run);
    void Stop() {
        if (!_acceptor.joinable()) return;
        _listener.Stop();
        _acceptor.join();
        for (auto const& run : _runs) run->thread.join();
    }

    Script _script;
    Settings _settings;
    PeerListener _listener;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<std::unique_ptr<Run>> _runs;
    std::thread _acceptor;
};

template <class ConnectionT>
void PeerServer<ConnectionT>::Perform(Run& run) {
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
    run.connection.Wire().DrainUntil(_listener.StopFd());
}

template <class ConnectionT>
void PeerServer<ConnectionT>::Join(std::size_t connections) {
    bool complete = false;
    {
        std::unique_lock<std::mutex> lock(_mutex);
        complete = _changed.wait_for(lock, 2 * Link::timeLimit, [&] {
            std::size_t ended = 0;
            for (auto const& run : _runs) ended += run->ended ? 1 : 0;
            return ended >= connections && ended == _runs.size();
        });
    }
    if (!complete) _listener.Abort();
    Stop();
    if (!complete)
        throw PeerError("scripts of " + std::to_string(connections) + " connections did not end in time");
}

} // namespace peer

#endif
