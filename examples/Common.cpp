#include "Common.h"

#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <new>
#include <vector>

#include <host/ErrorObject.h>
#include <reference_host/reference_host.h>

#include <Windows/SocketException.h>
#include <Windows/WinThread.h>

StopSignals::StopSignals() {
    struct sigaction interrupt = {};
    sigaction(SIGINT, nullptr, &interrupt);
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGTERM);
    if (interrupt.sa_handler != SIG_IGN)
        sigaddset(&m_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_descriptor = signalfd(-1, &m_signals, SFD_CLOEXEC);
    if (m_descriptor == -1)
        throw Failure(std::string("cannot watch for signals: ") + strerror(errno));
}

StopSignals::~StopSignals() { close(m_descriptor); }

void StopSignals::Wait() const {
    pollfd descriptor = {m_descriptor, POLLIN, 0};
    while (poll(&descriptor, 1, -1) == -1 && errno == EINTR) {
    }
}

std::optional<Failure> StopSignals::Arrived() const {
    sigset_t pending;
    sigpending(&pending);
    for (const int signal : {SIGINT, SIGTERM})
        if (sigismember(&m_signals, signal) && sigismember(&pending, signal))
            return Failure(std::string("stopped by signal: ") + strsignal(signal), 128 + signal);
    return std::nullopt;
}

void StopSignals::ThrowIfArrived() const {
    if (const std::optional<Failure> stopped = Arrived())
        throw Failure(*stopped);
}

void EndLoop() {
    CWinThread* thread = CWinThread::MapIdToWinThread(GetCurrentThreadId());
    close(thread->m_readDesc);
    thread->m_readDesc = -1;
}

int Report(const Failure& failure) {
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, failure.what());
    return failure.Status();
}

namespace {

constexpr int kUsageStatus = 2;

[[noreturn]] void FailUsage(const std::string& text) { throw Failure(text + " (see --help)", kUsageStatus); }

// Returns false when the program has nothing left to do.
bool Parse(const Program& program, int argc, char** argv, Arguments& arguments) {
    static const option kOptions[] = {{"services", required_argument, nullptr, 't'},
                                      {"service", required_argument, nullptr, 's'},
                                      {"log", no_argument, nullptr, 'l'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    opterr = 0;
    int key;
    while ((key = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        switch (key) {
        case 't':
            arguments.services = optarg;
            break;
        case 's':
            arguments.service = optarg;
            break;
        case 'l':
            arguments.log = true;
            break;
        case 'h':
            fputs(program.usage, stdout);
            return false;
        default:
            FailUsage(std::string("cannot make sense of ") + argv[optind - 1]);
        }
    }
    if (arguments.services.empty() || arguments.service.empty())
        FailUsage("--services and --service are needed");
    if (argc - optind != (program.takesFile ? 1 : 0))
        FailUsage(program.takesFile ? "one FILE is needed" : "there is more than options");
    if (program.takesFile)
        arguments.file = argv[optind];
    return true;
}

void PrepareHost(const Arguments& arguments) {
    reference_host::SetMaximumSeverity(arguments.log ? LogSeverityInformation : 0);
    std::vector<std::string> problems;
    reference_host::LoadServices(arguments.services.c_str(), problems);
    if (!problems.empty())
        throw Failure(problems.front());
}

int Run(const Program& program, int argc, char** argv) {
    // Writing to a closed pipe, standard output or a thread's queue, is to fail and not to end the program.
    signal(SIGPIPE, SIG_IGN);
    Arguments arguments;
    if (!Parse(program, argc, argv, arguments))
        return 0;
    const StopSignals signals;
    PrepareHost(arguments);
    return program.run(arguments, signals);
}

} // namespace

int RunProgram(const Program& program, int argc, char** argv) {
    try {
        return Run(program, argc, argv);
    } catch (const Failure& failure) {
        return Report(failure);
    } catch (SocketException& exception) {
        return Report(Failure(exception.Description()));
    } catch (CLogException* error) {
        const Failure failure(error->What());
        delete error;
        return Report(failure);
    } catch (const std::bad_alloc&) {
        return Report(Failure("out of memory"));
    }
}
