#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

#include "support/next_symbol.h"
#include "wire/failing_calls.h"

using support::NextSymbol;

namespace {

std::atomic<short> failingEvents{0};
std::atomic<int> longestLimit{0};
std::atomic<int> lastLimit{0};
std::atomic<bool> addressTextFails{false};
std::atomic<bool> noDescriptorIsLeft{false};
std::atomic<int> nameLookUps{0};

} // namespace

FailingWait::FailingWait(short events, int longest) {
    lastLimit = 0;
    longestLimit = longest;
    failingEvents = events;
}
FailingWait::~FailingWait() { failingEvents = 0; }
int FailingWait::Limit() const { return lastLimit; }

FailingAddressText::FailingAddressText() { addressTextFails = true; }
FailingAddressText::~FailingAddressText() { addressTextFails = false; }

NoDescriptorLeft::NoDescriptorLeft() { noDescriptorIsLeft = true; }
NoDescriptorLeft::~NoDescriptorLeft() { noDescriptorIsLeft = false; }

NameLookUps::NameLookUps() { nameLookUps = 0; }
int NameLookUps::Count() const { return nameLookUps; }

extern "C" {

// In place of the C library's, for the library under test too.

int poll(pollfd* records, nfds_t count, int limit) {
    static auto* const next = NextSymbol(&poll, "poll");
    if (count != 1 || failingEvents == 0 || records->events != failingEvents || limit > longestLimit)
        return next(records, count, limit);
    lastLimit = limit;
    errno = ETIMEDOUT;
    return -1;
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static auto* const next = NextSymbol(&accept4, "accept4");
    if (!noDescriptorIsLeft) return next(fd, address, length, flags);
    errno = EMFILE;
    return -1;
}

char const* inet_ntop(int family, void const* address, char* text, socklen_t size) noexcept {
    static auto* const next = NextSymbol(&inet_ntop, "inet_ntop");
    return addressTextFails ? nullptr : next(family, address, text, size);
}

int getnameinfo(sockaddr const* address, socklen_t length, char* host, socklen_t hostLength, char* service,
                socklen_t serviceLength, int flags) {
    static auto* const next = NextSymbol(&getnameinfo, "getnameinfo");
    if (!(flags & NI_NUMERICHOST)) ++nameLookUps;
    return next(address, length, host, hostLength, service, serviceLength, flags);
}
}
