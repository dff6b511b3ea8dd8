// Locks on a mutex in an unrecoverable state: locking it fails, and so does waiting on it.
//
// Separate from the other tests of locks, since ThreadSanitizer itself reports such a mutex.

#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include <brantle/event/locks.h>

namespace {

/// Makes `mutex` one whose owner died and that was unlocked without having been repaired.
void Wreck(pthread_mutex_t& mutex) {
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    std::thread([&] { pthread_mutex_lock(&mutex); }).join();
    ASSERT_EQ(pthread_mutex_lock(&mutex), EOWNERDEAD);
    ASSERT_EQ(pthread_mutex_unlock(&mutex), 0);
    ASSERT_EQ(pthread_mutex_lock(&mutex), ENOTRECOVERABLE);
}

class WreckedLock : public RWLock {
public:
    WreckedLock() { Wreck(_mutex._mutex); }

    int ActiveReaders() const { return _activeReaders; }
    int ActiveWriter() const { return _activeWriter; }
    int WaitingReaders() const { return _waitingReaders; }
    int WaitingWriters() const { return _waitingWriters; }
};

} // namespace

TEST(FailedLock, GuardOfAFailedLockEntersAndUnlocksNothing) {
    Mutex mutex;
    Wreck(mutex._mutex);
    {
        MutexGuard guard(mutex);
    }
    EXPECT_EQ(mutex.Lock(), ENOTRECOVERABLE);
}

TEST(FailedLock, OperationsContinueWithoutTheirMutex) {
    WreckedLock lock;
    EXPECT_EQ(lock.RLock(), 0);
    EXPECT_EQ(lock.TryRLock(), 0);
    EXPECT_EQ(lock.ActiveReaders(), 2);
    EXPECT_EQ(lock.TryWLock(), EBUSY);
    EXPECT_EQ(lock.RUnlock(), 0);
    EXPECT_EQ(lock.RUnlock(), 0);
    EXPECT_EQ(lock.RUnlock(), EINVAL);
    EXPECT_EQ(lock.WLock(), 0);
    EXPECT_EQ(lock.ActiveWriter(), 1);
    EXPECT_EQ(lock.TryRLock(), EBUSY);
    EXPECT_EQ(lock.WUnlock(), 0);
    EXPECT_EQ(lock.WUnlock(), EINVAL);
    EXPECT_EQ(lock.TryWLock(), 0);
    EXPECT_EQ(lock.WUnlock(), 0);
}

TEST(FailedLock, FailedWaitIsReturnedAndLeavesNoWaiter) {
    WreckedLock lock;
    EXPECT_EQ(lock.WLock(), 0);
    EXPECT_EQ(lock.RLock(), EPERM);
    EXPECT_EQ(lock.WaitingReaders(), 0);
    EXPECT_EQ(lock.ActiveReaders(), 0);
    EXPECT_EQ(lock.WLock(), EPERM);
    EXPECT_EQ(lock.WaitingWriters(), 0);
    EXPECT_EQ(lock.WUnlock(), 0);
    EXPECT_EQ(lock.RLock(), 0);
    EXPECT_EQ(lock.WLock(), EPERM);
    EXPECT_EQ(lock.WaitingWriters(), 0);
    EXPECT_EQ(lock.ActiveWriter(), 0);
    EXPECT_EQ(lock.RUnlock(), 0);
}
