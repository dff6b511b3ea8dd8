#include <brantle/cindral/private_key.h>

#include <algorithm>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/thornel/text.h>

#include "openssl_ptr.h"
#include "pem_key.h"
#include "pkey.h"
#include "read_file.h"
#include "wire_format.h"

namespace cindral {

namespace {

constexpr char const* RSA_NUMBERS[] = {
    OSSL_PKEY_PARAM_RSA_N,       OSSL_PKEY_PARAM_RSA_E,
    OSSL_PKEY_PARAM_RSA_D,       OSSL_PKEY_PARAM_RSA_COEFFICIENT1,
    OSSL_PKEY_PARAM_RSA_FACTOR1, OSSL_PKEY_PARAM_RSA_FACTOR2,
};
constexpr char const* DSA_NUMBERS[] = {
    OSSL_PKEY_PARAM_FFC_P,   OSSL_PKEY_PARAM_FFC_Q,    OSSL_PKEY_PARAM_FFC_G,
    OSSL_PKEY_PARAM_PUB_KEY, OSSL_PKEY_PARAM_PRIV_KEY,
};
constexpr unsigned int MAX_PASSPHRASE = 1024;

template <unsigned int COUNT>
void AppendNumbers(SecretBytes& to, EVP_PKEY const* key, char const* const (&names)[COUNT]) {
    for (char const* name : names) {
        BigNum number;
        if (EVP_PKEY_get_bn_param(key, name, &number._bn) != 1) throw OpenSSLError("EVP_PKEY_get_bn_param");
        ByteString encoded = EncodeMpint(number._bn);
        to.insert(to.end(), encoded.Data(), encoded.Data() + encoded.Length());
        OPENSSL_cleanse(encoded.Data(), encoded.Length());
    }
}

/// Tries the preset secret, even if `enter` is overridden, and then what `enter` returns, until a passphrase
/// fits or no tries are left.
int ReadEncrypted(PemKey const& file, EnterPassword& enter, evp_pkey_st*& key) {
    int result = PrivateKey::NO_PASSPHRASE;
    if (String_t const preset = enter.UsePreset(); !str_empty(preset.Text())) {
        auto const* const bytes = reinterpret_cast<unsigned char const*>(preset.Text());
        result = file.Read(ByteView{bytes, std::min(str_len(preset.Text()), MAX_PASSPHRASE)}, key);
        if (result != PrivateKey::WRONG_PASSPHRASE) return result;
    }
    SecretBytes passphrase(MAX_PASSPHRASE);
    for (unsigned int asked = 0; asked < enter._tries; ++asked) {
        int const length = enter(reinterpret_cast<char*>(passphrase.data()), MAX_PASSPHRASE);
        if (length < 0) return length;
        unsigned int const size = std::min(static_cast<unsigned int>(length), MAX_PASSPHRASE);
        result = file.Read(ByteView{passphrase.data(), size}, key);
        if (result != PrivateKey::WRONG_PASSPHRASE) return result;
    }
    return result;
}

/// `publicBlob` is null when only rsa and dsa keys are wanted, `enter` when no passphrase is to be asked for.
int ReadKey(char const* path, EnterPassword* enter, ByteString* publicBlob, evp_pkey_st*& key) {
    SecretBytes contents;
    if (int const failure = ReadFile(path, contents)) return failure;
    PemKey file(publicBlob != nullptr);
    int result = file.Open(contents);
    if (publicBlob) publicBlob->Append(file.PublicBlob()._data, file.PublicBlob()._length);
    if (result == 0 && !file.IsEncrypted()) result = file.Read(ByteView(), key);
    if (result == 0 && file.IsEncrypted())
        result = enter ? ReadEncrypted(file, *enter, key) : PrivateKey::NO_PASSPHRASE;
    ERR_clear_error(); // a file that is not a key is a normal result here; leave no error in the queue
    return result;
}

} // namespace

PrivateKey::Rep::Rep(evp_pkey_st* key) : _key(key) {}

PrivateKey::Rep::~Rep() { EVP_PKEY_free(_key); }

int PrivateKey::Rep::IsLoaded() const { return _key != nullptr; }

KeyType PrivateKey::Rep::Type() const {
    if (!_key) return KEY_NONE;
    return EVP_PKEY_is_a(_key, "RSA") ? KEY_RSA : EVP_PKEY_is_a(_key, "DSA") ? KEY_DSA : KEY_NONE;
}

ByteString PrivateKey::Rep::EncodeSSH() const {
    KeyType const type = Type();
    if (type == KEY_NONE) return ByteString();
    ByteString name;
    AppendString(name, KeyName(type));
    SecretBytes encoded(name.Data(), name.Data() + name.Length());
    if (type == KEY_RSA)
        AppendNumbers(encoded, _key, RSA_NUMBERS);
    else
        AppendNumbers(encoded, _key, DSA_NUMBERS);
    return ByteString(encoded.data(), static_cast<unsigned int>(encoded.size()));
}

PrivateKey::PrivateKey() : _rep(nullptr) {}

PrivateKey::~PrivateKey() { delete _rep; }

int PrivateKey::Read(char const* path, EnterPassword& enter) {
    evp_pkey_st* key = nullptr;
    if (int const result = ReadKey(path, &enter, nullptr, key)) return result;
    PkeyPtr owned(key);
    Rep* const fresh = new Rep(key);
    (void)owned.release();
    delete _rep;
    _rep = fresh;
    return 0;
}

int PrivateKey::ReadAny(char const* path, EnterPassword* enter, ByteString& publicBlob, evp_pkey_st*& key) {
    publicBlob.Reserve(0);
    return ReadKey(path, enter, &publicBlob, key);
}

} // namespace cindral
