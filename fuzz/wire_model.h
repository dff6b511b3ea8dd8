#ifndef BRANTLE_FUZZ_WIRE_MODEL_H
#define BRANTLE_FUZZ_WIRE_MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

/// A second reading of a message, by code that shares nothing with the library: whether the message can be
/// decoded, and what it looks like when it is encoded again from its fields. The two differ where a
/// decoder drops something: what comes after a zero byte in a text, surplus bytes of a number.
class WireModel {
public:
    explicit WireModel(std::string_view bytes) : _rest(bytes) {}

    /// The message as it is encoded again, as far as it has been read.
    std::string const& Encoded() const { return _encoded; }
    /// The last text, up to its first zero byte, and the last 32-bit number.
    std::string const& Text() const { return _text; }
    std::uint32_t Number() const { return _number; }
    bool Ok() const { return _ok; }

protected:
    std::string_view Take(std::size_t count);
    std::uint32_t TakeNumber();
    void Encode(std::string_view bytes) { _encoded += bytes; }
    void EncodeNumber(std::uint32_t number);
    void EncodeString(std::string_view bytes);

    std::string_view _rest;
    std::string _encoded;
    std::string _text;
    std::uint32_t _number = 0;
    bool _ok = true;
};

/// Of a packet as it is read: padding length, payload and padding (RFC 4251, section 5).
class SshModel : public WireModel {
public:
    explicit SshModel(std::string_view packet);

    /// Reads fields, one a letter: b byte, u uint32, s text, x string of bytes, m mpint, k key blob, c cookie
    /// of 16 bytes. Dropped are S, a text, and z, a uint32 that is encoded as 0.
    void Read(char const* fields);
    /// Whether nothing but padding is left.
    bool Fits() const { return _ok && _rest.size() <= _padding; }

private:
    void ReadField(char field);
    std::string_view TakeString();

    std::size_t _padding;
};

/// Of the payload of an SFTP message, or of a part of one.
class SftpModel : public WireModel {
public:
    using WireModel::WireModel;

    /// Reads fields, one a letter: b byte, u 32-bit and q 64-bit number, s text, x string of bytes, a
    /// attributes, n a count and that many names, of which the count is encoded twice.
    void Read(char const* fields);
    /// Whether all texts were within their bounds, which is not required of a status.
    bool TextsOk() const { return _textsOk; }

private:
    void ReadField(char field);
    void ReadText();
    void ReadAttributes();
    void ReadNames();
    std::string_view TakeString();

    bool _textsOk = true;
};

} // namespace fuzz

#endif
