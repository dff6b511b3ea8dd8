#ifndef BRANTLE_THORNEL_BYTE_STRING_H
#define BRANTLE_THORNEL_BYTE_STRING_H

#include <cstddef>

#include <brantle/thornel/export.h>

/// A value of binary data. Copies share one counted representation.
///
/// A default-built value has null data and length 0. The count is a plain integer: values that share a
/// representation belong to one thread at a time, or under an outer lock.
class THORNEL_API ByteString {
public:
    /// What the copies of a value share. Owned by them together; the last one frees it.
    struct THORNEL_API Srep {
        unsigned char* _data; ///< owned, may be null
        unsigned int _length; ///< bytes in the data
        int _count;           ///< values that share this representation

        Srep(unsigned char* data, unsigned int length) : _data(data), _length(length), _count(1) {}
        ~Srep() { delete[] _data; }
        Srep(Srep const&) = delete;
        Srep& operator=(Srep const&) = delete;

        static void* operator new(std::size_t size);
        static void operator delete(void* rep, std::size_t size);
    };

    /// No bytes; the data pointer is null.
    ByteString();
    /// A private array of `length` bytes; its contents are the caller's to fill.
    explicit ByteString(unsigned int length);
    /// Copies `length` bytes; null `data` gives no bytes.
    ByteString(void const* data, unsigned int length);

    ByteString(ByteString const& other) noexcept : _rep(other._rep) { ++_rep->_count; }
    ~ByteString() { Release(_rep); }
    ByteString& operator=(ByteString const& other) noexcept;

    /// The bytes, null for a default-built value. Valid until the value changes or goes.
    unsigned char const* Data() const { return _rep->_data; }
    /// The bytes as an array that all copies share: write only into a value just sized or reserved.
    unsigned char* Data() { return _rep->_data; }
    /// Number of bytes; 0 with null data.
    unsigned int Length() const { return _rep->_data ? _rep->_length : 0; }

    /// The bytes from `start`, `length` of them or as many as there are after it.
    ByteString SubStr(unsigned int start, unsigned int length) const;

    /// Makes the array private and the value `length` bytes long. As many of the old bytes as fit stay in
    /// front; the contents after them are the caller's to fill.
    void Reserve(unsigned int length);

    /// Adds bytes at the end; copies that share the representation keep theirs. The bytes may be this
    /// value's own. A null `data` adds nothing. Throws std::bad_alloc where the length would exceed 32 bits.
    void Append(void const* data, unsigned int length);

    Srep* _rep;

private:
    void Adopt(Srep* rep) noexcept {
        Release(_rep);
        _rep = rep;
    }
    static void Release(Srep* rep) noexcept {
        if (--rep->_count == 0) Destroy(rep);
    }
    static void Destroy(Srep* rep) noexcept;
};

/// Equal length and equal bytes.
THORNEL_API bool operator==(ByteString const& a, ByteString const& b);
inline bool operator!=(ByteString const& a, ByteString const& b) { return !(a == b); }

#endif
