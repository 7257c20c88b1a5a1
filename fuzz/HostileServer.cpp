// A live CServer: each input is what a hostile client sends over a connection of its own before it goes. A
// good client, connected all the time, is served afterwards as before.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>

#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/SingleLock.h>
#include <Windows/bstr.h>

#include "Input.h"

namespace {

constexpr int kPatience = 120;      // seconds; an emulator on a busy machine is slow
constexpr size_t kMostBytes = 8192; // so that all that is echoed fits where nobody reads it

// An application's handler: it echoes every frame, and drops a client whose stream is broken.
class Echo : public CCmdTarget {
public:
    void ClientConnection(CSocket* socket) override { m_clients[socket->GetDescriptor()].reset(socket); }

    bool ClientActivity(int fd) override {
        const auto client = m_clients.find(fd);
        fuzz::Require(client != m_clients.end(), "only connected clients are reported");
        const int result = m_binary ? EchoBlock(*client->second) : EchoText(*client->second);
        if (result < 0)
            m_clients.erase(client);
        return result >= 0;
    }

    // Any message ends the server: its next select finds a closed descriptor.
    bool RouteMessage(void*, bool) override {
        CWinThread* own = CWinThread::MapIdToWinThread(GetCurrentThreadId());
        close(own->m_readDesc);
        own->m_readDesc = -1;
        return true;
    }

    std::atomic<bool> m_binary{false}; // how frames are received

private:
    static int EchoText(CSocket& socket) {
        BSTR text = nullptr;
        const int result = socket.Receive(text, false);
        if (result > 0)
            socket.Send(text);
        SysFreeString(text);
        return result;
    }

    static int EchoBlock(CSocket& socket) {
        ReceivedDataBlock block;
        const int result = socket.ReceiveBlock(block, false);
        if (result > 0)
            socket.SendBlock(block.m_pData, static_cast<unsigned long>(block.m_nLength));
        delete[] block.m_pData;
        return result;
    }

    std::map<int, std::unique_ptr<CSocket>> m_clients;
};

// A client's connection by plain system calls.
class Peer {
public:
    explicit Peer(int port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const timeval patience = {kPatience, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        fuzz::Require(connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
                      "the server takes connections");
    }
    ~Peer() { close(m_fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // False when the server has dropped the connection.
    bool Send(const std::string& bytes) {
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // So many bytes, or fewer if the stream ends.
    std::string Read(size_t count) {
        std::string bytes;
        char piece[4096];
        while (bytes.size() < count) {
            const ssize_t got = recv(m_fd, piece, std::min(count - bytes.size(), sizeof piece), 0);
            if (got < 0 && errno == EINTR) // a fuzzer's clock
                continue;
            fuzz::Require(got >= 0 || errno != EAGAIN, "the server answers in time");
            if (got <= 0)
                break;
            bytes.append(piece, static_cast<size_t>(got));
        }
        return bytes;
    }

    // Sends FIN, and waits until the server has closed too: it has seen everything then.
    void Finish() {
        shutdown(m_fd, SHUT_WR);
        Read(SIZE_MAX);
    }

    // The destructor will reset the connection.
    void Abandon() {
        const linger none = {1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    }

private:
    int m_fd;
};

// Signals are for the fuzzer's own thread; the server's would be interrupted in the middle of a frame.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &m_before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before;
};

// The server and its good client, for the whole process.
class Session {
public:
    Session() {
        signal(SIGPIPE, SIG_IGN);
        {
            const SignalsBlocked meanwhile;
            m_server.reset(new CServer(0, m_echo));
        }
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        getsockname(m_server->m_serverSocket.GetDescriptor(), reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
        m_good.reset(new Peer(m_port));
        RequireService();
    }

    ~Session() {
        PostThreadMessage(m_server->GetThreadID(), WM_QUIT, 0, nullptr);
        WaitForSingleObject(m_server->m_hThread, INFINITE);
    }

    void Attack(fuzz::Input& input) {
        m_echo.m_binary = input.OneIn(2);
        const bool abandons = input.OneIn(4);
        size_t piece = 1 + input.Below(256);
        std::string stream = input.Bytes(kMostBytes);
        fuzz::TameLengths(stream);
        piece = std::max(piece, stream.size() / 4); // a few segments at most
        Peer hostile(m_port);
        for (size_t at = 0; at < stream.size() && hostile.Send(stream.substr(at, piece)); at += piece)
            ;
        abandons ? hostile.Abandon() : hostile.Finish();
    }

    void RequireService() {
        const std::string frame = std::string("\0\0\0\4", 4) + Number();
        fuzz::Require(m_good->Send(frame), "the good client is still connected");
        fuzz::Require(m_good->Read(frame.size()) == frame, "the good client is still served");
    }

private:
    // Four characters that differ from call to call.
    std::string Number() {
        char text[16];
        snprintf(text, sizeof text, "%04u", m_count++ % 10000);
        return text;
    }

    Echo m_echo;
    std::unique_ptr<CServer> m_server;
    int m_port = 0;
    std::unique_ptr<Peer> m_good;
    unsigned int m_count = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Session session;
    fuzz::Input input(data, size);
    session.Attack(input);
    session.RequireService();
    return 0;
}
