#include <Windows/Mutex.h>

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/SingleLock.h>
#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>

#include "support/emulator.h"
#include "support/interpose.h"
#include "support/monitor.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/text.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER 1
#endif
#if __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define UNDER_ADDRESS_SANITIZER 1
#endif
#ifdef __SANITIZE_THREAD__
#define UNDER_THREAD_SANITIZER 1
#endif

namespace {

static_assert(sizeof(CMutex) == sizeof(pthread_mutex_t), "the mutex is the only member");
static_assert(alignof(CMutex) == alignof(pthread_mutex_t), "the mutex is the only member");
static_assert(std::is_standard_layout<CMutex>::value, "no base class");
static_assert(!std::is_polymorphic<CMutex>::value, "nothing virtual");
static_assert(!std::is_copy_constructible<CMutex>::value, "a lock is not copied");
static_assert(!std::is_copy_assignable<CMutex>::value, "a lock is not copied");
static_assert(!std::is_constructible<CMutex, bool, const char*>::value, "mutexes have no names");
static_assert(INFINITE == 0xFFFFFFFFUL, "32 bits on every platform");

const unsigned long FOR_EVER = 0xFFFFFFFFUL;

enum Kind { Normal = 0, Recursive = 1, ErrorChecking = 2 };

static_assert(int(Normal) == PTHREAD_MUTEX_NORMAL && int(Recursive) == PTHREAD_MUTEX_RECURSIVE &&
                  int(ErrorChecking) == PTHREAD_MUTEX_ERRORCHECK,
              "the platform's own numbering");

unsigned long Self() { return static_cast<unsigned long>(pthread_self()); }

// The events of CMutex, as the calling thread posts them.
ExpectedEvent LockCalled(unsigned long timeout) {
    return {23, 8,
            Text("CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx", timeout, Self())};
}

ExpectedEvent LockReturns(bool result) {
    return {23, 9, Text("CMutex::Lock returning %s thread %lx", result ? "true" : "false", Self())};
}

const ExpectedEvent LOCK_FAILED = {23, 1, "FAILED to lock mutex"};

ExpectedEvent UnlockCalled() { return {23, 8, Text("CMutex::UnLock Being Called on thread %lx", Self())}; }

ExpectedEvent UnlockSucceeds() { return {23, 9, Text("CMutex::Unlock succeeeded on thread %lx", Self())}; }

const ExpectedEvent UNLOCK_FAILED = {23, 1, "FAILED to unlock mutex"};

ExpectedEvent CreatorCalled() { return {23, 9, Text("CMutex Creator Called on thread %lx", Self())}; }

ExpectedEvent CreatorExits() { return {23, 9, Text("CMutex Creator exiting on thread %lx", Self())}; }

bool IsMutexEvent(const Event& event) { return event.type == 23; }

testing::AssertionResult Posted(const std::vector<ExpectedEvent>& expected) {
    return SameEvents(Recorder::AllEvents(), expected);
}

// The result of an expression on another thread.
int OnAnotherThread(const std::function<int()>& function) {
    int result = -1;
    Background thread([&] { result = function(); });
    EXPECT_TRUE(thread.Join());
    return result;
}

// Whether another thread can have the mutex; it gives it back.
bool IsFree(CMutex& mutex) {
    return OnAnotherThread([&] { return mutex.Lock(0) == 1 && mutex.Unlock() == 1; }) == 1;
}

// Storage for a mutex that may be looked at before and after its life.
class Storage {
public:
    Storage() : m_bytes() {}

    void* Address() { return m_bytes; }
    CMutex& Mutex() { return *std::launder(reinterpret_cast<CMutex*>(m_bytes)); }

private:
    alignas(CMutex) unsigned char m_bytes[sizeof(CMutex)];
};

// Calls that the test support does not record: how often the calling thread made them, and a result for the
// next one instead of the real one.
struct OwnCalls {
    int mutexDestroy, attributesInit, attributesDestroy;
    int destroyResult;
};

thread_local OwnCalls t_calls;

template <class Function> Function Real(Function, const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
    static const auto real = Real(&pthread_mutex_destroy, "pthread_mutex_destroy");
    t_calls.mutexDestroy++;
    const int result = real(mutex);
    return t_calls.destroyResult ? t_calls.destroyResult : result;
}

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t* attributes) noexcept {
    static const auto real = Real(&pthread_mutexattr_init, "pthread_mutexattr_init");
    t_calls.attributesInit++;
    return real(attributes);
}

extern "C" int pthread_mutexattr_destroy(pthread_mutexattr_t* attributes) noexcept {
    static const auto real = Real(&pthread_mutexattr_destroy, "pthread_mutexattr_destroy");
    t_calls.attributesDestroy++;
    return real(attributes);
}

// ---------------------------------------------------------------------------------------------------------
// The object

TEST(Mutex, Is_its_pthread_mutex) {
    CMutex mutex;
    EXPECT_EQ(static_cast<void*>(mutex.PThreadMutex()), static_cast<void*>(&mutex));
}

TEST(Mutex, PThreadMutex_posts_nothing) {
    CMutex mutex;
    Recorder::Clear();
    mutex.PThreadMutex();
    EXPECT_TRUE(Posted({}));
}

TEST(Mutex, PThreadMutex_and_the_object_are_the_same_lock) {
    CMutex mutex;
    ASSERT_EQ(pthread_mutex_lock(mutex.PThreadMutex()), 0);
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), 0);
    ASSERT_EQ(pthread_mutex_unlock(mutex.PThreadMutex()), 0);

    EXPECT_EQ(mutex.Lock(), 1);
    EXPECT_EQ(OnAnotherThread([&] { return pthread_mutex_trylock(mutex.PThreadMutex()); }), EBUSY);
    EXPECT_EQ(mutex.Unlock(), 1);
}

TEST(Mutex, Default_kind_is_made_free_and_posts_nothing) {
    Recorder::Clear();
    CallLog log({Call::MutexInit, Call::MutexattrSettype, Call::MutexLock, Call::MutexTrylock});
    const int attributes = t_calls.attributesInit;
    CMutex mutex(false);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"pthread_mutex_init()"}));
    EXPECT_EQ(t_calls.attributesInit, attributes);
    EXPECT_TRUE(Posted({}));
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, Default_kind_can_be_held_from_the_start) {
    CMutex mutex(true);
    EXPECT_FALSE(IsFree(mutex));
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, Default_kind_held_from_the_start_posts_its_lock_without_limit) {
    Recorder::Clear();
    CMutex mutex(true);
    EXPECT_TRUE(Posted({LockCalled(FOR_EVER), LockReturns(true)}));
    mutex.Unlock();
}

TEST(Mutex, A_single_integer_means_held_and_not_a_kind) {
    CMutex mutex(Recursive);
    EXPECT_FALSE(IsFree(mutex));
    EXPECT_EQ(mutex.Lock(0), 0); // not recursive
    mutex.Unlock();
}

TEST(Mutex, Default_kind_is_not_recursive) {
    CMutex mutex;
    EXPECT_EQ(mutex.Lock(), 1);
    EXPECT_EQ(mutex.Lock(0), 0);
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, Default_kind_locked_twice_by_one_thread_times_out) {
    Host::FakeSleep();
    CMutex mutex(true);
    EXPECT_EQ(mutex.Lock(1000), 0);
    EXPECT_EQ(Host::Sleeps().size(), 10u);
    mutex.Unlock();
}

TEST(Mutex, Default_kind_does_not_notice_an_unlock_by_nobody) {
#ifdef UNDER_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer reports the misuse";
#endif
    CMutex mutex;
    Recorder::Clear();
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_TRUE(Posted({UnlockCalled(), UnlockSucceeds()}));
}

TEST(Mutex, Destruction_destroys_the_pthread_mutex_and_posts_nothing) {
    Storage storage;
    new (storage.Address()) CMutex;
    Recorder::Clear();
    const int before = t_calls.mutexDestroy;
    storage.Mutex().~CMutex();
    EXPECT_EQ(t_calls.mutexDestroy, before + 1);
    EXPECT_TRUE(Posted({}));
}

TEST(Mutex, Destruction_ignores_failure) {
    Storage storage;
    new (storage.Address()) CMutex(Recursive, false);
    Recorder::Clear();
    t_calls.destroyResult = EBUSY;
    storage.Mutex().~CMutex();
    t_calls.destroyResult = 0;
    EXPECT_TRUE(Posted({}));
}

TEST(Mutex, Of_a_kind_posts_its_construction) {
    Recorder::Clear();
    CMutex mutex(Normal, false);
    EXPECT_TRUE(Posted({CreatorCalled(), CreatorExits()}));
}

TEST(Mutex, Of_a_kind_is_made_free_unless_told_otherwise) {
    for (int kind : {Normal, Recursive, ErrorChecking}) {
        SCOPED_TRACE(kind);
        CMutex mutex(kind, false);
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(Mutex, Of_a_kind_held_from_the_start_posts_its_lock_between_the_lines_of_the_construction) {
    for (int kind : {Normal, Recursive, ErrorChecking}) {
        SCOPED_TRACE(kind);
        Recorder::Clear();
        CMutex mutex(kind, true);
        EXPECT_TRUE(Posted({CreatorCalled(), LockCalled(FOR_EVER), LockReturns(true), CreatorExits()}));
        EXPECT_FALSE(IsFree(mutex));
        EXPECT_EQ(mutex.Unlock(), 1);
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(Mutex, Kinds_reach_the_platform_unchanged) {
    for (int kind : {0, 1, 2, 3, 77, -1}) { // those that the platform refuses too
        SCOPED_TRACE(kind);
        CallLog log({Call::MutexInit, Call::MutexattrSettype});
        CMutex mutex(kind, false);
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{Text("pthread_mutexattr_settype(%d)", kind),
                                                         "pthread_mutex_init()"}));
    }
}

TEST(Mutex, Attributes_are_made_and_destroyed) {
    const OwnCalls before = t_calls;
    CMutex mutex(Recursive, false);
    EXPECT_EQ(t_calls.attributesInit, before.attributesInit + 1);
    EXPECT_EQ(t_calls.attributesDestroy, before.attributesDestroy + 1);
}

TEST(Mutex, Construction_is_announced_before_its_first_call_and_after_its_last) {
    CallLog log({Call::MutexInit, Call::MutexattrSettype});
    std::vector<size_t> callsAtEvent;
    std::vector<int> attributesDestroyed;
    {
        Recorder::Hook hook([&](const Event&) {
            callsAtEvent.push_back(log.Texts().size());
            attributesDestroyed.push_back(t_calls.attributesDestroy);
        });
        CMutex mutex(Recursive, false);
    }
    EXPECT_EQ(callsAtEvent, (std::vector<size_t>{0, 2}));
    ASSERT_EQ(attributesDestroyed.size(), 2u);
    EXPECT_EQ(attributesDestroyed[1], attributesDestroyed[0] + 1);
}

TEST(Mutex, A_refused_kind_is_not_reported_and_leaves_the_default_kind) {
    Interpose fail(Call::MutexattrSettype);
    fail.OnThisThread().Fail(EINVAL);
    Recorder::Clear();
    CMutex mutex(Recursive, false);
    EXPECT_EQ(fail.Acted(), 1);
    EXPECT_TRUE(Posted({CreatorCalled(), CreatorExits()}));
    EXPECT_EQ(mutex.Lock(0), 1);
    EXPECT_EQ(mutex.Lock(0), 0);
    mutex.Unlock();
}

TEST(Mutex, Failed_initialisation_is_not_reported) {
    Storage byKind, byDefault; // zero, as an uninitialised mutex would be by chance
    {
        Interpose fail(Call::MutexInit);
        fail.OnThisThread().Always().Fail(ENOMEM);
        Recorder::Clear();
        new (byKind.Address()) CMutex(Normal, false);
        EXPECT_TRUE(Posted({CreatorCalled(), CreatorExits()}));
        Recorder::Clear();
        new (byDefault.Address()) CMutex(false);
        EXPECT_TRUE(Posted({}));
        EXPECT_EQ(fail.Acted(), 2);
    }
    byKind.Mutex().~CMutex();
    byDefault.Mutex().~CMutex();
}

TEST(Mutex, Loading_the_library_posts_the_construction_of_one_mutex) {
    // The one of the BSTR functions; the thread registry's is of the default kind and silent.
    EXPECT_TRUE(SameEvents(Recorder::LoadEvents(), {CreatorCalled(), CreatorExits()}));
}

// ---------------------------------------------------------------------------------------------------------
// What is posted

TEST(Mutex, A_lock_and_its_unlock_post_four_events) {
    CMutex mutex;
    Recorder::Clear();
    EXPECT_EQ(mutex.Lock(FOR_EVER), 1);
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_TRUE(Posted({LockCalled(FOR_EVER), LockReturns(true), UnlockCalled(), UnlockSucceeds()}));
}

TEST(Mutex, Texts_are_spelled_as_log_readers_know_them) {
    CMutex mutex;
    Recorder::Clear();
    mutex.Lock(250);
    mutex.Unlock();
    const std::vector<Event> events = Recorder::AllEvents();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].format, "CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx");
    EXPECT_EQ(events[1].format, "CMutex::Lock returning %s thread %lx");
    EXPECT_EQ(events[2].format, "CMutex::UnLock Being Called on thread %lx");
    EXPECT_EQ(events[3].format, "CMutex::Unlock succeeeded on thread %lx");
    for (const Event& event : events)
        EXPECT_EQ(event.entry, Event::Format) << event;
}

TEST(Mutex, Events_name_the_thread_that_posts_them) {
    CMutex mutex;
    Recorder::Clear();
    std::vector<ExpectedEvent> expected;
    pthread_t thread;
    OnAnotherThread([&] {
        thread = pthread_self();
        expected = {LockCalled(7), LockReturns(true), UnlockCalled(), UnlockSucceeds()};
        mutex.Lock(7);
        return mutex.Unlock();
    });
    EXPECT_TRUE(Posted(expected));
    for (const Event& event : Recorder::AllEvents())
        EXPECT_TRUE(pthread_equal(event.thread, thread)) << event;
}

TEST(Mutex, Timeouts_are_posted_as_they_were_given) {
    Host::FakeSleep();
    CMutex mutex;
    for (unsigned long timeout : {0UL, 1UL, 9UL, 1000UL, 0x80000000UL, 0xFFFFFFFEUL, FOR_EVER}) {
        SCOPED_TRACE(timeout);
        Recorder::Clear();
        EXPECT_EQ(mutex.Lock(timeout), 1);
        EXPECT_TRUE(Posted({LockCalled(timeout), LockReturns(true)}));
        mutex.Unlock();
    }
}

TEST(Mutex, Running_out_of_time_posts_no_failure) {
    Host::FakeSleep();
    CMutex mutex(true);
    for (unsigned long timeout : {0UL, 5UL, 1000UL}) {
        SCOPED_TRACE(timeout);
        Recorder::Clear();
        EXPECT_EQ(mutex.Lock(timeout), 0);
        EXPECT_TRUE(Posted({LockCalled(timeout), LockReturns(false)}));
    }
    mutex.Unlock();
}

TEST(Mutex, A_failed_lock_without_limit_posts_the_failure_and_returns_0) {
    CMutex mutex;
    Interpose fail(Call::MutexLock);
    fail.OnThisThread().Fail(EINVAL);
    Recorder::Clear();
    EXPECT_EQ(mutex.Lock(FOR_EVER), 0);
    EXPECT_EQ(fail.Acted(), 1);
    EXPECT_TRUE(Posted({LockCalled(FOR_EVER), LOCK_FAILED, LockReturns(false)}));
}

TEST(Mutex, A_failed_unlock_posts_the_failure_and_returns_0) {
    CMutex mutex(true);
    {
        Interpose fail(Call::MutexUnlock);
        fail.OnThisThread().Fail(EPERM);
        Recorder::Clear();
        EXPECT_EQ(mutex.Unlock(), 0);
        EXPECT_EQ(fail.Acted(), 1);
        EXPECT_TRUE(Posted({UnlockCalled(), UNLOCK_FAILED}));
    }
    EXPECT_EQ(mutex.Unlock(), 1);
}

TEST(Mutex, Failures_are_plain_texts_without_detail) {
    CMutex mutex;
    Recorder::Clear();
    {
        Interpose failLock(Call::MutexLock), failUnlock(Call::MutexUnlock);
        failLock.OnThisThread().Fail(EINVAL);
        failUnlock.OnThisThread().Fail(EPERM);
        mutex.Lock(FOR_EVER);
        mutex.Unlock();
    }
    int failures = 0;
    for (const Event& event : Recorder::AllEvents())
        if (event.severity == 1) {
            failures++;
            EXPECT_EQ(event.entry, Event::Plain) << event;
            EXPECT_FALSE(event.hasDetail) << event;
        }
    EXPECT_EQ(failures, 2);
}

TEST(Mutex, Entries_are_posted_before_the_call_and_exits_after_it) {
    CMutex mutex;
    std::vector<int> states; // of the mutex, at each event
    {
        Recorder::Hook hook([&](const Event&) {
            Bypass bypass;
            const int state = pthread_mutex_trylock(mutex.PThreadMutex());
            if (state == 0)
                pthread_mutex_unlock(mutex.PThreadMutex());
            states.push_back(state);
        });
        for (unsigned long timeout : {FOR_EVER, 10UL}) {
            mutex.Lock(timeout);
            mutex.Unlock();
        }
    }
    EXPECT_EQ(states, (std::vector<int>{0, EBUSY, EBUSY, 0, 0, EBUSY, EBUSY, 0}));
}

TEST(Mutex, A_logger_that_changes_errno_changes_no_result) {
    CMutex mutex; // the recorder does change it
    errno = 0;
    EXPECT_EQ(mutex.Lock(10), 1);
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_EQ(mutex.Lock(), 1);
    EXPECT_EQ(mutex.Unlock(), 1);
}

// ---------------------------------------------------------------------------------------------------------
// Waiting

TEST(Mutex, Lock_waits_without_limit_by_default) {
    CMutex mutex;
    Recorder::Clear();
    EXPECT_EQ(mutex.Lock(), 1);
    EXPECT_TRUE(Posted({LockCalled(FOR_EVER), LockReturns(true)}));
    mutex.Unlock();
}

TEST(Mutex, Lock_without_limit_blocks_and_never_sleeps_or_tries) {
    Host::FakeSleep();
    CMutex mutex(true);
    std::atomic<bool> released{false};
    bool releasedFirst = false;
    CallLog log({Call::MutexLock, Call::MutexTrylock}, CallLog::AllThreads);
    Background waiter([&] {
        EXPECT_EQ(mutex.Lock(FOR_EVER), 1);
        releasedFirst = released;
        EXPECT_EQ(mutex.Unlock(), 1);
    });
    ASSERT_TRUE(log.WaitFor(Call::MutexLock));
    EXPECT_FALSE(waiter.Ended());
    released = true;
    EXPECT_EQ(mutex.Unlock(), 1);
    ASSERT_TRUE(waiter.Join());
    EXPECT_TRUE(releasedFirst);
    EXPECT_EQ(log.Count(Call::MutexTrylock), 0);
    EXPECT_TRUE(Host::Sleeps().empty());
}

TEST(Mutex, Lock_with_zero_timeout_tries_once_and_never_sleeps) {
    Host::FakeSleep();
    CMutex mutex;
    for (int expected : {1, 0}) { // free, then held
        CallLog log({Call::MutexLock, Call::MutexTrylock});
        EXPECT_EQ(mutex.Lock(0), expected);
        EXPECT_EQ(log.Count(Call::MutexTrylock), 1);
        EXPECT_EQ(log.Count(Call::MutexLock), 0);
    }
    EXPECT_TRUE(Host::Sleeps().empty());
    mutex.Unlock();
}

TEST(Mutex, Lock_of_a_mutex_held_by_another_thread_with_zero_timeout_returns_0) {
    CMutex mutex(true);
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Lock(0); }), 0);
    mutex.Unlock();
}

TEST(Mutex, Lock_of_a_free_mutex_with_a_timeout_needs_one_try_and_no_sleep) {
    Host::FakeSleep();
    CMutex mutex;
    for (unsigned long timeout : {1UL, 9UL, 5000UL, 0xFFFFFFFEUL}) {
        SCOPED_TRACE(timeout);
        CallLog log({Call::MutexTrylock});
        EXPECT_EQ(mutex.Lock(timeout), 1);
        EXPECT_EQ(log.Count(Call::MutexTrylock), 1);
        mutex.Unlock();
    }
    EXPECT_TRUE(Host::Sleeps().empty());
}

TEST(Mutex, Lock_with_a_timeout_polls_in_tenths_between_1_and_333_ms_and_sleeps_after_each_try) {
    const struct {
        unsigned long timeout;
        size_t tries; // and as many sleeps
        unsigned long step;
    } cases[] = {
        {1, 1, 1},       {5, 5, 1},         {9, 9, 1},          {10, 10, 1},     {19, 19, 1},
        {20, 10, 2},     {25, 13, 2},       {99, 11, 9},        {1000, 10, 100}, {1009, 11, 100},
        {3329, 11, 332}, {3330, 10, 333},   {3339, 11, 333},    {3340, 11, 333}, {4995, 15, 333},
        {5000, 16, 333}, {33300, 100, 333}, {100000, 301, 333},
    };
    CMutex mutex(true);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeout);
        Host::Reset(); // forgets the sleeps
        CallLog log({Call::MutexTrylock, Call::MutexLock});
        std::vector<size_t> triesBeforeSleep;
        Host::FakeSleep([&](unsigned long) { triesBeforeSleep.push_back(log.Records().size()); });
        EXPECT_EQ(mutex.Lock(c.timeout), 0);
        EXPECT_EQ(log.Count(Call::MutexTrylock), static_cast<int>(c.tries));
        EXPECT_EQ(log.Count(Call::MutexLock), 0);
        EXPECT_EQ(Host::Sleeps(), std::vector<unsigned long>(c.tries, c.step));
        for (size_t i = 0; i < triesBeforeSleep.size(); i++)
            EXPECT_EQ(triesBeforeSleep[i], i + 1); // a try, a sleep, a try ... and a sleep at the end
    }
    mutex.Unlock();
}

TEST(Mutex, Lock_with_the_longest_timeout_polls_in_steps_of_333_ms) {
    CMutex mutex(true);
    CallLog log({Call::MutexTrylock, Call::MutexLock});
    size_t sleeps = 0;
    Host::FakeSleep([&](unsigned long) {
        if (++sleeps == 50)
            mutex.Unlock();
    });
    EXPECT_EQ(mutex.Lock(0xFFFFFFFEUL), 1);
    EXPECT_EQ(Host::Sleeps(), std::vector<unsigned long>(50, 333));
    EXPECT_EQ(log.Count(Call::MutexTrylock), 51);
    EXPECT_EQ(log.Count(Call::MutexLock), 0);
    mutex.Unlock();
}

TEST(Mutex, Lock_with_a_timeout_stops_polling_when_it_has_the_mutex) {
    CMutex mutex(true);
    CallLog log({Call::MutexTrylock});
    int sleeps = 0;
    Host::FakeSleep([&](unsigned long) {
        if (++sleeps == 3)
            mutex.Unlock();
    });
    Recorder::Clear();
    EXPECT_EQ(mutex.Lock(1000), 1);
    EXPECT_EQ(sleeps, 3);
    EXPECT_EQ(log.Count(Call::MutexTrylock), 4);
    EXPECT_TRUE(Posted({LockCalled(1000), UnlockCalled(), UnlockSucceeds(), LockReturns(true)}));
    EXPECT_FALSE(IsFree(mutex));
    mutex.Unlock();
}

TEST(Mutex, Lock_does_not_try_again_after_its_last_sleep) {
    CMutex mutex(true);
    int sleeps = 0;
    Host::FakeSleep([&](unsigned long) {
        if (++sleeps == 10)
            mutex.Unlock(); // too late
    });
    EXPECT_EQ(mutex.Lock(1000), 0);
    EXPECT_EQ(sleeps, 10);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, Lock_takes_any_failure_of_a_try_for_a_mutex_in_use) {
    Host::FakeSleep();
    for (int error : {EINVAL, EAGAIN, EDEADLK, EOWNERDEAD}) {
        SCOPED_TRACE(error);
        CMutex mutex;
        Interpose fail(Call::MutexTrylock);
        fail.OnThisThread().Always().Fail(error);
        Recorder::Clear();
        EXPECT_EQ(mutex.Lock(25), 0);
        EXPECT_EQ(fail.Acted(), 13);
        EXPECT_TRUE(Posted({LockCalled(25), LockReturns(false)}));
    }
}

TEST(Mutex, Lock_goes_on_polling_after_a_failed_try) {
    Host::FakeSleep();
    CMutex mutex;
    Interpose fail(Call::MutexTrylock);
    fail.OnThisThread().OnCall(1).Fail(EINVAL);
    EXPECT_EQ(mutex.Lock(1000), 1);
    EXPECT_EQ(fail.Seen(), 2);
    EXPECT_EQ(Host::Sleeps(), (std::vector<unsigned long>{100}));
    mutex.Unlock();
}

TEST(Mutex, Timeouts_have_32_bits) {
    Host::FakeSleep();
    CMutex mutex;
    const struct {
        unsigned long given, means;
    } cases[] = {
        {static_cast<unsigned long>(-1), FOR_EVER},
        {static_cast<unsigned long>(0x1FFFFFFFFULL), FOR_EVER},
        {static_cast<unsigned long>(0x100000000ULL), 0},
        {static_cast<unsigned long>(0x100000019ULL), 25},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("%lx", c.given));
        CallLog log({Call::MutexLock, Call::MutexTrylock});
        Recorder::Clear();
        EXPECT_EQ(mutex.Lock(c.given), 1);
        EXPECT_TRUE(Posted({LockCalled(c.means), LockReturns(true)}));
        EXPECT_EQ(log.Count(Call::MutexLock), c.means == FOR_EVER ? 1 : 0);
        EXPECT_EQ(log.Count(Call::MutexTrylock), c.means == FOR_EVER ? 0 : 1);
        mutex.Unlock();
    }
    mutex.Lock();
    EXPECT_EQ(mutex.Lock(static_cast<unsigned long>(0x100000000ULL)), 0);
    EXPECT_TRUE(Host::Sleeps().empty());
    EXPECT_EQ(mutex.Lock(static_cast<unsigned long>(0x100000019ULL)), 0);
    EXPECT_EQ(Host::Sleeps(), std::vector<unsigned long>(13, 2));
    mutex.Unlock();
}

TEST(Mutex, Only_one_thread_holds_it_at_a_time) {
    const int rounds = 500;
    Host::FakeSleep([](unsigned long) { sched_yield(); });
    Recorder::Pause();
    CMutex mutex;
    int count = 0; // not atomic
    {
        const auto add = [&](unsigned long timeout) {
            for (int i = 0; i < rounds; i++) {
                while (mutex.Lock(timeout) != 1) {
                }
                count++;
                mutex.Unlock();
            }
        };
        Background forEver([&] { add(FOR_EVER); });
        Background polling([&] { add(50); });
        Background trying([&] { add(0); });
    }
    EXPECT_EQ(count, 3 * rounds);
}

// ---------------------------------------------------------------------------------------------------------
// Kinds

TEST(Mutex, Recursive_kind_is_locked_again_by_the_thread_that_holds_it) {
    CMutex mutex(Recursive, false);
    EXPECT_EQ(mutex.Lock(), 1);
    EXPECT_EQ(mutex.Lock(0), 1);
    EXPECT_EQ(mutex.Lock(1000), 1);
    EXPECT_EQ(mutex.Lock(FOR_EVER), 1);
    for (int i = 0; i < 4; i++) {
        EXPECT_FALSE(IsFree(mutex));
        EXPECT_EQ(mutex.Unlock(), 1);
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, Error_checking_kind_refuses_its_holder_a_second_lock) {
    CMutex mutex(ErrorChecking, true);
    Recorder::Clear();
    EXPECT_EQ(mutex.Lock(FOR_EVER), 0);
    EXPECT_TRUE(Posted({LockCalled(FOR_EVER), LOCK_FAILED, LockReturns(false)}));
    EXPECT_EQ(mutex.Lock(0), 0); // by a try it is just busy
    EXPECT_EQ(mutex.Unlock(), 1);
}

TEST(Mutex, Error_checking_kind_refuses_the_unlock_of_what_the_caller_does_not_hold) {
#ifdef UNDER_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer reports the misuse";
#endif
    CMutex mutex(ErrorChecking, false);
    Recorder::Clear();
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_TRUE(Posted({UnlockCalled(), UNLOCK_FAILED}));

    mutex.Lock();
    EXPECT_EQ(OnAnotherThread([&] { return mutex.Unlock(); }), 0);
    EXPECT_FALSE(IsFree(mutex));
    EXPECT_EQ(mutex.Unlock(), 1);
}

// ---------------------------------------------------------------------------------------------------------
// Cancellation of the library's threads

namespace {

thread_local bool t_inTest; // the part of a thread that a hook may interfere with

// A thread of the library that runs a function, and can be destroyed in the middle of it.
class Destructible {
public:
    explicit Destructible(std::function<void()> function) : m_state(std::make_shared<State>()) {
        m_state->function = std::move(function);
        m_thread = AfxBeginThread(&Run, new std::shared_ptr<State>(m_state));
    }

    ~Destructible() {
        if (m_thread) {
            EXPECT_EQ(WaitForSingleObject(m_thread->m_hThread, Milliseconds()), 0u);
            delete m_thread;
        }
    }

    Destructible(const Destructible&) = delete;
    Destructible& operator=(const Destructible&) = delete;

    // Cancels the thread, which may need a push then to notice.
    void Destroy() {
        delete m_thread;
        m_thread = nullptr;
    }

    // Whether its function has been left, in whatever way.
    bool Ends() { return m_state->left.Wait(); }

private:
    struct State {
        std::function<void()> function;
        Gate left;
    };

    static unsigned int Run(void* argument) {
        const std::unique_ptr<std::shared_ptr<State>> owned(static_cast<std::shared_ptr<State>*>(argument));
        const std::shared_ptr<State> state = *owned;
        struct AtEnd {
            Gate& gate;
            ~AtEnd() { gate.Open(); }
        } atEnd{state->left};
        state->function();
        return 0;
    }

    static unsigned long Milliseconds() {
        return static_cast<unsigned long>(Deadline::Long().Remaining().count());
    }

    std::shared_ptr<State> m_state;
    CWinThread* m_thread;
};

// Destroys a thread while it is in the logger for the n-th time (from 1) in the course of a function that
// logs that often, with a logger that is a cancellation point. Whether the function was finished first.
bool FinishesAlthoughDestroyedInTheLogger(int n, const std::function<void()>& function) {
    Gate inLogger, goOn, never;
    std::atomic<bool> finished{false};
    int events = 0;
    Recorder::Hook hook([&](const Event& event) {
        if (!t_inTest || !IsMutexEvent(event) || ++events != n)
            return;
        inLogger.Open();
        goOn.Wait();
        pthread_testcancel();
    });
    Destructible thread([&] {
        t_inTest = true;
        function();
        t_inTest = false;
        finished = true;
        never.Wait(); // where it is cancelled
    });
    EXPECT_TRUE(inLogger.Wait());
    thread.Destroy();
    goOn.Open();
    EXPECT_TRUE(thread.Ends());
    return finished;
}

int CancelState() {
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcancelstate(state, nullptr);
    return state;
}

} // namespace

TEST(Mutex, Destroying_a_thread_that_posts_a_lock_or_unlock_does_not_leave_the_mutex_locked) {
    for (unsigned long timeout : {FOR_EVER, 0UL, 1000UL})
        for (int event = 1; event <= 4; event++) {
            SCOPED_TRACE(Text("time-out %lu, event %d", timeout, event));
            CMutex mutex;
            EXPECT_TRUE(FinishesAlthoughDestroyedInTheLogger(event, [&] {
                mutex.Lock(timeout);
                mutex.Unlock();
            }));
            EXPECT_TRUE(IsFree(mutex));
        }
}

TEST(Mutex, Destroying_a_thread_that_posts_a_failure_ends_the_thread_afterwards) {
    const int eventsOfAFailedLock = 3, eventsOfAFailedUnlock = 2;
    for (int event = 1; event <= eventsOfAFailedLock + eventsOfAFailedUnlock; event++) {
        SCOPED_TRACE(event);
        CMutex mutex;
        EXPECT_TRUE(FinishesAlthoughDestroyedInTheLogger(event, [&] {
            Interpose failLock(Call::MutexLock), failUnlock(Call::MutexUnlock);
            failLock.OnThisThread().Fail(EINVAL);
            failUnlock.OnThisThread().Fail(EPERM);
            mutex.Lock(FOR_EVER);
            mutex.Unlock();
        }));
        EXPECT_TRUE(IsFree(mutex));
    }
}

TEST(Mutex, Destroying_a_thread_that_posts_a_construction_ends_the_thread_afterwards) {
    for (int event = 1; event <= 4; event++) {
        SCOPED_TRACE(event);
        EXPECT_TRUE(FinishesAlthoughDestroyedInTheLogger(event, [] {
            CMutex mutex(ErrorChecking, true);
            mutex.Unlock();
        }));
    }
}

TEST(Mutex, A_thread_that_polls_can_be_destroyed) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    CMutex mutex(true);
    Gate polling, never;
    Host::FakeSleep([&](unsigned long) {
        polling.Open();
        never.Wait(); // a cancellation point, as every host's sleep
    });
    std::atomic<bool> returned{false};
    Destructible thread([&] {
        mutex.Lock(1000);
        returned = true;
    });
    ASSERT_TRUE(polling.Wait());
    thread.Destroy();
    ASSERT_TRUE(thread.Ends());
    EXPECT_FALSE(returned);
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, A_thread_that_really_sleeps_between_two_tries_can_be_destroyed) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
#if defined(UNDER_ADDRESS_SANITIZER) || defined(UNDER_THREAD_SANITIZER)
    GTEST_SKIP() << "the sanitizer does not notice that a cancellation leaves nanosleep()";
#endif
    CMutex mutex(true);
    std::atomic<bool> returned{false};
    CallLog log({Call::MutexTrylock}, CallLog::AllThreads);
    Destructible thread([&] {
        mutex.Lock(0xFFFFFFFEUL);
        returned = true;
    });
    ASSERT_TRUE(log.WaitFor(Call::MutexTrylock, 2)); // one sleep is over
    thread.Destroy();
    ASSERT_TRUE(thread.Ends());
    EXPECT_FALSE(returned);
    EXPECT_EQ(mutex.Unlock(), 1);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, Lock_and_Unlock_leave_the_cancellation_state_as_it_was) {
    Host::FakeSleep();
    CMutex mutex, held(true);
    for (int state : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
        SCOPED_TRACE(state);
        std::vector<int> states;
        {
            Destructible thread([&] {
                int before;
                pthread_setcancelstate(state, &before);
                for (unsigned long timeout : {FOR_EVER, 0UL, 1000UL}) {
                    mutex.Lock(timeout);
                    states.push_back(CancelState());
                    mutex.Unlock();
                    states.push_back(CancelState());
                }
                held.Lock(1000);
                states.push_back(CancelState());
                pthread_setcancelstate(before, nullptr);
            });
            ASSERT_TRUE(thread.Ends());
        }
        EXPECT_EQ(states, std::vector<int>(7, state));
    }
    held.Unlock();
}

TEST(Mutex, A_cancellation_that_the_caller_disabled_is_not_taken_while_polling) {
    Gate polling, destroyed;
    CMutex held(true);
    std::atomic<bool> returned{false};
    Host::FakeSleep([&](unsigned long) {
        polling.Open();
        destroyed.Wait();
        pthread_testcancel();
    });
    Destructible thread([&] {
        CancellationDisabled disabled;
        held.Lock(5);
        returned = true;
    });
    ASSERT_TRUE(polling.Wait());
    thread.Destroy();
    destroyed.Open();
    ASSERT_TRUE(thread.Ends());
    EXPECT_TRUE(returned);
    held.Unlock();
}
