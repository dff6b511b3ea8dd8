#include <pwd.h>

#include <gtest/gtest.h>

#include "foundations/thornel/passwd_entry.h"

namespace {

TEST(PasswdEntry, IsEmptyAtFirst) { EXPECT_FALSE(PasswdEntry().Found()); }

TEST(PasswdEntry, HasNameAndHomeOfTheUser) {
    passwd const* const expected = getpwuid(0);
    ASSERT_NE(expected, nullptr);
    PasswdEntry entry;
    entry.Read(0);
    ASSERT_TRUE(entry.Found());
    EXPECT_STREQ(entry.Name(), expected->pw_name);
    EXPECT_STREQ(entry.Home(), expected->pw_dir);
}

TEST(PasswdEntry, UnknownUserIsNotFound) {
    PasswdEntry entry;
    entry.Read(0);
    entry.Read(4294967294u);
    EXPECT_FALSE(entry.Found());
}

} // namespace
