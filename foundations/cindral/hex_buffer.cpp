#include <brantle/cindral/hex_buffer.h>

#include <cerrno>

namespace cindral {

namespace {

constexpr unsigned int HEX_BUFFER_SIZE = 256;

bool IsSpace(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

/// The value of a digit, negative if the character is not one.
int DigitValue(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

} // namespace

OHexBuffer::OHexBuffer(CascadableOStreamBuf* next, unsigned int lineLength, char separator,
                       unsigned int column)
    : CascadableOStreamBuffer(next, HEX_BUFFER_SIZE), _lineLength(lineLength), _separator(separator),
      _column(column) {}

OHexBuffer::~OHexBuffer() {
    try {
        OHexBuffer::Flush();
    } catch (...) {
        // a destructor has no way to report it
    }
}

int OHexBuffer::Flush() {
    static char const digits[] = "0123456789abcdef";
    char text[3 * HEX_BUFFER_SIZE];
    char* end = text;
    unsigned int column = _column;
    for (char const* byte = _start; byte != _pos; ++byte) {
        if (_lineLength && column && column + 2 > _lineLength) {
            *end++ = _separator;
            column = 0;
        }
        *end++ = digits[static_cast<unsigned char>(*byte) >> 4];
        *end++ = digits[static_cast<unsigned char>(*byte) & 15];
        column += 2;
    }
    if (end == text) return 0;
    int taken = _next->put(text, end);
    if (taken < 0) return taken;
    _column = column;
    _pos = _start;
    return 0;
}

IHexBuffer::IHexBuffer(CascadableIStreamBuf* next)
    : CascadableIStreamBuffer(next, HEX_BUFFER_SIZE), _broken(0) {}

IHexBuffer::~IHexBuffer() = default;

int IHexBuffer::Fill() {
    _pos = _end = _start;
    int result = 1;
    while (_end != _start + _capacity) {
        result = ReadPair(*_end);
        if (result < 1) break;
        ++_end;
    }
    return _end != _start ? static_cast<int>(_end - _start) : result;
}

int IHexBuffer::ReadPair(char& byte) {
    if (!_broken) {
        char high;
        int result;
        do {
            result = _next->getchr(high);
        } while (result > 0 && IsSpace(high));
        if (result < 1) return result;
        char low;
        _broken = _next->getchr(low) < 1 || DigitValue(high) < 0 || DigitValue(low) < 0;
        if (!_broken) {
            byte = static_cast<char>(DigitValue(high) << 4 | DigitValue(low));
            return 1;
        }
    }
    errno = EINVAL;
    return -1;
}

} // namespace cindral
