#include <brantle/packet/kex_messages.h>

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/mac.h>

#include "decode.h"
#include "message_table.h"

using namespace cindral;

namespace {

BigNum NumberOfBits(int bits) {
    BigNum number;
    BN_set_bit(number._bn, bits - 1);
    return number;
}

std::string const TEN_LISTS = "00000001 'a' 00000001 'b' 00000001 'c' 00000001 'd' 00000001 'e'"
                              "00000001 'f' 00000001 'g' 00000001 'h' 00000001 'i' 00000001 'j'";
std::string const COOKIE = "000102030405060708090a0b0c0d0e0f";

TEST(PacketKexInit, ClientOffersTheLibrarysAlgorithms) {
    BlockCipher cipher;
    PacketKexInit offer("kex-one,kex-two");
    EXPECT_EQ(offer._cookie.Length(), 16u);
    std::string const ciphers = "aes128-ctr,aes128-cbc,aes192-ctr,aes256-ctr,aes192-cbc,aes256-cbc,3des-cbc";
    std::string const macs = "hmac-sha1,hmac-sha1-96,hmac-md5,hmac-sha2-256,hmac-sha2-512";
    ASSERT_EQ(Text(BlockCipher::AvailableCiphers()), ciphers);
    ASSERT_EQ(Text(Mac::AvailableMacs()), macs);
    EXPECT_EQ(Text(offer.Payload(cipher)),
              Wire("14") + Text(offer._cookie) +
                  Wire("0000000f 'kex-one,kex-two' 0000000f 'ssh-rsa,ssh-dss'") + Wire("0000004a") + ciphers +
                  Wire("0000004a") + ciphers + Wire("0000003b") + macs + Wire("0000003b") + macs +
                  Wire("00000004 'none' 00000004 'none'") + Wire("00000000 00000000 00 00000000"));
}

TEST(PacketKexInit, ListsOfBothDirectionsShareTheirText) {
    PacketKexInit const offer("kex");
    EXPECT_EQ(offer._ciphersServerToClient._rep, offer._ciphersClientToServer._rep);
    EXPECT_EQ(offer._macsServerToClient._rep, offer._macsClientToServer._rep);
    EXPECT_EQ(offer._compressionServerToClient._rep, offer._compressionClientToServer._rep);
    EXPECT_EQ(offer._languagesServerToClient._rep, offer._languagesClientToServer._rep);
    EXPECT_EQ(offer._firstKexPacketFollows, 0);
}

TEST(PacketKexInit, EachOfferHasItsOwnCookie) {
    EXPECT_NE(Text(PacketKexInit("kex")._cookie), Text(PacketKexInit("kex")._cookie));
}

TEST(PacketKexInit, FieldsAreRead) {
    auto const offer = Decode<PacketKexInit>(Wire("14" + COOKIE + TEN_LISTS + "00 00000000"));
    EXPECT_EQ(Text(offer._cookie), Wire(COOKIE));
    EXPECT_STREQ(offer._kexAlgorithms.Text(), "a");
    EXPECT_STREQ(offer._hostKeyAlgorithms.Text(), "b");
    EXPECT_STREQ(offer._ciphersClientToServer.Text(), "c");
    EXPECT_STREQ(offer._ciphersServerToClient.Text(), "d");
    EXPECT_STREQ(offer._macsClientToServer.Text(), "e");
    EXPECT_STREQ(offer._macsServerToClient.Text(), "f");
    EXPECT_STREQ(offer._compressionClientToServer.Text(), "g");
    EXPECT_STREQ(offer._compressionServerToClient.Text(), "h");
    EXPECT_STREQ(offer._languagesClientToServer.Text(), "i");
    EXPECT_STREQ(offer._languagesServerToClient.Text(), "j");
    EXPECT_EQ(offer._firstKexPacketFollows, 0);
}

TEST(PacketKexInit, GuessFlagIsKeptAsReceived) {
    EXPECT_EQ(Decode<PacketKexInit>(Wire("14" + COOKIE + TEN_LISTS + "01 00000000"))._firstKexPacketFollows,
              1);
    EXPECT_EQ(Decode<PacketKexInit>(Wire("14" + COOKIE + TEN_LISTS + "fe 00000000"))._firstKexPacketFollows,
              254);
}

TEST(PacketKexInit, ReservedBytesMayBeAnything) {
    BlockCipher cipher;
    std::string const payload = Wire("14" + COOKIE + TEN_LISTS + "00 deadbeef");
    auto offer = Decode<PacketKexInit>(payload);
    EXPECT_EQ(Text(offer.Payload(cipher)), payload);
}

TEST(PacketNewKeys, AnyPayloadIsRefused) {
    ExpectError<SshProtocolError>("additional characters in packet after padding", "SSH_MSG_NEWKEYS",
                                  [] { Decode<PacketNewKeys>(Wire("15 00")); });
}

template <class Reply>
void ExpectReplyFields(char const* number) {
    auto const reply = Decode<Reply>(Wire(std::string(number) + "0000001b") + KEY_BLOB +
                                     Wire("00000002 0080 00000003 'sig'"));
    ASSERT_NE(reply._hostKey._rep, nullptr);
    EXPECT_EQ(Text(reply._hostKey._rep->EncodeSSH()), KEY_BLOB);
    EXPECT_TRUE(BN_is_word(reply._f._bn, 128));
    EXPECT_EQ(Text(reply._signature), "sig");
}

TEST(PacketKexDhReply, FieldsAreRead) { ExpectReplyFields<PacketKexDhReply>("1f"); }

TEST(PacketDhGexReply, FieldsAreRead) { ExpectReplyFields<PacketDhGexReply>("21"); }

TEST(PacketDhGexReply, MalformedHostKeyGivesNoKey) {
    auto const reply = Decode<PacketDhGexReply>(Wire("21 00000003 'abc' 00000001 05 00000000"));
    EXPECT_EQ(reply._hostKey._rep, nullptr);
    EXPECT_EQ(reply._signature.Length(), 0u);
}

TEST(PacketDhGexGroup, ModulusPrecedesGenerator) {
    auto const group = Decode<PacketDhGexGroup>(Wire("1f 00000003 00c001 00000001 02"));
    EXPECT_TRUE(BN_is_word(group._p._bn, 0xc001));
    EXPECT_TRUE(BN_is_word(group._g._bn, 2));
}

TEST(PacketDhGex, ReceivedClassesHaveNoPayload) {
    BlockCipher cipher;
    auto group = Decode<PacketDhGexGroup>(Wire("1f 00000003 00c001 00000001 02"));
    EXPECT_EQ(group.Payload(cipher).Length(), 0u);
}

TEST(PacketDhGexReq, BadSizesAreRefused) {
    ExpectError<InvalidArgument>("DhGexParameters::DhGexParameters", "min",
                                 [] { PacketDhGexReq(1023, 1024, 8192); });
}

TEST(PacketDhGexReq, BothLimitsAreInclusive) {
    PacketDhGexReq const request(1024, 1024, 8192);
    EXPECT_EQ(request.CheckNBits(NumberOfBits(1023)), 0);
    EXPECT_EQ(request.CheckNBits(NumberOfBits(1024)), 1);
    EXPECT_EQ(request.CheckNBits(NumberOfBits(8192)), 1);
    EXPECT_EQ(request.CheckNBits(NumberOfBits(8193)), 0);
    EXPECT_EQ(request.CheckNBits(BigNum()), 0);
    EXPECT_EQ(request.CheckNBits(BigNum(nullptr)), 0);
}

TEST(PacketDhGex, NumberIsCopiedFromTheArgument) {
    BigNum number = NumberOfBits(8);
    PacketDhGexInit const gex(number);
    PacketKexDhInit const fixed(number);
    BN_zero(number._bn);
    EXPECT_TRUE(BN_is_word(gex._e._bn, 128));
    EXPECT_TRUE(BN_is_word(fixed._e._bn, 128));
}

} // namespace
