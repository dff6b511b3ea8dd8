#include <string>

#include <gtest/gtest.h>

#include "foundations/cindral/bcrypt_pbkdf.h"
#include "hex.h"

using namespace cindral;

namespace {

ByteView View(std::string const& text) {
    return {reinterpret_cast<unsigned char const*>(text.data()), static_cast<unsigned int>(text.size())};
}

std::string Derive(std::string const& passphrase, std::string const& salt, unsigned int rounds,
                   unsigned int length) {
    SecretBytes const key = BcryptPbkdf(View(passphrase), View(salt), rounds, length);
    return ToHex(key.data(), key.size());
}

// The expected bytes are those of python3-bcrypt's kdf.

TEST(BcryptPbkdf, MatchesKnownVectors) {
    EXPECT_EQ(Derive("password", "salt", 4, 32),
              "5bbf0cc293587f1c3635555c27796598d47e579071bf427e9d8fbe842aba34d9");
    EXPECT_EQ(Derive("password", "salt", 12, 32),
              "1ae42c05d487bc02f64921a4ebe4ea93bcacfe135fda99974c06b7b01fae149a");
}

TEST(BcryptPbkdf, ZeroBytesOfPassphraseAndSaltCount) {
    EXPECT_EQ(Derive(std::string("passwordy\0PASSWORD\0", 19), std::string("salty\0SALT\0", 11), 3, 32),
              "7f310bd3e78c3280c59ce4595211a2928e8d4ec744c1ed2efc9f764e3388e0ad");
}

TEST(BcryptPbkdf, BytesOfALongerKeyAreSpreadOverAllBlocks) {
    EXPECT_EQ(Derive("correct horse", std::string("\0\1\2\3\4\5\6\7\10\11\12\13\14\15\16\17", 16), 1, 48),
              "9cf71b05ddb758eaf23936a4857f7b30daaa73457d6462344d63a5eb0c01041e"
              "f6c5b44489e0486f954fb2c9702a42e0");
    EXPECT_EQ(Derive(std::string(200, 'x'), "salt", 1, 99),
              "dd07131b682b94e3d5ddc7a6aaeff27b490d98e94075bea5efa2405626f05706"
              "88b3bf142c765225051b8d62d1aa99ecf78163e5cc41bfc8434d20e15df35316"
              "4362dd7b79dc7ad240da64b9e5c5c8b9e70ecaf7dc879b1369c44ad2fd5dd25f"
              "1826c1");
}

} // namespace
