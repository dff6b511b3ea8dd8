#include <map>

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <brantle/cindral/exceptions.h>

#include "standard/algorithms.h"
#include "standard/known_hosts_line.h"
#include "standard/signature_scheme.h"
#include "support/expect_error.h"
#include "unit/cindral/hex.h"
#include "unit/cindral/key_files.h"

using namespace cindral;
using namespace cindral::standard;
using support::ExpectError;

namespace {

using standard::Bytes;

constexpr char const* DATA = "what is signed";

PkeyPtr Generate(std::string const& keyType) {
    if (keyType == "ssh-ed25519") return PkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    if (keyType == "ssh-rsa") return PkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t(2048)));
    std::string const curve = "P-" + keyType.substr(keyType.size() - 3);
    return PkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve.c_str()));
}

/// A key of that type, the same in all tests.
EVP_PKEY* KeyOf(std::string const& keyType) {
    static std::map<std::string, PkeyPtr> keys;
    PkeyPtr& key = keys[keyType];
    if (!key) key = Generate(keyType);
    return key.get();
}

Bytes Hash(View bytes) {
    Bytes hash(64);
    EVP_Digest(bytes.data(), bytes.size(), hash.data(), nullptr, EVP_sha512(), nullptr);
    return hash;
}

/// What `ssh-keygen -Y` signs in place of a message.
Bytes SshsigData(View message) {
    return Writer().Fixed("SSHSIG").String("file").String("").String("sha512").String(Hash(message)).Take();
}

struct Scheme {
    char const* algorithm;
    char const* keyType;
    char const* keygenOptions;
};

std::ostream& operator<<(std::ostream& out, Scheme const& scheme) { return out << scheme.algorithm; }

class SignatureScheme : public testing::TestWithParam<Scheme> {
protected:
    SignatureScheme()
        : _key(KeyOf(GetParam().keyType)), _blob(MakeKeyBlob(_key)),
          _signature(standard::Sign(GetParam().algorithm, _key, DATA)) {}

    bool Verifies(View signature) const { return Verify(GetParam().algorithm, _blob, DATA, signature); }
    /// The signature without its name.
    Bytes Value() const {
        Reader reader(_signature, "signature");
        reader.String();
        return reader.String().Copy();
    }
    Bytes WithValue(View value) const { return Writer().String(GetParam().algorithm).String(value).Take(); }

    EVP_PKEY* _key;
    Bytes _blob;
    Bytes _signature;
};

TEST_P(SignatureScheme, SignatureVerifiesWithTheKeyAndTheData) {
    EXPECT_TRUE(Verifies(_signature));
    Reader reader(_signature, "signature");
    EXPECT_EQ(reader.String(), View(GetParam().algorithm));
}

TEST_P(SignatureScheme, EmptyDataCanBeSigned) {
    Bytes const signature = standard::Sign(GetParam().algorithm, _key, View());
    EXPECT_TRUE(Verify(GetParam().algorithm, _blob, View(), signature));
    EXPECT_FALSE(Verifies(signature));
}

TEST_P(SignatureScheme, SignatureOfOtherDataIsRefused) {
    EXPECT_FALSE(Verify(GetParam().algorithm, _blob, "what is signeD", _signature));
    EXPECT_FALSE(Verify(GetParam().algorithm, _blob, "", _signature));
}

TEST_P(SignatureScheme, SignatureOfAnotherKeyIsRefused) {
    PkeyPtr const other = Generate(GetParam().keyType);
    EXPECT_FALSE(Verifies(standard::Sign(GetParam().algorithm, other.get(), DATA)));
}

TEST_P(SignatureScheme, SignatureWithAnyByteChangedIsRefused) {
    ERR_clear_error();
    for (std::size_t i = 0; i < _signature.size(); ++i) {
        Bytes forged = _signature;
        forged[i] = static_cast<unsigned char>(forged[i] ^ 1 << i % 8);
        EXPECT_FALSE(Verifies(forged)) << "byte " << i;
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_P(SignatureScheme, SignatureCutAnywhereIsRefused) {
    for (std::size_t size = 0; size < _signature.size(); ++size)
        EXPECT_FALSE(Verifies(View(_signature.data(), size))) << size;
    Bytes const value = Value();
    for (std::size_t size = 0; size < value.size(); ++size)
        EXPECT_FALSE(Verifies(WithValue(View(value.data(), size)))) << size;
}

TEST_P(SignatureScheme, SignatureWithAnExtraByteIsRefused) {
    Bytes longer = _signature;
    longer.push_back(0);
    EXPECT_FALSE(Verifies(longer));
    Bytes value = Value();
    value.push_back(0);
    EXPECT_FALSE(Verifies(WithValue(value)));
}

TEST_P(SignatureScheme, SignatureUnderAnotherNameIsRefused) {
    for (char const* name : {"", "ssh-rsa", "ssh-dss", "rsa-sha2-512", "rsa-sha2-256", "ssh-ed25519",
                             "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384"}) {
        if (std::string(name) == GetParam().algorithm) continue;
        Bytes const renamed = Writer().String(name).String(Value()).Take();
        EXPECT_FALSE(Verifies(renamed)) << name;
    }
}

TEST_P(SignatureScheme, AlgorithmOfAnotherTypeOfKeyIsRefused) {
    for (char const* algorithm : {"ssh-ed25519", "ecdsa-sha2-nistp521", "rsa-sha2-512"}) {
        if (KeyTypeOf(_blob) == (std::string(algorithm) == "rsa-sha2-512" ? "ssh-rsa" : algorithm)) continue;
        Bytes const renamed = Writer().String(algorithm).String(Value()).Take();
        EXPECT_FALSE(Verify(algorithm, _blob, DATA, renamed)) << algorithm;
        ExpectError<InvalidArgument>("Sign", "the key is not one for the algorithm",
                                     [&] { standard::Sign(algorithm, _key, DATA); });
    }
}

TEST_P(SignatureScheme, KeyBlobSurvivesARoundTrip) {
    PkeyPtr const parsed = ParseKeyBlob(_blob);
    EXPECT_EQ(EVP_PKEY_eq(parsed.get(), _key), 1);
    EXPECT_EQ(MakeKeyBlob(parsed.get()), _blob);
    EXPECT_EQ(KeyTypeOf(_blob), GetParam().keyType);
}

TEST_P(SignatureScheme, KeyBlobCutAnywhereIsRefused) {
    for (std::size_t size = 0; size < _blob.size(); ++size)
        EXPECT_THROW(ParseKeyBlob(View(_blob.data(), size)), SshProtocolError) << size;
}

TEST_P(SignatureScheme, KeyBlobWithAnExtraByteIsRefused) {
    _blob.push_back(0);
    ExpectError<SshProtocolError>("key message has bytes after its last field", "",
                                  [&] { ParseKeyBlob(_blob); });
    EXPECT_THROW(Verifies(_signature), SshProtocolError);
}

/// With OpenSSH's tool on the other side.
class SignatureSchemeOfOpenSSH : public KeyFiles, public testing::WithParamInterface<Scheme> {
protected:
};

TEST_P(SignatureSchemeOfOpenSSH, AcceptsTheSignature) {
    EVP_PKEY* const key = KeyOf(GetParam().keyType);
    Bytes const sshsig = Writer()
                             .Fixed("SSHSIG")
                             .Int(1)
                             .String(MakeKeyBlob(key))
                             .String("file")
                             .String("")
                             .String("sha512")
                             .String(standard::Sign(GetParam().algorithm, key, SshsigData(DATA)))
                             .Take();
    std::string armour = "-----BEGIN SSH SIGNATURE-----\n";
    std::string const body = EncodeBase64(sshsig);
    for (std::size_t i = 0; i < body.size(); i += 70) armour += body.substr(i, 70) + "\n";
    Write("sig", armour + "-----END SSH SIGNATURE-----\n");
    Write("data", DATA);
    Run("ssh-keygen -Y check-novalidate -n file -s sig < data");
    Write("data", "other data");
    Run("! ssh-keygen -Y check-novalidate -n file -s sig < data");
}

TEST_P(SignatureSchemeOfOpenSSH, MakesSignaturesThatVerify) {
    Keygen("id", GetParam().keygenOptions);
    Write("data", DATA);
    Run("ssh-keygen -Y sign -n file -f id data");
    std::string armour = Read("data.sig");
    std::string body;
    for (std::size_t start = armour.find('\n') + 1, end;
         (end = armour.find('\n', start)) != std::string::npos; start = end + 1)
        if (armour[start] != '-') body += armour.substr(start, end - start);
    Bytes sshsig;
    ASSERT_TRUE(DecodeBase64(body, sshsig));
    Reader reader(sshsig, "SSHSIG");
    reader.Fixed(6);
    reader.Int();
    View const key = reader.String();
    for (int skipped = 0; skipped < 3; ++skipped) reader.String();
    View const signature = reader.String();
    reader.End();
    // ssh-keygen signs only with the stronger of the two RSA algorithms.
    std::string const algorithm = Reader(signature, "signature").String().Str();
    EXPECT_NE(algorithm, "rsa-sha2-256");
    EXPECT_TRUE(HasName(SignatureAlgorithmsOf(GetParam().keyType), algorithm));
    EXPECT_TRUE(Verify(algorithm, key, SshsigData(DATA), signature));
    EXPECT_FALSE(Verify(algorithm, key, SshsigData("other data"), signature));
    std::string const line = Read("id.pub");
    EXPECT_EQ(MakeKeyBlob(ParseKeyBlob(key).get()), key.Copy());
    EXPECT_NE(line.find(EncodeBase64(key)), std::string::npos);
}

constexpr Scheme SCHEMES[] = {
    {"ssh-ed25519", "ssh-ed25519", "-t ed25519"},
    {"ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256", "-t ecdsa -b 256"},
    {"ecdsa-sha2-nistp384", "ecdsa-sha2-nistp384", "-t ecdsa -b 384"},
    {"ecdsa-sha2-nistp521", "ecdsa-sha2-nistp521", "-t ecdsa -b 521"},
    {"rsa-sha2-512", "ssh-rsa", "-t rsa -b 2048"},
    {"rsa-sha2-256", "ssh-rsa", "-t rsa -b 2048"},
};

std::string Title(testing::TestParamInfo<Scheme> const& scheme) {
    std::string title;
    for (char c : std::string(scheme.param.algorithm)) title += c == '-' ? '_' : c;
    return title;
}

INSTANTIATE_TEST_SUITE_P(All, SignatureScheme, testing::ValuesIn(SCHEMES), Title);
INSTANTIATE_TEST_SUITE_P(All, SignatureSchemeOfOpenSSH, testing::ValuesIn(SCHEMES), Title);

std::string Last(Bytes const& bytes, std::size_t count) {
    return std::string(bytes.end() - static_cast<std::ptrdiff_t>(count), bytes.end());
}

TEST(Ed25519, SignsAsInRfc8032) {
    // Section 7.1, test 1.
    unsigned char const seed[] = {0x9d, 0x61, 0xb1, 0x9d, 0xef, 0xfd, 0x5a, 0x60, 0xba, 0x84, 0x4a,
                                  0xf4, 0x92, 0xec, 0x2c, 0xc4, 0x44, 0x49, 0xc5, 0x69, 0x7b, 0x32,
                                  0x69, 0x19, 0x70, 0x3b, 0xac, 0x03, 0x1c, 0xae, 0x7f, 0x60};
    PkeyPtr const key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof seed));
    EXPECT_EQ(ToHex(Last(MakeKeyBlob(key.get()), 32)),
              "d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a");
    EXPECT_EQ(ToHex(Last(standard::Sign("ssh-ed25519", key.get(), View()), 64)),
              "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e06522490155"
              "5fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24655141438e7a100b");
}

TEST(RsaSignature, IsAcceptedWithoutLeadingZerosButNotWithMore) {
    EVP_PKEY* const key = KeyOf("ssh-rsa");
    Bytes const blob = MakeKeyBlob(key);
    bool found = false;
    for (int tries = 0; tries < 10000 && !found; ++tries) {
        std::string const data = std::to_string(tries);
        Bytes const signature = standard::Sign("rsa-sha2-256", key, data);
        Reader reader(signature, "signature");
        reader.String();
        View const value = reader.String();
        ASSERT_EQ(value.size(), 256u);
        if (value[0] != 0) continue;
        found = true;
        auto const verifies = [&](View bytes) {
            return Verify("rsa-sha2-256", blob, data, Writer().String("rsa-sha2-256").String(bytes).Take());
        };
        EXPECT_TRUE(verifies(value));
        EXPECT_TRUE(verifies(View(value.data() + 1, value.size() - 1)));
        EXPECT_FALSE(verifies(View(value.data(), value.size() - 1)));
        EXPECT_FALSE(verifies(Writer().Byte(0).Fixed(value).Take()));
    }
    EXPECT_TRUE(found);
}

class EcdsaSignature : public testing::Test {
protected:
    bool Verifies(View r, View s) {
        Bytes const numbers = Writer().String(r).String(s).Take();
        return Verify(ALGORITHM, MakeKeyBlob(KeyOf(ALGORITHM)), DATA,
                      Writer().String(ALGORITHM).String(numbers).Take());
    }
    static constexpr char const* ALGORITHM = "ecdsa-sha2-nistp256";
};

TEST_F(EcdsaSignature, NumbersOutOfRangeAreRefused) {
    EVP_PKEY* const key = KeyOf(ALGORITHM);
    Bytes const signature = standard::Sign(ALGORITHM, key, DATA);
    Reader blob(signature, "signature");
    blob.String();
    Reader numbers(blob.String(), "numbers");
    View const r = numbers.Mpint();
    View const s = numbers.Mpint();
    ASSERT_TRUE(Verifies(r, s));
    EXPECT_FALSE(Verifies(s, r));
    for (Bytes const& bad :
         {Bytes(), Bytes{0}, Bytes{1}, Bytes{0x80}, Bytes(32, 0xff), Bytes(33), Bytes(5000, 1)}) {
        EXPECT_FALSE(Verifies(r, bad)) << bad.size();
        EXPECT_FALSE(Verifies(bad, s)) << bad.size();
        EXPECT_FALSE(Verifies(bad, bad)) << bad.size();
    }
}

TEST_F(EcdsaSignature, NumberWithoutItsSignByteIsRefused) {
    bool found = false;
    for (int tries = 0; tries < 200 && !found; ++tries) {
        Bytes const signature = standard::Sign(ALGORITHM, KeyOf(ALGORITHM), DATA);
        Reader blob(signature, "signature");
        blob.String();
        Reader numbers(blob.String(), "numbers");
        View const r = numbers.Mpint();
        View const s = numbers.Mpint();
        if (r.size() != 33) continue;
        found = true;
        EXPECT_TRUE(Verifies(r, s));
        EXPECT_FALSE(Verifies(View(r.data() + 1, 32), s));
    }
    EXPECT_TRUE(found);
}

// --- key blobs

void ExpectMalformed(Writer blob, char const* type) {
    ERR_clear_error();
    ExpectError<SshProtocolError>("malformed key", type, [&] { ParseKeyBlob(blob.Get()); });
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(KeyBlob, TypeIsItsFirstField) {
    EXPECT_EQ(KeyTypeOf(Writer().String("some-type").Int(1).Take()), "some-type");
    EXPECT_EQ(KeyTypeOf(Bytes{0, 0, 0, 9, 's'}), "");
    EXPECT_EQ(KeyTypeOf(Bytes{0, 0}), "");
    EXPECT_EQ(KeyTypeOf(View()), "");
}

TEST(KeyBlob, SignatureAlgorithmsFollowFromTheType) {
    EXPECT_EQ(SignatureAlgorithmsOf("ssh-rsa"), "rsa-sha2-512,rsa-sha2-256");
    EXPECT_EQ(SignatureAlgorithmsOf("ssh-ed25519"), "ssh-ed25519");
    EXPECT_EQ(SignatureAlgorithmsOf("ecdsa-sha2-nistp384"), "ecdsa-sha2-nistp384");
    for (char const* type : {"ssh-dss", "rsa-sha2-512", "sk-ssh-ed25519@openssh.com", ""})
        EXPECT_EQ(SignatureAlgorithmsOf(type), "") << type;
}

TEST(KeyBlob, UnsupportedTypesAreRefused) {
    for (char const* type : {"ssh-dss", "ssh-ed448", "rsa-sha2-256", "ssh-ed25519-cert-v01@openssh.com", ""})
        ExpectError<SshProtocolError>("key of a type that is not supported", "",
                                      [&] { ParseKeyBlob(Writer().String(type).String(Bytes(32)).Take()); });
}

TEST(KeyBlob, UnsupportedKeysGiveNone) {
    PkeyPtr const x25519(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"));
    PkeyPtr const otherCurve(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp256k1"));
    for (EVP_PKEY* key : {x25519.get(), otherCurve.get()})
        ExpectError<InvalidArgument>("MakeKeyBlob", "key of a type that is not supported",
                                     [&] { MakeKeyBlob(key); });
}

TEST(KeyBlob, Ed25519KeyHas32Bytes) {
    for (std::size_t size : {0u, 31u, 33u, 64u})
        ExpectMalformed(Writer().String("ssh-ed25519").String(Bytes(size, 1)), "ssh-ed25519");
}

class EcdsaBlob : public testing::TestWithParam<char const*> {
protected:
    EcdsaBlob() : _type(GetParam()), _curve(_type.substr(11)) {
        Reader reader(_blob, "key");
        for (int skipped = 0; skipped < 2; ++skipped) reader.String();
        _point = reader.String().Copy();
    }
    void ExpectRefused(View curve, View point) {
        ExpectMalformed(Writer().String(_type).String(curve).String(point), _type.c_str());
    }

    std::string _type;
    std::string _curve;
    Bytes _blob = MakeKeyBlob(KeyOf(GetParam()));
    Bytes _point;
};

TEST_P(EcdsaBlob, PointOffTheCurveIsRefused) {
    _point.back() = static_cast<unsigned char>(_point.back() ^ 1);
    ExpectRefused(_curve, _point);
    Bytes zero(_point.size());
    zero[0] = 4;
    ExpectRefused(_curve, zero);
}

TEST_P(EcdsaBlob, OnlyUncompressedPointsAreAccepted) {
    Bytes hybrid = _point;
    hybrid[0] = static_cast<unsigned char>(6 + (_point.back() & 1));
    ExpectRefused(_curve, hybrid);
    Bytes compressed(_point.begin(), _point.begin() + static_cast<std::ptrdiff_t>(1 + _point.size() / 2));
    compressed[0] = static_cast<unsigned char>(2 + (_point.back() & 1));
    ExpectRefused(_curve, compressed);
    ExpectRefused(_curve, Bytes{0});
    ExpectRefused(_curve, View());
}

TEST_P(EcdsaBlob, CurveOfAnotherTypeIsRefused) {
    for (char const* curve : {"", "nistp", "nistp224", "nistp256", "nistp384", "nistp521"})
        if (curve != _curve) ExpectRefused(curve, _point);
}

INSTANTIATE_TEST_SUITE_P(All, EcdsaBlob,
                         testing::Values("ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521"),
                         [](auto const& type) { return std::string(type.param).substr(11); });

class RsaBlob : public testing::Test {
protected:
    /// A modulus of that many bits; nothing here needs its factors.
    static Bytes Modulus(unsigned int bits) {
        Bytes modulus((bits + 7) / 8, 0x35);
        modulus[0] = static_cast<unsigned char>(1u << (bits - 1) % 8);
        return modulus;
    }
    static Writer Blob(View e, View n) { return Writer().String("ssh-rsa").Mpint(e).Mpint(n); }
    static Bytes const E;
};
Bytes const RsaBlob::E{1, 0, 1};

TEST_F(RsaBlob, ShortModulusIsRefusedWithItsSize) {
    for (unsigned int bits : {1u, 512u, 1024u, 2047u})
        ExpectError<SshProtocolError>("RSA key of " + std::to_string(bits) + " bits is shorter than 2048", "",
                                      [&] { ParseKeyBlob(Blob(E, Modulus(bits)).Get()); });
}

TEST_F(RsaBlob, ModulusOfTheSmallestAndLargestSizeIsAccepted) {
    for (unsigned int bits : {2048u, 4096u, 16384u})
        EXPECT_EQ(EVP_PKEY_get_bits(ParseKeyBlob(Blob(E, Modulus(bits)).Get()).get()),
                  static_cast<int>(bits));
}

TEST_F(RsaBlob, LongerModulusIsRefused) {
    for (unsigned int bits : {16385u, 16400u, 100000u}) ExpectMalformed(Blob(E, Modulus(bits)), "ssh-rsa");
}

TEST_F(RsaBlob, EvenModulusIsRefused) {
    Bytes modulus = Modulus(2048);
    modulus.back() = 0x34;
    ExpectMalformed(Blob(E, modulus), "ssh-rsa");
}

TEST_F(RsaBlob, InvalidExponentIsRefused) {
    for (Bytes const& e : {Bytes(), Bytes{1}, Bytes{2}, Modulus(2048), Modulus(2056)})
        ExpectMalformed(Blob(e, Modulus(2048)), "ssh-rsa");
}

TEST_F(RsaBlob, NegativeNumbersAreRefused) {
    Bytes negative = Modulus(2048);
    negative[0] = 0x80;
    ExpectMalformed(Writer().String("ssh-rsa").Mpint(E).String(negative), "ssh-rsa");
    ExpectMalformed(Writer().String("ssh-rsa").String(Bytes{0xff}).Mpint(Modulus(2048)), "ssh-rsa");
}

} // namespace
