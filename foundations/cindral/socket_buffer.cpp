#include <brantle/cindral/socket_buffer.h>

#include "window.h"

namespace cindral {

ISocketBuffer::ISocketBuffer() : ISockStream(nullptr) {}

ISocketBuffer::~ISocketBuffer() = default;

int ISocketBuffer::getchr(char& byte) { return Get(byte); }

int ISocketBuffer::get(char* begin, char* end) {
    return TakeRange(*this, begin, end, [this] { return Refill(); });
}

OSocketBuffer::OSocketBuffer() = default;

OSocketBuffer::~OSocketBuffer() = default;

int OSocketBuffer::putchr(char byte) { return Put(byte); }

int OSocketBuffer::put(char const* begin, char const* end) {
    char const* from = begin;
    if (_pos == _start && static_cast<std::size_t>(end - begin) >= _capacity) {
        if (Send(from, end) < 0) return -1;
    }
    return PutRange(from, end) < 0 ? -1 : static_cast<int>(end - begin);
}

int OSocketBuffer::Finalize() { return Flush() < 0 ? -1 : 0; }

} // namespace cindral
