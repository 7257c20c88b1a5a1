#include <Windows/MemoryException.h>

#include <memory>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/peer.h"
#include "support/recording_host.h"

namespace {

static_assert(std::is_empty<CMemoryException>::value, "no member, no base, nothing virtual");
static_assert(!std::is_polymorphic<CMemoryException>::value, "nothing virtual");

// What ThrowMemoryException() throws, if it is such a pointer.
CMemoryException* Thrown() {
    try {
        ThrowMemoryException();
    } catch (CMemoryException* caught) {
        return caught;
    } catch (...) {
    }
    return nullptr;
}

} // namespace

TEST(MemoryException, A_pointer_to_the_one_global_object_is_thrown) {
    EXPECT_EQ(Thrown(), &g_oMemoryException);
}

TEST(MemoryException, It_is_the_same_object_each_time) {
    CMemoryException* first = Thrown();
    EXPECT_EQ(Thrown(), first);
}

TEST(MemoryException, Throwing_makes_no_object_and_posts_nothing) {
    Recorder::Clear();
    AllocationCounter counter;
    Thrown();
    const int news = counter.News() + counter.ArrayNews();
    EXPECT_EQ(news, 0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(MemoryException, Many_threads_may_throw_it_at_once) {
    const int threads = 4;
    const int rounds = 200;
    int right[threads] = {};
    Gate start;
    {
        std::vector<std::unique_ptr<Background>> throwers;
        for (int& count : right)
            throwers.emplace_back(new Background([&start, &count] {
                start.Wait();
                for (int i = 0; i < rounds; i++)
                    if (Thrown() == &g_oMemoryException)
                        count++;
            }));
        start.Open();
    }
    for (int count : right)
        EXPECT_EQ(count, rounds);
}
