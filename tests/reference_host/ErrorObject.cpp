#include <host/ErrorObject.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

TEST(ErrorObject, Holds_the_texts_it_was_made_with) {
    char extra[] = "extra";
    const std::unique_ptr<CLogException> error(Exception("CClient::CClient", "Connection failed", extra));
    EXPECT_STREQ(error->Where(), "CClient::CClient");
    EXPECT_STREQ(error->What(), "Connection failed");
    EXPECT_STREQ(error->Extra(), "extra");
}

TEST(ErrorObject, No_text_is_an_empty_text) {
    const std::unique_ptr<CLogException> error(Exception(nullptr, nullptr, nullptr));
    EXPECT_STREQ(error->Where(), "");
    EXPECT_STREQ(error->What(), "");
    EXPECT_STREQ(error->Extra(), "");
}

TEST(ErrorObject, Keeps_copies_of_the_texts) {
    std::string what = "Connection failed";
    const std::unique_ptr<CLogException> error(Exception("", what.c_str(), nullptr));
    what.assign(what.size(), 'x');
    EXPECT_STREQ(error->What(), "Connection failed");
}

TEST(ErrorObject, Is_thrown_caught_and_deleted_as_a_pointer) {
    try {
        throw Exception("where", "what", nullptr);
    } catch (CLogException* error) {
        EXPECT_STREQ(error->What(), "what");
        delete error;
    }
}
