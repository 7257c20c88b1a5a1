// The smallest host that keeps its contract (host/README.md): everything that the library asks the program
// that loads it for. Copy it, and put your own logger, services and clocks in place of these.
//
// The library posts its first events before main, so nothing here may need a constructor to have run.
#include <host/host.h>

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <Windows/XString.h>

namespace {

// --- The logger: lines on standard error ---------------------------------------------------------------

constexpr int kMaximumSeverity = LogSeverityWarning;

// What costs nothing comes first: most events end here.
bool IsWanted(LogSeverityEnum severity) { return severity <= kMaximumSeverity; }

// A line goes out in one write(), so that lines of several threads do not mix, and is cut to what a pipe
// takes at once. The thread may be cancelled at any time, but not in the middle of a line.
class Line {
public:
    Line() : m_cancelState(0), m_length(0) { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_cancelState); }
    ~Line() {
        m_text[m_length++] = '\n';
        const ssize_t written = write(STDERR_FILENO, m_text, m_length);
        static_cast<void>(written); // what cannot be delivered is dropped
        pthread_setcancelstate(m_cancelState, nullptr);
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    void Append(const char* text, size_t size) {
        const size_t room = sizeof m_text - 1 - m_length; // but for the end of the line
        const size_t taken = size < room ? size : room;
        memcpy(m_text + m_length, text, taken);
        m_length += taken;
    }

    void Append(const char* text) { Append(text, strlen(text)); }

    void AppendFormatted(const char* format, va_list args) {
        char text[1024];
        if (vsnprintf(text, sizeof text, format, args) >= 0)
            Append(text);
    }

private:
    int m_cancelState;
    size_t m_length;
    char m_text[1024];
};

// --- The services: a table that is compiled in ---------------------------------------------------------

struct Service {
    const char* name;
    const char* address;
    int port;
};

constexpr Service kServices[] = {
    {"echo", "127.0.0.1", 4711},
};

// --- The clocks ----------------------------------------------------------------------------------------

constexpr long kNanosecondsPerSecond = 1000000000;
constexpr long kMicrosecondsPerSecond = 1000000;

// Fractions stay below a second: select() and pthread_cond_timedwait() refuse others.
template <class Fraction>
void AddTo(time_t& seconds, Fraction& fraction, long perSecond, unsigned long milliSeconds) {
    const long sum =
        static_cast<long>(fraction) + static_cast<long>(milliSeconds % 1000) * (perSecond / 1000);
    seconds += static_cast<time_t>(milliSeconds / 1000) + sum / perSecond;
    fraction = static_cast<Fraction>(sum % perSecond);
}

} // namespace

void CLogger::PostLogEvent(LogTypeEnum, LogSeverityEnum severity, const char* text, const char* detail) {
    if (!IsWanted(severity))
        return;
    Line line;
    const char* const place = detail ? strstr(text, "%s") : nullptr;
    if (!place)
        return line.Append(text); // it is no format
    line.Append(text, static_cast<size_t>(place - text));
    line.Append(detail);
    line.Append(place + strlen("%s"));
}

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, XString& text, const char* detail) {
    PostLogEvent(type, severity, static_cast<const char*>(text), detail);
}

void CLogger::PostLogEventF(LogTypeEnum, LogSeverityEnum severity, const char* format, ...) {
    if (!IsWanted(severity))
        return;
    Line line;
    va_list args;
    va_start(args, format);
    line.AppendFormatted(format, args);
    va_end(args);
}

void CLogger::PostLogEventFB(LogTypeEnum, LogSeverityEnum severity, const char* format, const char* buffer,
                             ...) {
    if (!IsWanted(severity))
        return;
    Line line;
    va_list args;
    va_start(args, buffer);
    line.AppendFormatted(format, args);
    va_end(args);
    line.Append(buffer);
}

bool IsDebugEnabled() { return false; } // servers are for this machine only

CServiceAddress::CServiceAddress() : m_szIPAddress(), m_nPortNumber(0) {}

CServiceAddress::~CServiceAddress() {}

const char* CServiceAddress::getIPAddress() const { return m_szIPAddress; }

int CServiceAddress::getPortNumber() const { return m_nPortNumber; }

int RegSvcQueryForServiceAddress(const char* serviceName, CServiceAddress& address, int) {
    for (const Service& service : kServices) {
        if (strcmp(service.name, serviceName) != 0)
            continue;
        strncpy(address.m_szIPAddress, service.address, sizeof address.m_szIPAddress - 1);
        address.m_nPortNumber = service.port;
        return 1;
    }
    return 0;
}

CTimeValHelper::CTimeValHelper() : timeval() {}

CTimeValHelper::CTimeValHelper(bool) : timeval() {}

void CTimeValHelper::Init() { tv_sec = tv_usec = 0; }

void CTimeValHelper::AddSeconds(unsigned long seconds) { tv_sec += static_cast<time_t>(seconds); }

void CTimeValHelper::AddMilliSeconds(unsigned long milliSeconds) {
    AddTo(tv_sec, tv_usec, kMicrosecondsPerSecond, milliSeconds);
}

CTimeSpecHelper::CTimeSpecHelper(bool) : timespec() { clock_gettime(CLOCK_REALTIME, this); }

void CTimeSpecHelper::AddMilliSeconds(unsigned long milliSeconds) {
    AddTo(tv_sec, tv_nsec, kNanosecondsPerSecond, milliSeconds);
}

unsigned long GetTickCount() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000 + static_cast<unsigned long>(now.tv_nsec) / 1000000;
}

void Sleep(unsigned long milliseconds) {
    timespec rest = {};
    AddTo(rest.tv_sec, rest.tv_nsec, kNanosecondsPerSecond, milliseconds);
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) { // which is a cancellation point
    }
}

// --- The error objects ---------------------------------------------------------------------------------

CLogException* Exception(const char* where, const char* what, char* extra) {
    return new CLogException(where, what, extra); // whoever catches it deletes it
}
