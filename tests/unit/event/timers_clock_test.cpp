// Due times compared with the clock, on both sides of each comparison: the clock of this program returns what
// a test sets.

#include <sys/time.h>

#include <deque>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/event/timers.h>

using testing::ElementsAre;
using testing::IsEmpty;
using Timeval = IOMultiplexer::Timeval;

namespace {

/// What the clock says next; the last of it stays.
std::deque<timeval> readings;

timeval At(long sec, long msec) { return {sec, msec * 1000 + 999}; }

MATCHER_P2(IsTime, sec, msec, "") {
    *result_listener << "which is " << arg._sec << " s " << arg._msec << " ms";
    return arg._sec == static_cast<std::uint32_t>(sec) && arg._msec == static_cast<std::uint32_t>(msec);
}

class Shot : public IOMultiplexer::OnceTimer {
public:
    using OnceTimer::OnceTimer;
    void Fire(Timeval const& now) override { _firedAt.push_back(now); }

    std::vector<Timeval> _firedAt;
};

class Tick : public IOMultiplexer::PeriodicTimer {
public:
    using PeriodicTimer::PeriodicTimer;
    void Fire(Timeval const&) override { ++_fired; }

    int _fired = 0;
};

} // namespace

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    *now = readings.front();
    if (readings.size() > 1) readings.pop_front();
    return 0;
}

TEST(Clock, IsReadInWholeMilliseconds) {
    readings = {{100, 999999}};
    EXPECT_THAT(Timeval::Now(), IsTime(100, 999));
    readings = {{100, 999}};
    EXPECT_THAT(Timeval::Now(), IsTime(100, 0));
}

TEST(Clock, TimerDoesNotFireBeforeItsTime) {
    for (timeval now : {At(100, 500), At(100, 501), At(101, 0)}) {
        readings = {now};
        IOMultiplexer mux;
        Shot shot(Timeval(100, 500));
        mux.Insert(&shot);
        EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
        EXPECT_EQ(shot._firedAt.size(), 1u);
    }
    for (timeval now : {At(100, 499), At(99, 999), At(0, 0)}) {
        readings = {now};
        IOMultiplexer mux;
        Shot shot(Timeval(100, 500));
        mux.Insert(&shot);
        mux.CheckTimers();
        EXPECT_THAT(shot._firedAt, IsEmpty());
    }
}

TEST(Clock, SleepLastsUntilTheNextTimer) {
    IOMultiplexer mux;
    Shot shot(Timeval(100, 500));
    mux.Insert(&shot);
    readings = {At(100, 499)};
    EXPECT_THAT(mux.CheckTimers(), IsTime(0, 1));
    readings = {At(99, 999)};
    EXPECT_THAT(mux.CheckTimers(), IsTime(0, 501));
    readings = {At(40, 500)};
    EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
    readings = {At(10, 0)};
    EXPECT_THAT(mux.CheckTimers(), IsTime(90, 500));
}

TEST(Clock, ThousandMillisecondsPrecedeTheNextSecond) {
    IOMultiplexer mux;
    Shot shot(Timeval(100, 1000));
    mux.Insert(&shot);
    readings = {At(100, 999)};
    EXPECT_THAT(mux.CheckTimers(), IsTime(0, 1));
    readings = {At(101, 0)};
    mux.CheckTimers();
    EXPECT_EQ(shot._firedAt.size(), 1u);
}

TEST(Clock, IsReadOnceForDueTimersAndOnceForTheSleep) {
    IOMultiplexer mux;
    Shot first(Timeval(100, 0)), second(Timeval(100, 0)), third(Timeval(100, 5));
    for (Shot* shot : {&first, &second, &third}) mux.Insert(shot);
    readings = {At(100, 0), At(100, 4), At(200, 0)};
    EXPECT_THAT(mux.CheckTimers(), IsTime(0, 1));
    EXPECT_THAT(first._firedAt, ElementsAre(IsTime(100, 0)));
    EXPECT_THAT(second._firedAt, ElementsAre(IsTime(100, 0)));
    EXPECT_THAT(third._firedAt, IsEmpty());
}

TEST(Clock, TimerDueAtTheSecondReadingWaits) {
    for (timeval later : {At(100, 5), At(100, 6), At(101, 0)}) {
        IOMultiplexer mux;
        Shot shot(Timeval(100, 5));
        mux.Insert(&shot);
        readings = {At(100, 4), later};
        EXPECT_THAT(mux.CheckTimers(), IsTime(60, 0));
        EXPECT_THAT(shot._firedAt, IsEmpty());
    }
}

TEST(Clock, EachInvokedTimerGetsANewTime) {
    IOMultiplexer mux;
    Shot first(Timeval(100, 0)), second(Timeval(101, 0));
    mux.Insert(&first);
    mux.Insert(&second);
    readings = {At(7, 1), At(7, 2)};
    mux.InvokeTimers();
    EXPECT_THAT(first._firedAt, ElementsAre(IsTime(7, 1)));
    EXPECT_THAT(second._firedAt, ElementsAre(IsTime(7, 2)));
}

TEST(Clock, PeriodicTimerKeepsItsPhaseWhileTheNextTickIsAhead) {
    readings = {At(100, 0)};
    Tick tick(Timeval(100, 0), Timeval(1, 0));
    EXPECT_THAT(tick._next, IsTime(101, 0));
    for (timeval now : {At(101, 999), At(101, 0), At(50, 0)}) {
        tick._next = Timeval(101, 0);
        readings = {now};
        EXPECT_THAT(tick.ScheduleNext(), IsTime(102, 0));
    }
}

TEST(Clock, PeriodicTimerRestartsNowWhenTheNextTickIsPast) {
    readings = {At(100, 0)};
    Tick tick(Timeval(100, 0), Timeval(1, 0));
    tick._next = Timeval(101, 0);
    readings = {At(102, 0)};
    EXPECT_THAT(tick.ScheduleNext(), IsTime(103, 0));
    tick._next = Timeval(101, 0);
    readings = {At(102, 1)};
    EXPECT_THAT(tick.ScheduleNext(), IsTime(103, 1));
    tick._next = Timeval(101, 5);
    readings = {At(103, 4)};
    EXPECT_THAT(tick.ScheduleNext(), IsTime(104, 4));
}

TEST(Clock, PeriodicTimerStalledForTenIntervalsFiresOnce) {
    IOMultiplexer mux;
    readings = {At(100, 0)};
    Tick tick(Timeval(100, 0), Timeval(1, 0));
    mux.Insert(&tick);
    readings = {At(111, 0), At(111, 3), At(111, 7)}; // look, reschedule, sleep
    EXPECT_THAT(mux.CheckTimers(), IsTime(0, 996));
    EXPECT_EQ(tick._fired, 1);
    EXPECT_THAT(tick._next, IsTime(112, 3));
}

TEST(Clock, NewTimersStartNow) {
    readings = {At(100, 7)};
    Tick const tick(Timeval(2, 0));
    EXPECT_THAT(tick._start, IsTime(100, 7));
    EXPECT_THAT(tick._next, IsTime(102, 7));
}
