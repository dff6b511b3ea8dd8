#include <functional>
#include <memory>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>

#include <brantle/cindral/exceptions.h>

#include "foundations/cindral/openssl_ptr.h"
#include "standard/algorithms.h"
#include "standard/key_agreement.h"
#include "support/expect_error.h"

using namespace cindral;
using namespace cindral::standard;
using support::ExpectError;

namespace {

using BnPtr = std::shared_ptr<BIGNUM>;
using GroupPtr = OpenSSLPtr<EC_GROUP, EC_GROUP_free>;
using PointPtr = OpenSSLPtr<EC_POINT, EC_POINT_free>;

constexpr char const* CURVE25519 = "curve25519-sha256";
constexpr char const* GROUP14 = "diffie-hellman-group14-sha256";
constexpr char const* GROUP_EXCHANGE = "diffie-hellman-group-exchange-sha256";
constexpr char const* INVALID_VALUE = "message holds an invalid public value";
constexpr char const* HOST_KEY = "host key blob";
constexpr char const* SIGNATURE = "signature blob";

BnPtr Own(BIGNUM* number) { return BnPtr(number, BN_free); }

BnPtr Number(unsigned long value) {
    BnPtr number = Own(BN_new());
    BN_set_word(number.get(), value);
    return number;
}

BnPtr FromBytes(View bytes) { return Own(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr)); }

/// number + added
BnPtr Sum(BnPtr const& number, int added) {
    BnPtr sum = Own(BN_dup(number.get()));
    if (added < 0)
        BN_sub_word(sum.get(), static_cast<BN_ULONG>(-added));
    else
        BN_add_word(sum.get(), static_cast<BN_ULONG>(added));
    return sum;
}

BnPtr Random(int bits) {
    BnPtr number = Own(BN_new());
    BN_rand(number.get(), bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
    return number;
}

BnPtr Power(BnPtr const& base, BnPtr const& exponent, BnPtr const& modulus) {
    BnPtr power = Own(BN_new());
    BnCtxPtr const context(BN_CTX_new());
    BN_mod_exp(power.get(), base.get(), exponent.get(), modulus.get(), context.get());
    return power;
}

/// With its length.
Bytes Mpint(BIGNUM const* number) {
    Bytes mpint(static_cast<std::size_t>(BN_bn2mpi(number, nullptr)));
    BN_bn2mpi(number, mpint.data());
    return mpint;
}
Bytes Mpint(BnPtr const& number) { return Mpint(number.get()); }

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes joined;
    for (Bytes const& part : parts) joined.insert(joined.end(), part.begin(), part.end());
    return joined;
}

Bytes String(View bytes) { return Writer().String(bytes).Take(); }
Bytes Number4(unsigned int value) { return Writer().Int(value).Take(); }

/// A reply; `value` is the server's public value, with its length.
Bytes Reply(int number, Bytes const& value) {
    return Join({{static_cast<unsigned char>(number)}, String(HOST_KEY), value, String(SIGNATURE)});
}

/// The server's half of a method, done another way. After Exchange() the fields hold what the client is to
/// have in the end.
class ModelServer {
public:
    virtual ~ModelServer() = default;
    /// Answers each message of the client up to the end.
    void Exchange(KeyAgreement& client) {
        for (Bytes message = client.Begin().Copy(); !message.empty();)
            message = client.Take(Answer(message)).Copy();
    }
    virtual Bytes Answer(Bytes const& message) = 0;

    Bytes _hashFields;
    Bytes _secret;
};

/// The key pair of RFC 7748, section 6.1, is Bob's.
class X25519Server : public ModelServer {
public:
    Bytes Answer(Bytes const& message) override {
        PkeyPtr const own(EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, PRIVATE, 32));
        Reader reader(message, "init");
        EXPECT_EQ(reader.Byte(), 30);
        View const client = reader.String();
        reader.End();
        EXPECT_EQ(client.size(), 32u);
        PkeyPtr const peer(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, client.data(), 32));
        PkeyCtxPtr const context(EVP_PKEY_CTX_new(own.get(), nullptr));
        unsigned char raw[32];
        std::size_t size = sizeof raw;
        EXPECT_EQ(EVP_PKEY_derive_init(context.get()), 1);
        EXPECT_EQ(EVP_PKEY_derive_set_peer(context.get(), peer.get()), 1);
        EXPECT_EQ(EVP_PKEY_derive(context.get(), raw, &size), 1);
        _firstByte = raw[0];
        _secret = Mpint(FromBytes(View(raw, 32)));
        _hashFields = Join({String(client), String(View(PUBLIC, 32))});
        return Reply(31, String(View(PUBLIC, 32)));
    }

    unsigned char _firstByte = 0;

private:
    static constexpr unsigned char PRIVATE[] = {
        0x5d, 0xab, 0x08, 0x7e, 0x62, 0x4a, 0x8a, 0x4b, 0x79, 0xe1, 0x7f, 0x8b, 0x83, 0x80, 0x0e, 0xe6,
        0x6f, 0x3b, 0xb1, 0x29, 0x26, 0x18, 0xb6, 0xfd, 0x1c, 0x2f, 0x8b, 0x27, 0xff, 0x88, 0xe0, 0xeb};
    static constexpr unsigned char PUBLIC[] = {
        0xde, 0x9e, 0xdb, 0x7d, 0x7b, 0x7d, 0xc1, 0xb4, 0xd3, 0x5b, 0x61, 0xc2, 0xec, 0xe4, 0x35, 0x37,
        0x3f, 0x83, 0x43, 0xc8, 0x5b, 0x78, 0x67, 0x4d, 0xad, 0xfc, 0x7e, 0x14, 0x6f, 0x88, 0x2b, 0x4f};
};

class EcdhServer : public ModelServer {
public:
    explicit EcdhServer(int curve) : _curve(EC_GROUP_new_by_curve_name(curve)) {}

    Bytes Answer(Bytes const& message) override {
        Reader reader(message, "init");
        EXPECT_EQ(reader.Byte(), 30);
        View const client = reader.String();
        reader.End();
        PointPtr const peer(EC_POINT_new(_curve.get()));
        EXPECT_EQ(EC_POINT_oct2point(_curve.get(), peer.get(), client.data(), client.size(), nullptr), 1);
        EXPECT_EQ(client[0], 4);
        BnPtr const exponent = Random(250);
        PointPtr const product(EC_POINT_new(_curve.get()));
        BnPtr const x = Own(BN_new());
        EC_POINT_mul(_curve.get(), product.get(), nullptr, peer.get(), exponent.get(), nullptr);
        EC_POINT_get_affine_coordinates(_curve.get(), product.get(), x.get(), nullptr, nullptr);
        _secret = Mpint(x);
        Bytes const own = Public(exponent, POINT_CONVERSION_UNCOMPRESSED);
        _hashFields = Join({String(client), String(own)});
        return Reply(31, String(own));
    }
    Bytes Public(BnPtr const& exponent, point_conversion_form_t form) {
        PointPtr const point(EC_POINT_new(_curve.get()));
        EC_POINT_mul(_curve.get(), point.get(), exponent.get(), nullptr, nullptr, nullptr);
        Bytes octets(EC_POINT_point2oct(_curve.get(), point.get(), form, nullptr, 0, nullptr));
        EC_POINT_point2oct(_curve.get(), point.get(), form, octets.data(), octets.size(), nullptr);
        return octets;
    }

private:
    GroupPtr _curve;
};

class GroupServer : public ModelServer {
public:
    explicit GroupServer(BIGNUM* p) : GroupServer(Own(p), Number(2)) {}
    GroupServer(BnPtr p, BnPtr g, bool isChosen = false)
        : _p(std::move(p)), _g(std::move(g)), _isChosen(isChosen) {}

    Bytes Group() const { return Join({{31}, Mpint(_p), Mpint(_g)}); }
    Bytes Answer(Bytes const& message) override {
        if (!message.empty() && message[0] == 34) return Group();
        Reader reader(message, "init");
        EXPECT_EQ(reader.Byte(), _isChosen ? 32 : 30);
        BnPtr const e = FromBytes(reader.Mpint());
        reader.End();
        BnPtr const y = Random(300);
        BnPtr const f = Power(_g, y, _p);
        _secret = Mpint(Power(e, y, _p));
        _hashFields = Join({Mpint(e), Mpint(f)});
        if (_isChosen)
            _hashFields =
                Join({Number4(2048), Number4(3072), Number4(8192), Mpint(_p), Mpint(_g), _hashFields});
        return Reply(_isChosen ? 33 : 31, Mpint(f));
    }

    BnPtr const _p;
    BnPtr const _g;

private:
    bool _isChosen;
};

struct Method {
    char const* name;
    char const* digest;
    char const* replyName; ///< of the last message
    std::function<std::unique_ptr<ModelServer>()> makeServer;
};

std::ostream& operator<<(std::ostream& out, Method const& method) { return out << method.name; }

template <class Server, class... Args>
std::function<std::unique_ptr<ModelServer>()> Maker(Args... args) {
    return [=] { return std::make_unique<Server>(args...); };
}

std::vector<Method> Methods() {
    return {
        {CURVE25519, "SHA256", "KEX_ECDH_REPLY", Maker<X25519Server>()},
        {"curve25519-sha256@libssh.org", "SHA256", "KEX_ECDH_REPLY", Maker<X25519Server>()},
        {"ecdh-sha2-nistp256", "SHA256", "KEX_ECDH_REPLY", Maker<EcdhServer>(NID_X9_62_prime256v1)},
        {"ecdh-sha2-nistp384", "SHA384", "KEX_ECDH_REPLY", Maker<EcdhServer>(NID_secp384r1)},
        {"ecdh-sha2-nistp521", "SHA512", "KEX_ECDH_REPLY", Maker<EcdhServer>(NID_secp521r1)},
        {GROUP14, "SHA256", "KEXDH_REPLY",
         [] { return std::make_unique<GroupServer>(BN_get_rfc3526_prime_2048(nullptr)); }},
        {"diffie-hellman-group16-sha512", "SHA512", "KEXDH_REPLY",
         [] { return std::make_unique<GroupServer>(BN_get_rfc3526_prime_4096(nullptr)); }},
        {GROUP_EXCHANGE, "SHA256", "KEX_DH_GEX_REPLY",
         [] {
             return std::make_unique<GroupServer>(Own(BN_get_rfc3526_prime_3072(nullptr)), Number(2), true);
         }},
    };
}

/// A client and its server just before the last reply, which `_reply` is.
class KeyAgreementMethod : public testing::TestWithParam<Method> {
protected:
    KeyAgreementMethod() : _client(KeyAgreement::Create(GetParam().name)), _server(GetParam().makeServer()) {
        Bytes message = _client->Begin().Copy();
        if (message[0] == 34) message = _client->Take(_server->Answer(message)).Copy();
        _reply = _server->Answer(message);
    }
    void ExpectRefused(Bytes const& message, char const* what) {
        ExpectError<SshProtocolError>(std::string(GetParam().replyName) + " message " + what, "",
                                      [&] { _client->Take(message); });
        EXPECT_FALSE(_client->IsFinished());
    }

    std::unique_ptr<KeyAgreement> _client;
    std::unique_ptr<ModelServer> _server;
    Bytes _reply;
};

TEST_P(KeyAgreementMethod, AgreesWithTheServer) {
    EXPECT_TRUE(_client->Take(_reply).empty());
    ASSERT_TRUE(_client->IsFinished());
    EXPECT_STREQ(_client->Digest(), GetParam().digest);
    EXPECT_EQ(_client->HostKey(), View(HOST_KEY));
    EXPECT_EQ(_client->Signature(), View(SIGNATURE));
    EXPECT_EQ(_client->HashFields(), View(_server->_hashFields));
    EXPECT_EQ(View(_client->SharedSecret()), View(_server->_secret));
}

TEST_P(KeyAgreementMethod, EachExchangeHasItsOwnKey) {
    std::unique_ptr<KeyAgreement> const other = KeyAgreement::Create(GetParam().name);
    std::unique_ptr<ModelServer> const server = GetParam().makeServer();
    server->Exchange(*other);
    _client->Take(_reply);
    EXPECT_NE(_client->HashFields(), other->HashFields());
    EXPECT_NE(_client->SharedSecret(), other->SharedSecret());
}

TEST_P(KeyAgreementMethod, NothingIsFinishedBeforeTheReply) {
    EXPECT_FALSE(_client->IsFinished());
    EXPECT_TRUE(_client->SharedSecret().empty());
    EXPECT_TRUE(_client->HostKey().empty());
}

TEST_P(KeyAgreementMethod, ReplyCutAnywhereIsRefused) {
    for (std::size_t size = 0; size < _reply.size(); ++size)
        ExpectRefused(Bytes(_reply.begin(), _reply.begin() + static_cast<std::ptrdiff_t>(size)),
                      "ends too early");
    EXPECT_TRUE(_client->Take(_reply).empty()); // none of them has changed anything
}

TEST_P(KeyAgreementMethod, ReplyWithAnExtraByteIsRefused) {
    _reply.push_back(0);
    ExpectRefused(_reply, "has bytes after its last field");
}

TEST_P(KeyAgreementMethod, ReplyOfAnotherNumberIsRefused) {
    int const due = _reply[0];
    for (int number = 0; number < 256; ++number) {
        if (number == due) continue;
        _reply[0] = static_cast<unsigned char>(number);
        ExpectError<SshProtocolError>(std::string("expected ") + GetParam().replyName + " message",
                                      std::to_string(number), [&] { _client->Take(_reply); });
    }
}

TEST_P(KeyAgreementMethod, ReplyAfterTheEndIsRefused) {
    _client->Take(_reply);
    ExpectError<SshProtocolError>("message after the end of the key exchange method",
                                  std::to_string(_reply[0]), [&] { _client->Take(_reply); });
}

TEST_P(KeyAgreementMethod, RefusalLeavesNoErrorInTheQueueOfTheLibrary) {
    ERR_clear_error();
    Bytes const empty = Reply(_reply[0], String(View()));
    EXPECT_THROW(_client->Take(empty), SshProtocolError);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

std::string Title(testing::TestParamInfo<Method> const& info) {
    std::string title;
    for (char c : std::string(info.param.name))
        title += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return title;
}

INSTANTIATE_TEST_SUITE_P(All, KeyAgreementMethod, testing::ValuesIn(Methods()), Title);

TEST(KeyAgreementNames, CoverEveryKeyExchangeOffered) {
    for (std::string const& name : SplitNames(DefaultAlgorithms(AlgorithmKind::KEX)))
        EXPECT_STREQ(KeyAgreement::Create(name)->Digest(), FindKex(name).digest);
    ExpectError<InvalidArgument>("algorithm not supported", "diffie-hellman-group1-sha1",
                                 [] { KeyAgreement::Create("diffie-hellman-group1-sha1"); });
}

/// Expects that the reply of that name with such a public value, with its length, is refused.
void ExpectValueRefused(char const* method, char const* replyName, Bytes const& value,
                        std::string const& what = INVALID_VALUE) {
    auto const client = KeyAgreement::Create(method);
    client->Begin();
    ExpectError<SshProtocolError>(std::string(replyName) + " " + what, "",
                                  [&] { client->Take(Reply(31, value)); });
    EXPECT_FALSE(client->IsFinished());
    EXPECT_TRUE(client->SharedSecret().empty());
    EXPECT_EQ(ERR_peek_error(), 0u);
}

Bytes FromHex(std::string const& digits) {
    BIGNUM* number = nullptr;
    BN_hex2bn(&number, digits.c_str());
    BnPtr const owned = Own(number);
    Bytes bytes(digits.size() / 2);
    BN_bn2binpad(number, bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
}

TEST(Curve25519, PointsOfSmallOrderAreRefused) {
    for (char const* point : {
             "0000000000000000000000000000000000000000000000000000000000000000",
             "0100000000000000000000000000000000000000000000000000000000000000",
             "e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800",
             "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f1157",
             "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
             "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
             "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
             "0000000000000000000000000000000000000000000000000000000000000080",
         }) {
        SCOPED_TRACE(point);
        ExpectValueRefused(CURVE25519, "KEX_ECDH_REPLY", String(FromHex(point)));
    }
}

TEST(Curve25519, PublicValueHas32Bytes) {
    for (std::size_t size : {0u, 1u, 31u, 33u, 64u, 65u}) {
        SCOPED_TRACE(size);
        ExpectValueRefused(CURVE25519, "KEX_ECDH_REPLY", String(Bytes(size, 9)));
    }
}

TEST(Curve25519, SecretIsANumberWithoutLeadingZerosAndNeverNegative) {
    bool high = false, zero = false;
    for (int tries = 0; tries < 20000 && !(high && zero); ++tries) {
        auto const client = KeyAgreement::Create(CURVE25519);
        X25519Server server;
        server.Exchange(*client);
        ASSERT_EQ(View(client->SharedSecret()), View(server._secret));
        if (server._firstByte >= 0x80) {
            high = true;
            EXPECT_EQ(server._secret.size(), 4u + 33);
        }
        if (server._firstByte == 0) {
            zero = true;
            EXPECT_LT(server._secret.size(), 4u + 33);
        }
    }
    EXPECT_TRUE(high);
    EXPECT_TRUE(zero);
}

struct Curve {
    char const* name;
    int nid;
};

std::ostream& operator<<(std::ostream& out, Curve const& curve) { return out << curve.name; }

class NistCurve : public testing::TestWithParam<Curve> {
protected:
    void ExpectPointRefused(Bytes const& point) const {
        ExpectValueRefused(GetParam().name, "KEX_ECDH_REPLY", String(point));
    }

    EcdhServer _server{GetParam().nid};
};

TEST_P(NistCurve, PointsOffTheCurveAreRefused) {
    Bytes const point = _server.Public(Number(12345), POINT_CONVERSION_UNCOMPRESSED);
    for (std::size_t i : {std::size_t(1), point.size() / 2, point.size() / 2 + 1, point.size() - 1}) {
        Bytes off = point;
        off[i] = static_cast<unsigned char>(off[i] ^ 1);
        ExpectPointRefused(off);
    }
    Bytes zero(point.size());
    zero[0] = 4;
    ExpectPointRefused(zero);
    ExpectPointRefused(Join({{4}, Bytes(point.size() - 1, 0xff)}));
}

TEST_P(NistCurve, PointAtInfinityIsRefused) {
    ExpectPointRefused({0});
    ExpectPointRefused(Bytes(_server.Public(Number(1), POINT_CONVERSION_UNCOMPRESSED).size()));
}

TEST_P(NistCurve, OnlyUncompressedPointsAreAccepted) {
    ExpectPointRefused(_server.Public(Number(12345), POINT_CONVERSION_COMPRESSED));
    ExpectPointRefused(_server.Public(Number(12345), POINT_CONVERSION_HYBRID));
}

TEST_P(NistCurve, PointsOfAnotherSizeAreRefused) {
    Bytes point = _server.Public(Number(12345), POINT_CONVERSION_UNCOMPRESSED);
    ExpectPointRefused(Join({point, {0}}));
    point.pop_back();
    ExpectPointRefused(point);
    ExpectPointRefused({});
    int const other = GetParam().nid == NID_secp384r1 ? NID_X9_62_prime256v1 : NID_secp384r1;
    ExpectPointRefused(EcdhServer(other).Public(Number(1), POINT_CONVERSION_UNCOMPRESSED));
}

INSTANTIATE_TEST_SUITE_P(All, NistCurve,
                         testing::Values(Curve{"ecdh-sha2-nistp256", NID_X9_62_prime256v1},
                                         Curve{"ecdh-sha2-nistp384", NID_secp384r1},
                                         Curve{"ecdh-sha2-nistp521", NID_secp521r1}),
                         [](auto const& curve) { return "P" + std::string(curve.param.name).substr(15); });

TEST(FixedDhGroup, PublicValueOutsideTheRangeIsRefused) {
    BnPtr const p = Own(BN_get_rfc3526_prime_2048(nullptr));
    auto const expectRefused = [](Bytes const& value) { ExpectValueRefused(GROUP14, "KEXDH_REPLY", value); };
    expectRefused(Mpint(Number(0)));
    expectRefused(Mpint(Number(1)));
    expectRefused(Mpint(Sum(p, -1)));
    expectRefused(Mpint(p));
    expectRefused(Mpint(Sum(p, 1)));
    expectRefused(String(Join({{1}, Bytes(300)})));
    expectRefused(String(Join({{1}, Bytes(30000)})));
}

TEST(FixedDhGroup, NegativePublicValueIsRefused) {
    ExpectValueRefused(GROUP14, "KEXDH_REPLY", String(Bytes{0x80}), "message holds a negative number");
    ExpectValueRefused(GROUP14, "KEXDH_REPLY", String(Bytes(256, 0xff)), "message holds a negative number");
}

TEST(FixedDhGroup, FirstAndLastPublicValueOfTheRangeAreAccepted) {
    BnPtr const p = Own(BN_get_rfc3526_prime_2048(nullptr));
    for (BnPtr const& f : {Number(2), Sum(p, -2)}) {
        auto const client = KeyAgreement::Create(GROUP14);
        client->Begin();
        client->Take(Reply(31, Mpint(f)));
        EXPECT_TRUE(client->IsFinished());
    }
}

TEST(FixedDhGroup, PublicValueWithLeadingZerosIsHashedWithoutThem) {
    auto const client = KeyAgreement::Create(GROUP14);
    Bytes const init = client->Begin().Copy();
    client->Take(Reply(31, String(Bytes{0, 0, 0, 5})));
    EXPECT_EQ(client->HashFields(), View(Join({Bytes(init.begin() + 1, init.end()), Mpint(Number(5))})));
}

class GroupExchange : public testing::Test {
protected:
    GroupExchange() : _client(KeyAgreement::Create(GROUP_EXCHANGE)), _request(_client->Begin().Copy()) {}

    void ExpectGroupRefused(BnPtr const& p, BnPtr const& g, std::string const& what) {
        ExpectError<SshProtocolError>("KEX_DH_GEX_GROUP message " + what, "",
                                      [&] { _client->Take(Join({{31}, Mpint(p), Mpint(g)})); });
    }
    static constexpr char const* BAD_SIZE = "holds a modulus of a size not asked for";

    std::unique_ptr<KeyAgreement> _client;
    Bytes _request;
};

TEST_F(GroupExchange, AsksForAtLeast2048BitsAndPrefers3072) {
    EXPECT_EQ(_request, (Bytes{34, 0, 0, 8, 0, 0, 0, 12, 0, 0, 0, 32, 0}));
}

TEST_F(GroupExchange, AcceptsGroupsOfTheSmallestAndLargestSize) {
    for (int bits : {2048, 8192}) {
        GroupServer server(Random(bits), Number(5), true);
        auto const client = KeyAgreement::Create(GROUP_EXCHANGE);
        server.Exchange(*client);
        EXPECT_EQ(View(client->SharedSecret()), View(server._secret)) << bits;
        EXPECT_EQ(client->HashFields(), View(server._hashFields)) << bits;
    }
}

TEST_F(GroupExchange, AcceptsAGroupThatHasAName) {
    GroupServer server(Own(BN_get_rfc3526_prime_8192(nullptr)), Number(2), true);
    server.Exchange(*_client);
    EXPECT_EQ(View(_client->SharedSecret()), View(server._secret));
}

TEST_F(GroupExchange, ModulusOutsideTheSizesAskedForIsRefused) {
    for (int bits : {1, 1024, 2047, 8193, 16384}) {
        SCOPED_TRACE(bits);
        ExpectGroupRefused(Random(bits), Number(2), BAD_SIZE);
    }
    ExpectGroupRefused(Number(0), Number(2), BAD_SIZE);
}

TEST_F(GroupExchange, EvenModulusIsRefused) {
    ExpectGroupRefused(Sum(Random(2048), -1), Number(2), "holds an even modulus");
}

TEST_F(GroupExchange, GeneratorOutsideTheRangeIsRefused) {
    BnPtr const p = Random(2048);
    for (BnPtr const& g : {Number(0), Number(1), Sum(p, -1), p, Sum(p, 1)})
        ExpectGroupRefused(p, g, "holds an invalid generator");
}

TEST_F(GroupExchange, LastGeneratorOfTheRangeIsAccepted) {
    BnPtr p = Random(2048);
    BnPtr g = Sum(p, -2);
    GroupServer server(std::move(p), std::move(g), true);
    server.Exchange(*_client);
    EXPECT_EQ(View(_client->SharedSecret()), View(server._secret));
}

TEST_F(GroupExchange, NegativeNumbersAreRefused) {
    Bytes const negative = String(Bytes(256, 0x80));
    BnPtr const p = Random(2048);
    for (Bytes const& group : {Join({{31}, negative, Mpint(Number(2))}), Join({{31}, Mpint(p), negative})})
        ExpectError<SshProtocolError>("KEX_DH_GEX_GROUP message holds a negative number", "",
                                      [&] { _client->Take(group); });
}

TEST_F(GroupExchange, GroupCutAnywhereIsRefused) {
    Bytes const group = GroupServer(Random(2048), Number(2), true).Group();
    for (std::size_t size = 0; size < group.size(); ++size)
        ExpectError<SshProtocolError>("KEX_DH_GEX_GROUP message ends too early", "",
                                      [&] { _client->Take(View(group.data(), size)); });
    ExpectError<SshProtocolError>("KEX_DH_GEX_GROUP message has bytes after its last field", "",
                                  [&] { _client->Take(Join({group, {0}})); });
}

TEST_F(GroupExchange, MessagesOutOfOrderAreRefused) {
    ExpectError<SshProtocolError>("expected KEX_DH_GEX_GROUP message", "33",
                                  [&] { _client->Take(Reply(33, Mpint(Number(5)))); });
    Bytes const group = GroupServer(Random(2048), Number(2), true).Group();
    _client->Take(group);
    ExpectError<SshProtocolError>("expected KEX_DH_GEX_REPLY message", "31", [&] { _client->Take(group); });
}

TEST_F(GroupExchange, PublicValueOutsideTheRangeIsRefused) {
    BnPtr const p = Random(2048);
    _client->Take(Join({{31}, Mpint(p), Mpint(Number(2))}));
    for (BnPtr const& f : {Number(0), Number(1), Sum(p, -1), p})
        ExpectError<SshProtocolError>("KEX_DH_GEX_REPLY message holds an invalid public value", "",
                                      [&] { _client->Take(Reply(33, Mpint(f))); });
}

} // namespace
