// The message queue of a thread. Most cases use a suspended thread's queue from the test's own thread, as the
// members do not mind who calls them.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>

#include "support/deadline.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/text.h"

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

bool IsFree(CMutex& mutex) {
    if (pthread_mutex_trylock(mutex.PThreadMutex()) != 0)
        return false;
    pthread_mutex_unlock(mutex.PThreadMutex());
    return true;
}

unsigned int Nothing(void*) { return 0; }

// The queue of a thread that never runs.
class Queue : public CWinThread {
public:
    Queue() : CWinThread(Nothing, nullptr) { Recorder::Clear(); }
    ~Queue() override {
        MSG msg;
        while (HasParked() && PeekMessage(&msg, 0, 0)) {
        }
    }

    using CWinThread::m_nPostedCount;
    using CWinThread::m_readDesc;
    using CWinThread::m_writeDesc;

    CMutex& Writing() { return this->*Revealed(WriteMutex()); }
    CMutex& Reading() { return this->*Revealed(ReadMutex()); }
    CMutex& Overflow() { return this->*Revealed(OverflowMutex()); }
    const void* Head() { return this->*Revealed(OverflowHead()); }
    const void* Tail() { return this->*Revealed(OverflowTail()); }
    bool HasParked() { return Head() != nullptr; }

    // Which locks are held: "w" write, "r" read, "o" overflow, "m" that of the registry.
    std::string Held() {
        std::string held;
        const std::pair<CMutex*, char> locks[] = {
            {&Writing(), 'w'}, {&Reading(), 'r'}, {&Overflow(), 'o'}, {&m_mapMutex, 'm'}};
        for (const auto& [lock, name] : locks)
            if (!IsFree(*lock))
                held += name;
        return held;
    }

    size_t BytesInPipe() {
        int count = -1;
        ioctl(m_readDesc, FIONREAD, &count);
        return static_cast<size_t>(count);
    }

    size_t RecordsInPipe() {
        EXPECT_EQ(BytesInPipe() % sizeof(MSG), 0U);
        return BytesInPipe() / sizeof(MSG);
    }

    bool IsReadable() {
        pollfd poller = {m_readDesc, POLLIN, 0};
        return poll(&poller, 1, 0) == 1;
    }

    int Post(unsigned int message) { return PostMessage(message, 0, nullptr); }

    // Posts messages as if the pipe were full.
    void Park(unsigned int first, unsigned int last) {
        Interpose full(Call::Write);
        full.OnThisThread().Always().Fail(EAGAIN);
        for (unsigned int message = first; message <= last; message++)
            EXPECT_EQ(Post(message), 1);
    }

    // The number of the next message; 0 without one.
    unsigned int Take() {
        MSG msg;
        return PeekMessage(&msg, 0, 0) ? msg.message : 0;
    }

    // The numbers of all messages, each read with PeekMessage.
    std::vector<unsigned int> TakeAll() {
        std::vector<unsigned int> messages;
        while (const unsigned int message = Take())
            messages.push_back(message);
        return messages;
    }
};

typedef std::vector<unsigned int> Numbers;
typedef std::vector<std::string> Texts;

const std::string READ = Text("read(%zu)", sizeof(MSG));
const std::string WRITE = Text("write(%zu)", sizeof(MSG));

// A message whose fields are recognised when they are not touched.
MSG Marked() {
    MSG msg;
    memset(&msg, 0x5A, sizeof msg);
    return msg;
}

bool IsUntouched(const MSG& msg) {
    const MSG marked = Marked();
    return memcmp(&msg, &marked, sizeof msg) == 0;
}

// Whether only the message number was changed, to 0.
bool IsMarkedWithNumber0(const MSG& msg) {
    const MSG marked = Marked();
    return msg.message == 0 && msg.wParam == marked.wParam && msg.lParam == marked.lParam &&
           msg.time == marked.time;
}

// The events of locks ('L') and unlocks ('U') of the calling thread.
std::vector<ExpectedEvent> MutexTrace(const std::string& steps) {
    const unsigned long id = static_cast<unsigned long>(pthread_self());
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

// All events of the calling thread, mutex events included.
std::vector<Event> OwnEvents() {
    return Recorder::Events(
        [self = pthread_self()](const Event& event) { return pthread_equal(event.thread, self) != 0; });
}

ExpectedEvent ReadError(int error) {
    return {11, 1, Text("CWinThread::GetMessage : Error reading from pipe errno = %d", error)};
}

const ExpectedEvent WRONG_SIZE = {11, 1, "CWinThread::GetMessage : message size wrong"};
const ExpectedEvent BYPASSING = {12, 9,
                                 "CWinThread::GetMessage Bypassing select, message was already on pipe"};
const ExpectedEvent NO_QUEUE = {11, 1,
                                "CWinThread::GetMessage : msg ptr NULL || read desc invalid (FAILING)"};

// ---------------------------------------------------------------------------------------------------------
// The record

TEST(WinThreadQueue, A_message_has_four_fields_and_16_bytes_where_pointers_have_4) {
    EXPECT_EQ(offsetof(MSG, message), 0U);
    EXPECT_LT(offsetof(MSG, message), offsetof(MSG, wParam));
    EXPECT_LT(offsetof(MSG, wParam), offsetof(MSG, lParam));
    EXPECT_LT(offsetof(MSG, lParam), offsetof(MSG, time));
    EXPECT_TRUE(sizeof(void*) != 4 || sizeof(MSG) == 16);
    EXPECT_EQ(sizeof(MSG().message), 4U);
    EXPECT_EQ(WM_QUIT, 0xFFFF0000U);
}

TEST(WinThreadQueue, The_record_in_the_pipe_is_the_structure_with_its_gaps_zero) {
    Queue queue;
    int data;
    Host::SetTickCount(12345);
    ASSERT_EQ(queue.PostMessage(0x01020304, 0x05060708, &data), 1);
    MSG expected, seen;
    memset(&expected, 0, sizeof expected);
    expected.message = 0x01020304;
    expected.wParam = 0x05060708;
    expected.lParam = &data;
    expected.time = 12345;
    ASSERT_EQ(queue.BytesInPipe(), sizeof(MSG));
    ASSERT_EQ(read(queue.m_readDesc, &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
    EXPECT_EQ(memcmp(&seen, &expected, sizeof seen), 0);
}

TEST(WinThreadQueue, A_message_arrives_with_all_its_fields) {
    Queue queue;
    int data;
    Host::SetTickCount(77);
    for (bool peek : {false, true}) {
        ASSERT_EQ(queue.PostMessage(1, 0xFFFFFFFF, &data), 1);
        MSG msg = Marked();
        EXPECT_EQ(peek ? queue.PeekMessage(&msg, 0, 0) : queue.GetMessage(&msg, 0, 0, 0, false), 1);
        EXPECT_EQ(msg.message, 1U);
        EXPECT_EQ(msg.wParam, 0xFFFFFFFFUL);
        EXPECT_EQ(msg.lParam, &data);
        EXPECT_EQ(msg.time, 77U);
    }
}

// ---------------------------------------------------------------------------------------------------------
// PostMessage

TEST(WinThreadQueue, PostMessage_takes_one_lock_and_one_write_and_posts_no_other_event) {
    Queue queue;
    CallLog calls;
    EXPECT_EQ(queue.Post(1), 1);
    EXPECT_EQ(calls.Texts(), (Texts{WRITE}));
    EXPECT_EQ(calls.Texts(queue.m_writeDesc), (Texts{WRITE}));
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
    EXPECT_EQ(queue.m_nPostedCount, 1);
}

TEST(WinThreadQueue, PostMessage_holds_only_the_write_lock_when_it_writes) {
    Queue queue;
    std::string held;
    Interpose write(Call::Write);
    write.OnThisThread().Before([&] { held = queue.Held(); });
    EXPECT_EQ(PostThreadMessage(queue.m_nThreadID, 1, 0, nullptr), 1);
    EXPECT_EQ(held, "w");
    EXPECT_EQ(queue.Held(), "");
}

TEST(WinThreadQueue, PostMessage_takes_the_time_before_any_lock) {
    Queue queue;
    Host::SetTickCount(1);
    {
        Interpose lock(Call::MutexLock);
        lock.OnThisThread().Before([] { Host::SetTickCount(2); });
        ASSERT_EQ(queue.Post(1), 1);
        ASSERT_EQ(lock.Acted(), 1);
    }
    MSG msg;
    ASSERT_EQ(queue.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.time, 1U);
}

TEST(WinThreadQueue, PostMessage_counts_after_every_lock_is_released) {
    Queue queue;
    queue.m_nPostedCount = 7;
    std::vector<int> counts;
    Recorder::Hook hook([&, self = pthread_self()](const Event& event) {
        if (pthread_equal(event.thread, self))
            counts.push_back(queue.m_nPostedCount);
    });
    queue.Post(1);
    EXPECT_EQ(counts, (std::vector<int>{7, 7, 7, 7}));
    EXPECT_EQ(queue.m_nPostedCount, 8);
}

TEST(WinThreadQueue, The_count_of_posted_messages_wraps_at_65536) {
    Queue queue;
    queue.m_nPostedCount = 65535;
    queue.Post(1);
    EXPECT_EQ(queue.m_nPostedCount, 0);
    queue.Post(2);
    EXPECT_EQ(queue.m_nPostedCount, 1);
}

TEST(WinThreadQueue, PostMessage_without_a_write_end_fails_in_silence) {
    Queue queue;
    const int writeDesc = std::exchange(queue.m_writeDesc, -1);
    CallLog calls;
    EXPECT_EQ(queue.Post(1), 0);
    EXPECT_TRUE(OwnEvents().empty());
    EXPECT_TRUE(calls.Texts().empty());
    EXPECT_EQ(queue.m_nPostedCount, 0);
    queue.m_writeDesc = writeDesc;
}

TEST(WinThreadQueue, PostMessage_whose_write_fails_is_refused_in_silence) {
    for (int error : {EPIPE, EBADF, EINTR, EIO, EINVAL}) {
        SCOPED_TRACE(error);
        Queue queue;
        CallLog calls;
        Interpose fail(Call::Write);
        fail.OnThisThread().Always().Fail(error);
        EXPECT_EQ(queue.Post(1), 0);
        EXPECT_EQ(calls.Texts(), (Texts{WRITE}));
        EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
        EXPECT_EQ(queue.m_nPostedCount, 0);
        EXPECT_FALSE(queue.HasParked());
        EXPECT_EQ(queue.Held(), "");
    }
}

TEST(WinThreadQueue, PostMessage_whose_write_is_short_is_refused_in_silence) {
    Queue queue;
    CallLog calls;
    Interpose shorter(Call::Write);
    shorter.OnThisThread().Short(sizeof(MSG) / 2);
    EXPECT_EQ(queue.Post(1), 0);
    EXPECT_EQ(calls.Texts(), (Texts{WRITE}));
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
    EXPECT_EQ(queue.m_nPostedCount, 0);
    EXPECT_FALSE(queue.HasParked());
    EXPECT_EQ(queue.Held(), "");
}

TEST(WinThreadQueue, PostMessage_to_a_pipe_without_a_reader_is_refused) {
    Queue queue;
    close(std::exchange(queue.m_readDesc, -1));
    EXPECT_EQ(queue.Post(1), 0); // the program ignores SIGPIPE
}

TEST(WinThreadQueue, Any_number_of_threads_may_post) {
    const unsigned int threads = 4, each = 500;
    Queue queue;
    Recorder::Pause();
    {
        std::vector<std::unique_ptr<Background>> posters;
        for (unsigned int i = 0; i < threads; i++)
            posters.push_back(std::make_unique<Background>([&queue, i] {
                for (unsigned int n = 0; n < each; n++)
                    ASSERT_EQ(queue.PostMessage(1 + i, n, nullptr), 1);
            }));
        std::vector<unsigned long> next(threads, 0);
        const Deadline deadline = Deadline::Long();
        for (unsigned int taken = 0; taken < threads * each && !deadline.Passed();) {
            MSG msg;
            if (!queue.PeekMessage(&msg, 0, 0))
                continue;
            taken++;
            ASSERT_LE(msg.message, threads);
            // It fits into the pipe, so each poster's messages come in its order.
            ASSERT_EQ(msg.wParam, next[msg.message - 1]++);
        }
        EXPECT_EQ(next, std::vector<unsigned long>(threads, each));
        for (auto& poster : posters)
            EXPECT_TRUE(poster->Join());
    }
    EXPECT_EQ(queue.TakeAll(), Numbers());
}

// ---------------------------------------------------------------------------------------------------------
// A full pipe

TEST(WinThreadQueue, Ten_thousand_messages_to_a_thread_that_does_not_read_arrive_in_order) {
    const unsigned int count = 10000;
    Recorder::Pause();
    Queue queue;
    for (unsigned int n = 1; n <= count; n++)
        ASSERT_EQ(queue.PostMessage(n, n, nullptr), 1);
    EXPECT_EQ(queue.m_nPostedCount, count);
    EXPECT_LT(queue.RecordsInPipe(), count);
    EXPECT_TRUE(queue.HasParked());
    for (unsigned int n = 1; n <= count; n++) {
        MSG msg;
        ASSERT_EQ(n % 2 ? queue.GetMessage(&msg, 0, 0, n % 4, false) : queue.PeekMessage(&msg, 0, 0), 1);
        ASSERT_EQ(msg.message, n);
        ASSERT_EQ(msg.wParam, n);
    }
    EXPECT_EQ(queue.Take(), 0U);
    EXPECT_FALSE(queue.HasParked());
    EXPECT_EQ(queue.Tail(), nullptr);
}

TEST(WinThreadQueue, All_of_a_flood_from_several_threads_arrive_while_it_is_read) {
    const unsigned int threads = 3, each = 5000;
    Recorder::Pause();
    Queue queue;
    std::vector<std::vector<bool>> seen(threads, std::vector<bool>(each));
    {
        std::vector<std::unique_ptr<Background>> posters;
        for (unsigned int i = 0; i < threads; i++)
            posters.push_back(std::make_unique<Background>([&queue, i] {
                for (unsigned int n = 0; n < each; n++)
                    ASSERT_EQ(queue.PostMessage(1 + i, n, nullptr), 1);
            }));
        for (unsigned int taken = 0; taken < threads * each; taken++) {
            MSG msg;
            ASSERT_EQ(queue.GetMessage(&msg, 0, 0, 20000, false), 1);
            ASSERT_FALSE(seen[msg.message - 1][msg.wParam]);
            seen[msg.message - 1][msg.wParam] = true;
        }
        for (auto& poster : posters)
            EXPECT_TRUE(poster->Join());
    }
    EXPECT_EQ(queue.TakeAll(), Numbers());
    EXPECT_FALSE(queue.HasParked());
}

TEST(WinThreadQueue, A_message_that_finds_the_pipe_full_is_parked_and_counts_as_posted) {
    Queue queue;
    CallLog calls;
    queue.Park(1, 1);
    EXPECT_EQ(calls.Texts(), (Texts{WRITE, WRITE})); // the second one with the overflow lock held
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LLUU")));
    EXPECT_EQ(queue.RecordsInPipe(), 0U);
    EXPECT_TRUE(queue.HasParked());
    EXPECT_EQ(queue.Tail(), queue.Head());
    EXPECT_EQ(queue.m_nPostedCount, 1);
    EXPECT_EQ(queue.Held(), "");
    queue.Post(2);
    EXPECT_EQ(queue.TakeAll(), (Numbers{2, 1}));
}

TEST(WinThreadQueue, A_parked_message_keeps_all_that_it_was_posted_with) {
    Queue queue;
    int target = 0;
    {
        Interpose full(Call::Write);
        full.OnThisThread().Always().Fail(EAGAIN);
        Host::SetTickCount(111);
        EXPECT_EQ(queue.PostMessage(7, 8, &target), 1);
    }
    Host::SetTickCount(222);
    EXPECT_EQ(queue.Post(9), 1); // and its read moves the parked one
    EXPECT_EQ(queue.Take(), 9U);
    MSG msg = {};
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 1);
    Host::UseRealTickCount();
    EXPECT_EQ(msg.message, 7U);
    EXPECT_EQ(msg.wParam, 8UL);
    EXPECT_EQ(msg.lParam, &target);
    EXPECT_EQ(msg.time, 111UL);
}

TEST(WinThreadQueue, Behind_a_parked_message_a_poster_tries_only_once) {
    Queue queue;
    queue.Park(1, 1);
    const void* head = queue.Head();
    CallLog calls;
    queue.Park(2, 2);
    EXPECT_EQ(calls.Texts(), (Texts{WRITE}));
    EXPECT_EQ(queue.Head(), head);
    EXPECT_NE(queue.Tail(), head);
    queue.Post(3);
    EXPECT_EQ(queue.TakeAll(), (Numbers{3, 1, 2})); // what finds room overtakes what is parked
}

TEST(WinThreadQueue, A_parked_message_is_one_allocation) {
    Recorder::Pause();
    Queue queue;
    AllocationCounter counter;
    queue.Park(1, 1);
    EXPECT_EQ(counter.Allocations(), 1);
    queue.Post(2);
    EXPECT_EQ(queue.TakeAll(), (Numbers{2, 1}));
}

TEST(WinThreadQueue, PostMessage_parks_with_the_write_lock_and_the_overflow_lock_held) {
    Queue queue;
    std::vector<std::string> held;
    {
        Interpose full(Call::Write);
        full.OnThisThread().Always().Fail(EAGAIN).Before([&] { held.push_back(queue.Held()); });
        queue.Post(1);
    }
    EXPECT_EQ(held, (Texts{"w", "wo"}));
    queue.Post(2);
    queue.TakeAll();
}

TEST(WinThreadQueue, A_pipe_that_the_reader_empties_before_the_message_is_parked_gets_it) {
    Queue queue;
    int written = 0;
    const MSG filler = Marked();
    while (write(queue.m_writeDesc, &filler, sizeof filler) == static_cast<ssize_t>(sizeof filler))
        written++;
    ASSERT_EQ(errno, EAGAIN);
    int taken = 0;
    Interpose race(Call::Write);
    race.OnThisThread().OnCall(1).After([&] {
        MSG msg;
        while (queue.PeekMessage(&msg, 0, 0))
            taken++;
    });
    CallLog calls({Call::Write});
    EXPECT_EQ(queue.Post(5), 1);
    const std::vector<CallRecord> writes = calls.Records();
    ASSERT_EQ(writes.size(), 2U);
    EXPECT_EQ(writes[0].error, EAGAIN);
    EXPECT_EQ(writes[1].result, static_cast<long>(sizeof(MSG)));
    EXPECT_EQ(taken, written);
    EXPECT_FALSE(queue.HasParked());
    EXPECT_TRUE(queue.IsReadable());
    EXPECT_EQ(queue.m_nPostedCount, 1);

    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, false), 1);
    EXPECT_EQ(msg.message, 5U);
}

TEST(WinThreadQueue, A_second_try_that_fails_parks_the_message_whatever_the_reason) {
    for (int error : {EPIPE, EBADF, EINTR, EIO}) {
        SCOPED_TRACE(error);
        Queue queue;
        {
            Interpose first(Call::Write);
            first.OnThisThread().OnCall(1).Fail(EAGAIN);
            Interpose second(Call::Write);
            second.OnThisThread().OnCall(2).Fail(error);
            EXPECT_EQ(queue.Post(1), 1);
            EXPECT_EQ(second.Acted(), 1);
        }
        EXPECT_EQ(queue.m_nPostedCount, 1);
        EXPECT_TRUE(queue.HasParked());
        EXPECT_EQ(queue.Held(), "");
        queue.Post(2);
        EXPECT_EQ(queue.TakeAll(), (Numbers{2, 1}));
    }
}

TEST(WinThreadQueue, A_second_try_that_is_short_parks_the_message) {
    Queue queue;
    {
        Interpose first(Call::Write);
        first.OnThisThread().OnCall(1).Fail(EAGAIN);
        Interpose second(Call::Write);
        second.OnThisThread().OnCall(2).Return(sizeof(MSG) / 2);
        EXPECT_EQ(queue.Post(1), 1);
        EXPECT_EQ(second.Acted(), 1);
    }
    EXPECT_TRUE(queue.HasParked());
    EXPECT_EQ(queue.Held(), "");
    queue.Post(2);
    EXPECT_EQ(queue.TakeAll(), (Numbers{2, 1}));
}

TEST(WinThreadQueue, Without_memory_for_parking_PostMessage_throws_and_holds_no_lock) {
    for (bool first : {true, false}) {
        SCOPED_TRACE(first ? "empty list" : "list with a message");
        Queue queue;
        if (!first)
            queue.Park(1, 1);
        const void* tail = queue.Tail();
        const int posted = queue.m_nPostedCount;
        bool thrown = false;
        {
            Interpose full(Call::Write);
            full.OnThisThread().Always().Fail(EAGAIN);
            FailAllocation fail(1);
            try {
                queue.Post(2);
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
        }
        EXPECT_TRUE(thrown);
        EXPECT_EQ(queue.Held(), "");
        EXPECT_EQ(queue.Tail(), tail);
        EXPECT_EQ(queue.m_nPostedCount, posted);
        queue.Post(3);
        EXPECT_EQ(queue.TakeAll(), first ? (Numbers{3}) : (Numbers{3, 1}));
    }
}

// ---------------------------------------------------------------------------------------------------------
// The reader moves parked messages to the pipe

// How a message is read: a time-out of GetMessage, or PeekMessage.
struct Reader {
    const char* name;
    int (*read)(Queue& queue, MSG* msg);
};

const Reader READERS[] = {
    {"GetMessage(0)", [](Queue& queue, MSG* msg) { return queue.GetMessage(msg, 0, 0, 0, true); }},
    {"GetMessage(20000)", [](Queue& queue, MSG* msg) { return queue.GetMessage(msg, 0, 0, 20000, true); }},
    {"PeekMessage", [](Queue& queue, MSG* msg) { return queue.PeekMessage(msg, 0, 0); }}};

TEST(WinThreadQueue, Each_read_moves_all_parked_messages_that_fit_and_releases_them) {
    for (const Reader& reader : READERS) {
        SCOPED_TRACE(reader.name);
        Recorder::Pause();
        Queue queue;
        queue.Post(1);
        queue.Park(2, 4);
        MSG msg;
        AllocationCounter counter;
        ASSERT_EQ(reader.read(queue, &msg), 1);
        EXPECT_EQ(counter.Balance(), -3);
        EXPECT_EQ(msg.message, 1U);
        EXPECT_EQ(queue.RecordsInPipe(), 3U);
        EXPECT_FALSE(queue.HasParked());
        EXPECT_EQ(queue.Tail(), nullptr);
        EXPECT_EQ(queue.TakeAll(), (Numbers{2, 3, 4}));
    }
}

TEST(WinThreadQueue, The_drain_holds_the_read_lock_and_the_overflow_lock_but_not_the_write_lock) {
    for (const Reader& reader : READERS) {
        SCOPED_TRACE(reader.name);
        Queue queue;
        queue.Post(1);
        queue.Park(2, 2);
        std::string reading, writing;
        MSG msg;
        {
            Interpose read(Call::Read), write(Call::Write);
            read.OnThisThread().Before([&] { reading = queue.Held(); });
            write.OnThisThread().Before([&] { writing = queue.Held(); });
            reader.read(queue, &msg);
        }
        EXPECT_EQ(reading, "r");
        EXPECT_EQ(writing, "ro");
        EXPECT_EQ(queue.Held(), "");
        queue.TakeAll();
    }
}

TEST(WinThreadQueue, The_drain_writes_each_record_once_until_the_pipe_is_full) {
    Queue queue;
    queue.Post(1);
    queue.Park(2, 4);
    CallLog calls({Call::Write});
    {
        Interpose full(Call::Write);
        full.OnThisThread().OnCall(2).Fail(EAGAIN);
        EXPECT_EQ(queue.Take(), 1U);
    }
    EXPECT_EQ(calls.Texts(queue.m_writeDesc), (Texts{WRITE, WRITE}));
    EXPECT_EQ(queue.RecordsInPipe(), 1U);
    EXPECT_TRUE(queue.HasParked());
    EXPECT_EQ(queue.TakeAll(), (Numbers{2, 3, 4}));
}

TEST(WinThreadQueue, The_drain_drops_a_message_whose_write_fails_for_another_reason) {
    for (int error : {EPIPE, EBADF, EINTR, EIO}) {
        SCOPED_TRACE(error);
        Queue queue;
        queue.Post(1);
        queue.Park(2, 4);
        Recorder::Clear();
        {
            Interpose fail(Call::Write);
            fail.OnThisThread().OnCall(2).Fail(error);
            EXPECT_EQ(queue.Take(), 1U);
        }
        EXPECT_TRUE(SameEvents(Recorder::Events(), {}));
        EXPECT_EQ(queue.TakeAll(), (Numbers{2, 4}));
        EXPECT_EQ(queue.Tail(), nullptr);
    }
}

TEST(WinThreadQueue, The_drain_drops_a_message_that_was_written_in_part) {
    Queue queue;
    queue.Post(1);
    queue.Park(2, 3);
    {
        Interpose part(Call::Write);
        part.OnThisThread().Return(sizeof(MSG) / 2);
        EXPECT_EQ(queue.Take(), 1U);
    }
    EXPECT_EQ(queue.TakeAll(), (Numbers{3}));
}

TEST(WinThreadQueue, A_failed_read_drains_too) {
    for (const Reader& reader : READERS) {
        SCOPED_TRACE(reader.name);
        Queue queue;
        queue.Post(1);
        queue.Park(2, 3);
        MSG msg;
        {
            Interpose fail(Call::Read);
            fail.OnThisThread().Fail(EIO);
            EXPECT_EQ(reader.read(queue, &msg), 0);
        }
        EXPECT_EQ(queue.RecordsInPipe(), 3U);
        EXPECT_EQ(queue.TakeAll(), (Numbers{1, 2, 3}));
    }
}

TEST(WinThreadQueue, PeekMessage_of_an_empty_pipe_does_not_drain) {
    Queue queue;
    queue.Park(1, 1);
    CallLog calls;
    EXPECT_EQ(queue.Take(), 0U);
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)"}));
    queue.Post(2);
    EXPECT_EQ(queue.TakeAll(), (Numbers{2, 1}));
}

TEST(WinThreadQueue, After_a_lockout_the_next_read_discards_what_is_parked) {
    for (const Reader& reader : READERS) {
        SCOPED_TRACE(reader.name);
        Recorder::Pause();
        Queue queue;
        queue.Post(1);
        queue.Park(2, 4);
        queue.LockoutMsgQueue();
        AllocationCounter counter;
        MSG msg;
        EXPECT_EQ(reader.read(queue, &msg), 1);
        EXPECT_EQ(counter.Balance(), -3);
        EXPECT_FALSE(queue.HasParked());
        EXPECT_EQ(queue.Tail(), nullptr);
        EXPECT_EQ(queue.TakeAll(), Numbers());
    }
}

// ---------------------------------------------------------------------------------------------------------
// GetMessage

TEST(WinThreadQueue, GetMessage_without_a_timeout_makes_one_read_and_nothing_else) {
    Queue queue;
    queue.Post(1);
    Recorder::Clear();
    CallLog calls;
    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 0, false), 1);
    EXPECT_EQ(calls.Texts(), (Texts{READ}));
    EXPECT_EQ(calls.Texts(queue.m_readDesc), (Texts{READ}));
    std::vector<ExpectedEvent> expected = MutexTrace("LLUU");
    expected.push_back({12, 9, Like("CWinThread::GetMessage Received message *")});
    EXPECT_TRUE(SameEvents(OwnEvents(), expected));
}

TEST(WinThreadQueue, GetMessage_with_a_timeout_looks_first_and_bypasses_select) {
    Queue queue;
    queue.Post(1);
    Recorder::Clear();
    CallLog calls;
    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, false), 1);
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)", READ}));
    EXPECT_EQ(calls.Texts(queue.m_readDesc), (Texts{"ioctl(FIONREAD)", READ}));
    std::vector<ExpectedEvent> expected = MutexTrace("LU");
    expected.push_back(BYPASSING);
    for (const ExpectedEvent& event : MutexTrace("LLUU"))
        expected.push_back(event);
    expected.push_back({12, 9, Like("CWinThread::GetMessage Received message *")});
    EXPECT_TRUE(SameEvents(OwnEvents(), expected));
}

TEST(WinThreadQueue, GetMessage_looks_with_the_read_lock_and_selects_without_it) {
    Queue queue;
    std::string looking, selecting;
    Interpose look(Call::Ioctl), select(Call::Select);
    look.OnThisThread().Before([&] { looking = queue.Held(); });
    select.OnThisThread().Return(0).Before([&] { selecting = queue.Held() + "."; });
    MSG msg;
    queue.GetMessage(&msg, 0, 0, 20000, false);
    EXPECT_EQ(looking, "r");
    EXPECT_EQ(selecting, ".");
}

TEST(WinThreadQueue, GetMessage_posts_what_it_received_with_the_number_in_place_of_the_parameter) {
    struct {
        unsigned int message;
        unsigned long wParam, lParam, time;
        const char* text;
    } const table[] = {
        {5, 6, 7, 1234, "message 5 wParam 5 lParam 7 time 1234"},
        {0, 1, 0, 0, "message 0 wParam 0 lParam 0 time 0"},
        {0x7FFFFFFF, 9, 0x7FFFFFFF, 0x7FFFFFFF,
         "message 2147483647 wParam 2147483647 lParam 2147483647 time 2147483647"},
        {0x80000000, 9, 1, 0x80000000UL, "message -2147483648 wParam -2147483648 lParam 1 time -2147483648"},
        {0xFFFF0001, 9, 1, 0xFFFFFFFFUL, "message -65535 wParam -65535 lParam 1 time -1"},
    };
    Queue queue;
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        Host::SetTickCount(row.time);
        queue.PostMessage(row.message, row.wParam, reinterpret_cast<void*>(row.lParam));
        Recorder::Clear();
        MSG msg;
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 0, false), 1);
        EXPECT_EQ(msg.wParam, row.wParam);
        EXPECT_TRUE(SameEvents(Recorder::Events(),
                               {{12, 9, Text("CWinThread::GetMessage Received %s on pipe", row.text)}}));
    }
}

TEST(WinThreadQueue, GetMessage_returns_1_for_WM_QUIT_with_an_event_of_its_own) {
    Queue queue;
    for (unsigned int timeoutMs : {0U, 20000U}) {
        queue.PostMessage(WM_QUIT, 3, nullptr);
        Recorder::Clear();
        MSG msg;
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, timeoutMs, false), 1);
        EXPECT_EQ(msg.message, 0xFFFF0000U);
        EXPECT_EQ(msg.wParam, 3U);
        std::vector<ExpectedEvent> expected = {{11, 7, "CWinThread::GetMessage : received WM_QUIT"}};
        if (timeoutMs)
            expected.insert(expected.begin(), BYPASSING);
        EXPECT_TRUE(SameEvents(Recorder::Events(), expected));
    }
}

TEST(WinThreadQueue, Every_message_is_delivered_in_order_whatever_the_filter_says) {
    Queue queue;
    for (unsigned int message : {5U, 500U, 50U})
        queue.Post(message);
    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 10, 20, 0, false), 1);
    EXPECT_EQ(msg.message, 5U);
    EXPECT_EQ(queue.GetMessage(&msg, 1, 1, 20000, false), 1);
    EXPECT_EQ(msg.message, 500U);
    EXPECT_EQ(queue.PeekMessage(&msg, 0xFFFFFFFF, 0), 1);
    EXPECT_EQ(msg.message, 50U);
}

TEST(WinThreadQueue, GetMessage_sets_the_number_to_0_before_it_locks_and_reads) {
    Queue queue;
    queue.Post(9);
    MSG msg = Marked();
    std::vector<unsigned int> numbers;
    {
        Recorder::Hook hook([&, self = pthread_self()](const Event& event) {
            if (event.severity == 8 && pthread_equal(event.thread, self))
                numbers.push_back(msg.message);
        });
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 0, false), 1);
    }
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers[0], 0U);
    EXPECT_EQ(msg.message, 9U);
}

TEST(WinThreadQueue, GetMessage_into_NULL_fails) {
    Queue queue;
    queue.Post(1);
    for (unsigned int timeoutMs : {0U, 20000U}) {
        Recorder::Clear();
        CallLog calls;
        EXPECT_EQ(queue.GetMessage(nullptr, 0, 0, timeoutMs, true), 0);
        EXPECT_TRUE(SameEvents(OwnEvents(), {NO_QUEUE}));
        EXPECT_TRUE(calls.Texts().empty());
    }
    EXPECT_EQ(queue.TakeAll(), (Numbers{1}));
}

TEST(WinThreadQueue, GetMessage_without_a_read_end_fails_and_leaves_the_message_alone) {
    Queue queue;
    const int readDesc = std::exchange(queue.m_readDesc, -1);
    for (unsigned int timeoutMs : {0U, 20000U}) {
        Recorder::Clear();
        MSG msg = Marked();
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, timeoutMs, true), 0);
        EXPECT_TRUE(SameEvents(OwnEvents(), {NO_QUEUE}));
        EXPECT_TRUE(IsUntouched(msg));
    }
    queue.m_readDesc = readDesc;
}

TEST(WinThreadQueue, GetMessage_that_cannot_look_into_the_pipe_fails) {
    Queue queue;
    CallLog calls;
    Interpose fail(Call::Ioctl);
    fail.OnThisThread().Fail(EBADF);
    MSG msg = Marked();
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, true), 0);
    EXPECT_TRUE(SameEvents(
        Recorder::Events(),
        {{11, 2, "CWinThread::GetMessage : Failed to read status on message queue pipe! (FAILING)"}}));
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)"}));
    EXPECT_TRUE(IsUntouched(msg));
    EXPECT_EQ(queue.Held(), "");
}

TEST(WinThreadQueue, GetMessage_returns_the_result_for_a_timeout_after_its_time) {
    for (bool timeoutResult : {true, false}) {
        SCOPED_TRACE(timeoutResult);
        Queue queue;
        CallLog calls;
        MSG msg = Marked();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 50, timeoutResult), timeoutResult ? 1 : 0);
        const auto time = std::chrono::steady_clock::now() - start;
        EXPECT_GE(time, std::chrono::milliseconds(48));
        EXPECT_LT(time, std::chrono::seconds(15));
        EXPECT_TRUE(IsMarkedWithNumber0(msg));
        EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)", "select(0.050000)"}));
        EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
    }
}

TEST(WinThreadQueue, GetMessage_function_returns_0_for_a_timeout_by_default) {
    int result = -1;
    std::unique_ptr<CWinThread> thread(AfxBeginThread(
        [](void* p) {
            MSG msg = Marked();
            *static_cast<int*>(p) = ::GetMessage(&msg, nullptr, 0, 0, 10);
            return 0U;
        },
        &result));
    WaitForSingleObject(thread->m_hThread, INFINITE);
    EXPECT_EQ(result, 0);
}

TEST(WinThreadQueue, GetMessage_selects_on_the_pipe_alone_with_the_time_in_milliseconds) {
    struct {
        unsigned int timeoutMs;
        const char* select;
    } const table[] = {{1, "select(0.001000)"},
                       {999, "select(0.999000)"},
                       {1000, "select(1.000000)"},
                       {123456, "select(123.456000)"},
                       {0xFFFFFFFF, "select(4294967.295000)"}}; // long, but not for ever
    Queue queue;
    for (const auto& row : table) {
        SCOPED_TRACE(row.timeoutMs);
        CallLog calls({Call::Select});
        Interpose select(Call::Select);
        select.OnThisThread().Return(0);
        MSG msg;
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, row.timeoutMs, true), 1);
        EXPECT_EQ(calls.Texts(), (Texts{row.select}));
        EXPECT_EQ(calls.Records().at(0).number, queue.m_readDesc + 1);
    }
}

TEST(WinThreadQueue, GetMessage_reads_when_select_finds_a_message) {
    Queue queue;
    Interpose race(Call::Select);
    race.OnThisThread().Before([&] { queue.PostMessage(3, 4, nullptr); });
    CallLog calls({Call::Ioctl, Call::Select, Call::Read});
    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, false), 1);
    EXPECT_EQ(msg.message, 3U);
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)", "select(20.000000)", READ}));
    EXPECT_FALSE(Recorder::Has(12, 9, BYPASSING.text));
}

TEST(WinThreadQueue, An_interrupted_select_is_repeated_with_the_full_time) {
    Queue queue;
    CallLog calls({Call::Select, Call::SchedYield});
    Interpose interrupt(Call::Select);
    interrupt.OnThisThread()
        .Fail(EINTR)
        .When([n = 0](const CallRecord&) mutable { return ++n <= 3; })
        .Always();
    Interpose expire(Call::Select);
    expire.OnThisThread().OnCall(4).Return(0);
    MSG msg = Marked();
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 70, true), 1);
    EXPECT_EQ(calls.Texts(), (Texts{"select(0.070000)", "sched_yield()", "select(0.070000)", "sched_yield()",
                                    "select(0.070000)", "sched_yield()", "select(0.070000)"}));
    EXPECT_TRUE(IsMarkedWithNumber0(msg));
    EXPECT_TRUE(SameEvents(Recorder::Events(), {}));
}

TEST(WinThreadQueue, A_select_that_fails_ends_GetMessage_in_silence) {
    for (int error : {EBADF, EINVAL, ENOMEM, EAGAIN}) {
        SCOPED_TRACE(error);
        Queue queue;
        CallLog calls({Call::Select, Call::Read, Call::SchedYield});
        Interpose fail(Call::Select);
        fail.OnThisThread().Fail(error);
        MSG msg = Marked();
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, true), 0);
        EXPECT_EQ(calls.Texts(), (Texts{"select(20.000000)"}));
        EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
        EXPECT_TRUE(IsUntouched(msg));
    }
}

TEST(WinThreadQueue, An_old_error_number_does_not_make_a_failed_select_look_interrupted) {
    Queue queue;
    CallLog calls({Call::Select});
    Interpose fail(Call::Select);
    fail.OnThisThread().Return(-1); // leaves errno as it was before the call
    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, true), 0);
    ASSERT_EQ(calls.Records().size(), 1U);
    EXPECT_EQ(calls.Records()[0].error, 0);
}

TEST(WinThreadQueue, GetMessage_reports_a_failed_read_with_the_error_of_the_read) {
    for (int error : {EIO, EINTR, EAGAIN}) {
        SCOPED_TRACE(error);
        Queue queue;
        queue.Post(1);
        queue.Park(2, 2);
        Recorder::Clear();
        Interpose fail(Call::Read);
        fail.OnThisThread().Fail(error);
        Interpose full(Call::Write); // the drain, which comes between the read and the event
        full.OnThisThread().Fail(error == EAGAIN ? EPIPE : EAGAIN);
        MSG msg = Marked();
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 0, true), 0);
        EXPECT_EQ(full.Acted(), 1);
        EXPECT_TRUE(SameEvents(Recorder::Events(), {ReadError(error)}));
        EXPECT_TRUE(IsMarkedWithNumber0(msg));
        EXPECT_EQ(queue.Held(), "");
    }
}

TEST(WinThreadQueue, GetMessage_reports_a_record_of_the_wrong_size) {
    for (unsigned int timeoutMs : {0U, 20000U}) {
        SCOPED_TRACE(timeoutMs);
        Queue queue;
        queue.Post(1);
        Recorder::Clear();
        Interpose shorter(Call::Read);
        shorter.OnThisThread().Return(sizeof(MSG) - 1);
        MSG msg = Marked();
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, timeoutMs, true), 0);
        EXPECT_TRUE(EventsInOrder(Recorder::Events(), {WRONG_SIZE}));
        EXPECT_EQ(Recorder::Count(12, 9, Like("* Received message *")), 0);
        EXPECT_EQ(queue.Held(), "");
    }
}

TEST(WinThreadQueue, GetMessage_reads_a_single_byte_without_a_wait) {
    Queue queue;
    ASSERT_EQ(write(queue.m_writeDesc, "x", 1), 1);
    Recorder::Clear();
    MSG msg = Marked();
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, true), 0);
    EXPECT_TRUE(EventsInOrder(Recorder::Events(), {BYPASSING, WRONG_SIZE}));
    EXPECT_EQ(queue.Held(), "");
}

TEST(WinThreadQueue, GetMessage_at_the_end_of_the_pipe_has_the_wrong_size_and_number_0) {
    Queue queue;
    queue.LockoutMsgQueue();
    for (unsigned int timeoutMs : {0U, 20000U}) {
        SCOPED_TRACE(timeoutMs);
        Recorder::Clear();
        MSG msg = Marked();
        EXPECT_EQ(queue.GetMessage(&msg, 0, 0, timeoutMs, true), 0);
        EXPECT_TRUE(SameEvents(Recorder::Events(), {WRONG_SIZE}));
        EXPECT_TRUE(IsMarkedWithNumber0(msg));
    }
}

// ---------------------------------------------------------------------------------------------------------
// PeekMessage

TEST(WinThreadQueue, PeekMessage_looks_then_reads_and_posts_nothing) {
    Queue queue;
    queue.Post(WM_QUIT); // not special here
    Recorder::Clear();
    CallLog calls;
    MSG msg;
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.message, WM_QUIT);
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)", READ}));
    EXPECT_EQ(calls.Texts(queue.m_readDesc), (Texts{"ioctl(FIONREAD)", READ}));
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LULLUU")));
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0); // it was removed
}

TEST(WinThreadQueue, PeekMessage_of_an_empty_queue_returns_0_at_once_with_number_0) {
    Queue queue;
    CallLog calls;
    MSG msg = Marked();
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0);
    EXPECT_TRUE(IsMarkedWithNumber0(msg));
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)"}));
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
}

TEST(WinThreadQueue, PeekMessage_looks_with_the_read_lock) {
    Queue queue;
    std::string held;
    Interpose look(Call::Ioctl);
    look.OnThisThread().Before([&] { held = queue.Held(); });
    queue.Take();
    EXPECT_EQ(held, "r");
}

TEST(WinThreadQueue, PeekMessage_without_a_message_or_a_read_end_fails_in_silence) {
    Queue queue;
    queue.Post(1);
    Recorder::Clear();
    MSG msg = Marked();
    EXPECT_EQ(queue.PeekMessage(nullptr, 0, 0), 0);
    const int readDesc = std::exchange(queue.m_readDesc, -1);
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0);
    queue.m_readDesc = readDesc;
    EXPECT_TRUE(OwnEvents().empty());
    EXPECT_TRUE(IsUntouched(msg));
}

TEST(WinThreadQueue, PeekMessage_that_cannot_look_into_the_pipe_fails_in_silence) {
    Queue queue;
    queue.Post(1);
    Recorder::Clear();
    CallLog calls;
    Interpose fail(Call::Ioctl);
    fail.OnThisThread().Fail(EBADF);
    MSG msg = Marked();
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0);
    EXPECT_EQ(calls.Texts(), (Texts{"ioctl(FIONREAD)"}));
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LU")));
    EXPECT_TRUE(IsMarkedWithNumber0(msg));
}

TEST(WinThreadQueue, PeekMessage_reports_a_failed_read_with_the_error_of_the_read) {
    for (int error : {EIO, EINTR, EAGAIN}) {
        SCOPED_TRACE(error);
        Queue queue;
        queue.Post(1);
        queue.Park(2, 2);
        Recorder::Clear();
        Interpose fail(Call::Read);
        fail.OnThisThread().Fail(error);
        Interpose full(Call::Write);
        full.OnThisThread().Fail(error == EAGAIN ? EPIPE : EAGAIN);
        MSG msg = Marked();
        EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0);
        EXPECT_TRUE(SameEvents(
            Recorder::Events(),
            {{11, 1, Text("CWinThread::PeekMessage() : Error reading from pipe errno = %d", error)}}));
        EXPECT_EQ(msg.message, 0U);
        EXPECT_EQ(queue.Held(), "");
    }
}

TEST(WinThreadQueue, PeekMessage_of_a_record_of_the_wrong_size_fails_in_silence) {
    for (long size : {0L, static_cast<long>(sizeof(MSG) - 1)}) {
        Queue queue;
        queue.Post(1);
        Recorder::Clear();
        Interpose shorter(Call::Read);
        shorter.OnThisThread().Return(size);
        MSG msg;
        EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0);
        EXPECT_TRUE(SameEvents(Recorder::Events(), {}));
    }
}

// ---------------------------------------------------------------------------------------------------------
// Locking out

TEST(WinThreadQueue, LockoutMsgQueue_closes_the_write_end_and_posts_nothing) {
    Queue queue;
    const int writeDesc = queue.m_writeDesc;
    CallLog calls;
    EXPECT_EQ(queue.LockoutMsgQueue(), 0);
    EXPECT_EQ(calls.Texts(), (Texts{"close()"}));
    EXPECT_EQ(calls.Texts(writeDesc), (Texts{"close()"}));
    EXPECT_EQ(queue.m_writeDesc, -1);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {}));
}

TEST(WinThreadQueue, A_second_LockoutMsgQueue_returns_minus_1_and_closes_nothing) {
    Queue queue;
    EXPECT_EQ(queue.LockoutMsgQueue(), 0);
    CallLog calls;
    EXPECT_EQ(queue.LockoutMsgQueue(), -1);
    EXPECT_TRUE(calls.Texts().empty());
}

TEST(WinThreadQueue, LockoutMsgQueue_returns_the_result_of_close) {
    Queue queue;
    const int writeDesc = queue.m_writeDesc;
    {
        Interpose fail(Call::Close);
        fail.OnThisThread().Fail(EIO);
        EXPECT_EQ(queue.LockoutMsgQueue(), -1);
    }
    EXPECT_EQ(queue.m_writeDesc, -1);
    close(writeDesc);
}

TEST(WinThreadQueue, After_a_lockout_the_pipe_can_still_be_read_but_not_posted_to) {
    Queue queue;
    queue.Post(1);
    queue.Post(2);
    queue.LockoutMsgQueue();
    EXPECT_EQ(queue.Post(3), 0);
    EXPECT_EQ(PostThreadMessage(queue.m_nThreadID, 4, 0, nullptr), 0);
    MSG msg;
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 0, false), 1);
    EXPECT_EQ(msg.message, 1U);
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 20000, false), 1);
    EXPECT_EQ(msg.message, 2U);
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 0);
    EXPECT_EQ(queue.GetMessage(&msg, 0, 0, 0, true), 0);
    EXPECT_TRUE(Recorder::Has(11, 1, "CWinThread::GetMessage : message size wrong"));
}

TEST(WinThreadQueue, The_read_end_is_readable_exactly_when_a_record_or_the_end_waits) {
    Queue queue;
    EXPECT_FALSE(queue.IsReadable());
    queue.Post(1);
    EXPECT_TRUE(queue.IsReadable());
    queue.Post(2);
    EXPECT_EQ(queue.BytesInPipe(), 2 * sizeof(MSG));
    queue.Take();
    EXPECT_TRUE(queue.IsReadable());
    EXPECT_EQ(queue.BytesInPipe(), sizeof(MSG));
    queue.Take();
    EXPECT_FALSE(queue.IsReadable());
    queue.LockoutMsgQueue();
    EXPECT_EQ(queue.BytesInPipe(), 0U);
    pollfd poller = {queue.m_readDesc, POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, 0), 1);
}

// ---------------------------------------------------------------------------------------------------------
// On real threads

unsigned int RunFunction(void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return 0;
}

bool ThreadEnds(const CWinThread& thread) {
    const long limit = static_cast<long>(Deadline::Long().Remaining().count());
    return WaitForSingleObject(thread.m_hThread, static_cast<unsigned long>(limit)) == WAIT_OBJECT_0;
}

void RunOnThread(std::function<void()> function) {
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &function));
    EXPECT_TRUE(ThreadEnds(*thread));
}

// A thread that calls GetMessage once.
class Getter {
public:
    Getter(unsigned int timeoutMs, bool timeoutResult)
        : m_function([=] { result = ::GetMessage(&msg, nullptr, 0, 0, timeoutMs, timeoutResult); }),
          m_thread(AfxBeginThread(RunFunction, &m_function, 0, 0, CREATE_SUSPENDED)) {}

    void Start() { m_thread->ResumeThread(); }
    bool Ends() { return ThreadEnds(*m_thread); }
    pthread_t Id() const { return m_thread->m_nThreadID; }
    CWinThread& Thread() { return *m_thread; }

    MSG msg = Marked();
    int result = -1;

private:
    std::function<void()> m_function;
    std::unique_ptr<CWinThread> m_thread;
};

TEST(WinThreadQueue, GetMessage_without_a_timeout_blocks_until_something_is_posted) {
    Getter getter(0, false);
    CallLog calls({Call::Read}, CallLog::AllThreads);
    getter.Start();
    ASSERT_TRUE(calls.WaitFor(Call::Read));
    EXPECT_EQ(getter.result, -1);
    EXPECT_EQ(PostThreadMessage(getter.Id(), 8, 9, nullptr), 1);
    ASSERT_TRUE(getter.Ends());
    EXPECT_EQ(getter.result, 1);
    EXPECT_EQ(getter.msg.message, 8U);
    EXPECT_EQ(getter.msg.wParam, 9U);
}

TEST(WinThreadQueue, GetMessage_with_a_timeout_is_woken_by_a_message) {
    Getter getter(1000000, false);
    CallLog calls({Call::Select}, CallLog::AllThreads);
    getter.Start();
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    EXPECT_EQ(PostThreadMessage(getter.Id(), 8, 9, nullptr), 1);
    ASSERT_TRUE(getter.Ends());
    EXPECT_EQ(getter.result, 1);
    EXPECT_EQ(getter.msg.message, 8U);
}

TEST(WinThreadQueue, GetMessage_without_a_timeout_is_woken_by_a_lockout) {
    Getter getter(0, true);
    CallLog calls({Call::Read}, CallLog::AllThreads);
    getter.Start();
    ASSERT_TRUE(calls.WaitFor(Call::Read));
    EXPECT_EQ(getter.Thread().LockoutMsgQueue(), 0);
    ASSERT_TRUE(getter.Ends());
    EXPECT_EQ(getter.result, 0);
    EXPECT_EQ(getter.msg.message, 0U);
    EXPECT_TRUE(Recorder::Has(11, 1, "CWinThread::GetMessage : message size wrong"));
}

// Makes SIGUSR1 interrupt system calls while it lives.
class InterruptingSignal {
public:
    InterruptingSignal() {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, &m_before);
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &m_before, nullptr); }

    // Sends it to a thread, again and again, until a condition holds. A signal that comes before the thread
    // is in the call interrupts nothing.
    bool SendUntil(pthread_t thread, const std::function<bool()>& condition) {
        const Deadline deadline = Deadline::Long();
        while (!condition()) {
            if (deadline.Passed())
                return false;
            pthread_kill(thread, SIGUSR1);
            sched_yield();
        }
        return true;
    }

private:
    struct sigaction m_before;
};

TEST(WinThreadQueue, A_signal_ends_a_read_without_a_timeout) {
    InterruptingSignal signal;
    Getter getter(0, true);
    CallLog calls({Call::Read}, CallLog::AllThreads);
    getter.Start();
    ASSERT_TRUE(calls.WaitFor(Call::Read));
    EXPECT_TRUE(signal.SendUntil(
        getter.Id(), [&] { return WaitForSingleObject(getter.Thread().m_hThread, 0) == WAIT_OBJECT_0; }));
    EXPECT_EQ(getter.result, 0);
    EXPECT_EQ(getter.msg.message, 0U);
    EXPECT_EQ(
        Recorder::Count(11, 1, Text("CWinThread::GetMessage : Error reading from pipe errno = %d", EINTR)),
        1);
}

TEST(WinThreadQueue, A_signal_makes_a_wait_begin_again_with_its_full_time) {
    InterruptingSignal signal;
    Getter getter(1000000, false);
    CallLog calls({Call::Select, Call::SchedYield}, CallLog::AllThreads);
    getter.Start();
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    EXPECT_TRUE(signal.SendUntil(getter.Id(), [&] { return calls.Count(Call::Select) >= 3; }));
    EXPECT_EQ(PostThreadMessage(getter.Id(), 8, 9, nullptr), 1);
    ASSERT_TRUE(getter.Ends());
    EXPECT_EQ(getter.result, 1);
    for (const CallRecord& record : calls.Records())
        if (record.call == Call::Select) {
            EXPECT_EQ(record.text, "select(1000.000000)");
        }
}

TEST(WinThreadQueue, A_loop_ends_by_looking_for_WM_QUIT) {
    Numbers received;
    std::function<void()> loop = [&] {
        MSG msg;
        while (::GetMessage(&msg, nullptr, 0, 0, 0, false) && msg.message != WM_QUIT)
            received.push_back(msg.message);
    };
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &loop));
    for (unsigned int message : {1U, 2U, static_cast<unsigned int>(WM_QUIT), 3U})
        EXPECT_EQ(PostThreadMessage(thread->m_nThreadID, message, 0, nullptr), 1);
    ASSERT_TRUE(ThreadEnds(*thread));
    EXPECT_EQ(received, (Numbers{1, 2}));
}

TEST(WinThreadQueue, A_flood_reaches_a_thread_that_reads_meanwhile) {
    const unsigned int count = 10000;
    Recorder::Pause();
    unsigned long sum = 0;
    std::function<void()> loop = [&] {
        MSG msg;
        while (::GetMessage(&msg, nullptr, 0, 0, 0, false) && msg.message != 2)
            sum += msg.wParam;
    };
    std::unique_ptr<CWinThread> thread(AfxBeginThread(RunFunction, &loop, 0, 0, CREATE_SUSPENDED));
    for (unsigned int n = 1; n <= count; n++)
        ASSERT_EQ(PostThreadMessage(thread->m_nThreadID, n == count ? 2 : 1, n, nullptr), 1);
    thread->ResumeThread();
    ASSERT_TRUE(ThreadEnds(*thread));
    EXPECT_EQ(sum, static_cast<unsigned long>(count) * (count - 1) / 2);
}

// ---------------------------------------------------------------------------------------------------------
// Free functions

TEST(WinThreadQueue, PostThreadMessage_posts_to_the_thread_of_the_id) {
    Queue queue, other;
    EXPECT_EQ(PostThreadMessage(queue.m_nThreadID, 1, 2, &queue), 1);
    MSG msg;
    EXPECT_EQ(queue.PeekMessage(&msg, 0, 0), 1);
    EXPECT_EQ(msg.message, 1U);
    EXPECT_EQ(msg.wParam, 2U);
    EXPECT_EQ(msg.lParam, &queue);
    EXPECT_EQ(other.Take(), 0U);
}

TEST(WinThreadQueue, PostThreadMessage_to_an_unknown_id_fails_in_silence) {
    pthread_t gone;
    {
        Queue queue;
        gone = queue.m_nThreadID;
    }
    Recorder::Clear();
    for (unsigned long id :
         {0UL, 0x12345671UL, static_cast<unsigned long>(pthread_self()), static_cast<unsigned long>(gone)})
        EXPECT_EQ(PostThreadMessage(id, 1, 0, nullptr), 0);
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LULULULU")));
}

TEST(WinThreadQueue, The_lookup_has_released_the_registry_before_the_queue_is_used) {
    Queue queue;
    PostThreadMessage(queue.m_nThreadID, 1, 0, nullptr);
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LULU")));
}

TEST(WinThreadQueue, The_free_functions_find_nothing_on_other_threads) {
    Recorder::Clear();
    MSG msg = Marked();
    EXPECT_EQ(::GetMessage(&msg, nullptr, 0, 0, 0, true), 0);
    EXPECT_EQ(::GetMessage(&msg, nullptr, 0, 0, 20000, true), 0);
    EXPECT_EQ(::PeekMessage(&msg, nullptr, 0, 0, 0), 0);
    EXPECT_EQ(::GetMessage(nullptr, nullptr, 0, 0, 0, true), 0);
    EXPECT_TRUE(SameEvents(OwnEvents(), MutexTrace("LULULULU")));
    EXPECT_TRUE(IsUntouched(msg));
}

TEST(WinThreadQueue, The_free_GetMessage_reads_the_queue_of_the_calling_thread_and_ignores_the_window) {
    RunOnThread([] {
        int window;
        MSG msg = Marked();
        PostThreadMessage(GetCurrentThreadId(), 1, 2, nullptr);
        EXPECT_EQ(::GetMessage(&msg, &window, 50, 60, 0, false), 1);
        EXPECT_EQ(msg.message, 1U);
        EXPECT_EQ(msg.wParam, 2U);
        EXPECT_EQ(::GetMessage(&msg, &window, 0, 0, 1, true), 1);
        EXPECT_EQ(msg.message, 0U);
        EXPECT_EQ(::GetMessage(&msg, &window, 0, 0, 1, false), 0);
        EXPECT_EQ(::GetMessage(nullptr, nullptr, 0, 0, 0, true), 0);
        PostThreadMessage(GetCurrentThreadId(), 3, 0, nullptr);
        EXPECT_EQ(::GetMessage(&msg, nullptr, 0, 0), 1);
        EXPECT_EQ(msg.message, 3U);
    });
}

TEST(WinThreadQueue, The_free_GetMessage_passes_its_timeout_on) {
    RunOnThread([] {
        CallLog calls({Call::Select});
        Interpose select(Call::Select);
        select.OnThisThread().Return(0);
        MSG msg;
        EXPECT_EQ(::GetMessage(&msg, nullptr, 0, 0, 1234, true), 1);
        EXPECT_EQ(calls.Texts(), (Texts{"select(1.234000)"}));
    });
}

TEST(WinThreadQueue, The_free_PeekMessage_with_flag_1_returns_1_and_touches_nothing) {
    Recorder::Clear();
    MSG msg = Marked();
    EXPECT_EQ(::PeekMessage(&msg, nullptr, 0, 0, PM_REMOVE), 1); // not even on a thread without a queue
    EXPECT_EQ(::PeekMessage(nullptr, nullptr, 0, 0, 1), 1);
    EXPECT_TRUE(OwnEvents().empty());
    EXPECT_TRUE(IsUntouched(msg));
    EXPECT_EQ(PM_REMOVE, 1);
    EXPECT_EQ(PM_NOREMOVE, 0);
    RunOnThread([] {
        MSG own = Marked();
        PostThreadMessage(GetCurrentThreadId(), 1, 0, nullptr);
        EXPECT_EQ(::PeekMessage(&own, nullptr, 0, 0, 1), 1);
        EXPECT_TRUE(IsUntouched(own));
        EXPECT_EQ(::PeekMessage(&own, nullptr, 0, 0, 0), 1); // it is still there
    });
}

TEST(WinThreadQueue, The_free_PeekMessage_with_any_other_flag_takes_a_message) {
    RunOnThread([] {
        int window;
        for (unsigned int flag : {0U, 2U, 3U, 0xFFFFFFFFU}) {
            MSG msg = Marked();
            PostThreadMessage(GetCurrentThreadId(), 5, 0, nullptr);
            EXPECT_EQ(::PeekMessage(&msg, &window, 100, 200, flag), 1);
            EXPECT_EQ(msg.message, 5U);
            msg = Marked();
            EXPECT_EQ(::PeekMessage(&msg, nullptr, 0, 0, flag), 0);
            EXPECT_TRUE(IsMarkedWithNumber0(msg));
        }
    });
}

TEST(WinThreadQueue, TranslateMessage_and_DispatchMessage_only_post_an_event) {
    MSG msg = Marked();
    const MSG* const arguments[] = {&msg, nullptr};
    for (const MSG* argument : arguments) {
        Recorder::Clear();
        EXPECT_EQ(TranslateMessage(argument), 0);
        EXPECT_EQ(DispatchMessage(argument), 0);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 7, "TranslateMessage() called!"},
                                                       {13, 7, "DispatchMessage() called!"}}));
    }
    EXPECT_TRUE(IsUntouched(msg));
}

// Whether the members can be called as the free functions are, with fewer arguments than they have.
template <class Thread, class = void> struct HasDefaults : std::false_type {};
template <class Thread>
struct HasDefaults<Thread, decltype(void(std::declval<Thread&>().GetMessage(nullptr, 0, 0, 0)))>
    : std::true_type {};

TEST(WinThreadQueue, A_subclass_reaches_the_free_functions_past_its_members) {
    class Subclass : public CWinThread {
    public:
        void Main() override {
            PostThreadMessage(GetCurrentThreadId(), 7, 0, nullptr);
            result = ::GetMessage(&msg, nullptr, 0, 0, 20000, false);
        }
        MSG msg = Marked();
        int result = -1;
    };
    Subclass thread;
    thread.ResumeThread();
    ASSERT_TRUE(ThreadEnds(thread));
    EXPECT_EQ(thread.result, 1);
    EXPECT_EQ(thread.msg.message, 7U);
    EXPECT_FALSE(HasDefaults<CWinThread>::value);
}

} // namespace
