#include <Windows/internal/ThreadLife.h>

#include <Windows/internal/Cancellation.h>

namespace windows {

namespace {

// ThreadSanitizer does not see what a thread locks once it has been cancelled in a system call, so it is
// told.
#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateHappensBefore(const char* file, int line, const volatile void* what);
extern "C" void AnnotateHappensAfter(const char* file, int line, const volatile void* what);
void Acquired(const pthread_mutex_t& mutex) { AnnotateHappensAfter(__FILE__, __LINE__, &mutex); }
void Releases(const pthread_mutex_t& mutex) { AnnotateHappensBefore(__FILE__, __LINE__, &mutex); }
#else
void Acquired(const pthread_mutex_t& /*mutex*/) {}
void Releases(const pthread_mutex_t& /*mutex*/) {}
#endif

class Guard {
public:
    explicit Guard(pthread_mutex_t& mutex) : m_mutex(mutex) {
        pthread_mutex_lock(&m_mutex);
        Acquired(m_mutex);
    }
    ~Guard() {
        Releases(m_mutex);
        pthread_mutex_unlock(&m_mutex);
    }

    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    void Wait(pthread_cond_t& condition) const {
        const NoCancellation whileWaiting;
        Releases(m_mutex);
        pthread_cond_wait(&condition, &m_mutex);
        Acquired(m_mutex);
    }

private:
    pthread_mutex_t& m_mutex;
};

// The lives of all objects that exist.
pthread_mutex_t g_listMutex = PTHREAD_MUTEX_INITIALIZER;
ThreadLife* g_first = nullptr;

} // namespace

__thread bool t_isCancellable = false;
__thread ThreadLife* ThreadLife::t_own = nullptr;

void ThreadLife::Begin(const CWinThread& object) {
    auto* life = new ThreadLife(object);
    const Guard guard(g_listMutex);
    life->m_next = g_first;
    g_first = life;
}

void ThreadLife::Discard(const CWinThread& object) {
    if (ThreadLife* life = Find(object)) { // there is none if the constructor failed early
        life->Unlink();
        delete life;
    }
}

bool ThreadLife::Claim(const CWinThread& object) {
    ThreadLife* life = Find(object);
    const Guard guard(life->m_mutex);
    life->m_wanted = true;
    // A thread that does not run its own code yet cannot be cancelled safely, whatever starts it.
    for (Phase now = life->m_phase; (now == Phase::Created || now == Phase::Inside) && !life->m_claimed;
         now = life->m_phase)
        guard.Wait(life->m_changed);
    if (life->m_phase != Phase::Over)
        life->m_claimed = true;
    return life->m_claimed;
}

void ThreadLife::Release(const CWinThread& object) {
    ThreadLife* life = Find(object);
    {
        const Guard guard(life->m_mutex);
        life->m_released = true;
        pthread_cond_broadcast(&life->m_changed);
        while (life->m_phase == Phase::Starting)
            guard.Wait(life->m_changed);
    }
    life->Unlink(); // not before: a thread that starts looks for its life
    life->Drop();
}

ThreadLife::Self::Self(const CWinThread& object) : m_life(Find(object)) {
    t_own = m_life;
    t_isCancellable = true;
    m_life->MoveTo(Phase::Starting);
}

ThreadLife::Self::~Self() {
    t_own = nullptr;
    {
        const Guard guard(m_life->m_mutex);
        // The destroyer is about to cancel this thread by its id, which must not be given to another
        // meanwhile.
        while (m_life->m_claimed && !m_life->m_released)
            guard.Wait(m_life->m_changed);
        m_life->m_phase = Phase::Over;
    }
    pthread_cond_broadcast(&m_life->m_changed); // without the lock: who is woken takes it first
    m_life->Drop();
}

bool ThreadLife::Self::Enter() { return m_life->Enter(); }

void ThreadLife::Self::Leave() { m_life->MoveTo(Phase::Outside); }

ThreadLife* ThreadLife::Find(const CWinThread& object) {
    const Guard guard(g_listMutex);
    ThreadLife* life = g_first;
    while (life && life->m_object != &object)
        life = life->m_next;
    return life;
}

void ThreadLife::Unlink() {
    const Guard guard(g_listMutex);
    ThreadLife** link = &g_first;
    while (*link != this)
        link = &(*link)->m_next;
    *link = m_next;
}

void ThreadLife::Drop() {
    bool last = false;
    {
        const Guard guard(m_mutex);
        last = --m_owners == 0;
    }
    if (last)
        delete this;
}

void ThreadLife::TellDestroyer() {
    const Guard guard(m_mutex);
    pthread_cond_broadcast(&m_changed);
}

// Returns only on a thread that is ending already: it cannot be cancelled once more.
void ThreadLife::AwaitCancellation() {
    MoveTo(Phase::Outside); // also where this stretch lies in another, which the destroyer waits for
    {
        const Guard guard(m_mutex);
        while (!m_released)
            guard.Wait(m_changed);
    }
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
}

void ObjectUse::GiveUp() {
    m_usable = false;
    m_life->AwaitCancellation();
}

} // namespace windows
