#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/thornel/file_descriptor.h>

#include "real/sftp_cases.h"
#include "real/sftp_visit.h"
#include "support/pattern.h"

using support::Pattern;
using namespace cindral;

namespace {

struct File {
    std::string name;
    std::size_t size;
    mode_t mode;
};

/// Every size around the limits of a packet, a read and a write, and modes of all kinds.
std::vector<File> const& Files() {
    static std::vector<File> const files = [] {
        std::vector<File> all{{"0", 0, 0644},         {"1", 1, 0600},        {"8143", 8143, 0640},
                              {"8144", 8144, 0755},   {"8145", 8145, 0700},  {"32786", 32786, 0444},
                              {"32787", 32787, 0751}, {"1M", 1 << 20, 0755}, {"65124", 65124, 0604}};
        for (std::size_t size = 32543; size <= 32563; ++size)
            all.push_back({std::to_string(size), size, 0644});
        return all;
    }();
    return files;
}

void ExpectFile(std::string const& path, std::string const& content, mode_t mode) {
    ASSERT_TRUE(Exists(path)) << path;
    EXPECT_EQ(ModeOf(path), mode) << path;
    EXPECT_TRUE(servers::ReadFile(path) == content) << path;
}

void ExpectCopied(std::string const& from, std::string const& to) {
    ExpectFile(to, servers::ReadFile(from), ModeOf(from));
}

void ExpectGone(std::string const& path) { EXPECT_FALSE(Exists(path)) << path; }

/// The server has refused, with these words.
void ExpectRefused(Visit& visit, Refusal const& refusal, std::function<int()> const& call,
                   std::string const& what) {
    visit.status = SftpStatus();
    EXPECT_EQ(call(), -1) << what;
    EXPECT_EQ(visit.status._code, refusal.code) << what;
    EXPECT_STREQ(visit.status._message.Text(), refusal.words.c_str()) << what;
}

/// Descriptor 1 is a file as long as this lives.
class OutputInFile {
public:
    explicit OutputInFile(std::string const& path) : _saved(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        FileDescriptor const file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        dup2(file, STDOUT_FILENO);
    }
    ~OutputInFile() {
        dup2(_saved, STDOUT_FILENO);
        close(_saved);
    }
    OutputInFile(OutputInFile const&) = delete;
    OutputInFile& operator=(OutputInFile const&) = delete;

private:
    int const _saved;
};

} // namespace

void ExpectRoundTrip(SftpPeer const& peer) {
    Visit visit(peer);
    for (File const& file : Files()) {
        SCOPED_TRACE(file.name);
        std::string const content = Pattern(file.size);
        visit.MakeHere(file.name, content, file.mode);
        ASSERT_EQ(visit.Put(visit.status, file.name.c_str(), file.name.c_str()), 0) << visit.status._message;
        ExpectFile(visit.There(file.name), content, file.mode);
        EXPECT_EQ(OnDisk(visit.There(file.name)).st_uid, peer.uid);
        ASSERT_EQ(visit.Get(visit.status, file.name.c_str(), (file.name + ".back").c_str()), 0)
            << visit.status._message;
        ExpectFile(visit.Here(file.name + ".back"), content, file.mode);
    }
}

void ExpectCopiesBetweenDescriptors(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeHere("file", Pattern(100000), 0640);
    {
        FileDescriptor const source(open(visit.Here("file").c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(lseek(source, 7, SEEK_SET), 7);
        EXPECT_EQ(visit.Send(visit.status, visit.There("file").c_str(), source), 0) << visit.status._message;
    }
    ExpectFile(visit.There("file"), Pattern(100000).substr(7), 0640);

    visit.MakeHere("back", "seven!!", 0600);
    {
        FileDescriptor const target(open(visit.Here("back").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
        EXPECT_EQ(visit.Receive(visit.status, visit.There("file").c_str(), target), 0)
            << visit.status._message;
    }
    ExpectFile(visit.Here("back"), "seven!!" + Pattern(100000).substr(7), 0640);
}

void ExpectCopiesBetweenNames(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeHere("file", Pattern(40000), 0600);
    visit.MakeThere("longer", Pattern(50000));
    EXPECT_EQ(visit.Send(visit.status, visit.Here("file").c_str(), visit.There("longer").c_str()), 0);
    ExpectFile(visit.There("longer"), Pattern(40000), 0600);
    visit.MakeHere("longer", Pattern(50000));
    EXPECT_EQ(visit.Receive(visit.status, visit.There("longer").c_str(), visit.Here("longer").c_str()), 0);
    ExpectFile(visit.Here("longer"), Pattern(40000), 0600);
}

void ExpectMoves(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeHere("up", Pattern(40000), 0640);
    EXPECT_EQ(visit.MoveToRemote(visit.status, visit.Here("up").c_str(), "moved"), 0)
        << visit.status._message;
    ExpectFile(visit.There("moved"), Pattern(40000), 0640);
    ExpectGone(visit.Here("up"));
    EXPECT_EQ(visit.MoveToLocal(visit.status, "moved", "down"), 0) << visit.status._message;
    ExpectFile(visit.Here("down"), Pattern(40000), 0640);
    ExpectGone(visit.There("moved"));
}

void ExpectListsCopied(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeHere("a", "first", 0600);
    visit.MakeHere("b", "second", 0644);
    visit.MakeDirectoryThere("up");
    EXPECT_EQ(visit.Put(visit.status, Names({"a", visit.Here("b")}), "up"), 2) << visit.status._message;
    ExpectCopied(visit.Here("a"), visit.There("up/a"));
    ExpectCopied(visit.Here("b"), visit.There("up/b"));
    std::filesystem::create_directory(visit.Here("down"));
    EXPECT_EQ(visit.Get(visit.status, Names({"up/b", visit.There("up/a")}), "down"), 2)
        << visit.status._message;
    ExpectCopied(visit.There("up/a"), visit.Here("down/a"));
    ExpectCopied(visit.There("up/b"), visit.Here("down/b"));

    ExpectRefused(
        visit, peer.missing, [&] { return visit.Get(visit.status, Names({"up/a", "missing", "up/b"}), "."); },
        "Get");
    EXPECT_EQ(servers::ReadFile(visit.Here("missing")), "");
    EXPECT_EQ(servers::ReadFile(visit.Here("b")), "second");
}

void ExpectListsMoved(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeHere("a", "first", 0600);
    visit.MakeHere("b", "second", 0644);
    visit.MakeDirectoryThere("up");
    EXPECT_EQ(visit.MoveToRemote(visit.status, Names({"a", "b"}), "up"), 2) << visit.status._message;
    ExpectFile(visit.There("up/a"), "first", 0600);
    ExpectFile(visit.There("up/b"), "second", 0644);
    ExpectGone(visit.Here("a"));
    ExpectGone(visit.Here("b"));
    EXPECT_EQ(visit.MoveToLocal(visit.status, Names({"up/a", "up/b"}), "."), 2) << visit.status._message;
    ExpectFile(visit.Here("a"), "first", 0600);
    ExpectFile(visit.Here("b"), "second", 0644);
    EXPECT_TRUE(std::filesystem::is_empty(visit.There("up")));
}

void ExpectMatchesCopied(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* name : {"a1", "a2", "b1"}) visit.MakeHere(name, name, 0640);
    visit.MakeDirectoryThere("up");
    EXPECT_EQ(visit.MPut(visit.status, "a*", "up"), 2) << visit.status._message;
    ExpectFile(visit.There("up/a1"), "a1", 0640);
    ExpectFile(visit.There("up/a2"), "a2", 0640);
    ExpectGone(visit.There("up/b1"));
    std::filesystem::create_directory(visit.Here("down"));
    EXPECT_EQ(visit.MGet(visit.status, "*/a[2-9]", "down"), 1) << visit.status._message;
    ExpectFile(visit.Here("down/a2"), "a2", 0640);
    ExpectGone(visit.Here("down/a1"));

    EXPECT_EQ(visit.MPut(visit.status, "none*", "up"), 0);
    EXPECT_EQ(visit.MGet(visit.status, "none*", "down"), 0);
}

void ExpectMatchesMoved(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* name : {"a1", "a2", "b1"}) visit.MakeHere(name, name, 0640);
    visit.MakeDirectoryThere("up");
    EXPECT_EQ(visit.MMoveToRemote(visit.status, "a*", "up"), 2) << visit.status._message;
    ExpectFile(visit.There("up/a1"), "a1", 0640);
    ExpectFile(visit.There("up/a2"), "a2", 0640);
    ExpectGone(visit.Here("a1"));
    ExpectGone(visit.Here("a2"));
    EXPECT_TRUE(Exists(visit.Here("b1")));
    EXPECT_EQ(visit.MMoveToLocal(visit.status, "up/?2", "."), 1) << visit.status._message;
    ExpectFile(visit.Here("a2"), "a2", 0640);
    ExpectGone(visit.There("up/a2"));
    EXPECT_TRUE(Exists(visit.There("up/a1")));
}

void ExpectFileOnStandardOutput(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeThere("file", Pattern(40000), 0640);
    {
        OutputInFile const redirected(visit.Here("output"));
        EXPECT_EQ(visit.Cat(visit.status, "file"), 0) << visit.status._message;
    }
    ExpectFile(visit.Here("output"), Pattern(40000), 0640);
}

void ExpectCopiesRefused(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeHere("file", "content");
    SftpStatus& status = visit.status;
    auto const expect = [&](std::string const& what, std::function<int()> const& call) {
        ExpectRefused(visit, peer.missing, call, what);
    };
    expect("Get", [&] { return visit.Get(status, "missing", "got"); });
    EXPECT_EQ(servers::ReadFile(visit.Here("got")), "");
    expect("Put", [&] { return visit.Put(status, "file", "no/such"); });
    expect("Cat", [&] { return visit.Cat(status, "missing"); });
    expect("MoveToLocal", [&] { return visit.MoveToLocal(status, "missing", "got"); });
    expect("MoveToRemote", [&] { return visit.MoveToRemote(status, visit.Here("file").c_str(), "no/such"); });
    expect("MPut", [&] { return visit.MPut(status, "f*", "no"); });
    expect("MMoveToRemote", [&] { return visit.MMoveToRemote(status, "f*", "no"); });
    EXPECT_EQ(servers::ReadFile(visit.Here("file")), "content");

    status = SftpStatus();
    EXPECT_EQ(visit.Put(status, "missing", "got"), -ENOENT);
    visit.MakeThere("file", "content");
    EXPECT_EQ(visit.Get(status, "file", "no/such"), -ENOENT);
    EXPECT_EQ(visit.MMoveToLocal(status, "f*", "no"), -ENOENT);
    EXPECT_EQ(status._code, 0);
    EXPECT_EQ(servers::ReadFile(visit.There("file")), "content");
    ExpectGone(visit.There("got"));
}
