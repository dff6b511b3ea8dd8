#ifndef BRANTLE_THORNEL_FILE_DESCRIPTOR_H
#define BRANTLE_THORNEL_FILE_DESCRIPTOR_H

#include <brantle/thornel/export.h>

/// The owner of a descriptor, which its destructor closes.
class THORNEL_API FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : _fd(fd) {}
    ~FileDescriptor();
    FileDescriptor(FileDescriptor const&) = delete;
    FileDescriptor& operator=(FileDescriptor const&) = delete;

    /// Converts to the plain descriptor.
    operator int() const { return _fd; }

    /// Releases the descriptor, which the caller then has to close. Returns it, negative if there is none.
    int Release();
    /// Takes over `fd`, which may be negative, in place of the descriptor owned, which is closed. Does
    /// nothing if it is the same one.
    void Reset(int fd = -1);

    int _fd; ///< the descriptor; negative if there is none
};

#endif
