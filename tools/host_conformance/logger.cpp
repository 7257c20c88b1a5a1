// What host/Logger.h asks.
#include <pthread.h>
#include <stdlib.h>
#include <time.h>

#include <string>

#include <Windows/Mutex.h>
#include <Windows/XString.h>
#include <Windows/bstr.h>
#include <host/Logger.h>

#include "clause.h"

namespace host_conformance {

namespace {

const LogTypeEnum type = LogTypeGeneral;
const LogSeverityEnum severity = LogSeverityFailure;

const char* const formNames[] = {"PostLogEvent(const char*)", "PostLogEvent(XString&)", "PostLogEventF",
                                 "PostLogEventFB"};
constexpr int kForms = 4;

// Posts one event in the form of this number.
void PostForm(int form, LogTypeEnum itsType = type, LogSeverityEnum itsSeverity = severity) {
    switch (form) {
    case 0:
        return CLogger::PostLogEvent(itsType, itsSeverity, "a text", nullptr);
    case 1: {
        XString text("a string");
        return CLogger::PostLogEvent(itsType, itsSeverity, text, nullptr);
    }
    case 2:
        return CLogger::PostLogEventF(itsType, itsSeverity, "a format with %d", 1);
    default:
        return CLogger::PostLogEventFB(itsType, itsSeverity, "a format with %d and ", "a body", 1);
    }
}

void PostAllForms() {
    for (int form = 0; form < kForms; ++form)
        PostForm(form);
}

// Texts.

void PercentSigns() {
    const std::string text = NewMarker() + " 100% of %d and %% stay";
    CLogger::PostLogEvent(type, severity, text.c_str(), nullptr);
    ExpectInLog(text.substr(0, text.find(' ')), text);
}

void NullDetail() {
    const std::string marker = NewMarker();
    const std::string text = marker + " no detail for %s here";
    CLogger::PostLogEvent(type, severity, text.c_str(), nullptr);
    if (HasLog())
        ExpectInLog(marker, text);
    XString string(text.c_str());
    CLogger::PostLogEvent(type, severity, string, nullptr);
}

void Detail() {
    const std::string marker = NewMarker();
    CLogger::PostLogEvent(type, severity, (marker + " service %s was not found").c_str(), "some_name");
    ExpectInLog(marker, marker + " service some_name was not found");
}

void String() {
    const std::string marker = NewMarker();
    XString text((marker + " from a string").c_str());
    CLogger::PostLogEvent(type, severity, text, nullptr);
    ExpectInLog(marker, marker + " from a string");
}

void StringLeftAlone() {
    XString text("some text");
    const XString copy(text);
    CLogger::PostLogEvent(type, severity, text, nullptr);
    if (strcmp(text, "some text") != 0 || text.GetLength() != 9)
        Fail("expected the string to be left as it is, \"some text\", saw \"%.100s\"",
             static_cast<const char*>(text));
    if (static_cast<const char*>(text) != static_cast<const char*>(copy))
        Fail("expected the string to be left as it is, saw that it does not share its text with its copy any "
             "more");
}

void Format() {
    const std::string marker = NewMarker();
    CLogger::PostLogEventF(type, severity, "%s %d %lu %c %04x %% %5s.", marker.c_str(), -17, 4294967295UL,
                           'c', 171U, "abc");
    ExpectInLog(marker, marker + " -17 4294967295 c 00ab %   abc.");
}

void LongResult() {
    const int width = 1 << 20;
    CLogger::PostLogEventF(type, severity, "%*d", width, 1);
    CLogger::PostLogEvent(type, severity, std::string(width, 'x').c_str(), nullptr);
}

void Buffer() {
    const std::string marker = NewMarker();
    CLogger::PostLogEventFB(type, severity, (marker + " on %d: ").c_str(), "body with 100% of %s and %n", 17);
    ExpectInLog(marker, marker + " on 17: body with 100% of %s and %n");
}

void AnyBuffer() {
    std::string body;
    while (body.size() < 1 << 20)
        body += static_cast<char>(body.size() % 255 + 1);
    CLogger::PostLogEventFB(type, severity, "on %d: ", body.c_str(), 17);
    CLogger::PostLogEventFB(type, severity, "on %d: ", "", 17);
}

void CallersTexts() {
    const std::string marker = NewMarker();
    std::string text = marker + " lives for the call";
    const std::string expected = text;
    CLogger::PostLogEvent(type, severity, text.c_str(), nullptr);
    text.replace(marker.size(), text.size() - marker.size(), text.size() - marker.size(), '-');
    ExpectInLog(marker, expected);
}

void Combinations() {
    const struct {
        LogTypeEnum type;
        const char* severities;
    } combinations[] = {
        {LogTypeGeneral, "12345679"}, {LogTypeTraffic, "1679"}, {LogTypeLife, "7"}, {LogTypeMutex, "189"}};
    for (const auto& combination : combinations) {
        for (const char* digit = combination.severities; *digit; ++digit) {
            for (int form = 0; form < kForms; ++form)
                PostForm(form, combination.type, static_cast<LogSeverityEnum>(*digit - '0'));
        }
    }
}

// Before main and after it. The first static object of the executable: made before those of the host, and
// what it hands to atexit runs when those are gone.

const char* const beforeMain = "logger.before-main";
const char* const afterMain = "logger.after-main";
bool postedBeforeMain = false;

struct FirstObject {
    FirstObject() {
        if (IsRunning(beforeMain)) {
            PostAllForms();
            postedBeforeMain = true;
        } else if (IsRunning(afterMain)) {
            atexit(PostAllForms);
        }
    }
};
__attribute__((init_priority(101))) FirstObject firstObject;

void BeforeMain() {
    if (!postedBeforeMain)
        Fail("expected the constructor of a static object to post events, saw that it did not run");
}

void AfterMain() { exit(0); }

// Threads.

void* PostWhileCancelled(void* posted) {
    pthread_cancel(pthread_self()); // takes effect at the next cancellation point
    for (int form = 0; form < kForms; ++form) {
        PostForm(form);
        ++*static_cast<int*>(posted);
    }
    return nullptr;
}

void Cancellation() {
    int posted = 0;
    pthread_t thread;
    pthread_create(&thread, nullptr, PostWhileCancelled, &posted);
    pthread_join(thread, nullptr);
    if (posted < kForms)
        Fail("expected a cancelled thread to return from %s, saw it end in there", formNames[posted]);
}

void CancelState() {
    for (const int state : {PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}) {
        for (int form = 0; form < kForms; ++form) {
            int after = 0;
            pthread_setcancelstate(state, nullptr);
            PostForm(form);
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &after);
            if (after != state)
                Fail("expected %s to leave cancellation as it was, %s, saw the opposite", formNames[form],
                     state == PTHREAD_CANCEL_ENABLE ? "enabled" : "disabled");
        }
    }
}

void Threads() {
    InThreads([](int number) {
        for (int i = 0; i < 50; ++i)
            PostForm((number + i) % kForms);
    });
}

std::string Repeated(int number) { return std::string(60, static_cast<char>('P' + number)); }

// Takes the whole events away. Parts of others are then the only long runs of one letter.
void WholeEvents() {
    const std::string marker = NewMarker();
    const int count = 50;
    InThreads([&](int number) {
        for (int i = 0; i < count; ++i)
            CLogger::PostLogEventF(type, severity, "%s%s.", marker.c_str(), Repeated(number).c_str());
    });
    CLogger::PostLogEventF(type, severity, "%s end", marker.c_str());
    ExpectInLog(marker + " end", "end");
    std::string log = ReadLog();
    int whole = 0;
    for (int number = 0; number < kThreads; ++number) {
        const std::string event = marker + Repeated(number) + ".";
        for (size_t at = 0; (at = log.find(event, at)) != std::string::npos; ++whole)
            log.replace(at, event.size(), " ");
    }
    if (whole == 0)
        Fail("expected the events of several threads in the log, saw none of %d whole", count * kThreads);
    for (int number = 0; number < kThreads; ++number) {
        const size_t part = log.find(Repeated(number).substr(0, 4));
        if (part != std::string::npos)
            Fail("expected whole events in the log, saw \"%s\"", log.substr(part, 100).c_str());
    }
}

// A logger that uses these functions itself recurses or waits for itself.
void LibraryLocks() {
    CMutex mutex;
    mutex.Lock();
    PostAllForms();
    mutex.Unlock();
    BSTR text = SysAllocString("a text");
    SysFreeString(text);
}

// The debug switch.

void DebugSwitch() {
    InThreads([](int) {
        for (int i = 0; i < 50; ++i) {
            timespec before = {};
            timespec after = {};
            clock_gettime(CLOCK_MONOTONIC, &before);
            IsDebugEnabled();
            clock_gettime(CLOCK_MONOTONIC, &after);
            if (after.tv_sec - before.tv_sec > 2)
                Fail("expected IsDebugEnabled to answer soon, saw it take more than two seconds");
        }
    });
}

} // namespace

const Clause loggerClauses[] = {
    {"logger.percent-signs", "PostLogEvent takes its text as it stands, not as a format", NeedsLog,
     PercentSigns},
    {"logger.null-detail", "without a detail a \"%s\" in the text of PostLogEvent stays", NeedsNothing,
     NullDetail},
    {"logger.detail", "a detail takes the place of the \"%s\"", NeedsLog, Detail},
    {"logger.string", "PostLogEvent takes its text in an XString too", NeedsLog, String},
    {"logger.string-left-alone", "PostLogEvent leaves the XString as it is", NeedsNothing, StringLeftAlone},
    {"logger.format", "PostLogEventF formats by the rules of printf", NeedsLog, Format},
    {"logger.long-text", "a text may be of any length", NeedsNothing, LongResult},
    {"logger.buffer", "PostLogEventFB puts its buffer behind the formatted arguments, and it is no format",
     NeedsLog, Buffer},
    {"logger.any-buffer", "the buffer of PostLogEventFB may be of any length and content", NeedsNothing,
     AnyBuffer},
    {"logger.callers-texts", "texts live for the call only", NeedsLog, CallersTexts},
    {"logger.combinations", "each type comes with each of its severities", NeedsNothing, Combinations},
    {beforeMain, "events are posted before the executable's static objects are made", NeedsNothing,
     BeforeMain},
    {afterMain, "events are posted after the executable's static objects are gone", NeedsNothing, AfterMain},
    {"logger.cancellation", "the logger is no cancellation point", NeedsNothing, Cancellation},
    {"logger.cancel-state", "the logger leaves the thread's cancellation state as it was", NeedsNothing,
     CancelState},
    {"logger.threads", "several threads post at once", NeedsNothing, Threads},
    {"logger.whole-events", "events of several threads do not mix", NeedsLog, WholeEvents},
    {"logger.library-locks", "the logger uses no lock of the library", NeedsNothing, LibraryLocks},
    {"debug.threads", "several threads ask IsDebugEnabled at once, and it answers soon", NeedsNothing,
     DebugSwitch},
    {nullptr, nullptr, NeedsNothing, nullptr}};

} // namespace host_conformance
