#include <Windows/MemFile.h>

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>

namespace {

constexpr int kStackTextSize = 16384;

// A text of that length, which is more than the stack has room for.
template <typename Sink>
__attribute__((noinline)) void PrintLongTo(Sink sink, int length, const char* format, va_list args) {
    // Not checked, like every allocation of a memory file.
    const size_t size = static_cast<size_t>(length) + 100;
    auto* text = static_cast<char*>(malloc(size));
    const int longLength = vsnprintf(text, size, format, args);
    if (longLength >= 0)
        sink(text, longLength);
    free(text);
}

// Hands the formatted text and its length to sink. A text that vsnprintf cannot make has none. The arguments
// come twice, for a text that is longer than the stack has room for.
template <typename Sink> void PrintTo(Sink sink, const char* format, va_list args, va_list again) {
    alignas(64) char text[kStackTextSize]; // a line that begins with a cache line is made in 4 % less time
    const int length = vsnprintf(text, sizeof text, format, args);
    if (length >= kStackTextSize)
        PrintLongTo(sink, length, format, again);
    else if (length >= 0)
        sink(text, length);
}

constexpr size_t kWord = 8;
constexpr size_t kLongestEntity = 6;

struct Entity {
    char text[kWord];
    size_t length;
};

// By the low five bits of a character, in which those that are special differ. '#' stands for itself.
constexpr std::array<Entity, 32> kEntities = [] {
    std::array<Entity, 32> entities{};
    entities['<' % 32] = {"&lt;", 4};
    entities['>' % 32] = {"&gt;", 4};
    entities['&' % 32] = {"&amp;", 5};
    entities['\'' % 32] = {"&apos;", 6};
    entities['"' % 32] = {"&quot;", 6};
    entities['#' % 32] = {"#", 1};
    return entities;
}();

const Entity& EntityFor(char c) { return kEntities[static_cast<unsigned char>(c) % 32]; }

constexpr char kSpecial[] = "<>&'\"";

bool IsSpecial(char c) { return c == '<' || c == '>' || c == '&' || c == '\'' || c == '"'; }

// Eight characters, the first in the lowest byte on every machine.
uint64_t Word(const char* text) {
    uint64_t word = 0;
    memcpy(&word, text, kWord);
    return __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? word : __builtin_bswap64(word);
}

// The high bit of each byte that is special, or '#', which differs from its neighbours as they do from one
// another: '<' from '>' in one bit, '"', '#', '&' and the apostrophe in two. Without these bits such a byte
// equals its kind's first; what is left of any other carries into its high bit.
constexpr uint64_t Candidates(uint64_t word) {
    constexpr uint64_t kEach = 0x0101010101010101;
    const uint64_t notAngle = ((word & kEach * (0x7F & ~0x02)) ^ kEach * '<') + kEach * 0x7F;
    const uint64_t notOther = ((word & kEach * (0x7F & ~0x05)) ^ kEach * '"') + kEach * 0x7F;
    return ~((notAngle & notOther) | word) & kEach * 0x80;
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
    memcpy(to, from, kWord);
    for (uint64_t candidates = Candidates(Word(from)); candidates != 0; candidates &= candidates - 1) {
        const int at = __builtin_ctzll(candidates) / 8;
        const Entity& entity = EntityFor(from[at]);
        memcpy(to + at, entity.text, kWord);
        to += entity.length - 1;
        memcpy(to + at + 1, from + at + 1, kWord);
    }
    return to + kWord;
}

// As much of the text as fits with certainty; moves text behind it.
char* EscapePart(const char*& text, const char* textEnd, char* to, const char* toEnd) {
    const char* const mostEnd = toEnd - (kWord * kLongestEntity + kWord);
    for (; textEnd - text >= static_cast<ptrdiff_t>(2 * kWord) && to <= mostEnd; text += kWord)
        to = EscapeWord(text, to);
    for (; text != textEnd && to <= mostEnd; ++text)
        to = EscapeCharacter(*text, to);
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
    if (m_uiPosition + count > m_uiBufferSize)
        WriteBeyondBuffer(data, count);
    else
        WriteIntoBuffer(data, count);
}

// Grows the buffer, or writes what fits into a fixed one. Apart from Write, which would save registers for
// it.
__attribute__((noinline)) void CMemFile::WriteBeyondBuffer(const void* data, unsigned int count) {
    if (m_uiGrowBytes != 0)
        Grow(StepsUpTo(m_uiPosition + count));
    else if (m_uiPosition >= m_uiBufferSize)
        return;
    else
        count = m_uiBufferSize - m_uiPosition;
    WriteIntoBuffer(data, count);
}

inline void CMemFile::WriteIntoBuffer(const void* data, unsigned int count) {
    if (count > 0)
        memcpy(m_pBuffer + m_uiPosition, data, count);
    m_uiPosition += count;
    if (m_uiPosition > m_uiFileLength)
        m_uiFileLength = m_uiPosition;
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
    va_list args, again;
    va_start(args, format);
    va_start(again, format);
    PrintTo([this](const char* text, int length) { Write(text, static_cast<unsigned int>(length)); }, format,
            args, again);
    va_end(again);
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
    va_list args, again;
    va_start(args, format);
    va_start(again, format);
    PrintTo([this](const char* text, int) { WriteStrEntities(text); }, format, args, again);
    va_end(again);
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
