#include <cstdint>

#include <openssl/asn1t.h>

#include "key_derivation.h"
#include "openssl_ptr.h"

namespace cindral {

namespace {

constexpr std::uint64_t MAX_ITERATIONS = 1U << 24;
constexpr std::uint64_t MAX_SCRYPT_COST = 1U << 22;

using Pbes1Ptr = OpenSSLPtr<PBEPARAM, PBEPARAM_free>;
using Pbes2Ptr = OpenSSLPtr<PBE2PARAM, PBE2PARAM_free>;
using Pbkdf2Ptr = OpenSSLPtr<PBKDF2PARAM, PBKDF2PARAM_free>;
using ScryptPtr = OpenSSLPtr<SCRYPT_PARAMS, SCRYPT_PARAMS_free>;

/// The parameters of a scheme; null if they are not of that form.
template <class Parameters>
Parameters* Unpack(ASN1_ITEM const* form, X509_ALGOR const& scheme) {
    return static_cast<Parameters*>(ASN1_TYPE_unpack_sequence(form, scheme.parameter));
}

int Name(X509_ALGOR const& scheme) { return OBJ_obj2nid(scheme.algorithm); }

/// Multiplies `product`, and returns whether it is still within the limit.
bool Multiply(std::uint64_t& product, ASN1_INTEGER const* factor, std::uint64_t limit) {
    std::uint64_t value = 0;
    if (ASN1_INTEGER_get_uint64(&value, factor) != 1 || value > limit) return false;
    product *= value;
    return product <= limit;
}

bool IsBounded(ASN1_INTEGER const* iterations) {
    std::uint64_t product = 1;
    return Multiply(product, iterations, MAX_ITERATIONS);
}

bool IsFunctionBounded(X509_ALGOR const& function) {
    if (Name(function) == NID_id_pbkdf2) {
        Pbkdf2Ptr const pbkdf2(Unpack<PBKDF2PARAM>(ASN1_ITEM_rptr(PBKDF2PARAM), function));
        return !pbkdf2 || IsBounded(pbkdf2->iter);
    }
    if (Name(function) != NID_id_scrypt) return true;
    ScryptPtr const scrypt(Unpack<SCRYPT_PARAMS>(ASN1_ITEM_rptr(SCRYPT_PARAMS), function));
    std::uint64_t cost = 1;
    return !scrypt || (Multiply(cost, scrypt->costParameter, MAX_SCRYPT_COST) &&
                       Multiply(cost, scrypt->blockSize, MAX_SCRYPT_COST) &&
                       Multiply(cost, scrypt->parallelizationParameter, MAX_SCRYPT_COST));
}

} // namespace

bool IsDerivationBounded(X509_ALGOR const& scheme) {
    if (Name(scheme) == NID_pbes2) {
        Pbes2Ptr const pbes2(Unpack<PBE2PARAM>(ASN1_ITEM_rptr(PBE2PARAM), scheme));
        return !pbes2 || !pbes2->keyfunc || IsFunctionBounded(*pbes2->keyfunc);
    }
    Pbes1Ptr const pbes1(Unpack<PBEPARAM>(ASN1_ITEM_rptr(PBEPARAM), scheme)); // of PKCS #5 and PKCS #12
    return !pbes1 || IsBounded(pbes1->iter);
}

} // namespace cindral
