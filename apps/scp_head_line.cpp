#include <sstream>

#include <brantle/cindral/exceptions.h>
#include <brantle/thornel/text.h>

#include "scp_head_line.h"

namespace cindral {

void ParseScpHeadLine(String_t const& line, unsigned int& mode, long long& size, Pathname& name) {
    std::istringstream in(str_text(line.Text()));
    in >> std::oct >> mode >> std::dec >> size >> name;
    if (in.fail()) throw SshProtocolError("invalid head line returned from scp", line);
}

} // namespace cindral
