#include <host/Time.h>

#include <errno.h>

#include <limits>

#include <reference_host/internal/Timeline.h>

namespace {

constexpr unsigned long kMillisecondsPerSecond = 1000;

// A sum that time_t cannot hold becomes the latest time there is.
void AddSecondsTo(time_t& seconds, unsigned long more) {
    if (__builtin_add_overflow(seconds, more, &seconds))
        seconds = std::numeric_limits<time_t>::max();
}

// Fraction is the type of tv_usec or tv_nsec.
template <class Fraction>
void AddMilliSecondsTo(time_t& seconds, Fraction& fraction, Fraction perSecond, unsigned long milliseconds) {
    const auto rest = static_cast<Fraction>(milliseconds % kMillisecondsPerSecond);
    fraction += rest * (perSecond / static_cast<Fraction>(kMillisecondsPerSecond));
    const auto carry = static_cast<unsigned long>(fraction / perSecond);
    fraction %= perSecond;
    AddSecondsTo(seconds, milliseconds / kMillisecondsPerSecond + carry);
}

void AddMilliSecondsTo(timespec& time, unsigned long milliseconds) {
    AddMilliSecondsTo(time.tv_sec, time.tv_nsec, decltype(time.tv_nsec){1000000000}, milliseconds);
}

} // namespace

CTimeValHelper::CTimeValHelper() : timeval() {}

// true: the current time.
CTimeValHelper::CTimeValHelper(bool now) : timeval() {
    if (now)
        gettimeofday(this, nullptr);
}

void CTimeValHelper::Init() {
    tv_sec = 0;
    tv_usec = 0;
}

void CTimeValHelper::AddSeconds(unsigned long seconds) { AddSecondsTo(tv_sec, seconds); }

void CTimeValHelper::AddMilliSeconds(unsigned long milliSeconds) {
    AddMilliSecondsTo(tv_sec, tv_usec, decltype(tv_usec){1000000}, milliSeconds);
}

// false: zero.
CTimeSpecHelper::CTimeSpecHelper(bool now) : timespec() {
    if (now)
        clock_gettime(CLOCK_REALTIME, this);
}

void CTimeSpecHelper::AddMilliSeconds(unsigned long milliSeconds) { AddMilliSecondsTo(*this, milliSeconds); }

// With a long of 32 bits the count begins anew every 49.7 days, as it does on Windows.
unsigned long GetTickCount() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const unsigned long tick = static_cast<unsigned long>(now.tv_sec) * kMillisecondsPerSecond +
                               static_cast<unsigned long>(now.tv_nsec) / 1000000;
    if (reference_host::timeline::IsOn())
        reference_host::timeline::TickCount(tick, __builtin_return_address(0));
    return tick;
}

void Sleep(unsigned long milliseconds) {
    timespec rest = {};
    AddMilliSecondsTo(rest, milliseconds);
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}
