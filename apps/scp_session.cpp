#include <brantle/apps/scp_session.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include <brantle/cindral/exceptions.h>
#include <brantle/session/file_transfer.h>
#include <brantle/session/session_dialect.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/text.h>

#include "scp_head_line.h"

namespace cindral {

namespace {

/// Deliberate: the largest SFTP write (pinned by ScpReceive.PartialBlockIsNotWritten).
constexpr unsigned int BLOCK_SIZE = 32786;
constexpr char ACKNOWLEDGED = 0;
constexpr char ERROR_WITH_TEXT = 1;
constexpr char FATAL_ERROR = 2;
constexpr char const* EOL = "\n";

Pathname Join(String_t const& dir, String_t const& name) { return Pathname(dir).Append(name.Text()); }

} // namespace

ScpSession::ScpSession(unsigned short port, String_t const& host)
    : SshSession(CLIENT, port, host), _output(_out, 0, _windowSize), _input(_in, _out, 0, _windowSize) {
    _input.Tie(&_output);
}

ScpSession::ScpSession(String_t const& host)
    : SshSession(CLIENT, host), _output(_out, 0, _windowSize), _input(_in, _out, 0, _windowSize) {
    _input.Tie(&_output);
}

ScpSession::~ScpSession() = default;

int ScpSession::Start(String_t const& command) {
    if (!_authenticated) return -1;
    if (int const result = Open(); result < 0) return -result;
    StartCommand(command, true);
    return 0;
}

int ScpSession::StartSend(String_t const& target) {
    String_t command("scp -t ");
    command += target;
    int const started = Start(command);
    return started != 0 ? started : ReadResponse();
}

int ScpSession::SendFile(String_t const& dir, String_t const& name) {
    if (_dialect && !_dialect->Transfer().CanAnnounce(name)) return -EINVAL;
    Pathname const path = Join(dir, name);
    FileDescriptor const fd(open64(str_text(path.Text()), O_RDONLY | O_CLOEXEC));
    if (fd < 0) return _dialect ? _dialect->Transfer().OpenFailed(path, -errno) : -errno;
    struct stat64 status;
    if (int const result = fstat64(fd, &status); result < 0) return result;
    char block[BLOCK_SIZE];
    // Deliberate: a line feed in the name and anything appended to the file after this are sent too; the
    // remote program interprets them as further lines (pinned by ScpSend.LineFeedInANameIsSentUnchanged and
    // ScpSend.FileThatGrowsMeanwhileIsSentWhole).
    std::snprintf(block, sizeof block, "C0%03o %lld %s", status.st_mode & 0777u,
                  static_cast<long long>(status.st_size), str_text(name.Text()));
    _output.Writeln(block, EOL);
    if (int const result = ReadResponse(); result < 0) return result;
    if (_dialect) {
        int const sent = _dialect->Transfer().SendBody(_output, name, fd, status.st_size);
        int const answer = ReadResponse();
        return sent < 0 ? sent : answer;
    }
    for (ssize_t n; (n = read(fd, block, sizeof block)) > 0;) _output.Write(block, static_cast<int>(n));
    _output.Put(ACKNOWLEDGED);
    return ReadResponse();
}

int ScpSession::SendFiles(String_t const& dir, TOList<String_t> const& names) {
    int sent = 0;
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next()) {
        if (int const result = SendFile(dir, *name); result < 0) return result;
        ++sent;
    }
    return sent;
}

int ScpSession::TerminateSend() {
    _output.Writeln("E", EOL);
    return _output.Flush();
}

int ScpSession::SendFile(String_t const& dir, String_t const& target, String_t const& name) {
    if (int const started = StartSend(target); started < 0) return started;
    int const result = SendFile(dir, name);
    TerminateSend();
    return result;
}

int ScpSession::SendFiles(String_t const& dir, String_t const& target, TOList<String_t> const& names) {
    if (int const started = StartSend(target); started < 0) return started;
    int const result = SendFiles(dir, names);
    TerminateSend();
    return result;
}

int ScpSession::StartReceive(String_t const& dir, TOList<String_t> const& names) {
    String_t command("scp -f");
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next()) (command += " ") += Join(dir, *name);
    if (int const started = Start(command); started != 0) return started;
    _output.Put(ACKNOWLEDGED);
    return 0;
}

int ScpSession::ReceiveFile(String_t const& dir, String_t const& name) {
    String_t line;
    do {
        if (_input.Readln(line, EOL).Status() != 0) return -1;
        char const kind = *line.Text();
        if (kind == ERROR_WITH_TEXT || kind == FATAL_ERROR)
            Fail(SshProtocolError("scp terminated with error",
                                  _dialect ? Shown(line.SubStr(1, UINT_MAX)) : String_t()));
    } while (*line.Text() != 'C');
    unsigned int mode = 0;
    long long size = 0;
    Pathname announced;
    ParseCLine(Shown(line.SubStr(1, UINT_MAX)), mode, size, announced);
    _output.Put(ACKNOWLEDGED);
    Pathname const path = Join(dir, name);
    // Deliberate without a dialect: the server's mode, set-user-ID and all, as far as the umask lets it
    // (pinned by ScpReceive.ModeOfTheServerIsTakenWithItsSpecialBits).
    FileDescriptor const fd(open64(str_text(path.Text()), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                                   _dialect ? _dialect->Transfer().CreationMode(mode) : mode));
    if (fd < 0) return _dialect ? _dialect->Transfer().OpenFailed(path, -errno) : -errno;
    if (_dialect) {
        if (int const result = _dialect->Transfer().ReceiveBody(_input, name, fd, size); result < 0)
            return result;
    } else {
        ReceiveBody(fd, size);
    }
    int const result = ReadResponse();
    if (result >= 0) _output.Put(ACKNOWLEDGED);
    return result;
}

void ScpSession::ReceiveBody(int fd, long long size) {
    char block[BLOCK_SIZE];
    while (size >= 1) {
        auto const wanted = static_cast<int>(std::min<long long>(size, sizeof block));
        if (_input.Read(block, wanted).Status() != 0) return;
        ssize_t const written = write(fd, block, static_cast<std::size_t>(_input.Gcount()));
        if (written != _input.Gcount()) throw SystemError("write failed", errno, "data");
        size -= written;
    }
}

int ScpSession::ReceiveFiles(String_t const& dir, TOList<String_t> const& names) {
    int received = 0;
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next()) {
        if (int const result = ReceiveFile(dir, *name); result < 0) return result;
        ++received;
    }
    return received;
}

void ScpSession::TerminateReceive() {}

int ScpSession::ReceiveFile(String_t const& sourceDir, String_t const& targetDir, String_t const& name) {
    TOList<String_t> names;
    names.Append(name);
    if (int const started = StartReceive(sourceDir, names); started < 0) return started;
    int const result = ReceiveFile(targetDir, name);
    TerminateReceive();
    return result;
}

int ScpSession::ReceiveFiles(String_t const& sourceDir, String_t const& targetDir,
                             TOList<String_t> const& names) {
    if (int const started = StartReceive(sourceDir, names); started < 0) return started;
    int const result = ReceiveFiles(targetDir, names);
    TerminateReceive();
    return result;
}

void ScpSession::ParseCLine(String_t const& line, unsigned int& mode, long long& size, Pathname& name) {
    try {
        ParseScpHeadLine(line, mode, size, name);
    } catch (SshProtocolError const& failure) {
        Fail(failure);
    }
}

int ScpSession::ReadResponse() {
    _output.Flush();
    char code = 0;
    int const got = _input.Get(code);
    if (got < 1) return got == 0 ? -1 : got;
    if (code == ACKNOWLEDGED) return 0;
    if (code == FATAL_ERROR) Fail(SshProtocolError("scp terminated with error"));
    if (code != ERROR_WITH_TEXT) Fail(SshProtocolError("scp returned illegal error code"));
    String_t text;
    _input.Readln(text, EOL);
    Fail(SshProtocolError("scp terminated with error", Shown(text.Trim())));
}

void ScpSession::Fail(SshProtocolError const& failure) {
    if (_dialect) _dialect->Transfer().Failed(failure.what());
    throw failure;
}

/// With a dialect, a text of the server's may be shown on a terminal.
String_t ScpSession::Shown(String_t const& text) const {
    return _dialect ? _dialect->Transfer().Shown(text) : text;
}

ISockStream& ScpSession::Readln(String_t& line) {
    _input.Readln(line, EOL);
    if (_input.Status() == 0) line = line.Trim();
    return _input;
}

} // namespace cindral
