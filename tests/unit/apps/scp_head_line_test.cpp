#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "apps/scp_head_line.h"

using cindral::ParseScpHeadLine;
using cindral::SshProtocolError;

namespace {

class ScpHeadLine : public testing::Test {
protected:
    void Parse(String_t const& line) { ParseScpHeadLine(line, mode, size, name); }

    unsigned int mode = 0;
    long long size = 0;
    Pathname name;
};

TEST_F(ScpHeadLine, NameEndsAtABlank) {
    Parse("0755 4294967296 name and more");
    EXPECT_EQ(mode, 0755u);
    EXPECT_EQ(size, 4294967296);
    EXPECT_STREQ(name.Text(), "name");
}

TEST_F(ScpHeadLine, WhiteSpaceOfAnyKindSeparates) {
    Parse("04755\t010  x");
    EXPECT_EQ(mode, 04755u);
    EXPECT_EQ(size, 10);
    EXPECT_STREQ(name.Text(), "x");
}

TEST_F(ScpHeadLine, NumbersEndWhereTheirDigitsEnd) {
    Parse("0894 5x name");
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(size, 894);
    EXPECT_STREQ(name.Text(), "5x");
}

TEST_F(ScpHeadLine, LineThatCannotBeReadIsTheDetailOfTheException) {
    for (char const* line : {"0644 x", "0644 5", "x 5 name", "0644 99999999999999999999 name"}) {
        try {
            Parse(line);
            ADD_FAILURE() << "no exception: " << line;
        } catch (SshProtocolError const& error) {
            EXPECT_STREQ(error.Text().Text(), "invalid head line returned from scp");
            EXPECT_STREQ(error.Detail().Text(), line);
        }
    }
    EXPECT_THROW(Parse(String_t()), SshProtocolError);
}

} // namespace
