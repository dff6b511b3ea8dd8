#include <brantle/cindral/public_key.h>

#include <cerrno>

#include "hex.h"
#include "key_files.h"

using namespace cindral;

namespace {

/// ssh-rsa with e = 3 and n = 0x00c1: small, but well-formed.
constexpr char const* SMALL_RSA = "00000007 7373682d727361 00000001 03 00000002 00c1";
/// ssh-dss with p = 0x17, q = 0x0b, g = 2, y = 8.
constexpr char const* SMALL_DSS = "00000007 7373682d647373 00000001 17 00000001 0b 00000001 02 00000001 08";

class PublicKeyFile : public KeyFiles {
protected:
    /// The second word of the file.
    std::string Base64(std::string const& name) const {
        std::istringstream in(Read(name));
        std::string algorithm, blob;
        in >> algorithm >> blob;
        return blob;
    }
    int ReadText(std::string const& text) {
        Write("text", text);
        return _key.ReadSSH(Path("text").c_str());
    }

    PublicKey _key;
};

TEST_F(PublicKeyFile, RsaKeyOfSshKeygenIsRead) {
    Keygen("id", "-t rsa -b 2048");
    ASSERT_EQ(_key.ReadSSH(Path("id.pub").c_str()), 0);
    EXPECT_EQ(_key._rep->Type(), KEY_RSA);
    EXPECT_STREQ(_key._rep->Name(), "ssh-rsa");
    EXPECT_EQ(_key._rep->EncodeSSH64().Text(), Base64("id.pub"));
}

TEST_F(PublicKeyFile, DsaKeyOfSshKeygenIsRead) {
    Keygen("id", "-t dsa");
    ASSERT_EQ(_key.ReadSSH(Path("id.pub").c_str()), 0);
    EXPECT_EQ(_key._rep->Type(), KEY_DSA);
    EXPECT_STREQ(_key._rep->Name(), "ssh-dss");
    EXPECT_EQ(_key._rep->EncodeSSH64().Text(), Base64("id.pub"));
}

TEST_F(PublicKeyFile, OtherTypesAreRefused) {
    Keygen("id", "-t ed25519");
    EXPECT_EQ(_key.ReadSSH(Path("id.pub").c_str()), -EINVAL);
    EXPECT_EQ(_key._rep, nullptr);
}

TEST_F(PublicKeyFile, MissingFileIsReportedByErrno) {
    EXPECT_EQ(_key.ReadSSH(Path("absent").c_str()), -ENOENT);
    EXPECT_EQ(_key.ReadSSH(nullptr), -ENOENT);
    EXPECT_EQ(_key.ReadSSH(_directory.Path().c_str()), -EISDIR);
}

TEST_F(PublicKeyFile, HugeFileIsRefused) { EXPECT_EQ(ReadText(std::string((1 << 20) + 1, 'x')), -EFBIG); }

TEST_F(PublicKeyFile, CommentAndLineEndAreOptional) {
    std::string const blob = PublicKey(FromHex(SMALL_RSA))._rep->EncodeSSH64().Text();
    EXPECT_EQ(ReadText("ssh-rsa " + blob), 0);
    EXPECT_EQ(ReadText("ssh-rsa  " + blob + "\r\nsecond line"), 0);
    EXPECT_EQ(ReadText(" ssh-rsa\t" + blob + " two words\n"), 0);
}

TEST_F(PublicKeyFile, MalformedLineIsRefusedAndKeepsTheOldKey) {
    _key = FromHex(SMALL_DSS);
    std::string const blob = PublicKey(FromHex(SMALL_RSA))._rep->EncodeSSH64().Text();
    for (std::string const& line :
         {std::string(), std::string("\n"), std::string("ssh-rsa"), std::string("ssh-rsa "),
          "ssh-dss " + blob, "ssh-rsa " + blob.substr(1), "ssh-rsa " + blob.substr(4),
          "ssh-rsa =" + blob.substr(1), "ssh-rsa " + blob + "AAAA", "ssh-rsa *" + blob.substr(1),
          std::string("ssh-rsa ===="), blob}) {
        EXPECT_EQ(ReadText(line), -EINVAL) << line;
        EXPECT_STREQ(_key._rep->Name(), "ssh-dss");
    }
}

TEST(PublicKey, DefaultHasNoImplementation) { EXPECT_EQ(PublicKey()._rep, nullptr); }

TEST(PublicKey, DecodedBlobIsEncodedUnchanged) {
    for (char const* hex : {SMALL_RSA, SMALL_DSS}) {
        PublicKey const key(FromHex(hex));
        ASSERT_NE(key._rep, nullptr);
        EXPECT_EQ(ToHex(key._rep->EncodeSSH()), ToHex(FromHex(hex)));
    }
}

TEST(PublicKey, EveryTruncatedBlobIsRefused) {
    for (char const* hex : {SMALL_RSA, SMALL_DSS}) {
        ByteString const blob = FromHex(hex);
        for (unsigned int length = 0; length < blob.Length(); ++length)
            EXPECT_EQ(PublicKey(ByteString(blob.Data(), length))._rep, nullptr) << length;
    }
}

TEST(PublicKey, MalformedBlobIsRefused) {
    for (char const* hex : {
             "00000007 7373682d727361 00000001 03 00000002 00c1 00", // a byte after the end
             "00000007 7373682d727361 00000001 03 00000001 c1",      // n negative
             "00000007 7373682d727361 00000000 00000002 00c1",       // e zero
             "00000007 7373682d727361 00000001 03 ffffffff 00c1",    // length beyond the end
             "ffffffff 7373682d727361 00000001 03 00000002 00c1",    // likewise
             "00000007 7373682d727362 00000001 03 00000002 00c1",    // unknown name
             "00000006 7373682d7273 00000001 03 00000002 00c1",      // cut name
             "0000000b 7373682d65643235353139 00000004 01020304",    // another algorithm
         })
        EXPECT_EQ(PublicKey(FromHex(hex))._rep, nullptr) << hex;
}

TEST(PublicKey, AssignedMalformedBlobLeavesNoKey) {
    PublicKey key(FromHex(SMALL_RSA));
    key = FromHex("00");
    EXPECT_EQ(key._rep, nullptr);
    key = FromHex(SMALL_DSS);
    EXPECT_STREQ(key._rep->Name(), "ssh-dss");
}

TEST(PublicKey, EqualsComparesTypeAndNumbers) {
    PublicKey const rsa(FromHex(SMALL_RSA));
    PublicKey const same(FromHex("00000007 7373682d727361 00000002 0003 00000002 00c1"));
    PublicKey const other(FromHex("00000007 7373682d727361 00000001 03 00000002 00c3"));
    PublicKey const dss(FromHex(SMALL_DSS));
    EXPECT_TRUE(rsa._rep->Equals(*rsa._rep));
    EXPECT_TRUE(rsa._rep->Equals(*same._rep));
    EXPECT_FALSE(rsa._rep->Equals(*other._rep));
    EXPECT_FALSE(rsa._rep->Equals(*dss._rep));
}

TEST(PublicKey, CopiesAreIndependent) {
    PublicKey first(FromHex(SMALL_RSA));
    PublicKey const second(first);
    PublicKey third;
    third = first;
    first = FromHex(SMALL_DSS);
    EXPECT_STREQ(second._rep->Name(), "ssh-rsa");
    EXPECT_STREQ(third._rep->Name(), "ssh-rsa");
    PublicKey const& self = third;
    third = self;
    EXPECT_TRUE(third._rep->Equals(*second._rep));
    third = PublicKey();
    EXPECT_EQ(third._rep, nullptr);
}

} // namespace
