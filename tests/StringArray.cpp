// The array of strings: its elements and the headers they share, its growth, its lock, and its assertions.
#include <Windows/StringArray.h>

#include <limits.h>
#include <pthread.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/internal/Capacity.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"
#include "support/text.h"

namespace {

static_assert(!std::is_polymorphic<CStringArray>::value, "nothing virtual");
static_assert(!std::is_copy_constructible<CStringArray>::value, "it contains a lock");
static_assert(!std::is_copy_assignable<CStringArray>::value, "it contains a lock");
// Copies come out, also of an array that is not const: a reference would escape the lock.
static_assert(std::is_same<decltype(std::declval<CStringArray&>()[0]), const XString>::value, "");
static_assert(std::is_same<decltype(std::declval<const CStringArray&>()[0]), const XString>::value, "");
static_assert(std::is_same<decltype(std::declval<const CStringArray&>().GetAt(0)), const XString>::value, "");

// Each case leaves as many strings and headers as there were.
class StringArray : public testing::Test {
protected:
    StringArray() : m_strings(XString::m_iObjCount), m_headers(XStringData::m_iObjCount) {}

    void TearDown() override {
        EXPECT_EQ(XString::m_iObjCount, m_strings) << "strings are left, or released too often";
        EXPECT_EQ(XStringData::m_iObjCount, m_headers) << "headers are left, or released too often";
    }

private:
    int m_strings;
    int m_headers;
};

XStringData* Header(const CStringArray& array, int index) { return array.m_pData[index].m_pStrData; }

void Fill(CStringArray& array, const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
        array.Add(text.c_str());
}

const std::vector<std::string> ABC = {"a", "b", "c"};

// The texts of the elements, without the lock.
std::vector<std::string> Texts(const CStringArray& array) {
    std::vector<std::string> texts;
    for (int i = 0; i < array.m_nSize; i++)
        texts.emplace_back(array.m_pData[i].GetLength() > 0 ? static_cast<const char*>(array.m_pData[i])
                                                            : "");
    return texts;
}

std::string Sizes(const CStringArray& array) {
    return Text("%s size %d room %d step %d", array.m_pData ? "storage" : "nothing", array.m_nSize,
                array.m_nMaxSize, array.m_nGrowBy);
}

// Whether a slot, in use or not, holds this very string.
bool Holds(const CStringArray& array, const XString& s) {
    for (int i = 0; i < array.m_nMaxSize; i++)
        if (Header(array, i) == s.m_pStrData)
            return true;
    return false;
}

// All there is to see: sizes, and of each slot, in use or not, the text, the header and its references.
std::string State(const CStringArray& array) {
    std::string state = Sizes(array);
    for (int i = 0; i < array.m_nMaxSize; i++)
        state += Text(" %d:%p/%d", i, static_cast<void*>(Header(array, i)), Header(array, i)->m_iRefCount);
    for (const std::string& text : Texts(array))
        state += " " + text;
    return state;
}

// The recorded events in one word: "lL" is a lock without limit, called and granted, "uU" an unlock, called
// and done, "c" and "C" the beginning and end of a mutex's construction. All of them on this thread; anything
// else is a '?'.
std::string Trace() {
    const auto self = static_cast<unsigned long>(pthread_self());
    const std::pair<char, ExpectedEvent> known[] = {
        {'l',
         {23, 8,
          Text("CMutex::Lock Being Called with a %lu millisecond timeout on thread %lx", 0xFFFFFFFFUL,
               self)}},
        {'L', {23, 9, Text("CMutex::Lock returning true thread %lx", self)}},
        {'u', {23, 8, Text("CMutex::UnLock Being Called on thread %lx", self)}},
        {'U', {23, 9, Text("CMutex::Unlock succeeeded on thread %lx", self)}},
        {'c', {23, 9, Text("CMutex Creator Called on thread %lx", self)}},
        {'C', {23, 9, Text("CMutex Creator exiting on thread %lx", self)}},
    };
    std::string trace;
    for (const Event& event : Recorder::AllEvents()) {
        const auto match = std::find_if(std::begin(known), std::end(known),
                                        [&](const auto& k) { return k.second.Matches(event); });
        trace += match == std::end(known) ? '?' : match->first;
    }
    return trace;
}

std::string TraceOf(const std::function<void()>& operation) {
    Recorder::Clear();
    operation();
    return Trace();
}

// Whether another thread can have the mutex.
bool IsFree(CMutex& mutex) {
    bool free = false;
    Background thread([&] { free = mutex.Lock(0) == 1 && mutex.Unlock() == 1; });
    EXPECT_TRUE(thread.Join());
    return free;
}

// Writes the events so far to standard error, now and after each further one.
class Tracer {
public:
    Tracer() : m_hook([](const Event&) { Tell(); }) {
        Recorder::Clear();
        Tell();
    }

private:
    static void Tell() { fprintf(stderr, "trace '%s'\n", Trace().c_str()); }

    Recorder::Hook m_hook;
};

// The last trace in front of a failed assertion.
std::string LastTrace(const std::string& trace) { return "trace '" + trace + "'\n[^\n]*"; }

std::string Assertion(const std::string& expression, int line, const std::string& function) {
    return AssertionRegex("Windows/StringArray", line, function, expression);
}

const std::string READ_ASSERTION =
    Assertion("nIndex >= 0 && nIndex < m_nSize", 32, "const XString CStringArray::operator[](int) const");
const std::string MODIFY_ASSERTION =
    Assertion("nIndex >= 0 && nIndex < m_nSize", 49, "void CStringArray::ModifyAt(int, const XString&)");
const std::string SIZE_ASSERTION = Assertion("nNewSize >= 0", 72, "void CStringArray::SetSize(int, int)");
const std::string ROOM_ASSERTION =
    Assertion("nNewMax >= m_nMaxSize", 142, "void CStringArray::SetSize(int, int)");
const std::string GROWTH_ASSERTION =
    Assertion("nNewSize > m_nSize", 149, "void CStringArray::SetSize(int, int)");
const std::string GROW_INDEX_ASSERTION =
    Assertion("nIndex >= 0", 161, "void CStringArray::SetAtGrow(int, const XString&)");

} // namespace

// -- Data model

TEST_F(StringArray, Has_its_lock_and_its_fields_in_order) {
    EXPECT_EQ(offsetof(CStringArray, m_mutex), 0U);
    EXPECT_EQ(offsetof(CStringArray, m_pData), sizeof(CMutex));
    EXPECT_EQ(offsetof(CStringArray, m_nSize), sizeof(CMutex) + sizeof(void*));
    EXPECT_EQ(offsetof(CStringArray, m_nMaxSize), sizeof(CMutex) + sizeof(void*) + 4);
    EXPECT_EQ(offsetof(CStringArray, m_nGrowBy), sizeof(CMutex) + sizeof(void*) + 8);
    static_assert(std::is_same<decltype(CStringArray::m_pData), XString*>::value, "");
    static_assert(std::is_same<decltype(CStringArray::m_nSize), int>::value, "");
    static_assert(std::is_same<decltype(CStringArray::m_nMaxSize), int>::value, "");
    static_assert(std::is_same<decltype(CStringArray::m_nGrowBy), int>::value, "");
}

TEST_F(StringArray, Constructor_sets_all_fields) {
    alignas(CStringArray) unsigned char storage[sizeof(CStringArray)];
    memset(storage, 0xAB, sizeof storage);
    CStringArray* array = new (storage) CStringArray;
    EXPECT_EQ(Sizes(*array), "nothing size 0 room 0 step 0");
    array->~CStringArray();
}

TEST_F(StringArray, Constructor_makes_a_recursive_lock_that_is_free) {
    CallLog log({Call::MutexattrSettype, Call::MutexInit, Call::MutexLock});
    CStringArray array;
    EXPECT_EQ(log.Texts(),
              (std::vector<std::string>{"pthread_mutexattr_settype(1)", "pthread_mutex_init()"}));
    EXPECT_TRUE(IsFree(array.m_mutex));
}

TEST_F(StringArray, Constructor_posts_two_events) {
    std::unique_ptr<CStringArray> array;
    EXPECT_EQ(TraceOf([&] { array = std::make_unique<CStringArray>(); }), "cC");
}

TEST_F(StringArray, Is_empty_at_first) {
    const CStringArray array;
    EXPECT_EQ(array.GetSize(), 0);
    EXPECT_EQ(array.GetCount(), 0);
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(array.GetUpperBound(), -1);
}

TEST_F(StringArray, Sizes_follow_the_elements) {
    CStringArray array;
    Fill(array, ABC);
    EXPECT_EQ(array.GetSize(), 3);
    EXPECT_EQ(array.GetCount(), 3);
    EXPECT_FALSE(array.IsEmpty());
    EXPECT_EQ(array.GetUpperBound(), 2);
}

// -- Reading

TEST_F(StringArray, An_element_comes_out_as_a_copy_that_shares_its_header) {
    CStringArray array;
    Fill(array, ABC);
    const XString b = array[1];
    EXPECT_STREQ(b, "b");
    EXPECT_EQ(b.m_pStrData, Header(array, 1));
    EXPECT_EQ(b.m_pStrData->m_iRefCount, 2);
    const XString c = array.GetAt(2);
    EXPECT_STREQ(c, "c");
    EXPECT_EQ(c.m_pStrData, Header(array, 2));
}

TEST_F(StringArray, A_copy_outlives_the_array) {
    XString copy;
    {
        CStringArray array;
        Fill(array, ABC);
        copy = array[1];
    }
    EXPECT_STREQ(copy, "b");
    EXPECT_EQ(copy.m_pStrData->m_iRefCount, 1);
}

TEST_F(StringArray, A_character_appended_to_a_copy_appears_in_the_element) {
    CStringArray array;
    Fill(array, ABC);
    XString copy = array[1];
    copy += 'x';
    EXPECT_EQ(Texts(array)[1], "bx");
    copy += "y";
    EXPECT_EQ(Texts(array)[1], "bx");
}

TEST_F(StringArray, A_copy_of_an_empty_element_can_be_formatted) {
    CStringArray array;
    array.SetSize(3);
    array.SetSize(1);
    array.SetSize(3);
    XString copy = array[2];
    copy.Format("%d", 7);
    EXPECT_STREQ(copy, "7");
    EXPECT_EQ(Texts(array), std::vector<std::string>(3));
}

// -- Storing

TEST_F(StringArray, Storing_shares_the_header_and_releases_the_old_one) {
    const std::pair<const char*, std::function<void(CStringArray&, const XString&)>> stores[] = {
        {"ModifyAt", [](CStringArray& array, const XString& s) { array.ModifyAt(1, s); }},
        {"SetAt", [](CStringArray& array, const XString& s) { array.SetAt(1, s); }},
        {"SetAtGrow", [](CStringArray& array, const XString& s) { array.SetAtGrow(1, s); }},
    };
    for (const auto& store : stores) {
        SCOPED_TRACE(store.first);
        CStringArray array;
        Fill(array, ABC);
        const XString old = array[1];
        const XString s("x");
        store.second(array, s);
        EXPECT_EQ(Texts(array), (std::vector<std::string>{"a", "x", "c"}));
        EXPECT_EQ(Header(array, 1), s.m_pStrData);
        EXPECT_EQ(s.m_pStrData->m_iRefCount, 2);
        EXPECT_EQ(old.m_pStrData->m_iRefCount, 1);
    }
}

TEST_F(StringArray, An_element_may_be_stored_in_its_own_place) {
    CStringArray array;
    Fill(array, ABC);
    array.ModifyAt(1, array.m_pData[1]);
    array.SetAtGrow(1, array.m_pData[1]);
    EXPECT_EQ(Texts(array), ABC);
    EXPECT_EQ(Header(array, 1)->m_iRefCount, 1);
    array.ModifyAt(0, array[1]);
    EXPECT_EQ(Texts(array), (std::vector<std::string>{"b", "b", "c"}));
    EXPECT_EQ(Header(array, 1)->m_iRefCount, 2);
}

TEST_F(StringArray, Add_appends_and_returns_the_index) {
    CStringArray array;
    const XString s("x");
    for (int i = 0; i < 5; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(array.Add(s), i);
        EXPECT_EQ(array.GetSize(), i + 1);
        EXPECT_EQ(Header(array, i), s.m_pStrData);
        EXPECT_EQ(s.m_pStrData->m_iRefCount, i + 2);
    }
}

TEST_F(StringArray, Add_makes_room_for_one_element_and_then_for_1024_more) {
    CStringArray array;
    array.Add("a");
    EXPECT_EQ(Sizes(array), "storage size 1 room 1 step 0");
    array.Add("b");
    EXPECT_EQ(Sizes(array), "storage size 2 room 1025 step 0");
    EXPECT_EQ(Texts(array), (std::vector<std::string>{"a", "b"}));
}

TEST_F(StringArray, Add_takes_an_element_of_the_array_itself) {
    CStringArray array;
    array.SetSize(0, 2);
    Fill(array, {"a"});
    for (int i = 0; i < 4; i++) // with and without growth
        array.Add(array[0]);
    EXPECT_EQ(Texts(array), std::vector<std::string>(5, "a"));
    EXPECT_EQ(Header(array, 0)->m_iRefCount, 5);
}

TEST_F(StringArray, A_reference_to_an_element_may_be_added_while_the_array_grows) {
    const auto add = [] {
        CStringArray array;
        array.Add("a");
        array.Add(array.m_pData[0]);
        array.SetAtGrow(1100, array.m_pData[0]);
        _exit(Texts(array)[1] == "a" && Texts(array)[1100] == "a" && Header(array, 0)->m_iRefCount == 3 ? 0
                                                                                                        : 1);
    };
    EXPECT_EXIT(add(), testing::ExitedWithCode(0), "");
}

TEST_F(StringArray, SetAtGrow_beyond_the_end_adds_empty_elements) {
    const struct {
        int size;
        int index;
        int newSize;
    } cases[] = {{0, 3, 4}, {0, 0, 1}, {3, 3, 4}, {3, 6, 7}, {3, 2, 3}, {3, 0, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("index %d of %d", c.index, c.size));
        CStringArray array;
        std::vector<std::string> expected(ABC.begin(), ABC.begin() + c.size);
        Fill(array, expected);
        array.SetAtGrow(c.index, "x");
        expected.resize(static_cast<size_t>(c.newSize));
        expected[static_cast<size_t>(c.index)] = "x";
        EXPECT_EQ(Texts(array), expected);
    }
}

TEST_F(StringArray, SetAtGrow_keeps_the_step) {
    CStringArray array;
    array.SetSize(1, 4);
    array.SetAtGrow(1, "x");
    EXPECT_EQ(Sizes(array), "storage size 2 room 5 step 4");
}

// -- SetSize

TEST_F(StringArray, First_elements_get_exact_room_and_headers_of_their_own) {
    CStringArray array;
    CallLog log({Call::ArrayNew});
    array.SetSize(3, -1);
    // With the count of elements in front of them.
    EXPECT_EQ(log.Texts(),
              (std::vector<std::string>{Text("operator new[](%zu)", sizeof(size_t) + 3 * sizeof(XString))}));
    EXPECT_EQ(Sizes(array), "storage size 3 room 3 step 0");
    EXPECT_EQ(Texts(array), std::vector<std::string>(3));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(Header(array, i)->m_iRefCount, 1) << i;
        EXPECT_EQ(Header(array, i)->m_pszData, nullptr) << i;
    }
}

TEST_F(StringArray, First_elements_get_exact_room_whatever_the_step) {
    CStringArray array;
    array.SetSize(3, 16);
    EXPECT_EQ(Sizes(array), "storage size 3 room 3 step 16");
}

TEST_F(StringArray, Step_is_kept_unless_it_is_minus_1) {
    const struct {
        int growBy;
        int step;
    } cases[] = {{-1, 0}, {7, 7}, {-1, 7}, {0, 0}, {-5, -5}, {-1, -5}, {INT_MAX, INT_MAX}};
    CStringArray array;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.growBy);
        for (int size : {2, 1, 2, 2, 0}) {
            array.SetSize(size, c.growBy);
            EXPECT_EQ(array.m_nGrowBy, c.step);
            EXPECT_EQ(array.m_nSize, size);
        }
    }
}

TEST_F(StringArray, Step_is_left_alone_when_not_told) {
    CStringArray array;
    array.SetSize(2, 7);
    array.SetSize(1);
    array.RemoveAll();
    EXPECT_EQ(Sizes(array), "nothing size 0 room 0 step 7");
}

TEST_F(StringArray, Shrinking_releases_the_texts_and_keeps_the_slots) {
    CStringArray array;
    Fill(array, {"a", "b", "c", "d"});
    XString* const data = array.m_pData;
    const XString dropped = array[2];
    XStringData* const kept = Header(array, 0);
    array.SetSize(1);
    EXPECT_EQ(Sizes(array), "storage size 1 room 1025 step 0");
    EXPECT_EQ(array.m_pData, data);
    EXPECT_EQ(Header(array, 0), kept);
    EXPECT_EQ(dropped.m_pStrData->m_iRefCount, 1);
    EXPECT_EQ(Header(array, 1)->m_iRefCount, 3) << "the dropped slots share one header";
    EXPECT_EQ(Header(array, 2), Header(array, 1));
    EXPECT_EQ(Header(array, 3), Header(array, 1));
    EXPECT_EQ(Header(array, 1)->m_pszData, nullptr);
    EXPECT_EQ(Header(array, 4)->m_iRefCount, 1) << "those behind them do not";
}

TEST_F(StringArray, Elements_added_within_the_room_share_one_new_empty_header) {
    CStringArray array;
    Fill(array, {"a", "b", "c", "d"});
    array.SetSize(1);
    const XString before = array.m_pData[1];
    array.SetSize(3);
    EXPECT_EQ(Sizes(array), "storage size 3 room 1025 step 0");
    EXPECT_EQ(Texts(array), (std::vector<std::string>{"a", "", ""}));
    EXPECT_NE(Header(array, 1), before.m_pStrData);
    EXPECT_EQ(Header(array, 2), Header(array, 1));
    EXPECT_EQ(Header(array, 1)->m_iRefCount, 2);
    EXPECT_EQ(Header(array, 3), before.m_pStrData) << "slots beyond the size are left alone";
    EXPECT_EQ(before.m_pStrData->m_iRefCount, 2);
}

TEST_F(StringArray, Size_may_become_all_of_the_room) {
    CStringArray array;
    array.SetSize(2, 3);
    array.SetSize(3);
    EXPECT_EQ(Sizes(array), "storage size 3 room 5 step 3");
    XString* const data = array.m_pData;
    array.SetSize(5);
    EXPECT_EQ(Sizes(array), "storage size 5 room 5 step 3");
    EXPECT_EQ(array.m_pData, data);
}

TEST_F(StringArray, SetSize_to_the_present_size_changes_nothing) {
    CStringArray array;
    Fill(array, ABC);
    const std::string before = State(array);
    array.SetSize(3);
    EXPECT_EQ(State(array), before);
}

TEST_F(StringArray, SetSize_to_0_frees_everything) {
    CStringArray array;
    Recorder::Pause(); // its strings would count
    AllocationCounter counter;
    array.SetSize(5);
    array.SetSize(0);
    const int balance = counter.Balance();
    Recorder::Resume();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(Sizes(array), "nothing size 0 room 0 step 0");
    array.SetSize(0);
    EXPECT_EQ(Sizes(array), "nothing size 0 room 0 step 0");
    EXPECT_EQ(array.Add("a"), 0);
    EXPECT_EQ(Sizes(array), "storage size 1 room 1 step 0");
}

TEST_F(StringArray, RemoveAll_frees_everything_but_keeps_the_step) {
    CStringArray array;
    array.SetSize(2, 16);
    const XString s("x");
    array.Add(s);
    array.RemoveAll();
    EXPECT_EQ(Sizes(array), "nothing size 0 room 0 step 16");
    EXPECT_EQ(s.m_pStrData->m_iRefCount, 1);
    array.RemoveAll();
    EXPECT_EQ(Sizes(array), "nothing size 0 room 0 step 16");
}

// -- Growth

TEST_F(StringArray, Room_grows_by_a_step_at_least) {
    const struct {
        int first;
        int step;
        int between; // another size in between, if not 0
        int size;
        int room;
    } cases[] = {
        // 1,024 without a step.
        {1, 0, 0, 2, 1025},
        {10, 0, 0, 11, 1034},
        {10, 0, 0, 1033, 1034},
        {10, 0, 0, 1034, 1034},
        {10, 0, 0, 5000, 5000},
        {8191, 0, 0, 8192, 9215},
        // An eighth of the size, from 8,192 elements on.
        {8192, 0, 0, 8193, 9216},
        {8199, 0, 0, 8200, 9223},
        {8200, 0, 0, 8201, 9225},
        {16000, 0, 0, 16001, 18000},
        // Of the size and not of the room.
        {16000, 0, 9000, 16001, 17125},
        {16000, 0, 100, 16001, 17024},
        // A step of its own, however large the array is.
        {10, 4, 0, 11, 14},
        {10, 4, 0, 13, 14},
        {10, 4, 0, 14, 14},
        {10, 4, 0, 20, 20},
        {10, 1, 0, 11, 11},
        {16000, 4, 0, 16001, 16004},
        // One that does not help.
        {10, -5, 0, 11, 11},
        {10, INT_MAX, 0, 11, 11},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("from %d to %d by %d", c.first, c.size, c.step));
        CStringArray array;
        array.SetSize(c.first, c.step);
        if (c.between > 0)
            array.SetSize(c.between);
        array.SetSize(c.size);
        EXPECT_EQ(Sizes(array), Text("storage size %d room %d step %d", c.size, c.room, c.step));
    }
}

TEST_F(StringArray, A_step_counts_for_the_growth_it_comes_with) {
    CStringArray array;
    array.SetSize(10, 4);
    array.SetSize(11, 20);
    EXPECT_EQ(Sizes(array), "storage size 11 room 30 step 20");
}

TEST_F(StringArray, Elements_keep_their_headers_when_the_array_grows) {
    CStringArray array;
    array.SetSize(0, 4);
    array.SetSize(3);
    for (int i = 0; i < 3; i++)
        array.ModifyAt(i, ABC[static_cast<size_t>(i)].c_str());
    const XStringData* const headers[] = {Header(array, 0), Header(array, 1), Header(array, 2)};
    array.SetSize(5);
    EXPECT_EQ(Sizes(array), "storage size 5 room 7 step 4");
    EXPECT_EQ(Texts(array), (std::vector<std::string>{"a", "b", "c", "", ""}));
    for (int i = 0; i < 7; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(Header(array, i)->m_iRefCount, 1) << "nor does any slot share the header of another";
        if (i < 3) {
            EXPECT_EQ(Header(array, i), headers[i]);
        }
    }
}

TEST_F(StringArray, Growth_frees_the_old_storage) {
    CStringArray array;
    array.SetSize(3, 2);
    AllocationCounter counter;
    array.SetSize(4);
    EXPECT_EQ(counter.ArrayNews(), 1);
    EXPECT_EQ(counter.ArrayDeletes(), 1);
}

TEST_F(StringArray, Slots_beyond_the_size_do_not_survive_growth) {
    CStringArray array;
    Fill(array, ABC);
    array.SetSize(1);
    array.m_pData[2] = "left behind";
    array.SetSize(1100);
    EXPECT_EQ(Texts(array)[0], "a");
    EXPECT_EQ(Texts(array)[2], "");
}

// -- Order of destruction

// How an array of own and shared strings in turns is seen at each release of an own one: the numbers of
// references that the shared ones have then.
std::vector<std::string> SharesAtEachRelease(const std::function<void(std::unique_ptr<CStringArray>&)>& end) {
    const XString second("second");
    const XString fourth("fourth");
    auto array = std::make_unique<CStringArray>();
    array->Add("first");
    array->Add(second);
    array->Add("third");
    array->Add(fourth);
    std::vector<std::string> seen;
    {
        Interpose release(Call::Delete);
        release.OnThisThread().Always().Before([&] {
            seen.push_back(Text("%d %d", second.m_pStrData->m_iRefCount, fourth.m_pStrData->m_iRefCount));
        });
        end(array);
    }
    // Those of the slots behind the elements, which came first, and of the array itself.
    while (!seen.empty() && seen.front() == "2 2")
        seen.erase(seen.begin());
    seen.resize(std::min<size_t>(seen.size(), 2));
    return seen;
}

TEST_F(StringArray, Elements_are_destroyed_from_last_to_first) {
    const std::pair<const char*, std::function<void(std::unique_ptr<CStringArray>&)>> ends[] = {
        {"destructor", [](std::unique_ptr<CStringArray>& array) { array.reset(); }},
        {"SetSize", [](std::unique_ptr<CStringArray>& array) { array->SetSize(0); }},
        {"RemoveAll", [](std::unique_ptr<CStringArray>& array) { array->RemoveAll(); }},
    };
    for (const auto& end : ends) {
        SCOPED_TRACE(end.first);
        EXPECT_EQ(SharesAtEachRelease(end.second), (std::vector<std::string>{"2 1", "1 1"}));
    }
}

// -- The lock

TEST_F(StringArray, Each_operation_locks_as_often_as_it_always_has) {
    const struct {
        const char* name;
        std::function<void(CStringArray&)> operation;
        const char* trace;
    } cases[] = {
        {"GetSize", [](CStringArray& array) { array.GetSize(); }, ""},
        {"GetCount", [](CStringArray& array) { array.GetCount(); }, ""},
        {"IsEmpty", [](CStringArray& array) { (void)array.IsEmpty(); }, ""},
        {"GetUpperBound", [](CStringArray& array) { array.GetUpperBound(); }, ""},
        {"operator[]", [](CStringArray& array) { array[1]; }, "lLuU"},
        {"GetAt", [](CStringArray& array) { array.GetAt(1); }, "lLuU"},
        {"ModifyAt", [](CStringArray& array) { array.ModifyAt(1, "x"); }, "lLuU"},
        {"SetAt", [](CStringArray& array) { array.SetAt(1, "x"); }, "lLuU"},
        {"SetAtGrow of an element", [](CStringArray& array) { array.SetAtGrow(2, "x"); }, ""},
        {"SetAtGrow within the room", [](CStringArray& array) { array.SetAtGrow(3, "x"); }, "lLuU"},
        {"SetAtGrow beyond the room", [](CStringArray& array) { array.SetAtGrow(9, "x"); }, "lLuU"},
        {"Add within the room", [](CStringArray& array) { array.Add("x"); }, "lLlLuUuU"},
        {"Add beyond the room",
         [](CStringArray& array) {
             array.SetSize(5);
             Recorder::Clear();
             array.Add("x");
         },
         "lLlLuUuU"},
        {"SetSize to 0", [](CStringArray& array) { array.SetSize(0); }, "lLuU"},
        {"SetSize to less", [](CStringArray& array) { array.SetSize(1); }, "lLuU"},
        {"SetSize to the same", [](CStringArray& array) { array.SetSize(3); }, "lLuU"},
        {"SetSize within the room", [](CStringArray& array) { array.SetSize(4); }, "lLuU"},
        {"SetSize beyond the room", [](CStringArray& array) { array.SetSize(9); }, "lLuU"},
        {"RemoveAll", [](CStringArray& array) { array.RemoveAll(); }, "lLuU"},
        {"InsertAt", [](CStringArray& array) { array.InsertAt(0, "x"); }, "lLlLuUuU"},
        {"InsertAt nothing", [](CStringArray& array) { array.InsertAt(0, "x", 0); }, "lLuU"},
        {"RemoveAt", [](CStringArray& array) { array.RemoveAt(0); }, "lLlLuUuU"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CStringArray array;
        array.SetSize(3, 2);
        array.SetSize(5);
        array.SetSize(3);
        EXPECT_EQ(TraceOf([&] { c.operation(array); }), c.trace);
        EXPECT_TRUE(IsFree(array.m_mutex));
    }
}

TEST_F(StringArray, First_element_is_added_under_two_holds_too) {
    CStringArray array;
    EXPECT_EQ(TraceOf([&] { array.Add("x"); }), "lLlLuUuU");
}

TEST_F(StringArray, Destructor_locks_once) {
    for (int size : {0, 3}) {
        SCOPED_TRACE(size);
        auto array = std::make_unique<CStringArray>();
        array->SetSize(size);
        EXPECT_EQ(TraceOf([&] { array.reset(); }), "lLuU");
    }
}

// Runs an operation and tells at each event in it whether the array held the string.
std::vector<bool> HeldAtEachEvent(CStringArray& array, const XString& s,
                                  const std::function<void()>& operation) {
    std::vector<bool> held;
    Recorder::Hook hook([&](const Event&) { held.push_back(Holds(array, s)); });
    operation();
    return held;
}

TEST_F(StringArray, ModifyAt_stores_under_the_lock) {
    CStringArray array;
    Fill(array, ABC);
    const XString s("x");
    EXPECT_EQ(HeldAtEachEvent(array, s, [&] { array.ModifyAt(1, s); }),
              (std::vector<bool>{false, false, true, true}));
}

TEST_F(StringArray, Add_stores_between_its_two_unlocks) {
    CStringArray array;
    const XString s("x");
    EXPECT_EQ(HeldAtEachEvent(array, s, [&] { array.Add(s); }),
              (std::vector<bool>{false, false, false, false, false, false, true, true}));
}

TEST_F(StringArray, SetAtGrow_stores_after_SetSize_has_unlocked) {
    CStringArray array;
    const XString s("x");
    EXPECT_EQ(HeldAtEachEvent(array, s, [&] { array.SetAtGrow(0, s); }), std::vector<bool>(4, false));
    EXPECT_TRUE(Holds(array, s));
}

TEST_F(StringArray, SetSize_works_under_the_lock) {
    for (int size : {0, 1, 4, 9}) { // nothing, less, within the room, beyond it
        SCOPED_TRACE(size);
        CStringArray array;
        array.m_nGrowBy = 2;
        Fill(array, ABC);
        const std::string before = State(array);
        std::vector<std::string> seen; // at each event
        {
            Recorder::Hook hook([&](const Event&) { seen.push_back(State(array)); });
            array.SetSize(size);
        }
        const std::string after = State(array);
        EXPECT_NE(before, after);
        ASSERT_EQ(seen.size(), 4U);
        EXPECT_EQ(seen[1], before) << "the lock is granted";
        // Not the references: the empty string that slots share may have an owner in the operation still.
        const std::string sizes = Sizes(array);
        EXPECT_EQ(seen[2].substr(0, sizes.size()), sizes) << "the unlock begins";
    }
}

TEST_F(StringArray, An_element_is_copied_under_the_lock) {
    CStringArray array;
    const XString s("x");
    array.Add(s);
    std::vector<int> references; // at each event
    {
        Recorder::Hook hook([&](const Event&) { references.push_back(s.m_pStrData->m_iRefCount); });
        array[0];
    }
    EXPECT_EQ(references, (std::vector<int>{2, 2, 3, 3}));
}

TEST_F(StringArray, Destructor_destroys_the_elements_under_the_lock) {
    const XString s("x");
    alignas(CStringArray) unsigned char storage[sizeof(CStringArray)];
    CStringArray* array = new (storage) CStringArray;
    array->Add(s);
    std::vector<std::string> seen; // at each event
    CallLog log({Call::MutexLock, Call::MutexUnlock, Call::ArrayDelete});
    {
        Recorder::Hook hook([&](const Event&) {
            seen.push_back(Text("%s %d", array->m_pData ? "storage" : "nothing", s.m_pStrData->m_iRefCount));
        });
        array->~CStringArray();
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"storage 2", "storage 2", "nothing 1", "nothing 1"}));
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"pthread_mutex_lock()", "operator delete[]()",
                                                     "pthread_mutex_unlock()"}));
}

TEST_F(StringArray, Whoever_holds_the_lock_may_use_the_array) {
    CStringArray array;
    {
        CSingleLock lock(&array.m_mutex);
        array.Add("a");
        array.ModifyAt(0, array[0]);
        array.SetSize(2);
        EXPECT_FALSE(IsFree(array.m_mutex));
        array.RemoveAll();
    }
    EXPECT_TRUE(IsFree(array.m_mutex));
}

TEST_F(StringArray, An_operation_waits_for_the_lock_and_the_sizes_do_not) {
    CStringArray array;
    Fill(array, ABC);
    array.m_mutex.Lock(0xFFFFFFFFUL);
    CallLog log({Call::MutexLock}, CallLog::AllThreads);
    int sizeSeen = -1;
    int indexSeen = -1;
    Background adder([&] {
        sizeSeen = array.GetSize();
        indexSeen = array.Add("d");
    });
    EXPECT_TRUE(log.WaitFor(Call::MutexLock));
    EXPECT_EQ(array.GetSize(), 3);
    array.SetSize(1);
    EXPECT_FALSE(adder.Ended());
    array.m_mutex.Unlock();
    EXPECT_TRUE(adder.Join());
    EXPECT_EQ(sizeSeen, 3);
    EXPECT_EQ(indexSeen, 1);
    EXPECT_EQ(Texts(array), (std::vector<std::string>{"a", "d"}));
}

TEST_F(StringArray, Two_threads_add_to_one_array) {
    const int count = 3000;
    std::vector<XString> strings[2];
    for (int t = 0; t < 2; t++)
        for (int i = 0; i < count; i++)
            strings[t].emplace_back(Text("%d %d", t, i).c_str());
    std::vector<int> indexes[2];
    CStringArray array;
    Recorder::Pause();
    {
        const auto add = [&](int t) {
            for (const XString& s : strings[t])
                indexes[t].push_back(array.Add(s));
        };
        Background first([&] { add(0); });
        Background second([&] { add(1); });
        EXPECT_TRUE(first.Join());
        EXPECT_TRUE(second.Join());
    }
    Recorder::Resume();
    ASSERT_EQ(array.GetSize(), 2 * count);
    std::set<int> used;
    for (int t = 0; t < 2; t++)
        for (size_t i = 0; i < indexes[t].size(); i++) {
            used.insert(indexes[t][i]);
            ASSERT_EQ(Header(array, indexes[t][i]), strings[t][i].m_pStrData) << t << " " << i;
            ASSERT_EQ(strings[t][i].m_pStrData->m_iRefCount, 2) << t << " " << i;
        }
    EXPECT_EQ(used.size(), 2U * count);
}

TEST_F(StringArray, One_thread_reads_while_another_adds_and_replaces) {
    const XString a("a");
    const XString b("b");
    CStringArray array;
    array.Add(a);
    Recorder::Pause();
    int others = 0;
    {
        Background writer([&] {
            for (int i = 0; i < 2000; i++) {
                array.ModifyAt(0, i % 2 ? a : b);
                array.Add(b);
            }
        });
        Background reader([&] {
            for (int i = 0; i < 2000; i++) {
                const XString s = array[array.GetUpperBound() * (i % 2)];
                others += s != "a" && s != "b";
            }
        });
        EXPECT_TRUE(writer.Join());
        EXPECT_TRUE(reader.Join());
    }
    Recorder::Resume();
    EXPECT_EQ(others, 0);
    EXPECT_EQ(array.GetSize(), 2001);
    EXPECT_EQ(a.m_pStrData->m_iRefCount + b.m_pStrData->m_iRefCount, 2 + 2001);
}

// -- Assertions

TEST_F(StringArray, Reading_a_bad_index_aborts) {
    CStringArray array;
    array.SetSize(4);
    array.SetSize(3); // there is a slot at 3, but no element
    for (int index : {INT_MIN, -1, 3, 4, INT_MAX}) {
        SCOPED_TRACE(index);
        EXPECT_DEATH(array[index], READ_ASSERTION);
    }
    EXPECT_DEATH(array.GetAt(-1), READ_ASSERTION);
}

TEST_F(StringArray, Reading_an_empty_array_aborts) {
    const CStringArray array;
    EXPECT_DEATH(array[0], READ_ASSERTION);
    EXPECT_DEATH(array[-1], READ_ASSERTION);
}

TEST_F(StringArray, Replacing_at_a_bad_index_aborts) {
    CStringArray array;
    array.SetSize(4);
    array.SetSize(3);
    for (int index : {INT_MIN, -1, 3, 4, INT_MAX}) {
        SCOPED_TRACE(index);
        EXPECT_DEATH(array.ModifyAt(index, "x"), MODIFY_ASSERTION);
    }
    EXPECT_DEATH(array.SetAt(-1, "x"), MODIFY_ASSERTION);
    EXPECT_DEATH(CStringArray().ModifyAt(0, "x"), MODIFY_ASSERTION);
}

TEST_F(StringArray, A_bad_index_aborts_under_the_lock) {
    CStringArray array;
    array.SetSize(3);
    EXPECT_DEATH(
        {
            const Tracer tracer;
            array[3];
        },
        LastTrace("lL") + READ_ASSERTION);
    EXPECT_DEATH(
        {
            const Tracer tracer;
            array.ModifyAt(3, "x");
        },
        LastTrace("lL") + MODIFY_ASSERTION);
}

TEST_F(StringArray, A_negative_size_aborts) {
    CStringArray array;
    EXPECT_DEATH(array.SetSize(-1), SIZE_ASSERTION);
    EXPECT_DEATH(array.SetSize(INT_MIN, 5), SIZE_ASSERTION);
    array.SetSize(3);
    EXPECT_DEATH(array.SetSize(-1, -1), SIZE_ASSERTION);
}

TEST_F(StringArray, SetAtGrow_of_a_negative_index_aborts_without_the_lock) {
    CStringArray array;
    array.SetSize(3);
    for (int index : {-1, INT_MIN}) {
        SCOPED_TRACE(index);
        EXPECT_DEATH(
            {
                const Tracer tracer;
                array.SetAtGrow(index, "x");
            },
            LastTrace("") + GROW_INDEX_ASSERTION);
    }
}

TEST_F(StringArray, A_size_beyond_the_room_but_not_beyond_the_elements_aborts) {
    CStringArray array;
    array.SetSize(5);
    array.m_nMaxSize = 2; // as only a damaged array has it
    EXPECT_DEATH(array.SetSize(4), GROWTH_ASSERTION);
    EXPECT_DEATH(array.SetSize(5), GROWTH_ASSERTION);
    array.m_nMaxSize = 5;
}

// SetSize cannot bring this about: it grows to a size above its room, and the new room is at least that.
TEST_F(StringArray, Room_that_would_shrink_aborts) {
    EXPECT_DEATH(windows::GrownCapacity(5, 10, -100), ROOM_ASSERTION);
    EXPECT_DEATH(windows::GrownCapacity(9, 10, INT_MAX), ROOM_ASSERTION);
}

TEST_F(StringArray, New_room_is_a_step_more_or_what_is_needed) {
    const struct {
        int newSize;
        int maxSize;
        int step;
        int room;
    } cases[] = {{11, 10, 4, 14},    {13, 10, 4, 14},          {14, 10, 4, 14}, {15, 10, 4, 15},
                 {11, 10, 0, 11},    {11, 10, -5, 11},         {10, 10, 0, 10}, {11, 10, INT_MAX, 11},
                 {1, 0, 1024, 1024}, {INT_MAX, 10, 4, INT_MAX}};
    for (const auto& c : cases)
        EXPECT_EQ(windows::GrownCapacity(c.newSize, c.maxSize, c.step), c.room)
            << c.newSize << " " << c.maxSize << " " << c.step;
}

// -- Without memory

TEST_F(StringArray, Without_memory_an_operation_throws_and_the_array_is_as_it_was) {
    const struct {
        const char* name;
        int size;
        std::function<void(CStringArray&, const XString&)> operation;
    } cases[] = {
        {"first elements", 0, [](CStringArray& array, const XString&) { array.SetSize(3); }},
        {"first Add", 0, [](CStringArray& array, const XString& s) { array.Add(s); }},
        {"less", 3, [](CStringArray& array, const XString&) { array.SetSize(1); }},
        {"more within the room", 3, [](CStringArray& array, const XString&) { array.SetSize(5); }},
        {"more than the room", 5, [](CStringArray& array, const XString&) { array.SetSize(6); }},
        {"Add within the room", 3, [](CStringArray& array, const XString& s) { array.Add(s); }},
        {"Add beyond the room", 5, [](CStringArray& array, const XString& s) { array.Add(s); }},
        {"SetAtGrow", 5, [](CStringArray& array, const XString& s) { array.SetAtGrow(7, s); }},
        {"InsertAt", 5, [](CStringArray& array, const XString& s) { array.InsertAt(1, s, 2); }},
        {"less by one", 5, [](CStringArray& array, const XString&) { array.SetSize(4); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int n = 0;
        for (bool happened = true; happened;) {
            SCOPED_TRACE(++n);
            const XString s("x");
            CStringArray array;
            array.m_nGrowBy = 2;
            for (int i = 0; i < c.size; i++) // room 5 after the third
                array.Add(Text("%d", i).c_str());
            const std::string before = State(array);
            const XString* const data = array.m_pData;
            const int strings = XString::m_iObjCount;
            const int headers = XStringData::m_iObjCount;
            bool thrown = false;
            Recorder::Pause(); // its strings would count
            AllocationCounter counter;
            FailAllocation fail(n, FailAllocation::OnlyNew);
            try {
                c.operation(array, s);
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            fail.Stop();
            const int balance = counter.Balance();
            happened = fail.Happened();
            Recorder::Resume();
            EXPECT_EQ(thrown, happened);
            EXPECT_TRUE(IsFree(array.m_mutex));
            if (happened) {
                EXPECT_EQ(balance, 0);
                EXPECT_EQ(State(array), before);
                EXPECT_EQ(array.m_pData, data);
                EXPECT_EQ(XString::m_iObjCount, strings);
                EXPECT_EQ(XStringData::m_iObjCount, headers);
                EXPECT_EQ(s.m_pStrData->m_iRefCount, 1);
            }
        }
        EXPECT_GT(n, 1) << "it allocates nothing";
    }
}

TEST_F(StringArray, Storing_and_reading_allocate_nothing) {
    CStringArray array;
    Fill(array, ABC);
    const XString s("x");
    Recorder::Pause(); // its strings would count
    AllocationCounter counter;
    array.ModifyAt(0, s);
    array.SetAtGrow(1, s);
    array[2];
    EXPECT_EQ(counter.Allocations(), 0);
    Recorder::Resume();
}

// -- InsertAt, RemoveAt

// A text for each character; "." for an empty one.
std::vector<std::string> Split(const std::string& names) {
    std::vector<std::string> texts;
    for (char name : names)
        texts.emplace_back(name == '.' ? "" : std::string(1, name));
    return texts;
}

TEST_F(StringArray, InsertAt_moves_up_what_is_behind) {
    const struct {
        const char* before;
        int index;
        int count;
        const char* after;
    } cases[] = {
        {"", 0, 1, "x"},       {"", 2, 2, "..xx"},    {"abc", 0, 1, "xabc"},   {"abc", 1, 2, "axxbc"},
        {"abc", 2, 1, "abxc"}, {"abc", 3, 1, "abcx"}, {"abc", 5, 1, "abc..x"}, {"abc", 1, 0, "abc"},
        {"abc", 1, -1, "abc"}, {"", 0, 0, ""},        {"ab", 1, 5, "axxxxxb"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d, %d times", c.before, c.index, c.count));
        CStringArray array;
        Fill(array, Split(c.before));
        const XString s("x");
        array.InsertAt(c.index, s, c.count);
        EXPECT_EQ(Texts(array), Split(c.after));
        EXPECT_EQ(s.m_pStrData->m_iRefCount, 1 + std::max(c.count, 0));
    }
}

TEST_F(StringArray, InsertAt_inserts_once_when_not_told) {
    CStringArray array;
    Fill(array, ABC);
    array.InsertAt(1, "x");
    EXPECT_EQ(Texts(array), Split("axbc"));
}

TEST_F(StringArray, InsertAt_takes_an_element_of_the_array_itself) {
    for (int step : {0, 1}) { // into room that is there, and into new room
        SCOPED_TRACE(step);
        CStringArray array;
        array.SetSize(0, step);
        Fill(array, ABC);
        array.InsertAt(0, array.m_pData[2], 2);
        EXPECT_EQ(Texts(array), Split("ccabc"));
        EXPECT_EQ(Header(array, 0)->m_iRefCount, 3);
    }
}

TEST_F(StringArray, InsertAt_of_a_negative_index_aborts) {
    CStringArray array;
    EXPECT_DEATH(array.InsertAt(-1, "x"), "Assertion `nIndex >= 0");
    EXPECT_DEATH(array.InsertAt(-1, "x", 0), "Assertion `nIndex >= 0");
    Fill(array, ABC);
    for (int index : {-1, -4, INT_MIN}) {
        SCOPED_TRACE(index);
        EXPECT_DEATH(array.InsertAt(index, "x"), "Assertion `nIndex >= 0");
    }
}

TEST_F(StringArray, RemoveAt_moves_down_what_is_behind) {
    const struct {
        const char* before;
        int index;
        int count;
        const char* after;
    } cases[] = {{"abcd", 0, 1, "bcd"},  {"abcd", 3, 1, "abc"},   {"abcd", 1, 2, "ad"},
                 {"abcd", 0, 4, ""},     {"abcd", 2, 3, "ab"},    {"abcd", 1, INT_MAX, "a"},
                 {"abcd", 1, 0, "abcd"}, {"abcd", 1, -1, "abcd"}, {"abcd", 1, INT_MIN, "abcd"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' at %d, %d elements", c.before, c.index, c.count));
        CStringArray array;
        Fill(array, Split(c.before));
        array.RemoveAt(c.index, c.count);
        EXPECT_EQ(Texts(array), Split(c.after));
    }
}

TEST_F(StringArray, RemoveAt_removes_one_when_not_told_and_releases_it) {
    CStringArray array;
    Fill(array, ABC);
    const XString b = array[1];
    array.RemoveAt(1);
    EXPECT_EQ(Texts(array), Split("ac"));
    EXPECT_EQ(b.m_pStrData->m_iRefCount, 1);
    EXPECT_EQ(Header(array, 1)->m_iRefCount, 1) << "the slot it came from has let it go";
}

TEST_F(StringArray, RemoveAt_of_a_bad_index_aborts) {
    CStringArray array;
    EXPECT_DEATH(array.RemoveAt(0), READ_ASSERTION);
    array.SetSize(3);
    for (int index : {INT_MIN, -1, 3, INT_MAX}) {
        SCOPED_TRACE(index);
        EXPECT_DEATH(array.RemoveAt(index), READ_ASSERTION);
    }
}
