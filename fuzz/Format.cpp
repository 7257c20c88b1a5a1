// The estimate of a formatted length, XString::Format and FormatBSTR, under well-formed formats whose
// arguments are of the types that they ask for.
//
// The number and types of a call's arguments are fixed when it is compiled, so the program holds a call for
// each sequence of types that there can be.
#include <stdarg.h>
#include <wchar.h>

#include <deque>
#include <memory>
#include <vector>

#include <Windows/XString.h>
#include <Windows/bstr.h>

#include "Input.h"

namespace {

constexpr size_t kMostArguments = 5;
constexpr int kBstrTextSize = 16384; // texts of a smaller estimate are cut here

struct Argument {
    enum Type { Int, Long, Double, Pointer } type;
    int number;
    double real;
    const void* pointer;
};

// A format, its arguments and what it is estimated at.
class Format {
public:
    explicit Format(fuzz::Input& input) : m_input(input) {
        while (m_input.Left() > 0 && !m_isLast && m_arguments.size() + 3 <= kMostArguments)
            m_input.OneIn(3) ? AddText() : AddConversion();
    }

    const char* Text() const { return m_text.c_str(); }
    const std::vector<Argument>& Arguments() const { return m_arguments; }
    int Estimate() const { return static_cast<int>(m_estimate) + 1; }

private:
    void AddText() {
        const std::string text = m_input.TextOf("ab %", 5);
        for (const char c : text)
            m_text += c == '%' ? "%%" : std::string(1, c);
        m_estimate += text.size();
    }

    void AddConversion() {
        static const char kLetters[] = "dduxXoicsspfeGgSlL";
        const char letter = m_input.CharacterOf(std::string(kLetters, sizeof kLetters - 1));
        m_text += '%';
        AddFlags(letter);
        const size_t width = Number(m_input.OneIn(16) ? 20000 : 60);
        size_t precision = 0;
        if (letter != 'c' && letter != 'p' && m_input.OneIn(2)) {
            m_text += '.';
            precision = Number(60);
        }
        switch (letter) {
        case 'l':
            AddLong(std::max<size_t>(width + precision, 32));
            break;
        case 'L':
            AddUnknown(std::max<size_t>(width + precision, 2));
            break;
        case 'c':
            m_text += m_input.OneIn(3) ? "lc" : "c";
            m_arguments.push_back({Argument::Int, m_input.Between(0, 127), 0, nullptr});
            m_estimate += std::max<size_t>(2, width);
            break;
        case 's':
            AddString(width, precision);
            break;
        case 'S':
            AddWideString(width, precision);
            break;
        case 'p':
            m_text += 'p';
            m_arguments.push_back({Argument::Pointer, 0, 0, m_input.OneIn(4) ? nullptr : this});
            m_estimate += std::max<size_t>(width, 32);
            break;
        case 'f':
        case 'e':
        case 'g':
        case 'G':
            AddReal(letter, width, precision);
            break;
        default:
            m_text += m_input.OneIn(4) ? "h" : "";
            m_text += letter;
            m_arguments.push_back({Argument::Int, AnyNumber(), 0, nullptr});
            m_estimate += std::max<size_t>(width + precision, 32);
            break;
        }
    }

    // Those that have a meaning for the letter. Each # has room for two characters.
    void AddFlags(char letter) {
        std::string flags = "-";
        if (strchr("dil", letter))
            flags += "+ 0";
        else if (strchr("xXo", letter))
            flags += "#0";
        else if (strchr("feGg", letter))
            flags += "+ #0";
        const std::string chosen = m_input.TextOf(flags, 3);
        m_text += chosen;
        m_estimate += 2 * static_cast<size_t>(std::count(chosen.begin(), chosen.end(), '#'));
    }

    // A width or precision: none, digits, or an argument.
    size_t Number(unsigned int limit) {
        const unsigned int how = m_input.Below(3);
        if (how == 0)
            return 0;
        const unsigned int number = 1 + m_input.Below(limit);
        if (how == 1) {
            m_text += std::to_string(number);
        } else {
            m_text += '*';
            m_arguments.push_back({Argument::Int, static_cast<int>(number), 0, nullptr});
        }
        return number;
    }

    int AnyNumber() {
        static const int kSpecial[] = {0, 1, -1, 0x7FFFFFFF, -0x7FFFFFFF - 1, 255};
        if (m_input.OneIn(2))
            return kSpecial[m_input.Below(sizeof kSpecial / sizeof *kSpecial)];
        return static_cast<int>(m_input.Below(0xFFFFFFFF));
    }

    double AnyReal() {
        static const double kSpecial[] = {0, -0.0, 1.5, -1e300, 1.7976931348623157e308, 5e-324, 1e15};
        if (m_input.OneIn(3))
            return kSpecial[m_input.Below(sizeof kSpecial / sizeof *kSpecial)];
        double value;
        std::string bytes = m_input.Bytes(sizeof value);
        bytes.resize(sizeof value);
        memcpy(&value, bytes.data(), sizeof value); // any, infinities and NaN included
        return value;
    }

    void AddLong(size_t charge) {
        m_text += m_input.OneIn(2) ? "ld" : "lx";
        m_arguments.push_back({Argument::Long, AnyNumber(), 0, nullptr});
        m_estimate += charge;
    }

    // One that the estimate does not know and takes no argument for. So nothing may follow it.
    void AddUnknown(size_t charge) {
        m_isLast = true;
        m_text += m_input.CharacterOf("EaA");
        m_arguments.push_back({Argument::Double, 0, AnyReal(), nullptr});
        m_estimate += charge;
    }

    void AddReal(char letter, size_t width, size_t precision) {
        m_text += m_input.OneIn(4) ? "l" : "";
        m_text += letter;
        const double value = AnyReal();
        m_arguments.push_back({Argument::Double, 0, value, nullptr});
        if (letter == 'f')
            m_estimate += static_cast<size_t>(snprintf(nullptr, 0, "%*.*f", static_cast<int>(width),
                                                       static_cast<int>(precision) + 6, value));
        else
            m_estimate += std::max<size_t>(width + precision, 128);
    }

    void AddString(size_t width, size_t precision) {
        m_text += m_input.OneIn(4) ? "hs" : "s";
        if (m_input.OneIn(8)) {
            m_arguments.push_back({Argument::Pointer, 0, 0, nullptr});
            m_estimate += CutAndPad(6, width, precision);
            return;
        }
        const size_t repeated = m_input.OneIn(16) ? 1000 : 1;
        const std::string piece = m_input.TextOf("xyz%\xFF", 30);
        std::string text;
        for (size_t i = 0; i < repeated; ++i)
            text += piece;
        // A block of its own, so that a sanitizer sees what reads past its end.
        m_texts.emplace_back(new char[text.size() + 1]);
        strcpy(m_texts.back().get(), text.c_str());
        m_arguments.push_back({Argument::Pointer, 0, 0, m_texts.back().get()});
        m_estimate += CutAndPad(std::max<size_t>(text.size(), 1), width, precision);
    }

    void AddWideString(size_t width, size_t precision) {
        m_text += m_input.OneIn(2) ? "S" : "ls";
        const std::string text = m_input.TextOf("uvw", 30);
        m_wideTexts.emplace_back(new wchar_t[text.size() + 1]());
        std::copy(text.begin(), text.end(), m_wideTexts.back().get());
        m_arguments.push_back({Argument::Pointer, 0, 0, m_wideTexts.back().get()});
        m_estimate += CutAndPad(std::max<size_t>(text.size(), 1), width, precision);
    }

    static size_t CutAndPad(size_t length, size_t width, size_t precision) {
        return std::max(precision != 0 ? std::min(length, precision) : length, width);
    }

    fuzz::Input& m_input;
    std::string m_text;
    std::vector<Argument> m_arguments;
    size_t m_estimate = 0;
    bool m_isLast = false;
    std::deque<std::unique_ptr<char[]>> m_texts;
    std::deque<std::unique_ptr<wchar_t[]>> m_wideTexts;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

int Estimated(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int estimate = CalcMaxFormattedStringLen(format, args);
    va_end(args);
    return estimate;
}

// What the C library keeps of the text in so many bytes.
std::string Kept(int size, const char* format, ...) {
    const std::unique_ptr<char[]> text(new char[static_cast<size_t>(size)]);
    va_list args;
    va_start(args, format);
    vsnprintf(text.get(), static_cast<size_t>(size), format, args);
    va_end(args);
    return text.get();
}

// A string that has had another text, which may be shared.
class Target {
public:
    explicit Target(unsigned int kind) {
        if (kind % 3 != 0)
            m_string = std::string(kind % 3 == 1 ? 10 : 300, 'o').c_str();
        if (kind / 3 % 2 == 1)
            m_sharer = m_string;
        m_before = m_sharer.GetLength() > 0 ? static_cast<const char*>(m_sharer) : "";
    }

    XString& String() { return m_string; }

    void RequireText(const std::string& text) {
        const XStringData& data = *m_string.m_pStrData;
        models::Agree(std::string(data.m_pszData), text, "Format");
        models::Agree(data.m_uiLength, text.size(), "length of the formatted text");
        models::Agree(data.m_uiLength < data.m_uiBuffSize, true, "the text fits its buffer");
        models::Agree(data.m_bLocked, false, "the buffer is unlocked");
        models::Agree(m_sharer == m_before.c_str(), true, "another string keeps the text that it shared");
    }

private:
    XString m_string;
    XString m_sharer;
    std::string m_before;
};

template <typename... Args> void Check(const Format& format, unsigned int kind, Args... args) {
    const char* const text = format.Text();
    const int estimate = format.Estimate();
    models::Agree(Estimated(text, args...), estimate, "estimate");

    Target target(kind);
    target.String().Format(text, args...);
    // An empty format is not formatted at all; its text is the same.
    target.RequireText(Kept(estimate, text, args...));

    BSTR bstr = FormatBSTR(text, args...);
    const std::string expected = Kept(std::max(estimate, kBstrTextSize), text, args...);
    models::Agree(std::string(bstr), expected, "FormatBSTR");
    models::Agree(SysStringLen(bstr), expected.size(), "length of the formatted BSTR");
    SysFreeString(bstr);
}

#pragma GCC diagnostic pop

// Makes variadic arguments of a vector, one by one.
template <typename... Args> void Call(const Format& format, unsigned int kind, Args... args) {
    constexpr size_t at = sizeof...(Args);
    if (at == format.Arguments().size()) {
        Check(format, kind, args...);
    } else if constexpr (at < kMostArguments) {
        const Argument& next = format.Arguments()[at];
        switch (next.type) {
        case Argument::Int:
            return Call(format, kind, args..., next.number);
        case Argument::Long:
            return Call(format, kind, args..., static_cast<long>(next.number));
        case Argument::Double:
            return Call(format, kind, args..., next.real);
        case Argument::Pointer:
            return Call(format, kind, args..., next.pointer);
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const unsigned int kind = input.Below(6);
    const Format format(input);
    try {
        Call(format, kind);
    } catch (const models::Disagreement& disagreement) {
        fuzz::Fail(std::string(format.Text()) + ": " + disagreement.what());
    }
    return 0;
}
