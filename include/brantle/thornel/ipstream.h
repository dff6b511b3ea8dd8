#ifndef BRANTLE_THORNEL_IPSTREAM_H
#define BRANTLE_THORNEL_IPSTREAM_H

#include <istream>
#include <memory>

#include <brantle/thornel/export.h>

/// An input stream over the standard output of a command run by /bin/sh. The command inherits the standard
/// input and standard error of this process. If the shell can't be started, badbit is set; if it is started
/// but does not find the command, the stream is at end of file.
class THORNEL_API ipstream : public std::istream {
public:
    explicit ipstream(char const* command);
    /// Closes as close() does.
    ~ipstream() override;

    /// Closes the pipe, waits for the command to end and returns its wait status as set by waitpid, or -1 if
    /// there is none.
    int close();

private:
    class Pipe;
    std::unique_ptr<Pipe> _pipe;
};

#endif
