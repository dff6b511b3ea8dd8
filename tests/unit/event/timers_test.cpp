#include <brantle/event/timers.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Timeval = IOMultiplexer::Timeval;

namespace {

/// A time far after and one far ahead of any clock that a test may run on.
Timeval const PAST(1000, 0);
Timeval const FUTURE(0x7ffffff0, 0);

MATCHER_P2(IsTime, sec, msec, "") {
    *result_listener << "which is " << arg._sec << " s " << arg._msec << " ms";
    return arg._sec == static_cast<std::uint32_t>(sec) && arg._msec == static_cast<std::uint32_t>(msec);
}

/// What the timers of a test did, in order.
typedef std::vector<std::string> Log;

class NamedOnce : public IOMultiplexer::OnceTimer {
public:
    NamedOnce(Log& log, char const* name, Timeval const& t) : OnceTimer(t), _log(log), _name(name) {}
    void Fire(Timeval const& now) override {
        _log.push_back(_name);
        _firedAt = now;
        if (_work) _work();
    }

    Log& _log;
    std::string _name;
    Timeval _firedAt;
    std::function<void()> _work;
};

class NamedPeriodic : public IOMultiplexer::PeriodicTimer {
public:
    NamedPeriodic(Log& log, char const* name, Timeval const& start, Timeval const& interval)
        : PeriodicTimer(start, interval), _log(log), _name(name) {}
    void Fire(Timeval const&) override { _log.push_back(_name); }

    Log& _log;
    std::string _name;
};

class Tick : public IOMultiplexer::PeriodicTimer {
public:
    using PeriodicTimer::PeriodicTimer;
    void Fire(Timeval const&) override {}
};

class Shot : public IOMultiplexer::OnceTimer {
public:
    using OnceTimer::OnceTimer;
    void Fire(Timeval const&) override {}
};

/// Chooses one timer.
class Same : public TPVarrCmp<IOMultiplexer::Timer> {
public:
    explicit Same(IOMultiplexer::Timer const& timer) : _timer(&timer) {}
    int operator()(IOMultiplexer::Timer* timer) const override { return timer == _timer ? 0 : 1; }

private:
    IOMultiplexer::Timer const* _timer;
};

/// Whether a reading of the wall clock is between two others.
bool IsBetween(Timeval const& low, Timeval const& t, Timeval const& high) {
    return !(t < low) && !(high < t);
}

class Timers : public testing::Test {
protected:
    Log log;
    IOMultiplexer mux;
};

} // namespace

TEST(Timeval, CarriesMillisecondsAboveAThousand) {
    EXPECT_THAT(Timeval(1, 1001), IsTime(2, 1));
    EXPECT_THAT(Timeval(1, 1000), IsTime(1, 1000));
    EXPECT_THAT(Timeval(1, 999), IsTime(1, 999));
    EXPECT_THAT(Timeval(1, 5999), IsTime(6, 999));
    EXPECT_THAT(Timeval(1, 2000), IsTime(3, 0));
    EXPECT_THAT(Timeval(0, 4294967295u), IsTime(4294967, 295));
    EXPECT_THAT(Timeval(), IsTime(0, 0));
}

TEST(Timeval, HoldsTwoWordsOf32Bits) {
    EXPECT_EQ(sizeof(Timeval), 8u);
    EXPECT_EQ(offsetof(Timeval, _sec), 0u);
    EXPECT_EQ(offsetof(Timeval, _msec), 4u);
    EXPECT_THAT(Timeval(4294967295u, 1001), IsTime(0, 1));
}

TEST(Timeval, AdditionCarriesAboveAThousand) {
    Timeval t(1, 500);
    t += Timeval(0, 500);
    EXPECT_THAT(t, IsTime(1, 1000));
    t = Timeval(1, 501);
    t += Timeval(0, 500);
    EXPECT_THAT(t, IsTime(2, 1));
    EXPECT_THAT(Timeval(1, 500) + Timeval(2, 500), IsTime(3, 1000));
    EXPECT_THAT(Timeval(1, 501) + Timeval(2, 500), IsTime(4, 1));
    EXPECT_THAT(Timeval(1, 1000) + Timeval(2, 1000), IsTime(4, 1000));
    EXPECT_THAT(Timeval(4294967295u, 600) + Timeval(0, 600), IsTime(0, 200));
}

TEST(Timeval, AdditionComparesTheMillisecondsAsSigned) {
    Timeval t;
    t._msec = 0x80000000u;
    Timeval sum = t;
    sum += Timeval(1, 5);
    EXPECT_THAT(sum, IsTime(1, 0x80000005u));
    EXPECT_THAT(t + Timeval(1, 5), IsTime(1 + 2147483, 653));
}

TEST(Timeval, SubtractionBorrows) {
    EXPECT_THAT(Timeval(1, 0) - Timeval(0, 1), IsTime(0, 999));
    Timeval t(1, 0);
    t -= Timeval(0, 1);
    EXPECT_THAT(t, IsTime(0, 999));
    EXPECT_THAT(Timeval(5, 3) - Timeval(2, 3), IsTime(3, 0));
    EXPECT_THAT(Timeval(0, 0) - Timeval(0, 1), IsTime(4294967295u, 999));
    EXPECT_THAT(Timeval(5, 1000) - Timeval(5, 0), IsTime(0, 1000));
}

TEST(Timeval, IsOrderedBySecondsThenMilliseconds) {
    EXPECT_LT(Timeval(5, 1000), Timeval(6, 0));
    EXPECT_LT(Timeval(5, 1), Timeval(5, 2));
    EXPECT_GT(Timeval(6, 0), Timeval(5, 999));
    EXPECT_FALSE(Timeval(5, 5) < Timeval(5, 5));
    EXPECT_FALSE(Timeval(5, 5) > Timeval(5, 5));
}

TEST(Timeval, IsOrderedAsSigned) {
    EXPECT_LT(Timeval(0x80000000u, 0), Timeval(0x7fffffff, 0));
    EXPECT_LT(Timeval(4294967295u, 999), Timeval(0, 0));
    Timeval t(1, 0);
    t._msec = 0x80000000u;
    EXPECT_LT(t, Timeval(1, 0));
}

TEST(Timeval, NowIsTheWallClock) {
    std::uint32_t const before = static_cast<std::uint32_t>(time(nullptr));
    Timeval const now = Timeval::Now();
    EXPECT_GE(now._sec + 1, before);
    EXPECT_LE(now._sec, static_cast<std::uint32_t>(time(nullptr)) + 1);
    EXPECT_LE(now._msec, 999u);
}

TEST(OnceTimer, IsDueOnceAtItsTime) {
    Shot shot(Timeval(7, 8));
    EXPECT_THAT(shot._start, IsTime(7, 8));
    EXPECT_THAT(shot._next, IsTime(7, 8));
    EXPECT_THAT(shot.ScheduleNext(), IsTime(0, 0));
    EXPECT_THAT(shot._next, IsTime(0, 0));
    EXPECT_THAT(shot._start, IsTime(7, 8));
}

TEST(OnceTimer, CopiesAllFields) {
    Shot first(Timeval(7, 8)), second(Timeval(9, 10));
    first._next = Timeval(11, 12);
    Shot const copy(first);
    EXPECT_THAT(copy._start, IsTime(7, 8));
    EXPECT_THAT(copy._next, IsTime(11, 12));
    second = first;
    Shot& same = second;
    second = same;
    EXPECT_THAT(second._start, IsTime(7, 8));
    EXPECT_THAT(second._next, IsTime(11, 12));
}

TEST(PeriodicTimer, IsFirstDueOneIntervalFromNow) {
    Timeval const before = Timeval::Now();
    Tick tick(Timeval(3600, 250));
    Timeval const after = Timeval::Now();
    EXPECT_PRED3(IsBetween, before, tick._start, after);
    EXPECT_PRED3(IsBetween, before + Timeval(3600, 250), tick._next, after + Timeval(3600, 250));
    EXPECT_THAT(tick._interval, IsTime(3600, 250));
}

TEST(PeriodicTimer, IsFirstDueOneIntervalAfterItsStart) {
    Tick tick(FUTURE - Timeval(100, 0), Timeval(10, 5));
    EXPECT_THAT(tick._start, IsTime(FUTURE._sec - 100, 0));
    EXPECT_THAT(tick._next, IsTime(FUTURE._sec - 90, 5));
    EXPECT_THAT(tick.ScheduleNext(), IsTime(FUTURE._sec - 80, 10));
    EXPECT_THAT(tick._next, IsTime(FUTURE._sec - 80, 10));
}

TEST(PeriodicTimer, SkipsMissedTicks) {
    Timeval const interval(600, 0);
    Tick tick(Timeval::Now() - Timeval(6000, 0), interval);
    Timeval const before = Timeval::Now();
    Timeval const next = tick.ScheduleNext();
    Timeval const after = Timeval::Now();
    // It was late at construction too, so that it has caught up already.
    EXPECT_PRED3(IsBetween, before + interval, next, after + interval + interval);
    tick._next = PAST;
    Timeval const early = Timeval::Now();
    Timeval const shifted = tick.ScheduleNext();
    EXPECT_PRED3(IsBetween, early + interval, shifted, Timeval::Now() + interval);
}

TEST(PeriodicTimer, WithoutIntervalStaysAtTheCurrentTime) {
    Timeval const before = Timeval::Now();
    Tick tick(PAST, Timeval(0, 0));
    EXPECT_PRED3(IsBetween, before, tick._next, Timeval::Now());
}

TEST(PeriodicTimer, AtZeroWithoutIntervalIsNotRequeued) {
    Tick tick(Timeval(0, 0), Timeval(0, 0));
    EXPECT_THAT(tick._next, IsTime(0, 0));
    EXPECT_THAT(tick.ScheduleNext(), IsTime(0, 0));
    IOMultiplexer mux;
    mux.Insert(&tick);
    EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
    EXPECT_EQ(mux.Unregister(Same(tick)), nullptr);
}

TEST(PeriodicTimer, CopiesAllFields) {
    Tick first(FUTURE - Timeval(50, 0), Timeval(10, 0));
    Tick const copy(first);
    EXPECT_THAT(copy._start, IsTime(FUTURE._sec - 50, 0));
    EXPECT_THAT(copy._next, IsTime(FUTURE._sec - 40, 0));
    EXPECT_THAT(copy._interval, IsTime(10, 0));
    Tick second(Timeval(1, 0));
    second = first;
    Tick& same = second;
    second = same;
    EXPECT_THAT(second._start, IsTime(FUTURE._sec - 50, 0));
    EXPECT_THAT(second._next, IsTime(FUTURE._sec - 40, 0));
    EXPECT_THAT(second._interval, IsTime(10, 0));
}

TEST_F(Timers, EmptyQueueSleepsSixtySeconds) { EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0)); }

TEST_F(Timers, DueTimerFiresOnceAndIsRemoved) {
    NamedOnce timer(log, "a", Timeval::Now());
    mux.Insert(&timer);
    Timeval const before = Timeval::Now();
    EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
    EXPECT_THAT(log, ElementsAre("a"));
    EXPECT_PRED3(IsBetween, before, timer._firedAt, Timeval::Now());
    EXPECT_THAT(timer._next, IsTime(0, 0));
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("a"));
    EXPECT_EQ(mux.Unregister(Same(timer)), nullptr);
}

TEST_F(Timers, PendingTimerBoundsTheSleep) {
    NamedOnce timer(log, "a", Timeval::Now() + Timeval(1000, 0));
    mux.Insert(&timer);
    Timeval const sleep = mux.CheckTimers();
    EXPECT_TRUE(log.empty());
    EXPECT_LE(sleep._sec, 1000u);
    EXPECT_GT(sleep._sec, 700u);
}

TEST_F(Timers, AllDueTimersGetTheSameTime) {
    NamedOnce first(log, "first", PAST), second(log, "second", PAST + Timeval(5, 0));
    mux.Insert(&second);
    mux.Insert(&first);
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("first", "second"));
    EXPECT_THAT(first._firedAt, IsTime(second._firedAt._sec, second._firedAt._msec));
}

TEST_F(Timers, FireInTheOrderOfTheirDueTimes) {
    std::vector<std::unique_ptr<NamedOnce>> timers;
    std::vector<std::string> expected;
    for (unsigned int i = 0; i < 100; ++i) {
        unsigned int const due = (i * 37) % 100;
        timers.push_back(
            std::make_unique<NamedOnce>(log, std::to_string(due).c_str(), PAST + Timeval(due, 0)));
        mux.Insert(timers.back().get());
        expected.push_back(std::to_string(i));
    }
    mux.CheckTimers();
    EXPECT_EQ(log, expected);
}

TEST_F(Timers, LaterInsertedOfEqualDueTimeFiresFirst) {
    NamedOnce first(log, "first", PAST), second(log, "second", PAST);
    mux.Insert(&first);
    mux.Insert(&second);
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("second", "first"));
}

TEST_F(Timers, LatePeriodicTimerFiresOnce) {
    NamedPeriodic timer(log, "tick", Timeval::Now(), Timeval(600, 0));
    timer._next = Timeval::Now() - Timeval(6000, 0);
    mux.Insert(&timer);
    Timeval const before = Timeval::Now();
    Timeval const sleep = mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("tick"));
    EXPECT_PRED3(IsBetween, before + Timeval(600, 0), timer._next, Timeval::Now() + Timeval(600, 0));
    EXPECT_LE(sleep._sec, 600u);
    EXPECT_GT(sleep._sec, 300u);
    EXPECT_EQ(mux.Unregister(Same(timer)), &timer);
}

TEST_F(Timers, TimerThatStaysDueFiresAgainInTheSameCheck) {
    class Stubborn : public IOMultiplexer::Timer {
    public:
        Stubborn() : Timer(PAST) {}
        void Fire(Timeval const&) override { ++_fired; }
        Timeval ScheduleNext() override { return _next = _fired < 5 ? PAST : Timeval(0, 0); }
        int _fired = 0;
    } timer;
    mux.Insert(&timer);
    mux.CheckTimers();
    EXPECT_EQ(timer._fired, 5);
}

TEST_F(Timers, NextTimeWithOnlyMillisecondsRequeues) {
    class Twice : public IOMultiplexer::Timer {
    public:
        Twice() : Timer(PAST) {}
        void Fire(Timeval const&) override { ++_fired; }
        Timeval ScheduleNext() override { return _next = _fired < 2 ? Timeval(0, 1) : Timeval(0, 0); }
        int _fired = 0;
    } timer;
    mux.Insert(&timer);
    mux.CheckTimers();
    EXPECT_EQ(timer._fired, 2);
}

TEST_F(Timers, TimerThatBecomesDueDuringTheCheckWaits) {
    NamedOnce late(log, "late", FUTURE);
    NamedOnce timer(log, "first", PAST);
    // While it runs, the other one becomes due at a moment after the fixed time of this check.
    timer._work = [&] {
        mux.Unregister(Same(late));
        late._next = timer._firedAt + Timeval(0, 1);
        mux.Insert(&late);
        while (!(Timeval::Now() > late._next)) continue;
    };
    mux.Insert(&late);
    mux.Insert(&timer);
    EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
    EXPECT_THAT(log, ElementsAre("first"));
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("first", "late"));
}

TEST_F(Timers, FireMayInsertAndUnregisterTimers) {
    NamedOnce first(log, "first", PAST), added(log, "added", PAST + Timeval(1, 0)),
        dropped(log, "dropped", PAST + Timeval(2, 0));
    first._work = [&] {
        mux.Insert(&added);
        EXPECT_EQ(mux.Unregister(Same(dropped)), &dropped);
        EXPECT_EQ(mux.Unregister(Same(first)), nullptr);
    };
    mux.Insert(&dropped);
    mux.Insert(&first);
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("first", "added"));
}

TEST_F(Timers, ExceptionFromFireLeavesTheQueueUsable) {
    NamedOnce bad(log, "bad", PAST), good(log, "good", PAST + Timeval(1, 0));
    bad._work = [] { throw 1; };
    mux.Insert(&bad);
    mux.Insert(&good);
    EXPECT_THROW(mux.CheckTimers(), int);
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("bad", "good"));
}

TEST_F(Timers, UnregisterOfTheRootKeepsTheOrder) {
    std::vector<std::unique_ptr<NamedOnce>> timers;
    for (unsigned int i = 0; i < 10; ++i) {
        timers.push_back(std::make_unique<NamedOnce>(log, std::to_string(i).c_str(), PAST + Timeval(i, 0)));
        mux.Insert(timers.back().get());
    }
    EXPECT_EQ(mux.Unregister(Same(*timers[0])), timers[0].get());
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("1", "2", "3", "4", "5", "6", "7", "8", "9"));
}

TEST_F(Timers, UnregisterOfEachKeepsTheOrder) {
    for (unsigned int gone = 0; gone < 20; ++gone) {
        IOMultiplexer queue;
        log.clear();
        std::vector<std::unique_ptr<NamedOnce>> timers;
        std::vector<std::string> expected;
        for (unsigned int i = 0; i < 20; ++i) {
            unsigned int const due = (i * 7) % 20;
            timers.push_back(
                std::make_unique<NamedOnce>(log, std::to_string(due).c_str(), PAST + Timeval(due, 0)));
            queue.Insert(timers.back().get());
            if (i != (gone * 7) % 20) expected.push_back(std::to_string(i));
        }
        EXPECT_EQ(queue.Unregister(Same(*timers[gone])), timers[gone].get());
        EXPECT_EQ(queue.Unregister(Same(*timers[gone])), nullptr);
        queue.CheckTimers();
        EXPECT_EQ(log, expected);
    }
}

TEST_F(Timers, UnregisterFromAnEmptyQueueReturnsNull) {
    Shot shot(PAST);
    EXPECT_EQ(mux.Unregister(Same(shot)), nullptr);
}

TEST_F(Timers, InvokeFiresAllWithoutRescheduling) {
    NamedOnce first(log, "first", FUTURE), second(log, "second", FUTURE + Timeval(1, 0));
    mux.InvokeTimers();
    EXPECT_TRUE(log.empty());
    mux.Insert(&first);
    mux.Insert(&second);
    Timeval const before = Timeval::Now();
    mux.InvokeTimers();
    mux.InvokeTimers();
    EXPECT_THAT(log, ElementsAre("first", "second", "first", "second"));
    EXPECT_PRED3(IsBetween, before, first._firedAt, Timeval::Now());
    EXPECT_THAT(first._next, IsTime(FUTURE._sec, 0));
    EXPECT_EQ(mux.Unregister(Same(first)), &first);
    EXPECT_EQ(mux.Unregister(Same(second)), &second);
}

TEST_F(Timers, InvokeCountsAgainAfterEachTimer) {
    NamedOnce first(log, "first", FUTURE), second(log, "second", FUTURE + Timeval(1, 0)),
        third(log, "third", FUTURE + Timeval(2, 0));
    first._work = [&] { mux.Unregister(Same(third)); };
    second._work = [&] { mux.Insert(&third); };
    mux.Insert(&first);
    mux.Insert(&second);
    mux.Insert(&third);
    mux.InvokeTimers();
    EXPECT_THAT(log, ElementsAre("first", "second", "third"));
}

TEST_F(Timers, DestroyDeletesTimersAndLeavesAWorkingQueue) {
    class Mortal : public IOMultiplexer::OnceTimer {
    public:
        Mortal(Log& log, char const* name) : OnceTimer(FUTURE), _log(log), _name(name) {}
        ~Mortal() override { _log.push_back(_name); }
        void Fire(Timeval const&) override {}

    private:
        Log& _log;
        std::string _name;
    };
    mux.Insert(new Mortal(log, "a"));
    mux.Insert(new Mortal(log, "b"));
    mux.DestroyTimers();
    EXPECT_THAT(log, UnorderedElementsAre("a", "b"));
    log.clear();
    EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
    NamedOnce first(log, "first", PAST), second(log, "second", PAST + Timeval(1, 0));
    mux.Insert(&second);
    mux.Insert(&first);
    mux.CheckTimers();
    EXPECT_THAT(log, ElementsAre("first", "second"));
    mux.DestroyTimers();
}

TEST_F(Timers, MultiplexerDestructorDeletesNoTimers) {
    auto timer = std::make_unique<NamedOnce>(log, "a", FUTURE);
    {
        IOMultiplexer other;
        other.Insert(timer.get());
    }
    EXPECT_THAT(timer->_next, IsTime(FUTURE._sec, 0));
}

TEST_F(Timers, QueueGrowsToHundreds) {
    std::vector<std::unique_ptr<NamedOnce>> timers;
    for (unsigned int i = 0; i < 500; ++i) {
        timers.push_back(std::make_unique<NamedOnce>(log, "x", PAST + Timeval(500 - i, 0)));
        mux.Insert(timers.back().get());
    }
    mux.CheckTimers();
    EXPECT_EQ(log.size(), 500u);
}
