// Destroying thread objects in every state of their threads: once at each delicate point, and thousands of
// times. A thread that outlives its object must never touch it again, and nothing of it may be left.
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/SingleLock.h>
#include <Windows/WinThread.h>
#include <Windows/event.h>
#include <Windows/synchelpers.h>

#include "support/deadline.h"
#include "support/emulator.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/resources.h"
#include "support/text.h"

#ifdef __has_feature
#define BUILT_WITH(feature) __has_feature(feature)
#else
#define BUILT_WITH(feature) 0
#endif
#if defined(__SANITIZE_THREAD__) || BUILT_WITH(thread_sanitizer)
#define UNDER_THREAD_SANITIZER 1
#else
#define UNDER_THREAD_SANITIZER 0
#endif
#if defined(__SANITIZE_ADDRESS__) || BUILT_WITH(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER 1
#else
#define UNDER_ADDRESS_SANITIZER 0
#endif

namespace {

class Thread : public CWinThread {
public:
    using CWinThread::CWinThread;
    using CWinThread::m_readDesc;
    using CWinThread::m_writeDesc;
};

bool Ends(const CWinThread& thread) {
    const long limit = static_cast<long>(Deadline::Long().Remaining().count());
    return WaitForSingleObject(thread.m_hThread, static_cast<unsigned long>(limit)) == WAIT_OBJECT_0;
}

bool IsFree(CMutex& mutex) {
    if (pthread_mutex_trylock(mutex.PThreadMutex()) != 0)
        return false;
    pthread_mutex_unlock(mutex.PThreadMutex());
    return true;
}

// Lets others run before something in /proc is looked at again.
void Breathe() {
    const timespec moment = {0, 100000};
    nanosleep(&moment, nullptr);
}

// Waits until at most this many threads are left.
bool ThreadsGoDownTo(size_t count) {
    const Deadline deadline = Deadline::Long();
    while (Resources::Threads().size() > count) {
        if (deadline.Passed())
            return false;
        Breathe();
    }
    return true;
}

// Waits until a thread sleeps in the kernel.
bool FallsAsleep(int tid) {
    Bypass bypass;
    const Deadline deadline = Deadline::Long();
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/stat", tid);
    do {
        char text[256] = "";
        const int fd = open(path, O_RDONLY);
        const ssize_t size = read(fd, text, sizeof text - 1);
        close(fd);
        const char* name = size > 0 ? strrchr(text, ')') : nullptr;
        if (name && name[2] == 'S')
            return true;
        Breathe();
    } while (!deadline.Passed());
    return false;
}

// What the threads of these tests leave behind for them to see.
std::atomic<int> g_runs;    // thread functions that began
std::atomic<int> g_escapes; // threads that went on after their object had gone

void ResetCounters() { g_runs = g_escapes = 0; }

unsigned int ReturnAtOnce(void*) {
    g_runs++;
    return 0;
}

const unsigned int NO_TIMEOUT = 0;
const unsigned int LONG_TIMEOUT = 100000000;

// Waits for a message that never comes.
template <unsigned int timeoutMs> unsigned int WaitInGetMessage(void* tid) {
    g_runs++;
    if (tid)
        *static_cast<std::atomic<int>*>(tid) = static_cast<int>(syscall(SYS_gettid));
    MSG msg;
    ::GetMessage(&msg, nullptr, 0, 0, timeoutMs, false);
    g_escapes++;
    return 0;
}

class InheritsMain : public CWinThread {};

// Threads that are asleep in the read or select of GetMessage when the constructor returns.
template <unsigned int timeoutMs, int count> class BlockedThreads {
public:
    BlockedThreads() {
        const Call call = timeoutMs ? Call::Select : Call::Read;
        CallLog calls({call}, CallLog::AllThreads);
        for (int i = 0; i < count; i++)
            m_threads[i].reset(AfxBeginThread(WaitInGetMessage<timeoutMs>, &m_tids[i]));
        m_asleep = calls.WaitFor(call, count);
        for (int i = 0; i < count && m_asleep; i++)
            m_asleep = FallsAsleep(m_tids[i]);
    }

    bool AreAsleep() const { return m_asleep; }

private:
    std::atomic<int> m_tids[count] = {}; // outlives the threads
    std::unique_ptr<CWinThread> m_threads[count];
    bool m_asleep;
};

// ---------------------------------------------------------------------------------------------------------
// Many times

int StressCount() {
    if (const char* count = getenv("WINDOWS_TEST_STRESS_COUNT"))
        return atoi(count);
    return UNDER_THREAD_SANITIZER ? 500 : 10000;
}

struct Footprint {
    size_t descriptors = Resources::Descriptors().size();
    size_t threads = Resources::Threads().size();
    size_t registered = CWinThread::m_threads.size();
    size_t mappings = Mappings();
    size_t heap = Heap();

    static size_t Mappings() {
        std::ifstream maps("/proc/self/maps");
        size_t count = 0;
        for (std::string line; std::getline(maps, line);)
            count++;
        return count;
    }

    static size_t Heap() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
        return mallinfo2().uordblks;
#else
        return 0;
#endif
    }
};

// The C library keeps at most 40 MiB of stacks of ended threads for new ones; each stack has its guard.
const size_t CACHED_STACK_MAPPINGS = 2 * (40 << 20) / 0x40000;

// Repeats a round that destroys some objects, until they are enough or it takes too long on a busy machine.
// Returns the number of objects, those of the warming up included.
template <class Round> int Stress(Round round, int perRound = 1) {
    ResetCounters();
    Recorder::Pause();
    const int warmUp = 200;
    const int count = warmUp + StressCount();
    const size_t threads = Resources::Threads().size();
    const Deadline limit =
        Deadline::In(std::chrono::milliseconds(static_cast<long>(40000 * Deadline::Multiplier())));
    std::unique_ptr<Footprint> before;
    int done = 0;
    const auto repeat = [&] {
        for (; done < count && !limit.Passed() && !testing::Test::HasFailure(); done += perRound) {
            if (done % 100 == 0) {
                ASSERT_TRUE(ThreadsGoDownTo(threads));
            }
            if (done == warmUp)
                before = std::make_unique<Footprint>();
            round();
        }
    };
    repeat();
    printf("%d objects destroyed after %d for warming up\n", done - warmUp, warmUp);
    const auto check = [&] {
        ASSERT_TRUE(ThreadsGoDownTo(threads));
        ASSERT_TRUE(before) << "it ended while warming up";
        const Footprint after;

        EXPECT_EQ(after.descriptors, before->descriptors);
        EXPECT_EQ(after.threads, before->threads);
        EXPECT_EQ(after.registered, before->registered);
#if !UNDER_THREAD_SANITIZER && !UNDER_ADDRESS_SANITIZER // they keep memory of their own
        if (UnderEmulator()) {
            printf("memory is not compared: %s\n", kNoUnwinding);
        } else {
            EXPECT_LE(after.mappings, before->mappings + CACHED_STACK_MAPPINGS + 50);
            EXPECT_LE(after.heap, before->heap + 64 * 1024);
        }
#endif
        EXPECT_TRUE(IsFree(CWinThread::m_mapMutex));
    };
    check();
    return done;
}

// A destroyed thread that is blocked in read() has its pipe closed under it, as the object goes first and the
// thread may not wake.
const char* const CLOSE_IS_CALLED_A_RACE = "ThreadSanitizer reports each close() during a read() as a race";

TEST(WinThreadDestruction, Thousands_blocked_in_read_leave_nothing_and_never_run_on) {
    if (UNDER_THREAD_SANITIZER)
        GTEST_SKIP() << CLOSE_IS_CALLED_A_RACE;
    Stress([] { ASSERT_TRUE((BlockedThreads<NO_TIMEOUT, 20>().AreAsleep())); }, 20);
    EXPECT_EQ(g_escapes, 0);
}

TEST(WinThreadDestruction, Thousands_blocked_in_select_leave_nothing_and_never_run_on) {
    Stress([] { ASSERT_TRUE((BlockedThreads<LONG_TIMEOUT, 20>().AreAsleep())); }, 20);
    EXPECT_EQ(g_escapes, 0);
}

TEST(WinThreadDestruction, Thousands_never_resumed_leave_nothing_and_never_run) {
    Stress([] { delete AfxBeginThread(ReturnAtOnce, nullptr, 0, 0, CREATE_SUSPENDED); });
    EXPECT_EQ(g_runs, 0);
}

TEST(WinThreadDestruction, Thousands_never_resumed_at_one_address_leave_nothing_and_never_run) {
    Stress([] { CWinThread thread(ReturnAtOnce, nullptr); });
    EXPECT_EQ(g_runs, 0);
}

TEST(WinThreadDestruction, Thousands_just_resumed_that_return_at_once_leave_nothing) {
    const int count = Stress([] { delete AfxBeginThread(ReturnAtOnce, nullptr); });
    EXPECT_LE(g_runs, count);
}

TEST(WinThreadDestruction, Thousands_just_resumed_that_wait_for_a_message_leave_nothing) {
    if (UNDER_THREAD_SANITIZER)
        GTEST_SKIP() << CLOSE_IS_CALLED_A_RACE;
    Stress([] { delete AfxBeginThread(WaitInGetMessage<NO_TIMEOUT>, nullptr); });
}

TEST(WinThreadDestruction, Thousands_just_resumed_that_wait_with_a_timeout_leave_nothing) {
    Stress([] { delete AfxBeginThread(WaitInGetMessage<LONG_TIMEOUT>, nullptr); });
}

TEST(WinThreadDestruction, Thousands_just_resumed_with_an_inherited_Main_leave_nothing) {
    if (UNDER_THREAD_SANITIZER)
        GTEST_SKIP()
            << "the destructor of a subclass changes the class of the object before the library's begins";
    Stress([] {
        InheritsMain thread;
        thread.ResumeThread();
    });
}

TEST(WinThreadDestruction, Thousands_exited_leave_nothing) {
    const int count = Stress(
        [] {
            std::unique_ptr<CWinThread> threads[20];
            for (auto& thread : threads)
                thread.reset(AfxBeginThread(ReturnAtOnce, nullptr));
            for (auto& thread : threads)
                ASSERT_TRUE(Ends(*thread));
        },
        20);
    EXPECT_EQ(g_runs, count);
}

// ---------------------------------------------------------------------------------------------------------
// The order of things

std::vector<Call> EndingCalls() { return {Call::Dup, Call::Close, Call::PthreadDetach, Call::PthreadCancel}; }

std::vector<ExpectedEvent> DestructorEvents(unsigned int id) {
    return {{11, 9, "CWinThread : dtor called"},
            {11, 9, Text("CWinThread::RemoveThread : Thread = 0x%x removed from map.", id)},
            {11, 9, Text("CWinThread::~CWinThread(,,,,) : Completed thread id = 0x%x", id)}};
}

std::vector<std::pair<Call, int>> CallsAndDescriptors(const CallLog& calls) {
    std::vector<std::pair<Call, int>> pairs;
    for (const CallRecord& record : calls.Records())
        pairs.push_back({record.call, record.fd});
    return pairs;
}

typedef std::vector<std::pair<Call, int>> CallList;

TEST(WinThreadDestruction, A_thread_that_has_not_exited_keeps_a_spare_write_end_until_it_is_cancelled) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    const int readDesc = thread->m_readDesc;
    const int writeDesc = thread->m_writeDesc;
    CallLog calls(EndingCalls());
    thread.reset();

    const std::vector<CallRecord> records = calls.Records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(CallsAndDescriptors(calls), (CallList{{Call::Dup, writeDesc},
                                                    {Call::Close, readDesc},
                                                    {Call::Close, writeDesc},
                                                    {Call::PthreadDetach, -1},
                                                    {Call::PthreadCancel, -1},
                                                    {Call::Close, static_cast<int>(records[0].result)}}));
}

TEST(WinThreadDestruction, Without_a_descriptor_to_spare_the_rest_is_done_all_the_same) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    const CallList expected = {{Call::Dup, thread->m_writeDesc},
                               {Call::Close, thread->m_readDesc},
                               {Call::Close, thread->m_writeDesc},
                               {Call::PthreadDetach, -1},
                               {Call::PthreadCancel, -1}};
    Interpose fail(Call::Dup);
    fail.Fail(EMFILE);
    CallLog calls(EndingCalls());
    thread.reset();
    EXPECT_EQ(CallsAndDescriptors(calls), expected);
}

TEST(WinThreadDestruction, An_exited_thread_is_detached_but_not_cancelled) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    thread->ResumeThread();
    ASSERT_TRUE(Ends(*thread));
    const CallList expected = {
        {Call::Close, thread->m_readDesc}, {Call::Close, thread->m_writeDesc}, {Call::PthreadDetach, -1}};
    CallLog calls(EndingCalls());
    thread.reset();
    EXPECT_EQ(CallsAndDescriptors(calls), expected);
}

TEST(WinThreadDestruction, A_locked_out_queue_has_only_its_read_end_closed) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    thread->ResumeThread();
    ASSERT_TRUE(Ends(*thread));
    thread->LockoutMsgQueue();
    const int readDesc = thread->m_readDesc;
    CallLog calls({Call::Close});
    thread.reset();
    EXPECT_EQ(CallsAndDescriptors(calls), (CallList{{Call::Close, readDesc}}));
}

TEST(WinThreadDestruction, A_queue_without_descriptors_has_nothing_closed) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    thread->ResumeThread();
    ASSERT_TRUE(Ends(*thread));
    close(thread->m_readDesc);
    thread->m_readDesc = -1;
    thread->LockoutMsgQueue();
    CallLog calls({Call::Close});
    thread.reset();
    EXPECT_EQ(calls.Count(Call::Close), 0);
}

TEST(WinThreadDestruction, Failing_to_detach_and_to_cancel_is_not_reported) {
    ResetCounters();
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    const unsigned int id = static_cast<unsigned int>(thread->m_nThreadID);
    Recorder::Clear();
    {
        Interpose detach(Call::PthreadDetach), cancel(Call::PthreadCancel);
        detach.OnThisThread().Fail(ESRCH).Before([self = thread->m_nThreadID] { pthread_detach(self); });
        cancel.OnThisThread().Fail(ESRCH);
        thread.reset();
        EXPECT_EQ(detach.Acted(), 1);
        EXPECT_EQ(cancel.Acted(), 1);
    }
    EXPECT_TRUE(SameEvents(Recorder::Events(), DestructorEvents(id)));
    EXPECT_EQ(g_runs, 0);
}

// The number of calls in a log when each event of the destructor came.
std::vector<std::pair<std::string, int>> CallsAtEvents(std::unique_ptr<Thread> thread) {
    std::vector<std::pair<std::string, int>> seen;
    CallLog calls(EndingCalls());
    const pthread_t self = pthread_self();
    Recorder::Hook hook([&](const Event& event) {
        if (event.type == 11 && pthread_equal(event.thread, self))
            seen.push_back({event.format, static_cast<int>(calls.Records().size())});
    });
    thread.reset();
    return seen;
}

TEST(WinThreadDestruction, Queue_and_thread_are_ended_between_the_first_event_and_the_removal) {
    typedef std::vector<std::pair<std::string, int>> Seen;
    EXPECT_EQ(CallsAtEvents(std::make_unique<Thread>(ReturnAtOnce, nullptr)),
              (Seen{{"CWinThread : dtor called", 0},
                    {"CWinThread::RemoveThread : Thread = 0x%x removed from map.", 6},
                    {"CWinThread::~CWinThread(,,,,) : Completed thread id = 0x%x", 6}}));
}

TEST(WinThreadDestruction, An_exited_thread_is_detached_after_its_removal) {
    typedef std::vector<std::pair<std::string, int>> Seen;
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    thread->ResumeThread();
    ASSERT_TRUE(Ends(*thread));
    const Seen seen = CallsAtEvents(std::move(thread));
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[0], (Seen::value_type{"CWinThread : dtor called", 0}));
    EXPECT_EQ(seen[1], (Seen::value_type{"CWinThread::RemoveThread : Thread = 0x%x removed from map.", 2}));
}

TEST(WinThreadDestruction, A_thread_that_has_not_exited_posts_three_events_in_order) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    const unsigned int id = static_cast<unsigned int>(thread->m_nThreadID);
    Recorder::Clear();
    thread.reset();
    EXPECT_TRUE(SameEvents(Recorder::Events(), DestructorEvents(id)));
}

TEST(WinThreadDestruction, An_exited_thread_posts_three_events_in_order) {
    std::unique_ptr<CWinThread> thread(AfxBeginThread(ReturnAtOnce, nullptr));
    const unsigned int id = static_cast<unsigned int>(thread->m_nThreadID);
    ASSERT_TRUE(Ends(*thread));
    Recorder::Clear();
    thread.reset();
    EXPECT_TRUE(SameEvents(Recorder::Events(), DestructorEvents(id)));
}

TEST(WinThreadDestruction, An_entry_that_the_application_removed_is_reported) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    const unsigned int id = static_cast<unsigned int>(thread->m_nThreadID);
    thread->RemoveThread(thread->m_nThreadID);
    Recorder::Clear();
    thread.reset();
    EXPECT_TRUE(Recorder::Has(11, 1, Text("CWinThread::RemoveThread : Thread = 0x%x not in map.", id)));
}

TEST(WinThreadDestruction, The_entry_is_still_there_when_the_thread_is_cancelled) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    CWinThread* object = thread.get();
    const pthread_t id = thread->m_nThreadID;
    CWinThread* found = nullptr;
    Interpose cancel(Call::PthreadCancel);
    cancel.OnThisThread().Before([&] { found = CWinThread::MapIdToWinThread(id); });
    thread.reset();
    EXPECT_EQ(found, object);
    EXPECT_EQ(CWinThread::MapIdToWinThread(id), nullptr);
}

TEST(WinThreadDestruction, The_id_is_zero_before_the_handle_is_closed) {
    auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    const pthread_t* idNow = &thread->m_nThreadID;
    const HANDLE* handleNow = &thread->m_hThread;
    pthread_t id = *idNow; // when the last block was released before the handle was gone
    Interpose release(Call::Delete);
    release.OnThisThread().Always().Before([&] {
        if (*handleNow)
            id = *idNow;
    });
    thread.reset();
    EXPECT_GE(release.Acted(), 3); // event, record, the object itself
    EXPECT_EQ(id, 0U);
}

TEST(WinThreadDestruction, Everything_that_was_allocated_is_released) {
    Recorder::Pause();
    for (bool resumed : {false, true}) {
        SCOPED_TRACE(resumed ? "exited" : "suspended");
        AllocationCounter counter;
        {
            Thread thread(ReturnAtOnce, nullptr);
            if (resumed) {
                thread.ResumeThread();
                ASSERT_TRUE(Ends(thread));
            }
        }
        // One block is shared with the thread, and released by whoever is the last.
        EXPECT_GE(counter.News(), counter.Deletes());
        EXPECT_LE(counter.News(), counter.Deletes() + 1);
        EXPECT_EQ(counter.ArrayNews(), counter.ArrayDeletes());
    }
}

TEST(WinThreadDestruction, A_handle_that_the_application_closed_is_not_closed_again) {
    ResetCounters();
    const size_t threads = Resources::Threads().size();
    auto suspended = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    CloseHandle(suspended->m_hThread);
    suspended.reset();
    ASSERT_TRUE(ThreadsGoDownTo(threads));

    auto exited = std::make_unique<Thread>(ReturnAtOnce, nullptr);
    CloseHandle(exited->m_hThread);
    exited->ResumeThread();
    ASSERT_TRUE(ThreadsGoDownTo(threads));
    EXPECT_EQ(g_runs, 1);
    exited.reset();
}

TEST(WinThreadDestruction, Deleting_through_the_base_runs_the_destructor_of_the_subclass) {
    class Subclass : public CWinThread {
    public:
        explicit Subclass(bool& destroyed) : m_destroyed(destroyed) {}
        ~Subclass() override { m_destroyed = true; }

    private:
        bool& m_destroyed;
    };
    bool destroyed = false;
    CWinThread* thread = new Subclass(destroyed);
    delete thread;
    EXPECT_TRUE(destroyed);
}

// ---------------------------------------------------------------------------------------------------------
// Threads at their start

class Storage {
public:
    void* Address() { return m_bytes; }

private:
    alignas(Thread) unsigned char m_bytes[sizeof(Thread)];
};

void DestroyManyThenRunOneAtTheSameAddress() {
    ResetCounters();
    Storage storage;
    for (int i = 0; i < 100; i++) {
        Thread* thread = new (storage.Address()) Thread(ReturnAtOnce, nullptr);
        thread->~Thread();
    }
    Thread* thread = new (storage.Address()) Thread(ReturnAtOnce, nullptr);
    thread->ResumeThread();
    EXPECT_TRUE(Ends(*thread));
    thread->~Thread();
    EXPECT_EQ(g_runs, 1);
}

TEST(WinThreadDestruction, After_a_hundred_suspended_ones_a_thread_at_their_address_runs_exactly_once) {
    Recorder::Pause();
    DestroyManyThenRunOneAtTheSameAddress();
}

TEST(WinThreadDestruction, The_same_with_a_logger_that_is_a_cancellation_point) {
    Recorder::Hook hook([](const Event&) { pthread_testcancel(); });
    DestroyManyThenRunOneAtTheSameAddress();
}

// Destroys a thread object, in the constructing thread, while its thread is held in an event: from the moment
// when the event came until the destructor has posted its first event, or has cancelled the thread.
class HeldInEvent {
public:
    typedef std::function<bool(const Event&)>
        Filter; // asked for events of other threads than the constructing

    explicit HeldInEvent(Filter filter)
        : m_hook([this, filter = std::move(filter), self = pthread_self()](const Event& event) {
              if (pthread_equal(event.thread, self) || !filter(event))
                  return;
              m_held.Open();
              m_go.Wait();
          }) {}

    enum Until { BEGUN, CANCELLED };

    void Destroy(CWinThread* thread, Until until) {
        ASSERT_TRUE(m_held.Wait());
        CallLog calls({Call::PthreadCancel});
        bool reached = false;
        Background opener([&] {
            reached = until == CANCELLED ? calls.WaitFor(Call::PthreadCancel)
                                         : Recorder::WaitFor({11, 9, "CWinThread : dtor called"});
            m_go.Open();
        });
        delete thread;
        m_wasLetGo = m_go.IsOpen();
        EXPECT_TRUE(opener.Join());
        EXPECT_TRUE(reached);
    }

    // Whether the thread had been let go when the destructor returned.
    bool WasLetGo() const { return m_wasLetGo; }

private:
    Gate m_held, m_go;
    bool m_wasLetGo = false;
    Recorder::Hook m_hook;
};

TEST(WinThreadDestruction, A_thread_in_the_middle_of_its_start_never_runs_once_it_is_destroyed) {
    // Two events for the lock of the suspension mutex, two for its release.
    for (int n = 1; n <= 4; n++) {
        SCOPED_TRACE(testing::Message() << "held in event " << n);
        ResetCounters();
        Recorder::Clear();
        const size_t threads = Resources::Threads().size();
        int events = 0;
        HeldInEvent held([&](const Event&) { return ++events == n; });
        held.Destroy(AfxBeginThread(ReturnAtOnce, nullptr), HeldInEvent::CANCELLED);
        EXPECT_TRUE(held.WasLetGo());
        EXPECT_TRUE(ThreadsGoDownTo(threads));
        EXPECT_EQ(g_runs, 0);
    }
}

TEST(WinThreadDestruction, The_destructor_of_a_suspended_one_waits_until_the_thread_has_left_the_object) {
    ResetCounters();
    const size_t threads = Resources::Threads().size();
    bool isFirst = true;
    HeldInEvent held([&](const Event&) { return std::exchange(isFirst, false); });
    held.Destroy(new Thread(ReturnAtOnce, nullptr), HeldInEvent::CANCELLED);
    EXPECT_TRUE(held.WasLetGo());
    EXPECT_TRUE(ThreadsGoDownTo(threads));
    EXPECT_EQ(g_runs, 0);
}

TEST(WinThreadDestruction, A_thread_in_its_last_event_does_not_touch_the_destroyed_object) {
    ResetCounters();
    const size_t threads = Resources::Threads().size();
    HeldInEvent held(
        [](const Event& event) { return event.format == "CWinThread::Body() -  Exiting m_nThreadID 0x%x"; });
    held.Destroy(AfxBeginThread(ReturnAtOnce, nullptr), HeldInEvent::BEGUN);
    EXPECT_TRUE(ThreadsGoDownTo(threads));
    EXPECT_EQ(g_runs, 1);
}

// ---------------------------------------------------------------------------------------------------------
// What a cancelled thread leaves behind

CMutex g_mutex(false);

// Runs a function on a CWinThread.
unsigned int RunFunction(void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return 0;
}

void RunOnThread(std::function<void()> function) {
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &function));
    EXPECT_TRUE(Ends(*thread));
}

// From here to the end of the thread function a pending cancellation has no effect.
void StopBeingCancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }

TEST(WinThreadDestruction, A_cancellation_in_any_event_of_a_lock_waits_until_the_lock_is_free_again) {
    for (int n = 1; n <= 4; n++) {
        SCOPED_TRACE(testing::Message() << "cancelled in event " << n);
        bool passed = false;
        RunOnThread([&] {
            int events = 0;
            const pthread_t self = pthread_self();
            Recorder::Hook hook([&](const Event& event) {
                if (!pthread_equal(event.thread, self) || ++events != n)
                    return;
                pthread_cancel(self);
                pthread_testcancel();
            });
            { CSingleLock lock(&g_mutex); }
            StopBeingCancelled();
            passed = true;
        });
        EXPECT_TRUE(passed);
        EXPECT_TRUE(IsFree(g_mutex));
    }
}

TEST(WinThreadDestruction, A_thread_can_still_be_cancelled_after_it_used_locks_and_queues) {
    RunOnThread([&] {
        { CSingleLock lock(&g_mutex); }
        PostThreadMessage(GetCurrentThreadId(), 1, 0, nullptr);
        MSG msg;
        EXPECT_EQ(::GetMessage(&msg, nullptr, 0, 0, 0, false), 1);
        int state = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
    });
}

TEST(WinThreadDestruction, A_lock_leaves_cancellation_disabled_where_it_was) {
    RunOnThread([&] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        { CSingleLock lock(&g_mutex); }
        PostThreadMessage(GetCurrentThreadId(), 1, 0, nullptr);
        MSG msg;
        EXPECT_EQ(::PeekMessage(&msg, nullptr, 0, 0, 0), 1);
        int state = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
    });
}

TEST(WinThreadDestruction, A_poster_that_is_cancelled_in_its_write_leaves_the_target_usable) {
    Thread target(ReturnAtOnce, nullptr);
    int result = -1;
    RunOnThread([&] {
        Interpose write(Call::Write);
        write.OnThisThread().Before([] { pthread_cancel(pthread_self()); });
        result = target.PostMessage(1, 0, nullptr);
        StopBeingCancelled();
    });
    EXPECT_EQ(result, 1);
    EXPECT_EQ(target.PostMessage(2, 0, nullptr), 1);
    MSG msg;
    EXPECT_EQ(target.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.message, 1U);
    EXPECT_EQ(target.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.message, 2U);
}

TEST(WinThreadDestruction, A_reader_that_is_cancelled_while_it_drains_finishes_the_drain) {
    Thread target(ReturnAtOnce, nullptr);
    target.PostMessage(1, 0, nullptr);
    {
        Interpose full(Call::Write);
        full.OnThisThread().Always().Fail(EAGAIN);
        target.PostMessage(2, 0, nullptr);
        target.PostMessage(3, 0, nullptr);
    }
    int result = -1;
    RunOnThread([&] {
        Interpose write(Call::Write);
        write.OnThisThread().Before([] { pthread_cancel(pthread_self()); });
        MSG msg;
        result = target.PeekMessage(&msg, 0, 0);
        StopBeingCancelled();
    });
    EXPECT_EQ(result, 1);
    MSG msg;
    EXPECT_EQ(target.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.message, 2U);
    EXPECT_EQ(target.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.message, 3U);
}

TEST(WinThreadDestruction, A_reader_that_is_cancelled_in_any_event_behind_its_read_gets_its_message) {
    constexpr int kEvents = 7; // of a lock and an unlock, of another unlock, and of the message
    for (int n = 1; n <= kEvents; n++) {
        SCOPED_TRACE(testing::Message() << "cancelled in event " << n);
        int result = -1;
        RunOnThread([&] {
            PostThreadMessage(GetCurrentThreadId(), 7, 0, nullptr);
            int events = 0;
            const pthread_t self = pthread_self();
            bool hasRead = false;
            Interpose read(Call::Read);
            read.OnThisThread().After([&] { hasRead = true; });
            Recorder::Hook hook([&](const Event& event) {
                if (!pthread_equal(event.thread, self) || !hasRead || ++events != n)
                    return;
                pthread_cancel(self);
                pthread_testcancel();
            });
            MSG message;
            result = ::GetMessage(&message, nullptr, 0, 0);
            StopBeingCancelled();
            EXPECT_EQ(events, kEvents);
        });
        EXPECT_EQ(result, 1);
    }
}

// A thread that locks, posts to others and looks threads up, over and over.
Thread* g_target;
std::atomic<int> g_loops;

unsigned int LockAndPost(void*) {
    for (int n = 0;; n++) {
        { CSingleLock lock(&g_mutex); }
        if (n < 100)
            PostThreadMessage(g_target->m_nThreadID, 1, 0, nullptr);
        else
            CWinThread::MapIdToWinThread(g_target->m_nThreadID);
        g_loops++; // also orders what the thread did before what comes after its end
        pthread_testcancel();
    }
}

TEST(WinThreadDestruction, Threads_cancelled_among_locks_and_posts_leave_every_lock_free) {
    Recorder::Pause();
    Thread target(ReturnAtOnce, nullptr);
    g_target = &target;
    for (int i = 0; i < 200; i++) {
        const size_t threads = Resources::Threads().size();
        const Deadline deadline = Deadline::Long();
        g_loops = 0;
        CWinThread* thread = AfxBeginThread(LockAndPost, nullptr);
        while (g_loops <= i % 50 && !deadline.Passed())
            Breathe();
        delete thread;
        ASSERT_TRUE(ThreadsGoDownTo(threads));
        ASSERT_GT(g_loops, i % 50);
        ASSERT_TRUE(IsFree(g_mutex));
        ASSERT_TRUE(IsFree(CWinThread::m_mapMutex));
        MSG msg;
        while (target.PeekMessage(&msg, 0, 0)) {
        }
        ASSERT_EQ(target.PostMessage(1, 0, nullptr), 1);
        ASSERT_EQ(target.PeekMessage(&msg, 0, 0), 1);
    }
}

HANDLE g_event;

unsigned int WaitForEvent(void* timeoutMs) {
    WaitForSingleObject(g_event, *static_cast<const unsigned int*>(timeoutMs));
    g_escapes++;
    return 0;
}

TEST(WinThreadDestruction, An_event_stays_usable_when_a_waiting_thread_is_destroyed) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    ResetCounters();
    unsigned int timeouts[] = {static_cast<unsigned int>(INFINITE), 100000000};
    for (unsigned int& timeoutMs : timeouts) {
        SCOPED_TRACE(timeoutMs);
        g_event = CreateEvent(true, false);
        const size_t threads = Resources::Threads().size();
        const Call call = timeoutMs == INFINITE ? Call::CondWait : Call::CondTimedwait;
        CallLog calls({call}, CallLog::AllThreads);
        CWinThread* thread = AfxBeginThread(WaitForEvent, &timeoutMs);
        ASSERT_TRUE(calls.WaitFor(call));
        delete thread;
        ASSERT_TRUE(ThreadsGoDownTo(threads));
        Background user([] {
            EXPECT_EQ(WaitForSingleObject(g_event, 0), static_cast<unsigned long>(WAIT_TIMEOUT));
            EXPECT_EQ(SetEvent(g_event), 1);
            EXPECT_EQ(WaitForSingleObject(g_event, 0), static_cast<unsigned long>(WAIT_OBJECT_0));
        });
        EXPECT_TRUE(user.Join());
        CloseHandle(g_event);
    }
    EXPECT_EQ(g_escapes, 0);
}

unsigned int PollMutex(void*) {
    g_mutex.Lock(1000000000);
    g_escapes++;
    return 0;
}

TEST(WinThreadDestruction, A_thread_that_polls_a_mutex_can_be_destroyed) {
    if (UNDER_ADDRESS_SANITIZER)
        GTEST_SKIP() << "AddressSanitizer does not follow a cancellation out of the host's Sleep()";
    ResetCounters();
    const size_t threads = Resources::Threads().size();
    ASSERT_EQ(g_mutex.Lock(INFINITE), 1);
    CallLog calls({Call::MutexTrylock}, CallLog::AllThreads);
    CWinThread* thread = AfxBeginThread(PollMutex, nullptr);
    ASSERT_TRUE(calls.WaitFor(Call::MutexTrylock));
    delete thread;
    EXPECT_TRUE(ThreadsGoDownTo(threads));
    EXPECT_EQ(g_mutex.Unlock(), 1);
    EXPECT_TRUE(IsFree(g_mutex));
    EXPECT_EQ(g_escapes, 0);
}

// Names a private member: an explicit instantiation may.
template <class Tag, auto Member> struct Reveal {
    friend auto Revealed(Tag) { return Member; }
};
struct OverflowHead {
    friend auto Revealed(OverflowHead);
};
template struct Reveal<OverflowHead, &CWinThread::m_pOverflowHead>;

const void* volatile g_parked; // keeps the nodes known to leak detection

TEST(WinThreadDestruction, Leaves_no_descriptor_in_the_object) {
    alignas(CWinThread) unsigned char memory[sizeof(CWinThread)];
    auto* thread = new (memory) CWinThread(ReturnAtOnce, nullptr);
    const auto offset = reinterpret_cast<unsigned char*>(&thread->m_readDesc) - memory;
    thread->~CWinThread();
    int descriptor = 0;
    memcpy(&descriptor, memory + offset, sizeof descriptor);
    EXPECT_EQ(descriptor, -1) << "a thread that is about to be cancelled may still look";
}

TEST(WinThreadDestruction, Messages_parked_on_the_overflow_list_are_not_released) {
    const int parked = 10;
    int deletes[2];
    for (int round = 0; round < 2; round++) {
        auto thread = std::make_unique<Thread>(ReturnAtOnce, nullptr);
        thread->ResumeThread();
        ASSERT_TRUE(Ends(*thread));
        AllocationCounter parking;
        {
            Interpose full(Call::Write);
            full.OnThisThread().Always().Fail(EAGAIN);
            for (int i = 0; round == 1 && i < parked; i++)
                thread->PostMessage(1, 0, nullptr);
        }
        EXPECT_EQ(parking.News() + parking.Mallocs(), round * parked);
        g_parked = (*thread).*Revealed(OverflowHead());
        AllocationCounter destruction;
        thread.reset();
        deletes[round] = destruction.Deletes();
    }
    EXPECT_LE(deletes[1], deletes[0] + 1); // the thread may release the block that it shares
    Resources::ForgiveBlocks();
}

} // namespace
