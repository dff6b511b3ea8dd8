#ifndef BRANTLE_CINDRAL_TTY_MODES_H
#define BRANTLE_CINDRAL_TTY_MODES_H

#include <termios.h>

#include <brantle/cindral/export.h>
#include <brantle/thornel/byte_string.h>

namespace cindral {

/// The encoded terminal modes of RFC 4254 section 8: a byte and a `uint32` for every setting that
/// this system has, the two speeds in bits per second, and the end byte.
CINDRAL_API ByteString TtyMakeModes(termios const& settings);

} // namespace cindral

#endif
