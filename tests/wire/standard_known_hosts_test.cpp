// What the user's known_hosts file says of the host of a session with the standard dialect.

#include "wire/standard_fixture.h"

using namespace peer;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// A dialect that accepts every key it is asked about.
class Asking : public cindral::StandardDialect {
public:
    using StandardDialect::StandardDialect;
    int ConfirmHostKey(String_t const& host, String_t const& type, String_t const& fingerprint) override {
        asked.push_back(Text(host) + " " + Text(type) + " " + Text(fingerprint));
        return 1;
    }

    std::vector<std::string> asked;
};

class StandardKnownHosts : public StandardTest {
protected:
    /// The result of KeyExchange at a server with the settings' host key; `marker` and that key are the
    /// line in the file for it, if there is a marker.
    int Exchange(cindral::StandardDialect::HostKeyPolicy policy, char const* marker = nullptr,
                 StandardKey const& known = StandardKey::Host()) {
        Serve([](StandardConnection& c) {
            c.Identify();
            c.Exchange();
            c.ReadToTheEnd();
        });
        std::filesystem::create_directories(std::filesystem::path(KnownHostsPath()).parent_path());
        entry = "[127.0.0.1]:" + std::to_string(server->Port()) + " ";
        if (marker)
            std::ofstream(KnownHostsPath(), std::ios::app) << marker << entry << known.PublicLine() << '\n';
        before = FileText(KnownHostsPath());
        place = KnownHostsPath() + ":" + std::to_string(std::count(before.begin(), before.end(), '\n'));
        TestSession session(server->Port());
        Asking dialect(session);
        dialect.SetHostKeyPolicy(policy);
        EXPECT_EQ(session.Connect(10), 0);
        int const result = session.KeyExchange();
        lastError = Text(dialect.LastError());
        asked = dialect.asked;
        return result;
    }
    void ExpectNothingAsked() {
        server->Join();
        EXPECT_THAT(asked, IsEmpty());
        EXPECT_EQ(FileText(KnownHostsPath()), before);
        EXPECT_EQ(Seen().CountReceived(NEWKEYS), 0u);
    }

    static constexpr auto POLICIES = {cindral::StandardDialect::ACCEPT_NEW,
                                      cindral::StandardDialect::KNOWN_ONLY};

    std::string entry;  ///< its beginning
    std::string place;  ///< file and line of it
    std::string before; ///< the file
    std::string lastError;
    std::vector<std::string> asked;
};

TEST_F(StandardKnownHosts, RevokedKeyIsRefusedUnderEachPolicyWithFileAndLine) {
    for (auto const policy : POLICIES) {
        EXPECT_EQ(Exchange(policy, "@revoked "), -1);
        EXPECT_EQ(lastError, "the host key of 127.0.0.1 is revoked (" + place + ")");
        ExpectNothingAsked();
    }
}

TEST_F(StandardKnownHosts, KeyThatIsBothKnownAndRevokedIsRefused) {
    settings.hostKey = &StandardKey::OtherHost();
    std::filesystem::create_directories(std::filesystem::path(KnownHostsPath()).parent_path());
    std::ofstream(KnownHostsPath(), std::ios::app)
        << "127.0.0.1 " << StandardKey::OtherHost().PublicLine() << '\n';
    EXPECT_EQ(Exchange(cindral::StandardDialect::ACCEPT_NEW, "@revoked ", StandardKey::OtherHost()), -1);
    EXPECT_THAT(lastError, HasSubstr("is revoked"));
    ExpectNothingAsked();
}

TEST_F(StandardKnownHosts, ChangedKeyIsRefusedUnderEachPolicyWithFileAndLine) {
    settings.hostKey = &StandardKey::OtherHost();
    for (auto const policy : POLICIES) {
        EXPECT_EQ(Exchange(policy, ""), -1);
        EXPECT_THAT(lastError, AllOf(HasSubstr("the host key of 127.0.0.1 has changed"), HasSubstr(place),
                                     HasSubstr("ssh-ed25519")));
        ExpectNothingAsked();
    }
}

TEST_F(StandardKnownHosts, KnownKeyIsAcceptedUnderEachPolicyWithoutAQuestion) {
    for (auto const policy : POLICIES) {
        EXPECT_EQ(Exchange(policy, ""), 0);
        EXPECT_THAT(asked, IsEmpty());
        EXPECT_EQ(FileText(KnownHostsPath()), before);
    }
}

TEST_F(StandardKnownHosts, UnknownKeyIsAskedForUnderEachPolicyAndAppendedOnceAccepted) {
    for (auto const policy : POLICIES) {
        EXPECT_EQ(Exchange(policy), 0);
        ASSERT_EQ(asked.size(), 1u);
        EXPECT_THAT(asked[0], HasSubstr("127.0.0.1 ssh-ed25519 SHA256:"));
        EXPECT_EQ(FileText(KnownHostsPath()), before + entry + StandardKey::Host().PublicLine() + "\n");
    }
}

/// Refuses by its policy, as it is not overridden.
TEST_F(StandardKnownHosts, UnknownKeyIsRefusedByThePolicyThatAllowsKnownOnesAlone) {
    StandardResult const result = RunFrom(
        [](StandardConnection& c) {
            c.Identify();
            c.Exchange();
        },
        [](StandardClient& client) {
            client.dialect.SetHostKeyPolicy(cindral::StandardDialect::KNOWN_ONLY);
        });
    EXPECT_EQ(result.outcome, "KeyExchange -1");
    EXPECT_THAT(result.lastError, AllOf(HasSubstr("the host 127.0.0.1 is not known"), HasSubstr("SHA256:"),
                                        HasSubstr("was not accepted")));
    EXPECT_THAT(FileText(KnownHostsPath()),
                testing::Not(HasSubstr(":" + std::to_string(server->Port()) + " ")));
}

} // namespace
