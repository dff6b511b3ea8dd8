#include <brantle/sftp/sftp_replies.h>

#include <gtest/gtest.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

std::string const FULL_TEXT(262144, 'x');

std::vector<std::string> Filenames(TOList<SftpName> const& names) {
    std::vector<std::string> filenames;
    for (TOListIterator<SftpName> name(names); name; ++name) filenames.push_back(Text(name->_filename));
    return filenames;
}

TEST(SftpPacketVersion, ExtensionsAfterItAreIgnored) {
    EXPECT_EQ(SftpPacketVersion(Bytes(Wire("02 00000003")))._version, 3u);
    SftpPacketVersion const extended(Bytes(Wire("02 00000003 00000001 'e' 00000001 '1'")));
    EXPECT_EQ(extended._version, 3u);
    EXPECT_EQ(extended._id, 0u);
}

TEST(SftpPacketStatus, TextsMayBeEmpty) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00000000 00000000")));
    EXPECT_EQ(status._id, 7u);
    EXPECT_EQ(status._code, 1u);
    EXPECT_EQ(Text(status._message), "");
    EXPECT_EQ(Text(status._language), "");
}

TEST(SftpPacketStatus, EmptyMessageLeavesTheLanguageEmptyToo) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00000000 00000002 'en'")));
    EXPECT_EQ(Text(status._message), "");
    EXPECT_EQ(Text(status._language), "");
}

TEST(SftpPacketStatus, OnlyTheLanguageMayBeEmpty) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00000002 'no' 00000000")));
    EXPECT_EQ(Text(status._message), "no");
    EXPECT_EQ(Text(status._language), "");
}

TEST(SftpPacketStatus, OverlongMessageIsReadAsEmpty) {
    SftpPacketStatus const status(Bytes(Wire("65 00000007 00000001 00040001") + FULL_TEXT + "x"));
    EXPECT_EQ(status._code, 1u);
    EXPECT_EQ(Text(status._message), "");
}

TEST(SftpPacketStatus, MissingFieldsAreRefused) {
    for (char const* line : {"65 00000007 00000001", "65 00000007 00000001 00000000",
                             "65 00000007 00000001 00000000 000000", "65 00000007 00000001 00000002 'n'"}) {
        ExpectError<SshProtocolError>("invalid input", "", [&] { SftpPacketStatus(Bytes(Wire(line))); });
    }
}

TEST(SftpPacketData, MayBeEmpty) {
    EXPECT_EQ(SftpPacketData(Bytes(Wire("67 00000007 00000000")))._data.Length(), 0u);
    EXPECT_EQ(Text(SftpPacketData(7, ByteString()).Payload()), Wire("67 00000007 00000000"));
}

TEST(SftpPacketName, EncodingWritesTheCountTwice) {
    TOList<SftpName> names;
    names.Append(SftpName())->_filename = "a";
    names.Append(SftpName())->_longname = "l";
    SftpPacketName message(7, names);
    EXPECT_EQ(message._count, 2u);
    EXPECT_EQ(Text(message.Payload()), Wire("68 00000007 00000002 00000002 00000001 'a' 00000000 00000000"
                                            "00000000 00000001 'l' 00000000"));
}

TEST(SftpPacketName, DecodingReadsTheSecondCountAsAName) {
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

TEST(SftpPacketName, EmptyListIsAccepted) {
    TOList<SftpName> names;
    EXPECT_EQ(SftpPacketName(Bytes(Wire("68 00000007 00000000")), names)._count, 0u);
    EXPECT_EQ(names.Len(), 0u);
}

TEST(SftpPacketName, NamesAreAppended) {
    TOList<SftpName> names;
    names.Append(SftpName())->_filename = "first";
    SftpPacketName(Bytes(Wire("68 00000007 00000001 00000001 'a' 00000001 'l' 00000000")), names);
    EXPECT_EQ(Filenames(names), (std::vector<std::string>{"first", "a"}));
}

TEST(SftpPacketName, NamesBeforeAFailureAreKept) {
    TOList<SftpName> names;
    ExpectError<SshProtocolError>("input too short", "", [&] {
        SftpPacketName(Bytes(Wire("68 00000007 ffffffff 00000001 'a' 00000001 'l' 00000000"
                                  "00000001 'b' 00000001 'l' 00000000 00000001 'c' 00000000 00000000")),
                       names);
    });
    EXPECT_EQ(Filenames(names), (std::vector<std::string>{"a", "b"}));
}

TEST(SftpPacketAttrs, ExtendedPairsAreDropped) {
    SftpFileAttr attrs;
    SftpPacketAttrs(Bytes(Wire("69 00000007 80000001 0000000000000005 00000001 00000001 'k' 00000002 'vv'")),
                    attrs);
    EXPECT_EQ(attrs._flags, 0x80000001u);
    EXPECT_EQ(attrs._size, 5u);
    EXPECT_EQ(Text(SftpPacketAttrs(8, attrs).Payload()), Wire("69 00000008 80000001 0000000000000005"));
}

TEST(SftpPacketAttrs, ExtendedPairsEndWithTheInputWhateverTheirCount) {
    SftpFileAttr attrs;
    for (char const* pairs : {"", "ffffff", "ffffffff", "ffffffff 00000001 'k' 00000000", "00000001 00000000",
                              "00000001 00000000 00000001", "ffffffff 01000001 01000001"}) {
        ExpectError<SshProtocolError>("input too short", "", [&] {
            SftpPacketAttrs(Bytes(Wire("69 00000007 80000000" + std::string(pairs))), attrs);
        });
    }
}

TEST(SftpPacketAttrs, ManyExtendedPairsAreDropped) {
    std::string payload = Wire("69 00000007 80000000 000003e8");
    for (int i = 0; i < 1000; ++i) payload += Wire("00000003 'key' 00000005 'value'");
    SftpFileAttr attrs;
    EXPECT_EQ(SftpPacketAttrs(Bytes(payload), attrs)._id, 7u);
}

} // namespace
