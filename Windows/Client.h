// A thread with a connection to a server, which reports data from the server and queue messages to a command
// target.
//
// After the server has closed the connection the thread goes on serving its queue, IsConnected() stays true,
// and sends fail. A connection that is reset ends the thread. For a new connection make a new client. Main
// already runs when a connecting constructor returns, so a class derived from CClient must not rely on its
// own members or on overriding Main.
//
// Thread safety: SendToServer from one thread at a time, and frames of more than the socket's send buffer
// from the command target only: the client thread switches the socket's mode, and a frame may then go out in
// part. ReceiveFromServer inside ServerActivity. PostThreadMessage(m_nThreadID, ...) from any thread.
// Lifetime: the owner deletes the client, which cancels its thread (see WinThread.h).
#ifndef WINDOWS_CLIENT_H
#define WINDOWS_CLIENT_H

#include <string>

#include <Windows/ClientSocket.h>
#include <Windows/WinThread.h>

class CCmdTarget;
class CServiceAddress;

namespace windows {
class DescriptorSet;
}

class CClient : public CWinThread {
public:
    // An unconnected client. It never connects; ResumeThread() has it serve its queue.
    //
    // Every constructor throws SocketException by value without a descriptor for the socket, and what
    // CWinThread throws.
    CClient(CCmdTarget& handler);

    // Connect and resume the thread. When the one attempt fails they wait a second and throw a
    // CLogException*.
    CClient(const CServiceAddress& address, CCmdTarget& handler);
    CClient(std::string host, int port, CCmdTarget& handler);

    // Asks the host's service registry for the address. A name that it does not know is logged and leaves an
    // unconnected client whose thread runs; otherwise as above.
    CClient(const char* serviceName, CCmdTarget& handler);

    ~CClient() override;

    // Sends a text as one frame; false without a connection or on failure.
    bool SendToServer(char* text);

    // CSocket::Receive on the connection; 0 without one.
    int ReceiveFromServer(char*& text, bool wait = true, unsigned int timeoutMs = 0);

    // Posts one event and does nothing else.
    void AddHandler();

    void Main() override;

    // Whether the constructor connected. Never changes.
    bool IsConnected() const { return m_bConnectedToServer; }

    // The parts, as the constructor has set them.
    CClientSocket m_clientSocket;
    CCmdTarget& m_pCmdTarget;
    std::string m_strHost; // of the host and port constructor
    bool m_bConnectedToServer;
    int m_nPort; // of the host and port constructor; -1 otherwise

private:
    template <typename... Address> void Connect(const Address&... address);
    bool HasActivity(int socketDesc, int pipeDesc);
    int WaitForActivity(int socketDesc, int highest, const windows::DescriptorSet& watched,
                        windows::ObjectUse& use);
    void ServeSocket(int socketDesc, windows::DescriptorSet& watched, bool& serverClosed,
                     windows::ObjectUse& use);
    void ServeQueue(int socketDesc, windows::ObjectUse& use);
};

#endif
