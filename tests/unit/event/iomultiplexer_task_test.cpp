#include <brantle/event/iomultiplexer_task.h>

#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/event/timers.h>

#include "pipes.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Timeval = IOMultiplexer::Timeval;

namespace {

class Shot : public IOMultiplexer::OnceTimer {
public:
    Shot(Timeval const& t, std::function<void()> work) : OnceTimer(t), _work(std::move(work)) {}
    void Fire(Timeval const&) override { _work(); }

private:
    std::function<void()> _work;
};

Timeval const PAST(1000, 0);

class Task : public testing::Test {
protected:
    /// Notes the descriptor by a name, and stops the loop when `stopAfter` have been noted.
    int Note(std::string const& name) {
        log.push_back(name);
        if (log.size() == stopAfter) task.Stop();
        return 1;
    }
    TestDispatcher Noting(char const* name) {
        return TestDispatcher([this, name](int) { return Note(name); });
    }

    std::vector<std::string> log;
    std::size_t stopAfter = 0;
    IOMultiplexer mux;
    IOMultiplexerTask task{mux};
};

/// Takes all descriptors away from the process, so that poll(2) fails with EINVAL; gives them back.
class NoDescriptors {
public:
    NoDescriptors() { getrlimit(RLIMIT_NOFILE, &_old); }
    ~NoDescriptors() { End(); }
    void Begin() {
        rlimit none = _old;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
    }
    void End() { setrlimit(RLIMIT_NOFILE, &_old); }

private:
    rlimit _old;
};

} // namespace

TEST_F(Task, StopBeforeRunFiresNothing) {
    Shot shot(PAST, [this] { log.push_back("fired"); });
    mux.Insert(&shot);
    EXPECT_EQ(task.Stop(), 0);
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(Task, RunAfterStopReturnsImmediately) {
    EXPECT_EQ(task.Stop(), 0);
    EXPECT_EQ(task.Stop(), 1);
    EXPECT_EQ(task.Run(), -1);
    EXPECT_EQ(task.Run(), -1);
    EXPECT_EQ(task.Stop(), 1);
}

TEST_F(Task, StopByATimerTakesEffectBeforePoll) {
    Pipe ready;
    ready.Fill();
    mux.Register(ready.Reader(), Noting("dispatched").WithInput([this] { return Note("asked") == 0; }));
    Shot shot(PAST, [this] {
        log.push_back("fired");
        task.Stop();
    });
    mux.Insert(&shot);
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("fired"));
}

TEST_F(Task, StopByADispatcherTakesEffectBeforeTheNextPoll) {
    Pipe ready;
    ready.Fill();
    stopAfter = 2;
    mux.Register(ready.Reader(), Noting("dispatched").WithInput([this] { return Note("asked") == 0; }));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("asked", "dispatched"));
}

TEST_F(Task, TimeOutOfTheConstructorHasNoEffect) {
    IOMultiplexerTask other(mux, Timeval(2147484, 0));
    Pipe pipe;
    mux.Register(pipe.Reader(), TestDispatcher([&](int) { return Note("never"); }));
    Shot shot(Timeval::Now() + Timeval(0, 20), [&] { other.Stop(); });
    mux.Insert(&shot);
    EXPECT_EQ(other.Run(), -1);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(Task, PollTimeOutDispatchesNothingAndContinues) {
    Pipe silent;
    mux.Register(silent.Reader(), Noting("dispatched"));
    Shot second(Timeval::Now() + Timeval(0, 40), [this] {
        log.push_back("second");
        task.Stop();
    });
    Shot first(Timeval::Now() + Timeval(0, 10), [this] { log.push_back("first"); });
    mux.Insert(&second);
    mux.Insert(&first);
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("first", "second"));
}

TEST_F(Task, ReadyDescriptorsAreServedInTurn) {
    Pipe first, second;
    first.Fill();
    second.Fill();
    stopAfter = 6;
    mux.Register(first.Reader(), Noting("first"));
    mux.Register(second.Reader(), Noting("second"));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("first", "second", "first", "second", "first", "second"));
}

TEST_F(Task, WritableDescriptorIsServed) {
    Pipe pipe;
    stopAfter = 1;
    mux.Register(pipe.Writer(), TestDispatcher([this](int) { return Note("written"); }, IOMultiplexerWrite));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("written"));
}

TEST_F(Task, HangUpIsServed) {
    Pipe pipe;
    pipe.CloseWriter();
    stopAfter = 1;
    mux.Register(pipe.Reader(), Noting("hung up"));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("hung up"));
}

TEST_F(Task, BufferedInputStarvesTheOthers) {
    Pipe ready;
    ready.Fill();
    stopAfter = 3;
    mux.Register(ready.Reader(), Noting("polled"));
    mux.Register(1000, Noting("buffered").WithInput([] { return 1; }));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("buffered", "buffered", "buffered"));
}

TEST_F(Task, DispatcherThatReturnsZeroIsUnregistered) {
    Pipe done, ready;
    done.Fill();
    ready.Fill();
    TestCallback called([this](int) { return Note("called") == 0; });
    mux.Append(&called);
    stopAfter = 4;
    int alive = 0;
    mux.Register(done.Reader(), TestDispatcher([this](int) { return Note("done") == 0; }).Counted(alive));
    mux.Register(ready.Reader(), Noting("ready"));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("done", "called", "ready", "ready"));
    EXPECT_EQ(alive, 0);
}

TEST_F(Task, DispatcherThatUnregistersItselfHasItsCallbacksRunTwice) {
    class Leaving : public IOMultiplexerDispatcher {
    public:
        explicit Leaving(IOMultiplexer& mux) : IOMultiplexerDispatcher(IOMultiplexerRead), _mux(mux) {}
        IOMultiplexerDispatcher* Clone() const override { return new Leaving(*this); }
        int Dispatch(int fd) override {
            _mux.Unregister(fd);
            return 0;
        }

    private:
        IOMultiplexer& _mux;
    };
    Pipe ready;
    ready.Fill();
    TestCallback called([this](int) { return Note("called") == 0; });
    mux.Append(&called);
    stopAfter = 2;
    mux.Register(ready.Reader(), Leaving(mux));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_THAT(log, ElementsAre("called", "called"));
}

TEST_F(Task, LoopBusyWaitsOnAClosedDescriptorUntilItIsUnregistered) {
    int closed;
    {
        Pipe pipe;
        closed = pipe.Reader();
    }
    int cycles = 0;
    mux.Register(closed, Noting("dispatched").WithInput([&] {
        if (++cycles == 100) task.Stop();
        return 0;
    }));
    EXPECT_EQ(task.Run(), -1);
    EXPECT_EQ(cycles, 100);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(Task, ExceptionOfADispatcherLeavesTheLoopReusable) {
    Pipe ready;
    ready.Fill();
    bool thrown = false;
    mux.Register(ready.Reader(), TestDispatcher([&](int) {
                     if (!thrown) {
                         thrown = true;
                         throw 1;
                     }
                     task.Stop();
                     return 1;
                 }));
    EXPECT_THROW(task.Run(), int);
    EXPECT_EQ(task.Run(), -1);
}

TEST_F(Task, ExceptionOfATimerLeavesTheLoop) {
    Shot shot(PAST, [] { throw 1; });
    mux.Insert(&shot);
    EXPECT_THROW(task.Run(), int);
}

TEST_F(Task, FailedPollEndsTheRunWithItsErrorWithoutAnotherStopCheck) {
    NoDescriptors limit;
    mux.Register(0, Noting("dispatched").WithInput([&] {
        limit.Begin();
        task.Stop();
        return 0;
    }));
    int const result = task.Run();
    limit.End();
    EXPECT_EQ(result, EINVAL);
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(Task, InterruptedPollIsNotAFailureAndChecksTimers) {
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignore, &old);

    Shot shot(PAST, [this] { task.Stop(); });
    Pipe silent;
    int cycles = 0;
    // In the third cycle the timer falls due, too late for the sleep that is computed already.
    mux.Register(silent.Reader(), Noting("dispatched").WithInput([&] {
        if (++cycles == 3) mux.Insert(&shot);
        return 0;
    }));
    std::atomic<bool> ended{false};
    pthread_t const loop = pthread_self();
    std::thread interrupter([&] {
        while (!ended) {
            pthread_kill(loop, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(task.Run(), -1);
    ended = true;
    interrupter.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(cycles, 3);
    EXPECT_THAT(log, IsEmpty());
}
