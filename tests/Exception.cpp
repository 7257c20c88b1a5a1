#include <Windows/Exception.h>

#include <type_traits>

#include <gtest/gtest.h>

#include "support/interpose.h"
#include "support/recording_host.h"

namespace {

static_assert(!std::is_polymorphic<ExceptionBase>::value, "not even the destructor is virtual");
static_assert(sizeof(ExceptionBase) == sizeof(char*), "the pointer is all there is");
static_assert(std::is_same<ExceptionBase, class Exception>::value, "another name for the same class");

char g_text[] = "the text of an exception";

class ExceptionTest {
public:
    ExceptionTest() {
        Recorder::OwnText(g_text);
        Recorder::Clear();
    }
};

} // namespace

TEST(Exception, Construction_posts_the_description_once) {
    ExceptionTest test;
    ExceptionBase exception(g_text);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, g_text}}));
}

TEST(Exception, Description_is_posted_as_a_plain_text_without_detail) {
    ExceptionTest test;
    ExceptionBase exception(g_text);
    ASSERT_EQ(Recorder::Events().size(), 1u);
    const Event event = Recorder::Events()[0];
    EXPECT_EQ(event.entry, Event::Plain);
    EXPECT_FALSE(event.hasDetail);
}

TEST(Exception, Percent_signs_in_the_description_are_not_conversions) {
    char text[] = "100% of %s and %n";
    Recorder::OwnText(text);
    Recorder::Clear();
    ExceptionBase exception(text);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, "100% of %s and %n"}}));
}

TEST(Exception, Description_returns_the_pointer_that_was_given) {
    ExceptionTest test;
    ExceptionBase exception(g_text);
    EXPECT_EQ(exception.Description(), g_text);
}

TEST(Exception, Text_is_neither_copied_nor_freed) {
    ExceptionTest test;
    Recorder::Pause();
    AllocationCounter counter;
    { ExceptionBase exception(g_text); }
    const int allocations = counter.Allocations();
    const int frees = counter.Frees() + counter.Deletes() + counter.ArrayDeletes();
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(frees, 0);
    EXPECT_STREQ(g_text, "the text of an exception");
}

TEST(Exception, Destruction_posts_nothing) {
    ExceptionTest test;
    {
        ExceptionBase exception(g_text);
        Recorder::Clear();
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(Exception, Copies_share_the_text_and_post_nothing) {
    ExceptionTest test;
    ExceptionBase exception(g_text);
    Recorder::Clear();
    ExceptionBase copy(exception);
    char other[] = "another text";
    Recorder::OwnText(other);
    ExceptionBase assigned(other);
    Recorder::Clear();
    assigned = exception;
    EXPECT_EQ(copy.Description(), g_text);
    EXPECT_EQ(assigned.Description(), g_text);
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}

TEST(Exception, Throwing_and_catching_posts_once) {
    ExceptionTest test;
    try {
        throw ExceptionBase(g_text);
    } catch (class Exception& caught) {
        EXPECT_EQ(caught.Description(), g_text);
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, g_text}}));
}
