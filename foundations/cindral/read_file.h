#ifndef BRANTLE_FOUNDATIONS_CINDRAL_READ_FILE_H
#define BRANTLE_FOUNDATIONS_CINDRAL_READ_FILE_H

#include "secret_bytes.h"

namespace cindral {

/// Reads a whole key file of at most 1 MiB. Returns 0 or minus errno.
int ReadFile(char const* path, SecretBytes& contents);

} // namespace cindral

#endif
