// The string's storage: headers, sharing, the buffer lock, construction, assignment, concatenation, buffer
// access, the two counters and Dump.
#include <limits.h>
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/XString.h>

#include "support/attempt.h"
#include "support/interpose.h"
#include "support/text.h"

namespace {

// Each case leaves as many strings and headers as there were.
class CounterCheck : public testing::EmptyTestEventListener {
    static bool Concerns(const testing::TestInfo& info) {
        const std::string suite = info.test_suite_name();
        return suite.compare(0, 7, "XString") == 0 || suite == "bstr";
    }

    void OnTestStart(const testing::TestInfo&) override {
        m_strings = XString::m_iObjCount;
        m_headers = XStringData::m_iObjCount;
    }

    void OnTestEnd(const testing::TestInfo& info) override {
        if (!Concerns(info))
            return;
        EXPECT_EQ(XString::m_iObjCount, m_strings) << "strings are left, or released too often";
        EXPECT_EQ(XStringData::m_iObjCount, m_headers) << "headers are left, or released too often";
    }

    int m_strings;
    int m_headers;
};

const bool g_installed = (testing::UnitTest::GetInstance()->listeners().Append(new CounterCheck), true);

// The whole header in one line. The text is shown up to its first NUL.
std::string State(const XStringData* header) {
    return (header->m_pszData ? "'" + std::string(header->m_pszData) + "'" : "no text") +
           Text(" length %u size %u refs %d block %d%s", header->m_uiLength, header->m_uiBuffSize,
                header->m_iRefCount, header->m_iBlockSize, header->m_bLocked ? " locked" : "");
}

std::string State(const XString& s) { return State(s.m_pStrData); }

const char kFresh[] = "no text length 0 size 0 refs 1 block -1";

// All bytes that the length counts.
std::string Content(const XString& s) {
    return std::string(s.m_pStrData->m_pszData, s.m_pStrData->m_uiLength);
}

std::string Assertion(const std::string& expression, int line, const std::string& function) {
    return AssertionRegex("Windows/XString", line, function, expression);
}

const std::string kLengthAssertion =
    Assertion("uiLength < m_uiBuffSize", 239, "void XStringData::SetLength(unsigned int)");
const std::string kIndexAssertion =
    Assertion("uiIndex < GetLength()", 373, "char XStringData::GetAt(unsigned int)");

// A change of the public default granule that ends with the scope.
class DefaultBlockSize {
public:
    explicit DefaultBlockSize(int size) : m_old(XString::m_iDefaultBlockSize) {
        XString::m_iDefaultBlockSize = size;
    }
    ~DefaultBlockSize() { XString::m_iDefaultBlockSize = m_old; }

private:
    int m_old;
};

// A string with a buffer of its own of exactly size bytes, all 'z' behind the text.
XString WithBuffer(const char* text, unsigned int size) {
    XString s;
    s.m_pStrData->Allocate(size);
    memset(s.m_pStrData->m_pszData, 'z', size);
    strcpy(s.m_pStrData->m_pszData, text);
    s.m_pStrData->m_uiLength = static_cast<unsigned int>(strlen(text));
    return s;
}

void RunThreads(int count, const std::function<void()>& function) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++)
        threads.emplace_back(function);
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace

// -- Data model ----------------------------------------------------------------------------------------

TEST(XString, Is_one_pointer_to_its_header) {
    static_assert(sizeof(XString) == sizeof(void*), "nothing but the pointer");
    static_assert(std::is_same_v<decltype(XString::m_pStrData), XStringData*>);
    const XString s("abc");
    EXPECT_EQ(*reinterpret_cast<XStringData* const*>(&s), s.m_pStrData);
}

TEST(XString, Header_has_its_fields_in_order) {
    EXPECT_EQ(offsetof(XStringData, m_iRefCount), 0U);
    EXPECT_EQ(offsetof(XStringData, m_uiLength), 4U);
    EXPECT_EQ(offsetof(XStringData, m_uiBuffSize), 8U);
    EXPECT_EQ(offsetof(XStringData, m_iBlockSize), 12U);
    EXPECT_EQ(offsetof(XStringData, m_pszData), 16U);
    EXPECT_EQ(offsetof(XStringData, m_bLocked), 16U + sizeof(char*));
    EXPECT_EQ(sizeof(XStringData), 16U + 2 * sizeof(char*));
    static_assert(std::is_same_v<decltype(XStringData::m_iRefCount), int>);
    static_assert(std::is_same_v<decltype(XStringData::m_uiLength), unsigned int>);
    static_assert(std::is_same_v<decltype(XStringData::m_uiBuffSize), unsigned int>);
    static_assert(std::is_same_v<decltype(XStringData::m_iBlockSize), int>);
    static_assert(std::is_same_v<decltype(XStringData::m_bLocked), bool>);
}

TEST(XString, Statics_are_32_bit_and_the_granule_begins_at_16) {
    static_assert(std::is_same_v<decltype(XString::m_iDefaultBlockSize), int>);
    static_assert(std::is_same_v<decltype(XString::m_iObjCount), int>);
    static_assert(std::is_same_v<decltype(XStringData::m_iObjCount), int>);
    EXPECT_EQ(XString::m_iDefaultBlockSize, 16);
}

TEST(XString, Empty_strings_do_not_share_a_header_and_have_no_text) {
    const XString a;
    const XString b;
    EXPECT_NE(a.m_pStrData, b.m_pStrData);
    EXPECT_EQ(static_cast<const char*>(a), nullptr);
    EXPECT_EQ(static_cast<const char*>(b), nullptr);
}

// -- Headers -------------------------------------------------------------------------------------------

TEST(XString, Header_is_fresh_when_made) {
    const int headers = XStringData::m_iObjCount;
    XStringData* header = new XStringData;
    EXPECT_EQ(State(header), kFresh);
    EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
    header->Release();
    EXPECT_EQ(XStringData::m_iObjCount, headers);
}

TEST(XString, AddRef_counts_and_returns_the_header) {
    XStringData* header = new XStringData;
    EXPECT_EQ(header->AddRef(), header);
    EXPECT_EQ(header->m_iRefCount, 2);
    EXPECT_EQ(header->AddRef(), header);
    EXPECT_EQ(header->m_iRefCount, 3);
    header->Release();
    header->Release();
    EXPECT_EQ(header->m_iRefCount, 1);
    header->Release();
}

TEST(XString, Release_of_the_last_reference_frees_text_and_header) {
    AllocationCounter counter;
    XStringData* header = new XStringData;
    header->Allocate(10);
    header->AddRef();
    header->Release();
    const int before = counter.Balance();
    header->Release();
    const int frees = counter.Frees();
    const int deletes = counter.Deletes();
    EXPECT_EQ(before, 2);
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(deletes, 1);
}

TEST(XString, Header_comes_from_new_and_text_from_malloc) {
    CallLog log({Call::New, Call::Malloc});
    AllocationCounter counter;
    { XString s("abc"); }
    const int frees = counter.Frees();
    const int deletes = counter.Deletes();
    const std::vector<std::string> calls = log.Texts();
    EXPECT_EQ(calls, (std::vector<std::string>{Text("operator new(%zu)", sizeof(XStringData)), "malloc(4)"}));
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(deletes, 1);
}

TEST(XString, Allocate_of_the_same_size_keeps_the_text) {
    XString s("abc");
    char* text = s.m_pStrData->m_pszData;
    AllocationCounter counter;
    const bool result = s.m_pStrData->Allocate(4);
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(s.m_pStrData->m_pszData, text);
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Allocate_of_0_bytes_is_refused_and_changes_nothing) {
    XString s("abc");
    EXPECT_FALSE(s.m_pStrData->Allocate(0));
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Allocate_of_0_bytes_without_a_buffer_is_the_same_size) {
    XString s;
    EXPECT_TRUE(s.m_pStrData->Allocate(0));
    EXPECT_EQ(State(s), kFresh);
}

TEST(XString, Allocate_frees_the_old_text_first_and_takes_the_exact_size) {
    XString s("abc");
    CallLog log({Call::Malloc, Call::Realloc, Call::Free});
    const bool result = s.m_pStrData->Allocate(21);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"free()", "malloc(21)"}));
    EXPECT_TRUE(result);
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 21U);
}

TEST(XString, Allocate_leaves_the_length) {
    XString s("abc");
    s.m_pStrData->Allocate(2);
    EXPECT_EQ(s.m_pStrData->m_uiLength, 3U);
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 2U);
}

TEST(XString, Allocate_without_memory_throws_and_leaves_no_text_and_the_old_size) {
    XString s("abc");
    const Attempt attempt = Without(FailAllocation::OnlyMalloc, [&] { s.m_pStrData->Allocate(21); });
    EXPECT_EQ(attempt.outcome, "memory exception");
    EXPECT_EQ(attempt.balance, -1) << "the old text is freed before the new one is allocated";
    EXPECT_EQ(State(s), "no text length 3 size 4 refs 1 block -1");
}

TEST(XString, Reallocate_rounds_strictly_up_to_the_granule) {
    const struct {
        int blockSize, defaultBlockSize;
        unsigned int request;
        bool round;
        unsigned int size;
    } cases[] = {
        {-1, 16, 0, true, 16},
        {-1, 16, 1, true, 16},
        {-1, 16, 15, true, 16},
        {-1, 16, 16, true, 32},
        {-1, 16, 17, true, 32},
        {-1, 16, 31, true, 32},
        {-1, 16, 32, true, 48},
        {-1, 100, 99, true, 100},
        {-1, 100, 100, true, 200},
        {10, 16, 25, true, 30},
        {10, 16, 30, true, 40},
        {1, 16, 7, true, 8},
        {-1, 16, 7, false, 7},
        {10, 16, 25, false, 25},
        {-1, 16, 16, false, 16},
        // The division is signed: a request of 2^32 - 1 is -1.
        {-1, 16, 0xFFFFFFFFU, true, 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("Reallocate(%u, %d), granule %d, default %d", c.request, c.round, c.blockSize,
                          c.defaultBlockSize));
        const DefaultBlockSize granule(c.defaultBlockSize);
        XString s("abc");
        s.m_pStrData->m_iBlockSize = c.blockSize;
        CallLog log({Call::Realloc});
        const bool result = s.m_pStrData->Reallocate(c.request, c.round);
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{Text("realloc(%u)", c.size)}));
        EXPECT_TRUE(result);
        EXPECT_EQ(State(s), Text("'abc' length 3 size %u refs 1 block %d", c.size, c.blockSize));
    }
}

TEST(XString, Reallocate_gives_a_string_without_a_buffer_one) {
    XString s;
    EXPECT_TRUE(s.m_pStrData->Reallocate(0, true));
    EXPECT_NE(s.m_pStrData->m_pszData, nullptr);
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 16U);
    EXPECT_EQ(s.m_pStrData->m_uiLength, 0U);
}

TEST(XString, Reallocate_does_not_notice_that_memory_ran_out) {
    XString s("abc");
    char* text = s.m_pStrData->m_pszData;
    bool result = false;
    const Attempt attempt =
        Without(FailAllocation::OnlyMalloc, [&] { result = s.m_pStrData->Reallocate(20, true); });
    EXPECT_TRUE(attempt.failed);
    EXPECT_EQ(attempt.outcome, "done");
    EXPECT_TRUE(result);
    EXPECT_EQ(State(s), "no text length 3 size 32 refs 1 block -1");
    free(text);
}

TEST(XString, SetLength_ends_the_text) {
    XString s("abcdef");
    s.m_pStrData->SetLength(2);
    EXPECT_EQ(State(s), "'ab' length 2 size 7 refs 1 block -1");
    EXPECT_EQ(memcmp(s.m_pStrData->m_pszData, "ab\0def", 7), 0) << "only the NUL is written";
    s.m_pStrData->SetLength(6);
    EXPECT_EQ(s.m_pStrData->m_uiLength, 6U);
}

TEST(XString, SetLength_of_the_buffer_size_aborts) {
    XString s("abc");
    EXPECT_DEATH(s.m_pStrData->SetLength(4), kLengthAssertion);
}

TEST(XString, SetLength_without_a_buffer_aborts) {
    XString s;
    EXPECT_DEATH(s.m_pStrData->SetLength(0), kLengthAssertion);
}

TEST(XString, GetAt_returns_the_byte) {
    XString s("a\0\xE4", 3);
    EXPECT_EQ(s.m_pStrData->GetAt(0), 'a');
    EXPECT_EQ(s.m_pStrData->GetAt(1), '\0');
    EXPECT_EQ(s.m_pStrData->GetAt(2), '\xE4');
}

TEST(XString, GetAt_of_the_length_aborts) {
    XString s("abc");
    EXPECT_DEATH(s.m_pStrData->GetAt(3), kIndexAssertion);
}

TEST(XString, GetAt_of_an_empty_string_aborts) {
    XString s;
    EXPECT_DEATH(s.m_pStrData->GetAt(0), kIndexAssertion);
}

TEST(XString, GetLength_is_the_stored_length) {
    XString s("ab\0cd", 5);
    EXPECT_EQ(s.m_pStrData->GetLength(), 5U);
    EXPECT_EQ(s.GetLength(), 5);
    EXPECT_EQ(XString().GetLength(), 0);
}

// -- Buffer lock ---------------------------------------------------------------------------------------

TEST(XString, LockBuffer_returns_the_text_once) {
    XString s("abc");
    XStringData& header = *s.m_pStrData;
    EXPECT_EQ(header.LockBuffer(), header.m_pszData);
    EXPECT_TRUE(header.m_bLocked);
    EXPECT_EQ(header.LockBuffer(), nullptr);
    EXPECT_TRUE(header.m_bLocked);
    header.UnlockBuffer();
    EXPECT_FALSE(header.m_bLocked);
    EXPECT_EQ(header.LockBuffer(), header.m_pszData);
    header.UnlockBuffer();
}

TEST(XString, UnlockBuffer_of_an_unlocked_buffer_does_nothing) {
    XString s("abc");
    s.m_pStrData->UnlockBuffer();
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, LockBuffer_without_a_buffer_locks_and_returns_null) {
    XString s;
    EXPECT_EQ(s.m_pStrData->LockBuffer(), nullptr);
    EXPECT_TRUE(s.m_pStrData->m_bLocked);
}

TEST(XString, Writers_leave_the_buffer_unlocked) {
    XString s("a");
    s += 'b';
    s += "c";
    s += s;
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
    s = 'x';
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
    s = "y";
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
    EXPECT_FALSE(XString('x', 3).m_pStrData->m_bLocked);
    EXPECT_FALSE(XString("xyz", 2).m_pStrData->m_bLocked);
    EXPECT_FALSE(('x' + s).m_pStrData->m_bLocked);
    EXPECT_FALSE((s + 'x').m_pStrData->m_bLocked);
}

TEST(XString, Append_of_a_character_to_a_locked_buffer_faults) {
    XString s = WithBuffer("abc", 16);
    s.m_pStrData->LockBuffer();
    EXPECT_DEATH(s += 'x', "");
}

TEST(XString, ConcatCopy_into_a_locked_buffer_faults) {
    XString s;
    s.m_pStrData->LockBuffer();
    EXPECT_DEATH(s.ConcatCopy(1, "a", 1, "b"), "");
}

TEST(XString, Writers_that_build_anew_do_not_mind_the_lock) {
    XString s("abc");
    s.m_pStrData->LockBuffer();
    s += "d";
    EXPECT_EQ(State(s), "'abcd' length 4 size 5 refs 1 block -1");
    s.m_pStrData->LockBuffer();
    s = "e";
    EXPECT_EQ(State(s), "'e' length 1 size 2 refs 1 block -1");
}

TEST(XString, Resize_of_an_unshared_buffer_does_not_touch_the_lock) {
    XString s("abcdef");
    s.m_pStrData->LockBuffer();
    s.Resize(3);
    EXPECT_EQ(State(s), "'ab' length 2 size 16 refs 1 block -1 locked");
}

// -- Detach --------------------------------------------------------------------------------------------

// One that was released once too often is not freed a second time.
TEST(XString, Release_frees_only_where_the_count_was_1) {
    auto* header = new XStringData;
    const int headers = XStringData::m_iObjCount;
    header->m_iRefCount = 0;
    header->Release();
    EXPECT_EQ(XStringData::m_iObjCount, headers);
    ASSERT_EQ(header->m_iRefCount, -1);
    header->m_iRefCount = 1;
    header->Release();
    EXPECT_EQ(XStringData::m_iObjCount, headers - 1);
}

TEST(XString, CopyBeforeWrite_does_nothing_to_an_unshared_string) {
    XString s("abc");
    const XStringData* header = s.m_pStrData;
    AllocationCounter counter;
    s.CopyBeforeWrite();
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(s.m_pStrData, header);
}

TEST(XString, CopyBeforeWrite_copies_the_whole_buffer_and_the_block_size) {
    XString a = WithBuffer("abc", 12);
    a.m_pStrData->m_iBlockSize = 7;
    XString b(a);
    a.m_pStrData->LockBuffer();
    const int headers = XStringData::m_iObjCount;
    {
        CallLog log({Call::Malloc});
        b.CopyBeforeWrite();
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{"malloc(12)"}));
    }
    EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
    EXPECT_EQ(State(a), "'abc' length 3 size 12 refs 1 block 7 locked");
    EXPECT_EQ(State(b), "'abc' length 3 size 12 refs 1 block 7") << "the copy begins unlocked";
    EXPECT_NE(a.m_pStrData->m_pszData, b.m_pStrData->m_pszData);
    EXPECT_EQ(memcmp(a.m_pStrData->m_pszData, b.m_pStrData->m_pszData, 12), 0);
}

TEST(XString, CopyBeforeWrite_leaves_the_others_sharing) {
    XString a("abc");
    const XString b(a);
    const XString c(a);
    a.CopyBeforeWrite();
    EXPECT_EQ(b.m_pStrData, c.m_pStrData);
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 2 block -1");
}

TEST(XString, CopyBeforeWrite_without_a_buffer_makes_a_terminated_text_of_size_0) {
    XString a;
    XString b(a);
    CallLog log({Call::Malloc});
    mallopt(M_PERTURB, 1); // a fresh block does not begin with a NUL by chance
    b.CopyBeforeWrite();
    mallopt(M_PERTURB, 0);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"malloc(1)"}));
    EXPECT_EQ(State(b), "'' length 0 size 0 refs 1 block -1");
    EXPECT_EQ(State(a), kFresh);
}

TEST(XString, Appends_to_a_detached_string_without_a_buffer_work) {
    XString a;
    XString b(a);
    b.CopyBeforeWrite();
    b += 'x';
    EXPECT_EQ(State(b), "'x' length 1 size 16 refs 1 block -1");
    XString c(a);
    c.CopyBeforeWrite();
    c += "xyz";
    EXPECT_EQ(State(c), "'xyz' length 3 size 4 refs 1 block -1");
}

// -- Constructors --------------------------------------------------------------------------------------

TEST(XString, Constructors_make_what_they_are_given) {
    const struct {
        const char* name;
        std::function<XString*()> make;
        const char* state;
    } cases[] = {
        {"()", [] { return new XString; }, kFresh},
        {"\"abc\"", [] { return new XString("abc"); }, "'abc' length 3 size 4 refs 1 block -1"},
        {"\"\"", [] { return new XString(""); }, kFresh},
        {"NULL", [] { return new XString(static_cast<const char*>(NULL)); }, kFresh},
        {"abc, 3", [] { return new XString("abc", 3); }, "'abc' length 3 size 4 refs 1 block -1"},
        {"abc, 1", [] { return new XString("abc", 1); }, "'a' length 1 size 2 refs 1 block -1"},
        {"abc, 0", [] { return new XString("abc", 0); }, kFresh},
        {"abc, -1", [] { return new XString("abc", -1); }, kFresh},
        {"NULL, 5", [] { return new XString(static_cast<const char*>(NULL), 5); }, kFresh},
        {"x, 3", [] { return new XString('x', 3); }, "'xxx' length 3 size 4 refs 1 block -1"},
        {"x, 1", [] { return new XString('x', 1); }, "'x' length 1 size 2 refs 1 block -1"},
        {"x, 0", [] { return new XString('x', 0); }, kFresh},
        {"x, -1", [] { return new XString('x', -1); }, kFresh},
        {"NUL, 3", [] { return new XString('\0', 3); }, "'' length 3 size 4 refs 1 block -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        XString* s = c.make();
        EXPECT_EQ(State(*s), c.state);
        EXPECT_EQ(XString::m_iObjCount, strings + 1);
        EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
        delete s;
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
}

TEST(XString, Constructor_with_a_length_copies_NULs) {
    const XString s("a\0b\0", 4);
    EXPECT_EQ(Content(s), std::string("a\0b\0", 4));
    EXPECT_EQ(s.m_pStrData->m_pszData[4], '\0');
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 5U);
}

TEST(XString, Constructor_of_repeated_NULs_fills_them_in) {
    const XString s('\0', 4);
    EXPECT_EQ(Content(s), std::string(4, '\0'));
}

TEST(XString, Copy_shares_the_header) {
    const XString a("abc");
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    {
        const XString b(a);
        EXPECT_EQ(b.m_pStrData, a.m_pStrData);
        EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 2 block -1");
        EXPECT_EQ(XString::m_iObjCount, strings + 1);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
    EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(XString::m_iObjCount, strings);
}

TEST(XString, Copy_outlives_its_source) {
    XString* a = new XString("abc");
    const XString b(*a);
    delete a;
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Copy_of_an_empty_string_shares_its_header_too) {
    const XString a;
    const XString b(a);
    EXPECT_EQ(a.m_pStrData, b.m_pStrData);
    EXPECT_EQ(b.m_pStrData->m_iRefCount, 2);
}

TEST(XString, Moved_from_string_keeps_its_header) {
    XString a("abc");
    const XString b(std::move(a));
    EXPECT_EQ(b.m_pStrData, a.m_pStrData);
    XString c;
    c = std::move(a);
    EXPECT_EQ(c.m_pStrData, a.m_pStrData);
    EXPECT_EQ(a.m_pStrData->m_iRefCount, 3);
}

TEST(XString, Constructors_without_memory_leave_nothing_behind) {
    const struct {
        const char* name;
        FailAllocation::Kind kind;
        std::function<void()> make;
        const char* outcome;
    } cases[] = {
        {"() header", FailAllocation::OnlyNew, [] { XString s; }, "bad_alloc"},
        {"text header", FailAllocation::OnlyNew, [] { XString s("abc"); }, "bad_alloc"},
        {"text", FailAllocation::OnlyMalloc, [] { XString s("abc"); }, "memory exception"},
        {"bytes header", FailAllocation::OnlyNew, [] { XString s("abc", 2); }, "bad_alloc"},
        {"bytes", FailAllocation::OnlyMalloc, [] { XString s("abc", 2); }, "memory exception"},
        {"repeat header", FailAllocation::OnlyNew, [] { XString s('x', 2); }, "bad_alloc"},
        {"repeat", FailAllocation::OnlyMalloc, [] { XString s('x', 2); }, "memory exception"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        const Attempt attempt = Without(c.kind, c.make);
        EXPECT_TRUE(attempt.failed);
        EXPECT_EQ(attempt.outcome, c.outcome);
        EXPECT_EQ(attempt.balance, 0);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
}

TEST(XString, Empty_constructors_need_no_text_block) {
    AllocationCounter counter;
    {
        XString a;
        XString b("");
        XString c("abc", 0);
        XString d('x', 0);
        XString e(a);
    }
    const int mallocs = counter.Mallocs() + counter.Reallocs();
    const int news = counter.News();
    EXPECT_EQ(mallocs, 0);
    EXPECT_EQ(news, 4);
}

// -- Empty ---------------------------------------------------------------------------------------------

TEST(XString, Empty_resets_an_unshared_header_in_place) {
    XString s("abc");
    const XStringData* header = s.m_pStrData;
    s.m_pStrData->m_iBlockSize = 7;
    s.m_pStrData->LockBuffer();
    const int headers = XStringData::m_iObjCount;
    AllocationCounter counter;
    s.Empty();
    const int frees = counter.Frees();
    const int allocations = counter.Allocations();
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(s.m_pStrData, header);
    EXPECT_EQ(State(s), kFresh);
    EXPECT_EQ(XStringData::m_iObjCount, headers);
}

TEST(XString, Empty_leaves_a_shared_header_to_the_others) {
    XString a("abc");
    a.m_pStrData->m_iBlockSize = 7;
    const XString b(a);
    const int headers = XStringData::m_iObjCount;
    a.Empty();
    EXPECT_EQ(State(a), kFresh);
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block 7");
    EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
}

TEST(XString, Empty_of_an_empty_string_changes_nothing) {
    XString s;
    const XStringData* header = s.m_pStrData;
    s.Empty();
    EXPECT_EQ(s.m_pStrData, header);
    EXPECT_EQ(State(s), kFresh);
}

// -- Assignment ----------------------------------------------------------------------------------------

TEST(XString, Assignment_of_a_string_shares_its_header) {
    const XString a("abc");
    XString b("old");
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    EXPECT_EQ(&(b = a), &b);
    EXPECT_EQ(b.m_pStrData, a.m_pStrData);
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 2 block -1");
    EXPECT_EQ(XString::m_iObjCount, strings);
    EXPECT_EQ(XStringData::m_iObjCount, headers - 1) << "the old header is gone";
}

TEST(XString, Assignment_of_a_string_leaves_the_old_header_to_the_others) {
    const XString a("abc");
    XString b("old");
    const XString c(b);
    b = a;
    EXPECT_EQ(State(c), "'old' length 3 size 4 refs 1 block -1");
}

TEST(XString, Assignment_of_a_string_to_itself_keeps_the_count) {
    XString s("abc");
    XString& same = s;
    s = same;
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Assignment_of_a_sharer_changes_nothing) {
    XString a("abc");
    const XString b(a);
    a = b;
    EXPECT_EQ(a.m_pStrData, b.m_pStrData);
    EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 2 block -1");
}

TEST(XString, Assignment_of_a_character_leaves_the_length_at_0) {
    XString s("abc");
    s.m_pStrData->m_iBlockSize = 7;
    EXPECT_EQ(&(s = 'x'), &s);
    EXPECT_EQ(State(s), "'x' length 0 size 2 refs 1 block -1");
    EXPECT_EQ(s.GetLength(), 0);
    EXPECT_STREQ(s, "x");
}

TEST(XString, Assignment_of_a_character_works_on_every_state) {
    XString fresh;
    fresh = 'x';
    EXPECT_EQ(State(fresh), "'x' length 0 size 2 refs 1 block -1");
    fresh = 'y';
    EXPECT_EQ(State(fresh), "'y' length 0 size 2 refs 1 block -1");
    fresh = '\0';
    EXPECT_EQ(State(fresh), "'' length 0 size 2 refs 1 block -1");

    XString shared("abc");
    const XString other(shared);
    shared = 'x';
    EXPECT_EQ(State(shared), "'x' length 0 size 2 refs 1 block -1");
    EXPECT_EQ(State(other), "'abc' length 3 size 4 refs 1 block -1");

    XString locked("abc");
    locked.m_pStrData->LockBuffer();
    locked = 'x';
    EXPECT_EQ(State(locked), "'x' length 0 size 2 refs 1 block -1");
}

TEST(XString, Assignment_of_an_integer_is_that_of_a_character) {
    XString s;
    s = 65;
    EXPECT_STREQ(s, "A");
    EXPECT_EQ(s.GetLength(), 0);
}

TEST(XString, Assignment_of_a_text_copies_it_exactly) {
    XString s("abc");
    const XStringData* header = s.m_pStrData;
    s.m_pStrData->m_iBlockSize = 7;
    EXPECT_EQ(&(s = "defgh"), &s);
    EXPECT_EQ(State(s), "'defgh' length 5 size 6 refs 1 block -1");
    EXPECT_EQ(s.m_pStrData, header);
}

TEST(XString, Assignment_of_a_text_leaves_a_shared_header_to_the_others) {
    XString s("abc");
    const XString other(s);
    s = "defgh";
    EXPECT_EQ(State(s), "'defgh' length 5 size 6 refs 1 block -1");
    EXPECT_EQ(State(other), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Assignment_of_a_text_of_the_same_size_replaces_it) {
    XString s("abc");
    s = "def";
    EXPECT_EQ(State(s), "'def' length 3 size 4 refs 1 block -1");
}

TEST(XString, Assignment_of_an_empty_text_leaves_a_buffer_of_one_byte) {
    XString s("abc");
    s = "";
    EXPECT_EQ(State(s), "'' length 0 size 1 refs 1 block -1");
}

TEST(XString, Assignment_of_a_null_text_leaves_no_buffer) {
    XString s("abc");
    const XString other(s);
    s = static_cast<const char*>(NULL);
    EXPECT_EQ(State(s), kFresh);
    EXPECT_EQ(State(other), "'abc' length 3 size 4 refs 1 block -1");
    s = "abc";
    s = static_cast<const char*>(NULL);
    EXPECT_EQ(State(s), kFresh);
}

// -- Append of a character -----------------------------------------------------------------------------

TEST(XString, Append_of_a_character_is_seen_by_all_who_share_the_header) {
    XString a("abc");
    const XString b(a);
    const XStringData* header = a.m_pStrData;
    EXPECT_EQ(&(a += 'd'), &a);
    EXPECT_EQ(a.m_pStrData, header);
    EXPECT_EQ(b.m_pStrData, header);
    EXPECT_EQ(State(b), "'abcd' length 4 size 16 refs 2 block -1");
}

TEST(XString, Append_of_a_text_is_seen_by_the_string_alone) {
    XString a("abc");
    const XString b(a);
    a += "d";
    EXPECT_EQ(State(a), "'abcd' length 4 size 5 refs 1 block -1");
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Append_of_characters_grows_by_the_granule) {
    XString s;
    CallLog log({Call::Malloc, Call::Realloc});
    std::string expected;
    for (int i = 0; i < 47; i++) {
        s += static_cast<char>('a' + i % 26);
        expected += static_cast<char>('a' + i % 26);
        const unsigned int size = i < 15 ? 16 : i < 31 ? 32 : 48;
        EXPECT_EQ(State(s), Text("'%s' length %d size %u refs 1 block -1", expected.c_str(), i + 1, size));
    }
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"realloc(16)", "realloc(32)", "realloc(48)"}));
}

TEST(XString, Append_of_a_character_uses_room_that_is_there) {
    XString s = WithBuffer("abc", 5);
    AllocationCounter counter;
    s += 'd';
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(State(s), "'abcd' length 4 size 5 refs 1 block -1");
    s += 'e';
    EXPECT_EQ(State(s), "'abcde' length 5 size 16 refs 1 block -1");
}

TEST(XString, Append_of_a_character_makes_room_for_another_beyond_the_NUL) {
    XString s("abcdefghijklmn"); // one more and a NUL are 16, and the granule above is taken
    s += 'o';
    EXPECT_EQ(State(s), "'abcdefghijklmno' length 15 size 32 refs 1 block -1");
}

TEST(XString, Append_of_a_character_goes_by_the_header_s_own_granule) {
    XString s("abc");
    s.m_pStrData->m_iBlockSize = 3;
    s += 'd';
    EXPECT_EQ(State(s), "'abcd' length 4 size 6 refs 1 block 3");
}

TEST(XString, Append_of_a_character_goes_by_the_default_granule) {
    const DefaultBlockSize granule(100);
    XString s("abc");
    s += 'd';
    EXPECT_EQ(State(s), "'abcd' length 4 size 100 refs 1 block -1");
}

TEST(XString, Append_of_a_NUL_counts) {
    XString s("a");
    s += '\0';
    s += 'b';
    EXPECT_EQ(Content(s), std::string("a\0b", 3));
    EXPECT_EQ(s.m_pStrData->m_pszData[3], '\0');
}

TEST(XString, Append_of_a_character_overwrites_an_assigned_character) {
    XString s;
    s = 'x';
    s += 'y';
    EXPECT_EQ(State(s), "'y' length 1 size 2 refs 1 block -1");
}

// -- Append of a text ----------------------------------------------------------------------------------

TEST(XString, Append_of_a_null_text_changes_nothing) {
    XString a("abc");
    const XString b(a);
    const XStringData* header = a.m_pStrData;
    EXPECT_EQ(&(a += static_cast<const char*>(NULL)), &a);
    EXPECT_EQ(a.m_pStrData, header);
    EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 2 block -1");
}

TEST(XString, Append_of_a_text_builds_a_new_header_of_exact_size) {
    XString s = WithBuffer("abc", 50);
    s.m_pStrData->m_iBlockSize = 7;
    const XString keep(s); // so that the new header cannot be at the old address
    const int headers = XStringData::m_iObjCount;
    EXPECT_EQ(&(s += "de"), &s);
    EXPECT_NE(s.m_pStrData, keep.m_pStrData);
    EXPECT_EQ(State(s), "'abcde' length 5 size 6 refs 1 block -1");
    EXPECT_EQ(State(keep), "'abc' length 3 size 50 refs 1 block 7");
    EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
}

TEST(XString, Append_releases_the_old_header) {
    XString s("abc");
    const int headers = XStringData::m_iObjCount;
    AllocationCounter counter;
    s += "de";
    const int balance = counter.Balance();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(XStringData::m_iObjCount, headers);
}

TEST(XString, Append_of_an_empty_text_builds_anew_too) {
    XString s = WithBuffer("abc", 50);
    s.m_pStrData->m_iBlockSize = 7;
    s += "";
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Append_of_an_empty_text_to_an_empty_one_leaves_no_buffer) {
    XString s("x");
    s = "";
    s += "";
    EXPECT_EQ(State(s), kFresh);
    XString t;
    t += "";
    EXPECT_EQ(State(t), kFresh);
}

TEST(XString, Append_of_an_empty_string_builds_anew_too) {
    const XString empty;
    XString a = WithBuffer("abc", 50);
    const XString b(a);
    a += empty;
    EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(State(b), "'abc' length 3 size 50 refs 1 block -1");
    XString c;
    c += empty;
    EXPECT_EQ(State(c), kFresh);
}

TEST(XString, Append_to_an_empty_string) {
    XString s;
    s += "abc";
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Append_of_the_own_text_doubles_it) {
    XString s("abc");
    s += static_cast<const char*>(s);
    EXPECT_EQ(State(s), "'abcabc' length 6 size 7 refs 1 block -1");
}

TEST(XString, Append_drops_an_assigned_character) {
    XString s;
    s = 'x';
    s += "yz";
    EXPECT_EQ(State(s), "'yz' length 2 size 3 refs 1 block -1");
}

TEST(XString, Append_keeps_NULs_of_the_string) {
    XString s("a\0b", 3);
    s += "cd";
    EXPECT_EQ(Content(s), std::string("a\0bcd", 5));
}

TEST(XString, Append_of_a_string_takes_its_length) {
    const XString tail("c\0d", 3);
    XString s("a\0b", 3);
    EXPECT_EQ(&(s += tail), &s);
    EXPECT_EQ(Content(s), std::string("a\0bc\0d", 6));
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 7U);
    EXPECT_EQ(Content(tail), std::string("c\0d", 3));
    EXPECT_EQ(tail.m_pStrData->m_iRefCount, 1);
}

TEST(XString, Append_of_the_string_itself_doubles_it) {
    XString s("abc");
    s.m_pStrData->m_iBlockSize = 7;
    s += s;
    EXPECT_EQ(State(s), "'abcabc' length 6 size 7 refs 1 block -1");
}

TEST(XString, Append_of_a_sharer_leaves_it_alone) {
    XString a("abc");
    const XString b(a);
    a += b;
    EXPECT_EQ(State(a), "'abcabc' length 6 size 7 refs 1 block -1");
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block -1");
}

// -- operator+ -----------------------------------------------------------------------------------------

TEST(XString, Character_plus_string_is_a_new_string) {
    const XString s("abc");
    const XString sum = 'x' + s;
    EXPECT_EQ(State(sum), "'xabc' length 4 size 5 refs 1 block -1");
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, String_plus_character_is_a_new_string) {
    const XString s("abc");
    const XString sum = s + 'x';
    EXPECT_EQ(State(sum), "'abcx' length 4 size 5 refs 1 block -1");
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
}

TEST(XString, Sums_with_an_empty_string_hold_the_character) {
    const XString empty;
    EXPECT_EQ(State('x' + empty), "'x' length 1 size 2 refs 1 block -1");
    EXPECT_EQ(State(empty + 'x'), "'x' length 1 size 2 refs 1 block -1");
}

TEST(XString, Sums_keep_NULs) {
    const XString s("a\0b", 3);
    EXPECT_EQ(Content('x' + s), std::string("xa\0b", 4));
    EXPECT_EQ(Content(s + 'x'), std::string("a\0bx", 4));
    EXPECT_EQ(Content(s + '\0'), std::string("a\0b\0", 4));
}

// -- ConcatCopy ----------------------------------------------------------------------------------------

TEST(XString, ConcatCopy_joins_two_texts) {
    XString s;
    s.ConcatCopy(3, "abcdef", 2, "xyz");
    EXPECT_EQ(State(s), "'abcxy' length 5 size 6 refs 1 block -1");
}

TEST(XString, ConcatCopy_of_nothing_makes_no_buffer) {
    XString s;
    s.ConcatCopy(0, "abc", 0, NULL);
    EXPECT_EQ(State(s), kFresh);
}

TEST(XString, ConcatCopy_takes_one_side_alone) {
    XString left;
    left.ConcatCopy(2, "ab", 0, NULL);
    EXPECT_EQ(State(left), "'ab' length 2 size 3 refs 1 block -1");
    XString right;
    right.ConcatCopy(0, NULL, 2, "xy");
    EXPECT_EQ(State(right), "'xy' length 2 size 3 refs 1 block -1");
}

// -- ReleaseBuffer -------------------------------------------------------------------------------------

TEST(XString, ReleaseBuffer_measures_the_text) {
    XString s = WithBuffer("", 10);
    strcpy(s.m_pStrData->LockBuffer(), "abcd");
    s.ReleaseBuffer(-1);
    EXPECT_EQ(State(s), "'abcd' length 4 size 10 refs 1 block -1");
}

TEST(XString, ReleaseBuffer_sets_the_length_and_unlocks) {
    XString s("abcdef");
    s.m_pStrData->LockBuffer();
    s.ReleaseBuffer(2);
    EXPECT_EQ(State(s), "'ab' length 2 size 7 refs 1 block -1");
    s.ReleaseBuffer(0);
    EXPECT_EQ(State(s), "'' length 0 size 7 refs 1 block -1");
    s.ReleaseBuffer(6);
    EXPECT_EQ(s.GetLength(), 6);
}

TEST(XString, ReleaseBuffer_does_not_detach) {
    XString a("abcdef");
    const XString b(a);
    a.ReleaseBuffer(2);
    EXPECT_EQ(a.m_pStrData, b.m_pStrData);
    EXPECT_EQ(State(b), "'ab' length 2 size 7 refs 2 block -1");
}

TEST(XString, ReleaseBuffer_of_the_buffer_size_or_more_aborts_as_SetLength_does) {
    XString s("abc");
    EXPECT_DEATH(s.ReleaseBuffer(4), kLengthAssertion);
    EXPECT_DEATH(s.ReleaseBuffer(INT_MAX), kLengthAssertion);
}

TEST(XString, ReleaseBuffer_compares_unsigned) {
    XString s("abc");
    EXPECT_DEATH(s.ReleaseBuffer(-2), kLengthAssertion);
}

TEST(XString, ReleaseBuffer_without_a_buffer_aborts) {
    XString s;
    EXPECT_DEATH(s.ReleaseBuffer(0), kLengthAssertion);
}

TEST(XString, ReleaseBuffer_of_the_measured_text_without_a_buffer_faults) {
    XString s;
    EXPECT_DEATH(s.ReleaseBuffer(-1), "");
}

// -- Resize --------------------------------------------------------------------------------------------

TEST(XString, Resize_of_an_unshared_string_rounds_and_of_a_shared_one_does_not) {
    const struct {
        const char* text;
        unsigned int size, request;
        const char *unshared, *shared;
    } cases[] = {
        {"0123456789", 11, 5, "'0123' length 4 size 16", "'0123' length 4 size 5"},
        {"abc", 4, 20, "'abc' length 3 size 32", "'abc' length 3 size 20"},
        {"abc", 100, 20, "'abc' length 3 size 32", "'abc' length 19 size 20"},
        {"abc", 100, 5, "'abc' length 3 size 16", "'abc' length 4 size 5"},
        {"abc", 100, 4, "'abc' length 3 size 16", "'abc' length 3 size 4"},
        {"abc", 100, 3, "'ab' length 2 size 16", "'ab' length 2 size 3"},
        {"abc", 100, 2, "'a' length 1 size 16", "'a' length 1 size 2"},
        {"abc", 100, 1, "'' length 0 size 16", "'' length 0 size 1"},
        {"abc", 8, 16, "'abc' length 3 size 32", "'abc' length 7 size 16"},
        {"", 1, 2, "'' length 0 size 16", "'' length 0 size 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' in %u bytes, Resize(%u)", c.text, c.size, c.request));
        XString unshared = WithBuffer(c.text, c.size);
        unshared.m_pStrData->m_iBlockSize = 16;
        const XStringData* header = unshared.m_pStrData;
        unshared.Resize(c.request);
        EXPECT_EQ(State(unshared), std::string(c.unshared) + " refs 1 block 16");
        EXPECT_EQ(unshared.m_pStrData, header);

        XString shared = WithBuffer(c.text, c.size);
        shared.m_pStrData->m_iBlockSize = 16;
        const XString other(shared);
        const int headers = XStringData::m_iObjCount;
        shared.Resize(c.request);
        EXPECT_EQ(State(shared), std::string(c.shared) + " refs 1 block 16");
        EXPECT_EQ(State(other),
                  Text("'%s' length %zu size %u refs 1 block 16", c.text, strlen(c.text), c.size));
        EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
    }
}

TEST(XString, Resize_to_the_same_size_does_nothing_even_when_shared) {
    XString a("abc");
    const XStringData* header = a.m_pStrData;
    AllocationCounter counter;
    a.Resize(4);
    const int unshared = counter.Allocations();
    const XString b(a);
    a.Resize(4);
    const int shared = counter.Allocations();
    EXPECT_EQ(unshared, 0);
    EXPECT_EQ(shared, 0);
    EXPECT_EQ(a.m_pStrData, header);
    EXPECT_EQ(b.m_pStrData, header);
}

TEST(XString, Resize_of_a_shared_string_copies_the_bytes_behind_the_text_into_its_length) {
    XString a = WithBuffer("abc", 8);
    const XString b(a);
    a.Resize(20);
    EXPECT_EQ(Content(a), std::string("abc\0zzz", 7));
    EXPECT_EQ(a.m_pStrData->m_pszData[7], '\0');
}

TEST(XString, Resize_of_a_shared_string_ignores_the_lock_and_gives_an_unlocked_copy) {
    XString a("abc");
    const XString b(a);
    a.m_pStrData->LockBuffer();
    a.Resize(10);
    EXPECT_EQ(State(a), "'abc' length 3 size 10 refs 1 block -1");
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block -1 locked");
}

TEST(XString, Resize_gives_an_unshared_string_without_a_buffer_a_rounded_one) {
    XString s;
    s.Resize(5);
    EXPECT_NE(s.m_pStrData->m_pszData, nullptr);
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 16U);
    EXPECT_EQ(s.m_pStrData->m_uiLength, 0U);
}

TEST(XString, Resize_of_a_shared_string_without_a_buffer_gives_an_empty_text) {
    XString a;
    const XString b(a);
    a.Resize(5);
    EXPECT_EQ(State(a), "'' length 0 size 5 refs 1 block -1");
    EXPECT_EQ(State(b), kFresh);
}

TEST(XString, Resize_to_0_of_an_unshared_string_leaves_a_granule_and_the_length) {
    XString s("abc");
    s.Resize(0);
    EXPECT_EQ(State(s), "'abc' length 3 size 16 refs 1 block -1");
}

TEST(XString, Resize_to_0_of_a_shared_string_leaves_no_buffer) {
    XString a("abc");
    a.m_pStrData->m_iBlockSize = 7;
    const XString b(a);
    a.Resize(0);
    EXPECT_EQ(State(a), "no text length 0 size 0 refs 1 block 7");
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block 7");
}

TEST(XString, Resize_allocates_exactly_when_shared) {
    XString a("abc");
    const XString b(a);
    CallLog log({Call::Malloc, Call::Realloc});
    a.Resize(21);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"malloc(21)"}));
}

// -- Out of memory in operations -----------------------------------------------------------------------

TEST(XString, Operations_without_memory_keep_header_and_text) {
    const struct {
        const char* name;
        bool shared;
        FailAllocation::Kind kind;
        std::function<void(XString&)> operation;
        const char* outcome;
    } cases[] = {
        {"+= text, header", false, FailAllocation::OnlyNew, [](XString& s) { s += "de"; }, "bad_alloc"},
        {"+= text", false, FailAllocation::OnlyMalloc, [](XString& s) { s += "de"; }, "memory exception"},
        {"+= itself, header", false, FailAllocation::OnlyNew, [](XString& s) { s += s; }, "bad_alloc"},
        {"+= itself", false, FailAllocation::OnlyMalloc, [](XString& s) { s += s; }, "memory exception"},
        {"shared += text, header", true, FailAllocation::OnlyNew, [](XString& s) { s += "de"; }, "bad_alloc"},
        {"shared += text", true, FailAllocation::OnlyMalloc, [](XString& s) { s += "de"; },
         "memory exception"},
        {"shared += itself", true, FailAllocation::OnlyMalloc, [](XString& s) { s += s; },
         "memory exception"},
        {"detach, header", true, FailAllocation::OnlyNew, [](XString& s) { s.CopyBeforeWrite(); },
         "bad_alloc"},
        {"detach", true, FailAllocation::OnlyMalloc, [](XString& s) { s.CopyBeforeWrite(); },
         "memory exception"},
        {"Resize, header", true, FailAllocation::OnlyNew, [](XString& s) { s.Resize(20); }, "bad_alloc"},
        {"Resize", true, FailAllocation::OnlyMalloc, [](XString& s) { s.Resize(20); }, "memory exception"},
        {"Empty", true, FailAllocation::OnlyNew, [](XString& s) { s.Empty(); }, "bad_alloc"},
        {"= text", true, FailAllocation::OnlyNew, [](XString& s) { s = "de"; }, "bad_alloc"},
        {"= character", true, FailAllocation::OnlyNew, [](XString& s) { s = 'd'; }, "bad_alloc"},
        {"character + s, header", false, FailAllocation::OnlyNew,
         [](XString& s) { const XString sum = 'x' + s; }, "bad_alloc"},
        {"character + s", false, FailAllocation::OnlyMalloc, [](XString& s) { const XString sum = 'x' + s; },
         "memory exception"},
        {"s + character, header", false, FailAllocation::OnlyNew,
         [](XString& s) { const XString sum = s + 'x'; }, "bad_alloc"},
        {"s + character", false, FailAllocation::OnlyMalloc, [](XString& s) { const XString sum = s + 'x'; },
         "memory exception"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s("abc");
        const XString other(c.shared ? s : XString());
        const std::string state = State(s);
        const XStringData* header = s.m_pStrData;
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        const Attempt attempt = Without(c.kind, [&] { c.operation(s); });
        EXPECT_TRUE(attempt.failed);
        EXPECT_EQ(attempt.outcome, c.outcome);
        EXPECT_EQ(attempt.balance, 0);
        EXPECT_EQ(s.m_pStrData, header);
        EXPECT_EQ(State(s), state);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
}

TEST(XString, Assignments_without_memory_leave_an_empty_string) {
    const struct {
        const char* name;
        std::function<void(XString&)> operation;
    } cases[] = {{"text", [](XString& s) { s = "defgh"; }}, {"character", [](XString& s) { s = 'd'; }}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s("abc");
        const XStringData* header = s.m_pStrData;
        Attempt attempt = Without(FailAllocation::OnlyMalloc, [&] { c.operation(s); });
        EXPECT_EQ(attempt.outcome, "memory exception");
        EXPECT_EQ(attempt.balance, -1);
        EXPECT_EQ(s.m_pStrData, header);
        EXPECT_EQ(State(s), kFresh);

        XString shared("abc");
        const XString other(shared);
        attempt = Without(FailAllocation::OnlyMalloc, [&] { c.operation(shared); });
        EXPECT_EQ(attempt.outcome, "memory exception");
        EXPECT_EQ(State(shared), kFresh);
        EXPECT_EQ(State(other), "'abc' length 3 size 4 refs 1 block -1");
    }
}

TEST(XString, ConcatCopy_without_memory_leaves_the_fresh_header) {
    XString s;
    const Attempt attempt = Without(FailAllocation::OnlyMalloc, [&] { s.ConcatCopy(1, "a", 1, "b"); });
    EXPECT_EQ(attempt.outcome, "memory exception");
    EXPECT_EQ(attempt.balance, 0);
    EXPECT_EQ(State(s), kFresh);
}

TEST(XString, Append_of_a_character_without_memory_faults_at_the_write) {
    XString s("abc");
    EXPECT_DEATH(
        {
            FailAllocation fail(1, FailAllocation::OnlyMalloc);
            s += 'd';
        },
        "");
}

// -- Dump ----------------------------------------------------------------------------------------------

TEST(XString, Dump_prints_a_line_on_the_header) {
    XString s("abc");
    const XString other(s);
    s.m_pStrData->LockBuffer();
    const char line[] = "Length: 3  Size: 4  RefCount: 2  Locked: 1  Text: abc\n";
    testing::internal::CaptureStdout();
    const int result = s.Dump(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line);
    EXPECT_EQ(result, static_cast<int>(strlen(line)));
}

TEST(XString, Dump_of_an_empty_string_shows_what_the_C_library_makes_of_NULL) {
    char null[100];
    const char* volatile none = NULL;
    snprintf(null, sizeof null, "%s", none);
    const std::string line = Text("Length: 0  Size: 0  RefCount: 1  Locked: 0  Text: %s\n", null);
    XString s;
    testing::internal::CaptureStdout();
    const int result = s.Dump(2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "  " + line);
    EXPECT_EQ(result, static_cast<int>(line.size())) << "the spaces do not count";
}

TEST(XString, Dump_indents_by_nothing_for_0_and_below) {
    XString s("a");
    testing::internal::CaptureStdout();
    s.Dump(0);
    s.Dump(-3);
    const std::string line = "Length: 1  Size: 2  RefCount: 1  Locked: 0  Text: a\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line + line);
}

// -- GetBuffer -----------------------------------------------------------------------------------------

TEST(XString, GetBuffer_makes_room_and_locks) {
    XString s("abc");
    char* text = s.GetBuffer(10);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text, s.m_pStrData->m_pszData);
    EXPECT_EQ(State(s), "'abc' length 3 size 16 refs 1 block -1 locked");
    strcpy(text, "012345678");
    s.ReleaseBuffer();
    EXPECT_EQ(State(s), "'012345678' length 9 size 16 refs 1 block -1");
}

TEST(XString, GetBuffer_detaches) {
    XString a("abc");
    const XString b(a);
    a.GetBuffer()[0] = 'x';
    a.ReleaseBuffer();
    EXPECT_STREQ(a, "xbc");
    EXPECT_STREQ(b, "abc");
}

TEST(XString, GetBuffer_of_a_locked_string_is_null) {
    XString s("abc");
    s.GetBuffer();
    EXPECT_EQ(s.GetBuffer(), nullptr);
    s.ReleaseBuffer();
}

// -- Counters ------------------------------------------------------------------------------------------

TEST(XString, Operations_keep_the_balance_of_both_counters) {
    const struct {
        const char* name;
        bool shared;
        std::function<void(XString&)> operation;
        int headers; // that it adds
    } cases[] = {
        {"Empty", false, [](XString& s) { s.Empty(); }, 0},
        {"shared Empty", true, [](XString& s) { s.Empty(); }, 1},
        {"= character", false, [](XString& s) { s = 'x'; }, 0},
        {"shared = character", true, [](XString& s) { s = 'x'; }, 1},
        {"= text", false, [](XString& s) { s = "xyz"; }, 0},
        {"shared = text", true, [](XString& s) { s = "xyz"; }, 1},
        {"= NULL", false, [](XString& s) { s = static_cast<const char*>(NULL); }, 0},
        {"+= character", false, [](XString& s) { s += 'x'; }, 0},
        {"shared += character", true, [](XString& s) { s += 'x'; }, 0},
        {"+= text", false, [](XString& s) { s += "xyz"; }, 0},
        {"shared += text", true, [](XString& s) { s += "xyz"; }, 1},
        {"+= NULL", true, [](XString& s) { s += static_cast<const char*>(NULL); }, 0},
        {"+= itself", false, [](XString& s) { s += s; }, 0},
        {"shared += itself", true, [](XString& s) { s += s; }, 1},
        {"+", false, [](XString& s) { const XString sum = s + 'x'; }, 0},
        {"Resize", false, [](XString& s) { s.Resize(50); }, 0},
        {"shared Resize", true, [](XString& s) { s.Resize(50); }, 1},
        {"ReleaseBuffer", true, [](XString& s) { s.ReleaseBuffer(1); }, 0},
        {"CopyBeforeWrite", false, [](XString& s) { s.CopyBeforeWrite(); }, 0},
        {"shared CopyBeforeWrite", true, [](XString& s) { s.CopyBeforeWrite(); }, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s("abc");
        const XString other(c.shared ? s : XString());
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        c.operation(s);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers + c.headers);
    }
}

TEST(XString, Counters_are_0_where_no_string_lives) {
    // In a process that has run nothing else.
    EXPECT_EXIT(_exit(XString::m_iObjCount == 0 && XStringData::m_iObjCount == 0 ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

TEST(XString, Counters_differ_by_the_shared_references) {
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    const XString a("abc");
    const XString b(a);
    const XString c(a);
    const XString d;
    EXPECT_EQ((XString::m_iObjCount - strings) - (XStringData::m_iObjCount - headers), 2);
}

// -- Threads -------------------------------------------------------------------------------------------

TEST(XString, Threads_may_copy_and_destroy_strings_that_share_a_header) {
    const XString s("abc");
    const int strings = XString::m_iObjCount;
    RunThreads(8, [&s] {
        for (int i = 0; i < 5000; i++) {
            const XString a(s);
            XString b(a);
            b = s;
        }
    });
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(XString::m_iObjCount, strings);
}

TEST(XString, Threads_may_read_detach_and_append_to_their_own_copies) {
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    {
        const XString s("abc");
        RunThreads(8, [&s] {
            for (int i = 0; i < 2000; i++) {
                XString detached(s);
                detached.CopyBeforeWrite();
                detached += 'd';
                XString appended(s);
                appended += "d";
                if (strcmp(detached, "abcd") != 0 || strcmp(appended, "abcd") != 0)
                    ADD_FAILURE() << "a copy went wrong";
            }
        });
        EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
        EXPECT_EQ(XString::m_iObjCount, strings + 1);
    }
    XStringData::m_iObjCount = headers; // a plain counter: may have lost updates
}

TEST(XString, Last_of_two_threads_frees_what_the_other_has_read) {
    for (int i = 0; i < 200; i++) {
        XString* a = new XString("abc");
        XString* b = new XString(*a);
        const auto readAndDestroy = [](XString* s) {
            if (strcmp(*s, "abc") != 0)
                ADD_FAILURE() << "the text went wrong";
            delete s;
        };
        std::thread other(readAndDestroy, b);
        readAndDestroy(a);
        other.join();
    }
}

// -- Characters ----------------------------------------------------------------------------------------

TEST(XString, IsEmpty_goes_by_the_length) {
    EXPECT_TRUE(XString().IsEmpty());
    EXPECT_TRUE(XString("").IsEmpty());
    EXPECT_FALSE(XString("a").IsEmpty());
    EXPECT_FALSE(XString("\0", 1).IsEmpty());
    XString s("abc");
    s = "";
    EXPECT_TRUE(s.IsEmpty());
    s = 'x';
    EXPECT_TRUE(s.IsEmpty());
}

TEST(XString, Characters_are_read_by_their_index) {
    const XString s("a\0\xE4", 3);
    EXPECT_EQ(s.GetAt(0), 'a');
    EXPECT_EQ(s.GetAt(1), '\0');
    EXPECT_EQ(s.GetAt(2), '\xE4');
    EXPECT_EQ(s[0], 'a');
    EXPECT_EQ(s[1], '\0');
    EXPECT_EQ(s[2], '\xE4');
    XString changeable("abc");
    EXPECT_EQ(changeable[1], 'b');
}

TEST(XString, Characters_outside_the_length_abort) {
    const XString s("abc");
    EXPECT_DEATH(s.GetAt(3), kIndexAssertion);
    EXPECT_DEATH(s.GetAt(-1), kIndexAssertion);
    EXPECT_DEATH(s[3], kIndexAssertion);
    EXPECT_DEATH(s[-1], kIndexAssertion);
    EXPECT_DEATH(XString().GetAt(0), kIndexAssertion);
    XString assigned;
    assigned = 'x';
    EXPECT_DEATH(assigned[0], kIndexAssertion);
}

TEST(XString, SetAt_replaces_a_character_in_place) {
    XString s = WithBuffer("abc", 12);
    s.m_pStrData->m_iBlockSize = 7;
    const XStringData* header = s.m_pStrData;
    s.SetAt(1, '\xE4');
    EXPECT_EQ(s.m_pStrData, header);
    EXPECT_EQ(State(s), "'a\xE4"
                        "c' length 3 size 12 refs 1 block 7");
    s.SetAt(2, '\0');
    EXPECT_EQ(Content(s), std::string("a\xE4\0", 3));
}

TEST(XString, SetAt_detaches) {
    XString a = WithBuffer("abc", 12);
    a.m_pStrData->m_iBlockSize = 7;
    const XString b(a);
    a.SetAt(0, 'x');
    EXPECT_EQ(State(a), "'xbc' length 3 size 12 refs 1 block 7");
    EXPECT_EQ(State(b), "'abc' length 3 size 12 refs 1 block 7");
}

TEST(XString, SetAt_outside_the_length_aborts) {
    XString s("abc");
    EXPECT_DEATH(s.SetAt(3, 'x'), kIndexAssertion);
    EXPECT_DEATH(s.SetAt(-1, 'x'), kIndexAssertion);
    XString empty;
    EXPECT_DEATH(empty.SetAt(0, 'x'), kIndexAssertion);
}

TEST(XString, SetAt_of_a_locked_buffer_faults) {
    XString s("abc");
    s.LockBuffer();
    EXPECT_DEATH(s.SetAt(0, 'x'), "");
}

// -- Direct writes -------------------------------------------------------------------------------------

TEST(XString, GetBuffer_has_room_for_the_characters_and_a_NUL) {
    for (const char* text : {"", "abc"}) {
        for (const unsigned int size : {4U, 16U, 17U}) {
            for (const int min : {0, 1, 2, 3, 4, 5, 14, 15, 16, 17, 31, 32, 33}) {
                for (const bool shared : {false, true}) {
                    SCOPED_TRACE(Text("'%s' in %u bytes, %d, shared %d", text, size, min, shared));
                    XString s = WithBuffer(text, size);
                    const XString other(shared ? s : XString());
                    char* buffer = s.GetBuffer(min);
                    ASSERT_NE(buffer, nullptr);
                    EXPECT_EQ(buffer, s.m_pStrData->m_pszData);
                    EXPECT_STREQ(buffer, text);
                    EXPECT_TRUE(s.m_pStrData->m_bLocked);
                    EXPECT_EQ(s.m_pStrData->m_iRefCount, 1);
                    EXPECT_GE(s.m_pStrData->m_uiBuffSize, static_cast<unsigned int>(min) + 1);
                    if (static_cast<unsigned int>(min) < size) {
                        EXPECT_EQ(s.m_pStrData->m_uiBuffSize, size) << "there was room";
                    }
                    memset(buffer, 'x', static_cast<size_t>(min));
                    buffer[min] = '\0';
                    s.ReleaseBuffer();
                    EXPECT_EQ(Content(s), std::string(static_cast<size_t>(min), 'x'));
                    if (shared) {
                        EXPECT_EQ(State(other),
                                  Text("'%s' length %zu size %u refs 1 block -1", text, strlen(text), size));
                    }
                }
            }
        }
    }
}

TEST(XString, GetBuffer_of_an_empty_string_makes_room) {
    for (const bool shared : {false, true}) {
        for (const int min : {1, 15, 16, 100}) {
            SCOPED_TRACE(Text("%d, shared %d", min, shared));
            XString s;
            const XString other(shared ? s : XString());
            char* buffer = s.GetBuffer(min);
            ASSERT_NE(buffer, nullptr);
            memset(buffer, 'x', static_cast<size_t>(min));
            buffer[min] = '\0';
            s.ReleaseBuffer();
            EXPECT_EQ(Content(s), std::string(static_cast<size_t>(min), 'x'));
            EXPECT_EQ(State(other), kFresh);
        }
    }
}

TEST(XString, GetBuffer_for_a_character_makes_room_where_the_buffer_is_one_byte) {
    XString s = WithBuffer("", 1);
    ASSERT_NE(s.GetBuffer(1), nullptr);
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 16U);
}

TEST(XString, GetBuffer_without_a_buffer_and_without_a_wish_is_null) {
    XString s;
    EXPECT_EQ(s.GetBuffer(), nullptr);
    s.UnlockBuffer();
    EXPECT_EQ(s.GetBuffer(0), nullptr);
    s.UnlockBuffer();
    EXPECT_EQ(s.GetBuffer(-1), nullptr);
    s.UnlockBuffer();
    EXPECT_EQ(State(s), kFresh);
}

TEST(XString, GetBuffer_without_memory_keeps_a_shared_string) {
    for (const int min : {0, 100}) {
        SCOPED_TRACE(min);
        XString s("abc");
        const XString other(s);
        const Attempt attempt = Without(FailAllocation::OnlyMalloc, [&] { s.GetBuffer(min); });
        EXPECT_EQ(attempt.outcome, "memory exception");
        EXPECT_EQ(attempt.balance, 0);
        EXPECT_EQ(s.m_pStrData, other.m_pStrData);
        EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 2 block -1");
    }
}

TEST(XString, GetBufferSetLength_sets_the_length_and_ends_the_text_there) {
    for (const bool shared : {false, true}) {
        for (const int length : {0, 1, 2, 3, 4, 5, 15, 16, 100}) {
            SCOPED_TRACE(Text("%d, shared %d", length, shared));
            XString s("abcd");
            const XString other(shared ? s : XString());
            char* buffer = s.GetBufferSetLength(length);
            ASSERT_NE(buffer, nullptr);
            EXPECT_EQ(buffer, s.m_pStrData->m_pszData);
            EXPECT_TRUE(s.m_pStrData->m_bLocked);
            EXPECT_EQ(s.m_pStrData->m_iRefCount, 1);
            EXPECT_EQ(s.GetLength(), length);
            EXPECT_EQ(buffer[length], '\0');
            EXPECT_EQ(strncmp(buffer, "abcd", static_cast<size_t>(length < 4 ? length : 4)), 0);
            memset(buffer, 'x', static_cast<size_t>(length));
            s.UnlockBuffer();
            EXPECT_EQ(Content(s), std::string(static_cast<size_t>(length), 'x'));
            if (shared) {
                EXPECT_EQ(State(other), "'abcd' length 4 size 5 refs 1 block -1");
            }
        }
    }
}

TEST(XString, GetBufferSetLength_of_an_empty_string_makes_a_text) {
    XString s;
    ASSERT_NE(s.GetBufferSetLength(0), nullptr);
    s.UnlockBuffer();
    EXPECT_EQ(State(s), "'' length 0 size 16 refs 1 block -1");
    XString t;
    memcpy(t.GetBufferSetLength(3), "xyz", 3);
    t.UnlockBuffer();
    EXPECT_EQ(State(t), "'xyz' length 3 size 16 refs 1 block -1");
}

TEST(XString, GetBufferSetLength_of_a_negative_length_aborts) {
    XString s("abc");
    EXPECT_DEATH(s.GetBufferSetLength(-1), kLengthAssertion);
}

TEST(XString, LockBuffer_of_a_string_detaches_and_locks_until_UnlockBuffer) {
    XString a("abc");
    const XString b(a);
    char* text = a.LockBuffer();
    EXPECT_EQ(text, a.m_pStrData->m_pszData);
    EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 1 block -1 locked");
    EXPECT_EQ(State(b), "'abc' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(a.LockBuffer(), nullptr);
    text[0] = 'x';
    a.UnlockBuffer();
    EXPECT_EQ(State(a), "'xbc' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(a.LockBuffer(), text);
    a.UnlockBuffer();
    a.UnlockBuffer();
    EXPECT_FALSE(a.m_pStrData->m_bLocked);
}

TEST(XString, GetAllocLength_is_what_fits_without_growing) {
    EXPECT_EQ(XString().GetAllocLength(), 0);
    EXPECT_EQ(XString("abc").GetAllocLength(), 3);
    EXPECT_EQ(WithBuffer("abc", 16).GetAllocLength(), 15);
    XString s("abc");
    s = "";
    EXPECT_EQ(s.GetAllocLength(), 0);
}

TEST(XString, FreeExtra_cuts_the_buffer_to_the_length) {
    XString s = WithBuffer("abc", 16);
    s.m_pStrData->m_iBlockSize = 7;
    const XStringData* header = s.m_pStrData;
    CallLog log({Call::Malloc, Call::Realloc});
    s.FreeExtra();
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"realloc(4)"}));
    EXPECT_EQ(s.m_pStrData, header);
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block 7");
}

TEST(XString, FreeExtra_changes_nothing_where_nothing_is_to_be_cut) {
    XString shared = WithBuffer("abc", 16);
    const XString other(shared);
    XString exact("abc");
    XString fresh;
    XString assigned;
    assigned = 'x';
    AllocationCounter counter;
    shared.FreeExtra();
    exact.FreeExtra();
    fresh.FreeExtra();
    assigned.FreeExtra();
    const int allocations = counter.Allocations();
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(State(shared), "'abc' length 3 size 16 refs 2 block -1");
    EXPECT_EQ(shared.m_pStrData, other.m_pStrData);
    EXPECT_EQ(State(exact), "'abc' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(State(fresh), kFresh);
    EXPECT_EQ(State(assigned), "'x' length 0 size 2 refs 1 block -1");
}

TEST(XString, FreeExtra_ends_a_text_that_has_no_NUL) {
    XString s = WithBuffer("abc", 16);
    s.Insert(1, 'x'); // in place: the length stays 3, and no NUL is written
    s.FreeExtra();
    EXPECT_EQ(State(s), "'axb' length 3 size 4 refs 1 block -1");
}

// -- Parts ---------------------------------------------------------------------------------------------

TEST(XString, Left_is_a_string_of_the_first_characters) {
    const XString s("abcd");
    EXPECT_EQ(State(s.Left(2)), "'ab' length 2 size 3 refs 1 block -1");
    EXPECT_EQ(State(s.Left(4)), "'abcd' length 4 size 5 refs 1 block -1");
    EXPECT_EQ(State(s.Left(INT_MAX)), "'abcd' length 4 size 5 refs 1 block -1");
    EXPECT_EQ(State(s.Left(0)), kFresh);
    EXPECT_EQ(State(s.Left(-1)), kFresh);
    EXPECT_EQ(State(XString().Left(2)), kFresh);
    EXPECT_EQ(Content(XString("a\0b", 3).Left(2)), std::string("a\0", 2));
    EXPECT_EQ(State(s), "'abcd' length 4 size 5 refs 1 block -1");
}

TEST(XString, Right_is_a_string_of_the_last_characters) {
    const XString s("abcd");
    EXPECT_EQ(State(s.Right(1)), "'d' length 1 size 2 refs 1 block -1");
    EXPECT_EQ(State(s.Right(3)), "'bcd' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(State(s.Right(0)), kFresh);
    EXPECT_EQ(State(s.Right(-1)), kFresh);
    EXPECT_EQ(State(s.Right(INT_MIN)), kFresh);
    EXPECT_EQ(Content(XString("a\0b", 3).Right(2)), std::string("\0b", 2));
    EXPECT_EQ(State(s), "'abcd' length 4 size 5 refs 1 block -1");
}

TEST(XString, Right_of_no_fewer_than_there_are_is_all_of_it) {
    const XString s("abcd");
    EXPECT_EQ(Content(s.Right(4)), "abcd");
    EXPECT_EQ(Content(s.Right(5)), "abcd");
    EXPECT_EQ(Content(s.Right(INT_MAX)), "abcd");
    EXPECT_TRUE(XString().Right(2).IsEmpty());
}

TEST(XString, Right_has_a_header_of_its_own_also_where_it_is_all_of_it) {
    const XString s("abcd");
    XString right = s.Right(4);
    EXPECT_NE(right.m_pStrData, s.m_pStrData);
    right += 'x'; // in place
    EXPECT_STREQ(s, "abcd");
}

// -- Searching and trimming with what is left out --------------------------------------------------------

TEST(XString, ReverseFind_and_FindOneOf_search_constant_strings_too) {
    const XString constant("abca");
    EXPECT_EQ(constant.ReverseFind('a'), 3);
    EXPECT_EQ(constant.FindOneOf("xc"), 2);
    XString changeable("abca");
    EXPECT_EQ(changeable.ReverseFind('a'), 3);
    EXPECT_EQ(changeable.FindOneOf("xc"), 2);
}

TEST(XString, Searches_start_and_deletions_count_by_default) {
    XString s("abcab");
    EXPECT_EQ(s.Find('b'), 1);
    EXPECT_EQ(s.Find("ca"), 2);
    EXPECT_EQ(s.Delete(2), 4);
    EXPECT_STREQ(s, "abab");
}

TEST(XString, Trims_without_argument_remove_blanks_tabs_and_line_ends) {
    XString s(" \t\r\n a \n\r\t ");
    const XString other(s);
    s.TrimLeft();
    EXPECT_STREQ(s, "a \n\r\t ");
    s.TrimRight();
    EXPECT_STREQ(s, "a");
    EXPECT_STREQ(other, " \t\r\n a \n\r\t ");
    for (const char* kept : {"\va\v", "\fa\f", "a"}) {
        XString t(kept);
        const XString sharer(t);
        t.TrimLeft();
        t.TrimRight();
        EXPECT_EQ(t.m_pStrData, sharer.m_pStrData);
    }
    XString blank(" \t");
    blank.TrimRight();
    EXPECT_EQ(State(blank), "'' length 0 size 3 refs 1 block -1");
}

TEST(XString, TrimRight_without_argument_aborts_for_an_empty_string) {
    XString s;
    EXPECT_DEATH(s.TrimRight(), kIndexAssertion);
}

TEST(XString, TrimLeft_without_argument_faults_without_a_text) {
    XString s;
    EXPECT_DEATH(s.TrimLeft(), "");
}

// -- Comparing -----------------------------------------------------------------------------------------

namespace {

const char* const kNoText = NULL;

int Sign(int n) { return n < 0 ? -1 : n > 0 ? 1 : 0; }

// Texts in their order, NULL being "".
struct Comparison {
    const char *a, *b;
    int sign;
};

const Comparison kComparisons[] = {
    {"abc", "abc", 0},     {"abc", "abd", -1}, {"abd", "abc", 1},   {"ab", "abc", -1},    {"abc", "ab", 1},
    {"", "abc", -1},       {"abc", "", 1},     {"", "", 0},         {kNoText, "abc", -1}, {"abc", kNoText, 1},
    {kNoText, kNoText, 0}, {kNoText, "", 0},   {"", kNoText, 0},    {"B", "a", -1},       {"a", "B", 1},
    {"z", "\xE4", -1},     {"\xE4", "z", 1},   {"\xE4", "\xE4", 0}, {"\x7F", "\x80", -1}, {"10", "9", -1},
};

// The operators' results in the order == != < > <= >=.
template <class A, class B> std::vector<bool> Compared(const A& a, const B& b) {
    return {a == b, a != b, a<b, a> b, a <= b, a >= b};
}

} // namespace

TEST(XString, Comparison_operators_agree_in_all_forms) {
    for (const Comparison& c : kComparisons) {
        SCOPED_TRACE(Text("'%s' and '%s'", c.a ? c.a : "(none)", c.b ? c.b : "(none)"));
        const XString a(c.a);
        const XString b(c.b);
        const std::vector<bool> expected = {c.sign == 0, c.sign != 0, c.sign<0, c.sign> 0, c.sign <= 0,
                                            c.sign >= 0};
        EXPECT_EQ(Compared(a, b), expected);
        EXPECT_EQ(Compared(a, c.b), expected);
        EXPECT_EQ(Compared(c.a, b), expected);
    }
}

TEST(XString, Compare_and_Collate_give_the_order) {
    for (const Comparison& c : kComparisons) {
        SCOPED_TRACE(Text("'%s' and '%s'", c.a ? c.a : "(none)", c.b ? c.b : "(none)"));
        const XString a(c.a);
        EXPECT_EQ(Sign(a.Compare(c.b)), c.sign);
        EXPECT_EQ(Sign(a.Collate(c.b)), c.sign) << "in the C locale";
        EXPECT_EQ(Sign(a.Compare(XString(c.b))), c.sign);
        EXPECT_EQ(Sign(a.Collate(XString(c.b))), c.sign);
    }
}

TEST(XString, CompareNoCase_ignores_the_case_of_letters) {
    const Comparison cases[] = {
        {"abc", "ABC", 0},     {"ABC", "abc", 0},   {"aBc", "AbD", -1}, {"B", "a", 1},    {"a", "B", -1},
        {"ab", "ABC", -1},     {kNoText, "A", -1},  {"A", kNoText, 1},  {kNoText, "", 0}, {"", kNoText, 0},
        {kNoText, kNoText, 0}, {"\xE4", "\xE4", 0}, {"[", "a", -1},
    };
    for (const Comparison& c : cases) {
        SCOPED_TRACE(Text("'%s' and '%s'", c.a ? c.a : "(none)", c.b ? c.b : "(none)"));
        EXPECT_EQ(Sign(XString(c.a).CompareNoCase(c.b)), c.sign);
    }
    EXPECT_EQ(XString("\xE4").CompareNoCase("\xC4") == 0, false) << "in the C locale";
}

TEST(XString, Comparisons_look_at_the_text_and_not_at_its_address) {
    XString a("abc");
    const XString b("abc");
    const std::string c("abc");
    const std::vector<bool> equal = {true, false, false, false, true, true};
    EXPECT_NE(static_cast<const char*>(a), static_cast<const char*>(b));
    EXPECT_EQ(Compared(a, b), equal);
    EXPECT_EQ(Compared(a, c.c_str()), equal);
    EXPECT_EQ(Compared(c.c_str(), a), equal);
    EXPECT_TRUE(a == "abc" && "abc" == a);

    const XString sharer(a);
    EXPECT_EQ(Compared(a, sharer), equal);
    const char* old = a;
    a.SetAt(0, 'x');
    EXPECT_EQ(Compared(sharer, old), equal);
    EXPECT_TRUE(a != sharer && a > sharer);
}

TEST(XString, Comparisons_end_at_the_first_NUL) {
    const XString a("ab\0c", 4);
    const XString b("ab\0d", 4);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a == "ab");
    EXPECT_EQ(a.Compare("ab"), 0);
    EXPECT_EQ(a.CompareNoCase("AB"), 0);
    EXPECT_EQ(a.Collate("ab"), 0);
}

TEST(XString, Comparisons_see_an_assigned_character) {
    XString s;
    s = 'x';
    EXPECT_TRUE(s == "x");
    EXPECT_FALSE(s == "");
}

TEST(XString, Comparisons_change_nothing) {
    const XString a("abc");
    const XString b(a);
    AllocationCounter counter;
    const bool equal = a == b && a == "abc" && "abc" == a && !(a < b) && a.Compare("abc") == 0;
    const int allocations = counter.Allocations();
    EXPECT_TRUE(equal);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(State(a), "'abc' length 3 size 4 refs 2 block -1");
}

// -- Joining -------------------------------------------------------------------------------------------

TEST(XString, Sums_of_texts_are_new_strings_in_all_forms) {
    const struct {
        const char *a, *b, *state;
    } cases[] = {
        {"ab", "cde", "'abcde' length 5 size 6 refs 1 block -1"},
        {"", "cde", "'cde' length 3 size 4 refs 1 block -1"},
        {"ab", "", "'ab' length 2 size 3 refs 1 block -1"},
        {kNoText, "cde", "'cde' length 3 size 4 refs 1 block -1"},
        {"ab", kNoText, "'ab' length 2 size 3 refs 1 block -1"},
        {"\xE4", "\xFF", "'\xE4\xFF' length 2 size 3 refs 1 block -1"},
        {"", "", kFresh},
        {kNoText, kNoText, kFresh},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("'%s' and '%s'", c.a ? c.a : "(none)", c.b ? c.b : "(none)"));
        const XString a(c.a);
        const XString b(c.b);
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        EXPECT_EQ(State(a + b), c.state);
        EXPECT_EQ(State(a + c.b), c.state);
        EXPECT_EQ(State(c.a + b), c.state);
        EXPECT_STREQ(a, c.a && *c.a ? c.a : kNoText);
        EXPECT_STREQ(b, c.b && *c.b ? c.b : kNoText);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
}

TEST(XString, Sums_of_strings_keep_NULs) {
    const XString s("a\0b", 3);
    EXPECT_EQ(Content(s + s), std::string("a\0ba\0b", 6));
    EXPECT_EQ(Content(s + "cd"), std::string("a\0bcd", 5));
    EXPECT_EQ(Content("cd" + s), std::string("cda\0b", 5));
}

TEST(XString, Sums_go_on) {
    const XString s("b");
    const XString sum = "a" + s + "c" + 'd' + s + s;
    EXPECT_EQ(State(sum), "'abcdbb' length 6 size 7 refs 1 block -1");
}

TEST(XString, Sums_do_not_see_an_assigned_character) {
    XString s;
    s = 'x';
    EXPECT_EQ(State(s + "yz"), "'yz' length 2 size 3 refs 1 block -1");
    EXPECT_EQ(State("yz" + s), "'yz' length 2 size 3 refs 1 block -1");
    EXPECT_EQ(State(s + s), kFresh);
}

TEST(XString, Sums_without_memory_leave_nothing_behind) {
    const XString s("abc");
    const struct {
        const char* name;
        std::function<void()> run;
    } cases[] = {
        {"string, string", [&s] { const XString sum = s + s; }},
        {"string, text", [&s] { const XString sum = s + "de"; }},
        {"text, string", [&s] { const XString sum = "de" + s; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        Attempt attempt = Without(FailAllocation::OnlyMalloc, c.run);
        EXPECT_EQ(attempt.outcome, "memory exception");
        EXPECT_EQ(attempt.balance, 0);
        attempt = Without(FailAllocation::OnlyNew, c.run);
        EXPECT_EQ(attempt.outcome, "bad_alloc");
        EXPECT_EQ(attempt.balance, 0);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
        EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1");
    }
}
