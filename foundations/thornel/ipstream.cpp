#include <brantle/thornel/ipstream.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <streambuf>

#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/file_descriptor.h>

class ipstream::Pipe : public std::streambuf {
public:
    explicit Pipe(char const* command) : _child(-1) {
        int ends[2];
        if (!command || pipe2(ends, O_CLOEXEC) < 0) return;
        _read.Reset(ends[0]);
        FileDescriptor write(ends[1]);
        _io.Set(_read);
        Spawn(command, write);
    }

    bool IsRunning() const { return _child >= 0; }

    int Close() {
        _read.Reset();
        _io.Set(-1);
        setg(nullptr, nullptr, nullptr);
        if (_child < 0) return -1;
        int status = -1;
        while (waitpid(_child, &status, 0) < 0) {
            if (errno == EINTR) continue;
            status = -1;
            break;
        }
        _child = -1;
        return status;
    }

protected:
    int_type underflow() override {
        int count = _io.Read(_buffer, sizeof(_buffer), 0);
        if (count < 1) return traits_type::eof();
        setg(_buffer, _buffer, _buffer + count);
        return traits_type::to_int_type(*_buffer);
    }

private:
    void Spawn(char const* command, int output) {
        char* const arguments[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                                   const_cast<char*>(command), nullptr};
        posix_spawn_file_actions_t actions;
        if (posix_spawn_file_actions_init(&actions) != 0) return;
        if (posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) != 0 ||
            posix_spawn(&_child, "/bin/sh", &actions, nullptr, arguments, environ) != 0) {
            _child = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }

    FileDescriptor _read;
    DescriptorIO _io;
    pid_t _child;
    char _buffer[4096];
};

ipstream::ipstream(char const* command) : std::istream(nullptr), _pipe(new Pipe(command)) {
    rdbuf(_pipe.get());
    if (!_pipe->IsRunning()) setstate(std::ios_base::badbit);
}

ipstream::~ipstream() { close(); }

int ipstream::close() { return _pipe->Close(); }
