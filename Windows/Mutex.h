// A mutex with a time-out in milliseconds, whose every lock and unlock is traced to the host's logger.
//
// Thread safety: every function may be called from any thread.
// Lifetime: nobody may hold or wait for a mutex that is destroyed. The object is its pthread_mutex_t and
// nothing else; code that has one may use it as the other.
//
//   state            | Lock(0xFFFFFFFF)         | Lock(0)   | Lock(t)                | Unlock()
//   free             | takes it                 | takes it  | takes it               | the POSIX kind decides
//   held by others   | waits                    | 0 at once | tries, sleeps, tries...| the POSIX kind decides
//   held by caller   | default kind: never ends | 0 at once | 0 after t              | releases it
//   ... recursive    | takes it once more       | takes it  | takes it               | releases one hold
//
// Each Lock posts two events and each Unlock two (type 23, severity 8 on entry and 9 on exit).
#ifndef WINDOWS_MUTEX_H
#define WINDOWS_MUTEX_H

#include <pthread.h>

#include <Windows/ThreadSafety.h>
#include <Windows/types.h>

namespace windows {
class MutexScope;
}

class WINDOWS_CAPABILITY("mutex") CMutex {
public:
    // A mutex of the platform's default kind (not recursive), locked by the calling thread if
    // bInitiallyOwn. Posts nothing of its own. A failed initialisation is neither detected nor reported.
    //
    // Not explicit, as callers have it; beware that CMutex(1) is an owned mutex of the default kind.
    CMutex(bool bInitiallyOwn = false);

    // A mutex of the given POSIX kind in the platform's own numbering (Linux: 0 normal, 1 recursive, 2 error
    // checking).
    CMutex(int kind, bool bInitiallyOwn);

    // Mutexes have no names. Without this line CMutex(false, "name") would compile, as kind 0, and lock.
    CMutex(bool, const char*) = delete;

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    ~CMutex();

    // Takes the mutex and returns 1, or returns 0 when it could not be had. dwTimeoutMs is in milliseconds
    // (the low 32 bits count): 0xFFFFFFFF waits for ever, 0 tries once and never sleeps. Any other value
    // polls: it tries, sleeps a tenth of the time-out (at least 1 ms, at most 333 ms), and so on; there is
    // no try after the last sleep, and no fairness. The sleep is the host's and may be cancelled; the rest
    // may not.
    int Lock(unsigned long dwTimeoutMs = INFINITE);

    // Releases the mutex and returns 1. Returns 0 where the platform reports that the caller does not hold
    // it, which only an error-checking mutex does. Not a cancellation point.
    int Unlock();

    // The mutex itself; posts nothing. It belongs to the object.
    pthread_mutex_t* PThreadMutex();

private:
    friend class windows::MutexScope;

    pthread_mutex_t m_mutex;
};

#endif
