#ifndef BRANTLE_CHANNEL_FORWARDED_CONNECTION_H
#define BRANTLE_CHANNEL_FORWARDED_CONNECTION_H

#include <poll.h>

namespace cindral {

/// Limit for connecting to the local target of a forwarding, in seconds.
constexpr unsigned int CONNECT_LIMIT = 60;

/// Whether a new connection becomes writable within 60 milliseconds.
inline bool IsWritable(int fd) {
    pollfd record{fd, POLLOUT, 0};
    return poll(&record, 1, 60) == 1;
}

} // namespace cindral

#endif
