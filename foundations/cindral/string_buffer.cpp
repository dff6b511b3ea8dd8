#include <brantle/cindral/string_buffer.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace cindral {

OStringBuffer::OStringBuffer() : OStringBuffer(0) {}

OStringBuffer::OStringBuffer(unsigned int capacity)
    : _data(capacity ? new char[capacity] : nullptr), _length(0), _capacity(capacity) {}

OStringBuffer::~OStringBuffer() { delete[] _data; }

int OStringBuffer::putchr(char byte) {
    if (_length == _capacity) Reserve(1);
    _data[_length++] = byte;
    return 0;
}

int OStringBuffer::put(char const* begin, char const* end) {
    auto count = static_cast<std::size_t>(end - begin);
    if (count == 0) return 0;
    if (count > _capacity - _length) Reserve(count);
    std::copy_n(begin, count, _data + _length);
    _length += count;
    return static_cast<int>(count);
}

char const* OStringBuffer::Str() const { return _data ? _data : ""; }

void OStringBuffer::Reserve(std::size_t room) {
    if (room > UINT_MAX - _length) throw std::bad_alloc();
    std::size_t capacity = std::max<std::size_t>({_length + room, _capacity * 2, 64});
    char* grown = new char[capacity];
    std::copy_n(_data, _length, grown);
    delete[] _data;
    _data = grown;
    _capacity = capacity;
}

IStringBuffer::IStringBuffer(char const* text)
    : IStringBuffer(text, static_cast<unsigned int>(text ? std::strlen(text) : 0)) {}

IStringBuffer::IStringBuffer(char const* data, unsigned int size) { Assign(data, size); }

IStringBuffer::~IStringBuffer() = default;

void IStringBuffer::Assign(char const* data, unsigned int size) {
    _pos = data;
    _end = data ? data + size : data;
}

int IStringBuffer::getchr(char& byte) {
    if (_pos == _end) return 0;
    byte = *_pos++;
    return 1;
}

int IStringBuffer::get(char* begin, char* end) {
    auto count = std::min(end - begin, _end - _pos);
    std::copy_n(_pos, count, begin);
    _pos += count;
    return static_cast<int>(count);
}

} // namespace cindral
