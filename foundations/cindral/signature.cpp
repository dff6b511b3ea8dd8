#include <brantle/cindral/signature.h>

#include <cstring>
#include <vector>

#include <openssl/dsa.h>
#include <openssl/evp.h>

#include "openssl_ptr.h"
#include "pkey.h"
#include "wire_format.h"

namespace cindral {

namespace {

using DsaSigPtr = OpenSSLPtr<DSA_SIG, DSA_SIG_free>;

constexpr int FAILURE = -1;
constexpr int DSS_NUMBER = 20; ///< bytes of r and of s (RFC 4253 section 6.6)

/// The two strings of a signature blob.
struct Pieces {
    KeyType _type = KEY_NONE; ///< `KEY_NONE` when the blob is malformed
    ByteView _value;
};

Pieces Parse(ByteString const& blob) {
    WireReader reader(blob.Data(), blob.Length());
    ByteView const name = reader.String();
    Pieces pieces;
    pieces._value = reader.String();
    if (!reader.Ok() || !reader.AtEnd()) return pieces;
    if (name.Is(KeyName(KEY_RSA)) && pieces._value._length > 0) pieces._type = KEY_RSA;
    if (name.Is(KeyName(KEY_DSA)) && pieces._value._length == 2 * DSS_NUMBER) pieces._type = KEY_DSA;
    return pieces;
}

/// The signature as OpenSSL returns it: the blob's value for rsa, a DER sequence for dsa. Empty on failure.
std::vector<unsigned char> RawSign(ByteString const& data, EVP_PKEY* key) {
    MdCtxPtr const context(EVP_MD_CTX_new());
    size_t length = static_cast<size_t>(EVP_PKEY_get_size(key));
    std::vector<unsigned char> value(length);
    if (!context ||
        EVP_DigestSignInit_ex(context.get(), nullptr, "SHA1", nullptr, nullptr, key, nullptr) != 1 ||
        EVP_DigestSign(context.get(), value.data(), &length, data.Data(), data.Length()) != 1)
        length = 0;
    value.resize(length);
    return value;
}

std::vector<unsigned char> DssFromDer(std::vector<unsigned char> const& der) {
    unsigned char const* pos = der.data();
    DsaSigPtr const numbers(d2i_DSA_SIG(nullptr, &pos, static_cast<long>(der.size())));
    if (!numbers) return {};
    BIGNUM const* r = nullptr;
    BIGNUM const* s = nullptr;
    DSA_SIG_get0(numbers.get(), &r, &s);
    std::vector<unsigned char> value(std::size_t{2} * DSS_NUMBER);
    if (BN_bn2binpad(r, value.data(), DSS_NUMBER) != DSS_NUMBER ||
        BN_bn2binpad(s, value.data() + DSS_NUMBER, DSS_NUMBER) != DSS_NUMBER)
        return {};
    return value;
}

std::vector<unsigned char> DerFromDss(ByteView const& value) {
    DsaSigPtr const numbers(DSA_SIG_new());
    BIGNUM* r = BN_bin2bn(value._data, DSS_NUMBER, nullptr);
    BIGNUM* s = BN_bin2bn(value._data + DSS_NUMBER, DSS_NUMBER, nullptr);
    if (!numbers || DSA_SIG_set0(numbers.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return {};
    }
    int const length = i2d_DSA_SIG(numbers.get(), nullptr);
    if (length <= 0) return {};
    std::vector<unsigned char> der(static_cast<size_t>(length));
    unsigned char* pos = der.data();
    i2d_DSA_SIG(numbers.get(), &pos);
    return der;
}

/// The value may lack leading zeros (RFC 4253 section 6.6); OpenSSL requires the full length.
std::vector<unsigned char> PaddedRsa(ByteView const& value, size_t length) {
    size_t const missing = value._length < length ? length - value._length : 0;
    std::vector<unsigned char> padded(missing);
    padded.insert(padded.end(), value._data, value._data + value._length);
    return padded;
}

} // namespace

Signature::Rep::Rep(KeyType type) : _type(type) {}

Signature::Rep::~Rep() = default;

ByteString Signature::Rep::Encode() const { return _blob; }

int Signature::Rep::Decode(ByteString const& blob, DigestType digest) {
    Pieces const pieces = Parse(blob);
    if (digest != DIGEST_SHA1 || pieces._type == KEY_NONE || pieces._type != _type) return FAILURE;
    _blob = blob;
    return 0;
}

Signature::Signature(KeyType type) : _rep(new Rep(type)) {}

Signature::Signature(ByteString const& blob) : _rep(new Rep(Parse(blob)._type)) {
    if (_rep->_type != KEY_NONE) _rep->_blob = blob;
}

Signature::Signature(Signature const& other) : _rep(new Rep(*other._rep)) {}

Signature& Signature::operator=(Signature const& other) {
    *_rep = *other._rep;
    return *this;
}

Signature::~Signature() { delete _rep; }

int Signature::Sign(ByteString const& data, DigestType digest, PrivateKey const& key) {
    if (digest != DIGEST_SHA1 || !key._rep || !key._rep->IsLoaded() || key._rep->Type() != _rep->_type)
        return FAILURE;
    std::vector<unsigned char> value = RawSign(data, key._rep->_key);
    if (_rep->_type == KEY_DSA) value = DssFromDer(value);
    if (value.empty()) return FAILURE;
    ByteString blob;
    AppendString(blob, KeyName(_rep->_type));
    AppendString(blob, value.data(), static_cast<unsigned int>(value.size()));
    _rep->_blob = blob;
    return 0;
}

int Signature::Verify(ByteString const& data, DigestType digest, PublicKey const& key) {
    Pieces const pieces = Parse(_rep->_blob);
    if (digest != DIGEST_SHA1 || pieces._type == KEY_NONE || !key._rep || key._rep->Type() != pieces._type)
        return FAILURE;
    PkeyPtr const pkey(key._rep->NewPkey());
    MdCtxPtr const context(EVP_MD_CTX_new());
    if (!pkey || !context) return FAILURE;
    std::vector<unsigned char> const value =
        pieces._type == KEY_DSA
            ? DerFromDss(pieces._value)
            : PaddedRsa(pieces._value, static_cast<size_t>(EVP_PKEY_get_size(pkey.get())));
    if (value.empty() ||
        EVP_DigestVerifyInit_ex(context.get(), nullptr, "SHA1", nullptr, nullptr, pkey.get(), nullptr) != 1)
        return FAILURE;
    return EVP_DigestVerify(context.get(), value.data(), value.size(), data.Data(), data.Length()) == 1 ? 1
                                                                                                        : 0;
}

} // namespace cindral
