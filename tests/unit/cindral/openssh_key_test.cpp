// Files in OpenSSH's own form, read through PrivateKey.

#include <brantle/cindral/private_key.h>

#include "key_files.h"

using namespace cindral;

namespace {

constexpr char const* PASSPHRASE = "correct horse";

class OpenSSHKey : public PrivateKeyFiles {};

TEST_F(OpenSSHKey, OtherTypeIsRefusedBeforeThePassphraseIsAskedFor) {
    Keygen("id", "-t ed25519", PASSPHRASE);
    ScriptedAnswers answers(1, {PASSPHRASE});
    EXPECT_EQ(ReadWith(answers), PrivateKey::UNSUPPORTED_KEY);
    EXPECT_EQ(answers._asked, 0u);
}

TEST_F(OpenSSHKey, OtherCiphersAreUnsupported) {
    Keygen("id", "-t rsa -b 1024 -Z aes256-gcm@openssh.com", PASSPHRASE);
    ScriptedAnswers answers(1, {PASSPHRASE});
    EXPECT_EQ(ReadWith(answers), PrivateKey::UNSUPPORTED_KEY);
    EXPECT_EQ(answers._asked, 0u);
}

TEST_F(OpenSSHKey, EveryTruncatedBodyIsRefused) {
    Keygen("id", "-t rsa -b 1024");
    Unarmour();
    std::string const body = Read("body");
    for (std::size_t length = 1; length < body.size(); length += 13) {
        Armour(body.substr(0, length));
        EXPECT_EQ(ReadPlain(), PrivateKey::BROKEN_FILE) << length;
    }
}

TEST_F(OpenSSHKey, DamagedBodyIsRefused) {
    Keygen("id", "-t rsa -b 1024");
    Unarmour();
    std::string const body = Read("body");
    std::size_t const check = body.rfind("ssh-rsa") - 4 - 8;
    for (std::size_t at : {std::size_t{0}, check, body.size() - 1}) {
        std::string damaged = body;
        damaged[at] = static_cast<char>(damaged[at] ^ 1);
        Armour(damaged);
        EXPECT_EQ(ReadPlain(), PrivateKey::BROKEN_FILE) << at;
    }
    Armour(body + "x");
    EXPECT_EQ(ReadPlain(), PrivateKey::BROKEN_FILE);
    Armour(body);
    EXPECT_EQ(ReadPlain(), 0);
}

TEST_F(OpenSSHKey, MoreRoundsThanTheBoundAreABrokenFile) {
    Keygen("id", "-t rsa -b 1024 -a 1", PASSPHRASE);
    Unarmour();
    std::string const body = Read("body");
    std::size_t const rounds = body.find("bcrypt") + 6 + 4 + 4 + 16; // after the salt
    ASSERT_EQ(body.substr(rounds, 4), std::string("\0\0\0\1", 4));
    struct {
        std::string _rounds;
        int _result;
    } const files[] = {
        {std::string("\0\x10\0\1", 4), PrivateKey::BROKEN_FILE},
        {"\xff\xff\xff\xff", PrivateKey::BROKEN_FILE},
        {std::string("\0\x10\0\0", 4), ScriptedAnswers::NO_ANSWER}, // 2^20: the passphrase is asked for
    };
    for (auto const& file : files) {
        Armour(std::string(body).replace(rounds, 4, file._rounds));
        ScriptedAnswers answers(1, {});
        EXPECT_EQ(ReadWith(answers), file._result);
    }
}

TEST_F(OpenSSHKey, MoreThanOneKeyIsUnsupported) {
    Keygen("id", "-t rsa -b 1024");
    Unarmour();
    std::string body = Read("body");
    body[body.find("ssh-rsa") - 4 - 4 - 1] = 2;
    Armour(body);
    EXPECT_EQ(ReadPlain(), PrivateKey::UNSUPPORTED_KEY);
}

} // namespace
