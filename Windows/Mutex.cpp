#include <Windows/Mutex.h>

#include <algorithm>

#include <host/Logger.h>
#include <host/Time.h>

#include <Windows/internal/Cancellation.h>

static_assert(sizeof(CMutex) == sizeof(pthread_mutex_t), "a CMutex is its pthread_mutex_t");

namespace {

constexpr unsigned int kLongestStepMs = 333;

bool LockForEver(pthread_mutex_t* mutex) {
    if (pthread_mutex_lock(mutex) == 0)
        return true;
    CLogger::PostLogEvent(LogTypeMutex, LogSeverityFailure, "FAILED to lock mutex", nullptr);
    return false;
}

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

// What each lock posts, around that which takes the mutex.
template <class Take> int TakeAndReport(unsigned int timeoutMs, Take take) {
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry,
                           "CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx",
                           static_cast<unsigned long>(timeoutMs), tid);
    const bool locked = take();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex::Lock returning %s thread %lx",
                           locked ? "true" : "false", tid);
    return locked ? 1 : 0;
}

int LockAndReport(pthread_mutex_t* mutex) {
    return TakeAndReport(INFINITE, [=] { return LockForEver(mutex); });
}

// Apart, as a lock for ever would save registers for it.
__attribute__((noinline)) int PollAndReport(pthread_mutex_t* mutex, unsigned int timeoutMs,
                                            windows::NoCancellation* scope) {
    return TakeAndReport(timeoutMs, [=] { return Poll(mutex, timeoutMs, scope); });
}

// Within scope, if there is one.
int LockWithin(pthread_mutex_t* mutex, unsigned int timeoutMs, windows::NoCancellation* scope) {
    return timeoutMs == INFINITE ? LockAndReport(mutex) : PollAndReport(mutex, timeoutMs, scope);
}

int UnlockAndReport(pthread_mutex_t* mutex) {
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry, "CMutex::UnLock Being Called on thread %lx",
                           tid);
    if (pthread_mutex_unlock(mutex) != 0) {
        CLogger::PostLogEvent(LogTypeMutex, LogSeverityFailure, "FAILED to unlock mutex", nullptr);
        return 0;
    }
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex::Unlock succeeeded on thread %lx", tid);
    return 1;
}

// The next two are for a thread that can be cancelled. Apart, as the others would save registers for them.

__attribute__((noinline)) int LockUncancelled(pthread_mutex_t* mutex, unsigned int timeoutMs) {
    windows::NoCancellation scope;
    return LockWithin(mutex, timeoutMs, &scope);
}

__attribute__((noinline)) int UnlockUncancelled(pthread_mutex_t* mutex) {
    const windows::NoCancellation scope;
    return UnlockAndReport(mutex);
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
    return windows::t_isCancellable ? UnlockUncancelled(&m_mutex) : UnlockAndReport(&m_mutex);
}

pthread_mutex_t* CMutex::PThreadMutex() { return &m_mutex; }
