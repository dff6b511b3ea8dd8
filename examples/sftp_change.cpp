// Makes, renames and removes remote files and directories, and changes their modes, over SFTP.

#include "sftp.h"

namespace {

using cindral::SftpClientSession;
using cindral::SftpStatus;
using examples::Fail;

struct Change {
    char const* name;
    int words;   ///< that follow the name
    int subject; ///< which of them names the file
    int (*make)(SftpClientSession& session, SftpStatus& status, char** words);
};

unsigned int Mode(char const* octal) { return static_cast<unsigned int>(std::strtoul(octal, nullptr, 8)); }

Change const changes[] = {
    {"mkdir", 1, 1,
     [](SftpClientSession& session, SftpStatus& status, char** words) {
         return session.Mkdir(status, words[0], 0755);
     }},
    {"rmdir", 1, 1,
     [](SftpClientSession& session, SftpStatus& status, char** words) {
         return session.Rmdir(status, words[0]);
     }},
    {"remove", 1, 1,
     [](SftpClientSession& session, SftpStatus& status, char** words) {
         return session.Remove(status, words[0]);
     }},
    {"rename", 2, 1,
     [](SftpClientSession& session, SftpStatus& status, char** words) {
         return session.Rename(status, words[0], words[1]);
     }},
    {"chmod", 2, 2,
     [](SftpClientSession& session, SftpStatus& status, char** words) {
         return session.Chmod(status, words[1], Mode(words[0]));
     }},
};

Change const* Find(char** words) {
    int count = 0;
    while (words[count]) ++count;
    for (Change const& change : changes)
        if (count == change.words + 1 && std::strcmp(change.name, words[0]) == 0) return &change;
    return nullptr;
}

} // namespace

int main(int, char** argv) {
    char const usage[] = "usage: sftp_change [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] CHANGE\n"
                         "CHANGE is one of: mkdir DIRECTORY, rmdir DIRECTORY, remove FILE_OR_PATTERN,\n"
                         "rename OLD NEW, chmod OCTAL_MODE FILE_OR_PATTERN";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    char** const words = arguments._rest;
    Change const* const change = Find(words);
    if (!change) return Fail(examples::USAGE, usage);
    auto const apply = [&](SftpClientSession& session, cindral::StandardDialect const*) {
        SftpStatus status;
        int const result = change->make(session, status, words + 1);
        if (result >= 0) return static_cast<int>(examples::DONE);
        char const* const subject = words[change->subject];
        // The only failure that does not come from the server.
        if (status._code == SftpStatus::FX_OK)
            return Fail(examples::NOT_CHANGED, String_t(subject) += ": nothing matches");
        return examples::FileFailed(examples::NOT_CHANGED, subject, result, status);
    };
    return examples::WorkOnFiles<SftpClientSession>(arguments, apply);
}
