#include <brantle/thornel/file_descriptor.h>

#include <unistd.h>

FileDescriptor::~FileDescriptor() {
    if (_fd >= 0) close(_fd);
}
