#ifndef BRANTLE_STANDARD_EXPLAINED_H
#define BRANTLE_STANDARD_EXPLAINED_H

#include <brantle/cindral/exceptions.h>

namespace cindral::standard {

/// Does a step in which the connection may fail; `report` is then given the text of the exception, which
/// passes on. Whatever the session, its loop or its copies call begins with this.
template <class Report, class Step>
auto Explained(Report const& report, Step const& step) -> decltype(step()) {
    try {
        return step();
    } catch (CryptoException const& failure) {
        report(failure.what());
        throw;
    }
}

} // namespace cindral::standard

#endif
