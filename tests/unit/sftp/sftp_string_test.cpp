#include <brantle/sftp/sftp_string.h>

#include <gtest/gtest.h>

#include "streamed.h"

using namespace cindral;

namespace {

std::string WrittenText(String_t const& text) {
    SftpPacket::EncoderStream out;
    WriteSftpString(out, text);
    return Str(out.Bytes());
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

} // namespace
