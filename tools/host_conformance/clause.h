// What the clauses share: how they are listed, how they fail, and how they look at the log.
//
// A clause is one thing that host/ asks of a host and that can be tried from outside. It runs in a process of
// its own, returns when the host fulfils it, and calls Fail when not; a crash or a hang is a failure too. It
// relies on nothing that another clause tries, so that one fault makes one clause fail.
#ifndef HOST_CONFORMANCE_CLAUSE_H
#define HOST_CONFORMANCE_CLAUSE_H

#include <pthread.h>
#include <stddef.h>
#include <string.h>

#include <functional>
#include <string>

namespace host_conformance {

enum Need { NeedsNothing, NeedsLog, NeedsService };

struct Clause {
    const char* name;
    const char* text; // what is asked of the host
    Need need;
    void (*run)();
};

// Tables, ended by a clause without a name.
extern const Clause loggerClauses[];
extern const Clause timeClauses[];
extern const Clause registryClauses[];
extern const Clause errorClauses[];

// Ends the process: what was expected, and what was seen. Any thread may call it.
[[noreturn]] void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// True in the process of this clause, also before main and after it.
bool IsRunning(const char* clause);

// What --service names.
struct Service {
    std::string name;
    std::string address;
    int port;
};
Service KnownService();

// True when the log can be looked at.
bool HasLog();

// A text that no other event begins with.
std::string NewMarker();

// The event that begins with marker shows text. Waits for it, as a host may write later.
void ExpectInLog(const std::string& marker, const std::string& text);

// What the log holds since this process began.
std::string ReadLog();

// Runs work in several threads that start together; its argument is the thread's number. Returns when all of
// them have.
constexpr int kThreads = 8;
void InThreads(const std::function<void(int)>& work);

// Memory for an object of the host, filled with a pattern and with room behind it, so that a host that was
// compiled for a larger object destroys nothing.
template <class T> class Room {
public:
    explicit Room(unsigned char pattern = 0x5A) : m_pattern(pattern) {
        memset(m_bytes, pattern, sizeof m_bytes);
    }

    void* Place() { return m_bytes; }

    void ExpectNothingBehind(const char* what) const {
        for (size_t i = sizeof(T); i < sizeof m_bytes; ++i) {
            if (m_bytes[i] != m_pattern)
                Fail("expected %s to write to the %zu bytes of the object alone, saw byte %zu changed", what,
                     sizeof(T), i);
        }
    }

private:
    unsigned char m_pattern;
    alignas(16) unsigned char m_bytes[sizeof(T) + 64];
};

} // namespace host_conformance

#endif
