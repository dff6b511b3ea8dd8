#include <cerrno>

#include <gtest/gtest.h>

#include <brantle/cindral/private_key.h>

#include "standard/algorithms.h"
#include "standard/known_hosts_line.h"
#include "standard/private_key_file.h"
#include "standard/signature_scheme.h"
#include "unit/cindral/key_files.h"

using namespace cindral;
using namespace cindral::standard;

namespace {

constexpr char const* PASSPHRASE = "correct horse";

struct Form {
    char const* title;
    char const* type;
    char const* options;
    bool encrypted;
    bool hasPublicHalf; ///< the file itself shows it
};

std::ostream& operator<<(std::ostream& out, Form const& form) { return out << form.title; }

constexpr Form FORMS[] = {
    {"Ed25519", "ssh-ed25519", "-t ed25519", false, true},
    {"Ed25519Encrypted", "ssh-ed25519", "-t ed25519 -a 1", true, true},
    {"Nistp256", "ecdsa-sha2-nistp256", "-t ecdsa -b 256", false, true},
    {"Nistp384Encrypted", "ecdsa-sha2-nistp384", "-t ecdsa -b 384 -a 1", true, true},
    {"Nistp521PemEncrypted", "ecdsa-sha2-nistp521", "-t ecdsa -b 521 -m PEM", true, false},
    {"Nistp256Pkcs8", "ecdsa-sha2-nistp256", "-t ecdsa -b 256 -m PKCS8", false, false},
    {"Rsa", "ssh-rsa", "-t rsa -b 2048", false, true},
    {"RsaEncrypted", "ssh-rsa", "-t rsa -b 2048 -a 1", true, true},
    {"RsaPkcs8Encrypted", "ssh-rsa", "-t rsa -b 2048 -m PKCS8", true, false},
};

class IdentityFile : public KeyFiles {
protected:
    using Bytes = standard::Bytes; // not the function of the base

    PrivateKeyFile _file{Path("id")};

    /// The blob in the public file of that name.
    Bytes PublicBlob(std::string const& name = "id.pub") const {
        std::string const line = Read(name);
        std::size_t const start = line.find(' ') + 1;
        Bytes blob;
        EXPECT_TRUE(DecodeBase64(line.substr(start, line.find(' ', start) - start), blob));
        return blob;
    }
    int Load(std::deque<std::string> answers) {
        ScriptedAnswers enter(3, std::move(answers));
        int const result = _file.Load(enter);
        _asked = enter._asked;
        return result;
    }

    unsigned int _asked = 0;
};

class IdentityFileForm : public IdentityFile, public testing::WithParamInterface<Form> {
protected:
    void SetUp() override { Keygen("id", GetParam().options, GetParam().encrypted ? PASSPHRASE : ""); }
};

TEST_P(IdentityFileForm, PublicHalfIsKnownBeforeAPassphraseIsAskedFor) {
    EXPECT_EQ(_file.Open(), 0);
    EXPECT_EQ(_file.KeyBlob(), PublicBlob());
    EXPECT_EQ(KeyTypeOf(_file.KeyBlob()), GetParam().type);
    EXPECT_EQ(_file.IsLoaded(), !GetParam().encrypted);
    EXPECT_EQ(_file.Key() != nullptr, !GetParam().encrypted);
}

TEST_P(IdentityFileForm, SignsForItsPublicHalf) {
    ASSERT_EQ(_file.Open(), 0);
    ASSERT_EQ(Load({"wrong", PASSPHRASE}), 0);
    EXPECT_EQ(_asked, GetParam().encrypted ? 2u : 0u);
    ASSERT_TRUE(_file.IsLoaded());
    for (std::string const& algorithm : SplitNames(SignatureAlgorithmsOf(GetParam().type)))
        EXPECT_TRUE(Verify(algorithm, PublicBlob(), "data", standard::Sign(algorithm, _file.Key(), "data")));
}

TEST_P(IdentityFileForm, PublicHalfNeedsNoSeparateFileIfTheKeyContainsIt) {
    Bytes const blob = PublicBlob();
    Run("rm id.pub");
    EXPECT_EQ(_file.Open(), 0);
    bool const isKnown = GetParam().hasPublicHalf || !GetParam().encrypted;
    EXPECT_EQ(_file.KeyBlob(), isKnown ? blob : Bytes());
    EXPECT_EQ(Load({PASSPHRASE}), 0);
    EXPECT_EQ(_file.KeyBlob(), blob);
}

TEST_P(IdentityFileForm, CanBeLoadedAtOnce) {
    EXPECT_EQ(Load({PASSPHRASE}), 0);
    EXPECT_EQ(_file.KeyBlob(), PublicBlob());
    EXPECT_EQ(Load({}), 0);
    EXPECT_EQ(_asked, 0u);
}

INSTANTIATE_TEST_SUITE_P(All, IdentityFileForm, testing::ValuesIn(FORMS),
                         [](auto const& form) { return form.param.title; });

TEST_F(IdentityFile, PresetPassphraseComesFirst) {
    Keygen("id", "-t ed25519 -a 1", PASSPHRASE);
    ScriptedAnswers enter(0, {});
    enter.Preset(PASSPHRASE);
    EXPECT_EQ(_file.Load(enter), 0);
    EXPECT_EQ(enter._asked, 0u);
}

TEST_F(IdentityFile, WrongPassphrasesEndWithTheTries) {
    Keygen("id", "-t ed25519 -a 1", PASSPHRASE);
    EXPECT_EQ(Load({"a", "b", "c", PASSPHRASE}), PrivateKey::WRONG_PASSPHRASE);
    EXPECT_EQ(_asked, 3u);
    EXPECT_FALSE(_file.IsLoaded());
    EXPECT_EQ(Load({PASSPHRASE}), 0);
}

TEST_F(IdentityFile, WithoutTriesThereIsNoPassphrase) {
    Keygen("id", "-t ed25519 -a 1", PASSPHRASE);
    ScriptedAnswers enter(0, {});
    EXPECT_EQ(_file.Load(enter), PrivateKey::NO_PASSPHRASE);
}

TEST_F(IdentityFile, RefusedPromptIsTheResult) {
    Keygen("id", "-t ed25519 -a 1", PASSPHRASE);
    EXPECT_EQ(Load({}), ScriptedAnswers::NO_ANSWER);
}

TEST_F(IdentityFile, AbsentFileGivesErrno) {
    EXPECT_EQ(_file.Open(), -ENOENT);
    EXPECT_EQ(Load({}), -ENOENT);
}

TEST_F(IdentityFile, FileWithoutAKeyIsBroken) {
    Write("id", "no key");
    EXPECT_EQ(_file.Open(), PrivateKey::BROKEN_FILE);
}

TEST_F(IdentityFile, UnsupportedTypesAreRefusedBeforeTheirPassphraseIsAsked) {
    for (char const* options : {"-t dsa", "-t dsa -m PEM"}) {
        for (char const* passphrase : {"", PASSPHRASE}) {
            Run("rm -f id id.pub");
            Keygen("id", options, passphrase);
            PrivateKeyFile file(Path("id"));
            EXPECT_EQ(file.Open(), PrivateKey::UNSUPPORTED_KEY) << options;
            EXPECT_FALSE(file.IsLoaded());
        }
    }
}

TEST_F(IdentityFile, ShortRsaKeysAreRefused) {
    for (char const* options : {"-t rsa -b 1024", "-t rsa -b 2047"}) {
        for (char const* passphrase : {"", PASSPHRASE}) {
            Run("rm -f id id.pub");
            Keygen("id", options + std::string(" -a 1"), passphrase);
            PrivateKeyFile file(Path("id"));
            EXPECT_EQ(file.Open(), PrivateKey::UNSUPPORTED_KEY) << options;
        }
    }
}

TEST_F(IdentityFile, PublicFileOfAnotherKeyIsDetectedOnLoading) {
    Keygen("id", "-t ecdsa -m PEM", PASSPHRASE);
    Keygen("other", "-t ecdsa");
    Run("mv other.pub id.pub");
    EXPECT_EQ(_file.Open(), 0);
    EXPECT_EQ(_file.KeyBlob(), PublicBlob());
    EXPECT_EQ(Load({PASSPHRASE}), PrivateKey::BROKEN_FILE);
    EXPECT_FALSE(_file.IsLoaded());
}

TEST_F(IdentityFile, PublicFileIsIgnoredIfTheKeyIsNotEncrypted) {
    Keygen("id", "-t ecdsa -m PEM");
    Bytes const blob = PublicBlob();
    Write("id.pub", "ssh-ed25519 AAAA nonsense\n");
    EXPECT_EQ(_file.Open(), 0);
    EXPECT_EQ(_file.KeyBlob(), blob);
}

TEST_F(IdentityFile, InvalidPublicFileLeavesThePublicHalfUnknown) {
    Keygen("id", "-t ecdsa -m PEM", PASSPHRASE);
    std::string const line = Read("id.pub");
    std::size_t const blob = line.find(' ') + 1;
    for (std::string const& text :
         {std::string(), std::string("no key"), std::string(" \n"), std::string(100000, 'x'),
          std::string("ecdsa-sha2-nistp256 \n"), std::string("ecdsa-sha2-nistp256 ??? x\n"),
          line.substr(0, blob + 40), "ecdsa-sha2-nistp384 " + line.substr(blob), "\n" + line}) {
        Write("id.pub", text);
        PrivateKeyFile file(Path("id"));
        EXPECT_EQ(file.Open(), 0) << text.substr(0, 80);
        EXPECT_TRUE(file.KeyBlob().empty()) << text.substr(0, 80);
    }
    Run("rm id.pub; mkdir id.pub");
    PrivateKeyFile file(Path("id"));
    EXPECT_EQ(file.Open(), 0);
    EXPECT_TRUE(file.KeyBlob().empty());
}

TEST_F(IdentityFile, PublicFileMayLackCommentAndLineEnd) {
    Keygen("id", "-t ecdsa -m PEM", PASSPHRASE);
    Bytes const blob = PublicBlob();
    for (char const* end : {"", "\n", "\r\n"}) {
        Write("id.pub", "ecdsa-sha2-nistp256 " + EncodeBase64(blob) + end);
        PrivateKeyFile file(Path("id"));
        EXPECT_EQ(file.Open(), 0);
        EXPECT_EQ(file.KeyBlob(), blob);
    }
}

TEST_F(IdentityFile, FailuresHaveAMessage) {
    EXPECT_EQ(PrivateKeyFile::Describe(PrivateKey::WRONG_PASSPHRASE), "wrong passphrase");
    EXPECT_EQ(PrivateKeyFile::Describe(PrivateKey::NO_PASSPHRASE),
              "encrypted, and no passphrase can be asked for");
    EXPECT_EQ(PrivateKeyFile::Describe(-ENOENT), "No such file or directory");
}

} // namespace
