#include <unistd.h>

#include "sandbox.h"
#include "sftp_scripts.h"

using namespace cindral;

namespace fuzz {

namespace {

Pathname In(String_t const& directory, char const* name) { return Pathname(directory).Append(name); }

/// Each request separately.
void Requests(SftpClientSession& session, SftpPlaces const& places) {
    SftpClient& client = session.Client();
    SftpStatus status;
    SftpFileAttr attrs;
    String_t text;
    char buffer[100];
    Pathname const file = In(places.remote, "file");
    Pathname const link = In(places.remote, "link");
    Pathname const other = In(places.remote, "other");

    client.Mkdir(status, In(places.remote, "directory"), SftpFileAttr::Default(0755));
    SftpFileHandle handle = client.Open(status, file, SftpClient::SSH_FXF_WRITE | SftpClient::SSH_FXF_CREAT,
                                        SftpFileAttr::Default(0640));
    client.Write(status, handle, 0, "written", 7);
    client.Fstat(status, handle, attrs);
    attrs._flags &= ~SftpFileAttr::EXTENDED; // else the server waits for pairs
    client.SetFstat(status, handle, attrs);
    client.Close(status, handle);
    client.Stat(status, file, attrs);
    attrs._flags &= ~SftpFileAttr::EXTENDED;
    client.SetStat(status, file, attrs);
    client.Symlink(status, "file", link);
    client.Lstat(status, link, attrs);
    client.Readlink(status, link, text);
    client.Rename(status, file, other);
    client.Realpath(status, other, text);
    handle = client.Open(status, other, SftpClient::SSH_FXF_READ, SftpFileAttr());
    for (long long offset : {0, 7}) client.Read(status, handle, offset, buffer, sizeof(buffer));
    client.Close(status, handle);
    for (SftpClient::DirReader reader(client, places.remote); reader._state == SftpClient::DirReader::OPEN;)
        ++reader;
    client.Remove(status, other);
    client.Remove(status, link);
    client.Rmdir(status, In(places.remote, "directory"));
    client.Open(status, file, SftpClient::SSH_FXF_READ, SftpFileAttr());
    client.OpenDir(status, file);
    client.Stat(status, file, attrs);
    client.Rmdir(status, file);
}

/// Copies of files, in the current directories.
void Copies(SftpClientSession& session, SftpPlaces const& places) {
    SftpStatus status;
    session.Cd(status, places.remote);
    session.LCd(places.source);
    session.Put(status, Sandbox::FILE, "there");
    session.Chmod(status, "there", 0600);
    session.LCd(places.target);
    session.Get(status, "there", "here");
    TOList<String_t> names;
    names.Append("there");
    names.Append("missing");
    session.Get(status, names, places.target);
    session.MoveToLocal(status, "there", "moved");
    session.Cd(status, "missing");
    session.Cd(status, "");
    session.Put(status, In(places.source, Sandbox::FILE), In(places.remote, "there"));
    session.Chown(status, In(places.remote, "there"), geteuid());
    session.Chgrp(status, In(places.remote, "*"), getegid());
}

/// Directories and what is in them.
void Listings(SftpClientSession& session, SftpPlaces const& places) {
    SftpStatus status;
    TSet<DirEntry, DirEntry::Compare> entries;
    TOList<String_t> names;
    session.Cd(status, places.remote);
    session.Mkdir(status, "directory", 0755);
    session.MPut(status, In(places.source, "*"), "directory");
    session.ListDir(status, entries, ".", 1);
    session.ListDir(status, entries, In(places.remote, "d*"), 0);
    session.Glob(status, names, In(places.remote, "*/f*"));
}

/// What is done to all files that match a pattern.
void Patterns(SftpClientSession& session, SftpPlaces const& places) {
    SftpStatus status;
    session.Cd(status, places.remote);
    session.Put(status, In(places.source, Sandbox::FILE), "f1");
    session.Put(status, In(places.source, Sandbox::FILE), "f2");
    session.MGet(status, "f*", places.target);
    session.Chmod(status, "[a-z]2", 0644);
    session.Remove(status, "?1");
    session.MMoveToLocal(status, "*", places.target);
}

} // namespace

SftpScript const SFTP_SCRIPTS[SFTP_SCRIPT_COUNT] = {Requests, Copies, Listings, Patterns};

} // namespace fuzz
