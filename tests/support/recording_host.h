// The host services of the test program: a logger that records, clocks and a service table that tests set.
//
// Everything is back at its defaults, and the record empty, when a test case begins.
//
// Thread safety: everything may be called from any thread, before main and after it, and by a thread that is
// being cancelled.
//
//   Recorder::Clear();
//   ...
//   EXPECT_TRUE(Recorder::Has(11, 7, "TranslateMessage() called!"));
//   EXPECT_TRUE(Recorder::WaitFor({11, 9, "CServer::Main() : Client connection established."}));
//   EXPECT_TRUE(SameEvents(Recorder::Events(), {{13, 7, "CServer::AddHandler() called!"},
//                                               {11, 9, Like("CWinThread::AddThread : id = *")}}));
#ifndef SUPPORT_RECORDING_HOST_H
#define SUPPORT_RECORDING_HOST_H

#include <pthread.h>

#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/Logger.h>

#include "support/deadline.h"
#include "support/text.h"

// One call of the logger.
struct Event {
    // Which function of CLogger: PostLogEvent with a text or with an XString, PostLogEventF, PostLogEventFB.
    enum Entry { Plain, PlainXString, Format, FormatBuffer };

    int type;
    int severity;
    std::string format; // as passed; of the plain forms the text
    std::string text;   // finished: arguments formatted, buffer appended, detail in place of its "%s"
    std::string detail; // "" for NULL
    std::string buffer; // of FormatBuffer
    bool hasDetail;     // detail was not NULL
    Entry entry;
    pthread_t thread;
};

std::ostream& operator<<(std::ostream& stream, const Event& event);

// An expected text: exact, or from Like() a pattern in which each '*' stands for any run of characters.
class ExpectedText {
public:
    ExpectedText(const char* text) : m_text(text), m_pattern(false) {}
    ExpectedText(const std::string& text) : m_text(text), m_pattern(false) {}

    bool Matches(const std::string& text) const;
    const std::string& Shown() const { return m_text; }

private:
    friend ExpectedText Like(const std::string& pattern);

    std::string m_text;
    bool m_pattern;
};

ExpectedText Like(const std::string& pattern);

// An expected event; written {type, severity, text}.
struct ExpectedEvent {
    int type;
    int severity;
    ExpectedText text;

    bool Matches(const Event& event) const;
};

// For EXPECT_TRUE: seen is exactly this sequence, or contains it in this order with anything in between.
// The failure message lists both.
testing::AssertionResult SameEvents(const std::vector<Event>& seen,
                                    const std::vector<ExpectedEvent>& expected);
testing::AssertionResult EventsInOrder(const std::vector<Event>& seen,
                                       const std::vector<ExpectedEvent>& expected);

// The record of the logger. Mutex events (type 23) are recorded and waited for like all others, but Events()
// leaves them out.
//
// The logger changes errno on purpose, as a host's may.
class Recorder {
public:
    typedef std::function<bool(const Event&)> Filter;

    // Forgets the events so far.
    static void Clear();

    // Copies of the events so far, in order: without mutex events; all; those that a filter accepts; those
    // of one thread, without mutex events.
    static std::vector<Event> Events();
    static std::vector<Event> AllEvents();
    static std::vector<Event> Events(const Filter& filter);
    static std::vector<Event> EventsOfThread(pthread_t thread);

    // The events from before main.
    static std::vector<Event> LoadEvents();

    static bool Has(int type, int severity, const ExpectedText& text);
    static int Count(int type, int severity, const ExpectedText& text);
    static int Count(const Filter& filter);

    // Blocks until such events were posted count times since the record was cleared. The suite's main way to
    // wait for a thread: no sleeps. False when the deadline came first.
    static bool WaitFor(const ExpectedEvent& event, int count = 1,
                        const Deadline& deadline = Deadline::Long());
    static bool WaitFor(const Filter& filter, int count = 1, const Deadline& deadline = Deadline::Long());

    // Stops or resumes recording, for stress tests: a paused logger formats nothing and takes no lock, which
    // also means that it does not hide data races from ThreadSanitizer. The census goes on. The record holds
    // 200,000 events at most; Dropped() tells how many came after that.
    static void Pause();
    static void Resume();
    static size_t Dropped();

    // Calls a function for each event that is recorded, in the thread that posts it, after it was recorded
    // and with no lock of the recorder held: a place to stop a thread (Gate::Wait) or, with
    // pthread_testcancel(), a logger that is a cancellation point. One at a time; ends with the object.
    class Hook {
    public:
        explicit Hook(std::function<void(const Event&)> function);
        ~Hook();
        Hook(const Hook&) = delete;
        Hook& operator=(const Hook&) = delete;
    };

    // Declares a text or format as the test's own, before it is posted: the census, which knows all events of
    // the library, leaves it out. For exception descriptions, direct calls of the logger and the like.
    static void OwnText(const std::string& text);

    // For main(): events so far become LoadEvents(); opens the census file.
    static void Begin();
};

// The other services.
class Host {
public:
    // What a lookup of a service was called with. The pointer is dead after the call; see OnLookup.
    struct Lookup {
        std::string name;
        const char* pointer;
        int argument;
    };

    // What the error factory was called with.
    struct Error {
        std::string where;
        std::string what;
        std::string extra; // "" for NULL
        bool hasExtra;
    };

    // Everything at its default.
    static void Reset();

    // What IsDebugEnabled() returns; false by default. IsDebugEnabledCalls() counts its calls.
    static void SetDebug(bool debug);
    static int IsDebugEnabledCalls();

    // Stops GetTickCount() at a value; UseRealTickCount() is the default.
    static void SetTickCount(unsigned long milliseconds);
    static void UseRealTickCount();

    // How often a CTimeSpecHelper was made of the current time so far, on all threads.
    static int Deadlines();

    // Sleep() really sleeps by default. After this it only calls the function, if there is one.
    static void FakeSleep(std::function<void(unsigned long)> function = nullptr);

    // The arguments of Sleep() so far, faked or not, of all threads; at most the first 100,000.
    static std::vector<unsigned long> Sleeps();

    // Adds a service to the table, which is empty by default.
    static void AddService(const std::string& name, const std::string& address, int port);

    // Has a function called within each lookup, with the pointer that the library passed.
    static void OnLookup(std::function<void(const char* name, int argument)> function);

    static std::vector<Lookup> Lookups();
    static std::vector<Error> Errors();
};

#endif
