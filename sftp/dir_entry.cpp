#include <brantle/sftp/dir_entry.h>

#include <grp.h>
#include <pwd.h>
#include <sys/time.h>

#include <cstddef>
#include <ctime>
#include <iomanip>
#include <ostream>

namespace cindral {

namespace {

constexpr std::size_t RECORD_TEXTS = 8192;
constexpr long RECENT = 180 * 24 * 60 * 60 - 1; ///< seconds

String_t Digits(int id) {
    char digits[12];
    return str_int2str10(digits, sizeof(digits), id, 0, 0);
}

char TypeLetter(unsigned int mode) {
    switch (mode & S_IFMT) {
    case S_IFBLK:
        return 'b';
    case S_IFCHR:
        return 'c';
    case S_IFDIR:
        return 'd';
    case S_IFLNK:
        return 'l';
    case S_IFIFO:
        return 'p';
    case S_IFSOCK:
        return 's';
    default:
        return '-';
    }
}

/// The set-id bits are shown in place of the read permission, and the sticky bit is not shown.
void PutMode(std::ostream& out, unsigned int mode) {
    auto const letter = [mode](unsigned int bit, char set, char clear) { return mode & bit ? set : clear; };
    out << TypeLetter(mode) << letter(S_ISUID, 's', letter(S_IRUSR, 'r', '-')) << letter(S_IWUSR, 'w', '-')
        << letter(S_IXUSR, 'x', '-') << letter(S_ISGID, 's', letter(S_IRGRP, 'r', '-'))
        << letter(S_IWGRP, 'w', '-') << letter(S_IXGRP, 'x', '-') << letter(S_IROTH, 'r', '-')
        << letter(S_IWOTH, 'w', '-') << letter(S_IXOTH, 'x', '-');
}

void PutTime(std::ostream& out, std::time_t time, long now) {
    std::tm local{};
    localtime_r(&time, &local);
    char text[32];
    text[std::strftime(text, sizeof(text), now - time > RECENT ? "%b %e  %Y" : "%b %e %R", &local)] = '\0';
    out << text;
}

long Now() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

} // namespace

String_t UserNameMap::operator[](int uid) {
    String_t& name = TMap::operator[](uid);
    if (name != "") return name;
    char texts[RECORD_TEXTS];
    passwd record{};
    passwd* found = nullptr;
    int const error = getpwuid_r(static_cast<uid_t>(uid), &record, texts, sizeof(texts), &found);
    return name = error == 0 && found ? String_t(found->pw_name) : Digits(uid);
}

String_t GroupNameMap::operator[](int gid) {
    String_t& name = TMap::operator[](gid);
    if (name != "") return name;
    char texts[RECORD_TEXTS];
    group record{};
    group* found = nullptr;
    int const error = getgrgid_r(static_cast<gid_t>(gid), &record, texts, sizeof(texts), &found);
    return name = error == 0 && found ? String_t(found->gr_name) : Digits(gid);
}

DirEntry::DirEntry() : _status{} {}

DirEntry::DirEntry(String_t const& name) : _name(name), _status{} {}

DirEntry::DirEntry(String_t const& name, String_t const& longname, SftpFileAttr const& attrs)
    : _name(name), _longname(longname) {
    attrs.FillStat(_status);
}

std::ostream& DirEntry::put(std::ostream& out, UserNameMap& users, GroupNameMap& groups, long now) const {
    // Deliberate: written unchanged, control characters included (pinned by
    // DirEntries.LineOfTheServerIsWrittenUnchanged).
    if (_longname != "") return out << _longname;
    PutMode(out, _status.st_mode);
    std::ios::fmtflags const flags = out.flags(std::ios::right);
    out << ' ' << std::setw(4) << _status.st_nlink;
    out.flags(std::ios::left);
    out << ' ' << std::setw(8) << users[static_cast<int>(_status.st_uid)];
    out << ' ' << std::setw(8) << groups[static_cast<int>(_status.st_gid)];
    out.flags(std::ios::right);
    out << std::setw(9) << _status.st_size << ' ';
    PutTime(out, _status.st_mtime, now);
    out << ' ' << _name;
    out.flags(flags);
    return out;
}

std::ostream& operator<<(std::ostream& out, DirEntry const& entry) {
    UserNameMap users;
    GroupNameMap groups;
    return entry.put(out, users, groups, Now());
}

std::ostream& PutDirEntries(std::ostream& out, TSet<DirEntry, DirEntry::Compare> const& entries,
                            int reverse) {
    UserNameMap users;
    GroupNameMap groups;
    long const now = Now();
    TSet<DirEntry, DirEntry::Compare>::ConstIterator entry(entries, reverse);
    while (entry.Curr()) {
        entry->put(out, users, groups, now) << '\n';
        if (reverse)
            --entry;
        else
            ++entry;
    }
    return out;
}

} // namespace cindral
