#include <Windows/SingleLock.h>

#include <errno.h>
#include <pthread.h>

#include <atomic>
#include <functional>
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

namespace {

static_assert(sizeof(CSingleLock) == sizeof(CMutex*), "the pointer is the only member");
static_assert(std::is_standard_layout<CSingleLock>::value, "no base class");
static_assert(!std::is_polymorphic<CSingleLock>::value, "nothing virtual");
static_assert(!std::is_copy_constructible<CSingleLock>::value, "it would unlock twice");
static_assert(!std::is_copy_assignable<CSingleLock>::value, "it would unlock twice");

const int RECURSIVE = 1;
const int ERROR_CHECKING = 2;

std::vector<ExpectedEvent> LockEvents() {
    const unsigned long self = static_cast<unsigned long>(pthread_self());
    return {
        {23, 8,
         Text("CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx", 0xFFFFFFFFUL, self)},
        {23, 9, Text("CMutex::Lock returning true thread %lx", self)}};
}

std::vector<ExpectedEvent> UnlockEvents() {
    const unsigned long self = static_cast<unsigned long>(pthread_self());
    return {{23, 8, Text("CMutex::UnLock Being Called on thread %lx", self)},
            {23, 9, Text("CMutex::Unlock succeeeded on thread %lx", self)}};
}

bool IsFree(CMutex& mutex) {
    bool free = false;
    Background thread([&] { free = mutex.Lock(0) == 1 && mutex.Unlock() == 1; });
    EXPECT_TRUE(thread.Join());
    return free;
}

} // namespace

TEST(SingleLock, Holds_the_mutex_for_its_lifetime) {
    CMutex mutex;
    {
        CSingleLock lock(&mutex);
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(SingleLock, Posts_the_events_of_a_lock_without_limit_and_of_an_unlock) {
    CMutex mutex;
    Recorder::Clear();
    {
        CSingleLock lock(&mutex);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), LockEvents()));
        Recorder::Clear();
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), UnlockEvents()));
}

TEST(SingleLock, Waits_without_limit_for_a_mutex_in_use) {
    CMutex mutex(true);
    std::atomic<bool> released{false};
    bool releasedFirst = false;
    CallLog log({Call::MutexLock}, CallLog::AllThreads);
    Background waiter([&] {
        CSingleLock lock(&mutex);
        releasedFirst = released;
    });
    ASSERT_TRUE(log.WaitFor(Call::MutexLock));
    released = true;
    mutex.Unlock();
    ASSERT_TRUE(waiter.Join());
    EXPECT_TRUE(releasedFirst);
    EXPECT_TRUE(Host::Sleeps().empty());
    EXPECT_TRUE(IsFree(mutex));
}

TEST(SingleLock, Over_no_mutex_does_nothing) {
    Recorder::Clear();
    CallLog log({Call::MutexLock, Call::MutexTrylock, Call::MutexUnlock});
    { CSingleLock lock(nullptr); }
    EXPECT_TRUE(log.Texts().empty());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(SingleLock, Releases_when_an_exception_leaves_the_scope) {
    CMutex mutex;
    try {
        CSingleLock lock(&mutex);
        throw 1;
    } catch (int) {
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(SingleLock, Nests_over_a_recursive_mutex) {
    CMutex mutex(RECURSIVE, false);
    {
        CSingleLock outer(&mutex);
        { CSingleLock inner(&mutex); }
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(SingleLock, Unlocks_although_its_lock_failed) {
    CMutex mutex;
    Recorder::Clear();
    CallLog log({Call::MutexLock, Call::MutexUnlock});
    {
        Interpose failLock(Call::MutexLock), failUnlock(Call::MutexUnlock);
        failLock.OnThisThread().Fail(EINVAL);
        failUnlock.OnThisThread().Fail(EINVAL);
        CSingleLock lock(&mutex);
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{"pthread_mutex_lock()"}));
        log.Clear();
    }
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"pthread_mutex_unlock()"}));
    EXPECT_TRUE(EventsInOrder(Recorder::AllEvents(),
                              {{23, 1, "FAILED to lock mutex"}, {23, 1, "FAILED to unlock mutex"}}));
}

TEST(SingleLock, Gives_away_the_hold_of_a_caller_that_had_locked_an_error_checking_mutex) {
    CMutex mutex(ERROR_CHECKING, true);
    Recorder::Clear();
    {
        CSingleLock lock(&mutex);
        EXPECT_EQ(Recorder::Count(23, 1, "FAILED to lock mutex"), 1);
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_EQ(Recorder::Count(23, 1, "FAILED to unlock mutex"), 0);
    EXPECT_TRUE(IsFree(mutex));
}

// ---------------------------------------------------------------------------------------------------------
// A thread of the library that is destroyed in the logger, while a guard is made or destroyed

namespace {

thread_local bool t_inTest;

struct Scene {
    CMutex mutex;
    Gate inLogger, goOn, never, left;
    std::atomic<bool> scopeLeft{false};
};

unsigned int LockScope(void* argument) {
    Scene& scene = *static_cast<Scene*>(argument);
    struct AtEnd {
        Gate& gate;
        ~AtEnd() { gate.Open(); }
    } atEnd{scene.left};
    t_inTest = true;
    { CSingleLock lock(&scene.mutex); }
    t_inTest = false;
    scene.scopeLeft = true;
    scene.never.Wait(); // where it is cancelled
    return 0;
}

} // namespace

TEST(SingleLock, Destroying_its_thread_in_the_logger_neither_ends_the_process_nor_leaves_the_mutex_locked) {
    for (int n = 1; n <= 4; n++) {
        SCOPED_TRACE(Text("event %d", n));
        Scene scene;
        int events = 0;
        Recorder::Hook hook([&](const Event&) {
            if (!t_inTest || ++events != n)
                return;
            scene.inLogger.Open();
            scene.goOn.Wait();
            pthread_testcancel();
        });
        CWinThread* thread = AfxBeginThread(&LockScope, &scene);
        EXPECT_TRUE(scene.inLogger.Wait());
        delete thread; // cancels it
        scene.goOn.Open();
        ASSERT_TRUE(scene.left.Wait());
        EXPECT_TRUE(scene.scopeLeft);
        EXPECT_TRUE(IsFree(scene.mutex));
    }
}

namespace {

// Cancelled inside a guarded section, at a cancellation point of the application's.
unsigned int WaitInScope(void* argument) {
    Scene& scene = *static_cast<Scene*>(argument);
    struct AtEnd {
        Gate& gate;
        ~AtEnd() { gate.Open(); }
    } atEnd{scene.left};
    CSingleLock lock(&scene.mutex);
    scene.inLogger.Open();
    scene.never.Wait();
    return 0;
}

} // namespace

TEST(SingleLock, Releases_when_its_thread_is_destroyed_inside_the_scope) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    Scene scene;
    CWinThread* thread = AfxBeginThread(&WaitInScope, &scene);
    ASSERT_TRUE(scene.inLogger.Wait());
    delete thread;
    ASSERT_TRUE(scene.left.Wait());
    EXPECT_TRUE(IsFree(scene.mutex));
}
