#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "standard/tcp_connector.h"

namespace cindral::standard {

TcpConnector::TcpConnector(std::string const& host, unsigned int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) == 0) _addresses.reset(found);
    _next = _addresses.get();
}

int TcpConnector::Next() {
    while (_next) {
        addrinfo const& address = *_next;
        _next = address.ai_next;
        if (_fd._fd >= 0) close(_fd._fd);
        _fd._fd = socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                         address.ai_protocol);
        if (_fd._fd < 0) continue;
        if (connect(_fd._fd, address.ai_addr, address.ai_addrlen) == 0 || errno == EINPROGRESS)
            return _fd._fd;
    }
    return -1;
}

bool TcpConnector::IsConnected() const {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(_fd._fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

} // namespace cindral::standard
