// VARIANT: initialising, clearing, copying and converting it, and the assignment of one to a _bstr_t.
#include <float.h>
#include <limits.h>
#include <math.h>
#include <stddef.h>
#include <string.h>

#include <functional>
#include <iterator>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/variant.h>

#include "BstrFixtures.h"
#include "support/interpose.h"
#include "support/recording_host.h"
#include "support/text.h"

namespace {

// Frees the BSTR that an assignment of a double leaves behind, in the block of the n-th malloc since the log
// began.
void FreeWhatIsLeft(const CallLog& mallocs, size_t n) {
    BSTR left = reinterpret_cast<char*>(mallocs.Records().at(n - 1).result) + 8;
    EXPECT_TRUE(IsBSTR(left, true));
    SysFreeString(left);
}

typedef std::vector<std::string> Calls;

const VARTYPE kConverted[] = {VT_I2, VT_I4, VT_R4, VT_R8, VT_BSTR, VT_BOOL, VT_UI1};
const VARTYPE kCarried[] = {6, 7, 9, 10, 12, 13, 14, 15, 16, 18, 40, 0x2008, 0xFFFF};

// What a variant is made from. A double holds the number of each type exactly.
struct Value {
    VARTYPE type;
    double number;
    const char* text;
};

Value Empty() { return {VT_EMPTY, 0, NULL}; }
Value Null() { return {VT_NULL, 0, NULL}; }
Value I2(short number) { return {VT_I2, static_cast<double>(number), NULL}; }
Value I4(int number) { return {VT_I4, static_cast<double>(number), NULL}; }
Value R4(float number) { return {VT_R4, number, NULL}; }
Value R8(double number) { return {VT_R8, number, NULL}; }
Value Bstr(const char* text) { return {VT_BSTR, 0, text}; }
Value Bool(short number) { return {VT_BOOL, static_cast<double>(number), NULL}; }
Value UI1(unsigned char number) { return {VT_UI1, static_cast<double>(number), NULL}; }
Value Carried(VARTYPE type) { return {type, 0, NULL}; }

// One of each type that the functions understand.
const Value kOneOfEach[] = {Empty(),  Null(),       I2(-2),   I4(70000), R4(1.5F),
                            R8(-2.5), Bstr("12ab"), Bool(-1), UI1(200)};

// A variant with marked reserved words; value bytes that the type does not use are 'Z'.
tagVARIANT Make(const Value& value) {
    tagVARIANT v;
    memset(&v, 'Z', sizeof v);
    v.vt = value.type;
    v.wReserved1 = 0x1111;
    v.wReserved2 = 0x2222;
    v.wReserved3 = 0x3333;
    switch (value.type) {
    case VT_I2:
        v.iVal = static_cast<short>(value.number);
        break;
    case VT_I4:
        v.lVal = static_cast<int>(value.number);
        break;
    case VT_R4:
        v.fltVal = static_cast<float>(value.number);
        break;
    case VT_R8:
        v.dblVal = value.number;
        break;
    case VT_BSTR:
        v.bstrVal = SysAllocString(value.text);
        break;
    case VT_BOOL:
        v.boolVal = static_cast<short>(value.number);
        break;
    case VT_UI1:
        v.bVal = static_cast<unsigned char>(value.number);
        break;
    }
    return v;
}

// Frees the BSTR of a variant that has one.
void Release(tagVARIANT& v) {
    if (v.vt == VT_BSTR)
        SysFreeString(v.bstrVal);
}

std::string ValueBytes(const tagVARIANT& v) {
    return std::string(reinterpret_cast<const char*>(&v.dblVal), sizeof v.dblVal);
}

std::string Reserved(const tagVARIANT& v) {
    return Text("%x %x %x", static_cast<unsigned>(v.wReserved1), static_cast<unsigned>(v.wReserved2),
                static_cast<unsigned>(v.wReserved3));
}

const char* const kReserved = "1111 2222 3333";

// The value as the member of a type has it: a number, a quoted text or "NULL". Reals with all their digits.
std::string Shown(const tagVARIANT& v, VARTYPE type) {
    switch (type) {
    case VT_I2:
        return Text("%d", v.iVal);
    case VT_I4:
        return Text("%d", v.lVal);
    case VT_R4:
        return isnan(v.fltVal) ? "nan" : Text("%.9g", static_cast<double>(v.fltVal));
    case VT_R8:
        return isnan(v.dblVal) ? "nan" : Text("%.17g", v.dblVal);
    case VT_BSTR:
        if (!v.bstrVal)
            return "NULL";
        EXPECT_TRUE(IsBSTR(v.bstrVal, true));
        EXPECT_EQ(SysStringLen(v.bstrVal), strlen(v.bstrVal));
        return "'" + std::string(v.bstrVal) + "'";
    case VT_BOOL:
        return Text("%d", v.boolVal);
    case VT_UI1:
        return Text("%d", v.bVal);
    default:
        return "?";
    }
}

std::string Shown(const tagVARIANT& v) { return Shown(v, v.vt); }

std::string Named(const Value& value) {
    return Text("type %d, %.17g, %s", value.type, value.number, value.text ? value.text : "no text");
}

// A row of the conversions' table: what a value becomes as each of kConverted. "left": its bytes stay.
struct Row {
    Value from;
    const char* to[std::size(kConverted)];
};

Calls AllocationsOf(const Value& from, VARTYPE to, const tagVARIANT& result) {
    if (from.type == to)
        return {};
    if (from.type == VT_BSTR && from.text)
        return {"free()"};
    if (to == VT_BSTR && from.type > VT_NULL)
        return {Text("malloc(%u)", SysStringLen(result.bstrVal) + 9)};
    return {};
}

void CheckConversion(const Value& from, VARTYPE to, const std::string& expected) {
    SCOPED_TRACE(Named(from) + Text(", to type %d", to));
    tagVARIANT v = Make(from);
    const std::string before = ValueBytes(v);
    CallLog log({Call::Malloc, Call::Free});
    const HRESULT result = VariantChangeType(&v, to);
    const Calls calls = log.Texts();
    EXPECT_EQ(result, 0);
    const bool keepsType = from.type == VT_R8 && to == VT_BSTR;
    EXPECT_EQ(v.vt, keepsType ? from.type : to);
    EXPECT_EQ(Reserved(v), kReserved);
    if (expected == "left") {
        EXPECT_EQ(ValueBytes(v), before);
        EXPECT_EQ(calls, Calls());
        return;
    }
    EXPECT_EQ(Shown(v, to), expected);
    EXPECT_EQ(calls, AllocationsOf(from, to, v));
    if (to == VT_BSTR)
        SysFreeString(v.bstrVal);
}

template <size_t N> void CheckConversions(const Row (&rows)[N]) {
    for (const Row& row : rows)
        for (size_t i = 0; i < std::size(kConverted); i++)
            CheckConversion(row.from, kConverted[i], row.to[i]);
    EXPECT_TRUE(Recorder::Events().empty());
}

// How often a call takes the lock of the BSTRs.
size_t Locks(const std::function<void()>& call) {
    CallLog log({Call::MutexLock});
    call();
    return log.Records().size();
}

// Text that is no BSTR, with known bytes in front of it.
struct NoBstr {
    char before[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    char text[8] = "12ab";
};

_variant_t Variant(const Value& value) {
    _variant_t v;
    static_cast<tagVARIANT&>(v) = Make(value);
    return v;
}

} // namespace

// -- Layout

TEST(variant, Layout_is_a_type_three_reserved_words_and_8_bytes_of_value) {
    static_assert(sizeof(tagVARIANT) == 16);
    static_assert(offsetof(tagVARIANT, vt) == 0 && sizeof(tagVARIANT::vt) == 2);
    static_assert(offsetof(tagVARIANT, wReserved1) == 2 && sizeof(tagVARIANT::wReserved1) == 2);
    static_assert(offsetof(tagVARIANT, wReserved2) == 4 && sizeof(tagVARIANT::wReserved2) == 2);
    static_assert(offsetof(tagVARIANT, wReserved3) == 6 && sizeof(tagVARIANT::wReserved3) == 2);
    static_assert(std::is_same_v<decltype(tagVARIANT::vt), unsigned short>);
    static_assert(std::is_unsigned_v<decltype(tagVARIANT::wReserved1)>);
    static_assert(std::is_standard_layout_v<tagVARIANT> && std::is_trivial_v<tagVARIANT>);
}

TEST(variant, Members_all_begin_at_the_first_byte_of_the_value) {
    static_assert(offsetof(tagVARIANT, iVal) == 8 && sizeof(tagVARIANT::iVal) == 2);
    static_assert(offsetof(tagVARIANT, lVal) == 8 && sizeof(tagVARIANT::lVal) == 4);
    static_assert(offsetof(tagVARIANT, fltVal) == 8 && sizeof(tagVARIANT::fltVal) == 4);
    static_assert(offsetof(tagVARIANT, dblVal) == 8 && sizeof(tagVARIANT::dblVal) == 8);
    static_assert(offsetof(tagVARIANT, bstrVal) == 8);
    static_assert(offsetof(tagVARIANT, boolVal) == 8 && sizeof(tagVARIANT::boolVal) == 2);
    static_assert(offsetof(tagVARIANT, bVal) == 8 && sizeof(tagVARIANT::bVal) == 1);
    static_assert(
        std::is_signed_v<decltype(tagVARIANT::iVal)> && std::is_signed_v<decltype(tagVARIANT::lVal)> &&
        std::is_signed_v<decltype(tagVARIANT::boolVal)> && std::is_unsigned_v<decltype(tagVARIANT::bVal)>);
}

TEST(variant, Names_of_the_structure_are_one_type) {
    static_assert(std::is_same_v<VARIANT, tagVARIANT>);
    static_assert(std::is_same_v<VARIANTARG, tagVARIANT>);
    static_assert(std::is_base_of_v<tagVARIANT, _variant_t>);
    static_assert(sizeof(_variant_t) == sizeof(tagVARIANT));
}

TEST(variant, Functions_have_the_types_that_callers_compile_against) {
    static_assert(std::is_same_v<decltype(&VariantInit), void (*)(tagVARIANT*)>);
    static_assert(std::is_same_v<decltype(&VariantClear), HRESULT (*)(tagVARIANT*)>);
    static_assert(std::is_same_v<decltype(&VariantCopy), HRESULT (*)(tagVARIANT*, tagVARIANT*)>);
    HRESULT (*inPlace)(tagVARIANT*, unsigned short) = VariantChangeType;
    HRESULT (*intoAnother)(VARIANTARG*, VARIANTARG*, unsigned short, VARTYPE) = VariantChangeType;
    EXPECT_NE(inPlace, nullptr);
    EXPECT_NE(intoAnother, nullptr);
}

// -- VariantInit and VariantClear

TEST(variant, VariantInit_makes_the_type_0_and_leaves_the_rest) {
    for (VARTYPE type : {0, 1, 3, 8, 9, 17, 40}) {
        SCOPED_TRACE(type);
        tagVARIANT v = Make(Carried(9));
        v.vt = type; // with a wild pointer
        VariantInit(&v);
        EXPECT_EQ(v.vt, VT_EMPTY);
        EXPECT_EQ(ValueBytes(v), "ZZZZZZZZ");
        EXPECT_EQ(Reserved(v), kReserved);
    }
}

TEST(variant, VariantInit_frees_no_BSTR) {
    tagVARIANT v = Make(Bstr("abc"));
    CallLog log({Call::Free});
    VariantInit(&v);
    EXPECT_EQ(log.Texts(), Calls());
    EXPECT_STREQ(v.bstrVal, "abc");
    SysFreeString(v.bstrVal);
}

TEST(variant, VariantClear_makes_the_type_0_and_leaves_the_rest) {
    std::vector<Value> values(std::begin(kOneOfEach), std::end(kOneOfEach));
    for (VARTYPE type : kCarried)
        values.push_back(Carried(type));
    for (const Value& value : values) {
        if (value.type == VT_BSTR)
            continue;
        SCOPED_TRACE(Named(value));
        tagVARIANT v = Make(value);
        const std::string before = ValueBytes(v);
        CallLog log({Call::Malloc, Call::Free, Call::MutexLock});
        const HRESULT result = VariantClear(&v);
        EXPECT_EQ(log.Texts(), Calls());
        EXPECT_EQ(result, 0);
        EXPECT_EQ(v.vt, VT_EMPTY);
        EXPECT_EQ(ValueBytes(v), before);
        EXPECT_EQ(Reserved(v), kReserved);
    }
}

TEST(variant, VariantClear_of_a_BSTR_frees_it_and_makes_it_NULL) {
    tagVARIANT v = Make(Bstr("abc"));
    std::string expected = ValueBytes(v);
    expected.replace(0, sizeof(BSTR), sizeof(BSTR), '\0');
    CallLog log({Call::Malloc, Call::Free});
    const HRESULT result = VariantClear(&v);
    EXPECT_EQ(log.Texts(), (Calls{"free()"}));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.bstrVal, nullptr);
    EXPECT_EQ(ValueBytes(v), expected) << "bytes beside the pointer stay";
    EXPECT_EQ(Reserved(v), kReserved);
}

TEST(variant, VariantClear_of_a_NULL_BSTR_makes_the_type_0) {
    tagVARIANT v = Make(Bstr(NULL));
    EXPECT_EQ(VariantClear(&v), 0);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.bstrVal, nullptr);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(variant, VariantClear_of_what_is_no_BSTR_logs_and_leaves_the_pointer) {
    NoBstr none;
    tagVARIANT v = Make(Bstr(NULL));
    v.bstrVal = none.text;
    EXPECT_EQ(VariantClear(&v), 0);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.bstrVal, none.text);
    EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(none.text)}));
}

// -- VariantCopy

TEST(variant, VariantCopy_copies_type_and_all_bytes_of_the_value) {
    std::vector<Value> values(std::begin(kOneOfEach), std::end(kOneOfEach));
    for (VARTYPE type : kCarried)
        values.push_back(Carried(type));
    for (const Value& value : values) {
        if (value.type == VT_BSTR)
            continue;
        SCOPED_TRACE(Named(value));
        tagVARIANT src = Make(value);
        tagVARIANT dest = Make(I4(1));
        memset(&dest.dblVal, '-', sizeof dest.dblVal);
        CallLog log({Call::Malloc, Call::Free});
        const HRESULT result = VariantCopy(&dest, &src);
        EXPECT_EQ(log.Texts(), Calls());
        EXPECT_EQ(result, 0);
        EXPECT_EQ(dest.vt, value.type);
        EXPECT_EQ(ValueBytes(dest), ValueBytes(src));
        EXPECT_EQ(src.vt, value.type);
    }
}

TEST(variant, VariantCopy_gives_a_BSTR_of_its_own) {
    tagVARIANT src = Make(Bstr("abc"));
    tagVARIANT dest = Make(I4(1));
    const BSTR original = src.bstrVal;
    CallLog log({Call::Malloc, Call::Free});
    const HRESULT result = VariantCopy(&dest, &src);
    EXPECT_EQ(log.Texts(), (Calls{"malloc(12)"}));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(dest.vt, VT_BSTR);
    EXPECT_NE(dest.bstrVal, original);
    EXPECT_EQ(Shown(dest), "'abc'");
    EXPECT_EQ(src.bstrVal, original);
    EXPECT_EQ(Shown(src), "'abc'");
    Release(dest);
    Release(src);
}

TEST(variant, VariantCopy_of_a_BSTR_stops_at_its_first_NUL) {
    tagVARIANT src = Make(Bstr("abcde"));
    src.bstrVal[2] = '\0';
    tagVARIANT dest = Make(Empty());
    VariantCopy(&dest, &src);
    EXPECT_EQ(Shown(dest), "'ab'");
    EXPECT_EQ(SysStringLen(src.bstrVal), 5U);
    Release(dest);
    Release(src);
}

TEST(variant, VariantCopy_of_a_NULL_BSTR_gives_one) {
    tagVARIANT src = Make(Bstr(NULL));
    tagVARIANT dest = Make(R8(1.5));
    EXPECT_EQ(VariantCopy(&dest, &src), 0);
    EXPECT_EQ(dest.vt, VT_BSTR);
    EXPECT_EQ(dest.bstrVal, nullptr);
}

TEST(variant, VariantCopy_frees_the_BSTR_of_the_destination_first) {
    tagVARIANT src = Make(Bstr("abc"));
    tagVARIANT text = Make(Bstr("old"));
    tagVARIANT number = Make(Bstr("old"));
    tagVARIANT seven = Make(I4(7));
    CallLog log({Call::Malloc, Call::Free});
    VariantCopy(&text, &src);
    VariantCopy(&number, &seven);
    EXPECT_EQ(log.Texts(), (Calls{"free()", "malloc(12)", "free()"}));
    EXPECT_EQ(Shown(text), "'abc'");
    EXPECT_EQ(Shown(number), "7");
    Release(text);
    Release(src);
}

TEST(variant, VariantCopy_leaves_the_reserved_words) {
    for (const Value& value : kOneOfEach) {
        SCOPED_TRACE(Named(value));
        tagVARIANT src = Make(value);
        tagVARIANT dest = Make(Empty());
        dest.wReserved1 = 4;
        dest.wReserved2 = 5;
        dest.wReserved3 = 6;
        VariantCopy(&dest, &src);
        EXPECT_EQ(Reserved(dest), "4 5 6");
        EXPECT_EQ(Reserved(src), kReserved);
        Release(dest);
        Release(src);
    }
}

TEST(variant, VariantCopy_without_memory_gives_a_NULL_BSTR) {
    tagVARIANT src = Make(Bstr("abc"));
    tagVARIANT dest = Make(Bstr("old"));
    FailAllocation fail(1);
    const HRESULT result = VariantCopy(&dest, &src);
    fail.Stop();
    EXPECT_TRUE(fail.Happened());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(dest.vt, VT_BSTR);
    EXPECT_EQ(dest.bstrVal, nullptr);
    EXPECT_EQ(Shown(src), "'abc'");
    Release(src);
}

TEST(variant, VariantCopy_of_a_BSTR_onto_itself_frees_it_and_leaves_type_0) {
    tagVARIANT v = Make(Bstr("abc"));
    CallLog log({Call::Malloc, Call::Free});
    const HRESULT result = VariantCopy(&v, &v);
    EXPECT_EQ(log.Texts(), (Calls{"free()"}));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.bstrVal, nullptr);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(variant, VariantCopy_of_any_variant_onto_itself_leaves_type_0_and_the_bytes) {
    for (const Value& value : {Empty(), Null(), I2(-2), I4(70000), R4(1.5F), R8(-2.5), Bool(-1), UI1(200),
                               Carried(9), Carried(40)}) {
        SCOPED_TRACE(Named(value));
        tagVARIANT v = Make(value);
        const std::string before = ValueBytes(v);
        EXPECT_EQ(VariantCopy(&v, &v), 0);
        EXPECT_EQ(v.vt, VT_EMPTY);
        EXPECT_EQ(ValueBytes(v), before);
        EXPECT_EQ(Reserved(v), kReserved);
    }
}

// -- The conversions: a row for each value, a column for each type that it is converted to

TEST(variant, Empty_and_null_become_0_and_as_a_BSTR_stay_the_bytes_they_were) {
    const Row rows[] = {
        {Empty(), {"0", "0", "0", "0", "left", "0", "0"}},
        {Null(), {"0", "0", "0", "0", "left", "0", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_16_bit_integer_is_sign_extended_and_cut_to_its_low_byte) {
    const Row rows[] = {
        {I2(0), {"0", "0", "0", "0", "'0'", "0", "0"}},
        {I2(1), {"1", "1", "1", "1", "'1'", "-1", "1"}},
        {I2(-1), {"-1", "-1", "-1", "-1", "'-1'", "-1", "255"}},
        {I2(-2), {"-2", "-2", "-2", "-2", "'-2'", "-1", "254"}},
        {I2(255), {"255", "255", "255", "255", "'255'", "-1", "255"}},
        {I2(256), {"256", "256", "256", "256", "'256'", "-1", "0"}},
        {I2(4660), {"4660", "4660", "4660", "4660", "'4660'", "-1", "52"}},
        {I2(SHRT_MAX), {"32767", "32767", "32767", "32767", "'32767'", "-1", "255"}},
        {I2(SHRT_MIN), {"-32768", "-32768", "-32768", "-32768", "'-32768'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_32_bit_integer_is_cut_to_its_low_bits) {
    const Row rows[] = {
        {I4(0), {"0", "0", "0", "0", "'0'", "0", "0"}},
        {I4(1), {"1", "1", "1", "1", "'1'", "-1", "1"}},
        {I4(-1), {"-1", "-1", "-1", "-1", "'-1'", "-1", "255"}},
        {I4(256), {"256", "256", "256", "256", "'256'", "-1", "0"}},
        {I4(32768), {"-32768", "32768", "32768", "32768", "'32768'", "-1", "0"}},
        {I4(65536), {"0", "65536", "65536", "65536", "'65536'", "-1", "0"}},
        {I4(70000), {"4464", "70000", "70000", "70000", "'70000'", "-1", "112"}},
        {I4(-70000), {"-4464", "-70000", "-70000", "-70000", "'-70000'", "-1", "144"}},
        {I4(16777217), {"1", "16777217", "16777216", "16777217", "'16777217'", "-1", "1"}},
        {I4(INT_MAX), {"-1", "2147483647", "2.14748365e+09", "2147483647", "'2147483647'", "-1", "255"}},
        {I4(INT_MIN), {"0", "-2147483648", "-2.14748365e+09", "-2147483648", "'-2147483648'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_float_is_truncated_toward_zero_and_formatted_with_6_places) {
    const Row rows[] = {
        {R4(0), {"0", "0", "0", "0", "'0.000000'", "0", "0"}},
        {R4(-0.0F), {"0", "0", "-0", "-0", "'-0.000000'", "0", "0"}},
        {R4(1.5F), {"1", "1", "1.5", "1.5", "'1.500000'", "-1", "1"}},
        {R4(-2.7F), {"-2", "-2", "-2.70000005", "-2.7000000476837158", "'-2.700000'", "-1", "254"}},
        {R4(0.1F), {"0", "0", "0.100000001", "0.10000000149011612", "'0.100000'", "-1", "0"}},
        {R4(-0.75F), {"0", "0", "-0.75", "-0.75", "'-0.750000'", "-1", "0"}},
        {R4(255.75F), {"255", "255", "255.75", "255.75", "'255.750000'", "-1", "255"}},
        {R4(256), {"256", "256", "256", "256", "'256.000000'", "-1", "0"}},
        {R4(70000.5F), {"4464", "70000", "70000.5", "70000.5", "'70000.500000'", "-1", "112"}},
        {R4(FLT_TRUE_MIN), {"0", "0", "1.40129846e-45", "1.4012984643248171e-45", "'0.000000'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_float_out_of_range_takes_the_nearest_number_in_range) {
    const Row rows[] = {
        {R4(2147483520.0F), // the last below
         {"-128", "2147483520", "2.14748352e+09", "2147483520", "'2147483520.000000'", "-1", "128"}},
        {R4(2147483648.0F),
         {"-1", "2147483647", "2.14748365e+09", "2147483648", "'2147483648.000000'", "-1", "0"}},
        {R4(3e9F), {"-1", "2147483647", "3e+09", "3000000000", "'3000000000.000000'", "-1", "0"}},
        {R4(4294967040.0F), // the last that an unsigned number takes
         {"-1", "2147483647", "4.29496704e+09", "4294967040", "'4294967040.000000'", "-1", "0"}},
        {R4(4294967296.0F),
         {"-1", "2147483647", "4.2949673e+09", "4294967296", "'4294967296.000000'", "-1", "255"}},
        {R4(1e20F),
         {"-1", "2147483647", "1.00000002e+20", "1.0000000200408773e+20", "'100000002004087734272.000000'",
          "-1", "255"}},
        {R4(FLT_MAX),
         {"-1", "2147483647", "3.40282347e+38", "3.4028234663852886e+38",
          "'340282346638528859811704183484516925440.000000'", "-1", "255"}},
        {R4(-2147483648.0F),
         {"0", "-2147483648", "-2.14748365e+09", "-2147483648", "'-2147483648.000000'", "-1", "0"}},
        {R4(-2147483904.0F),
         {"0", "-2147483648", "-2.1474839e+09", "-2147483904", "'-2147483904.000000'", "-1", "0"}},
        {R4(-1e20F),
         {"0", "-2147483648", "-1.00000002e+20", "-1.0000000200408773e+20", "'-100000002004087734272.000000'",
          "-1", "0"}},
        {R4(INFINITY), {"-1", "2147483647", "inf", "inf", "'inf'", "-1", "255"}},
        {R4(-INFINITY), {"0", "-2147483648", "-inf", "-inf", "'-inf'", "-1", "0"}},
        {R4(NAN), {"0", "-2147483648", "nan", "nan", "'nan'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_double_is_truncated_toward_zero_and_as_a_BSTR_keeps_its_type) {
    const Row rows[] = {
        {R8(0), {"0", "0", "0", "0", "'0'", "0", "0"}},
        {R8(-0.0), {"0", "0", "-0", "-0", "'-0'", "0", "0"}},
        {R8(1.5), {"1", "1", "1.5", "1.5", "'1.5'", "-1", "1"}},
        {R8(-2.7), {"-2", "-2", "-2.70000005", "-2.7000000000000002", "'-2.7'", "-1", "254"}},
        {R8(0.1), {"0", "0", "0.100000001", "0.10000000000000001", "'0.1'", "-1", "0"}},
        {R8(-0.75), {"0", "0", "-0.75", "-0.75", "'-0.75'", "-1", "0"}},
        {R8(-255), {"-255", "-255", "-255", "-255", "'-255'", "-1", "1"}},
        {R8(256), {"256", "256", "256", "256", "'256'", "-1", "0"}},
        {R8(70000.5), {"4464", "70000", "70000.5", "70000.5", "'70000.5'", "-1", "112"}},
        {R8(1234567), {"-10617", "1234567", "1234567", "1234567", "'1.23457e+06'", "-1", "135"}},
        {R8(4.9406564584124654e-324),
         {"0", "0", "0", "4.9406564584124654e-324", "'4.94066e-324'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_double_out_of_range_takes_the_nearest_number_in_range) {
    const Row rows[] = {
        {R8(2147483646.5),
         {"-2", "2147483646", "2.14748365e+09", "2147483646.5", "'2.14748e+09'", "-1", "254"}},
        {R8(2147483647.5),
         {"-1", "2147483647", "2.14748365e+09", "2147483647.5", "'2.14748e+09'", "-1", "255"}},
        {R8(2147483648), {"-1", "2147483647", "2.14748365e+09", "2147483648", "'2.14748e+09'", "-1", "0"}},
        {R8(3000000001), {"-1", "2147483647", "3e+09", "3000000001", "'3e+09'", "-1", "1"}},
        {R8(4294967293.5),
         {"-1", "2147483647", "4.2949673e+09", "4294967293.5", "'4.29497e+09'", "-1", "253"}},
        {R8(4294967294.5),
         {"-1", "2147483647", "4.2949673e+09", "4294967294.5", "'4.29497e+09'", "-1", "254"}},
        {R8(4294967295.5),
         {"-1", "2147483647", "4.2949673e+09", "4294967295.5", "'4.29497e+09'", "-1", "255"}},
        {R8(4294967296), {"-1", "2147483647", "4.2949673e+09", "4294967296", "'4.29497e+09'", "-1", "255"}},
        {R8(1e300), {"-1", "2147483647", "inf", "1.0000000000000001e+300", "'1e+300'", "-1", "255"}},
        {R8(-2147483646.5),
         {"2", "-2147483646", "-2.14748365e+09", "-2147483646.5", "'-2.14748e+09'", "-1", "2"}},
        {R8(-2147483647.5),
         {"1", "-2147483647", "-2.14748365e+09", "-2147483647.5", "'-2.14748e+09'", "-1", "1"}},
        {R8(-2147483648.5),
         {"0", "-2147483648", "-2.14748365e+09", "-2147483648.5", "'-2.14748e+09'", "-1", "0"}},
        {R8(-2147483649),
         {"0", "-2147483648", "-2.14748365e+09", "-2147483649", "'-2.14748e+09'", "-1", "0"}},
        {R8(-4294967297), {"0", "-2147483648", "-4.2949673e+09", "-4294967297", "'-4.29497e+09'", "-1", "0"}},
        {R8(-1e300), {"0", "-2147483648", "-inf", "-1.0000000000000001e+300", "'-1e+300'", "-1", "0"}},
        {R8(INFINITY), {"-1", "2147483647", "inf", "inf", "'inf'", "-1", "255"}},
        {R8(-INFINITY), {"0", "-2147483648", "-inf", "-inf", "'-inf'", "-1", "0"}},
        {R8(NAN), {"0", "-2147483648", "nan", "nan", "'nan'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_text_is_parsed_as_far_as_it_is_a_number_and_freed) {
    const Row rows[] = {
        {Bstr("12abc"), {"12", "12", "12", "12", "'12abc'", "-1", "12"}},
        {Bstr("-7"), {"-7", "-7", "-7", "-7", "'-7'", "-1", "249"}},
        {Bstr("+7"), {"7", "7", "7", "7", "'+7'", "-1", "7"}},
        {Bstr(" \t42 "), {"42", "42", "42", "42", "' \t42 '", "-1", "42"}},
        {Bstr("2.9"), {"2", "2", "2.9000001", "2.8999999999999999", "'2.9'", "-1", "2"}},
        {Bstr("-.5"), {"0", "0", "-0.5", "-0.5", "'-.5'", "-1", "0"}},
        {Bstr("1e3"), {"1", "1", "1000", "1000", "'1e3'", "-1", "1"}},
        {Bstr("1e3e"), {"1", "1", "1000", "1000", "'1e3e'", "-1", "1"}},
        {Bstr("010"), {"10", "10", "10", "10", "'010'", "-1", "10"}},
        {Bstr("0x1F"), {"0", "0", "31", "31", "'0x1F'", "-1", "0"}},
        {Bstr("70000"), {"4464", "70000", "70000", "70000", "'70000'", "-1", "112"}},
        {Bstr("abc"), {"0", "0", "0", "0", "'abc'", "-1", "0"}},
        {Bstr("-"), {"0", "0", "0", "0", "'-'", "-1", "0"}},
        {Bstr("inf"), {"0", "0", "inf", "inf", "'inf'", "-1", "0"}},
        {Bstr("nan"), {"0", "0", "nan", "nan", "'nan'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_text_out_of_range_takes_the_nearest_number_of_32_bits) {
    const Row rows[] = {
        {Bstr("2147483647"),
         {"-1", "2147483647", "2.14748365e+09", "2147483647", "'2147483647'", "-1", "255"}},
        {Bstr("2147483648"),
         {"-1", "2147483647", "2.14748365e+09", "2147483648", "'2147483648'", "-1", "255"}},
        {Bstr("3000000000"), {"-1", "2147483647", "3e+09", "3000000000", "'3000000000'", "-1", "255"}},
        {Bstr("-2147483648"),
         {"0", "-2147483648", "-2.14748365e+09", "-2147483648", "'-2147483648'", "-1", "0"}},
        {Bstr("-2147483649"),
         {"0", "-2147483648", "-2.14748365e+09", "-2147483649", "'-2147483649'", "-1", "0"}},
        {Bstr("-3000000000"), {"0", "-2147483648", "-3e+09", "-3000000000", "'-3000000000'", "-1", "0"}},
        {Bstr("99999999999999999999999"),
         {"-1", "2147483647", "9.99999978e+22", "9.9999999999999992e+22", "'99999999999999999999999'", "-1",
          "255"}},
        {Bstr("-99999999999999999999999"),
         {"0", "-2147483648", "-9.99999978e+22", "-9.9999999999999992e+22", "'-99999999999999999999999'",
          "-1", "0"}},
        {Bstr("1e400"), {"1", "1", "inf", "inf", "'1e400'", "-1", "1"}},
        {Bstr("1e-400"), {"1", "1", "0", "0", "'1e-400'", "-1", "1"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_text_is_parsed_as_a_double_before_it_becomes_a_float) {
    // A little more than the middle of two floats, which a double cannot tell from the middle.
    CheckConversion(Bstr("1.00000005960464477539062500000001"), VT_R4, "1");
    CheckConversion(Bstr("1.0000000596046450"), VT_R4, "1.00000012");
}

TEST(variant, A_text_is_false_if_it_is_the_whole_of_false_or_0) {
    const Row rows[] = {
        {Bstr("false"), {"0", "0", "0", "0", "'false'", "0", "0"}},
        {Bstr("0"), {"0", "0", "0", "0", "'0'", "0", "0"}},
        {Bstr(""), {"0", "0", "0", "0", "''", "-1", "0"}},
        {Bstr("true"), {"0", "0", "0", "0", "'true'", "-1", "0"}},
        {Bstr("False"), {"0", "0", "0", "0", "'False'", "-1", "0"}},
        {Bstr("FALSE"), {"0", "0", "0", "0", "'FALSE'", "-1", "0"}},
        {Bstr("falsehood"), {"0", "0", "0", "0", "'falsehood'", "-1", "0"}},
        {Bstr("fals"), {"0", "0", "0", "0", "'fals'", "-1", "0"}},
        {Bstr(" false"), {"0", "0", "0", "0", "' false'", "-1", "0"}},
        {Bstr("00"), {"0", "0", "0", "0", "'00'", "-1", "0"}},
        {Bstr("0 "), {"0", "0", "0", "0", "'0 '", "-1", "0"}},
        {Bstr("0.0"), {"0", "0", "0", "0", "'0.0'", "-1", "0"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_NULL_text_is_0_and_false) {
    const Row rows[] = {{Bstr(NULL), {"0", "0", "0", "0", "NULL", "0", "0"}}};
    CheckConversions(rows);
}

TEST(variant, A_text_may_be_long) {
    const std::string spaced = std::string(1000, ' ') + "42";
    const std::string zeros = std::string(1000, '0') + "42.5";
    for (VARTYPE type : {VT_I2, VT_I4, VT_R4, VT_R8, VT_UI1})
        CheckConversion(Bstr(spaced.c_str()), type, "42");
    CheckConversion(Bstr(zeros.c_str()), VT_I4, "42");
    CheckConversion(Bstr(zeros.c_str()), VT_R8, "42.5");
    CheckConversion(Bstr(zeros.c_str()), VT_BOOL, "-1");
}

TEST(variant, A_boolean_is_its_16_bits_and_as_a_text_true_or_false) {
    const Row rows[] = {
        {Bool(0), {"0", "0", "0", "0", "'false'", "0", "0"}},
        {Bool(-1), {"-1", "-1", "-1", "-1", "'true'", "-1", "255"}},
        {Bool(1), {"1", "1", "1", "1", "'true'", "1", "1"}},
        {Bool(256), {"256", "256", "256", "256", "'true'", "256", "0"}},
        {Bool(SHRT_MAX), {"32767", "32767", "32767", "32767", "'true'", "32767", "255"}},
        {Bool(SHRT_MIN), {"-32768", "-32768", "-32768", "-32768", "'true'", "-32768", "0"}},
    };
    CheckConversions(rows);
    CheckConversion(Bool(-1), VT_I2, "left");
}

TEST(variant, A_byte_is_zero_extended) {
    const Row rows[] = {
        {UI1(0), {"0", "0", "0", "0", "'0'", "0", "0"}},
        {UI1(1), {"1", "1", "1", "1", "'1'", "-1", "1"}},
        {UI1(127), {"127", "127", "127", "127", "'127'", "-1", "127"}},
        {UI1(128), {"128", "128", "128", "128", "'128'", "-1", "128"}},
        {UI1(255), {"255", "255", "255", "255", "'255'", "-1", "255"}},
    };
    CheckConversions(rows);
}

TEST(variant, A_carried_value_changes_its_type_alone) {
    for (VARTYPE from : kCarried)
        for (VARTYPE to : kConverted)
            CheckConversion(Carried(from), to, "left");
    EXPECT_TRUE(Recorder::Events().empty());
}

// -- Types that are not converted to

TEST(variant, Changing_to_a_carried_type_changes_nothing) {
    std::vector<Value> values(std::begin(kOneOfEach), std::end(kOneOfEach));
    for (VARTYPE type : kCarried)
        values.push_back(Carried(type));
    for (const Value& value : values)
        for (VARTYPE to : kCarried) {
            SCOPED_TRACE(Named(value) + Text(", to type %d", to));
            tagVARIANT v = Make(value);
            const std::string before = ValueBytes(v);
            CallLog log({Call::Malloc, Call::Free});
            const HRESULT result = VariantChangeType(&v, to);
            EXPECT_EQ(log.Texts(), Calls());
            EXPECT_EQ(result, 0);
            EXPECT_EQ(v.vt, value.type);
            EXPECT_EQ(ValueBytes(v), before);
            EXPECT_EQ(Reserved(v), kReserved);
            Release(v);
        }
}

TEST(variant, Changing_to_the_type_it_has_changes_nothing) {
    for (const Value& value : kOneOfEach) {
        SCOPED_TRACE(Named(value));
        tagVARIANT v = Make(value);
        const std::string before = ValueBytes(v);
        CallLog log({Call::Malloc, Call::Free});
        const HRESULT result = VariantChangeType(&v, value.type);
        EXPECT_EQ(log.Texts(), Calls());
        EXPECT_EQ(result, 0);
        EXPECT_EQ(v.vt, value.type) << "type 1 too";
        EXPECT_EQ(ValueBytes(v), before);
        Release(v);
    }
}

TEST(variant, Changing_to_type_0_or_1_clears_and_leaves_type_0) {
    std::vector<Value> values(std::begin(kOneOfEach), std::end(kOneOfEach));
    values.push_back(Bstr(NULL));
    for (VARTYPE type : kCarried)
        values.push_back(Carried(type));
    for (const Value& value : values)
        for (VARTYPE to : {VT_EMPTY, VT_NULL}) {
            if (value.type == to)
                continue;
            SCOPED_TRACE(Named(value) + Text(", to type %d", to));
            tagVARIANT v = Make(value);
            const std::string before = ValueBytes(v);
            CallLog log({Call::Malloc, Call::Free});
            const HRESULT result = VariantChangeType(&v, to);
            EXPECT_EQ(log.Texts(), value.text ? Calls{"free()"} : Calls());
            EXPECT_EQ(result, 0);
            EXPECT_EQ(v.vt, VT_EMPTY);
            if (value.type == VT_BSTR)
                EXPECT_EQ(v.bstrVal, nullptr);
            else
                EXPECT_EQ(ValueBytes(v), before);
            EXPECT_EQ(Reserved(v), kReserved);
        }
}

// -- Oddities

TEST(variant, An_initialised_variant_as_a_BSTR_has_the_pointer_that_its_value_held) {
    tagVARIANT v = Make(Bstr("abc"));
    const BSTR bstr = v.bstrVal;
    VariantInit(&v);
    EXPECT_EQ(VariantChangeType(&v, VT_BSTR), 0);
    EXPECT_EQ(v.vt, VT_BSTR);
    EXPECT_EQ(v.bstrVal, bstr);
    EXPECT_EQ(Shown(v), "'abc'");
    VariantClear(&v);
}

TEST(variant, A_double_as_a_BSTR_is_not_freed_by_VariantClear) {
    tagVARIANT v = Make(R8(1.5));
    VariantChangeType(&v, VT_BSTR);
    EXPECT_EQ(v.vt, VT_R8);
    CallLog log({Call::Free});
    VariantClear(&v);
    EXPECT_EQ(log.Texts(), Calls());
    EXPECT_EQ(Shown(v, VT_BSTR), "'1.5'");
    SysFreeString(v.bstrVal);
}

TEST(variant, A_text_that_is_no_BSTR_is_parsed_and_logged_instead_of_freed) {
    for (VARTYPE type : kConverted) {
        if (type == VT_BSTR)
            continue;
        SCOPED_TRACE(type);
        Recorder::Clear();
        NoBstr none;
        tagVARIANT v = Make(Bstr(NULL));
        v.bstrVal = none.text;
        EXPECT_EQ(VariantChangeType(&v, type), 0);
        EXPECT_EQ(Shown(v), type == VT_BOOL ? "-1" : "12");
        EXPECT_TRUE(SameEvents(Recorder::Events(), {NonBstrEvent(none.text)}));
    }
}

TEST(variant, Texts_take_the_lock_of_the_BSTRs_once_and_NULL_does_not_go_there) {
    const struct {
        Value from;
        VARTYPE to;
        size_t locks;
    } cases[] = {{I2(1), VT_BSTR, 1},       {I4(1), VT_BSTR, 1},      {R4(1), VT_BSTR, 1},
                 {Bool(1), VT_BSTR, 1},     {UI1(1), VT_BSTR, 1},     {Bstr("1"), VT_I2, 1},
                 {Bstr("1"), VT_I4, 1},     {Bstr("1"), VT_R4, 1},    {Bstr("1"), VT_R8, 1},
                 {Bstr("1"), VT_BOOL, 1},   {Bstr("1"), VT_UI1, 1},   {Bstr("1"), VT_EMPTY, 1},
                 {Bstr(NULL), VT_I4, 0},    {Bstr(NULL), VT_R8, 0},   {Bstr(NULL), VT_BOOL, 0},
                 {Bstr(NULL), VT_EMPTY, 1}, {I2(1), VT_I4, 0},        {R8(1), VT_UI1, 0},
                 {Empty(), VT_BSTR, 0},     {Carried(9), VT_BSTR, 0}, {Bstr("1"), VT_BSTR, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Named(c.from) + Text(", to type %d", c.to));
        tagVARIANT v = Make(c.from);
        EXPECT_EQ(Locks([&] { VariantChangeType(&v, c.to); }), c.locks);
        if (v.vt == VT_BSTR && c.from.type > VT_NULL && c.from.type != 9)
            VariantClear(&v);
    }
}

TEST(variant, Without_memory_a_text_is_a_NULL_BSTR) {
    for (const Value& value : {I2(1), I4(1), R4(1), R8(1), Bool(1), Bool(0), UI1(1)}) {
        SCOPED_TRACE(Named(value));
        tagVARIANT v = Make(value);
        FailAllocation fail(1);
        const HRESULT result = VariantChangeType(&v, VT_BSTR);
        fail.Stop();
        EXPECT_TRUE(fail.Happened());
        EXPECT_EQ(result, 0);
        EXPECT_EQ(v.vt, value.type == VT_R8 ? VT_R8 : VT_BSTR);
        EXPECT_EQ(v.bstrVal, nullptr);
    }
    EXPECT_TRUE(Recorder::Events().empty());
}

// -- The form with a destination

TEST(variant, Converting_into_another_copies_the_whole_source_first) {
    for (const Value& value : kOneOfEach) {
        SCOPED_TRACE(Named(value));
        tagVARIANT src = Make(value);
        tagVARIANT dest;
        memset(&dest, '-', sizeof dest);
        CallLog log({Call::Malloc, Call::Free});
        const HRESULT result = VariantChangeType(&dest, &src, 0, value.type);
        EXPECT_EQ(log.Texts(), Calls());
        EXPECT_EQ(result, 0);
        EXPECT_EQ(memcmp(&dest, &src, sizeof dest), 0) << "a BSTR is the same pointer";
        EXPECT_EQ(Reserved(dest), kReserved);
        Release(src);
    }
}

TEST(variant, Converting_into_another_copies_also_for_a_type_that_is_not_converted_to) {
    for (VARTYPE to : kCarried) {
        SCOPED_TRACE(to);
        tagVARIANT src = Make(I4(70000));
        tagVARIANT dest = Make(R8(1.5));
        EXPECT_EQ(VariantChangeType(&dest, &src, 0, to), 0);
        EXPECT_EQ(memcmp(&dest, &src, sizeof dest), 0);
    }
}

TEST(variant, Converting_into_another_leaves_the_source) {
    tagVARIANT src = Make(I4(70000));
    const tagVARIANT before = src;
    for (VARTYPE to : kConverted) {
        SCOPED_TRACE(to);
        tagVARIANT dest = Make(Empty());
        EXPECT_EQ(VariantChangeType(&dest, &src, 0, to), 0);
        EXPECT_EQ(dest.vt, to);
        EXPECT_EQ(memcmp(&src, &before, sizeof src), 0);
        Release(dest);
    }
}

TEST(variant, Converting_into_another_converts_the_copy) {
    const struct {
        Value from;
        VARTYPE to;
        const char* expected;
    } cases[] = {{I4(70000), VT_I2, "4464"},      {R4(-2.7F), VT_I4, "-2"}, {Bool(-1), VT_UI1, "255"},
                 {I4(70000), VT_BSTR, "'70000'"}, {UI1(200), VT_R8, "200"}, {Empty(), VT_I4, "0"},
                 {Bool(0), VT_BSTR, "'false'"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Named(c.from) + Text(", to type %d", c.to));
        tagVARIANT src = Make(c.from);
        tagVARIANT dest = Make(Empty());
        EXPECT_EQ(VariantChangeType(&dest, &src, 0, c.to), 0);
        EXPECT_EQ(dest.vt, c.to);
        EXPECT_EQ(Shown(dest), c.expected);
        Release(dest);
    }
}

TEST(variant, Converting_a_BSTR_into_another_frees_it_and_the_source_still_points_at_it) {
    tagVARIANT src = Make(Bstr("12abc"));
    const tagVARIANT before = src;
    tagVARIANT dest = Make(Empty());
    CallLog log({Call::Malloc, Call::Free});
    const HRESULT result = VariantChangeType(&dest, &src, 0, VT_I4);
    EXPECT_EQ(log.Texts(), (Calls{"free()"}));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Shown(dest), "12");
    EXPECT_EQ(memcmp(&src, &before, sizeof src), 0);
}

TEST(variant, Converting_into_another_does_not_free_the_BSTR_that_it_held) {
    tagVARIANT src = Make(I4(7));
    tagVARIANT dest = Make(Bstr("old"));
    BSTR old = dest.bstrVal;
    CallLog log({Call::Malloc, Call::Free});
    VariantChangeType(&dest, &src, 0, VT_I2);
    EXPECT_EQ(log.Texts(), Calls());
    EXPECT_STREQ(old, "old");
    EXPECT_TRUE(IsBSTR(old, true));
    SysFreeString(old);
}

TEST(variant, Converting_into_itself_converts_in_place) {
    tagVARIANT number = Make(I4(70000));
    EXPECT_EQ(VariantChangeType(&number, &number, 0, VT_I2), 0);
    EXPECT_EQ(number.vt, VT_I2);
    EXPECT_EQ(Shown(number), "4464");
    EXPECT_EQ(Reserved(number), kReserved);

    tagVARIANT text = Make(Bstr("12abc"));
    CallLog log({Call::Malloc, Call::Free});
    EXPECT_EQ(VariantChangeType(&text, &text, 0, VT_I4), 0);
    EXPECT_EQ(log.Texts(), (Calls{"free()"}));
    EXPECT_EQ(Shown(text), "12");
}

TEST(variant, Converting_with_flags_aborts) {
    const std::string kFlagsAssertion = AssertionRegex(
        "Windows/variant", 453,
        "HRESULT VariantChangeType(VARIANTARG*, VARIANTARG*, short unsigned int, VARTYPE)", "wFlags == 0");
    tagVARIANT src = Make(I4(7));
    tagVARIANT dest = Make(Empty());
    EXPECT_DEATH(VariantChangeType(&dest, &src, 1, VT_I2), kFlagsAssertion);
    EXPECT_DEATH(VariantChangeType(&src, &src, 0x8000, VT_I2), kFlagsAssertion);
    EXPECT_DEATH(VariantChangeType(&dest, &src, 2, VT_I4), kFlagsAssertion) << "also with nothing to convert";
}

// -- Assignment to a _bstr_t

TEST(variant, Assignment_to_a_wrapper_converts_the_variant_in_place_and_copies_its_text) {
    const struct {
        Value value;
        const char* text;
    } cases[] = {{I2(-5), "-5"},     {I4(70000), "70000"}, {R4(1.5F), "1.500000"},
                 {Bool(-1), "true"}, {Bool(0), "false"},   {UI1(200), "200"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Named(c.value));
        _variant_t v = Variant(c.value);
        _bstr_t b("old");
        EXPECT_EQ(&(b = v), &b);
        EXPECT_STREQ(b.getData(), c.text);
        EXPECT_TRUE(IsBSTR(b.getData(), true));
        EXPECT_EQ(v.vt, VT_BSTR);
        EXPECT_STREQ(v.bstrVal, c.text);
        EXPECT_NE(v.bstrVal, b.getData());
        EXPECT_EQ(Reserved(v), kReserved);
        v.Clear();
    }
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(variant, Assignment_to_a_wrapper_leaves_a_BSTR_as_it_is) {
    _variant_t v = Variant(Bstr("abc"));
    const BSTR bstr = v.bstrVal;
    _bstr_t b("old");
    b = v;
    EXPECT_STREQ(b.getData(), "abc");
    EXPECT_NE(b.getData(), bstr);
    EXPECT_EQ(v.vt, VT_BSTR);
    EXPECT_EQ(v.bstrVal, bstr);
    EXPECT_EQ(Shown(v), "'abc'");
    v.Clear();
}

TEST(variant, Assignment_to_a_wrapper_stops_at_the_first_NUL) {
    _variant_t v = Variant(Bstr("abcde"));
    v.bstrVal[2] = '\0';
    _bstr_t b;
    b = v;
    EXPECT_STREQ(b.getData(), "ab");
    EXPECT_EQ(b.length(), 2);
    v.Clear();
}

TEST(variant, Assignment_to_a_wrapper_goes_through_a_temporary) {
    _variant_t v = Variant(I4(42));
    _bstr_t b("older");
    CallLog log({Call::Malloc, Call::Free});
    b = v;
    EXPECT_EQ(log.Texts(), (Calls{"malloc(11)", "malloc(11)", "free()", "malloc(11)", "free()"}))
        << "the variant's, the temporary's, the old one, the new one, the temporary's";
    v.Clear();
}

TEST(variant, Assignment_to_a_wrapper_that_holds_the_same_text_is_safe) {
    _bstr_t b("abc");
    _variant_t v;
    v.vt = VT_BSTR;
    v.bstrVal = b.getData();
    b = v;
    EXPECT_STREQ(b.getData(), "abc");
}

TEST(variant, Assignment_of_an_empty_variant_gives_an_empty_wrapper) {
    for (VARTYPE type : {VT_EMPTY, VT_NULL, VT_BSTR}) {
        SCOPED_TRACE(type);
        _variant_t v; // of zeros
        v.vt = type;
        _bstr_t b("old");
        b = v;
        EXPECT_EQ(b.getData(), nullptr);
        EXPECT_EQ(v.vt, VT_BSTR);
        EXPECT_EQ(v.bstrVal, nullptr);
    }
}

TEST(variant, Assignment_of_a_carried_variant_takes_its_value_for_a_BSTR) {
    for (VARTYPE type : kCarried) {
        SCOPED_TRACE(type);
        _variant_t v("abc");
        v.vt = type;
        const BSTR bstr = v.bstrVal;
        _bstr_t b;
        b = v;
        EXPECT_STREQ(b.getData(), "abc");
        EXPECT_EQ(v.vt, VT_BSTR);
        EXPECT_EQ(v.bstrVal, bstr);
        v.Clear();
    }
}

TEST(variant, Assignment_of_a_double_keeps_its_type_and_leaves_its_text_as_the_value) {
    _variant_t v(1.5);
    _bstr_t b("old");
    const CallLog mallocs({Call::Malloc});
    b = v;
    FreeWhatIsLeft(mallocs, 2); // by the second conversion, whose type is not one that is cleared
    EXPECT_EQ(v.vt, VT_R8);
    EXPECT_EQ(Shown(v, VT_BSTR), "'1.5'");
    // Its text is that of the pointer read as a number: whatever that is, it is the wrapper's own.
    EXPECT_TRUE(IsBSTR(b.getData(), true));
    EXPECT_NE(b.getData(), v.bstrVal);
    EXPECT_TRUE(Recorder::Events().empty());
    SysFreeString(v.bstrVal);
}

TEST(variant, Assignment_of_a_double_leaks_the_BSTR_of_its_second_conversion) {
    _variant_t v(1.5);
    _bstr_t b;
    int mallocs = 0;
    int frees = 0;
    const CallLog log({Call::Malloc});
    {
        LibraryAllocations library;
        b = v;
        mallocs = library.counter.Mallocs();
        frees = library.counter.Frees();
    }
    FreeWhatIsLeft(log, 2);
    EXPECT_EQ(mallocs, 4) << "the variant's, the second conversion's, its copy, the wrapper's";
    EXPECT_EQ(frees, 1) << "the copy";
    SysFreeString(v.bstrVal);
}

TEST(variant, Assignment_without_memory_gives_an_empty_wrapper_and_leaves_nothing_behind) {
    for (int n = 1; n <= 3; n++) {
        SCOPED_TRACE(Text("allocation %d", n));
        _variant_t v = Variant(I4(42));
        _bstr_t b("old");
        FailAllocation fail(n);
        b = v;
        fail.Stop();
        EXPECT_TRUE(fail.Happened());
        EXPECT_EQ(b.getData(), nullptr);
        EXPECT_EQ(v.vt, VT_BSTR);
        EXPECT_EQ(Shown(v), n == 1 ? "NULL" : "'42'");
        v.Clear();
    }
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(variant, Assignment_of_a_double_without_memory_keeps_its_type) {
    _variant_t v(1.5);
    _bstr_t b("old");
    const CallLog mallocs({Call::Malloc});
    {
        FailAllocation fail(1);
        b = v;
    }
    FreeWhatIsLeft(mallocs, 1); // the first that was had
    EXPECT_EQ(v.vt, VT_R8);
    EXPECT_EQ(v.bstrVal, nullptr);
}

// -- _variant_t

TEST(variant, Class_begins_with_a_value) {
    const struct {
        const char* name;
        _variant_t v;
        VARTYPE type;
        const char* expected;
    } cases[] = {
        {"short", _variant_t(static_cast<short>(-7)), VT_I2, "-7"},
        {"int", _variant_t(70000), VT_I4, "70000"},
        {"long", _variant_t(-70000L), VT_I4, "-70000"},
        {"float", _variant_t(1.5F), VT_R4, "1.5"},
        {"double", _variant_t(-2.5), VT_R8, "-2.5"},
        {"true", _variant_t(true), VT_BOOL, "-1"},
        {"false", _variant_t(false), VT_BOOL, "0"},
        {"unsigned char", _variant_t(static_cast<unsigned char>(200)), VT_UI1, "200"},
        {"text", _variant_t("abc"), VT_BSTR, "'abc'"},
        {"NULL text", _variant_t(static_cast<const char*>(NULL)), VT_BSTR, "NULL"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        _variant_t v = c.v;
        EXPECT_EQ(v.vt, c.type);
        EXPECT_EQ(Shown(v), c.expected);
        EXPECT_EQ(Reserved(v), "0 0 0");
        EXPECT_EQ(v.Clear(), 0);
    }
}

TEST(variant, Class_is_empty_and_all_zeros_by_default) {
    alignas(_variant_t) char storage[sizeof(_variant_t)];
    memset(storage, 'Z', sizeof storage);
    const _variant_t* v = new (storage) _variant_t;
    EXPECT_EQ(v->vt, VT_EMPTY);
    EXPECT_EQ(std::string(storage, sizeof storage), std::string(sizeof storage, '\0'));
}

TEST(variant, Class_zeros_the_bytes_that_its_value_does_not_use) {
    alignas(_variant_t) char storage[sizeof(_variant_t)];
    memset(storage, 'Z', sizeof storage);
    const _variant_t* v = new (storage) _variant_t(static_cast<unsigned char>(1));
    EXPECT_EQ(ValueBytes(*v).substr(1), std::string(7, '\0'));
    EXPECT_EQ(Reserved(*v), "0 0 0");
}

TEST(variant, Class_takes_the_low_32_bits_of_a_long) {
    const _variant_t v(static_cast<long>(0x1234567890LL));
    EXPECT_EQ(v.vt, VT_I4);
    EXPECT_EQ(v.lVal, 0x34567890);
}

TEST(variant, Class_by_default_becomes_a_NULL_BSTR) {
    _variant_t v;
    EXPECT_EQ(v.ChangeType(VT_BSTR), 0);
    EXPECT_EQ(v.vt, VT_BSTR);
    EXPECT_EQ(v.bstrVal, nullptr);
    EXPECT_EQ(v.Clear(), 0);
    EXPECT_TRUE(Recorder::Events().empty());
}

TEST(variant, Class_has_no_destructor_as_two_variants_may_have_one_BSTR) {
    static_assert(std::is_trivially_destructible_v<_variant_t>);
    static_assert(std::is_trivially_copyable_v<_variant_t>);
    BSTR bstr = NULL;
    {
        const _variant_t v("abc");
        const _variant_t copy = v;
        bstr = copy.bstrVal;
        EXPECT_EQ(bstr, v.bstrVal);
    }
    EXPECT_TRUE(IsBSTR(bstr, true));
    SysFreeString(bstr);
}

TEST(variant, Class_clears_and_converts_itself) {
    _variant_t v("12abc");
    CallLog log({Call::Malloc, Call::Free});
    EXPECT_EQ(v.ChangeType(VT_I4), 0);
    EXPECT_EQ(log.Texts(), (Calls{"free()"}));
    EXPECT_EQ(v.vt, VT_I4);
    EXPECT_EQ(v.lVal, 12);
    EXPECT_EQ(v.ChangeType(VT_BSTR), 0);
    EXPECT_EQ(Shown(v), "'12'");
    EXPECT_EQ(v.Clear(), 0);
    EXPECT_EQ(v.vt, VT_EMPTY);
    EXPECT_EQ(v.bstrVal, nullptr);
}

TEST(variant, Class_goes_where_a_VARIANT_goes) {
    _variant_t text("abc");
    VARIANT v;
    VariantInit(&v);
    EXPECT_EQ(VariantCopy(&v, &text), 0);
    EXPECT_EQ(Shown(v), "'abc'");
    EXPECT_EQ(VariantClear(&text), 0);
    VariantClear(&v);
}

TEST(variant, Members_are_read_and_written_by_pointer) {
    VARIANT v = Make(Empty());
    V_VT(&v) = VT_I2;
    EXPECT_EQ(v.vt, VT_I2);
    V_I2(&v) = -2;
    EXPECT_EQ(v.iVal, -2);
    V_I4(&v) = 70000;
    EXPECT_EQ(v.lVal, 70000);
    V_R4(&v) = 1.5F;
    EXPECT_EQ(v.fltVal, 1.5F);
    V_R8(&v) = -2.5;
    EXPECT_EQ(v.dblVal, -2.5);
    V_BOOL(&v) = VARIANT_TRUE;
    EXPECT_EQ(v.boolVal, -1);
    V_UI1(&v) = 200;
    EXPECT_EQ(v.bVal, 200);
    char text[] = "abc";
    V_BSTR(&v) = text;
    EXPECT_EQ(v.bstrVal, text);
    _variant_t number(7);
    EXPECT_EQ(V_I4(&number), 7);
}
