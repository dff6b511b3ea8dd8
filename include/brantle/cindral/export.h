#ifndef BRANTLE_CINDRAL_EXPORT_H
#define BRANTLE_CINDRAL_EXPORT_H

/// Marks the symbols that libcindral exports; all others have hidden visibility.
#ifdef CINDRAL_BUILDING
#define CINDRAL_API __attribute__((visibility("default")))
#else
#define CINDRAL_API
#endif

#endif
