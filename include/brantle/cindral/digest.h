#ifndef BRANTLE_CINDRAL_DIGEST_H
#define BRANTLE_CINDRAL_DIGEST_H

#include <brantle/cindral/export.h>
#include <brantle/cindral/key_types.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

struct bignum_st;
struct evp_md_ctx_st;

namespace cindral {

/// A digest over values in their wire form (RFC 4251 section 5). One thread at a time; every
/// operation that feeds it throws `OpenSSLError` when OpenSSL fails.
class CINDRAL_API Digest {
public:
    /// The digest computation.
    class CINDRAL_API Rep {
    public:
        explicit Rep(DigestType type);
        virtual ~Rep();
        Rep(Rep const&) = delete;
        Rep& operator=(Rep const&) = delete;

        /// Feeds raw bytes, without a length. REQUIRES: `Finish` has not been called.
        virtual void Update(unsigned char const* bytes, unsigned int length);
        /// Finishes the digest; the result is then in `_value`.
        virtual void Finish();

        ByteString _value;

    private:
        evp_md_ctx_st* _context;
    };

    /// Throws `InvalidArgument` for a type that is not known.
    explicit Digest(DigestType type);
    ~Digest();
    Digest(Digest const&) = delete;
    Digest& operator=(Digest const&) = delete;

    /// One byte.
    void UpdateByte(unsigned char value);
    /// 4 bytes, most significant first.
    void UpdateInt(unsigned int value);
    /// `uint32` length and text.
    void UpdateString(String_t const& text);
    /// `uint32` length and bytes.
    void Update(ByteString const& bytes);
    /// The `mpint` form; null counts as zero.
    void Update(bignum_st const* number);

    /// Never null.
    Rep* _rep;
};

} // namespace cindral

#endif
