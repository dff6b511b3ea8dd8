#include <brantle/event/iomultiplexer_task.h>

#include <cerrno>

#include "atomic_ref.h"

IOMultiplexerTask::IOMultiplexerTask(IOMultiplexer& mux) : _mux(mux), _timeout(0, 0), _stop(0) {}

IOMultiplexerTask::IOMultiplexerTask(IOMultiplexer& mux, IOMultiplexer::Timeval const& timeout)
    : _mux(mux), _timeout(timeout), _stop(0) {}

// Another thread may stop the task: the flag is read and written atomically, with relaxed ordering.
bool IOMultiplexerTask::IsStopped() const { return AtomicRef(_stop).load(std::memory_order_relaxed) != 0; }

int IOMultiplexerTask::Stop() { return AtomicRef(_stop).exchange(1, std::memory_order_relaxed); }

int IOMultiplexerTask::Run() {
    int cursor = -1;
    while (!IsStopped()) {
        _timeout = _mux.CheckTimers();
        if (IsStopped()) break;
        IOMultiplexer::PollFds fds;
        int const ready = _mux.Poll(fds, _timeout);
        if (ready < 0 && errno != EINTR) return errno;
        if (ready > 0) {
            int const fd = IOMultiplexer::Nextfd(cursor, fds);
            if (fd >= 0 && !_mux.Dispatch(fd)) _mux.Unregister(fd);
        }
    }
    return -1;
}
