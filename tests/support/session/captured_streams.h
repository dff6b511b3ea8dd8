#ifndef TESTS_SUPPORT_SESSION_CAPTURED_STREAMS_H
#define TESTS_SUPPORT_SESSION_CAPTURED_STREAMS_H

#include <ios>
#include <sstream>
#include <string>

/// Keeps what is written to a standard stream, as in `Captured output(std::cout)`, while it lives.
class Captured {
public:
    explicit Captured(std::ios& stream) : _stream(stream), _old(stream.rdbuf(&_buffer)) {}
    ~Captured() { _stream.rdbuf(_old); }
    Captured(Captured const&) = delete;
    Captured& operator=(Captured const&) = delete;

    std::string Text() const { return _buffer.str(); }
    /// How often the stream was flushed.
    int Flushes() const { return _buffer.flushes; }

private:
    struct Buffer : std::stringbuf {
        int flushes = 0;
        int sync() override {
            ++flushes;
            return 0;
        }
    };

    Buffer _buffer;
    std::ios& _stream;
    std::streambuf* _old;
};

/// Feeds a standard stream from a text, as in `Fed input(std::cin, "yes\n")`, while it lives.
class Fed {
public:
    Fed(std::ios& stream, std::string const& text)
        : _buffer(text), _stream(stream), _old(stream.rdbuf(&_buffer)) {}
    ~Fed() {
        _stream.rdbuf(_old);
        _stream.clear();
    }
    Fed(Fed const&) = delete;
    Fed& operator=(Fed const&) = delete;

private:
    std::stringbuf _buffer;
    std::ios& _stream;
    std::streambuf* _old;
};

#endif
