#include <reference_host/internal/TraceFile.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace reference_host {

namespace {

// What may be added to every event while there is room for the braces.
constexpr size_t kRoomForEnding = 4; // "}}" and a NUL

constexpr int64_t kNanosecondsPerMicrosecond = 1000;

} // namespace

TraceEvent::TraceEvent(char phase, int process, int thread, int64_t nanoseconds)
    : m_text(), m_length(0), m_inArguments(false) {
    char text[128];
    snprintf(text, sizeof text, "{\"ph\":\"%c\",\"pid\":%d,\"tid\":%d,\"ts\":%lld.%03d", phase, process,
             thread, static_cast<long long>(nanoseconds / kNanosecondsPerMicrosecond),
             static_cast<int>(nanoseconds % kNanosecondsPerMicrosecond));
    Append(text);
}

TraceEvent& TraceEvent::Text(const char* key, const char* value) {
    Key(key);
    Append("\"");
    AppendEscaped(value);
    Append("\"");
    return *this;
}

TraceEvent& TraceEvent::Number(const char* key, long value) {
    Key(key);
    char text[24];
    snprintf(text, sizeof text, "%ld", value);
    Append(text);
    return *this;
}

TraceEvent& TraceEvent::Arguments() {
    Append(",\"args\":{");
    m_inArguments = true;
    return *this;
}

void TraceEvent::Key(const char* key) {
    Append(m_text[m_length - 1] == '{' ? "\"" : ",\"");
    Append(key);
    Append("\":");
}

void TraceEvent::Append(const char* text) {
    const size_t size = strlen(text);
    if (m_length + size > sizeof m_text - kRoomForEnding)
        return; // cannot happen with what the host writes
    memcpy(m_text + m_length, text, size);
    m_length += size;
}

void TraceEvent::AppendEscaped(const char* text) {
    const size_t end = m_length + kLongestText;
    for (; *text; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        char escaped[8] = {*text};
        if (byte == '"' || byte == '\\')
            snprintf(escaped, sizeof escaped, "\\%c", byte);
        else if (byte < ' ' || byte > '~')
            snprintf(escaped, sizeof escaped, "\\u%04x", byte);
        if (m_length + strlen(escaped) > end - strlen("..."))
            return Append("...");
        Append(escaped);
    }
}

bool TraceFile::Open(const char* path) {
    m_descriptor = open(path, O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0666);
    m_empty = true;
    return m_descriptor != -1;
}

void TraceFile::Write(TraceEvent& event) {
    char line[TraceEvent::kSize + 8];
    const int length =
        snprintf(line, sizeof line, "%s%.*s%s", m_empty ? "[\n" : ",\n", static_cast<int>(event.m_length),
                 event.m_text, event.m_inArguments ? "}}" : "}");
    m_empty = false;
    if (IsOpen() && !WriteAll(line, static_cast<size_t>(length)))
        Abandon();
}

void TraceFile::Close() {
    const char* const ending = m_empty ? "[\n]\n" : "\n]\n";
    if (!IsOpen())
        return;
    WriteAll(ending, strlen(ending));
    Abandon();
}

bool TraceFile::WriteAll(const char* text, size_t size) {
    while (size > 0) {
        const ssize_t written = write(m_descriptor, text, size);
        if (written == -1 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

void TraceFile::Abandon() {
    close(m_descriptor);
    m_descriptor = -1;
}

} // namespace reference_host
