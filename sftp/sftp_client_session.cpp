#include <brantle/sftp/sftp_client_session.h>

#include <brantle/thornel/text.h>

namespace cindral {

namespace {

Pathname Resolve(Pathname path, Pathname const& dir) { return path.Insert(dir.Text()).Collapse(); }

void Replace(SftpFileAttr& attrs, unsigned int SftpFileAttr::* field, unsigned int value) {
    attrs._flags |= SftpFileAttr::UIDGID;
    attrs.*field = value;
}

} // namespace

SftpClientSession::SftpClientSession(unsigned short port, String_t const& host)
    : SshSession(CLIENT, port, host), _output(_out, 0, _windowSize), _input(_in, _out, 0, _windowSize),
      _client(_output, _input) {}

SftpClientSession::SftpClientSession(String_t const& host)
    : SshSession(CLIENT, host), _output(_out, 0, _windowSize), _input(_in, _out, 0, _windowSize),
      _client(_output, _input) {}

SftpClientSession::~SftpClientSession() = default;

int SftpClientSession::Start() {
    if (!_authenticated) return -1;
    if (int const result = Open(); result < 0) return -result;
    StartSubsystem("sftp", true);
    if (int const result = _client.Start(); result < 0) return result;
    SftpStatus status;
    if (int const result = _client.Realpath(status, ".", _remoteHome); result < 0) return result;
    _remoteDir = _remoteHome;
    _localDir = _localHome = Pathname::Cwd();
    return 0;
}

Pathname SftpClientSession::RemotePathname(Pathname path) {
    return path.IsAbs() || str_empty(_remoteDir.Text()) ? path : Resolve(path, _remoteDir);
}

// Deliberate: a local name is resolved only if the remote directory is known (pinned by
// SftpSessionDirectories.LocalNameIsResolvedIfTheRemoteDirectoryIsKnown). With a dialect the server has no
// say.
Pathname SftpClientSession::LocalPathname(Pathname path) {
    bool const isKept = !_dialect && str_empty(_remoteDir.Text());
    return path.IsAbs() || isKept ? path : Resolve(path, _localDir);
}

int SftpClientSession::Cd(SftpStatus& status, String_t const& path) {
    if (str_empty(path.Text())) {
        _remoteDir = _remoteHome;
        return 0;
    }
    Pathname dir;
    if (int const result = _client.Realpath(status, RemotePathname(path), dir); result < 0) return result;
    _remoteDir = dir;
    return 0;
}

int SftpClientSession::LCd(String_t const& path) {
    _localDir = str_empty(path.Text()) ? _localHome : LocalPathname(path).Abs();
    return 0;
}

int SftpClientSession::Mkdir(SftpStatus& status, String_t const& path, unsigned int mode) {
    return _client.Mkdir(status, RemotePathname(path), SftpFileAttr::Default(mode));
}

int SftpClientSession::Rmdir(SftpStatus& status, String_t const& path) {
    return _client.Rmdir(status, RemotePathname(path));
}

int SftpClientSession::Rename(SftpStatus& status, String_t const& from, String_t const& to) {
    return _client.Rename(status, RemotePathname(from), RemotePathname(to));
}

int SftpClientSession::Symlink(SftpStatus& status, String_t const& first, String_t const& second) {
    return _client.Symlink(status, RemotePathname(first), RemotePathname(second));
}

int SftpClientSession::Readlink(SftpStatus& status, String_t const& path, String_t& result) {
    return _client.Readlink(status, RemotePathname(path), result);
}

int SftpClientSession::Stat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs) {
    return _client.Stat(status, RemotePathname(path), attrs);
}

int SftpClientSession::Lstat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs) {
    return _client.Lstat(status, RemotePathname(path), attrs);
}

int SftpClientSession::Fstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs) {
    return _client.Fstat(status, handle, attrs);
}

template <class Operation>
int SftpClientSession::ForEachMatch(SftpStatus& status, String_t const& path, Operation const& operation) {
    TOList<String_t> names;
    if (Glob(status, names, RemotePathname(path)) < 1) return -1;
    int result = 0;
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next()) operation(*name, result);
    return result;
}

int SftpClientSession::Remove(SftpStatus& status, String_t const& path) {
    if (!IsWildcardPath(path)) return _client.Remove(status, RemotePathname(path));
    return ForEachMatch(status, path, [&](String_t const& name, int& result) {
        if (int const removed = _client.Remove(status, name); removed < 0) result = removed;
    });
}

int SftpClientSession::Chmod(SftpStatus& status, String_t const& path, unsigned int mode) {
    SftpFileAttr attrs = SftpFileAttr::Default(mode);
    if (!IsWildcardPath(path)) return _client.SetStat(status, RemotePathname(path), attrs);
    return ForEachMatch(status, path, [&](String_t const& name, int& result) {
        if (int const set = _client.SetStat(status, name, attrs); set < 0) result = set;
    });
}

int SftpClientSession::Chown(SftpStatus& status, String_t const& path, unsigned int uid) {
    return ChangeOwner(status, path, &SftpFileAttr::_uid, uid);
}

int SftpClientSession::Chgrp(SftpStatus& status, String_t const& path, unsigned int gid) {
    return ChangeOwner(status, path, &SftpFileAttr::_gid, gid);
}

int SftpClientSession::ChangeOwner(SftpStatus& status, String_t const& path, OwnerField field,
                                   unsigned int value) {
    if (!IsWildcardPath(path)) {
        Pathname const name = RemotePathname(path);
        SftpFileAttr attrs;
        if (int const result = _client.Stat(status, name, attrs); result < 0) return result;
        Replace(attrs, field, value);
        return _client.SetStat(status, name, attrs);
    }
    return ForEachMatch(status, path, [&](String_t const& name, int& result) {
        SftpFileAttr attrs;
        int const found = _client.Stat(status, name, attrs);
        Replace(attrs, field, value);
        int const set = _client.SetStat(status, name, attrs);
        // The result for this name replaces an earlier failure, even if it is a success.
        if (result < 0) result = found;
        if (set < 0) result = set;
    });
}

int SftpClientSession::Fchmod(SftpStatus& status, SftpFileHandle const& handle, unsigned int mode) {
    SftpFileAttr attrs = SftpFileAttr::Default(mode);
    return _client.SetFstat(status, handle, attrs);
}

int SftpClientSession::Fchown(SftpStatus& status, SftpFileHandle const& handle, unsigned int uid) {
    return ChangeOwner(status, handle, &SftpFileAttr::_uid, uid);
}

int SftpClientSession::Fchgrp(SftpStatus& status, SftpFileHandle const& handle, unsigned int gid) {
    return ChangeOwner(status, handle, &SftpFileAttr::_gid, gid);
}

int SftpClientSession::ChangeOwner(SftpStatus& status, SftpFileHandle const& handle, OwnerField field,
                                   unsigned int value) {
    SftpFileAttr attrs;
    if (int const result = _client.Fstat(status, handle, attrs); result < 0) return result;
    Replace(attrs, field, value);
    return _client.SetFstat(status, handle, attrs);
}

} // namespace cindral
