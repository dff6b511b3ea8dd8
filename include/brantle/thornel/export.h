#ifndef BRANTLE_THORNEL_EXPORT_H
#define BRANTLE_THORNEL_EXPORT_H

/// Marks what libthornel offers to other objects; everything else stays hidden inside it.
#ifdef THORNEL_BUILDING
#define THORNEL_API __attribute__((visibility("default")))
#else
#define THORNEL_API
#endif

#endif
