#include <brantle/session/session_dialect.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet_filter.h>
#include <brantle/session/file_transfer.h>

namespace cindral {

PacketFilter::~PacketFilter() = default;

SessionDialect::~SessionDialect() = default;

FileTransfer::~FileTransfer() = default;

void SessionDialect::Attach(PacketFilter& filter) {
    if (_session._dialect) throw InvalidArgument("SessionDialect::Attach", "the session has a dialect");
    if (_session.Fd() >= 0) throw InvalidArgument("SessionDialect::Attach", "the session is connected");
    _session._dialect = this;
    _session._in._filter = _session._out._filter = &filter;
}

void SessionDialect::Detach() {
    _session._dialect = nullptr;
    _session._in._filter = _session._out._filter = nullptr;
}

} // namespace cindral
