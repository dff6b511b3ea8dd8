#ifndef TESTS_WIRE_STANDARD_SFTP_DIRECTORY_H
#define TESTS_WIRE_STANDARD_SFTP_DIRECTORY_H

#include <string>
#include <vector>

#include "wire/standard_sftp_server.h"

/// What an SftpServer lists as the one directory that there is, and what the client asks of the files in it.
/// The server then goes on until the client has closed the connection.
class SftpDirectory {
public:
    explicit SftpDirectory(SftpServer& sftp) {
        sftp.instead = [this, &sftp](unsigned type, std::uint32_t id, peer::Reader& fields) {
            return Answer(sftp, type, id, fields);
        };
    }

    std::vector<std::string> names;
    std::vector<std::string> opened;  ///< files, by the names that the client used
    std::vector<std::string> removed; ///< likewise

private:
    static constexpr unsigned OPEN = 3, CLOSE = 4, OPEN_DIRECTORY = 11, READ_DIRECTORY = 12, REMOVE = 13;
    static constexpr std::uint32_t OK = 0, END = 1, NO_SUCH_FILE = 2;

    bool Answer(SftpServer& sftp, unsigned type, std::uint32_t id, peer::Reader& fields) {
        auto const status = [&](std::uint32_t code) {
            sftp.Send(peer::Writer().U8(101).U32(id).U32(code).String("text").String(""));
            return true;
        };
        if (type == CLOSE) return status(OK);
        if (type == OPEN) opened.push_back(fields.String());
        if (type == REMOVE) {
            removed.push_back(fields.String());
            return status(OK);
        }
        if (type == OPEN_DIRECTORY) {
            if (fields.String().find('*') != std::string::npos) return status(NO_SUCH_FILE);
            _isListed = false;
            sftp.Send(peer::Writer().U8(102).U32(id).String("directory"));
            return true;
        }
        if (type != READ_DIRECTORY) return false;
        if (std::exchange(_isListed, true)) return status(END);
        peer::Writer reply;
        reply.U8(104).U32(id).U32(static_cast<std::uint32_t>(names.size()));
        for (std::string const& name : names) reply.String(name).String("").U32(0);
        sftp.Send(reply);
        return true;
    }

    bool _isListed = false;
};

#endif
