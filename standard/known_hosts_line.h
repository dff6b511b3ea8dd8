#ifndef BRANTLE_STANDARD_KNOWN_HOSTS_LINE_H
#define BRANTLE_STANDARD_KNOWN_HOSTS_LINE_H

#include <string>
#include <string_view>

#include "standard/bytes.h"
#include "standard/signature_scheme.h"

namespace cindral::standard {

/// A host as lines may name it, in lower case; no host if the name is empty.
struct HostName {
    std::string name;
    std::string alias; ///< another name, which only an identical pattern matches; may be empty
};

/// One line of a known_hosts file in OpenSSH's format: `[@marker] hosts type key [comment]`, the fields
/// separated by blanks and tabs. The fields are views of the line given to Parse.
class KnownHostsLine {
public:
    enum Marker { NONE, REVOKED, AUTHORITY };

    /// Splits the line. False for a line that is empty or a comment, or that has an unknown marker or no
    /// hosts. Type and key may be missing.
    bool Parse(std::string_view line);

    Marker GetMarker() const { return _marker; }

    /// Whether the line matches the host: its hosts are either one hashed name or a list of patterns, in
    /// which a negated one that matches excludes the host.
    bool IsFor(HostName const& host) const;

    /// Decodes the key's blob. False if it is not base64, not of the type that the line names, or not whole.
    bool DecodeKey(Bytes& blob) const;
    /// Whether a key that can't be decoded is a damaged one: it is missing, or its type is supported.
    /// Otherwise the line may be of a format that is not known here.
    bool IsDamaged() const { return _key64.empty() || !SignatureAlgorithmsOf(KeyType()).empty(); }

private:
    std::string_view KeyType() const;

    Marker _marker = NONE;
    std::string_view _hosts;
    std::string_view _type;
    std::string_view _key64;
};

/// In lower case, as far as ASCII goes.
std::string LowerCase(std::string_view text);

/// Base64 with padding and without line ends (RFC 4648).
std::string EncodeBase64(View bytes);
/// False if the text is not base64. An empty text is valid.
bool DecodeBase64(std::string_view text, Bytes& bytes);

} // namespace cindral::standard

#endif
