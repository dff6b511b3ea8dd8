#ifndef BRANTLE_CINDRAL_BIG_NUM_H
#define BRANTLE_CINDRAL_BIG_NUM_H

#include <iosfwd>

#include <brantle/cindral/export.h>

struct bignum_st;

namespace cindral {

/// A value over one OpenSSL big number, which it owns and wipes when it goes.
///
/// `_bn` may be handed to OpenSSL as it stands. It is null only when OpenSSL had no memory, or after
/// the number was moved or taken out; such a `BigNum` may be copied, assigned to and destroyed.
/// Not to be shared between threads without an outer lock.
class CINDRAL_API BigNum {
public:
    /// Zero.
    BigNum();
    BigNum(BigNum const& other);
    BigNum(BigNum&& other) noexcept;
    /// Copies; null gives a `BigNum` without a number.
    explicit BigNum(bignum_st const* number);
    /// From `length` big-endian bytes, which are read as a number that is not negative.
    BigNum(unsigned char const* bytes, unsigned int length);
    ~BigNum();

    BigNum& operator=(BigNum const& other);
    BigNum& operator=(BigNum&& other) noexcept;

    /// Writes the `mpint` of RFC 4251 section 5, negative numbers included; null counts as zero.
    /// Returns the number of bytes written.
    static int Write2(std::ostream& out, bignum_st const* number);
    /// Reads an `mpint` into `number`. Memory grows with the bytes that arrive, not with the length
    /// that is announced. Throws `BadInput` at a premature end, `InvalidArgument` for a null `number`.
    static void Read2(std::istream& in, bignum_st* number);

    /// Writes the older form: `uint16` number of bits, then the magnitude in as many bytes as these
    /// bits fill. Returns the number of bytes written. Throws `InvalidArgument` for a number of more
    /// than 65535 bits.
    static int Write(std::ostream& out, bignum_st const* number);
    /// Reads that form; fails like `Read2`.
    static void Read(std::istream& in, bignum_st* number);

    bignum_st* _bn;
};

} // namespace cindral

#endif
