#ifndef BRANTLE_STANDARD_ALGORITHMS_H
#define BRANTLE_STANDARD_ALGORITHMS_H

#include <string>
#include <string_view>
#include <vector>

namespace cindral::standard {

/// The lists of a KEXINIT message, and that of the signatures of user authentication.
enum class AlgorithmKind { KEX, HOST_KEY, PUBLIC_KEY, CIPHER, MAC };

enum class KexMethod { X25519, ECDH, FIXED_GROUP, GROUP_EXCHANGE };

struct KexAlgorithm {
    char const* name;
    KexMethod method;
    char const* group;  ///< as libcrypto names it; null if the server chooses it
    char const* digest; ///< of the exchange hash and of key derivation, as libcrypto names it
};

struct SignatureAlgorithm {
    char const* name;
    char const* keyType; ///< the name in the key blob
    char const* digest;  ///< as libcrypto names it; null where the signature scheme has its own
};

enum class CipherMode { GCM, CHACHA20_POLY1305, CTR };

struct CipherAlgorithm {
    char const* name;
    char const* cipher; ///< as libcrypto names it
    CipherMode mode;
    unsigned int keySize;
    unsigned int ivSize;
    unsigned int blockSize;

    /// Whether it authenticates the packet, so that no MAC is negotiated.
    bool IsAead() const { return mode != CipherMode::CTR; }
};

struct MacAlgorithm {
    char const* name;
    char const* digest;    ///< as libcrypto names it
    unsigned int size;     ///< of the key and of the MAC
    bool encryptsThenMacs; ///< computed over the ciphertext; the length field stays plain
};

/// The record of that name. Throws InvalidArgument if there is none.
KexAlgorithm const& FindKex(std::string_view name);
SignatureAlgorithm const& FindSignature(std::string_view name);
CipherAlgorithm const& FindCipher(std::string_view name);
MacAlgorithm const& FindMac(std::string_view name);

/// The names supported, comma-separated, in the order of preference on this machine.
std::string DefaultAlgorithms(AlgorithmKind kind);

/// Whether the processor has instructions for AES; without them ChaCha20 is the faster cipher.
bool HasAesInstructions();
/// The ciphers in the order for a machine with or without such instructions.
std::string DefaultCiphers(bool aesInstructions);

/// Throws InvalidArgument with `place` and what is wrong if the list is empty, or a name in it is empty, not
/// supported for that kind, or repeated.
void CheckAlgorithms(AlgorithmKind kind, char const* place, std::string_view list);

/// The names in a comma-separated list, including empty ones; none if the list is empty.
std::vector<std::string> SplitNames(std::string_view list);
bool HasName(std::string_view list, std::string_view name);
/// The first name in `client` that is also in `server` (RFC 4253, section 7.1); empty if there is none.
std::string FirstCommon(std::string_view client, std::string_view server);

} // namespace cindral::standard

#endif
