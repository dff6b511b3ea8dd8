// A server's messages to the user authentication of the standard dialect. The first byte chooses what the
// user has to offer; each message has its length in two bytes before it.
//
// The password is sent only in a request of its method, answers only to questions, and only SshProtocolError
// ends it early.

#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "finding.h"
#include "standard/algorithms.h"
#include "standard/user_auth.h"

using namespace cindral::standard;
using cindral::EnterPassword;
using cindral::KbdInteractiveCallback;
using cindral::Prompt;
using cindral::SshProtocolError;
using fuzz::Require;

namespace {

char const PASSWORD[] = "a password";
char const ANSWER[] = "an answer";

enum : unsigned int { GIVEN = 1, TYPED = 2, KEYS = 4, UNLOCKED = 8, UNKNOWN = 16, LIST = 32 };

bool Has(View message, char const* text) { return message.Text().find(text) != std::string_view::npos; }

class InputPort : public MessagePort {
public:
    explicit InputPort(View input) : _input(input) {}

    void Send(View message) override {
        Require(message.size() > 0, "Send", "has no message number");
        Require(!Has(message, PASSWORD) || Has(message, "password"), "Send", "shows the password elsewhere");
        Require(!Has(message, PASSWORD) || (message[0] == 50 && _asked), "Send",
                "shows a password nobody asked for");
        Require(!Has(message, ANSWER) || (message[0] == 61 && _last == 60), "Send",
                "answers what is no question");
    }
    View Receive() override {
        if (_input.size() < 2) throw SshProtocolError("end of input");
        std::size_t const size =
            std::min<std::size_t>(static_cast<std::size_t>(_input[0] << 8 | _input[1]), _input.size() - 2);
        _message =
            View(_input.data() + 2, size).Copy(); // so that a view of the one before is seen to be used
        _input = View(_input.data() + 2 + size, _input.size() - 2 - size);
        _last = _message.empty() ? 0 : _message[0];
        _asked |= _last == 51 && Has(_message, "password");
        return _message;
    }

private:
    View _input;
    Bytes _message;
    int _last = 0;
    bool _asked = false; ///< for a password
};

class Key : public Identity {
public:
    Key(char const* type, unsigned int options)
        : Identity(options & UNKNOWN ? Bytes() : Blob(type), "KEY"), _type(type),
          _unlocked(options & UNLOCKED) {}

    bool IsUnlocked() const override { return _unlocked; }
    bool Unlock(std::string&) override {
        _blob = Blob(_type);
        return _unlocked = true;
    }
    bool Sign(std::string const& algorithm, View data, Bytes& signature, std::string&) override {
        Require(_unlocked, "Sign", "is called for a locked key");
        signature = Writer().String(algorithm).String(data).Take();
        return true;
    }

private:
    static Bytes Blob(char const* type) { return Writer().String(type).String("body").Take(); }

    char const* _type;
    bool _unlocked;
};

class Typist : public EnterPassword {
public:
    explicit Typist(unsigned int tries) : EnterPassword(tries, "") {}
    int operator()(char* buffer, unsigned int) override {
        std::copy(PASSWORD, PASSWORD + sizeof PASSWORD - 1, buffer);
        return sizeof PASSWORD - 1;
    }
};

class Answerer : public KbdInteractiveCallback {
public:
    TOList<String_t> operator()(String_t const&, String_t const&, TOList<Prompt> const& prompts) override {
        TOList<String_t> answers;
        for (unsigned int i = prompts.Len(); i > 0; --i) answers.Append(String_t(ANSWER));
        return answers;
    }
};

void Authenticate(unsigned int options, View input) {
    std::string const list = options & LIST ? "rsa-sha2-256,ssh-ed25519" : "";
    Login login;
    login.user = "me";
    login.algorithms = DefaultAlgorithms(AlgorithmKind::PUBLIC_KEY);
    login.serverAlgorithms = &list;
    if (options & GIVEN) login.password = PASSWORD;
    InputPort port(input);
    Typist typist(options & TYPED ? 3 : 0);
    Answerer answerer;
    UserAuthenticator authenticator(
        port, login,
        [options](std::vector<std::string>&) {
            Identities keys;
            if (options & KEYS)
                for (char const* type : {"ssh-ed25519", "ssh-rsa", "ssh-dss"})
                    keys.push_back(std::make_unique<Key>(type, options));
            return keys;
        },
        typist, answerer);
    try {
        int const result = authenticator.Run();
        Require((result == 0) == authenticator.LastError().empty(), "LastError", "contradicts the result");
    } catch (SshProtocolError const&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    std::ostringstream shown; // the banners
    std::streambuf* const output = std::cout.rdbuf(shown.rdbuf());
    Authenticate(data[0], View(data + 1, size - 1));
    std::cout.rdbuf(output);
    Require(shown.str().find_first_of("\x1b\r\x7f") == std::string::npos, "banner", "is not filtered");
    return 0;
}
