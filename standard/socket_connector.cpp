#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "standard/socket_connector.h"

namespace cindral::standard {

SocketAddresses ResolveHost(std::string const& host, unsigned int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    SocketAddresses addresses;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return addresses;
    for (addrinfo const* entry = found; entry; entry = entry->ai_next) {
        SocketAddress address{};
        address.size = entry->ai_addrlen;
        std::memcpy(&address.address, entry->ai_addr, entry->ai_addrlen);
        addresses.push_back(address);
    }
    freeaddrinfo(found);
    return addresses;
}

SocketAddresses LocalAddress(std::string const& path) {
    sockaddr_un local{};
    if (path.size() >= sizeof local.sun_path) return {};
    local.sun_family = AF_UNIX;
    path.copy(local.sun_path, path.size());
    SocketAddress address{};
    address.size = sizeof local;
    std::memcpy(&address.address, &local, sizeof local);
    return {address};
}

int SocketConnector::Next() {
    while (_next < _addresses.size()) {
        SocketAddress const& to = _addresses[_next++];
        _fd.Reset(socket(to.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (_fd._fd < 0) continue;
        int const on = 1;
        if (to.address.ss_family != AF_UNIX) setsockopt(_fd._fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (connect(_fd._fd, reinterpret_cast<sockaddr const*>(&to.address), to.size) == 0 ||
            errno == EINPROGRESS)
            return _fd._fd;
    }
    return -1;
}

bool SocketConnector::IsConnected() const {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(_fd._fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

} // namespace cindral::standard
