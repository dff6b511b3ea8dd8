// Whole SFTP sessions.
//
// The first byte of the input chooses a script; what follows are the server's replies, each with its length
// in front. With the high bit of the first byte set, each reply gets the request id that is waited for, so
// that mutations go beyond the first reply that is added or left out.

#include <brantle/cindral/exceptions.h>

#include "fed_session.h"
#include "finding.h"
#include "sandbox.h"
#include "sftp_scripts.h"

using namespace cindral;

namespace {

constexpr unsigned int MATCH_IDS = 0x80;
constexpr std::size_t LENGTH_FIELD = 4;
constexpr std::size_t HEAD = 5; ///< type and request id

std::size_t NumberAt(std::string const& bytes, std::size_t at) {
    std::size_t number = 0;
    for (std::size_t i = 0; i < 4; ++i) number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
    return number;
}

/// The first reply has no request id.
void MatchIds(std::string& replies) {
    std::size_t at = 0;
    for (unsigned int reply = 0; at + LENGTH_FIELD + HEAD <= replies.size(); ++reply) {
        std::size_t const length = NumberAt(replies, at);
        at += LENGTH_FIELD;
        if (reply > 0 && length >= HEAD)
            for (std::size_t i = 0; i < 4; ++i)
                replies[at + 1 + i] = static_cast<char>((reply - 1) >> (24 - 8 * i) & 0xff);
        at += length;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    static fuzz::Sandbox const sandbox;
    std::string replies(reinterpret_cast<char const*>(data) + 1, size - 1);
    if (data[0] & MATCH_IDS) MatchIds(replies);
    try {
        fuzz::FedSession<SftpClientSession> session(replies);
        fuzz::SftpPlaces const places{"/remote", sandbox.Source().c_str(), sandbox.Target().c_str()};
        if (session.Start() == 0)
            fuzz::SFTP_SCRIPTS[(data[0] & ~MATCH_IDS) % fuzz::SFTP_SCRIPT_COUNT](session, places);
    } catch (SshProtocolError const&) {
    } catch (BadInput const&) {
    }
    sandbox.CheckAndClear();
    return 0;
}
