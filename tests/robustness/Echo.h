// A server that sends every frame back, for tests with many or bad clients.
//
//   EchoServer echo;
//   Connection client = echo.Connect();
//   EXPECT_TRUE(Answers(client, "hello"));
#ifndef ROBUSTNESS_ECHO_H
#define ROBUSTNESS_ECHO_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "NetworkFixtures.h"

// Takes a frame that is there from a socket and sends it back. What Receive said, or -1 where the reply could
// not be sent: below 0 the client is to be given up.
inline int Echo(CSocket& socket) {
    BSTR text = nullptr;
    int result = socket.Receive(text, false);
    if (result > 0 && !socket.Send(text))
        result = -1;
    SysFreeString(text);
    return result;
}

// Counts its clients, and records no more than that: of a RecordingTarget it has the ways to hold and to end
// the thread.
class EchoTarget : public RecordingTarget {
public:
    void ClientConnection(CSocket* socket) override {
        Monitor::Lock lock(m_monitor);
        m_newest = socket->m_fd;
        m_clients[socket->m_fd].reset(socket);
        m_connections++;
        m_monitor.NotifyAll();
    }

    bool ClientActivity(int fd) override {
        const int result = Echo(*Client(fd));
        Monitor::Lock lock(m_monitor);
        if (result < 0)
            m_clients.erase(fd);
        m_monitor.NotifyAll();
        return result >= 0;
    }

    // Wait until there have been so many connections, and until so many clients are there.
    bool WaitForConnections(size_t count) {
        return Wait([this, count] { return m_connections >= count; });
    }
    bool WaitForClients(size_t count) {
        return Wait([this, count] { return m_clients.size() == count; });
    }

    size_t Connections() {
        Monitor::Lock lock(m_monitor);
        return m_connections;
    }

    // The server's descriptor of the last client that has come.
    int Newest() {
        Monitor::Lock lock(m_monitor);
        return m_newest;
    }

private:
    CSocket* Client(int fd) {
        Monitor::Lock lock(m_monitor);
        return m_clients.at(fd).get();
    }

    template <class Condition> bool Wait(Condition condition) {
        Monitor::Lock lock(m_monitor);
        return m_monitor.Wait(lock, Deadline::Long(), condition);
    }

    Monitor m_monitor;
    std::map<int, std::unique_ptr<CSocket>> m_clients;
    size_t m_connections = 0;
    int m_newest = -1;
};

struct EchoServer {
    // A client whose connection the server has reported.
    Connection Connect() {
        const size_t before = target.Connections();
        Connection connection = ConnectTo(Port());
        EXPECT_TRUE(connection.IsOpen());
        EXPECT_TRUE(target.WaitForConnections(before + 1));
        return connection;
    }

    // Adds clients, no more at a time than may wait to be accepted: a refused one tries again a second later.
    void Connect(std::vector<Connection>& clients, size_t count) {
        const size_t before = target.Connections();
        for (size_t i = 1; i <= count; i++) {
            clients.push_back(ConnectTo(Port()));
            ASSERT_TRUE(clients.back().IsOpen()) << strerror(errno);
            if (i % 100 == 0 || i == count) {
                ASSERT_TRUE(target.WaitForConnections(before + i));
            }
        }
    }

    int Port() { return PortOf(*server); }
    pthread_t Thread() const { return server->m_nThreadID; }

    EchoTarget target;
    ServerPtr server{new CServer(0, target)};
};

inline testing::AssertionResult Answers(Connection& client, const std::string& text) {
    if (!client.Send(Frame(text)))
        return testing::AssertionFailure() << "the request could not be sent";
    const std::string reply = client.ReadFrame();
    if (reply != text)
        return testing::AssertionFailure() << "the reply to '" << text << "' was '" << reply << "'";
    return testing::AssertionSuccess();
}

#endif
