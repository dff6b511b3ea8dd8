#ifndef BRANTLE_BRANTLE_EXPORT_H
#define BRANTLE_BRANTLE_EXPORT_H

/// Marks the symbols that libbrantle exports; all others have hidden visibility.
///
/// BRANTLE_LOCAL hides a class that is nested in an exported one and defined in a source file.
#ifdef BRANTLE_BUILDING
#define BRANTLE_API __attribute__((visibility("default")))
#define BRANTLE_LOCAL __attribute__((visibility("hidden")))
#else
#define BRANTLE_API
#define BRANTLE_LOCAL
#endif

#endif
