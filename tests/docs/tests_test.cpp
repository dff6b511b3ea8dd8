// script/check-tests: on this tree, and on copies of it that go against its rules.

#include <filesystem>
#include <string>

#include "docs/checked_copy.h"

using namespace docs;
using servers::Outcome;
using servers::WriteFile;
using testing::HasSubstr;
using testing::Not;

namespace {

Outcome CheckTests(std::filesystem::path const& tree) { return Check("check-tests", tree); }

/// A copy of what the check reads.
class TestsOfACopy : public CheckedCopy {
protected:
    TestsOfACopy() {
        for (char const* part : {"apps", "channel", "docs", "event", "examples", "foundations", "include",
                                 "kex", "packet", "session", "sftp", "tests", "trust", "README.md"})
            Copy(part);
    }
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
