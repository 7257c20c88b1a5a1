// Many threads at once: posters and readers of a queue, strings that share headers, events, mutexes, and
// threads that come and go while others look for them.
//
// What is asserted is what is certain, whoever is faster.
#include <sched.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/Mutex.h>
#include <Windows/SingleLock.h>
#include <Windows/WinThread.h>
#include <Windows/XString.h>
#include <Windows/synchelpers.h>

#include "robustness/Form.h"
#include "support/blocks.h"
#include "support/deadline.h"
#include "support/interpose.h"
#include "support/monitor.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

unsigned long LongTime() { return static_cast<unsigned long>(Deadline::Long().Remaining().count()); }

bool IsSignalled(HANDLE handle, unsigned long timeoutMs) {
    return WaitForSingleObject(handle, timeoutMs) == WAIT_OBJECT_0;
}

// Threads that run a function with their number, 0 and up. The destructor waits for them.
class Crew {
public:
    Crew(int count, const std::function<void(int)>& work) {
        for (int i = 0; i < count; i++)
            m_threads.push_back(std::make_unique<Background>([work, i] { work(i); }));
    }

    void Join() {
        for (const auto& thread : m_threads)
            EXPECT_TRUE(thread->Join());
    }

    pthread_t Thread(int number) const { return m_threads[static_cast<size_t>(number)]->Thread(); }

private:
    std::vector<std::unique_ptr<Background>> m_threads;
};

// Does something so many times in all, in portions that each end long before a deadline.
void InPortions(int inAll, int portion, const std::function<void(int)>& work) {
    for (int left = inAll; left > 0 && !testing::Test::HasFailure(); left -= portion)
        work(std::min(left, portion));
}

// ---------------------------------------------------------------------------------------------------------
// Messages

constexpr int kPosters = 8;

// What a message says besides who posted it and its number: both again, so that mixed-up fields are seen.
void* Seal(int poster, unsigned long number) {
    return reinterpret_cast<void*>(
        static_cast<uintptr_t>((number * 8 + static_cast<unsigned>(poster)) ^ 0x5A5A5A5A));
}

int Post(unsigned long id, int poster, unsigned long number) {
    return PostThreadMessage(id, WM_USER + static_cast<unsigned>(poster), number, Seal(poster, number));
}

// One poster's messages as they arrive.
class Arrivals {
public:
    explicit Arrivals(int count) : m_seen(static_cast<size_t>(count)), m_missing(count) {}

    void Add(unsigned long number) {
        if (number >= m_seen.size() || m_seen[number]) {
            ADD_FAILURE() << "message " << number << " has arrived twice, or was never posted";
            return;
        }
        m_seen[number] = true;
        m_missing--;
        if (number >= m_upper)
            m_upper = number + 1;
        else if (number >= m_lower)
            m_lower = number + 1;
        else
            m_isTwoRows = false;
    }

    bool IsComplete() const { return m_missing == 0; }

    // Each message has come behind all that were posted before it.
    bool IsInOrder() const { return m_lower == 0 && m_isTwoRows; }

    // The messages that found room in the pipe are in order, and those that were parked too; but one that
    // found room may have overtaken parked ones.
    bool IsTwoRows() const { return m_isTwoRows; }

private:
    std::vector<bool> m_seen;
    int m_missing;
    unsigned long m_upper = 0; // behind the last of each row
    unsigned long m_lower = 0;
    bool m_isTwoRows = true;
};

// How many messages a poster may still post before the reader must have read some.
class Credit {
public:
    explicit Credit(int count) : m_portion(count / 2), m_left(count) {}

    bool Take() {
        Monitor::Lock lock(m_monitor);
        return m_monitor.Wait(lock, Deadline::Long(), [this] { return m_left > 0; }) && m_left-- > 0;
    }

    // The reader. It wakes the poster once for many messages.
    void Give() {
        if (++m_read < m_portion)
            return;
        Monitor::Lock lock(m_monitor);
        m_left += m_read;
        m_read = 0;
        m_monitor.NotifyAll();
    }

private:
    const int m_portion;
    int m_read = 0;
    Monitor m_monitor;
    int m_left;
};

// A thread that reads so many messages of each poster, and others that are nobody's, in each of the ways
// there are.
class Reader {
public:
    Reader(int ofEach, int credit, int others = 0)
        : m_left(ofEach * kPosters + others), m_thread(AfxBeginThread(Run, this, 0, 0, CREATE_SUSPENDED)) {
        for (int i = 0; i < kPosters; i++) {
            m_arrivals.emplace_back(ofEach);
            m_credits.push_back(std::make_unique<Credit>(credit));
        }
    }

    unsigned long Id() const { return m_thread->GetThreadID(); }
    Credit& CreditOf(int poster) { return *m_credits[static_cast<size_t>(poster)]; }
    const Arrivals& Of(int poster) const { return m_arrivals[static_cast<size_t>(poster)]; }

    void Begin() { m_thread->ResumeThread(); }

    // Whether it has read everything, and its queue is empty then.
    testing::AssertionResult Ends() {
        if (!IsSignalled(m_thread->m_hThread, LongTime()))
            return testing::AssertionFailure() << "messages are missing, about " << m_left;
        MSG message;
        if (m_thread->PeekMessage(&message, 0, 0))
            return testing::AssertionFailure() << "there is one message too many";
        return testing::AssertionSuccess();
    }

private:
    static unsigned int Run(void* p) {
        Reader& reader = *static_cast<Reader*>(p);
        for (MSG message; reader.m_left > 0;)
            if (reader.Get(&message))
                reader.Take(message);
        return 0;
    }

    bool Get(MSG* message) {
        switch (m_left % 3) {
        case 0:
            return ::GetMessage(message, nullptr, 0, 0) == 1;
        case 1:
            return ::GetMessage(message, nullptr, 0, 0, static_cast<unsigned>(LongTime()), false) == 1;
        default:
            return ::PeekMessage(message, nullptr, 0, 0, PM_NOREMOVE) == 1 ||
                   ::GetMessage(message, nullptr, 0, 0) == 1;
        }
    }

    void Take(const MSG& message) {
        m_left--;
        if (message.message == 0)
            return;
        const int poster = static_cast<int>(message.message - WM_USER);
        ASSERT_TRUE(poster >= 0 && poster < kPosters) << "message " << message.message;
        ASSERT_EQ(message.lParam, Seal(poster, message.wParam));
        m_arrivals[static_cast<size_t>(poster)].Add(message.wParam);
        CreditOf(poster).Give();
    }

    std::vector<Arrivals> m_arrivals;
    std::vector<std::unique_ptr<Credit>> m_credits;
    std::atomic<int> m_left;
    std::unique_ptr<CWinThread> m_thread;
};

// Has each poster post so many messages while a reader reads, no more than credit of each unread at a time.
void PostWhileItIsRead(int ofEach, int credit, const std::function<void(const Reader&)>& check) {
    Reader reader(ofEach, credit);
    reader.Begin();
    Crew posters(kPosters, [&reader, ofEach](int poster) {
        for (int n = 0; n < ofEach; n++) {
            ASSERT_TRUE(reader.CreditOf(poster).Take());
            ASSERT_EQ(Post(reader.Id(), poster, static_cast<unsigned long>(n)), 1);
        }
    });
    posters.Join();
    ASSERT_TRUE(reader.Ends());
    for (int i = 0; i < kPosters; i++)
        EXPECT_TRUE(reader.Of(i).IsComplete());
    check(reader);
}

} // namespace

TEST(Concurrency,
     Of_the_messages_of_8_posters_through_a_full_pipe_none_is_lost_and_each_kind_keeps_its_order) {
    Recorder::Pause();
    // 16,000 unread messages are many times what a pipe holds; so most are parked, and some overtake them.
    InPortions(HowMany(20000, 10000000) / kPosters, 25000, [](int ofEach) {
        PostWhileItIsRead(ofEach, 2000, [](const Reader& reader) {
            for (int i = 0; i < kPosters; i++)
                EXPECT_TRUE(reader.Of(i).IsTwoRows());
        });
    });
}

TEST(Concurrency, While_the_pipe_has_room_for_all_the_order_of_each_of_8_posters_is_kept) {
    Recorder::Pause();
    InPortions(HowMany(10000, 1000000) / kPosters, 25000, [](int ofEach) {
        PostWhileItIsRead(ofEach, 100, [](const Reader& reader) {
            for (int i = 0; i < kPosters; i++)
                EXPECT_TRUE(reader.Of(i).IsInOrder());
        });
    });
}

TEST(Concurrency, What_8_threads_post_before_anybody_reads_arrives_in_the_order_of_each) {
    Recorder::Pause();
    InPortions(HowMany(20000, 1000000) / kPosters, 5000, [](int ofEach) {
        Reader reader(ofEach, ofEach);
        Crew posters(kPosters, [&reader, ofEach](int poster) {
            for (int n = 0; n < ofEach; n++)
                ASSERT_EQ(Post(reader.Id(), poster, static_cast<unsigned long>(n)), 1);
        });
        posters.Join();
        reader.Begin();
        ASSERT_TRUE(reader.Ends());
        for (int i = 0; i < kPosters; i++)
            EXPECT_TRUE(reader.Of(i).IsComplete() && reader.Of(i).IsInOrder());
    });
}

TEST(Concurrency, A_poster_whose_messages_are_all_parked_keeps_its_order_while_7_others_overtake_it) {
    Recorder::Pause();
    InPortions(HowMany(10000, 500000) / kPosters, 5000, [](int ofEach) {
        Reader reader(ofEach, ofEach, 1);
        Gate begin;
        Crew posters(kPosters, [&](int poster) {
            ASSERT_TRUE(begin.Wait());
            for (int n = 0; n < ofEach; n++)
                ASSERT_EQ(Post(reader.Id(), poster, static_cast<unsigned long>(n)), 1);
        });
        Interpose full(Call::Write);
        full.OnThread(posters.Thread(0)).Always().Fail(EAGAIN);
        reader.Begin();
        begin.Open();
        posters.Join();
        // Where nothing is in the pipe, parked messages wait for the next one.
        ASSERT_EQ(PostThreadMessage(reader.Id(), 0, 0, nullptr), 1);
        ASSERT_TRUE(reader.Ends());
        EXPECT_TRUE(reader.Of(0).IsComplete() && reader.Of(0).IsInOrder());
        for (int i = 1; i < kPosters; i++)
            EXPECT_TRUE(reader.Of(i).IsComplete() && reader.Of(i).IsTwoRows());
    });
}

// ---------------------------------------------------------------------------------------------------------
// Strings

namespace {

// A string with the text that it must have.
struct Known {
    XString string;
    std::string text;

    bool IsRight() const {
        const char* text8 = string;
        return string.GetLength() == static_cast<int>(text.size()) && text == (text8 ? text8 : "");
    }
};

// What all threads copy from and replace. Only these objects have a lock: that others share their headers,
// with no lock between them, is what is tried.
struct Board {
    struct Place {
        std::mutex mutex;
        Known known;
    };
    Place places[4];
};

// One thread's strings: it copies, changes and drops at random.
class Scribe {
public:
    Scribe(Board& board, int seed) : m_board(board), m_random(static_cast<unsigned>(seed) + 1) {}

    void Work(int steps) {
        for (int i = 0; i < steps; i++) {
            Known& mine = m_own[m_random() % 4];
            const unsigned long what = m_random() % 12;
            if (what < 6)
                Share(mine, what);
            else if (what < 11)
                Edit(mine, what);
            else
                Drop(mine);
            ASSERT_TRUE(mine.IsRight()) << "after step " << what << ": " << mine.text;
        }
        for (const Known& own : m_own)
            EXPECT_TRUE(own.IsRight());
    }

private:
    void Share(Known& mine, unsigned long what) {
        Board::Place& place = m_board.places[m_random() % 4];
        if (what < 2) {
            const std::lock_guard<std::mutex> lock(place.mutex);
            mine = place.known;
        } else if (what < 4) {
            const std::lock_guard<std::mutex> lock(place.mutex);
            place.known = mine;
        } else {
            const Known copy(mine); // three share it now
            m_own[m_random() % 4] = copy;
            EXPECT_TRUE(copy.IsRight());
        }
    }

    // Each of these gives a string that shares its header one of its own first.
    void Edit(Known& mine, unsigned long what) {
        std::string& text = mine.text;
        switch (what) {
        case 6:
            mine.string += "ab";
            text += "ab";
            break;
        case 7:
            mine.string.Replace('a', 'c');
            std::replace(text.begin(), text.end(), 'a', 'c');
            break;
        case 8:
            mine.string.Delete(0, 1);
            text.erase(0, 1);
            break;
        case 9:
            mine.string.MakeUpper();
            for (char& letter : text)
                letter = static_cast<char>(toupper(letter));
            break;
        default:
            text = text.substr(0, 20) + std::to_string(m_random() % 100) + "a";
            mine.string.Format("%s", text.c_str());
        }
    }

    void Drop(Known& mine) {
        mine.string.Empty();
        mine.text.clear();
    }

    Board& m_board;
    std::minstd_rand m_random;
    Known m_own[4];
};

} // namespace

TEST(Concurrency, Strings_that_16_threads_share_copy_change_and_drop_have_the_right_text_at_each_moment) {
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    const std::set<uintptr_t> blocks = LibraryBlocks::All();
    InPortions(HowMany(1500, 500000), 5000, [](int steps) {
        Board board;
        Crew scribes(16, [&board, steps](int number) { Scribe(board, number).Work(steps); });
        scribes.Join();
        for (const Board::Place& place : board.places)
            EXPECT_TRUE(place.known.IsRight());
    });
    EXPECT_EQ(XString::m_iObjCount, strings);
    EXPECT_EQ(LibraryBlocks::All(), blocks);
    XStringData::m_iObjCount = headers; // a plain counter: it may have lost updates
}

TEST(Concurrency, The_last_of_16_threads_to_drop_a_string_releases_it_whoever_that_is) {
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    const std::set<uintptr_t> blocks = LibraryBlocks::All();
    InPortions(HowMany(1000, 200000), 5000, [](int count) {
        std::vector<std::vector<std::unique_ptr<XString>>> copies(16);
        for (int i = 0; i < count; i++) {
            const XString text("a text of its own");
            for (auto& ofThread : copies)
                ofThread.push_back(std::make_unique<XString>(text));
        }
        Crew crew(16, [&copies](int number) {
            for (std::unique_ptr<XString>& copy : copies[static_cast<size_t>(number)]) {
                ASSERT_STREQ(*copy, "a text of its own");
                if (number % 4 == 0)
                    copy->MakeUpper(); // the last one changes it where it is, all others a copy
                copy.reset();
            }
        });
        crew.Join();
    });
    EXPECT_EQ(XString::m_iObjCount, strings);
    EXPECT_EQ(LibraryBlocks::All(), blocks);
    XStringData::m_iObjCount = headers;
}

// ---------------------------------------------------------------------------------------------------------
// Events

namespace {

// A handle that closes itself.
class Handle {
public:
    explicit Handle(HANDLE handle) : m_handle(handle) {}
    ~Handle() { CloseHandle(m_handle); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    operator HANDLE() const { return m_handle; }

private:
    HANDLE m_handle;
};

// Lets threads go on when all have come: two gates in turns.
class Barrier {
public:
    explicit Barrier(int threads) : m_threads(threads) {}

    bool Pass(unsigned long timeoutMs) {
        EXPECT_TRUE(IsSignalled(m_lock, INFINITE));
        const HANDLE gate = m_gates[m_round % 2];
        if (++m_waiting == m_threads) {
            m_waiting = 0;
            EXPECT_EQ(ResetEvent(m_gates[++m_round % 2]), 1); // all have left that one
            EXPECT_EQ(SetEvent(gate), 1);
        }
        EXPECT_EQ(ReleaseMutex(m_lock), 1);
        return IsSignalled(gate, timeoutMs);
    }

private:
    const int m_threads;
    const Handle m_lock{CreateMutex(nullptr, false, nullptr)};
    const Handle m_gates[2] = {Handle(CreateEvent(true, false)), Handle(CreateEvent(true, false))};
    int m_waiting = 0;
    int m_round = 0;
};

// Calls a function over and over on threads of its own until it is destroyed.
class Storm {
public:
    Storm(int threads, const std::function<void()>& function)
        : m_crew(threads, [this, function](int) {
              while (!m_over) {
                  function();
                  sched_yield();
              }
          }) {}

    ~Storm() { m_over = true; }

private:
    std::atomic<bool> m_over{false};
    Crew m_crew;
};

std::chrono::milliseconds Elapsed(const std::function<void()>& function) {
    const auto begin = std::chrono::steady_clock::now();
    function();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

} // namespace

TEST(Concurrency, Each_set_of_a_manual_reset_event_wakes_every_waiter_and_shows_what_was_written_before) {
    const int threads = 8;
    Recorder::Pause();
    InPortions(HowMany(200, 50000), 1000, [](int rounds) {
        Barrier barrier(threads);
        int written[threads] = {}; // plain: nothing but the barrier orders the threads
        Crew crew(threads, [&, rounds](int number) {
            const unsigned long timeoutMs = number % 2 ? INFINITE : LongTime();
            for (int round = 1; round <= rounds; round++) {
                written[number] = round;
                ASSERT_TRUE(barrier.Pass(timeoutMs));
                for (int seen : written)
                    ASSERT_EQ(seen, round);
                ASSERT_TRUE(barrier.Pass(timeoutMs));
            }
        });
        crew.Join();
    });
}

TEST(Concurrency, An_event_that_is_set_and_reset_all_the_time_lets_everybody_go_once_it_stays_set) {
    InPortions(HowMany(4000, 1000000), 50000, [](int rounds) {
        const Handle event(CreateEvent(true, false));
        std::atomic<bool> last{false};
        Crew waiters(4, [&](int number) {
            do
                ASSERT_TRUE(IsSignalled(event, number % 2 ? INFINITE : LongTime()));
            while (!last);
        });
        Crew setters(2, [&, rounds](int) {
            for (int i = 0; i < rounds; i++) {
                SetEvent(event);
                ResetEvent(event);
            }
        });
        setters.Join();
        last = true;
        SetEvent(event);
        waiters.Join();
    });
}

TEST(Concurrency, A_signalled_auto_reset_event_lets_everybody_pass_until_it_is_reset_and_nobody_afterwards) {
    const int before = HowMany(200, 20000), after = HowMany(200, 20000);
    const Handle event(CreateEvent(false, true));
    Barrier barrier(5);
    Storm setting(2, [&] { SetEvent(event); });
    Crew waiters(4, [&, before, after](int) {
        for (int i = 0; i < before; i++)
            ASSERT_EQ(WaitForSingleObject(event, i % 3 ? 0 : INFINITE), WAIT_OBJECT_0);
        ASSERT_TRUE(barrier.Pass(LongTime()));
        // Now the reset comes in between: it is seen by all, and for good.
        const Deadline deadline = Deadline::Long();
        while (IsSignalled(event, 0))
            ASSERT_FALSE(deadline.Passed());
        for (int i = 0; i < after; i++)
            ASSERT_EQ(WaitForSingleObject(event, i % 50 ? 0 : 1), WAIT_TIMEOUT);
    });
    ASSERT_TRUE(barrier.Pass(LongTime()));
    EXPECT_EQ(ResetEvent(event), 1);
    waiters.Join();
}

TEST(Concurrency, Sets_of_an_auto_reset_event_neither_shorten_nor_lengthen_the_waits_for_it) {
    const Handle event(CreateEvent(false, false));
    Storm setting(2, [&] { SetEvent(event); });
    Crew waiters(4, [&](int) {
        const std::chrono::milliseconds time =
            Elapsed([&] { EXPECT_EQ(WaitForSingleObject(event, 200), WAIT_TIMEOUT); });
        EXPECT_GE(time.count(), 150);
        EXPECT_LT(time.count(), static_cast<long>(LongTime()));
    });
    waiters.Join();
}

// ---------------------------------------------------------------------------------------------------------
// Mutexes

TEST(Concurrency, One_mutex_taken_in_every_way_is_held_by_one_thread_at_a_time) {
    Recorder::Pause();
    InPortions(HowMany(500, 200000), 5000, [](int rounds) {
        const Handle handle(CreateMutex(nullptr, false, nullptr));
        CMutex& mutex = *static_cast<CMutex*>(static_cast<HANDLE>(handle)->m_pObject);
        int count = 0;               // plain: nothing but the mutex guards it
        const auto lockTwice = [&] { // it is recursive
            ASSERT_EQ(mutex.Lock(INFINITE), 1);
            ASSERT_TRUE(IsSignalled(handle, 0));
            count++;
            ASSERT_EQ(ReleaseMutex(handle), 1);
            ASSERT_EQ(mutex.Unlock(), 1);
        };
        const auto lockByScope = [&] {
            const CSingleLock lock(&mutex);
            count++;
        };
        const auto wait = [&](unsigned long timeoutMs) {
            // Those who poll may lose it again and again, but no longer than the others want it.
            const Deadline deadline = Deadline::Long();
            while (!IsSignalled(handle, timeoutMs)) {
                ASSERT_FALSE(deadline.Passed());
                sched_yield();
            }
            count++;
            ASSERT_EQ(ReleaseMutex(handle), 1);
        };
        const std::function<void()> ways[] = {
            lockTwice,        lockByScope,     [&] { wait(INFINITE); }, [&] { wait(INFINITE); },
            [&] { wait(0); }, [&] { wait(5); }};
        Crew crew(6, [&, rounds](int number) {
            for (int i = 0; i < rounds; i++)
                ways[number]();
        });
        crew.Join();
        EXPECT_EQ(count, 6 * rounds);
    });
}

TEST(Concurrency, Strangers_cannot_release_an_error_checking_mutex_that_others_contend_for) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer reports the unlock that fails";
#endif
    const int rounds = HowMany(1000, 100000);
    Recorder::Pause();
    const Handle mutex(CreateMutex(nullptr, false, nullptr, PTHREAD_MUTEX_ERRORCHECK));
    Storm releasing(2, [&] { EXPECT_EQ(ReleaseMutex(mutex), 0); });
    int count = 0;
    Crew owners(4, [&, rounds](int) {
        for (int i = 0; i < rounds; i++) {
            ASSERT_TRUE(IsSignalled(mutex, INFINITE));
            count++;
            ASSERT_EQ(ReleaseMutex(mutex), 1);
        }
    });
    owners.Join();
    EXPECT_EQ(count, 4 * rounds);
}

TEST(Concurrency, All_waits_for_a_mutex_that_is_not_released_time_out_in_their_time) {
    Recorder::Pause();
    const Handle mutex(CreateMutex(nullptr, true, nullptr));
    Crew waiters(4, [&](int number) {
        const std::chrono::milliseconds time = Elapsed([&] {
            for (int i = 0; i < 2; i++)
                EXPECT_EQ(WaitForSingleObject(mutex, 50UL * static_cast<unsigned>(number)), WAIT_TIMEOUT);
        });
        EXPECT_GE(time.count(), 75 * number);
        EXPECT_LT(time.count(), static_cast<long>(LongTime()));
    });
    waiters.Join();
    EXPECT_EQ(ReleaseMutex(mutex), 1);
    EXPECT_TRUE(IsSignalled(mutex, 0));
    EXPECT_EQ(ReleaseMutex(mutex), 1);
}

// ---------------------------------------------------------------------------------------------------------
// Threads that come and go

namespace {

// A thread that counts its messages until it is told to quit.
class Counter {
public:
    Counter() : m_thread(AfxBeginThread(Run, this)) {}

    CWinThread* Thread() const { return m_thread.get(); }
    unsigned long Id() const { return m_thread->GetThreadID(); }

    // How many messages it has got, when it has ended.
    int Quit() {
        EXPECT_EQ(PostThreadMessage(Id(), WM_QUIT, 0, nullptr), 1);
        EXPECT_TRUE(IsSignalled(m_thread->m_hThread, LongTime()));
        return m_count;
    }

private:
    static unsigned int Run(void* p) {
        Counter& counter = *static_cast<Counter*>(p);
        MSG message;
        while (::GetMessage(&message, nullptr, 0, 0) == 1 && message.message != WM_QUIT)
            counter.m_count++;
        while (::PeekMessage(&message, nullptr, 0, 0, PM_NOREMOVE) == 1) // it may have overtaken some
            counter.m_count++;
        return 0;
    }

    int m_count = 0;
    std::unique_ptr<CWinThread> m_thread;
};

// A place where one thread after the other can be found by those who post to it. The one that is there is not
// destroyed while somebody posts.
class Address {
public:
    // Posts to the thread that is there, if there is one.
    void Post() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_counter)
            return;
        EXPECT_EQ(CWinThread::MapIdToWinThread(m_counter->Id()), m_counter->Thread());
        EXPECT_EQ(PostThreadMessage(m_counter->Id(), WM_USER, 0, nullptr), 1);
        m_posted++;
    }

    // An id that a thread has, or had a moment ago.
    unsigned long Id() const { return m_id; }

    void MoveIn(Counter& counter) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_counter = &counter;
        m_id = counter.Id();
        m_posted = 0;
    }

    // How many messages were posted to it.
    int MoveOut() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_counter = nullptr;
        return m_posted;
    }

private:
    std::mutex m_mutex;
    Counter* m_counter = nullptr;
    std::atomic<unsigned long> m_id{0};
    int m_posted = 0;
};

} // namespace

TEST(Concurrency, Threads_begin_and_end_while_others_look_their_ids_up_and_post_to_them) {
    const int makers = 3;
    const size_t registered = CWinThread::m_threads.size();
    Recorder::Pause();
    InPortions(HowMany(200, 20000) / makers + 1, 1000, [](int threads) {
        Address addresses[makers];
        Counter always;
        {
            Storm posting(2, [&] {
                for (Address& address : addresses)
                    address.Post();
            });
            Storm looking(2, [&] {
                for (const Address& address : addresses) // there or not, but nothing breaks
                    CWinThread::MapIdToWinThread(address.Id());
                EXPECT_EQ(CWinThread::MapIdToWinThread(always.Id()), always.Thread());
                EXPECT_EQ(PostThreadMessage(1, WM_USER, 0, nullptr), 0); // nobody's id
            });
            Crew crew(makers, [&, threads](int number) {
                for (int i = 0; i < threads; i++) {
                    Counter counter;
                    addresses[number].MoveIn(counter);
                    if (i % 2)
                        sched_yield();
                    const int posted = addresses[number].MoveOut();
                    ASSERT_EQ(counter.Quit(), posted);
                }
            });
            crew.Join();
        }
        EXPECT_EQ(always.Quit(), 0);
    });
    EXPECT_EQ(CWinThread::m_threads.size(), registered);
}
