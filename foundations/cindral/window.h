#ifndef BRANTLE_FOUNDATIONS_CINDRAL_WINDOW_H
#define BRANTLE_FOUNDATIONS_CINDRAL_WINDOW_H

#include <brantle/thornel/stream_buffer.h>

namespace cindral {

/// Fills a whole range from a window, refilled as needed, as CascadableStreamBuf::get tells it.
template <class Refill>
int TakeRange(InputBuffer<char>& window, char* begin, char* end, Refill refill) {
    char* next = begin;
    while (next != end) {
        if (window._pos >= window._end) {
            int filled = refill();
            if (filled < 1) return next == begin ? filled : static_cast<int>(next - begin);
        }
        next += window.TakeBuffered(next, end);
    }
    return static_cast<int>(next - begin);
}

} // namespace cindral

#endif
