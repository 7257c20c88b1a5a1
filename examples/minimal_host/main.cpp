// A program with a host of its own (host.cpp). It is linked with the library and nothing else of this
// project.
#include <signal.h>
#include <stdio.h>

#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>
#include <host/ServiceRegistry.h>

namespace {

unsigned int Receive(void*) {
    MSG message;
    while (GetMessage(&message, nullptr, 0, 0) && message.message != WM_QUIT)
        printf("message %u with %lu\n", message.message, message.wParam);
    return 0;
}

} // namespace

int main() {
    signal(SIGPIPE, SIG_IGN); // as a host does before the first thread
    CServiceAddress address;
    if (RegSvcQueryForServiceAddress("echo", address, 10))
        printf("echo is at %s:%d\n", address.getIPAddress(), address.getPortNumber());
    CWinThread* thread = AfxBeginThread(Receive, nullptr);
    thread->PostMessage(7, 42, nullptr);
    thread->PostMessage(WM_QUIT, 0, nullptr);
    WaitForSingleObject(thread->m_hThread, INFINITE);
    delete thread;
}
