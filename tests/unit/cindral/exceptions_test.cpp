#include <brantle/cindral/exceptions.h>

#include <climits>

#include <gtest/gtest.h>

using namespace cindral;

namespace {

TEST(CryptoException, MessageIsTextAndDetail) {
    CryptoException const error("too many retries", " DhExchange::GenerateKey");
    EXPECT_STREQ(error.Text().Text(), "too many retries");
    EXPECT_STREQ(error.Detail().Text(), " DhExchange::GenerateKey");
    EXPECT_STREQ(error.what(), "too many retries:  DhExchange::GenerateKey");
}

TEST(CryptoException, MessageWithoutDetailIsTheText) {
    EXPECT_STREQ(CryptoException("text", String_t()).what(), "text");
    EXPECT_STREQ(CryptoException("text", String_t("")).what(), "text");
}

TEST(CryptoException, NullTextReadsAsEmpty) { EXPECT_STREQ(CryptoException(nullptr, String_t()).what(), ""); }

TEST(CryptoException, EncodesNumbersInDecimal) {
    EXPECT_STREQ(CryptoException::EncodeInt(0).Text(), "0");
    EXPECT_STREQ(CryptoException::EncodeInt(-17).Text(), "-17");
    EXPECT_STREQ(CryptoException::EncodeInt(INT_MAX).Text(), "2147483647");
    EXPECT_STREQ(CryptoException::EncodeInt(INT_MIN).Text(), "-2147483648");
}

TEST(SshProtocolError, DetailIsEmptyATextOrANumber) {
    EXPECT_STREQ(SshProtocolError("invalid mac value").what(), "invalid mac value");
    EXPECT_STREQ(SshProtocolError("text", String_t("detail")).what(), "text: detail");
    EXPECT_STREQ(SshProtocolError("unexpected ssh response", 60).what(), "unexpected ssh response: 60");
    EXPECT_STREQ(SshProtocolError("unexpected", 0).Detail().Text(), "0");
}

TEST(SystemError, KeepsErrno) {
    SystemError const error("setsockopt", 22, "7");
    EXPECT_EQ(error.Errno(), 22);
    EXPECT_STREQ(error.Text().Text(), "setsockopt");
    EXPECT_STREQ(error.Detail().Text(), "7");
}

TEST(BadInput, HasATextWithoutDetail) {
    BadInput const error("DhExchange::GenerateKey, dh->p == 0");
    EXPECT_STREQ(error.Text().Text(), "DhExchange::GenerateKey, dh->p == 0");
    EXPECT_STREQ(error.what(), "DhExchange::GenerateKey, dh->p == 0");
}

TEST(InvalidArgument, MessageIsPlaceAndReason) {
    InvalidArgument const error("DhExchange::DhExchange", "type");
    EXPECT_STREQ(error.Text().Text(), "DhExchange::DhExchange");
    EXPECT_STREQ(error.Detail().Text(), "type");
}

TEST(OpenSSLError, NamesTheCall) { EXPECT_STREQ(OpenSSLError("DH_new").Text().Text(), "DH_new"); }

template <typename Thrown>
void ExpectCaughtAsRoot(Thrown const& error) {
    EXPECT_THROW(throw error, CryptoException);
    EXPECT_THROW(throw error, Except);
    EXPECT_THROW(throw error, std::exception);
}

TEST(Exceptions, AllDeriveFromExcept) {
    ExpectCaughtAsRoot(CryptoException("t", "d"));
    ExpectCaughtAsRoot(SshProtocolError("t"));
    ExpectCaughtAsRoot(SystemError("t", 1, "d"));
    ExpectCaughtAsRoot(BadInput("t"));
    ExpectCaughtAsRoot(InvalidArgument("t", "d"));
    ExpectCaughtAsRoot(OpenSSLError("t"));
}

} // namespace
