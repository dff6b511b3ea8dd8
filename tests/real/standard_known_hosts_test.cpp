// ssh-keygen as the judge of how the standard dialect reads known_hosts, and of what it appends.

#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "standard/known_hosts_file.h"
#include "standard/known_hosts_line.h"
#include "support/peer/wire.h"
#include "support/servers/process.h"

using cindral::standard::EncodeBase64;
using cindral::standard::KnownHostsFile;
using servers::Outcome;

namespace {

/// An ed25519 key that no other number has.
peer::Bytes Key(std::size_t number) {
    peer::Bytes point(32);
    point[0] = static_cast<std::uint8_t>(number);
    point[1] = static_cast<std::uint8_t>(number >> 8);
    return peer::Writer().String("ssh-ed25519").String(point);
}

std::string Fields(std::size_t number) { return "ssh-ed25519 " + EncodeBase64(peer::Bytes(Key(number))); }

class RealKnownHosts : public testing::Test {
protected:
    std::string Path() const { return _directory / "known_hosts"; }
    KnownHostsFile Files() const { return KnownHostsFile({Path()}); }

    /// The lines for a name by ssh-keygen.
    std::set<unsigned long> LinesByKeygen(std::string const& name) const {
        Outcome const outcome = servers::Run({"ssh-keygen", "-F", name, "-f", Path()});
        std::set<unsigned long> lines;
        std::regex const line("found: line ([0-9]+)");
        for (std::sregex_iterator i(outcome.output.begin(), outcome.output.end(), line), end; i != end; ++i)
            lines.insert(std::stoul((*i)[1]));
        return lines;
    }
    /// The lines whose keys match; the line with number n has key n.
    std::set<unsigned long> LinesByLibrary(std::string const& host, unsigned short port,
                                           std::size_t count) const {
        std::set<unsigned long> lines;
        for (std::size_t i = 1; i <= count; ++i) {
            KnownHostsFile::Finding const finding = Files().Lookup(host, port, "", Key(i));
            if (finding.verdict == KnownHostsFile::MATCH) lines.insert(finding.line);
        }
        return lines;
    }

    support::TemporaryDirectory _directory;
};

} // namespace

TEST_F(RealKnownHosts, PatternsMatchAsForOpenSSH) {
    constexpr std::size_t COUNT = 300;
    std::mt19937 random(7);
    std::string content;
    for (std::size_t i = 1; i <= COUNT; ++i) {
        std::string hosts;
        for (std::size_t length = 1 + random() % 7; length > 0; --length)
            hosts += "aaABbb.**?!?!,,[]:2"[random() % 19];
        if (hosts[0] == '!' || hosts[0] == ',') hosts.insert(0, "*,");
        content += hosts + " " + Fields(i) + "\n";
    }
    // So that no line matches by its plain name only.
    content += "[a]:2,[ab]:2,[b.a]:2 " + Fields(COUNT + 1) + "\n";
    servers::WriteFile(Path(), content);
    std::size_t matches = 0;
    for (char const* host : {"a", "ab", "b.a", "abba"}) {
        std::set<unsigned long> const lines = LinesByKeygen(host);
        EXPECT_EQ(LinesByLibrary(host, 22, COUNT + 1), lines) << host;
        matches += lines.size();
    }
    for (char const* host : {"a", "ab", "b.a"})
        EXPECT_EQ(LinesByLibrary(host, 2, COUNT + 1), LinesByKeygen("[" + std::string(host) + "]:2")) << host;
    EXPECT_GT(matches, 50u) << "too few to say anything";
    EXPECT_LT(matches, 4 * COUNT - 50);
}

TEST_F(RealKnownHosts, NamesHashedByKeygenAreRecognised) {
    servers::WriteFile(Path(), "alpha,Beta,10.0.0.1 " + Fields(1) + "\n[gamma]:2222 " + Fields(2) + "\n");
    servers::RunOrThrow({"ssh-keygen", "-H", "-f", Path()});
    ASSERT_EQ(servers::ReadFile(Path()).find("alpha"), std::string::npos);
    for (char const* host : {"alpha", "beta", "BETA", "10.0.0.1"}) {
        EXPECT_EQ(Files().Lookup(host, 22, "", Key(1)).verdict, KnownHostsFile::MATCH) << host;
        EXPECT_EQ(Files().Lookup(host, 22, "", Key(9)).verdict, KnownHostsFile::CHANGED) << host;
    }
    EXPECT_EQ(Files().Lookup("gamma", 2222, "", Key(2)).verdict, KnownHostsFile::MATCH);
    EXPECT_EQ(Files().Lookup("gamma", 22, "", Key(2)).verdict, KnownHostsFile::UNKNOWN);
}

TEST_F(RealKnownHosts, AppendedLinesAreFoundByKeygen) {
    ASSERT_EQ(Files().Append("alpha", 22, Key(1)), 0);
    ASSERT_EQ(Files().Append("Alpha", 2222, Key(2)), 0);
    ASSERT_EQ(Files().Append("::1", 22, Key(3)), 0);
    EXPECT_EQ(LinesByKeygen("alpha"), std::set<unsigned long>{1});
    EXPECT_EQ(LinesByKeygen("[alpha]:2222"), std::set<unsigned long>{2});
    EXPECT_EQ(LinesByKeygen("::1"), std::set<unsigned long>{3});
    EXPECT_EQ(servers::Run({"ssh-keygen", "-l", "-f", Path()}).status, 0)
        << "a key that ssh-keygen can't read";
}

TEST_F(RealKnownHosts, FingerprintIsThatOfKeygen) {
    ASSERT_EQ(Files().Append("alpha", 22, Key(1)), 0);
    std::string const text = servers::RunOrThrow({"ssh-keygen", "-l", "-f", Path()});
    EXPECT_NE(text.find(" " + cindral::standard::Fingerprint(Key(1)) + " "), std::string::npos) << text;
}
