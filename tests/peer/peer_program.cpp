// The library's end of the connections that tests/system/peer.py and reach.py make.
//
//   peer_program server        listens, and answers each text frame with its text. Prints "port N".
//   peer_program client PORT   connects to 127.0.0.1 and prints "connected", and of each frame that arrives
//                              "received RESULT TEXT": the result of the receive function, and the text in
//                              hexadecimal digits. For each line of its standard input "text TEXT" or
//                              "letters COUNT" it sends a frame, and prints "sent RESULT".
//
// Both end when their standard input does, with status 0. With PEER_PROGRAM_LOG in the environment they show
// on standard error what the library logs; with PEER_PROGRAM_DEBUG the host is in debug mode.
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/SocketException.h>
#include <Windows/bstr.h>
#include <Windows/synchelpers.h>
#include <host/host.h>
#include <reference_host/reference_host.h>

namespace {

// The messages of a thread's queue: to send a text, which the receiver of the message deletes, and to end.
const unsigned int SEND = 1;
const unsigned int STOP = 2;

void Print(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

void Stop(CWinThread& thread) {
    PostThreadMessage(thread.m_nThreadID, STOP, 0, nullptr);
    WaitForSingleObject(thread.m_hThread, INFINITE);
}

CWinThread& OwnThread() { return *CWinThread::MapIdToWinThread(GetCurrentThreadId()); }

void EndOwnLoop() {
    close(OwnThread().m_readDesc);
    OwnThread().m_readDesc = -1;
}

int Port(const CSocket& socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(socket.m_fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

class Echo : public CCmdTarget {
    void ClientConnection(CSocket* socket) override { m_sockets[socket->m_fd].reset(socket); }

    bool ClientActivity(int fd) override {
        BSTR received = nullptr;
        const int result = m_sockets[fd]->Receive(received);
        _bstr_t text(received, false);
        if (result >= 0 && m_sockets[fd]->Send(text))
            return true;
        m_sockets.erase(fd);
        return false;
    }

    bool RouteMessage(void*, bool) override {
        EndOwnLoop();
        return true;
    }

    std::map<int, std::unique_ptr<CSocket>> m_sockets;
};

class Reporter : public CCmdTarget {
    static CClient& Client() { return static_cast<CClient&>(OwnThread()); }

    bool ServerActivity() override {
        BSTR received = nullptr;
        const int result = Client().ReceiveFromServer(received);
        const _bstr_t text(received, false);
        std::string line = "received " + std::to_string(result) + " ";
        for (const char* p = text; p && *p; p++) {
            const char digits[] = "0123456789abcdef";
            line += digits[static_cast<unsigned char>(*p) >> 4];
            line += digits[*p & 15];
        }
        Print(line);
        return result >= 0;
    }

    bool RouteMessage(void* message, bool) override {
        const MSG& received = *static_cast<MSG*>(message);
        if (received.message == STOP) {
            EndOwnLoop();
            return true;
        }
        const std::unique_ptr<std::string> text(static_cast<std::string*>(received.lParam));
        Print("sent " + std::to_string(Client().SendToServer(&(*text)[0])));
        return true;
    }
};

std::string Letters(size_t count) {
    std::string letters(count, '\0');
    for (size_t i = 0; i < count; i++)
        letters[i] = static_cast<char>('a' + i % 26);
    return letters;
}

int Serve() {
    Echo target;
    CServer server(0, target);
    Print("port " + std::to_string(Port(server.m_serverSocket)));
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    Stop(server);
    return 0;
}

int Connect(int port) {
    Reporter target;
    CClient client("127.0.0.1", port, target);
    Print("connected");
    std::string line;
    while (std::getline(std::cin, line)) {
        const std::string argument = line.substr(line.find(' ') + 1);
        const bool letters = line.compare(0, 8, "letters ") == 0;
        PostThreadMessage(client.m_nThreadID, SEND, 0,
                          new std::string(letters ? Letters(std::stoul(argument)) : argument));
    }
    Stop(client);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    reference_host::SetMaximumSeverity(getenv("PEER_PROGRAM_LOG") ? 9 : 0);
    reference_host::SetDebugEnabled(getenv("PEER_PROGRAM_DEBUG") != nullptr);
    try {
        if (argc == 2 && !strcmp(argv[1], "server"))
            return Serve();
        if (argc == 3 && !strcmp(argv[1], "client"))
            return Connect(atoi(argv[2]));
        fprintf(stderr, "usage: peer_program server | peer_program client PORT\n");
        return 2;
    } catch (SocketException& exception) {
        fprintf(stderr, "peer_program: %s\n", exception.Description());
    } catch (CLogException* error) {
        fprintf(stderr, "peer_program: %s\n", error->What());
        delete error;
    }
    return 1;
}
