// What other threads may do while a loop runs. Most useful under ThreadSanitizer.

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/event/iomultiplexer_task.h>

#include "pipes.h"

namespace {

/// Counts upwards, and waits for a count.
class Counter {
public:
    void Add() { ++_count; }
    int Get() const { return _count; }
    void Await(int count) const {
        while (_count < count) std::this_thread::yield();
    }

private:
    std::atomic<int> _count{0};
};

/// A loop on a separate thread, with a pipe that wakes it.
class Threads : public testing::Test {
protected:
    void SetUp() override {
        mux.Register(wakeUp.Reader(), TestDispatcher([this](int) {
                         wakeUp.Drain();
                         woken.Add();
                         return 1;
                     }));
        loop = std::thread([this] { result = task.Run(); });
    }
    void TearDown() override {
        task.Stop();
        wakeUp.Fill();
        loop.join();
        EXPECT_EQ(result, -1);
    }

    /// Has the loop look at what is registered, and returns when it has dispatched the waking.
    void Wake() {
        int const before = woken.Get();
        wakeUp.Fill();
        woken.Await(before + 1);
    }

    IOMultiplexer mux;
    IOMultiplexerTask task{mux};
    Pipe wakeUp;
    Counter woken;
    int result = 0;
    std::thread loop;
};

} // namespace

TEST_F(Threads, StopTakesEffectWhenThePollReturns) {
    EXPECT_EQ(task.Stop(), 0);
    EXPECT_EQ(task.Stop(), 1);
}

TEST_F(Threads, RegisteredDescriptorIsServedFromTheNextCycleOn) {
    for (int i = 0; i < 50; ++i) {
        Pipe pipe;
        Counter dispatched;
        pipe.Fill();
        mux.Register(pipe.Reader(), TestDispatcher([&](int) {
                         pipe.Drain();
                         dispatched.Add();
                         return 1;
                     }));
        Wake();
        dispatched.Await(1);
        mux.Unregister(pipe.Reader());
        Wake();
        EXPECT_EQ(dispatched.Get(), 1);
    }
}

TEST_F(Threads, SeveralMayRegisterConcurrently) {
    constexpr int COUNT = 20;
    std::vector<std::unique_ptr<Pipe>> pipes;
    for (int i = 0; i < 3 * COUNT; ++i) pipes.push_back(std::make_unique<Pipe>());
    Counter dispatched;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            for (int i = t * COUNT; i < (t + 1) * COUNT; ++i) {
                Pipe const& pipe = *pipes[static_cast<std::size_t>(i)];
                mux.Register(pipe.Reader(), TestDispatcher([&](int) {
                                 pipe.Drain();
                                 dispatched.Add();
                                 return 1;
                             }));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    Wake();
    for (std::unique_ptr<Pipe> const& pipe : pipes) pipe->Fill();
    dispatched.Await(3 * COUNT);
    EXPECT_EQ(dispatched.Get(), 3 * COUNT);
    mux.Clear();
    mux.Register(wakeUp.Reader(), TestDispatcher([](int) { return 1; }));
}

TEST_F(Threads, CallbacksRunOnTheThreadThatUnregisters) {
    std::thread::id where;
    TestCallback callback([&](int) {
        where = std::this_thread::get_id();
        return 0;
    });
    mux.Append(&callback);
    mux.Unregister(1000);
    EXPECT_EQ(where, std::this_thread::get_id());
    EXPECT_EQ(mux.Unregister(SameCallback(callback)), &callback);
}

TEST_F(Threads, CallbackListMayChangeDuringIteration) {
    Counter calls;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                TestCallback callback([&](int) {
                    calls.Add();
                    return 0;
                });
                if (i % 2) {
                    mux.Append(&callback);
                } else {
                    mux.Insert(&callback);
                }
                mux.CallCallbacks(1000);
                EXPECT_EQ(mux.Unregister(SameCallback(callback)), &callback);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GE(calls.Get(), 600);
}
