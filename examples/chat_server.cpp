// A chat: what one client says, all the others hear. A client's first frame is its name.
//
//     chat_server [PORT]       prints "listening on port PORT" and serves until SIGINT or SIGTERM
//
// Without a PORT the system chooses one. The server's thread calls the command target below for everything
// that happens, so nothing here needs a lock. A client that does not read makes the others wait; frame_client
// shows what a program does about that.

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <map>
#include <memory>
#include <string>

#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/SocketException.h>
#include <Windows/bstr.h>
#include <reference_host/reference_host.h>

#include "Common.h"

namespace {

class Chat : public CCmdTarget {
public:
    // The socket is ours from now on. It says its name first, and until then hears nothing.
    void ClientConnection(CSocket* socket) override {
        m_guests[socket->GetDescriptor()].socket.reset(socket);
    }

    // A frame has come, or the end of the connection.
    bool ClientActivity(int descriptor) override {
        Guest& guest = m_guests.at(descriptor);
        BSTR received = nullptr;
        const int length = guest.socket->Receive(received);
        const _bstr_t text(received, false);
        if (length < 0)
            return Leave(descriptor);
        if (length == 0)
            return true; // an empty frame
        if (guest.name.empty()) {
            guest.name = static_cast<const char*>(text);
            Tell("* " + guest.name + " is here");
        } else {
            Tell(guest.name + ": " + static_cast<const char*>(text));
        }
        return true;
    }

    // The only message of the server's queue: stop.
    bool RouteMessage(void*, bool) override {
        EndLoop();
        return true;
    }

private:
    struct Guest {
        std::unique_ptr<CSocket> socket;
        std::string name;
    };

    // Stops watching the descriptor.
    bool Leave(int descriptor) {
        const std::string name = m_guests.at(descriptor).name;
        m_guests.erase(descriptor);
        if (!name.empty())
            Tell("* " + name + " has left");
        return false;
    }

    void Tell(std::string text) {
        printf("%s\n", text.c_str());
        fflush(stdout);
        for (const auto& guest : m_guests)
            if (!guest.second.name.empty())
                guest.second.socket->Send(&text[0]); // one that fails is reported as closed soon
    }

    std::map<int, Guest> m_guests;
};

int PortOf(const CServer& server) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    getsockname(server.m_serverSocket.GetDescriptor(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

} // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    reference_host::SetMaximumSeverity(0); // that a loop is ended is an error to the log
    const StopSignals signals;             // before the first thread
    Chat chat;
    try {
        CServer server(argc > 1 ? atoi(argv[1]) : 0, chat);
        server.WaitUntilListening();
        printf("listening on port %d\n", PortOf(server));
        fflush(stdout);
        signals.Wait();
        server.PostMessage(WM_USER, 0, nullptr);
        WaitForSingleObject(server.m_hThread, INFINITE);
    } catch (SocketException& exception) {
        return Report(Failure(exception.Description()));
    }
}
