#ifndef BRANTLE_SESSION_FILE_TRANSFER_H
#define BRANTLE_SESSION_FILE_TRANSFER_H

#include <brantle/export.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

class ISshDataStream;
class OSshDataStream;
class SftpClient;
class SftpStatus;

/// What a dialect does of the work of SftpClientSession and ScpSession; see SessionDialect. Results are as in
/// the operations of those classes that call it.
class BRANTLE_API FileTransfer {
public:
    FileTransfer() = default;
    FileTransfer(FileTransfer const&) = delete;
    FileTransfer& operator=(FileTransfer const&) = delete;
    virtual ~FileTransfer();

    /// In place of SftpClientSession::Receive and Send.
    virtual int Receive(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) = 0;
    virtual int Receive(SftpClient& client, SftpStatus& status, String_t const& remote,
                        String_t const& local) = 0;
    virtual int Send(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) = 0;
    /// Checks a name in a directory of the server that a pattern matches. Throws SshProtocolError for one
    /// that must not become the name of a local file.
    virtual void CheckName(String_t const& name) = 0;

    /// Whether scp can announce a file of that name in one line.
    virtual bool CanAnnounce(String_t const& name) = 0;
    /// The mode to create a local file with, of which the server says `mode`.
    virtual unsigned int CreationMode(unsigned int mode) = 0;
    /// Sends exactly `size` bytes of a file, and scp's status octet, which says whether they are the file's.
    /// Returns 0 or minus errno.
    virtual int SendBody(OSshDataStream& out, String_t const& name, int fd, long long size) = 0;
    /// Receives exactly `size` bytes into a file. Returns 0, or -1 if the channel has ended before.
    virtual int ReceiveBody(ISshDataStream& in, String_t const& name, int fd, long long size) = 0;
};

} // namespace cindral

#endif
