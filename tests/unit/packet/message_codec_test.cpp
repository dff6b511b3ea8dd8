#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/exceptions.h>

#include "message_table.h"
#include "wire.h"

using namespace cindral;

namespace {

class MessageDecoding : public testing::TestWithParam<DecodedMessage> {
protected:
    std::unique_ptr<Packet> Decode(std::string const& packet) {
        PacketDecoder decoder(Bytes(packet));
        return GetParam()._decode(decoder);
    }
    std::string const& Payload() { return GetParam()._payload; }
    int Number() { return static_cast<unsigned char>(Payload()[0]); }
};

TEST_P(MessageDecoding, WholeMessageIsDecodedWithAnyPadding) {
    for (unsigned int padding : {0u, 4u, 19u, 255u}) {
        std::unique_ptr<Packet> const packet = Decode(Framed(Payload(), padding));
        EXPECT_EQ(packet->_type, Number());
    }
}

TEST_P(MessageDecoding, PayloadIsKeptOnlyWhereDocumented) {
    std::unique_ptr<Packet> const packet = Decode(Framed(Payload(), 6));
    if (GetParam()._keeps == Keeps::PAYLOAD) {
        BlockCipher cipher;
        EXPECT_EQ(Text(packet->_payload), Payload());
        EXPECT_EQ(packet->_padLen, 6);
        EXPECT_EQ(Text(packet->Payload(cipher)), Payload());
        EXPECT_EQ(packet->_padLen, 6);
    } else {
        EXPECT_EQ(packet->_payload.Length(), 0u);
        EXPECT_EQ(packet->_padLen, 0);
    }
}

TEST_P(MessageDecoding, ExtraByteIsRefused) {
    for (unsigned int padding : {0u, 8u}) {
        std::string const packet = Framed(Payload(), padding) + '\0';
        ExpectError<SshProtocolError>("additional characters in packet after padding",
                                      Packet::MsgName(static_cast<unsigned int>(Number())),
                                      [&] { Decode(packet); });
    }
}

TEST_P(MessageDecoding, MissingByteIsRefused) {
    std::string const cut = Payload().substr(0, Payload().size() - 1);
    ExpectPrematureEnd([&] { Decode(Framed(cut)); });
}

TEST_P(MessageDecoding, EveryTruncationIsRefused) {
    std::string const packet = Framed(Payload());
    for (std::size_t length = 0; length < packet.size(); ++length) {
        try {
            Decode(packet.substr(0, length));
            ADD_FAILURE() << length << " bytes were taken";
        } catch (BadInput const&) {
        } catch (SshProtocolError const& error) {
            EXPECT_STREQ(error.Text().Text(), "string length exceeds packet length");
        }
    }
}

TEST_P(MessageDecoding, PaddingMayBeTruncated) {
    EXPECT_EQ(Decode(Framed(Payload(), 8).substr(0, Payload().size() + 4))->_type, Number());
}

TEST_P(MessageDecoding, WrongMessageNumberIsRefusedWithTheTextOfTheClass) {
    std::string payload = Payload();
    for (int number : {0, 7, 94 ^ Number(), 255}) {
        payload[0] = static_cast<char>(number);
        if (GetParam()._wrongType) {
            ExpectError<SshProtocolError>(GetParam()._wrongType, std::to_string(number),
                                          [&] { Decode(Framed(payload)); });
        } else {
            EXPECT_EQ(Decode(Framed(payload))->_type, number);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Messages, MessageDecoding, testing::ValuesIn(DecodedMessages()),
                         [](auto const& instance) { return std::string(instance.param._class); });

class MessageEncoding : public testing::TestWithParam<EncodedMessage> {
protected:
    BlockCipher _cipher;
};

TEST_P(MessageEncoding, FieldsAreInWireOrder) {
    std::unique_ptr<Packet> const packet = GetParam()._build();
    EXPECT_EQ(packet->_payload.Length(), 0u);
    EXPECT_EQ(Text(packet->Payload(_cipher)), GetParam()._payload);
    EXPECT_EQ(Text(packet->_payload), GetParam()._payload);
    EXPECT_EQ(packet->_type, static_cast<unsigned char>(GetParam()._payload[0]));
}

TEST_P(MessageEncoding, PaddingFillsTheBlock) {
    std::unique_ptr<Packet> const packet = GetParam()._build();
    packet->Payload(_cipher);
    EXPECT_GE(packet->_padLen, 5);
    EXPECT_LE(packet->_padLen, 12);
    EXPECT_EQ((5 + GetParam()._payload.size() + static_cast<unsigned int>(packet->_padLen)) % 8, 0u);
}

TEST_P(MessageEncoding, PayloadIsEncodedOnce) {
    std::unique_ptr<Packet> const packet = GetParam()._build();
    ByteString const first = packet->Payload(_cipher);
    EXPECT_EQ(packet->Payload(_cipher)._rep, first._rep);
}

INSTANTIATE_TEST_SUITE_P(Messages, MessageEncoding, testing::ValuesIn(EncodedMessages()),
                         [](auto const& instance) { return std::string(instance.param._name); });

} // namespace
