// What application code, debuggers and dumps find in memory, in a queue and on the wire, byte by byte.
//
// script/check abi compares the layout of every class, private members included, with abi/; here are the
// places that application code knows, and bytes.
#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <Windows/Windows.h>

#include "support/peer.h"
#include "support/recording_host.h"

namespace {

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
constexpr bool kBigEndian = true;
#else
constexpr bool kBigEndian = false;
#endif

// Bytes in hexadecimal, with a blank after each fourth.
std::string Hex(const void* bytes, size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        char digits[4];
        snprintf(digits, sizeof digits, "%s%02x", i > 0 && i % 4 == 0 ? " " : "",
                 static_cast<const unsigned char*>(bytes)[i]);
        text += digits;
    }
    return text;
}

} // namespace

#if __SIZEOF_POINTER__ == 4

static_assert(sizeof(XString) == 4 && offsetof(XString, m_pStrData) == 0, "");
static_assert(sizeof(XStringData) == 24, "");
static_assert(offsetof(XStringData, m_iRefCount) == 0 && offsetof(XStringData, m_uiLength) == 4, "");
static_assert(offsetof(XStringData, m_uiBuffSize) == 8 && offsetof(XStringData, m_iBlockSize) == 12, "");
static_assert(offsetof(XStringData, m_pszData) == 16 && offsetof(XStringData, m_bLocked) == 20, "");

static_assert(sizeof(CObList) == 12 && sizeof(CObList::CNode) == 12, "");
static_assert(offsetof(CObList, m_pNodeTail) == 4 && offsetof(CObList, m_nCount) == 8, "");
static_assert(offsetof(CObList::CNode, pPrev) == 4 && offsetof(CObList::CNode, data) == 8, "");

static_assert(sizeof(CPtrArray) == 16, "");
static_assert(offsetof(CPtrArray, m_nMaxSize) == 4 && offsetof(CPtrArray, m_nSize) == 8, "");
static_assert(offsetof(CPtrArray, m_nGrowBy) == 12, "");

static_assert(sizeof(CStringArray) == sizeof(CMutex) + 16, "");
static_assert(offsetof(CStringArray, m_pData) == sizeof(CMutex), "");
static_assert(offsetof(CStringArray, m_nSize) == sizeof(CMutex) + 4, "");
static_assert(offsetof(CStringArray, m_nMaxSize) == sizeof(CMutex) + 8, "");
static_assert(offsetof(CStringArray, m_nGrowBy) == sizeof(CMutex) + 12, "");

static_assert(sizeof(CMemFile) == 28 && sizeof(CRefCountedObject) == 8 && sizeof(CCmdTarget) == 4, "");
static_assert(sizeof(CMutex) == sizeof(pthread_mutex_t), "");

static_assert(sizeof(MSG) == 16 && offsetof(MSG, wParam) == 4, "");
static_assert(offsetof(MSG, lParam) == 8 && offsetof(MSG, time) == 12, "");

static_assert(sizeof(HANDLESTRUCT) == 8 && offsetof(HANDLESTRUCT, m_pObject) == 4, "");
static_assert(sizeof(ReceivedDataBlock) == 8 && offsetof(ReceivedDataBlock, m_pData) == 4, "");
static_assert(sizeof(_bstr_t) == 8, "");
static_assert(sizeof(CSocket) == 32792 && sizeof(ServerSocket) == 32792 && sizeof(CClientSocket) == 32792,
              "");
static_assert(sizeof(Exception*) == 4 && sizeof(class Exception) == 4 && sizeof(SocketException) == 4, "");

#endif

static_assert(sizeof(tagVARIANT) == 16 && offsetof(tagVARIANT, lVal) == 8, "");

TEST(Layout, A_frame_on_the_wire_has_its_length_in_front_highest_byte_first) {
    ConnectedPair pair;
    CSocket socket;
    socket.m_fd = pair.Release();
    std::string text(0x0102, 'x');
    ASSERT_TRUE(socket.Send(&text[0]));
    char prefix[4];
    ASSERT_EQ(recv(pair.peer.Descriptor(), prefix, sizeof prefix, MSG_WAITALL), 4);
    EXPECT_EQ(Hex(prefix, 4), "00000102");
}

TEST(Layout, A_message_in_a_queue_is_the_structure_as_it_is_in_memory) {
    Host::SetTickCount(0x0D0E0F10);
    CWinThread thread; // suspended: nobody reads
    ASSERT_EQ(thread.PostMessage(0x01020304, 0x05060708, reinterpret_cast<void*>(0x090A0B0C)), 1);
    unsigned char record[sizeof(MSG)];
    ASSERT_EQ(read(thread.m_readDesc, record, sizeof record), static_cast<ssize_t>(sizeof record));
    const char* expected =
        sizeof(void*) == 4
            ? (kBigEndian ? "01020304 05060708 090a0b0c 0d0e0f10" : "04030201 08070605 0c0b0a09 100f0e0d")
        : kBigEndian ? "01020304 00000000 00000000 05060708 00000000 090a0b0c 00000000 0d0e0f10"
                     : "04030201 00000000 08070605 00000000 0c0b0a09 00000000 100f0e0d 00000000";
    EXPECT_EQ(Hex(record, sizeof record), expected);
    Host::UseRealTickCount();
}

TEST(Layout, A_BSTR_has_signature_and_length_in_front_of_it_and_a_NUL_behind) {
    BSTR bstr = SysAllocString("abcde");
    EXPECT_EQ(Hex(bstr - 8, 14),
              kBigEndian ? "cdeadbee 00000005 61626364 6500" : "eedbeacd 05000000 61626364 6500");
    SysFreeString(bstr);
}

TEST(Layout, A_VARIANT_of_each_type_has_its_code_and_its_value_in_the_first_bytes) {
    // Bytes that a type does not use are zero from the constructor.
    const struct {
        _variant_t variant;
        const char* bigEndian;
        const char* littleEndian;
    } cases[] = {
        {_variant_t(), "00000000 00000000 00000000 00000000", "00000000 00000000 00000000 00000000"},
        {_variant_t(static_cast<short>(0x0102)), "00020000 00000000 01020000 00000000",
         "02000000 00000000 02010000 00000000"},
        {_variant_t(0x01020304), "00030000 00000000 01020304 00000000",
         "03000000 00000000 04030201 00000000"},
        {_variant_t(1.5F), "00040000 00000000 3fc00000 00000000", "04000000 00000000 0000c03f 00000000"},
        {_variant_t(1.5), "00050000 00000000 3ff80000 00000000", "05000000 00000000 00000000 0000f83f"},
        {_variant_t(true), "000b0000 00000000 ffff0000 00000000", "0b000000 00000000 ffff0000 00000000"},
        {_variant_t(static_cast<unsigned char>(0xFE)), "00110000 00000000 fe000000 00000000",
         "11000000 00000000 fe000000 00000000"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Hex(&c.variant, sizeof c.variant), kBigEndian ? c.bigEndian : c.littleEndian)
            << c.variant.vt;

    _variant_t null;
    null.vt = VT_NULL;
    EXPECT_EQ(Hex(&null, 8), kBigEndian ? "00010000 00000000" : "01000000 00000000");

    _variant_t text("abc");
    EXPECT_EQ(Hex(&text, 8), kBigEndian ? "00080000 00000000" : "08000000 00000000");
    EXPECT_EQ(memcmp(reinterpret_cast<const char*>(&text) + 8, &text.bstrVal, sizeof(BSTR)), 0);
    text.Clear();
}
