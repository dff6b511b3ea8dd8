#ifndef BRANTLE_FOUNDATIONS_CINDRAL_FETCHED_H
#define BRANTLE_FOUNDATIONS_CINDRAL_FETCHED_H

#include <atomic>

#include <openssl/evp.h>

#include <brantle/cindral/exceptions.h>

namespace cindral {

/// An OpenSSL algorithm that the process looks up once, at its first use from any thread, and keeps. Static
/// storage only.
template <typename Algorithm, Algorithm* (*Fetch)(OSSL_LIB_CTX*, char const*, char const*),
          void (*Free)(Algorithm*)>
class Fetched {
public:
    explicit constexpr Fetched(char const* name) noexcept : _name(name), _algorithm(nullptr) {}

    /// Throws `OpenSSLError` with the name when OpenSSL doesn't offer the algorithm.
    Algorithm* Get() {
        Algorithm* known = _algorithm.load(std::memory_order_acquire);
        if (known) return known;
        Algorithm* fresh = Fetch(nullptr, _name, nullptr);
        if (!fresh) throw OpenSSLError(_name);
        if (_algorithm.compare_exchange_strong(known, fresh, std::memory_order_acq_rel)) return fresh;
        Free(fresh);
        return known;
    }

private:
    char const* _name;
    std::atomic<Algorithm*> _algorithm;
};

using FetchedCipher = Fetched<EVP_CIPHER, EVP_CIPHER_fetch, EVP_CIPHER_free>;
using FetchedMac = Fetched<EVP_MAC, EVP_MAC_fetch, EVP_MAC_free>;
using FetchedDigest = Fetched<EVP_MD, EVP_MD_fetch, EVP_MD_free>;

} // namespace cindral

#endif
