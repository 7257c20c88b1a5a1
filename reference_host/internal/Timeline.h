// What the host is called for, as a timeline: slices, instants and arrows in a TraceFile. docs/timeline.md
// says what each of them means and how exact it is.
//
// Thread safety: every function may be called from any thread at any time, also before main and after it.
// They allocate nothing, keep errno, and are no cancellation points.
#ifndef REFERENCE_HOST_INTERNAL_TIMELINE_H
#define REFERENCE_HOST_INTERNAL_TIMELINE_H

#include <stdarg.h>

#include <atomic>

#include <host/Logger.h>

namespace reference_host {
namespace timeline {

extern std::atomic<bool> isOn;

// What to ask before any of the others is called, as that is all that a timeline costs when it is off.
inline bool IsOn() { return isOn.load(std::memory_order_relaxed); }

// An event of the log. detail may be NULL.
void Log(LogTypeEnum type, LogSeverityEnum severity, const char* text, const char* detail);
void LogFormatted(LogTypeEnum type, LogSeverityEnum severity, const char* format, va_list args,
                  const char* body);

// GetTickCount() is about to return tick to the code at caller. The library asks for it when it posts a
// message, and for nothing else; other callers are ignored.
void TickCount(unsigned long tick, const void* caller);

// An error object is being made.
void Error(const char* where, const char* what);

} // namespace timeline
} // namespace reference_host

#endif
