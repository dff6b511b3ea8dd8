#include <brantle/event/iomultiplexer_dispatcher.h>

IOMultiplexerRequest::IOMultiplexerRequest(int) {}

IOMultiplexerRequest::~IOMultiplexerRequest() = default;

int IOMultiplexerRequest::ReleasePool() const { return 1; }

void IOMultiplexerRequest::Process(int) {}

IOMultiplexerDispatcher::IOMultiplexerDispatcher(IOMultiplexerDispatcherType type) : _type(type) {}

IOMultiplexerDispatcher::IOMultiplexerDispatcher(IOMultiplexerDispatcher const& other) = default;

IOMultiplexerDispatcher& IOMultiplexerDispatcher::operator=(IOMultiplexerDispatcher const& other) = default;

IOMultiplexerDispatcher::~IOMultiplexerDispatcher() = default;

IOMultiplexerDispatcher* IOMultiplexerDispatcher::Clone() const { return new IOMultiplexerDispatcher(*this); }

int IOMultiplexerDispatcher::Dispatch(int) { return 1; }

int IOMultiplexerDispatcher::InAvail() const { return 0; }

IOMultiplexerRequest* IOMultiplexerDispatcher::MakeRequest(int fd) { return new IOMultiplexerRequest(fd); }

IOMultiplexerCallback::~IOMultiplexerCallback() = default;

IOMultiplexerCallback::Cmp::~Cmp() = default;
