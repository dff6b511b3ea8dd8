#include <cstdlib>

#include "support/agent/scripted_agent.h"

namespace peer {

ScriptedAgent::ScriptedAgent(Script const& script)
    : _agent([script](std::string const& request) {
          std::optional<Bytes> const reply = script(ToBytes(request));
          return reply ? ToText(Writer().String(*reply)) : std::string();
      }) {
    setenv("SSH_AUTH_SOCK", _agent.Path().c_str(), 1);
}

ScriptedAgent::~ScriptedAgent() { unsetenv("SSH_AUTH_SOCK"); }

ScriptedAgent::Script ScriptedAgent::Holding(KeyPair const& key) {
    return [&key](Bytes const& request) -> std::optional<Bytes> {
        Reader reader(request);
        if (reader.U8() != signRequest || reader.Blob() != key.Blob()) return Bytes{failure};
        return Writer().U8(signResponse).String(key.Sign(reader.Blob())).Data();
    };
}

std::vector<Bytes> ScriptedAgent::Requests() const {
    std::vector<Bytes> requests;
    for (std::string const& request : _agent.Requests()) requests.push_back(ToBytes(request));
    return requests;
}

} // namespace peer
