#include <algorithm>
#include <iostream>

#include "standard/algorithms.h"
#include "standard/printable.h"
#include "standard/signature_scheme.h"
#include "standard/user_auth.h"

namespace cindral::standard {

namespace {

constexpr int MSG_SERVICE_REQUEST = 5;
constexpr int MSG_SERVICE_ACCEPT = 6;
constexpr int MSG_REQUEST = 50;
constexpr int MSG_FAILURE = 51;
constexpr int MSG_SUCCESS = 52;
constexpr int MSG_BANNER = 53;
constexpr int MSG_METHOD_REPLY = 60; ///< PK_OK, PASSWD_CHANGEREQ or INFO_REQUEST, depending on the method
constexpr int MSG_INFO_RESPONSE = 61;

char const USERAUTH[] = "ssh-userauth";
char const CONNECTION[] = "ssh-connection";

constexpr unsigned int MAX_KEY_FAILURES =
    4; ///< while another method is left: sshd ends after 6 of all methods
constexpr unsigned int MAX_PARTIAL_SUCCESSES = 16;
constexpr unsigned int MAX_BANNERS = 100;
constexpr unsigned int MAX_QUESTION_ROUNDS = 100; ///< of one attempt
constexpr unsigned int MAX_TYPED_PASSWORD = 1024;

/// A request of that method, up to its method-specific fields.
template <class Array>
BasicWriter<Array> Request(std::string const& user, char const* method) {
    BasicWriter<Array> request(MSG_REQUEST);
    request.String(user).String(CONNECTION).String(method);
    return request;
}

Writer KeyRequest(std::string const& user, bool isSigned, std::string const& algorithm, View key) {
    Writer request = Request<Bytes>(user, "publickey");
    request.Bool(isSigned).String(algorithm).String(key);
    return request;
}

/// Whether the server accepts that algorithm, according to its list if it has sent one. A list of only RSA
/// algorithms, as OpenSSH 7.2 to 7.5 sends it, says nothing about others.
bool ServerTakes(SignatureAlgorithm const& algorithm, std::string const* list) {
    if (!list || list->empty() || HasName(*list, algorithm.name)) return true;
    if (std::string_view(algorithm.keyType) == "ssh-rsa") return false;
    std::vector<std::string> const names = SplitNames(*list);
    return std::all_of(names.begin(), names.end(), [](std::string const& name) {
        return name == "ssh-rsa" || name == "rsa-sha2-256" || name == "rsa-sha2-512";
    });
}

String_t Shown(View text) { return String_t(Printable(text, Lines::KEPT).c_str()); }

/// The question with who asks in front of each line.
std::string AskedBy(std::string const& asker, View question) {
    std::string text = asker + Printable(question, Lines::KEPT);
    for (std::size_t end = 0; (end = text.find('\n', end)) != std::string::npos; end += asker.size())
        text.insert(++end, asker);
    return text;
}

void Wipe(TOList<String_t>& answers) {
    TOListIterator<String_t> next(answers);
    while (String_t* const answer = next()) WipeUnshared(*answer);
}

} // namespace

UserAuthenticator::UserAuthenticator(MessagePort& port, Login const& login, FindIdentities identities,
                                     EnterPassword& enter, KbdInteractiveCallback& answer)
    : _port(port), _login(login), _findIdentities(std::move(identities)), _enter(enter), _answer(answer),
      _passwordTries(enter._tries) {}

int UserAuthenticator::Run() {
    RequestService();
    // The failure message lists the methods (RFC 4252, section 5.2).
    _port.Send(Request<Bytes>(_login.user, "none").Get());
    ReceiveVerdict();
    while (!_authenticated) {
        Method const method = NextMethod();
        if (method == NONE) return -1;
        Try(method);
    }
    return 0;
}

void UserAuthenticator::RequestService() {
    _port.Send(Writer(MSG_SERVICE_REQUEST).String(USERAUTH).Get());
    Reader reader(_port.Receive(), "SERVICE_ACCEPT");
    int const number = reader.Byte();
    if (number != MSG_SERVICE_ACCEPT) throw SshProtocolError("user authentication is not accepted", number);
    // Servers older than RFC 4253 omit the name.
    if (reader.Left() > 0 && reader.String() != View(USERAUTH)) reader.Fail("is for another service");
    reader.End();
}

// --- methods

bool UserAuthenticator::Takes(char const* method) const { return HasName(_methods, method); }

UserAuthenticator::Method UserAuthenticator::NextMethod() {
    if (Takes("publickey")) FindKeys();
    bool const key = Takes("publickey") && !_offers.empty();
    bool const given = !_login.password.empty() && !_passwordSent;
    bool const password = Takes("password") && !_passwordEnded && (given || _passwordTries > 0);
    bool const questions = Takes("keyboard-interactive") && !_questionsEnded;
    if (key && (_keyFailures < MAX_KEY_FAILURES || !(password || questions))) return PUBLIC_KEY;
    return password ? PASSWORD : questions ? QUESTIONS : NONE;
}

void UserAuthenticator::Try(Method method) {
    if (method == PUBLIC_KEY) TryKey();
    if (method == PASSWORD) TryPassword();
    if (method == QUESTIONS) TryQuestions();
}

// --- publickey (RFC 4252, section 7)

void UserAuthenticator::FindKeys() {
    if (_keysFound) return;
    _keysFound = true;
    _identities = _findIdentities(_notes);
    if (_identities.empty() && _notes.empty()) Note("publickey", "there is no key, in a file or an agent");
    for (std::unique_ptr<Identity> const& identity : _identities)
        for (Offer const& offer : OffersOf(*identity)) _offers.push_back(offer);
}

std::vector<UserAuthenticator::Offer> UserAuthenticator::OffersOf(Identity& identity) {
    if (identity.Blob().empty()) return {{&identity, ""}};
    std::vector<Offer> offers;
    std::string const type = KeyTypeOf(identity.Blob());
    for (std::string const& name : SplitNames(_login.algorithms)) {
        SignatureAlgorithm const& algorithm = FindSignature(name);
        if (type == algorithm.keyType && ServerTakes(algorithm, _login.serverAlgorithms))
            offers.push_back({&identity, name});
    }
    if (offers.empty())
        Note(identity.Name(), "there is no signature of a " + Printable(type) + " key that both sides allow");
    return offers;
}

void UserAuthenticator::TryKey() {
    Offer const offer = _offers.front();
    _offers.pop_front();
    Identity& identity = *offer.identity;
    std::string reason;
    if (!identity.Blob().empty() && !IsWanted(offer)) return;
    if (!identity.Unlock(reason)) {
        Note(identity.Name(), reason);
        DropOffers(identity);
    } else if (offer.algorithm.empty()) {
        std::vector<Offer> const learnt = OffersOf(identity);
        _offers.insert(_offers.begin(), learnt.begin(), learnt.end());
    } else {
        SendSigned(offer);
    }
}

/// Asks whether the server would accept the key, unless that costs more than it saves.
bool UserAuthenticator::IsWanted(Offer const& offer) {
    Identity& identity = *offer.identity;
    if (identity.IsUnlocked()) return true;
    _port.Send(KeyRequest(_login.user, false, offer.algorithm, identity.Blob()).Get());
    View message;
    Answer const answer = Receive(message);
    if (answer != METHOD_REPLY) {
        JudgeKey(offer, answer);
        return false;
    }
    Reader reader(message, "USERAUTH_PK_OK");
    reader.Byte();
    reader.String(); // the algorithm, which servers fill in differently
    if (reader.String() != View(identity.Blob())) reader.Fail("is for another key");
    reader.End();
    return true;
}

void UserAuthenticator::SendSigned(Offer const& offer) {
    Identity& identity = *offer.identity;
    Writer request = KeyRequest(_login.user, true, offer.algorithm, identity.Blob());
    SecretWriter data;
    data.String(_login.sessionId).Fixed(request.Get());
    Bytes signature;
    std::string reason;
    if (!identity.Sign(offer.algorithm, data.Get(), signature, reason)) {
        Note(identity.Name(), reason);
        return;
    }
    _port.Send(request.String(signature).Get());
    JudgeKey(offer, ReceiveVerdict());
}

/// Records the server's reply.
void UserAuthenticator::JudgeKey(Offer const& offer, Answer answer) {
    if (answer == FAILURE) {
        ++_keyFailures;
        Note(offer.identity->Name(), offer.algorithm + " refused");
    } else {
        DropOffers(*offer.identity); // it has been accepted
    }
}

void UserAuthenticator::DropOffers(Identity const& identity) {
    auto const isOfKey = [&](Offer const& offer) { return offer.identity == &identity; };
    _offers.erase(std::remove_if(_offers.begin(), _offers.end(), isOfKey), _offers.end());
}

// --- password (RFC 4252, section 8)

void UserAuthenticator::TryPassword() {
    SecretWriter request = Request<SecretBytes>(_login.user, "password");
    request.Bool(false);
    if (!_login.password.empty() && !_passwordSent) {
        _passwordSent = true;
        request.String(_login.password);
    } else {
        SecretBytes password;
        if (!AskPassword(password)) return;
        request.String(password);
    }
    _port.Send(request.Get());
    View message;
    Answer const answer = Receive(message);
    if (answer == FAILURE) Note("password", "refused");
    if (answer == PARTIAL_SUCCESS) _passwordEnded = true;
    if (answer == METHOD_REPLY) RefuseChange(message);
}

bool UserAuthenticator::AskPassword(SecretBytes& password) {
    if (_passwordTries == _enter._tries)
        _enter.SetPrompt("Password for", (_login.user + "@" + _login.host).c_str());
    --_passwordTries;
    if (_enter.HasPreset()) {
        String_t const preset = _enter.UsePreset();
        View const secret(preset.Text());
        password.assign(secret.begin(), secret.end());
        return true;
    }
    password.resize(MAX_TYPED_PASSWORD);
    int const size = _enter(reinterpret_cast<char*>(password.data()), MAX_TYPED_PASSWORD);
    if (size < 0) {
        _passwordEnded = true;
        Note("password", "none was entered");
        return false;
    }
    password.resize(std::min<std::size_t>(static_cast<unsigned int>(size), MAX_TYPED_PASSWORD));
    return true;
}

void UserAuthenticator::RefuseChange(View message) {
    Reader reader(message, "USERAUTH_PASSWD_CHANGEREQ");
    reader.Byte();
    std::string const prompt = Printable(reader.String());
    reader.String(); // language
    reader.End();
    _passwordEnded = true;
    Note("password", "has expired and must be changed first (" + prompt + ")");
}

// --- keyboard-interactive (RFC 4256)

void UserAuthenticator::TryQuestions() {
    _questionsEnded = true;
    Writer request = Request<Bytes>(_login.user, "keyboard-interactive");
    _port.Send(request.String("").String("").Get()); // language, submethods
    for (unsigned int round = 0; round < MAX_QUESTION_ROUNDS; ++round) {
        View message;
        Answer const answer = Receive(message);
        if (answer == FAILURE) Note("keyboard-interactive", "refused");
        if (answer != METHOD_REPLY) return;
        if (!AnswerQuestions(message)) return;
    }
    throw SshProtocolError("the server asks questions without end");
}

/// Answers one request, which may have no questions. False if the callback declines.
bool UserAuthenticator::AnswerQuestions(View message) {
    Reader reader(message, "USERAUTH_INFO_REQUEST");
    reader.Byte();
    String_t const name = Shown(reader.String());
    String_t const instruction = Shown(reader.String());
    reader.String(); // language
    unsigned int const count = reader.Int();
    TOList<Prompt> prompts;
    // As OpenSSH does, but on every line: the last one shown may be taken for a question of this side.
    std::string const asker = "(" + _login.user + "@" + _login.host + ") ";
    for (unsigned int i = 0; i < count; ++i) {
        Prompt* const prompt = prompts.Append(Prompt());
        prompt->_text = AskedBy(asker, reader.String()).c_str();
        prompt->_echo = reader.Bool() ? 1 : 0;
    }
    reader.End();

    TOList<String_t> answers = _answer(name, instruction, prompts);
    bool const complete = answers.Len() == count;
    SecretWriter response(MSG_INFO_RESPONSE);
    response.Int(count);
    TOListIterator<String_t> next(answers);
    while (String_t const* const answer = next()) response.String(str_text(answer->Text()));
    Wipe(answers);
    if (complete)
        _port.Send(response.Get());
    else
        Note("keyboard-interactive", "not all questions were answered");
    return complete;
}

// --- what the server sends

UserAuthenticator::Answer UserAuthenticator::Receive(View& message) {
    for (;;) {
        message = _port.Receive();
        Reader reader(message, "server's");
        int const number = reader.Byte();
        switch (number) {
        case MSG_BANNER:
            ShowBanner(message);
            break;
        case MSG_FAILURE:
            return TakeFailure(message) ? PARTIAL_SUCCESS : FAILURE;
        case MSG_SUCCESS:
            reader.End();
            _authenticated = true;
            return SUCCESS;
        case MSG_METHOD_REPLY:
            return METHOD_REPLY;
        default:
            throw SshProtocolError("message out of place in user authentication", number);
        }
    }
}

/// Like Receive, but only success and failure are valid replies.
UserAuthenticator::Answer UserAuthenticator::ReceiveVerdict() {
    View message;
    Answer const answer = Receive(message);
    if (answer == METHOD_REPLY)
        throw SshProtocolError("message out of place in user authentication", MSG_METHOD_REPLY);
    return answer;
}

/// Returns whether it is a partial success.
bool UserAuthenticator::TakeFailure(View message) {
    Reader reader(message, "USERAUTH_FAILURE");
    reader.Byte();
    std::string const methods = reader.String().Str();
    bool const partial = reader.Bool();
    reader.End();
    _methods = methods;
    if (!partial) return false;
    _questionsEnded = false;
    if (++_partialSuccesses > MAX_PARTIAL_SUCCESSES)
        throw SshProtocolError("the server goes on asking for authentication after each success");
    return true;
}

void UserAuthenticator::ShowBanner(View message) {
    if (++_banners > MAX_BANNERS) throw SshProtocolError("the server sends banners without end");
    Reader reader(message, "USERAUTH_BANNER");
    reader.Byte();
    _banner = Printable(reader.String(), Lines::KEPT);
    reader.String(); // language
    reader.End();
    std::cout << _banner << std::flush;
}

std::string UserAuthenticator::LastError() const {
    if (_authenticated) return std::string();
    std::string text =
        "login failed: the server accepts " + (_methods.empty() ? "no method" : Printable(_methods));
    for (std::string const& note : _notes) text += "; " + note;
    return text;
}

} // namespace cindral::standard
