#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>

#include <brantle/cindral/exceptions.h>

#include "standard/algorithms.h"
#include "standard/signature_scheme.h"

namespace cindral::standard {

namespace {

using BnPtr = OpenSSLPtr<BIGNUM, BN_free>;
using EcdsaSigPtr = OpenSSLPtr<ECDSA_SIG, ECDSA_SIG_free>;
using ParamPtr = OpenSSLPtr<OSSL_PARAM, OSSL_PARAM_free>;

constexpr char const* ED25519 = "ssh-ed25519";
constexpr char const* RSA = "ssh-rsa";
constexpr std::size_t ED25519_KEY = 32;
constexpr int MAX_RSA_BITS = 16384; ///< libcrypto's

struct Curve {
    char const* keyType;
    char const* name;  ///< in the key blob
    char const* group; ///< as libcrypto names it
    std::size_t size;  ///< of a coordinate and of a signature's numbers, in bytes
};

constexpr Curve CURVES[] = {
    {"ecdsa-sha2-nistp256", "nistp256", "prime256v1", 32},
    {"ecdsa-sha2-nistp384", "nistp384", "secp384r1", 48},
    {"ecdsa-sha2-nistp521", "nistp521", "secp521r1", 66},
};

Curve const* FindCurve(std::string_view keyType) {
    for (Curve const& curve : CURVES)
        if (keyType == curve.keyType) return &curve;
    return nullptr;
}

BnPtr ToNumber(View magnitude) {
    BnPtr number(BN_bin2bn(magnitude.data(), static_cast<int>(magnitude.size()), nullptr));
    if (!number) throw OpenSSLError("BN_bin2bn");
    return number;
}

bool IsPositive(View mpint) { return !mpint.empty() && !(mpint[0] & 0x80); }

/// Null if libcrypto does not accept the numbers.
PkeyPtr FromData(char const* type, OSSL_PARAM* parameters) {
    PkeyCtxPtr const context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    if (!context || EVP_PKEY_fromdata_init(context.get()) != 1) throw OpenSSLError("EVP_PKEY_fromdata_init");
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters);
    return PkeyPtr(key);
}

PkeyPtr ReadEd25519(Reader& reader) {
    View const key = reader.String();
    if (key.size() != ED25519_KEY) return nullptr;
    return PkeyPtr(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size()));
}

PkeyPtr ReadEcdsa(Reader& reader, Curve const& curve) {
    View const name = reader.String();
    View const point = reader.String();
    // Only uncompressed points (RFC 5656, section 3.1); libcrypto checks that they are on the curve.
    if (name.Text() != curve.name || point.size() != 1 + 2 * curve.size ||
        point[0] != POINT_CONVERSION_UNCOMPRESSED)
        return nullptr;
    OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(curve.group), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, const_cast<unsigned char*>(point.data()),
                                          point.size()),
        OSSL_PARAM_construct_end()};
    return FromData("EC", parameters);
}

PkeyPtr ReadRsa(Reader& reader) {
    View const exponent = reader.Mpint();
    View const modulus = reader.Mpint();
    if (!IsPositive(exponent) || !IsPositive(modulus)) return nullptr;
    BnPtr const e = ToNumber(exponent);
    BnPtr const n = ToNumber(modulus);
    int const bits = BN_num_bits(n.get());
    if (bits < MIN_RSA_BITS)
        throw SshProtocolError(
            ("RSA key of " + std::to_string(bits) + " bits is shorter than " + std::to_string(MIN_RSA_BITS))
                .c_str());
    if (bits > MAX_RSA_BITS || !BN_is_odd(n.get()) || !BN_is_odd(e.get()) || BN_is_one(e.get()) ||
        BN_cmp(e.get(), n.get()) >= 0)
        return nullptr;
    ParamBuildPtr const build(OSSL_PARAM_BLD_new());
    if (!build || OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1)
        throw OpenSSLError("OSSL_PARAM_BLD_push_BN");
    ParamPtr const parameters(OSSL_PARAM_BLD_to_param(build.get()));
    return parameters ? FromData("RSA", parameters.get()) : nullptr;
}

PkeyPtr ReadKey(Reader& reader, std::string_view type) {
    if (type == ED25519) return ReadEd25519(reader);
    if (type == RSA) return ReadRsa(reader);
    if (Curve const* const curve = FindCurve(type)) return ReadEcdsa(reader, *curve);
    throw SshProtocolError("key of a type that is not supported"); // the name is the server's choice
}

/// The SSH type of a key; empty if it is not supported.
std::string TypeOf(EVP_PKEY* key) {
    if (EVP_PKEY_is_a(key, "ED25519")) return ED25519;
    if (EVP_PKEY_is_a(key, "RSA")) return RSA;
    char group[64];
    if (!EVP_PKEY_is_a(key, "EC") || EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) != 1)
        return std::string();
    for (Curve const& curve : CURVES)
        if (std::string_view(group) == curve.group) return curve.keyType;
    return std::string();
}

/// A number of a key, as its magnitude.
Bytes NumberOf(EVP_PKEY* key, char const* name) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &number) != 1) throw OpenSSLError("EVP_PKEY_get_bn_param");
    BnPtr const owned(number);
    Bytes magnitude(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, magnitude.data());
    return magnitude;
}

Bytes RawPublicKey(EVP_PKEY* key) {
    Bytes bytes(ED25519_KEY);
    std::size_t size = bytes.size();
    if (EVP_PKEY_get_raw_public_key(key, bytes.data(), &size) != 1)
        throw OpenSSLError("EVP_PKEY_get_raw_public_key");
    return bytes;
}

Bytes PointOf(EVP_PKEY* key, Curve const& curve) {
    // From the coordinates, as the key's point may have been read in another form.
    Bytes point{POINT_CONVERSION_UNCOMPRESSED};
    for (char const* name : {OSSL_PKEY_PARAM_EC_PUB_X, OSSL_PKEY_PARAM_EC_PUB_Y}) {
        Bytes const coordinate = NumberOf(key, name);
        point.resize(point.size() + curve.size - coordinate.size());
        point.insert(point.end(), coordinate.begin(), coordinate.end());
    }
    return point;
}

/// The two numbers of an ECDSA signature (RFC 5656, section 3.1.2) in the form that libcrypto expects. Empty
/// if they are malformed.
Bytes DerFromNumbers(View signature, Curve const& curve) {
    Reader reader(signature, "signature");
    View const r = reader.Mpint();
    View const s = reader.Mpint();
    reader.End();
    for (View const& number : {r, s})
        if (!IsPositive(number) || number.size() > curve.size + 1) return Bytes();
    EcdsaSigPtr const numbers(ECDSA_SIG_new());
    if (!numbers || ECDSA_SIG_set0(numbers.get(), ToNumber(r).release(), ToNumber(s).release()) != 1)
        throw OpenSSLError("ECDSA_SIG_set0");
    unsigned char* der = nullptr;
    int const size = i2d_ECDSA_SIG(numbers.get(), &der);
    if (size <= 0) throw OpenSSLError("i2d_ECDSA_SIG");
    Bytes const bytes(der, der + size);
    OPENSSL_free(der);
    return bytes;
}

Bytes NumbersFromDer(View der) {
    unsigned char const* pos = der.data();
    EcdsaSigPtr const numbers(d2i_ECDSA_SIG(nullptr, &pos, static_cast<long>(der.size())));
    if (!numbers) throw OpenSSLError("d2i_ECDSA_SIG");
    Writer writer;
    for (BIGNUM const* number : {ECDSA_SIG_get0_r(numbers.get()), ECDSA_SIG_get0_s(numbers.get())}) {
        Bytes magnitude(static_cast<std::size_t>(BN_num_bytes(number)));
        BN_bn2bin(number, magnitude.data());
        writer.Mpint(magnitude);
    }
    return writer.Take();
}

/// The signature in the form that libcrypto expects; empty if it is malformed.
Bytes ToLibcrypto(View signature, std::string_view keyType, EVP_PKEY* key) {
    if (Curve const* const curve = FindCurve(keyType)) return DerFromNumbers(signature, *curve);
    if (keyType != RSA) return signature.Copy();
    auto const size = static_cast<std::size_t>(EVP_PKEY_get_size(key));
    if (signature.empty() || signature.size() > size) return Bytes();
    Bytes padded(size - signature.size());
    padded.insert(padded.end(), signature.begin(), signature.end());
    return padded;
}

/// The signature in a blob of that algorithm. Throws SshProtocolError for a blob of any other.
View SignatureIn(View blob, std::string_view algorithm) {
    Reader reader(blob, "signature");
    if (reader.String().Text() != algorithm) reader.Fail("is of another algorithm");
    View const signature = reader.String();
    reader.End();
    return signature;
}

bool VerifyWith(EVP_PKEY* key, SignatureAlgorithm const& algorithm, View data, View signatureBlob) {
    Bytes const signature = ToLibcrypto(SignatureIn(signatureBlob, algorithm.name), algorithm.keyType, key);
    MdCtxPtr const context(EVP_MD_CTX_new());
    if (!context || EVP_DigestVerifyInit_ex(context.get(), nullptr, algorithm.digest, nullptr, nullptr, key,
                                            nullptr) != 1)
        throw OpenSSLError("EVP_DigestVerifyInit_ex");
    return !signature.empty() &&
           EVP_DigestVerify(context.get(), signature.data(), signature.size(), data.data(), data.size()) == 1;
}

} // namespace

std::string KeyTypeOf(View keyBlob) {
    try {
        return Reader(keyBlob, "key").String().Str();
    } catch (SshProtocolError const&) {
        return std::string();
    }
}

std::string SignatureAlgorithmsOf(std::string_view keyType) {
    std::string names;
    for (std::string const& name : SplitNames(DefaultAlgorithms(AlgorithmKind::PUBLIC_KEY)))
        if (keyType == FindSignature(name).keyType) names += (names.empty() ? "" : ",") + name;
    return names;
}

PkeyPtr ParseKeyBlob(View keyBlob) {
    Reader reader(keyBlob, "key");
    std::string_view const type = reader.String().Text();
    PkeyPtr key = ReadKey(reader, type);
    reader.End();
    if (key) return key;
    ERR_clear_error(); // a server's bad input must leave no error in libcrypto's queue
    throw SshProtocolError("malformed key", String_t(std::string(type).c_str()));
}

Bytes MakeKeyBlob(EVP_PKEY* key) {
    std::string const type = TypeOf(key);
    if (type.empty()) throw InvalidArgument("MakeKeyBlob", "key of a type that is not supported");
    Writer blob;
    blob.String(type);
    if (Curve const* const curve = FindCurve(type))
        blob.String(curve->name).String(PointOf(key, *curve));
    else if (type == RSA)
        blob.Mpint(NumberOf(key, OSSL_PKEY_PARAM_RSA_E)).Mpint(NumberOf(key, OSSL_PKEY_PARAM_RSA_N));
    else
        blob.String(RawPublicKey(key));
    return blob.Take();
}

bool Verify(std::string_view algorithmName, View keyBlob, View data, View signatureBlob) {
    SignatureAlgorithm const& algorithm = FindSignature(algorithmName);
    PkeyPtr const key = ParseKeyBlob(keyBlob);
    if (KeyTypeOf(keyBlob) != algorithm.keyType) return false;
    bool valid;
    try {
        valid = VerifyWith(key.get(), algorithm, data, signatureBlob);
    } catch (SshProtocolError const&) {
        valid = false; // malformed
    }
    ERR_clear_error();
    return valid;
}

Bytes Sign(std::string_view algorithmName, EVP_PKEY* key, View data) {
    SignatureAlgorithm const& algorithm = FindSignature(algorithmName);
    if (TypeOf(key) != algorithm.keyType)
        throw InvalidArgument("Sign", "the key is not one for the algorithm");
    MdCtxPtr const context(EVP_MD_CTX_new());
    Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
    std::size_t size = signature.size();
    if (!context ||
        EVP_DigestSignInit_ex(context.get(), nullptr, algorithm.digest, nullptr, nullptr, key, nullptr) !=
            1 ||
        EVP_DigestSign(context.get(), signature.data(), &size, data.data(), data.size()) != 1)
        throw OpenSSLError("EVP_DigestSign");
    signature.resize(size);
    bool const isDer = FindCurve(algorithm.keyType) != nullptr;
    return Writer().String(algorithm.name).String(isDer ? NumbersFromDer(signature) : signature).Take();
}

} // namespace cindral::standard
