#ifndef BRANTLE_APPS_SCP_SESSION_H
#define BRANTLE_APPS_SCP_SESSION_H

#include <brantle/channel/ssh_data_stream.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

/// Copies plain files to and from a server through the `scp` program there, without the loop. Connect,
/// exchange keys and authenticate first. A session does one transfer, of any number of files in one
/// direction: either one of the calls that do everything, or a start call, the files, and the matching
/// terminate call.
///
/// Permission bits are copied; times and directories are not. Paths are local unless stated otherwise; remote
/// paths are passed to the server's shell unquoted. The caller names the received files; the names that the
/// server sends are ignored. Every call blocks; one thread at a time.
///
/// Results are 0 or a count on success; -1 if the session is not authenticated or the channel has ended; the
/// negated errno value of open(2) if it fails on a local file; and 1 if the server refuses the channel. An
/// error reported by the remote program is thrown as an SshProtocolError: "scp terminated with error", with
/// the program's message as the detail unless it arrives in place of a file to be received, or "scp returned
/// illegal error code". Other protocol violations are thrown as elsewhere. After an exception nothing is
/// deleted: a partly received file remains.
class BRANTLE_API ScpSession : public SshSession {
public:
    /// Takes the target as SshSession does.
    ScpSession(unsigned short port, String_t const& host);
    explicit ScpSession(String_t const& host);
    ~ScpSession() override;

    /// Opens the channel and starts the remote program, which will put files into the remote `target`: a
    /// directory, or the name of a single file.
    int StartSend(String_t const& target);
    /// Sends the file `name` of `dir` under that name. A file that shrinks during the transfer, or can't be
    /// read to its end, arrives shorter than announced, which the remote program detects. If the file grows
    /// after its size has been announced, or if `name` contains a line feed, the remote program interprets
    /// the additional bytes as scp commands: they can create other files, executable ones included. REQUIRES:
    /// nobody else chooses the name or writes to the file.
    int SendFile(String_t const& dir, String_t const& name);
    /// Sends files in turn up to the first negative result. Returns that result, or the number of files.
    int SendFiles(String_t const& dir, TOList<String_t> const& names);
    /// Signals to the remote program that no more files follow. Returns the number of bytes sent.
    int TerminateSend();

    /// Do all of the above. The result is that of the transfer, which is not attempted only if the start
    /// returns a negative result.
    int SendFile(String_t const& dir, String_t const& target, String_t const& name);
    int SendFiles(String_t const& dir, String_t const& target, TOList<String_t> const& names);

    /// Opens the channel and starts the remote program, which will send the files `names` of the remote
    /// `dir`, which may be empty.
    int StartReceive(String_t const& dir, TOList<String_t> const& names);
    /// Stores the next file that the server sends as `name` in `dir`, overwriting an existing file. A new
    /// file gets the mode that the server sends, including the set-user-ID bit, as restricted by the umask.
    /// Throws SystemError "write failed" if write(2) writes fewer bytes than requested.
    int ReceiveFile(String_t const& dir, String_t const& name);
    /// Receives files in turn up to the first negative result, and stores them under these names, in the
    /// order in which the server sends them. Returns that result, or the number of files.
    int ReceiveFiles(String_t const& dir, TOList<String_t> const& names);
    /// Does nothing: the remote program ends on its own.
    void TerminateReceive();

    /// Do all of the above, as for sending.
    int ReceiveFile(String_t const& sourceDir, String_t const& targetDir, String_t const& name);
    int ReceiveFiles(String_t const& sourceDir, String_t const& targetDir, TOList<String_t> const& names);

protected:
    OSshDataStream _output;
    ISshDataStream _input;

private:
    void ParseCLine(String_t const& line, unsigned int& mode, long long& size, Pathname& name);
    /// Flushes and reads the reply of the remote program. Returns 0, or -1 if there is none.
    int ReadResponse();
    /// Reads a line and trims it, unless the stream's status says that it has failed. Not called yet.
    ISockStream& Readln(String_t& line);
    int Start(String_t const& command);
    /// Throws the failure, whose text a dialect keeps.
    [[noreturn]] void Fail(SshProtocolError const& failure);
    String_t Shown(String_t const& text) const;
    void ReceiveBody(int fd, long long size);
};

} // namespace cindral

#endif
