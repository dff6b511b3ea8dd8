#include <brantle/thornel/except.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/thornel/fatal.h>

namespace {

using testing::HasSubstr;

class Derived : public Except {
public:
    using Except::Except;
};

TEST(Except, TellsItsMessage) {
    try {
        throw Derived(String_t("what happened"));
    } catch (Except& e) {
        EXPECT_STREQ(e.what(), "what happened");
    }
}

TEST(Except, IsAStandardException) { EXPECT_THROW(throw Except(String_t("x")), std::exception); }

TEST(Except, WithoutMessageTellsAnEmptyText) {
    EXPECT_STREQ(Except().what(), "");
    EXPECT_STREQ(Except(String_t()).what(), "");
}

TEST(Fatal, NamesExpressionFileLineAndFunction) {
    EXPECT_DEATH(FatalAssertion("a < b", "some/file", 42, "int F(int)"),
                 HasSubstr("some/file:42: int F(int): Assertion `a < b' failed."));
}

TEST(Fatal, AssertionNamesItsOwnPlace) {
    int const value = 1;
    FATAL_ASSERT(value == 1);
    EXPECT_DEATH(FATAL_ASSERT(value == 2), HasSubstr("Assertion `value == 2' failed."));
    EXPECT_DEATH(FATAL_ASSERT(value == 2), HasSubstr("except_test.cpp:"));
}

} // namespace
