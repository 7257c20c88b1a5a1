// The pieces of the fault matrix: a place where the library calls the system, what goes wrong there, and the
// operation that runs into it.
//
//   Operation  sets something up, runs it with the fault in force, and says what came of it
//   Trial      one row of the table while it runs
#ifndef TESTS_FAULTMATRIX_H
#define TESTS_FAULTMATRIX_H

#include <pthread.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/recording_host.h"

// A call in the library's source. Without a row of its own it has the reason here.
struct Site {
    const char* file;
    const char* function;
    const char* call; // the C function, with what tells it from others in the same place behind it
    const char* withoutRow;
};

struct Fault {
    enum Kind {
        Fails,    // with an error, and nothing is done
        Unpaired, // a lock or unlock fails, and its counterpart is left out too: the test goes on in order
        Reports,  // an error, although it is done
        Answers,  // a number, and nothing is done
        Short,    // does at most so many bytes
        Natural,  // the operation brings it about itself
    };

    Kind kind;
    int value;
    const char* name;
};

class Trial;

struct Operation {
    const char* name;
    void (*run)(Trial& trial);
};

// In lines and results <fd> stands for the descriptor, <errno> for the error's number, <reason> for its text,
// and * for anything. A line is "type/severity text".
struct Row {
    const char* function;
    const char* call;
    int nth; // of these calls since the operation began, in its thread; 0 for each
    Fault fault;
    const Operation* operation;
    const char* result;
    std::vector<const char*> lines;
    const char* state;
};

inline std::ostream& operator<<(std::ostream& stream, const Row& row) {
    return stream << row.function << ": " << row.call << ", " << row.fault.name;
}

// A row's fault in force, for one thread, while it lives. How a call that only reports an error is done is
// told by perform; a close it does itself.
class Armed {
public:
    Armed(const Row& row, pthread_t thread, std::function<void()> perform = nullptr);

    int Acted() const;

private:
    int m_fd = -1;
    std::unique_ptr<Interpose> m_script;
    std::unique_ptr<Interpose> m_counterpart;
};

// What an operation is given, and where it says what it saw.
class Trial {
public:
    explicit Trial(const Row& row) : m_row(row) {}

    // Runs a function with the fault in force, and takes what this thread posts meanwhile.
    template <class Function> void Run(Function function) {
        Recorder::Clear();
        const Armed armed(m_row, pthread_self(), perform);
        function();
        Took(Recorder::Events([self = pthread_self()](const Event& event) {
                 return pthread_equal(event.thread, self) != 0;
             }),
             armed.Acted());
    }

    // The same where another thread runs into the fault, which the operation has put in force.
    void Took(std::vector<Event> events, int acted);

    const Row& TheRow() const { return m_row; }

    void Result(bool result) { m_result = result ? "true" : "false"; }
    void Result(int result) { m_result = std::to_string(result); }
    void Result(const std::string& result) { m_result = result; }
    void Result(const char* result) { m_result = result; }

    // Adds to the state afterwards.
    void Fact(const std::string& fact) { m_state += (m_state.empty() ? "" : ", ") + fact; }
    void WorksThen(bool works) { Fact(works ? "works then" : "does not work then"); }

    // How a call that only reports an error is done; not needed for a close.
    std::function<void()> perform;

    int fd = -1;
    bool mutexEvents = false; // are looked at as well

    // Compares with the row.
    void Check() const;

private:
    const Row& m_row;
    std::string m_result;
    std::string m_state;
    std::vector<Event> m_events;
    int m_acted = 0;
};

#endif
