#ifndef BRANTLE_CINDRAL_CASCADABLE_STREAM_H
#define BRANTLE_CINDRAL_CASCADABLE_STREAM_H

#include <brantle/cindral/export.h>
#include <brantle/thornel/stream_buffer.h>

namespace cindral {

/// A layer of a stack of byte streams: framing, hexadecimal text, memory, a socket.
///
/// A layer is used in its own direction only; the other direction fails here with ENOTSUP. It does not own
/// the layers below it, which must outlive it. Not thread-safe: one thread at a time.
class CINDRAL_API CascadableStreamBuf {
public:
    CascadableStreamBuf();
    virtual ~CascadableStreamBuf();
    CascadableStreamBuf(CascadableStreamBuf const&) = delete;
    CascadableStreamBuf& operator=(CascadableStreamBuf const&) = delete;

    /// Writes one byte. Negative on failure.
    virtual int putchr(char byte);
    /// Reads one byte. Returns 1, 0 at the end of the input, negative on failure.
    virtual int getchr(char& byte);
    /// Writes a range. Returns the number of bytes accepted, negative on failure.
    virtual int put(char const* begin, char const* end);
    /// Fills the whole range, unless the input ends or fails. Returns the number of bytes stored, 0 at the
    /// end of the input, negative on failure. For a partly filled range, the number is returned, and the next
    /// call reports the reason.
    virtual int get(char* begin, char* end);
};

/// An output layer.
class CINDRAL_API CascadableOStreamBuf : public CascadableStreamBuf {
public:
    /// Closes the layer and those below it: buffered data is passed on. Negative on failure. This
    /// implementation does nothing and returns 0.
    virtual int Finalize();
};

/// An input layer.
class CINDRAL_API CascadableIStreamBuf : public CascadableStreamBuf {};

/// An output layer that collects bytes in a buffer; the derived class's Flush() passes them on.
class CINDRAL_API CascadableOStreamBuffer : public CascadableOStreamBuf, public OutputBuffer<char> {
public:
    /// `next` is the layer below, `size` the buffer's size in bytes.
    CascadableOStreamBuffer(CascadableOStreamBuf* next, unsigned int size);
    /// With an array of the derived class's own as buffer.
    CascadableOStreamBuffer(CascadableOStreamBuf* next, char* array, unsigned int size);
    ~CascadableOStreamBuffer() override;

    int putchr(char byte) override;
    int put(char const* begin, char const* end) override;
    int Finalize() override;
    /// Passes the buffered bytes to the layer below and empties the buffer. Negative on failure.
    int Flush() override = 0;

    CascadableOStreamBuf* _next; ///< the layer below, not owned
};

/// An input layer that works on a buffer; the derived class's Fill() fetches bytes into it.
class CINDRAL_API CascadableIStreamBuffer : public CascadableIStreamBuf, public InputBuffer<char> {
public:
    /// `next` is the layer below, `size` the buffer's size in bytes.
    CascadableIStreamBuffer(CascadableIStreamBuf* next, unsigned int size);
    /// With an array of the derived class's own as buffer.
    CascadableIStreamBuffer(CascadableIStreamBuf* next, char* array, unsigned int size);
    ~CascadableIStreamBuffer() override;

    int getchr(char& byte) override;
    int get(char* begin, char* end) override;
    /// Fetches bytes from the layer below. Returns their number, 0 at the end of the input, negative on
    /// failure; after a failure the next call must fail again.
    int Fill() override = 0;

    CascadableIStreamBuf* _next; ///< the layer below, not owned
};

} // namespace cindral

#endif
