// Control over the C library calls and allocations of the library under test. The test program defines these
// functions in front of the C library's; each forwards to the next definition unless a script says otherwise.
//
//   Interpose fail(Call::Recv);
//   fail.OnCall(2).Fail(ECONNRESET);                     // the second recv from now on returns -1
//
//   Interpose part(Call::Send);
//   part.OnDescriptor(socket.m_fd).Always().Short(3);    // each sends at most 3 bytes, and says so
//
//   Interpose race(Call::Select);
//   race.OnThread(worker).Before([&] { peer.Send("x"); }); // data comes just before the first select
//
//   CallLog log;
//   socket.Send(text);
//   EXPECT_EQ(log.Texts(), (std::vector<std::string>{"send(5, MSG_NOSIGNAL)"}));
//
// Not intercepted: what the test support does itself, what a callback does, and anything inside a Bypass.
//
// Thread safety: scripts and logs may be made, used and destroyed by any thread, and several may exist at
// once. An interposed call without script or log costs two loads; it keeps errno as the real one leaves it,
// and a blocking one stays a cancellation point.
#ifndef SUPPORT_INTERPOSE_H
#define SUPPORT_INTERPOSE_H

#include <pthread.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/deadline.h"

// The interposed calls. New and ArrayNew are the operators, aligned forms excluded.
// clang-format off
enum class Call {
    Pipe, Fcntl, Ioctl, Select, Read, Write, Close, Dup,
    Socket, Setsockopt, Bind, Listen, Accept, Connect, Recv, Send,
    PthreadCreate, PthreadDetach, PthreadCancel,
    MutexInit, MutexattrSettype, MutexLock, MutexTrylock, MutexUnlock,
    CondWait, CondTimedwait, CondBroadcast, CondSignal,
    SchedYield, Sleep, Fopen, InetPton, Vsnprintf,
    Malloc, Calloc, Realloc, Free, New, ArrayNew, Delete, ArrayDelete
};

// One call, as scripts and logs see it.
//
//   call                    | number                   | flags          | text
//   Recv, Send              | byte count               | flags          | "recv(4, MSG_PEEK|MSG_DONTWAIT)"
//   Read, Write             | byte count               | 0              | "read(16)"
//   Fcntl                   | argument                 | command        | "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"
//   Ioctl                   | 0                        | request        | "ioctl(FIONREAD)"
//   Select                  | first argument           | 0              | "select(1.500000)", "select(NULL)"
//   Close, Dup, Accept      | 0                        | 0              | "close()"
//   Socket                  | type                     | domain         | "socket(AF_INET, SOCK_STREAM, 0)"
//   Setsockopt              | value, if an int         | option         | "setsockopt(6, 1, 1)" level, option, value
//   Bind, Connect           | port                     | 0              | "bind(127.0.0.1:4711)"
//   Listen                  | backlog                  | 0              | "listen(10)"
//   MutexattrSettype        | kind                     | 0              | "pthread_mutexattr_settype(1)"
//   Sleep                   | seconds                  | 0              | "sleep(1)"
//   Fopen                   | 0                        | 0              | "fopen(/tmp/x, w)"
//   InetPton                | 0                        | family         | "inet_pton(AF_INET, 127.0.0.1)"
//   Vsnprintf               | size                     | 0              | "vsnprintf(32)"
//   Malloc, Calloc, Realloc,| bytes                    | 0              | "malloc(16)", "operator new[](5)"
//   New, ArrayNew           |                          |                |
//   others                  | 0                        | 0              | "pipe()", "pthread_cond_wait()"
struct CallRecord {
    Call call;
    int fd;              // -1 if the call has none
    long number;
    long flags;
    pthread_t thread;    // the caller
    std::string text;    // name and arguments, without the descriptor
    bool finished = false; // has returned; in a callback, and for a call that blocks or was cancelled: false
    long result = 0;     // what it returned; of a pointer its address
    int error = 0;       // errno, if it failed and sets errno
};
// clang-format on

// A script for one kind of call, in force while it lives.
//
// Calls are counted from the moment the script has something to do (one that has not only counts, from its
// construction on), and only those that OnDescriptor, OnThread and When let through. Without OnCall, FromCall
// or Always the script acts on the first. Of several scripts for the same call the first made that acts, acts
// alone; all count.
//
// Where other threads may call meanwhile: first say which calls, then what happens.
class Interpose {
public:
    explicit Interpose(Call call);
    ~Interpose(); // waits until no callback of it runs any more
    Interpose(const Interpose&) = delete;
    Interpose& operator=(const Interpose&) = delete;

    // Which calls: the n-th (from 1); the n-th and all after it; all. Of this descriptor; of this thread (or
    // the calling one); that a predicate accepts.
    Interpose& OnCall(int n);
    Interpose& FromCall(int n);
    Interpose& Always();
    Interpose& OnDescriptor(int fd);
    Interpose& OnThread(pthread_t thread);
    Interpose& OnThisThread();
    Interpose& When(std::function<bool(const CallRecord&)> predicate); // called with a lock held: only look

    // What happens instead of the real call. Fail: what the function returns on failure - -1 and errno, the
    // error itself (pthread functions), NULL, std::bad_alloc from a throwing new. Return: this value, errno
    // as it was; no memory is touched, no pointer is made.
    Interpose& Fail(int error);
    Interpose& Return(long result);

    // Recv, Send, Read and Write: the real call, with at most count bytes.
    Interpose& Short(size_t count);

    // Runs a function in the calling thread before or after that (the real call or its replacement). Before
    // runs with none of the support's locks held; the calls it makes are not intercepted. What it throws, or
    // a cancellation in it, ends the process where the C function is declared not to throw.
    Interpose& Before(std::function<void()> function);
    Interpose& After(std::function<void()> function);

    // Calls let through so far, and calls acted on.
    int Seen() const;
    int Acted() const;

    // Blocks until the script has acted count times (before its action ran). False if the deadline came
    // first.
    bool WaitActed(int count = 1, const Deadline& deadline = Deadline::Long()) const;

    // Whether the malloc family is interposed in this build. Where it is not, tests that need it say
    // GTEST_SKIP() << Interpose::MallocReason().
    static bool MallocAvailable();
    static const char* MallocReason();

    struct State;

private:
    void CountFromNow();

    std::shared_ptr<State> m_state;
};

// Records calls while it lives.
class CallLog {
public:
    enum Threads { ThisThread, AllThreads };

    // Records the calls on descriptors and sockets (Pipe to Send, InetPton), or those given.
    explicit CallLog(Threads threads = ThisThread);
    explicit CallLog(std::vector<Call> calls, Threads threads = ThisThread);
    ~CallLog();
    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    void Clear();

    // The calls so far, in the order in which they began.
    std::vector<CallRecord> Records() const;

    // Their texts; those on one descriptor only.
    std::vector<std::string> Texts() const;
    std::vector<std::string> Texts(int fd) const;

    int Count(Call call) const;

    // Blocks until count such calls have begun: for "the thread is in select() now". A call that begun is
    // on its way into the kernel, not yet certain to sleep there. False if the deadline came first.
    bool WaitFor(Call call, int count = 1, const Deadline& deadline = Deadline::Long()) const;

    struct State;

private:
    std::shared_ptr<State> m_state;
};

// Calls of the calling thread made while one lives are neither scripted nor recorded nor counted.
class Bypass {
public:
    Bypass();
    ~Bypass();
    Bypass(const Bypass&) = delete;
    Bypass& operator=(const Bypass&) = delete;
};

// Counts the calling thread's allocations from its construction: those that succeeded. A block from new is
// not a malloc as well. What the test support itself allocates does not count, but what it hands out is
// released by the test: keep it out of the measured part.
class AllocationCounter {
public:
    AllocationCounter();

    int Mallocs() const;  // malloc, calloc, and realloc of NULL
    int Reallocs() const; // realloc of a block
    int Frees() const;    // free of a block
    int News() const;
    int ArrayNews() const;
    int Deletes() const; // delete of an object
    int ArrayDeletes() const;

    // All that ask for memory: Mallocs, Reallocs, News and ArrayNews.
    int Allocations() const;

    // Blocks that this thread has allocated and not released (released more, if negative).
    int Balance() const;

    struct Counts {
        int mallocs, reallocs, frees, news, arrayNews, deletes, arrayDeletes;
    };

private:
    Counts m_start;
};

// Makes one of the calling thread's allocations fail: the n-th from now (from 1) by malloc, calloc, realloc
// or new, or by the kinds given. To fail each in turn:
//
//   for (int n = 1;; n++) {
//       FailAllocation fail(n);
//       ... the operation ...
//       if (!fail.Happened())
//           break; // it needed fewer
//   }
//
// One at a time for each thread. Mind that gtest's macros allocate too: make it end before they are used, or
// call Stop().
class FailAllocation {
public:
    enum Kind { Any, OnlyMalloc, OnlyNew };

    explicit FailAllocation(int n, Kind kind = Any);
    ~FailAllocation();
    FailAllocation(const FailAllocation&) = delete;
    FailAllocation& operator=(const FailAllocation&) = delete;

    // From here on nothing fails any more.
    void Stop();

    bool Happened() const;
};

#endif
