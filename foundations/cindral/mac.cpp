#include <brantle/cindral/mac.h>

#include <openssl/core_names.h>
#include <openssl/params.h>

#include <brantle/thornel/big_endian.h>

#include "fetched.h"
#include "named_algorithms.h"

namespace cindral {

namespace {

struct Algorithm {
    char const* _name;
    char const* _digest;
    unsigned int _keyLength;
    unsigned int _length;
};

/// Most preferred first.
constexpr Algorithm algorithms[] = {
    {"hmac-sha1", "SHA1", 20, 20},       {"hmac-sha1-96", "SHA1", 20, 12},    {"hmac-md5", "MD5", 16, 16},
    {"hmac-sha2-256", "SHA256", 32, 32}, {"hmac-sha2-512", "SHA512", 64, 64},
};

constexpr unsigned int MAX_LENGTH = 64;

FetchedMac hmac("HMAC");

class Hmac : public Mac::Rep {
public:
    Hmac(Algorithm const& algorithm, unsigned char const* key)
        : _length(algorithm._length), _context(EVP_MAC_CTX_new(hmac.Get())), _value{} {
        if (!_context) throw OpenSSLError("EVP_MAC_CTX_new");
        OSSL_PARAM const parameters[] = {
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(algorithm._digest), 0),
            OSSL_PARAM_construct_end()};
        if (EVP_MAC_init(_context, key, algorithm._keyLength, parameters) != 1) {
            EVP_MAC_CTX_free(_context);
            throw OpenSSLError("EVP_MAC_init");
        }
    }
    ~Hmac() override { EVP_MAC_CTX_free(_context); }
    Hmac(Hmac const&) = delete;
    Hmac& operator=(Hmac const&) = delete;

    unsigned int Length() const override { return _length; }
    unsigned char const* Value() const override { return _value; }
    void Reset() override {
        if (EVP_MAC_init(_context, nullptr, 0, nullptr) != 1) throw OpenSSLError("EVP_MAC_init");
    }
    void Update(unsigned char const* bytes, unsigned int length) override {
        if (EVP_MAC_update(_context, bytes, length) != 1) throw OpenSSLError("EVP_MAC_update");
    }
    void Finish() override {
        size_t produced = 0;
        if (EVP_MAC_final(_context, _value, &produced, sizeof _value) != 1)
            throw OpenSSLError("EVP_MAC_final");
    }

private:
    unsigned int _length;
    EVP_MAC_CTX* _context;
    unsigned char _value[MAX_LENGTH];
};

} // namespace

Mac::Rep::~Rep() = default;

Mac::Mac() : _rep(nullptr) {}

Mac::~Mac() { delete _rep; }

String_t Mac::AvailableMacs() { return NamesOf(algorithms); }

unsigned int Mac::KeyLength(char const* name) {
    Algorithm const* algorithm = FindAlgorithm(algorithms, name);
    return algorithm ? algorithm->_keyLength : 0;
}

void Mac::Redefine(char const* name, ByteString const& key) {
    Algorithm const* algorithm = FindAlgorithm(algorithms, name);
    if (!algorithm) throw InvalidArgument("Mac::Redefine", "unknown mac");
    if (key.Length() < algorithm->_keyLength) throw InvalidArgument("Mac::Redefine", "key too short");
    Rep* fresh = new Hmac(*algorithm, key.Data());
    delete _rep;
    _rep = fresh;
}

void Mac::UpdateInt(unsigned int value) {
    if (!_rep) return;
    unsigned char bytes[4];
    PutBigEndian(bytes, value);
    _rep->Update(bytes, sizeof bytes);
}

} // namespace cindral
