#include <brantle/sftp/sftp_replies.h>
#include <brantle/sftp/sftp_requests.h>

#include "message_table.h"
#include "unit/packet/wire.h"

using namespace cindral;

namespace {

SftpFileHandle const HANDLE(Bytes("h"));

SftpFileAttr AllAttrs() {
    SftpFileAttr attrs;
    attrs._flags = 15;
    attrs._size = 0x0102030405060708;
    attrs._uid = 0x11121314;
    attrs._gid = 0x21222324;
    attrs._permissions = 0x31323334;
    attrs._atime = 0x41424344;
    attrs._mtime = 0x51525354;
    return attrs;
}

char const* const ALL_ATTRS = " 0000000f 0102030405060708 11121314 21222324 31323334 41424344 51525354";

/// A message that owns all its fields. `fields` are the constructor's arguments after the request id, given
/// once to build it and found once more, by `get`, in the parsed one.
template <class Message, class Get, class... Fields>
SftpMessage Row(char const* name, char const* wrongType, char const* badFields, std::string const& line,
                Get get, Fields... fields) {
    return {
        name,
        wrongType,
        badFields,
        Wire(line),
        Wire(line),
        [=](Target&) -> MessagePtr { return std::make_unique<Message>(fields...); },
        [](ByteString const& payload, Target&) -> MessagePtr { return std::make_unique<Message>(payload); },
        [=](SftpPacket const& parsed) { return get(static_cast<Message const&>(parsed)).Payload(); }};
}

SftpMessage StatRow(char const* name, int type, std::string const& line) {
    return {name,
            "expected FXP_LSTAT or FXP_STAT package, received",
            "invalid string length in input",
            Wire(line),
            Wire(line),
            [=](Target&) -> MessagePtr {
                return std::make_unique<SftpPacketStat>(type, 7u, "path", 0x61626364u);
            },
            [=](ByteString const& payload, Target&) -> MessagePtr {
                return std::make_unique<SftpPacketStat>(type, payload);
            },
            [=](SftpPacket const& parsed) {
                auto const& stat = static_cast<SftpPacketStat const&>(parsed);
                return SftpPacketStat(type, stat._id, stat._path, stat._attrFlags).Payload();
            }};
}

/// A message whose attributes are its caller's; `build` makes one with the attributes given.
template <class Message, class Build, class Get>
SftpMessage AttrsRow(char const* name, char const* wrongType, char const* badFields, std::string const& line,
                     Build build, Get get) {
    return {name,
            wrongType,
            badFields,
            Wire(line + ALL_ATTRS),
            Wire(line + ALL_ATTRS),
            [=](Target& target) -> MessagePtr {
                target._attrs = AllAttrs();
                return build(target._attrs);
            },
            [](ByteString const& payload, Target& target) -> MessagePtr {
                return std::make_unique<Message>(payload, target._attrs);
            },
            [=](SftpPacket const& parsed) { return get(static_cast<Message const&>(parsed)).Payload(); }};
}

SftpName Name(char const* filename, char const* longname, SftpFileAttr const& attrs) {
    SftpName name;
    name._filename = filename;
    name._longname = longname;
    name._attrs = attrs;
    return name;
}

SftpMessage NameRow() {
    std::string const names = Wire(std::string("00000001 'a' 00000002 '-a'") + ALL_ATTRS +
                                   " 00000002 'bc' 00000001 'l' 00000004 000001a4");
    std::string const head = Wire("68 00000007 00000002");
    return {"Name",
            "expected FXP_NAME package, received",
            "input too short",
            head + names,
            head + Wire("00000002") + names,
            [](Target& target) -> MessagePtr {
                target._names.Append(Name("a", "-a", AllAttrs()));
                target._names.Append(Name("bc", "l", SftpFileAttr::Default(0644)));
                return std::make_unique<SftpPacketName>(7u, target._names);
            },
            [](ByteString const& payload, Target& target) -> MessagePtr {
                return std::make_unique<SftpPacketName>(payload, target._names);
            },
            [](SftpPacket const& parsed) {
                auto const& name = static_cast<SftpPacketName const&>(parsed);
                return SftpPacketName(name._id, name._names).Payload();
            }};
}

} // namespace

// clang-format off
std::vector<SftpMessage> SftpMessages() {
    char const* const BAD_STRING = "invalid string length in input";
    char const* const TOO_SHORT = "input too short";
    return {
        Row<SftpPacketInit>("Init", "expected FXP_INIT package, received", TOO_SHORT, "01 71727374",
            [](auto& m) { return SftpPacketInit(m._version); }, 0x71727374u),
        Row<SftpPacketVersion>("Version", "expected FXP_VERSION package, received", TOO_SHORT, "02 71727374",
            [](auto& m) { return SftpPacketVersion(m._version); }, 0x71727374u),
        Row<SftpPacketOpen>("Open", "expected FXP_OPEN package, received", BAD_STRING,
            std::string("03 00000007 00000004 'file' 0000001a") + ALL_ATTRS,
            [](auto& m) { return SftpPacketOpen(m._id, m._filename, m._pflags, m._attrs); },
            7u, "file", 26u, AllAttrs()),
        Row<SftpPacketClose>("Close", "expected FXP_CLOSE package, received", BAD_STRING, "04 00000007 00000001 'h'",
            [](auto& m) { return SftpPacketClose(m._id, m._handle); }, 7u, HANDLE),
        Row<SftpPacketRead>("Read", "expected FXP_READ package, received", "invalid read packet data",
            "05 00000007 00000001 'h' fffffffffffffffe 00008000",
            [](auto& m) { return SftpPacketRead(m._id, m._handle, m._offset, m._length); }, 7u, HANDLE, -2ll, 32768u),
        Row<SftpPacketWrite>("Write", "expected FXP_WRITE package, received", "invalid write packet data",
            "06 00000007 00000001 'h' 0102030405060708 00000003 640074",
            [](auto& m) { return SftpPacketWrite(m._id, m._handle, m._offset, m._data); },
            7u, HANDLE, 0x0102030405060708ll, Bytes(Wire("640074"))),
        StatRow("Lstat", 7, "07 00000007 00000004 'path' 61626364"),
        StatRow("Stat", 17, "11 00000007 00000004 'path' 61626364"),
        Row<SftpPacketFstat>("Fstat", "expected FXP_FSTAT package, received", TOO_SHORT,
            "08 00000007 00000001 'h' 0000000f",
            [](auto& m) { return SftpPacketFstat(m._id, m._handle, m._attrFlags); }, 7u, HANDLE, 15u),
        AttrsRow<SftpPacketSetstat>("Setstat", "expected FXP_SETSTAT package, received", BAD_STRING,
            "09 00000007 00000004 'path'",
            [](SftpFileAttr& attrs) { return std::make_unique<SftpPacketSetstat>(7u, "path", attrs); },
            [](auto& m) { return SftpPacketSetstat(m._id, m._path, m._attrs); }),
        AttrsRow<SftpPacketFsetstat>("Fsetstat", "expected FXP_FSETSTAT package, received", TOO_SHORT,
            "0a 00000007 00000001 'h'",
            [](SftpFileAttr& attrs) { return std::make_unique<SftpPacketFsetstat>(7u, HANDLE, attrs); },
            [](auto& m) { return SftpPacketFsetstat(m._id, m._handle, m._attrs); }),
        Row<SftpPacketOpenDir>("OpenDir", "expected FXP_OPENDIR package, received", BAD_STRING,
            "0b 00000007 00000004 'path'", [](auto& m) { return SftpPacketOpenDir(m._id, m._path); }, 7u, "path"),
        Row<SftpPacketReadDir>("ReadDir", "expected FXP_READDIR package, received", TOO_SHORT,
            "0c 00000007 00000001 'h'", [](auto& m) { return SftpPacketReadDir(m._id, m._handle); }, 7u, HANDLE),
        Row<SftpPacketRemove>("Remove", "expected FXP_REMOVE package, received", BAD_STRING,
            "0d 00000007 00000004 'path'", [](auto& m) { return SftpPacketRemove(m._id, m._filename); }, 7u, "path"),
        Row<SftpPacketMkdir>("Mkdir", "expected FXP_MKDIR package, received", BAD_STRING,
            std::string("0e 00000007 00000004 'path'") + ALL_ATTRS,
            [](auto& m) { return SftpPacketMkdir(m._id, m._path, m._attrs); }, 7u, "path", AllAttrs()),
        Row<SftpPacketRmdir>("Rmdir", "expected FXP_RMDIR package, received", BAD_STRING,
            "0f 00000007 00000004 'path'", [](auto& m) { return SftpPacketRmdir(m._id, m._path); }, 7u, "path"),
        Row<SftpPacketRealpath>("Realpath", "expected FXP_REALPATH package, received", BAD_STRING,
            "10 00000007 00000004 'path'", [](auto& m) { return SftpPacketRealpath(m._id, m._path); }, 7u, "path"),
        Row<SftpPacketRename>("Rename", "expected FXP_RENAME package, received", BAD_STRING,
            "12 00000007 00000003 'old' 00000004 'new_' 00000000",
            [](auto& m) { return SftpPacketRename(m._id, m._oldPath, m._newPath, m._flags); },
            7u, "old", "new_", 0u),
        Row<SftpPacketReadlink>("Readlink", "expected FXP_READLINK package, received", BAD_STRING,
            "13 00000007 00000004 'path'", [](auto& m) { return SftpPacketReadlink(m._id, m._path); }, 7u, "path"),
        Row<SftpPacketSymlink>("Symlink", "expected FXP_SYMLINK package, received", BAD_STRING,
            "14 00000007 00000005 'first' 00000006 'second'",
            [](auto& m) { return SftpPacketSymlink(m._id, m._firstPath, m._secondPath); }, 7u, "first", "second"),
        Row<SftpPacketStatus>("Status", "expected FXP_STATUS package, received", "invalid input",
            "65 00000007 80000004 00000004 'lost' 00000002 'en'",
            [](auto& m) { return SftpPacketStatus(m._id, m._code, m._message, m._language); },
            7u, 0x80000004u, "lost", "en"),
        Row<SftpPacketHandle>("Handle", "expected FXP_HANDLE package, received", BAD_STRING,
            "66 00000007 00000001 'h'", [](auto& m) { return SftpPacketHandle(m._id, m._handle); }, 7u, HANDLE),
        Row<SftpPacketData>("Data", "expected FXP_DATA package, received", TOO_SHORT, "67 00000007 00000003 640074",
            [](auto& m) { return SftpPacketData(m._id, m._data); }, 7u, Bytes(Wire("640074"))),
        NameRow(),
        AttrsRow<SftpPacketAttrs>("Attrs", "expected FXP_ATTRS package, received", TOO_SHORT, "69 00000007",
            [](SftpFileAttr& attrs) { return std::make_unique<SftpPacketAttrs>(7u, attrs); },
            [](auto& m) { return SftpPacketAttrs(m._id, m._attrs); }),
    };
}
// clang-format on
