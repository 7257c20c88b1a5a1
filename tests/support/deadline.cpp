#include "support/deadline.h"

#include <stdlib.h>

#include <algorithm>

namespace {

std::chrono::milliseconds Stretched(int seconds) {
    return std::chrono::milliseconds(static_cast<long long>(1000 * seconds * Deadline::Multiplier()));
}

} // namespace

Deadline Deadline::Short() { return In(Stretched(5)); }

Deadline Deadline::Long() { return In(Stretched(20)); }

Deadline Deadline::In(std::chrono::milliseconds time) {
    return Deadline(std::chrono::steady_clock::now() + time);
}

double Deadline::Multiplier() {
    const char* multiplier = getenv("WINDOWS_TEST_TIME_MULTIPLIER");
    return multiplier ? std::max(1.0, atof(multiplier)) : 1.0;
}

bool Deadline::Passed() const { return std::chrono::steady_clock::now() >= m_end; }

std::chrono::milliseconds Deadline::Remaining() const {
    using std::chrono::milliseconds;
    const auto remaining = m_end - std::chrono::steady_clock::now();
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(remaining));
}

timespec Deadline::Monotonic() const {
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(m_end.time_since_epoch()).count();
    timespec time;
    time.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
    time.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return time;
}
