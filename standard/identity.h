#ifndef BRANTLE_STANDARD_IDENTITY_H
#define BRANTLE_STANDARD_IDENTITY_H

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "standard/bytes.h"

namespace cindral::standard {

/// A key pair of the user, whose private half may be in a file or in an agent.
class Identity {
public:
    virtual ~Identity() = default;
    Identity(Identity const&) = delete;
    Identity& operator=(Identity const&) = delete;

    /// The blob of the public key; empty while only Unlock() can determine it.
    Bytes const& Blob() const { return _blob; }
    /// For display: the name of a file, or the comment of an agent's key.
    std::string const& Name() const { return _name; }

    /// Whether Sign() needs neither the user nor an agent.
    virtual bool IsUnlocked() const { return false; }
    /// Makes the private half available, asking the user if necessary; the blob is known afterwards. If the
    /// result is false, `reason` says why.
    virtual bool Unlock(std::string& reason) = 0;
    /// Creates the signature blob (RFC 4253, section 6.6) with that algorithm. If the result is false,
    /// `reason` says why.
    virtual bool Sign(std::string const& algorithm, View data, Bytes& signature, std::string& reason) = 0;

protected:
    Identity(Bytes blob, std::string name) : _blob(std::move(blob)), _name(std::move(name)) {}

    Bytes _blob;
    std::string _name;
};

using Identities = std::vector<std::unique_ptr<Identity>>;

} // namespace cindral::standard

#endif
