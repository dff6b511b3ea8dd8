// Copies files to or from a remote host, over SFTP: by name, by pattern, and whole directories. On a terminal
// a line shows the progress of each copy.
//
// MGet of SftpClientSession does the same for a pattern in one call, but writes to any name in the local
// directory that the server returns, even that of a symbolic link there. Here a name that the server chooses
// is checked before anything is written under it, and no link is followed. In the reduced dialect Get also
// gives a file the mode that the server sends, and copies may be incomplete (docs/dialect.md, Hazards): there
// the blocks are copied one by one, a new file gets only the permission bits, subject to the umask, and the
// sizes are compared.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <brantle/thornel/file_descriptor.h>

#include "progress_bar.h"
#include "sftp.h"

namespace {

using cindral::DirEntry;
using cindral::SftpClient;
using cindral::SftpClientSession;
using cindral::SftpFileAttr;
using cindral::SftpFileHandle;
using cindral::SftpStatus;
using examples::DONE;
using examples::Fail;

struct CopySession : SftpClientSession {
    using SftpClientSession::SftpClientSession;

    bool isReduced = false; ///< speaks the reduced dialect
    examples::ProgressBar bar;
};

/// New files get the permission bits of the source files.
class CopyDialect : public cindral::StandardDialect {
public:
    explicit CopyDialect(CopySession& session) : StandardDialect(session), _bar(session.bar) {
        SetKeepModes(true);
    }
    void Progress(String_t const& name, unsigned long long done, unsigned long long total) override {
        _bar.Show(str_text(name.Text()), done, total);
    }

private:
    examples::ProgressBar& _bar;
};

int Failed(String_t const& file, int result, SftpStatus const& status) {
    return examples::FileFailed(examples::NOT_COPIED, file, result, status);
}

int FailedHere(String_t const& file) { return Failed(file, -errno, SftpStatus()); }

/// Calls `step` for each name, and goes on after a failure. Returns DONE, or the last failure.
template <class Step>
int ForEach(TOList<String_t> const& names, Step const& step) {
    int outcome = DONE;
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next())
        if (int const status = step(*name); status != DONE) outcome = status;
    return outcome;
}

/// In the reduced dialect a copy can succeed and yet be incomplete: a server may send less than the whole
/// file, and any block but the last that it refuses is omitted. The sizes show this.
int CompareSizes(CopySession& session, String_t const& remote, String_t const& local) {
    if (!session.isReduced) return DONE;
    SftpStatus status;
    SftpFileAttr attrs;
    if (int const result = session.Stat(status, remote, attrs); result < 0)
        return Failed(remote, result, status);
    struct stat64 file;
    if (stat64(local.Text(), &file) < 0) return FailedHere(local);
    auto const localSize = static_cast<unsigned long long>(file.st_size);
    if (!S_ISREG(file.st_mode) || attrs._size == localSize) return DONE;
    std::string const sizes = ": incomplete, " + std::to_string(attrs._size) + " bytes there and " +
                              std::to_string(localSize) + " here";
    return Fail(examples::NOT_COPIED, examples::Printable(remote) += sizes.c_str());
}

Pathname Under(Pathname dir, String_t const& name) { return dir.Append(name.Text()); }

Pathname PlaceIn(String_t const& dir, Pathname const& file) { return Under(dir, file.Leaf(nullptr)); }

// --- from the server

/// Whether a name that the server chose is that of a file in a directory, and safe to print.
bool IsPlainName(String_t const& name) {
    std::string_view const text = str_text(name.Text());
    return text != "" && text != "." && text != ".." && text.find('/') == text.npos &&
           !examples::HasControl(text);
}

bool IsHidden(String_t const& leaf) { return str_text(leaf.Text())[0] == '.'; }

int RefuseName(String_t const& name) {
    return Fail(examples::NOT_COPIED, examples::Printable(name) += ": not a plain file name");
}

int Write(int fd, char const* bytes, int count) {
    while (count > 0) {
        ssize_t const written = write(fd, bytes, static_cast<std::size_t>(count));
        if (written < 0 && errno != EINTR) return -1;
        bytes += std::max<ssize_t>(written, 0);
        count -= static_cast<int>(std::max<ssize_t>(written, 0));
    }
    return 0;
}

/// Like GetFile, in the reduced dialect.
int GetBlocks(CopySession& session, String_t const& remote, Pathname const& local, int flags) {
    SftpStatus status;
    SftpClient& client = session.Client();
    SftpFileHandle const handle =
        client.Open(status, session.RemotePathname(remote), SftpClient::SSH_FXF_READ, SftpFileAttr());
    if (handle._bytes.Length() == 0) return Failed(remote, -EBADMSG, status);
    SftpClient::FileControl const closes(client, handle);
    SftpFileAttr attrs;
    client.Fstat(status, handle, attrs);
    if (status._code != SftpStatus::FX_OK) return Failed(remote, 0, status);
    bool const hasMode = attrs._flags & SftpFileAttr::PERMISSIONS;
    FileDescriptor const fd(open64(local.Text(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | flags,
                                   hasMode ? attrs._permissions & 0777 : 0666));
    if (fd < 0) return FailedHere(local);
    char block[32562];
    long long offset = 0;
    for (;;) {
        int const count = client.Read(status, handle, offset, block, sizeof block);
        if (status._code != SftpStatus::FX_OK) return Failed(remote, count, status);
        if (count <= 0) return CompareSizes(session, remote, local);
        if (Write(fd, block, count) < 0) return FailedHere(local);
        offset += count;
    }
}

/// Copies a remote file to a local one. `flags` are O_NOFOLLOW or 0.
int GetFile(CopySession& session, String_t const& remote, Pathname const& local, int flags) {
    if (session.isReduced) return GetBlocks(session, remote, local, flags);
    struct stat64 file;
    if (flags == O_NOFOLLOW && lstat64(local.Text(), &file) == 0 && S_ISLNK(file.st_mode)) {
        errno = ELOOP;
        return FailedHere(local);
    }
    SftpStatus status;
    int const result = session.Receive(status, session.RemotePathname(remote), local);
    session.bar.End();
    if (result >= 0) return DONE;
    return Failed(status._code == SftpStatus::FX_OK ? local : remote, result, status);
}

/// Copies to a name that the user gave, which may be a symbolic link.
int GetNamed(CopySession& session, String_t const& remote, String_t const& dir) {
    return GetFile(session, remote, PlaceIn(dir, remote), 0);
}

/// Copies to a name that the server chose. A symbolic link of that name is not followed.
int GetChosen(CopySession& session, String_t const& remote, Pathname const& local) {
    return GetFile(session, remote, local, O_NOFOLLOW);
}

std::ptrdiff_t Depth(String_t const& path) {
    std::string_view const text = str_text(path.Text());
    return std::count(text.begin(), text.end(), '/');
}

/// A wildcard of Glob matches "/" as well: the server may answer "photos*" with "photos/../.profile". It also
/// matches a leading "."; here, as in a shell, only a pattern that begins with one does.
int GetMatching(CopySession& session, String_t const& given, String_t const& dir) {
    Pathname const pattern = session.RemotePathname(given).Collapse();
    SftpStatus status;
    TOList<String_t> names;
    if (session.Glob(status, names, pattern) < 1)
        return Fail(examples::NOT_COPIED, String_t(given) += ": nothing matches");
    bool const wantsHidden = IsHidden(pattern.Leaf(nullptr));
    return ForEach(names, [&](String_t const& name) -> int {
        String_t const leaf = Pathname(name).Leaf(nullptr);
        if (Depth(name) != Depth(pattern) || !IsPlainName(leaf)) return RefuseName(name);
        if (IsHidden(leaf) && !wantsHidden) return DONE;
        return GetChosen(session, name, Under(dir, leaf));
    });
}

/// Creates a directory unless it exists. A symbolic link to one is refused, as it leads elsewhere.
bool MakeDirectory(Pathname const& dir) {
    struct stat64 file;
    if (mkdir(dir.Text(), 0777) == 0) return true;
    if (errno != EEXIST || lstat64(dir.Text(), &file) < 0) return false;
    errno = ENOTDIR;
    return S_ISDIR(file.st_mode);
}

/// Copies the contents of a remote directory into a local one, which is created.
int GetDirectory(CopySession& session, Pathname const& remote, Pathname const& local) {
    if (!MakeDirectory(local)) return FailedHere(local);
    SftpStatus status;
    TSet<DirEntry, DirEntry::Compare> entries;
    session.ListDir(status, entries, remote, 1);
    int outcome = DONE;
    TSet<DirEntry, DirEntry::Compare>::Iterator next(entries, 0);
    while (DirEntry const* const entry = next()) {
        int result = DONE;
        if (!IsPlainName(entry->_name))
            result = RefuseName(entry->_name);
        else if (S_ISDIR(entry->_status.st_mode))
            result = GetDirectory(session, Under(remote, entry->_name), Under(local, entry->_name));
        else if (S_ISREG(entry->_status.st_mode))
            result = GetChosen(session, Under(remote, entry->_name), Under(local, entry->_name));
        else
            std::cerr << examples::Printable(entry->_name) << ": skipped, not a file or directory"
                      << std::endl;
        if (result != DONE) outcome = result;
    }
    return outcome;
}

/// The local directory for a remote one: its last component, as the user gave it. What "." and ".." are
/// called is up to the server, so their contents go into the local directory itself.
Pathname PlaceOfTree(String_t const& dir, Pathname const& remote) {
    String_t const leaf = remote.Leaf(nullptr);
    return leaf == "" || leaf == "." || leaf == ".." ? Pathname(dir) : Under(dir, leaf);
}

int GetAll(CopySession& session, String_t const& remote, String_t const& dir) {
    SftpStatus status;
    SftpFileAttr attrs;
    if (int const result = session.Stat(status, remote, attrs); result < 0)
        return Failed(remote, result, status);
    if (!S_ISDIR(attrs._permissions)) return GetNamed(session, remote, dir);
    return GetDirectory(session, session.RemotePathname(remote).Collapse(), PlaceOfTree(dir, remote));
}

int Get(CopySession& session, bool recursive, String_t const& remote, String_t const& dir) {
    if (recursive) return GetAll(session, remote, dir);
    if (SftpClientSession::IsWildcardPath(remote)) return GetMatching(session, remote, dir);
    return GetNamed(session, remote, dir);
}

// --- to the server

/// Copies a list of files into a remote directory, up to the first that can't be copied. `what` names them
/// all in a report.
int PutFiles(CopySession& session, String_t const& what, TOList<String_t> const& names, String_t const& dir) {
    SftpStatus status;
    int const count = session.Put(status, names, dir);
    session.bar.End();
    if (count < 0) return Failed(what, count, status);
    return ForEach(names,
                   [&](String_t const& name) { return CompareSizes(session, PlaceIn(dir, name), name); });
}

int PutMatching(CopySession& session, String_t const& pattern, String_t const& dir) {
    SftpStatus status;
    int const count = session.MPut(status, pattern, dir);
    session.bar.End();
    if (count < 0) return Failed(pattern, count, status);
    if (count == 0) return Fail(examples::NOT_COPIED, String_t(pattern) += ": nothing matches");
    TOList<String_t> names;
    Pathname::Glob(pattern, 0, names);
    return ForEach(names,
                   [&](String_t const& name) { return CompareSizes(session, PlaceIn(dir, name), name); });
}

/// Creates a remote directory unless it exists.
int MakeRemoteDirectory(CopySession& session, Pathname const& dir) {
    SftpStatus refusal;
    int const made = session.Mkdir(refusal, dir, 0777);
    if (made == 0) return DONE;
    SftpStatus status;
    SftpFileAttr attrs;
    bool const isThere = session.Stat(status, dir, attrs) == 0 && S_ISDIR(attrs._permissions);
    return isThere ? DONE : Failed(dir, made, refusal);
}

/// Copies the contents of a local directory into a remote one, which is created.
int PutDirectory(CopySession& session, Pathname const& local, Pathname const& remote) {
    if (int const status = MakeRemoteDirectory(session, remote); status != DONE) return status;
    TOList<String_t> files;
    int outcome = DONE;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(local.Text(), error), end; !error && entry != end;
         entry.increment(error)) {
        Pathname const file(entry->path().c_str());
        struct stat64 attrs;
        int result = DONE;
        if (lstat64(file.Text(), &attrs) < 0)
            result = FailedHere(file);
        else if (S_ISDIR(attrs.st_mode))
            result = PutDirectory(session, file, PlaceIn(remote, file));
        else if (S_ISREG(attrs.st_mode))
            files.Append(file);
        else
            std::cerr << file << ": skipped, not a file or directory" << std::endl;
        if (result != DONE) outcome = result;
    }
    if (error) return Failed(local, -error.value(), SftpStatus());
    int const result = PutFiles(session, local, files, remote);
    return result != DONE ? result : outcome;
}

int Put(CopySession& session, bool recursive, String_t const& file, String_t const& dir) {
    struct stat64 attrs;
    if (recursive && stat64(file.Text(), &attrs) == 0 && S_ISDIR(attrs.st_mode))
        return PutDirectory(session, file, PlaceIn(dir, file));
    if (SftpClientSession::IsWildcardPath(file)) return PutMatching(session, file, dir);
    TOList<String_t> names;
    names.Append(file);
    return PutFiles(session, file, names, dir);
}

} // namespace

int main(int, char** argv) {
    char const usage[] = "usage: sftp_copy [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] put [-r] "
                         "FILE_OR_PATTERN... REMOTE_DIRECTORY\n"
                         "       sftp_copy [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] get [-r] "
                         "REMOTE_FILE_OR_PATTERN... DIRECTORY";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != DONE) return status;
    char** words = arguments._rest;
    String_t const direction(*words);
    if (direction != "put" && direction != "get") return Fail(examples::USAGE, usage);
    ++words;
    bool const recursive = *words && std::strcmp(*words, "-r") == 0;
    if (recursive) ++words;
    if (!words[0] || !words[1]) return Fail(examples::USAGE, usage);
    TOList<String_t> names;
    for (; words[1]; ++words) names.Append(*words);
    String_t const dir(*words);
    auto const copy = [&](CopySession& session, CopyDialect const* dialect) {
        session.isReduced = !dialect;
        return ForEach(names, [&](String_t const& name) {
            return direction == "put" ? Put(session, recursive, name, dir)
                                      : Get(session, recursive, name, dir);
        });
    };
    return examples::WorkOnFiles<CopySession, CopyDialect>(arguments, copy);
}
