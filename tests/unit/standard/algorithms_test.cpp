#include <gmock/gmock.h>

#include <brantle/cindral/exceptions.h>

#include "standard/algorithms.h"
#include "support/expect_error.h"

using namespace cindral;
using namespace cindral::standard;
using support::ExpectError;

namespace {

constexpr AlgorithmKind KINDS[] = {AlgorithmKind::KEX, AlgorithmKind::HOST_KEY, AlgorithmKind::PUBLIC_KEY,
                                   AlgorithmKind::CIPHER, AlgorithmKind::MAC};

TEST(Algorithms, KeyExchangesAreOfferedInOrderOfPreference) {
    EXPECT_EQ(DefaultAlgorithms(AlgorithmKind::KEX),
              "curve25519-sha256,curve25519-sha256@libssh.org,ecdh-sha2-nistp256,ecdh-sha2-nistp384,"
              "ecdh-sha2-nistp521,diffie-hellman-group-exchange-sha256,diffie-hellman-group16-sha512,"
              "diffie-hellman-group14-sha256");
}

TEST(Algorithms, SignaturesAreOfferedInOrderOfPreferenceForHostsAndUsers) {
    std::string const names = "ssh-ed25519,ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,"
                              "rsa-sha2-512,rsa-sha2-256";
    EXPECT_EQ(DefaultAlgorithms(AlgorithmKind::HOST_KEY), names);
    EXPECT_EQ(DefaultAlgorithms(AlgorithmKind::PUBLIC_KEY), names);
}

TEST(Algorithms, EncryptThenMacAlgorithmsComeFirst) {
    EXPECT_EQ(DefaultAlgorithms(AlgorithmKind::MAC),
              "hmac-sha2-256-etm@openssh.com,hmac-sha2-512-etm@openssh.com,hmac-sha2-256,hmac-sha2-512,"
              "hmac-sha1");
}

TEST(Algorithms, AesComesFirstOnAProcessorWithAesInstructions) {
    EXPECT_EQ(DefaultCiphers(true), "aes128-gcm@openssh.com,aes256-gcm@openssh.com,"
                                    "chacha20-poly1305@openssh.com,aes128-ctr,aes192-ctr,aes256-ctr");
    EXPECT_EQ(DefaultCiphers(false), "chacha20-poly1305@openssh.com,aes128-gcm@openssh.com,"
                                     "aes256-gcm@openssh.com,aes128-ctr,aes192-ctr,aes256-ctr");
    EXPECT_EQ(DefaultAlgorithms(AlgorithmKind::CIPHER), DefaultCiphers(HasAesInstructions()));
}

TEST(Algorithms, EveryNameOfferedHasARecordOfThatName) {
    for (std::string const& name : SplitNames(DefaultAlgorithms(AlgorithmKind::KEX)))
        EXPECT_EQ(FindKex(name).name, name);
    for (std::string const& name : SplitNames(DefaultAlgorithms(AlgorithmKind::HOST_KEY)))
        EXPECT_EQ(FindSignature(name).name, name);
    for (std::string const& name : SplitNames(DefaultAlgorithms(AlgorithmKind::CIPHER)))
        EXPECT_EQ(FindCipher(name).name, name);
    for (std::string const& name : SplitNames(DefaultAlgorithms(AlgorithmKind::MAC)))
        EXPECT_EQ(FindMac(name).name, name);
}

TEST(Algorithms, RecordsMatchTheirNames) {
    EXPECT_STREQ(FindKex("ecdh-sha2-nistp384").group, "P-384");
    EXPECT_STREQ(FindKex("diffie-hellman-group16-sha512").digest, "SHA512");
    EXPECT_STREQ(FindSignature("rsa-sha2-256").keyType, "ssh-rsa");
    EXPECT_STREQ(FindSignature("rsa-sha2-256").digest, "SHA256");
    EXPECT_EQ(FindSignature("ssh-ed25519").digest, nullptr);
    EXPECT_EQ(FindCipher("aes192-ctr").keySize, 24u);
    EXPECT_FALSE(FindCipher("aes192-ctr").IsAead());
    EXPECT_TRUE(FindCipher("chacha20-poly1305@openssh.com").IsAead());
    EXPECT_TRUE(FindMac("hmac-sha2-512-etm@openssh.com").encryptsThenMacs);
    EXPECT_EQ(FindMac("hmac-sha1").size, 20u);
}

TEST(Algorithms, RecordOfAnUnsupportedNameIsRefused) {
    ExpectError<InvalidArgument>("algorithm not supported", "none", [] { FindCipher("none"); });
    ExpectError<InvalidArgument>("algorithm not supported", "hmac-md5", [] { FindMac("hmac-md5"); });
    ExpectError<InvalidArgument>("algorithm not supported", "ssh-rsa", [] { FindSignature("ssh-rsa"); });
    ExpectError<InvalidArgument>("algorithm not supported", "", [] { FindKex(""); });
}

TEST(Algorithms, DefaultListsPassTheCheck) {
    for (AlgorithmKind kind : KINDS)
        EXPECT_NO_THROW(CheckAlgorithms(kind, "place", DefaultAlgorithms(kind))) << static_cast<int>(kind);
}

TEST(Algorithms, SingleNamePassesTheCheck) {
    EXPECT_NO_THROW(CheckAlgorithms(AlgorithmKind::MAC, "place", "hmac-sha1"));
}

TEST(Algorithms, UnsupportedNameIsReported) {
    ExpectError<InvalidArgument>("place", "algorithm \"hmac-md5\" is not supported",
                                 [] { CheckAlgorithms(AlgorithmKind::MAC, "place", "hmac-sha1,hmac-md5"); });
    ExpectError<InvalidArgument>("place", "algorithm \" hmac-sha1\" is not supported",
                                 [] { CheckAlgorithms(AlgorithmKind::MAC, "place", " hmac-sha1"); });
}

TEST(Algorithms, NameOfAnotherKindIsReported) {
    for (AlgorithmKind kind : {AlgorithmKind::KEX, AlgorithmKind::HOST_KEY, AlgorithmKind::MAC})
        ExpectError<InvalidArgument>("place", "algorithm \"aes128-ctr\" is not supported",
                                     [&] { CheckAlgorithms(kind, "place", "aes128-ctr"); });
    ExpectError<InvalidArgument>("place", "algorithm \"hmac-sha1\" is not supported",
                                 [] { CheckAlgorithms(AlgorithmKind::CIPHER, "place", "hmac-sha1"); });
}

TEST(Algorithms, EmptyListIsRefused) {
    for (AlgorithmKind kind : KINDS)
        ExpectError<InvalidArgument>("place", "no algorithm", [&] { CheckAlgorithms(kind, "place", ""); });
}

TEST(Algorithms, EmptyNameIsRefusedAtAnyPosition) {
    for (char const* list : {",", ",hmac-sha1", "hmac-sha1,", "hmac-sha1,,hmac-sha2-256"})
        ExpectError<InvalidArgument>("place", "a name is empty",
                                     [&] { CheckAlgorithms(AlgorithmKind::MAC, "place", list); });
}

TEST(Algorithms, RepeatedNameIsReported) {
    ExpectError<InvalidArgument>("place", "algorithm \"hmac-sha1\" is there twice", [] {
        CheckAlgorithms(AlgorithmKind::MAC, "place", "hmac-sha1,hmac-sha2-256,hmac-sha1");
    });
}

TEST(NameLists, AreSplitAtEachComma) {
    EXPECT_THAT(SplitNames("a"), testing::ElementsAre("a"));
    EXPECT_THAT(SplitNames("a,bc,d"), testing::ElementsAre("a", "bc", "d"));
    EXPECT_THAT(SplitNames(",a,,"), testing::ElementsAre("", "a", "", ""));
    EXPECT_THAT(SplitNames(""), testing::IsEmpty());
}

TEST(NameLists, HaveWholeNamesOnly) {
    EXPECT_TRUE(HasName("one,two,three", "two"));
    EXPECT_FALSE(HasName("one,two,three", "tw"));
    EXPECT_FALSE(HasName("one,two,three", "one,two"));
    EXPECT_FALSE(HasName("", ""));
}

TEST(FirstCommon, FollowsThePreferenceOfTheClient) {
    EXPECT_EQ(FirstCommon("a,b,c", "c,b"), "b");
    EXPECT_EQ(FirstCommon("c,b,a", "a,b,c"), "c");
}

TEST(FirstCommon, IsEmptyIfNothingIsCommon) {
    EXPECT_EQ(FirstCommon("a,b", "c,d"), "");
    EXPECT_EQ(FirstCommon("a,b", ""), "");
    EXPECT_EQ(FirstCommon("", "a"), "");
    EXPECT_EQ(FirstCommon("a", "aa"), "");
}

TEST(FirstCommon, IgnoresEmptyNamesInBothLists) { EXPECT_EQ(FirstCommon(",a", ",a"), "a"); }

} // namespace
