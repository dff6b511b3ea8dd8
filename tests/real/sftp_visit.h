#ifndef BRANTLE_TESTS_REAL_SFTP_VISIT_H
#define BRANTLE_TESTS_REAL_SFTP_VISIT_H

#include <sys/stat.h>

#include <string>
#include <vector>

#include <brantle/brantle.h>

#include "real/sftp_cases.h"

/// A session that is logged in and started, with a directory on either side that is its current one.
class Visit : public cindral::SftpClientSession {
public:
    explicit Visit(SftpPeer const& peer);

    /// The path of a file on the server's side, and on this one.
    std::string There(std::string const& name) const { return _there / name; }
    std::string Here(std::string const& name) const { return _here / name; }

    /// Makes a file of the server's account, and one on this side.
    void MakeThere(std::string const& name, std::string const& content = {}, mode_t mode = 0644) const;
    void MakeHere(std::string const& name, std::string const& content = {}, mode_t mode = 0644) const;
    void MakeDirectoryThere(std::string const& name) const;
    /// Makes a symbolic link of the server's account.
    void MakeLinkThere(std::string const& target, std::string const& name) const;

    cindral::SftpFileHandle OpenThere(std::string const& name, unsigned int flags);

    cindral::SftpStatus status;

private:
    void GiveToAccount(std::string const& path) const;

    SftpPeer const& _peer;
    servers::TemporaryDirectory _there;
    servers::TemporaryDirectory _here;
};

/// The result of lstat(2); throws std::system_error if that fails.
struct stat OnDisk(std::string const& path);
/// The permissions of a file.
mode_t ModeOf(std::string const& path);
/// Whether there is a file, which may be a dangling link.
bool Exists(std::string const& path);

std::vector<std::string> Texts(TOList<String_t> const& names);
TOList<String_t> Names(std::vector<std::string> const& texts);

#endif
