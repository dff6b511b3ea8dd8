#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <brantle/cindral/exceptions.h>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/algorithms.h"
#include "standard/key_agreement.h"

namespace cindral::standard {

namespace {

using BnPtr = OpenSSLPtr<BIGNUM, BN_clear_free>;
using ParamPtr = OpenSSLPtr<OSSL_PARAM, OSSL_PARAM_free>;

enum MessageNumber : int {
    KEX_INIT = 30, ///< KEXDH_INIT, KEX_ECDH_INIT
    KEX_REPLY = 31,
    GEX_GROUP = 31,
    GEX_INIT = 32,
    GEX_REPLY = 33,
    GEX_REQUEST = 34,
};

// The group exchange: sizes in bits.
constexpr unsigned int MIN_GROUP = 2048;
constexpr unsigned int PREFERRED_GROUP = 3072; ///< 128 bits of security
constexpr unsigned int MAX_GROUP = 8192;
/// Size of the private exponent in a group that the server chooses: more than twice the bits of security of
/// the largest one. For groups that libcrypto knows, it chooses the size itself.
constexpr int EXPONENT = 512;

[[noreturn]] void Refuse(char const* name, char const* what) {
    ERR_clear_error(); // a server's bad input must leave no error in libcrypto's queue
    Reader(View(), name).Fail(what);
}

BnPtr ToNumber(View magnitude) {
    BnPtr number(BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr));
    if (!number) throw OpenSSLError("BN_bin2bn");
    return number;
}

/// Reads an mpint that must not be negative. Returns its magnitude without leading zeros.
View ReadMagnitude(Reader& reader) {
    View const body = reader.Mpint();
    if (!body.empty() && (body[0] & 0x80)) reader.Fail("holds a negative number");
    std::size_t zeros = 0;
    while (zeros < body.size() && body[zeros] == 0) ++zeros;
    return View(body.data() + zeros, body.size() - zeros);
}

/// Whether 1 < number < p - 1.
bool IsWithin(BIGNUM const* number, BIGNUM const* p) {
    BnPtr const last(BN_dup(p));
    if (!last || BN_sub_word(last.get(), 1) != 1) throw OpenSSLError("BN_sub_word");
    return BN_cmp(number, BN_value_one()) > 0 && BN_cmp(number, last.get()) < 0;
}

/// The public value of a DH or curve key, in the encoding that its RFC specifies.
Bytes EncodePublic(EVP_PKEY* key) {
    unsigned char* encoded = nullptr;
    std::size_t const size = EVP_PKEY_get1_encoded_public_key(key, &encoded);
    if (size == 0) throw OpenSSLError("EVP_PKEY_get1_encoded_public_key");
    Bytes const bytes(encoded, encoded + size);
    OPENSSL_free(encoded);
    return bytes;
}

/// A new key pair. `parameters` may be null.
PkeyPtr Generate(PkeyCtxPtr const& context, OSSL_PARAM const* parameters) {
    EVP_PKEY* key = nullptr;
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
        (parameters && EVP_PKEY_CTX_set_params(context.get(), parameters) != 1) ||
        EVP_PKEY_generate(context.get(), &key) != 1)
        throw OpenSSLError("EVP_PKEY_generate");
    return PkeyPtr(key);
}

/// A new key pair in a group that libcrypto has a name for.
PkeyPtr GenerateInGroup(char const* type, char const* group) {
    OSSL_PARAM const parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(group), 0),
        OSSL_PARAM_construct_end()};
    return Generate(PkeyCtxPtr(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr)),
                    group ? parameters : nullptr);
}

/// The raw shared secret. `peer` has the encoding and the size of this side's public value. Throws
/// SshProtocolError that names `message` if it is not a valid public value.
SecretBytes Derive(EVP_PKEY* privateKey, View peer, char const* message) {
    PkeyPtr const key(EVP_PKEY_new());
    PkeyCtxPtr const context(EVP_PKEY_CTX_new_from_pkey(nullptr, privateKey, nullptr));
    if (!key || !context || EVP_PKEY_copy_parameters(key.get(), privateKey) != 1 ||
        EVP_PKEY_derive_init(context.get()) != 1)
        throw OpenSSLError("EVP_PKEY_derive_init");
    // This checks that a point is on its curve. The full check of the peer's key would find nothing else, as
    // the curves have cofactor 1, and the range of a Diffie-Hellman value has been checked.
    constexpr int NO_LONG_CHECK = 0;
    std::size_t size = 0;
    SecretBytes secret;
    if (EVP_PKEY_set1_encoded_public_key(key.get(), peer.data(), peer.size()) != 1 ||
        EVP_PKEY_derive_set_peer_ex(context.get(), key.get(), NO_LONG_CHECK) != 1 ||
        EVP_PKEY_derive(context.get(), nullptr, &size) != 1)
        Refuse(message, "holds an invalid public value");
    secret.resize(size);
    if (EVP_PKEY_derive(context.get(), secret.data(), &size) != 1)
        Refuse(message, "holds an invalid public value");
    secret.resize(size);
    return secret;
}

void Expect(View message, int number, char const* name) {
    if (!message.empty() && message[0] != number)
        throw SshProtocolError((std::string("expected ") + name + " message").c_str(), message[0]);
}

/// Both sides' public values as strings: X25519 (RFC 8731, section 3.1) and ECDH (RFC 5656, section 4).
class CurveAgreement : public KeyAgreement {
public:
    explicit CurveAgreement(KexAlgorithm const& algorithm)
        : KeyAgreement(algorithm.digest), _isPoint(algorithm.method == KexMethod::ECDH),
          _key(_isPoint ? GenerateInGroup("EC", algorithm.group) : GenerateInGroup(algorithm.group, nullptr)),
          _public(EncodePublic(_key.get())) {}

private:
    static constexpr char const* REPLY = "KEX_ECDH_REPLY";

    Bytes FirstMessage() override { return Writer(KEX_INIT).String(_public).Take(); }
    Bytes TakeNext(View message) override {
        Expect(message, KEX_REPLY, REPLY);
        Reader reader(message, REPLY);
        reader.Byte();
        View const hostKey = reader.String();
        View const peer = reader.String();
        View const signature = reader.String();
        reader.End();
        // Points are uncompressed, as this side's is.
        if (peer.size() != _public.size() || (_isPoint && peer[0] != _public[0]))
            Refuse(REPLY, "holds an invalid public value");
        _hashFields.String(_public).String(peer);
        // An all-zero result of X25519 makes Derive() refuse the peer's value (RFC 7748, section 6.1).
        Finish(hostKey, signature, Derive(_key.get(), peer, REPLY));
        return Bytes();
    }

    bool _isPoint;
    PkeyPtr _key;
    Bytes _public;
};

/// What Diffie-Hellman with fixed and with server-chosen groups has in common: public values as mpint.
class GroupAgreement : public KeyAgreement {
protected:
    using KeyAgreement::KeyAgreement;

    Bytes InitMessage(int number) const { return Writer(number).Mpint(_public).Take(); }
    void SetKey(PkeyPtr key) {
        _key = std::move(key);
        _public = EncodePublic(_key.get());
    }
    void TakeReply(View message, int number, char const* name) {
        Expect(message, number, name);
        Reader reader(message, name);
        reader.Byte();
        View const hostKey = reader.String();
        View const peer = ReadMagnitude(reader);
        View const signature = reader.String();
        reader.End();
        BIGNUM* p = nullptr;
        if (EVP_PKEY_get_bn_param(_key.get(), OSSL_PKEY_PARAM_FFC_P, &p) != 1)
            throw OpenSSLError("EVP_PKEY_get_bn_param");
        BnPtr const owned(p);
        if (!IsWithin(ToNumber(peer).get(), p)) Refuse(name, "holds an invalid public value");
        Bytes padded(_public.size() - peer.size());
        padded.insert(padded.end(), peer.begin(), peer.end());
        _hashFields.Mpint(_public).Mpint(peer);
        Finish(hostKey, signature, Derive(_key.get(), padded, name));
    }

private:
    PkeyPtr _key;
    Bytes _public; ///< as long as p
};

class FixedGroupAgreement : public GroupAgreement {
public:
    explicit FixedGroupAgreement(KexAlgorithm const& algorithm) : GroupAgreement(algorithm.digest) {
        SetKey(GenerateInGroup("DH", algorithm.group));
    }

private:
    Bytes FirstMessage() override { return InitMessage(KEX_INIT); }
    Bytes TakeNext(View message) override {
        TakeReply(message, KEX_REPLY, "KEXDH_REPLY");
        return Bytes();
    }
};

/// The server chooses the group according to the sizes requested (RFC 4419, section 3).
class GroupExchangeAgreement : public GroupAgreement {
public:
    explicit GroupExchangeAgreement(KexAlgorithm const& algorithm) : GroupAgreement(algorithm.digest) {}

private:
    static constexpr char const* GROUP = "KEX_DH_GEX_GROUP";

    Bytes FirstMessage() override {
        return Writer(GEX_REQUEST).Int(MIN_GROUP).Int(PREFERRED_GROUP).Int(MAX_GROUP).Take();
    }
    Bytes TakeNext(View message) override {
        if (_hasGroup) {
            TakeReply(message, GEX_REPLY, "KEX_DH_GEX_REPLY");
            return Bytes();
        }
        Expect(message, GEX_GROUP, GROUP);
        Reader reader(message, GROUP);
        reader.Byte();
        View const p = ReadMagnitude(reader);
        View const g = ReadMagnitude(reader);
        reader.End();
        SetKey(GenerateKey(p, g));
        _hasGroup = true;
        _hashFields.Int(MIN_GROUP).Int(PREFERRED_GROUP).Int(MAX_GROUP).Mpint(p).Mpint(g);
        return InitMessage(GEX_INIT);
    }

    static PkeyPtr GenerateKey(View pBytes, View gBytes) {
        if (pBytes.size() > MAX_GROUP / 8) Refuse(GROUP, "holds a modulus of a size not asked for");
        BnPtr const p = ToNumber(pBytes);
        BnPtr const g = ToNumber(gBytes);
        if (BN_num_bits(p.get()) < static_cast<int>(MIN_GROUP))
            Refuse(GROUP, "holds a modulus of a size not asked for");
        if (!BN_is_odd(p.get())) Refuse(GROUP, "holds an even modulus");
        if (!IsWithin(g.get(), p.get())) Refuse(GROUP, "holds an invalid generator");

        ParamBuildPtr const build(OSSL_PARAM_BLD_new());
        if (!build || OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_FFC_P, p.get()) != 1 ||
            OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_FFC_G, g.get()) != 1)
            throw OpenSSLError("OSSL_PARAM_BLD_push_BN");
        ParamPtr const numbers(OSSL_PARAM_BLD_to_param(build.get()));
        PkeyCtxPtr const context(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr));
        EVP_PKEY* group = nullptr;
        if (!numbers || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
            EVP_PKEY_fromdata(context.get(), &group, EVP_PKEY_KEY_PARAMETERS, numbers.get()) != 1)
            throw OpenSSLError("EVP_PKEY_fromdata");
        PkeyPtr const owned(group);
        int bits = EXPONENT;
        OSSL_PARAM const parameters[] = {OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_DH_PRIV_LEN, &bits),
                                         OSSL_PARAM_construct_end()};
        return Generate(PkeyCtxPtr(EVP_PKEY_CTX_new_from_pkey(nullptr, group, nullptr)), parameters);
    }

    bool _hasGroup = false;
};

} // namespace

std::unique_ptr<KeyAgreement> KeyAgreement::Create(std::string const& name) {
    KexAlgorithm const& algorithm = FindKex(name);
    switch (algorithm.method) {
    case KexMethod::X25519:
    case KexMethod::ECDH:
        return std::make_unique<CurveAgreement>(algorithm);
    case KexMethod::FIXED_GROUP:
        return std::make_unique<FixedGroupAgreement>(algorithm);
    case KexMethod::GROUP_EXCHANGE:
        return std::make_unique<GroupExchangeAgreement>(algorithm);
    }
    return nullptr;
}

View KeyAgreement::Begin() {
    _sent = FirstMessage();
    return _sent;
}

View KeyAgreement::Take(View message) {
    if (_finished)
        throw SshProtocolError("message after the end of the key exchange method",
                               message.empty() ? 0 : message[0]);
    _sent = TakeNext(message);
    return _sent;
}

void KeyAgreement::Finish(View hostKey, View signature, View secret) {
    _hostKey = hostKey.Copy();
    _signature = signature.Copy();
    _secret.Mpint(secret);
    _finished = true;
}

} // namespace cindral::standard
