#ifndef BRANTLE_STANDARD_H
#define BRANTLE_STANDARD_H

// All of libbrantle-standard.

#include <brantle/standard/standard_dialect.h>

#endif
