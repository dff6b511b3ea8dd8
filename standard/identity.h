#ifndef BRANTLE_STANDARD_IDENTITY_H
#define BRANTLE_STANDARD_IDENTITY_H

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "standard/bytes.h"

namespace cindral::standard {

/// A key pair by which a user may be known to the server, wherever its private half is.
class Identity {
public:
    virtual ~Identity() = default;
    Identity(Identity const&) = delete;
    Identity& operator=(Identity const&) = delete;

    /// The blob of the public key; empty as long as it can be learnt by Unlock() alone.
    Bytes const& Blob() const { return _blob; }
    /// For the user's eyes: a file, or the comment of an agent's key.
    std::string const& Name() const { return _name; }

    /// Whether Sign() needs neither the user nor an agent.
    virtual bool IsUnlocked() const { return false; }
    /// Makes the private half available, and asks the user if need be; the blob is known afterwards. On false
    /// `reason` says why not.
    virtual bool Unlock(std::string& reason) = 0;
    /// The signature blob (RFC 4253, section 6.6) by that algorithm. On false `reason` says why there is
    /// none.
    virtual bool Sign(std::string const& algorithm, View data, Bytes& signature, std::string& reason) = 0;

protected:
    Identity(Bytes blob, std::string name) : _blob(std::move(blob)), _name(std::move(name)) {}

    Bytes _blob;
    std::string _name;
};

using Identities = std::vector<std::unique_ptr<Identity>>;

} // namespace cindral::standard

#endif
