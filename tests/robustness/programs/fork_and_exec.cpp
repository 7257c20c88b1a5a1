// fork_and_exec COUNT COMMAND...
// fork_and_exec child
//
// Starts COMMAND, which starts this program as the child, so many times by fork and exec, while threads post,
// allocate and exchange frames. Each child prints the files that its descriptors refer to and exits with 42;
// the parent compares them with what it had open itself. All of its threads go on.
#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/Server.h>
#include <Windows/Socket.h>
#include <Windows/Windows.h>

#include "Programs.h"

namespace {

// "NUMBER FILE" of each descriptor.
std::set<std::string> Descriptors() {
    std::set<std::string> descriptors;
    for (const std::string& number : Names("/proc/self/fd")) {
        char file[256];
        const ssize_t length = readlink(("/proc/self/fd/" + number).c_str(), file, sizeof file);
        if (length > 0)
            descriptors.insert(number + " " + std::string(file, static_cast<size_t>(length)));
    }
    return descriptors;
}

int Child() {
    for (const std::string& descriptor : Descriptors())
        puts(descriptor.c_str());
    return 42;
}

// ---------------------------------------------------------------------------------------------------------
// What goes on meanwhile

std::atomic<bool> g_over{false};
std::atomic<int> g_posted{0}, g_got{0};

// A thread that counts its messages.
unsigned int Count(void*) {
    MSG message;
    while (GetMessage(&message, NULL, 0, 0) == 1 && message.message != WM_QUIT)
        g_got++;
    while (PeekMessage(&message, NULL, 0, 0, PM_NOREMOVE) == 1)
        g_got++;
    return 0;
}

unsigned int Post(void* p) {
    while (!g_over) {
        XString text("message");
        text += " and more";
        PostThreadMessage(static_cast<CWinThread*>(p)->GetThreadID(), WM_USER, 0, NULL);
        g_posted++;
        Pause();
    }
    return 0;
}

// The server's and the client's application: it answers each frame with the same, and so they go to and fro.
struct Echo : CCmdTarget {
    std::atomic<int> frames{0};
    std::map<int, CSocket*> sockets;
    CClient* client = NULL;

    void ClientConnection(CSocket* socket) override { sockets[socket->GetDescriptor()] = socket; }
    bool ClientActivity(int fd) override {
        BSTR text = NULL;
        if (sockets[fd]->Receive(text, false) <= 0)
            return false;
        sockets[fd]->Send(text);
        SysFreeString(text);
        return true;
    }
    bool RouteMessage(void*, bool) override { // the client's, to begin
        char hello[] = "hello";
        return client->SendToServer(hello);
    }
    bool ServerActivity() override {
        BSTR text = NULL;
        if (client->ReceiveFromServer(text, false) > 0) {
            frames++;
            client->SendToServer(text);
        }
        SysFreeString(text);
        return true;
    }
};

int Port(const CServer& server) {
    sockaddr_in address;
    socklen_t size = sizeof address;
    MUST(getsockname(server.m_serverSocket.m_fd, reinterpret_cast<sockaddr*>(&address), &size) == 0);
    return ntohs(address.sin_port);
}

// ---------------------------------------------------------------------------------------------------------
// The children

// What a child prints; it must exit with 42.
std::string OutputOf(char** command) {
    int ends[2];
    MUST(pipe(ends) == 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execv(command[0], command);
        _exit(1);
    }
    MUST(child > 0);
    close(ends[1]);
    std::string output;
    char bytes[4096];
    for (ssize_t count = 0; (count = read(ends[0], bytes, sizeof bytes)) != 0;)
        if (count > 0)
            output.append(bytes, static_cast<size_t>(count));
        else
            MUST(errno == EINTR);
    close(ends[0]);
    int status = 0;
    MUST(waitpid(child, &status, 0) == child);
    MUST(WIFEXITED(status) && WEXITSTATUS(status) == 42);
    return output;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "child") == 0)
        return Child();
    MUST(argc > 2);
    signal(SIGPIPE, SIG_IGN);

    const std::set<std::string> before = Descriptors();
    static Echo target;
    CServer* server = new CServer(0, target);
    MUST(server->WaitUntilListening(INFINITE) == 0);
    CClient* client = new CClient("127.0.0.1", Port(*server), target);
    target.client = client;
    MUST(PostThreadMessage(client->GetThreadID(), WM_USER, 0, NULL) == 1);
    CWinThread* counter = AfxBeginThread(Count, NULL);
    CWinThread* poster = AfxBeginThread(Post, counter);
    while (target.frames == 0 || g_got == 0)
        Pause();

    std::set<std::string> made; // by the library: four queues, three sockets
    for (const std::string& descriptor : Descriptors())
        if (!before.count(descriptor))
            made.insert(descriptor);
    MUST(made.size() == 4 * 2 + 3);
    for (int i = 0; i < atoi(argv[1]); i++) {
        const int frames = target.frames;
        const int got = g_got;
        const std::string inherited = "\n" + OutputOf(argv + 2);
        for (const std::string& descriptor : made)
            MUST(inherited.find("\n" + descriptor + "\n") != std::string::npos);
        while (target.frames == frames || g_got == got)
            Pause();
    }

    g_over = true;
    MUST(WaitForSingleObject(poster->m_hThread, INFINITE) == WAIT_OBJECT_0);
    MUST(PostThreadMessage(counter->GetThreadID(), WM_QUIT, 0, NULL) == 1);
    MUST(WaitForSingleObject(counter->m_hThread, INFINITE) == WAIT_OBJECT_0);
    delete poster;
    delete counter;
    MUST(g_got == g_posted);
    printf("all children have what this program has open, and its threads went on\n");
    fflush(stdout);
    _exit(0); // the server and the client still exchange frames
}
