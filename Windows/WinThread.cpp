#include <Windows/WinThread.h>

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <memory>
#include <new>

#include <host/ErrorObject.h>
#include <host/Logger.h>
#include <host/Time.h>

#include <Windows/event.h>
#include <Windows/internal/Cancellation.h>
#include <Windows/internal/DescriptorSet.h>
#include <Windows/internal/MutexScope.h>
#include <Windows/internal/Relaxed.h>
#include <Windows/internal/ThreadLife.h>

static_assert(sizeof(void*) != 4 || sizeof(MSG) == 16, "the record in the pipe");

// In this order: the lock is there before the map and after it.
CMutex CWinThread::m_mapMutex(false);
std::map<int, CWinThread*> CWinThread::m_threads;

struct CWinThread::OverflowNode {
    MSG record;
    OverflowNode* next;
};

namespace {

constexpr size_t kStackSize = 0x40000;

void CloseDescriptor(int& descriptor) {
    if (descriptor == -1)
        return;
    close(descriptor);
    windows::RelaxedStore(descriptor, -1);
}

int CreateThread(pthread_t* id, void* (*body)(void*), void* argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
    pthread_attr_setstacksize(&attributes, kStackSize);
    const int error = pthread_create(id, &attributes, body, argument);
    pthread_attr_destroy(&attributes);
    return error;
}

// Waits until the descriptor can be read; what select returned. A signal starts the time anew.
int WaitForRecord(int readDesc, unsigned int timeoutMs) {
    for (;;) {
        windows::DescriptorSet readable;
        readable.Add(readDesc);
        CTimeValHelper timeout;
        timeout.AddMilliSeconds(timeoutMs);
        errno = 0;
        const int ready = readable.Select(readDesc + 1, &timeout);
        if (ready != -1 || errno != EINTR)
            return ready;
        sched_yield();
    }
}

} // namespace

// --- Construction and destruction ----------------------------------------------------------------------

// Undoes what a constructor has done so far, unless it completes.
class CWinThread::ConstructionGuard {
public:
    explicit ConstructionGuard(CWinThread& thread) : m_thread(&thread) {}
    ~ConstructionGuard() {
        if (!m_thread)
            return;
        const windows::NoCancellation noCancellation;
        m_thread->EndQueueAndThread();
        CloseHandle(m_thread->m_hThread);
    }

    ConstructionGuard(const ConstructionGuard&) = delete;
    ConstructionGuard& operator=(const ConstructionGuard&) = delete;

    void Complete() { m_thread = nullptr; }

private:
    CWinThread* m_thread;
};

// The names that the two constructors give with an error are each other's; handlers know them so.
CWinThread::CWinThread() : CWinThread(nullptr, nullptr, "WinThread::CWinThread(AFX_THREADPROC)", false) {}

CWinThread::CWinThread(AFX_THREADPROC pfn, void* pParam, int /*nPriority*/, unsigned int /*nStackSize*/,
                       unsigned long /*dwCreateFlags*/)
    : CWinThread(pfn, pParam, "WinThread::CWinThread", true) {}

CWinThread::CWinThread(AFX_THREADPROC pfn, void* pParam, const char* source, bool logsFailure)
    : m_nThreadID(0), m_hThread(nullptr), m_readDesc(-1), m_writeDesc(-1), m_nPostedCount(0),
      m_writeMutex(false), m_readMutex(false), m_overflowMutex(false), m_pOverflowHead(nullptr),
      m_pOverflowTail(nullptr), m_suspenderMutex(false), m_bResumed(false), m_nSuspendCount(0),
      m_pfnThreadProc(pfn), m_bExited(false), m_pThreadParam(pParam) {
    ConstructionGuard guard(*this);
    SuspendThread();

    auto ended = std::make_unique<CEvent>(true, false);
    m_hThread = CreateHandle(HANDLE_TYPE_THREAD, ended.get());
    static_cast<void>(ended.release());

    int ends[2];
    if (pipe(ends) != 0)
        throw Exception(source, "Could not create pipe.", nullptr);
    m_readDesc = ends[0];
    m_writeDesc = ends[1];
    fcntl(m_writeDesc, F_SETFL, fcntl(m_writeDesc, F_GETFL) | O_NONBLOCK);

    windows::ThreadLife::Begin(*this);
    if (CreateThread(&m_nThreadID, Body, this) != 0) {
        m_nThreadID = 0;
        if (logsFailure)
            CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, "CWinThread : posix create failed",
                                  nullptr);
        throw Exception(source, "Could not create thread.", nullptr);
    }
    AddThread(m_nThreadID, this);
    guard.Complete();
}

CWinThread::~CWinThread() {
    const windows::NoCancellation noCancellation;
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, "CWinThread : dtor called", nullptr);
    const bool cancelled = EndQueueAndThread();
    RemoveThread(m_nThreadID);
    // Only now: until it is detached, the id of a thread that has exited cannot be given to another one,
    // which would then find its entry in the registry taken.
    if (!cancelled && m_nThreadID != 0)
        pthread_detach(m_nThreadID);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace,
                           "CWinThread::~CWinThread(,,,,) : Completed thread id = 0x%x",
                           static_cast<unsigned int>(m_nThreadID));
    m_nThreadID = 0;
    CloseHandle(m_hThread);
}

// Closes the queue, and cancels the thread unless its work is over. Returns whether it was cancelled.
bool CWinThread::EndQueueAndThread() {
    const bool cancels = m_nThreadID != 0 && !HasEnded() && windows::ThreadLife::Claim(*this);
    // End-of-file would wake a thread that is blocked on the pipe before the cancellation reaches it, and it
    // would run on over an object that is going away. A spare write end keeps it asleep until it is
    // cancelled.
    int spare = cancels && m_writeDesc != -1 ? dup(m_writeDesc) : -1;
    CloseDescriptor(m_readDesc);
    CloseDescriptor(m_writeDesc);
    if (cancels) {
        pthread_detach(m_nThreadID);
        pthread_cancel(m_nThreadID);
        CloseDescriptor(spare);
    }
    // A thread that was never resumed is let go; it leaves without working. Not by Unlock, which would log.
    if (m_nSuspendCount > 0)
        pthread_mutex_unlock(m_suspenderMutex.PThreadMutex());
    if (m_nThreadID != 0)
        windows::ThreadLife::Release(*this);
    else
        windows::ThreadLife::Discard(*this);
    return cancels;
}

// Whether the thread has used the object for the last time. It may still be on its way out, which takes
// longer, above all where both share a processor: waiting for that would be a change of threads for nothing.
bool CWinThread::HasEnded() const {
    return windows::AcquireLoad(m_bExited) && m_hThread && WaitForSingleObject(m_hThread, 0) == WAIT_OBJECT_0;
}

// --- The thread ----------------------------------------------------------------------------------------

// Does not look at the object, which may be gone already: see Work.
__attribute__((no_sanitize("vptr"))) void CWinThread::Main() {
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityWarning,
                          "CWinThread::Main() : A subclass must override this method!", nullptr);
}

void* CWinThread::Body(void* p) {
    static_cast<CWinThread*>(p)->Work();
    pthread_exit(nullptr);
}

namespace {

using MainFunction = void (*)(CWinThread*);

// What the object's class has overridden Main with. It is looked up while the object cannot go away and
// called when it can, whereas a call of Main() would look into the object first. An object that is being
// destroyed changes its table meanwhile; either will do, as the thread is cancelled.
__attribute__((no_sanitize("thread"))) MainFunction MainOf(const CWinThread& thread) {
    constexpr size_t kMainSlot = 2; // behind the two destructors
    void* const* table = nullptr;
    MainFunction main = nullptr;
    memcpy(&table, static_cast<const void*>(&thread), sizeof table);
    memcpy(&main, &table[kMainSlot], sizeof main);
    return main;
}

} // namespace

void CWinThread::Work() {
    windows::ThreadLife::Self life(*this);
    AFX_THREADPROC pfnThreadProc = nullptr;
    void* pThreadParam = nullptr;
    MainFunction main = nullptr;
    {
        const windows::NoCancellation untilWorkIsKnown;
        { const windows::MutexScope untilResumed(m_suspenderMutex); }
        if (!life.Enter())
            return;
        pfnThreadProc = m_pfnThreadProc;
        pThreadParam = m_pThreadParam;
        main = MainOf(*this);
        life.Leave();
    }
    pthread_testcancel();

    if (pfnThreadProc)
        pfnThreadProc(pThreadParam);
    else
        main(this);

    const windows::NoCancellation untilTheEnd;
    if (!life.Enter())
        return;
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "CWinThread::Body() -  Exiting m_nThreadID 0x%x",
                           static_cast<unsigned int>(m_nThreadID));
    // A handle that somebody has signalled before is left alone: the two signs together let the destroyer go
    // on, and with the second of them the object may be gone.
    HANDLE handle = m_hThread;
    const bool isSignalled = handle && WaitForSingleObject(handle, 0) == WAIT_OBJECT_0;
    windows::ReleaseStore(m_bExited, true);
    if (!isSignalled)
        SetEvent(handle);
}

int CWinThread::SuspendThread() {
    if (m_bResumed) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "Thread has already resumed!! Can't suspend after it's been resumed!!",
                              nullptr);
        return 0;
    }
    if (!m_suspenderMutex.Lock(INFINITE)) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, "Could not lock suspender mutex", nullptr);
        return 0;
    }
    ++m_nSuspendCount;
    return 1;
}

int CWinThread::ResumeThread() {
    if (m_nSuspendCount > 0) {
        // The flag first: once the thread runs, the object is its owner's to destroy.
        m_bResumed = true;
        if (--m_nSuspendCount == 0)
            m_suspenderMutex.Unlock();
    } else {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityInformation,
                              "Thread is NOT currently suspended count", nullptr);
    }
    return 0;
}

// --- The registry --------------------------------------------------------------------------------------

void CWinThread::AddThread(unsigned long id, CWinThread* p) {
    if (id == 0) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "CWinThread::AddThread : id is 0. (thread NOT added)", nullptr);
        return;
    }
    const windows::MutexScope lock(m_mapMutex);
    m_threads.emplace(static_cast<int>(id), p);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace,
                           "CWinThread::AddThread : id = %x, map size = %zd", static_cast<unsigned int>(id),
                           m_threads.size());
}

void CWinThread::RemoveThread(unsigned long id) {
    if (id == 0)
        return;
    const windows::MutexScope lock(m_mapMutex);
    if (m_threads.erase(static_cast<int>(id)) != 0)
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace,
                               "CWinThread::RemoveThread : Thread = 0x%x removed from map.",
                               static_cast<unsigned int>(id));
    else
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure,
                               "CWinThread::RemoveThread : Thread = 0x%x not in map.",
                               static_cast<unsigned int>(id));
}

CWinThread* CWinThread::MapIdToWinThread(unsigned long id) {
    const windows::MutexScope lock(m_mapMutex);
    const auto entry = m_threads.find(static_cast<int>(id));
    return entry == m_threads.end() ? nullptr : entry->second;
}

// --- The queue: posting --------------------------------------------------------------------------------

int CWinThread::PostMessage(unsigned int message, unsigned long wParam, void* lParam) {
    const int writeDesc = windows::RelaxedLoad(m_writeDesc);
    if (writeDesc == -1)
        return 0;
    MSG record;
    memset(&record, 0, sizeof record); // padding too: the record leaves as it is in memory
    record.message = message;
    record.wParam = wParam;
    record.lParam = lParam;
    record.time = GetTickCount();
    {
        const windows::MutexScope writing(m_writeMutex);
        const ssize_t written = write(writeDesc, &record, sizeof record);
        if (written == -1 && errno == EAGAIN)
            Park(writeDesc, record);
        else if (written != static_cast<ssize_t>(sizeof record))
            return 0;
    }
    windows::RelaxedStore(m_nPostedCount,
                          static_cast<unsigned short>(windows::RelaxedLoad(m_nPostedCount) + 1));
    return 1;
}

// Puts a message that did not fit into the pipe on the overflow list.
void CWinThread::Park(int writeDesc, const MSG& record) {
    const windows::MutexScope lock(m_overflowMutex);
    // The reader may have emptied the pipe, and found the list empty, since the write failed. It would not
    // come back for a message parked now, so that one is offered to the pipe once more.
    if (!m_pOverflowHead && write(writeDesc, &record, sizeof record) == static_cast<ssize_t>(sizeof record))
        return;
    auto* node = new OverflowNode{record, nullptr};
    if (m_pOverflowTail)
        m_pOverflowTail->next = node;
    else
        m_pOverflowHead = node;
    m_pOverflowTail = node;
}

int CWinThread::LockoutMsgQueue() {
    if (m_writeDesc == -1)
        return -1;
    const int result = close(m_writeDesc);
    windows::RelaxedStore(m_writeDesc, -1);
    return result;
}

// --- The queue: reading --------------------------------------------------------------------------------

// What read returned, and its errno if it failed. Inline, as the stretch would lie in memory between the two
// functions otherwise.
__attribute__((always_inline)) inline long CWinThread::ReadRecord(MSG* pMsg, int& error,
                                                                  windows::ObjectUse& use) {
    const int readDesc = m_readDesc;
    // No scope holds this lock: a thread that is cancelled in the read must not touch the object, which its
    // destroyer may have freed by then.
    windows::MutexScope::Lock(m_readMutex);
    use.Pause();
    const ssize_t count = read(readDesc, pMsg, sizeof(MSG));
    if (count == -1)
        error = errno;
    use.Resume();
    if (!use)
        return count;
    {
        const windows::MutexScope lock(m_overflowMutex);
        if (m_pOverflowHead)
            DrainOverflow();
    }
    windows::MutexScope::Unlock(m_readMutex);
    return count;
}

int CWinThread::GetMessage(MSG* pMsg, unsigned int /*min*/, unsigned int /*max*/, unsigned int timeoutMs,
                           bool timeoutResult) {
    windows::ObjectUse use;
    if (!use)
        return 0;
    if (m_readDesc == -1 || !pMsg) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "CWinThread::GetMessage : msg ptr NULL || read desc invalid (FAILING)",
                              nullptr);
        return 0;
    }
    if (timeoutMs != 0) {
        const Arrival arrival = AwaitMessage(timeoutMs, use);
        if (arrival == Arrival::Failed)
            return 0;
        if (arrival == Arrival::TooLate) {
            pMsg->message = 0;
            return timeoutResult;
        }
    }

    pMsg->message = 0;
    int error = 0;
    const long count = ReadRecord(pMsg, error, use);
    if (count == -1) {
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure,
                               "CWinThread::GetMessage : Error reading from pipe errno = %d", error);
        return 0;
    }
    if (count != static_cast<long>(sizeof(MSG))) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "CWinThread::GetMessage : message size wrong", nullptr);
        return 0;
    }
    if (pMsg->message == WM_QUIT)
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityInformation,
                              "CWinThread::GetMessage : received WM_QUIT", nullptr);
    else // the place of wParam holds the message number again
        CLogger::PostLogEventF(
            LogTypeTraffic, LogSeverityTrace,
            "CWinThread::GetMessage Received message %d wParam %d lParam %ld time %ld on pipe",
            static_cast<int>(pMsg->message), static_cast<int>(pMsg->message),
            reinterpret_cast<long>(pMsg->lParam), static_cast<long>(static_cast<int>(pMsg->time)));
    return 1;
}

// Apart from GetMessage, which would save registers for it where it only reads.
__attribute__((noinline)) CWinThread::Arrival CWinThread::AwaitMessage(unsigned int timeoutMs,
                                                                       windows::ObjectUse& use) {
    int waiting = 0;
    if (!CountWaitingBytes(waiting)) {
        CLogger::PostLogEvent(
            LogTypeGeneral, LogSeverityQueueFatal,
            "CWinThread::GetMessage : Failed to read status on message queue pipe! (FAILING)", nullptr);
        return Arrival::Failed;
    }
    if (waiting > 0) {
        CLogger::PostLogEvent(LogTypeTraffic, LogSeverityTrace,
                              "CWinThread::GetMessage Bypassing select, message was already on pipe",
                              nullptr);
        return Arrival::There;
    }
    const int readDesc = m_readDesc;
    use.Pause();
    const int ready = WaitForRecord(readDesc, timeoutMs);
    use.Resume();
    if (!use || ready < 0)
        return Arrival::Failed;
    return ready == 0 ? Arrival::TooLate : Arrival::There;
}

int CWinThread::PeekMessage(MSG* pMsg, unsigned int /*min*/, unsigned int /*max*/) {
    windows::ObjectUse use;
    if (!use || m_readDesc == -1 || !pMsg)
        return 0;
    pMsg->message = 0;
    int waiting = 0;
    if (!CountWaitingBytes(waiting) || waiting == 0)
        return 0;
    int error = 0;
    const long count = ReadRecord(pMsg, error, use);
    if (count == -1) {
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure,
                               "CWinThread::PeekMessage() : Error reading from pipe errno = %d", error);
        return 0;
    }
    return count == static_cast<long>(sizeof(MSG)) ? 1 : 0;
}

bool CWinThread::CountWaitingBytes(int& count) {
    const windows::MutexScope reading(m_readMutex);
    return ioctl(m_readDesc, FIONREAD, &count) != -1;
}

// Moves parked messages to the pipe until it is full. One that cannot be written for any other reason, a
// queue that is locked out above all, is dropped.
void CWinThread::DrainOverflow() {
    while (m_pOverflowHead) {
        if (write(windows::RelaxedLoad(m_writeDesc), &m_pOverflowHead->record, sizeof(MSG)) == -1 &&
            errno == EAGAIN)
            return;
        OverflowNode* node = m_pOverflowHead;
        m_pOverflowHead = node->next;
        if (!m_pOverflowHead)
            m_pOverflowTail = nullptr;
        delete node;
    }
}

// --- Functions -----------------------------------------------------------------------------------------

CWinThread* AfxBeginThread(AFX_THREADPROC pfn, void* pParam, int nPriority, unsigned int nStackSize,
                           unsigned long dwCreateFlags) {
    auto* thread = new (std::nothrow) CWinThread(pfn, pParam, nPriority, nStackSize, dwCreateFlags);
    if (!thread) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "AfxBeginThread : Could not allocate CWinThread.", nullptr);
        return nullptr;
    }
    if (thread->m_nThreadID == 0) {
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "AfxBeginThread : Deleting t = %p",
                               static_cast<void*>(thread));
        delete thread;
        return nullptr;
    }
    if ((dwCreateFlags & CREATE_SUSPENDED) == 0)
        thread->ResumeThread();
    return thread;
}

unsigned long GetCurrentThreadId() { return pthread_self(); }

int PostThreadMessage(unsigned long threadId, unsigned int message, unsigned long wParam, void* lParam) {
    CWinThread* thread = CWinThread::MapIdToWinThread(threadId);
    return thread ? thread->PostMessage(message, wParam, lParam) : 0;
}

namespace {

// Of a thread without a queue. One whose object is being destroyed, and registered no more, ends here.
int WithoutQueue() {
    const windows::ObjectUse use;
    return 0;
}

} // namespace

// The next two do not look at the object that they find: it may be gone when its own function marks it as in
// use.

__attribute__((no_sanitize("vptr"))) int GetMessage(MSG* pMsg, void* /*window*/, unsigned int min,
                                                    unsigned int max, unsigned int timeoutMs,
                                                    bool timeoutResult) {
    CWinThread* thread = CWinThread::MapIdToWinThread(GetCurrentThreadId());
    return thread ? thread->GetMessage(pMsg, min, max, timeoutMs, timeoutResult) : WithoutQueue();
}

__attribute__((no_sanitize("vptr"))) int PeekMessage(MSG* pMsg, void* /*window*/, unsigned int min,
                                                     unsigned int max, unsigned int removeFlag) {
    // The flag that says "remove" is the one that reads nothing; callers that want the message pass 0.
    if (removeFlag == PM_REMOVE)
        return 1;
    CWinThread* thread = CWinThread::MapIdToWinThread(GetCurrentThreadId());
    return thread ? thread->PeekMessage(pMsg, min, max) : WithoutQueue();
}

int TranslateMessage(const MSG* /*pMsg*/) {
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityInformation, "TranslateMessage() called!", nullptr);
    return 0;
}

long DispatchMessage(const MSG* /*pMsg*/) {
    CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "DispatchMessage() called!", nullptr);
    return 0;
}
