#include <algorithm>
#include <cstring>

#include <openssl/dsa.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs12err.h>
#include <openssl/x509.h>

#include <brantle/cindral/private_key.h>

#include "key_derivation.h"
#include "openssl_ptr.h"
#include "pem_key.h"

namespace cindral {

namespace {

using Pkcs8Ptr = OpenSSLPtr<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using X509SigPtr = OpenSSLPtr<X509_SIG, X509_SIG_free>;

constexpr char const* RSA_LABEL = "RSA PRIVATE KEY";
constexpr char const* DSA_LABEL = "DSA PRIVATE KEY";
constexpr char const* EC_LABEL = "EC PRIVATE KEY";
constexpr char const* PKCS8_LABEL = "PRIVATE KEY";
constexpr char const* ENCRYPTED_PKCS8_LABEL = "ENCRYPTED PRIVATE KEY";
constexpr char const* OPENSSH_LABEL = "OPENSSH PRIVATE KEY";

bool EndsWith(char const* text, char const* tail) {
    std::size_t const length = std::strlen(text);
    std::size_t const tailLength = std::strlen(tail);
    return length >= tailLength && std::strcmp(text + length - tailLength, tail) == 0;
}

int GivePassphrase(char* buffer, int size, int, void* passphrase) {
    ByteView const& given = *static_cast<ByteView const*>(passphrase);
    auto const length = static_cast<int>(given._length);
    if (length > size) return -1;
    std::memcpy(buffer, given._data, given._length);
    return length;
}

int FromPkcs8(PKCS8_PRIV_KEY_INFO const* info, bool anyType, evp_pkey_st*& key) {
    ASN1_OBJECT const* algorithm = nullptr;
    PKCS8_pkey_get0(&algorithm, nullptr, nullptr, nullptr, info);
    int const type = OBJ_obj2nid(algorithm);
    if (!anyType && type != NID_rsaEncryption && type != NID_dsa) return PrivateKey::UNSUPPORTED_KEY;
    key = EVP_PKCS82PKEY(info);
    return key ? 0 : PrivateKey::BROKEN_FILE;
}

/// Whether OpenSSL supports the cipher, and only the decrypted data was invalid.
bool PassphraseWasWrong() {
    bool wrong = false;
    while (unsigned long const error = ERR_get_error()) {
        int const reason = ERR_GET_REASON(error);
        if (ERR_GET_LIB(error) == ERR_LIB_PKCS12 &&
            (reason == PKCS12_R_PKCS12_CIPHERFINAL_ERROR || reason == PKCS12_R_DECODE_ERROR))
            wrong = true;
    }
    return wrong;
}

} // namespace

PemKey::~PemKey() { Clear(); }

void PemKey::Clear() {
    OPENSSL_free(_label);
    OPENSSL_clear_free(_header, _header ? std::strlen(_header) : 0);
    OPENSSL_clear_free(_body, static_cast<std::size_t>(_length));
    _label = nullptr;
    _header = nullptr;
    _body = nullptr;
    _length = 0;
}

bool PemKey::IsLabel(char const* label) const { return std::strcmp(_label, label) == 0; }

int PemKey::Open(SecretBytes const& contents) {
    BioPtr const bio(BIO_new_mem_buf(contents.data(), static_cast<int>(contents.size())));
    do {
        Clear();
        if (!bio || PEM_read_bio(bio.get(), &_label, &_header, &_body, &_length) != 1)
            return PrivateKey::BROKEN_FILE;
    } while (EndsWith(_label, " PARAMETERS"));
    if (IsLabel(OPENSSH_LABEL)) return _openSSH.Open(_body, static_cast<unsigned int>(_length), _anyType);
    if (IsLabel(RSA_LABEL) || IsLabel(DSA_LABEL) || IsLabel(PKCS8_LABEL) || IsLabel(ENCRYPTED_PKCS8_LABEL) ||
        (_anyType && IsLabel(EC_LABEL)))
        return CheckEncryption();
    return EndsWith(_label, "PRIVATE KEY") ? PrivateKey::UNSUPPORTED_KEY : PrivateKey::BROKEN_FILE;
}

int PemKey::CheckEncryption() {
    if (IsLabel(ENCRYPTED_PKCS8_LABEL)) {
        unsigned char const* pos = _body;
        X509SigPtr const sealed(d2i_X509_SIG(nullptr, &pos, _length));
        return sealed ? 0 : PrivateKey::BROKEN_FILE;
    }
    if (!IsEncrypted()) return 0;
    EVP_CIPHER_INFO info;
    if (PEM_get_EVP_CIPHER_INFO(_header, &info) != 1) return PrivateKey::UNSUPPORTED_KEY;
    int const block = EVP_CIPHER_get_block_size(info.cipher);
    return _length > 0 && _length % block == 0 ? 0 : PrivateKey::BROKEN_FILE;
}

bool PemKey::IsEncrypted() const {
    if (IsLabel(OPENSSH_LABEL)) return _openSSH.IsEncrypted();
    return IsLabel(ENCRYPTED_PKCS8_LABEL) || (_header && *_header);
}

int PemKey::Read(ByteView const& passphrase, evp_pkey_st*& key) const {
    if (IsLabel(OPENSSH_LABEL)) return _openSSH.Read(passphrase, key);
    if (IsLabel(ENCRYPTED_PKCS8_LABEL)) return ReadEncryptedPkcs8(passphrase, key);
    if (!IsLabel(PKCS8_LABEL)) return ReadTraditional(passphrase, key);
    unsigned char const* pos = _body;
    Pkcs8Ptr const info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &pos, _length));
    return info ? FromPkcs8(info.get(), _anyType, key) : PrivateKey::BROKEN_FILE;
}

int PemKey::ReadTraditional(ByteView const& passphrase, evp_pkey_st*& key) const {
    int const mistake = IsEncrypted() ? PrivateKey::WRONG_PASSPHRASE : PrivateKey::BROKEN_FILE;
    SecretBytes der(_body, _body + _length);
    long length = _length;
    if (IsEncrypted()) {
        EVP_CIPHER_INFO info;
        if (PEM_get_EVP_CIPHER_INFO(_header, &info) != 1 ||
            PEM_do_header(&info, der.data(), &length, GivePassphrase, const_cast<ByteView*>(&passphrase)) !=
                1)
            return mistake;
    }
    unsigned char const* pos = der.data();
    int const type = IsLabel(RSA_LABEL) ? EVP_PKEY_RSA : IsLabel(DSA_LABEL) ? EVP_PKEY_DSA : EVP_PKEY_EC;
    key = d2i_PrivateKey(type, nullptr, &pos, length);
    return key ? 0 : mistake;
}

int PemKey::ReadEncryptedPkcs8(ByteView const& passphrase, evp_pkey_st*& key) const {
    unsigned char const* pos = _body;
    X509SigPtr const sealed(d2i_X509_SIG(nullptr, &pos, _length));
    if (!sealed) return PrivateKey::BROKEN_FILE;
    X509_ALGOR const* scheme = nullptr;
    X509_SIG_get0(sealed.get(), &scheme, nullptr);
    if (!IsDerivationBounded(*scheme)) return PrivateKey::BROKEN_FILE;
    ERR_clear_error();
    auto const* text = reinterpret_cast<char const*>(passphrase._data);
    Pkcs8Ptr const info(PKCS8_decrypt(sealed.get(), text, static_cast<int>(passphrase._length)));
    if (info) return FromPkcs8(info.get(), _anyType, key);
    return PassphraseWasWrong() ? PrivateKey::WRONG_PASSPHRASE : PrivateKey::UNSUPPORTED_KEY;
}

} // namespace cindral
