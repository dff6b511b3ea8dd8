#ifndef BRANTLE_TESTS_SUPPORT_TEMPORARY_DIRECTORY_H
#define BRANTLE_TESTS_SUPPORT_TEMPORARY_DIRECTORY_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace support {

/// A directory that only this process uses, removed with everything in it when the object is destroyed.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "brantle-XXXXXX").string();
        if (!mkdtemp(name.data())) throw std::system_error(errno, std::generic_category(), name);
        _path = name;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    std::filesystem::path const& Path() const { return _path; }
    std::string operator/(std::string const& name) const { return (_path / name).string(); }

private:
    std::filesystem::path _path;
};

} // namespace support

#endif
