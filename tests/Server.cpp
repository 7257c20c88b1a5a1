// Tests of CServer: construction in steps, the order of what one wake-up reports, and the ends of its loop.
#include <Windows/Server.h>

#include <signal.h>

#include <type_traits>

#include "NetworkFixtures.h"

namespace {

static_assert(std::is_convertible<CServer*, CWinThread*>::value, "derives publicly");
static_assert(std::is_same<decltype(&CServer::Main), void (CServer::*)()>::value, "what overriders match");

const ExpectedEvent ACTIVE = {11, 7, "CServer::Main (thread is now active so we are truly listening!!)"};
const ExpectedEvent NOTHING_READY = {11, 6, "CServer::Main() : Nothing ready. "};
const ExpectedEvent ACCEPTING = {11, 9, "CServer::Main() : Accepting client connection request."};
const ExpectedEvent ESTABLISHED = {11, 9, "CServer::Main() : Client connection established."};
const ExpectedEvent NOT_ACCEPTED = {11, 1, "CServer::Main() : Could not accept connection."};
const ExpectedEvent MESSAGE = {11, 9, "CServer::Main() : Message on thread's FIFO."};
const ExpectedEvent NOT_LISTENING = {11, 4, "CServer::Main No longer listening (exiting)."};

ExpectedEvent SelectFailed(int error) {
    return {11, 3, Text("CServer::Main() : Select returned with error %d ", error)};
}

std::vector<Event> MainEvents(CServer& server) { return EventsOf(server.m_nThreadID, "CServer::Main"); }

// One of the two constructors, with its texts.
struct Form {
    const char* name;
    CServer* (*make)(int port, CCmdTarget& target);
    const char* called;
    const char* bound;
    const char* notBound;
    const char* notListening;
    const char* created; // without the id
};

const Form FORMS[] = {
    {"port", [](int port, CCmdTarget& target) { return new CServer(port, target); },
     "CServer::CServer(port,commHandler) : Called!", "CServer::CServer(port,commHandler) : Bound socket.",
     "CServer::CServer(port,commHandler) : Could not bind socket.",
     "CServer::CServer(port,commHandler) : Could not listen.",
     "CServer::CServer(port,commHandler) : Object Created (m_nThreadID = "},
    {"address",
     [](int port, CCmdTarget& target) { return new CServer(AddressOf("192.0.2.7", port), target); },
     "CServer::CServer() : Called!", "CServer::CServer(sa,commHanlder) : Bound socket.",
     "CServer::CServer(sa,commHanlder) : Could not bind socket.",
     "CServer::CServer(sa,commHanlder) : Could not listen.",
     "CServer::CServer(sa,commHanlder) : Object Created (m_nThreadID = "},
};

const ExpectedEvent SOCKET_CALLED = {13, 7, "ServerSocket::ServerSocket() : called!"};
const ExpectedEvent SOCKET_CREATED = {13, 7, "ServerSocket::ServerSocket() : Socket created!"};
const ExpectedEvent SOCKET_DESTROYED = {13, 7, "ServerSocket::~ServerSocket() : called!"};
const ExpectedEvent THREAD_ADDED = {11, 9, Like("CWinThread::AddThread : id = *")};

// A connection to a server, both ends.
struct Client {
    Client(CServer& server, RecordingTarget& target) {
        const size_t before = target.Accepted().size();
        peer = ConnectTo(PortOf(server));
        EXPECT_TRUE(peer.IsOpen());
        fd = target.WaitForConnection(before);
    }

    Connection peer;
    int fd; // the server's descriptor
};

// Writes "select" into a target's record whenever a thread is about to wait.
class MarkSelects {
public:
    MarkSelects(CWinThread& thread, RecordingTarget& target) : m_script(Call::Select) {
        m_script.OnThread(thread.m_nThreadID).Always().Before([&target] { target.Note("select"); });
    }

private:
    Interpose m_script;
};

std::string Connected(int fd) { return Text("connection %d", fd); }
std::string Active(int fd) { return Text("activity %d", fd); }

int Post(CServer& server, unsigned int message) {
    return PostThreadMessage(server.m_nThreadID, message, 0, nullptr);
}

// Two wake-ups through the queue: whatever was ready before has been reported when it returns.
void PassTwice(CServer& server, RecordingTarget& target) {
    Hold(server, target).Release();
    Hold(server, target).Release();
}

// ---------------------------------------------------------------------------------------------------------
// Layout

TEST(Server, Main_stands_in_its_slot_behind_both_destructors) { EXPECT_EQ(SlotOf(&CServer::Main), 2); }

TEST(Server, Fields_follow_the_base_in_their_order) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    const char* listening = reinterpret_cast<char*>(&(server.get()->*ServerFields::Listening()));
    const char* event = reinterpret_cast<char*>(&(server.get()->*ServerFields::ListeningEvent()));
    const char* socket = reinterpret_cast<char*>(&server->m_serverSocket);
    EXPECT_GE(listening, reinterpret_cast<char*>(server.get()) + sizeof(CWinThread) - sizeof(void*));
    EXPECT_LT(listening, event);
    EXPECT_LT(event, socket);

    // The reference stands between the first two, with padding behind it where events are aligned to 8 bytes.
    const uintptr_t slot = (reinterpret_cast<uintptr_t>(listening) / sizeof(void*) + 1) * sizeof(void*);
    const CCmdTarget* handler;
    memcpy(&handler, reinterpret_cast<const void*>(slot), sizeof handler);
    EXPECT_EQ(handler, &target);
}

// ---------------------------------------------------------------------------------------------------------
// Construction

TEST(Server, Constructor_posts_its_events_in_order) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        Recorder::Clear();
        ServerPtr server(form.make(0, target));
        const std::string created = form.created + Text("%d)", static_cast<int>(server->m_nThreadID));
        EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(pthread_self()),
                               {THREAD_ADDED,
                                SOCKET_CALLED,
                                SOCKET_CREATED,
                                {13, 7, form.called},
                                {11, 9, form.bound},
                                {11, 7, "ServerSocket::Listen() : status = 0"},
                                {13, 7, created}}));
    }
}

TEST(Server, Constructor_binds_before_it_listens_and_resumes_the_thread_last) {
    RecordingTarget target;
    IntroduceToSanitizer([&] { return new CServer(0, target); });
    Recorder::Clear();
    CallLog log({Call::Pipe, Call::PthreadCreate, Call::Socket, Call::Bind, Call::Listen});
    ServerPtr server(new CServer(0, target));
    EXPECT_EQ(log.Texts(), (Calls{"pipe()", "pthread_create()", "socket(AF_INET, SOCK_STREAM, 0)",
                                  "bind(127.0.0.1:0)", "listen(128)"}));
    EXPECT_TRUE(Recorder::WaitFor(ACTIVE));
    const std::vector<Event> events = Recorder::Events();
    const auto position = [&](const ExpectedEvent& wanted) {
        return std::find_if(events.begin(), events.end(),
                            [&](const Event& event) { return wanted.Matches(event); }) -
               events.begin();
    };
    EXPECT_LT(position({13, 7, Like("CServer::CServer(port,commHandler) : Object Created*")}),
              position(ACTIVE));
}

TEST(Server, Listens_on_the_given_port_and_ignores_the_address) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        for (bool debug : {false, true}) {
            Host::SetDebug(debug);
            const int port = UnusedPort();
            RecordingTarget target;
            ServerPtr server(form.make(port, target));
            EXPECT_EQ(PortOf(*server), port);
            EXPECT_EQ(ntohl(LocalAddress(Listener(*server)).sin_addr.s_addr),
                      debug ? INADDR_ANY : INADDR_LOOPBACK);
            EXPECT_TRUE(ConnectTo(port).IsOpen());
            EXPECT_TRUE(Recorder::WaitFor(ESTABLISHED));
            Recorder::Clear();
        }
    }
}

// A derived object is still being constructed when the thread begins, so it runs this class's Main.
TEST(Server, Thread_may_run_the_servers_own_Main_while_a_derived_object_is_constructed) {
    struct Derived : CServer {
        explicit Derived(CCmdTarget& target) : CServer(0, target) {}
        void Main() override { ADD_FAILURE() << "the derived Main ran"; }
    };
    RecordingTarget target;
    Overtaking overtaking("Object Created", ACTIVE);
    ServerPtr server(new Derived(target));
    EXPECT_TRUE(overtaking.Waited());
    EXPECT_EQ(server->WaitUntilListening(), 0);
}

// ---------------------------------------------------------------------------------------------------------
// Failed construction

TEST(Server, Constructor_without_a_socket_throws_and_leaves_nothing) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        Recorder::Clear();
        {
            NothingLeft nothing;
            Interpose fail(Call::Socket);
            fail.OnThisThread().Fail(EMFILE);
            const char* text = SocketExceptionOf([&] { return form.make(0, target); });
            EXPECT_STREQ(text, "CServerSocket::CServerSocket() : Could not create socket.");
        }
        EXPECT_TRUE(SameEvents(First(6, Recorder::EventsOfThread(pthread_self())),
                               std::vector<ExpectedEvent>{
                                   THREAD_ADDED,
                                   SOCKET_CALLED,
                                   {11, 1, "CServerSocket::CServerSocket() : Could not create socket."},
                               } + ThreadDestroyed()));
        ServerPtr next(form.make(0, target));
        EXPECT_EQ(next->WaitUntilListening(), 0);
    }
}

TEST(Server, Constructor_that_cannot_bind_throws_and_leaves_nothing) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        Recorder::Clear();
        {
            NothingLeft nothing;
            Interpose fail(Call::Bind);
            fail.OnThisThread().Fail(EACCES);
            const char* text = SocketExceptionOf([&] { return form.make(0, target); });
            EXPECT_STREQ(text, form.notBound);
        }
        EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(pthread_self()),
                               std::vector<ExpectedEvent>{
                                   THREAD_ADDED,
                                   SOCKET_CALLED,
                                   SOCKET_CREATED,
                                   {13, 7, form.called},
                                   {11, 1, Text("Bind failed called! %s", strerror(EACCES))},
                                   {11, 1, form.notBound},
                                   SOCKET_DESTROYED,
                               } + ThreadDestroyed()));
        ServerPtr next(form.make(0, target));
        EXPECT_EQ(next->WaitUntilListening(), 0);
    }
}

TEST(Server, Constructor_that_cannot_listen_throws_and_leaves_nothing) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        Recorder::Clear();
        {
            NothingLeft nothing;
            Interpose fail(Call::Listen);
            fail.OnThisThread().Fail(EADDRINUSE);
            const char* text = SocketExceptionOf([&] { return form.make(0, target); });
            EXPECT_STREQ(text, form.notListening);
        }
        EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(pthread_self()),
                               std::vector<ExpectedEvent>{
                                   THREAD_ADDED,
                                   SOCKET_CALLED,
                                   SOCKET_CREATED,
                                   {13, 7, form.called},
                                   {11, 9, form.bound},
                                   {11, 7, "ServerSocket::Listen() : status = -1"},
                                   {11, 1, form.notListening},
                                   SOCKET_DESTROYED,
                               } + ThreadDestroyed()));
        ServerPtr next(form.make(0, target));
        EXPECT_EQ(next->WaitUntilListening(), 0);
    }
}

TEST(Server, Constructor_on_a_used_port_throws_and_a_free_port_works_afterwards) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        ListenSocket occupant;
        Recorder::Clear();
        {
            NothingLeft nothing;
            const char* text = SocketExceptionOf([&] { return form.make(occupant.Port(), target); });
            EXPECT_STREQ(text, form.notBound);
        }
        EXPECT_TRUE(Recorder::Has(11, 1, Text("Bind failed called! %s", strerror(EADDRINUSE))));
        EXPECT_EQ(Recorder::Count(11, 1, form.notBound), 1);
        EXPECT_FALSE(Recorder::Has(11, 9, form.bound));

        ServerPtr server(form.make(0, target));
        Client client(*server, target);
        EXPECT_TRUE(client.peer.Send(Frame("hello")));
        EXPECT_TRUE(target.WaitForCall(Active(client.fd)));
    }
}

TEST(Server, Constructor_without_a_pipe_or_thread_throws_the_hosts_error_and_leaves_nothing) {
    const struct {
        Call call;
        const char* texts;
    } cases[] = {
        {Call::Pipe, "WinThread::CWinThread(AFX_THREADPROC): Could not create pipe."},
        {Call::PthreadCreate, "WinThread::CWinThread(AFX_THREADPROC): Could not create thread."},
    };
    for (const Form& form : FORMS)
        for (const auto& failure : cases) {
            SCOPED_TRACE(std::string(form.name) + ", " + failure.texts);
            RecordingTarget target;
            IntroduceToSanitizer([&] { return form.make(0, target); });
            Recorder::Clear();
            {
                NothingLeft nothing;
                Interpose fail(failure.call);
                fail.OnThisThread().Fail(EAGAIN);
                const char* texts = LogExceptionOf([&] { return form.make(0, target); });
                EXPECT_STREQ(texts, failure.texts);
            }
            EXPECT_FALSE(Recorder::Has(13, 7, form.called));
            ServerPtr next(form.make(0, target));
            EXPECT_EQ(next->WaitUntilListening(), 0);
        }
}

TEST(Server, Failed_construction_releases_its_objects) {
    RecordingTarget target;
    IntroduceToSanitizer([&] { return new CServer(0, target); });
    for (const Form& form : FORMS)
        for (Call call : {Call::Pipe, Call::PthreadCreate, Call::Socket, Call::Bind, Call::Listen}) {
            SCOPED_TRACE(std::string(form.name) + ", call " + std::to_string(static_cast<int>(call)));
            EXPECT_EQ(ObjectsLeftBy([&] { return form.make(0, target); }, call), 0);
        }
}

// The thread of a failed construction must neither run nor touch what is built at its place afterwards.
TEST(Server, Construction_works_where_others_have_failed_at_the_same_address) {
    RecordingTarget target;
    ListenSocket occupant;
    void* place = operator new(sizeof(CServer));
    for (int round = 0; round < 20; round++) {
        const std::string before = Text("round %d", round);
        SCOPED_TRACE(before);
        for (int failure = 0; failure < 3; failure++)
            EXPECT_THROW(new (place) CServer(occupant.Port(), target), SocketException);
        Recorder::Clear();
        CServer* server = new (place) CServer(0, target);
        EXPECT_EQ(server->WaitUntilListening(), 0);
        EXPECT_TRUE(EndThread(*server));
        EXPECT_EQ(Recorder::Count(ACTIVE.type, ACTIVE.severity, ACTIVE.text), 1);
        server->~CServer();
    }
    operator delete(place);
}

// ---------------------------------------------------------------------------------------------------------
// Destruction

TEST(Server, Destructor_posts_its_events_in_order_and_closes_the_listener) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    const int port = PortOf(*server);
    const int listener = Listener(*server);
    ASSERT_TRUE(EndThread(*server));
    const auto id = static_cast<unsigned int>(server->m_nThreadID);
    CallLog log({Call::Close});
    Recorder::Clear();
    server.reset();
    EXPECT_TRUE(
        SameEvents(Recorder::Events(),
                   std::vector<ExpectedEvent>{{13, 7, "CServer::~CServer() called!"}, SOCKET_DESTROYED} +
                       ThreadDestroyed(id)));
    const std::vector<CallRecord> closes = log.Records();
    ASSERT_EQ(closes.size(), 2U); // the handler has closed the queue's read end
    EXPECT_EQ(closes[0].fd, listener);
    EXPECT_FALSE(ConnectTo(port).IsOpen());
}

TEST(Server, Destructor_leaves_accepted_connections_alone) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    server.reset();
    CSocket* socket = target.Socket(client.fd);
    EXPECT_TRUE(socket->Send(const_cast<char*>("still there")));
    EXPECT_EQ(client.peer.ReadFrame(), "still there");
    EXPECT_TRUE(client.peer.Send(Frame("so am I")));
    EXPECT_TRUE(target.ReadFrame(client.fd)) << "the frame may be read on any thread now";
    EXPECT_EQ(socket->m_fd, client.fd);
}

TEST(Server, A_thousand_servers_are_destroyed_while_their_threads_wait) {
    Recorder::Pause();
    RecordingTarget target;
    const size_t registered = RegisteredThreads();
    const std::map<int, std::string> descriptors = Resources::Descriptors();
    SelectWatch watch;
    for (int i = 0; i < 1000; i++) {
        watch.Again();
        std::unique_ptr<CServer> server(new CServer(0, target));
        ASSERT_TRUE(watch.WaitAsleep()) << "server " << i;
    }
    EXPECT_EQ(RegisteredThreads(), registered);
    EXPECT_EQ(Resources::Descriptors(), descriptors);
    EXPECT_TRUE(target.Seen().empty());
}

// Wherever the thread is by then: not begun, on its way to the wait, or in it.
TEST(Server, May_be_destroyed_as_soon_as_it_is_constructed) {
    Recorder::Pause();
    RecordingTarget target;
    for (int i = 0; i < 300; i++) {
        CServer server(0, target);
        for (int spins = i % 10 * 1000; spins > 0; spins--)
            __asm__ volatile("" ::: "memory");
    }
    EXPECT_TRUE(target.Seen().empty());
}

TEST(Server, Destroyed_while_it_waits_keeps_clients_that_the_target_owns) {
    RecordingTarget target;
    SelectWatch watch;
    std::unique_ptr<CServer> server(new CServer(0, target));
    Client client(*server, target);
    {
        Hold hold(*server, target);
        watch.Again();
    }
    ASSERT_TRUE(watch.WaitAsleep());
    server.reset();
    EXPECT_TRUE(target.Socket(client.fd)->Send(const_cast<char*>("still there")));
    EXPECT_EQ(client.peer.ReadFrame(), "still there");
}

// ---------------------------------------------------------------------------------------------------------
// The state that others see

TEST(Server, AddHandler_only_posts_an_event) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    EXPECT_EQ(server->WaitUntilListening(), 0);
    CallLog log(Traffic());
    Recorder::Clear();
    server->AddHandler();
    EXPECT_TRUE(
        SameEvents(Recorder::EventsOfThread(pthread_self()), {{13, 7, "CServer::AddHandler() called!"}}));
    EXPECT_EQ(log.Texts(), Calls{});
    EXPECT_TRUE(target.Seen().empty());
}

TEST(Server, Is_listening_from_its_first_event_to_the_failure_of_its_wait) {
    for (const Form& form : FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        std::map<std::string, bool> listening; // at the moment of an event
        int eventBefore = -1;
        Recorder::Hook hook([&](const Event& event) {
            if (event.type == 23 || event.text.compare(0, 13, "CServer::Main") != 0)
                return;
            CServer* own = static_cast<CServer*>(CWinThread::MapIdToWinThread(GetCurrentThreadId()));
            listening[event.text] = own->IsListening();
            if (ACTIVE.Matches(event))
                eventBefore = own->WaitUntilListening(0);
        });
        ServerPtr server(form.make(0, target));
        EXPECT_EQ(server->WaitUntilListening(), 0);
        EXPECT_EQ(server->WaitUntilListening(), 0) << "the event is reset by hand";
        EXPECT_TRUE(server->IsListening());
        ASSERT_TRUE(EndThread(*server));
        EXPECT_FALSE(server->IsListening());
        EXPECT_EQ(eventBefore, ETIMEDOUT);
        EXPECT_FALSE(listening[ACTIVE.text.Shown()]);
        EXPECT_TRUE(listening[SelectFailed(EBADF).text.Shown()]);
        EXPECT_FALSE(listening[NOT_LISTENING.text.Shown()]);
    }
}

TEST(Server, Sets_its_event_before_it_waits) {
    RecordingTarget target;
    Gate mayWait;
    Interpose hold(Call::Select);
    hold.Before([&] { mayWait.Wait(); });
    ServerPtr server(new CServer(0, target));
    EXPECT_TRUE(hold.WaitActed());
    EXPECT_EQ(server->WaitUntilListening(0), 0);
    EXPECT_TRUE(server->IsListening());
    mayWait.Open();
}

// ---------------------------------------------------------------------------------------------------------
// The wait

TEST(Server, Waits_without_a_limit_up_to_the_listening_descriptor) {
    RecordingTarget target;
    CallLog log({Call::Select}, CallLog::AllThreads);
    ServerPtr server(new CServer(0, target));
    ASSERT_TRUE(log.WaitFor(Call::Select));
    const CallRecord record = log.Records().front();
    EXPECT_EQ(record.text, "select(NULL)");
    EXPECT_EQ(record.number, Listener(*server) + 1);
    EXPECT_TRUE(pthread_equal(record.thread, server->m_nThreadID));
}

TEST(Server, Highest_descriptor_grows_with_clients_and_is_never_lowered) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Filler filler(Listener(*server) + 20); // the first client is well above the listener
    Client high(*server, target);
    EXPECT_GT(high.fd, Listener(*server) + 19);

    CallLog log({Call::Select}, CallLog::AllThreads);
    PassTwice(*server, target);
    EXPECT_EQ(log.Records().back().number, high.fd + 1);

    Connection pending;
    {
        Hold hold(*server, target); // a client that gets a lower descriptor
        pending = ConnectTo(PortOf(*server));
        const int low = filler.FreeLowest();
        hold.Release();
        EXPECT_TRUE(target.WaitForCall(Connected(low)));
    }
    log.Clear();
    PassTwice(*server, target);
    EXPECT_EQ(log.Records().back().number, high.fd + 1);

    high.peer.Close(); // and the handler deletes its socket and stops watching
    EXPECT_TRUE(target.WaitForCall(Active(high.fd)));
    PassTwice(*server, target);
    EXPECT_EQ(target.Socket(high.fd), nullptr);
    EXPECT_EQ(log.Records().back().number, high.fd + 1);
}

TEST(Server, Interrupted_wait_is_repeated_without_an_event) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    Hold hold(*server, target);
    Recorder::Clear();
    target.Forget();
    CallLog log({Call::Select}, CallLog::AllThreads);
    Interpose first(Call::Select), second(Call::Select), third(Call::Select);
    first.OnThread(server->m_nThreadID).OnCall(1).Fail(EINTR);
    second.OnThread(server->m_nThreadID).OnCall(2).Fail(EINTR);
    third.OnThread(server->m_nThreadID).OnCall(3).Fail(EINTR);
    EXPECT_TRUE(client.peer.Send(Frame("x")));
    EXPECT_EQ(Post(*server, 5), 1);
    EXPECT_TRUE(WaitForBytes(client.fd, 5));
    hold.Release();
    EXPECT_EQ(target.WaitForCalls(2), (Calls{"message 5", Active(client.fd)}));
    EXPECT_TRUE(log.WaitFor(Call::Select, 5)); // three interrupted, one that reports, one that waits
    const std::vector<CallRecord> records = log.Records();
    ASSERT_EQ(records.size(), 5U);
    for (const CallRecord& record : records) {
        EXPECT_EQ(record.text, "select(NULL)");
        EXPECT_EQ(record.number, client.fd + 1);
    }
    EXPECT_TRUE(SameEvents(MainEvents(*server), {MESSAGE}));
}

TEST(Server, Signal_in_the_wait_does_not_end_the_loop) {
    struct sigaction before, action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    {
        RecordingTarget target;
        CallLog log({Call::Select}, CallLog::AllThreads);
        ServerPtr server(new CServer(0, target));
        EXPECT_TRUE(log.WaitFor(Call::Select));
        const Deadline deadline = Deadline::Long();
        do // a signal that comes just before the system call does not interrupt it
            pthread_kill(server->m_nThreadID, SIGUSR1);
        while (!log.WaitFor(Call::Select, 2, Deadline::In(std::chrono::milliseconds(5))) &&
               !deadline.Passed());
        EXPECT_EQ(log.Records().front().error, EINTR);
        EXPECT_EQ(Post(*server, 5), 1);
        EXPECT_EQ(target.WaitForCalls(1), (Calls{"message 5"}));
        EXPECT_FALSE(Recorder::Has(NOT_LISTENING.type, NOT_LISTENING.severity, NOT_LISTENING.text));
    }
    EXPECT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST(Server, Wait_that_finds_nothing_is_logged_and_repeated) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    Hold hold(*server, target);
    Recorder::Clear();
    target.Forget();
    EXPECT_TRUE(client.peer.Send(Frame("x")));
    EXPECT_EQ(Post(*server, 5), 1);
    EXPECT_TRUE(WaitForBytes(client.fd, 5));
    Interpose nothing(Call::Select);
    nothing.OnThread(server->m_nThreadID).Return(0).Before([&] { target.Note("select gives 0"); });
    Interpose later(Call::Select);
    later.OnThread(server->m_nThreadID).FromCall(2).Before([&] { target.Note("select"); });
    hold.Release();
    EXPECT_EQ(target.WaitForCalls(5),
              (Calls{"select gives 0", "select", "message 5", Active(client.fd), "select"}));
    EXPECT_TRUE(SameEvents(MainEvents(*server), {NOTHING_READY, MESSAGE}));
}

TEST(Server, Failed_wait_ends_the_loop_with_its_events) {
    for (int error : {EINVAL, ENOMEM, EBADF}) {
        SCOPED_TRACE(error);
        RecordingTarget target;
        ServerPtr server(new CServer(0, target));
        {
            Hold hold(*server, target);
            Recorder::Clear();
            Interpose fail(Call::Select);
            fail.OnThread(server->m_nThreadID).Fail(error);
            hold.Release();
            EXPECT_TRUE(WaitForEnd(*server));
        }
        const std::vector<Event> events = Recorder::EventsOfThread(server->m_nThreadID);
        EXPECT_TRUE(SameEvents(events, {SelectFailed(error),
                                        NOT_LISTENING,
                                        {11, 9,
                                         Text("CWinThread::Body() -  Exiting m_nThreadID 0x%x",
                                              static_cast<unsigned int>(server->m_nThreadID))}}));
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events[0].entry, Event::PlainXString);
        EXPECT_FALSE(events[0].hasDetail);
        EXPECT_FALSE(server->IsListening());
    }
}

TEST(Server, Closing_the_queue_inside_RouteMessage_ends_the_thread) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    EXPECT_EQ(server->WaitUntilListening(), 0);
    EXPECT_TRUE(EndThread(*server));
    EXPECT_TRUE(SameEvents(MainEvents(*server), {ACTIVE, MESSAGE, SelectFailed(EBADF), NOT_LISTENING}));
}

TEST(Server, Events_come_before_the_calls_that_they_announce) {
    RecordingTarget target;
    std::atomic<bool> established{false}, onFifo{false};
    target.onConnection = [&](CSocket*) {
        established = Recorder::Has(11, 9, "CServer::Main() : Client connection established.");
    };
    target.onMessage = [&](const MSG&, bool) {
        onFifo = Recorder::Has(11, 9, "CServer::Main() : Message on thread's FIFO.");
        return false;
    };
    ServerPtr server(new CServer(0, target));
    Connection peer = ConnectTo(PortOf(*server));
    EXPECT_EQ(Post(*server, 5), 1);
    EXPECT_TRUE(target.WaitForCall("message 5"));
    EXPECT_EQ(Post(*server, 6), 1); // when it is there, the calls before it have returned
    EXPECT_TRUE(target.WaitForCall("message 6"));
    EXPECT_TRUE(established);
    EXPECT_TRUE(onFifo);
}

// The handler must delete a socket in ClientActivity and return false: anywhere else its descriptor is still
// watched.
TEST(Server, Deleting_a_socket_in_ClientConnection_ends_the_thread) {
    RecordingTarget target;
    target.onConnection = [&](CSocket* socket) { target.DeleteSocket(socket->m_fd); };
    ServerPtr server(new CServer(0, target));
    Connection peer = ConnectTo(PortOf(*server));
    EXPECT_TRUE(WaitForEnd(*server));
    EXPECT_TRUE(SameEvents(MainEvents(*server),
                           {ACTIVE, ACCEPTING, ESTABLISHED, SelectFailed(EBADF), NOT_LISTENING}));
    EXPECT_TRUE(peer.AtEnd());
}

TEST(Server, Deleting_a_socket_in_RouteMessage_ends_the_thread) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    {
        Hold hold(*server, target);
        target.onMessage = [&](const MSG&, bool) {
            target.DeleteSocket(client.fd);
            return true;
        };
        EXPECT_EQ(Post(*server, 5), 1);
    }
    EXPECT_TRUE(WaitForEnd(*server));
    EXPECT_TRUE(Recorder::Has(11, 3, SelectFailed(EBADF).text));
}

// ---------------------------------------------------------------------------------------------------------
// Connections

TEST(Server, Connection_is_reported_in_one_wakeup_and_its_frame_in_a_later_one) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold hold(*server, target);
    Recorder::Clear();
    Connection peer = ConnectTo(PortOf(*server));
    EXPECT_TRUE(peer.Send(Frame("hello")));
    EXPECT_TRUE(WaitReadable(Listener(*server)));
    MarkSelects marks(*server, target);
    hold.Release();
    const Calls calls = target.WaitForCalls(5);
    ASSERT_EQ(calls.size(), 5U);
    const int fd = atoi(calls[1].c_str() + strlen("connection "));
    EXPECT_EQ(calls, (Calls{"select", Connected(fd), "select", Active(fd), "select"}));
    EXPECT_EQ(target.Texts(), (Calls{"hello"}));
    EXPECT_TRUE(SameEvents(MainEvents(*server), {ACCEPTING, ESTABLISHED}));
    EXPECT_EQ(target.Socket(fd)->m_fd, fd);
}

TEST(Server, One_wakeup_accepts_one_connection) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold hold(*server, target);
    Connection first = ConnectTo(PortOf(*server));
    Connection second = ConnectTo(PortOf(*server));
    EXPECT_TRUE(WaitReadable(Listener(*server)));
    MarkSelects marks(*server, target);
    hold.Release();
    const Calls calls = target.WaitForCalls(5);
    ASSERT_EQ(calls.size(), 5U);
    EXPECT_EQ(calls[0], "select");
    EXPECT_EQ(calls[1].substr(0, 11), "connection ");
    EXPECT_EQ(calls[2], "select");
    EXPECT_EQ(calls[3].substr(0, 11), "connection ");
    EXPECT_EQ(calls[4], "select");
    EXPECT_NE(calls[1], calls[3]);
}

TEST(Server, Failed_accept_is_logged_and_the_loop_goes_on) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold hold(*server, target);
    Recorder::Clear();
    Interpose fail(Call::Accept);
    fail.OnThread(server->m_nThreadID).Fail(ECONNABORTED);
    Connection peer = ConnectTo(PortOf(*server));
    EXPECT_TRUE(WaitReadable(Listener(*server)));
    MarkSelects marks(*server, target);
    hold.Release();
    const Calls calls = target.WaitForCalls(4);
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0], "select"); // the one that fails reports nothing
    EXPECT_EQ(calls[1], "select");
    EXPECT_EQ(calls[2].substr(0, 11), "connection ");
    EXPECT_EQ(calls[3], "select");
    EXPECT_TRUE(SameEvents(MainEvents(*server), {ACCEPTING, NOT_ACCEPTED, ACCEPTING, ESTABLISHED}));
}

TEST(Server, Serves_a_request) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    {
        Hold hold(*server, target);
        target.onActivity = [&](int fd) {
            const bool watch = target.ReadFrame(fd);
            std::string reply = watch ? "re: " + target.Texts().back() : "";
            return watch && target.Socket(fd)->Send(&reply[0]);
        };
    }
    for (const char* request : {"one", "two", "three"}) {
        EXPECT_TRUE(client.peer.Send(Frame(request)));
        EXPECT_EQ(client.peer.ReadFrame(), std::string("re: ") + request);
    }
}

TEST(Server, All_reports_come_from_the_servers_thread) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client first(*server, target), second(*server, target);
    EXPECT_TRUE(first.peer.Send(Frame("a")));
    EXPECT_TRUE(second.peer.Send(Frame("b")));
    EXPECT_EQ(Post(*server, 5), 1);
    EXPECT_TRUE(target.WaitForCall(Active(first.fd)));
    EXPECT_TRUE(target.WaitForCall(Active(second.fd)));
    EXPECT_TRUE(target.WaitForCall("message 5"));
    EXPECT_EQ(target.Callers(), (std::set<pthread_t>{server->m_nThreadID}));
}

// ---------------------------------------------------------------------------------------------------------
// The order within one wake-up

TEST(Server, One_wakeup_reports_the_connection_then_one_message_then_clients_ascending) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client low(*server, target), middle(*server, target), high(*server, target);
    ASSERT_LT(low.fd, middle.fd);
    ASSERT_LT(middle.fd, high.fd);
    Hold hold(*server, target);
    target.Forget();
    Recorder::Clear();
    for (Client* client : {&high, &low, &middle}) { // the order of arrival does not count
        EXPECT_TRUE(client->peer.Send(Frame("x")));
        EXPECT_TRUE(WaitForBytes(client->fd, 5));
    }
    EXPECT_EQ(Post(*server, 1), 1);
    EXPECT_EQ(Post(*server, 2), 1);
    Connection fresh = ConnectTo(PortOf(*server));
    EXPECT_TRUE(fresh.Send(Frame("y")));
    EXPECT_TRUE(WaitReadable(Listener(*server)));
    MarkSelects marks(*server, target);
    hold.Release();

    const Calls calls = target.WaitForCalls(10);
    ASSERT_EQ(calls.size(), 10U);
    const int fd = atoi(calls[1].c_str() + strlen("connection "));
    EXPECT_EQ(calls, (Calls{"select", Connected(fd), "message 1", Active(low.fd), Active(middle.fd),
                            Active(high.fd), "select", "message 2", Active(fd), "select"}));
    EXPECT_TRUE(SameEvents(MainEvents(*server), {ACCEPTING, ESTABLISHED, MESSAGE, MESSAGE}));
}

// ---------------------------------------------------------------------------------------------------------
// The queue

TEST(Server, Message_is_routed_with_its_contents_and_false) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    int anything;
    MSG seen = {};
    std::vector<bool> flags;
    {
        Hold hold(*server, target);
        target.onMessage = [&](const MSG& message, bool flag) {
            seen = message;
            flags.push_back(flag);
            return true;
        };
    }
    Host::SetTickCount(4711);
    EXPECT_EQ(PostThreadMessage(server->m_nThreadID, 0x401, 77, &anything), 1);
    EXPECT_TRUE(target.WaitForCall("message 1025"));
    ASSERT_TRUE(EndThread(*server));
    EXPECT_EQ(seen.message, 0x401U);
    EXPECT_EQ(seen.wParam, 77UL);
    EXPECT_EQ(seen.lParam, &anything);
    EXPECT_EQ(seen.time, 4711UL);
    EXPECT_EQ(flags, (std::vector<bool>{false}));
}

TEST(Server, One_wakeup_takes_one_message) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold hold(*server, target);
    Recorder::Clear();
    for (unsigned int message : {1, 2, 3})
        EXPECT_EQ(Post(*server, message), 1);
    MarkSelects marks(*server, target);
    hold.Release();
    EXPECT_EQ(target.WaitForCalls(7),
              (Calls{"select", "message 1", "select", "message 2", "select", "message 3", "select"}));
    EXPECT_TRUE(SameEvents(MainEvents(*server), {MESSAGE, MESSAGE, MESSAGE}));
}

TEST(Server, Takes_a_message_with_a_blocking_GetMessage) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold hold(*server, target);
    Recorder::Clear();
    EXPECT_EQ(Post(*server, 5), 1);
    CallLog log({Call::Select, Call::Ioctl, Call::Read}, CallLog::AllThreads);
    hold.Release();
    EXPECT_TRUE(log.WaitFor(Call::Select, 2));
    EXPECT_EQ(log.Texts(), (Calls{"select(NULL)", Text("read(%zu)", sizeof(MSG)), "select(NULL)"}));
    EXPECT_TRUE(SameEvents(
        Recorder::EventsOfThread(server->m_nThreadID),
        {MESSAGE,
         {12, 9, Like("CWinThread::GetMessage Received message 5 wParam 5 lParam 0 time * on pipe")}}));
}

TEST(Server, Result_of_RouteMessage_is_ignored) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    {
        Hold hold(*server, target);
        target.onMessage = [](const MSG& message, bool) { return message.message % 2 == 0; };
    }
    for (unsigned int message : {1, 2, 3, 4})
        EXPECT_EQ(Post(*server, message), 1);
    EXPECT_EQ(target.WaitForCalls(4), (Calls{"message 1", "message 2", "message 3", "message 4"}));
    EXPECT_TRUE(server->IsListening());
}

TEST(Server, WM_QUIT_is_a_message_like_any_other) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    EXPECT_EQ(Post(*server, WM_QUIT), 1);
    EXPECT_EQ(Post(*server, 5), 1);
    EXPECT_EQ(target.WaitForCalls(2), (Calls{Text("message %u", WM_QUIT), "message 5"}));
    EXPECT_TRUE(server->IsListening());
    Client client(*server, target);
    EXPECT_GT(client.fd, 0);
}

TEST(Server, Message_that_cannot_be_read_is_not_routed_and_the_loop_goes_on) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Hold hold(*server, target);
    Recorder::Clear();
    EXPECT_EQ(Post(*server, 5), 1);
    Interpose fail(Call::Read);
    fail.OnThread(server->m_nThreadID).Fail(EIO);
    MarkSelects marks(*server, target);
    hold.Release();
    EXPECT_EQ(target.WaitForCalls(4), (Calls{"select", "select", "message 5", "select"}));
    EXPECT_EQ(fail.Acted(), 1);
    EXPECT_TRUE(SameEvents(MainEvents(*server), {MESSAGE, MESSAGE}));
}

// ---------------------------------------------------------------------------------------------------------
// Client activity

TEST(Server, After_false_a_client_is_neither_reported_nor_closed) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client refused(*server, target), other(*server, target);
    {
        Hold hold(*server, target);
        target.onActivity = [&](int fd) { return fd == refused.fd ? false : target.ReadFrame(fd); };
    }
    target.Forget();
    EXPECT_TRUE(refused.peer.Send(Frame("unread")));
    EXPECT_TRUE(target.WaitForCall(Active(refused.fd)));
    PassTwice(*server, target); // with the first frame still there
    EXPECT_TRUE(refused.peer.Send(Frame("more")));
    EXPECT_TRUE(WaitForBytes(refused.fd, 10 + 8));
    PassTwice(*server, target);
    EXPECT_TRUE(other.peer.Send(Frame("x")));
    EXPECT_TRUE(target.WaitForCall(Active(other.fd)));
    refused.peer.Shutdown();
    EXPECT_TRUE(WaitForClosure(refused.fd));
    PassTwice(*server, target);
    EXPECT_EQ(target.Seen(), (Calls{Active(refused.fd), Active(other.fd)}));

    Hold hold(*server, target);
    EXPECT_TRUE(target.ReadFrame(refused.fd)); // its descriptor is open and its data untouched
    EXPECT_TRUE(target.ReadFrame(refused.fd));
    EXPECT_EQ(target.Texts(), (Calls{"x", "unread", "more"}));
    EXPECT_TRUE(target.Socket(refused.fd)->Send(const_cast<char*>("bye")));
    EXPECT_EQ(refused.peer.ReadFrame(), "bye");
}

TEST(Server, True_with_unread_data_is_reported_again_in_every_wakeup) {
    RecordingTarget target;
    int reports = 0;
    target.onActivity = [&](int fd) { return ++reports < 5 ? true : target.ReadFrame(fd); };
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    Hold hold(*server, target);
    target.Forget();
    EXPECT_TRUE(client.peer.Send(Frame("x")));
    EXPECT_TRUE(WaitForBytes(client.fd, 5));
    MarkSelects marks(*server, target);
    hold.Release();
    const std::string active = Active(client.fd);
    EXPECT_EQ(target.WaitForCalls(11), (Calls{"select", active, "select", active, "select", active, "select",
                                              active, "select", active, "select"}));
}

TEST(Server, Closed_peer_is_reported_until_the_target_returns_false) {
    RecordingTarget target;
    int reports = 0;
    target.onActivity = [&](int fd) { return ++reports < 4 ? true : target.ReadFrame(fd); };
    ServerPtr server(new CServer(0, target));
    Client client(*server, target);
    target.Forget();
    client.peer.Close();
    EXPECT_TRUE(target.WaitForCall(Active(client.fd), 4));
    PassTwice(*server, target);
    EXPECT_EQ(target.Seen(), Calls(4, Active(client.fd)));
    EXPECT_EQ(target.Socket(client.fd), nullptr); // the reading handler has deleted it
}

TEST(Server, Descriptor_of_a_deleted_client_serves_the_next_one) {
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Connection next(socket(AF_INET, SOCK_STREAM, 0)); // made now, so that it does not take the number
    Client first(*server, target);
    const int number = first.fd;
    first.peer.Close();
    EXPECT_TRUE(target.WaitForCall(Active(number)));
    PassTwice(*server, target);
    Filler filler(number); // what is below, such as the first client's own
    target.Forget();
    const sockaddr_in address = LocalAddress(Listener(*server));
    ASSERT_EQ(connect(next.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_TRUE(target.WaitForCall(Connected(number)));
    EXPECT_TRUE(next.Send(Frame("hello")));
    EXPECT_TRUE(target.WaitForCall(Active(number)));
    ASSERT_TRUE(EndThread(*server));
    EXPECT_EQ(target.Texts(), (Calls{"hello"}));
}

// What the base class does by itself: the socket is the test's to delete.
TEST(Server, Default_target_leaks_the_socket_and_is_told_of_it_in_every_wakeup) {
    struct DefaultTarget : RecordingTarget {
        void ClientConnection(CSocket* socket) override {
            leaked = socket;
            CCmdTarget::ClientConnection(socket);
        }
        bool ClientActivity(int fd) override {
            reports += fd == leaked->m_fd;
            return CCmdTarget::ClientActivity(fd);
        }
        CSocket* leaked = nullptr;
        int reports = 0;
    } target;
    ServerPtr server(new CServer(0, target));
    CallLog log({Call::Select}, CallLog::AllThreads);
    Connection peer = ConnectTo(PortOf(*server));
    EXPECT_TRUE(peer.Send("x"));
    EXPECT_TRUE(log.WaitFor(Call::Select, 20));
    ASSERT_TRUE(EndThread(*server));
    EXPECT_GT(target.reports, 10);
    EXPECT_EQ(fcntl(target.leaked->m_fd, F_GETFD), 0) << "the server has not closed it";
    delete target.leaked;
}

// ---------------------------------------------------------------------------------------------------------
// Numbers of descriptors

// The wait covers the queue only up to the highest socket. That is the listener's number until a client has
// a higher one, and the queue is created first, so that it is lower - unless a lower number is freed between.
class ServerBelowItsQueue {
public:
    // Several words of a descriptor set lie between the listener and the queue.
    ServerBelowItsQueue(RecordingTarget& target) : m_filler(200) {
        Interpose between(Call::Socket);
        between.OnThisThread().Before([&] { m_filler.FreeLowest(); });
        server.reset(new CServer(0, target));
        EXPECT_LT(Listener(*server), 64);
        EXPECT_GE(Pipe(*server), 200);
    }

private:
    Filler m_filler;

public:
    ServerPtr server;
};

TEST(Server, Queue_above_the_listener_is_served_once_a_higher_client_connects) {
    RecordingTarget target;
    ServerBelowItsQueue below(target);
    CServer& server = *below.server;
    EXPECT_EQ(server.WaitUntilListening(), 0);
    EXPECT_EQ(Post(server, 5), 1);
    Interpose fail(Call::Accept); // a wake-up without a new client
    fail.OnThread(server.m_nThreadID).Fail(ECONNABORTED);
    Connection peer = ConnectTo(PortOf(server));
    EXPECT_TRUE(target.WaitForCall("message 5"));
    EXPECT_TRUE(SameEvents(First(6, MainEvents(server)),
                           {ACTIVE, ACCEPTING, NOT_ACCEPTED, ACCEPTING, ESTABLISHED, MESSAGE}));
}

TEST(Server, Empty_queue_above_the_listener_does_not_block_the_thread) {
    RecordingTarget target;
    ServerBelowItsQueue below(target);
    CServer& server = *below.server;
    Interpose fail(Call::Accept);
    fail.OnThread(server.m_nThreadID).Fail(ECONNABORTED);
    Client client(server, target); // a wake-up without and one with a new client, both with a stale bit
    EXPECT_GT(client.fd, Pipe(server));
    EXPECT_TRUE(client.peer.Send(Frame("hello")));
    EXPECT_TRUE(target.WaitForCall(Active(client.fd)));
    EXPECT_EQ(target.Seen(), (Calls{Connected(client.fd), Active(client.fd)}));
    EXPECT_TRUE(SameEvents(MainEvents(server), {ACTIVE, ACCEPTING, NOT_ACCEPTED, ACCEPTING, ESTABLISHED}));
}

TEST(Server, Serves_clients_with_descriptors_above_1023) {
    DescriptorLimit limit(1200);
    if (!limit.Raised() || !SelectTakesHighDescriptors())
        GTEST_SKIP() << "no descriptors above 1023 in this environment";
    RecordingTarget target;
    ServerPtr server(new CServer(0, target));
    Client low(*server, target);
    Filler filler(1024);
    Client high(*server, target), higher(*server, target);
    EXPECT_LT(low.fd, 1024);
    EXPECT_GE(high.fd, 1024);
    EXPECT_GT(higher.fd, high.fd);
    Hold hold(*server, target);
    target.Forget();
    for (Client* client : {&higher, &high, &low}) {
        EXPECT_TRUE(client->peer.Send(Frame("x")));
        EXPECT_TRUE(WaitForBytes(client->fd, 5));
    }
    EXPECT_EQ(Post(*server, 5), 1);
    CallLog log({Call::Select}, CallLog::AllThreads);
    MarkSelects marks(*server, target);
    hold.Release();
    EXPECT_EQ(target.WaitForCalls(6),
              (Calls{"select", "message 5", Active(low.fd), Active(high.fd), Active(higher.fd), "select"}));
    EXPECT_EQ(log.Records().back().number, higher.fd + 1);
    high.peer.Close();
    EXPECT_TRUE(target.WaitForCall(Active(high.fd), 2));
    PassTwice(*server, target);
    EXPECT_EQ(target.Socket(high.fd), nullptr);
    EXPECT_TRUE(higher.peer.Send(Frame("still served")));
    EXPECT_TRUE(target.WaitForCall(Active(higher.fd), 2));
}

TEST(Server, Works_with_all_its_descriptors_above_1023) {
    DescriptorLimit limit(1200);
    if (!limit.Raised() || !SelectTakesHighDescriptors())
        GTEST_SKIP() << "no descriptors above 1023 in this environment";
    RecordingTarget target;
    Filler filler(1030);
    ServerPtr server(new CServer(0, target));
    EXPECT_GE(Pipe(*server), 1030);
    EXPECT_EQ(Post(*server, 5), 1);
    EXPECT_TRUE(target.WaitForCall("message 5"));
    Client client(*server, target);
    EXPECT_TRUE(client.peer.Send(Frame("hello")));
    EXPECT_TRUE(target.WaitForCall(Active(client.fd)));
}

} // namespace
