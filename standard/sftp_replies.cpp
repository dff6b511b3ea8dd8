#include <algorithm>

#include <brantle/cindral/exceptions.h>

#include "standard/sftp_replies.h"

namespace cindral::standard {

namespace {

constexpr std::size_t LENGTH_FIELD = 4;

/// The size of the message that begins here, including its length field; 0 while it is not known yet.
std::size_t SizeOf(View data) {
    if (data.size() < LENGTH_FIELD) return 0;
    unsigned int const length = LoadInt(data.data());
    if (length < 1 || length > SftpReplies::MAX_MESSAGE)
        throw SshProtocolError("SFTP message length out of bounds");
    return LENGTH_FIELD + length;
}

} // namespace

void SftpReplies::TakeData(View data) {
    while (!_part.empty() && !data.empty()) {
        std::size_t const size = SizeOf(_part);
        std::size_t const wanted = (size ? size : LENGTH_FIELD) - _part.size();
        std::size_t const taken = std::min(wanted, data.size());
        _part.insert(_part.end(), data.begin(), data.begin() + taken);
        data = View(data.begin() + taken, data.size() - taken);
        if (size && _part.size() == size) {
            std::swap(_whole, _part);
            _part.clear();
            TakeWhole(_whole);
        }
    }
    std::size_t const whole = TakeWhole(data);
    _part.insert(_part.end(), data.begin() + whole, data.end());
}

/// Passes on the whole messages at the front of the data, and returns their size.
std::size_t SftpReplies::TakeWhole(View data) {
    std::size_t done = 0;
    for (;;) {
        View const rest(data.begin() + done, data.size() - done);
        std::size_t const size = SizeOf(rest);
        if (size == 0 || size > rest.size()) return done;
        TakeReply(View(rest.begin() + LENGTH_FIELD, size - LENGTH_FIELD));
        done += size;
    }
}

} // namespace cindral::standard
