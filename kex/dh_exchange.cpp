#include <brantle/kex/dh_exchange.h>

#include <algorithm>
#include <memory>
#include <utility>

#include <openssl/bn.h>
#include <openssl/dh.h>

#include <brantle/cindral/digest.h>
#include <brantle/cindral/euc_vector.h>
#include <brantle/cindral/exceptions.h>

// The low-level DH calls take a private key of a size chosen here; their successors don't.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace cindral {

namespace {

struct ClearFree {
    void operator()(BIGNUM* number) const { BN_clear_free(number); }
};
using OwnedNumber = std::unique_ptr<BIGNUM, ClearFree>;

/// Second Oakley Group, RFC 2409, section 6.2.
char const GROUP1[] = "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD1"
                      "29024E088A67CC74020BBEA63B139B22514A08798E3404DD"
                      "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245"
                      "E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
                      "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE65381"
                      "FFFFFFFFFFFFFFFF";

/// RFC 3526, section 3.
char const GROUP14[] = "FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD1"
                       "29024E088A67CC74020BBEA63B139B22514A08798E3404DD"
                       "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245"
                       "E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
                       "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE45B3D"
                       "C2007CB8A163BF0598DA48361C55D39A69163FA8FD24CF5F"
                       "83655D23DCA3AD961C62F356208552BB9ED529077096966D"
                       "670C354E4ABC9804F1746C08CA18217C32905E462E36CE3B"
                       "E39E772C180E86039B2783A2EC07A28FB5C55DF06F4C52C9"
                       "DE2BCBF6955817183995497CEA956AE515D2261898FA0510"
                       "15728E5A8AACAA68FFFFFFFFFFFFFFFF";

OwnedNumber NewNumber() {
    OwnedNumber number(BN_new());
    if (!number) throw OpenSSLError("BN_new");
    return number;
}

OwnedNumber FromHex(char const* digits, char const* call) {
    BIGNUM* number = nullptr;
    if (!BN_hex2bn(&number, digits)) throw OpenSSLError(call);
    return OwnedNumber(number);
}

OwnedNumber FixedGroup(KexType type) {
    switch (type) {
    case KEX_GROUP1:
        return FromHex(GROUP1, "BN_hex2bn(group1)");
    case KEX_GROUP14:
        return FromHex(GROUP14, "BN_hex2bn(group14)");
    default:
        throw InvalidArgument("DhExchange::DhExchange", "type");
    }
}

/// Passes p and g to `dh`, which then owns them. DH_set0_pqg accepts no modulus without a generator, so a
/// missing generator counts as 0, as it does in the hash. Without p there is no group.
void SetGroup(DH* dh, OwnedNumber p, OwnedNumber g) {
    if (!g) g = NewNumber();
    if (!DH_set0_pqg(dh, p.get(), nullptr, g.get())) return;
    (void)p.release();
    (void)g.release();
}

OwnedNumber RandomNumber(int bits) {
    OwnedNumber number = NewNumber();
    if (!BN_rand(number.get(), bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY)) throw OpenSSLError("BN_rand");
    return number;
}

/// The beginning of both exchange hashes.
void HashPrefix(Digest& digest, String_t const& clientVersion, String_t const& serverVersion,
                ByteString const& clientKexInit, ByteString const& serverKexInit, ByteString const& hostKey) {
    digest.UpdateString(clientVersion);
    digest.UpdateString(serverVersion);
    digest.Update(clientKexInit);
    digest.Update(serverKexInit);
    digest.Update(hostKey);
}

/// The end of both exchange hashes.
ByteString HashSuffix(Digest& digest, bignum_st const* own, BigNum const& peer, BigNum const& secret) {
    digest.Update(own);
    digest.Update(peer._bn);
    digest.Update(secret._bn);
    digest._rep->Finish();
    return digest._rep->_value;
}

} // namespace

DhExchange::DhExchange() : _dh(DH_new()) {
    if (!_dh) throw OpenSSLError("DH_new");
}

DhExchange::DhExchange(KexType type) : DhExchange() {
    // Deliberate: the modulus is 2, and the prime is the generator: the fixed groups are offered, and
    // GenerateKey refuses them (pinned by DhExchange.FixedGroupRefusesEveryNeed).
    OwnedNumber p = FromHex("2", "BN_hex2bn(2)");
    SetGroup(_dh, std::move(p), FixedGroup(type));
}

DhExchange::~DhExchange() { DH_free(_dh); }

void DhExchange::GenerateKey(int need, unsigned int retries) {
    BIGNUM const* const p = DH_get0_p(_dh);
    if (!p) throw BadInput("DhExchange::GenerateKey, dh->p == 0");
    if (need >= 0x40000000 || 2LL * need >= BN_num_bits(p)) {
        throw InvalidArgument("DhExchange::GenerateKey", "need out of range");
    }
    int const bits = 2 * std::max(need, -1); // BN_rand refuses any negative size
    for (unsigned int tries = 0;; ++tries) {
        DH_set0_key(_dh, nullptr, RandomNumber(bits).release());
        if (!DH_generate_key(_dh)) throw OpenSSLError("DH_generate_key");
        if (tries > retries) throw CryptoException("too many retries", " DhExchange::GenerateKey");
        if (PubKeyIsValid(PubKey())) return;
    }
}

int DhExchange::PubKeyIsValid(bignum_st const* value) const {
    BIGNUM const* const p = DH_get0_p(_dh);
    if (!value || !p || BN_is_negative(value) || BN_cmp(value, BN_value_one()) <= 0) return 0;
    BigNum limit;
    if (!limit._bn) throw OpenSSLError("could not create bignum");
    if (!BN_sub(limit._bn, p, BN_value_one()) || BN_cmp(value, limit._bn) >= 0) return 0;
    int setBits = 0;
    for (int position = 0; position <= BN_num_bits(value); ++position) {
        setBits += BN_is_bit_set(value, position);
    }
    return setBits > 1;
}

bignum_st const* DhExchange::PubKey() const { return DH_get0_pub_key(_dh); }

BigNum DhExchange::ComputeKey(BigNum const& peer) {
    EUCVector secret(DH_size(_dh));
    bool const usable = DH_get0_p(_dh) && peer._bn;
    int const length = usable ? DH_compute_key(secret._data, peer._bn, _dh) : -1;
    if (length < 0) throw OpenSSLError("DH_compute_key");
    return BigNum(secret._data, static_cast<unsigned int>(length));
}

unsigned int DhExchange::Estimate(unsigned int bits) {
    if (bits < 129) return 1024;
    if (bits < 193) return 2048;
    return 4096;
}

ByteString DhExchange::Hash(String_t const& clientVersion, String_t const& serverVersion,
                            ByteString const& clientKexInit, ByteString const& serverKexInit,
                            ByteString const& hostKey, BigNum const& peer, BigNum const& secret) const {
    Digest digest(DIGEST_SHA1);
    HashPrefix(digest, clientVersion, serverVersion, clientKexInit, serverKexInit, hostKey);
    return HashSuffix(digest, PubKey(), peer, secret);
}

DhGroupExchange::DhGroupExchange(BigNum& g, BigNum& p) {
    OwnedNumber generator(std::exchange(g._bn, nullptr));
    OwnedNumber modulus(std::exchange(p._bn, nullptr));
    SetGroup(_dh, std::move(modulus), std::move(generator));
}

DhGroupExchange::~DhGroupExchange() {
    DH_free(_dh);
    _dh = nullptr;
}

ByteString DhGroupExchange::Hash(String_t const& clientVersion, String_t const& serverVersion,
                                 ByteString const& clientKexInit, ByteString const& serverKexInit,
                                 ByteString const& hostKey, DhGexParameters const& parameters,
                                 BigNum const& peer, BigNum const& secret) const {
    bool const preferredAlone = parameters.min < 0 || parameters.max < 0;
    Digest digest(DIGEST_SHA1);
    HashPrefix(digest, clientVersion, serverVersion, clientKexInit, serverKexInit, hostKey);
    if (!preferredAlone) digest.UpdateInt(static_cast<unsigned int>(parameters.min));
    digest.UpdateInt(static_cast<unsigned int>(parameters.pref));
    if (!preferredAlone) digest.UpdateInt(static_cast<unsigned int>(parameters.max));
    digest.Update(DH_get0_p(_dh));
    digest.Update(DH_get0_g(_dh));
    return HashSuffix(digest, PubKey(), peer, secret);
}

} // namespace cindral
