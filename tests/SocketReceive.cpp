// The receiving half of CSocket: ReceiveLength, ReceiveBlock and Receive.
#include <Windows/Socket.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/bstr.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

typedef std::vector<std::string> Strings;

const Strings NON_BLOCKING = {"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"};
const Strings BLOCKING = {"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR)"};
const Strings PEEK = {"setsockopt(6, 12, 1)", "recv(1, MSG_PEEK|MSG_DONTWAIT)"};

Strings Read(size_t count) { return {"setsockopt(6, 12, 1)", Text("recv(%zu)", count)}; }

Strings Joined(const std::vector<Strings>& parts) {
    Strings all;
    for (const Strings& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

const ExpectedEvent GET_FLAGS_FAILED = {11, 1, "Failed to set blocking mode on socket (on option set)!!"};
const ExpectedEvent PEEK_CLOSURE = {
    12, 9, "CSocket::IsDataAvailable Detected socket closure (non-blocking call to recv returned 0)"};
const ExpectedEvent WAS_CLOSED = {12, 9, "CSocket::ReceiveLength -- Socket Was Closed, returning 0"};
const ExpectedEvent NO_WAIT = {
    12, 9, "CSocket::ReceiveLength returning because no data was available and caller specified not to wait"};
const ExpectedEvent NO_TIMEOUT = {
    12, 9,
    "CSocket::ReceiveLength Now blocking with select (with NO timeout) to wait for data (caller specified)"};
const ExpectedEvent CAME_BETWEEN = {
    12, 9, "CSocket::ReceiveLength Data Became available in between checking and setting up the select!!"};
const ExpectedEvent RECV_CLOSURE = {
    12, 9, "CSocket::ReceiveLength detected socket closure (non-blocking recv call returned 0)"};

ExpectedEvent PeekError(int error) {
    return {
        11, 4,
        Text("CSocket::IsDataAvailable Detected socket error (errno = %d) assuming socket closure", error)};
}
ExpectedEvent TimeOut(const char* timeout) {
    return {
        12, 9,
        Text("CSocket::ReceiveLength Now blocking with select (with timeout = %s) to wait for data on socket",
             timeout)};
}
ExpectedEvent Woke(int result, const char* error = "*") {
    return {
        12, 9,
        Like(Text("CSocket::ReceiveLength select call wokeup with return = %d, errno = %s", result, error))};
}
ExpectedEvent Got(int count, const char* error = "*") {
    return {12, 9, Like(Text("CSocket::ReceiveLength recv call returned %d (errno = %s)", count, error))};
}
ExpectedEvent PrefixError(int error) {
    return {11, 4, Text("CSocket::ReceiveLength Detected socket closed by other end (errno = %d)", error)};
}
ExpectedEvent RestError(const char* error = "*") {
    return {
        11, 4,
        Like(Text("CSocket::ReceiveLength Detected socket error or socket closed by other end (errno = %s)",
                  error))};
}
ExpectedEvent Protocol(int count) {
    return {11, 1,
            Text("CSocket::ReceiveLength() : There were %d byte(s) read for the length!!!  PROTOCOL IS NOW "
                 "BROKEN!",
                 count)};
}
ExpectedEvent Exit(int result) {
    return {12, 9, Text("Exiting CSocket::ReceiveLength returning: %d", result)};
}
ExpectedEvent PayloadClosure(int severity) {
    return {11, severity, "CSocket::Receive() : Data length is 0.  The sender has closed its endpoint."};
}
ExpectedEvent PayloadError(int error) {
    return {11, 1, Text("CSocket::Receive() : Error reading from socket errno = %d", error)};
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

// Whether the socket's record of its mode is right: a switch to that mode calls nothing.
bool KnowsMode(CSocket& socket, bool blocking) {
    CallLog calls({Call::Fcntl});
    return IsBlocking(socket.m_fd) == blocking && socket.SetBlockingMode(blocking) &&
           calls.Count(Call::Fcntl) == 0;
}

// A blocking socket, connected to pair.peer.
struct Link {
    Link() : fd(pair.Release()), socket(new CSocket) { socket->m_fd = fd; }
    ~Link() { delete socket; }

    // Sends, and waits until the bytes are here.
    void Arrive(const std::string& bytes) {
        EXPECT_TRUE(pair.peer.Send(bytes));
        EXPECT_TRUE(WaitForBytes(fd, bytes.size()));
    }

    void PeerCloses() {
        pair.peer.Close();
        EXPECT_TRUE(WaitForClosure(fd));
    }

    void PeerResets() {
        pair.peer.Reset();
        EXPECT_TRUE(WaitForClosure(fd));
    }

    ConnectedPair pair;
    const int fd;
    CSocket* const socket;
};

class SocketReceive : public testing::Test, protected Link {};

} // namespace

// ---------------------------------------------------------------------------------------------------------
// ReceiveLength: the prefix

TEST_F(SocketReceive, Length_is_the_big_endian_prefix_as_an_int) {
    const struct {
        const char* prefix;
        int length;
    } cases[] = {
        {"\x00\x00\x00\x00", 0},       {"\x00\x00\x00\x01", 1},        {"\x01\x02\x03\x04", 0x01020304},
        {"\x00\x00\x7F\xFC", 32764},   {"\x00\x00\x7F\xFD", 32765},    {"\x7F\xFF\xFF\xFF", INT_MAX},
        {"\x80\x00\x00\x00", INT_MIN}, {"\x80\x00\x00\x01", -INT_MAX}, {"\xFF\xFF\xFF\xFE", -2},
        {"\xFF\xFF\xFF\xFF", -1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.length);
        Arrive(std::string(row.prefix, 4) + "x");
        Recorder::Clear();
        EXPECT_EQ(socket->ReceiveLength(false), row.length);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(4), Exit(row.length)}));
        char bytes[2];
        EXPECT_EQ(recv(fd, bytes, sizeof bytes, MSG_DONTWAIT), 1) << "exactly the prefix is consumed";
        EXPECT_EQ(socket->m_fd, fd);
    }
}

TEST_F(SocketReceive, Length_that_is_there_needs_no_select) {
    Arrive(Prefix(3));
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(true, 1000), 3);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING}));
}

TEST_F(SocketReceive, Length_on_a_non_blocking_socket_never_touches_the_mode) {
    socket->SetBlockingMode(false);
    Arrive(Prefix(3));
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(false), 3);
    EXPECT_EQ(socket->ReceiveLength(false), 0);
    EXPECT_EQ(Texts(calls), Joined({PEEK, Read(4), PEEK}));
}

TEST_F(SocketReceive, Length_of_four_bytes_that_arrive_one_by_one) {
    CallLog calls(CallLog::AllThreads);
    int result = 0;
    Background receiver([&] { result = socket->ReceiveLength(true, 0); });
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    for (int i = 1; i <= 4; i++) {
        // Two peeks, then a read for each byte: of 4, 3, 2 and 1.
        ASSERT_TRUE(i == 1 || calls.WaitFor(Call::Recv, 2 + i));
        EXPECT_FALSE(receiver.Ended());
        ASSERT_TRUE(pair.peer.Send(std::string(1, static_cast<char>(i))));
    }
    ASSERT_TRUE(receiver.Join());
    EXPECT_EQ(result, 0x01020304);
    EXPECT_EQ(
        Texts(calls),
        Joined({NON_BLOCKING, PEEK, PEEK, {"select(NULL)"}, Read(4), BLOCKING, Read(3), Read(2), Read(1)}));
}

// The receiver is in the middle of a frame then: neither wait nor a time-out limits it.
TEST_F(SocketReceive, Length_of_which_a_part_is_read_waits_for_the_rest_whatever_the_caller_says) {
    for (const size_t first : {1, 2, 3})
        for (const bool wait : {false, true}) {
            SCOPED_TRACE(Text("%zu bytes, wait = %d", first, wait));
            const std::string prefix = Prefix(0x01020304);
            Arrive(prefix.substr(0, first));
            Recorder::Clear();
            CallLog calls(CallLog::AllThreads);
            int result = 0;
            Background receiver([&] { result = socket->ReceiveLength(wait, 1); });
            ASSERT_TRUE(calls.WaitFor(Call::Recv, 3));
            EXPECT_FALSE(receiver.Ended());
            ASSERT_TRUE(pair.peer.Send(prefix.substr(first)));
            ASSERT_TRUE(receiver.Join());
            EXPECT_EQ(result, 0x01020304);
            EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING, Read(4 - first)}));
            EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(static_cast<int>(first)), Exit(0x01020304)}));
        }
}

TEST_F(SocketReceive, Length_completed_in_blocking_mode_leaves_a_non_blocking_socket_as_it_was) {
    socket->SetBlockingMode(false);
    Arrive(Prefix(3));
    Interpose part(Call::Recv);
    part.OnDescriptor(fd).OnCall(2).Short(2);
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(false), 3);
    EXPECT_EQ(Texts(calls), Joined({PEEK, Read(4), BLOCKING, Read(2), NON_BLOCKING}));
}

// The byte that the peek has seen may be gone when it is read.
TEST_F(SocketReceive, Length_that_is_not_there_after_all_is_waited_for) {
    Arrive(Prefix(3));
    Interpose gone(Call::Recv);
    gone.OnDescriptor(fd).OnCall(2).Fail(EAGAIN);
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(false), 3);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING, Read(4)}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(-1, std::to_string(EAGAIN).c_str()), Exit(3)}));
}

// ---------------------------------------------------------------------------------------------------------
// ReceiveLength: nothing there, and waiting

TEST_F(SocketReceive, Length_on_an_idle_socket_without_waiting_is_0_at_once) {
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(false, 1000), 0);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, BLOCKING}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {NO_WAIT, Exit(0)}));
}

TEST_F(SocketReceive, Length_with_a_timeout_of_250_is_0_after_that_time) {
    Recorder::Clear();
    CallLog calls;
    const Deadline late = Deadline::Long();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(socket->ReceiveLength(true, 250), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(249));
    EXPECT_FALSE(late.Passed());
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, PEEK, {"select(0.250000)"}, BLOCKING}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {TimeOut("250"), Woke(0), Exit(0)}));
}

TEST_F(SocketReceive, Length_passes_select_the_timeout_and_the_descriptor_plus_1) {
    const struct {
        unsigned int timeout;
        const char* logged;
        const char* call;
    } cases[] = {
        {1, "1", "select(0.001000)"},
        {999, "999", "select(0.999000)"},
        {61500, "61500", "select(61.500000)"},
        {0xFFFFFFFFU, "4294967295", "select(4294967.295000)"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.logged);
        Interpose over(Call::Select);
        over.OnThisThread().Return(0);
        Recorder::Clear();
        CallLog calls({Call::Select});
        EXPECT_EQ(socket->ReceiveLength(true, row.timeout), 0);
        ASSERT_EQ(calls.Texts(), Strings{row.call});
        EXPECT_EQ(calls.Records()[0].number, fd + 1);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {TimeOut(row.logged), Woke(0), Exit(0)}));
    }
}

TEST_F(SocketReceive, Length_without_a_timeout_waits_until_data_comes) {
    Recorder::Clear();
    CallLog calls(CallLog::AllThreads);
    int result = 0;
    Background receiver([&] { result = socket->ReceiveLength(true, 0); });
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    EXPECT_FALSE(receiver.Ended());
    ASSERT_TRUE(pair.peer.Send(Prefix(3)));
    ASSERT_TRUE(receiver.Join());
    EXPECT_EQ(result, 3);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, PEEK, {"select(NULL)"}, Read(4), BLOCKING}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {NO_TIMEOUT, Got(4), Exit(3)}));
}

TEST_F(SocketReceive, Length_with_a_timeout_ends_as_soon_as_data_comes) {
    Recorder::Clear();
    CallLog calls(CallLog::AllThreads);
    int result = 0;
    Background receiver([&] { result = socket->ReceiveLength(true, 3600000); });
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    ASSERT_TRUE(pair.peer.Send(Prefix(3)));
    ASSERT_TRUE(receiver.Join());
    EXPECT_EQ(result, 3);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {TimeOut("3600000"), Got(4), Exit(3)}));
}

TEST_F(SocketReceive, Length_without_a_timeout_waits_until_the_peer_closes) {
    Recorder::Clear();
    CallLog calls(CallLog::AllThreads);
    int result = 0;
    Background receiver([&] { result = socket->ReceiveLength(true, 0); });
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    pair.peer.Close();
    ASSERT_TRUE(receiver.Join());
    EXPECT_EQ(result, -2);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, PEEK, {"select(NULL)"}, Read(4), BLOCKING}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {NO_TIMEOUT, Got(0), RECV_CLOSURE, Exit(-2)}));
}

TEST_F(SocketReceive, Length_waiting_when_the_connection_is_reset_is_minus_2) {
    Recorder::Clear();
    CallLog calls(CallLog::AllThreads);
    int result = 0;
    Background receiver([&] { result = socket->ReceiveLength(true, 0); });
    ASSERT_TRUE(calls.WaitFor(Call::Select));
    pair.peer.Reset();
    ASSERT_TRUE(receiver.Join());
    EXPECT_EQ(result, -2);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {NO_TIMEOUT, Got(-1, std::to_string(ECONNRESET).c_str()),
                                                   PrefixError(ECONNRESET), Exit(-2)}));
    EXPECT_EQ(socket->m_fd, fd) << "only the peek closes the descriptor";
}

TEST_F(SocketReceive, Length_finds_data_that_came_between_the_first_test_and_the_select) {
    Interpose race(Call::Recv);
    race.OnDescriptor(fd).OnCall(1).After([&] { Arrive(Prefix(3)); });
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(true, 0), 3);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, PEEK, Read(4), BLOCKING}));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {NO_TIMEOUT, CAME_BETWEEN, Got(4), Exit(3)}));
}

TEST_F(SocketReceive, Length_goes_on_to_select_when_the_peer_closes_before_it) {
    Interpose race(Call::Recv);
    race.OnDescriptor(fd).OnCall(1).After([&] { PeerCloses(); });
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(socket->ReceiveLength(true, 1000), -2);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, PEEK, {"select(1.000000)"}, Read(4), BLOCKING}));
    EXPECT_TRUE(
        SameEvents(Recorder::AllEvents(), {TimeOut("1000"), PEEK_CLOSURE, Got(0), RECV_CLOSURE, Exit(-2)}));
}

// With no descriptor left a select() without time-out would never return.
TEST_F(SocketReceive, Length_gives_up_when_the_socket_fails_just_before_the_select) {
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        ConnectedPair other;
        CSocket failing;
        const int descriptor = failing.m_fd = other.Release();
        failing.SetBlockingMode(blocking);
        Interpose race(Call::Recv);
        race.OnDescriptor(descriptor).OnCall(2).Fail(ECONNRESET);
        Recorder::Clear();
        CallLog calls({Call::Select});
        EXPECT_EQ(failing.ReceiveLength(true, 0), -2);
        EXPECT_EQ(calls.Texts(), Strings());
        EXPECT_TRUE(
            EventsInOrder(Recorder::AllEvents(), {NO_TIMEOUT, PeekError(ECONNRESET), WAS_CLOSED, Exit(-2)}));
        EXPECT_EQ(failing.m_fd, -1);
        EXPECT_FALSE(IsOpen(descriptor));
    }
}

TEST_F(SocketReceive, Length_repeats_an_interrupted_select) {
    Interpose interrupted(Call::Select);
    interrupted.OnThisThread().OnCall(1).Fail(EINTR);
    Interpose again(Call::Select);
    again.OnThisThread().OnCall(2).Fail(EINTR);
    Interpose data(Call::Select);
    data.OnThisThread().OnCall(3).Before([&] { Arrive(Prefix(3)); });
    Recorder::Clear();
    CallLog calls({Call::Select});
    EXPECT_EQ(socket->ReceiveLength(true, 60000), 3);
    EXPECT_EQ(calls.Count(Call::Select), 3);
    for (const CallRecord& record : calls.Records())
        EXPECT_EQ(record.number, fd + 1);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {TimeOut("60000"), Got(4), Exit(3)}));
}

TEST_F(SocketReceive, Length_returns_the_error_of_select) {
    for (const int error : {EBADF, ENOMEM, EINVAL}) {
        SCOPED_TRACE(error);
        Interpose fail(Call::Select);
        fail.OnThisThread().Fail(error);
        Recorder::Clear();
        EXPECT_EQ(socket->ReceiveLength(true, 0), -1);
        EXPECT_EQ(fail.Seen(), 1);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(),
                               {NO_TIMEOUT, Woke(-1, std::to_string(error).c_str()), Exit(-1)}));
        EXPECT_EQ(socket->m_fd, fd);
    }
}

// ---------------------------------------------------------------------------------------------------------
// ReceiveLength: closure and errors

TEST_F(SocketReceive, Length_on_a_socket_whose_peer_has_closed_is_minus_2_whether_it_waits_or_not) {
    PeerCloses();
    for (const bool wait : {false, true}) {
        SCOPED_TRACE(wait);
        Recorder::Clear();
        CallLog calls;
        EXPECT_EQ(socket->ReceiveLength(wait, 0), -2);
        EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, BLOCKING}));
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {PEEK_CLOSURE, WAS_CLOSED, Exit(-2)}));
        EXPECT_EQ(socket->m_fd, fd);
    }
}

TEST_F(SocketReceive, Length_after_a_reset_closes_the_socket_and_is_minus_2) {
    PeerResets();
    Recorder::Clear();
    EXPECT_EQ(socket->ReceiveLength(true, 0), -2);
    EXPECT_EQ(socket->m_fd, -1);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(EventsInOrder(Recorder::AllEvents(), {PeekError(ECONNRESET), WAS_CLOSED, Exit(-2)}));
    EXPECT_TRUE(EventsInOrder(Recorder::AllEvents(), {PeekError(ECONNRESET), GET_FLAGS_FAILED}))
        << "the closed descriptor cannot get its mode back";
    EXPECT_EQ(Recorder::AllEvents().size(), 4u);
}

TEST_F(SocketReceive, Length_after_a_reset_of_a_non_blocking_socket_has_no_mode_to_restore) {
    socket->SetBlockingMode(false);
    PeerResets();
    Recorder::Clear();
    EXPECT_EQ(socket->ReceiveLength(true, 0), -2);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {PeekError(ECONNRESET), WAS_CLOSED, Exit(-2)}));
}

TEST_F(SocketReceive, Length_without_a_descriptor_is_minus_2) {
    socket->Close();
    Recorder::Clear();
    CallLog calls({Call::Select, Call::Close});
    EXPECT_EQ(socket->ReceiveLength(true, 0), -2);
    EXPECT_EQ(calls.Texts(), Strings());
    EXPECT_TRUE(EventsInOrder(Recorder::AllEvents(),
                              {PeekError(EBADF),
                               {11, 5, "CSocket::Close - called on socket that's already been closed"},
                               WAS_CLOSED,
                               Exit(-2)}));
    EXPECT_TRUE(Recorder::Has(11, 1, GET_FLAGS_FAILED.text));
}

TEST_F(SocketReceive, Length_that_cannot_be_read_is_minus_2_and_keeps_the_descriptor) {
    for (const int error : {ECONNRESET, ETIMEDOUT, EINTR}) {
        SCOPED_TRACE(error);
        Arrive("xxxx");
        Interpose fail(Call::Recv);
        fail.OnDescriptor(fd).OnCall(2).Fail(error);
        Recorder::Clear();
        CallLog calls;
        EXPECT_EQ(socket->ReceiveLength(true, 0), -2);
        EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING}));
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(),
                               {Got(-1, std::to_string(error).c_str()), PrefixError(error), Exit(-2)}));
        EXPECT_EQ(socket->m_fd, fd);
    }
}

TEST_F(SocketReceive, Length_that_ends_in_closure_right_after_the_peek_is_minus_2) {
    Arrive("xxxx");
    Interpose closed(Call::Recv);
    closed.OnDescriptor(fd).OnCall(2).Return(0);
    Recorder::Clear();
    EXPECT_EQ(socket->ReceiveLength(false), -2);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(0), RECV_CLOSURE, Exit(-2)}));
}

TEST_F(SocketReceive, Length_of_which_the_peer_sends_a_part_and_closes_is_minus_2) {
    for (const int count : {1, 2, 3}) {
        SCOPED_TRACE(count);
        Link link;
        link.Arrive(std::string(static_cast<size_t>(count), 'x'));
        link.PeerCloses();
        Recorder::Clear();
        CallLog calls;
        EXPECT_EQ(link.socket->ReceiveLength(false), -2);
        EXPECT_EQ(Texts(calls),
                  Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING, Read(static_cast<size_t>(4 - count))}));
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(count), RestError(), Exit(-2)}));
        EXPECT_EQ(link.socket->m_fd, link.fd);
    }
}

TEST_F(SocketReceive, Length_whose_rest_cannot_be_read_is_minus_1) {
    for (const int error : {ECONNRESET, EINTR, EAGAIN}) {
        SCOPED_TRACE(error);
        Link link;
        link.Arrive("xx");
        Interpose fail(Call::Recv);
        fail.OnDescriptor(link.fd).OnCall(3).Fail(error);
        Recorder::Clear();
        EXPECT_EQ(link.socket->ReceiveLength(true, 0), -1);
        EXPECT_EQ(fail.Seen(), 3);
        EXPECT_TRUE(
            SameEvents(Recorder::AllEvents(), {Got(2), RestError(std::to_string(error).c_str()), Exit(-1)}));
        EXPECT_EQ(link.socket->m_fd, link.fd);
    }
}

TEST_F(SocketReceive, Length_that_fails_after_a_second_part_still_fails) {
    Arrive("xx");
    Interpose part(Call::Recv);
    part.OnDescriptor(fd).OnCall(2).Short(1);
    Interpose fail(Call::Recv);
    fail.OnDescriptor(fd).OnCall(4).Fail(ECONNRESET);
    CallLog calls({Call::Recv});
    EXPECT_EQ(socket->ReceiveLength(true, 0), -1);
    EXPECT_EQ(calls.Texts(), (Strings{PEEK[1], "recv(4)", "recv(3)", "recv(2)"}));
}

// Only a recv() that returns more than it was asked for gets there.
TEST_F(SocketReceive, Length_of_more_than_four_bytes_breaks_the_protocol) {
    Arrive("xxxx");
    Interpose part(Call::Recv);
    part.OnDescriptor(fd).OnCall(2).Short(2);
    Interpose more(Call::Recv);
    more.OnDescriptor(fd).OnCall(3).Return(3);
    Recorder::Clear();
    EXPECT_EQ(socket->ReceiveLength(true, 0), -1);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(2), Protocol(5), Exit(-1)}));
    EXPECT_TRUE(KnowsMode(*socket, true));
}

TEST_F(SocketReceive, Length_of_more_than_four_bytes_at_once_breaks_the_protocol) {
    Arrive("xxxx");
    Interpose more(Call::Recv);
    more.OnDescriptor(fd).OnCall(2).Return(5);
    Recorder::Clear();
    EXPECT_EQ(socket->ReceiveLength(true, 0), -1);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {Got(5), Protocol(5), Exit(-1)}));
    EXPECT_TRUE(KnowsMode(*socket, true));
}

// ---------------------------------------------------------------------------------------------------------
// ReceiveLength: the mode afterwards

namespace {

struct Outcome {
    const char* name;
    std::function<void(Link&)> prepare;
    Call call; // fails with error, or returns 0 without one, at the given time; never at 0
    int onCall;
    int error;
    int result;
};

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) { return stream << outcome.name; }

void Idle(Link&) {}

const Outcome OUTCOMES[] = {
    {"prefix", [](Link& link) { link.Arrive(Prefix(3)); }, Call::Recv, 0, 0, 3},
    {"prefix_missing", [](Link& link) { link.Arrive(Prefix(3)); }, Call::Recv, 2, EAGAIN, 3},
    {"closed", [](Link& link) { link.PeerCloses(); }, Call::Recv, 0, 0, -2},
    {"timeout", Idle, Call::Select, 1, 0, 0},
    {"select_error", Idle, Call::Select, 1, ENOMEM, -1},
    {"closed_at_prefix", [](Link& link) { link.Arrive(Prefix(3)); }, Call::Recv, 2, 0, -2},
    {"error_at_prefix", [](Link& link) { link.Arrive(Prefix(3)); }, Call::Recv, 2, ECONNRESET, -2},
    {"closed_at_rest",
     [](Link& link) {
         link.Arrive("xx");
         link.PeerCloses();
     },
     Call::Recv, 0, 0, -2},
    {"error_at_rest", [](Link& link) { link.Arrive("xx"); }, Call::Recv, 3, ECONNRESET, -1},
};

class SocketReceiveMode : public testing::TestWithParam<Outcome> {};

INSTANTIATE_TEST_SUITE_P(, SocketReceiveMode, testing::ValuesIn(OUTCOMES),
                         [](const testing::TestParamInfo<Outcome>& info) { return info.param.name; });

} // namespace

TEST_P(SocketReceiveMode, Is_restored) {
    const Outcome& outcome = GetParam();
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        Link link;
        link.socket->SetBlockingMode(blocking);
        outcome.prepare(link);
        Interpose script(outcome.call);
        script.OnThisThread().OnCall(outcome.onCall);
        outcome.error ? script.Fail(outcome.error) : script.Return(0);
        EXPECT_EQ(link.socket->ReceiveLength(true, 60000), outcome.result);
        EXPECT_TRUE(KnowsMode(*link.socket, blocking));
    }
}

// ---------------------------------------------------------------------------------------------------------
// Descriptors above those that an fd_set has room for

namespace {

// Lets the process have descriptors up to a number, if the system allows it.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int highest) {
        getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit limit = m_before;
        limit.rlim_cur = std::max(limit.rlim_cur, static_cast<rlim_t>(highest) + 1);
        limit.rlim_max = std::max(limit.rlim_max, limit.rlim_cur);
        m_raised = setrlimit(RLIMIT_NOFILE, &limit) == 0;
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }

    bool IsRaised() const { return m_raised; }

private:
    rlimit m_before;
    bool m_raised;
};

// A connected socket whose descriptor has a certain number.
struct NumberedLink {
    explicit NumberedLink(int number) : limit(number) {
        EXPECT_TRUE(limit.IsRaised());
        EXPECT_EQ(dup2(pair.own.Descriptor(), number), number);
        socket.m_fd = number;
        pair.own.Close();
    }

    const DescriptorLimit limit;
    ConnectedPair pair;
    CSocket socket;
};

#ifdef __powerpc__
const int NUMBERS[] = {1023};
const char* const NO_MORE_NUMBERS = "emulators of this processor end in select() with descriptors above 1023";
#else
const int NUMBERS[] = {1023, 1024, 1025, 1500, 4095};
const char* const NO_MORE_NUMBERS = nullptr;
#endif

} // namespace

TEST(SocketReceiveDescriptor, Is_waited_for_whatever_its_number_with_a_timeout_and_without) {
    for (const int number : NUMBERS) {
        SCOPED_TRACE(number);
        NumberedLink link(number);
        CallLog calls({Call::Select});
        EXPECT_EQ(link.socket.ReceiveLength(true, 20), 0);
        Interpose data(Call::Select);
        data.OnThisThread().OnCall(1).Before([&] { EXPECT_TRUE(link.pair.peer.Send(Prefix(3))); });
        EXPECT_EQ(link.socket.ReceiveLength(true, 0), 3);
        EXPECT_EQ(calls.Texts(), (Strings{"select(0.020000)", "select(NULL)"}));
        for (const CallRecord& record : calls.Records())
            EXPECT_EQ(record.number, number + 1);
    }
    if (NO_MORE_NUMBERS)
        GTEST_SKIP() << NO_MORE_NUMBERS;
}

TEST(SocketReceiveDescriptor, Receives_a_frame_that_comes_during_the_wait_whatever_its_number) {
    for (const int number : NUMBERS) {
        SCOPED_TRACE(number);
        NumberedLink link(number);
        char* text = nullptr;
        int result = 0;
        CallLog calls({Call::Select}, CallLog::AllThreads);
        Background receiver([&] { result = link.socket.Receive(text, true, 60000); });
        EXPECT_TRUE(calls.WaitFor(Call::Select));
        EXPECT_TRUE(link.pair.peer.Send(Frame("abc")));
        ASSERT_TRUE(receiver.Join());
        EXPECT_EQ(result, 3);
        EXPECT_STREQ(text, "abc");
        SysFreeString(text);
    }
    if (NO_MORE_NUMBERS)
        GTEST_SKIP() << NO_MORE_NUMBERS;
}

// ---------------------------------------------------------------------------------------------------------
// Receive and ReceiveBlock alike

namespace {

// What a receive function is given and gives back.
struct Received {
    char* text = nullptr;
    ReceivedDataBlock block;

    // Both hold something of the caller's.
    void Fill() {
        text = SysAllocString("before");
        block.m_nLength = 6;
        block.m_pData = new unsigned char[6]();
    }

    ~Received() {
        SysFreeString(text);
        delete[] block.m_pData;
    }
};

struct Receiver {
    const char* name;
    int (*receive)(CSocket& socket, Received& received, bool wait, unsigned int timeout);
    std::string (*payload)(Received& received);
    int closureSeverity;
    const char* success;
};

int ReceiveText(CSocket& socket, Received& received, bool wait, unsigned int timeout) {
    return socket.Receive(received.text, wait, timeout);
}

std::string TextPayload(Received& received) { return received.text ? received.text : ""; }

int ReceiveBlock(CSocket& socket, Received& received, bool wait, unsigned int timeout) {
    return socket.ReceiveBlock(received.block, wait, timeout);
}

std::string BlockPayload(Received& received) {
    return std::string(reinterpret_cast<char*>(received.block.m_pData),
                       static_cast<size_t>(received.block.m_nLength));
}

const Receiver RECEIVERS[] = {
    {"Receive", ReceiveText, TextPayload, 1, "CSocket::Receive() on %d: "},
    {"ReceiveBlock", ReceiveBlock, BlockPayload, 4, "CSocket::Receive() binary data on %d: "},
};

std::ostream& operator<<(std::ostream& stream, const Receiver& receiver) { return stream << receiver.name; }

class SocketReceiveEach : public testing::TestWithParam<Receiver>, protected Link {
protected:
    int ReceiveFrame(bool wait = true, unsigned int timeout = 0) {
        return GetParam().receive(*socket, received, wait, timeout);
    }

    // The caller's text and block are as Fill() left them.
    bool IsUntouched() const {
        return !strcmp(received.text, "before") && received.block.m_nLength == 6 && received.block.m_pData;
    }

    Received received;
};

INSTANTIATE_TEST_SUITE_P(, SocketReceiveEach, testing::ValuesIn(RECEIVERS),
                         [](const testing::TestParamInfo<Receiver>& info) { return info.param.name; });

} // namespace

TEST_P(SocketReceiveEach, Takes_these_system_calls_and_no_others_on_a_blocking_socket) {
    Arrive(Frame("abc"));
    CallLog calls(CallLog::AllThreads);
    EXPECT_EQ(ReceiveFrame(), 3);
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING, Read(3)}));
    EXPECT_EQ(calls.Texts(fd), Texts(calls));
}

TEST_P(SocketReceiveEach, Takes_these_system_calls_and_no_others_on_a_non_blocking_socket) {
    socket->SetBlockingMode(false);
    Arrive(Frame("abc"));
    CallLog calls;
    EXPECT_EQ(ReceiveFrame(), 3);
    EXPECT_EQ(Texts(calls), Joined({PEEK, Read(4), BLOCKING, Read(3), NON_BLOCKING}));
}

TEST(SocketReceiveDefaults, Wait_without_a_limit) {
    struct {
        const char* name;
        std::function<int(CSocket&, Received&)> receive;
    } const functions[] = {
        {"ReceiveLength", [](CSocket& socket, Received&) { return socket.ReceiveLength(); }},
        {"Receive", [](CSocket& socket, Received& to) { return socket.Receive(to.text); }},
        {"ReceiveBlock", [](CSocket& socket, Received& to) { return socket.ReceiveBlock(to.block); }},
    };
    for (const auto& function : functions) {
        SCOPED_TRACE(function.name);
        Link link;
        Received received;
        Interpose wait(Call::Select);
        wait.OnThisThread().Before([&] { link.Arrive(Frame("abc")); });
        CallLog waits({Call::Select});
        EXPECT_EQ(function.receive(*link.socket, received), 3);
        EXPECT_EQ(waits.Texts(), std::vector<std::string>{"select(NULL)"});
    }
}

TEST_P(SocketReceiveEach, Restores_the_mode_before_it_logs_success) {
    socket->SetBlockingMode(false);
    Arrive(Frame("abc"));
    bool isBlocking = true;
    Recorder::Hook hook([&](const Event& event) {
        if (event.text.find(Text(GetParam().success, fd)) == 0)
            isBlocking = (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
    });
    EXPECT_EQ(ReceiveFrame(), 3);
    EXPECT_FALSE(isBlocking);
}

TEST_P(SocketReceiveEach, Fails_when_a_limit_of_the_descriptor_runs_out) {
    const timeval limit = {0, 20000};
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    for (size_t arrived : {2, 4, 6}) {
        SCOPED_TRACE(arrived);
        Arrive(Frame("abc").substr(0, arrived));
        EXPECT_EQ(ReceiveFrame(), -1);
        char rest[8];
        while (recv(fd, rest, sizeof rest, MSG_DONTWAIT) > 0) {
        }
    }
}

TEST_P(SocketReceiveEach, Logs_prefix_and_success) {
    Arrive(Frame("abc"));
    Recorder::Clear();
    EXPECT_EQ(ReceiveFrame(), 3);
    const std::vector<Event> events = Recorder::Events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_TRUE(SameEvents({events[0], events[1]}, {Got(4), Exit(3)}));
    EXPECT_EQ(events[2].type, 12);
    EXPECT_EQ(events[2].severity, 7);
    EXPECT_EQ(events[2].format, GetParam().success);
}

TEST_P(SocketReceiveEach, Gets_frames_of_all_sizes) {
    for (const size_t size : {1, 2, 255, 256, 32764, 32765, 65536, 1 << 20}) {
        SCOPED_TRACE(size);
        std::string payload(size, 'a');
        payload[0] = '<';
        payload[size - 1] = '>';
        Background sender([&] { EXPECT_TRUE(pair.peer.Send(Frame(payload))); });
        EXPECT_EQ(ReceiveFrame(), static_cast<int>(size));
        EXPECT_TRUE(GetParam().payload(received) == payload);
    }
}

TEST_P(SocketReceiveEach, Gets_a_payload_that_comes_in_pieces) {
    Arrive(Frame("hello"));
    Interpose piece(Call::Recv);
    piece.OnDescriptor(fd).FromCall(3).Short(2);
    CallLog calls;
    EXPECT_EQ(ReceiveFrame(), 5);
    EXPECT_EQ(GetParam().payload(received), "hello");
    EXPECT_EQ(Texts(calls), Joined({NON_BLOCKING, PEEK, Read(4), BLOCKING, Read(5), Read(3), Read(1)}));
}

TEST_P(SocketReceiveEach, Waits_for_the_rest_of_a_payload_even_if_told_not_to_wait) {
    Arrive(Prefix(6) + "abc");
    CallLog calls({Call::Recv}, CallLog::AllThreads);
    int result = 0;
    Background receiver([&] { result = ReceiveFrame(false, 1); });
    ASSERT_TRUE(calls.WaitFor(Call::Recv, 4));
    EXPECT_FALSE(receiver.Ended());
    ASSERT_TRUE(pair.peer.Send("def"));
    ASSERT_TRUE(receiver.Join());
    EXPECT_EQ(result, 6);
    EXPECT_EQ(GetParam().payload(received), "abcdef");
}

TEST_P(SocketReceiveEach, Gets_frame_after_frame_from_one_segment) {
    Arrive(Frame("one") + Frame("three") + Frame("x"));
    for (const char* payload : {"one", "three", "x"}) {
        EXPECT_EQ(ReceiveFrame(false), static_cast<int>(strlen(payload)));
        EXPECT_EQ(GetParam().payload(received), payload);
    }
    EXPECT_EQ(ReceiveFrame(false), 0);
}

TEST_P(SocketReceiveEach, Gets_a_frame_in_front_of_a_closure_and_then_minus_2) {
    Arrive(Frame("abc"));
    PeerCloses();
    EXPECT_EQ(ReceiveFrame(), 3);
    EXPECT_EQ(ReceiveFrame(), -2);
    EXPECT_EQ(GetParam().payload(received), "abc");
}

TEST_P(SocketReceiveEach, Without_a_descriptor_is_minus_1_at_once_and_silent) {
    received.Fill();
    socket->Close();
    Recorder::Clear();
    CallLog calls;
    EXPECT_EQ(ReceiveFrame(), -1);
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
    EXPECT_TRUE(IsUntouched());
}

TEST_P(SocketReceiveEach, Passes_on_what_ReceiveLength_says_and_touches_nothing) {
    received.Fill();
    EXPECT_EQ(ReceiveFrame(false), 0);
    EXPECT_EQ(ReceiveFrame(true, 1), 0);
    {
        Interpose fail(Call::Select);
        fail.OnThisThread().Fail(ENOMEM);
        EXPECT_EQ(ReceiveFrame(), -1);
    }
    PeerCloses();
    EXPECT_EQ(ReceiveFrame(), -2);
    EXPECT_EQ(ReceiveFrame(false), -2);
    EXPECT_TRUE(IsUntouched());
}

TEST_P(SocketReceiveEach, Hands_wait_and_timeout_to_ReceiveLength) {
    Interpose over(Call::Select);
    over.OnThisThread().Always().Return(0);
    CallLog calls({Call::Select});
    ReceiveFrame(true, 1500);
    ReceiveFrame(true, 0);
    ReceiveFrame(false, 1500);
    EXPECT_EQ(calls.Texts(), (Strings{"select(1.500000)", "select(NULL)"}));
}

// Lengths of 2^31 and above look like errors, and zero like silence, while the stream goes on.
TEST_P(SocketReceiveEach, Takes_lengths_below_1_for_results_and_goes_on_behind_them) {
    received.Fill();
    const struct {
        unsigned long length;
        int result;
    } cases[] = {{0, 0}, {0xFFFFFFFFUL, -1}, {0xFFFFFFFEUL, -2}, {0x80000000UL, INT_MIN}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.length);
        Arrive(Prefix(row.length));
        EXPECT_EQ(ReceiveFrame(), row.result);
        EXPECT_TRUE(IsUntouched());
        EXPECT_EQ(socket->m_fd, fd);
    }
    Arrive(Frame("abc"));
    EXPECT_EQ(ReceiveFrame(), 3);
    EXPECT_EQ(GetParam().payload(received), "abc");
}

TEST_P(SocketReceiveEach, Survives_a_length_that_no_memory_holds) {
    received.Fill();
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        socket->SetBlockingMode(blocking);
        Arrive(Prefix(0x7FFFFFFF));
        FailAllocation fail(1, FailAllocation::OnlyNew);
        const int result = ReceiveFrame();
        fail.Stop();
        EXPECT_TRUE(fail.Happened());
        EXPECT_EQ(result, -1);
        EXPECT_STREQ(received.text, "before");
        EXPECT_TRUE(KnowsMode(*socket, blocking));
    }
    if (GetParam().receive == ReceiveBlock) {
        EXPECT_EQ(received.block.m_nLength, 0);
        EXPECT_EQ(received.block.m_pData, nullptr);
    }
}

// With the memory or without it: the peer's length never ends the process.
TEST_P(SocketReceiveEach, Survives_the_longest_length_of_a_peer_that_closes_then) {
    Arrive(std::string("\x7F\xFF\xFF\xFF", 4));
    PeerCloses();
    const int result = ReceiveFrame();
    EXPECT_TRUE(result == -1 || result == -2) << result;
}

TEST_P(SocketReceiveEach, Reports_closure_inside_a_payload) {
    for (const size_t arrived : {0, 2}) {
        SCOPED_TRACE(arrived);
        Link link;
        Received got;
        link.Arrive(Prefix(5) + std::string(arrived, 'x'));
        link.PeerCloses();
        Recorder::Clear();
        EXPECT_EQ(GetParam().receive(*link.socket, got, true, 0), -2);
        EXPECT_TRUE(
            SameEvents(Recorder::Events(), {Got(4), Exit(5), PayloadClosure(GetParam().closureSeverity)}));
        EXPECT_EQ(link.socket->m_fd, link.fd);
    }
}

TEST_P(SocketReceiveEach, Takes_any_error_inside_a_payload_as_fatal_for_the_frame) {
    for (const int error : {ECONNRESET, EINTR, EAGAIN})
        for (const int onCall : {3, 4}) {
            SCOPED_TRACE(Text("errno %d at recv %d", error, onCall));
            Link link;
            Received got;
            link.Arrive(Prefix(5) + "xx");
            Interpose fail(Call::Recv);
            fail.OnDescriptor(link.fd).OnCall(onCall).Fail(error);
            Recorder::Clear();
            EXPECT_EQ(GetParam().receive(*link.socket, got, true, 0), -1);
            EXPECT_EQ(fail.Seen(), onCall);
            const std::vector<Event> events = Recorder::Events();
            ASSERT_TRUE(SameEvents(events, {Got(4), Exit(5), PayloadError(error)}));
            EXPECT_EQ(events[2].entry, Event::PlainXString);
            EXPECT_FALSE(events[2].hasDetail);
            EXPECT_EQ(link.socket->m_fd, link.fd);
        }
}

TEST_P(SocketReceiveEach, Leaves_the_socket_blocking_after_a_failed_payload) {
    for (const bool blocking : {true, false})
        for (const int error : {0, ECONNRESET}) {
            SCOPED_TRACE(Text("blocking %d errno %d", blocking, error));
            Link link;
            Received got;
            link.socket->SetBlockingMode(blocking);
            link.Arrive(Prefix(5) + "xx");
            Interpose script(Call::Recv);
            script.OnDescriptor(link.fd).OnCall(4);
            error ? script.Fail(error) : script.Return(0);
            EXPECT_EQ(GetParam().receive(*link.socket, got, true, 0), error ? -1 : -2);
            EXPECT_TRUE(KnowsMode(*link.socket, true));
        }
}

TEST_P(SocketReceiveEach, A_failed_payload_leaves_no_memory_behind) {
    for (const int error : {0, ECONNRESET}) {
        SCOPED_TRACE(error);
        Link link;
        Received got;
        link.Arrive(Prefix(5) + "xx");
        Interpose script(Call::Recv);
        script.OnDescriptor(link.fd).OnCall(4);
        error ? script.Fail(error) : script.Return(0);
        Recorder::Pause();
        AllocationCounter count;
        GetParam().receive(*link.socket, got, true, 0);
        EXPECT_EQ(count.ArrayNews(), 1);
        EXPECT_EQ(count.ArrayDeletes(), 1);
        EXPECT_EQ(count.Balance(), 0);
        Recorder::Resume();
    }
}

TEST_P(SocketReceiveEach, A_lost_payload_puts_the_stream_out_of_step) {
    Arrive(Prefix(8));
    {
        Interpose fail(Call::Recv);
        fail.OnDescriptor(fd).OnCall(3).Fail(EINTR);
        EXPECT_EQ(ReceiveFrame(), -1);
    }
    Arrive(std::string("\0\0\0\4late", 8));
    EXPECT_EQ(ReceiveFrame(), 4);
    EXPECT_EQ(GetParam().payload(received), "late");
}

TEST_P(SocketReceiveEach, Broken_prefix_is_minus_1) {
    received.Fill();
    Arrive("xxxx");
    Interpose part(Call::Recv);
    part.OnDescriptor(fd).OnCall(2).Short(2);
    Interpose more(Call::Recv);
    more.OnDescriptor(fd).OnCall(3).Return(3);
    EXPECT_EQ(ReceiveFrame(), -1);
    EXPECT_EQ(part.Seen(), 3);
    EXPECT_TRUE(IsUntouched());
}

// ---------------------------------------------------------------------------------------------------------
// ReceiveBlock

class SocketReceiveBlock : public testing::Test, protected Link {
protected:
    ~SocketReceiveBlock() { delete[] block.m_pData; }

    ReceivedDataBlock block;
};

TEST_F(SocketReceiveBlock, Holds_the_bytes_and_nothing_behind_them) {
    const std::string payload("a\0\xFF\0b", 5);
    Arrive(Frame(payload));
    CallLog calls({Call::ArrayNew, Call::Malloc, Call::Calloc, Call::Realloc, Call::New});
    const int result = socket->ReceiveBlock(block);
    const Strings seen = calls.Texts();
    EXPECT_EQ(seen, Strings{"operator new[](5)"});
    EXPECT_EQ(result, 5);
    ASSERT_EQ(block.m_nLength, 5);
    EXPECT_EQ(std::string(block.m_pData, block.m_pData + 5), payload);
}

TEST_F(SocketReceiveBlock, Logs_the_descriptor_of_binary_data) {
    Arrive(Frame("abc"));
    Recorder::Clear();
    socket->ReceiveBlock(block);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(),
                           {Got(4), Exit(3), {12, 7, Text("CSocket::Receive() binary data on %d: ", fd)}}));
}

TEST_F(SocketReceiveBlock, Of_another_size_frees_the_old_data_first) {
    Arrive(Frame("four") + Frame("three"));
    ASSERT_EQ(socket->ReceiveBlock(block), 4);
    CallLog calls({Call::ArrayNew, Call::ArrayDelete});
    const int result = socket->ReceiveBlock(block);
    const Strings seen = calls.Texts();
    EXPECT_EQ(seen, (Strings{"operator delete[]()", "operator new[](5)"}));
    EXPECT_EQ(result, 5);
    EXPECT_EQ(block.m_nLength, 5);
    EXPECT_EQ(std::string(block.m_pData, block.m_pData + 5), "three");
}

TEST_F(SocketReceiveBlock, Of_equal_size_leaves_the_old_data_to_the_caller) {
    Arrive(Frame("one") + Frame("two"));
    ASSERT_EQ(socket->ReceiveBlock(block), 3);
    unsigned char* const first = block.m_pData;
    AllocationCounter count;
    const int result = socket->ReceiveBlock(block);
    EXPECT_EQ(count.ArrayNews(), 1);
    EXPECT_EQ(count.ArrayDeletes(), 0);
    EXPECT_EQ(result, 3);
    EXPECT_NE(block.m_pData, first);
    EXPECT_EQ(std::string(first, first + 3), "one");
    EXPECT_EQ(std::string(block.m_pData, block.m_pData + 3), "two");
    delete[] first;
}

TEST_F(SocketReceiveBlock, Is_empty_after_a_failed_payload) {
    for (const int error : {0, ECONNRESET})
        for (const int oldLength : {0, 4, 5}) {
            SCOPED_TRACE(Text("errno %d, %d bytes before", error, oldLength));
            Link link;
            ReceivedDataBlock got;
            unsigned char* const before = oldLength ? new unsigned char[oldLength]() : nullptr;
            got.m_nLength = oldLength;
            got.m_pData = before;
            link.Arrive(Prefix(5) + "xx");
            Interpose script(Call::Recv);
            script.OnDescriptor(link.fd).OnCall(4);
            error ? script.Fail(error) : script.Return(0);
            EXPECT_EQ(link.socket->ReceiveBlock(got), error ? -1 : -2);
            EXPECT_EQ(got.m_nLength, 0);
            EXPECT_EQ(got.m_pData, nullptr);
            if (oldLength == 5) // of equal size, so it was not released
                delete[] before;
        }
}

// ---------------------------------------------------------------------------------------------------------
// Receive

class SocketReceiveText : public testing::Test, protected Link {
protected:
    ~SocketReceiveText() { SysFreeString(text); }

    char* text = nullptr;
};

TEST_F(SocketReceiveText, Is_a_new_BSTR) {
    Arrive(Frame("abc"));
    EXPECT_EQ(socket->Receive(text), 3);
    EXPECT_STREQ(text, "abc");
    EXPECT_TRUE(IsBSTR(text, true));
    EXPECT_EQ(SysStringLen(text), 3u);
}

TEST_F(SocketReceiveText, Is_logged_verbatim_behind_the_descriptor) {
    const std::string payload = "100%s %d%%";
    Arrive(Frame(payload));
    Recorder::Clear();
    socket->Receive(text);
    const std::vector<Event> events = Recorder::Events();
    ASSERT_TRUE(
        SameEvents(events, {Got(4), Exit(10), {12, 7, Text("CSocket::Receive() on %d: ", fd) + payload}}));
    EXPECT_EQ(events[2].entry, Event::FormatBuffer);
    EXPECT_EQ(events[2].buffer, payload);
}

TEST_F(SocketReceiveText, Frees_the_callers_previous_text_before_it_allocates_the_new_one) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    text = SysAllocString("before");
    Arrive(Frame("abc"));
    CallLog calls({Call::Malloc, Call::Free});
    const int result = socket->Receive(text);
    const std::vector<CallRecord> seen = calls.Records();
    EXPECT_EQ(result, 3);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].call, Call::Free);
    EXPECT_EQ(seen[1].call, Call::Malloc);
    EXPECT_STREQ(text, "abc");
}

TEST_F(SocketReceiveText, Costs_one_temporary_array_of_one_byte_more) {
    Arrive(Frame("abc"));
    CallLog calls({Call::ArrayNew, Call::ArrayDelete});
    socket->Receive(text);
    const Strings seen = calls.Texts();
    EXPECT_EQ(seen, (Strings{"operator new[](4)", "operator delete[]()"}));
}

TEST_F(SocketReceiveText, Ends_at_the_first_NUL_while_the_result_counts_every_byte) {
    Arrive(Frame(std::string("ab\0cd", 5)) + Frame(std::string("\0", 1)) + Frame("next"));
    EXPECT_EQ(socket->Receive(text), 5);
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(SysStringLen(text), 2u);
    EXPECT_EQ(socket->Receive(text), 1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(SysStringLen(text), 0u);
    EXPECT_EQ(socket->Receive(text), 4);
    EXPECT_STREQ(text, "next");
}

TEST_F(SocketReceiveText, Without_memory_for_the_text_is_minus_1) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        socket->SetBlockingMode(blocking);
        SysFreeString(text);
        text = SysAllocString("before");
        Arrive(Frame("abc"));
        Recorder::Clear();
        AllocationCounter count;
        FailAllocation fail(1, FailAllocation::OnlyMalloc);
        const int result = socket->Receive(text);
        fail.Stop();
        EXPECT_EQ(count.ArrayDeletes(), 1);
        EXPECT_TRUE(fail.Happened());
        EXPECT_EQ(result, -1);
        EXPECT_EQ(text, nullptr);
        EXPECT_TRUE(SameEvents(
            Recorder::Events(),
            {Got(4), Exit(3), {11, 1, "CSocket::Receive() : Error converting to wide characters"}}));
        EXPECT_TRUE(KnowsMode(*socket, blocking));
    }
    Arrive(Frame("next"));
    EXPECT_EQ(socket->Receive(text), 4);
    EXPECT_STREQ(text, "next");
}

TEST_F(SocketReceiveText, Stays_untouched_when_the_payload_fails) {
    text = SysAllocString("before");
    char* const before = text;
    Arrive(Prefix(5) + "xx");
    PeerCloses();
    EXPECT_EQ(socket->Receive(text), -2);
    EXPECT_EQ(text, before);
    EXPECT_STREQ(text, "before");
}

TEST_F(SocketReceiveText, Comes_whole_from_another_CSocket) {
    CSocket other;
    other.m_fd = pair.peer.Release();
    for (const size_t size : {1, 3, 32764, 32765}) {
        SCOPED_TRACE(size);
        std::string payload(size, 'x');
        Background sender([&] { EXPECT_TRUE(other.Send(&payload[0])); });
        EXPECT_EQ(socket->Receive(text), static_cast<int>(size));
        EXPECT_TRUE(text == payload);
    }
}

TEST_F(SocketReceiveText, Of_two_sockets_in_two_threads_belongs_to_its_own) {
    Recorder::Pause(); // its lock would order the threads
    const auto exchange = [](char letter) {
        Link link;
        CSocket other;
        other.m_fd = link.pair.peer.Release();
        char* text = nullptr;
        for (size_t size = 1; size <= 32765; size += 819) {
            std::string payload(size, letter);
            EXPECT_TRUE(other.Send(&payload[0]));
            EXPECT_EQ(link.socket->Receive(text), static_cast<int>(size));
            EXPECT_TRUE(text == payload);
        }
        SysFreeString(text);
    };
    Background first([&] { exchange('a'); });
    Background second([&] { exchange('b'); });
    EXPECT_TRUE(first.Join());
    EXPECT_TRUE(second.Join());
}
