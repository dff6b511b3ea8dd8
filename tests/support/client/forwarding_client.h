#ifndef BRANTLE_TESTS_SUPPORT_CLIENT_FORWARDING_CLIENT_H
#define BRANTLE_TESTS_SUPPORT_CLIENT_FORWARDING_CLIENT_H

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "support/client/session_client.h"

namespace client {

/// A session that forwards while the object lives.
class Forwarding {
public:
    /// Returns when it is in its loop; throws std::runtime_error if it ends before.
    explicit Forwarding(SessionClient const& client) : _client(client), _process(client.StartForwarding()) {
        WaitUntil(*_process, [this] { return !_client.ReportSoFar()["started"].empty(); });
        _descriptors = Descriptors();
    }

    /// Where its local forwarding listens.
    std::uint16_t Port() const {
        return static_cast<std::uint16_t>(std::stoul(_client.ReportSoFar()["listening-port"]));
    }
    /// Waits until it has as many descriptors open as it had with no connection, or `more`.
    void AwaitConnections(std::size_t more) {
        WaitUntil(*_process, [&] { return Descriptors() == _descriptors + more; });
    }
    servers::ChildProcess& Process() { return *_process; }
    /// Its outcome, when it has ended by itself or has been stopped.
    Report Await() { return _client.ReportOf(*_process); }
    Report End() {
        kill(_process->Pid(), SIGTERM);
        return Await();
    }

private:
    std::size_t Descriptors() const {
        std::filesystem::directory_iterator const all("/proc/" + std::to_string(_process->Pid()) + "/fd");
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    SessionClient const& _client;
    std::unique_ptr<servers::ChildProcess> _process;
    std::size_t _descriptors = 0;
};

} // namespace client

#endif
