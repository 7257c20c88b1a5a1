#include "support/peer.h"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace {

const size_t CHUNK = 65536;

// Waits until poll() reports one of the events, an error or a hangup.
bool Poll(int fd, short events, const Deadline& deadline) {
    pollfd entry = {fd, events, 0};
    for (;;) {
        const int ready = poll(&entry, 1, static_cast<int>(deadline.Remaining().count()));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

// A socket that is bound to an ephemeral port, which is stored.
int BoundSocket(int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, Generic(address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        ADD_FAILURE() << "no socket for the test: " << strerror(errno);
    port = ntohs(address.sin_port);
    return fd;
}

} // namespace

std::string Prefix(unsigned long length) {
    std::string prefix;
    for (int shift = 24; shift >= 0; shift -= 8)
        prefix += static_cast<char>(length >> shift & 0xFF);
    return prefix;
}

std::string Frame(const std::string& payload) { return Prefix(payload.size()) + payload; }

// ---------------------------------------------------------------------------------------------------------

Connection& Connection::operator=(Connection&& other) noexcept {
    if (this != &other) {
        Close();
        m_fd = other.Release();
    }
    return *this;
}

Connection::~Connection() { Close(); }

int Connection::Release() { return std::exchange(m_fd, -1); }

bool Connection::Send(const std::string& bytes, const Deadline& deadline) {
    Bypass bypass;
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0)
            sent += static_cast<size_t>(n);
        else if (errno != EINTR && (errno != EAGAIN || !Poll(m_fd, POLLOUT, deadline)))
            return false;
    }
    return true;
}

std::string Connection::Read(size_t count, const Deadline& deadline) {
    Bypass bypass;
    std::string bytes;
    char chunk[CHUNK];
    while (bytes.size() < count) {
        const ssize_t n = recv(m_fd, chunk, std::min(count - bytes.size(), sizeof chunk), MSG_DONTWAIT);
        if (n > 0)
            bytes.append(chunk, static_cast<size_t>(n));
        else if (n == 0 || (errno != EINTR && (errno != EAGAIN || !Poll(m_fd, POLLIN, deadline))))
            break;
    }
    return bytes;
}

std::string Connection::ReadFrame(const Deadline& deadline) {
    const std::string prefix = Read(4, deadline);
    unsigned long length = 0;
    for (unsigned char byte : prefix)
        length = length << 8 | byte;
    return prefix.size() == 4 ? Read(length, deadline) : "";
}

std::string Connection::ReadAll(const Deadline& deadline) { return Read(std::string::npos, deadline); }

bool Connection::AtEnd(const Deadline& deadline) {
    Bypass bypass;
    char byte;
    for (;;) {
        const ssize_t n = recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n >= 0)
            return n == 0;
        if (errno != EINTR && errno != EAGAIN)
            return true;
        if (errno == EAGAIN && !Poll(m_fd, POLLIN, deadline))
            return false;
    }
}

void Connection::Shutdown() { shutdown(m_fd, SHUT_WR); }

void Connection::Close() {
    Bypass bypass;
    if (IsOpen())
        close(Release());
}

void Connection::Reset() {
    Bypass bypass;
    const linger now = {1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    Close();
}

bool WaitForBytes(int fd, size_t count, const Deadline& deadline) {
    Bypass bypass;
    for (;;) {
        int arrived = 0;
        if (ioctl(fd, FIONREAD, &arrived) == 0 && static_cast<size_t>(arrived) >= count)
            return true;
        if (deadline.Passed())
            return false;
        const timespec moment = {0, 100000};
        nanosleep(&moment, nullptr);
    }
}

bool WaitForClosure(int fd, const Deadline& deadline) {
    Bypass bypass;
    return Poll(fd, POLLRDHUP, deadline);
}

Connection ConnectTo(int port) {
    Bypass bypass;
    Connection connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Loopback(port);
    const int on = 1;
    if (connect(connection.Descriptor(), Generic(address), sizeof address) != 0)
        connection.Close();
    else
        setsockopt(connection.Descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connection;
}

ListenSocket::ListenSocket() {
    Bypass bypass;
    m_fd = BoundSocket(m_port);
    if (listen(m_fd, 128) != 0)
        ADD_FAILURE() << "cannot listen: " << strerror(errno);
}

ListenSocket::~ListenSocket() { Close(); }

Connection ListenSocket::Accept(const Deadline& deadline) {
    Bypass bypass;
    Connection connection(Poll(m_fd, POLLIN, deadline) ? accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC) : -1);
    const int on = 1;
    if (connection.IsOpen())
        setsockopt(connection.Descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connection;
}

void ListenSocket::Close() {
    Bypass bypass;
    if (m_fd >= 0)
        close(std::exchange(m_fd, -1));
}

int UnusedPort() {
    Bypass bypass;
    int port;
    close(BoundSocket(port));
    return port;
}

ConnectedPair::ConnectedPair() {
    ListenSocket listener;
    own = ConnectTo(listener.Port());
    peer = listener.Accept();
    if (!own.IsOpen() || !peer.IsOpen())
        ADD_FAILURE() << "no connected pair for the test: " << strerror(errno);
}

// ---------------------------------------------------------------------------------------------------------

struct Background::State {
    std::function<void()> function;
    Gate ended;
    std::string failure;
};

Background::Background(std::function<void()> function) : m_state(std::make_shared<State>()) {
    Bypass bypass;
    m_state->function = std::move(function);
    m_thread = std::thread([state = m_state] {
        try {
            state->function();
        } catch (const abi::__forced_unwind&) {
            throw;
        } catch (const std::exception& error) {
            state->failure = std::string("it threw: ") + error.what();
        } catch (...) {
            state->failure = "it threw something";
        }
        state->ended.Open();
    });
    m_id = m_thread.native_handle();
}

Background::~Background() {
    if (!m_thread.joinable())
        return;
    if (!m_state->ended.Wait()) {
        fprintf(stderr, "A background thread of the test does not end.\n");
        abort();
    }
    m_thread.join();
}

testing::AssertionResult Background::Join(const Deadline& deadline) {
    if (!m_state->ended.Wait(deadline))
        return testing::AssertionFailure() << "the background thread has not ended in time";
    if (m_thread.joinable())
        m_thread.join();
    if (!m_state->failure.empty())
        return testing::AssertionFailure() << m_state->failure;
    return testing::AssertionSuccess();
}

bool Background::Ended() const { return m_state->ended.IsOpen(); }

void Gate::Open() {
    Monitor::Lock lock(m_monitor);
    m_open = true;
    m_monitor.NotifyAll();
}

void Gate::Close() {
    Monitor::Lock lock(m_monitor);
    m_open = false;
}

bool Gate::IsOpen() {
    Monitor::Lock lock(m_monitor);
    return m_open;
}

bool Gate::Wait(const Deadline& deadline) {
    Monitor::Lock lock(m_monitor);
    return m_monitor.Wait(lock, deadline, [this] { return m_open; });
}

bool Gate::Wait() {
    const bool open = Wait(Deadline::Long());
    EXPECT_TRUE(open) << "a gate that was waited for did not open";
    return open;
}
