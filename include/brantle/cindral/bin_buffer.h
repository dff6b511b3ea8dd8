#ifndef BRANTLE_CINDRAL_BIN_BUFFER_H
#define BRANTLE_CINDRAL_BIN_BUFFER_H

#include <istream>
#include <ostream>

#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// Binary values on standard streams, most significant byte first, in the forms of RFC 4251, section 5.
///
/// The writers return the number of bytes written, length fields included; if the stream accepts no more,
/// badbit is set. The readers throw BadInput when the input ends before the value is complete, with eofbit
/// and failbit set on the stream, and read nothing beyond the value.
class CINDRAL_API BinBuffer {
public:
    static unsigned int WriteByte(std::ostream& out, unsigned char value);
    static unsigned int WriteShort(std::ostream& out, unsigned short value);
    static unsigned int WriteInt(std::ostream& out, unsigned int value);
    static unsigned int WriteLong(std::ostream& out, unsigned long long value);
    /// Only the bytes, without a length.
    static unsigned int WriteString(std::ostream& out, unsigned char const* data, unsigned int size);
    /// A 32-bit length, then the bytes.
    static unsigned int WriteByteString(std::ostream& out, ByteString const& value);
    /// A 32-bit length, then the text without its terminator; null is the empty text.
    static unsigned int WriteCharString(std::ostream& out, char const* text);

    static unsigned char ReadByte(std::istream& in);
    static unsigned short ReadShort(std::istream& in);
    static unsigned int ReadInt(std::istream& in);
    static unsigned long long ReadLong(std::istream& in);
    /// Reads exactly `size` bytes into the array and returns their number.
    static unsigned int ReadString(std::istream& in, unsigned char* data, unsigned int size);
};

} // namespace cindral

#endif
