#include <brantle/sftp/sftp_string.h>

namespace cindral {

OSockStream& WriteSftpString(OSockStream& out, String_t const& text) {
    unsigned int const length = str_len(text.Text());
    return (out << length).Write(text.Text(), static_cast<int>(length));
}

ISockStream& ReadSftpString(ISockStream& in, String_t& text) {
    unsigned int length = 0;
    in >> length;
    if (in.Status() != 0) return in;
    if (length < 1 || length > MAX_SFTP_STRING) {
        in.SetStatus(SockStream::MALFORMED);
        return in;
    }
    text.Reserve(length);
    char* const buffer = text.Buffer();
    in.Read(buffer, static_cast<int>(length));
    buffer[in.Gcount()] = '\0';
    return in;
}

} // namespace cindral
