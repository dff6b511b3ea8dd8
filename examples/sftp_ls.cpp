// Lists remote files in the long form, over SFTP.

#include "sftp.h"

namespace {

using cindral::DirEntry;
using cindral::SftpClientSession;
using cindral::SftpStatus;
using examples::Fail;
using Entries = TSet<DirEntry, DirEntry::Compare>;

struct Options {
    int all = 0;
    int reverse = 0;
};

/// The order of the set no longer matters, so that its names may change.
void MakePrintable(Entries& entries) {
    Entries::Iterator next(entries, 0);
    while (DirEntry* const entry = next()) {
        entry->_name = examples::Printable(entry->_name);
        entry->_longname = examples::Printable(entry->_longname);
    }
}

/// Neither an empty directory nor a missing one has entries.
int ReportWhyNothingIsListed(SftpClientSession& session, String_t const& path) {
    if (SftpClientSession::IsWildcardPath(path))
        return Fail(examples::NOT_LISTED, String_t(path) += ": nothing matches");
    SftpStatus status;
    cindral::SftpFileAttr attrs;
    int const result = session.Stat(status, path, attrs);
    return result < 0 ? examples::FileFailed(examples::NOT_LISTED, path, result, status) : examples::DONE;
}

int List(SftpClientSession& session, String_t const& path, Options const& options) {
    SftpStatus status;
    Entries entries;
    if (session.ListDir(status, entries, path, options.all) < 1)
        return ReportWhyNothingIsListed(session, path);
    MakePrintable(entries);
    PutDirEntries(std::cout, entries, options.reverse);
    return examples::DONE;
}

} // namespace

int main(int, char** argv) {
    char const usage[] =
        "usage: sftp_ls [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] [-a] [-r] [PATH_OR_PATTERN...]";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    Options options;
    char** paths = arguments._rest;
    for (; *paths && **paths == '-'; ++paths) {
        if (std::strcmp(*paths, "-a") == 0)
            options.all = 1;
        else if (std::strcmp(*paths, "-r") == 0)
            options.reverse = 1;
        else
            return Fail(examples::USAGE, usage);
    }
    auto const list = [&](SftpClientSession& session, cindral::StandardDialect const*) {
        if (!*paths) return List(session, ".", options);
        int outcome = examples::DONE;
        for (; *paths; ++paths)
            if (int const status = List(session, *paths, options); status != examples::DONE) outcome = status;
        return outcome;
    };
    return examples::WorkOnFiles<SftpClientSession>(arguments, list);
}
