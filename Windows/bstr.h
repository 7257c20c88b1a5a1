// BSTR: NUL-terminated 8-bit text that carries its length in a hidden header, and its owner _bstr_t.
//
// One malloc block: a signature (0xCDEADBEE, 0 once freed), the length in bytes, both 32 bits in native
// order, then the text and a NUL. A BSTR is the address of the text, so it serves as a C string.
//
// Every function tells a BSTR from another pointer by the word 8 bytes in front of it. So a pointer that is
// neither NULL nor a BSTR has its 8 preceding bytes read.
//
// Thread safety: the functions may be called from any thread; each holds one process-wide recursive lock
// throughout (NULL takes no lock where it has no length and no signature). A _bstr_t belongs to one thread at
// a time. Lifetime: a BSTR belongs to whoever received it, until it is passed to SysFreeString.
#ifndef WINDOWS_BSTR_H
#define WINDOWS_BSTR_H

#include <stdarg.h>
#include <string.h>

#include <string>

#include <Windows/XString.h>
#include <Windows/types.h>

// Exported; nothing in the library uses them.
extern long g_lBSTRID;
extern bool l_bBSTRDebugMode;

// A new BSTR with a copy of the text up to its first NUL; the caller frees it. NULL for NULL and when out of
// memory.
BSTR SysAllocString(const char* text);
BSTR SysAllocString(const std::string& text);

// A new BSTR of length bytes that begins with the text up to its first NUL or to length. The bytes between
// the text and the final NUL are undefined; with NULL as text the first is NUL. NULL when out of memory.
BSTR SysAllocStringLen(const char* text, unsigned long length);

// The same, as a character is a byte.
inline BSTR SysAllocStringByteLen(const char* text, unsigned long length) {
    return SysAllocStringLen(text, length);
}

// Frees a BSTR and sets the variable to NULL. NULL does nothing. Anything that is not a BSTR, a freed one
// included as long as its memory is not in use again, stays as it is and is logged.
void SysFreeString(BSTR& bstr);

// Replaces a BSTR by a new one with a copy of the text, which may be its own. Returns TRUE, or FALSE when out
// of memory; the old one is kept then.
inline BOOL SysReAllocString(BSTR* pbstr, const char* text) {
    BSTR fresh = SysAllocString(text);
    if (text && !fresh)
        return FALSE;
    SysFreeString(*pbstr);
    *pbstr = fresh;
    return TRUE;
}

// The stored length in bytes, whatever NULs the text holds; 0 for NULL and for what is not a BSTR. Both are
// the same, as a character is a byte.
unsigned int SysStringLen(BSTR bstr);
unsigned int SysStringByteLen(BSTR bstr);

// Whether p is a BSTR. NULL counts as one unless nullIsInvalid.
bool IsBSTR(char* p, bool nullIsInvalid);

// A new BSTR of the formatted arguments; the caller frees it. NULL when out of memory. The format must not be
// NULL. Up to an estimate (CalcMaxFormattedStringLen) of 16,383 the text is cut at 16,383 bytes, above it at
// the estimate. Aborts on a negative width or precision.
BSTR BSTRFormatV(const char* format, va_list args) WINDOWS_PRINTF_FORMAT(1, 0);
BSTR FormatBSTR(const char* format, ...) WINDOWS_PRINTF_FORMAT(1, 2);

// Stores the flag, which nothing reads.
void SetBSTRDebugMode(bool on);

// Always 0: live blocks are not counted.
long GetNumBSTRsAllocated();

class _variant_t;

// Owns one BSTR, or NULL. Copies are deep, of the text up to its first NUL.
//
// There is no assignment from a const _bstr_t&: such an assignment goes through the text, and from itself it
// reads what it has just freed. Allocation failures leave NULL, but for +=, which then writes through NULL
// and faults.
//
// To assign one to an XString write s = (const char*)b: it has two conversions that s = b could take.
class _bstr_t {
public:
    // Empty, or with a copy of a text up to its first NUL.
    _bstr_t();
    _bstr_t(const char* s);
    _bstr_t(const _bstr_t& other);

    // With copy false takes s, unchecked, as its own.
    _bstr_t(char* s, bool copy);

    // With a copy of the string's text, up to its first NUL.
    _bstr_t(XString& s);

    // Frees the BSTR.
    virtual ~_bstr_t();

    // The BSTR itself, still owned by this object; NULL when empty.
    char* getData();
    operator char*();
    operator const char*() const;

    // A string with a copy of the text.
    operator XString();

    // The stored length in bytes.
    int length();

    // Copies s, which must not be this object's own text: it is freed first.
    _bstr_t& operator=(const char* s);
    _bstr_t& operator=(_bstr_t& other);

    // Copies the text of s and leaves the buffer of s locked: until s.ReleaseBuffer() a second assignment
    // from it gives an empty _bstr_t. May throw &g_oMemoryException.
    _bstr_t& operator=(XString& s);

    // Copies the text of v, which is converted to VT_BSTR in place for it. A VT_R8 keeps its type through
    // that conversion, so it does not work for one: the text is that of a number nobody meant, v is left with
    // a BSTR that its type does not show, and another BSTR is leaked. Convert a double by hand.
    _bstr_t& operator=(_variant_t& v);

    // Appends behind the stored length. NULL and empty texts change nothing but the block.
    _bstr_t& operator+=(const char* s);
    _bstr_t& operator+=(_bstr_t& other);

    // Takes s, a BSTR or NULL, as its own and returns true; false, and nothing changes, if s is neither. Its
    // own BSTR must not be attached again: it is freed first.
    bool Attach(char* s);

    // Hands the BSTR to the caller, who frees it, and is empty then.
    BSTR Detach() {
        BSTR bstr = m_bstr;
        m_bstr = nullptr;
        return bstr;
    }

    // A new BSTR with the text, which the caller frees; NULL when empty.
    BSTR copy() const { return SysAllocString(m_bstr); }

    // The BSTR itself, for functions that replace it.
    BSTR& GetBSTR() { return m_bstr; }

    // True when it holds no BSTR.
    bool operator!() const { return !m_bstr; }

    // A new one with both texts.
    friend _bstr_t operator+(const _bstr_t& a, const char* b) {
        _bstr_t sum(a);
        sum += b;
        return sum;
    }
    friend _bstr_t operator+(const _bstr_t& a, const _bstr_t& b) { return a + static_cast<const char*>(b); }
    friend _bstr_t operator+(const char* a, const _bstr_t& b) { return _bstr_t(a) + b; }

    // By the texts up to their first NUL; an empty one counts as "".
    friend bool operator==(const _bstr_t& a, const _bstr_t& b) { return Compare(a, b) == 0; }
    friend bool operator==(const _bstr_t& a, const char* b) { return Compare(a, b) == 0; }
    friend bool operator==(const char* a, const _bstr_t& b) { return Compare(a, b) == 0; }
    friend bool operator==(const _bstr_t& a, const XString& b) { return Compare(a, b) == 0; }
    friend bool operator==(const XString& a, const _bstr_t& b) { return Compare(a, b) == 0; }
    friend bool operator!=(const _bstr_t& a, const _bstr_t& b) { return Compare(a, b) != 0; }
    friend bool operator!=(const _bstr_t& a, const char* b) { return Compare(a, b) != 0; }
    friend bool operator!=(const char* a, const _bstr_t& b) { return Compare(a, b) != 0; }
    friend bool operator!=(const _bstr_t& a, const XString& b) { return Compare(a, b) != 0; }
    friend bool operator!=(const XString& a, const _bstr_t& b) { return Compare(a, b) != 0; }
    friend bool operator<(const _bstr_t& a, const _bstr_t& b) { return Compare(a, b) < 0; }
    friend bool operator<(const _bstr_t& a, const char* b) { return Compare(a, b) < 0; }
    friend bool operator<(const char* a, const _bstr_t& b) { return Compare(a, b) < 0; }
    friend bool operator>(const _bstr_t& a, const _bstr_t& b) { return Compare(a, b) > 0; }
    friend bool operator>(const _bstr_t& a, const char* b) { return Compare(a, b) > 0; }
    friend bool operator>(const char* a, const _bstr_t& b) { return Compare(a, b) > 0; }
    friend bool operator<=(const _bstr_t& a, const _bstr_t& b) { return Compare(a, b) <= 0; }
    friend bool operator<=(const _bstr_t& a, const char* b) { return Compare(a, b) <= 0; }
    friend bool operator<=(const char* a, const _bstr_t& b) { return Compare(a, b) <= 0; }
    friend bool operator>=(const _bstr_t& a, const _bstr_t& b) { return Compare(a, b) >= 0; }
    friend bool operator>=(const _bstr_t& a, const char* b) { return Compare(a, b) >= 0; }
    friend bool operator>=(const char* a, const _bstr_t& b) { return Compare(a, b) >= 0; }

private:
    static int Compare(const char* a, const char* b) { return strcmp(a ? a : "", b ? b : ""); }

    void Free();

    BSTR m_bstr;
};

#endif
