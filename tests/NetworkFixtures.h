// What the tests of CServer and CClient share: a command target that records, ways to hold a network thread
// and to end it, and access to what the classes protect.
//
//   RecordingTarget target;                          // first: it must outlive the thread
//   ServerPtr server(new CServer(0, target));        // ended and deleted at the end of the test
//   {
//       Hold hold(*server, target);                  // the thread waits inside RouteMessage
//       ... prepare what the next wake-up is to find ...
//   }
//   EXPECT_EQ(target.WaitForCalls(2), (Calls{"message 1", "activity 7"}));
#ifndef TESTS_NETWORKFIXTURES_H
#define TESTS_NETWORKFIXTURES_H

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/SingleLock.h>
#include <Windows/SocketException.h>
#include <Windows/bstr.h>
#include <Windows/synchelpers.h>
#include <host/ErrorObject.h>
#include <host/ServiceRegistry.h>

#include "support/deadline.h"
#include "support/interpose.h"
#include "support/monitor.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/resources.h"
#include "support/text.h"

// ---------------------------------------------------------------------------------------------------------
// Access

struct ServerFields : CServer {
    static auto Listening() { return &ServerFields::m_bListening; }
    static auto ListeningEvent() { return &ServerFields::m_listeningEvent; }
};

struct ClientFields : CClient {
    static auto HostText() { return &ClientFields::m_strHost; }
    static auto Connected() { return &ClientFields::m_bConnectedToServer; }
    static auto Port() { return &ClientFields::m_nPort; }
};

inline int Pipe(CWinThread& thread) { return thread.m_readDesc; }
inline int Listener(CServer& server) { return server.m_serverSocket.m_fd; }
inline int SocketOf(CClient& client) { return client.m_clientSocket.m_fd; }

inline sockaddr_in LocalAddress(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address;
}

inline int PortOf(CServer& server) { return ntohs(LocalAddress(Listener(server)).sin_port); }

// The place of a virtual function in the table of its class; -1 if it is not virtual.
template <class Function> long SlotOf(Function function) {
    long word; // of a pointer to a virtual member: 1 + its offset in the table
    static_assert(sizeof function >= sizeof word, "not a pointer to a member function");
    memcpy(&word, &function, sizeof word);
    return word & 1 ? (word - 1) / static_cast<long>(sizeof(void*)) : -1;
}

inline size_t RegisteredThreads() {
    CSingleLock lock(&CWinThread::m_mapMutex);
    return CWinThread::m_threads.size();
}

inline CServiceAddress AddressOf(const std::string& host, int port) {
    CServiceAddress address;
    strncpy(address.m_szIPAddress, host.c_str(), sizeof address.m_szIPAddress - 1);
    address.m_nPortNumber = port;
    return address;
}

// ---------------------------------------------------------------------------------------------------------
// The command target

typedef std::vector<std::string> Calls;

// Records each call as "connection 7", "activity 7", "server" or "message 1025", then does what the test has
// set, or reads one frame. It owns the sockets that it is given.
//
// Thread safety: the functions to be called are set before the network thread starts or while it is held.
class RecordingTarget : public CCmdTarget {
public:
    std::function<void(CSocket*)> onConnection;
    std::function<bool(int)> onActivity;
    std::function<bool()> onServerActivity;
    std::function<bool(const MSG&, bool)> onMessage;

    RecordingTarget() = default;
    RecordingTarget(const RecordingTarget&) = delete;
    RecordingTarget& operator=(const RecordingTarget&) = delete;

    ~RecordingTarget() override {
        for (const auto& entry : m_sockets)
            delete entry.second;
    }

    void ClientConnection(CSocket* socket) override {
        {
            Monitor::Lock lock(m_monitor);
            m_sockets[socket->m_fd] = socket;
            m_accepted.push_back(socket->m_fd);
            m_calls.push_back(Text("connection %d", socket->m_fd));
            m_callers.insert(pthread_self());
            m_monitor.NotifyAll();
        }
        if (onConnection)
            onConnection(socket);
    }

    bool ClientActivity(int fd) override {
        Note(Text("activity %d", fd));
        return onActivity ? onActivity(fd) : ReadFrame(fd);
    }

    bool ServerActivity() override {
        Note("server");
        return onServerActivity ? onServerActivity() : ReadFrameFromServer();
    }

    bool RouteMessage(void* record, bool flag) override {
        const MSG message = *static_cast<MSG*>(record);
        if (message.message == END) {
            EndOwnThread();
        } else if (message.message == HOLD) {
            const std::shared_ptr<Held> held = m_held.at(message.wParam);
            held->arrived.Open();
            held->release.Wait();
        } else {
            Note(Text("message %u", message.message));
            return onMessage ? onMessage(message, flag) : false;
        }
        return false;
    }

    // Adds a line of the test's own.
    void Note(const std::string& call) {
        Monitor::Lock lock(m_monitor);
        m_calls.push_back(call);
        m_callers.insert(pthread_self());
        m_monitor.NotifyAll();
    }

    // All calls so far, once there are that many.
    Calls WaitForCalls(size_t count, const Deadline& deadline = Deadline::Long()) {
        Monitor::Lock lock(m_monitor);
        m_monitor.Wait(lock, deadline, [&] { return m_calls.size() >= count; });
        return m_calls;
    }

    bool WaitForCall(const std::string& call, long count = 1, const Deadline& deadline = Deadline::Long()) {
        Monitor::Lock lock(m_monitor);
        return m_monitor.Wait(lock, deadline,
                              [&] { return std::count(m_calls.begin(), m_calls.end(), call) >= count; });
    }

    Calls Seen() { return WaitForCalls(0); }

    // The descriptor of the n-th connection (from 0) once it has been reported.
    int WaitForConnection(size_t n, const Deadline& deadline = Deadline::Long()) {
        Monitor::Lock lock(m_monitor);
        if (m_monitor.Wait(lock, deadline, [&] { return m_accepted.size() > n; }))
            return m_accepted[n];
        ADD_FAILURE() << "the connection was not reported";
        return -1;
    }

    // The descriptors of the connections so far.
    std::vector<int> Accepted() {
        Monitor::Lock lock(m_monitor);
        return m_accepted;
    }

    void Forget() {
        Monitor::Lock lock(m_monitor);
        m_calls.clear();
    }

    // The threads that made the calls.
    std::set<pthread_t> Callers() {
        Monitor::Lock lock(m_monitor);
        return m_callers;
    }

    // The texts of the frames that were read.
    Calls Texts() {
        Monitor::Lock lock(m_monitor);
        return m_texts;
    }

    // The socket of a descriptor, still owned; on the network thread or while it is held.
    CSocket* Socket(int fd) {
        Monitor::Lock lock(m_monitor);
        const auto found = m_sockets.find(fd);
        return found == m_sockets.end() ? nullptr : found->second;
    }

    void DeleteSocket(int fd) {
        CSocket* socket = Socket(fd);
        {
            Monitor::Lock lock(m_monitor);
            m_sockets.erase(fd);
        }
        delete socket;
    }

    // What a server's application does: one frame; false, and the socket deleted, once the peer is gone.
    bool ReadFrame(int fd) {
        CSocket* socket = Socket(fd);
        if (!socket) {
            ADD_FAILURE() << "activity on descriptor " << fd << ", which is no client's";
            return false;
        }
        BSTR text = nullptr;
        const int result = socket->Receive(text, false);
        Keep(text, result);
        if (result < 0)
            DeleteSocket(fd);
        return result >= 0;
    }

    // The same on the client whose thread calls.
    bool ReadFrameFromServer() {
        CClient* client = static_cast<CClient*>(CWinThread::MapIdToWinThread(GetCurrentThreadId()));
        BSTR text = nullptr;
        const int result = client->ReceiveFromServer(text, false);
        Keep(text, result);
        return result >= 0;
    }

private:
    friend class Hold;
    friend testing::AssertionResult EndThread(CWinThread& thread);

    enum : unsigned int { HOLD = 0x7F01, END = 0x7F02 };

    struct Held {
        Gate arrived, release;
    };

    // The clean end of a server's or client's thread: its next select finds a closed descriptor.
    static void EndOwnThread() {
        CWinThread* own = CWinThread::MapIdToWinThread(GetCurrentThreadId());
        close(own->m_readDesc);
        own->m_readDesc = -1;
    }

    void Keep(BSTR& text, int result) {
        if (result > 0) {
            Monitor::Lock lock(m_monitor);
            m_texts.push_back(text);
        }
        SysFreeString(text);
    }

    Monitor m_monitor;
    Calls m_calls;
    Calls m_texts;
    std::set<pthread_t> m_callers;
    std::map<int, CSocket*> m_sockets;
    std::vector<int> m_accepted;
    std::vector<std::shared_ptr<Held>> m_held; // grows while the network thread is not held
};

// Holds a network thread with a RecordingTarget inside RouteMessage, from construction to Release().
class Hold {
public:
    Hold(CWinThread& thread, RecordingTarget& target) : m_held(std::make_shared<RecordingTarget::Held>()) {
        target.m_held.push_back(m_held);
        EXPECT_EQ(
            PostThreadMessage(thread.m_nThreadID, RecordingTarget::HOLD, target.m_held.size() - 1, nullptr),
            1);
        EXPECT_TRUE(m_held->arrived.Wait());
    }

    ~Hold() { Release(); }

    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    void Release() { m_held->release.Open(); }

private:
    std::shared_ptr<RecordingTarget::Held> m_held;
};

// ---------------------------------------------------------------------------------------------------------
// Threads

inline testing::AssertionResult WaitForEnd(CWinThread& thread) {
    const auto limit = static_cast<unsigned long>(Deadline::Long().Remaining().count());
    if (WaitForSingleObject(thread.m_hThread, limit) != WAIT_OBJECT_0)
        return testing::AssertionFailure() << "the thread has not ended in time";
    return testing::AssertionSuccess();
}

// Ends the thread of a CServer or CClient with a RecordingTarget, unless it has ended already.
inline testing::AssertionResult EndThread(CWinThread& thread) {
    if (WaitForSingleObject(thread.m_hThread, 0) == WAIT_OBJECT_0)
        return testing::AssertionSuccess();
    if (PostThreadMessage(thread.m_nThreadID, RecordingTarget::END, 0, nullptr) != 1)
        return testing::AssertionFailure() << "the thread's queue takes no message";
    return WaitForEnd(thread);
}

struct EndAndDelete {
    void operator()(CWinThread* thread) const {
        EXPECT_TRUE(EndThread(*thread));
        delete thread;
    }
};

typedef std::unique_ptr<CServer, EndAndDelete> ServerPtr;
typedef std::unique_ptr<CClient, EndAndDelete> ClientPtr;

// Lets a thread that a constructor resumes run before that constructor returns: the constructing thread,
// having posted an event that contains the given text, waits behind the release of the suspension until the
// new thread has posted another.
class Overtaking {
public:
    Overtaking(const std::string& text, const ExpectedEvent& until)
        : m_hook([this, text, until, self = pthread_self()](const Event& event) {
              if (!pthread_equal(event.thread, self) || m_waited)
                  return;
              m_seen |= event.text.find(text) != std::string::npos;
              if (m_seen && event.type == 23 && event.text.find("Unlock succe") != std::string::npos) {
                  m_waited = true;
                  EXPECT_TRUE(Recorder::WaitFor(until));
              }
          }) {}

    bool Waited() const { return m_waited; }

private:
    bool m_seen = false;
    bool m_waited = false;
    Recorder::Hook m_hook;
};

// Waits until a thread sleeps in select(), for tests that destroy it there. Made before the thread.
class SelectWatch {
public:
    SelectWatch() : m_begun(Call::Select) {
        m_begun.Always().Before([this] {
            m_task.store(static_cast<int>(syscall(SYS_gettid)));
            m_selecting.Open();
        });
    }

    // The thread that began a select() last sleeps; and that is the end of the watch.
    bool WaitAsleep(const Deadline& deadline = Deadline::Long()) {
        if (!m_selecting.Wait(deadline))
            return false;
        const std::string file = Text("/proc/self/task/%d/status", m_task.load());
        std::string before;
        for (int quiet = 0; quiet < 3;) {
            // Asleep, and it has not been awake in between.
            const std::string now = SleepCount(file);
            quiet = !now.empty() && now == before ? quiet + 1 : 0;
            before = now;
            if (deadline.Passed())
                return false;
            if (quiet == 0) // on a busy machine this takes a while, so only as long as the thread has to run
                sched_yield();
        }
        return true;
    }

    void Again() { m_selecting.Close(); }

private:
    // How often the thread has gone to sleep; "" while it is awake.
    static std::string SleepCount(const std::string& file) {
        char status[4096];
        const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        const ssize_t size = fd < 0 ? -1 : read(fd, status, sizeof status - 1);
        if (fd >= 0)
            close(fd);
        if (size <= 0)
            return "";
        status[size] = 0;
        const char* state = strstr(status, "State:\tS");
        const char* switches = strstr(status, "\nvoluntary_ctxt_switches:");
        return state && switches ? std::string(switches + 1, strcspn(switches + 1, "\n")) : "";
    }

    std::atomic<int> m_task{0};
    Gate m_selecting;
    Interpose m_begun;
};

// ---------------------------------------------------------------------------------------------------------
// Descriptors

// Occupies every free descriptor below a number.
class Filler {
public:
    explicit Filler(int below) {
        for (;;) {
            const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (fd < 0)
                ADD_FAILURE() << "cannot occupy descriptors below " << below << ": " << strerror(errno);
            if (fd < 0 || fd >= below) {
                if (fd >= 0)
                    close(fd);
                return;
            }
            m_descriptors.insert(fd);
        }
    }

    ~Filler() {
        for (int fd : m_descriptors)
            close(fd);
    }

    Filler(const Filler&) = delete;
    Filler& operator=(const Filler&) = delete;

    // Gives back the lowest; the next descriptor that is made has its number.
    int FreeLowest() {
        const int fd = *m_descriptors.begin();
        m_descriptors.erase(m_descriptors.begin());
        close(fd);
        return fd;
    }

private:
    std::set<int> m_descriptors;
};

// Lets the process have descriptors up to a number while it lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t count) {
        getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit wanted = m_before;
        wanted.rlim_cur = std::max(wanted.rlim_cur, count);
        m_raised = wanted.rlim_cur <= wanted.rlim_max && setrlimit(RLIMIT_NOFILE, &wanted) == 0;
    }

    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }

    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    bool Raised() const { return m_raised; }

private:
    rlimit m_before;
    bool m_raised;
};

// Whether select() takes more than 1024 descriptors here: an emulator may end the process instead.
inline bool SelectTakesHighDescriptors() {
    const pid_t child = fork();
    if (child == 0) {
        unsigned long words[64] = {};
        timeval now = {0, 0};
        const bool taken = select(1100, reinterpret_cast<fd_set*>(words), nullptr, nullptr, &now) == 0;
        syscall(SYS_exit_group, taken ? 0 : 1); // and nothing of a sanitizer
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

inline bool WaitReadable(int fd) {
    pollfd poller = {fd, POLLIN, 0};
    return poll(&poller, 1, static_cast<int>(Deadline::Long().Remaining().count())) == 1;
}

// ---------------------------------------------------------------------------------------------------------
// Events

// What the calling thread has posted, with the events of its mutexes.
inline std::vector<Event> OwnEvents() {
    const pthread_t self = pthread_self();
    return Recorder::Events([self](const Event& event) { return pthread_equal(event.thread, self) != 0; });
}

// What a thread has posted that begins with a prefix.
inline std::vector<Event> EventsOf(pthread_t thread, const std::string& prefix) {
    std::vector<Event> events = Recorder::EventsOfThread(thread);
    events.erase(
        std::remove_if(events.begin(), events.end(),
                       [&](const Event& event) { return event.text.compare(0, prefix.size(), prefix) != 0; }),
        events.end());
    return events;
}

inline std::vector<Event> First(size_t count, std::vector<Event> events) {
    if (events.size() > count)
        events.erase(events.begin() + static_cast<std::ptrdiff_t>(count), events.end());
    return events;
}

// What a CWinThread's destructor posts after the thread was registered under id.
inline std::vector<ExpectedEvent> ThreadDestroyed(unsigned int id) {
    return {{11, 9, "CWinThread : dtor called"},
            {11, 9, Text("CWinThread::RemoveThread : Thread = 0x%x removed from map.", id)},
            {11, 9, Text("CWinThread::~CWinThread(,,,,) : Completed thread id = 0x%x", id)}};
}

// Without the id, for a thread whose constructor has thrown.
inline std::vector<ExpectedEvent> ThreadDestroyed() {
    return {{11, 9, "CWinThread : dtor called"},
            {11, 9, Like("CWinThread::RemoveThread : Thread = 0x* removed from map.")},
            {11, 9, Like("CWinThread::~CWinThread(,,,,) : Completed thread id = 0x*")}};
}

inline std::vector<ExpectedEvent> operator+(std::vector<ExpectedEvent> first,
                                            const std::vector<ExpectedEvent>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Calls that a function which does nothing would not make. Other calls may be a sanitizer's.
inline std::vector<Call> Traffic() {
    return {Call::Close, Call::Read, Call::Write, Call::Recv, Call::Send, Call::Select, Call::Accept};
}

// ---------------------------------------------------------------------------------------------------------
// Failed construction

// What must not change when a constructor throws; checked at its end. Threads are waited for by the test
// program when the case is over.
class NothingLeft {
public:
    NothingLeft() : m_descriptors(Resources::Descriptors()), m_registered(RegisteredThreads()) {}

    ~NothingLeft() {
        EXPECT_EQ(Resources::Descriptors(), m_descriptors);
        EXPECT_EQ(RegisteredThreads(), m_registered);
    }

    NothingLeft(const NothingLeft&) = delete;
    NothingLeft& operator=(const NothingLeft&) = delete;

private:
    std::map<int, std::string> m_descriptors;
    size_t m_registered;
};

// The text of the SocketException that a construction throws.
template <class Construct> const char* SocketExceptionOf(Construct construct) {
    try {
        delete construct();
    } catch (SocketException error) {
        return error.Description();
    }
    return "nothing was thrown";
}

// The texts of the error object that a construction throws, until the next call.
template <class Construct> const char* LogExceptionOf(Construct construct) {
    static char texts[256];
    strcpy(texts, "nothing was thrown");
    try {
        delete construct();
    } catch (CLogException* error) {
        const std::unique_ptr<CLogException> owned(error);
        snprintf(texts, sizeof texts, "%s: %s%s", error->Where(), error->What(), error->Extra());
    }
    return texts;
}

// Waits until no other threads are left than these.
inline void WaitForThreads(const std::set<int>& allowed) {
    Bypass bypass;
    const Deadline deadline = Deadline::Long();
    for (;;) {
        const std::set<int> now = Resources::Threads();
        if (std::includes(allowed.begin(), allowed.end(), now.begin(), now.end()))
            return;
        if (deadline.Passed()) {
            ADD_FAILURE() << "a thread has not gone";
            return;
        }
        sched_yield();
    }
}

// Constructs an object once before pipe() is made to fail or is recorded: when a sanitizer sees a class for
// the first time it calls pipe() itself.
template <class Construct> void IntroduceToSanitizer(Construct construct) {
    const std::set<int> threads = Resources::Threads();
    {
        std::unique_ptr<CWinThread, EndAndDelete> object(construct());
        object->ResumeThread(); // unless it has been
    }
    WaitForThreads(threads);
}

// How many objects a construction leaves that fails because of a call, once its thread is gone; the exception
// is not one of them.
template <class Construct> int ObjectsLeftBy(Construct construct, Call call) {
    const std::set<int> threads = Resources::Threads();
    Interpose fail(call);
    fail.OnThisThread().Fail(EAGAIN);
    Recorder::Pause();
    Interpose made(Call::New), freed(Call::Delete); // which only count
    try {
        delete construct();
        ADD_FAILURE() << "nothing was thrown";
    } catch (SocketException) {
    } catch (CLogException* error) {
        Bypass hosts; // it has made the object, unseen
        delete error;
    }
    WaitForThreads(threads);
    const int left = made.Seen() - freed.Seen();
    Recorder::Resume();
    return left;
}

#endif
