#ifndef BRANTLE_CINDRAL_STRING_BUFFER_H
#define BRANTLE_CINDRAL_STRING_BUFFER_H

#include <cstddef>

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// The end layer over memory for output: a sink that grows as needed.
class CINDRAL_API OStringBuffer : public CascadableOStreamBuf {
public:
    OStringBuffer();
    /// With room for `capacity` bytes before it has to grow.
    explicit OStringBuffer(unsigned int capacity);
    ~OStringBuffer() override;

    /// Takes the byte and returns 0.
    int putchr(char byte) override;
    int put(char const* begin, char const* end) override;

    /// The bytes written, not terminated, never null. Valid until the next write.
    char const* Str() const;
    /// Their number.
    unsigned int Len() const { return static_cast<unsigned int>(_length); }
    /// Takes the bytes written out of the buffer, without a copy, and leaves it empty.
    ByteString Release();

private:
    void Reserve(std::size_t room);

    unsigned char* _data; ///< owned; null until there is something to hold
    std::size_t _length;
    std::size_t _capacity;
};

/// The end layer over memory for input. The memory is not copied and must stay while it is read.
class CINDRAL_API IStringBuffer : public CascadableIStreamBuf {
public:
    /// Over a text up to its terminator; null is empty.
    explicit IStringBuffer(char const* text);
    /// Over `size` bytes, which may hold zeros.
    IStringBuffer(char const* data, unsigned int size);
    ~IStringBuffer() override;

    /// Starts again on other memory.
    void Assign(char const* data, unsigned int size);

    int getchr(char& byte) override;
    int get(char* begin, char* end) override;

    /// Passes over up to `size` bytes. Returns where they lie; how many there are, in `size`.
    char const* Skip(unsigned int& size);

private:
    char const* _pos;
    char const* _end;
};

} // namespace cindral

#endif
