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

/// Names of users by their ids, each looked up once on this machine. An empty name has not been looked up.
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

/// A file of a remote directory, which is written as a line of a long listing.
///
/// That line is the server's if it has sent one, whatever it holds: control characters of the server's choice
/// reach a terminal. Otherwise it is made here, with the names that this machine has for the ids; the name in
/// it is the server's too.
class BRANTLE_API DirEntry {
public:
    /// Orders entries by their names.
    class Compare {
    public:
        static int Cmp(DirEntry const& a, DirEntry const& b) {
            return str_cmp(a._name.Text(), b._name.Text());
        }
    };

    /// Empty texts and a status of zeros.
    DirEntry();
    /// To search for.
    explicit DirEntry(String_t const& name);
    DirEntry(String_t const& name, String_t const& longname, SftpFileAttr const& attrs);

    /// Writes the line, without its end. `now` is in seconds since the epoch: a file that is 180 days older
    /// or more shows its year, any other the time.
    std::ostream& put(std::ostream& out, UserNameMap& users, GroupNameMap& groups, long now) const;

    String_t _name;
    String_t _longname; ///< the server's line, may be empty
    struct stat _status;
};

/// Writes the line of one entry, without its end.
BRANTLE_API std::ostream& operator<<(std::ostream& out, DirEntry const& entry);

/// Writes a line for each entry, in descending order if `reverse` is not 0. It looks up each user and group
/// once.
BRANTLE_API std::ostream& PutDirEntries(std::ostream& out, TSet<DirEntry, DirEntry::Compare> const& entries,
                                        int reverse);

} // namespace cindral

#endif
