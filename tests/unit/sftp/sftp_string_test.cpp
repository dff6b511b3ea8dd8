#include <brantle/sftp/sftp_string.h>

#include <gtest/gtest.h>

#include "streamed.h"

using namespace cindral;

namespace {

std::string WrittenText(String_t const& text) {
    SftpPacket::EncoderStream out;
    WriteSftpString(out, text);
    return Text(out.Bytes());
}

unsigned int ReadText(std::string const& bytes, String_t& text) {
    ByteString const payload = Bytes(bytes);
    SftpPacket::DecoderStream in(payload);
    ReadSftpString(in, text);
    return in.Status();
}

TEST(SftpString, IsLengthAndText) {
    EXPECT_EQ(WrittenText("text"), Wire("00000004 'text'"));
    EXPECT_EQ(WrittenText(""), Wire("00000000"));
    EXPECT_EQ(WrittenText(String_t()), Wire("00000000"));
    EXPECT_EQ(WrittenText(String_t("a\0b", 3)), Wire("00000001 'a'"));
}

TEST(SftpString, LengthIsBounded) {
    for (unsigned int length : {1u, 262143u, 262144u}) {
        std::string const text(length, 'x');
        String_t read;
        EXPECT_EQ(ReadText(WrittenText(text.c_str()), read), 0u);
        EXPECT_EQ(Text(read), text);
    }
    for (char const* length : {"00000000", "00040001", "80000000", "ffffffff"}) {
        String_t read("old");
        EXPECT_EQ(ReadText(Wire(length) + std::string(262145, 'x'), read), SockStream::MALFORMED) << length;
        EXPECT_EQ(Text(read), "old");
    }
}

TEST(SftpString, ZeroByteEndsTheText) {
    String_t read;
    EXPECT_EQ(ReadText(Wire("00000003 610062"), read), 0u);
    EXPECT_EQ(Text(read), "a");
}

TEST(SftpString, OldTextIsReplacedEntirely) {
    String_t read("older");
    String_t const shared(read);
    EXPECT_EQ(ReadText(Wire("00000002 'ab'"), read), 0u);
    EXPECT_EQ(Text(read), "ab");
    EXPECT_EQ(Text(shared), "older");

    read = "older";
    EXPECT_EQ(ReadText(Wire("00000009 'ab'"), read), SockStream::END_OF_INPUT);
    EXPECT_EQ(Text(read), "ab");
}

TEST(SftpString, MissingLengthKeepsTheText) {
    String_t read("old");
    EXPECT_EQ(ReadText(Wire("000000"), read), SockStream::END_OF_INPUT);
    EXPECT_EQ(Text(read), "old");
}

TEST(SftpString, OnlyTheLengthIsReadAfterAFailure) {
    ByteString const bytes = Bytes(Wire("00000001 'a' 00000001"));
    SftpPacket::DecoderStream in(bytes);
    in.SetStatus(SockStream::MALFORMED);
    String_t text("old");
    ReadSftpString(in, text);
    EXPECT_EQ(Text(text), "old");
    unsigned char next = 0;
    in >> next;
    EXPECT_EQ(next, 'a');
    EXPECT_EQ(in.Status(), SockStream::MALFORMED);
}

} // namespace
