#include <brantle/thornel/byte_string.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

namespace {

/// A new representation with room for `length` bytes.
ByteString::Srep* NewRep(unsigned int length) {
    std::unique_ptr<unsigned char[]> data(new unsigned char[length]);
    ByteString::Srep* const rep = new ByteString::Srep(data.get(), length);
    data.release();
    return rep;
}

/// Copies bytes; a null source means no bytes. A memmove remains a call into the C library, whereas a memcpy
/// compiled for size is inlined as a byte-by-byte copy.
void Copy(unsigned char* to, void const* from, unsigned int length) {
    if (length > 0) std::memmove(to, from, length);
}

} // namespace

void* ByteString::Srep::operator new(std::size_t size) { return ::operator new(size); }
void ByteString::Srep::operator delete(void* rep, std::size_t) { ::operator delete(rep); }
void ByteString::Destroy(Srep* rep) noexcept { delete rep; }

ByteString::ByteString() : _rep(new Srep(nullptr, 0)) {}
ByteString::ByteString(unsigned int length) : _rep(NewRep(length)) {}

ByteString::ByteString(void const* data, unsigned int length) : _rep(NewRep(data ? length : 0)) {
    Copy(_rep->_data, data, Length());
}

ByteString& ByteString::operator=(ByteString const& other) noexcept {
    ++other._rep->_count;
    Srep* const old = _rep;
    _rep = other._rep;
    Release(old);
    return *this;
}

ByteString ByteString::SubStr(unsigned int start, unsigned int length) const {
    if (start >= Length()) return ByteString();
    return ByteString(Data() + start, std::min(length, Length() - start));
}

void ByteString::Reserve(unsigned int length) {
    if (_rep->_count == 1 && Data() && length <= Length()) {
        _rep->_length = length;
        return;
    }
    Srep* const rep = NewRep(length);
    Copy(rep->_data, Data(), std::min(length, Length()));
    Adopt(rep);
}

void ByteString::Append(void const* data, unsigned int length) {
    if (!data || length == 0) return;
    if (length > UINT_MAX - Length()) throw std::bad_alloc();
    Srep* const rep = NewRep(Length() + length);
    Copy(rep->_data, Data(), Length());
    Copy(rep->_data + Length(), data, length);
    Adopt(rep);
}

bool operator==(ByteString const& a, ByteString const& b) {
    if (a.Length() != b.Length()) return false;
    return a.Length() == 0 || std::memcmp(a.Data(), b.Data(), a.Length()) == 0;
}
