#include <brantle/cindral/big_num.h>

#include <algorithm>
#include <utility>
#include <vector>

#include <openssl/bn.h>

#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/exceptions.h>

#include "wire_format.h"

namespace cindral {

namespace {

/// Reads `length` bytes piece by piece, so that a false length costs no memory.
std::vector<unsigned char> ReadBody(std::istream& in, unsigned int length) {
    constexpr unsigned int PIECE = 4096;
    std::vector<unsigned char> body;
    while (body.size() < length) {
        auto const have = static_cast<unsigned int>(body.size());
        unsigned int const piece = std::min(length - have, PIECE);
        body.resize(have + piece);
        BinBuffer::ReadString(in, body.data() + have, piece);
    }
    return body;
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
    return static_cast<int>(BinBuffer::WriteString(out, encoded.Data(), encoded.Length()));
}

void BigNum::Read2(std::istream& in, bignum_st* number) {
    RequireTarget("BigNum::Read2", number);
    std::vector<unsigned char> const body = ReadBody(in, BinBuffer::ReadInt(in));
    if (!DecodeMpint(body.data(), static_cast<unsigned int>(body.size()), number))
        throw OpenSSLError("BN_bin2bn");
}

int BigNum::Write(std::ostream& out, bignum_st const* number) {
    int const bits = number ? BN_num_bits(number) : 0;
    if (bits > 0xffff) throw InvalidArgument("BigNum::Write", "number");
    ByteString magnitude((static_cast<unsigned int>(bits) + 7) / 8);
    if (bits > 0) BN_bn2bin(number, magnitude.Data());
    unsigned int const written = BinBuffer::WriteShort(out, static_cast<unsigned short>(bits));
    return static_cast<int>(written + BinBuffer::WriteString(out, magnitude.Data(), magnitude.Length()));
}

void BigNum::Read(std::istream& in, bignum_st* number) {
    RequireTarget("BigNum::Read", number);
    std::vector<unsigned char> const body = ReadBody(in, (BinBuffer::ReadShort(in) + 7u) / 8);
    if (!BN_bin2bn(body.data(), static_cast<int>(body.size()), number)) throw OpenSSLError("BN_bin2bn");
}

} // namespace cindral
