#include <brantle/cindral/sock_stream_adapter.h>

#include <algorithm>
#include <cstring>

namespace cindral {

ISockStreamAdapter::ISockStreamAdapter(CascadableStreamBuf& layer) : ISockStream(nullptr), _layer(layer) {}

ISockStreamAdapter::~ISockStreamAdapter() = default;

int ISockStreamAdapter::Fill() {
    FlushTied();
    _pos = _end = _start;
    int filled = _layer.get(_start, _start + _capacity);
    _end = _start + std::max(filled, 0);
    return filled;
}

int ISockStreamAdapter::Fetch(char* begin, char* end) {
    bool const direct = IsLarge(begin, end) && IsExactly<ISockStreamAdapter>(*this);
    return direct ? FetchFromLayer(begin, end) : ISockStream::Fetch(begin, end);
}

OSockStreamAdapter::OSockStreamAdapter(CascadableStreamBuf& layer) : _layer(layer) {}

OSockStreamAdapter::~OSockStreamAdapter() = default;

int OSockStreamAdapter::Flush() {
    if (_pos == _start) return 0;
    int taken = _layer.put(_start, _pos);
    if (taken < 0) {
        SetStatus(Status() | FAILED);
        return taken;
    }
    _pos = std::copy<char const*>(_start + taken, _pos, _start);
    return taken;
}

OSockStreamAdapter& OSockStreamAdapter::WriteChars(char character, unsigned int count) {
    char run[64];
    std::memset(run, character, std::min<std::size_t>(count, sizeof(run)));
    for (unsigned int piece; count > 0; count -= piece) {
        piece = std::min<unsigned int>(count, sizeof(run));
        Write(run, static_cast<int>(piece));
    }
    return *this;
}

} // namespace cindral
