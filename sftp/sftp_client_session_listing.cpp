// SftpClientSession: directories and patterns.

#include <fnmatch.h>

#include <climits>
#include <cstring>

#include <brantle/session/file_transfer.h>
#include <brantle/session/session_dialect.h>
#include <brantle/sftp/sftp_client_session.h>
#include <brantle/thornel/text.h>

namespace cindral {

namespace {

bool IsOpen(SftpClient::DirReader const& reader) { return reader._state & SftpClient::DirReader::OPEN; }

bool HasEntry(SftpClient::DirReader const& reader) { return reader._state == SftpClient::DirReader::OPEN; }

bool IsSelfOrParent(String_t const& name) { return name == "." || name == ".."; }

bool IsHidden(String_t const& name) { return *str_text(name.Text()) == '.'; }

bool Matches(String_t const& name, String_t const& pattern) {
    return str_empty(pattern.Text()) || fnmatch(pattern.Text(), str_text(name.Text()), 0) == 0;
}

} // namespace

int SftpClientSession::ListDir(SftpStatus& status, TSet<DirEntry, DirEntry::Compare>& entries,
                               String_t const& path, int all) {
    Pathname const resolved = RemotePathname(path);
    SftpClient::DirReader reader(_client, resolved);
    if (IsOpen(reader)) {
        int count = 0;
        for (; HasEntry(reader); ++reader) {
            if (IsSelfOrParent(reader._filename) || (!all && IsHidden(reader._filename))) continue;
            entries.Insert(DirEntry(reader._filename, reader._longname, reader._attrs));
            ++count;
        }
        return count;
    }
    TOList<String_t> names;
    int const found = Glob(status, names, resolved);
    if (found < 1) return found;
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next()) {
        SftpFileAttr attrs;
        if (_client.Lstat(status, *name, attrs) == 0) entries.Insert(DirEntry(*name, String_t(), attrs));
    }
    return found;
}

bool SftpClientSession::IsWildcardPath(String_t const& path) {
    return std::strpbrk(str_text(path.Text()), "*?[") != nullptr;
}

int SftpClientSession::Glob(SftpStatus& status, TOList<String_t>& names, Pathname path) {
    if (str_empty(path.Text())) path = ".";
    bool const relative = !path.IsAbs();
    if (relative) path.Insert(".");
    int const found = GlobRec(status, names, path, String_t());
    if (relative) {
        TOListIterator<String_t> next(names);
        while (String_t* const name = next()) *name = name->SubStr(2, UINT_MAX);
    }
    return found;
}

// Goes up to a directory that can be opened, and down again. Iterative, not recursive, because the server may
// determine the depth of the path.
int SftpClientSession::GlobRec(SftpStatus&, TOList<String_t>& names, Pathname const& path,
                               String_t const& rest) {
    TOList<String_t> patterns; ///< each is applied to the directories that match the one before it
    patterns.Append(rest);
    TOList<String_t> found;
    int count = 0;
    for (Pathname dir = path; !str_empty(dir.Text()); dir = dir.Dir()) {
        SftpClient::DirReader reader(_client, dir);
        if (IsOpen(reader)) {
            if (patterns.Len() > 1) {
                count = ReadDir(reader, *patterns.First(), found, dir);
                break;
            }
            if (!str_empty(rest.Text())) return ReadDir(reader, rest, names, dir);
            names.Append(dir);
            return static_cast<int>(names.Len());
        }
        patterns.Insert(dir.Leaf(nullptr));
    }
    patterns.Pop();
    while (patterns.First()) {
        String_t const pattern = patterns.Pop();
        bool const isLast = !patterns.First();
        if (isLast && str_empty(rest.Text())) {
            names = found;
            return static_cast<int>(names.Len());
        }
        TOList<String_t> inner;
        TOListIterator<String_t> next(found);
        while (String_t const* const dir = next()) {
            SftpClient::DirReader reader(_client, *dir);
            if (IsOpen(reader)) ReadDir(reader, pattern, isLast ? names : inner, *dir);
        }
        found = inner;
    }
    return count;
}

int SftpClientSession::ReadDir(SftpClient::DirReader& reader, String_t const& pattern,
                               TOList<String_t>& names, String_t const& dir) {
    int count = 0;
    for (; HasEntry(reader); ++reader) {
        String_t const& name = reader._filename;
        if (IsSelfOrParent(name) || !Matches(name, pattern)) continue;
        if (_dialect && IsHidden(name) && !IsHidden(pattern)) continue; // as in a shell
        if (_dialect) _dialect->Transfer().CheckName(name);
        names.Append(Pathname(dir).Append(name.Text()));
        ++count;
    }
    return count;
}

} // namespace cindral
