#include <brantle/event/timers.h>

#include <sys/time.h>

namespace {

std::int32_t Signed(std::uint32_t value) { return static_cast<std::int32_t>(value); }

bool IsZero(IOMultiplexer::Timeval const& t) { return t._sec == 0 && t._msec == 0; }

} // namespace

IOMultiplexer::Timeval::Timeval(unsigned long sec, unsigned int msec)
    : _sec(static_cast<std::uint32_t>(sec)), _msec(msec) {
    if (_msec > 1000) {
        _sec += _msec / 1000;
        _msec %= 1000;
    }
}

IOMultiplexer::Timeval& IOMultiplexer::Timeval::operator+=(Timeval const& t) {
    _sec += t._sec;
    _msec += t._msec;
    if (Signed(_msec) > 1000) {
        _sec += 1;
        _msec -= 1000;
    }
    return *this;
}

IOMultiplexer::Timeval& IOMultiplexer::Timeval::operator-=(Timeval const& t) {
    _sec -= t._sec;
    _msec -= t._msec;
    if (Signed(_msec) < 0) {
        _sec -= 1;
        _msec += 1000;
    }
    return *this;
}

IOMultiplexer::Timeval IOMultiplexer::Timeval::Now() {
    timeval now;
    gettimeofday(&now, nullptr);
    return Timeval(static_cast<unsigned long>(now.tv_sec), static_cast<unsigned int>(now.tv_usec / 1000));
}

IOMultiplexer::Timeval operator+(IOMultiplexer::Timeval const& a, IOMultiplexer::Timeval const& b) {
    IOMultiplexer::Timeval sum = a;
    sum += b;
    return IOMultiplexer::Timeval(sum._sec, sum._msec);
}

IOMultiplexer::Timeval operator-(IOMultiplexer::Timeval const& a, IOMultiplexer::Timeval const& b) {
    IOMultiplexer::Timeval difference = a;
    difference -= b;
    return IOMultiplexer::Timeval(difference._sec, difference._msec);
}

bool operator<(IOMultiplexer::Timeval const& a, IOMultiplexer::Timeval const& b) {
    if (a._sec != b._sec) return Signed(a._sec) < Signed(b._sec);
    return Signed(a._msec) < Signed(b._msec);
}

IOMultiplexer::Timer::Timer() : Timer(Timeval::Now()) {}

IOMultiplexer::Timer::Timer(Timeval const& t) : _start(t), _next(t) {}

IOMultiplexer::Timer::~Timer() = default;

IOMultiplexer::OnceTimer::OnceTimer(Timeval const& t) : Timer(t) {}

IOMultiplexer::Timeval IOMultiplexer::OnceTimer::ScheduleNext() {
    _next = Timeval(0, 0);
    return _next;
}

IOMultiplexer::PeriodicTimer::PeriodicTimer(Timeval const& interval) : _interval(interval) {
    PeriodicTimer::ScheduleNext();
}

IOMultiplexer::PeriodicTimer::PeriodicTimer(Timeval const& start, Timeval const& interval)
    : Timer(start), _interval(interval) {
    PeriodicTimer::ScheduleNext();
}

IOMultiplexer::Timeval IOMultiplexer::PeriodicTimer::ScheduleNext() {
    if (IsZero(_next) && IsZero(_interval)) return _next; // nothing would ever move it from there
    Timeval next = _next + _interval;
    Timeval const now = Timeval::Now();
    if (!(next > now)) next = now + _interval;
    _next = next;
    return _next;
}
