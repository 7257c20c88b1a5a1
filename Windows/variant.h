// VARIANT: a value with a type code, and the functions that initialise, clear, copy and convert it.
//
// Thread safety: a VARIANT belongs to one thread at a time.
// Lifetime: a variant of type VT_BSTR owns its BSTR until VariantClear. There is no destructor, in _variant_t
// neither: a conversion can leave two variants with one BSTR, or a variant with a BSTR that its type does not
// show (see VariantChangeType), and only their users know which.
// Errors: every function returns 0, whatever happened. Without memory a text comes out as a NULL BSTR.
#ifndef WINDOWS_VARIANT_H
#define WINDOWS_VARIANT_H

#include <string.h>

#include <Windows/bstr.h>
#include <Windows/types.h>

// Type codes. Those without a member below are carried but never converted, as are codes above VT_UI1.
enum VARENUM {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_CY = 6,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_DISPATCH = 9,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_UNKNOWN = 13,
    VT_DECIMAL = 14,
    VT_I1 = 16,
    VT_UI1 = 17
};

// The two values of a VARIANT_BOOL. True has all bits set.
constexpr VARIANT_BOOL VARIANT_FALSE = 0;
constexpr VARIANT_BOOL VARIANT_TRUE = -1;

// The value's members all begin at its first byte, also where the first byte is the highest.
struct tagVARIANT {
    VARTYPE vt;                // which of the values there is
    unsigned short wReserved1; // the reserved words are never looked at
    unsigned short wReserved2; // the same
    unsigned short wReserved3; // the same
    union {
        short iVal;           // VT_I2
        int lVal;             // VT_I4; 32 bits everywhere
        float fltVal;         // VT_R4
        double dblVal;        // VT_R8
        BSTR bstrVal;         // VT_BSTR
        VARIANT_BOOL boolVal; // VT_BOOL
        unsigned char bVal;   // VT_UI1
    };
};

// The same under the names that callers write.
typedef tagVARIANT VARIANT;
typedef tagVARIANT VARIANTARG;

// Makes the type VT_EMPTY. The value's bytes stay as they are: an uninitialised variant has none to be relied
// on.
void VariantInit(tagVARIANT* v);

// Frees the BSTR of a VT_BSTR and makes the type VT_EMPTY. Returns 0.
HRESULT VariantClear(tagVARIANT* v);

// Clears dest and makes it a copy of type and value, with a BSTR of its own. The reserved words are not
// copied. A variant copied to itself is cleared first and so ends up VT_EMPTY. Returns 0.
HRESULT VariantCopy(tagVARIANT* dest, tagVARIANT* src);

// Converts v in place to VT_I2, VT_I4, VT_R4, VT_R8, VT_BSTR, VT_BOOL or VT_UI1. Returns 0 also when nothing
// was done: for other types, for the type that v has, and for text that is no number, which counts as 0.
//
// - Integers are cut to their low bits; reals are truncated toward zero, and saturate outside 32 bits.
// - Text becomes a number as far as it can be read (base 10); "false" and "0" are false, all else is true.
// - A converted BSTR is freed.
// - VT_EMPTY and VT_NULL are reached through VariantClear: both give VT_EMPTY.
// - From VT_R8 to VT_BSTR the value becomes a BSTR but the type stays VT_R8, which callers have come to
// expect.
//   VariantClear does not free such a BSTR.
// - From VT_EMPTY and VT_NULL to VT_BSTR, and from types that are only carried, the type changes and the
//   value's bytes do not: zero the value of an empty variant before making it a VT_BSTR.
HRESULT VariantChangeType(tagVARIANT* v, unsigned short newType);

// Copies src to dest byte for byte, unless they are one, and converts dest. wFlags must be 0, or the process
// ends. A BSTR that dest held is not freed, and one of src is not duplicated: where the conversion frees it,
// src is left with a dangling pointer and must be treated as cleared (VariantInit).
HRESULT VariantChangeType(VARIANTARG* dest, VARIANTARG* src, unsigned short wFlags, VARTYPE newType);

// A VARIANT that begins with a value. Like any other it is not freed at the end of its scope, and assigning
// to it does not free what it held: Clear() it.
class _variant_t : public tagVARIANT {
public:
    // VT_EMPTY, with a value of zeros.
    _variant_t() { Become(VT_EMPTY); }

    // VT_I2.
    _variant_t(short value) {
        Become(VT_I2);
        iVal = value;
    }

    // VT_I4.
    _variant_t(int value) {
        Become(VT_I4);
        lVal = value;
    }

    // VT_I4 too: the low 32 bits.
    _variant_t(long value) {
        Become(VT_I4);
        lVal = static_cast<int>(value);
    }

    // VT_R4.
    _variant_t(float value) {
        Become(VT_R4);
        fltVal = value;
    }

    // VT_R8.
    _variant_t(double value) {
        Become(VT_R8);
        dblVal = value;
    }

    // VT_BOOL.
    _variant_t(bool value) {
        Become(VT_BOOL);
        boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    }

    // VT_UI1.
    _variant_t(unsigned char value) {
        Become(VT_UI1);
        bVal = value;
    }

    // VT_BSTR, with a copy of the text.
    _variant_t(const char* text) {
        Become(VT_BSTR);
        bstrVal = SysAllocString(text);
    }

    // VariantClear and VariantChangeType of this one.
    HRESULT Clear() { return VariantClear(this); }
    HRESULT ChangeType(VARTYPE newType) { return VariantChangeType(this, newType); }

private:
    void Become(VARTYPE type) {
        memset(static_cast<tagVARIANT*>(this), 0, sizeof(tagVARIANT));
        vt = type;
    }
};

// The members of a variant by pointer, to read and to write.
inline VARTYPE& V_VT(tagVARIANT* v) { return v->vt; }
inline short& V_I2(tagVARIANT* v) { return v->iVal; }
inline int& V_I4(tagVARIANT* v) { return v->lVal; }
inline float& V_R4(tagVARIANT* v) { return v->fltVal; }
inline double& V_R8(tagVARIANT* v) { return v->dblVal; }
inline BSTR& V_BSTR(tagVARIANT* v) { return v->bstrVal; }
inline VARIANT_BOOL& V_BOOL(tagVARIANT* v) { return v->boolVal; }
inline unsigned char& V_UI1(tagVARIANT* v) { return v->bVal; }

#endif
