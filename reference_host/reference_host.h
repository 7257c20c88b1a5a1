// The host's services for development, as a static library: a logger that writes lines, a table of services,
// clocks. A program that links it answers everything that libWindows.so.0 asks its host for; the functions
// here configure it. What the library itself calls is declared in host/.
//
// A program may define some services itself. The linker takes the rest file by file (Logger.cpp,
// ServiceTable.cpp, Clock.cpp, ErrorObject.cpp), so it must define all that stands in a file, or nothing. The
// timeline shows what is still the host's: without Logger.cpp there is hardly anything in it.
//
// Thread safety: every function may be called from any thread at any time, also before main and after it.
#ifndef REFERENCE_HOST_REFERENCE_HOST_H
#define REFERENCE_HOST_REFERENCE_HOST_H

#include <string>
#include <vector>

#include <host/Logger.h>
#include <host/ServiceRegistry.h>

namespace reference_host {

// The logger. One event is one line, written by one write() of at most 1,024 bytes, so that the lines of
// several threads and processes never mix:
//
//     2024-11-20T11:48:03.123Z 4711 general 4 CServer::Main No longer listening (exiting).
//
// That is the time (UTC), the thread's id as the kernel counts (gettid), the type, the severity and the text.
// The type is general, traffic, life or mutex, and a number when it is the host's own. In the text every byte
// that is not printable ASCII becomes \n, \r, \t or \x and two hexadecimal digits; text that is too long is
// cut and ends in "...". An event that cannot be written is dropped.
//
// Posting allocates nothing, keeps errno, and is no cancellation point. It ignores no signal: where the
// destination may be a pipe, the program ignores SIGPIPE.

// Lets events of a severity up to maximum pass, of all types or of one: 0 for none, 9 for all. A severity
// counts from 1, the gravest. In the beginning the maximum is 4, warnings, for every type. What does not pass
// costs a comparison; nothing of it is formatted.
void SetMaximumSeverity(int maximum);
void SetMaximumSeverity(LogTypeEnum type, int maximum);

// Appends the following events to a file, which is created if need be. Returns false with errno set, and
// changes nothing, when it cannot be opened. The previous file is closed; an event that another thread posts
// at the same moment goes whole to the one or the other.
bool LogToFile(const char* path);

// Sends the following events to standard error, as in the beginning. A file is closed.
void LogToStandardError();

// A timeline of the process for Perfetto or chrome://tracing: each thread is a row; waits for locks, messages
// and frames are slices, posts are arrows to the thread that reads the message, and every other event of the
// log is an instant, whatever the maximum severity is. docs/timeline.md says what is exact about it.
//
// With the environment variable REFERENCE_HOST_TRACE=FILE the trace begins before main, and ends after it.
// While there is none it costs a comparison for each event.

// Begins a trace in a file, in place of what the file holds; a trace that is under way ends. Returns false
// with errno set, and there is no trace then, when the file cannot be opened. Otherwise it takes two
// milliseconds: what is posted while a trace begins gets no arrow.
//
// Each event is written at once, so that a process that crashes leaves a file that only lacks the closing
// bracket, which viewers do without. When writing fails the trace ends.
bool TraceToFile(const char* path);

// Ends every slice that is still open, and the trace. Nothing happens without one.
void EndTrace();

// What IsDebugEnabled() answers: true lets every interface reach a server, false, as in the beginning, only
// this machine.
void SetDebugEnabled(bool enabled);

// The table of services, empty in the beginning; RegSvcQueryForServiceAddress (host/ServiceRegistry.h) looks
// a name up, and ignores its third argument. Lookups may run while the table changes.

// Adds a service, or replaces its address. Returns false, and changes nothing, when the name is NULL or
// empty, the address is not IPv4 in dotted-decimal or the port is not 1 to 65535. Throws std::bad_alloc.
bool AddService(const char* name, const char* address, int port);

// Removes a service. Returns false when there is none of this name.
bool RemoveService(const char* name);

// Adds the services of a text file, as AddService does. Each line is
//
//     name address port                    # comment
//
// with blanks or tabs between; empty lines are allowed. A line that is not of this form, that AddService
// would refuse or whose name an earlier line of the file bears, is left out and reported as "PATH:LINE:
// reason". Returns true when the file was read, also if lines were left out. Returns false, and changes
// nothing, when it could not be read, which is reported as "PATH: reason". Reports go to standard error, one
// a line, or are appended to problems. Throws std::bad_alloc, and the table is then as it was.
bool LoadServices(const char* path);
bool LoadServices(const char* path, std::vector<std::string>& problems);

} // namespace reference_host

#endif
