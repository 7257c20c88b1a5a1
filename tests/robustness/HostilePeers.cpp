// Peers that do not keep to the protocol, against a server and against a socket: what they get, what is
// logged, and that the others are served all the same.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "robustness/Echo.h"
#include "robustness/Form.h"

namespace {

typedef std::vector<std::string> Strings;
typedef std::vector<ExpectedEvent> Lines;

// ---------------------------------------------------------------------------------------------------------
// What is logged

const ExpectedEvent PEEK_CLOSURE = {
    12, 9, "CSocket::IsDataAvailable Detected socket closure (non-blocking call to recv returned 0)"};
const ExpectedEvent PEEK_RESET = {
    11, 4,
    Text("CSocket::IsDataAvailable Detected socket error (errno = %d) assuming socket closure", ECONNRESET)};
const ExpectedEvent WAS_CLOSED = {12, 9, "CSocket::ReceiveLength -- Socket Was Closed, returning 0"};
const ExpectedEvent NOT_RESTORED = {11, 1, "Failed to set blocking mode on socket (on option set)!!"};
const ExpectedEvent PAYLOAD_RESET = {
    11, 1, Text("CSocket::Receive() : Error reading from socket errno = %d", ECONNRESET)};

ExpectedEvent Got(int count) {
    return {12, 9, Like(Text("CSocket::ReceiveLength recv call returned %d (errno = *)", count))};
}
ExpectedEvent PrefixEnded(const std::string& error) {
    return {11, 4,
            Like("CSocket::ReceiveLength Detected socket error or socket closed by other end (errno = " +
                 error + ")")};
}
ExpectedEvent Exit(int result) {
    return {12, 9, Text("Exiting CSocket::ReceiveLength returning: %d", result)};
}
ExpectedEvent PayloadClosure(int severity) {
    return {11, severity, "CSocket::Receive() : Data length is 0.  The sender has closed its endpoint."};
}
ExpectedEvent Received(int fd, const std::string& text) {
    return {12, 7, Text("CSocket::Receive() on %d: ", fd) + text};
}
ExpectedEvent Sent(int fd, const std::string& text) {
    return {12, 7, Text("CSocket::Send() on %d: ", fd) + text};
}

// What a thread has posted about sockets.
std::vector<Event> SocketEvents(pthread_t thread) {
    return Recorder::Events([thread](const Event& event) {
        return pthread_equal(event.thread, thread) &&
               (event.text.find("CSocket::") != std::string::npos || event.text == NOT_RESTORED.text.Shown());
    });
}

// ---------------------------------------------------------------------------------------------------------
// Prefixes

// Refuses memory beyond what any of these tests sends, so that what a peer announces is never really taken.
class NoHugeBlocks {
public:
    NoHugeBlocks() : m_script(Call::ArrayNew) {
        m_script.Always()
            .When([](const CallRecord& record) {
                return static_cast<unsigned long>(record.number) > 0x1000000;
            })
            .Fail(ENOMEM);
    }

    int Refused() const { return m_script.Acted(); }

private:
    Interpose m_script;
};

// The arrays that a thread has asked for while a log was kept.
std::vector<unsigned long> Arrays(const CallLog& log, pthread_t thread) {
    std::vector<unsigned long> sizes;
    for (const CallRecord& record : log.Records())
        if (record.call == Call::ArrayNew && pthread_equal(record.thread, thread))
            sizes.push_back(static_cast<unsigned long>(record.number));
    return sizes;
}

struct HostilePrefix {
    unsigned long prefix;
    int result;
    std::string payload;               // which is sent behind it
    std::vector<unsigned long> arrays; // what Receive asks for
};

const HostilePrefix PREFIXES[] = {
    {0, 0, "", {}},
    {1, 1, "x", {2}},
    {0x7FFFFFFF, -1, "", {0x80000000UL}},
    {0x80000000UL, INT_MIN, "", {}},
    {0xFFFFFFFFUL, -1, "", {}},
};

// What ReceiveLength makes of a prefix.
int LengthOf(unsigned long prefix) { return static_cast<int>(static_cast<unsigned int>(prefix)); }

// One client sends a prefix, another one is served before it and behind it. Leaves the bad client.
struct PrefixTrial {
    explicit PrefixTrial(const HostilePrefix& row) : good(echo.Connect()), bad(echo.Connect()) {
        fd = echo.target.Newest();
        EXPECT_TRUE(Answers(good, "before"));
        AwaitServer(); // which logs what it has sent behind it
        NoHugeBlocks noHugeBlocks;
        Recorder::Clear();
        {
            CallLog calls({Call::ArrayNew}, CallLog::AllThreads);
            EXPECT_TRUE(bad.Send(Prefix(row.prefix) + row.payload));
            EXPECT_TRUE(Recorder::WaitFor(Exit(LengthOf(row.prefix))));
            if (row.result > 0) {
                EXPECT_EQ(bad.ReadFrame(), row.payload);
            }
            EXPECT_TRUE(echo.target.WaitForClients(row.result < 0 ? 1 : 2));
            AwaitServer();
            EXPECT_EQ(Arrays(calls, echo.Thread()), row.arrays);
        }
        Lines lines = {Got(4), Exit(LengthOf(row.prefix))};
        if (row.result > 0)
            lines.insert(lines.end(), {Received(fd, row.payload), Sent(fd, row.payload)});
        EXPECT_TRUE(SameEvents(SocketEvents(echo.Thread()), lines));
        EXPECT_EQ(noHugeBlocks.Refused(), row.prefix == 0x7FFFFFFF ? 1 : 0);
        EXPECT_TRUE(Answers(good, "behind"));
    }

    // Until the server has done with what has arrived.
    void AwaitServer() { Hold(*echo.server, echo.target).Release(); }

    EchoServer echo;
    Connection good, bad;
    int fd;
};

TEST(HostilePeers, A_prefix_of_0_is_no_data_and_the_client_goes_on) {
    PrefixTrial trial(PREFIXES[0]);
    EXPECT_TRUE(Answers(trial.bad, "still there"));
}

TEST(HostilePeers, A_prefix_of_1_is_a_frame_of_one_byte) {
    PrefixTrial trial(PREFIXES[1]);
    EXPECT_TRUE(Answers(trial.bad, "still there"));
}

TEST(HostilePeers, A_prefix_of_0x7FFFFFFF_that_no_memory_holds_closes_that_client_alone) {
    PrefixTrial trial(PREFIXES[2]);
    EXPECT_TRUE(trial.bad.AtEnd());
}

TEST(HostilePeers, A_prefix_of_0x80000000_closes_that_client_alone) {
    PrefixTrial trial(PREFIXES[3]);
    EXPECT_TRUE(trial.bad.AtEnd());
}

TEST(HostilePeers, A_prefix_of_0xFFFFFFFF_closes_that_client_alone) {
    PrefixTrial trial(PREFIXES[4]);
    EXPECT_TRUE(trial.bad.AtEnd());
}

// A blocking socket, and the peer of it.
struct Link {
    Link() : fd(pair.Release()) { socket->m_fd = fd; }

    void Arrive(const std::string& bytes) {
        EXPECT_TRUE(pair.peer.Send(bytes));
        EXPECT_TRUE(WaitForBytes(fd, bytes.size()));
    }

    ConnectedPair pair;
    const int fd;
    const std::unique_ptr<CSocket> socket{new CSocket}; // large
};

TEST(HostilePeers, A_socket_asks_for_no_more_memory_than_a_prefix_announces) {
    for (const HostilePrefix& row : PREFIXES) {
        SCOPED_TRACE(Text("%#lx", row.prefix));
        Link link;
        link.Arrive(Prefix(row.prefix) + row.payload);
        NoHugeBlocks noHugeBlocks;
        Recorder::Clear();
        CallLog calls({Call::ArrayNew});
        AllocationCounter counter;
        BSTR text = nullptr;
        const int result = link.socket->Receive(text, false);
        const int mallocs = counter.Mallocs(), news = counter.News();
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(Arrays(calls, pthread_self()), row.arrays);
        EXPECT_EQ(news, 0);
        if (Interpose::MallocAvailable() && noHugeBlocks.Refused() == 0) { // which makes an exception object
            EXPECT_EQ(mallocs, result > 0 ? 1 : 0);                        // the text
        }
        Lines lines = {Got(4), Exit(LengthOf(row.prefix))};
        if (result > 0)
            lines.push_back(Received(link.fd, row.payload));
        EXPECT_TRUE(SameEvents(SocketEvents(pthread_self()), lines));
        EXPECT_STREQ(text, result > 0 ? row.payload.c_str() : nullptr);
        SysFreeString(text);
        text = nullptr;

        link.Arrive(Frame("goes on"));
        EXPECT_EQ(link.socket->Receive(text, false), 7);
        EXPECT_STREQ(text, "goes on");
        SysFreeString(text);
    }
}

TEST(HostilePeers, A_block_asks_for_no_more_memory_than_a_prefix_announces) {
    for (const HostilePrefix& row : PREFIXES) {
        SCOPED_TRACE(Text("%#lx", row.prefix));
        std::vector<unsigned long> arrays = row.arrays;
        for (unsigned long& size : arrays)
            size--; // no NUL behind it
        Link link;
        link.Arrive(Prefix(row.prefix) + row.payload);
        NoHugeBlocks noHugeBlocks;
        Recorder::Clear();
        CallLog calls({Call::ArrayNew});
        ReceivedDataBlock block;
        EXPECT_EQ(link.socket->ReceiveBlock(block, false), row.result);
        EXPECT_EQ(Arrays(calls, pthread_self()), arrays);
        Lines lines = {Got(4), Exit(LengthOf(row.prefix))};
        if (row.result > 0)
            lines.push_back({12, 7, Text("CSocket::Receive() binary data on %d: ", link.fd)});
        EXPECT_TRUE(SameEvents(SocketEvents(pthread_self()), lines));
        EXPECT_EQ(block.m_nLength, std::max(row.result, 0));
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block.m_pData), static_cast<size_t>(block.m_nLength)),
                  row.payload);
        delete[] block.m_pData;
    }
}

// ---------------------------------------------------------------------------------------------------------
// Slow peers

// Once a part of a frame is read the server waits for the rest of it, and for nothing else.
TEST(HostilePeers, A_frame_that_comes_byte_by_byte_arrives_whole_and_the_others_wait_for_it) {
    const std::string bytes = Frame("slowly");
    RecordingTarget target;
    target.onActivity = [&target](int fd) {
        const int result = Echo(*target.Socket(fd));
        target.Note(Text("reply on %d", fd));
        return result >= 0;
    };
    ServerPtr server(new CServer(0, target));
    Connection slow = ConnectTo(PortOf(*server)), other = ConnectTo(PortOf(*server));
    const int slowFd = target.WaitForConnection(0), otherFd = target.WaitForConnection(1);
    target.Forget();
    Recorder::Clear();
    CallLog calls({Call::Recv}, CallLog::AllThreads);

    // After the first byte: a look, the prefix, the rest of the prefix. Each further byte but the last has it
    // wait for more.
    for (size_t i = 0; i < bytes.size(); i++) {
        EXPECT_TRUE(slow.Send(bytes.substr(i, 1)));
        if (i + 1 < bytes.size()) {
            EXPECT_TRUE(calls.WaitFor(Call::Recv, 3 + static_cast<int>(i)));
        }
        if (i == 0) {
            EXPECT_TRUE(other.Send(Frame("hurry")));
            EXPECT_TRUE(WaitForBytes(otherFd, 9));
        }
    }
    EXPECT_EQ(slow.ReadFrame(), "slowly");
    EXPECT_EQ(other.ReadFrame(), "hurry");
    EXPECT_EQ(target.WaitForCalls(4), (Calls{Text("activity %d", slowFd), Text("reply on %d", slowFd),
                                             Text("activity %d", otherFd), Text("reply on %d", otherFd)}));
    Strings expected = {"recv(1, MSG_PEEK|MSG_DONTWAIT)", "recv(4)", "recv(3)", "recv(2)", "recv(1)"};
    for (int missing = 6; missing >= 1; missing--)
        expected.push_back(Text("recv(%d)", missing));
    EXPECT_EQ(calls.Texts(slowFd), expected);
    EXPECT_TRUE(SameEvents(SocketEvents(server->m_nThreadID),
                           {Got(1), Exit(6), Received(slowFd, "slowly"), Sent(slowFd, "slowly"), Got(4),
                            Exit(5), Received(otherFd, "hurry"), Sent(otherFd, "hurry")}));
}

// The one send of a reply waits for the peer, and with it the thread that serves all.
TEST(HostilePeers, A_peer_that_does_not_read_holds_the_server_until_it_reads_and_loses_nothing) {
    RecordingTarget target;
    target.onConnection = [](CSocket* socket) {
        const int size = 16384; // so that the reply does not fit
        EXPECT_EQ(setsockopt(socket->m_fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    };
    target.onActivity = [&target](int fd) {
        const int result = Echo(*target.Socket(fd));
        target.Note(Text("reply on %d", fd));
        return result >= 0;
    };
    ServerPtr server(new CServer(0, target));
    Connection lazy = ConnectTo(PortOf(*server)), other = ConnectTo(PortOf(*server));
    const int lazyFd = target.WaitForConnection(0), otherFd = target.WaitForConnection(1);
    const int size = 16384;
    EXPECT_EQ(setsockopt(lazy.Descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
    target.Forget();
    Recorder::Pause(); // of the whole text
    std::string text;
    for (int line = 0; text.size() < 8000000; line++)
        text += Text("line %d\n", line);

    CallLog calls({Call::Send}, CallLog::AllThreads);
    EXPECT_TRUE(lazy.Send(Frame(text)));
    EXPECT_TRUE(calls.WaitFor(Call::Send));
    EXPECT_TRUE(other.Send(Frame("hurry")));
    EXPECT_TRUE(WaitForBytes(otherFd, 9));
    EXPECT_TRUE(WaitReadable(lazy.Descriptor())); // the reply has begun
    EXPECT_EQ(target.Seen(), (Calls{Text("activity %d", lazyFd)}));
    EXPECT_FALSE(calls.Records()[0].finished);

    EXPECT_TRUE(lazy.ReadFrame() == text); // which would be a long message
    EXPECT_EQ(other.ReadFrame(), "hurry");
    EXPECT_EQ(target.WaitForCalls(4), (Calls{Text("activity %d", lazyFd), Text("reply on %d", lazyFd),
                                             Text("activity %d", otherFd), Text("reply on %d", otherFd)}));
    EXPECT_EQ(calls.Texts(lazyFd).size(), 1U); // in one call
}

// ---------------------------------------------------------------------------------------------------------
// Peers that go away

enum Ending { Closes, ShutsDown, Resets };
const Ending ENDINGS[] = {Closes, ShutsDown, Resets};

void End(Connection& peer, Ending ending) {
    switch (ending) {
    case Closes:
        peer.Close();
        break;
    case ShutsDown:
        peer.Shutdown();
        break;
    case Resets:
        peer.Reset();
        break;
    }
}

// What comes of a frame of 5 bytes of which so many have arrived, the prefix included. A reset that is
// noticed before the frame has the socket close itself, so that its mode cannot be restored.
struct Outcome {
    Outcome(size_t sent, Ending ending, int closureSeverity) {
        const bool reset = ending == Resets;
        result = sent > 0 && reset ? -1 : -2;
        if (sent == 0)
            lines = reset ? Lines{PEEK_RESET, WAS_CLOSED, NOT_RESTORED, Exit(-2)}
                          : Lines{PEEK_CLOSURE, WAS_CLOSED, Exit(-2)};
        else if (sent < 4)
            lines = {Got(static_cast<int>(sent)), PrefixEnded(reset ? std::to_string(ECONNRESET) : "*"),
                     Exit(result)};
        else
            lines = {Got(4), Exit(5), reset ? PAYLOAD_RESET : PayloadClosure(closureSeverity)};
    }

    int result;
    Lines lines;
};

const char HELLO[] = "hello";

TEST(HostilePeers, A_peer_that_goes_away_anywhere_in_a_frame_is_given_up_with_its_lines) {
    EchoServer echo;
    Connection good = echo.Connect();
    for (size_t sent = 0; sent < Frame(HELLO).size(); sent++)
        for (const Ending ending : ENDINGS) {
            SCOPED_TRACE(Text("ending %d after %zu bytes", ending, sent));
            Connection bad = echo.Connect();
            Recorder::Clear();
            CallLog calls({Call::Recv}, CallLog::AllThreads);
            EXPECT_TRUE(bad.Send(Frame(HELLO).substr(0, sent)));
            if (sent > 0) { // a look, the prefix, what is missing; and what is then missing of the payload
                EXPECT_TRUE(calls.WaitFor(Call::Recv, sent > 4 ? 4 : 3));
            }
            End(bad, ending);
            EXPECT_TRUE(echo.target.WaitForClients(1));
            EXPECT_TRUE(SameEvents(SocketEvents(echo.Thread()), Outcome(sent, ending, 1).lines));
            EXPECT_TRUE(Answers(good, "all the same"));
        }
}

// A link whose peer has gone away after the first bytes of a frame; what was logged so far is forgotten.
struct AbandonedLink : Link {
    AbandonedLink(size_t sent, Ending ending) {
        Arrive(Frame(HELLO).substr(0, sent));
        End(pair.peer, ending);
        EXPECT_TRUE(WaitForClosure(fd));
        Recorder::Clear();
    }
};

TEST(HostilePeers, A_peer_that_has_gone_away_anywhere_in_a_frame_has_the_same_lines_for_a_text) {
    for (size_t sent = 0; sent < Frame(HELLO).size(); sent++)
        for (const Ending ending : ENDINGS) {
            SCOPED_TRACE(Text("ending %d after %zu bytes", ending, sent));
            const Outcome outcome(sent, ending, 1);
            const AbandonedLink link(sent, ending);
            BSTR text = SysAllocString("before");
            EXPECT_EQ(link.socket->Receive(text), outcome.result);
            EXPECT_TRUE(SameEvents(SocketEvents(pthread_self()), outcome.lines));
            EXPECT_STREQ(text, "before");
            EXPECT_EQ(link.socket->m_fd, sent == 0 && ending == Resets ? -1 : link.fd);
            SysFreeString(text);
        }
}

TEST(HostilePeers, A_peer_that_has_gone_away_anywhere_in_a_frame_has_the_same_lines_for_a_block) {
    for (size_t sent = 0; sent < Frame(HELLO).size(); sent++)
        for (const Ending ending : ENDINGS) {
            SCOPED_TRACE(Text("ending %d after %zu bytes", ending, sent));
            const Outcome outcome(sent, ending, 4);
            const AbandonedLink link(sent, ending);
            ReceivedDataBlock block;
            EXPECT_EQ(link.socket->ReceiveBlock(block), outcome.result);
            EXPECT_TRUE(SameEvents(SocketEvents(pthread_self()), outcome.lines));
            EXPECT_EQ(block.m_pData, nullptr);
            EXPECT_EQ(block.m_nLength, 0);
        }
}

TEST(HostilePeers, A_whole_frame_in_front_of_any_ending_is_received) {
    for (const Ending ending : ENDINGS) {
        SCOPED_TRACE(ending);
        Link link;
        link.Arrive(Frame(HELLO));
        End(link.pair.peer, ending);
        EXPECT_TRUE(WaitForClosure(link.fd));
        BSTR text = nullptr;
        EXPECT_EQ(link.socket->Receive(text), 5);
        EXPECT_STREQ(text, HELLO);
        Recorder::Clear();
        EXPECT_EQ(link.socket->Receive(text), -2);
        EXPECT_TRUE(SameEvents(SocketEvents(pthread_self()), Outcome(0, ending, 1).lines));
        SysFreeString(text);
    }
}

TEST(HostilePeers, A_peer_that_has_shut_its_end_gets_its_reply_and_is_given_up_then) {
    EchoServer echo;
    Connection peer = echo.Connect();
    EXPECT_TRUE(peer.Send(Frame(HELLO)));
    peer.Shutdown();
    EXPECT_EQ(peer.ReadAll(), Frame(HELLO));
    EXPECT_TRUE(echo.target.WaitForClients(0));
}

// A peer that announces a lot, sends a little, and goes: what was taken for it is given back.
TEST(HostilePeers, Memory_for_a_frame_that_never_comes_is_given_back) {
    EchoServer echo;
    for (const Ending ending : ENDINGS) {
        Connection bad = echo.Connect();
        CallLog calls({Call::Recv, Call::ArrayNew, Call::ArrayDelete}, CallLog::AllThreads);
        EXPECT_TRUE(bad.Send(Prefix(1 << 20) + "little"));
        EXPECT_TRUE(calls.WaitFor(Call::Recv, 4));
        End(bad, ending);
        EXPECT_TRUE(echo.target.WaitForClients(0));
        EXPECT_EQ(Arrays(calls, echo.Thread()), (std::vector<unsigned long>{(1 << 20) + 1}));
        EXPECT_EQ(calls.Count(Call::ArrayDelete), 1);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Many

TEST(HostilePeers, A_flood_of_connections_that_close_at_once_leaves_nothing_and_the_others_are_served) {
    const size_t count = static_cast<size_t>(HowMany(200, 5000)), burst = 100;
    Recorder::Pause();
    EchoServer echo;
    Connection good = echo.Connect();
    const std::map<int, std::string> before = Resources::Descriptors();
    for (size_t done = 0; done < count;) {
        const size_t end = std::min(count, done + burst);
        for (; done < end; done++) {
            Connection bad = ConnectTo(echo.Port());
            ASSERT_TRUE(bad.IsOpen()) << strerror(errno);
            End(bad, done % 2 ? Closes : Resets);
        }
        ASSERT_TRUE(Answers(good, Text("after %zu", done)));
        ASSERT_TRUE(echo.target.WaitForConnections(1 + done));
    }
    EXPECT_TRUE(echo.target.WaitForClients(1));
    EXPECT_EQ(echo.target.Connections(), 1 + count);
    EXPECT_EQ(Resources::Descriptors(), before);
    Connection late = echo.Connect();
    EXPECT_TRUE(Answers(late, "hello"));
}

// All of them while the server is busy: it finds them dead.
TEST(HostilePeers, Connections_that_are_dead_when_they_are_accepted_are_reported_and_given_up) {
    const size_t count = 100;
    EchoServer echo;
    {
        Hold hold(*echo.server, echo.target);
        for (size_t i = 0; i < count; i++) {
            Connection bad = ConnectTo(echo.Port());
            ASSERT_TRUE(bad.IsOpen());
            if (i % 3 == 0) {
                EXPECT_TRUE(bad.Send(Frame("and gone")));
            }
            End(bad, i % 2 ? Closes : Resets);
        }
    }
    EXPECT_TRUE(echo.target.WaitForConnections(count));
    EXPECT_TRUE(echo.target.WaitForClients(0));
    Connection late = echo.Connect();
    EXPECT_TRUE(Answers(late, "hello"));
}

typedef std::mt19937 Random;

unsigned int Below(Random& random, unsigned int limit) { return static_cast<unsigned int>(random() % limit); }

// A client that sends a request each round, and knows the only reply that is right.
class GoodPeer {
public:
    GoodPeer(int id, Connection connection) : m_id(id), m_connection(std::move(connection)) {}

    void Ask(int round, Random& random) {
        const unsigned int most = random() % 16 ? 200 : 40000;
        m_request = Text("peer %d round %d ", m_id, round);
        m_request.append(Below(random, most), static_cast<char>('a' + m_id % 26));
        EXPECT_TRUE(m_connection.Send(Frame(m_request)));
    }

    bool IsAnswered() { return m_connection.ReadFrame() == m_request; }

private:
    int m_id;
    Connection m_connection;
    std::string m_request;
};

// A client that does something bad each round, and begins anew where that ends its connection.
class BadPeer {
public:
    BadPeer(int port, Connection connection) : m_port(port), m_connection(std::move(connection)) {}

    void Misbehave(Random& random) {
        switch (Below(random, 8)) {
        case 0: // is silent
            return;
        case 1: // announces nothing
            m_connection.Send(Prefix(0));
            return;
        case 2: // announces what is no length
            m_connection.Send(Prefix(0x80000000UL | random()) + "and more");
            break;
        case 3: // announces what no memory holds
            m_connection.Send(Prefix(0x7FFFFFFF - Below(random, 1000)));
            break;
        case 4: // sends a part of a prefix
            m_connection.Send(Prefix(100).substr(0, 1 + Below(random, 3)));
            break;
        case 5: // announces a lot and sends a little
            m_connection.Send(Prefix(1000 + Below(random, 1 << 20)) + std::string(Below(random, 1000), 'x'));
            break;
        case 6: // asks, and does not wait for the reply
            m_connection.Send(Frame("nobody reads this"));
            break;
        default: // goes away
            break;
        }
        End(m_connection, ENDINGS[Below(random, 3)]);
        m_connection = ConnectTo(m_port); // closes what was only shut
        EXPECT_TRUE(m_connection.IsOpen());
    }

private:
    int m_port;
    Connection m_connection;
};

// Some peers of both kinds, which a thread plays.
struct Crowd {
    // How many requests got the right reply.
    int Run(int rounds, unsigned int seed) {
        Random random(seed);
        int answered = 0;
        for (int round = 0; round < rounds; round++) {
            for (GoodPeer& peer : good)
                peer.Ask(round, random);
            for (BadPeer& peer : bad)
                peer.Misbehave(random);
            for (GoodPeer& peer : good)
                answered += peer.IsAnswered();
        }
        return answered;
    }

    std::vector<GoodPeer> good;
    std::vector<BadPeer> bad;
};

unsigned int Seed() {
    const char* given = getenv("WINDOWS_RANDOM_SEED");
    const unsigned int seed =
        given ? static_cast<unsigned int>(strtoul(given, nullptr, 0)) : std::random_device()();
    printf("WINDOWS_RANDOM_SEED=%u\n", seed);
    return seed;
}

TEST(HostilePeers, Of_many_peers_one_in_five_misbehaves_and_the_others_lose_no_reply) {
    const int rounds = HowMany(10, 50), threads = 4;
    int peers = HowMany(60, 500);
    DescriptorLimit limit(1400);
    if (!limit.Raised() || !SelectTakesHighDescriptors())
        peers = std::min(peers, 300); // twice as many descriptors, below 1024
    const unsigned int seed = Seed();
    Recorder::Pause();
    NoHugeBlocks noHugeBlocks;
    EchoServer echo;
    int asked = 0;
    std::atomic<int> answered{0};
    {
        std::vector<Connection> connections;
        echo.Connect(connections, static_cast<size_t>(peers));
        ASSERT_EQ(connections.size(), static_cast<size_t>(peers));
        std::vector<Crowd> crowds(threads);
        for (int id = 0; id < peers; id++) {
            Crowd& crowd = crowds[static_cast<size_t>(id / 5 % threads)];
            Connection& connection = connections[static_cast<size_t>(id)];
            if (id % 5 == 0) {
                crowd.bad.emplace_back(echo.Port(), std::move(connection));
            } else {
                crowd.good.emplace_back(id, std::move(connection));
                asked += rounds;
            }
        }
        std::vector<std::unique_ptr<Background>> players;
        for (Crowd& crowd : crowds) {
            const unsigned int own = seed + static_cast<unsigned int>(players.size());
            players.push_back(std::make_unique<Background>([&, own] { answered += crowd.Run(rounds, own); }));
        }
        for (auto& player : players)
            EXPECT_TRUE(player->Join(Deadline::In(std::chrono::minutes(5))));
    }
    EXPECT_EQ(answered, asked);
    printf("%d peers: %d requests, %zu connections, %d blocks refused\n", peers, asked,
           echo.target.Connections(), noHugeBlocks.Refused());
    EXPECT_TRUE(echo.target.WaitForClients(0));
    Connection late = echo.Connect();
    EXPECT_TRUE(Answers(late, "hello"));
}

} // namespace
