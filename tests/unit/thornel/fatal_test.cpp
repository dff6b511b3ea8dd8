#include <brantle/thornel/fatal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;

TEST(Fatal, NamesExpressionFileLineAndFunction) {
    EXPECT_DEATH(FatalAssertion("a < b", "some/file", 42, "int F(int)"),
                 HasSubstr("some/file:42: int F(int): Assertion `a < b' failed."));
}

TEST(Fatal, AssertionNamesItsFile) {
    int const value = 1;
    FATAL_ASSERT(value == 1);
    EXPECT_DEATH(FATAL_ASSERT(value == 2), HasSubstr("Assertion `value == 2' failed."));
    EXPECT_DEATH(FATAL_ASSERT(value == 2), HasSubstr("fatal_test.cpp:"));
}

} // namespace
