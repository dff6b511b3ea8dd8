#include <brantle/packet/global_requests.h>

#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>

#include "decode.h"

using namespace cindral;

namespace {

TEST(PacketGlobalRequest, FieldsSurviveARoundTrip) {
    BlockCipher cipher;
    std::string const payload = Wire("50 0000000d 'tcpip-forward' 01 00000007 '0.0.0.0' 00001f90");
    auto request = Decode<PacketGlobalRequest>(payload);
    EXPECT_STREQ(request._request.Text(), "tcpip-forward");
    EXPECT_EQ(request._wantReply, 1);
    EXPECT_STREQ(request._address.Text(), "0.0.0.0");
    EXPECT_EQ(request._port, 8080u);
    EXPECT_EQ(Text(request.Payload(cipher)), payload);
}

TEST(PacketGlobalRequest, RequestWithoutAddressIsRefused) {
    ExpectPrematureEnd([] {
        PacketDecoder decoder(Bytes(Framed(Wire("50 00000009 'keepalive' 01"))));
        PacketGlobalRequest request(decoder);
    });
}

TEST(PacketRequestResult, MessageNumberIsTheOneReceived) {
    for (int number : {81, 82, 0, 255}) {
        EXPECT_EQ(Decode<PacketRequestResult>(std::string(1, static_cast<char>(number)))._type, number);
    }
}

TEST(PacketRequestResult, BoundPortIsRefused) {
    ExpectError<SshProtocolError>("additional characters in packet after padding", "SSH_MSG_REQUEST_SUCCESS",
                                  [] { Decode<PacketRequestResult>(Wire("51 00001f90")); });
}

TEST(PacketRequestResult, PayloadIsEmptyAndHasItsPadding) {
    BlockCipher cipher;
    PacketRequestResult result(81);
    EXPECT_EQ(result._type, 81);
    EXPECT_EQ(result._padLen, 0);
    EXPECT_EQ(result.Payload(cipher).Length(), 0u);
    EXPECT_EQ(result._payload.Length(), 0u);
    EXPECT_EQ(result._padLen, 11);
}

} // namespace
