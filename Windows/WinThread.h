// Threads that start suspended, own a message queue and signal a handle when they end; and the functions that
// post to and read from the queue of a thread by its id.
//
//   state           | destroying the object              | WaitForSingleObject(m_hThread)
//   suspended (new) | the thread ends without having run | waits
//   running         | the thread is cancelled            | waits; for ever if the thread is cancelled
//   exited          | nothing is left of it              | returns 0
//
// A thread is never joined. Whoever owns the object waits for its handle and then deletes it. Destroying it
// earlier cancels the thread, which ends at its next cancellation point and uses the object no more, its
// calls of GetMessage and PeekMessage included. What the application's own code does with the object
// meanwhile is the application's affair. Never destroy a running thread whose handle somebody waits for;
// there is no auto-delete.
//
// The queue is a pipe. A poster never blocks: what does not fit waits on a list that the reader moves to the
// pipe later. Messages leave in the order of posting, but a message that finds room in the pipe may overtake
// the ones on that list.
//
//   queue               | PostMessage   | GetMessage(t = 0)       | GetMessage(t > 0)          | PeekMessage
//   empty               | 1             | blocks                  | timeoutResult after t ms   | 0
//   holds messages      | 1             | 1                       | 1                          | 1
//   locked out, empty   | 0             | 0 "message size wrong"  | 0 "message size wrong"     | 0
//
// Posting writes to the pipe: a host whose threads post to threads that may be destroyed ignores SIGPIPE.
#ifndef WINDOWS_WINTHREAD_H
#define WINDOWS_WINTHREAD_H

#include <pthread.h>

#include <map>

#include <Windows/Mutex.h>
#include <Windows/ThreadSafety.h>
#include <Windows/synchelpers.h>
#include <Windows/types.h>

namespace windows {
class ObjectUse;
}

// Applications number their messages from here.
constexpr unsigned int WM_USER = 0x0400;
constexpr unsigned int WM_APP = 0x8000;

// The one number that this library knows, and the queue does not: it reaches the reader like any other, with
// result 1, so a loop ends by comparing with it.
constexpr unsigned int WM_QUIT = 0xFFFF0000U;

// Flags of PeekMessage. Mind the values: with PM_REMOVE it reads nothing and returns 1.
enum { PM_NOREMOVE = 0, PM_REMOVE = 1 };

// Flag of AfxBeginThread.
enum { CREATE_SUSPENDED = 1 };

enum { THREAD_PRIORITY_NORMAL = 0 };

// A message. The record in the pipe is this structure as it is in memory.
struct MSG {
    unsigned int message; // its number
    unsigned long wParam; // whatever poster and reader agree on
    void* lParam;         // never dereferenced or freed by the queue
    unsigned long time;   // GetTickCount() when it was posted, in milliseconds
};

// The work of a thread. Its result is dropped.
typedef unsigned int (*AFX_THREADPROC)(void*);

class CWinThread {
public:
    // Makes a suspended thread that runs Main(), or pfn(pParam). Priority, stack size and flags are accepted
    // and ignored: the stack has 256 KiB, the scheduling is the creator's. Throws a CLogException* (made by
    // the host) when there is no descriptor or thread to be had, std::bad_alloc without memory; nothing is
    // left behind then.
    CWinThread();
    CWinThread(AFX_THREADPROC pfn, void* pParam, int nPriority = THREAD_PRIORITY_NORMAL,
               unsigned int nStackSize = 0, unsigned long dwCreateFlags = 0);

    CWinThread(const CWinThread&) = delete;
    CWinThread& operator=(const CWinThread&) = delete;

    // Closes the queue, cancels a thread that has not exited, and closes m_hThread. Messages on the overflow
    // list are lost, and their nodes with them.
    virtual ~CWinThread();

    // The work of a thread without a function, on that thread. This one only logs that it must be overridden.
    virtual void Main();

    // What the new thread executes; the argument is the CWinThread.
    static void* Body(void* p);

    // Takes the suspension and returns 1; 0 once ResumeThread was called. The constructor has done it
    // already, and the lock behind it is not recursive: a second call from the same thread never returns.
    int SuspendThread();

    // Undoes one suspension; the result means nothing. Must be called by the thread that constructed the
    // object.
    int ResumeThread();

    // The registry of all threads, by id. An entry that exists is kept; the id 0 is refused.
    void AddThread(unsigned long id, CWinThread* p);
    void RemoveThread(unsigned long id);

    // The object behind an id, or NULL. It may be destroyed by its owner at any time afterwards.
    static CWinThread* MapIdToWinThread(unsigned long id);

    // Queues a message; any thread. Returns 1, or 0 when the queue is locked out or broken. Throws
    // std::bad_alloc when the pipe is full and memory too.
    int PostMessage(unsigned int message, unsigned long wParam, void* lParam);

    // Reads one message, on the owning thread. min and max are ignored. timeoutMs is in milliseconds; 0
    // blocks until there is one (PeekMessage is the poll), and 0xFFFFFFFF is a long time but not for ever.
    // Returns 1 with a message, WM_QUIT included: a loop ends by looking at the number. Returns timeoutResult
    // with number 0 when the time ran out, 0 on failure, which includes an empty queue that is locked out. A
    // signal restarts the time-out, and ends a blocking read with 0.
    int GetMessage(MSG* pMsg, unsigned int min, unsigned int max, unsigned int timeoutMs, bool timeoutResult);

    // Reads and removes one message if there is one: 1, else 0. On the owning thread. min and max are
    // ignored.
    int PeekMessage(MSG* pMsg, unsigned int min, unsigned int max);

    // Closes the queue to posters; what it holds can still be read. Returns what close() returned, -1 if it
    // was closed already. Not while others post. Not for a CServer or CClient, whose loop would spin.
    int LockoutMsgQueue();

    // The id, as GetCurrentThreadId gives it on the thread itself.
    unsigned long GetThreadID() const { return m_nThreadID; }

    // The id. Nobody but the object writes it.
    pthread_t m_nThreadID;

    // Signalled when the thread's work has returned. It belongs to this object.
    HANDLE m_hThread;

    // The two ends of the queue; -1 when closed. A loop of the application's may select() on the read end and
    // then takes the message with PeekMessage. On the thread of a CServer or CClient, closing the read end
    // and setting it to -1 makes the next select() fail, which ends the loop.
    int m_readDesc;  // blocking
    int m_writeDesc; // not blocking

    // Messages posted; wraps. Posters at the same moment may lose a count.
    unsigned short m_nPostedCount;

private:
    enum class Arrival { There, TooLate, Failed };
    struct OverflowNode;
    class ConstructionGuard;

    CMutex m_writeMutex;
    CMutex m_readMutex;
    CMutex m_overflowMutex;
    OverflowNode* m_pOverflowHead WINDOWS_GUARDED_BY(m_overflowMutex);
    OverflowNode* m_pOverflowTail WINDOWS_GUARDED_BY(m_overflowMutex);
    CMutex m_suspenderMutex;
    bool m_bResumed;
    int m_nSuspendCount;
    AFX_THREADPROC m_pfnThreadProc;
    bool m_bExited;
    void* m_pThreadParam;

public:
    // The registry and its lock, which is always the innermost. The map owns nothing.
    static CMutex m_mapMutex;
    static std::map<int, CWinThread*> m_threads WINDOWS_GUARDED_BY(m_mapMutex);

private:
    CWinThread(AFX_THREADPROC pfn, void* pParam, const char* source, bool logsFailure);
    bool EndQueueAndThread();
    bool HasEnded() const;
    void Work();
    Arrival AwaitMessage(unsigned int timeoutMs, windows::ObjectUse& use);
    bool CountWaitingBytes(int& count);
    long ReadRecord(MSG* pMsg, int& error, windows::ObjectUse& use);
    void Park(int writeDesc, const MSG& record);
    void DrainOverflow() WINDOWS_REQUIRES(m_overflowMutex);
};

extern "C" {

// Makes a thread that runs pfn(pParam), and resumes it unless flags has CREATE_SUSPENDED. Throws what the
// constructor throws; NULL when there is no memory for the object. The caller owns it.
CWinThread* AfxBeginThread(AFX_THREADPROC pfn, void* pParam, int nPriority = THREAD_PRIORITY_NORMAL,
                           unsigned int nStackSize = 0, unsigned long dwCreateFlags = 0);

// The calling thread's id, of any thread.
unsigned long GetCurrentThreadId();

// PostMessage on the thread with that id; 0 if there is none. Any thread may call it.
int PostThreadMessage(unsigned long threadId, unsigned int message, unsigned long wParam, void* lParam);

// GetMessage on the calling thread's own queue; 0 if it has none. The window is ignored. In a class derived
// from CWinThread write ::GetMessage: the member of that name takes other arguments, and some calls compile
// as either.
int GetMessage(MSG* pMsg, void* window, unsigned int min, unsigned int max, unsigned int timeoutMs = 0,
               bool timeoutResult = false);

// PeekMessage on the calling thread's own queue; 0 if it has none. With removeFlag 1 it returns 1 and reads
// nothing; any other value takes a message.
int PeekMessage(MSG* pMsg, void* window, unsigned int min, unsigned int max, unsigned int removeFlag);

// Each posts an event and returns 0.
int TranslateMessage(const MSG* pMsg);
long DispatchMessage(const MSG* pMsg);

} // extern "C"

#endif
