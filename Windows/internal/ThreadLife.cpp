#include <Windows/internal/ThreadLife.h>

#include <pthread.h>

#include <Windows/internal/Cancellation.h>

namespace windows {

namespace {

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER;

class Guard {
public:
    Guard() { pthread_mutex_lock(&g_mutex); }
    ~Guard() { pthread_mutex_unlock(&g_mutex); }

    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    static void Wait() { pthread_cond_wait(&g_changed, &g_mutex); }

private:
    const NoCancellation m_noCancellation;
};

} // namespace

ThreadLife* ThreadLife::s_first = nullptr;

void ThreadLife::Begin(const CWinThread& object) {
    auto* life = new ThreadLife(object);
    const Guard guard;
    life->m_next = s_first;
    s_first = life;
}

void ThreadLife::Discard(const CWinThread& object) {
    const Guard guard;
    ThreadLife* life = Find(object);
    if (!life) // the constructor failed earlier than that
        return;
    life->Unlink();
    delete life;
}

bool ThreadLife::Claim(const CWinThread& object) {
    const Guard guard;
    ThreadLife* life = Find(object);
    while (life->m_phase == Phase::Ending)
        Guard::Wait();
    if (life->m_phase == Phase::Over) {
        life->Unlink();
        life->Drop();
        return false;
    }
    life->m_claimed = true;
    return true;
}

void ThreadLife::Release(const CWinThread& object) {
    const Guard guard;
    ThreadLife* life = Find(object);
    life->m_released = true;
    pthread_cond_broadcast(&g_changed);
    while (life->m_phase == Phase::Starting)
        Guard::Wait();
    life->Unlink();
    life->Drop();
}

ThreadLife::Self::Self(const CWinThread& object) {
    const Guard guard;
    m_life = Find(object);
}

ThreadLife::Self::~Self() {
    const Guard guard;
    // The destroyer is about to cancel this thread by its id, which must not be given to another meanwhile.
    while (m_life->m_claimed && !m_life->m_released)
        Guard::Wait();
    m_life->m_phase = Phase::Over;
    pthread_cond_broadcast(&g_changed);
    m_life->Drop();
}

bool ThreadLife::Self::EnterWork() { return m_life->Enter(Phase::Working); }

bool ThreadLife::Self::EnterEnd() { return m_life->Enter(Phase::Ending); }

bool ThreadLife::Enter(Phase phase) {
    const Guard guard;
    if (m_claimed)
        return false;
    m_phase = phase;
    return true;
}

ThreadLife* ThreadLife::Find(const CWinThread& object) {
    ThreadLife* life = s_first;
    while (life && life->m_object != &object)
        life = life->m_next;
    return life;
}

void ThreadLife::Unlink() {
    ThreadLife** link = &s_first;
    while (*link != this)
        link = &(*link)->m_next;
    *link = m_next;
}

void ThreadLife::Drop() {
    if (--m_owners == 0)
        delete this;
}

} // namespace windows
