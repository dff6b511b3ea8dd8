#ifndef BRANTLE_CINDRAL_SBUF_ADAPTER_H
#define BRANTLE_CINDRAL_SBUF_ADAPTER_H

#include <streambuf>

#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/export.h>

namespace cindral {

/// A standard stream buffer over a layer, for a std::istream or std::ostream on top.
///
/// It has no buffer except one byte of look-ahead. Flushing the stream flushes the layer itself, not those
/// below it. The layer must outlive the adapter.
class CINDRAL_API SBufAdapter : public std::streambuf {
public:
    explicit SBufAdapter(CascadableStreamBuf& layer);
    ~SBufAdapter() override;
    SBufAdapter(SBufAdapter const&) = delete;
    SBufAdapter& operator=(SBufAdapter const&) = delete;

protected:
    int_type overflow(int_type byte) override;
    std::streamsize xsputn(char const* data, std::streamsize size) override;
    int_type underflow() override;
    int_type uflow() override;
    std::streamsize xsgetn(char* data, std::streamsize size) override;
    int sync() override;

private:
    CascadableStreamBuf& _layer;
    char _ahead; ///< the byte of look-ahead, if the get area holds one
};

} // namespace cindral

#endif
