#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "fake_port.h"
#include "standard/algorithms.h"
#include "standard/user_auth.h"
#include "support/expect_error.h"
#include "support/session/captured_streams.h"
#include "support/session/recording_callbacks.h"

using cindral::SshProtocolError;
using cindral::standard::AlgorithmKind;
using cindral::standard::DefaultAlgorithms;
using cindral::standard::Identities;
using cindral::standard::Identity;
using cindral::standard::Login;
using cindral::standard::UserAuthenticator;
using cindral::standard::View;
using support::ExpectError;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

peer::Bytes const SESSION_ID = peer::ToBytes("session id");

peer::Bytes KeyBlob(std::string const& type, std::string const& name) {
    return peer::Writer().String(type).String("key " + name);
}

/// What a test specifies of a key, and what the authenticator has done with it.
struct Key {
    std::string type = "ssh-ed25519";
    std::string name = "KEY";
    bool unlocked = false;
    bool blobKnown = true;
    bool unlocks = true;
    bool signs = true;

    int unlocks_asked = 0;
    std::vector<std::string> signatures; ///< "algorithm:data in hex"

    peer::Bytes Blob() const { return KeyBlob(type, name); }
    peer::Bytes Query(std::string const& algorithm = "") const {
        return KeyQuery(algorithm.empty() ? type : algorithm, Blob());
    }
    peer::Bytes Ok(std::string const& algorithm = "") const {
        return PkOk(algorithm.empty() ? type : algorithm, Blob());
    }
    peer::Bytes Signed(std::string const& algorithm = "") const {
        std::string const used = algorithm.empty() ? type : algorithm;
        return SignedRequest(used, Blob(), peer::ToBytes(used + " by " + name));
    }
};

class FakeIdentity : public Identity {
public:
    explicit FakeIdentity(Key& key)
        : Identity(key.blobKnown ? key.Blob() : peer::Bytes(), key.name), _key(key) {}

    bool IsUnlocked() const override { return _key.unlocked; }
    bool Unlock(std::string& reason) override {
        if (!_key.unlocked) ++_key.unlocks_asked;
        if (!_key.unlocks) reason = "no passphrase";
        if (_key.unlocks) {
            _key.unlocked = true;
            _blob = _key.Blob();
        }
        return _key.unlocks;
    }
    bool Sign(std::string const& algorithm, View data, cindral::standard::Bytes& signature,
              std::string& reason) override {
        _key.signatures.push_back(algorithm + ":" + peer::Hex(data.Copy()));
        signature = peer::ToBytes(algorithm + " by " + _key.name);
        if (!_key.signs) reason = "the agent refused";
        return _key.signs;
    }

private:
    Key& _key;
};

/// An authentication of "me" with its parts for a test to set before Run.
class UserAuthentication : public testing::Test {
protected:
    UserAuthentication() : captured(std::cout) {
        login.sessionId = View(SESSION_ID);
        login.user = "me";
        login.host = "host:22";
        login.algorithms = DefaultAlgorithms(AlgorithmKind::PUBLIC_KEY);
    }

    /// Runs it against a server that sends these messages after accepting the service.
    int Run(std::vector<peer::Bytes> messages) {
        messages.insert(messages.begin(), Accept());
        return RunAll(std::move(messages));
    }
    int RunAll(std::vector<peer::Bytes> messages) {
        port = std::make_unique<FakePort>(std::move(messages));
        authenticator = std::make_unique<UserAuthenticator>(
            *port, login,
            [this](std::vector<std::string>& notes) {
                ++searches;
                notes = missing;
                Identities identities;
                for (Key* key : keys) identities.push_back(std::make_unique<FakeIdentity>(*key));
                return identities;
            },
            enter, questions);
        return authenticator->Run();
    }
    /// What has been sent after the request of the service and "none".
    std::vector<peer::Bytes> Sent() const {
        std::vector<peer::Bytes> sent = port->Sent();
        EXPECT_GE(sent.size(), 2u);
        EXPECT_EQ(sent.at(0), ServiceRequest());
        EXPECT_EQ(sent.at(1), NoneRequest());
        EXPECT_EQ(port->Left(), 0u) << "messages that nobody has read";
        return {sent.begin() + 2, sent.end()};
    }
    std::string Error() const { return authenticator->LastError(); }

    Captured captured;
    Login login;
    std::vector<Key*> keys;
    std::vector<std::string> missing;
    RecordingPassword enter{0};
    RecordingCallback questions;
    std::unique_ptr<FakePort> port;
    std::unique_ptr<UserAuthenticator> authenticator;
    int searches = 0;
};

} // namespace

// --- service and "none"

TEST_F(UserAuthentication, ServerThatNeedsNoCredentials) {
    Key key;
    keys = {&key};
    login.password = "secret";
    EXPECT_EQ(Run({Success()}), 0);
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_EQ(searches, 0);
    EXPECT_EQ(Error(), "");
    EXPECT_EQ(authenticator->Banner(), "");
}

TEST_F(UserAuthentication, ServiceIsAcceptedWithoutItsName) {
    EXPECT_EQ(RunAll({peer::Writer().U8(6), Success()}), 0);
}

TEST_F(UserAuthentication, AnotherAnswerToTheServiceRequestIsAnError) {
    ExpectError<SshProtocolError>("user authentication is not accepted", "51",
                                  [this] { RunAll({Failure("password")}); });
    ExpectError<SshProtocolError>("SERVICE_ACCEPT message is for another service", "",
                                  [this] { RunAll({peer::Writer().U8(6).String("ssh-connection")}); });
    ExpectError<SshProtocolError>("SERVICE_ACCEPT message has bytes after its last field", "",
                                  [this] { RunAll({peer::Writer().U8(6).String("ssh-userauth").U8(0)}); });
    ExpectError<SshProtocolError>("SERVICE_ACCEPT message ends too early", "",
                                  [this] { RunAll({peer::Bytes()}); });
    EXPECT_EQ(port->Sent(), std::vector<peer::Bytes>{ServiceRequest()});
}

TEST_F(UserAuthentication, NoAcceptedMethodIsAFailure) {
    for (char const* methods : {"", "hostbased", "gssapi-with-mic,hostbased", "publickeys,xpassword", ","}) {
        login.password = "secret";
        EXPECT_EQ(Run({Failure(methods)}), -1) << methods;
        EXPECT_THAT(Sent(), IsEmpty());
    }
    EXPECT_EQ(Run({Failure("")}), -1);
    EXPECT_EQ(Error(), "login failed: the server accepts no method");
    EXPECT_EQ(Run({Failure("host\x1b")}), -1);
    EXPECT_EQ(Error(), "login failed: the server accepts host\\x1b");
}

TEST_F(UserAuthentication, UnexpectedMessageIsAnError) {
    std::string const text = "message out of place in user authentication";
    ExpectError<SshProtocolError>(text, "60", [this] { Run({PkOk("x", {})}); });
    ExpectError<SshProtocolError>(text, "6", [this] { Run({Accept()}); });
    ExpectError<SshProtocolError>(text, "61", [this] { Run({Answers({})}); });
    ExpectError<SshProtocolError>("server's message ends too early", "", [this] { Run({peer::Bytes()}); });
    login.password = "secret";
    ExpectError<SshProtocolError>(text, "90", [this] { Run({Failure("password"), peer::Writer().U8(90)}); });
}

TEST_F(UserAuthentication, BrokenMessageIsAnError) {
    ExpectError<SshProtocolError>("server's message has bytes after its last field", "",
                                  [this] { Run({peer::Writer().U8(52).U8(0)}); });
    ExpectError<SshProtocolError>("USERAUTH_FAILURE message ends too early", "",
                                  [this] { Run({peer::Writer().U8(51).String("password")}); });
    ExpectError<SshProtocolError>("USERAUTH_FAILURE message has bytes after its last field", "", [this] {
        Run({peer::Writer().U8(51).String("password").Bool(false).U8(0)});
    });
    ExpectError<SshProtocolError>("USERAUTH_BANNER message ends too early", "",
                                  [this] { Run({peer::Writer().U8(53).String("text")}); });
}

// --- publickey

TEST_F(UserAuthentication, KeyIsOfferedBeforeItSigns) {
    Key key;
    keys = {&key};
    EXPECT_EQ(Run({Failure("publickey"), key.Ok(), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(key.Query(), key.Signed()));
    // RFC 4252, section 7: what is signed.
    peer::Bytes const data =
        peer::Writer()
            .String(SESSION_ID)
            .Raw(MethodRequest("publickey").Bool(true).String(key.type).String(key.Blob()));
    EXPECT_THAT(key.signatures, ElementsAre("ssh-ed25519:" + peer::Hex(data)));
    EXPECT_EQ(key.unlocks_asked, 1);
    EXPECT_EQ(Error(), "");
}

TEST_F(UserAuthentication, NoPassphraseIsAskedForAKeyThatTheServerRefuses) {
    Key first, second;
    first.name = "FIRST";
    second.name = "SECOND";
    keys = {&first, &second};
    EXPECT_EQ(Run({Failure("publickey"), Failure("publickey"), second.Ok(), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(first.Query(), second.Query(), second.Signed()));
    EXPECT_EQ(first.unlocks_asked, 0);
    EXPECT_THAT(first.signatures, IsEmpty());
}

TEST_F(UserAuthentication, UnlockedKeySignsWithoutBeingOfferedFirst) {
    Key key;
    key.unlocked = true;
    keys = {&key};
    EXPECT_EQ(Run({Failure("publickey"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(key.Signed()));
}

TEST_F(UserAuthentication, KeyWithAnUnknownPublicHalfIsUnlockedFirst) {
    Key key, broken;
    key.blobKnown = broken.blobKnown = broken.unlocks = false;
    broken.name = "BROKEN";
    keys = {&broken, &key};
    EXPECT_EQ(Run({Failure("publickey"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(key.Signed()));
    EXPECT_EQ(key.unlocks_asked, 1);
    EXPECT_EQ(broken.unlocks_asked, 1);
}

TEST_F(UserAuthentication, RsaKeySignsWithSha2AndNeverWithSha1) {
    Key key;
    key.type = "ssh-rsa";
    keys = {&key};
    EXPECT_EQ(Run({Failure("publickey"), Failure("publickey"), Failure("publickey")}), -1);
    EXPECT_THAT(Sent(), ElementsAre(key.Query("rsa-sha2-512"), key.Query("rsa-sha2-256")));
    EXPECT_EQ(
        Error(),
        "login failed: the server accepts publickey; KEY: rsa-sha2-512 refused; KEY: rsa-sha2-256 refused");
}

TEST_F(UserAuthentication, RsaAlgorithmsFollowTheServersList) {
    struct {
        char const* server;
        std::vector<std::string> offered;
    } const cases[] = {
        {"", {"rsa-sha2-512", "rsa-sha2-256"}},
        {"ssh-rsa,rsa-sha2-256", {"rsa-sha2-256"}},
        {"rsa-sha2-512", {"rsa-sha2-512"}},
        {"rsa-sha2-256,rsa-sha2-512,ssh-ed25519", {"rsa-sha2-512", "rsa-sha2-256"}},
        {"ssh-rsa,ssh-ed25519", {}},
        {"rsa-sha2-5120", {}},
    };
    for (auto const& one : cases) {
        Key key;
        key.type = "ssh-rsa";
        keys = {&key};
        std::string const list = one.server;
        login.serverAlgorithms = &list;
        EXPECT_EQ(Run(std::vector<peer::Bytes>(1 + one.offered.size(), Failure("publickey"))), -1);
        std::vector<peer::Bytes> expected;
        for (std::string const& algorithm : one.offered) expected.push_back(key.Query(algorithm));
        EXPECT_EQ(Sent(), expected) << one.server;
    }
    EXPECT_EQ(Error(), "login failed: the server accepts publickey; KEY: there is no signature of a ssh-rsa "
                       "key that both sides allow");
}

TEST_F(UserAuthentication, ServersListIsReadAfterTheReplyToNone) {
    // EXT_INFO may come with the first answers (RFC 8308, section 2.4).
    class LatePort : public FakePort {
    public:
        LatePort(std::vector<peer::Bytes> messages, std::string& list)
            : FakePort(std::move(messages)), _list(list) {}
        View Receive() override {
            if (Sent().size() == 2) _list = "rsa-sha2-256";
            return FakePort::Receive();
        }

    private:
        std::string& _list;
    };
    Key key;
    key.type = "ssh-rsa";
    std::string list;
    login.serverAlgorithms = &list;
    LatePort late({Accept(), Failure("publickey"), Failure("publickey")}, list);
    UserAuthenticator authentication(
        late, login,
        [&](std::vector<std::string>&) {
            Identities identities;
            identities.push_back(std::make_unique<FakeIdentity>(key));
            return identities;
        },
        enter, questions);
    EXPECT_EQ(authentication.Run(), -1);
    EXPECT_THAT(late.Sent(), ElementsAre(ServiceRequest(), NoneRequest(), key.Query("rsa-sha2-256")));
}

TEST_F(UserAuthentication, OtherKeysFollowTheServersListIfItNamesMoreThanRsa) {
    for (auto const& [server, offered] :
         std::vector<std::pair<std::string, bool>>{{"ssh-ed25519", true},
                                                   {"rsa-sha2-256,rsa-sha2-512", true},
                                                   {"ecdsa-sha2-nistp256,rsa-sha2-512", false}}) {
        Key key;
        keys = {&key};
        login.serverAlgorithms = &server;
        std::vector<peer::Bytes> messages(offered ? 2 : 1, Failure("publickey"));
        EXPECT_EQ(Run(messages), -1);
        EXPECT_EQ(Sent().size(), offered ? 1u : 0u) << server;
    }
}

TEST_F(UserAuthentication, AlgorithmsAllowedSetTheOrderAndTheLimit) {
    Key rsa, ed25519, unknown;
    rsa.type = "ssh-rsa";
    ed25519.name = "ED";
    unknown.name = "SK";
    unknown.type = "sk-ssh-ed25519@openssh.com";
    keys = {&ed25519, &unknown, &rsa};
    login.algorithms = "rsa-sha2-256,rsa-sha2-512";
    EXPECT_EQ(Run({Failure("publickey"), Failure("publickey"), rsa.Ok("rsa-sha2-512"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(rsa.Query("rsa-sha2-256"), rsa.Query("rsa-sha2-512"),
                                    rsa.Signed("rsa-sha2-512")));
}

TEST_F(UserAuthentication, KeyThatCannotSignIsFollowedByTheNext) {
    Key refused, locked, good;
    refused.name = "REFUSED";
    refused.signs = false;
    locked.name = "LOCKED";
    locked.type = "ssh-rsa";
    locked.unlocks = false;
    keys = {&refused, &locked, &good};
    EXPECT_EQ(
        Run({Failure("publickey"), refused.Ok(), locked.Ok("rsa-sha2-512"), good.Ok(), Failure("publickey")}),
        -1);
    // The second algorithm of the locked key is not offered, since it can't be used.
    EXPECT_THAT(Sent(),
                ElementsAre(refused.Query(), locked.Query("rsa-sha2-512"), good.Query(), good.Signed()));
    EXPECT_EQ(
        Error(),
        "login failed: the server accepts publickey; REFUSED: the agent refused; LOCKED: no passphrase; KEY: "
        "ssh-ed25519 refused");
}

TEST_F(UserAuthentication, PkOkForAnotherKeyIsAnError) {
    Key key, other;
    other.name = "OTHER";
    keys = {&key};
    ExpectError<SshProtocolError>("USERAUTH_PK_OK message is for another key", "",
                                  [&] { Run({Failure("publickey"), other.Ok()}); });
    EXPECT_THAT(key.signatures, IsEmpty());
    ExpectError<SshProtocolError>("USERAUTH_PK_OK message has bytes after its last field", "",
                                  [&] { Run({Failure("publickey"), peer::Writer().Raw(key.Ok()).U8(0)}); });
    ExpectError<SshProtocolError>("USERAUTH_PK_OK message ends too early", "", [&] {
        Run({Failure("publickey"), peer::Writer().U8(60).String("ssh-ed25519")});
    });
}

TEST_F(UserAuthentication, PkOkWithAnotherAlgorithmNameIsAccepted) {
    Key key;
    key.type = "ssh-rsa";
    keys = {&key};
    EXPECT_EQ(Run({Failure("publickey"), key.Ok("ssh-rsa"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(key.Query("rsa-sha2-512"), key.Signed("rsa-sha2-512")));
}

TEST_F(UserAuthentication, PkOkAfterASignatureIsAnError) {
    Key key;
    key.unlocked = true;
    keys = {&key};
    ExpectError<SshProtocolError>("message out of place in user authentication", "60",
                                  [&] { Run({Failure("publickey"), key.Ok()}); });
}

TEST_F(UserAuthentication, KeysAreSearchedForOnceAndOnlyIfTheServerAcceptsThem) {
    Key key;
    keys = {&key};
    login.password = "secret";
    EXPECT_EQ(Run({Failure("password"), Failure("password")}), -1);
    EXPECT_EQ(searches, 0);
    EXPECT_EQ(
        Run({Failure("publickey,password"), Failure("publickey,password"), Failure("publickey,password")}),
        -1);
    EXPECT_EQ(searches, 1);
}

TEST_F(UserAuthentication, ReasonsForMissingKeysAreReported) {
    missing = {"/home/me/key: No such file or directory"};
    EXPECT_EQ(Run({Failure("publickey,hostbased")}), -1);
    EXPECT_EQ(
        Error(),
        "login failed: the server accepts publickey,hostbased; /home/me/key: No such file or directory");
}

// --- the server's limit of failures

TEST_F(UserAuthentication, OtherMethodsFollowAfterFourRefusedKeys) {
    Key many[8];
    for (Key& key : many) {
        key.name = "KEY" + std::to_string(&key - many);
        keys.push_back(&key);
    }
    login.password = "secret";
    std::vector<peer::Bytes> messages(5, Failure("publickey,password"));
    messages.push_back(Success());
    EXPECT_EQ(Run(messages), 0);
    std::vector<peer::Bytes> const sent = Sent();
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[3], many[3].Query());
    EXPECT_EQ(sent[4], PasswordRequest("secret"));
}

TEST_F(UserAuthentication, BothAlgorithmsOfAnRsaKeyCountAgainstTheLimit) {
    Key many[3];
    for (Key& key : many) {
        key.type = "ssh-rsa";
        keys.push_back(&key);
    }
    login.password = "secret";
    std::vector<peer::Bytes> messages(5, Failure("publickey,password"));
    messages.push_back(Success());
    EXPECT_EQ(Run(messages), 0);
    EXPECT_EQ(Sent().at(3), many[1].Query("rsa-sha2-256"));
    EXPECT_EQ(Sent().at(4), PasswordRequest("secret"));
}

TEST_F(UserAuthentication, RemainingKeysFollowWhenTheOtherMethodsAreUsedUp) {
    Key many[6];
    for (Key& key : many) {
        key.name = "KEY" + std::to_string(&key - many);
        keys.push_back(&key);
    }
    login.password = "secret";
    std::vector<peer::Bytes> messages(7, Failure("publickey,password"));
    messages.push_back(many[5].Ok());
    messages.push_back(Success());
    EXPECT_EQ(Run(messages), 0);
    EXPECT_THAT((std::vector<peer::Bytes>{Sent().at(4), Sent().at(5), Sent().at(6), Sent().at(7)}),
                ElementsAre(PasswordRequest("secret"), many[4].Query(), many[5].Query(), many[5].Signed()));
}

TEST_F(UserAuthentication, AllKeysAreTriedIfNoOtherMethodIsLeft) {
    Key many[8];
    for (Key& key : many) keys.push_back(&key);
    EXPECT_EQ(Run(std::vector<peer::Bytes>(9, Failure("publickey,password"))), -1); // there is no password
    EXPECT_EQ(Sent().size(), 8u);
}

TEST_F(UserAuthentication, KeysThatTheServerAcceptsButCannotSignDoNotCount) {
    Key many[6];
    for (Key& key : many) {
        key.signs = false;
        keys.push_back(&key);
    }
    login.password = "secret";
    std::vector<peer::Bytes> messages{Failure("publickey,password")};
    for (Key const& key : many) messages.push_back(key.Ok());
    messages.push_back(Success());
    EXPECT_EQ(Run(messages), 0);
    EXPECT_EQ(Sent().size(), 7u);
}

// --- password

TEST_F(UserAuthentication, GivenPasswordIsSentWithoutAQuestion) {
    login.password = "secret";
    enter._tries = 3;
    EXPECT_EQ(Run({Failure("password"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("secret")));
    EXPECT_THAT(enter.questions, IsEmpty());
}

TEST_F(UserAuthentication, UserIsAskedAsOftenAsThereAreTries) {
    login.password = "secret";
    enter._tries = 2;
    enter.answers = {"first", "", "never"};
    EXPECT_EQ(Run(std::vector<peer::Bytes>(4, Failure("password"))), -1);
    EXPECT_THAT(Sent(),
                ElementsAre(PasswordRequest("secret"), PasswordRequest("first"), PasswordRequest("")));
    EXPECT_THAT(enter.questions, ElementsAre("Password for|me@host:22", "Password for|me@host:22"));
    EXPECT_EQ(
        Error(),
        "login failed: the server accepts password; password: refused; password: refused; password: refused");
}

TEST_F(UserAuthentication, NoPasswordAndNoTriesSendNothing) {
    EXPECT_EQ(Run({Failure("password")}), -1);
    EXPECT_THAT(Sent(), IsEmpty());
    EXPECT_EQ(Error(), "login failed: the server accepts password");
}

TEST_F(UserAuthentication, LongPasswordIsSentWhole) {
    enter._tries = 1;
    enter.answers = {std::string(1000, 'x')};
    EXPECT_EQ(Run({Failure("password"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest(std::string(1000, 'x'))));
}

TEST_F(UserAuthentication, UserWhoDeclinesEndsThePasswordMethod) {
    enter._tries = 3;
    questions.answers = {{"answer"}};
    EXPECT_EQ(Run({Failure("password,keyboard-interactive"), Questions("", "", {{"?", false}}), Success()}),
              0);
    EXPECT_THAT(Sent(), ElementsAre(QuestionsRequest(), Answers({"answer"})));
    EXPECT_EQ(Run({Failure("password")}), -1);
    EXPECT_EQ(Error(), "login failed: the server accepts password; password: none was entered");
}

TEST_F(UserAuthentication, PresetOfTheProgramAnswersOnce) {
    enter._tries = 2;
    enter.Preset("preset");
    enter.answers = {"typed"};
    EXPECT_EQ(Run({Failure("password"), Failure("password"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("preset"), PasswordRequest("typed")));
}

TEST_F(UserAuthentication, ExpiredPasswordEndsTheMethodWithTheServersWords) {
    login.password = "secret";
    enter._tries = 3;
    EXPECT_EQ(Run({Failure("password"), ChangeRequest("Change it\x1b!\n")}), -1);
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("secret")));
    EXPECT_EQ(Error(), "login failed: the server accepts password; password: has expired and must be changed "
                       "first (Change it\\x1b!\\x0a)");
    ExpectError<SshProtocolError>("USERAUTH_PASSWD_CHANGEREQ message ends too early", "",
                                  [this] { Run({Failure("password"), peer::Writer().U8(60).String("x")}); });
}

// --- keyboard-interactive

TEST_F(UserAuthentication, QuestionsAreAnsweredInAnyNumberOfRounds) {
    questions.answers = {{"one", "two"}, {}, {"three"}};
    EXPECT_EQ(Run({Failure("keyboard-interactive"),
                   Questions("Name", "Instruction", {{"A: ", false}, {"B: ", true}}),
                   Questions("", "nothing to ask", {}), Questions("", "", {{"C", false}}), Success()}),
              0);
    EXPECT_THAT(Sent(),
                ElementsAre(QuestionsRequest(), Answers({"one", "two"}), Answers({}), Answers({"three"})));
    ASSERT_EQ(questions.requests.size(), 3u);
    EXPECT_EQ(questions.requests[0].name, "Name");
    EXPECT_EQ(questions.requests[0].instruction, "Instruction");
    EXPECT_THAT(questions.requests[0].prompts,
                ElementsAre(std::pair<std::string, bool>("(me@host:22) A: ", false),
                            std::pair<std::string, bool>("(me@host:22) B: ", true)));
    EXPECT_EQ(questions.requests[1].instruction, "nothing to ask");
}

TEST_F(UserAuthentication, QuestionsAreShownFiltered) {
    questions.answers = {{"x"}};
    EXPECT_EQ(Run({Failure("keyboard-interactive"), Questions("n\x1b[2J", "i\r\nj\x07", {{"\x9bp\t", false}}),
                   Success()}),
              0);
    EXPECT_EQ(questions.requests.at(0).name, "n\\x1b[2J");
    EXPECT_EQ(questions.requests.at(0).instruction, "i\nj\\x07");
    EXPECT_EQ(questions.requests.at(0).prompts.at(0).first, "(me@host:22) \\x9bp\t");
}

// A server could otherwise ask for the passphrase of a local key in the words of this library.
TEST_F(UserAuthentication, QuestionsCannotPassForLocalOnes) {
    questions.answers = {{"x"}};
    EXPECT_EQ(
        Run({Failure("keyboard-interactive"),
             Questions("", "", {{"Enter passphrase for /home/me/.ssh/id_ed25519: ", false}, {"", true}}),
             Failure("")}),
        -1);
    EXPECT_THAT(questions.requests.at(0).prompts,
                ElementsAre(std::pair<std::string, bool>(
                                "(me@host:22) Enter passphrase for /home/me/.ssh/id_ed25519: ", false),
                            std::pair<std::string, bool>("(me@host:22) ", true)));
}

TEST_F(UserAuthentication, EveryLineOfAQuestionSaysWhoAsks) {
    questions.answers = {{"x"}};
    EXPECT_EQ(
        Run({Failure("keyboard-interactive"),
             Questions("", "", {{"1. Push\n2. Call\n\nPasscode: ", false}, {"Token\n", true}}), Failure("")}),
        -1);
    EXPECT_THAT(questions.requests.at(0).prompts,
                ElementsAre(std::pair<std::string, bool>("(me@host:22) 1. Push\n(me@host:22) 2. Call\n"
                                                         "(me@host:22) \n(me@host:22) Passcode: ",
                                                         false),
                            std::pair<std::string, bool>("(me@host:22) Token\n(me@host:22) ", true)));
}

TEST_F(UserAuthentication, GivenPasswordIsNotSentToQuestions) {
    login.password = "secret";
    questions.answers = {{"own"}};
    EXPECT_EQ(Run({Failure("keyboard-interactive"), Questions("", "", {{"Password: ", false}}), Success()}),
              0);
    EXPECT_THAT(Sent(), ElementsAre(QuestionsRequest(), Answers({"own"})));
}

TEST_F(UserAuthentication, RefusedAnswersEndTheMethod) {
    questions.answers = {{"x"}, {"y"}};
    EXPECT_EQ(Run({Failure("keyboard-interactive"), Questions("", "", {{"?", false}}),
                   Failure("keyboard-interactive")}),
              -1);
    EXPECT_EQ(questions.requests.size(), 1u);
    EXPECT_EQ(Error(),
              "login failed: the server accepts keyboard-interactive; keyboard-interactive: refused");
    EXPECT_EQ(Run({Failure("keyboard-interactive"), Failure("keyboard-interactive")}), -1);
    EXPECT_THAT(Sent(), ElementsAre(QuestionsRequest()));
}

TEST_F(UserAuthentication, AnotherNumberOfAnswersIsNotSent) {
    for (std::vector<std::string> const& answers :
         std::vector<std::vector<std::string>>{{}, {"a"}, {"a", "b", "c"}}) {
        questions = RecordingCallback();
        questions.answers = {answers};
        EXPECT_EQ(Run({Failure("keyboard-interactive"), Questions("", "", {{"?", false}, {"!", false}})}),
                  -1);
        EXPECT_THAT(Sent(), ElementsAre(QuestionsRequest()));
        EXPECT_EQ(Error(), "login failed: the server accepts keyboard-interactive; keyboard-interactive: not "
                           "all questions were answered");
    }
}

TEST_F(UserAuthentication, BrokenQuestionsAreAnError) {
    ExpectError<SshProtocolError>("USERAUTH_INFO_REQUEST message ends too early", "", [this] {
        Run({Failure("keyboard-interactive"),
             peer::Writer().U8(60).String("").String("").String("").U32(0xffffffff).String("?").Bool(false)});
    });
    ExpectError<SshProtocolError>("USERAUTH_INFO_REQUEST message has bytes after its last field", "", [this] {
        Run({Failure("keyboard-interactive"),
             peer::Writer().U8(60).String("").String("").String("").U32(0).U8(0)});
    });
    EXPECT_THAT(questions.requests, IsEmpty());
}

// --- order and partial success

TEST_F(UserAuthentication, MethodsAreTriedInTheClientsOrder) {
    Key key;
    keys = {&key};
    login.password = "secret";
    std::string const all = "keyboard-interactive,password,publickey";
    EXPECT_EQ(Run(std::vector<peer::Bytes>(4, Failure(all))), -1);
    EXPECT_THAT(Sent(), ElementsAre(key.Query(), PasswordRequest("secret"), QuestionsRequest()));
    EXPECT_EQ(Error(), "login failed: the server accepts " + all +
                           "; KEY: ssh-ed25519 refused; password: refused; keyboard-interactive: refused");
}

TEST_F(UserAuthentication, MethodThatTheServerNoLongerAcceptsIsSkipped) {
    Key first, second;
    keys = {&first, &second};
    login.password = "secret";
    EXPECT_EQ(
        Run({Failure("publickey,password"), Failure("password"), Failure("publickey"), Failure("hostbased")}),
        -1);
    EXPECT_THAT(Sent(), ElementsAre(first.Query(), PasswordRequest("secret"), second.Query()));
}

TEST_F(UserAuthentication, KeyThenPassword) {
    Key first, second;
    second.name = "SECOND";
    keys = {&first, &second};
    login.password = "secret";
    EXPECT_EQ(Run({Failure("publickey"), first.Ok(), Partial("password"), Success()}), 0);
    EXPECT_THAT(Sent(), ElementsAre(first.Query(), first.Signed(), PasswordRequest("secret")));
}

TEST_F(UserAuthentication, KeyThenAnotherKey) {
    Key first, second;
    first.type = "ssh-rsa";
    second.name = "SECOND";
    keys = {&first, &second};
    EXPECT_EQ(
        Run({Failure("publickey"), first.Ok("rsa-sha2-512"), Partial("publickey"), second.Ok(), Success()}),
        0);
    EXPECT_THAT(Sent(), ElementsAre(first.Query("rsa-sha2-512"), first.Signed("rsa-sha2-512"), second.Query(),
                                    second.Signed()));
}

TEST_F(UserAuthentication, PasswordThenQuestionsThenKey) {
    Key key;
    keys = {&key};
    login.password = "secret";
    questions.answers = {{"x"}};
    EXPECT_EQ(Run({Failure("password"), Partial("keyboard-interactive,password"),
                   Questions("", "", {{"?", false}}), Partial("publickey"), key.Ok(), Success()}),
              0);
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("secret"), QuestionsRequest(), Answers({"x"}),
                                    key.Query(), key.Signed()));
}

TEST_F(UserAuthentication, PasswordThatWasAcceptedIsNotSentAgain) {
    login.password = "secret";
    enter._tries = 3;
    EXPECT_EQ(Run({Failure("password"), Partial("password")}), -1);
    EXPECT_THAT(Sent(), ElementsAre(PasswordRequest("secret")));
    EXPECT_THAT(enter.questions, IsEmpty());
}

TEST_F(UserAuthentication, QuestionsMayFollowQuestionsThatWereAccepted) {
    questions.answers = {{"x"}, {"y"}};
    EXPECT_EQ(Run({Failure("keyboard-interactive"), Questions("", "", {{"?", false}}),
                   Partial("keyboard-interactive"), Questions("", "", {{"!", false}}), Success()}),
              0);
    EXPECT_EQ(questions.requests.size(), 2u);
}

TEST_F(UserAuthentication, EndlessPartialSuccessIsAnError) {
    std::vector<peer::Bytes> messages(100, Partial("keyboard-interactive"));
    ExpectError<SshProtocolError>("the server goes on asking for authentication after each success", "",
                                  [&] { Run(messages); });
    EXPECT_EQ(port->Sent().size(), 2u + 16u);
}

// --- banner

TEST_F(UserAuthentication, BannerIsPrintedFilteredWheneverItArrives) {
    Key key;
    keys = {&key};
    login.password = "secret";
    questions.answers = {{"x"}};
    EXPECT_EQ(Run({BannerMessage("Hello\r\n\x1b]0;title\x07\n"), Failure("publickey"), BannerMessage("two\n"),
                   key.Ok(), BannerMessage("three"), Partial("password"), BannerMessage(""),
                   Partial("keyboard-interactive"), BannerMessage("\tfour"),
                   Questions("", "", {{"?", false}}), BannerMessage("five\n"), Success()}),
              0);
    EXPECT_EQ(captured.Text(), "Hello\n\\x1b]0;title\\x07\ntwo\nthree\tfourfive\n");
    EXPECT_EQ(authenticator->Banner(), "five\n");
    EXPECT_EQ(captured.Flushes(), 6);
}

TEST_F(UserAuthentication, ReasonsStayWhenTheServerEndsTheConnection) {
    Key first, second;
    keys = {&first, &second};
    ExpectError<SshProtocolError>("end of the script", "",
                                  [&] { Run({Failure("publickey"), Failure("publickey")}); });
    EXPECT_EQ(Error(), "login failed: the server accepts publickey; KEY: ssh-ed25519 refused");
}
