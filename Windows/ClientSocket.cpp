#include <Windows/ClientSocket.h>

#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>

#include <host/ServiceRegistry.h>

#include <Windows/SocketException.h>
#include <Windows/internal/BlockingMode.h>
#include <Windows/internal/Relaxed.h>

CClientSocket::CClientSocket() : m_bConnected(false) {
    if (!Create())
        throw SocketException("CClientSocket::CClientSocket() : Could not create socket.");
}

CClientSocket::~CClientSocket() = default;

bool CClientSocket::Connect(std::string host, int port) {
    if (m_fd == -1 || m_bConnected)
        return false;
    m_address.sin_family = AF_INET;
    m_address.sin_port = htons(static_cast<unsigned short>(port));
    // Text that is no address is not an error: the address stays as it was, 0.0.0.0 at first.
    errno = 0;
    inet_pton(AF_INET, host.c_str(), &m_address.sin_addr);
    if (errno == EAFNOSUPPORT)
        return false;
    windows::BlockingMode mode(*this, windows::RelaxedLoad(m_bBlocking), true);
    m_bConnected = connect(m_fd, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) == 0;
    mode.Restore();
    return m_bConnected;
}

bool CClientSocket::Connect(const CServiceAddress& address) {
    return Connect(std::string(address.getIPAddress()), address.getPortNumber());
}
