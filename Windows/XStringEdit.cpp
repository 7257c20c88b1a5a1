// Searching in strings, extracting from them and editing them.
//
// Like operations differ here in when they give their string a header of its own, and each is as its callers
// know it: Replace(char, char), Delete, MakeUpper and MakeLower do so at once; Replace of texts, Remove and
// the trims only when there is something to change.
#include <Windows/XString.h>

#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include <Windows/internal/StringHeader.h>

namespace {

bool IsNothing(const char* psz) { return !psz || *psz == '\0'; }

bool Contains(const char* pszSet, char ch) { return strchr(pszSet, ch) != nullptr; }

} // namespace

// --- Searching -----------------------------------------------------------------------------------------

int XString::ReverseFind(char ch) {
    const char* text = m_pStrData->m_pszData;
    return IndexIn(text, strrchr(text, ch));
}

int XString::FindOneOf(const char* pszSet) {
    const char* text = m_pStrData->m_pszData;
    return IndexIn(text, strpbrk(text, pszSet));
}

// --- Extracting ----------------------------------------------------------------------------------------

XString XString::Mid(int nFirst) const {
    XString result;
    result = nFirst < GetLength() ? m_pStrData->m_pszData + nFirst : "";
    return result;
}

XString XString::Mid(int nFirst, int nCount) const {
    // No buffer here, where Mid(int) gives one of a byte.
    if (nFirst >= GetLength() || nCount < 1)
        return XString();
    const long long rest = static_cast<long long>(GetLength()) - nFirst;
    return XString(m_pStrData->m_pszData + nFirst, static_cast<int>(std::min<long long>(rest, nCount)));
}

namespace {

// The first count characters; a buffer of a byte if there are none.
XString Leading(const char* text, size_t count) {
    if (count > 0)
        return XString(text, static_cast<int>(count));
    XString result;
    result = "";
    return result;
}

} // namespace

XString XString::SpanIncluding(const char* pszSet) const {
    const char* text = m_pStrData->m_pszData;
    return Leading(text, strspn(text, pszSet));
}

XString XString::SpanExcluding(const char* pszSet) const {
    const char* text = m_pStrData->m_pszData;
    return Leading(text, strcspn(text, pszSet));
}

// --- Changing characters -------------------------------------------------------------------------------

namespace {

// A locked string is only unlocked, unlike in all other writers, which fault.
void Convert(XString& string, int (*convert)(int)) {
    string.CopyBeforeWrite();
    char* text = string.m_pStrData->LockBuffer();
    for (; text && *text != '\0'; ++text)
        *text = static_cast<char>(convert(static_cast<unsigned char>(*text)));
    string.m_pStrData->UnlockBuffer();
}

} // namespace

void XString::MakeUpper() { Convert(*this, toupper); }

void XString::MakeLower() { Convert(*this, tolower); }

void XString::MakeReverse() {
    if (GetLength() <= 1)
        return;
    CopyBeforeWrite();
    char* text = m_pStrData->LockBuffer();
    std::reverse(text, text + m_pStrData->m_uiLength);
    m_pStrData->UnlockBuffer();
}

// --- Replacing and removing ----------------------------------------------------------------------------

int XString::Replace(char chOld, char chNew) {
    if (GetLength() < 1)
        return 0;
    CopyBeforeWrite();
    char* text = m_pStrData->LockBuffer();
    int count = 0;
    if (chOld != '\0') { // strchr would find the text's end
        while ((text = strchr(text, chOld))) {
            *text++ = chNew;
            ++count;
        }
    }
    m_pStrData->UnlockBuffer();
    return count;
}

namespace {

// Where one text occurs in another, from left to right without overlap. The first places are kept, so that
// the common replacement searches once.
class Occurrences {
public:
    // Up to the text's length and to its first NUL.
    Occurrences(const XStringData& text, const char* sought)
        : m_end(text.m_pszData + text.m_uiLength), m_sought(sought), m_soughtLength(strlen(sought)),
          m_count(0) {
        for (const char* at = Next(text.m_pszData); at; at = Next(at + m_soughtLength)) {
            if (m_count < kKept)
                m_kept[m_count] = at;
            ++m_count;
        }
    }

    unsigned int Count() const { return m_count; }

    // Occurrence number index, the one before which ends at from.
    const char* At(unsigned int index, const char* from) const {
        return index < kKept ? m_kept[index] : strstr(from, m_sought);
    }

private:
    static constexpr unsigned int kKept = 64;

    const char* Next(const char* from) const {
        // The text goes on behind its length after an insertion in place.
        const char* at = strstr(from, m_sought);
        return at && at + m_soughtLength <= m_end ? at : nullptr;
    }

    const char* m_end;
    const char* m_sought;
    size_t m_soughtLength;
    unsigned int m_count;
    const char* m_kept[kKept];
};

char* Append(char* to, const char* from, size_t count) {
    memcpy(to, from, count);
    return to + count;
}

XStringData* Replaced(const XStringData& old, const Occurrences& places, unsigned int oldLength,
                      const char* pszNew, unsigned int newLength) {
    windows::NewHeader header;
    header->m_iBlockSize = old.m_iBlockSize;
    const unsigned int length = old.m_uiLength + places.Count() * (newLength - oldLength);
    header->Allocate(length + 1);
    header->SetLength(length);
    char* to = header->LockBuffer();
    const char* from = old.m_pszData;
    for (unsigned int i = 0; i < places.Count(); ++i) {
        const char* at = places.At(i, from);
        to = Append(to, from, static_cast<size_t>(at - from));
        to = Append(to, pszNew, newLength);
        from = at + oldLength;
    }
    Append(to, from, static_cast<size_t>(old.m_pszData + old.m_uiLength - from));
    header->UnlockBuffer();
    return header.HandOver();
}

} // namespace

int XString::Replace(const char* pszOld, const char* pszNew) {
    if (GetLength() == 0 || IsNothing(pszOld))
        return 0;
    if (!pszNew)
        pszNew = "";
    const Occurrences places(*m_pStrData, pszOld);
    if (places.Count() == 0)
        return 0;
    XStringData* replaced = Replaced(*m_pStrData, places, static_cast<unsigned int>(strlen(pszOld)), pszNew,
                                     static_cast<unsigned int>(strlen(pszNew)));
    std::exchange(m_pStrData, replaced)->Release();
    return static_cast<int>(places.Count());
}

int XString::Remove(char ch) {
    if (ch == '\0' || !m_pStrData->m_pszData || !strchr(m_pStrData->m_pszData, ch))
        return 0;
    CopyBeforeWrite();
    char* text = m_pStrData->LockBuffer();
    const char* oldEnd = text;
    char* newEnd = text;
    for (; *oldEnd != '\0'; ++oldEnd)
        if (*oldEnd != ch)
            *newEnd++ = *oldEnd;
    const auto count = static_cast<unsigned int>(oldEnd - newEnd);
    const char* behind = text + m_pStrData->m_uiLength; // bytes behind a NUL stay behind it
    if (behind > oldEnd)
        memmove(newEnd, oldEnd, static_cast<size_t>(behind - oldEnd));
    m_pStrData->SetLength(m_pStrData->m_uiLength - count);
    m_pStrData->UnlockBuffer();
    return static_cast<int>(count);
}

// --- Inserting and deleting ----------------------------------------------------------------------------

namespace {

bool HasRoomFor(const XStringData& header, unsigned int count) {
    return !header.IsShared() &&
           static_cast<int>(header.m_uiLength + count + 1) <= static_cast<int>(header.m_uiBuffSize);
}

// Neither sets the length nor ends the text: callers that insert into a buffer with room see the old length,
// and find a NUL behind the text only if the buffer held one there.
void InsertInPlace(XStringData& header, unsigned int index, const char* p, unsigned int count) {
    char* text = header.LockBuffer();
    memmove(text + index + count, text + index, header.m_uiLength - index);
    memmove(text + index, p, count);
    header.UnlockBuffer();
}

XStringData* WithInserted(const XStringData& old, unsigned int index, const char* p, unsigned int count) {
    windows::NewHeader header;
    header->m_iBlockSize = old.m_iBlockSize;
    const unsigned int length = old.m_uiLength + count;
    header->Allocate(length + 1);
    header->SetLength(length);
    char* to = header->LockBuffer();
    index = std::min(index, old.m_uiLength);
    const size_t before = index > 0 ? strnlen(old.m_pszData, index) : 0; // not beyond a NUL
    windows::CopyText(to, old.m_pszData, static_cast<unsigned int>(before));
    memcpy(to + before, p, count);
    windows::CopyText(to + before + count, old.m_pszData + before,
                      old.m_uiLength - static_cast<unsigned int>(before));
    header->UnlockBuffer();
    return header.HandOver();
}

} // namespace

int XString::Insert(int nIndex, char ch) {
    const auto index = static_cast<unsigned int>(std::max(nIndex, 0));
    if (!HasRoomFor(*m_pStrData, 1))
        std::exchange(m_pStrData, WithInserted(*m_pStrData, index, &ch, 1))->Release();
    else if (index >= m_pStrData->m_uiLength)
        *this += ch;
    else
        InsertInPlace(*m_pStrData, index, &ch, 1);
    return GetLength();
}

int XString::Insert(int nIndex, const char* psz) {
    if (IsNothing(psz))
        return GetLength();
    const auto index = static_cast<unsigned int>(std::max(nIndex, 0));
    const auto count = static_cast<unsigned int>(strlen(psz));
    if (!HasRoomFor(*m_pStrData, count))
        std::exchange(m_pStrData, WithInserted(*m_pStrData, index, psz, count))->Release();
    else if (index >= m_pStrData->m_uiLength)
        *this += psz;
    else
        InsertInPlace(*m_pStrData, index, psz, count);
    return GetLength();
}

int XString::Delete(int nIndex, int nCount) {
    CopyBeforeWrite();
    const int length = GetLength();
    if (nIndex < 0 || nIndex >= length || nCount < 1)
        return length;
    const int kept = nCount < length - nIndex ? length - nIndex - nCount : 0; // behind what is deleted
    char* text = m_pStrData->LockBuffer();
    memmove(text + nIndex, text + length - kept, static_cast<size_t>(kept));
    text[nIndex + kept] = '\0';
    m_pStrData->SetLength(static_cast<unsigned int>(nIndex + kept));
    m_pStrData->UnlockBuffer();
    return GetLength();
}

// --- Trimming ------------------------------------------------------------------------------------------

namespace {

void CutStart(XStringData& header, char* text, unsigned int count) {
    if (count == 0)
        return;
    const unsigned int length = header.m_uiLength - count;
    memmove(text, text + count, length);
    header.SetLength(length);
}

// Cuts off the characters at the end that fit.
template <typename Fits> void TrimEnd(XString& string, Fits fits) {
    // Aborts for an empty string, unlike TrimLeft.
    if (!fits(string.m_pStrData->GetAt(string.m_pStrData->m_uiLength - 1)))
        return;
    string.CopyBeforeWrite();
    const char* text = string.m_pStrData->LockBuffer();
    unsigned int length = string.m_pStrData->m_uiLength;
    while (length > 0 && fits(text[length - 1]))
        --length;
    string.m_pStrData->SetLength(length);
    string.m_pStrData->UnlockBuffer();
}

} // namespace

void XString::TrimLeft(char ch) {
    if (*m_pStrData->m_pszData != ch)
        return;
    CopyBeforeWrite();
    char* text = m_pStrData->LockBuffer();
    unsigned int run = 0;
    // As many bytes are there as the length says. NOLINTNEXTLINE(clang-analyzer-core.*)
    while (run < m_pStrData->m_uiLength && text[run] == ch)
        ++run;
    CutStart(*m_pStrData, text, run);
    m_pStrData->UnlockBuffer();
}

void XString::TrimLeft(const char* pszSet) {
    if (!Contains(pszSet, *m_pStrData->m_pszData))
        return;
    CopyBeforeWrite();
    char* text = m_pStrData->LockBuffer();
    const auto run = static_cast<unsigned int>(strspn(text, pszSet));
    CutStart(*m_pStrData, text, std::min(run, m_pStrData->m_uiLength));
    m_pStrData->UnlockBuffer();
}

void XString::TrimRight(char ch) {
    TrimEnd(*this, [ch](char c) { return c == ch; });
}

void XString::TrimRight(const char* pszSet) {
    TrimEnd(*this, [pszSet](char c) { return Contains(pszSet, c); });
}
