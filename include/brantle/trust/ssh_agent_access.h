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

/// Access to a local key agent over the Unix socket that an environment variable names
/// (the SSH agent protocol). All objects of a process share one connection, which the first one makes and
/// the last one closes; it is not made again when it is lost.
///
/// The operations throw `SshProtocolError` for a reply that breaks the protocol and `BadInput` for one
/// that is cut short. They may be called from several threads at once; an `Iterator` takes no lock, so
/// its construction must not coincide with an operation of another thread. They wait for the agent without a
/// limit, as it may be asking its own user: an agent that does not answer blocks every user of the
/// connection.
class BRANTLE_API SshAgentAccess {
public:
    class BRANTLE_LOCAL Rep;
    class BRANTLE_LOCAL IteratorRep;
    class Iterator;

    static char const* const SSH_AUTH_SOCK; ///< "SSH_AUTH_SOCK"
    static char const* const SSH_AGENT_PID; ///< "SSH_AGENT_PID"

    /// Access to nothing: the operations return -1, `IsAvailable` 0.
    SshAgentAccess();
    /// Joins the connection of the process, or makes it to the socket that the variable `envName`
    /// names (null: SSH_AUTH_SOCK), waiting 10 seconds at most. Without a connection the operations
    /// return -5, `IsAvailable` 0.
    explicit SshAgentAccess(char const* envName);
    ~SshAgentAccess();
    SshAgentAccess(SshAgentAccess const&) = delete;
    SshAgentAccess& operator=(SshAgentAccess const&) = delete;

    /// Each returns 0, minus the number of the agent's failure reply (5, 30, 102), or -5 without a
    /// connection.
    int Add(PrivateKey const& key, char const* comment);
    int Remove(PublicKey const& key);
    int Clear();
    /// Has the agent sign `data` with its private half of `key`. Returns what `signature` gives for the
    /// blob received, negative on failure, or a negative result as above, which leaves `signature`
    /// alone.
    int Sign(PublicKey const& key, ByteString const& data, DigestType digest, Signature& signature);
    /// 1 if the agent holds `key`, else 0.
    int IsAvailable(PublicKey const& key);

    /// The number in the variable SSH_AGENT_PID; -1 when it is unset or empty.
    static int GetAgentPid();

private:
    static Rep* _instance; ///< protected by `_mutex`
    static Mutex _mutex;

    Rep* _rep;
};

/// Walks over the identities that the agent holds. The whole list is asked for once, at construction.
/// Must not outlive the handle that it was made from, which must not be a default-built one.
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
    /// The number of the agent's failure reply, else 0.
    int Err() const;

private:
    IteratorRep* _rep;
};

} // namespace cindral

#endif
