// Formatting into strings, and the estimate of the formatted length.
#include <Windows/XString.h>

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <algorithm>

#include <Windows/internal/Assertion.h>

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
    if (*position > '9') // the conversion's letter, in nearly all formats
        return 0;
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

// The charge for a conversion of any kind, which is skipped. Apart, as most are of the two kinds below.
__attribute__((noinline)) long long ConversionLength(const char*& position, Arguments& args) {
    const Conversion conversion = ReadConversion(position, args);
    return conversion.prefix + ItemLength(conversion, args);
}

// What is known of a text before it is formatted.
struct Estimate {
    int nMaxLen;     // an upper bound of its length in bytes, NUL included
    bool mayHoldNul; // as %c makes them; the text ends there for its length
};

Estimate EstimateText(const char* position, Arguments& args) {
    long long length = 1;
    bool mayHoldNul = false;
    while (*position != '\0') {
        if (*position++ != '%') {
            ++length;
            continue;
        }
        switch (*position) {
        case '%':
            ++position;
            ++length;
            break;
        case 's':
            ++position;
            length += TextLength(va_arg(args.list, const char*));
            break;
        case 'd':
            ++position;
            static_cast<void>(va_arg(args.list, int));
            length += kIntegerLength;
            break;
        default: {
            const char* rest = position; // only a copy has an address, and so lies in memory
            length += ConversionLength(rest, args);
            position = rest;
            mayHoldNul = true;
            break;
        }
        }
    }
    return {static_cast<int>(std::min<long long>(length, INT_MAX)), mayHoldNul};
}

// The same for a list that is needed again.
Estimate EstimateText(const char* pszFormat, va_list args) {
    Arguments own;
    va_copy(own.list, args);
    const Estimate estimate = EstimateText(pszFormat, own);
    va_end(own.list);
    return estimate;
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

// Apart, as a string of one user would save registers for it.
__attribute__((noinline)) void Detach(XString& string) { string.CopyBeforeWrite(); }

// Gives the string a buffer of its own for a text of that estimate, and returns it locked.
char* BufferFor(XString& string, int nMaxLen) {
    if (nMaxLen < static_cast<int>(string.m_pStrData->m_uiBuffSize))
        Detach(string);
    else
        string.Resize(static_cast<unsigned int>(nMaxLen) + 1);
    return string.m_pStrData->LockBuffer();
}

// Ends the write. What vsnprintf returned is the length of the text that it wrote, unless that was cut or may
// have a NUL within; then, as after -1, the text is counted.
void Finish(XString& string, const Estimate& estimate, int result) {
    string.ReleaseBuffer(result < estimate.nMaxLen && !estimate.mayHoldNul ? result : -1);
}

} // namespace

int CalcMaxFormattedStringLen(const char* pszFormat, va_list args) {
    return EstimateText(pszFormat, args).nMaxLen;
}

// Not through FormatV: a string that runs out of memory throws, and no argument list may be open then. The
// list is started twice, as to copy one that has just been started waits for it to be written.
void XString::Format(const char* pszFormat, ...) {
    if (IsNothing(pszFormat)) {
        FormatNothing(*this);
        return;
    }
    Arguments args;
    va_start(args.list, pszFormat);
    const Estimate estimate = EstimateText(pszFormat, args);
    va_end(args.list);
    char* text = BufferFor(*this, estimate.nMaxLen);
    va_start(args.list, pszFormat);
    const int length = vsnprintf(text, static_cast<size_t>(estimate.nMaxLen), pszFormat, args.list);
    va_end(args.list);
    Finish(*this, estimate, length);
}

void XString::FormatV(const char* pszFormat, va_list args) {
    if (IsNothing(pszFormat)) {
        FormatNothing(*this);
        return;
    }
    const Estimate estimate = EstimateText(pszFormat, args);
    char* text = BufferFor(*this, estimate.nMaxLen);
    // The size is the estimate, not the buffer's: a text that outgrows its estimate is cut also where there
    // is room.
    Finish(*this, estimate, vsnprintf(text, static_cast<size_t>(estimate.nMaxLen), pszFormat, args));
}
