// VARIANT conversions against a model that keeps each value as the number or text that it means.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>

#include <Windows/variant.h>

#include "models/Exercises.h"

namespace models {

namespace {

const VARTYPE kTypes[] = {VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R4, VT_R8, VT_BSTR, VT_BOOL, VT_UI1};
constexpr unsigned int kTypeCount = sizeof kTypes / sizeof *kTypes;

// What a variant means; numbers of every type fit a double.
struct Meaning {
    VARTYPE type = VT_EMPTY;
    double number = 0;
    std::string text;
    bool hasText = false; // else the BSTR is NULL
};

double LowBits(double whole, unsigned int bits, bool isSigned) {
    const double range = ldexp(1, static_cast<int>(bits));
    double low = fmod(whole, range);
    if (low < 0)
        low += range;
    return isSigned && low >= range / 2 ? low - range : low;
}

double Limited(double value, double low, double high) {
    return value < low ? low : value > high ? high : value;
}

double WholeSigned(double value) {
    return isnan(value) ? -2147483648.0 : trunc(Limited(value, -2147483648.0, 2147483647.0));
}

double WholeUnsigned(double value) {
    return value >= 0 ? trunc(Limited(value, 0, 4294967295.0)) : WholeSigned(value);
}

std::string Printed(const char* format, double number) {
    char text[512];
    snprintf(text, sizeof text, format, number);
    return text;
}

// A number at the start of a text, as far as it can be read: white space, sign, digits.
double LeadingWhole(const std::string& text) {
    size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string::npos)
        return 0;
    const bool negative = text[i] == '-';
    if (text[i] == '-' || text[i] == '+')
        ++i;
    double number = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        number = number * 10 + (text[i] - '0');
    return Limited(negative ? -number : number, -2147483648.0, 2147483647.0);
}

std::string AsText(const Meaning& from) {
    switch (from.type) {
    case VT_BOOL:
        return from.number != 0 ? "true" : "false";
    case VT_R4:
        return Printed("%f", from.number);
    case VT_R8:
        return Printed("%g", from.number);
    default:
        return Printed("%.0f", from.number);
    }
}

// What the meaning becomes as a number of another type. A text is read as the other type wants it.
Meaning Converted(const Meaning& from, VARTYPE to) {
    Meaning result;
    result.type = to;
    const bool isReal = from.type == VT_R4 || from.type == VT_R8;
    double number = from.number;
    if (from.type == VT_BSTR && !from.hasText)
        number = 0;
    else if (from.type == VT_BSTR && to == VT_BOOL)
        number = from.text == "false" || from.text == "0" ? 0 : 1;
    else if (from.type == VT_BSTR)
        number = to == VT_R4 || to == VT_R8 ? strtod(from.text.c_str(), nullptr) : LeadingWhole(from.text);
    switch (to) {
    case VT_I2:
        result.number = LowBits(isReal ? WholeSigned(number) : number, 16, true);
        break;
    case VT_I4:
        result.number = isReal ? WholeSigned(number) : number;
        break;
    case VT_UI1:
        result.number = LowBits(isReal ? WholeUnsigned(number) : number, 8, false);
        break;
    case VT_R4:
        result.number = static_cast<double>(static_cast<float>(number));
        break;
    case VT_BOOL:
        result.number = number != 0 ? -1 : 0;
        break;
    default:
        result.number = number;
    }
    if (to != VT_R4 && to != VT_R8)
        result.number += 0.0; // an integer has no -0
    return result;
}

class Variant {
public:
    explicit Variant(Choices& choices) : m_choices(choices) {}

    ~Variant() { VariantClear(&m_variant); }

    void Step() {
        if (m_choices.OneIn(4))
            Begin();
        else if (m_choices.OneIn(8))
            Copy();
        else
            Convert(m_choices.OneIn(10) ? static_cast<VARTYPE>(m_choices.Below(30)) : AnyType());
        Compare();
    }

private:
    VARTYPE AnyType() { return kTypes[m_choices.Below(kTypeCount)]; }

    double AnyReal() {
        static const double kSpecial[] = {0,    -0.5, 0.5,   -2.7,  254.9,      255.5,         256.5,
                                          3e9,  -3e9, 1e20,  -1e20, 2147483647, -2147483648.5, 4294967295.0,
                                          1e38, NAN,  32768, -32769};
        if (m_choices.OneIn(3))
            return kSpecial[m_choices.Below(sizeof kSpecial / sizeof *kSpecial)];
        return m_choices.Between(-100000, 100000) / 16.0;
    }

    int AnyInteger() {
        static const int kSpecial[] = {0,     1,     -1,    127,   128,   255,       256,
                                       32767, 32768, 65535, 65536, 70000, 0x7FFFFFFF};
        if (m_choices.OneIn(3))
            return kSpecial[m_choices.Below(sizeof kSpecial / sizeof *kSpecial)];
        return m_choices.Between(-1000000000, 1000000000);
    }

    // Mostly numbers.
    std::string AnyText() {
        switch (m_choices.Below(6)) {
        case 0:
            return m_choices.TextOf("0123456789+-. exE", 12);
        case 1:
            return m_choices.OneIn(2) ? "false" : "0";
        case 2:
            return m_choices.TextOf("truefalse ", 6);
        default:
            return m_choices.TextOf(" ", 2) + std::to_string(AnyInteger()) + m_choices.TextOf("01a", 3);
        }
    }

    void Begin() {
        m_variant.Clear();
        m_variant = _variant_t();
        m_meaning = Meaning();
        m_meaning.type = m_variant.vt = AnyType();
        switch (m_meaning.type) {
        case VT_I2:
            m_meaning.number = m_variant.iVal = static_cast<short>(AnyInteger());
            break;
        case VT_I4:
            m_meaning.number = m_variant.lVal = AnyInteger();
            break;
        case VT_R4:
            m_meaning.number = static_cast<double>(m_variant.fltVal = static_cast<float>(AnyReal()));
            break;
        case VT_R8:
            m_meaning.number = m_variant.dblVal = AnyReal();
            break;
        case VT_BOOL:
            m_meaning.number = m_variant.boolVal = m_choices.OneIn(2) ? VARIANT_TRUE : VARIANT_FALSE;
            break;
        case VT_UI1:
            m_meaning.number = m_variant.bVal = static_cast<unsigned char>(AnyInteger());
            break;
        case VT_BSTR:
            m_meaning.hasText = !m_choices.OneIn(8);
            if (m_meaning.hasText)
                m_variant.bstrVal = SysAllocString(m_meaning.text = AnyText());
            break;
        default:
            break; // the value is zero
        }
    }

    void Copy() {
        VARIANT copy;
        VariantInit(&copy);
        VariantCopy(&copy, &m_variant);
        if (m_variant.vt == VT_BSTR && m_variant.bstrVal)
            Agree(copy.bstrVal != m_variant.bstrVal, true, "a text of its own");
        VariantClear(&m_variant);
        Agree(m_variant.vt, VT_EMPTY, "type after clearing");
        memcpy(static_cast<VARIANT*>(&m_variant), &copy, sizeof copy);
    }

    void Convert(VARTYPE to) {
        Agree(VariantChangeType(&m_variant, to), S_OK, "result");
        Meaning& now = m_meaning;
        const bool isListed = std::find(kTypes, kTypes + kTypeCount, to) != kTypes + kTypeCount;
        if (to == now.type || !isListed)
            return;
        if (to == VT_EMPTY || to == VT_NULL) {
            // The value's bytes stay, so that a text would be made of them: begin again.
            Begin();
        } else if (to == VT_BSTR && now.type == VT_R8) {
            // The text is there but the type does not tell.
            Agree(m_variant.vt, VT_R8, "type of a double made a text");
            Agree(std::string(m_variant.bstrVal), AsText(now), "text of a double");
            SysFreeString(m_variant.bstrVal);
            Begin();
        } else if (to == VT_BSTR && (now.type == VT_EMPTY || now.type == VT_NULL)) {
            now.type = VT_BSTR; // of a zeroed value
            now.hasText = false;
        } else if (to == VT_BSTR) {
            now.text = AsText(now);
            now.hasText = true;
            now.type = VT_BSTR;
        } else {
            now = Converted(now, to);
        }
    }

    double Number() const {
        switch (m_variant.vt) {
        case VT_I2:
            return m_variant.iVal;
        case VT_I4:
            return m_variant.lVal;
        case VT_R4:
            return static_cast<double>(m_variant.fltVal);
        case VT_R8:
            return m_variant.dblVal;
        case VT_BOOL:
            return m_variant.boolVal;
        default:
            return m_variant.bVal;
        }
    }

    void Compare() const {
        Agree(m_variant.vt, m_meaning.type, "type");
        if (m_variant.vt == VT_EMPTY || m_variant.vt == VT_NULL)
            return;
        if (m_variant.vt != VT_BSTR) {
            if (!(isnan(Number()) && isnan(m_meaning.number)))
                Agree(Number(), m_meaning.number, "number");
        } else if (m_meaning.hasText) {
            Agree(std::string(m_variant.bstrVal), m_meaning.text, "text");
            Agree(SysStringLen(m_variant.bstrVal), m_meaning.text.size(), "length of the text");
        } else {
            Agree(m_variant.bstrVal == nullptr, true, "no text");
        }
    }

    Choices& m_choices;
    _variant_t m_variant;
    Meaning m_meaning;
};

} // namespace

void ExerciseVariant(Choices& choices, unsigned long operations) {
    Variant variant(choices);
    for (unsigned long i = 0; i < operations; ++i)
        variant.Step();
}

} // namespace models
