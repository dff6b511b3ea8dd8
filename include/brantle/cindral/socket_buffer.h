#ifndef BRANTLE_CINDRAL_SOCKET_BUFFER_H
#define BRANTLE_CINDRAL_SOCKET_BUFFER_H

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// The lowest input layer, over a descriptor given by Bind, which stays the caller's.
///
/// It reads ahead: up to 8192 bytes lie between `_pos` and `_end` that no layer above has taken yet. A range
/// larger than that is received where it belongs, except in a derived class: its Fill() gives every byte.
/// With a `_timeout` above 0 a wait of more than so many seconds fails with ETIMEDOUT.
class CINDRAL_API ISocketBuffer : public CascadableIStreamBuf, public ISockStream {
public:
    ISocketBuffer();
    ~ISocketBuffer() override;

    using ISockStream::HasInput;

    int getchr(char& byte) override;
    int get(char* begin, char* end) override;
};

/// The lowest output layer, over a descriptor given by Bind, which stays the caller's.
///
/// Flush() writes out what is buffered. A range that does not fit in with it, or is as large as the whole
/// buffer, leaves at once, in one call with what is buffered, except in a derived class: its Flush() sees
/// every byte. With a `_timeout` above 0 a wait of more than so many seconds fails with ETIMEDOUT.
class CINDRAL_API OSocketBuffer : public CascadableOStreamBuf, public OSockStream {
public:
    OSocketBuffer();
    ~OSocketBuffer() override;

    /// Says whether other bytes follow those of the next Flush() at once. If so, the kernel may hold back
    /// what leaves by then for them, so that all leave in full segments, for up to 200 ms or until the
    /// Flush() after that one, even of an empty buffer.
    void SetMoreToCome(bool more) { _moreToCome = more; }
    using OSockStream::IsCorked;

    int Flush() override;
    int putchr(char byte) override;
    int put(char const* begin, char const* end) override;
    /// Flushes. Returns 0, or -1 with errno set.
    int Finalize() override;

private:
    bool _moreToCome;
};

} // namespace cindral

#endif
