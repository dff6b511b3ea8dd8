#ifndef BRANTLE_APPS_SCP_HEAD_LINE_H
#define BRANTLE_APPS_SCP_HEAD_LINE_H

#include <brantle/thornel/pathname.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Parses the header of a file as scp sends it after a "C": the mode in octal, the size in decimal and the
/// name, up to a blank. Throws SshProtocolError "invalid head line returned from scp" with the line as the
/// detail.
void ParseScpHeadLine(String_t const& line, unsigned int& mode, long long& size, Pathname& name);

} // namespace cindral

#endif
