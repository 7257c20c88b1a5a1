// As in Logger.cpp, everything at namespace scope is constant-initialised and has nothing to destroy.
#include <reference_host/internal/Timeline.h>

#include <errno.h>
#include <link.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include <host/Time.h>
#include <reference_host/internal/LogTypeName.h>
#include <reference_host/internal/TraceFile.h>
#include <reference_host/internal/Undisturbed.h>
#include <reference_host/reference_host.h>

namespace reference_host {

namespace timeline {

std::atomic<bool> isOn{false};

} // namespace timeline

namespace {

// --- The rows ------------------------------------------------------------------------------------------

enum class Slice { Thread, Message, ServerActivity, Connect, Post, Lock, Wait, Receive };

constexpr const char* kCategories[] = {"thread", "message", "client", "client",
                                       "post",   "lock",    "wait",   "frame"};

// Times of one thread are that far apart at least, which leaves room for an end that is found out later.
constexpr int64_t kStep = 2;

// What a message's reader logs from the lock of its queue until it reports the message: a lock that it holds
// while it reads, another inside, and both unlocked, two events each.
constexpr unsigned kEventsOfARead = 8;

// A thread's row. Only the thread itself writes to it, apart from the end of the trace; always with the
// mutex.
struct Row {
    struct Open {
        Slice slice;
        int64_t begin;
        char name[24];
    };

    unsigned trace; // the number of the trace that it is part of
    int thread;
    bool left; // the thread is beyond its destructors; nothing more of it can be shown
    bool isServer;
    bool isNamed;
    int depth;
    Open open[8];
    int locksOfPost;   // how many locks were taken since the post began
    long received;     // the length of the frame that is being received
    unsigned events;   // how many there were
    int64_t times[16]; // of the last ones
    Row* next;
};

thread_local Row ownRow;

std::mutex mutex; // guards all that follows
TraceFile file;
unsigned currentTrace = 0;
int process = 0;
Row* firstRow = nullptr;
pthread_key_t rowKey;
bool hasRowKey = false;

int64_t Now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The time of the event that was so many before the one that is being looked at; 0 if there was none.
int64_t TimeBefore(const Row& row, unsigned count) {
    return count > row.events || count >= std::size(row.times)
               ? 0
               : row.times[(row.events - count) % std::size(row.times)];
}

void WriteName(const Row& row, int64_t now, const char* name) {
    char text[64];
    snprintf(text, sizeof text, "%s 0x%x", name, static_cast<unsigned>(pthread_self())); // as the log has it
    TraceEvent event('M', process, row.thread, now);
    event.Text("name", "thread_name").Arguments().Text("name", text);
    file.Write(event);
}

void Begin(Row& row, int64_t now, Slice slice, const char* name) {
    if (row.depth == static_cast<int>(std::size(row.open)))
        return;
    Row::Open& open = row.open[row.depth++];
    open = {slice, now, {}};
    snprintf(open.name, sizeof open.name, "%s", name);
    TraceEvent event('B', process, row.thread, now);
    event.Text("cat", kCategories[static_cast<int>(slice)]).Text("name", name);
    file.Write(event);
}

bool IsInnermost(const Row& row, Slice slice) {
    return row.depth > 0 && row.open[row.depth - 1].slice == slice;
}

bool IsOpen(const Row& row, Slice slice) {
    return std::any_of(row.open, row.open + row.depth,
                       [slice](const Row::Open& open) { return open.slice == slice; });
}

// The end of the innermost slice, which takes it off the row. Some viewers go by its name.
TraceEvent EndOfInnermost(Row& row, int64_t time) {
    const Row::Open& open = row.open[--row.depth];
    TraceEvent event('E', process, row.thread, std::max(time, open.begin + 1));
    event.Text("cat", kCategories[static_cast<int>(open.slice)]).Text("name", open.name);
    return event;
}

void EndInnermost(Row& row, int64_t time) {
    TraceEvent event = EndOfInnermost(row, time);
    file.Write(event);
}

// Ends the slice and those inside it.
void End(Row& row, int64_t time, Slice slice) {
    while (IsOpen(row, slice))
        EndInnermost(row, time);
}

// --- Posts ---------------------------------------------------------------------------------------------

// A message carries the tick count of its post, and that is all that its reader logs of where it comes from.
struct Post {
    enum State : unsigned char {
        None,
        Exact,   // its message is the only one of that tick count that may be under way
        Ordered, // one of several of this thread, and some were read already
        Unknown  // there are such of other threads, and some were read already
    };

    State state;
    uint32_t tick;
    int thread;
    int64_t begin;
};

Post posts[1024];
unsigned postCount = 0;
uint32_t forgottenTick = 0; // posts of this tick count or an earlier one may have been forgotten
long arrowCount = 0;

bool IsLater(uint32_t tick, uint32_t other) { return static_cast<int32_t>(tick - other) > 0; }

void AddPost(uint32_t tick, const Row& row, int64_t begin) {
    Post& post = posts[postCount++ % std::size(posts)];
    if (post.state != Post::None && IsLater(post.tick, forgottenTick))
        forgottenTick = post.tick;
    post = {Post::Exact, tick, row.thread, begin};
}

// Takes the post of a message that was read: the only one, or the oldest of several of one thread.
Post TakePost(uint32_t tick) {
    Post* oldest = nullptr;
    Post::State state = Post::Exact;
    if (!IsLater(tick, forgottenTick))
        return {};
    const auto forEach = [tick](auto action) {
        for (unsigned number = postCount; number != postCount + std::size(posts); ++number) { // oldest first
            Post& post = posts[number % std::size(posts)];
            if (post.state != Post::None && post.tick == tick)
                action(post);
        }
    };
    forEach([&](Post& post) {
        if (oldest)
            state = std::max(state, post.thread == oldest->thread ? Post::Ordered : Post::Unknown);
        else
            oldest = &post;
        state = std::max(state, post.state);
    });
    if (!oldest)
        return {};
    Post taken = *oldest;
    taken.state = state;
    if (state != Post::Unknown)
        oldest->state = Post::None;
    forEach([state](Post& post) { post.state = state; });
    return taken;
}

void WriteArrowEnd(char phase, int thread, int64_t time, bool inferred) {
    TraceEvent event(phase, process, thread, time);
    event.Text("cat", inferred ? "arrow, inferred" : "arrow")
        .Text("name", "message")
        .Number("id", arrowCount);
    if (phase == 'f')
        event.Text("bp", "e"); // it ends in the slice that is open, not in the next
    file.Write(event);
}

void WriteArrow(const Post& post, const Row& row, int64_t now) {
    if (post.state != Post::Exact && post.state != Post::Ordered)
        return;
    ++arrowCount;
    WriteArrowEnd('s', post.thread, post.begin, post.state == Post::Ordered);
    WriteArrowEnd('f', row.thread, now, post.state == Post::Ordered);
}

// Where the library is.
std::atomic<uintptr_t> libraryBegin{0};
std::atomic<uintptr_t> libraryEnd{0};

int FindLibrary(dl_phdr_info* info, size_t, void*) {
    const char* const slash = strrchr(info->dlpi_name, '/');
    const char* const name = slash ? slash + 1 : info->dlpi_name;
    if (strncmp(name, "libWindows.so", strlen("libWindows.so")) != 0)
        return 0;
    uintptr_t begin = UINTPTR_MAX;
    uintptr_t end = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD)
            continue;
        begin = std::min<uintptr_t>(begin, info->dlpi_addr + segment.p_vaddr);
        end = std::max<uintptr_t>(end, info->dlpi_addr + segment.p_vaddr + segment.p_memsz);
    }
    libraryBegin.store(begin, std::memory_order_relaxed);
    libraryEnd.store(end, std::memory_order_relaxed);
    return 1;
}

bool IsLibrarys(const void* code) {
    const auto address = reinterpret_cast<uintptr_t>(code);
    return address >= libraryBegin.load(std::memory_order_relaxed) &&
           address < libraryEnd.load(std::memory_order_relaxed);
}

// --- Events of the log ---------------------------------------------------------------------------------

struct Event {
    Row& row;
    int64_t now;
    LogTypeEnum type;
    LogSeverityEnum severity;
    const char* text;
    const char* body; // of a frame, or the detail; may be NULL

    bool Begins(const char* start) const { return strncmp(text, start, strlen(start)) == 0; }
    bool Has(const char* part) const { return strstr(text, part) != nullptr; }

    // The number behind a part of the text, which is there.
    long NumberBehind(const char* part) const {
        return strtol(strstr(text, part) + strlen(part), nullptr, 10);
    }
};

const char* CategoryOf(LogTypeEnum type) {
    const char* const name = NameOf(type);
    return name ? name : "host";
}

void ShowAs(const Event& shown, const char* name, const char* category) {
    TraceEvent event('i', process, shown.row.thread, shown.now);
    event.Text("s", "t").Text("cat", category).Text("name", name);
    event.Arguments().Number("severity", shown.severity);
    if (name != shown.text && *shown.text)
        event.Text("event", shown.text);
    if (shown.body)
        event.Text("text", shown.body);
    file.Write(event);
}

void Show(const Event& event) { ShowAs(event, event.text, CategoryOf(event.type)); }

void Ignore(const Event&) {}

void BeginLock(const Event& event) { Begin(event.row, event.now, Slice::Lock, "lock"); }

void EndLock(const Event& event) {
    const bool locked = event.Has("returning true");
    if (!locked)
        ShowAs(event, "not locked", "lock");
    End(event.row, event.now + 1, Slice::Lock);
    if (locked && IsInnermost(event.row, Slice::Post))
        ++event.row.locksOfPost;
}

// A post ends with its outer lock.
void Unlocked(const Event& event) {
    ShowAs(event, "unlock", "lock");
    if (IsInnermost(event.row, Slice::Post) && --event.row.locksOfPost <= 0)
        End(event.row, event.now + 1, Slice::Post);
}

void NotUnlocked(const Event& event) {
    Show(event);
    End(event.row, event.now + 1, Slice::Post);
}

// The handling of a message ended before its thread began to read the next one.
void EndMessage(const Event& event) {
    End(event.row, TimeBefore(event.row, kEventsOfARead + 1) + 1, Slice::Message);
}

void ReadMessage(const Event& event) {
    EndMessage(event);
    char name[32];
    snprintf(name, sizeof name, "message %u", static_cast<unsigned>(event.NumberBehind("message ")));
    Begin(event.row, event.now, Slice::Message, name);
    WriteArrow(TakePost(static_cast<uint32_t>(event.NumberBehind(" time "))), event.row, event.now);
    if (event.row.isServer) // whose log does not tell what it does for the message from what it does next
        End(event.row, event.now + 1, Slice::Message);
}

void ReadQuit(const Event& event) {
    EndMessage(event);
    Show(event);
}

void EndWork(const Event& event) {
    while (event.row.depth > 1)
        EndInnermost(event.row, event.now - 1);
    Show(event);
}

void NameServer(const Event& event) {
    event.row.isServer = true;
    WriteName(event.row, event.now, "CServer");
    Show(event);
}

// The client's thread reports each step of its loop, so that the next one ends what the last one began.
void ClientStep(const Event& event) {
    if (!event.row.isNamed)
        WriteName(event.row, event.now, "CClient");
    event.row.isNamed = true;
    End(event.row, event.now - 1, Slice::Message);
    End(event.row, event.now - 1, Slice::ServerActivity);
    if (event.Has("calling select"))
        Begin(event.row, event.now, Slice::Wait, "wait");
    else if (event.Has("Message on thread's pipe"))
        Begin(event.row, event.now, Slice::Message, "message");
    else if (event.Has("Data has arrived"))
        Begin(event.row, event.now, Slice::ServerActivity, "server activity");
    else
        Show(event);
}

void BeginConnect(const Event& event) { Begin(event.row, event.now, Slice::Connect, "connect"); }

void EndConnect(const Event& event) { End(event.row, event.now, Slice::Connect); }

void BeginWait(const Event& event) { Begin(event.row, event.now, Slice::Wait, "wait for a frame"); }

void BeginReceive(const Event& event) {
    event.row.received = 0;
    if (event.NumberBehind("returned ") > 0)
        Begin(event.row, event.now, Slice::Receive, "receive frame");
    else
        Show(event);
}

void LengthReceived(const Event& event) {
    event.row.received = event.NumberBehind("returning: ");
    if (event.row.received < 1)
        End(event.row, event.now, Slice::Receive);
}

void ReceivedFrame(const Event& event) {
    ShowAs(event, "frame received", "frame");
    if (!IsInnermost(event.row, Slice::Receive))
        return;
    TraceEvent end = EndOfInnermost(event.row, event.now + 1);
    end.Arguments().Number("bytes", event.row.received);
    file.Write(end);
}

void FailedToReceive(const Event& event) {
    Show(event);
    End(event.row, event.now + 1, Slice::Receive);
}

void SentFrame(const Event& event) {
    if (event.severity < LogSeverityInformation) // it has failed, or there was nothing to do
        Show(event);
    else
        ShowAs(event, "frame sent", "frame");
}

// What the library's events mean, by how their text begins. All others are instants.
struct Meaning {
    const char* start;
    void (*apply)(const Event&);
    bool insideReceive; // it may stand between the length of a frame and the frame
};

constexpr Meaning kMeanings[] = {
    {"CMutex::Lock Being Called", BeginLock, true},
    {"CMutex::Lock returning", EndLock, true},
    {"CMutex::UnLock Being Called", Ignore, true},
    {"CMutex::Unlock succeeeded", Unlocked, true},
    {"FAILED to unlock mutex", NotUnlocked, true},
    {"FAILED to lock mutex", Show, true},
    {"CWinThread::GetMessage Received message", ReadMessage, false},
    {"CWinThread::GetMessage : received WM_QUIT", ReadQuit, false},
    {"CWinThread::Body() -  Exiting", EndWork, false},
    {"CServer::Main (thread is now active", NameServer, false},
    {"CClient::Main() fd ", ClientStep, false},
    {"CClient::CClient() : Attempting to connect", BeginConnect, false},
    {"+++++++++++++++++CClient::CClient() : Connection established", EndConnect, false},
    {"CSocket::ReceiveLength Now blocking with select", BeginWait, false},
    {"CSocket::ReceiveLength recv call returned", BeginReceive, false},
    {"Exiting CSocket::ReceiveLength returning", LengthReceived, true},
    {"CSocket::Receive() on ", ReceivedFrame, true},
    {"CSocket::Receive() binary data on ", ReceivedFrame, true},
    {"CSocket::Receive() : ", FailedToReceive, true},
    {"CSocket::Send() on ", SentFrame, false},
    {"CSocket::SendBlock() on ", SentFrame, false},
    {"CSocket::SendMemFileWithLengthPrefix() on ", SentFrame, false},
    {"Failed to set blocking mode", Show, true},
};

const Meaning& MeaningOf(const Event& event) {
    static constexpr Meaning kNone = {"", Show, false};
    for (const Meaning& meaning : kMeanings)
        if (event.Begins(meaning.start))
            return meaning;
    return kNone;
}

// --- Entering and leaving ------------------------------------------------------------------------------

void EndRow(Row& row, int64_t now) {
    while (row.depth > 0)
        EndInnermost(row, now);
}

// The destructor of a thread's row, also of one that is cancelled.
void Leave(void* pointer) {
    const Undisturbed undisturbed;
    Row& row = *static_cast<Row*>(pointer);
    const std::lock_guard<std::mutex> lock(mutex);
    row.left = true;
    for (Row** link = &firstRow; *link; link = &(*link)->next) {
        if (*link != &row)
            continue;
        EndRow(row, std::max(Now(), TimeBefore(row, 1) + kStep));
        *link = row.next;
        return;
    }
}

void BeginRow(Row& row, int64_t now) {
    row = {};
    row.trace = currentTrace;
    row.thread = static_cast<int>(syscall(SYS_gettid));
    row.next = firstRow;
    firstRow = &row;
    pthread_setspecific(rowKey, &row);
    WriteName(row, now, row.thread == process ? "main thread" : "thread");
    Begin(row, now, Slice::Thread, "thread");
}

// Calls action with the thread's row and the time, unless the trace has ended meanwhile.
template <class Action> void Enter(Action action) {
    const Undisturbed undisturbed;
    const int64_t clock = Now();
    const std::lock_guard<std::mutex> lock(mutex);
    Row& row = ownRow;
    if (!file.IsOpen() || row.left)
        return;
    if (row.trace != currentTrace)
        BeginRow(row, clock - 1);
    const int64_t now = std::max(clock, TimeBefore(row, 1) + kStep);
    if (IsInnermost(row, Slice::Wait))
        EndInnermost(row, now - 1);
    action(row, now);
    row.times[row.events++ % std::size(row.times)] = now;
    if (!file.IsOpen())
        timeline::isOn.store(false, std::memory_order_relaxed);
}

// Messages of a tick count up to this time after the beginning may have been posted without being noticed.
constexpr unsigned long kSettlingMs = 2;

bool BeginLocked(const char* path) {
    if (!hasRowKey && (errno = pthread_key_create(&rowKey, Leave)) != 0)
        return false;
    hasRowKey = true;
    if (!file.Open(path))
        return false;
    process = getpid();
    ++currentTrace;
    dl_iterate_phdr(FindLibrary, nullptr);
    TraceEvent name('M', process, process, Now());
    name.Text("name", "process_name").Arguments().Text("name", program_invocation_short_name);
    file.Write(name);
    std::fill(std::begin(posts), std::end(posts), Post{});
    timeline::isOn.store(true);
    forgottenTick = static_cast<uint32_t>(GetTickCount() + kSettlingMs - 1);
    return true;
}

void EndLocked() {
    timeline::isOn.store(false, std::memory_order_relaxed);
    const int64_t now = Now();
    for (Row* row = firstRow; row; row = row->next)
        EndRow(*row, std::max(now, TimeBefore(*row, 1) + kStep));
    firstRow = nullptr;
    file.Close();
}

__attribute__((constructor)) void BeginFromEnvironment() {
    const char* const path = secure_getenv("REFERENCE_HOST_TRACE");
    if (path && *path && !TraceToFile(path))
        fprintf(stderr, "cannot trace to %s: %s\n", path, strerror(errno));
}

__attribute__((destructor)) void EndAtExit() { EndTrace(); }

} // namespace

bool TraceToFile(const char* path) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        EndLocked();
        if (!BeginLocked(path))
            return false;
    }
    // What the caller posts from now on gets its arrow.
    const Undisturbed undisturbed;
    Sleep(kSettlingMs);
    return true;
}

void EndTrace() {
    const Undisturbed undisturbed;
    const std::lock_guard<std::mutex> lock(mutex);
    EndLocked();
}

namespace timeline {

void Log(LogTypeEnum type, LogSeverityEnum severity, const char* text, const char* detail) {
    Enter([&](Row& row, int64_t now) {
        const Event event = {row, now, type, severity, text ? text : "", detail};
        const Meaning& meaning = MeaningOf(event);
        if (IsInnermost(row, Slice::Receive) && !meaning.insideReceive) // given up without a word
            EndInnermost(row, TimeBefore(row, 1) + 1);
        meaning.apply(event);
    });
}

void LogFormatted(LogTypeEnum type, LogSeverityEnum severity, const char* format, va_list args,
                  const char* body) {
    const Undisturbed undisturbed;
    char text[512];
    const bool valid = vsnprintf(text, sizeof text, format, args) >= 0;
    Log(type, severity, valid ? text : format, body);
}

void TickCount(unsigned long tick, const void* caller) {
    if (!IsLibrarys(caller))
        return;
    Enter([tick](Row& row, int64_t now) {
        row.locksOfPost = 0;
        Begin(row, now, Slice::Post, "post");
        AddPost(static_cast<uint32_t>(tick), row, now);
    });
}

void Error(const char* where, const char* what) {
    Enter([where, what](Row& row, int64_t now) {
        End(row, now - 1, Slice::Connect);
        ShowAs({row, now, LogTypeGeneral, LogSeverityFailure, "", where}, what, "error");
    });
}

} // namespace timeline

} // namespace reference_host
