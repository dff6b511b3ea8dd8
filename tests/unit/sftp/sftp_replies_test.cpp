#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/sftp/sftp_replies.h>
#include <brantle/sftp/sftp_requests.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

std::string const FULL_TEXT(262144, 'x');

std::vector<std::string> Filenames(TOList<SftpName> const& names) {
    std::vector<std::string> filenames;
    for (TOListIterator<SftpName> name(names); name; ++name) filenames.push_back(Str(name->_filename));
    return filenames;
}

TEST(SftpPacketTest, TravelsAsOneByteString) {
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

TEST(SftpPacketTest, PayloadMayBeLargerThanAnyBuffer) {
    std::string const data = std::string(100000, 'a') + std::string(100000, 'b');
    ByteString const payload = SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 0, Bytes(data)).Payload();
    EXPECT_EQ(Str(payload), Wire("06 00000001 00000001 'h' 0000000000000000 00030d40") + data);
    EXPECT_EQ(Str(SftpPacketWrite(payload)._data), data);
}

TEST(SftpPacketTest, CopiesShareTheBytes) {
    SftpPacketInit const message(Bytes(Wire("01 00000003")));
    SftpPacketInit copy(message);
    EXPECT_EQ(copy.Payload()._rep, message._payload._rep);
}

TEST(SftpPacketTest, HandleSharesTheBytesGiven) {
    ByteString const bytes = Bytes("handle");
    EXPECT_EQ(SftpPacketClose(1, SftpFileHandle(bytes))._handle._bytes._rep, bytes._rep);
}

TEST(SftpPacketVersionTest, ExtensionsAfterItAreIgnored) {
    EXPECT_EQ(SftpPacketVersion(Bytes(Wire("02 00000003")))._version, 3u);
    SftpPacketVersion const extended(Bytes(Wire("02 00000003 00000001 'e' 00000001 '1'")));
    EXPECT_EQ(extended._version, 3u);
    EXPECT_EQ(extended._id, 0u);
}

TEST(SftpPacketOpenTest, LongestTextIsTaken) {
    std::string const after = Wire("0000001a 00000000");
    EXPECT_EQ(Str(SftpPacketOpen(Bytes(Wire("03 00000007 00040000") + FULL_TEXT + after))._filename),
              FULL_TEXT);
    ExpectError<SshProtocolError>("invalid string length in input", "", [&] {
        SftpPacketOpen(Bytes(Wire("03 00000007 00040001") + FULL_TEXT + 'x' + after));
    });
}

TEST(SftpPacketOpenTest, AttributesAreCopied) {
    SftpFileAttr attrs = SftpFileAttr::Default(0600);
    SftpPacketOpen open(7, "f", 1, attrs);
    SftpPacketMkdir mkdir(7, "d", attrs);
    attrs._permissions = 0;
    EXPECT_EQ(Str(open.Payload()), Wire("03 00000007 00000001 'f' 00000001 00000004 00000180"));
    EXPECT_EQ(Str(mkdir.Payload()), Wire("0e 00000007 00000001 'd' 00000004 00000180"));
}

TEST(SftpPacketOpenTest, EmptyTextIsWrittenThoughNotRead) {
    EXPECT_EQ(Str(SftpPacketOpen(7, String_t(), 1, SftpFileAttr()).Payload()),
              Wire("03 00000007 00000000 00000001 00000000"));
}

TEST(SftpPacketCloseTest, HandleMayBeEmpty) {
    EXPECT_EQ(Str(SftpPacketClose(7, SftpFileHandle()).Payload()), Wire("04 00000007 00000000"));
    EXPECT_EQ(SftpPacketClose(Bytes(Wire("04 00000007 00000000")))._handle._bytes.Length(), 0u);
}

TEST(SftpPacketStatTest, EndsInTheAttributesWanted) {
    EXPECT_EQ(Str(SftpPacketStat(17, 7, "p", 15).Payload()), Wire("11 00000007 00000001 'p' 0000000f"));
    EXPECT_EQ(Str(SftpPacketStat(7, 7, "p", 15).Payload()), Wire("07 00000007 00000001 'p' 0000000f"));
}

TEST(SftpPacketStatTest, OneTypeIsNotTheOther) {
    ExpectError<SshProtocolError>("expected FXP_LSTAT or FXP_STAT package, received", "17", [] {
        SftpPacketStat(7, Bytes(Wire("11 00000007 00000001 'p' 0000000f")));
    });
}

TEST(SftpPacketStatTest, NoTypeIsNotTypeZero) {
    ExpectError<SshProtocolError>("expected FXP_LSTAT or FXP_STAT package, received", "0",
                                  [] { SftpPacketStat(0, ByteString()); });
}

TEST(SftpPacketRenameTest, EndsInFlags) {
    EXPECT_EQ(Str(SftpPacketRename(7, "a", "b", 0).Payload()),
              Wire("12 00000007 00000001 'a' 00000001 'b' 00000000"));
}

TEST(SftpPacketSetstatTest, CallersAttributesAreReferredTo) {
    SftpFileAttr attrs;
    SftpPacketSetstat setstat(7, "p", attrs);
    SftpPacketFsetstat fsetstat(7, SftpFileHandle(), attrs);
    SftpPacketAttrs reply(7, attrs);
    attrs = SftpFileAttr::Default(0600);
    EXPECT_EQ(Str(setstat.Payload()), Wire("09 00000007 00000001 'p' 00000004 00000180"));
    EXPECT_EQ(Str(fsetstat.Payload()), Wire("0a 00000007 00000000 00000004 00000180"));
    EXPECT_EQ(Str(reply.Payload()), Wire("69 00000007 00000004 00000180"));
}

TEST(SftpPacketStatusTest, TextsMayBeEmpty) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00000000 00000000")));
    EXPECT_EQ(status._id, 7u);
    EXPECT_EQ(status._code, 1u);
    EXPECT_EQ(Str(status._message), "");
    EXPECT_EQ(Str(status._language), "");
}

TEST(SftpPacketStatusTest, EmptyMessageLeavesTheLanguageEmptyToo) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00000000 00000002 'en'")));
    EXPECT_EQ(Str(status._message), "");
    EXPECT_EQ(Str(status._language), "");
}

TEST(SftpPacketStatusTest, LanguageAloneMayBeEmpty) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00000002 'no' 00000000")));
    EXPECT_EQ(Str(status._message), "no");
    EXPECT_EQ(Str(status._language), "");
}

TEST(SftpPacketStatusTest, OverlongMessageIsLeftEmpty) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00040001") + FULL_TEXT + "x"));
    EXPECT_EQ(status._code, 1u);
    EXPECT_EQ(Str(status._message), "");
}

TEST(SftpPacketStatusTest, MissingFieldsAreRefused) {
    for (char const* line : {"65 00000007 00000001", "65 00000007 00000001 00000000",
                             "65 00000007 00000001 00000000 000000", "65 00000007 00000001 00000002 'n'"}) {
        ExpectError<SshProtocolError>("invalid input", "", [&] { SftpPacketStatus(Bytes(Wire(line))); });
    }
}

TEST(SftpPacketDataTest, MayBeEmpty) {
    EXPECT_EQ(SftpPacketData(Bytes(Wire("67 00000007 00000000")))._data.Length(), 0u);
    EXPECT_EQ(Str(SftpPacketData(7, ByteString()).Payload()), Wire("67 00000007 00000000"));
}

TEST(SftpPacketNameTest, EncodingWritesTheCountTwice) {
    TOList<SftpName> names;
    names.Append(SftpName())->_filename = "a";
    names.Append(SftpName())->_longname = "l";
    SftpPacketName message(7, names);
    EXPECT_EQ(message._count, 2u);
    EXPECT_EQ(Str(message.Payload()), Wire("68 00000007 00000002 00000002 00000001 'a' 00000000 00000000"
                                           "00000000 00000001 'l' 00000000"));
}

TEST(SftpPacketNameTest, DecodingTakesTheSecondCountForAName) {
    // The count reads as the length of a filename, which is then the first bytes of the name's own.
    SftpName name;
    name._filename = "a";
    name._longname = "l";
    for (int count : {1, 2}) {
        TOList<SftpName> sent;
        for (int i = 0; i < count; ++i) sent.Append(name);
        ByteString const payload = SftpPacketName(7, sent).Payload();
        TOList<SftpName> names;
        ExpectError<SshProtocolError>("input too short", "", [&] { SftpPacketName(payload, names); });
        EXPECT_EQ(names.Len(), 0u);
    }
}

TEST(SftpPacketNameTest, NoNamesAreTaken) {
    TOList<SftpName> names;
    EXPECT_EQ(SftpPacketName(Bytes(Wire("68 00000007 00000000")), names)._count, 0u);
    EXPECT_EQ(names.Len(), 0u);
}

TEST(SftpPacketNameTest, NamesAreAppended) {
    TOList<SftpName> names;
    names.Append(SftpName())->_filename = "first";
    SftpPacketName(Bytes(Wire("68 00000007 00000001 00000001 'a' 00000001 'l' 00000000")), names);
    EXPECT_EQ(Filenames(names), (std::vector<std::string>{"first", "a"}));
}

TEST(SftpPacketNameTest, NamesInFrontOfAFailureStay) {
    TOList<SftpName> names;
    ExpectError<SshProtocolError>("input too short", "", [&] {
        SftpPacketName(Bytes(Wire("68 00000007 ffffffff 00000001 'a' 00000001 'l' 00000000"
                                  "00000001 'b' 00000001 'l' 00000000 00000001 'c' 00000000 00000000")),
                       names);
    });
    EXPECT_EQ(Filenames(names), (std::vector<std::string>{"a", "b"}));
}

TEST(SftpPacketAttrsTest, ExtendedPairsAreDropped) {
    SftpFileAttr attrs;
    SftpPacketAttrs(Bytes(Wire("69 00000007 80000001 0000000000000005 00000001 00000001 'k' 00000002 'vv'")),
                    attrs);
    EXPECT_EQ(attrs._flags, 0x80000001u);
    EXPECT_EQ(attrs._size, 5u);
    EXPECT_EQ(Str(SftpPacketAttrs(8, attrs).Payload()), Wire("69 00000008 80000001 0000000000000005"));
}

TEST(SftpPacketAttrsTest, PairsEndWithTheInputWhateverTheirCount) {
    SftpFileAttr attrs;
    for (char const* pairs : {"", "ffffff", "ffffffff", "ffffffff 00000001 'k' 00000000", "00000001 00000000",
                              "00000001 00000000 00000001", "ffffffff 01000001 01000001"}) {
        ExpectError<SshProtocolError>("input too short", "", [&] {
            SftpPacketAttrs(Bytes(Wire("69 00000007 80000000" + std::string(pairs))), attrs);
        });
    }
}

TEST(SftpPacketAttrsTest, ManyPairsAreDropped) {
    std::string payload = Wire("69 00000007 80000000 000003e8");
    for (int i = 0; i < 1000; ++i) payload += Wire("00000003 'key' 00000005 'value'");
    SftpFileAttr attrs;
    EXPECT_EQ(SftpPacketAttrs(Bytes(payload), attrs)._id, 7u);
}

TEST(SftpPacketWriteTest, BytesMayLieInTheCallersMemory) {
    std::string const data = std::string(40000, 'a') + "b";
    SftpDataView const source{data.data(), 40001};
    ByteString const payload = SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 2, source).Payload();
    EXPECT_EQ(Str(payload), Wire("06 00000001 00000001 'h' 0000000000000002 00009c41") + data);
    EXPECT_EQ(Str(SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 2, SftpDataView()).Payload()),
              Wire("06 00000001 00000001 'h' 0000000000000002 00000000"));
}

TEST(SftpPacketWriteTest, BytesTooManyForAStreamAreLeftOutWithTheirLength) {
    ByteString data("x", 1);
    data._rep->_length = 0x80000000; // none of which is looked at
    EXPECT_EQ(Str(SftpPacketWrite(1, SftpFileHandle(Bytes("h")), 2, data).Payload()),
              Wire("06 00000001 00000001 'h' 0000000000000002"));
}

TEST(SftpPacketDataTest, BytesMayGoToTheCallersMemory) {
    char memory[] = "......";
    SftpBufferView target{memory, 3};
    SftpPacketData const data(Bytes(Wire("67 00000007 00000003 'abc'")), target);
    EXPECT_EQ(data._id, 7u);
    EXPECT_EQ(data._data.Length(), 0u);
    EXPECT_EQ(target._length, 3u);
    EXPECT_STREQ(memory, "abc...");
}

TEST(SftpPacketDataTest, MoreThanThereIsRoomForIsCountedAndNotStored) {
    char memory[] = "......";
    SftpBufferView target{memory, 3};
    std::string const payload = Wire("67 00000007 000001f5") + std::string(501, 'x');
    SftpPacketData(Bytes(payload), target);
    EXPECT_EQ(target._length, 501u);
    EXPECT_STREQ(memory, "......");
}

TEST(SftpPacketDataTest, BytesForTheCallersMemoryAreRefusedAsOthersAre) {
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
