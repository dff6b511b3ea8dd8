// Copies files to or from a remote host, through the scp program there. Files received get their names and
// modes from this side, and not from the server.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <brantle/thornel/file_descriptor.h>

#include "login.h"

namespace {

using cindral::ScpSession;
using cindral::StandardDialect;
using examples::Fail;

int StartFailed(int result, StandardDialect const* dialect) {
    if (result > 0)
        return Fail(examples::CHANNEL_REFUSED, examples::Reason(dialect, "the server refused the channel"));
    return Fail(examples::NOT_COPIED, "the remote scp did not answer");
}

/// -1 can also be a negated errno: EPERM, for a file that may not be opened. A name that scp can't announce
/// is -EINVAL, and the reason names the file.
int FileFailed(String_t const& file, int result, StandardDialect const* dialect) {
    String_t what(file);
    what += ": ";
    what += result == -1 ? "not permitted, or the remote scp did not answer" : std::strerror(-result);
    bool const hasReason = result == -1 || result == -EINVAL;
    return Fail(examples::NOT_COPIED, hasReason ? examples::Reason(dialect, what) : what);
}

/// Creates a local file for ReceiveFile, unless there is one: ReceiveFile itself would create it with the
/// mode that the server names, set-user-ID included. A file that was created is removed again, unless it is
/// kept.
class LocalFile {
public:
    explicit LocalFile(Pathname const& path) : _path(path) {
        FileDescriptor const fd(open64(path.Text(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        _isNew = fd >= 0;
    }
    ~LocalFile() {
        if (_isNew) unlink(_path.Text());
    }
    LocalFile(LocalFile const&) = delete;
    LocalFile& operator=(LocalFile const&) = delete;

    void Keep() { _isNew = false; }

private:
    Pathname _path;
    bool _isNew;
};

int Put(ScpSession& session, StandardDialect const* dialect, char** files, char** last) {
    if (int const result = session.StartSend(*last); result != 0) return StartFailed(result, dialect);
    for (; files != last; ++files) {
        Pathname const file(*files);
        if (int const result = session.SendFile(file.Dir(), file.Leaf(nullptr)); result < 0)
            return FileFailed(file, result, dialect);
    }
    session.TerminateSend();
    return examples::DONE;
}

int Get(ScpSession& session, StandardDialect const* dialect, char** files, char** last) {
    TOList<String_t> names;
    for (char** file = files; file != last; ++file) names.Append(*file);
    if (int const result = session.StartReceive(String_t(), names); result != 0)
        return StartFailed(result, dialect);
    for (; files != last; ++files) {
        // The name is the one that was asked for, not one that the server chooses.
        Pathname const file(*files);
        String_t const name = file.Leaf(nullptr);
        LocalFile local(Pathname(*last).Append(name.Text()));
        if (int const result = session.ReceiveFile(*last, name); result < 0)
            return FileFailed(file, result, dialect);
        local.Keep();
    }
    return examples::DONE;
}

/// An error of the remote program arrives as an exception with the program's words, and so does a full disk.
template <class Copy>
int Try(Copy const& copy) {
    try {
        return copy();
    } catch (cindral::SystemError const& failure) {
        return Fail(examples::NOT_COPIED,
                    (examples::Printable(failure.what()) += ", ") += std::strerror(failure.Errno()));
    } catch (cindral::SshProtocolError const& failure) {
        return Fail(examples::NOT_COPIED, examples::Printable(failure.what()));
    }
}

} // namespace

int main(int, char** argv) {
    char const usage[] =
        "usage: scp_copy [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] put FILE... REMOTE_TARGET\n"
        "       scp_copy [--reduced] [-i IDENTITY] [USER@]HOST[:PORT] get REMOTE_FILE... DIRECTORY";
    examples::CommandLine arguments;
    if (int const status = arguments.Read(argv, usage); status != examples::DONE) return status;
    char** const words = arguments._rest;
    String_t const direction(*words);
    if (direction != "put" && direction != "get") return Fail(examples::USAGE, usage);
    if (!words[1] || !words[2]) return Fail(examples::USAGE, usage);
    char** last = words + 2;
    while (last[1]) ++last;
    auto const copy = [&](ScpSession& session, StandardDialect const* dialect) {
        return Try([&] {
            return direction == "put" ? Put(session, dialect, words + 1, last)
                                      : Get(session, dialect, words + 1, last);
        });
    };
    return examples::LoginAndWork<ScpSession>(arguments, copy);
}
