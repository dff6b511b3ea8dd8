#ifndef TESTS_WIRE_SFTP_TRANSFER_FIXTURE_H
#define TESTS_WIRE_SFTP_TRANSFER_FIXTURE_H

#include <fcntl.h>

#include <cstddef>
#include <string>
#include <string_view>

#include <brantle/thornel/file_descriptor.h>

#include "support/pattern.h"
#include "wire/local_directory.h"
#include "wire/sftp_session_fixture.h"

namespace sftp {

constexpr std::uint32_t READING = 1;
constexpr std::uint32_t WRITING = 26; ///< creating and truncating, too
constexpr std::uint32_t READ_SIZE = 32562;
constexpr std::uint32_t WRITE_SIZE = 32544;
constexpr std::uint32_t REGULAR = 0100000;

using support::Pattern;

/// The code of a status that is below 0.
inline std::uint32_t Code(std::int32_t code) { return static_cast<std::uint32_t>(code); }

inline Dialogue Closing() { return {{Close("h"), Done()}}; }

/// The dialogue in which a remote file is read successfully. The handle is "h".
inline Dialogue Fetching(std::string_view path, std::string_view text, std::uint32_t mode = 0644) {
    Dialogue fetching{{Open(path, READING), Opened("h")},
                      {Fstat("h"), Attrs(AllAttrs(text.size(), 0, 0, REGULAR | mode))}};
    for (std::size_t at = 0; at < text.size(); at += READ_SIZE)
        fetching.push_back({Read("h", at, READ_SIZE), FileData(text.substr(at, READ_SIZE))});
    fetching.push_back({Read("h", text.size(), READ_SIZE), Status(1, "end")});
    return fetching + Closing();
}
/// The dialogue in which a remote file is written successfully.
inline Dialogue Storing(std::string_view path, std::string_view text, std::uint32_t mode = 0644) {
    Dialogue storing{{Open(path, WRITING), Opened("h")}, {SetFstat("h", Mode(REGULAR | mode)), Done()}};
    for (std::size_t at = 0; at < text.size(); at += WRITE_SIZE)
        storing.push_back({Write("h", at, text.substr(at, WRITE_SIZE)), Done()});
    return storing + Closing();
}
/// The dialogue for a file that the server does not open.
inline Dialogue Refusing(std::string_view path, std::uint32_t flags) {
    return {{Open(path, flags), Status(3, "denied")}, {Close(""), Status(4, "no handle")}};
}
inline Dialogue Removing(std::string_view path) { return {{Remove(path), Done()}}; }

} // namespace sftp

/// Transfers between a scripted server and a temporary directory, the session's local current one. The
/// working directory of the process is a different one.
class SftpTransferTest : public SftpSessionTest {
protected:
    std::string Transfer(sftp::Dialogue const& dialogue, Call const& call) {
        return Run(dialogue, InDirectory(call));
    }
    std::string TransferWith(RemoteScript const& script, Call const& call) {
        return RunWith(script, InDirectory(call));
    }
    Call InDirectory(Call const& call) const {
        return [this, call](SftpProgram& session) {
            session.LCd(local.Name());
            return call(session);
        };
    }

    LocalDirectory local;
    cindral::SftpStatus status;
};

#endif
