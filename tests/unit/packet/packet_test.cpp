#include <brantle/packet/packet.h>

#include <map>

#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/packet/channel_messages.h>

#include "wire.h"

using namespace cindral;

namespace {

TEST(Packet, EveryMessageNumberHasItsName) {
    std::map<unsigned int, std::string> const names = {
        {1, "SSH_MSG_DISCONNECT"},
        {2, "SSH_MSG_IGNORE"},
        {3, "SSH_MSG_UNIMPLEMENTED"},
        {4, "SSH_MSG_DEBUG"},
        {5, "SSH_MSG_SERVICE_REQUEST"},
        {6, "SSH_MSG_SERVICE_ACCEPT"},
        {20, "SSH_MSG_KEXINIT"},
        {21, "SSH_MSG_NEWKEYS"},
        {30, "SSH_MSG_KEXDH_INIT"},
        {31, "SSH_MSG_KEXDH_REPLY"},
        {32, "SSH_MSG_KEX_DH_GEX_INIT"},
        {33, "SSH_MSG_KEX_DH_GEX_REPLY"},
        {34, "SSH_MSG_KEX_DH_GEX_REQUEST"},
        {50, "SSH_MSG_USERAUTH_REQUEST"},
        {51, "SSH_MSG_USERAUTH_FAILURE"},
        {52, "SSH_MSG_USERAUTH_SUCCESS"},
        {53, "SSH_MSG_USERAUTH_BANNER"},
        {60, "SSH_MSG_USERAUTH_INFO_REQUEST"},
        {61, "SSH_MSG_USERAUTH_INFO_RESPONSE"},
        {80, "SSH_MSG_GLOBAL_REQUEST"},
        {81, "SSH_MSG_REQUEST_SUCCESS"},
        {82, "SSH_MSG_REQUEST_FAILURE"},
        {90, "SSH_MSG_CHANNEL_OPEN"},
        {91, "SSH_MSG_CHANNEL_OPEN_CONFIRMATION"},
        {92, "SSH_MSG_CHANNEL_OPEN_FAILURE"},
        {93, "SSH_MSG_CHANNEL_WINDOW_ADJUST"},
        {94, "SSH_MSG_CHANNEL_DATA"},
        {95, "SSH_MSG_CHANNEL_EXTENDED_DATA"},
        {96, "SSH_MSG_CHANNEL_EOF"},
        {97, "SSH_MSG_CHANNEL_CLOSE"},
        {98, "SSH_MSG_CHANNEL_REQUEST"},
        {99, "SSH_MSG_CHANNEL_SUCCESS"},
        {100, "SSH_MSG_CHANNEL_FAILURE"},
    };
    for (unsigned int number = 0; number <= 100; ++number) {
        auto const name = names.find(number);
        if (name == names.end()) {
            EXPECT_EQ(Packet::MsgName(number), nullptr) << number;
        } else {
            EXPECT_EQ(Packet::MsgName(number), name->second) << number;
        }
    }
}

TEST(Packet, NumbersAboveTheTableAreUnknown) {
    for (unsigned int number : {101u, 255u, 4294967295u}) {
        EXPECT_STREQ(Packet::MsgName(number), "UNKNOWN_MESSAGE") << number;
    }
}

TEST(Packet, ConstantsHaveTheNumbersOfTheProtocol) {
    EXPECT_EQ(Packet::SSH_MSG_DISCONNECT, 1);
    EXPECT_EQ(Packet::SSH_MSG_IGNORE, 2);
    EXPECT_EQ(Packet::SSH_MSG_UNIMPLEMENTED, 3);
    EXPECT_EQ(Packet::SSH_MSG_DEBUG, 4);
    EXPECT_EQ(Packet::SSH_MSG_SERVICE_REQUEST, 5);
    EXPECT_EQ(Packet::SSH_MSG_SERVICE_ACCEPT, 6);
    EXPECT_EQ(Packet::SSH_MSG_KEXINIT, 20);
    EXPECT_EQ(Packet::SSH_MSG_NEWKEYS, 21);
    EXPECT_EQ(Packet::SSH_MSG_KEXDH_INIT, 30);
    EXPECT_EQ(Packet::SSH_MSG_KEX_DH_GEX_REQUEST_OLD, 30);
    EXPECT_EQ(Packet::SSH_MSG_KEXDH_REPLY, 31);
    EXPECT_EQ(Packet::SSH_MSG_KEX_DH_GEX_GROUP, 31);
    EXPECT_EQ(Packet::SSH_MSG_KEX_DH_GEX_INIT, 32);
    EXPECT_EQ(Packet::SSH_MSG_KEX_DH_GEX_REPLY, 33);
    EXPECT_EQ(Packet::SSH_MSG_KEX_DH_GEX_REQUEST, 34);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_REQUEST, 50);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_FAILURE, 51);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_SUCCESS, 52);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_BANNER, 53);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_PK_OK, 60);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_PASSWD_CHANGEREQ, 60);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_INFO_REQUEST, 60);
    EXPECT_EQ(Packet::SSH_MSG_USERAUTH_INFO_RESPONSE, 61);
    EXPECT_EQ(Packet::SSH_MSG_GLOBAL_REQUEST, 80);
    EXPECT_EQ(Packet::SSH_MSG_REQUEST_SUCCESS, 81);
    EXPECT_EQ(Packet::SSH_MSG_REQUEST_FAILURE, 82);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_OPEN, 90);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_OPEN_CONFIRMATION, 91);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_OPEN_FAILURE, 92);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_WINDOW_ADJUST, 93);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_DATA, 94);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_EXTENDED_DATA, 95);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_EOF, 96);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_CLOSE, 97);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_REQUEST, 98);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_SUCCESS, 99);
    EXPECT_EQ(Packet::SSH_MSG_CHANNEL_FAILURE, 100);

    EXPECT_EQ(Packet::SSH_DISCONNECT_HOST_NOT_ALLOWED_TO_CONNECT, 1);
    EXPECT_EQ(Packet::SSH_DISCONNECT_PROTOCOL_ERROR, 2);
    EXPECT_EQ(Packet::SSH_DISCONNECT_KEY_EXCHANGE_FAILED, 3);
    EXPECT_EQ(Packet::SSH_DISCONNECT_RESERVED, 4);
    EXPECT_EQ(Packet::SSH_DISCONNECT_MAC_ERROR, 5);
    EXPECT_EQ(Packet::SSH_DISCONNECT_COMPRESSION_ERROR, 6);
    EXPECT_EQ(Packet::SSH_DISCONNECT_SERVICE_NOT_AVAILABLE, 7);
    EXPECT_EQ(Packet::SSH_DISCONNECT_PROTOCOL_VERSION_NOT_SUPPORTED, 8);
    EXPECT_EQ(Packet::SSH_DISCONNECT_HOST_KEY_NOT_VERIFIABLE, 9);
    EXPECT_EQ(Packet::SSH_DISCONNECT_CONNECTION_LOST, 10);
    EXPECT_EQ(Packet::SSH_DISCONNECT_BY_APPLICATION, 11);
    EXPECT_EQ(Packet::SSH_DISCONNECT_TOO_MANY_CONNECTIONS, 12);
    EXPECT_EQ(Packet::SSH_DISCONNECT_AUTH_CANCELLED_BY_USER, 13);
    EXPECT_EQ(Packet::SSH_DISCONNECT_NO_MORE_AUTH_METHODS_AVAILABLE, 14);
    EXPECT_EQ(Packet::SSH_DISCONNECT_ILLEGAL_USER_NAME, 15);

    EXPECT_EQ(Packet::SSH_OPEN_ADMINISTRATIVELY_PROHIBITED, 1);
    EXPECT_EQ(Packet::SSH_OPEN_CONNECT_FAILED, 2);
    EXPECT_EQ(Packet::SSH_OPEN_UNKNOWN_CHANNEL_TYPE, 3);
    EXPECT_EQ(Packet::SSH_OPEN_RESOURCE_SHORTAGE, 4);
    EXPECT_EQ(Packet::SSH_EXTENDED_DATA_STDERR, 1);
}

TEST(Packet, NewMessageHasNoPayload) {
    BlockCipher cipher;
    Packet packet(94);
    EXPECT_EQ(packet._type, 94);
    EXPECT_EQ(packet._padLen, 0);
    EXPECT_EQ(packet._payload.Length(), 0u);
    EXPECT_EQ(packet.Payload(cipher).Length(), 0u);
}

TEST(Packet, ReceivedPacketKeepsItsPayload) {
    BlockCipher cipher;
    Packet packet(94, Bytes(Framed(Wire("5e 00000001"), 6)));
    EXPECT_EQ(packet._padLen, 6);
    EXPECT_EQ(Text(packet._payload), Wire("5e 00000001"));
    EXPECT_EQ(packet.Payload(cipher)._rep, packet._payload._rep);
}

TEST(Packet, EmptyPacketHasNoPayload) {
    for (ByteString const& raw : {ByteString(), ByteString(0u)}) {
        Packet packet(94, raw);
        EXPECT_EQ(packet._padLen, 0);
        EXPECT_EQ(packet._payload._rep, raw._rep);
    }
}

TEST(Packet, PacketOfOnlyAPaddingLengthHasNoPayload) {
    for (char const* raw : {"00", "ff"}) {
        EXPECT_EQ(Packet(94, Bytes(Wire(raw)))._payload.Length(), 0u) << raw;
    }
}

TEST(Packet, PaddingOfTheWholePacketLeavesNoPayload) {
    EXPECT_EQ(Packet(94, Bytes(Wire("03 5e 01 02")))._payload.Length(), 0u);
    EXPECT_EQ(Text(Packet(94, Bytes(Wire("02 5e 01 02")))._payload), Wire("5e"));
}

TEST(Packet, PaddingLargerThanThePacketKeepsAllAfterTheFirstByte) {
    Packet packet(94, Bytes(Wire("04 5e 01 02")));
    EXPECT_EQ(packet._padLen, 4);
    EXPECT_EQ(Text(packet._payload), Wire("5e 01 02"));
    EXPECT_EQ(Text(Packet(94, Bytes(Wire("ff 5e 01 02")))._payload), Wire("5e 01 02"));
}

TEST(Packet, MessageIsEncodedOnce) {
    BlockCipher cipher;
    PacketChannelEof eof(7);
    ByteString const first = eof.Payload(cipher);
    EXPECT_EQ(eof._padLen, 6); // 4 + 1 + 5 + 6 = 16
    eof._recipientChannel = 8;
    eof._padLen = 99;
    ByteString const second = eof.Payload(cipher);
    EXPECT_EQ(second._rep, first._rep);
    EXPECT_EQ(Text(second), Wire("60 00000007"));
    EXPECT_EQ(eof._padLen, 99);
}

TEST(Packet, PaddingFitsTheBlockSizeOfTheCipher) {
    BlockCipher cipher;
    cipher.Redefine("aes128-ctr", BlockCipher::ENCRYPT, Bytes(std::string(16, 'k')),
                    Bytes(std::string(16, 'v')));
    PacketChannelEof eof(7);
    eof.Payload(cipher);
    EXPECT_EQ(eof._padLen, 6); // 4 + 1 + 5 + 6 = 16
    PacketChannelWindowAdjust adjust(7, 1);
    adjust.Payload(cipher);
    EXPECT_EQ(adjust._padLen, 18); // 2 would be too few: 4 + 1 + 9 + 18 = 32
}

} // namespace
