#ifndef BRANTLE_CINDRAL_STRING_BUFFER_H
#define BRANTLE_CINDRAL_STRING_BUFFER_H

#include <cstddef>

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// The lowest layer for output to memory, which grows as needed.
class CINDRAL_API OStringBuffer : public CascadableOStreamBuf {
public:
    OStringBuffer();
    /// With room for `capacity` bytes before it has to grow.
    explicit OStringBuffer(unsigned int capacity);
    ~OStringBuffer() override;

    /// Appends the byte and returns 0.
    int putchr(char byte) override;
    int put(char const* begin, char const* end) override;

    /// The bytes written, not terminated, never null. Valid until the next write.
    char const* Str() const;
    /// Their number.
    unsigned int Len() const { return static_cast<unsigned int>(_length); }
    /// Moves the written bytes out of the buffer without copying, and leaves it empty.
    ByteString Release();

private:
    void Reserve(std::size_t room);

    unsigned char* _data; ///< owned; null until something is written
    std::size_t _length;
    std::size_t _capacity;
};

/// The lowest layer for input from memory. The memory is not copied and must remain valid while it is read.
class CINDRAL_API IStringBuffer : public CascadableIStreamBuf {
public:
    /// Over a text up to its terminator; null is empty.
    explicit IStringBuffer(char const* text);
    /// Over `size` bytes, which may hold zeros.
    IStringBuffer(char const* data, unsigned int size);
    ~IStringBuffer() override;

    /// Starts again with other memory.
    void Assign(char const* data, unsigned int size);

    int getchr(char& byte) override;
    int get(char* begin, char* end) override;

    /// Skips up to `size` bytes. Returns their address, and their number in `size`.
    char const* Skip(unsigned int& size);

private:
    char const* _pos;
    char const* _end;
};

} // namespace cindral

#endif
