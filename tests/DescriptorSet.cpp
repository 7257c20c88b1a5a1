// The library keeps this class to itself: it is compiled into the test program once more.
#include <Windows/internal/DescriptorSet.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/emulator.h"
#include "support/interpose.h"

namespace {

using windows::DescriptorSet;

const int WORD = 8 * sizeof(unsigned long);

// Where a set begins to need memory of its own.
const int INLINE_COUNT = FD_SETSIZE;

class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe(m_ends), 0); }

    ~Pipe() {
        close(m_ends[0]);
        close(m_ends[1]);
    }

    int Reader() const { return m_ends[0]; }

    void Fill() { EXPECT_EQ(write(m_ends[1], "x", 1), 1); }

private:
    int m_ends[2];
};

int SelectNow(DescriptorSet& set, int count) {
    timeval now = {0, 0};
    return set.Select(count, &now);
}

} // namespace

TEST(DescriptorSet, Is_empty_at_first) {
    const DescriptorSet set;
    for (int descriptor : {0, 1, WORD, INLINE_COUNT - 1, INLINE_COUNT, 100000})
        EXPECT_FALSE(set.Contains(descriptor)) << descriptor;
}

TEST(DescriptorSet, Contains_what_was_added_and_nothing_beside_it) {
    for (int descriptor : {0, 1, WORD - 1, WORD, WORD + 1, INLINE_COUNT - 1, INLINE_COUNT, INLINE_COUNT + 1,
                           INLINE_COUNT + WORD - 1, INLINE_COUNT + WORD, 3 * INLINE_COUNT, 99999}) {
        DescriptorSet set;
        set.Add(descriptor);
        for (int other = 0; other < descriptor + 3 * WORD; other++)
            ASSERT_EQ(set.Contains(other), other == descriptor) << descriptor << ' ' << other;
    }
}

TEST(DescriptorSet, Remove_takes_out_one_descriptor) {
    DescriptorSet set;
    for (int descriptor : {3, 4, 5, WORD + 4, INLINE_COUNT + 4})
        set.Add(descriptor);
    set.Remove(4);
    set.Remove(INLINE_COUNT + 4);
    for (int descriptor = 0; descriptor < INLINE_COUNT + WORD; descriptor++)
        ASSERT_EQ(set.Contains(descriptor), descriptor == 3 || descriptor == 5 || descriptor == WORD + 4)
            << descriptor;
}

TEST(DescriptorSet, Removing_what_it_does_not_contain_changes_nothing) {
    DescriptorSet set;
    set.Add(5);
    set.Remove(4);
    set.Remove(-1);
    set.Remove(INLINE_COUNT * 10);
    EXPECT_TRUE(set.Contains(5));
    EXPECT_FALSE(set.Contains(4));
}

TEST(DescriptorSet, Negative_descriptor_is_none) {
    DescriptorSet set;
    set.Add(-1);
    set.Add(-64);
    EXPECT_FALSE(set.Contains(-1));
    EXPECT_FALSE(set.Contains(-64));
    for (int descriptor = 0; descriptor < 2 * INLINE_COUNT; descriptor++)
        ASSERT_FALSE(set.Contains(descriptor)) << descriptor;
    EXPECT_EQ(SelectNow(set, 0), 0) << "nothing is missing in it";
}

TEST(DescriptorSet, Keeps_its_descriptors_however_often_it_grows) {
    DescriptorSet set;
    for (int descriptor = 7; descriptor < 20 * INLINE_COUNT; descriptor += 1000)
        set.Add(descriptor);
    for (int descriptor = 0; descriptor < 21 * INLINE_COUNT; descriptor++)
        ASSERT_EQ(set.Contains(descriptor), descriptor % 1000 == 7 && descriptor < 20 * INLINE_COUNT)
            << descriptor;
}

TEST(DescriptorSet, Grows_to_twice_its_size_at_least_and_needs_no_memory_below_1024) {
    DescriptorSet set;
    const AllocationCounter counter;
    set.Add(INLINE_COUNT - 1);
    const int atFirst = counter.Allocations();
    set.Add(INLINE_COUNT);
    const int grown = counter.Allocations();
    set.Add(2 * INLINE_COUNT - 1);
    const int still = counter.Allocations();
    set.Add(2 * INLINE_COUNT);
    const int again = counter.Allocations();
    EXPECT_EQ(atFirst, 0);
    EXPECT_EQ(grown, 1);
    EXPECT_EQ(still, 1);
    EXPECT_EQ(again, 2);
}

TEST(DescriptorSet, Copy_is_the_source_whichever_is_larger) {
    DescriptorSet small;
    small.Add(3);
    DescriptorSet large;
    large.Add(4);
    large.Add(5 * INLINE_COUNT);

    DescriptorSet copy;
    copy = large;
    EXPECT_TRUE(copy.Contains(4));
    EXPECT_TRUE(copy.Contains(5 * INLINE_COUNT));
    copy = small;
    EXPECT_TRUE(copy.Contains(3));
    EXPECT_FALSE(copy.Contains(4));
    EXPECT_FALSE(copy.Contains(5 * INLINE_COUNT));
    EXPECT_TRUE(large.Contains(5 * INLINE_COUNT));
}

TEST(DescriptorSet, Copy_to_itself_changes_nothing) {
    DescriptorSet set;
    set.Add(4);
    set.Add(5 * INLINE_COUNT);
    DescriptorSet& itself = set;
    set = itself;
    EXPECT_TRUE(set.Contains(4));
    EXPECT_TRUE(set.Contains(5 * INLINE_COUNT));
}

TEST(DescriptorSet, Select_keeps_the_descriptors_that_can_be_read) {
    Pipe empty;
    Pipe full;
    full.Fill();
    DescriptorSet set;
    set.Add(empty.Reader());
    set.Add(full.Reader());
    EXPECT_EQ(SelectNow(set, full.Reader() + 1), 1);
    EXPECT_FALSE(set.Contains(empty.Reader()));
    EXPECT_TRUE(set.Contains(full.Reader()));
}

TEST(DescriptorSet, Select_does_not_wait_for_descriptors_from_count_on) {
    Pipe full;
    full.Fill();
    DescriptorSet set;
    set.Add(full.Reader());
    set.Add(full.Reader() + WORD);
    EXPECT_EQ(SelectNow(set, full.Reader()), 0);
    EXPECT_TRUE(set.Contains(full.Reader() + WORD)) << "words above count are not the kernel's";
}

TEST(DescriptorSet, Select_gives_the_kernel_all_the_words_that_it_reads_and_writes) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (UnderEmulator() || limit.rlim_cur <= 5000)
        GTEST_SKIP() << "no select() with descriptors above 1023 in this environment";
    Pipe pipe;
    pipe.Fill();
    const int high = fcntl(pipe.Reader(), F_DUPFD, 4500);
    ASSERT_GE(high, 4500);
    DescriptorSet set;
    set.Add(pipe.Reader());
    EXPECT_EQ(SelectNow(set, high + 1), 1) << "the set grows to the count";
    set.Add(high);
    EXPECT_EQ(SelectNow(set, high + 1), 2);
    EXPECT_TRUE(set.Contains(high));
    close(high);
}

TEST(DescriptorSet, Without_memory_to_add_a_descriptor_select_fails_with_ENOMEM) {
    DescriptorSet set;
    set.Add(3);
    {
        const FailAllocation fail(1);
        set.Add(INLINE_COUNT);
        EXPECT_TRUE(fail.Happened());
    }
    EXPECT_FALSE(set.Contains(INLINE_COUNT));
    EXPECT_TRUE(set.Contains(3));
    errno = 0;
    EXPECT_EQ(SelectNow(set, 0), -1);
    EXPECT_EQ(errno, ENOMEM);

    DescriptorSet copy;
    copy = set;
    errno = 0;
    EXPECT_EQ(SelectNow(copy, 0), -1) << "a copy lacks it as well";
    EXPECT_EQ(errno, ENOMEM);
    copy = DescriptorSet();
    EXPECT_EQ(SelectNow(copy, 0), 0) << "a whole set again";
}

TEST(DescriptorSet, Without_memory_to_copy_a_set_select_fails_with_ENOMEM) {
    DescriptorSet large;
    large.Add(3);
    large.Add(INLINE_COUNT);
    DescriptorSet copy;
    {
        const FailAllocation fail(1);
        copy = large;
        EXPECT_TRUE(fail.Happened());
    }
    EXPECT_TRUE(copy.Contains(3));
    errno = 0;
    EXPECT_EQ(SelectNow(copy, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    copy = large;
    EXPECT_TRUE(copy.Contains(INLINE_COUNT));
}

TEST(DescriptorSet, Without_memory_for_the_count_select_fails_with_ENOMEM) {
    DescriptorSet set;
    int result = 0;
    int error = 0;
    {
        const FailAllocation fail(1);
        errno = 0;
        result = SelectNow(set, INLINE_COUNT + 1);
        error = errno;
        EXPECT_TRUE(fail.Happened());
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOMEM);
}
