#ifndef BRANTLE_FOUNDATIONS_CINDRAL_TAKE_RANGE_H
#define BRANTLE_FOUNDATIONS_CINDRAL_TAKE_RANGE_H

#include <brantle/thornel/stream_buffer.h>

namespace cindral {

/// Fills a whole range from a buffer, refilled as needed, with the results of CascadableStreamBuf::get.
template <class Refill>
int TakeRange(InputBuffer<char>& buffer, char* begin, char* end, Refill refill) {
    char* next = begin;
    while (next != end) {
        if (buffer._pos >= buffer._end) {
            int filled = refill();
            if (filled < 1) return next == begin ? filled : static_cast<int>(next - begin);
        }
        next += buffer.TakeBuffered(next, end);
    }
    return static_cast<int>(next - begin);
}

} // namespace cindral

#endif
