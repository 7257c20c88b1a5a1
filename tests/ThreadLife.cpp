// Destroying objects whose threads are busy with them.
#ifdef __SANITIZE_THREAD__

#include <gtest/gtest.h>

TEST(ThreadLife, Is_tested_without_ThreadSanitizer) {
    GTEST_SKIP()
        << "its runtime has cancellation points at which it holds locks of its own, and does not see "
           "what a cancelled thread locks";
}

#else

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/Socket.h>
#include <Windows/WinThread.h>

#include "NetworkFixtures.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

constexpr int kRounds = 1000;

unsigned int ReadMessages(void*) {
    MSG message;
    while (::GetMessage(&message, nullptr, 0, 0)) {
    }
    return 0;
}

unsigned int PeekMessages(void*) {
    MSG message;
    for (;;) {
        ::PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE);
        pthread_testcancel();
    }
}

// A connection that is closed at once would keep the server's loop busy: none is made here.
CCmdTarget g_target;

// Each object gets none, one or many messages, and is destroyed without waiting for anything.
template <typename Make> void DestroyWhileBusy(Make make) {
    Recorder::Pause();
    for (int round = 0; round < kRounds; ++round) {
        const std::unique_ptr<CWinThread> thread = make();
        for (int i = 0; i < round % 8; ++i)
            PostThreadMessage(thread->m_nThreadID, 7, 0, nullptr);
    }
    Recorder::Resume();
}

} // namespace

TEST(ThreadLife, Message_loops_are_destroyed_while_they_read) {
    DestroyWhileBusy([] { return std::unique_ptr<CWinThread>(AfxBeginThread(ReadMessages, nullptr)); });
}

TEST(ThreadLife, Message_loops_are_destroyed_while_they_peek) {
    DestroyWhileBusy([] { return std::unique_ptr<CWinThread>(AfxBeginThread(PeekMessages, nullptr)); });
}

TEST(ThreadLife, Servers_are_destroyed_while_they_serve_their_queue) {
    DestroyWhileBusy([] { return std::make_unique<CServer>(0, g_target); });
}

TEST(ThreadLife, Clients_are_destroyed_while_they_serve_their_queue) {
    DestroyWhileBusy([] {
        auto client = std::make_unique<CClient>(g_target);
        client->ResumeThread();
        return client;
    });
}

TEST(ThreadLife, A_destroyer_waits_for_a_thread_that_uses_its_queue) {
    CWinThread* thread = AfxBeginThread(ReadMessages, nullptr);
    const unsigned long id = thread->m_nThreadID;
    Gate draining, proceed;
    std::atomic<bool> hasRead{false};
    Interpose read(Call::Read);
    read.OnDescriptor(thread->m_readDesc).After([&] { hasRead = true; });
    Recorder::Hook hook([&](const Event& event) { // the first event behind the read: the overflow list's lock
        if (hasRead && pthread_equal(event.thread, id) && hasRead.exchange(false)) {
            draining.Open();
            proceed.Wait();
        }
    });
    // Two: the thread may have begun the read of the first before the script was there.
    PostThreadMessage(id, 7, 0, nullptr);
    PostThreadMessage(id, 7, 0, nullptr);
    ASSERT_TRUE(draining.Wait());

    CallLog waits({Call::CondWait}, CallLog::AllThreads);
    Background destroyer([&] { delete thread; });
    ASSERT_TRUE(waits.WaitFor(Call::CondWait)); // it waits, and the object is still there
    EXPECT_FALSE(destroyer.Ended());
    EXPECT_EQ(CWinThread::MapIdToWinThread(id), thread);
    proceed.Open();
    EXPECT_TRUE(destroyer.Join());
}

TEST(ThreadLife, A_thread_whose_object_is_being_destroyed_waits_to_be_cancelled) {
    struct Work {
        Gate begun, proceed, returned;
        static unsigned int Run(void* p) {
            auto* work = static_cast<Work*>(p);
            work->begun.Open();
            work->proceed.Wait();
            MSG message;
            ::PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE);
            work->returned.Open();
            return 0;
        }
    } work;
    CWinThread* thread = AfxBeginThread(Work::Run, &work);
    ASSERT_TRUE(work.begun.Wait());
    Gate claimed, cancel;
    Interpose beforeItIsCancelled(Call::Dup);
    beforeItIsCancelled.Before([&] {
        claimed.Open();
        cancel.Wait();
    });
    Background destroyer([&] { delete thread; });
    ASSERT_TRUE(claimed.Wait());
    work.proceed.Open();
    EXPECT_FALSE(work.returned.Wait(Deadline::In(std::chrono::milliseconds(50))));
    cancel.Open();
    EXPECT_TRUE(destroyer.Join());
    EXPECT_FALSE(work.returned.IsOpen());
}

TEST(ThreadLife, A_callback_does_not_keep_a_destroyer_waiting) {
    struct Blocking : CCmdTarget {
        Gate inside;
        bool RouteMessage(void*, bool) override {
            inside.Open();
            for (;;)
                pause();
        }
    } target;
    auto server = std::make_unique<CServer>(0, target);
    PostThreadMessage(server->m_nThreadID, 7, 0, nullptr);
    ASSERT_TRUE(target.inside.Wait());
    Background destroyer([&] { server.reset(); });
    EXPECT_TRUE(destroyer.Join());
}

TEST(ThreadLife, A_callback_may_destroy_its_own_server) {
    struct Destroying : CCmdTarget {
        CServer* server = nullptr;
        Gate posted, gone;
        bool RouteMessage(void*, bool) override {
            posted.Wait(); // the poster uses the server until then
            delete server;
            gone.Open();
            return true;
        }
    } target;
    target.server = new CServer(0, target);
    PostThreadMessage(target.server->m_nThreadID, 7, 0, nullptr);
    target.posted.Open();
    EXPECT_TRUE(target.gone.Wait());
}

TEST(ThreadLife, A_thread_that_returns_while_it_is_destroyed_does_not_touch_the_object) {
    struct Work {
        Gate begun, proceed;
        static unsigned int Run(void* p) {
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // it will not end before it returns
            static_cast<Work*>(p)->begun.Open();
            static_cast<Work*>(p)->proceed.Wait();
            return 0;
        }
    } work;
    CWinThread* thread = AfxBeginThread(Work::Run, &work);
    ASSERT_TRUE(work.begun.Wait());
    delete thread;
    Recorder::Clear();
    work.proceed.Open();
    // The test's end waits for the thread's; it must not log its own, as one that was not destroyed does.
    EXPECT_FALSE(Recorder::WaitFor({11, 9, Like("CWinThread::Body() -  Exiting m_nThreadID *")}, 1,
                                   Deadline::In(std::chrono::milliseconds(50))));
}

TEST(ThreadLife, A_client_that_turns_over_unread_data_is_destroyed) {
    struct GivingUp : CCmdTarget {
        Gate asked;
        bool ServerActivity() override {
            asked.Open();
            return false; // and the data stays where it is
        }
    } target;
    ListenSocket listener;
    auto client = std::make_unique<CClient>("127.0.0.1", listener.Port(), target);
    Connection server = listener.Accept();
    ASSERT_TRUE(server.Send(Frame("unread")));
    ASSERT_TRUE(target.asked.Wait());
    Background destroyer([&] { client.reset(); });
    EXPECT_TRUE(destroyer.Join());
}

// Opens a gate when the calling thread ends.
void OpenAtThreadEnd(const std::shared_ptr<Gate>& gate) {
    struct AtThreadEnd {
        std::shared_ptr<Gate> gate;
        ~AtThreadEnd() { gate->Open(); }
    };
    static thread_local AtThreadEnd atThreadEnd;
    atThreadEnd.gate = gate;
}

TEST(ThreadLife, A_thread_whose_object_goes_while_it_waits_reads_no_message) {
    struct Work {
        std::shared_ptr<Gate> ends = std::make_shared<Gate>();
        static unsigned int Run(void* p) {
            OpenAtThreadEnd(static_cast<Work*>(p)->ends);
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // it gets to the end of its wait
            MSG message;
            ::GetMessage(&message, nullptr, 0, 0, 60000);
            return 0;
        }
    } work;
    Gate waits, gone;
    Interpose select(Call::Select);
    select.Return(1).After([&] {
        waits.Open();
        gone.Wait();
    });
    CWinThread* thread = AfxBeginThread(Work::Run, &work);
    ASSERT_TRUE(waits.Wait());
    delete thread;
    const CallLog reads({Call::Read}, CallLog::AllThreads);
    gone.Open();
    ASSERT_TRUE(work.ends->Wait());
    EXPECT_EQ(reads.Count(Call::Read), 0);
}

TEST(ThreadLife, A_thread_whose_object_is_gone_ends_where_it_asks_for_a_message) {
    struct Work {
        explicit Work(int (*ask)()) : ask(ask) {}
        int (*const ask)();
        const std::shared_ptr<Gate> ends = std::make_shared<Gate>();
        Gate begun, gone, returned;
        static unsigned int Run(void* p) {
            auto* work = static_cast<Work*>(p);
            OpenAtThreadEnd(work->ends);
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); // not before it asks
            work->begun.Open();
            work->gone.Wait();
            work->ask();
            work->returned.Open();
            return 0;
        }
    };
    static MSG message;
    Work works[] = {Work([] { return ::GetMessage(&message, nullptr, 0, 0); }),
                    Work([] { return ::PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE); })};
    for (Work& work : works) {
        CWinThread* thread = AfxBeginThread(Work::Run, &work);
        ASSERT_TRUE(work.begun.Wait());
        delete thread;
        work.gone.Open();
        EXPECT_TRUE(work.ends->Wait());
        EXPECT_FALSE(work.returned.IsOpen());
    }
}

TEST(ThreadLife, A_server_that_waits_for_a_message_that_is_not_there_is_destroyed) {
    const CallLog reads({Call::Read}, CallLog::AllThreads);
    Interpose select(Call::Select);
    select.Return(1); // and all descriptors stay in the set
    auto server = std::make_unique<CServer>(0, g_target);
    ASSERT_TRUE(reads.WaitFor(Call::Read));
    Background destroyer([&] { server.reset(); });
    EXPECT_TRUE(destroyer.Join());
}

// A suspended thread, and the gates to hold it somewhere at its end.
struct HeldAtItsEnd {
    explicit HeldAtItsEnd(AFX_THREADPROC run = [](void*) { return 0U; })
        : thread(new CWinThread(run, this)), id(thread->m_nThreadID) {}

    static unsigned int SignalItself(void* p) {
        SetEvent(static_cast<HeldAtItsEnd*>(p)->thread->m_hThread);
        return 0;
    }

    void Hold() {
        held.Open();
        proceed.Wait();
    }

    // Destroys the object, which takes until the thread is let go.
    void ExpectToBeWaitedFor() {
        CallLog waits({Call::CondWait}, CallLog::AllThreads);
        Background destroyer([&] { delete thread; });
        EXPECT_TRUE(waits.WaitFor(Call::CondWait));
        EXPECT_FALSE(destroyer.Ended());
        proceed.Open();
        EXPECT_TRUE(destroyer.Join());
    }

    CWinThread* const thread;
    const pthread_t id;
    Gate held, proceed;
};

TEST(ThreadLife, A_destroyer_does_not_wait_for_a_thread_that_has_told_its_end) {
    HeldAtItsEnd held;
    std::atomic<bool> told{false};
    Interpose broadcast(Call::CondBroadcast);
    broadcast.OnThread(held.id).After([&] { told = true; });
    Interpose unlock(Call::MutexUnlock);
    unlock.OnThread(held.id).When([&](const CallRecord&) { return told.load(); }).After([&] { held.Hold(); });
    held.thread->ResumeThread();
    ASSERT_TRUE(held.held.Wait());
    EXPECT_EQ(WaitForSingleObject(held.thread->m_hThread, INFINITE), WAIT_OBJECT_0);
    Background destroyer([&] { delete held.thread; });
    EXPECT_TRUE(destroyer.Join());
    held.proceed.Open();
}

TEST(ThreadLife, A_handle_that_is_signalled_before_its_thread_ends_does_not_let_the_destroyer_go_on) {
    HeldAtItsEnd held(HeldAtItsEnd::SignalItself);
    std::atomic<bool> ending{false};
    Recorder::Hook hook([&](const Event& event) {
        if (event.text.find("Exiting") != std::string::npos)
            ending = true;
    });
    Interpose lock(Call::MutexLock);
    lock.OnThread(held.id).When([&](const CallRecord&) { return ending.load(); }).Before([&] {
        held.Hold();
    });
    held.thread->ResumeThread();
    ASSERT_TRUE(held.held.Wait());
    EXPECT_EQ(WaitForSingleObject(held.thread->m_hThread, INFINITE), WAIT_OBJECT_0);
    held.ExpectToBeWaitedFor();
}

TEST(ThreadLife, A_thread_whose_handle_was_closed_is_waited_for_all_the_same) {
    HeldAtItsEnd held;
    Recorder::Hook hook([&](const Event& event) {
        if (event.text.find("Exiting") != std::string::npos)
            held.Hold();
    });
    CloseHandle(held.thread->m_hThread);
    held.thread->ResumeThread();
    ASSERT_TRUE(held.held.Wait());
    held.ExpectToBeWaitedFor();
}

// A command target with a callback that outlasts its object: it cannot be cancelled, and returns when the
// object is gone.
class Outlasting : public CCmdTarget {
public:
    enum Callback { None, InConnection, InActivity, InServerActivity, InMessage };

    // From now on this callback stays until Return().
    void StayIn(Callback callback) { m_staysIn = callback; }

    bool WaitInside() { return m_inside.Wait(); }

    // Lets the callback return, and waits for the end of its thread. Returns how many callbacks came between.
    int Return() {
        m_gone.Open();
        EXPECT_TRUE(m_threadEnds->Wait());
        return m_callsAfter;
    }

    void ClientConnection(CSocket* socket) override {
        m_sockets.emplace_back(socket);
        Enter(InConnection);
    }

    bool ClientActivity(int) override {
        Enter(InActivity);
        return true;
    }

    bool ServerActivity() override {
        Enter(InServerActivity);
        return false;
    }

    bool RouteMessage(void*, bool) override {
        Enter(InMessage);
        return true;
    }

private:
    void Enter(Callback callback) {
        if (m_gone.IsOpen())
            m_callsAfter++;
        if (m_staysIn != callback || m_gone.IsOpen())
            return;
        OpenAtThreadEnd(m_threadEnds);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        m_inside.Open();
        m_gone.Wait();
    }

    std::atomic<Callback> m_staysIn{None};
    std::atomic<int> m_callsAfter{0};
    std::vector<std::unique_ptr<CSocket>> m_sockets;
    Gate m_inside, m_gone;
    std::shared_ptr<Gate> m_threadEnds = std::make_shared<Gate>();
};

// Destroys the object whose thread is in a callback: once it has returned, the thread does nothing any more.
template <class Object> void DestroyInCallback(std::unique_ptr<Object> object, Outlasting& target) {
    ASSERT_TRUE(target.WaitInside());
    const unsigned long thread = object->m_nThreadID;
    object.reset();
    Recorder::Clear();
    CallLog calls({Call::Select, Call::Ioctl, Call::Read, Call::Recv, Call::Fcntl}, CallLog::AllThreads);
    EXPECT_EQ(target.Return(), 0);
    EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(thread), {}));
    EXPECT_EQ(calls.Texts(), std::vector<std::string>{});
}

class CallbackOfServer : public testing::TestWithParam<Outlasting::Callback> {};
class CallbackOfClient : public testing::TestWithParam<Outlasting::Callback> {};

TEST_P(CallbackOfServer, Outlasts_its_server_and_returns_to_nothing) {
    Outlasting target;
    Gate firstClient, all;
    Interpose firstWait(Call::Select);
    firstWait.Before([&] { firstClient.Wait(); });
    Interpose secondWait(Call::Select);
    secondWait.OnCall(2).Before([&] { all.Wait(); });
    auto server = std::make_unique<CServer>(0, target);
    Connection first = ConnectTo(PortOf(*server));
    firstClient.Open();
    ASSERT_TRUE(secondWait.WaitActed());
    // One pass gets a connection, a message and a client's data, in this order.
    target.StayIn(GetParam());
    const Connection second = ConnectTo(PortOf(*server));
    PostThreadMessage(server->m_nThreadID, 7, 0, nullptr);
    ASSERT_TRUE(first.Send("x"));
    all.Open();
    DestroyInCallback(std::move(server), target);
}

INSTANTIATE_TEST_SUITE_P(ThreadLife, CallbackOfServer,
                         testing::Values(Outlasting::InConnection, Outlasting::InMessage,
                                         Outlasting::InActivity));

TEST_P(CallbackOfClient, Outlasts_its_client_and_returns_to_nothing) {
    Outlasting target;
    target.StayIn(GetParam());
    ListenSocket listener;
    auto client = std::make_unique<CClient>("127.0.0.1", listener.Port(), target);
    Connection server = listener.Accept();
    if (GetParam() == Outlasting::InServerActivity)
        ASSERT_TRUE(server.Send(Frame("unread")));
    else
        PostThreadMessage(client->m_nThreadID, 7, 0, nullptr);
    DestroyInCallback(std::move(client), target);
}

INSTANTIATE_TEST_SUITE_P(ThreadLife, CallbackOfClient,
                         testing::Values(Outlasting::InServerActivity, Outlasting::InMessage));

// Holds a thread at the event behind its first wait, which finds nothing, and destroys its object meanwhile.
// The destroyer waits, and has not closed anything yet that the thread uses.
template <class Object>
void DestroyBehindWait(const char* event, const std::function<std::unique_ptr<Object>()>& make) {
    Gate behindWait, proceed;
    Interpose nothing(Call::Select);
    nothing.Return(0);
    Recorder::Hook hook([&](const Event& found) {
        if (found.text.find(event) != std::string::npos && !behindWait.IsOpen()) {
            behindWait.Open();
            proceed.Wait();
        }
    });
    std::unique_ptr<Object> object = make();
    ASSERT_TRUE(behindWait.Wait());
    CallLog calls({Call::CondWait, Call::Close}, CallLog::AllThreads);
    Background destroyer([&] { object.reset(); });
    EXPECT_TRUE(calls.WaitFor(Call::CondWait, 1, Deadline::Short()));
    EXPECT_EQ(calls.Texts(), std::vector<std::string>{"pthread_cond_wait()"});
    EXPECT_FALSE(destroyer.Ended());
    proceed.Open();
    EXPECT_TRUE(destroyer.Join());
}

TEST(ThreadLife, A_server_is_whole_until_its_thread_has_left_it) {
    DestroyBehindWait<CServer>("Nothing ready", [] { return std::make_unique<CServer>(0, g_target); });
}

TEST(ThreadLife, A_client_is_whole_until_its_thread_has_left_it) {
    ListenSocket listener;
    DestroyBehindWait<CClient>("Select Timed Out", [&] {
        return std::make_unique<CClient>("127.0.0.1", listener.Port(), g_target);
    });
}

// A thread that has called pthread_exit, with work to do in a destructor on its stack.
struct EndingThread {
    explicit EndingThread(std::function<void()> work)
        : atEnd(std::move(work)), object(new (storage) CWinThread(Run, this)) {
        object->PostMessage(7, 0, nullptr);
        object->ResumeThread();
    }

    // The memory stays, so that the thread may be seen to leave it alone.
    void Destroy() { object->~CWinThread(); }

    static unsigned int Run(void* p) {
        struct AtEnd {
            EndingThread& thread;
            ~AtEnd() {
                thread.atEnd();
                thread.done.Open();
            }
        } atEnd{*static_cast<EndingThread*>(p)};
        pthread_exit(nullptr);
    }

    std::function<void()> atEnd;
    Gate done;
    alignas(CWinThread) unsigned char storage[sizeof(CWinThread)];
    CWinThread* object;
};

TEST(ThreadLife, A_thread_that_ends_after_its_object_is_gone_gets_no_message) {
    Gate ending, gone;
    int results = -1;
    EndingThread* thread = nullptr;
    EndingThread ender([&] {
        ending.Open();
        gone.Wait();
        MSG message;
        results = ::GetMessage(&message, nullptr, 0, 0) +
                  ::PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE) +
                  thread->object->GetMessage(&message, 0, 0, 0, false) +
                  thread->object->PeekMessage(&message, 0, 0);
    });
    thread = &ender;
    ASSERT_TRUE(ending.Wait());
    const unsigned long id = ender.object->m_nThreadID;
    ender.Destroy();
    Recorder::Clear();
    gone.Open();
    ASSERT_TRUE(ender.done.Wait());
    EXPECT_EQ(results, 0);
    EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(id), {})) << "the object was used";
}

TEST(ThreadLife, A_thread_that_ends_and_waits_for_a_message_is_let_go_when_its_object_goes) {
    for (const unsigned int timeoutMs : {0U, 60000U}) {
        SCOPED_TRACE(timeoutMs);
        CallLog calls({timeoutMs == 0 ? Call::Read : Call::Select}, CallLog::AllThreads);
        int results[2] = {-1, -1};
        EndingThread ender([&] {
            MSG message;
            for (int& result : results)
                result = ::GetMessage(&message, nullptr, 0, 0, timeoutMs);
        });
        ASSERT_TRUE(calls.WaitFor(timeoutMs == 0 ? Call::Read : Call::Select, timeoutMs == 0 ? 2 : 1));
        ender.Destroy();
        ASSERT_TRUE(ender.done.Wait());
        EXPECT_EQ(results[0], 1);
        EXPECT_EQ(results[1], 0);
    }
}

#endif
