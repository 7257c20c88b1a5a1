#include <Windows/SingleLock.h>

// The analysis cannot see through CMutex::Lock, whose result says whether it took the mutex.
CSingleLock::CSingleLock(CMutex* pMutex) WINDOWS_NO_THREAD_SAFETY_ANALYSIS : m_pMutex(pMutex) {
    if (m_pMutex)
        m_pMutex->Lock(INFINITE);
}

CSingleLock::~CSingleLock() WINDOWS_NO_THREAD_SAFETY_ANALYSIS {
    if (m_pMutex)
        m_pMutex->Unlock();
}
