#ifndef BRANTLE_CINDRAL_EXPORT_H
#define BRANTLE_CINDRAL_EXPORT_H

/// Marks what libcindral offers to other objects; everything else stays hidden inside it.
#ifdef CINDRAL_BUILDING
#define CINDRAL_API __attribute__((visibility("default")))
#else
#define CINDRAL_API
#endif

#endif
