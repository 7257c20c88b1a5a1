#include <Windows/ObList.h>

#include <Windows/internal/Assertion.h>

namespace {

constexpr char kSource[] = "Windows/ObList";

} // namespace

CObList::CObList() : m_pNodeHead(nullptr), m_pNodeTail(nullptr), m_nCount(0) {}

CObList::~CObList() { RemoveAll(); }

// --- For programs that do not have these inline --------------------------------------------------------

__attribute__((used)) POSITION (CObList::*const g_getHeadPosition)() const = &CObList::GetHeadPosition;
__attribute__((used)) POSITION (CObList::*const g_getTailPosition)() const = &CObList::GetTailPosition;
__attribute__((used)) CObject*& (CObList::*const g_getNext)(POSITION&) = &CObList::GetNext;
__attribute__((used)) CObject* (CObList::*const g_getNextOfConst)(POSITION&) const = &CObList::GetNext;
__attribute__((used)) CObject*& (CObList::*const g_getPrev)(POSITION&) = &CObList::GetPrev;
__attribute__((used)) CObject* (CObList::*const g_getPrevOfConst)(POSITION&) const = &CObList::GetPrev;
__attribute__((used)) POSITION (CObList::*const g_addHead)(CObject*) = &CObList::AddHead;
__attribute__((used)) POSITION (CObList::*const g_addTail)(CObject*) = &CObList::AddTail;
__attribute__((used))
CObList::CNode* (CObList::*const g_newNode)(CObList::CNode*, CObList::CNode*, CObject*) = &CObList::NewNode;

// --- Elements ------------------------------------------------------------------------------------------

CObject*& CObList::GetAt(POSITION pos) { return NodeAt(pos)->data; }

CObject* CObList::GetAt(POSITION pos) const { return NodeAt(pos)->data; }

void CObList::SetAt(POSITION pos, CObject* obj) { NodeAt(pos)->data = obj; }

CObject*& CObList::GetHead() {
    windows::Require(m_pNodeHead, "m_pNodeHead", {kSource, 36, "CObject*& CObList::GetHead()"});
    return m_pNodeHead->data;
}

CObject*& CObList::GetTail() {
    windows::Require(m_pNodeTail, "m_pNodeTail", {kSource, 42, "CObject*& CObList::GetTail()"});
    return m_pNodeTail->data;
}

int CObList::GetCount() const { return m_nCount; }

bool CObList::IsEmpty() const { return m_nCount == 0; }

// --- Adding --------------------------------------------------------------------------------------------

void CObList::AddHead(CObList* pNewList) {
    windows::Require(pNewList, "pNewList != __null", {kSource, 102, "void CObList::AddHead(CObList*)"});
    for (CNode* node = pNewList->m_pNodeTail; node; node = node->pPrev)
        AddHead(node->data);
}

void CObList::AddTail(CObList* pNewList) {
    windows::Require(pNewList, "pNewList != __null", {kSource, 131, "void CObList::AddTail(CObList*)"});
    for (CNode* node = pNewList->m_pNodeHead; node; node = node->pNext)
        AddTail(node->data);
}

POSITION CObList::InsertBefore(POSITION pos, CObject* obj) {
    if (!pos)
        return AddHead(obj);
    CNode* next = NodeAt(pos);
    CNode* node = NewNode(next->pPrev, next, obj);
    (next->pPrev ? next->pPrev->pNext : m_pNodeHead) = node;
    next->pPrev = node;
    return PositionOf(node);
}

POSITION CObList::InsertAfter(POSITION pos, CObject* obj) {
    if (!pos)
        return AddTail(obj);
    CNode* previous = NodeAt(pos);
    CNode* node = NewNode(previous, previous->pNext, obj);
    (previous->pNext ? previous->pNext->pPrev : m_pNodeTail) = node;
    previous->pNext = node;
    return PositionOf(node);
}

// --- Removing ------------------------------------------------------------------------------------------

CObject* CObList::RemoveHead() {
    windows::Require(m_pNodeHead, "m_pNodeHead != __null", {kSource, 48, "CObject* CObList::RemoveHead()"});
    CObject* obj = m_pNodeHead->data;
    RemoveAt(PositionOf(m_pNodeHead));
    return obj;
}

CObject* CObList::RemoveTail() {
    windows::Require(m_pNodeTail, "m_pNodeTail != __null", {kSource, 67, "CObject* CObList::RemoveTail()"});
    CObject* obj = m_pNodeTail->data;
    RemoveAt(PositionOf(m_pNodeTail));
    return obj;
}

void CObList::RemoveAt(POSITION pos) {
    CNode* node = NodeAt(pos);
    (node->pPrev ? node->pPrev->pNext : m_pNodeHead) = node->pNext;
    (node->pNext ? node->pNext->pPrev : m_pNodeTail) = node->pPrev;
    DeleteNode(node);
}

void CObList::RemoveAll() {
    CNode* node = m_pNodeHead;
    while (node) {
        CNode* next = node->pNext;
        DeleteNode(node);
        node = next;
    }
    m_pNodeHead = nullptr;
    m_pNodeTail = nullptr;
    m_nCount = 0;
}

// --- Searching -----------------------------------------------------------------------------------------

POSITION CObList::Find(CObject* obj, POSITION startAfter) const {
    // Not from the element behind startAfter, whatever its name says: callers pass where to begin.
    CNode* node = startAfter ? NodeAt(startAfter) : m_pNodeHead;
    while (node && node->data != obj)
        node = node->pNext;
    return PositionOf(node);
}

POSITION CObList::FindIndex(int index) const {
    if (index < 0 || index >= m_nCount)
        return nullptr;
    CNode* node = m_pNodeHead;
    for (int i = 0; i < index; ++i)
        node = node->pNext;
    return PositionOf(node);
}

// --- Nodes ---------------------------------------------------------------------------------------------

void CObList::DeleteNode(CNode* node) {
    delete node;
    --m_nCount;
}
