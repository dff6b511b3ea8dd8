#include <brantle/trust/ssh_agent_access.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include <brantle/cindral/exceptions.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>
#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/sock_io.h>
#include <brantle/thornel/sock_stream.h>

#include "../event/atomic_ref.h"

namespace cindral {

namespace {

// Message numbers of the agent protocol. The three failures come from different generations of agents.
constexpr int AGENT_FAILURE = 5;
constexpr int AGENT_SUCCESS = 6;
constexpr int AGENT_REQUEST_IDENTITIES = 11;
constexpr int AGENT_IDENTITIES = 12;
constexpr int AGENT_SIGN = 13;
constexpr int AGENT_SIGNATURE = 14;
constexpr int AGENT_ADD = 17;
constexpr int AGENT_REMOVE = 18;
constexpr int AGENT_REMOVE_ALL = 19;
constexpr int AGENT_FAILURE_OLD = 30;
constexpr int AGENT_FAILURE_OTHER = 102;

constexpr unsigned int MAX_REPLY = 0x40000;
constexpr unsigned int MAX_IDENTITIES = 1024;
constexpr unsigned int CONNECT_SECONDS = 10;

bool IsFailure(int number) {
    return number == AGENT_FAILURE || number == AGENT_FAILURE_OLD || number == AGENT_FAILURE_OTHER;
}

SshProtocolError BadResponse(int number) { return SshProtocolError("Bad authentication response", number); }

} // namespace

/// The connection of the process.
class SshAgentAccess::Rep {
public:
    explicit Rep(char const* path);

    int Add(PrivateKey const& key, char const* comment);
    int Remove(PublicKey const& key);
    int Clear();
    int Sign(PublicKey const& key, ByteString const& data, DigestType digest, Signature& signature);
    int IsAvailable(PublicKey const& key);

    /// Sends a finished request and returns the reply, which is empty when there is none.
    ByteString Exchange(PacketEncoder& request);

    /// Held during one request and its reply.
    Mutex _mutex;
    /// Number of handles; incremented under `SshAgentAccess::_mutex` but decremented without it, hence
    /// atomic.
    std::uint32_t _count;
    ClientSocketUn _socket;
    FileDescriptor _fd;
    IOSockStream _stream;

private:
    void Connect();
    void Disconnect();
    bool IsConnected() const { return _fd >= 0; }
    int Request(PacketEncoder& request);
};

/// The reply to a request for the identities, and a position in it.
class SshAgentAccess::IteratorRep {
public:
    explicit IteratorRep(Rep* rep);

    bool AtEnd() const { return _index >= _count; }
    void Advance();

    std::uint32_t _count;
    std::uint32_t _index;
    Rep* _rep;
    PacketDecoder _decoder;
    PublicKey _key;
    String_t _name;
    int _err;

private:
    void ReadIdentity();
};

SshAgentAccess::Rep::Rep(char const* path) : _count(0), _socket(String_t(path)) {
    if (path && *path) Connect();
}

void SshAgentAccess::Rep::Connect() {
    int error = 0;
    FileDescriptor fd(_socket.Connect(CONNECT_SECONDS, error));
    // Deliberate: descriptor 0 is a failure (pinned by Agent.DescriptorZeroIsClosedAndNotUsed).
    if (fd == 0 || SockIO::SetCloseOnExec(fd) > 0) return;
    _fd.Reset(fd.Release());
    _stream.Bind(_fd);
}

void SshAgentAccess::Rep::Disconnect() {
    _stream.Unbind();
    _fd.Reset();
}

// The rest of a partly read reply would be taken for the next one, so the connection is closed.
ByteString SshAgentAccess::Rep::Exchange(PacketEncoder& request) {
    request.Terminate();
    static_cast<OSockStream&>(_stream) << request._count;
    _stream.Write(request.Str(), static_cast<int>(request._count));
    ByteString reply;
    // Deliberate: no time limit, as the agent may be asking its user (pinned by
    // Agent.SilentAgentHoldsUpEveryUserOfTheConnection).
    try {
        static_cast<ISockStream&>(_stream) >> reply;
    } catch (...) {
        Disconnect();
        throw;
    }
    bool const unread = _stream.Status() & SockStream::MALFORMED;
    if (unread) Disconnect();
    if (unread || reply.Length() > MAX_REPLY) throw SshProtocolError("response of ssh-agent too long");
    return reply;
}

/// The exchange for a request whose reply is only success or failure.
int SshAgentAccess::Rep::Request(PacketEncoder& request) {
    PacketDecoder decoder(Exchange(request));
    int const number = decoder.ReadByte();
    if (IsFailure(number)) return -number;
    if (number != AGENT_SUCCESS) throw BadResponse(number);
    return 0;
}

int SshAgentAccess::Rep::Add(PrivateKey const& key, char const* comment) {
    MutexGuard guard(_mutex);
    if (!IsConnected()) return -EIO;
    PacketEncoder request(1024);
    request.WriteTypeCode(AGENT_ADD);
    request.WritePrivateKey(key);
    request.WriteString(comment);
    return Request(request);
}

int SshAgentAccess::Rep::Remove(PublicKey const& key) {
    MutexGuard guard(_mutex);
    if (!IsConnected()) return -EIO;
    PacketEncoder request(1024);
    request.WriteTypeCode(AGENT_REMOVE);
    request.WritePublicKey(key);
    return Request(request);
}

int SshAgentAccess::Rep::Clear() {
    MutexGuard guard(_mutex);
    if (!IsConnected()) return -EIO;
    PacketEncoder request(1024);
    request.WriteTypeCode(AGENT_REMOVE_ALL);
    return Request(request);
}

int SshAgentAccess::Rep::Sign(PublicKey const& key, ByteString const& data, DigestType digest,
                              Signature& signature) {
    MutexGuard guard(_mutex);
    if (!IsConnected()) return -EIO;
    PacketEncoder request(1024);
    request.WriteTypeCode(AGENT_SIGN);
    request.WritePublicKey(key);
    request.WriteBytes(data);
    request.WriteInt(0);
    PacketDecoder decoder(Exchange(request));
    int const number = decoder.ReadByte();
    if (IsFailure(number)) return -number;
    if (number != AGENT_SIGNATURE) throw BadResponse(number);
    return signature._rep->Decode(decoder.ReadBytes(), digest);
}

int SshAgentAccess::Rep::IsAvailable(PublicKey const& key) {
    MutexGuard guard(_mutex);
    if (!IsConnected()) return 0;
    for (IteratorRep identity(this); !identity.AtEnd(); identity.Advance()) {
        PublicKey::Rep const* const held = identity._key._rep;
        if (held && key._rep && held->Equals(*key._rep)) return 1;
    }
    return 0;
}

SshAgentAccess::IteratorRep::IteratorRep(Rep* rep) : _count(0), _index(0), _rep(rep), _err(0) {
    if (!_rep) return;
    PacketEncoder request(256);
    request.WriteByte(AGENT_REQUEST_IDENTITIES);
    _decoder.Assign(_rep->Exchange(request));
    int const number = _decoder.ReadByte();
    if (IsFailure(number)) {
        _err = number;
        return;
    }
    if (number != AGENT_IDENTITIES) throw BadResponse(number);
    _count = _decoder.ReadInt();
    if (_count > MAX_IDENTITIES) {
        throw SshProtocolError("Too many identities in authentication reply", static_cast<int>(_count));
    }
    if (_count != 0) ReadIdentity();
}

void SshAgentAccess::IteratorRep::ReadIdentity() {
    _key = _decoder.ReadBytes();
    _name = _decoder.ReadString();
}

void SshAgentAccess::IteratorRep::Advance() {
    ++_index;
    if (!AtEnd()) ReadIdentity();
}

SshAgentAccess::Rep* SshAgentAccess::_instance = nullptr;
Mutex SshAgentAccess::_mutex;

char const* const SshAgentAccess::SSH_AUTH_SOCK = "SSH_AUTH_SOCK";
char const* const SshAgentAccess::SSH_AGENT_PID = "SSH_AGENT_PID";

SshAgentAccess::SshAgentAccess() : _rep(nullptr) {}

SshAgentAccess::SshAgentAccess(char const* envName) : _rep(nullptr) {
    MutexGuard guard(_mutex);
    if (!_instance) _instance = new Rep(std::getenv(envName ? envName : SSH_AUTH_SOCK));
    _rep = _instance;
    AtomicRef(_rep->_count).fetch_add(1, std::memory_order_relaxed);
}

SshAgentAccess::~SshAgentAccess() {
    if (!_rep) return;
    if (AtomicRef(_rep->_count).fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    MutexGuard guard(_mutex);
    // In the meantime another handle may have been created, and may even have been destroyed together with
    // the `Rep`.
    if (_instance != _rep || AtomicRef(_rep->_count).load(std::memory_order_acquire) != 0) return;
    delete _rep;
    _instance = nullptr;
}

int SshAgentAccess::Add(PrivateKey const& key, char const* comment) {
    return _rep ? _rep->Add(key, comment) : -1;
}

int SshAgentAccess::Remove(PublicKey const& key) { return _rep ? _rep->Remove(key) : -1; }

int SshAgentAccess::Clear() { return _rep ? _rep->Clear() : -1; }

int SshAgentAccess::Sign(PublicKey const& key, ByteString const& data, DigestType digest,
                         Signature& signature) {
    return _rep ? _rep->Sign(key, data, digest, signature) : -1;
}

int SshAgentAccess::IsAvailable(PublicKey const& key) { return _rep ? _rep->IsAvailable(key) : 0; }

int SshAgentAccess::GetAgentPid() {
    char const* const pid = std::getenv(SSH_AGENT_PID);
    return pid && *pid ? static_cast<int>(std::strtol(pid, nullptr, 10)) : -1;
}

SshAgentAccess::Iterator::Iterator(SshAgentAccess& access) : _rep(new IteratorRep(access._rep)) {}

SshAgentAccess::Iterator::~Iterator() { delete _rep; }

SshAgentAccess::Iterator::operator void const*() const { return _rep->AtEnd() ? nullptr : _rep; }

SshAgentAccess::Iterator& SshAgentAccess::Iterator::operator++() {
    _rep->Advance();
    return *this;
}

PublicKey& SshAgentAccess::Iterator::operator*() { return _rep->_key; }

PublicKey SshAgentAccess::Iterator::Key() const { return _rep->_key; }

String_t SshAgentAccess::Iterator::Name() const { return _rep->_name; }

int SshAgentAccess::Iterator::Err() const { return _rep->_err; }

} // namespace cindral
