#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/dsa.h>
#include <openssl/err.h>
#include <openssl/hmac.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include "support/peer/peer_crypto.h"

namespace peer {

namespace {

using Number = std::unique_ptr<BIGNUM, decltype(&BN_clear_free)>;
using Key = std::shared_ptr<EVP_PKEY>;

std::size_t const dsaHalf = 20; // bytes of r and of s, RFC 4253 section 6.6

void Require(bool condition, char const* call) {
    if (!condition) throw PeerError(std::string("libcrypto: ") + call);
}

Number NewNumber() {
    Number number(BN_new(), BN_clear_free);
    Require(number != nullptr, "BN_new");
    return number;
}

Number ToNumber(Bytes const& bytes) {
    Number number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr), BN_clear_free);
    Require(number != nullptr, "BN_bin2bn");
    return number;
}

Bytes FromNumber(BIGNUM const* number) {
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    return bytes;
}

struct CipherInfo {
    EVP_CIPHER const* (*algorithm)();
    std::size_t keyLength;
    std::size_t blockSize;
};

CipherInfo const& FindCipher(std::string const& name) {
    static std::map<std::string, CipherInfo> const ciphers = {
        {"aes128-ctr", {EVP_aes_128_ctr, 16, 16}}, {"aes192-ctr", {EVP_aes_192_ctr, 24, 16}},
        {"aes256-ctr", {EVP_aes_256_ctr, 32, 16}}, {"aes128-cbc", {EVP_aes_128_cbc, 16, 16}},
        {"aes192-cbc", {EVP_aes_192_cbc, 24, 16}}, {"aes256-cbc", {EVP_aes_256_cbc, 32, 16}},
        {"3des-cbc", {EVP_des_ede3_cbc, 24, 8}},
    };
    auto const found = ciphers.find(name);
    if (found == ciphers.end()) throw PeerError("unknown cipher " + name);
    return found->second;
}

struct MacInfo {
    EVP_MD const* (*digest)();
    std::size_t keyLength;
    std::size_t length;
};

MacInfo const& FindMac(std::string const& name) {
    static std::map<std::string, MacInfo> const macs = {
        {"hmac-sha1", {EVP_sha1, 20, 20}},       {"hmac-sha1-96", {EVP_sha1, 20, 12}},
        {"hmac-md5", {EVP_md5, 16, 16}},         {"hmac-sha2-256", {EVP_sha256, 32, 32}},
        {"hmac-sha2-512", {EVP_sha512, 64, 64}},
    };
    auto const found = macs.find(name);
    if (found == macs.end()) throw PeerError("unknown MAC " + name);
    return found->second;
}

Bytes KeyParameter(EVP_PKEY* key, char const* name) {
    BIGNUM* number = nullptr;
    Require(EVP_PKEY_get_bn_param(key, name, &number) == 1, "EVP_PKEY_get_bn_param");
    return FromNumber(Number(number, BN_clear_free).get());
}

Bytes RunSign(EVP_PKEY* key, Bytes const& data) {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    Require(EVP_DigestSignInit(context.get(), nullptr, EVP_sha1(), nullptr, key) == 1, "EVP_DigestSignInit");
    std::size_t length = 0;
    Require(EVP_DigestSign(context.get(), nullptr, &length, data.data(), data.size()) == 1, "EVP_DigestSign");
    Bytes signature(length);
    Require(EVP_DigestSign(context.get(), signature.data(), &length, data.data(), data.size()) == 1,
            "EVP_DigestSign");
    signature.resize(length);
    return signature;
}

bool RunVerify(EVP_PKEY* key, Bytes const& signature, Bytes const& data) {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    Require(EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha1(), nullptr, key) == 1,
            "EVP_DigestVerifyInit");
    int const result =
        EVP_DigestVerify(context.get(), signature.data(), signature.size(), data.data(), data.size());
    ERR_clear_error();
    return result == 1;
}

/// r and s side by side, 20 bytes each, out of the DER form.
Bytes DsaToWire(Bytes const& der) {
    unsigned char const* at = der.data();
    std::unique_ptr<DSA_SIG, decltype(&DSA_SIG_free)> signature(
        d2i_DSA_SIG(nullptr, &at, static_cast<long>(der.size())), DSA_SIG_free);
    Require(signature != nullptr, "d2i_DSA_SIG");
    BIGNUM const* r = nullptr;
    BIGNUM const* s = nullptr;
    DSA_SIG_get0(signature.get(), &r, &s);
    Bytes wire(2 * dsaHalf);
    Require(BN_bn2binpad(r, wire.data(), dsaHalf) == dsaHalf, "BN_bn2binpad");
    Require(BN_bn2binpad(s, wire.data() + dsaHalf, dsaHalf) == dsaHalf, "BN_bn2binpad");
    return wire;
}

Bytes DsaToDer(Bytes const& wire) {
    std::unique_ptr<DSA_SIG, decltype(&DSA_SIG_free)> signature(DSA_SIG_new(), DSA_SIG_free);
    Require(DSA_SIG_set0(signature.get(), ToNumber(Slice(wire, 0, dsaHalf)).release(),
                         ToNumber(Slice(wire, dsaHalf, dsaHalf)).release()) == 1,
            "DSA_SIG_set0");
    unsigned char* der = nullptr;
    int const length = i2d_DSA_SIG(signature.get(), &der);
    Require(length > 0, "i2d_DSA_SIG");
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

Key BuildPublicKey(char const* type, std::vector<std::pair<char const*, Bytes>> const& parameters) {
    std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> builder(OSSL_PARAM_BLD_new(),
                                                                            OSSL_PARAM_BLD_free);
    std::vector<Number> numbers;
    for (auto const& [name, value] : parameters) {
        numbers.push_back(ToNumber(value));
        Require(OSSL_PARAM_BLD_push_BN(builder.get(), name, numbers.back().get()) == 1,
                "OSSL_PARAM_BLD_push_BN");
    }
    std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> list(OSSL_PARAM_BLD_to_param(builder.get()),
                                                                 OSSL_PARAM_free);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr), EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    Require(EVP_PKEY_fromdata_init(context.get()) == 1, "EVP_PKEY_fromdata_init");
    Require(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, list.get()) == 1,
            "EVP_PKEY_fromdata");
    return Key(key, EVP_PKEY_free);
}

Key ParsePublicKey(Bytes const& blob) {
    Reader reader(blob);
    std::string const type = reader.String();
    if (type == "ssh-rsa") {
        Bytes const e = reader.Mpint();
        Bytes const n = reader.Mpint();
        reader.End();
        return BuildPublicKey("RSA", {{OSSL_PKEY_PARAM_RSA_N, n}, {OSSL_PKEY_PARAM_RSA_E, e}});
    }
    if (type != "ssh-dss") throw PeerError("unknown key type " + type);
    Bytes const p = reader.Mpint();
    Bytes const q = reader.Mpint();
    Bytes const g = reader.Mpint();
    Bytes const y = reader.Mpint();
    reader.End();
    return BuildPublicKey("DSA", {{OSSL_PKEY_PARAM_FFC_P, p},
                                  {OSSL_PKEY_PARAM_FFC_Q, q},
                                  {OSSL_PKEY_PARAM_FFC_G, g},
                                  {OSSL_PKEY_PARAM_PUB_KEY, y}});
}

std::string ReadWhole(std::string const& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file || text.str().empty()) throw PeerError("can't read " + path);
    return text.str();
}

} // namespace

std::size_t CipherKeyLength(std::string const& name) { return FindCipher(name).keyLength; }

std::size_t CipherBlockSize(std::string const& name) { return FindCipher(name).blockSize; }

std::size_t MacKeyLength(std::string const& name) { return FindMac(name).keyLength; }

Cipher::Cipher() : _blockSize(8) {}

Cipher::Cipher(std::string const& name, Bytes const& key, Bytes const& iv, bool encrypt)
    : _blockSize(CipherBlockSize(name)), _context(EVP_CIPHER_CTX_new()) {
    CipherInfo const& info = FindCipher(name);
    if (key.size() < info.keyLength || iv.size() < info.blockSize)
        throw PeerError("key too short for " + name);
    Require(EVP_CipherInit_ex(_context.get(), info.algorithm(), nullptr, key.data(), iv.data(),
                              encrypt ? 1 : 0) == 1,
            "EVP_CipherInit_ex");
    Require(EVP_CIPHER_CTX_set_padding(_context.get(), 0) == 1, "EVP_CIPHER_CTX_set_padding");
}

Bytes Cipher::Process(Bytes const& data) {
    if (!_context) return data;
    Bytes out(data.size() + _blockSize);
    int length = 0;
    Require(EVP_CipherUpdate(_context.get(), out.data(), &length, data.data(),
                             static_cast<int>(data.size())) == 1,
            "EVP_CipherUpdate");
    out.resize(static_cast<std::size_t>(length));
    return out;
}

MacKey::MacKey(std::string const& name, Bytes const& key) : _digest(FindMac(name).digest()) {
    MacInfo const& info = FindMac(name);
    if (key.size() < info.keyLength) throw PeerError("key too short for " + name);
    _key = Slice(key, 0, info.keyLength);
    _length = info.length;
}

Bytes MacKey::Compute(std::uint32_t sequence, Bytes const& plain) const {
    if (_digest == nullptr) return {};
    Bytes const input = Concat({Writer().U32(sequence), plain});
    Bytes mac(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    Require(HMAC(_digest, _key.data(), static_cast<int>(_key.size()), input.data(), input.size(), mac.data(),
                 &length) != nullptr,
            "HMAC");
    mac.resize(_length);
    return mac;
}

Bytes Sha1(Bytes const& data) {
    Bytes value(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    Require(EVP_Digest(data.data(), data.size(), value.data(), &length, EVP_sha1(), nullptr) == 1,
            "EVP_Digest");
    value.resize(length);
    return value;
}

KeyPair::KeyPair(std::string const& file) : _pem(ReadWhole(BRANTLE_TEST_DATA "/" + file)) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(_pem.data(), static_cast<int>(_pem.size())),
                                                  BIO_free);
    _key = Key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    Require(_key != nullptr, "PEM_read_bio_PrivateKey");
    Writer blob;
    if (EVP_PKEY_is_a(_key.get(), "RSA") == 1) {
        _type = "ssh-rsa";
        blob.String(_type);
        for (char const* name : {OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_N})
            blob.Mpint(KeyParameter(_key.get(), name));
    } else {
        _type = "ssh-dss";
        blob.String(_type);
        for (char const* name :
             {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q, OSSL_PKEY_PARAM_FFC_G, OSSL_PKEY_PARAM_PUB_KEY})
            blob.Mpint(KeyParameter(_key.get(), name));
    }
    _blob = blob;
}

KeyPair const& KeyPair::HostRsa() {
    static KeyPair const key("host_rsa.pem");
    return key;
}

KeyPair const& KeyPair::OtherHostRsa() {
    static KeyPair const key("other_host_rsa.pem");
    return key;
}

KeyPair const& KeyPair::HostDsa() {
    static KeyPair const key("host_dsa.pem");
    return key;
}

KeyPair const& KeyPair::UserRsa() {
    static KeyPair const key("user_rsa.pem");
    return key;
}

KeyPair const& KeyPair::UserDsa() {
    static KeyPair const key("user_dsa.pem");
    return key;
}

Bytes KeyPair::Sign(Bytes const& data) const {
    Bytes const signature = RunSign(_key.get(), data);
    return Writer().String(_type).String(_type == "ssh-dss" ? DsaToWire(signature) : signature);
}

std::string KeyPair::EncryptedPem(std::string const& passphrase) const {
    std::unique_ptr<BIO, decltype(&BIO_free)> const bio(BIO_new(BIO_s_mem()), BIO_free);
    Require(PEM_write_bio_PrivateKey(bio.get(), _key.get(), EVP_aes_128_cbc(),
                                     reinterpret_cast<unsigned char const*>(passphrase.data()),
                                     static_cast<int>(passphrase.size()), nullptr, nullptr) == 1,
            "PEM_write_bio_PrivateKey");
    char* data = nullptr;
    long const length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

std::string KeyPair::PublicLine(std::string const& comment) const {
    std::string base64(4 * ((_blob.size() + 2) / 3) + 1, '\0');
    int const length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()), _blob.data(),
                                       static_cast<int>(_blob.size()));
    base64.resize(static_cast<std::size_t>(length));
    return _type + " " + base64 + " " + comment;
}

bool VerifySignature(Bytes const& keyBlob, Bytes const& signatureBlob, Bytes const& data) {
    std::string const type = Reader(keyBlob).String();
    Reader reader(signatureBlob);
    if (reader.String() != type) return false;
    Bytes signature = reader.Blob();
    if (reader.Left() != 0) return false;
    if (type == "ssh-dss") {
        if (signature.size() != 2 * dsaHalf) return false;
        signature = DsaToDer(signature);
    }
    return RunVerify(ParsePublicKey(keyBlob).get(), signature, data);
}

DhGroup const& DhGroup::Modp(unsigned bits) {
    static std::map<unsigned, DhGroup> const groups = [] {
        std::map<unsigned, BIGNUM* (*)(BIGNUM*)> const primes = {
            {1024, BN_get_rfc2409_prime_1024}, {1536, BN_get_rfc3526_prime_1536},
            {2048, BN_get_rfc3526_prime_2048}, {3072, BN_get_rfc3526_prime_3072},
            {4096, BN_get_rfc3526_prime_4096}, {6144, BN_get_rfc3526_prime_6144},
            {8192, BN_get_rfc3526_prime_8192}};
        std::map<unsigned, DhGroup> all;
        for (auto const& [size, prime] : primes)
            all[size] = {FromNumber(Number(prime(nullptr), BN_clear_free).get()), {2}, size};
        return all;
    }();
    return groups.at(bits);
}

DhGroup const& DhGroup::ForRequest(std::uint32_t min, std::uint32_t preferred, std::uint32_t max) {
    for (unsigned bits : {1024u, 1536u, 2048u, 3072u, 4096u, 6144u, 8192u})
        if (bits >= min && bits >= preferred && bits <= max) return Modp(bits);
    throw PeerError("no group between " + std::to_string(min) + " and " + std::to_string(max) + " bits");
}

Bytes ModularPower(Bytes const& base, Bytes const& exponent, Bytes const& modulus) {
    std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> context(BN_CTX_new(), BN_CTX_free);
    Number const result = NewNumber();
    Require(BN_mod_exp(result.get(), ToNumber(base).get(), ToNumber(exponent).get(), ToNumber(modulus).get(),
                       context.get()) == 1,
            "BN_mod_exp");
    return FromNumber(result.get());
}

Bytes AddSmall(Bytes const& number, int delta) {
    Number const value = ToNumber(number);
    auto const amount = static_cast<BN_ULONG>(delta < 0 ? -delta : delta);
    Require((delta < 0 ? BN_sub_word(value.get(), amount) : BN_add_word(value.get(), amount)) == 1,
            "BN_add_word");
    return FromNumber(value.get());
}

Bytes const& ServerExponent() {
    static Bytes const exponent =
        Concat({Sha1(ToBytes("server exponent 1")), Sha1(ToBytes("server exponent 2"))});
    return exponent;
}

Bytes ServerPublicValue(DhGroup const& group) {
    static std::mutex mutex;
    static std::map<std::pair<Bytes, Bytes>, Bytes> values;
    std::lock_guard<std::mutex> const lock(mutex);
    Bytes& value = values[{group.p, group.g}];
    if (value.empty()) value = ModularPower(group.g, ServerExponent(), group.p);
    return value;
}

Bytes ExchangeHash(ExchangeHashInput const& input) {
    return Sha1(Writer()
                    .String(input.clientVersion)
                    .String(input.serverVersion)
                    .String(input.clientKexInit)
                    .String(input.serverKexInit)
                    .String(input.hostKeyBlob)
                    .U32(input.min)
                    .U32(input.preferred)
                    .U32(input.max)
                    .Mpint(input.p)
                    .Mpint(input.g)
                    .Mpint(input.e)
                    .Mpint(input.f)
                    .Mpint(input.k));
}

KeySet DeriveKeySet(KeyExtension form, Bytes const& k, Bytes const& hash, Bytes const& sessionId,
                    std::size_t need) {
    KeySet set;
    for (std::size_t i = 0; i < set.keys.size(); ++i) {
        Bytes& key = set.keys[i];
        key = Sha1(Writer().Mpint(k).Raw(hash).U8(static_cast<unsigned>('A' + i)).Raw(sessionId));
        while (key.size() < need) {
            Writer more;
            more.Mpint(k);
            if (form == KeyExtension::Rfc4253)
                more.Raw(hash).Raw(key);
            else
                more.String(hash).String(key);
            key = Concat({key, Sha1(more)});
        }
    }
    return set;
}

} // namespace peer
