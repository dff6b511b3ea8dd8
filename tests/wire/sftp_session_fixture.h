#ifndef TESTS_WIRE_SFTP_SESSION_FIXTURE_H
#define TESTS_WIRE_SFTP_SESSION_FIXTURE_H

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <brantle/sftp/sftp_client_session.h>

#include "support/descriptor_state.h"
#include "wire/apps_fixture.h"

/// A session that gives tests access to protected members.
class SftpProgram : public cindral::SftpClientSession {
public:
    explicit SftpProgram(std::uint16_t port) : SftpClientSession(port, "127.0.0.1") {}

    using SftpClientSession::_client;
    using SftpClientSession::_localDir;
    using SftpClientSession::_localHome;
    using SftpClientSession::_remoteDir;
    using SftpClientSession::_remoteHome;
};

/// The messages of draft-ietf-secsh-filexfer-02, byte for byte, except their ids.
namespace sftp {

/// A message that awaits its id.
class Message {
public:
    Message(unsigned type, peer::Bytes fields) : _type(type), _fields(std::move(fields)) {}
    /// One that is these bytes, regardless of the id expected.
    explicit Message(peer::Bytes payload) : _isWhole(true), _fields(std::move(payload)) {}

    unsigned Type() const { return Payload(0).at(0); }
    peer::Bytes Payload(std::uint32_t id) const {
        return _isWhole ? _fields : peer::Bytes(peer::Writer().U8(_type).U32(id).Raw(_fields));
    }

private:
    bool _isWhole = false;
    unsigned _type = 0;
    peer::Bytes _fields;
};

/// An expected request and the reply to it.
struct Exchange {
    Message request;
    Message reply;
};

using Dialogue = std::vector<Exchange>;

constexpr unsigned CLOSE = 4;
constexpr unsigned READ_DIR = 12;

inline Dialogue operator+(Dialogue first, Dialogue const& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Attributes
inline peer::Bytes NoAttrs() { return peer::Writer().U32(0); }
inline peer::Bytes Mode(std::uint32_t mode) { return peer::Writer().U32(4).U32(mode); }
inline peer::Bytes Owner(std::uint32_t uid, std::uint32_t gid) {
    return peer::Writer().U32(2).U32(uid).U32(gid);
}
/// All that there are; the times are 1001 and 1002.
inline peer::Bytes AllAttrs(std::uint64_t size, std::uint32_t uid, std::uint32_t gid, std::uint32_t mode) {
    return peer::Writer().U32(15).U64(size).U32(uid).U32(gid).U32(mode).U32(1001).U32(1002);
}

// Requests
inline Message OfPath(unsigned type, std::string_view path, peer::Bytes const& rest = {}) {
    return {type, peer::Writer().String(path).Raw(rest)};
}
inline Message Open(std::string_view path, std::uint32_t flags, peer::Bytes const& attrs = NoAttrs()) {
    return OfPath(3, path, peer::Writer().U32(flags).Raw(attrs));
}
inline Message Close(std::string_view handle) { return OfPath(4, handle); }
inline Message Read(std::string_view handle, std::uint64_t offset, std::uint32_t length) {
    return OfPath(5, handle, peer::Writer().U64(offset).U32(length));
}
inline Message Write(std::string_view handle, std::uint64_t offset, std::string_view data) {
    return OfPath(6, handle, peer::Writer().U64(offset).String(data));
}
inline Message Lstat(std::string_view path) { return OfPath(7, path, peer::Writer().U32(15)); }
inline Message Fstat(std::string_view handle) { return OfPath(8, handle, peer::Writer().U32(15)); }
inline Message SetStat(std::string_view path, peer::Bytes const& attrs) { return OfPath(9, path, attrs); }
inline Message SetFstat(std::string_view handle, peer::Bytes const& attrs) {
    return OfPath(10, handle, attrs);
}
inline Message OpenDir(std::string_view path) { return OfPath(11, path); }
inline Message ReadDir(std::string_view handle) { return OfPath(12, handle); }
inline Message Remove(std::string_view path) { return OfPath(13, path); }
inline Message Mkdir(std::string_view path, peer::Bytes const& attrs) { return OfPath(14, path, attrs); }
inline Message Rmdir(std::string_view path) { return OfPath(15, path); }
inline Message Realpath(std::string_view path) { return OfPath(16, path); }
inline Message Stat(std::string_view path) { return OfPath(17, path, peer::Writer().U32(15)); }
inline Message Rename(std::string_view from, std::string_view to) {
    return OfPath(18, from, peer::Writer().String(to).U32(0));
}
inline Message Readlink(std::string_view path) { return OfPath(19, path); }
inline Message Symlink(std::string_view first, std::string_view second) {
    return OfPath(20, first, peer::Writer().String(second));
}

// Replies
inline Message Status(std::uint32_t code, std::string_view text = "message",
                      std::string_view language = "en") {
    return {101, peer::Writer().U32(code).String(text).String(language)};
}
inline Message Done() { return Status(0, "done"); }
inline Message Opened(std::string_view handle) { return {102, peer::Writer().String(handle)}; }
inline Message FileData(std::string_view data) { return {103, peer::Writer().String(data)}; }
/// Every name has the long form "-name" and those attributes.
inline Message Names(std::vector<std::string> const& names, peer::Bytes const& attrs = NoAttrs()) {
    peer::Writer fields;
    fields.U32(static_cast<std::uint32_t>(names.size()));
    for (std::string const& name : names) fields.String(name).String("-" + name).Raw(attrs);
    return {104, fields};
}
inline Message Attrs(peer::Bytes const& attrs) { return {105, attrs}; }

/// One of each type, and some that are no reply.
inline std::map<unsigned, Message> Replies() {
    return {
        {2, Message(2, {})},     {101, Status(4)},        {102, Opened("h")},
        {103, FileData("data")}, {104, Names({"/name"})}, {105, Attrs(Mode(0644))},
        {0, Message(0, {})},     {3, Open("/f", 1)},      {200, Message(200, {})},
    };
}

/// Whether a request of the one type has replies of the other.
inline bool Accepts(unsigned request, unsigned reply) {
    switch (reply) {
    case 101:
        return true;
    case 102:
        return request == 3 || request == 11;
    case 103:
        return request == 5;
    case 104:
        return request == 12 || request == 16 || request == 19;
    case 105:
        return request == 7 || request == 8 || request == 17;
    default:
        return false;
    }
}

/// What follows the reading of directories that breaks at that exchange: a directory is closed once a part of
/// it has been read.
inline Dialogue ClosingAfter(Dialogue const& reading, std::size_t i) {
    bool const isLater =
        i > 0 && reading[i].request.Type() == READ_DIR && reading[i - 1].request.Type() == READ_DIR;
    if (!isLater) return {};
    while (reading[i].request.Type() != CLOSE) ++i;
    return {reading[i]};
}

/// Sends the version and the home directory.
inline Dialogue Beginning(std::string_view home = "/home/u") {
    return {
        {Message(peer::Writer().U8(1).U32(3)), Message(peer::Writer().U8(2).U32(3))},
        {Realpath("."), Names({std::string(home)})},
    };
}

/// The dialogue in which a directory is read whose names arrive in one reply. The handle is "d", then its
/// path.
inline Dialogue Listing(std::string const& path, std::vector<std::string> const& names,
                        peer::Bytes const& attrs = NoAttrs()) {
    Dialogue listing{{OpenDir(path), Opened("d" + path)}};
    if (!names.empty()) listing.push_back({ReadDir("d" + path), Names(names, attrs)});
    listing.push_back({ReadDir("d" + path), Status(1, "end")});
    listing.push_back({Close("d" + path), Done()});
    return listing;
}
/// The dialogue for a path that is not a directory.
inline Dialogue NoDirectory(std::string_view path) { return {{OpenDir(path), Status(2, "no directory")}}; }

} // namespace sftp

/// The server's side of the subsystem, in the hands of a script.
class RemoteSftp {
public:
    explicit RemoteSftp(peer::Connection& connection) : _connection(connection) {}

    /// Grants the channel and takes the request of the subsystem.
    void TakeSubsystem() {
        _connection.ConfirmOpen();
        peer::ChannelRequest const request = _connection.ReadChannelRequest();
        if (request.type != "subsystem" || request.wantReply || request.recipient != 42 ||
            request.rest != peer::Writer().String("sftp").Data())
            throw peer::PeerError("a request of type " + request.type);
    }

    /// The payload of the next message.
    peer::Bytes ReadRequest() {
        std::string const size = Take(4);
        return peer::ToBytes(Take(peer::Reader(peer::ToBytes(size)).U32()));
    }
    /// The next message must be this one. Requests are numbered from 0 on; the greeting has no number.
    void Expect(sftp::Message const& request) {
        peer::Bytes const actual = ReadRequest();
        _id = _requests++ == 0 ? 0 : _requests - 2;
        std::string const difference = peer::Difference(request.Payload(_id), actual);
        if (!difference.empty())
            throw peer::PeerError("message " + std::to_string(_requests - 1) + ": " + difference);
    }
    /// Answers the request that was expected last.
    void Reply(sftp::Message const& reply) { SendMessage(reply.Payload(_id)); }
    void SendMessage(peer::Bytes const& payload) {
        std::string const message = peer::ToText(peer::Writer().String(payload));
        for (std::size_t at = 0; at < message.size(); at += 0x8000)
            _connection.SendData(std::string_view(message).substr(at, 0x8000));
    }
    void Follow(sftp::Dialogue const& dialogue) {
        for (sftp::Exchange const& exchange : dialogue) {
            Expect(exchange.request);
            Reply(exchange.reply);
        }
    }
    /// The client must send nothing more; it would get no reply.
    void End() {
        _connection.Wire().ShutdownWrite();
        try {
            for (;;) TakeData();
        } catch (peer::Closed const&) {
        }
        if (!_bytes.empty()) throw peer::PeerError("a message too many: " + peer::Hex(peer::ToBytes(_bytes)));
    }

    peer::Connection& Peer() { return _connection; }

private:
    std::string Take(std::size_t count) {
        while (_bytes.size() < count) TakeData();
        std::string const taken = _bytes.substr(0, count);
        _bytes.erase(0, count);
        return taken;
    }
    /// Both streams of the client have the channel's number 0.
    void TakeData() {
        peer::Reader packet(_connection.ReadPacket());
        std::uint8_t const type = packet.U8();
        if (packet.U32() != 0) throw peer::PeerError("a message for another channel");
        if (type == peer::CHANNEL_WINDOW_ADJUST) return;
        if (type != peer::CHANNEL_DATA) throw peer::PeerError("no data, but " + std::to_string(type));
        _bytes += packet.String();
    }

    peer::Connection& _connection;
    std::string _bytes;
    std::uint32_t _requests = 0;
    std::uint32_t _id = 0;
};

/// Sessions with the files of a scripted server. Its number of the channel is 42, its home directory /home/u.
class SftpSessionTest : public AppTest {
protected:
    using Call = std::function<int(SftpProgram&)>;
    using RemoteScript = std::function<void(RemoteSftp&)>;

    /// The outcome of the call in a session that has started. The client must send exactly the requests of
    /// the dialogue.
    std::string Run(sftp::Dialogue const& dialogue, Call const& call) {
        return RunWith([dialogue](RemoteSftp& remote) { remote.Follow(dialogue); }, call);
    }
    /// The same with a script in place of the dialogue.
    std::string RunWith(RemoteScript const& script, Call const& call) {
        return RunFromLogin(
            [script](RemoteSftp& remote) {
                remote.TakeSubsystem();
                remote.Follow(sftp::Beginning());
                script(remote);
            },
            [call](SftpProgram& session) {
                if (session.Start() != 0) throw std::runtime_error("no start");
                return call(session);
            });
    }
    /// The same for a session that is only logged in.
    std::string RunFromLogin(RemoteScript const& script, Call const& call) {
        Serve([script](peer::Connection& c) {
            c.WellBehaved(peer::Stage::Authenticated);
            RemoteSftp remote(c);
            script(remote);
            remote.End();
        });
        std::string outcome;
        {
            SftpProgram session(server->Port());
            Login(session);
            auto const before = support::OpenDescriptors();
            outcome = Outcome([&] { return call(session); });
            EXPECT_EQ(support::OpenDescriptors(), before);
        }
        try {
            server->Finish();
        } catch (std::exception const& error) {
            ADD_FAILURE() << error.what();
        }
        return outcome;
    }

    /// Replaces each reply of a dialogue by each type that its request does not have, which ends the session.
    /// `tail` is what the client still sends after that exchange. Requests that only close a file are
    /// skipped.
    void ExpectViolations(sftp::Dialogue const& dialogue, Call const& call,
                          std::function<sftp::Dialogue(std::size_t)> const& tail = {}) {
        std::string const expected = Run(dialogue, call);
        for (std::size_t i = 0; i < dialogue.size(); ++i) {
            unsigned const request = dialogue[i].request.Type();
            for (auto const& [type, reply] : sftp::Replies()) {
                if (sftp::Accepts(request, type)) continue;
                SCOPED_TRACE("reply " + std::to_string(i) + " is of type " + std::to_string(type));
                sftp::Dialogue broken = dialogue;
                broken[i].reply = reply;
                if (request != sftp::CLOSE) {
                    broken.resize(i + 1, dialogue[0]);
                    if (tail) broken = broken + tail(i);
                }
                EXPECT_EQ(Run(broken, call), request == sftp::CLOSE ? expected : Violation(type));
            }
        }
    }
    static std::string Violation(unsigned type) {
        return "SshProtocolError: invalid sftp response received: " + std::to_string(type);
    }

    static TOList<String_t> List(std::initializer_list<char const*> names) {
        TOList<String_t> list;
        for (char const* name : names) list.Append(name);
        return list;
    }
    static std::vector<std::string> Texts(TOList<String_t> const& list) {
        std::vector<std::string> texts;
        TOListIterator<String_t> next(list);
        while (String_t const* const text = next()) texts.push_back(Text(*text));
        return texts;
    }
    /// As in "2 no such file en".
    static std::string StatusText(cindral::SftpStatus const& status) {
        return std::to_string(status._code) + " " + Text(status._message) + " " + Text(status._language);
    }
    /// One that shows whether it was written to: StatusText gives "77 before xx" if not.
    static cindral::SftpStatus Marked() {
        cindral::SftpStatus status;
        status._code = 77;
        status._message = "before";
        status._language = "xx";
        return status;
    }
};

#endif
