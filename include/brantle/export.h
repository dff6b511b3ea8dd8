#ifndef BRANTLE_BRANTLE_EXPORT_H
#define BRANTLE_BRANTLE_EXPORT_H

/// Marks what libbrantle offers to other objects; everything else stays hidden inside it.
///
/// BRANTLE_LOCAL keeps a class that is declared within an offered one, and defined in a source file, inside.
#ifdef BRANTLE_BUILDING
#define BRANTLE_API __attribute__((visibility("default")))
#define BRANTLE_LOCAL __attribute__((visibility("hidden")))
#else
#define BRANTLE_API
#define BRANTLE_LOCAL
#endif

#endif
