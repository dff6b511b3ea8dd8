// How the examples show texts from the server.

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "printable.h"

using examples::HasControl;
using examples::Layout;
using examples::Printable;

namespace {

std::string OneLine(std::string const& text) { return Printable(text, Layout::ONE_LINE); }
std::string Lines(std::string const& text) { return Printable(text, Layout::LINES); }

} // namespace

TEST(ExamplesPrintable, OtherTextIsUnchanged) {
    for (char const* text : {"", "a b~", "caf\303\251", "\342\202\254", "\360\237\230\200", "\302\240",
                             "\364\217\277\277", "\355\237\277"})
        EXPECT_EQ(OneLine(text), text);
}

TEST(ExamplesPrintable, ControlCharactersAreReplaced) {
    EXPECT_EQ(OneLine(std::string("a\0\033[1m\177\n\r\tb", 11)), "a??[1m????b");
    EXPECT_EQ(OneLine("\302\200\302\233x\302\237"), "??x?") << "U+0080 to U+009F";
}

TEST(ExamplesPrintable, CharactersThatEndALineOrTurnTheDirectionAreReplaced) {
    for (char const* text : {"\330\234", "\342\200\216", "\342\200\217", "\342\200\250", "\342\200\251",
                             "\342\200\252", "\342\200\256", "\342\201\246", "\342\201\251"}) {
        EXPECT_EQ(OneLine(text), "?") << text;
        EXPECT_TRUE(HasControl(text)) << text;
    }
    for (char const* text : {"\330\235", "\342\200\215", "\342\200\220", "\342\200\247", "\342\200\257",
                             "\342\201\245", "\342\201\252"})
        EXPECT_EQ(OneLine(text), text);
}

TEST(ExamplesPrintable, BytesThatAreNotUtf8AreReplaced) {
    EXPECT_EQ(OneLine("\233[2J"), "?[2J");
    EXPECT_EQ(OneLine("\303"), "?") << "cut short";
    EXPECT_EQ(OneLine("\303\303\251"), "?\303\251");
    EXPECT_EQ(OneLine("\300\233\340\202\233\360\200\202\233"), std::string(9, '?')) << "longer than needed";
    EXPECT_EQ(OneLine("\355\240\200"), "???") << "a surrogate";
    EXPECT_EQ(OneLine("\364\220\200\200\370"), "?????") << "beyond the last";
}

TEST(ExamplesPrintable, LinesKeepTheirEndsAndTabs) {
    EXPECT_EQ(Lines("a\n\tb\r\n"), "a\n\tb\r\n");
    EXPECT_EQ(Lines("a\rb\033\r"), "a?b??") << "a carriage return writes over the line";
}

TEST(ExamplesHasControl, FindsOneAnywhere) {
    for (char const* text : {"\n", "a\033", "a\177b", "\302\205"}) EXPECT_TRUE(HasControl(text)) << text;
    for (char const* text : {"", "ab", "caf\303\251", "caf\351"}) EXPECT_FALSE(HasControl(text)) << text;
}

TEST(ExamplesPrintableStream, FiltersUntilItIsDestroyed) {
    std::ostringstream out;
    {
        examples::PrintableStream filter(out);
        out << "\033[2J" << 12 << std::flush;
        out << '\a';
    }
    out << "\a";
    EXPECT_EQ(out.str(), "?[2J12?\a");
}

TEST(ExamplesPrintableStream, RevivesAStreamThatHasFailed) {
    std::ostringstream out;
    {
        examples::PrintableStream filter(out);
        out.setstate(std::ios::badbit);
    }
    EXPECT_TRUE(out.good());
}
