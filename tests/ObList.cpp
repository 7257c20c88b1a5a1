// The list of object pointers: its nodes and links, its positions, and what it does when it is empty.
#include <Windows/ObList.h>

#include <limits.h>
#include <stddef.h>
#include <string.h>

#include <array>
#include <functional>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/attempt.h"
#include "support/interpose.h"
#include "support/recording_host.h"
#include "support/text.h"

// The application's own class; the list needs nothing of it.
class CObject {
public:
    char name;
};

namespace {

static_assert(!std::is_polymorphic<CObList>::value, "nothing virtual");
static_assert(!std::is_copy_constructible<CObList>::value, "two lists would own the same nodes");
static_assert(!std::is_copy_assignable<CObList>::value, "two lists would own the same nodes");
static_assert(!std::is_convertible<int, CObList>::value, "a block size is no list");
static_assert(std::is_pointer<POSITION>::value, "compared with NULL");

// The elements come out of a list as references and out of a const one as pointers.
template <class List> using Next = decltype(std::declval<List>().GetNext(std::declval<POSITION&>()));
template <class List> using Prev = decltype(std::declval<List>().GetPrev(std::declval<POSITION&>()));
template <class List> using At = decltype(std::declval<List>().GetAt(POSITION()));
template <class List> using Head = decltype(std::declval<List>().GetHead());
template <class List> using Tail = decltype(std::declval<List>().GetTail());
static_assert(std::is_same<Next<CObList&>, CObject*&>::value, "");
static_assert(std::is_same<Prev<CObList&>, CObject*&>::value, "");
static_assert(std::is_same<At<CObList&>, CObject*&>::value, "");
static_assert(std::is_same<Head<CObList&>, CObject*&>::value, "");
static_assert(std::is_same<Tail<CObList&>, CObject*&>::value, "");
static_assert(std::is_same<Next<const CObList&>, CObject*>::value, "");
static_assert(std::is_same<Prev<const CObList&>, CObject*>::value, "");
static_assert(std::is_same<At<const CObList&>, CObject*>::value, "");
static_assert(std::is_same<Head<const CObList&>, CObject*>::value, "");
static_assert(std::is_same<Tail<const CObList&>, CObject*>::value, "");

CObList* const NO_LIST = NULL;

// The object of that name, 'a' to 'z'.
CObject* Object(char name) {
    static std::array<CObject, 26> objects;
    CObject* object = &objects.at(static_cast<size_t>(name - 'a'));
    object->name = name;
    return object;
}

void Fill(CObList& list, const std::string& names) {
    for (char name : names)
        list.AddTail(Object(name));
}

// The names of the elements from head to tail, or what is wrong with the list.
std::string Names(const CObList& list) {
    if ((list.m_pNodeHead == NULL) != (list.m_nCount == 0) ||
        (list.m_pNodeTail == NULL) != (list.m_nCount == 0))
        return Text("head %p tail %p count %d", static_cast<void*>(list.m_pNodeHead),
                    static_cast<void*>(list.m_pNodeTail), list.m_nCount);
    std::string names;
    const CObList::CNode* last = NULL;
    for (const CObList::CNode* node = list.m_pNodeHead; node; node = node->pNext) {
        if (node->pPrev != last)
            return "wrong pPrev behind " + names;
        names += node->data ? node->data->name : '0';
        last = node;
    }
    if (last != list.m_pNodeTail)
        return "the walk does not end at the tail: " + names;
    if (names.size() != static_cast<size_t>(list.m_nCount))
        return Text("count %d: ", list.m_nCount) + names;
    return names;
}

CObList::CNode* Node(POSITION pos) { return reinterpret_cast<CObList::CNode*>(pos); }

std::string Assertion(const std::string& expression, int line, const std::string& function) {
    return AssertionRegex("Windows/ObList", line, function, expression);
}

const std::string GET_HEAD_ASSERTION = Assertion("m_pNodeHead", 36, "CObject*& CObList::GetHead()");
const std::string GET_TAIL_ASSERTION = Assertion("m_pNodeTail", 42, "CObject*& CObList::GetTail()");

} // namespace

// -- Data model

TEST(ObList, Has_its_fields_in_order) {
    EXPECT_EQ(offsetof(CObList, m_pNodeHead), 0U);
    EXPECT_EQ(offsetof(CObList, m_pNodeTail), sizeof(void*));
    EXPECT_EQ(offsetof(CObList, m_nCount), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(CObList), 3 * sizeof(void*)) << "with padding where pointers are larger than the count";
    static_assert(std::is_same<decltype(CObList::m_pNodeHead), CObList::CNode*>::value, "");
    static_assert(std::is_same<decltype(CObList::m_pNodeTail), CObList::CNode*>::value, "");
    static_assert(std::is_same<decltype(CObList::m_nCount), int>::value, "");
}

TEST(ObList, Node_has_its_fields_in_order) {
    EXPECT_EQ(offsetof(CObList::CNode, pNext), 0U);
    EXPECT_EQ(offsetof(CObList::CNode, pPrev), sizeof(void*));
    EXPECT_EQ(offsetof(CObList::CNode, data), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(CObList::CNode), 3 * sizeof(void*));
}

TEST(ObList, Constructor_sets_all_fields) {
    alignas(CObList) unsigned char storage[sizeof(CObList)];
    memset(storage, 0xAB, sizeof storage);
    CObList* list = new (storage) CObList;
    EXPECT_EQ(list->m_pNodeHead, nullptr);
    EXPECT_EQ(list->m_pNodeTail, nullptr);
    EXPECT_EQ(list->m_nCount, 0);
    list->~CObList();
}

TEST(ObList, A_block_size_changes_nothing) {
    for (int blockSize : {INT_MIN, -1, 0, 1, 10}) {
        SCOPED_TRACE(blockSize);
        CObList list(blockSize);
        EXPECT_EQ(Names(list), "");
        CallLog log({Call::New, Call::ArrayNew, Call::Malloc});
        list.AddTail(Object('a'));
        list.AddTail(Object('b'));
        const std::vector<std::string> seen = log.Texts();
        EXPECT_EQ(seen, std::vector<std::string>(2, Text("operator new(%zu)", sizeof(CObList::CNode))));
    }
}

TEST(ObList, A_position_is_the_address_of_its_node) {
    CObList list;
    const POSITION a = list.AddTail(Object('a'));
    EXPECT_EQ(static_cast<void*>(a), static_cast<void*>(list.m_pNodeHead));
    EXPECT_EQ(Node(a)->data, Object('a'));
    EXPECT_EQ(list.GetHeadPosition(), a);
}

TEST(ObList, Each_element_is_one_allocation_and_none_is_kept_for_later) {
    const std::string allocation = Text("operator new(%zu)", sizeof(CObList::CNode));
    CObList list;
    CallLog log({Call::New, Call::Delete, Call::ArrayNew, Call::ArrayDelete, Call::Malloc, Call::Free});
    list.AddTail(Object('a'));
    list.AddHead(Object('b'));
    list.RemoveHead();
    list.AddTail(Object('c'));
    list.RemoveTail();
    list.RemoveAt(list.GetHeadPosition());
    const std::vector<std::string> seen = log.Texts();
    const std::vector<std::string> expected = {allocation, allocation,          "operator delete()",
                                               allocation, "operator delete()", "operator delete()"};
    EXPECT_EQ(seen, expected);
}

TEST(ObList, Takes_no_locks_and_posts_nothing) {
    Recorder::Clear();
    CallLog log({Call::MutexInit, Call::MutexLock, Call::MutexTrylock});
    {
        CObList list;
        Fill(list, "abc");
        list.RemoveAt(list.Find(Object('b')));
    }
    EXPECT_EQ(log.Texts(), std::vector<std::string>());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

// -- An empty list

TEST(ObList, Is_empty_at_first) {
    const CObList list;
    EXPECT_EQ(list.GetHeadPosition(), POSITION());
    EXPECT_EQ(list.GetTailPosition(), POSITION());
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.FindIndex(0), POSITION());
    EXPECT_EQ(list.Find(Object('a')), POSITION());
    EXPECT_EQ(list.Find(NULL), POSITION());
}

TEST(ObList, GetHead_of_an_empty_list_aborts) {
    CObList list;
    EXPECT_DEATH(list.GetHead(), GET_HEAD_ASSERTION);
}

TEST(ObList, GetHead_of_an_empty_const_list_aborts_in_the_same_way) {
    const CObList list;
    EXPECT_DEATH(list.GetHead(), GET_HEAD_ASSERTION);
}

TEST(ObList, GetTail_of_an_empty_list_aborts) {
    CObList list;
    EXPECT_DEATH(list.GetTail(), GET_TAIL_ASSERTION);
}

TEST(ObList, GetTail_of_an_empty_const_list_aborts_in_the_same_way) {
    const CObList list;
    EXPECT_DEATH(list.GetTail(), GET_TAIL_ASSERTION);
}

TEST(ObList, RemoveHead_of_an_empty_list_aborts) {
    CObList list;
    EXPECT_DEATH(list.RemoveHead(), Assertion("m_pNodeHead != __null", 48, "CObject* CObList::RemoveHead()"));
}

TEST(ObList, RemoveTail_of_an_empty_list_aborts) {
    CObList list;
    EXPECT_DEATH(list.RemoveTail(), Assertion("m_pNodeTail != __null", 67, "CObject* CObList::RemoveTail()"));
}

TEST(ObList, A_list_that_was_emptied_aborts_like_a_new_one) {
    CObList list;
    Fill(list, "ab");
    list.RemoveAll();
    EXPECT_DEATH(list.GetHead(), GET_HEAD_ASSERTION);
}

// -- Walking

TEST(ObList, GetNext_walks_from_head_to_tail) {
    CObList list;
    Fill(list, "abc");
    POSITION pos = list.GetHeadPosition();
    EXPECT_EQ(list.GetNext(pos), Object('a'));
    EXPECT_EQ(pos, list.FindIndex(1));
    EXPECT_EQ(list.GetNext(pos), Object('b'));
    EXPECT_EQ(pos, list.GetTailPosition());
    EXPECT_EQ(list.GetNext(pos), Object('c'));
    EXPECT_EQ(pos, POSITION());
}

TEST(ObList, GetPrev_walks_from_tail_to_head) {
    CObList list;
    Fill(list, "abc");
    POSITION pos = list.GetTailPosition();
    EXPECT_EQ(list.GetPrev(pos), Object('c'));
    EXPECT_EQ(pos, list.FindIndex(1));
    EXPECT_EQ(list.GetPrev(pos), Object('b'));
    EXPECT_EQ(pos, list.GetHeadPosition());
    EXPECT_EQ(list.GetPrev(pos), Object('a'));
    EXPECT_EQ(pos, POSITION());
}

TEST(ObList, A_const_list_is_walked_in_the_same_way) {
    CObList filled;
    Fill(filled, "ab");
    const CObList& list = filled;
    POSITION pos = list.GetHeadPosition();
    EXPECT_EQ(list.GetNext(pos), Object('a'));
    EXPECT_EQ(pos, list.GetTailPosition());
    EXPECT_EQ(list.GetNext(pos), Object('b'));
    EXPECT_EQ(pos, POSITION());
    pos = list.GetTailPosition();
    EXPECT_EQ(list.GetPrev(pos), Object('b'));
    EXPECT_EQ(pos, list.GetHeadPosition());
    EXPECT_EQ(list.GetPrev(pos), Object('a'));
    EXPECT_EQ(pos, POSITION());
}

TEST(ObList, What_the_walk_returns_can_be_replaced) {
    CObList list;
    Fill(list, "abc");
    POSITION pos = list.GetHeadPosition();
    list.GetNext(pos) = Object('x');
    pos = list.GetTailPosition();
    list.GetPrev(pos) = Object('z');
    EXPECT_EQ(Names(list), "xbz");
}

// -- Elements

TEST(ObList, GetAt_returns_the_element_at_a_position) {
    CObList filled;
    Fill(filled, "abc");
    const CObList& list = filled;
    EXPECT_EQ(filled.GetAt(list.FindIndex(1)), Object('b'));
    EXPECT_EQ(list.GetAt(list.FindIndex(1)), Object('b'));
    filled.GetAt(list.FindIndex(1)) = Object('x');
    EXPECT_EQ(Names(list), "axc");
}

TEST(ObList, SetAt_replaces_the_element_at_a_position) {
    CObList list;
    Fill(list, "abc");
    const POSITION pos = list.FindIndex(1);
    list.SetAt(pos, Object('x'));
    EXPECT_EQ(Names(list), "axc");
    list.SetAt(pos, NULL);
    EXPECT_EQ(Names(list), "a0c");
    EXPECT_EQ(list.FindIndex(1), pos);
}

TEST(ObList, GetHead_and_GetTail_refer_to_the_ends) {
    CObList list;
    Fill(list, "abc");
    EXPECT_EQ(list.GetHead(), Object('a'));
    EXPECT_EQ(list.GetTail(), Object('c'));
    list.GetHead() = Object('x');
    list.GetTail() = Object('z');
    EXPECT_EQ(Names(list), "xbz");
    EXPECT_EQ(const_cast<const CObList&>(list).GetHead(), Object('x'));
    EXPECT_EQ(const_cast<const CObList&>(list).GetTail(), Object('z'));
}

TEST(ObList, GetCount_and_IsEmpty_follow_the_elements) {
    CObList list;
    Fill(list, "ab");
    EXPECT_EQ(list.GetCount(), 2);
    EXPECT_FALSE(list.IsEmpty());
    list.RemoveHead();
    EXPECT_EQ(list.GetCount(), 1);
    EXPECT_FALSE(list.IsEmpty());
    list.RemoveHead();
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_TRUE(list.IsEmpty());
}

// -- Adding

TEST(ObList, AddHead_puts_the_element_in_front) {
    CObList list;
    const POSITION first = list.AddHead(Object('a'));
    EXPECT_EQ(first, list.GetHeadPosition());
    EXPECT_EQ(first, list.GetTailPosition());
    const POSITION second = list.AddHead(Object('b'));
    EXPECT_EQ(second, list.GetHeadPosition());
    EXPECT_EQ(Names(list), "ba");
}

TEST(ObList, AddTail_puts_the_element_behind) {
    CObList list;
    const POSITION first = list.AddTail(Object('a'));
    EXPECT_EQ(first, list.GetHeadPosition());
    EXPECT_EQ(first, list.GetTailPosition());
    const POSITION second = list.AddTail(Object('b'));
    EXPECT_EQ(second, list.GetTailPosition());
    EXPECT_EQ(Names(list), "ab");
}

TEST(ObList, An_object_may_be_in_the_list_more_than_once) {
    CObList list;
    Fill(list, "aba");
    list.AddTail(list.GetHead());
    EXPECT_EQ(Names(list), "abaa");
}

TEST(ObList, A_null_pointer_is_an_element) {
    CObList list;
    CObject* const nothing = NULL;
    Fill(list, "a");
    const POSITION pos = list.AddTail(nothing);
    EXPECT_EQ(list.GetCount(), 2);
    EXPECT_EQ(list.Find(NULL), pos);
    EXPECT_EQ(list.RemoveTail(), nothing);
}

TEST(ObList, Adding_a_list_keeps_its_order) {
    const struct {
        const char* own;
        const char* other;
        const char* withHead;
        const char* withTail;
    } cases[] = {
        {"c", "ab", "abc", "cab"}, {"", "ab", "ab", "ab"}, {"cd", "a", "acd", "cda"},
        {"c", "", "c", "c"},       {"", "", "", ""},       {"aa", "aba", "abaaa", "aaaba"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' and '%s'", c.own, c.other));
        CObList other;
        Fill(other, c.other);
        CObList list;
        Fill(list, c.own);
        list.AddHead(&other);
        EXPECT_EQ(Names(list), c.withHead);
        EXPECT_EQ(Names(other), c.other);
        list.RemoveAll();
        Fill(list, c.own);
        list.AddTail(&other);
        EXPECT_EQ(Names(list), c.withTail);
        EXPECT_EQ(Names(other), c.other);
    }
}

TEST(ObList, Adding_a_list_leaves_it_its_nodes) {
    CObList list;
    CObList other;
    Fill(other, "a");
    list.AddHead(&other);
    list.AddTail(&other);
    EXPECT_EQ(Names(list), "aa");
    other.RemoveAll();
    EXPECT_EQ(Names(list), "aa");
}

TEST(ObList, AddHead_of_no_list_aborts) {
    CObList list;
    EXPECT_DEATH(list.AddHead(NO_LIST),
                 Assertion("pNewList != __null", 102, "void CObList::AddHead(CObList*)"));
}

TEST(ObList, AddTail_of_no_list_aborts) {
    CObList list;
    EXPECT_DEATH(list.AddTail(NO_LIST),
                 Assertion("pNewList != __null", 131, "void CObList::AddTail(CObList*)"));
}

TEST(ObList, Adding_a_list_to_itself_ends_only_with_the_memory) {
    for (const bool head : {true, false}) {
        SCOPED_TRACE(head);
        CObList list;
        Fill(list, "a");
        const Attempt attempt = Without(
            FailAllocation::OnlyNew, [&] { head ? list.AddHead(&list) : list.AddTail(&list); }, 101);
        EXPECT_EQ(attempt.outcome, "bad_alloc");
        EXPECT_EQ(Names(list), std::string(101, 'a'));
    }
}

TEST(ObList, InsertBefore_and_InsertAfter_link_the_element_in_at_every_place) {
    const struct {
        const char* list;
        int index; // -1: no position
        const char* before;
        const char* after;
    } cases[] = {
        {"", -1, "x", "x"},         {"abc", -1, "xabc", "abcx"}, {"a", 0, "xa", "ax"},
        {"abc", 0, "xabc", "axbc"}, {"abc", 1, "axbc", "abxc"},  {"abc", 2, "abxc", "abcx"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d", c.list, c.index));
        CObList before;
        Fill(before, c.list);
        POSITION made = before.InsertBefore(before.FindIndex(c.index), Object('x'));
        EXPECT_EQ(Names(before), c.before);
        EXPECT_EQ(made, before.Find(Object('x')));
        CObList after;
        Fill(after, c.list);
        made = after.InsertAfter(after.FindIndex(c.index), Object('x'));
        EXPECT_EQ(Names(after), c.after);
        EXPECT_EQ(made, after.Find(Object('x')));
    }
}

TEST(ObList, Positions_stay_valid_when_others_are_added_and_removed) {
    CObList list;
    Fill(list, "abc");
    const POSITION b = list.FindIndex(1);
    list.InsertBefore(b, Object('x'));
    list.InsertAfter(b, Object('y'));
    list.RemoveHead();
    list.RemoveTail();
    EXPECT_EQ(Names(list), "xby");
    EXPECT_EQ(list.GetAt(b), Object('b'));
    EXPECT_EQ(list.FindIndex(1), b);
}

// -- Removing

TEST(ObList, RemoveHead_returns_the_first_element) {
    CObList list;
    Fill(list, "abc");
    EXPECT_EQ(list.RemoveHead(), Object('a'));
    EXPECT_EQ(Names(list), "bc");
    EXPECT_EQ(list.RemoveHead(), Object('b'));
    EXPECT_EQ(list.RemoveHead(), Object('c'));
    EXPECT_EQ(Names(list), "");
}

TEST(ObList, RemoveTail_returns_the_last_element) {
    CObList list;
    Fill(list, "abc");
    EXPECT_EQ(list.RemoveTail(), Object('c'));
    EXPECT_EQ(Names(list), "ab");
    EXPECT_EQ(list.RemoveTail(), Object('b'));
    EXPECT_EQ(list.RemoveTail(), Object('a'));
    EXPECT_EQ(Names(list), "");
}

TEST(ObList, RemoveAt_repairs_the_links_at_every_place) {
    const struct {
        const char* list;
        int index;
        const char* left;
    } cases[] = {{"a", 0, ""},     {"ab", 0, "b"},   {"ab", 1, "a"},
                 {"abc", 0, "bc"}, {"abc", 1, "ac"}, {"abc", 2, "ab"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d", c.list, c.index));
        CObList list;
        Fill(list, c.list);
        list.RemoveAt(list.FindIndex(c.index));
        EXPECT_EQ(Names(list), c.left);
    }
}

TEST(ObList, Removing_the_only_element_leaves_an_empty_list) {
    const std::function<void(CObList&)> removals[] = {
        [](CObList& list) { list.RemoveHead(); }, [](CObList& list) { list.RemoveTail(); },
        [](CObList& list) { list.RemoveAt(list.GetHeadPosition()); },
        [](CObList& list) { list.RemoveAll(); }};
    for (const auto& removal : removals) {
        CObList list;
        Fill(list, "a");
        removal(list);
        EXPECT_EQ(list.m_pNodeHead, nullptr);
        EXPECT_EQ(list.m_pNodeTail, nullptr);
        EXPECT_EQ(list.m_nCount, 0);
        Fill(list, "b");
        EXPECT_EQ(Names(list), "b") << "and it can be used again";
    }
}

TEST(ObList, RemoveAll_frees_every_node) {
    CObList list;
    AllocationCounter counter;
    Fill(list, "abc");
    const int before = counter.Balance();
    list.RemoveAll();
    const int after = counter.Balance();
    EXPECT_EQ(before, 3);
    EXPECT_EQ(after, 0);
    EXPECT_EQ(Names(list), "");
    list.RemoveAll();
    EXPECT_EQ(Names(list), "");
}

TEST(ObList, RemoveAll_goes_from_the_head_onwards) {
    CObList list;
    Fill(list, "abc");
    list.m_pNodeTail->pPrev = NULL; // no way back from the tail
    AllocationCounter counter;
    list.RemoveAll();
    EXPECT_EQ(counter.Deletes(), 3);
    EXPECT_EQ(Names(list), "");
}

TEST(ObList, Destructor_frees_every_node) {
    AllocationCounter counter;
    int held;
    {
        CObList list;
        Fill(list, "abc");
        held = counter.Balance();
    }
    const int left = counter.Balance();
    EXPECT_EQ(held, 3);
    EXPECT_EQ(left, 0);
}

TEST(ObList, Objects_are_never_deleted_or_touched) {
    alignas(CObject) unsigned char storage[sizeof(CObject)] = {0xAB};
    const auto object = reinterpret_cast<CObject*>(storage); // no object at all
    {
        CObList list;
        list.AddTail(object);
        list.AddTail(object);
        list.RemoveHead();
        list.RemoveAt(list.GetHeadPosition());
        list.AddHead(object);
        list.RemoveAll();
        list.AddHead(object);
    }
    EXPECT_EQ(storage[0], 0xAB);
}

// -- Searching

TEST(ObList, Find_returns_the_first_match_from_the_start_point_on) {
    CObList list;
    Fill(list, "abcba");
    const struct {
        char name;
        int start; // -1: from the head
        int found; // -1: none
    } cases[] = {{'a', -1, 0}, {'b', -1, 1}, {'c', -1, 2}, {'x', -1, -1}, {'a', 0, 0},  {'a', 1, 4},
                 {'b', 1, 1},  {'b', 2, 3},  {'b', 3, 3},  {'b', 4, -1},  {'c', 3, -1}, {'a', 4, 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("%c from %d", c.name, c.start));
        EXPECT_EQ(list.Find(Object(c.name), list.FindIndex(c.start)), list.FindIndex(c.found));
    }
    EXPECT_EQ(list.Find(Object('b')), list.FindIndex(1)) << "from the head by default";
}

TEST(ObList, Find_returns_its_start_point_when_that_matches) {
    CObList list;
    Fill(list, "aa");
    const POSITION second = list.FindIndex(1);
    EXPECT_EQ(list.Find(Object('a'), second), second);
}

TEST(ObList, Find_compares_addresses) {
    CObList list;
    CObject a = {'a'};
    CObject alike = {'a'};
    list.AddTail(&a);
    EXPECT_EQ(list.Find(&alike), POSITION());
    EXPECT_EQ(list.Find(&a), list.GetHeadPosition());
}

TEST(ObList, FindIndex_counts_from_the_head) {
    CObList list;
    Fill(list, "abc");
    EXPECT_EQ(list.FindIndex(0), list.GetHeadPosition());
    EXPECT_EQ(list.GetAt(list.FindIndex(1)), Object('b'));
    EXPECT_EQ(list.FindIndex(list.GetCount() - 1), list.GetTailPosition());
}

TEST(ObList, FindIndex_of_no_element_is_no_position) {
    CObList list;
    Fill(list, "abc");
    for (int index : {INT_MIN, -1, 3, 4, INT_MAX}) {
        SCOPED_TRACE(index);
        EXPECT_EQ(list.FindIndex(index), POSITION());
    }
}

// -- Nodes

TEST(ObList, NewNode_counts_a_node_and_links_nothing_to_it) {
    CObList list;
    Fill(list, "ab");
    CObList::CNode* a = list.m_pNodeHead;
    CObList::CNode* b = list.m_pNodeTail;
    CObList::CNode* node = list.NewNode(a, b, Object('x'));
    EXPECT_EQ(node->pPrev, a);
    EXPECT_EQ(node->pNext, b);
    EXPECT_EQ(node->data, Object('x'));
    EXPECT_EQ(list.m_nCount, 3);
    EXPECT_EQ(list.m_pNodeHead, a);
    EXPECT_EQ(list.m_pNodeTail, b);
    EXPECT_EQ(a->pNext, b);
    EXPECT_EQ(b->pPrev, a);
    list.DeleteNode(node);
    EXPECT_EQ(Names(list), "ab");
}

TEST(ObList, DeleteNode_frees_a_node_and_counts_it_out) {
    CObList list;
    CObList::CNode* node = list.NewNode(NULL, NULL, Object('x'));
    EXPECT_EQ(list.m_nCount, 1);
    AllocationCounter counter;
    list.DeleteNode(node);
    EXPECT_EQ(counter.Deletes(), 1);
    EXPECT_EQ(list.m_nCount, 0);
}

// -- Without memory

TEST(ObList, Adding_an_element_without_memory_throws_and_changes_nothing) {
    const struct {
        const char* name;
        std::function<void(CObList&)> add;
    } cases[] = {
        {"AddHead", [](CObList& list) { list.AddHead(Object('x')); }},
        {"AddTail", [](CObList& list) { list.AddTail(Object('x')); }},
        {"InsertBefore", [](CObList& list) { list.InsertBefore(list.FindIndex(1), Object('x')); }},
        {"InsertBefore the head", [](CObList& list) { list.InsertBefore(list.FindIndex(0), Object('x')); }},
        {"InsertBefore no position", [](CObList& list) { list.InsertBefore(NULL, Object('x')); }},
        {"InsertAfter", [](CObList& list) { list.InsertAfter(list.FindIndex(0), Object('x')); }},
        {"InsertAfter the tail", [](CObList& list) { list.InsertAfter(list.FindIndex(1), Object('x')); }},
        {"InsertAfter no position", [](CObList& list) { list.InsertAfter(NULL, Object('x')); }},
        {"NewNode", [](CObList& list) { list.NewNode(NULL, NULL, Object('x')); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const char* names : {"", "ab"}) {
            CObList list;
            Fill(list, names);
            if (list.IsEmpty() && strstr(c.name, " the "))
                continue;
            const Attempt attempt = Without(FailAllocation::OnlyNew, [&] { c.add(list); });
            EXPECT_EQ(attempt.outcome, "bad_alloc");
            EXPECT_EQ(attempt.balance, 0);
            EXPECT_EQ(Names(list), names);
        }
    }
}

TEST(ObList, A_list_that_runs_out_of_memory_keeps_the_elements_added_so_far) {
    CObList other;
    Fill(other, "abc");
    CObList list;
    Fill(list, "x");
    EXPECT_EQ(Without(
                  FailAllocation::OnlyNew, [&] { list.AddTail(&other); }, 3)
                  .outcome,
              "bad_alloc");
    EXPECT_EQ(Names(list), "xab");
    EXPECT_EQ(Without(
                  FailAllocation::OnlyNew, [&] { list.AddHead(&other); }, 3)
                  .outcome,
              "bad_alloc");
    EXPECT_EQ(Names(list), "bcxab");
    EXPECT_EQ(Names(other), "abc");
}
