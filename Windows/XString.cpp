#include <Windows/XString.h>

#include <stdio.h>

#include <algorithm>
#include <utility>

#include <Windows/internal/Assertion.h>
#include <Windows/internal/Relaxed.h>
#include <Windows/internal/StringHeader.h>

// For programs that do not have them inline.
__attribute__((used)) bool (XStringData::*const g_reallocate)(unsigned int, bool) = &XStringData::Reallocate;
__attribute__((used)) XString& (XString::*const g_appendCharacter)(char) = &XString::operator+=;
__attribute__((used)) int (XString::*const g_findCharacter)(char, int) const = &XString::Find;
__attribute__((used)) int (XString::*const g_findText)(const char*, int) const = &XString::Find;

int XStringData::m_iObjCount = 0;
int XString::m_iDefaultBlockSize = 16;
int XString::m_iObjCount = 0;

namespace {

constexpr windows::Place kSetLength = {"Windows/XString", 239, "void XStringData::SetLength(unsigned int)"};

char* NewBuffer(unsigned int size) {
    auto* buffer = static_cast<char*>(malloc(size));
    if (!buffer)
        ThrowMemoryException();
    return buffer;
}

// Gives the header a buffer of exactly the two texts, one behind the other.
void Fill(XStringData& header, unsigned int length1, const char* text1, unsigned int length2,
          const char* text2) {
    const unsigned int total = length1 + length2;
    if (total == 0)
        return;
    header.Allocate(total + 1);
    header.SetLength(total);
    char* text = header.LockBuffer();
    windows::CopyText(text, text1, length1);
    windows::CopyText(text + length1, text2, length2);
    text[total] = '\0';
    header.UnlockBuffer();
}

// The header of a new string of two texts. Inline, as one of them is nothing most of the time, and without
// Fill, which has to look what the header holds.
__attribute__((always_inline)) inline XStringData* Joined(unsigned int length1, const char* text1,
                                                          unsigned int length2, const char* text2) {
    windows::NewHeader header;
    const unsigned int total = length1 + length2;
    if (total == 0)
        return header.HandOver();
    windows::Require(total < total + 1, "uiLength < m_uiBuffSize", kSetLength);
    header->m_pszData = NewBuffer(total + 1);
    header->m_uiBuffSize = total + 1;
    header->m_uiLength = total;
    windows::CopyText(header->m_pszData, text1, length1);
    windows::CopyText(header->m_pszData + length1, text2, length2);
    header->m_pszData[total] = '\0';
    return header.HandOver();
}

XStringData* Repeated(char ch, int n) {
    windows::NewHeader header;
    if (n > 0) {
        const auto count = static_cast<unsigned int>(n);
        header->Allocate(count + 1);
        char* text = header->LockBuffer();
        memset(text, ch, count);
        header->SetLength(count);
        header->UnlockBuffer();
    }
    return header.HandOver();
}

unsigned int Length(const char* psz) { return psz ? static_cast<unsigned int>(strlen(psz)) : 0; }

void CountString(int change) { __atomic_fetch_add(&XString::m_iObjCount, change, __ATOMIC_SEQ_CST); }

} // namespace

// --- XStringData ---------------------------------------------------------------------------------------

XStringData* XStringData::AddRef() {
    __atomic_fetch_add(&m_iRefCount, 1, __ATOMIC_SEQ_CST);
    return this;
}

void XStringData::Release() {
    // The only reference is the caller's, and nobody can take another: no need to count it down.
    if (__atomic_load_n(&m_iRefCount, __ATOMIC_ACQUIRE) != 1 &&
        __atomic_fetch_sub(&m_iRefCount, 1, __ATOMIC_SEQ_CST) != 1)
        return;
    free(m_pszData);
    windows::RelaxedStore(m_iObjCount, windows::RelaxedLoad(m_iObjCount) - 1);
    delete this;
}

bool XStringData::Allocate(unsigned int uiSize) {
    if (uiSize == m_uiBuffSize)
        return true;
    if (uiSize == 0)
        return false;
    if (m_pszData)
        free(std::exchange(m_pszData, nullptr));
    m_pszData = NewBuffer(uiSize);
    m_uiBuffSize = uiSize;
    return true;
}

void XStringData::SetLength(unsigned int uiLength) {
    windows::Require(uiLength < m_uiBuffSize, "uiLength < m_uiBuffSize", kSetLength);
    m_uiLength = uiLength;
    m_pszData[uiLength] = '\0';
}

char XStringData::GetAt(unsigned int uiIndex) {
    windows::Require(uiIndex < GetLength(), "uiIndex < GetLength()",
                     {"Windows/XString", 373, "char XStringData::GetAt(unsigned int)"});
    return m_pszData[uiIndex];
}

unsigned int XStringData::GetLength() { return m_uiLength; }

// --- Construction and assignment -----------------------------------------------------------------------

XString::XString() : m_pStrData(new XStringData) { CountString(1); }

XString::XString(const XString& source) : m_pStrData(source.m_pStrData->AddRef()) { CountString(1); }

XString::XString(const char* psz) : m_pStrData(Joined(Length(psz), psz, 0, nullptr)) { CountString(1); }

XString::XString(const char* p, int n)
    : m_pStrData(Joined(p && n > 0 ? static_cast<unsigned int>(n) : 0, p, 0, nullptr)) {
    CountString(1);
}

XString::XString(char ch, int n) : m_pStrData(Repeated(ch, n)) { CountString(1); }

XString::~XString() {
    m_pStrData->Release();
    CountString(-1);
}

void XString::Empty() {
    if (m_pStrData->IsShared()) {
        auto* fresh = new XStringData;
        m_pStrData->Release();
        m_pStrData = fresh;
        return;
    }
    free(m_pStrData->m_pszData);
    m_pStrData->m_uiLength = 0;
    m_pStrData->m_uiBuffSize = 0;
    m_pStrData->m_iBlockSize = -1;
    m_pStrData->m_pszData = nullptr;
    m_pStrData->m_bLocked = false;
}

XString& XString::operator=(char ch) {
    Empty();
    m_pStrData->Allocate(2);
    char* text = m_pStrData->LockBuffer();
    text[0] = ch;
    text[1] = '\0';
    // The length stays 0: callers that assign a character and ask for the length are answered so.
    m_pStrData->UnlockBuffer();
    return *this;
}

XString& XString::operator=(const char* psz) {
    Empty();
    if (!psz)
        return *this;
    const unsigned int length = Length(psz);
    m_pStrData->Allocate(length + 1);
    char* text = m_pStrData->LockBuffer();
    memcpy(text, psz, m_pStrData->m_uiBuffSize);
    m_pStrData->SetLength(length);
    m_pStrData->UnlockBuffer();
    return *this;
}

// --- Concatenation -------------------------------------------------------------------------------------

XString& XString::operator+=(const char* psz) {
    if (!psz)
        return *this;
    XStringData* joined = Joined(m_pStrData->m_uiLength, m_pStrData->m_pszData, Length(psz), psz);
    std::exchange(m_pStrData, joined)->Release();
    return *this;
}

XString& XString::operator+=(const XString& s) {
    XStringData* joined = Joined(m_pStrData->m_uiLength, m_pStrData->m_pszData, s.m_pStrData->m_uiLength,
                                 s.m_pStrData->m_pszData);
    std::exchange(m_pStrData, joined)->Release();
    return *this;
}

void XString::ConcatCopy(int nLen1, const char* p1, int nLen2, const char* p2) {
    Fill(*m_pStrData, static_cast<unsigned int>(nLen1), p1, static_cast<unsigned int>(nLen2), p2);
}

XString operator+(char ch, const XString& s) {
    XString sum;
    Fill(*sum.m_pStrData, 1, &ch, s.m_pStrData->m_uiLength, s.m_pStrData->m_pszData);
    return sum;
}

XString operator+(const XString& s, char ch) {
    XString sum;
    Fill(*sum.m_pStrData, s.m_pStrData->m_uiLength, s.m_pStrData->m_pszData, 1, &ch);
    return sum;
}

// --- The buffer ----------------------------------------------------------------------------------------

void XString::ReleaseBuffer(int nNewLength) {
    m_pStrData->SetLength(nNewLength == -1 ? static_cast<unsigned int>(strlen(m_pStrData->m_pszData))
                                           : static_cast<unsigned int>(nNewLength));
    m_pStrData->UnlockBuffer();
}

namespace {

void ResizeInPlace(XStringData& header, unsigned int size) {
    header.Reallocate(size, true);
    if (size - 1 < header.m_uiLength)
        header.SetLength(size - 1);
}

// A header for the old one with a buffer of exactly size bytes and as much of the old buffer as fits. Its
// length is the count of bytes copied, not the old length: callers have seen it so. Apart, as a string of one
// user would save registers for it.
__attribute__((noinline)) XStringData* Resized(XStringData* old, unsigned int size) {
    windows::NewHeader header;
    header->m_iBlockSize = old->m_iBlockSize;
    header->Allocate(size);
    char* text = header->LockBuffer();
    const int room = std::min(static_cast<int>(size), static_cast<int>(old->m_uiBuffSize));
    const unsigned int count = room > 1 ? static_cast<unsigned int>(room - 1) : 0;
    windows::CopyText(text, old->m_pszData, count);
    if (text)
        text[count] = '\0';
    header->m_uiLength = count;
    header->UnlockBuffer();
    old->Release();
    return header.HandOver();
}

} // namespace

void XString::Resize(unsigned int uiSize) {
    if (uiSize == m_pStrData->m_uiBuffSize)
        return;
    if (m_pStrData->IsShared())
        m_pStrData = Resized(m_pStrData, uiSize);
    else
        ResizeInPlace(*m_pStrData, uiSize);
}

int XString::Dump(int nIndent) {
    for (int i = 0; i < nIndent; ++i)
        putchar(' ');
    return printf("Length: %d  Size: %d  RefCount: %d  Locked: %d  Text: %s\n",
                  static_cast<int>(m_pStrData->m_uiLength), static_cast<int>(m_pStrData->m_uiBuffSize),
                  windows::RelaxedLoad(m_pStrData->m_iRefCount), static_cast<int>(m_pStrData->m_bLocked),
                  m_pStrData->m_pszData);
}
