#include <brantle/sftp/sftp_file_handle.h>

#include <gtest/gtest.h>

#include "streamed.h"

using namespace cindral;

namespace {

TEST(SftpFileHandle, CopiesShareTheBytes) {
    ByteString const bytes = Bytes("handle");
    SftpFileHandle const handle(bytes);
    SftpFileHandle other;
    EXPECT_EQ(other._bytes.Length(), 0u);
    other = handle;
    EXPECT_EQ(other._bytes._rep, bytes._rep);
    SftpFileHandle& self = other;
    other = self;
    EXPECT_EQ(other._bytes._rep, bytes._rep);
    EXPECT_EQ(Text(other._bytes), "handle");
}

TEST(SftpFileHandle, IsBytes) {
    EXPECT_EQ(Written(SftpFileHandle(Bytes(Wire("00ff")))), Wire("00000002 00ff"));
    EXPECT_EQ(Written(SftpFileHandle()), Wire("00000000"));
    SftpFileHandle handle;
    EXPECT_EQ(Read(Wire("00000002 00ff"), handle), 0u);
    EXPECT_EQ(Text(handle._bytes), Wire("00ff"));
}

} // namespace
