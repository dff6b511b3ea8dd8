#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>

#include "support/next_symbol.h"
#include "wire/x11_calls.h"

using support::NextSymbol;

int X11Calls::waits = 0;
int const* X11Calls::waitResult = nullptr;
int X11Calls::nodelays = 0;
bool X11Calls::nodelayFails = false;
long X11Calls::connectLimit = 0;

extern "C" {

int poll(pollfd* records, nfds_t count, int limit) {
    if (count == 1 && limit == 60) { // no other wait has this limit
        ++X11Calls::waits;
        if (X11Calls::waitResult) return *X11Calls::waitResult;
    }
    return NextSymbol(poll, "poll")(records, count, limit);
}

int setsockopt(int fd, int level, int option, void const* value, socklen_t size) noexcept {
    if (level == IPPROTO_TCP && option == TCP_NODELAY) {
        ++X11Calls::nodelays;
        if (X11Calls::nodelayFails) {
            errno = ENOPROTOOPT;
            return -1;
        }
    }
    if (level == SOL_SOCKET && option == SO_SNDTIMEO) {
        auto const* limit = static_cast<timeval const*>(value);
        X11Calls::connectLimit =
            std::max(X11Calls::connectLimit, limit->tv_sec * 1000 + limit->tv_usec / 1000);
    }
    return NextSymbol(setsockopt, "setsockopt")(fd, level, option, value, size);
}
}
