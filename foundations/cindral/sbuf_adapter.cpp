#include <brantle/cindral/sbuf_adapter.h>

#include <algorithm>
#include <climits>

namespace cindral {

SBufAdapter::SBufAdapter(CascadableStreamBuf& layer) : _layer(layer), _ahead(0) {}

SBufAdapter::~SBufAdapter() = default;

SBufAdapter::int_type SBufAdapter::overflow(int_type byte) {
    if (traits_type::eq_int_type(byte, traits_type::eof())) return traits_type::not_eof(byte);
    return _layer.putchr(traits_type::to_char_type(byte)) < 0 ? traits_type::eof() : byte;
}

std::streamsize SBufAdapter::xsputn(char const* data, std::streamsize size) {
    std::streamsize done = 0;
    while (done < size) {
        std::streamsize piece = std::min<std::streamsize>(size - done, INT_MAX);
        int taken = _layer.put(data + done, data + done + piece);
        if (taken < 1) break;
        done += taken;
    }
    return done;
}

SBufAdapter::int_type SBufAdapter::underflow() {
    if (gptr() == egptr()) {
        if (_layer.getchr(_ahead) < 1) return traits_type::eof();
        setg(&_ahead, &_ahead, &_ahead + 1);
    }
    return traits_type::to_int_type(_ahead);
}

SBufAdapter::int_type SBufAdapter::uflow() {
    char byte;
    if (gptr() != egptr()) {
        byte = _ahead;
        setg(nullptr, nullptr, nullptr);
    } else if (_layer.getchr(byte) < 1) {
        return traits_type::eof();
    }
    return traits_type::to_int_type(byte);
}

std::streamsize SBufAdapter::xsgetn(char* data, std::streamsize size) {
    std::streamsize done = 0;
    if (size > 0 && gptr() != egptr()) {
        data[done++] = _ahead;
        setg(nullptr, nullptr, nullptr);
    }
    while (done < size) {
        std::streamsize piece = std::min<std::streamsize>(size - done, INT_MAX);
        int stored = _layer.get(data + done, data + done + piece);
        if (stored < 1) break;
        done += stored;
    }
    return done;
}

int SBufAdapter::sync() {
    auto* buffered = dynamic_cast<OutputBuffer<char>*>(&_layer);
    return buffered && buffered->Flush() < 0 ? -1 : 0;
}

} // namespace cindral
