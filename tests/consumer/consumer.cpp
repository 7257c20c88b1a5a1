// A program of somebody who has the library installed: a thread receives a message and makes a text of it,
// and the reference host is asked for a service that the program has added.
#include <stdio.h>

#include <Windows/Windows.h>
#include <host/host.h>
#include <reference_host/reference_host.h>

static unsigned int Receive(void*) {
    MSG message;
    while (GetMessage(&message, NULL, 0, 0) && message.message != WM_QUIT) {
        XString text;
        text.Format("message %u with %lu", message.message, message.wParam);
        puts(text);
    }
    return 0;
}

int main() {
    CServiceAddress address;
    reference_host::AddService("consumer", "127.0.0.1", 4711);
    if (!RegSvcQueryForServiceAddress("consumer", address, 10))
        return 1;
    CWinThread* thread = AfxBeginThread(Receive, NULL);
    PostThreadMessage(thread->GetThreadID(), 7, static_cast<WPARAM>(address.getPortNumber()), NULL);
    PostThreadMessage(thread->GetThreadID(), WM_QUIT, 0, NULL);
    WaitForSingleObject(thread->m_hThread, INFINITE);
    delete thread;
}
