// What authentication works with before anything is sent: the data to be signed and the key files.

#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/session/ssh_session.h>

#include "support/peer/peer_crypto.h"
#include "support/session/recording_callbacks.h"
#include "support/session/ssh_directory.h"

using cindral::PrivateKey;
using cindral::PublicKey;
using peer::KeyPair;

namespace {

class OpenSession : public cindral::SshSession {
public:
    OpenSession() : SshSession(CLIENT, 22, String_t("127.0.0.1")) {}

    using SshSession::_sessionId;
    using SshSession::MakeAuthData;
    using SshSession::ReadIdentity;
    using SshSession::ReadPubkey;
};

ByteString FromPeer(peer::Bytes const& bytes) {
    return ByteString(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

peer::Bytes ToPeer(ByteString const& bytes) {
    return bytes.Length() == 0 ? peer::Bytes() : peer::Bytes(bytes.Data(), bytes.Data() + bytes.Length());
}

peer::Bytes BlobOf(PublicKey const& key) { return key._rep ? ToPeer(key._rep->EncodeSSH()) : peer::Bytes(); }

class IdentityFiles : public testing::Test, protected SshDirectory {
protected:
    int ReadPubkey(std::string const& identity) { return session.ReadPubkey(publicKey, identity.c_str()); }
    int ReadIdentity(std::string const& identity, char const* password = "") {
        return session.ReadIdentity(privateKey, identity.c_str(), password, enter);
    }

    OpenSession session;
    PublicKey publicKey;
    PrivateKey privateKey;
    RecordingPassword enter{3};
};

} // namespace

TEST(MakeAuthData, IsTheSessionIdAndTheRequestWithoutSignature) {
    OpenSession session;
    session._sessionId = ByteString("0123456789abcdefghij", 20);
    for (KeyPair const* pair : {&KeyPair::UserRsa(), &KeyPair::UserDsa()}) {
        PublicKey const key(FromPeer(pair->Blob()));
        ASSERT_NE(key._rep, nullptr);
        peer::Bytes const expected = peer::Writer()
                                         .String("0123456789abcdefghij")
                                         .U8(50)
                                         .String("tester")
                                         .String("ssh-connection")
                                         .String("publickey")
                                         .U8(1)
                                         .String(pair->Type())
                                         .String(pair->Blob());
        EXPECT_EQ(peer::Difference(expected, ToPeer(session.MakeAuthData("ssh-connection", "tester", key))),
                  "");
    }
}

TEST(MakeAuthData, EmptyValuesAndTextsLargerThanTheBufferAreWritten) {
    OpenSession session;
    PublicKey const key(FromPeer(KeyPair::UserRsa().Blob()));
    std::string const user(5000, 'u');
    for (std::string const& name : {std::string(), user}) {
        peer::Bytes const expected = peer::Writer()
                                         .String("")
                                         .U8(50)
                                         .String(name)
                                         .String("")
                                         .String("publickey")
                                         .U8(1)
                                         .String("ssh-rsa")
                                         .String(KeyPair::UserRsa().Blob());
        EXPECT_EQ(peer::Difference(expected, ToPeer(session.MakeAuthData("", name.c_str(), key))), "");
    }
}

TEST_F(IdentityFiles, LoadedPublicKeyIsKept) {
    publicKey = PublicKey(FromPeer(KeyPair::UserDsa().Blob()));
    WritePublic("own.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(Path("own")), 0);
    EXPECT_EQ(BlobOf(publicKey), KeyPair::UserDsa().Blob());
}

TEST_F(IdentityFiles, ExtensionSshIsTriedBeforePub) {
    WritePublic("own.ssh", KeyPair::UserDsa());
    WritePublic("own.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(Path("own")), 0);
    EXPECT_EQ(BlobOf(publicKey), KeyPair::UserDsa().Blob());
}

TEST_F(IdentityFiles, ExtensionPubIsTriedSecond) {
    WritePublic("own.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(Path("own")), 0);
    EXPECT_EQ(BlobOf(publicKey), KeyPair::UserRsa().Blob());
}

TEST_F(IdentityFiles, PubIsReadWhenTheSshFileIsBroken) {
    Write("own.ssh", "no key\n");
    WritePublic("own.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(Path("own")), 0);
    EXPECT_EQ(BlobOf(publicKey), KeyPair::UserRsa().Blob());
}

TEST_F(IdentityFiles, ExtensionOfTheIdentityIsReplaced) {
    WritePublic("own.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(Path("own.pem")), 0);
    EXPECT_EQ(BlobOf(publicKey), KeyPair::UserRsa().Blob());
}

TEST_F(IdentityFiles, ResultForAnIdentityIsThatOfPub) {
    WritePublic("id_rsa.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(Path("own")), -ENOENT);
    EXPECT_EQ(publicKey._rep, nullptr);
    Write("own.pub", "no key\n");
    EXPECT_EQ(ReadPubkey(Path("own")), -EINVAL);
}

TEST_F(IdentityFiles, DefaultPublicKeyIsRsaThenDsa) {
    WritePublic("id_dsa.pub", KeyPair::UserDsa());
    PublicKey dsa;
    EXPECT_EQ(session.ReadPubkey(dsa, String_t()), 0);
    EXPECT_EQ(BlobOf(dsa), KeyPair::UserDsa().Blob());
    WritePublic("id_rsa.pub", KeyPair::UserRsa());
    EXPECT_EQ(ReadPubkey(""), 0);
    EXPECT_EQ(BlobOf(publicKey), KeyPair::UserRsa().Blob());
}

TEST_F(IdentityFiles, DefaultPublicKeyThatIsMissingIsNegative) { EXPECT_EQ(ReadPubkey(""), -ENOENT); }

TEST_F(IdentityFiles, PrivateKeyOfTheIdentityIsRead) {
    EXPECT_EQ(ReadIdentity(Write("own", KeyPair::UserRsa().Pem())), 0);
    ASSERT_NE(privateKey._rep, nullptr);
    EXPECT_EQ(privateKey._rep->Type(), cindral::KEY_RSA);
    EXPECT_EQ(enter.prompt, "Enter passphrase for|" + Path("own"));
    EXPECT_TRUE(enter.questions.empty());
}

TEST_F(IdentityFiles, LoadedPrivateKeyIsKept) {
    ASSERT_EQ(ReadIdentity(Write("own", KeyPair::UserDsa().Pem())), 0);
    enter.prompt.clear();
    enter.presets.clear();
    EXPECT_EQ(ReadIdentity(Write("other", KeyPair::UserRsa().Pem()), "secret"), 0);
    EXPECT_EQ(privateKey._rep->Type(), cindral::KEY_DSA);
    EXPECT_EQ(enter.prompt, "");
    EXPECT_TRUE(enter.presets.empty());
}

TEST_F(IdentityFiles, PasswordIsPresetAsPassphraseAndRemovedAfterwards) {
    EXPECT_EQ(ReadIdentity(Path("none"), "open sesame"), -ENOENT);
    EXPECT_THAT(enter.presets, testing::ElementsAre("open sesame"));
    EXPECT_FALSE(enter.HasPreset());
}

/// Overrides all that can be overridden, and hands nothing on.
class OwnPrompt : public cindral::EnterPassword {
public:
    OwnPrompt() : EnterPassword(1, "unused") {}
    void SetPrompt(String_t const&, String_t const&) override {}
    int operator()(char*, unsigned int) override {
        ++asked;
        return -1;
    }
    void Preset(String_t const&) override {}

    int asked = 0;
};

TEST_F(IdentityFiles, PasswordIsTriedFirstWhateverIsOverridden) {
    std::string const encrypted = KeyPair::UserRsa().EncryptedPem("open sesame");
    OwnPrompt prompt;
    for (char const* name : {"id_rsa", "id_dsa"}) {
        std::filesystem::remove(Path("id_rsa"));
        Write(name, encrypted);
        PrivateKey key;
        EXPECT_EQ(session.ReadIdentity(key, String_t(), "open sesame", prompt), 0) << name;
    }
    EXPECT_EQ(prompt.asked, 0);
}

TEST_F(IdentityFiles, DefaultPrivateKeyIsRsaThenDsa) {
    Write("id_dsa", KeyPair::UserDsa().Pem());
    PrivateKey dsa;
    EXPECT_EQ(session.ReadIdentity(dsa, String_t(), String_t("pw"), enter), 0);
    EXPECT_EQ(dsa._rep->Type(), cindral::KEY_DSA);
    EXPECT_EQ(enter.prompt, "Enter passphrase for|" + Path("id_dsa"));
    EXPECT_THAT(enter.presets, testing::ElementsAre("pw"));
    EXPECT_FALSE(enter.HasPreset());
    Write("id_rsa", KeyPair::UserRsa().Pem());
    EXPECT_EQ(ReadIdentity(""), 0);
    EXPECT_EQ(privateKey._rep->Type(), cindral::KEY_RSA);
    EXPECT_EQ(enter.prompt, "Enter passphrase for|" + Path("id_rsa"));
}

TEST_F(IdentityFiles, DefaultPrivateKeyThatIsMissingIsNegative) {
    EXPECT_EQ(ReadIdentity(""), -ENOENT);
    EXPECT_EQ(privateKey._rep, nullptr);
}
