#ifndef BRANTLE_EVENT_IOMULTIPLEXER_TASK_H
#define BRANTLE_EVENT_IOMULTIPLEXER_TASK_H

#include <brantle/event/iomultiplexer.h>
#include <brantle/export.h>

/// The loop that drives an `IOMultiplexer`, on the thread that calls `Run`. The multiplexer remains owned by
/// the caller and must outlive the task.
class BRANTLE_API IOMultiplexerTask {
public:
    explicit IOMultiplexerTask(IOMultiplexer& mux);
    /// `timeout` has no effect: every cycle sleeps as long as the timers allow.
    IOMultiplexerTask(IOMultiplexer& mux, IOMultiplexer::Timeval const& timeout);
    IOMultiplexerTask(IOMultiplexerTask const&) = delete;
    IOMultiplexerTask& operator=(IOMultiplexerTask const&) = delete;

    /// Fires timers and serves one ready descriptor a cycle until the task is stopped. Returns -1 when
    /// it was stopped, or the errno value of a failed poll(2). What a dispatcher or a timer throws
    /// passes through, and `Run` may then be called again.
    int Run();
    /// Stops the task permanently; a sleeping `Run` ends when its poll(2) returns, which this does not
    /// interrupt. May be called from any thread, dispatcher or timer. Returns the previous state: non-zero if
    /// the task had already been stopped.
    int Stop();
    /// Whether the task has been stopped.
    bool IsStopped() const;

private:
    IOMultiplexer& _mux;
    IOMultiplexer::Timeval _timeout;
    int _stop;
};

#endif
