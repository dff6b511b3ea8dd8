#include <brantle/cindral/bin_buffer.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/thornel/big_endian.h>
#include <brantle/thornel/text.h>

namespace cindral {

namespace {

unsigned int WriteBytes(std::ostream& out, char const* data, unsigned int size) {
    std::streamsize written = out.rdbuf()->sputn(data, size);
    if (written != static_cast<std::streamsize>(size)) out.setstate(std::ios_base::badbit);
    return static_cast<unsigned int>(written);
}

void ReadBytes(std::istream& in, char* data, unsigned int size) {
    if (in.rdbuf()->sgetn(data, size) == static_cast<std::streamsize>(size)) return;
    in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
    throw BadInput("premature end of input");
}

template <class T>
unsigned int WriteNumber(std::ostream& out, T value) {
    char bytes[sizeof(T)];
    PutBigEndian(bytes, value);
    return WriteBytes(out, bytes, sizeof(T));
}

template <class T>
T ReadNumber(std::istream& in) {
    char bytes[sizeof(T)];
    ReadBytes(in, bytes, sizeof(T));
    return GetBigEndian<T>(bytes);
}

} // namespace

unsigned int BinBuffer::WriteByte(std::ostream& out, unsigned char value) {
    if (!std::char_traits<char>::eq_int_type(out.rdbuf()->sputc(static_cast<char>(value)),
                                             std::char_traits<char>::eof())) {
        return 1;
    }
    out.setstate(std::ios_base::badbit);
    return 0;
}

unsigned int BinBuffer::WriteShort(std::ostream& out, unsigned short value) {
    return WriteNumber(out, value);
}

unsigned int BinBuffer::WriteInt(std::ostream& out, unsigned int value) { return WriteNumber(out, value); }

unsigned int BinBuffer::WriteLong(std::ostream& out, unsigned long long value) {
    return WriteNumber(out, value);
}

unsigned int BinBuffer::WriteString(std::ostream& out, unsigned char const* data, unsigned int size) {
    return WriteBytes(out, reinterpret_cast<char const*>(data), size);
}

unsigned int BinBuffer::WriteByteString(std::ostream& out, ByteString const& value) {
    unsigned int written = WriteInt(out, value.Length());
    return written + WriteString(out, value.Data(), value.Length());
}

unsigned int BinBuffer::WriteCharString(std::ostream& out, char const* text) {
    unsigned int length = str_len(text);
    unsigned int written = WriteInt(out, length);
    return written + WriteBytes(out, text, length);
}

unsigned char BinBuffer::ReadByte(std::istream& in) { return ReadNumber<unsigned char>(in); }

unsigned short BinBuffer::ReadShort(std::istream& in) { return ReadNumber<unsigned short>(in); }

unsigned int BinBuffer::ReadInt(std::istream& in) { return ReadNumber<unsigned int>(in); }

unsigned long long BinBuffer::ReadLong(std::istream& in) { return ReadNumber<unsigned long long>(in); }

unsigned int BinBuffer::ReadString(std::istream& in, unsigned char* data, unsigned int size) {
    ReadBytes(in, reinterpret_cast<char*>(data), size);
    return size;
}

} // namespace cindral
