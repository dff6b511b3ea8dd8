#ifndef BRANTLE_TESTS_SUPPORT_HOLDS_BUFFER_H
#define BRANTLE_TESTS_SUPPORT_HOLDS_BUFFER_H

#include <functional>

namespace support {

/// Whether the buffer of a stream is inside an object.
template <class Object, class Stream>
bool HoldsBuffer(Object const& object, Stream const& stream) {
    auto const* const begin = reinterpret_cast<char const*>(&object);
    std::less_equal<char const*> const ordered;
    return ordered(begin, stream._start) && ordered(stream._start + stream._capacity, begin + sizeof object);
}

} // namespace support

#endif
