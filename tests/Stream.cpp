#include <Windows/Stream.h>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/recording_host.h"

TEST(Stream, Release_does_nothing) {
    STREAM stream;
    Recorder::Clear();
    AllocationCounter counter;
    stream.Release();
    stream.Release();
    const int allocations = counter.Allocations();
    const int balance = counter.Balance();
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(balance, 0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}
