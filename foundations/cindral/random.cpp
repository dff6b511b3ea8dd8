#include <brantle/cindral/random.h>

#include <algorithm>
#include <cstdint>

#include <openssl/rand.h>

#include <brantle/cindral/exceptions.h>

namespace cindral {

namespace {

void FillRandom(unsigned char* bytes, unsigned int length) {
    constexpr unsigned int MAX_DRAW = 1U << 20;
    while (length > 0) {
        unsigned int const draw = std::min(length, MAX_DRAW);
        if (RAND_bytes(bytes, static_cast<int>(draw)) != 1) throw OpenSSLError("RAND_bytes");
        bytes += draw;
        length -= draw;
    }
}

} // namespace

ByteString RandomBytes(unsigned int length) {
    ByteString bytes(length);
    FillRandom(bytes.Data(), length);
    return bytes;
}

unsigned char PseudoRand::NextByte() {
    // xorshift64*: 0 is the one state that it can't leave, so 0 means "not seeded".
    thread_local std::uint64_t state = 0;
    while (state == 0) {
        unsigned char seed[sizeof state];
        FillRandom(seed, sizeof seed);
        for (unsigned char byte : seed) state = state << 8 | byte;
    }
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return static_cast<unsigned char>(state * 0x2545F4914F6CDD1DU >> 56);
}

} // namespace cindral
