#include <brantle/trust/known_hosts.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/temporary_directory.h"
#include "wire_text.h"

using cindral::KnownHosts;
using cindral::PublicKey;

namespace {

std::string Base64(PublicKey const& key) { return key._rep->EncodeSSH64().Text(); }

/// A home directory for one test.
class KnownHostsTest : public testing::Test {
protected:
    KnownHostsTest() {
        setenv("HOME", _directory.Path().c_str(), 1);
        std::filesystem::create_directory(_directory / ".ssh");
    }
    ~KnownHostsTest() override { setenv("HOME", _home.c_str(), 1); }

    std::string File() const { return _directory / ".ssh/known_hosts"; }
    std::string Content() const {
        std::ifstream in(File());
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    void SetContent(std::string const& content) const { std::ofstream(File()) << content; }

    support::TemporaryDirectory _directory;
    PublicKey const _key = RsaKey(17);
    PublicKey const _other = RsaKey(18);
    std::string const _key64 = Base64(_key);
    std::string const _other64 = Base64(_other);

private:
    std::string const _home = getenv("HOME");
};

/// A store filled from lines.
class Store {
public:
    explicit Store(std::string const& lines) : _in(lines), _hosts(_in) {}

    bool Trusts(char const* host, unsigned short port, PublicKey const& key, char const* address = "") {
        return _hosts._IsIn(String_t(host), port, String_t(address), key) != 0;
    }
    /// Known, and not with this key: a host that is not known would be accepted.
    bool Refuses(char const* host, unsigned short port, PublicKey const& key) {
        return !Trusts(host, port, key);
    }

    std::istringstream _in;
    KnownHosts _hosts;
};

} // namespace

TEST_F(KnownHostsTest, OffersRsaAndDss) {
    EXPECT_STREQ(KnownHosts::KeyAlgorithms().Text(), "ssh-rsa,ssh-dss");
}

TEST_F(KnownHostsTest, NewHostIsAcceptedAndAppendedWithoutItsAddress) {
    KnownHosts hosts;
    EXPECT_NE(hosts._IsIn("host", 22, "10.0.0.1", _key), 0);
    std::string const line = "host ssh-rsa " + _key64 + "\n";
    EXPECT_EQ(Content(), line);
    EXPECT_NE(hosts._IsIn("host", 22, "10.0.0.1", _key), 0);
    EXPECT_EQ(hosts._IsIn("host", 22, "10.0.0.1", _other), 0);
    EXPECT_NE(hosts._IsIn("host", 22, "10.0.0.1", _key), 0);
    EXPECT_EQ(Content(), line);
}

TEST_F(KnownHostsTest, OtherPortIsWrittenInTheCanonicalForm) {
    KnownHosts hosts;
    EXPECT_NE(hosts._IsIn("host", 2222, "", _key), 0);
    EXPECT_EQ(Content(), "[host]:2222 ssh-rsa " + _key64 + "\n");
    EXPECT_NE(hosts._IsIn("host", 22, "", _other), 0);
    EXPECT_EQ(Content(), "[host]:2222 ssh-rsa " + _key64 + "\nhost ssh-rsa " + _other64 + "\n");
    EXPECT_EQ(hosts._IsIn("host", 2222, "", _other), 0);
    EXPECT_EQ(hosts._IsIn("host", 22, "", _key), 0);
    EXPECT_NE(hosts._IsIn("host", 65535, "", _key), 0);
    EXPECT_NE(Content().find("\n[host]:65535 ssh-rsa "), std::string::npos);
}

TEST_F(KnownHostsTest, BracketedHostIsKeptAndWrittenAsItStands) {
    KnownHosts hosts;
    EXPECT_NE(hosts._IsIn("[::1]:7", 22, "", _key), 0);
    EXPECT_EQ(Content(), "[::1]:7 ssh-rsa " + _key64 + "\n");
    EXPECT_EQ(hosts._IsIn("[::1]:7", 22, "", _other), 0);
    EXPECT_EQ(hosts._IsIn("[::1]:7", 4444, "", _other), 0);
    EXPECT_EQ(hosts._IsIn("::1", 7, "", _other), 0);
}

TEST_F(KnownHostsTest, WhatIsWrittenIsReadBackUnderTheSameName) {
    {
        KnownHosts hosts;
        hosts._IsIn("plain", 22, "", _key);
        hosts._IsIn("other", 2222, "", _key);
        hosts._IsIn("[v6::1]:99", 22, "", _key);
    }
    std::string const written = Content();
    KnownHosts hosts;
    EXPECT_EQ(hosts._IsIn("plain", 22, "", _other), 0);
    EXPECT_EQ(hosts._IsIn("other", 2222, "", _other), 0);
    EXPECT_EQ(hosts._IsIn("v6::1", 99, "", _other), 0);
    EXPECT_NE(hosts._IsIn("plain", 22, "", _key), 0);
    EXPECT_EQ(Content(), written);
}

TEST_F(KnownHostsTest, LineWithHostAndAddressGivesTwoEntries) {
    Store store("host,10.0.0.1 ssh-rsa " + _key64 + " a comment\n");
    EXPECT_TRUE(store.Refuses("host", 22, _other));
    EXPECT_TRUE(store.Refuses("10.0.0.1", 22, _other));
    EXPECT_TRUE(store.Trusts("host", 22, _key));
    EXPECT_TRUE(store.Trusts("10.0.0.1", 22, _key));
    EXPECT_EQ(Content(), "");
    EXPECT_TRUE(store.Trusts("host", 2222, _other));
    EXPECT_TRUE(store.Trusts("10.0.0.1", 2222, _other));
}

TEST_F(KnownHostsTest, CanonicalNameInALineKeepsItsPort) {
    Store store("[host]:2222,[10.0.0.1]:2222 ssh-rsa " + _key64 + "\n");
    EXPECT_TRUE(store.Refuses("host", 2222, _other));
    EXPECT_TRUE(store.Refuses("10.0.0.1", 2222, _other));
    EXPECT_EQ(Content(), "");
}

TEST_F(KnownHostsTest, LineOfTheOldFormatIsDropped) {
    Store store("host 1024 35 123456789\nhost2 0x ssh-rsa\n");
    EXPECT_TRUE(store.Trusts("host", 22, _key));
    EXPECT_TRUE(store.Trusts("host2", 22, _key));
}

TEST_F(KnownHostsTest, ShortAndEmptyLinesAreDropped) {
    Store store("\n   \nhost\nhost,10.0.0.1\n,\n");
    EXPECT_EQ(store._hosts._Read(store._in), 0);
    EXPECT_TRUE(store.Trusts("host", 22, _key));
    EXPECT_TRUE(store.Trusts("10.0.0.1", 22, _key));
}

TEST_F(KnownHostsTest, FirstLineOfAHostCounts) {
    Store store("host ssh-rsa " + _key64 + "\nhost ssh-rsa " + _other64 + "\n");
    EXPECT_TRUE(store.Refuses("host", 22, _other));
    EXPECT_TRUE(store.Trusts("host", 22, _key));
}

TEST_F(KnownHostsTest, SecondReadAddsAndChangesNothing) {
    Store store("host ssh-rsa " + _key64 + "\n");
    std::istringstream more("host ssh-rsa " + _other64 + "\nhost2 ssh-rsa " + _other64 + "\n");
    EXPECT_EQ(store._hosts._Read(more), 0);
    EXPECT_TRUE(store.Refuses("host", 22, _other));
    EXPECT_TRUE(store.Refuses("host2", 22, _key));
}

TEST_F(KnownHostsTest, LineWithoutAKeyIsNeverEqualled) {
    Store store("host ssh-rsa\n");
    EXPECT_TRUE(store.Refuses("host", 22, _key));
    EXPECT_TRUE(store.Refuses("host", 22, PublicKey()));
    EXPECT_EQ(Content(), "");
}

TEST_F(KnownHostsTest, LastLineWithoutALineEndCounts) {
    Store store("host ssh-rsa " + _key64);
    EXPECT_TRUE(store.Refuses("host", 22, _other));
}

TEST_F(KnownHostsTest, CommentsAndHashedNamesDoNoHarm) {
    Store store("# three words here\n|1|c2FsdA==|aGFzaA== ssh-rsa " + _key64 + "\n*.example ssh-rsa " +
                _key64 + "\nhost ssh-rsa " + _key64 + "\n");
    EXPECT_TRUE(store.Refuses("host", 22, _other));
    EXPECT_TRUE(store.Trusts("a.example", 22, _other));
}

TEST_F(KnownHostsTest, AlgorithmNameIsNotCompared) {
    Store store("host ssh-dss " + _key64 + "\n");
    EXPECT_TRUE(store.Trusts("host", 22, _key));
    EXPECT_TRUE(store.Refuses("host", 22, _other));
}

TEST_F(KnownHostsTest, AddressOfAKnownHostIsLearntEvenFromAnotherKey) {
    Store store("host ssh-rsa " + _key64 + "\n");
    EXPECT_FALSE(store.Trusts("host", 22, _other, "10.0.0.1"));
    EXPECT_TRUE(store.Refuses("10.0.0.1", 22, _key));
    EXPECT_TRUE(store.Trusts("10.0.0.1", 22, _other));
    EXPECT_EQ(Content(), "");
}

TEST_F(KnownHostsTest, AddressHasNoInfluenceAndIsNotReplaced) {
    Store store("host ssh-rsa " + _key64 + "\n10.0.0.1 ssh-rsa " + _other64 + "\n");
    EXPECT_TRUE(store.Trusts("host", 22, _key, "10.0.0.1"));
    EXPECT_TRUE(store.Refuses("10.0.0.1", 22, _key));
}

TEST_F(KnownHostsTest, AddressOfANewHostIsNotLearntAtOnce) {
    Store store("");
    EXPECT_TRUE(store.Trusts("host", 22, _key, "10.0.0.1"));
    EXPECT_TRUE(store.Trusts("10.0.0.1", 22, _other));
}

TEST_F(KnownHostsTest, AddressIsKnownUnderThePortOfTheHost) {
    Store store("[host]:2222 ssh-rsa " + _key64 + "\n");
    EXPECT_TRUE(store.Trusts("host", 2222, _key, "10.0.0.1"));
    EXPECT_TRUE(store.Refuses("10.0.0.1", 2222, _other));
    EXPECT_TRUE(store.Trusts("10.0.0.1", 22, _other));
}

TEST_F(KnownHostsTest, EmptyHostIsNotTrusted) {
    Store store("");
    EXPECT_FALSE(store.Trusts("", 22, _key, "10.0.0.1"));
    EXPECT_EQ(store._hosts._IsIn(String_t(), 22, String_t(), _key), 0);
    EXPECT_TRUE(store.Refuses("10.0.0.1", 22, _other));
    EXPECT_EQ(Content(), "");
}

TEST_F(KnownHostsTest, KeyThatIsNotLoadedHasAnUnknownAlgorithm) {
    Store store("");
    EXPECT_TRUE(store.Trusts("host", 22, PublicKey()));
    EXPECT_EQ(Content(), "host ssh-unknown \n");
    EXPECT_TRUE(store.Refuses("host", 22, PublicKey()));
}

TEST_F(KnownHostsTest, NameIsCutTo1023Characters) {
    std::string const fits(1018, 'x'); // with its brackets and ":22" just 1023
    std::string const cut = fits + "y";
    Store store(fits + " ssh-rsa " + _key64 + "\n");
    EXPECT_TRUE(store.Refuses(fits.c_str(), 22, _other));
    EXPECT_TRUE(store.Trusts(cut.c_str(), 22, _other)); // cut after ":2"
    EXPECT_TRUE(store.Refuses((fits + "y").c_str(), 21, _key));
    Store longer(std::string(2000, 'z') + " ssh-rsa " + _key64 + "\n");
    EXPECT_TRUE(longer.Refuses(std::string(1022, 'z').c_str(), 9999, _other));
    EXPECT_TRUE(longer.Trusts(std::string(1021, 'z').c_str(), 9999, _other));
}

TEST_F(KnownHostsTest, MissingFileIsRememberedAndNoMore) {
    KnownHosts hosts;
    EXPECT_EQ(hosts._Read(File().c_str()), -ENOENT);
    EXPECT_NE(hosts._IsIn("host", 22, "", _key), 0);
    EXPECT_EQ(hosts._Read(File().c_str()), 0);
    EXPECT_EQ(hosts._Read((_directory / "none/file").c_str()), -ENOENT);
    EXPECT_EQ(hosts._IsIn("host", 22, "", _other), 0);
    EXPECT_EQ(hosts._Read(static_cast<char const*>(nullptr)), -ENOENT);
}

TEST_F(KnownHostsTest, FileThatOpensButCannotBeReadIsAnEmptyOne) {
    std::filesystem::create_directory(File());
    KnownHosts hosts;
    EXPECT_EQ(hosts._Read(File().c_str()), 0);
    EXPECT_NE(hosts._IsIn("host", 22, "", _key), 0);
    EXPECT_EQ(hosts._IsIn("host", 22, "", _other), 0);
}

TEST_F(KnownHostsTest, NewHostIsAcceptedWhenTheFileCannotBeWritten) {
    std::filesystem::remove_all(_directory / ".ssh");
    KnownHosts hosts;
    EXPECT_NE(hosts._IsIn("host", 22, "", _key), 0);
    EXPECT_EQ(hosts._IsIn("host", 22, "", _other), 0);
    EXPECT_FALSE(std::filesystem::exists(_directory / ".ssh"));
}

TEST_F(KnownHostsTest, NewHostGoesToTheDefaultFileWhateverWasRead) {
    std::string const elsewhere = _directory / "elsewhere";
    std::ofstream(elsewhere) << "host ssh-rsa " << _key64 << "\n";
    KnownHosts hosts(elsewhere.c_str());
    EXPECT_EQ(hosts._IsIn("host", 22, "", _other), 0);
    EXPECT_NE(hosts._IsIn("new", 22, "", _key), 0);
    EXPECT_EQ(Content(), "new ssh-rsa " + _key64 + "\n");
}

TEST_F(KnownHostsTest, DefaultFileIsReadAndKept) {
    std::string const before = "host ssh-rsa " + _key64 + "\n";
    SetContent(before);
    KnownHosts hosts;
    EXPECT_EQ(hosts._IsIn("host", 22, "", _other), 0);
    EXPECT_NE(hosts._IsIn("new", 22, "", _other), 0);
    EXPECT_EQ(Content(), before + "new ssh-rsa " + _other64 + "\n");
}

// The store of the process reads the home directory of its first use, here that of the first of the tests
// below that runs; they keep to hosts of their own.

TEST_F(KnownHostsTest, ThereIsOneStoreOfTheProcess) {
    EXPECT_EQ(KnownHosts::GetInstance(), KnownHosts::GetInstance());
    std::istringstream in("one ssh-rsa " + _key64 + "\n");
    EXPECT_EQ(KnownHosts::Read(in), 0);
    EXPECT_EQ(KnownHosts::Errnum(), 0);
    EXPECT_NE(KnownHosts::IsIn("one", 22, "", _key), 0);
    EXPECT_EQ(KnownHosts::IsIn("one", 22, "", _other), 0);
    EXPECT_EQ(KnownHosts::GetInstance()->_IsIn("one", 22, "", _other), 0);
}

TEST_F(KnownHostsTest, ErrnumIsThatOfTheLastRead) {
    SetContent("two ssh-rsa " + _key64 + "\n");
    EXPECT_EQ(KnownHosts::Read((_directory / "none").c_str()), -ENOENT);
    EXPECT_EQ(KnownHosts::Errnum(), -ENOENT);
    EXPECT_EQ(KnownHosts::Read(File().c_str()), 0);
    EXPECT_EQ(KnownHosts::Errnum(), 0);
    EXPECT_EQ(KnownHosts::IsIn("two", 22, "", _other), 0);
}

TEST_F(KnownHostsTest, ManyThreadsMayUseTheStoreAtOnce) {
    KnownHosts::GetInstance();
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            PublicKey const key = RsaKey(20 + t);
            std::string const name = "thread" + std::to_string(t);
            for (int i = 0; i < 50; ++i) {
                std::string const host = name + "-" + std::to_string(i);
                std::istringstream in("common ssh-rsa " + _key64 + "\n" + name + " ssh-rsa " + Base64(key) +
                                      "\n");
                if (KnownHosts::Read(in) != 0) ++wrong;
                if (!KnownHosts::IsIn(host.c_str(), 22, "10.1.1.1", key)) ++wrong;
                if (!KnownHosts::IsIn(host.c_str(), 22, "10.1.1.1", key)) ++wrong;
                if (KnownHosts::IsIn("common", 22, "", key)) ++wrong;
                if (KnownHosts::Errnum() != 0) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}
