// A TCP socket that connects to a server, once.
//
// Thread safety: one thread at a time.
#ifndef WINDOWS_CLIENTSOCKET_H
#define WINDOWS_CLIENTSOCKET_H

#include <string>

#include <Windows/Socket.h>

class CServiceAddress;

class CClientSocket : public CSocket {
public:
    // Throws SocketException when there is no descriptor to be had.
    CClientSocket();
    ~CClientSocket();

    // Connects to a dotted-decimal address and a port (its low 16 bits), and blocks until the handshake ends.
    // False on failure, after which it may be tried again, and false once connected. A host that is no such
    // address leaves 0.0.0.0, which Linux takes for this machine.
    bool Connect(std::string host, int port);
    bool Connect(const CServiceAddress& address);

private:
    bool m_bConnected; // set by a successful Connect and never cleared
};

#endif
