#include <Windows/Mutex.h>

#include <algorithm>

#include <host/Logger.h>
#include <host/Time.h>

#include <Windows/internal/Cancellation.h>

static_assert(sizeof(CMutex) == sizeof(pthread_mutex_t), "a CMutex is its pthread_mutex_t");

namespace {

constexpr unsigned int kLongestStepMs = 333;

// Tries, sleeps a whole step, and so on until the time is used up. The last sleep is not followed by a try.
// Apart from Lock, which would save registers for it.
__attribute__((noinline)) bool Poll(pthread_mutex_t* mutex, unsigned int timeoutMs,
                                    windows::NoCancellation& noCancellation) {
    const unsigned int stepMs = std::clamp(timeoutMs / 10, 1U, kLongestStepMs);
    unsigned int remainingMs = timeoutMs;
    while (pthread_mutex_trylock(mutex) != 0) {
        if (remainingMs == 0)
            return false;
        {
            const windows::CancellationAsBefore whileAsleep(noCancellation);
            Sleep(stepMs);
        }
        remainingMs -= std::min(remainingMs, stepMs);
        if (remainingMs == 0)
            return false;
    }
    return true;
}

} // namespace

CMutex::CMutex(bool bInitiallyOwn) {
    pthread_mutex_init(&m_mutex, nullptr);
    if (bInitiallyOwn)
        Lock(INFINITE);
}

CMutex::CMutex(int kind, bool bInitiallyOwn) {
    const windows::NoCancellation noCancellation;
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex Creator Called on thread %lx", tid);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, kind);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (bInitiallyOwn)
        Lock(INFINITE);
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex Creator exiting on thread %lx", tid);
}

CMutex::~CMutex() { pthread_mutex_destroy(&m_mutex); }

int CMutex::Lock(unsigned long dwTimeoutMs) {
    // Callers lock in destructors and hold what they locked: nothing here may be cancelled but the sleep.
    windows::NoCancellation noCancellation;
    const auto timeoutMs = static_cast<unsigned int>(dwTimeoutMs);
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry,
                           "CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx",
                           static_cast<unsigned long>(timeoutMs), tid);
    bool locked = false;
    if (timeoutMs == INFINITE) {
        locked = pthread_mutex_lock(&m_mutex) == 0;
        if (!locked)
            CLogger::PostLogEvent(LogTypeMutex, LogSeverityFailure, "FAILED to lock mutex", nullptr);
    } else {
        locked = Poll(&m_mutex, timeoutMs, noCancellation);
    }
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex::Lock returning %s thread %lx",
                           locked ? "true" : "false", tid);
    return locked ? 1 : 0;
}

int CMutex::Unlock() {
    const windows::NoCancellation noCancellation;
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry, "CMutex::UnLock Being Called on thread %lx",
                           tid);
    if (pthread_mutex_unlock(&m_mutex) != 0) {
        CLogger::PostLogEvent(LogTypeMutex, LogSeverityFailure, "FAILED to unlock mutex", nullptr);
        return 0;
    }
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex::Unlock succeeeded on thread %lx", tid);
    return 1;
}

pthread_mutex_t* CMutex::PThreadMutex() { return &m_mutex; }
