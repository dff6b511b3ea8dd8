#include <generic/gcmp>

#include <gtest/gtest.h>

namespace {

TEST(GCmp, ComparesByLessAndGreater) {
    EXPECT_EQ(GCmp<int>::Cmp(1, 2), -1);
    EXPECT_EQ(GCmp<int>::Cmp(2, 2), 0);
    EXPECT_EQ(GCmp<int>::Cmp(3, 2), 1);
    EXPECT_EQ(GCmp<unsigned int>::Cmp(4294967295u, 0u), 1);
}

TEST(GStringCmp, OrdersByText) {
    EXPECT_LT(GStringCmp::Cmp("a", "b"), 0);
    EXPECT_EQ(GStringCmp::Cmp("a", "a"), 0);
    EXPECT_GT(GStringCmp::Cmp("b", "a"), 0);
    EXPECT_EQ(GStringCmp::Cmp(String_t(), ""), 0);
}

} // namespace
