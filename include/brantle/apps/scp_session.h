#ifndef BRANTLE_APPS_SCP_SESSION_H
#define BRANTLE_APPS_SCP_SESSION_H

#include <brantle/channel/ssh_data_stream.h>
#include <brantle/export.h>
#include <brantle/session/ssh_session.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/string_t.h>
#include <generic/tolist>

namespace cindral {

/// Copies plain files to and from a server through the `scp` program there, without the loop. Connect,
/// exchange keys and authenticate first. A session does one transfer, of any number of files in one
/// direction: either one of the calls that do the whole, or a start, the files, and the matching end.
///
/// Permission bits are copied, times and directories are not. Paths are local unless said otherwise; the
/// remote ones go to the server's shell as they stand, without quotes. Received files are named by the
/// caller, and what names the server gives does not matter. Every call blocks; one thread at a time.
///
/// All results are 0 or a count when all is well. -1 stands for a session without a login and for a channel
/// that has ended, a further negative value for minus the errno of open(2) on a local file, and 1 for a
/// channel that the server refused. What the remote program complains of is thrown, as an SshProtocolError
/// "scp terminated with error", with its words as the detail unless they come in place of a file that is to
/// be received, or "scp returned illegal error code"; what else breaks the protocol is thrown as elsewhere.
/// After an exception nothing is deleted: a file that was being received stays as far as it came.
class BRANTLE_API ScpSession : public SshSession {
public:
    /// The target as for SshSession.
    ScpSession(unsigned short port, String_t const& host);
    explicit ScpSession(String_t const& host);
    ~ScpSession() override;

    /// Opens the channel and starts the remote program, which will put files into the remote `target`: a
    /// directory, or the name of a single file.
    int StartSend(String_t const& target);
    /// Sends the file `name` of `dir` under that name. A file that shrinks meanwhile, or can't be read to
    /// its end, arrives shorter than announced, which the remote program notices. What a file grows by after
    /// it was announced, and what follows a line feed in `name`, the remote program takes for instructions:
    /// it makes other files, executable ones too. REQUIRES: nobody else chooses the name or writes to the
    /// file.
    int SendFile(String_t const& dir, String_t const& name);
    /// Sends files in turn up to the first negative result. Returns that, or their number.
    int SendFiles(String_t const& dir, TOList<String_t> const& names);
    /// Tells the remote program that no more files follow. Returns the number of bytes sent.
    int TerminateSend();

    /// All of the above. The result is that of the transfer; only a negative result of the start prevents it.
    int SendFile(String_t const& dir, String_t const& target, String_t const& name);
    int SendFiles(String_t const& dir, String_t const& target, TOList<String_t> const& names);

    /// Opens the channel and starts the remote program on files of the remote `dir`, which may be empty.
    int StartReceive(String_t const& dir, TOList<String_t> const& names);
    /// Stores the next file that the server sends as `name` in `dir`, over what is there. A new file gets the
    /// mode that the server reports, its set-user-ID bit included, less the umask. Throws SystemError "write
    /// failed" if write(2) takes less than it was given.
    int ReceiveFile(String_t const& dir, String_t const& name);
    /// Receives files in turn up to the first negative result, under these names in the order in which the
    /// server sends them. Returns that result, or the number of files.
    int ReceiveFiles(String_t const& dir, TOList<String_t> const& names);
    /// Nothing: the remote program ends by itself.
    void TerminateReceive();

    /// All of the above, as for sending.
    int ReceiveFile(String_t const& sourceDir, String_t const& targetDir, String_t const& name);
    int ReceiveFiles(String_t const& sourceDir, String_t const& targetDir, TOList<String_t> const& names);

protected:
    OSshDataStream _output;
    ISshDataStream _input;

private:
    void ParseCLine(String_t const& line, unsigned int& mode, long long& size, Pathname& name);
    /// Flushes and takes the answer of the remote program. Returns 0, or -1 if there is none.
    int ReadResponse();
    /// Reads a line and trims it, unless the stream's status says that it has failed. Called by nothing yet.
    ISockStream& Readln(String_t& line);
    int Start(String_t const& command);
    void ReceiveBody(int fd, long long size);
};

} // namespace cindral

#endif
