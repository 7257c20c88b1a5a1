// The fault matrix: each place where the library calls the system, with what can go wrong there, and what
// becomes of it. The table is ROWS, below; docs/reliability.md shows it.
#include "FaultMatrix.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <set>
#include <sstream>
#include <utility>

#include <Windows/MemFile.h>
#include <Windows/MemoryException.h>
#include <Windows/Mutex.h>
#include <Windows/Trace.h>
#include <Windows/XString.h>

#include "NetworkFixtures.h"

// ---------------------------------------------------------------------------------------------------------
// Faults

namespace {

// The name of the C function in a site's call.
std::string FunctionName(const std::string& call) { return call.substr(0, call.find_first_of(" (")); }

Call CallOf(const char* call) {
    static const std::map<std::string, Call> calls = {
        {"pipe", Call::Pipe},
        {"fcntl", Call::Fcntl},
        {"ioctl", Call::Ioctl},
        {"select", Call::Select},
        {"read", Call::Read},
        {"write", Call::Write},
        {"close", Call::Close},
        {"dup", Call::Dup},
        {"socket", Call::Socket},
        {"setsockopt", Call::Setsockopt},
        {"bind", Call::Bind},
        {"listen", Call::Listen},
        {"accept", Call::Accept},
        {"connect", Call::Connect},
        {"recv", Call::Recv},
        {"send", Call::Send},
        {"inet_pton", Call::InetPton},
        {"pthread_create", Call::PthreadCreate},
        {"pthread_detach", Call::PthreadDetach},
        {"pthread_cancel", Call::PthreadCancel},
        {"pthread_mutex_init", Call::MutexInit},
        {"pthread_mutexattr_settype", Call::MutexattrSettype},
        {"pthread_mutex_lock", Call::MutexLock},
        {"pthread_mutex_trylock", Call::MutexTrylock},
        {"pthread_mutex_unlock", Call::MutexUnlock},
        {"pthread_cond_wait", Call::CondWait},
        {"pthread_cond_timedwait", Call::CondTimedwait},
        {"pthread_cond_broadcast", Call::CondBroadcast},
        {"pthread_cond_signal", Call::CondSignal},
        {"sched_yield", Call::SchedYield},
        {"sleep", Call::Sleep},
        {"fopen", Call::Fopen},
        {"vsnprintf", Call::Vsnprintf},
        {"malloc", Call::Malloc},
        {"new", Call::New},
        {"new[]", Call::ArrayNew},
    };
    return calls.at(FunctionName(call));
}

bool IsOpen(int fd) {
    const Bypass bypass;
    return fcntl(fd, F_GETFD) != -1;
}

bool IsBlocking(int fd) {
    const Bypass bypass;
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
    return text;
}

// Where the order of a failed switch of the mode and the lines around it is nobody's business.
bool IsOfMode(const std::string& text) { return text.find("Failed to set blocking mode") == 0; }

} // namespace

Armed::Armed(const Row& row, pthread_t thread, std::function<void()> perform) {
    const Fault& fault = row.fault;
    if (fault.kind == Fault::Natural)
        return;
    const Call call = CallOf(row.call);
    const auto choose = [&](Interpose& script) {
        script.OnThread(thread);
        if (row.nth == 0)
            script.Always();
        else
            script.OnCall(row.nth);
    };
    if (fault.kind == Fault::Unpaired) {
        m_counterpart =
            std::make_unique<Interpose>(call == Call::MutexLock ? Call::MutexUnlock : Call::MutexLock);
        choose(*m_counterpart);
        m_counterpart->Return(0);
    }
    m_script = std::make_unique<Interpose>(call);
    m_script->When([this](const CallRecord& record) {
        m_fd = record.fd;
        return true;
    });
    choose(*m_script);
    switch (fault.kind) {
    case Fault::Answers:
        m_script->Return(fault.value);
        break;
    case Fault::Short:
        m_script->Short(static_cast<size_t>(fault.value));
        break;
    case Fault::Reports:
        if (!perform)
            perform = [this] { close(m_fd); };
        m_script->Before(std::move(perform)).Fail(fault.value);
        break;
    default:
        m_script->Fail(fault.value);
    }
}

int Armed::Acted() const { return m_script ? m_script->Acted() : 1; }

void Trial::Took(std::vector<Event> events, int acted) {
    m_events = std::move(events);
    m_acted = acted;
}

void Trial::Check() const {
    const auto filled = [&](std::string text) {
        text = Replaced(text, "<fd>", std::to_string(fd));
        text = Replaced(text, "<errno>", std::to_string(m_row.fault.value));
        return Replaced(text, "<reason>", strerror(m_row.fault.value));
    };
    std::vector<ExpectedEvent> lines;
    for (const char* line : m_row.lines) {
        int type = 0, severity = 0, length = 0;
        ASSERT_EQ(sscanf(line, "%d/%d %n", &type, &severity, &length), 2) << line;
        lines.push_back({type, severity, Like(filled(line + length))});
    }
    std::vector<Event> events = m_events;
    if (!mutexEvents)
        events.erase(std::remove_if(events.begin(), events.end(),
                                    [](const Event& event) { return event.type == LogTypeMutex; }),
                     events.end());
    std::stable_partition(events.begin(), events.end(),
                          [](const Event& event) { return IsOfMode(event.text); });
    std::stable_partition(lines.begin(), lines.end(),
                          [](const ExpectedEvent& line) { return IsOfMode(line.text.Shown()); });
    EXPECT_GE(m_acted, 1) << "the call was not made";
    EXPECT_EQ(m_result, filled(m_row.result));
    EXPECT_TRUE(SameEvents(events, lines));
    EXPECT_EQ(m_state, m_row.state);
}

namespace {

// ---------------------------------------------------------------------------------------------------------
// Sockets

// A socket of the library's, connected to a peer.
struct Linked {
    explicit Linked(bool blocking = true) : fd(pair.Release()), socket(new CSocket) {
        socket->m_fd = fd;
        socket->SetBlockingMode(blocking);
    }

    void Arrive(const std::string& bytes) {
        EXPECT_TRUE(pair.peer.Send(bytes));
        EXPECT_TRUE(WaitForBytes(fd, bytes.size()));
    }

    bool Sends() {
        char text[] = "x";
        return socket->Send(text);
    }

    ConnectedPair pair;
    const int fd;
    const std::unique_ptr<CSocket> socket;
};

// Whether there is a descriptor, and its mode, which the object knows: a switch to it calls nothing.
void TellState(Trial& trial, CSocket& socket, int fd) {
    if (socket.m_fd == -1) {
        trial.Fact(IsOpen(fd) ? "forgotten, but open" : "closed");
        return;
    }
    const bool blocking = IsBlocking(socket.m_fd);
    CallLog calls({Call::Fcntl});
    socket.SetBlockingMode(blocking);
    const char* known = calls.Count(Call::Fcntl) == 0 ? "" : " unknown to the object";
    trial.Fact(std::string("open, ") + (blocking ? "blocking" : "non-blocking") + known);
}

// The lowest descriptor that is free: a socket that was made and closed again had its number.
int LowestFree() {
    const Bypass bypass;
    const int fd = dup(0);
    close(fd);
    return fd;
}

void CreateSocket(Trial& t) {
    const int fd = LowestFree();
    CSocket socket;
    bool created = false;
    t.Run([&] { created = socket.Create(); });
    t.Result(created);
    TellState(t, socket, fd);
    t.WorksThen(socket.Create());
}
const Operation CREATE = {"`Create`", CreateSocket};

const Operation CREATE_WITHOUT_OPTION = {"`Create` whose option is refused", [](Trial& t) {
                                             Interpose refuse(Call::Setsockopt);
                                             refuse.OnThisThread().OnCall(1).Fail(ENOPROTOOPT);
                                             CreateSocket(t);
                                         }};

const Operation CLOSE = {"`Close`", [](Trial& t) {
                             Linked link;
                             int result = 0;
                             t.Run([&] { result = link.socket->Close(); });
                             t.Result(result);
                             TellState(t, *link.socket, link.fd);
                             t.WorksThen(link.socket->Create());
                         }};

const Operation DESTROY_SOCKET = {"destroying a socket", [](Trial& t) {
                                      ConnectedPair pair;
                                      const int fd = pair.Release();
                                      auto socket = std::make_unique<CSocket>();
                                      socket->m_fd = fd;
                                      t.Run([&] { socket.reset(); });
                                      t.Result("-");
                                      t.Fact(IsOpen(fd) ? "open" : "closed");
                                  }};

template <bool blocking> void SwitchMode(Trial& t) {
    Linked link(!blocking);
    bool switched = false;
    t.Run([&] { switched = link.socket->SetBlockingMode(blocking); });
    t.Result(switched);
    TellState(t, *link.socket, link.fd);
    t.WorksThen(link.socket->SetBlockingMode(blocking) && IsBlocking(link.fd) == blocking);
}
const Operation TO_NON_BLOCKING = {"`SetBlockingMode(false)`", SwitchMode<false>};
const Operation TO_BLOCKING = {"`SetBlockingMode(true)`", SwitchMode<true>};

const Operation IS_DATA_AVAILABLE = {"`IsDataAvailable` with a byte there", [](Trial& t) {
                                         Linked link;
                                         link.Arrive("x");
                                         bool available = false, closed = false;
                                         t.Run([&] { available = link.socket->IsDataAvailable(closed); });
                                         t.Result(std::string(available ? "true" : "false") +
                                                  (closed ? ", closed" : ", not closed"));
                                         TellState(t, *link.socket, link.fd);
                                         if (link.socket->m_fd != -1)
                                             t.WorksThen(link.socket->IsDataAvailable());
                                     }};

// Whether the next frame is received; what is left of the one before is lost.
void TellNextFrame(Trial& t, Linked& link) {
    if (link.socket->m_fd == -1)
        return;
    {
        const Bypass bypass;
        char rest[64];
        while (recv(link.fd, rest, sizeof rest, MSG_DONTWAIT) > 0) {
        }
    }
    link.Arrive(Prefix(7));
    t.WorksThen(link.socket->ReceiveLength(false) == 7);
}

template <bool wait, unsigned int timeoutMs, bool there> void ReceiveLength(Trial& t) {
    Linked link;
    t.fd = link.fd;
    if (there)
        link.Arrive(Prefix(3));
    int length = 0;
    t.Run([&] { length = link.socket->ReceiveLength(wait, timeoutMs); });
    t.Result(length);
    TellState(t, *link.socket, link.fd);
    TellNextFrame(t, link);
}
const Operation LENGTH = {"`ReceiveLength(false)` of a prefix that is there", ReceiveLength<false, 0, true>};
const Operation LENGTH_WAITING = {"`ReceiveLength(true, 20)` with nothing there",
                                  ReceiveLength<true, 20, false>};

const Operation LENGTH_LATE = {"`ReceiveLength(true, 0)` of a prefix that comes before it waits",
                               [](Trial& t) {
                                   Linked link;
                                   Interpose late(Call::Recv);
                                   late.OnThisThread().OnCall(2).After([&] { link.Arrive(Prefix(3)); });
                                   int length = 0;
                                   t.Run([&] { length = link.socket->ReceiveLength(true, 0); });
                                   t.Result(length);
                                   TellState(t, *link.socket, link.fd);
                                   TellNextFrame(t, link);
                               }};

const Operation LENGTH_REST = {"`ReceiveLength(false)` of a prefix of which 2 bytes come first",
                               [](Trial& t) {
                                   Linked link;
                                   link.Arrive(Prefix(3));
                                   Interpose part(Call::Recv);
                                   part.OnThisThread().OnCall(2).Short(2);
                                   int length = 0;
                                   t.Run([&] { length = link.socket->ReceiveLength(false, 0); });
                                   t.Result(length);
                                   TellState(t, *link.socket, link.fd);
                                   TellNextFrame(t, link);
                               }};

template <bool blocking> void ReceiveBlock(Trial& t) {
    Linked link(blocking);
    t.fd = link.fd;
    link.Arrive(Frame("abc"));
    ReceivedDataBlock block;
    int length = 0;
    t.Run([&] { length = link.socket->ReceiveBlock(block, false, 0); });
    t.Result(length);
    t.Fact(length == 3 && block.m_nLength == 3      ? "block filled"
           : block.m_nLength == 0 && !block.m_pData ? "block empty"
                                                    : "block odd");
    TellState(t, *link.socket, link.fd);
    delete[] block.m_pData;
    TellNextFrame(t, link);
}
const Operation RECEIVE_BLOCK = {"`ReceiveBlock` of \"abc\"", ReceiveBlock<true>};
const Operation RECEIVE_BLOCK_NB = {"`ReceiveBlock` of \"abc\", non-blocking", ReceiveBlock<false>};

template <bool blocking> void ReceiveText(Trial& t) {
    Linked link(blocking);
    t.fd = link.fd;
    link.Arrive(Frame("abc"));
    BSTR text = SysAllocString("before");
    int length = 0;
    t.Run([&] { length = link.socket->Receive(text, false, 0); });
    t.Result(length);
    t.Fact(!text                         ? "text NULL"
           : strcmp(text, "before") == 0 ? "text as before"
           : strcmp(text, "abc") == 0    ? "text new"
                                         : "text odd");
    SysFreeString(text);
    TellState(t, *link.socket, link.fd);
    TellNextFrame(t, link);
}
const Operation RECEIVE = {"`Receive` of \"abc\"", ReceiveText<true>};
const Operation RECEIVE_NB = {"`Receive` of \"abc\", non-blocking", ReceiveText<false>};

template <bool (*send)(CSocket& socket, std::string& bytes), bool blocking, size_t length>
void SendFrame(Trial& t) {
    Linked link(blocking);
    t.fd = link.fd;
    std::string bytes = length == 0 ? "abc" : std::string(length, 'x');
    Background reader([&] { link.pair.peer.ReadAll(); });
    bool sent = false;
    t.Run([&] { sent = send(*link.socket, bytes); });
    t.Result(sent);
    TellState(t, *link.socket, link.fd);
    t.WorksThen(link.Sends());
    link.socket->Close();
    EXPECT_TRUE(reader.Join());
}
bool SendText(CSocket& socket, std::string& bytes) { return socket.Send(&bytes[0]); }
bool SendBlock(CSocket& socket, std::string& bytes) {
    return socket.SendBlock(reinterpret_cast<unsigned char*>(&bytes[0]), bytes.size());
}
bool SendFile(CSocket& socket, std::string& bytes) {
    CMemFile file(64U);
    file.Write(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return socket.SendMemFileWithLengthPrefix(file);
}
const Operation SEND = {"`Send(\"abc\")`", SendFrame<SendText, true, 0>};
const Operation SEND_NB = {"`Send(\"abc\")`, non-blocking", SendFrame<SendText, false, 0>};
const Operation SEND_LONG = {"`Send` of 32,765 bytes", SendFrame<SendText, true, 32765>};
const Operation SEND_BLOCK = {"`SendBlock(\"abc\")`", SendFrame<SendBlock, true, 0>};
const Operation SEND_BLOCK_LONG = {"`SendBlock` of 32,765 bytes", SendFrame<SendBlock, true, 32765>};
const Operation SEND_FILE = {"`SendMemFileWithLengthPrefix`", SendFrame<SendFile, true, 0>};

// ---------------------------------------------------------------------------------------------------------
// Server and client sockets

template <class Socket> void Construct(Trial& t) {
    const int fd = LowestFree();
    alignas(Socket) static unsigned char place[sizeof(Socket)];
    Socket* socket = nullptr;
    const char* thrown = nullptr;
    t.Run([&] {
        try {
            socket = new (place) Socket;
        } catch (SocketException& exception) {
            thrown = exception.Description();
        }
    });
    t.Result(thrown ? std::string("throws SocketException: ") + thrown : "constructed");
    if (socket) {
        TellState(t, *socket, fd);
        socket->~Socket();
    } else {
        t.Fact(IsOpen(fd) ? "open" : "closed");
    }
    Socket next;
    t.WorksThen(next.m_fd != -1);
}
const Operation SERVER_SOCKET = {"constructing a `ServerSocket`", Construct<ServerSocket>};
const Operation CLIENT_SOCKET = {"constructing a `CClientSocket`", Construct<CClientSocket>};

int PortOf(CSocket& socket) { return ntohs(LocalAddress(socket.m_fd).sin_port); }

const Operation BIND = {"`Bind(0)`", [](Trial& t) {
                            ServerSocket socket;
                            bool bound = false;
                            t.Run([&] { bound = socket.Bind(0); });
                            t.Result(bound);
                            TellState(t, socket, socket.m_fd);
                            t.WorksThen(socket.Bind(0));
                        }};

const Operation LISTEN = {"`Listen`", [](Trial& t) {
                              ServerSocket socket;
                              EXPECT_TRUE(socket.Bind(0));
                              bool listens = false;
                              t.Run([&] { listens = socket.Listen(); });
                              t.Result(listens);
                              TellState(t, socket, socket.m_fd);
                              t.WorksThen(socket.Listen());
                          }};

const Operation ACCEPT = {"`Accept` with a connection waiting", [](Trial& t) {
                              ServerSocket socket;
                              EXPECT_TRUE(socket.Bind(0) && socket.Listen());
                              const Connection peer = ConnectTo(PortOf(socket));
                              EXPECT_TRUE(WaitReadable(socket.m_fd));
                              t.fd = socket.m_fd;
                              std::unique_ptr<CSocket> accepted;
                              Interpose spare(Call::Close); // of the descriptor 0, which is the test's
                              spare.OnThisThread().OnDescriptor(0).Return(0);
                              t.Run([&] { accepted.reset(socket.Accept()); });
                              t.Result(accepted ? "a socket" : "NULL");
                              if (spare.Acted() > 0)
                                  t.Fact("descriptor 0 closed");
                              TellState(t, socket, socket.m_fd);
                              accepted.reset(socket.Accept());
                              t.WorksThen(accepted != nullptr);
                          }};

template <bool blocking> void ConnectSocket(Trial& t) {
    ListenSocket listener;
    CClientSocket socket;
    socket.SetBlockingMode(blocking);
    bool connected = false;
    const std::string host = "127.0.0.1";
    t.Run([&] { connected = socket.Connect(host, listener.Port()); });
    t.Result(connected);
    TellState(t, socket, socket.m_fd);
    if (connected)
        t.WorksThen(listener.Accept().IsOpen());
    else
        t.WorksThen(socket.Connect(host, listener.Port()));
}
const Operation CONNECT = {"`Connect`", ConnectSocket<true>};
const Operation CONNECT_NB = {"`Connect`, non-blocking", ConnectSocket<false>};

// ---------------------------------------------------------------------------------------------------------
// Threads

template <class Tag, auto Member> struct Reveal {
    friend auto Revealed(Tag) { return Member; }
};
struct OverflowHead {
    friend auto Revealed(OverflowHead);
};
template struct Reveal<OverflowHead, &CWinThread::m_pOverflowHead>;

unsigned int Nothing(void*) { return 0; }

CWinThread* MakeDefault() { return new CWinThread; }
CWinThread* MakeSuspended() { return new CWinThread(Nothing, nullptr); }
CWinThread* Begin() { return AfxBeginThread(Nothing, nullptr, 0, 0, CREATE_SUSPENDED); }

// Makes a thread object that is suspended. Whatever is thrown is freed only behind the fault.
template <CWinThread* (*make)()> void MakeThread(Trial& t) {
    const size_t registered = RegisteredThreads();
    const auto descriptors = Resources::Descriptors();
    IntroduceToSanitizer([] { return MakeSuspended(); });
    std::unique_ptr<CWinThread> thread;
    CLogException* thrown = nullptr;
    t.Run([&] {
        try {
            thread.reset(make());
        } catch (CLogException* error) {
            thrown = error;
        }
    });
    const std::unique_ptr<CLogException> owned(thrown);
    if (thrown)
        t.Result(std::string("throws CLogException: ") + thrown->Where() + ", " + thrown->What());
    else
        t.Result(thread ? "an object" : "NULL");
    if (thread) {
        t.Fact(IsBlocking(thread->m_writeDesc) ? "write end blocking" : "write end not blocking");
        t.Fact(WaitForSingleObject(thread->m_hThread, 0) == WAIT_OBJECT_0 ? "ended" : "has not ended");
        thread->ResumeThread();
        t.WorksThen(WaitForEnd(*thread));
    } else {
        t.Fact(RegisteredThreads() == registered && Resources::Descriptors() == descriptors
                   ? "nothing left"
                   : "something left");
        thread.reset(MakeSuspended());
        thread->ResumeThread();
        t.WorksThen(WaitForEnd(*thread));
    }
}
const Operation MAKE_DEFAULT = {"constructing a `CWinThread`", MakeThread<MakeDefault>};
const Operation MAKE_SUSPENDED = {"constructing a `CWinThread` with a function", MakeThread<MakeSuspended>};
const Operation BEGIN = {"`AfxBeginThread`, suspended", MakeThread<Begin>};

// The thread runs at once where it could not be suspended: whether it works then is asked of its handle.
const Operation MAKE_UNSUSPENDED = {"constructing a `CWinThread` with a function", [](Trial& t) {
                                        std::unique_ptr<CWinThread> thread;
                                        t.Run([&] { thread.reset(MakeSuspended()); });
                                        t.Result(thread ? "an object" : "NULL");
                                        t.Fact(WaitForEnd(*thread) ? "runs at once" : "does not run");
                                    }};

void DestroyThread(Trial& t, bool exited) {
    const auto before = Resources::Descriptors();
    std::unique_ptr<CWinThread> thread(MakeSuspended());
    if (exited) {
        const std::set<int> all = Resources::Threads();
        thread->ResumeThread();
        EXPECT_TRUE(WaitForEnd(*thread));
        const Deadline deadline = Deadline::Long();
        while (Resources::Threads().size() >= all.size() && !deadline.Passed())
            sched_yield();
    }
    const pthread_t id = thread->m_nThreadID;
    if (strcmp(t.TheRow().call, "pthread_detach") == 0)
        t.perform = [id] { pthread_detach(id); };
    if (strcmp(t.TheRow().call, "pthread_cancel") == 0)
        t.perform = [id] { pthread_cancel(id); };
    t.Run([&] { thread.reset(); });
    t.Result("-");
    t.Fact(Resources::Descriptors() == before ? "queue closed" : "descriptors left");
    t.Fact(CWinThread::MapIdToWinThread(id) ? "still registered" : "not registered");
    thread.reset(MakeSuspended());
    thread->ResumeThread();
    t.WorksThen(WaitForEnd(*thread));
}
const Operation DESTROY_SUSPENDED = {"destroying a suspended thread",
                                     [](Trial& t) { DestroyThread(t, false); }};
const Operation DESTROY_EXITED = {"destroying a thread that has ended",
                                  [](Trial& t) { DestroyThread(t, true); }};

// A thread that is inside its object's code when the object is destroyed, and leaves when it is waited for.
const Operation DESTROY_ENDING = {
    "destroying a thread that is about to end", [](Trial& t) {
        Gate waited;
        std::unique_ptr<CWinThread> thread(MakeSuspended());
        const pthread_t id = thread->m_nThreadID;
        Recorder::Hook hook([&](const Event& event) {
            if (pthread_equal(event.thread, id) && event.type == 11)
                waited.Wait();
        });
        Recorder::Clear();
        thread->ResumeThread();
        EXPECT_TRUE(Recorder::WaitFor({11, 9, Like("CWinThread::Body() -  Exiting m_nThreadID 0x*")}));
        t.perform = [&] { waited.Open(); };
        t.Run([&] { thread.reset(); });
        t.Result("-");
        t.Fact(CWinThread::MapIdToWinThread(id) ? "still registered" : "not registered");
    }};

// ---------------------------------------------------------------------------------------------------------
// Queues

// The queue of a thread that never runs.
class Queue : public CWinThread {
public:
    Queue() : CWinThread(Nothing, nullptr) {}
    ~Queue() override {
        while (HasParked()) { // the list moves only behind a message that is read
            PostMessage(1, 0, nullptr);
            Take();
        }
    }

    bool HasParked() { return this->*Revealed(OverflowHead()) != nullptr; }
    int Waiting() {
        int count = -1;
        ioctl(m_readDesc, FIONREAD, &count);
        return count;
    }
    unsigned int Take() {
        MSG message;
        return PeekMessage(&message, 0, 0) ? message.message : 0;
    }

    // What is in the pipe and on the list.
    std::string State() {
        const int count = Waiting();
        const int size = static_cast<int>(sizeof(MSG));
        return (count % size ? "part of a message" : std::to_string(count / size)) + " in the pipe, " +
               (HasParked() ? "some parked" : "none parked");
    }
};

// The pipe is full, as it seems, when so many writes begin.
void PostTo(Trial& t, int fullWrites) {
    Queue queue;
    int posted = 0;
    bool thrown = false;
    {
        Interpose full(Call::Write);
        full.OnThisThread().When([&](const CallRecord&) { return fullWrites-- > 0; }).Always();
        if (fullWrites > 0)
            full.Fail(EAGAIN);
        t.Run([&] {
            try {
                posted = queue.PostMessage(1, 2, nullptr);
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
        });
    }
    if (thrown)
        t.Result("throws bad_alloc");
    else
        t.Result(posted);
    t.Fact(queue.State());
    if (queue.Waiting() % static_cast<int>(sizeof(MSG)) != 0)
        return;
    EXPECT_EQ(queue.PostMessage(9, 0, nullptr), 1);
    bool arrived = false;
    while (const unsigned int message = queue.Take())
        arrived |= message == 9;
    t.WorksThen(arrived);
}
const Operation POST = {"`PostMessage`", [](Trial& t) { PostTo(t, 0); }};
const Operation POST_FULL = {"`PostMessage` to a pipe that was full", [](Trial& t) { PostTo(t, 1); }};
const Operation POST_PARKING = {"`PostMessage` to a pipe that stays full", [](Trial& t) { PostTo(t, 2); }};

const Operation LOCKOUT = {"`LockoutMsgQueue`", [](Trial& t) {
                               Queue queue;
                               const int fd = queue.m_writeDesc;
                               int result = 0;
                               t.Run([&] { result = queue.LockoutMsgQueue(); });
                               t.Result(result);
                               t.Fact(queue.m_writeDesc == -1 && !IsOpen(fd) ? "write end closed" : "open");
                               t.Fact(queue.PostMessage(1, 0, nullptr) == 0 ? "refuses messages"
                                                                            : "takes messages");
                           }};

enum class Held { Nothing, Message, ParkedMessage };

// Reads with what is there: nothing, a message, or that and a parked one.
template <class Read> void ReadFrom(Trial& t, Held held, Read read) {
    Queue queue;
    if (held != Held::Nothing) {
        EXPECT_EQ(queue.PostMessage(1, 0, nullptr), 1);
    }
    if (held == Held::ParkedMessage) {
        Interpose full(Call::Write);
        full.OnThisThread().Always().Fail(EAGAIN);
        EXPECT_EQ(queue.PostMessage(2, 0, nullptr), 1);
    }
    MSG message;
    message.message = 77;
    int result = -1;
    t.Run([&] { result = read(queue, &message); });
    t.Result(result);
    t.Fact(message.message == 77 ? "message untouched" : "message " + std::to_string(message.message));
    t.Fact(queue.State());
    if (queue.Waiting() % static_cast<int>(sizeof(MSG)) != 0)
        return;
    while (queue.Take()) {
    }
    EXPECT_EQ(queue.PostMessage(9, 0, nullptr), 1);
    t.WorksThen(queue.GetMessage(&message, 0, 0, 1000, false) == 1 && message.message == 9);
}
template <unsigned int timeoutMs, Held held> void Get(Trial& t) {
    ReadFrom(t, held, [](Queue& queue, MSG* to) { return queue.GetMessage(to, 0, 0, timeoutMs, true); });
}
template <Held held> void Peek(Trial& t) {
    ReadFrom(t, held, [](Queue& queue, MSG* to) { return queue.PeekMessage(to, 0, 0); });
}
const Operation GET = {"`GetMessage`, blocking, of a message that is there", Get<0, Held::Message>};
const Operation GET_TIMED = {"`GetMessage`, 1000 ms, of a message that is there", Get<1000, Held::Message>};
const Operation GET_WAITING = {"`GetMessage`, 20 ms, with nothing there", Get<20, Held::Nothing>};
const Operation GET_PARKED = {"`GetMessage` while a message is parked", Get<0, Held::ParkedMessage>};
const Operation GET_INTERRUPTED = {"`GetMessage`, 20 ms, whose wait a signal interrupts", [](Trial& t) {
                                       Interpose interrupt(Call::Select);
                                       interrupt.OnThisThread().OnCall(1).Fail(EINTR);
                                       Get<20, Held::Nothing>(t);
                                   }};
const Operation PEEK = {"`PeekMessage` of a message that is there", Peek<Held::Message>};
const Operation PEEK_PARKED = {"`PeekMessage` while a message is parked", Peek<Held::ParkedMessage>};

// ---------------------------------------------------------------------------------------------------------
// CServer and CClient

// Runs a loop's thread into a fault: holds it, prepares, lets it go, and waits until the call that shows that
// the loop goes on, or until its end.
template <class Prepare>
void RunLoop(Trial& t, CWinThread& thread, RecordingTarget& target, const std::string& sign,
             Prepare prepare) {
    Hold hold(thread, target);
    target.Forget();
    prepare();
    Recorder::Clear();
    const Armed armed(t.TheRow(), thread.m_nThreadID);
    hold.Release();
    const Deadline deadline = Deadline::Long();
    const auto goesOn = [&] {
        for (const std::string& call : target.Seen())
            if (call.compare(0, sign.size(), sign) == 0)
                return true;
        return false;
    };
    while (!goesOn() && WaitForSingleObject(thread.m_hThread, 1) != WAIT_OBJECT_0 && !deadline.Passed()) {
    }
    const bool ended = WaitForSingleObject(thread.m_hThread, 0) == WAIT_OBJECT_0;
    t.Result(ended ? "the loop ends" : "the loop goes on");
    std::vector<Event> events = Recorder::EventsOfThread(thread.m_nThreadID);
    events.erase(std::remove_if(events.begin(), events.end(),
                                [](const Event& event) {
                                    return event.type == LogTypeTraffic &&
                                           event.text.compare(0, 13, "CClient::Main") != 0;
                                }),
                 events.end());
    // What it does after the sign is not looked at.
    while (!ended && !events.empty() &&
           events.back().text.find(sign == "connection" ? "established" : "Message on thread's") ==
               std::string::npos)
        events.pop_back();
    t.Took(std::move(events), armed.Acted());
}

const unsigned int LAST = 5;

const Operation SERVER_QUEUE = {"a server's loop with a message", [](Trial& t) {
                                    RecordingTarget target;
                                    ServerPtr server(new CServer(0, target));
                                    RunLoop(t, *server, target, "message 5", [&] {
                                        PostThreadMessage(server->m_nThreadID, LAST, 0, nullptr);
                                    });
                                    t.Fact(server->IsListening() ? "listening" : "not listening");
                                    t.Fact(Listener(*server) != -1 ? "socket open" : "socket closed");
                                }};

const Operation SERVER_CONNECTION = {"a server's loop with a connection", [](Trial& t) {
                                         RecordingTarget target;
                                         ServerPtr server(new CServer(0, target));
                                         t.fd = Listener(*server);
                                         Connection peer;
                                         RunLoop(t, *server, target, "connection", [&] {
                                             peer = ConnectTo(PortOf(*server));
                                             EXPECT_TRUE(WaitReadable(Listener(*server)));
                                         });
                                         t.Fact(server->IsListening() ? "listening" : "not listening");
                                         t.Fact(target.Accepted().size() == 1 ? "connection accepted"
                                                                              : "not accepted");
                                     }};

template <bool late> void ClientQueue(Trial& t) {
    ListenSocket listener;
    RecordingTarget target;
    ClientPtr client(new CClient("127.0.0.1", listener.Port(), target));
    Connection peer = listener.Accept();
    t.fd = SocketOf(*client);
    const auto post = [&] { PostThreadMessage(client->m_nThreadID, LAST, 0, nullptr); };
    std::unique_ptr<Interpose> look;
    RunLoop(t, *client, target, "message 5", [&] {
        if (!late) {
            post();
            return;
        }
        look = std::make_unique<Interpose>(Call::Ioctl); // the first look at the pipe finds nothing
        look->OnThread(client->m_nThreadID).After(post);
    });
    t.Fact(client->IsConnected() && SocketOf(*client) != -1 ? "connected" : "not connected");
}
const Operation CLIENT_QUEUE = {"a client's loop with a message", ClientQueue<false>};
const Operation CLIENT_LATE = {"a client's loop with a message that comes before it waits",
                               ClientQueue<true>};

template <class Construct> void MakeNetworkThread(Trial& t, Construct construct) {
    IntroduceToSanitizer([] { return MakeSuspended(); });
    const size_t registered = RegisteredThreads();
    const auto descriptors = Resources::Descriptors();
    std::string thrown;
    t.Run([&] {
        try {
            delete construct();
        } catch (SocketException& exception) {
            const Bypass bypass;
            thrown = std::string("throws SocketException: ") + exception.Description();
        } catch (CLogException* error) {
            const Bypass bypass;
            thrown = std::string("throws CLogException: ") + error->Where() + ", " + error->What();
            delete error;
        }
    });
    t.Result(thrown.empty() ? "constructed" : thrown);
    t.Fact(RegisteredThreads() == registered && Resources::Descriptors() == descriptors ? "nothing left"
                                                                                        : "something left");
}
RecordingTarget& AnyTarget() {
    static RecordingTarget target;
    return target;
}
const Operation MAKE_SERVER = {"constructing a `CServer`", [](Trial& t) {
                                   MakeNetworkThread(t, [] { return new CServer(0, AnyTarget()); });
                               }};
const Operation MAKE_CLIENT = {
    "constructing a `CClient`", [](Trial& t) {
        ListenSocket listener;
        Interpose pause(Call::Sleep);
        pause.OnThisThread().Return(0);
        MakeNetworkThread(t, [&] { return new CClient("127.0.0.1", listener.Port(), AnyTarget()); });
    }};
const Operation MAKE_CLIENT_REFUSED = {
    "constructing a `CClient` whom nobody hears", [](Trial& t) {
        const int port = UnusedPort();
        MakeNetworkThread(t, [&] { return new CClient("127.0.0.1", port, AnyTarget()); });
    }};

// ---------------------------------------------------------------------------------------------------------
// Mutexes and events

// Memory for an object whose members may stay as they are. All zero is an initialised mutex here.
template <class T> struct Storage {
    alignas(T) unsigned char bytes[sizeof(T)] = {};
    T* Object() { return reinterpret_cast<T*>(bytes); }
};

template <class Make> void MakeMutex(Trial& t, Make make) {
    Storage<CMutex> storage;
    t.mutexEvents = true;
    t.Run([&] { make(storage.bytes); });
    t.Result("constructed");
    CMutex& mutex = *storage.Object();
    const bool locks = mutex.Lock(0) == 1;
    const bool again = mutex.Lock(0) == 1;
    t.Fact(again ? "recursive" : "not recursive");
    t.WorksThen(locks && mutex.Unlock() == 1 && (!again || mutex.Unlock() == 1));
    mutex.~CMutex();
}
const Operation MAKE_MUTEX = {"`CMutex(false)`",
                              [](Trial& t) { MakeMutex(t, [](void* place) { new (place) CMutex(false); }); }};
const Operation MAKE_KIND = {"`CMutex(PTHREAD_MUTEX_RECURSIVE, false)`", [](Trial& t) {
                                 MakeMutex(t, [](void* place) {
                                     new (place) CMutex(static_cast<int>(PTHREAD_MUTEX_RECURSIVE), false);
                                 });
                             }};

template <unsigned long timeoutMs> void LockMutex(Trial& t) {
    Host::FakeSleep();
    CMutex mutex(false);
    t.mutexEvents = true;
    int locked = 0;
    t.Run([&] { locked = mutex.Lock(timeoutMs); });
    t.Result(locked);
    const bool held = pthread_mutex_trylock(mutex.PThreadMutex()) != 0;
    t.Fact(held ? "held" : "not held");
    if (!held)
        pthread_mutex_unlock(mutex.PThreadMutex());
    t.Fact(std::to_string(Host::Sleeps().size()) + " sleeps");
    if (held)
        mutex.Unlock();
    t.WorksThen(mutex.Lock(0) == 1 && mutex.Unlock() == 1);
}
const Operation LOCK = {"`Lock(INFINITE)`", LockMutex<INFINITE>};
const Operation TRY = {"`Lock(0)`", LockMutex<0>};
const Operation POLL = {"`Lock(20)`", LockMutex<20>};

const Operation UNLOCK = {"`Unlock`", [](Trial& t) {
                              CMutex mutex(true);
                              t.mutexEvents = true;
                              int unlocked = 1;
                              t.Run([&] { unlocked = mutex.Unlock(); });
                              t.Result(unlocked);
                              t.Fact(mutex.Lock(0) ? "not held" : "held");
                              t.WorksThen(mutex.Unlock() == 1);
                          }};

bool IsSignalled(CEvent& event) { return event.WaitForEventSignal(0, nullptr) == 0; }

const Operation MAKE_EVENT = {"`CEvent(true, false)`", [](Trial& t) {
                                  Storage<CEvent> storage;
                                  t.Run([&] { new (storage.bytes) CEvent(true, false); });
                                  t.Result("constructed");
                                  CEvent& event = *storage.Object();
                                  t.WorksThen(!IsSignalled(event) && event.SetEvent() && IsSignalled(event));
                                  event.~CEvent();
                              }};

template <bool manual> void SetOne(Trial& t) {
    CEvent event(manual, false);
    int result = 0;
    t.Run([&] { result = event.SetEvent(); });
    t.Result(result);
    t.Fact(IsSignalled(event) ? "signalled" : "not signalled");
    event.ResetEvent();
    event.SetEvent();
    t.WorksThen(IsSignalled(event) == manual);
}
const Operation SET = {"`SetEvent`, manual reset", SetOne<true>};
const Operation SET_AUTO = {"`SetEvent`, auto reset", SetOne<false>};

const Operation RESET = {"`ResetEvent`", [](Trial& t) {
                             CEvent event(true, true);
                             int result = 0;
                             t.Run([&] { result = event.ResetEvent(); });
                             t.Result(result);
                             t.Fact(IsSignalled(event) ? "signalled" : "not signalled");
                             t.WorksThen(event.SetEvent() == 1 && IsSignalled(event));
                         }};

// Waits for an event that, where an error is only reported, is set meanwhile.
template <unsigned long timeoutMs> void WaitForOne(Trial& t) {
    CEvent event(true, true);
    pthread_mutex_t* lock = nullptr;
    EXPECT_EQ(event.WaitForEventSignal(0, &lock), 0);
    pthread_mutex_unlock(lock);
    event.ResetEvent();
    t.perform = [&] {
        pthread_mutex_unlock(lock);
        event.SetEvent();
        pthread_mutex_lock(lock);
    };
    int result = -1;
    t.Run([&] { result = event.WaitForEventSignal(timeoutMs, nullptr); });
    t.Result(result);
    t.Fact(IsSignalled(event) ? "signalled" : "not signalled");
    event.SetEvent();
    t.WorksThen(IsSignalled(event));
}
const Operation WAIT = {"`WaitForEventSignal(20)`", WaitForOne<20>};
const Operation WAIT_LONG = {"`WaitForEventSignal(60000)` of an event that is set meanwhile",
                             WaitForOne<60000>};
const Operation WAIT_EVER = {"`WaitForEventSignal(INFINITE)` of an event that is set meanwhile",
                             WaitForOne<INFINITE>};

template <unsigned long timeoutMs> void FindSignalled(Trial& t) {
    CEvent event(true, true);
    int result = -1;
    t.Run([&] { result = event.WaitForEventSignal(timeoutMs, nullptr); });
    t.Result(result);
    t.Fact(IsSignalled(event) ? "signalled" : "not signalled");
    event.ResetEvent();
    t.WorksThen(!IsSignalled(event) && event.SetEvent() == 1 && IsSignalled(event));
}
const Operation WAIT_SIGNALLED = {"`WaitForEventSignal(INFINITE)` of a signalled event",
                                  FindSignalled<INFINITE>};
const Operation LOOK = {"`WaitForEventSignal(0)` of a signalled event", FindSignalled<0>};

// ---------------------------------------------------------------------------------------------------------
// Memory files and texts

template <class Write> void WriteTo(Trial& t, const std::string& text, Write write) {
    CMemFile file(64U);
    t.Run([&] { write(file, text.c_str()); });
    t.Result("-");
    t.Fact(file.m_uiFileLength == 0 ? "nothing written" : "something written");
    write(file, text.c_str());
    t.WorksThen(file.m_uiFileLength == text.size());
}
void WriteF(CMemFile& file, const char* text) { file.WriteF("%s", text); }
void WriteEntitiesF(CMemFile& file, const char* text) { file.WriteEntitiesF("%s", text); }
const Operation WRITE_F = {"`WriteF`", [](Trial& t) { WriteTo(t, "abc", WriteF); }};
const Operation WRITE_F_LONG = {"`WriteF` of 20,000 bytes",
                                [](Trial& t) { WriteTo(t, std::string(20000, 'x'), WriteF); }};
const Operation WRITE_ENTITIES_F = {"`WriteEntitiesF`", [](Trial& t) { WriteTo(t, "abc", WriteEntitiesF); }};

void DumpTo(Trial& t, const std::string& path, size_t length, bool buffered) {
    const auto before = Resources::Descriptors();
    CMemFile file(64U);
    file.Write(std::string(length, 'x').data(), static_cast<unsigned int>(length));
    {
        Interpose noBuffer(Call::Malloc); // the first is for the stream itself
        noBuffer.OnThisThread().OnCall(2);
        if (!buffered)
            noBuffer.Fail(ENOMEM);
        t.Run([&] { file.Dump(path.c_str()); });
    }
    t.Result("-");
    t.Fact(Resources::Descriptors() == before ? "nothing open" : "left open");
    t.Fact(file.m_uiFileLength == length ? "memory file as before" : "memory file changed");
}

// A name in the working directory that the case removes.
std::string DumpName() { return Text("fault_matrix_%d.dump", static_cast<int>(getpid())); }

const Operation DUMP = {"`Dump`", [](Trial& t) {
                            DumpTo(t, DumpName(), 3, true);
                            t.Fact(access(DumpName().c_str(), F_OK) == 0 ? "a file" : "no file");
                            CMemFile().Dump(DumpName().c_str());
                            t.WorksThen(unlink(DumpName().c_str()) == 0);
                        }};
const Operation DUMP_FULL = {"`Dump` of 3 bytes to a full disk",
                             [](Trial& t) { DumpTo(t, "/dev/full", 3, true); }};
const Operation DUMP_FULL_LONG = {"`Dump` of 10,000 bytes to a full disk",
                                  [](Trial& t) { DumpTo(t, "/dev/full", 10000, true); }};
const Operation DUMP_FULL_UNBUFFERED = {"`Dump` to a full disk without memory for a buffer",
                                        [](Trial& t) { DumpTo(t, "/dev/full", 3, false); }};

const Operation ASSIGN_TEXT = {"`s = \"text\"`", [](Trial& t) {
                                   XString s;
                                   bool thrown = false;
                                   t.Run([&] {
                                       try {
                                           s = "text";
                                       } catch (CMemoryException*) {
                                           thrown = true;
                                       }
                                   });
                                   t.Result(thrown ? "throws CMemoryException" : "assigned");
                                   t.Fact(s.IsEmpty() ? "empty" : "not empty");
                                   s = "text";
                                   t.WorksThen(s == "text");
                               }};

const Operation DETACH_TEXT = {"`MakeUpper` of a text that is shared", [](Trial& t) {
                                   XString s("abc");
                                   XString copy(s);
                                   bool thrown = false;
                                   t.Run([&] {
                                       try {
                                           copy.MakeUpper();
                                       } catch (CMemoryException*) {
                                           thrown = true;
                                       }
                                   });
                                   t.Result(thrown ? "throws CMemoryException" : "detached");
                                   t.Fact(s == "abc" && copy == "abc" ? "both as before" : "changed");
                                   copy.MakeUpper();
                                   t.WorksThen(s == "abc" && copy == "ABC");
                               }};

// A format that vsnprintf refuses, and one whose text is long as well.
const char* REFUSED = "%";
const char* REFUSED_LONG = "%20000d%";

void FormatV(XString& s, const char* format, ...) {
    va_list args;
    va_start(args, format);
    s.FormatV(format, args);
    va_end(args);
}

template <bool list> void FormatRefused(Trial& t) {
    XString s("before");
    t.Run([&] {
        if (list)
            FormatV(s, REFUSED);
        else
            s.Format(REFUSED);
    });
    t.Result("\"" + std::string(static_cast<const char*>(s)) + "\"");
    t.Fact("length " + std::to_string(s.GetLength()));
    s.Format("%d", 7);
    t.WorksThen(s == "7");
}
const Operation FORMAT = {"`Format(\"%\")`", FormatRefused<false>};
const Operation FORMAT_V = {"`FormatV(\"%\")`", FormatRefused<true>};

template <bool longText> void FormatBstr(Trial& t, const char* format) {
    BSTR text = nullptr;
    t.Run([&] { text = FormatBSTR(format, 1); });
    t.Result(text ? "a BSTR" : "NULL");
    SysFreeString(text);
    text = FormatBSTR(longText ? "%20000d" : "%d", 1);
    t.WorksThen(SysStringLen(text) == (longText ? 20000U : 1U));
    SysFreeString(text);
}
const Operation BSTR_REFUSED = {"`FormatBSTR(\"%\")`", [](Trial& t) { FormatBstr<false>(t, REFUSED); }};
const Operation BSTR_REFUSED_LONG = {"`FormatBSTR(\"%20000d%\")`",
                                     [](Trial& t) { FormatBstr<true>(t, REFUSED_LONG); }};
const Operation BSTR_LONG = {"`FormatBSTR(\"%20000d\")`", [](Trial& t) { FormatBstr<true>(t, "%20000d"); }};

const Operation ALLOC_STRING = {"`SysAllocString`", [](Trial& t) {
                                    BSTR text = nullptr;
                                    t.Run([&] { text = SysAllocString("abc"); });
                                    t.Result(text ? "a BSTR" : "NULL");
                                    text = SysAllocString("abc");
                                    t.WorksThen(SysStringLen(text) == 3);
                                    SysFreeString(text);
                                }};
const Operation ALLOC_STRING_LEN = {"`SysAllocStringLen`", [](Trial& t) {
                                        BSTR text = nullptr;
                                        t.Run([&] { text = SysAllocStringLen("abc", 2); });
                                        t.Result(text ? "a BSTR" : "NULL");
                                        text = SysAllocStringLen("abc", 2);
                                        t.WorksThen(SysStringLen(text) == 2);
                                        SysFreeString(text);
                                    }};

void TraceText(Trial& t, const char* format) {
    testing::internal::CaptureStdout();
    t.Run([&] { TRACE(format); });
    fflush(stdout);
    t.Result("prints \"" + testing::internal::GetCapturedStdout() + "\"");
    testing::internal::CaptureStdout();
    TRACE("%s", "x");
    fflush(stdout);
    t.WorksThen(testing::internal::GetCapturedStdout() == "x");
}
const Operation TRACE_REFUSED = {"`TRACE(\"%\")`", [](Trial& t) { TraceText(t, REFUSED); }};
const Operation TRACE_REFUSED_TWICE = {"`TRACE(\"%%\")`, whose text is a format again",
                                       [](Trial& t) { TraceText(t, "%%"); }};

// Standard output on a full disk.
class FullOutput {
public:
    FullOutput() {
        fflush(stdout);
        m_before = dup(STDOUT_FILENO);
        const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
        dup2(full, STDOUT_FILENO);
        close(full);
    }

    ~FullOutput() {
        __fpurge(stdout);
        clearerr(stdout);
        dup2(m_before, STDOUT_FILENO);
        close(m_before);
    }

    FullOutput(const FullOutput&) = delete;
    FullOutput& operator=(const FullOutput&) = delete;

private:
    int m_before;
};

const Operation TRACE_FULL = {"`TRACE` of 16,000 bytes to a full disk", [](Trial& t) {
                                  const std::string text(16000, 'x');
                                  {
                                      const FullOutput full;
                                      t.Run([&] { TRACE("%s", text.c_str()); });
                                  }
                                  t.Result("-");
                                  testing::internal::CaptureStdout();
                                  TRACE("%s", "x");
                                  fflush(stdout);
                                  t.WorksThen(testing::internal::GetCapturedStdout() == "x");
                              }};

void DumpText(Trial& t, int indent, int length) {
    XString s(std::string(static_cast<size_t>(length), 'x').c_str());
    int result = 0;
    {
        const FullOutput full;
        t.Run([&] { result = s.Dump(indent); });
    }
    t.Result(result < 0 ? "-1" : "not negative");
    t.Fact(s.GetLength() == length ? "text as before" : "text changed");
    testing::internal::CaptureStdout();
    s.Dump(0);
    fflush(stdout);
    t.WorksThen(!testing::internal::GetCapturedStdout().empty());
}
const Operation DUMP_TEXT_FULL = {"`XString::Dump` of 100,000 bytes to a full disk",
                                  [](Trial& t) { DumpText(t, 0, 100000); }};
const Operation DUMP_INDENT_FULL = {"`XString::Dump` with 100,000 blanks to a full disk",
                                    [](Trial& t) { DumpText(t, 100000, 100000); }};

// A socket whose descriptor does not fit into an fd_set, so that the set it waits with needs memory.
const Operation LENGTH_HIGH = {"`ReceiveLength(true, 20)` on a descriptor above 1,023", [](Trial& t) {
                                   const DescriptorLimit limit(1200);
                                   if (!limit.Raised() || !SelectTakesHighDescriptors())
                                       GTEST_SKIP() << "select() does not take such descriptors here";
                                   ConnectedPair pair;
                                   const int low = pair.Release();
                                   CSocket socket;
                                   socket.m_fd = fcntl(low, F_DUPFD, 1100);
                                   close(low);
                                   const int fd = socket.m_fd;
                                   int length = 0;
                                   t.Run([&] { length = socket.ReceiveLength(true, 20); });
                                   t.Result(length);
                                   TellState(t, socket, fd);
                                   t.WorksThen(socket.ReceiveLength(true, 20) == 0);
                               }};

// ---------------------------------------------------------------------------------------------------------
// The places

const char RESULT_DISCARDED[] = "not one of the calls that the tests can make fail; its result is discarded";
const char NOT_CHECKED[] = "not checked: the next write through the NULL pointer faults";

const Site SITES[] = {
    {"Windows/Socket.cpp", "CSocket::~CSocket", "close", nullptr},
    {"Windows/Socket.cpp", "CSocket::Create", "socket", nullptr},
    {"Windows/Socket.cpp", "CSocket::Create", "setsockopt TCP_NODELAY", nullptr},
    {"Windows/Socket.cpp", "CSocket::Create", "close", nullptr},
    {"Windows/Socket.cpp", "CSocket::Close", "close", nullptr},
    {"Windows/Socket.cpp", "CSocket::SetBlockingMode", "fcntl F_GETFL", nullptr},
    {"Windows/Socket.cpp", "CSocket::SetBlockingMode", "fcntl F_SETFL", nullptr},
    {"Windows/Socket.cpp", "CSocket::SetQuickAck", "setsockopt TCP_QUICKACK", nullptr},
    {"Windows/Socket.cpp", "CSocket::ReceiveBytes", "recv", nullptr},
    {"Windows/Socket.cpp", "CSocket::ReceiveBlock", "new[]", nullptr},
    {"Windows/Socket.cpp", "CSocket::Receive", "new[]", nullptr},
    {"Windows/Socket.cpp", "CSocket::SendBytes", "send", nullptr},
    {"Windows/Socket.cpp", "CSocket::SendFrame", "malloc", nullptr},
    {"Windows/ServerSocket.cpp", "ServerSocket::ServerSocket", "setsockopt SO_REUSEADDR", nullptr},
    {"Windows/ServerSocket.cpp", "ServerSocket::Bind", "bind", nullptr},
    {"Windows/ServerSocket.cpp", "ServerSocket::Bind", "inet_aton",
     "reads a constant text, and its result is discarded"},
    {"Windows/ServerSocket.cpp", "ServerSocket::Listen", "listen", nullptr},
    {"Windows/ServerSocket.cpp", "ServerSocket::Accept", "accept", nullptr},
    {"Windows/ClientSocket.cpp", "CClientSocket::Connect", "inet_pton", nullptr},
    {"Windows/ClientSocket.cpp", "CClientSocket::Connect", "connect", nullptr},
    {"Windows/Client.cpp", "CClient::Connect", "sleep", nullptr},
    {"Windows/Client.cpp", "CClient::HasActivity", "ioctl FIONREAD", nullptr},
    {"Windows/internal/DescriptorSet.cpp", "DescriptorSet::Select", "select", nullptr},
    {"Windows/internal/DescriptorSet.cpp", "DescriptorSet::Reserve", "new[]", nullptr},
    {"Windows/WinThread.cpp", "CloseDescriptor", "close", nullptr},
    {"Windows/WinThread.cpp", "CreateThread", "pthread_create", nullptr},
    {"Windows/WinThread.cpp", "CreateThread", "pthread_attr_init", RESULT_DISCARDED},
    {"Windows/WinThread.cpp", "CreateThread", "pthread_attr_setinheritsched", RESULT_DISCARDED},
    {"Windows/WinThread.cpp", "CreateThread", "pthread_attr_setstacksize", RESULT_DISCARDED},
    {"Windows/WinThread.cpp", "CreateThread", "pthread_attr_destroy", RESULT_DISCARDED},
    {"Windows/WinThread.cpp", "WaitForRecord", "sched_yield", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::CWinThread", "pipe", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::CWinThread", "fcntl F_GETFL", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::CWinThread", "fcntl F_SETFL", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::~CWinThread", "pthread_detach", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::EndQueueAndThread", "dup", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::EndQueueAndThread", "pthread_detach", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::EndQueueAndThread", "pthread_cancel", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::EndQueueAndThread", "pthread_mutex_unlock",
     "which of the destroyer's unlocks it is depends on how far the thread has got; the result is not looked "
     "at"},
    {"Windows/WinThread.cpp", "CWinThread::PostMessage", "write", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::Park", "write", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::Park", "new", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::LockoutMsgQueue", "close", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::CountWaitingBytes", "ioctl FIONREAD", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::ReadRecord", "read", nullptr},
    {"Windows/WinThread.cpp", "CWinThread::DrainOverflow", "write", nullptr},
    {"Windows/WinThread.cpp", "AfxBeginThread", "new", nullptr},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife, each lock", "pthread_mutex_lock", nullptr},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife, each lock", "pthread_mutex_unlock", nullptr},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife, each lock", "pthread_cond_wait", nullptr},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife::Release", "pthread_cond_broadcast", nullptr},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife::Self::~Self", "pthread_cond_broadcast",
     "wakes whoever destroys the object: a wake-up that does not come is not made up for, and on an "
     "initialised condition it cannot fail"},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife::TellDestroyer", "pthread_cond_broadcast",
     "wakes whoever destroys the object: a wake-up that does not come is not made up for, and on an "
     "initialised condition it cannot fail"},
    {"Windows/internal/ThreadLife.cpp", "ThreadLife::AwaitCancellation", "pthread_setcancelstate",
     RESULT_DISCARDED},
    {"Windows/internal/Cancellation.h", "Begin", "pthread_setcancelstate", RESULT_DISCARDED},
    {"Windows/internal/Cancellation.h", "End", "pthread_setcancelstate", RESULT_DISCARDED},
    {"Windows/Mutex.cpp", "Poll", "pthread_mutex_trylock", nullptr},
    {"Windows/Mutex.cpp", "CMutex::CMutex(bool)", "pthread_mutex_init", nullptr},
    {"Windows/Mutex.cpp", "CMutex::CMutex(int, bool)", "pthread_mutexattr_settype", nullptr},
    {"Windows/Mutex.cpp", "CMutex::CMutex(int, bool)", "pthread_mutex_init", nullptr},
    {"Windows/Mutex.cpp", "CMutex::CMutex(int, bool)", "pthread_mutexattr_init", RESULT_DISCARDED},
    {"Windows/Mutex.cpp", "CMutex::CMutex(int, bool)", "pthread_mutexattr_destroy", RESULT_DISCARDED},
    {"Windows/Mutex.cpp", "CMutex::~CMutex", "pthread_mutex_destroy", RESULT_DISCARDED},
    {"Windows/internal/MutexScope.h", "LockForEver", "pthread_mutex_lock", nullptr},
    {"Windows/internal/MutexScope.h", "UnlockAndReport", "pthread_mutex_unlock", nullptr},
    {"Windows/event.h", "CEvent::SetEvent", "pthread_mutex_lock", nullptr},
    {"Windows/event.h", "CEvent::SetEvent", "pthread_mutex_unlock", nullptr},
    {"Windows/event.h", "CEvent::SetEvent", "pthread_cond_broadcast", nullptr},
    {"Windows/event.h", "CEvent::SetEvent", "pthread_cond_signal", nullptr},
    {"Windows/event.h", "CEvent::ResetEvent", "pthread_mutex_lock", nullptr},
    {"Windows/event.h", "CEvent::ResetEvent", "pthread_mutex_unlock", nullptr},
    {"Windows/event.cpp", "CEvent::CEvent", "pthread_cond_init", RESULT_DISCARDED},
    {"Windows/event.cpp", "CEvent::CEvent", "pthread_mutex_init", nullptr},
    {"Windows/event.cpp", "CEvent::~CEvent", "pthread_cond_destroy", RESULT_DISCARDED},
    {"Windows/event.cpp", "CEvent::~CEvent", "pthread_mutex_destroy", RESULT_DISCARDED},
    {"Windows/event.cpp", "CEvent::WaitForEventSignal", "pthread_mutex_lock", nullptr},
    {"Windows/event.cpp", "CEvent::WaitForEventSignal", "pthread_mutex_unlock", nullptr},
    {"Windows/event.cpp", "CEvent::LockAndWait", "pthread_mutex_lock", nullptr},
    {"Windows/event.cpp", "CEvent::WaitWithLock", "pthread_mutex_unlock", nullptr},
    {"Windows/event.cpp", "CEvent::SleepUntilSignalled", "pthread_cond_wait", nullptr},
    {"Windows/event.cpp", "CEvent::SleepUntilSignalled", "pthread_cond_timedwait", nullptr},
    {"Windows/MemFile.cpp", "PrintTo", "vsnprintf to the stack", nullptr},
    {"Windows/MemFile.cpp", "PrintLongTo", "vsnprintf to the heap", nullptr},
    {"Windows/MemFile.cpp", "PrintLongTo", "malloc", NOT_CHECKED},
    {"Windows/MemFile.cpp", "CMemFile::Grow", "malloc", NOT_CHECKED},
    {"Windows/MemFile.cpp", "CMemFile::Grow", "realloc", NOT_CHECKED},
    {"Windows/MemFile.cpp", "CMemFile::Dump", "fopen", nullptr},
    {"Windows/MemFile.cpp", "CMemFile::Dump", "fprintf, the five of the header", nullptr},
    {"Windows/MemFile.cpp", "CMemFile::Dump", "fputs \"Buffer:\"", nullptr},
    {"Windows/MemFile.cpp", "CMemFile::Dump", "fputc", nullptr},
    {"Windows/MemFile.cpp", "CMemFile::Dump", "fputs \"^^^\"", nullptr},
    {"Windows/MemFile.cpp", "CMemFile::Dump", "fclose", nullptr},
    {"Windows/Trace.cpp", "TRACE", "vsnprintf", nullptr},
    {"Windows/Trace.cpp", "TRACE", "printf", nullptr},
    {"Windows/XString.cpp", "NewBuffer", "malloc", nullptr},
    {"Windows/XString.h", "XStringData::Reallocate", "realloc", NOT_CHECKED},
    {"Windows/XString.cpp", "XString::Dump", "putchar", nullptr},
    {"Windows/XString.cpp", "XString::Dump", "printf", nullptr},
    {"Windows/XString.h", "XStringData::CopyBeforeWrite", "malloc", nullptr},
    {"Windows/XStringFormat.cpp", "MeasureFixed", "snprintf",
     "writes nothing; a negative result counts as 0"},
    {"Windows/XStringFormat.cpp", "XString::Format", "vsnprintf", nullptr},
    {"Windows/XStringFormat.cpp", "XString::FormatV", "vsnprintf", nullptr},
    {"Windows/bstr.cpp", "NewBlock", "malloc", nullptr},
    {"Windows/bstr.cpp", "BSTRFormatV", "vsnprintf to the stack", nullptr},
    {"Windows/bstr.cpp", "BSTRFormatV", "malloc", nullptr},
    {"Windows/bstr.cpp", "BSTRFormatV", "vsnprintf to the heap", nullptr},
    {"Windows/variant.cpp", "SetText", "snprintf",
     "formats a number into 256 bytes or cuts it there; its result is discarded"},
};

// ---------------------------------------------------------------------------------------------------------
// The log lines

const char GET_FLAGS[] = "11/1 Failed to set blocking mode on socket (on option set)!!";
const char SET_FLAGS[] = "11/1 Failed to set blocking mode on socket!!";
const char PEEK_CLOSED[] =
    "12/9 CSocket::IsDataAvailable Detected socket closure (non-blocking call to recv returned 0)";
const char PEEK_ERROR[] =
    "11/4 CSocket::IsDataAvailable Detected socket error (errno = <errno>) assuming socket closure";
const char WAS_CLOSED[] = "12/9 CSocket::ReceiveLength -- Socket Was Closed, returning 0";
const char NO_WAIT[] =
    "12/9 CSocket::ReceiveLength returning because no data was available and caller specified not to wait";
const char WAIT_20[] =
    "12/9 CSocket::ReceiveLength Now blocking with select (with timeout = 20) to wait for data on socket";
const char WAIT_FOREVER[] = "12/9 CSocket::ReceiveLength Now blocking with select (with NO timeout) to wait "
                            "for data (caller specified)";
const char WOKE_0[] = "12/9 CSocket::ReceiveLength select call wokeup with return = 0, errno = *";
const char WOKE_ERROR[] = "12/9 CSocket::ReceiveLength select call wokeup with return = -1, errno = <errno>";
const char GOT_0[] = "12/9 CSocket::ReceiveLength recv call returned 0 (errno = *)";
const char GOT_1[] = "12/9 CSocket::ReceiveLength recv call returned 1 (errno = *)";
const char GOT_2[] = "12/9 CSocket::ReceiveLength recv call returned 2 (errno = *)";
const char GOT_3[] = "12/9 CSocket::ReceiveLength recv call returned 3 (errno = *)";
const char GOT_4[] = "12/9 CSocket::ReceiveLength recv call returned 4 (errno = *)";
const char GOT_ERROR[] = "12/9 CSocket::ReceiveLength recv call returned -1 (errno = <errno>)";
const char PREFIX_CLOSED[] =
    "12/9 CSocket::ReceiveLength detected socket closure (non-blocking recv call returned 0)";
const char PREFIX_ERROR[] =
    "11/4 CSocket::ReceiveLength Detected socket closed by other end (errno = <errno>)";
const char REST_ERROR[] =
    "11/4 CSocket::ReceiveLength Detected socket error or socket closed by other end (errno = <errno>)";
const char REST_CLOSED[] =
    "11/4 CSocket::ReceiveLength Detected socket error or socket closed by other end (errno = *)";
const char BROKEN[] =
    "11/1 CSocket::ReceiveLength() : There were 5 byte(s) read for the length!!!  PROTOCOL IS NOW BROKEN!";
const char EXIT_3[] = "12/9 Exiting CSocket::ReceiveLength returning: 3";
const char EXIT_0[] = "12/9 Exiting CSocket::ReceiveLength returning: 0";
const char EXIT_E[] = "12/9 Exiting CSocket::ReceiveLength returning: -1";
const char EXIT_C[] = "12/9 Exiting CSocket::ReceiveLength returning: -2";
const char BLOCK_CLOSED[] =
    "11/4 CSocket::Receive() : Data length is 0.  The sender has closed its endpoint.";
const char TEXT_CLOSED[] = "11/1 CSocket::Receive() : Data length is 0.  The sender has closed its endpoint.";
const char PAYLOAD_ERROR[] = "11/1 CSocket::Receive() : Error reading from socket errno = <errno>";
const char BLOCK_IN[] = "12/7 CSocket::Receive() binary data on <fd>: ";
const char TEXT_IN[] = "12/7 CSocket::Receive() on <fd>: abc";
const char NO_TEXT[] = "11/1 CSocket::Receive() : Error converting to wide characters";
const char SENT[] = "12/7 CSocket::Send() on <fd>: abc";
const char NOT_SENT[] = "12/1 CSocket::Send() on <fd> FAILED to send messageabc";
const char NOT_SENT_LONG[] = "12/1 CSocket::Send() on <fd> FAILED to send messagex*";
const char BLOCK_NOT_SENT[] = "12/1 CSocket::Send() on <fd> FAILED to send binary message";
const char BLOCK_SENT[] = "12/7 CSocket::SendBlock() on <fd>: ";
const char FILE_SENT[] = "12/9 CSocket::SendMemFileWithLengthPrefix() on <fd>: ";
const char S_CALLED[] = "13/7 ServerSocket::ServerSocket() : called!";
const char S_CREATED[] = "13/7 ServerSocket::ServerSocket() : Socket created!";
const char S_DESTROYED[] = "13/7 ServerSocket::~ServerSocket() : called!";
const char S_NO_SOCKET[] = "11/1 CServerSocket::CServerSocket() : Could not create socket.";
const char S_NO_REUSE[] = "11/1 ServerSocket::ServerSocket() : failed to set reuse option!";
const char C_NO_SOCKET[] = "11/1 CClientSocket::CClientSocket() : Could not create socket.";
const char BIND_FAILED[] = "11/1 Bind failed called! <reason>";
const char LISTEN_FAILED[] = "11/7 ServerSocket::Listen() : status = -1";
const char ACCEPT_CALLED[] = "11/7 ServerSocket::Accept() : Called with fd=<fd>";
const char ACCEPT_NONE[] = "11/7 ServerSocket::Accept() : fd = -1";
const char ACCEPT_ZERO[] = "11/7 ServerSocket::Accept() : fd = 0";
const char ACCEPT_ONE[] = "11/7 ServerSocket::Accept() : fd = *";
const char ADDED[] = "11/9 CWinThread::AddThread : id = *, map size = *";
const char NO_ID[] = "11/1 CWinThread::AddThread : id is 0. (thread NOT added)";
const char DELETING[] = "11/1 AfxBeginThread : Deleting t = *";
const char NOT_ALLOCATED[] = "11/1 AfxBeginThread : Could not allocate CWinThread.";
const char NOT_CREATED[] = "11/1 CWinThread : posix create failed";
const char NOT_SUSPENDED[] = "11/1 Could not lock suspender mutex";
const char DESTROYED[] = "11/9 CWinThread : dtor called";
const char REMOVED[] = "11/9 CWinThread::RemoveThread : Thread = 0x* removed from map.";
const char COMPLETED[] = "11/9 CWinThread::~CWinThread(,,,,) : Completed thread id = 0x*";
const char BODY_EXITS[] = "11/9 CWinThread::Body() -  Exiting m_nThreadID 0x*";
const char NO_STATUS[] =
    "11/2 CWinThread::GetMessage : Failed to read status on message queue pipe! (FAILING)";
const char BYPASSING[] = "12/9 CWinThread::GetMessage Bypassing select, message was already on pipe";
const char RECEIVED[] = "12/9 CWinThread::GetMessage Received message 1 wParam 1 lParam 0 time * on pipe";
const char GET_ERROR[] = "11/1 CWinThread::GetMessage : Error reading from pipe errno = <errno>";
const char WRONG_SIZE[] = "11/1 CWinThread::GetMessage : message size wrong";
const char PEEK_READ_ERROR[] = "11/1 CWinThread::PeekMessage() : Error reading from pipe errno = <errno>";
const char M_LOCK[] = "23/8 CMutex::Lock Being Called with a * millisecond timeout on thread *";
const char M_LOCKED[] = "23/9 CMutex::Lock returning true thread *";
const char M_NOT_LOCKED[] = "23/9 CMutex::Lock returning false thread *";
const char M_LOCK_FAILED[] = "23/1 FAILED to lock mutex";
const char M_UNLOCK[] = "23/8 CMutex::UnLock Being Called on thread *";
const char M_UNLOCK_FAILED[] = "23/1 FAILED to unlock mutex";
const char M_CREATOR[] = "23/9 CMutex Creator Called on thread *";
const char M_CREATED[] = "23/9 CMutex Creator exiting on thread *";
const char SERVER_CALLED[] = "13/7 CServer::CServer(port,commHandler) : Called!";
const char SERVER_NOT_BOUND[] = "11/1 CServer::CServer(port,commHandler) : Could not bind socket.";
const char SERVER_BOUND[] = "11/9 CServer::CServer(port,commHandler) : Bound socket.";
const char SERVER_NOT_LISTENING[] = "11/1 CServer::CServer(port,commHandler) : Could not listen.";
const char SERVER_NOTHING[] = "11/6 CServer::Main() : Nothing ready. ";
const char SERVER_ACCEPTING[] = "11/9 CServer::Main() : Accepting client connection request.";
const char SERVER_ESTABLISHED[] = "11/9 CServer::Main() : Client connection established.";
const char SERVER_NOT_ACCEPTED[] = "11/1 CServer::Main() : Could not accept connection.";
const char SERVER_MESSAGE[] = "11/9 CServer::Main() : Message on thread's FIFO.";
const char SERVER_SELECT[] = "11/3 CServer::Main() : Select returned with error <errno> ";
const char SERVER_EXITS[] = "11/4 CServer::Main No longer listening (exiting).";
const char ATTEMPTING[] = "11/9 CClient::CClient() : Attempting to connect to server.";
const char CLIENT_PIPE[] = "12/9 CClient::Main() fd <fd>: Data available on pipe";
const char CLIENT_BYPASSED[] =
    "12/9 CClient::Main() fd <fd>: Found data on socket/pipe so bypassed select call";
const char CLIENT_SELECTING[] =
    "12/9 CClient::Main() fd <fd>: No data on socket or pipe so calling select with a 1 second timeout";
const char CLIENT_SELECT[] =
    "11/1 CClient::Main() fd <fd>: Select returned with an error = <errno>  (exitting select loop)";
const char CLIENT_EXITS[] = "11/9 CClient::Main() fd <fd>: No longer listening on socket's or pipe.";
const char CLIENT_TIMED_OUT[] =
    "12/9 CClient::Main() fd <fd>: Select Timed Out..checking pipe and socket for activity)";
const char CLIENT_MESSAGE[] = "12/9 CClient::Main() fd <fd>: Message on thread's pipe.";

// ---------------------------------------------------------------------------------------------------------
// The table

#define FAILS(error)                                                                                         \
    Fault { Fault::Fails, error, #error }
#define UNPAIRED(error)                                                                                      \
    Fault { Fault::Unpaired, error, #error }
#define REPORTS(error)                                                                                       \
    Fault { Fault::Reports, error, #error ", but done" }
#define ANSWERS(number, name)                                                                                \
    Fault { Fault::Answers, number, name }
#define SHORT(count)                                                                                         \
    Fault { Fault::Short, count, "at most " #count " bytes" }
#define NATURAL(name)                                                                                        \
    Fault { Fault::Natural, 0, name }

// clang-format off
const Row ROWS[] = {
    // CSocket
    {"CSocket::Create", "socket", 1, FAILS(EMFILE), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(ENFILE), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(ENOBUFS), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(ENOMEM), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(EACCES), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(EAFNOSUPPORT), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "setsockopt TCP_NODELAY", 1, FAILS(ENOPROTOOPT), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "setsockopt TCP_NODELAY", 1, FAILS(ENOBUFS), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "setsockopt TCP_NODELAY", 1, FAILS(EINVAL), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "setsockopt TCP_NODELAY", 1, FAILS(ENOMEM), &CREATE, "false", {}, "closed, works then"},
    {"CSocket::Create", "close", 1, REPORTS(EIO), &CREATE_WITHOUT_OPTION, "false", {}, "closed, works then"},
    {"CSocket::Create", "close", 1, REPORTS(EINTR), &CREATE_WITHOUT_OPTION, "false", {}, "closed, works then"},
    {"CSocket::Close", "close", 1, REPORTS(EIO), &CLOSE, "-1", {}, "closed, works then"},
    {"CSocket::Close", "close", 1, REPORTS(EINTR), &CLOSE, "-1", {}, "closed, works then"},
    {"CSocket::Close", "close", 1, REPORTS(ENOSPC), &CLOSE, "-1", {}, "closed, works then"},
    {"CSocket::~CSocket", "close", 1, REPORTS(EIO), &DESTROY_SOCKET, "-", {}, "closed"},
    {"CSocket::~CSocket", "close", 1, REPORTS(EINTR), &DESTROY_SOCKET, "-", {}, "closed"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &TO_NON_BLOCKING, "false", {GET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EINVAL), &TO_NON_BLOCKING, "false", {GET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EBADF), &TO_NON_BLOCKING, "false", {SET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EINVAL), &TO_NON_BLOCKING, "false", {SET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EPERM), &TO_NON_BLOCKING, "false", {SET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &TO_BLOCKING, "false", {GET_FLAGS}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EBADF), &TO_BLOCKING, "false", {SET_FLAGS}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EPERM), &TO_BLOCKING, "false", {SET_FLAGS}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &IS_DATA_AVAILABLE, "true, not closed", {GET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EINVAL), &IS_DATA_AVAILABLE, "true, not closed", {SET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 3, FAILS(EBADF), &IS_DATA_AVAILABLE, "true, not closed", {GET_FLAGS}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EINVAL), &IS_DATA_AVAILABLE, "true, not closed", {SET_FLAGS}, "open, non-blocking, works then"},
    {"CSocket::SetQuickAck", "setsockopt TCP_QUICKACK", 1, FAILS(EBADF), &IS_DATA_AVAILABLE, "true, not closed", {}, "open, blocking, works then"},
    {"CSocket::SetQuickAck", "setsockopt TCP_QUICKACK", 1, FAILS(ENOPROTOOPT), &IS_DATA_AVAILABLE, "true, not closed", {}, "open, blocking, works then"},
    {"CSocket::SetQuickAck", "setsockopt TCP_QUICKACK", 1, FAILS(EINVAL), &IS_DATA_AVAILABLE, "true, not closed", {}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EAGAIN), &IS_DATA_AVAILABLE, "false, not closed", {}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 1, ANSWERS(0, "0: end of file"), &IS_DATA_AVAILABLE, "false, closed", {PEEK_CLOSED}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EINTR), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(ECONNRESET), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(ETIMEDOUT), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(ENOTCONN), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(ENOMEM), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(ECONNREFUSED), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EHOSTUNREACH), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EINVAL), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EBADF), &IS_DATA_AVAILABLE, "false, closed", {GET_FLAGS, PEEK_ERROR}, "closed"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &LENGTH, "3", {GET_FLAGS, GOT_4, EXIT_3}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EPERM), &LENGTH, "3", {SET_FLAGS, GOT_4, EXIT_3}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 3, FAILS(EBADF), &LENGTH, "3", {GET_FLAGS, GOT_4, EXIT_3}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EPERM), &LENGTH, "3", {SET_FLAGS, GOT_4, EXIT_3}, "open, non-blocking, works then"},
    {"CSocket::SetQuickAck", "setsockopt TCP_QUICKACK", 0, FAILS(EINVAL), &LENGTH, "3", {GOT_4, EXIT_3}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EAGAIN), &LENGTH, "0", {NO_WAIT, EXIT_0}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 1, ANSWERS(0, "0: end of file"), &LENGTH, "-2", {PEEK_CLOSED, WAS_CLOSED, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(EINTR), &LENGTH, "-2", {GET_FLAGS, PEEK_ERROR, WAS_CLOSED, EXIT_C}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 1, FAILS(ECONNRESET), &LENGTH, "-2", {GET_FLAGS, PEEK_ERROR, WAS_CLOSED, EXIT_C}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(EAGAIN), &LENGTH, "3", {GOT_ERROR, EXIT_3}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, ANSWERS(0, "0: end of file"), &LENGTH, "-2", {GOT_0, PREFIX_CLOSED, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(EINTR), &LENGTH, "-2", {GOT_ERROR, PREFIX_ERROR, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(ECONNRESET), &LENGTH, "-2", {GOT_ERROR, PREFIX_ERROR, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(ETIMEDOUT), &LENGTH, "-2", {GOT_ERROR, PREFIX_ERROR, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(ENOMEM), &LENGTH, "-2", {GOT_ERROR, PREFIX_ERROR, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, SHORT(1), &LENGTH, "3", {GOT_1, EXIT_3}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, SHORT(2), &LENGTH, "3", {GOT_2, EXIT_3}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, SHORT(3), &LENGTH, "3", {GOT_3, EXIT_3}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 3, FAILS(EBADF), &LENGTH_REST, "3", {GET_FLAGS, GOT_2, EXIT_3}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EINVAL), &LENGTH_REST, "3", {SET_FLAGS, GOT_2, EXIT_3}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(EINTR), &LENGTH_REST, "-1", {GOT_2, REST_ERROR, EXIT_E}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(EAGAIN), &LENGTH_REST, "-1", {GOT_2, REST_ERROR, EXIT_E}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ECONNRESET), &LENGTH_REST, "-1", {GOT_2, REST_ERROR, EXIT_E}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ETIMEDOUT), &LENGTH_REST, "-1", {GOT_2, REST_ERROR, EXIT_E}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, ANSWERS(0, "0: end of file"), &LENGTH_REST, "-2", {GOT_2, REST_CLOSED, EXIT_C}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, SHORT(1), &LENGTH_REST, "3", {GOT_2, EXIT_3}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, ANSWERS(3, "3: more than asked for"), &LENGTH_REST, "-1", {GOT_2, BROKEN, EXIT_E}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, ANSWERS(0, "0: end of file"), &LENGTH_WAITING, "0", {WAIT_20, PEEK_CLOSED, WOKE_0, EXIT_0}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(ECONNRESET), &LENGTH_WAITING, "-2", {WAIT_20, GET_FLAGS, PEEK_ERROR, WAS_CLOSED, EXIT_C}, "closed"},
    {"CSocket::ReceiveBytes", "recv", 2, FAILS(EINTR), &LENGTH_WAITING, "-2", {WAIT_20, GET_FLAGS, PEEK_ERROR, WAS_CLOSED, EXIT_C}, "closed"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINTR), &LENGTH_WAITING, "0", {WAIT_20, WOKE_0, EXIT_0}, "open, blocking, works then"},
    {"DescriptorSet::Select", "select", 1, ANSWERS(0, "0: time is over"), &LENGTH_WAITING, "0", {WAIT_20, WOKE_0, EXIT_0}, "open, blocking, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(EBADF), &LENGTH_WAITING, "-1", {WAIT_20, WOKE_ERROR, EXIT_E}, "open, blocking, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINVAL), &LENGTH_WAITING, "-1", {WAIT_20, WOKE_ERROR, EXIT_E}, "open, blocking, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(ENOMEM), &LENGTH_WAITING, "-1", {WAIT_20, WOKE_ERROR, EXIT_E}, "open, blocking, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINTR), &LENGTH_LATE, "3", {WAIT_FOREVER, GOT_4, EXIT_3}, "open, blocking, works then"},
    {"DescriptorSet::Reserve", "new[]", 1, FAILS(ENOMEM), &LENGTH_HIGH, "-1", {WAIT_20, WOKE_ERROR, EXIT_E}, "open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, ANSWERS(0, "0: end of file"), &RECEIVE_BLOCK, "-2", {GOT_4, EXIT_3, BLOCK_CLOSED}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(EINTR), &RECEIVE_BLOCK, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(EAGAIN), &RECEIVE_BLOCK, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ECONNRESET), &RECEIVE_BLOCK, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ETIMEDOUT), &RECEIVE_BLOCK, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, SHORT(1), &RECEIVE_BLOCK, "3", {GOT_4, EXIT_3, BLOCK_IN}, "block filled, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, ANSWERS(0, "0: end of file"), &RECEIVE_BLOCK_NB, "-2", {GOT_4, EXIT_3, BLOCK_CLOSED}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ECONNRESET), &RECEIVE_BLOCK_NB, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "block empty, open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &RECEIVE_BLOCK_NB, "3", {GET_FLAGS, GOT_4, EXIT_3, BLOCK_IN}, "block filled, open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EPERM), &RECEIVE_BLOCK_NB, "3", {SET_FLAGS, GOT_4, EXIT_3, BLOCK_IN}, "block filled, open, blocking, works then"},
    {"CSocket::ReceiveBlock", "new[]", 1, FAILS(ENOMEM), &RECEIVE_BLOCK, "-1", {GOT_4, EXIT_3}, "block empty, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, ANSWERS(0, "0: end of file"), &RECEIVE, "-2", {GOT_4, EXIT_3, TEXT_CLOSED}, "text as before, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(EINTR), &RECEIVE, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "text as before, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(EAGAIN), &RECEIVE, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "text as before, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ECONNRESET), &RECEIVE, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "text as before, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ETIMEDOUT), &RECEIVE, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "text as before, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, SHORT(1), &RECEIVE, "3", {GOT_4, EXIT_3, TEXT_IN}, "text new, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, ANSWERS(0, "0: end of file"), &RECEIVE_NB, "-2", {GOT_4, EXIT_3, TEXT_CLOSED}, "text as before, open, blocking, works then"},
    {"CSocket::ReceiveBytes", "recv", 3, FAILS(ECONNRESET), &RECEIVE_NB, "-1", {GOT_4, EXIT_3, PAYLOAD_ERROR}, "text as before, open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &RECEIVE_NB, "3", {GET_FLAGS, GOT_4, EXIT_3, TEXT_IN}, "text new, open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EPERM), &RECEIVE_NB, "3", {SET_FLAGS, GOT_4, EXIT_3, TEXT_IN}, "text new, open, blocking, works then"},
    {"CSocket::Receive", "new[]", 1, FAILS(ENOMEM), &RECEIVE, "-1", {GOT_4, EXIT_3}, "text as before, open, blocking, works then"},
    {"NewBlock", "malloc", 1, FAILS(ENOMEM), &RECEIVE, "-1", {GOT_4, EXIT_3, NO_TEXT}, "text NULL, open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EPIPE), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ECONNRESET), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EAGAIN), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EINTR), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ENOBUFS), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ENOMEM), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ENOTCONN), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ETIMEDOUT), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EMSGSIZE), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EBADF), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, ANSWERS(0, "0: nothing taken"), &SEND, "false", {NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, SHORT(1), &SEND, "true", {SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, SHORT(6), &SEND, "true", {SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EPIPE), &SEND_NB, "false", {NOT_SENT}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &SEND_NB, "true", {GET_FLAGS, SENT}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EINVAL), &SEND_NB, "true", {SET_FLAGS, SENT}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 3, FAILS(EBADF), &SEND_NB, "true", {GET_FLAGS, SENT}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EINVAL), &SEND_NB, "true", {SET_FLAGS, SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EPIPE), &SEND_BLOCK, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ECONNRESET), &SEND_BLOCK, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EINTR), &SEND_BLOCK, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, SHORT(2), &SEND_BLOCK, "true", {BLOCK_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(EPIPE), &SEND_FILE, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, FAILS(ENOBUFS), &SEND_FILE, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, ANSWERS(0, "0: nothing taken"), &SEND_FILE, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    {"CSocket::SendBytes", "send", 1, SHORT(1), &SEND_FILE, "true", {FILE_SENT}, "open, blocking, works then"},
    {"CSocket::SendFrame", "malloc", 1, FAILS(ENOMEM), &SEND_LONG, "false", {NOT_SENT_LONG}, "open, blocking, works then"},
    {"CSocket::SendFrame", "malloc", 1, FAILS(ENOMEM), &SEND_BLOCK_LONG, "false", {BLOCK_NOT_SENT}, "open, blocking, works then"},
    // ServerSocket and CClientSocket
    {"CSocket::Create", "socket", 1, FAILS(EMFILE), &SERVER_SOCKET, "throws SocketException: CServerSocket::CServerSocket() : Could not create socket.", {S_CALLED, S_NO_SOCKET}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(ENFILE), &SERVER_SOCKET, "throws SocketException: CServerSocket::CServerSocket() : Could not create socket.", {S_CALLED, S_NO_SOCKET}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(EACCES), &SERVER_SOCKET, "throws SocketException: CServerSocket::CServerSocket() : Could not create socket.", {S_CALLED, S_NO_SOCKET}, "closed, works then"},
    {"CSocket::Create", "setsockopt TCP_NODELAY", 1, FAILS(ENOPROTOOPT), &SERVER_SOCKET, "throws SocketException: CServerSocket::CServerSocket() : Could not create socket.", {S_CALLED, S_NO_SOCKET}, "closed, works then"},
    {"ServerSocket::ServerSocket", "setsockopt SO_REUSEADDR", 2, FAILS(ENOMEM), &SERVER_SOCKET, "constructed", {S_CALLED, S_NO_REUSE, S_CREATED}, "open, non-blocking, works then"},
    {"ServerSocket::ServerSocket", "setsockopt SO_REUSEADDR", 2, FAILS(ENOBUFS), &SERVER_SOCKET, "constructed", {S_CALLED, S_NO_REUSE, S_CREATED}, "open, non-blocking, works then"},
    {"ServerSocket::ServerSocket", "setsockopt SO_REUSEADDR", 2, FAILS(EINVAL), &SERVER_SOCKET, "constructed", {S_CALLED, S_NO_REUSE, S_CREATED}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 1, FAILS(EBADF), &SERVER_SOCKET, "constructed", {GET_FLAGS, S_CALLED, S_CREATED}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 2, FAILS(EINVAL), &SERVER_SOCKET, "constructed", {SET_FLAGS, S_CALLED, S_CREATED}, "open, blocking, works then"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EADDRINUSE), &BIND, "false", {BIND_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EACCES), &BIND, "false", {BIND_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EADDRNOTAVAIL), &BIND, "false", {BIND_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EINVAL), &BIND, "false", {BIND_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EBADF), &BIND, "false", {BIND_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Bind", "bind", 1, FAILS(ENOMEM), &BIND, "false", {BIND_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Listen", "listen", 1, FAILS(EADDRINUSE), &LISTEN, "false", {LISTEN_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Listen", "listen", 1, FAILS(EBADF), &LISTEN, "false", {LISTEN_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Listen", "listen", 1, FAILS(EOPNOTSUPP), &LISTEN, "false", {LISTEN_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Listen", "listen", 1, FAILS(EINVAL), &LISTEN, "false", {LISTEN_FAILED}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EAGAIN), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ECONNABORTED), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EINTR), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EMFILE), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ENFILE), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ENOBUFS), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ENOMEM), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EPROTO), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EPERM), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EBADF), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EINVAL), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_NONE}, "open, non-blocking, works then"},
    {"ServerSocket::Accept", "accept", 1, ANSWERS(0, "0: standard input was closed"), &ACCEPT, "NULL", {ACCEPT_CALLED, ACCEPT_ZERO}, "descriptor 0 closed, open, non-blocking, works then"},
    {"CSocket::Create", "socket", 1, FAILS(EMFILE), &CLIENT_SOCKET, "throws SocketException: CClientSocket::CClientSocket() : Could not create socket.", {C_NO_SOCKET}, "closed, works then"},
    {"CSocket::Create", "socket", 1, FAILS(ENFILE), &CLIENT_SOCKET, "throws SocketException: CClientSocket::CClientSocket() : Could not create socket.", {C_NO_SOCKET}, "closed, works then"},
    {"CSocket::Create", "setsockopt TCP_NODELAY", 1, FAILS(ENOPROTOOPT), &CLIENT_SOCKET, "throws SocketException: CClientSocket::CClientSocket() : Could not create socket.", {C_NO_SOCKET}, "closed, works then"},
    {"CClientSocket::Connect", "inet_pton", 1, FAILS(EAFNOSUPPORT), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "inet_pton", 1, ANSWERS(0, "0: no address"), &CONNECT, "true", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ECONNREFUSED), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ETIMEDOUT), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EINTR), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ENETUNREACH), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EHOSTUNREACH), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EADDRNOTAVAIL), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EADDRINUSE), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EACCES), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EPERM), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EAGAIN), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EALREADY), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EINPROGRESS), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EISCONN), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EBADF), &CONNECT, "false", {}, "open, blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ECONNREFUSED), &CONNECT_NB, "false", {}, "open, non-blocking, works then"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ETIMEDOUT), &CONNECT_NB, "false", {}, "open, non-blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_GETFL", 3, FAILS(EBADF), &CONNECT_NB, "true", {GET_FLAGS}, "open, blocking, works then"},
    {"CSocket::SetBlockingMode", "fcntl F_SETFL", 4, FAILS(EINVAL), &CONNECT_NB, "true", {SET_FLAGS}, "open, blocking, works then"},
    // CWinThread: construction and destruction
    {"CWinThread::CWinThread", "pipe", 1, FAILS(EMFILE), &MAKE_SUSPENDED, "throws CLogException: WinThread::CWinThread, Could not create pipe.", {}, "nothing left, works then"},
    {"CWinThread::CWinThread", "pipe", 1, FAILS(ENFILE), &MAKE_SUSPENDED, "throws CLogException: WinThread::CWinThread, Could not create pipe.", {}, "nothing left, works then"},
    {"CWinThread::CWinThread", "pipe", 1, FAILS(EMFILE), &MAKE_DEFAULT, "throws CLogException: WinThread::CWinThread(AFX_THREADPROC), Could not create pipe.", {}, "nothing left, works then"},
    {"CWinThread::CWinThread", "pipe", 1, FAILS(EMFILE), &BEGIN, "throws CLogException: WinThread::CWinThread, Could not create pipe.", {}, "nothing left, works then"},
    {"CWinThread::CWinThread", "fcntl F_GETFL", 1, FAILS(EBADF), &MAKE_SUSPENDED, "an object", {ADDED}, "write end not blocking, has not ended, works then"},
    {"CWinThread::CWinThread", "fcntl F_SETFL", 2, FAILS(EBADF), &MAKE_SUSPENDED, "an object", {ADDED}, "write end blocking, has not ended, works then"},
    {"CWinThread::CWinThread", "fcntl F_SETFL", 2, FAILS(EINVAL), &MAKE_SUSPENDED, "an object", {ADDED}, "write end blocking, has not ended, works then"},
    {"CreateThread", "pthread_create", 1, FAILS(EAGAIN), &MAKE_SUSPENDED, "throws CLogException: WinThread::CWinThread, Could not create thread.", {NOT_CREATED}, "nothing left, works then"},
    {"CreateThread", "pthread_create", 1, FAILS(ENOMEM), &MAKE_SUSPENDED, "throws CLogException: WinThread::CWinThread, Could not create thread.", {NOT_CREATED}, "nothing left, works then"},
    {"CreateThread", "pthread_create", 1, FAILS(EPERM), &MAKE_SUSPENDED, "throws CLogException: WinThread::CWinThread, Could not create thread.", {NOT_CREATED}, "nothing left, works then"},
    {"CreateThread", "pthread_create", 1, FAILS(EINVAL), &MAKE_SUSPENDED, "throws CLogException: WinThread::CWinThread, Could not create thread.", {NOT_CREATED}, "nothing left, works then"},
    {"CreateThread", "pthread_create", 1, FAILS(EAGAIN), &MAKE_DEFAULT, "throws CLogException: WinThread::CWinThread(AFX_THREADPROC), Could not create thread.", {}, "nothing left, works then"},
    {"CreateThread", "pthread_create", 1, FAILS(EAGAIN), &BEGIN, "throws CLogException: WinThread::CWinThread, Could not create thread.", {NOT_CREATED}, "nothing left, works then"},
    {"CreateThread", "pthread_create", 1, ANSWERS(0, "0, but no id"), &BEGIN, "NULL", {NO_ID, DELETING, DESTROYED, COMPLETED}, "nothing left, works then"},
    {"AfxBeginThread", "new", 1, FAILS(ENOMEM), &BEGIN, "NULL", {NOT_ALLOCATED}, "nothing left, works then"},
    {"LockForEver", "pthread_mutex_lock", 1, FAILS(EINVAL), &MAKE_UNSUSPENDED, "an object", {NOT_SUSPENDED, ADDED}, "runs at once"},
    {"LockForEver", "pthread_mutex_lock", 1, FAILS(EDEADLK), &MAKE_UNSUSPENDED, "an object", {NOT_SUSPENDED, ADDED}, "runs at once"},
    {"CWinThread::EndQueueAndThread", "dup", 1, FAILS(EMFILE), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::EndQueueAndThread", "dup", 1, FAILS(EBADF), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CloseDescriptor", "close", 1, REPORTS(EIO), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CloseDescriptor", "close", 1, REPORTS(EINTR), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CloseDescriptor", "close", 2, REPORTS(EIO), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CloseDescriptor", "close", 3, REPORTS(EIO), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::EndQueueAndThread", "pthread_detach", 1, REPORTS(EINVAL), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::EndQueueAndThread", "pthread_detach", 1, REPORTS(ESRCH), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::EndQueueAndThread", "pthread_cancel", 1, FAILS(ESRCH), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::EndQueueAndThread", "pthread_cancel", 1, REPORTS(ESRCH), &DESTROY_SUSPENDED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::~CWinThread", "pthread_detach", 1, REPORTS(EINVAL), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"CWinThread::~CWinThread", "pthread_detach", 1, REPORTS(ESRCH), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"ThreadLife, each lock", "pthread_mutex_lock", 2, UNPAIRED(EINVAL), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"ThreadLife, each lock", "pthread_mutex_lock", 3, UNPAIRED(EINVAL), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"ThreadLife, each lock", "pthread_mutex_unlock", 2, UNPAIRED(EPERM), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"ThreadLife, each lock", "pthread_mutex_unlock", 3, UNPAIRED(EPERM), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"ThreadLife::Release", "pthread_cond_broadcast", 1, FAILS(EINVAL), &DESTROY_EXITED, "-", {DESTROYED, REMOVED, COMPLETED}, "queue closed, not registered, works then"},
    {"ThreadLife, each lock", "pthread_cond_wait", 1, REPORTS(EINVAL), &DESTROY_ENDING, "-", {DESTROYED, REMOVED, COMPLETED}, "not registered"},
    {"ThreadLife, each lock", "pthread_cond_wait", 1, REPORTS(EPERM), &DESTROY_ENDING, "-", {DESTROYED, REMOVED, COMPLETED}, "not registered"},
    // CWinThread: the queue
    {"CWinThread::PostMessage", "write", 1, FAILS(EBADF), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, FAILS(EPIPE), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, FAILS(EINTR), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, FAILS(EINVAL), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, FAILS(EIO), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, FAILS(ENOSPC), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, FAILS(EAGAIN), &POST, "1", {}, "1 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 0, FAILS(EAGAIN), &POST, "1", {}, "0 in the pipe, some parked, works then"},
    {"CWinThread::PostMessage", "write", 1, ANSWERS(0, "0: nothing taken"), &POST, "0", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::PostMessage", "write", 1, SHORT(5), &POST, "0", {}, "part of a message in the pipe, none parked"},
    {"CWinThread::Park", "write", 2, FAILS(EAGAIN), &POST_FULL, "1", {}, "0 in the pipe, some parked, works then"},
    {"CWinThread::Park", "write", 2, FAILS(EPIPE), &POST_FULL, "1", {}, "0 in the pipe, some parked, works then"},
    {"CWinThread::Park", "write", 2, FAILS(EBADF), &POST_FULL, "1", {}, "0 in the pipe, some parked, works then"},
    {"CWinThread::Park", "write", 2, FAILS(EINTR), &POST_FULL, "1", {}, "0 in the pipe, some parked, works then"},
    {"CWinThread::Park", "write", 2, ANSWERS(3, "3: a part"), &POST_FULL, "1", {}, "0 in the pipe, some parked, works then"},
    {"CWinThread::Park", "new", 1, FAILS(ENOMEM), &POST_PARKING, "throws bad_alloc", {}, "0 in the pipe, none parked, works then"},
    {"CWinThread::LockoutMsgQueue", "close", 1, REPORTS(EIO), &LOCKOUT, "-1", {}, "write end closed, refuses messages"},
    {"CWinThread::LockoutMsgQueue", "close", 1, REPORTS(EINTR), &LOCKOUT, "-1", {}, "write end closed, refuses messages"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(EBADF), &GET_TIMED, "0", {NO_STATUS}, "message untouched, 1 in the pipe, none parked, works then"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(EINVAL), &GET_TIMED, "0", {NO_STATUS}, "message untouched, 1 in the pipe, none parked, works then"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(ENOTTY), &GET_TIMED, "0", {NO_STATUS}, "message untouched, 1 in the pipe, none parked, works then"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(EFAULT), &GET_TIMED, "0", {NO_STATUS}, "message untouched, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EINTR), &GET, "0", {GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EBADF), &GET, "0", {GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EIO), &GET, "0", {GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EAGAIN), &GET, "0", {GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EINVAL), &GET, "0", {GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EISDIR), &GET, "0", {GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, ANSWERS(0, "0: end of file"), &GET, "0", {WRONG_SIZE}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, SHORT(4), &GET, "0", {WRONG_SIZE}, "message 1, part of a message in the pipe, none parked"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EINTR), &GET_TIMED, "0", {BYPASSING, GET_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINTR), &GET_WAITING, "1", {}, "message 0, 0 in the pipe, none parked, works then"},
    {"DescriptorSet::Select", "select", 1, ANSWERS(0, "0: time is over"), &GET_WAITING, "1", {}, "message 0, 0 in the pipe, none parked, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(EBADF), &GET_WAITING, "0", {}, "message untouched, 0 in the pipe, none parked, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINVAL), &GET_WAITING, "0", {}, "message untouched, 0 in the pipe, none parked, works then"},
    {"DescriptorSet::Select", "select", 1, FAILS(ENOMEM), &GET_WAITING, "0", {}, "message untouched, 0 in the pipe, none parked, works then"},
    {"WaitForRecord", "sched_yield", 1, FAILS(ENOSYS), &GET_INTERRUPTED, "1", {}, "message 0, 0 in the pipe, none parked, works then"},
    {"CWinThread::DrainOverflow", "write", 1, FAILS(EAGAIN), &GET_PARKED, "1", {RECEIVED}, "message 1, 0 in the pipe, some parked, works then"},
    {"CWinThread::DrainOverflow", "write", 1, FAILS(EPIPE), &GET_PARKED, "1", {RECEIVED}, "message 1, 0 in the pipe, none parked, works then"},
    {"CWinThread::DrainOverflow", "write", 1, FAILS(EBADF), &GET_PARKED, "1", {RECEIVED}, "message 1, 0 in the pipe, none parked, works then"},
    {"CWinThread::DrainOverflow", "write", 1, FAILS(EINTR), &GET_PARKED, "1", {RECEIVED}, "message 1, 0 in the pipe, none parked, works then"},
    {"CWinThread::DrainOverflow", "write", 1, ANSWERS(4, "4: a part"), &GET_PARKED, "1", {RECEIVED}, "message 1, 0 in the pipe, none parked, works then"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(EBADF), &PEEK, "0", {}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(EINVAL), &PEEK, "0", {}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 1, FAILS(ENOTTY), &PEEK, "0", {}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EINTR), &PEEK, "0", {PEEK_READ_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EBADF), &PEEK, "0", {PEEK_READ_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EIO), &PEEK, "0", {PEEK_READ_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EAGAIN), &PEEK, "0", {PEEK_READ_ERROR}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, ANSWERS(0, "0: end of file"), &PEEK, "0", {}, "message 0, 1 in the pipe, none parked, works then"},
    {"CWinThread::ReadRecord", "read", 1, SHORT(4), &PEEK, "0", {}, "message 1, part of a message in the pipe, none parked"},
    {"CWinThread::DrainOverflow", "write", 1, FAILS(EAGAIN), &PEEK_PARKED, "1", {}, "message 1, 0 in the pipe, some parked, works then"},
    {"CWinThread::DrainOverflow", "write", 1, FAILS(EPIPE), &PEEK_PARKED, "1", {}, "message 1, 0 in the pipe, none parked, works then"},
    // CServer and CClient
    {"CWinThread::CWinThread", "pipe", 1, FAILS(EMFILE), &MAKE_SERVER, "throws CLogException: WinThread::CWinThread(AFX_THREADPROC), Could not create pipe.", {}, "nothing left"},
    {"CreateThread", "pthread_create", 1, FAILS(EAGAIN), &MAKE_SERVER, "throws CLogException: WinThread::CWinThread(AFX_THREADPROC), Could not create thread.", {}, "nothing left"},
    {"CSocket::Create", "socket", 1, FAILS(EMFILE), &MAKE_SERVER, "throws SocketException: CServerSocket::CServerSocket() : Could not create socket.", {ADDED, S_CALLED, S_NO_SOCKET, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EADDRINUSE), &MAKE_SERVER, "throws SocketException: CServer::CServer(port,commHandler) : Could not bind socket.", {ADDED, S_CALLED, S_CREATED, SERVER_CALLED, BIND_FAILED, SERVER_NOT_BOUND, S_DESTROYED, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"ServerSocket::Bind", "bind", 1, FAILS(EACCES), &MAKE_SERVER, "throws SocketException: CServer::CServer(port,commHandler) : Could not bind socket.", {ADDED, S_CALLED, S_CREATED, SERVER_CALLED, BIND_FAILED, SERVER_NOT_BOUND, S_DESTROYED, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"ServerSocket::Listen", "listen", 1, FAILS(EADDRINUSE), &MAKE_SERVER, "throws SocketException: CServer::CServer(port,commHandler) : Could not listen.", {ADDED, S_CALLED, S_CREATED, SERVER_CALLED, SERVER_BOUND, LISTEN_FAILED, SERVER_NOT_LISTENING, S_DESTROYED, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINTR), &SERVER_QUEUE, "the loop goes on", {SERVER_MESSAGE}, "listening, socket open"},
    {"DescriptorSet::Select", "select", 1, ANSWERS(0, "0: nothing ready"), &SERVER_QUEUE, "the loop goes on", {SERVER_NOTHING, SERVER_MESSAGE}, "listening, socket open"},
    {"DescriptorSet::Select", "select", 1, FAILS(EBADF), &SERVER_QUEUE, "the loop ends", {SERVER_SELECT, SERVER_EXITS, BODY_EXITS}, "not listening, socket open"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINVAL), &SERVER_QUEUE, "the loop ends", {SERVER_SELECT, SERVER_EXITS, BODY_EXITS}, "not listening, socket open"},
    {"DescriptorSet::Select", "select", 1, FAILS(ENOMEM), &SERVER_QUEUE, "the loop ends", {SERVER_SELECT, SERVER_EXITS, BODY_EXITS}, "not listening, socket open"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EINTR), &SERVER_QUEUE, "the loop goes on", {SERVER_MESSAGE, GET_ERROR, SERVER_MESSAGE}, "listening, socket open"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EIO), &SERVER_QUEUE, "the loop goes on", {SERVER_MESSAGE, GET_ERROR, SERVER_MESSAGE}, "listening, socket open"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EAGAIN), &SERVER_QUEUE, "the loop goes on", {SERVER_MESSAGE, GET_ERROR, SERVER_MESSAGE}, "listening, socket open"},
    {"CWinThread::ReadRecord", "read", 1, ANSWERS(0, "0: end of file"), &SERVER_QUEUE, "the loop goes on", {SERVER_MESSAGE, WRONG_SIZE, SERVER_MESSAGE}, "listening, socket open"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EAGAIN), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ECONNABORTED), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EINTR), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EMFILE), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ENFILE), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ENOBUFS), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(ENOMEM), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"ServerSocket::Accept", "accept", 1, FAILS(EPROTO), &SERVER_CONNECTION, "the loop goes on", {SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_NONE, SERVER_NOT_ACCEPTED, SERVER_ACCEPTING, ACCEPT_CALLED, ACCEPT_ONE, SERVER_ESTABLISHED}, "listening, connection accepted"},
    {"CSocket::Create", "socket", 1, FAILS(EMFILE), &MAKE_CLIENT, "throws SocketException: CClientSocket::CClientSocket() : Could not create socket.", {ADDED, C_NO_SOCKET, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ECONNREFUSED), &MAKE_CLIENT, "throws CLogException: CClient::CClient, Connection failed", {ADDED, ATTEMPTING, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"CClientSocket::Connect", "connect", 1, FAILS(ETIMEDOUT), &MAKE_CLIENT, "throws CLogException: CClient::CClient, Connection failed", {ADDED, ATTEMPTING, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"CClientSocket::Connect", "connect", 1, FAILS(EINTR), &MAKE_CLIENT, "throws CLogException: CClient::CClient, Connection failed", {ADDED, ATTEMPTING, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"CClient::Connect", "sleep", 1, ANSWERS(1, "1: interrupted"), &MAKE_CLIENT_REFUSED, "throws CLogException: CClient::CClient, Connection failed", {ADDED, ATTEMPTING, DESTROYED, REMOVED, COMPLETED}, "nothing left"},
    {"CClient::HasActivity", "ioctl FIONREAD", 1, FAILS(EBADF), &CLIENT_QUEUE, "the loop goes on", {CLIENT_SELECTING, CLIENT_MESSAGE}, "connected"},
    {"CClient::HasActivity", "ioctl FIONREAD", 1, FAILS(EINVAL), &CLIENT_QUEUE, "the loop goes on", {CLIENT_SELECTING, CLIENT_MESSAGE}, "connected"},
    {"CClient::HasActivity", "ioctl FIONREAD", 1, FAILS(ENOTTY), &CLIENT_QUEUE, "the loop goes on", {CLIENT_SELECTING, CLIENT_MESSAGE}, "connected"},
    {"CWinThread::CountWaitingBytes", "ioctl FIONREAD", 2, FAILS(EBADF), &CLIENT_QUEUE, "the loop goes on", {CLIENT_PIPE, CLIENT_BYPASSED, CLIENT_PIPE, CLIENT_BYPASSED, CLIENT_MESSAGE}, "connected"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EINTR), &CLIENT_QUEUE, "the loop goes on", {CLIENT_PIPE, CLIENT_BYPASSED, PEEK_READ_ERROR, CLIENT_PIPE, CLIENT_BYPASSED, CLIENT_MESSAGE}, "connected"},
    {"CWinThread::ReadRecord", "read", 1, FAILS(EIO), &CLIENT_QUEUE, "the loop goes on", {CLIENT_PIPE, CLIENT_BYPASSED, PEEK_READ_ERROR, CLIENT_PIPE, CLIENT_BYPASSED, CLIENT_MESSAGE}, "connected"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINTR), &CLIENT_LATE, "the loop goes on", {CLIENT_SELECTING, CLIENT_MESSAGE}, "connected"},
    {"DescriptorSet::Select", "select", 1, ANSWERS(0, "0: time is over"), &CLIENT_LATE, "the loop goes on", {CLIENT_SELECTING, CLIENT_TIMED_OUT, CLIENT_PIPE, CLIENT_BYPASSED, CLIENT_MESSAGE}, "connected"},
    {"DescriptorSet::Select", "select", 1, FAILS(EBADF), &CLIENT_LATE, "the loop ends", {CLIENT_SELECTING, CLIENT_SELECT, CLIENT_EXITS, BODY_EXITS}, "connected"},
    {"DescriptorSet::Select", "select", 1, FAILS(EINVAL), &CLIENT_LATE, "the loop ends", {CLIENT_SELECTING, CLIENT_SELECT, CLIENT_EXITS, BODY_EXITS}, "connected"},
    {"DescriptorSet::Select", "select", 1, FAILS(ENOMEM), &CLIENT_LATE, "the loop ends", {CLIENT_SELECTING, CLIENT_SELECT, CLIENT_EXITS, BODY_EXITS}, "connected"},
    // CMutex and CEvent
    {"CMutex::CMutex(bool)", "pthread_mutex_init", 1, FAILS(EAGAIN), &MAKE_MUTEX, "constructed", {}, "not recursive, works then"},
    {"CMutex::CMutex(bool)", "pthread_mutex_init", 1, FAILS(ENOMEM), &MAKE_MUTEX, "constructed", {}, "not recursive, works then"},
    {"CMutex::CMutex(bool)", "pthread_mutex_init", 1, FAILS(EPERM), &MAKE_MUTEX, "constructed", {}, "not recursive, works then"},
    {"CMutex::CMutex(int, bool)", "pthread_mutex_init", 1, FAILS(EAGAIN), &MAKE_KIND, "constructed", {M_CREATOR, M_CREATED}, "not recursive, works then"},
    {"CMutex::CMutex(int, bool)", "pthread_mutex_init", 1, FAILS(ENOMEM), &MAKE_KIND, "constructed", {M_CREATOR, M_CREATED}, "not recursive, works then"},
    {"CMutex::CMutex(int, bool)", "pthread_mutexattr_settype", 1, FAILS(EINVAL), &MAKE_KIND, "constructed", {M_CREATOR, M_CREATED}, "not recursive, works then"},
    {"LockForEver", "pthread_mutex_lock", 1, FAILS(EINVAL), &LOCK, "0", {M_LOCK, M_LOCK_FAILED, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"LockForEver", "pthread_mutex_lock", 1, FAILS(EDEADLK), &LOCK, "0", {M_LOCK, M_LOCK_FAILED, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"LockForEver", "pthread_mutex_lock", 1, FAILS(EAGAIN), &LOCK, "0", {M_LOCK, M_LOCK_FAILED, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"LockForEver", "pthread_mutex_lock", 1, FAILS(ENOTRECOVERABLE), &LOCK, "0", {M_LOCK, M_LOCK_FAILED, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 1, FAILS(EBUSY), &TRY, "0", {M_LOCK, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 1, FAILS(EINVAL), &TRY, "0", {M_LOCK, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 1, FAILS(EAGAIN), &TRY, "0", {M_LOCK, M_NOT_LOCKED}, "not held, 0 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 1, FAILS(EBUSY), &POLL, "1", {M_LOCK, M_LOCKED}, "held, 1 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 1, FAILS(EINVAL), &POLL, "1", {M_LOCK, M_LOCKED}, "held, 1 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 0, FAILS(EBUSY), &POLL, "0", {M_LOCK, M_NOT_LOCKED}, "not held, 10 sleeps, works then"},
    {"Poll", "pthread_mutex_trylock", 0, FAILS(EINVAL), &POLL, "0", {M_LOCK, M_NOT_LOCKED}, "not held, 10 sleeps, works then"},
    {"UnlockAndReport", "pthread_mutex_unlock", 1, FAILS(EPERM), &UNLOCK, "0", {M_UNLOCK, M_UNLOCK_FAILED}, "held, works then"},
    {"UnlockAndReport", "pthread_mutex_unlock", 1, FAILS(EINVAL), &UNLOCK, "0", {M_UNLOCK, M_UNLOCK_FAILED}, "held, works then"},
    {"CEvent::CEvent", "pthread_mutex_init", 1, FAILS(EAGAIN), &MAKE_EVENT, "constructed", {}, "works then"},
    {"CEvent::CEvent", "pthread_mutex_init", 1, FAILS(ENOMEM), &MAKE_EVENT, "constructed", {}, "works then"},
    {"CEvent::SetEvent", "pthread_mutex_lock", 1, UNPAIRED(EINVAL), &SET, "1", {}, "signalled, works then"},
    {"CEvent::SetEvent", "pthread_mutex_lock", 1, UNPAIRED(EDEADLK), &SET, "1", {}, "signalled, works then"},
    {"CEvent::SetEvent", "pthread_mutex_unlock", 1, UNPAIRED(EPERM), &SET, "1", {}, "signalled, works then"},
    {"CEvent::ResetEvent", "pthread_mutex_lock", 1, UNPAIRED(EINVAL), &RESET, "1", {}, "not signalled, works then"},
    {"CEvent::ResetEvent", "pthread_mutex_unlock", 1, UNPAIRED(EPERM), &RESET, "1", {}, "not signalled, works then"},
    {"CEvent::WaitForEventSignal", "pthread_mutex_lock", 1, UNPAIRED(EINVAL), &WAIT_SIGNALLED, "0", {}, "signalled, works then"},
    {"CEvent::WaitForEventSignal", "pthread_mutex_unlock", 1, UNPAIRED(EPERM), &WAIT_SIGNALLED, "0", {}, "signalled, works then"},
    {"CEvent::LockAndWait", "pthread_mutex_lock", 1, UNPAIRED(EINVAL), &LOOK, "0", {}, "signalled, works then"},
    {"CEvent::WaitWithLock", "pthread_mutex_unlock", 1, UNPAIRED(EPERM), &LOOK, "0", {}, "signalled, works then"},
    {"CEvent::SetEvent", "pthread_cond_broadcast", 1, FAILS(EINVAL), &SET, "1", {}, "signalled, works then"},
    {"CEvent::SetEvent", "pthread_cond_signal", 1, FAILS(EINVAL), &SET_AUTO, "1", {}, "not signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, FAILS(EINTR), &WAIT, "110", {}, "not signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, FAILS(EINVAL), &WAIT, "110", {}, "not signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, FAILS(EPERM), &WAIT, "110", {}, "not signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, FAILS(ETIMEDOUT), &WAIT, "110", {}, "not signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, REPORTS(EINTR), &WAIT_LONG, "<errno>", {}, "signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, REPORTS(EINVAL), &WAIT_LONG, "<errno>", {}, "signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_timedwait", 1, REPORTS(ETIMEDOUT), &WAIT_LONG, "<errno>", {}, "signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_wait", 1, REPORTS(EINVAL), &WAIT_EVER, "0", {}, "signalled, works then"},
    {"CEvent::SleepUntilSignalled", "pthread_cond_wait", 1, REPORTS(EINTR), &WAIT_EVER, "0", {}, "signalled, works then"},
    // CMemFile, texts and BSTRs
    {"PrintTo", "vsnprintf to the stack", 1, ANSWERS(-1, "-1: a text that cannot be made"), &WRITE_F, "-", {}, "nothing written, works then"},
    {"PrintTo", "vsnprintf to the stack", 1, ANSWERS(-1, "-1: a text that cannot be made"), &WRITE_ENTITIES_F, "-", {}, "nothing written, works then"},
    {"PrintLongTo", "vsnprintf to the heap", 2, ANSWERS(-1, "-1: a text that cannot be made"), &WRITE_F_LONG, "-", {}, "nothing written, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(ENOENT), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(EACCES), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(EMFILE), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(ENFILE), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(ENOSPC), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(EROFS), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fopen", 1, FAILS(ENOMEM), &DUMP, "-", {}, "nothing open, memory file as before, no file, works then"},
    {"CMemFile::Dump", "fprintf, the five of the header", 1, NATURAL("ENOSPC"), &DUMP_FULL_UNBUFFERED, "-", {}, "nothing open, memory file as before"},
    {"CMemFile::Dump", "fputs \"Buffer:\"", 1, NATURAL("ENOSPC"), &DUMP_FULL_UNBUFFERED, "-", {}, "nothing open, memory file as before"},
    {"CMemFile::Dump", "fputc", 1, NATURAL("ENOSPC"), &DUMP_FULL_LONG, "-", {}, "nothing open, memory file as before"},
    {"CMemFile::Dump", "fputs \"^^^\"", 1, NATURAL("ENOSPC"), &DUMP_FULL_UNBUFFERED, "-", {}, "nothing open, memory file as before"},
    {"CMemFile::Dump", "fclose", 1, NATURAL("ENOSPC"), &DUMP_FULL, "-", {}, "nothing open, memory file as before"},
    {"NewBuffer", "malloc", 1, FAILS(ENOMEM), &ASSIGN_TEXT, "throws CMemoryException", {}, "empty, works then"},
    {"XStringData::CopyBeforeWrite", "malloc", 1, FAILS(ENOMEM), &DETACH_TEXT, "throws CMemoryException", {}, "both as before, works then"},
    {"XString::Format", "vsnprintf", 1, NATURAL("-1: no conversion"), &FORMAT, "\"\"", {}, "length 0, works then"},
    {"XString::FormatV", "vsnprintf", 1, NATURAL("-1: no conversion"), &FORMAT_V, "\"\"", {}, "length 0, works then"},
    {"NewBlock", "malloc", 1, FAILS(ENOMEM), &ALLOC_STRING, "NULL", {}, "works then"},
    {"NewBlock", "malloc", 1, FAILS(ENOMEM), &ALLOC_STRING_LEN, "NULL", {}, "works then"},
    {"NewBlock", "malloc", 2, FAILS(ENOMEM), &BSTR_LONG, "NULL", {}, "works then"},
    {"BSTRFormatV", "malloc", 1, FAILS(ENOMEM), &BSTR_LONG, "NULL", {}, "works then"},
    {"BSTRFormatV", "vsnprintf to the stack", 1, NATURAL("-1: no conversion"), &BSTR_REFUSED, "a BSTR", {}, "works then"},
    {"BSTRFormatV", "vsnprintf to the heap", 1, NATURAL("-1: no conversion"), &BSTR_REFUSED_LONG, "a BSTR", {}, "works then"},
    {"TRACE", "vsnprintf", 1, NATURAL("-1: no conversion"), &TRACE_REFUSED, "prints \"\"", {}, "works then"},
    {"TRACE", "printf", 1, NATURAL("-1: no conversion"), &TRACE_REFUSED_TWICE, "prints \"\"", {}, "works then"},
    {"TRACE", "printf", 1, NATURAL("ENOSPC"), &TRACE_FULL, "-", {}, "works then"},
    {"XString::Dump", "putchar", 0, NATURAL("ENOSPC"), &DUMP_INDENT_FULL, "-1", {}, "text as before, works then"},
    {"XString::Dump", "printf", 1, NATURAL("ENOSPC"), &DUMP_TEXT_FULL, "-1", {}, "text as before, works then"},
};
// clang-format on

// ---------------------------------------------------------------------------------------------------------
// The cases

std::string SiteName(const char* function, const char* call) { return std::string(function) + ": " + call; }

// "Connect_non_blocking_fcntl_3_EBADF": the operation, the call, which of them, the error.
std::string RowName(const testing::TestParamInfo<Row>& info) {
    const Row& row = info.param;
    const std::string text = std::string(row.operation->name) + " " + FunctionName(row.call) + " " +
                             (row.nth == 0 ? "each" : std::to_string(row.nth)) + " " + row.fault.name +
                             (strstr(row.call, "fputs") ? row.call : "");
    std::string name;
    for (size_t i = 0; i < text.size(); i++)
        if (isalnum(static_cast<unsigned char>(text[i])))
            name += text[i];
        else if (!name.empty() && name.back() != '_')
            name += '_';
    while (name.back() == '_')
        name.pop_back();
    return name;
}

bool CallsMalloc(const Row& row) { return FunctionName(row.call) == "malloc"; }

class FaultMatrixEach : public testing::TestWithParam<Row> {};

TEST_P(FaultMatrixEach, Has_its_result_its_lines_and_its_state) {
    if (CallsMalloc(GetParam()) && !Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    Trial trial(GetParam());
    GetParam().operation->run(trial);
    if (!IsSkipped())
        trial.Check();
}

INSTANTIATE_TEST_SUITE_P(, FaultMatrixEach, testing::ValuesIn(ROWS), RowName);

// ---------------------------------------------------------------------------------------------------------
// The table as a whole

// A cell of a Markdown table.
std::string Cell(std::string text) { return Replaced(std::move(text), "|", "\\|"); }

std::string Code(const std::string& text) { return text.empty() ? "" : "`" + Cell(text) + "`"; }

std::string Occurrence(const Row& row) { return row.nth == 0 ? "each" : std::to_string(row.nth); }

std::string Markdown() {
    std::ostringstream page;
    const auto places =
        std::count_if(std::begin(SITES), std::end(SITES), [](const Site& site) { return !site.withoutRow; });
    page << std::size(ROWS) << " combinations at " << places << " places:\n\n"
         << "| # | Place | Call | Nth | Fault | Operation | Result | Log lines | State afterwards |\n"
         << "|---|---|---|---|---|---|---|---|---|\n";
    int number = 0;
    for (const Row& row : ROWS) {
        page << "| " << ++number << " | " << Code(row.function) << " | " << Code(row.call) << " | "
             << Occurrence(row) << " | " << Cell(row.fault.name) << " | " << Cell(row.operation->name)
             << " | " << Cell(row.result) << " | ";
        for (const char* const& line : row.lines)
            page << (&line == row.lines.data() ? "" : "<br>") << Code(line);
        page << (row.lines.empty() ? "none" : "") << " | " << Cell(row.state) << " |\n";
    }
    page << "\nWithout a row:\n\n| File | Place | Call | Why |\n|---|---|---|---|\n";
    for (const Site& site : SITES)
        if (site.withoutRow)
            page << "| " << Code(site.file) << " | " << Code(site.function) << " | " << Code(site.call)
                 << " | " << Cell(site.withoutRow) << " |\n";
    return page.str();
}

TEST(FaultMatrix, Prints_its_table) {
    std::set<std::string> covered;
    for (const Row& row : ROWS)
        covered.insert(SiteName(row.function, row.call));
    for (const Site& site : SITES) {
        const std::string name = SiteName(site.function, site.call);
        EXPECT_EQ(covered.erase(name), site.withoutRow ? 0U : 1U) << name;
    }
    EXPECT_EQ(covered, std::set<std::string>()) << "rows of no place";
    EXPECT_GE(std::size(ROWS), 150U);
    if (const char* path = getenv("WINDOWS_FAULT_MATRIX")) {
        std::ofstream file(path);
        file << Markdown();
        file.close();
        EXPECT_TRUE(file) << path;
    }
}

// Where this repository is, if it is here.
const std::filesystem::path ROOT = std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();

TEST(FaultMatrix, Is_what_the_page_shows) {
    std::ifstream file(ROOT / "docs/reliability.md");
    if (!file)
        GTEST_SKIP() << "the page is not here";
    std::stringstream page;
    page << file.rdbuf();
    const std::string begin = "<!-- fault matrix -->\n", end = "<!-- end of the fault matrix -->\n";
    const size_t from = page.str().find(begin);
    const size_t to = page.str().find(end);
    ASSERT_LT(from, to) << "no table";
    EXPECT_TRUE(page.str().substr(from + begin.size(), to - from - begin.size()) == Markdown())
        << "docs/reliability.md tells how to renew it";
}

// The calls that the table is about. What cannot fail is not among them.
const char* const CALLS[] = {
    "pipe", "fcntl", "ioctl", "select", "read", "write", "close", "dup", "socket", "setsockopt", "bind",
    "listen", "accept", "connect", "recv", "send", "inet_pton", "inet_aton", "pthread_create",
    "pthread_detach", "pthread_cancel", "pthread_setcancelstate", "pthread_attr_init",
    "pthread_attr_setinheritsched", "pthread_attr_setstacksize", "pthread_attr_destroy", "pthread_mutex_init",
    "pthread_mutex_destroy", "pthread_mutex_lock", "pthread_mutex_trylock", "pthread_mutex_unlock",
    "pthread_mutexattr_init", "pthread_mutexattr_settype", "pthread_mutexattr_destroy", "pthread_cond_init",
    "pthread_cond_destroy", "pthread_cond_wait", "pthread_cond_timedwait", "pthread_cond_broadcast",
    "pthread_cond_signal", "sched_yield", "sleep", "fopen", "fprintf", "fputs", "fputc", "fclose", "printf",
    "putchar", "snprintf", "vsnprintf", "malloc", "realloc",
    // that may come later
    "poll", "shutdown", "getsockopt", "getsockname", "getpeername", "sendto", "recvfrom", "sendmsg",
    "recvmsg", "fflush", "fwrite", "fread", "open", "dup2", "calloc", "pthread_join", "strdup"};

// "Windows/Socket.cpp: close" with the number of such calls, of the library's source.
std::map<std::string, int> CallsInSource(const std::filesystem::path& root) {
    std::map<std::string, int> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root / "Windows")) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);) {
            line = line.substr(0, line.find("//"));
            for (const std::string call : CALLS)
                for (size_t at = 0; (at = line.find(call + "(", at)) != std::string::npos; at++) {
                    const char before = at == 0 ? ' ' : line[at - 1];
                    if (!isalnum(static_cast<unsigned char>(before)) && !strchr("_.>:~", before))
                        found[entry.path().lexically_relative(root).string() + ": " + call]++;
                }
            for (size_t at = 0; (at = line.find("new (std::nothrow)", at)) != std::string::npos; at++)
                found[entry.path().lexically_relative(root).string() + ": new"]++;
        }
    }
    return found;
}

TEST(FaultMatrix, Knows_every_call_in_the_librarys_source) {
    if (!std::filesystem::exists(ROOT / "Windows"))
        GTEST_SKIP() << "the library's source is not here";
    std::map<std::string, int> known;
    for (const Site& site : SITES) {
        const std::string function = FunctionName(site.call);
        if (strcmp(site.function, "CWinThread::Park") != 0 || function != "new") // one that throws
            known[std::string(site.file) + ": " + Replaced(Replaced(function, "[]", ""), ",", "")]++;
    }
    known["Windows/MemFile.cpp: fprintf"] += 4; // five in one
    const std::map<std::string, int> found = CallsInSource(ROOT);
    for (const auto& [call, count] : found)
        EXPECT_EQ(known[call], count) << call << " has more or fewer places in the source than in SITES";
    for (const auto& [call, count] : known)
        EXPECT_EQ(found.count(call), 1U) << call << " is in SITES only";
}

} // namespace
