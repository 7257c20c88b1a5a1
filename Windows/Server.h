// A thread that listens on a port and reports connections, client data and queue messages to a command
// target.
//
// Of what is ready at the same time a new connection comes first, then one queue message, then the clients in
// ascending order of their descriptors. The thread ends only when its select() fails; WM_QUIT is a message
// like any other. Main already runs when the constructor returns, so a class derived from CServer must not
// rely on its own members or on overriding Main.
//
// Thread safety: PostThreadMessage(m_nThreadID, ...) from any thread; the rest belongs to the owner.
// Lifetime: the owner deletes the server, which cancels its thread (see WinThread.h). Accepted sockets are
// the command target's and stay open.
// Errors: a connection that cannot be accepted is logged. Where there is no memory for one std::bad_alloc
// leaves the thread, which ends the process.
#ifndef WINDOWS_SERVER_H
#define WINDOWS_SERVER_H

#include <Windows/ServerSocket.h>
#include <Windows/WinThread.h>
#include <Windows/event.h>

class CCmdTarget;
class CServiceAddress;

class CServer : public CWinThread {
public:
    // Listens on the port, of which the low 16 bits count; of an address only the port is used. Throws
    // SocketException by value when the socket cannot be made, bound or listened on, and what CWinThread
    // throws.
    CServer(int port, CCmdTarget& handler);
    CServer(const CServiceAddress& address, CCmdTarget& handler);

    ~CServer() override;

    // Posts one event and does nothing else.
    void AddHandler();

    void Main() override;

    // Whether the thread is in its loop; any thread may ask.
    bool IsListening() const { return __atomic_load_n(&m_bListening, __ATOMIC_RELAXED); }

    // Waits until the thread is in its loop: 0, or 110 after timeoutMs milliseconds (0xFFFFFFFF: for ever).
    int WaitUntilListening(unsigned long timeoutMs = INFINITE) {
        return m_listeningEvent.WaitForEventSignal(timeoutMs, nullptr);
    }

    // What the functions above ask, and the parts.
    bool m_bListening = false;
    CCmdTarget& m_pCmdTarget;
    CEvent m_listeningEvent; // set when the thread is in its loop
    ServerSocket m_serverSocket;

private:
    struct Texts;
    struct Watch;

    void Start(int port, const Texts& texts);
    void AcceptClient(Watch& watch);
    void ServeQueue(Watch& watch);
    void ReportClients(Watch& watch);
};

#endif
