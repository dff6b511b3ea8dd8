#include <brantle/cindral/cascadable_stream.h>

#include <cerrno>

#include "take_range.h"

namespace cindral {

namespace {

int WrongDirection() {
    errno = ENOTSUP;
    return -1;
}

} // namespace

CascadableStreamBuf::CascadableStreamBuf() = default;

CascadableStreamBuf::~CascadableStreamBuf() = default;

int CascadableStreamBuf::putchr(char) { return WrongDirection(); }

int CascadableStreamBuf::getchr(char&) { return WrongDirection(); }

int CascadableStreamBuf::put(char const*, char const*) { return WrongDirection(); }

int CascadableStreamBuf::get(char*, char*) { return WrongDirection(); }

int CascadableOStreamBuf::Finalize() { return 0; }

CascadableOStreamBuffer::CascadableOStreamBuffer(CascadableOStreamBuf* next, unsigned int size)
    : OutputBuffer(size), _next(next) {}

CascadableOStreamBuffer::CascadableOStreamBuffer(CascadableOStreamBuf* next, char* array, unsigned int size)
    : OutputBuffer(array, size), _next(next) {}

CascadableOStreamBuffer::~CascadableOStreamBuffer() = default;

int CascadableOStreamBuffer::putchr(char byte) { return Put(byte); }

int CascadableOStreamBuffer::put(char const* begin, char const* end) { return PutRange(begin, end); }

int CascadableOStreamBuffer::Finalize() {
    int flushed = Flush();
    return flushed < 0 ? flushed : _next->Finalize();
}

CascadableIStreamBuffer::CascadableIStreamBuffer(CascadableIStreamBuf* next, unsigned int size)
    : InputBuffer(size), _next(next) {}

CascadableIStreamBuffer::CascadableIStreamBuffer(CascadableIStreamBuf* next, char* array, unsigned int size)
    : InputBuffer(array, size), _next(next) {}

CascadableIStreamBuffer::~CascadableIStreamBuffer() = default;

int CascadableIStreamBuffer::getchr(char& byte) { return Get(byte); }

int CascadableIStreamBuffer::get(char* begin, char* end) {
    return TakeRange(*this, begin, end, [this] { return Fill(); });
}

} // namespace cindral
