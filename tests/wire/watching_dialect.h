#ifndef TESTS_WIRE_WATCHING_DIALECT_H
#define TESTS_WIRE_WATCHING_DIALECT_H

#include <string>
#include <vector>

#include <brantle/standard/standard_dialect.h>

#include "support/text.h"

/// A dialect that records the progress reported to it.
class WatchingDialect : public cindral::StandardDialect {
public:
    using StandardDialect::StandardDialect;
    void Progress(String_t const& name, unsigned long long done, unsigned long long total) override {
        names.push_back(Text(name));
        figures.push_back(done);
        totals.push_back(total);
    }

    std::vector<std::string> names;
    std::vector<unsigned long long> figures;
    std::vector<unsigned long long> totals;
};

#endif
