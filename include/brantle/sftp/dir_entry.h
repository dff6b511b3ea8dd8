#ifndef BRANTLE_SFTP_DIR_ENTRY_H
#define BRANTLE_SFTP_DIR_ENTRY_H

#include <sys/stat.h>

#include <iosfwd>

#include <brantle/export.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/thornel/string_t.h>
#include <generic/tmap>
#include <generic/tset>

namespace cindral {

/// Maps user ids to user names; each is looked up once on this machine. An empty name has not been looked up
/// yet.
class BRANTLE_API UserNameMap : public TMap<int, String_t> {
public:
    /// The name, or the id's digits if it has none.
    String_t operator[](int uid);
};

/// The same for groups.
class BRANTLE_API GroupNameMap : public TMap<int, String_t> {
public:
    /// As in UserNameMap.
    String_t operator[](int gid);
};

/// A file in a remote directory, which can be written as a line of a long listing.
///
/// If the server has sent that line, it is used unchanged, including any control characters, which then reach
/// the terminal. Otherwise it is composed here, with the names that this machine has for the ids; the file
/// name in it comes from the server too.
class BRANTLE_API DirEntry {
public:
    /// Orders entries by their names.
    class Compare {
    public:
        static int Cmp(DirEntry const& a, DirEntry const& b) {
            return str_cmp(a._name.Text(), b._name.Text());
        }
    };

    /// Empty strings and an all-zero status.
    DirEntry();
    /// An entry to search for.
    explicit DirEntry(String_t const& name);
    DirEntry(String_t const& name, String_t const& longname, SftpFileAttr const& attrs);

    /// Writes the line, without a line end. `now` is in seconds since the epoch: a file that is 180 days
    /// older or more shows its year, any other the time.
    std::ostream& put(std::ostream& out, UserNameMap& users, GroupNameMap& groups, long now) const;

    String_t _name;
    String_t _longname; ///< the server's line, may be empty
    struct stat _status;
};

/// Writes the line of one entry, without a line end.
BRANTLE_API std::ostream& operator<<(std::ostream& out, DirEntry const& entry);

/// Writes a line for each entry, in descending order if `reverse` is not 0. It looks up each user and group
/// once.
BRANTLE_API std::ostream& PutDirEntries(std::ostream& out, TSet<DirEntry, DirEntry::Compare> const& entries,
                                        int reverse);

} // namespace cindral

#endif
