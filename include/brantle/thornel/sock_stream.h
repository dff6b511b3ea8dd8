#ifndef BRANTLE_THORNEL_SOCK_STREAM_H
#define BRANTLE_THORNEL_SOCK_STREAM_H

#include <cstddef>
#include <utility>

#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/export.h>
#include <brantle/thornel/stream_buffer.h>
#include <brantle/thornel/string_t.h>

/// What all socket streams share: a status word, 0 while all is well.
///
/// The status only records. A stream goes on reading and writing whatever it says, and it stays until
/// the next SetStatus or Bind. One thread at a time.
class THORNEL_API SockStream {
public:
    static constexpr unsigned int FAILED = 1;       ///< output was lost
    static constexpr unsigned int MALFORMED = 2;    ///< a field or line was out of bounds
    static constexpr unsigned int END_OF_INPUT = 4; ///< a read found less than it wanted

    SockStream();
    virtual ~SockStream();

    /// Stores the status word.
    void SetStatus(unsigned int status) { _status = status; }
    unsigned int Status() const { return _status; }

private:
    unsigned int _status;
};

/// A buffered output stream over a descriptor, which stays the caller's.
///
/// Nothing is written until the buffer is full, Flush() is called or a tied input stream waits; in
/// particular the destructor writes nothing, as the descriptor may be closed by then. After a failed
/// write the stream stays failed with the same errno until it is bound again.
///
/// A derived class that overrides Flush(), to send the bytes elsewhere or to look at them first, sees every
/// byte there in [_start, _pos), whatever operation wrote it.
class THORNEL_API OSockStream : public OutputBuffer<char>, public virtual SockStream {
public:
    /// Bytes that the buffer of a socket stream holds.
    static constexpr unsigned int BUFFER_SIZE = 8192;

    OSockStream();
    explicit OSockStream(int fd);
    ~OSockStream() override;

    /// Writes out what is buffered. Returns the number of bytes, or -1 with errno set and FAILED in
    /// the status; what has not gone stays in the buffer.
    int Flush() override;
    int Put(char const& byte) override;

    /// Attaches the descriptor, with an empty buffer and a status of 0.
    virtual void Bind(int fd);
    /// Detaches the descriptor and drops what is buffered.
    virtual void Unbind();

    /// Writes `size` bytes through the buffer. What can't be written is lost, with FAILED in the status.
    OSockStream& Write(char const* data, int size);
    /// Writes the text and the line end `eol`.
    OSockStream& Writeln(String_t const& text, char const* eol);

    /// The descriptor, negative if there is none.
    int Fd() const { return _io.Fd(); }

    /// Seconds that one wait for the peer may take; 0, as at the start, is no limit.
    unsigned int _timeout;

protected:
    /// Whether the Flush() in progress makes room in the middle of a Write or Put: more bytes of the same
    /// message follow.
    bool IsMakingRoom() const { return _isMakingRoom; }
    /// Writes what is buffered to the descriptor, as Flush() does. With `more`, other bytes follow at once,
    /// and the kernel may hold these back for them.
    int FlushDescriptor(bool more);
    /// Writes what is buffered and after it a range, past the buffer. Returns 0, or -1 with errno set; `from`
    /// says how much of the range has gone.
    int Send(char const*& from, char const* end, bool more = false);
    /// Whether the kernel may hold back bytes. The next Flush() sends them.
    bool IsCorked() const { return _isCorked; }

private:
    int MakeRoom();
    int NoteWritten(int result, char const* rest, bool more);

    DescriptorIO _io;
    int _failure; ///< errno of the write that failed since the last Bind, else 0
    bool _isCorked;
    bool _isMakingRoom;
    char _array[BUFFER_SIZE]; ///< of the OutputBuffer
};

/// A buffered input stream over a descriptor, which stays the caller's.
///
/// Before the stream waits for bytes it flushes, once, the output stream that it is tied to. After a failed
/// read the stream stays failed with the same errno until it is bound again.
///
/// A derived class that overrides Fill(), to take the bytes from elsewhere or to change them, gives every
/// byte there, in [_pos, _end), whatever operation reads it. The tied stream has then been flushed already.
class THORNEL_API ISockStream : public InputBuffer<char>, public virtual SockStream {
public:
    static constexpr unsigned int BUFFER_SIZE = 8192;
    /// Longest frame that operator>> into a ByteString takes, in bytes.
    static constexpr unsigned int MAX_FRAME = 16 * 1024 * 1024;
    /// Longest line that Readln takes, in bytes without the line end.
    static constexpr unsigned int MAX_LINE = 256 * 1024;

    /// A stream without descriptor. `tied` may be null; else it must outlive this stream.
    explicit ISockStream(OSockStream* tied);
    ~ISockStream() override;

    /// Reads from the descriptor into the buffer, whose readable range must be empty. Returns the number of
    /// bytes, 0 at the end of the input, -1 with errno set on failure.
    int Fill() override;
    /// As InputBuffer::Get, with the tied stream flushed before a Fill().
    int Get(char& byte) override;

    /// Attaches the descriptor, with an empty buffer and a status of 0.
    virtual void Bind(int fd);
    /// Detaches the descriptor and drops what has been read ahead.
    virtual void Unbind();

    /// Reads exactly `size` bytes. If the input ends or fails before, Gcount() tells how many came
    /// and END_OF_INPUT is added to the status.
    ISockStream& Read(char* data, int size);

    /// Reads a line up to and including `eol`, or "\n" if that is empty, and stores it without. Takes no byte
    /// after the line end out of the descriptor. If the input ends or fails first, what came is stored and
    /// END_OF_INPUT added to the status; a line above MAX_LINE bytes is given up with MALFORMED added,
    /// and what was read of it is stored.
    ISockStream& Readln(String_t& line, char const* eol);

    /// Bytes that the last Read delivered.
    int Gcount() const { return _gcount; }
    /// Ties this stream to another output stream, or to none.
    void Tie(OSockStream* tied) { _tied = tied; }

    /// The descriptor, negative if there is none.
    int Fd() const { return _io.Fd(); }

    /// Seconds that one wait for the peer may take; 0, as at the start, is no limit.
    unsigned int _timeout;

protected:
    /// Flushes the tied stream, if there is one, unless Refill() has just done so for this read. To be called
    /// by each Fill() that may wait.
    void FlushTied() {
        if (_tied && !std::exchange(_isTiedFlushed, false)) _tied->Flush();
    }
    /// Flushes the tied stream, then calls Fill().
    int Refill();
    /// Flushes the tied stream, then reads from the descriptor into a range, past the buffer, which must be
    /// empty. Results as of Fill().
    int ReadUnbuffered(char* begin, char* end);
    /// Whether a read from the descriptor would find bytes, the end of the input or a failure without a wait.
    bool HasInput() const { return _failure || _io.HasInput(); }
    /// Stores a part of a range that Read wants, with an empty buffer: here what a Refill() brings. A
    /// class that overrides this to fetch large ranges past the buffer does so where IsExactly() holds, and
    /// else leaves it to this one. Returns the number of bytes, 0 at the end of the input, a negative value
    /// on failure.
    virtual int Fetch(char* begin, char* end);
    /// Whether a range is as large as the buffer.
    bool IsLarge(char const* begin, char const* end) const {
        return end - begin >= static_cast<std::ptrdiff_t>(_capacity);
    }

private:
    static constexpr int NONE = -1;

    int NoteFailure(int count);

    DescriptorIO _io;
    int _failure; ///< errno of the read that failed since the last Bind, else 0
    int _gcount;
    OSockStream* _tied;       ///< not owned
    bool _isTiedFlushed;      ///< the tied stream has been flushed for the next Fill()
    int _lineEnd;             ///< the character after which a Fill() for Readln stops, else NONE
    char _array[BUFFER_SIZE]; ///< of the InputBuffer
};

/// An input and an output stream over one descriptor, the input side tied to the output side.
class THORNEL_API IOSockStream : public ISockStream, public OSockStream {
public:
    IOSockStream();
    explicit IOSockStream(int fd);
    ~IOSockStream() override;

    /// Attaches the descriptor to both sides.
    void Bind(int fd) override;
    /// Detaches it from both.
    void Unbind() override;
};

/// Ends a message: flushes the stream.
THORNEL_API OSockStream& endm(OSockStream& out);
THORNEL_API OSockStream& operator<<(OSockStream& out, OSockStream& (*manipulator)(OSockStream&));

/// Numbers, most significant byte first; a ByteString is its 32-bit length and its bytes. One of more than
/// INT_MAX bytes is not written at all, with FAILED in the status.
THORNEL_API OSockStream& operator<<(OSockStream& out, unsigned char value);
THORNEL_API OSockStream& operator<<(OSockStream& out, unsigned int value);
THORNEL_API OSockStream& operator<<(OSockStream& out, int value);
THORNEL_API OSockStream& operator<<(OSockStream& out, unsigned long long value);
THORNEL_API OSockStream& operator<<(OSockStream& out, long long value);
THORNEL_API OSockStream& operator<<(OSockStream& out, ByteString const& value);

/// The reverse. A short read leaves the target alone and END_OF_INPUT in the status. A ByteString
/// longer than ISockStream::MAX_FRAME is refused with MALFORMED, its bytes unread; memory grows with
/// the bytes that have come, not with the length announced.
THORNEL_API ISockStream& operator>>(ISockStream& in, unsigned char& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, unsigned int& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, int& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, unsigned long long& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, long long& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, ByteString& value);

#endif
