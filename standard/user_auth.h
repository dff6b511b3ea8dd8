#ifndef BRANTLE_STANDARD_USER_AUTH_H
#define BRANTLE_STANDARD_USER_AUTH_H

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <brantle/cindral/enter_password.h>
#include <brantle/session/kbd_interactive.h>

#include "standard/identity.h"
#include "standard/message_port.h"

namespace cindral::standard {

/// Who logs in where. What is referred to outlives the authenticator.
struct Login {
    View sessionId;
    std::string user;
    std::string host;       ///< for prompts, such as "example.org:22"
    View password;          ///< sent before the user is asked; empty: none
    std::string algorithms; ///< signatures that may be made, comma-separated, best first
    std::string const* serverAlgorithms = nullptr; ///< "server-sig-algs" (RFC 8308, section 3.1) as far as it
                                                   ///< has come; null or empty: unknown
};

/// User authentication: RFC 4252, and RFC 4256 for keyboard-interactive.
///
/// Tries publickey, then password, then keyboard-interactive, as far as the server takes them at that moment;
/// a partial success goes on with the methods that the server asks for next. Within that:
///
/// - A key is offered without a signature first, so that nobody is asked for a passphrase, and no agent for
/// its
///   user's consent, in vain; one whose private half is at hand already saves that round trip. No key is
///   offered twice. An RSA key signs with SHA-2 alone: by the server's list if there is one, else
///   rsa-sha2-512 first.
/// - OpenSSH's server allows six failures, of which the sixth ends the connection. So after five refused
/// offers of
///   keys the other methods come first; what is left of the keys follows when they are used up.
/// - The password given is sent once, then the user is asked as often as `enter` has tries. A password that
/// has
///   expired ends the method, as does one that has been accepted.
/// - keyboard-interactive is tried once, and again after each partial success. The password is never sent to
/// the
///   server's prompts.
class UserAuthenticator {
public:
    /// Called when the server takes keys for the first time; appends to the notes why a key is missing.
    using FindIdentities = std::function<Identities(std::vector<std::string>& notes)>;

    UserAuthenticator(MessagePort& port, Login const& login, FindIdentities identities, EnterPassword& enter,
                      KbdInteractiveCallback& answer);

    /// Requests the service and authenticates. Returns 0, or -1 if no method is left. Throws SshProtocolError
    /// for messages that break the protocol, and what the port throws.
    int Run();

    /// The server's last banner (RFC 4252, section 5.4) as it has been printed on standard output, filtered.
    std::string const& Banner() const { return _banner; }
    /// Which methods the server takes still, and what has been tried and why it failed; empty after success.
    std::string LastError() const;

private:
    enum Answer { SUCCESS, FAILURE, PARTIAL_SUCCESS, METHOD_REPLY };
    enum Method { NONE, PUBLIC_KEY, PASSWORD, QUESTIONS };

    /// A key and the algorithm that it would sign with; without a name both are still to be learnt.
    struct Offer {
        Identity* identity;
        std::string algorithm;
    };

    void RequestService();
    Method NextMethod();
    void Try(Method method);
    bool Takes(char const* method) const;

    void FindKeys();
    std::vector<Offer> OffersOf(Identity& identity);
    void TryKey();
    bool IsWanted(Offer const& offer);
    void SendSigned(Offer const& offer);
    void JudgeKey(Offer const& offer, Answer answer);
    void DropOffers(Identity const& identity);

    void TryPassword();
    bool AskPassword(SecretBytes& password);
    void RefuseChange(View message);

    void TryQuestions();
    bool AnswerQuestions(View message);

    Answer Receive(View& message);
    Answer ReceiveVerdict();
    bool TakeFailure(View message);
    void ShowBanner(View message);
    void Note(std::string const& subject, std::string const& text) {
        _notes.push_back(subject + ": " + text);
    }

    MessagePort& _port;
    Login const& _login;
    FindIdentities _findIdentities;
    EnterPassword& _enter;
    KbdInteractiveCallback& _answer;

    std::string _methods; ///< that can continue, by the server's last failure message
    bool _authenticated = false;
    unsigned int _partialSuccesses = 0;

    bool _keysFound = false;
    Identities _identities;
    std::deque<Offer> _offers;
    unsigned int _keyFailures = 0;
    bool _passwordSent = false; ///< the one given
    bool _passwordEnded = false;
    unsigned int _passwordTries;
    bool _questionsEnded = false;

    std::string _banner;
    std::vector<std::string> _notes;
};

} // namespace cindral::standard

#endif
