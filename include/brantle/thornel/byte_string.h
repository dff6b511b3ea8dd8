#ifndef BRANTLE_THORNEL_BYTE_STRING_H
#define BRANTLE_THORNEL_BYTE_STRING_H

#include <cstddef>

#include <brantle/thornel/export.h>

/// A value of binary data. Copies share one counted representation.
///
/// A default-constructed value has null data and length 0. The count is a plain integer: values that share a
/// representation must be used by one thread at a time, or with external locking.
class THORNEL_API ByteString {
public:
    /// The representation that copies of a value share and jointly own; the last one frees it.
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
    /// An unshared array of `length` uninitialised bytes, for the caller to fill.
    explicit ByteString(unsigned int length);
    /// Copies `length` bytes; null `data` gives no bytes.
    ByteString(void const* data, unsigned int length);

    ByteString(ByteString const& other) noexcept : _rep(other._rep) { ++_rep->_count; }
    ~ByteString() { Release(_rep); }
    ByteString& operator=(ByteString const& other) noexcept;

    /// The bytes, null for a default-constructed value. Valid until the value changes or is destroyed.
    unsigned char const* Data() const { return _rep->_data; }
    /// The bytes as an array that all copies share: write only to a value that has just been sized or
    /// reserved.
    unsigned char* Data() { return _rep->_data; }
    /// Number of bytes; 0 with null data.
    unsigned int Length() const { return _rep->_data ? _rep->_length : 0; }

    /// The bytes from `start`, `length` of them or as many as there are after it.
    ByteString SubStr(unsigned int start, unsigned int length) const;

    /// Makes the array unshared and the value `length` bytes long. As many of the old bytes as fit are kept
    /// at the beginning; the bytes after them are uninitialised, for the caller to fill.
    void Reserve(unsigned int length);

    /// Appends bytes; copies that share the representation are unaffected. The bytes may be part of this
    /// value. A null `data` appends nothing. Throws std::bad_alloc if the length would exceed 32 bits.
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
