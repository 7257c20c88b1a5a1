// Takes part in a chat (chat_server.cpp): says what it reads, and prints what it hears.
//
//     chat_client NAME PORT    until the end of standard input
//
// The main thread reads. Everything that concerns the connection is the client's thread's: the main thread
// posts it the lines, as a socket is for one thread at a time.

#include <stdio.h>
#include <stdlib.h>

#include <iostream>
#include <memory>
#include <string>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/bstr.h>
#include <host/ErrorObject.h>
#include <reference_host/reference_host.h>

#include "Common.h"

namespace {

enum : unsigned int {
    kSay = WM_USER, // lParam is a std::string, which belongs to the receiver
    kLeave
};

class Guest : public CCmdTarget {
public:
    // A message, on the client's thread.
    bool RouteMessage(void* pMsg, bool) override {
        const auto* message = static_cast<const MSG*>(pMsg);
        if (message->message == kSay) {
            const std::unique_ptr<std::string> text(static_cast<std::string*>(message->lParam));
            Client().SendToServer(&(*text)[0]);
        } else {
            EndLoop();
        }
        return true;
    }

    // A frame, or the end of the connection, on the same thread. False: there is nothing more to come.
    bool ServerActivity() override {
        BSTR received = nullptr;
        const int length = Client().ReceiveFromServer(received);
        const _bstr_t text(received, false);
        if (length < 0)
            return false;
        if (length > 0)
            puts(text);
        fflush(stdout);
        return true;
    }

private:
    static CClient& Client() {
        return *static_cast<CClient*>(CWinThread::MapIdToWinThread(GetCurrentThreadId()));
    }
};

void Say(CClient& client, const std::string& text) {
    auto owned = std::make_unique<std::string>(text);
    if (client.PostMessage(kSay, 0, owned.get()))
        static_cast<void>(owned.release());
}

} // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    reference_host::SetMaximumSeverity(0); // that a loop is ended is an error to the log
    if (argc != 3)
        return Report(Failure("usage: chat_client NAME PORT", 2));
    Guest guest;
    try {
        CClient client("127.0.0.1", atoi(argv[2]), guest);
        Say(client, argv[1]);
        for (std::string line; std::getline(std::cin, line);)
            Say(client, line);
        client.PostMessage(kLeave, 0, nullptr);
        WaitForSingleObject(client.m_hThread, INFINITE);
    } catch (CLogException* error) {
        const Failure failure(error->What());
        delete error;
        return Report(failure);
    }
}
