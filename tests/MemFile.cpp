// The memory file: growth, reading and writing, seeking, text with and without entities, Dump.
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Windows/MemFile.h>

#include "support/interpose.h"
#include "support/text.h"

namespace {

// All fields in one line.
std::string State(const CMemFile& file) {
    return Text("open %d grow %u size %u length %u position %u%s", file.m_nOpen, file.m_uiGrowBytes,
                file.m_uiBufferSize, file.m_uiFileLength, file.m_uiPosition,
                file.m_pBuffer ? "" : " no buffer");
}

std::string Content(const CMemFile& file) {
    return std::string(reinterpret_cast<const char*>(file.m_pBuffer), file.m_uiFileLength);
}

void Write(CMemFile& file, const std::string& bytes) {
    file.Write(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

std::string Read(CMemFile& file, unsigned int count) {
    std::vector<char> bytes(count + 1, '#');
    const unsigned int read = file.Read(bytes.data(), count);
    EXPECT_EQ(bytes[read], '#') << "more was copied than said";
    return std::string(bytes.data(), read);
}

// A buffer to attach, filled with 'z'.
unsigned char* Buffer(size_t size) {
    void* buffer = malloc(size);
    memset(buffer, 'z', size);
    return static_cast<unsigned char*>(buffer);
}

// The sizes of the blocks that were asked for.
std::vector<long> Sizes(const CallLog& log) {
    std::vector<long> sizes;
    for (const CallRecord& call : log.Records())
        sizes.push_back(call.number);
    return sizes;
}

// A path that does not exist yet; the file is removed at the end.
class TemporaryFile {
public:
    TemporaryFile() {
        const char* folder = getenv("TMPDIR");
        std::string pattern = std::string(folder ? folder : "/tmp") + "/MemFile.XXXXXX";
        m_folder = mkdtemp(&pattern[0]);
        path = m_folder + "/dump";
    }
    ~TemporaryFile() {
        remove(path.c_str());
        rmdir(m_folder.c_str());
    }

    std::string Content() const {
        std::string content;
        if (FILE* file = fopen(path.c_str(), "r")) {
            for (int c = getc(file); c != EOF; c = getc(file))
                content += static_cast<char>(c);
            fclose(file);
        }
        return content;
    }

    std::string path;

private:
    std::string m_folder;
};

template <class Field> const char* Address(const Field& field) {
    return reinterpret_cast<const char*>(&field);
}

} // namespace

// -- Data model

TEST(MemFile, Fields_are_in_order_behind_the_virtual_table) {
    const CMemFile file(0U);
    const char* start = Address(file);
    EXPECT_EQ(Address(file.m_nOpen) - start, static_cast<ptrdiff_t>(sizeof(void*)));
    EXPECT_EQ(Address(file.m_uiGrowBytes) - Address(file.m_nOpen), 4);
    EXPECT_EQ(Address(file.m_uiBufferSize) - Address(file.m_nOpen), 8);
    EXPECT_EQ(Address(file.m_uiFileLength) - Address(file.m_nOpen), 12);
    EXPECT_EQ(Address(file.m_uiPosition) - Address(file.m_nOpen), 16);
    EXPECT_GE(Address(file.m_pBuffer) - Address(file.m_nOpen), 20);
    static_assert(std::is_same_v<decltype(CMemFile::m_nOpen), int>);
    static_assert(std::is_same_v<decltype(CMemFile::m_uiGrowBytes), unsigned int>);
    static_assert(std::is_same_v<decltype(CMemFile::m_uiBufferSize), unsigned int>);
    static_assert(std::is_same_v<decltype(CMemFile::m_uiFileLength), unsigned int>);
    static_assert(std::is_same_v<decltype(CMemFile::m_uiPosition), unsigned int>);
    static_assert(std::is_same_v<decltype(CMemFile::m_pBuffer), unsigned char*>);
    static_assert(sizeof(void*) != 4 || sizeof(CMemFile) == 28);
}

TEST(MemFile, Destructor_is_virtual_and_copies_are_not_made) {
    static_assert(std::has_virtual_destructor_v<CMemFile>);
    static_assert(!std::is_copy_constructible_v<CMemFile>);
    static_assert(!std::is_copy_assignable_v<CMemFile>);
}

// -- Construction, attaching and detaching

TEST(MemFile, Starts_empty_and_allocates_nothing) {
    AllocationCounter counter;
    const CMemFile file(1024);
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(State(file), "open 1 grow 1024 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, Attached_bytes_are_room_and_not_content) {
    unsigned char* buffer = Buffer(10);
    const CMemFile file(buffer, 10, 4);
    EXPECT_EQ(State(file), "open 1 grow 4 size 10 length 0 position 0");
    EXPECT_EQ(file.m_pBuffer, buffer);
}

TEST(MemFile, Attach_keeps_length_and_position) {
    CMemFile file(8U);
    Write(file, "abcdef");
    file.Seek(2, 0);
    free(file.Detach());
    EXPECT_EQ(State(file), "open 0 grow 8 size 0 length 6 position 2 no buffer");
    unsigned char* buffer = Buffer(10);
    file.Attach(buffer, 10, 4);
    EXPECT_EQ(State(file), "open 1 grow 4 size 10 length 6 position 2");
    EXPECT_EQ(file.m_pBuffer, buffer);
}

TEST(MemFile, Attach_neither_frees_nor_keeps_the_old_buffer) {
    unsigned char* first = Buffer(10);
    CMemFile file(first, 10, 0);
    AllocationCounter counter;
    file.Attach(Buffer(5), 5, 0);
    EXPECT_EQ(counter.Frees(), 0);
    EXPECT_EQ(file.m_uiBufferSize, 5U);
    EXPECT_EQ(first[9], 'z');
    free(first);
}

TEST(MemFile, Attached_buffer_may_be_reallocated) {
    CMemFile file(Buffer(2), 2, 4);
    Write(file, "abcde");
    EXPECT_EQ(State(file), "open 1 grow 4 size 6 length 5 position 5");
    EXPECT_EQ(Content(file), "abcde");
}

TEST(MemFile, Detach_hands_out_the_buffer_and_keeps_length_position_and_grow_bytes) {
    CMemFile file(8U);
    Write(file, "abc");
    unsigned char* buffer = file.m_pBuffer;
    EXPECT_EQ(file.Detach(), buffer);
    EXPECT_EQ(State(file), "open 0 grow 8 size 0 length 3 position 3 no buffer");
    EXPECT_EQ(memcmp(buffer, "abc", 3), 0);
    free(buffer);
}

TEST(MemFile, Detach_of_an_empty_file_gives_NULL) {
    CMemFile file(8U);
    EXPECT_EQ(file.Detach(), nullptr);
    EXPECT_EQ(file.m_nOpen, 0);
}

TEST(MemFile, Detached_buffer_outlives_the_file) {
    CMemFile* file = new CMemFile(8U);
    Write(*file, "abc");
    unsigned char* buffer = file->Detach();
    AllocationCounter counter;
    delete file;
    EXPECT_EQ(counter.Frees(), 0);
    EXPECT_EQ(memcmp(buffer, "abc", 3), 0);
    free(buffer);
}

TEST(MemFile, Write_after_Detach_goes_to_the_kept_position_in_a_new_buffer) {
    CMemFile file(8U);
    Write(file, "abc");
    free(file.Detach());
    Write(file, "de");
    EXPECT_EQ(State(file), "open 0 grow 8 size 8 length 5 position 5");
    EXPECT_EQ(memcmp(file.m_pBuffer + 3, "de", 2), 0);
}

TEST(MemFile, Seek_after_Detach_makes_the_buffer_as_large_as_the_kept_position) {
    CMemFile file(8U);
    Write(file, "abc");
    free(file.Detach());
    EXPECT_EQ(file.Seek(0, 1), 3);
    EXPECT_EQ(State(file), "open 0 grow 8 size 3 length 3 position 3");
}

TEST(MemFile, Destructor_frees_the_buffer) {
    AllocationCounter counter;
    {
        CMemFile file(8U);
        file.Write("abc", 3);
    }
    { CMemFile file(static_cast<unsigned char*>(malloc(10)), 10, 0); }
    const int balance = counter.Balance();
    const int frees = counter.Frees();
    EXPECT_EQ(balance, 0);
    EXPECT_EQ(frees, 2);
}

// -- Grow and Seek

TEST(MemFile, Grow_allocates_the_exact_size_and_never_shrinks) {
    CMemFile file(8U);
    CallLog log({Call::Malloc, Call::Realloc});
    file.Grow(5);
    file.Grow(5);
    file.Grow(3);
    file.Grow(0);
    file.Grow(7);
    EXPECT_EQ(Sizes(log), (std::vector<long>{5, 7}));
    EXPECT_EQ(State(file), "open 1 grow 8 size 7 length 0 position 0");
}

TEST(MemFile, Grow_begins_with_malloc_and_goes_on_with_realloc) {
    CMemFile file(8U);
    CallLog log({Call::Malloc, Call::Realloc});
    file.Grow(5);
    file.Grow(7);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"malloc(5)", "realloc(7)"}));
}

TEST(MemFile, Grow_keeps_the_contents_and_grows_fixed_files_too) {
    CMemFile file(Buffer(3), 3, 0);
    Write(file, "abc");
    file.Grow(1000);
    EXPECT_EQ(State(file), "open 1 grow 0 size 1000 length 3 position 3");
    EXPECT_EQ(Content(file), "abc");
}

TEST(MemFile, Grow_does_not_notice_that_memory_ran_out) {
    CMemFile empty(8U);
    CMemFile filled(Buffer(3), 3, 8);
    unsigned char* buffer = filled.m_pBuffer;
    {
        FailAllocation fail(1, FailAllocation::OnlyMalloc);
        empty.Grow(10);
    }
    {
        FailAllocation fail(1, FailAllocation::OnlyMalloc);
        filled.Grow(10);
    }
    EXPECT_EQ(State(empty), "open 1 grow 8 size 10 length 0 position 0 no buffer");
    EXPECT_EQ(State(filled), "open 1 grow 8 size 10 length 0 position 0 no buffer");
    free(buffer);
}

TEST(MemFile, Seek_goes_from_begin_current_or_end) {
    const struct {
        long offset;
        unsigned int origin;
        long position;
    } cases[] = {{0, 0, 0}, {5, 0, 5},  {6, 0, 6},  {2, 1, 6}, {0, 1, 4}, {-4, 1, 0},
                 {0, 2, 6}, {-1, 2, 5}, {-6, 2, 0}, {1, 3, 4}, {0, 3, 4}, {1, UINT_MAX, 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("Seek(%ld, %u) at 4 of 6", c.offset, c.origin));
        CMemFile file(Buffer(10), 10, 0);
        Write(file, "abcdef");
        file.Seek(4, 0);
        EXPECT_EQ(file.Seek(c.offset, c.origin), c.position);
        EXPECT_EQ(State(file), Text("open 1 grow 0 size 10 length 6 position %ld", c.position));
    }
}

TEST(MemFile, Seek_origins_have_names) {
    EXPECT_EQ(CMemFile::begin, 0);
    EXPECT_EQ(CMemFile::current, 1);
    EXPECT_EQ(CMemFile::end, 2);
}

TEST(MemFile, Seek_beyond_the_buffer_makes_it_exactly_that_large) {
    for (unsigned int grow : {1024U, 0U}) { // fixed files too
        SCOPED_TRACE(Text("grow bytes %u", grow));
        CMemFile file(grow);
        EXPECT_EQ(file.Seek(100, 0), 100);
        EXPECT_EQ(State(file), Text("open 1 grow %u size 100 length 0 position 100", grow));
        EXPECT_EQ(file.Seek(100, 0), 100);
        EXPECT_EQ(file.m_uiBufferSize, 100U);
        EXPECT_EQ(file.Seek(1, 1), 101);
        EXPECT_EQ(file.m_uiBufferSize, 101U);
        EXPECT_EQ(file.Seek(150, 2), 150);
        EXPECT_EQ(State(file), Text("open 1 grow %u size 150 length 0 position 150", grow));
    }
}

TEST(MemFile, Write_after_a_seek_beyond_the_end_extends_the_length) {
    CMemFile file(1024);
    file.Seek(100, 0);
    Write(file, "x");
    EXPECT_EQ(State(file), "open 1 grow 1024 size 1124 length 101 position 101");
    EXPECT_EQ(file.m_pBuffer[100], 'x');
}

TEST(MemFile, Seek_to_a_negative_place_returns_it_as_it_is) {
    CMemFile file(1024);
    long position;
    {
        FailAllocation fail(1, FailAllocation::OnlyMalloc); // 4 GiB
        position = file.Seek(-5, 0);
    }
    EXPECT_EQ(position, -5);
    EXPECT_EQ(State(file), "open 1 grow 1024 size 4294967291 length 0 position 4294967291 no buffer");
}

// -- Write

TEST(MemFile, Write_grows_by_as_few_steps_as_hold_the_data) {
    const struct {
        unsigned int grow, first, second, size;
    } cases[] = {
        {1024, 1, 0, 1024},    {1024, 1, 3000, 3072},     {1024, 1, 2000, 2048}, {1024, 1024, 0, 1024},
        {1024, 1024, 1, 2048}, {1024, 1, 1023, 1024},     {1024, 1025, 0, 2048}, {1, 1, 1, 2},
        {10, 25, 0, 30},       {100000, 20, 100, 100000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Text("grow bytes %u, %u and %u bytes", c.grow, c.first, c.second));
        CMemFile file(c.grow);
        Write(file, std::string(c.first, 'a'));
        Write(file, std::string(c.second, 'b'));
        const unsigned int length = c.first + c.second;
        EXPECT_EQ(State(file),
                  Text("open 1 grow %u size %u length %u position %u", c.grow, c.size, length, length));
        EXPECT_EQ(Content(file), std::string(c.first, 'a') + std::string(c.second, 'b'));
    }
}

TEST(MemFile, Write_grows_in_steps_from_whatever_the_size_was) {
    CMemFile file(Buffer(10), 10, 100);
    Write(file, std::string(11, 'a'));
    EXPECT_EQ(file.m_uiBufferSize, 110U);
    Write(file, std::string(300, 'b'));
    EXPECT_EQ(file.m_uiBufferSize, 410U);
}

TEST(MemFile, Write_asks_for_memory_once) {
    CMemFile file(10U);
    const std::string bytes(1000, 'a');
    CallLog log({Call::Malloc, Call::Realloc});
    file.Write(bytes.data(), 15);
    file.Write(bytes.data(), 5);
    file.Write(bytes.data(), 100);
    EXPECT_EQ(Sizes(log), (std::vector<long>{20, 120}));
}

TEST(MemFile, Write_of_nothing_allocates_nothing) {
    CMemFile file(1024);
    AllocationCounter counter;
    file.Write("", 0);
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(State(file), "open 1 grow 1024 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, Write_in_the_middle_replaces_and_leaves_the_length) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.Seek(2, 0);
    Write(file, "XY");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 6 position 4");
    EXPECT_EQ(Content(file), "abXYef");
    Write(file, "123");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 7 position 7");
    EXPECT_EQ(Content(file), "abXY123");
}

TEST(MemFile, Write_keeps_every_byte) {
    std::string bytes;
    for (int i = 0; i < 256; i++)
        bytes += static_cast<char>(i);
    CMemFile file(100U);
    Write(file, bytes);
    EXPECT_EQ(Content(file), bytes);
}

TEST(MemFile, Fixed_file_without_a_buffer_stores_nothing) {
    CMemFile file(0U);
    AllocationCounter counter;
    file.Write("abc", 3);
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(State(file), "open 1 grow 0 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, Fixed_file_drops_what_does_not_fit) {
    CMemFile file(Buffer(10), 10, 0);
    Write(file, "0123456789abcde");
    EXPECT_EQ(State(file), "open 1 grow 0 size 10 length 10 position 10");
    EXPECT_EQ(Content(file), "0123456789");
    Write(file, "x");
    EXPECT_EQ(State(file), "open 1 grow 0 size 10 length 10 position 10");
    file.Seek(8, 0);
    Write(file, "xyz");
    EXPECT_EQ(Content(file), "01234567xy");
    EXPECT_EQ(file.m_uiPosition, 10U);
}

TEST(MemFile, Fixed_file_takes_exactly_its_size) {
    CMemFile file(Buffer(3), 3, 0);
    Write(file, "ab");
    Write(file, "c");
    EXPECT_EQ(Content(file), "abc");
}

TEST(MemFile, Fixed_file_takes_nothing_at_its_end_and_is_that_long_then) {
    CMemFile file(Buffer(3), 3, 0);
    file.Seek(3, 0);
    file.Write("", 0);
    EXPECT_EQ(State(file), "open 1 grow 0 size 3 length 3 position 3");
}

TEST(MemFile, Fixed_file_drops_what_is_written_at_its_end_and_stays_as_long) {
    CMemFile file(Buffer(3), 3, 0);
    file.Seek(3, 0);
    Write(file, "x");
    EXPECT_EQ(State(file), "open 1 grow 0 size 3 length 0 position 3");
}

TEST(MemFile, Fixed_file_after_Detach_stores_nothing) {
    CMemFile file(Buffer(3), 3, 0);
    Write(file, "ab");
    free(file.Detach());
    Write(file, "c");
    EXPECT_EQ(State(file), "open 0 grow 0 size 0 length 2 position 2 no buffer");
}

TEST(MemFile, Growth_that_would_wrap_takes_the_end_of_the_data) {
    // The process ends where the memory is asked for: there may not be that much.
    const auto isTheEnd = [](const CallRecord& call) {
        return static_cast<unsigned int>(call.number) == 0x80000001U;
    };
    const auto leave = [] {
        fputs("asked for the end", stderr);
        _exit(0);
    };
    EXPECT_EXIT(
        {
            CMemFile file(0x80000000U);
            file.m_uiPosition = 0x80000000U;
            Interpose asMalloc(Call::Malloc);
            asMalloc.OnThisThread().When(isTheEnd).Before(leave);
            Interpose asRealloc(Call::Realloc);
            asRealloc.OnThisThread().When(isTheEnd).Before(leave);
            file.Write("x", 1);
        },
        testing::ExitedWithCode(0), "asked for the end");
}

// -- Read

TEST(MemFile, Read_copies_from_the_position_and_advances_it) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.Seek(1, 0);
    EXPECT_EQ(Read(file, 3), "bcd");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 6 position 4");
    EXPECT_EQ(Read(file, 2), "ef");
}

TEST(MemFile, Read_stops_at_the_length) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.Seek(4, 0);
    EXPECT_EQ(Read(file, 5), "ef") << "within the buffer";
    file.Seek(4, 0);
    EXPECT_EQ(Read(file, 100), "ef") << "beyond the buffer";
    EXPECT_EQ(file.m_uiPosition, 6U);
}

TEST(MemFile, Read_stops_at_the_buffer_where_the_length_is_that) {
    CMemFile file(Buffer(6), 6, 0);
    Write(file, "abcdef");
    file.Seek(4, 0);
    EXPECT_EQ(Read(file, 100), "ef");
    EXPECT_EQ(file.m_uiPosition, 6U);
}

TEST(MemFile, Read_stops_at_an_attached_buffer_that_is_shorter_than_the_length) {
    CMemFile file(16U);
    Write(file, "abcdef");
    free(file.Detach());
    unsigned char* buffer = Buffer(4);
    memcpy(buffer, "wxyz", 4);
    file.Attach(buffer, 4, 0);
    file.Seek(2, 0);
    EXPECT_EQ(Read(file, 10), "yz");
    EXPECT_EQ(State(file), "open 1 grow 0 size 4 length 6 position 4");
}

TEST(MemFile, Read_at_the_end_gives_nothing) {
    CMemFile file(16U);
    Write(file, "abc");
    EXPECT_EQ(Read(file, 10), "");
    EXPECT_EQ(Read(file, 100), "");
    EXPECT_EQ(file.m_uiPosition, 3U);
}

TEST(MemFile, Read_of_nothing_gives_nothing) {
    CMemFile file(16U);
    Write(file, "abc");
    file.Seek(0, 0);
    EXPECT_EQ(Read(file, 0), "");
    EXPECT_EQ(file.m_uiPosition, 0U);
}

TEST(MemFile, Read_of_an_empty_file_gives_nothing) {
    CMemFile file(16U);
    EXPECT_EQ(Read(file, 10), "");
    EXPECT_EQ(State(file), "open 1 grow 16 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, Read_does_not_see_the_room_of_an_attached_buffer) {
    CMemFile file(Buffer(10), 10, 0);
    EXPECT_EQ(Read(file, 5), "");
}

// -- GetAsStr

TEST(MemFile, GetAsStr_ends_the_text_behind_the_data) {
    CMemFile file(16U);
    Write(file, "abc");
    EXPECT_EQ(file.GetAsStr(), file.m_pBuffer);
    EXPECT_STREQ(reinterpret_cast<char*>(file.m_pBuffer), "abc");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 3 position 3");
    file.GetAsStr();
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 3 position 3");
    Write(file, "d");
    EXPECT_STREQ(reinterpret_cast<char*>(file.GetAsStr()), "abcd");
}

TEST(MemFile, GetAsStr_grows_a_full_file) {
    CMemFile file(3U);
    Write(file, "abc");
    EXPECT_STREQ(reinterpret_cast<char*>(file.GetAsStr()), "abc");
    EXPECT_EQ(State(file), "open 1 grow 3 size 6 length 3 position 3");
}

TEST(MemFile, GetAsStr_of_text_that_ends_in_a_NUL_writes_nothing) {
    CMemFile file(4U);
    file.Write("abc", 4);
    AllocationCounter counter;
    unsigned char* text = file.GetAsStr();
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(text, file.m_pBuffer);
    EXPECT_EQ(State(file), "open 1 grow 4 size 4 length 4 position 4");
}

TEST(MemFile, GetAsStr_of_text_that_ends_in_a_NUL_does_not_go_by_the_position) {
    CMemFile file(16U);
    file.Write("abc", 4);
    file.Seek(1, 0);
    EXPECT_STREQ(reinterpret_cast<char*>(file.GetAsStr()), "abc");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 4 position 1");
}

TEST(MemFile, GetAsStr_with_the_position_elsewhere_replaces_a_byte_and_drops_one_of_the_length) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.Seek(2, 0);
    EXPECT_STREQ(reinterpret_cast<char*>(file.GetAsStr()), "ab");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 5 position 2");
    EXPECT_EQ(Content(file), std::string("ab\0de", 5));
    Write(file, "X");
    EXPECT_EQ(Content(file), "abXde");
}

TEST(MemFile, GetAsStr_of_an_empty_growing_file_is_an_empty_text) {
    CMemFile file(16U);
    EXPECT_STREQ(reinterpret_cast<char*>(file.GetAsStr()), "");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 0 position 0");
}

TEST(MemFile, GetAsStr_of_an_empty_fixed_file_without_a_buffer_leaves_all_ones) {
    CMemFile file(0U);
    EXPECT_EQ(file.GetAsStr(), nullptr);
    EXPECT_EQ(State(file), "open 1 grow 0 size 0 length 4294967295 position 4294967295 no buffer");
}

TEST(MemFile, GetAsStr_of_a_full_fixed_file_takes_back_a_NUL_that_was_never_written) {
    CMemFile file(Buffer(10), 10, 0);
    Write(file, "0123456789");
    EXPECT_EQ(file.GetAsStr(), file.m_pBuffer);
    EXPECT_EQ(State(file), "open 1 grow 0 size 10 length 9 position 9");
    EXPECT_EQ(memcmp(file.m_pBuffer, "0123456789", 10), 0) << "not terminated";
    EXPECT_STREQ(reinterpret_cast<char*>(file.GetAsStr()), "012345678");
    EXPECT_EQ(State(file), "open 1 grow 0 size 10 length 9 position 9");
}

// -- WriteF

TEST(MemFile, WriteF_writes_the_formatted_text_without_a_NUL) {
    CMemFile file(16U);
    file.WriteF("%s-%d", "abc", 42);
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 6 position 6");
    file.WriteF("|%5.1f|%%", 1.25);
    EXPECT_EQ(Content(file), "abc-42|  1.2|%");
}

TEST(MemFile, WriteF_writes_at_the_position) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.Seek(2, 0);
    file.WriteF("%d", 12);
    EXPECT_EQ(Content(file), "ab12ef");
}

TEST(MemFile, WriteF_writes_NULs_that_the_format_makes) {
    CMemFile file(16U);
    file.WriteF("a%cb", 0);
    EXPECT_EQ(Content(file), std::string("a\0b", 3));
}

TEST(MemFile, WriteF_of_an_empty_text_behind_the_end_moves_the_end_there) {
    CMemFile file;
    file.Write("abc", 3);
    file.Seek(10, 0);
    file.WriteF("%s", "");
    EXPECT_EQ(file.GetLength(), 10U);
}

TEST(MemFile, WriteF_of_an_empty_text_writes_nothing) {
    CMemFile file(16U);
    file.WriteF("%s", "");
    EXPECT_EQ(State(file), "open 1 grow 16 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, WriteF_writes_texts_of_any_length_whole) {
    for (size_t length : {16382U, 16383U, 16384U, 20000U, 100000U}) {
        SCOPED_TRACE(length);
        const std::string text(length - 1, 'x');
        CMemFile file(1024);
        file.WriteF("%s%c", text.c_str(), 'y');
        EXPECT_EQ(Content(file), text + "y");
        EXPECT_EQ(file.m_uiPosition, length);
    }
}

TEST(MemFile, WriteF_formats_once_up_to_16383_and_again_into_a_block_above) {
    const std::string text(20000, 'x');
    const struct {
        int length;
        std::vector<std::string> calls;
    } cases[] = {
        {16383, {"vsnprintf(16384)"}},
        {16384, {"vsnprintf(16384)", "malloc(16484)", "vsnprintf(16484)"}},
        {20000, {"vsnprintf(16384)", "malloc(20100)", "vsnprintf(20100)"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        for (bool entities : {false, true}) {
            CMemFile file(Buffer(30000), 30000, 0);
            CallLog log({Call::Vsnprintf, Call::Malloc});
            AllocationCounter counter;
            if (entities)
                file.WriteEntitiesF("%.*s", c.length, text.c_str());
            else
                file.WriteF("%.*s", c.length, text.c_str());
            const int balance = counter.Balance();
            const std::vector<std::string> calls = log.Texts();
            EXPECT_EQ(calls, c.calls);
            EXPECT_EQ(balance, 0);
            EXPECT_EQ(file.m_uiFileLength, static_cast<unsigned int>(c.length));
        }
    }
}

TEST(MemFile, WriteF_writes_nothing_when_the_format_fails) {
    CMemFile file(16U);
    Interpose fail(Call::Vsnprintf);
    fail.OnThisThread().Always().Return(-1);
    file.WriteF("%s", "abc");
    file.WriteEntitiesF("%s", "");
    EXPECT_EQ(fail.Acted(), 2);
    EXPECT_EQ(State(file), "open 1 grow 16 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, WriteF_writes_nothing_when_the_format_fails_the_second_time) {
    CMemFile file(Buffer(10), 10, 0);
    const std::string text(20000, 'x');
    Interpose fail(Call::Vsnprintf);
    fail.OnThisThread().OnCall(2).Return(-1);
    file.WriteF("%s", text.c_str());
    EXPECT_EQ(fail.Acted(), 1);
    EXPECT_EQ(State(file), "open 1 grow 0 size 10 length 0 position 0");
}

TEST(MemFile, WriteF_writes_nothing_for_a_wide_character_that_cannot_be_converted) {
    CMemFile file(16U);
    file.WriteF("abc%lc", static_cast<wint_t>(0x20AC));
    EXPECT_EQ(State(file), "open 1 grow 16 size 0 length 0 position 0 no buffer");
}

// -- Entities

TEST(MemFile, WriteStrEntities_replaces_five_characters) {
    const struct {
        const char *text, *written;
    } cases[] = {
        {"<", "&lt;"},
        {">", "&gt;"},
        {"&", "&amp;"},
        {"'", "&apos;"},
        {"\"", "&quot;"},
        {"a<b", "a&lt;b"},
        {"&lt;", "&amp;lt;"},
        {"", ""},
        {"plain", "plain"},
        {"<a href='x' b=\"y\">&</a>", "&lt;a href=&apos;x&apos; b=&quot;y&quot;&gt;&amp;&lt;/a&gt;"},
        {"\xE4\x01\x7F%s\n", "\xE4\x01\x7F%s\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        CMemFile file(Buffer(100), 100, 0);
        file.WriteStrEntities(c.text);
        EXPECT_EQ(Content(file), c.written);
        CMemFile formatted(Buffer(100), 100, 0);
        formatted.WriteEntitiesF("%s", c.text);
        EXPECT_EQ(Content(formatted), c.written);
    }
}

// Behind the first special character the text is searched eight bytes at a time.
TEST(MemFile, WriteStrEntities_finds_special_characters_at_any_distance_among_any_others) {
    const std::string plain = "0123456789abcdefghijklmnopqrstuvwxyz";
    for (int code = 1; code < 256; code++) {
        const char c = static_cast<char>(code);
        const std::string entity = c == '<'    ? "&lt;"
                                   : c == '>'  ? "&gt;"
                                   : c == '&'  ? "&amp;"
                                   : c == '\'' ? "&apos;"
                                   : c == '"'  ? "&quot;"
                                               : std::string(1, c);
        for (size_t before = 0; before < 20; before++)
            for (size_t behind = 0; behind < 20; behind++) {
                const std::string head = plain.substr(0, before), tail = plain.substr(0, behind);
                CMemFile file(16U);
                file.WriteStrEntities(("<" + head + c + tail + ">").c_str());
                ASSERT_EQ(Content(file), "&lt;" + head + entity + tail + "&gt;") << "character " << code;
            }
    }
}

TEST(MemFile, WriteStrEntities_of_an_empty_text_allocates_nothing) {
    CMemFile file(16U);
    file.WriteStrEntities("");
    EXPECT_EQ(State(file), "open 1 grow 16 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, WriteStrEntities_stores_part_of_an_entity_where_a_fixed_buffer_ends) {
    CMemFile file(Buffer(3), 3, 0);
    file.WriteStrEntities("a<b");
    EXPECT_EQ(Content(file), "a&l");
    EXPECT_EQ(file.m_uiPosition, 3U);
}

TEST(MemFile, WriteStrEntities_leaves_what_lies_behind_the_escaped_text) {
    // With a special character in each place of the words that are escaped at once, and up to the very end.
    for (size_t length = 1; length <= 40; ++length) {
        for (size_t special = 0; special < length; ++special) {
            SCOPED_TRACE(testing::Message() << special << " of " << length);
            std::string text(length, 'x');
            text[special] = '\'';
            const std::string escaped = std::string(text).replace(special, 1, "&apos;");
            unsigned char* buffer = Buffer(200);
            memset(buffer, '~', 200);
            CMemFile file(buffer, 200, 0);
            file.WriteStrEntities(text.c_str());
            EXPECT_EQ(Content(file), escaped);
            EXPECT_EQ(std::string(buffer + escaped.size(), buffer + 200),
                      std::string(200 - escaped.size(), '~'));
        }
    }
}

TEST(MemFile, WriteStrEntities_reads_nothing_behind_the_text) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char* const end = static_cast<char*>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    for (size_t length = 2; length <= 40; ++length) {
        for (size_t special = 1; special < length; ++special) {
            SCOPED_TRACE(testing::Message() << special << " of " << length);
            std::string expected = "&lt;" + std::string(length - 1, 'x');
            expected.replace(special + 3, 1, "&gt;");
            char* const text = end - length - 1;
            memset(text, 'x', length);
            text[0] = '<';
            text[special] = '>';
            text[length] = '\0';
            CMemFile file(1024U);
            file.WriteStrEntities(text);
            EXPECT_EQ(Content(file), expected);
        }
    }
    munmap(pages, 2 * page);
}

TEST(MemFile, WriteStrEntities_grows_once_for_a_short_text_behind_its_first_special_character) {
    CMemFile file(1U);
    CallLog log({Call::Malloc, Call::Realloc});
    file.WriteStrEntities("a<b");
    EXPECT_EQ(Sizes(log), (std::vector<long>{1, 6}));
}

TEST(MemFile, WriteStrEntities_escapes_texts_of_nothing_but_special_characters) {
    for (size_t count : {7U, 8U, 16U, 17U, 1000U}) {
        SCOPED_TRACE(count);
        std::string text, escaped;
        for (size_t i = 0; i < count; ++i) {
            text += "<>&'\"#"[i % 6];
            escaped += std::vector<std::string>{"&lt;", "&gt;", "&amp;", "&apos;", "&quot;", "#"}[i % 6];
        }
        CMemFile file(1024U);
        file.WriteStrEntities(text.c_str());
        EXPECT_EQ(Content(file), escaped);
    }
}

TEST(MemFile, WriteStrEntities_writes_a_run_of_plain_characters_at_once) {
    CMemFile file(1U);
    CallLog log({Call::Malloc, Call::Realloc});
    file.WriteStrEntities("abc");
    EXPECT_EQ(Sizes(log), (std::vector<long>{3}));
    EXPECT_EQ(Content(file), "abc");
}

TEST(MemFile, WriteEntitiesF_ends_at_a_NUL_that_the_format_makes) {
    CMemFile file(16U);
    file.WriteEntitiesF("a%cb", 0);
    EXPECT_EQ(Content(file), "a");
}

TEST(MemFile, WriteEntitiesF_writes_texts_of_any_length_whole) {
    for (size_t length : {16383U, 16384U, 20000U}) {
        SCOPED_TRACE(length);
        const std::string text(length - 2, 'x');
        CMemFile file(1024);
        file.WriteEntitiesF("%s%s", text.c_str(), "<'");
        EXPECT_EQ(Content(file), text + "&lt;&apos;");
    }
}

// -- Dump

TEST(MemFile, Dump_describes_the_file_and_appends_its_bytes) {
    TemporaryFile dump;
    CMemFile file(16U);
    file.Write("a\0b\n\xE4z", 6);
    file.Seek(2, 0);
    {
        CallLog log({Call::Fopen});
        file.Dump(dump.path.c_str());
        EXPECT_EQ(log.Texts(), (std::vector<std::string>{"fopen(" + dump.path + ", w)"}));
    }
    const char expected[] = "Open: 1\nGrowBytes: 16\nBuffer Size: 16\nFile Length: 6\nCur Pos: 2"
                            "Buffer:\n\n^^^a\0b\n\xE4z^^^";
    EXPECT_EQ(dump.Content(), std::string(expected, sizeof expected - 1));
}

TEST(MemFile, Dump_of_an_empty_detached_file) {
    TemporaryFile dump;
    CMemFile file(static_cast<unsigned int>(-1));
    file.Detach();
    file.Dump(dump.path.c_str());
    EXPECT_EQ(dump.Content(), "Open: 0\nGrowBytes: 4294967295\nBuffer Size: 0\nFile Length: 0\nCur Pos: 0"
                              "Buffer:\n\n^^^^^^");
}

TEST(MemFile, Dump_replaces_an_older_file) {
    TemporaryFile dump;
    CMemFile large(16U);
    large.WriteF("%1000d", 7);
    large.Dump(dump.path.c_str());
    CMemFile small(16U);
    small.Dump(dump.path.c_str());
    EXPECT_EQ(dump.Content(),
              "Open: 1\nGrowBytes: 16\nBuffer Size: 0\nFile Length: 0\nCur Pos: 0Buffer:\n\n^^^^^^");
}

TEST(MemFile, Dump_to_a_path_that_cannot_be_opened_says_nothing) {
    TemporaryFile dump;
    CMemFile file(16U);
    Write(file, "abc");
    Interpose fail(Call::Fopen);
    fail.OnThisThread().Fail(EACCES);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    file.Dump(dump.path.c_str());
    file.Dump((dump.path + "/none").c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(dump.Content(), "");
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 3 position 3");
}

// -- What callers expect beside the functions

TEST(MemFile, Length_position_and_buffer_are_the_fields) {
    CMemFile file(16U);
    EXPECT_EQ(file.GetLength(), 0U);
    EXPECT_EQ(file.GetPosition(), 0U);
    EXPECT_EQ(file.GetBufferPtr(), nullptr);
    Write(file, "abcdef");
    file.Seek(2, CMemFile::begin);
    const CMemFile& constant = file;
    EXPECT_EQ(constant.GetLength(), 6U);
    EXPECT_EQ(constant.GetPosition(), 2U);
    EXPECT_EQ(constant.GetBufferPtr(), file.m_pBuffer);
    EXPECT_EQ(memcmp(constant.GetBufferPtr(), "abcdef", 6), 0);
}

TEST(MemFile, Length_and_position_may_be_above_2_GiB) {
    CMemFile file(0U);
    file.m_uiFileLength = 0x80000001U;
    file.m_uiPosition = 0x80000000U;
    EXPECT_EQ(file.GetLength(), 0x80000001U);
    EXPECT_EQ(file.GetPosition(), 0x80000000U);
}

TEST(MemFile, SeekToBegin_and_SeekToEnd_move_the_position_alone) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.SeekToBegin();
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 6 position 0");
    EXPECT_EQ(file.SeekToEnd(), 6U);
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 6 position 6");
    file.Seek(10, CMemFile::begin);
    EXPECT_EQ(file.SeekToEnd(), 6U) << "back from beyond the end";
    EXPECT_EQ(State(file), "open 1 grow 16 size 16 length 6 position 6");
}

TEST(MemFile, SeekToBegin_and_SeekToEnd_of_an_empty_file_allocate_nothing) {
    CMemFile file(16U);
    AllocationCounter counter;
    file.SeekToBegin();
    EXPECT_EQ(file.SeekToEnd(), 0U);
    EXPECT_EQ(counter.Allocations(), 0);
    EXPECT_EQ(State(file), "open 1 grow 16 size 0 length 0 position 0 no buffer");
}

TEST(MemFile, SeekToBegin_lets_the_contents_be_read_again) {
    CMemFile file(16U);
    Write(file, "abcdef");
    file.SeekToBegin();
    EXPECT_EQ(Read(file, 100), "abcdef");
    file.SeekToBegin();
    EXPECT_EQ(Read(file, 3), "abc");
}

TEST(MemFile, Close_frees_the_buffer_and_keeps_the_rest_as_Detach_does) {
    CMemFile file(8U);
    file.Write("abc", 3);
    AllocationCounter counter;
    file.Close();
    const int frees = counter.Frees();
    EXPECT_EQ(frees, 1);
    EXPECT_EQ(State(file), "open 0 grow 8 size 0 length 3 position 3 no buffer");
    file.Close();
    EXPECT_EQ(State(file), "open 0 grow 8 size 0 length 3 position 3 no buffer");
}

TEST(MemFile, Grow_bytes_are_1024_if_none_are_given) {
    const CMemFile file;
    EXPECT_EQ(State(file), "open 1 grow 1024 size 0 length 0 position 0 no buffer");
}
