#include <brantle/event/locks.h>

#include <cerrno>

#include "atomic_ref.h"

namespace {

/// Counts a waiter for as long as it waits, even if its thread is cancelled.
class Waiting {
public:
    explicit Waiting(int& count) : _count(count) { ++_count; }
    ~Waiting() { --_count; }
    Waiting(Waiting const&) = delete;
    Waiting& operator=(Waiting const&) = delete;

private:
    int& _count;
};

} // namespace

Mutex::Mutex() noexcept : _valid(0) {
    if (pthread_mutex_init(&_mutex, nullptr) == 0) _valid = VALID;
}

Mutex::~Mutex() {
    if (IsValid()) pthread_mutex_destroy(&_mutex);
}

RMutex::RMutex() : _owner(0), _depth(0) { pthread_mutex_init(&_mutex, nullptr); }

RMutex::~RMutex() { pthread_mutex_destroy(&_mutex); }

// `_owner` is also read by threads that do not hold the mutex, so it is read and written atomically. Only the
// holder can find its own id there, so no ordering is needed.
bool RMutex::IsOwner() const { return AtomicRef(_owner).load(std::memory_order_relaxed) == pthread_self(); }

void RMutex::SetOwner(pthread_t owner) { AtomicRef(_owner).store(owner, std::memory_order_relaxed); }

int RMutex::Lock() {
    if (IsOwner()) {
        ++_depth;
        return 0;
    }
    int const result = pthread_mutex_lock(&_mutex);
    SetOwner(pthread_self());
    _depth = 1;
    return result;
}

int RMutex::Trylock() {
    if (IsOwner()) {
        ++_depth;
        return 0;
    }
    int const result = pthread_mutex_trylock(&_mutex);
    if (result != 0) return result;
    SetOwner(pthread_self());
    _depth = 1;
    return 0;
}

int RMutex::Unlock() {
    if (!IsOwner()) return 1;
    if (_depth > 1) {
        --_depth;
        return 0;
    }
    if (_depth != 1) return 0;
    SetOwner(0);
    _depth = 0;
    return pthread_mutex_unlock(&_mutex);
}

RWLock::Condition::Condition(Mutex& mutex) : _mutex(&mutex), _valid(0) {
    if (pthread_cond_init(&_cond, nullptr) == 0) _valid = VALID;
}

RWLock::Condition::~Condition() {
    if (IsValid()) pthread_cond_destroy(&_cond);
}

RWLock::RWLock()
    : _readers(_mutex), _writers(_mutex), _valid(0), _activeReaders(0), _activeWriter(0), _waitingReaders(0),
      _waitingWriters(0) {
    if (_mutex.IsValid() && _readers.IsValid() && _writers.IsValid()) _valid = VALID;
}

RWLock::~RWLock() { _valid = 0; }

int RWLock::RLock() {
    if (_valid != VALID) return EINVAL;
    MutexGuard guard(_mutex);
    if (_activeWriter) {
        Waiting waiting(_waitingReaders);
        while (_activeWriter) {
            if (int const error = _readers.Wait()) return error;
        }
    }
    ++_activeReaders;
    return 0;
}

int RWLock::TryRLock() {
    if (_valid != VALID) return EINVAL;
    MutexGuard guard(_mutex);
    if (_activeWriter) return EBUSY;
    ++_activeReaders;
    return 0;
}

int RWLock::RUnlock() {
    if (_valid != VALID) return EINVAL;
    MutexGuard guard(_mutex);
    if (_activeReaders == 0) return EINVAL;
    --_activeReaders;
    if (_activeReaders == 0 && _waitingWriters > 0) return _writers.Signal();
    return 0;
}

int RWLock::WLock() {
    if (_valid != VALID) return EINVAL;
    MutexGuard guard(_mutex);
    if (_activeWriter || _activeReaders > 0) {
        Waiting waiting(_waitingWriters);
        while (_activeWriter || _activeReaders > 0) {
            if (int const error = _writers.Wait()) return error;
        }
    }
    _activeWriter = 1;
    return 0;
}

int RWLock::TryWLock() {
    if (_valid != VALID) return EINVAL;
    MutexGuard guard(_mutex);
    if (_activeWriter || _activeReaders > 0) return EBUSY;
    _activeWriter = 1;
    return 0;
}

int RWLock::WUnlock() {
    if (_valid != VALID) return EINVAL;
    MutexGuard guard(_mutex);
    if (!_activeWriter) return EINVAL;
    _activeWriter = 0;
    if (_waitingReaders > 0) return _readers.Broadcast();
    if (_waitingWriters > 0) return _writers.Signal();
    return 0;
}
