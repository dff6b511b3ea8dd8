#ifndef BRANTLE_FOUNDATIONS_CINDRAL_NAMED_ALGORITHMS_H
#define BRANTLE_FOUNDATIONS_CINDRAL_NAMED_ALGORITHMS_H

#include <cstring>

#include <brantle/thornel/string_t.h>

namespace cindral {

/// Tables of algorithms, the most preferred first, each record with its SSH name in `_name`.

/// The record with that name; null if there is none, or if `name` is null.
template <class Algorithm, unsigned int COUNT>
Algorithm* FindAlgorithm(Algorithm (&algorithms)[COUNT], char const* name) {
    if (!name) return nullptr;
    for (Algorithm& algorithm : algorithms)
        if (std::strcmp(algorithm._name, name) == 0) return &algorithm;
    return nullptr;
}

/// The names in their order, comma-separated.
template <class Algorithm, unsigned int COUNT>
String_t NamesOf(Algorithm const (&algorithms)[COUNT]) {
    String_t names;
    for (Algorithm const& algorithm : algorithms) {
        if (&algorithm != algorithms) names += ",";
        names += algorithm._name;
    }
    return names;
}

} // namespace cindral

#endif
