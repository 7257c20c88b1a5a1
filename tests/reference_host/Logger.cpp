#include <host/Logger.h>

#include <Windows/XString.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <reference_host/reference_host.h>
#include <regex.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Calls.h"

// Sanitizers bring an allocator of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define COUNTS_ALLOCATIONS 1
static thread_local volatile int allocations = 0;
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
    allocations = allocations + 1;
    return __libc_malloc(size);
}
#endif

namespace {

const size_t longestLine = 1024;

// A file in memory.
class MemoryFile {
public:
    MemoryFile() : m_descriptor(memfd_create("log", MFD_CLOEXEC)) {}
    ~MemoryFile() { close(m_descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

    std::string Contents() const {
        struct stat status = {};
        fstat(m_descriptor, &status);
        std::string contents(static_cast<size_t>(status.st_size), '\0');
        EXPECT_EQ(pread(m_descriptor, &contents[0], contents.size(), 0),
                  static_cast<ssize_t>(contents.size()));
        return contents;
    }

private:
    int m_descriptor;
};

std::vector<std::string> LinesOf(const std::string& contents) {
    std::vector<std::string> lines;
    for (size_t begin = 0, end = 0; (end = contents.find('\n', begin)) != std::string::npos; begin = end + 1)
        lines.push_back(contents.substr(begin, end - begin));
    return lines;
}

struct Event {
    std::string type;
    std::string severity;
    std::string text;
};

// What a line consists of; the whole line as the type if it has another shape.
Event EventOf(const std::string& line) {
    static const regex_t pattern = [] {
        regex_t compiled = {};
        EXPECT_EQ(regcomp(&compiled,
                          "^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z "
                          "[1-9][0-9]* ([a-z]+|[0-9]+) ([0-9]) ([ -~]*)$",
                          REG_EXTENDED),
                  0);
        return compiled;
    }();
    regmatch_t match[4];
    if (regexec(&pattern, line.c_str(), 4, match, 0) != 0)
        return {line, "", ""};
    const auto part = [&](const regmatch_t& range) {
        return line.substr(static_cast<size_t>(range.rm_so), static_cast<size_t>(range.rm_eo - range.rm_so));
    };
    return {part(match[1]), part(match[2]), part(match[3])};
}

// The text of a line; "?" and the line if it has another shape.
std::string TextOf(const std::string& line) {
    const Event event = EventOf(line);
    return event.severity.empty() ? "?" + line : event.text;
}

// Logs everything to memory for its lifetime; afterwards the logger is as in the beginning.
class Log {
public:
    Log() {
        EXPECT_TRUE(reference_host::LogToFile(m_file.Path().c_str()));
        reference_host::SetMaximumSeverity(LogSeverityTrace);
    }
    ~Log() {
        reference_host::LogToStandardError();
        reference_host::SetMaximumSeverity(LogSeverityWarning);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    std::string Contents() const { return m_file.Contents(); }
    std::vector<std::string> Lines() const { return LinesOf(Contents()); }

    std::vector<std::string> Texts() const {
        std::vector<std::string> texts = Lines();
        std::transform(texts.begin(), texts.end(), texts.begin(), TextOf);
        return texts;
    }

private:
    MemoryFile m_file;
};

using Texts = std::vector<std::string>;

const LogTypeEnum types[] = {LogTypeGeneral, LogTypeTraffic, LogTypeLife, LogTypeMutex};

void Post(LogTypeEnum type, int severity, const char* text) {
    CLogger::PostLogEvent(type, static_cast<LogSeverityEnum>(severity), text, nullptr);
}

void Post(const char* text) { Post(LogTypeGeneral, LogSeverityFailure, text); }

// Severities that pass, as a text of digits.
std::string Passing(LogTypeEnum type) {
    const MemoryFile file;
    EXPECT_TRUE(reference_host::LogToFile(file.Path().c_str()));
    for (int severity = 1; severity <= 9; ++severity)
        Post(type, severity, std::to_string(severity).c_str());
    reference_host::LogToStandardError();
    std::string passing;
    for (const std::string& line : LinesOf(file.Contents()))
        passing += TextOf(line);
    return passing;
}

// Posts when the executable's first object is constructed and, on demand, when its last one is destroyed.
class FirstObject {
public:
    FirstObject() {
        const std::string path = "/proc/self/fd/" + std::to_string(m_descriptor);
        reference_host::LogToFile(path.c_str());
        Post(LogTypeMutex, LogSeverityWarning, "before main");
        Post(LogTypeMutex, LogSeverityMisuse, "filtered before main");
        reference_host::LogToStandardError();
        char contents[longestLine] = {};
        pread(m_descriptor, contents, sizeof contents - 1, 0);
        memcpy(m_contents, contents, sizeof contents);
        close(m_descriptor);
    }
    ~FirstObject() {
        if (m_postsAtEnd)
            Post("after main");
    }

    int m_descriptor = memfd_create("early", MFD_CLOEXEC);
    char m_contents[longestLine] = {};
    bool m_postsAtEnd = false;
};

FirstObject firstObject __attribute__((init_priority(101)));

// A thread with a cancellation that waits for its next cancellation point.
void* PostCancelled(void* survived) {
    pthread_cancel(pthread_self());
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "%s", "whole");
    CLogger::PostLogEventFB(LogTypeGeneral, LogSeverityFailure, "%s", " line", "a");
    Post("kept");
    *static_cast<bool*>(survived) = true;
    pthread_testcancel();
    return nullptr;
}

} // namespace

TEST(Logger, Warnings_and_graver_events_pass_in_the_beginning) {
    for (const LogTypeEnum type : types)
        EXPECT_EQ(Passing(type), "1234") << type;
}

TEST(Logger, Severity_is_filtered_for_each_type_alone) {
    reference_host::SetMaximumSeverity(0);
    reference_host::SetMaximumSeverity(LogTypeTraffic, 7);
    EXPECT_EQ(Passing(LogTypeTraffic), "1234567");
    EXPECT_EQ(Passing(LogTypeGeneral), "");
    EXPECT_EQ(Passing(LogTypeLife), "");
    EXPECT_EQ(Passing(LogTypeMutex), "");
    reference_host::SetMaximumSeverity(9);
    reference_host::SetMaximumSeverity(LogTypeMutex, 1);
    EXPECT_EQ(Passing(LogTypeTraffic), "123456789");
    EXPECT_EQ(Passing(LogTypeMutex), "1");
    reference_host::SetMaximumSeverity(LogSeverityWarning);
}

TEST(Logger, Host_type_is_filtered_like_the_librarys) {
    const LogTypeEnum own = static_cast<LogTypeEnum>(31);
    EXPECT_EQ(Passing(own), "1234");
    reference_host::SetMaximumSeverity(own, 2);
    EXPECT_EQ(Passing(own), "12");
    reference_host::SetMaximumSeverity(LogSeverityWarning);
}

TEST(Logger, Filtered_event_formats_nothing) {
    const char* const unreadable = reinterpret_cast<const char*>(1);
    const Log log;
    reference_host::SetMaximumSeverity(LogSeverityWarning);
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, unreadable, unreadable);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "%s", unreadable);
    CLogger::PostLogEventFB(LogTypeGeneral, LogSeverityTrace, "%s", unreadable, unreadable);
    EXPECT_EQ(log.Contents(), "");
}

TEST(Logger, Filtered_event_makes_no_system_call) {
    int made = 0;
    const calls::Replaced time(calls::clock_gettime, [&](clockid_t, timespec*) { return ++made, 0; });
    const calls::Replaced write(calls::write, [&](int, const void*, size_t size) {
        ++made;
        return static_cast<ssize_t>(size);
    });
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityTrace, "%d", 1);
    EXPECT_EQ(made, 0);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityWarning, "%d", 1);
    EXPECT_EQ(made, 2);
}

TEST(Logger, Line_holds_time_thread_type_severity_and_text) {
    const calls::Replaced fixed(calls::clock_gettime, [](clockid_t clock, timespec* now) {
        *now = {clock == CLOCK_REALTIME ? 1732103283 : 0, 123999999};
        return 0;
    });
    const Log log;
    Post(LogTypeGeneral, 4, "CServer::Main No longer listening (exiting).");
    EXPECT_EQ(log.Contents(), "2024-11-20T11:48:03.123Z " + std::to_string(syscall(SYS_gettid)) +
                                  " general 4 CServer::Main No longer listening (exiting).\n");
}

TEST(Logger, Types_are_named_and_a_hosts_own_is_a_number) {
    const Log log;
    for (const int type : {11, 12, 13, 23, 17})
        Post(static_cast<LogTypeEnum>(type), 9, "x");
    const char* const names[] = {"general", "traffic", "life", "mutex", "17"};
    const Texts lines = log.Lines();
    ASSERT_EQ(lines.size(), std::size(names));
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(EventOf(lines[i]).type, names[i]);
        EXPECT_EQ(EventOf(lines[i]).severity, "9");
    }
}

TEST(Logger, Time_is_the_calendars) {
    struct Sample {
        time_t seconds;
        const char* text;
    };
    const Sample samples[] = {
        {0, "1970-01-01T00:00:00"},          {68169599, "1972-02-28T23:59:59"},
        {68169600, "1972-02-29T00:00:00"},   {68255999, "1972-02-29T23:59:59"},
        {68256000, "1972-03-01T00:00:00"},   {951782400, "2000-02-29T00:00:00"},
        {978307199, "2000-12-31T23:59:59"},  {978307200, "2001-01-01T00:00:00"},
        {1735689599, "2024-12-31T23:59:59"}, {2147483647, "2038-01-19T03:14:07"},
    };
    const Log log;
    timespec now = {};
    {
        const calls::Replaced set(calls::clock_gettime, [&](clockid_t, timespec* time) {
            *time = now;
            return 0;
        });
        for (const Sample& sample : samples) {
            now.tv_sec = sample.seconds;
            Post("x");
        }
    }
    const Texts lines = log.Lines();
    ASSERT_EQ(lines.size(), std::size(samples));
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i].substr(0, 19), samples[i].text);
}

TEST(Logger, Every_day_of_a_period_of_the_calendar_is_right) {
    time_t noon = 43200;
    const long long period = 146097LL * 86400;
    const auto last = static_cast<time_t>(sizeof(time_t) == 4 ? INT_MAX : period);
    std::string line;
    const calls::Replaced set(calls::clock_gettime, [&](clockid_t, timespec* time) {
        *time = {noon, 0};
        return 0;
    });
    const calls::Replaced kept(calls::write, [&](int, const void* data, size_t size) {
        line.assign(static_cast<const char*>(data), size);
        return static_cast<ssize_t>(size);
    });
    for (; noon < last - 86400; noon += 86400) {
        Post("x");
        char expected[32];
        tm date = {};
        strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%S", gmtime_r(&noon, &date));
        ASSERT_EQ(line.substr(0, 19), expected);
    }
}

TEST(Logger, Text_is_not_a_format) {
    const Log log;
    Post("100%s %n %d%%");
    EXPECT_EQ(log.Texts(), Texts{"100%s %n %d%%"});
}

TEST(Logger, Detail_takes_the_place_of_the_placeholder) {
    const Log log;
    const auto post = [](const char* text, const char* detail) {
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, text, detail);
    };
    post("FAILED TO GET SOCKET ADDRESS FOR SVC %s", "pr%sinter");
    post("a %s b %s", "x");
    post("%s", "");
    post("no placeholder %d", "x");
    EXPECT_EQ(log.Texts(),
              (Texts{"FAILED TO GET SOCKET ADDRESS FOR SVC pr%sinter", "a x b %s", "", "no placeholder %d"}));
}

TEST(Logger, Missing_texts_are_empty_texts) {
    const Log log;
    Post(nullptr);
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, static_cast<const char*>(nullptr), "detail");
    CLogger::PostLogEventFB(LogTypeGeneral, LogSeverityFailure, "body: ", nullptr);
    EXPECT_EQ(log.Texts(), (Texts{"", "", "body: "}));
}

TEST(Logger, String_is_posted_and_stays_as_it_is) {
    const Log log;
    XString text("CServer::Main() : 100%s");
    const XStringData* const data = text.m_pStrData;
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityRuntimeError, text, nullptr);
    EXPECT_EQ(log.Texts(), Texts{"CServer::Main() : 100%s"});
    EXPECT_EQ(text.m_pStrData, data);
    EXPECT_STREQ(static_cast<const char*>(text), "CServer::Main() : 100%s");
}

TEST(Logger, String_without_a_buffer_is_an_empty_text) {
    const Log log;
    XString text;
    ASSERT_EQ(static_cast<const char*>(text), nullptr);
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityRuntimeError, text, nullptr);
    EXPECT_EQ(log.Texts(), Texts{""});
}

TEST(Logger, Arguments_are_formatted) {
    const Log log;
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "%s is %d, %lx", "text", -5, 0xabcUL);
    EXPECT_EQ(log.Texts(), Texts{"text is -5, abc"});
}

TEST(Logger, Body_follows_the_formatted_arguments_and_is_not_a_format) {
    const Log log;
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "CSocket::Send() on %d: ", "<a>100%s</a>",
                            7);
    EXPECT_EQ(log.Texts(), Texts{"CSocket::Send() on 7: <a>100%s</a>"});
}

TEST(Logger, Unformattable_event_shows_its_format) {
    const Log log;
    const wchar_t invalid[] = {static_cast<wchar_t>(0x7fffffff), 0}; // no character in any encoding
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "before %ls", invalid);
    EXPECT_EQ(log.Texts(), Texts{"before %ls"});
}

TEST(Logger, Bytes_that_do_not_print_are_made_visible) {
    const Log log;
    Post("a\nb\r\n\tc\x01\x1f\x7f\x80\xff\x1b[0m \\ ~");
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "%d\n", "\n\xc3\xa4\n", 1);
    EXPECT_EQ(log.Texts(), (Texts{R"(a\nb\r\n\tc\x01\x1F\x7F\x80\xFF\x1B[0m \ ~)", R"(1\n\n\xC3\xA4\n)"}));
}

TEST(Logger, Long_text_is_cut_and_marked) {
    const Log log;
    const std::string body(1 << 20, 'x');
    Post(body.c_str());
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, "%s!", body.c_str());
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "%s", body.c_str());
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "%d ", body.c_str(), 7);
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "%s", "body", body.c_str());
    const Texts lines = log.Lines();
    ASSERT_EQ(lines.size(), 5U);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.size(), longestLine - 1);
        EXPECT_EQ(line.substr(line.size() - 4), "x...");
    }
}

TEST(Logger, Text_of_any_length_around_the_limit_is_whole_or_marked) {
    int cut = 0;
    for (size_t length = longestLine - 100; length < longestLine + 10; ++length) {
        const Log log;
        const std::string text = std::string(length - 1, 'x') + "!";
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "%s", text.c_str());
        ASSERT_EQ(log.Lines().size(), 1U);
        EXPECT_LE(log.Contents().size(), longestLine);
        const std::string seen = log.Texts()[0];
        if (seen == text)
            EXPECT_EQ(cut, 0) << length;
        else
            ++cut;
        EXPECT_TRUE(seen == text || seen.substr(seen.size() - 4) == "x...") << seen;
    }
    EXPECT_GT(cut, 0);
    EXPECT_LT(cut, 110);
}

TEST(Logger, Escapes_are_never_cut_in_two) {
    for (size_t shift = 0; shift < 4; ++shift) {
        const Log log;
        Post((std::string(shift, 'x') + std::string(2000, '\x01')).c_str());
        const Texts texts = log.Texts();
        ASSERT_EQ(texts.size(), 1U);
        std::string expected(shift, 'x');
        while (expected.size() + 3 < texts[0].size())
            expected += "\\x01";
        EXPECT_EQ(texts[0], expected + "...");
    }
}

TEST(Logger, Line_is_written_by_one_call) {
    std::vector<std::string> written;
    const calls::Replaced recorded(calls::write, [&](int descriptor, const void* data, size_t size) {
        EXPECT_EQ(descriptor, STDERR_FILENO);
        written.emplace_back(static_cast<const char*>(data), size);
        return static_cast<ssize_t>(size);
    });
    Post("short");
    Post(std::string(5000, 'x').c_str());
    ASSERT_EQ(written.size(), 2U);
    EXPECT_EQ(TextOf(written[0].substr(0, written[0].size() - 1)), "short");
    EXPECT_EQ(written[1].size(), longestLine);
    EXPECT_LE(longestLine, static_cast<size_t>(PIPE_BUF));
}

TEST(Logger, Interrupted_write_is_repeated) {
    const Log log;
    int attempts = 0;
    {
        const calls::Replaced interrupted(calls::write, [&](int descriptor, const void* data, size_t size) {
            if (++attempts < 3)
                return errno = EINTR, ssize_t(-1);
            return calls::RealWrite(descriptor, data, size);
        });
        Post("patient");
    }
    EXPECT_EQ(attempts, 3);
    EXPECT_EQ(log.Texts(), Texts{"patient"});
}

TEST(Logger, Short_write_is_completed) {
    const Log log;
    int attempts = 0;
    {
        const calls::Replaced shortened(calls::write, [&](int descriptor, const void* data, size_t size) {
            ++attempts;
            return calls::RealWrite(descriptor, data, std::min<size_t>(size, 10));
        });
        Post("piecemeal");
    }
    EXPECT_GT(attempts, 3);
    EXPECT_EQ(log.Texts(), Texts{"piecemeal"});
}

TEST(Logger, Event_that_cannot_be_written_is_dropped) {
    for (const int error : {EAGAIN, EPIPE, EBADF, ENOSPC, 0}) {
        int attempts = 0;
        const calls::Replaced failing(calls::write, [&](int, const void*, size_t) {
            ++attempts;
            errno = error;
            return static_cast<ssize_t>(error == 0 ? 0 : -1);
        });
        Post("lost");
        EXPECT_EQ(attempts, 1) << error;
    }
}

TEST(Logger, Errno_is_kept) {
    const calls::Replaced failing(calls::write, [](int, const void*, size_t) {
        errno = EIO;
        return ssize_t(-1);
    });
    XString text("x");
    const std::function<void()> posts[] = {
        [] { Post("x"); },
        [&] { CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, text, nullptr); },
        [] { CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "%d", 1); },
        [] { CLogger::PostLogEventFB(LogTypeGeneral, LogSeverityFailure, "%d", "x", 1); },
    };
    for (const auto& post : posts) {
        errno = 4242;
        post();
        EXPECT_EQ(errno, 4242);
    }
}

TEST(Logger, Cancellation_is_not_taken_inside) {
    const Log log;
    pthread_t thread;
    bool survived = false;
    void* result = nullptr;
    ASSERT_EQ(pthread_create(&thread, nullptr, PostCancelled, &survived), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_TRUE(survived);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(log.Texts(), (Texts{"whole", "a line", "kept"}));
}

TEST(Logger, Cancellation_that_was_disabled_stays_disabled) {
    const Log log;
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    Post("x");
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
    Post("x");
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    EXPECT_EQ(state, PTHREAD_CANCEL_ENABLE);
}

TEST(Logger, Posting_allocates_nothing) {
#ifdef COUNTS_ALLOCATIONS
    const Log log;
    const std::string body(1 << 20, '\n');
    XString text("x");
    const int before = allocations;
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, "%s", body.c_str());
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure, text, nullptr);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "%s %d", body.c_str(), 1);
    CLogger::PostLogEventFB(LogTypeGeneral, LogSeverityFailure, "%s", body.c_str(), body.c_str());
    EXPECT_EQ(allocations, before);
    void* volatile block = malloc(1);
    free(block);
    EXPECT_GT(allocations, before);
#else
    GTEST_SKIP() << "a sanitizer counts allocations itself";
#endif
}

TEST(Logger, Lines_of_several_threads_are_whole) {
    const int threadCount = 8;
    const int eventCount = 100;
    const Log log;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back([i] {
            const std::string body(static_cast<size_t>(i) * 20, static_cast<char>('a' + i));
            for (int j = 0; j < eventCount; ++j)
                CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "%d/%d ", body.c_str(), i, j);
        });
    for (std::thread& thread : threads)
        thread.join();
    std::map<std::string, int> seen;
    for (const std::string& text : log.Texts())
        ++seen[text];
    EXPECT_EQ(seen.size(), static_cast<size_t>(threadCount * eventCount));
    for (int i = 0; i < threadCount; ++i)
        for (int j = 0; j < eventCount; ++j)
            EXPECT_EQ(seen[std::to_string(i) + "/" + std::to_string(j) + " " +
                           std::string(static_cast<size_t>(i) * 20, static_cast<char>('a' + i))],
                      1);
}

TEST(Logger, No_event_is_lost_while_the_file_changes) {
    const int threadCount = 4;
    const int eventCount = 500;
    const MemoryFile files[2];
    ASSERT_TRUE(reference_host::LogToFile(files[0].Path().c_str()));
    std::atomic<int> running(threadCount);
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i)
        threads.emplace_back([&] {
            for (int j = 0; j < eventCount; ++j)
                CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "event %d", j);
            --running;
        });
    for (int i = 1; running > 0; ++i)
        EXPECT_TRUE(reference_host::LogToFile(files[i % 2].Path().c_str()));
    for (std::thread& thread : threads)
        thread.join();
    reference_host::LogToStandardError();
    size_t count = 0;
    for (const MemoryFile& file : files)
        for (const std::string& line : LinesOf(file.Contents())) {
            EXPECT_EQ(TextOf(line).substr(0, 6), "event ");
            ++count;
        }
    EXPECT_EQ(count, static_cast<size_t>(threadCount * eventCount));
}

TEST(Logger, Descriptor_of_a_line_in_the_making_is_never_somebody_elses) {
    const MemoryFile first;
    const MemoryFile second;
    const MemoryFile stranger;
    ASSERT_TRUE(reference_host::LogToFile(first.Path().c_str()));
    int taken = -1;
    {
        const calls::Replaced late(calls::write, [&](int descriptor, const void* data, size_t size) {
            EXPECT_TRUE(reference_host::LogToFile(second.Path().c_str()));
            taken = open(stranger.Path().c_str(), O_WRONLY); // the lowest number that is free
            return calls::RealWrite(descriptor, data, size);
        });
        Post("late");
    }
    close(taken);
    reference_host::LogToStandardError();
    const Texts lines = LinesOf(first.Contents() + second.Contents());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(TextOf(lines[0]), "late");
    EXPECT_EQ(stranger.Contents(), "");
}

TEST(Logger, Events_go_to_standard_error_in_the_beginning) {
    testing::internal::CaptureStderr();
    Post("seen");
    const Texts lines = LinesOf(testing::internal::GetCapturedStderr());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(TextOf(lines[0]), "seen");
}

TEST(Logger, File_is_created_and_appended_to) {
    char folder[] = "/tmp/log.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/file";
    for (const char* text : {"first", "second"}) {
        ASSERT_TRUE(reference_host::LogToFile(path.c_str()));
        Post(text);
        reference_host::LogToStandardError();
    }
    const int file = open(path.c_str(), O_RDONLY);
    char contents[3 * longestLine] = {};
    EXPECT_GT(read(file, contents, sizeof contents - 1), 0);
    close(file);
    unlink(path.c_str());
    rmdir(folder);
    const Texts lines = LinesOf(contents);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(TextOf(lines[0]), "first");
    EXPECT_EQ(TextOf(lines[1]), "second");
}

TEST(Logger, File_that_cannot_be_opened_changes_nothing) {
    const Log log;
    errno = 0;
    EXPECT_FALSE(reference_host::LogToFile("/nonexistent/log"));
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_FALSE(reference_host::LogToFile("/tmp"));
    EXPECT_EQ(errno, EISDIR);
    Post("still here");
    EXPECT_EQ(log.Texts(), Texts{"still here"});
}

TEST(Logger, Changing_the_destination_leaks_no_descriptor) {
    const MemoryFile file;
    const auto change = [&] {
        EXPECT_TRUE(reference_host::LogToFile(file.Path().c_str()));
        EXPECT_TRUE(reference_host::LogToFile(file.Path().c_str()));
        reference_host::LogToStandardError();
        reference_host::LogToStandardError();
    };
    change(); // the first file takes a descriptor for good
    const int free = dup(STDERR_FILENO);
    close(free);
    for (int i = 0; i < 10; ++i)
        change();
    const int freeAfterwards = dup(STDERR_FILENO);
    close(freeAfterwards);
    EXPECT_EQ(freeAfterwards, free);
}

TEST(Logger, File_is_closed_when_events_go_to_standard_error_again) {
    char path[] = "/tmp/log.XXXXXX";
    close(mkstemp(path));
    ASSERT_TRUE(reference_host::LogToFile(path));
    const auto isOpen = [&] {
        struct stat wanted = {};
        EXPECT_EQ(stat(path, &wanted), 0);
        for (int descriptor = 0; descriptor < 256; ++descriptor) {
            struct stat found = {};
            if (fstat(descriptor, &found) == 0 && found.st_ino == wanted.st_ino &&
                found.st_dev == wanted.st_dev)
                return true;
        }
        return false;
    };
    EXPECT_TRUE(isOpen());
    reference_host::LogToStandardError();
    EXPECT_FALSE(isOpen());
    unlink(path);
}

TEST(Logger, Event_before_main_is_written_and_filtered) {
    const Texts lines = LinesOf(firstObject.m_contents);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(TextOf(lines[0]), "before main");
}

TEST(LoggerDeathTest, Event_after_main_is_written) {
    EXPECT_EXIT(
        {
            firstObject.m_postsAtEnd = true;
            exit(0);
        },
        testing::ExitedWithCode(0), "general 1 after main\n");
}

TEST(Logger, Debug_mode_is_off_until_it_is_set) {
    EXPECT_FALSE(IsDebugEnabled());
    reference_host::SetDebugEnabled(true);
    EXPECT_TRUE(IsDebugEnabled());
    reference_host::SetDebugEnabled(false);
    EXPECT_FALSE(IsDebugEnabled());
}
