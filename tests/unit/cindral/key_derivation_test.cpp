#include <array>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "foundations/cindral/key_derivation.h"
#include "foundations/cindral/openssl_ptr.h"

using cindral::IsDerivationBounded;
using cindral::OpenSSLPtr;

namespace {

using SchemePtr = OpenSSLPtr<X509_ALGOR, X509_ALGOR_free>;

constexpr int MOST_ITERATIONS = 1 << 24;

std::array<unsigned char, 8> salt{};
std::array<unsigned char, 16> iv{};

SchemePtr Pbkdf2(int iterations) {
    return SchemePtr(PKCS5_pbe2_set_iv(EVP_aes_128_cbc(), iterations, salt.data(), salt.size(), iv.data(),
                                       NID_hmacWithSHA256));
}

SchemePtr Pbes1(int iterations) {
    return SchemePtr(
        PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, iterations, salt.data(), salt.size()));
}

SchemePtr Scrypt(std::uint64_t n, std::uint64_t r, std::uint64_t p) {
    return SchemePtr(PKCS5_pbe2_set_scrypt(EVP_aes_128_cbc(), salt.data(), salt.size(), iv.data(), n, r, p));
}

TEST(PassphraseDerivation, IterationsOfPbkdf2AreBounded) {
    EXPECT_TRUE(IsDerivationBounded(*Pbkdf2(1)));
    EXPECT_TRUE(IsDerivationBounded(*Pbkdf2(MOST_ITERATIONS)));
    EXPECT_FALSE(IsDerivationBounded(*Pbkdf2(MOST_ITERATIONS + 1)));
    EXPECT_FALSE(IsDerivationBounded(*Pbkdf2(0x7fffffff)));
}

TEST(PassphraseDerivation, IterationsOfTheOlderSchemesAreBounded) {
    EXPECT_TRUE(IsDerivationBounded(*Pbes1(MOST_ITERATIONS)));
    EXPECT_FALSE(IsDerivationBounded(*Pbes1(MOST_ITERATIONS + 1)));
}

TEST(PassphraseDerivation, CostOfScryptIsBounded) {
    EXPECT_TRUE(IsDerivationBounded(*Scrypt(1 << 14, 8, 1)));  // what openssl pkcs8 -scrypt takes
    EXPECT_TRUE(IsDerivationBounded(*Scrypt(1 << 14, 8, 32))); // 2^22
    EXPECT_FALSE(IsDerivationBounded(*Scrypt(1 << 14, 8, 33)));
}

TEST(PassphraseDerivation, IterationsBeyond64BitsAreRefused) {
    SchemePtr const scheme = Pbkdf2(1);
    OpenSSLPtr<PBE2PARAM, PBE2PARAM_free> const pbes2(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), scheme->parameter)));
    OpenSSLPtr<PBKDF2PARAM, PBKDF2PARAM_free> const pbkdf2(static_cast<PBKDF2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbes2->keyfunc->parameter)));
    OpenSSLPtr<BIGNUM, BN_free> const huge(BN_new());
    BN_set_bit(huge.get(), 64);
    BN_to_ASN1_INTEGER(huge.get(), pbkdf2->iter);
    ASN1_TYPE_pack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), pbkdf2.get(), &pbes2->keyfunc->parameter);
    ASN1_TYPE_pack_sequence(ASN1_ITEM_rptr(PBE2PARAM), pbes2.get(), &scheme->parameter);
    EXPECT_FALSE(IsDerivationBounded(*scheme));
}

TEST(PassphraseDerivation, ParametersThatAreNotParsedAreLeftToTheDecryption) {
    SchemePtr const scheme = Pbkdf2(1);
    ASN1_TYPE_set(scheme->parameter, V_ASN1_NULL, nullptr);
    EXPECT_TRUE(IsDerivationBounded(*scheme));
}

} // namespace
