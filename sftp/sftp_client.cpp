#include <brantle/sftp/sftp_client.h>

#include <algorithm>

#include <brantle/cindral/exceptions.h>
#include <brantle/sftp/sftp_replies.h>
#include <brantle/sftp/sftp_requests.h>
#include <brantle/thornel/big_endian.h>

namespace cindral {

namespace {

constexpr unsigned int ALL_ATTRS =
    SftpFileAttr::SIZE | SftpFileAttr::UIDGID | SftpFileAttr::PERMISSIONS | SftpFileAttr::ACMODTIME;

constexpr int BAD_MESSAGE = -SftpStatus::FX_BAD_MESSAGE;

/// Reads a message of at least `size` bytes.
ByteString ReadMessage(ISshDataStream& in, unsigned int size) {
    ByteString message;
    in >> message;
    if (in.Status() != 0 || message.Length() < size) throw SshProtocolError("error reading sftp response");
    return message;
}

int Type(ByteString const& message) { return message.Data()[0]; }

unsigned int Id(ByteString const& message) { return GetBigEndian<unsigned int>(message.Data() + 1); }

[[noreturn]] void Refuse(ByteString const& reply) {
    throw SshProtocolError("invalid sftp response received", Type(reply));
}

/// The lowest code can't be negated: it is returned unchanged.
int Negated(int code) { return static_cast<int>(0u - static_cast<unsigned int>(code)); }

/// Stores a reply that must be a status, and returns its negated code.
int TakeStatus(SftpStatus& status, ByteString const& reply) {
    if (Type(reply) != SftpPacket::FXP_STATUS) Refuse(reply);
    SftpPacketStatus const packet(reply);
    status._code = static_cast<int>(packet._code);
    status._message = packet._message;
    status._language = packet._language;
    return Negated(status._code);
}

} // namespace

SftpClient::SftpClient(OSshDataStream& out, ISshDataStream& in) : _out(out), _in(in), _nextId(0) {}

SftpClient::~SftpClient() = default;

int SftpClient::Start() {
    SftpPacketInit request(VERSION);
    Send(request);
    ByteString const reply = ReadMessage(_in, 4);
    if (Type(reply) != SftpPacket::FXP_VERSION) Refuse(reply);
    return static_cast<int>(SftpPacketVersion(reply)._version);
}

ByteString SftpClient::ReadResponse(unsigned int id) {
    ByteString const reply = ReadMessage(_in, 5);
    if (Id(reply) != id) throw SshProtocolError("invalid request id");
    return reply;
}

SftpFileHandle SftpClient::Open(SftpStatus& status, String_t const& path, unsigned int pflags,
                                SftpFileAttr const& attrs) {
    SftpPacketOpen request(_nextId++, path, pflags, attrs);
    return ExchangeForHandle(status, request);
}

SftpFileHandle SftpClient::OpenDir(SftpStatus& status, String_t const& path) {
    SftpPacketOpenDir request(_nextId++, path);
    return ExchangeForHandle(status, request);
}

void SftpClient::Close(SftpStatus& status, SftpFileHandle const& handle) {
    SftpPacketClose request(_nextId++, handle);
    ExchangeForStatus(status, request);
}

int SftpClient::Read(SftpStatus& status, SftpFileHandle const& handle, long long offset, char* buffer,
                     unsigned int length) {
    SftpPacketRead request(_nextId++, handle, offset, length);
    ByteString const reply = Exchange(request);
    if (Type(reply) != SftpPacket::FXP_DATA) {
        int const result = TakeStatus(status, reply);
        if (status._code != SftpStatus::FX_EOF) return result;
        status._code = SftpStatus::FX_OK;
        return 0;
    }
    SftpBufferView data{buffer, length};
    SftpPacketData const decoded(reply, data);
    if (data._length > length) {
        status._code = SftpStatus::FX_BAD_MESSAGE;
        return BAD_MESSAGE;
    }
    return static_cast<int>(data._length);
}

int SftpClient::Write(SftpStatus& status, SftpFileHandle const& handle, long long offset, char const* data,
                      unsigned int length) {
    length = std::min(length, MAX_WRITE);
    SftpPacketWrite request(_nextId++, handle, offset, SftpDataView{data, length});
    int const result = ExchangeForStatus(status, request);
    return result != 0 ? result : static_cast<int>(length);
}

int SftpClient::ReadDir(SftpStatus& status, SftpFileHandle const& handle, TOList<SftpName>& names) {
    SftpPacketReadDir request(_nextId++, handle);
    ByteString const reply = Exchange(request);
    if (Type(reply) == SftpPacket::FXP_NAME) return static_cast<int>(SftpPacketName(reply, names)._count);
    TakeStatus(status, reply);
    return -1;
}

int SftpClient::Mkdir(SftpStatus& status, String_t const& path, SftpFileAttr const& attrs) {
    SftpPacketMkdir request(_nextId++, path, attrs);
    return ExchangeForStatus(status, request);
}

int SftpClient::Rmdir(SftpStatus& status, String_t const& path) {
    SftpPacketRmdir request(_nextId++, path);
    return ExchangeForStatus(status, request);
}

int SftpClient::Remove(SftpStatus& status, String_t const& path) {
    SftpPacketRemove request(_nextId++, path);
    return ExchangeForStatus(status, request);
}

int SftpClient::Lstat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs) {
    return StatCore(SftpPacket::FXP_LSTAT, status, path, attrs);
}

int SftpClient::Stat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs) {
    return StatCore(SftpPacket::FXP_STAT, status, path, attrs);
}

int SftpClient::StatCore(int type, SftpStatus& status, String_t const& path, SftpFileAttr& attrs) {
    SftpPacketStat request(type, _nextId++, path, ALL_ATTRS);
    return ExchangeForAttrs(status, request, attrs);
}

int SftpClient::Fstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs) {
    SftpPacketFstat request(_nextId++, handle, ALL_ATTRS);
    return ExchangeForAttrs(status, request, attrs);
}

int SftpClient::SetStat(SftpStatus& status, String_t const& path, SftpFileAttr& attrs) {
    SftpPacketSetstat request(_nextId++, path, attrs);
    return ExchangeForStatus(status, request);
}

int SftpClient::SetFstat(SftpStatus& status, SftpFileHandle const& handle, SftpFileAttr& attrs) {
    SftpPacketFsetstat request(_nextId++, handle, attrs);
    return ExchangeForStatus(status, request);
}

int SftpClient::Rename(SftpStatus& status, String_t const& oldPath, String_t const& newPath) {
    SftpPacketRename request(_nextId++, oldPath, newPath, 0);
    return ExchangeForStatus(status, request);
}

int SftpClient::Symlink(SftpStatus& status, String_t const& firstPath, String_t const& secondPath) {
    SftpPacketSymlink request(_nextId++, firstPath, secondPath);
    return ExchangeForStatus(status, request);
}

int SftpClient::Readlink(SftpStatus& status, String_t const& path, String_t& result) {
    SftpPacketReadlink request(_nextId++, path);
    return ExchangeForPath(status, request, result);
}

int SftpClient::Realpath(SftpStatus& status, String_t const& path, String_t& result) {
    SftpPacketRealpath request(_nextId++, path);
    return ExchangeForPath(status, request, result);
}

void SftpClient::Send(SftpPacket& request) { _out << request.Payload() << endm; }

ByteString SftpClient::Exchange(SftpPacket& request) {
    Send(request);
    return ReadResponse(request._id);
}

SftpFileHandle SftpClient::ExchangeForHandle(SftpStatus& status, SftpPacket& request) {
    ByteString const reply = Exchange(request);
    if (Type(reply) == SftpPacket::FXP_HANDLE) return SftpPacketHandle(reply)._handle;
    TakeStatus(status, reply);
    return SftpFileHandle();
}

int SftpClient::ExchangeForStatus(SftpStatus& status, SftpPacket& request) {
    return TakeStatus(status, Exchange(request));
}

int SftpClient::ExchangeForAttrs(SftpStatus& status, SftpPacket& request, SftpFileAttr& attrs) {
    ByteString const reply = Exchange(request);
    if (Type(reply) != SftpPacket::FXP_ATTRS) return TakeStatus(status, reply);
    SftpPacketAttrs const decoded(reply, attrs);
    return 0;
}

int SftpClient::ExchangeForPath(SftpStatus& status, SftpPacket& request, String_t& path) {
    ByteString const reply = Exchange(request);
    if (Type(reply) != SftpPacket::FXP_NAME) return TakeStatus(status, reply);
    TOList<SftpName> names;
    if (SftpPacketName(reply, names)._count != 1) return BAD_MESSAGE;
    path = names.First()->_filename;
    return 0;
}

SftpClient::DirReader::DirReader(SftpClient& client, String_t const& path) : _client(client), _state(0) {
    Open(path);
}

SftpClient::DirReader::~DirReader() {
    try {
        Close();
    } catch (...) {
        // a destructor has nobody to report to
    }
}

int SftpClient::DirReader::Open(String_t const& path) {
    _handle = _client.OpenDir(_status, path);
    if (_status._code != 0) return -1;
    _state |= OPEN;
    if (!Receive()) return -1;
    Take();
    return 0;
}

SftpClient::DirReader& SftpClient::DirReader::operator++() {
    if ((_state & (OPEN | FINISHED)) != OPEN) return *this;
    if (_names.First() || Receive()) Take();
    return *this;
}

void SftpClient::DirReader::Close() {
    if (!(_state & OPEN)) return;
    _client.Close(_status, _handle);
    _state &= ~OPEN;
}

/// Requests more entries. Returns whether there are any.
bool SftpClient::DirReader::Receive() {
    if (_client.ReadDir(_status, _handle, _names) > 0) return true;
    _state |= FINISHED;
    return false;
}

/// Makes the first entry received the current one.
void SftpClient::DirReader::Take() {
    SftpName const name = _names.Pop();
    _filename = name._filename;
    _longname = name._longname;
    _attrs = name._attrs;
}

SftpClient::FileControl::FileControl(SftpClient& client, SftpFileHandle const& handle)
    : _client(client), _handle(handle) {}

SftpClient::FileControl::~FileControl() {
    try {
        SftpStatus status;
        _client.Close(status, _handle);
    } catch (...) {
        // a destructor has nobody to report to
    }
}

SftpInterface::SftpInterface() = default;

SftpInterface::~SftpInterface() = default;

} // namespace cindral
