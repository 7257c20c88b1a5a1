// A growable array of untyped pointers that never asserts: a bad index gives NULL or nothing at all.
//
// Thread safety: none; threads that share an array guard it themselves, and all arrays share one element for
// bad indexes (see operator[]).
// Lifetime: the array owns its storage and never what the elements point to.
// Errors: growing throws std::bad_alloc and changes nothing then.
//
// Not to be mixed up with CStringArray, which locks itself and aborts on a bad index.
#ifndef WINDOWS_PTRARRAY_H
#define WINDOWS_PTRARRAY_H

#include <Windows/types.h>

class CPtrArray {
public:
    // An array without storage.
    CPtrArray();

    CPtrArray(const CPtrArray&) = delete;
    CPtrArray& operator=(const CPtrArray&) = delete;

    ~CPtrArray();

    // The number of elements, and the highest index: -1 without elements.
    WINDOWS_INLINE_EXPORT int GetSize();
    int GetSize() const { return const_cast<CPtrArray*>(this)->GetSize(); }
    int GetCount() const { return GetSize(); }
    bool IsEmpty() const { return GetSize() == 0; }
    int GetUpperBound();
    int GetUpperBound() const { return const_cast<CPtrArray*>(this)->GetUpperBound(); }

    // Makes room for more than nNewSize elements, up to the next multiple of nGrowBy above it. It adds no
    // element: the size stays, and SetAt still stores nothing beyond it. A smaller size than the present one
    // removes nothing. nGrowBy counts for this call only; 0 does nothing, -1 leaves room for one element less
    // than nNewSize.
    void SetSize(int nNewSize, int nGrowBy = 16);

    // Frees the storage.
    void RemoveAll();

    // The element, or NULL if there is none.
    WINDOWS_INLINE_EXPORT void* GetAt(int nIndex);
    void* GetAt(int nIndex) const { return const_cast<CPtrArray*>(this)->GetAt(nIndex); }
    void* operator[](int nIndex) const;

    // The element; for a bad index one that all arrays of the process share, NULL at first. What is written
    // to it is lost to the array, and read back by the next bad index anywhere.
    void*& operator[](int nIndex);
    void*& ElementAt(int nIndex) { return (*this)[nIndex]; }

    // Replaces an element; nothing if there is none.
    void SetAt(int nIndex, void* p);

    // Replaces an element, adding NULLs in front of it as needed; nothing for a negative index.
    void SetAtGrow(int nIndex, void* p);

    // Appends an element and returns its index. 0 may also mean that nothing was stored.
    WINDOWS_INLINE_EXPORT int Add(void* p);

    // Puts p in nCount times at the index, adding NULLs in front as needed; nothing for a negative index.
    void InsertAt(int nIndex, void* p, int nCount = 1);

    // Removes as many of nCount elements as there are from the index on; nothing for a bad index.
    void RemoveAt(int nIndex, int nCount = 1);

    // The elements themselves; NULL without storage. Valid until the array grows.
    void** GetData() { return m_pData; }
    void* const* GetData() const { return m_pData; }

    // Makes room for nNewMax elements, or with -1 for m_nGrowBy more. False, and nothing changes, if that is
    // not more than there is.
    bool Grow(int nNewMax);

    void** m_pData; // the elements; NULL without storage
    int m_nMaxSize; // room, in elements; -1 without storage
    int m_nSize;    // elements; -1 without storage, which GetSize() gives as 0
    int m_nGrowBy;  // what Add grows by, in elements; above 0

private:
    bool Has(int nIndex) const { return m_pData && nIndex >= 0 && nIndex < m_nSize; }
};

// ---------------------------------------------------------------------------------------------------------

inline int CPtrArray::GetSize() { return m_nSize > 0 ? m_nSize : 0; }

inline void* CPtrArray::GetAt(int nIndex) { return Has(nIndex) ? m_pData[nIndex] : nullptr; }

inline int CPtrArray::Add(void* p) {
    if (m_nSize == m_nMaxSize)
        Grow(-1);
    if (m_nSize == -1 || !m_pData)
        return 0;
    m_pData[m_nSize] = p;
    return m_nSize++;
}

inline void CPtrArray::SetAtGrow(int nIndex, void* p) {
    if (nIndex < 0)
        return;
    SetSize(nIndex, m_nGrowBy); // room for more than nIndex elements
    while (GetSize() <= nIndex)
        Add(nullptr);
    SetAt(nIndex, p);
}

inline void CPtrArray::InsertAt(int nIndex, void* p, int nCount) {
    if (nIndex < 0 || nCount < 1)
        return;
    const int nMoved = nIndex < GetSize() ? GetSize() - nIndex : 0;
    SetAtGrow(nIndex + nMoved + nCount - 1, nullptr);
    for (int i = nMoved - 1; i >= 0; --i)
        SetAt(nIndex + nCount + i, GetAt(nIndex + i));
    for (int i = 0; i < nCount; ++i)
        SetAt(nIndex + i, p);
}

inline void CPtrArray::RemoveAt(int nIndex, int nCount) {
    if (!Has(nIndex) || nCount < 1)
        return;
    const int nGone = nCount < m_nSize - nIndex ? nCount : m_nSize - nIndex;
    for (int i = nIndex; i + nGone < m_nSize; ++i)
        SetAt(i, GetAt(i + nGone));
    m_nSize -= nGone;
}

#endif
