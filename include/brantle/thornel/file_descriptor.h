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

    /// Reads like the plain descriptor.
    operator int() const { return _fd; }

    /// Gives the descriptor away, for the caller to close. Returns it, negative if there is none.
    int Release();
    /// Takes over `fd`, which may be negative, in place of the descriptor owned, which is closed. Nothing
    /// happens if it is that one.
    void Reset(int fd = -1);

    int _fd; ///< the descriptor; negative is none
};

#endif
