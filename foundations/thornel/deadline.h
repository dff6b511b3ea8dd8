#ifndef BRANTLE_FOUNDATIONS_THORNEL_DEADLINE_H
#define BRANTLE_FOUNDATIONS_THORNEL_DEADLINE_H

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>

/// The end of a wait, on the monotonic clock.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    /// `limit` from now; a limit of 0 means never.
    explicit Deadline(std::chrono::milliseconds limit)
        : _limited(limit.count() > 0), _end(_limited ? Clock::now() + limit : Clock::time_point()) {}

    bool IsLimited() const { return _limited; }

    std::chrono::milliseconds Remaining() const {
        return std::max(std::chrono::ceil<std::chrono::milliseconds>(_end - Clock::now()),
                        std::chrono::milliseconds(0));
    }

    /// Waits until `fd` is ready, with any function that has the signature of poll. Returns 0, or -1 with
    /// errno set, ETIMEDOUT when the time is up.
    template <class Poll>
    int Wait(Poll poll, int fd, short events) const {
        for (;;) {
            long long remaining = _limited ? Remaining().count() : -1;
            pollfd record{fd, events, 0};
            int ready = poll(&record, 1, static_cast<int>(std::min<long long>(remaining, INT_MAX)));
            if (ready > 0) return 0;
            if (ready < 0 && errno != EINTR) return -1;
            if (_limited && Remaining().count() == 0) {
                errno = ETIMEDOUT;
                return -1;
            }
        }
    }

private:
    bool _limited;
    Clock::time_point _end;
};

#endif
