#ifndef BRANTLE_STANDARD_FIND_IDENTITIES_H
#define BRANTLE_STANDARD_FIND_IDENTITIES_H

#include <memory>
#include <string>
#include <vector>

#include <brantle/cindral/enter_password.h>

#include "standard/agent_client.h"
#include "standard/identity.h"

namespace cindral::standard {

/// The user's keys in the order in which they are offered to a server.
///
/// `file` is a file with a private key, or with a public key whose private half the agent holds. That key
/// comes first, then the agent's other keys. If `file` is empty, the default files are used: those of
/// id_ed25519, id_ecdsa and id_rsa in .ssh of the home directory that exist. The ones that the agent holds
/// come first, then the agent's other keys, then the other files. The agent signs with the keys that it
/// holds; if it fails, the key's file is used.
///
/// A passphrase is asked for when an identity is unlocked: `passphrase` is tried first if it is not empty,
/// then what `enter` returns, as often as it allows tries. The references must outlive the identities. Files
/// that can't be used, and a failure of the agent, are reported in `notes`.
Identities FindIdentities(std::string const& file, std::shared_ptr<AgentClient> const& agent, View passphrase,
                          EnterPassword& enter, std::vector<std::string>& notes);

} // namespace cindral::standard

#endif
