#include <brantle/kex/dh_gex_parameters.h>

#include <brantle/cindral/exceptions.h>

namespace cindral {

namespace {

[[noreturn]] void Refuse(char const* wrong) {
    throw InvalidArgument("DhGexParameters::DhGexParameters", wrong);
}

void CheckRange(int bits, char const* which) {
    if (bits < 1024 || bits > 8192) Refuse(which);
}

} // namespace

DhGexParameters::DhGexParameters() noexcept : min(1024), pref(1024), max(8192) {}

DhGexParameters::DhGexParameters(int preferred) : min(-1), pref(preferred), max(-1) {
    CheckRange(pref, "pref");
}

DhGexParameters::DhGexParameters(int lowest, int preferred, int highest)
    : min(lowest), pref(preferred), max(highest) {
    CheckRange(min, "min");
    CheckRange(pref, "pref");
    CheckRange(max, "max");
    if (min > max) Refuse("max is less than min");
    if (pref > max || min > pref) Refuse("pref is outside the interval min/max");
}

} // namespace cindral
