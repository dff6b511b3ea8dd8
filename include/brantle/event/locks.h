#ifndef BRANTLE_EVENT_LOCKS_H
#define BRANTLE_EVENT_LOCKS_H

#include <pthread.h>

#include <cstdint>

#include <brantle/export.h>

/// A POSIX mutex with default attributes that knows whether its initialisation succeeded.
///
/// Results are those of the pthread calls: 0, or a positive error number.
class BRANTLE_API Mutex {
public:
    Mutex() noexcept;
    /// Destroys the POSIX mutex if it was initialised.
    ~Mutex();
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    int Lock() { return pthread_mutex_lock(&_mutex); }
    int Unlock() { return pthread_mutex_unlock(&_mutex); }
    /// Non-zero when initialisation succeeded.
    int IsValid() const { return _valid == VALID; }

    pthread_mutex_t _mutex;
    std::uint32_t _valid;

private:
    static constexpr std::uint32_t VALID = 0x33343536;
};

/// A recursive mutex: its holder may lock it again, and it is released after as many unlocks.
class BRANTLE_API RMutex {
public:
    RMutex();
    ~RMutex();
    RMutex(RMutex const&) = delete;
    RMutex& operator=(RMutex const&) = delete;

    /// Waits for the mutex unless the caller holds it already. Returns 0 or the error of
    /// pthread_mutex_lock.
    int Lock();
    /// As `Lock`, but returns the error of pthread_mutex_trylock (EBUSY) instead of waiting.
    int Trylock();
    /// Undoes one `Lock`. Returns 1, and changes nothing, if the caller is not the holder.
    int Unlock();

private:
    bool IsOwner() const;
    void SetOwner(pthread_t owner);

    pthread_mutex_t _mutex;
    pthread_t _owner;
    int _depth;
};

/// Holds a `Mutex` or an `RMutex` from construction to the end of the scope. If locking fails, the scope is
/// entered nevertheless, and nothing is unlocked at its end.
template <class M>
class MutexGuard {
public:
    explicit MutexGuard(M& mutex) : _mutex(mutex), _locked(mutex.Lock() == 0) {}
    ~MutexGuard() {
        if (_locked) _mutex.Unlock();
    }
    MutexGuard(MutexGuard const&) = delete;
    MutexGuard& operator=(MutexGuard const&) = delete;

private:
    M& _mutex;
    bool _locked;
};

/// A reader-writer lock that prefers readers: they enter while writers wait, so a stream of readers can
/// starve a writer. It is not recursive, and it does not know which thread holds it: an unlock by any thread
/// releases one holder, whichever it is.
///
/// Every operation returns 0 or a positive error number, and EINVAL immediately if initialisation failed.
/// Waiting is a cancellation point, and a cancelled waiter leaves the lock unchanged.
class BRANTLE_API RWLock {
public:
    RWLock();
    ~RWLock();
    RWLock(RWLock const&) = delete;
    RWLock& operator=(RWLock const&) = delete;

    /// Waits while a writer is active, then counts the caller as a reader.
    int RLock();
    /// As `RLock`, but returns EBUSY instead of waiting.
    int TryRLock();
    /// Removes one reader; the last one wakes a waiting writer. EINVAL, and no change, when no reader is
    /// active.
    int RUnlock();
    /// Waits while a writer or any reader is active, then makes the caller the writer.
    int WLock();
    /// As `WLock`, but returns EBUSY instead of waiting.
    int TryWLock();
    /// Removes the writer and wakes all waiting readers or, if there are none, one waiting writer. EINVAL,
    /// and no change, when no writer is active.
    int WUnlock();

protected:
    /// A POSIX condition variable tied to a mutex; it knows whether its initialisation succeeded.
    class BRANTLE_API Condition {
    public:
        explicit Condition(Mutex& mutex);
        ~Condition();
        Condition(Condition const&) = delete;
        Condition& operator=(Condition const&) = delete;

        int Wait() { return pthread_cond_wait(&_cond, &_mutex->_mutex); }
        int Signal() { return pthread_cond_signal(&_cond); }
        int Broadcast() { return pthread_cond_broadcast(&_cond); }
        int IsValid() const { return _valid == VALID; }

        Mutex* _mutex;
        pthread_cond_t _cond;
        std::uint32_t _valid;

    private:
        static constexpr std::uint32_t VALID = 0x11121314;
    };

    static constexpr std::uint32_t VALID = 0x22232425;

    Mutex _mutex;
    Condition _readers;
    Condition _writers;
    std::uint32_t _valid;
    int _activeReaders; ///< this and the three below are protected by `_mutex`
    int _activeWriter;
    int _waitingReaders;
    int _waitingWriters;
};

#endif
