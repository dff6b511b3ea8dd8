#include <brantle/sftp/sftp_client.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

#include <brantle/cindral/exceptions.h>

#include "support/expect_error.h"
#include "support/peer/wire.h"
#include "support/text.h"
#include "unit/channel/plain_connection.h"

using support::Text;
using namespace cindral;
using peer::ToBytes;
using peer::Writer;
using support::ExpectError;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned int ID = 0x01020304;

std::string Text(SftpFileHandle const& handle) {
    return std::string(reinterpret_cast<char const*>(handle._bytes.Data()), handle._bytes.Length());
}

std::string Text(SftpStatus const& status) {
    return std::to_string(status._code) + " " + Text(status._message) + " " + Text(status._language);
}

Writer Head(unsigned int type, unsigned int id) { return Writer().U8(type).U32(id); }

Writer Status(unsigned int code, std::string const& message = "text", std::string const& language = "en",
              unsigned int id = ID) {
    return Head(101, id).U32(code).String(message).String(language);
}

Writer Handle(unsigned int id = ID) { return Head(102, id).String("hdl"); }

Writer Data(std::string const& data, unsigned int id = ID) { return Head(103, id).String(data); }

/// Every name has the long form "-name" and the mode 0644.
Writer Names(std::vector<std::string> const& names, unsigned int id = ID) {
    Writer reply = Head(104, id).U32(static_cast<unsigned int>(names.size()));
    for (std::string const& name : names) reply.String(name).String("-" + name).U32(4).U32(0644);
    return reply;
}

Writer Attrs(unsigned int id = ID) { return Head(105, id).U32(5).U64(0x100000005).U32(0100600); }

SftpFileHandle SomeHandle() { return SftpFileHandle(ByteString("hdl", 3)); }

std::string Names(TOList<SftpName> const& names) {
    std::string text;
    for (TOListIterator<SftpName> name(names); name; ++name) text += Text(name->_filename) + ' ';
    return text;
}

std::string Describe(int result, SftpFileAttr const& attrs) {
    return std::to_string(result) + " " + std::to_string(attrs._flags) + " " + std::to_string(attrs._size) +
           " " + std::to_string(attrs._permissions);
}

/// One operation with the request id ID, and all its outcomes.
struct Operation {
    std::string _name;
    peer::Bytes _request;
    unsigned int _accepted;                   ///< type of the reply to a success
    peer::Bytes _reply;                       ///< that reply
    std::string _cut;                         ///< the words for a reply that is not whole
    std::string _success;                     ///< what `_call` returns then
    std::function<std::string(int)> _refused; ///< what `_call` returns for a code
    std::function<std::string(SftpClient&, SftpStatus&)> _call;
};

void PrintTo(Operation const& operation, std::ostream* out) { *out << operation._name; }

std::string NegatedCode(int code) { return code == INT32_MIN ? std::to_string(code) : std::to_string(-code); }

/// An operation that has only a status for its reply.
Operation StatusOnly(char const* name, Writer const& request,
                     std::function<int(SftpClient&, SftpStatus&)> const& call,
                     std::string const& success = "0") {
    return {name,
            request,
            101,
            Status(0),
            "invalid input",
            success,
            [success](int code) { return code == 0 ? success : NegatedCode(code); },
            [call](SftpClient& c, SftpStatus& s) { return std::to_string(call(c, s)); }};
}

Operation ForHandle(char const* name, Writer const& request,
                    std::function<SftpFileHandle(SftpClient&, SftpStatus&)> const& call) {
    return {name,
            request,
            102,
            Handle(),
            "invalid string length in input",
            "hdl",
            [](int) { return ""; },
            [call](SftpClient& c, SftpStatus& s) { return Text(call(c, s)); }};
}

Operation ForAttrs(char const* name, Writer const& request,
                   std::function<int(SftpClient&, SftpStatus&, SftpFileAttr&)> const& call) {
    return {name,
            request,
            105,
            Attrs(),
            "input too short",
            "0 5 4294967301 33152",
            [](int code) { return NegatedCode(code) + " 0 0 0"; },
            [call](SftpClient& c, SftpStatus& s) {
                SftpFileAttr attrs;
                int const result = call(c, s, attrs);
                return Describe(result, attrs);
            }};
}

Operation ForPath(char const* name, Writer const& request,
                  std::function<int(SftpClient&, SftpStatus&, String_t&)> const& call) {
    return {name,
            request,
            104,
            Names({"/a/b"}),
            "input too short",
            "0 /a/b",
            [](int code) { return NegatedCode(code) + " before"; },
            [call](SftpClient& c, SftpStatus& s) {
                String_t path("before");
                int const result = call(c, s, path);
                return std::to_string(result) + " " + Text(path);
            }};
}

Operation ForData() {
    return {"Read",
            Head(5, ID).String("hdl").U64(0x123456789a).U32(4),
            103,
            Data("data"),
            "input too short",
            "4 data",
            [](int code) { return (code == 1 ? "0" : NegatedCode(code)) + " ...."; },
            [](SftpClient& c, SftpStatus& s) {
                std::string buffer(4, '.');
                int const result = c.Read(s, SomeHandle(), 0x123456789a, buffer.data(), 4);
                return std::to_string(result) + " " + buffer;
            }};
}

Operation ForNames() {
    return {"ReadDir",
            Head(12, ID).String("hdl"),
            104,
            Names({"x", "y"}),
            "input too short",
            "2 before x y ",
            [](int) { return "-1 before "; },
            [](SftpClient& c, SftpStatus& s) {
                TOList<SftpName> names;
                SftpName name;
                name._filename = "before";
                names.Append(name);
                int const result = c.ReadDir(s, SomeHandle(), names);
                return std::to_string(result) + " " + Names(names);
            }};
}

std::vector<Operation> Operations() {
    static SftpFileAttr mode = SftpFileAttr::Default(0640);
    return {
        ForHandle("Open", Head(3, ID).String("/f").U32(26).U32(4).U32(0640),
                  [](auto& c, auto& s) {
                      return c.Open(s, "/f",
                                    SftpClient::SSH_FXF_WRITE | SftpClient::SSH_FXF_CREAT |
                                        SftpClient::SSH_FXF_TRUNC,
                                    mode);
                  }),
        ForHandle("OpenDir", Head(11, ID).String("/d"), [](auto& c, auto& s) { return c.OpenDir(s, "/d"); }),
        StatusOnly("Close", Head(4, ID).String("hdl"),
                   [](auto& c, auto& s) {
                       c.Close(s, SomeHandle());
                       return s._code == INT32_MIN ? s._code : -s._code;
                   }),
        ForData(),
        StatusOnly(
            "Write", Head(6, ID).String("hdl").U64(0x123456789a).String("abc"),
            [](auto& c, auto& s) { return c.Write(s, SomeHandle(), 0x123456789a, "abc", 3); }, "3"),
        ForNames(),
        StatusOnly("Mkdir", Head(14, ID).String("/d").U32(4).U32(0640),
                   [](auto& c, auto& s) { return c.Mkdir(s, "/d", mode); }),
        StatusOnly("Rmdir", Head(15, ID).String("/d"), [](auto& c, auto& s) { return c.Rmdir(s, "/d"); }),
        StatusOnly("Remove", Head(13, ID).String("/f"), [](auto& c, auto& s) { return c.Remove(s, "/f"); }),
        ForAttrs("Lstat", Head(7, ID).String("/f").U32(15),
                 [](auto& c, auto& s, auto& attrs) { return c.Lstat(s, "/f", attrs); }),
        ForAttrs("Stat", Head(17, ID).String("/f").U32(15),
                 [](auto& c, auto& s, auto& attrs) { return c.Stat(s, "/f", attrs); }),
        ForAttrs("StatCore", Head(7, ID).String("/f").U32(15),
                 [](auto& c, auto& s, auto& attrs) { return c.StatCore(7, s, "/f", attrs); }),
        ForAttrs("Fstat", Head(8, ID).String("hdl").U32(15),
                 [](auto& c, auto& s, auto& attrs) { return c.Fstat(s, SomeHandle(), attrs); }),
        StatusOnly("SetStat", Head(9, ID).String("/f").U32(4).U32(0640),
                   [](auto& c, auto& s) { return c.SetStat(s, "/f", mode); }),
        StatusOnly("SetFstat", Head(10, ID).String("hdl").U32(4).U32(0640),
                   [](auto& c, auto& s) { return c.SetFstat(s, SomeHandle(), mode); }),
        StatusOnly("Rename", Head(18, ID).String("/old").String("/new").U32(0),
                   [](auto& c, auto& s) { return c.Rename(s, "/old", "/new"); }),
        StatusOnly("Symlink", Head(20, ID).String("first").String("second"),
                   [](auto& c, auto& s) { return c.Symlink(s, "first", "second"); }),
        ForPath("Readlink", Head(19, ID).String("/l"),
                [](auto& c, auto& s, auto& path) { return c.Readlink(s, "/l", path); }),
        ForPath("Realpath", Head(16, ID).String("."),
                [](auto& c, auto& s, auto& path) { return c.Realpath(s, ".", path); }),
    };
}

/// A client on a connection without keys, whose replies are there before its requests.
class Conversation {
public:
    /// Lets bytes come in as one message of the channel.
    void Receive(peer::Bytes const& bytes) { _connection.Receive(Writer().U8(94).U32(0).String(bytes)); }
    void Reply(peer::Bytes const& message) { Receive(Writer().String(message)); }

    /// The client's messages since the last call.
    std::vector<peer::Bytes> Requests() {
        peer::Bytes bytes;
        for (peer::Bytes const& payload : _connection.Sent()) {
            peer::Reader packet(payload);
            EXPECT_EQ(packet.U8(), 94);
            EXPECT_EQ(packet.U32(), 0u);
            peer::Bytes const data = packet.Blob();
            bytes.insert(bytes.end(), data.begin(), data.end());
        }
        std::vector<peer::Bytes> requests;
        for (peer::Reader reader(bytes); reader.Left() > 0;) requests.push_back(reader.Blob());
        return requests;
    }

    PlainConnection _connection;
    unsigned int _window = 0x200000;
    OSshDataStream _out{_connection._out, 0, _window};
    ISshDataStream _in{_connection._in, _connection._out, 0, _window};
    SftpClient _client{_out, _in};
};

SftpStatus OldStatus() {
    SftpStatus status;
    status._code = 77;
    status._message = "old";
    status._language = "xx";
    return status;
}

class SftpOperation : public testing::TestWithParam<Operation> {
protected:
    SftpOperation() { Restart(); }

    void Restart() {
        _conversation = std::make_unique<Conversation>();
        _conversation->_client._nextId = ID;
        _status = OldStatus();
    }
    std::string Call() { return GetParam()._call(_conversation->_client, _status); }
    std::string Call(peer::Bytes const& reply) {
        _conversation->Reply(reply);
        return Call();
    }
    /// Expects that outcome of a call on a new connection, with the status unchanged.
    void ExpectBroken(peer::Bytes const& reply, std::string const& text, std::string const& detail = "") {
        Restart();
        ExpectError<SshProtocolError>(text, detail, [&] { Call(reply); });
        EXPECT_EQ(Text(_status), "77 old xx");
    }

    std::unique_ptr<Conversation> _conversation;
    SftpStatus _status;
};

TEST_P(SftpOperation, SendsItsRequestWithTheNextId) {
    Call(GetParam()._reply);
    EXPECT_THAT(_conversation->Requests(), ElementsAre(GetParam()._request));
    EXPECT_EQ(_conversation->_client._nextId, ID + 1);
}

TEST_P(SftpOperation, ReplyOfTheExpectedTypeIsTheResult) {
    EXPECT_EQ(Call(GetParam()._reply), GetParam()._success);
    EXPECT_EQ(Text(_status), GetParam()._accepted == 101 ? "0 text en" : "77 old xx");
}

TEST_P(SftpOperation, StatusIsStoredAndItsCodeIsTheResult) {
    for (int code : {0, 2, 3, 4, 5, 31, 0x7fffffff, -1, INT32_MIN}) {
        Restart();
        EXPECT_EQ(Call(Status(static_cast<unsigned int>(code))), GetParam()._refused(code)) << code;
        EXPECT_EQ(Text(_status), std::to_string(code) + " text en");
    }
}

TEST_P(SftpOperation, StatusWithoutTextsOverwritesThem) {
    EXPECT_EQ(Call(Status(4, "", "")), GetParam()._refused(4));
    EXPECT_EQ(Text(_status), "4  ");
}

TEST_P(SftpOperation, EndOfFileIsRefusedExceptForRead) {
    EXPECT_EQ(Call(Status(1)), GetParam()._refused(1));
    EXPECT_EQ(Text(_status), GetParam()._name == "Read" ? "0 text en" : "1 text en");
}

TEST_P(SftpOperation, ReplyOfAnyOtherTypeIsRefused) {
    for (unsigned int type = 0; type < 256; ++type) {
        if (type == 101 || type == GetParam()._accepted) continue;
        ExpectBroken(Head(type, ID).U32(1).String("rest"), "invalid sftp response received",
                     std::to_string(type));
        ExpectBroken(Head(type, ID), "invalid sftp response received", std::to_string(type));
    }
    for (peer::Bytes const& reply :
         {Handle().Data(), Data("d").Data(), Names({"n"}).Data(), Attrs().Data()}) {
        if (reply[0] == GetParam()._accepted) continue;
        ExpectBroken(reply, "invalid sftp response received", std::to_string(reply[0]));
    }
}

TEST_P(SftpOperation, ReplyToAnotherRequestIsRefused) {
    peer::Bytes reply = GetParam()._reply;
    for (std::size_t i = 1; i < 5; ++i) {
        reply[i] ^= 0x80;
        ExpectBroken(reply, "invalid request id");
        reply[i] ^= 0x80;
    }
    ExpectBroken(Head(255, ID + 1), "invalid request id");
}

TEST_P(SftpOperation, ReplyWithoutIdIsRefused) {
    for (std::size_t size = 0; size < 5; ++size)
        ExpectBroken(peer::Slice(GetParam()._reply, 0, size), "error reading sftp response");
}

TEST_P(SftpOperation, TruncatedReplyIsRefusedWithTheTextOfItsMessage) {
    for (std::size_t size = 5; size < GetParam()._reply.size(); ++size)
        ExpectBroken(peer::Slice(GetParam()._reply, 0, size), GetParam()._cut);
    peer::Bytes const status = Status(4);
    for (std::size_t size = 5; size < status.size(); ++size)
        ExpectBroken(peer::Slice(status, 0, size), "invalid input");
}

TEST_P(SftpOperation, ReplyAboveTheLargestFrameIsRefused) {
    Restart();
    _conversation->Receive(Writer().U32(16 * 1024 * 1024 + 1));
    ExpectError<SshProtocolError>("error reading sftp response", "", [&] { Call(); });
}

TEST_P(SftpOperation, FailedInputIsRefusedForEveryReply) {
    _conversation->_in.SetStatus(SockStream::MALFORMED);
    ExpectError<SshProtocolError>("error reading sftp response", "", [&] { Call(GetParam()._reply); });
}

TEST_P(SftpOperation, EndOfTheChannelIsThrownThrough) {
    _conversation->_connection.Receive(Writer().U8(96).U32(0));
    ExpectError<SshProtocolError>("expected CHANNEL_DATA package, received", "96", [&] { Call(); });
}

TEST_P(SftpOperation, ReplyMayArriveInPieces) {
    peer::Bytes const frame = Writer().String(GetParam()._reply);
    for (std::uint8_t byte : frame) _conversation->Receive({byte});
    EXPECT_EQ(Call(), GetParam()._success);
}

INSTANTIATE_TEST_SUITE_P(All, SftpOperation, testing::ValuesIn(Operations()),
                         [](auto const& tested) { return tested.param._name; });

class SftpRequests : public testing::Test, protected Conversation {
protected:
    SftpStatus _status = OldStatus();
};

TEST_F(SftpRequests, FlagsOfOpenAreThoseOfTheProtocol) {
    EXPECT_THAT((std::vector<unsigned int>{SftpClient::SSH_FXF_READ, SftpClient::SSH_FXF_WRITE,
                                           SftpClient::SSH_FXF_APPEND, SftpClient::SSH_FXF_CREAT,
                                           SftpClient::SSH_FXF_TRUNC, SftpClient::SSH_FXF_EXCL}),
                ElementsAre(1, 2, 4, 8, 16, 32));
}

TEST_F(SftpRequests, StartAnnouncesVersion3WithoutTakingAnId) {
    Reply(Writer().U8(2).U32(3));
    EXPECT_EQ(_client.Start(), 3);
    EXPECT_THAT(Requests(), ElementsAre(Writer().U8(1).U32(3).Data()));
    EXPECT_EQ(_client._nextId, 0u);
}

TEST_F(SftpRequests, StartAcceptsAnyVersionAndExtensions) {
    for (int version : {0, 2, 6, 0x7fffffff, -1}) {
        Reply(Writer().U8(2).U32(static_cast<unsigned int>(version)).String("newline").String("\n"));
        EXPECT_EQ(_client.Start(), version);
    }
}

TEST_F(SftpRequests, StartRefusesShortReplies) {
    peer::Bytes const version = Writer().U8(2).U32(3);
    for (std::size_t size : {0u, 1u, 2u, 3u}) {
        Reply(peer::Slice(version, 0, size));
        ExpectError<SshProtocolError>("error reading sftp response", "", [&] { _client.Start(); });
    }
    Reply(peer::Slice(version, 0, 4));
    ExpectError<SshProtocolError>("input too short", "", [&] { _client.Start(); });
}

TEST_F(SftpRequests, StartRefusesAnyOtherType) {
    for (unsigned int type = 0; type < 256; ++type) {
        if (type == 2) continue;
        Reply(Writer().U8(type).U32(3));
        ExpectError<SshProtocolError>("invalid sftp response received", std::to_string(type),
                                      [&] { _client.Start(); });
        Reply(Writer().U8(type).Raw("abc"));
        ExpectError<SshProtocolError>("invalid sftp response received", std::to_string(type),
                                      [&] { _client.Start(); });
        EXPECT_EQ(Requests().size(), 2u);
    }
}

TEST_F(SftpRequests, StartRefusesFailedInput) {
    _in.SetStatus(SockStream::END_OF_INPUT);
    Reply(Writer().U8(2).U32(3));
    ExpectError<SshProtocolError>("error reading sftp response", "", [&] { _client.Start(); });
}

TEST_F(SftpRequests, IdsCountFrom0AndWrap) {
    for (unsigned int id : {0u, 1u, 2u}) {
        Reply(Status(0, "", "", id));
        _client.Remove(_status, "/f");
        EXPECT_THAT(Requests(), ElementsAre(Head(13, id).String("/f").Data()));
    }
    _client._nextId = 0xffffffff;
    for (unsigned int id : {0xffffffffu, 0u}) {
        Reply(Status(0, "", "", id));
        _client.Remove(_status, "/f");
        EXPECT_THAT(Requests(), ElementsAre(Head(13, id).String("/f").Data()));
    }
}

TEST_F(SftpRequests, RefusedRequestsUseIdsToo) {
    Reply(Status(2, "no", "", 0));
    EXPECT_EQ(_client.Remove(_status, "/f"), -2);
    Reply(Status(0, "", "", 5));
    EXPECT_THROW(_client.Remove(_status, "/f"), SshProtocolError);
    EXPECT_EQ(_client._nextId, 2u);
}

TEST_F(SftpRequests, RepliesMayShareAMessage) {
    Receive(Writer().String(Status(0, "", "", 0).Data()).String(Status(3, "", "", 1).Data()));
    EXPECT_EQ(_client.Remove(_status, "/f"), 0);
    EXPECT_EQ(_client.Remove(_status, "/g"), -3);
}

TEST_F(SftpRequests, ResponseIsReturnedUnchanged) {
    peer::Bytes const reply = Head(200, 9).Raw("any");
    Reply(reply);
    ByteString const response = _client.ReadResponse(9);
    EXPECT_EQ(peer::Bytes(response.Data(), response.Data() + response.Length()), reply);
    EXPECT_THAT(Requests(), IsEmpty());
}

TEST_F(SftpRequests, ReadAtEndOfFileReturns0AndKeepsTheTexts) {
    Reply(Status(1, "End of file", "en", 0));
    EXPECT_EQ(_client.Read(_status, SomeHandle(), 0, nullptr, 0), 0);
    EXPECT_EQ(Text(_status), "0 End of file en");
}

TEST_F(SftpRequests, ReadOfZeroBytesReturns0) {
    Reply(Data("", 0));
    EXPECT_EQ(_client.Read(_status, SomeHandle(), 0, nullptr, 0), 0);
    EXPECT_EQ(Text(_status), "77 old xx");
}

TEST_F(SftpRequests, ReadMayReturnFewerBytesThanRequested) {
    std::string buffer(5, '.');
    Reply(Data("abc", 0));
    EXPECT_EQ(_client.Read(_status, SomeHandle(), -2, buffer.data(), 5), 3);
    EXPECT_EQ(buffer, "abc..");
    EXPECT_THAT(Requests(), ElementsAre(Head(5, 0).String("hdl").U64(~1ull).U32(5).Data()));
}

TEST_F(SftpRequests, DataLongerThanRequestedIsABadMessageAndCopiesNothing) {
    std::string buffer(5, '.');
    Reply(Data("abcdef", 0));
    EXPECT_EQ(_client.Read(_status, SomeHandle(), 0, buffer.data(), 5), -5);
    EXPECT_EQ(buffer, ".....");
    EXPECT_EQ(Text(_status), "5 old xx");
    Reply(Data("abcde", 1));
    EXPECT_EQ(_client.Read(_status, SomeHandle(), 0, buffer.data(), 5), 5);
    EXPECT_EQ(buffer, "abcde");
}

TEST_F(SftpRequests, WriteSendsAtMostOneBlock) {
    std::string const data(40000, 'd');
    unsigned int id = 0;
    for (unsigned int length : {0u, 1u, 32785u, 32786u, 32787u, 40000u}) {
        unsigned int const sent = length < 32786 ? length : 32786;
        Reply(Status(0, "", "", id));
        EXPECT_EQ(_client.Write(_status, SomeHandle(), 1, data.data(), length), static_cast<int>(sent));
        EXPECT_THAT(Requests(),
                    ElementsAre(Head(6, id).String("hdl").U64(1).String(data.substr(0, sent)).Data()));
        ++id;
    }
}

TEST_F(SftpRequests, RealpathWithoutExactlyOneNameIsABadMessage) {
    String_t path("before");
    unsigned int id = 0;
    for (std::vector<std::string> const& names : {std::vector<std::string>{}, {"/a", "/b"}}) {
        Reply(Names(names, id++));
        EXPECT_EQ(_client.Realpath(_status, ".", path), -5);
        Reply(Names(names, id++));
        EXPECT_EQ(_client.Readlink(_status, "l", path), -5);
    }
    EXPECT_EQ(Text(path), "before");
    EXPECT_EQ(Text(_status), "77 old xx");
}

TEST_F(SftpRequests, ReplyWithoutNamesKeepsTheStatus) {
    TOList<SftpName> names;
    Reply(Names({}, 0));
    EXPECT_EQ(_client.ReadDir(_status, SomeHandle(), names), 0);
    EXPECT_EQ(Text(_status), "77 old xx");
}

TEST_F(SftpRequests, NamesBeforeABadOneAreKept) {
    TOList<SftpName> names;
    Reply(Head(104, 0).U32(0xffffffff).String("a").String("-a").U32(0).String(""));
    ExpectError<SshProtocolError>("input too short", "",
                                  [&] { _client.ReadDir(_status, SomeHandle(), names); });
    EXPECT_EQ(Names(names), "a ");
}

class SftpDirReader : public SftpRequests {
protected:
    using Reader = SftpClient::DirReader;

    /// Replies to the opening of a directory and, in order, to what follows.
    void Listing(std::vector<peer::Bytes> const& replies) {
        Reply(Handle(0));
        for (peer::Bytes const& reply : replies) Reply(reply);
    }
    static peer::Bytes EndOfFile(unsigned int id) { return Status(1, "end", "en", id); }
    static std::string Entry(Reader const& reader) {
        return Text(reader._filename) + " " + Text(reader._longname) + " " +
               std::to_string(reader._attrs._permissions);
    }

    static peer::Bytes OpenRequest(unsigned int id) { return Head(11, id).String("/d"); }
    static peer::Bytes ReadRequest(unsigned int id) { return Head(12, id).String("hdl"); }
    static peer::Bytes CloseRequest(unsigned int id) { return Head(4, id).String("hdl"); }
};

TEST_F(SftpDirReader, IteratesOverAllRepliesAndClosesOnDestruction) {
    Listing({Names({"a", "b"}, 1), Names({"c"}, 2), EndOfFile(3), Status(0, "", "", 4)});
    {
        Reader reader(_client, "/d");
        EXPECT_EQ(&reader._client, &_client);
        EXPECT_EQ(Text(reader._handle), "hdl");
        EXPECT_EQ(reader._state, Reader::OPEN);
        EXPECT_EQ(Entry(reader), "a -a 420");
        EXPECT_EQ(Names(reader._names), "b ");
        EXPECT_EQ(&++reader, &reader);
        EXPECT_EQ(Entry(reader), "b -b 420");
        EXPECT_THAT(Requests(), ElementsAre(OpenRequest(0), ReadRequest(1)));
        ++reader;
        EXPECT_EQ(Entry(reader), "c -c 420");
        EXPECT_EQ(reader._state, 1u);
        ++reader;
        EXPECT_EQ(Entry(reader), "c -c 420");
        EXPECT_EQ(reader._state, 3u);
        EXPECT_EQ(Text(reader._status), "1 end en");
        ++reader;
        EXPECT_THAT(Requests(), ElementsAre(ReadRequest(2), ReadRequest(3)));
    }
    EXPECT_THAT(Requests(), ElementsAre(CloseRequest(4)));
}

TEST_F(SftpDirReader, EmptyDirectoryIsOpenAndFinished) {
    Listing({EndOfFile(1), Status(0, "", "", 2)});
    Reader reader(_client, "/d");
    EXPECT_EQ(reader._state, Reader::OPEN | Reader::FINISHED);
    EXPECT_EQ(Text(reader._status), "1 end en");
    EXPECT_EQ(Entry(reader), "  0");
    ++reader;
    EXPECT_EQ(reader._state, 3u);
    EXPECT_THAT(Requests(), ElementsAre(OpenRequest(0), ReadRequest(1)));
}

TEST_F(SftpDirReader, ReplyWithoutNamesFinishesToo) {
    Listing({Names({}, 1), Status(0, "", "", 2)});
    Reader const empty(_client, "/d");
    EXPECT_EQ(empty._state, 3u);
    EXPECT_EQ(empty._status._code, 0);
}

TEST_F(SftpDirReader, ReplyWithoutNamesFinishesTheIteration) {
    Listing({Names({"a"}, 1), Names({}, 2), Status(0, "", "", 3)});
    Reader reader(_client, "/d");
    ++reader;
    EXPECT_EQ(reader._state, 3u);
    EXPECT_EQ(Entry(reader), "a -a 420");
}

TEST_F(SftpDirReader, RefusedDirectoryIsNotOpenAndNotClosed) {
    Reply(Status(2, "none", "en", 0));
    {
        Reader reader(_client, "/d");
        EXPECT_EQ(reader._state, 0u);
        EXPECT_EQ(Text(reader._status), "2 none en");
        EXPECT_EQ(Text(reader._handle), "");
        ++reader;
        reader.Close();
        EXPECT_EQ(reader._state, 0u);
    }
    EXPECT_THAT(Requests(), ElementsAre(OpenRequest(0)));
}

TEST_F(SftpDirReader, SuccessStatusInsteadOfAHandleOpensAnEmptyHandle) {
    Reply(Status(0, "", "", 0));
    Reply(Names({"a"}, 1));
    Reply(Status(0, "", "", 2));
    Reader const reader(_client, "/d");
    EXPECT_EQ(reader._state, 1u);
    EXPECT_THAT(Requests(), ElementsAre(OpenRequest(0), Head(12, 1).String("").Data()));
}

TEST_F(SftpDirReader, ClosesOnce) {
    Listing({Names({"a"}, 1), EndOfFile(2), Status(4, "busy", "en", 3)});
    {
        Reader reader(_client, "/d");
        ++reader;
        reader.Close();
        EXPECT_EQ(reader._state, 2u);
        EXPECT_EQ(Text(reader._status), "4 busy en");
        ++reader;
        reader.Close();
    }
    EXPECT_THAT(Requests(), ElementsAre(OpenRequest(0), ReadRequest(1), ReadRequest(2), CloseRequest(3)));
}

TEST_F(SftpDirReader, CloseThatThrowsLeavesItOpen) {
    Listing({Names({"a"}, 1), Handle(2), Status(0, "", "", 3)});
    {
        Reader reader(_client, "/d");
        ExpectError<SshProtocolError>("invalid sftp response received", "102", [&] { reader.Close(); });
        EXPECT_EQ(reader._state, 1u);
    }
    EXPECT_THAT(Requests(), ElementsAre(OpenRequest(0), ReadRequest(1), CloseRequest(2), CloseRequest(3)));
}

TEST_F(SftpDirReader, ReopensUnlessItsStatusIsAFailure) {
    Listing({Names({"a", "rest"}, 1), Status(0, "", "", 2), Handle(3), Names({"b"}, 4), EndOfFile(5),
             Status(0, "", "", 6), Handle(7), EndOfFile(8), Handle(9)});
    Reader reader(_client, "/d");
    reader.Close();
    EXPECT_EQ(reader.Open("/e"), 0);
    EXPECT_EQ(Entry(reader), "rest -rest 420");
    EXPECT_EQ(Names(reader._names), "b ");
    ++reader;
    ++reader;
    EXPECT_EQ(reader._state, 3u);
    reader.Close();
    EXPECT_EQ(reader.Open("/f"), -1);
    EXPECT_EQ(reader._state, 3u);
    EXPECT_EQ(reader.Open("/g"), -1);
    EXPECT_EQ(reader._status._code, 1);
    reader._state = 0;
}

TEST_F(SftpDirReader, ConnectionLostWhileOpeningThrows) {
    Reply(Handle(0));
    Reply(Handle(1));
    ExpectError<SshProtocolError>("invalid sftp response received", "102", [&] { Reader(_client, "/d"); });
}

TEST_F(SftpDirReader, DestructorDropsExceptionsOfClose) {
    Listing({Names({"a"}, 1), Handle(2)});
    {
        Reader const reader(_client, "/d");
    }
    EXPECT_EQ(Requests().size(), 3u);
    Reply(Handle(3));
    Reply(Names({"a"}, 4));
    {
        Reader const reader(_client, "/d");
        _connection.HangUp();
    }
}

class SftpFileControl : public SftpRequests {};

TEST_F(SftpFileControl, ClosesItsHandleWhateverTheReply) {
    unsigned int id = 0;
    for (Writer const& reply : {Status(0, "", "", 0), Status(4, "", "", 1), Handle(2), Handle(7)}) {
        Reply(reply);
        {
            SftpClient::FileControl const control(_client, SomeHandle());
        }
        EXPECT_THAT(Requests(), ElementsAre(Head(4, id).String("hdl").Data()));
        ++id;
    }
}

TEST_F(SftpFileControl, ClosesTheHandleOfARefusedOpen) {
    Reply(Status(2, "none", "en", 0));
    Reply(Status(4, "what?", "en", 1));
    {
        SftpClient::FileControl const control(
            _client, _client.Open(_status, "/f", SftpClient::SSH_FXF_READ, SftpFileAttr()));
        EXPECT_EQ(&control._client, &_client);
        EXPECT_EQ(Text(control._handle), "");
    }
    EXPECT_EQ(Text(_status), "2 none en");
    EXPECT_THAT(Requests(),
                ElementsAre(Head(3, 0).String("/f").U32(1).U32(0).Data(), Head(4, 1).String("").Data()));
}

TEST_F(SftpFileControl, DropsTheExceptionOfABrokenConnection) {
    SftpClient::FileControl const control(_client, SomeHandle());
    _connection.HangUp();
}

TEST(SftpInterface, IsAnAbstractBase) {
    EXPECT_TRUE(std::is_abstract_v<SftpInterface>);
    EXPECT_TRUE(std::has_virtual_destructor_v<SftpInterface>);
    EXPECT_EQ(sizeof(SftpInterface), sizeof(void*));
}

} // namespace
