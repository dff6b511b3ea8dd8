#ifndef BRANTLE_FOUNDATIONS_CINDRAL_PKEY_H
#define BRANTLE_FOUNDATIONS_CINDRAL_PKEY_H

#include <initializer_list>

#include <brantle/cindral/key_types.h>

#include "wire_format.h"

struct bignum_st;
struct evp_pkey_st;
struct ossl_param_st;

namespace cindral {

/// The SSH name of a type of key; null for `KEY_NONE`.
char const* KeyName(KeyType type);

/// A number of a key, by its OpenSSL parameter name (OSSL_PKEY_PARAM_...).
struct KeyNumber {
    char const* _name;
    bignum_st const* _value;
};

/// The curve of an ecdsa key under OpenSSL's name, and the public point.
struct KeyPoint {
    char const* _group;
    ByteView _point;
};

/// A new OpenSSL key made from its numbers; null when OpenSSL rejects them. `type` is OpenSSL's name,
/// `selection` EVP_PKEY_PUBLIC_KEY or EVP_PKEY_KEYPAIR; `point` is null but for ecdsa keys.
evp_pkey_st* MakePkey(char const* type, int selection, std::initializer_list<KeyNumber> numbers,
                      KeyPoint const* point = nullptr);
/// The same from OpenSSL's parameters.
evp_pkey_st* MakePkey(char const* type, int selection, ossl_param_st* parameters);

} // namespace cindral

#endif
