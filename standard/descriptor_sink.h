#ifndef BRANTLE_STANDARD_DESCRIPTOR_SINK_H
#define BRANTLE_STANDARD_DESCRIPTOR_SINK_H

#include <brantle/thornel/file_descriptor.h>

#include "standard/bytes.h"

namespace cindral::standard {

/// Writes a channel's data to a descriptor: as much as it accepts without blocking, and keeps the rest.
///
/// The descriptor stays the caller's, and its flags, which other processes may share, are not changed: a pipe
/// or terminal is opened once more, non-blocking, and anything else duplicated, so that it can be polled for
/// output while the caller polls it for input.
class DescriptorSink {
public:
    /// With `borrows`, `fd` itself is written to and polled if no descriptor is left for another. Throws
    /// SystemError "write failed" if there is none, or if `fd` is not open.
    explicit DescriptorSink(int fd, bool borrows = false);
    DescriptorSink(DescriptorSink const&) = delete;
    DescriptorSink& operator=(DescriptorSink const&) = delete;

    /// Writes the data, or keeps what can't be written now. Returns how many bytes were written, including
    /// those kept before. Throws SystemError "write failed".
    std::size_t Write(View data);
    /// Continues with what is kept. Result as above.
    std::size_t Resume() { return Write(View()); }
    bool IsEmpty() const { return _pos == _kept.size(); }
    /// The descriptor to poll for output while the sink is not empty.
    int Fd() const { return _fd; }
    /// Bytes of memory that what is kept occupies.
    std::size_t Capacity() const { return _kept.capacity(); }
    /// Drops what is kept.
    void Clear();

private:
    enum class Kind { SOCKET, PIPE, OTHER };

    std::size_t WriteSome(View data);
    long WriteOnce(View data) const;

    Kind _kind = Kind::OTHER;
    bool _waits = false; ///< a write could block: done after poll(2), in pieces that a pipe accepts whole
    FileDescriptor _own;
    int _fd; ///< that one, or the caller's
    Bytes _kept;
    std::size_t _pos = 0; ///< within _kept
};

} // namespace cindral::standard

#endif
