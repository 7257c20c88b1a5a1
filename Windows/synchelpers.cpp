#include <Windows/synchelpers.h>

#include <errno.h>

#include <memory>

#include <host/Logger.h>

#include <Windows/Mutex.h>
#include <Windows/event.h>

namespace {

bool IsEventOrThread(HANDLE h) {
    return h->m_uiType == HANDLE_TYPE_EVENT || h->m_uiType == HANDLE_TYPE_THREAD;
}

CMutex* MutexOf(HANDLE h) { return static_cast<CMutex*>(h->m_pObject); }

CEvent* EventOf(HANDLE h) { return static_cast<CEvent*>(h->m_pObject); }

unsigned long WaitForMutex(CMutex* mutex, unsigned long timeoutMs) {
    if (!mutex)
        return WAIT_FAILED;
    return mutex->Lock(timeoutMs) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

unsigned long WaitForEvent(CEvent* event, unsigned long timeoutMs) {
    if (!event)
        return WAIT_FAILED;
    switch (event->WaitForEventSignal(timeoutMs, nullptr)) {
    case 0:
        return WAIT_OBJECT_0;
    case ETIMEDOUT:
        return WAIT_TIMEOUT;
    default:
        return WAIT_FAILED;
    }
}

} // namespace

HANDLE CreateHandle(unsigned long tag, void* object) {
    return new HANDLESTRUCT{static_cast<unsigned int>(tag), object};
}

// The record comes first: an owned mutex could not be given up again if there were no memory for it.
HANDLE CreateMutex(const void* /*attributes*/, bool bInitialOwner, void* /*name*/, int kind) {
    std::unique_ptr<HANDLESTRUCT> record(CreateHandle(HANDLE_TYPE_MUTEX, nullptr));
    record->m_pObject = new CMutex(kind, bInitialOwner);
    return record.release();
}

HANDLE CreateEvent(bool bManualReset, bool bInitialState) {
    std::unique_ptr<HANDLESTRUCT> record(CreateHandle(HANDLE_TYPE_EVENT, nullptr));
    record->m_pObject = new CEvent(bManualReset, bInitialState);
    return record.release();
}

HANDLE CreateEvent(const void* /*attributes*/, bool bManualReset, bool bInitialState, const void* /*name*/) {
    return CreateEvent(bManualReset, bInitialState);
}

unsigned long WaitForSingleObject(HANDLE h, unsigned long timeoutMs) {
    if (h->m_uiType == HANDLE_TYPE_MUTEX)
        return WaitForMutex(MutexOf(h), timeoutMs);
    if (IsEventOrThread(h))
        return WaitForEvent(EventOf(h), timeoutMs);
    CLogger::PostLogEventF(
        LogTypeGeneral, LogSeverityFailure,
        "WaitForSingleObject called and I don't know how to wait for this type of object: 0x%lx",
        static_cast<unsigned long>(h->m_uiType));
    return WAIT_FAILED;
}

int SetEvent(HANDLE h) {
    if (!h || !IsEventOrThread(h) || !h->m_pObject)
        return 0;
    return EventOf(h)->SetEvent();
}

int ResetEvent(HANDLE h) {
    if (h->m_uiType != HANDLE_TYPE_EVENT || !h->m_pObject)
        return 0;
    return EventOf(h)->ResetEvent();
}

int ReleaseMutex(HANDLE h) {
    // The tag is not looked at: callers pass mutex handles and nothing else.
    if (!h || !h->m_pObject)
        return 0;
    return MutexOf(h)->Unlock();
}

int CloseHandle(HANDLE& h) {
    if (!h)
        return 1;
    if (h->m_pObject) {
        if (h->m_uiType == HANDLE_TYPE_MUTEX) {
            delete MutexOf(h);
        } else if (IsEventOrThread(h)) {
            delete EventOf(h);
        } else {
            CLogger::PostLogEventF(
                LogTypeGeneral, LogSeverityFailure,
                "CloseHandle called and I don't know how to destroy this type of object: 0x%lx",
                static_cast<unsigned long>(h->m_uiType));
            return 0;
        }
    }
    delete h;
    h = nullptr;
    return 1;
}
