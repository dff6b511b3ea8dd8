#include <brantle/packet/channel_messages.h>

#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>

#include "decode.h"

using namespace cindral;

namespace {

TEST(PacketOpenSessionChannel, FieldsAreReadWithAnyChannelType) {
    auto const open =
        Decode<PacketOpenSessionChannel>(Wire("5a 00000005 'other' 00000001 00000002 00000003"));
    EXPECT_STREQ(open._channelType.Text(), "other");
    EXPECT_EQ(open._senderChannel, 1u);
    EXPECT_EQ(open._windowSize, 2u);
    EXPECT_EQ(open._maxPacketSize, 3u);
}

TEST(PacketOpenTcpChannel, DirectOpenHasItsOriginator) {
    auto const open =
        Decode<PacketOpenTcpChannel>(Wire("5a 0000000c 'direct-tcpip' 00000001 00000002 00000003 00000004 "
                                          "'host' 00000016 00000002 'me' 00001000"));
    EXPECT_STREQ(open._channelType.Text(), "direct-tcpip");
    EXPECT_EQ(open._senderChannel, 1u);
    EXPECT_EQ(open._windowSize, 2u);
    EXPECT_EQ(open._maxPacketSize, 3u);
    EXPECT_STREQ(open._host.Text(), "host");
    EXPECT_EQ(open._port, 22u);
    EXPECT_STREQ(open._originatorHost.Text(), "me");
    EXPECT_EQ(open._originatorPort, 4096u);
}

TEST(PacketOpenTcpChannel, X11OpenHasOneAddress) {
    auto const open = Decode<PacketOpenTcpChannel>(
        Wire("5a 00000003 'x11' 00000001 00000002 00000003 00000009 '127.0.0.1' 00001770"));
    EXPECT_STREQ(open._channelType.Text(), "x11");
    EXPECT_STREQ(open._host.Text(), "127.0.0.1");
    EXPECT_EQ(open._port, 6000u);
    EXPECT_EQ(Text(open._originatorHost), "");
    EXPECT_EQ(open._originatorPort, 0u);
}

TEST(PacketOpenTcpChannel, ForwardedOpenWithItsOriginatorIsRefused) {
    ExpectError<SshProtocolError>(
        "additional characters in packet after padding", "SSH_MSG_CHANNEL_OPEN", [] {
            Decode<PacketOpenTcpChannel>(Wire("5a 0000000f 'forwarded-tcpip' 00000001 00000002 00000003"
                                              "00000004 'host' 00000016 00000002 'me' 00001000"));
        });
}

TEST(PacketOpenTcpChannel, ForwardedOpenWithOneAddressIsAccepted) {
    auto const open = Decode<PacketOpenTcpChannel>(
        Wire("5a 0000000f 'forwarded-tcpip' 00000001 00000002 00000003 00000004 'host' 00000016"));
    EXPECT_STREQ(open._host.Text(), "host");
    EXPECT_EQ(open._port, 22u);
    EXPECT_EQ(open._originatorPort, 0u);
}

TEST(PacketChannelOpenConfirmation, FieldsAreRead) {
    auto const confirmation =
        Decode<PacketChannelOpenConfirmation>(Wire("5b 00000001 00000002 80000003 00000004"));
    EXPECT_EQ(confirmation._recipientChannel, 1u);
    EXPECT_EQ(confirmation._senderChannel, 2u);
    EXPECT_EQ(confirmation._windowSize, 0x80000003u);
    EXPECT_EQ(confirmation._maxPacketSize, 4u);
}

TEST(PacketChannelOpenFailure, FieldsAreRead) {
    auto const failure =
        Decode<PacketChannelOpenFailure>(Wire("5c 00000001 00000004 00000004 'full' 00000002 'en'"));
    EXPECT_EQ(failure._recipientChannel, 1u);
    EXPECT_EQ(failure._reason, 4u);
    EXPECT_STREQ(failure._description.Text(), "full");
    EXPECT_STREQ(failure._language.Text(), "en");
}

TEST(PacketChannelWindowAdjust, FieldsAreRead) {
    auto const adjust = Decode<PacketChannelWindowAdjust>(Wire("5d 00000001 ffffffff"));
    EXPECT_EQ(adjust._recipientChannel, 1u);
    EXPECT_EQ(adjust._bytesToAdd, 4294967295u);
}

TEST(PacketChannelData, FieldsAreRead) {
    auto const data = Decode<PacketChannelData>(Wire("5e 00000001 00000004 64617400"));
    EXPECT_EQ(data._recipientChannel, 1u);
    EXPECT_EQ(Text(data._bytes), Wire("64617400"));
    EXPECT_EQ(Decode<PacketChannelData>(Wire("5e 00000001 00000000"))._bytes.Length(), 0u);
}

TEST(PacketChannelData, PointerIsCopiedAndValueShared) {
    char bytes[] = "data";
    PacketChannelData const copy(1, bytes, 4);
    bytes[0] = 'x';
    EXPECT_EQ(Text(copy._bytes), "data");
    ByteString const value = Bytes("data");
    EXPECT_EQ(PacketChannelData(1, value)._bytes._rep, value._rep);
}

TEST(PacketChannelData, LargeDataGrowsTheEncoder) {
    BlockCipher cipher;
    std::string bytes;
    for (unsigned int i = 0; i < 32768; ++i) bytes += static_cast<char>(i % 251);
    PacketChannelData data(9, bytes.data(), 32768);
    std::string const payload = Wire("5e 00000009 00008000") + bytes;
    EXPECT_EQ(Text(data.Payload(cipher)), payload);
    EXPECT_EQ(data._padLen, 10); // 4 + 1 + 32777 + 10 = 32792
    EXPECT_EQ(Text(Decode<PacketChannelData>(payload)._bytes), bytes);
}

TEST(PacketChannelExtendedData, FieldsAreRead) {
    auto const data = Decode<PacketChannelExtendedData>(Wire("5f 00000001 00000002 00000004 64617400"));
    EXPECT_EQ(data._recipientChannel, 1u);
    EXPECT_EQ(data._dataType, 2u);
    EXPECT_EQ(Text(data._bytes), Wire("64617400"));
}

TEST(PacketChannelEnd, FieldsAreRead) {
    EXPECT_EQ(Decode<PacketChannelEof>(Wire("60 00000007"))._recipientChannel, 7u);
    EXPECT_EQ(Decode<PacketChannelClose>(Wire("61 00000007"))._recipientChannel, 7u);
}

TEST(PacketChannelResponse, MessageNumberIsTheOneReceived) {
    for (int number : {99, 100, 0, 255}) {
        auto const response = Decode<PacketChannelResponse>(static_cast<char>(number) + Wire("00000007"));
        EXPECT_EQ(response._type, number);
        EXPECT_EQ(response._recipientChannel, 7u);
    }
}

TEST(PacketChannelResponse, ReceivedResponseIsWrittenWithItsMessageNumber) {
    BlockCipher cipher;
    auto response = Decode<PacketChannelResponse>(Wire("64 00000007"));
    EXPECT_EQ(Text(response.Payload(cipher)), Wire("64 00000007"));
}

TEST(PacketChannelData, DataMayStayInTheCallersMemory) {
    std::string const packet = Wire("04 5e 00000007 00000003 'abc' 00000000");
    PacketDecoder decoder(Bytes(packet));
    PacketDecoder::View bytes;
    PacketChannelData const data(decoder, bytes);
    EXPECT_EQ(data._recipientChannel, 7u);
    EXPECT_EQ(data._bytes.Length(), 0u);
    EXPECT_EQ(packet.substr(bytes._start, bytes._length), "abc");
    PacketDecoder surplus(Bytes(packet + "x"));
    EXPECT_THROW(PacketChannelData(surplus, bytes), SshProtocolError);
    PacketDecoder eof(Bytes(Wire("04 60 00000007 00000000")));
    EXPECT_THROW(PacketChannelData(eof, bytes), SshProtocolError);
}

} // namespace
