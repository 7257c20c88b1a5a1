// The life of a thread object and the registry of threads. Destruction has a file of its own.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>
#include <host/ErrorObject.h>

#include "support/deadline.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/resources.h"
#include "support/text.h"

// The attributes that a thread is created with, in front of the C library's. Threads of a sanitizer come here
// too, before they are ready for instrumented code.
#define PLAIN __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

struct AttributeCalls {
    std::string order; // i: init, s: scheduling, z: stack size
    std::vector<int> scheduling;
    std::vector<size_t> stackSizes;
    bool fail = false;
};

AttributeCalls* g_attributeCalls;
pthread_t g_attributeCaller;

class WatchAttributes {
public:
    WatchAttributes() {
        g_attributeCaller = pthread_self();
        g_attributeCalls = &calls;
    }
    ~WatchAttributes() { g_attributeCalls = nullptr; }

    AttributeCalls calls; // of the thread that made the object
};

PLAIN AttributeCalls* Watched() {
    return g_attributeCalls && pthread_equal(g_attributeCaller, pthread_self()) ? g_attributeCalls : nullptr;
}

} // namespace

extern "C" {

PLAIN int pthread_attr_init(pthread_attr_t* attributes) noexcept {
    if (AttributeCalls* calls = Watched())
        calls->order += 'i';
    void* next = dlsym(RTLD_NEXT, "pthread_attr_init");
    return reinterpret_cast<int (*)(pthread_attr_t*)>(next)(attributes);
}

PLAIN int pthread_attr_setinheritsched(pthread_attr_t* attributes, int inherit) noexcept {
    if (AttributeCalls* calls = Watched()) {
        calls->order += 's';
        calls->scheduling.push_back(inherit);
        if (calls->fail)
            return EINVAL;
    }
    void* next = dlsym(RTLD_NEXT, "pthread_attr_setinheritsched");
    return reinterpret_cast<int (*)(pthread_attr_t*, int)>(next)(attributes, inherit);
}

PLAIN int pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) noexcept {
    if (AttributeCalls* calls = Watched()) {
        calls->order += 'z';
        calls->stackSizes.push_back(size);
        if (calls->fail)
            return EINVAL;
    }
    void* next = dlsym(RTLD_NEXT, "pthread_attr_setstacksize");
    return reinterpret_cast<int (*)(pthread_attr_t*, size_t)>(next)(attributes, size);
}

} // extern "C"

namespace {

// Names private members: an explicit instantiation may.
template <class Tag, auto Member> struct Reveal {
    friend auto Revealed(Tag) { return Member; }
};
#define REVEAL(tag, member)                                                                                  \
    struct tag {                                                                                             \
        friend auto Revealed(tag);                                                                           \
    };                                                                                                       \
    template struct Reveal<tag, &CWinThread::member>
REVEAL(WriteMutex, m_writeMutex);
REVEAL(ReadMutex, m_readMutex);
REVEAL(OverflowMutex, m_overflowMutex);
REVEAL(OverflowHead, m_pOverflowHead);
REVEAL(OverflowTail, m_pOverflowTail);
REVEAL(SuspenderMutex, m_suspenderMutex);
REVEAL(Resumed, m_bResumed);
REVEAL(SuspendCount, m_nSuspendCount);
REVEAL(ThreadProc, m_pfnThreadProc);
REVEAL(Exited, m_bExited);
REVEAL(ThreadParam, m_pThreadParam);

template <class Tag> auto& Get(CWinThread& thread) { return thread.*Revealed(Tag()); }

class Thread : public CWinThread {
public:
    using CWinThread::CWinThread;
    using CWinThread::m_nPostedCount;
    using CWinThread::m_readDesc;
    using CWinThread::m_writeDesc;
};

bool IsFree(CMutex& mutex) {
    if (pthread_mutex_trylock(mutex.PThreadMutex()) != 0)
        return false;
    pthread_mutex_unlock(mutex.PThreadMutex());
    return true;
}

bool Ends(const CWinThread& thread) {
    const long limit = static_cast<long>(Deadline::Long().Remaining().count());
    return WaitForSingleObject(thread.m_hThread, static_cast<unsigned long>(limit)) == WAIT_OBJECT_0;
}

unsigned int Short(unsigned long id) { return static_cast<unsigned int>(id); }

std::string AddedText(unsigned long id) {
    return Text("CWinThread::AddThread : id = %x, map size = %zd", Short(id), CWinThread::m_threads.size());
}

// The events of a lock ('L') and an unlock ('U') of a mutex.
std::vector<ExpectedEvent> MutexTrace(const std::string& steps, pthread_t thread) {
    const unsigned long id = static_cast<unsigned long>(thread);
    std::vector<ExpectedEvent> events;
    for (char step : steps)
        if (step == 'L') {
            events.push_back({23, 8,
                              Text("CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx",
                                   INFINITE, id)});
            events.push_back({23, 9, Text("CMutex::Lock returning true thread %lx", id)});
        } else {
            events.push_back({23, 8, Text("CMutex::UnLock Being Called on thread %lx", id)});
            events.push_back({23, 9, Text("CMutex::Unlock succeeeded on thread %lx", id)});
        }
    return events;
}

std::vector<ExpectedEvent> operator+(std::vector<ExpectedEvent> left,
                                     const std::vector<ExpectedEvent>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

std::vector<Event> AllEventsOf(pthread_t thread) {
    return Recorder::Events([=](const Event& event) { return pthread_equal(event.thread, thread) != 0; });
}

// Blocks until a thread is about to lock its suspension mutex, the first thing that it does.
bool WaitUntilStarted(const CWinThread& thread) {
    return Recorder::WaitFor([id = thread.m_nThreadID](const Event& event) {
        return pthread_equal(event.thread, id) && event.type == 23 && event.severity == 8;
    });
}

std::atomic<int> g_runs;

unsigned int Count(void*) {
    g_runs++;
    return 77;
}

unsigned int RunFunction(void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return 0;
}

void RunOnThread(std::function<void()> function) {
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &function));
    EXPECT_TRUE(Ends(*thread));
}

// ---------------------------------------------------------------------------------------------------------
// Construction

TEST(WinThread, A_new_object_has_its_documented_state) {
    int parameter;
    Thread thread(Count, &parameter);
    EXPECT_NE(thread.m_nThreadID, 0U);
    ASSERT_NE(thread.m_hThread, nullptr);
    EXPECT_GE(thread.m_readDesc, 0);
    EXPECT_GE(thread.m_writeDesc, 0);
    EXPECT_EQ(thread.m_nPostedCount, 0);
    EXPECT_TRUE(IsFree(Get<WriteMutex>(thread)));
    EXPECT_TRUE(IsFree(Get<ReadMutex>(thread)));
    EXPECT_TRUE(IsFree(Get<OverflowMutex>(thread)));
    EXPECT_EQ(Get<OverflowHead>(thread), nullptr);
    EXPECT_EQ(Get<OverflowTail>(thread), nullptr);
    EXPECT_FALSE(IsFree(Get<SuspenderMutex>(thread)));
    EXPECT_FALSE(Get<Resumed>(thread));
    EXPECT_EQ(Get<SuspendCount>(thread), 1);
    EXPECT_EQ(Get<ThreadProc>(thread), &Count);
    EXPECT_FALSE(Get<Exited>(thread));
    EXPECT_EQ(Get<ThreadParam>(thread), &parameter);
}

TEST(WinThread, The_default_constructor_has_neither_function_nor_parameter) {
    Thread thread;
    EXPECT_EQ(Get<ThreadProc>(thread), nullptr);
    EXPECT_EQ(Get<ThreadParam>(thread), nullptr);
    EXPECT_EQ(Get<SuspendCount>(thread), 1);
    EXPECT_FALSE(Get<Resumed>(thread));
}

TEST(WinThread, The_posted_count_has_16_bits) { EXPECT_EQ(sizeof(Thread::m_nPostedCount), 2U); }

TEST(WinThread, Its_four_mutexes_and_that_of_the_registry_are_not_recursive) {
    Thread thread;
    CMutex* mutexes[] = {&Get<WriteMutex>(thread), &Get<ReadMutex>(thread), &Get<OverflowMutex>(thread),
                         &CWinThread::m_mapMutex};
    for (CMutex* mutex : mutexes) {
        ASSERT_EQ(pthread_mutex_trylock(mutex->PThreadMutex()), 0);
        EXPECT_EQ(pthread_mutex_trylock(mutex->PThreadMutex()), EBUSY);
        pthread_mutex_unlock(mutex->PThreadMutex());
    }
    EXPECT_EQ(pthread_mutex_trylock(Get<SuspenderMutex>(thread).PThreadMutex()), EBUSY);
}

TEST(WinThread, Construction_suspends_then_makes_handle_pipe_and_thread) {
    CallLog calls({Call::MutexInit, Call::Pipe, Call::Fcntl, Call::PthreadCreate});
    Interpose suspension(Call::MutexLock); // the first lock is that of the suspension mutex
    int mutexesBefore = -1;
    suspension.OnThisThread().Before([&] { mutexesBefore = calls.Count(Call::MutexInit); });
    Thread thread;
    EXPECT_EQ(mutexesBefore, 4);
    EXPECT_EQ(calls.Texts(),
              (std::vector<std::string>{
                  "pthread_mutex_init()", "pthread_mutex_init()", "pthread_mutex_init()",
                  "pthread_mutex_init()", // the four of the object
                  "pthread_mutex_init()", // that of the handle's event
                  "pipe()", "fcntl(F_GETFL)", "fcntl(F_SETFL, O_WRONLY|O_NONBLOCK)", "pthread_create()"}));
}

TEST(WinThread, Only_the_write_end_of_the_pipe_is_set_not_to_block) {
    CallLog calls({Call::Fcntl});
    Thread thread;
    for (const CallRecord& record : calls.Records())
        EXPECT_EQ(record.fd, thread.m_writeDesc);
    EXPECT_TRUE(fcntl(thread.m_writeDesc, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(fcntl(thread.m_readDesc, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(fcntl(thread.m_readDesc, F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST(WinThread, The_other_flags_of_the_write_end_are_kept) {
    Interpose flags(Call::Fcntl);
    flags.OnThisThread().Return(O_WRONLY | O_APPEND);
    CallLog calls({Call::Fcntl});
    Thread thread;
    EXPECT_EQ(calls.Texts(),
              (std::vector<std::string>{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_WRONLY|O_APPEND|O_NONBLOCK)"}));
}

TEST(WinThread, A_failing_fcntl_is_not_reported) {
    Recorder::Clear();
    Interpose fail(Call::Fcntl);
    fail.OnThisThread().Always().Fail(EBADF);
    Thread thread;
    EXPECT_GE(fail.Acted(), 1);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{11, 9, AddedText(thread.m_nThreadID)}}));
}

TEST(WinThread, The_attributes_are_inherited_scheduling_and_a_stack_of_256_KiB) {
    for (unsigned int asked : {0U, 1000U, 0x800000U}) {
        SCOPED_TRACE(asked);
        WatchAttributes watch;
        Interpose create(Call::PthreadCreate);
        create.OnThisThread().Before([&] { watch.calls.order += 'c'; });
        Thread thread(Count, nullptr, 99, asked, 0);
        EXPECT_EQ(watch.calls.order.substr(0, 4), "iszc");
        ASSERT_FALSE(watch.calls.scheduling.empty());
        EXPECT_EQ(watch.calls.scheduling[0], PTHREAD_INHERIT_SCHED);
        ASSERT_FALSE(watch.calls.stackSizes.empty());
        EXPECT_EQ(watch.calls.stackSizes[0], 0x40000U);
    }
}

TEST(WinThread, Failing_attribute_calls_are_not_reported) {
    Recorder::Clear();
    WatchAttributes watch;
    watch.calls.fail = true;
    Thread thread;
    EXPECT_EQ(watch.calls.order.substr(0, 3), "isz");
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{11, 9, AddedText(thread.m_nThreadID)}}));
}

TEST(WinThread, The_stack_of_a_thread_has_256_KiB) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer enlarges the stacks of threads";
#endif
    size_t size = 0;
    RunOnThread([&] {
        pthread_attr_t attributes;
        void* start;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &start, &size);
        pthread_attr_destroy(&attributes);
    });
    EXPECT_EQ(size, 0x40000U);
}

TEST(WinThread, The_handle_is_that_of_a_thread_and_not_signalled) {
    Thread thread;
    EXPECT_EQ(thread.m_hThread->m_uiType, 0x1234ABC3U);
    EXPECT_NE(thread.m_hThread->m_pObject, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread.m_hThread, 0), static_cast<unsigned long>(WAIT_TIMEOUT));
}

TEST(WinThread, Construction_registers_the_id_and_posts_one_event) {
    Recorder::Clear();
    const size_t before = CWinThread::m_threads.size();
    Thread thread;
    EXPECT_EQ(CWinThread::m_threads.size(), before + 1);
    EXPECT_EQ(CWinThread::MapIdToWinThread(thread.m_nThreadID), &thread);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{11, 9, AddedText(thread.m_nThreadID)}}));
}

TEST(WinThread, Construction_holds_the_suspension_mutex_while_it_registers) {
    Recorder::Clear();
    Thread thread;
    const pthread_t self = pthread_self();
    EXPECT_TRUE(
        SameEvents(AllEventsOf(self), MutexTrace("LL", self) +
                                          std::vector<ExpectedEvent>{{11, 9, AddedText(thread.m_nThreadID)}} +
                                          MutexTrace("U", self)));
}

TEST(WinThread, A_constructor_ignores_the_flag_that_would_not_suspend) {
    g_runs = 0;
    for (unsigned long flags : {0UL, 1UL, 0xFFFFFFFFUL}) {
        Thread thread(Count, nullptr, 0, 0, flags);
        EXPECT_EQ(Get<SuspendCount>(thread), 1);
        EXPECT_FALSE(Get<Resumed>(thread));
        EXPECT_FALSE(IsFree(Get<SuspenderMutex>(thread)));
    }
    EXPECT_EQ(g_runs, 0);
}

TEST(WinThread, Where_the_suspension_fails_the_thread_runs_at_once) {
    g_runs = 0;
    Recorder::Clear();
    Interpose fail(Call::MutexLock);
    fail.OnThisThread().Fail(EINVAL);
    Thread thread(Count, nullptr);
    EXPECT_TRUE(Recorder::Has(23, 1, "FAILED to lock mutex"));
    EXPECT_TRUE(Recorder::Has(11, 1, "Could not lock suspender mutex"));
    EXPECT_EQ(Get<SuspendCount>(thread), 0);
    EXPECT_TRUE(Ends(thread));
    EXPECT_EQ(g_runs, 1);
}

// ---------------------------------------------------------------------------------------------------------
// Failing construction

struct Made {
    std::string where, what;
    bool outOfMemory = false;
    CWinThread* thread = nullptr;
};

// Makes an object in the given way and takes what it throws.
Made Make(const std::function<CWinThread*()>& make) {
    Made made;
    try {
        made.thread = make();
    } catch (CLogException* error) {
        Bypass bypass;
        made.where = error->Where();
        made.what = error->What();
        delete error;
    } catch (const std::bad_alloc&) {
        made.outOfMemory = true;
    }
    return made;
}

CWinThread* MakeDefault() { return new CWinThread; }
CWinThread* MakeWithFunction() { return new CWinThread(Count, nullptr, 0, 0, 0); }
CWinThread* MakeByFunction() { return AfxBeginThread(Count, nullptr, 0, 0, CREATE_SUSPENDED); }

struct Way {
    CWinThread* (*make)();
    const char* source; // the names are crossed over, and stay so
    bool logsFailure;
};

const Way WAYS[] = {{MakeDefault, "WinThread::CWinThread(AFX_THREADPROC)", false},
                    {MakeWithFunction, "WinThread::CWinThread", true},
                    {MakeByFunction, "WinThread::CWinThread", true}};

// Everything that a failed construction must not leave behind. Threads are counted by the test program;
// blocks are counted without a record of calls and events, as that releases some of its own.
class NothingLeft {
public:
    enum Counted { BLOCKS, LOCKS };

    explicit NothingLeft(Counted counted)
        : m_descriptors(Resources::Descriptors()), m_registered(CWinThread::m_threads.size()) {
        if (counted == LOCKS)
            m_locks = std::make_unique<CallLog>(
                std::vector<Call>{Call::MutexLock, Call::MutexTrylock, Call::MutexUnlock});
        else
            Recorder::Pause();
        m_allocations = AllocationCounter();
    }

    ~NothingLeft() { Recorder::Resume(); }

    // Directly after the construction.
    void Stop() {
        m_blocks = m_allocations.News() - m_allocations.Deletes();
        m_arrays = m_allocations.ArrayNews() - m_allocations.ArrayDeletes();
    }

    void Check() {
        if (m_locks) {
            int held = 0;
            for (const CallRecord& record : m_locks->Records())
                if (record.result == 0)
                    held += record.call == Call::MutexUnlock ? -1 : 1;
            EXPECT_EQ(held, 0) << "locks held";
        } else {
            EXPECT_GE(m_blocks, 0);
            EXPECT_LE(m_blocks,
                      1); // a block that is shared with a thread which did begin, and which released it
            EXPECT_EQ(m_arrays, 0);
        }
        EXPECT_EQ(Resources::Descriptors(), m_descriptors);
        EXPECT_EQ(CWinThread::m_threads.size(), m_registered);
        EXPECT_TRUE(IsFree(CWinThread::m_mapMutex));
    }

private:
    std::map<int, std::string> m_descriptors;
    size_t m_registered;
    std::unique_ptr<CallLog> m_locks;
    AllocationCounter m_allocations;
    int m_blocks = 0, m_arrays = 0;
};

// Fails a call in each way of construction, and checks what is thrown, posted and left.
void FailEachWay(Call call, int error, const std::string& what) {
    for (const Way& way : WAYS) {
        SCOPED_TRACE(testing::Message() << way.source << ", way " << &way - WAYS);
        Host::Reset();
        Recorder::Clear();
        NothingLeft left(NothingLeft::LOCKS);
        Made made;
        {
            Interpose fail(call);
            fail.OnThisThread().Fail(error);
            made = Make(way.make);
        }
        left.Stop();
        const std::vector<Host::Error> errors = Host::Errors();
        const bool logs = way.logsFailure && call == Call::PthreadCreate;
        EXPECT_TRUE(SameEvents(Recorder::Events(),
                               logs ? std::vector<ExpectedEvent>{{11, 1, "CWinThread : posix create failed"}}
                                    : std::vector<ExpectedEvent>{}));
        EXPECT_EQ(made.thread, nullptr);
        EXPECT_EQ(made.where, way.source);
        EXPECT_EQ(made.what, what);
        ASSERT_EQ(errors.size(), 1U);
        EXPECT_EQ(errors[0].where, way.source);
        EXPECT_EQ(errors[0].what, what);
        EXPECT_FALSE(errors[0].hasExtra);
        left.Check();
    }
}

TEST(WinThread, Without_a_pipe_construction_throws_and_leaves_nothing) {
    FailEachWay(Call::Pipe, EMFILE, "Could not create pipe.");
}

TEST(WinThread, Without_a_thread_construction_throws_and_leaves_nothing) {
    FailEachWay(Call::PthreadCreate, EAGAIN, "Could not create thread.");
}

TEST(WinThread, Without_a_descriptor_to_be_had_construction_throws) {
    for (const Way& way : WAYS) {
        SCOPED_TRACE(way.source);
        Made made;
        {
            const int lowest = dup(0);
            close(lowest);
            rlimit limit;
            getrlimit(RLIMIT_NOFILE, &limit);
            const rlimit one = {static_cast<rlim_t>(lowest + 1), limit.rlim_max};
            setrlimit(RLIMIT_NOFILE, &one);
            made = Make(way.make);
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        EXPECT_EQ(made.thread, nullptr);
        EXPECT_EQ(made.where, way.source);
        EXPECT_EQ(made.what, "Could not create pipe.");
    }
}

TEST(WinThread, The_failure_to_create_a_thread_is_posted_before_the_error_object_is_made) {
    size_t errors = 99;
    Recorder::Hook hook([&](const Event& event) {
        if (event.text == "CWinThread : posix create failed")
            errors = Host::Errors().size();
    });
    Interpose fail(Call::PthreadCreate);
    fail.OnThisThread().Fail(EAGAIN);
    Make(MakeWithFunction);
    EXPECT_EQ(errors, 0U);
}

TEST(WinThread, Any_failing_allocation_makes_construction_throw_and_leaves_nothing) {
    for (const Way& way : WAYS)
        for (NothingLeft::Counted counted : {NothingLeft::BLOCKS, NothingLeft::LOCKS}) {
            int n = 0;
            for (;;) {
                SCOPED_TRACE(testing::Message() << "way " << &way - WAYS << ", allocation " << ++n);
                ASSERT_LT(n, 100);
                NothingLeft left(counted);
                FailAllocation fail(n);
                const Made made = Make(way.make);
                fail.Stop();
                left.Stop();
                if (!fail.Happened()) {
                    ASSERT_NE(made.thread, nullptr);
                    delete made.thread;
                    break;
                }
                EXPECT_EQ(made.thread, nullptr);
                left.Check();
            }
            EXPECT_GT(n, 4); // object, event, record, entry in the registry
        }
}

TEST(WinThread, AfxBeginThread_without_memory_for_the_object_returns_null) {
    Recorder::Clear();
    FailAllocation fail(1);
    CWinThread* thread = AfxBeginThread(Count, nullptr);
    fail.Stop();
    EXPECT_EQ(thread, nullptr);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{11, 1, "AfxBeginThread : Could not allocate CWinThread."}}));
}

TEST(WinThread, AfxBeginThread_passes_the_exception_on_when_memory_ends_later) {
    FailAllocation fail(2);
    const Made made = Make(MakeByFunction);
    fail.Stop();
    EXPECT_TRUE(made.outOfMemory);
}

TEST(WinThread, AfxBeginThread_deletes_an_object_without_an_id) {
    for (unsigned long flags : {0UL, 1UL}) {
        SCOPED_TRACE(flags);
        Recorder::Clear();
        NothingLeft left(NothingLeft::LOCKS);
        CallLog calls({Call::New, Call::PthreadDetach, Call::PthreadCancel});
        CWinThread* thread;
        {
            Interpose create(Call::PthreadCreate); // succeeds and writes no id
            create.OnThisThread().Return(0);
            thread = AfxBeginThread(Count, nullptr, 0, 0, flags);
        }
        left.Stop();
        EXPECT_EQ(thread, nullptr);
        EXPECT_EQ(calls.Count(Call::PthreadDetach) + calls.Count(Call::PthreadCancel), 0);
        ASSERT_GT(calls.Count(Call::New), 0);
        const CallRecord made = calls.Records().front();
        ASSERT_EQ(made.number, static_cast<long>(sizeof(CWinThread)));
        const auto* object = reinterpret_cast<void*>(made.result);
        EXPECT_TRUE(SameEvents(Recorder::Events(),
                               {{11, 1, "CWinThread::AddThread : id is 0. (thread NOT added)"},
                                {11, 1, Text("AfxBeginThread : Deleting t = %p", object)},
                                {11, 9, "CWinThread : dtor called"},
                                {11, 9, "CWinThread::~CWinThread(,,,,) : Completed thread id = 0x0"}}));
        left.Check();
    }
}

// ---------------------------------------------------------------------------------------------------------
// Running

TEST(WinThread, A_new_thread_waits_at_its_start_until_it_is_resumed) {
    g_runs = 0;
    Recorder::Clear();
    Thread thread(Count, nullptr);
    ASSERT_TRUE(WaitUntilStarted(thread));
    EXPECT_EQ(g_runs, 0);
    EXPECT_FALSE(IsFree(Get<SuspenderMutex>(thread)));
    thread.ResumeThread();
    EXPECT_TRUE(Ends(thread));
    EXPECT_EQ(g_runs, 1);
}

TEST(WinThread, The_function_gets_its_parameter_and_its_result_is_ignored) {
    int parameter = 0;
    const auto setTo5 = [](void* p) -> unsigned int {
        *static_cast<int*>(p) = 5;
        return 0xFFFFFFFF;
    };
    Thread thread(setTo5, &parameter);
    thread.ResumeThread();
    ASSERT_TRUE(Ends(thread));
    EXPECT_EQ(parameter, 5);
}

TEST(WinThread, The_starting_thread_takes_and_releases_the_suspension_mutex_once) {
    Recorder::Clear();
    std::vector<Event> events;
    CWinThread* object = nullptr;
    Gate set;
    bool isFree = false;
    std::function<void()> function = [&] {
        events = AllEventsOf(pthread_self());
        set.Wait();
        isFree = IsFree(Get<SuspenderMutex>(*object));
    };
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &function));
    const pthread_t id = thread->m_nThreadID;
    object = thread.get();
    set.Open();
    ASSERT_TRUE(Ends(*thread));
    EXPECT_TRUE(SameEvents(events, MutexTrace("LU", id)));
    EXPECT_TRUE(isFree);
}

TEST(WinThread, Without_a_function_the_virtual_Main_runs) {
    class Subclass : public CWinThread {
    public:
        using CWinThread::CWinThread;
        void Main() override { caller = GetCurrentThreadId(); }
        unsigned long caller = 0;
    };
    Subclass made, madeWithoutFunction(nullptr, this);
    for (Subclass* thread : {&made, &madeWithoutFunction}) {
        thread->ResumeThread();
        ASSERT_TRUE(Ends(*thread));
        EXPECT_EQ(thread->caller, thread->GetThreadID());
    }
}

TEST(WinThread, With_a_function_Main_does_not_run) {
    class Subclass : public CWinThread {
    public:
        using CWinThread::CWinThread;
        void Main() override { ran = true; }
        bool ran = false;
    };
    g_runs = 0;
    Subclass thread(Count, nullptr);
    thread.ResumeThread();
    ASSERT_TRUE(Ends(thread));
    EXPECT_FALSE(thread.ran);
    EXPECT_EQ(g_runs, 1);
}

TEST(WinThread, The_default_Main_only_warns_that_it_must_be_overridden) {
    Recorder::Clear();
    Thread thread;
    thread.ResumeThread();
    ASSERT_TRUE(Ends(thread));
    const unsigned int id = Short(thread.m_nThreadID);
    EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(thread.m_nThreadID),
                           {{11, 4, "CWinThread::Main() : A subclass must override this method!"},
                            {11, 9, Text("CWinThread::Body() -  Exiting m_nThreadID 0x%x", id)}}));
}

TEST(WinThread, AfxBeginThread_without_a_function_runs_the_default_Main) {
    Recorder::Clear();
    std::unique_ptr<CWinThread> thread(AfxBeginThread(nullptr, nullptr));
    ASSERT_TRUE(Ends(*thread));
    EXPECT_TRUE(Recorder::Has(11, 4, "CWinThread::Main() : A subclass must override this method!"));
}

TEST(WinThread, A_subclass_that_calls_the_default_Main_gets_the_warning) {
    Thread thread;
    Recorder::Clear();
    thread.Main();
    EXPECT_TRUE(SameEvents(Recorder::Events(),
                           {{11, 4, "CWinThread::Main() : A subclass must override this method!"}}));
}

TEST(WinThread, GetCurrentThreadId_is_the_id_of_the_object_on_its_thread) {
    unsigned long id = 0;
    std::function<void()> function = [&] { id = GetCurrentThreadId(); };
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &function));
    ASSERT_TRUE(Ends(*thread));
    EXPECT_EQ(id, static_cast<unsigned long>(thread->m_nThreadID));
    EXPECT_EQ(id, thread->GetThreadID());
    EXPECT_EQ(GetCurrentThreadId(), static_cast<unsigned long>(pthread_self()));
}

TEST(WinThread, A_thread_that_ends_posts_its_id_then_is_marked_then_signals_its_handle) {
    Recorder::Clear();
    Thread thread(Count, nullptr);
    const pthread_t id = thread.m_nThreadID;
    bool posted = false;
    int exitedAtEvent = -1, exitedAtSignal = -1;
    unsigned long signalledAtEvent = 99;
    Recorder::Hook hook([&](const Event& event) {
        if (event.type != 11 || !pthread_equal(event.thread, id))
            return;
        posted = true;
        exitedAtEvent = Get<Exited>(thread);
        signalledAtEvent = WaitForSingleObject(thread.m_hThread, 0);
    });
    Interpose signal(Call::CondBroadcast);
    signal.OnThread(id).Always().Before([&] {
        if (posted && exitedAtSignal == -1)
            exitedAtSignal = Get<Exited>(thread);
    });
    thread.ResumeThread();
    ASSERT_TRUE(Ends(thread));
    EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(id),
                           {{11, 9, Text("CWinThread::Body() -  Exiting m_nThreadID 0x%x", Short(id))}}));
    EXPECT_EQ(exitedAtEvent, 0);
    EXPECT_EQ(signalledAtEvent, static_cast<unsigned long>(WAIT_TIMEOUT));
    EXPECT_EQ(exitedAtSignal, 1);
    EXPECT_TRUE(Get<Exited>(thread));
}

TEST(WinThread, The_handle_stays_signalled_for_every_wait_and_cannot_be_reset) {
    std::unique_ptr<CWinThread> thread(AfxBeginThread(Count, nullptr));
    ASSERT_TRUE(Ends(*thread));
    EXPECT_EQ(ResetEvent(thread->m_hThread), 0);
    for (unsigned long timeoutMs : {0UL, 1UL, INFINITE})
        EXPECT_EQ(WaitForSingleObject(thread->m_hThread, timeoutMs),
                  static_cast<unsigned long>(WAIT_OBJECT_0));
}

TEST(WinThread, An_ended_thread_does_not_delete_its_object_and_stays_registered) {
    const size_t threads = Resources::Threads().size();
    std::unique_ptr<CWinThread> thread(AfxBeginThread(Count, nullptr));
    ASSERT_TRUE(Ends(*thread));
    const Deadline deadline = Deadline::Long();
    while (Resources::Threads().size() > threads && !deadline.Passed())
        sched_yield();
    EXPECT_EQ(Resources::Threads().size(), threads) << "the POSIX thread has not ended";
    EXPECT_EQ(CWinThread::MapIdToWinThread(thread->m_nThreadID), thread.get());
}

// ---------------------------------------------------------------------------------------------------------
// Suspension

TEST(WinThread, SuspendThread_after_a_resume_is_refused) {
    Thread thread(Count, nullptr);
    thread.ResumeThread();
    ASSERT_TRUE(Ends(thread));
    Recorder::Clear();
    EXPECT_EQ(thread.SuspendThread(), 0);
    EXPECT_TRUE(
        SameEvents(Recorder::AllEvents(),
                   {{11, 1, "Thread has already resumed!! Can't suspend after it's been resumed!!"}}));
    EXPECT_EQ(Get<SuspendCount>(thread), 0);
}

TEST(WinThread, SuspendThread_that_cannot_lock_is_refused) {
    Thread thread(Count, nullptr);
    Recorder::Clear();
    Interpose fail(Call::MutexLock);
    fail.OnThisThread().Fail(EINVAL);
    EXPECT_EQ(thread.SuspendThread(), 0);
    EXPECT_TRUE(Recorder::Has(11, 1, "Could not lock suspender mutex"));
    EXPECT_EQ(Get<SuspendCount>(thread), 1);
}

TEST(WinThread, SuspendThread_locks_without_limit_and_counts) {
    Thread thread(Count, nullptr);
    Recorder::Clear();
    {
        Interpose lock(Call::MutexLock); // as if another thread had released it
        lock.OnThisThread().Return(0);
        EXPECT_EQ(thread.SuspendThread(), 1);
    }
    const pthread_t self = pthread_self();
    EXPECT_TRUE(SameEvents(AllEventsOf(self), MutexTrace("L", self)));
    EXPECT_EQ(Get<SuspendCount>(thread), 2);
}

TEST(WinThread, A_second_SuspendThread_waits_until_the_first_is_undone) {
    g_runs = 0;
    Thread thread(Count, nullptr);
    Gate resumed;
    int result = -1;
    Background second([&] {
        result = thread.SuspendThread();
        resumed.Wait();
        thread.ResumeThread();
    });
    ASSERT_TRUE(Recorder::WaitFor([&](const Event& event) {
        return pthread_equal(event.thread, second.Thread()) && event.severity == 8;
    }));
    EXPECT_FALSE(second.Ended());
    thread.ResumeThread();
    resumed.Open();
    EXPECT_TRUE(second.Join());
    EXPECT_EQ(result, 1);
    EXPECT_TRUE(Ends(thread));
    EXPECT_EQ(g_runs, 1);
}

TEST(WinThread, The_last_of_several_resumes_lets_the_thread_go_but_the_first_forbids_suspending) {
    g_runs = 0;
    Thread thread(Count, nullptr);
    {
        Interpose lock(Call::MutexLock);
        lock.OnThisThread().Return(0);
        ASSERT_EQ(thread.SuspendThread(), 1);
    }
    thread.ResumeThread();
    EXPECT_EQ(Get<SuspendCount>(thread), 1);
    EXPECT_TRUE(Get<Resumed>(thread));
    EXPECT_FALSE(IsFree(Get<SuspenderMutex>(thread)));
    EXPECT_EQ(thread.SuspendThread(), 0);
    EXPECT_EQ(g_runs, 0);

    thread.ResumeThread();
    EXPECT_EQ(Get<SuspendCount>(thread), 0);
    EXPECT_TRUE(Ends(thread));
    EXPECT_EQ(g_runs, 1);
}

TEST(WinThread, ResumeThread_unlocks_once_and_posts_nothing_else) {
    Thread thread(Count, nullptr);
    Recorder::Clear();
    thread.ResumeThread();
    const pthread_t self = pthread_self();
    EXPECT_TRUE(SameEvents(AllEventsOf(self), MutexTrace("U", self)));
    EXPECT_EQ(Get<SuspendCount>(thread), 0);
    EXPECT_TRUE(Get<Resumed>(thread));
    EXPECT_TRUE(Ends(thread));
}

TEST(WinThread, ResumeThread_of_a_thread_that_is_not_suspended_changes_nothing) {
    Thread thread(Count, nullptr);
    thread.ResumeThread();
    ASSERT_TRUE(Ends(thread));
    Recorder::Clear();
    thread.ResumeThread();
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 7, "Thread is NOT currently suspended count"}}));
    EXPECT_EQ(Get<SuspendCount>(thread), 0);
    EXPECT_TRUE(IsFree(Get<SuspenderMutex>(thread)));
}

TEST(WinThread, ResumeThread_of_a_thread_that_was_never_suspended_does_not_count_as_a_resume) {
    Interpose fail(Call::MutexLock);
    fail.OnThisThread().Fail(EINVAL);
    Thread thread(Count, nullptr);
    thread.ResumeThread();
    EXPECT_FALSE(Get<Resumed>(thread));
    EXPECT_TRUE(Ends(thread));
}

// ---------------------------------------------------------------------------------------------------------
// AfxBeginThread

TEST(WinThread, AfxBeginThread_runs_the_function_on_a_registered_thread) {
    CWinThread* registered = nullptr;
    std::function<void()> function = [&] { registered = CWinThread::MapIdToWinThread(GetCurrentThreadId()); };
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &function));
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(CWinThread::MapIdToWinThread(thread->m_nThreadID), thread.get());
    ASSERT_TRUE(Ends(*thread));
    EXPECT_EQ(registered, thread.get());
}

TEST(WinThread, AfxBeginThread_looks_at_bit_0_of_the_flags_only) {
    for (unsigned long flags : {0UL, 2UL, 4UL, 0xFFFFFFFEUL}) {
        SCOPED_TRACE(flags);
        g_runs = 0;
        std::unique_ptr<CWinThread> thread(AfxBeginThread(Count, nullptr, 0, 0, flags));
        EXPECT_TRUE(Get<Resumed>(*thread));
        EXPECT_TRUE(Ends(*thread));
        EXPECT_EQ(g_runs, 1);
    }
    for (unsigned long flags : {1UL, 3UL, 0xFFFFFFFFUL}) {
        SCOPED_TRACE(flags);
        g_runs = 0;
        Recorder::Clear();
        std::unique_ptr<CWinThread> thread(AfxBeginThread(Count, nullptr, 0, 0, flags));
        ASSERT_TRUE(WaitUntilStarted(*thread));
        EXPECT_FALSE(Get<Resumed>(*thread));
        EXPECT_EQ(g_runs, 0);
        thread->ResumeThread();
        EXPECT_TRUE(Ends(*thread));
        EXPECT_EQ(g_runs, 1);
    }
    EXPECT_EQ(CREATE_SUSPENDED, 1);
}

// ---------------------------------------------------------------------------------------------------------
// The registry

const unsigned long UNKNOWN_ID = 0x12345671;

// A place to call the members that use nothing of their object.
class Registry {
public:
    Registry() { Recorder::Clear(); }

    void Add(unsigned long id, CWinThread* thread) { m_thread.AddThread(id, thread); }
    void Remove(unsigned long id) { m_thread.RemoveThread(id); }
    CWinThread* Thread() { return &m_thread; }

private:
    CWinThread m_thread;
};

TEST(WinThread, AddThread_registers_an_object_and_posts_the_new_size) {
    Registry registry;
    Thread other;
    Recorder::Clear();
    const size_t before = CWinThread::m_threads.size();
    registry.Add(0x1234567F, &other);
    EXPECT_EQ(CWinThread::m_threads.size(), before + 1);
    EXPECT_TRUE(
        SameEvents(Recorder::Events(),
                   {{11, 9, Text("CWinThread::AddThread : id = 1234567f, map size = %zd", before + 1)}}));
    EXPECT_EQ(CWinThread::MapIdToWinThread(0x1234567F), &other);
    registry.Remove(0x1234567F);
}

TEST(WinThread, AddThread_refuses_the_id_0) {
    Registry registry;
    Recorder::Clear();
    const size_t before = CWinThread::m_threads.size();
    registry.Add(0, registry.Thread());
    EXPECT_EQ(CWinThread::m_threads.size(), before);
    EXPECT_TRUE(
        SameEvents(Recorder::Events(), {{11, 1, "CWinThread::AddThread : id is 0. (thread NOT added)"}}));
}

TEST(WinThread, AddThread_of_a_registered_id_keeps_the_first_object_and_posts_the_same_size) {
    Registry registry;
    Thread other;
    const unsigned long id = registry.Thread()->m_nThreadID;
    const size_t before = CWinThread::m_threads.size();
    Recorder::Clear();
    registry.Add(id, &other);
    EXPECT_EQ(CWinThread::MapIdToWinThread(id), registry.Thread());
    EXPECT_EQ(CWinThread::m_threads.size(), before);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{11, 9, AddedText(id)}}));
}

TEST(WinThread, RemoveThread_reports_what_it_removed) {
    Registry registry;
    registry.Add(0xABC1, registry.Thread());
    Recorder::Clear();
    registry.Remove(0xABC1);
    EXPECT_TRUE(SameEvents(Recorder::Events(),
                           {{11, 9, "CWinThread::RemoveThread : Thread = 0xabc1 removed from map."}}));
    EXPECT_EQ(CWinThread::MapIdToWinThread(0xABC1), nullptr);
}

TEST(WinThread, RemoveThread_reports_an_unknown_id) {
    Registry registry;
    const size_t before = CWinThread::m_threads.size();
    Recorder::Clear();
    registry.Remove(UNKNOWN_ID);
    EXPECT_TRUE(SameEvents(Recorder::Events(),
                           {{11, 1, "CWinThread::RemoveThread : Thread = 0x12345671 not in map."}}));
    EXPECT_EQ(CWinThread::m_threads.size(), before);
}

TEST(WinThread, RemoveThread_of_the_id_0_takes_no_lock_and_posts_nothing) {
    Registry registry;
    Recorder::Clear();
    const size_t before = CWinThread::m_threads.size();
    registry.Remove(0);
    EXPECT_TRUE(AllEventsOf(pthread_self()).empty());
    EXPECT_EQ(CWinThread::m_threads.size(), before);
}

TEST(WinThread, MapIdToWinThread_of_an_unknown_id_is_null) {
    EXPECT_EQ(CWinThread::MapIdToWinThread(UNKNOWN_ID), nullptr);
    EXPECT_EQ(CWinThread::MapIdToWinThread(0), nullptr);
    EXPECT_EQ(CWinThread::MapIdToWinThread(0xFFFFFFFFUL), nullptr);
    EXPECT_EQ(CWinThread::MapIdToWinThread(static_cast<unsigned long>(pthread_self())), nullptr);
}

TEST(WinThread, MapIdToWinThread_posts_only_the_trace_of_its_lock) {
    Registry registry;
    const pthread_t self = pthread_self();
    for (unsigned long id : {UNKNOWN_ID, registry.Thread()->GetThreadID()}) {
        Recorder::Clear();
        CWinThread::MapIdToWinThread(id);
        EXPECT_TRUE(SameEvents(AllEventsOf(self), MutexTrace("LU", self)));
    }
}

TEST(WinThread, Ids_above_0x7FFFFFFF_are_found_and_come_first_in_the_map) {
    Registry registry;
    for (unsigned long id : {0x80000000UL, 0x80000001UL, 0xFFFFFFFFUL}) {
        SCOPED_TRACE(id);
        registry.Add(id, registry.Thread());
        EXPECT_EQ(CWinThread::MapIdToWinThread(id), registry.Thread());
        EXPECT_TRUE(Recorder::Has(11, 9, AddedText(id)));
        EXPECT_EQ(CWinThread::m_threads.count(static_cast<int>(id)), 1U);
        EXPECT_LT(CWinThread::m_threads.begin()->first, 0);
        Recorder::Clear();
        registry.Remove(id);
        EXPECT_TRUE(
            Recorder::Has(11, 9, Text("CWinThread::RemoveThread : Thread = 0x%lx removed from map.", id)));
        EXPECT_EQ(CWinThread::MapIdToWinThread(id), nullptr);
    }
}

TEST(WinThread, The_map_orders_by_signed_comparison) {
    Registry registry;
    const unsigned long ids[] = {1, 0x80000000UL, 0x7FFFFFFF, 0xFFFFFFFFUL};
    for (unsigned long id : ids)
        registry.Add(id, registry.Thread());
    std::vector<int> keys;
    for (const auto& [key, thread] : CWinThread::m_threads)
        keys.push_back(key);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    EXPECT_EQ(keys.front(), -0x7FFFFFFF - 1);
    EXPECT_EQ(keys.back(), 0x7FFFFFFF);
    for (unsigned long id : ids)
        registry.Remove(id);
    static_assert(std::is_same<decltype(CWinThread::m_threads), std::map<int, CWinThread*>>::value, "");
}

TEST(WinThread, The_registry_looks_at_the_low_32_bits_of_an_id) {
    Registry registry;
    const auto high = static_cast<unsigned long>(0x500000000ULL); // 0 where an id has no more than 32
    registry.Add(high + UNKNOWN_ID, registry.Thread());
    EXPECT_EQ(CWinThread::MapIdToWinThread(UNKNOWN_ID), registry.Thread());
    EXPECT_TRUE(Recorder::Has(11, 9, AddedText(UNKNOWN_ID)));
    registry.Remove(UNKNOWN_ID);
    EXPECT_EQ(CWinThread::MapIdToWinThread(high + UNKNOWN_ID), nullptr);

    registry.Add(high, registry.Thread()); // the id 0 is refused by its whole value
    EXPECT_EQ(CWinThread::MapIdToWinThread(high), high != 0 ? registry.Thread() : nullptr);
    registry.Remove(high);
    EXPECT_EQ(CWinThread::MapIdToWinThread(high), nullptr);
}

TEST(WinThread, A_copy_of_an_id_in_an_int_still_finds_the_thread) {
    Thread thread;
    EXPECT_EQ(CWinThread::MapIdToWinThread(Short(thread.m_nThreadID)), &thread);
}

TEST(WinThread, The_registry_lock_is_held_during_its_events_and_free_afterwards) {
    Registry registry;
    std::vector<bool> free;
    const pthread_t self = pthread_self();
    Recorder::Hook hook([&](const Event& event) {
        if (event.type == 11 && pthread_equal(event.thread, self))
            free.push_back(IsFree(CWinThread::m_mapMutex));
    });
    registry.Add(UNKNOWN_ID, registry.Thread());
    registry.Add(UNKNOWN_ID, registry.Thread());
    registry.Remove(UNKNOWN_ID);
    registry.Remove(UNKNOWN_ID);
    EXPECT_EQ(free, (std::vector<bool>{false, false, false, false}));
    EXPECT_TRUE(IsFree(CWinThread::m_mapMutex));
}

TEST(WinThread, Each_call_of_the_registry_takes_its_lock_once) {
    Registry registry;
    const pthread_t self = pthread_self();
    Recorder::Clear();
    registry.Add(UNKNOWN_ID, registry.Thread());
    EXPECT_TRUE(SameEvents(AllEventsOf(self), MutexTrace("L", self) +
                                                  std::vector<ExpectedEvent>{{11, 9, AddedText(UNKNOWN_ID)}} +
                                                  MutexTrace("U", self)));
    Recorder::Clear();
    registry.Remove(UNKNOWN_ID);
    EXPECT_TRUE(
        SameEvents(AllEventsOf(self),
                   MutexTrace("L", self) +
                       std::vector<ExpectedEvent>{
                           {11, 9, "CWinThread::RemoveThread : Thread = 0x12345671 removed from map."}} +
                       MutexTrace("U", self)));
}

TEST(WinThread, Many_threads_begin_and_end_at_once) {
    g_runs = 0;
    Recorder::Pause();
    const size_t before = CWinThread::m_threads.size();
    {
        std::vector<std::unique_ptr<Background>> workers;
        for (int i = 0; i < 4; i++)
            workers.push_back(std::make_unique<Background>([] {
                for (int n = 0; n < 100; n++) {
                    std::unique_ptr<CWinThread> thread(AfxBeginThread(Count, nullptr));
                    ASSERT_EQ(CWinThread::MapIdToWinThread(thread->m_nThreadID), thread.get());
                    ASSERT_TRUE(Ends(*thread));
                }
            }));
        for (auto& worker : workers)
            EXPECT_TRUE(worker->Join());
    }
    EXPECT_EQ(g_runs, 400);
    EXPECT_EQ(CWinThread::m_threads.size(), before);
}

TEST(WinThread, Objects_cannot_be_copied) {
    EXPECT_FALSE(std::is_copy_constructible<CWinThread>::value);
    EXPECT_FALSE(std::is_copy_assignable<CWinThread>::value);
    EXPECT_TRUE(std::has_virtual_destructor<CWinThread>::value);
    EXPECT_TRUE((std::is_same<decltype(&CWinThread::Main), void (CWinThread::*)()>::value));
    EXPECT_TRUE((std::is_same<AFX_THREADPROC, unsigned int (*)(void*)>::value));
}

} // namespace
