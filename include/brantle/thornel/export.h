#ifndef BRANTLE_THORNEL_EXPORT_H
#define BRANTLE_THORNEL_EXPORT_H

/// Marks the symbols that libthornel exports; all others have hidden visibility.
#ifdef THORNEL_BUILDING
#define THORNEL_API __attribute__((visibility("default")))
#else
#define THORNEL_API
#endif

#endif
