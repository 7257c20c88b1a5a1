#include "clause.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "process.h"

namespace host_conformance {

namespace {

// The log may be older than this process.
long logStart = 0;

long LogSize() {
    long size = 0;
    if (FILE* const file = fopen(getenv(kLogVariable), "re")) {
        fseek(file, 0, SEEK_END);
        size = ftell(file);
        fclose(file);
    }
    return size;
}

// The whole line from marker on; false as long as it is not there.
bool FindLine(const std::string& log, const std::string& marker, std::string& line) {
    const size_t start = log.find(marker);
    const size_t end = start == std::string::npos ? start : log.find('\n', start);
    if (end == std::string::npos)
        return false;
    line = log.substr(start, end - start);
    return true;
}

struct Task {
    const std::function<void(int)>* work;
    int number;
    pthread_barrier_t* start;
};

void* RunTask(void* argument) {
    const Task& task = *static_cast<Task*>(argument);
    pthread_barrier_wait(task.start);
    (*task.work)(task.number);
    return nullptr;
}

} // namespace

void RememberLogStart() { logStart = LogSize(); }

void Fail(const char* format, ...) {
    static std::atomic_flag failed = ATOMIC_FLAG_INIT;
    while (failed.test_and_set())
        pause(); // another thread ends the process
    va_list args;
    va_start(args, format);
    vdprintf(atoi(getenv(kReportVariable)), format, args);
    va_end(args);
    _exit(1);
}

bool IsRunning(const char* clause) {
    const char* const running = getenv(kClauseVariable);
    return running && strcmp(running, clause) == 0;
}

Service KnownService() {
    const std::string text = getenv(kServiceVariable);
    const size_t equals = text.find('=');
    const size_t colon = text.rfind(':');
    return {text.substr(0, equals), text.substr(equals + 1, colon - equals - 1),
            atoi(text.c_str() + colon + 1)};
}

bool HasLog() { return getenv(kLogVariable) != nullptr; }

std::string NewMarker() {
    static int number = 0;
    return "event-" + std::to_string(getpid()) + "-" + std::to_string(++number) + ":";
}

std::string ReadLog() {
    std::string log;
    if (FILE* const file = fopen(getenv(kLogVariable), "re")) {
        fseek(file, logStart, SEEK_SET);
        char part[4096];
        for (size_t count = 0; (count = fread(part, 1, sizeof part, file)) > 0;)
            log.append(part, count);
        fclose(file);
    }
    return log;
}

void ExpectInLog(const std::string& marker, const std::string& text) {
    const timespec pause = {0, 10 * 1000 * 1000};
    std::string line;
    for (int attempt = 0; !FindLine(ReadLog(), marker, line); ++attempt) {
        if (attempt == 300)
            Fail("expected \"%s\" in the log, saw no event that begins with %s", text.c_str(),
                 marker.c_str());
        nanosleep(&pause, nullptr);
    }
    if (line.find(text) == std::string::npos)
        Fail("expected \"%s\" in the log, saw \"%.200s\"", text.c_str(), line.c_str());
}

void InThreads(const std::function<void(int)>& work) {
    pthread_barrier_t start;
    pthread_barrier_init(&start, nullptr, kThreads);
    std::vector<pthread_t> threads(kThreads);
    std::vector<Task> tasks;
    for (int number = 0; number < kThreads; ++number)
        tasks.push_back({&work, number, &start});
    for (int number = 0; number < kThreads; ++number)
        pthread_create(&threads[static_cast<size_t>(number)], nullptr, RunTask,
                       &tasks[static_cast<size_t>(number)]);
    for (const pthread_t thread : threads)
        pthread_join(thread, nullptr);
    pthread_barrier_destroy(&start);
}

} // namespace host_conformance
