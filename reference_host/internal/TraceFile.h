// A file of trace events, in the JSON that Perfetto and chrome://tracing load: an array, one event a line.
// Each event is written by one write(), so that a process that dies leaves everything but the closing
// bracket, which the viewers do without.
//
// Thread safety: none. Both classes allocate nothing and need no constructor to have run.
#ifndef REFERENCE_HOST_INTERNAL_TRACEFILE_H
#define REFERENCE_HOST_INTERNAL_TRACEFILE_H

#include <stddef.h>
#include <stdint.h>

namespace reference_host {

// An event in the making. Texts are escaped, and cut where they would not leave room for the rest; a byte
// that is not ASCII is taken for Latin-1.
class TraceEvent {
public:
    // phase is the letter of the format: B and E for the ends of a slice, i an instant, s and f the ends of
    // an arrow, M for names.
    TraceEvent(char phase, int process, int thread, int64_t nanoseconds);

    TraceEvent& Text(const char* key, const char* value);
    TraceEvent& Number(const char* key, long value);

    // What is added from here on stands in the event's "args".
    TraceEvent& Arguments();

private:
    friend class TraceFile;

    // The braces that close it always have room.
    static constexpr size_t kSize = 1024;
    static constexpr size_t kLongestText = 360; // escaped; an event has two long ones at most

    void Key(const char* key);
    void Append(const char* text);
    void AppendEscaped(const char* text);

    char m_text[kSize];
    size_t m_length;
    bool m_inArguments;
};

class TraceFile {
public:
    constexpr TraceFile() = default;

    // Begins a new file in place of what is there. Returns false with errno set when it cannot be opened.
    bool Open(const char* path);

    // Writes an event. When that fails the file is closed as it is: an event in part would spoil what
    // follows.
    void Write(TraceEvent& event);

    // Writes the closing bracket.
    void Close();

    bool IsOpen() const { return m_descriptor != -1; }

private:
    bool WriteAll(const char* text, size_t size);
    void Abandon();

    int m_descriptor = -1;
    bool m_empty = true;
};

} // namespace reference_host

#endif
