#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <brantle/thornel/file_descriptor.h>

#include "standard/known_hosts_file.h"
#include "standard/known_hosts_line.h"
#include "support/temporary_directory.h"

using cindral::standard::Bytes;
using cindral::standard::DecodeBase64;
using cindral::standard::EncodeBase64;
using cindral::standard::Fingerprint;
using cindral::standard::KnownHostsFile;
using cindral::standard::KnownHostsLine;
using cindral::standard::Writer;
using testing::PrintToString;

namespace {

// Public keys as ssh-keygen has written them.
std::string const ED25519 = "AAAAC3NzaC1lZDI1NTE5AAAAIFJg/HSJA/BSSsqHiM5Tyq/6S7T5tKpFZku7PW4NZ4Ch";
std::string const ECDSA =
    "AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBHNgKfNUa5KjCtEdq6Ru2jarZ23ch+Hhs"
    "MQSH0DFCYVc5FMsaYJFKuYlMXtsiOuLyVjivOjd3YMnkQB42tHlot4=";
// "host.example.org" and "[other.example]:2222" as `ssh-keygen -H` has hashed them.
std::string const HASHED_HOST = "|1|55vcXHMqRFgHkIDMnKjM25jgjrU=|wxvlpnJR0VDkPuJO26qEqrlkmys=";
std::string const HASHED_WITH_PORT = "|1|fbGYYq9np2wjxR87fBZg7KhH31c=|i5MAknsy7NpZN/NMuZMndx+LGU0=";

Bytes Decode(std::string const& text) {
    Bytes bytes;
    EXPECT_TRUE(DecodeBase64(text, bytes)) << text;
    return bytes;
}

/// The blob of a key of this type, distinct for each `filler`.
Bytes Blob(std::string const& type, char filler) {
    Writer blob;
    blob.String(type).String(std::string(32, filler));
    if (type == "ssh-rsa") blob.String(std::string(32, filler)); // the modulus
    return blob.Take();
}

Bytes const KEY = Blob("ssh-ed25519", 'k');
Bytes const OTHER_KEY = Blob("ssh-ed25519", 'o');
Bytes const RSA_KEY = Blob("ssh-rsa", 'r');
std::string const KEY_FIELDS = "ssh-ed25519 " + EncodeBase64(KEY);
std::string const OTHER_FIELDS = "ssh-ed25519 " + EncodeBase64(OTHER_KEY);
std::string const RSA_FIELDS = "ssh-rsa " + EncodeBase64(RSA_KEY);

class KnownHostsInFiles : public testing::Test {
protected:
    KnownHostsInFiles() { std::filesystem::create_directory(_directory / ".ssh"); }

    std::string Path() const { return _directory / ".ssh/known_hosts"; }
    std::string SystemPath() const { return _directory / "ssh_known_hosts"; }
    void Write(std::string const& content) const { std::ofstream(Path()) << content; }
    void WriteSystem(std::string const& content) const { std::ofstream(SystemPath()) << content; }
    std::string Content() const {
        std::ifstream in(Path());
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    KnownHostsFile Files() const { return KnownHostsFile({Path(), SystemPath()}); }

    KnownHostsFile::Finding Find(std::string const& host, Bytes const& key, unsigned short port = 22,
                                 std::string const& address = "") const {
        return Files().Lookup(host, port, address, key);
    }
    KnownHostsFile::Verdict Verdict(std::string const& host, Bytes const& key, unsigned short port = 22,
                                    std::string const& address = "") const {
        return Find(host, key, port, address).verdict;
    }
    /// The verdict on KEY for "host" if this is the one line.
    KnownHostsFile::Verdict VerdictBy(std::string const& line) const {
        Write(line + "\n");
        return Verdict("host", KEY);
    }

    support::TemporaryDirectory _directory;
};

} // namespace

TEST_F(KnownHostsInFiles, HostWithoutLineIsUnknown) {
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::UNKNOWN) << "without a file";
    Write("");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::UNKNOWN);
    Write("elsewhere " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Find("host", KEY).line, 0u);
}

TEST_F(KnownHostsInFiles, SameKeyMatchesAndAnotherHasChanged) {
    Write("# comment\n\nelsewhere " + OTHER_FIELDS + "\nhost " + KEY_FIELDS + "\n");
    KnownHostsFile::Finding const match = Find("host", KEY);
    EXPECT_EQ(match.verdict, KnownHostsFile::MATCH);
    EXPECT_EQ(match.file, Path());
    EXPECT_EQ(match.line, 4u);
    EXPECT_EQ(match.type, "ssh-ed25519");
    KnownHostsFile::Finding const changed = Find("host", OTHER_KEY);
    EXPECT_EQ(changed.verdict, KnownHostsFile::CHANGED);
    EXPECT_EQ(changed.file, Path());
    EXPECT_EQ(changed.line, 4u);
}

TEST_F(KnownHostsInFiles, FieldsMayBeSeparatedByTabsAndSeveralBlanks) {
    for (char const* space : {" ", "\t", "  ", "\t \t"}) {
        std::string const line = space + std::string("host") + space + "ssh-ed25519" + space +
                                 EncodeBase64(KEY) + space + "a comment";
        EXPECT_EQ(VerdictBy(line), KnownHostsFile::MATCH) << PrintToString(line);
    }
}

TEST_F(KnownHostsInFiles, LineEndIsOptionalAtTheEndAndMayHaveACarriageReturn) {
    Write("host " + KEY_FIELDS);
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
    Write("elsewhere " + KEY_FIELDS + "\r\nhost " + KEY_FIELDS + "\r\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Find("host", KEY).line, 2u);
}

TEST_F(KnownHostsInFiles, EveryNameOfALineCounts) {
    Write("first,second,10.0.0.1,[third]:2222,::1 " + KEY_FIELDS + "\n");
    for (char const* host : {"first", "second", "10.0.0.1", "::1"}) {
        EXPECT_EQ(Verdict(host, KEY), KnownHostsFile::MATCH) << host;
        EXPECT_EQ(Verdict(host, OTHER_KEY), KnownHostsFile::CHANGED) << host;
    }
    EXPECT_EQ(Verdict("third", KEY, 2222), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("third", KEY), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Verdict("secon", KEY), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Verdict("second2", KEY), KnownHostsFile::UNKNOWN);
}

TEST_F(KnownHostsInFiles, LetterCaseOfNamesIsIgnored) {
    EXPECT_EQ(VerdictBy("HOST " + KEY_FIELDS), KnownHostsFile::MATCH);
    EXPECT_EQ(VerdictBy("H?S* " + KEY_FIELDS), KnownHostsFile::MATCH);
    EXPECT_EQ(VerdictBy("host " + KEY_FIELDS), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("Host", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("Host", OTHER_KEY), KnownHostsFile::CHANGED);
}

TEST_F(KnownHostsInFiles, HashedNameIsRecognised) {
    Write(HASHED_HOST + " ssh-ed25519 " + ED25519 + "\n" + HASHED_WITH_PORT + " ssh-ed25519 " + ED25519 +
          "\n");
    EXPECT_EQ(Verdict("host.example.org", Decode(ED25519)), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("Host.Example.ORG", Decode(ED25519)), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host.example.org", KEY), KnownHostsFile::CHANGED);
    EXPECT_EQ(Verdict("other.example", Decode(ED25519), 2222), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("other.example", KEY, 2222), KnownHostsFile::CHANGED);
    EXPECT_EQ(Verdict("other.example", Decode(ED25519)), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Verdict("elsewhere", Decode(ED25519)), KnownHostsFile::UNKNOWN);
}

TEST_F(KnownHostsInFiles, BrokenHashMatchesNothing) {
    std::string const fields = " ssh-ed25519 " + ED25519 + "\n";
    for (std::string const& hosts : std::vector<std::string>{
             std::string("|"), std::string("|1|"), std::string("|1||"), std::string("|1|55vc|wxvl"),
             "|2|" + HASHED_HOST.substr(3), HASHED_HOST.substr(0, HASHED_HOST.size() - 1), HASHED_HOST + "=",
             HASHED_HOST + ",host.example.org", HASHED_HOST.substr(0, 31)}) {
        Write(hosts + fields);
        EXPECT_EQ(Verdict("host.example.org", Decode(ED25519)), KnownHostsFile::UNKNOWN) << hosts;
    }
}

TEST_F(KnownHostsInFiles, PatternsMatchWholeNames) {
    struct {
        char const* hosts;
        bool matches;
    } const cases[] = {{"*", true},         {"h*", true},      {"*t", true},      {"h*t", true},
                       {"**", true},        {"h??t", true},    {"host*", true},   {"host?", false},
                       {"?host", false},    {"o*", false},     {"*s", false},     {"h*o*s*t", true},
                       {"*host*", true},    {"h*x", false},    {"?", false},      {"????", true},
                       {"x,h*", true},      {",host", true},   {"host,", true},   {",", false},
                       {"[host]:22", true}, {"[*]:22", false}, {"[host]", false}, {"[host]:2222", false}};
    for (auto const& one : cases)
        EXPECT_EQ(VerdictBy(one.hosts + (" " + KEY_FIELDS)),
                  one.matches ? KnownHostsFile::MATCH : KnownHostsFile::UNKNOWN)
            << one.hosts;
}

TEST_F(KnownHostsInFiles, NegatedPatternExcludesTheHostAtAnyPosition) {
    for (char const* hosts : {"!host,*", "*,!host", "host,!h*", "*,!HOST", "*,![host]:22", "[host]:22,!host",
                              "!host", "!elsewhere", "!"})
        EXPECT_EQ(VerdictBy(hosts + (" " + KEY_FIELDS)), KnownHostsFile::UNKNOWN) << hosts;
    EXPECT_EQ(VerdictBy("!elsewhere,* " + KEY_FIELDS), KnownHostsFile::MATCH);
    EXPECT_EQ(VerdictBy("*,!host2 " + KEY_FIELDS), KnownHostsFile::MATCH);
}

TEST_F(KnownHostsInFiles, PatternOfManyStarsIsMatchedQuickly) {
    std::string stars;
    for (int i = 0; i < 2000; ++i) stars += "a*";
    Write(stars + "b " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict(std::string(4000, 'a'), KEY), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Verdict(std::string(4000, 'a') + "b", KEY), KnownHostsFile::MATCH);
}

TEST_F(KnownHostsInFiles, PortsAreDistinguished) {
    Write("[host]:2222 " + KEY_FIELDS + "\nhost " + OTHER_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY, 2222), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", OTHER_KEY, 2222), KnownHostsFile::CHANGED);
    EXPECT_EQ(Verdict("host", OTHER_KEY, 22), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", KEY, 22), KnownHostsFile::CHANGED);
    EXPECT_EQ(Verdict("host", KEY, 2223), KnownHostsFile::UNKNOWN);
}

TEST_F(KnownHostsInFiles, KeyOfThePlainNameIsAcceptedAtAnUnknownPort) {
    Write("host " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY, 2222), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", OTHER_KEY, 2222), KnownHostsFile::UNKNOWN);
    Write("host " + KEY_FIELDS + "\n[host]:2222 " + OTHER_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY, 2222), KnownHostsFile::CHANGED);
}

TEST_F(KnownHostsInFiles, AnyOfSeveralKeysMatches) {
    Write("host " + KEY_FIELDS + "\nhost " + RSA_FIELDS + "\nhost " + OTHER_FIELDS + "\n");
    EXPECT_EQ(Find("host", KEY).line, 1u);
    EXPECT_EQ(Find("host", RSA_KEY).line, 2u);
    EXPECT_EQ(Find("host", OTHER_KEY).line, 3u);
    for (Bytes const& key : {KEY, RSA_KEY, OTHER_KEY}) EXPECT_EQ(Verdict("host", key), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", Blob("ssh-ed25519", 'x')), KnownHostsFile::CHANGED);
}

TEST_F(KnownHostsInFiles, HostKnownOnlyByOtherKeyTypesHasChanged) {
    Write("host " + RSA_FIELDS + "\n");
    KnownHostsFile::Finding const finding = Find("host", KEY);
    EXPECT_EQ(finding.verdict, KnownHostsFile::CHANGED);
    EXPECT_EQ(finding.type, "ssh-rsa");
    // Types that this library can't verify are known all the same.
    EXPECT_EQ(VerdictBy("host ssh-dss " + EncodeBase64(Blob("ssh-dss", 'd'))), KnownHostsFile::CHANGED);
}

TEST_F(KnownHostsInFiles, ChangedKeyIsReportedAgainstTheLineOfItsType) {
    Write("host " + RSA_FIELDS + "\nhost " + KEY_FIELDS + "\nhost " + OTHER_FIELDS + "\n");
    EXPECT_EQ(Find("host", Blob("ssh-ed25519", 'x')).line, 2u);
    EXPECT_EQ(Find("host", Blob("ssh-rsa", 'x')).line, 1u);
    EXPECT_EQ(Find("host", Blob("ssh-foo", 'x')).line, 1u);
}

TEST_F(KnownHostsInFiles, RevokedKeyIsRefusedEvenIfKnown) {
    for (std::string const& lines :
         std::vector<std::string>{"host " + KEY_FIELDS + "\n@revoked host " + KEY_FIELDS + "\n",
                                  "@revoked *\t" + KEY_FIELDS + "\nhost " + KEY_FIELDS + "\n",
                                  "@revoked\t host " + KEY_FIELDS + "\n"}) {
        Write(lines);
        EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::REVOKED) << lines;
    }
    Write("host " + KEY_FIELDS + "\n");
    WriteSystem("\n@revoked * " + KEY_FIELDS + "\n");
    KnownHostsFile::Finding const finding = Find("host", KEY, 2222);
    EXPECT_EQ(finding.verdict, KnownHostsFile::REVOKED);
    EXPECT_EQ(finding.file, SystemPath());
    EXPECT_EQ(finding.line, 2u);
}

TEST_F(KnownHostsInFiles, RevocationAppliesOnlyToItsKeyAndHost) {
    Write("@revoked host " + OTHER_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Verdict("elsewhere", OTHER_KEY), KnownHostsFile::UNKNOWN);
    Write("@revoked host " + OTHER_FIELDS + "\nhost " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", OTHER_KEY), KnownHostsFile::REVOKED);
}

TEST_F(KnownHostsInFiles, RevocationHoldsForHashedNamesOtherPortsAndTheAddress) {
    Write("@revoked " + HASHED_HOST + " " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host.example.org", KEY), KnownHostsFile::REVOKED);
    Write("@revoked host " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY, 2222), KnownHostsFile::REVOKED);
    Write("host " + KEY_FIELDS + "\n@revoked 10.0.0.1 " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY, 22, "10.0.0.1"), KnownHostsFile::REVOKED);
    EXPECT_EQ(Verdict("host", KEY, 22, "10.0.0.2"), KnownHostsFile::MATCH);
}

TEST_F(KnownHostsInFiles, LineForOnlyTheAddressNeitherTrustsNorRefusesTheHost) {
    Write("10.0.0.1 " + KEY_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY, 22, "10.0.0.1"), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(Verdict("host", OTHER_KEY, 22, "10.0.0.1"), KnownHostsFile::UNKNOWN);
}

TEST_F(KnownHostsInFiles, AuthorityLineHasNoEffect) {
    EXPECT_EQ(VerdictBy("@cert-authority host " + KEY_FIELDS), KnownHostsFile::UNKNOWN);
    EXPECT_EQ(VerdictBy("@cert-authority * " + OTHER_FIELDS), KnownHostsFile::UNKNOWN);
    EXPECT_TRUE(Files().KnownAlgorithms("host", 22).empty());
}

TEST_F(KnownHostsInFiles, LineOfAnotherFormatHasNoEffect) {
    std::string const key64 = EncodeBase64(KEY);
    for (std::string const& line : std::vector<std::string>{
             "host 1024 " + key64, "host 1024 35 1234567890", "# host " + KEY_FIELDS,
             " \t# host " + KEY_FIELDS, "#host " + KEY_FIELDS, "@unknown host " + KEY_FIELDS,
             "@Revoked host " + KEY_FIELDS, "@ host " + KEY_FIELDS, "@revoked @revoked host " + KEY_FIELDS,
             "@revoked @cert-authority host " + KEY_FIELDS, "@revokedhost " + KEY_FIELDS, "@revoked"})
        EXPECT_EQ(VerdictBy(line), KnownHostsFile::UNKNOWN) << PrintToString(line);
    // What follows such a line counts.
    Write("@unknown\nhost 1024 35 1\nhost " + KEY_FIELDS + "\n");
    EXPECT_EQ(Find("host", KEY).line, 3u);
    EXPECT_EQ(Verdict("host", OTHER_KEY), KnownHostsFile::CHANGED);
}

TEST_F(KnownHostsInFiles, DamagedKeyOfTheHostIsNeitherTrustedNorTakenForNone) {
    std::string const key64 = EncodeBase64(KEY);
    for (std::string const& line : std::vector<std::string>{
             "host " + key64, "host ssh-ed25519 " + key64.substr(1), "host ssh-ed25519 " + key64 + "=",
             "host ssh-ed25519 ====", "host ssh-ed25519 -" + key64.substr(1), "host ssh-ed25519 AAAA",
             "host ssh-rsa " + key64, "host ecdsa-sha2-nistp256 " + key64,
             std::string("host ssh-ed25519 ") + std::string(1, '\0') + key64})
        EXPECT_EQ(VerdictBy(line), KnownHostsFile::DAMAGED) << PrintToString(line);
    EXPECT_EQ(Verdict("elsewhere", KEY), KnownHostsFile::UNKNOWN);
    EXPECT_TRUE(Files().KnownAlgorithms("host", 22).empty());
}

TEST_F(KnownHostsInFiles, LineCutAnywhereAfterTheHostIsDamaged) {
    for (std::string const& fields : {KEY_FIELDS, RSA_FIELDS, "ecdsa-sha2-nistp256 " + ECDSA})
        for (std::size_t size = 0; size < fields.size(); ++size) {
            Write("host " + fields.substr(0, size));
            EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::DAMAGED) << fields.substr(0, size);
            EXPECT_EQ(Verdict("host", RSA_KEY), KnownHostsFile::DAMAGED) << fields.substr(0, size);
        }
}

TEST_F(KnownHostsInFiles, WholeLineOfTheHostCountsBesideADamagedOne) {
    for (std::string const& content : {"host ssh-ed25519 AAAA\nhost " + KEY_FIELDS + "\n",
                                       "host " + KEY_FIELDS + "\nhost ssh-ed25519 AAAA"}) {
        Write(content);
        EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
        EXPECT_EQ(Verdict("host", OTHER_KEY), KnownHostsFile::CHANGED);
    }
}

TEST_F(KnownHostsInFiles, DamagedRevocationRevokesAll) {
    Write("host " + KEY_FIELDS + "\n@revoked host " + OTHER_FIELDS.substr(0, OTHER_FIELDS.size() - 4) + "\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::DAMAGED);
    EXPECT_EQ(Find("host", KEY).line, 2u);
    EXPECT_EQ(Verdict("elsewhere", KEY), KnownHostsFile::UNKNOWN);
}

TEST_F(KnownHostsInFiles, SignatureAlgorithmCountsAsItsKeyType) {
    std::string const key64 = EncodeBase64(RSA_KEY);
    Write("host rsa-sha2-512 " + key64 + "\n");
    KnownHostsFile::Finding const finding = Find("host", RSA_KEY);
    EXPECT_EQ(finding.verdict, KnownHostsFile::MATCH);
    EXPECT_EQ(finding.type, "ssh-rsa");
}

TEST_F(KnownHostsInFiles, SystemFileCountsToo) {
    WriteSystem("host " + KEY_FIELDS + "\n");
    EXPECT_EQ(Find("host", KEY).file, SystemPath());
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", OTHER_KEY), KnownHostsFile::CHANGED);
    Write("host " + OTHER_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", OTHER_KEY), KnownHostsFile::MATCH);
}

TEST_F(KnownHostsInFiles, UnreadableFileIsNotAnUnknownHost) {
    std::filesystem::create_directory(Path()); // opens and fails to read, for root too
    KnownHostsFile::Finding finding = Find("host", KEY);
    EXPECT_EQ(finding.verdict, KnownHostsFile::UNREADABLE);
    EXPECT_EQ(finding.file, Path());
    EXPECT_EQ(finding.line, 0u);
    EXPECT_EQ(finding.error, EISDIR);
    EXPECT_TRUE(Files().KnownAlgorithms("host", 22).empty());

    std::filesystem::remove(Path());
    std::filesystem::create_symlink("known_hosts", Path());
    EXPECT_EQ(Find("host", KEY).error, ELOOP);
    std::filesystem::remove(Path());
    ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
    EXPECT_EQ(Find("host", KEY).error, EINVAL);
    std::filesystem::remove_all(_directory / ".ssh");
    std::ofstream(_directory / ".ssh") << "no directory\n";
    EXPECT_EQ(Find("host", KEY).error, ENOTDIR);
}

TEST_F(KnownHostsInFiles, MatchInOneFileDoesNotExcuseAnotherUnreadableFile) {
    Write("host " + KEY_FIELDS + "\n");
    std::filesystem::create_directory(SystemPath());
    KnownHostsFile::Finding const finding = Find("host", KEY);
    EXPECT_EQ(finding.verdict, KnownHostsFile::UNREADABLE);
    EXPECT_EQ(finding.file, SystemPath());
}

TEST_F(KnownHostsInFiles, LineOfOneMebibyteIsReadAndALongerOneRefusesAll) {
    std::string const end = " " + KEY_FIELDS;
    std::size_t const limit = 1 << 20;
    std::string const hosts = std::string(limit - end.size() - 5, 'x') + ",host";
    Write("elsewhere " + OTHER_FIELDS + "\n" + hosts + end + "\nhost " + RSA_FIELDS + "\n");
    EXPECT_EQ(Find("host", KEY).line, 2u);
    EXPECT_EQ(Find("host", RSA_KEY).line, 3u);
    for (char const* lineEnd : {"\n", ""}) {
        Write("host " + KEY_FIELDS + "\nx" + hosts + end + lineEnd);
        KnownHostsFile::Finding const finding = Find("host", KEY);
        EXPECT_EQ(finding.verdict, KnownHostsFile::UNREADABLE);
        EXPECT_EQ(finding.line, 2u);
        EXPECT_EQ(finding.error, EFBIG);
    }
}

TEST_F(KnownHostsInFiles, EndlessLineEndsInAnError) {
    std::filesystem::create_symlink("/dev/zero", Path());
    EXPECT_EQ(Find("host", KEY).error, EFBIG);
}

TEST_F(KnownHostsInFiles, LinesAcrossReadsAreWhole) {
    std::string lines;
    for (int i = 0; i < 3000; ++i)
        lines += "host" + std::to_string(i) + std::string(static_cast<std::size_t>(i % 97), 'x') + " " +
                 KEY_FIELDS + "\n";
    Write(lines + "last " + OTHER_FIELDS);
    for (int i : {0, 1, 31, 97, 1500, 2999}) {
        std::string const host =
            "host" + std::to_string(i) + std::string(static_cast<std::size_t>(i % 97), 'x');
        EXPECT_EQ(Find(host, KEY).line, static_cast<unsigned long>(i) + 1) << host;
    }
    EXPECT_EQ(Find("last", OTHER_KEY).line, 3001u);
}

TEST_F(KnownHostsInFiles, DefaultFilesAreThoseOfTheHomeDirectory) {
    std::string const home = getenv("HOME");
    setenv("HOME", _directory.Path().c_str(), 1);
    Write("host " + KEY_FIELDS + "\n");
    std::ofstream(_directory / ".ssh/known_hosts2") << "second " << KEY_FIELDS << '\n';
    KnownHostsFile const files;
    setenv("HOME", home.c_str(), 1);
    EXPECT_EQ(files.Lookup("host", 22, "", KEY).file, Path());
    EXPECT_EQ(files.Lookup("second", 22, "", KEY).file, Path() + "2");
    EXPECT_EQ(files.Append("third", 22, KEY), 0);
    EXPECT_EQ(Content(), "host " + KEY_FIELDS + "\nthird " + KEY_FIELDS + "\n");
}

TEST_F(KnownHostsInFiles, NothingIsTrustedOrWrittenWithoutAName) {
    KnownHostsFile const files({""});
    EXPECT_EQ(files.Lookup("host", 22, "", KEY).verdict, KnownHostsFile::UNREADABLE);
    EXPECT_EQ(files.Append("host", 22, KEY), -ENOENT);
}

TEST_F(KnownHostsInFiles, KnownAlgorithmsAreInTheOrderOfTheLines) {
    EXPECT_TRUE(Files().KnownAlgorithms("host", 22).empty());
    Write("host " + RSA_FIELDS + "\nelsewhere ecdsa-sha2-nistp256 " + ECDSA + "\nh* " + KEY_FIELDS +
          "\nhost " + OTHER_FIELDS + "\n@revoked host ssh-foo " + EncodeBase64(Blob("ssh-foo", 'f')) + "\n");
    WriteSystem("HOST ecdsa-sha2-nistp256 " + ECDSA + "\n");
    std::vector<std::string> const expected = {"rsa-sha2-512", "rsa-sha2-256", "ssh-ed25519",
                                               "ecdsa-sha2-nistp256"};
    EXPECT_EQ(Files().KnownAlgorithms("host", 22), expected);
}

TEST_F(KnownHostsInFiles, KnownAlgorithmsOfThePortComeBeforeThoseOfThePlainName) {
    Write("host " + RSA_FIELDS + "\n[host]:2222 " + KEY_FIELDS + "\n");
    EXPECT_EQ(Files().KnownAlgorithms("host", 2222), std::vector<std::string>{"ssh-ed25519"});
    EXPECT_EQ(Files().KnownAlgorithms("host", 2223),
              (std::vector<std::string>{"rsa-sha2-512", "rsa-sha2-256"}));
}

TEST_F(KnownHostsInFiles, AppendedHostIsKnown) {
    ASSERT_EQ(Files().Append("host", 22, KEY), 0);
    EXPECT_EQ(Content(), "host " + KEY_FIELDS + "\n");
    ASSERT_EQ(Files().Append("host", 2222, OTHER_KEY), 0);
    ASSERT_EQ(Files().Append("::1", 22, RSA_KEY), 0);
    ASSERT_EQ(Files().Append("[::1]", 22, KEY), 0);
    ASSERT_EQ(Files().Append("Fe80::1%eth0", 2222, RSA_KEY), 0);
    EXPECT_EQ(Content(), "host " + KEY_FIELDS + "\n[host]:2222 " + OTHER_FIELDS + "\n::1 " + RSA_FIELDS +
                             "\n[::1] " + KEY_FIELDS + "\n[Fe80::1%eth0]:2222 " + RSA_FIELDS + "\n");
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("host", OTHER_KEY, 2222), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("::1", RSA_KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("[::1]", KEY), KnownHostsFile::MATCH);
    EXPECT_EQ(Verdict("fe80::1%eth0", RSA_KEY, 2222), KnownHostsFile::MATCH);
}

TEST_F(KnownHostsInFiles, AppendEndsALastLineWithoutLineFeed) {
    Write("elsewhere " + KEY_FIELDS);
    ASSERT_EQ(Files().Append("host", 22, OTHER_KEY), 0);
    EXPECT_EQ(Content(), "elsewhere " + KEY_FIELDS + "\nhost " + OTHER_FIELDS + "\n");
}

TEST_F(KnownHostsInFiles, AppendCreatesAPrivateFileAndDirectory) {
    std::filesystem::remove_all(_directory / ".ssh");
    mode_t const mask = umask(0);
    int const result = Files().Append("host", 22, KEY);
    umask(mask);
    ASSERT_EQ(result, 0);
    struct stat status{};
    ASSERT_EQ(stat(Path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    ASSERT_EQ(stat((_directory / ".ssh").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    EXPECT_EQ(Content(), "host " + KEY_FIELDS + "\n");
}

TEST_F(KnownHostsInFiles, AppendThroughALinkToADevice) {
    std::filesystem::create_symlink("/dev/null", Path());
    EXPECT_EQ(Files().Append("host", 22, KEY), 0);
    EXPECT_EQ(Verdict("host", KEY), KnownHostsFile::UNKNOWN);
}

TEST_F(KnownHostsInFiles, AppendReportsFailures) {
    std::filesystem::create_directory(Path());
    EXPECT_EQ(Files().Append("host", 22, KEY), -EISDIR);
    EXPECT_EQ(KnownHostsFile({_directory / "no/such/file"}).Append("host", 22, KEY), -ENOENT);
    EXPECT_EQ(KnownHostsFile({"/dev/full"}).Append("host", 22, KEY), -ENOSPC);
}

TEST_F(KnownHostsInFiles, AppendRefusesWhatCouldNotBeReadBack) {
    for (std::string const& host : std::vector<std::string>{
             std::string(), std::string("a b"), std::string("a\nb"), std::string("a\tb"), std::string("a,b"),
             std::string("*"), std::string("h?st"), std::string("!host"), std::string("#host"),
             std::string("@revoked"), std::string("|1|x"), std::string("host\0x", 6), std::string("host\x7f"),
             std::string("h\xc3\xb6st")})
        EXPECT_EQ(Files().Append(host, 22, KEY), -EINVAL) << PrintToString(host);
    for (Bytes const& key : std::vector<Bytes>{Bytes(), Bytes(3), Bytes(4), Bytes{0, 0, 0, 9, 'x'},
                                               Blob("a\nb", 'x'), Blob("a b", 'x')})
        EXPECT_EQ(Files().Append("host", 22, key), -EINVAL) << PrintToString(key);
    EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(KnownHostsInFiles, FilesAreReadAtEachLookup) {
    KnownHostsFile const files = Files();
    EXPECT_EQ(files.Lookup("host", 22, "", KEY).verdict, KnownHostsFile::UNKNOWN);
    Write("host " + KEY_FIELDS + "\n");
    EXPECT_EQ(files.Lookup("host", 22, "", KEY).verdict, KnownHostsFile::MATCH);
}

TEST_F(KnownHostsInFiles, ResultHasADescription) {
    Write("host " + KEY_FIELDS + "\n@revoked * " + RSA_FIELDS + "\n");
    EXPECT_EQ(Find("host", KEY).Text("host"), "the host key of host is known (" + Path() + ":1)");
    EXPECT_EQ(Find("there", KEY).Text("there"), "the host key of there is not known");
    EXPECT_EQ(Find("host", OTHER_KEY).Text("host"),
              "the host key of host has changed: " + Path() +
                  ":1 has another ssh-ed25519 key; remove that line if you know why");
    EXPECT_EQ(Find("host", RSA_KEY).Text("host"), "the host key of host is revoked (" + Path() + ":2)");
    Write("\nhost ssh-ed25519 AAAA\n");
    EXPECT_EQ(Find("host", KEY).Text("host"), "the host key of host can't be compared: the key in " + Path() +
                                                  ":2 is damaged; correct or remove that line");
    std::filesystem::remove(Path());
    std::filesystem::create_directory(Path());
    EXPECT_EQ(Find("host", KEY).Text("host"),
              "the known hosts can't be read (" + Path() + ": Is a directory)");
    EXPECT_EQ(KnownHostsFile({""}).Lookup("host", 22, "", KEY).Text("host"),
              "the known hosts can't be read: there is no home directory");
}

TEST_F(KnownHostsInFiles, MutatedLinesNeverTrustAKeyThatTheyDoNotHold) {
    std::string const lines = "# comment\nhost,10.0.0.1 " + KEY_FIELDS + "\n@revoked * " + RSA_FIELDS + "\n" +
                              HASHED_HOST + " ssh-ed25519 " + ED25519 + " c\n*,!x?y " + RSA_FIELDS +
                              "\n[host]:2222\t" + KEY_FIELDS;
    FileDescriptor const fd(memfd_create("known_hosts", MFD_CLOEXEC));
    KnownHostsFile const files({"/proc/self/fd/" + std::to_string(fd)});
    std::mt19937 random(1);
    Bytes const never = Blob("ssh-ed25519", '\0');
    unsigned int known = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string mutated = lines;
        for (unsigned int changes = random() % 8; changes > 0; --changes) {
            std::size_t const at = random() % mutated.size();
            switch (random() % 3) {
            case 0:
                mutated[at] = static_cast<char>(random());
                break;
            case 1:
                mutated.erase(at, random() % 5);
                break;
            default:
                mutated.insert(at, 1, "|*?!,@ \t\n=\0"[random() % 11]);
            }
        }
        ASSERT_EQ(ftruncate(fd, 0), 0);
        ASSERT_EQ(pwrite(fd, mutated.data(), mutated.size(), 0), static_cast<ssize_t>(mutated.size()));
        EXPECT_NE(files.Lookup("host", 22, "", never).verdict, KnownHostsFile::MATCH)
            << PrintToString(mutated);
        known += files.Lookup("host", 22, "", KEY).verdict == KnownHostsFile::MATCH;
        files.KnownAlgorithms("host.example.org", 22);
    }
    EXPECT_GT(known, 1000u); // many mutations leave the line and the revocation alone
}

TEST(KnownHostsLines, Base64IsExact) {
    for (char const* text : {"", "AA==", "AAA=", "AAAA", "+/09", "AAAAAA=="})
        EXPECT_EQ(EncodeBase64(Decode(text)), text);
    Bytes bytes;
    for (char const* text : {"A", "AA", "AAA", "A===", "====", "=AAA", "AA=A",
                             "AAAA=", "AAAA====", "A A=", "AA\n=", " AAAA", "AAA-", "AAAA AAAA"})
        EXPECT_FALSE(DecodeBase64(text, bytes)) << PrintToString(text);
    EXPECT_EQ(Decode("AQID"), (Bytes{1, 2, 3}));
    EXPECT_EQ(Decode("AQI="), (Bytes{1, 2}));
}

TEST(Fingerprints, IsThatOfOpenSSH) {
    EXPECT_EQ(Fingerprint(Decode(ED25519)), "SHA256:9lDfPTU/JJsPBS+P1nDVdzcZyZgKr88WG/QnUqFuizI");
    EXPECT_EQ(Fingerprint(Decode(ECDSA)), "SHA256:tUefKf3+vknveq7hNkLjhSZdibk/fu+EEEqr3rNPV3Q");
}
