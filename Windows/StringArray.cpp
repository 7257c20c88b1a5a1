#include <Windows/StringArray.h>

#include <Windows/internal/Assertion.h>
#include <Windows/internal/Capacity.h>
#include <Windows/internal/Relaxed.h>

namespace {

constexpr char kSource[] = "Windows/StringArray";
constexpr char kSetSize[] = "void CStringArray::SetSize(int, int)";

constexpr int kRecursive = 1; // Add holds the lock while SetSize takes it

} // namespace

CStringArray::CStringArray()
    : m_mutex(kRecursive, false), m_pData(nullptr), m_nSize(0), m_nMaxSize(0), m_nGrowBy(0) {}

CStringArray::~CStringArray() {
    // Not by CSingleLock, which would unlock a mutex that is gone.
    m_mutex.Lock();
    delete[] m_pData;
    m_pData = nullptr;
    m_mutex.Unlock();
}

const XString CStringArray::operator[](int nIndex) const {
    const CSingleLock lock(&m_mutex);
    windows::Require(nIndex >= 0 && nIndex < m_nSize, "nIndex >= 0 && nIndex < m_nSize",
                     {kSource, 32, "const XString CStringArray::operator[](int) const"});
    return m_pData[nIndex];
}

void CStringArray::ModifyAt(int nIndex, const XString& s) {
    const CSingleLock lock(&m_mutex);
    windows::Require(nIndex >= 0 && nIndex < m_nSize, "nIndex >= 0 && nIndex < m_nSize",
                     {kSource, 49, "void CStringArray::ModifyAt(int, const XString&)"});
    m_pData[nIndex] = s;
}

void CStringArray::SetAtGrow(int nIndex, const XString& s) {
    windows::Require(nIndex >= 0, "nIndex >= 0",
                     {kSource, 161, "void CStringArray::SetAtGrow(int, const XString&)"});
    // s may be an element, which goes when the array grows.
    const XString held(s); // NOLINT(performance-unnecessary-copy-initialization)
    if (nIndex > GetUpperBound())
        SetSize(static_cast<int>(static_cast<unsigned int>(nIndex) + 1), -1);
    m_pData[nIndex] = held; // without the lock, unlike ModifyAt
}

int CStringArray::Add(const XString& s) {
    const CSingleLock lock(&m_mutex);
    const int index = m_nSize;
    SetAtGrow(index, s);
    return index;
}

void CStringArray::SetSize(int nNewSize, int nGrowBy) {
    const CSingleLock lock(&m_mutex);
    windows::Require(nNewSize >= 0, "nNewSize >= 0", {kSource, 72, kSetSize});
    if (nGrowBy != -1)
        m_nGrowBy = nGrowBy;
    if (nNewSize == 0) {
        delete[] m_pData;
        m_pData = nullptr;
        m_nMaxSize = 0;
    } else if (!m_pData) {
        m_pData = new XString[static_cast<size_t>(nNewSize)];
        m_nMaxSize = nNewSize;
    } else if (nNewSize > m_nMaxSize) {
        Grow(nNewSize);
    } else {
        // The slots that come in, or go out but stay allocated, all share one empty string.
        const XString empty;
        for (int i = m_nSize; i < nNewSize; ++i)
            m_pData[i] = empty;
        for (int i = nNewSize; i < m_nSize; ++i)
            m_pData[i] = empty;
    }
    windows::RelaxedStore(m_nSize, nNewSize);
}

void CStringArray::Grow(int nNewSize) {
    const int step = m_nGrowBy != 0 ? m_nGrowBy : windows::DefaultGrowth(m_nSize);
    const int nNewMax = windows::GrownCapacity(nNewSize, m_nMaxSize, step);
    auto* data = new XString[static_cast<size_t>(nNewMax)];
    for (int i = 0; i < m_nSize; ++i)
        data[i] = m_pData[i];
    windows::Require(nNewSize > m_nSize, "nNewSize > m_nSize", {kSource, 149, kSetSize});
    delete[] m_pData;
    m_pData = data;
    m_nMaxSize = nNewMax;
}

void CStringArray::RemoveAll() { SetSize(0, -1); }
