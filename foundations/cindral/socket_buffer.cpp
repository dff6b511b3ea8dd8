#include <brantle/cindral/socket_buffer.h>

#include <algorithm>
#include <cstddef>

#include "window.h"

namespace cindral {

ISocketBuffer::ISocketBuffer() : ISockStream(nullptr) {}

ISocketBuffer::~ISocketBuffer() = default;

int ISocketBuffer::getchr(char& byte) { return Get(byte); }

int ISocketBuffer::get(char* begin, char* end) {
    char* next = begin + TakeBuffered(begin, end);
    // A range larger than the window is received where it belongs.
    while (end - next > static_cast<std::ptrdiff_t>(_capacity)) {
        int const n = ReadUnbuffered(next, end);
        if (n < 1) return next == begin ? n : static_cast<int>(next - begin);
        next += n;
    }
    int const rest = next < end ? TakeRange(*this, next, end, [this] { return Refill(); }) : 0;
    return next == begin ? rest : static_cast<int>(next - begin) + std::max(rest, 0);
}

OSocketBuffer::OSocketBuffer() : OSockStream(-1, BUFFER_SIZE + TRAILER_SIZE) {}

OSocketBuffer::~OSocketBuffer() = default;

int OSocketBuffer::putchr(char byte) { return Put(byte); }

int OSocketBuffer::put(char const* begin, char const* end) {
    char const* from = begin;
    if (_pos == _start && end - begin >= static_cast<std::ptrdiff_t>(BUFFER_SIZE)) {
        if (Send(from, end) < 0) return -1;
    }
    return PutRange(from, end) < 0 ? -1 : static_cast<int>(end - begin);
}

int OSocketBuffer::Finalize() { return Flush() < 0 ? -1 : 0; }

} // namespace cindral
