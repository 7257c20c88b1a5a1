// The library at the edges of a process: before and after main, loaded and unloaded, at exit with threads
// alive, at an exception that nobody catches, and over fork and exec. Most of it is tried by programs of
// their own, which are in programs/ and start here.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/CmdTarget.h>
#include <Windows/MemoryException.h>
#include <Windows/Server.h>
#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>

#include "robustness/Form.h"
#include "support/deadline.h"
#include "support/emulator.h"
#include "support/recording_host.h"
#include "support/text.h"

namespace {

typedef std::vector<std::string> Words;

// The command that runs one of the programs.
Words Program(const std::string& name) {
    std::istringstream emulator(EmulatorCommand());
    Words command;
    for (std::string word; emulator >> word;)
        command.push_back(word);
    command.push_back(std::string(ROBUSTNESS_PROGRAMS) + "/" + name);
    return command;
}

Words operator+(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

// A started command, and all that it prints.
class Process {
public:
    explicit Process(const Words& command) {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_output = ends[0];
        std::vector<char*> words;
        for (const std::string& word : command)
            words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        EXPECT_EQ(posix_spawn(&m_id, words[0], &actions, nullptr, words.data(), environ), 0) << words[0];
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
    }

    ~Process() { close(m_output); }

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // What it printed, and how it ended unless that was with status 0. A process that does not end in time is
    // ended.
    std::string Result() {
        if (m_id <= 0)
            return "not started";
        // Within a test's usual time; a program is done in a small part of it.
        const bool inTime =
            ReadAll(Deadline::In(std::chrono::seconds(static_cast<int>(50 * Deadline::Multiplier()))));
        if (!inTime)
            kill(m_id, SIGKILL);
        int status = 0;
        EXPECT_EQ(waitpid(m_id, &status, 0), m_id);
        if (!inTime)
            return m_printed + "(did not end)";
        if (WIFSIGNALED(status))
            return m_printed + Text("(ended by signal %d)", WTERMSIG(status));
        return m_printed +
               (WEXITSTATUS(status) == 0 ? "" : Text("(ended with status %d)", WEXITSTATUS(status)));
    }

private:
    // False if the end has not come by then.
    bool ReadAll(const Deadline& deadline) {
        for (;;) {
            pollfd poller = {m_output, POLLIN, 0};
            if (poll(&poller, 1, static_cast<int>(deadline.Remaining().count())) != 1)
                return false;
            char bytes[4096];
            const ssize_t count = read(m_output, bytes, sizeof bytes);
            if (count <= 0)
                return true;
            m_printed.append(bytes, static_cast<size_t>(count));
        }
    }

    pid_t m_id = 0;
    int m_output = -1;
    std::string m_printed;
};

std::string ResultOf(const Words& command) { return Process(command).Result(); }

// The file of the library that this program uses.
std::string LibraryFile() {
    Dl_info info = {};
    dladdr(dlsym(RTLD_DEFAULT, "AfxBeginThread"), &info);
    return info.dli_fname ? info.dli_fname : "";
}

void EndManyTimes(const char* how) {
    const int count = HowMany(20, 1000);
    for (int i = 0; i < count; i++)
        ASSERT_EQ(ResultOf(Program("end_with_threads") + Words{how}), "") << "the process numbered " << i;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// Before and after main

TEST(StartAndEnd, All_can_be_used_before_main_and_after_it_in_every_place_where_code_runs) {
    EXPECT_EQ(ResultOf(Program("before_and_after_main")), "used by a constructor function: 10\n"
                                                          "used by a static constructor: 10\n"
                                                          "used in main: 10\n"
                                                          "used by what main registered: 10\n"
                                                          "a static thread has ended: 5\n"
                                                          "a static string\n"
                                                          "used by a static destructor: 10\n"
                                                          "used by what a static constructor registered: 10\n"
                                                          "used by a destructor function: 10\n");
}

TEST(StartAndEnd, It_is_loaded_by_a_host_without_the_services_that_are_never_used) {
    EXPECT_EQ(ResultOf(Program("load_into_small_host") + Words{LibraryFile()}), "used\n");
}

TEST(StartAndEnd, It_is_loaded_used_and_unloaded_many_times_and_leaves_no_mapping_descriptor_or_thread) {
    EXPECT_EQ(ResultOf(Program("load_and_unload") + Words{std::to_string(HowMany(20, 1000)), LibraryFile()}),
              "nothing is left\n");
}

// ---------------------------------------------------------------------------------------------------------
// The end of a process with threads that wait for messages, events, a mutex, their first resume, a server's
// clients and a client's server

TEST(StartAndEnd, Main_returns_while_threads_wait_in_every_way) { EndManyTimes("return"); }

TEST(StartAndEnd, Main_calls_exit_while_threads_wait_in_every_way) { EndManyTimes("exit"); }

TEST(StartAndEnd, A_thread_calls_exit_while_others_and_main_wait) { EndManyTimes("thread"); }

TEST(StartAndEnd, A_server_and_a_client_are_destroyed_with_the_statics_while_other_threads_wait) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "it does not see what a cancelled thread locks";
#endif
    EndManyTimes("destroy");
}

// ---------------------------------------------------------------------------------------------------------
// Exceptions that leave a thread's work

namespace {

unsigned int Throw(void*) { throw std::runtime_error("the work failed"); }
unsigned int RunOutOfMemory(void*) {
    ThrowMemoryException();
    return 0;
}

class Throwing : public CWinThread {
    void Main() override { Throw(nullptr); }
};

class ThrowingTarget : public CCmdTarget {
    bool RouteMessage(void*, bool) override { return Throw(nullptr) == 0; }
};

// Waits for the end of a thread's work, which does not come.
void Await(CWinThread& thread) {
    thread.ResumeThread();
    PostThreadMessage(thread.GetThreadID(), WM_USER, 0, nullptr);
    WaitForSingleObject(thread.m_hThread, static_cast<unsigned long>(Deadline::Long().Remaining().count()));
}

const char kTerminated[] = "terminate called after throwing an instance of 'std::runtime_error'.*"
                           "what\\(\\): *the work failed";

unsigned int CatchAll(void* p) {
    try {
        Throw(nullptr);
    } catch (const std::exception& error) {
        *static_cast<std::string*>(p) += error.what();
    }
    try {
        ThrowMemoryException();
    } catch (CMemoryException*) {
        *static_cast<std::string*>(p) += ", and memory too";
    }
    return 0;
}

} // namespace

TEST(StartAndEnd, An_exception_that_leaves_a_thread_function_ends_the_process_and_is_named) {
    EXPECT_EXIT(Await(*AfxBeginThread(Throw, nullptr)), testing::KilledBySignal(SIGABRT), kTerminated);
}

TEST(StartAndEnd, The_memory_exception_that_leaves_a_thread_function_ends_the_process_and_is_named) {
    EXPECT_EXIT(Await(*AfxBeginThread(RunOutOfMemory, nullptr)), testing::KilledBySignal(SIGABRT),
                "terminate called after throwing an instance of 'CMemoryException\\*'");
}

TEST(StartAndEnd, An_exception_that_leaves_an_overridden_Main_ends_the_process_and_is_named) {
    EXPECT_EXIT(Await(*new Throwing), testing::KilledBySignal(SIGABRT), kTerminated);
}

TEST(StartAndEnd, An_exception_that_leaves_a_command_target_ends_the_process_and_is_named) {
    EXPECT_EXIT(
        {
            ThrowingTarget target;
            CServer server(0, target);
            Await(server);
        },
        testing::KilledBySignal(SIGABRT), kTerminated);
}

TEST(StartAndEnd, A_thread_function_that_catches_what_it_throws_ends_as_usual) {
    std::string caught;
    const std::unique_ptr<CWinThread> thread(AfxBeginThread(CatchAll, &caught));
    EXPECT_EQ(WaitForSingleObject(thread->m_hThread,
                                  static_cast<unsigned long>(Deadline::Long().Remaining().count())),
              WAIT_OBJECT_0);
    EXPECT_EQ(caught, "the work failed, and memory too");
}

// ---------------------------------------------------------------------------------------------------------
// Other programs

TEST(StartAndEnd, A_program_started_by_fork_and_exec_inherits_queues_and_sockets_and_all_threads_go_on) {
    EXPECT_EQ(ResultOf(Program("fork_and_exec") + Words{std::to_string(HowMany(20, 1000))} +
                       Program("fork_and_exec") + Words{"child"}),
              "all children have what this program has open, and its threads went on\n");
}
