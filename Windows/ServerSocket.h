// A listening TCP socket.
//
//   Bind, then Listen, then any number of Accepts. The socket does not block.
//
// Thread safety: one thread at a time.
#ifndef WINDOWS_SERVERSOCKET_H
#define WINDOWS_SERVERSOCKET_H

#include <Windows/Socket.h>

class ServerSocket : public CSocket {
public:
    // Throws SocketException when there is no descriptor to be had.
    ServerSocket();
    ~ServerSocket();

    // Binds to a port (its low 16 bits; 0 lets the system choose). In the host's debug mode the server is
    // reached from every machine, otherwise from this one only: the library decides that nowhere else.
    // False, with the reason in the log, on failure.
    bool Bind(int port);

    // False on failure.
    bool Listen();

    // Takes a waiting connection; the caller deletes the socket. NULL when there is none. Descriptor 0 counts
    // as a failure and is closed.
    CSocket* Accept();
};

#endif
