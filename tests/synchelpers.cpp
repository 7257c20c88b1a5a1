#include <Windows/synchelpers.h>

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stddef.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/Mutex.h>
#include <Windows/WinThread.h>
#include <Windows/event.h>

#include "support/emulator.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/resources.h"
#include "support/text.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER 1
#endif
#endif
#ifdef __SANITIZE_THREAD__
#define UNDER_THREAD_SANITIZER 1
#endif

namespace {

const unsigned long FOR_EVER = 0xFFFFFFFFUL;
const unsigned int EVENT = 0x1234ABC1, MUTEX = 0x1234ABC2, THREAD = 0x1234ABC3;

static_assert(WAIT_OBJECT_0 == 0 && WAIT_FAILED == 10 && WAIT_TIMEOUT == 20, "the values of this library");
static_assert(static_cast<unsigned int>(HANDLE_TYPE_EVENT) == EVENT &&
                  static_cast<unsigned int>(HANDLE_TYPE_MUTEX) == MUTEX &&
                  static_cast<unsigned int>(HANDLE_TYPE_THREAD) == THREAD,
              "fixed tags");
static_assert(sizeof(HANDLESTRUCT) == 2 * sizeof(void*), "two words");
static_assert(offsetof(HANDLESTRUCT, m_uiType) == 0 && sizeof(HANDLESTRUCT::m_uiType) == 4, "32-bit tag");
static_assert(offsetof(HANDLESTRUCT, m_pObject) == sizeof(void*), "the object follows");
static_assert(std::is_same<HANDLE, HANDLESTRUCT*>::value, "not a void*");

enum Kind { Normal = 0, Recursive = 1, ErrorChecking = 2 };

unsigned long Self() { return static_cast<unsigned long>(pthread_self()); }

// A handle that is closed at the end of the scope.
class Handle {
public:
    Handle(HANDLE handle) : m_handle(handle) {}
    ~Handle() { EXPECT_EQ(CloseHandle(m_handle), 1); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    operator HANDLE() const { return m_handle; }
    HANDLE operator->() const { return m_handle; }

private:
    HANDLE m_handle;
};

HANDLE NewMutex(int kind = Recursive, bool owned = false) {
    return CreateMutex(nullptr, owned, nullptr, kind);
}

// The handle of a thread, as CWinThread makes it.
HANDLE NewThreadHandle() { return CreateHandle(THREAD, new CEvent(true, false)); }

// A result of a function on another thread.
unsigned long OnAnotherThread(const std::function<unsigned long()>& function) {
    unsigned long result = 99;
    Background thread([&] { result = function(); });
    EXPECT_TRUE(thread.Join());
    return result;
}

// Whether another thread can have the mutex; it gives it back.
bool IsFree(HANDLE mutex) {
    return OnAnotherThread([&] {
               return WaitForSingleObject(mutex, 0) == WAIT_OBJECT_0 && ReleaseMutex(mutex) == 1;
           }) == 1;
}

ExpectedEvent CannotWait(const std::string& tag) {
    return {11, 1, "WaitForSingleObject called and I don't know how to wait for this type of object: " + tag};
}

ExpectedEvent CannotDestroy(const std::string& tag) {
    return {11, 1, "CloseHandle called and I don't know how to destroy this type of object: " + tag};
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Making

TEST(synchelpers, CreateHandle_makes_a_record_of_tag_and_object) {
    int object = 0;
    for (unsigned long tag : {0x1234ABC1UL, 0x1234ABC2UL, 0x1234ABC3UL, 0UL, 0xFFFFFFFFUL}) {
        SCOPED_TRACE(tag);
        Recorder::Clear();
        std::unique_ptr<HANDLESTRUCT> handle(CreateHandle(tag, &object));
        EXPECT_EQ(handle->m_uiType, tag);
        EXPECT_EQ(handle->m_pObject, &object);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    }
}

TEST(synchelpers, CreateHandle_keeps_32_bits_of_the_tag) {
    std::unique_ptr<HANDLESTRUCT> handle(
        CreateHandle(static_cast<unsigned long>(0xFFFFFFFF1234ABC1ULL), nullptr));
    EXPECT_EQ(handle->m_uiType, EVENT);
}

TEST(synchelpers, A_handle_is_one_block_and_its_object_another) {
    Recorder::Pause();
    AllocationCounter counter;
    HANDLE record = CreateHandle(EVENT, nullptr);
    const int forRecord = counter.News();
    HANDLE event = CreateEvent(true, false);
    const int forEvent = counter.News();
    HANDLE mutex = CreateMutex(nullptr, false, nullptr, Recursive);
    const int forMutex = counter.News();
    const int others = counter.Mallocs() + counter.Reallocs() + counter.ArrayNews();
    CloseHandle(record);
    CloseHandle(event);
    CloseHandle(mutex);
    const int deletes = counter.Deletes();
    const int balance = counter.Balance();
    EXPECT_EQ(forRecord, 1);
    EXPECT_EQ(forEvent, 3);
    EXPECT_EQ(forMutex, 5);
    EXPECT_EQ(others, 0);
    EXPECT_EQ(deletes, 5);
    EXPECT_EQ(balance, 0);
}

TEST(synchelpers, CreateEvent_passes_manual_reset_and_state_on) {
    Recorder::Clear();
    const struct {
        bool manualReset, initialState;
        unsigned long made, afterSet;
    } cases[] = {
        {true, false, WAIT_TIMEOUT, WAIT_OBJECT_0},
        {true, true, WAIT_OBJECT_0, WAIT_OBJECT_0},
        {false, false, WAIT_TIMEOUT, WAIT_TIMEOUT},
        {false, true, WAIT_OBJECT_0, WAIT_OBJECT_0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("manual %d initial %d", c.manualReset, c.initialState));
        Handle two(CreateEvent(c.manualReset, c.initialState));
        Handle four(CreateEvent(nullptr, c.manualReset, c.initialState, nullptr));
        for (HANDLE event : {static_cast<HANDLE>(two), static_cast<HANDLE>(four)}) {
            EXPECT_EQ(event->m_uiType, EVENT);
            EXPECT_EQ(WaitForSingleObject(event, 0), c.made);
            EXPECT_EQ(SetEvent(event), 1);
            EXPECT_EQ(WaitForSingleObject(event, 0), c.afterSet);
        }
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, CreateEvent_ignores_attributes_and_name) {
    const void* nonsense = reinterpret_cast<const void*>(1); // not dereferenced
    Handle first(CreateEvent(nonsense, true, false, "name"));
    Handle second(CreateEvent(nonsense, true, false, "name"));
    Handle third(CreateEvent(nullptr, true, false, nonsense));
    EXPECT_NE(first->m_pObject, second->m_pObject);
    SetEvent(first);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(third, 0), WAIT_TIMEOUT);
}

TEST(synchelpers, CreateMutex_makes_a_mutex_of_the_kind) {
    for (int kind : {Normal, Recursive, ErrorChecking}) {
        SCOPED_TRACE(kind);
        CallLog log({Call::MutexattrSettype});
        Handle mutex(NewMutex(kind));
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{Text("pthread_mutexattr_settype(%d)", kind)}));
        EXPECT_EQ(mutex->m_uiType, MUTEX);
        EXPECT_TRUE(IsFree(mutex));
        EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(mutex, 0), kind == Recursive ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        if (kind == Recursive)
            ReleaseMutex(mutex);
        EXPECT_EQ(ReleaseMutex(mutex), 1);
    }
}

TEST(synchelpers, CreateMutex_makes_a_recursive_mutex_by_default) {
    CallLog log({Call::MutexattrSettype});
    Handle mutex(CreateMutex(nullptr, false, nullptr));
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"pthread_mutexattr_settype(1)"}));
}

TEST(synchelpers, CreateMutex_makes_the_caller_the_owner_if_told_to) {
    for (int kind : {Normal, Recursive, ErrorChecking}) {
        SCOPED_TRACE(kind);
        Handle mutex(NewMutex(kind, true));
        EXPECT_FALSE(IsFree(mutex));
        EXPECT_EQ(ReleaseMutex(mutex), 1);
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(synchelpers, CreateMutex_posts_the_construction_of_the_mutex_alone) {
    Recorder::Clear();
    Handle mutex(NewMutex(Recursive, true));
    EXPECT_TRUE(SameEvents(
        Recorder::AllEvents(),
        {{23, 9, Text("CMutex Creator Called on thread %lx", Self())},
         {23, 8,
          Text("CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx", FOR_EVER, Self())},
         {23, 9, Text("CMutex::Lock returning true thread %lx", Self())},
         {23, 9, Text("CMutex Creator exiting on thread %lx", Self())}}));
    ReleaseMutex(mutex);
}

TEST(synchelpers, CreateMutex_ignores_attributes_and_name) {
    char name[] = "name";
    const void* nonsense = reinterpret_cast<const void*>(1);
    Handle first(CreateMutex(nonsense, false, name, Recursive));
    Handle second(CreateMutex(nonsense, false, name, Recursive));
    Handle third(CreateMutex(nullptr, false, const_cast<void*>(nonsense), Recursive));
    EXPECT_NE(first->m_pObject, second->m_pObject);
    WaitForSingleObject(first, 0);
    EXPECT_TRUE(IsFree(second));
    EXPECT_TRUE(IsFree(third));
    ReleaseMutex(first);
}

namespace {

// Makes each allocation of a creating function fail in turn. How many there were.
int FailEachAllocation(const std::function<HANDLE()>& create) {
    Recorder::Pause();
    for (int n = 1;; n++) {
        SCOPED_TRACE(Text("allocation %d", n));
        HANDLE handle = nullptr;
        bool thrown = false;
        int balance;
        bool happened;
        {
            FailAllocation fail(n, FailAllocation::OnlyNew);
            AllocationCounter counter;
            try {
                handle = create();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            fail.Stop();
            balance = counter.Balance();
            happened = fail.Happened();
        }
        EXPECT_EQ(thrown, happened);
        if (!happened) {
            if (handle->m_uiType == MUTEX && !IsFree(handle))
                ReleaseMutex(handle);
            EXPECT_EQ(CloseHandle(handle), 1);
            return n - 1;
        }
        EXPECT_EQ(balance, 0); // what was built is freed
    }
}

} // namespace

TEST(synchelpers, Creating_without_memory_throws_and_leaves_nothing) {
    EXPECT_EQ(FailEachAllocation([] { return CreateHandle(EVENT, nullptr); }), 1);
    EXPECT_EQ(FailEachAllocation([] { return CreateEvent(true, false); }), 2);
    EXPECT_EQ(FailEachAllocation([] { return CreateEvent(nullptr, true, false, nullptr); }), 2);
    EXPECT_EQ(FailEachAllocation([] { return NewMutex(Recursive, false); }), 2);
}

TEST(synchelpers, Creating_an_owned_mutex_without_memory_throws_and_leaves_nothing) {
    EXPECT_EQ(FailEachAllocation([] { return NewMutex(Normal, true); }), 2);
}

TEST(synchelpers, Creating_an_owned_mutex_without_memory_destroys_no_mutex_that_is_held) {
    for (int n = 1; n <= 2; n++) {
        SCOPED_TRACE(Text("allocation %d", n));
        Recorder::Clear();
        bool happened;
        {
            FailAllocation fail(n, FailAllocation::OnlyNew);
            try {
                NewMutex(Normal, true);
            } catch (const std::bad_alloc&) {
            }
            fail.Stop();
            happened = fail.Happened();
        }
        EXPECT_TRUE(happened);
        EXPECT_EQ(Recorder::Count(23, 9, Like("CMutex::Lock returning true thread *")),
                  Recorder::Count(23, 9, Like("CMutex::Unlock succeeeded on thread *")));
    }
}

TEST(synchelpers, Functions_are_exported_under_encoded_names_only) {
    for (const char* name : {"_Z12CreateHandlemPv", "_Z11CreateMutexPKvbPvi", "_Z11CreateEventbb",
                             "_Z11CreateEventPKvbbS0_", "_Z19WaitForSingleObjectP12HANDLESTRUCTm",
                             "_Z8SetEventP12HANDLESTRUCT", "_Z10ResetEventP12HANDLESTRUCT",
                             "_Z12ReleaseMutexP12HANDLESTRUCT", "_Z11CloseHandleRP12HANDLESTRUCT"})
        EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
    for (const char* name : {"CreateHandle", "CreateMutex", "CreateEvent", "WaitForSingleObject", "SetEvent",
                             "ResetEvent", "ReleaseMutex", "CloseHandle"})
        EXPECT_EQ(dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

// ---------------------------------------------------------------------------------------------------------
// Waiting for events and threads

TEST(synchelpers, A_wait_for_an_event_does_not_change_it) {
    Handle event(CreateEvent(true, false));
    EXPECT_EQ(WaitForSingleObject(event, 50), WAIT_TIMEOUT);
    EXPECT_EQ(SetEvent(event), 1);
    for (unsigned long timeout : {0UL, 50UL, FOR_EVER, 0UL})
        EXPECT_EQ(WaitForSingleObject(event, timeout), WAIT_OBJECT_0);
    EXPECT_EQ(ResetEvent(event), 1);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(event, 5), WAIT_TIMEOUT);
}

TEST(synchelpers, A_wait_for_an_event_takes_its_time) {
    Handle event(CreateEvent(true, false));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitForSingleObject(event, 50), WAIT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

TEST(synchelpers, A_wait_without_limit_ends_when_the_event_is_set) {
    for (unsigned int tag : {EVENT, THREAD}) {
        SCOPED_TRACE(tag);
        Handle handle(CreateHandle(tag, new CEvent(true, false)));
        CallLog log({Call::CondWait}, CallLog::AllThreads);
        unsigned long result = 99;
        Background waiter([&] { result = WaitForSingleObject(handle, FOR_EVER); });
        ASSERT_TRUE(log.WaitFor(Call::CondWait));
        EXPECT_EQ(SetEvent(handle), 1);
        ASSERT_TRUE(waiter.Join());
        EXPECT_EQ(result, WAIT_OBJECT_0);
    }
}

TEST(synchelpers, A_wait_without_time_for_an_event_neither_waits_nor_posts) {
    Handle event(CreateEvent(true, false));
    Recorder::Clear();
    CallLog log({Call::CondWait, Call::CondTimedwait});
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(log.Texts().empty());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, A_wait_that_ends_with_another_error_has_failed) {
    CEvent* event = new CEvent(true, true);
    Handle handle(CreateHandle(EVENT, event));
    pthread_mutex_t* lock = nullptr;
    ASSERT_EQ(event->WaitForEventSignal(0, &lock), 0);
    pthread_mutex_unlock(lock);
    event->ResetEvent();

    Interpose wait(Call::CondTimedwait);
    wait.OnThisThread().Fail(EINTR).Before([&] {
        pthread_mutex_unlock(lock); // as the real call does
        event->SetEvent();
        pthread_mutex_lock(lock);
    });
    Recorder::Clear();
    EXPECT_EQ(WaitForSingleObject(handle, 60000), WAIT_FAILED);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, Timeouts_have_32_bits) {
    Handle event(CreateEvent(true, false));
    EXPECT_EQ(WaitForSingleObject(event, static_cast<unsigned long>(0x100000000ULL)), WAIT_TIMEOUT);

    CallLog log({Call::CondWait, Call::CondTimedwait, Call::MutexLock, Call::MutexTrylock},
                CallLog::AllThreads);
    Background waiter(
        [&] { EXPECT_EQ(WaitForSingleObject(event, static_cast<unsigned long>(-1)), WAIT_OBJECT_0); });
    ASSERT_TRUE(log.WaitFor(Call::CondWait));
    SetEvent(event);
    ASSERT_TRUE(waiter.Join());

    Host::FakeSleep();
    Handle mutex(NewMutex(Normal, true));
    EXPECT_EQ(WaitForSingleObject(mutex, static_cast<unsigned long>(0x100000019ULL)), WAIT_TIMEOUT);
    EXPECT_EQ(Host::Sleeps(), std::vector<unsigned long>(13, 2));
    ReleaseMutex(mutex);
    log.Clear();
    EXPECT_EQ(WaitForSingleObject(mutex, static_cast<unsigned long>(-1)), WAIT_OBJECT_0);
    EXPECT_EQ(log.Count(Call::MutexTrylock), 0);
    ReleaseMutex(mutex);
}

namespace {

struct Task {
    Gate begun, end;
};

unsigned int RunUntilTold(void* argument) {
    Task& task = *static_cast<Task*>(argument);
    task.begun.Open();
    task.end.Wait();
    return 7; // means nothing
}

class MainThread : public CWinThread {
public:
    explicit MainThread(Task& task) : m_task(task) {}
    void Main() override { RunUntilTold(&m_task); }

private:
    Task& m_task;
};

void ExpectSignalledWhenWorkHasReturned(CWinThread& thread, Task& task) {
    EXPECT_EQ(thread.m_hThread->m_uiType, THREAD);
    EXPECT_TRUE(task.begun.Wait());
    EXPECT_EQ(WaitForSingleObject(thread.m_hThread, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(thread.m_hThread, 5), WAIT_TIMEOUT);
    task.end.Open();
    EXPECT_EQ(WaitForSingleObject(thread.m_hThread, FOR_EVER), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(thread.m_hThread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(ResetEvent(thread.m_hThread), 0);
    EXPECT_EQ(WaitForSingleObject(thread.m_hThread, 0), WAIT_OBJECT_0);
}

} // namespace

TEST(synchelpers, Handle_of_a_thread_is_signalled_when_its_function_has_returned) {
    Task task;
    std::unique_ptr<CWinThread> thread(AfxBeginThread(&RunUntilTold, &task));
    ExpectSignalledWhenWorkHasReturned(*thread, task);
}

TEST(synchelpers, Handle_of_a_thread_is_signalled_when_its_Main_has_returned) {
    Task task;
    MainThread thread(task);
    thread.ResumeThread();
    ExpectSignalledWhenWorkHasReturned(thread, task);
}

namespace {

struct Cancelled {
    Gate begun, never, left;
    std::atomic<int> tid{0};
};

unsigned int WaitToBeCancelled(void* argument) {
    Cancelled& state = *static_cast<Cancelled*>(argument);
    struct AtEnd {
        Gate& gate;
        ~AtEnd() { gate.Open(); }
    } atEnd{state.left};
    state.begun.Open();
    state.never.Wait();
    return 0;
}

bool WaitUntilGone(size_t threads) {
    const Deadline deadline = Deadline::Long();
    while (Resources::Threads().size() > threads)
        if (deadline.Passed())
            return false;
        else
            sched_yield();
    return true;
}

} // namespace

TEST(synchelpers, Handle_of_a_cancelled_thread_is_never_signalled) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    const size_t threads = Resources::Threads().size();
    Cancelled state;
    CWinThread* thread = AfxBeginThread(&WaitToBeCancelled, &state);
    ASSERT_TRUE(state.begun.Wait());
    HANDLE handle = thread->m_hThread;
    thread->m_hThread = nullptr; // so that it outlives the thread
    delete thread;
    ASSERT_TRUE(state.left.Wait());
    ASSERT_TRUE(WaitUntilGone(threads));
    EXPECT_EQ(WaitForSingleObject(handle, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(handle, 5), WAIT_TIMEOUT);
    EXPECT_EQ(CloseHandle(handle), 1);
}

// ---------------------------------------------------------------------------------------------------------
// Waiting for mutexes

TEST(synchelpers, A_wait_for_a_mutex_makes_the_caller_its_owner) {
    for (unsigned long timeout : {0UL, 100UL, FOR_EVER}) {
        SCOPED_TRACE(timeout);
        Handle mutex(NewMutex());
        EXPECT_EQ(WaitForSingleObject(mutex, timeout), WAIT_OBJECT_0);
        EXPECT_FALSE(IsFree(mutex));
        EXPECT_EQ(ReleaseMutex(mutex), 1);
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(synchelpers, A_wait_without_time_for_a_mutex_in_use_tries_once) {
    Host::FakeSleep();
    Handle mutex(NewMutex(Recursive, true));
    CallLog log({Call::MutexTrylock}, CallLog::AllThreads);
    EXPECT_EQ(OnAnotherThread([&] { return WaitForSingleObject(mutex, 0); }), WAIT_TIMEOUT);
    EXPECT_EQ(log.Count(Call::MutexTrylock), 1);
    EXPECT_TRUE(Host::Sleeps().empty());
    ReleaseMutex(mutex);
}

TEST(synchelpers, A_wait_for_a_mutex_in_use_polls) {
    Host::FakeSleep();
    Handle mutex(NewMutex(Normal, true));
    CallLog log({Call::MutexTrylock});
    EXPECT_EQ(WaitForSingleObject(mutex, 1000), WAIT_TIMEOUT);
    EXPECT_EQ(log.Count(Call::MutexTrylock), 10);
    EXPECT_EQ(Host::Sleeps(), std::vector<unsigned long>(10, 100));
    ReleaseMutex(mutex);
}

TEST(synchelpers, A_wait_without_limit_for_a_mutex_blocks_until_it_is_released) {
    Handle mutex(NewMutex(Normal, true));
    std::atomic<bool> released{false};
    bool releasedFirst = false;
    CallLog log({Call::MutexLock, Call::MutexTrylock}, CallLog::AllThreads);
    Background waiter([&] {
        EXPECT_EQ(WaitForSingleObject(mutex, FOR_EVER), WAIT_OBJECT_0);
        releasedFirst = released;
        EXPECT_EQ(ReleaseMutex(mutex), 1);
    });
    ASSERT_TRUE(log.WaitFor(Call::MutexLock));
    released = true;
    EXPECT_EQ(ReleaseMutex(mutex), 1);
    ASSERT_TRUE(waiter.Join());
    EXPECT_TRUE(releasedFirst);
    EXPECT_EQ(log.Count(Call::MutexTrylock), 0);
}

TEST(synchelpers, A_wait_for_a_mutex_that_fails_looks_like_a_timeout) {
    Handle mutex(NewMutex(ErrorChecking, true));
    Recorder::Clear();
    EXPECT_EQ(WaitForSingleObject(mutex, FOR_EVER), WAIT_TIMEOUT);
    EXPECT_EQ(Recorder::Count(23, 1, "FAILED to lock mutex"), 1);
    ReleaseMutex(mutex);
}

TEST(synchelpers, A_wait_posts_nothing_but_the_events_of_the_mutex) {
    Handle mutex(NewMutex());
    Recorder::Clear();
    WaitForSingleObject(mutex, 0);
    ReleaseMutex(mutex);
    EXPECT_EQ(Recorder::AllEvents().size(), 4u);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {})); // mutex events left out
}

// ---------------------------------------------------------------------------------------------------------
// Records that are no objects of this library

TEST(synchelpers, A_wait_for_a_record_without_object_fails_without_an_event) {
    for (unsigned int tag : {EVENT, MUTEX, THREAD}) {
        SCOPED_TRACE(tag);
        Handle handle(CreateHandle(tag, nullptr));
        Recorder::Clear();
        for (unsigned long timeout : {0UL, 1UL, FOR_EVER})
            EXPECT_EQ(WaitForSingleObject(handle, timeout), WAIT_FAILED);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    }
}

TEST(synchelpers, A_wait_for_an_unknown_tag_fails_with_an_event_that_names_the_tag) {
    int object = 0;
    const struct {
        unsigned int tag;
        const char* text;
    } cases[] = {{0, "0x0"},
                 {1, "0x1"},
                 {0x1234ABC0, "0x1234abc0"},
                 {0x1234ABC4, "0x1234abc4"},
                 {0xFFFFFFFF, "0xffffffff"}};
    for (const auto& c : cases)
        for (void* p : {static_cast<void*>(&object), static_cast<void*>(nullptr)}) {
            SCOPED_TRACE(Text("tag %x object %d", c.tag, p != nullptr));
            HANDLESTRUCT record = {c.tag, p};
            for (unsigned long timeout : {0UL, FOR_EVER}) {
                Recorder::Clear();
                EXPECT_EQ(WaitForSingleObject(&record, timeout), WAIT_FAILED);
                EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {CannotWait(c.text)}));
            }
        }
}

TEST(synchelpers, Closing_an_unknown_tag_with_an_object_leaves_all_as_it_is_and_posts_an_event) {
    int object = 0;
    const struct {
        unsigned int tag;
        const char* text;
    } cases[] = {
        {0, "0x0"}, {0x1234ABC0, "0x1234abc0"}, {0x1234ABC4, "0x1234abc4"}, {0xFFFFFFFF, "0xffffffff"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        HANDLE handle = CreateHandle(c.tag, &object);
        const std::unique_ptr<HANDLESTRUCT> record(handle);
        Recorder::Clear();
        EXPECT_EQ(CloseHandle(handle), 0);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {CannotDestroy(c.text)}));
        EXPECT_EQ(handle, record.get());
        EXPECT_EQ(record->m_uiType, c.tag);
        EXPECT_EQ(record->m_pObject, &object);
    }
}

TEST(synchelpers, Closing_a_record_without_object_frees_it_whatever_its_tag) {
    for (unsigned int tag : {EVENT, MUTEX, THREAD, 0u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(tag);
        Recorder::Clear();
        AllocationCounter counter;
        HANDLE handle = CreateHandle(tag, nullptr);
        const int result = CloseHandle(handle);
        const int balance = counter.Balance();
        EXPECT_EQ(result, 1);
        EXPECT_EQ(balance, 0);
        EXPECT_EQ(handle, nullptr);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    }
}

TEST(synchelpers, Events_of_unknown_tags_are_formatted) {
    int object = 0;
    HANDLESTRUCT record = {0, &object};
    HANDLE handle = &record;
    Recorder::Clear();
    WaitForSingleObject(handle, 0);
    CloseHandle(handle);
    const std::vector<Event> events = Recorder::Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].format,
              "WaitForSingleObject called and I don't know how to wait for this type of object: 0x%lx");
    EXPECT_EQ(events[1].format,
              "CloseHandle called and I don't know how to destroy this type of object: 0x%lx");
    for (const Event& event : events)
        EXPECT_EQ(event.entry, Event::Format) << event;
}

// ---------------------------------------------------------------------------------------------------------
// Setting, resetting, releasing, closing

TEST(synchelpers, SetEvent_sets_events_and_threads_and_nothing_else) {
    Handle event(CreateEvent(true, false)), thread(NewThreadHandle()), mutex(NewMutex());
    Recorder::Clear();
    EXPECT_EQ(SetEvent(event), 1);
    EXPECT_EQ(SetEvent(thread), 1);
    EXPECT_EQ(SetEvent(mutex), 0);
    EXPECT_EQ(SetEvent(nullptr), 0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, ResetEvent_resets_events_and_nothing_else) {
    Handle event(CreateEvent(true, true)), thread(NewThreadHandle()), mutex(NewMutex());
    SetEvent(thread);
    Recorder::Clear();
    EXPECT_EQ(ResetEvent(event), 1);
    EXPECT_EQ(ResetEvent(thread), 0);
    EXPECT_EQ(ResetEvent(mutex), 0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0); // a thread that has ended stays ended
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, Records_without_object_and_unknown_tags_are_neither_set_nor_reset_nor_released) {
    int object = 0;
    Recorder::Clear();
    for (unsigned int tag : {EVENT, MUTEX, THREAD, 0u}) {
        SCOPED_TRACE(tag);
        HANDLESTRUCT record = {tag, nullptr};
        EXPECT_EQ(SetEvent(&record), 0);
        EXPECT_EQ(ResetEvent(&record), 0);
        EXPECT_EQ(ReleaseMutex(&record), 0);
    }
    for (unsigned int tag : {0u, 0x1234ABC4u}) {
        HANDLESTRUCT record = {tag, &object};
        EXPECT_EQ(SetEvent(&record), 0);
        EXPECT_EQ(ResetEvent(&record), 0);
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, ReleaseMutex_of_no_handle_returns_0) {
    Recorder::Clear();
    EXPECT_EQ(ReleaseMutex(nullptr), 0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, ReleaseMutex_returns_what_the_unlock_returned) {
    Handle mutex(NewMutex(ErrorChecking, true));
    {
        Interpose fail(Call::MutexUnlock);
        fail.OnThisThread().Fail(EPERM);
        EXPECT_EQ(ReleaseMutex(mutex), 0);
    }
    EXPECT_EQ(ReleaseMutex(mutex), 1);
}

TEST(synchelpers, ReleaseMutex_of_a_mutex_that_nobody_holds_is_left_to_the_kind) {
#ifdef UNDER_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer reports the misuse";
#endif
    for (int kind : {Normal, Recursive, ErrorChecking}) {
        SCOPED_TRACE(kind);
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, kind);
        pthread_mutex_t plain;
        pthread_mutex_init(&plain, &attributes);
        Handle mutex(NewMutex(kind));
        EXPECT_EQ(ReleaseMutex(mutex), pthread_mutex_unlock(&plain) == 0 ? 1 : 0);
        if (kind != Recursive) {
            EXPECT_EQ(ReleaseMutex(mutex), kind == Normal ? 1 : 0);
        }
        pthread_mutex_destroy(&plain);
        pthread_mutexattr_destroy(&attributes);
    }
}

TEST(synchelpers, ReleaseMutex_does_not_look_at_the_tag) {
    CMutex mutex;
    for (unsigned int tag : {EVENT, THREAD, 0u}) {
        SCOPED_TRACE(tag);
        HANDLESTRUCT record = {tag, &mutex};
        mutex.Lock();
        EXPECT_EQ(ReleaseMutex(&record), 1);
    }
    EXPECT_EQ(mutex.Lock(0), 1);
    mutex.Unlock();
}

TEST(synchelpers, CloseHandle_destroys_object_and_record_and_clears_the_variable) {
    HANDLE(*const make[])
    () = {[] { return CreateEvent(true, false); }, [] { return NewMutex(); }, &NewThreadHandle};
    for (const auto& create : make) {
        SCOPED_TRACE(&create - make);
        Recorder::Pause();
        AllocationCounter counter;
        HANDLE handle = create();
        const int result = CloseHandle(handle);
        const int deletes = counter.Deletes();
        const int balance = counter.Balance();
        Recorder::Resume();
        EXPECT_EQ(result, 1);
        EXPECT_EQ(handle, nullptr);
        EXPECT_EQ(deletes, 2);
        EXPECT_EQ(balance, 0);
        EXPECT_EQ(CloseHandle(handle), 1); // nothing to close
    }
}

TEST(synchelpers, CloseHandle_runs_the_destructor_before_it_frees) {
#ifdef UNDER_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer reports the use of a destroyed mutex";
#endif
    HANDLE handle = NewMutex();
    pthread_mutex_t* mutex = static_cast<CMutex*>(handle->m_pObject)->PThreadMutex();
    int state = 0;
    {
        Interpose freeing(Call::Delete);
        freeing.OnThisThread().Before([&] { state = pthread_mutex_trylock(mutex); });
        CloseHandle(handle);
        freeing.When([](const CallRecord&) { return false; });
        EXPECT_EQ(freeing.Acted(), 1);
    }
    EXPECT_EQ(state, EINVAL); // what a destroyed mutex answers
}

TEST(synchelpers, CloseHandle_posts_nothing) {
    HANDLE event = CreateEvent(true, false);
    HANDLE mutex = NewMutex();
    HANDLE thread = NewThreadHandle();
    Recorder::Clear();
    CloseHandle(event);
    CloseHandle(mutex);
    CloseHandle(thread);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(synchelpers, CloseHandle_of_no_handle_returns_1) {
    HANDLE handle = nullptr;
    Recorder::Clear();
    EXPECT_EQ(CloseHandle(handle), 1);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}
