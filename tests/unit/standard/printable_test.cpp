#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "standard/printable.h"

using cindral::standard::IsSafeName;
using cindral::standard::Lines;
using cindral::standard::Printable;
using testing::PrintToString;

TEST(PrintableText, OtherTextIsUnchanged) {
    for (char const* text : {"", "plain ~ text", "back\\slash",
                             "Gr\xc3\xbc\xc3\x9f"
                             "e",
                             "\xe2\x82\xac", "\xc2\xa0", "\xf0\x9f\x98\x80", "\xef\xbf\xbf",
                             "\xf4\x8f\xbf\xbf", "\xed\x9f\xbf", "\xee\x80\x80"})
        EXPECT_EQ(Printable(text), text);
}

TEST(PrintableText, ControlCharactersBecomeVisible) {
    EXPECT_EQ(Printable("\x1b[2J"), "\\x1b[2J");
    EXPECT_EQ(Printable(std::string(1, '\0')), "\\x00");
    EXPECT_EQ(Printable("a\rb\nc\td\x7f"), "a\\x0db\\x0ac\\x09d\\x7f");
    for (int c = 0; c < 0x20; ++c) {
        std::string const shown = Printable(std::string(1, static_cast<char>(c)));
        EXPECT_EQ(shown.size(), 4u) << c;
        EXPECT_EQ(shown.substr(0, 2), "\\x") << c;
    }
}

TEST(PrintableText, C1CharactersBecomeVisible) {
    EXPECT_EQ(Printable("\xc2\x9b"
                        "2J"),
              "\\xc2\\x9b2J");
    EXPECT_EQ(Printable("\xc2\x80\xc2\x9f"), "\\xc2\\x80\\xc2\\x9f");
    EXPECT_EQ(Printable("\x9b"
                        "2J"),
              "\\x9b2J");
}

TEST(PrintableText, InvalidUtf8BecomesVisible) {
    std::pair<char const*, char const*> const cases[] = {
        {"\xff", "\\xff"},
        {"\x80x", "\\x80x"},
        {"\xc3", "\\xc3"}, // cut short
        {"\xc3(", "\\xc3("},
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xc1\x81", "\\xc1\\x81"},
        {"\xe0\x81\x81", "\\xe0\\x81\\x81"},
        {"\xf0\x80\x81\x81", "\\xf0\\x80\\x81\\x81"},
        {"\xc0\x9b", "\\xc0\\x9b"}, // overlong
        {"\xe0\x80\x9b", "\\xe0\\x80\\x9b"},
        {"\xf0\x80\x80\x9b", "\\xf0\\x80\\x80\\x9b"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},                   // a surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},          // after the last character
        {"\xf8\x88\x80\x80\x80", "\\xf8\\x88\\x80\\x80\\x80"}, // five bytes
    };
    for (auto const& [text, shown] : cases) EXPECT_EQ(Printable(text), shown);
}

TEST(PrintableText, CharactersThatChangeTheDirectionOfWritingBecomeVisible) {
    EXPECT_EQ(Printable("\xe2\x80\xae"
                        "cod.exe"),
              "\\xe2\\x80\\xaecod.exe");
    EXPECT_EQ(Printable("\xe2\x81\xa6"), "\\xe2\\x81\\xa6");
    EXPECT_EQ(Printable("\xe2\x80\x8f"), "\\xe2\\x80\\x8f");
    EXPECT_EQ(Printable("\xd8\x9c"), "\\xd8\\x9c");
    EXPECT_EQ(Printable("\xe2\x81\xaa"), "\xe2\x81\xaa");
}

TEST(PrintableText, SeparatorsOfLinesBecomeVisible) {
    EXPECT_EQ(Printable("a\xe2\x80\xa8Password:"), "a\\xe2\\x80\\xa8Password:");
    EXPECT_EQ(Printable("\xe2\x80\xa9"), "\\xe2\\x80\\xa9");
}

TEST(PrintableText, LineFeedsAndTabsStayOnRequest) {
    EXPECT_EQ(Printable("a\n\tb\x1b\n", Lines::KEPT), "a\n\tb\\x1b\n");
    EXPECT_EQ(Printable("a\r\nb\rc\r", Lines::KEPT), "a\nb\\x0dc\\x0d");
    EXPECT_EQ(Printable("\r\r\n", Lines::KEPT), "\\x0d\n");
    EXPECT_EQ(Printable("a\r\n"), "a\\x0d\\x0a");
}

TEST(SafeNames, PlainNamesAreSafe) {
    for (char const* name : {"a", "...", ".bashrc", "..a", "a b", "-rf",
                             "Gr\xc3\xbc\xc3\x9f"
                             "e",
                             "\xfc", "a\\b", "*"})
        EXPECT_TRUE(IsSafeName(name)) << name;
}

TEST(SafeNames, NamesThatLeadElsewhereOrHoldControlCharactersAreNot) {
    for (std::string const& name : std::vector<std::string>{"", ".", "..", "/", "a/b", "../a", "a/", "/a",
                                                            "a\n", "\x1b[m", "\t", "a\x7f",
                                                            "a\xc2\x9b"
                                                            "2J",
                                                            "\xff/", std::string("a\0b", 3)})
        EXPECT_FALSE(IsSafeName(name)) << PrintToString(name);
}
