#include <errno.h>
#include <gtest/gtest.h>
#include <host/ErrorObject.h>
#include <host/Logger.h>
#include <host/Time.h>
#include <pthread.h>
#include <reference_host/reference_host.h>
#include <regex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <Windows/WinThread.h>
#include <Windows/event.h>
#include <Windows/synchelpers.h>
#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Calls.h"

namespace {

using Lines = std::vector<std::string>;

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Traces to memory for its lifetime.
class Trace {
public:
    Trace() { EXPECT_TRUE(reference_host::TraceToFile(Path().c_str())); }
    ~Trace() {
        reference_host::EndTrace();
        close(m_descriptor);
    }
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

    std::string Contents() const {
        struct stat status = {};
        fstat(m_descriptor, &status);
        std::string contents(static_cast<size_t>(status.st_size), '\0');
        EXPECT_EQ(pread(m_descriptor, &contents[0], contents.size(), 0),
                  static_cast<ssize_t>(contents.size()));
        return contents;
    }

    // The lines that contain each of the parts.
    Lines Having(const Lines& parts) const {
        Lines found;
        std::istringstream contents(Contents());
        for (std::string line; std::getline(contents, line);)
            if (std::all_of(parts.begin(), parts.end(),
                            [&](const std::string& part) { return Contains(line, part); }))
                found.push_back(line);
        return found;
    }

    size_t Count(const Lines& parts) const { return Having(parts).size(); }

private:
    int m_descriptor = memfd_create("trace", MFD_CLOEXEC);
};

std::string Field(const std::string& line, const std::string& key) {
    const size_t begin = line.find("\"" + key + "\":");
    if (begin == std::string::npos)
        return "";
    const size_t value = begin + key.size() + 3;
    return line.substr(value, line.find_first_of(",}", value) - value);
}

std::string ThisThread() { return "\"tid\":" + std::to_string(syscall(SYS_gettid)) + ","; }

void Post(const char* text, LogTypeEnum type = LogTypeGeneral, LogSeverityEnum severity = LogSeverityTrace) {
    CLogger::PostLogEvent(type, severity, text, nullptr);
}

// Two events' worth of the library, as it posts them.
void Receive(int length) {
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace,
                           "CSocket::ReceiveLength recv call returned %d (errno = %d)", 4, 0);
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, "Exiting CSocket::ReceiveLength returning: %d",
                           length);
}

constexpr unsigned int kEnd = 99;

// How many lines of the same thread contain the part, behind a line.
ptrdiff_t LinesBehind(const Trace& trace, const std::string& line, const std::string& part) {
    const Lines lines = trace.Having({"\"tid\":" + Field(line, "tid") + ","});
    return std::count_if(std::find(lines.begin(), lines.end(), line), lines.end(),
                         [&](const std::string& candidate) { return Contains(candidate, part); });
}

// A thread that reads messages until kEnd.
class Reader {
public:
    Reader() : m_thread(AfxBeginThread(Read, this)) {}
    ~Reader() {
        Send(kEnd);
        WaitForSingleObject(m_thread->m_hThread, INFINITE);
        delete m_thread;
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void Send(unsigned int message) const { PostThreadMessage(m_thread->GetThreadID(), message, 0, nullptr); }

    // Returns when the reader has read the message.
    void SendAndWait(unsigned int message) {
        m_read.ResetEvent();
        m_awaited = message;
        Send(message);
        m_read.WaitForEventSignal(INFINITE, nullptr);
    }

private:
    static unsigned int Read(void* self) {
        auto* reader = static_cast<Reader*>(self);
        MSG message;
        while (GetMessage(&message, nullptr, 0, 0) && message.message != kEnd)
            if (message.message == reader->m_awaited)
                reader->m_read.SetEvent();
        return 0;
    }

    std::atomic<unsigned int> m_awaited{0};
    CEvent m_read{true, false};
    CWinThread* m_thread;
};

// A thread that reads its messages, the last of which is kEnd, when all of them have been posted.
class SuspendedReader {
public:
    ~SuspendedReader() { Run(); }

    void Post(unsigned int message) { m_thread->PostMessage(message, 0, nullptr); }

    void Run() {
        if (!m_thread)
            return;
        m_thread->ResumeThread();
        WaitForSingleObject(m_thread->m_hThread, INFINITE);
        delete m_thread;
        m_thread = nullptr;
    }

private:
    static unsigned int Read(void*) {
        MSG message;
        while (GetMessage(&message, nullptr, 0, 0) && message.message != kEnd) {
        }
        return 0;
    }

    CWinThread* m_thread = AfxBeginThread(Read, nullptr, 0, 0, CREATE_SUSPENDED);
};

// A monotonic clock that stands still until it is advanced.
class Clock {
public:
    Clock()
        : m_now(), m_replaced(calls::clock_gettime, [this](clockid_t clock, timespec* now) {
              if (clock != CLOCK_MONOTONIC)
                  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
              const long milliseconds = m_milliseconds;
              *now = m_now;
              now->tv_sec += milliseconds / 1000;
              now->tv_nsec += milliseconds % 1000 * 1000000;
              return 0;
          }) {}

    void Advance() { m_milliseconds += 10; }

private:
    static timespec Second() {
        timespec now = {};
        syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
        now.tv_nsec = 0;
        return now;
    }

    std::atomic<long> m_milliseconds{0};
    const timespec m_now = Second();
    calls::Replaced<int(clockid_t, timespec*)> m_replaced;
};

} // namespace

TEST(Timeline, Is_an_array_of_one_event_a_line) {
    Trace trace;
    Post("first");
    Post("second");
    reference_host::EndTrace();
    const std::string contents = trace.Contents();
    EXPECT_EQ(contents.substr(0, 3), "[\n{");
    EXPECT_EQ(contents.substr(contents.size() - 4), "}\n]\n");
    EXPECT_EQ(trace.Count({"\"name\":\"first\"", "\"ph\":\"i\"", ThisThread()}), 1U);
    EXPECT_EQ(trace.Count({"\"name\":\"second\"", "\"severity\":9"}), 1U);
    EXPECT_EQ(trace.Count({"{"}), trace.Count({"\"ph\":"}));
}

TEST(Timeline, Lacks_only_the_bracket_before_it_ends) {
    const Trace trace;
    Post("last");
    const std::string contents = trace.Contents();
    EXPECT_EQ(contents.back(), '}');
    EXPECT_TRUE(Contains(contents.substr(contents.rfind('\n')), "\"last\""));
}

TEST(Timeline, Shows_what_the_log_leaves_out) {
    reference_host::SetMaximumSeverity(0);
    const Trace trace;
    Post("silent");
    reference_host::SetMaximumSeverity(LogSeverityWarning);
    EXPECT_EQ(trace.Count({"\"silent\""}), 1U);
}

TEST(Timeline, Cannot_begin_in_a_file_that_cannot_be_opened) {
    errno = 0;
    EXPECT_FALSE(reference_host::TraceToFile("/no/such/folder/trace"));
    EXPECT_EQ(errno, ENOENT);
    Post("dropped");
}

TEST(Timeline, Ends_without_having_begun) { reference_host::EndTrace(); }

TEST(Timeline, Ends_when_another_one_begins) {
    const Trace one;
    Post("one");
    const Trace two;
    Post("two");
    EXPECT_EQ(one.Contents().substr(one.Contents().size() - 3), "\n]\n");
    EXPECT_EQ(one.Count({"\"two\""}), 0U);
    EXPECT_EQ(two.Count({"\"one\""}), 0U);
    EXPECT_EQ(two.Count({"thread_name", ThisThread()}), 1U);
}

TEST(Timeline, Ends_when_it_cannot_be_written) {
    EXPECT_TRUE(reference_host::TraceToFile("/dev/full"));
    errno = 4711;
    Post("lost");
    EXPECT_EQ(errno, 4711);
    int writes = 0;
    const calls::Replaced<ssize_t(int, const void*, size_t)> counted(
        calls::write, [&](int descriptor, const void* data, size_t size) {
            ++writes;
            return calls::RealWrite(descriptor, data, size);
        });
    Post("not tried");
    EXPECT_EQ(writes, 0);
}

TEST(Timeline, Texts_are_escaped_and_cut) {
    const Trace trace;
    Post("a \"quoted\" \\ text\n\x7f\xe4");
    Post((std::string(1000, 'x') + "end").c_str());
    EXPECT_EQ(trace.Count({R"("a \"quoted\" \\ text\u000a\u007f\u00e4")"}), 1U);
    EXPECT_EQ(trace.Count({"xxx...\""}), 1U);
    EXPECT_EQ(trace.Count({"xend"}), 0U);
}

TEST(Timeline, The_longest_event_is_whole) {
    const Trace trace;
    const std::string text(2000, '\x01');
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, text.c_str(), text.c_str());
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "CSocket::Send() on %d: ", text.c_str(),
                            7);
    EXPECT_EQ(trace.Count({"\\u0001...\"}}"}), 2U);
}

TEST(Timeline, Keeps_errno_and_is_no_cancellation_point) {
    const Trace trace;
    errno = 4711;
    Post("event");
    EXPECT_EQ(errno, 4711);
    pthread_t thread = 0;
    bool survived = false;
    const auto body = [](void* reached) -> void* {
        pthread_cancel(pthread_self());
        Post("in spite of a cancellation");
        *static_cast<bool*>(reached) = true;
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &survived), 0);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(survived);
    Post("a line more");
    EXPECT_EQ(trace.Count({"in spite of"}), 1U);
}

TEST(Timeline, A_wait_for_a_lock_is_a_slice) {
    const Trace trace;
    CMutex mutex;
    mutex.Lock(INFINITE);
    std::thread other([&] {
        EXPECT_EQ(mutex.Lock(20), 0);
        Post("tried");
        const std::string thread = ThisThread();
        EXPECT_EQ(trace.Count({"\"name\":\"lock\"", "\"ph\":\"B\"", thread}), 1U);
        EXPECT_EQ(trace.Count({"\"ph\":\"E\"", thread}), 1U);
        EXPECT_EQ(trace.Count({"\"name\":\"not locked\"", thread}), 1U);
        const double begin = std::stod(Field(trace.Having({"\"name\":\"lock\"", thread})[0], "ts"));
        const double end = std::stod(Field(trace.Having({"\"ph\":\"E\"", thread})[0], "ts"));
        EXPECT_GE(end - begin, 20000);
    });
    other.join();
    mutex.Unlock();
}

TEST(Timeline, Open_slices_end_with_their_thread_and_with_the_trace) {
    const Trace trace;
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace,
                          "CClient::CClient() : Attempting to connect to server.", nullptr);
    std::string other;
    std::thread([&] {
        other = ThisThread();
        Receive(5);
    }).join();
    Post("a line more");
    EXPECT_EQ(trace.Count({"\"ph\":\"B\"", other}), 2U); // the thread, and the frame
    EXPECT_EQ(trace.Count({"\"ph\":\"E\"", other}), 2U);
    EXPECT_EQ(trace.Count({"\"ph\":\"E\"", ThisThread()}), 0U);
    reference_host::EndTrace();
    EXPECT_EQ(trace.Count({"\"ph\":\"B\"", ThisThread()}), 2U);
    EXPECT_EQ(trace.Count({"\"ph\":\"E\"", ThisThread()}), 2U);
}

TEST(Timeline, An_error_object_ends_the_connecting) {
    const Trace trace;
    Post("CClient::CClient() : Attempting to connect to server.");
    delete Exception("CClient::CClient", "Connection failed", nullptr);
    Post("a line more");
    EXPECT_EQ(trace.Count({"\"ph\":\"E\""}), 1U);
    EXPECT_EQ(trace.Count({"\"cat\":\"error\"", "\"Connection failed\"", "CClient::CClient"}), 1U);
}

TEST(Timeline, A_frame_is_a_slice_with_its_length) {
    const Trace trace;
    Receive(5);
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "CSocket::Receive() on %d: ", "hello", 7);
    Post("a line more");
    EXPECT_EQ(trace.Count({"\"receive frame\"", "\"ph\":\"B\""}), 1U);
    EXPECT_EQ(trace.Count({"\"ph\":\"E\"", "\"name\":\"receive frame\"", "\"bytes\":5"}), 1U);
    EXPECT_EQ(trace.Count({"\"frame received\"", "\"text\":\"hello\"", "on 7"}), 1U);
}

TEST(Timeline, A_frame_that_is_given_up_without_a_word_ends_with_the_last_event) {
    const Trace trace;
    Receive(5);
    Post("next");
    Post("a line more");
    const Lines ends = trace.Having({"\"ph\":\"E\""});
    ASSERT_EQ(ends.size(), 1U);
    EXPECT_LT(std::stod(Field(ends[0], "ts")), std::stod(Field(trace.Having({"\"next\""})[0], "ts")));
}

TEST(Timeline, Only_what_was_sent_is_a_sent_frame) {
    const Trace trace;
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "CSocket::Send() on %d: ", "hello", 7);
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityFailure,
                            "CSocket::Send() on %d FAILED to send message", "hello", 7);
    Post("a line more");
    EXPECT_EQ(trace.Count({"\"frame sent\""}), 1U);
    EXPECT_EQ(trace.Count({"on 7 FAILED"}), 1U);
}

TEST(Timeline, An_arrow_leads_from_a_post_to_its_message) {
    Clock clock;
    const Trace trace;
    {
        Reader reader;
        clock.Advance();
        reader.SendAndWait(7);
        clock.Advance();
    }
    const Lines starts = trace.Having({"\"ph\":\"s\"", "\"cat\":\"arrow\""});
    const Lines ends = trace.Having({"\"ph\":\"f\"", "\"cat\":\"arrow\""});
    ASSERT_EQ(starts.size(), 2U); // the reader's end is a message, too
    ASSERT_EQ(ends.size(), 2U);
    EXPECT_EQ(Field(starts[0], "id"), Field(ends[0], "id"));
    EXPECT_TRUE(Contains(starts[0], ThisThread()));
    EXPECT_EQ(trace.Count({"\"post\"", "\"ts\":" + Field(starts[0], "ts")}), 1U);
    EXPECT_EQ(trace.Count({"\"message 7\"", "\"ts\":" + Field(ends[0], "ts")}), 1U);
}

TEST(Timeline, Arrows_of_one_threads_posts_in_one_millisecond_are_inferred) {
    Clock clock;
    const Trace trace;
    {
        SuspendedReader reader;
        clock.Advance();
        for (const unsigned int message : {1U, 2U, kEnd})
            reader.Post(message);
    }
    EXPECT_EQ(trace.Count({"\"cat\":\"arrow\""}), 0U);
    const Lines starts = trace.Having({"\"ph\":\"s\"", "\"cat\":\"arrow, inferred\""});
    const Lines posts = trace.Having({"\"post\"", "\"ph\":\"B\""});
    ASSERT_EQ(starts.size(), 3U);
    ASSERT_EQ(posts.size(), 3U);
    for (size_t i = 0; i < posts.size(); ++i) // in their order
        EXPECT_EQ(Field(starts[i], "ts"), Field(posts[i], "ts"));
}

TEST(Timeline, There_is_no_arrow_when_several_threads_posted_in_one_millisecond) {
    Clock clock;
    const Trace trace;
    {
        SuspendedReader reader;
        clock.Advance();
        reader.Post(1);
        std::thread([&] { reader.Post(2); }).join();
        clock.Advance();
        reader.Post(kEnd);
    }
    EXPECT_EQ(trace.Count({"\"name\":\"post\"", "\"ph\":\"B\""}), 3U);
    EXPECT_EQ(trace.Count({"\"cat\":\"message\"", "\"ph\":\"B\""}), 3U);
    EXPECT_EQ(trace.Count({"\"ph\":\"s\""}), 1U);
    EXPECT_EQ(trace.Count({"\"ph\":\"f\"", "\"cat\":\"arrow\""}), 1U);
}

TEST(Timeline, There_is_no_arrow_from_before_the_trace) {
    Clock clock;
    SuspendedReader reader;
    reader.Post(1);
    const Trace trace;
    reader.Post(kEnd); // in the same millisecond
    reader.Run();
    EXPECT_EQ(trace.Count({"\"message 1\"", "\"ph\":\"B\""}), 1U);
    EXPECT_EQ(trace.Count({"\"cat\":\"arrow"}), 0U);
}

TEST(Timeline, A_programs_own_tick_count_is_no_post) {
    const Trace trace;
    GetTickCount();
    Post("a line more");
    EXPECT_EQ(trace.Count({"\"post\""}), 0U);
}

TEST(Timeline, A_message_ends_before_its_reader_waits_for_the_next) {
    Clock clock;
    const Trace trace;
    std::string begin;
    {
        Reader reader;
        clock.Advance();
        reader.SendAndWait(7);
        begin = trace.Having({"\"message 7\""})[0];
        // Until it has looked itself up and locked its queue: then it reads, and nothing more is logged.
        while (LinesBehind(trace, begin, "\"name\":\"lock\"") < 2)
            usleep(1000);
        clock.Advance();
    }
    std::map<double, char> ends; // of slices of this thread, by their time
    for (const std::string& line : trace.Having({"\"tid\":" + Field(begin, "tid") + ","}))
        if (Field(line, "ph") == "\"B\"" || Field(line, "ph") == "\"E\"")
            ends[std::stod(Field(line, "ts"))] = Field(line, "ph")[1];
    int depth = 0;
    for (auto end = ends.find(std::stod(Field(begin, "ts"))); end != ends.end(); ++end) {
        depth += end->second == 'B' ? 1 : -1;
        if (depth == 0) {
            EXPECT_LT(end->first - std::stod(Field(begin, "ts")), 5000);
            return;
        }
    }
    ADD_FAILURE() << "it does not end";
}
