#ifndef BRANTLE_STANDARD_FIND_IDENTITIES_H
#define BRANTLE_STANDARD_FIND_IDENTITIES_H

#include <memory>
#include <string>
#include <vector>

#include <brantle/cindral/enter_password.h>

#include "standard/agent_client.h"
#include "standard/identity.h"

namespace cindral::standard {

/// The user's keys in the order in which a server is offered them.
///
/// `file` is a file with a private key, or with a public key whose private half the agent holds. That key
/// comes first, then the agent's other keys. If `file` is empty, it stands for those of id_ed25519, id_ecdsa
/// and id_rsa in .ssh of the home directory that exist: the ones that the agent holds come first, then the
/// agent's other keys, then the other files. A key that the agent holds is signed with by the agent, and from
/// its file if that fails.
///
/// A passphrase is asked for when an identity is unlocked: `passphrase` is tried first if it is not empty,
/// then what `enter` answers, as often as it has tries. Both, and the identities themselves, use what the
/// references lead to. Files that can't be used, and a failure of the agent, get a line in `notes`.
Identities FindIdentities(std::string const& file, std::shared_ptr<AgentClient> const& agent, View passphrase,
                          EnterPassword& enter, std::vector<std::string>& notes);

} // namespace cindral::standard

#endif
