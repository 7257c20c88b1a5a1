// Scopes in which the calling thread cannot be cancelled, and within them scopes in which it can.
//
// The host's logger may be a cancellation point, and close() is one. A cancellation that unwinds through a
// destructor ends the process, and one between taking a lock and guarding it leaves the lock held for ever.
// Where that could happen a NoCancellation stands; calls that block stay cancellable.
#ifndef WINDOWS_INTERNAL_CANCELLATION_H
#define WINDOWS_INTERNAL_CANCELLATION_H

#include <pthread.h>

namespace windows {

class NoCancellation {
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~NoCancellation() { pthread_setcancelstate(m_before, nullptr); }

    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    friend class CancellationAsBefore;
    int m_before;
};

// Inside a NoCancellation: what was allowed before it began is allowed for this scope.
class CancellationAsBefore {
public:
    explicit CancellationAsBefore(const NoCancellation& scope) {
        pthread_setcancelstate(scope.m_before, nullptr);
    }
    ~CancellationAsBefore() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }

    CancellationAsBefore(const CancellationAsBefore&) = delete;
    CancellationAsBefore& operator=(const CancellationAsBefore&) = delete;
};

} // namespace windows

#endif
