#ifndef TESTS_WIRE_PROCESS_DESCRIPTORS_H
#define TESTS_WIRE_PROCESS_DESCRIPTORS_H

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>

inline int Checked(int result, char const* call) {
    if (result < 0) throw std::runtime_error(call);
    return result;
}

/// Bytes in memory after a descriptor: an input that is ready from its beginning to its end, or an output
/// that takes everything at once.
class MemoryFile {
public:
    explicit MemoryFile(std::string const& text = "")
        : _fd(Checked(memfd_create("test", MFD_CLOEXEC), "memfd_create")) {
        std::size_t const size = text.size();
        if (pwrite(_fd, text.data(), size, 0) != static_cast<ssize_t>(size))
            throw std::runtime_error("pwrite");
    }
    ~MemoryFile() { close(_fd); }
    MemoryFile(MemoryFile const&) = delete;
    MemoryFile& operator=(MemoryFile const&) = delete;

    int Fd() const { return _fd; }
    void Clear() const {
        Checked(ftruncate(_fd, 0), "ftruncate");
        lseek(_fd, 0, SEEK_SET);
    }
    std::string Text() const {
        std::string text;
        std::array<char, 65536> piece;
        for (ssize_t n; (n = pread(_fd, piece.data(), piece.size(), static_cast<off_t>(text.size()))) > 0;)
            text.append(piece.data(), static_cast<std::size_t>(n));
        return text;
    }

private:
    int _fd;
};

/// A pipe whose writing end the test holds.
class InputPipe {
public:
    InputPipe() { Checked(pipe(_fds), "pipe"); }
    ~InputPipe() {
        close(_fds[0]);
        End();
    }
    InputPipe(InputPipe const&) = delete;
    InputPipe& operator=(InputPipe const&) = delete;

    int Fd() const { return _fds[0]; }
    void Write(std::string const& text) const {
        std::size_t const size = text.size();
        if (write(_fds[1], text.data(), size) != static_cast<ssize_t>(size))
            throw std::runtime_error("write");
    }
    void End() {
        if (_fds[1] >= 0) close(_fds[1]);
        _fds[1] = -1;
    }

private:
    int _fds[2];
};

/// Puts other descriptors in the place of the process's 0, 1 and 2 as long as it lives. What GoogleTest
/// prints meanwhile goes there too: check afterwards.
class ProcessDescriptors {
public:
    ProcessDescriptors(int in, int out, int err) {
        std::fflush(stdout);
        std::array<int, 3> const replacements{in, out, err};
        for (int fd = 0; fd < 3; ++fd) {
            auto const i = static_cast<std::size_t>(fd);
            _saved[i] = Checked(dup(fd), "dup");
            Checked(dup2(replacements[i], fd), "dup2");
        }
    }
    ~ProcessDescriptors() {
        std::cout << std::flush;
        std::fflush(stdout);
        for (int fd = 0; fd < 3; ++fd) {
            auto const i = static_cast<std::size_t>(fd);
            dup2(_saved[i], fd);
            close(_saved[i]);
        }
    }
    ProcessDescriptors(ProcessDescriptors const&) = delete;
    ProcessDescriptors& operator=(ProcessDescriptors const&) = delete;

private:
    std::array<int, 3> _saved;
};

#endif
