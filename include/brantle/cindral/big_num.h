#ifndef BRANTLE_CINDRAL_BIG_NUM_H
#define BRANTLE_CINDRAL_BIG_NUM_H

#include <iosfwd>

#include <brantle/cindral/export.h>

struct bignum_st;

namespace cindral {

/// A value type around one OpenSSL big number, which it owns and wipes on destruction.
///
/// `_bn` may be passed to OpenSSL directly. It is null only if OpenSSL ran out of memory, or after the number
/// has been moved or taken out; such a `BigNum` may be copied, assigned to and destroyed. Do not share it
/// between threads without external locking.
class CINDRAL_API BigNum {
public:
    /// Zero.
    BigNum();
    BigNum(BigNum const& other);
    BigNum(BigNum&& other) noexcept;
    /// Copies; null gives a `BigNum` without a number.
    explicit BigNum(bignum_st const* number);
    /// From `length` big-endian bytes, read as a non-negative number.
    BigNum(unsigned char const* bytes, unsigned int length);
    ~BigNum();

    BigNum& operator=(BigNum const& other);
    BigNum& operator=(BigNum&& other) noexcept;

    /// Writes the `mpint` of RFC 4251 section 5, negative numbers included; null counts as zero.
    /// Returns the number of bytes written.
    static int Write2(std::ostream& out, bignum_st const* number);
    /// Reads an `mpint` into `number`. Memory is allocated as bytes arrive, not according to the announced
    /// length. Throws `BadInput` at a premature end, `InvalidArgument` for a null `number`.
    static void Read2(std::istream& in, bignum_st* number);

    /// Writes the older form: `uint16` number of bits, then the magnitude in as many bytes as these bits
    /// need. Returns the number of bytes written. Throws `InvalidArgument` for a number of more than 65535
    /// bits.
    static int Write(std::ostream& out, bignum_st const* number);
    /// Reads that form; fails like `Read2`.
    static void Read(std::istream& in, bignum_st* number);

    bignum_st* _bn;
};

} // namespace cindral

#endif
