#include <brantle/thornel/split.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Tokens = std::vector<std::string>;

Tokens SplitList(char const* text) {
    TOList<String_t> list;
    ::Split(text, list, ",");
    Tokens tokens;
    TOListIterator<String_t> next(list);
    while (String_t const* const token = next()) tokens.push_back(token->Text());
    return tokens;
}

TEST(Split, AppendsTokensInOrder) {
    EXPECT_THAT(SplitList("aes128-ctr,3des-cbc,none"), ElementsAre("aes128-ctr", "3des-cbc", "none"));
    EXPECT_THAT(SplitList("one"), ElementsAre("one"));
    EXPECT_THAT(SplitList(",a,,b,"), ElementsAre("a", "b"));
    EXPECT_THAT(SplitList(""), IsEmpty());
    EXPECT_THAT(SplitList(nullptr), IsEmpty());
}

TEST(Split, KeepsExistingElements) {
    TOList<String_t> list;
    list.Append("old");
    ::Split("new", list, ",");
    ASSERT_EQ(list.Len(), 2u);
    EXPECT_STREQ(list[0]->Text(), "old");
    EXPECT_STREQ(list[1]->Text(), "new");
}

} // namespace
