#include <brantle/cindral/string_buffer.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace cindral {

OStringBuffer::OStringBuffer() : OStringBuffer(0) {}

OStringBuffer::OStringBuffer(unsigned int capacity)
    : _data(capacity ? new unsigned char[capacity] : nullptr), _length(0), _capacity(capacity) {}

OStringBuffer::~OStringBuffer() { delete[] _data; }

int OStringBuffer::putchr(char byte) {
    if (_length == _capacity) Reserve(1);
    _data[_length++] = static_cast<unsigned char>(byte);
    return 0;
}

int OStringBuffer::put(char const* begin, char const* end) {
    auto count = static_cast<std::size_t>(end - begin);
    if (count == 0) return 0;
    if (count > _capacity - _length) Reserve(count);
    std::memmove(_data + _length, begin, count);
    _length += count;
    return static_cast<int>(count);
}

char const* OStringBuffer::Str() const { return _data ? reinterpret_cast<char const*>(_data) : ""; }

ByteString OStringBuffer::Release() {
    ByteString bytes;
    bytes._rep->_data = _data;
    bytes._rep->_length = Len();
    _data = nullptr;
    _length = _capacity = 0;
    return bytes;
}

void OStringBuffer::Reserve(std::size_t room) {
    if (room > UINT_MAX - _length) throw std::bad_alloc();
    std::size_t capacity = std::max<std::size_t>({_length + room, _capacity * 2, 64});
    auto* grown = new unsigned char[capacity];
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

char const* IStringBuffer::Skip(unsigned int& size) {
    char const* const skipped = _pos;
    size = static_cast<unsigned int>(std::min<std::ptrdiff_t>(size, _end - _pos));
    _pos += size;
    return skipped;
}

int IStringBuffer::get(char* begin, char* end) {
    auto count = std::min(end - begin, _end - _pos);
    std::copy_n(_pos, count, begin);
    _pos += count;
    return static_cast<int>(count);
}

} // namespace cindral
