#ifndef BRANTLE_STANDARD_DESCRIPTOR_SINK_H
#define BRANTLE_STANDARD_DESCRIPTOR_SINK_H

#include <brantle/thornel/file_descriptor.h>

#include "standard/bytes.h"

namespace cindral::standard {

/// The end of a channel's data at a descriptor: writes what it takes without a wait and keeps the rest.
///
/// The descriptor given stays the caller's, and so do its flags, which other processes may share: a pipe or
/// terminal is opened once more for writing without a wait.
class DescriptorSink {
public:
    explicit DescriptorSink(int fd);

    /// Writes, or keeps what can't be written now. Returns how many bytes have left, of these and of those
    /// kept before. Throws SystemError "write failed".
    std::size_t Write(View data);
    /// Goes on with what is kept. Results as above.
    std::size_t Resume() { return Write(View()); }
    bool IsEmpty() const { return _pos == _kept.size(); }
    /// To be watched for room while the sink is not empty.
    int Fd() const { return _own._fd; }
    /// Drops what is kept.
    void Clear();

private:
    enum class Kind { SOCKET, PIPE, OTHER };

    std::size_t WriteSome(View data);
    long WriteOnce(View data) const;

    Kind _kind = Kind::OTHER;
    bool _waits = false; ///< a write could wait: done after poll(2), in pieces that a pipe takes whole
    FileDescriptor _own;
    Bytes _kept;
    std::size_t _pos = 0; ///< of what is kept
};

} // namespace cindral::standard

#endif
