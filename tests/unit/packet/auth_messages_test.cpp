#include <brantle/packet/auth_messages.h>

#include <gtest/gtest.h>

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/signature.h>

#include "decode.h"
#include "message_table.h"

using namespace cindral;

namespace {

TEST(PacketUserAuthRequest, FieldsAreTheArguments) {
    PacketUserAuthNoneRequest const none("user", "service");
    EXPECT_STREQ(none._user.Text(), "user");
    EXPECT_STREQ(none._service.Text(), "service");
    EXPECT_STREQ(none._method.Text(), "none");
    PacketUserAuthInteractive const interactive("user", "service", "sub");
    EXPECT_STREQ(interactive._method.Text(), "keyboard-interactive");
    EXPECT_STREQ(interactive._language.Text(), "");
    EXPECT_STREQ(interactive._submethods.Text(), "sub");
}

TEST(PacketUserAuthPubkeyRequest, KeyAndSignatureAreReferences) {
    PublicKey key(Bytes(KEY_BLOB));
    Signature signature(Bytes(SIGNATURE_BLOB));
    PacketUserAuthPubkeyRequest const query("user", "service", "ssh-rsa", key);
    EXPECT_EQ(query._key, &key);
    EXPECT_EQ(query._signatureBlob, nullptr);
    PacketUserAuthPubkeyRequest const request("user", "service", "ssh-rsa", key, &signature);
    EXPECT_EQ(request._key, &key);
    EXPECT_EQ(request._signatureBlob, &signature);
}

TEST(PacketUserAuthPubkeyRequest, NullSignatureMakesItTheQuery) {
    BlockCipher cipher;
    PublicKey key(Bytes(KEY_BLOB));
    PacketUserAuthPubkeyRequest request("me", "svc", "ssh-rsa", key, nullptr);
    EXPECT_EQ(Text(request.Payload(cipher)),
              Wire("32 00000002 'me' 00000003 'svc' 00000009 'publickey' 00 00000007 'ssh-rsa' 0000001b") +
                  KEY_BLOB);
}

TEST(PacketUserAuthPasswdRequest, PasswordIsWipedInTheCallersString) {
    BlockCipher cipher;
    String_t password("secret");
    String_t const other("secret");
    {
        PacketUserAuthPasswdRequest request("me", "svc", password);
        EXPECT_EQ(request._password._rep, password._rep);
        request.Payload(cipher);
        EXPECT_STREQ(password.Text(), "secret");
    }
    EXPECT_EQ(std::string(password.Text(), 7), std::string(7, '\0'));
    EXPECT_STREQ(other.Text(), "secret");
}

TEST(PacketUserAuthPasswdRequest, EncodedBytesOutliveTheWipe) {
    BlockCipher cipher;
    ByteString payload;
    {
        PacketUserAuthPasswdRequest request("me", "svc", "secret");
        payload = request.Payload(cipher);
    }
    EXPECT_EQ(Text(payload),
              Wire("32 00000002 'me' 00000003 'svc' 00000008 'password' 00 00000006 'secret'"));
}

TEST(PacketUserAuthPasswdRequest, EmptyPasswordNeedsNoWipe) {
    String_t const none;
    String_t const empty("");
    {
        PacketUserAuthPasswdRequest const first("me", "svc", none);
        PacketUserAuthPasswdRequest const second("me", "svc", empty);
    }
    EXPECT_EQ(none.Text(), nullptr);
    EXPECT_STREQ(empty.Text(), "");
}

TEST(PacketUserAuthFailure, FieldsAreRead) {
    auto const failure = Decode<PacketUserAuthFailure>(Wire("33 00000012 'publickey,password' 01"));
    EXPECT_STREQ(failure._methods.Text(), "publickey,password");
    EXPECT_EQ(failure._partialSuccess, 1);
    EXPECT_EQ(Decode<PacketUserAuthFailure>(Wire("33 00000000 02"))._partialSuccess, 2);
}

TEST(PacketUserAuthBanner, FieldsAreRead) {
    auto const banner = Decode<PacketUserAuthBanner>(Wire("35 00000006 'hello' 0a 00000002 'en'"));
    EXPECT_STREQ(banner._message.Text(), "hello\n");
    EXPECT_STREQ(banner._language.Text(), "en");
}

TEST(PacketUserAuthBanner, MissingLanguageIsAPrematureEnd) {
    ExpectPrematureEnd([] {
        PacketDecoder decoder(Bytes(Framed(Wire("35 00000005 'hello'"))));
        PacketUserAuthBanner banner(decoder);
    });
}

TEST(PacketUserAuthPkOk, FieldsAreRead) {
    auto const ok = Decode<PacketUserAuthPkOk>(Wire("3c 00000007 'ssh-rsa' 0000001b") + KEY_BLOB);
    EXPECT_STREQ(ok._algorithm.Text(), "ssh-rsa");
    ASSERT_NE(ok._key._rep, nullptr);
    EXPECT_EQ(Text(ok._key._rep->EncodeSSH()), KEY_BLOB);
}

TEST(PacketUserAuthPkOk, MalformedKeyIsNoKey) {
    BlockCipher cipher;
    EXPECT_EQ(Decode<PacketUserAuthPkOk>(Wire("3c 00000007 'ssh-rsa' 00000003 'abc'"))._key._rep, nullptr);
    PacketUserAuthPkOk ok("ssh-rsa", Bytes("abc"));
    EXPECT_EQ(Text(ok.Payload(cipher)), Wire("3c 00000007 'ssh-rsa' 00000000"));
}

TEST(PacketUserAuthInfoReq, FieldsAndPromptsAreRead) {
    auto const request = Decode<PacketUserAuthInfoReq>(Wire(
        "3c 00000004 'name' 00000004 'text' 00000002 'en' 00000002 00000005 'User:' 01 00000005 'Code:' 00"));
    EXPECT_STREQ(request._name.Text(), "name");
    EXPECT_STREQ(request._instruction.Text(), "text");
    EXPECT_STREQ(request._language.Text(), "en");
    ASSERT_EQ(request._prompts.Len(), 2u);
    EXPECT_STREQ(request._prompts[0]->_text.Text(), "User:");
    EXPECT_EQ(request._prompts[0]->_echo, 1);
    EXPECT_STREQ(request._prompts[1]->_text.Text(), "Code:");
    EXPECT_EQ(request._prompts[1]->_echo, 0);
}

TEST(PacketUserAuthInfoReq, NoPromptsGiveAnEmptyList) {
    auto const request = Decode<PacketUserAuthInfoReq>(Wire("3c 00000000 00000000 00000000 00000000"));
    EXPECT_EQ(request._prompts.Len(), 0u);
}

TEST(PacketUserAuthInfoReq, PromptCountIsLimitedByThePacket) {
    ExpectPrematureEnd([] {
        PacketDecoder decoder(Bytes(Framed(Wire("3c 00000000 00000000 00000000 ffffffff 00000001 'a' 01"))));
        PacketUserAuthInfoReq request(decoder);
    });
}

TEST(PacketUserAuthInfoReq, MessageNumberIsSharedWithPkOk) {
    ExpectError<SshProtocolError>("expected USERAUTH_PK_OK package, received", "51",
                                  [] { Decode<PacketUserAuthPkOk>(Wire("33 00000000 00")); });
    EXPECT_EQ(Decode<PacketUserAuthPkOk>(Wire("3c 00000000 00000000"))._type, 60);
    EXPECT_EQ(Decode<PacketUserAuthInfoReq>(Wire("3c 00000000 00000000 00000000 00000000"))._type, 60);
}

TEST(PacketUserAuthInfoResp, ListIsCopied) {
    BlockCipher cipher;
    TOList<String_t> answers;
    answers.Append("one");
    PacketUserAuthInfoResp response(answers);
    answers.Clear();
    EXPECT_EQ(Text(response.Payload(cipher)), Wire("3d 00000001 00000003 'one'"));
}

} // namespace
