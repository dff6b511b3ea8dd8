#ifndef BRANTLE_STANDARD_FILE_COPIES_H
#define BRANTLE_STANDARD_FILE_COPIES_H

#include <functional>
#include <string>

#include <brantle/session/file_transfer.h>
#include <brantle/sftp/sftp_file_attr.h>

#include "standard/data_port.h"

namespace cindral::standard {

/// How files are copied.
struct CopyOptions {
    unsigned int requestsInFlight = 64;
    bool keepsModes = false; ///< received files get the server's permission bits, within 0777
};

/// Copies whole files over SFTP, with many requests in flight, and the file contents of scp. An incomplete
/// copy is a failure, whose reason is passed to `report`.
class FileCopies : public FileTransfer {
public:
    using Progress =
        std::function<void(String_t const& name, unsigned long long done, unsigned long long total)>;
    using Report = std::function<void(std::string const& text)>;

    FileCopies(DataPort& port, CopyOptions const& options, Progress progress, Report report);

    int Receive(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) override;
    int Receive(SftpClient& client, SftpStatus& status, String_t const& remote,
                String_t const& local) override;
    int Send(SftpClient& client, SftpStatus& status, String_t const& remote, int fd) override;
    void CheckName(String_t const& name) override;

    int OpenFailed(String_t const& path, int result) override;
    void Failed(char const* text) override { _report(text); }
    String_t Shown(String_t const& text) override;
    bool CanAnnounce(String_t const& name) override;
    unsigned int CreationMode(unsigned int mode) override;
    int SendBody(OSshDataStream& out, String_t const& name, int fd, long long size) override;
    int ReceiveBody(ISshDataStream& in, String_t const& name, int fd, long long size) override;

private:
    /// Opens the local file, with what the server says of the remote one. The descriptor, or minus errno.
    using OpenLocal = std::function<int(SftpFileAttr const& attrs)>;

    int ReceiveTo(SftpClient& client, SftpStatus& status, String_t const& remote, OpenLocal const& openLocal);
    void ReportBody(String_t const& name, long long done, long long size);
    int SendTo(SftpClient& client, SftpStatus& status, String_t const& remote, int fd);
    int SendBlocks(OSshDataStream& out, String_t const& name, int fd, long long size);
    int Finish(String_t const& name, int fd);
    void Close() noexcept;
    int Fail(int result, String_t const& name, std::string const& reason);

    DataPort& _port;
    CopyOptions const& _options;
    Progress _progress;
    Report _report;
};

} // namespace cindral::standard

#endif
