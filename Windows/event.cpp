#include <Windows/event.h>

#include <errno.h>

#include <host/Time.h>

static_assert(ETIMEDOUT == 110, "callers know the time-out by its number");

// Called where they are, without a jump through the procedure linkage table: a wait for a signalled event
// consists of these two calls, and takes a twentieth less then.
#if defined(__GNUC__) && !defined(__clang__)
extern "C" {
extern decltype(pthread_mutex_lock) pthread_mutex_lock __attribute__((noplt));
extern decltype(pthread_mutex_unlock) pthread_mutex_unlock __attribute__((noplt));
}
#endif

namespace {

// Gives the event's lock back, also when a wait is cancelled: the event may outlive the thread.
class EventLock {
public:
    // The lock is held already.
    explicit EventLock(pthread_mutex_t& mutex) : m_mutex(&mutex) {}
    ~EventLock() {
        if (m_mutex)
            pthread_mutex_unlock(m_mutex);
    }

    EventLock(const EventLock&) = delete;
    EventLock& operator=(const EventLock&) = delete;

    pthread_mutex_t* HandOver() {
        pthread_mutex_t* mutex = m_mutex;
        m_mutex = nullptr;
        return mutex;
    }

private:
    pthread_mutex_t* m_mutex;
};

} // namespace

CEvent::CEvent(bool bManualReset, bool bInitialState)
    : m_bSignalled(bInitialState), m_bManualReset(bManualReset) {
    pthread_cond_init(&m_cond, nullptr);
    pthread_mutex_init(&m_mutex, nullptr);
}

CEvent::~CEvent() {
    pthread_cond_destroy(&m_cond);
    pthread_mutex_destroy(&m_mutex);
}

// For programs that do not have it inline.
__attribute__((used)) int (CEvent::*const g_setEvent)() = &CEvent::SetEvent;
__attribute__((used)) int (CEvent::*const g_resetEvent)() = &CEvent::ResetEvent;

// Aligned, so that what is run of it lies in as few lines of the cache as can be.
__attribute__((aligned(32))) int CEvent::WaitForEventSignal(unsigned long timeoutMs,
                                                            pthread_mutex_t** ppLocked) {
    const auto timeout = static_cast<unsigned int>(timeoutMs);
    if (timeout != INFINITE || ppLocked)
        return LockAndWait(timeout, ppLocked);
    CEvent* event = this;
    pthread_mutex_lock(&event->m_mutex);
    __asm__("" : "+r"(event)); // not known as this any more: so the mutex's address is not kept beside it
    if (!event->m_bSignalled)
        return event->WaitWithLock(INFINITE, nullptr);
    pthread_mutex_unlock(&event->m_mutex);
    return 0;
}

// Apart from the above, like the next: it has nothing but its object to keep on the stack.
__attribute__((noinline)) int CEvent::LockAndWait(unsigned int timeoutMs, pthread_mutex_t** ppLocked) {
    pthread_mutex_lock(&m_mutex);
    return WaitWithLock(timeoutMs, ppLocked);
}

__attribute__((noinline)) int CEvent::WaitWithLock(unsigned int timeoutMs, pthread_mutex_t** ppLocked) {
    EventLock lock(m_mutex);
    if (ppLocked)
        *ppLocked = nullptr;
    const int result = SleepUntilSignalled(timeoutMs);
    if (ppLocked && result != ETIMEDOUT)
        *ppLocked = lock.HandOver();
    return result;
}

int CEvent::SleepUntilSignalled(unsigned int timeoutMs) {
    if (timeoutMs == INFINITE) {
        while (!m_bSignalled)
            pthread_cond_wait(&m_cond, &m_mutex);
        return 0;
    }
    if (timeoutMs == 0)
        return m_bSignalled ? 0 : ETIMEDOUT;
    CTimeSpecHelper deadline(true);
    deadline.AddMilliSeconds(timeoutMs);
    int result = 0;
    // An error other than the time-out waits again and is the result if the event is set meanwhile.
    while (!m_bSignalled && result != ETIMEDOUT)
        result = pthread_cond_timedwait(&m_cond, &m_mutex, &deadline);
    return result;
}
