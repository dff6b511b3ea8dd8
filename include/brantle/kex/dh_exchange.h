#ifndef BRANTLE_KEX_DH_EXCHANGE_H
#define BRANTLE_KEX_DH_EXCHANGE_H

#include <brantle/cindral/big_num.h>
#include <brantle/export.h>
#include <brantle/kex/dh_gex_parameters.h>
#include <brantle/kex/kex_type.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

struct bignum_st;
struct dh_st;

namespace cindral {

/// The arithmetic of one Diffie-Hellman key exchange (RFC 4253, section 8): the key pair, the test of public
/// values, the shared secret and the exchange hash.
///
/// Failed OpenSSL calls throw `OpenSSLError` with the name of the call.
class BRANTLE_API DhExchange {
public:
    /// Over a fixed group: `KEX_GROUP1` or `KEX_GROUP14`; anything else throws `InvalidArgument`. The number
    /// 2 stands in the place of the modulus and the prime in that of the generator, so that `GenerateKey`
    /// refuses every size.
    explicit DhExchange(KexType type);
    /// Without a group yet.
    DhExchange();
    virtual ~DhExchange();
    DhExchange(DhExchange const&) = delete;
    DhExchange& operator=(DhExchange const&) = delete;

    /// Makes a key pair with a private key of 2 x `need` bits, which is less than the modulus has; throws
    /// `InvalidArgument` if it isn't, and `BadInput` if there is no modulus. A public key that is no valid
    /// one is made again up to `retries` times; then throws `CryptoException`.
    void GenerateKey(int need, unsigned int retries);

    /// 1 if `value` may be a public key of this group, else 0: greater than 1, less than p - 1, and no power
    /// of two.
    int PubKeyIsValid(bignum_st const* value) const;

    /// The public key made by `GenerateKey`, which the exchange owns; null before.
    bignum_st const* PubKey() const;

    /// The shared secret of the own private key and the peer's public one.
    BigNum ComputeKey(BigNum const& peer);

    /// Bits of a group that is as strong as a key of that many bits.
    static unsigned int Estimate(unsigned int bits);

    /// The exchange hash, with SHA-1, of both identification strings, both KEXINIT payloads, the server's
    /// host key blob, the own public key, the peer's, and the shared secret.
    ByteString Hash(String_t const& clientVersion, String_t const& serverVersion,
                    ByteString const& clientKexInit, ByteString const& serverKexInit,
                    ByteString const& hostKey, BigNum const& peer, BigNum const& secret) const;

    dh_st* _dh; ///< owned: p, g and the key pair
};

/// The exchange over a group that the server sent (RFC 4419).
class BRANTLE_API DhGroupExchange : public DhExchange {
public:
    /// Moves generator and modulus out of the arguments, which are empty afterwards.
    DhGroupExchange(BigNum& g, BigNum& p);
    ~DhGroupExchange() override;

    /// As the base's, with the sizes asked for and the group between host key and public keys (RFC 4419,
    /// section 3).
    ByteString Hash(String_t const& clientVersion, String_t const& serverVersion,
                    ByteString const& clientKexInit, ByteString const& serverKexInit,
                    ByteString const& hostKey, DhGexParameters const& parameters, BigNum const& peer,
                    BigNum const& secret) const;
};

} // namespace cindral

#endif
