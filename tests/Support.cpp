// The test support itself: a suite is worth what its instruments are.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <Windows/XString.h>
#include <Windows/bstr.h>
#include <host/host.h>

#include "support/blocks.h"
#include "support/emulator.h"
#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/resources.h"

namespace {

typedef std::vector<std::string> Strings;

// Posts events of these tests' own.
void PostPlain(const char* text, const char* detail = nullptr) {
    Recorder::OwnText(text);
    CLogger::PostLogEvent(LogTypeGeneral, LogSeverityTrace, text, detail);
}

void PostNumber(int number) {
    Recorder::OwnText("support %d");
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityNotice, "support %d", number);
}

// A compiler may leave out pairs of malloc and free that it sees through.
void* Kept(void* block) {
    static void* volatile kept;
    kept = block;
    return kept;
}

TEST(Support, Recorder_keeps_each_form_of_event) {
    PostPlain("100% plain");
    PostPlain("no %s here", "detail");
    PostNumber(7);
    Recorder::OwnText("fd %d: ");
    CLogger::PostLogEventFB(LogTypeTraffic, LogSeverityInformation, "fd %d: ", "50% body", 3);
    Recorder::OwnText("mutex");
    CLogger::PostLogEvent(LogTypeMutex, LogSeverityTrace, "mutex", nullptr);

    EXPECT_TRUE(SameEvents(
        Recorder::Events(),
        {{11, 9, "100% plain"}, {11, 9, "no detail here"}, {12, 6, "support 7"}, {12, 7, "fd 3: 50% body"}}));
    const std::vector<Event> all = Recorder::AllEvents();
    ASSERT_EQ(all.size(), 5u);
    EXPECT_EQ(all[1].format, "no %s here");
    EXPECT_EQ(all[1].detail, "detail");
    EXPECT_TRUE(all[1].hasDetail);
    EXPECT_EQ(all[2].entry, Event::Format);
    EXPECT_EQ(all[3].buffer, "50% body");
    EXPECT_TRUE(pthread_equal(all[3].thread, pthread_self()));
    EXPECT_EQ(all[4].type, 23);

    Recorder::Clear();
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(Support, SameEvents_lists_both_sides) {
    PostPlain("one");
    PostPlain("two 2");
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{11, 9, "one"}, {11, 9, Like("t*o *2")}}));
    EXPECT_TRUE(EventsInOrder(Recorder::Events(), {{11, 9, "two 2"}}));
    EXPECT_FALSE(EventsInOrder(Recorder::Events(), {{11, 9, "two 2"}, {11, 9, "one"}}));
    const testing::AssertionResult result =
        SameEvents(Recorder::Events(), {{11, 9, "one"}, {11, 8, "two 2"}});
    EXPECT_FALSE(result);
    EXPECT_STREQ(result.message(), "they differ from event 1 on; seen:\n"
                                   "  0: {11, 9, \"one\"}\n  1: {11, 9, \"two 2\"}\n"
                                   "expected:\n"
                                   "  0: {11, 9, \"one\"}\n  1: {11, 8, \"two 2\"}\n");
}

TEST(Support, WaitFor_wakes_for_an_event_of_another_thread) {
    Gate go;
    Background poster([&] {
        EXPECT_TRUE(go.Wait());
        PostNumber(1);
        PostNumber(2);
    });
    EXPECT_FALSE(Recorder::WaitFor({12, 6, "support 2"}, 1, Deadline::In(std::chrono::milliseconds(10))));
    go.Open();
    EXPECT_TRUE(Recorder::WaitFor({12, 6, Like("support *")}, 2));
    EXPECT_TRUE(poster.Join());
    EXPECT_EQ(Recorder::EventsOfThread(poster.Thread()).size(), 2u);
    EXPECT_EQ(Recorder::EventsOfThread(pthread_self()).size(), 0u);
}

TEST(Support, Paused_recorder_keeps_nothing) {
    Recorder::Pause();
    PostNumber(1);
    Recorder::Resume();
    PostNumber(2);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {{12, 6, "support 2"}}));
}

TEST(Support, Hook_stops_a_thread_at_an_event) {
    Gate arrived, go;
    Recorder::Hook hook([&](const Event& event) {
        if (event.text == "support 1") {
            arrived.Open();
            go.Wait();
        }
    });
    Background poster([] {
        PostNumber(1);
        PostNumber(2);
    });
    EXPECT_TRUE(arrived.Wait());
    EXPECT_FALSE(Recorder::Has(12, 6, "support 2"));
    go.Open();
    EXPECT_TRUE(poster.Join());
    EXPECT_TRUE(Recorder::Has(12, 6, "support 2"));
}

TEST(Support, Logger_is_no_cancellation_point_and_spoils_errno) {
    Gate posted;
    struct Work {
        static void* Run(void* posted) {
            pthread_cancel(pthread_self());
            PostNumber(1);
            static_cast<Gate*>(posted)->Open();
            pthread_testcancel();
            return nullptr;
        }
    };
    pthread_t thread;
    void* result;
    ASSERT_EQ(pthread_create(&thread, nullptr, Work::Run, &posted), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(posted.IsOpen());
    errno = EAGAIN;
    PostNumber(2);
    EXPECT_NE(errno, EAGAIN);
}

TEST(Support, Cancelled_thread_leaves_a_gate_usable) {
    if (UnderEmulator())
        GTEST_SKIP() << kNoUnwinding;
    Gate gate, waiting;
    struct Gates {
        Gate* gate;
        Gate* waiting;
        static void* Run(void* gates) {
            static_cast<Gates*>(gates)->waiting->Open();
            static_cast<Gates*>(gates)->gate->Wait();
            return nullptr;
        }
    } gates = {&gate, &waiting};
    pthread_t thread;
    void* result;
    ASSERT_EQ(pthread_create(&thread, nullptr, Gates::Run, &gates), 0);
    EXPECT_TRUE(waiting.Wait());
    pthread_cancel(thread);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    gate.Open();
    EXPECT_TRUE(gate.Wait());
}

TEST(Support, Host_services_obey_the_test) {
    Host::SetTickCount(4294967290UL);
    EXPECT_EQ(GetTickCount(), 4294967290UL);
    unsigned long slept = 0;
    Host::FakeSleep([&](unsigned long milliseconds) { slept += milliseconds; });
    Sleep(100000);
    Sleep(7);
    EXPECT_EQ(Host::Sleeps(), (std::vector<unsigned long>{100000, 7}));
    EXPECT_EQ(slept, 100007u);
    EXPECT_FALSE(IsDebugEnabled());
    Host::SetDebug(true);
    EXPECT_TRUE(IsDebugEnabled());
    EXPECT_EQ(Host::IsDebugEnabledCalls(), 2);

    Host::AddService("printer", "127.0.0.1", 4711);
    CServiceAddress address;
    EXPECT_EQ(RegSvcQueryForServiceAddress("scanner", address, 10), 0);
    EXPECT_EQ(RegSvcQueryForServiceAddress("printer", address, 10), 1);
    EXPECT_STREQ(address.getIPAddress(), "127.0.0.1");
    EXPECT_EQ(address.getPortNumber(), 4711);
    ASSERT_EQ(Host::Lookups().size(), 2u);
    EXPECT_EQ(Host::Lookups()[1].name, "printer");
    EXPECT_EQ(Host::Lookups()[1].argument, 10);

    CLogException* error = Exception("here", "this", nullptr);
    EXPECT_STREQ(error->What(), "this");
    delete error;
    ASSERT_EQ(Host::Errors().size(), 1u);
    EXPECT_EQ(Host::Errors()[0].where, "here");
    EXPECT_FALSE(Host::Errors()[0].hasExtra);
}

TEST(Support, Time_helpers_carry) {
    CTimeValHelper span(false);
    span.AddMilliSeconds(1999);
    span.AddMilliSeconds(1);
    span.AddSeconds(1);
    EXPECT_EQ(span.tv_sec, 3);
    EXPECT_EQ(span.tv_usec, 0);
    CTimeSpecHelper point(false);
    point.AddMilliSeconds(2500);
    point.AddMilliSeconds(500);
    EXPECT_EQ(point.tv_sec, 3);
    EXPECT_EQ(point.tv_nsec, 0);
}

TEST(Support, Script_fails_the_call_it_names) {
    ConnectedPair pair;
    ASSERT_TRUE(pair.peer.Send("abcdef"));
    ASSERT_TRUE(WaitForBytes(pair.own.Descriptor(), 6));
    const int fd = pair.own.Descriptor();
    char buffer[8] = "";
    Interpose fail(Call::Recv), part(Call::Recv), other(Call::Recv);
    fail.OnDescriptor(fd).OnCall(2).Fail(ECONNRESET);
    part.OnThisThread().OnCall(3).Short(2);
    other.OnDescriptor(fd + 1000).Always().Return(5);

    EXPECT_EQ(recv(fd, buffer, 1, 0), 1);
    EXPECT_EQ(recv(fd, buffer, 4, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
    errno = 0;
    EXPECT_EQ(recv(fd, buffer, 4, 0), 2);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(std::string(buffer, 2), "bc");
    EXPECT_EQ(recv(fd + 1000, buffer, 4, 0), 5);
    EXPECT_EQ(fail.Seen(), 3);
    EXPECT_EQ(fail.Acted(), 1);
}

TEST(Support, Script_ends_with_its_object) {
    {
        Interpose fail(Call::Pipe);
        fail.Always().Fail(EMFILE);
        int fds[2];
        EXPECT_EQ(pipe(fds), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    close(fds[1]);
}

TEST(Support, Script_fails_pthread_functions_by_their_result) {
    Interpose create(Call::PthreadCreate), lock(Call::MutexLock);
    create.OnThisThread().Fail(EAGAIN);
    lock.OnThisThread().Fail(EOWNERDEAD);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_t thread;
    errno = 0;
    const int created = pthread_create(
        &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    const int locked = pthread_mutex_lock(&mutex);
    EXPECT_EQ(created, EAGAIN);
    EXPECT_EQ(locked, EOWNERDEAD);
    EXPECT_EQ(errno, 0);
}

TEST(Support, Callbacks_run_around_the_call) {
    ConnectedPair pair;
    const int fd = pair.own.Descriptor();
    Strings order;
    CallLog log;
    Interpose race(Call::Recv);
    race.When([](const CallRecord& record) { return record.flags & MSG_PEEK; })
        .Before([&] {
            order.push_back("before");
            pair.peer.Send("x");
            WaitForBytes(fd, 1);
            close(-1); // not recorded
        })
        .After([&] { order.push_back("after"); });
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT), 1);
    EXPECT_EQ(order, (Strings{"before", "after"}));
    EXPECT_TRUE(race.WaitActed());
    EXPECT_EQ(log.Texts(), (Strings{"recv(1, MSG_PEEK|MSG_DONTWAIT)"}));
}

TEST(Support, CallLog_shows_arguments_and_results) {
    ConnectedPair pair;
    const int fd = pair.own.Descriptor();
    CallLog log;
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int count = 0;
    ioctl(fd, FIONREAD, &count);
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), -1);
    EXPECT_EQ(send(fd, "abc", 3, MSG_NOSIGNAL), 3);
    const int on = 1;
    setsockopt(fd, 6, 1, &on, sizeof on);
    timeval timeout = {0, 1500};
    select(0, nullptr, nullptr, nullptr, &timeout);
    close(-1);
    EXPECT_EQ(log.Texts(fd),
              (Strings{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)", "ioctl(FIONREAD)", "recv(1)",
                       "send(3, MSG_NOSIGNAL)", "setsockopt(6, 1, 1)"}));
    const std::vector<CallRecord> records = log.Records();
    ASSERT_EQ(records.size(), 8u);
    EXPECT_EQ(records[3].result, -1);
    EXPECT_EQ(records[3].error, EAGAIN);
    EXPECT_EQ(records[4].result, 3);
    EXPECT_TRUE(records[4].finished);
    EXPECT_EQ(records[6].text, "select(0.001500)");
    EXPECT_EQ(log.Count(Call::Recv), 1);
    EXPECT_EQ(pair.peer.Read(3), "abc");
}

TEST(Support, CallLog_tells_when_a_thread_blocks_and_a_cancelled_call_stays_unfinished) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    CallLog log({Call::Read}, CallLog::AllThreads);
    pthread_t thread;
    const auto work = [](void* fd) -> void* {
        char byte;
        return read(*static_cast<int*>(fd), &byte, 1) ? fd : nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, work, &fds[0]), 0);
    EXPECT_TRUE(log.WaitFor(Call::Read));
    pthread_cancel(thread);
    void* result;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    ASSERT_EQ(log.Records().size(), 1u);
    EXPECT_FALSE(log.Records()[0].finished);
    close(fds[0]);
    close(fds[1]);
}

TEST(Support, Allocations_of_the_thread_are_counted) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    AllocationCounter counter;
    void* block = Kept(realloc(Kept(malloc(1)), 100));
    char* array = static_cast<char*>(Kept(new char[5]));
    int* number = static_cast<int*>(Kept(new int));
    EXPECT_EQ(counter.Mallocs(), 1);
    EXPECT_EQ(counter.Reallocs(), 1);
    EXPECT_EQ(counter.ArrayNews(), 1);
    EXPECT_EQ(counter.News(), 1);
    EXPECT_EQ(counter.Balance(), 3);
    free(block);
    delete[] array;
    delete number;
    EXPECT_EQ(counter.Frees(), 1);
    EXPECT_EQ(counter.Balance(), 0);
    Background other([] { free(Kept(malloc(1))); });
    EXPECT_TRUE(other.Join());
    EXPECT_EQ(counter.Mallocs(), 1);
}

TEST(Support, Named_allocation_fails) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    FailAllocation second(2);
    void* first = Kept(malloc(1));
    errno = 0;
    void* failed = Kept(malloc(1));
    const int error = errno;
    void* third = Kept(malloc(1));
    EXPECT_TRUE(second.Happened());
    EXPECT_TRUE(first);
    EXPECT_FALSE(failed);
    EXPECT_TRUE(third);
    EXPECT_EQ(error, ENOMEM);
    free(first);
    free(third);
}

TEST(Support, Failing_new_throws_or_returns_null) {
    bool thrown = false;
    void* null = nullptr;
    {
        FailAllocation fail(1, FailAllocation::OnlyNew);
        try {
            delete static_cast<int*>(Kept(new int));
        } catch (const std::bad_alloc&) {
            thrown = true;
        }
    }
    {
        FailAllocation fail(1);
        null = Kept(new (std::nothrow) char[3]);
    }
    EXPECT_TRUE(thrown);
    EXPECT_FALSE(null);
}

TEST(Support, Allocation_sizes_are_logged) {
    Strings texts;
    {
        CallLog log({Call::Malloc, Call::Calloc, Call::Realloc, Call::Free, Call::New, Call::ArrayNew,
                     Call::Delete, Call::ArrayDelete});
        free(Kept(realloc(Kept(malloc(16)), 32)));
        delete[] static_cast<char*>(Kept(new char[7]));
        texts = log.Texts();
    }
    Strings expected = {"malloc(16)", "realloc(32)", "free()", "operator new[](7)", "operator delete[]()"};
    texts.resize(expected.size()); // beyond: what copying the texts did
    EXPECT_EQ(texts, expected);
}

TEST(Support, Scripts_fail_the_remaining_functions) {
    Interpose open(Call::Fopen), write(Call::Vsnprintf), nap(Call::Sleep);
    open.OnThisThread().Fail(EACCES);
    write.OnThisThread().Fail(EOVERFLOW);
    nap.OnThisThread().Return(0);
    errno = 0;
    FILE* file = fopen("/dev/null", "r");
    const int error = errno;
    const unsigned int left = sleep(3600);
    const std::string text = Text("%d", 1); // bypasses
    va_list none = {};
    char buffer[4];
    const char* volatile format = "x"; // or the compiler does the work
    const int length = vsnprintf(buffer, sizeof buffer, format, none);
    EXPECT_FALSE(file);
    EXPECT_EQ(error, EACCES);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(text, "1");
    EXPECT_EQ(length, -1);
}

TEST(Support, Peer_exchanges_frames) {
    ListenSocket listener;
    Background server([&] {
        Connection connection = listener.Accept();
        EXPECT_EQ(connection.ReadFrame(), "question");
        EXPECT_TRUE(connection.Send(Frame("answer")));
        EXPECT_TRUE(connection.AtEnd());
    });
    Connection client = ConnectTo(listener.Port());
    ASSERT_TRUE(client.IsOpen());
    EXPECT_TRUE(client.Send(std::string("\0\0\0\x08question", 12)));
    EXPECT_EQ(client.Read(10), Prefix(6) + "answer");
    client.Close();
    EXPECT_TRUE(server.Join());
    EXPECT_FALSE(ConnectTo(UnusedPort()).IsOpen());
}

TEST(Support, Closure_is_seen_without_reading) {
    ConnectedPair pair;
    pair.peer.Send("x");
    pair.peer.Close();
    EXPECT_TRUE(WaitForClosure(pair.own.Descriptor()));
    EXPECT_EQ(pair.own.ReadAll(), "x");
    EXPECT_TRUE(pair.own.AtEnd());
}

TEST(Support, Left_descriptors_and_threads_are_seen) {
    const auto descriptors = Resources::Descriptors();
    const auto threads = Resources::Threads();
    const int fd = dup(0);
    Gate go;
    Background thread([&] { go.Wait(); });
    EXPECT_EQ(Resources::Descriptors().size(), descriptors.size() + 1);
    EXPECT_EQ(Resources::Threads().size(), threads.size() + 1);
    close(fd);
    go.Open();
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

TEST(Support, Left_blocks_of_the_library_are_seen) {
    const std::set<uintptr_t> before = LibraryBlocks::All();
    BSTR text = SysAllocString("abc");
    auto* string = new XString("def"); // the object is the test's, its text the library's
    free(malloc(3));
    const std::set<uintptr_t> with = LibraryBlocks::All();
    Strings origins;
    for (uintptr_t block : with)
        if (!before.count(block))
            origins.push_back(LibraryBlocks::Origin(block));
    SysFreeString(text);
    delete string;
    EXPECT_EQ(origins.size(), 3U) << "a BSTR, and a string's text with its counter";
    EXPECT_EQ(std::count(origins.begin(), origins.end(), "?"), 0);
    EXPECT_EQ(LibraryBlocks::All(), before);
    for (uintptr_t block : with)
        EXPECT_EQ(LibraryBlocks::Origin(block) == "?", before.count(block) == 0);
}

#endif

TEST(Support, Census_outlives_an_abort) {
    if (getenv("SUPPORT_TEST_IS_CHILD")) {
        Recorder::OwnText("mine");
        CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "mine", nullptr);
        CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, "lost\tand found ", nullptr);
        CLogger::PostLogEventF(LogTypeLife, LogSeverityInformation, "number %d", 1);
        CLogger::PostLogEventF(LogTypeLife, LogSeverityInformation, "number %d", 2);
        abort();
    }
    // A new process, which opens a file of its own.
    char folder[] = "/tmp/windows_census_XXXXXX";
    ASSERT_TRUE(mkdtemp(folder));
    const std::string inner = std::string(folder) + "/census";
    char self[4096] = "";
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    const std::string command = Text("SUPPORT_TEST_IS_CHILD=1 WINDOWS_CENSUS_DIR=%s %s %s "
                                     "--gtest_filter=Support.Census_outlives_an_abort >/dev/null 2>&1",
                                     inner.c_str(), EmulatorCommand(), self);
    EXPECT_NE(system(command.c_str()), 0);
    FILE* files = popen(("cat " + inner + "/*").c_str(), "r");
    ASSERT_TRUE(files);
    char text[4096] = "";
    const size_t length = fread(text, 1, sizeof text - 1, files);
    pclose(files);
    const std::string all(text, length);
    EXPECT_NE(all.find("13\t7\tlost\\x09and found \ttext\n13\t7\tnumber %d\tformat\n"), std::string::npos)
        << all;
    EXPECT_EQ(all.find("mine"), std::string::npos);
    EXPECT_EQ(system(("rm -r " + std::string(folder)).c_str()), 0);
}

} // namespace
