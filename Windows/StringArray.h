// A growable array of strings that locks itself and aborts on a bad index.
//
// Thread safety: any thread may use an array; each operation holds the array's own recursive lock, whose
// tracing reaches the host's logger. Two exceptions: the store of SetAtGrow, and the sizes, which are read
// without the lock. Elements come out as copies that share the text; see XString for what threads may do with
// them.
// Lifetime: nobody may be using an array that is destroyed.
// Errors: growing throws std::bad_alloc and changes nothing then. A bad index ends the process with an
// assertion, in every build, while the lock is held.
//
// Not to be mixed up with CPtrArray, which does neither.
#ifndef WINDOWS_STRINGARRAY_H
#define WINDOWS_STRINGARRAY_H

#include <Windows/Mutex.h>
#include <Windows/SingleLock.h>
#include <Windows/XString.h>

class CStringArray {
public:
    CStringArray();

    CStringArray(const CStringArray&) = delete;
    CStringArray& operator=(const CStringArray&) = delete;

    ~CStringArray();

    // The number of elements and the highest index, -1 without elements. They take no lock.
    int GetSize() const { return __atomic_load_n(&m_nSize, __ATOMIC_RELAXED); }
    int GetCount() const { return GetSize(); }
    bool IsEmpty() const { return GetSize() == 0; }
    int GetUpperBound() const { return GetSize() - 1; }

    // Makes the array nNewSize elements large; what is added is empty, what is cut off is released. nGrowBy
    // is kept as the step for later growth, unless it is -1. Without a step (0, as at first) an array that
    // outgrows its storage grows by 1,024 elements, and by an eighth from 8,192 elements on. Aborts on a
    // negative size.
    void SetSize(int nNewSize, int nGrowBy = -1);

    // Removes all elements and frees the storage.
    void RemoveAll();

    // A copy of the element, which shares its text. There is no other operator[]: a reference to an element
    // would escape the lock; use SetAt.
    const XString operator[](int nIndex) const;
    const XString GetAt(int nIndex) const { return (*this)[nIndex]; }

    // Replaces an element; it shares the text of s from then on.
    void ModifyAt(int nIndex, const XString& s);
    void SetAt(int nIndex, const XString& s) { ModifyAt(nIndex, s); }

    // The same; the array grows up to the index if need be. Aborts on a negative index. The element is stored
    // without the lock, which only SetSize holds.
    void SetAtGrow(int nIndex, const XString& s);

    // Appends an element and returns its index.
    int Add(const XString& s);

    // Puts s in nCount times at the index, adding empty strings in front as needed. Aborts on a negative
    // index.
    void InsertAt(int nIndex, const XString& s, int nCount = 1);

    // Removes as many of nCount elements as there are from the index on. Aborts on a bad index.
    void RemoveAt(int nIndex, int nCount = 1);

    // Whoever needs several operations in one holds the lock meanwhile.
    mutable CMutex m_mutex;
    XString* m_pData; // from new[]; NULL without elements
    int m_nSize;      // elements
    int m_nMaxSize;   // room, in elements
    int m_nGrowBy;    // 0: SetSize chooses the step

private:
    void Grow(int nNewSize);
};

// ---------------------------------------------------------------------------------------------------------

inline void CStringArray::InsertAt(int nIndex, const XString& s, int nCount) {
    const CSingleLock lock(&m_mutex);
    // s may be an element, which moves.
    const XString held(s); // NOLINT(performance-unnecessary-copy-initialization)
    if (nIndex < 0)
        SetAtGrow(nIndex, held); // aborts; GCOVR_EXCL_LINE
    if (nCount < 1)
        return;
    const int nMoved = nIndex < m_nSize ? m_nSize - nIndex : 0;
    SetAtGrow(nIndex + nMoved + nCount - 1, XString());
    for (int i = nMoved - 1; i >= 0; --i)
        m_pData[nIndex + nCount + i] = m_pData[nIndex + i];
    for (int i = 0; i < nCount; ++i)
        m_pData[nIndex + i] = held;
}

inline void CStringArray::RemoveAt(int nIndex, int nCount) {
    const CSingleLock lock(&m_mutex);
    const XString checked = (*this)[nIndex]; // aborts on a bad index
    if (nCount < 1)
        return;
    const int nKept = nCount < m_nSize - nIndex ? m_nSize - nCount : nIndex;
    if (nKept == 0) {
        RemoveAll();
        return;
    }
    const XString empty; // before anything moves, as there may be no memory for it
    for (int i = nIndex; i < nKept; ++i)
        m_pData[i] = m_pData[i + nCount];
    for (int i = nKept; i < m_nSize; ++i)
        m_pData[i] = empty;
    __atomic_store_n(&m_nSize, nKept, __ATOMIC_RELAXED);
}

#endif
