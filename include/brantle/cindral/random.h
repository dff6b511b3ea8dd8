#ifndef BRANTLE_CINDRAL_RANDOM_H
#define BRANTLE_CINDRAL_RANDOM_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// `length` bytes from the cryptographic random source. Any thread may call it.
/// Throws `OpenSSLError` with "RAND_bytes".
CINDRAL_API ByteString RandomBytes(unsigned int length);

/// A small, fast generator for bytes that need not be secret, such as padding. Every thread has its own
/// state, seeded from the cryptographic source at its first byte.
class CINDRAL_API PseudoRand {
public:
    /// Any thread may call it. Throws `OpenSSLError` with "RAND_bytes" when seeding fails.
    static unsigned char NextByte();
};

} // namespace cindral

#endif
