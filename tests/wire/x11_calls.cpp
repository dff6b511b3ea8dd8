#include "wire/x11_calls.h"

#include <cerrno>

#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

int X11Calls::waits = 0;
int const* X11Calls::waitResult = nullptr;
int X11Calls::nodelays = 0;
bool X11Calls::nodelayFails = false;

namespace {

template <typename Function>
Function* Next(Function*, char const* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int poll(pollfd* records, nfds_t count, int limit) {
    if (count == 1 && limit == 60) { // no other wait has this limit
        ++X11Calls::waits;
        if (X11Calls::waitResult) return *X11Calls::waitResult;
    }
    return Next(poll, "poll")(records, count, limit);
}

int setsockopt(int fd, int level, int option, void const* value, socklen_t size) noexcept {
    if (level == IPPROTO_TCP && option == TCP_NODELAY) {
        ++X11Calls::nodelays;
        if (X11Calls::nodelayFails) {
            errno = ENOPROTOOPT;
            return -1;
        }
    }
    return Next(setsockopt, "setsockopt")(fd, level, option, value, size);
}
}
