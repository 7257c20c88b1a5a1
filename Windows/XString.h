// A copy-on-write string of 8-bit characters with Windows-style editing and printf-style formatting.
//
// An XString is one pointer to a shared, reference-counted header. Copies share the header; most writers give
// their string a header of its own first. Three habits of the class are part of its interface, and
// application code is built on them:
//
// - A string that never held text has no buffer, and its text pointer is NULL, not "".
// - operator+=(char) writes in place without detaching: every string that shares the header sees the
// character.
// - operator=(char) leaves the length at 0.
//
// Thread safety: one XString belongs to one thread at a time. Strings that share a header may be copied and
// destroyed by different threads at once: the reference count and XString::m_iObjCount are atomic, all else
// is not. Lifetime: a header lives until the last string that shares it is gone. What operator const char*
// returned is valid until the string is written to or destroyed. Errors: writers throw &g_oMemoryException (a
// CMemoryException*) when a text cannot be allocated, and std::bad_alloc when a header cannot.
#ifndef WINDOWS_XSTRING_H
#define WINDOWS_XSTRING_H

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <Windows/MemoryException.h>
#include <Windows/types.h>

// The header that strings share. Application code that reaches into it finds these fields in this order.
class XStringData {
public:
    int m_iRefCount;           // strings that share this header; changed atomically
    unsigned int m_uiLength;   // bytes of text, NUL excluded
    unsigned int m_uiBuffSize; // bytes allocated for the text, NUL included; 0 without a buffer
    int m_iBlockSize;          // growth granule; -1 means XString::m_iDefaultBlockSize
    char* m_pszData;           // the text, from malloc; NULL without a buffer
    bool m_bLocked;            // a writer holds the raw buffer

    // Live headers. A plain counter, unlike XString::m_iObjCount: with several threads it may lose updates.
    static int m_iObjCount;

    // A header without a buffer, for one string.
    XStringData();

    XStringData(const XStringData&) = delete;
    XStringData& operator=(const XStringData&) = delete;

    // Takes one more reference and returns this header.
    XStringData* AddRef();

    // Gives one reference back; the last one frees text and header.
    void Release();

    // Replaces the buffer by an empty one of exactly uiSize bytes; the old text is lost and the length stays.
    // Returns true, also when the size is right already and nothing is done; false for 0 bytes. Throws
    // &g_oMemoryException; the old text is gone by then.
    bool Allocate(unsigned int uiSize);

    // Resizes the buffer and keeps its contents: to uiSize bytes, or with bRound to the next multiple of the
    // granule above uiSize. Always returns true. When memory runs out the text pointer is NULL and the next
    // write faults: callers have never had to look at the result.
    bool Reallocate(unsigned int uiSize, bool bRound);

    // Sets the length and ends the text there. Aborts unless uiLength is below m_uiBuffSize.
    void SetLength(unsigned int uiLength);

    // The byte at uiIndex. Aborts unless uiIndex is below the length.
    char GetAt(unsigned int uiIndex);

    unsigned int GetLength();

    // Marks the buffer as held by a writer and returns it. NULL if another writer holds it: that writer's
    // caller is nested in this one by mistake, and the fault at its first write shows where.
    char* LockBuffer();
    void UnlockBuffer();

    // True when more than one string shares this header.
    bool IsShared() const;

    // A copy of this header for one string: the whole buffer, the same block size, unlocked. Throws
    // &g_oMemoryException.
    XStringData* Copy() const;
};

class XString {
public:
    // The granule of buffers that grow in place, in bytes; 16 unless the application changes it. Not 0.
    static int m_iDefaultBlockSize;

    // Live XString objects; changed atomically.
    static int m_iObjCount;

    // Never NULL.
    XStringData* m_pStrData;

    // An empty string without a buffer; so are those below when there is nothing to copy.
    XString();

    // Shares the source's header.
    XString(const XString& source);

    // Copies a NUL-terminated text. NULL and "" leave the string without a buffer.
    XString(const char* psz);

    // Copies n bytes, NULs included.
    XString(const char* p, int n);

    // ch, n times.
    XString(char ch, int n);

    ~XString();

    // Empties the string. A header of its own is reset and kept (block size and lock included), a shared one
    // is left to the others.
    void Empty();

    // Shares the source's header.
    XString& operator=(const XString& source);

    // Holds ch as its text and 0 as its length. GetLength() and everything that goes by the length see an
    // empty string; the text pointer sees the character.
    XString& operator=(char ch);

    // Copies a NUL-terminated text, which must not be this string's own: it is freed first. NULL leaves the
    // string without a buffer, "" with one of a byte.
    XString& operator=(const char* psz);

    // Appends in place, for every string that shares the header.
    XString& operator+=(char ch);

    // Appends to a header of its own, of the exact size and the default granule, also when the text is "".
    // NULL changes nothing. When memory runs out the string is as it was.
    XString& operator+=(const char* psz);
    XString& operator+=(const XString& s);

    // Fills this string, whose header must be fresh, with two texts of the given lengths. A total of 0 makes
    // no buffer.
    void ConcatCopy(int nLen1, const char* p1, int nLen2, const char* p2);

    // Detaches, makes room for nMin bytes (NUL included) and returns the text, locked until ReleaseBuffer;
    // NULL if there is no buffer or another writer holds it.
    char* GetBuffer(int nMin = 0);

    // Ends a direct write: sets the length, nNewLength or with -1 that of the text, and unlocks. Aborts, as
    // XStringData::SetLength does, when the buffer is not larger. Does not detach.
    void ReleaseBuffer(int nNewLength = -1);

    // Gives the string a buffer of uiSize bytes. The two cases differ, and callers rely on both: an unshared
    // buffer is rounded up to the granule and keeps its text, cut to uiSize - 1; a shared one is replaced by
    // a buffer of exactly uiSize bytes whose length is the count of bytes copied, NULs included.
    void Resize(unsigned int uiSize);

    // Prints nIndent spaces and one line on the header to standard output; returns what printf returned.
    int Dump(int nIndent);

    // Replaces the text by the formatted arguments. The buffer is sized beforehand by
    // CalcMaxFormattedStringLen, and text that turns out longer than its estimate is cut. A buffer that is
    // large enough is kept. NULL or "" empties the string but leaves it a buffer. The arguments must not
    // point into this string. Aborts on a negative width or precision, also one taken from an argument.
    void Format(const char* pszFormat, ...) WINDOWS_PRINTF_FORMAT(2, 3);
    void FormatV(const char* pszFormat, va_list args) WINDOWS_PRINTF_FORMAT(2, 0);

    // The text as a new BSTR, which the caller frees with SysFreeString. NULL when out of memory.
    BSTR AllocSysString() const;

    // The same, also stored through pbstr. The BSTR that was there is not freed: what is handed to
    // SysFreeString, if it is not NULL, is the address of the caller's variable, which is refused with an
    // event in the log. Callers free the old one themselves.
    BSTR SetSysString(BSTR* pbstr) const;

    // The text; NULL if the string has no buffer.
    operator const char*() const;

    int GetLength() const;

    // Gives the string a header of its own if it shares one. Throws &g_oMemoryException and is then as it
    // was.
    void CopyBeforeWrite();
};

XString operator+(char ch, const XString& s);
XString operator+(const XString& s, char ch);

// An upper bound of what vsnprintf makes of a format and its arguments, in bytes, NUL included: 1 for "". It
// goes by fixed charges (32 for an integer, 128 for %e and %g, ...), formats nothing but %f, and is too small
// where a conversion or modifier is unknown to it: %E, %a, %lld and others. args is left as it was. Aborts on
// a negative width or precision.
int CalcMaxFormattedStringLen(const char* pszFormat, va_list args);

// ---------------------------------------------------------------------------------------------------------

inline XStringData::XStringData()
    : m_iRefCount(1), m_uiLength(0), m_uiBuffSize(0), m_iBlockSize(-1), m_pszData(nullptr), m_bLocked(false) {
    // A load and a store, on purpose not one addition: see m_iObjCount.
    __atomic_store_n(&m_iObjCount, __atomic_load_n(&m_iObjCount, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

inline char* XStringData::LockBuffer() {
    if (m_bLocked)
        return nullptr;
    m_bLocked = true;
    return m_pszData;
}

inline void XStringData::UnlockBuffer() { m_bLocked = false; }

inline bool XStringData::IsShared() const { return __atomic_load_n(&m_iRefCount, __ATOMIC_ACQUIRE) > 1; }

inline XStringData* XStringData::Copy() const {
    // A header without a buffer is copied with one byte, a NUL, and still says size 0: writers that detach
    // go on to read the text.
    char* text = static_cast<char*>(malloc(m_uiBuffSize > 0 ? m_uiBuffSize : 1));
    if (!text)
        ThrowMemoryException();
    if (m_uiBuffSize > 0)
        memcpy(text, m_pszData, m_uiBuffSize);
    else
        *text = '\0';
    struct TextOwner {
        char* text;
        ~TextOwner() { free(text); }
    } owner = {text};
    XStringData* copy = new XStringData;
    owner.text = nullptr;
    copy->m_uiLength = m_uiLength;
    copy->m_uiBuffSize = m_uiBuffSize;
    copy->m_iBlockSize = m_iBlockSize;
    copy->m_pszData = text;
    return copy;
}

inline XString& XString::operator=(const XString& source) { // NOLINT(bugprone-unhandled-self-assignment)
    // The source's reference comes first, so that a string may be assigned to itself.
    XStringData* shared = source.m_pStrData->AddRef();
    m_pStrData->Release();
    m_pStrData = shared;
    return *this;
}

inline void XString::CopyBeforeWrite() {
    if (!m_pStrData->IsShared())
        return;
    XStringData* copy = m_pStrData->Copy();
    m_pStrData->Release();
    m_pStrData = copy;
}

inline char* XString::GetBuffer(int nMin) {
    if (static_cast<int>(m_pStrData->m_uiBuffSize) < nMin)
        Resize(static_cast<unsigned int>(nMin));
    else
        CopyBeforeWrite();
    return m_pStrData->LockBuffer();
}

inline XString::operator const char*() const { return m_pStrData->m_pszData; }

inline int XString::GetLength() const { return static_cast<int>(m_pStrData->m_uiLength); }

#endif
