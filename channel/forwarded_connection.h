#ifndef BRANTLE_CHANNEL_FORWARDED_CONNECTION_H
#define BRANTLE_CHANNEL_FORWARDED_CONNECTION_H

#include <poll.h>

namespace cindral {

/// Seconds that a connection to the local target of a forwarding may take.
constexpr unsigned int CONNECT_LIMIT = 60;

/// Whether a new connection takes data, after a wait of 60 milliseconds at the longest.
inline bool IsWritable(int fd) {
    pollfd record{fd, POLLOUT, 0};
    return poll(&record, 1, 60) == 1;
}

} // namespace cindral

#endif
