#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "finding.h"
#include "memory_file.h"

namespace fuzz {

int MemoryFile(std::string const& bytes) {
    static int const file = memfd_create("input", MFD_CLOEXEC);
    Require(file >= 0 && ftruncate(file, 0) == 0 &&
                pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "MemoryFile", "no memory");
    Rewind(file);
    return file;
}

void Rewind(int file) { Require(lseek(file, 0, SEEK_SET) == 0, "Rewind", "failed"); }

int Sink() {
    static int const sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    Require(sink >= 0, "Sink", "no /dev/null");
    return sink;
}

} // namespace fuzz
