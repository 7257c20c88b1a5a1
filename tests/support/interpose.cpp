#include "support/interpose.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <type_traits>

#include "support/blocks.h"
#include "support/monitor.h"
#include "support/text.h"

// Code that may run before the runtime of a sanitizer is ready. Atomics in it are built-ins, as functions
// of the standard library would be instrumented.
#define EARLY __attribute__((no_sanitize("address", "thread", "undefined")))

// ---------------------------------------------------------------------------------------------------------
// Scripts and logs

struct Interpose::State {
    enum Action { Nothing, FailWith, ReturnValue, ShortCount };

    Call call;
    int first = 1;
    int last = 1;
    int fd = -1;
    bool oneThread = false;
    pthread_t thread = 0;
    std::function<bool(const CallRecord&)> predicate;
    Action action = Nothing;
    long value = 0;
    std::function<void()> before;
    std::function<void()> after;
    int seen = 0;
    int acted = 0;
    int running = 0; // callbacks

    bool HasNothingToDo() const { return action == Nothing && !before && !after; }
};

struct CallLog::State {
    std::vector<Call> calls;
    bool oneThread = false;
    pthread_t thread = 0;
    std::vector<CallRecord> records;
    unsigned cleared = 0; // so that a call that began before Clear() does not finish another one's record
};

namespace {

const int CALL_COUNT = static_cast<int>(Call::ArrayDelete) + 1;

// How many scripts and logs look at each call.
int g_watchers[CALL_COUNT];

__thread int t_bypass;

// Guards all that follows, and the states of all scripts and logs.
Monitor g_monitor;

std::vector<std::shared_ptr<Interpose::State>>& Scripts() {
    static auto* scripts = new std::vector<std::shared_ptr<Interpose::State>>;
    return *scripts;
}

std::vector<std::shared_ptr<CallLog::State>>& Logs() {
    static auto* logs = new std::vector<std::shared_ptr<CallLog::State>>;
    return *logs;
}

// Where a shared object that is loaded at this address lies; nowhere for 0.
struct Range {
    EARLY explicit Range(uintptr_t base) : begin(base), end(base) {
        if (base == 0)
            return;
        const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(base);
        const auto* segment = reinterpret_cast<const ElfW(Phdr)*>(base + header->e_phoff);
        for (int i = 0; i < header->e_phnum; i++)
            if (segment[i].p_type == PT_LOAD)
                end = base + segment[i].p_vaddr + segment[i].p_memsz; // ascending
    }

    // The object that a function is in, if there is that function.
    EARLY static Range Around(void* function) {
        Dl_info info;
        return Range(function && dladdr(function, &info) ? reinterpret_cast<uintptr_t>(info.dli_fbase) : 0);
    }

    EARLY bool Contains(const void* address) const {
        const uintptr_t value = reinterpret_cast<uintptr_t>(address);
        return value >= begin && value < end;
    }

    uintptr_t begin;
    uintptr_t end;
};

// The runtimes of sanitizers call the C library for their checks and reports, and must not be disturbed.
extern "C" {
__attribute__((weak)) void* __interceptor_malloc(size_t);
__attribute__((weak)) void __ubsan_handle_dynamic_type_cache_miss_abort();
}

EARLY bool IsRuntime(const void* caller) {
    static const Range sanitizer = Range::Around(reinterpret_cast<void*>(__interceptor_malloc));
    static const Range undefinedBehavior =
        Range::Around(reinterpret_cast<void*>(__ubsan_handle_dynamic_type_cache_miss_abort));
    return sanitizer.Contains(caller) || undefinedBehavior.Contains(caller);
}

EARLY inline bool IsWatchedFrom(const void* caller, Call call) {
    return __atomic_load_n(&g_watchers[static_cast<int>(call)], __ATOMIC_RELAXED) != 0 && t_bypass == 0 &&
           !IsRuntime(caller);
}

// To be used in the interposed function itself.
#define IsWatched(call) IsWatchedFrom(__builtin_return_address(0), call)

void Watch(Call call, int change) {
    __atomic_add_fetch(&g_watchers[static_cast<int>(call)], change, __ATOMIC_RELAXED);
}

bool ReturnsItsError(Call call) { return call >= Call::PthreadCreate && call <= Call::CondSignal; }

// What scripts and logs make of one call.
class Observation {
public:
    Observation(CallRecord record) {
        Monitor::Lock lock(g_monitor);
        m_data = new Data;
        m_data->record = std::move(record);
        for (const auto& script : Scripts())
            if (Counts(*script) && !m_data->script)
                m_data->script = script;
        for (const auto& log : Logs())
            if ((!log->oneThread || pthread_equal(log->thread, m_data->record.thread)) &&
                std::count(log->calls.begin(), log->calls.end(), m_data->record.call)) {
                m_data->logs.push_back({log, log->records.size(), log->cleared});
                log->records.push_back(m_data->record);
            }
        if (m_data->script) {
            m_data->script->acted++;
            m_action = m_data->script->action;
            m_value = m_data->script->value;
        }
        g_monitor.NotifyAll();
    }

    ~Observation() {
        Bypass bypass;
        delete m_data;
    }

    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

    Interpose::State::Action Action() const { return m_action; }
    long Value() const { return m_value; }

    void Before() { Run(&Interpose::State::before); }

    void After(long result, int error) {
        if (!m_data->logs.empty()) {
            Monitor::Lock lock(g_monitor);
            for (const Logged& logged : m_data->logs) {
                if (logged.cleared != logged.log->cleared)
                    continue;
                CallRecord& record = logged.log->records[logged.index];
                record.finished = true;
                record.result = result;
                record.error = error;
            }
        }
        Run(&Interpose::State::after);
    }

private:
    struct Logged {
        std::shared_ptr<CallLog::State> log;
        size_t index;
        unsigned cleared;
    };

    bool Counts(Interpose::State& script) const {
        const CallRecord& record = m_data->record;
        if (script.call != record.call || (script.fd != -1 && script.fd != record.fd) ||
            (script.oneThread && !pthread_equal(script.thread, record.thread)) ||
            (script.predicate && !script.predicate(record)))
            return false;
        script.seen++;
        const bool acts = script.action != Interpose::State::Nothing || script.before || script.after;
        return acts && script.seen >= script.first && script.seen <= script.last;
    }

    // Runs a callback of the script, unless its Interpose object is gone; that object's destructor waits for
    // the callback.
    void Run(std::function<void()> Interpose::State::*callback) {
        if (!m_data->script)
            return;
        Bypass bypass;
        Interpose::State& script = *m_data->script;
        struct Running {
            ~Running() {
                Monitor::Lock lock(g_monitor);
                function = nullptr;
                script.running--;
                g_monitor.NotifyAll();
            }
            Interpose::State& script;
            std::function<void()> function;
        } running{script, nullptr};
        {
            Monitor::Lock lock(g_monitor);
            script.running++;
            if (std::count(Scripts().begin(), Scripts().end(), m_data->script))
                running.function = script.*callback;
        }
        if (running.function)
            running.function();
    }

    // On the heap, as it must be made and released within a Bypass and the observed call is outside.
    struct Data {
        CallRecord record;
        std::shared_ptr<Interpose::State> script;
        std::vector<Logged> logs;
    };

    Data* m_data;
    Interpose::State::Action m_action = Interpose::State::Nothing;
    long m_value = 0;
};

template <class Result> bool IsFailure(Call call, Result result) {
    if constexpr (std::is_pointer_v<Result>)
        return !result;
    else
        return !ReturnsItsError(call) && result == static_cast<Result>(-1);
}

template <class Result> long AsLong(Result result) {
    if constexpr (std::is_pointer_v<Result>)
        return reinterpret_cast<long>(result);
    else
        return static_cast<long>(result);
}

template <class Result> Result FromLong(long value) {
    if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return static_cast<Result>(value);
}

// Performs a watched call. describe makes the text; real performs the call, with a byte count.
template <class Result, class Describe, class Real>
Result Observe(Call call, int fd, long number, long flags, Describe describe, Real real) {
    const int errorBefore = errno;
    CallRecord record{call, fd, number, flags, pthread_self(), {}};
    {
        Bypass bypass;
        record.text = describe();
    }
    Observation observation(std::move(record));
    observation.Before();
    Result result;
    errno = errorBefore;
    switch (observation.Action()) {
    case Interpose::State::FailWith:
        if (ReturnsItsError(call)) {
            result = FromLong<Result>(observation.Value());
        } else {
            result = FromLong<Result>(-1);
            errno = static_cast<int>(observation.Value());
        }
        break;
    case Interpose::State::ReturnValue:
        result = FromLong<Result>(observation.Value());
        break;
    case Interpose::State::ShortCount:
        result = real(std::min(number, observation.Value()));
        break;
    default:
        result = real(number);
    }
    const int errorAfter = errno;
    observation.After(AsLong(result), IsFailure(call, result) ? errorAfter : 0);
    errno = errorAfter;
    return result;
}

// ---------------------------------------------------------------------------------------------------------
// The real functions

// RTLD_NEXT finds the oldest of several versions of a symbol. Those that have changed name the one they mean.
EARLY __attribute__((noinline)) const char* VersionOf(const char* name) {
    if (strncmp(name, "pthread_cond_", 13) == 0)
        return "GLIBC_2.3.2";
#if defined(__i386__) || (defined(__powerpc__) && !defined(__powerpc64__))
    if (strcmp(name, "fopen") == 0)
        return "GLIBC_2.1";
#endif
#if defined(__powerpc__)
    if (strcmp(name, "vsnprintf") == 0)
        return "GLIBC_2.4";
#endif
    return nullptr;
}

// The next definition behind the test program's: a sanitizer's or the C library's.
EARLY void* FindNext(const char* name) {
    t_bypass++;
    void* next = dlsym(RTLD_NEXT, name);
    if (!next)
        abort();
    if (const char* version = VersionOf(name)) {
        void* versioned = dlvsym(RTLD_NEXT, name, version);
        Dl_info nextInfo, versionedInfo;
        if (versioned && dladdr(next, &nextInfo) && dladdr(versioned, &versionedInfo) &&
            nextInfo.dli_fbase == versionedInfo.dli_fbase) // else a sanitizer's definition comes first
            next = versioned;
    }
    t_bypass--;
    return next;
}

EARLY inline void* Resolve(void** slot, const char* name) {
    void* next = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (!next) {
        const int error = errno;
        next = FindNext(name);
        errno = error;
        __atomic_store_n(slot, next, __ATOMIC_RELAXED);
    }
    return next;
}

template <auto Function> void* g_real;

#define REAL(name) (reinterpret_cast<decltype(&::name)>(Resolve(&g_real<&::name>, #name)))

// ---------------------------------------------------------------------------------------------------------
// Texts

struct Name {
    long value;
    const char* name;
};

template <size_t N> std::string Named(const Name (&names)[N], long value) {
    for (const Name& name : names)
        if (name.value == value)
            return name.name;
    return Text("%ld", value);
}

template <size_t N> std::string NamedBits(const Name (&names)[N], long value) {
    std::string text;
    const auto add = [&](const std::string& name) { text += (text.empty() ? "" : "|") + name; };
    for (const Name& name : names)
        if (value & name.value) {
            add(name.name);
            value &= ~name.value;
        }
    if (value || text.empty())
        add(Text(value ? "0x%lx" : "%ld", value));
    return text;
}

std::string MessageFlags(int flags) {
    static const Name names[] = {
        {MSG_PEEK, "MSG_PEEK"},
        {MSG_DONTWAIT, "MSG_DONTWAIT"},
        {MSG_WAITALL, "MSG_WAITALL"},
        {MSG_NOSIGNAL, "MSG_NOSIGNAL"},
    };
    return flags ? ", " + NamedBits(names, flags) : "";
}

std::string FcntlText(int command, long argument) {
    static const Name commands[] = {
        {F_GETFL, "F_GETFL"}, {F_SETFL, "F_SETFL"}, {F_GETFD, "F_GETFD"},
        {F_SETFD, "F_SETFD"}, {F_DUPFD, "F_DUPFD"}, {F_DUPFD_CLOEXEC, "F_DUPFD_CLOEXEC"},
    };
    static const Name modes[] = {
        {O_WRONLY, "O_WRONLY"},
        {O_RDWR, "O_RDWR"},
        {O_APPEND, "O_APPEND"},
        {O_NONBLOCK, "O_NONBLOCK"},
    };
    const std::string name = "fcntl(" + Named(commands, command);
    if (command == F_GETFL || command == F_GETFD)
        return name + ")";
    if (command == F_SETFL) // without a bit that comes from the 64-bit system below an emulator
        return name + ", " + NamedBits(modes, argument & ~static_cast<long>(O_LARGEFILE)) + ")";
    return name + ", " + Text("%ld", argument) + ")";
}

std::string Family(int family) {
    static const Name families[] = {{AF_UNIX, "AF_UNIX"}, {AF_INET, "AF_INET"}, {AF_INET6, "AF_INET6"}};
    return Named(families, family);
}

std::string SocketType(int type) {
    static const Name types[] = {{SOCK_STREAM, "SOCK_STREAM"}, {SOCK_DGRAM, "SOCK_DGRAM"}};
    return Named(types, type);
}

const sockaddr_in* AsInternet(const sockaddr* address, socklen_t length) {
    const bool is = address && length >= sizeof(sockaddr_in) && address->sa_family == AF_INET;
    return is ? reinterpret_cast<const sockaddr_in*>(address) : nullptr;
}

long Port(const sockaddr* address, socklen_t length) {
    const sockaddr_in* internet = AsInternet(address, length);
    return internet ? ntohs(internet->sin_port) : -1;
}

std::string Address(const char* call, const sockaddr* address, socklen_t length) {
    char name[INET_ADDRSTRLEN];
    const sockaddr_in* internet = AsInternet(address, length);
    if (!internet || !inet_ntop(AF_INET, &internet->sin_addr, name, sizeof name))
        return Text("%s(?)", call);
    return Text("%s(%s:%u)", call, name, ntohs(internet->sin_port));
}

std::string Timeout(const timeval* timeout) {
    return timeout ? Text("select(%ld.%06ld)", static_cast<long>(timeout->tv_sec),
                          static_cast<long>(timeout->tv_usec))
                   : "select(NULL)";
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// The interposed functions

extern "C" {

EARLY int pipe(int fds[2]) noexcept {
    if (!IsWatched(Call::Pipe))
        return REAL(pipe)(fds);
    return Observe<int>(
        Call::Pipe, -1, 0, 0, [] { return "pipe()"; }, [&](size_t) { return REAL(pipe)(fds); });
}

// The argument of fcntl and ioctl is a pointer or an int; as a pointer both arrive whole.
EARLY int fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (!IsWatched(Call::Fcntl))
        return REAL(fcntl)(fd, command, argument);
    const bool none = command == F_GETFL || command == F_GETFD;
    const long number = none ? 0 : static_cast<int>(reinterpret_cast<intptr_t>(argument));
    return Observe<int>(
        Call::Fcntl, fd, number, command, [&] { return FcntlText(command, number); },
        [&](size_t) { return REAL(fcntl)(fd, command, argument); });
}

EARLY int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* argument = va_arg(args, void*);
    va_end(args);
    if (!IsWatched(Call::Ioctl))
        return REAL(ioctl)(fd, request, argument);
    static const Name requests[] = {{static_cast<long>(FIONREAD), "FIONREAD"},
                                    {static_cast<long>(FIONBIO), "FIONBIO"}};
    return Observe<int>(
        Call::Ioctl, fd, 0, request,
        [&] { return "ioctl(" + Named(requests, static_cast<long>(request)) + ")"; },
        [&](size_t) { return REAL(ioctl)(fd, request, argument); });
}

EARLY int select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout) {
    if (!IsWatched(Call::Select))
        return REAL(select)(count, readable, writable, failed, timeout);
    return Observe<int>(
        Call::Select, -1, count, 0, [&] { return Timeout(timeout); },
        [&](size_t) { return REAL(select)(count, readable, writable, failed, timeout); });
}

EARLY ssize_t read(int fd, void* buffer, size_t size) {
    if (!IsWatched(Call::Read))
        return REAL(read)(fd, buffer, size);
    return Observe<ssize_t>(
        Call::Read, fd, size, 0, [&] { return Text("read(%zu)", size); },
        [&](size_t limit) { return REAL(read)(fd, buffer, limit); });
}

EARLY ssize_t write(int fd, const void* buffer, size_t size) {
    if (!IsWatched(Call::Write))
        return REAL(write)(fd, buffer, size);
    return Observe<ssize_t>(
        Call::Write, fd, size, 0, [&] { return Text("write(%zu)", size); },
        [&](size_t limit) { return REAL(write)(fd, buffer, limit); });
}

EARLY int close(int fd) {
    if (!IsWatched(Call::Close))
        return REAL(close)(fd);
    return Observe<int>(
        Call::Close, fd, 0, 0, [] { return "close()"; }, [&](size_t) { return REAL(close)(fd); });
}

EARLY int dup(int fd) noexcept {
    if (!IsWatched(Call::Dup))
        return REAL(dup)(fd);
    return Observe<int>(
        Call::Dup, fd, 0, 0, [] { return "dup()"; }, [&](size_t) { return REAL(dup)(fd); });
}

EARLY int socket(int domain, int type, int protocol) noexcept {
    if (!IsWatched(Call::Socket))
        return REAL(socket)(domain, type, protocol);
    return Observe<int>(
        Call::Socket, -1, type, domain,
        [&] {
            return Text("socket(%s, %s, %d)", Family(domain).c_str(), SocketType(type).c_str(), protocol);
        },
        [&](size_t) { return REAL(socket)(domain, type, protocol); });
}

EARLY int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    if (!IsWatched(Call::Setsockopt))
        return REAL(setsockopt)(fd, level, option, value, length);
    int number = 0;
    if (value && length == sizeof number)
        memcpy(&number, value, sizeof number);
    return Observe<int>(
        Call::Setsockopt, fd, number, option,
        [&] { return Text("setsockopt(%d, %d, %d)", level, option, number); },
        [&](size_t) { return REAL(setsockopt)(fd, level, option, value, length); });
}

EARLY int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    if (!IsWatched(Call::Bind))
        return REAL(bind)(fd, address, length);
    return Observe<int>(
        Call::Bind, fd, Port(address, length), 0, [&] { return Address("bind", address, length); },
        [&](size_t) { return REAL(bind)(fd, address, length); });
}

EARLY int listen(int fd, int backlog) noexcept {
    if (!IsWatched(Call::Listen))
        return REAL(listen)(fd, backlog);
    return Observe<int>(
        Call::Listen, fd, backlog, 0, [&] { return Text("listen(%d)", backlog); },
        [&](size_t) { return REAL(listen)(fd, backlog); });
}

EARLY int accept(int fd, sockaddr* address, socklen_t* length) {
    if (!IsWatched(Call::Accept))
        return REAL(accept)(fd, address, length);
    return Observe<int>(
        Call::Accept, fd, 0, 0, [] { return "accept()"; },
        [&](size_t) { return REAL(accept)(fd, address, length); });
}

EARLY int connect(int fd, const sockaddr* address, socklen_t length) {
    if (!IsWatched(Call::Connect))
        return REAL(connect)(fd, address, length);
    return Observe<int>(
        Call::Connect, fd, Port(address, length), 0, [&] { return Address("connect", address, length); },
        [&](size_t) { return REAL(connect)(fd, address, length); });
}

EARLY ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    if (!IsWatched(Call::Recv))
        return REAL(recv)(fd, buffer, size, flags);
    return Observe<ssize_t>(
        Call::Recv, fd, size, flags, [&] { return Text("recv(%zu%s)", size, MessageFlags(flags).c_str()); },
        [&](size_t limit) { return REAL(recv)(fd, buffer, limit, flags); });
}

EARLY ssize_t send(int fd, const void* buffer, size_t size, int flags) {
    if (!IsWatched(Call::Send))
        return REAL(send)(fd, buffer, size, flags);
    return Observe<ssize_t>(
        Call::Send, fd, size, flags, [&] { return Text("send(%zu%s)", size, MessageFlags(flags).c_str()); },
        [&](size_t limit) { return REAL(send)(fd, buffer, limit, flags); });
}

EARLY int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                         void* argument) noexcept {
    if (!IsWatched(Call::PthreadCreate))
        return REAL(pthread_create)(thread, attributes, function, argument);
    const int error = Observe<int>(
        Call::PthreadCreate, -1, 0, 0, [] { return "pthread_create()"; },
        [&](size_t) { return REAL(pthread_create)(thread, attributes, function, argument); });
    if (error != 0)
        memset(thread, 0x5A, sizeof *thread); // the id is undefined then
    return error;
}

EARLY int pthread_cancel(pthread_t thread) {
    if (!IsWatched(Call::PthreadCancel))
        return REAL(pthread_cancel)(thread);
    return Observe<int>(
        Call::PthreadCancel, -1, 0, 0, [] { return "pthread_cancel()"; },
        [&](size_t) { return REAL(pthread_cancel)(thread); });
}

EARLY int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int kind) noexcept {
    if (!IsWatched(Call::MutexattrSettype))
        return REAL(pthread_mutexattr_settype)(attributes, kind);
    return Observe<int>(
        Call::MutexattrSettype, -1, kind, 0, [&] { return Text("pthread_mutexattr_settype(%d)", kind); },
        [&](size_t) { return REAL(pthread_mutexattr_settype)(attributes, kind); });
}

EARLY int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
    if (!IsWatched(Call::MutexInit))
        return REAL(pthread_mutex_init)(mutex, attributes);
    return Observe<int>(
        Call::MutexInit, -1, 0, 0, [] { return "pthread_mutex_init()"; },
        [&](size_t) { return REAL(pthread_mutex_init)(mutex, attributes); });
}

EARLY int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    if (!IsWatched(Call::CondWait))
        return REAL(pthread_cond_wait)(condition, mutex);
    return Observe<int>(
        Call::CondWait, -1, 0, 0, [] { return "pthread_cond_wait()"; },
        [&](size_t) { return REAL(pthread_cond_wait)(condition, mutex); });
}

EARLY int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* end) {
    if (!IsWatched(Call::CondTimedwait))
        return REAL(pthread_cond_timedwait)(condition, mutex, end);
    return Observe<int>(
        Call::CondTimedwait, -1, 0, 0, [] { return "pthread_cond_timedwait()"; },
        [&](size_t) { return REAL(pthread_cond_timedwait)(condition, mutex, end); });
}

// Functions of one pthread object, and nothing to tell about it.
#define PTHREAD_FUNCTION(name, type, call)                                                                   \
    EARLY int name(type object) noexcept {                                                                   \
        if (!IsWatched(call))                                                                                \
            return REAL(name)(object);                                                                       \
        return Observe<int>(                                                                                 \
            call, -1, 0, 0, [] { return #name "()"; }, [&](size_t) { return REAL(name)(object); });          \
    }

PTHREAD_FUNCTION(pthread_detach, pthread_t, Call::PthreadDetach)
PTHREAD_FUNCTION(pthread_mutex_lock, pthread_mutex_t*, Call::MutexLock)
PTHREAD_FUNCTION(pthread_mutex_trylock, pthread_mutex_t*, Call::MutexTrylock)
PTHREAD_FUNCTION(pthread_mutex_unlock, pthread_mutex_t*, Call::MutexUnlock)
PTHREAD_FUNCTION(pthread_cond_broadcast, pthread_cond_t*, Call::CondBroadcast)
PTHREAD_FUNCTION(pthread_cond_signal, pthread_cond_t*, Call::CondSignal)

EARLY int sched_yield() noexcept {
    if (!IsWatched(Call::SchedYield))
        return REAL(sched_yield)();
    return Observe<int>(
        Call::SchedYield, -1, 0, 0, [] { return "sched_yield()"; },
        [](size_t) { return REAL(sched_yield)(); });
}

EARLY unsigned int sleep(unsigned int seconds) {
    if (!IsWatched(Call::Sleep))
        return REAL(sleep)(seconds);
    return Observe<unsigned int>(
        Call::Sleep, -1, seconds, 0, [&] { return Text("sleep(%u)", seconds); },
        [&](size_t) { return REAL(sleep)(seconds); });
}

EARLY FILE* fopen(const char* path, const char* mode) {
    if (!IsWatched(Call::Fopen))
        return REAL(fopen)(path, mode);
    return Observe<FILE*>(
        Call::Fopen, -1, 0, 0, [&] { return Text("fopen(%s, %s)", path, mode); },
        [&](size_t) { return REAL(fopen)(path, mode); });
}

EARLY int inet_pton(int family, const char* text, void* address) noexcept {
    if (!IsWatched(Call::InetPton))
        return REAL(inet_pton)(family, text, address);
    return Observe<int>(
        Call::InetPton, -1, 0, family,
        [&] { return Text("inet_pton(%s, %s)", Family(family).c_str(), text); },
        [&](size_t) { return REAL(inet_pton)(family, text, address); });
}

EARLY int vsnprintf(char* buffer, size_t size, const char* format, va_list args) noexcept {
    if (!IsWatched(Call::Vsnprintf))
        return REAL(vsnprintf)(buffer, size, format, args);
    va_list copy; // a lambda cannot capture the array that va_list may be
    va_copy(copy, args);
    const int result = Observe<int>(
        Call::Vsnprintf, -1, size, 0, [&] { return Text("vsnprintf(%zu)", size); },
        [&](size_t) { return REAL(vsnprintf)(buffer, size, format, copy); });
    va_end(copy);
    return result;
}

} // extern "C"

// ---------------------------------------------------------------------------------------------------------
// Allocation

namespace {

__thread AllocationCounter::Counts t_counts;
__thread int t_failIn; // counts down to the allocation that fails; 0 when none shall
__thread FailAllocation::Kind t_failKind;
__thread bool t_failed;

EARLY inline bool MustFail(FailAllocation::Kind kind) {
    if (t_failIn == 0 || t_bypass != 0 || (t_failKind != FailAllocation::Any && t_failKind != kind) ||
        --t_failIn != 0)
        return false;
    t_failed = true;
    return true;
}

// Every block of malloc's and new's passes these two.
#ifdef __SANITIZE_ADDRESS__

extern "C" void __lsan_ignore_object(const void*);

// The dynamic linker keeps blocks where LeakSanitizer does not look, which therefore goes by who called
// malloc. It would see only ours, so tell it.
EARLY void* Track(void* block, void* caller) {
    static const Range linker(getauxval(AT_BASE));
    if (block && linker.Contains(caller))
        __lsan_ignore_object(block);
    return block;
}

EARLY inline void Untrack(const void*) {}

#elif defined(__SANITIZE_THREAD__)

EARLY inline void* Track(void* block, void*) { return block; }

EARLY inline void Untrack(const void*) {}

#else

inline void* Track(void* block, void* caller) {
    LibraryBlocks::Born(block, caller);
    return block;
}

inline void Untrack(const void* block) { LibraryBlocks::Gone(block); }

#endif

EARLY inline void Count(int& counter, const void* block) {
    if (block && t_bypass == 0)
        counter++;
}

} // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZED 1
#define RAW(name) __interceptor_##name
#else
#define SANITIZED 0
#define RAW(name) __libc_##name
#endif

#ifdef __GLIBC__

extern "C" {

void* RAW(malloc)(size_t);
void* RAW(calloc)(size_t, size_t);
void* RAW(realloc)(void*, size_t);
void RAW(free)(void*);

EARLY void* malloc(size_t size) noexcept {
    if (MustFail(FailAllocation::OnlyMalloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = IsWatched(Call::Malloc)
                      ? Observe<void*>(
                            Call::Malloc, -1, size, 0, [&] { return Text("malloc(%zu)", size); },
                            [&](size_t) { return RAW(malloc)(size); })
                      : RAW(malloc)(size);
    Count(t_counts.mallocs, block);
    return Track(block, __builtin_return_address(0));
}

EARLY void* calloc(size_t count, size_t size) noexcept {
    if (MustFail(FailAllocation::OnlyMalloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = IsWatched(Call::Calloc) ? Observe<void*>(
                                                Call::Calloc, -1, count * size, 0,
                                                [&] { return Text("calloc(%zu, %zu)", count, size); },
                                                [&](size_t) { return RAW(calloc)(count, size); })
                                          : RAW(calloc)(count, size);
    Count(t_counts.mallocs, block);
    return Track(block, __builtin_return_address(0));
}

EARLY void* realloc(void* old, size_t size) noexcept {
    const bool frees = old && size == 0;
    if (!frees && MustFail(FailAllocation::OnlyMalloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    Untrack(old); // first, as its address may be another thread's afterwards
    void* block = IsWatched(Call::Realloc)
                      ? Observe<void*>(
                            Call::Realloc, -1, size, 0, [&] { return Text("realloc(%zu)", size); },
                            [&](size_t) { return RAW(realloc)(old, size); })
                      : RAW(realloc)(old, size);
    if (frees)
        Count(t_counts.frees, old);
    else
        Count(old ? t_counts.reallocs : t_counts.mallocs, block);
    if (!block && !frees)
        Track(old, __builtin_return_address(0));
    return Track(block, __builtin_return_address(0));
}

EARLY void free(void* block) noexcept {
    Count(t_counts.frees, block);
    Untrack(block);
    if (!IsWatched(Call::Free)) {
        RAW(free)(block);
        return;
    }
    Observe<int>(
        Call::Free, -1, 0, 0, [] { return "free()"; },
        [&](size_t) {
            RAW(free)(block);
            return 0;
        });
}

} // extern "C"

#endif

namespace {

// The operators behind ours. A sanitizer's own tell new from malloc; without one they are malloc and free,
// passing ours by.
#if SANITIZED

enum RealOperator { NewOperator, ArrayNewOperator, DeleteOperator, ArrayDeleteOperator, OPERATOR_COUNT };
void* g_realOperators[OPERATOR_COUNT];

EARLY void* RealNew(size_t size, bool array) {
    const char* names[] = {"_Znwm", "_Znwj", "_Znam", "_Znaj"};
    void* next = Resolve(&g_realOperators[array ? ArrayNewOperator : NewOperator],
                         names[2 * array + (sizeof(size_t) != 8)]);
    return reinterpret_cast<void* (*)(size_t)>(next)(size);
}

EARLY void RealDelete(void* block, bool array) noexcept {
    void* next =
        Resolve(&g_realOperators[array ? ArrayDeleteOperator : DeleteOperator], array ? "_ZdaPv" : "_ZdlPv");
    reinterpret_cast<void (*)(void*)>(next)(block);
}

#else

EARLY void* RealNew(size_t size, bool) {
    for (;;) {
#ifdef __GLIBC__
        void* block = RAW(malloc)(size ? size : 1);
#else
        void* block = malloc(size ? size : 1);
#endif
        if (block)
            return block;
        const std::new_handler handler = std::get_new_handler();
        if (!handler)
            throw std::bad_alloc();
        handler();
    }
}

EARLY void RealDelete(void* block, bool) noexcept {
#ifdef __GLIBC__
    RAW(free)(block);
#else
    free(block);
#endif
}

#endif

EARLY void* New(size_t size, bool array, void* caller) {
    if (MustFail(FailAllocation::OnlyNew))
        throw std::bad_alloc();
    const Call call = array ? Call::ArrayNew : Call::New;
    void* block = nullptr;
    if (!IsWatched(call)) {
        block = RealNew(size, array);
    } else {
        const char* name = array ? "operator new[]" : "operator new";
        block = Observe<void*>(
            call, -1, size, 0, [&] { return Text("%s(%zu)", name, size); },
            [&](size_t) { return RealNew(size, array); });
        if (!block)
            throw std::bad_alloc();
    }
    Count(array ? t_counts.arrayNews : t_counts.news, block);
    return Track(block, caller);
}

EARLY void* NewOrNull(size_t size, bool array, void* caller) noexcept {
    try {
        return New(size, array, caller);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

EARLY void Delete(void* block, bool array) noexcept {
    Count(array ? t_counts.arrayDeletes : t_counts.deletes, block);
    Untrack(block);
    const Call call = array ? Call::ArrayDelete : Call::Delete;
    if (!IsWatched(call)) {
        RealDelete(block, array);
        return;
    }
    const char* name = array ? "operator delete[]()" : "operator delete()";
    Observe<int>(
        call, -1, 0, 0, [&] { return name; },
        [&](size_t) {
            RealDelete(block, array);
            return 0;
        });
}

} // namespace

EARLY void* operator new(size_t size) { return New(size, false, __builtin_return_address(0)); }

EARLY void* operator new[](size_t size) { return New(size, true, __builtin_return_address(0)); }

EARLY void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return NewOrNull(size, false, __builtin_return_address(0));
}

EARLY void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return NewOrNull(size, true, __builtin_return_address(0));
}

EARLY void operator delete(void* block) noexcept { Delete(block, false); }

EARLY void operator delete[](void* block) noexcept { Delete(block, true); }

EARLY void operator delete(void* block, size_t) noexcept { Delete(block, false); }

EARLY void operator delete[](void* block, size_t) noexcept { Delete(block, true); }

EARLY void operator delete(void* block, const std::nothrow_t&) noexcept { Delete(block, false); }

EARLY void operator delete[](void* block, const std::nothrow_t&) noexcept { Delete(block, true); }

// ---------------------------------------------------------------------------------------------------------
// Interpose

Interpose::Interpose(Call call) {
    Monitor::Lock lock(g_monitor);
    m_state = std::make_shared<State>();
    m_state->call = call;
    Scripts().push_back(m_state);
    Watch(call, 1);
}

Interpose::~Interpose() {
    Monitor::Lock lock(g_monitor);
    Watch(m_state->call, -1);
    auto& scripts = Scripts();
    scripts.erase(std::remove(scripts.begin(), scripts.end(), m_state), scripts.end());
    if (!g_monitor.Wait(lock, Deadline::Long(), [this] { return m_state->running == 0; })) {
        fprintf(stderr, "An Interpose object was destroyed while its callback ran, which does not end.\n");
        abort();
    }
    m_state->before = m_state->after = nullptr;
    m_state->predicate = nullptr;
    m_state.reset();
}

Interpose& Interpose::OnCall(int n) {
    Monitor::Lock lock(g_monitor);
    m_state->first = m_state->last = n;
    return *this;
}

Interpose& Interpose::FromCall(int n) {
    Monitor::Lock lock(g_monitor);
    m_state->first = n;
    m_state->last = __INT_MAX__;
    return *this;
}

Interpose& Interpose::Always() { return FromCall(1); }

Interpose& Interpose::OnDescriptor(int fd) {
    Monitor::Lock lock(g_monitor);
    m_state->fd = fd;
    m_state->seen = 0; // other descriptors' calls may have come before
    return *this;
}

Interpose& Interpose::OnThread(pthread_t thread) {
    Monitor::Lock lock(g_monitor);
    m_state->oneThread = true;
    m_state->thread = thread;
    m_state->seen = 0; // and other threads'
    return *this;
}

Interpose& Interpose::OnThisThread() { return OnThread(pthread_self()); }

Interpose& Interpose::When(std::function<bool(const CallRecord&)> predicate) {
    Monitor::Lock lock(g_monitor);
    m_state->predicate = std::move(predicate);
    m_state->seen = 0;
    return *this;
}

// A call may have come since the script was made.
void Interpose::CountFromNow() {
    if (m_state->HasNothingToDo())
        m_state->seen = 0;
}

Interpose& Interpose::Fail(int error) {
    Monitor::Lock lock(g_monitor);
    CountFromNow();
    m_state->action = State::FailWith;
    m_state->value = error;
    return *this;
}

Interpose& Interpose::Return(long result) {
    Monitor::Lock lock(g_monitor);
    CountFromNow();
    m_state->action = State::ReturnValue;
    m_state->value = result;
    return *this;
}

Interpose& Interpose::Short(size_t count) {
    Monitor::Lock lock(g_monitor);
    CountFromNow();
    m_state->action = State::ShortCount;
    m_state->value = static_cast<long>(count);
    return *this;
}

Interpose& Interpose::Before(std::function<void()> function) {
    Monitor::Lock lock(g_monitor);
    CountFromNow();
    m_state->before = std::move(function);
    return *this;
}

Interpose& Interpose::After(std::function<void()> function) {
    Monitor::Lock lock(g_monitor);
    CountFromNow();
    m_state->after = std::move(function);
    return *this;
}

int Interpose::Seen() const {
    Monitor::Lock lock(g_monitor);
    return m_state->seen;
}

int Interpose::Acted() const {
    Monitor::Lock lock(g_monitor);
    return m_state->acted;
}

bool Interpose::WaitActed(int count, const Deadline& deadline) const {
    Monitor::Lock lock(g_monitor);
    return g_monitor.Wait(lock, deadline, [&] { return m_state->acted >= count; });
}

bool Interpose::MallocAvailable() {
#ifdef __GLIBC__
    return true;
#else
    return false;
#endif
}

const char* Interpose::MallocReason() { return "malloc cannot be interposed with this C library"; }

// ---------------------------------------------------------------------------------------------------------
// CallLog

CallLog::CallLog(Threads threads)
    : CallLog({Call::Pipe, Call::Fcntl, Call::Ioctl, Call::Select, Call::Read, Call::Write, Call::Close,
               Call::Dup, Call::Socket, Call::Setsockopt, Call::Bind, Call::Listen, Call::Accept,
               Call::Connect, Call::Recv, Call::Send, Call::InetPton},
              threads) {}

CallLog::CallLog(std::vector<Call> calls, Threads threads) {
    Monitor::Lock lock(g_monitor);
    m_state = std::make_shared<State>();
    m_state->calls = std::move(calls);
    m_state->oneThread = threads == ThisThread;
    m_state->thread = pthread_self();
    Logs().push_back(m_state);
    for (Call call : m_state->calls)
        Watch(call, 1);
}

CallLog::~CallLog() {
    Monitor::Lock lock(g_monitor);
    for (Call call : m_state->calls)
        Watch(call, -1);
    auto& logs = Logs();
    logs.erase(std::remove(logs.begin(), logs.end(), m_state), logs.end());
    m_state.reset();
}

void CallLog::Clear() {
    Monitor::Lock lock(g_monitor);
    m_state->records.clear();
    m_state->cleared++;
}

std::vector<CallRecord> CallLog::Records() const {
    Monitor::Lock lock(g_monitor);
    return m_state->records;
}

std::vector<std::string> CallLog::Texts() const {
    std::vector<std::string> texts;
    for (const CallRecord& record : Records())
        texts.push_back(record.text);
    return texts;
}

std::vector<std::string> CallLog::Texts(int fd) const {
    std::vector<std::string> texts;
    for (const CallRecord& record : Records())
        if (record.fd == fd)
            texts.push_back(record.text);
    return texts;
}

int CallLog::Count(Call call) const {
    Monitor::Lock lock(g_monitor);
    return static_cast<int>(std::count_if(m_state->records.begin(), m_state->records.end(),
                                          [&](const CallRecord& record) { return record.call == call; }));
}

bool CallLog::WaitFor(Call call, int count, const Deadline& deadline) const {
    Monitor::Lock lock(g_monitor);
    return g_monitor.Wait(lock, deadline, [&] {
        return std::count_if(m_state->records.begin(), m_state->records.end(),
                             [&](const CallRecord& record) { return record.call == call; }) >= count;
    });
}

// ---------------------------------------------------------------------------------------------------------

Bypass::Bypass() { t_bypass++; }

Bypass::~Bypass() { t_bypass--; }

AllocationCounter::AllocationCounter() : m_start(t_counts) {}

int AllocationCounter::Mallocs() const { return t_counts.mallocs - m_start.mallocs; }

int AllocationCounter::Reallocs() const { return t_counts.reallocs - m_start.reallocs; }

int AllocationCounter::Frees() const { return t_counts.frees - m_start.frees; }

int AllocationCounter::News() const { return t_counts.news - m_start.news; }

int AllocationCounter::ArrayNews() const { return t_counts.arrayNews - m_start.arrayNews; }

int AllocationCounter::Deletes() const { return t_counts.deletes - m_start.deletes; }

int AllocationCounter::ArrayDeletes() const { return t_counts.arrayDeletes - m_start.arrayDeletes; }

int AllocationCounter::Allocations() const { return Mallocs() + Reallocs() + News() + ArrayNews(); }

int AllocationCounter::Balance() const {
    return Mallocs() + News() + ArrayNews() - Frees() - Deletes() - ArrayDeletes();
}

FailAllocation::FailAllocation(int n, Kind kind) {
    t_failed = false;
    t_failKind = kind;
    t_failIn = n;
}

FailAllocation::~FailAllocation() { t_failIn = 0; }

void FailAllocation::Stop() { t_failIn = 0; }

bool FailAllocation::Happened() const { return t_failed; }
