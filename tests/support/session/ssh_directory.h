#ifndef TESTS_SUPPORT_SESSION_SSH_DIRECTORY_H
#define TESTS_SUPPORT_SESSION_SSH_DIRECTORY_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/peer/peer_crypto.h"

/// Key files in `.ssh` of the home directory, which is removed at the end.
class SshDirectory {
public:
    SshDirectory() : _path(std::filesystem::path(std::getenv("HOME")) / ".ssh") {
        std::filesystem::create_directories(_path);
    }
    ~SshDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    SshDirectory(SshDirectory const&) = delete;
    SshDirectory& operator=(SshDirectory const&) = delete;

    std::string Path(std::string const& name) const { return _path / name; }

    /// Returns the path of the file.
    std::string Write(std::string const& name, std::string const& text) const {
        using std::filesystem::perms;
        std::ofstream(Path(name)) << text;
        std::filesystem::permissions(Path(name), perms::owner_read | perms::owner_write);
        return Path(name);
    }
    std::string WritePublic(std::string const& name, peer::KeyPair const& key) const {
        return Write(name, key.PublicLine() + "\n");
    }
    /// The private key under that name, and the public one with ".pub" after it.
    void WritePair(std::string const& name, peer::KeyPair const& key) const {
        Write(name, key.Pem());
        WritePublic(name + ".pub", key);
    }

private:
    std::filesystem::path _path;
};

#endif
