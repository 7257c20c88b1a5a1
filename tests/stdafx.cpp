#include <Windows/stdafx.h>

#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include <host/Logger.h>

#include "support/interpose.h"
#include "support/recording_host.h"

namespace {

// The numbers are the host's contract: it was built with them.
static_assert(LogTypeGeneral == 11, "operation");
static_assert(LogTypeTraffic == 12, "data");
static_assert(LogTypeLife == 13, "construction and destruction");
static_assert(LogTypeMutex == 23, "lock and unlock");
static_assert(LogSeverityFailure == 1 && LogSeverityQueueFatal == 2 && LogSeverityRuntimeError == 3 &&
                  LogSeverityWarning == 4 && LogSeverityMisuse == 5 && LogSeverityNotice == 6 &&
                  LogSeverityInformation == 7 && LogSeverityMutexEntry == 8 && LogSeverityTrace == 9,
              "from grave to trifling");

testing::AssertionResult DoesNothing(const std::function<void()>& call) {
    Recorder::Clear();
    AllocationCounter counter;
    call();
    if (counter.Allocations() != 0 || counter.Balance() != 0)
        return testing::AssertionFailure() << "allocated or released memory";
    return SameEvents(Recorder::AllEvents(), {});
}

} // namespace

TEST(stdafx, CoInitialize_posts_one_event_and_returns_0) {
    Recorder::Clear();
    EXPECT_EQ(CoInitialize(nullptr), 0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{13, 7, "CoInitialize() called!"}}));
}

TEST(stdafx, CoInitialize_ignores_its_argument) {
    Recorder::Clear();
    EXPECT_EQ(CoInitialize(reinterpret_cast<void*>(1)), 0); // not dereferenced
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{13, 7, "CoInitialize() called!"}}));
}

TEST(stdafx, CoUninitialize_posts_one_event_spelled_as_hosts_know_it_and_returns_0) {
    Recorder::Clear();
    EXPECT_EQ(CoUninitialize(), 0);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{13, 7, "CoUinitialize() called!"}}));
}

TEST(stdafx, Both_events_are_plain_texts_without_detail) {
    Recorder::Clear();
    CoInitialize(nullptr);
    CoUninitialize();
    const std::vector<Event> events = Recorder::Events();
    ASSERT_EQ(events.size(), 2u);
    for (const Event& event : events) {
        EXPECT_EQ(event.entry, Event::Plain) << event;
        EXPECT_FALSE(event.hasDetail) << event;
    }
}

TEST(stdafx, Calls_need_not_be_balanced) {
    Recorder::Clear();
    CoUninitialize();
    CoInitialize(nullptr);
    CoInitialize(nullptr);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{13, 7, "CoUinitialize() called!"},
                                                   {13, 7, "CoInitialize() called!"},
                                                   {13, 7, "CoInitialize() called!"}}));
}

TEST(stdafx, PostBSTRLogEventF_ignores_everything) {
    EXPECT_TRUE(DoesNothing([] { PostBSTRLogEventF(1, "text %d %s", 7, "more"); }));
    EXPECT_TRUE(DoesNothing([] { PostBSTRLogEventF(-1, nullptr); }));
    EXPECT_TRUE(DoesNothing([] { PostBSTRLogEventF(9, "%s%s%s%n"); })); // nothing is formatted
}

TEST(stdafx, PostBSTRLogEventFB_ignores_everything) {
    char buffer[] = "body";
    EXPECT_TRUE(DoesNothing([&] { PostBSTRLogEventFB(1, "text %d", buffer, 7); }));
    EXPECT_STREQ(buffer, "body");
    EXPECT_TRUE(DoesNothing([] { PostBSTRLogEventFB(1, nullptr, nullptr); }));
    EXPECT_TRUE(DoesNothing([] { PostBSTRLogEventFB(9, "%s%n", nullptr); }));
}
