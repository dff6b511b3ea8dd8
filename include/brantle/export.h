#ifndef BRANTLE_BRANTLE_EXPORT_H
#define BRANTLE_BRANTLE_EXPORT_H

/// Marks what libbrantle offers to other objects; everything else stays hidden inside it.
#ifdef BRANTLE_BUILDING
#define BRANTLE_API __attribute__((visibility("default")))
#else
#define BRANTLE_API
#endif

/// Keeps a class that is declared within an offered one, and defined in a source file, inside.
#define BRANTLE_LOCAL __attribute__((visibility("hidden")))

#endif
