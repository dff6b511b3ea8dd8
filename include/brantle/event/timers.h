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

/// A timer that fires once in every interval. When it has fallen after it skips the ticks missed, and
/// its phase shifts to the present.
class BRANTLE_API IOMultiplexer::PeriodicTimer : public IOMultiplexer::Timer {
public:
    /// First due one interval from now.
    explicit PeriodicTimer(Timeval const& interval);
    /// First due one interval after `start`.
    PeriodicTimer(Timeval const& start, Timeval const& interval);
    PeriodicTimer(PeriodicTimer const&) = default;
    PeriodicTimer& operator=(PeriodicTimer const&) = default;

    /// One interval after the last due time, or from now when that is not in the future. A timer at zero
    /// without an interval stays there, which takes it out of the queue.
    Timeval ScheduleNext() override;

    Timeval _interval;
};

#endif
