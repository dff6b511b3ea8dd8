#ifndef BRANTLE_TESTS_UNIT_TRUST_RAW_AGENT_H
#define BRANTLE_TESTS_UNIT_TRUST_RAW_AGENT_H

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A key agent on a Unix socket that answers with whatever bytes the test gives it, framing included. It
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

    std::string const& Path() const { return _path; }
    /// The bodies of all requests so far.
    std::vector<std::string> Requests() const;

private:
    void Run();
    void Serve(int fd);

    Script _script;
    std::string _directory;
    std::string _path;
    int _listener;
    mutable std::mutex _mutex; ///< protects what follows
    std::vector<std::string> _requests;
    int _connection;
    bool _stopping = false;
    std::thread _thread;
};

#endif
