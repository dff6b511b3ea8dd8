#ifndef BRANTLE_THORNEL_IPSTREAM_H
#define BRANTLE_THORNEL_IPSTREAM_H

#include <istream>
#include <memory>

#include <brantle/thornel/export.h>

/// An input stream over the standard output of a command that /bin/sh runs. Its standard input and
/// error stream are this process's. A command that could not be started leaves badbit in the state;
/// a shell that does not know the command has started, and the stream is then at its end.
class THORNEL_API ipstream : public std::istream {
public:
    explicit ipstream(char const* command);
    /// Closes as close() does.
    ~ipstream() override;

    /// Closes the pipe, waits for the command to end and returns its wait status as waitpid gives it,
    /// or -1 if there is none.
    int close();

private:
    class Pipe;
    std::unique_ptr<Pipe> _pipe;
};

#endif
