#include <algorithm>
#include <string>

#include <openssl/crypto.h>

#include <brantle/cindral/private_key.h>

#include "freed_memory.h"
#include "key_files.h"

using namespace cindral;

namespace {

constexpr char const* PASSPHRASE = "correct horse battery staple";

struct Form {
    char const* _title;
    char const* _options;
    bool _encrypted;
    bool _decodedByOpenSSL;
};

std::ostream& operator<<(std::ostream& out, Form const& form) { return out << form._title; }

class WipedKey : public KeyFiles, public testing::WithParamInterface<Form> {
protected:
    WipedKey() : _enter(1, "unused") { _enter.Preset(PASSPHRASE); }

    void SetUp() override {
        Keygen("id", GetParam()._options, GetParam()._encrypted ? PASSPHRASE : "");
        _path = Path("id");
    }

    void ReadAndEncode() {
        PrivateKey key;
        ASSERT_EQ(key.Read(_path.c_str(), _enter), 0);
        ByteString encoded = key._rep->EncodeSSH();
        std::fill_n(encoded.Data(), encoded.Length(), static_cast<unsigned char>(0));
        _enter.SetPrompt("next", "time");
    }
    /// Bytes out of the middle of the last number, a prime of an rsa key or the secret of a dsa key.
    std::string SecretBytes() {
        PrivateKey key;
        EXPECT_EQ(key.Read(_path.c_str(), _enter), 0);
        _enter.SetPrompt("next", "time");
        ByteString const encoded = key._rep->EncodeSSH();
        return Text(encoded.SubStr(encoded.Length() - 14, 12));
    }

    EnterPassword _enter;
    std::string _path;
};

TEST_P(WipedKey, PassphraseIsNotLeftInFreedMemory) {
    std::string const secret = PASSPHRASE;
    FreedMemory const freed(secret);
    ReadAndEncode();
    EXPECT_EQ(freed.OfNew()._withSecret, 0u);
    EXPECT_EQ(freed.OfOpenSSL()._withSecret, 0u);
    EXPECT_GT(freed.OfNew()._freed, 0u);
    EXPECT_GT(freed.OfOpenSSL()._freed, 0u);
}

TEST_P(WipedKey, SecretNumbersAreNotLeftInFreedMemory) {
    std::string const secret = SecretBytes();
    FreedMemory const freed(secret);
    ReadAndEncode();
    EXPECT_EQ(freed.OfNew()._withSecret, 0u);
    // OpenSSL's own decoder of PEM keys does not wipe its copies.
    if (!GetParam()._decodedByOpenSSL) {
        EXPECT_EQ(freed.OfOpenSSL()._withSecret, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(PrivateKey, WipedKey,
                         testing::Values(Form{"RsaOpenSSH", "-t rsa -b 1024", false, false},
                                         Form{"RsaOpenSSHCtr", "-t rsa -b 1024", true, false},
                                         Form{"RsaOpenSSHCbc", "-t rsa -b 1024 -Z aes256-cbc", true, false},
                                         Form{"RsaPem", "-t rsa -b 1024 -m PEM", false, true},
                                         Form{"RsaPemEncrypted", "-t rsa -b 1024 -m PEM", true, true},
                                         Form{"RsaPkcs8", "-t rsa -b 1024 -m PKCS8", false, true},
                                         Form{"RsaPkcs8Encrypted", "-t rsa -b 1024 -m PKCS8", true, true},
                                         Form{"DsaOpenSSH", "-t dsa", false, false},
                                         Form{"DsaOpenSSHCtr", "-t dsa", true, false},
                                         Form{"DsaPem", "-t dsa -m PEM", false, true},
                                         Form{"DsaPemEncrypted", "-t dsa -m PEM", true, true}),
                         [](auto const& tested) { return tested.param._title; });

TEST(FreedMemory, FindsASecretThatWasNotWiped) {
    std::string const secret = "a secret of some length";
    FreedMemory const freed(secret);
    {
        std::string const careless(secret);
    }
    OPENSSL_free(OPENSSL_strdup(secret.c_str()));
    EXPECT_EQ(freed.OfNew()._withSecret, 1u);
    EXPECT_EQ(freed.OfOpenSSL()._withSecret, 1u);
}

} // namespace
