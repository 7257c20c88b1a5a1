#include <Windows/ClientSocket.h>

#include <errno.h>
#include <fcntl.h>
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
#include <host/ServiceRegistry.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

typedef std::vector<std::string> Strings;

const char NO_SOCKET[] = "CClientSocket::CClientSocket() : Could not create socket.";

// The calls of one attempt on a blocking socket.
Strings Attempt(const char* host, int port) {
    return {Text("inet_pton(AF_INET, %s)", host), Text("connect(%s:%d)", host, port)};
}

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

// Constructs a client socket and returns what the exception says.
std::string DescriptionOfFailure() {
    try {
        CClientSocket socket;
        ADD_FAILURE() << "it was constructed";
    } catch (SocketException& exception) {
        return exception.Description();
    }
    return "";
}

// A client socket and a listener to connect to.
class ClientSocket : public testing::Test {
protected:
    bool Connect() { return socket.Connect("127.0.0.1", listener.Port()); }

    ListenSocket listener;
    CClientSocket socket;
};

} // namespace

static_assert(std::is_convertible<CClientSocket*, CSocket*>::value, "derives publicly");
static_assert(!std::is_polymorphic<CClientSocket>::value, "no virtual function");
static_assert(!std::is_copy_constructible<CClientSocket>::value &&
                  !std::is_copy_assignable<CClientSocket>::value,
              "never copied");
static_assert(sizeof(CClientSocket) == sizeof(CSocket), "its flag stands in what would be padding");

// ---------------------------------------------------------------------------------------------------------
// Construction and destruction

TEST(ClientSocketObject, Constructor_makes_a_blocking_socket_and_logs_nothing) {
    Recorder::Clear();
    CallLog calls;
    const CClientSocket socket;
    EXPECT_EQ(Texts(calls), (Strings{"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(6, 1, 1)"}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_TRUE(IsBlocking(socket.m_fd));
}

TEST(ClientSocketObject, Constructor_throws_without_a_descriptor) {
    Interpose fail(Call::Socket);
    fail.OnThisThread().Fail(EMFILE);
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(DescriptionOfFailure(), NO_SOCKET);
    EXPECT_EQ(Texts(calls), Strings{"socket(AF_INET, SOCK_STREAM, 0)"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, NO_SOCKET}}));
}

TEST(ClientSocketObject, Constructor_throws_when_the_process_has_all_the_descriptors_it_may_have) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    Recorder::Clear();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string description = DescriptionOfFailure();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(description, NO_SOCKET);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, NO_SOCKET}}));
}

TEST(ClientSocketObject, Constructor_throws_and_closes_the_descriptor_when_its_option_is_refused) {
    Interpose fail(Call::Setsockopt);
    fail.OnThisThread().Fail(ENOPROTOOPT);
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(DescriptionOfFailure(), NO_SOCKET);
    EXPECT_EQ(Texts(calls), (Strings{"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(6, 1, 1)", "close()"}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, NO_SOCKET}}));
}

TEST(ClientSocketObject, Destructor_closes_the_descriptor_and_logs_nothing) {
    auto socket = std::make_unique<CClientSocket>();
    const int fd = socket->m_fd;
    Recorder::Clear();
    CallLog calls;
    socket.reset();
    EXPECT_EQ(Texts(calls), Strings{"close()"});
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

// ---------------------------------------------------------------------------------------------------------
// Connect

TEST_F(ClientSocket, Connect_reaches_a_server_and_logs_nothing) {
    Recorder::Clear();
    CallLog calls;
    EXPECT_TRUE(Connect());
    EXPECT_EQ(Texts(calls), Attempt("127.0.0.1", listener.Port()));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    Connection peer = listener.Accept();
    char text[] = "hello";
    EXPECT_TRUE(socket.Send(text));
    EXPECT_EQ(peer.ReadFrame(), "hello");
}

TEST_F(ClientSocket, Connect_fills_the_address) {
    struct OpenSocket : CClientSocket {
        const sockaddr_in& Address() const { return m_address; }
    } open;
    ASSERT_TRUE(open.Connect("127.0.0.1", listener.Port()));
    EXPECT_EQ(open.Address().sin_family, AF_INET);
    EXPECT_EQ(ntohs(open.Address().sin_port), listener.Port());
    EXPECT_EQ(open.Address().sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST_F(ClientSocket, Second_Connect_returns_false_without_touching_the_socket) {
    ASSERT_TRUE(Connect());
    Connection peer = listener.Accept();
    Recorder::Clear();
    CallLog calls;
    EXPECT_FALSE(Connect());
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    char text[] = "hello";
    EXPECT_TRUE(socket.Send(text));
    EXPECT_EQ(peer.ReadFrame(), "hello");
}

TEST_F(ClientSocket, Connect_once_done_is_never_possible_again) {
    ASSERT_TRUE(Connect());
    socket.Close();
    ASSERT_TRUE(socket.Create());
    CallLog calls;
    EXPECT_FALSE(Connect());
    EXPECT_EQ(Texts(calls), Strings());
}

TEST_F(ClientSocket, Connect_that_is_refused_may_be_tried_again) {
    const int fd = socket.m_fd;
    const int port = UnusedPort();
    Recorder::Clear();
    EXPECT_FALSE(socket.Connect("127.0.0.1", port));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_EQ(socket.m_fd, fd);
    EXPECT_TRUE(Connect());
    EXPECT_EQ(socket.m_fd, fd);
}

TEST_F(ClientSocket, Connect_without_a_descriptor_is_false) {
    socket.Close();
    CallLog calls;
    EXPECT_FALSE(Connect());
    EXPECT_EQ(Texts(calls), Strings());
    ASSERT_TRUE(socket.Create());
    EXPECT_TRUE(Connect()) << "it has never been connected";
}

TEST_F(ClientSocket, Connect_on_a_non_blocking_socket_blocks_for_the_handshake_only) {
    socket.SetBlockingMode(false);
    CallLog calls;
    EXPECT_TRUE(Connect());
    const Strings attempt = Attempt("127.0.0.1", listener.Port());
    EXPECT_EQ(Texts(calls), (Strings{attempt[0], "fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR)", attempt[1],
                                     "fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"}));
    EXPECT_FALSE(IsBlocking(socket.m_fd));
}

TEST_F(ClientSocket, Connect_that_fails_restores_the_mode) {
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        socket.SetBlockingMode(blocking);
        EXPECT_FALSE(socket.Connect("127.0.0.1", UnusedPort()));
        EXPECT_EQ(IsBlocking(socket.m_fd), blocking);
        CallLog calls;
        socket.SetBlockingMode(blocking);
        EXPECT_EQ(Texts(calls), Strings());
    }
}

TEST_F(ClientSocket, Connect_takes_any_result_but_0_for_a_failure_and_does_not_repeat_the_call) {
    const struct {
        int result;
        int error;
    } cases[] = {{-1, EINTR}, {-1, EINPROGRESS}, {-1, ETIMEDOUT}, {1, 0}};
    for (const auto& row : cases) {
        SCOPED_TRACE(Text("%d errno %d", row.result, row.error));
        Interpose script(Call::Connect);
        script.OnDescriptor(socket.m_fd);
        row.result < 0 ? script.Fail(row.error) : script.Return(row.result);
        EXPECT_FALSE(Connect());
        EXPECT_EQ(script.Seen(), 1);
    }
    EXPECT_TRUE(Connect());
}

TEST_F(ClientSocket, Connect_takes_the_low_16_bits_of_the_port) {
    CallLog calls;
    EXPECT_TRUE(socket.Connect("127.0.0.1", 65536 + listener.Port()));
    EXPECT_EQ(Texts(calls), Attempt("127.0.0.1", listener.Port()));
}

// ---------------------------------------------------------------------------------------------------------
// The host's address

// Linux takes 0.0.0.0 for this machine.
TEST_F(ClientSocket, Connect_to_a_host_that_is_no_address_goes_to_0_0_0_0) {
    for (const char* host : {"localhost", "", "127.0.0.1 ", "127.1", "::1", "256.0.0.1"}) {
        SCOPED_TRACE(host);
        CClientSocket fresh;
        CallLog calls({Call::Connect});
        EXPECT_TRUE(fresh.Connect(host, listener.Port()));
        EXPECT_EQ(calls.Texts(), Strings{Text("connect(0.0.0.0:%d)", listener.Port())});
    }
}

TEST_F(ClientSocket, Connect_to_a_host_that_is_no_address_goes_to_the_previous_address) {
    EXPECT_FALSE(socket.Connect("127.0.0.2", listener.Port())) << "it listens on 127.0.0.1 only";
    CallLog calls({Call::Connect});
    EXPECT_FALSE(socket.Connect("localhost", listener.Port()));
    EXPECT_EQ(calls.Texts(), Strings{Text("connect(127.0.0.2:%d)", listener.Port())});
}

TEST_F(ClientSocket, Connect_fails_when_addresses_of_that_family_are_not_supported) {
    Interpose fail(Call::InetPton);
    fail.OnThisThread().Fail(EAFNOSUPPORT);
    CallLog calls;
    EXPECT_FALSE(Connect());
    EXPECT_EQ(Texts(calls), Strings{"inet_pton(AF_INET, 127.0.0.1)"});
}

TEST_F(ClientSocket, Connect_goes_on_after_any_other_failure_of_the_conversion) {
    Interpose fail(Call::InetPton);
    fail.OnThisThread().Fail(EINVAL);
    CallLog calls({Call::Connect});
    EXPECT_TRUE(Connect());
    EXPECT_EQ(calls.Texts(), Strings{Text("connect(0.0.0.0:%d)", listener.Port())});
}

TEST_F(ClientSocket, Connect_ignores_an_errno_from_earlier) {
    errno = EAFNOSUPPORT;
    EXPECT_TRUE(Connect());
}

TEST_F(ClientSocket, Connect_takes_address_and_port_from_a_service_address) {
    CServiceAddress address;
    strcpy(address.m_szIPAddress, "127.0.0.1");
    address.m_nPortNumber = listener.Port();
    CallLog calls;
    EXPECT_TRUE(socket.Connect(address));
    EXPECT_EQ(Texts(calls), Attempt("127.0.0.1", listener.Port()));
    EXPECT_FALSE(socket.Connect(address));
}

TEST_F(ClientSocket, Connect_to_a_service_address_that_nobody_serves_is_false) {
    CServiceAddress address;
    strcpy(address.m_szIPAddress, "127.0.0.2");
    address.m_nPortNumber = listener.Port();
    EXPECT_FALSE(socket.Connect(address));
}
