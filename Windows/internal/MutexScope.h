// CSingleLock for the library itself: the same, but inline and for a mutex that is there.
#ifndef WINDOWS_INTERNAL_MUTEXSCOPE_H
#define WINDOWS_INTERNAL_MUTEXSCOPE_H

#include <Windows/Mutex.h>

namespace windows {

class WINDOWS_SCOPED_CAPABILITY MutexScope {
public:
    explicit MutexScope(CMutex& mutex) WINDOWS_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(INFINITE); }
    ~MutexScope() WINDOWS_RELEASE() { m_mutex.Unlock(); }

    MutexScope(const MutexScope&) = delete;
    MutexScope& operator=(const MutexScope&) = delete;

private:
    CMutex& m_mutex;
};

} // namespace windows

#endif
