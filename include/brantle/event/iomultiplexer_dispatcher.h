#ifndef BRANTLE_EVENT_IOMULTIPLEXER_DISPATCHER_H
#define BRANTLE_EVENT_IOMULTIPLEXER_DISPATCHER_H

#include <brantle/export.h>

/// Which readiness of its descriptor a dispatcher waits for.
enum IOMultiplexerDispatcherType : int { IOMultiplexerRead = 0, IOMultiplexerWrite = 1 };

/// A piece of work that a thread does on a descriptor while the descriptor is registered, see
/// `IOMultiplexer::MakeRequest`. The base does nothing.
class BRANTLE_API IOMultiplexerRequest {
public:
    /// The descriptor is for derived classes; the base class does not store it.
    explicit IOMultiplexerRequest(int fd);

    /// For programs that pool their requests; the multiplexer never calls it. The base class returns 1.
    virtual int ReleasePool() const;
    /// Does the work. Called without holding any lock of the multiplexer.
    virtual void Process(int fd);
    virtual ~IOMultiplexerRequest();
};

/// What is done when a descriptor is ready: the base class of everything that is registered in an
/// `IOMultiplexer`.
///
/// The object given to `IOMultiplexer::Register` is a prototype: the multiplexer keeps a `Clone` of it, whose
/// members must contain everything that `Dispatch` needs.
class BRANTLE_API IOMultiplexerDispatcher {
public:
    explicit IOMultiplexerDispatcher(IOMultiplexerDispatcherType type);
    IOMultiplexerDispatcher(IOMultiplexerDispatcher const& other);
    IOMultiplexerDispatcher& operator=(IOMultiplexerDispatcher const& other);
    virtual ~IOMultiplexerDispatcher();

    /// A new copy of the concrete object on the heap, which the caller owns. Every derived class
    /// overrides it.
    virtual IOMultiplexerDispatcher* Clone() const;
    /// Serves `fd`, which is ready. Non-zero keeps the registration, 0 asks the loop to end it. The base
    /// returns 1. May register and unregister descriptors, but must not destroy its own dispatcher while it
    /// still uses its members.
    virtual int Dispatch(int fd);
    /// Non-zero when input is buffered in user space, so that the descriptor counts as ready without poll(2).
    /// The base returns 0.
    virtual int InAvail() const;
    /// A new request for `fd`, which the caller owns. The base returns a plain
    /// `IOMultiplexerRequest`.
    virtual IOMultiplexerRequest* MakeRequest(int fd);

    IOMultiplexerDispatcherType _type;
};

/// Called when a descriptor has been unregistered.
class BRANTLE_API IOMultiplexerCallback {
public:
    IOMultiplexerCallback() = default;
    IOMultiplexerCallback(IOMultiplexerCallback const&) = default;
    IOMultiplexerCallback& operator=(IOMultiplexerCallback const&) = default;

    /// Called with the descriptor, under the multiplexer's read lock: it must not take the write
    /// lock of the same multiplexer. A non-zero result keeps the callbacks after it from being
    /// called.
    virtual int operator()(int fd) = 0;
    virtual ~IOMultiplexerCallback();

    /// Chooses a callback of the list.
    class BRANTLE_API Cmp {
    public:
        /// Returns 0 for a match.
        virtual int operator()(IOMultiplexerCallback* callback) const = 0;
        virtual ~Cmp();
    };
};

#endif
