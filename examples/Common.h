// What the example programs share: the command line, the signals that stop them, and how they end.
#ifndef EXAMPLES_COMMON_H
#define EXAMPLES_COMMON_H

#include <signal.h>

#include <optional>
#include <stdexcept>
#include <string>

// Both sides refuse longer lines. A reply may be six times as long, and a CMemFile counts with 32 bits.
constexpr int kLongestLine = 16 * 1024 * 1024;

struct Arguments {
    std::string services; // the path of the service table
    std::string service;  // the name of one of them
    std::string file;     // for a program that takes one
    bool log = false;
};

// Why a program ends, and with which status.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, int status = 1) : std::runtime_error(text), m_status(status) {}

    int Status() const { return m_status; }

private:
    int m_status;
};

// SIGINT and SIGTERM as a descriptor to wait for, in place of a handler. A SIGINT that the program's parent
// has ignored stays ignored.
//
// The object blocks the signals for the thread that makes it and for every thread that this one starts later,
// so make it first.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Can be read when a signal has arrived. Nobody reads it, so that it stays so, for every thread that
    // looks.
    int Descriptor() const { return m_descriptor; }

    // Waits until a signal has arrived, for the process or for the calling thread.
    void Wait() const;

    // What to end with when a signal has arrived: the status is the one that shells give. Nothing before.
    std::optional<Failure> Arrived() const;

    void ThrowIfArrived() const;

private:
    sigset_t m_signals;
    int m_descriptor;
};

// Ends the loop of the calling thread, which is that of a CServer or CClient: without a queue it cannot wait
// any longer. Its owner waits for its handle and then deletes it.
void EndLoop();

struct Program {
    const char* usage; // what --help prints
    bool takesFile;
    int (*run)(const Arguments& arguments, const StopSignals& signals);
};

// The main function of an example: prepares the host's services, runs the program and returns its status. A
// Failure that leaves the program is reported.
int RunProgram(const Program& program, int argc, char** argv);

// Prints one line on standard error and returns the status.
int Report(const Failure& failure);

#endif
