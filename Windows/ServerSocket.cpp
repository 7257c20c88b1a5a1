#include <Windows/ServerSocket.h>

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <memory>

#include <host/Logger.h>

#include <Windows/SocketException.h>
#include <Windows/internal/Cancellation.h>

namespace {

constexpr int kBacklog = 128;

void LogLife(const char* text) { CLogger::PostLogEvent(LogTypeLife, LogSeverityInformation, text, nullptr); }

} // namespace

ServerSocket::ServerSocket() {
    LogLife("ServerSocket::ServerSocket() : called!");
    if (!Create())
        throw SocketException("CServerSocket::CServerSocket() : Could not create socket.");
    const int on = 1;
    if (setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        CLogger::PostLogEvent(LogTypeGeneral, LogSeverityFailure,
                              "ServerSocket::ServerSocket() : failed to set reuse option!", nullptr);
    SetBlockingMode(false);
    LogLife("ServerSocket::ServerSocket() : Socket created!");
}

ServerSocket::~ServerSocket() {
    const windows::NoCancellation noCancellation;
    LogLife("ServerSocket::~ServerSocket() : called!");
}

bool ServerSocket::Bind(int port) {
    if (m_fd == -1)
        return false;
    memset(&m_address, 0, sizeof m_address);
    m_address.sin_family = AF_INET;
    m_address.sin_port = htons(static_cast<unsigned short>(port));
    if (IsDebugEnabled())
        m_address.sin_addr.s_addr = htonl(INADDR_ANY);
    else
        inet_aton("127.0.0.1", &m_address.sin_addr);
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) == -1) {
        CLogger::PostLogEventF(LogTypeGeneral, LogSeverityFailure, "Bind failed called! %s", strerror(errno));
        return false;
    }
    return true;
}

bool ServerSocket::Listen() {
    if (m_fd == -1)
        return false;
    const int status = listen(m_fd, kBacklog);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityInformation, "ServerSocket::Listen() : status = %d",
                           status);
    return status != -1;
}

CSocket* ServerSocket::Accept() {
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityInformation,
                           "ServerSocket::Accept() : Called with fd=%d", m_fd);
    if (m_fd == -1)
        return nullptr;
    auto accepted = std::make_unique<CSocket>();
    socklen_t size = sizeof accepted->m_address;
    accepted->m_fd = accept(m_fd, reinterpret_cast<sockaddr*>(&accepted->m_address), &size);
    CLogger::PostLogEventF(LogTypeGeneral, LogSeverityInformation, "ServerSocket::Accept() : fd = %d",
                           accepted->m_fd);
    // Above 0, not from 0: a server that runs with its standard input closed refuses that descriptor.
    return accepted->m_fd > 0 ? accepted.release() : nullptr;
}
