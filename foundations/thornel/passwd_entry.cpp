#include <cerrno>

#include "passwd_entry.h"

void PasswdEntry::Read(uid_t user) {
    if (_texts.empty()) _texts.resize(1024);
    int error;
    while ((error = getpwuid_r(user, &_record, _texts.data(), _texts.size(), &_found)) == ERANGE ||
           error == EINTR) {
        if (error == ERANGE) _texts.resize(_texts.size() * 2);
    }
    if (error != 0) _found = nullptr;
}
