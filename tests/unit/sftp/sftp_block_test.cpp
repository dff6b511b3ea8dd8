#include <brantle/sftp/sftp_block.h>

#include <gtest/gtest.h>

#include <brantle/sftp/sftp_replies.h>
#include <brantle/sftp/sftp_requests.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

TEST(SftpDataView, BytesMayStayInTheCallersMemory) {
    std::string const data = std::string(40000, 'a') + "b";
    SftpDataView const source{data.data(), 40001};
    ByteString const payload = SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 2, source).Payload();
    EXPECT_EQ(Text(payload), Wire("06 00000001 00000001 'h' 0000000000000002 00009c41") + data);
    EXPECT_EQ(Text(SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 2, SftpDataView()).Payload()),
              Wire("06 00000001 00000001 'h' 0000000000000002 00000000"));
}

TEST(SftpBufferView, BytesAreStoredInTheCallersMemory) {
    char memory[] = "......";
    SftpBufferView target{memory, 3};
    SftpPacketData const data(Bytes(Wire("67 00000007 00000003 'abc'")), target);
    EXPECT_EQ(data._id, 7u);
    EXPECT_EQ(data._data.Length(), 0u);
    EXPECT_EQ(target._length, 3u);
    EXPECT_STREQ(memory, "abc...");
}

TEST(SftpBufferView, BytesBeyondTheRoomAreCountedButNotStored) {
    char memory[] = "......";
    SftpBufferView target{memory, 3};
    std::string const payload = Wire("67 00000007 000001f5") + std::string(501, 'x');
    SftpPacketData(Bytes(payload), target);
    EXPECT_EQ(target._length, 501u);
    EXPECT_STREQ(memory, "......");
}

TEST(SftpBufferView, MalformedDataIsRefused) {
    char memory[4];
    SftpBufferView target{memory, 4};
    ExpectError<SshProtocolError>("expected FXP_DATA package, received", "101",
                                  [&] { SftpPacketData(Bytes(Wire("65 00000007")), target); });
    for (char const* bytes : {"", "0000", "00000003 'ab'", "00000005 'abcd'", "ffffffff 'abcd'"}) {
        ExpectError<SshProtocolError>("input too short", "", [&] {
            SftpPacketData(Bytes(Wire("67 00000007" + std::string(bytes))), target);
        });
    }
}

} // namespace
