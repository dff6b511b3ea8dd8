#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standard/find_identities.h"
#include "standard/user_auth.h"
#include "unit/cindral/freed_memory.h"
#include "unit/cindral/key_files.h"

using namespace cindral::standard;

namespace {

using cindral::standard::Bytes;

char const SECRET[] = "correct horse battery staple";

/// Answers with a list and keeps nothing of what it gets.
class ForgetfulPort : public MessagePort {
public:
    explicit ForgetfulPort(std::deque<Bytes> messages) : _messages(std::move(messages)) {}

    void Send(View message) override { sawSecret |= message.Text().find(SECRET) != std::string_view::npos; }
    View Receive() override {
        _current = _messages.front();
        _messages.pop_front();
        return _current;
    }

    bool sawSecret = false;

private:
    std::deque<Bytes> _messages;
    Bytes _current;
};

/// Types the secret.
class Typist : public cindral::EnterPassword {
public:
    Typist() : EnterPassword(1, "") {}
    int operator()(char* buffer, unsigned int) override {
        std::memcpy(buffer, SECRET, sizeof SECRET - 1);
        return sizeof SECRET - 1;
    }
};

/// Answers the secret, and keeps no copy.
class Answerer : public cindral::KbdInteractiveCallback {
public:
    TOList<String_t> operator()(String_t const&, String_t const&, TOList<cindral::Prompt> const&) override {
        TOList<String_t> answers;
        answers.Append(String_t(SECRET));
        return answers;
    }
};

Bytes const ACCEPT = Writer(6).String("ssh-userauth").Take();
Bytes const SUCCESS = Writer(52).Take();
Bytes Failure(char const* methods) { return Writer(51).String(methods).Bool(false).Take(); }

/// Runs an authentication and expects that the secret has been sent, and is in no memory given back.
void ExpectWiped(std::deque<Bytes> messages, View password) {
    ForgetfulPort port(std::move(messages));
    Login login;
    login.user = "me";
    login.password = password;
    Typist typist;
    Answerer answerer;
    std::string const secret = SECRET;
    FreedMemory const freed(secret);
    {
        UserAuthenticator authenticator(
            port, login, [](std::vector<std::string>&) { return Identities(); }, typist, answerer);
        EXPECT_EQ(authenticator.Run(), 0);
    }
    EXPECT_TRUE(port.sawSecret);
    EXPECT_GT(freed.OfNew()._freed, 0u);
    EXPECT_EQ(freed.OfNew()._withSecret, 0u);
}

/// An encrypted key under the secret.
class WipedPassphrase : public KeyFiles {};

} // namespace

TEST(WipedSecrets, GivenPasswordIsNotLeftInFreedMemory) {
    ExpectWiped({ACCEPT, Failure("password"), SUCCESS}, SECRET);
}

TEST(WipedSecrets, TypedPasswordIsNotLeftInFreedMemory) {
    ExpectWiped({ACCEPT, Failure("password"), SUCCESS}, View());
}

TEST(WipedSecrets, AnswersAreNotLeftInFreedMemory) {
    cindral::standard::Bytes const question =
        Writer(60).String("").String("").String("").Int(1).String("Password: ").Bool(false).Take();
    ExpectWiped({ACCEPT, Failure("keyboard-interactive"), question, SUCCESS}, View());
}

TEST_F(WipedPassphrase, IsNotLeftInFreedMemory) {
    Keygen("key", "-t ed25519 -a 1", SECRET);
    Typist typist;
    std::string const secret = SECRET;
    for (View const given : {View(), View(SECRET)}) {
        FreedMemory const freed(secret);
        std::vector<std::string> notes;
        Identities identities =
            FindIdentities(Path("key"), std::make_shared<AgentClient>(""), given, typist, notes);
        std::string reason;
        ASSERT_EQ(identities.size(), 1u);
        EXPECT_TRUE(identities[0]->Unlock(reason)) << reason;
        identities.clear();
        EXPECT_GT(freed.OfNew()._freed, 0u);
        EXPECT_EQ(freed.OfNew()._withSecret, 0u);
        EXPECT_EQ(freed.OfOpenSSL()._withSecret, 0u);
    }
}
