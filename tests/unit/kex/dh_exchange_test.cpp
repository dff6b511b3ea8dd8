#include <brantle/kex/dh_exchange.h>

#include <climits>
#include <string>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/dh.h>

#include <brantle/cindral/exceptions.h>

#include "openssl_calls.h"
#include "support/expect_error.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

using namespace cindral;
using support::ExpectError;

namespace {

char const* const OUT_OF_RANGE = "need out of range";

BigNum Hex(std::string const& digits) {
    BigNum number;
    BN_hex2bn(&number._bn, digits.c_str());
    return number;
}

std::string Hex(bignum_st const* number) {
    char* const text = BN_bn2hex(number);
    std::string const copy = text;
    OPENSSL_free(text);
    return copy;
}

std::string Hex(ByteString const& bytes) {
    std::string text;
    for (unsigned int i = 0; i < bytes.Length(); ++i) {
        text += "0123456789abcdef"[bytes.Data()[i] >> 4];
        text += "0123456789abcdef"[bytes.Data()[i] & 15];
    }
    return text;
}

BigNum Prime1024() {
    BigNum number;
    BN_get_rfc2409_prime_1024(number._bn);
    return number;
}

BigNum Prime2048() {
    BigNum number;
    BN_get_rfc3526_prime_2048(number._bn);
    return number;
}

BigNum Plus(BigNum number, long summand) {
    if (summand < 0)
        BN_sub_word(number._bn, static_cast<BN_ULONG>(-summand));
    else
        BN_add_word(number._bn, static_cast<BN_ULONG>(summand));
    return number;
}

/// An exchange over a group of the peer's.
struct Group : DhGroupExchange {
    Group(BigNum g, BigNum p) : DhGroupExchange(g, p) {}
    explicit Group(BigNum p) : Group(Hex("2"), p) {}

    void SetKey(BigNum const& pub, BigNum const& priv) {
        DH_set0_key(_dh, BN_dup(pub._bn), BN_dup(priv._bn));
    }
};

template <typename Action>
void ExpectOpenSSLError(char const* call, Action action) {
    ExpectError<OpenSSLError>(call, "", action);
}

// Fixed groups

TEST(DhExchange, FixedGroupStoresItsPrimeAsGenerator) {
    DhExchange const group1(KEX_GROUP1);
    EXPECT_EQ(Hex(DH_get0_p(group1._dh)), "02");
    EXPECT_EQ(Hex(DH_get0_g(group1._dh)), Hex(Prime1024()._bn));
    DhExchange const group14(KEX_GROUP14);
    EXPECT_EQ(Hex(DH_get0_p(group14._dh)), "02");
    EXPECT_EQ(Hex(DH_get0_g(group14._dh)), Hex(Prime2048()._bn));
}

TEST(DhExchange, FixedGroupRefusesEveryNeed) {
    for (KexType type : {KEX_GROUP1, KEX_GROUP14}) {
        DhExchange exchange(type);
        for (int need : {1, 128, 160, INT_MAX}) {
            ExpectError<InvalidArgument>("DhExchange::GenerateKey", OUT_OF_RANGE,
                                         [&] { exchange.GenerateKey(need, 10); });
        }
    }
}

TEST(DhExchange, OtherTypesAreRefused) {
    for (int type : {0, 3, 4}) {
        ExpectError<InvalidArgument>("DhExchange::DhExchange", "type",
                                     [&] { DhExchange(static_cast<KexType>(type)); });
    }
}

TEST(DhExchange, FailedConstructionNamesTheCall) {
    callsOfDhNew.FailAt(1);
    ExpectOpenSSLError("DH_new", [] { DhExchange exchange(KEX_GROUP1); });
    callsOfDhNew.FailAt(1);
    ExpectOpenSSLError("DH_new", [] { DhExchange(); });
    callsOfBnHex2bn.FailAt(1);
    ExpectOpenSSLError("BN_hex2bn(2)", [] { DhExchange exchange(KEX_GROUP1); });
    callsOfBnHex2bn.FailAt(2);
    ExpectOpenSSLError("BN_hex2bn(group1)", [] { DhExchange exchange(KEX_GROUP1); });
    callsOfBnHex2bn.FailAt(2);
    ExpectOpenSSLError("BN_hex2bn(group14)", [] { DhExchange exchange(KEX_GROUP14); });
}

// The peer's group

TEST(DhGroupExchange, NumbersAreMovedIntoTheExchange) {
    BigNum g = Hex("2");
    BigNum p = Prime1024();
    bignum_st const* const generator = g._bn;
    bignum_st const* const modulus = p._bn;
    DhGroupExchange const exchange(g, p);
    EXPECT_EQ(g._bn, nullptr);
    EXPECT_EQ(p._bn, nullptr);
    EXPECT_EQ(DH_get0_g(exchange._dh), generator);
    EXPECT_EQ(DH_get0_p(exchange._dh), modulus);
}

TEST(DhGroupExchange, MissingModulusMakesNoGroup) {
    BigNum none(nullptr);
    BigNum g = Hex("2");
    for (BigNum* generator : {&none, &g}) {
        DhGroupExchange exchange(*generator, none);
        EXPECT_EQ(generator->_bn, nullptr);
        ExpectError<BadInput>("DhExchange::GenerateKey, dh->p == 0", "",
                              [&] { exchange.GenerateKey(128, 10); });
    }
}

TEST(DhGroupExchange, MissingGeneratorLeavesTheModulus) {
    BigNum none(nullptr);
    BigNum p = Prime1024();
    DhGroupExchange exchange(none, p);
    EXPECT_EQ(p._bn, nullptr);
    ASSERT_NE(DH_get0_p(exchange._dh), nullptr);
    EXPECT_EQ(Hex(DH_get0_p(exchange._dh)), Hex(Prime1024()._bn));
    EXPECT_EQ(exchange.PubKeyIsValid(Hex("3")._bn), 1);
    ExpectError<InvalidArgument>("DhExchange::GenerateKey", OUT_OF_RANGE,
                                 [&] { exchange.GenerateKey(512, 10); });
    ExpectError<CryptoException>("too many retries", " DhExchange::GenerateKey",
                                 [&] { exchange.GenerateKey(128, 10); });
}

// Key generation

TEST(GenerateKey, ExchangeWithoutModulusIsRefused) {
    DhExchange exchange;
    ExpectError<BadInput>("DhExchange::GenerateKey, dh->p == 0", "", [&] { exchange.GenerateKey(128, 10); });
    ExpectError<BadInput>("DhExchange::GenerateKey, dh->p == 0", "",
                          [&] { exchange.GenerateKey(0x40000000, 10); });
}

TEST(GenerateKey, NeedMustBeBelowHalfTheModulus) {
    Group exchange(Prime1024());
    ExpectError<InvalidArgument>("DhExchange::GenerateKey", OUT_OF_RANGE,
                                 [&] { exchange.GenerateKey(512, 10); });
    EXPECT_EQ(exchange.PubKey(), nullptr);
    exchange.GenerateKey(511, 10);
    EXPECT_EQ(BN_num_bits(DH_get0_priv_key(exchange._dh)), 1022);
}

TEST(GenerateKey, HugeNeedIsRefused) {
    Group exchange(Prime1024());
    for (int need : {0x3fffffff, 0x40000000, INT_MAX}) {
        ExpectError<InvalidArgument>("DhExchange::GenerateKey", OUT_OF_RANGE,
                                     [&] { exchange.GenerateKey(need, 10); });
    }
}

TEST(GenerateKey, NeedOfZeroFailsInTheRandomNumber) {
    Group exchange(Prime1024());
    for (int need : {0, -1, -0x40000001, INT_MIN}) {
        ExpectOpenSSLError("BN_rand", [&] { exchange.GenerateKey(need, 10); });
    }
}

TEST(GenerateKey, PrivateKeyHasTwiceTheNeedAndThePublicKeyMatches) {
    Group exchange(Prime2048());
    for (int need : {128, 160, 192, 256}) {
        exchange.GenerateKey(need, 10);
        bignum_st const* const priv = DH_get0_priv_key(exchange._dh);
        EXPECT_EQ(BN_num_bits(priv), 2 * need);
        BigNum power;
        BN_CTX* const context = BN_CTX_new();
        BN_mod_exp(power._bn, Hex("2")._bn, priv, Prime2048()._bn, context);
        BN_CTX_free(context);
        EXPECT_EQ(Hex(exchange.PubKey()), Hex(power._bn));
        EXPECT_EQ(exchange.PubKeyIsValid(exchange.PubKey()), 1);
    }
}

TEST(GenerateKey, EachCallMakesANewKey) {
    Group exchange(Prime1024());
    exchange.GenerateKey(128, 10);
    std::string const first = Hex(exchange.PubKey());
    exchange.GenerateKey(128, 10);
    EXPECT_NE(Hex(exchange.PubKey()), first);
}

TEST(GenerateKey, LastKeyAfterTheTriesIsDiscarded) {
    for (unsigned int retries : {0u, 1u, 10u}) {
        Group exchange(Hex("1"), Prime1024()); // every public key is 1
        callsOfDhGenerateKey.Watch();
        callsOfBnRand.Watch();
        ExpectError<CryptoException>("too many retries", " DhExchange::GenerateKey",
                                     [&] { exchange.GenerateKey(128, retries); });
        EXPECT_EQ(callsOfBnRand._count, retries + 2);
        EXPECT_EQ(callsOfDhGenerateKey._count, retries + 2);
    }
}

TEST(GenerateKey, ValidKeyTakesOneTry) {
    Group exchange(Prime1024());
    callsOfDhGenerateKey.Watch();
    exchange.GenerateKey(128, 0);
    EXPECT_EQ(callsOfDhGenerateKey._count, 1u);
}

TEST(GenerateKey, InvalidKeyIsReplaced) {
    Group exchange(Prime1024());
    callsOfBnSub.FailAt(1); // p - 1 cannot be had, so the first key counts as invalid
    callsOfDhGenerateKey.Watch();
    exchange.GenerateKey(128, 10);
    EXPECT_EQ(callsOfDhGenerateKey._count, 2u);
}

TEST(GenerateKey, FailedCallIsReported) {
    Group exchange(Prime1024());
    callsOfBnNew.FailAt(1);
    ExpectOpenSSLError("BN_new", [&] { exchange.GenerateKey(128, 10); });
    callsOfBnRand.FailAt(1);
    ExpectOpenSSLError("BN_rand", [&] { exchange.GenerateKey(128, 10); });
    callsOfDhGenerateKey.FailAt(1);
    ExpectOpenSSLError("DH_generate_key", [&] { exchange.GenerateKey(128, 10); });
    callsOfBnNew.FailAt(2); // the first one is the private key
    ExpectOpenSSLError("could not create bignum", [&] { exchange.GenerateKey(128, 10); });
}

TEST(GenerateKey, WeakGeneratorRunsOutOfTries) {
    for (BigNum const& generator :
         {Hex("0"), Hex("1"), Plus(Prime1024(), -1), Prime1024(), Plus(Prime1024(), 1)}) {
        Group exchange(generator, Prime1024());
        ExpectError<CryptoException>("too many retries", " DhExchange::GenerateKey",
                                     [&] { exchange.GenerateKey(128, 10); });
    }
}

TEST(GenerateKey, ZeroModulusIsRefused) {
    for (BigNum const& modulus : {Hex("0"), Hex("1"), Hex("2")}) {
        Group exchange(modulus);
        ExpectError<InvalidArgument>("DhExchange::GenerateKey", OUT_OF_RANGE,
                                     [&] { exchange.GenerateKey(1, 10); });
    }
}

TEST(GenerateKey, ModulusThatOpenSSLRefusesIsReported) {
    BigNum even = Plus(Prime1024(), 1);
    BigNum small = Hex("17");
    BigNum large;
    BN_set_bit(large._bn, 10001);
    BN_set_bit(large._bn, 0);
    for (BigNum const& modulus : {even, small, large}) {
        Group exchange(modulus);
        ExpectOpenSSLError("DH_generate_key", [&] { exchange.GenerateKey(2, 10); });
    }
}

TEST(GenerateKey, NegativeModulusRunsOutOfTries) {
    BigNum modulus = Prime1024();
    BN_set_negative(modulus._bn, 1);
    Group exchange(modulus);
    ExpectError<CryptoException>("too many retries", " DhExchange::GenerateKey",
                                 [&] { exchange.GenerateKey(128, 10); });
}

TEST(GenerateKey, CompositeModulusAndLargeGeneratorAreAccepted) {
    Group composite(Plus(Prime1024(), 2));
    composite.GenerateKey(128, 10);
    EXPECT_EQ(composite.PubKeyIsValid(composite.PubKey()), 1);
    Group large(Plus(Prime1024(), 2), Prime1024()); // the same as 2
    large.GenerateKey(128, 10);
    EXPECT_EQ(large.PubKeyIsValid(large.PubKey()), 1);
}

// Public keys

TEST(PubKeyIsValid, ValuesWithinTheGroupAreValid) {
    Group const exchange(Prime1024());
    for (BigNum const& value : {Hex("3"), Hex("5"), Hex("FF"), Plus(Prime1024(), -2)}) {
        EXPECT_EQ(exchange.PubKeyIsValid(value._bn), 1) << Hex(value._bn);
    }
}

TEST(PubKeyIsValid, ValuesOutsideTheGroupAreInvalid) {
    Group const exchange(Prime1024());
    for (BigNum const& value : {Hex("0"), Hex("1"), Hex("-1"), Hex("-3"), Plus(Prime1024(), -1), Prime1024(),
                                Plus(Prime1024(), 1), Prime2048()}) {
        EXPECT_EQ(exchange.PubKeyIsValid(value._bn), 0) << Hex(value._bn);
    }
}

TEST(PubKeyIsValid, PowersOfTwoAreWeak) {
    Group const exchange(Prime1024());
    for (int bit = 0; bit < 1024; ++bit) {
        BigNum value;
        BN_set_bit(value._bn, bit);
        EXPECT_EQ(exchange.PubKeyIsValid(value._bn), 0) << bit;
        if (bit > 0 && bit < 1023) {
            EXPECT_EQ(exchange.PubKeyIsValid(Plus(value, 1)._bn), 1) << bit;
        }
    }
}

TEST(PubKeyIsValid, NoValueIsValidWithoutAGroup) {
    DhExchange const empty;
    EXPECT_EQ(empty.PubKeyIsValid(Hex("3")._bn), 0);
    Group const exchange(Prime1024());
    EXPECT_EQ(exchange.PubKeyIsValid(nullptr), 0);
}

TEST(PubKeyIsValid, FailedCallIsReported) {
    Group const exchange(Prime1024());
    BigNum const value = Hex("3");
    callsOfBnNew.FailAt(1);
    ExpectOpenSSLError("could not create bignum", [&] { exchange.PubKeyIsValid(value._bn); });
    callsOfBnSub.FailAt(1);
    EXPECT_EQ(exchange.PubKeyIsValid(value._bn), 0);
}

// Shared secrets

TEST(ComputeKey, BothSidesComputeTheSameSecret) {
    Group own(Prime2048());
    Group peer(Prime2048());
    own.GenerateKey(128, 10);
    peer.GenerateKey(256, 10);
    BigNum const first = own.ComputeKey(BigNum(peer.PubKey()));
    EXPECT_GT(BN_num_bits(first._bn), 1024);
    EXPECT_EQ(Hex(first._bn), Hex(peer.ComputeKey(BigNum(own.PubKey()))._bn));
}

TEST(ComputeKey, SecretIsThePeersValueToThePrivateKey) {
    Group exchange(Prime1024());
    exchange.SetKey(Hex("3"), Hex("C0FFEEC0FFEEC0FFEEC0FFEEC0FFEEC0FFEEC0FFEEC0FFEE"));
    BigNum const secret = exchange.ComputeKey(
        Hex("2FB5E441992890FBCD23AE95CB9F58DE626D9EEB24EB91BC2E4E6F6C0C0AC77E15D9D19FDA26C61233A2457BD86724B8"
            "797594F78B26928566B979EAAAA81CA00451C068D9F1DE4A0D281A70899075A507399032DB3F84022560716BC6AE4744"
            "BE9CB03F39AB9EC4769C3946185CA740B0637099CA5E101C2FB1C89DEF75DE06"));
    EXPECT_EQ(
        Hex(secret._bn),
        "66A5C7407AEABD79D91DDE689AC44A31F1131290AB98EA4C51065D6D47E79CD0F1B8C23E2BEFC03F7AD56714063ECA0D"
        "98AC6750771D2AD04F268A90701D92F8FBDFB02CB21D9004F78D25EF524B98429BA98E61ABD2F4DA77A5C574CC49938B"
        "93C673845F94707BA16FE054D3BA74245A8A9270C1056B0053FAC0015C99F5E3");
}

TEST(ComputeKey, ShortSecretHasNoLeadingZeros) {
    Group exchange(Prime1024());
    exchange.SetKey(Hex("3"), Hex("2"));
    EXPECT_EQ(Hex(exchange.ComputeKey(Hex("5"))._bn), "19");
}

TEST(ComputeKey, FailureIsReported) {
    Group exchange(Prime1024());
    ExpectOpenSSLError("DH_compute_key", [&] { exchange.ComputeKey(Hex("5")); }); // no private key yet
    exchange.GenerateKey(128, 10);
    callsOfDhComputeKey.FailAt(1);
    ExpectOpenSSLError("DH_compute_key", [&] { exchange.ComputeKey(Hex("5")); });
}

TEST(ComputeKey, WeakPeerValuesFail) {
    Group exchange(Prime1024());
    exchange.GenerateKey(128, 10);
    for (BigNum const& value : {Hex("0"), Hex("1"), Prime1024()}) {
        ExpectOpenSSLError("DH_compute_key", [&] { exchange.ComputeKey(value); });
    }
    ExpectOpenSSLError("DH_compute_key", [&] { exchange.ComputeKey(BigNum(nullptr)); });
}

TEST(ComputeKey, ExchangeWithoutGroupFails) {
    DhExchange exchange;
    ExpectOpenSSLError("DH_compute_key", [&] { exchange.ComputeKey(Hex("5")); });
}

// Sizes and hashes

TEST(Estimate, GroupGrowsWithTheKey) {
    EXPECT_EQ(DhExchange::Estimate(0), 1024u);
    EXPECT_EQ(DhExchange::Estimate(128), 1024u);
    EXPECT_EQ(DhExchange::Estimate(129), 2048u);
    EXPECT_EQ(DhExchange::Estimate(192), 2048u);
    EXPECT_EQ(DhExchange::Estimate(193), 4096u);
    EXPECT_EQ(DhExchange::Estimate(UINT_MAX), 4096u);
}

/// The digests below are those of the strings and mpints of RFC 4253, section 8, and RFC 4419, section 3,
/// put together by hand.
class ExchangeHash : public testing::Test {
protected:
    ExchangeHash() : _exchange(Prime1024()) { _exchange.SetKey(Hex("1234567890"), Hex("2")); }

    std::string GroupHash(DhGexParameters const& parameters) {
        return Hex(_exchange.Hash("SSH-2.0-client", "SSH-2.0-server", _clientKexInit, _serverKexInit,
                                  _hostKey, parameters, _peer, _secret));
    }

    Group _exchange;
    ByteString const _clientKexInit{"\x14"
                                    "client offer",
                                    13};
    ByteString const _serverKexInit{"\x14"
                                    "server offer",
                                    13};
    ByteString const _hostKey{"host key", 8};
    BigNum const _peer = Hex("80000001");
    BigNum const _secret = Hex("7FFFFFFF");
};

TEST_F(ExchangeHash, FixedGroupsHashOnlyTheKeys) {
    DhExchange const& base = _exchange;
    EXPECT_EQ(Hex(base.Hash("SSH-2.0-client", "SSH-2.0-server", _clientKexInit, _serverKexInit, _hostKey,
                            _peer, _secret)),
              "6adf3dbb243010e51f585653d5d37b95f04f1aab");
}

TEST_F(ExchangeHash, GroupExchangeHashesSizesAndGroup) {
    EXPECT_EQ(GroupHash(DhGexParameters(1024, 2048, 8192)), "151859c799f63857305d08c3a5dd13dd79212a32");
}

TEST_F(ExchangeHash, OldFormHashesOnlyThePreferredSize) {
    EXPECT_EQ(GroupHash(DhGexParameters(2048)), "ea3ea4865cfd0abda096a0359a25d75a13ec07b6");
    for (bool lower : {true, false}) {
        DhGexParameters parameters(1024, 2048, 8192);
        (lower ? parameters.min : parameters.max) = -1;
        EXPECT_EQ(GroupHash(parameters), "ea3ea4865cfd0abda096a0359a25d75a13ec07b6");
    }
}

} // namespace
