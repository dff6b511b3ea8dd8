#include <memory>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <brantle/cindral/big_num.h>

#include "foundations/cindral/pkey.h"

using namespace cindral;

namespace {

using Pkey = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

/// The modulus 3233 of two small primes, and the exponent 17.
class PkeyNumbers : public testing::Test {
protected:
    PkeyNumbers() {
        BN_set_word(_modulus._bn, 3233);
        BN_set_word(_exponent._bn, 17);
    }

    BigNum _modulus;
    BigNum _exponent;
};

TEST(KeyName, IsTheSshName) {
    EXPECT_STREQ(KeyName(KEY_RSA), "ssh-rsa");
    EXPECT_STREQ(KeyName(KEY_DSA), "ssh-dss");
    EXPECT_EQ(KeyName(KEY_NONE), nullptr);
}

TEST_F(PkeyNumbers, NumbersBecomeAKey) {
    Pkey const key(MakePkey("RSA", EVP_PKEY_PUBLIC_KEY,
                            {{OSSL_PKEY_PARAM_RSA_N, _modulus._bn}, {OSSL_PKEY_PARAM_RSA_E, _exponent._bn}}),
                   EVP_PKEY_free);
    ASSERT_NE(key, nullptr);
    EXPECT_TRUE(EVP_PKEY_is_a(key.get(), "RSA"));
    BIGNUM* modulus = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_RSA_N, &modulus), 1);
    EXPECT_EQ(BN_cmp(modulus, _modulus._bn), 0);
    BN_free(modulus);
}

TEST_F(PkeyNumbers, MissingNumberMakesNoKey) {
    EXPECT_EQ(MakePkey("RSA", EVP_PKEY_PUBLIC_KEY, {{OSSL_PKEY_PARAM_RSA_N, _modulus._bn}}), nullptr);
}

} // namespace
