#include <poll.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/event/iomultiplexer.h>

#include "pipes.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using PollFd = SockIO::PollFd;
using PollFds = IOMultiplexer::PollFds;
using Timeval = IOMultiplexer::Timeval;

namespace {

Timeval const AT_ONCE(0, 0);
Timeval const LONG(60, 0);

PollFds MakePollFds(std::vector<PollFd> const& records) {
    PollFds fds;
    for (PollFd const& record : records) fds.Insert(record);
    return fds;
}

MATCHER_P3(IsRecord, fd, events, revents, "") {
    *result_listener << "which is {" << arg.fd << ", " << arg.events << ", " << arg.revents << "}";
    return arg.fd == fd && arg.events == events && arg.revents == revents;
}

/// Non-zero when another thread could take the read, or the write, lock now.
int CouldRead(IOMultiplexer& mux) {
    int result = -1;
    std::thread([&] {
        result = mux.TryRLock() == 0;
        if (result) mux.RUnlock();
    }).join();
    return result;
}

int CouldWrite(IOMultiplexer& mux) {
    int result = -1;
    std::thread([&] {
        result = mux.TryWLock() == 0;
        if (result) mux.WUnlock();
    }).join();
    return result;
}

class Multiplexer : public testing::Test {
protected:
    /// What `Poll` gives with no time to wait.
    PollFds Polled() {
        PollFds fds;
        mux.Poll(fds, AT_ONCE);
        return fds;
    }

    TestCallback* Note(char const* name, int result = 0) {
        callbacks.push_back(std::make_unique<TestCallback>([this, name, result](int fd) {
            calls.push_back(name + std::to_string(fd));
            return result;
        }));
        return callbacks.back().get();
    }

    std::vector<std::string> calls;
    std::vector<std::unique_ptr<TestCallback>> callbacks;
    IOMultiplexer mux;
};

} // namespace

TEST_F(Multiplexer, NegativeDescriptorIsRefusedWithoutALock) {
    int alive = 0;
    TestDispatcher prototype;
    prototype.Counted(alive);
    mux.Append(Note("called "));
    mux.WLock();
    EXPECT_EQ(mux.Register(-1, prototype), EINVAL);
    EXPECT_EQ(mux.Unregister(-1), EINVAL);
    mux.WUnlock();
    EXPECT_EQ(alive, 1);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Multiplexer, TypeChoosesTheEvent) {
    Pipe pipe;
    mux.Register(pipe.Reader(), TestDispatcher());
    mux.Register(pipe.Writer(), TestDispatcher(nullptr, IOMultiplexerWrite));
    PollFds fds = Polled();
    ASSERT_EQ(fds.Size(), 2u);
    EXPECT_THAT(std::vector<PollFd>(fds.begin(), fds.end()),
                UnorderedElementsAre(IsRecord(pipe.Reader(), POLLRDNORM, 0),
                                     IsRecord(pipe.Writer(), POLLWRNORM, POLLWRNORM)));
}

TEST_F(Multiplexer, RecordsAreSortedByDescriptor) {
    for (int fd : {9, 3, 7, 1}) mux.Register(fd, TestDispatcher());
    PollFds fds = Polled();
    std::vector<int> order;
    for (PollFd const& record : fds) order.push_back(record.fd);
    EXPECT_THAT(order, ElementsAre(1, 3, 7, 9));
}

using MultiplexerDeathTest = Multiplexer;

TEST_F(MultiplexerDeathTest, UnknownTypeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(mux.Register(3, TestDispatcher(nullptr, static_cast<IOMultiplexerDispatcherType>(2))),
                 "iomult:179: int IOMultiplexer::Register\\(int, const IOMultiplexerDispatcher&\\): "
                 "Assertion `0' failed");
}

TEST_F(Multiplexer, KeepsACloneUntilUnregister) {
    int alive = 0;
    {
        TestDispatcher prototype([](int fd) { return fd + 1; });
        prototype.Counted(alive);
        EXPECT_EQ(mux.Register(5, prototype), 0);
        EXPECT_EQ(alive, 2);
    }
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(mux.Dispatch(5), 6);
    EXPECT_EQ(mux.Unregister(5), 0);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(mux.Dispatch(5), 0);
    EXPECT_EQ(Polled().Size(), 0u);
}

TEST_F(Multiplexer, RegisteringAgainReplacesTheDispatcher) {
    int oldOnes = 0, newOnes = 0;
    mux.Register(5, TestDispatcher([](int) { return 1; }).Counted(oldOnes));
    mux.Register(5, TestDispatcher([](int) { return 2; }, IOMultiplexerWrite).Counted(newOnes));
    EXPECT_EQ(oldOnes, 0);
    EXPECT_EQ(newOnes, 1);
    EXPECT_EQ(mux.Dispatch(5), 2);
    PollFds fds = Polled();
    ASSERT_EQ(fds.Size(), 1u);
    EXPECT_EQ(fds.begin()->events, POLLWRNORM);
    mux.Unregister(5);
    EXPECT_EQ(newOnes, 0);
    EXPECT_EQ(Polled().Size(), 0u);
}

TEST_F(Multiplexer, DispatcherMayReregisterItself) {
    class Renewed : public IOMultiplexerDispatcher {
    public:
        explicit Renewed(IOMultiplexer& mux) : IOMultiplexerDispatcher(IOMultiplexerRead), _mux(mux) {}
        IOMultiplexerDispatcher* Clone() const override { return new Renewed(*this); }
        int Dispatch(int fd) override { return _mux.Register(fd, *this) == 0; }

    private:
        IOMultiplexer& _mux;
    };
    mux.Register(5, Renewed(mux));
    EXPECT_EQ(mux.Dispatch(5), 1);
    EXPECT_EQ(mux.Dispatch(5), 1);
    EXPECT_EQ(Polled().Size(), 1u);
}

TEST_F(Multiplexer, DispatcherMayRegisterAndUnregisterOthers) {
    mux.Register(6, TestDispatcher());
    mux.Register(5, TestDispatcher([this](int) {
                     mux.Unregister(6);
                     return mux.Register(7, TestDispatcher()) == 0;
                 }));
    EXPECT_EQ(mux.Dispatch(5), 1);
    EXPECT_EQ(mux.Dispatch(6), 0);
    EXPECT_EQ(mux.Dispatch(7), 1);
}

TEST_F(Multiplexer, ResultOfZeroDoesNotUnregisterByItself) {
    mux.Register(5, TestDispatcher([](int) { return 0; }));
    EXPECT_EQ(mux.Dispatch(5), 0);
    EXPECT_EQ(Polled().Size(), 1u);
}

TEST_F(Multiplexer, FailedCloneReleasesTheLockAndLeavesNothingToDispatch) {
    class Unclonable : public IOMultiplexerDispatcher {
    public:
        Unclonable() : IOMultiplexerDispatcher(IOMultiplexerRead) {}
        IOMultiplexerDispatcher* Clone() const override { throw std::bad_alloc(); }
    };
    EXPECT_THROW(mux.Register(5, Unclonable()), std::bad_alloc);
    EXPECT_TRUE(CouldWrite(mux));
    EXPECT_EQ(mux.Dispatch(5), 0);
    EXPECT_EQ(mux.MakeRequest(5), nullptr);
    EXPECT_EQ(Polled().Size(), 0u);
    mux.Register(5, TestDispatcher());
    EXPECT_EQ(mux.Dispatch(5), 1);
    EXPECT_THROW(mux.Register(5, Unclonable()), std::bad_alloc);
    EXPECT_EQ(mux.Dispatch(5), 1);
}

TEST_F(Multiplexer, DestructorDeletesDispatchersButNotCallbacks) {
    int alive = 0;
    {
        IOMultiplexer other;
        other.Register(5, TestDispatcher().Counted(alive));
        other.Register(6, TestDispatcher().Counted(alive));
        other.Append(Note("called "));
        EXPECT_EQ(alive, 2);
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ((*callbacks[0])(1), 0);
}

TEST_F(Multiplexer, ClearDeletesDispatchersWithoutCallbacks) {
    int alive = 0;
    mux.Append(Note("called "));
    mux.Register(5, TestDispatcher().Counted(alive));
    mux.Register(6, TestDispatcher().Counted(alive));
    mux.Clear();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(Polled().Size(), 0u);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_TRUE(CouldWrite(mux));
    mux.Unregister(5);
    EXPECT_THAT(calls, ElementsAre("called 5"));
}

TEST_F(Multiplexer, UnregisterOfAnUnknownDescriptorStillRunsTheCallbacks) {
    mux.Append(Note("called "));
    EXPECT_EQ(mux.Unregister(77), 0);
    EXPECT_THAT(calls, ElementsAre("called 77"));
}

TEST_F(Multiplexer, CallbacksRunInOrderUntilOneStopsThem) {
    mux.Append(Note("b", 1));
    mux.Insert(Note("a"));
    mux.Append(Note("c"));
    mux.CallCallbacks(4);
    EXPECT_THAT(calls, ElementsAre("a4", "b4"));
}

TEST_F(Multiplexer, NullCallbackEndsTheIteration) {
    mux.Append(Note("a"));
    mux.Append(nullptr);
    mux.Append(Note("b"));
    mux.CallCallbacks(4);
    EXPECT_THAT(calls, ElementsAre("a4"));
}

TEST_F(Multiplexer, CallbacksRunUnderTheReadLockOnly) {
    bool readable = false, writable = true;
    TestCallback look([&](int) {
        readable = CouldRead(mux);
        writable = CouldWrite(mux);
        return 0;
    });
    mux.Append(&look);
    mux.Unregister(5);
    EXPECT_TRUE(readable);
    EXPECT_FALSE(writable);
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, DescriptorIsUnregisteredWhenTheCallbacksRun) {
    int result = -1;
    TestCallback look([&](int fd) { return (result = mux.Dispatch(fd)); });
    mux.Append(&look);
    mux.Register(5, TestDispatcher());
    mux.Unregister(5);
    EXPECT_EQ(result, 0);
}

TEST_F(Multiplexer, ExceptionFromACallbackReleasesTheLock) {
    TestCallback bad([](int) -> int { throw 1; });
    mux.Append(&bad);
    EXPECT_THROW(mux.Unregister(5), int);
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, UnregisteredCallbackIsReturned) {
    mux.Append(Note("a"));
    mux.Append(Note("b"));
    EXPECT_EQ(mux.Unregister(SameCallback(*callbacks[0])), callbacks[0].get());
    EXPECT_EQ(mux.Unregister(SameCallback(*callbacks[0])), nullptr);
    mux.CallCallbacks(4);
    EXPECT_THAT(calls, ElementsAre("b4"));
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, OnlyTheFirstMatchingCallbackIsUnregistered) {
    class Any : public IOMultiplexerCallback::Cmp {
        int operator()(IOMultiplexerCallback*) const override { return 0; }
    };
    mux.Append(Note("a"));
    mux.Append(Note("b"));
    EXPECT_EQ(mux.Unregister(Any()), callbacks[0].get());
    mux.CallCallbacks(4);
    EXPECT_THAT(calls, ElementsAre("b4"));
}

TEST_F(Multiplexer, DestroyCallbacksDeletesThemAll) {
    class Mortal : public IOMultiplexerCallback {
    public:
        explicit Mortal(int& dead) : _dead(dead) {}
        ~Mortal() override { ++_dead; }
        int operator()(int) override { return 0; }

    private:
        int& _dead;
    };
    int dead = 0;
    mux.Append(new Mortal(dead));
    mux.Append(nullptr);
    mux.Insert(new Mortal(dead));
    mux.DestroyCallbacks();
    EXPECT_EQ(dead, 2);
    mux.CallCallbacks(3);
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, InAvailListsDispatchersWithBufferedInput) {
    mux.Register(9, TestDispatcher().WithInput([] { return 1; }));
    mux.Register(3, TestDispatcher().WithInput([] { return 0; }));
    mux.Register(1, TestDispatcher(nullptr, IOMultiplexerWrite).WithInput([] { return -1; }));
    PollFds fds = MakePollFds({PollFd(4, 1, 1)});
    EXPECT_EQ(mux.InAvail(fds), 2);
    EXPECT_THAT(std::vector<PollFd>(fds.begin(), fds.end()),
                ElementsAre(IsRecord(1, POLLRDNORM, POLLRDNORM), IsRecord(9, POLLRDNORM, POLLRDNORM)));
}

TEST_F(Multiplexer, BufferedInputPreventsPoll) {
    Pipe ready;
    ready.Fill();
    int left = 2;
    mux.Register(ready.Reader(), TestDispatcher());
    mux.Register(1000, TestDispatcher().WithInput([&] { return left; }));
    PollFds fds;
    for (; left > 0; --left) {
        EXPECT_EQ(mux.Poll(fds, LONG), 1);
        EXPECT_THAT(std::vector<PollFd>(fds.begin(), fds.end()),
                    ElementsAre(IsRecord(1000, POLLRDNORM, POLLRDNORM)));
        EXPECT_TRUE(CouldWrite(mux));
    }
    mux.Unregister(1000);
    EXPECT_EQ(mux.Poll(fds, LONG), 1);
    EXPECT_THAT(std::vector<PollFd>(fds.begin(), fds.end()),
                ElementsAre(IsRecord(ready.Reader(), POLLRDNORM, POLLRDNORM)));
}

TEST_F(Multiplexer, ExceptionFromInAvailReleasesTheLock) {
    mux.Register(5, TestDispatcher().WithInput([]() -> int { throw 1; }));
    PollFds fds;
    EXPECT_THROW(mux.Poll(fds, AT_ONCE), int);
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, PollSleepsForTheTimeGiven) {
    PollFds fds = MakePollFds({PollFd(4, 1, 1)});
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(mux.Poll(fds, Timeval(0, 50)), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(49));
    EXPECT_EQ(fds.Size(), 0u);
    int cursor = 17;
    EXPECT_EQ(IOMultiplexer::Nextfd(cursor, fds), -1);
    EXPECT_EQ(cursor, 17);
}

TEST_F(Multiplexer, PollWorksOnACopyAndOutsideTheLock) {
    Pipe pipe;
    pipe.Fill();
    mux.Register(pipe.Reader(), TestDispatcher());
    EXPECT_EQ(Polled().begin()->revents, POLLRDNORM);
    pipe.Drain();
    EXPECT_EQ(Polled().begin()->revents, 0);
}

TEST_F(Multiplexer, ReadUnlockAfterPollReleasesAConcurrentReader) {
    mux.RLock();
    Polled();
    EXPECT_EQ(mux.RUnlock(), EINVAL);
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, UnlockAfterUnregisterReleasesAConcurrentWriter) {
    // A writer can come in only after the callbacks, so it takes over the reader's place here.
    TestCallback takeOver([&](int) {
        EXPECT_EQ(mux.RUnlock(), 0);
        EXPECT_EQ(mux.WLock(), 0);
        return 0;
    });
    mux.Append(&takeOver);
    EXPECT_EQ(mux.Unregister(5), 0);
    EXPECT_EQ(mux.WUnlock(), EINVAL);
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, NegativeTimeOutProductIsNoLimit) {
    // 2147484 seconds are 2147484000 milliseconds, which is negative in 32 bits; 4294968 seconds wrap
    // around to 704 milliseconds.
    for (Timeval const& endless : {Timeval(2147484, 0), Timeval(2147483, 648), Timeval(4294967, 0)}) {
        Pipe pipe;
        IOMultiplexer other;
        other.Register(pipe.Reader(), TestDispatcher());
        std::thread writer([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            pipe.Fill();
        });
        PollFds fds;
        EXPECT_EQ(other.Poll(fds, endless), 1);
        writer.join();
    }
    PollFds fds;
    EXPECT_EQ(mux.Poll(fds, Timeval(4294968, 0)), 0);
}

TEST_F(Multiplexer, PollReportsAClosedDescriptorThatNextfdSkips) {
    int closed;
    {
        Pipe pipe;
        closed = pipe.Reader();
    }
    mux.Register(closed, TestDispatcher());
    PollFds fds;
    EXPECT_EQ(mux.Poll(fds, LONG), 1);
    EXPECT_EQ(fds.begin()->revents, POLLNVAL);
    int cursor = -1;
    EXPECT_EQ(IOMultiplexer::Nextfd(cursor, fds), -1);
    mux.Unregister(closed);
    EXPECT_EQ(mux.Poll(fds, AT_ONCE), 0);
}

TEST_F(Multiplexer, PollReportsItsFailureByErrno) {
    rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    rlimit none = old;
    none.rlim_cur = 0;
    mux.Register(0, TestDispatcher());
    setrlimit(RLIMIT_NOFILE, &none);
    PollFds fds;
    errno = 0;
    int const result = mux.Poll(fds, AT_ONCE);
    int const error = errno;
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINVAL);
}

TEST(Nextfd, ChoosesReadyDescriptorsInTurn) {
    PollFds const fds = MakePollFds(
        {PollFd(3, 0, POLLRDNORM), PollFd(5, 0, 0), PollFd(7, 0, POLLWRNORM), PollFd(9, 0, POLLHUP)});
    int cursor = -1;
    std::vector<int> chosen;
    for (int i = 0; i < 7; ++i) chosen.push_back(IOMultiplexer::Nextfd(cursor, fds));
    EXPECT_THAT(chosen, ElementsAre(3, 7, 9, 3, 7, 9, 3));
    EXPECT_EQ(cursor, 0);
}

TEST(Nextfd, ChecksFourEventsOnly) {
    for (int event : {POLLERR, POLLHUP, POLLRDNORM, POLLWRNORM}) {
        int cursor = -1;
        EXPECT_EQ(IOMultiplexer::Nextfd(cursor, MakePollFds({PollFd(3, 0, static_cast<short>(event))})), 3)
            << event;
    }
    for (int event : {POLLIN, POLLPRI, POLLOUT, POLLNVAL, POLLRDBAND, POLLWRBAND}) {
        int cursor = -1;
        EXPECT_EQ(IOMultiplexer::Nextfd(cursor, MakePollFds({PollFd(3, 0, static_cast<short>(event))})), -1)
            << event;
    }
}

TEST(Nextfd, WithoutAReadyDescriptorScansOnce) {
    PollFds const fds = MakePollFds({PollFd(3, 0, 0), PollFd(5, 0, 0), PollFd(7, 0, 0)});
    int cursor = 1;
    EXPECT_EQ(IOMultiplexer::Nextfd(cursor, fds), -1);
    EXPECT_EQ(cursor, 1);
    cursor = -1;
    EXPECT_EQ(IOMultiplexer::Nextfd(cursor, fds), -1);
    EXPECT_EQ(cursor, 2);
}

TEST(Nextfd, CursorIsAPositionNotADescriptor) {
    int cursor = 0;
    EXPECT_EQ(IOMultiplexer::Nextfd(
                  cursor, MakePollFds({PollFd(1, 0, POLLHUP), PollFd(2, 0, POLLHUP), PollFd(3, 0, POLLHUP)})),
              2);
    cursor = 5;
    EXPECT_EQ(IOMultiplexer::Nextfd(cursor, MakePollFds({PollFd(1, 0, POLLHUP), PollFd(2, 0, POLLHUP)})), 1);
    EXPECT_EQ(cursor, 0);
}

TEST_F(Multiplexer, RequestForAnUnknownDescriptorIsNull) { EXPECT_EQ(mux.MakeRequest(5), nullptr); }

namespace {

/// Makes requests that note where they run.
class Requesting : public IOMultiplexerDispatcher {
public:
    class Request : public IOMultiplexerRequest {
    public:
        Request(int fd, std::function<void(int)> const& work) : IOMultiplexerRequest(fd), _work(work) {}
        void Process(int fd) override { _work(fd); }

    private:
        std::function<void(int)> _work;
    };

    explicit Requesting(std::function<void(int)> work)
        : IOMultiplexerDispatcher(IOMultiplexerRead), _work(std::move(work)) {}
    IOMultiplexerDispatcher* Clone() const override { return new Requesting(*this); }
    IOMultiplexerRequest* MakeRequest(int fd) override { return new Request(fd, _work); }

private:
    std::function<void(int)> _work;
};

} // namespace

TEST_F(Multiplexer, RequestIsProcessedWithoutALockAndStaysOwnedByTheCaller) {
    std::vector<int> processed;
    mux.Register(5, Requesting([&](int fd) {
                     processed.push_back(fd);
                     EXPECT_TRUE(CouldWrite(mux));
                 }));
    std::unique_ptr<IOMultiplexerRequest> const request(mux.MakeRequest(5));
    ASSERT_NE(request, nullptr);
    EXPECT_TRUE(CouldWrite(mux));
    mux.ProcessRequest(5, request.get());
    mux.ProcessRequest(5, request.get());
    EXPECT_THAT(processed, ElementsAre(5, 5));
    mux.ProcessRequest(6, request.get());
    mux.ProcessRequest(5, nullptr);
    mux.Unregister(5);
    mux.ProcessRequest(5, request.get());
    EXPECT_THAT(processed, ElementsAre(5, 5));
    EXPECT_TRUE(CouldWrite(mux));
}

TEST_F(Multiplexer, ReadUnlockAfterARequestReleasesAConcurrentReader) {
    mux.Register(5, Requesting([](int) {}));
    std::unique_ptr<IOMultiplexerRequest> const request(mux.MakeRequest(5));
    mux.RLock();
    mux.ProcessRequest(5, request.get());
    EXPECT_EQ(mux.RUnlock(), EINVAL);
    EXPECT_TRUE(CouldWrite(mux));
}
