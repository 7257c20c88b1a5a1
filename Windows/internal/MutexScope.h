// CSingleLock for the library itself: inline, for a mutex that is there, and a thread that holds it cannot be
// cancelled.
#ifndef WINDOWS_INTERNAL_MUTEXSCOPE_H
#define WINDOWS_INTERNAL_MUTEXSCOPE_H

#include <pthread.h>

#include <host/Logger.h>

#include <Windows/Mutex.h>
#include <Windows/internal/Cancellation.h>

// A message takes three locks, each function of BSTR one: with calls in their place a message would take one
// instruction in fifteen more.
#define WINDOWS_ALWAYS_INLINE __attribute__((always_inline)) inline

namespace windows {

// What every lock posts, around that which takes the mutex.
template <class Take> WINDOWS_ALWAYS_INLINE int TakeAndReport(unsigned int timeoutMs, Take take) {
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry,
                           "CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx",
                           static_cast<unsigned long>(timeoutMs), tid);
    const bool locked = take();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex::Lock returning %s thread %lx",
                           locked ? "true" : "false", tid);
    return locked ? 1 : 0;
}

// Apart, as few ever fail.
void PostLockFailed();
void PostUnlockFailed();

// CMutex::Lock(INFINITE) and CMutex::Unlock, for a thread that cannot be cancelled.

WINDOWS_ALWAYS_INLINE int LockForEver(pthread_mutex_t* mutex) {
    return TakeAndReport(INFINITE, [=] {
        if (pthread_mutex_lock(mutex) == 0)
            return true;
        PostLockFailed();
        return false;
    });
}

WINDOWS_ALWAYS_INLINE int UnlockAndReport(pthread_mutex_t* mutex) {
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry, "CMutex::UnLock Being Called on thread %lx",
                           tid);
    if (pthread_mutex_unlock(mutex) != 0) {
        PostUnlockFailed();
        return 0;
    }
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "CMutex::Unlock succeeeded on thread %lx", tid);
    return 1;
}

class WINDOWS_SCOPED_CAPABILITY MutexScope {
public:
    WINDOWS_ALWAYS_INLINE explicit MutexScope(CMutex& mutex) WINDOWS_ACQUIRE(mutex) : m_mutex(mutex) {
        Lock(m_mutex);
    }
    WINDOWS_ALWAYS_INLINE ~MutexScope() WINDOWS_RELEASE() { Unlock(m_mutex); }

    MutexScope(const MutexScope&) = delete;
    MutexScope& operator=(const MutexScope&) = delete;

    // The same without a scope, for a thread that cannot be cancelled.
    static void Lock(CMutex& mutex) { LockForEver(&mutex.m_mutex); }
    static void Unlock(CMutex& mutex) { UnlockAndReport(&mutex.m_mutex); }

private:
    NoCancellation m_noCancellation; // from before the mutex is taken until it has been given back
    CMutex& m_mutex;
};

} // namespace windows

#endif
