#include <openssl/core_names.h>
#include <openssl/params.h>

#include "openssl_ptr.h"
#include "pkey.h"

namespace cindral {

namespace {

/// The numbers of a private key are in the parameters.
void FreeWiped(OSSL_PARAM* parameters) {
    for (OSSL_PARAM* parameter = parameters; parameter->key; ++parameter)
        OPENSSL_cleanse(parameter->data, parameter->data_size);
    OSSL_PARAM_free(parameters);
}

using ParamPtr = OpenSSLPtr<OSSL_PARAM, FreeWiped>;

} // namespace

char const* KeyName(KeyType type) {
    switch (type) {
    case KEY_RSA:
        return "ssh-rsa";
    case KEY_DSA:
        return "ssh-dss";
    case KEY_NONE:
        break;
    }
    return nullptr;
}

evp_pkey_st* MakePkey(char const* type, int selection, std::initializer_list<KeyNumber> numbers,
                      KeyPoint const* point) {
    ParamBuildPtr const build(OSSL_PARAM_BLD_new());
    if (!build) return nullptr;
    for (KeyNumber const& number : numbers)
        if (OSSL_PARAM_BLD_push_BN(build.get(), number._name, number._value) != 1) return nullptr;
    if (point &&
        (OSSL_PARAM_BLD_push_utf8_string(build.get(), OSSL_PKEY_PARAM_GROUP_NAME, point->_group, 0) != 1 ||
         OSSL_PARAM_BLD_push_octet_string(build.get(), OSSL_PKEY_PARAM_PUB_KEY, point->_point._data,
                                          point->_point._length) != 1))
        return nullptr;
    ParamPtr const parameters(OSSL_PARAM_BLD_to_param(build.get()));
    return parameters ? MakePkey(type, selection, parameters.get()) : nullptr;
}

evp_pkey_st* MakePkey(char const* type, int selection, ossl_param_st* parameters) {
    PkeyCtxPtr const context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, selection, parameters) != 1)
        return nullptr;
    return key;
}

} // namespace cindral
