#ifndef BRANTLE_SESSION_FILE_TRANSFER_H
#define BRANTLE_SESSION_FILE_TRANSFER_H

#include <brantle/export.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

class ISshDataStream;
class OSshDataStream;
class SftpClient;
class SftpStatus;

/// What a dialect does of the work of SftpClientSession and ScpSession; see SessionDialect. Called by those
/// classes, on the session's thread, with an open channel. Results and exceptions are those of their
/// operations. Descriptors, streams and files remain the caller's.
class BRANTLE_API FileTransfer {
public:
    FileTransfer() = default;
    FileTransfer(FileTransfer const&) = delete;
    FileTransfer& operator=(FileTransfer const&) = delete;
    virtual ~FileTransfer();

    /// In place of SftpClientSession::Receive and Send, with names as they go to the server or to open(2).
    /// Returns 0; -1 if the server refuses something, with its answer in `status`, or sends less than it has
    /// announced; a negated errno value for a local failure. Only 0 means that the copy is complete.
    virtual int Receive(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) = 0;
    virtual int Receive(SftpClient& client, SftpStatus& status, String_t const& remote,
                        String_t const& local) = 0;
    virtual int Send(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) = 0;
    /// Checks the last component of a name that the server has listed and a pattern matches. Throws
    /// SshProtocolError if it must not become the name of a local file: one that is empty, "." or "..", or
    /// contains "/" or control characters.
    virtual void CheckName(String_t const& name) = 0;

    /// A local file could not be opened: keeps the reason, a negated errno value, for the program. Returns
    /// it.
    virtual int OpenFailed(String_t const& path, int result) = 0;
    /// The session is about to throw an exception with that text.
    virtual void Failed(char const* text) = 0;
    /// A text by the server as it may be shown on a terminal.
    virtual String_t Shown(String_t const& text) = 0;
    /// Whether scp can announce a file of that name: the protocol has one line for it.
    virtual bool CanAnnounce(String_t const& name) = 0;
    /// The mode to create a local file with, for open(2), where the server has announced `mode`: never more
    /// than 0777.
    virtual unsigned int CreationMode(unsigned int mode) = 0;
    /// Sends exactly `size` bytes from the descriptor `fd`, and after them the byte by which scp says whether
    /// they are the file's. `name` is for the progress. Returns 0, or a negated errno value if the file could
    /// not be read or has become shorter (-EIO); zeros have then been sent for what it lacks.
    virtual int SendBody(OSshDataStream& out, String_t const& name, int fd, long long size) = 0;
    /// Receives exactly `size` bytes into the descriptor `fd`. Returns 0, -1 if the channel has ended before,
    /// or a negated errno value if writing failed.
    virtual int ReceiveBody(ISshDataStream& in, String_t const& name, int fd, long long size) = 0;
};

} // namespace cindral

#endif
