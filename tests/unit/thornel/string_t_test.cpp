#include <brantle/thornel/string_t.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

TEST(String, DefaultHasARepWithNullText) {
    String_t const text;
    ASSERT_NE(text._rep, nullptr);
    EXPECT_EQ(text._rep->_text, nullptr);
    EXPECT_EQ(text._rep->_count, 1);
    EXPECT_EQ(text.Text(), nullptr);
    EXPECT_EQ(str_len(text.Text()), 0u);
}

TEST(String, RepHoldsTextThenCount) {
    EXPECT_EQ(offsetof(String_t::Srep, _text), 0u);
    EXPECT_EQ(offsetof(String_t::Srep, _count), sizeof(char*));
    EXPECT_EQ(offsetof(String_t, _rep), 0u);
}

TEST(String, NullTextIsAnEmptyString) {
    char const* const none = nullptr;
    String_t const text(none);
    EXPECT_EQ(str_len(text.Text()), 0u);
    EXPECT_TRUE(text == "");
}

TEST(String, CopiesTheTextGiven) {
    char source[] = "name";
    String_t const text(source);
    source[0] = 'X';
    EXPECT_STREQ(text.Text(), "name");
}

TEST(String, CopiesExactlyTheBytesGivenAndTerminatesThem) {
    String_t const text("ab\0cdef", 5);
    EXPECT_EQ(std::memcmp(text.Text(), "ab\0cd", 6), 0);
    EXPECT_STREQ(String_t("abcdef", 3).Text(), "abc");
    EXPECT_STREQ(String_t("abcdef", 0).Text(), "");
}

TEST(String, SizedZeroHasAWritableByteForTheTerminator) {
    String_t text(0u);
    ASSERT_NE(text.Text(), nullptr);
    text.Buffer()[0] = '\0';
    EXPECT_TRUE(text == "");
}

TEST(String, SizedValueIsFilledThroughItsBuffer) {
    String_t text(4u);
    std::memcpy(text.Buffer(), "four", 5);
    EXPECT_STREQ(text.Text(), "four");
    EXPECT_EQ(text._rep->_count, 1);
}

TEST(String, DoesNotConvertFromANumber) {
    EXPECT_FALSE((std::is_convertible_v<unsigned int, String_t>));
    EXPECT_TRUE((std::is_convertible_v<char const*, String_t>));
}

TEST(String, CopySharesTheRep) {
    String_t const text("shared");
    {
        String_t const copy(text);
        EXPECT_EQ(copy._rep, text._rep);
        EXPECT_EQ(text._rep->_count, 2);
    }
    EXPECT_EQ(text._rep->_count, 1);
}

TEST(String, AssignmentSharesTheRepAndDropsTheOldOne) {
    String_t text("new");
    String_t target("old");
    String_t const keepsOld(target);
    target = text;
    EXPECT_EQ(target._rep, text._rep);
    EXPECT_EQ(text._rep->_count, 2);
    EXPECT_EQ(keepsOld._rep->_count, 1);
    EXPECT_STREQ(keepsOld.Text(), "old");
}

TEST(String, SelfAssignmentKeepsTheText) {
    String_t text("self");
    String_t const& same = text;
    text = same;
    EXPECT_STREQ(text.Text(), "self");
    EXPECT_EQ(text._rep->_count, 1);
}

TEST(String, AssignedTextDoesNotAffectCopies) {
    String_t text("one");
    String_t const copy(text);
    EXPECT_EQ(&(text = "two"), &text);
    EXPECT_STREQ(text.Text(), "two");
    EXPECT_STREQ(copy.Text(), "one");
}

TEST(String, AssignedNullIsEmpty) {
    String_t text("one");
    char const* const none = nullptr;
    text = none;
    EXPECT_TRUE(text == "");
}

TEST(String, AssignedPartOfItself) {
    String_t text("prefix-rest");
    text = text.Text() + 7;
    EXPECT_STREQ(text.Text(), "rest");
}

TEST(String, AppendChainsAndDoesNotAffectCopies) {
    String_t text("a");
    String_t const copy(text);
    ((text += "b") += "c") += String_t("d");
    EXPECT_STREQ(text.Text(), "abcd");
    EXPECT_STREQ(copy.Text(), "a");
}

TEST(String, AppendToNullTextAndOfNullOrEmptyText) {
    String_t text;
    char const* const none = nullptr;
    text += none;
    text += "";
    EXPECT_EQ(text.Text(), nullptr);
    text += "x";
    text += none;
    EXPECT_STREQ(text.Text(), "x");
    text += String_t();
    EXPECT_STREQ(text.Text(), "x");
}

TEST(String, AppendOfItsOwnText) {
    String_t text("ab");
    text += text.Text();
    EXPECT_STREQ(text.Text(), "abab");
}

TEST(String, ReserveUnsharesAndKeepsTheText) {
    String_t text("abc");
    String_t const copy(text);
    text.Reserve(6);
    EXPECT_NE(text._rep, copy._rep);
    EXPECT_EQ(text._rep->_count, 1);
    EXPECT_STREQ(text.Text(), "abc");
    std::memcpy(text.Buffer(), "sixsix", 7);
    EXPECT_STREQ(text.Text(), "sixsix");
    EXPECT_STREQ(copy.Text(), "abc");
}

TEST(String, ReserveOfLessTruncatesTheText) {
    String_t text("abcdef");
    text.Reserve(2);
    EXPECT_STREQ(text.Text(), "ab");
}

TEST(String, ReserveOnNullText) {
    String_t text;
    text.Reserve(0);
    ASSERT_NE(text.Text(), nullptr);
    EXPECT_STREQ(text.Text(), "");
}

TEST(String, BufferUnsharesAndIsNeverNull) {
    String_t text("abc");
    String_t const copy(text);
    text.Buffer()[0] = 'X';
    EXPECT_STREQ(text.Text(), "Xbc");
    EXPECT_STREQ(copy.Text(), "abc");
    EXPECT_STREQ(String_t().Buffer(), "");
}

TEST(String, ComparesTextsIncludingNull) {
    EXPECT_TRUE(String_t("abc") == "abc");
    EXPECT_FALSE(String_t("abc") == "abcd");
    EXPECT_TRUE(String_t("abc") != "ab");
    EXPECT_TRUE(String_t() == "");
    EXPECT_TRUE(String_t() != "x");
    char const* const none = nullptr;
    EXPECT_TRUE(String_t() == none);
    EXPECT_TRUE(String_t("x") != none);
    EXPECT_TRUE(String_t("x") == String_t("x"));
    EXPECT_TRUE(String_t("x") != String_t("y"));
    EXPECT_TRUE(String_t() == String_t(""));
}

TEST(String, SubStrIsClampedToTheText) {
    String_t const text("abcde");
    EXPECT_STREQ(text.SubStr(1, 3).Text(), "bcd");
    EXPECT_STREQ(text.SubStr(3, 4294967295u).Text(), "de");
    EXPECT_STREQ(text.SubStr(0, 0).Text(), "");
    EXPECT_TRUE(text.SubStr(5, 1) == "");
    EXPECT_TRUE(text.SubStr(6, 1) == "");
    EXPECT_TRUE(String_t().SubStr(0, 1) == "");
}

TEST(String, TrimRemovesWhiteSpaceAtBothEnds) {
    EXPECT_STREQ(String_t(" \t a b \v\f\r\n").Trim().Text(), "a b");
    EXPECT_STREQ(String_t("SSH-2.0-x\r").Trim().Text(), "SSH-2.0-x");
    EXPECT_TRUE(String_t(" \r\n").Trim() == "");
    EXPECT_TRUE(String_t().Trim() == "");
}

TEST(String, TrimDoesNotChangeTheOriginal) {
    String_t const text(" a ");
    EXPECT_STREQ(text.Trim().Text(), "a");
    EXPECT_STREQ(text.Text(), " a ");
}

TEST(StringGetline, ConsumesTheDelimiterAndDoesNotStoreIt) {
    std::istringstream in("first\n\nthird");
    String_t line("before");
    EXPECT_EQ(&String_t::Getline(in, line, "\n"), &in);
    EXPECT_STREQ(line.Text(), "first");
    EXPECT_TRUE(String_t::Getline(in, line, "\n"));
    EXPECT_TRUE(line == "");
    EXPECT_TRUE(String_t::Getline(in, line, "\n"));
    EXPECT_STREQ(line.Text(), "third");
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.fail());
    EXPECT_FALSE(String_t::Getline(in, line, "\n"));
}

TEST(StringGetline, FailingBufferSetsBadbit) {
    std::ifstream in("/");
    ASSERT_TRUE(in);
    String_t line("before");
    EXPECT_FALSE(String_t::Getline(in, line, "\n"));
    EXPECT_TRUE(in.bad());
    EXPECT_EQ(str_len(line.Text()), 0u);
}

TEST(StringGetline, EndOfInputWithoutTextSetsFailbit) {
    std::istringstream in("");
    String_t line("before");
    EXPECT_FALSE(String_t::Getline(in, line, "\n"));
    EXPECT_TRUE(in.fail());
    EXPECT_FALSE(in.bad());
    EXPECT_TRUE(line == "");
}

TEST(StringGetline, TerminatedLastLineLeavesNothing) {
    std::istringstream in("only\n");
    String_t line;
    EXPECT_TRUE(String_t::Getline(in, line, "\n"));
    EXPECT_FALSE(in.eof());
    EXPECT_FALSE(String_t::Getline(in, line, "\n"));
}

TEST(StringGetline, KeepsLeadingBlanksAndDoesNotAffectCopies) {
    std::istringstream in("  x y\nz\n");
    String_t line;
    String_t::Getline(in, line, "\n");
    String_t const first(line);
    String_t::Getline(in, line, "\n");
    EXPECT_STREQ(first.Text(), "  x y");
    EXPECT_STREQ(line.Text(), "z");
}

TEST(StringGetline, AnyOfTheDelimitersEndsTheText) {
    std::istringstream in("a:b;c");
    String_t line;
    String_t::Getline(in, line, ":;");
    EXPECT_STREQ(line.Text(), "a");
    String_t::Getline(in, line, ":;");
    EXPECT_STREQ(line.Text(), "b");
}

TEST(StringStreams, EmptyStringWritesNothing) {
    std::ostringstream out;
    out << String_t() << String_t("") << std::setw(8) << String_t();
    EXPECT_EQ(out.str(), "");
}

TEST(StringStreams, WritesTheText) {
    std::ostringstream out;
    out << String_t("a") << String_t(" b");
    EXPECT_EQ(out.str(), "a b");
}

TEST(StringStreams, ReadsOneWord) {
    std::istringstream in("  one\ttwo");
    String_t word;
    in >> word;
    EXPECT_STREQ(word.Text(), "one");
    in >> word;
    EXPECT_STREQ(word.Text(), "two");
    EXPECT_FALSE(in >> word);
}

} // namespace
