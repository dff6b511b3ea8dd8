#include <brantle/packet/packet_decoder.h>

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include "wire.h"

using namespace cindral;

namespace {

std::string const EXCEEDED = "string length exceeds packet length";
std::string const ADDITIONAL = "additional characters in packet after padding";

std::string Decimal(BigNum const& number) {
    char* const text = BN_bn2dec(number._bn);
    std::string const copy = text;
    OPENSSL_free(text);
    return copy;
}

TEST(PacketDecoder, NumbersAreBigEndian) {
    PacketDecoder decoder(Bytes(Wire("5e fe 02 0102 01020304 0102030405060708")));
    EXPECT_EQ(decoder.ReadTypeCode(), 94);
    EXPECT_EQ(decoder.ReadByte(), 254);
    EXPECT_EQ(decoder.ReadBool(), 2);
    EXPECT_EQ(decoder.ReadShort(), 0x0102);
    EXPECT_EQ(decoder.ReadInt(), 0x01020304u);
    EXPECT_EQ(decoder.ReadLong(), 0x0102030405060708u);
}

TEST(PacketDecoder, HighBytesAreNotNegative) {
    PacketDecoder decoder(Bytes(Wire("ff ff ff ffff ffffffff")));
    EXPECT_EQ(decoder.ReadTypeCode(), 255);
    EXPECT_EQ(decoder.ReadByte(), 255);
    EXPECT_EQ(decoder.ReadBool(), 255);
    EXPECT_EQ(decoder.ReadShort(), 65535);
    EXPECT_EQ(decoder.ReadInt(), 4294967295u);
}

TEST(PacketDecoder, BytesAreCopiedAndValuesShared) {
    unsigned char bytes[] = {1, 2};
    PacketDecoder copy(bytes, 2);
    bytes[0] = 9;
    EXPECT_EQ(copy.ReadByte(), 1);
    ByteString const value = Bytes("ab");
    EXPECT_EQ(PacketDecoder(value)._data._rep, value._rep);
}

TEST(PacketDecoder, TruncatedNumberIsAPrematureEnd) {
    ExpectPrematureEnd([] { PacketDecoder().ReadByte(); });
    ExpectPrematureEnd([] { PacketDecoder().ReadBool(); });
    ExpectPrematureEnd([] { PacketDecoder().ReadTypeCode(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("01"))).ReadShort(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("010203"))).ReadInt(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("01020304050607"))).ReadLong(); });
}

TEST(PacketDecoder, StringIsTerminated) {
    PacketDecoder decoder(Bytes(Wire("00000003 'abc' 'xyz'")));
    String_t const text = decoder.ReadString();
    EXPECT_STREQ(text.Text(), "abc");
    EXPECT_EQ(decoder.ReadByte(), 'x');
}

TEST(PacketDecoder, StringKeepsZeroBytes) {
    PacketDecoder decoder(Bytes(Wire("00000003 610062")));
    EXPECT_EQ(std::string(decoder.ReadString().Text(), 4), Wire("61006200"));
}

TEST(PacketDecoder, EmptyStringIsAllocated) {
    PacketDecoder decoder(Bytes(Wire("00000000")));
    String_t const text = decoder.ReadString();
    ASSERT_NE(text.Text(), nullptr);
    EXPECT_STREQ(text.Text(), "");
}

TEST(PacketDecoder, BytesHaveTheirLengthOrTheOneRequested) {
    PacketDecoder decoder(Bytes(Wire("00000003 610062 00000000 'xyz'")));
    EXPECT_EQ(Text(decoder.ReadBytes()), Wire("610062"));
    EXPECT_EQ(decoder.ReadBytes().Length(), 0u);
    EXPECT_EQ(Text(decoder.ReadBytes(2)), "xy");
    EXPECT_EQ(decoder.ReadBytes(0).Length(), 0u);
    EXPECT_EQ(Text(decoder.ReadBytes(1)), "z");
    ExpectPrematureEnd([&] { decoder.ReadBytes(1); });
}

TEST(PacketDecoder, LengthAboveThatOfThePacketIsRefused) {
    std::string const tooLong = Wire("00000008 'abc'");
    ExpectError<SshProtocolError>(EXCEEDED, "", [&] { PacketDecoder(Bytes(tooLong)).ReadString(); });
    ExpectError<SshProtocolError>(EXCEEDED, "", [&] { PacketDecoder(Bytes(tooLong)).ReadBytes(); });
    std::string const huge = Wire("ffffffff 'abc'");
    ExpectError<SshProtocolError>(EXCEEDED, "", [&] { PacketDecoder(Bytes(huge)).ReadString(); });
    ExpectError<SshProtocolError>(EXCEEDED, "", [&] { PacketDecoder(Bytes(huge)).ReadBytes(); });
}

TEST(PacketDecoder, LengthBeyondTheRestOfThePacketFailsAtItsEnd) {
    for (char const* line : {"00000007 'abc'", "00000004 'abc'"}) {
        ExpectPrematureEnd([&] { PacketDecoder(Bytes(Wire(line))).ReadString(); });
        ExpectPrematureEnd([&] { PacketDecoder(Bytes(Wire(line))).ReadBytes(); });
    }
}

TEST(PacketDecoder, RawBytesAfterTheEndAreAPrematureEnd) {
    for (unsigned int length : {3u, 4u, 4294967295u}) {
        ExpectPrematureEnd([&] { PacketDecoder(Bytes("ab")).ReadBytes(length); });
    }
}

TEST(PacketDecoder, MpintsMayBeNegative) {
    PacketDecoder decoder(Bytes(Wire("00000002 0080 00000002 edcc 00000000")));
    EXPECT_EQ(Decimal(decoder.ReadBignum2()), "128");
    EXPECT_EQ(Decimal(decoder.ReadBignum2()), "-4660");
    EXPECT_EQ(Decimal(decoder.ReadBignum2()), "0");
}

TEST(PacketDecoder, OlderBignumFormStartsWithTheBitCount) {
    EXPECT_EQ(Decimal(PacketDecoder(Bytes(Wire("0009 01ff"))).ReadBignum()), "511");
}

TEST(PacketDecoder, TruncatedBignumIsAPrematureEnd) {
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("00000003 0102"))).ReadBignum2(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("ffffffff 0102"))).ReadBignum2(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("0009 01"))).ReadBignum(); });
}

TEST(PacketDecoder, StringListIsReadInOrder) {
    TOList<String_t> const list =
        PacketDecoder(Bytes(Wire("00000003 00000003 'one' 00000000 00000003 'two'"))).ReadStringList();
    ASSERT_EQ(list.Len(), 3u);
    EXPECT_STREQ(list[0]->Text(), "one");
    EXPECT_STREQ(list[1]->Text(), "");
    EXPECT_STREQ(list[2]->Text(), "two");
}

TEST(PacketDecoder, EmptyStringListIsEmpty) {
    EXPECT_EQ(PacketDecoder(Bytes(Wire("00000000"))).ReadStringList().Len(), 0u);
}

TEST(PacketDecoder, StringListWithAMissingStringFails) {
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("00000002 00000003 'one'"))).ReadStringList(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("ffffffff 00000000"))).ReadStringList(); });
    ExpectError<SshProtocolError>(EXCEEDED, "", [] {
        PacketDecoder(Bytes(Wire("00000002 00000003 'one' 00000100 'two'"))).ReadStringList();
    });
}

TEST(PacketDecoder, AssignSetsThePacketOfAnEmptyDecoder) {
    ByteString const value = Bytes(Wire("0102"));
    PacketDecoder decoder;
    decoder.Assign(value);
    EXPECT_EQ(decoder._data._rep, value._rep);
    EXPECT_EQ(decoder.ReadShort(), 0x0102);
}

TEST(PacketDecoder, AssignStartsAtTheFront) {
    PacketDecoder decoder(Bytes(Wire("01020304")));
    decoder.ReadShort();
    decoder.Assign(Bytes(Wire("0a0b 00000003 'abc'")));
    EXPECT_EQ(decoder.ReadShort(), 0x0a0b);
    EXPECT_STREQ(decoder.ReadString().Text(), "abc");
}

TEST(PacketDecoder, AssignAtTheExactEndContinues) {
    PacketDecoder decoder(Bytes(Wire("01")));
    decoder.ReadByte();
    decoder.Assign(Bytes(Wire("02")));
    EXPECT_EQ(decoder.ReadByte(), 2);
}

TEST(PacketDecoder, AssignKeepsTheStreamState) {
    PacketDecoder decoder(Bytes(Wire("01")));
    decoder.Skip(1);
    decoder.Assign(Bytes(Wire("02 03")));
    EXPECT_EQ(decoder.ReadByte(), 2);
    EXPECT_NO_THROW(decoder.Skip(0));
}

TEST(PacketDecoder, SkipStopsAtTheEnd) {
    EXPECT_NO_THROW(PacketDecoder().Skip(0));
    EXPECT_NO_THROW(PacketDecoder(Bytes("abc")).Skip(3));
    EXPECT_NO_THROW(PacketDecoder(Bytes(Wire("ffff"))).Skip(2));
}

TEST(PacketDecoder, SkipToleratesTheEnd) {
    EXPECT_NO_THROW(PacketDecoder(Bytes("abc")).Skip(4));
    EXPECT_NO_THROW(PacketDecoder(Bytes("abc")).Skip(255));
    EXPECT_NO_THROW(PacketDecoder(Bytes("abc")).Skip(4294967295u));
    EXPECT_NO_THROW(PacketDecoder().Skip(1));
}

TEST(PacketDecoder, ByteAfterThePaddingIsRefusedWithTheNameOfTheMessage) {
    ExpectError<SshProtocolError>(ADDITIONAL, "SSH_MSG_CHANNEL_DATA",
                                  [] { PacketDecoder(Bytes(Wire("00 5e 00"))).Skip(2); });
    ExpectError<SshProtocolError>(ADDITIONAL, "SSH_MSG_CHANNEL_DATA",
                                  [] { PacketDecoder(Bytes(Wire("00 5e ff"))).Skip(2); });
    ExpectError<SshProtocolError>(ADDITIONAL, "UNKNOWN_MESSAGE",
                                  [] { PacketDecoder(Bytes(Wire("00 65 00"))).Skip(0); });
}

TEST(PacketDecoder, NamelessMessageHasAnEmptyDetail) {
    ExpectError<SshProtocolError>(ADDITIONAL, "", [] { PacketDecoder(Bytes(Wire("00 07 00"))).Skip(2); });
    ExpectError<SshProtocolError>(ADDITIONAL, "", [] { PacketDecoder(Bytes(Wire("5e"))).Skip(0); });
}

TEST(PacketDecoder, ViewIsAStringInPlace) {
    PacketDecoder decoder(Bytes(Wire("07 00000003 610062 00000000 'x'")));
    decoder.ReadByte();
    PacketDecoder::View const bytes = decoder.ReadView();
    EXPECT_EQ(bytes._start, 5u);
    EXPECT_EQ(bytes._length, 3u);
    EXPECT_EQ(decoder.ReadView()._length, 0u);
    EXPECT_EQ(decoder.ReadByte(), 'x');
}

TEST(PacketDecoder, ViewIsRefusedLikeTheString) {
    ExpectError<SshProtocolError>(EXCEEDED, "",
                                  [] { PacketDecoder(Bytes(Wire("00000008 'abc'"))).ReadView(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("00000004 'abc'"))).ReadView(); });
    ExpectPrematureEnd([] { PacketDecoder(Bytes(Wire("0000"))).ReadView(); });
}

} // namespace
