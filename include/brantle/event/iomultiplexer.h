#ifndef BRANTLE_EVENT_IOMULTIPLEXER_H
#define BRANTLE_EVENT_IOMULTIPLEXER_H

#include <cstdint>

#include <brantle/event/iomultiplexer_dispatcher.h>
#include <brantle/event/locks.h>
#include <brantle/export.h>
#include <brantle/thornel/sock_io.h>
#include <generic/gcmp>
#include <generic/handle>
#include <generic/tmap>
#include <generic/tppqueue>
#include <generic/tpvarr>
#include <generic/tslist>
#include <generic/tsortedvector>

/// The event core, based on poll(2): a table of dispatchers by descriptor, the pollfd records, the callbacks
/// to be called when a descriptor has been unregistered, and a queue of timers.
///
/// It has no thread and no loop of its own: `IOMultiplexerTask` drives it. It owns the clones of the
/// registered dispatchers. Callbacks and timers remain owned by the caller, unless `DestroyCallbacks` or
/// `DestroyTimers` is called, and must exist as long as they are registered.
///
/// Threads: table, poll records and callbacks are guarded by the read-write lock that the class derives from,
/// so `Register`, `Unregister`, `Clear` and the callback list may be used from any thread. poll(2), the
/// look-up of a dispatcher and the dispatcher itself run outside the lock: a change of the table by another
/// thread during a dispatch is not safe. `Unregister`, `Poll` and `Dispatch` release the lock
/// once more than they acquire it, which may end a lock that another thread holds: change the table on the
/// loop's thread while the loop runs. The timer queue is not locked and belongs to the loop's thread. A
/// poll(2) in progress is not interrupted: a change made by another thread takes effect when it returns.
class BRANTLE_API IOMultiplexer : public RWLock {
public:
    /// Seconds and milliseconds. A millisecond count of 1000 is valid: only a greater one is carried over.
    /// Arithmetic wraps in 32 bits.
    struct BRANTLE_API Timeval {
        Timeval() : Timeval(0, 0) {}
        Timeval(unsigned long sec, unsigned int msec);

        Timeval& operator+=(Timeval const& t);
        Timeval& operator-=(Timeval const& t);

        /// The current wall-clock time since the Unix epoch.
        static Timeval Now();

        std::uint32_t _sec;
        std::uint32_t _msec;
    };

    /// Work to be done at a certain time. Derive from `OnceTimer` or `PeriodicTimer`
    /// (<brantle/event/timers.h>) and implement `Fire`.
    class BRANTLE_API Timer {
    public:
        /// Due now.
        Timer();
        /// Due at `t`.
        explicit Timer(Timeval const& t);
        Timer(Timer const&) = default;
        Timer& operator=(Timer const&) = default;

        /// The timer's work. `now` is the time at which the multiplexer checked its timers. May insert and
        /// unregister timers.
        virtual void Fire(Timeval const& now) = 0;
        /// Computes and stores the next due time and returns it; zero removes the timer from the queue
        /// permanently.
        virtual Timeval ScheduleNext() = 0;
        virtual ~Timer();

        Timeval _start;
        Timeval _next; ///< the due time; do not change it from outside while the timer is queued

        /// Gives the timer queue access to a timer's key.
        struct Adapter {
            static Timeval const& Key(Timer const* timer) { return timer->_next; }
        };
    };

    class OnceTimer;
    class PeriodicTimer;

    typedef TSortedVector<SockIO::PollFd, SockIO::PollFd::Compare> PollFds;

    IOMultiplexer();
    ~IOMultiplexer();
    IOMultiplexer(IOMultiplexer const&) = delete;
    IOMultiplexer& operator=(IOMultiplexer const&) = delete;

    /// Registers a clone of `d` for `fd`, in place of the dispatcher that was registered for it.
    /// Returns 0, or EINVAL for a negative `fd`. A type that is not in `IOMultiplexerDispatcherType` is a
    /// fatal assertion.
    int Register(int fd, IOMultiplexerDispatcher const& d);
    /// Deletes the dispatcher of `fd` and then calls the callbacks, even if `fd` was not registered. Returns
    /// 0, or EINVAL for a negative `fd`.
    int Unregister(int fd);
    /// Deletes all dispatchers. Callbacks are not called, and timers stay.
    void Clear();

    /// Puts a callback at the front, or at the end, of the list.
    void Insert(IOMultiplexerCallback* callback);
    void Append(IOMultiplexerCallback* callback);
    /// Removes the first callback that `cmp` matches from the list and returns it, or null.
    IOMultiplexerCallback* Unregister(IOMultiplexerCallback::Cmp const& cmp);
    /// Calls the callbacks with `fd` from the front, until one returns non-zero.
    void CallCallbacks(int fd);
    /// Deletes all callbacks of the list and empties it.
    void DestroyCallbacks();

    /// Queues a timer.
    void Insert(Timer* timer);
    /// Removes from the queue the first timer, in array order, that `cmp` matches, and returns it, or null.
    Timer* Unregister(TPVarrCmp<Timer> const& cmp);
    /// Fires all timers that are due and returns how long to sleep: until the next one is due, or
    /// 60 seconds.
    Timeval CheckTimers();
    /// Fires every queued timer once, due or not, without rescheduling.
    void InvokeTimers();
    /// Deletes every queued timer.
    void DestroyTimers();

    /// Fills `fds` with the descriptors whose dispatchers have input buffered, and returns their
    /// number. The caller holds the lock.
    int InAvail(PollFds& fds);
    /// Waits until a descriptor is ready or `timeout` has expired. `fds` receives the set that was polled,
    /// with its `revents`. Returns the number of ready descriptors, 0 on timeout, or -1 with `errno` set.
    /// poll(2) is not called when input is buffered. A timeout that is negative in 32-bit milliseconds means
    /// no limit.
    int Poll(PollFds& fds, Timeval const& timeout);
    /// The next ready descriptor of `fds` after position `cursor`, which advances to it, round robin; -1 when
    /// none is ready. The caller keeps `cursor`, which starts at -1.
    static int Nextfd(int& cursor, PollFds const& fds);
    /// Calls the dispatcher of `fd`, without holding any lock, and returns its result; 0 for an unknown
    /// descriptor.
    int Dispatch(int fd);

    /// Creates a request for `fd`, which the caller then owns; null for an unknown descriptor.
    IOMultiplexerRequest* MakeRequest(int fd);
    /// Processes `request`, without holding any lock, if `fd` is registered. `request` may be null; the
    /// caller still owns it.
    void ProcessRequest(int fd, IOMultiplexerRequest* request);

private:
    typedef TMap<int, Handle<IOMultiplexerDispatcher>, GCmp<int>> Dispatchers;
    typedef TPPQueue<Timeval, Timer, Timer::Adapter> Timers;

    void _Unregister(int fd);
    IOMultiplexerDispatcher* FindDispatcher(int fd) const;

    Dispatchers _dispatchers;
    PollFds _pollFds;
    TSList<IOMultiplexerCallback> _callbacks;
    Timers _timers;
};

BRANTLE_API IOMultiplexer::Timeval operator+(IOMultiplexer::Timeval const& a,
                                             IOMultiplexer::Timeval const& b);
BRANTLE_API IOMultiplexer::Timeval operator-(IOMultiplexer::Timeval const& a,
                                             IOMultiplexer::Timeval const& b);

/// Due times are ordered by seconds and then milliseconds, both as signed 32-bit numbers.
BRANTLE_API bool operator<(IOMultiplexer::Timeval const& a, IOMultiplexer::Timeval const& b);
inline bool operator>(IOMultiplexer::Timeval const& a, IOMultiplexer::Timeval const& b) { return b < a; }

#endif
