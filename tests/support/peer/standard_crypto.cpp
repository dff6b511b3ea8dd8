#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>

#include "support/peer/standard_crypto.h"

namespace peer {

namespace {

using Key = std::shared_ptr<EVP_PKEY>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

std::size_t const gcmTag = 16;
std::size_t const polyTag = 16;
std::size_t const lengthField = 4;

void Require(bool condition, char const* call) {
    if (!condition) throw PeerError(std::string("libcrypto: ") + call);
}

Bytes PublicOf(EVP_PKEY* key) {
    unsigned char* encoded = nullptr;
    std::size_t const size = EVP_PKEY_get1_encoded_public_key(key, &encoded);
    Require(size > 0, "EVP_PKEY_get1_encoded_public_key");
    Bytes bytes(encoded, encoded + size);
    OPENSSL_free(encoded);
    return bytes;
}

Key RawKey(char const* type, Bytes const& secret) {
    Key key(EVP_PKEY_new_raw_private_key_ex(nullptr, type, nullptr, secret.data(), secret.size()),
            EVP_PKEY_free);
    Require(key != nullptr, "EVP_PKEY_new_raw_private_key_ex");
    return key;
}

Bytes Derive(EVP_PKEY* own, Bytes const& point) {
    Key const peer(EVP_PKEY_new(), EVP_PKEY_free);
    KeyContext const context(EVP_PKEY_CTX_new(own, nullptr), EVP_PKEY_CTX_free);
    std::size_t size = 0;
    bool const ready = EVP_PKEY_copy_parameters(peer.get(), own) == 1 &&
                       EVP_PKEY_set1_encoded_public_key(peer.get(), point.data(), point.size()) == 1 &&
                       EVP_PKEY_derive_init(context.get()) == 1 &&
                       EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1 &&
                       EVP_PKEY_derive(context.get(), nullptr, &size) == 1;
    Require(ready, "the client's point is not accepted");
    Bytes secret(size);
    Require(EVP_PKEY_derive(context.get(), secret.data(), &size) == 1, "EVP_PKEY_derive");
    secret.resize(size);
    return secret;
}

EVP_CIPHER const* CipherOf(std::string const& name) {
    if (name == "aes128-ctr") return EVP_aes_128_ctr();
    if (name == "aes256-ctr") return EVP_aes_256_ctr();
    if (name == "aes128-gcm@openssh.com") return EVP_aes_128_gcm();
    if (name == "aes256-gcm@openssh.com") return EVP_aes_256_gcm();
    if (name == "chacha20-poly1305@openssh.com") return EVP_chacha20();
    throw PeerError("unknown cipher " + name);
}

/// One part of a packet under half of the key, from that block of the key stream on.
Bytes RunChacha(Bytes const& key, std::uint32_t sequence, std::uint8_t block, Bytes const& data) {
    Bytes const iv = Concat({{block, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, Writer().U32(sequence)});
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> const context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    Bytes out(data.size());
    int length = 0;
    Require(EVP_EncryptInit_ex2(context.get(), EVP_chacha20(), key.data(), iv.data(), nullptr) == 1,
            "EVP_EncryptInit_ex2");
    Require(EVP_EncryptUpdate(context.get(), out.data(), &length, data.data(),
                              static_cast<int>(data.size())) == 1,
            "EVP_EncryptUpdate");
    return out;
}

Bytes Poly1305(Bytes const& key, Bytes const& data) {
    std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> const mac(EVP_MAC_fetch(nullptr, "POLY1305", nullptr),
                                                                EVP_MAC_free);
    std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> const context(EVP_MAC_CTX_new(mac.get()),
                                                                            EVP_MAC_CTX_free);
    Bytes tag(polyTag);
    std::size_t size = 0;
    Require(EVP_MAC_init(context.get(), key.data(), key.size(), nullptr) == 1 &&
                EVP_MAC_update(context.get(), data.data(), data.size()) == 1 &&
                EVP_MAC_final(context.get(), tag.data(), &size, tag.size()) == 1,
            "POLY1305");
    return tag;
}

Bytes ChachaTag(Bytes const& mainKey, std::uint32_t sequence, Bytes const& data) {
    return Poly1305(RunChacha(mainKey, sequence, 0, Bytes(32)), data);
}

EVP_MD const* SignatureDigest(std::string const& algorithm) {
    if (algorithm == "rsa-sha2-512") return EVP_sha512();
    if (algorithm == "rsa-sha2-256") return EVP_sha256();
    if (algorithm == "ssh-rsa") return EVP_sha1();
    if (algorithm == "ecdsa-sha2-nistp256") return EVP_sha256();
    if (algorithm == "ecdsa-sha2-nistp384") return EVP_sha384();
    if (algorithm == "ecdsa-sha2-nistp521") return EVP_sha512();
    return nullptr;
}

Bytes MagnitudeOf(BIGNUM const* number) {
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    return bytes;
}

/// RFC 5656, section 3.1.2, from libcrypto's form.
Bytes EcdsaValue(Bytes const& der) {
    unsigned char const* data = der.data();
    std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> const signature(
        d2i_ECDSA_SIG(nullptr, &data, static_cast<long>(der.size())), ECDSA_SIG_free);
    Require(signature != nullptr, "d2i_ECDSA_SIG");
    return Writer()
        .Mpint(MagnitudeOf(ECDSA_SIG_get0_r(signature.get())))
        .Mpint(MagnitudeOf(ECDSA_SIG_get0_s(signature.get())));
}

} // namespace

// --- packets

std::size_t StandardKeyLength(std::string const& cipher) {
    if (cipher == "chacha20-poly1305@openssh.com") return 64;
    return static_cast<std::size_t>(EVP_CIPHER_get_key_length(CipherOf(cipher)));
}

Protection::Protection(std::string const& cipher, std::string const& mac, Bytes const& iv, Bytes const& key,
                       Bytes const& macKey, bool encrypts)
    : _encrypts(encrypts), _key(Slice(key, 0, StandardKeyLength(cipher))) {
    EVP_CIPHER const* const algorithm = CipherOf(cipher);
    _kind = cipher[0] == 'c' ? Kind::Chacha : cipher.find("gcm") != std::string::npos ? Kind::Gcm : Kind::Ctr;
    if (_kind == Kind::Chacha) return;
    _iv = Slice(iv, 0, _kind == Kind::Gcm ? 12 : 16);
    _context.reset(EVP_CIPHER_CTX_new());
    Require(EVP_CipherInit_ex2(_context.get(), algorithm, _key.data(), _iv.data(), encrypts ? 1 : 0,
                               nullptr) == 1,
            "EVP_CipherInit_ex2");
    if (_kind == Kind::Gcm) return;
    _etm = mac.find("-etm@") != std::string::npos;
    bool const isLong = mac.find("sha2-512") != std::string::npos;
    if (mac.rfind("hmac-sha2-", 0) != 0) throw PeerError("unknown MAC " + mac);
    _digest = isLong ? EVP_sha512() : EVP_sha256();
    _macKey = Slice(macKey, 0, isLong ? 64 : 32);
}

std::size_t Protection::TagLength() const {
    switch (_kind) {
    case Kind::None:
        return 0;
    case Kind::Ctr:
        return _macKey.size();
    case Kind::Gcm:
        return gcmTag;
    case Kind::Chacha:
        return polyTag;
    }
    return 0;
}

Bytes Protection::Run(Bytes const& data) {
    Bytes out(data.size());
    int length = 0;
    Require(EVP_CipherUpdate(_context.get(), out.data(), &length, data.data(),
                             static_cast<int>(data.size())) == 1,
            "EVP_CipherUpdate");
    return out;
}

Bytes Protection::Mac(std::uint32_t sequence, Bytes const& data) const {
    Bytes const input = Concat({Writer().U32(sequence), data});
    Bytes mac(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    Require(HMAC(_digest, _macKey.data(), static_cast<int>(_macKey.size()), input.data(), input.size(),
                 mac.data(), &length) != nullptr,
            "HMAC");
    mac.resize(length);
    return mac;
}

/// En- or decrypts what follows the length field; `tag` is made or checked. Counts the packet.
Bytes Protection::RunGcm(Bytes const& packet, Bytes& tag) {
    int length = 0;
    Require(EVP_CipherInit_ex2(_context.get(), nullptr, nullptr, _iv.data(), -1, nullptr) == 1, "iv");
    for (std::size_t i = _iv.size(); i-- > 4;)
        if (++_iv[i] != 0) break;
    if (!_encrypts)
        Require(EVP_CIPHER_CTX_ctrl(_context.get(), EVP_CTRL_AEAD_SET_TAG, gcmTag, tag.data()) == 1, "tag");
    Require(EVP_CipherUpdate(_context.get(), nullptr, &length, packet.data(), lengthField) == 1, "length");
    Bytes body = Run(Slice(packet, lengthField, packet.size()));
    if (EVP_CipherFinal_ex(_context.get(), nullptr, &length) != 1)
        throw PeerError("the tag of a packet does not fit");
    tag.resize(gcmTag);
    if (_encrypts)
        Require(EVP_CIPHER_CTX_ctrl(_context.get(), EVP_CTRL_AEAD_GET_TAG, gcmTag, tag.data()) == 1, "tag");
    return Concat({Slice(packet, 0, lengthField), body});
}

Bytes Protection::Seal(std::uint32_t sequence, Bytes const& plain) {
    Bytes const length = Slice(plain, 0, lengthField), body = Slice(plain, lengthField, plain.size());
    switch (_kind) {
    case Kind::None:
        return plain;
    case Kind::Ctr: {
        if (!_etm) return Concat({Run(plain), Mac(sequence, plain)});
        Bytes const packet = Concat({length, Run(body)});
        return Concat({packet, Mac(sequence, packet)});
    }
    case Kind::Gcm: {
        Bytes tag;
        Bytes const packet = RunGcm(plain, tag);
        return Concat({packet, tag});
    }
    case Kind::Chacha: {
        Bytes const mainKey = Slice(_key, 0, 32), headKey = Slice(_key, 32, 32);
        Bytes const packet =
            Concat({RunChacha(headKey, sequence, 0, length), RunChacha(mainKey, sequence, 1, body)});
        return Concat({packet, ChachaTag(mainKey, sequence, packet)});
    }
    }
    return {};
}

std::uint32_t Protection::Length(std::uint32_t sequence, Bytes const& head) {
    if (_kind == Kind::Chacha)
        return Reader(RunChacha(Slice(_key, 32, 32), sequence, 0, Slice(head, 0, lengthField))).U32();
    if (_kind == Kind::Ctr && !_etm) return Reader(_plainHead = Run(head)).U32();
    return Reader(head).U32();
}

Bytes Protection::Open(std::uint32_t sequence, Bytes const& head, Bytes const& rest) {
    Bytes const packet = Concat({head, Slice(rest, 0, rest.size() - TagLength())});
    Bytes tag = Slice(rest, rest.size() - TagLength(), TagLength());
    Bytes plain;
    bool valid = true;
    switch (_kind) {
    case Kind::None:
        return packet;
    case Kind::Ctr:
        plain = _etm ? Concat({head, Run(Slice(packet, head.size(), packet.size()))})
                     : Concat({_plainHead, Run(Slice(packet, head.size(), packet.size()))});
        valid = tag == Mac(sequence, _etm ? packet : plain);
        break;
    case Kind::Gcm:
        return RunGcm(packet, tag);
    case Kind::Chacha: {
        Bytes const mainKey = Slice(_key, 0, 32);
        valid = tag == ChachaTag(mainKey, sequence, packet);
        plain = Concat({RunChacha(Slice(_key, 32, 32), sequence, 0, Slice(packet, 0, lengthField)),
                        RunChacha(mainKey, sequence, 1, Slice(packet, lengthField, packet.size()))});
        break;
    }
    }
    if (!valid) throw PeerError("the MAC of packet " + std::to_string(sequence) + " does not fit");
    return plain;
}

// --- keys

StandardKey StandardKey::MakeEd25519(std::string const& seed) {
    Key const key = RawKey("ED25519", Sha2(EVP_sha256(), ToBytes(seed)));
    Bytes point(32);
    std::size_t size = point.size();
    Require(EVP_PKEY_get_raw_public_key(key.get(), point.data(), &size) == 1, "EVP_PKEY_get_raw_public_key");
    return StandardKey("ssh-ed25519", key, Writer().String("ssh-ed25519").String(point));
}

StandardKey StandardKey::MakeRsa() {
    std::ifstream const file(BRANTLE_TEST_DATA "/host_rsa.pem");
    std::stringstream text;
    text << file.rdbuf();
    std::string const pem = text.str();
    std::unique_ptr<BIO, decltype(&BIO_free)> const bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    Key const key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    Require(key != nullptr, "PEM_read_bio_PrivateKey");
    Writer blob;
    blob.String("ssh-rsa");
    for (char const* name : {OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_N}) {
        BIGNUM* number = nullptr;
        Require(EVP_PKEY_get_bn_param(key.get(), name, &number) == 1, "EVP_PKEY_get_bn_param");
        blob.Mpint(MagnitudeOf(number));
        BN_free(number);
    }
    return StandardKey("ssh-rsa", key, blob);
}

StandardKey StandardKey::MakeEcdsa(int bits) {
    std::string const number = std::to_string(bits);
    Key const key(EVP_EC_gen(("P-" + number).c_str()), EVP_PKEY_free);
    Require(key != nullptr, "EVP_EC_gen");
    std::string const type = "ecdsa-sha2-nistp" + number;
    return StandardKey(type, key, Writer().String(type).String("nistp" + number).String(PublicOf(key.get())));
}

StandardKey const& StandardKey::Host() {
    static StandardKey const key = MakeEd25519("host");
    return key;
}

StandardKey const& StandardKey::OtherHost() {
    static StandardKey const key = MakeEd25519("other host");
    return key;
}

StandardKey const& StandardKey::User() {
    static StandardKey const key = MakeEd25519("user");
    return key;
}

StandardKey const& StandardKey::HostRsa() {
    static StandardKey const key = MakeRsa();
    return key;
}

StandardKey const& StandardKey::HostEcdsa(int bits) {
    static std::map<int, StandardKey> const keys{
        {256, MakeEcdsa(256)}, {384, MakeEcdsa(384)}, {521, MakeEcdsa(521)}};
    return keys.at(bits);
}

Bytes StandardKey::Sign(std::string const& algorithm, Bytes const& data) const {
    DigestContext const context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::size_t size = 0;
    Require(EVP_DigestSignInit(context.get(), nullptr, SignatureDigest(algorithm), nullptr, _key.get()) ==
                    1 &&
                EVP_DigestSign(context.get(), nullptr, &size, data.data(), data.size()) == 1,
            "EVP_DigestSignInit");
    Bytes signature(size);
    Require(EVP_DigestSign(context.get(), signature.data(), &size, data.data(), data.size()) == 1,
            "EVP_DigestSign");
    signature.resize(size);
    bool const isEcdsa = algorithm.rfind("ecdsa-", 0) == 0;
    return Writer().String(algorithm).String(isEcdsa ? EcdsaValue(signature) : signature);
}

bool StandardKey::Verify(std::string const& algorithm, Bytes const& signature, Bytes const& data) const {
    Reader reader(signature);
    if (reader.String() != algorithm) return false;
    Bytes const value = reader.Blob();
    DigestContext const context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    bool const valid =
        reader.Left() == 0 &&
        EVP_DigestVerifyInit(context.get(), nullptr, SignatureDigest(algorithm), nullptr, _key.get()) == 1 &&
        EVP_DigestVerify(context.get(), value.data(), value.size(), data.data(), data.size()) == 1;
    ERR_clear_error();
    return valid;
}

std::string StandardKey::Pem() const {
    std::unique_ptr<BIO, decltype(&BIO_free)> const bio(BIO_new(BIO_s_mem()), BIO_free);
    Require(PEM_write_bio_PrivateKey(bio.get(), _key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
            "PEM_write_bio_PrivateKey");
    char* data = nullptr;
    long const length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

std::string StandardKey::PublicLine() const {
    std::string base64(4 * ((_blob.size() + 2) / 3) + 1, '\0');
    base64.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                                           _blob.data(), static_cast<int>(_blob.size()))));
    return _type + " " + base64;
}

// --- key agreement

Bytes Sha2(EVP_MD const* digest, Bytes const& data) {
    Bytes value(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    Require(EVP_Digest(data.data(), data.size(), value.data(), &length, digest, nullptr) == 1, "EVP_Digest");
    value.resize(length);
    return value;
}

Share AgreeX25519(Bytes const& clientPoint) {
    static Key const key = RawKey("X25519", Sha2(EVP_sha256(), ToBytes("server x25519")));
    return {PublicOf(key.get()), Derive(key.get(), clientPoint)};
}

Share AgreeNistp256(Bytes const& clientPoint) {
    static Key const key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    return {PublicOf(key.get()), Derive(key.get(), clientPoint)};
}

} // namespace peer
