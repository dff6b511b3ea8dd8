#include <brantle/sftp/dir_entry.h>

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

constexpr unsigned int MTIME = 1000000000; // Sun Sep  9 01:46:40 UTC 2001

SftpFileAttr Root(unsigned int mode) {
    SftpFileAttr attrs;
    attrs._flags = 15;
    attrs._size = 5;
    attrs._permissions = mode;
    attrs._mtime = MTIME;
    return attrs;
}

class DirEntries : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        tzset();
    }

    std::string Line(DirEntry const& entry, long now = MTIME) {
        std::ostringstream out;
        EXPECT_EQ(&entry.put(out, _users, _groups, now), &out);
        return out.str();
    }
    std::string Mode(unsigned int mode) { return Line(DirEntry("f", "", Root(mode))).substr(0, 10); }

    UserNameMap _users;
    GroupNameMap _groups;
};

using Entries = TSet<DirEntry, DirEntry::Compare>;

TEST_F(DirEntries, IsEmptyAtFirst) {
    DirEntry const entry;
    DirEntry const key("key");
    EXPECT_EQ(Text(entry._name), "");
    EXPECT_EQ(Text(entry._longname), "");
    EXPECT_EQ(Text(key._name), "key");
    EXPECT_EQ(Text(key._longname), "");
    for (DirEntry const* e : {&entry, &key}) {
        EXPECT_EQ(e->_status.st_mode, 0u);
        EXPECT_EQ(e->_status.st_size, 0);
        EXPECT_EQ(e->_status.st_mtime, 0);
    }
}

TEST_F(DirEntries, TakesItsStatusFromTheAttributes) {
    DirEntry const entry("f", "line", Root(0100644));
    EXPECT_EQ(Text(entry._name), "f");
    EXPECT_EQ(Text(entry._longname), "line");
    EXPECT_EQ(entry._status.st_mode, 0100644u);
    EXPECT_EQ(entry._status.st_size, 5);
    EXPECT_EQ(entry._status.st_mtime, MTIME);
    EXPECT_EQ(DirEntry("f", "", SftpFileAttr())._status.st_mode, 0u);
}

TEST_F(DirEntries, EntriesOfOneNameAreOne) {
    Entries entries;
    entries.Insert(DirEntry("b"));
    entries.Insert(DirEntry("a", "first", Root(0)));
    entries.Insert(DirEntry("a", "second", Root(0)));
    EXPECT_EQ(entries.Size(), 2u);
    EXPECT_EQ(Text(entries.Find(DirEntry("a"))->_longname), "first");
    EXPECT_LT(DirEntry::Compare::Cmp(DirEntry("a"), DirEntry("b")), 0);
    EXPECT_GT(DirEntry::Compare::Cmp(DirEntry("a"), DirEntry()), 0);
}

TEST_F(DirEntries, LineOfTheServerIsWrittenUnchanged) {
    std::ostringstream out;
    out << std::hex << std::showbase;
    DirEntry("f", "-rw the server's own\x1b[2J\a", Root(0100644)).put(out, _users, _groups, MTIME);
    EXPECT_EQ(out.str(), "-rw the server's own\x1b[2J\a");
    EXPECT_EQ(out.flags(), std::ios::hex | std::ios::showbase | std::ios::skipws);
    EXPECT_EQ(_users.Find(0), nullptr);
}

TEST_F(DirEntries, LineIsMadeOfColumns) {
    EXPECT_EQ(Line(DirEntry("name", "", Root(0100644))),
              "-rw-r--r--    0 root     root            5 Sep  9 01:46 name");
}

TEST_F(DirEntries, LongFieldsShiftTheRest) {
    SftpFileAttr attrs = Root(0100644);
    attrs._size = 0xffffffff;
    attrs._uid = attrs._gid = 0x7ffffff0;
    EXPECT_EQ(Line(DirEntry("name", "", attrs)),
              "-rw-r--r--    0 2147483632 21474836324294967295 Sep  9 01:46 name");
}

TEST_F(DirEntries, LinkCountIsAlignedToTheRight) {
    DirEntry entry("name", "", Root(0100644));
    entry._status.st_nlink = 12;
    EXPECT_EQ(Line(entry).substr(10, 6), "   12 ");
}

TEST_F(DirEntries, FirstLetterIsTheType) {
    for (unsigned int type = 0; type < 16; ++type)
        EXPECT_EQ(Mode(type << 12), std::string(1, "-pc-d-b---l-s---"[type]) + "---------") << type;
}

TEST_F(DirEntries, EachBitOfTheModeHasItsLetter) {
    EXPECT_EQ(Mode(0), "----------");
    EXPECT_EQ(Mode(0400), "-r--------");
    EXPECT_EQ(Mode(0200), "--w-------");
    EXPECT_EQ(Mode(0100), "---x------");
    EXPECT_EQ(Mode(040), "----r-----");
    EXPECT_EQ(Mode(020), "-----w----");
    EXPECT_EQ(Mode(010), "------x---");
    EXPECT_EQ(Mode(04), "-------r--");
    EXPECT_EQ(Mode(02), "--------w-");
    EXPECT_EQ(Mode(01), "---------x");
}

TEST_F(DirEntries, SetIdBitsReplaceTheReadLetter) {
    EXPECT_EQ(Mode(04000), "-s--------");
    EXPECT_EQ(Mode(0104755), "-swxr-xr-x");
    EXPECT_EQ(Mode(02000), "----s-----");
    EXPECT_EQ(Mode(0102755), "-rwxs-xr-x");
}

TEST_F(DirEntries, StickyBitDoesNotShow) { EXPECT_EQ(Mode(0101777), "-rwxrwxrwx"); }

TEST_F(DirEntries, FilesOlderThan180DaysShowTheirYear) {
    DirEntry const entry("f", "", Root(0));
    std::string const time = " Sep  9 01:46 f";
    std::string const year = " Sep  9  2001 f";
    auto const end = [&](long now) { return Line(entry, now).substr(Line(entry, now).size() - 15); };
    EXPECT_EQ(end(MTIME + 15551999l), time);
    EXPECT_EQ(end(MTIME + 15552000l), year);
    EXPECT_EQ(end(MTIME - 100000000l), time);
}

TEST_F(DirEntries, StreamFlagsAreRestored) {
    std::ostringstream out;
    out << std::hex << std::showbase << std::left << std::uppercase;
    std::ios::fmtflags const flags = out.flags();
    DirEntry("name", "", Root(0100644)).put(out, _users, _groups, MTIME);
    EXPECT_EQ(out.flags(), flags);
    EXPECT_EQ(out.str(), "-rw-r--r--    0 root     root            5 Sep  9 01:46 name");
}

TEST_F(DirEntries, UsersAreLookedUpOnce) {
    EXPECT_EQ(Text(_users[0]), "root");
    *_users.Find(0) = "cached";
    EXPECT_EQ(Text(_users[0]), "cached");
    *_users.Find(0) = "";
    EXPECT_EQ(Text(_users[0]), "root");
}

TEST_F(DirEntries, GroupsAreLookedUpOnce) {
    EXPECT_EQ(Text(_groups[0]), "root");
    *_groups.Find(0) = "cached";
    EXPECT_EQ(Text(_groups[0]), "cached");
    *_groups.Find(0) = "";
    EXPECT_EQ(Text(_groups[0]), "root");
}

TEST_F(DirEntries, IdsWithoutANameAreShownAsNumbers) {
    for (int id : {0x7ffffff0, INT_MAX, INT_MIN}) {
        EXPECT_EQ(Text(_users[id]), std::to_string(id));
        EXPECT_EQ(Text(_groups[id]), std::to_string(id));
        *_users.Find(id) = "cached";
        *_groups.Find(id) = "cached";
        EXPECT_EQ(Text(_users[id]), "cached");
        EXPECT_EQ(Text(_groups[id]), "cached");
    }
}

TEST_F(DirEntries, OperatorUsesTheCurrentTime) {
    SftpFileAttr attrs = Root(0100600);
    attrs._mtime = static_cast<unsigned int>(std::time(nullptr));
    std::ostringstream out;
    out << DirEntry("new", "", attrs) << '|' << DirEntry("old", "", Root(0100600));
    std::string const lines = out.str();
    EXPECT_EQ(lines.find('|'), 59u);
    EXPECT_EQ(lines[52], ':');
    EXPECT_EQ(lines.substr(60), "-rw-------    0 root     root            5 Sep  9  2001 old");
}

TEST_F(DirEntries, SetIsWrittenInEitherOrder) {
    Entries entries;
    for (char const* name : {"b", "c", "a"}) entries.Insert(DirEntry(name, "", Root(0100600)));
    entries.Insert(DirEntry("aa", "line of aa", Root(0)));
    std::string const head = "-rw-------    0 root     root            5 Sep  9  2001 ";
    std::ostringstream up;
    std::ostringstream down;
    EXPECT_EQ(&PutDirEntries(up, entries, 0), &up);
    PutDirEntries(down, entries, 1);
    EXPECT_EQ(up.str(), head + "a\nline of aa\n" + head + "b\n" + head + "c\n");
    EXPECT_EQ(down.str(), head + "c\n" + head + "b\nline of aa\n" + head + "a\n");
}

TEST_F(DirEntries, EmptySetWritesNothing) {
    std::ostringstream out;
    PutDirEntries(out, Entries(), 0);
    PutDirEntries(out, Entries(), 1);
    EXPECT_EQ(out.str(), "");
}

} // namespace
