// The string's formatting: the estimate of a format's length, Format and FormatV.
#include <errno.h>
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/XString.h>

#include "support/interpose.h"
#include "support/text.h"

namespace {

std::string State(const XString& s) {
    const XStringData* header = s.m_pStrData;
    return (header->m_pszData ? "'" + std::string(header->m_pszData) + "'" : "no text") +
           Text(" length %u size %u refs %d block %d%s", header->m_uiLength, header->m_uiBuffSize,
                header->m_iRefCount, header->m_iBlockSize, header->m_bLocked ? " locked" : "");
}

// The function's text is the same everywhere.
std::string Assertion(const char* expression, int line) {
    return AssertionRegex("Windows/XString", line,
                          "int CalcMaxFormattedStringLen(const char*, __va_list_tag*)", expression);
}

const std::string kWidthAssertion = Assertion("nWidth >= 0", 1348);
const std::string kPrecisionAssertion = Assertion("nPrecision >= 0", 1368);

// The functions under test with formats that the compiler would not let pass.
int Estimate(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int estimate = CalcMaxFormattedStringLen(format, args);
    va_end(args);
    return estimate;
}

void FormatAny(XString& s, const char* format, ...) {
    va_list args;
    va_start(args, format);
    s.FormatV(format, args);
    va_end(args);
}

// What must come of a format: what the C library leaves in a buffer of the estimated size.
std::string Expected(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vector<char> buffer(static_cast<size_t>(CalcMaxFormattedStringLen(format, args)));
    vsnprintf(buffer.data(), buffer.size(), format, args);
    va_end(args);
    return buffer.data();
}

// What the C library makes of a format without a limit.
std::string Full(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vector<char> buffer(1000);
    vsnprintf(buffer.data(), buffer.size(), format, args);
    va_end(args);
    return buffer.data();
}

const char* const kNullText = NULL;
const wchar_t* const kNullWideText = NULL;

// A string with a buffer of its own of exactly size bytes.
XString WithBuffer(const char* text, unsigned int size) {
    XString s;
    s.m_pStrData->Allocate(size);
    strcpy(s.m_pStrData->m_pszData, text);
    s.m_pStrData->m_uiLength = static_cast<unsigned int>(strlen(text));
    return s;
}

} // namespace

// -- The estimate: plain characters, flags, width, precision

#define EXPECT_ESTIMATE(estimate, ...) EXPECT_EQ(Estimate(__VA_ARGS__), estimate)

TEST(XStringFormat, Estimate_of_an_empty_format_is_1) { EXPECT_ESTIMATE(1, ""); }

TEST(XStringFormat, Estimate_counts_plain_bytes_and_one_for_the_NUL) {
    EXPECT_ESTIMATE(4, "abc");
    EXPECT_ESTIMATE(5, "\xE4\xF6\xFC\n");
}

TEST(XStringFormat, Estimate_counts_a_pair_of_percent_signs_once) {
    EXPECT_ESTIMATE(5, "100%%");
    EXPECT_ESTIMATE(2, "%%");
    EXPECT_ESTIMATE(3, "%%%%");
    EXPECT_ESTIMATE(4, "%%%c", 'x');
}

TEST(XStringFormat, Estimate_charges_integers_and_pointers_32) {
    for (const char* format : {"%d", "%i", "%u", "%o", "%x", "%X"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(33, format, 7);
    }
    EXPECT_ESTIMATE(33, "%p", kNullText);
}

TEST(XStringFormat, Estimate_charges_integers_width_plus_precision_above_32) {
    EXPECT_ESTIMATE(33, "%10.3d", 7);
    EXPECT_ESTIMATE(46, "%40.5x", 7);
    EXPECT_ESTIMATE(33, "%32d", 7);
    EXPECT_ESTIMATE(34, "%33d", 7);
    EXPECT_ESTIMATE(33, "%20.12i", 7);
    EXPECT_ESTIMATE(34, "%20.13u", 7);
    EXPECT_ESTIMATE(41, "%.40o", 7);
    EXPECT_ESTIMATE(41, "%40p", kNullText);
}

TEST(XStringFormat, Estimate_adds_2_for_each_number_sign) {
    EXPECT_ESTIMATE(35, "%#x", 7);
    EXPECT_ESTIMATE(37, "%##x", 7);
    EXPECT_ESTIMATE(43, "%#40x", 7);
}

TEST(XStringFormat, Estimate_skips_the_other_flags) {
    EXPECT_ESTIMATE(33, "%-+0 d", 7);
    EXPECT_ESTIMATE(41, "%-40d", 7);
    EXPECT_ESTIMATE(41, "%+40d", 7);
    EXPECT_ESTIMATE(41, "% 40d", 7);
    EXPECT_ESTIMATE(41, "%040d", 7);
    EXPECT_ESTIMATE(43, "%0-+ #40d", 7);
}

TEST(XStringFormat, Estimate_takes_a_width_from_the_arguments) {
    EXPECT_ESTIMATE(41, "%*d", 40, 7);
    EXPECT_ESTIMATE(41, "%-*d", 40, 7);
    EXPECT_ESTIMATE(41, "%*-d", 40, 7);
    EXPECT_ESTIMATE(6, "%*s", 5, "ab");
}

TEST(XStringFormat, Estimate_takes_the_last_of_several_widths) {
    EXPECT_ESTIMATE(33, "%**d", 50, 7, 1);
    EXPECT_ESTIMATE(51, "%**d", 7, 50, 1);
    EXPECT_ESTIMATE(51, "%**d", -5, 50, 1);
}

TEST(XStringFormat, Estimate_reads_digits_when_the_argument_gave_no_width) {
    EXPECT_ESTIMATE(41, "%*40d", 0, 7);
    EXPECT_ESTIMATE(33, "%*5d", 0, 7);
}

TEST(XStringFormat, Estimate_does_not_read_digits_behind_a_width_from_the_arguments) {
    // The 4 is taken for an unknown conversion of width 50, "0d" for text.
    EXPECT_ESTIMATE(53, "%*40d", 50, 7);
}

TEST(XStringFormat, Estimate_takes_a_precision_from_the_arguments) {
    EXPECT_ESTIMATE(41, "%.*d", 40, 7);
    EXPECT_ESTIMATE(41, "%*.*d", 20, 20, 7);
    EXPECT_ESTIMATE(3, "%.*s", 2, "abcdef");
    EXPECT_ESTIMATE(7, "%.*s", 0, "abcdef");
}

TEST(XStringFormat, Estimate_skips_only_digits_where_the_number_begins_with_something_else) {
    // The tab is taken for an unknown conversion of width 40, "40d" for text.
    EXPECT_ESTIMATE(44, "%\t40d", 7);
    EXPECT_ESTIMATE(8, "%.+5d", 7);
}

TEST(XStringFormat, Estimate_saturates_numbers_that_are_too_large) {
    EXPECT_ESTIMATE(4, "%.2147483648s", "abc");
    EXPECT_ESTIMATE(4, "%.4294967297s", "abc");
    EXPECT_ESTIMATE(4, "%.99999999999999999999s", "abc");
}

TEST(XStringFormat, Negative_width_aborts) {
    XString s;
    EXPECT_DEATH(s.Format("%*d", -5, 7), kWidthAssertion);
    EXPECT_DEATH(FormatAny(s, "%*s", -1, "abc"), kWidthAssertion);
    EXPECT_DEATH(Estimate("%\t-5d", 7), kWidthAssertion);
}

TEST(XStringFormat, Negative_precision_aborts) {
    XString s;
    EXPECT_DEATH(s.Format("%.*d", -5, 7), kPrecisionAssertion);
    EXPECT_DEATH(Estimate("%.-5d", 7), kPrecisionAssertion);
}

// -- The estimate: conversions

TEST(XStringFormat, Estimate_charges_a_character_2) {
    for (const char* format : {"%c", "%C", "%hc", "%hC", "%lc", "%lC"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(3, format, 'x');
    }
    EXPECT_ESTIMATE(2, "%.1c", 'x');
    EXPECT_ESTIMATE(3, "%.9c", 'x');
    EXPECT_ESTIMATE(3, "%1c", 'x');
    EXPECT_ESTIMATE(6, "%5c", 'x');
    EXPECT_ESTIMATE(6, "%5.1c", 'x');
}

TEST(XStringFormat, Estimate_charges_a_text_its_length) {
    for (const char* format : {"%s", "%hs", "%hS"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(5, format, "abcd");
        EXPECT_ESTIMATE(2, format, "");
        EXPECT_ESTIMATE(7, format, kNullText);
    }
}

TEST(XStringFormat, Estimate_charges_a_wide_text_its_length) {
    for (const char* format : {"%S", "%ls", "%lS"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(5, format, L"abcd");
        EXPECT_ESTIMATE(2, format, L"");
        EXPECT_ESTIMATE(7, format, kNullWideText);
    }
}

TEST(XStringFormat, Estimate_cuts_a_text_to_the_precision_and_raises_it_to_the_width) {
    EXPECT_ESTIMATE(3, "%.2s", "abcdef");
    EXPECT_ESTIMATE(3, "%.9s", "ab");
    EXPECT_ESTIMATE(9, "%8s", "ab");
    EXPECT_ESTIMATE(7, "%2s", "abcdef");
    EXPECT_ESTIMATE(9, "%8.2s", "abcdef");
    EXPECT_ESTIMATE(9, "%-8.2s", "abcdef");
    EXPECT_ESTIMATE(5, "%2.4s", "abcdef");
    EXPECT_ESTIMATE(3, "%.2s", kNullText);
    EXPECT_ESTIMATE(11, "%10s", kNullText);
    EXPECT_ESTIMATE(3, "%.2ls", L"abcdef");
    EXPECT_ESTIMATE(9, "%8S", L"ab");
}

TEST(XStringFormat, Estimate_is_not_cut_by_a_precision_of_0) {
    EXPECT_ESTIMATE(7, "%.0s", "abcdef");
    EXPECT_ESTIMATE(7, "%.s", "abcdef");
}

TEST(XStringFormat, Estimate_charges_exponents_128) {
    for (const char* format : {"%e", "%g", "%G"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(129, format, 1.5);
    }
    EXPECT_ESTIMATE(129, "%100.28e", 1.5);
    EXPECT_ESTIMATE(130, "%100.29g", 1.5);
    EXPECT_ESTIMATE(201, "%.200G", 1.5);
}

TEST(XStringFormat, Estimate_measures_f_with_6_more_decimals) {
    EXPECT_ESTIMATE(9, "%f", 1.0);
    EXPECT_ESTIMATE(10, "%f", -1.0);
    EXPECT_ESTIMATE(11, "%.2f", 1.0);
    EXPECT_ESTIMATE(21, "%20f", 1.0);
    EXPECT_ESTIMATE(21, "%-20f", 1.0);
    EXPECT_ESTIMATE(21, "%20.2f", 1.0);
    EXPECT_ESTIMATE(10, "%*.*f", 9, 0, 1.0);
    EXPECT_ESTIMATE(309, "%f", 1e300);
    EXPECT_ESTIMATE(317, "%f", DBL_MAX);
    EXPECT_ESTIMATE(4, "%f", HUGE_VAL);
    EXPECT_ESTIMATE(5, "%f", -HUGE_VAL);
    EXPECT_ESTIMATE(4, "%f", static_cast<double>(NAN));
    EXPECT_ESTIMATE(2 + 206 + 1, "%.200f", 1.0);
}

TEST(XStringFormat, Estimate_measures_f_at_any_width_and_precision) {
    for (int width : {0, 1, 317, 318, 319, 400, 5000}) {
        for (int precision : {0, 1, 300, 5000}) {
            SCOPED_TRACE(Text("%%%d.%df", width, precision));
            const int estimate = 1 + snprintf(NULL, 0, "%*.*f", width, precision + 6, 1e300);
            EXPECT_ESTIMATE(estimate, "%*.*f", width, precision, 1e300);
        }
    }
}

TEST(XStringFormat, Estimate_charges_n_nothing_and_takes_its_argument) {
    int count = 0;
    EXPECT_ESTIMATE(1, "%n", &count);
    EXPECT_ESTIMATE(4, "%n%s", &count, "abc");
}

TEST(XStringFormat, Estimate_charges_unknown_conversions_2_and_takes_no_argument) {
    for (const char* format : {"%E%s", "%a%s", "%A%s", "%y%s", "%m%s"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(6, format, "abc");
    }
    EXPECT_ESTIMATE(6, "%5E");
    EXPECT_ESTIMATE(10, "%5.4E");
    EXPECT_ESTIMATE(3, "%1E");
}

TEST(XStringFormat, Estimate_stops_where_the_format_ends_inside_a_conversion) {
    EXPECT_ESTIMATE(3, "%");
    EXPECT_ESTIMATE(6, "abc%");
    EXPECT_ESTIMATE(6, "%5");
    EXPECT_ESTIMATE(6, "%5.");
    EXPECT_ESTIMATE(8, "%.7");
    EXPECT_ESTIMATE(3, "%-");
    EXPECT_ESTIMATE(5, "%#");
    EXPECT_ESTIMATE(3, "%F");
    EXPECT_ESTIMATE(3, "%l");
    EXPECT_ESTIMATE(3, "%h");
    EXPECT_ESTIMATE(10, "%*", 9);
}

TEST(XStringFormat, Estimate_reads_one_size_mark) {
    EXPECT_ESTIMATE(33, "%ld", 7L);
    EXPECT_ESTIMATE(33, "%hd", 7);
    EXPECT_ESTIMATE(33, "%lX", 7L);
    EXPECT_ESTIMATE(9, "%lf", 1.0);
    EXPECT_ESTIMATE(129, "%le", 1.0);
    EXPECT_ESTIMATE(33, "%Fd", 7);
    EXPECT_ESTIMATE(33, "%Nd", 7);
    EXPECT_ESTIMATE(33, "%Ld", 7);
    EXPECT_ESTIMATE(4, "%Fs", "abc");
    EXPECT_ESTIMATE(4, "%Ns", "abc");
    EXPECT_ESTIMATE(9, "%Lf", 1.0);
}

TEST(XStringFormat, Estimate_takes_other_size_marks_for_conversions) {
    for (const char* format : {"%lld%s", "%hhd%s", "%zd%s", "%jd%s", "%td%s", "%'d%s"}) {
        SCOPED_TRACE(format);
        EXPECT_ESTIMATE(7, format, "abc");
    }
}

TEST(XStringFormat, Estimate_adds_up_a_whole_format_and_walks_the_arguments_in_step) {
    EXPECT_ESTIMATE(32 + 3 + 8 + 128 + 4 + 2 + 7 + 1, "<%d %s %f %e %S|%c>", 7, "abc", 1.0, 2.5, L"wide",
                    'x');
    EXPECT_ESTIMATE(32 + 40 + 5 + 2 + 1, "%ld%*.*x%5s%.*s", 1L, 20, 20, 3U, "ab", 2, "abcdef");
}

TEST(XStringFormat, Estimate_leaves_the_argument_list_as_it_was) {
    const auto twice = [](const char* format, ...) {
        va_list args;
        va_start(args, format);
        const int first = CalcMaxFormattedStringLen(format, args);
        const int second = CalcMaxFormattedStringLen(format, args);
        char text[20];
        vsnprintf(text, sizeof text, format, args);
        va_end(args);
        return Text("%d %d %s", first, second, text);
    };
    EXPECT_EQ(twice("%s %c %s", "abc", 'x', "de"), "10 10 abc x de");
}

// -- Format

TEST(XStringFormat, Format_of_an_integer_into_a_fresh_string) {
    XString s;
    s.Format("%d", 7);
    EXPECT_EQ(State(s), "'7' length 1 size 48 refs 1 block -1");
}

TEST(XStringFormat, Format_replaces_the_text) {
    XString s("something longer");
    s.Format("%s-%d", "abc", 42);
    EXPECT_STREQ(s, "abc-42");
    EXPECT_EQ(s.GetLength(), 6);
}

TEST(XStringFormat, FormatV_is_Format_with_a_list) {
    XString s;
    FormatAny(s, "%s-%d-%c", "abc", 42, 'x');
    EXPECT_EQ(State(s), "'abc-42-x' length 8 size 48 refs 1 block -1");
}

TEST(XStringFormat, Format_agrees_with_the_C_library) {
    XString s;
#define EXPECT_AS_THE_C_LIBRARY(...)                                                                         \
    FormatAny(s, __VA_ARGS__);                                                                               \
    EXPECT_EQ(std::string(s), Full(__VA_ARGS__))
    EXPECT_AS_THE_C_LIBRARY("plain");
    EXPECT_AS_THE_C_LIBRARY("100%%");
    EXPECT_AS_THE_C_LIBRARY("%d %i %u %o %x %X", INT_MIN, -1, UINT_MAX, 8, 255, 255);
    EXPECT_AS_THE_C_LIBRARY("%ld %lu", LONG_MIN, ULONG_MAX);
    EXPECT_AS_THE_C_LIBRARY("%hd|%-5d|%05d|%+d|% d|%#x", 7, 7, 7, 7, 7, 7);
    EXPECT_AS_THE_C_LIBRARY("%p", static_cast<void*>(&s));
    EXPECT_AS_THE_C_LIBRARY("%s|%8s|%-8s|%.2s|%s", "ab", "ab", "ab", "abcdef", kNullText);
    EXPECT_AS_THE_C_LIBRARY("%ls|%S|%.2ls", L"wide", L"wide", L"wide");
    EXPECT_AS_THE_C_LIBRARY("%c%c|%3c|%lc", 'a', 'b', 'c', L'd');
    EXPECT_AS_THE_C_LIBRARY("%f|%.2f|%20.3f|%-20f|%lf", 1.5, 1.5, 1.5, 1.5, 1.5);
    EXPECT_AS_THE_C_LIBRARY("%f", -DBL_MAX);
    EXPECT_AS_THE_C_LIBRARY("%e|%g|%G", 1.5, 1.5e-10, 1.5e300);
    EXPECT_AS_THE_C_LIBRARY("%*d|%.*f|%*.*s", 9, 7, 3, 1.5, 9, 2, "abc");
    EXPECT_AS_THE_C_LIBRARY("%500d", 7);
    EXPECT_AS_THE_C_LIBRARY("%.300d", 7);
#undef EXPECT_AS_THE_C_LIBRARY
}

TEST(XStringFormat, Format_takes_long_texts) {
    const std::string text(100000, 'x');
    XString s;
    s.Format("<%s>", text.c_str());
    EXPECT_EQ(std::string(s), "<" + text + ">");
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, (100003U + 1) / 16 * 16 + 16);
}

TEST(XStringFormat, Format_keeps_a_buffer_that_is_larger_than_the_estimate) {
    const struct {
        unsigned int before, after;
    } cases[] = {{33, 48}, {32, 48}, {34, 34}, {100, 100}, {48, 48}};
    for (const auto& c : cases) { // the estimate of "%d" is 33
        SCOPED_TRACE(Text("buffer of %u bytes", c.before));
        XString s = WithBuffer("abc", c.before);
        s.m_pStrData->m_iBlockSize = 16;
        const XStringData* header = s.m_pStrData;
        s.Format("%d", 7);
        EXPECT_EQ(s.m_pStrData, header);
        EXPECT_EQ(State(s), Text("'7' length 1 size %u refs 1 block 16", c.after));
    }
}

TEST(XStringFormat, Format_never_shrinks_the_buffer) {
    XString s;
    s.Format("%200d", 7);
    const unsigned int size = s.m_pStrData->m_uiBuffSize;
    s.Format("%d", 7);
    s.Format("%s", "");
    EXPECT_EQ(s.m_pStrData->m_uiBuffSize, size);
}

TEST(XStringFormat, Format_rounds_by_the_header_s_own_granule) {
    XString s;
    s.m_pStrData->m_iBlockSize = 50;
    s.Format("%d", 7);
    EXPECT_EQ(State(s), "'7' length 1 size 50 refs 1 block 50");
}

TEST(XStringFormat, Format_passes_the_estimate_as_the_limit) {
    for (unsigned int size : {4U, 100U}) { // a buffer that is replaced, and one that is kept
        XString s = WithBuffer("abc", size);
        CallLog log({Call::Vsnprintf});
        s.Format("%d", 7);
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{"vsnprintf(33)"}));
    }
}

TEST(XStringFormat, Format_leaves_a_sharer_alone) {
    XString small("abc");
    const XString otherSmall(small);
    small.Format("%d", 7);
    EXPECT_EQ(State(small), "'7' length 1 size 34 refs 1 block -1") << "exact, as it was shared";
    EXPECT_EQ(State(otherSmall), "'abc' length 3 size 4 refs 1 block -1");

    XString large = WithBuffer("abc", 100);
    large.m_pStrData->m_iBlockSize = 7;
    const XString otherLarge(large);
    large.Format("%d", 7);
    EXPECT_EQ(State(large), "'7' length 1 size 100 refs 1 block 7");
    EXPECT_EQ(State(otherLarge), "'abc' length 3 size 100 refs 1 block 7");
}

TEST(XStringFormat, Format_of_a_shared_string_without_a_buffer) {
    XString a;
    XString b(a);
    b.Format("%d", 7);
    EXPECT_EQ(State(b), "'7' length 1 size 34 refs 1 block -1");
    EXPECT_EQ(State(a), "no text length 0 size 0 refs 1 block -1");
}

TEST(XStringFormat, Format_after_an_assigned_character_is_unaffected) {
    XString s;
    s = 'x';
    s.Format("%s", "abc");
    EXPECT_EQ(State(s), "'abc' length 3 size 16 refs 1 block -1");
}

TEST(XStringFormat, Format_ends_the_length_at_a_NUL) {
    XString s;
    s.Format("a%cb", 0);
    EXPECT_EQ(s.GetLength(), 1);
    s.Format("%s=%d%c%s", "a", 7, 0, "b");
    EXPECT_EQ(s.GetLength(), 3);
    FormatAny(s, "%s=%d%c%s", "a", 7, 0, "b");
    EXPECT_EQ(s.GetLength(), 3);
}

TEST(XStringFormat, Format_counts_what_it_finds_when_vsnprintf_does_not_tell_the_length) {
    for (long result : {-1L, 33L, 1000L}) { // failed, cut, cut by more
        SCOPED_TRACE(result);
        Interpose vsnprintf(Call::Vsnprintf);
        vsnprintf.OnThisThread().Always().Return(result);
        XString s = WithBuffer("abc", 100);
        s.Format("%d", 7);
        EXPECT_EQ(State(s), "'abc' length 3 size 100 refs 1 block -1");
        FormatAny(s, "%d", 7);
        EXPECT_EQ(State(s), "'abc' length 3 size 100 refs 1 block -1");
    }
}

TEST(XStringFormat, Format_of_a_locked_buffer_faults) {
    XString s = WithBuffer("abc", 100);
    s.m_pStrData->LockBuffer();
    EXPECT_DEATH(s.Format("%d", 7), "");
    EXPECT_DEATH(FormatAny(s, ""), "");
}

// -- Empty formats

TEST(XStringFormat, Empty_formats_leave_an_empty_text_with_a_buffer) {
    const char* const formats[] = {NULL, ""};
    for (const char* format : formats) {
        SCOPED_TRACE(format ? "empty" : "NULL");
        XString fresh;
        FormatAny(fresh, format);
        EXPECT_EQ(State(fresh), "'' length 0 size 16 refs 1 block -1");

        XString oneByte("x");
        oneByte = "";
        FormatAny(oneByte, format);
        EXPECT_EQ(State(oneByte), "'' length 0 size 16 refs 1 block -1");

        XString two("x");
        FormatAny(two, format);
        EXPECT_EQ(State(two), "'' length 0 size 2 refs 1 block -1") << "larger than 1 byte is kept";

        XString large = WithBuffer("abc", 100);
        large.m_pStrData->m_iBlockSize = 7;
        const char* text = large;
        FormatAny(large, format);
        EXPECT_EQ(State(large), "'' length 0 size 100 refs 1 block 7");
        EXPECT_EQ(static_cast<const char*>(large), text);
    }
}

TEST(XStringFormat, Empty_formats_leave_a_sharer_alone) {
    const char* const formats[] = {NULL, ""};
    for (const char* format : formats) {
        SCOPED_TRACE(format ? "empty" : "NULL");
        XString a("abc");
        const XString otherA(a);
        FormatAny(a, format);
        EXPECT_EQ(State(a), "'' length 0 size 4 refs 1 block -1");
        EXPECT_EQ(State(otherA), "'abc' length 3 size 4 refs 1 block -1");

        XString two("x");
        const XString otherTwo(two);
        FormatAny(two, format);
        EXPECT_EQ(State(two), "'' length 0 size 2 refs 1 block -1");
        EXPECT_EQ(State(otherTwo), "'x' length 1 size 2 refs 1 block -1");

        XString b;
        const XString otherB(b);
        FormatAny(b, format);
        EXPECT_EQ(State(b), "'' length 0 size 2 refs 1 block -1") << "exact, as it was shared";
        EXPECT_EQ(State(otherB), "no text length 0 size 0 refs 1 block -1");
    }
}

TEST(XStringFormat, Empty_format_through_the_variadic_form) {
    XString s("abc");
    const char* volatile format = NULL;
    s.Format(format, 7);
    EXPECT_EQ(State(s), "'' length 0 size 4 refs 1 block -1");
}

// -- Estimates that are too small

TEST(XStringFormat, Format_is_cut_where_the_estimate_is_too_small) {
    XString s;
#define EXPECT_CUT(kept, ...)                                                                                \
    errno = ENOENT;                                                                                          \
    FormatAny(s, __VA_ARGS__);                                                                               \
    EXPECT_EQ(std::string(s), kept);                                                                         \
    EXPECT_EQ(s.GetLength() + 1, Estimate(__VA_ARGS__));                                                     \
    errno = ENOENT;                                                                                          \
    EXPECT_GT(Full(__VA_ARGS__).size(), std::string(s).size())
    EXPECT_CUT("+1.00000", "%+f", 1.0);
    EXPECT_CUT(" 1.00000", "% f", 1.0);
    EXPECT_CUT("1.", "%E", 1.5);
    EXPECT_CUT("1.", "%F", 1.5);
    EXPECT_CUT("0x", "%a", 1.5);
    EXPECT_CUT("-" + std::string(39, '0'), "%.40d", -1);
    EXPECT_CUT("123", "%lld", 12345LL);
    EXPECT_CUT("123", "%zd", sizeof(char[12345]));
    EXPECT_CUT("123", "%jd", static_cast<intmax_t>(12345));
    EXPECT_CUT("123", "%'d", 12345);
    EXPECT_CUT("No", "%m");
    EXPECT_CUT(Full("%.123e", 1.5).substr(0, 128), "%.123e", 1.5);
    EXPECT_CUT(Full("%.200e", 1.5).substr(0, 200), "%.200e", 1.5);
#undef EXPECT_CUT
}

TEST(XStringFormat, Format_is_cut_by_the_estimate_even_in_a_larger_buffer) {
    XString s = WithBuffer("abc", 200);
    s.Format("%E", 1.5);
    EXPECT_EQ(State(s), "'1.' length 2 size 200 refs 1 block -1");
}

TEST(XStringFormat, Format_that_the_C_library_refuses_keeps_what_it_left) {
    XString s;
    for (const char* format : {"%", "abc%", "%5"}) {
        SCOPED_TRACE(format);
        FormatAny(s, format);
        EXPECT_EQ(std::string(s), Expected(format));
        EXPECT_EQ(static_cast<size_t>(s.GetLength()), Expected(format).size());
        EXPECT_FALSE(s.m_pStrData->m_bLocked);
    }
}

// -- Out of memory

TEST(XStringFormat, Format_without_memory_leaves_a_shared_string_as_it_was) {
    const struct {
        const char* name;
        unsigned int size;
        const char* format;
        FailAllocation::Kind kind;
        bool memoryException;
    } cases[] = {
        {"detach", 100, "%d", FailAllocation::OnlyMalloc, true},
        {"detach, header", 100, "%d", FailAllocation::OnlyNew, false},
        {"resize", 4, "%d", FailAllocation::OnlyMalloc, true},
        {"resize, header", 4, "%d", FailAllocation::OnlyNew, false},
        {"empty format, detach", 4, "", FailAllocation::OnlyMalloc, true},
        {"empty format, resize", 1, "", FailAllocation::OnlyMalloc, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        XString s = WithBuffer(c.size > 3 ? "abc" : "", c.size);
        const XString other(s);
        const std::string state = State(s);
        CMemoryException* memory = NULL;
        bool badAlloc = false;
        AllocationCounter counter;
        {
            FailAllocation fail(1, c.kind);
            try {
                FormatAny(s, c.format, 7);
            } catch (CMemoryException* e) {
                memory = e;
            } catch (const std::bad_alloc&) {
                badAlloc = true;
            }
        }
        const int balance = counter.Balance();
        EXPECT_EQ(memory, c.memoryException ? &g_oMemoryException : NULL);
        EXPECT_EQ(badAlloc, !c.memoryException);
        EXPECT_EQ(balance, 0);
        EXPECT_EQ(s.m_pStrData, other.m_pStrData);
        EXPECT_EQ(State(s), state);
    }
}

TEST(XStringFormat, Format_allocates_nothing_where_the_buffer_is_kept) {
    XString s;
    s.Format("%d %s %e %c", 7, "abc", 1.5, 'x');
    AllocationCounter counter;
    s.Format("%d %s %e %c", 8, "def", 2.5, 'y');
    EXPECT_EQ(counter.Allocations(), 0);
}
