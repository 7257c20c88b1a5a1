// What the helper programs have in common.
#ifndef ROBUSTNESS_PROGRAMS_PROGRAMS_H
#define ROBUSTNESS_PROGRAMS_PROGRAMS_H

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <string>

// Ends the program with status 1 and a line that says why.
#define MUST(condition)                                                                                      \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            Fail(__FILE__, __LINE__, #condition);                                                            \
    } while (false)

inline void Fail(const char* file, int line, const char* condition) {
    char text[512];
    const int length = snprintf(text, sizeof text, "%s:%d: failed: %s\n", file, line, condition);
    if (write(STDOUT_FILENO, text, static_cast<size_t>(length)) == -1)
        _exit(2);
    _exit(1);
}

// The names in a folder, "." and ".." and what opendir itself adds excepted.
inline std::set<std::string> Names(const char* folder) {
    std::set<std::string> names;
    DIR* directory = opendir(folder);
    MUST(directory);
    const std::string own = std::to_string(dirfd(directory));
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.' && (entry->d_name != own || strcmp(folder, "/proc/self/fd") != 0))
            names.insert(entry->d_name);
    closedir(directory);
    return names;
}

inline void Pause() {
    const timespec moment = {0, 1000000};
    nanosleep(&moment, nullptr);
}

// Waits until this program has no more threads than so many: one whose work is over takes a moment to go.
inline void WaitForThreads(size_t count) {
    while (Names("/proc/self/task").size() > count)
        Pause();
}

// Whether every thread but the calling one sleeps.
inline bool AllOthersSleep() {
    const std::string self = std::to_string(gettid());
    for (const std::string& task : Names("/proc/self/task")) {
        char state[512] = "";
        FILE* file = task == self ? nullptr : fopen(("/proc/self/task/" + task + "/stat").c_str(), "r");
        if (!file)
            continue;
        state[fread(state, 1, sizeof state - 1, file)] = '\0';
        fclose(file);
        const char* behindName = strrchr(state, ')');
        if (behindName && behindName[2] != 'S')
            return false;
    }
    return true;
}

// Waits until every other thread has been found asleep a few times in a row, which is where they are to stay.
inline void WaitUntilAllSleep() {
    for (int quiet = 0; quiet < 3; Pause())
        quiet = AllOthersSleep() ? quiet + 1 : 0;
}

#endif
