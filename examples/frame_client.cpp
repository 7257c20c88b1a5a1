// Sends the lines of a file to frame_server and checks the replies.
//
//     main thread ----- messages ----> client's thread ----- frames ----> frame_server
//     reads FILE                       sends, receives, compares
//
// Nothing here polls or sleeps, and memory stays bounded: the main thread waits when it is too far ahead of
// the client's thread, and that one when it is too far ahead of the server.

#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <Windows/Client.h>
#include <Windows/CmdTarget.h>
#include <Windows/SingleLock.h>
#include <Windows/bstr.h>
#include <Windows/event.h>
#include <host/ErrorObject.h>
#include <host/Time.h>

#include "Common.h"
#include "Helper.h"
#include "LineFile.h"

namespace {

constexpr char kUsage[] =
    "usage: frame_client --services TABLE --service NAME [--log] FILE\n"
    "\n"
    "Sends each line of FILE that is not empty to a frame_server and checks the replies.\n"
    "\n"
    "  --services TABLE  a text file with a line \"name address port\" for each service\n"
    "  --service NAME    the service to connect to\n"
    "  --log             shows on standard error what the library logs\n"
    "\n"
    "The last line of output is \"N lines sent, N replies received, M mismatches\".\n"
    "Status: 0 if all is well, 2 for a wrong command line, 128 + N after signal N, else 1.\n";

constexpr char kServerClosed[] = "the server closed the connection";
constexpr unsigned int kReplyLimitMs = 30000;

// How many bytes may wait for the client's thread, and at most for their replies. A single line always may.
constexpr size_t kWindow = 65536;

// What a line costs besides its bytes. A frame takes about that much more of a buffer of the connection, too.
constexpr size_t kLineCost = 1024;

struct Line {
    unsigned long number; // 1 is the first that is sent
    std::string text;

    size_t Cost() const { return kLineCost + text.size(); }
};

bool Fits(size_t used, size_t cost, size_t limit) { return used == 0 || used + cost <= limit; }

// Messages of the client's queue.
enum : unsigned int {
    kSendLine = 1, // lParam is a Line, which belongs to the receiver
    kFinish        // the last one: receive what is missing and end
};

// Counts the bytes that wait in the client's queue, and has the main thread wait for room there.
class QueueSpace {
public:
    // Main thread: takes room for a line, false if the queue is closed.
    bool Take(size_t cost) {
        for (;;) {
            {
                const CSingleLock lock(&m_mutex);
                if (m_closed)
                    return false;
                if (Fits(m_used, cost, kWindow)) {
                    m_used += cost;
                    return true;
                }
                m_changed.ResetEvent();
            }
            m_changed.WaitForEventSignal(INFINITE, nullptr);
        }
    }

    // Client's thread.
    void GiveBack(size_t cost) {
        const CSingleLock lock(&m_mutex);
        m_used -= cost;
        m_changed.SetEvent();
    }

    // Any thread: no more lines are wanted.
    void Close() {
        const CSingleLock lock(&m_mutex);
        m_closed = true;
        m_changed.SetEvent();
    }

private:
    CMutex m_mutex;
    CEvent m_changed{true, false};
    size_t m_used WINDOWS_GUARDED_BY(m_mutex) = 0;
    bool m_closed WINDOWS_GUARDED_BY(m_mutex) = false;
};

// Undoes the escaping. Nothing if the text is not properly escaped.
std::optional<std::string> Unescape(std::string_view escaped) {
    struct Entity {
        std::string_view name;
        char character;
    };
    static constexpr Entity kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&apos;", '\''}, {"&quot;", '"'}};

    std::string text;
    for (;;) {
        const size_t plain = std::min(escaped.find_first_of("<>&'\""), escaped.size());
        text.append(escaped, 0, plain);
        escaped.remove_prefix(plain);
        if (escaped.empty())
            return text;
        const Entity* entity =
            std::find_if(std::begin(kEntities), std::end(kEntities), [escaped](const Entity& candidate) {
                return escaped.substr(0, candidate.name.size()) == candidate.name;
            });
        if (entity == std::end(kEntities))
            return std::nullopt;
        text += entity->character;
        escaped.remove_prefix(entity->name.size());
    }
}

bool IsReply(std::string_view document, const Line& line) {
    const std::string start = "<line number=\"" + std::to_string(line.number) + "\" length=\"" +
                              std::to_string(line.text.size()) + "\">";
    const std::string_view end = "</line>";
    if (document.size() < start.size() + end.size() || document.substr(0, start.size()) != start ||
        document.substr(document.size() - end.size()) != end)
        return false;
    document.remove_prefix(start.size());
    document.remove_suffix(end.size());
    return Unescape(document) == line.text;
}

// Works on the client's thread. When that has ended, the counts may be read.
class LineSender : public CCmdTarget {
public:
    explicit LineSender(QueueSpace& space) : m_space(space) {}

    bool RouteMessage(void* pMsg, bool) override {
        const auto* message = static_cast<const MSG*>(pMsg);
        if (message->message == kSendLine)
            Send(std::unique_ptr<Line>(static_cast<Line*>(message->lParam)));
        else
            Finish();
        return true;
    }

    bool ServerActivity() override { return ReceiveReply(); }

    // Any other thread: has whatever waits for the server fail.
    void Disconnect() { shutdown(m_descriptor, SHUT_RDWR); }

    unsigned long Sent() const { return m_sent; }
    unsigned long Replies() const { return m_replies; }
    unsigned long Mismatches() const { return m_mismatches; }

    // Why not everything was sent and answered.
    const char* Problem() const { return m_problem ? m_problem : kServerClosed; }

private:
    // The registry of threads knows the client, as this is its thread.
    CClient& Client() {
        auto* client = static_cast<CClient*>(CWinThread::MapIdToWinThread(GetCurrentThreadId()));
        m_descriptor = client->m_clientSocket.GetDescriptor();
        return *client;
    }

    // How much may be unanswered. The client must not wait in send() while the server has replies to send: if
    // the server waited there as well, neither would ever read. So what is unanswered fits into the send
    // buffer, or it is a single line, which the server reads to its end before it replies.
    size_t Window() {
        int size = 0;
        socklen_t length = sizeof(size);
        getsockopt(Client().m_clientSocket.GetDescriptor(), SOL_SOCKET, SO_SNDBUF, &size, &length);
        return std::min(kWindow, static_cast<size_t>(size));
    }

    void Send(std::unique_ptr<Line> line) {
        const size_t cost = line->Cost();
        m_space.GiveBack(cost);
        while (!m_problem && !Fits(m_unansweredCost, cost, Window()))
            ReceiveReply();
        if (m_problem)
            return;
        if (!Client().SendToServer(line->text.data())) {
            Fail(kServerClosed);
            return;
        }
        ++m_sent;
        m_unansweredCost += cost;
        m_unanswered.push_back(std::move(*line));
    }

    // False when there will be no more of them.
    bool ReceiveReply() {
        BSTR received = nullptr;
        const int length = Client().ReceiveFromServer(received, true, kReplyLimitMs);
        _bstr_t reply(received, false);
        if (length <= 0) {
            Fail(length == 0 ? "the server does not answer" : kServerClosed);
            m_unanswered.clear();
            // Unread data would keep the client's thread turning for ever.
            m_descriptor = -1;
            Client().m_clientSocket.Close();
            return false;
        }
        ++m_replies;
        if (m_unanswered.empty()) {
            ++m_mismatches;
            return true;
        }
        const Line& line = m_unanswered.front();
        if (reply.length() != length || !IsReply(static_cast<const char*>(reply), line))
            ++m_mismatches;
        m_unansweredCost -= line.Cost();
        m_unanswered.pop_front();
        return true;
    }

    void Finish() {
        while (!m_unanswered.empty() && ReceiveReply()) {
        }
        EndLoop();
    }

    // The lines that are still in the queue are left out.
    void Fail(const char* problem) {
        if (!m_problem)
            m_problem = problem;
        m_space.Close();
    }

    QueueSpace& m_space;
    std::atomic<int> m_descriptor{-1};
    std::deque<Line> m_unanswered;
    size_t m_unansweredCost = 0;
    unsigned long m_sent = 0;
    unsigned long m_replies = 0;
    unsigned long m_mismatches = 0;
    const char* m_problem = nullptr;
};

std::unique_ptr<CClient> Connect(const std::string& service, CCmdTarget& target) {
    std::string reason;
    try {
        return std::make_unique<CClient>(service.c_str(), target);
    } catch (CLogException* error) {
        reason = error->What();
        delete error;
    }
    throw Failure("cannot reach service " + service + ": " + reason);
}

// The client and what ends it. Two threads wait for what the main thread cannot wait for when it waits for
// room: a signal, and the end of the client's thread, which ends by itself when the connection is reset.
class Session {
public:
    Session(const Arguments& arguments, const StopSignals& signals)
        : m_signalWatcher(signals, [this, &signals] { Stop(signals); }),
          m_client(Connect(arguments.service, m_sender)), m_endWatcher([this] {
              WaitForSingleObject(m_client->m_hThread, INFINITE);
              m_space.Close();
          }) {
        m_constructed = true;
        if (!m_client->IsConnected()) {
            End();
            throw Failure("no service " + arguments.service + " in " + arguments.services);
        }
    }

    ~Session() { End(); }

    // False when no more lines are wanted.
    bool Post(std::string text) {
        auto line = std::make_unique<Line>(Line{m_posted + 1, std::move(text)});
        if (!m_space.Take(line->Cost()) ||
            !PostThreadMessage(m_client->m_nThreadID, kSendLine, 0, line.get()))
            return false;
        static_cast<void>(line.release()); // the client's thread owns it
        ++m_posted;
        return true;
    }

    // Waits for the missing replies and ends the client's thread.
    void End() {
        PostThreadMessage(m_client->m_nThreadID, kFinish, 0, nullptr);
        WaitForSingleObject(m_client->m_hThread, INFINITE);
        MSG message;
        while (m_client->PeekMessage(&message, 0, 0)) // what a thread that ended by itself has left behind
            delete static_cast<Line*>(message.lParam);
    }

    unsigned long Posted() const { return m_posted; }

    // After End().
    const LineSender& Result() const { return m_sender; }

private:
    void Stop(const StopSignals& signals) {
        if (!m_constructed) // connecting can take minutes and cannot be interrupted
            _exit(Report(*signals.Arrived()));
        m_space.Close();
        m_sender.Disconnect();
    }

    QueueSpace m_space;
    LineSender m_sender{m_space};
    unsigned long m_posted = 0;
    std::atomic<bool> m_constructed{false};
    SignalWatcher m_signalWatcher;
    const std::unique_ptr<CClient> m_client;
    Helper m_endWatcher;
};

// A line on the terminal, ten times a second.
class Progress {
public:
    explicit Progress(bool wanted) : m_shown(wanted && isatty(STDERR_FILENO)) {}
    ~Progress() {
        if (m_shown)
            fputs("\r\033[K", stderr);
    }

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Add() {
        ++m_lines;
        if (!m_shown || GetTickCount() - m_lastTick < 100)
            return;
        m_lastTick = GetTickCount();
        fprintf(stderr, "\r%lu lines", m_lines);
    }

private:
    const bool m_shown;
    unsigned long m_lines = 0;
    unsigned long m_lastTick = 0;
};

// False when the session ended before the file.
bool PostLines(LineFile& file, Session& session, bool showProgress) {
    Progress progress(showProgress);
    std::string line;
    while (file.Read(line)) {
        if (line.empty())
            continue;
        if (!session.Post(std::move(line)))
            return false;
        progress.Add();
    }
    return true;
}

int SendFile(const Arguments& arguments, const StopSignals& signals) {
    LineFile file(arguments.file, signals);
    Session session(arguments, signals);
    bool complete = false;
    std::optional<Failure> failure;
    try {
        complete = PostLines(file, session, !arguments.log);
    } catch (const Failure& caught) {
        failure = caught;
    }
    session.End();

    const LineSender& result = session.Result();
    printf("%lu lines sent, %lu replies received, %lu mismatches\n", result.Sent(), result.Replies(),
           result.Mismatches());
    if (fflush(stdout) != 0)
        throw Failure("cannot write to standard output");
    if (failure)
        throw *failure;
    if (!complete || result.Replies() < session.Posted()) {
        signals.ThrowIfArrived();
        throw Failure(result.Problem());
    }
    return result.Mismatches() == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) { return RunProgram({kUsage, true, SendFile}, argc, argv); }
