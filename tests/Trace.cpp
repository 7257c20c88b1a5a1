#include <Windows/Trace.h>

#include <stdio.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/recording_host.h"

namespace {

// What reaches standard output meanwhile.
template <class Function> std::string Output(Function function) {
    testing::internal::CaptureStdout();
    function();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(Trace, Text_is_printed_as_it_stands) {
    EXPECT_EQ(Output([] { TRACE("plain text"); }), "plain text");
}

TEST(Trace, Arguments_are_formatted_and_no_newline_is_added) {
    EXPECT_EQ(Output([] { TRACE("%d", 7); }), "7");
    EXPECT_EQ(Output([] { TRACE("%s=%u,%lx|%5.2f|%c", "name", 42u, 0xABCDEFUL, 2.5, 'z'); }),
              "name=42,abcdef| 2.50|z");
}

TEST(Trace, Newlines_of_the_format_are_kept) {
    EXPECT_EQ(Output([] { TRACE("one\ntwo %d\n", 3); }), "one\ntwo 3\n");
}

TEST(Trace, Calls_append_to_each_other) {
    EXPECT_EQ(Output([] {
                  TRACE("a");
                  TRACE("b%d", 1);
                  TRACE("c");
              }),
              "ab1c");
}

TEST(Trace, An_empty_text_prints_nothing) {
    EXPECT_EQ(Output([] { TRACE("%s", ""); }), "");
}

TEST(Trace, One_percent_sign_takes_four_in_the_format) {
    EXPECT_EQ(Output([] { TRACE("50%%%%"); }), "50%");
    EXPECT_EQ(Output([] { TRACE("%d%%%% of %d", 50, 8); }), "50% of 8");
}

TEST(Trace, Text_arguments_are_read_as_a_format_too) {
    EXPECT_EQ(Output([] { TRACE("%s", "50%% done"); }), "50% done");
}

TEST(Trace, Output_is_cut_at_16383_characters) {
    const struct {
        size_t length, printed;
    } cases[] = {{16382, 16382}, {16383, 16383}, {16384, 16383}, {40000, 16383}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        std::string text(c.length, 'x');
        text[0] = 'a';
        const std::string output = Output([&] { TRACE("%s", text.c_str()); });
        EXPECT_EQ(output.size(), c.printed);
        EXPECT_EQ(output, text.substr(0, c.printed));
    }
}

TEST(Trace, The_cut_counts_what_the_first_pass_made) {
    const std::string text = std::string(16381, 'x') + "%%" + "tail";
    EXPECT_EQ(Output([&] { TRACE("%s", text.c_str()); }), std::string(16381, 'x') + "%");
}

TEST(Trace, The_first_pass_is_one_vsnprintf_into_16384_bytes) {
    std::vector<std::string> calls;
    Output([&] {
        CallLog log({Call::Vsnprintf});
        TRACE("%d", 7);
        calls = log.Texts();
    });
    EXPECT_EQ(calls, (std::vector<std::string>{"vsnprintf(16384)"}));
}

TEST(Trace, Nothing_is_posted_to_the_logger) {
    Recorder::Clear();
    Output([] { TRACE("%d", 7); });
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(Trace, The_buffer_is_not_from_the_heap) {
    int allocations = -1;
    Output([&] {
        TRACE("first, for standard output's own buffer");
        AllocationCounter counter;
        TRACE("%d", 7);
        allocations = counter.Allocations();
    });
    EXPECT_EQ(allocations, 0);
}
