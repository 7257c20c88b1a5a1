#include <Windows/PtrArray.h>

#include <stddef.h>
#include <string.h>

#include <algorithm>

namespace {

constexpr int kNoStorage = -1; // the sizes of an array that has never grown
constexpr int kGrowBy = 16;

} // namespace

// For programs that do not have them inline.
__attribute__((used)) int (CPtrArray::*const g_getSize)() = &CPtrArray::GetSize;
__attribute__((used)) void* (CPtrArray::*const g_getAt)(int) = &CPtrArray::GetAt;
__attribute__((used)) int (CPtrArray::*const g_add)(void*) = &CPtrArray::Add;

CPtrArray::CPtrArray() : m_pData(nullptr), m_nMaxSize(kNoStorage), m_nSize(kNoStorage), m_nGrowBy(kGrowBy) {}

CPtrArray::~CPtrArray() { RemoveAll(); }

int CPtrArray::GetUpperBound() { return GetSize() - 1; }

void CPtrArray::SetSize(int nNewSize, int nGrowBy) {
    if (m_nSize >= nNewSize || nGrowBy == 0)
        return;
    // The division is signed. The rest is not, so that what exceeds an int comes out negative: too small for
    // Grow. m_nSize stays; SetSize is about room.
    const auto steps = static_cast<unsigned int>(nNewSize / nGrowBy);
    const auto step = static_cast<unsigned int>(nGrowBy);
    Grow(static_cast<int>(step + steps * step));
}

void CPtrArray::RemoveAll() {
    delete[] m_pData;
    m_pData = nullptr;
    m_nMaxSize = kNoStorage;
    m_nSize = kNoStorage;
    m_nGrowBy = kGrowBy;
}

void* CPtrArray::operator[](int nIndex) const { return GetAt(nIndex); }

void*& CPtrArray::operator[](int nIndex) {
    // Takes the writes of callers with a bad index, on purpose, so that they do not fault.
    static void* bogoPtr = nullptr;
    return Has(nIndex) ? m_pData[nIndex] : bogoPtr;
}

void CPtrArray::SetAt(int nIndex, void* p) {
    if (Has(nIndex))
        m_pData[nIndex] = p;
}

bool CPtrArray::Grow(int nNewMax) {
    const int held = std::max(m_nMaxSize, 0);
    if (nNewMax == -1)
        nNewMax = m_nGrowBy + held;
    else if (nNewMax <= m_nMaxSize)
        return false;
    auto* data = new void*[static_cast<size_t>(nNewMax)];
    if (held > 0)
        memcpy(data, m_pData, static_cast<size_t>(held) * sizeof *data);
    delete[] m_pData;
    m_pData = data;
    m_nMaxSize = nNewMax;
    m_nSize = std::max(m_nSize, 0);
    return true;
}
