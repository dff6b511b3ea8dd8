#include <brantle/version.h>

namespace cindral {

char const* LibraryVersion() { return BRANTLE_VERSION; }

} // namespace cindral
