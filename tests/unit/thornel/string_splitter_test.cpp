#include <brantle/thornel/string_splitter.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Tokens = std::vector<std::string>;

Tokens Split(char const* text, char const* delimiters, char const* end = nullptr) {
    Tokens tokens;
    for (StringSplitter s(text, delimiters, end); s.Current() && s.Current() < s.End(); s.Next())
        tokens.push_back(s.Current());
    return tokens;
}

TEST(StringSplitter, LeadingDelimiterYieldsAnEmptyFirstToken) {
    EXPECT_THAT(Split(":0", ":."), ElementsAre("", "0"));
    EXPECT_THAT(Split("host:10.1", ":."), ElementsAre("host", "10", "1"));
    EXPECT_THAT(Split("a::b", ":"), ElementsAre("a", "", "b"));
}

TEST(StringSplitter, NothingAfterTheLastDelimiterIsNoToken) {
    EXPECT_THAT(Split("a:", ":"), ElementsAre("a"));
    EXPECT_THAT(Split(":", ":"), ElementsAre(""));
    EXPECT_THAT(Split("", ":"), IsEmpty());
    EXPECT_THAT(Split(nullptr, ":"), IsEmpty());
}

TEST(StringSplitter, WithoutDelimitersTheTextIsOneToken) {
    EXPECT_THAT(Split("a:b", ""), ElementsAre("a:b"));
    EXPECT_THAT(Split("a:b", nullptr), ElementsAre("a:b"));
}

TEST(StringSplitter, StopsAtTheGivenEnd) {
    char const* const text = "a:bc:d";
    EXPECT_THAT(Split(text, ":", text + 3), ElementsAre("a", "b"));
    EXPECT_THAT(Split(text, ":", text), IsEmpty());
}

TEST(StringSplitter, TokensStayValidAfterNext) {
    StringSplitter splitter("host:0", ":", nullptr);
    char const* const host = splitter.Current();
    splitter.Next();
    char const* const number = splitter.Current();
    splitter.Next();
    EXPECT_STREQ(host, "host");
    EXPECT_STREQ(number, "0");
    EXPECT_EQ(splitter.Current(), splitter.End());
    splitter.Next();
    EXPECT_EQ(splitter.Current(), splitter.End());
}

} // namespace
