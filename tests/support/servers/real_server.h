#ifndef BRANTLE_TESTS_SUPPORT_SERVERS_REAL_SERVER_H
#define BRANTLE_TESTS_SUPPORT_SERVERS_REAL_SERVER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/servers/process.h"

namespace servers {

/// An SSH server by another vendor, running on 127.0.0.1 for as long as the object lives, with a directory of
/// throw-away keys (see test_keys.h), or of whatever a derived class puts there. A constructor returns when
/// the server answers and throws std::runtime_error, with the server's log, when it does not.
///
/// Meant to be started once for a test suite, in SetUpTestSuite, and destroyed in TearDownTestSuite.
class RealServer {
public:
    virtual ~RealServer();
    RealServer(RealServer const&) = delete;
    RealServer& operator=(RealServer const&) = delete;

    std::string const& Host() const { return _host; }
    std::uint16_t Port() const { return _port; }
    /// The account that logs in by password and by the keys user_rsa and user_dsa.
    std::string const& User() const { return _user; }
    std::string const& Password() const { return _password; }
    /// The path of a file in the server's directory.
    std::string File(std::string const& name) const { return _directory / name; }
    /// What the server has logged so far.
    std::string Log() const;
    pid_t Pid() const { return _process->Pid(); }

protected:
    enum class Keys { MADE, NONE };

    RealServer(std::string user, std::string password, Keys keys = Keys::MADE);

    /// Starts a server that picks its port itself and prints "ready on port N".
    void StartAndReadPort(std::vector<std::string> const& arguments);
    /// Starts a server on a port picked for it, and on another one when that was taken meanwhile.
    /// `command` writes what configuration the port needs and gives the server's command line.
    void StartOnFreePort(std::function<std::vector<std::string>(std::uint16_t port)> const& command);
    void Stop() { _process.reset(); }

private:
    void Start(std::vector<std::string> const& arguments);
    bool WaitUntil(std::function<bool()> const& isReady);
    bool Answers() const;
    std::runtime_error Failure(std::string const& what) const;

    TemporaryDirectory _directory;
    std::string const _host = "127.0.0.1";
    std::string _user;
    std::string _password;
    std::uint16_t _port = 0;
    std::unique_ptr<ChildProcess> _process;
};

/// A configuration's text with each @NAME@ replaced by the value of NAME.
std::string FillIn(std::string text, std::map<std::string, std::string> const& values);

} // namespace servers

#endif
