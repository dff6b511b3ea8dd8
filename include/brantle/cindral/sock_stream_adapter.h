#ifndef BRANTLE_CINDRAL_SOCK_STREAM_ADAPTER_H
#define BRANTLE_CINDRAL_SOCK_STREAM_ADAPTER_H

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>
#include <brantle/thornel/sock_stream.h>

namespace cindral {

/// A socket input stream on top of a layer, with the typed operators of ISockStream.
///
/// A Fill() asks the layer for a whole buffer, so a layer without an end, such as a bare socket, needs
/// another one in between that defines where the data ends. An end is not final: if the layer has more data
/// later, reading continues, regardless of the status. The layer must outlive the adapter.
class CINDRAL_API ISockStreamAdapter : public ISockStream {
public:
    explicit ISockStreamAdapter(CascadableStreamBuf& layer);
    ~ISockStreamAdapter() override;

    /// Fetches from the layer, with its result.
    int Fill() override;

protected:
    int Fetch(char* begin, char* end) override;
    /// A Fetch() that reads directly from the layer.
    int FetchFromLayer(char* begin, char* end) {
        FlushTied();
        return _layer.get(begin, end);
    }

private:
    CascadableStreamBuf& _layer;
};

/// A socket output stream on top of a layer, with the typed operators of OSockStream.
///
/// Flush it before the layer is used directly; the destructor discards what is buffered. The layer must
/// outlive the adapter.
class CINDRAL_API OSockStreamAdapter : public OSockStream {
public:
    explicit OSockStreamAdapter(CascadableStreamBuf& layer);
    ~OSockStreamAdapter() override;

    /// Passes what is buffered to the layer, which is not flushed itself. Returns the number of bytes,
    /// or the layer's negative result, with FAILED in the status and the bytes kept.
    int Flush() override;

    /// Writes the character `count` times.
    OSockStreamAdapter& WriteChars(char character, unsigned int count);

private:
    CascadableStreamBuf& _layer;
};

} // namespace cindral

#endif
