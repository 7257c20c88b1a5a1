// What happens at the limits of the process: no descriptor left, more connections than a descriptor set of
// the C library holds, and a queue that nobody reads.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Windows/ClientSocket.h>
#include <Windows/MemFile.h>
#include <Windows/ServerSocket.h>
#include <Windows/WinThread.h>

#include "robustness/Echo.h"
#include "robustness/Form.h"
#include "support/emulator.h"

namespace {

typedef std::vector<ExpectedEvent> Lines;

// ---------------------------------------------------------------------------------------------------------
// No descriptors

// While it lives the process gets so many more descriptors, and then none.
class DescriptorsUsedUp {
public:
    explicit DescriptorsUsedUp(int left = 0)
        : m_end(Resources::Descriptors().rbegin()->first + 1), m_filler(m_end) {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit lowered = {static_cast<rlim_t>(m_end + left), m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    }

    ~DescriptorsUsedUp() { setrlimit(RLIMIT_NOFILE, &m_before); }

    DescriptorsUsedUp(const DescriptorsUsedUp&) = delete;
    DescriptorsUsedUp& operator=(const DescriptorsUsedUp&) = delete;

private:
    int m_end;
    Filler m_filler; // of the gaps
    rlimit m_before;
};

const ExpectedEvent ADDED = {11, 9, Like("CWinThread::AddThread : id = *")};
const ExpectedEvent SERVER_SOCKET_CALLED = {13, 7, "ServerSocket::ServerSocket() : called!"};
const char NO_SERVER_SOCKET[] = "CServerSocket::CServerSocket() : Could not create socket.";
const char NO_CLIENT_SOCKET[] = "CClientSocket::CClientSocket() : Could not create socket.";

ExpectedEvent AcceptCalled(int fd) { return {11, 7, Text("ServerSocket::Accept() : Called with fd=%d", fd)}; }
ExpectedEvent Accepted(const char* fd) {
    return {11, 7, Like(std::string("ServerSocket::Accept() : fd = ") + fd)};
}

const char MADE[] = "made";

// What becomes of an object, which is ended if it was made.
template <class Object> std::string Made(const std::function<Object*()>& make) {
    try {
        std::unique_ptr<Object> object(make());
        return MADE;
    } catch (SocketException error) {
        return error.Description();
    } catch (CLogException* error) {
        const std::unique_ptr<CLogException> owned(error);
        return std::string(error->Where()) + ": " + error->What();
    }
}

// The same of a network thread, which is ended first.
template <class Object> std::string MadeThread(const std::function<Object*()>& make) {
    return Made<Object>([&make] {
        Object* thread = make();
        EXPECT_TRUE(EndThread(*thread));
        return thread;
    });
}

unsigned int Nothing(void*) { return 0; }

const char NO_PIPE[] = "WinThread::CWinThread: Could not create pipe.";
const char NO_PIPE_OF_A_SUBCLASS[] = "WinThread::CWinThread(AFX_THREADPROC): Could not create pipe.";

// A place where the library makes a descriptor, with so many left before.
struct Site {
    const char* name;
    int left;
    std::function<std::string()> run; // MADE, or why not
    std::string outcome;              // without descriptors
    Lines lines;
};

// Each runs before the descriptors are used up, without them, and afterwards.
void Check(const Site& site) {
    SCOPED_TRACE(Text("%s with %d left", site.name, site.left));
    EXPECT_EQ(site.run(), MADE);
    const std::set<int> threads = Resources::Threads();
    const std::map<int, std::string> descriptors = Resources::Descriptors();
    const size_t registered = RegisteredThreads();
    std::string outcome;
    Recorder::Clear();
    {
        DescriptorsUsedUp none(site.left);
        outcome = site.run();
    }
    EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(pthread_self()), site.lines));
    EXPECT_EQ(outcome, site.outcome);
    WaitForThreads(threads);
    EXPECT_EQ(RegisteredThreads(), registered);
    EXPECT_EQ(Resources::Descriptors(), descriptors);
    EXPECT_EQ(site.run(), MADE);
}

TEST(Limits, Threads_without_descriptors_are_not_made_and_are_made_later) {
    const std::function<std::string()> begin = [] {
        return Made<CWinThread>([] {
            CWinThread* thread = AfxBeginThread(Nothing, nullptr);
            EXPECT_TRUE(WaitForEnd(*thread));
            return thread;
        });
    };
    const std::function<std::string()> construct = [] {
        return Made<CWinThread>([] { return new CWinThread; });
    };
    for (const int left : {0, 1}) { // a pipe takes two
        Check({"AfxBeginThread", left, begin, NO_PIPE, {}});
        Check({"CWinThread", left, construct, NO_PIPE_OF_A_SUBCLASS, {}});
    }
}

TEST(Limits, Servers_and_clients_without_descriptors_are_not_made_and_are_made_later) {
    RecordingTarget target;
    ListenSocket listener;
    const std::function<std::string()> server = [&] {
        return MadeThread<CServer>([&] { return new CServer(0, target); });
    };
    const std::function<std::string()> client = [&] {
        return MadeThread<CClient>([&] { return new CClient("127.0.0.1", listener.Port(), target); });
    };
    const std::function<std::string()> unconnected = [&] {
        return Made<CClient>([&] { return new CClient(target); });
    };
    for (const int left : {0, 1}) {
        Check({"CServer", left, server, NO_PIPE_OF_A_SUBCLASS, {}});
        Check({"CClient", left, client, NO_PIPE_OF_A_SUBCLASS, {}});
    }
    // The pipe takes the last; its thread is destroyed again, without a descriptor for that either.
    Check({"CServer", 2, server, NO_SERVER_SOCKET,
           Lines{ADDED, SERVER_SOCKET_CALLED, {11, 1, NO_SERVER_SOCKET}} + ThreadDestroyed()});
    Check({"CClient", 2, client, NO_CLIENT_SOCKET,
           Lines{ADDED, {11, 1, NO_CLIENT_SOCKET}} + ThreadDestroyed()});
    Check({"CClient without a server", 2, unconnected, NO_CLIENT_SOCKET,
           Lines{ADDED, {11, 1, NO_CLIENT_SOCKET}} + ThreadDestroyed()});
}

TEST(Limits, Sockets_without_descriptors_are_not_made_and_are_made_later) {
    Check({"CSocket",
           0,
           [] {
               const auto socket = std::make_unique<CSocket>();
               const bool created = socket->Create();
               EXPECT_EQ(created, socket->m_fd != -1);
               return created ? MADE : "false";
           },
           "false",
           {}});
    Check({"ServerSocket",
           0,
           [] { return Made<ServerSocket>([] { return new ServerSocket; }); },
           NO_SERVER_SOCKET,
           {SERVER_SOCKET_CALLED, {11, 1, NO_SERVER_SOCKET}}});
    Check({"CClientSocket",
           0,
           [] { return Made<CClientSocket>([] { return new CClientSocket; }); },
           NO_CLIENT_SOCKET,
           {{11, 1, NO_CLIENT_SOCKET}}});
}

TEST(Limits, A_connection_that_finds_no_descriptor_waits_and_is_accepted_later) {
    ServerSocket listener;
    ASSERT_TRUE(listener.Bind(0));
    ASSERT_TRUE(listener.Listen());
    Connection peer = ConnectTo(ntohs(LocalAddress(listener.m_fd).sin_port));
    ASSERT_TRUE(WaitReadable(listener.m_fd));
    Recorder::Clear();
    {
        DescriptorsUsedUp none;
        EXPECT_EQ(listener.Accept(), nullptr);
    }
    EXPECT_TRUE(
        SameEvents(Recorder::EventsOfThread(pthread_self()), {AcceptCalled(listener.m_fd), Accepted("-1")}));
    const std::unique_ptr<CSocket> accepted(listener.Accept());
    ASSERT_NE(accepted, nullptr);
    char hello[] = "hello";
    EXPECT_TRUE(accepted->Send(hello));
    EXPECT_EQ(peer.ReadFrame(), "hello");
}

TEST(Limits, A_dump_without_a_descriptor_writes_no_file_and_says_nothing) {
    std::string folder = testing::TempDir() + "limits-XXXXXX";
    ASSERT_NE(mkdtemp(&folder[0]), nullptr);
    const std::string path = folder + "/dump";
    CMemFile file;
    file.Write("hello", 5);
    Check({"CMemFile::Dump",
           0,
           [&] {
               file.Dump(path.c_str());
               return unlink(path.c_str()) == 0 ? MADE : "no file";
           },
           "no file",
           {}});
    EXPECT_EQ(rmdir(folder.c_str()), 0);
}

// The connection stays in the listener's queue, so the server tries again in each wake-up, and serves the
// others in between.
TEST(Limits, A_server_without_descriptors_serves_its_clients_and_accepts_the_next_one_later) {
    EchoServer echo;
    Connection client = echo.Connect();
    const int listener = Listener(*echo.server);
    Connection late(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = LocalAddress(listener);
    const ExpectedEvent accepting = {11, 9, "CServer::Main() : Accepting client connection request."};
    const ExpectedEvent refused = {11, 1, "CServer::Main() : Could not accept connection."};
    Recorder::Clear();
    {
        DescriptorsUsedUp none;
        EXPECT_EQ(connect(late.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_TRUE(Recorder::WaitFor(refused, 3));
        EXPECT_TRUE(Answers(client, "meanwhile"));
        EXPECT_EQ(echo.target.Connections(), 1U);
    }
    EXPECT_TRUE(echo.target.WaitForConnections(2));
    EXPECT_TRUE(Answers(late, "at last"));
    EXPECT_TRUE(Answers(client, "still"));

    const std::vector<Event> events = Recorder::Events([&](const Event& event) {
        return pthread_equal(event.thread, echo.Thread()) &&
               (event.text.find("ServerSocket::") == 0 || event.text.find("CServer::") == 0);
    });
    const size_t tries =
        static_cast<size_t>(Recorder::Count(11, 1, "CServer::Main() : Could not accept connection."));
    ASSERT_EQ(events.size(), 4 * tries + 4);
    const Lines failure = {accepting, AcceptCalled(listener), Accepted("-1"), refused};
    for (size_t i = 0; i < tries; i++)
        for (size_t line = 0; line < 4; line++)
            ASSERT_TRUE(failure[line].Matches(events[4 * i + line])) << events[4 * i + line];
    EXPECT_TRUE(SameEvents({events.end() - 4, events.end()},
                           {accepting,
                            AcceptCalled(listener),
                            Accepted(Text("%d", echo.target.Newest()).c_str()),
                            {11, 9, "CServer::Main() : Client connection established."}}));
}

unsigned int ReadUntilQuit(void*) {
    MSG message;
    while (GetMessage(&message, nullptr, 0, 0, INFINITE, false) && message.message != WM_QUIT) {
    }
    return 0;
}

// Destroying a thread that has not ended takes a descriptor for a moment, where one is to be had.
TEST(Limits, Threads_are_destroyed_without_a_descriptor_wherever_they_wait) {
    RecordingTarget target;
    ListenSocket listener;
    const std::set<int> before = Resources::Threads();
    const struct {
        const char* where;
        std::function<CWinThread*()> make;
        bool asleep;
        int error; // of the spare descriptor: a socket that is closed first makes room for it
    } rows[] = {
        {"suspended", [] { return AfxBeginThread(Nothing, nullptr, 0, 0, CREATE_SUSPENDED); }, false, EMFILE},
        {"in its queue", [] { return AfxBeginThread(ReadUntilQuit, nullptr); }, true, EMFILE},
        {"server", [&] { return new CServer(0, target); }, true, 0},
        {"client", [&] { return new CClient("127.0.0.1", listener.Port(), target); }, true, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.where);
        SelectWatch watch;
        CWinThread* thread = row.make();
        if (row.asleep) {
            EXPECT_TRUE(watch.WaitAsleep());
        }
        const auto id = static_cast<unsigned int>(thread->m_nThreadID);
        CallLog calls({Call::Dup});
        Recorder::Clear();
        {
            DescriptorsUsedUp none;
            delete thread;
        }
        const std::vector<CallRecord> records = calls.Records();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].error, row.error);
        EXPECT_TRUE(EventsInOrder(Recorder::EventsOfThread(pthread_self()), ThreadDestroyed(id)));
        WaitForThreads(before);
        EXPECT_EQ(RegisteredThreads(), 0U);
    }
    if (UnderEmulator()) {
        printf("memory is not compared: %s\n", kNoUnwinding);
        Resources::ForgiveBlocks();
    }
}

TEST(Limits, What_needs_no_descriptor_works_without_one) {
    ConnectedPair pair;
    const auto socket = std::make_unique<CSocket>();
    socket->m_fd = pair.Release();
    std::unique_ptr<CWinThread> thread(AfxBeginThread(ReadUntilQuit, nullptr));
    {
        DescriptorsUsedUp none;
        HANDLE event = CreateEvent(true, false);
        EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<unsigned long>(WAIT_TIMEOUT));
        EXPECT_EQ(SetEvent(event), 1);
        EXPECT_EQ(WaitForSingleObject(event, INFINITE), static_cast<unsigned long>(WAIT_OBJECT_0));
        EXPECT_EQ(CloseHandle(event), 1);
        HANDLE mutex = CreateMutex(nullptr, true, nullptr);
        EXPECT_EQ(WaitForSingleObject(mutex, 0), static_cast<unsigned long>(WAIT_OBJECT_0));
        ReleaseMutex(mutex);
        ReleaseMutex(mutex);
        EXPECT_EQ(CloseHandle(mutex), 1);

        char hello[] = "hello";
        EXPECT_TRUE(socket->Send(hello));
        EXPECT_EQ(pair.peer.ReadFrame(), "hello");
        EXPECT_TRUE(pair.peer.Send(Frame("back")));
        BSTR text = nullptr;
        EXPECT_EQ(socket->Receive(text), 4);
        SysFreeString(text);

        EXPECT_EQ(PostThreadMessage(thread->m_nThreadID, 1, 2, nullptr), 1);
        EXPECT_EQ(PostThreadMessage(thread->m_nThreadID, WM_QUIT, 0, nullptr), 1);
        EXPECT_TRUE(WaitForEnd(*thread));
        thread.reset();
    }
}

// ---------------------------------------------------------------------------------------------------------
// Many connections

// The number does not depend on how fast this is: the descriptors are to pass 1023.
TEST(Limits, A_server_has_more_clients_than_a_descriptor_set_has_places) {
    const size_t count = IsLongForm() ? 5100 : 1200;
    DescriptorLimit limit(2 * count + 100); // both ends are here
    if (!limit.Raised())
        GTEST_SKIP() << "the process may not have " << 2 * count + 100 << " descriptors";
    if (!SelectTakesHighDescriptors())
        GTEST_SKIP() << "no descriptors above 1023 in this environment";
    Recorder::Pause();
    EchoServer echo;
    std::vector<Connection> clients;
    clients.reserve(count);
    echo.Connect(clients, count);
    ASSERT_EQ(clients.size(), count);
    EXPECT_GT(echo.target.Newest(), static_cast<int>(count));

    // All but every third at once, then in the order in which they came.
    const auto text = [](const char* what, size_t i) { return Text("%s %zu", what, i); };
    {
        Hold hold(*echo.server, echo.target);
        for (size_t i = 0; i < count; i++)
            if (i % 3) {
                ASSERT_TRUE(clients[i].Send(Frame(text("busy", i))));
            }
    }
    for (size_t i = 0; i < count; i++)
        if (i % 3) {
            ASSERT_EQ(clients[i].ReadFrame(), text("busy", i));
        }
    // The others have been idle, and lost nothing by it.
    for (size_t i = count; i-- > 0;)
        if (i % 3 == 0) {
            ASSERT_TRUE(Answers(clients[i], text("idle", i)));
        }
    // Half of them go, others come, and all that are there are served.
    for (size_t i = 0; i < count; i += 2)
        clients[i].Close();
    ASSERT_TRUE(echo.target.WaitForClients(count / 2));
    std::vector<Connection> more;
    echo.Connect(more, count / 2);
    for (size_t i = 1; i < count; i += 2)
        ASSERT_TRUE(Answers(clients[i], text("stayed", i)));
    for (size_t i = 0; i < more.size(); i++)
        ASSERT_TRUE(Answers(more[i], text("came", i)));
    clients.clear();
    more.clear();
    EXPECT_TRUE(echo.target.WaitForClients(0));
}

// ---------------------------------------------------------------------------------------------------------
// A queue that is not read

const std::chrono::minutes LONG_WAIT(5); // the long form takes longer than Deadline::Long()

// A thread that reads its queue only once it may, and until WM_QUIT.
class LateReader {
public:
    // Lets it read, and waits for its end.
    void Read() {
        m_mayRead.Open();
        const std::chrono::milliseconds limit = LONG_WAIT;
        EXPECT_EQ(WaitForSingleObject(thread->m_hThread, static_cast<unsigned long>(limit.count())),
                  static_cast<unsigned long>(WAIT_OBJECT_0));
    }

    int Post(unsigned int message, int number) const {
        return PostThreadMessage(thread->m_nThreadID, message, static_cast<unsigned long>(number), nullptr);
    }

    size_t InPipe() const {
        int bytes = 0;
        EXPECT_EQ(ioctl(thread->m_readDesc, FIONREAD, &bytes), 0);
        return static_cast<size_t>(bytes) / sizeof(MSG);
    }

    std::function<void(const MSG&)> onMessage; // set before Read()
    int balance = 0;                           // of its allocations while it read

private:
    static unsigned int Run(void* self) {
        static_cast<LateReader*>(self)->ReadAll();
        return 0;
    }

    void ReadAll() {
        m_mayRead.Wait(Deadline::In(LONG_WAIT));
        AllocationCounter counter;
        MSG message;
        while (GetMessage(&message, nullptr, 0, 0, 0, false) && message.message != WM_QUIT)
            onMessage(message);
        balance = counter.Balance();
    }

    Gate m_mayRead;

public:
    const std::unique_ptr<CWinThread> thread{AfxBeginThread(Run, this)}; // which uses all of the above
};

TEST(Limits, A_queue_takes_whatever_is_posted_and_hands_it_out_in_order) {
    const int count = std::max(HowMany(20000, 1000000), 5000); // more than the pipe holds
    Recorder::Pause();
    LateReader reader;
    int taken = 0, misplaced = 0;
    reader.onMessage = [&](const MSG& message) {
        misplaced += message.message != 5 || message.wParam != static_cast<unsigned long>(taken);
        taken++;
    };
    AllocationCounter counter;
    for (int i = 0; i < count; i++)
        ASSERT_EQ(reader.Post(5, i), 1);
    ASSERT_EQ(reader.Post(WM_QUIT, 0), 1);
    const int parked = counter.Balance();
    EXPECT_GT(parked, 0);
    EXPECT_EQ(static_cast<size_t>(parked) + reader.InPipe(), static_cast<size_t>(count) + 1);
    reader.Read();
    EXPECT_EQ(taken, count);
    EXPECT_EQ(misplaced, 0);
    EXPECT_EQ(reader.balance, -parked);
    EXPECT_EQ(reader.InPipe(), 0U);
}

// Of several posters each has its own order, as nothing is overtaken while nobody reads.
TEST(Limits, A_queue_that_several_threads_fill_hands_out_each_ones_in_its_order) {
    const int posters = 4, each = HowMany(5000, 100000);
    Recorder::Pause();
    LateReader reader;
    std::vector<int> next(posters, 0);
    int misplaced = 0;
    reader.onMessage = [&](const MSG& message) {
        misplaced += static_cast<int>(message.wParam) != next.at(message.message)++;
    };
    std::atomic<int> parked{0};
    {
        std::vector<std::unique_ptr<Background>> threads;
        for (int poster = 0; poster < posters; poster++)
            threads.push_back(std::make_unique<Background>([&, poster] {
                AllocationCounter counter;
                for (int i = 0; i < each; i++)
                    ASSERT_EQ(reader.Post(static_cast<unsigned int>(poster), i), 1);
                parked += counter.Balance();
            }));
        for (auto& thread : threads)
            EXPECT_TRUE(thread->Join(Deadline::In(LONG_WAIT)));
    }
    EXPECT_EQ(static_cast<size_t>(parked) + reader.InPipe(), static_cast<size_t>(posters * each));
    AllocationCounter counter;
    EXPECT_EQ(reader.Post(WM_QUIT, 0), 1);
    const int last = counter.Balance();
    reader.Read();
    EXPECT_EQ(next, std::vector<int>(posters, each));
    EXPECT_EQ(misplaced, 0);
    EXPECT_EQ(reader.balance, -(parked + last));
}

// While it is read a message may overtake parked ones, and still none is lost or comes twice.
TEST(Limits, A_queue_that_is_filled_and_emptied_at_once_loses_nothing) {
    const int posters = 4, each = HowMany(5000, 100000), parkedFirst = 10000;
    Recorder::Pause();
    LateReader reader;
    std::vector<int> seen(static_cast<size_t>(posters * each + parkedFirst), 0);
    std::atomic<int> left{posters * each + parkedFirst};
    reader.onMessage = [&](const MSG& message) {
        seen.at(message.wParam)++;
        if (--left == 0) {
            EXPECT_EQ(reader.Post(WM_QUIT, 0), 1);
        }
    };
    std::atomic<int> balance{0};
    const auto post = [&](int begin, int end) {
        AllocationCounter counter;
        for (int i = begin; i < end; i++)
            ASSERT_EQ(reader.Post(5, i), 1);
        balance += counter.Balance();
    };
    post(0, parkedFirst);
    {
        std::vector<std::unique_ptr<Background>> threads;
        for (int poster = 0; poster < posters; poster++)
            threads.push_back(std::make_unique<Background>(
                [&, begin = parkedFirst + poster * each] { post(begin, begin + each); }));
        reader.Read();
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), posters * each + parkedFirst);
    EXPECT_EQ(balance + reader.balance, 0);
    EXPECT_EQ(reader.InPipe(), 0U);
}

} // namespace
