// Lets a CWinThread be destroyed while its thread runs: who uses the object now, the thread or its destroyer.
//
// A thread is never joined. Its object may be destroyed at any moment, which cancels it, and a cancelled
// thread runs on to its next cancellation point. So the stretches in which a thread uses its object are
// marked: its start and its end, the functions of its queue, the loops of CServer and CClient. They are left
// around each call that blocks and each callback. A destroyer waits for a thread that is inside such a
// stretch; a thread whose object has been claimed by a destroyer enters no further one, but waits for its
// cancellation.
//
//   phase    | the thread                        | destroying the object
//   Created  | has not got so far yet            | waits
//   Starting | waits until it is resumed         | resumes it, and waits until the thread has left
//   Outside  | is blocked, or in the application | cancels the thread
//   Inside   | uses the object                    | waits until it is outside
//   Over     | is gone in a moment                | nothing to do
//
// One that has signalled its handle at its end is inside to the last, and is not waited for all the same: see
// CWinThread::HasEnded.
//
// Stretches begin and end on the paths of every message, so they take no lock as long as nobody destroys the
// object: the thread says where it is and then looks whether it is wanted, the destroyer says that it wants
// it and then looks where it is. Whichever comes second sees the other.
//
// The locks are the innermost of all and held for a few instructions. The list of lives needs neither
// construction nor destruction, so threads may run before main and after it.
#ifndef WINDOWS_INTERNAL_THREADLIFE_H
#define WINDOWS_INTERNAL_THREADLIFE_H

#include <pthread.h>

#include <atomic>

#include <Windows/internal/Cancellation.h>

class CWinThread;

namespace windows {

class ThreadLife {
public:
    // Constructing thread, before it creates the new one. Throws std::bad_alloc.
    static void Begin(const CWinThread& object);

    // Constructing or destroying thread: there is no thread, as it could not be created.
    static void Discard(const CWinThread& object);

    // Destroying thread. Waits until the thread is outside. True: it must be cancelled, and until Release()
    // is called it cannot end and its id stays valid. False: its work is over. May be called more than once.
    static bool Claim(const CWinThread& object);

    // Destroying thread, last: a claimed thread has been cancelled and is not suspended any more. Returns
    // when the object is the caller's alone.
    static void Release(const CWinThread& object);

    // The thread's own part, on its stack from the first moment to the last.
    class Self {
    public:
        explicit Self(const CWinThread& object);

        // Also when the thread is cancelled or calls pthread_exit.
        ~Self();

        Self(const Self&) = delete;
        Self& operator=(const Self&) = delete;

        // Begins a stretch in which the thread uses the object. False if the object is being destroyed; the
        // thread then ends without touching it.
        bool Enter();
        void Leave();

    private:
        ThreadLife* const m_life;
    };

private:
    friend class ObjectUse;

    enum class Phase { Created, Starting, Outside, Inside, Over };

    explicit ThreadLife(const CWinThread& object) : m_object(&object) {}

    // The calling thread's own, if it is the thread of a CWinThread. The model is that of t_isCancellable.
    static __thread ThreadLife* t_own __attribute__((tls_model("initial-exec"), visibility("hidden")));

    static ThreadLife* Find(const CWinThread& object);
    void Unlink();
    void Drop();

    // For the thread itself.
    Phase Current() const { return m_phase.load(std::memory_order_relaxed); }
    bool Enter() {
        const Phase before = Current();
        m_phase = Phase::Inside;
        if (!m_wanted)
            return true;
        MoveTo(before); // a destroyer that saw the thread inside looks again
        return false;
    }
    void MoveTo(Phase phase) {
        m_phase = phase;
        if (m_wanted)
            TellDestroyer();
    }
    void TellDestroyer();
    void AwaitCancellation();

    const CWinThread* const m_object;
    ThreadLife* m_next = nullptr;

    // Read and written in one order for all threads.
    std::atomic<Phase> m_phase{Phase::Created}; // the thread's
    // A destroyer waits or has waited: the thread begins no further stretch.
    std::atomic<bool> m_wanted{false};

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER; // guards what follows, and the step to Over
    pthread_cond_t m_changed = PTHREAD_COND_INITIALIZER; // anything that a destroyer may wait for
    bool m_claimed = false;                              // the destroyer has found it outside, and cancels it
    bool m_released = false;                             // and has done so
    int m_owners = 2;                                    // the object and the thread
};

// A stretch in which the calling thread uses its own object, and cannot be cancelled; nothing on a thread
// that has none.
//
// Where the object is being destroyed the constructor and Resume() do not return: the thread is cancelled
// there. Only a thread that is ending already, and calls from a destructor on its stack, gets past them. The
// object is then not to be used.
//
// A stretch is paused before another begins: while one that lies within another is paused, the thread still
// could not be cancelled.
class ObjectUse {
public:
    ObjectUse()
        : m_life(ThreadLife::t_own), m_before(m_life ? m_life->Current() : ThreadLife::Phase::Outside) {
        Enter();
    }
    ~ObjectUse() {
        if (m_life)
            m_life->MoveTo(m_before);
    }

    ObjectUse(const ObjectUse&) = delete;
    ObjectUse& operator=(const ObjectUse&) = delete;

    // In front of and behind a call that may block or that runs application code.
    void Pause() {
        if (m_life)
            m_life->MoveTo(ThreadLife::Phase::Outside);
        m_noCancellation.Pause();
    }
    void Resume() {
        m_noCancellation.Resume();
        Enter();
    }

    // Whether the object may be used.
    explicit operator bool() const { return m_usable; }

private:
    void Enter() {
        if (m_life && !m_life->Enter())
            GiveUp();
    }
    void GiveUp();

    NoCancellation m_noCancellation; // for all of the stretch, so that its locks need not see to that
    ThreadLife* const m_life;
    const ThreadLife::Phase m_before;
    bool m_usable = true;
};

} // namespace windows

#endif
