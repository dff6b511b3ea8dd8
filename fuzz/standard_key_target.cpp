// Keys as they come from files and from a server. The first byte chooses: a private key file, a public key in
// its wire form, or a signature.

#include <string>

#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/private_key.h>

#include "finding.h"
#include "foundations/cindral/openssl_ptr.h"
#include "memory_file.h"
#include "standard/signature_scheme.h"

using namespace cindral::standard;
using fuzz::Require;

namespace {

enum Kind { PRIVATE_FILE, PUBLIC_BLOB, SIGNATURE, KINDS };

/// The passphrase is never asked for: the key derivation of an encrypted file is slow by intention.
void ReadPrivate(View bytes) {
    int const file = fuzz::MemoryFile(bytes.Str());
    ByteString blob;
    EVP_PKEY* key = nullptr;
    int const result =
        cindral::PrivateKey::ReadAny(("/proc/self/fd/" + std::to_string(file)).c_str(), nullptr, blob, key);
    cindral::PkeyPtr const owned(key);
    Require(result <= 0, "ReadAny", "gives no result of its own");
    Require((result == 0) == (key != nullptr), "ReadAny", "contradicts itself");
}

void ParsePublic(View blob) {
    try {
        cindral::PkeyPtr const key = ParseKeyBlob(blob);
        Require(key != nullptr, "ParseKeyBlob", "gives no key");
        Require(!SignatureAlgorithmsOf(KeyTypeOf(blob)).empty(), "KeyTypeOf",
                "does not know a key that is read");
        Require(KeyTypeOf(MakeKeyBlob(key.get())) == KeyTypeOf(blob), "MakeKeyBlob", "changes the type");
    } catch (cindral::SshProtocolError const&) {
    }
}

/// Against a key that is made for this run: no signature is right.
void VerifySignature(View signature) {
    static Bytes const key = [] {
        cindral::PkeyPtr const made(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
        return MakeKeyBlob(made.get());
    }();
    Require(!Verify("ecdsa-sha2-nistp256", key, View("data"), signature), "Verify",
            "takes a forged signature");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    View const bytes(data + 1, size - 1);
    switch (data[0] % KINDS) {
    case PRIVATE_FILE:
        ReadPrivate(bytes);
        break;
    case PUBLIC_BLOB:
        ParsePublic(bytes);
        break;
    default:
        VerifySignature(bytes);
    }
    return 0;
}
