// The names and constants that application code writes: their types, their widths and their values. Several
// values are not those known elsewhere, which application code relies on as they are here.
#include <stdint.h>

#include <type_traits>

#include <gtest/gtest.h>

#include <Windows/ObList.h>
#include <Windows/WinThread.h>
#include <Windows/synchelpers.h>
#include <Windows/types.h>
#include <Windows/variant.h>

namespace {

const unsigned int kMessage = 7;

// Runs a function on a thread that has a queue, and waits for its end.
void OnThread(AFX_THREADPROC function, void* argument) {
    CWinThread* thread = AfxBeginThread(function, argument);
    EXPECT_EQ(WaitForSingleObject(thread->m_hThread, INFINITE), static_cast<unsigned long>(WAIT_OBJECT_0));
    delete thread;
}

unsigned int GetsQuit(void* argument) {
    MSG msg = {};
    int* results = static_cast<int*>(argument);
    results[0] = PostThreadMessage(GetCurrentThreadId(), WM_QUIT, 0, NULL);
    results[1] = GetMessage(&msg, NULL, 0, 0);
    results[2] = msg.message == WM_QUIT;
    return 0;
}

unsigned int Peeks(void* argument) {
    MSG msg = {};
    int* results = static_cast<int*>(argument);
    PostThreadMessage(GetCurrentThreadId(), kMessage, 0, NULL);
    results[0] = PeekMessage(&msg, NULL, 0, 0, PM_REMOVE);
    results[1] = static_cast<int>(msg.message);
    results[2] = PeekMessage(&msg, NULL, 0, 0, PM_NOREMOVE);
    results[3] = static_cast<int>(msg.message);
    results[4] = PeekMessage(&msg, NULL, 0, 0, PM_NOREMOVE);
    return 0;
}

unsigned int Nothing(void*) { return 0; }

unsigned int WINAPI Called(void*) { return 1; }
unsigned int CALLBACK CalledBack(void*) { return 2; }
unsigned int AFXAPI CalledForThreads(void*) { return 3; }

} // namespace

// -- Types

TEST(types, Integers_have_the_widths_that_their_names_promise) {
    static_assert(std::is_same_v<BOOL, int> && sizeof(BOOL) == 4);
    static_assert(std::is_same_v<BYTE, unsigned char> && sizeof(BYTE) == 1);
    static_assert(std::is_same_v<WORD, unsigned short> && sizeof(WORD) == 2);
    static_assert(std::is_same_v<INT, int> && sizeof(INT) == 4);
    static_assert(std::is_same_v<UINT, unsigned int> && sizeof(UINT) == 4);
}

TEST(types, Long_integers_are_as_wide_as_long) {
    static_assert(std::is_same_v<DWORD, unsigned long>);
    static_assert(std::is_same_v<LONG, long>);
    static_assert(std::is_same_v<ULONG, unsigned long>);
    static_assert(std::is_same_v<WPARAM, unsigned long>);
    static_assert(std::is_same_v<LRESULT, long>);
    static_assert(std::is_same_v<HRESULT, long>);
    static_assert(sizeof(void*) != 4 || sizeof(DWORD) == 4);
}

TEST(types, Pointers) {
    static_assert(std::is_same_v<LPVOID, void*>);
    static_assert(std::is_same_v<LPCVOID, const void*>);
    static_assert(std::is_same_v<HWND, void*>);
    static_assert(std::is_pointer_v<POSITION> && !std::is_same_v<POSITION, void*>);
}

TEST(types, Texts_have_8_bit_characters) {
    static_assert(std::is_same_v<TCHAR, char> && std::is_same_v<OLECHAR, char>);
    static_assert(std::is_same_v<LPSTR, char*> && std::is_same_v<LPCSTR, const char*>);
    static_assert(std::is_same_v<LPTSTR, char*> && std::is_same_v<LPCTSTR, const char*>);
    static_assert(std::is_same_v<LPOLESTR, char*> && std::is_same_v<LPCOLESTR, const char*>);
    static_assert(std::is_same_v<BSTR, char*>);
    const LPCTSTR text = _T("abc");
    EXPECT_STREQ(text, "abc");
    static_assert(sizeof(_T("abc")) == 4);
}

TEST(types, Types_of_variants_have_16_bits) {
    static_assert(std::is_same_v<VARTYPE, unsigned short> && sizeof(VARTYPE) == 2);
    static_assert(std::is_same_v<VARIANT_BOOL, short> && sizeof(VARIANT_BOOL) == 2);
}

TEST(types, A_handle_is_a_typed_pointer_that_CloseHandle_takes_by_reference) {
    static_assert(std::is_same_v<HANDLE, HANDLESTRUCT*>);
    static_assert(!std::is_convertible_v<void*, HANDLE>);
    static_assert(std::is_same_v<decltype(&CloseHandle), int (*)(HANDLE&)>);
}

TEST(types, The_second_parameter_of_a_message_is_a_pointer) {
    static_assert(std::is_same_v<LPARAM, void*>);
    static_assert(std::is_same_v<decltype(MSG::lParam), LPARAM>);
    static_assert(std::is_same_v<decltype(MSG::wParam), WPARAM>);
    typedef decltype(&PostThreadMessage) Function;
    static_assert(std::is_invocable_v<Function, unsigned long, unsigned int, WPARAM, LPARAM>);
    static_assert(!std::is_invocable_v<Function, unsigned long, unsigned int, WPARAM, int>);
    static_assert(!std::is_invocable_v<Function, unsigned long, unsigned int, WPARAM, long>);
}

TEST(types, A_message_has_the_widths_of_its_fields) {
    static_assert(sizeof(MSG::message) == 4);
    static_assert(std::is_same_v<decltype(MSG::message), unsigned int>);
    static_assert(std::is_same_v<decltype(MSG::time), unsigned long>);
    static_assert(sizeof(void*) != 4 || sizeof(MSG) == 16);
}

TEST(types, Calling_conventions_are_the_common_one) {
    const AFX_THREADPROC functions[] = {Called, CalledBack, CalledForThreads};
    static_assert(std::is_same_v<AFX_THREADPROC, unsigned int (*)(void*)>);
    EXPECT_EQ(functions[0](NULL), 1U);
    EXPECT_EQ(functions[1](NULL), 2U);
    EXPECT_EQ(functions[2](NULL), 3U);
}

// -- Constants

TEST(types, Truth) {
    EXPECT_EQ(TRUE, 1);
    EXPECT_EQ(FALSE, 0);
    static_assert(std::is_same_v<decltype(TRUE), BOOL> && std::is_same_v<decltype(FALSE), BOOL>);
}

TEST(types, Without_limit_is_32_bits_of_ones_on_every_platform) {
    EXPECT_EQ(static_cast<uint64_t>(INFINITE), 0xFFFFFFFFU);
    static_assert(INFINITE > 0);
}

TEST(types, Results_succeed_from_0_up) {
    static_assert(S_OK == 0);
    static_assert(static_cast<uint32_t>(E_FAIL) == 0x80004005U);
    static_assert(E_FAIL < 0);
    const struct {
        HRESULT result;
        bool succeeded;
    } cases[] = {{S_OK, true}, {1, true}, {0x7FFFFFFF, true}, {E_FAIL, false}, {-1, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.result);
        EXPECT_EQ(SUCCEEDED(c.result), c.succeeded);
        EXPECT_EQ(FAILED(c.result), !c.succeeded);
    }
}

TEST(types, Results_of_a_wait_have_values_of_their_own) {
    EXPECT_EQ(WAIT_OBJECT_0, 0);
    EXPECT_EQ(WAIT_FAILED, 10);
    EXPECT_EQ(WAIT_TIMEOUT, 20);
}

TEST(types, Tags_of_handles) {
    EXPECT_EQ(static_cast<uint32_t>(HANDLE_TYPE_EVENT), 0x1234ABC1U);
    EXPECT_EQ(static_cast<uint32_t>(HANDLE_TYPE_MUTEX), 0x1234ABC2U);
    EXPECT_EQ(static_cast<uint32_t>(HANDLE_TYPE_THREAD), 0x1234ABC3U);
}

TEST(types, Threads_and_peeking) {
    EXPECT_EQ(CREATE_SUSPENDED, 1);
    EXPECT_EQ(THREAD_PRIORITY_NORMAL, 0);
    EXPECT_EQ(PM_NOREMOVE, 0);
    EXPECT_EQ(PM_REMOVE, 1);
}

TEST(types, The_quit_message_is_at_the_top_of_the_numbers) { EXPECT_EQ(WM_QUIT, 0xFFFF0000U); }

TEST(types, Messages_of_an_application_s_own_begin_at_WM_USER_and_WM_APP) {
    EXPECT_EQ(WM_USER, 0x400U);
    EXPECT_EQ(WM_APP, 0x8000U);
}

TEST(types, Type_codes_of_variants) {
    const struct {
        int code, expected;
    } codes[] = {{VT_EMPTY, 0},  {VT_NULL, 1},  {VT_I2, 2},       {VT_I4, 3},       {VT_R4, 4},
                 {VT_R8, 5},     {VT_CY, 6},    {VT_DATE, 7},     {VT_BSTR, 8},     {VT_DISPATCH, 9},
                 {VT_ERROR, 10}, {VT_BOOL, 11}, {VT_VARIANT, 12}, {VT_UNKNOWN, 13}, {VT_DECIMAL, 14},
                 {VT_I1, 16},    {VT_UI1, 17}};
    for (const auto& c : codes)
        EXPECT_EQ(c.code, c.expected);
}

TEST(types, Truth_of_variants_is_minus_1) {
    static_assert(VARIANT_TRUE == -1 && VARIANT_FALSE == 0);
    static_assert(std::is_same_v<decltype(VARIANT_TRUE), const VARIANT_BOOL>);
    static_assert(std::is_same_v<decltype(VARIANT_FALSE), const VARIANT_BOOL>);
}

// -- What the constants do

TEST(types, A_wait_that_times_out_gives_WAIT_TIMEOUT) {
    HANDLE event = CreateEvent(true, false);
    EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<unsigned long>(WAIT_TIMEOUT));
    SetEvent(event);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), static_cast<unsigned long>(WAIT_OBJECT_0));
    CloseHandle(event);
}

TEST(types, A_wait_that_cannot_be_gives_WAIT_FAILED) {
    HANDLE none = CreateHandle(HANDLE_TYPE_EVENT, NULL);
    EXPECT_EQ(WaitForSingleObject(none, 0), static_cast<unsigned long>(WAIT_FAILED));
    CloseHandle(none);
}

TEST(types, GetMessage_returns_1_for_WM_QUIT) {
    int results[3] = {};
    OnThread(GetsQuit, results);
    EXPECT_EQ(results[0], 1) << "posted";
    EXPECT_EQ(results[1], 1) << "a loop that ends at 0 never would";
    EXPECT_EQ(results[2], 1) << "by its number";
}

TEST(types, PM_REMOVE_reads_nothing_and_PM_NOREMOVE_takes_the_message) {
    int results[5] = {};
    OnThread(Peeks, results);
    EXPECT_EQ(results[0], 1) << "PM_REMOVE";
    EXPECT_EQ(results[1], 0) << "nothing was read";
    EXPECT_EQ(results[2], 1) << "PM_NOREMOVE";
    EXPECT_EQ(results[3], static_cast<int>(kMessage));
    EXPECT_EQ(results[4], 0) << "it is taken";
}

TEST(types, CREATE_SUSPENDED_leaves_the_thread_to_ResumeThread) {
    CWinThread* thread = AfxBeginThread(Nothing, NULL, THREAD_PRIORITY_NORMAL, 0, CREATE_SUSPENDED);
    EXPECT_EQ(WaitForSingleObject(thread->m_hThread, 0), static_cast<unsigned long>(WAIT_TIMEOUT));
    thread->ResumeThread();
    EXPECT_EQ(WaitForSingleObject(thread->m_hThread, INFINITE), static_cast<unsigned long>(WAIT_OBJECT_0));
    delete thread;
}
