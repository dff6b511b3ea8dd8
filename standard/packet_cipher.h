#ifndef BRANTLE_STANDARD_PACKET_CIPHER_H
#define BRANTLE_STANDARD_PACKET_CIPHER_H

#include <cstddef>
#include <memory>
#include <string>

#include "foundations/cindral/secret_bytes.h"

namespace cindral::standard {

// Encryption and integrity of one direction of a connection, packet by packet and in place.
//
// A packet is the length field (4 bytes), the padding length, the payload and the padding (RFC 4253, section
// 6); its `length` counts all of these, and TagSize() bytes follow it. The sequence number is that of RFC
// 4253, section 6.4. The objects belong to one thread at a time.

/// The keys of one direction: the initialisation vector, the cipher's key and the MAC's. Each is cut to the
/// length that its algorithm needs.
struct DirectionKeys {
    SecretBytes iv;
    SecretBytes cipher;
    SecretBytes mac;
};

/// Number of bytes to derive for each of them.
struct KeySizes {
    std::size_t iv;
    std::size_t cipher;
    std::size_t mac;
};

/// Throws InvalidArgument for a name that is not supported. `mac` is ignored for a cipher that authenticates
/// the packet, here and below.
KeySizes KeySizesOf(std::string const& cipher, std::string const& mac);

/// What both directions have in common.
class PacketFormat {
public:
    PacketFormat(unsigned int alignment, unsigned int tagSize, bool lengthIsOutside)
        : _alignment(alignment), _tagSize(tagSize), _lengthIsOutside(lengthIsOutside) {}

    /// The length of a packet, with or without its length field, is a multiple of this.
    unsigned int Alignment() const { return _alignment; }
    /// Whether the length field is excluded from the alignment.
    bool LengthIsOutside() const { return _lengthIsOutside; }
    unsigned int TagSize() const { return _tagSize; }

private:
    unsigned int _alignment;
    unsigned int _tagSize;
    bool _lengthIsOutside;
};

class PacketSealer : public PacketFormat {
public:
    using PacketFormat::PacketFormat;
    virtual ~PacketSealer() = default;
    PacketSealer(PacketSealer const&) = delete;
    PacketSealer& operator=(PacketSealer const&) = delete;

    /// The sealer used before there are keys: leaves the packet unchanged, without a tag.
    static std::unique_ptr<PacketSealer> None();
    /// Throws InvalidArgument for a name that is not supported or a key that is too short, and OpenSSLError.
    static std::unique_ptr<PacketSealer> Create(std::string const& cipher, std::string const& mac,
                                                DirectionKeys const& keys);

    /// Encrypts the packet and writes the tag after it. Throws OpenSSLError.
    /// REQUIRES: the packet is aligned as required.
    virtual void Seal(unsigned int sequence, unsigned char* packet, std::size_t length) = 0;
};

class PacketOpener : public PacketFormat {
public:
    using PacketFormat::PacketFormat;
    virtual ~PacketOpener() = default;
    PacketOpener(PacketOpener const&) = delete;
    PacketOpener& operator=(PacketOpener const&) = delete;

    /// As in PacketSealer.
    static std::unique_ptr<PacketOpener> None();
    static std::unique_ptr<PacketOpener> Create(std::string const& cipher, std::string const& mac,
                                                DirectionKeys const& keys);

    /// Number of bytes of the packet that PeekLength() needs.
    virtual std::size_t LengthBytes() const { return 4; }
    /// The length field of the next packet, which is not authenticated yet. May be called again before
    /// Open(), for the same bytes, which may have moved. Throws OpenSSLError.
    virtual unsigned int PeekLength(unsigned int sequence, unsigned char* packet) = 0;
    /// Verifies and decrypts a packet whose PeekLength() has been called; its length field is then the plain
    /// one. False if the packet is forged: neither the connection nor the packet's bytes may be used
    /// afterwards. Throws OpenSSLError.
    /// REQUIRES: `length` is at least LengthBytes(), and the packet and its tag have arrived.
    virtual bool Open(unsigned int sequence, unsigned char* packet, std::size_t length) = 0;
};

} // namespace cindral::standard

#endif
