#include <brantle/thornel/sock_io.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

SockIO::SockAddr::SockAddr() : SockAddr(String_t(), 0) {}

SockIO::SockAddr::SockAddr(String_t const& host, unsigned short port)
    : _host(host), _port(port), _address{}, _length(0) {}

String_t SockIO::SockAddr::IpAddr() const {
    char text[NI_MAXHOST];
    if (_length == 0 || getnameinfo(reinterpret_cast<sockaddr const*>(&_address), _length, text, sizeof(text),
                                    nullptr, 0, NI_NUMERICHOST) != 0) {
        return String_t();
    }
    return String_t(text);
}

void SockIO::SockAddr::SetAddress(sockaddr const* address, socklen_t length) {
    _length = std::min<socklen_t>(length, sizeof(_address));
    std::memcpy(&_address, address, _length);
}

int SockIO::SetCloseOnExec(int fd) {
    int flags = fcntl(fd, F_GETFD);
    return flags < 0 ? -1 : fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}
