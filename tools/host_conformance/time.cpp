// What host/Time.h asks.
#include <host/Time.h>

#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <new>

#include "clause.h"

namespace host_conformance {

namespace {

long long Nanoseconds(const timespec& time) { return time.tv_sec * 1000000000LL + time.tv_nsec; }

long long Now(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return Nanoseconds(now);
}

double MillisecondsSince(long long start) { return static_cast<double>(Now(CLOCK_MONOTONIC) - start) / 1e6; }

void Pause(long milliseconds) {
    const timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    nanosleep(&time, nullptr);
}

// Numbers around which carrying goes wrong; the last one is as much as 32 bits hold.
const unsigned long milliseconds[] = {0, 1, 2, 499, 500, 999, 1000, 1001, 1999, 2000, 86399999, 4294967295UL};

// CTimeValHelper.

void ExpectZero(const timeval& time, const char* how) {
    if (time.tv_sec != 0 || time.tv_usec != 0)
        Fail("expected zero from %s, saw %lld s and %lld us", how, static_cast<long long>(time.tv_sec),
             static_cast<long long>(time.tv_usec));
}

void TimeValZero() {
    Room<CTimeValHelper> room;
    ExpectZero(*new (room.Place()) CTimeValHelper, "CTimeValHelper()");
    Room<CTimeValHelper> other;
    ExpectZero(*new (other.Place()) CTimeValHelper(false), "CTimeValHelper(false)");
}

CTimeValHelper& MakeTimeVal(Room<CTimeValHelper>& room, long seconds, long microseconds) {
    CTimeValHelper& time = *new (room.Place()) CTimeValHelper;
    time.tv_sec = seconds;
    time.tv_usec = microseconds;
    return time;
}

void TimeValInit() {
    Room<CTimeValHelper> room;
    CTimeValHelper& time = MakeTimeVal(room, 17, 4711);
    time.Init();
    ExpectZero(time, "Init()");
}

void ExpectTimeVal(const CTimeValHelper& time, unsigned long long microseconds, const char* how,
                   unsigned long amount) {
    const auto seconds = static_cast<unsigned long long>(time.tv_sec);
    const auto rest = static_cast<unsigned long long>(time.tv_usec);
    if (rest != microseconds % 1000000 || seconds != microseconds / 1000000)
        Fail("expected %llu s and %llu us after %s(%lu), saw %llu s and %llu us", microseconds / 1000000,
             microseconds % 1000000, how, amount, seconds, rest);
}

void TimeValSeconds() {
    for (const unsigned long amount : {0UL, 1UL, 59UL, 86400UL, 100000000UL}) {
        Room<CTimeValHelper> room;
        CTimeValHelper& time = MakeTimeVal(room, 7, 999999);
        time.AddSeconds(amount);
        ExpectTimeVal(time, (7ULL + amount) * 1000000 + 999999, "AddSeconds", amount);
    }
}

void TimeValCarry() {
    for (const long start : {0, 1, 999, 1000, 998999, 999000, 999999}) {
        for (const unsigned long amount : milliseconds) {
            Room<CTimeValHelper> room;
            CTimeValHelper& time = MakeTimeVal(room, 7, start);
            time.AddMilliSeconds(amount);
            ExpectTimeVal(time, 7000000ULL + static_cast<unsigned long long>(start) + amount * 1000ULL,
                          "AddMilliSeconds", amount);
        }
    }
}

void TimeValSize() {
    if (sizeof(CTimeValHelper) != sizeof(timeval))
        Fail("expected an object of %zu bytes, a timeval, saw %zu", sizeof(timeval), sizeof(CTimeValHelper));
    Room<CTimeValHelper> room;
    CTimeValHelper& time = *new (room.Place()) CTimeValHelper;
    time.Init();
    time.AddSeconds(1);
    time.AddMilliSeconds(1999);
    room.ExpectNothingBehind("CTimeValHelper");
    Room<CTimeValHelper> other;
    new (other.Place()) CTimeValHelper(false);
    other.ExpectNothingBehind("CTimeValHelper(false)");
}

// CTimeSpecHelper.

void TimeSpecNow() {
    Room<CTimeSpecHelper> room;
    const long long before = Now(CLOCK_REALTIME);
    const CTimeSpecHelper& time = *new (room.Place()) CTimeSpecHelper(true);
    const long long after = Now(CLOCK_REALTIME);
    constexpr long long kTick = 20000000; // a host's clock may be coarse
    if (Nanoseconds(time) < before - kTick || Nanoseconds(time) > after)
        Fail("expected the time of CLOCK_REALTIME, %lld ns, saw %lld ns", before, Nanoseconds(time));
}

void TimeSpecCarry() {
    for (const long start : {0, 1, 999999, 1000000, 998999999, 999000000, 999999999}) {
        for (const unsigned long amount : milliseconds) {
            Room<CTimeSpecHelper> room;
            CTimeSpecHelper& time = *new (room.Place()) CTimeSpecHelper(true);
            time.tv_sec = 7;
            time.tv_nsec = start;
            time.AddMilliSeconds(amount);
            const unsigned long long sum =
                7000000000ULL + static_cast<unsigned long long>(start) + amount * 1000000ULL;
            const auto seconds = static_cast<unsigned long long>(time.tv_sec);
            const auto rest = static_cast<unsigned long long>(time.tv_nsec);
            if (rest != sum % 1000000000 || seconds != sum / 1000000000)
                Fail("expected %llu s and %llu ns after AddMilliSeconds(%lu), saw %llu s and %llu ns",
                     sum / 1000000000, sum % 1000000000, amount, seconds, rest);
        }
    }
}

void TimeSpecSize() {
    if (sizeof(CTimeSpecHelper) != sizeof(timespec))
        Fail("expected an object of %zu bytes, a timespec, saw %zu", sizeof(timespec),
             sizeof(CTimeSpecHelper));
    Room<CTimeSpecHelper> room;
    CTimeSpecHelper& time = *new (room.Place()) CTimeSpecHelper(true);
    time.AddMilliSeconds(1999);
    room.ExpectNothingBehind("CTimeSpecHelper");
}

// GetTickCount. Only differences count, as it may begin anew.

void TickMilliseconds() {
    const long long outerStart = Now(CLOCK_MONOTONIC);
    const unsigned long start = GetTickCount();
    const long long innerStart = Now(CLOCK_MONOTONIC);
    Pause(200);
    const double least = MillisecondsSince(innerStart);
    const unsigned long ticks = GetTickCount() - start;
    const double most = MillisecondsSince(outerStart);
    constexpr double kTick = 20; // a host's clock may be coarse
    if (static_cast<double>(ticks) < least - kTick || static_cast<double>(ticks) > most + kTick)
        Fail("expected GetTickCount to count %.0f milliseconds, saw it count %lu", most, ticks);
}

void TickNeverBack() {
    InThreads([](int) {
        unsigned long last = GetTickCount();
        for (int i = 0; i < 20000; ++i) {
            const unsigned long now = GetTickCount();
            if (now - last > ~0UL / 2)
                Fail("expected GetTickCount never to go back, saw %lu after %lu", now, last);
            last = now;
        }
    });
}

// Sleep.

void SleepDuration() {
    for (const unsigned long duration : {0UL, 1UL, 50UL, 1001UL}) {
        const long long start = Now(CLOCK_MONOTONIC);
        Sleep(duration);
        const double slept = MillisecondsSince(start);
        if (slept < static_cast<double>(duration) - 0.1)
            Fail("expected Sleep(%lu) to take %lu ms, saw %.1f ms", duration, duration, slept);
    }
}

void* SleepLong(void* started) {
    sem_post(static_cast<sem_t*>(started));
    Sleep(5000);
    return nullptr;
}

void SleepCancellation() {
    sem_t started;
    sem_init(&started, 0, 0);
    pthread_t thread;
    pthread_create(&thread, nullptr, SleepLong, &started);
    while (sem_wait(&started) != 0) {
    }
    Pause(50);
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    if (result != PTHREAD_CANCELED)
        Fail("expected a cancelled thread to end in Sleep, saw Sleep return");
}

} // namespace

const Clause timeClauses[] = {
    {"timeval.zero", "CTimeValHelper() and CTimeValHelper(false) make zero", NeedsNothing, TimeValZero},
    {"timeval.init", "Init makes it zero again", NeedsNothing, TimeValInit},
    {"timeval.add-seconds", "AddSeconds adds", NeedsNothing, TimeValSeconds},
    {"timeval.carry", "AddMilliSeconds adds, and tv_usec stays below 1,000,000", NeedsNothing, TimeValCarry},
    {"timeval.size", "a CTimeValHelper is a timeval with nothing added", NeedsNothing, TimeValSize},
    {"timespec.now", "CTimeSpecHelper(true) is now, on CLOCK_REALTIME", NeedsNothing, TimeSpecNow},
    {"timespec.carry", "AddMilliSeconds adds, and tv_nsec stays below 1,000,000,000", NeedsNothing,
     TimeSpecCarry},
    {"timespec.size", "a CTimeSpecHelper is a timespec with nothing added", NeedsNothing, TimeSpecSize},
    {"tick.milliseconds", "GetTickCount counts milliseconds", NeedsNothing, TickMilliseconds},
    {"tick.never-back", "GetTickCount never goes back, also with several threads", NeedsNothing,
     TickNeverBack},
    {"sleep.duration", "Sleep takes at least its time", NeedsNothing, SleepDuration},
    {"sleep.cancellation", "Sleep is a cancellation point", NeedsNothing, SleepCancellation},
    {nullptr, nullptr, NeedsNothing, nullptr}};

} // namespace host_conformance
