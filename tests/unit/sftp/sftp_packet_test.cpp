#include <brantle/sftp/sftp_packet.h>

#include <gtest/gtest.h>

#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/sftp/sftp_requests.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

TEST(SftpPacket, IsSentAsOneByteString) {
    OStringBuffer sent;
    OSockStreamAdapter out(sent);
    out << SftpPacketInit(3).Payload() << endm;
    EXPECT_EQ(std::string(sent.Str(), sent.Len()), Wire("00000005 01 00000003"));

    IStringBuffer received(sent.Str(), sent.Len());
    ISockStreamAdapter in(received);
    ByteString payload;
    in >> payload;
    EXPECT_EQ(in.Status(), 0u);
    EXPECT_EQ(SftpPacketInit(payload)._version, 3u);
}

TEST(SftpPacket, PayloadMayBeLargerThanAnyBuffer) {
    std::string const data = std::string(100000, 'a') + std::string(100000, 'b');
    ByteString const payload = SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 0, Bytes(data)).Payload();
    EXPECT_EQ(Text(payload), Wire("06 00000001 00000001 'h' 0000000000000000 00030d40") + data);
    EXPECT_EQ(Text(SftpPacketWrite(payload)._data), data);
}

TEST(SftpPacket, CopiesShareTheBytes) {
    SftpPacketInit const message(Bytes(Wire("01 00000003")));
    SftpPacketInit copy(message);
    EXPECT_EQ(copy.Payload()._rep, message._payload._rep);
}

} // namespace
