#include <poll.h>

#include <cerrno>

#include <brantle/event/iomultiplexer.h>
#include <brantle/thornel/fatal.h>

namespace {

class ReadGuard {
public:
    explicit ReadGuard(RWLock& lock) : _lock(lock) { _lock.RLock(); }
    ~ReadGuard() { _lock.RUnlock(); }
    ReadGuard(ReadGuard const&) = delete;
    ReadGuard& operator=(ReadGuard const&) = delete;

private:
    RWLock& _lock;
};

class WriteGuard {
public:
    explicit WriteGuard(RWLock& lock) : _lock(lock) { _lock.WLock(); }
    ~WriteGuard() { _lock.WUnlock(); }
    WriteGuard(WriteGuard const&) = delete;
    WriteGuard& operator=(WriteGuard const&) = delete;

private:
    RWLock& _lock;
};

constexpr short READY = POLLERR | POLLHUP | POLLRDNORM | POLLWRNORM;

short PollEvents(IOMultiplexerDispatcherType type) {
    switch (type) {
    case IOMultiplexerRead:
        return POLLRDNORM;
    case IOMultiplexerWrite:
        return POLLWRNORM;
    }
    // Deliberate: the source location in the message is fixed (pinned by
    // MultiplexerDeathTest.UnknownTypeEndsTheProcess).
    FatalAssertion("0", "iomult", 179, "int IOMultiplexer::Register(int, const IOMultiplexerDispatcher&)");
}

int Matches(IOMultiplexerCallback* callback, void const* cmp) {
    return (*static_cast<IOMultiplexerCallback::Cmp const*>(cmp))(callback) == 0;
}

/// The timeout argument of poll(2), in milliseconds, computed in wrapping 32-bit arithmetic; a negative
/// result means no limit.
int Milliseconds(IOMultiplexer::Timeval const& t) {
    std::int32_t const milliseconds = static_cast<std::int32_t>(t._sec * 1000u + t._msec);
    return milliseconds < 0 ? -1 : milliseconds;
}

} // namespace

IOMultiplexer::IOMultiplexer() : _timers(32, 32, 0) {}

IOMultiplexer::~IOMultiplexer() = default;

IOMultiplexerDispatcher* IOMultiplexer::FindDispatcher(int fd) const {
    Handle<IOMultiplexerDispatcher>* const dispatcher = _dispatchers.Find(fd);
    return dispatcher ? dispatcher->Get() : nullptr;
}

int IOMultiplexer::Register(int fd, IOMultiplexerDispatcher const& d) {
    if (fd < 0) return EINVAL;
    WriteGuard guard(*this);
    // `d` may be the very dispatcher that is being replaced.
    IOMultiplexerDispatcherType const type = d._type;
    _dispatchers.Insert(fd, Handle<IOMultiplexerDispatcher>()).first->Reset(d.Clone());
    _pollFds.Insert(SockIO::PollFd(fd, PollEvents(type)));
    return 0;
}

void IOMultiplexer::_Unregister(int fd) {
    _dispatchers.Remove(fd);
    _pollFds.Remove(SockIO::PollFd(fd, 0));
}

int IOMultiplexer::Unregister(int fd) {
    if (fd < 0) return EINVAL;
    {
        WriteGuard guard(*this);
        _Unregister(fd);
    }
    CallCallbacks(fd);
    // Deliberate: one unlock too many. It fails, unless another thread has become the writer (pinned by
    // Multiplexer.UnlockAfterUnregisterReleasesAConcurrentWriter).
    WUnlock();
    return 0;
}

void IOMultiplexer::Clear() {
    WriteGuard guard(*this);
    _dispatchers.Clear();
    _pollFds.Clear();
}

void IOMultiplexer::Insert(IOMultiplexerCallback* callback) {
    WriteGuard guard(*this);
    _callbacks.Insert(callback);
}

void IOMultiplexer::Append(IOMultiplexerCallback* callback) {
    WriteGuard guard(*this);
    _callbacks.Append(callback);
}

IOMultiplexerCallback* IOMultiplexer::Unregister(IOMultiplexerCallback::Cmp const& cmp) {
    WriteGuard guard(*this);
    return _callbacks.Remove(Matches, &cmp);
}

void IOMultiplexer::CallCallbacks(int fd) {
    ReadGuard guard(*this);
    TSListIterator<IOMultiplexerCallback> next(_callbacks);
    while (IOMultiplexerCallback* const callback = next()) {
        if ((*callback)(fd)) break;
    }
}

void IOMultiplexer::DestroyCallbacks() {
    WriteGuard guard(*this);
    TSListIterator<IOMultiplexerCallback> next(_callbacks);
    for (unsigned int left = _callbacks.Len(); left > 0; --left) delete next();
    _callbacks.Clear();
}

void IOMultiplexer::Insert(Timer* timer) { _timers.Insert(timer); }

IOMultiplexer::Timer* IOMultiplexer::Unregister(TPVarrCmp<Timer> const& cmp) { return _timers.Remove(cmp); }

IOMultiplexer::Timeval IOMultiplexer::CheckTimers() {
    Timeval const now = Timeval::Now();
    while (_timers.Size() > 0 && !(_timers.Top()->_next > now)) {
        Timer* const timer = _timers.Pop();
        timer->Fire(now);
        Timeval const next = timer->ScheduleNext();
        if (next._sec != 0 || next._msec != 0) _timers.Insert(timer);
    }
    // A timer that becomes due between the two readings of the clock waits for the next event or for the 60
    // seconds.
    Timeval sleep(60, 0);
    if (Timer* const first = _timers.Top()) {
        Timeval const later = Timeval::Now();
        if (first->_next > later) sleep = first->_next - later;
    }
    return sleep;
}

void IOMultiplexer::InvokeTimers() {
    for (int i = 1; i <= _timers.Size(); ++i) _timers[i]->Fire(Timeval::Now());
}

void IOMultiplexer::DestroyTimers() {
    for (int i = 1; i <= _timers.Size(); ++i) delete _timers[i];
    _timers.Clear();
}

int IOMultiplexer::InAvail(PollFds& fds) {
    fds.Clear();
    for (Dispatchers::Iterator it(_dispatchers, 0); Dispatchers::Node* const node = it.Curr(); it.Next()) {
        IOMultiplexerDispatcher* const dispatcher = node->Value().Get();
        if (dispatcher && dispatcher->InAvail())
            fds.Insert(SockIO::PollFd(node->Key(), POLLRDNORM, POLLRDNORM));
    }
    return static_cast<int>(fds.Size());
}

int IOMultiplexer::Poll(PollFds& fds, Timeval const& timeout) {
    {
        ReadGuard guard(*this);
        int const available = InAvail(fds);
        if (available > 0) return available;
        fds = _pollFds;
    }
    int const ready = poll(fds.begin(), fds.Size(), Milliseconds(timeout));
    // Deliberate: one unlock too many. It fails, unless another thread is a reader (pinned by
    // Multiplexer.ReadUnlockAfterPollReleasesAConcurrentReader).
    RUnlock();
    return ready;
}

int IOMultiplexer::Nextfd(int& cursor, PollFds const& fds) {
    unsigned int const size = fds.Size();
    for (unsigned int i = 0; i < size; ++i) {
        unsigned int next = static_cast<unsigned int>(cursor) + 1;
        if (next >= size) next = 0;
        cursor = static_cast<int>(next);
        SockIO::PollFd const& pollFd = fds.begin()[next];
        if (pollFd.revents & READY) return pollFd.fd;
    }
    return -1;
}

int IOMultiplexer::Dispatch(int fd) {
    IOMultiplexerDispatcher* const dispatcher = FindDispatcher(fd);
    return dispatcher ? dispatcher->Dispatch(fd) : 0;
}

IOMultiplexerRequest* IOMultiplexer::MakeRequest(int fd) {
    ReadGuard guard(*this);
    IOMultiplexerDispatcher* const dispatcher = FindDispatcher(fd);
    return dispatcher ? dispatcher->MakeRequest(fd) : nullptr;
}

void IOMultiplexer::ProcessRequest(int fd, IOMultiplexerRequest* request) {
    if (!request) return;
    {
        ReadGuard guard(*this);
        if (!FindDispatcher(fd)) return;
    }
    request->Process(fd);
    // Deliberate, as in `Poll` (pinned by Multiplexer.ReadUnlockAfterARequestReleasesAConcurrentReader).
    RUnlock();
}
