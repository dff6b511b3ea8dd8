#ifndef BRANTLE_FOUNDATIONS_CINDRAL_OPENSSL_PTR_H
#define BRANTLE_FOUNDATIONS_CINDRAL_OPENSSL_PTR_H

#include <memory>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

namespace cindral {

template <auto Free>
struct OpenSSLFree {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};

/// The owner of an OpenSSL object, with the function that frees it.
template <typename T, auto Free>
using OpenSSLPtr = std::unique_ptr<T, OpenSSLFree<Free>>;

using BioPtr = OpenSSLPtr<BIO, BIO_free>;
using BnCtxPtr = OpenSSLPtr<BN_CTX, BN_CTX_free>;
using MdCtxPtr = OpenSSLPtr<EVP_MD_CTX, EVP_MD_CTX_free>;
using PkeyPtr = OpenSSLPtr<EVP_PKEY, EVP_PKEY_free>;
using PkeyCtxPtr = OpenSSLPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using ParamBuildPtr = OpenSSLPtr<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;

} // namespace cindral

#endif
