#include <brantle/sftp/sftp_file_attr.h>

#include <cstring>

#include <gtest/gtest.h>

#include "streamed.h"

using namespace cindral;

namespace {

TEST(SftpFileAttr, IsEmptyAtFirst) {
    SftpFileAttr const attr;
    EXPECT_EQ(attr._flags, 0u);
    EXPECT_EQ(attr._size, 0u);
    EXPECT_EQ(attr._uid, 0u);
    EXPECT_EQ(attr._gid, 0u);
    EXPECT_EQ(attr._permissions, 0u);
    EXPECT_EQ(attr._atime, 0u);
    EXPECT_EQ(attr._mtime, 0u);
}

struct stat LocalFile() {
    struct stat file;
    std::memset(&file, 0, sizeof(file));
    file.st_size = 0x100000005;
    file.st_uid = 1;
    file.st_gid = 2;
    file.st_mode = S_IFREG | 0640;
    file.st_atime = 3;
    file.st_mtime = 4;
    file.st_nlink = 5;
    return file;
}

TEST(SftpFileAttr, CopiesTheStatOfALocalFile) {
    EXPECT_EQ(Written(SftpFileAttr(LocalFile())),
              Wire("0000000f 0000000100000005 00000001 00000002 000081a0 00000003 00000004"));
}

TEST(SftpFileAttr, FillsAStatWithTheLowHalfOfTheSize) {
    struct stat file;
    std::memset(&file, 0xff, sizeof(file));
    SftpFileAttr(LocalFile()).FillStat(file);
    struct stat expected = LocalFile();
    expected.st_size = 5;
    expected.st_nlink = 0;
    EXPECT_EQ(std::memcmp(&file, &expected, sizeof(file)), 0);
}

TEST(SftpFileAttr, LargestSizesAreTruncatedAndNotNegative) {
    SftpFileAttr attr;
    attr._flags = SftpFileAttr::SIZE;
    struct stat file;
    for (unsigned long long size : {0xffffffffull, 0xffffffffffffffffull}) {
        attr._size = size;
        attr.FillStat(file);
        EXPECT_EQ(file.st_size, 0xffffffffll);
    }
}

TEST(SftpFileAttr, FillsOnlyThePresentFieldsOfAStat) {
    for (unsigned int flags = 0; flags < 16; ++flags) {
        SftpFileAttr attr(LocalFile());
        attr._flags = flags;
        struct stat file;
        std::memset(&file, 0xff, sizeof(file));
        attr.FillStat(file);
        EXPECT_EQ(file.st_size, flags & 1 ? 5 : 0);
        EXPECT_EQ(file.st_uid, flags & 2 ? 1u : 0u);
        EXPECT_EQ(file.st_gid, flags & 2 ? 2u : 0u);
        EXPECT_EQ(file.st_mode, flags & 4 ? S_IFREG | 0640u : 0u);
        EXPECT_EQ(file.st_atime, flags & 8 ? 3 : 0);
        EXPECT_EQ(file.st_mtime, flags & 8 ? 4 : 0);
    }
}

TEST(SftpFileAttr, DefaultHasOnlyPermissions) {
    EXPECT_EQ(Written(SftpFileAttr::Default(0755)), Wire("00000004 000001ed"));
}

TEST(SftpFileAttr, PresentFieldsAreWrittenAndRead) {
    for (unsigned int flags = 0; flags < 16; ++flags) {
        SftpFileAttr attr(LocalFile());
        attr._flags = flags;
        std::string const bytes =
            std::string(3, '\0') + static_cast<char>(flags) + (flags & 1 ? Wire("0000000100000005") : "") +
            (flags & 2 ? Wire("00000001 00000002") : "") + (flags & 4 ? Wire("000081a0") : "") +
            (flags & 8 ? Wire("00000003 00000004") : "");
        EXPECT_EQ(Written(attr), bytes);
        SftpFileAttr read;
        EXPECT_EQ(Read(bytes, read), 0u);
        EXPECT_EQ(Written(read), bytes);
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            EXPECT_EQ(Read(bytes.substr(0, length), read), SockStream::END_OF_INPUT);
        }
    }
}

TEST(SftpFileAttr, AbsentFieldsAreKept) {
    SftpFileAttr attr(LocalFile());
    EXPECT_EQ(Read(Wire("00000004 00000001"), attr), 0u);
    EXPECT_EQ(attr._flags, 4u);
    EXPECT_EQ(attr._permissions, 1u);
    EXPECT_EQ(attr._size, 0x100000005u);
}

TEST(SftpFileAttr, FlagsAreWrittenUnchanged) {
    SftpFileAttr attr;
    attr._flags = 0xfffffff0;
    EXPECT_EQ(Written(attr), Wire("fffffff0"));
}

TEST(SftpFileAttr, UnknownFlagsHaveNoFields) {
    SftpFileAttr attr;
    EXPECT_EQ(Read(Wire("7ffffff0"), attr), 0u);
    EXPECT_EQ(attr._flags, 0x7ffffff0u);
}

} // namespace
