#ifndef BRANTLE_TRUST_KNOWN_HOSTS_H
#define BRANTLE_TRUST_KNOWN_HOSTS_H

#include <istream>

#include <brantle/cindral/public_key.h>
#include <brantle/event/locks.h>
#include <brantle/export.h>
#include <brantle/thornel/string_t.h>
#include <generic/gcmp>
#include <generic/tmap>

namespace cindral {

/// The client's store of server host keys, on the principle of trust on first use: a host that is not in the
/// store is accepted and added; a host that is in it must present the same key.
///
/// The store is read from `.ssh/known_hosts` in the home directory, and new hosts are appended to that file;
/// it is never rewritten, so the entry of a host whose key has changed must be removed by hand. Hosts are
/// stored under the canonical name "[host]:port"; a host string that begins with a bracket is already
/// canonical.
///
/// Entries that the store does not understand do not cause a refusal: hashed names (the default of some
/// systems), patterns, "@revoked", fields after tabs, the third name on a line, and names that differ in
/// letter case match nothing, so such a host counts as new and any key is accepted for it. A program that
/// needs more than trust on first use has to check the file itself.
///
/// The static operations work on the single store of the process. All operations may be called from any
/// thread.
class BRANTLE_API KnownHosts {
public:
    /// The store of the process, created at the first call and destroyed at exit.
    static KnownHosts* GetInstance();
    /// The host key algorithms that the client offers: "ssh-rsa,ssh-dss".
    static String_t KeyAlgorithms();
    /// The result of the last read: 0, or a negative errno value.
    static int Errnum();
    /// Adds the entries of a file, or of a stream in the same format, to the store. If a host has several
    /// entries, the first one counts. Returns 0, or the negative errno value of a file that cannot be opened.
    static int Read(char const* path);
    static int Read(std::basic_istream<char, std::char_traits<char>>& in);
    /// Non-zero when `key` may be trusted for `host`, which must not be empty. A new host is appended to the
    /// file in one write, whose failure is not reported; the file is created with mode 0600. If the file's
    /// last line does not end in a line feed, the new entry becomes part of that line. `address` may be
    /// empty; an unknown address is associated with the key too, in memory only, and does not affect the
    /// result.
    static int IsIn(String_t const& host, unsigned short port, String_t const& address, PublicKey const& key);

    /// Creates a separate store, read from the default file, from the given file, or from the stream. It
    /// can't be queried: the operations above use only the store of the process.
    KnownHosts();
    explicit KnownHosts(char const* path);
    explicit KnownHosts(std::basic_istream<char, std::char_traits<char>>& in);
    ~KnownHosts();
    KnownHosts(KnownHosts const&) = delete;
    KnownHosts& operator=(KnownHosts const&) = delete;

private:
    int _Read(char const* path);
    int _Read(std::basic_istream<char, std::char_traits<char>>& in);
    int _IsIn(String_t const& host, unsigned short port, String_t const& address, PublicKey const& key);

    void ReadLine(String_t const& line);
    void Append(String_t const& name, PublicKey const& key, String_t const& key64);
    void SetErrnum(int errnum);

    RMutex _mutex;
    String_t _path;
    TMap<String_t, String_t, GStringCmp> _hosts;
    int _errnum;
};

} // namespace cindral

#endif
