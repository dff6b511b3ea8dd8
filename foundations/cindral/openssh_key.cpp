#include <cstring>

#include <openssl/core_names.h>
#include <openssl/params.h>

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/private_key.h>

#include "bcrypt_pbkdf.h"
#include "openssh_key.h"
#include "openssl_ptr.h"
#include "pkey.h"

namespace cindral {

namespace {

constexpr char MAGIC[] = "openssh-key-v1"; ///< with its terminator
constexpr unsigned int KEY_LENGTH = 32;    ///< of AES-256, the cipher of both modes
constexpr unsigned int IV_LENGTH = 16;
constexpr unsigned int PLAIN_BLOCK = 8;
constexpr unsigned int MAX_ROUNDS = 1U
                                    << 20; ///< of bcrypt: hours of work; real files have 16 to some hundreds

constexpr char ED25519[] = "ssh-ed25519";
constexpr unsigned int ED25519_SEED = 32; ///< the private half; the public one has the same length
constexpr char ECDSA_PREFIX[] = "ecdsa-sha2-";
constexpr char CURVE_PREFIX[] = "nistp";

bool BeginsWith(ByteView const& name, char const* prefix) {
    std::size_t const length = std::strlen(prefix);
    return name._length > length && std::memcmp(name._data, prefix, length) == 0;
}

bool IsOfferedType(ByteView const& name, bool anyType) {
    return name.Is(KeyName(KEY_RSA)) || name.Is(KeyName(KEY_DSA)) ||
           (anyType && (name.Is(ED25519) || BeginsWith(name, ECDSA_PREFIX)));
}

/// Wipes key bytes on destruction.
class WipedBytes : public ByteString {
public:
    using ByteString::ByteString;
    ~WipedBytes() { OPENSSL_cleanse(Data(), Length()); }
};

void Decrypt(ByteView const& cipherName, SecretBytes const& keyAndIv, SecretBytes& bytes) {
    String_t const name(reinterpret_cast<char const*>(cipherName._data), cipherName._length);
    WipedBytes const key(keyAndIv.data(), KEY_LENGTH);
    ByteString const iv(keyAndIv.data() + KEY_LENGTH, IV_LENGTH);
    BlockCipher cipher;
    cipher.Redefine(name.Text(), BlockCipher::DECRYPT, key, iv);
    if (cipher._rep->Process(bytes.data(), static_cast<unsigned int>(bytes.size()), bytes.data()) < 0)
        throw OpenSSLError("EVP_CipherUpdate");
}

/// d modulo (prime - 1), which the file does not contain.
bool Exponent(BigNum& result, BigNum const& d, BigNum const& prime, BN_CTX* context) {
    BigNum less;
    BN_set_flags(d._bn, BN_FLG_CONSTTIME);
    return BN_sub(less._bn, prime._bn, BN_value_one()) == 1 &&
           BN_mod(result._bn, d._bn, less._bn, context) == 1;
}

evp_pkey_st* ReadRsa(WireReader& reader) {
    BigNum n, e, d, inverse, p, q, dp, dq;
    for (BigNum* number : {&n, &e, &d, &inverse, &p, &q}) reader.Mpint(number->_bn);
    BnCtxPtr const context(BN_CTX_new());
    if (!reader.Ok() || !context || !Exponent(dp, d, p, context.get()) || !Exponent(dq, d, q, context.get()))
        return nullptr;
    return MakePkey("RSA", EVP_PKEY_KEYPAIR,
                    {{OSSL_PKEY_PARAM_RSA_N, n._bn},
                     {OSSL_PKEY_PARAM_RSA_E, e._bn},
                     {OSSL_PKEY_PARAM_RSA_D, d._bn},
                     {OSSL_PKEY_PARAM_RSA_FACTOR1, p._bn},
                     {OSSL_PKEY_PARAM_RSA_FACTOR2, q._bn},
                     {OSSL_PKEY_PARAM_RSA_EXPONENT1, dp._bn},
                     {OSSL_PKEY_PARAM_RSA_EXPONENT2, dq._bn},
                     {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, inverse._bn}});
}

evp_pkey_st* ReadDsa(WireReader& reader) {
    BigNum p, q, g, y, x;
    for (BigNum* number : {&p, &q, &g, &y, &x}) reader.Mpint(number->_bn);
    if (!reader.Ok()) return nullptr;
    return MakePkey("DSA", EVP_PKEY_KEYPAIR,
                    {{OSSL_PKEY_PARAM_FFC_P, p._bn},
                     {OSSL_PKEY_PARAM_FFC_Q, q._bn},
                     {OSSL_PKEY_PARAM_FFC_G, g._bn},
                     {OSSL_PKEY_PARAM_PUB_KEY, y._bn},
                     {OSSL_PKEY_PARAM_PRIV_KEY, x._bn}});
}

/// RFC 8709; the private half comes with the public one after it. Without that, OpenSSL would compute it,
/// which costs as much as a signature.
evp_pkey_st* ReadEd25519(WireReader& reader) {
    ByteView const first = reader.String();
    ByteView const both = reader.String();
    if (!reader.Ok() || first._length != ED25519_SEED || both._length != 2 * ED25519_SEED ||
        std::memcmp(first._data, both._data + ED25519_SEED, ED25519_SEED) != 0)
        return nullptr;
    auto const half = [&](char const* name, unsigned int from) {
        return OSSL_PARAM_construct_octet_string(name, const_cast<unsigned char*>(both._data) + from,
                                                 ED25519_SEED);
    };
    OSSL_PARAM halves[] = {half(OSSL_PKEY_PARAM_PRIV_KEY, 0), half(OSSL_PKEY_PARAM_PUB_KEY, ED25519_SEED),
                           OSSL_PARAM_construct_end()};
    return MakePkey("ED25519", EVP_PKEY_KEYPAIR, halves);
}

/// RFC 5656, section 3.1.
evp_pkey_st* ReadEcdsa(WireReader& reader) {
    ByteView const curve = reader.String();
    ByteView const point = reader.String();
    BigNum number;
    reader.Mpint(number._bn);
    char group[] = "P-???";
    if (!reader.Ok() || !BeginsWith(curve, CURVE_PREFIX) || curve._length != sizeof CURVE_PREFIX + 2)
        return nullptr;
    std::memcpy(group + 2, curve._data + sizeof CURVE_PREFIX - 1, 3);
    KeyPoint const publicHalf{group, point};
    return MakePkey("EC", EVP_PKEY_KEYPAIR, {{OSSL_PKEY_PARAM_PRIV_KEY, number._bn}}, &publicHalf);
}

evp_pkey_st* ReadNamed(ByteView const& name, WireReader& reader) {
    return name.Is(KeyName(KEY_RSA))   ? ReadRsa(reader)
           : name.Is(KeyName(KEY_DSA)) ? ReadDsa(reader)
           : name.Is(ED25519)          ? ReadEd25519(reader)
                                       : ReadEcdsa(reader);
}

/// The padding counts 1, 2, 3 and so on up to the block's end.
bool IsPadding(ByteView const& bytes) {
    for (unsigned int i = 0; i < bytes._length; ++i)
        if (bytes._data[i] != ((i + 1) & 0xff)) return false;
    return true;
}

int ReadPlain(SecretBytes const& plain, bool encrypted, bool anyType, evp_pkey_st*& key) {
    WireReader reader(plain.data(), static_cast<unsigned int>(plain.size()));
    unsigned int const check = reader.Int();
    if (check != reader.Int()) return encrypted ? PrivateKey::WRONG_PASSPHRASE : PrivateKey::BROKEN_FILE;
    ByteView const name = reader.String();
    PkeyPtr made(IsOfferedType(name, anyType) ? ReadNamed(name, reader) : nullptr);
    reader.String(); // the comment
    ByteView const padding = reader.Rest();
    if (!made || !reader.Ok() || !IsPadding(padding)) return PrivateKey::BROKEN_FILE;
    key = made.release();
    return 0;
}

} // namespace

int OpenSSHKey::Open(unsigned char const* body, unsigned int length, bool anyType) {
    _anyType = anyType;
    WireReader reader(body, length);
    ByteView const magic = reader.Bytes(sizeof MAGIC);
    if (!reader.Ok() || std::memcmp(magic._data, MAGIC, sizeof MAGIC) != 0) return PrivateKey::BROKEN_FILE;
    _cipher = reader.String();
    ByteView const derivation = reader.String();
    WireReader options(reader.String());
    unsigned int const keys = reader.Int();
    _public = reader.String();
    _private = reader.String();
    ByteView const type = WireReader(_public).String();
    if (!reader.Ok()) return PrivateKey::BROKEN_FILE;
    if (keys != 1 || !IsOfferedType(type, anyType)) return PrivateKey::UNSUPPORTED_KEY;

    _encrypted = !_cipher.Is("none");
    if (_encrypted) {
        if (!derivation.Is("bcrypt") || !(_cipher.Is("aes256-ctr") || _cipher.Is("aes256-cbc")))
            return PrivateKey::UNSUPPORTED_KEY;
        _salt = options.String();
        _rounds = options.Int();
        if (!options.Ok() || !options.AtEnd() || _salt._length == 0 || _rounds == 0 || _rounds > MAX_ROUNDS)
            return PrivateKey::BROKEN_FILE;
    }
    unsigned int const block = _encrypted ? IV_LENGTH : PLAIN_BLOCK;
    bool const whole = reader.AtEnd() && _private._length > 0 && _private._length % block == 0;
    return whole ? 0 : PrivateKey::BROKEN_FILE;
}

int OpenSSHKey::Read(ByteView const& passphrase, evp_pkey_st*& key) const {
    SecretBytes bytes(_private._data, _private._data + _private._length);
    if (_encrypted) Decrypt(_cipher, BcryptPbkdf(passphrase, _salt, _rounds, KEY_LENGTH + IV_LENGTH), bytes);
    return ReadPlain(bytes, _encrypted, _anyType, key);
}

} // namespace cindral
