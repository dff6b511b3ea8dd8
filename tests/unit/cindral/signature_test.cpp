#include <brantle/cindral/signature.h>

#include "hex.h"
#include "key_files.h"

using namespace cindral;

namespace {

constexpr char const* DATA = "what is signed";

class Signatures : public KeyFiles {
protected:
    /// Reads the key pair of that name and those options into `_private` and `_public`.
    void MakeKey(std::string const& options, std::string const& name = "id") {
        Run("rm -f " + name + " " + name + ".pub");
        Keygen(name, options);
        ScriptedAnswers none(0, {});
        ASSERT_EQ(_private.Read(Path(name).c_str(), none), 0);
        ASSERT_EQ(_public.ReadSSH(Path(name + ".pub").c_str()), 0);
    }
    Signature Signed(KeyType type) {
        Signature signature(type);
        EXPECT_EQ(signature.Sign(Bytes(DATA), DIGEST_SHA1, _private), 0);
        return signature;
    }
    int Verify(ByteString const& blob) { return Signature(blob).Verify(Bytes(DATA), DIGEST_SHA1, _public); }
    static std::string StringField(std::string const& text) {
        std::string field(3, '\0');
        field += static_cast<char>(text.size());
        return field + text;
    }
    /// What comes after the name of a blob and the length of the value.
    static std::string Value(ByteString const& blob) { return Text(blob.SubStr(4 + 7 + 4, ~0u)); }
    /// Whether the openssl program accepts a signature by "id" over the data.
    bool OpensslVerifies(std::string const& raw) {
        Write("data", DATA);
        Write("raw", raw);
        Run("ssh-keygen -p -q -m PEM -N '' -f id && openssl pkey -in id -pubout -out pem");
        return std::system(("cd '" + _directory.Path().string() +
                            "' && openssl dgst -sha1 -verify pem -signature raw data >/dev/null 2>&1")
                               .c_str()) == 0;
    }
    /// An ASN.1 integer out of 20 bytes.
    static std::string DerInteger(std::string bytes) {
        while (bytes.size() > 1 && bytes[0] == 0) bytes.erase(0, 1);
        if (bytes[0] & 0x80) bytes.insert(bytes.begin(), '\0');
        return std::string{'\x02', static_cast<char>(bytes.size())} + bytes;
    }

    PrivateKey _private;
    PublicKey _public;
};

TEST_F(Signatures, RsaSignatureIsVerifiedByOpenSsl) {
    MakeKey("-t rsa -b 2048");
    ByteString const blob = Signed(KEY_RSA)._rep->Encode();
    EXPECT_EQ(ToHex(blob.SubStr(0, 15)), "00000007"
                                         "7373682d727361"
                                         "00000100");
    EXPECT_EQ(blob.Length(), 15u + 256u);
    EXPECT_TRUE(OpensslVerifies(Value(blob)));
}

TEST_F(Signatures, DsaSignatureIsVerifiedByOpenSsl) {
    MakeKey("-t dsa");
    ByteString const blob = Signed(KEY_DSA)._rep->Encode();
    EXPECT_EQ(ToHex(blob.SubStr(0, 15)), "00000007"
                                         "7373682d647373"
                                         "00000028");
    ASSERT_EQ(blob.Length(), 15u + 40u);
    std::string const numbers = DerInteger(Value(blob).substr(0, 20)) + DerInteger(Value(blob).substr(20));
    EXPECT_TRUE(OpensslVerifies(std::string{'\x30', static_cast<char>(numbers.size())} + numbers));
}

TEST_F(Signatures, OpenSslSignatureIsVerified) {
    MakeKey("-t rsa -b 1024 -m PEM");
    Write("data", DATA);
    Run("openssl dgst -sha1 -sign id -out raw data");
    std::string const blob = StringField("ssh-rsa") + std::string("\0\0\0\x80", 4) + Read("raw");
    EXPECT_EQ(Verify(Bytes(blob)), 1);
}

TEST_F(Signatures, DifferentDataOrKeyFails) {
    for (auto const& [type, options] : {std::pair{KEY_RSA, "-t rsa -b 1024"}, std::pair{KEY_DSA, "-t dsa"}}) {
        MakeKey(options);
        Signature signature = Signed(type);
        EXPECT_EQ(signature.Verify(Bytes(DATA), DIGEST_SHA1, _public), 1);
        EXPECT_NE(signature.Verify(Bytes("other data"), DIGEST_SHA1, _public), 1);
        EXPECT_NE(signature.Verify(ByteString(), DIGEST_SHA1, _public), 1);
        EXPECT_NE(signature.Verify(Bytes(DATA), DIGEST_SHA1, PublicKey()), 1);
        MakeKey(options, "other");
        EXPECT_NE(signature.Verify(Bytes(DATA), DIGEST_SHA1, _public), 1);
    }
}

TEST_F(Signatures, EveryDamagedByteFails) {
    for (auto const& [type, options] : {std::pair{KEY_RSA, "-t rsa -b 1024"}, std::pair{KEY_DSA, "-t dsa"}}) {
        MakeKey(options);
        ByteString const blob = Signed(type)._rep->Encode();
        ASSERT_EQ(Verify(blob), 1);
        for (unsigned int i = 0; i < blob.Length(); ++i) {
            ByteString damaged(blob.Data(), blob.Length());
            damaged.Data()[i] ^= 1;
            EXPECT_NE(Verify(damaged), 1) << i;
        }
        for (unsigned int length = 0; length < blob.Length(); ++length)
            EXPECT_NE(Verify(ByteString(blob.Data(), length)), 1) << length;
        EXPECT_NE(Verify(Bytes(Text(blob) + "x")), 1);
    }
}

TEST_F(Signatures, RsaValueWithoutLeadingZerosIsVerified) {
    MakeKey("-t rsa -b 1024");
    // One signature in 256 begins with a zero byte; data is varied until one does.
    for (int i = 0; i < 20000; ++i) {
        ByteString const data = Bytes(std::to_string(i));
        Signature signature(KEY_RSA);
        ASSERT_EQ(signature.Sign(data, DIGEST_SHA1, _private), 0);
        std::string const value = Value(signature._rep->Encode());
        if (value[0] != 0) continue;
        std::string const blob = StringField("ssh-rsa") + std::string("\0\0\0\x7f", 4) + value.substr(1);
        EXPECT_EQ(Signature(Bytes(blob)).Verify(data, DIGEST_SHA1, _public), 1);
        return;
    }
    FAIL() << "no signature with a leading zero";
}

TEST_F(Signatures, KeyOfAnotherTypeIsRefused) {
    MakeKey("-t rsa -b 1024");
    PublicKey const rsa(_public);
    Signature wrong(KEY_DSA);
    EXPECT_LT(wrong.Sign(Bytes(DATA), DIGEST_SHA1, _private), 0);
    EXPECT_EQ(wrong._rep->Encode().Length(), 0u);
    MakeKey("-t dsa");
    EXPECT_NE(Signed(KEY_DSA).Verify(Bytes(DATA), DIGEST_SHA1, rsa), 1);
}

TEST_F(Signatures, SigningWithoutAKeyFails) {
    Signature signature(KEY_RSA);
    EXPECT_LT(signature.Sign(Bytes(DATA), DIGEST_SHA1, PrivateKey()), 0);
    MakeKey("-t rsa -b 1024");
    EXPECT_LT(signature.Sign(Bytes(DATA), static_cast<DigestType>(1), _private), 0);
    EXPECT_NE(signature.Verify(Bytes(DATA), DIGEST_SHA1, _public), 1);
    EXPECT_NE(Signed(KEY_RSA).Verify(Bytes(DATA), static_cast<DigestType>(1), _public), 1);
}

TEST_F(Signatures, DsaSubgroupThatDoesNotFitTheFormatIsRefused) {
    Run("openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024 -pkeyopt "
        "dsa_paramgen_q_bits:256 "
        "-out params && openssl genpkey -paramfile params -out id");
    ScriptedAnswers none(0, {});
    ASSERT_EQ(_private.Read(Path("id").c_str(), none), 0);
    Signature signature(KEY_DSA);
    EXPECT_LT(signature.Sign(Bytes(DATA), DIGEST_SHA1, _private), 0);
}

TEST_F(Signatures, DecodeStoresABlobOfItsType) {
    MakeKey("-t rsa -b 1024");
    ByteString const blob = Signed(KEY_RSA)._rep->Encode();
    Signature signature(KEY_RSA);
    EXPECT_EQ(signature._rep->Encode().Length(), 0u);
    ASSERT_EQ(signature._rep->Decode(blob, DIGEST_SHA1), 0);
    EXPECT_EQ(ToHex(signature._rep->Encode()), ToHex(blob));
    EXPECT_EQ(signature.Verify(Bytes(DATA), DIGEST_SHA1, _public), 1);
}

TEST_F(Signatures, DecodeRefusesOtherTypesAndMalformedBlobs) {
    ByteString const rsa = FromHex("00000007 7373682d727361 00000001 05");
    for (char const* hex : {
             "", "00", "00000007 7373682d727361",             // cut
             "00000007 7373682d727361 00000002 05",           // cut value
             "00000007 7373682d727361 00000001 05 00",        // a byte after the end
             "00000007 7373682d727361 00000000",              // no value
             "0000000c 7273612d736861322d323536 00000001 05", // another digest
             "00000007 7373682d647373 00000001 05",           // another type, and too short for it
         }) {
        Signature signature(KEY_RSA);
        ASSERT_EQ(signature._rep->Decode(rsa, DIGEST_SHA1), 0);
        EXPECT_LT(signature._rep->Decode(FromHex(hex), DIGEST_SHA1), 0) << hex;
        EXPECT_EQ(ToHex(signature._rep->Encode()), ToHex(rsa));
    }
    Signature dss(KEY_DSA);
    EXPECT_LT(dss._rep->Decode(rsa, DIGEST_SHA1), 0);
    Signature otherDigest(KEY_RSA);
    EXPECT_LT(otherDigest._rep->Decode(rsa, static_cast<DigestType>(4)), 0);
}

TEST_F(Signatures, DssValueHas40Bytes) {
    std::string const front = "00000007 7373682d647373 000000";
    EXPECT_EQ(Signature(KEY_DSA)._rep->Decode(FromHex(front + "28" + std::string(80, '1')), DIGEST_SHA1), 0);
    EXPECT_LT(Signature(KEY_DSA)._rep->Decode(FromHex(front + "27" + std::string(78, '1')), DIGEST_SHA1), 0);
    EXPECT_LT(Signature(KEY_DSA)._rep->Decode(FromHex(front + "29" + std::string(82, '1')), DIGEST_SHA1), 0);
}

TEST_F(Signatures, CopiesAreIndependent) {
    Signature const first(FromHex("00000007 7373682d727361 00000001 05"));
    Signature second(first);
    ASSERT_EQ(second._rep->Decode(FromHex("00000007 7373682d727361 00000001 06"), DIGEST_SHA1), 0);
    EXPECT_NE(ToHex(first._rep->Encode()), ToHex(second._rep->Encode()));
    second = first;
    EXPECT_EQ(ToHex(first._rep->Encode()), ToHex(second._rep->Encode()));
}

} // namespace
