#ifndef BRANTLE_TESTS_UNIT_STANDARD_FAKE_PORT_H
#define BRANTLE_TESTS_UNIT_STANDARD_FAKE_PORT_H

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "standard/message_port.h"
#include "support/peer/wire.h"

/// A server that sends the messages of a list, one for each Receive, and keeps what it gets.
class FakePort : public cindral::standard::MessagePort {
public:
    explicit FakePort(std::vector<peer::Bytes> messages) : _messages(messages.begin(), messages.end()) {}

    void Send(cindral::standard::View message) override {
        _sent.emplace_back(message.begin(), message.end());
    }
    cindral::standard::View Receive() override {
        if (_messages.empty()) throw cindral::SshProtocolError("end of the script");
        _current = std::move(_messages.front()); // the view before is gone, as a real port's would be
        _messages.pop_front();
        return _current;
    }

    std::vector<peer::Bytes> const& Sent() const { return _sent; }
    std::size_t Left() const { return _messages.size(); }

private:
    std::deque<peer::Bytes> _messages;
    peer::Bytes _current;
    std::vector<peer::Bytes> _sent;
};

// Messages of the server, RFC 4252 and 4256.

inline peer::Bytes Accept() { return peer::Writer().U8(6).String("ssh-userauth"); }
inline peer::Bytes Failure(std::string const& methods, bool partial = false) {
    return peer::Writer().U8(51).String(methods).Bool(partial);
}
inline peer::Bytes Partial(std::string const& methods) { return Failure(methods, true); }
inline peer::Bytes Success() { return peer::Writer().U8(52); }
inline peer::Bytes BannerMessage(std::string const& text) {
    return peer::Writer().U8(53).String(text).String("");
}
inline peer::Bytes PkOk(std::string const& algorithm, peer::Bytes const& key) {
    return peer::Writer().U8(60).String(algorithm).String(key);
}
inline peer::Bytes ChangeRequest(std::string const& prompt) {
    return peer::Writer().U8(60).String(prompt).String("");
}
inline peer::Bytes Questions(std::string const& name, std::string const& instruction,
                             std::vector<std::pair<std::string, bool>> const& prompts) {
    peer::Writer message;
    message.U8(60)
        .String(name)
        .String(instruction)
        .String("")
        .U32(static_cast<std::uint32_t>(prompts.size()));
    for (auto const& [text, echo] : prompts) message.String(text).Bool(echo);
    return message;
}

// Messages of the client for the user "me".

inline peer::Bytes ServiceRequest() { return peer::Writer().U8(5).String("ssh-userauth"); }
inline peer::Writer MethodRequest(std::string const& method) {
    return peer::Writer().U8(50).String("me").String("ssh-connection").String(method);
}
inline peer::Bytes NoneRequest() { return MethodRequest("none"); }
inline peer::Bytes PasswordRequest(std::string const& password) {
    return MethodRequest("password").Bool(false).String(password);
}
inline peer::Bytes QuestionsRequest() { return MethodRequest("keyboard-interactive").String("").String(""); }
inline peer::Bytes Answers(std::vector<std::string> const& answers) {
    peer::Writer message;
    message.U8(61).U32(static_cast<std::uint32_t>(answers.size()));
    for (std::string const& answer : answers) message.String(answer);
    return message;
}
inline peer::Bytes KeyQuery(std::string const& algorithm, peer::Bytes const& key) {
    return MethodRequest("publickey").Bool(false).String(algorithm).String(key);
}
inline peer::Bytes SignedRequest(std::string const& algorithm, peer::Bytes const& key,
                                 peer::Bytes const& signature) {
    return MethodRequest("publickey").Bool(true).String(algorithm).String(key).String(signature);
}

#endif
