// The head line of a file, as scp sends it after a "C": mode, size and name.
//
// A line that can be parsed must give the same values when it is formatted from them and parsed again.

#include <cstdio>
#include <string>

#include <brantle/cindral/exceptions.h>

#include "apps/scp_head_line.h"
#include "finding.h"

using namespace cindral;
using fuzz::Require;

namespace {

struct Head {
    unsigned int mode = 0;
    long long size = 0;
    Pathname name;
};

bool Parse(String_t const& line, Head& head) {
    try {
        ParseScpHeadLine(line, head.mode, head.size, head.name);
        return true;
    } catch (SshProtocolError const& error) {
        Require(error.Detail() == line, "ParseScpHeadLine", "complains of another line");
        return false;
    }
}

String_t Join(Head const& head) {
    char front[64];
    std::snprintf(front, sizeof(front), "%03o %lld ", head.mode, head.size);
    String_t line(front);
    return line += head.name;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    String_t const line(reinterpret_cast<char const*>(data), static_cast<unsigned int>(size));
    Head head;
    if (!Parse(line, head)) return 0;
    Head again;
    Require(Parse(Join(head), again), "ParseScpHeadLine", "refuses its own values");
    Require(again.mode == head.mode && again.size == head.size && again.name == head.name, "ParseScpHeadLine",
            "takes its own values for others");
    return 0;
}
