// VARIANT: conversions against their model, and of the input itself as a text.
#include <limits.h>
#include <math.h>

#include <Windows/variant.h>

#include "Input.h"

namespace {

int Whole(const char* text) {
    return static_cast<int>(std::clamp<long long>(strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

// Equal, or both no number.
template <typename Real> bool Same(Real a, Real b) { return a == b || (isnan(a) && isnan(b)); }

_variant_t Converted(const char* text, VARTYPE type) {
    _variant_t value(text);
    fuzz::Require(value.ChangeType(type) == S_OK && value.vt == type, "a text becomes every type");
    return value;
}

void Convert(const char* text) {
    const int whole = Whole(text);
    const double real = strtod(text, nullptr);
    fuzz::Require(Converted(text, VT_I4).lVal == whole, "a text as 32 bits");
    fuzz::Require(Converted(text, VT_I2).iVal == static_cast<short>(whole), "a text as 16 bits");
    fuzz::Require(Converted(text, VT_UI1).bVal == static_cast<unsigned char>(whole), "a text as a byte");
    fuzz::Require(Same(Converted(text, VT_R8).dblVal, real), "a text as a double");
    fuzz::Require(Same(Converted(text, VT_R4).fltVal, static_cast<float>(real)), "a text as a float");
    const bool isFalse = strcmp(text, "false") == 0 || strcmp(text, "0") == 0;
    fuzz::Require(Converted(text, VT_BOOL).boolVal == (isFalse ? VARIANT_FALSE : VARIANT_TRUE),
                  "a text as a truth value");
}

// The reals that the text gives, as texts again.
void Print(const char* text) {
    char expected[256];
    _variant_t value = Converted(text, VT_R4);
    snprintf(expected, sizeof expected, "%f", static_cast<double>(value.fltVal));
    value.ChangeType(VT_BSTR);
    fuzz::Require(value.vt == VT_BSTR && strcmp(value.bstrVal, expected) == 0, "a float as a text");
    value.Clear();

    value = Converted(text, VT_R8);
    snprintf(expected, sizeof expected, "%g", value.dblVal);
    value.ChangeType(VT_BSTR);
    fuzz::Require(value.vt == VT_R8 && strcmp(value.bstrVal, expected) == 0,
                  "a double as a text that the type does not show");
    SysFreeString(value.bstrVal);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(data, data + size);
    Convert(text.c_str());
    Print(text.c_str());
    return fuzz::Exercise(models::ExerciseVariant, data, size);
}
