#include <brantle/thornel/sock_stream.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <brantle/thornel/big_endian.h>

namespace {

/// A frame no longer than this is allocated in one piece, a longer one as its bytes arrive.
constexpr unsigned int FIRST_PIECE = 64 * 1024;

template <class T>
OSockStream& WriteNumber(OSockStream& out, T value) {
    char bytes[sizeof(T)];
    PutBigEndian(bytes, value);
    return out.Write(bytes, sizeof(T));
}

/// Whether exactly `size` bytes could be read.
bool ReadWhole(ISockStream& in, char* data, unsigned int size) {
    return in.Read(data, static_cast<int>(size)).Gcount() == static_cast<int>(size);
}

template <class T>
bool ReadNumber(ISockStream& in, T& value) {
    char bytes[sizeof(T)] = {};
    if (!ReadWhole(in, bytes, sizeof(T))) return false;
    value = GetBigEndian<T>(bytes);
    return true;
}

bool ReadFrame(ISockStream& in, unsigned int length, ByteString& value) {
    if (length <= FIRST_PIECE) {
        ByteString frame(length);
        if (!ReadWhole(in, reinterpret_cast<char*>(frame.Data()), length)) return false;
        value = frame;
        return true;
    }
    std::vector<char> frame;
    while (frame.size() < length) {
        std::size_t had = frame.size();
        std::size_t piece = std::min<std::size_t>(std::max<std::size_t>(had, FIRST_PIECE), length - had);
        frame.resize(had + piece);
        if (!ReadWhole(in, frame.data() + had, static_cast<unsigned int>(piece))) return false;
    }
    value = ByteString(frame.data(), length);
    return true;
}

/// Sets a variable to another value during the lifetime of this object.
template <class T>
class Setting {
public:
    Setting(T& variable, T value) : _variable(variable), _before(std::exchange(variable, value)) {}
    ~Setting() { _variable = _before; }
    Setting(Setting const&) = delete;
    Setting& operator=(Setting const&) = delete;

private:
    T& _variable;
    T const _before;
};

bool EndsWith(std::string const& text, char const* end, std::size_t length) {
    return text.size() >= length && text.compare(text.size() - length, length, end) == 0;
}

} // namespace

SockStream::SockStream() : _status(0) {}

SockStream::~SockStream() = default;

OSockStream::OSockStream() : OSockStream(-1) {}

OSockStream::OSockStream(int fd)
    : OutputBuffer(_array, BUFFER_SIZE), _timeout(0), _io(fd), _failure(0), _isCorked(false),
      _isMakingRoom(false) {}

OSockStream::~OSockStream() = default;

int OSockStream::Flush() { return FlushDescriptor(false); }

int OSockStream::MakeRoom() {
    Setting<bool> const makingRoom(_isMakingRoom, true);
    return Flush();
}

int OSockStream::Put(char const& byte) {
    int const flushed = _pos >= _end ? MakeRoom() : 0;
    if (_pos < _end) *_pos++ = byte;
    return flushed;
}

int OSockStream::FlushDescriptor(bool more) {
    auto const size = static_cast<int>(_pos - _start);
    if (size > 0) {
        char const* from = _start;
        int const result = _failure == 0 ? _io.Write(from, _pos, _timeout, more) : -1;
        if (NoteWritten(result, from, more) < 0) return -1;
    } else if (_isCorked && !more) {
        _io.Uncork();
        _isCorked = false;
    }
    return size;
}

int OSockStream::Send(char const*& from, char const* end, bool more) {
    DescriptorIO::Range buffered{_start, _pos};
    DescriptorIO::Range range{from, end};
    int const result = _failure == 0 ? _io.Write(buffered, range, _timeout, more) : -1;
    from = range._from;
    return NoteWritten(result, buffered._from, more);
}

/// Records the result of a write of what is buffered. If it failed, the part from `rest` on is still to be
/// written.
int OSockStream::NoteWritten(int result, char const* rest, bool more) {
    if (result == 0) {
        _pos = _start;
        _isCorked = more;
        return 0;
    }
    if (_failure == 0) _failure = errno;
    auto const left = static_cast<std::size_t>(_pos - rest);
    std::memmove(_start, rest, left);
    _pos = _start + left;
    SetStatus(Status() | FAILED);
    errno = _failure;
    return -1;
}

void OSockStream::Bind(int fd) {
    _io.Set(fd);
    _pos = _start;
    _failure = 0;
    _isCorked = false;
    SetStatus(0);
}

void OSockStream::Unbind() { OSockStream::Bind(-1); }

OSockStream& OSockStream::Write(char const* data, int size) {
    if (size <= 0) return *this;
    if (size <= _end - _pos) {
        _pos = std::copy_n(data, size, _pos);
        return *this;
    }
    char const* const end = data + size;
    // A range larger than the buffer bypasses it.
    if (size > static_cast<int>(BUFFER_SIZE) && IsExactly<OSockStream, IOSockStream>(*this)) Send(data, end);
    if (PutRange(data, end, [this] { return MakeRoom(); }) < 0) SetStatus(Status() | FAILED);
    return *this;
}

OSockStream& OSockStream::Writeln(String_t const& text, char const* eol) {
    Write(text.Text(), static_cast<int>(str_len(text.Text())));
    return Write(eol, static_cast<int>(str_len(eol)));
}

ISockStream::ISockStream(OSockStream* tied)
    : InputBuffer(_array, BUFFER_SIZE), _timeout(0), _failure(0), _gcount(0), _tied(tied),
      _isTiedFlushed(false), _lineEnd(NONE) {}

ISockStream::~ISockStream() = default;

int ISockStream::Refill() {
    if (!_tied) return Fill();
    FlushTied();
    Setting<bool> const flushed(_isTiedFlushed, true);
    return Fill();
}

int ISockStream::Fill() {
    FlushTied();
    int count = -1;
    if (_failure == 0) {
        count = _lineEnd == NONE ? _io.Read(_start, _capacity, _timeout)
                                 : _io.ReadUntil(_start, _capacity, static_cast<char>(_lineEnd), _timeout);
    }
    _pos = _start;
    _end = _start + std::max(count, 0);
    return NoteFailure(count);
}

int ISockStream::ReadUnbuffered(char* begin, char* end) {
    FlushTied();
    return NoteFailure(_failure ? -1 : _io.Read(begin, static_cast<std::size_t>(end - begin), _timeout));
}

int ISockStream::NoteFailure(int count) {
    if (count < 0) {
        if (_failure == 0) _failure = errno;
        errno = _failure;
    }
    return count;
}

int ISockStream::Get(char& byte) {
    if (_pos >= _end) {
        int filled = Refill();
        if (filled < 1) return filled;
    }
    byte = *_pos++;
    return 1;
}

void ISockStream::Bind(int fd) {
    _io.Set(fd);
    _pos = _end = _start;
    _failure = 0;
    SetStatus(0);
}

void ISockStream::Unbind() { ISockStream::Bind(-1); }

ISockStream& ISockStream::Read(char* data, int size) {
    _gcount = size > 0 ? static_cast<int>(TakeBuffered(data, data + size)) : 0;
    while (_gcount < size) {
        int const fetched = Fetch(data + _gcount, data + size);
        if (fetched < 1) {
            SetStatus(Status() | END_OF_INPUT);
            break;
        }
        _gcount += fetched;
    }
    return *this;
}

int ISockStream::Fetch(char* begin, char* end) {
    int const filled = Refill();
    return filled < 1 ? filled : static_cast<int>(TakeBuffered(begin, end));
}

ISockStream& ISockStream::Readln(String_t& line, char const* eol) {
    if (str_empty(eol)) eol = "\n";
    std::size_t const eolLength = std::strlen(eol);
    char const last = eol[eolLength - 1];
    Setting<int> const lineEnd(_lineEnd, static_cast<unsigned char>(last));
    std::string text;
    for (;;) {
        if (_pos >= _end && Refill() < 1) {
            SetStatus(Status() | END_OF_INPUT);
            break;
        }
        std::size_t room =
            std::min<std::size_t>(static_cast<std::size_t>(_end - _pos), MAX_LINE + eolLength - text.size());
        char* stop = static_cast<char*>(std::memchr(_pos, last, room));
        char* taken = stop ? stop + 1 : _pos + room;
        text.append(_pos, taken);
        _pos = taken;
        if (stop && EndsWith(text, eol, eolLength)) {
            text.resize(text.size() - eolLength);
            break;
        }
        if (text.size() == MAX_LINE + eolLength) {
            SetStatus(Status() | MALFORMED);
            break;
        }
    }
    line = String_t(text.data(), static_cast<unsigned int>(text.size()));
    return *this;
}

IOSockStream::IOSockStream() : ISockStream(static_cast<OSockStream*>(this)) {}

IOSockStream::IOSockStream(int fd) : ISockStream(static_cast<OSockStream*>(this)), OSockStream(fd) {
    ISockStream::Bind(fd);
}

IOSockStream::~IOSockStream() = default;

void IOSockStream::Bind(int fd) {
    ISockStream::Bind(fd);
    OSockStream::Bind(fd);
}

void IOSockStream::Unbind() { IOSockStream::Bind(-1); }

OSockStream& endm(OSockStream& out) {
    out.Flush();
    return out;
}

OSockStream& operator<<(OSockStream& out, OSockStream& (*manipulator)(OSockStream&)) {
    return manipulator(out);
}

OSockStream& operator<<(OSockStream& out, unsigned char value) { return WriteNumber(out, value); }

OSockStream& operator<<(OSockStream& out, unsigned int value) { return WriteNumber(out, value); }

OSockStream& operator<<(OSockStream& out, int value) {
    return WriteNumber(out, static_cast<unsigned int>(value));
}

OSockStream& operator<<(OSockStream& out, unsigned long long value) { return WriteNumber(out, value); }

OSockStream& operator<<(OSockStream& out, long long value) {
    return WriteNumber(out, static_cast<unsigned long long>(value));
}

OSockStream& operator<<(OSockStream& out, ByteString const& value) {
    if (value.Length() > INT_MAX) {
        out.SetStatus(out.Status() | SockStream::FAILED);
        return out;
    }
    WriteNumber(out, value.Length());
    return out.Write(reinterpret_cast<char const*>(value.Data()), static_cast<int>(value.Length()));
}

ISockStream& operator>>(ISockStream& in, unsigned char& value) {
    ReadNumber(in, value);
    return in;
}

ISockStream& operator>>(ISockStream& in, unsigned int& value) {
    ReadNumber(in, value);
    return in;
}

ISockStream& operator>>(ISockStream& in, int& value) {
    ReadNumber(in, value);
    return in;
}

ISockStream& operator>>(ISockStream& in, unsigned long long& value) {
    ReadNumber(in, value);
    return in;
}

ISockStream& operator>>(ISockStream& in, long long& value) {
    ReadNumber(in, value);
    return in;
}

ISockStream& operator>>(ISockStream& in, ByteString& value) {
    unsigned int length;
    if (!ReadNumber(in, length)) return in;
    if (length > ISockStream::MAX_FRAME) {
        in.SetStatus(in.Status() | SockStream::MALFORMED);
    } else {
        ReadFrame(in, length, value);
    }
    return in;
}
