#include <cstring>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <brantle/cindral/exceptions.h>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/algorithms.h"
#include "standard/bytes.h"
#include "standard/packet_cipher.h"

namespace cindral::standard {

namespace {

using CipherPtr = OpenSSLPtr<EVP_CIPHER, EVP_CIPHER_free>;
using CipherCtxPtr = OpenSSLPtr<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using MacPtr = OpenSSLPtr<EVP_MAC, EVP_MAC_free>;
using MacCtxPtr = OpenSSLPtr<EVP_MAC_CTX, EVP_MAC_CTX_free>;

constexpr unsigned int LENGTH_FIELD = 4;
constexpr unsigned int NONE_ALIGNMENT = 8;
constexpr unsigned int AES_BLOCK = 16;
constexpr unsigned int GCM_IV = 12;
constexpr unsigned int AEAD_TAG = 16; ///< of GCM and of Poly1305
constexpr unsigned int CHACHA_ALIGNMENT = 8;
constexpr unsigned int CHACHA_KEY = 32;
constexpr unsigned int CHACHA_BLOCK = 64;
constexpr unsigned int CHACHA_IV = 16; ///< libcrypto's: block counter and nonce, 8 bytes each

enum class Direction { OPEN = 0, SEAL = 1 };

unsigned char const* Check(SecretBytes const& bytes, std::size_t needed) {
    if (bytes.size() < needed) throw InvalidArgument("packet cipher", "key too short");
    return bytes.data();
}

/// A cipher of libcrypto's with its key.
class Cipher {
public:
    Cipher(char const* name, Direction direction, unsigned char const* key, unsigned char const* iv)
        : _context(EVP_CIPHER_CTX_new()) {
        CipherPtr const cipher(EVP_CIPHER_fetch(nullptr, name, nullptr));
        if (!cipher) throw OpenSSLError("EVP_CIPHER_fetch");
        if (!_context || EVP_CipherInit_ex2(_context.get(), cipher.get(), key, iv,
                                            static_cast<int>(direction), nullptr) != 1)
            throw OpenSSLError("EVP_CipherInit_ex2");
    }

    /// Continues with another initialisation vector.
    void Start(unsigned char const* iv, OSSL_PARAM const* parameters = nullptr) {
        if (EVP_CipherInit_ex2(_context.get(), nullptr, nullptr, iv, -1, parameters) != 1)
            throw OpenSSLError("EVP_CipherInit_ex2");
    }
    /// Processes the bytes in place.
    void Update(unsigned char* bytes, std::size_t size) { Update(bytes, bytes, size); }
    /// If `to` is null, the bytes are only authenticated.
    void Update(unsigned char* to, unsigned char const* from, std::size_t size) {
        int produced = 0;
        if (EVP_CipherUpdate(_context.get(), to, &produced, from, static_cast<int>(size)) != 1)
            throw OpenSSLError("EVP_CipherUpdate");
    }
    /// Ends an authenticated message. False if the tag is wrong, which happens only when opening.
    bool Final() {
        unsigned char none[AES_BLOCK];
        int produced = 0;
        return EVP_CipherFinal_ex(_context.get(), none, &produced) == 1;
    }
    void GetTag(unsigned char* tag) {
        OSSL_PARAM parameters[] = {
            OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, tag, AEAD_TAG),
            OSSL_PARAM_construct_end()};
        if (EVP_CIPHER_CTX_get_params(_context.get(), parameters) != 1)
            throw OpenSSLError("EVP_CIPHER_CTX_get_params");
    }

private:
    CipherCtxPtr _context;
};

/// A MAC of libcrypto's.
class MacContext {
public:
    explicit MacContext(char const* name) {
        MacPtr const mac(EVP_MAC_fetch(nullptr, name, nullptr));
        if (!mac) throw OpenSSLError("EVP_MAC_fetch");
        _context.reset(EVP_MAC_CTX_new(mac.get()));
        if (!_context) throw OpenSSLError("EVP_MAC_CTX_new");
    }

    /// Starts with a key, or with the previous one if `key` is null.
    void Start(unsigned char const* key, std::size_t size, OSSL_PARAM const* parameters = nullptr) {
        if (EVP_MAC_init(_context.get(), key, size, parameters) != 1) throw OpenSSLError("EVP_MAC_init");
    }
    void Update(unsigned char const* bytes, std::size_t size) {
        if (EVP_MAC_update(_context.get(), bytes, size) != 1) throw OpenSSLError("EVP_MAC_update");
    }
    void Final(unsigned char* tag, std::size_t size) {
        std::size_t produced = 0;
        if (EVP_MAC_final(_context.get(), tag, &produced, size) != 1) throw OpenSSLError("EVP_MAC_final");
    }

private:
    MacCtxPtr _context;
};

/// The MAC of RFC 4253, section 6.4, over the sequence number and the packet as given.
class Hmac {
public:
    Hmac(MacAlgorithm const& algorithm, SecretBytes const& key) : _context("HMAC"), _size(algorithm.size) {
        OSSL_PARAM const parameters[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(algorithm.digest), 0),
            OSSL_PARAM_construct_end()};
        _context.Start(Check(key, _size), _size, parameters);
    }

    void Compute(unsigned int sequence, unsigned char const* packet, std::size_t length, unsigned char* tag) {
        unsigned char number[4];
        StoreInt(number, sequence);
        _context.Start(nullptr, 0);
        _context.Update(number, sizeof number);
        _context.Update(packet, length);
        _context.Final(tag, _size);
    }
    /// Whether the tag after the packet is correct.
    bool Verify(unsigned int sequence, unsigned char const* packet, std::size_t length) {
        unsigned char tag[EVP_MAX_MD_SIZE];
        Compute(sequence, packet, length, tag);
        return CRYPTO_memcmp(tag, packet + length, _size) == 0;
    }

private:
    MacContext _context;
    std::size_t _size;
};

class NoneSealer : public PacketSealer {
public:
    NoneSealer() : PacketSealer(NONE_ALIGNMENT, 0, false) {}
    void Seal(unsigned int, unsigned char*, std::size_t) override {}
};

class NoneOpener : public PacketOpener {
public:
    NoneOpener() : PacketOpener(NONE_ALIGNMENT, 0, false) {}
    unsigned int PeekLength(unsigned int, unsigned char* packet) override { return LoadInt(packet); }
    bool Open(unsigned int, unsigned char*, std::size_t) override { return true; }
};

/// A counter mode and a MAC (RFC 4344, section 4), over the plain packet or over the encrypted one.
class CtrSealer : public PacketSealer {
public:
    CtrSealer(CipherAlgorithm const& cipher, MacAlgorithm const& mac, DirectionKeys const& keys)
        : PacketSealer(AES_BLOCK, mac.size, mac.encryptsThenMacs),
          _cipher(cipher.cipher, Direction::SEAL, Check(keys.cipher, cipher.keySize),
                  Check(keys.iv, cipher.ivSize)),
          _mac(mac, keys.mac) {}

    void Seal(unsigned int sequence, unsigned char* packet, std::size_t length) override {
        if (LengthIsOutside()) {
            _cipher.Update(packet + LENGTH_FIELD, length - LENGTH_FIELD);
            _mac.Compute(sequence, packet, length, packet + length);
        } else {
            _mac.Compute(sequence, packet, length, packet + length);
            _cipher.Update(packet, length);
        }
    }

private:
    Cipher _cipher;
    Hmac _mac;
};

class CtrOpener : public PacketOpener {
public:
    CtrOpener(CipherAlgorithm const& cipher, MacAlgorithm const& mac, DirectionKeys const& keys)
        : PacketOpener(AES_BLOCK, mac.size, mac.encryptsThenMacs),
          _cipher(cipher.cipher, Direction::OPEN, Check(keys.cipher, cipher.keySize),
                  Check(keys.iv, cipher.ivSize)),
          _mac(mac, keys.mac) {}

    std::size_t LengthBytes() const override { return LengthIsOutside() ? LENGTH_FIELD : AES_BLOCK; }
    unsigned int PeekLength(unsigned int, unsigned char* packet) override {
        if (!LengthIsOutside() && !_firstBlockIsPlain) {
            _cipher.Update(packet, AES_BLOCK);
            _firstBlockIsPlain = true;
        }
        return LoadInt(packet);
    }
    bool Open(unsigned int sequence, unsigned char* packet, std::size_t length) override {
        if (LengthIsOutside()) {
            if (!_mac.Verify(sequence, packet, length)) return false;
            _cipher.Update(packet + LENGTH_FIELD, length - LENGTH_FIELD);
            return true;
        }
        _firstBlockIsPlain = false;
        _cipher.Update(packet + AES_BLOCK, length - AES_BLOCK);
        return _mac.Verify(sequence, packet, length);
    }

private:
    Cipher _cipher;
    Hmac _mac;
    bool _firstBlockIsPlain = false;
};

/// The initialisation vector of AES-GCM, whose last 8 bytes count the packets (RFC 5647, section 7.1).
class GcmVector {
public:
    explicit GcmVector(unsigned char const* first) { std::memcpy(_bytes, first, GCM_IV); }
    ~GcmVector() { OPENSSL_cleanse(_bytes, GCM_IV); }

    unsigned char const* Bytes() const { return _bytes; }
    void Increment() {
        for (unsigned int i = GCM_IV - 1; i >= GCM_IV - 8; --i)
            if (++_bytes[i] != 0) return;
    }

private:
    unsigned char _bytes[GCM_IV];
};

/// AES-GCM with the length field authenticated and not encrypted (RFC 5647, section 7.2).
class GcmSealer : public PacketSealer {
public:
    GcmSealer(CipherAlgorithm const& cipher, DirectionKeys const& keys)
        : PacketSealer(AES_BLOCK, AEAD_TAG, true), _vector(Check(keys.iv, cipher.ivSize)),
          _cipher(cipher.cipher, Direction::SEAL, Check(keys.cipher, cipher.keySize), nullptr) {}

    void Seal(unsigned int, unsigned char* packet, std::size_t length) override {
        _cipher.Start(_vector.Bytes());
        _vector.Increment();
        _cipher.Update(nullptr, packet, LENGTH_FIELD);
        _cipher.Update(packet + LENGTH_FIELD, length - LENGTH_FIELD);
        if (!_cipher.Final()) throw OpenSSLError("EVP_CipherFinal_ex");
        _cipher.GetTag(packet + length);
    }

private:
    GcmVector _vector;
    Cipher _cipher;
};

class GcmOpener : public PacketOpener {
public:
    GcmOpener(CipherAlgorithm const& cipher, DirectionKeys const& keys)
        : PacketOpener(AES_BLOCK, AEAD_TAG, true), _vector(Check(keys.iv, cipher.ivSize)),
          _cipher(cipher.cipher, Direction::OPEN, Check(keys.cipher, cipher.keySize), nullptr) {}

    unsigned int PeekLength(unsigned int, unsigned char* packet) override { return LoadInt(packet); }
    bool Open(unsigned int, unsigned char* packet, std::size_t length) override {
        OSSL_PARAM const tag[] = {
            OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, packet + length, AEAD_TAG),
            OSSL_PARAM_construct_end()};
        _cipher.Start(_vector.Bytes(), tag);
        _vector.Increment();
        _cipher.Update(nullptr, packet, LENGTH_FIELD);
        _cipher.Update(packet + LENGTH_FIELD, length - LENGTH_FIELD);
        return _cipher.Final();
    }

private:
    GcmVector _vector;
    Cipher _cipher;
};

/// chacha20-poly1305@openssh.com: two instances of ChaCha20 with different keys, for the length field and for
/// the rest, and Poly1305 over everything encrypted, with a key from the first block of the second instance.
/// The nonce is the sequence number.
class ChaChaPoly {
public:
    ChaChaPoly(CipherAlgorithm const& cipher, DirectionKeys const& keys)
        : _main(cipher.cipher, Direction::SEAL, Check(keys.cipher, std::size_t{2} * CHACHA_KEY), nullptr),
          _header(cipher.cipher, Direction::SEAL, keys.cipher.data() + CHACHA_KEY, nullptr),
          _mac("POLY1305") {}
    ~ChaChaPoly() { OPENSSL_cleanse(_firstBlock, sizeof _firstBlock); }
    ChaChaPoly(ChaChaPoly const&) = delete;
    ChaChaPoly& operator=(ChaChaPoly const&) = delete;

    /// Starts a packet: afterwards Crypt() continues with the second block.
    void Start(unsigned int sequence) {
        Restart(_main, sequence);
        std::memset(_firstBlock, 0, sizeof _firstBlock);
        _main.Update(_firstBlock, sizeof _firstBlock);
    }
    void Crypt(unsigned char* bytes, std::size_t size) { _main.Update(bytes, size); }
    void CryptLength(unsigned int sequence, unsigned char* field) {
        Restart(_header, sequence);
        _header.Update(field, LENGTH_FIELD);
    }
    void Compute(unsigned char const* packet, std::size_t length, unsigned char* tag) {
        _mac.Start(_firstBlock, CHACHA_KEY);
        _mac.Update(packet, length);
        _mac.Final(tag, AEAD_TAG);
    }

private:
    static void Restart(Cipher& cipher, unsigned int sequence) {
        unsigned char iv[CHACHA_IV] = {};
        StoreInt(iv + CHACHA_IV - 4, sequence);
        cipher.Start(iv);
    }

    Cipher _main;
    Cipher _header;
    MacContext _mac;
    unsigned char _firstBlock[CHACHA_BLOCK];
};

class ChaChaSealer : public PacketSealer {
public:
    ChaChaSealer(CipherAlgorithm const& cipher, DirectionKeys const& keys)
        : PacketSealer(CHACHA_ALIGNMENT, AEAD_TAG, true), _cipher(cipher, keys) {}

    void Seal(unsigned int sequence, unsigned char* packet, std::size_t length) override {
        _cipher.Start(sequence);
        _cipher.CryptLength(sequence, packet);
        _cipher.Crypt(packet + LENGTH_FIELD, length - LENGTH_FIELD);
        _cipher.Compute(packet, length, packet + length);
    }

private:
    ChaChaPoly _cipher;
};

class ChaChaOpener : public PacketOpener {
public:
    ChaChaOpener(CipherAlgorithm const& cipher, DirectionKeys const& keys)
        : PacketOpener(CHACHA_ALIGNMENT, AEAD_TAG, true), _cipher(cipher, keys) {}

    unsigned int PeekLength(unsigned int sequence, unsigned char* packet) override {
        unsigned char field[LENGTH_FIELD];
        std::memcpy(field, packet, LENGTH_FIELD);
        _cipher.CryptLength(sequence, field);
        return LoadInt(field);
    }
    bool Open(unsigned int sequence, unsigned char* packet, std::size_t length) override {
        unsigned char tag[AEAD_TAG];
        _cipher.Start(sequence);
        _cipher.Compute(packet, length, tag);
        if (CRYPTO_memcmp(tag, packet + length, AEAD_TAG) != 0) return false;
        _cipher.Crypt(packet + LENGTH_FIELD, length - LENGTH_FIELD);
        _cipher.CryptLength(sequence, packet);
        return true;
    }

private:
    ChaChaPoly _cipher;
};

template <class Base, class Gcm, class ChaCha, class Ctr>
std::unique_ptr<Base> Make(std::string const& cipherName, std::string const& mac, DirectionKeys const& keys) {
    CipherAlgorithm const& cipher = FindCipher(cipherName);
    switch (cipher.mode) {
    case CipherMode::GCM:
        return std::make_unique<Gcm>(cipher, keys);
    case CipherMode::CHACHA20_POLY1305:
        return std::make_unique<ChaCha>(cipher, keys);
    case CipherMode::CTR:
        return std::make_unique<Ctr>(cipher, FindMac(mac), keys);
    }
    return nullptr;
}

} // namespace

KeySizes KeySizesOf(std::string const& cipherName, std::string const& mac) {
    CipherAlgorithm const& cipher = FindCipher(cipherName);
    return {cipher.ivSize, cipher.keySize, cipher.IsAead() ? 0 : FindMac(mac).size};
}

std::unique_ptr<PacketSealer> PacketSealer::None() { return std::make_unique<NoneSealer>(); }

std::unique_ptr<PacketOpener> PacketOpener::None() { return std::make_unique<NoneOpener>(); }

std::unique_ptr<PacketSealer> PacketSealer::Create(std::string const& cipher, std::string const& mac,
                                                   DirectionKeys const& keys) {
    return Make<PacketSealer, GcmSealer, ChaChaSealer, CtrSealer>(cipher, mac, keys);
}

std::unique_ptr<PacketOpener> PacketOpener::Create(std::string const& cipher, std::string const& mac,
                                                   DirectionKeys const& keys) {
    return Make<PacketOpener, GcmOpener, ChaChaOpener, CtrOpener>(cipher, mac, keys);
}

} // namespace cindral::standard
