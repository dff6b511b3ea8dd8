#include <dlfcn.h>

#include <openssl/bn.h>
#include <openssl/dh.h>

#include "openssl_calls.h"
#include "support/next_symbol.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

OpenSSLCall callsOfBnHex2bn;
OpenSSLCall callsOfBnNew;
OpenSSLCall callsOfBnRand;
OpenSSLCall callsOfBnSub;
OpenSSLCall callsOfDhNew;
OpenSSLCall callsOfDhGenerateKey;
OpenSSLCall callsOfDhComputeKey;

using support::NextSymbol;

namespace {

void const* BaseOf(void const* address) {
    Dl_info info;
    return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

/// Whether the call from `caller` is one to count, and to fail. What libcrypto calls itself is neither.
bool Fails(OpenSSLCall& call, void const* caller) {
    return BaseOf(caller) != BaseOf(dlsym(RTLD_NEXT, "BN_new")) && call.Fails();
}

} // namespace

extern "C" {

int BN_hex2bn(BIGNUM** number, char const* digits) {
    if (Fails(callsOfBnHex2bn, __builtin_return_address(0))) return 0;
    return NextSymbol(BN_hex2bn, "BN_hex2bn")(number, digits);
}

BIGNUM* BN_new() {
    if (Fails(callsOfBnNew, __builtin_return_address(0))) return nullptr;
    return NextSymbol(BN_new, "BN_new")();
}

int BN_rand(BIGNUM* number, int bits, int top, int bottom) {
    if (Fails(callsOfBnRand, __builtin_return_address(0))) return 0;
    return NextSymbol(BN_rand, "BN_rand")(number, bits, top, bottom);
}

int BN_sub(BIGNUM* result, BIGNUM const* a, BIGNUM const* b) {
    if (Fails(callsOfBnSub, __builtin_return_address(0))) return 0;
    return NextSymbol(BN_sub, "BN_sub")(result, a, b);
}

DH* DH_new() {
    if (Fails(callsOfDhNew, __builtin_return_address(0))) return nullptr;
    return NextSymbol(DH_new, "DH_new")();
}

int DH_generate_key(DH* dh) {
    if (Fails(callsOfDhGenerateKey, __builtin_return_address(0))) return 0;
    return NextSymbol(DH_generate_key, "DH_generate_key")(dh);
}

int DH_compute_key(unsigned char* key, BIGNUM const* peer, DH* dh) {
    if (Fails(callsOfDhComputeKey, __builtin_return_address(0))) return -1;
    return NextSymbol(DH_compute_key, "DH_compute_key")(key, peer, dh);
}

} // extern "C"
