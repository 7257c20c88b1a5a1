// A request and its reply through a server's select loop, alone and beside idle connections.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include <Windows/CmdTarget.h>
#include <Windows/Server.h>

#include "Bench.h"
#ifdef BENCH_ASIO
#include <boost/asio.hpp>
#endif

// A frame by hand, in frames.cpp.
namespace floor_frame {
size_t Receive(int fd, unsigned char*& data);
void Send(int fd, const unsigned char* data, size_t length, unsigned char* buffer);
} // namespace floor_frame

namespace {

int PortOf(int fd) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

// What asks: the same by hand for all columns.
class Connection {
public:
    explicit Connection(int port) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        const int on = 1;
        setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    ~Connection() { close(m_fd); }
    Connection(const Connection&) = delete;

    // Whether what was sent came back.
    bool Ask() {
        static const Frame request = {0, 0, 0, 60, 'w', 'h', 'a', 't', '?'};
        Frame reply = {};
        return m_connected && send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) == 64 &&
               recv(m_fd, reply.data(), reply.size(), MSG_WAITALL) == 64 && reply == request;
    }

private:
    using Frame = std::array<unsigned char, 64>;
    const int m_fd = socket(AF_INET, SOCK_STREAM, 0);
    bool m_connected;
};

// A column's Server runs in a thread of its own from constructor to destructor, listens on Port() and sends
// each frame back.

struct Library {
    class Server : public CCmdTarget {
    public:
        int Port() { return PortOf(m_server.m_serverSocket.GetDescriptor()); }

        void ClientConnection(CSocket* client) override {
            const auto fd = static_cast<size_t>(client->GetDescriptor());
            m_clients.resize(std::max(m_clients.size(), fd + 1));
            m_clients[fd].reset(client);
        }
        bool ClientActivity(int fd) override {
            auto& client = m_clients[static_cast<size_t>(fd)];
            ReceivedDataBlock request;
            const int length = client->ReceiveBlock(request);
            if (length > 0)
                client->SendBlock(request.m_pData, static_cast<unsigned long>(length));
            else
                client.reset();
            delete[] request.m_pData;
            return length > 0;
        }

    private:
        std::vector<std::unique_ptr<CSocket>> m_clients; // by descriptor
        CServer m_server{0, *this};
    };
};

struct Floor {
    class Server {
    public:
        Server() {
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (pipe(m_queue) == -1 ||
                bind(m_listening, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
                listen(m_listening, 128) == -1)
                abort();
            m_thread = std::thread([this] { Run(); });
        }
        ~Server() {
            close(m_queue[1]);
            m_thread.join();
            for (size_t fd = 0; fd < m_clients.size(); ++fd)
                if (m_clients[fd])
                    close(static_cast<int>(fd));
            close(m_listening);
            close(m_queue[0]);
        }
        int Port() { return PortOf(m_listening); }

    private:
        // More descriptors than an fd_set holds.
        class Set {
        public:
            void Add(int fd) {
                const auto bit = static_cast<size_t>(fd);
                m_words.resize(std::max(m_words.size(), bit / 64 + 1));
                m_words[bit / 64] |= 1UL << bit % 64;
            }
            void Remove(int fd) { m_words[static_cast<size_t>(fd) / 64] &= ~(1UL << fd % 64); }
            bool Contains(int fd) const { return m_words[static_cast<size_t>(fd) / 64] >> fd % 64 & 1; }
            bool Wait(int highest) {
                return select(highest + 1, reinterpret_cast<fd_set*>(m_words.data()), nullptr, nullptr,
                              nullptr) > 0;
            }

        private:
            std::vector<unsigned long> m_words = std::vector<unsigned long>(16);
        };

        struct Client {
            unsigned char buffer[32768];
        };

        void Run() {
            Set all;
            Set ready;
            all.Add(m_listening);
            all.Add(m_queue[0]);
            int highest = std::max(m_listening, m_queue[0]);
            for (;;) {
                const int looked = highest;
                ready = all;
                if (!ready.Wait(looked) || ready.Contains(m_queue[0]))
                    return;
                if (ready.Contains(m_listening)) {
                    ready.Remove(m_listening);
                    const int client = accept(m_listening, nullptr, nullptr);
                    all.Add(client);
                    highest = std::max(highest, client);
                    m_clients.resize(static_cast<size_t>(highest) + 1);
                    m_clients[static_cast<size_t>(client)].reset(new Client);
                }
                for (int fd = 0; fd <= looked; ++fd)
                    if (ready.Contains(fd) && !Serve(fd))
                        all.Remove(fd);
            }
        }

        bool Serve(int fd) {
            auto& client = m_clients[static_cast<size_t>(fd)];
            unsigned char* request = nullptr;
            const size_t length = floor_frame::Receive(fd, request);
            if (length > 0) {
                floor_frame::Send(fd, request, length, client->buffer);
            } else {
                close(fd);
                client.reset();
            }
            delete[] request;
            return length > 0;
        }

        const int m_listening = socket(AF_INET, SOCK_STREAM, 0);
        int m_queue[2];
        std::vector<std::unique_ptr<Client>> m_clients; // by descriptor
        std::thread m_thread;
    };
};

#ifdef BENCH_ASIO
namespace asio = boost::asio;

struct AsioAsync {
    class Server {
    public:
        Server() {
            Accept();
            m_thread = std::thread([this] { m_context.run(); });
        }
        ~Server() {
            m_context.stop();
            m_thread.join();
        }
        int Port() { return m_acceptor.local_endpoint().port(); }

    private:
        using Error = boost::system::error_code;

        // A connection, which reads and answers for as long as that works.
        struct Client : std::enable_shared_from_this<Client> {
            explicit Client(asio::ip::tcp::socket accepted) : socket(std::move(accepted)) {}
            void Receive() {
                const auto self = shared_from_this();
                asio::async_read(socket, asio::buffer(&prefix, sizeof prefix), [self](Error error, size_t) {
                    if (!error)
                        self->ReceivePayload();
                });
            }
            void ReceivePayload() {
                const auto self = shared_from_this();
                payload.resize(ntohl(prefix));
                asio::async_read(socket, asio::buffer(payload), [self](Error error, size_t) {
                    if (!error)
                        self->Reply();
                });
            }
            void Reply() {
                const auto self = shared_from_this();
                const std::array<asio::const_buffer, 2> frame = {asio::buffer(&prefix, sizeof prefix),
                                                                 asio::buffer(payload)};
                asio::async_write(socket, frame, [self](Error error, size_t) {
                    if (!error)
                        self->Receive();
                });
            }
            asio::ip::tcp::socket socket;
            uint32_t prefix = 0;
            std::vector<unsigned char> payload;
        };

        void Accept() {
            m_acceptor.async_accept([this](Error error, asio::ip::tcp::socket accepted) {
                if (error)
                    return;
                std::make_shared<Client>(std::move(accepted))->Receive();
                Accept();
            });
        }

        asio::io_context m_context{1};
        asio::ip::tcp::acceptor m_acceptor{m_context, {asio::ip::address_v4::loopback(), 0}};
        std::thread m_thread;
    };
};
#endif

// As many descriptors as the system permits.
void RaiseDescriptorLimit() {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Idle connections: state.range(0). Each has asked once, so that it is no longer waiting to be accepted.
template <typename Column> void Request(benchmark::State& state) {
    RaiseDescriptorLimit();
    std::deque<Connection> connections;
    auto server = std::make_unique<typename Column::Server>(); // goes first
    for (int i = 0; i <= state.range(0); ++i) {
        connections.emplace_back(server->Port());
        if (!Agrees(state, connections.back().Ask()))
            return;
    }
    for (auto _ : state)
        if (!Agrees(state, connections.back().Ask()))
            return;
}

} // namespace

#define IDLE ->Arg(0)->Arg(1000)->MeasureProcessCPUTime()->UseRealTime()
BENCHMARK_TEMPLATE(Request, Library)->Apply(Turns) IDLE;
BENCHMARK_TEMPLATE(Request, Floor)->Apply(Turns) IDLE;
BENCH_IF_ASIO(BENCHMARK_TEMPLATE(Request, AsioAsync) IDLE;)
