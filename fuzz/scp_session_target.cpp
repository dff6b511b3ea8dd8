// Whole transfers by scp.
//
// The first byte of the input chooses the direction; what follows is what the remote scp says.

#include <brantle/apps/scp_session.h>
#include <brantle/cindral/exceptions.h>

#include "fed_session.h"
#include "finding.h"
#include "sandbox.h"

using namespace cindral;

namespace {

TOList<String_t> Names() {
    TOList<String_t> names;
    names.Append("first");
    names.Append("second");
    return names;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    static fuzz::Sandbox const sandbox;
    std::string const said(reinterpret_cast<char const*>(data) + 1, size - 1);
    try {
        fuzz::FedSession<ScpSession> session(said);
        bool const receives = (data[0] & 1) == 0;
        if (receives)
            session.ReceiveFiles("/remote", sandbox.Target().c_str(), Names());
        else
            session.SendFile(sandbox.Source().c_str(), "/remote", fuzz::Sandbox::FILE);
    } catch (SshProtocolError const&) {
    } catch (BadInput const&) {
    }
    sandbox.CheckAndClear();
    return 0;
}
