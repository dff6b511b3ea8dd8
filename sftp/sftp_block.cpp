#include <brantle/sftp/sftp_block.h>

#include <algorithm>

namespace cindral {

namespace {

void Drop(ISockStream& in, unsigned int length) {
    char dropped[256];
    for (unsigned int piece; length > 0 && in.Status() == 0; length -= piece) {
        piece = std::min<unsigned int>(length, sizeof dropped);
        in.Read(dropped, static_cast<int>(piece));
    }
}

} // namespace

OSockStream& operator<<(OSockStream& out, SftpDataView const& source) {
    return (out << source._length).Write(source._data, static_cast<int>(source._length));
}

ISockStream& operator>>(ISockStream& in, SftpBufferView& target) {
    unsigned int length = 0;
    in >> length;
    if (length > ISockStream::MAX_FRAME) {
        in.SetStatus(in.Status() | SockStream::MALFORMED);
    } else if (length > target._room) {
        Drop(in, length);
    } else {
        in.Read(target._data, static_cast<int>(length));
    }
    target._length = length;
    return in;
}

} // namespace cindral
