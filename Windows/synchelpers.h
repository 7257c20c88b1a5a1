// Handles: opaque references to events, mutexes and threads, and the functions that wait for them.
//
// Thread safety: any thread may use a handle; nobody else may be using a handle that is closed.
// Lifetime: whoever created a handle closes it with CloseHandle, which destroys the object too. The handle of
// a CWinThread belongs to the thread object. Closing a locked mutex or an event that is waited for is not
// detected.
#ifndef WINDOWS_SYNCHELPERS_H
#define WINDOWS_SYNCHELPERS_H

#include <Windows/types.h>

// What a handle points at. The three tags are fixed values; no other is ever made.
struct HANDLESTRUCT {
    unsigned int m_uiType; // one of the tags below
    void* m_pObject;       // a CEvent, or a CMutex
};

enum {
    HANDLE_TYPE_EVENT = 0x1234ABC1,
    HANDLE_TYPE_MUTEX = 0x1234ABC2,
    HANDLE_TYPE_THREAD = 0x1234ABC3 // a manual-reset event that is signalled when the thread's work has ended
};

// What WaitForSingleObject returns. Note that the last two differ from the values known elsewhere (0x102 and
// 0xFFFFFFFF): compare with the names.
enum {
    WAIT_OBJECT_0 = 0, // signalled; a mutex is now the caller's
    WAIT_FAILED = 10,
    WAIT_TIMEOUT = 20
};

// Makes a record of tag and object (a CEvent or CMutex from new, which the handle owns from now on).
// Throws std::bad_alloc when out of memory, like every function here that creates.
HANDLE CreateHandle(unsigned long tag, void* object);

// Makes a mutex of the given POSIX kind (recursive if none is given), held by the caller if bInitialOwner.
// attributes and name are ignored.
HANDLE CreateMutex(const void* attributes, bool bInitialOwner, void* name, int kind = 1);

// Makes an event. attributes and name are ignored: two events of one name are two events.
HANDLE CreateEvent(bool bManualReset, bool bInitialState);
HANDLE CreateEvent(const void* attributes, bool bManualReset, bool bInitialState, const void* name);

// Waits for the handle, which must not be NULL. timeoutMs is in milliseconds (the low 32 bits count):
// 0xFFFFFFFF waits for ever, 0 polls. On a mutex the result WAIT_OBJECT_0 makes the caller its owner, and
// any failure is WAIT_TIMEOUT; a mutex is polled as CMutex::Lock describes. On an event or thread the state
// is not changed. WAIT_FAILED without an event in the log: the record has no object; with one: its tag is
// unknown.
unsigned long WaitForSingleObject(HANDLE h, unsigned long timeoutMs);

// Sets an event or thread handle and returns 1; 0 for NULL and for any other handle.
int SetEvent(HANDLE h);

// Resets an event handle, which must not be NULL, and returns 1; 0 for any other. A thread that has ended
// cannot be made not to have.
int ResetEvent(HANDLE h);

// Releases the mutex and returns what CMutex::Unlock returned; 0 for NULL. The tag is not looked at: only
// pass mutex handles.
int ReleaseMutex(HANDLE h);

// Destroys the object and the record, sets h to NULL and returns 1; also 1 when h is NULL already. A record
// with an object and an unknown tag is left alone: 0 and an event in the log.
int CloseHandle(HANDLE& h);

#endif
