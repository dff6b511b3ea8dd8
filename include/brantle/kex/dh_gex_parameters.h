#ifndef BRANTLE_KEX_DH_GEX_PARAMETERS_H
#define BRANTLE_KEX_DH_GEX_PARAMETERS_H

#include <brantle/export.h>

namespace cindral {

/// The group sizes that a client requests, in bits (RFC 4419, section 3).
///
/// Constructors throw `InvalidArgument` for a size outside 1024 to 8192, and for sizes out of order.
class BRANTLE_API DhGexParameters {
public:
    /// 1024, 1024, 8192.
    DhGexParameters() noexcept;
    /// For the old form of the request, which contains only the preferred size; both limits are -1.
    explicit DhGexParameters(int preferred);
    DhGexParameters(int lowest, int preferred, int highest);

    int min;
    int pref;
    int max;
};

} // namespace cindral

#endif
