// The host's clocks: time values, tick count and sleep.
//
// A contract, no code: the host process defines and exports what is declared here. Nothing of this may throw,
// allocate or use a lock of the library; only Sleep blocks. Any thread may call any of it at any time.
#ifndef HOST_TIME_H
#define HOST_TIME_H

#include <sys/time.h>
#include <time.h>

// A span of time that select() takes as it is: the object is a timeval, with nothing added. No virtual
// function, no destructor, no further field: the library passes its address where a timeval is expected.
//
// Thread safety: a value that belongs to the calling thread.
class CTimeValHelper : public timeval {
public:
    // Zero.
    CTimeValHelper();

    // With false, the only value that the library passes: zero. What true means is the host's affair.
    explicit CTimeValHelper(bool);

    // Zero again.
    void Init();

    // Adds whole seconds.
    void AddSeconds(unsigned long seconds);

    // Adds, and carries microseconds into seconds: tv_usec stays below 1,000,000, or select() refuses it.
    void AddMilliSeconds(unsigned long milliSeconds);
};

// A point in time that pthread_cond_timedwait() takes as its deadline: the object is a timespec, as above.
//
// Thread safety: a value that belongs to the calling thread.
class CTimeSpecHelper : public timespec {
public:
    // With true, the only value that the library passes: now, on CLOCK_REALTIME. Called with a CEvent's
    // internal lock held.
    explicit CTimeSpecHelper(bool now);

    // Adds, and carries nanoseconds into seconds: tv_nsec stays below 1,000,000,000. A wait whose deadline is
    // out of range never sleeps and never ends.
    void AddMilliSeconds(unsigned long milliSeconds);
};

// Milliseconds since a fixed point; never goes back. Imported under its plain name. Called for each message
// posted, without a lock held.
extern "C" unsigned long GetTickCount();

// Suspends the calling thread. CMutex::Lock calls it between two attempts of a lock with a time-out, with
// whatever locks its caller holds. It should be a cancellation point, as nanosleep is, so that a thread that
// polls can be ended.
void Sleep(unsigned long milliseconds);

#endif
