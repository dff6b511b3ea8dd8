#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <brantle/channel/ssh_data_stream.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/sftp/sftp_client.h>
#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/file_descriptor.h>

#include "standard/explained.h"
#include "standard/file_copies.h"
#include "standard/printable.h"
#include "standard/sftp_pipeline.h"

namespace cindral::standard {

namespace {

constexpr std::size_t SCP_BLOCK = 32768;
constexpr unsigned int PERMISSIONS = 0777;
constexpr unsigned int PLAIN_FILE = 0666;
constexpr char SCP_OK = 0;
constexpr char SCP_ERROR = 1;

View Name(String_t const& name) { return View(name.Text() ? name.Text() : ""); }

View Handle(SftpFileHandle const& handle) { return View(handle._bytes.Data(), handle._bytes.Length()); }

bool HasControlCharacters(View name) {
    return std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

} // namespace

FileCopies::FileCopies(DataPort& port, CopyOptions const& options, Progress progress, Report report)
    : _port(port), _options(options), _progress(std::move(progress)), _report(std::move(report)) {}

int FileCopies::Fail(int result, String_t const& name, std::string const& reason) {
    _report(Printable(Name(name)) + ": " + reason);
    return result;
}

// --- SFTP

/// Opens the remote file first, so that a refusal leaves the local one as it is.
int FileCopies::ReceiveTo(SftpClient& client, SftpStatus& status, String_t const& remote,
                          OpenLocal const& openLocal) {
    SftpFileHandle const handle = client.Open(status, remote, SftpClient::SSH_FXF_READ, SftpFileAttr());
    if (handle._bytes.Length() == 0) return Fail(-1, remote, Printable(Name(status._message)));
    SftpClient::FileControl const control(client, handle);
    SftpFileAttr attrs;
    SftpStatus ignored; // a server that does not report the size can still send the file
    client.Fstat(ignored, handle, attrs);
    int const fd = openLocal(attrs);
    if (fd < 0) return fd;
    bool const hasSize = attrs._flags & SftpFileAttr::SIZE;
    unsigned long long const size = hasSize ? attrs._size : ~0ull;
    SftpDownload download(
        _port, status, Handle(handle), _options.requestsInFlight,
        [&](unsigned long long done) { _progress(remote, done, hasSize ? size : 0); }, fd, size);
    int const result = download.Run();
    download.Rethrow();
    if (result < -1) return Fail(result, remote, std::strerror(-result));
    if (result < 0) return Fail(result, remote, Printable(Name(status._message)));
    if (!hasSize || download.Done() >= size) return Finish(remote, fd);
    status._code = SftpStatus::FX_EOF;
    status._message = "file is shorter than announced";
    return Fail(-1, remote, "file is shorter than announced");
}

/// File systems over a network report some failures when a descriptor is closed, whichever of the file's.
int FileCopies::Finish(String_t const& name, int fd) {
    int const copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    return copy >= 0 && close(copy) < 0 ? Fail(-errno, name, std::strerror(errno)) : 0;
}

int FileCopies::Receive(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) {
    auto const openLocal = [&](SftpFileAttr const&) {
        return fd < 0 ? Fail(-EBADF, remote, std::strerror(EBADF)) : fd;
    };
    return Explained(_report, [&] { return ReceiveTo(client, status, remote, openLocal); });
}

int FileCopies::Receive(SftpClient& client, SftpStatus& status, String_t const& remote,
                        String_t const& local) {
    FileDescriptor file;
    auto const openLocal = [&](SftpFileAttr const& attrs) {
        unsigned int const mode =
            attrs._flags & SftpFileAttr::PERMISSIONS ? CreationMode(attrs._permissions) : PLAIN_FILE;
        file._fd = open64(local.Text(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
        return file._fd < 0 ? OpenFailed(local, -errno) : file._fd;
    };
    return Explained(_report, [&] { return ReceiveTo(client, status, remote, openLocal); });
}

int FileCopies::Send(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) {
    return Explained(_report, [&] { return SendTo(client, status, remote, fd); });
}

int FileCopies::SendTo(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) {
    constexpr unsigned int flags =
        SftpClient::SSH_FXF_WRITE | SftpClient::SSH_FXF_CREAT | SftpClient::SSH_FXF_TRUNC;
    struct stat64 file;
    if (fstat64(fd, &file) < 0) return Fail(-errno, remote, std::strerror(errno));
    SftpFileAttr attrs;
    if (S_ISREG(file.st_mode)) attrs = SftpFileAttr::Default(file.st_mode & PERMISSIONS);
    SftpFileHandle const handle = client.Open(status, remote, flags, attrs);
    if (handle._bytes.Length() == 0) return Fail(-1, remote, Printable(Name(status._message)));
    auto const size = S_ISREG(file.st_mode) ? static_cast<unsigned long long>(file.st_size) : 0;
    SftpUpload upload(
        _port, status, Handle(handle), _options.requestsInFlight,
        [&](unsigned long long done) { _progress(remote, done, size); }, fd);
    int const result = upload.Run();
    SftpStatus closed;
    client.Close(closed, handle);
    upload.Rethrow();
    if (result < -1) return Fail(result, remote, std::strerror(-result));
    if (result < 0) return Fail(result, remote, Printable(Name(status._message)));
    if (closed._code == SftpStatus::FX_OK) return 0;
    status = closed;
    return Fail(-1, remote, Printable(Name(status._message)));
}

void FileCopies::CheckName(String_t const& name) {
    if (IsSafeName(Name(name))) return;
    Explained(_report, [&] {
        throw SshProtocolError("the server listed a name that no local file may have",
                               String_t(Printable(Name(name)).c_str()));
    });
}

// --- scp

int FileCopies::OpenFailed(String_t const& path, int result) {
    return Fail(result, path, std::strerror(-result));
}

String_t FileCopies::Shown(String_t const& text) { return Printable(Name(text)).c_str(); }

bool FileCopies::CanAnnounce(String_t const& name) {
    bool const can = !HasControlCharacters(Name(name));
    if (!can)
        _report("scp can't name the file " + Printable(Name(name)) + ": its name has control characters");
    return can;
}

unsigned int FileCopies::CreationMode(unsigned int mode) {
    return _options.keepsModes ? mode & PERMISSIONS : PLAIN_FILE;
}

/// A body that the program breaks off by an exception leaves the channel in the middle of it.
void FileCopies::ReportBody(String_t const& name, long long done, long long size) {
    try {
        _progress(name, static_cast<unsigned long long>(done), static_cast<unsigned long long>(size));
    } catch (...) {
        Close();
        throw;
    }
}

void FileCopies::Close() noexcept {
    try {
        _port.Close();
    } catch (...) {
        return; // the connection has failed, too: the program's exception comes first
    }
}

/// If the file has shrunk, the rest is sent as zeros and then reported to the server as an error. Blocks go
/// past the stream's buffer, as messages of their size.
int FileCopies::SendBody(OSshDataStream& out, String_t const& name, int fd, long long size) {
    return Explained(_report, [&] { return SendBlocks(out, name, fd, size); });
}

int FileCopies::SendBlocks(OSshDataStream& out, String_t const& name, int fd, long long size) {
    std::vector<char> block(SCP_BLOCK);
    int failure = 0;
    out.Flush();
    for (long long done = 0; done < size;) {
        auto const wanted = static_cast<std::size_t>(std::min<long long>(size - done, SCP_BLOCK));
        ssize_t n = failure ? 0 : read(fd, block.data(), wanted);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (!failure) failure = n < 0 ? errno : EIO;
            std::fill(block.begin(), block.end(), '\0');
            n = static_cast<ssize_t>(wanted);
        }
        _port.Write(View(std::string_view(block.data(), static_cast<std::size_t>(n))));
        done += n;
        ReportBody(name, done, size);
    }
    out.Put(failure ? SCP_ERROR : SCP_OK);
    if (!failure) return 0;
    out.Writeln("file changed while it was being sent", "\n");
    return Fail(-failure, name, "file changed while it was being sent");
}

int FileCopies::ReceiveBody(ISshDataStream& in, String_t const& name, int fd, long long size) {
    DescriptorIO const file(fd);
    std::vector<char> block(SCP_BLOCK);
    for (long long done = 0; done < size;) {
        auto const wanted = static_cast<int>(std::min<long long>(size - done, SCP_BLOCK));
        if (in.Read(block.data(), wanted).Gcount() < wanted)
            return Fail(-1, name, "the channel has ended early");
        char const* from = block.data();
        if (file.Write(from, from + wanted, 0) < 0) return Fail(-errno, name, std::strerror(errno));
        done += wanted;
        ReportBody(name, done, size);
    }
    return Finish(name, fd);
}

} // namespace cindral::standard
