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

/// Works on the files of a server over SFTP, version 3 (draft-ietf-secsh-filexfer-02), without the loop.
/// Connect, exchange keys and authenticate, then Start; after that any operation may follow.
///
/// The session has a current directory on either side. Relative names are taken against it, and what is sent
/// to the server is absolute. Patterns have the wildcards "*", "?" and "[...]", each of which matches a
/// leading dot as well.
///
/// Failures go two ways, as in SftpClient. What the server refuses is told in the caller's SftpStatus, with
/// the server's own words, and in a negative result, minus the code unless told otherwise. A broken
/// conversation is an SshProtocolError, after which the session can only be destroyed. A local failure is
/// minus the errno and leaves the SftpStatus alone: so begin each operation with a fresh one, in which a
/// code of 0 then says that the server has not refused anything.
///
/// One thread at a time may use it.
class BRANTLE_API SftpClientSession : public SshSession {
public:
    /// The target as for SshSession.
    SftpClientSession(unsigned short port, String_t const& host);
    explicit SftpClientSession(String_t const& host);
    ~SftpClientSession() override;

    /// Opens the channel, starts the subsystem "sftp" on it and asks for the remote home directory, which
    /// becomes the current one, as the process's working directory does on this side. Returns 0; -1 for a
    /// session without a login; a negated code if the server does not tell its directory; and, unlike all
    /// else, a positive number if it refuses the channel. A refused subsystem shows as a broken conversation.
    int Start();

    /// A name made absolute by the current directory, and freed of "." and ".." then. An absolute one, and
    /// any as long as the remote current directory is empty, as it is before Start, comes back as it is.
    Pathname RemotePathname(Pathname path);
    Pathname LocalPathname(Pathname path);

    /// Changes the remote current directory; an empty path leads home. The server resolves the path, and need
    /// not check that it is a directory.
    int Cd(SftpStatus& status, String_t const& path);
    /// Changes the local current directory, which is not looked at; an empty path leads home. Returns 0. The
    /// working directory of the process stays.
    int LCd(String_t const& path);

    int Mkdir(SftpStatus& status, String_t const& path, unsigned int mode);
    int Rmdir(SftpStatus& status, String_t const& path);
    int Rename(SftpStatus& status, String_t const& from, String_t const& to);
    /// Creates a symbolic link. Both names are made absolute and go out in this order; servers differ on
    /// which is the link: OpenSSH's takes the first as what it leads to.
    int Symlink(SftpStatus& status, String_t const& first, String_t const& second);
    int Readlink(SftpStatus& status, String_t const& path, String_t& result);
    /// Attributes of a file, of what a symbolic link leads to or else of the link itself.
    int Stat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    int Lstat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs);
    int Fstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs);

    // The next four take a pattern too: the operation is done to all files that match, and the result is 0 or
    // that of the last failure. If nothing matches it is -1, and the status stays.
    int Remove(SftpStatus& status, String_t const& path);
    int Chmod(SftpStatus& status, String_t const& path, unsigned int mode);
    /// The attributes are read, and all of them are written back with the one id replaced. With a pattern
    /// they are written even if they could not be read, and a success may hide the failure before it.
    int Chown(SftpStatus& status, String_t const& path, unsigned int uid);
    int Chgrp(SftpStatus& status, String_t const& path, unsigned int gid);

    int Fchmod(SftpStatus& status, SftpFileHandle const& handle, unsigned int mode);
    /// As Chown and Chgrp of a single file.
    int Fchown(SftpStatus& status, SftpFileHandle const& handle, unsigned int uid);
    int Fchgrp(SftpStatus& status, SftpFileHandle const& handle, unsigned int gid);

    /// Adds the entries of a directory to a set, or else the files that match the pattern `path`, with their
    /// whole names. Returns their number. "." and ".." never count; other names that begin with a dot count
    /// in a directory if `all` is not 0. The status says nothing of a directory that can't be read. Names and
    /// long names are the server's, control characters and all.
    int ListDir(SftpStatus& status, TSet<DirEntry, DirEntry::Compare>& entries, String_t const& path,
                int all);

    /// Whether a name is a pattern: whether one of "*?[" is in it.
    static bool IsWildcardPath(String_t const& path);
    /// Finds the files that match a pattern, in the server's order, and puts them in place of what `names`
    /// has. Only a directory that has the very name of the pattern is appended to it. A relative pattern is
    /// taken against the directory that the server does. Returns how many `names` there are then. The status
    /// is never written.
    int Glob(SftpStatus& status, TOList<String_t>& names, Pathname path);
    /// Finds the files that match the pattern `rest` below the pattern `path`, or `path` itself if `rest` is
    /// empty. A component with wildcards is one that can't be opened as a directory. Returns the number of
    /// names; that of the matches of `path` if it can't be opened and `rest` is not empty.
    int GlobRec(SftpStatus& status, TOList<String_t>& names, Pathname const& path, String_t const& rest);
    /// Appends what is left of a directory and matches `pattern`, everything if that is empty, with `dir` in
    /// front. Returns the number of names.
    int ReadDir(SftpClient::DirReader& reader, String_t const& pattern, TOList<String_t>& names,
                String_t const& dir);

    // Transfer of whole files. Of the attributes the permissions alone are copied. Results are 0; -1 if the
    // server has refused something, as the status says; else minus the errno of a local call. A file that
    // could not be copied to its end stays as far as it came.

    /// Copies a remote file to a descriptor, from where that stands. Its permissions become the ones that the
    /// server reports before anything is written, whatever the umask is, and a set-user-ID bit with them. A
    /// program that doesn't trust the server changes the mode afterwards. Each block is given to one
    /// write(2); what that does not take is left out, which shows in the size alone. The name is sent as it
    /// is.
    int Receive(SftpStatus& status, String_t const& remote, int fd);
    /// Copies to a local file, which is created, or emptied first. Neither name is changed.
    int Receive(SftpStatus& status, String_t const& remote, String_t const& local);
    /// Copies from a descriptor to a remote file, which is created, or emptied first. A block that the server
    /// refuses is left out; only the last answer counts, and so only the size tells for sure.
    int Send(SftpStatus& status, String_t const& remote, int fd);
    /// Copies from a local file. Mind the order: the source comes first here.
    int Send(SftpStatus& status, String_t const& local, String_t const& remote);
    /// Copies a remote file to standard output, descriptor 1, whose permissions change, too: a terminal may
    /// become unreadable for its user, or writable for others. What the file holds reaches it unchanged.
    int Cat(SftpStatus& status, String_t const& path);

    /// Receive and Send between the current directories.
    int Get(SftpStatus& status, String_t const& remote, String_t const& local);
    int Put(SftpStatus& status, String_t const& local, String_t const& remote);
    /// The same, and the source is removed once it has been copied. In MoveToRemote a relative local name is
    /// opened in the process's working directory, yet removed in the session's.
    int MoveToLocal(SftpStatus& status, String_t const& remote, String_t const& local);
    int MoveToRemote(SftpStatus& status, String_t const& local, String_t const& remote);

    // Copies of many files into one directory, each under its last component. They stop at the first failure
    // and return it, or else the number of files. So a remote name doesn't lead out of the local directory,
    // but it may be that of any file there, ".bashrc" in a home directory for one, which is overwritten. One
    // that has no last component is refused with minus EISDIR.
    int Get(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);
    int Put(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);
    int MoveToLocal(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);
    int MoveToRemote(SftpStatus& status, TOList<String_t> const& names, String_t const& dir);

    // The same for what matches a pattern: a remote one as in Glob, a local one as in Pathname::Glob, whose
    // negative result is returned. 0 if nothing matches. The server says what matches a remote pattern, and
    // its answer to "foo*" may be "foo/.bashrc": receive into a directory of its own, or check what Glob
    // finds and Get that list.
    int MGet(SftpStatus& status, String_t const& pattern, String_t const& dir);
    int MPut(SftpStatus& status, String_t const& pattern, String_t const& dir);
    int MMoveToLocal(SftpStatus& status, String_t const& pattern, String_t const& dir);
    int MMoveToRemote(SftpStatus& status, String_t const& pattern, String_t const& dir);

    /// For single requests, with absolute names, on open files and directories.
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
    using Id = unsigned int SftpFileAttr::*;

    template <class Operation>
    int ForEachMatch(SftpStatus& status, String_t const& path, Operation const& operation);
    int ChangeOwner(SftpStatus& status, String_t const& path, Id id, unsigned int value);
    int ChangeOwner(SftpStatus& status, SftpFileHandle const& handle, Id id, unsigned int value);
    int ReceiveBlocks(SftpStatus& status, SftpFileHandle const& handle, int fd);
    int SendBlocks(SftpStatus& status, SftpFileHandle const& handle, int fd);
    int ReceiveInto(SftpStatus& status, String_t const& remote, Pathname const& dir);
    int SendInto(SftpStatus& status, String_t const& local, Pathname const& dir);
};

} // namespace cindral

#endif
