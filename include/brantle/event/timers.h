#ifndef BRANTLE_EVENT_TIMERS_H
#define BRANTLE_EVENT_TIMERS_H

#include <brantle/event/iomultiplexer.h>
#include <brantle/export.h>

/// A timer that fires once, at an absolute time, and then leaves the queue.
class BRANTLE_API IOMultiplexer::OnceTimer : public IOMultiplexer::Timer {
public:
    explicit OnceTimer(Timeval const& t);
    OnceTimer(OnceTimer const&) = default;
    OnceTimer& operator=(OnceTimer const&) = default;

    /// Sets the due time to zero and returns it.
    Timeval ScheduleNext() override;
};

/// A timer that fires once in every interval. If it falls behind, it skips the missed ticks, and the next
/// interval starts at the present time.
class BRANTLE_API IOMultiplexer::PeriodicTimer : public IOMultiplexer::Timer {
public:
    /// First due one interval from now.
    explicit PeriodicTimer(Timeval const& interval);
    /// First due one interval after `start`.
    PeriodicTimer(Timeval const& start, Timeval const& interval);
    PeriodicTimer(PeriodicTimer const&) = default;
    PeriodicTimer& operator=(PeriodicTimer const&) = default;

    /// One interval after the last due time, or one interval from now if that is not in the future. A timer
    /// with a due time of zero and no interval keeps the due time zero, which removes it from the queue.
    Timeval ScheduleNext() override;

    Timeval _interval;
};

#endif
