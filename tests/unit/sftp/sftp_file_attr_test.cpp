#include <cstring>

#include <gtest/gtest.h>

#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_file_handle.h>
#include <brantle/sftp/sftp_name.h>
#include <brantle/sftp/sftp_packet.h>
#include <brantle/sftp/sftp_status.h>

#include "unit/packet/wire.h"

using namespace cindral;

namespace {

template <class Value>
std::string Written(Value const& value) {
    SftpPacket::EncoderStream out;
    out << value;
    return Str(out.Bytes());
}

std::string WrittenText(String_t const& text) {
    SftpPacket::EncoderStream out;
    WriteSftpString(out, text);
    return Str(out.Bytes());
}

/// Reads the value and returns the status of the stream.
template <class Value>
unsigned int Read(std::string const& bytes, Value& value) {
    ByteString const payload = Bytes(bytes);
    SftpPacket::DecoderStream in(payload);
    in >> value;
    return in.Status();
}

unsigned int ReadText(std::string const& bytes, String_t& text) {
    ByteString const payload = Bytes(bytes);
    SftpPacket::DecoderStream in(payload);
    ReadSftpString(in, text);
    return in.Status();
}

TEST(SftpStringTest, IsLengthAndText) {
    EXPECT_EQ(WrittenText("text"), Wire("00000004 'text'"));
    EXPECT_EQ(WrittenText(""), Wire("00000000"));
    EXPECT_EQ(WrittenText(String_t()), Wire("00000000"));
    EXPECT_EQ(WrittenText(String_t("a\0b", 3)), Wire("00000001 'a'"));
}

TEST(SftpStringTest, LengthIsBounded) {
    for (unsigned int length : {1u, 262143u, 262144u}) {
        std::string const text(length, 'x');
        String_t read;
        EXPECT_EQ(ReadText(WrittenText(text.c_str()), read), 0u);
        EXPECT_EQ(Str(read), text);
    }
    for (char const* length : {"00000000", "00040001", "80000000", "ffffffff"}) {
        String_t read("old");
        EXPECT_EQ(ReadText(Wire(length) + std::string(262145, 'x'), read), SockStream::MALFORMED) << length;
        EXPECT_EQ(Str(read), "old");
    }
}

TEST(SftpStringTest, ZeroByteEndsTheText) {
    String_t read;
    EXPECT_EQ(ReadText(Wire("00000003 610062"), read), 0u);
    EXPECT_EQ(Str(read), "a");
}

TEST(SftpStringTest, NothingOfAnOlderTextShinesThrough) {
    String_t read("older");
    String_t const shared(read);
    EXPECT_EQ(ReadText(Wire("00000002 'ab'"), read), 0u);
    EXPECT_EQ(Str(read), "ab");
    EXPECT_EQ(Str(shared), "older");

    read = "older";
    EXPECT_EQ(ReadText(Wire("00000009 'ab'"), read), SockStream::END_OF_INPUT);
    EXPECT_EQ(Str(read), "ab");
}

TEST(SftpStringTest, MissingLengthLeavesTheTextAlone) {
    String_t read("old");
    EXPECT_EQ(ReadText(Wire("000000"), read), SockStream::END_OF_INPUT);
    EXPECT_EQ(Str(read), "old");
}

TEST(SftpStringTest, AfterAFailureTheLengthAloneIsRead) {
    ByteString const bytes = Bytes(Wire("00000001 'a' 00000001"));
    SftpPacket::DecoderStream in(bytes);
    in.SetStatus(SockStream::MALFORMED);
    String_t text("old");
    ReadSftpString(in, text);
    EXPECT_EQ(Str(text), "old");
    unsigned char next = 0;
    in >> next;
    EXPECT_EQ(next, 'a');
    EXPECT_EQ(in.Status(), SockStream::MALFORMED);
}

TEST(SftpFileAttrTest, IsEmptyAtFirst) {
    SftpFileAttr const attr;
    EXPECT_EQ(attr._flags, 0u);
    EXPECT_EQ(attr._size, 0u);
    EXPECT_EQ(attr._uid, 0u);
    EXPECT_EQ(attr._gid, 0u);
    EXPECT_EQ(attr._permissions, 0u);
    EXPECT_EQ(attr._atime, 0u);
    EXPECT_EQ(attr._mtime, 0u);
}

struct stat LocalFile() {
    struct stat file;
    std::memset(&file, 0, sizeof(file));
    file.st_size = 0x100000005;
    file.st_uid = 1;
    file.st_gid = 2;
    file.st_mode = S_IFREG | 0640;
    file.st_atime = 3;
    file.st_mtime = 4;
    file.st_nlink = 5;
    return file;
}

TEST(SftpFileAttrTest, TakesAllOfALocalFile) {
    EXPECT_EQ(Written(SftpFileAttr(LocalFile())),
              Wire("0000000f 0000000100000005 00000001 00000002 000081a0 00000003 00000004"));
}

TEST(SftpFileAttrTest, FillsAStatWithTheLowHalfOfTheSize) {
    struct stat file;
    std::memset(&file, 0xff, sizeof(file));
    SftpFileAttr(LocalFile()).FillStat(file);
    struct stat expected = LocalFile();
    expected.st_size = 5;
    expected.st_nlink = 0;
    EXPECT_EQ(std::memcmp(&file, &expected, sizeof(file)), 0);
}

TEST(SftpFileAttrTest, LargestSizesAreCutNotSigned) {
    SftpFileAttr attr;
    attr._flags = SftpFileAttr::SIZE;
    struct stat file;
    for (unsigned long long size : {0xffffffffull, 0xffffffffffffffffull}) {
        attr._size = size;
        attr.FillStat(file);
        EXPECT_EQ(file.st_size, 0xffffffffll);
    }
}

TEST(SftpFileAttrTest, FillsAStatWithWhatIsPresentAlone) {
    for (unsigned int flags = 0; flags < 16; ++flags) {
        SftpFileAttr attr(LocalFile());
        attr._flags = flags;
        struct stat file;
        std::memset(&file, 0xff, sizeof(file));
        attr.FillStat(file);
        EXPECT_EQ(file.st_size, flags & 1 ? 5 : 0);
        EXPECT_EQ(file.st_uid, flags & 2 ? 1u : 0u);
        EXPECT_EQ(file.st_gid, flags & 2 ? 2u : 0u);
        EXPECT_EQ(file.st_mode, flags & 4 ? S_IFREG | 0640u : 0u);
        EXPECT_EQ(file.st_atime, flags & 8 ? 3 : 0);
        EXPECT_EQ(file.st_mtime, flags & 8 ? 4 : 0);
    }
}

TEST(SftpFileAttrTest, DefaultIsPermissionsAlone) {
    EXPECT_EQ(Written(SftpFileAttr::Default(0755)), Wire("00000004 000001ed"));
}

TEST(SftpFileAttrTest, FieldsPresentTravel) {
    for (unsigned int flags = 0; flags < 16; ++flags) {
        SftpFileAttr attr(LocalFile());
        attr._flags = flags;
        std::string const bytes =
            std::string(3, '\0') + static_cast<char>(flags) + (flags & 1 ? Wire("0000000100000005") : "") +
            (flags & 2 ? Wire("00000001 00000002") : "") + (flags & 4 ? Wire("000081a0") : "") +
            (flags & 8 ? Wire("00000003 00000004") : "");
        EXPECT_EQ(Written(attr), bytes);
        SftpFileAttr read;
        EXPECT_EQ(Read(bytes, read), 0u);
        EXPECT_EQ(Written(read), bytes);
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            EXPECT_EQ(Read(bytes.substr(0, length), read), SockStream::END_OF_INPUT);
        }
    }
}

TEST(SftpFileAttrTest, FieldsNotPresentStay) {
    SftpFileAttr attr(LocalFile());
    EXPECT_EQ(Read(Wire("00000004 00000001"), attr), 0u);
    EXPECT_EQ(attr._flags, 4u);
    EXPECT_EQ(attr._permissions, 1u);
    EXPECT_EQ(attr._size, 0x100000005u);
}

TEST(SftpFileAttrTest, FlagsAreWrittenAsTheyAre) {
    SftpFileAttr attr;
    attr._flags = 0xfffffff0;
    EXPECT_EQ(Written(attr), Wire("fffffff0"));
}

TEST(SftpFileAttrTest, UnknownFlagsBringNothing) {
    SftpFileAttr attr;
    EXPECT_EQ(Read(Wire("7ffffff0"), attr), 0u);
    EXPECT_EQ(attr._flags, 0x7ffffff0u);
}

TEST(SftpFileHandleTest, CopiesShareTheBytes) {
    ByteString const bytes = Bytes("handle");
    SftpFileHandle const handle(bytes);
    SftpFileHandle other;
    EXPECT_EQ(other._bytes.Length(), 0u);
    other = handle;
    EXPECT_EQ(other._bytes._rep, bytes._rep);
    SftpFileHandle& self = other;
    other = self;
    EXPECT_EQ(other._bytes._rep, bytes._rep);
    EXPECT_EQ(Str(other._bytes), "handle");
}

TEST(SftpFileHandleTest, IsBytes) {
    EXPECT_EQ(Written(SftpFileHandle(Bytes(Wire("00ff")))), Wire("00000002 00ff"));
    EXPECT_EQ(Written(SftpFileHandle()), Wire("00000000"));
    SftpFileHandle handle;
    EXPECT_EQ(Read(Wire("00000002 00ff"), handle), 0u);
    EXPECT_EQ(Str(handle._bytes), Wire("00ff"));
}

TEST(SftpNameTest, IsTwoTextsAndAttributes) {
    std::string const bytes = Wire("00000004 'file' 00000005 '-rw f' 00000004 000001a4");
    SftpName name;
    EXPECT_EQ(Read(bytes, name), 0u);
    EXPECT_EQ(Str(name._filename), "file");
    EXPECT_EQ(Str(name._longname), "-rw f");
    EXPECT_EQ(name._attrs._permissions, 0644u);
    EXPECT_EQ(Written(name), bytes);
}

TEST(SftpNameTest, ListIsItsNumberAndTheNamesInOrder) {
    TOList<SftpName> names;
    EXPECT_EQ(Written(names), Wire("00000000"));
    names.Append(SftpName())->_filename = "a";
    names.Append(SftpName())->_filename = "b";
    names.Append(SftpName())->_filename = "c";
    EXPECT_EQ(Written(names), Wire("00000003 00000001 'a' 00000000 00000000 00000001 'b' 00000000 00000000"
                                   "00000001 'c' 00000000 00000000"));
}

TEST(SftpStatusTest, IsSuccessAtFirst) {
    SftpStatus const status;
    EXPECT_EQ(status._code, 0);
    EXPECT_EQ(Str(status._message), "");
    EXPECT_EQ(Str(status._language), "");
}

TEST(SftpStatusTest, IsACodeAndTwoTexts) {
    std::string const bytes = Wire("fffffffe 00000004 'text' 00000002 'en'");
    SftpStatus status;
    EXPECT_EQ(Read(bytes, status), 0u);
    EXPECT_EQ(status._code, -2);
    EXPECT_EQ(Str(status._message), "text");
    EXPECT_EQ(Str(status._language), "en");
    EXPECT_EQ(Written(status), bytes);
}

TEST(SftpStatusTest, EmptyTextIsMalformed) {
    SftpStatus status;
    EXPECT_EQ(Read(Wire("00000001 00000000 00000000"), status), SockStream::MALFORMED);
    EXPECT_EQ(status._code, 1);
    EXPECT_EQ(Read(Wire("00000001 00000000 000000"), status),
              SockStream::MALFORMED | SockStream::END_OF_INPUT);
}

} // namespace
