#ifndef BRANTLE_CINDRAL_HEX_BUFFER_H
#define BRANTLE_CINDRAL_HEX_BUFFER_H

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>

namespace cindral {

/// An output layer that writes bytes as lower-case hexadecimal text into the next layer.
class CINDRAL_API OHexBuffer : public CascadableOStreamBuffer {
public:
    /// A line holds up to `lineLength` digits, two for each byte; 0 means one line of unlimited length.
    /// `separator` is written between lines, but not after the last one. `column` digits count as already
    /// written on the first line.
    OHexBuffer(CascadableOStreamBuf* next, unsigned int lineLength, char separator, unsigned int column);
    /// Flushes; a failure is ignored.
    ~OHexBuffer() override;

    /// Passes on the bytes collected so far, as text. Returns 0, or the next layer's negative result.
    int Flush() override;

private:
    unsigned int const _lineLength;
    char const _separator;
    unsigned int _column;
};

/// An input layer that reads hexadecimal text, of either case, from the next layer and returns bytes. White
/// space between the pairs of digits is skipped; anything else fails with EINVAL, as does an incomplete pair
/// at the end.
class CINDRAL_API IHexBuffer : public CascadableIStreamBuffer {
public:
    explicit IHexBuffer(CascadableIStreamBuf* next);
    ~IHexBuffer() override;

    int Fill() override;

private:
    int ReadPair(char& byte);

    int _broken; ///< 1 once the text was found to be malformed
};

} // namespace cindral

#endif
