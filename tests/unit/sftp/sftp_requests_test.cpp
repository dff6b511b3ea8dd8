#include <brantle/sftp/sftp_requests.h>

#include <gtest/gtest.h>

#include <brantle/sftp/sftp_replies.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

std::string const FULL_TEXT(262144, 'x');

TEST(SftpPacketClose, HandleSharesTheBytesGiven) {
    ByteString const bytes = Bytes("handle");
    EXPECT_EQ(SftpPacketClose(1, SftpFileHandle(bytes))._handle._bytes._rep, bytes._rep);
}

TEST(SftpPacketOpen, LongestTextIsAccepted) {
    std::string const after = Wire("0000001a 00000000");
    EXPECT_EQ(Text(SftpPacketOpen(Bytes(Wire("03 00000007 00040000") + FULL_TEXT + after))._filename),
              FULL_TEXT);
    ExpectError<SshProtocolError>("invalid string length in input", "", [&] {
        SftpPacketOpen(Bytes(Wire("03 00000007 00040001") + FULL_TEXT + 'x' + after));
    });
}

TEST(SftpPacketOpen, AttributesAreCopied) {
    SftpFileAttr attrs = SftpFileAttr::Default(0600);
    SftpPacketOpen open(7, "f", 1, attrs);
    SftpPacketMkdir mkdir(7, "d", attrs);
    attrs._permissions = 0;
    EXPECT_EQ(Text(open.Payload()), Wire("03 00000007 00000001 'f' 00000001 00000004 00000180"));
    EXPECT_EQ(Text(mkdir.Payload()), Wire("0e 00000007 00000001 'd' 00000004 00000180"));
}

TEST(SftpPacketOpen, EmptyTextIsWrittenButNotRead) {
    EXPECT_EQ(Text(SftpPacketOpen(7, String_t(), 1, SftpFileAttr()).Payload()),
              Wire("03 00000007 00000000 00000001 00000000"));
}

TEST(SftpPacketClose, HandleMayBeEmpty) {
    EXPECT_EQ(Text(SftpPacketClose(7, SftpFileHandle()).Payload()), Wire("04 00000007 00000000"));
    EXPECT_EQ(SftpPacketClose(Bytes(Wire("04 00000007 00000000")))._handle._bytes.Length(), 0u);
}

TEST(SftpPacketStat, EndsWithTheAttributesRequested) {
    EXPECT_EQ(Text(SftpPacketStat(17, 7, "p", 15).Payload()), Wire("11 00000007 00000001 'p' 0000000f"));
    EXPECT_EQ(Text(SftpPacketStat(7, 7, "p", 15).Payload()), Wire("07 00000007 00000001 'p' 0000000f"));
}

TEST(SftpPacketStat, StatAndLstatAreDistinct) {
    ExpectError<SshProtocolError>("expected FXP_LSTAT or FXP_STAT package, received", "17", [] {
        SftpPacketStat(7, Bytes(Wire("11 00000007 00000001 'p' 0000000f")));
    });
}

TEST(SftpPacketStat, EmptyPayloadIsNotTypeZero) {
    ExpectError<SshProtocolError>("expected FXP_LSTAT or FXP_STAT package, received", "0",
                                  [] { SftpPacketStat(0, ByteString()); });
}

TEST(SftpPacketRename, EndsWithFlags) {
    EXPECT_EQ(Text(SftpPacketRename(7, "a", "b", 0).Payload()),
              Wire("12 00000007 00000001 'a' 00000001 'b' 00000000"));
}

TEST(SftpPacketSetstat, AttributesAreHeldByReference) {
    SftpFileAttr attrs;
    SftpPacketSetstat setstat(7, "p", attrs);
    SftpPacketFsetstat fsetstat(7, SftpFileHandle(), attrs);
    SftpPacketAttrs reply(7, attrs);
    attrs = SftpFileAttr::Default(0600);
    EXPECT_EQ(Text(setstat.Payload()), Wire("09 00000007 00000001 'p' 00000004 00000180"));
    EXPECT_EQ(Text(fsetstat.Payload()), Wire("0a 00000007 00000000 00000004 00000180"));
    EXPECT_EQ(Text(reply.Payload()), Wire("69 00000007 00000004 00000180"));
}

TEST(SftpPacketWrite, BytesTooManyForAStreamAreOmittedWithTheirLength) {
    ByteString data("x", 1);
    data._rep->_length = 0x80000000; // none of which is read
    EXPECT_EQ(Text(SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 2, data).Payload()),
              Wire("06 00000001 00000001 'h' 0000000000000002"));
}

} // namespace
