#ifndef TESTS_SUPPORT_X11_SCRIPTED_X_SERVER_H
#define TESTS_SUPPORT_X11_SCRIPTED_X_SERVER_H

#include <cstddef>
#include <string>

namespace x11 {

enum class Transport { Unix, Tcp };

/// A connection that the X server has accepted. Every wait ends after half a minute with a peer::PeerError.
class XConnection {
public:
    explicit XConnection(int fd) : _fd(fd) {}
    XConnection(XConnection&& other) noexcept : _fd(other._fd) { other._fd = -1; }
    ~XConnection() { Close(); }

    /// Exactly so many bytes; throws where the stream ends before.
    std::string Read(std::size_t count);
    /// Everything until the client has closed.
    std::string ReadToTheEnd();
    void Write(std::string const& bytes);
    /// Ends what the client reads.
    void ShutdownWrite();
    void Close();

private:
    std::string ReadSome(std::size_t most);

    int _fd;
};

/// An X server under a display number that no other X server or test uses. It accepts when the test asks for
/// it. Over TCP it listens on 127.0.0.1.
class ScriptedXServer {
public:
    explicit ScriptedXServer(Transport transport);
    ~ScriptedXServer();
    ScriptedXServer(ScriptedXServer const&) = delete;
    ScriptedXServer& operator=(ScriptedXServer const&) = delete;

    unsigned int Number() const { return _number; }
    /// The display as text, as in ":400" or "localhost:400".
    std::string Display() const;
    /// The path of its Unix-domain socket, whether or not that exists.
    std::string SocketPath() const;

    /// Waits for the next connection; throws peer::PeerError after half a minute.
    XConnection Accept();
    /// Whether a connection waits to be accepted.
    bool HasVisitor() const;
    /// Listens no more; the number stays claimed.
    void StopListening();

private:
    bool Claim(unsigned int number);
    bool Listen();

    Transport _transport;
    unsigned int _number = 0;
    int _claim = -1;
    int _listener = -1;
};

} // namespace x11

#endif
