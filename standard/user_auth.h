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

/// Who logs in where. What it refers to must outlive the authenticator.
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
/// Tries publickey, then password, then keyboard-interactive, as far as the server accepts them at that time;
/// after a partial success it continues with the methods that the server then asks for. Details:
///
/// - A key is first offered without a signature, so that the user is not asked for a passphrase, nor an agent
///   for its user's consent, in vain. An unlocked key skips that round trip. No key is offered twice. An RSA
///   key signs only with SHA-2: according to the server's list if there is one, else with rsa-sha2-512 first.
/// - OpenSSH's server allows six failures, of which the sixth ends the connection. So after five refused
///   offers the other methods come first, and the remaining keys follow when those are used up.
/// - The password given is sent once, then the user is asked as often as `enter` allows tries. An expired
///   password ends the method, as does an accepted one.
/// - keyboard-interactive is tried once, and again after each partial success. The password given is never
///   sent in answer to the server's prompts, which are shown with "(user@host) " before them.
class UserAuthenticator {
public:
    /// Called when the server first accepts keys; appends to the notes why a key is missing.
    using FindIdentities = std::function<Identities(std::vector<std::string>& notes)>;

    UserAuthenticator(MessagePort& port, Login const& login, FindIdentities identities, EnterPassword& enter,
                      KbdInteractiveCallback& answer);

    /// Requests the service and authenticates. Returns 0, or -1 if no method is left. Throws SshProtocolError
    /// for messages that violate the protocol, and what the port throws.
    int Run();

    /// Whether the password given has been sent.
    bool HasSentPassword() const { return _passwordSent; }
    /// The server's last banner (RFC 4252, section 5.4) as it has been printed on standard output, filtered.
    std::string const& Banner() const { return _banner; }
    /// Which methods the server still accepts, and what has been tried and why it failed; empty after
    /// success.
    std::string LastError() const;

private:
    enum Answer { SUCCESS, FAILURE, PARTIAL_SUCCESS, METHOD_REPLY };
    enum Method { NONE, PUBLIC_KEY, PASSWORD, QUESTIONS };

    /// A key and the algorithm that it would sign with; if the name is empty, neither is known yet.
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
    unsigned int _banners = 0;
    std::vector<std::string> _notes;
};

} // namespace cindral::standard

#endif
