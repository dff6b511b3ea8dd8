#ifndef BRANTLE_THORNEL_FILE_DESCRIPTOR_H
#define BRANTLE_THORNEL_FILE_DESCRIPTOR_H

#include <brantle/thornel/export.h>

/// The owner of a descriptor, which its destructor closes. Set `_fd` to -1 to give it away.
class THORNEL_API FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : _fd(fd) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor const&) = delete;
    FileDescriptor& operator=(FileDescriptor const&) = delete;

    /// Reads like the plain descriptor.
    operator int() const { return _fd; }

    int _fd; ///< the descriptor; negative is none
};

#endif
