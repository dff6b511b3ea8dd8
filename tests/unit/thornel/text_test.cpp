#include <brantle/thornel/text.h>

#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(StrText, NullPointerIsAnEmptyText) {
    char const text[] = "text";
    EXPECT_EQ(str_text(text), text);
    EXPECT_STREQ(str_text(nullptr), "");
}

TEST(StrEmpty, NullPointerIsAnEmptyText) {
    EXPECT_TRUE(str_empty(nullptr));
    EXPECT_TRUE(str_empty(""));
    EXPECT_FALSE(str_empty(" "));
}

TEST(StrLen, NullPointerIsZero) {
    EXPECT_EQ(str_len(nullptr), 0u);
    EXPECT_EQ(str_len(""), 0u);
    EXPECT_EQ(str_len("abc"), 3u);
}

TEST(StrCmp, OrdersThreeWays) {
    EXPECT_LT(str_cmp("a", "b"), 0);
    EXPECT_GT(str_cmp("b", "a"), 0);
    EXPECT_EQ(str_cmp("a", "a"), 0);
    EXPECT_LT(str_cmp("a", "ab"), 0);
    EXPECT_LT(str_cmp("z", "\xe4"), 0);
}

TEST(StrCmp, NullPointerIsAnEmptyText) {
    EXPECT_EQ(str_cmp(nullptr, ""), 0);
    EXPECT_EQ(str_cmp(nullptr, nullptr), 0);
    EXPECT_LT(str_cmp(nullptr, "a"), 0);
    EXPECT_GT(str_cmp("a", nullptr), 0);
}

struct Number {
    char const* _text;
    unsigned int _used;
    int _value;
};

class StrToInt : public testing::TestWithParam<Number> {};

TEST_P(StrToInt, ReturnsValueAndCharactersUsed) {
    int value = 4711;
    EXPECT_EQ(str_toint(GetParam()._text, &value), GetParam()._used);
    EXPECT_EQ(value, GetParam()._value);
}

INSTANTIATE_TEST_SUITE_P(Texts, StrToInt,
                         testing::Values(Number{"22", 2, 22}, Number{"8080x", 4, 8080}, Number{"-5", 2, -5},
                                         Number{"+7", 2, 7}, Number{"007", 3, 7}, Number{"1 2", 1, 1},
                                         Number{"2147483647", 10, INT_MAX},
                                         Number{"-2147483648", 11, INT_MIN}));

INSTANTIATE_TEST_SUITE_P(NoNumbers, StrToInt,
                         testing::Values(Number{nullptr, 0, 4711}, Number{"", 0, 4711}, Number{"x1", 0, 4711},
                                         Number{" 1", 0, 4711}, Number{"+", 0, 4711}, Number{"-", 0, 4711},
                                         Number{"+-1", 0, 4711}, Number{"2147483648", 0, 4711},
                                         Number{"-2147483649", 0, 4711}));

TEST(StrInt2Str10, TwelveBytesHoldEveryInt) {
    char buffer[12];
    EXPECT_EQ(str_int2str10(buffer, sizeof buffer, 0, 0, 0), buffer);
    EXPECT_STREQ(buffer, "0");
    EXPECT_STREQ(str_int2str10(buffer, sizeof buffer, INT_MAX, 0, 0), "2147483647");
    EXPECT_STREQ(str_int2str10(buffer, sizeof buffer, INT_MIN, 0, 0), "-2147483648");
}

TEST(StrInt2Str10, TextThatDoesNotFitIsEmpty) {
    char buffer[] = "????";
    EXPECT_STREQ(str_int2str10(buffer, 4, 999, 0, 0), "999");
    EXPECT_STREQ(str_int2str10(buffer, 4, 1000, 0, 0), "");
    EXPECT_STREQ(str_int2str10(buffer, 4, 1, 4, 0), "");
    buffer[0] = '?';
    str_int2str10(buffer, 0, 1, 0, 0);
    EXPECT_EQ(buffer[0], '?');
}

TEST(StrInt2Str10, ShortNumberIsPaddedOnTheLeft) {
    char buffer[12];
    EXPECT_STREQ(str_int2str10(buffer, sizeof buffer, 42, 5, 0), "   42");
    EXPECT_STREQ(str_int2str10(buffer, sizeof buffer, 42, 5, '0'), "00042");
    EXPECT_STREQ(str_int2str10(buffer, sizeof buffer, 42, 1, '0'), "42");
}

TEST(GetUserName, IsTheNameInThePasswordDatabase) {
    passwd const* const entry = getpwuid(getuid());
    EXPECT_STREQ(getusername(), entry ? entry->pw_name : "");
}

} // namespace
