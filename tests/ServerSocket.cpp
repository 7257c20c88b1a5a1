#include <Windows/ServerSocket.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/SocketException.h>
#include <Windows/bstr.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

typedef std::vector<std::string> Strings;

const ExpectedEvent CONSTRUCTOR = {13, 7, "ServerSocket::ServerSocket() : called!"};
const ExpectedEvent CREATED = {13, 7, "ServerSocket::ServerSocket() : Socket created!"};
const ExpectedEvent NO_SOCKET = {11, 1, "CServerSocket::CServerSocket() : Could not create socket."};
const ExpectedEvent DESTRUCTOR = {13, 7, "ServerSocket::~ServerSocket() : called!"};

ExpectedEvent ListenStatus(int status) {
    return {11, 7, Text("ServerSocket::Listen() : status = %d", status)};
}
ExpectedEvent AcceptCalled(int fd) { return {11, 7, Text("ServerSocket::Accept() : Called with fd=%d", fd)}; }
ExpectedEvent AcceptResult(int fd) { return {11, 7, Text("ServerSocket::Accept() : fd = %d", fd)}; }

const std::string REUSE = Text("setsockopt(%d, %d, 1)", SOL_SOCKET, SO_REUSEADDR);

// Shows what only derived classes see.
struct OpenSocket : CSocket {
    static const sockaddr_in& Address(CSocket& socket) { return socket.*&OpenSocket::m_address; }
    static bool IsBlocking(CSocket& socket) { return socket.*&OpenSocket::m_bBlocking; }
};

// What was called. A sanitizer may add pipe(), by which it finds out whether an address can be read.
Strings Texts(const CallLog& calls) {
    Strings texts = calls.Texts();
    texts.erase(std::remove(texts.begin(), texts.end(), "pipe()"), texts.end());
    return texts;
}

bool IsOpen(int fd) {
    Bypass bypass;
    return fcntl(fd, F_GETFD) != -1;
}

bool IsBlocking(int fd) {
    Bypass bypass;
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

sockaddr_in OwnAddress(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address;
}

int Port(ServerSocket& server) { return ntohs(OwnAddress(server.m_fd).sin_port); }

// Whether a connection to an address of this machine succeeds.
bool Connects(const char* address, int port) {
    Bypass bypass;
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    inet_aton(address, &to.sin_addr);
    const Connection connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(connection.Descriptor(), reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
}

// Waits until a connection can be accepted.
bool WaitForConnection(ServerSocket& server) {
    pollfd entry = {server.m_fd, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(Deadline::Long().Remaining().count())) == 1;
}

// A server that listens on a port of this machine.
class ServerSocketListening : public testing::Test {
protected:
    ServerSocketListening() {
        EXPECT_TRUE(server.Bind(0));
        EXPECT_TRUE(server.Listen());
    }

    // A connection that waits to be accepted.
    Connection Client() {
        Connection client = ConnectTo(Port(server));
        EXPECT_TRUE(client.IsOpen());
        EXPECT_TRUE(WaitForConnection(server));
        return client;
    }

    ServerSocket server;
};

} // namespace

static_assert(sizeof(ServerSocket) == sizeof(CSocket), "no field of its own");
static_assert(std::is_convertible<ServerSocket*, CSocket*>::value, "derives publicly");
static_assert(!std::is_polymorphic<ServerSocket>::value, "no virtual function");
static_assert(!std::is_copy_constructible<ServerSocket>::value &&
                  !std::is_copy_assignable<ServerSocket>::value,
              "never copied");

// ---------------------------------------------------------------------------------------------------------
// Construction and destruction

TEST(ServerSocket, Constructor_makes_a_reusable_socket_that_does_not_block) {
    Recorder::Clear();
    CallLog calls;
    const ServerSocket server;
    EXPECT_EQ(Texts(calls), (Strings{"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(6, 1, 1)", REUSE,
                                     "fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {CONSTRUCTOR, CREATED}));
    EXPECT_FALSE(IsBlocking(server.m_fd));
    int reuse = 0;
    socklen_t length = sizeof reuse;
    EXPECT_EQ(getsockopt(server.m_fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &length), 0);
    EXPECT_NE(reuse, 0);
}

TEST(ServerSocket, Constructor_announces_itself_before_it_calls_anything_and_the_socket_after_it) {
    CallLog calls;
    std::vector<size_t> callsBefore;
    {
        Recorder::Hook hook([&](const Event&) { callsBefore.push_back(Texts(calls).size()); });
        const ServerSocket server;
    }
    EXPECT_EQ(callsBefore, (std::vector<size_t>{0, 5, 5}));
}

// Constructs a server and returns what the exception says.
static std::string DescriptionOfFailure() {
    try {
        ServerSocket server;
        ADD_FAILURE() << "it was constructed";
    } catch (SocketException& exception) {
        return exception.Description();
    }
    return "";
}

TEST(ServerSocket, Constructor_throws_without_a_descriptor) {
    Interpose fail(Call::Socket);
    fail.OnThisThread().Fail(EMFILE);
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(DescriptionOfFailure(), "CServerSocket::CServerSocket() : Could not create socket.");
    EXPECT_EQ(Texts(calls), Strings{"socket(AF_INET, SOCK_STREAM, 0)"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {CONSTRUCTOR, NO_SOCKET}));
}

TEST(ServerSocket, Constructor_throws_when_the_process_has_all_the_descriptors_it_may_have) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    Recorder::Clear();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string description = DescriptionOfFailure();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(description, "CServerSocket::CServerSocket() : Could not create socket.");
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {CONSTRUCTOR, NO_SOCKET}));
}

TEST(ServerSocket, Constructor_throws_and_closes_the_descriptor_when_its_option_is_refused) {
    Interpose fail(Call::Setsockopt);
    fail.OnThisThread().OnCall(1).Fail(ENOPROTOOPT);
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(DescriptionOfFailure(), "CServerSocket::CServerSocket() : Could not create socket.");
    EXPECT_EQ(Texts(calls), (Strings{"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(6, 1, 1)", "close()"}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {CONSTRUCTOR, NO_SOCKET}));
}

TEST(ServerSocket, Constructor_goes_on_when_the_address_cannot_be_reused) {
    Interpose fail(Call::Setsockopt);
    fail.OnThisThread().OnCall(2).Fail(ENOMEM);
    Recorder::Clear();
    const ServerSocket server;
    EXPECT_TRUE(SameEvents(
        Recorder::AllEvents(),
        {CONSTRUCTOR, {11, 1, "ServerSocket::ServerSocket() : failed to set reuse option!"}, CREATED}));
    EXPECT_FALSE(IsBlocking(server.m_fd));
}

TEST(ServerSocket, Constructor_goes_on_when_the_mode_cannot_be_switched) {
    Interpose fail(Call::Fcntl);
    fail.OnThisThread().Fail(EINVAL);
    Recorder::Clear();
    ServerSocket server;
    EXPECT_TRUE(SameEvents(
        Recorder::AllEvents(),
        {CONSTRUCTOR, {11, 1, "Failed to set blocking mode on socket (on option set)!!"}, CREATED}));
    EXPECT_TRUE(OpenSocket::IsBlocking(server));
}

TEST(ServerSocket, Destructor_logs_and_then_closes_the_descriptor) {
    auto server = std::make_unique<ServerSocket>();
    const int fd = server->m_fd;
    bool wasOpen = false;
    Recorder::Clear();
    CallLog calls;
    {
        Recorder::Hook hook([&](const Event&) { wasOpen = IsOpen(fd); });
        server.reset();
    }
    EXPECT_TRUE(wasOpen);
    EXPECT_EQ(Texts(calls), Strings{"close()"});
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {DESTRUCTOR}));
}

TEST(ServerSocket, Destructor_of_a_closed_server_only_logs) {
    auto server = std::make_unique<ServerSocket>();
    server->Close();
    Recorder::Clear();
    CallLog calls;
    server.reset();
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {DESTRUCTOR}));
}

// ---------------------------------------------------------------------------------------------------------
// Bind

TEST(ServerSocket, Bind_outside_debug_mode_takes_the_loopback_address) {
    ServerSocket server;
    Recorder::Clear();
    CallLog calls;
    EXPECT_TRUE(server.Bind(0));
    EXPECT_EQ(Texts(calls), Strings{"bind(127.0.0.1:0)"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_EQ(Host::IsDebugEnabledCalls(), 1);
    EXPECT_EQ(OwnAddress(server.m_fd).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(Port(server), 0) << "of the system's choice";
}

TEST(ServerSocket, Bind_in_debug_mode_takes_every_address) {
    Host::SetDebug(true);
    ServerSocket server;
    Recorder::Clear();
    CallLog calls;
    EXPECT_TRUE(server.Bind(0));
    EXPECT_EQ(Texts(calls), Strings{"bind(0.0.0.0:0)"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_EQ(Host::IsDebugEnabledCalls(), 1);
    EXPECT_EQ(OwnAddress(server.m_fd).sin_addr.s_addr, htonl(INADDR_ANY));
}

// Another address of this machine stands for another machine.
TEST(ServerSocket, Bind_decides_by_the_debug_mode_who_reaches_the_server) {
    for (const bool debug : {false, true}) {
        SCOPED_TRACE(debug);
        Host::SetDebug(debug);
        ServerSocket server;
        ASSERT_TRUE(server.Bind(0));
        ASSERT_TRUE(server.Listen());
        EXPECT_TRUE(Connects("127.0.0.1", Port(server)));
        EXPECT_EQ(Connects("127.0.0.2", Port(server)), debug);
    }
}

TEST(ServerSocket, Bind_fills_the_address_and_zeroes_its_padding) {
    struct PreparedSocket : ServerSocket {
        PreparedSocket() { memset(&m_address, 0xEE, sizeof m_address); }
        const sockaddr_in& Address() const { return m_address; }
    } server;
    const int port = UnusedPort();
    ASSERT_TRUE(server.Bind(port));
    const sockaddr_in& address = server.Address();
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    const unsigned char zero[sizeof address.sin_zero] = {};
    EXPECT_EQ(memcmp(address.sin_zero, zero, sizeof zero), 0);
}

TEST(ServerSocket, Bind_takes_the_low_16_bits_of_the_port) {
    const struct {
        int port;
        long bound;
    } cases[] = {{4711, 4711}, {65535, 65535}, {65536 + 4711, 4711}, {65536, 0}, {-1, 65535}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.port);
        ServerSocket server;
        Interpose replaced(Call::Bind);
        replaced.OnDescriptor(server.m_fd).Return(0);
        CallLog calls({Call::Bind});
        EXPECT_TRUE(server.Bind(row.port));
        ASSERT_EQ(calls.Records().size(), 1u);
        EXPECT_EQ(calls.Records()[0].number, row.bound);
    }
}

TEST(ServerSocket, Bind_to_a_port_in_use_logs_why_not) {
    const ListenSocket other;
    ServerSocket server;
    Recorder::Clear();
    EXPECT_FALSE(server.Bind(other.Port()));
    EXPECT_TRUE(
        SameEvents(Recorder::AllEvents(), {{11, 1, Text("Bind failed called! %s", strerror(EADDRINUSE))}}));
    EXPECT_TRUE(IsOpen(server.m_fd));
    EXPECT_TRUE(server.Bind(0)) << "the socket may be tried again";
}

TEST(ServerSocket, Bind_logs_the_text_of_the_systems_error) {
    for (const int error : {EACCES, EADDRNOTAVAIL}) {
        SCOPED_TRACE(error);
        ServerSocket server;
        Interpose fail(Call::Bind);
        fail.OnDescriptor(server.m_fd).Fail(error);
        Recorder::Clear();
        EXPECT_FALSE(server.Bind(0));
        EXPECT_TRUE(
            SameEvents(Recorder::AllEvents(), {{11, 1, Text("Bind failed called! %s", strerror(error))}}));
    }
}

TEST(ServerSocket, Bind_without_a_descriptor_is_false_and_asks_nobody) {
    ServerSocket server;
    server.Close();
    Recorder::Clear();
    CallLog calls;
    EXPECT_FALSE(server.Bind(0));
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_EQ(Host::IsDebugEnabledCalls(), 0);
}

// ---------------------------------------------------------------------------------------------------------
// Listen

TEST(ServerSocket, Listen_lets_128_connections_wait) {
    ServerSocket server;
    ASSERT_TRUE(server.Bind(0));
    Recorder::Clear();
    CallLog calls;
    EXPECT_TRUE(server.Listen());
    EXPECT_EQ(Texts(calls), Strings{"listen(128)"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {ListenStatus(0)}));
}

TEST(ServerSocket, Listen_fails_on_minus_1_alone) {
    const struct {
        int status;
        bool result;
    } cases[] = {{-1, false}, {1, true}, {-2, true}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.status);
        ServerSocket server;
        Interpose script(Call::Listen);
        script.OnDescriptor(server.m_fd).Return(row.status);
        Recorder::Clear();
        EXPECT_EQ(server.Listen(), row.result);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {ListenStatus(row.status)}));
    }
}

TEST(ServerSocket, Listen_without_a_descriptor_is_false_and_silent) {
    ServerSocket server;
    server.Close();
    Recorder::Clear();
    CallLog calls;
    EXPECT_FALSE(server.Listen());
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

// ---------------------------------------------------------------------------------------------------------
// Accept

TEST_F(ServerSocketListening, Accept_gives_a_new_blocking_socket_with_the_peers_address) {
    const Connection client = Client();
    Recorder::Clear();
    const std::unique_ptr<CSocket> accepted(server.Accept());
    ASSERT_TRUE(accepted);
    EXPECT_GT(accepted->m_fd, 0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {AcceptCalled(server.m_fd), AcceptResult(accepted->m_fd)}));
    EXPECT_TRUE(IsBlocking(accepted->m_fd));
    EXPECT_TRUE(OpenSocket::IsBlocking(*accepted));
    const sockaddr_in from = OwnAddress(client.Descriptor());
    const sockaddr_in& address = OpenSocket::Address(*accepted);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_port, from.sin_port);
    EXPECT_EQ(address.sin_addr.s_addr, from.sin_addr.s_addr);
}

TEST_F(ServerSocketListening, Accept_allocates_the_socket_and_then_accepts_and_calls_nothing_else) {
    const Connection client = Client();
    Recorder::Pause(); // the record of an event costs memory too
    CallLog calls({Call::New, Call::Accept, Call::Fcntl, Call::Setsockopt, Call::Select, Call::Recv,
                   Call::Close, Call::Delete});
    const std::unique_ptr<CSocket> accepted(server.Accept());
    const Strings seen = calls.Texts();
    EXPECT_EQ(seen, (Strings{Text("operator new(%zu)", sizeof(CSocket)), "accept()"}));
    ASSERT_TRUE(accepted);
}

TEST_F(ServerSocketListening, Accept_with_no_connection_waiting_returns_NULL_and_logs_minus_1) {
    Recorder::Clear();
    EXPECT_EQ(server.Accept(), nullptr);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {AcceptCalled(server.m_fd), AcceptResult(-1)}));
}

TEST_F(ServerSocketListening, Accept_that_fails_destroys_the_new_socket) {
    Recorder::Pause();
    for (const int error : {EMFILE, EINTR, ECONNABORTED}) {
        SCOPED_TRACE(error);
        Interpose fail(Call::Accept);
        fail.OnDescriptor(server.m_fd).Fail(error);
        CallLog calls({Call::New, Call::Accept, Call::Delete, Call::Close});
        CSocket* const accepted = server.Accept();
        const Strings seen = calls.Texts();
        EXPECT_EQ(seen,
                  (Strings{Text("operator new(%zu)", sizeof(CSocket)), "accept()", "operator delete()"}));
        EXPECT_EQ(accepted, nullptr);
    }
    const Connection client = Client();
    const std::unique_ptr<CSocket> accepted(server.Accept());
    EXPECT_TRUE(accepted) << "the server goes on";
}

// A process with its standard input closed gets descriptor 0.
TEST_F(ServerSocketListening, Accept_takes_descriptor_0_for_a_failure_and_closes_it) {
    const auto acceptAsZero = [this] {
        Connection client = Client();
        close(0);
        Recorder::Clear();
        const bool refused = server.Accept() == nullptr;
        const bool logged = Recorder::Has(11, 7, "ServerSocket::Accept() : fd = 0");
        _exit(refused && logged && !IsOpen(0) && client.AtEnd() ? 0 : 1);
    };
    EXPECT_EXIT(acceptAsZero(), testing::ExitedWithCode(0), "");
}

TEST_F(ServerSocketListening, Accept_without_a_descriptor_logs_the_call_and_returns_NULL) {
    server.Close();
    Recorder::Clear();
    CallLog calls({Call::New, Call::Accept});
    CSocket* const accepted = server.Accept();
    const Strings seen = calls.Texts();
    EXPECT_EQ(seen, Strings());
    EXPECT_EQ(accepted, nullptr);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {AcceptCalled(-1)}));
}

TEST_F(ServerSocketListening, Accept_takes_one_connection_after_the_other) {
    Connection clients[3];
    for (Connection& client : clients)
        client = Client();
    for (Connection& client : clients) {
        ASSERT_TRUE(WaitForConnection(server));
        const std::unique_ptr<CSocket> accepted(server.Accept());
        ASSERT_TRUE(accepted);
        EXPECT_EQ(OpenSocket::Address(*accepted).sin_port, OwnAddress(client.Descriptor()).sin_port);
    }
    EXPECT_EQ(server.Accept(), nullptr);
}

TEST_F(ServerSocketListening, Accepted_socket_exchanges_frames_and_outlives_the_server) {
    Connection client = Client();
    const std::unique_ptr<CSocket> accepted(server.Accept());
    ASSERT_TRUE(accepted);
    server.Close();
    ASSERT_TRUE(client.Send(Frame("question")));
    char* text = nullptr;
    EXPECT_EQ(accepted->Receive(text), 8);
    EXPECT_STREQ(text, "question");
    EXPECT_TRUE(accepted->Send(text));
    SysFreeString(text);
    EXPECT_EQ(client.ReadFrame(), "question");
}
