#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <brantle/cindral/exceptions.h>
#include <brantle/sftp/sftp_packet.h>

#include "standard/printable.h"
#include "standard/sftp_pipeline.h"

namespace cindral::standard {

namespace {

constexpr unsigned int SLOT_BITS = 10;
constexpr unsigned int READ_SIZE =
    32768; ///< what every server serves (draft-ietf-secsh-filexfer-02, section 3)
constexpr unsigned int MESSAGE_SIZE = 32768;
constexpr unsigned int BLOCK = 512;     ///< writes are multiples of this
constexpr std::size_t MAX_HANDLE = 256; ///< draft-ietf-secsh-filexfer-02, section 6.2

static_assert(SftpPipeline::MAX_REQUESTS == 1u << SLOT_BITS);

String_t Text(std::string const& text) {
    return String_t(text.data(), static_cast<unsigned int>(text.size()));
}

} // namespace

SftpPipeline::SftpPipeline(DataPort& port, SftpStatus& status, View handle, unsigned int inFlight,
                           Progress progress)
    : _port(port), _handle(handle.Copy()), _status(status), _progress(std::move(progress)),
      _requests(inFlight) {
    if (handle.size() > MAX_HANDLE) throw SshProtocolError("SFTP handle too long");
}

int SftpPipeline::Run() {
    Receiving const receiving(_port, *this);
    for (;;) {
        while (!HasFailed() && SendNext()) {
        }
        if (_waiting == 0) break;
        unsigned long long const before = _done;
        _port.Serve();
        if (_done != before) Report();
    }
    if (HasPart()) throw SshProtocolError("SFTP answer to no request");
    return _result;
}

/// What the program throws ends the copy, but only once no reply is outstanding.
void SftpPipeline::Report() {
    if (_thrown) return;
    try {
        _progress(_done);
    } catch (...) {
        _thrown = std::current_exception();
        FailWith(-ECANCELED);
    }
}

SftpPipeline::Request& SftpPipeline::NewRequest(unsigned long long offset, unsigned int size) {
    Request& request = _requests[_next];
    _next = (_next + 1) % static_cast<unsigned int>(_requests.size());
    Renew(request, offset, size);
    return request;
}

void SftpPipeline::Renew(Request& request, unsigned long long offset, unsigned int size) {
    auto const slot = static_cast<unsigned int>(&request - _requests.data());
    request.id = _sent++ << SLOT_BITS | slot;
    request.offset = offset;
    request.size = size;
    request.isWaiting = true;
    ++_waiting;
}

void SftpPipeline::EndTurn() {
    _requests[_turn].isAnswered = false;
    _turn = (_turn + 1) % static_cast<unsigned int>(_requests.size());
}

void SftpPipeline::FailWith(SftpStatus const& status) {
    if (HasFailed()) return;
    _status = status;
    _result = -1;
}

void SftpPipeline::FailWith(int result) {
    if (!HasFailed()) _result = result;
}

void SftpPipeline::TakeReply(View message) {
    Reader fields(message, "SFTP");
    int const type = fields.Byte();
    unsigned int const id = fields.Int();
    unsigned int const slot = id & (MAX_REQUESTS - 1);
    if (slot >= _requests.size() || !_requests[slot].isWaiting || _requests[slot].id != id)
        throw SshProtocolError("SFTP answer to no request");
    Request& request = _requests[slot];
    request.isWaiting = false;
    --_waiting;
    TakeAnswer(request, type, fields);
}

/// Some servers omit the texts, which the protocol requires since version 3.
SftpStatus SftpPipeline::ReadStatus(Reader& fields) const {
    SftpStatus status;
    status._code = static_cast<int>(fields.Int());
    if (fields.Left() > 0) status._message = Text(Printable(fields.String()));
    if (fields.Left() > 0) status._language = Text(Printable(fields.String()));
    return status;
}

// --- from the server

SftpDownload::SftpDownload(DataPort& port, SftpStatus& status, View handle, unsigned int inFlight,
                           Progress progress, int fd, unsigned long long size)
    : SftpPipeline(port, status, handle, inFlight, std::move(progress)), _io(fd), _size(size) {}

/// Beyond the announced size one request at a time looks for the end: the file may have grown, and some files
/// report no size.
bool SftpDownload::SendNext() {
    if (_hasRest) {
        _hasRest = false;
        Request& request = Turn();
        Renew(request, request.offset, request.size);
        SendRead(request);
        return true;
    }
    if (!HasRoom() || _atEnd || (_asked >= _size && _waiting > 0)) return false;
    SendRead(NewRequest(_asked, READ_SIZE));
    _asked += READ_SIZE;
    return true;
}

void SftpDownload::SendRead(Request const& request) {
    Writer message;
    message.Int(static_cast<unsigned int>(1 + 4 + 4 + _handle.size() + 8 + 4));
    message.Byte(SftpPacket::FXP_READ).Int(request.id).String(_handle);
    message.Int(static_cast<unsigned int>(request.offset >> 32))
        .Int(static_cast<unsigned int>(request.offset));
    _port.Write(message.Int(request.size).Get());
}

void SftpDownload::TakeAnswer(Request& request, int type, Reader& fields) {
    if (type == SftpPacket::FXP_DATA) {
        View const data = fields.String();
        if (data.size() > request.size) throw SshProtocolError("SFTP data beyond what was asked for");
        TakePart(request, data);
    } else if (type == SftpPacket::FXP_STATUS) {
        SftpStatus const status = ReadStatus(fields);
        if (status._code == SftpStatus::FX_OK) throw SshProtocolError("SFTP status in place of data");
        if (status._code != SftpStatus::FX_EOF) return FailWith(status);
        TakePart(request, View());
    } else {
        throw SshProtocolError("invalid sftp response received", type);
    }
}

/// Data is kept until its turn comes. Empty data means the end of the file.
void SftpDownload::TakePart(Request& request, View data) {
    if (HasFailed() || _atEnd) return;
    if (&request != &Turn()) {
        request.data.assign(data.begin(), data.end());
        request.isAnswered = true;
        return;
    }
    if (!Store(data)) return;
    while (!_atEnd && Turn().isAnswered && Store(Turn().data)) {
    }
}

/// Writes the data of the current request. False if it has to be sent again for the rest, or at the end of
/// the file.
bool SftpDownload::Store(View data) {
    Request& request = Turn();
    request.isAnswered = false;
    if (data.empty()) {
        _atEnd = true;
        return false;
    }
    auto from = reinterpret_cast<char const*>(data.data());
    if (_io.Write(from, from + data.size(), 0) < 0) {
        FailWith(-errno);
        return false;
    }
    _done += data.size();
    if (data.size() < request.size) {
        request.offset += data.size();
        request.size -= static_cast<unsigned int>(data.size());
        _hasRest = true;
        return false;
    }
    EndTurn();
    return true;
}

// --- to the server

SftpUpload::SftpUpload(DataPort& port, SftpStatus& status, View handle, unsigned int inFlight,
                       Progress progress, int fd)
    : SftpPipeline(port, status, handle, inFlight, std::move(progress)), _fd(fd),
      _header(4 + 1 + 4 + 4 + handle.size() + 8 + 4) {}

bool SftpUpload::SendNext() {
    if (!HasRoom() || _atEnd) return false;
    std::size_t const size = (MESSAGE_SIZE - _header) / BLOCK * BLOCK;
    unsigned char* room = _port.BeginWrite(_header + size);
    bool const inPlace = room != nullptr;
    if (!inPlace) {
        _staged.resize(_header + size);
        room = _staged.data();
    }
    long const n = ReadFile(room + _header, size);
    if (n > 0) StoreHeader(room, static_cast<unsigned int>(n));
    std::size_t const length = n > 0 ? _header + static_cast<std::size_t>(n) : 0;
    if (inPlace)
        _port.EndWrite(length);
    else if (length > 0)
        _port.Write(View(_staged.data(), length));
    return n > 0;
}

/// Returns the number of bytes, 0 at the end of the file and after a failure.
long SftpUpload::ReadFile(unsigned char* to, std::size_t size) {
    ssize_t n;
    do n = read(_fd, to, size);
    while (n < 0 && errno == EINTR);
    if (n < 0) FailWith(-errno);
    if (n <= 0) _atEnd = true;
    return std::max<long>(n, 0);
}

void SftpUpload::StoreHeader(unsigned char* to, unsigned int size) {
    Request const& request = NewRequest(_offset, size);
    StoreInt(to, static_cast<unsigned int>(_header - 4 + size));
    to[4] = SftpPacket::FXP_WRITE;
    StoreInt(to + 5, request.id);
    StoreInt(to + 9, static_cast<unsigned int>(_handle.size()));
    unsigned char* const next = std::copy(_handle.begin(), _handle.end(), to + 13);
    StoreInt(next, static_cast<unsigned int>(_offset >> 32));
    StoreInt(next + 4, static_cast<unsigned int>(_offset));
    StoreInt(next + 8, size);
    _offset += size;
}

void SftpUpload::TakeAnswer(Request& request, int type, Reader& fields) {
    if (type != SftpPacket::FXP_STATUS) throw SshProtocolError("invalid sftp response received", type);
    SftpStatus const status = ReadStatus(fields);
    if (status._code != SftpStatus::FX_OK) return FailWith(status);
    _done += request.size;
}

} // namespace cindral::standard
