#ifndef BRANTLE_SFTP_SFTP_CLIENT_SESSION_H
#define BRANTLE_SFTP_SFTP_CLIENT_SESSION_H

#include <brantle/channel/ssh_data_stream.h>
#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/sftp/dir_entry.h>
#include <brantle/sftp/sftp_client.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_file_handle.h>
#include <brantle/sftp/sftp_status.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>
#include <generic/tset>

namespace cindral {

/// Works on the files of a server over SFTP, version 3 (draft-ietf-secsh-filexfer-02), without running the
/// event loop. Connect, exchange keys and authenticate, then call Start; after that any operation may be
/// used.
///
/// The session has a local and a remote current directory. Relative names are resolved against them, and the
/// names sent to the server are absolute. Patterns have the wildcards "*", "?" and "[...]", each of which
/// matches a leading dot as well.
///
/// There are two kinds of failure, as in SftpClient. A refusal by the server is reported in the caller's
/// SftpStatus, with the server's message, and as a negative result: the negated code unless stated otherwise.
/// A protocol violation throws an SshProtocolError, after which the session can only be destroyed. A local
/// failure is reported as a negated errno value and leaves the SftpStatus unchanged: use a new SftpStatus for
/// each operation, so that a code of 0 in it means that the server has not refused anything.
///
/// One thread at a time may use it.
class BRANTLE_API SftpClientSession : public SshSession {
public:
    /// The target is given as for SshSession.
    SftpClientSession(unsigned short port, String_t const& host);
    explicit SftpClientSession(String_t const& host);
    ~SftpClientSession() override;

    /// Opens the channel, starts the subsystem "sftp" on it and requests the remote home directory, which
    /// becomes the remote current directory; the process's working directory becomes the local one. Returns
    /// 0; -1 if the session is not authenticated; a negated code if the server does not report its directory;
    /// and, unlike all other operations, a positive number if it refuses the channel. A refused subsystem is
    /// reported as a protocol violation.
    int Start();

    /// Makes a name absolute by prefixing the current directory, and then removes "." and "..". An absolute
    /// name is returned unchanged, as is any name while the remote current directory is empty, which it is
    /// before Start.
    Pathname RemotePathname(Pathname path);
    Pathname LocalPathname(Pathname path);

    /// Changes the remote current directory; an empty path means the home directory. The server resolves the
    /// path, and may not check that it is a directory.
    int Cd(SftpStatus& status, String_t const& path);
    /// Changes the local current directory, without checking that it exists; an empty path means the home
    /// directory. Returns 0. The working directory of the process does not change.
    int LCd(String_t const& path);

    int Mkdir(SftpStatus& status, String_t const& path, unsigned int mode);
    int Rmdir(SftpStatus& status, String_t const& path);
    int Rename(SftpStatus& status, String_t const& from, String_t const& to);
    /// Creates a symbolic link. Both names are made absolute and sent in this order; servers differ on which
    /// is the link: OpenSSH's takes the first one as the target.
    int Symlink(SftpStatus& status, String_t const& first, String_t const& second);
    int Readlink(SftpStatus& status, String_t const& path, String_t& result);
    /// Reads the attributes of a file. For a symbolic link, Stat reads those of its target, Lstat its own.
    int Stat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    int Lstat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    int Fstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs);

    // The next four also accept a pattern: the operation is applied to all files that match, and the result
    // is 0 or that of the last failure. If nothing matches it is -1, and the status is unchanged.
    int Remove(SftpStatus& status, String_t const& path);
    int Chmod(SftpStatus& status, String_t const& path, unsigned int mode);
    /// Reads the attributes and writes all of them back with one ID replaced. With a pattern they are written
    /// even if they could not be read, and a success may hide an earlier failure.
    int Chown(SftpStatus& status, String_t const& path, unsigned int uid);
    int Chgrp(SftpStatus& status, String_t const& path, unsigned int gid);

    int Fchmod(SftpStatus& status, SftpFileHandle const& handle, unsigned int mode);
    /// Like Chown and Chgrp for a single file.
    int Fchown(SftpStatus& status, SftpFileHandle const& handle, unsigned int uid);
    int Fchgrp(SftpStatus& status, SftpFileHandle const& handle, unsigned int gid);

    /// Adds the entries of a directory to a set or, if `path` is a pattern, the files that match it, with
    /// their full names. Returns their number. "." and ".." are never included; other names in a directory
    /// that begin with a dot are included if `all` is not 0. A directory that can't be read is not reported
    /// in the status. Names and long names are stored as the server sent them, control characters included.
    int ListDir(SftpStatus& status, TSet<DirEntry, DirEntry::Compare>& entries, String_t const& path,
                int all);

    /// Whether a name is a pattern, that is, contains one of "*?[".
    static bool IsWildcardPath(String_t const& path);
    /// Finds the files that match a pattern, in the server's order, and replaces the contents of `names` with
    /// them; but if the pattern is itself the name of a directory, that is appended to `names`. A relative
    /// pattern is resolved by the server. Returns the number of elements that `names` then has. The status is
    /// never written.
    int Glob(SftpStatus& status, TOList<String_t>& names, Pathname path);
    /// Finds the files that match the pattern `rest` below the pattern `path`, or `path` itself if `rest` is
    /// empty. A component counts as having wildcards if it can't be opened as a directory. Returns the number
    /// of names; if `path` can't be opened and `rest` is not empty, the number of matches of `path`.
    int GlobRec(SftpStatus& status, TOList<String_t>& names, Pathname const& path, String_t const& rest);
    /// Appends the remaining entries of a directory that match `pattern`, or all if that is empty, with `dir`
    /// as a prefix. Returns the number of names.
    int ReadDir(SftpClient::DirReader& reader, String_t const& pattern, TOList<String_t>& names,
                String_t const& dir);

    // Transfer of whole files. The permissions are the only attribute copied. Results are 0; -1 if the server
    // has refused something, with the reason in the status; or the negated errno value of a local call. A
    // file that could not be copied completely is not removed.

    /// Copies a remote file to a descriptor, starting at its current offset. Before anything is written, its
    /// permissions are set to those that the server reports, regardless of the umask and including the
    /// set-user-ID bit. A program that doesn't trust the server has to change the mode afterwards. Each block
    /// is passed to one write(2); what that does not write is lost, which only the size of the result shows.
    /// The name is sent unchanged.
    int Receive(SftpStatus& status, String_t const& remote, int fd);
    /// Copies to a local file, which is created or truncated first. Both names are used unchanged.
    int Receive(SftpStatus& status, String_t const& remote, String_t const& local);
    /// Copies from a descriptor to a remote file, which is created or truncated first. A block that the
    /// server refuses is omitted; only the last reply determines the result, so only the size is a reliable
    /// check.
    int Send(SftpStatus& status, String_t const& remote, int fd);
    /// Copies from a local file. Note the order of arguments: the source comes first here.
    int Send(SftpStatus& status, String_t const& local, String_t const& remote);
    /// Copies a remote file to standard output, descriptor 1, whose permissions are changed as well: a
    /// terminal may become unreadable for its user, or writable for others. The contents of the file are
    /// written to it unchanged.
    int Cat(SftpStatus& status, String_t const& path);

    /// Receive and Send with names resolved against the current directories.
    int Get(SftpStatus& status, String_t const& remote, String_t const& local);
    int Put(SftpStatus& status, String_t const& local, String_t const& remote);
    /// The same, but the source is removed once it has been copied. In MoveToRemote a relative local name is
    /// opened in the process's working directory, yet removed in the session's.
    int MoveToLocal(SftpStatus& status, String_t const& remote, String_t const& local);
    int MoveToRemote(SftpStatus& status, String_t const& local, String_t const& remote);

    // Copies of many files into one directory, each under its last component. They stop at the first failure
    // and return its result; otherwise they return the number of files. A remote name therefore can't reach
    // outside the local directory, but it may be the name of any file there, such as ".bashrc" in a home
    // directory, which is overwritten. A name without a last component is refused with -EISDIR.
    int Get(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);
    int Put(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);
    int MoveToLocal(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);
    int MoveToRemote(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);

    // The same for files that match a pattern: a remote one as in Glob, a local one as in Pathname::Glob,
    // whose negative result is returned. 0 if nothing matches. The names that match a remote pattern come
    // from the server, which may return "foo/.bashrc" for "foo*": receive into a separate directory, or check
    // the names that Glob finds and pass that list to Get.
    int MGet(SftpStatus& status, String_t const& pattern, String_t const& dir);
    int MPut(SftpStatus& status, String_t const& pattern, String_t const& dir);
    int MMoveToLocal(SftpStatus& status, String_t const& pattern, String_t const& dir);
    int MMoveToRemote(SftpStatus& status, String_t const& pattern, String_t const& dir);

    /// The protocol client, for individual requests. These take absolute names, or open files and
    /// directories.
    SftpClient& Client() { return _client; }
    Pathname const& RemoteDir() const { return _remoteDir; }
    Pathname const& LocalDir() const { return _localDir; }

protected:
    OSshDataStream _output;
    ISshDataStream _input;
    SftpClient _client;
    Pathname _remoteDir;
    Pathname _remoteHome;
    Pathname _localDir;
    Pathname _localHome;

private:
    using OwnerField = unsigned int SftpFileAttr::*;

    template <class Operation>
    int ForEachMatch(SftpStatus& status, String_t const& path, Operation const& operation);
    int ChangeOwner(SftpStatus& status, String_t const& path, OwnerField field, unsigned int value);
    int ChangeOwner(SftpStatus& status, SftpFileHandle const& handle, OwnerField field, unsigned int value);
    int ReceiveBlocks(SftpStatus& status, SftpFileHandle const& handle, int fd);
    int SendBlocks(SftpStatus& status, SftpFileHandle const& handle, int fd);
    int ReceiveInto(SftpStatus& status, String_t const& remote, Pathname const& dir);
    int SendInto(SftpStatus& status, String_t const& local, Pathname const& dir);
};

} // namespace cindral

#endif
