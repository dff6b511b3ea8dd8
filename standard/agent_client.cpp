#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <brantle/thornel/client_socket.h>

#include "standard/agent_client.h"

namespace cindral::standard {

namespace {

// Message numbers; the three failures come from different generations of agents.
constexpr int AGENT_FAILURE = 5;
constexpr int AGENT_REQUEST_IDENTITIES = 11;
constexpr int AGENT_IDENTITIES = 12;
constexpr int AGENT_SIGN_REQUEST = 13;
constexpr int AGENT_SIGN_RESPONSE = 14;
constexpr int AGENT_FAILURE_OLD = 30;
constexpr int AGENT_FAILURE_OTHER = 102;

constexpr unsigned int MAX_REPLY = 256 * 1024;
constexpr unsigned int MAX_IDENTITIES = 1024;
constexpr unsigned int CONNECT_SECONDS = 10;
constexpr std::chrono::seconds ANSWER_LIMIT(180); // the agent may be asking its user

bool IsFailure(int number) {
    return number == AGENT_FAILURE || number == AGENT_FAILURE_OLD || number == AGENT_FAILURE_OTHER;
}

/// For a wait of its own: whole seconds, at least one.
unsigned int SecondsLeft(Deadline const& deadline) {
    return static_cast<unsigned int>(std::chrono::ceil<std::chrono::seconds>(deadline.Remaining()).count());
}

std::string EnvironmentPath() {
    char const* const path = std::getenv("SSH_AUTH_SOCK");
    return path ? path : "";
}

} // namespace

AgentClient::AgentClient() : AgentClient(EnvironmentPath()) {}

AgentClient::AgentClient(std::string const& path) {
    if (!path.empty()) Connect(path);
}

void AgentClient::Connect(std::string const& path) {
    ClientSocketUn socket(path.c_str());
    int error = ENAMETOOLONG;
    _fd._fd = !socket ? -1 : socket.Connect(CONNECT_SECONDS, error);
    if (_fd < 0) Leave(path + ": " + std::strerror(error));
    _io.Set(_fd);
}

std::vector<AgentClient::Identity> AgentClient::List() {
    std::vector<Identity> identities;
    Bytes reply;
    if (!IsPresent() || !Exchange(Writer(AGENT_REQUEST_IDENTITIES).Get(), AGENT_IDENTITIES, reply))
        return identities;
    try {
        Reader reader(View(reply.data() + 1, reply.size() - 1), "agent's IDENTITIES");
        unsigned int const count = reader.Int();
        if (count > MAX_IDENTITIES) reader.Fail("has too many keys");
        for (unsigned int i = 0; i < count; ++i) {
            Bytes blob = reader.String().Copy();
            identities.push_back({std::move(blob), reader.String().Str()});
        }
        reader.End();
    } catch (SshProtocolError const& error) {
        identities.clear();
        Leave(error.what());
    }
    return identities;
}

bool AgentClient::Sign(View key, View data, unsigned int flags, Bytes& signature) {
    Bytes reply;
    Writer request(AGENT_SIGN_REQUEST);
    request.String(key).String(data).Int(flags);
    if (!Exchange(request.Get(), AGENT_SIGN_RESPONSE, reply)) return false;
    try {
        Reader reader(View(reply.data() + 1, reply.size() - 1), "agent's SIGN_RESPONSE");
        signature = reader.String().Copy();
        reader.End();
        return true;
    } catch (SshProtocolError const& error) {
        return Leave(error.what());
    }
}

/// Sends a request and receives the reply. Returns whether its message number is `expected`.
bool AgentClient::Exchange(Bytes const& request, int expected, Bytes& reply) {
    if (!IsPresent()) return Fail(_error.empty() ? "there is no agent" : _error);
    Deadline const deadline(ANSWER_LIMIT);
    unsigned char length[4];
    if (!Send(request, deadline) || !Receive(length, sizeof length, deadline)) return false;
    std::size_t const size = LoadInt(length);
    if (size == 0 || size > MAX_REPLY) return Leave("the agent's reply is empty or exceeds 256 KiB");
    reply.resize(size);
    if (!Receive(reply.data(), size, deadline)) return false;
    if (IsFailure(reply[0])) return Fail("the agent refused");
    if (reply[0] != expected) return Leave("the agent answered with message " + std::to_string(reply[0]));
    _error.clear();
    return true;
}

bool AgentClient::Send(Bytes const& request, Deadline const& deadline) {
    Bytes const message = Writer().String(request).Take();
    auto const* from = reinterpret_cast<char const*>(message.data());
    if (_io.Write(from, from + message.size(), SecondsLeft(deadline)) == 0) return true;
    return Leave(std::string("can't write to the agent: ") + std::strerror(errno));
}

bool AgentClient::Receive(unsigned char* to, std::size_t size, Deadline const& deadline) {
    while (size > 0) {
        unsigned int const seconds = SecondsLeft(deadline);
        if (seconds == 0) return Leave("the agent does not answer");
        int const got = _io.Read(reinterpret_cast<char*>(to), size, seconds);
        if (got < 0) return Leave(std::string("can't read from the agent: ") + std::strerror(errno));
        if (got == 0) return Leave("the agent closed the connection");
        to += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool AgentClient::Fail(std::string const& reason) {
    _error = reason;
    return false;
}

/// Like Fail, but the agent also counts as absent from now on.
bool AgentClient::Leave(std::string const& reason) {
    if (_fd >= 0) close(_fd);
    _fd._fd = -1;
    _io.Set(-1);
    return Fail(reason);
}

} // namespace cindral::standard
