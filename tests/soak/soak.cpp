// Uses the library in rounds for as long as it is told, and notes every second, between two rounds, what the
// process holds.
//
//   soak MINUTES FILE
//
// In a round clients connect to a server, send texts, compare the replies, drop the connection in good order
// or not, and come back; a client thread does the same by messages; several threads post to one reader;
// strings, BSTRs and variants are made, shared and edited all along. At the end of a round its threads have
// ended and its connections are gone, so that the numbers can be compared.
//
// FILE gets a line a second, fields separated by tabs, their names in the first line. The status is 0 when
// nothing was lost or mixed up, 1 otherwise.
#include <dirent.h>
#include <malloc.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <Windows/Windows.h>
#include <reference_host/reference_host.h>

namespace {

const int kTalkers = 8;
const int kSessions = 10; // of each talker in a round
const int kPosters = 4;
const int kMessages = 5000; // of each poster in a round
const int kRequests = 200;  // of the client thread in a round

std::atomic<unsigned long> g_frames{0};
std::atomic<unsigned long> g_messages{0};
std::atomic<unsigned long> g_texts{0};
std::atomic<unsigned long> g_lost{0};
std::atomic<unsigned long> g_mixed{0};

// Each thread's own; the seed is the same in every run.
std::mt19937& Random() {
    static std::atomic<unsigned int> threads{0};
    static thread_local std::mt19937 generator(threads++);
    return generator;
}

int Below(int limit) { return static_cast<int>(Random()() % static_cast<unsigned int>(limit)); }

char* Characters(const XString& text) { return const_cast<char*>(static_cast<const char*>(text)); }

void WaitUntil(const std::function<bool()>& condition) {
    while (!condition()) {
        const timespec moment = {0, 1000000};
        nanosleep(&moment, nullptr);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Frames

// Answers each text with itself.
class Echo : public CCmdTarget {
public:
    int Connections() const { return m_connections; }

    void ClientConnection(CSocket* socket) override {
        m_sockets[socket->m_fd].reset(socket);
        m_connections++;
    }

    bool ClientActivity(int descriptor) override {
        BSTR received = nullptr;
        CSocket& socket = *m_sockets[descriptor];
        const bool answered = socket.Receive(received) >= 0 && socket.Send(received);
        SysFreeString(received);
        if (!answered) {
            m_sockets.erase(descriptor);
            m_connections--;
        }
        return answered;
    }

private:
    std::map<int, std::unique_ptr<CSocket>> m_sockets;
    std::atomic<int> m_connections{0};
};

// A text that no other looks like, made and edited by way of several strings.
XString NewText(int number) {
    XString text;
    text.Format("%d/%d:", number, Below(1000000));
    const XString shared(text);
    text += XString(static_cast<char>('a' + Below(26)), Below(20) == 0 ? Below(100000) : Below(200));
    text += shared.Mid(1) + "<end>";
    if (text.Find(static_cast<const char*>(shared)) != 0)
        g_mixed++;
    text.Replace("<end>", ".");
    g_texts += 4;
    return text;
}

void Compare(int result, const char* reply, const XString& text) {
    if (result < 0 || !reply)
        g_lost++;
    else if (text != reply)
        g_mixed++;
    else
        g_frames++;
}

// How a peer leaves.
void Leave(CClientSocket& socket) {
    const linger reset = {1, 0};
    const unsigned char half[] = {0, 0, 0, 9, 'x'};
    switch (Below(4)) {
    case 0: // before the reply
        socket.Send(Characters(NewText(0)));
        break;
    case 1: // in the middle of a frame
        static_cast<void>(send(socket.m_fd, half, 1 + static_cast<size_t>(Below(5)), MSG_NOSIGNAL));
        break;
    case 2:
        setsockopt(socket.m_fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        break;
    default:
        break;
    }
}

unsigned int Talk(void* port) {
    for (int session = 0; session < kSessions; session++) {
        CClientSocket socket;
        if (!socket.Connect("127.0.0.1", *static_cast<int*>(port))) {
            g_lost++;
            continue;
        }
        for (int i = Below(20); i >= 0; i--) {
            const XString text = NewText(i);
            BSTR reply = nullptr;
            const int result = socket.Send(Characters(text)) ? socket.Receive(reply) : -1;
            Compare(result, reply, text);
            SysFreeString(reply);
        }
        Leave(socket);
    }
    return 0;
}

// The client thread's end: sends the texts that are posted to it and compares the replies, which come in the
// order of the texts.
class Requests : public CCmdTarget {
public:
    CClient* client = nullptr;
    CEvent done{true, false};

    bool RouteMessage(void* message, bool) override {
        m_texts[m_sent] = std::unique_ptr<XString>(static_cast<XString*>(static_cast<MSG*>(message)->lParam));
        client->SendToServer(Characters(*m_texts[m_sent++]));
        return true;
    }

    bool ServerActivity() override {
        BSTR reply = nullptr;
        const int result = client->ReceiveFromServer(reply);
        const std::unique_ptr<XString> text = std::move(m_texts[m_received]);
        Compare(result, reply, text ? *text : XString());
        SysFreeString(reply);
        if (result < 0 || ++m_received == kRequests)
            done.SetEvent();
        return result >= 0;
    }

private:
    std::unique_ptr<XString> m_texts[kRequests];
    int m_sent = 0;
    int m_received = 0;
};

void RunClientThread(int port) {
    Requests requests;
    CClient client("127.0.0.1", port, requests);
    requests.client = &client;
    for (int i = 0; i < kRequests; i++)
        PostThreadMessage(client.m_nThreadID, WM_USER, 0, new XString(NewText(i)));
    requests.done.WaitForEventSignal(INFINITE, nullptr);
}

// ---------------------------------------------------------------------------------------------------------
// Messages

struct Poster {
    unsigned long reader;
    int number;

    static unsigned int Post(void* p) {
        const auto& self = *static_cast<Poster*>(p);
        for (long i = 0; i < kMessages; i++)
            if (PostThreadMessage(self.reader, WM_USER + static_cast<unsigned int>(self.number), 0,
                                  reinterpret_cast<void*>(i)) != 1)
                g_lost++;
        return 0;
    }
};

// Reads all that the posters post: each message once.
unsigned int Read(void*) {
    std::vector<bool> seen(kPosters * kMessages);
    for (int i = 0; i < kPosters * kMessages; i++) {
        MSG message;
        if (::GetMessage(&message, nullptr, 0, 0, 10000) != 1 || message.message == 0) {
            g_lost++;
            continue;
        }
        const auto place =
            (message.message - WM_USER) * kMessages + reinterpret_cast<unsigned long>(message.lParam);
        if (place >= seen.size() || seen[place])
            g_mixed++;
        else
            seen[place] = true;
        g_messages++;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------------------
// Texts

unsigned int Edit(void*) {
    for (int i = 0; i < 2000; i++) {
        const int number = Below(1000000);
        _variant_t variant(number);
        XString text;
        text.Format("%d", number);
        _bstr_t bstr(text);
        bstr += "!";
        BSTR copy = bstr.copy();
        if (variant.ChangeType(VT_BSTR) != S_OK || text != variant.bstrVal || XString(copy) != text + "!")
            g_mixed++;
        SysFreeString(copy);
        variant.Clear();
        CMemFile file;
        for (int line = 0; line < 10; line++)
            file.WriteF("%d,", number);
        if (file.GetLength() != 10 * static_cast<unsigned int>(text.GetLength() + 1))
            g_mixed++;
        g_texts += 16;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------------------
// Rounds

class Crew {
public:
    void Begin(AFX_THREADPROC work, void* argument) {
        m_threads.emplace_back(AfxBeginThread(work, argument));
    }

    unsigned long Id(size_t i) const { return m_threads[i]->m_nThreadID; }

    ~Crew() {
        for (const auto& thread : m_threads)
            WaitForSingleObject(thread->m_hThread, INFINITE);
    }

private:
    std::vector<std::unique_ptr<CWinThread>> m_threads;
};

void Round(int port) {
    Poster posters[kPosters];
    Crew crew;
    crew.Begin(Read, nullptr);
    for (int i = 0; i < kPosters; i++) {
        posters[i] = {crew.Id(0), i};
        crew.Begin(Poster::Post, &posters[i]);
    }
    for (int i = 0; i < kTalkers; i++)
        crew.Begin(Talk, &port);
    crew.Begin(Edit, nullptr);
    RunClientThread(port);
}

int Entries(const char* folder) {
    DIR* directory = opendir(folder);
    int count = -3; // ".", ".." and, among the descriptors, this folder
    while (readdir(directory))
        count++;
    closedir(directory);
    return count;
}

int Threads() { return Entries("/proc/self/task") + 1; }

unsigned long ResidentBytes() {
    unsigned long all = 0;
    unsigned long resident = 0;
    if (FILE* file = fopen("/proc/self/statm", "r")) {
        if (fscanf(file, "%lu %lu", &all, &resident) != 2)
            resident = 0;
        fclose(file);
    }
    return resident * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

double Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void Note(FILE* file, double seconds) {
    fprintf(file, "%.1f\t%lu\t%zu\t%d\t%d\t%lu\t%lu\t%lu\t%lu\t%lu\n", seconds, ResidentBytes(),
            mallinfo2().uordblks, Entries("/proc/self/fd"), Threads(), g_frames.load(), g_messages.load(),
            g_texts.load(), g_lost.load(), g_mixed.load());
    fflush(file);
}

int PortOf(const CSocket& socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(socket.m_fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

} // namespace

int main(int argc, char** argv) {
    FILE* file = argc == 3 ? fopen(argv[2], "w") : nullptr;
    if (!file) {
        fprintf(stderr, "usage: soak MINUTES FILE\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    reference_host::SetMaximumSeverity(0);
    fprintf(file, "seconds\tresident\theap\tdescriptors\tthreads\tframes\tmessages\ttexts\tlost\tmixed\n");

    Echo target;
    CServer server(0, target);
    const int port = PortOf(server.m_serverSocket);
    const int threads = Threads();
    const double begin = Now();
    const double end = begin + 60 * atof(argv[1]);
    for (double noted = begin; Now() < end;) {
        Round(port);
        if (Now() - noted < 1)
            continue;
        WaitUntil([&] { return target.Connections() == 0 && Threads() == threads; });
        noted = Now();
        Note(file, noted - begin);
    }
    fclose(file);
    printf("%lu frames, %lu messages, %lu texts; %lu lost, %lu mixed up\n", g_frames.load(),
           g_messages.load(), g_texts.load(), g_lost.load(), g_mixed.load());
    return g_lost + g_mixed == 0 ? 0 : 1;
}
