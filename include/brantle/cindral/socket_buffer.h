#ifndef BRANTLE_CINDRAL_SOCKET_BUFFER_H
#define BRANTLE_CINDRAL_SOCKET_BUFFER_H

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// The lowest input layer, over a descriptor given by Bind, which stays the caller's.
///
/// It reads ahead: up to 8192 bytes lie between `_pos` and `_end` that no layer above has taken yet.
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
/// Flush() writes out what is buffered; a range as large as BUFFER_SIZE is written past it when it is
/// empty. With a `_timeout` above 0 a wait of more than so many seconds fails with ETIMEDOUT.
class CINDRAL_API OSocketBuffer : public CascadableOStreamBuf, public OSockStream {
public:
    /// Room after BUFFER_SIZE, so that what belongs to a full buffer above, such as a MAC, leaves with it.
    static constexpr unsigned int TRAILER_SIZE = 64;

    OSocketBuffer();
    ~OSocketBuffer() override;

    /// As Flush(), where other bytes follow at once: the kernel may hold these back for them, so that all
    /// leave in full segments, for up to 200 ms or until the next Flush(), even one of an empty buffer.
    int FlushCorked() { return FlushDescriptor(true); }
    using OSockStream::IsCorked;

    int putchr(char byte) override;
    int put(char const* begin, char const* end) override;
    /// Flushes. Returns 0, or -1 with errno set.
    int Finalize() override;
};

} // namespace cindral

#endif
