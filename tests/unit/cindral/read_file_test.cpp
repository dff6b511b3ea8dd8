#include <cerrno>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "foundations/cindral/read_file.h"
#include "support/temporary_directory.h"

using namespace cindral;

namespace {

class ReadKeyFile : public testing::Test {
protected:
    std::string Path() const { return _directory / "key"; }
    void Write(std::string const& text) const { std::ofstream(Path(), std::ios::binary) << text; }
    std::string Contents() const { return std::string(_contents.begin(), _contents.end()); }

    support::TemporaryDirectory _directory;
    SecretBytes _contents;
};

TEST_F(ReadKeyFile, WholeFileIsRead) {
    for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{4096}, std::size_t{10000}}) {
        std::string const text(size, 'k');
        Write(text);
        _contents.clear();
        EXPECT_EQ(ReadFile(Path().c_str(), _contents), 0);
        EXPECT_EQ(Contents(), text);
    }
}

TEST_F(ReadKeyFile, ZeroBytesAreRead) {
    std::string const text("a\0b\n", 4);
    Write(text);
    EXPECT_EQ(ReadFile(Path().c_str(), _contents), 0);
    EXPECT_EQ(Contents(), text);
}

TEST_F(ReadKeyFile, FailureIsTheNegatedErrno) {
    EXPECT_EQ(ReadFile(Path().c_str(), _contents), -ENOENT);
    EXPECT_EQ(ReadFile(_directory.Path().c_str(), _contents), -EISDIR);
    EXPECT_EQ(ReadFile(nullptr, _contents), -ENOENT);
}

TEST_F(ReadKeyFile, FileOfMoreThanOneMebibyteIsRefused) {
    Write(std::string(1 << 20, 'k'));
    EXPECT_EQ(ReadFile(Path().c_str(), _contents), 0);
    _contents.clear();
    Write(std::string((1 << 20) + 1, 'k'));
    EXPECT_EQ(ReadFile(Path().c_str(), _contents), -EFBIG);
}

TEST_F(ReadKeyFile, EndlessFileIsRefused) { EXPECT_EQ(ReadFile("/dev/zero", _contents), -EFBIG); }

} // namespace
