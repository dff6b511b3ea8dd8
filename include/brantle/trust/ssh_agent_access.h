#ifndef BRANTLE_TRUST_SSH_AGENT_ACCESS_H
#define BRANTLE_TRUST_SSH_AGENT_ACCESS_H

#include <brantle/cindral/key_types.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/cindral/signature.h>
#include <brantle/event/locks.h>
#include <brantle/export.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Access to a local key agent over the Unix socket that an environment variable names (the SSH agent
/// protocol). All objects of a process share one connection, which the first one makes and the last one
/// closes; a lost connection is not made again.
///
/// The operations throw `SshProtocolError` for a reply that breaks the protocol, such as one of more than
/// 262144 bytes, and `BadInput` for one that is cut short. A reply of more than 16 MiB is not read and ends
/// the connection. They may be called from several threads at the same time; an `Iterator` takes no lock, so
/// its construction must not coincide with an operation of another thread. They wait for the agent without a
/// time limit, because it may be asking its user for confirmation: an agent that does not reply blocks all
/// users of the connection.
class BRANTLE_API SshAgentAccess {
public:
    class BRANTLE_LOCAL Rep;
    class BRANTLE_LOCAL IteratorRep;
    class Iterator;

    static char const* const SSH_AUTH_SOCK; ///< "SSH_AUTH_SOCK"
    static char const* const SSH_AGENT_PID; ///< "SSH_AGENT_PID"

    /// No access: the operations return -1, `IsAvailable` returns 0.
    SshAgentAccess();
    /// Uses the existing connection of the process, or connects to the socket that the variable `envName`
    /// names (null: SSH_AUTH_SOCK), waiting 10 seconds at most. Without a connection the operations return
    /// -5, and `IsAvailable` returns 0.
    explicit SshAgentAccess(char const* envName);
    ~SshAgentAccess();
    SshAgentAccess(SshAgentAccess const&) = delete;
    SshAgentAccess& operator=(SshAgentAccess const&) = delete;

    /// Each returns 0, the negated number of the agent's failure reply (5, 30, 102), or -5 without a
    /// connection.
    int Add(PrivateKey const& key, char const* comment);
    int Remove(PublicKey const& key);
    int Clear();
    /// Asks the agent to sign `data` with the private half of `key`. Returns the result of decoding the
    /// received blob into `signature`, negative on failure, or a negative result as above, which leaves
    /// `signature` unchanged.
    int Sign(PublicKey const& key, ByteString const& data, DigestType digest, Signature& signature);
    /// 1 if the agent holds `key`, otherwise 0.
    int IsAvailable(PublicKey const& key);

    /// The number in the variable SSH_AGENT_PID; -1 when it is unset or empty.
    static int GetAgentPid();

private:
    static Rep* _instance; ///< protected by `_mutex`
    static Mutex _mutex;

    Rep* _rep;
};

/// Iterates over the identities that the agent holds. The whole list is requested once, at construction. Must
/// not outlive the handle that it was made from, which must not be a default-constructed one.
class BRANTLE_API SshAgentAccess::Iterator {
public:
    explicit Iterator(SshAgentAccess& access);
    ~Iterator();
    Iterator(Iterator const&) = delete;
    Iterator& operator=(Iterator const&) = delete;

    /// Null after the last identity.
    operator void const*() const;
    Iterator& operator++();
    /// The current identity.
    PublicKey& operator*();
    PublicKey Key() const;
    /// The comment of the current identity.
    String_t Name() const;
    /// The number of the agent's failure reply, otherwise 0.
    int Err() const;

private:
    IteratorRep* _rep;
};

} // namespace cindral

#endif
