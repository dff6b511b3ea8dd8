// Files in the PEM forms, read through PrivateKey.

#include <brantle/cindral/private_key.h>

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

TEST_F(PemKey, Pkcs1WithTripleDesIsRead) {
    Run("openssl genrsa -traditional -des3 -passout 'pass:correct horse' -out id 1024");
    ScriptedAnswers answers(1, {PASSPHRASE});
    EXPECT_EQ(ReadWith(answers), 0);
}

} // namespace
