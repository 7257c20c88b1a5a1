// What a test case must not leave behind. After each case main.cpp compares the process's open descriptors,
// its threads and the blocks that the library allocated with those before the case, waits for threads that
// are on their way out, and fails the case naming what is left.
#ifndef SUPPORT_RESOURCES_H
#define SUPPORT_RESOURCES_H

#include <map>
#include <set>
#include <string>

class Resources {
public:
    // Lets the current test case leave descriptors, threads and blocks behind. The reason is printed.
    static void Allow(const std::string& reason);

    // Blocks that there are now do not count as left behind: what a process makes once, and what the library
    // keeps by contract.
    static void ForgiveBlocks();

    // The open descriptors with what they refer to, and the ids of the threads.
    static std::map<int, std::string> Descriptors();
    static std::set<int> Threads();

    // For main(): installs the check.
    static void Install();
};

#endif
