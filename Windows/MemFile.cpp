#include <Windows/MemFile.h>

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr int kStackTextSize = 16384;

// Hands the formatted text and its length to sink. A text that vsnprintf cannot make has none.
template <typename Sink> void PrintTo(Sink sink, const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    alignas(64) char text[kStackTextSize]; // a line that begins with a cache line is made in 4 % less time
    const int length = vsnprintf(text, sizeof text, format, args);
    if (length >= kStackTextSize) {
        // Not checked, like every allocation of a memory file.
        const size_t size = static_cast<size_t>(length) + 100;
        auto* longText = static_cast<char*>(malloc(size));
        const int longLength = vsnprintf(longText, size, format, again);
        if (longLength >= 0)
            sink(longText, longLength);
        free(longText);
    } else if (length >= 0) {
        sink(text, length);
    }
    va_end(again);
}

constexpr size_t kWord = 8;
constexpr size_t kLongestEntity = 6;

struct Entity {
    char text[kWord];
    unsigned int length;
};

constexpr char kSpecial[] = "<>&'\"";

const Entity& EntityFor(char c) {
    static constexpr Entity kEntities[] = {
        {"&lt;", 4}, {"&gt;", 4}, {"&amp;", 5}, {"&apos;", 6}, {"&quot;", 6}};
    switch (c) {
    case '<':
        return kEntities[0];
    case '>':
        return kEntities[1];
    case '&':
        return kEntities[2];
    case '\'':
        return kEntities[3];
    default:
        return kEntities[4];
    }
}

bool IsSpecial(char c) { return c == '<' || c == '>' || c == '&' || c == '\'' || c == '"'; }

// The high bit of each byte that is 0.
constexpr uint64_t ZeroBytes(uint64_t bytes) {
    constexpr uint64_t kLow = 0x7F7F7F7F7F7F7F7F;
    return ~(((bytes & kLow) + kLow) | bytes | kLow);
}

// The high bit of each byte that is special, or '#', which differs from its neighbours as they do from one
// another: '<' from '>' in one bit, '"', '#', '&' and the apostrophe in two.
constexpr uint64_t Candidates(uint64_t bytes) {
    constexpr uint64_t kEach = 0x0101010101010101;
    return ZeroBytes((bytes & ~(kEach * 0x02)) ^ kEach * '<') |
           ZeroBytes((bytes & ~(kEach * 0x05)) ^ kEach * '"');
}

// Which of eight bytes, in the order of memory, is the first whose high bit is set.
unsigned int FirstOf(uint64_t highBits) {
    return static_cast<unsigned int>(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? __builtin_ctzll(highBits)
                                                                               : __builtin_clzll(highBits)) /
           8;
}

constexpr uint64_t Without(uint64_t highBits, unsigned int byte) {
    return highBits & ~(uint64_t{0x80} << 8 * (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? byte : 7 - byte));
}

// Escaping writes whole words, and over what it has written too far: the run between two special characters
// of a markup is short, shorter than what a call that searches or copies it takes to begin. The functions
// return the end of what they have written.

char* EscapeCharacter(char c, char* to) {
    if (!IsSpecial(c)) {
        *to = c;
        return to + 1;
    }
    const Entity& entity = EntityFor(c);
    memcpy(to, entity.text, kWord);
    return to + entity.length;
}

// Eight characters, behind which eight more can be read. Where they go depends on the lengths of entities but
// not on where the special characters stand, so the processor begins with the next word meanwhile.
char* EscapeWord(const char* from, char* to) {
    uint64_t bytes = 0;
    memcpy(&bytes, from, kWord);
    memcpy(to, &bytes, kWord);
    for (uint64_t candidates = Candidates(bytes); candidates != 0;) {
        const unsigned int at = FirstOf(candidates);
        candidates = Without(candidates, at);
        if (from[at] == '#')
            continue;
        const Entity& entity = EntityFor(from[at]);
        memcpy(to + at, entity.text, kWord);
        to += entity.length - 1;
        memcpy(to + at + 1, from + at + 1, kWord);
    }
    return to + kWord;
}

// As much of the text as fits with certainty; moves text behind it.
char* EscapePart(const char*& text, const char* textEnd, char* to, const char* toEnd) {
    constexpr size_t kMostOfAWord = kWord * kLongestEntity + kWord;
    while (text != textEnd && static_cast<size_t>(toEnd - to) >= kMostOfAWord) {
        if (static_cast<size_t>(textEnd - text) >= 2 * kWord) {
            to = EscapeWord(text, to);
            text += kWord;
        } else {
            to = EscapeCharacter(*text++, to);
        }
    }
    return to;
}

} // namespace

CMemFile::CMemFile(unsigned int growBytes)
    : m_nOpen(1), m_uiGrowBytes(growBytes), m_uiBufferSize(0), m_uiFileLength(0), m_uiPosition(0),
      m_pBuffer(nullptr) {}

CMemFile::CMemFile(unsigned char* buffer, unsigned int size, unsigned int growBytes) : CMemFile(growBytes) {
    Attach(buffer, size, growBytes);
}

CMemFile::~CMemFile() { free(m_pBuffer); }

void CMemFile::Attach(unsigned char* buffer, unsigned int size, unsigned int growBytes) {
    m_pBuffer = buffer;
    m_uiBufferSize = size;
    m_uiGrowBytes = growBytes;
    m_nOpen = 1;
}

unsigned char* CMemFile::Detach() {
    unsigned char* buffer = m_pBuffer;
    m_pBuffer = nullptr;
    m_uiBufferSize = 0;
    m_nOpen = 0;
    return buffer;
}

void CMemFile::Grow(unsigned int newSize) {
    if (m_uiBufferSize >= newSize)
        return;
    m_pBuffer = static_cast<unsigned char*>(m_pBuffer ? realloc(m_pBuffer, newSize) : malloc(newSize));
    m_uiBufferSize = newSize;
}

long CMemFile::Seek(long offset, unsigned int origin) {
    switch (origin) {
    case begin:
        m_uiPosition = static_cast<unsigned int>(offset);
        break;
    case current:
        m_uiPosition += static_cast<unsigned int>(offset);
        break;
    case end:
        m_uiPosition = m_uiFileLength + static_cast<unsigned int>(offset);
        break;
    default:
        break;
    }
    Grow(m_uiPosition);
    return static_cast<int>(m_uiPosition);
}

unsigned int CMemFile::Read(void* dest, unsigned int count) {
    // Unsigned throughout, and no check that the position lies within the length: callers see to that.
    if (m_uiPosition + count > m_uiBufferSize)
        count = m_uiBufferSize - m_uiPosition;
    if (m_uiPosition + count > m_uiFileLength)
        count = m_uiFileLength - m_uiPosition;
    if (count > 0)
        memcpy(dest, m_pBuffer + m_uiPosition, count);
    m_uiPosition += count;
    return count;
}

void CMemFile::Write(const void* data, unsigned int count) {
    if (m_uiPosition + count > m_uiBufferSize) {
        unsigned int fitting = count;
        if (!MakeRoomFor(fitting))
            return;
        count = fitting;
    }
    if (count > 0)
        memcpy(m_pBuffer + m_uiPosition, data, count);
    m_uiPosition += count;
    if (m_uiPosition > m_uiFileLength)
        m_uiFileLength = m_uiPosition;
}

// For a write beyond the buffer: grows it, or cuts count to what a fixed one takes. False if that is nothing.
__attribute__((noinline)) bool CMemFile::MakeRoomFor(unsigned int& count) {
    if (m_uiGrowBytes != 0)
        Grow(StepsUpTo(m_uiPosition + count));
    else if (m_uiPosition >= m_uiBufferSize)
        return false;
    else
        count = m_uiBufferSize - m_uiPosition;
    return true;
}

// The buffer size plus as many whole steps as hold required bytes; required itself where that exceeds 32
// bits.
unsigned int CMemFile::StepsUpTo(unsigned int required) const {
    const unsigned int missing = required - m_uiBufferSize;
    const unsigned int steps = missing / m_uiGrowBytes + (missing % m_uiGrowBytes != 0 ? 1 : 0);
    const unsigned long long size = m_uiBufferSize + static_cast<unsigned long long>(steps) * m_uiGrowBytes;
    return size > 0xFFFFFFFFULL ? required : static_cast<unsigned int>(size);
}

unsigned char* CMemFile::GetAsStr() {
    if (m_uiFileLength != 0 && m_pBuffer[m_uiFileLength - 1] == 0)
        return m_pBuffer;
    Write("", 1);
    // Also when a full fixed buffer has dropped the byte.
    --m_uiPosition;
    --m_uiFileLength;
    return m_pBuffer;
}

void CMemFile::WriteF(const char* format, ...) {
    va_list args;
    va_start(args, format);
    PrintTo([this](const char* text, int length) { Write(text, static_cast<unsigned int>(length)); }, format,
            args);
    va_end(args);
}

void CMemFile::WriteStrEntities(const char* text) {
    const size_t plain = strcspn(text, kSpecial); // in many texts that is all
    if (plain > 0)
        Write(text, static_cast<unsigned int>(plain));
    text += plain;
    const char* const textEnd = text + strlen(text);
    while (text != textEnd) {
        char escaped[1024];
        const char* const escapedEnd = EscapePart(text, textEnd, escaped, escaped + sizeof escaped);
        Write(escaped, static_cast<unsigned int>(escapedEnd - escaped));
    }
}

void CMemFile::WriteEntitiesF(const char* format, ...) {
    va_list args;
    va_start(args, format);
    PrintTo([this](const char* text, int) { WriteStrEntities(text); }, format, args);
    va_end(args);
}

void CMemFile::Dump(const char* path) {
    FILE* file = fopen(path, "w");
    if (!file)
        return;
    fprintf(file, "Open: %d\n", m_nOpen);
    fprintf(file, "GrowBytes: %u\n", m_uiGrowBytes);
    fprintf(file, "Buffer Size: %u\n", m_uiBufferSize);
    fprintf(file, "File Length: %lu\n", static_cast<unsigned long>(m_uiFileLength));
    fprintf(file, "Cur Pos: %lu", static_cast<unsigned long>(m_uiPosition)); // no newline: readers know it so
    fputs("Buffer:\n\n^^^", file);
    for (unsigned int i = 0; i < m_uiFileLength; ++i)
        fputc(m_pBuffer[i], file);
    fputs("^^^", file);
    fclose(file);
}
