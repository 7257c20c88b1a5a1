// A doubly linked list of object pointers, walked by positions.
//
// A POSITION stands for one element and stays valid until that element is removed; NULL is no position.
// Positions are not checked: one that is NULL where an element is needed, or belongs to another list or to a
// removed element, is undefined behaviour.
//
// Thread safety: none; threads that share a list guard it themselves.
// Lifetime: the list owns its nodes and never the objects: it neither copies nor deletes them.
// Errors: adding throws std::bad_alloc and changes nothing then; of a list that is added, what was added so
// far stays. Asking an empty list for an element, or passing NULL as a list, ends the process with an
// assertion, in every build.
#ifndef WINDOWS_OBLIST_H
#define WINDOWS_OBLIST_H

#include <Windows/types.h>

// The library uses nothing of it; applications have a class of their own under this name.
class CObject;

// An opaque handle for one element. Nothing is known of it but that it can be held and compared.
struct __POSITION;
typedef __POSITION* POSITION;

class CObList {
public:
    // An element. The node's address is its position.
    struct CNode {
        CNode* pNext;  // NULL at the tail
        CNode* pPrev;  // NULL at the head
        CObject* data; // the element
    };

    // An empty list.
    CObList();

    // The block size is accepted for the sake of callers that give one; nodes are allocated one by one.
    explicit CObList(int) : CObList() {}

    CObList(const CObList&) = delete;
    CObList& operator=(const CObList&) = delete;

    ~CObList();

    // The first and the last position; NULL when the list is empty.
    WINDOWS_INLINE_EXPORT POSITION GetHeadPosition() const;
    WINDOWS_INLINE_EXPORT POSITION GetTailPosition() const;

    // The element at pos, which becomes the position behind it (NULL after the tail).
    WINDOWS_INLINE_EXPORT CObject*& GetNext(POSITION& pos);
    WINDOWS_INLINE_EXPORT CObject* GetNext(POSITION& pos) const;

    // The element at pos, which becomes the position in front of it (NULL before the head).
    WINDOWS_INLINE_EXPORT CObject*& GetPrev(POSITION& pos);
    WINDOWS_INLINE_EXPORT CObject* GetPrev(POSITION& pos) const;

    // Reads and replaces the element at a position.
    CObject*& GetAt(POSITION pos);
    CObject* GetAt(POSITION pos) const;
    void SetAt(POSITION pos, CObject* obj);

    // The first and the last element. They abort when the list is empty.
    CObject*& GetHead();
    CObject* GetHead() const { return const_cast<CObList*>(this)->GetHead(); }
    CObject*& GetTail();
    CObject* GetTail() const { return const_cast<CObList*>(this)->GetTail(); }

    // How many elements there are, and whether there are none.
    int GetCount() const;
    bool IsEmpty() const;

    // Adds an element at that end and returns its position.
    WINDOWS_INLINE_EXPORT POSITION AddHead(CObject* obj);
    WINDOWS_INLINE_EXPORT POSITION AddTail(CObject* obj);

    // Adds the elements of another list at that end, in their order; the other list keeps them. It must not
    // be this list, whose walk would find what it adds and never end. They abort for NULL, which needs a cast
    // to CObList* to be a list.
    void AddHead(CObList* pNewList);
    void AddTail(CObList* pNewList);

    // Adds an element next to pos and returns its position. Without a position (NULL) InsertBefore adds it at
    // the head and InsertAfter at the tail.
    POSITION InsertBefore(POSITION pos, CObject* obj);
    POSITION InsertAfter(POSITION pos, CObject* obj);

    // Removes the first or the last element and returns it. They abort when the list is empty.
    CObject* RemoveHead();
    CObject* RemoveTail();

    // Remove one element, or all.
    void RemoveAt(POSITION pos);
    void RemoveAll();

    // The position of obj, compared by address; NULL if there is none. The search begins at startAfter itself
    // in spite of the name, or at the head: whoever looks for the next match passes the position behind the
    // last one.
    POSITION Find(CObject* obj, POSITION startAfter = nullptr) const;

    // The position of the element with that index, counted from 0 at the head; NULL when there is none.
    POSITION FindIndex(int index) const;

    // Makes a node with these links and counts it, but links nothing to it.
    WINDOWS_INLINE_EXPORT CNode* NewNode(CNode* pPrev, CNode* pNext, CObject* obj);

    // Frees a node, which nothing must link to any more, and counts it out.
    void DeleteNode(CNode* node);

    // The two ends, NULL when the list is empty, and the number of elements.
    CNode* m_pNodeHead;
    CNode* m_pNodeTail;
    int m_nCount;

private:
    static CNode* NodeAt(POSITION pos) { return reinterpret_cast<CNode*>(pos); }
    static POSITION PositionOf(CNode* node) { return reinterpret_cast<POSITION>(node); }

    // The node at pos, which moves along the given link.
    static CNode* Step(POSITION& pos, CNode* CNode::*link) {
        CNode* node = NodeAt(pos);
        pos = PositionOf(node->*link);
        return node;
    }
};

// ---------------------------------------------------------------------------------------------------------

inline POSITION CObList::GetHeadPosition() const { return PositionOf(m_pNodeHead); }

inline POSITION CObList::GetTailPosition() const { return PositionOf(m_pNodeTail); }

inline CObject*& CObList::GetNext(POSITION& pos) { return Step(pos, &CNode::pNext)->data; }

inline CObject* CObList::GetNext(POSITION& pos) const { return Step(pos, &CNode::pNext)->data; }

inline CObject*& CObList::GetPrev(POSITION& pos) { return Step(pos, &CNode::pPrev)->data; }

inline CObject* CObList::GetPrev(POSITION& pos) const { return Step(pos, &CNode::pPrev)->data; }

inline POSITION CObList::AddHead(CObject* obj) {
    CNode* node = NewNode(nullptr, m_pNodeHead, obj);
    (m_pNodeHead ? m_pNodeHead->pPrev : m_pNodeTail) = node;
    m_pNodeHead = node;
    return PositionOf(node);
}

inline POSITION CObList::AddTail(CObject* obj) {
    CNode* node = NewNode(m_pNodeTail, nullptr, obj);
    (m_pNodeTail ? m_pNodeTail->pNext : m_pNodeHead) = node;
    m_pNodeTail = node;
    return PositionOf(node);
}

inline CObList::CNode* CObList::NewNode(CNode* pPrev, CNode* pNext, CObject* obj) {
    CNode* node = new CNode{pNext, pPrev, obj};
    ++m_nCount;
    return node;
}

#endif
