#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "support/next_symbol.h"
#include "watched_file.h"

namespace {

struct Call {
    bool _isWrite;
    std::size_t _size;
    int _status;     ///< as F_GETFL gives it
    int _descriptor; ///< as F_GETFD does
};

std::string watched; ///< the file's path; empty for none
std::vector<Call> calls;

void Note(int fd, bool isWrite, std::size_t size) {
    if (watched.empty()) return;
    char path[PATH_MAX];
    ssize_t const length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    if (length < 0 || watched != std::string(path, static_cast<std::size_t>(length))) return;
    calls.push_back({isWrite, size, fcntl(fd, F_GETFL), fcntl(fd, F_GETFD)});
}

std::size_t SizeOf(iovec const* pieces, int count) {
    std::size_t size = 0;
    for (int i = 0; i < count; ++i) size += pieces[i].iov_len;
    return size;
}

} // namespace

WatchedFile::WatchedFile(std::string const& path) {
    calls.clear();
    watched = path;
}

WatchedFile::~WatchedFile() { watched.clear(); }

std::size_t WatchedFile::Reads() const {
    return static_cast<std::size_t>(
        std::count_if(calls.begin(), calls.end(), [](Call const& call) { return !call._isWrite; }));
}

std::vector<std::size_t> WatchedFile::Written() const {
    std::vector<std::size_t> sizes;
    for (Call const& call : calls)
        if (call._isWrite) sizes.push_back(call._size);
    return sizes;
}

bool WatchedFile::EachIs(int flag) const {
    return std::all_of(calls.begin(), calls.end(),
                       [flag](Call const& call) { return !call._isWrite || (call._status & flag); });
}

bool WatchedFile::EachClosesOnExec() const {
    return std::all_of(calls.begin(), calls.end(),
                       [](Call const& call) { return call._descriptor & FD_CLOEXEC; });
}

extern "C" {

// In place of the C library's, for the library under test too.

ssize_t read(int fd, void* bytes, size_t size) {
    static auto* const next = support::NextSymbol(&read, "read");
    Note(fd, false, size);
    return next(fd, bytes, size);
}

ssize_t write(int fd, void const* bytes, size_t size) {
    static auto* const next = support::NextSymbol(&write, "write");
    Note(fd, true, size);
    return next(fd, bytes, size);
}

ssize_t writev(int fd, iovec const* pieces, int count) {
    static auto* const next = support::NextSymbol(&writev, "writev");
    Note(fd, true, SizeOf(pieces, count));
    return next(fd, pieces, count);
}
}
