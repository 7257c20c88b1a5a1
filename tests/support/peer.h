// The other end of a connection, and threads and gates for tests. Nothing here is seen by scripts and call
// logs. Every wait has a deadline.
//
//   ListenSocket listener;
//   Background server([&] { Connection c = listener.Accept(); c.Send(Frame("hello")); });
//   ...
//   EXPECT_TRUE(server.Join());
//
//   ConnectedPair pair;             // TCP over 127.0.0.1
//   CSocket socket;
//   socket.m_fd = pair.Release();   // the socket closes it
//   socket.Send(text);
//   EXPECT_EQ(pair.peer.Read(9), Frame("hello"));
#ifndef SUPPORT_PEER_H
#define SUPPORT_PEER_H

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/deadline.h"
#include "support/monitor.h"

// The 4 bytes that stand for a length in front of a frame, and a whole frame.
std::string Prefix(unsigned long length);
std::string Frame(const std::string& payload);

// One end of a TCP connection, or nothing. Failures of system calls that cannot fail are test failures.
class Connection {
public:
    explicit Connection(int fd = -1) : m_fd(fd) {}
    Connection(Connection&& other) noexcept : m_fd(other.Release()) {}
    Connection& operator=(Connection&& other) noexcept;
    ~Connection();

    int Descriptor() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }

    // Gives the descriptor away.
    int Release();

    // Sends all bytes; false when the connection failed or the deadline came first. No SIGPIPE.
    bool Send(const std::string& bytes, const Deadline& deadline = Deadline::Long());

    // Exactly count bytes; fewer when the peer closes, resets, or the deadline comes first.
    std::string Read(size_t count, const Deadline& deadline = Deadline::Long());

    // The payload of the next frame; "" on failure too.
    std::string ReadFrame(const Deadline& deadline = Deadline::Long());

    // Everything until the peer closes.
    std::string ReadAll(const Deadline& deadline = Deadline::Long());

    // Whether the peer closes (FIN or reset) before the deadline with nothing more sent.
    bool AtEnd(const Deadline& deadline = Deadline::Long());

    // Sends FIN and reads on; closes, with FIN if all that arrived was read; closes with a reset.
    void Shutdown();
    void Close();
    void Reset();

private:
    int m_fd;
};

// Wait until at least count unread bytes have arrived at a descriptor, or the peer's FIN or reset has. They
// read nothing.
bool WaitForBytes(int fd, size_t count, const Deadline& deadline = Deadline::Long());
bool WaitForClosure(int fd, const Deadline& deadline = Deadline::Long());

// Connects to a port of 127.0.0.1; closed on failure.
Connection ConnectTo(int port);

// A listening socket on an ephemeral port of 127.0.0.1.
class ListenSocket {
public:
    ListenSocket();
    ~ListenSocket();
    ListenSocket(const ListenSocket&) = delete;
    ListenSocket& operator=(const ListenSocket&) = delete;

    int Port() const { return m_port; }

    // The next connection; closed when the deadline came first.
    Connection Accept(const Deadline& deadline = Deadline::Long());

    // Stops listening.
    void Close();

private:
    int m_fd;
    int m_port;
};

// A port of 127.0.0.1 that nobody listens on, for a moment at least.
int UnusedPort();

// Two connected TCP sockets, both blocking.
class ConnectedPair {
public:
    ConnectedPair();

    // The library's end, given away.
    int Release() { return own.Release(); }

    Connection own;
    Connection peer;
};

// A thread that runs a function.
class Background {
public:
    explicit Background(std::function<void()> function);

    // Joins. A thread that does not end before Deadline::Long() ends the process, as it may use what is about
    // to be destroyed.
    ~Background();

    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    // Waits for the end of the function: false, with the reason, if the deadline came first or it threw.
    testing::AssertionResult Join(const Deadline& deadline = Deadline::Long());

    // Whether the function has returned or thrown.
    bool Ended() const;

    pthread_t Thread() const { return m_id; }

private:
    struct State;

    std::shared_ptr<State> m_state;
    std::thread m_thread;
    pthread_t m_id;
};

// A flag that threads wait for. A thread may be cancelled in Wait().
class Gate {
public:
    constexpr Gate() = default;

    void Open();
    void Close();
    bool IsOpen();

    // Whether it is open before the deadline. Without one the test fails if it is not.
    bool Wait(const Deadline& deadline);
    bool Wait();

private:
    Monitor m_monitor;
    bool m_open = false;
};

#endif
