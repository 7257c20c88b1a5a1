#include "support/resources.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/blocks.h"
#include "support/deadline.h"
#include "support/emulator.h"
#include "support/interpose.h"
#include "support/recording_host.h"

namespace {

std::string g_allowed;
std::set<uintptr_t> g_blocks; // before the case

// The numbers that a folder of /proc/self lists.
std::set<int> Numbers(const char* folder) {
    Bypass bypass;
    std::set<int> numbers;
    DIR* directory = opendir(folder);
    if (!directory)
        return numbers; // no descriptor left
    const int own = dirfd(directory);
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.' && (atoi(entry->d_name) != own || std::string(folder) != "/proc/self/fd"))
            numbers.insert(atoi(entry->d_name));
    closedir(directory);
    return numbers;
}

std::string Target(int fd) {
    char target[256];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
    return length < 0 ? "?" : std::string(target, static_cast<size_t>(length));
}

void CheckDescriptors(const std::map<int, std::string>& before) {
    const std::map<int, std::string> after = Resources::Descriptors();
    for (const auto& [fd, target] : after) {
        const auto found = before.find(fd);
        if (found == before.end())
            ADD_FAILURE() << "descriptor " << fd << " was left open: " << target;
        else if (found->second != target)
            ADD_FAILURE() << "descriptor " << fd << " was " << found->second << " and is now " << target;
    }
    for (const auto& [fd, target] : before)
        if (!after.count(fd))
            ADD_FAILURE() << "descriptor " << fd << " was closed, which was open before: " << target;
}

// Threads that were cancelled or detached may take a moment to go.
void CheckThreads(const std::set<int>& before) {
    const Deadline deadline = Deadline::Short();
    for (;;) {
        std::string left;
        for (int thread : Resources::Threads())
            if (!before.count(thread))
                left += " " + std::to_string(thread);
        if (left.empty())
            return;
        if (deadline.Passed()) {
            ADD_FAILURE() << "threads were left running:" << left;
            return;
        }
        const timespec moment = {0, 1000000};
        nanosleep(&moment, nullptr);
    }
}

void CheckBlocks() {
    std::string origins;
    int left = 0;
    for (uintptr_t block : LibraryBlocks::All())
        if (!g_blocks.count(block) && ++left <= 10)
            origins += "\n  " + LibraryBlocks::Origin(block);
    EXPECT_EQ(left, 0) << "blocks were not released that the library allocated in" << origins;
}

class Check : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        Host::Reset();
        Recorder::Resume();
        Recorder::Clear();
        g_allowed.clear();
        m_descriptors = Resources::Descriptors();
        m_threads = Resources::Threads();
        Resources::ForgiveBlocks();
    }

    void OnTestEnd(const testing::TestInfo&) override {
        if (!g_allowed.empty()) {
            printf("Resources not checked: %s\n", g_allowed.c_str());
            return;
        }
        CheckThreads(m_threads);
        CheckDescriptors(m_descriptors);
        Recorder::Clear();    // has event objects
        if (!UnderEmulator()) // kNoUnwinding
            CheckBlocks();
    }

    std::map<int, std::string> m_descriptors;
    std::set<int> m_threads;
};

} // namespace

void Resources::Allow(const std::string& reason) { g_allowed = reason; }

void Resources::ForgiveBlocks() { g_blocks = LibraryBlocks::All(); }

std::map<int, std::string> Resources::Descriptors() {
    std::map<int, std::string> descriptors;
    for (int fd : Numbers("/proc/self/fd"))
        descriptors[fd] = Target(fd);
    return descriptors;
}

std::set<int> Resources::Threads() { return Numbers("/proc/self/task"); }

void Resources::Install() {
    std::thread([] {}).join(); // a sanitizer's own thread begins with the first
    LibraryBlocks::Install();
    testing::UnitTest::GetInstance()->listeners().Append(new Check);
}
