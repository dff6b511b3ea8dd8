// script/check-tests: on this tree, and on copies of it that go against its rules.

#include <filesystem>
#include <string>

#include <gmock/gmock.h>

#include "support/servers/process.h"

using servers::Outcome;
using servers::ReadFile;
using servers::WriteFile;
using testing::AllOf;
using testing::Field;
using testing::HasSubstr;
using testing::Not;

namespace {

std::filesystem::path const SOURCES = BRANTLE_SOURCE_DIR;

Outcome CheckTests(std::filesystem::path const& tree) {
    return servers::Run({SOURCES / "script/check-tests", tree});
}

auto Complains(std::string const& line) {
    return AllOf(Field(&Outcome::status, 1), Field(&Outcome::errors, HasSubstr(line + "\n")));
}

/// A copy of what the check reads.
class TestsOfACopy : public testing::Test {
protected:
    TestsOfACopy() {
        for (char const* folder : {"apps", "channel", "docs", "event", "examples", "foundations", "include",
                                   "kex", "packet", "session", "sftp", "tests", "trust"})
            std::filesystem::copy(SOURCES / folder, Path() / folder,
                                  std::filesystem::copy_options::recursive);
        std::filesystem::copy(SOURCES / "README.md", Path());
    }

    std::filesystem::path const& Path() const { return _tree.Path(); }
    void Append(std::string const& file, std::string const& text) {
        WriteFile(_tree / file, ReadFile(_tree / file) + text);
    }

private:
    servers::TemporaryDirectory _tree;
};

} // namespace

TEST(Tests, ThoseOfThisTreeFollowTheRules) {
    Outcome const outcome = CheckTests(SOURCES);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_THAT(outcome.output, HasSubstr(" tests in "));
}

TEST_F(TestsOfACopy, CopyFollowsTheRulesToo) { EXPECT_EQ(CheckTests(Path()).status, 0); }

TEST_F(TestsOfACopy, SourceWithoutATestFileIsAnError) {
    std::filesystem::remove(Path() / "tests/unit/thornel/text_test.cpp");
    EXPECT_THAT(CheckTests(Path()),
                Complains("foundations/thornel/text.cpp has no test file: "
                          "tests/unit/thornel/text_test.cpp or tests/wire/text_test.cpp"));
}

TEST_F(TestsOfACopy, TestFileOfAnotherSubsystemIsNotThatOfTheSource) {
    std::filesystem::rename(Path() / "tests/unit/thornel/text_test.cpp",
                            Path() / "tests/unit/cindral/text_test.cpp");
    EXPECT_EQ(CheckTests(Path()).status, 1);
}

TEST_F(TestsOfACopy, SuiteInTwoFilesIsAnError) {
    Append("tests/unit/thornel/text_test.cpp", "TEST(Digest, HasAnotherTest) {}\n");
    EXPECT_THAT(CheckTests(Path()),
                Complains("suite Digest is in more than one file: tests/unit/cindral/digest_test.cpp "
                          "tests/unit/thornel/text_test.cpp"));
}

TEST_F(TestsOfACopy, SuiteThatEndsInTestIsAnError) {
    Append("tests/unit/thornel/text_test.cpp", "TYPED_TEST(TextTest, DoesNothing) {}\n");
    EXPECT_THAT(CheckTests(Path()),
                Complains("suite TextTest in tests/unit/thornel/text_test.cpp ends in Test"));
}

TEST_F(TestsOfACopy, DeathTestMayEndInTest) {
    Append("tests/unit/thornel/text_test.cpp", "TEST_F(TextDeathTest, DoesNothing) {}\n");
    EXPECT_EQ(CheckTests(Path()).status, 0);
}

TEST_F(TestsOfACopy, NameOfATestThatIsNotThereIsAnError) {
    WriteFile(Path() / "docs/more.md", "Digest.MatchesKnownVectors\nDigest.DoesWhatNobodyTests\n");
    EXPECT_THAT(CheckTests(Path()),
                AllOf(Complains("docs/more.md:2: there is no test Digest.DoesWhatNobodyTests"),
                      Field(&Outcome::errors, Not(HasSubstr("MatchesKnownVectors")))));
}
