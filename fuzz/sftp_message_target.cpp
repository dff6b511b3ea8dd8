// The parsers of all SFTP messages and of the records in them.
//
// The input is the payload of one message. It goes to the class of its type, and after type and request id
// it is read as each record. What can be parsed, and what it encodes to afterwards, has to be what WireModel
// says.

#include <string>
#include <string_view>
#include <typeinfo>

#include <brantle/cindral/exceptions.h>
#include <brantle/sftp/sftp_replies.h>
#include <brantle/sftp/sftp_requests.h>
#include <brantle/sftp/sftp_status.h>

#include "finding.h"
#include "wire_model.h"

using namespace cindral;
using fuzz::Require;
using fuzz::SftpModel;

namespace {

constexpr unsigned int HEAD = 5; ///< bytes of type and request id

std::string_view View(ByteString const& bytes) {
    return {reinterpret_cast<char const*>(bytes.Data()), bytes.Length()};
}

class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : _payload(data, static_cast<unsigned int>(size)) {}

    /// A message and its fields, as SftpModel::Read takes them; `arguments` are what its parsing constructor
    /// takes besides the payload.
    template <class Message, class... Arguments>
    void Parse(int type, char const* fields, Arguments&... arguments) const {
        ParseWith<Message>(type, fields, false, [&] { return Message(_payload, arguments...); });
    }
    void ParseStat(int type) const {
        ParseWith<SftpPacketStat>(type, "busu", false, [&] { return SftpPacketStat(type, _payload); });
    }
    /// Only here texts may be empty.
    void ParseStatus() const {
        ParseWith<SftpPacketStatus>(SftpPacket::FXP_STATUS, "buuss", true,
                                    [&] { return SftpPacketStatus(_payload); });
    }

    template <class Record>
    void ReadRecord(char const* fields) const {
        ByteString const bytes = _payload.SubStr(HEAD, _payload.Length());
        SftpModel model(View(bytes));
        model.Read(fields);
        SftpPacket::DecoderStream in(bytes);
        Record record;
        in >> record;
        SftpPacket::EncoderStream out;
        out << record;
        Compare(typeid(Record).name(), in.Status() == 0, out.Bytes(), model, model.Ok() && model.TextsOk());
    }

private:
    template <class Message, class Make>
    void ParseWith(int type, char const* fields, bool takesAnyText, Make const& make) const {
        if (_payload.Length() == 0 || *_payload.Data() != type) return;
        SftpModel model(View(_payload));
        model.Read(fields);
        bool parsed = false;
        ByteString encoded;
        try {
            Message message = make();
            parsed = true;
            Require(message.Payload() == _payload, typeid(Message).name(), "keeps another payload");
            message._payload = ByteString();
            encoded = message.Payload();
        } catch (SshProtocolError const&) {
        }
        Compare(typeid(Message).name(), parsed, encoded, model,
                model.Ok() && (takesAnyText || model.TextsOk()));
    }

    static void Compare(char const* name, bool parsed, ByteString const& encoded, SftpModel const& model,
                        bool good) {
        Require(parsed == good, name, parsed ? "parsed from bad bytes" : "good bytes refused");
        Require(!parsed || View(encoded) == model.Encoded(), name, "encoded to other bytes");
    }

    ByteString _payload;
};

void ParseRequests(Input const& input) {
    SftpFileAttr attrs;
    input.Parse<SftpPacketInit>(SftpPacket::FXP_INIT, "bu");
    input.Parse<SftpPacketOpen>(SftpPacket::FXP_OPEN, "busua");
    input.Parse<SftpPacketClose>(SftpPacket::FXP_CLOSE, "bux");
    input.Parse<SftpPacketRead>(SftpPacket::FXP_READ, "buxqu");
    input.Parse<SftpPacketWrite>(SftpPacket::FXP_WRITE, "buxqx");
    input.ParseStat(SftpPacket::FXP_LSTAT);
    input.ParseStat(SftpPacket::FXP_STAT);
    input.Parse<SftpPacketFstat>(SftpPacket::FXP_FSTAT, "buxu");
    input.Parse<SftpPacketSetstat>(SftpPacket::FXP_SETSTAT, "busa", attrs);
    input.Parse<SftpPacketFsetstat>(SftpPacket::FXP_FSETSTAT, "buxa", attrs);
    input.Parse<SftpPacketOpenDir>(SftpPacket::FXP_OPENDIR, "bus");
    input.Parse<SftpPacketReadDir>(SftpPacket::FXP_READDIR, "bux");
    input.Parse<SftpPacketRemove>(SftpPacket::FXP_REMOVE, "bus");
    input.Parse<SftpPacketMkdir>(SftpPacket::FXP_MKDIR, "busa");
    input.Parse<SftpPacketRmdir>(SftpPacket::FXP_RMDIR, "bus");
    input.Parse<SftpPacketRealpath>(SftpPacket::FXP_REALPATH, "bus");
    input.Parse<SftpPacketRename>(SftpPacket::FXP_RENAME, "bussu");
    input.Parse<SftpPacketReadlink>(SftpPacket::FXP_READLINK, "bus");
    input.Parse<SftpPacketSymlink>(SftpPacket::FXP_SYMLINK, "buss");
}

void ParseReplies(Input const& input) {
    SftpFileAttr attrs;
    TOList<SftpName> names;
    input.Parse<SftpPacketVersion>(SftpPacket::FXP_VERSION, "bu");
    input.ParseStatus();
    input.Parse<SftpPacketHandle>(SftpPacket::FXP_HANDLE, "bux");
    input.Parse<SftpPacketData>(SftpPacket::FXP_DATA, "bux");
    input.Parse<SftpPacketName>(SftpPacket::FXP_NAME, "bun", names);
    input.Parse<SftpPacketAttrs>(SftpPacket::FXP_ATTRS, "bua", attrs);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input const input(data, size);
    ParseRequests(input);
    ParseReplies(input);
    input.ReadRecord<SftpFileAttr>("a");
    input.ReadRecord<SftpFileHandle>("x");
    input.ReadRecord<SftpName>("ssa");
    input.ReadRecord<SftpStatus>("uss");
    return 0;
}
