#ifndef BRANTLE_STANDARD_PACKET_CIPHER_H
#define BRANTLE_STANDARD_PACKET_CIPHER_H

#include <cstddef>
#include <memory>
#include <string>

#include "foundations/cindral/secret_bytes.h"

namespace cindral::standard {

// Encryption and integrity of one direction of a connection, packet by packet and where the packet lies.
//
// A packet is the length field (4 bytes), the padding length, the payload and the padding (RFC 4253, section
// 6); its `length` counts all of these, and TagSize() bytes follow it. The sequence number is that of RFC
// 4253, section 6.4. The objects belong to one thread at a time.

/// The keys of one direction: the initialisation vector, the cipher's key and the MAC's. What is longer than
/// the algorithms ask for is cut.
struct DirectionKeys {
    SecretBytes iv;
    SecretBytes cipher;
    SecretBytes mac;
};

/// Bytes to derive for each of them.
struct KeySizes {
    std::size_t iv;
    std::size_t cipher;
    std::size_t mac;
};

/// Throws InvalidArgument for a name that is not supported. `mac` is not looked at for a cipher that
/// authenticates by itself, here and below.
KeySizes KeySizesOf(std::string const& cipher, std::string const& mac);

/// What both directions have in common.
class PacketFormat {
public:
    PacketFormat(unsigned int alignment, unsigned int tagSize, bool lengthIsOutside)
        : _alignment(alignment), _tagSize(tagSize), _lengthIsOutside(lengthIsOutside) {}

    /// What the length of a packet, with or without its length field, is a multiple of.
    unsigned int Alignment() const { return _alignment; }
    /// Whether the length field doesn't count for the alignment.
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

    /// The one in force before there are keys: leaves the packet as it is, without a tag.
    static std::unique_ptr<PacketSealer> None();
    /// Throws InvalidArgument for a name that is not supported or a key that is too short, and OpenSSLError.
    static std::unique_ptr<PacketSealer> Create(std::string const& cipher, std::string const& mac,
                                                DirectionKeys const& keys);

    /// Encrypts the packet and writes the tag after it. Throws OpenSSLError.
    /// REQUIRES: the packet has the alignment.
    virtual void Seal(unsigned int sequence, unsigned char* packet, std::size_t length) = 0;
};

class PacketOpener : public PacketFormat {
public:
    using PacketFormat::PacketFormat;
    virtual ~PacketOpener() = default;
    PacketOpener(PacketOpener const&) = delete;
    PacketOpener& operator=(PacketOpener const&) = delete;

    /// The counterparts of PacketSealer's.
    static std::unique_ptr<PacketOpener> None();
    static std::unique_ptr<PacketOpener> Create(std::string const& cipher, std::string const& mac,
                                                DirectionKeys const& keys);

    /// Bytes of the packet that must be there for PeekLength().
    virtual std::size_t LengthBytes() const { return 4; }
    /// The length field of the next packet, which nothing vouches for yet. May be called again before Open(),
    /// for the same bytes, which may have moved. Throws OpenSSLError.
    virtual unsigned int PeekLength(unsigned int sequence, unsigned char* packet) = 0;
    /// Verifies and decrypts a packet whose PeekLength() has been called; its length field is then the plain
    /// one. False if the packet is forged: the connection is of no further use then, nor are the packet's
    /// bytes. Throws OpenSSLError.
    /// REQUIRES: `length` is at least LengthBytes(), and the packet and its tag are there.
    virtual bool Open(unsigned int sequence, unsigned char* packet, std::size_t length) = 0;
};

} // namespace cindral::standard

#endif
