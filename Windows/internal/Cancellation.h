// Scopes in which the calling thread cannot be cancelled, and within them scopes in which it can.
//
// The host's logger may be a cancellation point, and close() is one. A cancellation that unwinds through a
// destructor ends the process, and one between taking a lock and guarding it leaves the lock held for ever.
// Where that could happen a NoCancellation stands; calls that block stay cancellable.
//
// The library cancels the threads of CWinThread and no others, so all others are spared the price, which is
// more than that of the lock that such a scope stands around. A thread of its own that an application cancels
// must not be within the library.
#ifndef WINDOWS_INTERNAL_CANCELLATION_H
#define WINDOWS_INTERNAL_CANCELLATION_H

#include <pthread.h>

namespace windows {

// Whether the calling thread is that of a CWinThread and in no NoCancellation. In ThreadLife.cpp. The model
// spares the library the dynamic linker's help at each access, and with it a dependency on the dynamic
// linker.
extern __thread bool t_isCancellable __attribute__((tls_model("initial-exec"), visibility("hidden")));

class NoCancellation {
public:
    NoCancellation() : m_acts(t_isCancellable) {
        if (m_acts)
            Begin();
    }
    ~NoCancellation() {
        if (m_acts)
            End();
    }

    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

    // Between the two, what was allowed before the scope began is allowed.
    void Pause() const {
        if (m_acts)
            End();
    }
    void Resume() {
        if (m_acts)
            Begin();
    }

private:
    void Begin() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before);
        t_isCancellable = false;
    }
    void End() const {
        t_isCancellable = true;
        pthread_setcancelstate(m_before, nullptr);
    }

    const bool m_acts; // one within another does nothing
    int m_before = PTHREAD_CANCEL_ENABLE;
};

// Inside a NoCancellation, if there is one: what was allowed before it began is allowed for this scope.
class CancellationAsBefore {
public:
    explicit CancellationAsBefore(NoCancellation* scope) : m_scope(scope) {
        if (m_scope)
            m_scope->Pause();
    }
    ~CancellationAsBefore() {
        if (m_scope)
            m_scope->Resume();
    }

    CancellationAsBefore(const CancellationAsBefore&) = delete;
    CancellationAsBefore& operator=(const CancellationAsBefore&) = delete;

private:
    NoCancellation* m_scope;
};

} // namespace windows

#endif
