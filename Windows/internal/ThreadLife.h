// How far a thread has come, known to the thread itself and to whoever destroys its CWinThread.
//
// A CWinThread may be destroyed while its thread runs, and the thread is never joined. Yet two stretches of
// the thread's life touch the object: the start, until the suspension is over and the work is known, and the
// end, which logs and signals the handle. A destroyer waits for a thread that is in one of them, and a thread
// whose object is being destroyed enters neither.
//
//   phase    | the thread             | destroying the object
//   Starting | reads the object       | the thread leaves without working; waits for that
//   Working  | runs application code  | cancels the thread, which will not touch the object again
//   Ending   | writes to the object   | waits until it is over
//   Over     | is gone in a moment    | nothing to do
//
// One process-wide lock guards every life; it is the innermost of all and held for a few instructions. It and
// the list of lives need neither construction nor destruction, so threads may run before main and after it.
#ifndef WINDOWS_INTERNAL_THREADLIFE_H
#define WINDOWS_INTERNAL_THREADLIFE_H

class CWinThread;

namespace windows {

class ThreadLife {
public:
    // Constructing thread, before it creates the new one. Throws std::bad_alloc.
    static void Begin(const CWinThread& object);

    // Constructing or destroying thread: there is no thread, as it could not be created.
    static void Discard(const CWinThread& object);

    // Destroying thread. True: the thread must be cancelled. It cannot end, and its id stays valid, until
    // Release() is called. False: its work is over.
    static bool Claim(const CWinThread& object);

    // Destroying thread, after a successful Claim(): the thread is cancelled and not suspended. Returns when
    // it does not use the object any more.
    static void Release(const CWinThread& object);

    // The thread's own part, on its stack from the first moment to the last.
    class Self {
    public:
        explicit Self(const CWinThread& object);

        // Also when the thread is cancelled or calls pthread_exit.
        ~Self();

        Self(const Self&) = delete;
        Self& operator=(const Self&) = delete;

        // Each returns false if the object is being destroyed; the thread then ends without touching it.
        bool EnterWork();
        bool EnterEnd();

    private:
        ThreadLife* m_life;
    };

private:
    enum class Phase { Starting, Working, Ending, Over };

    explicit ThreadLife(const CWinThread& object) : m_object(&object) {}

    static ThreadLife* Find(const CWinThread& object);
    bool Enter(Phase phase);
    void Unlink();
    void Drop();

    const CWinThread* const m_object;
    Phase m_phase = Phase::Starting;
    bool m_claimed = false;
    bool m_released = false;
    int m_owners = 2; // the object and the thread
    ThreadLife* m_next = nullptr;

    static ThreadLife* s_first; // the lives of all objects that exist
};

} // namespace windows

#endif
