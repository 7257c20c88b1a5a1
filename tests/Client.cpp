// Tests of CClient: its four constructors, the passes of its loop, and what it does after the server is gone.
#include <Windows/Client.h>

#include <signal.h>
#include <time.h>

#include <type_traits>

#include "NetworkFixtures.h"
#include "support/emulator.h"

namespace {

static_assert(std::is_convertible<CClient*, CWinThread*>::value, "derives publicly");
static_assert(std::is_same<decltype(&CClient::Main), void (CClient::*)()>::value, "what overriders match");

const ExpectedEvent THREAD_ADDED = {11, 9, Like("CWinThread::AddThread : id = *")};
const ExpectedEvent ATTEMPTING = {11, 9, "CClient::CClient() : Attempting to connect to server."};
const ExpectedEvent ESTABLISHED = {11, 9, "+++++++++++++++++CClient::CClient() : Connection established."};
const ExpectedEvent CLOSURE = {
    12, 9, "CSocket::IsDataAvailable Detected socket closure (non-blocking call to recv returned 0)"};
const ExpectedEvent ALREADY_CLOSED = {11, 5, "CSocket::Close - called on socket that's already been closed"};

ExpectedEvent SocketError(int error) {
    return {
        11, 4,
        Text("CSocket::IsDataAvailable Detected socket error (errno = %d) assuming socket closure", error)};
}

// The events of Main, of one socket descriptor.
struct MainTexts {
    explicit MainTexts(int fd) : m_start(Text("CClient::Main() fd %d: ", fd)) {}

    ExpectedEvent SocketData() const { return {12, 9, m_start + "Data available on socket"}; }
    ExpectedEvent PipeData() const { return {12, 9, m_start + "Data available on pipe"}; }
    ExpectedEvent Bypassed() const {
        return {12, 9, m_start + "Found data on socket/pipe so bypassed select call"};
    }
    ExpectedEvent Selecting() const {
        return {12, 9, m_start + "No data on socket or pipe so calling select with a 1 second timeout"};
    }
    ExpectedEvent SelectFailed(int error) const {
        return {11, 1, m_start + Text("Select returned with an error = %d  (exitting select loop)", error)};
    }
    ExpectedEvent NoLongerListening() const {
        return {11, 9, m_start + "No longer listening on socket's or pipe."};
    }
    ExpectedEvent TimedOut() const {
        return {12, 9, m_start + "Select Timed Out..checking pipe and socket for activity)"};
    }
    ExpectedEvent Arrived() const {
        return {12, 9, m_start + "Data has arrived from the server signalling serverHandler"};
    }
    ExpectedEvent Stopped() const {
        return {11, 9,
                m_start + "Stopped listening on client's socket because server closed socket connection on "
                          "the other end."};
    }
    ExpectedEvent Message() const { return {12, 9, m_start + "Message on thread's pipe."}; }

private:
    std::string m_start;
};

std::vector<Event> MainEvents(CClient& client) { return EventsOf(client.m_nThreadID, "CClient::Main"); }

// The first count events of Main since the record was cleared, once there are that many.
std::vector<Event> FirstMainEvents(CClient& client, size_t count) {
    const pthread_t thread = client.m_nThreadID;
    Recorder::WaitFor(
        [thread](const Event& event) {
            return pthread_equal(event.thread, thread) && event.text.compare(0, 13, "CClient::Main") == 0;
        },
        static_cast<int>(count));
    return First(count, MainEvents(client));
}

bool WaitFor(const ExpectedEvent& event, int count = 1) { return Recorder::WaitFor(event, count); }
int Count(const ExpectedEvent& event) { return Recorder::Count(event.type, event.severity, event.text); }

int Post(CClient& client, unsigned int message) {
    return PostThreadMessage(client.m_nThreadID, message, 0, nullptr);
}

// A client connected to the test.
struct Session {
    Session() : client(new CClient("127.0.0.1", listener.Port(), target)), peer(listener.Accept()) {
        EXPECT_TRUE(peer.IsOpen());
    }

    int Fd() { return SocketOf(*client); }
    MainTexts Texts() { return MainTexts(Fd()); }

    // A frame that is there, unread, in the client's socket; while the client is held.
    void Deliver(const std::string& payload) {
        EXPECT_TRUE(peer.Send(Frame(payload)));
        EXPECT_TRUE(WaitForBytes(Fd(), payload.size() + 4));
    }

    // An orderly end; while the client is held.
    void CloseByServer() {
        peer.Close();
        EXPECT_TRUE(WaitForClosure(Fd()));
    }

    ListenSocket listener;
    RecordingTarget target;
    ClientPtr client;
    Connection peer;
};

// Makes sleep() return at once in this thread and remembers what was asked for.
class FakeSleep {
public:
    FakeSleep() : m_script(Call::Sleep), m_log({Call::Sleep}, CallLog::AllThreads) {
        m_script.OnThisThread().Always().Return(0).Before(
            [this] { m_errorsBefore = static_cast<int>(Host::Errors().size()); });
    }

    Calls Texts() const { return m_log.Texts(); }
    bool OnThisThread() const { return pthread_equal(m_log.Records().at(0).thread, pthread_self()); }
    int ErrorsBefore() const { return m_errorsBefore; } // made by the host before the last sleep

private:
    int m_errorsBefore = -1;
    Interpose m_script;
    CallLog m_log;
};

const char* const SERVICE = "a service";

// The constructors that connect.
struct Form {
    const char* name;
    CClient* (*make)(int port, CCmdTarget& target);
    const char* host; // what the object remembers
    bool keepsPort;
};

const Form CONNECTING[] = {
    {"host and port", [](int port, CCmdTarget& target) { return new CClient("127.0.0.1", port, target); },
     "127.0.0.1", true},
    {"address",
     [](int port, CCmdTarget& target) { return new CClient(AddressOf("127.0.0.1", port), target); }, "",
     false},
    {"service",
     [](int port, CCmdTarget& target) {
         Host::AddService(SERVICE, "127.0.0.1", port);
         return new CClient(SERVICE, target);
     },
     "", false},
};

const Form ALL_FORMS[] = {
    CONNECTING[0],
    CONNECTING[1],
    CONNECTING[2],
    {"plain", [](int, CCmdTarget& target) { return new CClient(target); }, "", false},
};

// Frees what a failed construction by service name leaves: the copy of the name, when the lookup has
// succeeded and the connect fails. It is not freed on that path by contract, and a leak check would find it.
class AbandonedNames {
public:
    AbandonedNames() {
        m_names.reserve(100); // so that no growth is taken for the library's
        Host::OnLookup([this](const char* name, int) { m_names.push_back(const_cast<char*>(name)); });
    }

    ~AbandonedNames() {
        Host::OnLookup(nullptr);
        for (BSTR& name : m_names)
            SysFreeString(name);
    }

    AbandonedNames(const AbandonedNames&) = delete;
    AbandonedNames& operator=(const AbandonedNames&) = delete;

    const std::vector<BSTR>& Names() const { return m_names; }

private:
    std::vector<BSTR> m_names;
};

// ---------------------------------------------------------------------------------------------------------
// Layout

TEST(Client, Main_stands_in_its_slot_behind_both_destructors) { EXPECT_EQ(SlotOf(&CClient::Main), 2); }

TEST(Client, Fields_follow_the_base_in_their_order) {
    Session session;
    CClient* client = session.client.get();
    const char* socket = reinterpret_cast<char*>(&client->m_clientSocket);
    const char* host = reinterpret_cast<char*>(&(client->*ClientFields::HostText()));
    const char* connected = reinterpret_cast<char*>(&(client->*ClientFields::Connected()));
    const char* port = reinterpret_cast<char*>(&(client->*ClientFields::Port()));
    EXPECT_GE(socket, reinterpret_cast<char*>(client) + sizeof(CWinThread) - sizeof(void*));
    EXPECT_LT(socket, host);
    EXPECT_LT(host, connected);
    EXPECT_LT(connected, port);

    const CCmdTarget* handler; // the reference, in front of the host
    memcpy(&handler, host - sizeof handler, sizeof handler);
    EXPECT_EQ(handler, &session.target);
}

// ---------------------------------------------------------------------------------------------------------
// Construction

TEST(Client, Connecting_constructor_posts_its_events_and_remembers_its_arguments) {
    for (const Form& form : CONNECTING) {
        SCOPED_TRACE(form.name);
        ListenSocket listener;
        RecordingTarget target;
        Recorder::Clear();
        CallLog log({Call::Connect});
        ClientPtr client(form.make(listener.Port(), target));
        EXPECT_TRUE(
            SameEvents(Recorder::EventsOfThread(pthread_self()), {THREAD_ADDED, ATTEMPTING, ESTABLISHED}));
        EXPECT_EQ(log.Texts(), (Calls{Text("connect(127.0.0.1:%d)", listener.Port())}));
        EXPECT_TRUE(client->IsConnected());
        EXPECT_EQ(client.get()->*ClientFields::HostText(), form.host);
        EXPECT_EQ(client.get()->*ClientFields::Port(), form.keepsPort ? listener.Port() : -1);
        EXPECT_TRUE(WaitFor(MainTexts(SocketOf(*client)).Selecting())) << "the thread runs";
    }
}

// A derived object is still being constructed when the thread begins, so it runs this class's Main.
TEST(Client, Thread_may_run_the_clients_own_Main_while_a_derived_object_is_constructed) {
    struct Derived : CClient {
        Derived(int port, CCmdTarget& target) : CClient("127.0.0.1", port, target) {}
        void Main() override { ADD_FAILURE() << "the derived Main ran"; }
    };
    ListenSocket listener;
    RecordingTarget target;
    Overtaking overtaking(
        "Connection established",
        {12, 9, Like("CClient::Main() fd *: No data on socket or pipe so calling select*")});
    ClientPtr client(new Derived(listener.Port(), target));
    EXPECT_TRUE(overtaking.Waited());
    EXPECT_EQ(Post(*client, 5), 1);
    EXPECT_TRUE(target.WaitForCall("message 5"));
}

TEST(Client, Plain_constructor_neither_connects_nor_resumes) {
    RecordingTarget target;
    CallLog log({Call::Connect, Call::Socket}, CallLog::AllThreads);
    Recorder::Clear();
    ClientPtr client(new CClient(target));
    EXPECT_TRUE(SameEvents(Recorder::Events(), {THREAD_ADDED}));
    EXPECT_EQ(log.Texts(), (Calls{"socket(AF_INET, SOCK_STREAM, 0)"}));
    EXPECT_FALSE(client->IsConnected());
    EXPECT_EQ(client.get()->*ClientFields::HostText(), "");
    EXPECT_EQ(client.get()->*ClientFields::Port(), -1);
    EXPECT_EQ(Post(*client, 5), 1);
    EXPECT_TRUE(MainEvents(*client).empty());

    client->ResumeThread();
    EXPECT_EQ(target.WaitForCalls(1), (Calls{"message 5"}));
}

TEST(Client, Never_resumed_is_destroyed_without_having_run) {
    RecordingTarget target;
    void* place = operator new(sizeof(CClient));
    for (int round = 0; round < 20; round++) {
        CClient* client = new (place) CClient(target);
        EXPECT_EQ(Post(*client, 5), 1);
        client->~CClient();
    }
    EXPECT_TRUE(target.Seen().empty());
    EXPECT_EQ(
        Recorder::Count([](const Event& event) { return event.text.compare(0, 13, "CClient::Main") == 0; }),
        0);

    CClient* client = new (place) CClient(target); // the same address still works
    EXPECT_EQ(Post(*client, 6), 1);
    client->ResumeThread();
    EXPECT_EQ(target.WaitForCalls(1), (Calls{"message 6"}));
    EXPECT_TRUE(EndThread(*client));
    EXPECT_EQ(target.Seen().size(), 1U);
    client->~CClient();
    operator delete(place);
}

TEST(Client, Remembers_the_connection_before_its_thread_runs) {
    ListenSocket listener;
    RecordingTarget target;
    CallLog log({Call::Select, Call::Recv}, CallLog::AllThreads);
    ClientPtr client(new CClient("127.0.0.1", listener.Port(), target));
    ASSERT_TRUE(log.WaitFor(Call::Select));
    EXPECT_EQ(log.Records().front().call, Call::Recv) << "a connected client looks at its socket first";
}

// ---------------------------------------------------------------------------------------------------------
// Failed construction

TEST(Client, Refused_connection_pauses_and_throws_the_hosts_error_and_leaves_nothing) {
    for (const Form& form : CONNECTING) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        Recorder::Clear();
        Host::Reset();
        {
            AbandonedNames names;
            CallLog connects({Call::Connect}, CallLog::AllThreads);
            FakeSleep sleep;
            const int port = UnusedPort();
            {
                NothingLeft nothing;
                const char* texts = LogExceptionOf([&] { return form.make(port, target); });
                EXPECT_STREQ(texts, "CClient::CClient: Connection failed");
            }
            EXPECT_EQ(connects.Count(Call::Connect), 1) << "one attempt";
            EXPECT_EQ(sleep.Texts(), (Calls{"sleep(1)"}));
            EXPECT_TRUE(sleep.OnThisThread());
            EXPECT_EQ(sleep.ErrorsBefore(), 0) << "the pause comes first";
        }
        ASSERT_EQ(Host::Errors().size(), 1U);
        EXPECT_EQ(Host::Errors()[0].where, "CClient::CClient");
        EXPECT_EQ(Host::Errors()[0].what, "Connection failed");
        EXPECT_FALSE(Host::Errors()[0].hasExtra);
        EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(pthread_self()),
                               std::vector<ExpectedEvent>{THREAD_ADDED, ATTEMPTING} + ThreadDestroyed()));

        ListenSocket listener;
        ClientPtr next(form.make(listener.Port(), target));
        EXPECT_TRUE(next->IsConnected());
        EXPECT_EQ(Post(*next, 5), 1);
        EXPECT_TRUE(target.WaitForCall("message 5"));
    }
}

TEST(Client, Refused_connection_really_takes_a_second) {
    RecordingTarget target;
    const int port = UnusedPort();
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const char* texts = LogExceptionOf([&] { return new CClient("127.0.0.1", port, target); });
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_STREQ(texts, "CClient::CClient: Connection failed");
    const double seconds = static_cast<double>(end.tv_sec - start.tv_sec) +
                           static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9;
    EXPECT_GE(seconds, 0.99);
    EXPECT_LT(seconds, 5 * Deadline::Multiplier());
}

TEST(Client, Refused_connection_by_service_name_abandons_the_copy_of_the_name) {
    RecordingTarget target;
    AbandonedNames names;
    FakeSleep sleep;
    Host::AddService(SERVICE, "127.0.0.1", UnusedPort());
    LogExceptionOf([&] { return new CClient(SERVICE, target); });
    ASSERT_EQ(names.Names().size(), 1U);
    EXPECT_TRUE(IsBSTR(names.Names()[0], true));
    EXPECT_STREQ(names.Names()[0], SERVICE);
    EXPECT_EQ(Recorder::Count([](const Event& event) { return event.type == 11 && event.severity == 1; }), 0);
}

TEST(Client, Constructor_without_a_socket_throws_and_leaves_nothing) {
    for (const Form& form : ALL_FORMS) {
        SCOPED_TRACE(form.name);
        RecordingTarget target;
        ListenSocket listener;
        Host::Reset();
        Recorder::Clear();
        {
            NothingLeft nothing;
            Interpose fail(Call::Socket);
            fail.OnThisThread().Fail(EMFILE);
            const char* text = SocketExceptionOf([&] { return form.make(listener.Port(), target); });
            EXPECT_STREQ(text, "CClientSocket::CClientSocket() : Could not create socket.");
        }
        EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(pthread_self()),
                               std::vector<ExpectedEvent>{
                                   THREAD_ADDED,
                                   {11, 1, "CClientSocket::CClientSocket() : Could not create socket."},
                               } + ThreadDestroyed()));
        EXPECT_TRUE(Host::Lookups().empty());
        ClientPtr next(form.make(listener.Port(), target));
        next->ResumeThread(); // the plain form's; the others post an event
        EXPECT_EQ(Post(*next, 5), 1);
        EXPECT_TRUE(target.WaitForCall("message 5"));
    }
}

TEST(Client, Constructor_without_a_pipe_or_thread_throws_the_hosts_error_and_leaves_nothing) {
    const struct {
        Call call;
        const char* texts;
    } cases[] = {
        {Call::Pipe, "WinThread::CWinThread(AFX_THREADPROC): Could not create pipe."},
        {Call::PthreadCreate, "WinThread::CWinThread(AFX_THREADPROC): Could not create thread."},
    };
    ListenSocket listener;
    for (const Form& form : ALL_FORMS)
        for (const auto& failure : cases) {
            SCOPED_TRACE(std::string(form.name) + ", " + failure.texts);
            RecordingTarget target;
            IntroduceToSanitizer([&] { return form.make(listener.Port(), target); });
            FakeSleep sleep;
            Recorder::Clear();
            NothingLeft nothing;
            Interpose fail(failure.call);
            fail.OnThisThread().Fail(EAGAIN);
            const char* texts = LogExceptionOf([&] { return form.make(listener.Port(), target); });
            EXPECT_STREQ(texts, failure.texts);
            EXPECT_EQ(sleep.Texts(), Calls{});
            EXPECT_EQ(Count(ATTEMPTING), 0);
        }
}

TEST(Client, Failed_construction_releases_its_objects) {
    RecordingTarget target;
    AbandonedNames names;
    FakeSleep sleep;
    {
        ListenSocket listener;
        IntroduceToSanitizer([&] { return CONNECTING[0].make(listener.Port(), target); });
    }
    const int port = UnusedPort();
    Host::AddService(SERVICE, "127.0.0.1", port);
    CClient* (*const forms[])(int, CCmdTarget&) = {
        CONNECTING[0].make,
        CONNECTING[1].make,
        [](int, CCmdTarget& handler) { return new CClient(SERVICE, handler); },
    };
    for (const auto form : forms)
        for (Call call : {Call::Pipe, Call::PthreadCreate, Call::Socket, Call::Connect}) {
            SCOPED_TRACE(static_cast<int>(call));
            EXPECT_EQ(ObjectsLeftBy([&] { return form(port, target); }, call), 0);
        }
}

// The thread of a failed construction must neither run nor touch what is built at its place afterwards.
TEST(Client, Construction_works_where_others_have_failed_at_the_same_address) {
    RecordingTarget target;
    FakeSleep sleep;
    const int unused = UnusedPort();
    void* place = operator new(sizeof(CClient));
    for (int round = 0; round < 20; round++) {
        for (int failure = 0; failure < 3; failure++)
            try {
                new (place) CClient("127.0.0.1", unused, target);
                ADD_FAILURE() << "connected to nobody";
            } catch (CLogException* error) {
                delete error;
            }
        ListenSocket listener;
        target.Forget();
        CClient* client = new (place) CClient("127.0.0.1", listener.Port(), target);
        EXPECT_EQ(Post(*client, 5), 1);
        EXPECT_TRUE(target.WaitForCall("message 5"));
        EXPECT_TRUE(EndThread(*client));
        EXPECT_EQ(target.Seen(), (Calls{"message 5"}));
        client->~CClient();
    }
    operator delete(place);
}

// ---------------------------------------------------------------------------------------------------------
// The service registry

TEST(Client, Registry_is_asked_with_a_BSTR_copy_of_the_name_and_10) {
    ListenSocket listener;
    RecordingTarget target;
    Host::AddService(SERVICE, "127.0.0.1", listener.Port());
    bool isBstr = false;
    unsigned int length = 0;
    const char* pointer = nullptr;
    Host::OnLookup([&](const char* name, int) {
        pointer = name;
        isBstr = IsBSTR(const_cast<char*>(name), true);
        length = SysStringLen(const_cast<char*>(name));
    });
    ClientPtr client(new CClient(SERVICE, target));
    Host::OnLookup(nullptr);
    ASSERT_EQ(Host::Lookups().size(), 1U);
    EXPECT_EQ(Host::Lookups()[0].name, SERVICE);
    EXPECT_EQ(Host::Lookups()[0].argument, 10);
    EXPECT_TRUE(isBstr);
    EXPECT_EQ(length, strlen(SERVICE));
    EXPECT_NE(pointer, SERVICE);
}

// Tells the two by the trace of their locks: the registry's copy is released under the BSTR lock, which is
// taken first, and resuming only unlocks.
TEST(Client, Copy_of_the_service_name_is_freed_before_the_thread_is_resumed) {
    for (bool known : {true, false}) {
        SCOPED_TRACE(known ? "known service" : "unknown service");
        ListenSocket listener;
        RecordingTarget target;
        Host::Reset();
        if (known)
            Host::AddService(SERVICE, "127.0.0.1", listener.Port());
        Recorder::Clear();
        ClientPtr client(new CClient(SERVICE, target));
        const pthread_t self = pthread_self();
        bool lookedUp = false;
        Calls trace;
        for (const Event& event : Recorder::AllEvents()) {
            if (!pthread_equal(event.thread, self))
                continue;
            lookedUp |= event.type == 11 && (ESTABLISHED.Matches(event) || event.hasDetail);
            if (lookedUp && event.type == 23 && event.severity == 8)
                trace.push_back(event.text.substr(0, strlen("CMutex::UnL")));
        }
        ASSERT_GE(trace.size(), 3U);
        EXPECT_EQ(trace[0], "CMutex::Loc");
        EXPECT_EQ(trace[trace.size() - 2], "CMutex::UnL");
        EXPECT_EQ(trace[trace.size() - 1], "CMutex::UnL");
        EXPECT_FALSE(Recorder::Has(11, 1, Like("SysFreeString called with a NON bstr!! *")));
    }
}

TEST(Client, Unknown_service_is_logged_and_leaves_a_running_unconnected_client) {
    RecordingTarget target;
    FakeSleep sleep;
    CallLog connects({Call::Connect}, CallLog::AllThreads);
    Recorder::Clear();
    ClientPtr client(new CClient("no such service", target));
    const std::vector<Event> events = Recorder::EventsOfThread(pthread_self());
    EXPECT_TRUE(
        SameEvents(events, {THREAD_ADDED, {11, 1, "FAILED TO GET SOCKET ADDRESS FOR SVC no such service"}}));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[1].entry, Event::Plain);
    EXPECT_EQ(events[1].format, "FAILED TO GET SOCKET ADDRESS FOR SVC %s");
    EXPECT_TRUE(events[1].hasDetail);
    EXPECT_EQ(events[1].detail, "no such service");
    EXPECT_EQ(connects.Count(Call::Connect), 0);
    EXPECT_EQ(sleep.Texts(), Calls{});
    EXPECT_FALSE(client->IsConnected());

    EXPECT_EQ(Post(*client, 5), 1);
    EXPECT_TRUE(target.WaitForCall("message 5"));
    EXPECT_FALSE(client->SendToServer(const_cast<char*>("hello")));
    BSTR text = nullptr;
    EXPECT_EQ(client->ReceiveFromServer(text, true, 1000), 0);
    EXPECT_EQ(text, nullptr);
}

// ---------------------------------------------------------------------------------------------------------
// Destruction

TEST(Client, Destructor_posts_its_events_in_order_and_closes_the_socket_before_the_queue) {
    Session session;
    const int fd = session.Fd();
    ASSERT_TRUE(EndThread(*session.client));
    const auto id = static_cast<unsigned int>(session.client->m_nThreadID);
    CallLog log({Call::Close});
    Recorder::Clear();
    session.client.reset();
    EXPECT_TRUE(
        SameEvents(Recorder::Events(),
                   std::vector<ExpectedEvent>{{13, 7, "CClient::~CClient() called!"}} + ThreadDestroyed(id)));
    const std::vector<CallRecord> closes = log.Records();
    ASSERT_EQ(closes.size(), 2U); // the handler has closed the queue's read end
    EXPECT_EQ(closes[0].fd, fd);
    EXPECT_TRUE(session.peer.AtEnd());
}

TEST(Client, A_thousand_clients_are_destroyed_while_their_threads_wait) {
    Recorder::Pause();
    RecordingTarget target;
    ListenSocket listener;
    const size_t registered = RegisteredThreads();
    const std::map<int, std::string> descriptors = Resources::Descriptors();
    SelectWatch watch;
    for (int i = 0; i < 1000; i++) {
        watch.Again();
        std::unique_ptr<CClient> client(new CClient("127.0.0.1", listener.Port(), target));
        Connection peer = listener.Accept();
        ASSERT_TRUE(watch.WaitAsleep()) << "client " << i;
        client.reset();
        ASSERT_TRUE(peer.AtEnd());
    }
    EXPECT_EQ(RegisteredThreads(), registered);
    EXPECT_EQ(Resources::Descriptors(), descriptors);
    EXPECT_TRUE(target.Seen().empty());
}

// Wherever the thread is by then: not begun, on its way to the wait, or in it.
TEST(Client, May_be_destroyed_as_soon_as_it_is_constructed) {
    Recorder::Pause();
    RecordingTarget target;
    ListenSocket listener;
    for (int i = 0; i < 300; i++) {
        std::unique_ptr<CClient> client(new CClient("127.0.0.1", listener.Port(), target));
        Connection peer = listener.Accept();
        for (int spins = i % 10 * 1000; spins > 0; spins--)
            __asm__ volatile("" ::: "memory");
        client.reset();
        ASSERT_TRUE(peer.AtEnd());
    }
    EXPECT_TRUE(target.Seen().empty());
}

// ---------------------------------------------------------------------------------------------------------
// What other threads may call

TEST(Client, AddHandler_only_posts_an_event) {
    RecordingTarget target;
    ClientPtr client(new CClient(target)); // its thread does not run yet
    Recorder::Clear();
    CallLog log(Traffic());
    client->AddHandler();
    EXPECT_TRUE(SameEvents(OwnEvents(), {{13, 7, "CClient::AddHandler() called!"}}));
    EXPECT_EQ(log.Texts(), Calls{});
    client->ResumeThread();
}

TEST(Client, Unconnected_client_sends_and_receives_nothing) {
    RecordingTarget target;
    ClientPtr client(new CClient(target));
    Recorder::Clear();
    CallLog log(Traffic());
    BSTR text = nullptr;
    EXPECT_FALSE(client->SendToServer(const_cast<char*>("hello")));
    EXPECT_EQ(client->ReceiveFromServer(text, false, 0), 0);
    EXPECT_EQ(client->ReceiveFromServer(text, true, 0), 0) << "does not wait";
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(log.Texts(), Calls{});
    EXPECT_TRUE(OwnEvents().empty());
    client->ResumeThread();
}

TEST(Client, SendToServer_sends_a_frame_and_returns_its_result) {
    Session session;
    EXPECT_TRUE(session.client->SendToServer(const_cast<char*>("hello")));
    EXPECT_EQ(session.peer.ReadFrame(), "hello");
    EXPECT_TRUE(Recorder::Has(12, 7, Text("CSocket::Send() on %d: hello", session.Fd())));

    Interpose fail(Call::Send);
    fail.OnThisThread().Fail(ENOBUFS);
    EXPECT_FALSE(session.client->SendToServer(const_cast<char*>("lost")));
    EXPECT_TRUE(session.client->SendToServer(const_cast<char*>("again")));
    EXPECT_EQ(session.peer.ReadFrame(), "again");
}

TEST(Client, ReceiveFromServer_waits_without_a_limit_by_default) {
    Session session;
    Calls waits;
    std::string received;
    Hold hold(*session.client, session.target);
    session.target.onMessage = [&](const MSG&, bool) {
        Interpose wait(Call::Select);
        wait.OnThisThread().Before([&] { session.Deliver("hello"); });
        CallLog log({Call::Select});
        BSTR text = nullptr;
        session.client->ReceiveFromServer(text);
        waits = log.Texts();
        received = text ? text : "";
        SysFreeString(text);
        return false;
    };
    EXPECT_EQ(Post(*session.client, 5), 1);
    hold.Release();
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(waits, (Calls{"select(NULL)"}));
    EXPECT_EQ(received, "hello");
}

TEST(Client, ReceiveFromServer_hands_its_arguments_and_result_on) {
    Session session;
    Calls waits;
    std::vector<int> results;
    std::string received;
    {
        Hold hold(*session.client, session.target);
        session.target.onMessage = [&](const MSG&, bool) {
            BSTR text = nullptr;
            CallLog log({Call::Select});
            results.push_back(session.client->ReceiveFromServer(text, false, 5000));
            results.push_back(session.client->ReceiveFromServer(text, true, 30));
            waits = log.Texts();
            session.Deliver("hello");
            results.push_back(session.client->ReceiveFromServer(text, true, 0));
            received = text ? text : "";
            SysFreeString(text);
            return false;
        };
        EXPECT_EQ(Post(*session.client, 5), 1);
    }
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(results, (std::vector<int>{0, 0, 5}));
    EXPECT_EQ(waits, (Calls{"select(0.030000)"}));
    EXPECT_EQ(received, "hello");
    EXPECT_EQ(session.target.Seen(), (Calls{"message 5"}));
}

// Every look at the socket switches its mode for a moment, while another thread sends.
TEST(Client, Sending_from_another_thread_does_not_stop_the_queue) {
    Recorder::Pause();
    const unsigned int frames = 2000;
    Session session;
    unsigned int sent = 0;
    Background sender([&] {
        for (unsigned int i = 0; i < frames; i++)
            sent += session.client->SendToServer(const_cast<char*>("0123456789"));
        session.client->SendToServer(const_cast<char*>("end"));
    });
    unsigned int received = 0;
    Background reader([&] {
        while (session.peer.ReadFrame() == "0123456789")
            received++;
    });
    unsigned int message = 0;
    do {
        ASSERT_EQ(Post(*session.client, ++message), 1);
        ASSERT_TRUE(session.target.WaitForCall(Text("message %u", message)));
    } while (!sender.Ended());
    ASSERT_TRUE(sender.Join());
    ASSERT_TRUE(reader.Join());
    EXPECT_EQ(received, sent);
    EXPECT_GT(sent, 0U);
}

// ---------------------------------------------------------------------------------------------------------
// The wait

TEST(Client, Waits_a_second_up_to_the_higher_of_socket_and_queue) {
    CallLog log({Call::Select}, CallLog::AllThreads);
    {
        Session session;
        ASSERT_TRUE(log.WaitFor(Call::Select));
        EXPECT_GT(session.Fd(), Pipe(*session.client));
        EXPECT_EQ(log.Records()[0].number, session.Fd() + 1);
        EXPECT_EQ(log.Records()[0].text, "select(1.000000)");
    }
    log.Clear();
    RecordingTarget target;
    ClientPtr unconnected(new CClient(target));
    unconnected->ResumeThread();
    ASSERT_TRUE(log.WaitFor(Call::Select));
    EXPECT_GT(SocketOf(*unconnected), Pipe(*unconnected));
    EXPECT_EQ(log.Records()[0].number, Pipe(*unconnected) + 1);
    EXPECT_EQ(log.Records()[0].text, "select(1.000000)");
}

// The queue is created first; only a lower number that is freed in between puts it above the socket.
TEST(Client, Queue_above_the_socket_is_the_highest) {
    ListenSocket listener;
    RecordingTarget target;
    Filler filler(200);
    Interpose between(Call::Socket);
    between.OnThisThread().Before([&] { filler.FreeLowest(); });
    CallLog log({Call::Select}, CallLog::AllThreads);
    ClientPtr client(new CClient("127.0.0.1", listener.Port(), target));
    Connection peer = listener.Accept();
    ASSERT_TRUE(log.WaitFor(Call::Select));
    EXPECT_GE(Pipe(*client), 200);
    EXPECT_LT(SocketOf(*client), 64);
    EXPECT_EQ(log.Records()[0].number, Pipe(*client) + 1);
    EXPECT_TRUE(peer.Send(Frame("hello")));
    EXPECT_TRUE(target.WaitForCall("server"));
    EXPECT_EQ(Post(*client, 5), 1);
    EXPECT_TRUE(target.WaitForCall("message 5"));
}

TEST(Client, Idle_client_looks_again_after_a_second) {
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    CallLog log({Call::Select}, CallLog::AllThreads);
    Session session;
    ASSERT_TRUE(log.WaitFor(Call::Select, 2));
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_GE(static_cast<double>(end.tv_sec - start.tv_sec) +
                  static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9,
              0.99);
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.TimedOut(), texts.Selecting()}));
    EXPECT_EQ(log.Records()[1].text, "select(1.000000)");
}

TEST(Client, Wait_that_runs_out_starts_the_next_pass) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    Interpose timeOut(Call::Select);
    timeOut.OnThread(session.client->m_nThreadID).Return(0).Before([&] {
        EXPECT_EQ(Post(*session.client, 5), 1);
        session.Deliver("hello");
    });
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 7),
                           {texts.Selecting(), texts.TimedOut(), texts.SocketData(), texts.Bypassed(),
                            texts.Arrived(), texts.Message(), texts.Selecting()}));
    EXPECT_EQ(session.target.Seen(), (Calls{"server", "message 5"}));
}

TEST(Client, Interrupted_wait_is_repeated_without_an_event) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    CallLog log({Call::Select}, CallLog::AllThreads);
    const pthread_t thread = session.client->m_nThreadID;
    Interpose first(Call::Select), second(Call::Select), third(Call::Select);
    first.OnThread(thread).OnCall(1).Fail(EINTR);
    second.OnThread(thread).OnCall(2).Fail(EINTR);
    third.OnThread(thread).OnCall(3).Fail(EINTR).After([&] { session.Deliver("hello"); });
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.Arrived(), texts.Selecting()}));
    ASSERT_TRUE(log.WaitFor(Call::Select, 5));
    const std::vector<CallRecord> records = log.Records();
    for (const CallRecord& record : records) {
        EXPECT_EQ(record.text, "select(1.000000)");
        EXPECT_EQ(record.number, session.Fd() + 1);
    }
}

TEST(Client, Signal_in_the_wait_does_not_extend_it) {
    if (UnderEmulator())
        GTEST_SKIP() << "the emulator does not tell how much of an interrupted select's time is left";
    struct sigaction before, action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    {
        CallLog log({Call::Select}, CallLog::AllThreads);
        Session session;
        EXPECT_TRUE(log.WaitFor(Call::Select));
        const auto interrupted = [&] {
            const std::vector<CallRecord> records = log.Records();
            for (size_t i = 0; i + 1 < records.size(); i++)
                if (records[i].error == EINTR)
                    return records[i + 1].text;
            return std::string();
        };
        const Deadline deadline = Deadline::Long();
        do { // a signal that comes just before the system call does not interrupt it
            pthread_kill(session.client->m_nThreadID, SIGUSR1);
            log.WaitFor(Call::Select, 1 << 30, Deadline::In(std::chrono::milliseconds(5)));
        } while (interrupted().empty() && !deadline.Passed());
        EXPECT_EQ(interrupted().substr(0, strlen("select(0.")), "select(0.");
        EXPECT_EQ(Post(*session.client, 5), 1);
        EXPECT_TRUE(session.target.WaitForCall("message 5"));
    }
    EXPECT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST(Client, Failed_wait_ends_the_loop_with_its_events) {
    for (int error : {EINVAL, ENOMEM}) {
        SCOPED_TRACE(error);
        Session session;
        Hold hold(*session.client, session.target);
        Recorder::Clear();
        Interpose fail(Call::Select);
        fail.OnThread(session.client->m_nThreadID).Fail(error);
        hold.Release();
        EXPECT_TRUE(WaitForEnd(*session.client));
        const MainTexts texts = session.Texts();
        EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(session.client->m_nThreadID),
                               {texts.Selecting(),
                                texts.SelectFailed(error),
                                texts.NoLongerListening(),
                                {11, 9,
                                 Text("CWinThread::Body() -  Exiting m_nThreadID 0x%x",
                                      static_cast<unsigned int>(session.client->m_nThreadID))}}));
        EXPECT_TRUE(session.client->IsConnected());
    }
}

TEST(Client, Closing_the_queue_inside_RouteMessage_ends_the_thread) {
    Session session;
    EXPECT_TRUE(EndThread(*session.client));
    const MainTexts texts = session.Texts();
    const std::vector<Event> events = MainEvents(*session.client);
    ASSERT_GE(events.size(), 4U);
    EXPECT_TRUE(SameEvents(
        std::vector<Event>(events.end() - 4, events.end()),
        {texts.Message(), texts.Selecting(), texts.SelectFailed(EBADF), texts.NoLongerListening()}));
}

// ---------------------------------------------------------------------------------------------------------
// Data from the server

TEST(Client, Data_that_arrives_during_the_wait_is_reported) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    Interpose wait(Call::Select);
    wait.OnThread(session.client->m_nThreadID).Before([&] { session.Deliver("hello"); });
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.Arrived(), texts.Selecting()}));
    EXPECT_EQ(session.target.Seen(), (Calls{"server"}));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(session.target.Texts(), (Calls{"hello"}));
}

TEST(Client, Data_that_is_there_bypasses_the_wait) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    session.Deliver("hello");
    CallLog log({Call::Select}, CallLog::AllThreads);
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 4),
                           {texts.SocketData(), texts.Bypassed(), texts.Arrived(), texts.Selecting()}));
    EXPECT_TRUE(log.WaitFor(Call::Select));
    EXPECT_EQ(session.target.Seen(), (Calls{"server"}));
}

TEST(Client, Each_frame_is_reported_once) {
    Session session;
    const MainTexts texts = session.Texts();
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    EXPECT_TRUE(session.peer.Send(Frame("a") + Frame("b") + Frame("c")));
    EXPECT_TRUE(WaitForBytes(session.Fd(), 15));
    hold.Release();
    std::vector<ExpectedEvent> expected;
    for (int i = 0; i < 3; i++)
        expected =
            expected + std::vector<ExpectedEvent>{texts.SocketData(), texts.Bypassed(), texts.Arrived()};
    expected.push_back(texts.Selecting());
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, expected.size()), expected));
    EXPECT_EQ(session.target.Seen(), Calls(3, "server"));

    EXPECT_TRUE(session.peer.Send(Frame("d")));
    EXPECT_TRUE(session.target.WaitForCall("server", 4));
    Hold later(*session.client, session.target);
    EXPECT_EQ(session.target.Seen(), Calls(4, "server"));
    EXPECT_EQ(session.target.Texts(), (Calls{"a", "b", "c", "d"}));
}

TEST(Client, Unread_data_is_reported_in_every_pass_without_a_wait) {
    Session session;
    int reports = 0;
    Hold hold(*session.client, session.target);
    session.target.onServerActivity = [&] {
        return ++reports < 4 ? true : session.target.ReadFrameFromServer();
    };
    Recorder::Clear();
    session.Deliver("hello");
    hold.Release();
    const MainTexts texts = session.Texts();
    std::vector<ExpectedEvent> expected;
    for (int i = 0; i < 4; i++)
        expected =
            expected + std::vector<ExpectedEvent>{texts.SocketData(), texts.Bypassed(), texts.Arrived()};
    expected.push_back(texts.Selecting());
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, expected.size()), expected));
    EXPECT_EQ(session.target.Seen(), Calls(4, "server"));
}

// What the target leaves unread keeps the loop turning for good, as the socket is still looked at.
TEST(Client, False_with_unread_data_stops_the_reports_and_spins_and_serves_the_queue) {
    Session session;
    Hold hold(*session.client, session.target);
    session.target.onServerActivity = [] { return false; };
    session.target.onMessage = [&](const MSG& message, bool) {
        return message.message == 6 && session.target.ReadFrameFromServer();
    };
    Recorder::Clear();
    session.Deliver("hello");
    CallLog log({Call::Select}, CallLog::AllThreads);
    hold.Release();
    const MainTexts texts = session.Texts();
    std::vector<ExpectedEvent> expected = {texts.SocketData(), texts.Bypassed(), texts.Arrived(),
                                           texts.Stopped()};
    for (int i = 0; i < 5; i++)
        expected =
            expected + std::vector<ExpectedEvent>{texts.SocketData(), texts.Bypassed(), texts.Stopped()};
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, expected.size()), expected));
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    EXPECT_EQ(log.Count(Call::Select), 0);
    EXPECT_EQ(Post(*session.client, 6), 1); // whose handler reads
    EXPECT_TRUE(log.WaitFor(Call::Select));
    EXPECT_EQ(session.target.Seen(), (Calls{"server", "message 5", "message 6"}));
}

TEST(Client, After_false_new_data_is_not_reported) {
    Session session;
    Hold hold(*session.client, session.target);
    session.target.onServerActivity = [&] {
        EXPECT_TRUE(session.target.ReadFrameFromServer());
        return false;
    };
    session.target.onMessage = [&](const MSG&, bool) { return session.target.ReadFrameFromServer(); };
    Recorder::Clear();
    session.Deliver("first");
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(
        FirstMainEvents(*session.client, 5),
        {texts.SocketData(), texts.Bypassed(), texts.Arrived(), texts.Stopped(), texts.Selecting()}));
    EXPECT_TRUE(session.peer.Send(Frame("second")));
    EXPECT_TRUE(WaitForBytes(session.Fd(), 10));
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(session.target.Seen(), (Calls{"server", "message 5"}));
    EXPECT_EQ(session.target.Texts(), (Calls{"first", "second"}));
    EXPECT_TRUE(session.client->IsConnected());
}

TEST(Client, Reports_come_from_the_clients_thread) {
    Session session;
    EXPECT_TRUE(session.peer.Send(Frame("x")));
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_TRUE(session.target.WaitForCall("server"));
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    EXPECT_EQ(session.target.Callers(), (std::set<pthread_t>{session.client->m_nThreadID}));
}

// ---------------------------------------------------------------------------------------------------------
// The queue

TEST(Client, Message_is_routed_with_its_contents_and_false) {
    Session session;
    int anything;
    MSG seen = {};
    std::vector<bool> flags;
    {
        Hold hold(*session.client, session.target);
        session.target.onMessage = [&](const MSG& message, bool flag) {
            seen = message;
            flags.push_back(flag);
            return true;
        };
    }
    Host::SetTickCount(4711);
    EXPECT_EQ(PostThreadMessage(session.client->m_nThreadID, 0x401, 77, &anything), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 1025"));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(seen.message, 0x401U);
    EXPECT_EQ(seen.wParam, 77UL);
    EXPECT_EQ(seen.lParam, &anything);
    EXPECT_EQ(seen.time, 4711UL);
    EXPECT_EQ(flags, (std::vector<bool>{false}));
}

TEST(Client, Message_to_an_idle_client_ends_its_wait) {
    Session session;
    const MainTexts texts = session.Texts();
    CallLog log({Call::Select}, CallLog::AllThreads);
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    log.Clear();
    hold.Release();
    EXPECT_TRUE(log.WaitFor(Call::Select));
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    const std::vector<Event> events = MainEvents(*session.client);
    const auto message = std::find_if(events.begin(), events.end(),
                                      [&](const Event& event) { return texts.Message().Matches(event); });
    ASSERT_TRUE(message > events.begin() && message < events.end());
    EXPECT_TRUE(texts.Selecting().Matches(message[-1])) << "no other pass has found it";
}

TEST(Client, Waiting_message_bypasses_the_wait_and_one_pass_takes_one) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    for (unsigned int message : {1, 2, 3})
        EXPECT_EQ(Post(*session.client, message), 1);
    hold.Release();
    const MainTexts texts = session.Texts();
    std::vector<ExpectedEvent> expected;
    for (int i = 0; i < 3; i++)
        expected = expected + std::vector<ExpectedEvent>{texts.PipeData(), texts.Bypassed(), texts.Message()};
    expected.push_back(texts.Selecting());
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, expected.size()), expected));
    EXPECT_EQ(session.target.Seen(), (Calls{"message 1", "message 2", "message 3"}));
}

TEST(Client, One_pass_serves_the_socket_first_and_then_one_message) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    EXPECT_EQ(Post(*session.client, 1), 1);
    EXPECT_EQ(Post(*session.client, 2), 1);
    session.Deliver("hello");
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 8),
                           {texts.SocketData(), texts.Bypassed(), texts.Arrived(), texts.Message(),
                            texts.PipeData(), texts.Bypassed(), texts.Message(), texts.Selecting()}));
    EXPECT_EQ(session.target.Seen(), (Calls{"server", "message 1", "message 2"}));
}

TEST(Client, Pass_behind_a_wait_serves_the_socket_first_too) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    Interpose wait(Call::Select);
    wait.OnThread(session.client->m_nThreadID).Before([&] {
        EXPECT_EQ(Post(*session.client, 1), 1);
        session.Deliver("hello");
    });
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 4),
                           {texts.Selecting(), texts.Arrived(), texts.Message(), texts.Selecting()}));
    EXPECT_EQ(session.target.Seen(), (Calls{"server", "message 1"}));
}

TEST(Client, Queue_whose_state_cannot_be_read_is_served_after_the_wait) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    EXPECT_EQ(Post(*session.client, 5), 1);
    Interpose fail(Call::Ioctl);
    fail.OnDescriptor(Pipe(*session.client)).Fail(EIO);
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.Message(), texts.Selecting()}));
    EXPECT_EQ(fail.Acted(), 1);
}

TEST(Client, Message_that_cannot_be_read_is_not_routed_and_the_loop_goes_on) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    EXPECT_EQ(Post(*session.client, 5), 1);
    Interpose fail(Call::Read);
    fail.OnThread(session.client->m_nThreadID).Fail(EIO);
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 6),
                           {texts.PipeData(), texts.Bypassed(), texts.PipeData(), texts.Bypassed(),
                            texts.Message(), texts.Selecting()}));
    EXPECT_EQ(session.target.Seen(), (Calls{"message 5"}));
}

TEST(Client, Result_of_RouteMessage_is_ignored_and_WM_QUIT_is_a_message_like_any_other) {
    Session session;
    {
        Hold hold(*session.client, session.target);
        session.target.onMessage = [](const MSG& message, bool) { return message.message % 2 == 0; };
    }
    for (unsigned int message : {1U, 2U, WM_QUIT, 4U})
        EXPECT_EQ(Post(*session.client, message), 1);
    EXPECT_EQ(session.target.WaitForCalls(4),
              (Calls{"message 1", "message 2", Text("message %u", WM_QUIT), "message 4"}));
    EXPECT_FALSE(Recorder::Has(11, 7, "CWinThread::GetMessage : received WM_QUIT"));
}

TEST(Client, Unconnected_client_watches_its_queue_only) {
    RecordingTarget target;
    ClientPtr client(new CClient(target));
    CallLog log({Call::Recv, Call::Select}, CallLog::AllThreads);
    Recorder::Clear();
    client->ResumeThread();
    Hold hold(*client, target);
    Recorder::Clear();
    EXPECT_EQ(Post(*client, 5), 1);
    hold.Release();
    const MainTexts texts(SocketOf(*client)); // its number, though nobody watches it
    EXPECT_TRUE(SameEvents(FirstMainEvents(*client, 4),
                           {texts.PipeData(), texts.Bypassed(), texts.Message(), texts.Selecting()}));
    EXPECT_EQ(target.Seen(), (Calls{"message 5"}));
    EXPECT_EQ(log.Count(Call::Recv), 0);
}

// ---------------------------------------------------------------------------------------------------------
// The end of the connection

TEST(Client, Closure_by_the_server_is_logged_in_the_next_pass_and_the_loop_goes_on) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    session.CloseByServer();
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.Stopped(), texts.Selecting()}));
    EXPECT_GE(Count(CLOSURE), 2);
    EXPECT_TRUE(session.target.Seen().empty());
    EXPECT_TRUE(session.client->IsConnected());
    EXPECT_EQ(fcntl(session.Fd(), F_GETFD) & ~FD_CLOEXEC, 0) << "an orderly closure leaves it open";
}

// Every pass that a message carries so far repeats the event; those that only wait do not.
TEST(Client, Closure_event_is_repeated_in_every_pass_that_serves_the_queue) {
    Session session;
    const MainTexts texts = session.Texts();
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    session.CloseByServer();
    hold.Release();
    ASSERT_TRUE(WaitFor(texts.Selecting(), 2)); // that pass is over
    EXPECT_EQ(Count(texts.Stopped()), 1);
    for (unsigned int message : {1, 2, 3}) {
        EXPECT_EQ(Post(*session.client, message), 1);
        ASSERT_TRUE(WaitFor(texts.Message(), static_cast<int>(message)));
        EXPECT_EQ(Count(texts.Stopped()), 1 + static_cast<int>(message));
    }
    EXPECT_EQ(session.target.WaitForCalls(3), (Calls{"message 1", "message 2", "message 3"}));
}

TEST(Client, Closure_event_is_not_repeated_when_a_wait_runs_out) {
    Session session;
    const MainTexts texts = session.Texts();
    Hold hold(*session.client, session.target);
    session.CloseByServer();
    hold.Release();
    ASSERT_TRUE(WaitFor(texts.Stopped()));
    Hold again(*session.client, session.target);
    Recorder::Clear();
    Interpose timeOut(Call::Select);
    timeOut.OnThread(session.client->m_nThreadID).Return(0);
    again.Release();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.TimedOut(), texts.Selecting()}));
}

TEST(Client, Frame_before_the_closure_is_reported_first) {
    Session session;
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    session.Deliver("bye");
    session.CloseByServer();
    hold.Release();
    const MainTexts texts = session.Texts();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 6),
                           {texts.SocketData(), texts.Bypassed(), texts.Arrived(), texts.Selecting(),
                            texts.Stopped(), texts.Selecting()}));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(session.target.Texts(), (Calls{"bye"}));
}

TEST(Client, Sending_after_the_closure_is_still_tried_and_fails) {
    Session session;
    session.peer.Close();
    ASSERT_TRUE(WaitFor(session.Texts().Stopped()));
    CallLog log({Call::Send});
    const Deadline deadline = Deadline::Long();
    while (session.client->SendToServer(const_cast<char*>("anybody?")) && !deadline.Passed())
        sched_yield(); // the first is answered with a reset
    EXPECT_FALSE(session.client->SendToServer(const_cast<char*>("anybody?")));
    EXPECT_GE(log.Count(Call::Send), 2);
    EXPECT_TRUE(session.client->IsConnected());
    EXPECT_TRUE(
        Recorder::Has(12, 1, Text("CSocket::Send() on %d FAILED to send messageanybody?", session.Fd())));
}

// The look before the wait drops the news of the error and closes the socket, whose number is still watched.
TEST(Client, Reset_before_the_wait_ends_the_thread) {
    Session session;
    const MainTexts texts = session.Texts();
    const int fd = session.Fd();
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    session.peer.Reset();
    EXPECT_TRUE(WaitForClosure(fd));
    hold.Release();
    EXPECT_TRUE(WaitForEnd(*session.client));
    EXPECT_TRUE(SameEvents(MainEvents(*session.client),
                           {texts.Selecting(), texts.SelectFailed(EBADF), texts.NoLongerListening()}));
    EXPECT_EQ(Count(SocketError(ECONNRESET)), 1);
    EXPECT_EQ(session.Fd(), -1);
    EXPECT_TRUE(session.target.Seen().empty());
}

TEST(Client, Reset_during_the_wait_stops_the_watch_and_the_queue_is_served) {
    Session session;
    const MainTexts texts = session.Texts();
    const int fd = session.Fd();
    Hold hold(*session.client, session.target);
    Recorder::Clear();
    Interpose wait(Call::Select);
    wait.OnThread(session.client->m_nThreadID).Before([&] {
        session.peer.Reset();
        EXPECT_TRUE(WaitForClosure(fd));
    });
    hold.Release();
    EXPECT_TRUE(SameEvents(FirstMainEvents(*session.client, 3),
                           {texts.Selecting(), texts.Stopped(), texts.Selecting()}));
    EXPECT_EQ(Count(SocketError(ECONNRESET)), 1);
    EXPECT_GE(Count(SocketError(EBADF)), 1); // each look at the closed socket
    EXPECT_GE(Count(ALREADY_CLOSED), 1);
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    ASSERT_TRUE(EndThread(*session.client));
    EXPECT_EQ(session.target.Seen(), (Calls{"message 5"}));
}

TEST(Client, Events_come_before_the_calls_that_they_announce) {
    Session session;
    std::atomic<bool> arrived{false}, onPipe{false};
    {
        Hold hold(*session.client, session.target);
        const int fd = session.Fd();
        session.target.onServerActivity = [&, fd] {
            arrived = Recorder::Has(
                12, 9,
                Text("CClient::Main() fd %d: Data has arrived from the server signalling serverHandler", fd));
            char* text = nullptr;
            session.client->ReceiveFromServer(text, false, 0);
            SysFreeString(text);
            return true;
        };
        session.target.onMessage = [&, fd](const MSG& message, bool) {
            if (message.message == 5)
                onPipe = Recorder::Has(12, 9, Text("CClient::Main() fd %d: Message on thread's pipe.", fd));
            return false;
        };
        session.Deliver("hello");
        Recorder::Clear();
    }
    EXPECT_TRUE(session.target.WaitForCall("server"));
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_EQ(Post(*session.client, 6), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 6"));
    EXPECT_TRUE(arrived);
    EXPECT_TRUE(onPipe);
}

// ---------------------------------------------------------------------------------------------------------
// Numbers of descriptors

TEST(Client, Works_with_descriptors_above_1023) {
    DescriptorLimit limit(1200);
    if (!limit.Raised() || !SelectTakesHighDescriptors())
        GTEST_SKIP() << "no descriptors above 1023 in this environment";
    Filler filler(1030);
    CallLog log({Call::Select}, CallLog::AllThreads);
    Session session;
    EXPECT_GE(Pipe(*session.client), 1030);
    ASSERT_TRUE(log.WaitFor(Call::Select));
    EXPECT_EQ(log.Records()[0].number, session.Fd() + 1);
    EXPECT_TRUE(session.peer.Send(Frame("hello")));
    EXPECT_TRUE(session.target.WaitForCall("server"));
    EXPECT_EQ(Post(*session.client, 5), 1);
    EXPECT_TRUE(session.target.WaitForCall("message 5"));
    EXPECT_TRUE(session.client->SendToServer(const_cast<char*>("reply")));
    EXPECT_EQ(session.peer.ReadFrame(), "reply");
    session.peer.Close();
    EXPECT_TRUE(WaitFor(session.Texts().Stopped()));
}

// ---------------------------------------------------------------------------------------------------------
// With a CServer

TEST(Client, Talks_to_a_CServer) {
    RecordingTarget serverTarget;
    serverTarget.onActivity = [&](int fd) {
        const bool watch = serverTarget.ReadFrame(fd);
        return watch && serverTarget.Socket(fd)->Send(const_cast<char*>(serverTarget.Texts().back().c_str()));
    };
    ServerPtr server(new CServer(0, serverTarget));
    RecordingTarget target;
    ClientPtr client(new CClient("127.0.0.1", PortOf(*server), target));
    const std::string large(100000, 'x');
    for (const std::string& text : {std::string("one"), std::string("two"), large}) {
        const long count = static_cast<long>(target.Seen().size());
        Hold hold(*client, target); // while it sends, so that nothing switches the socket's mode
        EXPECT_TRUE(client->SendToServer(const_cast<char*>(text.c_str())));
        hold.Release();
        EXPECT_TRUE(target.WaitForCall("server", count + 1));
    }
    ASSERT_TRUE(EndThread(*client));
    EXPECT_EQ(target.Texts(), (Calls{"one", "two", large}));
    EXPECT_EQ(target.Seen(), Calls(3, "server")) << "one report a frame, however many pieces it came in";
}

} // namespace
