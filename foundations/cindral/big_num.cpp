#include <brantle/cindral/big_num.h>

#include <algorithm>
#include <istream>
#include <ostream>
#include <utility>
#include <vector>

#include <openssl/bn.h>

#include <brantle/cindral/exceptions.h>

#include "wire_format.h"

namespace cindral {

namespace {

void ReadExactly(std::istream& in, unsigned char* bytes, unsigned int length) {
    in.read(reinterpret_cast<char*>(bytes), static_cast<std::streamsize>(length));
    if (static_cast<unsigned int>(in.gcount()) != length) throw BadInput("BigNum: premature end of input");
}

/// Reads `length` bytes piece by piece, so that a length that lies costs nothing.
std::vector<unsigned char> ReadBody(std::istream& in, unsigned int length) {
    constexpr unsigned int PIECE = 4096;
    std::vector<unsigned char> body;
    while (body.size() < length) {
        auto const have = static_cast<unsigned int>(body.size());
        unsigned int const piece = std::min(length - have, PIECE);
        body.resize(have + piece);
        ReadExactly(in, body.data() + have, piece);
    }
    return body;
}

void WriteBytes(std::ostream& out, unsigned char const* bytes, unsigned int length) {
    out.write(reinterpret_cast<char const*>(bytes), static_cast<std::streamsize>(length));
}

void RequireTarget(char const* place, bignum_st const* number) {
    if (!number) throw InvalidArgument(place, "number");
}

} // namespace

BigNum::BigNum() : _bn(BN_new()) {}

BigNum::BigNum(BigNum const& other) : BigNum(other._bn) {}

BigNum::BigNum(BigNum&& other) noexcept : _bn(std::exchange(other._bn, nullptr)) {}

BigNum::BigNum(bignum_st const* number) : _bn(number ? BN_dup(number) : nullptr) {}

BigNum::BigNum(unsigned char const* bytes, unsigned int length)
    : _bn(length > 0 ? BN_bin2bn(bytes, static_cast<int>(length), nullptr) : BN_new()) {}

BigNum::~BigNum() { BN_clear_free(_bn); }

BigNum& BigNum::operator=(BigNum const& other) {
    if (this != &other) *this = BigNum(other);
    return *this;
}

BigNum& BigNum::operator=(BigNum&& other) noexcept {
    std::swap(_bn, other._bn);
    return *this;
}

int BigNum::Write2(std::ostream& out, bignum_st const* number) {
    ByteString const encoded = EncodeMpint(number);
    WriteBytes(out, encoded.Data(), encoded.Length());
    return static_cast<int>(encoded.Length());
}

void BigNum::Read2(std::istream& in, bignum_st* number) {
    RequireTarget("BigNum::Read2", number);
    unsigned char prefix[4];
    ReadExactly(in, prefix, sizeof prefix);
    std::vector<unsigned char> const body = ReadBody(in, GetInt(prefix));
    if (!DecodeMpint(body.data(), static_cast<unsigned int>(body.size()), number))
        throw OpenSSLError("BN_bin2bn");
}

int BigNum::Write(std::ostream& out, bignum_st const* number) {
    int const bits = number ? BN_num_bits(number) : 0;
    if (bits > 0xffff) throw InvalidArgument("BigNum::Write", "number");
    std::vector<unsigned char> encoded(2 + (static_cast<unsigned int>(bits) + 7) / 8);
    encoded[0] = static_cast<unsigned char>(bits >> 8);
    encoded[1] = static_cast<unsigned char>(bits);
    if (bits > 0) BN_bn2bin(number, encoded.data() + 2);
    WriteBytes(out, encoded.data(), static_cast<unsigned int>(encoded.size()));
    return static_cast<int>(encoded.size());
}

void BigNum::Read(std::istream& in, bignum_st* number) {
    RequireTarget("BigNum::Read", number);
    unsigned char prefix[2];
    ReadExactly(in, prefix, sizeof prefix);
    unsigned int const bits = static_cast<unsigned int>(prefix[0]) << 8 | prefix[1];
    std::vector<unsigned char> const body = ReadBody(in, (bits + 7) / 8);
    if (!BN_bin2bn(body.data(), static_cast<int>(body.size()), number)) throw OpenSSLError("BN_bin2bn");
}

} // namespace cindral
