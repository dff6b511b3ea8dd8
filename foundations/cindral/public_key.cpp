#include <brantle/cindral/public_key.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "pkey.h"
#include "read_file.h"
#include "wire_format.h"

namespace cindral {

namespace {

bool IsPositive(BIGNUM const* number) { return number && !BN_is_negative(number) && !BN_is_zero(number); }

KeyType TypeOf(ByteView const& name) {
    for (KeyType type : {KEY_RSA, KEY_DSA})
        if (name.Is(KeyName(type))) return type;
    return KEY_NONE;
}

constexpr unsigned int CountOf(KeyType type) { return type == KEY_RSA ? 2 : 4; }

ByteView NextWord(ByteView& text) {
    auto const isBlank = [](unsigned char c) { return c == ' ' || c == '\t' || c == '\r'; };
    unsigned char const* const end = text._data + text._length;
    unsigned char const* const start = std::find_if_not(text._data, end, isBlank);
    unsigned char const* const stop = std::find_if(start, end, isBlank);
    text = ByteView{stop, static_cast<unsigned int>(end - stop)};
    return ByteView{start, static_cast<unsigned int>(stop - start)};
}

/// The bytes of a base 64 text; none when it is malformed.
ByteString Decode64(ByteView const& text) {
    unsigned int padding = 0;
    while (padding < 2 && padding < text._length && text._data[text._length - 1 - padding] == '=') ++padding;
    if (text._length == 0 || text._length % 4 != 0) return ByteString();
    // OpenSSL's decoder accepts '=' anywhere.
    if (std::memchr(text._data, '=', text._length - padding)) return ByteString();
    ByteString bytes(text._length / 4 * 3);
    int const length = EVP_DecodeBlock(bytes.Data(), text._data, static_cast<int>(text._length));
    if (length < 0) return ByteString();
    bytes.Reserve(static_cast<unsigned int>(length) - padding);
    return bytes;
}

} // namespace

PublicKey::Rep::~Rep() = default;

KeyType PublicKey::Rep::Type() const { return _type; }

char const* PublicKey::Rep::Name() const { return KeyName(_type); }

int PublicKey::Rep::Equals(Rep const& other) const {
    if (_type != other._type) return 0;
    for (unsigned int i = 0; i < CountOf(_type); ++i)
        if (BN_cmp(_numbers[i]._bn, other._numbers[i]._bn) != 0) return 0;
    return 1;
}

ByteString PublicKey::Rep::EncodeSSH() const { return _blob; }

String_t PublicKey::Rep::EncodeSSH64() const {
    String_t text((_blob.Length() + 2) / 3 * 4);
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.Buffer()), _blob.Data(),
                    static_cast<int>(_blob.Length()));
    return text;
}

evp_pkey_st* PublicKey::Rep::NewPkey() const {
    if (_type == KEY_RSA)
        return MakePkey("RSA", EVP_PKEY_PUBLIC_KEY,
                        {{OSSL_PKEY_PARAM_RSA_E, _numbers[0]._bn}, {OSSL_PKEY_PARAM_RSA_N, _numbers[1]._bn}});
    return MakePkey("DSA", EVP_PKEY_PUBLIC_KEY,
                    {{OSSL_PKEY_PARAM_FFC_P, _numbers[0]._bn},
                     {OSSL_PKEY_PARAM_FFC_Q, _numbers[1]._bn},
                     {OSSL_PKEY_PARAM_FFC_G, _numbers[2]._bn},
                     {OSSL_PKEY_PARAM_PUB_KEY, _numbers[3]._bn}});
}

PublicKey::Rep* PublicKey::Rep::Parse(ByteString const& blob) {
    WireReader reader(blob.Data(), blob.Length());
    KeyType const type = TypeOf(reader.String());
    if (type == KEY_NONE) return nullptr;
    Rep key;
    key._type = type;
    key._blob = blob;
    for (unsigned int i = 0; i < CountOf(type); ++i) {
        reader.Mpint(key._numbers[i]._bn);
        if (!reader.Ok() || !IsPositive(key._numbers[i]._bn)) return nullptr;
    }
    return reader.AtEnd() ? key.Clone() : nullptr;
}

PublicKey::Rep* PublicKey::Rep::Clone() const { return new Rep(*this); }

PublicKey::PublicKey() : _rep(nullptr) {}

PublicKey::PublicKey(PublicKey const& other) : _rep(other._rep ? other._rep->Clone() : nullptr) {}

PublicKey::PublicKey(ByteString const& blob) : _rep(Rep::Parse(blob)) {}

PublicKey::~PublicKey() { delete _rep; }

PublicKey& PublicKey::operator=(PublicKey const& other) {
    PublicKey copy(other);
    std::swap(_rep, copy._rep);
    return *this;
}

PublicKey& PublicKey::operator=(ByteString const& blob) {
    PublicKey parsed(blob);
    std::swap(_rep, parsed._rep);
    return *this;
}

int PublicKey::ReadSSH(char const* path) {
    SecretBytes contents;
    if (int const failure = ReadFile(path, contents)) return failure;
    auto const lineEnd = std::find(contents.begin(), contents.end(), '\n');
    ByteView line{contents.data(), static_cast<unsigned int>(lineEnd - contents.begin())};
    ByteView const name = NextWord(line);
    PublicKey key(Decode64(NextWord(line)));
    if (!key._rep || !name.Is(key._rep->Name())) return -EINVAL;
    std::swap(_rep, key._rep);
    return 0;
}

} // namespace cindral
