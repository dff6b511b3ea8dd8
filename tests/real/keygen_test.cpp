// ssh-keygen as the judge of the known_hosts lines that the library writes and of its signatures, and the
// library as the judge of ssh-keygen's.

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <brantle/cindral/enter_password.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/cindral/signature.h>
#include <brantle/trust/known_hosts.h>

#include "support/new_process.h"
#include "support/servers/process.h"
#include "support/servers/test_keys.h"

using cindral::KnownHosts;
using cindral::PrivateKey;
using cindral::PublicKey;
using cindral::Signature;
using servers::Outcome;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

/// Throw-away keys, and an empty list of known hosts.
class Keygen : public testing::Test {
protected:
    static void SetUpTestSuite() {
        _keys = std::make_unique<servers::TemporaryDirectory>();
        servers::MakeTestKeys(_keys->Path().string());
    }
    static void TearDownTestSuite() { _keys.reset(); }

    Keygen() {
        std::filesystem::create_directories(Home() + "/.ssh");
        std::filesystem::remove(KnownHostsFile());
    }

    static std::string File(std::string const& name) { return *_keys / name; }
    /// The directory that the test program has for its home.
    static std::string Home() { return std::getenv("HOME"); }
    static std::string KnownHostsFile() { return Home() + "/.ssh/known_hosts"; }

    static PublicKey Public(std::string const& name) {
        PublicKey key;
        EXPECT_EQ(key.ReadSSH(File(name + ".pub").c_str()), 0);
        return key;
    }

    /// As a new program does, which knows what the file says.
    static bool Trusts(char const* host, unsigned short port, std::string const& key) {
        return support::InNewProcess([&] { return KnownHosts::IsIn(host, port, "", Public(key)) != 0; }) == 1;
    }

    static Outcome SshKeygen(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "ssh-keygen");
        return servers::Run(arguments);
    }
    /// The host's lines, with a heading of ssh-keygen's own for each.
    static Outcome Find(std::string const& host) { return SshKeygen({"-F", host, "-f", KnownHostsFile()}); }
    /// A key as a line has it: "ssh-rsa AAAA...".
    static std::string Words(std::string const& name) {
        std::istringstream words(servers::ReadFile(File(name + ".pub")));
        std::string type, key;
        words >> type >> key;
        return type + " " + key;
    }
    /// The fingerprints of all keys in a file.
    static std::vector<std::string> Fingerprints(std::string const& file) {
        std::istringstream lines(SshKeygen({"-l", "-f", file}).output);
        std::vector<std::string> result;
        std::string bits, fingerprint, rest;
        while (lines >> bits >> fingerprint && std::getline(lines, rest)) result.push_back(fingerprint);
        return result;
    }

private:
    static inline std::unique_ptr<servers::TemporaryDirectory> _keys;
};

// SSH's own notation (RFC 4251, section 5).

std::string U32(std::size_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xff);
    return bytes;
}
std::string String(std::string const& text) { return U32(text.size()) + text; }

std::string ToText(ByteString const& bytes) {
    return std::string(reinterpret_cast<char const*>(bytes.Data()), bytes.Length());
}
ByteString ToBytes(std::string const& text) {
    return ByteString(text.data(), static_cast<unsigned int>(text.size()));
}

std::string ToBase64(std::string const& text) {
    std::string result(text.size() * 4 / 3 + 4, '\0');
    auto const length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                        reinterpret_cast<unsigned char const*>(text.data()), static_cast<int>(text.size()));
    result.resize(static_cast<std::size_t>(length));
    return result;
}

std::string FromBase64(std::string const& text) {
    std::string result(text.size(), '\0');
    auto const length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(result.data()),
                        reinterpret_cast<unsigned char const*>(text.data()), static_cast<int>(text.size()));
    std::size_t const padding = text.size() - (text.find_last_not_of('=') + 1);
    result.resize(static_cast<std::size_t>(length) - padding);
    return result;
}

/// A key certificate in OpenSSH's format: the one thing with a signature under SHA-1 that ssh-keygen reads.
/// It ends with the signature over all before it.
struct Certificate {
    std::string body;
    std::string signature;

    /// Certifies a key, for the one whose signature will follow.
    static Certificate For(PublicKey const& key, PublicKey const& authority) {
        std::string const name = key._rep->Name();
        std::string const numbers = ToText(key._rep->EncodeSSH()).substr(4 + name.size());
        std::string const serial(8, '\0'), user = U32(1), always(8, '\0'), never(8, '\xff');
        std::string const principals = String(String("tester"));
        return {String(name + "-cert-v01@openssh.com") + String("a nonce") + numbers + serial + user +
                    String("an identity") + principals + always + never + String("") + String("") +
                    String("") + String(ToText(authority._rep->EncodeSSH())),
                {}};
    }

    /// Out of a file as ssh-keygen writes it.
    static Certificate Read(std::string const& path) {
        std::istringstream words(servers::ReadFile(path));
        std::string type, key;
        words >> type >> key;
        std::string const blob = FromBase64(key);
        std::size_t const end = SignatureAt(blob, type.compare(0, 7, "ssh-rsa") == 0 ? 2 : 4);
        return {blob.substr(0, end), blob.substr(end + 4)};
    }

    void Write(std::string const& path) const {
        std::string const type = body.substr(4, body.find('\0', 4) - 4);
        servers::WriteFile(path, type + " " + ToBase64(body + String(signature)) + " certificate\n", 0644);
    }

private:
    static std::size_t SignatureAt(std::string const& blob, int numbers) {
        std::size_t at = 0;
        auto const skipStrings = [&](int count) {
            for (; count > 0; --count) {
                std::size_t length = 0;
                for (int i = 0; i < 4; ++i) length = length << 8 | static_cast<unsigned char>(blob.at(at++));
                at += length;
            }
        };
        skipStrings(2 + numbers); // type, nonce, the key's numbers
        at += 8 + 4;              // serial number, kind
        skipStrings(2);           // identity, principals
        at += 8 + 8;              // validity
        skipStrings(4);           // options, extensions, a reserve, the authority's key
        return at;
    }
};

} // namespace

TEST_F(Keygen, FindsLearntHosts) {
    ASSERT_TRUE(Trusts("host", 22, "host_rsa"));
    ASSERT_TRUE(Trusts("host", 2222, "host_dsa"));
    EXPECT_EQ(Find("host").output, "# Host host found: line 1 \nhost " + Words("host_rsa") + "\n");
    EXPECT_EQ(Find("[host]:2222").output,
              "# Host [host]:2222 found: line 2 \n[host]:2222 " + Words("host_dsa") + "\n");
    EXPECT_NE(Find("[host]:2223").status, 0);
    EXPECT_NE(Find("other").status, 0);
}

TEST_F(Keygen, ReadsLearntKeys) {
    std::vector<std::string> expected;
    for (std::string const key : {"host_rsa", "host_dsa", "user_rsa"}) {
        ASSERT_TRUE(Trusts(key.c_str(), 22, key));
        std::vector<std::string> const own = Fingerprints(File(key + ".pub"));
        expected.insert(expected.end(), own.begin(), own.end());
    }
    EXPECT_EQ(expected.size(), 3u);
    EXPECT_EQ(Fingerprints(KnownHostsFile()), expected);
}

TEST_F(Keygen, RemovedHostIsLearntAgain) {
    ASSERT_TRUE(Trusts("host", 22, "host_dsa"));
    ASSERT_TRUE(Trusts("host", 2222, "host_rsa"));
    ASSERT_FALSE(Trusts("host", 2222, "user_rsa"));
    ASSERT_EQ(SshKeygen({"-R", "[host]:2222", "-f", KnownHostsFile()}).status, 0);
    EXPECT_TRUE(Trusts("host", 2222, "user_rsa"));
    EXPECT_FALSE(Trusts("host", 22, "user_rsa"));
    EXPECT_THAT(Find("[host]:2222").output, HasSubstr(Words("user_rsa")));
}

TEST_F(Keygen, HashedHostIsUnknown) {
    ASSERT_TRUE(Trusts("host", 22, "host_rsa"));
    ASSERT_EQ(SshKeygen({"-H", "-f", KnownHostsFile()}).status, 0);
    ASSERT_THAT(servers::ReadFile(KnownHostsFile()), StartsWith("|1|"));
    EXPECT_TRUE(Trusts("host", 22, "host_dsa"));
    EXPECT_THAT(servers::ReadFile(KnownHostsFile()), HasSubstr("\nhost " + Words("host_dsa") + "\n"));
    EXPECT_FALSE(Trusts("host", 22, "host_rsa"));
}

TEST_F(Keygen, AcceptsOurSignatures) {
    for (std::string const authority : {"user_rsa", "user_dsa"})
        for (std::string const key : {"host_rsa", "host_dsa"}) {
            SCOPED_TRACE(authority + " signs " + key);
            PrivateKey privateKey;
            cindral::EnterPassword nobody(0, "");
            ASSERT_EQ(privateKey.Read(File(authority).c_str(), nobody), 0);
            Certificate certificate = Certificate::For(Public(key), Public(authority));
            Signature signature(privateKey._rep->Type());
            ASSERT_EQ(signature.Sign(ToBytes(certificate.body), cindral::DIGEST_SHA1, privateKey), 0);
            certificate.signature = ToText(signature._rep->Encode());

            std::string const path = File("ours-cert.pub");
            certificate.Write(path);
            Outcome const accepted = SshKeygen({"-L", "-f", path});
            EXPECT_EQ(accepted.status, 0) << accepted.errors;
            EXPECT_THAT(accepted.output, HasSubstr("Key ID: \"an identity\""));
            EXPECT_THAT(accepted.output, HasSubstr(Fingerprints(File(authority + ".pub")).at(0)));

            certificate.signature.back() = static_cast<char>(certificate.signature.back() ^ 1);
            certificate.Write(path);
            EXPECT_NE(SshKeygen({"-L", "-f", path}).status, 0);
        }
}

TEST_F(Keygen, ItsSignaturesAreAccepted) {
    for (std::string const authority : {"user_rsa", "user_dsa"})
        for (std::string const key : {"host_rsa", "host_dsa"}) {
            SCOPED_TRACE(authority + " signs " + key);
            std::vector<std::string> arguments{"-q", "-s", File(authority), "-I", "an identity"};
            // With an rsa key it would use SHA-2 otherwise.
            if (authority == "user_rsa") arguments.insert(arguments.end(), {"-t", "ssh-rsa"});
            arguments.push_back(File(key + ".pub"));
            Outcome const signing = SshKeygen(arguments);
            ASSERT_EQ(signing.status, 0) << signing.errors;
            Certificate const certificate = Certificate::Read(File(key + "-cert.pub"));
            Signature signature(ToBytes(certificate.signature));
            EXPECT_EQ(signature.Verify(ToBytes(certificate.body), cindral::DIGEST_SHA1, Public(authority)),
                      1);
            EXPECT_NE(
                signature.Verify(ToBytes(certificate.body + "x"), cindral::DIGEST_SHA1, Public(authority)),
                1);
        }
}
