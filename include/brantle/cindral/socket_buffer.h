#ifndef BRANTLE_CINDRAL_SOCKET_BUFFER_H
#define BRANTLE_CINDRAL_SOCKET_BUFFER_H

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// The lowest input layer, over a descriptor set by Bind, which the caller continues to own.
///
/// It reads ahead: up to 8192 bytes that no layer above has read yet are between `_pos` and `_end`. A larger
/// range is received directly into its destination, except in a derived class, where every byte comes from
/// its Fill(). If `_timeout` is above 0, a wait of more than that many seconds fails with ETIMEDOUT.
class CINDRAL_API ISocketBuffer : public CascadableIStreamBuf, public ISockStream {
public:
    ISocketBuffer();
    ~ISocketBuffer() override;

    using ISockStream::HasInput;

    int getchr(char& byte) override;
    int get(char* begin, char* end) override;
};

/// The lowest output layer, over a descriptor set by Bind, which the caller continues to own.
///
/// Flush() writes out what is buffered. A range that does not fit into the rest of the buffer, or is as large
/// as the whole buffer, is written immediately, in one call with what is buffered, except in a derived class,
/// where every byte passes through its Flush(). If `_timeout` is above 0, a wait of more than that many
/// seconds fails with ETIMEDOUT.
class CINDRAL_API OSocketBuffer : public CascadableOStreamBuf, public OSockStream {
public:
    OSocketBuffer();
    ~OSocketBuffer() override;

    /// Sets whether other bytes follow those of the next Flush() immediately. If so, the kernel may delay
    /// what is written up to that Flush(), in order to send full segments, for up to 200 ms or until the
    /// Flush() after it, even if the buffer is then empty.
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
