#include <Windows/variant.h>

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <charconv>

#include <Windows/internal/Assertion.h>

namespace {

// The value's first bytes as a T, whatever was stored there last.
template <typename T> T Value(const tagVARIANT& v) {
    T value;
    memcpy(&value, &v.dblVal, sizeof value);
    return value;
}

template <typename T> void SetValue(tagVARIANT& v, T value) { memcpy(&v.dblVal, &value, sizeof value); }

using ValueBytes = uint64_t;
static_assert(sizeof(ValueBytes) == sizeof(double) && sizeof(BSTR) <= sizeof(double), "all of the value");

VARIANT_BOOL AsBool(bool value) { return value ? VARIANT_TRUE : VARIANT_FALSE; }

// Truncation toward zero. Outside 32 bits it gives on every processor what the target's gives: the nearest
// limit, and the lowest number for what is no number.
int32_t Truncated(double value) {
    if (!(value > INT32_MIN - 1.0))
        return INT32_MIN;
    if (value >= INT32_MAX + 1.0)
        return INT32_MAX;
    return static_cast<int32_t>(value);
}

uint32_t TruncatedUnsigned(double value) {
    if (!(value >= 0))
        return static_cast<uint32_t>(Truncated(value));
    if (value >= UINT32_MAX + 1.0)
        return UINT32_MAX;
    return static_cast<uint32_t>(value);
}

// Apart from FromInteger, which would make room for the text whatever the type is.
__attribute__((noinline)) void SetText(tagVARIANT& v, int value) {
    char text[16];
    *std::to_chars(text, text + sizeof text, value).ptr = '\0';
    SetValue(v, SysAllocString(text));
}

template <typename T> void SetText(tagVARIANT& v, const char* format, T value) {
    char text[256];
    snprintf(text, sizeof text, format, value);
    SetValue(v, SysAllocString(text));
}

// Each of these writes the value that v has under the new type; the type itself is not touched.

void FromNothing(tagVARIANT& v, VARTYPE newType) {
    switch (newType) {
    case VT_I2:
    case VT_BOOL:
        SetValue<short>(v, 0);
        break;
    case VT_I4:
        SetValue<int>(v, 0);
        break;
    case VT_R4:
        SetValue(v, 0.0F);
        break;
    case VT_R8:
        SetValue(v, 0.0);
        break;
    case VT_UI1:
        SetValue<unsigned char>(v, 0);
        break;
    default:
        break; // VT_BSTR keeps the bytes, whatever they are: see the header
    }
}

void FromInteger(tagVARIANT& v, int value, VARTYPE newType) {
    switch (newType) {
    case VT_I2:
        SetValue(v, static_cast<short>(value));
        break;
    case VT_I4:
        SetValue(v, value);
        break;
    case VT_R4:
        SetValue(v, static_cast<float>(value));
        break;
    case VT_R8:
        SetValue(v, static_cast<double>(value));
        break;
    case VT_BSTR:
        SetText(v, value);
        break;
    case VT_BOOL:
        SetValue(v, AsBool(value != 0));
        break;
    default:
        SetValue(v, static_cast<unsigned char>(value));
        break;
    }
}

void FromBool(tagVARIANT& v, VARTYPE newType) {
    const short value = Value<short>(v);
    if (newType == VT_BSTR)
        SetValue(v, SysAllocString(value != 0 ? "true" : "false"));
    else
        FromInteger(v, value, newType);
}

void FromReal(tagVARIANT& v, double value, const char* format, VARTYPE newType) {
    switch (newType) {
    case VT_I2:
        SetValue(v, static_cast<short>(Truncated(value)));
        break;
    case VT_I4:
        SetValue(v, Truncated(value));
        break;
    case VT_R4:
        SetValue(v, static_cast<float>(value));
        break;
    case VT_R8:
        SetValue(v, value);
        break;
    case VT_BSTR:
        SetText(v, format, value);
        break;
    case VT_BOOL:
        SetValue(v, AsBool(value != 0.0));
        break;
    default:
        SetValue(v, static_cast<unsigned char>(TruncatedUnsigned(value)));
        break;
    }
}

// More than 9 for a character that is none.
unsigned int Digit(char c) { return static_cast<unsigned char>(c) - static_cast<unsigned int>('0'); }

// A long of 64 bits is cut to what strtol gives where it has 32.
int ParsedInteger(const char* text) {
    // A plain number of no more digits than an int always holds.
    constexpr int kSafeDigits = 9;
    const char* const first = *text == '-' ? text + 1 : text;
    const char* end = first;
    unsigned int number = 0; // wraps round where there are more
    for (; Digit(*end) <= 9; ++end)
        number = number * 10 + Digit(*end);
    if (end != first && end - first <= kSafeDigits)
        return static_cast<int>(*text == '-' ? -number : number);
    return static_cast<int>(std::clamp<long>(strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

void FromText(tagVARIANT& v, VARTYPE newType) {
    auto* text = Value<BSTR>(v);
    if (!text) {
        FromNothing(v, newType);
        return;
    }
    switch (newType) {
    case VT_R4:
        SetValue(v, static_cast<float>(strtod(text, nullptr)));
        break;
    case VT_R8:
        SetValue(v, strtod(text, nullptr));
        break;
    case VT_BOOL:
        SetValue(v, AsBool(strcmp(text, "false") != 0 && strcmp(text, "0") != 0));
        break;
    default:
        FromInteger(v, ParsedInteger(text), newType);
        break;
    }
    SysFreeString(text);
}

void Convert(tagVARIANT& v, VARTYPE newType) {
    switch (v.vt) {
    case VT_EMPTY:
    case VT_NULL:
        FromNothing(v, newType);
        break;
    case VT_I2:
        FromInteger(v, Value<short>(v), newType);
        break;
    case VT_I4:
        FromInteger(v, Value<int>(v), newType);
        break;
    case VT_R4:
        FromReal(v, static_cast<double>(Value<float>(v)), "%f", newType);
        break;
    case VT_R8:
        FromReal(v, Value<double>(v), "%g", newType);
        break;
    case VT_BSTR:
        FromText(v, newType);
        break;
    case VT_BOOL:
        FromBool(v, newType);
        break;
    case VT_UI1:
        FromInteger(v, Value<unsigned char>(v), newType);
        break;
    default:
        break; // carried, not converted: only the type will change
    }
}

bool IsConvertible(VARTYPE type) {
    switch (type) {
    case VT_I2:
    case VT_I4:
    case VT_R4:
    case VT_R8:
    case VT_BSTR:
    case VT_BOOL:
    case VT_UI1:
        return true;
    default:
        return false;
    }
}

} // namespace

void VariantInit(tagVARIANT* v) { v->vt = VT_EMPTY; }

HRESULT VariantClear(tagVARIANT* v) {
    if (v->vt == VT_BSTR)
        SysFreeString(v->bstrVal);
    v->vt = VT_EMPTY;
    return S_OK;
}

HRESULT VariantCopy(tagVARIANT* dest, tagVARIANT* src) {
    VariantClear(dest);
    dest->vt = src->vt;
    if (src->vt == VT_BSTR)
        SetValue(*dest, SysAllocString(Value<BSTR>(*src)));
    else
        SetValue(*dest, Value<ValueBytes>(*src));
    return S_OK;
}

HRESULT VariantChangeType(tagVARIANT* v, unsigned short newType) {
    if (v->vt == newType)
        return S_OK;
    if (newType == VT_EMPTY || newType == VT_NULL)
        return VariantClear(v);
    if (!IsConvertible(newType))
        return S_OK;
    // The one conversion that leaves the type as it was: callers still see a double.
    const bool keepsType = v->vt == VT_R8 && newType == VT_BSTR;
    Convert(*v, newType);
    if (!keepsType)
        v->vt = newType;
    return S_OK;
}

HRESULT VariantChangeType(VARIANTARG* dest, VARIANTARG* src, unsigned short wFlags, VARTYPE newType) {
    windows::Require(wFlags == 0, "wFlags == 0",
                     {"Windows/variant", 453,
                      "HRESULT VariantChangeType(VARIANTARG*, VARIANTARG*, short unsigned int, VARTYPE)"});
    if (dest != src)
        memcpy(dest, src, sizeof *dest);
    return VariantChangeType(dest, newType);
}

namespace {

// A copy of the text of v, which is first converted in place. A double goes wrong twice over: it has kept its
// type, so that the address of its text is formatted as if it were a number. The BSTR of that stays behind.
BSTR TextOf(tagVARIANT& v) {
    if (v.vt != VT_BSTR)
        VariantChangeType(&v, &v, 0, VT_BSTR);
    if (v.vt == VT_BSTR)
        return SysAllocString(Value<BSTR>(v));
    VARIANT text;
    VariantInit(&text);
    VariantChangeType(&text, &v, 0, VT_BSTR);
    BSTR copy = SysAllocString(Value<BSTR>(text));
    VariantClear(&text);
    return copy;
}

} // namespace

_bstr_t& _bstr_t::operator=(_variant_t& v) {
    const _bstr_t text(TextOf(v), false);
    return *this = static_cast<const char*>(text);
}
