#ifndef BRANTLE_TESTS_EXAMPLES_EXECUTE_AGAINST_H
#define BRANTLE_TESTS_EXAMPLES_EXECUTE_AGAINST_H

#include <string>

#include "examples/execute.h"
#include "support/peer/scripted_peer.h"

namespace execute {

/// A program's run against a server with this script, which speaks the reduced dialect.
inline Ran ExecuteAgainst(peer::ScriptedPeer::Script const& script, std::string const& program = RUN_COMMAND,
                          std::string const& arguments = "echo hello", peer::ServerSettings settings = {}) {
    settings.group = peer::DhGroup::Modp(1024);
    settings.noneAccepted = true;
    peer::ScriptedPeer server(script, settings);
    Ran const ran =
        Execute(program, "--reduced tester@127.0.0.1:" + std::to_string(server.Port()) + " " + arguments);
    server.Finish();
    return ran;
}

} // namespace execute

#endif
