// The host's logger and debug switch: where the library reports everything it does.
//
// A contract, no code: the host process defines every function declared here and exports it, and the
// library calls it by name.
//
// What every function below must bear:
//
// - Threads: called from every thread that uses the library, at any time, several at once.
// - Before main: loading the library posts two type 23 events (it builds the lock of the BSTR functions),
//   before the executable's own static objects are constructed. So the logger works on constant-initialised
//   data or on function-local statics: no iostream, no container at namespace scope. It is called after main
//   too, by threads that still run and by destructors of static objects.
// - Locks held: a thread may hold any lock of the library while it logs: a CMutex that it just took, the
//   thread registry, a message queue, the BSTR lock. A logger therefore uses nothing but the C and C++
//   libraries: no CMutex, no CSingleLock, no BSTR function, no PostThreadMessage. Any of these logs again and
//   recurses without end, or waits for a lock that its own caller holds.
// - Blocking: a logger that blocks, blocks the thread that locks, sends or receives at that moment. Short
//   waits (a lock of its own, a write to a file) are allowed.
// - Allocating is allowed. Throwing is not: nothing may leave these functions but a cancellation. Events
//   that cannot be delivered are dropped without a word.
// - Cancellation: destroying a running CWinThread cancels its thread, which may be logging at that moment.
//   On such a thread the library disables cancellation around the call where a lock is held or a destructor
//   runs. Elsewhere a logger that contains a cancellation point (write, fprintf, syslog) may end in the
//   middle of a line. A logger that wants whole lines disables cancellation itself.
// - errno: the library keeps its own copy, so a logger may change it.
// - Cost: each lock, unlock, send and receive posts between two and five events. Compare type and severity
//   first and return before anything is formatted.
#ifndef HOST_LOGGER_H
#define HOST_LOGGER_H

class XString;

// The category of an event. The library posts these four; a host may add its own.
enum LogTypeEnum {
    LogTypeGeneral = 11, // operation: sockets, servers, clients, threads, handles, misuse, exceptions
    LogTypeTraffic = 12, // each receive, send and queued message
    LogTypeLife = 13,    // construction and destruction
    LogTypeMutex = 23    // each lock and unlock of a CMutex
};

// The weight of an event; 1 is the gravest. The library posts these nine.
enum LogSeverityEnum {
    LogSeverityFailure = 1,
    LogSeverityQueueFatal = 2,   // a message queue cannot be used any more
    LogSeverityRuntimeError = 3, // the server's wait failed
    LogSeverityWarning = 4,      // peer closed, thread ending, missing override
    LogSeverityMisuse = 5,       // ignored misuse
    LogSeverityNotice = 6,       // nothing to do
    LogSeverityInformation = 7,  // life events and traffic summaries
    LogSeverityMutexEntry = 8,   // a lock or unlock begins
    LogSeverityTrace = 9         // everything else
};

// Combinations that occur: 11 with 1 to 7 and 9; 12 with 1, 6, 7 and 9; 13 with 7; 23 with 1, 8 and 9.
class CLogger {
public:
    // Posts text as it stands: it is not a format, and a percent sign in it is a percent sign. detail is
    // NULL, except for one event, the failed service lookup of CClient: when it is not NULL it takes the
    // place of the "%s" in text. Both texts belong to the caller and live only for the call.
    static void PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, const char* text,
                             const char* detail);

    // The same for a text in an XString. The logger reads it and leaves it as it is. detail is NULL.
    static void PostLogEvent(LogTypeEnum type, LogSeverityEnum severity, XString& text, const char* detail);

    // Posts the arguments formatted by the rules of printf. The result may be of any length; a logger may
    // cut it.
    static void PostLogEventF(LogTypeEnum type, LogSeverityEnum severity, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    // Posts the arguments that follow buffer, formatted by format, and directly behind them the text of
    // buffer: a message body as it was sent or received, NUL-terminated, of any length and content. The one
    // argument is the socket's descriptor. buffer is not a format.
    static void PostLogEventFB(LogTypeEnum type, LogSeverityEnum severity, const char* format,
                               const char* buffer, ...) __attribute__((format(printf, 3, 5)));
};

// True when the host runs in debug mode. Asked once by each ServerSocket::Bind, with at most the suspension
// lock of the CServer that is being constructed held: true opens a server to every interface, false to
// 127.0.0.1 only. Must not block for long or throw.
bool IsDebugEnabled();

#endif
