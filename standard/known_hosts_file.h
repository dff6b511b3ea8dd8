#ifndef BRANTLE_STANDARD_KNOWN_HOSTS_FILE_H
#define BRANTLE_STANDARD_KNOWN_HOSTS_FILE_H

#include <string>
#include <vector>

#include "standard/bytes.h"

namespace cindral::standard {

/// The keys of hosts in OpenSSH's known_hosts files: hashed names, patterns and negation, "[host]:port",
/// several names in a line and several keys for a host, "@revoked". Lines with "@cert-authority", with an
/// unknown marker, or with a key of an unknown type that can't be read have no effect. A line that lacks its
/// key, or whose key of a supported type is cut off or garbled, as an interrupted writer leaves it, is not
/// skipped: the host would be taken for a new one. Names are compared without regard to case.
///
/// The files are read at every call, so that changes made in between take effect.
class KnownHostsFile {
public:
    enum Verdict {
        MATCH,     ///< the host is known with exactly this key
        UNKNOWN,   ///< no key of the host is known
        CHANGED,   ///< the host is known only with other keys, of any type
        REVOKED,   ///< the key must not be used for the host
        DAMAGED,   ///< a line for the host holds a key that is cut off or garbled, so that nothing is certain
        UNREADABLE ///< a file exists but can't be read, so that nothing is certain
    };

    struct Finding {
        Verdict verdict = UNKNOWN;
        std::string file;       ///< the file with the line that decided, or the file that can't be read
        unsigned long line = 0; ///< counted from 1; 0 if it is the whole file
        std::string type;       ///< of the key in that line
        int error = 0;          ///< errno of a file that can't be read; EFBIG: the line exceeds 1 MiB

        /// A description of the result, such as "the host key of HOST has changed (FILE:3 has another ssh-rsa
        /// key)".
        std::string Text(std::string const& host) const;
    };

    /// The user's files, .ssh/known_hosts and .ssh/known_hosts2 of the home directory, and the system's,
    /// /etc/ssh/ssh_known_hosts and /etc/ssh/ssh_known_hosts2.
    KnownHostsFile();
    /// The given files, which are read in this order. REQUIRES: there is at least one; Append works on the
    /// first.
    explicit KnownHostsFile(std::vector<std::string> files);

    /// Whether the key may be trusted for the host. A file that does not exist is empty.
    ///
    /// A host is looked up as "host" and "[host]:22" at port 22, as "[host]:port" at any other. A host for
    /// which only keys of other types are known counts as changed, as the types of known keys were offered
    /// first. A damaged line leaves a host in doubt that no other line knows, and a damaged revocation any
    /// host that it names. If nothing is known for "[host]:port", the same key for "host" is a match too.
    /// `address` may be empty; a line that names only the address has an effect only if it revokes the key.
    Finding Lookup(std::string const& host, unsigned short port, std::string const& address, View blob) const;

    /// The host key algorithms of the keys known for the host, in the order of the lines and without
    /// repetition; an "ssh-rsa" key gives rsa-sha2-512 and rsa-sha2-256. Empty if nothing is known or a
    /// file can't be read.
    std::vector<std::string> KnownAlgorithms(std::string const& host, unsigned short port) const;

    /// Adds a line for the key: the host as it is for port 22, else "[host]:port". The file is created with
    /// mode 0600 and its directory with 0700; a last line without a line feed is terminated first. Returns 0
    /// or minus errno, -EINVAL for a host or a key that can't be written in a line.
    int Append(std::string const& host, unsigned short port, View blob) const;

private:
    std::vector<std::string> _files;
};

/// The key's fingerprint as OpenSSH shows it: "SHA256:" and the hash in base64 without padding.
std::string Fingerprint(View blob);

} // namespace cindral::standard

#endif
