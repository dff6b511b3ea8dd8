#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/thornel/split.h>
#include <brantle/thornel/string_splitter.h>
#include <brantle/thornel/string_tok.h>

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

Tokens SplitList(char const* text) {
    TOList<String_t> list;
    ::Split(text, list, ",");
    Tokens tokens;
    TOListIterator<String_t> next(list);
    while (String_t const* const token = next()) tokens.push_back(token->Text());
    return tokens;
}

TEST(StringTok, GivesTokensAndTheDelimiterThatEndedEach) {
    StringTok next("host,1.2.3.4 ssh-rsa AAAA");
    EXPECT_STREQ(next(", "), "host");
    EXPECT_EQ(next.Delimiter(), ',');
    EXPECT_STREQ(next(" "), "1.2.3.4");
    EXPECT_EQ(next.Delimiter(), ' ');
    EXPECT_STREQ(next(" "), "ssh-rsa");
    EXPECT_STREQ(next(" "), "AAAA");
    EXPECT_EQ(next.Delimiter(), '\0');
    EXPECT_EQ(next(" "), nullptr);
    EXPECT_EQ(next.Delimiter(), '\0');
    EXPECT_EQ(next(" "), nullptr);
}

TEST(StringTok, RunOfDelimitersCountsAsOne) {
    StringTok next("  a   b,, c ");
    EXPECT_STREQ(next(" ,"), "a");
    EXPECT_STREQ(next(" ,"), "b");
    EXPECT_EQ(next.Delimiter(), ',');
    EXPECT_STREQ(next(" ,"), "c");
    EXPECT_EQ(next.Delimiter(), ' ');
    EXPECT_EQ(next(" ,"), nullptr);
    EXPECT_EQ(next.Delimiter(), '\0');
}

TEST(StringTok, TextWithoutTokensGivesNull) {
    EXPECT_EQ(StringTok("")(" "), nullptr);
    EXPECT_EQ(StringTok("   ")(" "), nullptr);
    EXPECT_EQ(StringTok(nullptr)(" "), nullptr);
}

TEST(StringTok, WithoutDelimitersTheRestIsOneToken) {
    StringTok next("a b c");
    EXPECT_STREQ(next(" "), "a");
    EXPECT_STREQ(next(""), "b c");
    EXPECT_EQ(next(nullptr), nullptr);
}

TEST(StringTok, TokensStayValidAndTheTextStays) {
    char text[] = "one two";
    StringTok next(text);
    char const* const first = next(" ");
    char const* const second = next(" ");
    text[0] = 'X';
    EXPECT_STREQ(first, "one");
    EXPECT_STREQ(second, "two");
    EXPECT_STREQ(text, "Xne two");
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

TEST(StringSplitter, StopsAtTheEndGiven) {
    char const* const text = "a:bc:d";
    EXPECT_THAT(Split(text, ":", text + 3), ElementsAre("a", "b"));
    EXPECT_THAT(Split(text, ":", text), IsEmpty());
}

TEST(StringSplitter, TokensStayValidTextsAfterNext) {
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

TEST(Split, AppendsTokensInOrder) {
    EXPECT_THAT(SplitList("aes128-ctr,3des-cbc,none"), ElementsAre("aes128-ctr", "3des-cbc", "none"));
    EXPECT_THAT(SplitList("one"), ElementsAre("one"));
    EXPECT_THAT(SplitList(",a,,b,"), ElementsAre("a", "b"));
    EXPECT_THAT(SplitList(""), IsEmpty());
    EXPECT_THAT(SplitList(nullptr), IsEmpty());
}

TEST(Split, KeepsWhatIsInTheListAlready) {
    TOList<String_t> list;
    list.Append("old");
    ::Split("new", list, ",");
    ASSERT_EQ(list.Len(), 2u);
    EXPECT_STREQ(list[0]->Text(), "old");
    EXPECT_STREQ(list[1]->Text(), "new");
}

} // namespace
