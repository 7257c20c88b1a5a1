// The array of pointers: its two sizes, its growth, and the element that takes what is stored at a bad index.
#include <Windows/PtrArray.h>

#include <limits.h>
#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
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

namespace {

static_assert(!std::is_polymorphic<CPtrArray>::value, "nothing virtual");
static_assert(!std::is_copy_constructible<CPtrArray>::value, "two arrays would own the same storage");
static_assert(!std::is_copy_assignable<CPtrArray>::value, "two arrays would own the same storage");
static_assert(std::is_same<decltype(std::declval<CPtrArray&>()[0]), void*&>::value, "");
static_assert(std::is_same<decltype(std::declval<const CPtrArray&>()[0]), void*>::value, "");
static_assert(std::is_same<decltype(std::declval<CPtrArray&>().ElementAt(0)), void*&>::value, "");
static_assert(std::is_same<decltype(std::declval<const CPtrArray&>().GetAt(0)), void*>::value, "");
static_assert(std::is_same<decltype(std::declval<CPtrArray&>().GetData()), void**>::value, "");
static_assert(std::is_same<decltype(std::declval<const CPtrArray&>().GetData()), void* const*>::value, "");

// All arrays of the process share the element for bad indexes: each case begins and ends with it NULL.
// Nothing is written beforehand, so that a case in a process of its own sees it as it was loaded.
class PtrArray : public testing::Test {
protected:
    void TearDown() override { CPtrArray()[0] = NULL; }
};

// Something to point to, by name.
void* Pointer(char name) {
    static char objects[256];
    return &objects[static_cast<unsigned char>(name)];
}

void Fill(CPtrArray& array, const std::string& names) {
    for (char name : names)
        array.Add(Pointer(name));
}

// The names of the elements; '.' for NULL.
std::string Names(const CPtrArray& array) {
    std::string names;
    for (int i = 0; i < array.GetSize(); i++)
        names +=
            array.GetAt(i)
                ? static_cast<char>(static_cast<char*>(array.GetAt(i)) - static_cast<char*>(Pointer('\0')))
                : '.';
    return names;
}

std::string State(const CPtrArray& array) {
    return Text("%s size %d room %d step %d", array.m_pData ? "storage" : "nothing", array.m_nSize,
                array.m_nMaxSize, array.m_nGrowBy);
}

const char NEW[] = "nothing size -1 room -1 step 16";

// Indexes outside an array of size elements.
std::vector<int> BadIndexes(int size) { return {INT_MIN, -2, -1, size, size + 1, 15, 16, 17, INT_MAX}; }

// Arrays in which no index is good, though not all look like it.
void ForEachArrayWithoutElements(const std::function<void(CPtrArray&)>& function) {
    {
        SCOPED_TRACE("new");
        CPtrArray array;
        function(array);
    }
    {
        SCOPED_TRACE("room, but no elements");
        CPtrArray array;
        array.SetSize(10, 16);
        function(array);
    }
    {
        SCOPED_TRACE("elements, but no storage");
        CPtrArray array;
        array.m_nSize = 4;
        array.m_nMaxSize = 8;
        function(array);
    }
    {
        SCOPED_TRACE("storage of no elements");
        CPtrArray array;
        array.Grow(0);
        function(array);
    }
}

} // namespace

// -- Data model

TEST_F(PtrArray, Has_its_fields_in_order) {
    EXPECT_EQ(offsetof(CPtrArray, m_pData), 0U);
    EXPECT_EQ(offsetof(CPtrArray, m_nMaxSize), sizeof(void*));
    EXPECT_EQ(offsetof(CPtrArray, m_nSize), sizeof(void*) + 4);
    EXPECT_EQ(offsetof(CPtrArray, m_nGrowBy), sizeof(void*) + 8);
    static_assert(std::is_same<decltype(CPtrArray::m_pData), void**>::value, "");
    static_assert(std::is_same<decltype(CPtrArray::m_nMaxSize), int>::value, "");
    static_assert(std::is_same<decltype(CPtrArray::m_nSize), int>::value, "");
    static_assert(std::is_same<decltype(CPtrArray::m_nGrowBy), int>::value, "");
}

TEST_F(PtrArray, Constructor_sets_all_fields) {
    alignas(CPtrArray) unsigned char storage[sizeof(CPtrArray)];
    memset(storage, 0xAB, sizeof storage);
    CPtrArray* array = new (storage) CPtrArray;
    EXPECT_EQ(State(*array), NEW);
    array->~CPtrArray();
}

TEST_F(PtrArray, Is_empty_at_first) {
    CPtrArray array;
    EXPECT_EQ(array.GetSize(), 0);
    EXPECT_EQ(array.GetUpperBound(), -1);
    EXPECT_EQ(array.GetCount(), 0);
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(array.GetAt(0), nullptr);
    EXPECT_EQ(array.GetData(), nullptr);
    EXPECT_EQ(State(array), NEW) << "nor does looking at it allocate";
}

TEST_F(PtrArray, Takes_no_locks_and_posts_nothing) {
    Recorder::Clear();
    CallLog log({Call::MutexInit, Call::MutexLock, Call::MutexTrylock});
    {
        CPtrArray array;
        Fill(array, "abcdefghijklmnopq");
        array.SetSize(100, 16);
        array[7] = array[200];
        array.RemoveAll();
    }
    EXPECT_EQ(log.Texts(), std::vector<std::string>());
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

// -- Sizes

TEST_F(PtrArray, GetSize_is_the_number_of_elements) {
    CPtrArray filled;
    Fill(filled, "abc");
    const CPtrArray& array = filled;
    EXPECT_EQ(filled.GetSize(), 3);
    EXPECT_EQ(filled.GetUpperBound(), 2);
    EXPECT_EQ(array.GetSize(), 3);
    EXPECT_EQ(array.GetCount(), 3);
    EXPECT_FALSE(array.IsEmpty());
    EXPECT_EQ(array.GetUpperBound(), 2);
}

TEST_F(PtrArray, GetSize_of_any_negative_size_is_0) {
    for (int size : {-1, -2, INT_MIN}) {
        SCOPED_TRACE(size);
        CPtrArray array;
        array.m_nSize = size;
        EXPECT_EQ(array.GetSize(), 0);
        EXPECT_EQ(array.GetUpperBound(), -1);
        EXPECT_EQ(const_cast<const CPtrArray&>(array).GetCount(), 0);
    }
}

// -- Elements

TEST_F(PtrArray, Elements_are_read_by_index) {
    CPtrArray filled;
    Fill(filled, "abc");
    const CPtrArray& array = filled;
    for (int i = 0; i < 3; i++) {
        SCOPED_TRACE(i);
        void* const expected = Pointer(static_cast<char>('a' + i));
        EXPECT_EQ(filled.GetAt(i), expected);
        EXPECT_EQ(array.GetAt(i), expected);
        EXPECT_EQ(filled[i], expected);
        EXPECT_EQ(array[i], expected);
        EXPECT_EQ(filled.ElementAt(i), expected);
        EXPECT_EQ(filled.GetData()[i], expected);
        EXPECT_EQ(array.GetData()[i], expected);
    }
}

TEST_F(PtrArray, Elements_are_written_by_index) {
    CPtrArray array;
    Fill(array, "abcd");
    array.SetAt(0, Pointer('w'));
    array[1] = Pointer('x');
    array.ElementAt(2) = Pointer('y');
    array.GetData()[3] = Pointer('z');
    EXPECT_EQ(Names(array), "wxyz");
    array.SetAt(0, NULL);
    EXPECT_EQ(Names(array), ".xyz");
}

TEST_F(PtrArray, Reading_a_bad_index_gives_null) {
    CPtrArray filled;
    Fill(filled, "abc");
    filled[-1] = Pointer('s'); // which the others must not see
    const CPtrArray& array = filled;
    for (int index : BadIndexes(3)) {
        SCOPED_TRACE(index);
        EXPECT_EQ(filled.GetAt(index), nullptr);
        EXPECT_EQ(array.GetAt(index), nullptr);
        EXPECT_EQ(array[index], nullptr);
    }
}

TEST_F(PtrArray, Setting_a_bad_index_does_nothing) {
    CPtrArray array;
    Fill(array, "abc");
    for (int i = 3; i < 16; i++)
        array.m_pData[i] = Pointer('-');
    for (int index : BadIndexes(3)) {
        SCOPED_TRACE(index);
        array.SetAt(index, Pointer('x'));
    }
    EXPECT_EQ(Names(array), "abc");
    EXPECT_EQ(array[3], nullptr) << "nor is the shared element written";
    for (int i = 3; i < 16; i++)
        EXPECT_EQ(array.m_pData[i], Pointer('-')) << i;
}

TEST_F(PtrArray, Without_elements_every_index_is_bad) {
    CPtrArray()[0] = Pointer('s');
    ForEachArrayWithoutElements([](CPtrArray& array) {
        const std::string before = State(array);
        for (int index : {-1, 0, 1, 3}) {
            SCOPED_TRACE(index);
            EXPECT_EQ(array.GetAt(index), nullptr);
            EXPECT_EQ(const_cast<const CPtrArray&>(array)[index], nullptr);
            EXPECT_EQ(array[index], Pointer('s'));
            EXPECT_EQ(&array[index], &CPtrArray()[0]);
            array.SetAt(index, Pointer('x'));
            EXPECT_EQ(State(array), before);
        }
    });
}

// -- The element for bad indexes

TEST_F(PtrArray, Shared_element_is_null_at_first) {
    EXPECT_EXIT(_exit(CPtrArray()[5] == NULL ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(PtrArray, What_is_written_to_one_bad_index_is_read_from_another) {
    CPtrArray array;
    array[5] = Pointer('x');
    EXPECT_EQ(array[7], Pointer('x'));
    EXPECT_EQ(State(array), NEW);
}

TEST_F(PtrArray, All_bad_indexes_of_all_arrays_are_one_element) {
    CPtrArray a;
    CPtrArray b;
    Fill(b, "abc");
    void** const shared = &a[0];
    for (int index : BadIndexes(3)) {
        SCOPED_TRACE(index);
        EXPECT_EQ(&a[index], shared);
        EXPECT_EQ(&b[index], shared);
        EXPECT_EQ(&b.ElementAt(index), shared);
    }
    b[3] = Pointer('x');
    EXPECT_EQ(a[0], Pointer('x'));
    EXPECT_EQ(Names(b), "abc");
    EXPECT_EQ(b.GetSize(), 3);
}

TEST_F(PtrArray, Shared_element_outlives_the_arrays) {
    CPtrArray()[0] = Pointer('x');
    EXPECT_EQ(CPtrArray()[0], Pointer('x'));
}

// -- Add

TEST_F(PtrArray, First_element_makes_room_for_16) {
    CPtrArray array;
    CallLog log({Call::ArrayNew, Call::New, Call::Malloc});
    EXPECT_EQ(array.Add(Pointer('a')), 0);
    const std::vector<std::string> seen = log.Texts();
    EXPECT_EQ(seen, (std::vector<std::string>{Text("operator new[](%zu)", 16 * sizeof(void*))}));
    EXPECT_EQ(State(array), "storage size 1 room 16 step 16");
    EXPECT_EQ(array.GetAt(0), Pointer('a'));
}

TEST_F(PtrArray, Add_returns_the_index_and_grows_when_the_room_is_used_up) {
    CPtrArray array;
    for (int i = 0; i < 40; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(array.Add(Pointer('a')), i);
        EXPECT_EQ(State(array), Text("storage size %d room %d step 16", i + 1,
                                     i < 16   ? 16
                                     : i < 32 ? 32
                                              : 48));
    }
}

TEST_F(PtrArray, Seventeenth_element_keeps_those_before_it) {
    CPtrArray array;
    Fill(array, "abcdefghijklmnopq");
    EXPECT_EQ(array.m_nMaxSize, 32);
    EXPECT_EQ(Names(array), "abcdefghijklmnopq");
}

TEST_F(PtrArray, Add_grows_by_the_step) {
    CPtrArray array;
    array.m_nGrowBy = 3;
    Fill(array, "a");
    EXPECT_EQ(State(array), "storage size 1 room 3 step 3");
    Fill(array, "bcd");
    EXPECT_EQ(State(array), "storage size 4 room 6 step 3");
}

TEST_F(PtrArray, Add_stores_null_too) {
    CPtrArray array;
    EXPECT_EQ(array.Add(NULL), 0);
    EXPECT_EQ(array.Add(Pointer('a')), 1);
    EXPECT_EQ(Names(array), ".a");
}

TEST_F(PtrArray, Add_of_its_own_element_is_safe_while_it_grows) {
    CPtrArray array;
    Fill(array, "abcdefghijklmnop");
    EXPECT_EQ(array.Add(array[3]), 16);
    EXPECT_EQ(Names(array), "abcdefghijklmnopd");
}

TEST_F(PtrArray, Add_without_storage_returns_0_and_stores_nothing) {
    CPtrArray array;
    array.m_nSize = 1;
    array.m_nMaxSize = 8;
    EXPECT_EQ(array.Add(Pointer('a')), 0);
    EXPECT_EQ(State(array), "nothing size 1 room 8 step 16");
}

TEST_F(PtrArray, Add_with_a_size_of_minus_1_returns_0_and_stores_nothing) {
    CPtrArray array;
    array.Grow(16);
    array.m_pData[0] = Pointer('-');
    array.m_nSize = -1;
    EXPECT_EQ(array.Add(Pointer('a')), 0);
    EXPECT_EQ(State(array), "storage size -1 room 16 step 16");
    EXPECT_EQ(array.m_pData[0], Pointer('-'));
}

// -- Grow

TEST_F(PtrArray, Grow_makes_room_and_no_elements) {
    const struct {
        int first;
        int room;
    } cases[] = {{-1, 16}, {0, 0}, {1, 1}, {16, 16}, {1000, 1000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        CPtrArray array;
        CallLog log({Call::ArrayNew, Call::ArrayDelete});
        EXPECT_TRUE(array.Grow(c.first));
        const auto bytes = static_cast<size_t>(c.room) * sizeof(void*);
        EXPECT_EQ(log.Texts()[0], Text("operator new[](%zu)", bytes));
        EXPECT_EQ(State(array), Text("storage size 0 room %d step 16", c.room));
        EXPECT_EQ(array.GetSize(), 0);
    }
}

TEST_F(PtrArray, Grow_to_what_there_is_or_less_fails_and_changes_nothing) {
    CPtrArray array;
    EXPECT_FALSE(array.Grow(-2));
    EXPECT_FALSE(array.Grow(INT_MIN));
    EXPECT_EQ(State(array), NEW);
    Fill(array, "abc");
    void** const data = array.m_pData;
    for (int room : {INT_MIN, -2, 0, 1, 3, 15, 16}) {
        SCOPED_TRACE(room);
        EXPECT_FALSE(array.Grow(room));
        EXPECT_EQ(State(array), "storage size 3 room 16 step 16");
        EXPECT_EQ(array.m_pData, data);
    }
    EXPECT_TRUE(array.Grow(17));
    EXPECT_EQ(State(array), "storage size 3 room 17 step 16");
}

TEST_F(PtrArray, Grow_by_the_step_adds_to_the_room) {
    CPtrArray array;
    array.m_nGrowBy = 5;
    EXPECT_TRUE(array.Grow(-1));
    EXPECT_EQ(State(array), "storage size 0 room 5 step 5");
    array.m_nGrowBy = 7;
    EXPECT_TRUE(array.Grow(-1));
    EXPECT_EQ(State(array), "storage size 0 room 12 step 7");
}

TEST_F(PtrArray, Grow_copies_all_of_the_old_room_and_frees_it) {
    CPtrArray array;
    Fill(array, "ab");
    for (int i = 2; i < 16; i++)
        array.m_pData[i] = Pointer('-');
    AllocationCounter counter;
    const bool result = array.Grow(17);
    EXPECT_EQ(counter.ArrayNews(), 1);
    EXPECT_EQ(counter.ArrayDeletes(), 1);
    EXPECT_TRUE(result);
    EXPECT_EQ(Names(array), "ab");
    for (int i = 2; i < 16; i++)
        EXPECT_EQ(array.m_pData[i], Pointer('-')) << i;
}

TEST_F(PtrArray, Add_works_after_Grow_to_0) {
    CPtrArray array;
    array.Grow(0);
    EXPECT_EQ(array.Add(Pointer('a')), 0);
    EXPECT_EQ(State(array), "storage size 1 room 16 step 16");
    EXPECT_EQ(Names(array), "a");
}

// -- SetSize

TEST_F(PtrArray, SetSize_makes_room_up_to_the_next_multiple_and_no_elements) {
    const struct {
        int size;
        int growBy;
        int room; // -1: nothing happens
    } cases[] = {
        {10, 16, 16},
        {0, 16, 16},
        {15, 16, 16},
        {16, 16, 32},
        {17, 16, 32},
        {5, 100, 100},
        {5, 1, 6},
        {7, 2, 8},
        {8, 2, 10},
        // One less than was asked for.
        {10, -1, 9},
        {2, -1, 1},
        {1, -1, 0},
        // Room for -1 means that of the step.
        {0, -1, 16},
        {10, -3, 6},
        {1, -5, -1},
        // A step of 0 has no multiples.
        {10, 0, -1},
        {0, 0, -1},
        // Not above the size, which is -1.
        {-1, 16, -1},
        {-5, 16, -1},
        {INT_MIN, -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("SetSize(%d, %d)", c.size, c.growBy));
        CPtrArray array;
        array.SetSize(c.size, c.growBy);
        EXPECT_EQ(State(array), c.room < 0 ? NEW : Text("storage size 0 room %d step 16", c.room));
        EXPECT_EQ(array.GetSize(), 0);
    }
}

TEST_F(PtrArray, SetSize_goes_by_16_when_not_told) {
    CPtrArray array;
    array.m_nGrowBy = 5;
    array.SetSize(20);
    EXPECT_EQ(State(array), "storage size 0 room 32 step 5");
}

TEST_F(PtrArray, SetSize_never_shrinks) {
    CPtrArray array;
    Fill(array, "abcd");
    void** const data = array.m_pData;
    const struct {
        int size;
        int growBy;
    } cases[] = {{4, 100}, {3, 100}, {0, 16}, {-1, 16}, {INT_MIN, 16}, {5, 5}, {5, -1}, {15, 16}, {100, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("SetSize(%d, %d)", c.size, c.growBy));
        array.SetSize(c.size, c.growBy);
        EXPECT_EQ(State(array), "storage size 4 room 16 step 16");
        EXPECT_EQ(array.m_pData, data);
        EXPECT_EQ(Names(array), "abcd");
    }
}

TEST_F(PtrArray, SetSize_of_a_full_array_grows_like_Add) {
    CPtrArray array;
    Fill(array, "abcdefghijklmnop");
    array.SetSize(17, -1); // room for 16, which there is
    EXPECT_EQ(array.m_nMaxSize, 16);
    array.SetSize(17, 16);
    EXPECT_EQ(State(array), "storage size 16 room 32 step 16");
    EXPECT_EQ(Names(array), "abcdefghijklmnop");
}

TEST_F(PtrArray, SetAt_stores_nothing_in_room_that_SetSize_made) {
    CPtrArray array;
    array.SetSize(10, 16);
    array.SetAt(0, Pointer('a'));
    EXPECT_EQ(array.GetAt(0), nullptr);
    EXPECT_EQ(array.GetSize(), 0);
    EXPECT_EQ(array.Add(Pointer('b')), 0);
    EXPECT_EQ(array.GetAt(0), Pointer('b'));
}

// -- RemoveAll and destruction

TEST_F(PtrArray, RemoveAll_makes_it_a_new_array) {
    CPtrArray array;
    array.m_nGrowBy = 5;
    AllocationCounter counter;
    Fill(array, "abcdef");
    array.RemoveAll();
    const int balance = counter.Balance();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(State(array), NEW);
    EXPECT_EQ(array.Add(Pointer('a')), 0);
    EXPECT_EQ(State(array), "storage size 1 room 16 step 16");
}

TEST_F(PtrArray, RemoveAll_of_a_new_array_does_nothing) {
    CPtrArray array;
    array.RemoveAll();
    array.RemoveAll();
    EXPECT_EQ(State(array), NEW);
}

TEST_F(PtrArray, Destructor_frees_the_storage) {
    AllocationCounter counter;
    int held;
    {
        CPtrArray array;
        Fill(array, "abcdefghijklmnopq");
        held = counter.Balance();
    }
    const int left = counter.Balance();
    EXPECT_EQ(held, 1);
    EXPECT_EQ(left, 0);
}

TEST_F(PtrArray, What_the_elements_point_to_is_never_freed) {
    AllocationCounter counter;
    int* const number = new int(7);
    {
        CPtrArray array;
        array.Add(number);
        array.RemoveAll();
        array.Add(number);
        array.RemoveAt(0);
        array.Add(number);
    }
    EXPECT_EQ(counter.Deletes(), 0);
    EXPECT_EQ(*number, 7);
    delete number;
}

// -- Without memory

TEST_F(PtrArray, Growing_without_memory_throws_and_changes_nothing) {
    const struct {
        const char* name;
        std::function<void(CPtrArray&)> grow;
    } cases[] = {
        {"Add", [](CPtrArray& array) { array.Add(Pointer('x')); }},
        {"Grow(-1)", [](CPtrArray& array) { array.Grow(-1); }},
        {"Grow(100)", [](CPtrArray& array) { array.Grow(100); }},
        {"SetSize", [](CPtrArray& array) { array.SetSize(100, 16); }},
        {"SetAtGrow", [](CPtrArray& array) { array.SetAtGrow(16, Pointer('x')); }},
        {"InsertAt", [](CPtrArray& array) { array.InsertAt(0, Pointer('x')); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const char* names : {"", "abcdefghijklmnop"}) {
            SCOPED_TRACE(names);
            CPtrArray array;
            Fill(array, names);
            const std::string before = State(array);
            void** const data = array.m_pData;
            const Attempt attempt = Without(FailAllocation::OnlyNew, [&] { c.grow(array); });
            EXPECT_EQ(attempt.outcome, "bad_alloc");
            EXPECT_EQ(attempt.balance, 0);
            EXPECT_EQ(State(array), before);
            EXPECT_EQ(array.m_pData, data);
            EXPECT_EQ(Names(array), names);
        }
    }
}

// -- SetAtGrow, InsertAt, RemoveAt

TEST_F(PtrArray, SetAtGrow_adds_nulls_up_to_the_index) {
    const struct {
        const char* before;
        int index;
        const char* after;
    } cases[] = {
        {"", 0, "x"},
        {"", 3, "...x"},
        {"abc", 0, "xbc"},
        {"abc", 2, "abx"},
        {"abc", 3, "abcx"},
        {"abc", 5, "abc..x"},
        {"abc", -1, "abc"},
        {"", INT_MIN, ""},
        {"abcdefghijklmnop", 16, "abcdefghijklmnopx"},
        {"abc", 20, "abc.................x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d", c.before, c.index));
        CPtrArray array;
        Fill(array, c.before);
        array.SetAtGrow(c.index, Pointer('x'));
        EXPECT_EQ(Names(array), c.after);
        EXPECT_EQ(CPtrArray()[0], nullptr) << "the shared element was written";
    }
}

TEST_F(PtrArray, SetAtGrow_keeps_the_step) {
    CPtrArray array;
    array.m_nGrowBy = 4;
    array.SetAtGrow(9, Pointer('x'));
    EXPECT_EQ(State(array), "storage size 10 room 12 step 4");
}

TEST_F(PtrArray, InsertAt_moves_up_what_is_behind) {
    const struct {
        const char* before;
        int index;
        int count;
        const char* after;
    } cases[] = {
        {"", 0, 1, "x"},
        {"", 2, 2, "..xx"},
        {"abc", 0, 1, "xabc"},
        {"abc", 1, 2, "axxbc"},
        {"abc", 2, 1, "abxc"},
        {"abc", 3, 1, "abcx"},
        {"abc", 5, 1, "abc..x"},
        {"abc", 1, 0, "abc"},
        {"abc", 1, -1, "abc"},
        {"abc", -1, 1, "abc"},
        {"", INT_MIN, 1, ""},
        {"abc", INT_MIN, 1, "abc"},
        {"ab", 1, 20, "axxxxxxxxxxxxxxxxxxxxb"},
        {"abcdefghijklmnop", 1, 1, "axbcdefghijklmnop"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d, %d times", c.before, c.index, c.count));
        CPtrArray array;
        Fill(array, c.before);
        array.InsertAt(c.index, Pointer('x'), c.count);
        EXPECT_EQ(Names(array), c.after);
        EXPECT_EQ(CPtrArray()[0], nullptr) << "the shared element was written";
    }
}

TEST_F(PtrArray, InsertAt_inserts_once_when_not_told) {
    CPtrArray array;
    Fill(array, "ab");
    array.InsertAt(1, Pointer('x'));
    EXPECT_EQ(Names(array), "axb");
}

TEST_F(PtrArray, InsertAt_takes_an_element_of_the_array_itself) {
    CPtrArray array;
    Fill(array, "abcdefghijklmnop");
    array.InsertAt(0, array[15], 2);
    EXPECT_EQ(Names(array), "ppabcdefghijklmnop");
}

TEST_F(PtrArray, RemoveAt_moves_down_what_is_behind) {
    const struct {
        const char* before;
        int index;
        int count;
        const char* after;
    } cases[] = {
        {"abcd", 0, 1, "bcd"},        {"abcd", 3, 1, "abc"},
        {"abcd", 1, 2, "ad"},         {"abcd", 0, 4, ""},
        {"abcd", 2, 3, "ab"},         {"abcd", 1, INT_MAX, "a"},
        {"abcd", 1, 0, "abcd"},       {"abcd", 1, -1, "abcd"},
        {"abcd", 1, INT_MIN, "abcd"}, {"abcd", -1, 2, "abcd"},
        {"abcd", INT_MIN, 2, "abcd"}, {"abcd", 4, 1, "abcd"},
        {"abcd", INT_MAX, 1, "abcd"}, {"", 0, 1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d, %d elements", c.before, c.index, c.count));
        CPtrArray array;
        Fill(array, c.before);
        const int room = array.m_nMaxSize;
        array.RemoveAt(c.index, c.count);
        EXPECT_EQ(Names(array), c.after);
        EXPECT_EQ(array.m_nMaxSize, room);
    }
}

TEST_F(PtrArray, RemoveAt_removes_one_when_not_told) {
    CPtrArray array;
    Fill(array, "abc");
    array.RemoveAt(1);
    EXPECT_EQ(Names(array), "ac");
    EXPECT_EQ(array.Add(Pointer('d')), 2);
    EXPECT_EQ(Names(array), "acd");
}
