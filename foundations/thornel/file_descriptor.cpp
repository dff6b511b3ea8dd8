#include <brantle/thornel/file_descriptor.h>

#include <unistd.h>

#include <utility>

FileDescriptor::~FileDescriptor() { Reset(); }

int FileDescriptor::Release() { return std::exchange(_fd, -1); }

void FileDescriptor::Reset(int fd) {
    if (fd == _fd) return;
    if (_fd >= 0) close(_fd);
    _fd = fd;
}
