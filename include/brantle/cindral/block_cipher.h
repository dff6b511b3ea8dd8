#ifndef BRANTLE_CINDRAL_BLOCK_CIPHER_H
#define BRANTLE_CINDRAL_BLOCK_CIPHER_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// A handle on the cipher of one direction of a connection (RFC 4253 section 6.3, RFC 4344 section 4).
///
/// The handle remains the same object when `Redefine` replaces the implementation, so others may keep
/// references to it and see each change immediately. One thread at a time.
class CINDRAL_API BlockCipher {
public:
    enum Mode : int { ENCRYPT = 0, DECRYPT = 1 };

    /// A cipher in use, with its key and its chaining state.
    class CINDRAL_API Rep {
    public:
        virtual ~Rep();
        /// Block size in bytes; never 0.
        virtual unsigned int BlockSize() const = 0;
        /// `BlockCipher::NONE` for the cipher "none", a different number for all others.
        virtual int Kind() const = 0;
        /// Processes `length` bytes, a multiple of the block size, from `source` to `destination`, which may
        /// be the same array; the next call continues where this one ended. Returns the number of bytes
        /// produced, negative on failure.
        virtual int Process(unsigned char const* source, unsigned int length, unsigned char* destination) = 0;
        /// 0 selects whole blocks without padding, which is how every cipher here works, and returns 0;
        /// padding is not supported, so any other value returns a negative number.
        virtual int SetPadding(int padding) = 0;
    };

    /// What `Rep::Kind` returns for the `none` cipher.
    static constexpr int NONE = 0;

    /// The `none` cipher: passes bytes through; its block size is 8.
    BlockCipher();
    ~BlockCipher();
    BlockCipher(BlockCipher const&) = delete;
    BlockCipher& operator=(BlockCipher const&) = delete;

    /// The names of the ciphers, comma-separated, most preferred first. "none" is not among them.
    static String_t AvailableCiphers();
    /// Block size in bytes; 0 for a name that is not known, 8 for "none".
    static unsigned int BlockSize(char const* name);
    /// Key length in bytes; 0 for a name that is not known and for "none".
    static unsigned int KeyLen(char const* name);

    /// Replaces the implementation with a new one. The first bytes of `key` and `iv` are used; they may be
    /// longer. Throws `InvalidArgument` for an unknown name, or a key or initialisation vector too short for
    /// the cipher, and `OpenSSLError`; the old implementation is then kept.
    void Redefine(char const* name, Mode mode, ByteString const& key, ByteString const& iv);

    /// Never null.
    Rep* _rep;
};

} // namespace cindral

#endif
