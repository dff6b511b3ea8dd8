#ifndef TESTS_WIRE_STANDARD_STREAMS_H
#define TESTS_WIRE_STANDARD_STREAMS_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

/// Attaches descriptor 0 of the process to a prepared input and descriptor 1 to a file, as long as it lives.
class StandardStreams {
public:
    /// The input ends after the text; without a text it stays open and silent.
    explicit StandardStreams(std::optional<std::string> const& input = std::nullopt)
        : _savedIn(dup(0)), _savedOut(dup(1)), _file(std::string(std::getenv("HOME")) + "/output") {
        std::fflush(stdout);
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        _inputEnd = ends[1];
        dup2(ends[0], 0);
        close(ends[0]);
        if (input) {
            if (write(_inputEnd, input->data(), input->size()) != static_cast<ssize_t>(input->size()))
                throw std::runtime_error("write");
            close(_inputEnd);
            _inputEnd = -1;
        }
        int const out = open(_file.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
        dup2(out, 1);
        close(out);
    }
    ~StandardStreams() {
        dup2(_savedIn, 0);
        dup2(_savedOut, 1);
        close(_savedIn);
        close(_savedOut);
        if (_inputEnd >= 0) close(_inputEnd);
    }
    StandardStreams(StandardStreams const&) = delete;
    StandardStreams& operator=(StandardStreams const&) = delete;

    /// What has been written to descriptor 1 so far.
    std::string Output() const {
        std::ifstream file(_file);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

private:
    int _savedIn;
    int _savedOut;
    int _inputEnd = -1;
    std::string _file;
};

#endif
