// The library posts its first events before any constructor of the executable has run, and its last ones when
// the destructors are done: everything at namespace scope here is constant-initialised and has nothing to
// destroy. Posting takes no lock.
#include <reference_host/reference_host.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include <Windows/XString.h>
#include <reference_host/internal/LogTypeName.h>
#include <reference_host/internal/Timeline.h>
#include <reference_host/internal/Undisturbed.h>

using reference_host::Undisturbed;
namespace timeline = reference_host::timeline;

namespace {

struct Limit {
    std::atomic<int> severity{LogSeverityWarning};
};

constexpr unsigned kTypeCount = 32; // the values that LogTypeEnum can hold
Limit limits[kTypeCount];

Limit& LimitOf(LogTypeEnum type) { return limits[static_cast<unsigned>(type) % kTypeCount]; }

bool Passes(LogTypeEnum type, LogSeverityEnum severity) {
    return severity <= LimitOf(type).severity.load(std::memory_order_relaxed);
}

// Where lines go. A number that was published stays open for ever and is only redirected (dup3), so a thread
// that is about to write to it never meets a descriptor that was closed or belongs to somebody else by now.
std::atomic<int> destination{STDERR_FILENO};

std::mutex redirection; // guards fileDescriptor and the order of redirections
int fileDescriptor = -1;

std::atomic<bool> debugEnabled{false};

struct Date {
    long year;
    long month;
    long day;
};

// The date so many days after 1970-01-01. gmtime_r would take a lock, and read the time zone's file at its
// first call. Years begin in March here, which makes the leap day the last one of the year, and periods of
// 400 years (146,097 days) are all alike.
Date DateOf(long daysSince1970) {
    const long days = daysSince1970 + 719468; // since 0000-03-01
    const long period = days / 146097;
    const long dayOfPeriod = days % 146097;
    const long yearOfPeriod =
        (dayOfPeriod - dayOfPeriod / 1460 + dayOfPeriod / 36524 - dayOfPeriod / 146096) / 365;
    const long dayOfYear = dayOfPeriod - (365 * yearOfPeriod + yearOfPeriod / 4 - yearOfPeriod / 100);
    const long monthFromMarch = (5 * dayOfYear + 2) / 153;
    const long day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const long month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    return {period * 400 + yearOfPeriod + (month <= 2 ? 1 : 0), month, day};
}

// A line in the making. Less than PIPE_BUF, so that a pipe takes it whole.
constexpr size_t kLineSize = 1024;

class Line {
public:
    Line(LogTypeEnum type, LogSeverityEnum severity) : m_length(0), m_full(false) {
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        constexpr long kSecondsPerDay = 86400;
        const Date date = DateOf(static_cast<long>(now.tv_sec / kSecondsPerDay));
        const long second = static_cast<long>(now.tv_sec % kSecondsPerDay);
        AppendFormatted("%04ld-%02ld-%02ldT%02ld:%02ld:%02ld.%03ldZ %ld ", date.year, date.month, date.day,
                        second / 3600, second / 60 % 60, second % 60,
                        static_cast<long>(now.tv_nsec / 1000000), syscall(SYS_gettid));
        if (const char* name = reference_host::NameOf(type))
            AppendFormatted("%s %d ", name, static_cast<int>(severity));
        else
            AppendFormatted("%d %d ", static_cast<int>(type), static_cast<int>(severity));
    }

    // Appends a text up to its NUL or to end, whichever comes first. NULL is no text.
    void Append(const char* text, const char* end = nullptr) {
        while (text && text != end && *text && !m_full)
            AppendVisibly(*text++);
    }

    // text is cut to the size of a line before the line itself cuts it, which ends it in "...".
    void AppendFormattedV(const char* format, va_list args) {
        char text[kLineSize];
        const bool valid = vsnprintf(text, sizeof text, format, args) >= 0;
        Append(valid ? text : format);
    }

    void AppendFormatted(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        AppendFormattedV(format, args);
        va_end(args);
    }

    void Write() {
        const char* const ending = m_full ? "...\n" : "\n";
        memcpy(m_text + m_length, ending, strlen(ending));
        size_t left = m_length + strlen(ending);
        const int descriptor = destination.load(std::memory_order_relaxed);
        for (const char* position = m_text; left > 0;) {
            const ssize_t written = write(descriptor, position, left);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                return;
            position += written;
            left -= static_cast<size_t>(written);
        }
    }

private:
    void AppendVisibly(char c) {
        if (c >= ' ' && c <= '~')
            return AppendWhole(&c, 1);
        switch (c) {
        case '\n':
            return AppendWhole("\\n", 2);
        case '\r':
            return AppendWhole("\\r", 2);
        case '\t':
            return AppendWhole("\\t", 2);
        }
        const char* const digits = "0123456789ABCDEF";
        const auto byte = static_cast<unsigned char>(c);
        const char escape[] = {'\\', 'x', digits[byte / 16], digits[byte % 16]};
        AppendWhole(escape, sizeof escape);
    }

    void AppendWhole(const char* piece, size_t size) {
        constexpr size_t kSizeOfEnding = 4; // "...\n"
        m_full = m_length + size > sizeof m_text - kSizeOfEnding;
        if (m_full)
            return;
        memcpy(m_text + m_length, piece, size);
        m_length += size;
    }

    char m_text[kLineSize];
    size_t m_length;
    bool m_full;
};

} // namespace

namespace reference_host {

void SetMaximumSeverity(int maximum) {
    for (Limit& limit : limits)
        limit.severity.store(maximum, std::memory_order_relaxed);
}

void SetMaximumSeverity(LogTypeEnum type, int maximum) {
    LimitOf(type).severity.store(maximum, std::memory_order_relaxed);
}

bool LogToFile(const char* path) {
    const int opened = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (opened < 0)
        return false;
    const std::lock_guard<std::mutex> lock(redirection);
    if (fileDescriptor < 0) {
        fileDescriptor = opened;
    } else {
        const bool redirected = dup3(opened, fileDescriptor, O_CLOEXEC) >= 0;
        const int error = errno;
        close(opened);
        errno = error;
        if (!redirected)
            return false;
    }
    destination.store(fileDescriptor, std::memory_order_relaxed);
    return true;
}

void LogToStandardError() {
    const std::lock_guard<std::mutex> lock(redirection);
    destination.store(STDERR_FILENO, std::memory_order_relaxed);
    if (fileDescriptor >= 0)
        dup3(STDERR_FILENO, fileDescriptor, O_CLOEXEC); // for threads that are about to write to it
}

void SetDebugEnabled(bool enabled) { debugEnabled.store(enabled, std::memory_order_relaxed); }

} // namespace reference_host

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, const char* text, const char* detail) {
    if (timeline::IsOn())
        timeline::Log(type, severity, text, detail);
    if (!Passes(type, severity))
        return;
    const Undisturbed undisturbed;
    Line line(type, severity);
    const char* const placeholder = text && detail ? strstr(text, "%s") : nullptr;
    line.Append(text, placeholder);
    if (placeholder) {
        line.Append(detail);
        line.Append(placeholder + strlen("%s"));
    }
    line.Write();
}

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, XString& text, const char* detail) {
    PostLogEvent(type, severity, static_cast<const char*>(text), detail);
}

void CLogger::PostLogEventF(LogTypeEnum type, LogSeverityEnum severity, const char* format, ...) {
    va_list args;
    if (timeline::IsOn()) {
        va_start(args, format);
        timeline::LogFormatted(type, severity, format, args, nullptr);
        va_end(args);
    }
    if (!Passes(type, severity))
        return;
    const Undisturbed undisturbed;
    Line line(type, severity);
    va_start(args, format);
    line.AppendFormattedV(format, args);
    va_end(args);
    line.Write();
}

void CLogger::PostLogEventFB(LogTypeEnum type, LogSeverityEnum severity, const char* format,
                             const char* buffer, ...) {
    va_list args;
    if (timeline::IsOn()) {
        va_start(args, buffer);
        timeline::LogFormatted(type, severity, format, args, buffer);
        va_end(args);
    }
    if (!Passes(type, severity))
        return;
    const Undisturbed undisturbed;
    Line line(type, severity);
    va_start(args, buffer);
    line.AppendFormattedV(format, args);
    va_end(args);
    line.Append(buffer);
    line.Write();
}

bool IsDebugEnabled() { return debugEnabled.load(std::memory_order_relaxed); }
