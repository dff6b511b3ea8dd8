#include <brantle/packet/transport_messages.h>

#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>

#include "decode.h"

using namespace cindral;

namespace {

TEST(PacketDisconnect, FieldsAreRead) {
    auto const disconnect = Decode<PacketDisconnect>(Wire("01 8000000b 00000003 'bye' 00000002 'en'"));
    EXPECT_EQ(static_cast<unsigned int>(disconnect._reason), 0x8000000bu);
    EXPECT_STREQ(disconnect._description.Text(), "bye");
    EXPECT_STREQ(disconnect._language.Text(), "en");
}

TEST(PacketDisconnect, LongTextsAreWrittenWhole) {
    BlockCipher cipher;
    std::string const text(5000, 't');
    PacketDisconnect disconnect(2, text.c_str(), "");
    EXPECT_EQ(Text(disconnect.Payload(cipher)), Wire("01 00000002 00001388") + text + Wire("00000000"));
}

TEST(PacketIgnore, DataSurvivesARoundTrip) {
    BlockCipher cipher;
    auto ignore = Decode<PacketIgnore>(Wire("02 00000003 610062"));
    EXPECT_EQ(Text(ignore._data), Wire("610062"));
    EXPECT_EQ(Text(ignore.Payload(cipher)), Wire("02 00000003 610062"));
}

TEST(PacketService, NameSurvivesARoundTrip) {
    BlockCipher cipher;
    auto request = Decode<PacketServiceRequest>(Wire("05 00000003 'svc'"));
    EXPECT_STREQ(request._service.Text(), "svc");
    EXPECT_EQ(Text(request.Payload(cipher)), Wire("05 00000003 'svc'"));
    auto accept = Decode<PacketServiceAccept>(Wire("06 00000003 'svc'"));
    EXPECT_STREQ(accept._service.Text(), "svc");
    EXPECT_EQ(Text(accept.Payload(cipher)), Wire("06 00000003 'svc'"));
}

TEST(PacketService, AcceptWithExtraDataIsRefused) {
    ExpectError<SshProtocolError>("additional characters in packet after padding", "SSH_MSG_SERVICE_ACCEPT",
                                  [] { Decode<PacketServiceAccept>(Wire("06 00000003 'svc' 00000000")); });
}

} // namespace
