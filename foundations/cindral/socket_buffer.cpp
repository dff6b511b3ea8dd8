#include <brantle/cindral/socket_buffer.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "take_range.h"

namespace cindral {

ISocketBuffer::ISocketBuffer() : ISockStream(nullptr) {}

ISocketBuffer::~ISocketBuffer() = default;

int ISocketBuffer::getchr(char& byte) { return Get(byte); }

int ISocketBuffer::get(char* begin, char* end) {
    char* next = begin + TakeBuffered(begin, end);
    while (end - next > static_cast<std::ptrdiff_t>(_capacity) && IsExactly<ISocketBuffer>(*this)) {
        int const n = ReadUnbuffered(next, end);
        if (n < 1) return next == begin ? n : static_cast<int>(next - begin);
        next += n;
    }
    int const rest = next < end ? TakeRange(*this, next, end, [this] { return Refill(); }) : 0;
    return next == begin ? rest : static_cast<int>(next - begin) + std::max(rest, 0);
}

OSocketBuffer::OSocketBuffer() : _moreToCome(false) {}

OSocketBuffer::~OSocketBuffer() = default;

int OSocketBuffer::Flush() { return FlushDescriptor(std::exchange(_moreToCome, false)); }

int OSocketBuffer::putchr(char byte) { return Put(byte); }

int OSocketBuffer::put(char const* begin, char const* end) {
    auto const size = static_cast<int>(end - begin);
    if (size <= _end - _pos && size < static_cast<int>(_capacity)) {
        _pos = std::copy(begin, end, _pos);
        return size;
    }
    char const* from = begin;
    int const taken = IsExactly<OSocketBuffer>(*this) ? Send(from, end, _moreToCome) : PutRange(begin, end);
    return taken < 0 ? -1 : size;
}

int OSocketBuffer::Finalize() { return Flush() < 0 ? -1 : 0; }

} // namespace cindral
