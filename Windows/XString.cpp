#include <Windows/XString.h>

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include <algorithm>
#include <utility>

#include <Windows/internal/Assertion.h>
#include <Windows/internal/Relaxed.h>

int XStringData::m_iObjCount = 0;
int XString::m_iDefaultBlockSize = 16;
int XString::m_iObjCount = 0;

namespace {

// Owns a header that no string has taken over yet, so that nothing is left behind when memory runs out.
class NewHeader {
public:
    NewHeader() : m_header(new XStringData) {}
    ~NewHeader() {
        if (m_header)
            m_header->Release();
    }

    NewHeader(const NewHeader&) = delete;
    NewHeader& operator=(const NewHeader&) = delete;

    XStringData* operator->() { return m_header; }
    XStringData& operator*() { return *m_header; }

    XStringData* HandOver() { return std::exchange(m_header, nullptr); }

private:
    XStringData* m_header;
};

void CopyText(char* to, const char* from, unsigned int count) {
    if (count > 0)
        memcpy(to, from, count);
}

// Gives the header a buffer of exactly the two texts, one behind the other.
void Fill(XStringData& header, unsigned int length1, const char* text1, unsigned int length2,
          const char* text2) {
    const unsigned int total = length1 + length2;
    if (total == 0)
        return;
    header.Allocate(total + 1);
    header.SetLength(total);
    char* text = header.LockBuffer();
    CopyText(text, text1, length1);
    CopyText(text + length1, text2, length2);
    text[total] = '\0';
    header.UnlockBuffer();
}

// The header of a new string of two texts.
XStringData* Joined(unsigned int length1, const char* text1, unsigned int length2, const char* text2) {
    NewHeader header;
    Fill(*header, length1, text1, length2, text2);
    return header.HandOver();
}

XStringData* Repeated(char ch, int n) {
    NewHeader header;
    if (n > 0) {
        const auto count = static_cast<unsigned int>(n);
        header->Allocate(count + 1);
        char* text = header->LockBuffer();
        memset(text, ch, count);
        header->SetLength(count);
        header->UnlockBuffer();
    }
    return header.HandOver();
}

unsigned int Length(const char* psz) { return psz ? static_cast<unsigned int>(strlen(psz)) : 0; }

void CountString(int change) { __atomic_fetch_add(&XString::m_iObjCount, change, __ATOMIC_SEQ_CST); }

} // namespace

// --- XStringData ---------------------------------------------------------------------------------------

XStringData* XStringData::AddRef() {
    __atomic_fetch_add(&m_iRefCount, 1, __ATOMIC_SEQ_CST);
    return this;
}

void XStringData::Release() {
    if (__atomic_fetch_sub(&m_iRefCount, 1, __ATOMIC_SEQ_CST) != 1)
        return;
    free(m_pszData);
    windows::RelaxedStore(m_iObjCount, windows::RelaxedLoad(m_iObjCount) - 1);
    delete this;
}

bool XStringData::Allocate(unsigned int uiSize) {
    if (uiSize == m_uiBuffSize)
        return true;
    if (uiSize == 0)
        return false;
    free(m_pszData);
    m_pszData = static_cast<char*>(malloc(uiSize));
    if (!m_pszData)
        ThrowMemoryException();
    m_uiBuffSize = uiSize;
    return true;
}

bool XStringData::Reallocate(unsigned int uiSize, bool bRound) {
    if (bRound) {
        const int granule = m_iBlockSize == -1 ? XString::m_iDefaultBlockSize : m_iBlockSize;
        // The division is signed, and the result lies strictly above uiSize: 16 becomes 32.
        const auto blocks = static_cast<unsigned int>(static_cast<int>(uiSize) / granule);
        uiSize = static_cast<unsigned int>(granule) + blocks * static_cast<unsigned int>(granule);
    }
    // Not checked: without memory the text is NULL, and the writer that needed it faults.
    m_pszData = static_cast<char*>(realloc(m_pszData, uiSize));
    m_uiBuffSize = uiSize;
    return true;
}

void XStringData::SetLength(unsigned int uiLength) {
    windows::Require(uiLength < m_uiBuffSize, "uiLength < m_uiBuffSize",
                     {"Windows/XString", 239, "void XStringData::SetLength(unsigned int)"});
    m_uiLength = uiLength;
    m_pszData[uiLength] = '\0';
}

char XStringData::GetAt(unsigned int uiIndex) {
    windows::Require(uiIndex < GetLength(), "uiIndex < GetLength()",
                     {"Windows/XString", 373, "char XStringData::GetAt(unsigned int)"});
    return m_pszData[uiIndex];
}

unsigned int XStringData::GetLength() { return m_uiLength; }

// --- Construction and assignment -----------------------------------------------------------------------

XString::XString() : m_pStrData(new XStringData) { CountString(1); }

XString::XString(const XString& source) : m_pStrData(source.m_pStrData->AddRef()) { CountString(1); }

XString::XString(const char* psz) : m_pStrData(Joined(Length(psz), psz, 0, nullptr)) { CountString(1); }

XString::XString(const char* p, int n)
    : m_pStrData(Joined(p && n > 0 ? static_cast<unsigned int>(n) : 0, p, 0, nullptr)) {
    CountString(1);
}

XString::XString(char ch, int n) : m_pStrData(Repeated(ch, n)) { CountString(1); }

XString::~XString() {
    m_pStrData->Release();
    CountString(-1);
}

void XString::Empty() {
    if (m_pStrData->IsShared()) {
        auto* fresh = new XStringData;
        m_pStrData->Release();
        m_pStrData = fresh;
        return;
    }
    free(m_pStrData->m_pszData);
    m_pStrData->m_uiLength = 0;
    m_pStrData->m_uiBuffSize = 0;
    m_pStrData->m_iBlockSize = -1;
    m_pStrData->m_pszData = nullptr;
    m_pStrData->m_bLocked = false;
}

XString& XString::operator=(char ch) {
    Empty();
    m_pStrData->Allocate(2);
    char* text = m_pStrData->LockBuffer();
    text[0] = ch;
    text[1] = '\0';
    // The length stays 0: callers that assign a character and ask for the length are answered so.
    m_pStrData->UnlockBuffer();
    return *this;
}

XString& XString::operator=(const char* psz) {
    Empty();
    if (!psz)
        return *this;
    const unsigned int length = Length(psz);
    m_pStrData->Allocate(length + 1);
    char* text = m_pStrData->LockBuffer();
    memcpy(text, psz, m_pStrData->m_uiBuffSize);
    m_pStrData->SetLength(length);
    m_pStrData->UnlockBuffer();
    return *this;
}

// --- Concatenation -------------------------------------------------------------------------------------

XString& XString::operator+=(char ch) {
    // No detach: every string that shares the header sees the character.
    const unsigned int length = m_pStrData->m_uiLength;
    if (length + 2 > m_pStrData->m_uiBuffSize)
        m_pStrData->Reallocate(length + 2, true);
    char* text = m_pStrData->LockBuffer();
    text[length] = ch;
    text[length + 1] = '\0';
    m_pStrData->SetLength(length + 1);
    m_pStrData->UnlockBuffer();
    return *this;
}

XString& XString::operator+=(const char* psz) {
    if (!psz)
        return *this;
    XStringData* joined = Joined(m_pStrData->m_uiLength, m_pStrData->m_pszData, Length(psz), psz);
    std::exchange(m_pStrData, joined)->Release();
    return *this;
}

XString& XString::operator+=(const XString& s) {
    XStringData* joined = Joined(m_pStrData->m_uiLength, m_pStrData->m_pszData, s.m_pStrData->m_uiLength,
                                 s.m_pStrData->m_pszData);
    std::exchange(m_pStrData, joined)->Release();
    return *this;
}

void XString::ConcatCopy(int nLen1, const char* p1, int nLen2, const char* p2) {
    Fill(*m_pStrData, static_cast<unsigned int>(nLen1), p1, static_cast<unsigned int>(nLen2), p2);
}

XString operator+(char ch, const XString& s) {
    XString sum;
    Fill(*sum.m_pStrData, 1, &ch, s.m_pStrData->m_uiLength, s.m_pStrData->m_pszData);
    return sum;
}

XString operator+(const XString& s, char ch) {
    XString sum;
    Fill(*sum.m_pStrData, s.m_pStrData->m_uiLength, s.m_pStrData->m_pszData, 1, &ch);
    return sum;
}

// --- The buffer ----------------------------------------------------------------------------------------

void XString::ReleaseBuffer(int nNewLength) {
    m_pStrData->SetLength(nNewLength == -1 ? static_cast<unsigned int>(strlen(m_pStrData->m_pszData))
                                           : static_cast<unsigned int>(nNewLength));
    m_pStrData->UnlockBuffer();
}

namespace {

void ResizeInPlace(XStringData& header, unsigned int size) {
    header.Reallocate(size, true);
    if (size - 1 < header.m_uiLength)
        header.SetLength(size - 1);
}

// A header with a buffer of exactly size bytes and as much of the old buffer as fits. Its length is the count
// of bytes copied, not the old length: callers have seen it so.
XStringData* ResizedCopy(const XStringData& old, unsigned int size) {
    NewHeader header;
    header->m_iBlockSize = old.m_iBlockSize;
    header->Allocate(size);
    char* text = header->LockBuffer();
    const int room = std::min(static_cast<int>(size), static_cast<int>(old.m_uiBuffSize));
    const unsigned int count = room > 1 ? static_cast<unsigned int>(room - 1) : 0;
    CopyText(text, old.m_pszData, count);
    if (text)
        text[count] = '\0';
    header->m_uiLength = count;
    header->UnlockBuffer();
    return header.HandOver();
}

} // namespace

void XString::Resize(unsigned int uiSize) {
    if (uiSize == m_pStrData->m_uiBuffSize)
        return;
    if (m_pStrData->IsShared())
        std::exchange(m_pStrData, ResizedCopy(*m_pStrData, uiSize))->Release();
    else
        ResizeInPlace(*m_pStrData, uiSize);
}

int XString::Dump(int nIndent) {
    for (int i = 0; i < nIndent; ++i)
        putchar(' ');
    return printf("Length: %d  Size: %d  RefCount: %d  Locked: %d  Text: %s\n",
                  static_cast<int>(m_pStrData->m_uiLength), static_cast<int>(m_pStrData->m_uiBuffSize),
                  windows::RelaxedLoad(m_pStrData->m_iRefCount), static_cast<int>(m_pStrData->m_bLocked),
                  m_pStrData->m_pszData);
}

// --- Formatting ----------------------------------------------------------------------------------------

namespace {

// A va_list that functions can hand on by reference on every platform.
struct Arguments {
    va_list list;
};

enum class SizeMark { None, Narrow, Wide };

// One conversion of a format, from behind its percent sign.
struct Conversion {
    int width = 0;
    int precision = 0;
    int prefix = 0; // room for what the # flag puts in front
    SizeMark mark = SizeMark::None;
    char letter = '\0';

    long long WidthAndPrecision() const { return static_cast<long long>(width) + precision; }
};

constexpr long long kNullTextLength = 6; // "(null)"
constexpr long long kIntegerLength = 32;
constexpr long long kRealLength = 128;

// A decimal number at the position; its digits are skipped, and nothing else that strtol may have accepted.
int ReadNumber(const char*& position) {
    const long number = strtol(position, nullptr, 10);
    while (*position >= '0' && *position <= '9')
        ++position;
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

void ReadFlags(const char*& position, Arguments& args, Conversion& conversion) {
    for (;; ++position) {
        switch (*position) {
        case '#':
            conversion.prefix += 2;
            break;
        case '*':
            conversion.width = va_arg(args.list, int);
            break;
        case '-':
        case '+':
        case '0':
        case ' ':
            break;
        default:
            return;
        }
    }
}

void ReadPrecision(const char*& position, Arguments& args, Conversion& conversion) {
    if (*position != '.')
        return;
    ++position;
    if (*position == '*') {
        conversion.precision = va_arg(args.list, int);
        ++position;
    } else {
        conversion.precision = ReadNumber(position);
    }
}

// One letter at most: the others (ll, z, j, t) are not known and count as conversions.
SizeMark ReadSizeMark(const char*& position) {
    switch (*position) {
    case 'h':
        ++position;
        return SizeMark::Narrow;
    case 'l':
        ++position;
        return SizeMark::Wide;
    case 'F':
    case 'L':
    case 'N':
        ++position;
        return SizeMark::None;
    default:
        return SizeMark::None;
    }
}

Conversion ReadConversion(const char*& position, Arguments& args) {
    static constexpr char kFunction[] = "int CalcMaxFormattedStringLen(const char*, __va_list_tag*)";
    Conversion conversion;
    ReadFlags(position, args, conversion);
    if (conversion.width == 0)
        conversion.width = ReadNumber(position);
    // The C library would take a negative width as left alignment; here it ends the process.
    windows::Require(conversion.width >= 0, "nWidth >= 0", {"Windows/XString", 1348, kFunction});
    ReadPrecision(position, args, conversion);
    windows::Require(conversion.precision >= 0, "nPrecision >= 0", {"Windows/XString", 1368, kFunction});
    conversion.mark = ReadSizeMark(position);
    conversion.letter = *position;
    if (conversion.letter != '\0')
        ++position;
    return conversion;
}

long long TextLength(const char* text) {
    return text ? std::max<long long>(static_cast<long long>(strlen(text)), 1) : kNullTextLength;
}

long long TextLength(const wchar_t* text) {
    return text ? std::max<long long>(static_cast<long long>(wcslen(text)), 1) : kNullTextLength;
}

long long CutAndPad(long long length, const Conversion& conversion) {
    if (conversion.precision != 0)
        length = std::min<long long>(length, conversion.precision);
    return std::max<long long>(length, conversion.width);
}

long long MeasureFixed(const Conversion& conversion, double value) {
    const int precision = static_cast<int>(std::min<long long>(conversion.precision + 6LL, INT_MAX));
    return std::max(snprintf(nullptr, 0, "%*.*f", conversion.width, precision, value), 0);
}

// The charge for one conversion, whose argument is taken from the list.
long long ItemLength(const Conversion& conversion, Arguments& args) {
    const bool wide = conversion.mark == SizeMark::Wide;
    switch (conversion.letter) {
    case 'c':
    case 'C':
        static_cast<void>(va_arg(args.list, int));
        return CutAndPad(2, conversion);
    case 's':
        return CutAndPad(wide ? TextLength(va_arg(args.list, const wchar_t*))
                              : TextLength(va_arg(args.list, const char*)),
                         conversion);
    case 'S':
        return CutAndPad(conversion.mark == SizeMark::Narrow ? TextLength(va_arg(args.list, const char*))
                                                             : TextLength(va_arg(args.list, const wchar_t*)),
                         conversion);
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        static_cast<void>(wide ? va_arg(args.list, long) : va_arg(args.list, int));
        return std::max(conversion.WidthAndPrecision(), kIntegerLength);
    case 'p':
        static_cast<void>(va_arg(args.list, void*));
        return std::max(conversion.WidthAndPrecision(), kIntegerLength);
    case 'e':
    case 'g':
    case 'G':
        static_cast<void>(va_arg(args.list, double));
        return std::max(conversion.WidthAndPrecision(), kRealLength);
    case 'f':
        return MeasureFixed(conversion, va_arg(args.list, double));
    case 'n':
        static_cast<void>(va_arg(args.list, void*));
        return 0;
    default:
        // %E and %a are here on purpose: they take no argument, and those behind them are read out of step.
        return std::max(conversion.WidthAndPrecision(), 2LL);
    }
}

long long EstimateLength(const char* position, Arguments& args) {
    long long length = 0;
    while (*position != '\0') {
        if (*position++ != '%') {
            ++length;
        } else if (*position == '%') {
            ++position;
            ++length;
        } else {
            const Conversion conversion = ReadConversion(position, args);
            length += conversion.prefix + ItemLength(conversion, args);
        }
    }
    return length;
}

bool IsNothing(const char* pszFormat) { return !pszFormat || *pszFormat == '\0'; }

// The string is empty afterwards but has a buffer.
void FormatNothing(XString& string) {
    if (string.m_pStrData->m_uiBuffSize > 1)
        string.CopyBeforeWrite();
    else
        string.Resize(2);
    char* text = string.m_pStrData->LockBuffer();
    text[0] = '\0';
    string.ReleaseBuffer(-1);
}

// Gives the string a buffer of its own for a text of that estimate, and returns it locked.
char* BufferFor(XString& string, int nMaxLen) {
    if (nMaxLen < static_cast<int>(string.m_pStrData->m_uiBuffSize))
        string.CopyBeforeWrite();
    else
        string.Resize(static_cast<unsigned int>(nMaxLen) + 1);
    return string.m_pStrData->LockBuffer();
}

} // namespace

int CalcMaxFormattedStringLen(const char* pszFormat, va_list args) {
    Arguments own;
    va_copy(own.list, args);
    const long long length = EstimateLength(pszFormat, own) + 1;
    va_end(own.list);
    return static_cast<int>(std::min<long long>(length, INT_MAX));
}

// Not through FormatV: a string that runs out of memory throws, and no argument list may be open then.
void XString::Format(const char* pszFormat, ...) {
    if (IsNothing(pszFormat)) {
        FormatNothing(*this);
        return;
    }
    va_list args;
    va_start(args, pszFormat);
    const int nMaxLen = CalcMaxFormattedStringLen(pszFormat, args);
    va_end(args);
    char* text = BufferFor(*this, nMaxLen);
    va_start(args, pszFormat);
    vsnprintf(text, static_cast<size_t>(nMaxLen), pszFormat, args);
    va_end(args);
    ReleaseBuffer(-1);
}

void XString::FormatV(const char* pszFormat, va_list args) {
    if (IsNothing(pszFormat)) {
        FormatNothing(*this);
        return;
    }
    const int nMaxLen = CalcMaxFormattedStringLen(pszFormat, args);
    char* text = BufferFor(*this, nMaxLen);
    // The size is the estimate, not the buffer's: a text that outgrows its estimate is cut also where there
    // is room.
    vsnprintf(text, static_cast<size_t>(nMaxLen), pszFormat, args);
    ReleaseBuffer(-1);
}
