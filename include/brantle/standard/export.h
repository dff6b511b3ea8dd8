#ifndef BRANTLE_STANDARD_EXPORT_H
#define BRANTLE_STANDARD_EXPORT_H

/// Marks what libbrantle-standard offers to other objects; everything else stays hidden inside it.
///
/// BRANTLE_STANDARD_LOCAL keeps a class that is declared within an offered one, and defined in a source file,
/// inside.
#ifdef BRANTLE_STANDARD_BUILDING
#define BRANTLE_STANDARD_API __attribute__((visibility("default")))
#define BRANTLE_STANDARD_LOCAL __attribute__((visibility("hidden")))
#else
#define BRANTLE_STANDARD_API
#define BRANTLE_STANDARD_LOCAL
#endif

#endif
