#ifndef BRANTLE_TESTS_SUPPORT_AGENT_RAW_AGENT_H
#define BRANTLE_TESTS_SUPPORT_AGENT_RAW_AGENT_H

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/temporary_directory.h"

namespace support {

/// A key agent on a Unix socket that answers with the bytes that the test gives it, framing included. It
/// serves one connection at a time.
class RawAgent {
public:
    /// Takes the body of a request and gives the bytes to send; none closes the connection.
    typedef std::function<std::string(std::string const&)> Script;

    explicit RawAgent(Script script);
    /// The same answer to every request.
    explicit RawAgent(std::string const& answer);
    ~RawAgent();
    RawAgent(RawAgent const&) = delete;
    RawAgent& operator=(RawAgent const&) = delete;

    /// Its socket.
    std::string Path() const { return _directory / "agent"; }
    /// The bodies of all requests so far.
    std::vector<std::string> Requests() const;
    /// Connections taken so far.
    unsigned int Connections() const;

private:
    void Run();
    void Serve(int fd);

    Script _script;
    TemporaryDirectory _directory;
    int _listener;
    mutable std::mutex _mutex; ///< protects what follows
    std::vector<std::string> _requests;
    unsigned int _connections = 0;
    int _connection = -1;
    bool _stopping = false;
    std::thread _thread;
};

} // namespace support

#endif
