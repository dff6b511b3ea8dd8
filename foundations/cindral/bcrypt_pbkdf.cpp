#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include <openssl/evp.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/thornel/big_endian.h>

#include "bcrypt_pbkdf.h"
#include "blowfish_tables.h"

namespace cindral {

namespace {

constexpr unsigned int HASH_LENGTH = 64;  ///< SHA-512
constexpr unsigned int BLOCK_LENGTH = 32; ///< one bcrypt output
constexpr unsigned int EXPENSIVE_ROUNDS = 64;

using Hash = std::array<unsigned char, HASH_LENGTH>;
using Block = std::array<unsigned char, BLOCK_LENGTH>;

Hash Sha512(unsigned char const* bytes, size_t length) {
    Hash hash;
    if (EVP_Digest(bytes, length, hash.data(), nullptr, EVP_sha512(), nullptr) != 1)
        throw OpenSSLError("EVP_Digest");
    return hash;
}

/// The words of a hash, read cyclically.
class WordStream {
public:
    explicit WordStream(Hash const& hash) : _hash(hash) {}
    std::uint32_t Next() {
        std::uint32_t const word = GetBigEndian<std::uint32_t>(_hash.data() + _pos);
        _pos = (_pos + 4) % HASH_LENGTH;
        return word;
    }

private:
    Hash const& _hash;
    unsigned int _pos = 0;
};

/// Blowfish with the expensive key schedule of bcrypt.
class EksBlowfish {
public:
    EksBlowfish() { std::copy(std::begin(BLOWFISH_PI), std::end(BLOWFISH_PI), _state); }
    ~EksBlowfish() { OPENSSL_cleanse(_state, sizeof _state); }
    EksBlowfish(EksBlowfish const&) = delete;
    EksBlowfish& operator=(EksBlowfish const&) = delete;

    void Expand(Hash const& salt, Hash const& key) {
        MixKey(key);
        WordStream words(salt);
        std::uint32_t left = 0;
        std::uint32_t right = 0;
        for (unsigned int i = 0; i < STATE_LENGTH; i += 2) {
            left ^= words.Next();
            right ^= words.Next();
            Encrypt(left, right);
            _state[i] = left;
            _state[i + 1] = right;
        }
    }

    void Expand(Hash const& key) {
        MixKey(key);
        std::uint32_t left = 0;
        std::uint32_t right = 0;
        for (unsigned int i = 0; i < STATE_LENGTH; i += 2) {
            Encrypt(left, right);
            _state[i] = left;
            _state[i + 1] = right;
        }
    }

    void Encrypt(std::uint32_t& left, std::uint32_t& right) const {
        std::uint32_t l = left ^ _state[0];
        std::uint32_t r = right;
        for (unsigned int round = 1; round < BLOWFISH_ROUND_KEYS - 1; round += 2) {
            r ^= Substitute(l) ^ _state[round];
            l ^= Substitute(r) ^ _state[round + 1];
        }
        left = r ^ _state[BLOWFISH_ROUND_KEYS - 1];
        right = l;
    }

private:
    static constexpr unsigned int STATE_LENGTH = BLOWFISH_ROUND_KEYS + 4 * 256;

    void MixKey(Hash const& key) {
        WordStream words(key);
        for (unsigned int i = 0; i < BLOWFISH_ROUND_KEYS; ++i) _state[i] ^= words.Next();
    }

    std::uint32_t Substitute(std::uint32_t x) const {
        std::uint32_t const* box = _state + BLOWFISH_ROUND_KEYS;
        return ((box[x >> 24] + box[256 + (x >> 16 & 0xff)]) ^ box[512 + (x >> 8 & 0xff)]) +
               box[768 + (x & 0xff)];
    }

    std::uint32_t _state[STATE_LENGTH]; ///< the round keys, then the four boxes
};

Block BcryptHash(Hash const& passphrase, Hash const& salt) {
    EksBlowfish cipher;
    cipher.Expand(salt, passphrase);
    for (unsigned int i = 0; i < EXPENSIVE_ROUNDS; ++i) {
        cipher.Expand(salt);
        cipher.Expand(passphrase);
    }
    static_assert(sizeof "OxychromaticBlowfishSwatDynamite" == BLOCK_LENGTH + 1);
    auto const* text = reinterpret_cast<unsigned char const*>("OxychromaticBlowfishSwatDynamite");
    Block block;
    for (unsigned int i = 0; i < BLOCK_LENGTH; i += 8) {
        std::uint32_t words[] = {GetBigEndian<std::uint32_t>(text + i),
                                 GetBigEndian<std::uint32_t>(text + i + 4)};
        for (unsigned int round = 0; round < EXPENSIVE_ROUNDS; ++round) cipher.Encrypt(words[0], words[1]);
        // Least significant byte first, unlike the text.
        for (unsigned int byte = 0; byte < 8; ++byte)
            block[i + byte] = static_cast<unsigned char>(words[byte / 4] >> 8 * (byte % 4));
    }
    return block;
}

/// One block of PBKDF2: the sum of the chain of hashes that begins with salt and block number.
Block DeriveBlock(Hash const& passphrase, ByteView const& salt, unsigned int number, unsigned int rounds) {
    std::vector<unsigned char> numbered(salt._data, salt._data + salt._length);
    numbered.resize(salt._length + 4);
    PutBigEndian(numbered.data() + salt._length, number);
    Block last = BcryptHash(passphrase, Sha512(numbered.data(), numbered.size()));
    Block sum = last;
    for (unsigned int round = 1; round < rounds; ++round) {
        last = BcryptHash(passphrase, Sha512(last.data(), last.size()));
        for (unsigned int i = 0; i < BLOCK_LENGTH; ++i) sum[i] = static_cast<unsigned char>(sum[i] ^ last[i]);
    }
    OPENSSL_cleanse(last.data(), last.size());
    return sum;
}

} // namespace

SecretBytes BcryptPbkdf(ByteView const& passphrase, ByteView const& salt, unsigned int rounds,
                        unsigned int length) {
    Hash hashed = Sha512(passphrase._data, passphrase._length);
    SecretBytes key(length);
    unsigned int const blocks = (length + BLOCK_LENGTH - 1) / BLOCK_LENGTH;
    for (unsigned int number = 0; number < blocks; ++number) {
        Block block = DeriveBlock(hashed, salt, number + 1, rounds);
        for (unsigned int i = 0; i * blocks + number < length; ++i) key[i * blocks + number] = block[i];
        OPENSSL_cleanse(block.data(), block.size());
    }
    OPENSSL_cleanse(hashed.data(), hashed.size());
    return key;
}

} // namespace cindral
