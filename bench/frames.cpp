// Frames between the two ends of a TCP connection on this machine.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>
#include <utility>
#include <vector>

#include <Windows/Socket.h>
#include <host/Logger.h>
#include <host/Time.h>

#include "Bench.h"
#ifdef BENCH_ASIO
#include <boost/asio.hpp>
#endif
#ifdef BENCH_ZEROMQ
#include <zmq.h>
#endif

// A frame by hand, as a blocking socket receives it and sends it: the calls of CSocket in their order. It
// looks for data without blocking, waits for it if there is none, and asks for quick acknowledgements each
// time. server.cpp uses these too.
namespace floor_frame {

const size_t BUFFER_SIZE = 32768; // of each socket: prefix and payload go out in one call

namespace {

void SetBlocking(int fd, bool blocking) {
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

ssize_t ReceiveBytes(int fd, void* to, size_t count, int flags) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    return recv(fd, to, count, flags);
}

bool IsReadable(int fd) {
    unsigned char byte;
    return ReceiveBytes(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

void AwaitData(int fd) {
    if (IsReadable(fd))
        return;
    CTimeValHelper timeout;
    timeout.Init();
    CLogger::PostLogEvent(LogTypeTraffic, LogSeverityTrace, "blocking", nullptr);
    if (IsReadable(fd))
        return;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    select(fd + 1, &readable, nullptr, nullptr, nullptr);
}

size_t ReceiveLength(int fd) {
    SetBlocking(fd, false);
    AwaitData(fd);
    uint32_t prefix = 0;
    auto* bytes = reinterpret_cast<unsigned char*>(&prefix);
    ssize_t count = ReceiveBytes(fd, bytes, sizeof prefix, 0);
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, "returned %d (%d)", static_cast<int>(count), 0);
    if (count > 0 && count < 4) { // a full window cuts the stream anywhere
        SetBlocking(fd, true);
        count += ReceiveBytes(fd, bytes + count, sizeof prefix - static_cast<size_t>(count), MSG_WAITALL);
    }
    const uint32_t length = count == sizeof prefix ? ntohl(prefix) : 0;
    SetBlocking(fd, true);
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, "returning %d", static_cast<int>(length));
    return length;
}

} // namespace

// The length of the payload, 0 on failure. Data becomes a block from new[].
size_t Receive(int fd, unsigned char*& data) {
    const size_t length = ReceiveLength(fd);
    if (length == 0)
        return 0;
    data = new unsigned char[length];
    for (size_t got = 0; got < length;) {
        const ssize_t count = ReceiveBytes(fd, data + got, length - got, 0);
        if (count <= 0)
            return 0;
        got += static_cast<size_t>(count);
    }
    CLogger::PostLogEventF(LogTypeTraffic, LogSeverityInformation, "received on %d", fd);
    return length;
}

void Send(int fd, const unsigned char* data, size_t length, unsigned char* buffer) {
    const size_t size = length + 4;
    auto* frame = size > BUFFER_SIZE ? static_cast<unsigned char*>(malloc(size)) : buffer;
    const uint32_t prefix = htonl(static_cast<uint32_t>(length));
    memcpy(frame, &prefix, sizeof prefix);
    memcpy(frame + 4, data, length);
    if (send(fd, frame, size, MSG_NOSIGNAL) >= 1)
        CLogger::PostLogEventF(LogTypeTraffic, LogSeverityInformation, "sent on %d", fd);
    if (frame != buffer)
        free(frame);
}

} // namespace floor_frame

namespace {

// A connection on this machine, made as CSocket makes its descriptors.
std::pair<int, int> Connect() {
    const int listening = socket(AF_INET, SOCK_STREAM, 0);
    const int here = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listening, generic, size) == -1 || listen(listening, 1) == -1 ||
        getsockname(listening, generic, &size) == -1 || connect(here, generic, size) == -1) {
        perror("no connection");
        exit(1);
    }
    const int there = accept(listening, nullptr, nullptr);
    close(listening);
    const int on = 1;
    for (int fd : {here, there})
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return {here, there};
}

// An end has Send() and Receive(), which gives the length of the frame, 0 on failure, and Data(), the payload
// until the next Receive(). A column's Pair is the two ends, which two threads use.
template <typename End> struct ConnectedPair {
    const std::pair<int, int> descriptors = Connect();
    End here{descriptors.first};
    End there{descriptors.second};
};

struct Library {
    class End {
    public:
        explicit End(int fd) { m_socket.m_fd = fd; }
        ~End() { delete[] m_block.m_pData; }
        void Send(const unsigned char* data, size_t length) {
            m_socket.SendBlock(const_cast<unsigned char*>(data), length);
        }
        size_t Receive() {
            delete[] m_block.m_pData;
            m_block.m_pData = nullptr;
            const int length = m_socket.ReceiveBlock(m_block);
            return length > 0 ? static_cast<size_t>(length) : 0;
        }
        const unsigned char* Data() const { return m_block.m_pData; }

    private:
        CSocket m_socket;
        ReceivedDataBlock m_block;
    };
    using Pair = ConnectedPair<End>;
};

struct Floor {
    class End {
    public:
        explicit End(int fd) : m_fd(fd) {}
        ~End() {
            delete[] m_data;
            close(m_fd);
        }
        void Send(const unsigned char* data, size_t length) {
            floor_frame::Send(m_fd, data, length, m_buffer);
        }
        size_t Receive() {
            delete[] m_data;
            m_data = nullptr;
            return floor_frame::Receive(m_fd, m_data);
        }
        const unsigned char* Data() const { return m_data; }

    private:
        const int m_fd;
        unsigned char* m_data = nullptr;
        unsigned char m_buffer[floor_frame::BUFFER_SIZE];
    };
    using Pair = ConnectedPair<End>;
};

#ifdef BENCH_ASIO
namespace asio = boost::asio;

struct AsioSync {
    class End {
    public:
        explicit End(int fd) : m_socket(m_context, asio::ip::tcp::v4(), fd) {}
        void Send(const unsigned char* data, size_t length) {
            const uint32_t prefix = htonl(static_cast<uint32_t>(length));
            const std::array<asio::const_buffer, 2> frame = {asio::buffer(&prefix, sizeof prefix),
                                                             asio::buffer(data, length)};
            asio::write(m_socket, frame);
        }
        size_t Receive() {
            uint32_t prefix = 0;
            asio::read(m_socket, asio::buffer(&prefix, sizeof prefix));
            m_data.resize(ntohl(prefix));
            return asio::read(m_socket, asio::buffer(m_data));
        }
        const unsigned char* Data() const { return m_data.data(); }

    private:
        asio::io_context m_context{1};
        asio::ip::tcp::socket m_socket;
        std::vector<unsigned char> m_data;
    };
    using Pair = ConnectedPair<End>;
};

// Each end runs the loop of a context of its own until what it has begun is done.
struct AsioAsync {
    class End {
    public:
        explicit End(int fd) : m_socket(m_context, asio::ip::tcp::v4(), fd) {}
        void Send(const unsigned char* data, size_t length) {
            const uint32_t prefix = htonl(static_cast<uint32_t>(length));
            const std::array<asio::const_buffer, 2> frame = {asio::buffer(&prefix, sizeof prefix),
                                                             asio::buffer(data, length)};
            asio::async_write(m_socket, frame, [this](Error, size_t count) { Finish(count); });
            Run();
        }
        size_t Receive() {
            asio::async_read(m_socket, asio::buffer(&m_prefix, sizeof m_prefix), [this](Error error, size_t) {
                m_data.resize(error ? 0 : ntohl(m_prefix));
                asio::async_read(m_socket, asio::buffer(m_data),
                                 [this](Error, size_t count) { Finish(count); });
            });
            Run();
            return m_count;
        }
        const unsigned char* Data() const { return m_data.data(); }

    private:
        using Error = boost::system::error_code;
        void Finish(size_t count) {
            m_count = count;
            m_done = true;
        }
        void Run() {
            for (m_done = false; !m_done;)
                m_context.run_one();
        }
        asio::io_context m_context{1};
        asio::executor_work_guard<asio::io_context::executor_type> m_work{m_context.get_executor()};
        asio::ip::tcp::socket m_socket;
        uint32_t m_prefix = 0;
        std::vector<unsigned char> m_data;
        size_t m_count = 0;
        bool m_done = false;
    };
    using Pair = ConnectedPair<End>;
};
#endif

#ifdef BENCH_ZEROMQ
struct ZeroMq {
    class End {
    public:
        explicit End(void* context) : m_socket(zmq_socket(context, ZMQ_PAIR)) { zmq_msg_init(&m_message); }
        ~End() {
            zmq_msg_close(&m_message);
            const int now = 0;
            zmq_setsockopt(m_socket, ZMQ_LINGER, &now, sizeof now);
            zmq_close(m_socket);
        }
        void Send(const unsigned char* data, size_t length) { zmq_send(m_socket, data, length, 0); }
        size_t Receive() { return zmq_msg_recv(&m_message, m_socket, 0) > 0 ? zmq_msg_size(&m_message) : 0; }
        const unsigned char* Data() { return static_cast<unsigned char*>(zmq_msg_data(&m_message)); }
        void* Socket() { return m_socket; }

    private:
        void* m_socket;
        zmq_msg_t m_message;
    };
    struct Context {
        void* context = zmq_ctx_new();
        ~Context() { zmq_ctx_term(context); }
    };
    struct Pair {
        Context context;
        End here{context.context};
        End there{context.context};
        Pair() {
            char endpoint[64];
            size_t size = sizeof endpoint;
            if (zmq_bind(there.Socket(), "tcp://127.0.0.1:*") != 0 ||
                zmq_getsockopt(there.Socket(), ZMQ_LAST_ENDPOINT, endpoint, &size) != 0 ||
                zmq_connect(here.Socket(), endpoint) != 0) {
                perror("no connection");
                exit(1);
            }
        }
    };
};
#endif

std::vector<unsigned char> Payload(const benchmark::State& state) {
    std::vector<unsigned char> payload(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<unsigned char>(i * 7 + i / 256);
    return payload;
}

template <typename End> bool Holds(End& end, const std::vector<unsigned char>& payload) {
    return memcmp(end.Data(), payload.data(), payload.size()) == 0;
}

// A frame of one byte ends what the other thread does.

// A frame there and back.
template <typename Column> void RoundTrip(benchmark::State& state) {
    const auto payload = Payload(state);
    typename Column::Pair pair;
    std::thread echo([&] {
        while (const size_t length = pair.there.Receive()) {
            if (length == 1)
                return;
            pair.there.Send(pair.there.Data(), length);
        }
    });
    pair.here.Send(payload.data(), payload.size());
    if (Agrees(state, pair.here.Receive() == payload.size() && Holds(pair.here, payload))) {
        for (auto _ : state) {
            pair.here.Send(payload.data(), payload.size());
            if (!Agrees(state, pair.here.Receive() == payload.size()))
                break;
        }
    }
    pair.here.Send(payload.data(), 1);
    echo.join();
}

// Many frames one way, and an answer to them.
template <typename Column> void OneWay(benchmark::State& state) {
    const auto payload = Payload(state);
    const size_t many = std::min<size_t>(1000, 8 * 1024 * 1024 / payload.size());
    typename Column::Pair pair;
    bool holds = true;
    std::thread reader([&] {
        for (size_t count = 1; pair.there.Receive() == payload.size(); ++count) {
            if (count == 1)
                holds = Holds(pair.there, payload);
            if (count % many == 0)
                pair.there.Send(payload.data(), 1);
        }
    });
    for (auto _ : state) {
        for (size_t i = 0; i < many; ++i)
            pair.here.Send(payload.data(), payload.size());
        if (!Agrees(state, pair.here.Receive() == 1))
            break;
    }
    pair.here.Send(payload.data(), 1);
    reader.join();
    Agrees(state, holds);
}

} // namespace

#define SIZES ->Arg(16)->Arg(1024)->Arg(32768)->Arg(1048576)->MeasureProcessCPUTime()->UseRealTime()
#define COLUMNS(operation)                                                                                   \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns) SIZES;                                              \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns) SIZES;                                                \
    BENCH_IF_ASIO(BENCHMARK_TEMPLATE(operation, AsioSync) SIZES;)                                            \
    BENCH_IF_ASIO(BENCHMARK_TEMPLATE(operation, AsioAsync) SIZES;)                                           \
    BENCH_IF_ZEROMQ(BENCHMARK_TEMPLATE(operation, ZeroMq) SIZES;)
COLUMNS(RoundTrip)
COLUMNS(OneWay)
