#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "real/sftp_cases.h"
#include "real/sftp_visit.h"
#include "support/expect_error.h"

using namespace cindral;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace {

using DirEntries = TSet<DirEntry, DirEntry::Compare>;

char const* Text(String_t const& text) { return text.Text() ? text.Text() : ""; }

std::vector<std::string> NamesIn(DirEntries const& entries) {
    std::vector<std::string> names;
    DirEntries::ConstIterator next(entries, 0);
    while (DirEntry const* const entry = next()) names.push_back(entry->_name.Text());
    return names;
}

/// Expects that a call returns the negated code of a refusal, and that the status holds it.
void ExpectRefused(Visit& visit, Refusal const& refusal, std::function<int()> const& call,
                   std::string const& what) {
    visit.status = SftpStatus();
    EXPECT_EQ(call(), -refusal.code) << what;
    EXPECT_EQ(visit.status._code, refusal.code) << what;
    EXPECT_STREQ(Text(visit.status._message), refusal.words.c_str()) << what;
}

void ExpectSameAttributes(SftpFileAttr const& attrs, struct stat const& file) {
    constexpr unsigned int all =
        SftpFileAttr::SIZE | SftpFileAttr::UIDGID | SftpFileAttr::PERMISSIONS | SftpFileAttr::ACMODTIME;
    EXPECT_EQ(attrs._flags & all, all);
    EXPECT_EQ(attrs._size, static_cast<unsigned long long>(file.st_size));
    EXPECT_EQ(attrs._uid, file.st_uid);
    EXPECT_EQ(attrs._gid, file.st_gid);
    EXPECT_EQ(attrs._permissions, file.st_mode);
    EXPECT_EQ(attrs._mtime, file.st_mtime);
}

/// A group that the account may give its files to: for root any, otherwise one of its own.
gid_t OtherGroup(SftpPeer const& peer) {
    if (peer.uid == 0) return peer.gid + 1;
    if (peer.uid != geteuid()) return peer.gid;
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, getgroups(0, nullptr))));
    groups.resize(
        static_cast<std::size_t>(std::max(0, getgroups(static_cast<int>(groups.size()), groups.data()))));
    auto const other = std::find_if(groups.begin(), groups.end(), [&](gid_t gid) { return gid != peer.gid; });
    return other != groups.end() ? *other : peer.gid;
}

} // namespace

void ExpectStartIsInTheHomeDirectory(SftpPeer const& peer) {
    Visit visit(peer);
    EXPECT_EQ(visit.Cd(visit.status, ""), 0);
    EXPECT_EQ(std::filesystem::canonical(visit.RemoteDir().Text()), std::filesystem::canonical(peer.home));
    visit.LCd("");
    EXPECT_EQ(visit.LocalDir().Text(), std::filesystem::current_path());
}

void ExpectCdFollowsTheServer(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeDirectoryThere("sub");
    EXPECT_EQ(visit.Cd(visit.status, "sub"), 0);
    EXPECT_EQ(visit.RemoteDir().Text(), visit.There("sub"));
    EXPECT_EQ(visit.Mkdir(visit.status, "made", 0700), 0) << visit.status._message;
    EXPECT_TRUE(S_ISDIR(OnDisk(visit.There("sub/made")).st_mode));
    EXPECT_EQ(visit.Cd(visit.status, ".."), 0);
    EXPECT_EQ(visit.RemoteDir().Text() + std::string("/"), visit.There(""));

    ExpectRefused(visit, peer.missing, [&] { return visit.Cd(visit.status, "no/such"); }, "Cd");
    EXPECT_EQ(visit.RemoteDir().Text() + std::string("/"), visit.There(""));
}

void ExpectDirectoriesMadeAndRemoved(SftpPeer const& peer) {
    Visit visit(peer);
    EXPECT_EQ(visit.Mkdir(visit.status, "made", 0700), 0) << visit.status._message;
    EXPECT_EQ(OnDisk(visit.There("made")).st_mode, S_IFDIR | 0700u);
    EXPECT_EQ(OnDisk(visit.There("made")).st_uid, peer.uid);
    EXPECT_EQ(visit.Mkdir(visit.status, visit.There("made/inner").c_str(), 0750), 0) << visit.status._message;
    EXPECT_TRUE(S_ISDIR(OnDisk(visit.There("made/inner")).st_mode));

    EXPECT_EQ(visit.Rmdir(visit.status, "made/inner"), 0) << visit.status._message;
    EXPECT_FALSE(Exists(visit.There("made/inner")));
    EXPECT_EQ(visit.Rmdir(visit.status, "made"), 0) << visit.status._message;
    EXPECT_FALSE(Exists(visit.There("made")));
}

void ExpectFilesRemoved(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* name : {"one", "a1", "a2", "b1", ".hidden"}) visit.MakeThere(name);
    EXPECT_EQ(visit.Remove(visit.status, "one"), 0) << visit.status._message;
    EXPECT_FALSE(Exists(visit.There("one")));

    EXPECT_EQ(visit.Remove(visit.status, "a?"), 0) << visit.status._message;
    EXPECT_FALSE(Exists(visit.There("a1")));
    EXPECT_FALSE(Exists(visit.There("a2")));
    EXPECT_TRUE(Exists(visit.There("b1")));

    visit.status = SftpStatus();
    EXPECT_EQ(visit.Remove(visit.status, "c*"), -1);
    EXPECT_EQ(visit.status._code, 0);

    EXPECT_EQ(visit.Remove(visit.status, "*"), 0) << "a dot at the start is nothing special";
    EXPECT_TRUE(std::filesystem::is_empty(visit.There("")));
}

void ExpectFilesRenamed(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeThere("old", "content");
    visit.MakeDirectoryThere("sub");
    EXPECT_EQ(visit.Rename(visit.status, "old", "sub/new"), 0) << visit.status._message;
    EXPECT_FALSE(Exists(visit.There("old")));
    EXPECT_EQ(servers::ReadFile(visit.There("sub/new")), "content");

    visit.MakeThere("other", "another");
    ExpectRefused(
        visit, peer.occupied, [&] { return visit.Rename(visit.status, "other", "sub/new"); }, "Rename");
    EXPECT_EQ(servers::ReadFile(visit.There("sub/new")), "content");
    EXPECT_EQ(servers::ReadFile(visit.There("other")), "another");
}

void ExpectLinksMadeAndRead(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeThere("target", "content");
    EXPECT_EQ(visit.Symlink(visit.status, "target", "link"), 0) << visit.status._message;
    EXPECT_EQ(std::filesystem::read_symlink(visit.There("link")), visit.There("target"));

    visit.MakeLinkThere("no/such", "dangling");
    String_t target;
    EXPECT_EQ(visit.Readlink(visit.status, "dangling", target), 0) << visit.status._message;
    EXPECT_EQ(Text(target), peer.linksAreFollowed ? visit.There("no/such") : "no/such");
    EXPECT_EQ(visit.Readlink(visit.status, "link", target), 0) << visit.status._message;
    EXPECT_EQ(Text(target), visit.There("target"));
}

void ExpectAttributesRead(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeThere("file", "content", 0640);
    visit.MakeDirectoryThere("sub");
    visit.MakeLinkThere("file", "link");
    struct Case {
        char const* name;
        char const* followed;
    };
    for (auto const& [name, followed] : {Case{"file", "file"}, {"sub", "sub"}, {"link", "file"}}) {
        SCOPED_TRACE(name);
        SftpFileAttr attrs;
        EXPECT_EQ(visit.Stat(visit.status, name, attrs), 0) << visit.status._message;
        ExpectSameAttributes(attrs, OnDisk(visit.There(followed)));
        SftpFileAttr own;
        EXPECT_EQ(visit.Lstat(visit.status, name, own), 0) << visit.status._message;
        ExpectSameAttributes(own, OnDisk(visit.There(peer.linksAreFollowed ? followed : name)));
    }
    SftpFileHandle const handle = visit.OpenThere("file", SftpClient::SSH_FXF_READ);
    SftpFileAttr attrs;
    EXPECT_EQ(visit.Fstat(visit.status, handle, attrs), 0) << visit.status._message;
    ExpectSameAttributes(attrs, OnDisk(visit.There("file")));
    visit.Client().Close(visit.status, handle);
    EXPECT_EQ(visit.status._code, 0);
}

void ExpectModesChanged(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* name : {"one", "a1", "a2"}) visit.MakeThere(name, "content", 0644);
    EXPECT_EQ(visit.Chmod(visit.status, "one", 0751), 0) << visit.status._message;
    EXPECT_EQ(ModeOf(visit.There("one")), 0751u);
    EXPECT_EQ(visit.Chmod(visit.status, "a*", 0400), 0) << visit.status._message;
    EXPECT_EQ(ModeOf(visit.There("a1")), 0400u);
    EXPECT_EQ(ModeOf(visit.There("a2")), 0400u);
    EXPECT_EQ(ModeOf(visit.There("one")), 0751u);

    SftpFileHandle const handle =
        visit.OpenThere("one", SftpClient::SSH_FXF_READ | SftpClient::SSH_FXF_WRITE);
    EXPECT_EQ(visit.Fchmod(visit.status, handle, 0604), 0) << visit.status._message;
    EXPECT_EQ(ModeOf(visit.There("one")), 0604u);
    visit.Client().Close(visit.status, handle);
    EXPECT_EQ(servers::ReadFile(visit.There("one")), "content");
}

/// An account may always give its files to itself, which rewrites size, mode and times as they are.
void ExpectOwnersKept(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* name : {"one", "a1", "a2"}) visit.MakeThere(name, "content", 0640);
    struct stat const before = OnDisk(visit.There("one"));
    EXPECT_EQ(visit.Chown(visit.status, "one", peer.uid), 0) << visit.status._message;
    EXPECT_EQ(visit.Chgrp(visit.status, "one", peer.gid), 0) << visit.status._message;
    EXPECT_EQ(visit.Chown(visit.status, "a*", peer.uid), 0) << visit.status._message;
    SftpFileHandle const handle = visit.OpenThere("a1", SftpClient::SSH_FXF_READ | SftpClient::SSH_FXF_WRITE);
    EXPECT_EQ(visit.Fchown(visit.status, handle, peer.uid), 0) << visit.status._message;
    EXPECT_EQ(visit.Fchgrp(visit.status, handle, peer.gid), 0) << visit.status._message;
    visit.Client().Close(visit.status, handle);
    for (char const* name : {"one", "a1", "a2"}) {
        SCOPED_TRACE(name);
        struct stat const file = OnDisk(visit.There(name));
        EXPECT_EQ(file.st_uid, peer.uid);
        EXPECT_EQ(file.st_gid, peer.gid);
        EXPECT_EQ(file.st_mode, S_IFREG | 0640u);
        EXPECT_EQ(servers::ReadFile(visit.There(name)), "content");
    }
    EXPECT_EQ(OnDisk(visit.There("one")).st_mtime, before.st_mtime);
}

void ExpectOwnerGivenAwayByRootAlone(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* name : {"one", "a1", "a2"}) visit.MakeThere(name, "content", 0640);
    uid_t const other = peer.uid + 1;
    if (peer.uid != 0) {
        Refusal const denied{3, "Permission denied"};
        ExpectRefused(visit, denied, [&] { return visit.Chown(visit.status, "one", other); }, "Chown");
        ExpectRefused(
            visit, denied, [&] { return visit.Chown(visit.status, "a*", other); }, "Chown of a pattern");
        for (char const* name : {"one", "a1", "a2"})
            EXPECT_EQ(OnDisk(visit.There(name)).st_uid, peer.uid) << name;
        return;
    }
    EXPECT_EQ(visit.Chown(visit.status, "one", other), 0) << visit.status._message;
    EXPECT_EQ(OnDisk(visit.There("one")).st_uid, other);
    EXPECT_EQ(OnDisk(visit.There("one")).st_gid, peer.gid);
    EXPECT_EQ(visit.Chown(visit.status, "a*", other), 0) << visit.status._message;
    EXPECT_EQ(OnDisk(visit.There("a1")).st_uid, other);
    EXPECT_EQ(OnDisk(visit.There("a2")).st_uid, other);
    SftpFileHandle const handle = visit.OpenThere("a1", SftpClient::SSH_FXF_READ | SftpClient::SSH_FXF_WRITE);
    EXPECT_EQ(visit.Fchown(visit.status, handle, peer.uid), 0) << visit.status._message;
    visit.Client().Close(visit.status, handle);
    EXPECT_EQ(OnDisk(visit.There("a1")).st_uid, peer.uid);
}

void ExpectGroupChanged(SftpPeer const& peer) {
    Visit visit(peer);
    gid_t const other = OtherGroup(peer);
    for (char const* name : {"one", "a1", "a2", "open"}) {
        visit.MakeThere(name, "content", 0640);
        // Where the tests are root's and the server's account has one group, the files come from another.
        if (other == peer.gid && geteuid() == 0) {
            ASSERT_EQ(chown(visit.There(name).c_str(), peer.uid, 0), 0);
        }
    }
    EXPECT_EQ(visit.Chgrp(visit.status, "one", other), 0) << visit.status._message;
    EXPECT_EQ(visit.Chgrp(visit.status, "a*", other), 0) << visit.status._message;
    SftpFileHandle const handle =
        visit.OpenThere("open", SftpClient::SSH_FXF_READ | SftpClient::SSH_FXF_WRITE);
    EXPECT_EQ(visit.Fchgrp(visit.status, handle, other), 0) << visit.status._message;
    visit.Client().Close(visit.status, handle);
    for (char const* name : {"one", "a1", "a2", "open"}) {
        EXPECT_EQ(OnDisk(visit.There(name)).st_gid, other) << name;
        EXPECT_EQ(OnDisk(visit.There(name)).st_uid, peer.uid) << name;
    }
}

void ExpectOwnersChangedWithoutExtensionAlone(SftpPeer const& peer) {
    {
        Visit visit(peer);
        visit.MakeThere("file", "content", 0640);
        SftpFileAttr attrs;
        ASSERT_EQ(visit.Stat(visit.status, "file", attrs), 0) << visit.status._message;
        EXPECT_TRUE(attrs._flags & SftpFileAttr::EXTENDED);
        attrs._flags &= ~SftpFileAttr::EXTENDED;
        attrs._gid = OtherGroup(peer);
        EXPECT_EQ(visit.Client().SetStat(visit.status, visit.There("file").c_str(), attrs), 0)
            << visit.status._message;
        EXPECT_EQ(OnDisk(visit.There("file")).st_gid, OtherGroup(peer));
        EXPECT_EQ(OnDisk(visit.There("file")).st_uid, peer.uid);
        EXPECT_EQ(servers::ReadFile(visit.There("file")), "content");
    }
    using Call = std::function<int(Visit&, SftpFileHandle const&)>;
    for (Call const &call : {
             Call([&](Visit& v, SftpFileHandle const&) { return v.Chown(v.status, "file", peer.uid); }),
             Call([&](Visit& v, SftpFileHandle const&) { return v.Chgrp(v.status, "f*", peer.gid); }),
             Call([&](Visit& v, SftpFileHandle const& h) { return v.Fchown(v.status, h, peer.uid); }),
             Call([&](Visit& v, SftpFileHandle const& h) { return v.Fchgrp(v.status, h, peer.gid); }),
         }) {
        Visit visit(peer);
        visit.MakeThere("file", "content", 0640);
        SftpFileHandle const handle = visit.OpenThere("file", SftpClient::SSH_FXF_READ);
        support::ExpectError<SshProtocolError>("expected CHANNEL_DATA package, received", "1",
                                               [&] { call(visit, handle); });
        EXPECT_EQ(OnDisk(visit.There("file")).st_uid, peer.uid);
        EXPECT_EQ(servers::ReadFile(visit.There("file")), "content");
    }
}

void ExpectDirectoryListed(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeThere("file", "content", 0640);
    visit.MakeThere(".hidden");
    visit.MakeDirectoryThere("sub");
    DirEntries entries;
    EXPECT_EQ(visit.ListDir(visit.status, entries, visit.There("").c_str(), 0), 2);
    EXPECT_THAT(NamesIn(entries), ElementsAre("file", "sub"));
    DirEntries all;
    EXPECT_EQ(visit.ListDir(visit.status, all, ".", 1), 3);
    EXPECT_THAT(NamesIn(all), ElementsAre(".hidden", "file", "sub"));

    DirEntry const* const file = entries.Find(DirEntry("file"));
    ASSERT_TRUE(file);
    struct stat const onDisk = OnDisk(visit.There("file"));
    EXPECT_EQ(file->_status.st_mode, onDisk.st_mode);
    EXPECT_EQ(file->_status.st_size, onDisk.st_size);
    EXPECT_EQ(file->_status.st_uid, onDisk.st_uid);
    EXPECT_EQ(file->_status.st_gid, onDisk.st_gid);
    EXPECT_EQ(file->_status.st_mtime, onDisk.st_mtime);
    DirEntry const* const sub = entries.Find(DirEntry("sub"));
    ASSERT_TRUE(sub);
    EXPECT_TRUE(S_ISDIR(sub->_status.st_mode));

    std::ostringstream lines;
    PutDirEntries(lines, entries, 1);
    EXPECT_THAT(lines.str(), StartsWith("d"));
    EXPECT_THAT(lines.str(), HasSubstr(" sub\n-rw-r-----"));
    EXPECT_THAT(lines.str(), EndsWith(" file\n"));
}

void ExpectFilesListedByName(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeThere("a1", "content", 0640);
    visit.MakeThere("a2");
    visit.MakeThere("b");
    DirEntries plain;
    EXPECT_EQ(visit.ListDir(visit.status, plain, "a1", 0), 1);
    EXPECT_THAT(NamesIn(plain), ElementsAre(visit.There("a1")));
    DirEntry const* const file = plain.Find(DirEntry(visit.There("a1").c_str()));
    ASSERT_TRUE(file);
    EXPECT_STREQ(Text(file->_longname), "");
    EXPECT_EQ(file->_status.st_mode, S_IFREG | 0640u);
    EXPECT_EQ(file->_status.st_size, 7);
    std::ostringstream line;
    line << *file;
    EXPECT_THAT(line.str(), testing::AllOf(StartsWith("-rw-r-----    0 "), HasSubstr("        7 "),
                                           EndsWith(" " + visit.There("a1"))));

    DirEntries matching;
    EXPECT_EQ(visit.ListDir(visit.status, matching, "a*", 0), 2);
    EXPECT_THAT(NamesIn(matching), ElementsAre(visit.There("a1"), visit.There("a2")));
    DirEntries none;
    EXPECT_EQ(visit.ListDir(visit.status, none, "missing", 0), 0);
    EXPECT_EQ(none.Size(), 0u);
    EXPECT_EQ(visit.status._code, 0);
}

void ExpectNamesFound(SftpPeer const& peer) {
    Visit visit(peer);
    for (char const* directory : {"a", "b", "c"}) {
        visit.MakeDirectoryThere(directory);
        visit.MakeThere(std::string(directory) + "/x1");
        visit.MakeThere(std::string(directory) + "/y");
    }
    visit.MakeThere("c/x2");
    visit.MakeThere("plain");
    visit.MakeThere(".hidden");
    auto const found = [&](std::string const& pattern, int result) {
        TOList<String_t> names;
        EXPECT_EQ(visit.Glob(visit.status, names, visit.There(pattern).c_str()), result) << pattern;
        return Texts(names);
    };
    EXPECT_THAT(found("*", 5), UnorderedElementsAre(visit.There("a"), visit.There("b"), visit.There("c"),
                                                    visit.There("plain"), visit.There(".hidden")));
    EXPECT_THAT(found("[bc]/x*", 3),
                UnorderedElementsAre(visit.There("b/x1"), visit.There("c/x1"), visit.There("c/x2")));
    EXPECT_THAT(found("c/x?", 2), UnorderedElementsAre(visit.There("c/x1"), visit.There("c/x2")));
    EXPECT_THAT(found("plain", 1), ElementsAre(visit.There("plain")));
    EXPECT_THAT(found("a", 1), ElementsAre(visit.There("a")));
    EXPECT_THAT(found("missing", 0), ElementsAre());
    EXPECT_EQ(visit.status._code, 0);
}

void ExpectManyEntriesListed(SftpPeer const& peer) {
    constexpr int count = 10000;
    Visit visit(peer);
    visit.MakeDirectoryThere("full");
    std::set<std::string> made;
    for (int i = 0; i < count; ++i) {
        std::string const name = "entry-with-a-rather-long-name-" + std::to_string(i);
        std::filesystem::create_symlink("x", visit.There("full/" + name)); // cheaper than a file
        made.insert(name);
    }
    DirEntries entries;
    EXPECT_EQ(visit.ListDir(visit.status, entries, "full", 0), count);
    auto const listed = NamesIn(entries);
    EXPECT_TRUE(std::equal(listed.begin(), listed.end(), made.begin(), made.end()));
    TOList<String_t> names;
    EXPECT_EQ(visit.Glob(visit.status, names, visit.There("full/*").c_str()), count);
    EXPECT_EQ(names.Len(), static_cast<unsigned int>(count));
}

void ExpectMissingFilesRefused(SftpPeer const& peer) {
    Visit visit(peer);
    SftpFileAttr attrs;
    String_t target;
    SftpStatus& status = visit.status;
    auto const expect = [&](std::string const& what, std::function<int()> const& call) {
        ExpectRefused(visit, peer.missing, call, what);
    };
    expect("Remove", [&] { return visit.Remove(status, "missing"); });
    expect("Rmdir", [&] { return visit.Rmdir(status, "missing"); });
    expect("Mkdir", [&] { return visit.Mkdir(status, "missing/made", 0700); });
    expect("Rename", [&] { return visit.Rename(status, "missing", "other"); });
    expect("Readlink", [&] { return visit.Readlink(status, "missing", target); });
    expect("Stat", [&] { return visit.Stat(status, "missing", attrs); });
    expect("Lstat", [&] { return visit.Lstat(status, "missing", attrs); });
    expect("Chmod", [&] { return visit.Chmod(status, "missing", 0600); });
    expect("Chown", [&] { return visit.Chown(status, "missing", peer.uid); });
    expect("Chgrp", [&] { return visit.Chgrp(status, "missing", peer.gid); });
    EXPECT_TRUE(std::filesystem::is_empty(visit.There("")));
}

void ExpectOtherRefusals(SftpPeer const& peer) {
    Visit visit(peer);
    visit.MakeDirectoryThere("sub");
    visit.MakeThere("sub/file", "content", 0640);
    SftpStatus& status = visit.status;
    ExpectRefused(visit, peer.exists, [&] { return visit.Mkdir(status, "sub", 0700); }, "Mkdir");
    ExpectRefused(visit, peer.notEmpty, [&] { return visit.Rmdir(status, "sub"); }, "Rmdir");
    String_t target;
    ExpectRefused(visit, peer.noLink, [&] { return visit.Readlink(status, "sub/file", target); }, "Readlink");

    SftpFileHandle const none(ByteString(reinterpret_cast<unsigned char const*>("none"), 4));
    SftpFileAttr attrs;
    auto const expect = [&](std::string const& what, std::function<int()> const& call) {
        ExpectRefused(visit, peer.noHandle, call, what);
    };
    expect("Fstat", [&] { return visit.Fstat(status, none, attrs); });
    expect("Fchmod", [&] { return visit.Fchmod(status, none, 0600); });
    expect("Fchown", [&] { return visit.Fchown(status, none, peer.uid); });
    expect("Fchgrp", [&] { return visit.Fchgrp(status, none, peer.gid); });

    EXPECT_EQ(servers::ReadFile(visit.There("sub/file")), "content");
    EXPECT_EQ(ModeOf(visit.There("sub/file")), 0640u);
}
