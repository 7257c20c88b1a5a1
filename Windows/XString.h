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
#include <strings.h>

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
    WINDOWS_INLINE_EXPORT bool Reallocate(unsigned int uiSize, bool bRound);

    // Sets the length and ends the text there. Aborts unless uiLength is below m_uiBuffSize.
    void SetLength(unsigned int uiLength);

    // The byte at uiIndex. Aborts unless uiIndex is below the length.
    char GetAt(unsigned int uiIndex);

    // In bytes.
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
    WINDOWS_INLINE_EXPORT XString& operator+=(char ch);

    // Appends to a header of its own, of the exact size and the default granule, also when the text is "".
    // NULL changes nothing. When memory runs out the string is as it was.
    XString& operator+=(const char* psz);
    XString& operator+=(const XString& s);

    // Fills this string, whose header must be fresh, with two texts of the given lengths. A total of 0 makes
    // no buffer.
    void ConcatCopy(int nLen1, const char* p1, int nLen2, const char* p2);

    // Detaches, makes room for nMin characters and a NUL, and returns the text, locked until ReleaseBuffer;
    // NULL if there is no buffer or another writer holds it.
    char* GetBuffer(int nMin = 0);

    // The same, and makes the length nLength; what is new in the text is undefined.
    char* GetBufferSetLength(int nLength);

    // GetBuffer() without a length to restore afterwards.
    char* LockBuffer() { return GetBuffer(); }
    void UnlockBuffer() { m_pStrData->UnlockBuffer(); }

    // The characters that the buffer can hold without growing.
    int GetAllocLength() const {
        return m_pStrData->m_uiBuffSize > 0 ? static_cast<int>(m_pStrData->m_uiBuffSize) - 1 : 0;
    }

    // Cuts the buffer to the length, unless other strings share it.
    void FreeExtra();

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

    // In bytes. Not what strlen gives after operator=(char) or an Insert in place.
    int GetLength() const;

    // Whether the length is 0.
    bool IsEmpty() const { return GetLength() == 0; }

    // The character at an index below the length; they abort for any other.
    char GetAt(int nIndex) const { return m_pStrData->GetAt(static_cast<unsigned int>(nIndex)); }
    char operator[](int nIndex) const { return GetAt(nIndex); }

    // Replaces that character, after detaching.
    void SetAt(int nIndex, char ch);

    // --- Searching. The index of what is found, or -1. The text must not be NULL, so callers look at
    // GetLength() first. Searches end at the text's first NUL. nStart is not checked against the length.

    // Looking for NUL finds the text's end.
    WINDOWS_INLINE_EXPORT int Find(char ch, int nStart = 0) const;
    WINDOWS_INLINE_EXPORT int Find(const char* psz, int nStart = 0) const;

    // The last occurrence.
    int ReverseFind(char ch);
    int ReverseFind(char ch) const { return const_cast<XString*>(this)->ReverseFind(ch); }

    // The first character that occurs in the set.
    int FindOneOf(const char* pszSet);
    int FindOneOf(const char* pszSet) const { return const_cast<XString*>(this)->FindOneOf(pszSet); }

    // --- Extracting. Results have a header of their own. A negative nFirst is not clamped: it reads what
    // lies in front of the text.

    // From nFirst to the text's first NUL. Behind the end: empty, with a buffer of a byte.
    XString Mid(int nFirst) const;

    // At most nCount characters from nFirst, NULs included. Behind the end or for nothing: empty, without a
    // buffer, unlike Mid(int).
    XString Mid(int nFirst, int nCount) const;

    XString Left(int nCount) const { return Mid(0, nCount); }

    // The last nCount characters; all of it if there are not more.
    XString Right(int nCount) const;

    // The longest beginning of characters that are in the set, or not in it. The text must not be NULL.
    XString SpanIncluding(const char* pszSet) const;
    XString SpanExcluding(const char* pszSet) const;

    // --- Editing. Each operation detaches a shared string; the first five do so even if nothing is to be
    // changed, the others only if something is. A string whose buffer is locked faults, unless the operation
    // has nothing to do or builds a new buffer. When memory runs out the string is as it was.

    // By the C library's toupper and tolower, byte by byte. A locked buffer is only unlocked.
    void MakeUpper();
    void MakeLower();

    // Replaces a character; nothing at all for an empty string. Returns how many were replaced.
    int Replace(char chOld, char chNew);

    // Removes as many of nCount characters as there are from nIndex on; none for an index that is negative or
    // behind the end. Returns the length.
    int Delete(int nIndex, int nCount = 1);

    // Puts a character or text in front of the one at nIndex. A negative index counts as 0, one behind the
    // end appends, and the text must not be part of this string. Returns the length.
    //
    // A string that has a header of its own with room in the buffer is edited in place, and callers rely on
    // what that does: unless it appends, it leaves the length as it was and writes no NUL behind the text
    // that it moved up. So the length is right only for strings without room, or shared ones.
    int Insert(int nIndex, char ch);
    int Insert(int nIndex, const char* psz);

    // Turns the characters round; strings of one character are not detached.
    void MakeReverse();

    // Replaces a text wherever it occurs, from left to right; NULL as the new text is "", and NULL or "" as
    // the old one does nothing. The buffer fits exactly afterwards. Returns how many were replaced.
    int Replace(const char* pszOld, const char* pszNew);

    // Removes a character wherever it occurs. Returns how many went; none for NUL.
    int Remove(char ch);

    // Remove the character, or those in the set, from the beginning. The text must not be NULL.
    void TrimLeft(char ch);
    void TrimLeft(const char* pszSet);
    void TrimLeft() { TrimLeft(" \t\r\n"); }

    // The same at the end. They abort for an empty string.
    void TrimRight(char ch);
    void TrimRight(const char* pszSet);
    void TrimRight() { TrimRight(" \t\r\n"); }

    // --- Comparing. By the texts up to their first NUL; NULL counts as "". Compare is strcmp, CompareNoCase
    // ignores the case, Collate goes by the locale.

    int Compare(const char* psz) const { return strcmp(TextOf(m_pStrData->m_pszData), TextOf(psz)); }
    int CompareNoCase(const char* psz) const {
        return strcasecmp(TextOf(m_pStrData->m_pszData), TextOf(psz));
    }
    int Collate(const char* psz) const { return strcoll(TextOf(m_pStrData->m_pszData), TextOf(psz)); }

    friend bool operator==(const XString& a, const XString& b) { return a.Compare(b) == 0; }
    friend bool operator==(const XString& a, const char* b) { return a.Compare(b) == 0; }
    friend bool operator==(const char* a, const XString& b) { return b.Compare(a) == 0; }
    friend bool operator!=(const XString& a, const XString& b) { return a.Compare(b) != 0; }
    friend bool operator!=(const XString& a, const char* b) { return a.Compare(b) != 0; }
    friend bool operator!=(const char* a, const XString& b) { return b.Compare(a) != 0; }
    friend bool operator<(const XString& a, const XString& b) { return a.Compare(b) < 0; }
    friend bool operator<(const XString& a, const char* b) { return a.Compare(b) < 0; }
    friend bool operator<(const char* a, const XString& b) { return b.Compare(a) > 0; }
    friend bool operator>(const XString& a, const XString& b) { return a.Compare(b) > 0; }
    friend bool operator>(const XString& a, const char* b) { return a.Compare(b) > 0; }
    friend bool operator>(const char* a, const XString& b) { return b.Compare(a) < 0; }
    friend bool operator<=(const XString& a, const XString& b) { return a.Compare(b) <= 0; }
    friend bool operator<=(const XString& a, const char* b) { return a.Compare(b) <= 0; }
    friend bool operator<=(const char* a, const XString& b) { return b.Compare(a) >= 0; }
    friend bool operator>=(const XString& a, const XString& b) { return a.Compare(b) >= 0; }
    friend bool operator>=(const XString& a, const char* b) { return a.Compare(b) >= 0; }
    friend bool operator>=(const char* a, const XString& b) { return b.Compare(a) <= 0; }

    // --- Joining. NULL counts as "".

    friend XString operator+(const XString& a, const XString& b) {
        return Concatenation(a.GetLength(), a, b.GetLength(), b);
    }
    friend XString operator+(const XString& a, const char* b) {
        return Concatenation(a.GetLength(), a, static_cast<int>(strlen(TextOf(b))), b);
    }
    friend XString operator+(const char* a, const XString& b) {
        return Concatenation(static_cast<int>(strlen(TextOf(a))), a, b.GetLength(), b);
    }

    // Gives the string a header of its own if it shares one. Throws &g_oMemoryException and is then as it
    // was.
    void CopyBeforeWrite();

private:
    static const char* TextOf(const char* psz) { return psz ? psz : ""; }

    // Of what was found in the text, or not.
    static int IndexIn(const char* text, const char* found) {
        return found ? static_cast<int>(found - text) : -1;
    }

    static XString Concatenation(int nLen1, const char* p1, int nLen2, const char* p2) {
        XString sum;
        sum.ConcatCopy(nLen1, p1, nLen2, p2);
        return sum;
    }
};

// A new string of character and text. NUL counts as a character.
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

inline bool XStringData::Reallocate(unsigned int uiSize, bool bRound) {
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

inline char* XStringData::LockBuffer() {
    if (m_bLocked) {
        char* nothing = nullptr;
        __asm__("" : "+r"(nothing)); // a compiler that sees it may leave out the write that is to fault
        return nothing;
    }
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

inline XString& XString::operator+=(char ch) {
    // No detach: every string that shares the header sees the character.
    XStringData* data = m_pStrData;
    const unsigned int length = data->m_uiLength;
    // The compiler is told what is usual, or it may put growing between one character and the next: a tenth
    // more.
    if (__builtin_expect(length + 1 >= data->m_uiBuffSize, 0))
        data->Reallocate(length + 2, true);
    if (__builtin_expect(!data->m_bLocked && length + 1 < data->m_uiBuffSize, 1)) {
        char* end = data->m_pszData + length;
        end[0] = ch;
        end[1] = '\0';
        data->m_uiLength = length + 1;
        return *this;
    }
    // A locked buffer, which faults at the first write, or a size that has wrapped round.
    char* text = data->m_bLocked ? data->LockBuffer() : data->m_pszData;
    text[length] = ch;
    text[length + 1] = '\0';
    data->SetLength(length + 1);
    return *this;
}

inline int XString::Find(char ch, int nStart) const {
    const char* text = m_pStrData->m_pszData;
    return IndexIn(text, strchr(text + nStart, ch));
}

inline int XString::Find(const char* psz, int nStart) const {
    const char* text = m_pStrData->m_pszData;
    return IndexIn(text, strstr(text + nStart, psz));
}

inline void XString::CopyBeforeWrite() {
    if (!m_pStrData->IsShared())
        return;
    XStringData* copy = m_pStrData->Copy();
    m_pStrData->Release();
    m_pStrData = copy;
}

inline char* XString::GetBuffer(int nMin) {
    const auto nSize = static_cast<int>(m_pStrData->m_uiBuffSize);
    if (nSize < nMin || (nSize == nMin && nMin > 0))
        Resize(static_cast<unsigned int>(nMin) + (nMin > 0 ? 1 : 0));
    else
        CopyBeforeWrite();
    return m_pStrData->LockBuffer();
}

inline char* XString::GetBufferSetLength(int nLength) {
    char* text = GetBuffer(nLength > 0 ? nLength : 1);
    m_pStrData->SetLength(static_cast<unsigned int>(nLength));
    return text;
}

inline void XString::FreeExtra() {
    if (m_pStrData->IsShared() || m_pStrData->m_uiBuffSize <= m_pStrData->m_uiLength + 1)
        return;
    if (m_pStrData->m_uiLength == 0)
        return; // operator=(char) leaves a text of which the length does not tell
    m_pStrData->Reallocate(m_pStrData->m_uiLength + 1, false);
    m_pStrData->SetLength(m_pStrData->m_uiLength);
}

inline void XString::SetAt(int nIndex, char ch) {
    GetAt(nIndex); // aborts if there is none
    CopyBeforeWrite();
    m_pStrData->LockBuffer()[nIndex] = ch;
    m_pStrData->UnlockBuffer();
}

inline XString XString::Right(int nCount) const {
    if (nCount < 1)
        return XString();
    return Mid(nCount < GetLength() ? GetLength() - nCount : 0, nCount);
}

inline XString::operator const char*() const { return m_pStrData->m_pszData; }

inline int XString::GetLength() const { return static_cast<int>(m_pStrData->m_uiLength); }

#endif
