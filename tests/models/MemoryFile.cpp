// CMemFile against a byte vector, a position and the growth rule.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <Windows/MemFile.h>

#include "models/Exercises.h"

namespace models {

namespace {

constexpr unsigned int kMostBytes = 3000;
constexpr int kUnknown = -1; // a byte that nobody has written
const char kAlphabet[] = "ab <>&'\"%z";

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text)
        switch (c) {
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '&':
            escaped += "&amp;";
            break;
        case '\'':
            escaped += "&apos;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    return escaped;
}

class MemoryFile {
public:
    MemoryFile(Choices& choices, unsigned int growBy)
        : m_choices(choices), m_growBy(growBy), m_file(growBy) {}

    bool IsFull() const { return m_bytes.size() > kMostBytes; }

    void Step() {
        switch (m_choices.Below(10)) {
        case 0:
        case 1: {
            const std::string bytes = m_choices.TextOf(std::string("x\0y", 3), 60);
            m_file.Write(bytes.data(), static_cast<unsigned int>(bytes.size()));
            Write(bytes);
            break;
        }
        case 2:
            Read(m_choices.Below(80));
            break;
        case 3:
        case 4:
            Seek();
            break;
        case 5: {
            const std::string text = m_choices.TextOf(kAlphabet, 40);
            m_file.WriteStrEntities(text.c_str());
            if (!text.empty()) // an empty write would move the length up to the position
                Write(Escaped(text));
            break;
        }
        case 6: {
            const std::string text = m_choices.TextOf(kAlphabet, 20);
            const int number = m_choices.Between(-1000, 1000);
            m_file.WriteF("%s=%d;", text.c_str(), number);
            Write(text + "=" + std::to_string(number) + ";");
            break;
        }
        case 7: {
            const std::string text = m_choices.TextOf(kAlphabet, 20);
            m_file.WriteEntitiesF("<%s>", text.c_str());
            Write(Escaped("<" + text + ">"));
            break;
        }
        case 8:
            if (m_length > 0 && m_bytes[m_length - 1] != kUnknown)
                GetAsStr();
            break;
        default: {
            const unsigned int size = m_choices.Below(static_cast<unsigned int>(m_bytes.size()) + 20);
            m_file.Grow(size);
            Grow(size);
            break;
        }
        }
        Compare();
    }

private:
    void Grow(unsigned int size) {
        if (size > m_bytes.size())
            m_bytes.resize(size, kUnknown);
    }

    void Write(const std::string& bytes) {
        auto count = static_cast<unsigned int>(bytes.size());
        const unsigned int end = m_position + count;
        if (end > m_bytes.size()) {
            if (m_growBy != 0) {
                auto size = static_cast<unsigned int>(m_bytes.size());
                while (size < end)
                    size += m_growBy;
                Grow(size);
            } else if (m_position >= m_bytes.size()) {
                return;
            } else {
                count = static_cast<unsigned int>(m_bytes.size()) - m_position;
            }
        }
        for (unsigned int i = 0; i < count; ++i)
            m_bytes[m_position + i] = static_cast<unsigned char>(bytes[i]);
        m_position += count;
        m_length = std::max(m_length, m_position);
    }

    // From positions up to the length, as callers do.
    void Read(unsigned int count) {
        if (m_position > m_length)
            return;
        char bytes[80];
        const unsigned int read = m_file.Read(bytes, count);
        Agree(read, std::min(count, m_length - m_position), "bytes read");
        for (unsigned int i = 0; i < read; ++i)
            if (m_bytes[m_position + i] != kUnknown)
                Agree(static_cast<int>(static_cast<unsigned char>(bytes[i])), m_bytes[m_position + i],
                      "byte read");
        m_position += read;
    }

    void Seek() {
        const unsigned int origin = m_choices.Below(4);
        const long base = origin == 0   ? 0
                          : origin == 2 ? static_cast<long>(m_length)
                                        : static_cast<long>(m_position);
        const long wanted = m_choices.Between(0, static_cast<int>(m_length) + 20);
        const long result = m_file.Seek(wanted - base, origin);
        if (origin <= 2)
            m_position = static_cast<unsigned int>(wanted);
        Grow(m_position);
        Agree(result, static_cast<long>(m_position), "Seek");
    }

    // A NUL at the position, and one byte less.
    void GetAsStr() {
        const bool ends = m_bytes[m_length - 1] == 0;
        if (!ends && m_position == 0 && m_bytes.empty())
            return;
        const unsigned char* text = m_file.GetAsStr();
        Agree(text, static_cast<const unsigned char*>(m_file.m_pBuffer), "GetAsStr");
        if (ends)
            return;
        Write(std::string(1, '\0'));
        --m_position;
        --m_length;
    }

    void Compare() const {
        Agree(m_file.GetLength(), m_length, "length");
        Agree(m_file.GetPosition(), m_position, "position");
        Agree(m_file.m_uiBufferSize, static_cast<unsigned int>(m_bytes.size()), "buffer size");
        Agree(m_file.m_pBuffer == nullptr, m_bytes.empty(), "no buffer");
        for (unsigned int i = 0; i < m_length; ++i)
            if (m_bytes[i] != kUnknown && m_file.m_pBuffer[i] != m_bytes[i])
                Agree(static_cast<int>(m_file.m_pBuffer[i]), m_bytes[i], "byte");
    }

    Choices& m_choices;
    unsigned int m_growBy;
    CMemFile m_file;
    std::vector<int> m_bytes; // as many as the buffer has
    unsigned int m_length = 0;
    unsigned int m_position = 0;
};

} // namespace

void ExerciseMemoryFile(Choices& choices, unsigned long operations) {
    while (operations > 0) {
        MemoryFile file(choices, choices.OneIn(4) ? 0 : 1 + choices.Below(64));
        for (unsigned long i = choices.Below(300); i > 0 && operations > 0 && !file.IsFull();
             --i, --operations)
            file.Step();
        if (operations > 0)
            --operations;
    }
}

} // namespace models
