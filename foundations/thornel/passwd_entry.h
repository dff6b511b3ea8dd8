#ifndef BRANTLE_FOUNDATIONS_THORNEL_PASSWD_ENTRY_H
#define BRANTLE_FOUNDATIONS_THORNEL_PASSWD_ENTRY_H

#include <pwd.h>
#include <sys/types.h>

#include <vector>

/// One user's record in the password database.
class PasswdEntry {
public:
    /// Looks the user up; the texts of the previous record are then invalid.
    void Read(uid_t user);

    bool Found() const { return _found != nullptr; }
    /// REQUIRES: `Found()`.
    char const* Name() const { return _found->pw_name; }
    char const* Home() const { return _found->pw_dir; }

private:
    std::vector<char> _texts;
    passwd _record{};
    passwd* _found = nullptr;
};

#endif
