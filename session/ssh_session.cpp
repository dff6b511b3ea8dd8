#include <brantle/session/ssh_session.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <brantle/channel/tcp_forwarding.h>
#include <brantle/channel/x11_forwarding.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/session/session_dialect.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/text.h>

namespace cindral {

// Part of the dialect, by which servers may recognise this client: it does not follow the library's version.
char const* const SshSession::_defaultClientVersion = "SSH-2.0-libbrantle_0.1";
char const* const SshSession::_eol = "\r\n";

namespace {

void RequireUsable(ClientSocketIn const& socket, String_t const& host) {
    if (!socket) throw SystemError("initialize client socket failed", errno, host);
}

} // namespace

SshSession::SshSession(Mode mode, unsigned short port, String_t const& host)
    : _mode(mode), _socket(port, host.Text()), _out(_ciphers[_mode], _macs[_mode]),
      _in(_ciphers[!_mode], _macs[!_mode]), _task(_mux) {
    RequireUsable(_socket, host);
}

SshSession::SshSession(Mode mode, String_t const& host)
    : _mode(mode), _socket(host.Text()), _out(_ciphers[_mode], _macs[_mode]),
      _in(_ciphers[!_mode], _macs[!_mode]), _task(_mux) {
    RequireUsable(_socket, host);
}

SshSession::~SshSession() = default;

SshSession::SocketCloser::~SocketCloser() {
    if (_fd >= 0) close(_fd);
}

int SshSession::ParseUrl(char const* url, String_t& user, String_t& host) {
    if (!url) return -EINVAL;
    String_t const text(url); // `url` may be the text of one of the outputs
    char const* rest = text.Text();
    if (char const* at = std::strrchr(rest, '@')) {
        user = String_t(rest, static_cast<unsigned int>(at - rest));
        rest = at + 1;
    } else {
        user = getusername();
    }
    host = rest;
    if (*rest == '[') {
        rest = std::strchr(rest, ']');
        if (!rest) return -EINVAL;
        ++rest;
    }
    if (!std::strchr(rest, ':')) host += ":22";
    return 0;
}

void SshSession::SetNodelay(int fd) {
    int const on = 1;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) < 0)
        throw SystemError("setsockopt", errno, CryptoException::EncodeInt(fd));
}

int SshSession::OpenSocket(unsigned int timeout) {
    int error = 0;
    int const fd = _socket.Connect(timeout, error);
    if (fd != _fd) {
        if (_fd >= 0) close(_fd);
        _fd = fd;
    }
    return fd < 0 ? -error : 0;
}

int SshSession::Connect(unsigned int timeout) {
    if (_dialect) return _dialect->Connect(timeout);
    if (int const result = OpenSocket(timeout); result < 0) return result;
    IOSockStream line(_fd);
    line.Readln(_serverVersion, "\n");
    line.Writeln(_clientVersion, "\n");
    line.Flush();
    _serverVersion = _serverVersion.Trim();
    _out._socketBuffer.Bind(_fd);
    _in._socketBuffer.Bind(_fd);
    return 0;
}

int SshSession::Run() { return _task.Run(); }

int SshSession::Terminate() { return _task.Stop(); }

} // namespace cindral
