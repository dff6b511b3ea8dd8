#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "read_file.h"

namespace cindral {

namespace {

constexpr std::size_t MAX_FILE = 1U << 20;
constexpr std::size_t PIECE = 4096;

int ReadAll(int fd, SecretBytes& contents) {
    for (;;) {
        std::size_t const have = contents.size();
        if (have > MAX_FILE) return -EFBIG;
        contents.resize(have + PIECE);
        ssize_t const got = read(fd, contents.data() + have, PIECE);
        contents.resize(have + (got > 0 ? static_cast<std::size_t>(got) : 0));
        if (got == 0) return 0;
        if (got < 0 && errno != EINTR) return -errno;
    }
}

} // namespace

int ReadFile(char const* path, SecretBytes& contents) {
    if (!path) return -ENOENT;
    int const fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return -errno;
    int const result = ReadAll(fd, contents);
    close(fd);
    return result;
}

} // namespace cindral
