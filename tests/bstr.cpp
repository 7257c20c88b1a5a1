// BSTR functions and _bstr_t, and the conversions of a string to a BSTR.
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/bstr.h>

#include "BstrFixtures.h"
#include "support/interpose.h"
#include "support/recording_host.h"
#include "support/text.h"

namespace {

const uint32_t kSignature = 0xCDEADBEE;
const char* const kNull = NULL;

uint32_t Word(const char* p, int offset) {
    uint32_t word;
    memcpy(&word, p + offset, sizeof word);
    return word;
}

uint32_t SignatureOf(BSTR bstr) { return Word(bstr, -8); }

// All bytes that the header counts, taken from the block itself.
std::string Content(BSTR bstr) { return std::string(bstr, Word(bstr, -4)); }

// Takes a BSTR's content and frees it; "NULL" for NULL.
std::string Take(BSTR bstr) {
    if (!bstr)
        return "NULL";
    const std::string content = Content(bstr);
    EXPECT_EQ(SignatureOf(bstr), kSignature);
    EXPECT_EQ(bstr[content.size()], '\0');
    SysFreeString(bstr);
    return content;
}

BSTR FormatAny(const char* format, ...) {
    va_list args;
    va_start(args, format);
    BSTR bstr = BSTRFormatV(format, args);
    va_end(args);
    return bstr;
}

// What the C library makes of a format without a limit.
std::string Full(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = TextV(format, args);
    va_end(args);
    return text;
}

// Text that is no BSTR, with known bytes in front of it.
struct NoBstr {
    char before[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    char text[8] = "abc";
};

// Has the next block of this size most likely begin with other bytes than NULs. The size is one that the C
// library does not keep apart for each thread.
void LeaveDirt(size_t size) {
    char* block = static_cast<char*>(malloc(size));
    memset(block, 'z', size);
    // Else the compiler would leave out the writes to a block that is freed.
    __asm__ volatile("" : : "r"(block) : "memory");
    free(block);
}

// The events of one hold of a lock.
const std::vector<ExpectedEvent> kOneHold = {{23, 8, Like("CMutex::Lock Being Called with a 4294967295 *")},
                                             {23, 9, Like("CMutex::Lock returning true thread *")},
                                             {23, 8, Like("CMutex::UnLock Being Called on thread *")},
                                             {23, 9, Like("CMutex::Unlock succeeeded on thread *")}};

} // namespace

// -- Load

TEST(bstr, Loading_the_library_posts_the_two_events_of_the_lock_s_construction) {
    EXPECT_TRUE(SameEvents(Recorder::LoadEvents(), {{23, 9, Like("CMutex Creator Called on thread *")},
                                                    {23, 9, Like("CMutex Creator exiting on thread *")}}));
}

// -- SysAllocString

TEST(bstr, SysAllocString_makes_signature_length_text_and_NUL) {
    BSTR bstr = SysAllocString("abc");
    ASSERT_NE(bstr, nullptr);
    EXPECT_EQ(Word(bstr, -8), kSignature);
    EXPECT_EQ(Word(bstr, -4), 3U);
    EXPECT_EQ(memcmp(bstr, "abc", 4), 0);
    SysFreeString(bstr);
}

TEST(bstr, SysAllocString_takes_one_block_of_9_bytes_more) {
    CallLog log({Call::Malloc, Call::Realloc, Call::Calloc});
    BSTR abc = SysAllocString("abc");
    BSTR empty = SysAllocString("");
    const std::vector<std::string> calls = log.Texts();
    EXPECT_EQ(calls, (std::vector<std::string>{"malloc(12)", "malloc(9)"}));
    SysFreeString(abc);
    SysFreeString(empty);
}

TEST(bstr, SysAllocString_of_an_empty_text_is_a_BSTR_of_length_0) {
    BSTR bstr = SysAllocString("");
    ASSERT_NE(bstr, nullptr);
    EXPECT_TRUE(IsBSTR(bstr, true));
    EXPECT_EQ(SysStringLen(bstr), 0U);
    EXPECT_EQ(*bstr, '\0');
    SysFreeString(bstr);
}

TEST(bstr, SysAllocString_of_NULL_is_NULL) {
    EXPECT_EQ(SysAllocString(NULL), nullptr);
    EXPECT_EQ(SysAllocString(kNull), nullptr);
}

TEST(bstr, SysAllocString_of_a_standard_string_stops_at_its_first_NUL) {
    EXPECT_EQ(Take(SysAllocString(std::string("abc"))), "abc");
    EXPECT_EQ(Take(SysAllocString(std::string())), "");
    EXPECT_EQ(Take(SysAllocString(std::string("ab\0cd", 5))), "ab");
}

TEST(bstr, SysAllocString_copies_the_text) {
    char text[] = "abc";
    BSTR bstr = SysAllocString(text);
    text[0] = 'x';
    EXPECT_EQ(Take(bstr), "abc");
}

// -- SysAllocStringLen

TEST(bstr, SysAllocStringLen_longer_than_the_text_stores_the_length_given) {
    BSTR bstr = SysAllocStringLen("abc", 5);
    EXPECT_EQ(SignatureOf(bstr), kSignature);
    EXPECT_EQ(SysStringLen(bstr), 5U);
    EXPECT_EQ(memcmp(bstr, "abc", 3), 0);
    EXPECT_EQ(bstr[5], '\0');
    SysFreeString(bstr);
}

TEST(bstr, SysAllocStringLen_copies_no_further_than_a_NUL_or_the_length) {
    BSTR stopped = SysAllocStringLen("ab\0cd", 5);
    EXPECT_EQ(SysStringLen(stopped), 5U);
    EXPECT_EQ(memcmp(stopped, "ab", 2), 0);
    EXPECT_EQ(stopped[5], '\0');
    SysFreeString(stopped);
    EXPECT_EQ(Take(SysAllocStringLen("abcdef", 2)), "ab");
    EXPECT_EQ(Take(SysAllocStringLen("abc", 3)), "abc");
    EXPECT_EQ(Take(SysAllocStringLen("abc", 0)), "");
    EXPECT_EQ(Take(SysAllocStringLen("", 0)), "");
}

TEST(bstr, SysAllocStringLen_of_NULL_has_the_length_and_a_NUL_in_front) {
    BSTR bstr = SysAllocStringLen(NULL, 3);
    EXPECT_EQ(SignatureOf(bstr), kSignature);
    EXPECT_EQ(SysStringLen(bstr), 3U);
    EXPECT_EQ(bstr[0], '\0');
    EXPECT_EQ(bstr[3], '\0');
    SysFreeString(bstr);
    EXPECT_EQ(Take(SysAllocStringLen(NULL, 0)), "");
}

TEST(bstr, SysAllocStringLen_ends_the_block_with_a_NUL_whatever_was_there) {
    const unsigned long length = 20000;
    LeaveDirt(length + 9);
    BSTR text = SysAllocStringLen("abc", length);
    EXPECT_EQ(text[length], '\0');
    SysFreeString(text);
    LeaveDirt(length + 9);
    BSTR null = SysAllocStringLen(NULL, length);
    EXPECT_EQ(null[0], '\0');
    EXPECT_EQ(null[length], '\0');
    SysFreeString(null);
    LeaveDirt(length + 9);
    BSTR whole = SysAllocString(std::string(length, 'x'));
    EXPECT_EQ(whole[length], '\0');
    SysFreeString(whole);
}

TEST(bstr, SysAllocStringLen_takes_one_block_of_9_bytes_more) {
    CallLog log({Call::Malloc, Call::Realloc, Call::Calloc});
    BSTR bstr = SysAllocStringLen("abc", 100);
    const std::vector<std::string> calls = log.Texts();
    EXPECT_EQ(calls, (std::vector<std::string>{"malloc(109)"}));
    SysFreeString(bstr);
}

TEST(bstr, SysAllocStringLen_asks_for_the_largest_block_that_32_bits_can_count) {
    CallLog log({Call::Malloc});
    Interpose fail(Call::Malloc);
    fail.OnThisThread().Fail(ENOMEM);
    BSTR bstr = SysAllocStringLen("abc", 0xFFFFFFFFUL - 9);
    const std::vector<CallRecord> calls = log.Records();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(static_cast<unsigned int>(calls[0].number), 0xFFFFFFFFU);
    EXPECT_EQ(bstr, nullptr);
}

TEST(bstr, SysAllocStringLen_of_a_length_that_a_header_cannot_hold_is_NULL) {
    EXPECT_EQ(SysAllocStringLen("abc", 0xFFFFFFFFUL), nullptr);
    EXPECT_EQ(SysAllocStringLen("abc", 0xFFFFFFFFUL - 8), nullptr);
    EXPECT_EQ(SysAllocStringLen("abc", ULONG_MAX), nullptr);
}

// -- SysFreeString

TEST(bstr, SysFreeString_frees_the_block_and_clears_the_variable) {
    LibraryAllocations library;
    BSTR bstr = SysAllocString("abc");
    SysFreeString(bstr);
    const int balance = library.counter.Balance();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(bstr, nullptr);
}

TEST(bstr, SysFreeString_of_NULL_does_nothing) {
    BSTR bstr = NULL;
    SysFreeString(bstr);
    EXPECT_EQ(bstr, nullptr);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(bstr, SysFreeString_clears_the_signature_before_it_frees) {
    BSTR bstr = SysAllocString("abc");
    const char* text = bstr;
    uint32_t signature = kSignature;
    uint32_t length = 0;
    int freed = 0;
    {
        Interpose free(Call::Free);
        free.OnThisThread().Before([&] {
            signature = Word(text, -8);
            length = Word(text, -4);
        });
        SysFreeString(bstr);
        freed = free.Acted();
    }
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(signature, 0U);
    EXPECT_EQ(length, 3U);
}

TEST(bstr, SysFreeString_of_something_else_logs_and_leaves_it) {
    NoBstr none;
    BSTR bstr = none.text;
    SysFreeString(bstr);
    EXPECT_EQ(bstr, none.text);
    EXPECT_STREQ(none.text, "abc");
    EXPECT_EQ(memcmp(none.before, "\1\2\3\4\5\6\7\10", 8), 0);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(none.text)}));
}

TEST(bstr, SysFreeString_of_a_plain_malloced_text_logs_and_leaves_it) {
    char* const block = static_cast<char*>(calloc(1, 20)); // the text has bytes of its own in front
    BSTR text = strcpy(block + 8, "some text");
    EXPECT_EQ(SysStringLen(text), 0U);
    EXPECT_EQ(SysStringByteLen(text), 0U);
    EXPECT_FALSE(IsBSTR(text, false));
    SysFreeString(text);
    EXPECT_EQ(text, block + 8);
    EXPECT_STREQ(text, "some text");
    EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(block + 8)}));
    free(block);
}

TEST(bstr, SysFreeString_of_a_second_copy_logs) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the second call reads freed memory, which ThreadSanitizer reports";
#endif
    for (size_t length : {3U, 40U, 20000U}) {
        SCOPED_TRACE(length);
        Recorder::Clear();
        BSTR bstr = SysAllocString(std::string(length, 'x'));
        BSTR copy = bstr;
        SysFreeString(bstr);
        char* const same = copy;
        SysFreeString(copy);
        EXPECT_EQ(copy, same);
        EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(same)}));
    }
}

TEST(bstr, SysFreeString_takes_nothing_but_a_variable) {
    static_assert(std::is_invocable_v<decltype(&SysFreeString), BSTR&>);
    static_assert(!std::is_invocable_v<decltype(&SysFreeString), BSTR>);
    static_assert(!std::is_invocable_v<decltype(&SysFreeString), _bstr_t&>);
    static_assert(!std::is_invocable_v<decltype(&SysFreeString), const char*&>);
}

// -- Lengths and recognition

TEST(bstr, Lengths_are_the_stored_length) {
    BSTR bstr = SysAllocStringLen("ab\0cd", 5);
    EXPECT_EQ(SysStringLen(bstr), 5U);
    EXPECT_EQ(SysStringByteLen(bstr), 5U);
    SysFreeString(bstr);
}

TEST(bstr, Lengths_of_NULL_are_0) {
    EXPECT_EQ(SysStringLen(NULL), 0U);
    EXPECT_EQ(SysStringByteLen(NULL), 0U);
}

TEST(bstr, Lengths_of_something_else_are_0_without_an_event) {
    NoBstr none;
    EXPECT_EQ(SysStringLen(none.text), 0U);
    EXPECT_EQ(SysStringByteLen(none.text), 0U);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(bstr, IsBSTR_of_NULL_is_as_asked) {
    EXPECT_TRUE(IsBSTR(NULL, false));
    EXPECT_FALSE(IsBSTR(NULL, true));
}

TEST(bstr, IsBSTR_does_not_mind_the_flag_otherwise) {
    BSTR bstr = SysAllocString("abc");
    NoBstr none;
    for (bool nullIsInvalid : {false, true}) {
        EXPECT_TRUE(IsBSTR(bstr, nullIsInvalid));
        EXPECT_FALSE(IsBSTR(none.text, nullIsInvalid));
    }
    SysFreeString(bstr);
}

TEST(bstr, IsBSTR_goes_by_the_word_8_bytes_in_front_and_nothing_else) {
    const struct {
        uint32_t word;
        bool expected;
    } cases[] = {{0xCDEADBEE, true},  {0, false},          {0xCDEADBEF, false}, {0x4DEADBEE, false},
                 {0xDEADBEEF, false}, {0xEEDBEACD, false}, {0xCDEADBEE, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("%08x", c.word));
        uint32_t block[6] = {0xCDEADBEE, 0xCDEADBEE, c.word, 0xCDEADBEE, 0, 0};
        if (!c.expected)
            block[3] = 0;
        char* text = reinterpret_cast<char*>(&block[4]);
        EXPECT_EQ(IsBSTR(text, true), c.expected);
        EXPECT_EQ(SysStringLen(text), c.expected ? 0xCDEADBEEU : 0U);
    }
}

// -- The lock

TEST(bstr, Functions_hold_the_lock_once) {
    BSTR bstr = SysAllocString("abc");
    NoBstr none;
    BSTR null = NULL;
    const struct {
        const char* name;
        std::function<void()> call;
    } cases[] = {
        {"SysAllocString", [&] { Take(SysAllocString("x")); }}, // and SysFreeString
        {"SysAllocString(NULL)", [&] { SysAllocString(kNull); }},
        {"SysAllocStringLen", [&] { Take(SysAllocStringLen("x", 1)); }},
        {"SysFreeString(NULL)", [&] { SysFreeString(null); }},
        {"SysStringLen", [&] { SysStringLen(bstr); }},
        {"SysStringLen of something else", [&] { SysStringLen(none.text); }},
        {"SysStringByteLen", [&] { SysStringByteLen(bstr); }},
        {"SysStringByteLen of something else", [&] { SysStringByteLen(none.text); }},
        {"IsBSTR", [&] { IsBSTR(bstr, false); }},
        {"IsBSTR of something else", [&] { IsBSTR(none.text, false); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Recorder::Clear();
        c.call();
        std::vector<Event> events = Recorder::AllEvents();
        if (events.size() == 2 * kOneHold.size()) { // the one of SysFreeString behind it
            EXPECT_NE(strstr(c.name, "Alloc"), nullptr);
            events.resize(kOneHold.size());
        }
        EXPECT_TRUE(SameEvents(events, kOneHold));
    }
    SysFreeString(bstr);
}

TEST(bstr, NULL_takes_no_lock_where_it_has_no_header) {
    SysStringLen(NULL);
    SysStringByteLen(NULL);
    IsBSTR(NULL, false);
    IsBSTR(NULL, true);
    EXPECT_TRUE(Recorder::AllEvents().empty());
}

TEST(bstr, Lock_is_held_around_allocation_free_and_log) {
    CallLog log({Call::MutexLock, Call::MutexUnlock, Call::Malloc, Call::Free});
    BSTR bstr = SysAllocString("abc");
    SysFreeString(bstr);
    const std::vector<std::string> calls = log.Texts();
    EXPECT_EQ(calls, (std::vector<std::string>{"pthread_mutex_lock()", "malloc(12)", "pthread_mutex_unlock()",
                                               "pthread_mutex_lock()", "free()", "pthread_mutex_unlock()"}));

    Recorder::Clear();
    NoBstr none;
    BSTR text = none.text;
    SysFreeString(text);
    std::vector<ExpectedEvent> expected = kOneHold;
    expected.insert(expected.begin() + 2, NonBstrEvent(none.text));
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), expected));
}

TEST(bstr, Lock_is_recursive) {
    NoBstr none;
    BSTR text = none.text;
    unsigned int length = 0;
    BSTR inner = SysAllocString("inner");
    {
        Recorder::Hook hook([&](const Event& event) {
            if (event.type == 11)
                length = SysStringLen(inner);
        });
        SysFreeString(text);
    }
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(Recorder::Count([](const Event& event) { return event.type == 23 && event.severity == 1; }), 0)
        << "no lock or unlock failed";
    SysFreeString(inner);
}

TEST(bstr, Threads_may_allocate_look_and_free) {
    Recorder::Pause();
    BSTR shared = SysAllocString("shared");
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([shared] {
            for (int n = 0; n < 500; n++) {
                BSTR bstr = SysAllocString("abc");
                _bstr_t wrapped(shared, true);
                wrapped += bstr;
                if (SysStringLen(bstr) != 3 || !IsBSTR(shared, true) || wrapped.length() != 9)
                    ADD_FAILURE() << "a BSTR went wrong";
                SysFreeString(bstr);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    SysFreeString(shared);
}

// -- Formatting

TEST(bstr, FormatBSTR_makes_a_BSTR_of_the_text) {
    EXPECT_EQ(Take(FormatBSTR("%d", 7)), "7");
    EXPECT_EQ(Take(FormatBSTR("%s-%d-%c|%5.1f|%ls|100%%", "abc", 42, 'x', 1.25, L"wide")),
              "abc-42-x|  1.2|wide|100%");
    EXPECT_EQ(Take(FormatAny("")), "");
    EXPECT_EQ(Take(FormatBSTR("a%cb", 0)), "a");
}

TEST(bstr, BSTRFormatV_takes_a_list) {
    EXPECT_EQ(Take(FormatAny("%d %s %f", 7, "abc", 1.0)), "7 abc 1.000000");
}

TEST(bstr, FormatBSTR_formats_on_the_stack_up_to_an_estimate_of_16383) {
    const std::string text(16382, 'x');
    CallLog log({Call::Vsnprintf, Call::Malloc});
    BSTR bstr = FormatBSTR("%s", text.c_str());
    const std::vector<std::string> calls = log.Texts();
    EXPECT_EQ(calls, (std::vector<std::string>{"vsnprintf(16384)", "malloc(16391)"}));
    EXPECT_EQ(Take(bstr), text);
}

TEST(bstr, FormatBSTR_formats_into_a_block_above_with_the_estimate_as_the_limit) {
    for (int length : {16383, 16384, 20000, 100000}) {
        SCOPED_TRACE(length);
        const std::string text(static_cast<size_t>(length), 'x');
        CallLog log({Call::Vsnprintf, Call::Malloc});
        LibraryAllocations library;
        BSTR bstr = FormatBSTR("%s", text.c_str());
        const int balance = library.counter.Balance();
        const std::vector<std::string> calls = log.Texts();
        EXPECT_EQ(calls,
                  (std::vector<std::string>{Text("malloc(%d)", length + 2), Text("vsnprintf(%d)", length + 1),
                                            Text("malloc(%d)", length + 9)}));
        EXPECT_EQ(balance, 1) << "the BSTR is all that is left";
        EXPECT_EQ(Take(bstr), text);
    }
}

TEST(bstr, FormatBSTR_is_not_cut_by_a_small_estimate_on_the_stack) {
    EXPECT_EQ(Take(FormatAny("%E", 1.5)), "1.500000E+00");
    EXPECT_EQ(Take(FormatAny("%+f", 1.0)), "+1.000000");
    EXPECT_EQ(Take(FormatAny("%.200e", 1.5)), Full("%.200e", 1.5));
    EXPECT_EQ(Take(FormatAny("%lld", 123456789012LL)), "123456789012");
}

TEST(bstr, FormatBSTR_is_cut_at_16383_on_the_stack) {
    // Positions of arguments are unknown to the estimate, which sees a 2 byte conversion and plain text.
    EXPECT_EQ(Take(FormatAny("%1$20000d", 7)), std::string(16383, ' '));
    EXPECT_EQ(Take(FormatAny("%1$16383d", 7)), std::string(16382, ' ') + "7");
}

TEST(bstr, FormatBSTR_is_cut_by_a_small_estimate_in_a_block) {
    const std::string text(16383, 'x');
    EXPECT_EQ(Take(FormatAny("%s%E", text.c_str(), 1.5)), text + "1.");
}

TEST(bstr, FormatBSTR_aborts_on_a_negative_width_or_precision) {
    const char* const function = "int CalcMaxFormattedStringLen\\(const char\\*, __va_list_tag\\*\\)";
    EXPECT_DEATH(FormatBSTR("%*d", -5, 7),
                 Text("Windows/XString:1348: %s: Assertion `nWidth >= 0' failed", function));
    EXPECT_DEATH(FormatBSTR("%.*d", -5, 7),
                 Text("Windows/XString:1368: %s: Assertion `nPrecision >= 0' failed", function));
}

// -- Out of memory

TEST(bstr, Functions_without_memory_give_NULL_and_leave_nothing_behind) {
    const std::string text(20000, 'x');
    const std::string shortText("abc");
    const XString string("abc");
    const struct {
        const char* name;
        std::function<BSTR()> make;
        int allocations;
    } cases[] = {
        {"SysAllocString", [] { return SysAllocString("abc"); }, 1},
        {"SysAllocString of a standard string", [&] { return SysAllocString(shortText); }, 1},
        {"SysAllocStringLen", [] { return SysAllocStringLen("abc", 3); }, 1},
        {"SysAllocStringLen of NULL", [] { return SysAllocStringLen(NULL, 3); }, 1},
        {"FormatBSTR", [] { return FormatBSTR("%d", 7); }, 1},
        {"FormatBSTR of a long text", [&] { return FormatBSTR("%s", text.c_str()); }, 2},
        {"AllocSysString", [&] { return string.AllocSysString(); }, 1},
    };
    for (const auto& c : cases) {
        for (int n = 1; n <= c.allocations; n++) {
            SCOPED_TRACE(Text("%s, allocation %d", c.name, n));
            LibraryAllocations library;
            FailAllocation fail(n);
            BSTR bstr = c.make();
            fail.Stop();
            const int balance = library.counter.Balance();
            EXPECT_TRUE(fail.Happened());
            EXPECT_EQ(bstr, nullptr);
            EXPECT_EQ(balance, 0);
        }
    }
}

TEST(bstr, Running_out_of_memory_posts_no_event) {
    const std::string text(20000, 'x');
    FailAllocation first(1);
    BSTR small = SysAllocString("abc");
    first.Stop();
    FailAllocation second(1);
    BSTR large = FormatBSTR("%s", text.c_str());
    second.Stop();
    EXPECT_EQ(small, nullptr);
    EXPECT_EQ(large, nullptr);
    EXPECT_TRUE(Recorder::Events().empty());
}

// -- Debugging aids

TEST(bstr, SetBSTRDebugMode_stores_its_flag) {
    EXPECT_FALSE(l_bBSTRDebugMode);
    SetBSTRDebugMode(true);
    EXPECT_TRUE(l_bBSTRDebugMode);
    EXPECT_EQ(Take(SysAllocString("abc")), "abc");
    SetBSTRDebugMode(false);
    EXPECT_FALSE(l_bBSTRDebugMode);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(bstr, Globals_have_their_types_and_are_not_used) {
    static_assert(std::is_same_v<decltype(g_lBSTRID), long>);
    static_assert(std::is_same_v<decltype(l_bBSTRDebugMode), bool>);
    BSTR bstr = SysAllocString("abc");
    EXPECT_EQ(g_lBSTRID, 1);
    EXPECT_EQ(GetNumBSTRsAllocated(), 0);
    SysFreeString(bstr);
    EXPECT_EQ(g_lBSTRID, 1);
    EXPECT_EQ(GetNumBSTRsAllocated(), 0);
}

// -- _bstr_t: construction

TEST(bstr, Wrapper_is_a_virtual_table_and_a_BSTR) {
    static_assert(std::has_virtual_destructor_v<_bstr_t>);
    static_assert(sizeof(_bstr_t) == 2 * sizeof(void*));
}

TEST(bstr, Wrapper_is_empty_by_default_and_from_NULL) {
    _bstr_t none;
    EXPECT_EQ(none.getData(), nullptr);
    EXPECT_EQ(none.length(), 0);
    _bstr_t null(kNull);
    EXPECT_EQ(null.getData(), nullptr);
    _bstr_t copy(none);
    EXPECT_EQ(copy.getData(), nullptr);
    _bstr_t nullCopied(static_cast<char*>(NULL), true);
    EXPECT_EQ(nullCopied.getData(), nullptr);
    _bstr_t nullTaken(static_cast<char*>(NULL), false);
    EXPECT_EQ(nullTaken.getData(), nullptr);
}

TEST(bstr, Wrapper_owns_a_copy_of_a_text) {
    const char text[] = "abc";
    _bstr_t b(text);
    EXPECT_NE(b.getData(), text);
    EXPECT_TRUE(IsBSTR(b.getData(), true));
    EXPECT_STREQ(b.getData(), "abc");
    EXPECT_EQ(b.length(), 3);
}

TEST(bstr, Wrapper_copies_deep_up_to_the_first_NUL) {
    const _bstr_t text("abc");
    _bstr_t copy(text);
    EXPECT_NE(copy.getData(), static_cast<const char*>(text));
    EXPECT_EQ(Content(copy.getData()), "abc");

    const _bstr_t cut(SysAllocStringLen("abcde", 5), false);
    static_cast<char*>(const_cast<_bstr_t&>(cut))[2] = '\0';
    _bstr_t cutCopy(cut);
    EXPECT_EQ(Content(cutCopy.getData()), "ab");
    EXPECT_EQ(const_cast<_bstr_t&>(cut).length(), 5);
}

TEST(bstr, Wrapper_copies_or_takes_a_pointer) {
    BSTR bstr = SysAllocString("abc");
    {
        _bstr_t copy(bstr, true);
        EXPECT_NE(copy.getData(), bstr);
        EXPECT_EQ(Content(copy.getData()), "abc");
    }
    EXPECT_EQ(SignatureOf(bstr), kSignature);
    LibraryAllocations library;
    { const _bstr_t taken(bstr, false); }
    const int frees = library.counter.Frees();
    const int allocations = library.counter.Allocations();
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(allocations, 0);
}

TEST(bstr, Wrapper_takes_a_pointer_unchecked_and_its_destructor_logs) {
    NoBstr none;
    {
        _bstr_t b(none.text, false);
        EXPECT_EQ(b.getData(), none.text);
        EXPECT_EQ(b.length(), 0);
        EXPECT_TRUE(Recorder::Events().empty());
    }
    EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(none.text)}));
    EXPECT_STREQ(none.text, "abc");
}

TEST(bstr, Wrapper_from_a_string_owns_a_BSTR_of_its_text) {
    XString s("abc");
    _bstr_t b(s);
    EXPECT_EQ(Content(b.getData()), "abc");
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
    XString empty;
    _bstr_t none(empty);
    ASSERT_NE(none.getData(), nullptr);
    EXPECT_EQ(Content(none.getData()), "");
}

TEST(bstr, Wrapper_frees_its_BSTR) {
    LibraryAllocations library;
    {
        _bstr_t a("abc");
        _bstr_t b(a);
        _bstr_t none;
        delete new _bstr_t("def");
    }
    const int balance = library.counter.Balance();
    EXPECT_EQ(balance, 0);
}

TEST(bstr, Empty_wrapper_is_destroyed_without_a_lock) {
    { _bstr_t none; }
    EXPECT_TRUE(Recorder::AllEvents().empty());
}

// -- _bstr_t: access

TEST(bstr, Wrapper_gives_its_BSTR_in_three_ways) {
    _bstr_t b("abc");
    const _bstr_t& constant = b;
    EXPECT_EQ(static_cast<char*>(b), b.getData());
    EXPECT_EQ(static_cast<const char*>(constant), b.getData());
    const char* text = constant;
    EXPECT_STREQ(text, "abc");
}

TEST(bstr, Wrapper_converts_to_a_string_up_to_the_first_NUL) {
    _bstr_t b("abc");
    const XString s = b;
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(s.GetLength(), 3);
    b.getData()[1] = '\0';
    const XString cut(b);
    EXPECT_EQ(cut.GetLength(), 1);
    _bstr_t none;
    const XString empty = none;
    EXPECT_EQ(static_cast<const char*>(empty), nullptr);
}

TEST(bstr, Wrapper_length_is_the_stored_length) {
    _bstr_t b(SysAllocStringLen("ab", 5), false);
    EXPECT_EQ(b.length(), 5);
}

// -- _bstr_t: assignment

TEST(bstr, Assignment_of_a_text_frees_and_copies) {
    _bstr_t b("abc");
    LibraryAllocations library;
    _bstr_t& result = b = "defgh";
    const int balance = library.counter.Balance();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(&result, &b);
    EXPECT_EQ(Content(b.getData()), "defgh");
    b = "";
    EXPECT_EQ(Content(b.getData()), "");
}

TEST(bstr, Assignment_of_a_null_text_empties) {
    _bstr_t b("abc");
    LibraryAllocations library;
    b = kNull;
    const int frees = library.counter.Frees();
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(b.getData(), nullptr);
    b = "x";
    EXPECT_STREQ(b.getData(), "x");
}

TEST(bstr, Assignment_of_a_wrapper_copies_deep_up_to_the_first_NUL) {
    _bstr_t a("abc");
    _bstr_t b("old");
    EXPECT_EQ(&(b = a), &b);
    EXPECT_NE(b.getData(), a.getData());
    EXPECT_EQ(Content(b.getData()), "abc");
    a.getData()[1] = '\0';
    b = a;
    EXPECT_EQ(Content(b.getData()), "a");
    _bstr_t none;
    b = none;
    EXPECT_EQ(b.getData(), nullptr);
}

TEST(bstr, Assignment_of_a_wrapper_to_itself_does_nothing) {
    _bstr_t b("abc");
    BSTR bstr = b.getData();
    _bstr_t& same = b;
    LibraryAllocations library;
    b = same;
    EXPECT_EQ(library.counter.Frees(), 0);
    EXPECT_EQ(b.getData(), bstr);
    EXPECT_EQ(Content(bstr), "abc");
}

TEST(bstr, Assignment_of_constant_and_temporary_wrappers_goes_through_the_text) {
    const _bstr_t constant("abc");
    _bstr_t b;
    b = constant;
    EXPECT_EQ(Content(b.getData()), "abc");
    b = _bstr_t("def");
    EXPECT_EQ(Content(b.getData()), "def");
    const _bstr_t none;
    b = none;
    EXPECT_EQ(b.getData(), nullptr);
}

TEST(bstr, Assignment_without_memory_leaves_an_empty_wrapper) {
    _bstr_t other("def");
    const struct {
        const char* name;
        std::function<void(_bstr_t&)> assign;
    } cases[] = {{"text", [](_bstr_t& b) { b = "def"; }}, {"wrapper", [&](_bstr_t& b) { b = other; }}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        _bstr_t b("abc");
        LibraryAllocations library;
        FailAllocation fail(1);
        c.assign(b);
        fail.Stop();
        const int balance = library.counter.Balance();
        EXPECT_TRUE(fail.Happened());
        EXPECT_EQ(balance, -1);
        EXPECT_EQ(b.getData(), nullptr);
    }
}

// -- _bstr_t: assignment of a string

TEST(bstr, Assignment_of_a_string_copies_its_text_and_leaves_it_locked) {
    XString s("abc");
    _bstr_t b("old");
    EXPECT_EQ(&(b = s), &b);
    EXPECT_EQ(Content(b.getData()), "abc");
    EXPECT_TRUE(s.m_pStrData->m_bLocked);
    EXPECT_STREQ(s, "abc");
}

TEST(bstr, Assignment_of_a_string_a_second_time_empties_until_it_is_unlocked) {
    XString s("abc");
    _bstr_t b;
    b = s;
    b = s;
    EXPECT_EQ(b.getData(), nullptr);
    s.ReleaseBuffer(-1);
    b = s;
    EXPECT_EQ(Content(b.getData()), "abc");
}

TEST(bstr, Assignment_to_the_string_unlocks_it) {
    XString s("abc");
    _bstr_t b;
    b = s;
    s = "def";
    b = s;
    EXPECT_EQ(Content(b.getData()), "def");
    s.Empty();
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
}

TEST(bstr, Assignment_of_a_shared_string_detaches_it) {
    XString a("abc");
    const XString other(a);
    _bstr_t b;
    b = a;
    EXPECT_EQ(Content(b.getData()), "abc");
    EXPECT_NE(a.m_pStrData, other.m_pStrData);
    EXPECT_TRUE(a.m_pStrData->m_bLocked);
    EXPECT_FALSE(other.m_pStrData->m_bLocked);
    EXPECT_EQ(other.m_pStrData->m_iRefCount, 1);
}

TEST(bstr, Assignment_of_a_locked_shared_string_takes_the_unlocked_copy) {
    XString a("abc");
    _bstr_t b;
    b = a;
    XString copy(a);
    b = copy;
    EXPECT_EQ(Content(b.getData()), "abc");
}

TEST(bstr, Assignment_of_a_string_without_a_buffer_empties) {
    XString s;
    _bstr_t b("old");
    b = s;
    EXPECT_EQ(b.getData(), nullptr);
    EXPECT_TRUE(s.m_pStrData->m_bLocked);
}

TEST(bstr, Assignment_of_a_shared_string_without_a_buffer_gives_an_empty_text) {
    XString s;
    const XString other(s);
    _bstr_t b("old");
    b = s;
    ASSERT_NE(b.getData(), nullptr);
    EXPECT_EQ(Content(b.getData()), "");
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 0U);
    EXPECT_EQ(static_cast<const char*>(other), nullptr);
}

TEST(bstr, Assignment_of_a_string_stops_at_its_first_NUL) {
    XString s("ab\0cd", 5);
    _bstr_t b;
    b = s;
    EXPECT_EQ(Content(b.getData()), "ab");
}

TEST(bstr, Assignment_of_a_string_does_not_go_by_its_length) {
    XString s;
    s = 'x'; // of length 0
    _bstr_t b;
    b = s;
    EXPECT_EQ(Content(b.getData()), "x");
}

TEST(bstr, Assignment_of_a_string_with_a_size_that_reads_negative_resizes_it) {
    XString s("abc");
    s.m_pStrData->m_uiBuffSize = 0x80000000U;
    _bstr_t b;
    b = s;
    EXPECT_EQ(Content(b.getData()), "abc");
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 16U);
}

TEST(bstr, Assignment_of_a_shared_string_without_memory_throws_and_leaves_an_empty_wrapper) {
    XString s("abc");
    const XString other(s);
    _bstr_t b("old");
    CMemoryException* caught = NULL;
    LibraryAllocations library;
    {
        FailAllocation fail(1, FailAllocation::OnlyMalloc);
        try {
            b = s;
        } catch (CMemoryException* e) {
            caught = e;
        }
    }
    const int balance = library.counter.Balance();
    EXPECT_EQ(caught, &g_oMemoryException);
    EXPECT_EQ(balance, -1) << "the old BSTR is gone";
    EXPECT_EQ(b.getData(), nullptr);
    EXPECT_EQ(s.m_pStrData, other.m_pStrData);
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
}

TEST(bstr, Assignment_of_a_temporary_string_goes_through_the_text) {
    _bstr_t b;
    b = XString("abc");
    EXPECT_EQ(Content(b.getData()), "abc");
}

// -- _bstr_t: append

TEST(bstr, Append_of_a_text) {
    _bstr_t b("ab");
    EXPECT_EQ(&(b += "cd"), &b);
    EXPECT_EQ(Content(b.getData()), "abcd");
    EXPECT_EQ(b.length(), 4);
    EXPECT_EQ(b.getData()[4], '\0');
}

TEST(bstr, Append_builds_a_new_block_and_frees_the_old) {
    _bstr_t b("ab");
    LibraryAllocations library;
    b += "cd";
    const int balance = library.counter.Balance();
    const int frees = library.counter.Frees();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(frees, 1);
}

TEST(bstr, Append_of_a_null_text_does_nothing) {
    _bstr_t b("ab");
    BSTR bstr = b.getData();
    LibraryAllocations library;
    b += kNull;
    EXPECT_EQ(library.counter.Allocations(), 0);
    EXPECT_EQ(b.getData(), bstr);
    EXPECT_EQ(Content(bstr), "ab");
}

TEST(bstr, Append_to_an_empty_wrapper) {
    _bstr_t b;
    b += "cd";
    EXPECT_EQ(Content(b.getData()), "cd");
    _bstr_t none;
    none += "";
    ASSERT_NE(none.getData(), nullptr);
    EXPECT_EQ(Content(none.getData()), "");
}

TEST(bstr, Append_goes_behind_the_stored_length) {
    _bstr_t b(SysAllocStringLen("ab", 5), false);
    b.getData()[2] = '\0'; // what lies behind the text is not defined
    b += "cd";
    EXPECT_EQ(b.length(), 7);
    EXPECT_EQ(memcmp(b.getData(), "ab", 2), 0);
    EXPECT_STREQ(b.getData() + 5, "cd");
}

TEST(bstr, Append_of_a_wrapper) {
    _bstr_t b("ab");
    _bstr_t other("cd");
    EXPECT_EQ(&(b += other), &b);
    EXPECT_EQ(Content(b.getData()), "abcd");
    EXPECT_EQ(Content(other.getData()), "cd");
    _bstr_t one("e");
    b += one;
    EXPECT_EQ(Content(b.getData()), "abcde");
}

TEST(bstr, Append_of_an_empty_wrapper_does_nothing) {
    _bstr_t b("ab");
    BSTR bstr = b.getData();
    _bstr_t none;
    _bstr_t empty("");
    LibraryAllocations library;
    b += none;
    b += empty;
    EXPECT_EQ(library.counter.Allocations(), 0);
    EXPECT_EQ(b.getData(), bstr);
}

TEST(bstr, Append_of_the_wrapper_itself_doubles_it) {
    _bstr_t b("ab");
    b += b;
    EXPECT_EQ(Content(b.getData()), "abab");
    _bstr_t none;
    none += none;
    EXPECT_EQ(none.getData(), nullptr);
}

TEST(bstr, Append_of_a_string) {
    const XString s("cd");
    _bstr_t b("ab");
    b += s;
    EXPECT_EQ(Content(b.getData()), "abcd");
}

// -- _bstr_t: Attach

TEST(bstr, Attach_takes_a_BSTR_and_frees_the_old) {
    _bstr_t b("old");
    BSTR bstr = SysAllocString("abc");
    LibraryAllocations library;
    const bool result = b.Attach(bstr);
    const int frees = library.counter.Frees();
    const int allocations = library.counter.Allocations();
    EXPECT_TRUE(result);
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(b.getData(), bstr);
}

TEST(bstr, Attach_of_NULL_frees_the_old_and_returns_true) {
    _bstr_t b("old");
    LibraryAllocations library;
    const bool result = b.Attach(NULL);
    const int frees = library.counter.Frees();
    EXPECT_TRUE(result);
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(b.getData(), nullptr);
    EXPECT_TRUE(b.Attach(NULL));
}

TEST(bstr, Attach_refuses_something_else_and_changes_nothing) {
    NoBstr none;
    _bstr_t b("old");
    BSTR old = b.getData();
    EXPECT_FALSE(b.Attach(none.text));
    EXPECT_EQ(b.getData(), old);
    EXPECT_EQ(Content(old), "old");
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(bstr, Ordinary_use_posts_no_event_but_those_of_the_lock) {
    XString string("abc");
    {
        _bstr_t a("abc");
        _bstr_t b(a);
        _bstr_t c(string);
        _bstr_t none;
        b = "defgh";
        b = a;
        b = string;
        b = kNull;
        b += "de";
        b += a;
        a.Attach(SysAllocStringLen("abc", 10));
        a.Attach(NULL);
    }
    Take(FormatBSTR("%20000d", 7));
    Take(string.AllocSysString());
    EXPECT_TRUE(Recorder::Events().empty());
}

// -- A string as a BSTR

TEST(bstr, AllocSysString_copies_the_text) {
    EXPECT_EQ(Take(XString("abc").AllocSysString()), "abc");
    EXPECT_EQ(Take(XString("ab\0cd", 5).AllocSysString()), "ab");
}

TEST(bstr, AllocSysString_of_a_string_of_length_0_is_an_empty_BSTR) {
    EXPECT_EQ(Take(XString().AllocSysString()), "");
    XString assigned;
    assigned = 'x';
    EXPECT_EQ(Take(assigned.AllocSysString()), "");
}

TEST(bstr, SetSysString_stores_and_returns_a_new_BSTR) {
    const XString s("abc");
    BSTR bstr = NULL;
    BSTR result = s.SetSysString(&bstr);
    EXPECT_EQ(result, bstr);
    EXPECT_EQ(Take(bstr), "abc");
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(bstr, SetSysString_over_a_BSTR_logs_the_variable_s_address_and_frees_nothing) {
    const XString s("abc");
    BSTR variables[4] = {NULL, NULL, NULL, NULL};
    BSTR old = SysAllocString("old");
    variables[2] = old;
    BSTR result = s.SetSysString(&variables[2]);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(&variables[2])}));
    EXPECT_EQ(result, variables[2]);
    EXPECT_EQ(Take(variables[2]), "abc");
    EXPECT_EQ(Take(old), "old");
    EXPECT_EQ(variables[1], nullptr);
    EXPECT_EQ(variables[3], nullptr);
}

TEST(bstr, SetSysString_without_memory_stores_NULL) {
    const XString s("abc");
    BSTR bstr = NULL;
    FailAllocation fail(1);
    BSTR result = s.SetSysString(&bstr);
    fail.Stop();
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(bstr, nullptr);
}

TEST(bstr, Strings_and_wrappers_convert_in_the_ways_that_callers_write) {
    _bstr_t b("abc");
    const _bstr_t constant("abc");
    XString s(b);
    EXPECT_STREQ(s, "abc");
    s = constant;
    EXPECT_STREQ(s, "abc");
    s = static_cast<const char*>(b);
    EXPECT_STREQ(s, "abc");
    EXPECT_EQ(Take(SysAllocString(s)), "abc");
    EXPECT_EQ(Take(SysAllocString(b)), "abc");
    b += s;
    EXPECT_EQ(Content(b.getData()), "abcabc");
}

// -- What callers expect beside the functions

TEST(bstr, SysAllocStringByteLen_counts_bytes_which_are_characters) {
    BSTR text = SysAllocStringByteLen("abc", 5);
    EXPECT_EQ(SignatureOf(text), kSignature);
    EXPECT_EQ(SysStringByteLen(text), 5U);
    EXPECT_EQ(memcmp(text, "abc", 3), 0);
    EXPECT_EQ(text[5], '\0');
    SysFreeString(text);
    EXPECT_EQ(Take(SysAllocStringByteLen("abcdef", 2)), "ab");
    BSTR null = SysAllocStringByteLen(NULL, 3);
    EXPECT_EQ(SysStringByteLen(null), 3U);
    EXPECT_EQ(null[0], '\0');
    SysFreeString(null);
}

TEST(bstr, SysReAllocString_replaces_the_BSTR_and_frees_the_old) {
    BSTR bstr = SysAllocString("old");
    LibraryAllocations library;
    const BOOL result = SysReAllocString(&bstr, "abcde");
    const int allocations = library.counter.Allocations();
    const int frees = library.counter.Frees();
    EXPECT_EQ(result, TRUE);
    EXPECT_EQ(allocations, 1);
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(Take(bstr), "abcde");
}

TEST(bstr, SysReAllocString_takes_NULL_for_the_old_and_for_the_new) {
    BSTR bstr = NULL;
    EXPECT_EQ(SysReAllocString(&bstr, "abc"), TRUE);
    EXPECT_EQ(SysStringLen(bstr), 3U);
    EXPECT_STREQ(bstr, "abc");
    EXPECT_EQ(SysReAllocString(&bstr, NULL), TRUE);
    EXPECT_EQ(bstr, nullptr);
    EXPECT_EQ(SysReAllocString(&bstr, NULL), TRUE);
    EXPECT_EQ(bstr, nullptr);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(bstr, SysReAllocString_takes_a_part_of_its_own_text) {
    BSTR bstr = SysAllocString("abcde");
    EXPECT_EQ(SysReAllocString(&bstr, bstr), TRUE);
    EXPECT_STREQ(bstr, "abcde");
    EXPECT_EQ(SysReAllocString(&bstr, bstr + 2), TRUE);
    EXPECT_EQ(Take(bstr), "cde");
}

TEST(bstr, SysReAllocString_without_memory_keeps_the_old) {
    BSTR bstr = SysAllocString("old");
    BSTR old = bstr;
    FailAllocation fail(1);
    const BOOL result = SysReAllocString(&bstr, "abc");
    fail.Stop();
    EXPECT_TRUE(fail.Happened());
    EXPECT_EQ(result, FALSE);
    EXPECT_EQ(bstr, old);
    EXPECT_EQ(Take(bstr), "old");
}

TEST(bstr, Detach_hands_out_the_BSTR_and_empties_the_wrapper) {
    _bstr_t b("abc");
    BSTR held = b.getData();
    LibraryAllocations library;
    BSTR bstr = b.Detach();
    EXPECT_EQ(library.counter.Frees(), 0);
    EXPECT_EQ(bstr, held);
    EXPECT_EQ(b.getData(), nullptr);
    EXPECT_EQ(b.Detach(), nullptr);
    EXPECT_EQ(Take(bstr), "abc");
}

TEST(bstr, Detach_and_Attach_move_a_BSTR) {
    _bstr_t a("abc");
    _bstr_t b("old");
    BSTR held = a.getData();
    EXPECT_TRUE(b.Attach(a.Detach()));
    EXPECT_EQ(b.getData(), held);
    EXPECT_EQ(a.getData(), nullptr);
}

TEST(bstr, Copy_is_a_BSTR_of_the_caller_s) {
    const _bstr_t b("abc");
    BSTR bstr = b.copy();
    EXPECT_NE(bstr, static_cast<const char*>(b));
    EXPECT_EQ(Take(bstr), "abc");
    EXPECT_STREQ(b, "abc");
    const _bstr_t none;
    EXPECT_EQ(none.copy(), nullptr);
}

TEST(bstr, GetBSTR_is_the_variable_itself) {
    _bstr_t b("abc");
    EXPECT_EQ(b.GetBSTR(), b.getData());
    EXPECT_EQ(SysReAllocString(&b.GetBSTR(), "def"), TRUE);
    EXPECT_STREQ(b.getData(), "def");
    SysFreeString(b.GetBSTR());
    EXPECT_EQ(b.getData(), nullptr);
}

TEST(bstr, Wrapper_without_a_BSTR_is_not) {
    const _bstr_t none;
    const _bstr_t empty("");
    const _bstr_t text("abc");
    EXPECT_TRUE(!none);
    EXPECT_FALSE(!empty);
    EXPECT_FALSE(!text);
}

TEST(bstr, Sum_is_a_new_wrapper_and_leaves_its_parts) {
    const _bstr_t ab("ab");
    const _bstr_t cd("cd");
    _bstr_t both = ab + cd;
    EXPECT_EQ(Content(both.getData()), "abcd");
    _bstr_t text = ab + "x";
    EXPECT_EQ(Content(text.getData()), "abx");
    _bstr_t reversed = "x" + ab;
    EXPECT_EQ(Content(reversed.getData()), "xab");
    _bstr_t doubled = ab + ab;
    EXPECT_EQ(Content(doubled.getData()), "abab");
    _bstr_t chain = ab + "-" + cd + "-";
    EXPECT_EQ(Content(chain.getData()), "ab-cd-");
    EXPECT_STREQ(ab, "ab");
    EXPECT_STREQ(cd, "cd");
}

TEST(bstr, Sum_with_an_empty_wrapper_or_NULL_is_the_other_part) {
    const _bstr_t none;
    const _bstr_t ab("ab");
    _bstr_t first = none + ab;
    EXPECT_EQ(Content(first.getData()), "ab");
    _bstr_t second = ab + none;
    EXPECT_EQ(Content(second.getData()), "ab");
    _bstr_t text = none + "x";
    EXPECT_EQ(Content(text.getData()), "x");
    _bstr_t reversed = "x" + none;
    EXPECT_EQ(Content(reversed.getData()), "x");
    _bstr_t null = ab + kNull;
    EXPECT_EQ(Content(null.getData()), "ab");
    _bstr_t nothing = none + none;
    EXPECT_EQ(nothing.getData(), nullptr);
}

TEST(bstr, Sum_leaves_no_block_behind) {
    const _bstr_t ab("ab");
    LibraryAllocations library;
    { const _bstr_t sum = "x" + ab + "y" + ab; }
    const int balance = library.counter.Balance();
    EXPECT_EQ(balance, 0);
}

TEST(bstr, Comparisons_go_by_the_text_and_NULL_is_empty) {
    const char* const texts[] = {NULL, "", "a", "ab", "abc", "b", "\xE4"}; // in order
    const int ranks[] = {0, 0, 1, 2, 3, 4, 5};
    for (size_t i = 0; i < 7; i++)
        for (size_t k = 0; k < 7; k++) {
            SCOPED_TRACE(Text("'%s' and '%s'", texts[i] ? texts[i] : "NULL", texts[k] ? texts[k] : "NULL"));
            const int order = ranks[i] - ranks[k];
            const _bstr_t a(texts[i]);
            const _bstr_t b(texts[k]);
            EXPECT_EQ(a == b, order == 0);
            EXPECT_EQ(a != b, order != 0);
            EXPECT_EQ(a < b, order < 0);
            EXPECT_EQ(a > b, order > 0);
            EXPECT_EQ(a <= b, order <= 0);
            EXPECT_EQ(a >= b, order >= 0);
            EXPECT_EQ(a == texts[k], order == 0);
            EXPECT_EQ(a != texts[k], order != 0);
            EXPECT_EQ(a < texts[k], order < 0);
            EXPECT_EQ(a > texts[k], order > 0);
            EXPECT_EQ(a <= texts[k], order <= 0);
            EXPECT_EQ(a >= texts[k], order >= 0);
            EXPECT_EQ(texts[i] == b, order == 0);
            EXPECT_EQ(texts[i] != b, order != 0);
            EXPECT_EQ(texts[i] < b, order < 0);
            EXPECT_EQ(texts[i] > b, order > 0);
            EXPECT_EQ(texts[i] <= b, order <= 0);
            EXPECT_EQ(texts[i] >= b, order >= 0);
            const XString s(texts[i]);
            const XString t(texts[k]);
            EXPECT_EQ(a == t, order == 0);
            EXPECT_EQ(a != t, order != 0);
            EXPECT_EQ(s == b, order == 0);
            EXPECT_EQ(s != b, order != 0);
        }
}

TEST(bstr, Comparisons_do_not_mind_which_operand_is_constant) {
    _bstr_t b("abc");
    const _bstr_t constant("abc");
    XString s("abc");
    EXPECT_TRUE(b == constant);
    EXPECT_TRUE(constant == b);
    EXPECT_TRUE(b == "abc");
    EXPECT_TRUE("abc" == b);
    EXPECT_TRUE(b == s);
    EXPECT_TRUE(s == b);
    EXPECT_FALSE(b != constant);
    EXPECT_FALSE(b < constant);
    EXPECT_TRUE(b >= constant);
}

TEST(bstr, Comparisons_stop_at_the_first_NUL) {
    _bstr_t b("abcde");
    b.getData()[3] = '\0';
    EXPECT_TRUE(b == "abc");
    EXPECT_TRUE(b == _bstr_t("abc"));
}
