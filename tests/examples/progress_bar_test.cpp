// How the example that copies files shows how far it is.

#include <string>

#include <gmock/gmock.h>

#include "progress_bar.h"
#include "support/temporary_directory.h"
#include "support/terminal.h"

using examples::CopyProgress;
using examples::ProgressBar;
using examples::ProgressLine;

namespace {

constexpr unsigned long long KIB = 1024, MIB = 1024 * KIB, GIB = 1024 * MIB;

std::string TimeOf(CopyProgress const& copy) {
    std::string const line = ProgressLine(copy, 80);
    return line.substr(line.size() - 12);
}

std::string RateOf(unsigned long long bytesPerSecond) {
    return ProgressLine({"", bytesPerSecond, 2 * bytesPerSecond + 1, 1}, 80).substr(53, 12);
}

} // namespace

TEST(ExamplesProgressLine, ShowsNamePercentRateAndTimeLeftInAllColumnsButOne) {
    std::string const line = ProgressLine({"notes.txt", 3 * MIB, 12 * MIB, 2}, 80);
    EXPECT_EQ(line, "notes.txt" + std::string(36, ' ') + "   25%     1.5 MiB/s     00:06 ETA");
    EXPECT_EQ(line.size(), 79u) << "the last column stays free";
}

TEST(ExamplesProgressLine, CompleteCopyShowsTheTimeTaken) {
    EXPECT_EQ(TimeOf({"a", 10, 10, 65}), "   01:05    ");
    EXPECT_EQ(TimeOf({"a", 11, 10, 65}), "   01:05    ") << "the file has grown";
    EXPECT_THAT(ProgressLine({"a", 11, 10, 65}, 80), testing::HasSubstr(" 100% "));
}

TEST(ExamplesProgressLine, TimeLeftHasHoursIfNeededAndNoMoreThanAHundred) {
    EXPECT_EQ(TimeOf({"a", 1, 3602, 1}), " 1:00:01 ETA");
    EXPECT_EQ(TimeOf({"a", 1, 360000, 1}), "99:59:59 ETA");
    EXPECT_EQ(TimeOf({"a", 1, 360001, 1}), "   --:-- ETA");
}

TEST(ExamplesProgressLine, UnknownTotalShowsTheAmountAndNoTimeLeft) {
    EXPECT_EQ(ProgressLine({"version", 3 * GIB, 0, 2}, 60),
              "version                 3.0 GiB     1.5 GiB/s     --:-- ETA");
}

TEST(ExamplesProgressLine, NothingDoneHasNeitherRateNorTimeLeft) {
    EXPECT_EQ(ProgressLine({"a", 0, 10, 0}, 50), "a                  0%            --     --:-- ETA");
    EXPECT_EQ(ProgressLine({"empty", 0, 0, 0}, 60),
              "empty                       0 B            --     --:-- ETA");
}

TEST(ExamplesProgressLine, RateIsInTheUnitThatFits) {
    EXPECT_EQ(RateOf(0), "       0 B/s");
    EXPECT_EQ(RateOf(1023), "    1023 B/s");
    EXPECT_EQ(RateOf(1024), "   1.0 KiB/s");
    EXPECT_EQ(RateOf(MIB - 1), "   1.0 MiB/s") << "not 1024.0 KiB";
    EXPECT_EQ(RateOf(1000 * MIB), "1000.0 MiB/s");
    EXPECT_EQ(RateOf(5 * GIB), "   5.0 GiB/s");
}

TEST(ExamplesProgressLine, NarrowTerminalGetsNoRateThenNoTimeThenNoName) {
    CopyProgress const copy{"photograph.jpg", 1, 2, 60};
    EXPECT_EQ(ProgressLine(copy, 40), "photograph.jpg" + std::string(7, ' ') + " 50%     01:00 ETA");
    EXPECT_EQ(ProgressLine(copy, 20), "photograph.jp   50%");
    EXPECT_EQ(ProgressLine(copy, 9), "ph   50%");
    EXPECT_EQ(ProgressLine(copy, 5), "   5");
    EXPECT_EQ(ProgressLine(copy, 1), "");
    EXPECT_EQ(ProgressLine(copy, 0), "");
}

TEST(ExamplesProgressLine, NoWidthIsExceeded) {
    for (std::size_t width = 1; width < 120; ++width)
        for (unsigned long long done : {0ull, 1ull, 1ull << 40, ~0ull / 200})
            for (unsigned long long total : {0ull, 1ull << 40, ~0ull})
                EXPECT_EQ(ProgressLine({"a name", done, total, 0.001}, width).size(), width - 1)
                    << width << ' ' << done << ' ' << total;
}

TEST(ExamplesProgressLine, HostileNameDoesNotSteerTheTerminal) {
    EXPECT_EQ(ProgressLine({"\033[2J\r\na\302\233", 1, 2, 0}, 20), "?[2J??a?        50%");
    EXPECT_EQ(ProgressLine({"\377\303", 1, 2, 0}, 20), "??              50%");
}

TEST(ExamplesProgressLine, CharactersAreCutWholeAndNeverTakeMoreThanTheirColumns) {
    EXPECT_EQ(ProgressLine({"\303\251\303\251\303\251", 1, 2, 0}, 9), "\303\251\303\251   50%");
    EXPECT_EQ(ProgressLine({"\346\227\245\346\234\254", 1, 2, 0}, 10), "\346\227\245    50%")
        << "two columns each";
}

TEST(ExamplesProgressBar, LineIsWrittenAgainAndEndsBeforeTheNext) {
    support::Terminal terminal(30, 5);
    {
        ProgressBar bar(terminal.Fd());
        bar.Show("dir/first", 1, 4);
        bar.Show("dir/first", 4, 4);
        bar.Show("second", 1, 2);
    }
    EXPECT_THAT(terminal.WholeScreen(), testing::MatchesRegex("\rfirst +25%\rfirst +100%\r\n"
                                                              "\rsecond +50%\rsecond +50%\r\n"));
}

TEST(ExamplesProgressBar, WidthIsThatOfTheMoment) {
    support::Terminal terminal(20, 5);
    ProgressBar bar(terminal.Fd());
    bar.Show("a", 0, 4);
    terminal.Resize(12, 5, 0, 0);
    bar.End();
    EXPECT_EQ(terminal.WholeScreen(), "\ra                0%\ra        0%\r\n");
}

TEST(ExamplesProgressBar, SameNameThatBeginsAgainIsAnotherCopy) {
    support::Terminal terminal(12, 5);
    ProgressBar bar(terminal.Fd());
    bar.Show("one/a", 4, 4);
    bar.Show("two/a", 1, 4);
    EXPECT_EQ(terminal.WholeScreen(), "\ra      100%\ra      100%\r\n\ra       25%");
}

TEST(ExamplesProgressBar, NothingIsWrittenWhereThereIsNoTerminal) {
    support::TemporaryDirectory const here;
    std::string const path = here / "file";
    int const fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    {
        ProgressBar bar(fd);
        bar.Show("a", 1, 2);
    }
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 0);
    close(fd);
}
