// end_with_threads return | exit | thread | destroy
//
// Ends with status 0 while threads wait in every way there is: by returning from main, by exit() there, or by
// exit() on one of the threads. With destroy main returns, and the server and the client are static objects.
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <memory>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/Windows.h>

#include "Programs.h"

#ifdef __SANITIZE_THREAD__
// A thread whose work is over is never joined, and only detached when its object goes.
extern "C" const char* __tsan_default_options() { return "report_thread_leaks=0"; }
#endif

namespace {

HANDLE g_event;
HANDLE g_mutex;

unsigned int GetForEver(void*) {
    MSG message;
    return static_cast<unsigned>(GetMessage(&message, NULL, 0, 0));
}

unsigned int GetWithTimeout(void*) {
    MSG message;
    return static_cast<unsigned>(GetMessage(&message, NULL, 0, 0, 600000, false));
}

unsigned int WaitForEvent(void*) { return static_cast<unsigned>(WaitForSingleObject(g_event, INFINITE)); }
unsigned int WaitForEventWithTimeout(void*) {
    return static_cast<unsigned>(WaitForSingleObject(g_event, 600000));
}
unsigned int WaitForMutex(void*) { return static_cast<unsigned>(WaitForSingleObject(g_mutex, INFINITE)); }
unsigned int ReturnAtOnce(void*) { return 0; }

unsigned int Exit(void*) {
    WaitUntilAllSleep();
    CWinThread::MapIdToWinThread(0); // its lock orders what the threads did in the registry before its end
    exit(0);
}

// The server's end of each connection is its application's.
struct Target : CCmdTarget {
    CSocket* sockets[4] = {};
    int count = 0;
    void ClientConnection(CSocket* socket) override { sockets[count++] = socket; }
} g_target;

CWinThread* g_threads[11]; // nobody deletes them
std::unique_ptr<CWinThread> g_static[2];

int Port(const CServer& server) {
    sockaddr_in address;
    socklen_t size = sizeof address;
    MUST(getsockname(server.m_serverSocket.m_fd, reinterpret_cast<sockaddr*>(&address), &size) == 0);
    return ntohs(address.sin_port);
}

} // namespace

int main(int argc, char** argv) {
    MUST(argc == 2);
    g_event = CreateEvent(true, false);
    g_mutex = CreateMutex(NULL, true, NULL);
    g_threads[0] = AfxBeginThread(GetForEver, NULL);
    g_threads[1] = AfxBeginThread(GetWithTimeout, NULL);
    g_threads[2] = AfxBeginThread(WaitForEvent, NULL);
    g_threads[3] = AfxBeginThread(WaitForEventWithTimeout, NULL);
    g_threads[4] = AfxBeginThread(WaitForMutex, NULL);
    g_threads[5] = AfxBeginThread(ReturnAtOnce, NULL, 0, 0, CREATE_SUSPENDED);
    g_threads[6] = AfxBeginThread(ReturnAtOnce, NULL);
    CServer* server = new CServer(0, g_target);
    g_threads[7] = server;
    CClient* client = new CClient("127.0.0.1", Port(*server), g_target);
    g_threads[8] = client;
    MUST(client->IsConnected());
    g_threads[9] = new CClient(g_target); // without a connection
    g_threads[9]->ResumeThread();
    if (strcmp(argv[1], "thread") == 0) {
        g_threads[10] = AfxBeginThread(Exit, NULL);
        WaitForSingleObject(g_threads[10]->m_hThread, INFINITE); // for ever, as it does not return
    }
    WaitUntilAllSleep();
    CWinThread::MapIdToWinThread(0); // its lock orders what the threads did in the registry before its end
    if (strcmp(argv[1], "destroy") == 0) {
        g_static[0].reset(client);
        g_static[1].reset(server);
    }
    if (strcmp(argv[1], "exit") == 0)
        exit(0);
    return 0;
}
