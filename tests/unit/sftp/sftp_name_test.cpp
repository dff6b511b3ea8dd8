#include <brantle/sftp/sftp_name.h>

#include <gtest/gtest.h>

#include "streamed.h"

using namespace cindral;

namespace {

TEST(SftpName, IsTwoTextsAndAttributes) {
    std::string const bytes = Wire("00000004 'file' 00000005 '-rw f' 00000004 000001a4");
    SftpName name;
    EXPECT_EQ(Read(bytes, name), 0u);
    EXPECT_EQ(Text(name._filename), "file");
    EXPECT_EQ(Text(name._longname), "-rw f");
    EXPECT_EQ(name._attrs._permissions, 0644u);
    EXPECT_EQ(Written(name), bytes);
}

TEST(SftpName, ListIsItsNumberAndTheNamesInOrder) {
    TOList<SftpName> names;
    EXPECT_EQ(Written(names), Wire("00000000"));
    names.Append(SftpName())->_filename = "a";
    names.Append(SftpName())->_filename = "b";
    names.Append(SftpName())->_filename = "c";
    EXPECT_EQ(Written(names), Wire("00000003 00000001 'a' 00000000 00000000 00000001 'b' 00000000 00000000"
                                   "00000001 'c' 00000000 00000000"));
}

} // namespace
