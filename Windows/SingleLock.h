// Holds a mutex for the length of a scope. There is nothing else to it: no Lock, no Unlock, no IsLocked.
//
// Thread safety: an object belongs to the thread that made it.
// Lifetime: the mutex must outlive the object.
#ifndef WINDOWS_SINGLELOCK_H
#define WINDOWS_SINGLELOCK_H

#include <Windows/Mutex.h>

class WINDOWS_SCOPED_CAPABILITY CSingleLock {
public:
    // Locks the mutex without a time limit. NULL is allowed and does nothing. A lock that fails (a destroyed
    // mutex, an error-checking one that the caller holds) is ignored here; the mutex has logged it.
    CSingleLock(CMutex* pMutex) WINDOWS_ACQUIRE(pMutex);

    // Unlocks it, also when the lock had failed: the object does not remember.
    ~CSingleLock() WINDOWS_RELEASE();

    CSingleLock(const CSingleLock&) = delete;
    CSingleLock& operator=(const CSingleLock&) = delete;

private:
    CMutex* m_pMutex;
};

#endif
