#ifndef BRANTLE_TESTS_UNIT_EVENT_PIPES_H
#define BRANTLE_TESTS_UNIT_EVENT_PIPES_H

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include <brantle/event/iomultiplexer.h>

/// A pipe whose reading end becomes ready when the test wants.
class Pipe {
public:
    Pipe() {
        if (pipe(_fds) != 0) ADD_FAILURE() << "no pipe";
    }
    ~Pipe() {
        close(_fds[0]);
        CloseWriter();
    }
    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    int Reader() const { return _fds[0]; }
    int Writer() const { return _fds[1]; }
    void Fill() const { EXPECT_EQ(write(_fds[1], "x", 1), 1); }
    void Drain() const {
        char byte;
        EXPECT_EQ(read(_fds[0], &byte, 1), 1);
    }
    void CloseWriter() {
        if (_fds[1] >= 0) close(_fds[1]);
        _fds[1] = -1;
    }

private:
    int _fds[2];
};

/// A dispatcher made of functions. `_alive`, where given, counts the objects that share it.
class TestDispatcher : public IOMultiplexerDispatcher {
public:
    typedef std::function<int(int)> Work;

    explicit TestDispatcher(Work work = Work(), IOMultiplexerDispatcherType type = IOMultiplexerRead)
        : IOMultiplexerDispatcher(type), _work(std::move(work)) {}
    TestDispatcher(TestDispatcher const& other)
        : IOMultiplexerDispatcher(other), _work(other._work), _available(other._available),
          _alive(other._alive) {
        if (_alive) ++*_alive;
    }
    TestDispatcher& operator=(TestDispatcher const&) = delete;
    ~TestDispatcher() override {
        if (_alive) --*_alive;
    }

    TestDispatcher& Counted(int& alive) {
        _alive = &alive;
        ++alive;
        return *this;
    }
    TestDispatcher& WithInput(std::function<int()> available) {
        _available = std::move(available);
        return *this;
    }

    IOMultiplexerDispatcher* Clone() const override { return new TestDispatcher(*this); }
    int Dispatch(int fd) override { return _work ? _work(fd) : IOMultiplexerDispatcher::Dispatch(fd); }
    int InAvail() const override { return _available ? _available() : IOMultiplexerDispatcher::InAvail(); }

private:
    Work _work;
    std::function<int()> _available;
    int* _alive = nullptr;
};

/// A callback made of a function.
class TestCallback : public IOMultiplexerCallback {
public:
    explicit TestCallback(std::function<int(int)> work) : _work(std::move(work)) {}
    int operator()(int fd) override { return _work(fd); }

private:
    std::function<int(int)> _work;
};

/// Chooses one callback.
class SameCallback : public IOMultiplexerCallback::Cmp {
public:
    explicit SameCallback(IOMultiplexerCallback const& callback) : _callback(&callback) {}
    int operator()(IOMultiplexerCallback* callback) const override { return callback == _callback ? 0 : 1; }

private:
    IOMultiplexerCallback const* _callback;
};

#endif
