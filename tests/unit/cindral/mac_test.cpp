#include <brantle/cindral/mac.h>

#include <sstream>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>

#include "hex.h"
#include "support/text.h"

using support::Bytes;
using namespace cindral;

namespace {

struct Vector {
    char const* _name;
    unsigned int _keyLength;
    std::string _key; ///< as the RFC has it; zeros up to the key length change nothing (RFC 2104)
    std::string _data;
    char const* _mac;
};

std::ostream& operator<<(std::ostream& out, Vector const& vector) { return out << vector._name; }

/// RFC 2202 and RFC 4231.
Vector const VECTORS[] = {
    {"hmac-sha1", 20, std::string(20, '\x0b'), "Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"},
    {"hmac-sha1", 20, "Jefe", "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
    {"hmac-sha1", 20, std::string(20, '\xaa'), std::string(50, '\xdd'),
     "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
    {"hmac-sha1-96", 20, std::string(20, '\x0c'), "Test With Truncation", "4c1a03424b55e07fe7f27be1"},
    {"hmac-md5", 16, std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
    {"hmac-md5", 16, "Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
    {"hmac-md5", 16, std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6"},
    {"hmac-sha2-256", 32, std::string(20, '\x0b'), "Hi There",
     "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
    {"hmac-sha2-256", 32, "Jefe", "what do ya want for nothing?",
     "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
    {"hmac-sha2-512", 64, std::string(20, '\x0b'), "Hi There",
     "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cde"
     "daa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f1702e696c203a126854"},
    {"hmac-sha2-512", 64, "Jefe", "what do ya want for nothing?",
     "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea250554"
     "9758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b4b636e070a38bce737"},
};

class MacVector : public testing::TestWithParam<Vector> {
protected:
    static std::string Key() {
        std::string key = GetParam()._key;
        key.resize(GetParam()._keyLength);
        return key;
    }
    void Feed(std::string const& data) { _mac._rep->Update(Bytes(data).Data(), Bytes(data).Length()); }
    std::string Finish() {
        _mac._rep->Finish();
        return ToHex(_mac._rep->Value(), _mac._rep->Length());
    }

    Mac _mac;
};

TEST_P(MacVector, IsComputed) {
    _mac.Redefine(GetParam()._name, Bytes(Key()));
    Feed(GetParam()._data);
    EXPECT_EQ(Finish(), GetParam()._mac);
}

TEST_P(MacVector, ResetKeepsTheKey) {
    _mac.Redefine(GetParam()._name, Bytes(Key()));
    for (int i = 0; i < 3; ++i) {
        Feed("left in the middle");
        _mac._rep->Reset();
        Feed(GetParam()._data.substr(0, 3));
        Feed(GetParam()._data.substr(3));
        EXPECT_EQ(Finish(), GetParam()._mac);
        _mac._rep->Reset();
    }
}

TEST_P(MacVector, OnlyTheFirstBytesOfALongerKeyCount) {
    _mac.Redefine(GetParam()._name, Bytes(Key() + "more"));
    Feed(GetParam()._data);
    EXPECT_EQ(Finish(), GetParam()._mac);
}

TEST_P(MacVector, ShortKeyIsRefusedAndKeepsTheOldMac) {
    _mac.Redefine(GetParam()._name, Bytes(Key()));
    EXPECT_THROW(_mac.Redefine(GetParam()._name, Bytes(Key().substr(1))), InvalidArgument);
    Feed(GetParam()._data);
    EXPECT_EQ(Finish(), GetParam()._mac);
}

TEST_P(MacVector, LengthsAreKnown) {
    _mac.Redefine(GetParam()._name, Bytes(Key()));
    EXPECT_EQ(Mac::KeyLength(GetParam()._name), GetParam()._keyLength);
    EXPECT_EQ(_mac._rep->Length() * 2, std::string(GetParam()._mac).size());
}

INSTANTIATE_TEST_SUITE_P(Mac, MacVector, testing::ValuesIn(VECTORS));

TEST(Mac, DefaultHasNoImplementation) {
    Mac mac;
    EXPECT_EQ(mac._rep, nullptr);
    mac.UpdateInt(1);
    EXPECT_EQ(mac._rep, nullptr);
}

TEST(Mac, IntIsFedMostSignificantByteFirst) {
    Mac mac;
    ByteString const key = Bytes(std::string(20, 'k'));
    mac.Redefine("hmac-sha1", key);
    mac.UpdateInt(0x01020304);
    mac._rep->Finish();
    std::string const byInt = ToHex(mac._rep->Value(), 20);
    mac._rep->Reset();
    mac._rep->Update(FromHex("01020304").Data(), 4);
    mac._rep->Finish();
    EXPECT_EQ(ToHex(mac._rep->Value(), 20), byInt);
}

TEST(Mac, UnknownNameHasNoKeyLengthAndIsRefused) {
    for (char const* name : {static_cast<char const*>(nullptr), "", "none", "hmac-sha2"}) {
        EXPECT_EQ(Mac::KeyLength(name), 0u);
        Mac mac;
        EXPECT_THROW(mac.Redefine(name, ByteString(64u)), InvalidArgument);
        EXPECT_EQ(mac._rep, nullptr);
    }
}

TEST(Mac, OffersItsNamesInOrder) {
    EXPECT_STREQ(Mac::AvailableMacs().Text(), "hmac-sha1,hmac-sha1-96,hmac-md5,hmac-sha2-256,hmac-sha2-512");
}

} // namespace
