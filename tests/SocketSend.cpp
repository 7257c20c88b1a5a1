// The sending half of CSocket: Send, SendBlock and SendMemFileWithLengthPrefix.
#include <Windows/Socket.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/MemFile.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

typedef std::vector<std::string> Strings;

// The longest payload that is sent from the object's own buffer.
const size_t INLINE_LIMIT = 32764;

// What was called. A sanitizer may add pipe(), by which it finds out whether an address can be read.
Strings Texts(const CallLog& calls) {
    Strings texts = calls.Texts();
    texts.erase(std::remove(texts.begin(), texts.end(), "pipe()"), texts.end());
    return texts;
}

bool IsBlocking(int fd) {
    Bypass bypass;
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

bool SendText(CSocket& socket, const std::string& text) {
    return socket.Send(const_cast<char*>(text.c_str()));
}

bool SendBlock(CSocket& socket, const std::string& bytes) {
    return socket.SendBlock(reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data())), bytes.size());
}

// A file with one frame.
struct FrameFile : CMemFile {
    explicit FrameFile(const std::string& payload) {
        unsigned char prefix[4];
        CSocket::EncodeLength(payload.size(), prefix);
        Write(prefix, sizeof prefix);
        Write(payload.data(), static_cast<unsigned int>(payload.size()));
    }
};

bool SendFile(CSocket& socket, const std::string& payload) {
    FrameFile file(payload);
    return socket.SendMemFileWithLengthPrefix(file);
}

// The three functions that send a frame, and the events of each: with the descriptor, and with the payload
// behind the text when that is logged.
struct Sender {
    const char* name;
    bool (*send)(CSocket& socket, const std::string& payload);
    int successSeverity;
    const char* success;
    const char* failure;
    bool logsPayload;

    ExpectedEvent Success(int fd, const std::string& payload) const {
        return {12, successSeverity, Filled(success, fd, payload)};
    }
    ExpectedEvent Failure(int fd, const std::string& payload) const {
        return {12, 1, Filled(failure, fd, payload)};
    }

private:
    std::string Filled(std::string text, int fd, const std::string& payload) const {
        text.replace(text.find("%d"), 2, std::to_string(fd));
        return logsPayload ? text + payload : text;
    }
};

std::ostream& operator<<(std::ostream& stream, const Sender& sender) { return stream << sender.name; }

const Sender SENDERS[] = {
    {"Send", SendText, 7, "CSocket::Send() on %d: ", "CSocket::Send() on %d FAILED to send message", true},
    {"SendBlock", SendBlock, 7,
     "CSocket::SendBlock() on %d: ", "CSocket::Send() on %d FAILED to send binary message", false},
    {"SendMemFile", SendFile, 9, "CSocket::SendMemFileWithLengthPrefix() on %d: ",
     "CSocket::Send() on %d FAILED to send binary message", false},
};

// A blocking socket, connected to pair.peer.
struct Link {
    Link() : fd(pair.Release()), socket(new CSocket) { socket->m_fd = fd; }
    ~Link() { delete socket; }

    ConnectedPair pair;
    const int fd;
    CSocket* const socket;
};

class SocketSend : public testing::Test, protected Link {};

class SocketSendEach : public testing::TestWithParam<Sender>, protected Link {};

std::string SenderName(const testing::TestParamInfo<Sender>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(, SocketSendEach, testing::ValuesIn(SENDERS), SenderName);

} // namespace

// ---------------------------------------------------------------------------------------------------------
// What all three do

TEST_P(SocketSendEach, Puts_a_frame_on_the_wire_with_one_send_and_nothing_else) {
    CallLog calls;
    EXPECT_TRUE(GetParam().send(*socket, "hello"));
    EXPECT_EQ(Texts(calls), Strings{"send(9, MSG_NOSIGNAL)"});
    EXPECT_EQ(pair.peer.Read(9), std::string("\0\0\0\5hello", 9));
    socket->Close();
    EXPECT_TRUE(pair.peer.AtEnd());
}

TEST_P(SocketSendEach, Logs_success_once) {
    Recorder::Clear();
    GetParam().send(*socket, "100%s %d%%");
    const std::vector<Event> events = Recorder::AllEvents();
    ASSERT_TRUE(SameEvents(events, {GetParam().Success(fd, "100%s %d%%")}));
    EXPECT_EQ(events[0].format, GetParam().success);
    EXPECT_EQ(events[0].entry, GetParam().logsPayload ? Event::FormatBuffer : Event::Format);
}

TEST_P(SocketSendEach, Logs_on_the_thread_that_calls) {
    Recorder::Clear();
    Background sender([&] { GetParam().send(*socket, "hello"); });
    ASSERT_TRUE(sender.Join());
    EXPECT_TRUE(SameEvents(Recorder::EventsOfThread(sender.Thread()), {GetParam().Success(fd, "hello")}));
}

TEST_P(SocketSendEach, Sends_each_size_as_one_frame) {
    for (const size_t size : {size_t(1), size_t(255), size_t(256), INLINE_LIMIT - 1, INLINE_LIMIT,
                              INLINE_LIMIT + 1, size_t(1) << 20}) {
        SCOPED_TRACE(size);
        std::string payload(size, 'a');
        payload[0] = '<';
        payload[size - 1] = '>';
        std::string received;
        Background reader([&] { received = pair.peer.Read(4 + size); });
        CallLog calls;
        EXPECT_TRUE(GetParam().send(*socket, payload));
        EXPECT_EQ(calls.Texts(fd), Strings{Text("send(%zu, MSG_NOSIGNAL)", size + 4)});
        ASSERT_TRUE(reader.Join());
        EXPECT_TRUE(received == Frame(payload));
    }
}

TEST_P(SocketSendEach, On_a_non_blocking_socket_switches_the_mode_for_the_send) {
    socket->SetBlockingMode(false);
    CallLog calls;
    EXPECT_TRUE(GetParam().send(*socket, "hello"));
    EXPECT_EQ(Texts(calls), (Strings{"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR)", "send(9, MSG_NOSIGNAL)",
                                     "fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR|O_NONBLOCK)"}));
    EXPECT_FALSE(IsBlocking(fd));
}

TEST_P(SocketSendEach, A_failed_send_is_logged_and_gives_false) {
    const struct {
        long result;
        int error;
    } cases[] = {{-1, EPIPE}, {-1, EINTR}, {-1, EAGAIN}, {0, 0}};
    for (const auto& row : cases)
        for (const size_t size : {size_t(5), INLINE_LIMIT + 1}) {
            SCOPED_TRACE(Text("%ld errno %d size %zu", row.result, row.error, size));
            const std::string payload(size, 'x');
            Interpose fail(Call::Send);
            fail.OnDescriptor(fd).Always();
            row.result < 0 ? fail.Fail(row.error) : fail.Return(0);
            Recorder::Clear();
            EXPECT_FALSE(GetParam().send(*socket, payload));
            EXPECT_EQ(fail.Seen(), 1);
            EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {GetParam().Failure(fd, payload)}));
            EXPECT_EQ(Recorder::AllEvents().at(0).format, GetParam().failure);
            EXPECT_EQ(Recorder::AllEvents().at(0).entry,
                      GetParam().logsPayload ? Event::FormatBuffer : Event::Format);
            EXPECT_EQ(socket->m_fd, fd);
        }
}

TEST_P(SocketSendEach, A_failed_send_restores_the_mode) {
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        socket->SetBlockingMode(blocking);
        Interpose fail(Call::Send);
        fail.OnDescriptor(fd).Fail(EPIPE);
        EXPECT_FALSE(GetParam().send(*socket, "hello"));
        EXPECT_EQ(IsBlocking(fd), blocking);
        CallLog calls;
        socket->SetBlockingMode(blocking);
        EXPECT_EQ(Texts(calls), Strings());
    }
}

// Success is logged behind the restored mode, failure in front of it.
TEST_P(SocketSendEach, Restores_the_mode_before_it_logs_success_and_after_it_logs_failure) {
    socket->SetBlockingMode(false);
    std::vector<bool> blocking;
    Recorder::Hook hook([&](const Event&) { blocking.push_back(IsBlocking(fd)); });
    GetParam().send(*socket, "hello");
    Interpose fail(Call::Send);
    fail.OnDescriptor(fd).Fail(EPIPE);
    GetParam().send(*socket, "hello");
    EXPECT_EQ(blocking, (std::vector<bool>{false, true}));
}

TEST_P(SocketSendEach, A_short_count_is_success_and_the_rest_is_lost) {
    for (const size_t size : {size_t(5), INLINE_LIMIT + 1}) {
        SCOPED_TRACE(size);
        const std::string payload(size, 'x');
        Interpose part(Call::Send);
        part.OnDescriptor(fd).Always().Short(1);
        Recorder::Clear();
        EXPECT_TRUE(GetParam().send(*socket, payload));
        EXPECT_EQ(part.Seen(), 1);
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {GetParam().Success(fd, payload)}));
    }
    socket->Close();
    EXPECT_EQ(pair.peer.ReadAll(), std::string(2, '\0'));
}

TEST_P(SocketSendEach, To_a_closed_peer_returns_false_without_SIGPIPE) {
    struct DefaultAction {
        void (*const before)(int) = signal(SIGPIPE, SIG_DFL);
        ~DefaultAction() { signal(SIGPIPE, before); }
    } action;
    pair.peer.Reset();
    ASSERT_TRUE(WaitForClosure(fd));
    EXPECT_FALSE(GetParam().send(*socket, "hello")); // finds the reset
    EXPECT_FALSE(GetParam().send(*socket, "hello")); // finds the connection gone: EPIPE
    EXPECT_FALSE(GetParam().send(*socket, std::string(INLINE_LIMIT + 1, 'x')));
}

TEST_P(SocketSendEach, To_a_peer_that_reads_again_goes_on_sending) {
    for (int i = 0; i < 3; i++)
        EXPECT_TRUE(GetParam().send(*socket, std::to_string(i)));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(pair.peer.ReadFrame(), std::to_string(i));
}

TEST_P(SocketSendEach, On_a_socket_whose_mode_cannot_be_switched_sends_all_the_same) {
    socket->SetBlockingMode(false);
    Interpose fail(Call::Fcntl);
    fail.OnDescriptor(fd).Always().Fail(EINVAL);
    Recorder::Clear();
    EXPECT_TRUE(GetParam().send(*socket, "hello"));
    EXPECT_TRUE(Recorder::Has(11, 1, "Failed to set blocking mode on socket (on option set)!!"));
    EXPECT_EQ(pair.peer.ReadFrame(), "hello");
}

// ---------------------------------------------------------------------------------------------------------
// Memory

class SocketSendMemory : public testing::TestWithParam<Sender>, protected Link {};

INSTANTIATE_TEST_SUITE_P(, SocketSendMemory, testing::Values(SENDERS[0], SENDERS[1]), SenderName);

TEST_P(SocketSendMemory, A_frame_of_32764_bytes_needs_no_allocation) {
    const std::string payload(INLINE_LIMIT, 'x');
    AllocationCounter count;
    const bool sent = GetParam().send(*socket, payload);
    EXPECT_EQ(count.Allocations(), 0);
    EXPECT_TRUE(sent);
    EXPECT_EQ(pair.peer.Read(4), std::string("\x00\x00\x7F\xFC", 4));
    EXPECT_TRUE(pair.peer.Read(INLINE_LIMIT) == payload);
}

TEST_P(SocketSendMemory, A_frame_of_32765_bytes_costs_one_malloc_and_one_free) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    const std::string payload(INLINE_LIMIT + 1, 'x');
    CallLog calls({Call::Malloc, Call::Calloc, Call::Realloc, Call::New, Call::ArrayNew, Call::Free});
    const bool sent = GetParam().send(*socket, payload);
    const Strings seen = calls.Texts();
    EXPECT_EQ(seen, (Strings{"malloc(32769)", "free()"}));
    EXPECT_TRUE(sent);
    EXPECT_EQ(pair.peer.Read(4), std::string("\x00\x00\x7F\xFD", 4));
    EXPECT_TRUE(pair.peer.Read(INLINE_LIMIT + 1) == payload);
}

TEST_P(SocketSendMemory, A_large_frame_is_freed_when_the_send_fails) {
    const std::string payload(INLINE_LIMIT + 1, 'x');
    Interpose fail(Call::Send);
    fail.OnDescriptor(fd).Fail(EPIPE);
    Recorder::Pause(); // its record of the payload is freed in the measured part
    AllocationCounter count;
    const bool sent = GetParam().send(*socket, payload);
    EXPECT_EQ(count.Balance(), 0);
    EXPECT_FALSE(sent);
}

TEST_P(SocketSendMemory, A_large_frame_without_memory_is_a_failed_send) {
    if (!Interpose::MallocAvailable())
        GTEST_SKIP() << Interpose::MallocReason();
    const std::string payload(INLINE_LIMIT + 1, 'x');
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        socket->SetBlockingMode(blocking);
        Recorder::Clear();
        CallLog calls({Call::Send});
        FailAllocation fail(1, FailAllocation::OnlyMalloc);
        const bool sent = GetParam().send(*socket, payload);
        fail.Stop();
        EXPECT_TRUE(fail.Happened());
        EXPECT_FALSE(sent);
        EXPECT_EQ(calls.Texts(), Strings());
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {GetParam().Failure(fd, payload)}));
        EXPECT_EQ(IsBlocking(fd), blocking);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Nothing to send, and nowhere to send it to

namespace {

struct Refusal {
    const char* name;
    std::function<bool(CSocket&)> send;
    const char* withoutDescriptor;
    const char* nothing; // what is logged for an empty payload
};

std::ostream& operator<<(std::ostream& stream, const Refusal& refusal) { return stream << refusal.name; }

CMemFile& EmptyFile() {
    static CMemFile file;
    return file;
}

const Refusal REFUSALS[] = {
    {"Send_NULL", [](CSocket& socket) { return socket.Send(nullptr); },
     "CSocket::Send() on -1 FAILED due to Invalid file descriptor",
     "CSocket::Send() on %d called with a NULL message (returning without sending anything)"},
    {"Send_empty", [](CSocket& socket) { return SendText(socket, ""); },
     "CSocket::Send() on -1 FAILED due to Invalid file descriptor",
     "CSocket::Send() on %d called with a zero length message (returning without sending anything)"},
    {"SendBlock_nothing", [](CSocket& socket) { return SendBlock(socket, ""); },
     "CSocket::SendBlock() on -1 FAILED due to Invalid file descriptor",
     "CSocket::SendBlock on %d called with 0 byte count (returning without sending anything)"},
    {"SendBlock_nothing_at_NULL", [](CSocket& socket) { return socket.SendBlock(nullptr, 0); },
     "CSocket::SendBlock() on -1 FAILED due to Invalid file descriptor",
     "CSocket::SendBlock on %d called with 0 byte count (returning without sending anything)"},
    {"SendMemFile_empty", [](CSocket& socket) { return socket.SendMemFileWithLengthPrefix(EmptyFile()); },
     "CSocket::SendMemFileWithLengthPrefix on -1 FAILED due to Invalid file descriptor",
     "CSocket::SendMemFileWithLengthPrefix on %d called with 0 byte count (returning without sending "
     "anything)"},
};

class SocketSendNothing : public testing::TestWithParam<Refusal>, protected Link {};

INSTANTIATE_TEST_SUITE_P(, SocketSendNothing, testing::ValuesIn(REFUSALS),
                         [](const testing::TestParamInfo<Refusal>& info) { return info.param.name; });

} // namespace

TEST_P(SocketSendNothing, Sends_nothing_logs_it_and_returns_true) {
    std::string text = GetParam().nothing;
    text.replace(text.find("%d"), 2, std::to_string(fd));
    for (const bool blocking : {true, false}) {
        SCOPED_TRACE(blocking);
        socket->SetBlockingMode(blocking);
        Recorder::Clear();
        CallLog calls;
        EXPECT_TRUE(GetParam().send(*socket));
        EXPECT_EQ(Texts(calls), Strings());
        EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{12, 6, text}}));
    }
    socket->Close();
    EXPECT_TRUE(pair.peer.AtEnd());
}

TEST_P(SocketSendNothing, Without_a_descriptor_is_refused_before_the_payload_is_looked_at) {
    socket->Close();
    Recorder::Clear();
    CallLog calls;
    EXPECT_FALSE(GetParam().send(*socket));
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{12, 1, GetParam().withoutDescriptor}}));
}

TEST_F(SocketSend, After_Close_everything_is_refused_at_once) {
    socket->Close();
    Recorder::Clear();
    CallLog calls;
    for (const Sender& sender : SENDERS)
        EXPECT_FALSE(sender.send(*socket, "hello")) << sender.name;
    EXPECT_EQ(Texts(calls), Strings());
    EXPECT_TRUE(SameEvents(
        Recorder::AllEvents(),
        {{12, 1, "CSocket::Send() on -1 FAILED due to Invalid file descriptor"},
         {12, 1, "CSocket::SendBlock() on -1 FAILED due to Invalid file descriptor"},
         {12, 1, "CSocket::SendMemFileWithLengthPrefix on -1 FAILED due to Invalid file descriptor"}}));
}

// ---------------------------------------------------------------------------------------------------------
// What is sent

TEST_F(SocketSend, Send_takes_the_text_up_to_its_NUL) {
    char text[] = "abc\0def";
    EXPECT_TRUE(socket->Send(text));
    socket->Close();
    EXPECT_EQ(pair.peer.ReadAll(), Frame("abc"));
}

TEST_F(SocketSend, SendBlock_takes_NULs_and_high_bytes) {
    std::string bytes;
    for (int i = 0; i < 256; i++)
        bytes += static_cast<char>(i);
    EXPECT_TRUE(SendBlock(*socket, bytes));
    EXPECT_EQ(pair.peer.ReadFrame(), bytes);
}

TEST_F(SocketSend, SendBlock_does_not_test_the_data_for_NULL) {
    EXPECT_DEATH(socket->SendBlock(nullptr, 1), "");
}

TEST_F(SocketSend, SendMemFile_sends_the_whole_contents_wherever_the_position_is) {
    FrameFile file("hello");
    for (const long position : {0L, 3L, 9L}) {
        SCOPED_TRACE(position);
        file.Seek(position, CMemFile::begin);
        EXPECT_TRUE(socket->SendMemFileWithLengthPrefix(file));
        EXPECT_EQ(pair.peer.Read(9), Frame("hello"));
        EXPECT_EQ(file.m_uiPosition, static_cast<unsigned int>(position));
        EXPECT_EQ(file.m_uiFileLength, 9u);
    }
}

TEST_F(SocketSend, SendMemFile_adds_no_prefix) {
    CMemFile file;
    file.Write("raw", 3);
    EXPECT_TRUE(socket->SendMemFileWithLengthPrefix(file));
    socket->Close();
    EXPECT_EQ(pair.peer.ReadAll(), "raw");
}

TEST_F(SocketSend, SendMemFile_allocates_nothing) {
    FrameFile file(std::string(INLINE_LIMIT + 1, 'x'));
    AllocationCounter count;
    const bool sent = socket->SendMemFileWithLengthPrefix(file);
    EXPECT_EQ(count.Allocations(), 0);
    EXPECT_TRUE(sent);
}

TEST_F(SocketSend, A_long_frame_to_a_slow_reader_waits_also_on_a_non_blocking_socket) {
    socket->SetBlockingMode(false);
    const std::string payload(8 << 20, 'x'); // more than the buffers of a connection hold
    CallLog calls({Call::Send}, CallLog::AllThreads);
    std::string received;
    Background reader([&] {
        EXPECT_TRUE(calls.WaitFor(Call::Send));
        received = pair.peer.ReadFrame();
    });
    EXPECT_TRUE(SendText(*socket, payload));
    ASSERT_TRUE(reader.Join());
    EXPECT_TRUE(received == payload);
}
