// A host that breaks one clause of its contract, the one that HOST_CONFORMANCE_FAULT names, and keeps the
// others: it shows that the conformance program notices. Without the variable it is a plain host.
#include <host/host.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <Windows/Mutex.h>
#include <Windows/XString.h>

#include "../hook.h"

namespace {

bool Has(const char* fault) {
    const char* const chosen = getenv("HOST_CONFORMANCE_FAULT");
    return chosen && strcmp(chosen, fault) == 0;
}

void Pause(unsigned long milliseconds) {
    timespec time = {static_cast<time_t>(milliseconds / 1000),
                     static_cast<long>(milliseconds % 1000 * 1000000)};
    while (nanosleep(&time, &time) != 0 && errno == EINTR) {
    }
}

// Aborts when two threads are in a function at once, if the fault is that it cannot bear it.
class Alone {
public:
    Alone(const char* fault, std::atomic<int>& inside) : m_inside(inside) {
        if (Has(fault) && ++m_inside > 1)
            abort();
        if (Has(fault))
            StayAWhile();
    }
    ~Alone() {
        if (m_inside > 0)
            --m_inside;
    }

private:
    static void StayAWhile() {
        int state = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        Pause(1);
        pthread_setcancelstate(state, nullptr);
    }

    std::atomic<int>& m_inside;
};

// Writes behind an object, as code does that was compiled for a larger one.
void WriteBehind(void* object, size_t size) { static_cast<volatile char*>(object)[size] = 'x'; }

// The logger.

int destination = STDERR_FILENO;

enum class Life { NotYet, Living, Over };
Life life = Life::NotYet;
struct LifeGuard {
    LifeGuard() { life = Life::Living; }
    ~LifeGuard() { life = Life::Over; }
} lifeGuard;

class NoCancellation {
public:
    NoCancellation() : m_state(PTHREAD_CANCEL_ENABLE) {
        if (!Has("logger.cancellation"))
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_state);
    }
    ~NoCancellation() {
        if (!Has("logger.cancel-state") && !Has("logger.cancellation"))
            pthread_setcancelstate(m_state, nullptr);
    }

private:
    int m_state;
};

void WriteLine(std::string line, bool inParts = false) {
    const NoCancellation noCancellation;
    line += '\n';
    size_t written = 0;
    while (written < line.size()) {
        const size_t left = line.size() - written;
        const ssize_t count = write(destination, line.data() + written, inParts && left > 5 ? 5 : left);
        if (count <= 0)
            return;
        written += static_cast<size_t>(count);
        if (inParts)
            sched_yield();
    }
}

void CheckEvent(LogTypeEnum type, LogSeverityEnum severity) {
    if (Has("logger.before-main") && life == Life::NotYet && type == LogTypeGeneral)
        abort();
    if (Has("logger.after-main") && life == Life::Over && type == LogTypeGeneral)
        abort();
    if (Has("logger.combinations") && type == LogTypeTraffic && severity == LogSeverityNotice)
        throw "a combination that was not expected";
}

void* WriteLater(void* text) {
    Pause(50);
    WriteLine(static_cast<const char*>(text));
    return nullptr;
}

void KeepText(const char* text) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, WriteLater, const_cast<char*>(text)) == 0)
        pthread_detach(thread);
}

std::string Formatted(const char* format, va_list args) {
    char text[1000];
    const int length = vsnprintf(text, sizeof text, format, args);
    if (Has("logger.long-text") && length >= 1000)
        abort();
    return text;
}

std::string Replaced(const char* text, const char* detail) {
    std::string result = text;
    const size_t at = result.find("%s");
    if (at == std::string::npos)
        return result;
    if (!detail && Has("logger.null-detail"))
        abort();
    if (detail && !Has("logger.detail"))
        result.replace(at, 2, detail);
    return result;
}

// Clocks.

template <class Fraction>
void Add(time_t& seconds, Fraction& fraction, long long perSecond, unsigned long milliseconds, bool carries) {
    const unsigned long long sum = static_cast<unsigned long long>(fraction) +
                                   milliseconds % 1000 * static_cast<unsigned long long>(perSecond / 1000);
    const auto limit = static_cast<unsigned long long>(perSecond);
    fraction = static_cast<Fraction>(carries ? sum % limit : sum);
    seconds += static_cast<time_t>(milliseconds / 1000 + (carries ? sum / limit : 0));
}

} // namespace

void HostConformanceHook(const char* file) {
    if (file)
        destination = open(file, O_WRONLY | O_APPEND | O_CLOEXEC);
}

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, const char* text, const char* detail) {
    CheckEvent(type, severity);
    if (Has("logger.callers-texts") && strstr(text, "lives for the call")) // others' may go while it is read
        return KeepText(text);
    if (Has("logger.percent-signs") && !detail) {
        char formatted[1000];
        snprintf(formatted, sizeof formatted, text, "");
        return WriteLine(strstr(text, "%s") ? text : formatted);
    }
    WriteLine(Replaced(text, detail));
}

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, XString& text, const char*) {
    static std::atomic<int> inside{0};
    const Alone alone("logger.threads", inside);
    CheckEvent(type, severity);
    WriteLine(Has("logger.string") ? "a string" : static_cast<const char*>(text));
    if (Has("logger.string-left-alone"))
        text += "\n";
}

void CLogger::PostLogEventF(LogTypeEnum type, LogSeverityEnum severity, const char* format, ...) {
    CheckEvent(type, severity);
    if (Has("logger.library-locks") && type == LogTypeMutex && strstr(format, "Lock")) {
        static CMutex mutex;
        mutex.Lock(); // which posts an event
    }
    va_list args;
    va_start(args, format);
    std::string text = Formatted(format, args);
    va_end(args);
    if (Has("logger.format") && strstr(format, "%lu"))
        text.resize(text.size() / 2);
    WriteLine(text, Has("logger.whole-events"));
}

void CLogger::PostLogEventFB(LogTypeEnum type, LogSeverityEnum severity, const char* format,
                             const char* buffer, ...) {
    CheckEvent(type, severity);
    if (Has("logger.any-buffer") && strlen(buffer) > 65535)
        abort();
    va_list args;
    va_start(args, buffer);
    const std::string text = Formatted(format, args);
    va_end(args);
    WriteLine(Has("logger.buffer") ? buffer + text : text + buffer);
}

bool IsDebugEnabled() {
    static std::atomic<int> inside{0};
    const Alone alone("debug.threads", inside);
    return false;
}

CServiceAddress::CServiceAddress() {
    if (!Has("address.empty")) {
        memset(m_szIPAddress, 0, sizeof m_szIPAddress);
        m_nPortNumber = 0;
    }
    m_szIPAddress[sizeof m_szIPAddress - 1] = '\0';
    if (Has("address.size"))
        WriteBehind(this, sizeof *this);
}

CServiceAddress::~CServiceAddress() {}

const char* CServiceAddress::getIPAddress() const {
    static thread_local char common[sizeof m_szIPAddress];
    return Has("address.own-text") ? strcpy(common, m_szIPAddress) : m_szIPAddress;
}

int CServiceAddress::getPortNumber() const { return m_nPortNumber; }

int RegSvcQueryForServiceAddress(const char* name, CServiceAddress& address, int) {
    static std::atomic<int> inside{0};
    const Alone alone("registry.threads", inside);
    if (strcmp(name, "conformance") != 0)
        return Has("registry.unknown") ? -1 : 0;
    strcpy(address.m_szIPAddress, "127.0.0.1");
    address.m_nPortNumber = Has("registry.known") ? 0x6712 : 0x1267; // the other way round
    return 1;
}

CTimeValHelper::CTimeValHelper() {
    if (!Has("timeval.zero"))
        tv_sec = tv_usec = 0;
}

CTimeValHelper::CTimeValHelper(bool) : timeval() {
    if (Has("timeval.size"))
        WriteBehind(this, sizeof *this);
}

void CTimeValHelper::Init() {
    if (!Has("timeval.init"))
        tv_sec = tv_usec = 0;
}

void CTimeValHelper::AddSeconds(unsigned long seconds) {
    if (Has("timeval.add-seconds"))
        tv_sec = 0;
    tv_sec += static_cast<time_t>(seconds);
}

void CTimeValHelper::AddMilliSeconds(unsigned long milliSeconds) {
    Add(tv_sec, tv_usec, 1000000, milliSeconds, !Has("timeval.carry"));
}

CTimeSpecHelper::CTimeSpecHelper(bool) : timespec() {
    clock_gettime(Has("timespec.now") ? CLOCK_MONOTONIC : CLOCK_REALTIME, this);
    if (Has("timespec.size"))
        WriteBehind(this, sizeof *this);
}

void CTimeSpecHelper::AddMilliSeconds(unsigned long milliSeconds) {
    Add(tv_sec, tv_nsec, 1000000000, milliSeconds, !Has("timespec.carry"));
}

unsigned long GetTickCount() {
    static std::atomic<unsigned> calls{0};
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto seconds = static_cast<unsigned long>(now.tv_sec);
    const auto nanoseconds = static_cast<unsigned long>(now.tv_nsec);
    if (Has("tick.milliseconds"))
        return seconds * 1000000 + nanoseconds / 1000;
    const unsigned long back = Has("tick.never-back") && ++calls % 1000 == 0 ? 5 : 0;
    return seconds * 1000 + nanoseconds / 1000000 - back;
}

void Sleep(unsigned long milliseconds) {
    int state = 0;
    if (Has("sleep.cancellation"))
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    Pause(Has("sleep.duration") ? milliseconds / 2 : milliseconds);
    if (Has("sleep.cancellation"))
        pthread_setcancelstate(state, nullptr);
}

CLogException* Exception(const char* where, const char* what, char* extra) {
    static std::atomic<int> inside{0};
    const Alone alone("error.threads", inside);
    if (Has("error.thrown") && !extra)
        return nullptr;
    if (Has("error.texts"))
        return new CLogException(what, where, extra);
    if (Has("error.owned")) {
        static CLogException* const only = new CLogException(where, what, extra);
        return only;
    }
    return new CLogException(where, what, extra);
}
