#ifndef TESTS_WIRE_LOCAL_DIRECTORY_H
#define TESTS_WIRE_LOCAL_DIRECTORY_H

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <brantle/thornel/string_t.h>

#include "support/temporary_directory.h"

/// A temporary directory and the files in it.
class LocalDirectory : public support::TemporaryDirectory {
public:
    String_t Name() const { return Path().c_str(); }
    /// The whole name of a file.
    String_t Name(std::string const& name) const { return (*this / name).c_str(); }

    void Store(std::string const& name, std::string const& text, mode_t mode = 0644) const {
        std::filesystem::path const path = *this / name;
        if (auto const parent = std::filesystem::path(name).parent_path(); !parent.empty())
            MakeDirectory(parent);
        std::ofstream(path, std::ios::binary) << text;
        if (chmod(path.c_str(), mode) != 0) throw std::runtime_error("chmod");
    }
    void MakeDirectory(std::string const& name) const {
        std::filesystem::create_directories(*this / name);
        std::filesystem::permissions(*this / name, std::filesystem::perms(0755));
    }
    /// What is in a file, and "no file" if there is none.
    std::string Stored(std::string const& name) const {
        std::ifstream file(*this / name, std::ios::binary);
        return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "no file";
    }
    bool Has(std::string const& name) const {
        return std::filesystem::symlink_status(*this / name).type() != std::filesystem::file_type::not_found;
    }
    mode_t ModeOf(std::string const& name) const {
        struct stat file{};
        if (stat((*this / name).c_str(), &file) != 0) throw std::runtime_error("stat of " + name);
        return file.st_mode & 07777;
    }
    /// All that is in the directory, at any depth: the mode in octal digits, a blank and what is in the file,
    /// under the name from here on.
    std::map<std::string, std::string> Tree() const {
        std::map<std::string, std::string> tree;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(Path())) {
            std::string const name = entry.path().lexically_relative(Path());
            std::string digits;
            for (mode_t left = ModeOf(name); left != 0; left /= 8)
                digits.insert(0, 1, static_cast<char>('0' + left % 8));
            tree[name] = digits + " " + (entry.is_directory() ? "directory" : Stored(name));
        }
        return tree;
    }
};

/// Makes a directory the working directory of the process as long as it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(std::filesystem::path const& path) : _before(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(_before, ignored);
    }
    WorkingDirectory(WorkingDirectory const&) = delete;
    WorkingDirectory& operator=(WorkingDirectory const&) = delete;

private:
    std::filesystem::path _before;
};

/// While it lives, file permissions apply to the thread, even if it runs as root.
class ObedientThread {
public:
    ObedientThread() : _before(setfsuid(geteuid() == 0 ? 65534 : geteuid())) {}
    ~ObedientThread() { setfsuid(static_cast<uid_t>(_before)); }
    ObedientThread(ObedientThread const&) = delete;
    ObedientThread& operator=(ObedientThread const&) = delete;

private:
    int _before;
};

#endif
