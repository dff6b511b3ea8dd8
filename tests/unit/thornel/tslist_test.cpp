#include <generic/tslist>

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int> Values(TSList<int> const& list) {
    std::vector<int> values;
    TSListIterator<int> next(list);
    while (int const* const value = next()) values.push_back(*value);
    return values;
}

int Is(int* element, void const* value) { return *element == *static_cast<int const*>(value); }

TEST(TSList, InsertsAtTheFrontAndAppendsAtTheEnd) {
    int one = 1, two = 2, three = 3;
    TSList<int> list;
    EXPECT_THAT(Values(list), IsEmpty());
    list.Append(&two);
    list.Insert(&one);
    list.Append(&three);
    EXPECT_THAT(Values(list), ElementsAre(1, 2, 3));
    EXPECT_EQ(list.Len(), 3u);
}

TEST(TSList, RemoveRemovesTheFirstMatch) {
    int one = 1, two = 2, again = 2;
    TSList<int> list;
    list.Append(&one);
    list.Append(&two);
    list.Append(&again);
    int const wanted = 2;
    EXPECT_EQ(list.Remove(Is, &wanted), &two);
    EXPECT_EQ(list.Remove(Is, &wanted), &again);
    EXPECT_EQ(list.Remove(Is, &wanted), nullptr);
    EXPECT_THAT(Values(list), ElementsAre(1));
}

TEST(TSList, NullElementEndsIterationAndMatchesNothing) {
    int one = 1, two = 2;
    TSList<int> list;
    list.Append(&one);
    list.Append(nullptr);
    list.Append(&two);
    EXPECT_THAT(Values(list), ElementsAre(1));
    int const wanted = 2;
    EXPECT_EQ(list.Remove(Is, &wanted), &two);
    EXPECT_EQ(list.Len(), 2u);
}

TEST(TSList, ClearRemovesTheElements) {
    int one = 1;
    TSList<int> list;
    list.Append(&one);
    list.Clear();
    EXPECT_EQ(list.Len(), 0u);
    EXPECT_THAT(Values(list), IsEmpty());
    list.Insert(&one);
    EXPECT_THAT(Values(list), ElementsAre(1));
}

} // namespace
