#ifndef BRANTLE_FUZZ_MEMORY_FILE_H
#define BRANTLE_FUZZ_MEMORY_FILE_H

#include <string>

namespace fuzz {

/// The descriptor of a file in memory that has these bytes, at its front. There is one, which the next call
/// fills again.
int MemoryFile(std::string const& bytes);

/// Goes to the front of a file.
void Rewind(int file);

/// A descriptor that takes everything.
int Sink();

} // namespace fuzz

#endif
