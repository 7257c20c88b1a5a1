// Reads a file, or a pipe, line by line, until a signal arrives.
#ifndef EXAMPLES_LINEFILE_H
#define EXAMPLES_LINEFILE_H

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "Common.h"

class LineFile {
public:
    // Throws a Failure if the file cannot be opened.
    LineFile(const std::string& path, const StopSignals& signals)
        : m_path(path), m_signals(signals),
          m_descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        struct stat status = {};
        if (m_descriptor == -1)
            Fail(errno);
        if (fstat(m_descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
            close(m_descriptor);
            Fail(EISDIR);
        }
    }
    ~LineFile() { close(m_descriptor); }

    LineFile(const LineFile&) = delete;
    LineFile& operator=(const LineFile&) = delete;

    // Reads a line without the "\n" at its end; false at the end of the file. Throws a Failure if reading
    // fails, the line cannot be sent as a text, or a signal arrived.
    bool Read(std::string& line) {
        line.clear();
        ++m_number;
        while (!m_chunk.empty() || ReadChunk()) {
            const size_t length = std::min(m_chunk.find('\n'), m_chunk.size());
            line.append(m_chunk, 0, length);
            Check(line, line.size() - length);
            const bool whole = length < m_chunk.size();
            m_chunk.remove_prefix(whole ? length + 1 : length);
            if (whole)
                return true;
        }
        return !line.empty();
    }

private:
    // False at the end. Neither here nor in open() does a pipe keep a signal waiting.
    bool ReadChunk() {
        ssize_t count = -1;
        while (count == -1) {
            pollfd descriptors[] = {{m_descriptor, POLLIN, 0}, {m_signals.Descriptor(), POLLIN, 0}};
            poll(descriptors, 2, -1);
            m_signals.ThrowIfArrived();
            count = read(m_descriptor, m_buffer, sizeof(m_buffer));
            if (count == -1 && errno != EAGAIN)
                Fail(errno);
        }
        m_chunk = std::string_view(m_buffer, static_cast<size_t>(count));
        return count > 0;
    }

    void Check(const std::string& line, size_t checked) const {
        const char* problem = nullptr;
        if (line.find('\0', checked) != std::string::npos)
            problem = "the line has a NUL byte, which a text cannot carry";
        else if (line.size() > kLongestLine)
            problem = "the line is too long";
        if (problem)
            throw Failure(m_path + ":" + std::to_string(m_number) + ": " + problem);
    }

    [[noreturn]] void Fail(int error) const {
        throw Failure("cannot read " + m_path + ": " + strerror(error));
    }

    const std::string m_path;
    const StopSignals& m_signals;
    const int m_descriptor;
    unsigned long m_number = 0;
    char m_buffer[32 * 1024];
    std::string_view m_chunk; // what is left of the buffer
};

#endif
