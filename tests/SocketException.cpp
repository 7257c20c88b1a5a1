#include <Windows/SocketException.h>

#include <type_traits>

#include <gtest/gtest.h>

#include "support/recording_host.h"

namespace {

static_assert(std::is_base_of<ExceptionBase, SocketException>::value, "caught as an Exception too");
static_assert(std::is_convertible<SocketException*, ExceptionBase*>::value, "the base is public");
static_assert(sizeof(SocketException) == sizeof(ExceptionBase), "nothing is added");
static_assert(!std::is_polymorphic<SocketException>::value, "nothing virtual either");

class SocketExceptionTest {
public:
    SocketExceptionTest() {
        Recorder::OwnText("x");
        Recorder::Clear();
    }
};

} // namespace

TEST(SocketException, Construction_posts_the_description_once_although_nothing_is_thrown) {
    SocketExceptionTest test;
    SocketException exception("x");
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, "x"}}));
}

TEST(SocketException, Description_is_posted_as_a_plain_text_without_detail) {
    SocketExceptionTest test;
    SocketException exception("x");
    ASSERT_EQ(Recorder::Events().size(), 1u);
    const Event event = Recorder::Events()[0];
    EXPECT_EQ(event.entry, Event::Plain);
    EXPECT_FALSE(event.hasDetail);
}

TEST(SocketException, Description_returns_the_pointer_that_was_given) {
    SocketExceptionTest test;
    static const char text[] = "x";
    SocketException exception(text);
    EXPECT_EQ(exception.Description(), text);
}

TEST(SocketException, Thrown_by_value_it_is_posted_once) {
    SocketExceptionTest test;
    try {
        throw SocketException("x");
    } catch (SocketException& caught) {
        EXPECT_STREQ(caught.Description(), "x");
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {{11, 1, "x"}}));
}

TEST(SocketException, Is_caught_as_its_base_class) {
    SocketExceptionTest test;
    try {
        throw SocketException("x");
    } catch (ExceptionBase& caught) {
        EXPECT_STREQ(caught.Description(), "x");
    }
}

TEST(SocketException, Catching_a_copy_posts_nothing_more) {
    SocketExceptionTest test;
    try {
        throw SocketException("x");
    } catch (SocketException caught) { // NOLINT: by value on purpose
        EXPECT_STREQ(caught.Description(), "x");
    }
    EXPECT_EQ(Recorder::AllEvents().size(), 1u);
}

TEST(SocketException, Destruction_posts_nothing) {
    SocketExceptionTest test;
    {
        SocketException exception("x");
        Recorder::Clear();
    }
    EXPECT_TRUE(SameEvents(Recorder::AllEvents(), {}));
}
