#include <algorithm>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include "standard/known_hosts_line.h"

namespace cindral::standard {

namespace {

constexpr std::string_view SPACE = " \t";
constexpr std::string_view HASHED = "|1|";
constexpr std::size_t NONE_FOUND = std::string_view::npos;

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// Removes the text up to `separators`, and one of these, from the front of `text`, and returns it.
std::string_view TakeUntil(std::string_view& text, std::string_view separators) {
    std::string_view const taken = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(std::min(taken.size() + 1, text.size()));
    return taken;
}

std::string_view TakeField(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(SPACE), line.size()));
    return TakeUntil(line, SPACE);
}

/// Whether a pattern with * and ? matches the whole of `name`. After a mismatch only the last * is
/// extended, so that the time is bounded by the product of both lengths.
bool MatchesPattern(std::string_view name, std::string_view pattern) {
    std::size_t n = 0, p = 0, star = NONE_FOUND, covered = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            covered = n;
        } else if (p < pattern.size() && (pattern[p] == '?' || Lower(pattern[p]) == name[n])) {
            ++p;
            ++n;
        } else if (star != NONE_FOUND) {
            p = star + 1;
            n = ++covered;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == NONE_FOUND;
}

bool MatchesList(HostName const& host, std::string_view patterns) {
    bool matches = false;
    while (!patterns.empty()) {
        std::string_view pattern = TakeUntil(patterns, ",");
        bool const negated = !pattern.empty() && pattern[0] == '!';
        if (negated) pattern.remove_prefix(1);
        if (pattern.empty()) continue;
        if (!MatchesPattern(host.name, pattern) && LowerCase(pattern) != host.alias) continue;
        if (negated) return false;
        matches = true;
    }
    return matches;
}

/// `hashed` is "|1|salt|hash", both in base64; the hash is an HMAC-SHA1 of the name under the salt.
bool MatchesHash(HostName const& host, std::string_view hashed) {
    if (hashed.substr(0, HASHED.size()) != HASHED) return false;
    hashed.remove_prefix(HASHED.size());
    Bytes salt, hash;
    if (!DecodeBase64(TakeUntil(hashed, "|"), salt) || !DecodeBase64(hashed, hash)) return false;
    if (salt.size() != SHA_DIGEST_LENGTH || hash.size() != SHA_DIGEST_LENGTH) return false;
    for (View const name : {View(host.name), View(host.alias)}) {
        if (name.empty()) continue;
        unsigned char computed[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        if (!HMAC(EVP_sha1(), salt.data(), SHA_DIGEST_LENGTH, name.data(), name.size(), computed, &size))
            throw OpenSSLError("HMAC");
        if (View(computed, size) == View(hash)) return true;
    }
    return false;
}

/// Whether no field of the blob is cut off. Nothing is known of the fields of other types.
bool HasAllFields(View blob, std::string_view type) {
    if (SignatureAlgorithmsOf(type).empty()) return true;
    Reader fields(blob, "key");
    try {
        fields.String();
        for (int left = type == "ssh-ed25519" ? 1 : 2; left > 0; --left) fields.String();
        fields.End();
        return true;
    } catch (SshProtocolError const&) {
        return false;
    }
}

} // namespace

bool KnownHostsLine::Parse(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    _marker = NONE;
    _hosts = TakeField(line);
    if (_hosts.empty() || _hosts[0] == '#') return false;
    if (_hosts[0] == '@') {
        if (_hosts != "@revoked" && _hosts != "@cert-authority") return false;
        _marker = _hosts == "@revoked" ? REVOKED : AUTHORITY;
        _hosts = TakeField(line);
    }
    _type = TakeField(line);
    _key64 = TakeField(line);
    return !_hosts.empty();
}

bool KnownHostsLine::IsFor(HostName const& host) const {
    if (host.name.empty()) return false;
    return _hosts[0] == '|' ? MatchesHash(host, _hosts) : MatchesList(host, _hosts);
}

/// A signature algorithm in place of the type is accepted as the key type that it implies.
std::string_view KnownHostsLine::KeyType() const {
    return _type == "rsa-sha2-256" || _type == "rsa-sha2-512" ? "ssh-rsa" : _type;
}

bool KnownHostsLine::DecodeKey(Bytes& blob) const {
    return !_key64.empty() && DecodeBase64(_key64, blob) && KeyTypeOf(blob) == KeyType() &&
           HasAllFields(blob, KeyType());
}

std::string LowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), Lower);
    return lower;
}

std::string EncodeBase64(View bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    int const size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

bool DecodeBase64(std::string_view text, Bytes& bytes) {
    // EVP_DecodeBlock also skips white space and accepts '=' anywhere.
    std::size_t const end = std::min(text.find_last_not_of('=') + 1, text.size());
    std::size_t const padding = text.size() - end;
    auto const isDigit = [](char c) {
        return (Lower(c) >= 'a' && Lower(c) <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
    };
    if (text.size() % 4 != 0 || padding > 2) return false;
    if (!std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), isDigit)) return false;
    bytes.resize(text.size() / 4 * 3);
    if (text.empty()) return true;
    View const encoded(text);
    if (EVP_DecodeBlock(bytes.data(), encoded.data(), static_cast<int>(encoded.size())) < 0) return false;
    bytes.resize(bytes.size() - padding);
    return true;
}

} // namespace cindral::standard
