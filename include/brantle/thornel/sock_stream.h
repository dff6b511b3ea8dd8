#ifndef BRANTLE_THORNEL_SOCK_STREAM_H
#define BRANTLE_THORNEL_SOCK_STREAM_H

#include <cstddef>
#include <utility>

#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/export.h>
#include <brantle/thornel/stream_buffer.h>
#include <brantle/thornel/string_t.h>

/// What all socket streams share: a status word, 0 while there is no error.
///
/// The status is only a record: a stream continues to read and write whatever its status. It is kept until
/// the next SetStatus or Bind. One thread at a time.
class THORNEL_API SockStream {
public:
    static constexpr unsigned int FAILED = 1;       ///< output was lost
    static constexpr unsigned int MALFORMED = 2;    ///< a field or line was out of bounds
    static constexpr unsigned int END_OF_INPUT = 4; ///< a read got fewer bytes than requested

    SockStream();
    virtual ~SockStream();

    /// Stores the status word.
    void SetStatus(unsigned int status) { _status = status; }
    unsigned int Status() const { return _status; }

private:
    unsigned int _status;
};

/// A buffered output stream over a descriptor, which the caller continues to own.
///
/// Nothing is written until the buffer is full, Flush() is called or a tied input stream waits; in particular
/// the destructor writes nothing, since the descriptor may be closed by then. After a failed write, all
/// further writes fail with the same errno until the stream is bound again.
///
/// In a derived class that overrides Flush(), to send the bytes elsewhere or to inspect them first, every
/// byte passes through that Flush() in [_start, _pos), whichever operation wrote it.
class THORNEL_API OSockStream : public OutputBuffer<char>, public virtual SockStream {
public:
    /// Size of the buffer of a socket stream, in bytes.
    static constexpr unsigned int BUFFER_SIZE = 8192;

    OSockStream();
    explicit OSockStream(int fd);
    ~OSockStream() override;

    /// Writes out what is buffered. Returns the number of bytes, or -1 with errno set and FAILED in the
    /// status; what has not been written stays in the buffer.
    int Flush() override;
    int Put(char const& byte) override;

    /// Attaches the descriptor, with an empty buffer and a status of 0.
    virtual void Bind(int fd);
    /// Detaches the descriptor and drops what is buffered.
    virtual void Unbind();

    /// Writes `size` bytes through the buffer. What can't be written is lost, and FAILED is set in the
    /// status.
    OSockStream& Write(char const* data, int size);
    /// Writes the text and the line end `eol`.
    OSockStream& Writeln(String_t const& text, char const* eol);

    /// The descriptor, negative if there is none.
    int Fd() const { return _io.Fd(); }

    /// Limit of one wait for the peer, in seconds; 0, the initial value, means no limit.
    unsigned int _timeout;

protected:
    /// Whether the current Flush() is making room in the middle of a Write or Put, so that more bytes of the
    /// same message follow.
    bool IsMakingRoom() const { return _isMakingRoom; }
    /// Writes what is buffered to the descriptor, as Flush() does. With `more`, other bytes follow
    /// immediately, and the kernel may delay these until then.
    int FlushDescriptor(bool more);
    /// Writes what is buffered and then a range, which bypasses the buffer. Returns 0, or -1 with errno set;
    /// `from` is advanced by what has been written of the range.
    int Send(char const*& from, char const* end, bool more = false);
    /// Whether the kernel may be delaying bytes. The next Flush() sends them.
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

/// A buffered input stream over a descriptor, which the caller continues to own.
///
/// Before the stream waits for bytes, it flushes once the output stream to which it is tied. After a failed
/// read, all further reads fail with the same errno until the stream is bound again.
///
/// In a derived class that overrides Fill(), to get the bytes from elsewhere or to transform them, every byte
/// comes from that Fill(), in [_pos, _end), whichever operation reads it. The tied stream has already been
/// flushed when Fill() is called.
class THORNEL_API ISockStream : public InputBuffer<char>, public virtual SockStream {
public:
    static constexpr unsigned int BUFFER_SIZE = 8192;
    /// Longest frame that operator>> into a ByteString accepts, in bytes.
    static constexpr unsigned int MAX_FRAME = 16 * 1024 * 1024;
    /// Longest line that Readln accepts, in bytes without the line end.
    static constexpr unsigned int MAX_LINE = 256 * 1024;

    /// A stream without a descriptor. `tied` may be null; otherwise it must outlive this stream.
    explicit ISockStream(OSockStream* tied);
    ~ISockStream() override;

    /// Reads from the descriptor into the buffer, whose readable range must be empty. Returns the number of
    /// bytes, 0 at the end of the input, -1 with errno set on failure.
    int Fill() override;
    /// As InputBuffer::Get, but flushes the tied stream before a Fill().
    int Get(char& byte) override;

    /// Attaches the descriptor, with an empty buffer and a status of 0.
    virtual void Bind(int fd);
    /// Detaches the descriptor and drops what has been read ahead.
    virtual void Unbind();

    /// Reads exactly `size` bytes. If the input ends or fails earlier, Gcount() returns how many were read
    /// and END_OF_INPUT is added to the status.
    ISockStream& Read(char* data, int size);

    /// Reads a line up to and including `eol`, or "\n" if that is empty, and stores it without that line end.
    /// Reads no byte after the line end from the descriptor. If the input ends or fails first, what was read
    /// is stored and END_OF_INPUT is added to the status; if the line exceeds MAX_LINE bytes, reading stops,
    /// what was read is stored and MALFORMED is added.
    ISockStream& Readln(String_t& line, char const* eol);

    /// Number of bytes that the last Read stored.
    int Gcount() const { return _gcount; }
    /// Ties this stream to another output stream, or to none.
    void Tie(OSockStream* tied) { _tied = tied; }

    /// The descriptor, negative if there is none.
    int Fd() const { return _io.Fd(); }

    /// Limit of one wait for the peer, in seconds; 0, the initial value, means no limit.
    unsigned int _timeout;

protected:
    /// Flushes the tied stream, if there is one, unless Refill() has just done so for this read. Every Fill()
    /// that may wait has to call it.
    void FlushTied() {
        if (_tied && !std::exchange(_isTiedFlushed, false)) _tied->Flush();
    }
    /// Flushes the tied stream, then calls Fill().
    int Refill();
    /// Flushes the tied stream, then reads from the descriptor directly into a range; the buffer must be
    /// empty. Results as for Fill().
    int ReadUnbuffered(char* begin, char* end);
    /// Whether a read from the descriptor would return bytes, end of file or an error without waiting.
    bool HasInput() const { return _failure || _io.HasInput(); }
    /// Called by Read while the buffer is empty: stores part of the range to be read, here from what a
    /// Refill() provides. A class that overrides this to read large ranges directly, bypassing the buffer,
    /// does so only if IsExactly() holds, and otherwise calls this one. Returns the number of bytes, 0 at the
    /// end of the input, a negative value on failure.
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

/// Numbers, most significant byte first; a ByteString is written as its 32-bit length and its bytes. One of
/// more than INT_MAX bytes is not written at all, and FAILED is set in the status.
THORNEL_API OSockStream& operator<<(OSockStream& out, unsigned char value);
THORNEL_API OSockStream& operator<<(OSockStream& out, unsigned int value);
THORNEL_API OSockStream& operator<<(OSockStream& out, int value);
THORNEL_API OSockStream& operator<<(OSockStream& out, unsigned long long value);
THORNEL_API OSockStream& operator<<(OSockStream& out, long long value);
THORNEL_API OSockStream& operator<<(OSockStream& out, ByteString const& value);

/// The reverse. A short read leaves the target unchanged and sets END_OF_INPUT in the status. A ByteString
/// longer than ISockStream::MAX_FRAME is refused with MALFORMED, and its bytes are not read; memory is
/// allocated as the bytes arrive, not according to the announced length.
THORNEL_API ISockStream& operator>>(ISockStream& in, unsigned char& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, unsigned int& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, int& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, unsigned long long& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, long long& value);
THORNEL_API ISockStream& operator>>(ISockStream& in, ByteString& value);

#endif
