#include <brantle/sftp/sftp_status.h>

#include <gtest/gtest.h>

#include "streamed.h"

using namespace cindral;

namespace {

TEST(SftpStatus, IsSuccessAtFirst) {
    SftpStatus const status;
    EXPECT_EQ(status._code, 0);
    EXPECT_EQ(Text(status._message), "");
    EXPECT_EQ(Text(status._language), "");
}

TEST(SftpStatus, IsACodeAndTwoTexts) {
    std::string const bytes = Wire("fffffffe 00000004 'text' 00000002 'en'");
    SftpStatus status;
    EXPECT_EQ(Read(bytes, status), 0u);
    EXPECT_EQ(status._code, -2);
    EXPECT_EQ(Text(status._message), "text");
    EXPECT_EQ(Text(status._language), "en");
    EXPECT_EQ(Written(status), bytes);
}

TEST(SftpStatus, EmptyTextIsMalformed) {
    SftpStatus status;
    EXPECT_EQ(Read(Wire("00000001 00000000 00000000"), status), SockStream::MALFORMED);
    EXPECT_EQ(status._code, 1);
    EXPECT_EQ(Read(Wire("00000001 00000000 000000"), status),
              SockStream::MALFORMED | SockStream::END_OF_INPUT);
}

} // namespace
