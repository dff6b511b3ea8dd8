#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "standard/find_identities.h"
#include "standard/known_hosts_line.h"
#include "standard/signature_scheme.h"
#include "support/agent/raw_agent.h"
#include "support/peer/wire.h"
#include "support/session/recording_callbacks.h"
#include "unit/cindral/key_files.h"

using cindral::standard::AgentClient;
using cindral::standard::FindIdentities;
using cindral::standard::Identities;
using cindral::standard::Identity;
using cindral::standard::Verify;
using cindral::standard::View;
using support::RawAgent;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Blob = cindral::standard::Bytes;

Blob const DATA = peer::ToBytes("data");

/// An agent that holds some keys and signs with a fixed text, by whatever algorithm it is made to use.
class FakeAgent {
public:
    explicit FakeAgent(std::vector<Blob> keys)
        : _keys(std::move(keys)), _server([this](std::string const& request) { return Answer(request); }) {}

    std::shared_ptr<AgentClient> Client() const { return std::make_shared<AgentClient>(_server.Path()); }
    /// The flags of the requests to sign.
    std::vector<std::uint32_t> Flags() const {
        std::vector<std::uint32_t> flags;
        for (std::string const& request : _server.Requests()) {
            peer::Reader reader(peer::ToBytes(request));
            if (reader.U8() != 13) continue;
            reader.Blob();
            reader.Blob();
            flags.push_back(reader.U32());
        }
        return flags;
    }

    std::string algorithm; ///< named in the signatures; empty: refuses

private:
    std::string Answer(std::string const& request) const {
        peer::Writer reply;
        if (request[0] == 11) {
            reply.U8(12).U32(static_cast<std::uint32_t>(_keys.size()));
            for (Blob const& key : _keys) reply.String(key).String("comment");
        } else if (algorithm.empty()) {
            reply.U8(5);
        } else {
            reply.U8(14).String(peer::Writer().String(algorithm).String("by the agent"));
        }
        return peer::ToText(peer::Writer().String(reply));
    }

    std::vector<Blob> _keys;
    RawAgent _server;
};

class IdentitySearch : public KeyFiles {
protected:
    IdentitySearch() {
        std::filesystem::create_directory(Path(".ssh"));
        setenv("HOME", _directory.Path().c_str(), 1);
    }
    ~IdentitySearch() override { setenv("HOME", _home.c_str(), 1); }

    /// The public half by the file that ssh-keygen has made.
    Blob PublicKey(std::string const& name) const {
        std::string const line = Read(name + ".pub");
        std::size_t const begin = line.find(' ') + 1;
        Blob blob;
        EXPECT_TRUE(cindral::standard::DecodeBase64(line.substr(begin, line.find(' ', begin) - begin), blob))
            << line;
        return blob;
    }

    Identities Find(std::string const& file,
                    std::shared_ptr<AgentClient> agent = std::make_shared<AgentClient>("")) {
        return FindIdentities(file, agent, passphrase, enter, notes);
    }
    static std::vector<std::string> Names(Identities const& identities) {
        std::vector<std::string> names;
        for (auto const& identity : identities) names.push_back(identity->Name());
        return names;
    }
    static std::vector<Blob> Blobs(Identities const& identities) {
        std::vector<Blob> blobs;
        for (auto const& identity : identities) blobs.push_back(identity->Blob());
        return blobs;
    }
    /// Signs, and verifies what has been signed.
    static bool Signs(Identity& identity, std::string const& algorithm) {
        Blob signature;
        std::string reason;
        if (!identity.Sign(algorithm, DATA, signature, reason)) {
            ADD_FAILURE() << reason;
            return false;
        }
        return Verify(algorithm, identity.Blob(), DATA, signature);
    }

    View passphrase;
    RecordingPassword enter{0};
    std::vector<std::string> notes;

private:
    std::string const _home = getenv("HOME");
};

Blob const FIRST_BLOB = peer::Writer().String("ssh-ed25519").String("first");
Blob const SECOND_BLOB = peer::Writer().String("ssh-ed25519").String("second");

} // namespace

TEST_F(IdentitySearch, NoAgentAndNoFilesGiveNoIdentity) {
    EXPECT_TRUE(Find("").empty());
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_TRUE(Find(Path("none")).empty());
    EXPECT_THAT(notes, ElementsAre(Path("none") + ": No such file or directory"));
}

TEST_F(IdentitySearch, PlainFileIsReadyToSign) {
    Keygen("key", "-t ed25519");
    Identities const found = Find(Path("key"));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(found[0]->IsUnlocked());
    EXPECT_EQ(found[0]->Name(), Path("key"));
    EXPECT_EQ(found[0]->Blob(), PublicKey("key"));
    EXPECT_TRUE(Signs(*found[0], "ssh-ed25519"));
    EXPECT_THAT(notes, IsEmpty());
}

TEST_F(IdentitySearch, DefaultFilesComeInTheirOrder) {
    Keygen(".ssh/id_rsa", "-t rsa -b 2048");
    Keygen(".ssh/id_ecdsa", "-t ecdsa");
    Keygen(".ssh/id_ed25519", "-t ed25519");
    Keygen(".ssh/id_other", "-t ed25519");
    Identities const found = Find("");
    EXPECT_THAT(Names(found),
                ElementsAre(Path(".ssh/id_ed25519"), Path(".ssh/id_ecdsa"), Path(".ssh/id_rsa")));
    EXPECT_TRUE(Signs(*found.at(1), "ecdsa-sha2-nistp256"));
    EXPECT_TRUE(Signs(*found.at(2), "rsa-sha2-512"));
    EXPECT_TRUE(Signs(*found.at(2), "rsa-sha2-256"));
    Identities const named = Find(Path(".ssh/id_other"));
    EXPECT_THAT(Names(named), ElementsAre(Path(".ssh/id_other")));
}

TEST_F(IdentitySearch, EncryptedFileIsKnownBeforeItsPassphraseIs) {
    Keygen("key", "-t ed25519 -a 1", "right");
    std::filesystem::remove(Path("key.pub"));
    Identities const found = Find(Path("key"));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_FALSE(found[0]->IsUnlocked());
    EXPECT_FALSE(found[0]->Blob().empty());
    EXPECT_THAT(enter.questions, IsEmpty());
}

TEST_F(IdentitySearch, PassphraseGivenIsTriedBeforeTheUserIsAsked) {
    Keygen("key", "-t ed25519 -a 1", "right");
    passphrase = "right";
    Identities found = Find(Path("key"));
    std::string reason;
    ASSERT_EQ(found.size(), 1u);
    ASSERT_TRUE(found[0]->Unlock(reason)) << reason;
    EXPECT_TRUE(found[0]->IsUnlocked());
    EXPECT_TRUE(Signs(*found[0], "ssh-ed25519"));

    passphrase = "wrong";
    enter._tries = 2;
    enter.answers = {"wrong too", "right"};
    found = Find(Path("key"));
    ASSERT_TRUE(found.at(0)->Unlock(reason)) << reason;
    EXPECT_THAT(enter.questions,
                ElementsAre("Enter passphrase for|" + Path("key"), "Enter passphrase for|" + Path("key")));
    EXPECT_THAT(enter.presets, IsEmpty()) << "the passphrase given is nobody else's";
    EXPECT_TRUE(Signs(*found[0], "ssh-ed25519"));
}

TEST_F(IdentitySearch, PresetOfTheProgramIsUsedWithoutTries) {
    Keygen("key", "-t ed25519 -a 1", "right");
    enter.Preset("right");
    Identities const found = Find(Path("key"));
    std::string reason;
    EXPECT_TRUE(found.at(0)->Unlock(reason)) << reason;
    EXPECT_THAT(enter.questions, IsEmpty());
}

TEST_F(IdentitySearch, PresetOfTheProgramThatIsWrongIsUsedOnce) {
    Keygen("key", "-t ed25519 -a 1", "right");
    enter._tries = 1;
    enter.Preset("wrong");
    enter.answers = {"right"};
    std::string reason;
    EXPECT_TRUE(Find(Path("key")).at(0)->Unlock(reason)) << reason;
    EXPECT_EQ(enter.questions.size(), 1u);
}

TEST_F(IdentitySearch, FileThatStaysLockedGivesTheReason) {
    Keygen("key", "-t ed25519 -a 1", "right");
    std::string reason;
    EXPECT_FALSE(Find(Path("key")).at(0)->Unlock(reason));
    EXPECT_EQ(reason, "encrypted, and no passphrase can be asked for");
    enter._tries = 1;
    enter.answers = {"wrong"};
    EXPECT_FALSE(Find(Path("key")).at(0)->Unlock(reason));
    EXPECT_EQ(reason, "wrong passphrase");
    cindral::standard::Bytes signature;
    enter.whenOut = -EIO;
    EXPECT_FALSE(Find(Path("key")).at(0)->Sign("ssh-ed25519", DATA, signature, reason));
    EXPECT_EQ(reason, "Input/output error");
}

TEST_F(IdentitySearch, EncryptedPemWithoutPublicHalfIsLearntByUnlocking) {
    Keygen("key", "-t rsa -b 2048 -m PEM", "right");
    Blob const blob = PublicKey("key");
    EXPECT_EQ(Find(Path("key")).at(0)->Blob(), blob) << "by the .pub file";
    std::filesystem::remove(Path("key.pub"));
    passphrase = "right";
    Identities const found = Find(Path("key"));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(found[0]->Blob().empty());
    std::string reason;
    ASSERT_TRUE(found[0]->Unlock(reason)) << reason;
    EXPECT_EQ(found[0]->Blob(), blob);
}

TEST_F(IdentitySearch, FileWithoutAKeyIsReported) {
    Write("key", "no key\n");
    std::filesystem::create_directory(Path(".ssh/id_rsa"));
    EXPECT_TRUE(Find(Path("key")).empty());
    EXPECT_TRUE(Find("").empty());
    EXPECT_THAT(notes,
                ElementsAre(Path("key") + ": not a key file, or damaged, or its public half is another key's",
                            Path(".ssh/id_rsa") + ": Is a directory"));
}

TEST_F(IdentitySearch, AlgorithmOfAnotherTypeIsNotSigned) {
    Keygen("key", "-t ed25519");
    Blob signature;
    std::string reason;
    EXPECT_FALSE(Find(Path("key")).at(0)->Sign("rsa-sha2-512", DATA, signature, reason));
    EXPECT_NE(reason, "");
}

TEST_F(IdentitySearch, AgentsKeysComeBeforeDefaultFilesWithOtherKeys) {
    Keygen(".ssh/id_ed25519", "-t ed25519");
    Keygen(".ssh/id_rsa", "-t rsa -b 2048");
    FakeAgent const agent({FIRST_BLOB, PublicKey(".ssh/id_rsa"), SECOND_BLOB});
    Identities const found = Find("", agent.Client());
    EXPECT_THAT(Blobs(found),
                ElementsAre(PublicKey(".ssh/id_rsa"), FIRST_BLOB, SECOND_BLOB, PublicKey(".ssh/id_ed25519")));
    EXPECT_THAT(Names(found), ElementsAre(Path(".ssh/id_rsa"), "agent's key comment", "agent's key comment",
                                          Path(".ssh/id_ed25519")));
    EXPECT_FALSE(found.at(0)->IsUnlocked()) << "the agent signs";
}

TEST_F(IdentitySearch, NamedFileComesFirst) {
    Keygen("key", "-t ed25519");
    Keygen(".ssh/id_ed25519", "-t ed25519");
    FakeAgent const without({FIRST_BLOB, SECOND_BLOB});
    EXPECT_THAT(Blobs(Find(Path("key"), without.Client())),
                ElementsAre(PublicKey("key"), FIRST_BLOB, SECOND_BLOB));
    FakeAgent const with({FIRST_BLOB, PublicKey("key"), SECOND_BLOB});
    Identities const found = Find(Path("key"), with.Client());
    EXPECT_THAT(Blobs(found), ElementsAre(PublicKey("key"), FIRST_BLOB, SECOND_BLOB));
    EXPECT_FALSE(found.at(0)->IsUnlocked()) << "the agent signs";
}

TEST_F(IdentitySearch, KeyThatTheAgentListsTwiceIsOfferedOnce) {
    FakeAgent const agent({FIRST_BLOB, SECOND_BLOB, FIRST_BLOB});
    EXPECT_THAT(Blobs(Find("", agent.Client())), ElementsAre(FIRST_BLOB, SECOND_BLOB));
}

TEST_F(IdentitySearch, PublicFileIsEnoughForAKeyOfTheAgent) {
    Keygen("key", "-t ed25519");
    Blob const blob = PublicKey("key");
    FakeAgent const agent({FIRST_BLOB, blob});
    EXPECT_EQ(Find(Path("key.pub"), agent.Client()).at(0)->Blob(), blob);
    std::filesystem::remove(Path("key"));
    Identities const found = Find(Path("key"), agent.Client());
    EXPECT_THAT(Names(found), ElementsAre(Path("key"), "agent's key comment"));
    EXPECT_EQ(found.at(0)->Blob(), blob);
    EXPECT_THAT(notes, IsEmpty());
    Find(Path("key"));
    EXPECT_THAT(notes, ElementsAre(Path("key") + ": No such file or directory"));
}

TEST_F(IdentitySearch, AgentIsAskedForTheDigestOfTheAlgorithm) {
    FakeAgent agent({FIRST_BLOB});
    Identities const found = Find("", agent.Client());
    ASSERT_EQ(found.size(), 1u);
    for (char const* algorithm : {"rsa-sha2-512", "rsa-sha2-256", "ssh-ed25519"}) {
        agent.algorithm = algorithm;
        Blob signature;
        std::string reason;
        ASSERT_TRUE(found[0]->Unlock(reason));
        EXPECT_TRUE(found[0]->Sign(algorithm, DATA, signature, reason)) << reason;
        EXPECT_EQ(signature, peer::Writer().String(algorithm).String("by the agent").Data());
    }
    EXPECT_THAT(agent.Flags(), ElementsAre(4u, 2u, 0u));
}

TEST_F(IdentitySearch, SignatureByAnotherAlgorithmIsNotUsed) {
    FakeAgent agent({FIRST_BLOB});
    agent.algorithm = "ssh-rsa";
    Blob signature;
    std::string reason;
    EXPECT_FALSE(Find("", agent.Client()).at(0)->Sign("rsa-sha2-512", DATA, signature, reason));
    EXPECT_EQ(reason, "the agent does not sign with rsa-sha2-512");
}

TEST_F(IdentitySearch, FileSignsIfTheAgentFails) {
    Keygen("key", "-t ed25519");
    FakeAgent agent({PublicKey("key")});
    EXPECT_TRUE(Signs(*Find(Path("key"), agent.Client()).at(0), "ssh-ed25519"));
    agent.algorithm = "ssh-rsa";
    EXPECT_TRUE(Signs(*Find(Path("key"), agent.Client()).at(0), "ssh-ed25519"));
    EXPECT_EQ(agent.Flags().size(), 2u);
}

TEST_F(IdentitySearch, BothReasonsAreGivenIfAgentAndFileFail) {
    Keygen("key", "-t ed25519 -a 1", "right");
    FakeAgent const agent({PublicKey("key")});
    Blob signature;
    std::string reason;
    EXPECT_FALSE(Find(Path("key"), agent.Client()).at(0)->Sign("ssh-ed25519", DATA, signature, reason));
    EXPECT_EQ(reason, "the agent refused; the file: encrypted, and no passphrase can be asked for");
}

TEST_F(IdentitySearch, BrokenAgentIsReportedAndFilesAreUsed) {
    Keygen(".ssh/id_ed25519", "-t ed25519");
    RawAgent const server(peer::ToText(peer::Writer().String("\x06")));
    EXPECT_THAT(Names(Find("", std::make_shared<AgentClient>(server.Path()))),
                ElementsAre(Path(".ssh/id_ed25519")));
    EXPECT_THAT(notes, ElementsAre("agent: the agent answered with message 6"));
}
