#include "standard/algorithms.h"

#if defined(__aarch64__) || defined(__arm__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#elif defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <algorithm>

#include <brantle/cindral/exceptions.h>

namespace cindral::standard {

namespace {

// Each table is in order of preference.

constexpr KexAlgorithm KEX[] = {
    {"curve25519-sha256", KexMethod::X25519, "X25519", "SHA256"},
    {"curve25519-sha256@libssh.org", KexMethod::X25519, "X25519", "SHA256"},
    {"ecdh-sha2-nistp256", KexMethod::ECDH, "P-256", "SHA256"},
    {"ecdh-sha2-nistp384", KexMethod::ECDH, "P-384", "SHA384"},
    {"ecdh-sha2-nistp521", KexMethod::ECDH, "P-521", "SHA512"},
    {"diffie-hellman-group-exchange-sha256", KexMethod::GROUP_EXCHANGE, nullptr, "SHA256"},
    {"diffie-hellman-group16-sha512", KexMethod::FIXED_GROUP, "modp_4096", "SHA512"},
    {"diffie-hellman-group14-sha256", KexMethod::FIXED_GROUP, "modp_2048", "SHA256"},
};

constexpr SignatureAlgorithm SIGNATURES[] = {
    {"ssh-ed25519", "ssh-ed25519", nullptr},
    {"ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256", "SHA256"},
    {"ecdsa-sha2-nistp384", "ecdsa-sha2-nistp384", "SHA384"},
    {"ecdsa-sha2-nistp521", "ecdsa-sha2-nistp521", "SHA512"},
    {"rsa-sha2-512", "ssh-rsa", "SHA512"},
    {"rsa-sha2-256", "ssh-rsa", "SHA256"},
};

constexpr CipherAlgorithm CIPHERS[] = {
    {"aes128-gcm@openssh.com", "AES-128-GCM", CipherMode::GCM, 16, 12, 16},
    {"aes256-gcm@openssh.com", "AES-256-GCM", CipherMode::GCM, 32, 12, 16},
    {"chacha20-poly1305@openssh.com", "ChaCha20", CipherMode::CHACHA20_POLY1305, 64, 0, 8},
    {"aes128-ctr", "AES-128-CTR", CipherMode::CTR, 16, 16, 16},
    {"aes192-ctr", "AES-192-CTR", CipherMode::CTR, 24, 16, 16},
    {"aes256-ctr", "AES-256-CTR", CipherMode::CTR, 32, 16, 16},
};

constexpr MacAlgorithm MACS[] = {
    {"hmac-sha2-256-etm@openssh.com", "SHA256", 32, true},
    {"hmac-sha2-512-etm@openssh.com", "SHA512", 64, true},
    {"hmac-sha2-256", "SHA256", 32, false},
    {"hmac-sha2-512", "SHA512", 64, false},
    {"hmac-sha1", "SHA1", 20, false},
};

template <class Table>
auto FindIn(Table const& table, std::string_view name) {
    return std::find_if(std::begin(table), std::end(table),
                        [&](auto const& algorithm) { return name == algorithm.name; });
}

template <class Table>
auto const& Find(Table const& table, std::string_view name) {
    auto const found = FindIn(table, name);
    if (found == std::end(table)) throw InvalidArgument("algorithm not supported", std::string(name).c_str());
    return *found;
}

void AppendName(std::string& list, char const* name) {
    if (!list.empty()) list += ',';
    list += name;
}

template <class Table>
std::string NamesOf(Table const& table) {
    std::string names;
    for (auto const& algorithm : table) AppendName(names, algorithm.name);
    return names;
}

bool IsSupported(AlgorithmKind kind, std::string_view name) {
    switch (kind) {
    case AlgorithmKind::KEX:
        return FindIn(KEX, name) != std::end(KEX);
    case AlgorithmKind::HOST_KEY:
    case AlgorithmKind::PUBLIC_KEY:
        return FindIn(SIGNATURES, name) != std::end(SIGNATURES);
    case AlgorithmKind::CIPHER:
        return FindIn(CIPHERS, name) != std::end(CIPHERS);
    case AlgorithmKind::MAC:
        return FindIn(MACS, name) != std::end(MACS);
    }
    return false;
}

} // namespace

KexAlgorithm const& FindKex(std::string_view name) { return Find(KEX, name); }
SignatureAlgorithm const& FindSignature(std::string_view name) { return Find(SIGNATURES, name); }
CipherAlgorithm const& FindCipher(std::string_view name) { return Find(CIPHERS, name); }
MacAlgorithm const& FindMac(std::string_view name) { return Find(MACS, name); }

std::string DefaultAlgorithms(AlgorithmKind kind) {
    switch (kind) {
    case AlgorithmKind::KEX:
        return NamesOf(KEX);
    case AlgorithmKind::HOST_KEY:
    case AlgorithmKind::PUBLIC_KEY:
        return NamesOf(SIGNATURES);
    case AlgorithmKind::CIPHER:
        return DefaultCiphers(HasAesInstructions());
    case AlgorithmKind::MAC:
        return NamesOf(MACS);
    }
    return std::string();
}

bool HasAesInstructions() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned int a, b, c, d;
    return __get_cpuid(1, &a, &b, &c, &d) && (c & bit_AES) && (c & bit_PCLMUL);
#elif defined(__aarch64__)
    return (getauxval(AT_HWCAP) & HWCAP_AES) != 0;
#elif defined(__arm__)
    return (getauxval(AT_HWCAP2) & HWCAP2_AES) != 0;
#else
    return false;
#endif
}

std::string DefaultCiphers(bool aesInstructions) {
    std::string names;
    if (!aesInstructions)
        for (CipherAlgorithm const& cipher : CIPHERS)
            if (cipher.mode == CipherMode::CHACHA20_POLY1305) AppendName(names, cipher.name);
    for (CipherAlgorithm const& cipher : CIPHERS)
        if (aesInstructions || cipher.mode != CipherMode::CHACHA20_POLY1305) AppendName(names, cipher.name);
    return names;
}

void CheckAlgorithms(AlgorithmKind kind, char const* place, std::string_view list) {
    std::vector<std::string> const names = SplitNames(list);
    if (names.empty()) throw InvalidArgument(place, "no algorithm");
    for (auto name = names.begin(); name != names.end(); ++name) {
        std::string const quoted = '"' + *name + '"';
        if (name->empty()) throw InvalidArgument(place, "a name is empty");
        if (!IsSupported(kind, *name))
            throw InvalidArgument(place, ("algorithm " + quoted + " is not supported").c_str());
        if (std::find(names.begin(), name, *name) != name)
            throw InvalidArgument(place, ("algorithm " + quoted + " is there twice").c_str());
    }
}

std::vector<std::string> SplitNames(std::string_view list) {
    std::vector<std::string> names;
    for (bool more = !list.empty(); more;) {
        std::size_t const comma = list.find(',');
        names.emplace_back(list.substr(0, comma));
        more = comma != std::string_view::npos;
        if (more) list.remove_prefix(comma + 1);
    }
    return names;
}

bool HasName(std::string_view list, std::string_view name) {
    std::vector<std::string> const names = SplitNames(list);
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string FirstCommon(std::string_view client, std::string_view server) {
    std::vector<std::string> const accepted = SplitNames(server);
    for (std::string const& name : SplitNames(client))
        if (!name.empty() && std::find(accepted.begin(), accepted.end(), name) != accepted.end()) return name;
    return std::string();
}

} // namespace cindral::standard
