#include <host/Time.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/select.h>

#include <limits>
#include <type_traits>
#include <vector>

#include "Calls.h"

namespace {

const time_t latest = std::numeric_limits<time_t>::max();
const unsigned long largest = std::numeric_limits<unsigned long>::max();

CTimeValHelper TimeVal(time_t seconds, suseconds_t microseconds) {
    CTimeValHelper time;
    time.tv_sec = seconds;
    time.tv_usec = microseconds;
    return time;
}

CTimeSpecHelper TimeSpec(time_t seconds, long nanoseconds) {
    CTimeSpecHelper time(false);
    time.tv_sec = seconds;
    time.tv_nsec = nanoseconds;
    return time;
}

void ExpectTime(const timeval& time, time_t seconds, suseconds_t microseconds) {
    EXPECT_EQ(time.tv_sec, seconds);
    EXPECT_EQ(time.tv_usec, microseconds);
}

void ExpectTime(const timespec& time, time_t seconds, long nanoseconds) {
    EXPECT_EQ(time.tv_sec, seconds);
    EXPECT_EQ(time.tv_nsec, nanoseconds);
}

// The calling thread with a cancellation that waits for its next cancellation point.
void* SleepNotAtAllButCancelled(void* survived) {
    pthread_cancel(pthread_self());
    Sleep(0);
    *static_cast<bool*>(survived) = true;
    return nullptr;
}

} // namespace

TEST(Clock, Time_values_are_the_plain_structures) {
    EXPECT_EQ(sizeof(CTimeValHelper), sizeof(timeval));
    EXPECT_EQ(sizeof(CTimeSpecHelper), sizeof(timespec));
    EXPECT_FALSE(std::is_polymorphic<CTimeValHelper>::value);
    EXPECT_TRUE(std::is_trivially_destructible<CTimeValHelper>::value);
    EXPECT_TRUE(std::is_trivially_destructible<CTimeSpecHelper>::value);
}

TEST(Clock, Select_takes_a_time_value) {
    CTimeValHelper time;
    time.AddMilliSeconds(1);
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &time), 0);
}

TEST(Clock, Time_value_begins_at_zero) {
    ExpectTime(CTimeValHelper(), 0, 0);
    ExpectTime(CTimeValHelper(false), 0, 0);
}

TEST(Clock, Time_value_made_with_true_is_now) {
    const time_t before = time(nullptr);
    const CTimeValHelper now(true);
    EXPECT_GE(now.tv_sec, before);
    EXPECT_LE(now.tv_sec, before + 60);
    EXPECT_LT(now.tv_usec, 1000000);
}

TEST(Clock, Init_makes_a_time_value_zero_again) {
    CTimeValHelper time = TimeVal(7, 8);
    time.Init();
    ExpectTime(time, 0, 0);
}

TEST(Clock, AddSeconds_leaves_the_microseconds) {
    CTimeValHelper time = TimeVal(1, 999999);
    time.AddSeconds(2);
    ExpectTime(time, 3, 999999);
}

TEST(Clock, AddSeconds_stops_at_the_latest_time) {
    CTimeValHelper time;
    time.AddSeconds(largest);
    ExpectTime(time, latest, 0);
    time.AddSeconds(1);
    ExpectTime(time, latest, 0);

    CTimeValHelper almost = TimeVal(latest - 1, 0);
    almost.AddSeconds(1);
    ExpectTime(almost, latest, 0);
}

TEST(Clock, AddSeconds_counts_up_from_a_negative_time) {
    CTimeValHelper time = TimeVal(-5, 0);
    time.AddSeconds(3);
    ExpectTime(time, -2, 0);
}

TEST(Clock, Microseconds_below_a_second_are_not_carried) {
    CTimeValHelper time = TimeVal(0, 999);
    time.AddMilliSeconds(999);
    ExpectTime(time, 0, 999999);
}

TEST(Clock, Microseconds_are_carried_at_a_million) {
    CTimeValHelper time = TimeVal(0, 999999);
    time.AddMilliSeconds(1);
    ExpectTime(time, 1, 999);

    CTimeValHelper exact = TimeVal(0, 999000);
    exact.AddMilliSeconds(1);
    ExpectTime(exact, 1, 0);

    CTimeValHelper both = TimeVal(1, 999999);
    both.AddMilliSeconds(1999);
    ExpectTime(both, 3, 998999);
}

TEST(Clock, Adding_no_milliseconds_changes_nothing) {
    CTimeValHelper time = TimeVal(1, 999999);
    time.AddMilliSeconds(0);
    ExpectTime(time, 1, 999999);
}

TEST(Clock, Milliseconds_add_up_one_by_one) {
    CTimeValHelper time;
    for (int i = 0; i < 2500; ++i)
        time.AddMilliSeconds(1);
    ExpectTime(time, 2, 500000);
}

TEST(Clock, The_largest_number_of_milliseconds_is_exact_in_a_time_value) {
    CTimeValHelper time = TimeVal(0, 999999);
    time.AddMilliSeconds(largest);
    const auto microseconds = 999999 + static_cast<suseconds_t>(largest % 1000) * 1000;
    ExpectTime(time, static_cast<time_t>(largest / 1000) + microseconds / 1000000, microseconds % 1000000);
}

TEST(Clock, Milliseconds_stop_at_the_latest_time) {
    CTimeValHelper time = TimeVal(latest, 999999);
    time.AddMilliSeconds(1);
    ExpectTime(time, latest, 999);
}

TEST(Clock, Deadline_begins_at_the_realtime_clock) {
    const calls::Replaced fixed(calls::clock_gettime, [](clockid_t clock, timespec* now) {
        *now = {clock == CLOCK_REALTIME ? 1700000000 : 1, 123456789};
        return 0;
    });
    ExpectTime(CTimeSpecHelper(true), 1700000000, 123456789);
}

TEST(Clock, Deadline_made_with_false_is_zero) { ExpectTime(CTimeSpecHelper(false), 0, 0); }

TEST(Clock, Nanoseconds_are_carried_at_a_billion) {
    CTimeSpecHelper time = TimeSpec(1, 999999999);
    time.AddMilliSeconds(1);
    ExpectTime(time, 2, 999999);

    CTimeSpecHelper exact = TimeSpec(1, 999000000);
    exact.AddMilliSeconds(1);
    ExpectTime(exact, 2, 0);

    CTimeSpecHelper below = TimeSpec(1, 0);
    below.AddMilliSeconds(999);
    ExpectTime(below, 1, 999000000);

    CTimeSpecHelper both = TimeSpec(1, 999999999);
    both.AddMilliSeconds(1999);
    ExpectTime(both, 3, 998999999);
}

TEST(Clock, The_largest_number_of_milliseconds_is_exact_in_a_deadline) {
    CTimeSpecHelper time = TimeSpec(0, 999999999);
    time.AddMilliSeconds(largest);
    const long nanoseconds = 999999999 + static_cast<long>(largest % 1000) * 1000000;
    ExpectTime(time, static_cast<time_t>(largest / 1000) + nanoseconds / 1000000000,
               nanoseconds % 1000000000);
}

TEST(Clock, Deadline_stops_at_the_latest_time) {
    CTimeSpecHelper time = TimeSpec(latest, 1);
    time.AddMilliSeconds(largest);
    EXPECT_EQ(time.tv_sec, latest);
    EXPECT_LT(time.tv_nsec, 1000000000);
}

TEST(Clock, Ticks_are_milliseconds_of_the_monotonic_clock) {
    const calls::Replaced fixed(calls::clock_gettime, [](clockid_t clock, timespec* now) {
        *now = {clock == CLOCK_MONOTONIC ? 12 : 99, 345999999};
        return 0;
    });
    EXPECT_EQ(GetTickCount(), 12345UL);
}

TEST(Clock, Ticks_wrap_at_the_width_of_a_long) {
    const calls::Replaced fixed(calls::clock_gettime, [](clockid_t, timespec* now) {
        *now = {4294967, 296000000};
        return 0;
    });
    EXPECT_EQ(GetTickCount(), static_cast<unsigned long>(4294967296ULL));
}

TEST(Clock, Ticks_never_go_back) {
    unsigned long last = GetTickCount();
    for (int i = 0; i < 1000; ++i) {
        const unsigned long now = GetTickCount();
        EXPECT_GE(now, last);
        last = now;
    }
}

TEST(Clock, Sleep_takes_milliseconds) {
    std::vector<timespec> requests;
    const calls::Replaced recorded(calls::nanosleep, [&](const timespec* request, timespec*) {
        requests.push_back(*request);
        return 0;
    });
    Sleep(12345);
    Sleep(largest);
    ASSERT_EQ(requests.size(), 2U);
    ExpectTime(requests[0], 12, 345000000);
    ExpectTime(requests[1], static_cast<time_t>(largest / 1000), static_cast<long>(largest % 1000) * 1000000);
}

TEST(Clock, Sleep_goes_on_for_the_rest_after_a_signal) {
    std::vector<timespec> requests;
    const calls::Replaced interrupted(calls::nanosleep, [&](const timespec* request, timespec* rest) {
        requests.push_back(*request);
        if (requests.size() == 3)
            return 0;
        *rest = {0, static_cast<long>(500000000 / requests.size())};
        errno = EINTR;
        return -1;
    });
    Sleep(1000);
    ASSERT_EQ(requests.size(), 3U);
    ExpectTime(requests[1], 0, 500000000);
    ExpectTime(requests[2], 0, 250000000);
}

TEST(Clock, Sleep_ends_when_it_cannot_sleep) {
    int attempts = 0;
    const calls::Replaced failing(calls::nanosleep, [&](const timespec*, timespec*) {
        ++attempts;
        errno = EINVAL;
        return -1;
    });
    Sleep(1);
    EXPECT_EQ(attempts, 1);
}

TEST(Clock, Sleep_lasts_at_least_as_long_as_asked) {
    const unsigned long begin = GetTickCount();
    Sleep(2);
    EXPECT_GE(GetTickCount() - begin, 1UL); // the first tick may have been about to end
}

TEST(Clock, Sleep_is_a_cancellation_point) {
    pthread_t thread;
    bool survived = false;
    void* result = nullptr;
    ASSERT_EQ(pthread_create(&thread, nullptr, SleepNotAtAllButCancelled, &survived), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_FALSE(survived);
}
