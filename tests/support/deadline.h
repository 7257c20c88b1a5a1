// A point in time that a wait must not go beyond. Deadlines are generous: a test that passes never reaches
// one. The environment variable WINDOWS_TEST_TIME_MULTIPLIER stretches them for emulators and sanitizers.
//
// Thread safety: a value.
#ifndef SUPPORT_DEADLINE_H
#define SUPPORT_DEADLINE_H

#include <time.h>

#include <chrono>

class Deadline {
public:
    // 5 and 20 seconds from now, times the multiplier.
    static Deadline Short();
    static Deadline Long();

    // A time from now, not multiplied: for a wait that is expected to run out.
    static Deadline In(std::chrono::milliseconds time);

    // At least 1; 1 unless the environment says otherwise.
    static double Multiplier();

    bool Passed() const;

    // 0 once it has passed.
    std::chrono::milliseconds Remaining() const;

    // As an absolute time on CLOCK_MONOTONIC.
    timespec Monotonic() const;

private:
    explicit Deadline(std::chrono::steady_clock::time_point end) : m_end(end) {}

    std::chrono::steady_clock::time_point m_end;
};

#endif
