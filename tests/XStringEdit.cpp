// The string's searching, extracting and editing.
#include <ctype.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/XString.h>

#include "support/attempt.h"
#include "support/interpose.h"
#include "support/text.h"

namespace {

const char* const kNull = NULL;

const char kFresh[] = "no text length 0 size 0 refs 1 block -1";
const char kOneByte[] = "'' length 0 size 1 refs 1 block -1";

const std::string kIndexAssertion =
    AssertionRegex("Windows/XString", 373, "char XStringData::GetAt(unsigned int)", "uiIndex < GetLength()");
const std::string kLengthAssertion = AssertionRegex(
    "Windows/XString", 239, "void XStringData::SetLength(unsigned int)", "uiLength < m_uiBuffSize");

std::string State(const XString& s) {
    const XStringData* header = s.m_pStrData;
    return (header->m_pszData ? "'" + std::string(header->m_pszData) + "'" : "no text") +
           Text(" length %u size %u refs %d block %d%s", header->m_uiLength, header->m_uiBuffSize,
                header->m_iRefCount, header->m_iBlockSize, header->m_bLocked ? " locked" : "");
}

// All bytes that the length counts.
std::string Content(const XString& s) {
    return std::string(s.m_pStrData->m_pszData, s.m_pStrData->m_uiLength);
}

// The first bytes of the buffer, whatever the length says.
std::string Bytes(const XString& s, size_t count) { return std::string(s.m_pStrData->m_pszData, count); }

// A string with a buffer of exactly size bytes, all 'z' behind the text, and 7 as its granule.
XString WithBuffer(const char* text, unsigned int size) {
    XString s;
    s.m_pStrData->Allocate(size);
    memset(s.m_pStrData->m_pszData, 'z', size);
    strcpy(s.m_pStrData->m_pszData, text);
    s.m_pStrData->m_uiLength = static_cast<unsigned int>(strlen(text));
    s.m_pStrData->m_iBlockSize = 7;
    return s;
}

// Holds "abc" in the middle of an array: "wxyz" in front of it may be read.
class InTheMiddle {
public:
    InTheMiddle() {
        string.m_pStrData->m_pszData = m_bytes + 4;
        string.m_pStrData->m_uiLength = 3;
        string.m_pStrData->m_uiBuffSize = 4;
    }
    ~InTheMiddle() { string.m_pStrData->m_pszData = NULL; }

    XString string;

private:
    char m_bytes[8] = {'w', 'x', 'y', 'z', 'a', 'b', 'c', '\0'};
};

// What becomes of the header.
enum Header {
    Stays,    // also when it is shared
    Detaches, // is copied if it is shared: same buffer size, same granule
    Builds    // gives way to a new one, of an exact size and the same granule
};

struct Operation {
    const char* name;
    const char* text; // before; the buffer is 6 bytes larger
    std::function<int(XString&)> run;
    int result; // 0 also for those that return nothing
    const char* after;
    Header header;
};

unsigned int SizeFor(const Operation& operation) {
    return static_cast<unsigned int>(strlen(operation.text)) + 6;
}

unsigned int SizeAfter(const Operation& operation) {
    return operation.header == Builds ? static_cast<unsigned int>(strlen(operation.after)) + 1
                                      : SizeFor(operation);
}

// Runs a function that returns nothing.
template <class Function> std::function<int(XString&)> Void(Function function) {
    return [function](XString& s) {
        function(s);
        return 0;
    };
}

// Every operation with each of its outcomes, but for Insert, which treats shared strings differently.
const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        // Searching and extracting.
        {"Find character", "abca", [](XString& s) { return s.Find('a', 0); }, 0, "abca", Stays},
        {"Find text", "abca", [](XString& s) { return s.Find("ca", 0); }, 2, "abca", Stays},
        {"ReverseFind", "abca", [](XString& s) { return s.ReverseFind('a'); }, 3, "abca", Stays},
        {"FindOneOf", "abca", [](XString& s) { return s.FindOneOf("xc"); }, 2, "abca", Stays},

        // Changing characters.
        {"MakeUpper", "aBc1", Void([](XString& s) { s.MakeUpper(); }), 0, "ABC1", Detaches},
        {"MakeUpper, nothing to do", "ABC", Void([](XString& s) { s.MakeUpper(); }), 0, "ABC", Detaches},
        {"MakeUpper of nothing", "", Void([](XString& s) { s.MakeUpper(); }), 0, "", Detaches},
        {"MakeLower", "aBC1", Void([](XString& s) { s.MakeLower(); }), 0, "abc1", Detaches},
        {"MakeLower, nothing to do", "abc", Void([](XString& s) { s.MakeLower(); }), 0, "abc", Detaches},
        {"MakeLower of nothing", "", Void([](XString& s) { s.MakeLower(); }), 0, "", Detaches},
        {"MakeReverse, even", "abcd", Void([](XString& s) { s.MakeReverse(); }), 0, "dcba", Detaches},
        {"MakeReverse, odd", "abc", Void([](XString& s) { s.MakeReverse(); }), 0, "cba", Detaches},
        {"MakeReverse, same both ways", "aa", Void([](XString& s) { s.MakeReverse(); }), 0, "aa", Detaches},
        {"MakeReverse of one", "a", Void([](XString& s) { s.MakeReverse(); }), 0, "a", Stays},
        {"MakeReverse of nothing", "", Void([](XString& s) { s.MakeReverse(); }), 0, "", Stays},
        {"Replace character", "abcb", [](XString& s) { return s.Replace('b', 'x'); }, 2, "axcx", Detaches},
        {"Replace all", "bbb", [](XString& s) { return s.Replace('b', 'x'); }, 3, "xxx", Detaches},
        {"Replace by itself", "abcb", [](XString& s) { return s.Replace('b', 'b'); }, 2, "abcb", Detaches},
        {"Replace, no match", "abcb", [](XString& s) { return s.Replace('q', 'x'); }, 0, "abcb", Detaches},
        {"Replace NUL", "abcb", [](XString& s) { return s.Replace('\0', 'x'); }, 0, "abcb", Detaches},
        {"Replace in nothing", "", [](XString& s) { return s.Replace('b', 'x'); }, 0, "", Stays},

        // Replacing texts.
        {"shorter", "aaaa", [](XString& s) { return s.Replace("aa", "b"); }, 2, "bb", Builds},
        {"shorter, a rest", "aaaaa", [](XString& s) { return s.Replace("aa", "b"); }, 2, "bba", Builds},
        {"same length", "xaxbx", [](XString& s) { return s.Replace("x", "y"); }, 3, "yayby", Builds},
        {"longer", "xaxbx", [](XString& s) { return s.Replace("x", "yyy"); }, 3, "yyyayyybyyy", Builds},
        {"once", "abcd", [](XString& s) { return s.Replace("bc", "xyz"); }, 1, "axyzd", Builds},
        {"by itself", "abcb", [](XString& s) { return s.Replace("b", "b"); }, 2, "abcb", Builds},
        {"by more of itself", "aa", [](XString& s) { return s.Replace("a", "aa"); }, 2, "aaaa", Builds},
        {"whole", "abc", [](XString& s) { return s.Replace("abc", "x"); }, 1, "x", Builds},
        {"by \"\"", "xaxbx", [](XString& s) { return s.Replace("x", ""); }, 3, "ab", Builds},
        {"by NULL", "xaxbx", [](XString& s) { return s.Replace("x", kNull); }, 3, "ab", Builds},
        {"everything by \"\"", "xxx", [](XString& s) { return s.Replace("x", ""); }, 3, "", Builds},
        {"no match", "aaaa", [](XString& s) { return s.Replace("x", "b"); }, 0, "aaaa", Stays},
        {"longer than the text", "aa", [](XString& s) { return s.Replace("aaa", "b"); }, 0, "aa", Stays},
        {"NULL", "aaaa", [](XString& s) { return s.Replace(kNull, "b"); }, 0, "aaaa", Stays},
        {"\"\"", "aaaa", [](XString& s) { return s.Replace("", "b"); }, 0, "aaaa", Stays},
        {"in nothing", "", [](XString& s) { return s.Replace("x", "b"); }, 0, "", Stays},

        // Removing.
        {"Remove", "abcb", [](XString& s) { return s.Remove('b'); }, 2, "ac", Detaches},
        {"Remove everything", "bbb", [](XString& s) { return s.Remove('b'); }, 3, "", Detaches},
        {"Remove the first", "abc", [](XString& s) { return s.Remove('a'); }, 1, "bc", Detaches},
        {"Remove, not there", "abcb", [](XString& s) { return s.Remove('q'); }, 0, "abcb", Stays},
        {"Remove NUL", "abcb", [](XString& s) { return s.Remove('\0'); }, 0, "abcb", Stays},
        {"Remove from nothing", "", [](XString& s) { return s.Remove('b'); }, 0, "", Stays},
        {"Delete one", "abcd", [](XString& s) { return s.Delete(1, 1); }, 3, "acd", Detaches},
        {"Delete by default", "abcd", [](XString& s) { return s.Delete(1); }, 3, "acd", Detaches},
        {"Delete two", "abcd", [](XString& s) { return s.Delete(1, 2); }, 2, "ad", Detaches},
        {"Delete from the beginning", "abcd", [](XString& s) { return s.Delete(0, 2); }, 2, "cd", Detaches},
        {"Delete to the end", "abcd", [](XString& s) { return s.Delete(1, 3); }, 1, "a", Detaches},
        {"Delete the last", "abcd", [](XString& s) { return s.Delete(3, 1); }, 3, "abc", Detaches},
        {"Delete more", "abc", [](XString& s) { return s.Delete(1, 10); }, 1, "a", Detaches},
        {"Delete most", "abc", [](XString& s) { return s.Delete(1, INT_MAX); }, 1, "a", Detaches},
        {"Delete everything", "abc", [](XString& s) { return s.Delete(0, 3); }, 0, "", Detaches},
        {"Delete in front", "abc", [](XString& s) { return s.Delete(-1, 1); }, 3, "abc", Detaches},
        {"Delete far in front", "abc", [](XString& s) { return s.Delete(INT_MIN, 1); }, 3, "abc", Detaches},
        {"Delete at the end", "abc", [](XString& s) { return s.Delete(3, 1); }, 3, "abc", Detaches},
        {"Delete behind", "abc", [](XString& s) { return s.Delete(INT_MAX, 1); }, 3, "abc", Detaches},
        {"Delete none", "abc", [](XString& s) { return s.Delete(1, 0); }, 3, "abc", Detaches},
        {"Delete fewer", "abc", [](XString& s) { return s.Delete(1, -1); }, 3, "abc", Detaches},
        {"Delete fewest", "abc", [](XString& s) { return s.Delete(1, INT_MIN); }, 3, "abc", Detaches},
        {"Delete from nothing", "", [](XString& s) { return s.Delete(0, 1); }, 0, "", Detaches},
        {"Insert NULL", "abc", [](XString& s) { return s.Insert(1, kNull); }, 3, "abc", Stays},
        {"Insert \"\"", "abc", [](XString& s) { return s.Insert(1, ""); }, 3, "abc", Stays},

        // Trimming.
        {"left", "xxaxx", Void([](XString& s) { s.TrimLeft('x'); }), 0, "axx", Detaches},
        {"left, everything", "xxx", Void([](XString& s) { s.TrimLeft('x'); }), 0, "", Detaches},
        {"left, nothing", "axx", Void([](XString& s) { s.TrimLeft('x'); }), 0, "axx", Stays},
        {"left of nothing", "", Void([](XString& s) { s.TrimLeft('x'); }), 0, "", Stays},
        {"left, NUL", "abc", Void([](XString& s) { s.TrimLeft('\0'); }), 0, "abc", Stays},
        {"left, NUL of nothing", "", Void([](XString& s) { s.TrimLeft('\0'); }), 0, "", Detaches},
        {"left, set", "xyxaxy", Void([](XString& s) { s.TrimLeft("yx"); }), 0, "axy", Detaches},
        {"left, set, everything", "xyx", Void([](XString& s) { s.TrimLeft("yx"); }), 0, "", Detaches},
        {"left, set, nothing", "axy", Void([](XString& s) { s.TrimLeft("yx"); }), 0, "axy", Stays},
        {"left, no set", "abc", Void([](XString& s) { s.TrimLeft(""); }), 0, "abc", Stays},
        {"left, set, of nothing", "", Void([](XString& s) { s.TrimLeft("yx"); }), 0, "", Detaches},
        {"right", "xxaxx", Void([](XString& s) { s.TrimRight('x'); }), 0, "xxa", Detaches},
        {"right, everything", "xxx", Void([](XString& s) { s.TrimRight('x'); }), 0, "", Detaches},
        {"right, nothing", "xxa", Void([](XString& s) { s.TrimRight('x'); }), 0, "xxa", Stays},
        {"right, NUL", "abc", Void([](XString& s) { s.TrimRight('\0'); }), 0, "abc", Stays},
        {"right, set", "xyaxyx", Void([](XString& s) { s.TrimRight("yx"); }), 0, "xya", Detaches},
        {"right, set, everything", "xyx", Void([](XString& s) { s.TrimRight("yx"); }), 0, "", Detaches},
        {"right, set, nothing", "xya", Void([](XString& s) { s.TrimRight("yx"); }), 0, "xya", Stays},
        {"right, no set", "abc", Void([](XString& s) { s.TrimRight(""); }), 0, "abc", Stays},
    };
    return operations;
}

// An operation whose allocations fail leaves the string as it was, and nothing behind.
void ExpectUntouchedWithoutMemory(XString& s, const std::function<int(XString&)>& run) {
    const std::string state = State(s);
    const std::string bytes = s.m_pStrData->m_pszData ? Bytes(s, s.m_pStrData->m_uiBuffSize) : "";
    const XStringData* header = s.m_pStrData;
    const char* text = s;
    const int strings = XString::m_iObjCount;
    const int headers = XStringData::m_iObjCount;
    for (const FailAllocation::Kind kind : {FailAllocation::OnlyMalloc, FailAllocation::OnlyNew}) {
        const Attempt attempt = Without(kind, [&] { run(s); });
        EXPECT_TRUE(attempt.failed);
        EXPECT_EQ(attempt.outcome, kind == FailAllocation::OnlyMalloc ? "memory exception" : "bad_alloc");
        EXPECT_EQ(attempt.balance, 0);
        EXPECT_EQ(s.m_pStrData, header);
        EXPECT_EQ(static_cast<const char*>(s), text);
        EXPECT_EQ(State(s), state);
        EXPECT_EQ(s.m_pStrData->m_pszData ? Bytes(s, s.m_pStrData->m_uiBuffSize) : "", bytes);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
}

} // namespace

// -- All operations -------------------------------------------------------------------------------------

TEST(XStringEdit, Operations_on_a_header_of_their_own_work_in_place_or_build_a_new_one) {
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        XString s = WithBuffer(operation.text, SizeFor(operation));
        const XStringData* header = s.m_pStrData;
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        AllocationCounter counter;
        const int result = operation.run(s);
        const int allocations = counter.Allocations();
        const int balance = counter.Balance();
        EXPECT_EQ(result, operation.result);
        EXPECT_EQ(State(s), Text("'%s' length %zu size %u refs 1 block 7", operation.after,
                                 strlen(operation.after), SizeAfter(operation)));
        EXPECT_EQ(s.m_pStrData != header, operation.header == Builds);
        EXPECT_EQ(allocations, operation.header == Builds ? 2 : 0) << "a header and a text";
        EXPECT_EQ(balance, 0);
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers);
    }
}

TEST(XStringEdit, Operations_on_a_shared_header_leave_it_to_the_others_as_it_was) {
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        XString s = WithBuffer(operation.text, SizeFor(operation));
        const XString other(s);
        const std::string bytes = Bytes(other, SizeFor(operation));
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        const bool stays = operation.header == Stays;
        AllocationCounter counter;
        const int result = operation.run(s);
        const int allocations = counter.Allocations();
        EXPECT_EQ(result, operation.result);
        EXPECT_EQ(State(s), Text("'%s' length %zu size %u refs %d block 7", operation.after,
                                 strlen(operation.after), SizeAfter(operation), stays ? 2 : 1));
        EXPECT_EQ(s.m_pStrData == other.m_pStrData, stays);
        EXPECT_EQ(State(other), Text("'%s' length %zu size %u refs %d block 7", operation.text,
                                     strlen(operation.text), SizeFor(operation), stays ? 2 : 1));
        EXPECT_EQ(Bytes(other, SizeFor(operation)), bytes);
        EXPECT_EQ(allocations, stays ? 0 : 2) << "a header and a text";
        EXPECT_EQ(XString::m_iObjCount, strings);
        EXPECT_EQ(XStringData::m_iObjCount, headers + (stays ? 0 : 1));
    }
}

TEST(XStringEdit, Operations_without_memory_keep_header_and_text) {
    for (const Operation& operation : Operations()) {
        if (operation.header == Stays)
            continue;
        SCOPED_TRACE(operation.name);
        XString s = WithBuffer(operation.text, SizeFor(operation));
        if (operation.header == Builds)
            ExpectUntouchedWithoutMemory(s, operation.run);
        const XString other(s);
        ExpectUntouchedWithoutMemory(s, operation.run);
    }
}

// -- Searching -----------------------------------------------------------------------------------------

TEST(XStringEdit, Find_of_a_character_is_its_first_index_from_the_start) {
    const XString s("abcab");
    EXPECT_EQ(s.Find('a', 0), 0);
    EXPECT_EQ(s.Find('a', 1), 3) << "counted from the beginning of the text";
    EXPECT_EQ(s.Find('a', 3), 3);
    EXPECT_EQ(s.Find('a', 4), -1);
    EXPECT_EQ(s.Find('b', 0), 1);
    EXPECT_EQ(s.Find('x', 0), -1);
    EXPECT_EQ(s.Find('a', 5), -1) << "the terminator alone is searched";
}

TEST(XStringEdit, Find_of_a_character_starts_at_0_by_default) {
    EXPECT_EQ(XString("abcab").Find('a'), 0);
    EXPECT_EQ(XString("abcab").Find('b'), 1);
}

TEST(XStringEdit, Find_of_NUL_is_the_length) {
    const XString s("abc");
    EXPECT_EQ(s.Find('\0', 0), 3);
    EXPECT_EQ(s.Find('\0', 2), 3);
    EXPECT_EQ(s.Find('\0', 3), 3);
    XString empty;
    empty = "";
    EXPECT_EQ(empty.Find('\0', 0), 0);
}

TEST(XStringEdit, Find_of_a_text_is_its_first_index_from_the_start) {
    const XString s("abcabd");
    EXPECT_EQ(s.Find("ab", 0), 0);
    EXPECT_EQ(s.Find("ab", 1), 3) << "counted from the beginning of the text";
    EXPECT_EQ(s.Find("ca", 0), 2);
    EXPECT_EQ(s.Find("abd", 0), 3);
    EXPECT_EQ(s.Find("ab", 4), -1);
    EXPECT_EQ(s.Find("abcabde", 0), -1);
    EXPECT_EQ(s.Find("AB", 0), -1);
    EXPECT_EQ(s.Find("d", 6), -1);
}

TEST(XStringEdit, Find_of_a_text_starts_at_0_by_default) {
    EXPECT_EQ(XString("abcab").Find("ab"), 0);
    EXPECT_EQ(XString("abcab").Find("b"), 1);
}

TEST(XStringEdit, Find_of_an_empty_text_is_the_start) {
    const XString s("abc");
    EXPECT_EQ(s.Find("", 0), 0);
    EXPECT_EQ(s.Find("", 2), 2);
    EXPECT_EQ(s.Find("", 3), 3);
}

TEST(XStringEdit, Find_does_not_check_its_start_against_the_length) {
    const XString s = WithBuffer("ab", 10);
    s.m_pStrData->m_pszData[9] = '\0';
    EXPECT_EQ(s.Find('z', 3), 3);
    EXPECT_EQ(s.Find("zz", 4), 4);
    const InTheMiddle middle;
    EXPECT_EQ(middle.string.Find('y', -4), -2);
    EXPECT_EQ(middle.string.Find("yz", -4), -2);
}

TEST(XStringEdit, Searches_end_at_the_first_NUL) {
    XString s("ab\0cb", 5);
    EXPECT_EQ(s.Find('c', 0), -1);
    EXPECT_EQ(s.Find("cb", 0), -1);
    EXPECT_EQ(s.Find('\0', 0), 2);
    EXPECT_EQ(s.ReverseFind('b'), 1);
    EXPECT_EQ(s.ReverseFind('\0'), 2);
    EXPECT_EQ(s.FindOneOf("c"), -1);
    EXPECT_EQ(s.Find('b', 3), 4) << "behind the NUL another text begins";
}

TEST(XStringEdit, ReverseFind_is_the_last_index) {
    XString s("abca");
    EXPECT_EQ(s.ReverseFind('a'), 3);
    EXPECT_EQ(s.ReverseFind('b'), 1);
    EXPECT_EQ(s.ReverseFind('x'), -1);
    EXPECT_EQ(s.ReverseFind('\0'), 4);
}

TEST(XStringEdit, FindOneOf_is_the_first_index_of_any) {
    XString s("abca");
    EXPECT_EQ(s.FindOneOf("xc"), 2);
    EXPECT_EQ(s.FindOneOf("cb"), 1);
    EXPECT_EQ(s.FindOneOf("xyz"), -1);
    EXPECT_EQ(s.FindOneOf(""), -1);
}

TEST(XStringEdit, Searches_find_characters_above_127) {
    XString s("a\xE4\xFF\xE4");
    EXPECT_EQ(s.Find('\xE4', 0), 1);
    EXPECT_EQ(s.Find("\xFF\xE4", 0), 2);
    EXPECT_EQ(s.ReverseFind('\xE4'), 3);
    EXPECT_EQ(s.FindOneOf("\x80\xFF"), 2);
}

TEST(XStringEdit, Searches_go_by_the_text_that_an_assigned_character_leaves) {
    XString s;
    s = 'x';
    EXPECT_EQ(s.Find('x', 0), 0);
    EXPECT_EQ(s.Find("x", 0), 0);
    EXPECT_EQ(s.ReverseFind('x'), 0);
    EXPECT_EQ(s.FindOneOf("x"), 0);
    EXPECT_EQ(s.Find('\0', 0), 1) << "not the length, which is 0";
}

TEST(XStringEdit, Searches_and_trims_of_a_string_without_text_fault) {
    const struct {
        const char* name;
        std::function<void(XString&)> run;
    } cases[] = {
        {"Find character", [](XString& s) { s.Find('a', 0); }},
        {"Find NUL", [](XString& s) { s.Find('\0', 0); }},
        {"Find text", [](XString& s) { s.Find("a", 0); }},
        {"ReverseFind", [](XString& s) { s.ReverseFind('a'); }},
        {"FindOneOf", [](XString& s) { s.FindOneOf("ab"); }},
        {"Mid", [](XString& s) { s.Mid(-1); }},
        {"SpanIncluding", [](XString& s) { s.SpanIncluding("ab"); }},
        {"SpanExcluding", [](XString& s) { s.SpanExcluding("ab"); }},
        {"TrimLeft character", [](XString& s) { s.TrimLeft('a'); }},
        {"TrimLeft set", [](XString& s) { s.TrimLeft("ab"); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s;
        EXPECT_DEATH(c.run(s), "");
    }
}

// -- Extracting ----------------------------------------------------------------------------------------

TEST(XStringEdit, Extracts_are_new_strings_of_exact_size) {
    const struct {
        const char* name;
        const char* text;
        std::function<XString(const XString&)> run;
        const char* state; // without references and granule
    } cases[] = {
        {"Mid(0)", "abcd", [](const XString& s) { return s.Mid(0); }, "'abcd' length 4 size 5"},
        {"Mid(1)", "abcd", [](const XString& s) { return s.Mid(1); }, "'bcd' length 3 size 4"},
        {"Mid(3)", "abcd", [](const XString& s) { return s.Mid(3); }, "'d' length 1 size 2"},
        {"Mid(4)", "abcd", [](const XString& s) { return s.Mid(4); }, "'' length 0 size 1"},
        {"Mid(INT_MAX)", "abcd", [](const XString& s) { return s.Mid(INT_MAX); }, "'' length 0 size 1"},
        {"Mid(0) of nothing", "", [](const XString& s) { return s.Mid(0); }, "'' length 0 size 1"},
        {"Mid(1, 2)", "abcd", [](const XString& s) { return s.Mid(1, 2); }, "'bc' length 2 size 3"},
        {"Mid(0, 4)", "abcd", [](const XString& s) { return s.Mid(0, 4); }, "'abcd' length 4 size 5"},
        {"Mid(1, 3)", "abcd", [](const XString& s) { return s.Mid(1, 3); }, "'bcd' length 3 size 4"},
        {"Mid(1, 4)", "abcd", [](const XString& s) { return s.Mid(1, 4); }, "'bcd' length 3 size 4"},
        {"Mid(1, INT_MAX)", "abcd", [](const XString& s) { return s.Mid(1, INT_MAX); },
         "'bcd' length 3 size 4"},
        {"Mid(3, 1)", "abcd", [](const XString& s) { return s.Mid(3, 1); }, "'d' length 1 size 2"},
        {"Mid(4, 1)", "abcd", [](const XString& s) { return s.Mid(4, 1); }, "no text length 0 size 0"},
        {"Mid(5, 1)", "abcd", [](const XString& s) { return s.Mid(5, 1); }, "no text length 0 size 0"},
        {"Mid(0, 0)", "abcd", [](const XString& s) { return s.Mid(0, 0); }, "no text length 0 size 0"},
        {"Mid(0, -1)", "abcd", [](const XString& s) { return s.Mid(0, -1); }, "no text length 0 size 0"},
        {"Mid(0, 1) of nothing", "", [](const XString& s) { return s.Mid(0, 1); }, "no text length 0 size 0"},
        {"including", "abacb", [](const XString& s) { return s.SpanIncluding("ba"); },
         "'aba' length 3 size 4"},
        {"including all", "abba", [](const XString& s) { return s.SpanIncluding("ba"); },
         "'abba' length 4 size 5"},
        {"including none", "cab", [](const XString& s) { return s.SpanIncluding("ba"); },
         "'' length 0 size 1"},
        {"including no set", "abc", [](const XString& s) { return s.SpanIncluding(""); },
         "'' length 0 size 1"},
        {"including, of nothing", "", [](const XString& s) { return s.SpanIncluding("ba"); },
         "'' length 0 size 1"},
        {"excluding", "cdcac", [](const XString& s) { return s.SpanExcluding("ba"); },
         "'cdc' length 3 size 4"},
        {"excluding all", "cddc", [](const XString& s) { return s.SpanExcluding("ba"); },
         "'cddc' length 4 size 5"},
        {"excluding none", "acd", [](const XString& s) { return s.SpanExcluding("ba"); },
         "'' length 0 size 1"},
        {"excluding no set", "abc", [](const XString& s) { return s.SpanExcluding(""); },
         "'abc' length 3 size 4"},
        {"excluding, of nothing", "", [](const XString& s) { return s.SpanExcluding("ba"); },
         "'' length 0 size 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const XString s = WithBuffer(c.text, 20);
        const XString other(s);
        const std::string bytes = Bytes(s, 20);
        const int strings = XString::m_iObjCount;
        const int headers = XStringData::m_iObjCount;
        {
            const XString part = c.run(s);
            EXPECT_EQ(State(part), std::string(c.state) + " refs 1 block -1");
            EXPECT_EQ(XString::m_iObjCount, strings + 1);
            EXPECT_EQ(XStringData::m_iObjCount, headers + 1);
        }
        EXPECT_EQ(State(s), Text("'%s' length %zu size 20 refs 2 block 7", c.text, strlen(c.text)));
        EXPECT_EQ(s.m_pStrData, other.m_pStrData);
        EXPECT_EQ(Bytes(s, 20), bytes);
    }
}

TEST(XStringEdit, Extracts_allocate_no_more_than_they_say) {
    const XString s("abcd");
    CallLog log({Call::Malloc, Call::Realloc});
    s.Mid(1);
    s.Mid(1, 2);
    s.SpanIncluding("ab");
    s.SpanExcluding("d");
    s.Mid(4);
    s.Mid(4, 1);
    EXPECT_EQ(log.Texts(),
              (std::vector<std::string>{"malloc(4)", "malloc(3)", "malloc(3)", "malloc(4)", "malloc(1)"}));
}

TEST(XStringEdit, Mid_of_a_string_without_text_differs_by_its_form) {
    const XString s;
    EXPECT_EQ(State(s.Mid(0)), kOneByte);
    EXPECT_EQ(State(s.Mid(3)), kOneByte);
    EXPECT_EQ(State(s.Mid(0, 1)), kFresh);
    EXPECT_EQ(State(s.Mid(3, 1)), kFresh);
}

TEST(XStringEdit, Mid_does_not_clamp_a_negative_start) {
    const InTheMiddle middle;
    EXPECT_EQ(State(middle.string.Mid(-2)), "'yzabc' length 5 size 6 refs 1 block -1");
    EXPECT_EQ(State(middle.string.Mid(-2, 3)), "'yza' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(State(middle.string.Mid(-2, 5)), "'yzabc' length 5 size 6 refs 1 block -1");
    EXPECT_EQ(State(middle.string.Mid(-2, 100)), "'yzabc' length 5 size 6 refs 1 block -1");
    EXPECT_EQ(State(middle.string.Mid(-2, 0)), kFresh);
}

TEST(XStringEdit, Mid_ends_at_a_NUL_only_without_a_count) {
    const XString s("ab\0cd", 5);
    EXPECT_EQ(Content(s.Mid(1)), "b");
    EXPECT_EQ(Content(s.Mid(3)), "cd");
    EXPECT_EQ(State(s.Mid(2)), kOneByte) << "a NUL is the first character";
    EXPECT_EQ(Content(s.Mid(1, 3)), std::string("b\0c", 3));
    EXPECT_EQ(s.Mid(1, 3).m_pStrData->m_uiBuffSize, 4U);
    EXPECT_EQ(Content(s.Mid(2, 100)), std::string("\0cd", 3));
}

TEST(XStringEdit, Spans_end_at_a_NUL) {
    const XString s("ab\0ab", 5);
    EXPECT_EQ(State(s.SpanIncluding("ab")), "'ab' length 2 size 3 refs 1 block -1");
    EXPECT_EQ(State(s.SpanExcluding("x")), "'ab' length 2 size 3 refs 1 block -1");
}

TEST(XStringEdit, Spans_compare_characters_above_127) {
    const XString s("\xE4\xFF\x80z");
    EXPECT_EQ(Content(s.SpanIncluding("\xFF\xE4")), "\xE4\xFF");
    EXPECT_EQ(Content(s.SpanExcluding("\x80")), "\xE4\xFF");
}

TEST(XStringEdit, Extracts_go_by_the_length_where_a_character_was_assigned) {
    XString s;
    s = 'x';
    EXPECT_EQ(State(s.Mid(0)), kOneByte);
    EXPECT_EQ(State(s.Mid(0, 1)), kFresh);
}

TEST(XStringEdit, Extracts_without_memory_leave_nothing_behind) {
    const struct {
        const char* name;
        std::function<int(XString&)> run;
    } cases[] = {
        {"Mid to the end", Void([](XString& s) { s.Mid(1); })},
        {"Mid behind the end", Void([](XString& s) { s.Mid(4); })},
        {"Mid", Void([](XString& s) { s.Mid(1, 2); })},
        {"SpanIncluding", Void([](XString& s) { s.SpanIncluding("ab"); })},
        {"SpanIncluding none", Void([](XString& s) { s.SpanIncluding("x"); })},
        {"SpanExcluding", Void([](XString& s) { s.SpanExcluding("c"); })},
        {"SpanExcluding none", Void([](XString& s) { s.SpanExcluding("a"); })},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s("abcd");
        const XString other(s);
        ExpectUntouchedWithoutMemory(s, c.run);
    }
}

// -- Changing characters -------------------------------------------------------------------------------

TEST(XStringEdit, Case_is_changed_as_the_C_library_does_it_byte_by_byte) {
    std::string all, upper, lower;
    for (int c = 1; c < 256; c++) {
        all += static_cast<char>(c);
        upper += static_cast<char>(toupper(c));
        lower += static_cast<char>(tolower(c));
    }
    XString s(all.c_str());
    s.MakeUpper();
    EXPECT_EQ(Content(s), upper);
    s = all.c_str();
    s.MakeLower();
    EXPECT_EQ(Content(s), lower);
}

TEST(XStringEdit, Case_of_characters_above_127_stays_in_the_C_locale) {
    XString s("\xE4\xC4\x80\xFF");
    s.MakeUpper();
    EXPECT_STREQ(s, "\xE4\xC4\x80\xFF");
    s.MakeLower();
    EXPECT_STREQ(s, "\xE4\xC4\x80\xFF");
}

TEST(XStringEdit, Case_is_changed_up_to_the_first_NUL) {
    XString s("ab\0cd", 5);
    s.MakeUpper();
    EXPECT_EQ(Content(s), std::string("AB\0cd", 5));
    XString t("AB\0CD", 5);
    t.MakeLower();
    EXPECT_EQ(Content(t), std::string("ab\0CD", 5));
}

TEST(XStringEdit, Case_of_an_assigned_character_is_changed) {
    XString s;
    s = 'x';
    s.MakeUpper();
    EXPECT_EQ(State(s), "'X' length 0 size 2 refs 1 block -1");
    s.MakeLower();
    EXPECT_EQ(State(s), "'x' length 0 size 2 refs 1 block -1");
}

TEST(XStringEdit, MakeUpper_and_MakeLower_of_a_locked_buffer_only_unlock_it) {
    XString s("aB");
    s.m_pStrData->LockBuffer();
    s.MakeUpper();
    EXPECT_EQ(State(s), "'aB' length 2 size 3 refs 1 block -1");
    s.m_pStrData->LockBuffer();
    s.MakeLower();
    EXPECT_EQ(State(s), "'aB' length 2 size 3 refs 1 block -1");
}

TEST(XStringEdit, MakeUpper_and_MakeLower_of_a_string_without_text_leave_it_unlocked) {
    XString s;
    s.MakeUpper();
    EXPECT_EQ(State(s), kFresh);
    s.MakeLower();
    EXPECT_EQ(State(s), kFresh);
    s.m_pStrData->LockBuffer();
    s.MakeUpper();
    EXPECT_EQ(State(s), kFresh);
    s.m_pStrData->LockBuffer();
    s.MakeLower();
    EXPECT_EQ(State(s), kFresh);
}

TEST(XStringEdit, MakeReverse_goes_by_the_length) {
    XString s("a\0bc", 4);
    s.MakeReverse();
    EXPECT_EQ(Content(s), std::string("cb\0a", 4));
    EXPECT_EQ(s.m_pStrData->m_pszData[4], '\0');
    XString t;
    t = 'x';
    t.MakeReverse();
    EXPECT_EQ(State(t), "'x' length 0 size 2 refs 1 block -1");
}

TEST(XStringEdit, MakeReverse_moves_characters_above_127) {
    XString s("\xE4\xFF");
    s.MakeReverse();
    EXPECT_STREQ(s, "\xFF\xE4");
}

TEST(XStringEdit, Replace_of_a_character_ends_at_the_first_NUL) {
    XString s("ab\0ab", 5);
    EXPECT_EQ(s.Replace('b', 'x'), 1);
    EXPECT_EQ(Content(s), std::string("ax\0ab", 5));
}

TEST(XStringEdit, Replace_by_NUL_leaves_the_length) {
    XString s("abcb");
    EXPECT_EQ(s.Replace('b', '\0'), 2);
    EXPECT_EQ(Content(s), std::string("a\0c\0", 4));
}

TEST(XStringEdit, Replace_of_characters_above_127) {
    XString s("\xE4z\xE4");
    EXPECT_EQ(s.Replace('\xE4', '\xC4'), 2);
    EXPECT_STREQ(s, "\xC4z\xC4");
}

// -- Replacing texts -----------------------------------------------------------------------------------

TEST(XStringEdit, Replace_finds_any_number_of_places) {
    for (const int count : {1, 2, 63, 64, 65, 66, 127, 128, 129, 200, 1000}) {
        SCOPED_TRACE(count);
        std::string text, longer, shorter;
        for (int i = 0; i < count; i++) {
            const std::string between = Text("%d.", i);
            text += between + "ab";
            longer += between + "xyz";
            shorter += between + "x";
        }
        for (const std::string tail : {"", "tail"}) {
            XString s((text + tail).c_str());
            EXPECT_EQ(s.Replace("ab", "xyz"), count);
            EXPECT_EQ(Content(s), longer + tail);
            EXPECT_EQ(s.m_pStrData->m_uiBuffSize, (longer + tail).size() + 1);
            XString t((text + tail).c_str());
            EXPECT_EQ(t.Replace("ab", "x"), count);
            EXPECT_EQ(Content(t), shorter + tail);
            EXPECT_EQ(t.m_pStrData->m_uiBuffSize, (shorter + tail).size() + 1);
            XString u((text + tail).c_str());
            EXPECT_EQ(u.Replace("ab", "ba"), count);
            EXPECT_EQ(u.Replace("ba", "ab"), count);
            EXPECT_EQ(Content(u), text + tail);
        }
    }
}

TEST(XStringEdit, Replace_of_many_adjacent_places_takes_them_from_left_to_right) {
    XString s('a', 201);
    EXPECT_EQ(s.Replace("aa", "b"), 100);
    EXPECT_EQ(Content(s), std::string(100, 'b') + "a");
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 102U);
    EXPECT_EQ(s.Replace("b", ""), 100);
    EXPECT_EQ(State(s), "'a' length 1 size 2 refs 1 block -1");
}

TEST(XStringEdit, Replace_of_many_places_without_memory_keeps_header_and_text) {
    XString s('a', 200);
    ExpectUntouchedWithoutMemory(s, [](XString& t) { return t.Replace("a", "bb"); });
}

TEST(XStringEdit, Replace_cuts_a_large_buffer_to_the_exact_size) {
    XString s = WithBuffer("abc", 500);
    CallLog log({Call::Malloc, Call::Realloc});
    EXPECT_EQ(s.Replace("b", "x"), 1);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"malloc(4)"}));
    EXPECT_EQ(State(s), "'axc' length 3 size 4 refs 1 block 7");
}

TEST(XStringEdit, Replace_finds_texts_up_to_the_first_NUL_and_keeps_what_is_behind) {
    XString s("ab\0ab", 5);
    EXPECT_EQ(s.Replace("b", "xy"), 1);
    EXPECT_EQ(Content(s), std::string("axy\0ab", 6));
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 7U);
    EXPECT_EQ(s.m_pStrData->m_pszData[6], '\0');
}

TEST(XStringEdit, Replace_goes_by_the_length_where_an_insertion_has_left_more_text) {
    const struct {
        const char* old;
        int count;
        const char* state;
    } cases[] = {
        {"abc", 0, "'vwxyzabc' length 3 size 16 refs 1 block 7"}, // behind the length
        {"xyz", 0, "'vwxyzabc' length 3 size 16 refs 1 block 7"}, // across its end
        {"w", 1, "'v--x' length 4 size 5 refs 1 block 7"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.old);
        XString s = WithBuffer("abc", 16);
        memset(s.m_pStrData->m_pszData + 3, '\0', 13);
        ASSERT_EQ(s.Insert(0, "vwxyz"), 3) << "in place";
        EXPECT_EQ(s.Replace(c.old, "--"), c.count);
        EXPECT_EQ(State(s), c.state);
    }
}

TEST(XStringEdit, Replace_does_not_see_an_assigned_character) {
    XString s;
    s = 'x';
    EXPECT_EQ(s.Replace("x", "y"), 0);
    EXPECT_EQ(s.Replace('x', 'y'), 0);
    EXPECT_EQ(State(s), "'x' length 0 size 2 refs 1 block -1");
}

TEST(XStringEdit, Replace_in_a_string_without_text_finds_nothing) {
    XString s;
    EXPECT_EQ(s.Replace("a", "b"), 0);
    EXPECT_EQ(s.Replace('a', 'b'), 0);
    EXPECT_EQ(State(s), kFresh);
}

TEST(XStringEdit, Replace_of_texts_above_127) {
    XString s("\xE4z\xE4");
    EXPECT_EQ(s.Replace("\xE4", "ae"), 2);
    EXPECT_EQ(State(s), "'aezae' length 5 size 6 refs 1 block -1");
}

// -- Removing ------------------------------------------------------------------------------------------

TEST(XStringEdit, Remove_from_a_string_without_text_finds_nothing) {
    XString s;
    EXPECT_EQ(s.Remove('a'), 0);
    EXPECT_EQ(s.Remove('\0'), 0);
    EXPECT_EQ(State(s), kFresh);
}

TEST(XStringEdit, Remove_of_a_character_above_127) {
    XString s("\xE4z\xE4");
    EXPECT_EQ(s.Remove('\xE4'), 2);
    EXPECT_EQ(State(s), "'z' length 1 size 4 refs 1 block -1");
}

TEST(XStringEdit, Remove_ends_at_the_first_NUL_and_moves_what_is_behind) {
    XString s("ab\0bc", 5);
    EXPECT_EQ(s.Remove('b'), 1);
    EXPECT_EQ(Content(s), std::string("a\0bc", 4));
    EXPECT_EQ(s.m_pStrData->m_pszData[4], '\0');
}

TEST(XStringEdit, Delete_goes_by_the_length) {
    XString s("a\0bcd", 5);
    EXPECT_EQ(s.Delete(0, 1), 4);
    EXPECT_EQ(Content(s), std::string("\0bcd", 4));
    EXPECT_EQ(s.m_pStrData->m_pszData[4], '\0');
    EXPECT_EQ(s.Delete(2, 1), 3);
    EXPECT_EQ(Content(s), std::string("\0bd", 3));
}

TEST(XStringEdit, Delete_from_a_string_without_text_returns_0) {
    XString s;
    EXPECT_EQ(s.Delete(0, 1), 0);
    EXPECT_EQ(State(s), kFresh);
}

TEST(XStringEdit, Shared_strings_without_text_are_detached_where_others_would_be) {
    const struct {
        const char* name;
        std::function<void(XString&)> run;
        bool detaches;
    } cases[] = {
        {"MakeUpper", [](XString& s) { s.MakeUpper(); }, true},
        {"MakeLower", [](XString& s) { s.MakeLower(); }, true},
        {"Delete", [](XString& s) { EXPECT_EQ(s.Delete(0, 1), 0); }, true},
        {"MakeReverse", [](XString& s) { s.MakeReverse(); }, false},
        {"Replace character", [](XString& s) { EXPECT_EQ(s.Replace('a', 'b'), 0); }, false},
        {"Replace text", [](XString& s) { EXPECT_EQ(s.Replace("a", "b"), 0); }, false},
        {"Remove", [](XString& s) { EXPECT_EQ(s.Remove('a'), 0); }, false},
        {"Insert nothing", [](XString& s) { EXPECT_EQ(s.Insert(0, ""), 0); }, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s;
        const XString other(s);
        c.run(s);
        EXPECT_EQ(s.m_pStrData != other.m_pStrData, c.detaches);
        EXPECT_EQ(State(s), c.detaches ? "'' length 0 size 0 refs 1 block -1"
                                       : "no text length 0 size 0 refs 2 block -1");
        EXPECT_EQ(other.m_pStrData->m_pszData, nullptr);
    }
}

TEST(XStringEdit, Strings_detached_without_a_buffer_are_empty_texts) {
    const struct {
        const char* name;
        std::function<void(XString&)> run;
        const char* state;
    } cases[] = {
        {"searches",
         [](XString& s) {
             EXPECT_EQ(s.Find('\0'), 0);
             EXPECT_EQ(s.Find("a"), -1);
             EXPECT_EQ(s.FindOneOf("a"), -1);
         },
         "'' length 0 size 0"},
        {"extracts",
         [](XString& s) {
             EXPECT_EQ(State(s.Mid(0)), kOneByte);
             EXPECT_EQ(State(s.SpanExcluding("a")), kOneByte);
         },
         "'' length 0 size 0"},
        {"MakeLower", [](XString& s) { s.MakeLower(); }, "'' length 0 size 0"},
        {"Remove", [](XString& s) { EXPECT_EQ(s.Remove('a'), 0); }, "'' length 0 size 0"},
        {"Delete", [](XString& s) { EXPECT_EQ(s.Delete(0, 1), 0); }, "'' length 0 size 0"},
        {"TrimLeft character", [](XString& s) { s.TrimLeft('a'); }, "'' length 0 size 0"},
        {"TrimLeft NUL", [](XString& s) { s.TrimLeft('\0'); }, "'' length 0 size 0"},
        {"TrimLeft set", [](XString& s) { s.TrimLeft("a"); }, "'' length 0 size 0"},
        {"Insert character", [](XString& s) { EXPECT_EQ(s.Insert(0, 'x'), 1); }, "'x' length 1 size 2"},
        {"Insert text", [](XString& s) { EXPECT_EQ(s.Insert(0, "xy"), 2); }, "'xy' length 2 size 3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s;
        const XString other(s);
        s.MakeUpper();
        c.run(s);
        EXPECT_EQ(State(s), std::string(c.state) + " refs 1 block -1");
        EXPECT_EQ(State(other), kFresh);
    }
}

// -- Inserting -----------------------------------------------------------------------------------------

TEST(XStringEdit, Insert_without_room_builds_a_buffer_that_fits) {
    const struct {
        int index;
        const char *character, *text;
    } cases[] = {
        {INT_MIN, "xabc", "xyabc"}, {-1, "xabc", "xyabc"}, {0, "xabc", "xyabc"}, {1, "axbc", "axybc"},
        {2, "abxc", "abxyc"},       {3, "abcx", "abcxy"},  {4, "abcx", "abcxy"}, {INT_MAX, "abcx", "abcxy"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.index);
        XString s = WithBuffer("abc", 4);
        const XStringData* header = s.m_pStrData;
        EXPECT_EQ(s.Insert(c.index, 'x'), 4);
        EXPECT_EQ(State(s), Text("'%s' length 4 size 5 refs 1 block 7", c.character));
        EXPECT_NE(s.m_pStrData, header);

        XString t = WithBuffer("abc", 4);
        header = t.m_pStrData;
        EXPECT_EQ(t.Insert(c.index, "xy"), 5);
        EXPECT_EQ(State(t), Text("'%s' length 5 size 6 refs 1 block 7", c.text));
        EXPECT_NE(t.m_pStrData, header);
    }
}

TEST(XStringEdit, Insert_into_a_shared_string_builds_a_buffer_that_fits_whatever_room_there_is) {
    for (const unsigned int size : {4U, 5U, 6U, 16U}) {
        for (const int index : {0, 1, 2, 3, 10}) {
            SCOPED_TRACE(Text("%u bytes, at %d", size, index));
            const std::string begin = std::string("abc").substr(0, static_cast<size_t>(std::min(index, 3)));
            const std::string end = std::string("abc").substr(static_cast<size_t>(std::min(index, 3)));
            XString s = WithBuffer("abc", size);
            const XString other(s);
            const std::string bytes = Bytes(other, size);
            EXPECT_EQ(s.Insert(index, 'x'), 4);
            EXPECT_EQ(State(s), Text("'%sx%s' length 4 size 5 refs 1 block 7", begin.c_str(), end.c_str()));
            EXPECT_EQ(State(other), Text("'abc' length 3 size %u refs 1 block 7", size));

            XString t(other);
            EXPECT_EQ(t.Insert(index, "xy"), 5);
            EXPECT_EQ(State(t), Text("'%sxy%s' length 5 size 6 refs 1 block 7", begin.c_str(), end.c_str()));
            EXPECT_EQ(State(other), Text("'abc' length 3 size %u refs 1 block 7", size));
            EXPECT_EQ(Bytes(other, size), bytes);
        }
    }
}

namespace {

// An insertion into "abc" in a buffer of its own leaves these bytes, and nothing else is changed.
template <class Inserted>
void ExpectInPlace(int index, Inserted inserted, unsigned int size, const std::string& bytes) {
    SCOPED_TRACE(Text("at %d in %u bytes", index, size));
    XString s = WithBuffer("abc", size);
    const XStringData* header = s.m_pStrData;
    AllocationCounter counter;
    const int result = s.Insert(index, inserted);
    const int allocations = counter.Allocations();
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(result, 3) << "the old length";
    EXPECT_EQ(s.GetLength(), 3);
    EXPECT_EQ(s.m_pStrData, header);
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, size);
    EXPECT_EQ(s.m_pStrData->m_iBlockSize, 7);
    EXPECT_FALSE(s.m_pStrData->m_bLocked);
    EXPECT_EQ(Bytes(s, static_cast<unsigned int>(bytes.size())), bytes) << "no NUL is written";
}

struct Placed {
    int index;
    const char* bytes;
};

} // namespace

TEST(XStringEdit, Insert_of_a_character_in_place_moves_the_rest_and_leaves_length_and_what_is_behind) {
    for (const Placed& c : {Placed{-1, "xabcz"}, {0, "xabcz"}, {1, "axbcz"}, {2, "abxcz"}})
        for (const unsigned int size : {5U, 16U})
            ExpectInPlace(c.index, 'x', size, c.bytes);
}

TEST(XStringEdit, Insert_of_a_text_in_place_moves_the_rest_and_leaves_length_and_what_is_behind) {
    for (const Placed& c : {Placed{-1, "vwxyabcz"}, {0, "vwxyabcz"}, {1, "avwxybcz"}, {2, "abvwxycz"}})
        for (const unsigned int size : {8U, 16U})
            ExpectInPlace(c.index, "vwxy", size, c.bytes);
}

TEST(XStringEdit, Insert_in_place_begins_where_the_text_and_its_NUL_fit_exactly) {
    XString s = WithBuffer("abc", 4);
    EXPECT_EQ(s.Insert(1, 'x'), 4) << "builds anew";
    XString t = WithBuffer("abc", 5);
    EXPECT_EQ(t.Insert(1, 'x'), 3) << "in place";
    XString u = WithBuffer("abc", 5);
    EXPECT_EQ(u.Insert(1, "xy"), 5) << "builds anew";
    XString v = WithBuffer("abc", 6);
    EXPECT_EQ(v.Insert(1, "xy"), 3) << "in place";
}

TEST(XStringEdit, Insert_of_a_text_compares_sizes_as_signed_numbers) {
    XString s = WithBuffer("abc", 16);
    s.m_pStrData->m_uiBuffSize = 0x80000000U;
    EXPECT_EQ(s.Insert(1, "xy"), 5);
    EXPECT_EQ(State(s), "'axybc' length 5 size 6 refs 1 block 7");
}

TEST(XStringEdit, Insert_goes_in_place_after_what_leaves_room) {
    const struct {
        const char* name;
        std::function<void(XString&)> makeRoom;
    } cases[] = {
        {"+= character", [](XString& s) { s += 'c'; }},
        {"Resize",
         [](XString& s) {
             s = "abc";
             s.Resize(15);
         }},
        {"Format", [](XString& s) { s.Format("%s%d", "abc", 4); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s("ab");
        c.makeRoom(s);
        const int length = s.GetLength();
        ASSERT_GE(s.m_pStrData->m_uiBuffSize, static_cast<unsigned int>(length) + 2);
        EXPECT_EQ(s.Insert(1, 'x'), length);
        EXPECT_EQ(Bytes(s, 4), "axbc");
    }
}

TEST(XStringEdit, Insert_of_a_character_at_the_end_with_room_appends_in_place) {
    for (const int index : {3, 4, INT_MAX}) {
        SCOPED_TRACE(index);
        XString s = WithBuffer("abc", 5);
        const XStringData* header = s.m_pStrData;
        EXPECT_EQ(s.Insert(index, 'x'), 4);
        EXPECT_EQ(s.m_pStrData, header);
        EXPECT_EQ(State(s), "'abcx' length 4 size 5 refs 1 block 7");
    }
}

TEST(XStringEdit, Insert_of_a_text_at_the_end_with_room_builds_anew_with_the_default_granule) {
    for (const int index : {3, 4, INT_MAX}) {
        SCOPED_TRACE(index);
        XString s = WithBuffer("abc", 16);
        const XStringData* header = s.m_pStrData;
        EXPECT_EQ(s.Insert(index, "xy"), 5);
        EXPECT_NE(s.m_pStrData, header);
        EXPECT_EQ(State(s), "'abcxy' length 5 size 6 refs 1 block -1");
    }
}

TEST(XStringEdit, Insert_into_a_string_without_text_makes_one) {
    for (const int index : {-1, 0, 5}) {
        SCOPED_TRACE(index);
        XString s;
        s.m_pStrData->m_iBlockSize = 7;
        EXPECT_EQ(s.Insert(index, 'x'), 1);
        EXPECT_EQ(State(s), "'x' length 1 size 2 refs 1 block 7");
        XString t;
        t.m_pStrData->m_iBlockSize = 7;
        EXPECT_EQ(t.Insert(index, "xyz"), 3);
        EXPECT_EQ(State(t), "'xyz' length 3 size 4 refs 1 block 7");
    }
}

TEST(XStringEdit, Insert_into_a_shared_string_without_text_makes_one) {
    const XString other;
    XString s(other);
    EXPECT_EQ(s.Insert(0, 'x'), 1);
    EXPECT_EQ(State(s), "'x' length 1 size 2 refs 1 block -1");
    XString t(other);
    EXPECT_EQ(t.Insert(0, "xyz"), 3);
    EXPECT_EQ(State(t), "'xyz' length 3 size 4 refs 1 block -1");
    EXPECT_EQ(State(other), kFresh);
}

TEST(XStringEdit, Insert_of_nothing_into_a_string_without_text_returns_0) {
    XString s;
    EXPECT_EQ(s.Insert(0, kNull), 0);
    EXPECT_EQ(s.Insert(0, ""), 0);
    EXPECT_EQ(State(s), kFresh);
}

TEST(XStringEdit, Insert_of_a_NUL_counts) {
    XString s("abc");
    EXPECT_EQ(s.Insert(1, '\0'), 4);
    EXPECT_EQ(Content(s), std::string("a\0bc", 4));
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, 5U);
}

TEST(XStringEdit, Insert_of_characters_above_127) {
    XString s("ab");
    EXPECT_EQ(s.Insert(1, '\xE4'), 3);
    EXPECT_EQ(s.Insert(1, "\xFF\x80"), 5);
    EXPECT_STREQ(s, "a\xFF\x80\xE4"
                    "b");
}

TEST(XStringEdit, Insert_into_an_assigned_character_goes_by_the_length_0) {
    XString s;
    s = 'x';
    EXPECT_EQ(s.Insert(0, 'y'), 1);
    EXPECT_EQ(State(s), "'y' length 1 size 2 refs 1 block -1") << "appended at 0";
    s = 'x';
    EXPECT_EQ(s.Insert(0, "yz"), 2);
    EXPECT_EQ(State(s), "'yz' length 2 size 3 refs 1 block -1");
}

TEST(XStringEdit, Insert_twice_in_place_loses_what_was_moved_behind_the_length) {
    XString s = WithBuffer("abc", 16);
    s.Insert(0, 'x');
    EXPECT_EQ(s.Insert(0, 'y'), 3);
    EXPECT_EQ(Bytes(s, 5), "yxabz") << "the moved c is overwritten";
}

TEST(XStringEdit, Insert_builds_from_as_much_text_as_the_length_says) {
    XString s = WithBuffer("abc", 5);
    s.Insert(1, 'x'); // in place: no NUL is left in the buffer
    const XString other(s);
    EXPECT_EQ(s.Insert(1, 'y'), 4);
    EXPECT_EQ(State(s), "'ayxb' length 4 size 5 refs 1 block 7");
    XString t(other);
    EXPECT_EQ(t.Insert(1, "vw"), 5);
    EXPECT_EQ(State(t), "'avwxb' length 5 size 6 refs 1 block 7");
    EXPECT_EQ(Bytes(other, 5), "axbcz");
}

TEST(XStringEdit, Insert_allocates_exactly_what_it_needs) {
    XString s("abc");
    CallLog log({Call::Malloc, Call::Realloc});
    s.Insert(1, 'x');
    s.Insert(1, "12345");
    s.Insert(100, "yz");
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"malloc(5)", "malloc(10)", "malloc(12)"}));
}

TEST(XStringEdit, Insert_keeps_the_balance_of_both_counters) {
    for (const bool shared : {false, true}) {
        for (const unsigned int size : {4U, 16U}) {
            for (const int index : {1, 3}) {
                SCOPED_TRACE(Text("shared %d, %u bytes, at %d", shared, size, index));
                XString s = WithBuffer("abc", size);
                XString t = WithBuffer("abc", size);
                const XString otherS(shared ? s : XString());
                const XString otherT(shared ? t : XString());
                const int strings = XString::m_iObjCount;
                const int headers = XStringData::m_iObjCount;
                AllocationCounter counter;
                s.Insert(index, 'x');
                t.Insert(index, "xy");
                const int balance = counter.Balance();
                EXPECT_EQ(balance, shared ? 4 : 0);
                EXPECT_EQ(XString::m_iObjCount, strings);
                EXPECT_EQ(XStringData::m_iObjCount, headers + (shared ? 2 : 0));
            }
        }
    }
}

TEST(XStringEdit, Insert_without_memory_keeps_header_and_text) {
    const auto character = [](XString& s) { return s.Insert(1, 'x'); };
    const auto text = [](XString& s) { return s.Insert(1, "xy"); };
    XString s = WithBuffer("abc", 4);
    ExpectUntouchedWithoutMemory(s, character);
    ExpectUntouchedWithoutMemory(s, text);
    XString empty;
    ExpectUntouchedWithoutMemory(empty, character);
    ExpectUntouchedWithoutMemory(empty, text);
    XString room = WithBuffer("abc", 16);
    ExpectUntouchedWithoutMemory(room, [](XString& t) { return t.Insert(3, "xy"); });
    const XString other(room);
    ExpectUntouchedWithoutMemory(room, character);
    ExpectUntouchedWithoutMemory(room, text);
}

// -- Trimming ------------------------------------------------------------------------------------------

TEST(XStringEdit, TrimLeft_of_NUL_ends_at_the_length) {
    XString s("\0\0ab", 4);
    s.TrimLeft('\0');
    EXPECT_EQ(State(s), "'ab' length 2 size 5 refs 1 block -1");
    XString t("\0\0", 2);
    t.TrimLeft('\0');
    EXPECT_EQ(State(t), "'' length 0 size 3 refs 1 block -1");
}

TEST(XStringEdit, TrimLeft_of_a_set_removes_no_NUL) {
    XString s("\0ab", 3);
    const XString other(s);
    s.TrimLeft("ab");
    EXPECT_NE(s.m_pStrData, other.m_pStrData) << "a NUL occurs in every set";
    EXPECT_EQ(Content(s), std::string("\0ab", 3));
}

TEST(XStringEdit, TrimLeft_moves_all_that_the_length_counts) {
    XString s("xa\0b", 4);
    s.TrimLeft('x');
    EXPECT_EQ(Content(s), std::string("a\0b", 3));
    XString t("xa\0b", 4);
    t.TrimLeft("x");
    EXPECT_EQ(Content(t), std::string("a\0b", 3));
}

TEST(XStringEdit, Trims_remove_no_white_space_but_what_they_are_given) {
    XString s(" \txa");
    s.TrimLeft('x');
    EXPECT_STREQ(s, " \txa");
    s.TrimLeft(" ");
    EXPECT_STREQ(s, "\txa");
    XString t("ax\t ");
    t.TrimRight('x');
    EXPECT_STREQ(t, "ax\t ");
    t.TrimRight(" ");
    EXPECT_STREQ(t, "ax\t");
}

TEST(XStringEdit, Trims_remove_characters_above_127) {
    XString s("\xE4\xE4z\xE4");
    s.TrimLeft('\xE4');
    EXPECT_STREQ(s, "z\xE4");
    s.TrimRight('\xE4');
    EXPECT_STREQ(s, "z");
    XString t("\xE4\xFFz\xFF\xE4");
    t.TrimLeft("\xFF\xE4");
    EXPECT_STREQ(t, "z\xFF\xE4");
    t.TrimRight("\xFF\xE4");
    EXPECT_STREQ(t, "z");
}

TEST(XStringEdit, TrimRight_goes_by_the_length) {
    XString s("ab\0\0", 4);
    s.TrimRight('\0');
    EXPECT_EQ(State(s), "'ab' length 2 size 5 refs 1 block -1");
    XString t("a\0bxx", 5);
    t.TrimRight('x');
    EXPECT_EQ(Content(t), std::string("a\0b", 3));
}

TEST(XStringEdit, TrimRight_of_a_character_aborts_for_an_empty_string) {
    XString without;
    EXPECT_DEATH(without.TrimRight('x'), kIndexAssertion);
    XString with;
    with = "";
    EXPECT_DEATH(with.TrimRight('x'), kIndexAssertion);
}

TEST(XStringEdit, TrimRight_of_a_set_aborts_for_an_empty_string) {
    XString without;
    EXPECT_DEATH(without.TrimRight("xy"), kIndexAssertion);
    XString with;
    with = "";
    EXPECT_DEATH(with.TrimRight("xy"), kIndexAssertion);
}

TEST(XStringEdit, TrimRight_aborts_where_an_assigned_character_leaves_the_length_0) {
    XString s;
    s = 'x';
    EXPECT_DEATH(s.TrimRight('x'), kIndexAssertion);
}

TEST(XStringEdit, Remove_of_an_assigned_character_aborts) {
    XString s;
    s = 'x'; // a text of one character, and the length 0
    EXPECT_DEATH(s.Remove('x'), kLengthAssertion);
}

// -- The buffer lock -----------------------------------------------------------------------------------

TEST(XStringEdit, Edits_of_a_locked_buffer_fault) {
    const struct {
        const char* name;
        std::function<void(XString&)> run;
    } cases[] = {
        {"MakeReverse", [](XString& s) { s.MakeReverse(); }},
        {"Replace", [](XString& s) { s.Replace('a', 'x'); }},
        {"Remove", [](XString& s) { s.Remove('b'); }},
        {"Insert character", [](XString& s) { s.Insert(1, 'x'); }},
        {"Insert character at the end", [](XString& s) { s.Insert(4, 'x'); }},
        {"Insert text", [](XString& s) { s.Insert(1, "xy"); }},
        {"Delete", [](XString& s) { s.Delete(1, 1); }},
        {"TrimLeft character", [](XString& s) { s.TrimLeft('a'); }},
        {"TrimLeft set", [](XString& s) { s.TrimLeft("ab"); }},
        {"TrimRight character", [](XString& s) { s.TrimRight('a'); }},
        {"TrimRight set", [](XString& s) { s.TrimRight("ac"); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s = WithBuffer("abca", 16);
        s.m_pStrData->LockBuffer();
        EXPECT_DEATH(c.run(s), "");
    }
}

TEST(XStringEdit, Operations_with_nothing_to_do_do_not_mind_the_lock) {
    for (const Operation& operation : Operations()) {
        if (operation.header != Stays)
            continue;
        SCOPED_TRACE(operation.name);
        XString s = WithBuffer(operation.text, SizeFor(operation));
        s.m_pStrData->LockBuffer();
        EXPECT_EQ(operation.run(s), operation.result);
        EXPECT_EQ(State(s), Text("'%s' length %zu size %u refs 1 block 7 locked", operation.text,
                                 strlen(operation.text), SizeFor(operation)));
    }
}

TEST(XStringEdit, Delete_outside_the_text_does_not_mind_the_lock) {
    XString s("abc");
    s.m_pStrData->LockBuffer();
    EXPECT_EQ(s.Delete(-1, 1), 3);
    EXPECT_EQ(s.Delete(3, 1), 3);
    EXPECT_EQ(State(s), "'abc' length 3 size 4 refs 1 block -1 locked");
}

TEST(XStringEdit, Edits_of_a_shared_locked_header_change_an_unlocked_copy) {
    for (const Operation& operation : Operations()) {
        if (operation.header == Stays)
            continue;
        SCOPED_TRACE(operation.name);
        XString s = WithBuffer(operation.text, SizeFor(operation));
        const XString other(s);
        s.m_pStrData->LockBuffer();
        EXPECT_EQ(operation.run(s), operation.result);
        EXPECT_EQ(State(s), Text("'%s' length %zu size %u refs 1 block 7", operation.after,
                                 strlen(operation.after), SizeAfter(operation)));
        EXPECT_EQ(State(other), Text("'%s' length %zu size %u refs 1 block 7 locked", operation.text,
                                     strlen(operation.text), SizeFor(operation)));
    }
}

TEST(XStringEdit, Edits_that_build_anew_do_not_mind_the_lock_and_leave_it_behind) {
    XString replaced("abc");
    replaced.m_pStrData->LockBuffer();
    EXPECT_EQ(replaced.Replace("b", "x"), 1);
    EXPECT_EQ(State(replaced), "'axc' length 3 size 4 refs 1 block -1");

    XString character("abc");
    character.m_pStrData->LockBuffer();
    EXPECT_EQ(character.Insert(1, 'x'), 4);
    EXPECT_EQ(State(character), "'axbc' length 4 size 5 refs 1 block -1");

    XString text("abc");
    text.m_pStrData->LockBuffer();
    EXPECT_EQ(text.Insert(1, "xy"), 5);
    EXPECT_EQ(State(text), "'axybc' length 5 size 6 refs 1 block -1");

    XString appended = WithBuffer("abc", 16);
    appended.m_pStrData->LockBuffer();
    EXPECT_EQ(appended.Insert(3, "xy"), 5);
    EXPECT_EQ(State(appended), "'abcxy' length 5 size 6 refs 1 block -1");
}
