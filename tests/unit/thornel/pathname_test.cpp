#include <brantle/thornel/pathname.h>

#include <glob.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support/temporary_directory.h"

namespace {

char const* TakesString(String_t const& text) { return text.Text(); }

std::string CurrentHome() {
    char const* const home = std::getenv("HOME");
    return home ? home : "";
}

TEST(Pathname, IsAString) {
    Pathname path("/a");
    EXPECT_STREQ(TakesString(path), "/a");
    Pathname const copy(path);
    EXPECT_EQ(copy._rep, path._rep);
    path = String_t("b");
    EXPECT_STREQ(path.Text(), "b");
    path = "c";
    EXPECT_STREQ(path.Text(), "c");
    path = copy;
    EXPECT_STREQ(path.Text(), "/a");
    EXPECT_EQ(Pathname().Text(), nullptr);
}

TEST(Pathname, HomeIsTheVariableIfSetAndNotEmpty) {
    std::string const before = CurrentHome();
    setenv("HOME", "/some/where", 1);
    EXPECT_STREQ(Pathname::Home().Text(), "/some/where");
    passwd const* const entry = getpwuid(getuid());
    ASSERT_NE(entry, nullptr);
    setenv("HOME", "", 1);
    EXPECT_STREQ(Pathname::Home().Text(), entry->pw_dir);
    unsetenv("HOME");
    EXPECT_STREQ(Pathname::Home().Text(), entry->pw_dir);
    setenv("HOME", before.c_str(), 1);
}

TEST(Pathname, CwdIsTheWorkingDirectory) {
    EXPECT_EQ(std::filesystem::current_path().string(), Pathname::Cwd().Text());
}

struct Change {
    char const* _path;
    char const* _argument;
    char const* _expected;
};

class PathnameAppend : public testing::TestWithParam<Change> {};
TEST_P(PathnameAppend, AddsOneComponent) {
    Pathname path(GetParam()._path);
    EXPECT_EQ(&path.Append(GetParam()._argument), &path);
    EXPECT_TRUE(path == GetParam()._expected) << path;
}
INSTANTIATE_TEST_SUITE_P(Paths, PathnameAppend,
                         testing::Values(Change{"a", "b", "a/b"}, Change{"a/", "b", "a/b"},
                                         Change{"/", "b", "/b"}, Change{"a", "/b", "a/b"},
                                         Change{"", "b", "b"}, Change{"", "/b", "/b"},
                                         Change{nullptr, "b", "b"}, Change{"a", "", "a"},
                                         Change{"a", nullptr, "a"},
                                         Change{"/home/u", ".ssh", "/home/u/.ssh"}));

class PathnameInsert : public testing::TestWithParam<Change> {};
TEST_P(PathnameInsert, PrependsADirectory) {
    Pathname path(GetParam()._path);
    EXPECT_EQ(&path.Insert(GetParam()._argument), &path);
    EXPECT_TRUE(path == GetParam()._expected) << path;
}
INSTANTIATE_TEST_SUITE_P(Paths, PathnameInsert,
                         testing::Values(Change{"a*", ".", "./a*"}, Change{".", ".", "./."},
                                         Change{"a", "/r", "/r/a"}, Change{"/a", "/r", "/r/a"},
                                         Change{"a", "/", "/a"}, Change{"", "/r", "/r"},
                                         Change{nullptr, "/r", "/r"}, Change{"/a", "", "/a"},
                                         Change{"/a", nullptr, "/a"}));

class PathnameCollapse : public testing::TestWithParam<Change> {};
TEST_P(PathnameCollapse, RemovesDotComponents) {
    Pathname path(GetParam()._path);
    EXPECT_EQ(&path.Collapse(), &path);
    EXPECT_TRUE(path == GetParam()._expected) << path;
}
INSTANTIATE_TEST_SUITE_P(
    Paths, PathnameCollapse,
    testing::Values(Change{"/a/./b", "", "/a/b"}, Change{"/a/../b", "", "/b"}, Change{"/..", "", "/"},
                    Change{"/../a", "", "/a"}, Change{"/a/b/../..", "", "/"}, Change{"../a", "", "../a"},
                    Change{"a/../../b", "", "../b"}, Change{"../../a", "", "../../a"}, Change{"./a", "", "a"},
                    Change{"a/..", "", "."}, Change{".", "", "."}, Change{"a//b/", "", "a/b"},
                    Change{"//", "", "/"}, Change{"/a/...", "", "/a/..."}, Change{"/a/.ssh", "", "/a/.ssh"},
                    Change{"", "", ""}, Change{nullptr, "", ""}));

TEST(Pathname, AbsPrependsTheWorkingDirectoryToARelativePath) {
    EXPECT_TRUE(Pathname("/a").Abs() == "/a");
    Pathname relative("a");
    EXPECT_EQ(&relative.Abs(), &relative);
    EXPECT_TRUE(relative == Pathname::Cwd().Append("a"));
    EXPECT_TRUE(Pathname().Abs() == Pathname::Cwd());
}

TEST(Pathname, IsAbsChecksTheFirstCharacter) {
    EXPECT_TRUE(Pathname("/").IsAbs());
    EXPECT_TRUE(Pathname("/a").IsAbs());
    EXPECT_FALSE(Pathname("a/b").IsAbs());
    EXPECT_FALSE(Pathname("").IsAbs());
    EXPECT_FALSE(Pathname().IsAbs());
}

TEST(Pathname, DirIsEverythingBeforeTheLastComponent) {
    EXPECT_TRUE(Pathname("/a/b").Dir() == "/a");
    EXPECT_TRUE(Pathname("/a//b/").Dir() == "/a");
    EXPECT_TRUE(Pathname("./a").Dir() == ".");
    EXPECT_TRUE(Pathname("/a").Dir() == "/");
    EXPECT_TRUE(Pathname("//a").Dir() == "/");
    EXPECT_TRUE(Pathname("a").Dir() == "");
    EXPECT_TRUE(Pathname("/").Dir() == "");
    EXPECT_TRUE(Pathname().Dir() == "");
}

TEST(Pathname, LeafIsTheLastComponent) {
    EXPECT_TRUE(Pathname("/a/b").Leaf(nullptr) == "b");
    EXPECT_TRUE(Pathname("/a/b/").Leaf(nullptr) == "b");
    EXPECT_TRUE(Pathname("b").Leaf(nullptr) == "b");
    EXPECT_TRUE(Pathname("/b").Leaf(nullptr) == "b");
    EXPECT_TRUE(Pathname("/").Leaf(nullptr) == "");
    EXPECT_TRUE(Pathname().Leaf(nullptr) == "");
}

TEST(Pathname, LeafRemovesASuffix) {
    EXPECT_TRUE(Pathname("a/id_rsa.pub").Leaf(".pub") == "id_rsa");
    EXPECT_TRUE(Pathname("a/id_rsa").Leaf(".pub") == "id_rsa");
    EXPECT_TRUE(Pathname("a/.pub").Leaf(".pub") == ".pub");
}

class PathnameChExt : public testing::TestWithParam<Change> {};
TEST_P(PathnameChExt, ReplacesOrAddsTheExtension) {
    Pathname path(GetParam()._path);
    EXPECT_EQ(&path.ChExt(GetParam()._argument), &path);
    EXPECT_TRUE(path == GetParam()._expected) << path;
}
INSTANTIATE_TEST_SUITE_P(Paths, PathnameChExt,
                         testing::Values(Change{"/h/.ssh/id_rsa", ".pub", "/h/.ssh/id_rsa.pub"},
                                         Change{"key.old", ".pub", "key.pub"},
                                         Change{"a.b.c", ".pub", "a.b.pub"}, Change{".ssh", ".x", ".ssh.x"},
                                         Change{"d.x/key", ".pub", "d.x/key.pub"},
                                         Change{"key.old", "", "key"}, Change{"key.old", nullptr, "key"},
                                         Change{"", ".pub", ""}, Change{nullptr, ".pub", ""}));

class PathnameGlob : public testing::Test {
protected:
    PathnameGlob() {
        for (char const* file : {"a1.txt", "a2.txt", "b1.txt"}) std::ofstream(_dir / file) << file;
    }

    int Glob(char const* pattern) { return Pathname::Glob(Pathname((_dir / pattern).c_str()), 0, _names); }
    std::string Leaf(int index) const { return Pathname(*_names[index]).Leaf(nullptr).Text(); }

    support::TemporaryDirectory _dir;
    TOList<String_t> _names;
};

TEST_F(PathnameGlob, AppendsTheMatchesInOrder) {
    _names.Append("kept");
    EXPECT_EQ(Glob("a*"), 2);
    ASSERT_EQ(_names.Len(), 3u);
    EXPECT_STREQ(_names[0]->Text(), "kept");
    EXPECT_EQ(Leaf(1), "a1.txt");
    EXPECT_EQ(Leaf(2), "a2.txt");
}

TEST_F(PathnameGlob, SupportsQuestionMarkAndBrackets) {
    EXPECT_EQ(Glob("?1.txt"), 2);
    EXPECT_EQ(Glob("[b]*"), 1);
    EXPECT_EQ(Glob("b1.txt"), 1);
}

TEST_F(PathnameGlob, NoMatchIsZero) {
    EXPECT_EQ(Glob("c*"), 0);
    EXPECT_EQ(Pathname::Glob(Pathname(), 0, _names), 0);
    EXPECT_EQ(_names.Len(), 0u);
}

TEST_F(PathnameGlob, UnreadableDirectoryIsAFailureWhenErrorsCount) {
    std::ofstream(_dir / "file") << "x";
    std::filesystem::create_directory_symlink("loop", _dir / "loop");
    EXPECT_LT(Pathname::Glob(Pathname((_dir / "loop/*").c_str()), GLOB_ERR, _names), 0);
}

} // namespace
