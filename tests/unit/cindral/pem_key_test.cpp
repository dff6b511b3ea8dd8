// Files in the PEM forms, read through PrivateKey.

#include <cstdio>
#include <memory>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <brantle/cindral/private_key.h>

#include "foundations/cindral/openssl_ptr.h"
#include "key_files.h"

using namespace cindral;

namespace {

constexpr char const* PASSPHRASE = "correct horse";

using PemKey = PrivateKeyFiles;

TEST_F(PemKey, Pkcs8WithALegacyCipherIsUnsupported) {
    Run("openssl genrsa -out plain 1024 && openssl pkcs8 -topk8 -v1 PBE-MD5-DES -provider legacy -provider "
        "default "
        "-in plain -passout 'pass:correct horse' -out id");
    ScriptedAnswers answers(1, {PASSPHRASE});
    EXPECT_EQ(ReadWith(answers), PrivateKey::UNSUPPORTED_KEY);
}

/// A derivation of that many iterations would take minutes or hours: a test that does not end is one that
/// fails.
TEST_F(PemKey, Pkcs8WithMoreIterationsThanTheBoundIsABrokenFile) {
    unsigned char salt[8] = {}, iv[16] = {}, content[32] = {};
    OpenSSLPtr<X509_ALGOR, X509_ALGOR_free> const scheme(
        PKCS5_pbe2_set_iv(EVP_aes_128_cbc(), 0x7fffffff, salt, sizeof salt, iv, NID_hmacWithSHA256));
    OpenSSLPtr<X509_SIG, X509_SIG_free> const sealed(X509_SIG_new());
    X509_ALGOR* algorithm = nullptr;
    ASN1_OCTET_STRING* bytes = nullptr;
    X509_SIG_getm(sealed.get(), &algorithm, &bytes);
    X509_ALGOR_copy(algorithm, scheme.get());
    ASN1_OCTET_STRING_set(bytes, content, sizeof content);
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(Path("id").c_str(), "w"), std::fclose);
    PEM_write_PKCS8(file.get(), sealed.get());
    file.reset();
    ScriptedAnswers answers(1, {PASSPHRASE});
    EXPECT_EQ(ReadWith(answers), PrivateKey::BROKEN_FILE);
}

TEST_F(PemKey, Pkcs1WithTripleDesIsRead) {
    Run("openssl genrsa -traditional -des3 -passout 'pass:correct horse' -out id 1024");
    ScriptedAnswers answers(1, {PASSPHRASE});
    EXPECT_EQ(ReadWith(answers), 0);
}

} // namespace
