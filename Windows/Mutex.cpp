#include <Windows/Mutex.h>

#include <algorithm>

#include <host/Logger.h>
#include <host/Time.h>

#include <Windows/internal/Cancellation.h>
#include <Windows/internal/MutexScope.h>

void windows::PostLockFailed() {
    CLogger::PostLogEvent(LogTypeMutex, LogSeverityFailure, "FAILED to lock mutex", nullptr);
}

void windows::PostUnlockFailed() {
    CLogger::PostLogEvent(LogTypeMutex, LogSeverityFailure, "FAILED to unlock mutex", nullptr);
}

static_assert(sizeof(CMutex) == sizeof(pthread_mutex_t), "a CMutex is its pthread_mutex_t");

namespace {

constexpr unsigned int kLongestStepMs = 333;

// Tries, sleeps a whole step, and so on until the time is used up. The last sleep is not followed by a try.
bool Poll(pthread_mutex_t* mutex, unsigned int timeoutMs, windows::NoCancellation* scope) {
    const unsigned int stepMs = std::clamp(timeoutMs / 10, 1U, kLongestStepMs);
    unsigned int remainingMs = timeoutMs;
    while (pthread_mutex_trylock(mutex) != 0) {
        if (remainingMs == 0)
            return false;
        {
            const windows::CancellationAsBefore whileAsleep(scope);
            Sleep(stepMs);
        }
        remainingMs -= std::min(remainingMs, stepMs);
        if (remainingMs == 0)
            return false;
    }
    return true;
}

// Apart, as a lock for ever would save registers for it.
__attribute__((noinline)) int PollAndReport(pthread_mutex_t* mutex, unsigned int timeoutMs,
                                            windows::NoCancellation* scope) {
    return windows::TakeAndReport(timeoutMs, [=] { return Poll(mutex, timeoutMs, scope); });
}

// Within scope, if there is one.
int LockWithin(pthread_mutex_t* mutex, unsigned int timeoutMs, windows::NoCancellation* scope) {
    return timeoutMs == INFINITE ? windows::LockForEver(mutex) : PollAndReport(mutex, timeoutMs, scope);
}

// The next two are for a thread that can be cancelled. Apart, as the others would save registers for them.

__attribute__((noinline)) int LockUncancelled(pthread_mutex_t* mutex, unsigned int timeoutMs) {
    windows::NoCancellation scope;
    return LockWithin(mutex, timeoutMs, &scope);
}

__attribute__((noinline)) int UnlockUncancelled(pthread_mutex_t* mutex) {
    const windows::NoCancellation scope;
    return windows::UnlockAndReport(mutex);
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

// Callers lock in destructors and hold what they locked: nothing here may be cancelled but the sleep of a
// poll.
int CMutex::Lock(unsigned long dwTimeoutMs) {
    const auto timeoutMs = static_cast<unsigned int>(dwTimeoutMs);
    return windows::t_isCancellable ? LockUncancelled(&m_mutex, timeoutMs)
                                    : LockWithin(&m_mutex, timeoutMs, nullptr);
}

int CMutex::Unlock() {
    return windows::t_isCancellable ? UnlockUncancelled(&m_mutex) : windows::UnlockAndReport(&m_mutex);
}

pthread_mutex_t* CMutex::PThreadMutex() { return &m_mutex; }
