#ifndef BRANTLE_TESTS_UNIT_TRUST_WATCHED_FILE_H
#define BRANTLE_TESTS_UNIT_TRUST_WATCHED_FILE_H

#include <cstddef>
#include <string>
#include <vector>

/// Notes how this process reads and writes a file while the object lives, of which there is one at a time.
/// The program puts itself in front of the calls of the C library.
class WatchedFile {
public:
    explicit WatchedFile(std::string const& path);
    ~WatchedFile();
    WatchedFile(WatchedFile const&) = delete;
    WatchedFile& operator=(WatchedFile const&) = delete;

    std::size_t Reads() const;
    /// The number of bytes of each write.
    std::vector<std::size_t> Written() const;
    /// Whether the descriptor of each write had this flag of open(2), and that of each call was closed by an
    /// exec.
    bool EachIs(int flag) const;
    bool EachClosesOnExec() const;
};

#endif
