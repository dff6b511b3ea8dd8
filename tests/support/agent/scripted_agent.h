#ifndef TESTS_SUPPORT_AGENT_SCRIPTED_AGENT_H
#define TESTS_SUPPORT_AGENT_SCRIPTED_AGENT_H

#include <functional>
#include <optional>
#include <vector>

#include "support/agent/raw_agent.h"
#include "support/peer/peer_crypto.h"

namespace peer {

/// A key agent on a Unix socket of its own, which answers by a script. While it lives, SSH_AUTH_SOCK names
/// that socket; afterwards the variable is unset.
///
/// It serves one connection at a time. Messages are given and taken as their bodies, without the length.
class ScriptedAgent {
public:
    /// The body of the reply; none closes the connection.
    using Script = std::function<std::optional<Bytes>(Bytes const& request)>;

    static constexpr std::uint8_t failure = 5;
    static constexpr std::uint8_t success = 6;
    static constexpr std::uint8_t signRequest = 13;
    static constexpr std::uint8_t signResponse = 14;

    explicit ScriptedAgent(Script const& script);
    ~ScriptedAgent();
    ScriptedAgent(ScriptedAgent const&) = delete;
    ScriptedAgent& operator=(ScriptedAgent const&) = delete;

    /// The script of an agent that holds exactly this key, which outlives it, and signs with it.
    static Script Holding(KeyPair const& key);

    /// The bodies of all requests so far, over all connections.
    std::vector<Bytes> Requests() const;
    std::size_t Connections() const { return _agent.Connections(); }

private:
    support::RawAgent _agent;
};

} // namespace peer

#endif
