// A mutex with a condition, for the test support itself: constant-initialised, so that it serves before main,
// and invisible to interposed calls.
//
// Thread safety: any thread. A thread may be cancelled in Wait() and leaves the monitor unlocked.
#ifndef SUPPORT_MONITOR_H
#define SUPPORT_MONITOR_H

#include <pthread.h>

#include "support/deadline.h"
#include "support/interpose.h"

class Monitor {
public:
    constexpr Monitor() = default;
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // Holds the monitor, and keeps interposed calls of this thread out of scripts and logs.
    class Lock {
    public:
        explicit Lock(Monitor& monitor) : m_monitor(monitor) { pthread_mutex_lock(&m_monitor.m_mutex); }
        ~Lock() { pthread_mutex_unlock(&m_monitor.m_mutex); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        Bypass m_bypass;
        Monitor& m_monitor;
    };

    // With the monitor held: waits until the condition is true, which is looked at after each NotifyAll().
    // False when the deadline came first.
    template <class Condition> bool Wait(Lock&, const Deadline& deadline, Condition condition) {
        const timespec end = deadline.Monotonic();
        while (!condition())
            if (pthread_cond_clockwait(&m_changed, &m_mutex, CLOCK_MONOTONIC, &end) != 0)
                return condition();
        return true;
    }

    // With the monitor held.
    void NotifyAll() { pthread_cond_broadcast(&m_changed); }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_changed = PTHREAD_COND_INITIALIZER;
};

// Keeps the calling thread from being cancelled while it lives.
class CancellationDisabled {
public:
    CancellationDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancellationDisabled() { pthread_setcancelstate(m_before, nullptr); }
    CancellationDisabled(const CancellationDisabled&) = delete;
    CancellationDisabled& operator=(const CancellationDisabled&) = delete;

private:
    int m_before;
};

#endif
