#include "support/recording_host.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string_view>

#include <Windows/XString.h>
#include <host/host.h>

#include "support/interpose.h"
#include "support/monitor.h"

// The logger is called before the program's static objects are constructed. All data here is
// constant-initialised, or made by the first use and never destroyed.
namespace {

const size_t MAX_EVENTS = 200000;
const size_t MAX_SLEEPS = 100000;

// What the logger leaves in errno: no error that any call gives.
const int LOGGER_ERRNO = 4095;

const int MUTEX_EVENTS = LogTypeMutex;

// ---------------------------------------------------------------------------------------------------------
// The record

struct Record {
    std::vector<Event> events;
    std::vector<Event> loadEvents;
    size_t dropped = 0;
    unsigned cleared = 0;
    std::shared_ptr<std::function<void(const Event&)>> hook;
};

Monitor g_monitor;
std::atomic<bool> g_paused{false};

// With g_monitor held.
Record& TheRecord() {
    static Record* record = new Record;
    return *record;
}

// ---------------------------------------------------------------------------------------------------------
// The census

// A set of hash values, without a lock. What does not fit is dropped.
class HashSet {
public:
    // False if it was there already.
    bool Insert(unsigned long hash) {
        for (size_t i = 0; i < SIZE; i++) {
            std::atomic<unsigned long>& slot = m_slots[(hash + i) % SIZE];
            unsigned long found = slot.load(std::memory_order_relaxed);
            if (found == 0 && slot.compare_exchange_strong(found, hash, std::memory_order_relaxed))
                return true;
            if (found == hash)
                return false;
        }
        return false;
    }

    bool Contains(unsigned long hash) const {
        for (size_t i = 0; i < SIZE; i++) {
            const unsigned long found = m_slots[(hash + i) % SIZE].load(std::memory_order_relaxed);
            if (found == hash || found == 0)
                return found == hash;
        }
        return false;
    }

private:
    static const size_t SIZE = 4096;
    std::atomic<unsigned long> m_slots[SIZE] = {};
};

HashSet g_seen;
HashSet g_ownTexts;
Monitor g_censusMonitor;
int g_censusFile = -2; // -1: there is none; -2: not opened yet

unsigned long Hash(const char* text, unsigned long seed = 0) {
    const unsigned long hash = std::hash<std::string_view>()(text) ^ (seed * 16777619u);
    return hash ? hash : 1;
}

// One file for each process. Its descriptor is a high one, out of the way of tests that count.
void OpenCensus() {
    if (g_censusFile != -2)
        return;
    g_censusFile = -1;
    const char* folder = getenv("WINDOWS_CENSUS_DIR");
    if (!folder || !*folder)
        return;
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    const std::string path = Text("%s/%d.tsv", folder, static_cast<int>(getpid()));
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const int high = fcntl(file, F_DUPFD_CLOEXEC, 900);
    if (high >= 0)
        close(file);
    g_censusFile = high >= 0 ? high : file;
}

std::string Escaped(const char* text) {
    std::string escaped;
    for (; *text; text++) {
        const unsigned char c = *text;
        if (c == '\\' || c < 0x20 || c == 0x7F)
            escaped += Text("\\x%02x", c);
        else
            escaped += *text;
    }
    return escaped;
}

void Census(int type, int severity, const char* format, bool isText) {
    if (g_ownTexts.Contains(Hash(format)) ||
        !g_seen.Insert(Hash(format, static_cast<unsigned long>(4 * (100 * type + severity) + isText + 1))))
        return;
    CancellationDisabled whole;
    Monitor::Lock lock(g_censusMonitor);
    OpenCensus();
    if (g_censusFile < 0)
        return;
    const std::string line =
        Text("%d\t%d\t%s\t%s\n", type, severity, Escaped(format).c_str(), isText ? "text" : "format");
    // One write, so that lines of several processes stay whole; it outlives abort() and _exit().
    if (write(g_censusFile, line.data(), line.size()) < 0)
        abort();
}

// ---------------------------------------------------------------------------------------------------------

// Records an event; finish fills in text, detail and buffer.
template <class Finish>
void Post(Event::Entry entry, int type, int severity, const char* format, bool isText, Finish finish) {
    if (!format)
        format = "";
    Census(type, severity, format, isText);
    if (g_paused.load(std::memory_order_relaxed)) {
        errno = LOGGER_ERRNO;
        return;
    }
    std::shared_ptr<std::function<void(const Event&)>> hook;
    Event event;
    {
        CancellationDisabled whole;
        Bypass bypass;
        event.type = type;
        event.severity = severity;
        event.format = format;
        event.hasDetail = false;
        event.entry = entry;
        event.thread = pthread_self();
        finish(event);
        Monitor::Lock lock(g_monitor);
        Record& record = TheRecord();
        if (record.events.size() < MAX_EVENTS)
            record.events.push_back(event);
        else
            record.dropped++;
        hook = record.hook;
        g_monitor.NotifyAll();
    }
    if (hook)
        (*hook)(event);
    {
        Bypass bypass;
        const Event gone(std::move(event)); // assigning would keep the strings' memory until the end
        hook.reset();
    }
    errno = LOGGER_ERRNO;
}

std::vector<Event> Select(const Recorder::Filter& filter) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    std::vector<Event> selected;
    for (const Event& event : TheRecord().events)
        if (filter(event))
            selected.push_back(event);
    return selected;
}

bool IsShown(const Event& event) { return event.type != MUTEX_EVENTS; }

} // namespace

// ---------------------------------------------------------------------------------------------------------
// CLogger

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, const char* text, const char* detail) {
    Post(Event::Plain, type, severity, text, !detail, [&](Event& event) {
        event.text = event.format;
        if (!detail)
            return;
        event.hasDetail = true;
        event.detail = detail;
        const size_t place = event.text.find("%s");
        if (place != std::string::npos)
            event.text.replace(place, 2, detail);
    });
}

void CLogger::PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, XString& text, const char* detail) {
    Post(Event::PlainXString, type, severity, text, true, [&](Event& event) {
        event.text = event.format;
        event.hasDetail = detail;
        event.detail = detail ? detail : "";
    });
}

void CLogger::PostLogEventF(LogTypeEnum type, LogSeverityEnum severity, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Post(Event::Format, type, severity, format, false,
         [&](Event& event) { event.text = TextV(format, args); });
    va_end(args);
}

void CLogger::PostLogEventFB(LogTypeEnum type, LogSeverityEnum severity, const char* format,
                             const char* buffer, ...) {
    va_list args;
    va_start(args, buffer);
    Post(Event::FormatBuffer, type, severity, format, false, [&](Event& event) {
        event.buffer = buffer ? buffer : "";
        event.text = TextV(format, args) + event.buffer;
    });
    va_end(args);
}

// ---------------------------------------------------------------------------------------------------------
// Expectations

std::ostream& operator<<(std::ostream& stream, const Event& event) {
    return stream << "{" << event.type << ", " << event.severity << ", \"" << event.text << "\"}";
}

bool ExpectedText::Matches(const std::string& text) const {
    if (!m_pattern)
        return text == m_text;
    // Backtracks to the last '*' that was passed.
    size_t at = 0, in = 0, star = std::string::npos, resume = 0;
    while (at < text.size()) {
        if (in < m_text.size() && m_text[in] == '*') {
            star = in++;
            resume = at;
        } else if (in < m_text.size() && m_text[in] == text[at]) {
            in++;
            at++;
        } else if (star != std::string::npos) {
            in = star + 1;
            at = ++resume;
        } else {
            return false;
        }
    }
    return m_text.find_first_not_of('*', in) == std::string::npos;
}

ExpectedText Like(const std::string& pattern) {
    ExpectedText text(pattern);
    text.m_pattern = true;
    return text;
}

bool ExpectedEvent::Matches(const Event& event) const {
    return event.type == type && event.severity == severity && text.Matches(event.text);
}

namespace {

std::string Listed(const std::vector<Event>& seen) {
    std::string list = seen.empty() ? "  nothing\n" : "";
    for (size_t i = 0; i < seen.size(); i++)
        list += Text("  %zu: {%d, %d, \"%s\"}\n", i, seen[i].type, seen[i].severity, seen[i].text.c_str());
    return list;
}

std::string Listed(const std::vector<ExpectedEvent>& expected) {
    std::string list = expected.empty() ? "  nothing\n" : "";
    for (size_t i = 0; i < expected.size(); i++)
        list += Text("  %zu: {%d, %d, \"%s\"}\n", i, expected[i].type, expected[i].severity,
                     expected[i].text.Shown().c_str());
    return list;
}

} // namespace

testing::AssertionResult SameEvents(const std::vector<Event>& seen,
                                    const std::vector<ExpectedEvent>& expected) {
    size_t i = 0;
    while (i < seen.size() && i < expected.size() && expected[i].Matches(seen[i]))
        i++;
    if (i == seen.size() && i == expected.size())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "they differ from event " << i << " on; seen:\n"
                                       << Listed(seen) << "expected:\n"
                                       << Listed(expected);
}

testing::AssertionResult EventsInOrder(const std::vector<Event>& seen,
                                       const std::vector<ExpectedEvent>& expected) {
    size_t found = 0;
    for (size_t i = 0; i < seen.size() && found < expected.size(); i++)
        if (expected[found].Matches(seen[i]))
            found++;
    if (found == expected.size())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "event " << found << " is missing or out of order; seen:\n"
                                       << Listed(seen) << "expected, in this order:\n"
                                       << Listed(expected);
}

// ---------------------------------------------------------------------------------------------------------
// Recorder

void Recorder::Clear() {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    TheRecord().events.clear();
    TheRecord().dropped = 0;
    TheRecord().cleared++;
}

std::vector<Event> Recorder::Events() { return Select(IsShown); }

std::vector<Event> Recorder::AllEvents() {
    return Select([](const Event&) { return true; });
}

std::vector<Event> Recorder::Events(const Filter& filter) { return Select(filter); }

std::vector<Event> Recorder::EventsOfThread(pthread_t thread) {
    return Select([&](const Event& event) { return IsShown(event) && pthread_equal(event.thread, thread); });
}

std::vector<Event> Recorder::LoadEvents() {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    return TheRecord().loadEvents;
}

bool Recorder::Has(int type, int severity, const ExpectedText& text) {
    return Count(type, severity, text) > 0;
}

int Recorder::Count(int type, int severity, const ExpectedText& text) {
    const ExpectedEvent expected{type, severity, text};
    return Count([&](const Event& event) { return expected.Matches(event); });
}

int Recorder::Count(const Filter& filter) { return static_cast<int>(Select(filter).size()); }

bool Recorder::WaitFor(const ExpectedEvent& event, int count, const Deadline& deadline) {
    return WaitFor([&](const Event& seen) { return event.Matches(seen); }, count, deadline);
}

bool Recorder::WaitFor(const Filter& filter, int count, const Deadline& deadline) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    const Record& record = TheRecord();
    unsigned cleared = record.cleared;
    size_t scanned = 0;
    int found = 0;
    return g_monitor.Wait(lock, deadline, [&] {
        if (cleared != record.cleared) {
            cleared = record.cleared;
            scanned = 0;
            found = 0;
        }
        for (; scanned < record.events.size(); scanned++)
            found += filter(record.events[scanned]);
        return found >= count;
    });
}

void Recorder::Pause() { g_paused.store(true, std::memory_order_relaxed); }

void Recorder::Resume() { g_paused.store(false, std::memory_order_relaxed); }

size_t Recorder::Dropped() {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    return TheRecord().dropped;
}

Recorder::Hook::Hook(std::function<void(const Event&)> function) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    TheRecord().hook = std::make_shared<std::function<void(const Event&)>>(std::move(function));
}

Recorder::Hook::~Hook() {
    CancellationDisabled whole;
    Monitor::Lock lock(g_monitor);
    TheRecord().hook.reset();
}

void Recorder::OwnText(const std::string& text) { g_ownTexts.Insert(Hash(text.c_str())); }

void Recorder::Begin() {
    {
        Monitor::Lock lock(g_censusMonitor);
        OpenCensus();
    }
    Monitor::Lock lock(g_monitor);
    TheRecord().loadEvents = TheRecord().events;
}

// ---------------------------------------------------------------------------------------------------------
// Host

namespace {

struct Services {
    int debugCalls = 0;
    std::function<void(unsigned long)> sleep;
    std::vector<unsigned long> sleeps;
    std::map<std::string, std::pair<std::string, int>> services;
    std::function<void(const char*, int)> onLookup;
    std::vector<Host::Lookup> lookups;
    std::vector<Host::Error> errors;
};

Monitor g_hostMonitor;
std::atomic<bool> g_debug{false};
std::atomic<bool> g_fakeTick{false};
std::atomic<unsigned long> g_tick{0};
std::atomic<bool> g_fakeSleep{false};
std::atomic<int> g_deadlines{0};

// With g_hostMonitor held.
Services& TheServices() {
    static Services* services = new Services;
    return *services;
}

template <class Value> void Set(Value Services::*member, Value value) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    TheServices().*member = std::move(value);
}

template <class Value> Value Get(Value Services::*member) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    return TheServices().*member;
}

} // namespace

void Host::Reset() {
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    TheServices() = Services();
    g_debug = false;
    g_fakeTick = false;
    g_fakeSleep = false;
}

void Host::SetDebug(bool debug) { g_debug = debug; }

int Host::IsDebugEnabledCalls() { return Get(&Services::debugCalls); }

void Host::SetTickCount(unsigned long milliseconds) {
    g_tick = milliseconds;
    g_fakeTick = true;
}

void Host::UseRealTickCount() { g_fakeTick = false; }

int Host::Deadlines() { return g_deadlines; }

void Host::FakeSleep(std::function<void(unsigned long)> function) {
    Set(&Services::sleep, std::move(function));
    g_fakeSleep = true;
}

std::vector<unsigned long> Host::Sleeps() { return Get(&Services::sleeps); }

void Host::AddService(const std::string& name, const std::string& address, int port) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    TheServices().services[name] = {address, port};
}

void Host::OnLookup(std::function<void(const char* name, int argument)> function) {
    Set(&Services::onLookup, std::move(function));
}

std::vector<Host::Lookup> Host::Lookups() { return Get(&Services::lookups); }

std::vector<Host::Error> Host::Errors() { return Get(&Services::errors); }

bool IsDebugEnabled() {
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    TheServices().debugCalls++;
    return g_debug;
}

CServiceAddress::CServiceAddress() : m_szIPAddress{}, m_nPortNumber(0) {}

CServiceAddress::~CServiceAddress() {}

const char* CServiceAddress::getIPAddress() const { return m_szIPAddress; }

int CServiceAddress::getPortNumber() const { return m_nPortNumber; }

int RegSvcQueryForServiceAddress(const char* serviceName, CServiceAddress& address, int argument) {
    if (const auto onLookup = Get(&Services::onLookup))
        onLookup(serviceName, argument);
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    TheServices().lookups.push_back({serviceName, serviceName, argument});
    const auto found = TheServices().services.find(serviceName);
    if (found == TheServices().services.end())
        return 0;
    strncpy(address.m_szIPAddress, found->second.first.c_str(), sizeof address.m_szIPAddress - 1);
    address.m_nPortNumber = found->second.second;
    return 1;
}

CLogException* Exception(const char* where, const char* what, char* extra) {
    CancellationDisabled whole;
    Monitor::Lock lock(g_hostMonitor);
    TheServices().errors.push_back({where, what, extra ? extra : "", extra != nullptr});
    return new CLogException(where, what, extra);
}

CTimeValHelper::CTimeValHelper() { Init(); }

CTimeValHelper::CTimeValHelper(bool now) {
    Init();
    if (now)
        gettimeofday(this, nullptr);
}

void CTimeValHelper::Init() {
    tv_sec = 0;
    tv_usec = 0;
}

void CTimeValHelper::AddSeconds(unsigned long seconds) { tv_sec += static_cast<time_t>(seconds); }

void CTimeValHelper::AddMilliSeconds(unsigned long milliSeconds) {
    tv_sec += static_cast<time_t>(milliSeconds / 1000);
    tv_usec += static_cast<suseconds_t>(milliSeconds % 1000 * 1000);
    if (tv_usec >= 1000000) {
        tv_usec -= 1000000;
        tv_sec++;
    }
}

CTimeSpecHelper::CTimeSpecHelper(bool now) : timespec() {
    if (!now)
        return;
    ++g_deadlines;
    clock_gettime(CLOCK_REALTIME, this);
}

void CTimeSpecHelper::AddMilliSeconds(unsigned long milliSeconds) {
    tv_sec += static_cast<time_t>(milliSeconds / 1000);
    tv_nsec += static_cast<long>(milliSeconds % 1000 * 1000000);
    if (tv_nsec >= 1000000000) {
        tv_nsec -= 1000000000;
        tv_sec++;
    }
}

unsigned long GetTickCount() {
    if (g_fakeTick)
        return g_tick;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long>(now.tv_sec) * 1000 + static_cast<unsigned long>(now.tv_nsec / 1000000);
}

void Sleep(unsigned long milliseconds) {
    {
        CancellationDisabled whole;
        Monitor::Lock lock(g_hostMonitor);
        if (TheServices().sleeps.size() < MAX_SLEEPS)
            TheServices().sleeps.push_back(milliseconds);
    }
    if (g_fakeSleep) {
        if (const auto sleep = Get(&Services::sleep))
            sleep(milliseconds);
        return;
    }
    timespec left;
    left.tv_sec = static_cast<time_t>(milliseconds / 1000);
    left.tv_nsec = static_cast<long>(milliseconds % 1000 * 1000000);
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
