#include <brantle/thornel/string_tok.h>

#include <gtest/gtest.h>

namespace {

TEST(StringTok, ReturnsTokensAndTheirDelimiters) {
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

TEST(StringTok, TextWithoutTokensReturnsNull) {
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

TEST(StringTok, TokensStayValidAndTheTextIsUnchanged) {
    char text[] = "one two";
    StringTok next(text);
    char const* const first = next(" ");
    char const* const second = next(" ");
    text[0] = 'X';
    EXPECT_STREQ(first, "one");
    EXPECT_STREQ(second, "two");
    EXPECT_STREQ(text, "Xne two");
}

} // namespace
