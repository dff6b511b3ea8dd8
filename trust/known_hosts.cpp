#include <brantle/trust/known_hosts.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>
#include <string>

#include <brantle/cindral/key_types.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/string_tok.h>
#include <brantle/thornel/text.h>

#include "../event/atomic_ref.h"

namespace cindral {

namespace {

constexpr unsigned short DEFAULT_PORT = 22;

/// The name under which a host is stored.
String_t HostKeyName(char const* host, unsigned short port) {
    char name[1024];
    if (host[0] == '[') {
        std::snprintf(name, sizeof name, "%s", host);
    } else {
        std::snprintf(name, sizeof name, "[%s]:%u", host, static_cast<unsigned int>(port));
    }
    return String_t(name);
}

Pathname DefaultPath() {
    Pathname path = Pathname::Home();
    path.Append(".ssh").Append("known_hosts");
    return path;
}

char const* AlgorithmName(PublicKey const& key) { return key._rep ? key._rep->Name() : "ssh-unknown"; }

/// Everything that can be read from a file.
std::string ReadToEnd(int fd) {
    std::string contents;
    char block[4096];
    for (;;) {
        ssize_t const got = read(fd, block, sizeof block);
        if (got > 0) contents.append(block, static_cast<std::size_t>(got));
        if (got == 0 || (got < 0 && errno != EINTR)) return contents;
    }
}

} // namespace

KnownHosts* KnownHosts::GetInstance() {
    static KnownHosts instance;
    return &instance;
}

String_t KnownHosts::KeyAlgorithms() { return String_t(HOST_KEY_ALGORITHMS); }

// Read without the lock, hence atomically.
int KnownHosts::Errnum() { return AtomicRef(GetInstance()->_errnum).load(std::memory_order_relaxed); }

void KnownHosts::SetErrnum(int errnum) { AtomicRef(_errnum).store(errnum, std::memory_order_relaxed); }

int KnownHosts::Read(char const* path) { return GetInstance()->_Read(path); }

int KnownHosts::Read(std::istream& in) { return GetInstance()->_Read(in); }

int KnownHosts::IsIn(String_t const& host, unsigned short port, String_t const& address,
                     PublicKey const& key) {
    return GetInstance()->_IsIn(host, port, address, key);
}

KnownHosts::KnownHosts() : _path(DefaultPath()), _errnum(0) { _Read(str_text(_path.Text())); }

KnownHosts::KnownHosts(char const* path) : _path(DefaultPath()), _errnum(0) { _Read(path); }

KnownHosts::KnownHosts(std::istream& in) : _path(DefaultPath()), _errnum(0) { _Read(in); }

KnownHosts::~KnownHosts() = default;

int KnownHosts::_Read(char const* path) {
    MutexGuard guard(_mutex);
    SetErrnum(0);
    FileDescriptor const fd(open64(str_text(path), O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        SetErrnum(-errno);
        return _errnum;
    }
    std::istringstream in(ReadToEnd(fd));
    return _Read(in);
}

int KnownHosts::_Read(std::istream& in) {
    MutexGuard guard(_mutex);
    SetErrnum(0);
    String_t line;
    while (String_t::Getline(in, line, "\n")) ReadLine(line);
    return _errnum;
}

/// Deliberate: a line that is not understood matches nothing, so its host counts as new (pinned by
/// KnownHostsStore.HostIsNewIfItsLineIsNotUnderstood).
void KnownHosts::ReadLine(String_t const& line) {
    StringTok next(line.Text());
    char const* const host = next(", ");
    char const* const address = next.Delimiter() == ',' ? next(" ") : nullptr;
    char const* const algorithm = next(" ");
    // The old format has a number of bits in place of the algorithm.
    if (!algorithm || (algorithm[0] >= '0' && algorithm[0] <= '9')) return;
    String_t const key64(next(" "));
    _hosts.Insert(HostKeyName(host, DEFAULT_PORT), key64);
    if (address) _hosts.Insert(HostKeyName(address, DEFAULT_PORT), key64);
}

int KnownHosts::_IsIn(String_t const& host, unsigned short port, String_t const& address,
                      PublicKey const& key) {
    MutexGuard guard(_mutex);
    String_t const key64 = key._rep ? key._rep->EncodeSSH64() : String_t("");
    String_t const* known = nullptr;
    if (!str_empty(host.Text())) {
        String_t const name = HostKeyName(host.Text(), port);
        auto const [value, isNew] = _hosts.Insert(name, key64);
        if (isNew) {
            Append(port == DEFAULT_PORT ? host : name, key, key64);
            return 1;
        }
        known = value;
    }
    if (!str_empty(address.Text())) _hosts.Insert(HostKeyName(address.Text(), port), key64);
    // An entry without a key matches no key, not even one that is not loaded.
    return known && !str_empty(known->Text()) && *known == key64.Text();
}

/// In one write, so that programs that append at the same time don't interleave their lines. If the key has
/// no algorithm name, the line contains only the host. Deliberate: a last line without its line feed is not
/// completed first (pinned by KnownHostsStore.NewEntryGoesIntoALastLineWithoutALineEnd).
void KnownHosts::Append(String_t const& name, PublicKey const& key, String_t const& key64) {
    FileDescriptor const fd(
        open64(str_text(_path.Text()), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (fd < 0) return;
    String_t line(name);
    line += " ";
    if (char const* const algorithm = AlgorithmName(key)) {
        line += algorithm;
        line += " ";
        line += key64;
        line += "\n";
    }
    [[maybe_unused]] ssize_t const written = write(fd, line.Text(), str_len(line.Text()));
}

} // namespace cindral
