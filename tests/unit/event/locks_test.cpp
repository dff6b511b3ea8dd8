#include <brantle/event/locks.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

namespace {

/// Runs `work` on another thread and returns its result.
int OnAnotherThread(std::function<int()> work) {
    int result = -1;
    std::thread thread([&] { result = work(); });
    thread.join();
    return result;
}

/// An `RWLock` whose counters can be seen and that can be made invalid.
class OpenLock : public RWLock {
public:
    int ActiveReaders() { return Read(_activeReaders); }
    int ActiveWriter() { return Read(_activeWriter); }
    int WaitingReaders() { return Read(_waitingReaders); }
    int WaitingWriters() { return Read(_waitingWriters); }
    std::uint32_t Valid() const { return _valid; }
    std::uint32_t MutexWord() const { return _mutex._valid; }
    std::uint32_t ReadersWord() const { return _readers._valid; }
    std::uint32_t WritersWord() const { return _writers._valid; }
    void SetValid(std::uint32_t word) { _valid = word; }
    bool ConditionsShareTheMutex() const { return _readers._mutex == &_mutex && _writers._mutex == &_mutex; }

    void AwaitWaitingReaders(int count) {
        while (WaitingReaders() != count) std::this_thread::yield();
    }
    void AwaitWaitingWriters(int count) {
        while (WaitingWriters() != count) std::this_thread::yield();
    }

private:
    int Read(int const& counter) {
        MutexGuard guard(_mutex);
        return counter;
    }
};

} // namespace

TEST(Mutex, StateIsReadyAfterConstruction) {
    Mutex mutex;
    EXPECT_EQ(mutex._valid, 0x33343536u);
    EXPECT_TRUE(mutex.IsValid());
    EXPECT_EQ(mutex.Lock(), 0);
    EXPECT_EQ(OnAnotherThread([&] { return pthread_mutex_trylock(&mutex._mutex); }), EBUSY);
    EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(RMutex, OwnerMayLockAgain) {
    RMutex mutex;
    EXPECT_EQ(mutex.Lock(), 0);
    EXPECT_EQ(mutex.Lock(), 0);
    EXPECT_EQ(mutex.Trylock(), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(RMutex, IsFreeOnlyAfterTheLastUnlock) {
    RMutex mutex;
    mutex.Lock();
    mutex.Lock();
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Trylock(); }), EBUSY);
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(OnAnotherThread([&] {
                  int const result = mutex.Trylock();
                  mutex.Unlock();
                  return result;
              }),
              0);
}

TEST(RMutex, UnlockByAnotherThreadChangesNothing) {
    RMutex mutex;
    mutex.Lock();
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Unlock(); }), 1);
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Trylock(); }), EBUSY);
    EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(RMutex, UnlockOfAFreeMutexIsRefused) {
    RMutex mutex;
    EXPECT_EQ(mutex.Unlock(), 1);
    mutex.Lock();
    mutex.Unlock();
    EXPECT_EQ(mutex.Unlock(), 1);
}

TEST(RMutex, FailedTrylockDoesNotAffectTheOwner) {
    RMutex mutex;
    mutex.Lock();
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Trylock(); }), EBUSY);
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(mutex.Unlock(), 1);
}

TEST(RMutex, TrylockTakesAFreeMutex) {
    RMutex mutex;
    EXPECT_EQ(mutex.Trylock(), 0);
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Trylock(); }), EBUSY);
    EXPECT_EQ(mutex.Unlock(), 0);
}

TEST(RMutex, ExcludesOtherThreads) {
    RMutex mutex;
    int count = 0;
    auto work = [&] {
        for (int i = 0; i < 2000; ++i) {
            mutex.Lock();
            mutex.Lock();
            ++count;
            mutex.Unlock();
            mutex.Unlock();
        }
        return 0;
    };
    std::thread first(work), second(work), third(work);
    first.join();
    second.join();
    third.join();
    EXPECT_EQ(count, 6000);
}

TEST(RWLock, StartsFreeAndValid) {
    OpenLock lock;
    EXPECT_EQ(lock.Valid(), 0x22232425u);
    EXPECT_EQ(lock.MutexWord(), 0x33343536u);
    EXPECT_EQ(lock.ReadersWord(), 0x11121314u);
    EXPECT_EQ(lock.WritersWord(), 0x11121314u);
    EXPECT_TRUE(lock.ConditionsShareTheMutex());
    EXPECT_EQ(lock.ActiveReaders(), 0);
    EXPECT_EQ(lock.ActiveWriter(), 0);
    EXPECT_EQ(lock.WaitingReaders(), 0);
    EXPECT_EQ(lock.WaitingWriters(), 0);
}

TEST(RWLock, InvalidLockRefusesEveryOperation) {
    OpenLock lock;
    for (std::uint32_t word : {0u, 0x22232424u}) {
        lock.SetValid(word);
        EXPECT_EQ(lock.RLock(), EINVAL);
        EXPECT_EQ(lock.TryRLock(), EINVAL);
        EXPECT_EQ(lock.RUnlock(), EINVAL);
        EXPECT_EQ(lock.WLock(), EINVAL);
        EXPECT_EQ(lock.TryWLock(), EINVAL);
        EXPECT_EQ(lock.WUnlock(), EINVAL);
    }
    EXPECT_EQ(lock.ActiveReaders(), 0);
    EXPECT_EQ(lock.ActiveWriter(), 0);
}

TEST(RWLock, UnmatchedRUnlockChangesNothing) {
    OpenLock lock;
    EXPECT_EQ(lock.RUnlock(), EINVAL);
    EXPECT_EQ(lock.ActiveReaders(), 0);
    lock.WLock();
    EXPECT_EQ(lock.RUnlock(), EINVAL);
    EXPECT_EQ(lock.ActiveWriter(), 1);
    EXPECT_EQ(lock.WUnlock(), 0);
}

TEST(RWLock, UnmatchedWUnlockChangesNothing) {
    OpenLock lock;
    EXPECT_EQ(lock.WUnlock(), EINVAL);
    lock.RLock();
    EXPECT_EQ(lock.WUnlock(), EINVAL);
    EXPECT_EQ(lock.ActiveReaders(), 1);
    EXPECT_EQ(lock.ActiveWriter(), 0);
    EXPECT_EQ(lock.RUnlock(), 0);
}

TEST(RWLock, ManyReadersOrOneWriter) {
    OpenLock lock;
    EXPECT_EQ(lock.RLock(), 0);
    EXPECT_EQ(lock.TryRLock(), 0);
    EXPECT_EQ(lock.ActiveReaders(), 2);
    EXPECT_EQ(lock.TryWLock(), EBUSY);
    EXPECT_EQ(lock.RUnlock(), 0);
    EXPECT_EQ(lock.TryWLock(), EBUSY);
    EXPECT_EQ(lock.RUnlock(), 0);
    EXPECT_EQ(lock.TryWLock(), 0);
    EXPECT_EQ(lock.TryWLock(), EBUSY);
    EXPECT_EQ(lock.TryRLock(), EBUSY);
    EXPECT_EQ(lock.WUnlock(), 0);
    EXPECT_EQ(lock.WLock(), 0);
    EXPECT_EQ(lock.TryRLock(), EBUSY);
    EXPECT_EQ(lock.WUnlock(), 0);
}

TEST(RWLock, LastReaderWakesTheWriterAndNewReadersOvertakeIt) {
    OpenLock lock;
    lock.RLock();
    lock.RLock();
    std::atomic<bool> written{false};
    std::thread writer([&] {
        EXPECT_EQ(lock.WLock(), 0);
        written = true;
        EXPECT_EQ(lock.WUnlock(), 0);
    });
    lock.AwaitWaitingWriters(1);
    EXPECT_EQ(lock.TryRLock(), 0);
    EXPECT_EQ(lock.RLock(), 0);
    EXPECT_EQ(lock.ActiveReaders(), 4);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(lock.RUnlock(), 0);
    EXPECT_FALSE(written);
    EXPECT_EQ(lock.WaitingWriters(), 1);
    EXPECT_EQ(lock.RUnlock(), 0);
    writer.join();
    EXPECT_TRUE(written);
    EXPECT_EQ(lock.WaitingWriters(), 0);
}

TEST(RWLock, ReadersWinOverWritersAtWUnlock) {
    OpenLock lock;
    lock.WLock();
    std::atomic<int> readersIn{0};
    std::atomic<bool> readersMayLeave{false};
    int readersSeenByTheWriter = 0;
    std::thread writer([&] {
        lock.WLock();
        readersSeenByTheWriter = readersIn;
        lock.WUnlock();
    });
    lock.AwaitWaitingWriters(1);
    auto read = [&] {
        lock.RLock();
        ++readersIn;
        while (!readersMayLeave) std::this_thread::yield();
        lock.RUnlock();
    };
    std::thread first(read), second(read);
    lock.AwaitWaitingReaders(2);
    EXPECT_EQ(lock.WUnlock(), 0);
    while (readersIn != 2) std::this_thread::yield();
    EXPECT_EQ(lock.WaitingWriters(), 1);
    readersMayLeave = true;
    first.join();
    second.join();
    writer.join();
    EXPECT_EQ(readersSeenByTheWriter, 2);
    EXPECT_EQ(lock.ActiveReaders(), 0);
    EXPECT_EQ(lock.ActiveWriter(), 0);
}

TEST(RWLock, WUnlockWakesAWriterWhenNoReaderWaits) {
    OpenLock lock;
    lock.WLock();
    std::thread writer([&] {
        EXPECT_EQ(lock.WLock(), 0);
        EXPECT_EQ(lock.WUnlock(), 0);
    });
    lock.AwaitWaitingWriters(1);
    EXPECT_EQ(lock.WUnlock(), 0);
    writer.join();
    EXPECT_EQ(lock.TryWLock(), 0);
    EXPECT_EQ(lock.WUnlock(), 0);
}

TEST(RWLock, CancelledReaderLeavesTheLockAsItWas) {
    OpenLock lock;
    lock.WLock();
    pthread_t reader;
    auto wait = [](void* argument) -> void* {
        static_cast<OpenLock*>(argument)->RLock();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&reader, nullptr, wait, &lock), 0);
    lock.AwaitWaitingReaders(1);
    pthread_cancel(reader);
    void* result = nullptr;
    pthread_join(reader, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(lock.WaitingReaders(), 0);
    EXPECT_EQ(lock.ActiveReaders(), 0);
    EXPECT_EQ(lock.WUnlock(), 0);
    EXPECT_EQ(lock.TryWLock(), 0);
    EXPECT_EQ(lock.WUnlock(), 0);
}

TEST(RWLock, CancelledWriterLeavesTheLockAsItWas) {
    OpenLock lock;
    lock.RLock();
    pthread_t writer;
    auto wait = [](void* argument) -> void* {
        static_cast<OpenLock*>(argument)->WLock();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&writer, nullptr, wait, &lock), 0);
    lock.AwaitWaitingWriters(1);
    pthread_cancel(writer);
    void* result = nullptr;
    pthread_join(writer, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(lock.WaitingWriters(), 0);
    EXPECT_EQ(lock.ActiveWriter(), 0);
    EXPECT_EQ(lock.RUnlock(), 0);
}

TEST(RWLock, WritersExcludeEachOtherAndReaders) {
    OpenLock lock;
    int value = 0;
    auto write = [&] {
        for (int i = 0; i < 1000; ++i) {
            lock.WLock();
            ++value;
            lock.WUnlock();
        }
    };
    int lastSeen = 0;
    auto read = [&] {
        for (int i = 0; i < 1000; ++i) {
            lock.RLock();
            int const seen = value;
            lock.RUnlock();
            EXPECT_GE(seen, lastSeen);
            lastSeen = seen;
        }
    };
    std::thread first(write), second(write), reader(read);
    first.join();
    second.join();
    reader.join();
    EXPECT_EQ(value, 2000);
}
