#include <brantle/cindral/block_cipher.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "fetched.h"
#include "named_algorithms.h"

namespace cindral {

namespace {

struct Algorithm {
    char const* _name;
    unsigned int _keyLength;
    unsigned int _blockSize; ///< also the length of the initialisation vector
    FetchedCipher _cipher;
};

/// Most preferred first.
Algorithm algorithms[] = {
    {"aes128-ctr", 16, 16, FetchedCipher("AES-128-CTR")},
    {"aes128-cbc", 16, 16, FetchedCipher("AES-128-CBC")},
    {"aes192-ctr", 24, 16, FetchedCipher("AES-192-CTR")},
    {"aes256-ctr", 32, 16, FetchedCipher("AES-256-CTR")},
    {"aes192-cbc", 24, 16, FetchedCipher("AES-192-CBC")},
    {"aes256-cbc", 32, 16, FetchedCipher("AES-256-CBC")},
    {"3des-cbc", 24, 8, FetchedCipher("DES-EDE3-CBC")},
};

constexpr char const* NONE_NAME = "none";
constexpr unsigned int NONE_BLOCK_SIZE = 8;
constexpr int EVP_KIND = BlockCipher::NONE + 1;

bool IsNone(char const* name) { return name && std::strcmp(name, NONE_NAME) == 0; }

int Refuse() {
    errno = EINVAL;
    return -1;
}

/// Has no state, so that one object serves every handle.
class NoneCipher : public BlockCipher::Rep {
public:
    unsigned int BlockSize() const override { return NONE_BLOCK_SIZE; }
    int Kind() const override { return BlockCipher::NONE; }
    int Process(unsigned char const* source, unsigned int length, unsigned char* destination) override {
        if (length > INT_MAX) return Refuse();
        if (length > 0) std::memmove(destination, source, length);
        return static_cast<int>(length);
    }
    int SetPadding(int padding) override { return padding == 0 ? 0 : Refuse(); }
};

BlockCipher::Rep* None() {
    static NoneCipher none;
    return &none;
}

class EvpCipher : public BlockCipher::Rep {
public:
    EvpCipher(Algorithm& algorithm, BlockCipher::Mode mode, unsigned char const* key, unsigned char const* iv)
        : _blockSize(algorithm._blockSize), _context(EVP_CIPHER_CTX_new()) {
        if (!_context) throw OpenSSLError("EVP_CIPHER_CTX_new");
        try {
            EVP_CIPHER const* cipher = algorithm._cipher.Get();
            // A counter mode accepts input of any length; OpenSSL reports a block size of 1 for it.
            _piece = static_cast<unsigned int>(EVP_CIPHER_get_block_size(cipher));
            int const encrypts = mode == BlockCipher::ENCRYPT ? 1 : 0;
            if (EVP_CipherInit_ex2(_context, cipher, key, iv, encrypts, nullptr) != 1)
                throw OpenSSLError("EVP_CipherInit_ex2");
            EVP_CIPHER_CTX_set_padding(_context, 0);
        } catch (...) {
            EVP_CIPHER_CTX_free(_context);
            throw;
        }
    }
    ~EvpCipher() override { EVP_CIPHER_CTX_free(_context); }
    EvpCipher(EvpCipher const&) = delete;
    EvpCipher& operator=(EvpCipher const&) = delete;

    unsigned int BlockSize() const override { return _blockSize; }
    int Kind() const override { return EVP_KIND; }
    int Process(unsigned char const* source, unsigned int length, unsigned char* destination) override {
        if (length % _piece != 0 || length > INT_MAX) return Refuse();
        if (length == 0) return 0;
        int produced = 0;
        if (EVP_CipherUpdate(_context, destination, &produced, source, static_cast<int>(length)) != 1)
            return Refuse();
        return produced;
    }
    int SetPadding(int padding) override { return padding == 0 ? 0 : Refuse(); }

private:
    unsigned int _blockSize;
    unsigned int _piece;
    EVP_CIPHER_CTX* _context;
};

} // namespace

BlockCipher::Rep::~Rep() = default;

BlockCipher::BlockCipher() : _rep(None()) {}

BlockCipher::~BlockCipher() {
    if (_rep != None()) delete _rep;
}

String_t BlockCipher::AvailableCiphers() { return NamesOf(algorithms); }

unsigned int BlockCipher::BlockSize(char const* name) {
    if (IsNone(name)) return NONE_BLOCK_SIZE;
    Algorithm const* algorithm = FindAlgorithm(algorithms, name);
    return algorithm ? algorithm->_blockSize : 0;
}

unsigned int BlockCipher::KeyLen(char const* name) {
    Algorithm const* algorithm = FindAlgorithm(algorithms, name);
    return algorithm ? algorithm->_keyLength : 0;
}

void BlockCipher::Redefine(char const* name, Mode mode, ByteString const& key, ByteString const& iv) {
    constexpr char const* PLACE = "BlockCipher::Redefine";
    Rep* fresh = None();
    if (!IsNone(name)) {
        Algorithm* algorithm = FindAlgorithm(algorithms, name);
        if (!algorithm) throw InvalidArgument(PLACE, "unknown cipher");
        if (key.Length() < algorithm->_keyLength) throw InvalidArgument(PLACE, "key too short");
        if (iv.Length() < algorithm->_blockSize)
            throw InvalidArgument(PLACE, "initialisation vector too short");
        fresh = new EvpCipher(*algorithm, mode, key.Data(), iv.Data());
    }
    if (_rep != None()) delete _rep;
    _rep = fresh;
}

} // namespace cindral
