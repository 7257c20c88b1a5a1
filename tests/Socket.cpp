// CSocket's life, mode and readiness test. Its sending is in SocketSend.cpp, its receiving in
// SocketReceive.cpp.
#include <Windows/Socket.h>

#include <errno.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

typedef std::vector<std::string> Strings;

const ExpectedEvent GET_FLAGS_FAILED = {11, 1, "Failed to set blocking mode on socket (on option set)!!"};
const ExpectedEvent SET_FLAGS_FAILED = {11, 1, "Failed to set blocking mode on socket!!"};

// Shows what only derived classes see.
struct OpenSocket : CSocket {
    using CSocket::m_address;
    using CSocket::m_bBlocking;
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

Strings WithModeSwitched(Strings calls) {
    calls.insert(calls.begin(), {"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"});
    calls.insert(calls.end(), {"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR)"});
    return calls;
}

// A socket that is connected to pair.peer, blocking and idle.
class Socket : public testing::Test {
protected:
    Socket() : fd(pair.Release()) { socket.m_fd = fd; }

    ConnectedPair pair;
    OpenSocket socket;
    const int fd;
};

} // namespace

// ---------------------------------------------------------------------------------------------------------
// The object

static_assert(!std::is_polymorphic<CSocket>::value, "no virtual function, no virtual destructor");
static_assert(!std::is_copy_constructible<CSocket>::value && !std::is_copy_assignable<CSocket>::value,
              "never copied");
static_assert(sizeof(CSocket) == 32792, "descriptor, address, mode, 32,768 bytes to send from");
static_assert(offsetof(ReceivedDataBlock, m_nLength) == 0 &&
                  offsetof(ReceivedDataBlock, m_pData) == sizeof(void*),
              "length and data, and nothing else");
static_assert(sizeof(sockaddr_in) == 16, "the length that bind, accept and connect are given");

TEST(SocketObject, Level_of_the_options_is_TCP) {
    EXPECT_EQ(ZEL_SOCKET_LEVEL, 6);
    EXPECT_EQ(ZEL_SOCKET_LEVEL, IPPROTO_TCP);
}

TEST(SocketObject, Fields_stand_in_the_order_descriptor_address_mode) {
    OpenSocket socket;
    const char* start = reinterpret_cast<const char*>(&socket);
    EXPECT_EQ(reinterpret_cast<const char*>(&socket.m_fd) - start, 0);
    EXPECT_EQ(reinterpret_cast<const char*>(&socket.m_address) - start, 4);
    EXPECT_EQ(reinterpret_cast<const char*>(&socket.m_bBlocking) - start, 20);
}

TEST(SocketObject, Constructor_has_no_descriptor_a_zero_address_and_the_blocking_mode) {
    alignas(OpenSocket) static unsigned char memory[sizeof(OpenSocket)];
    memset(memory, 0xEE, sizeof memory);
    Recorder::Clear();
    CallLog calls;
    OpenSocket* socket = new (memory) OpenSocket;
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_EQ(socket->m_fd, -1);
    EXPECT_EQ(socket->GetDescriptor(), -1);
    const sockaddr_in zero = {};
    EXPECT_EQ(memcmp(&socket->m_address, &zero, sizeof zero), 0);
    EXPECT_TRUE(socket->m_bBlocking);
    socket->~OpenSocket();
}

TEST(SocketObject, Constructor_leaves_the_send_buffer_as_it_is) {
    alignas(OpenSocket) static unsigned char memory[sizeof(OpenSocket)];
    memset(memory, 0xEE, sizeof memory);
    OpenSocket* socket = new (memory) OpenSocket;
    const std::string buffer(reinterpret_cast<const char*>(memory) + 21, 32768);
    socket->~OpenSocket();
    EXPECT_EQ(buffer, std::string(32768, '\xEE'));
}

TEST(SocketObject, Empty_data_block_has_no_bytes) {
    const ReceivedDataBlock block;
    EXPECT_EQ(block.m_nLength, 0);
    EXPECT_EQ(block.m_pData, nullptr);
}

TEST(SocketObject, Destructor_without_a_descriptor_calls_nothing) {
    Recorder::Clear();
    CallLog calls;
    { CSocket socket; }
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(SocketObject, Destructor_closes_the_descriptor_and_logs_nothing) {
    ConnectedPair pair;
    const int fd = pair.Release();
    Recorder::Clear();
    CallLog calls;
    {
        CSocket socket;
        socket.m_fd = fd;
    }
    EXPECT_EQ(Texts(calls), Strings{"close()"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_FALSE(IsOpen(fd));
}

TEST(SocketObject, Destructor_leaves_no_descriptor_in_the_object) {
    alignas(CSocket) unsigned char memory[sizeof(CSocket)];
    auto* socket = new (memory) CSocket;
    ASSERT_TRUE(socket->Create());
    const auto offset = reinterpret_cast<unsigned char*>(&socket->m_fd) - memory;
    socket->~CSocket();
    int descriptor = 0;
    memcpy(&descriptor, memory + offset, sizeof descriptor);
    EXPECT_EQ(descriptor, -1) << "a thread that is about to be cancelled may still look";
}

TEST(SocketObject, EncodeLength_writes_four_bytes_most_significant_first) {
    const struct {
        unsigned long length;
        std::string bytes;
    } cases[] = {
        {0, std::string("\0\0\0\0", 4)},
        {1, std::string("\0\0\0\1", 4)},
        {0x01020304, "\x01\x02\x03\x04"},
        {0x00FF00FE, std::string("\x00\xFF\x00\xFE", 4)},
        {32764, std::string("\x00\x00\x7F\xFC", 4)},
        {32765, std::string("\x00\x00\x7F\xFD", 4)},
        {0x80000000UL, std::string("\x80\x00\x00\x00", 4)},
        {0xFFFFFFFFUL, "\xFF\xFF\xFF\xFF"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.length);
        unsigned char destination[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
        CSocket::EncodeLength(row.length, destination + 1);
        EXPECT_EQ(std::string(destination, destination + 6), "\xEE" + row.bytes + "\xEE");
    }
}

// ---------------------------------------------------------------------------------------------------------
// Create

TEST(SocketCreate, Makes_a_TCP_descriptor_without_delay_and_logs_nothing) {
    OpenSocket socket;
    Recorder::Clear();
    CallLog calls;
    EXPECT_TRUE(socket.Create());
    EXPECT_EQ(Texts(calls), (Strings{"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(6, 1, 1)"}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_TRUE(IsBlocking(socket.m_fd));
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    EXPECT_EQ(getsockopt(socket.m_fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length), 0);
    EXPECT_NE(noDelay, 0);
}

TEST(SocketCreate, Returns_false_without_a_descriptor) {
    CSocket socket;
    Interpose fail(Call::Socket);
    fail.OnThisThread().Fail(EMFILE);
    Recorder::Clear();
    CallLog calls;
    EXPECT_FALSE(socket.Create());
    EXPECT_EQ(socket.m_fd, -1);
    EXPECT_EQ(Texts(calls), Strings{"socket(AF_INET, SOCK_STREAM, 0)"});
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(SocketCreate, Closes_the_descriptor_when_the_option_is_refused) {
    CSocket socket;
    Interpose fail(Call::Setsockopt);
    fail.OnThisThread().Fail(ENOPROTOOPT);
    Recorder::Clear();
    CallLog calls({Call::Socket, Call::Setsockopt, Call::Close});
    EXPECT_FALSE(socket.Create());
    EXPECT_EQ(socket.m_fd, -1);
    EXPECT_EQ(calls.Texts(), (Strings{"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(6, 1, 1)", "close()"}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    const std::vector<CallRecord> records = calls.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[2].fd, records[0].result);
}

TEST(SocketCreate, Leaves_an_earlier_descriptor_open) {
    ConnectedPair pair;
    const int before = pair.Release();
    CSocket socket;
    socket.m_fd = before;
    EXPECT_TRUE(socket.Create());
    EXPECT_NE(socket.m_fd, before);
    EXPECT_TRUE(IsOpen(before));
    close(before);
}

// ---------------------------------------------------------------------------------------------------------
// Close

TEST_F(Socket, GetDescriptor_tells_the_descriptor_while_there_is_one) {
    EXPECT_EQ(socket.GetDescriptor(), fd);
    socket.Close();
    EXPECT_EQ(socket.GetDescriptor(), -1);
}

TEST_F(Socket, Close_returns_the_result_of_close_and_logs_nothing) {
    Recorder::Clear();
    EXPECT_EQ(socket.Close(), 0);
    EXPECT_EQ(socket.m_fd, -1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_TRUE(pair.peer.AtEnd());
}

TEST_F(Socket, Close_that_fails_returns_its_result_and_forgets_the_descriptor) {
    {
        Interpose fail(Call::Close);
        fail.OnDescriptor(fd).Fail(EIO);
        EXPECT_EQ(socket.Close(), -1);
        EXPECT_EQ(fail.Acted(), 1);
    }
    EXPECT_EQ(socket.m_fd, -1);
    close(fd);
}

TEST_F(Socket, Close_returns_what_close_returned) {
    {
        Interpose other(Call::Close);
        other.OnDescriptor(fd).Return(7);
        EXPECT_EQ(socket.Close(), 7);
    }
    EXPECT_EQ(socket.m_fd, -1);
    close(fd);
}

TEST_F(Socket, Second_Close_is_logged_as_misuse_and_returns_minus_1) {
    socket.Close();
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(socket.Close(), -1);
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(),
                           {{11, 5, "CSocket::Close - called on socket that's already been closed"}}));
}

// ---------------------------------------------------------------------------------------------------------
// SetBlockingMode

TEST_F(Socket, SetBlockingMode_to_the_present_mode_makes_no_system_call) {
    CallLog calls;
    EXPECT_TRUE(socket.SetBlockingMode(true));
    EXPECT_EQ(Texts(calls), Strings());
}

TEST_F(Socket, SetBlockingMode_reads_the_flags_and_writes_them_back) {
    Recorder::Clear();
    CallLog calls;
    EXPECT_TRUE(socket.SetBlockingMode(false));
    EXPECT_EQ(Texts(calls), (Strings{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"}));
    EXPECT_FALSE(socket.m_bBlocking);
    EXPECT_FALSE(IsBlocking(fd));
    calls.Clear();
    EXPECT_TRUE(socket.SetBlockingMode(false));
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(socket.SetBlockingMode(true));
    EXPECT_EQ(Texts(calls), (Strings{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR)"}));
    EXPECT_TRUE(socket.m_bBlocking);
    EXPECT_TRUE(IsBlocking(fd));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST_F(Socket, SetBlockingMode_keeps_the_other_flags) {
    ASSERT_EQ(fcntl(fd, F_SETFL, O_APPEND), 0);
    CallLog calls;
    socket.SetBlockingMode(false);
    socket.SetBlockingMode(true);
    EXPECT_EQ(Texts(calls), (Strings{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_APPEND|O_NONBLOCK)",
                                     "fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_APPEND)"}));
}

TEST_F(Socket, SetBlockingMode_trusts_its_own_record_of_the_mode) {
    ASSERT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    EXPECT_TRUE(socket.SetBlockingMode(true));
    EXPECT_FALSE(IsBlocking(fd));
}

TEST_F(Socket, SetBlockingMode_reports_flags_that_cannot_be_read) {
    for (const bool start : {true, false}) {
        SCOPED_TRACE(start);
        socket.SetBlockingMode(start);
        Interpose fail(Call::Fcntl);
        fail.OnDescriptor(fd).Fail(EINVAL);
        Recorder::Clear();
        CallLog calls;
        EXPECT_FALSE(socket.SetBlockingMode(!start));
        EXPECT_EQ(Texts(calls), Strings{"fcntl(F_GETFL)"});
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {GET_FLAGS_FAILED}));
        EXPECT_EQ(socket.m_bBlocking, start);
    }
}

TEST_F(Socket, SetBlockingMode_takes_any_negative_flags_as_a_failure) {
    Interpose fail(Call::Fcntl);
    fail.OnDescriptor(fd).Return(-2);
    Recorder::Clear();
    EXPECT_FALSE(socket.SetBlockingMode(false));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {GET_FLAGS_FAILED}));
}

TEST_F(Socket, SetBlockingMode_reports_flags_that_cannot_be_written) {
    for (const bool start : {true, false}) {
        SCOPED_TRACE(start);
        socket.SetBlockingMode(start);
        Interpose fail(Call::Fcntl);
        fail.OnDescriptor(fd).OnCall(2).Fail(EINVAL);
        Recorder::Clear();
        EXPECT_FALSE(socket.SetBlockingMode(!start));
        EXPECT_EQ(fail.Seen(), 2);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {SET_FLAGS_FAILED}));
        EXPECT_EQ(socket.m_bBlocking, start);
    }
}

TEST_F(Socket, SetBlockingMode_after_a_failure_tries_again) {
    {
        Interpose fail(Call::Fcntl);
        fail.OnDescriptor(fd).OnCall(2).Fail(EINVAL);
        EXPECT_FALSE(socket.SetBlockingMode(false));
    }
    EXPECT_TRUE(socket.SetBlockingMode(false));
    EXPECT_FALSE(IsBlocking(fd));
}

TEST(SocketMode, SetBlockingMode_without_a_descriptor_fails_on_the_flags) {
    CSocket socket;
    Recorder::Clear();
    EXPECT_FALSE(socket.SetBlockingMode(false));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {GET_FLAGS_FAILED}));
}

// ---------------------------------------------------------------------------------------------------------
// IsDataAvailable

TEST_F(Socket, IsDataAvailable_finds_a_byte_and_leaves_it) {
    ASSERT_TRUE(pair.peer.Send("x"));
    ASSERT_TRUE(WaitForBytes(fd, 1));
    Recorder::Clear();
    bool closed = true;
    EXPECT_TRUE(socket.IsDataAvailable(closed));
    EXPECT_FALSE(closed);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    char bytes[2];
    EXPECT_EQ(recv(fd, bytes, sizeof bytes, MSG_DONTWAIT), 1);
    EXPECT_EQ(bytes[0], 'x');
}

TEST_F(Socket, IsDataAvailable_on_an_idle_socket_is_false_at_once_and_silent) {
    Recorder::Clear();
    bool closed = true;
    EXPECT_FALSE(socket.IsDataAvailable(closed));
    EXPECT_FALSE(closed);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

// The peek does not wait even if another thread has switched the descriptor's mode meanwhile.
TEST_F(Socket, IsDataAvailable_peeks_without_waiting_and_asks_for_quick_acknowledgement) {
    const Strings peek = {"setsockopt(6, 12, 1)", "recv(1, MSG_PEEK|MSG_DONTWAIT)"};
    CallLog calls;
    socket.IsDataAvailable();
    EXPECT_EQ(Texts(calls), WithModeSwitched(peek));
    pair.peer.Send("x");
    ASSERT_TRUE(WaitForBytes(fd, 1));
    calls.Clear();
    socket.IsDataAvailable();
    EXPECT_EQ(Texts(calls), WithModeSwitched(peek));
    pair.peer.Close();
    char byte;
    ASSERT_EQ(recv(fd, &byte, 1, 0), 1);
    ASSERT_TRUE(WaitForClosure(fd));
    calls.Clear();
    socket.IsDataAvailable();
    EXPECT_EQ(Texts(calls), WithModeSwitched(peek));

    socket.SetBlockingMode(false);
    calls.Clear();
    socket.IsDataAvailable();
    EXPECT_EQ(Texts(calls), peek);
    EXPECT_FALSE(IsBlocking(fd));
}

TEST_F(Socket, IsDataAvailable_does_not_wait_on_a_descriptor_whose_mode_cannot_be_switched) {
    Interpose fail(Call::Fcntl);
    fail.OnDescriptor(fd).Always().Fail(EINVAL);
    bool closed = true;
    EXPECT_FALSE(socket.IsDataAvailable(closed));
    EXPECT_FALSE(closed);
    EXPECT_TRUE(IsBlocking(fd));
}

TEST_F(Socket, IsDataAvailable_goes_on_without_quick_acknowledgement) {
    ASSERT_TRUE(pair.peer.Send("x"));
    ASSERT_TRUE(WaitForBytes(fd, 1));
    Interpose fail(Call::Setsockopt);
    fail.OnDescriptor(fd).Fail(ENOPROTOOPT);
    Recorder::Clear();
    EXPECT_TRUE(socket.IsDataAvailable());
    EXPECT_EQ(fail.Acted(), 1);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST_F(Socket, IsDataAvailable_reports_closure_by_the_peer_and_keeps_the_descriptor) {
    pair.peer.Close();
    ASSERT_TRUE(WaitForClosure(fd));
    Recorder::Clear();
    bool closed = false;
    EXPECT_FALSE(socket.IsDataAvailable(closed));
    EXPECT_TRUE(closed);
    EXPECT_TRUE(SameEvents(
        Recorder::AllEvents(),
        {{12, 9,
          "CSocket::IsDataAvailable Detected socket closure (non-blocking call to recv returned 0)"}}));
    EXPECT_EQ(socket.m_fd, fd);
    EXPECT_TRUE(IsBlocking(fd));
}

TEST_F(Socket, IsDataAvailable_finds_data_in_front_of_a_closure) {
    pair.peer.Send("x");
    pair.peer.Close();
    ASSERT_TRUE(WaitForBytes(fd, 1));
    ASSERT_TRUE(WaitForClosure(fd));
    bool closed = true;
    EXPECT_TRUE(socket.IsDataAvailable(closed));
    EXPECT_FALSE(closed);
}

// A blocking socket cannot get its mode back, as it is closed then.
TEST_F(Socket, IsDataAvailable_closes_a_blocking_socket_on_an_error) {
    for (const int error : {ECONNRESET, ETIMEDOUT, EINTR}) {
        SCOPED_TRACE(error);
        ConnectedPair other;
        OpenSocket failing;
        const int descriptor = failing.m_fd = other.Release();
        Interpose fail(Call::Recv);
        fail.OnDescriptor(descriptor).Fail(error);
        Recorder::Clear();
        CallLog calls;
        bool closed = false;
        EXPECT_FALSE(failing.IsDataAvailable(closed));
        EXPECT_TRUE(closed);
        EXPECT_EQ(failing.m_fd, -1);
        EXPECT_FALSE(IsOpen(descriptor));
        EXPECT_TRUE(SameEvents(
            Recorder::AllEvents(),
            {{11, 4,
              Text("CSocket::IsDataAvailable Detected socket error (errno = %d) assuming socket closure",
                   error)},
             GET_FLAGS_FAILED}));
        EXPECT_EQ(Texts(calls),
                  (Strings{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)", "setsockopt(6, 12, 1)",
                           "recv(1, MSG_PEEK|MSG_DONTWAIT)", "close()", "fcntl(F_GETFL)"}));
        EXPECT_FALSE(failing.m_bBlocking);
    }
}

TEST_F(Socket, IsDataAvailable_closes_a_non_blocking_socket_on_an_error_with_one_event) {
    socket.SetBlockingMode(false);
    pair.peer.Reset();
    ASSERT_TRUE(WaitForClosure(fd));
    Recorder::Clear();
    bool closed = false;
    EXPECT_FALSE(socket.IsDataAvailable(closed));
    EXPECT_TRUE(closed);
    EXPECT_EQ(socket.m_fd, -1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(SameEvents(
        Recorder::AllEvents(),
        {{11, 4,
          Text("CSocket::IsDataAvailable Detected socket error (errno = %d) assuming socket closure",
               ECONNRESET)}}));
}

TEST_F(Socket, IsDataAvailable_without_a_flag_answers_the_same) {
    EXPECT_FALSE(socket.IsDataAvailable());
    pair.peer.Send("x");
    ASSERT_TRUE(WaitForBytes(fd, 1));
    EXPECT_TRUE(socket.IsDataAvailable());
    Interpose fail(Call::Recv);
    fail.OnDescriptor(fd).Fail(ECONNRESET);
    EXPECT_FALSE(socket.IsDataAvailable());
    EXPECT_EQ(socket.m_fd, -1);
}

// The record of the mode belongs to the descriptor that failed, and is wrong for the next one.
TEST_F(Socket, Create_after_an_error_takes_the_old_descriptors_mode_for_the_new_ones) {
    pair.peer.Reset();
    ASSERT_TRUE(WaitForClosure(fd));
    EXPECT_FALSE(socket.IsDataAvailable());
    ASSERT_TRUE(socket.Create());
    EXPECT_TRUE(IsBlocking(socket.m_fd));
    CallLog calls;
    EXPECT_TRUE(socket.SetBlockingMode(false));
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(IsBlocking(socket.m_fd));
}

TEST_F(Socket, Options_are_set_at_the_exported_level) {
    struct Restore {
        const int level = ZEL_SOCKET_LEVEL;
        ~Restore() { ZEL_SOCKET_LEVEL = level; }
    } restore;
    ZEL_SOCKET_LEVEL = IPPROTO_IP;
    Interpose replaced(Call::Setsockopt);
    replaced.OnThisThread().Always().Return(0);
    CallLog calls({Call::Setsockopt});
    socket.IsDataAvailable();
    CSocket created;
    EXPECT_TRUE(created.Create());
    EXPECT_EQ(calls.Texts(), (Strings{"setsockopt(0, 12, 1)", "setsockopt(0, 1, 1)"}));
}
