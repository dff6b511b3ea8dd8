#include <brantle/cindral/digest.h>

#include <brantle/thornel/big_endian.h>

#include "fetched.h"
#include "wire_format.h"

namespace cindral {

namespace {

FetchedDigest sha1("SHA1");

EVP_MD* Find(DigestType type) {
    if (type != DIGEST_SHA1) throw InvalidArgument("Digest::Digest", "type");
    return sha1.Get();
}

} // namespace

Digest::Rep::Rep(DigestType type) : _context(nullptr) {
    EVP_MD* digest = Find(type);
    _context = EVP_MD_CTX_new();
    if (_context && EVP_DigestInit_ex2(_context, digest, nullptr) == 1) return;
    EVP_MD_CTX_free(_context);
    throw OpenSSLError("EVP_DigestInit_ex2");
}

Digest::Rep::~Rep() { EVP_MD_CTX_free(_context); }

void Digest::Rep::Update(unsigned char const* bytes, unsigned int length) {
    if (length > 0 && EVP_DigestUpdate(_context, bytes, length) != 1) throw OpenSSLError("EVP_DigestUpdate");
}

void Digest::Rep::Finish() {
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(_context, value, &length) != 1) throw OpenSSLError("EVP_DigestFinal_ex");
    _value = ByteString(value, length);
}

Digest::Digest(DigestType type) : _rep(new Rep(type)) {}

Digest::~Digest() { delete _rep; }

void Digest::UpdateByte(unsigned char value) { _rep->Update(&value, 1); }

void Digest::UpdateInt(unsigned int value) {
    unsigned char bytes[4];
    PutBigEndian(bytes, value);
    _rep->Update(bytes, sizeof bytes);
}

void Digest::UpdateString(String_t const& text) {
    unsigned int const length = str_len(text.Text());
    UpdateInt(length);
    _rep->Update(reinterpret_cast<unsigned char const*>(text.Text()), length);
}

void Digest::Update(ByteString const& bytes) {
    UpdateInt(bytes.Length());
    _rep->Update(bytes.Data(), bytes.Length());
}

void Digest::Update(bignum_st const* number) {
    ByteString const encoded = EncodeMpint(number);
    _rep->Update(encoded.Data(), encoded.Length());
}

} // namespace cindral
