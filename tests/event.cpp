#include <Windows/event.h>

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

#include <Windows/WinThread.h>

#include "support/emulator.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
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

struct Layout {
    bool signalled;
    bool manualReset;
    pthread_mutex_t mutex;
    pthread_cond_t condition;
};

static_assert(sizeof(CEvent) == sizeof(Layout), "two flags, a mutex and a condition");
static_assert(std::is_standard_layout<CEvent>::value, "no base class");
static_assert(!std::is_polymorphic<CEvent>::value, "nothing virtual");
static_assert(!std::is_copy_constructible<CEvent>::value, "a lock is not copied");
static_assert(!std::is_copy_assignable<CEvent>::value, "a lock is not copied");
static_assert(ETIMEDOUT == 110, "the number that callers know");

const unsigned long FOR_EVER = 0xFFFFFFFFUL;
const int SIGNALLED = 0;
const int TIMED_OUT = 110;

typedef std::vector<std::string> Strings;

const std::vector<Call> SYNCHRONISATION = {Call::MutexInit,     Call::MutexLock, Call::MutexTrylock,
                                           Call::MutexUnlock,   Call::CondWait,  Call::CondTimedwait,
                                           Call::CondBroadcast, Call::CondSignal};

// The state, as a wait without waiting tells it.
bool IsSignalled(CEvent& event) { return event.WaitForEventSignal(0, nullptr) == SIGNALLED; }

// The event's own lock.
pthread_mutex_t* LockOf(CEvent& event) { return &reinterpret_cast<Layout*>(&event)->mutex; }

// Whether another thread can have the event's lock.
bool IsUnlocked(pthread_mutex_t* lock) {
    bool free = false;
    Background thread([&] {
        if (pthread_mutex_trylock(lock) == 0) {
            free = true;
            pthread_mutex_unlock(lock);
        }
    });
    EXPECT_TRUE(thread.Join());
    return free;
}

// The calls of synchronisation that a function makes.
Strings CallsOf(const std::function<void()>& function) {
    CallLog log(SYNCHRONISATION);
    function();
    return log.Texts();
}

class Stopwatch {
public:
    long Milliseconds() const {
        return static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_start)
                .count());
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

// The clocks of the deadline and of the measurement may tick apart.
const long GRANULARITY = 10;

// Calls that the test support does not record.
struct OwnCalls {
    Strings texts;
    pthread_mutex_t* mutex; // that shall still live when the condition is destroyed
    bool attributesGiven;
    int destroyResult;
};

thread_local OwnCalls* t_calls;

template <class Function> Function Real(Function, const char* name) {
    void* next = dlsym(RTLD_NEXT, name);
    // dlsym() finds the oldest version of a symbol. If the C library comes next, the current one is meant.
    void* current = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
    Dl_info nextInfo, currentInfo;
    if (current && dladdr(next, &nextInfo) && dladdr(current, &currentInfo) &&
        nextInfo.dli_fbase == currentInfo.dli_fbase)
        next = current;
    return reinterpret_cast<Function>(next);
}

} // namespace

extern "C" int pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes) noexcept {
    static const auto real = Real(&pthread_cond_init, "pthread_cond_init");
    if (t_calls) {
        t_calls->texts.push_back("pthread_cond_init()");
        t_calls->attributesGiven = attributes != nullptr;
    }
    return real(condition, attributes);
}

extern "C" int pthread_cond_destroy(pthread_cond_t* condition) noexcept {
    static const auto real = Real(&pthread_cond_destroy, "pthread_cond_destroy");
    const int result = real(condition);
    if (!t_calls)
        return result;
    t_calls->texts.push_back("pthread_cond_destroy()");
    if (t_calls->mutex && pthread_mutex_trylock(t_calls->mutex) == 0) {
        pthread_mutex_unlock(t_calls->mutex);
        t_calls->texts.push_back("the mutex lives");
    }
    return t_calls->destroyResult ? t_calls->destroyResult : result;
}

// ---------------------------------------------------------------------------------------------------------
// The object

TEST(event, Flags_lie_in_front_the_state_first) {
    const struct {
        bool manualReset, initialState;
    } cases[] = {{false, false}, {false, true}, {true, false}, {true, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("manual %d initial %d", c.manualReset, c.initialState));
        CEvent event(c.manualReset, c.initialState);
        const bool* flags = reinterpret_cast<const bool*>(&event);
        EXPECT_EQ(flags[offsetof(Layout, signalled)], c.initialState);
        EXPECT_EQ(flags[offsetof(Layout, manualReset)], c.manualReset);
    }
}

TEST(event, Lock_lies_behind_the_flags) {
    CEvent event(true, true);
    pthread_mutex_t* lock = nullptr;
    ASSERT_EQ(event.WaitForEventSignal(0, &lock), SIGNALLED);
    EXPECT_EQ(reinterpret_cast<char*>(lock) - reinterpret_cast<char*>(&event),
              static_cast<ptrdiff_t>(offsetof(Layout, mutex)));
    pthread_mutex_unlock(lock);
}

TEST(event, First_argument_is_the_manual_reset_and_second_the_state) {
    CEvent manual(true, false);
    EXPECT_FALSE(IsSignalled(manual));
    manual.SetEvent();
    EXPECT_TRUE(IsSignalled(manual));

    CEvent automatic(false, true);
    EXPECT_TRUE(IsSignalled(automatic));
    automatic.ResetEvent();
    automatic.SetEvent();
    EXPECT_FALSE(IsSignalled(automatic));
}

TEST(event, Construction_makes_the_condition_and_then_the_mutex) {
    OwnCalls calls = {};
    Interpose mutexInit(Call::MutexInit);
    mutexInit.OnThisThread().Before([&] { calls.texts.push_back("pthread_mutex_init()"); });
    t_calls = &calls;
    CEvent event(true, false);
    t_calls = nullptr;
    EXPECT_EQ(calls.texts, (Strings{"pthread_cond_init()", "pthread_mutex_init()"}));
    EXPECT_EQ(mutexInit.Seen(), 1);
}

TEST(event, Condition_has_default_attributes) {
    OwnCalls calls = {};
    t_calls = &calls;
    CEvent event(true, false);
    t_calls = nullptr;
    EXPECT_FALSE(calls.attributesGiven);
}

TEST(event, Lock_is_of_the_default_kind) {
    CEvent event(true, true);
    pthread_mutex_t* lock = nullptr;
    ASSERT_EQ(event.WaitForEventSignal(FOR_EVER, &lock), SIGNALLED);
    EXPECT_EQ(pthread_mutex_trylock(lock), EBUSY); // not recursive
    pthread_mutex_unlock(lock);
}

TEST(event, Destruction_destroys_the_condition_while_the_mutex_lives) {
    alignas(CEvent) unsigned char storage[sizeof(CEvent)];
    CEvent* event = new (storage) CEvent(true, false);
    OwnCalls calls = {};
    calls.mutex = LockOf(*event);
    t_calls = &calls;
    event->~CEvent();
    t_calls = nullptr;
    EXPECT_EQ(calls.texts, (Strings{"pthread_cond_destroy()", "the mutex lives"}));
}

TEST(event, Destruction_destroys_the_mutex) {
#ifdef UNDER_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer reports the use of a destroyed mutex";
#endif
    alignas(CEvent) unsigned char storage[sizeof(CEvent)];
    CEvent* event = new (storage) CEvent(true, false);
    pthread_mutex_t* mutex = LockOf(*event);
    event->~CEvent();
    EXPECT_EQ(pthread_mutex_trylock(mutex), EINVAL); // what a destroyed mutex answers
}

TEST(event, Destruction_ignores_failure) {
    Recorder::Clear();
    OwnCalls calls = {};
    calls.destroyResult = EBUSY;
    {
        CEvent event(true, false);
        t_calls = &calls;
    }
    t_calls = nullptr;
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(event, Nothing_is_posted_whatever_happens) {
    Recorder::Clear();
    for (bool manualReset : {true, false}) {
        CEvent event(manualReset, true);
        event.WaitForEventSignal(FOR_EVER, nullptr);
        event.SetEvent();
        event.ResetEvent();
        event.WaitForEventSignal(0, nullptr);
        event.WaitForEventSignal(1, nullptr);
        event.SetEvent();
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

// ---------------------------------------------------------------------------------------------------------
// Setting and resetting

TEST(event, SetEvent_and_ResetEvent_return_1) {
    for (bool manualReset : {true, false})
        for (bool state : {true, false}) {
            SCOPED_TRACE(Text("manual %d state %d", manualReset, state));
            CEvent event(manualReset, state);
            EXPECT_EQ(event.SetEvent(), 1);
            EXPECT_EQ(event.SetEvent(), 1);
            EXPECT_EQ(event.ResetEvent(), 1);
            EXPECT_EQ(event.ResetEvent(), 1);
        }
}

TEST(event, SetEvent_signals_a_manual_reset_event_until_it_is_reset) {
    CEvent event(true, false);
    event.SetEvent();
    EXPECT_TRUE(IsSignalled(event));
    EXPECT_TRUE(IsSignalled(event));
    event.ResetEvent();
    EXPECT_FALSE(IsSignalled(event));
    event.SetEvent();
    EXPECT_TRUE(IsSignalled(event));
}

TEST(event, SetEvent_leaves_an_auto_reset_event_not_signalled) {
    CEvent event(false, false);
    event.SetEvent();
    EXPECT_FALSE(IsSignalled(event));
}

TEST(event, SetEvent_of_a_signalled_event_changes_nothing_and_wakes_nobody) {
    for (bool manualReset : {true, false}) {
        SCOPED_TRACE(manualReset);
        CEvent event(manualReset, true);
        EXPECT_EQ(CallsOf([&] { EXPECT_EQ(event.SetEvent(), 1); }),
                  (Strings{"pthread_mutex_lock()", "pthread_mutex_unlock()"}));
        EXPECT_TRUE(IsSignalled(event)); // an auto-reset event that was made signalled too
    }
}

TEST(event, SetEvent_wakes_all_waiters_of_a_manual_reset_event_under_the_lock) {
    CEvent event(true, false);
    EXPECT_EQ(CallsOf([&] { event.SetEvent(); }),
              (Strings{"pthread_mutex_lock()", "pthread_cond_broadcast()", "pthread_mutex_unlock()"}));
}

TEST(event, SetEvent_wakes_one_waiter_of_an_auto_reset_event_under_the_lock) {
    CEvent event(false, false);
    EXPECT_EQ(CallsOf([&] { event.SetEvent(); }),
              (Strings{"pthread_mutex_lock()", "pthread_cond_signal()", "pthread_mutex_unlock()"}));
    EXPECT_EQ(CallsOf([&] { event.SetEvent(); }), // it stayed not signalled
              (Strings{"pthread_mutex_lock()", "pthread_cond_signal()", "pthread_mutex_unlock()"}));
}

TEST(event, State_is_set_when_the_waiters_are_woken_and_an_auto_reset_follows) {
    for (bool manualReset : {true, false}) {
        SCOPED_TRACE(manualReset);
        CEvent event(manualReset, false);
        const bool* state = reinterpret_cast<const bool*>(&event);
        bool whenWoken = false;
        Interpose wake(manualReset ? Call::CondBroadcast : Call::CondSignal);
        wake.OnThisThread().Before([&] { whenWoken = *state; });
        event.SetEvent();
        EXPECT_EQ(wake.Acted(), 1);
        EXPECT_TRUE(whenWoken);
        EXPECT_EQ(IsSignalled(event), manualReset);
    }
}

TEST(event, ResetEvent_wakes_nobody) {
    for (bool state : {true, false}) {
        SCOPED_TRACE(state);
        CEvent event(true, state);
        EXPECT_EQ(CallsOf([&] { event.ResetEvent(); }),
                  (Strings{"pthread_mutex_lock()", "pthread_mutex_unlock()"}));
        EXPECT_FALSE(IsSignalled(event));
    }
}

// ---------------------------------------------------------------------------------------------------------
// Waiting

TEST(event, A_manual_reset_event_made_signalled_satisfies_every_wait_until_it_is_reset) {
    CEvent event(true, true);
    for (unsigned long timeout : {0UL, 1UL, 100UL, 0xFFFFFFFEUL, FOR_EVER, 0UL}) {
        SCOPED_TRACE(timeout);
        Strings calls = CallsOf([&] { EXPECT_EQ(event.WaitForEventSignal(timeout, nullptr), SIGNALLED); });
        EXPECT_EQ(calls, (Strings{"pthread_mutex_lock()", "pthread_mutex_unlock()"})); // no waiting
    }
    event.ResetEvent();
    EXPECT_EQ(event.WaitForEventSignal(0, nullptr), TIMED_OUT);
    EXPECT_EQ(event.WaitForEventSignal(1, nullptr), TIMED_OUT);
}

TEST(event, An_auto_reset_event_made_signalled_satisfies_every_wait_and_stays_signalled) {
    CEvent event(false, true);
    for (unsigned long timeout : {0UL, 1UL, FOR_EVER, 0UL}) {
        SCOPED_TRACE(timeout);
        EXPECT_EQ(event.WaitForEventSignal(timeout, nullptr), SIGNALLED);
    }
    event.ResetEvent();
    EXPECT_EQ(event.WaitForEventSignal(0, nullptr), TIMED_OUT);
}

TEST(event, A_wait_with_zero_timeout_only_looks) {
    CEvent event(true, false);
    EXPECT_EQ(CallsOf([&] { EXPECT_EQ(event.WaitForEventSignal(0, nullptr), TIMED_OUT); }),
              (Strings{"pthread_mutex_lock()", "pthread_mutex_unlock()"}));
}

TEST(event, A_timed_wait_returns_110_after_its_time) {
    for (bool manualReset : {true, false}) {
        SCOPED_TRACE(manualReset);
        CEvent event(manualReset, false);
        const Stopwatch stopwatch;
        const Deadline deadline = Deadline::Long();
        EXPECT_EQ(event.WaitForEventSignal(100, nullptr), TIMED_OUT);
        EXPECT_GE(stopwatch.Milliseconds(), 100 - GRANULARITY);
        EXPECT_FALSE(deadline.Passed());
    }
}

TEST(event, A_timed_wait_sleeps_in_one_call) {
    CEvent event(true, false);
    EXPECT_EQ(CallsOf([&] { event.WaitForEventSignal(20, nullptr); }),
              (Strings{"pthread_mutex_lock()", "pthread_cond_timedwait()", "pthread_mutex_unlock()"}));
}

TEST(event, Only_a_timed_wait_asks_for_the_time_also_for_a_signalled_event) {
    CEvent event(true, true);
    const int before = Host::Deadlines();
    EXPECT_EQ(event.WaitForEventSignal(FOR_EVER, nullptr), 0);
    EXPECT_EQ(event.WaitForEventSignal(0, nullptr), 0);
    EXPECT_EQ(Host::Deadlines(), before);
    EXPECT_EQ(event.WaitForEventSignal(20, nullptr), 0);
    EXPECT_EQ(Host::Deadlines(), before + 1);
}

TEST(event, Setting_a_manual_reset_event_releases_every_waiter) {
    CEvent event(true, false);
    CallLog log({Call::CondWait}, CallLog::AllThreads);
    int results[3] = {-1, -1, -1};
    {
        std::vector<std::unique_ptr<Background>> waiters;
        for (int& result : results)
            waiters.emplace_back(
                new Background([&] { result = event.WaitForEventSignal(FOR_EVER, nullptr); }));
        ASSERT_TRUE(log.WaitFor(Call::CondWait, 3));
        event.SetEvent();
        for (const auto& waiter : waiters)
            EXPECT_TRUE(waiter->Join());
    }
    for (int result : results)
        EXPECT_EQ(result, SIGNALLED);
    EXPECT_TRUE(IsSignalled(event));
}

TEST(event, Setting_a_manual_reset_event_releases_a_timed_wait) {
    CEvent event(true, false);
    for (unsigned long timeout : {60000UL, 0xFFFFFFFEUL}) {
        SCOPED_TRACE(timeout);
        event.ResetEvent();
        CallLog log({Call::CondTimedwait}, CallLog::AllThreads);
        int result = -1;
        Background waiter([&] { result = event.WaitForEventSignal(timeout, nullptr); });
        ASSERT_TRUE(log.WaitFor(Call::CondTimedwait));
        event.SetEvent();
        ASSERT_TRUE(waiter.Join());
        EXPECT_EQ(result, SIGNALLED);
    }
}

TEST(event, A_timed_wait_on_an_auto_reset_event_sleeps_on_when_the_event_is_set) {
    CEvent event(false, false);
    CallLog log({Call::CondTimedwait}, CallLog::AllThreads);
    int result = -1;
    long elapsed = 0;
    Background waiter([&] {
        const Stopwatch stopwatch;
        result = event.WaitForEventSignal(200, nullptr);
        elapsed = stopwatch.Milliseconds();
    });
    ASSERT_TRUE(log.WaitFor(Call::CondTimedwait));
    event.SetEvent(); // takes the lock that the waiter gives up when it sleeps
    ASSERT_TRUE(waiter.Join());
    EXPECT_EQ(result, TIMED_OUT);
    EXPECT_GE(elapsed, 200 - GRANULARITY);
    EXPECT_FALSE(IsSignalled(event));
}

TEST(event, Wakeups_do_not_postpone_the_end_of_a_timed_wait) {
    CEvent event(false, false);
    const Deadline deadline = Deadline::Long();
    int result = -1;
    Background waiter([&] { result = event.WaitForEventSignal(200, nullptr); });
    while (!waiter.Ended() && !deadline.Passed()) {
        event.SetEvent();
        sched_yield();
    }
    ASSERT_TRUE(waiter.Join());
    EXPECT_EQ(result, TIMED_OUT);
    EXPECT_FALSE(deadline.Passed());
}

TEST(event, A_wait_without_limit_on_an_auto_reset_event_sleeps_again_when_the_event_is_set) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    CEvent event(false, false);
    CallLog log({Call::CondWait, Call::CondTimedwait}, CallLog::AllThreads);
    struct Waiter {
        static void* Run(void* event) {
            static_cast<CEvent*>(event)->WaitForEventSignal(FOR_EVER, nullptr);
            return nullptr;
        }
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &Waiter::Run, &event), 0);
    EXPECT_TRUE(log.WaitFor(Call::CondWait, 1));
    event.SetEvent();
    EXPECT_TRUE(log.WaitFor(Call::CondWait, 2));
    EXPECT_EQ(log.Count(Call::CondTimedwait), 0);
    pthread_cancel(thread); // nothing else ends this wait
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_FALSE(IsSignalled(event));
}

TEST(event, Waiting_changes_nothing) {
    for (bool manualReset : {true, false})
        for (bool state : {true, false}) {
            SCOPED_TRACE(Text("manual %d state %d", manualReset, state));
            CEvent event(manualReset, state);
            for (unsigned long timeout : {0UL, 1UL}) {
                event.WaitForEventSignal(timeout, nullptr);
                EXPECT_EQ(IsSignalled(event), state);
            }
        }
}

TEST(event, A_spurious_wakeup_of_an_unlimited_wait_waits_again) {
    CEvent event(true, false);
    Interpose wait(Call::CondWait);
    wait.When([&](const CallRecord&) { return true; }).OnCall(1).Return(0);
    CallLog log({Call::CondWait}, CallLog::AllThreads);
    int result = -1;
    Background waiter([&] { result = event.WaitForEventSignal(FOR_EVER, nullptr); });
    ASSERT_TRUE(log.WaitFor(Call::CondWait, 2));
    event.SetEvent();
    ASSERT_TRUE(waiter.Join());
    EXPECT_EQ(result, SIGNALLED);
}

TEST(event, Errors_of_a_timed_wait_but_110_wait_again) {
    for (int error : {0, EINTR, EINVAL}) {
        SCOPED_TRACE(error);
        CEvent event(true, false);
        Interpose wait(Call::CondTimedwait);
        wait.OnThisThread().OnCall(1).Return(error);
        EXPECT_EQ(event.WaitForEventSignal(20, nullptr), TIMED_OUT);
        EXPECT_EQ(wait.Seen(), 2);
    }
}

TEST(event, An_error_is_the_result_when_the_event_was_set_at_the_same_moment) {
    for (bool keep : {false, true}) {
        SCOPED_TRACE(keep);
        CEvent event(true, false);
        pthread_mutex_t* const own = LockOf(event);
        Interpose wait(Call::CondTimedwait);
        wait.OnThisThread().Fail(EINTR).Before([&] {
            pthread_mutex_unlock(own); // as the real call does
            event.SetEvent();
            pthread_mutex_lock(own);
        });
        pthread_mutex_t* lock = nullptr;
        EXPECT_EQ(event.WaitForEventSignal(60000, keep ? &lock : nullptr), EINTR);
        EXPECT_EQ(wait.Seen(), 1);
        EXPECT_EQ(lock, keep ? own : nullptr);
        EXPECT_EQ(IsUnlocked(own), !keep);
        if (lock)
            pthread_mutex_unlock(lock);
    }
}

TEST(event, A_wait_that_times_out_as_the_event_is_set_returns_110) {
    CEvent event(true, false);
    pthread_mutex_t* const own = LockOf(event);
    Interpose wait(Call::CondTimedwait);
    wait.OnThisThread().Fail(ETIMEDOUT).Before([&] {
        pthread_mutex_unlock(own);
        event.SetEvent();
        pthread_mutex_lock(own);
    });
    pthread_mutex_t* lock = own;
    EXPECT_EQ(event.WaitForEventSignal(60000, &lock), TIMED_OUT);
    EXPECT_EQ(lock, nullptr);
    EXPECT_TRUE(IsUnlocked(own));
    EXPECT_TRUE(IsSignalled(event));
}

TEST(event, Set_in_the_last_moment_of_a_wait_it_is_found_signalled) {
    CEvent event(true, false);
    pthread_mutex_t* const own = LockOf(event);
    Interpose wait(Call::CondTimedwait);
    wait.OnThisThread().Return(0).Before([&] {
        pthread_mutex_unlock(own);
        event.SetEvent();
        pthread_mutex_lock(own);
    });
    EXPECT_EQ(event.WaitForEventSignal(1, nullptr), SIGNALLED);
}

TEST(event, Timeouts_have_32_bits) {
    CEvent event(true, false);
    EXPECT_EQ(event.WaitForEventSignal(static_cast<unsigned long>(0x100000000ULL), nullptr), TIMED_OUT);

    CallLog log({Call::CondWait, Call::CondTimedwait}, CallLog::AllThreads);
    for (unsigned long timeout :
         {static_cast<unsigned long>(-1), static_cast<unsigned long>(0x1FFFFFFFFULL)}) {
        SCOPED_TRACE(Text("%lx", timeout));
        event.ResetEvent();
        log.Clear();
        int result = -1;
        Background waiter([&] { result = event.WaitForEventSignal(timeout, nullptr); });
        ASSERT_TRUE(log.WaitFor(Call::CondWait));
        event.SetEvent();
        ASSERT_TRUE(waiter.Join());
        EXPECT_EQ(result, SIGNALLED);
        EXPECT_EQ(log.Count(Call::CondTimedwait), 0);
    }

    event.ResetEvent();
    log.Clear();
    EXPECT_EQ(event.WaitForEventSignal(static_cast<unsigned long>(0x100000005ULL), nullptr), TIMED_OUT);
    EXPECT_EQ(log.Count(Call::CondTimedwait), 1);
}

TEST(event, What_was_written_before_SetEvent_is_visible_after_the_wait) {
    CEvent event(true, false);
    int value = 0; // plain: a data race if the event does not order it
    int seen = 0;
    Background waiter([&] {
        event.WaitForEventSignal(FOR_EVER, nullptr);
        seen = value;
    });
    value = 42;
    event.SetEvent();
    ASSERT_TRUE(waiter.Join());
    EXPECT_EQ(seen, 42);
}

TEST(event, A_thread_that_returned_from_a_wait_may_destroy_the_event) {
    for (int i = 0; i < 200; i++) {
        CEvent* event = new CEvent(true, false);
        Background setter([event] { event->SetEvent(); });
        ASSERT_EQ(event->WaitForEventSignal(FOR_EVER, nullptr), SIGNALLED);
        delete event;
    }
}

// ---------------------------------------------------------------------------------------------------------
// Keeping the lock

TEST(event, A_satisfied_wait_keeps_the_lock_for_the_caller_that_asks_for_it) {
    for (bool manualReset : {true, false})
        for (unsigned long timeout : {0UL, 100UL, FOR_EVER}) {
            SCOPED_TRACE(Text("manual %d time-out %lu", manualReset, timeout));
            CEvent event(manualReset, true);
            pthread_mutex_t* lock = nullptr;
            EXPECT_EQ(event.WaitForEventSignal(timeout, &lock), SIGNALLED);
            ASSERT_EQ(lock, LockOf(event));
            EXPECT_FALSE(IsUnlocked(lock));
            EXPECT_EQ(pthread_mutex_unlock(lock), 0);
            EXPECT_TRUE(IsUnlocked(lock));
        }
}

TEST(event, A_wait_that_slept_keeps_the_lock_too) {
    for (unsigned long timeout : {60000UL, FOR_EVER}) {
        SCOPED_TRACE(timeout);
        CEvent event(true, false);
        CallLog log({Call::CondWait, Call::CondTimedwait}, CallLog::AllThreads);
        Background waiter([&] {
            pthread_mutex_t* lock = nullptr;
            EXPECT_EQ(event.WaitForEventSignal(timeout, &lock), SIGNALLED);
            EXPECT_EQ(lock, LockOf(event));
            EXPECT_FALSE(IsUnlocked(LockOf(event)));
            pthread_mutex_unlock(lock);
        });
        ASSERT_TRUE(log.WaitFor(timeout == FOR_EVER ? Call::CondWait : Call::CondTimedwait));
        event.SetEvent();
        ASSERT_TRUE(waiter.Join());
    }
}

TEST(event, Nobody_changes_the_state_while_a_caller_keeps_the_lock) {
    CEvent event(true, true);
    pthread_mutex_t* lock = nullptr;
    ASSERT_EQ(event.WaitForEventSignal(FOR_EVER, &lock), SIGNALLED);
    CallLog log({Call::MutexLock}, CallLog::AllThreads);
    Background resetter([&] { event.ResetEvent(); });
    ASSERT_TRUE(log.WaitFor(Call::MutexLock));
    const bool* state = reinterpret_cast<const bool*>(&event);
    EXPECT_FALSE(resetter.Ended());
    EXPECT_TRUE(*state);
    pthread_mutex_unlock(lock);
    ASSERT_TRUE(resetter.Join());
    EXPECT_FALSE(IsSignalled(event));
}

TEST(event, A_wait_that_times_out_gives_no_lock_whatever_the_pointer_held) {
    pthread_mutex_t other = PTHREAD_MUTEX_INITIALIZER;
    for (unsigned long timeout : {0UL, 20UL}) {
        SCOPED_TRACE(timeout);
        CEvent event(true, false);
        pthread_mutex_t* lock = &other;
        EXPECT_EQ(event.WaitForEventSignal(timeout, &lock), TIMED_OUT);
        EXPECT_EQ(lock, nullptr);
        EXPECT_TRUE(IsUnlocked(LockOf(event)));
    }
}

TEST(event, Pointer_to_the_lock_is_null_while_the_wait_lasts) {
    pthread_mutex_t other = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t* lock = &other;
    pthread_mutex_t* during = &other;
    CEvent event(true, false);
    Interpose wait(Call::CondTimedwait);
    wait.OnThisThread().Before([&] { during = lock; });
    event.WaitForEventSignal(20, &lock);
    EXPECT_EQ(wait.Acted(), 1);
    EXPECT_EQ(during, nullptr);
}

TEST(event, Pointer_to_the_lock_is_cleared_under_the_lock) {
    pthread_mutex_t other = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t* lock = &other;
    pthread_mutex_t* before = nullptr;
    CEvent event(true, false);
    {
        Interpose locking(Call::MutexLock);
        locking.OnThisThread().Before([&] { before = lock; });
        event.WaitForEventSignal(0, &lock);
        EXPECT_EQ(locking.Acted(), 1);
    }
    EXPECT_EQ(before, &other);
    EXPECT_EQ(lock, nullptr);
}

TEST(event, A_wait_without_the_pointer_gives_the_lock_back) {
    CEvent event(true, true);
    for (unsigned long timeout : {0UL, 20UL, FOR_EVER}) {
        SCOPED_TRACE(timeout);
        EXPECT_EQ(event.WaitForEventSignal(timeout, nullptr), SIGNALLED);
        EXPECT_TRUE(IsUnlocked(LockOf(event)));
    }
}

// ---------------------------------------------------------------------------------------------------------
// Cancellation

namespace {

struct Waiting {
    explicit Waiting(bool manualReset, unsigned long time) : event(manualReset, false), timeout(time) {}

    CEvent event;
    unsigned long timeout;
    pthread_mutex_t* lock = nullptr;
    bool keep = false;
    Gate left;
};

unsigned int Wait(void* argument) {
    Waiting& waiting = *static_cast<Waiting*>(argument);
    struct AtEnd {
        Gate& gate;
        ~AtEnd() { gate.Open(); }
    } atEnd{waiting.left};
    waiting.event.WaitForEventSignal(waiting.timeout, waiting.keep ? &waiting.lock : nullptr);
    return 0;
}

void* WaitAsPlainThread(void* argument) {
    Wait(argument);
    return nullptr;
}

// Whether the event still works. The lock that a dead thread left locked would stop this for ever.
void ExpectUsable(Waiting& waiting) {
    ASSERT_TRUE(IsUnlocked(LockOf(waiting.event)));
    EXPECT_EQ(waiting.event.SetEvent(), 1);
    EXPECT_EQ(waiting.event.WaitForEventSignal(FOR_EVER, nullptr), SIGNALLED);
    EXPECT_EQ(waiting.event.ResetEvent(), 1);
    EXPECT_EQ(waiting.event.WaitForEventSignal(1, nullptr), TIMED_OUT);
}

} // namespace

TEST(event, Destroying_a_thread_that_waits_leaves_the_event_usable) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    for (unsigned long timeout : {FOR_EVER, 600000UL})
        for (bool keep : {false, true}) {
            SCOPED_TRACE(Text("time-out %lu, keep %d", timeout, keep));
            Waiting waiting(true, timeout);
            waiting.keep = keep;
            CallLog log({Call::CondWait, Call::CondTimedwait}, CallLog::AllThreads);
            CWinThread* thread = AfxBeginThread(&Wait, &waiting);
            EXPECT_TRUE(log.WaitFor(timeout == FOR_EVER ? Call::CondWait : Call::CondTimedwait));
            delete thread; // cancels it
            ASSERT_TRUE(waiting.left.Wait());
            EXPECT_EQ(waiting.lock, nullptr);
            ExpectUsable(waiting);
        }
}

TEST(event, Cancelling_a_thread_of_the_application_that_waits_leaves_the_event_usable) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    for (unsigned long timeout : {FOR_EVER, 600000UL}) {
        SCOPED_TRACE(timeout);
        Waiting waiting(true, timeout);
        CallLog log({Call::CondWait, Call::CondTimedwait}, CallLog::AllThreads);
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, &WaitAsPlainThread, &waiting), 0);
        EXPECT_TRUE(log.WaitFor(timeout == FOR_EVER ? Call::CondWait : Call::CondTimedwait));
        pthread_cancel(thread);
        void* result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        ExpectUsable(waiting);
    }
}

TEST(event, A_wait_that_need_not_sleep_is_not_cancelled) {
    CEvent event(true, true);
    bool passed = false;
    std::function<void()> body = [&] {
        pthread_cancel(pthread_self());
        event.WaitForEventSignal(FOR_EVER, nullptr);
        event.WaitForEventSignal(100, nullptr);
        event.SetEvent();
        event.ResetEvent();
        event.WaitForEventSignal(0, nullptr);
        passed = true;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* function) -> void* {
                      (*static_cast<std::function<void()>*>(function))();
                      pthread_testcancel();
                      return nullptr;
                  },
                  &body),
              0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_TRUE(passed);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(IsUnlocked(LockOf(event)));
}
