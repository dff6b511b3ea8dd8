#ifndef BRANTLE_SFTP_SFTP_CLIENT_H
#define BRANTLE_SFTP_SFTP_CLIENT_H

#include <brantle/channel/ssh_data_stream.h>
#include <brantle/export.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_file_handle.h>
#include <brantle/sftp/sftp_name.h>
#include <brantle/sftp/sftp_packet.h>
#include <brantle/sftp/sftp_status.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

/// The client's side of SFTP, version 3 (draft-ietf-secsh-filexfer-02): one operation for each request, which
/// sends it and waits for its reply. Call Start first, then the others in any order.
///
/// Paths are sent unchanged; the server resolves relative ones.
///
/// There are two kinds of failure. A refusal by the server is reported in the caller's SftpStatus, which a
/// status reply overwrites and any other reply leaves unchanged, and in the result: most operations return 0
/// or the negated status code. A protocol violation throws an SshProtocolError: "error reading sftp
/// response", "invalid request id", "invalid sftp response received" with the type of the reply, or the error
/// text of a message that can't be decoded. No request can be made after that. Exceptions of the streams are
/// passed on.
///
/// The caller owns the streams, which must outlive the client. One thread at a time may use it.
class BRANTLE_API SftpClient {
public:
    // How a file is opened (section 6.3).
    static constexpr unsigned int SSH_FXF_READ = 0x01;
    static constexpr unsigned int SSH_FXF_WRITE = 0x02;
    static constexpr unsigned int SSH_FXF_APPEND = 0x04;
    static constexpr unsigned int SSH_FXF_CREAT = 0x08;
    static constexpr unsigned int SSH_FXF_TRUNC = 0x10;
    static constexpr unsigned int SSH_FXF_EXCL = 0x20;

    /// The version that Start announces.
    static constexpr unsigned int VERSION = 3;
    /// Maximum number of bytes that one Write sends.
    static constexpr unsigned int MAX_WRITE = 32786;

    class DirReader;
    class FileControl;

    /// The streams are those of a channel on which the `sftp` subsystem runs by the time of Start.
    SftpClient(OSshDataStream& out, ISshDataStream& in);
    /// Sends nothing: open files and directories stay open.
    ~SftpClient();

    /// Starts the protocol. Returns the server's version, whatever it is; version 3 is used regardless.
    int Start();

    /// Reads the reply to the request with that id. Returns the payload of a message, at least 5 bytes.
    ByteString ReadResponse(unsigned int id);

    /// Opens a file. `pflags` are bits of SSH_FXF_*, `attrs` those of a file that is created. Returns the
    /// handle, to be closed with Close; an empty one if the server refused.
    SftpFileHandle Open(SftpStatus& status, String_t const& path, unsigned int pflags,
                        SftpFileAttr const& attrs);
    /// Opens a directory for ReadDir; as Open.
    SftpFileHandle OpenDir(SftpStatus& status, String_t const& path);
    /// Closes a file or directory; the result is only in `status`.
    void Close(SftpStatus& status, SftpFileHandle const& handle);

    /// Reads up to `length` bytes from `offset` into `buffer`. Returns their number, 0 at the end of the
    /// file, which is not a failure: the status code is then 0. If more bytes arrive than were requested,
    /// they are discarded and the result is -5, with the status code 5.
    int Read(SftpStatus& status, SftpFileHandle const& handle, long long offset, char* buffer,
             unsigned int length);
    /// Writes at most the first MAX_WRITE of `length` bytes at `offset`. Returns how many that is.
    int Write(SftpStatus& status, SftpFileHandle const& handle, long long offset, char const* data,
              unsigned int length);

    /// Appends the next entries of a directory to `names`. Returns their number; -1 on a status reply, which
    /// has the code 1 at the end of the directory.
    int ReadDir(SftpStatus& status, SftpFileHandle const& handle, TOList<SftpName>& names);

    /// Creates a directory with these attributes.
    int Mkdir(SftpStatus& status, String_t const& path, SftpFileAttr const& attrs);
    /// Removes a directory, which has to be empty.
    int Rmdir(SftpStatus& status, String_t const& path);
    /// Removes a file.
    int Remove(SftpStatus& status, String_t const& path);

    /// Attributes of a file: of a symbolic link itself, or of its target. Fields of `attrs` that the server
    /// does not send are unchanged; the flags say which ones it has sent.
    int Lstat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    int Stat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    /// Either of them: `type` is FXP_LSTAT or FXP_STAT.
    int StatCore(int type, SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    /// The same of an open file.
    int Fstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs);
    /// Sets the attributes that are present, of a file by path or of an open file.
    int SetStat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    int SetFstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs);

    /// Renames a file or directory; the server decides what happens if the new name exists.
    int Rename(SftpStatus& status, String_t const& oldPath, String_t const& newPath);
    /// Creates a symbolic link. The paths are sent in this order; servers differ on which is the link.
    int Symlink(SftpStatus& status, String_t const& firstPath, String_t const& secondPath);
    /// The target of a symbolic link. If the reply does not contain exactly one name, returns -5 and leaves
    /// `result` and `status` unchanged.
    int Readlink(SftpStatus& status, String_t const& path, String_t& result);
    /// The absolute form of a path; as Readlink.
    int Realpath(SftpStatus& status, String_t const& path, String_t& result);

    OSshDataStream& _out;
    ISshDataStream& _in;
    unsigned int _nextId; ///< of the next request; wraps around

private:
    void Send(SftpPacket& request);
    ByteString Exchange(SftpPacket& request);
    SftpFileHandle ExchangeForHandle(SftpStatus& status, SftpPacket& request);
    int ExchangeForStatus(SftpStatus& status, SftpPacket& request);
    int ExchangeForAttrs(SftpStatus& status, SftpPacket& request, SftpFileAttr& attrs);
    int ExchangeForPath(SftpStatus& status, SftpPacket& request, String_t& path);
};

/// Walks over a remote directory:
///
///     for (DirReader reader(client, path); reader._state == DirReader::OPEN; ++reader) ...
///
/// The members contain the current entry, the state and the status. If the path could not be opened, OPEN is
/// not set in the state; the end of the listing, or a failure during it, adds FINISHED, and at the end the
/// status code is 1.
class BRANTLE_API SftpClient::DirReader {
public:
    static constexpr unsigned int OPEN = 1;
    static constexpr unsigned int FINISHED = 2;

    /// Opens the directory.
    DirReader(SftpClient& client, String_t const& path);
    /// Closes it; a failure is ignored.
    ~DirReader();
    DirReader(DirReader const&) = delete;
    DirReader& operator=(DirReader const&) = delete;

    /// Opens a directory and goes to its first entry. Returns 0, or -1 if there is none. If the status
    /// already contains a code from before, that counts as a failure to open.
    int Open(String_t const& path);
    /// Goes to the next entry. At the end, the last one is kept.
    DirReader& operator++();
    /// Closes the directory if it is open. After an exception it still counts as open.
    void Close();

    SftpClient& _client;
    SftpFileHandle _handle;
    TOList<SftpName> _names; ///< received but not visited yet
    String_t _filename;      ///< this and the next two as in SftpName
    String_t _longname;
    SftpFileAttr _attrs;
    SftpStatus _status; ///< of the last status reply
    unsigned int _state;

private:
    bool Receive();
    void Take();
};

/// Closes a handle at the end of a scope, even an empty one. The result is ignored.
class BRANTLE_API SftpClient::FileControl {
public:
    /// The client must outlive the scope.
    FileControl(SftpClient& client, SftpFileHandle const& handle);
    ~FileControl();
    FileControl(FileControl const&) = delete;
    FileControl& operator=(FileControl const&) = delete;

    SftpClient& _client;
    SftpFileHandle _handle;
};

/// An empty base class for classes that offer SFTP operations to programs.
class BRANTLE_API SftpInterface {
public:
    SftpInterface();
    virtual ~SftpInterface() = 0;
};

} // namespace cindral

#endif
