#include <brantle/trust/known_hosts.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include <brantle/cindral/key_types.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/string_tok.h>

namespace cindral {

namespace {

constexpr unsigned short DEFAULT_PORT = 22;

/// The name under which a host is known.
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

} // namespace

KnownHosts* KnownHosts::GetInstance() {
    static KnownHosts instance;
    return &instance;
}

String_t KnownHosts::KeyAlgorithms() { return String_t(HOST_KEY_ALGORITHMS); }

// Read without the lock, hence atomically.
int KnownHosts::Errnum() { return __atomic_load_n(&GetInstance()->_errnum, __ATOMIC_RELAXED); }

void KnownHosts::SetErrnum(int errnum) { __atomic_store_n(&_errnum, errnum, __ATOMIC_RELAXED); }

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
    std::ifstream in(path ? path : "");
    if (!in) {
        SetErrnum(-errno);
        return _errnum;
    }
    return _Read(in);
}

int KnownHosts::_Read(std::istream& in) {
    MutexGuard guard(_mutex);
    SetErrnum(0);
    String_t line;
    while (String_t::Getline(in, line, "\n")) ReadLine(line);
    return _errnum;
}

void KnownHosts::ReadLine(String_t const& line) {
    StringTok next(line.Text());
    char const* const host = next(", ");
    char const* const address = next.Delimiter() == ',' ? next(" ") : nullptr;
    char const* const algorithm = next(" ");
    // The old format has a number of bits in the place of the algorithm.
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
    // An entry without a key is nobody's, not even that of a key that is not loaded.
    return known && !str_empty(known->Text()) && *known == key64.Text();
}

void KnownHosts::Append(String_t const& name, PublicKey const& key, String_t const& key64) {
    std::ofstream out(str_text(_path.Text()), std::ios::out | std::ios::app);
    if (!out) return;
    out << name << ' ';
    if (char const* const algorithm = AlgorithmName(key)) {
        out << algorithm;
    } else {
        out.setstate(std::ios::badbit);
    }
    out << ' ' << key64 << std::endl;
}

} // namespace cindral
