#ifndef BRANTLE_TESTS_SUPPORT_DESCRIPTOR_STATE_H
#define BRANTLE_TESTS_SUPPORT_DESCRIPTOR_STATE_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <vector>

/// The state of this process's descriptors.
namespace support {

inline bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

/// REQUIRES: the descriptor is open.
inline bool ClosesOnExec(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

/// Whether a boolean socket option is set.
inline bool IsSet(int fd, int level, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, level, option, &value, &size) == 0 && value != 0;
}

/// All that are open, without the one that reads the list.
inline std::set<int> OpenDescriptors() {
    std::set<int> fds;
    DIR* const directory = opendir("/proc/self/fd");
    while (dirent const* const entry = readdir(directory)) {
        int const fd = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(directory)) fds.insert(fd);
    }
    closedir(directory);
    return fds;
}

/// Those of files below a directory.
inline std::set<int> OpenDescriptorsBelow(std::filesystem::path const& directory) {
    std::set<int> fds;
    for (int const fd : OpenDescriptors()) {
        std::error_code gone;
        auto const target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), gone);
        if (!gone && target.string().rfind((directory / "").string(), 0) == 0) fds.insert(fd);
    }
    return fds;
}

/// Their flags (F_GETFD), in the same order.
inline std::vector<int> FlagsOf(std::set<int> const& fds) {
    std::vector<int> flags;
    for (int const fd : fds) flags.push_back(fcntl(fd, F_GETFD));
    return flags;
}

} // namespace support

#endif
