#include <brantle/trust/known_hosts.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/new_process.h"
#include "support/temporary_directory.h"
#include "watched_file.h"
#include "wire_text.h"

using cindral::KnownHosts;
using cindral::PublicKey;

namespace {

std::string Base64(PublicKey const& key) { return key._rep->EncodeSSH64().Text(); }

/// A home directory for one test. What uses the store runs in a separate process, in which the store is new.
class KnownHostsStore : public testing::Test {
protected:
    KnownHostsStore() {
        setenv("HOME", _directory.Path().c_str(), 1);
        std::filesystem::create_directory(_directory / ".ssh");
    }
    ~KnownHostsStore() override { setenv("HOME", _home.c_str(), 1); }

    std::string File() const { return _directory / ".ssh/known_hosts"; }
    std::string Content() const {
        std::ifstream in(File());
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    void SetContent(std::string const& content) const { std::ofstream(File()) << content; }

    /// Runs a part of a test with a new store.
    template <class Body>
    static void WithStore(Body const& body) {
        EXPECT_EQ(support::InNewProcess([&] {
                      body();
                      return HasFailure() ? 1 : 0;
                  }),
                  0);
    }
    /// The same with a store that has read some lines.
    template <class Body>
    static void WithLines(std::string const& lines, Body const& body) {
        WithStore([&] {
            std::istringstream in(lines);
            EXPECT_EQ(KnownHosts::Read(in), 0);
            body();
        });
    }

    static bool Trusts(std::string const& host, unsigned short port, PublicKey const& key,
                       char const* address = "") {
        return KnownHosts::IsIn(host.c_str(), port, address, key) != 0;
    }
    /// Known, and not with this key: a host that is not known would be accepted.
    static bool Refuses(std::string const& host, unsigned short port, PublicKey const& key) {
        return !Trusts(host, port, key);
    }

    support::TemporaryDirectory _directory;
    PublicKey const _key = RsaKey(17);
    PublicKey const _other = RsaKey(18);
    std::string const _key64 = Base64(_key);
    std::string const _other64 = Base64(_other);

private:
    std::string const _home = getenv("HOME");
};

/// Whether a program may use a store other than that of the process.
template <class Store, class = void>
struct MayRead : std::false_type {};
template <class Store>
struct MayRead<Store, std::void_t<decltype(std::declval<Store&>()._Read(""))>> : std::true_type {};
template <class Store, class = void>
struct MayAsk : std::false_type {};
template <class Store>
struct MayAsk<Store, std::void_t<decltype(&Store::_IsIn)>> : std::true_type {};

} // namespace

TEST_F(KnownHostsStore, StaticOperationsAreTheOnlyOnes) {
    EXPECT_FALSE(MayRead<KnownHosts>::value);
    EXPECT_FALSE(MayAsk<KnownHosts>::value);
}

TEST_F(KnownHostsStore, OffersRsaAndDss) {
    EXPECT_STREQ(KnownHosts::KeyAlgorithms().Text(), "ssh-rsa,ssh-dss");
}

TEST_F(KnownHostsStore, NewHostIsAcceptedAndAppendedWithoutItsAddress) {
    WithStore([&] {
        EXPECT_TRUE(Trusts("host", 22, _key, "10.0.0.1"));
        std::string const line = "host ssh-rsa " + _key64 + "\n";
        EXPECT_EQ(Content(), line);
        EXPECT_TRUE(Trusts("host", 22, _key, "10.0.0.1"));
        EXPECT_FALSE(Trusts("host", 22, _other, "10.0.0.1"));
        EXPECT_TRUE(Trusts("host", 22, _key, "10.0.0.1"));
        EXPECT_EQ(Content(), line);
    });
}

TEST_F(KnownHostsStore, OtherPortIsWrittenInTheCanonicalForm) {
    WithStore([&] {
        EXPECT_TRUE(Trusts("host", 2222, _key));
        EXPECT_EQ(Content(), "[host]:2222 ssh-rsa " + _key64 + "\n");
        EXPECT_TRUE(Trusts("host", 22, _other));
        EXPECT_EQ(Content(), "[host]:2222 ssh-rsa " + _key64 + "\nhost ssh-rsa " + _other64 + "\n");
        EXPECT_TRUE(Refuses("host", 2222, _other));
        EXPECT_TRUE(Refuses("host", 22, _key));
        EXPECT_TRUE(Trusts("host", 65535, _key));
        EXPECT_NE(Content().find("\n[host]:65535 ssh-rsa "), std::string::npos);
    });
}

TEST_F(KnownHostsStore, BracketedHostIsKeptAndWrittenUnchanged) {
    WithStore([&] {
        EXPECT_TRUE(Trusts("[::1]:7", 22, _key));
        EXPECT_EQ(Content(), "[::1]:7 ssh-rsa " + _key64 + "\n");
        EXPECT_TRUE(Refuses("[::1]:7", 22, _other));
        EXPECT_TRUE(Refuses("[::1]:7", 4444, _other));
        EXPECT_TRUE(Refuses("::1", 7, _other));
    });
}

TEST_F(KnownHostsStore, WrittenEntryIsReadBackUnderTheSameName) {
    WithStore([&] {
        EXPECT_TRUE(Trusts("plain", 22, _key));
        EXPECT_TRUE(Trusts("other", 2222, _key));
        EXPECT_TRUE(Trusts("[v6::1]:99", 22, _key));
    });
    std::string const written = Content();
    WithStore([&] {
        EXPECT_TRUE(Refuses("plain", 22, _other));
        EXPECT_TRUE(Refuses("other", 2222, _other));
        EXPECT_TRUE(Refuses("v6::1", 99, _other));
        EXPECT_TRUE(Trusts("plain", 22, _key));
    });
    EXPECT_EQ(Content(), written);
}

TEST_F(KnownHostsStore, FileIsCreatedPrivateToItsOwner) {
    mode_t const before = umask(0);
    WithStore([&] { EXPECT_TRUE(Trusts("host", 22, _key)); });
    umask(before);
    struct stat status{};
    ASSERT_EQ(stat(File().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(KnownHostsStore, FileIsOpenedWithCloseOnExec) {
    SetContent("host ssh-rsa " + _key64 + "\n");
    WithStore([&] {
        WatchedFile const file(File());
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_TRUE(Trusts("new", 22, _key));
        EXPECT_GT(file.Reads(), 0u);
        EXPECT_EQ(file.Written().size(), 1u);
        EXPECT_TRUE(file.EachClosesOnExec());
    });
}

TEST_F(KnownHostsStore, ExistingFileKeepsItsMode) {
    SetContent("");
    ASSERT_EQ(chmod(File().c_str(), 0640), 0);
    WithStore([&] { EXPECT_TRUE(Trusts("host", 22, _key)); });
    struct stat status{};
    ASSERT_EQ(stat(File().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(KnownHostsStore, LineOfAnyLengthIsAppendedInOneWrite) {
    for (unsigned int bytes : {128u, 1024u, 2048u}) {
        PublicKey const large = RsaKey(17, bytes);
        std::filesystem::remove(File());
        WithStore([&] {
            WatchedFile const file(File());
            EXPECT_TRUE(Trusts("host", 22, large));
            EXPECT_EQ(file.Written(), std::vector<std::size_t>{Base64(large).size() + 14}) << bytes;
            EXPECT_TRUE(file.EachIs(O_APPEND)) << bytes;
        });
        EXPECT_EQ(Content(), "host ssh-rsa " + Base64(large) + "\n");
    }
}

TEST_F(KnownHostsStore, LineWithHostAndAddressGivesTwoEntries) {
    WithLines("host,10.0.0.1 ssh-rsa " + _key64 + " a comment\n", [&] {
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_TRUE(Refuses("10.0.0.1", 22, _other));
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_TRUE(Trusts("10.0.0.1", 22, _key));
        EXPECT_EQ(Content(), "");
        EXPECT_TRUE(Trusts("host", 2222, _other));
        EXPECT_TRUE(Trusts("10.0.0.1", 2222, _other));
    });
}

TEST_F(KnownHostsStore, CanonicalNameInALineKeepsItsPort) {
    WithLines("[host]:2222,[10.0.0.1]:2222 ssh-rsa " + _key64 + "\n", [&] {
        EXPECT_TRUE(Refuses("host", 2222, _other));
        EXPECT_TRUE(Refuses("10.0.0.1", 2222, _other));
        EXPECT_EQ(Content(), "");
    });
}

TEST_F(KnownHostsStore, LineOfTheOldFormatIsDropped) {
    WithLines("host 1024 35 123456789\nhost2 0x ssh-rsa\n", [&] {
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_TRUE(Trusts("host2", 22, _key));
    });
}

TEST_F(KnownHostsStore, ShortAndEmptyLinesAreDropped) {
    WithLines("\n   \nhost\nhost,10.0.0.1\n,\n", [&] {
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_TRUE(Trusts("10.0.0.1", 22, _key));
    });
}

TEST_F(KnownHostsStore, StreamAtItsEndIsReadWithoutFailure) {
    WithStore([] {
        std::istringstream in("host ssh-rsa");
        EXPECT_EQ(KnownHosts::Read(in), 0);
        EXPECT_EQ(KnownHosts::Read(in), 0);
    });
}

TEST_F(KnownHostsStore, FirstLineOfAHostCounts) {
    WithLines("host ssh-rsa " + _key64 + "\nhost ssh-rsa " + _other64 + "\n", [&] {
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_TRUE(Trusts("host", 22, _key));
    });
}

TEST_F(KnownHostsStore, SecondReadAddsAndChangesNothing) {
    WithLines("host ssh-rsa " + _key64 + "\n", [&] {
        std::istringstream more("host ssh-rsa " + _other64 + "\nhost2 ssh-rsa " + _other64 + "\n");
        EXPECT_EQ(KnownHosts::Read(more), 0);
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_TRUE(Refuses("host2", 22, _key));
    });
}

TEST_F(KnownHostsStore, LineWithoutAKeyMatchesNoKey) {
    WithLines("host ssh-rsa\n", [&] {
        EXPECT_TRUE(Refuses("host", 22, _key));
        EXPECT_TRUE(Refuses("host", 22, PublicKey()));
        EXPECT_EQ(Content(), "");
    });
}

TEST_F(KnownHostsStore, LastLineWithoutALineEndCounts) {
    WithLines("host ssh-rsa " + _key64, [&] { EXPECT_TRUE(Refuses("host", 22, _other)); });
}

TEST_F(KnownHostsStore, NewEntryGoesIntoALastLineWithoutALineEnd) {
    SetContent("host ssh-rsa " + _key64);
    WithStore([&] { EXPECT_TRUE(Trusts("new", 22, _other)); });
    EXPECT_EQ(Content(), "host ssh-rsa " + _key64 + "new ssh-rsa " + _other64 + "\n");
    WithStore([&] {
        EXPECT_TRUE(Refuses("host", 22, _key));
        EXPECT_TRUE(Trusts("new", 22, _key)); // as a new host
    });
}

TEST_F(KnownHostsStore, CommentLineDoesNoHarm) {
    WithLines("# three words here\nhost ssh-rsa " + _key64 + "\n",
              [&] { EXPECT_TRUE(Refuses("host", 22, _other)); });
}

TEST_F(KnownHostsStore, HostIsNewIfItsLineIsNotUnderstood) {
    std::string const key = "ssh-rsa " + _key64 + "\n";
    for (std::string const& line :
         {"|1|c2FsdA==|aGFzaA== " + key, "*.example " + key, "a.?xample " + key, "@revoked a.example " + key,
          "a.example\t" + key, "x,y,a.example " + key, "A.Example " + key}) {
        WithLines(line, [&] { EXPECT_TRUE(Trusts("a.example", 22, _other)) << line; });
    }
}

TEST_F(KnownHostsStore, AlgorithmNameIsNotCompared) {
    WithLines("host ssh-dss " + _key64 + "\n", [&] {
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_TRUE(Refuses("host", 22, _other));
    });
}

TEST_F(KnownHostsStore, AddressOfAKnownHostIsLearntEvenFromAnotherKey) {
    WithLines("host ssh-rsa " + _key64 + "\n", [&] {
        EXPECT_FALSE(Trusts("host", 22, _other, "10.0.0.1"));
        EXPECT_TRUE(Refuses("10.0.0.1", 22, _key));
        EXPECT_TRUE(Trusts("10.0.0.1", 22, _other));
        EXPECT_EQ(Content(), "");
    });
}

TEST_F(KnownHostsStore, AddressIsNotComparedAndNotReplaced) {
    WithLines("host ssh-rsa " + _key64 + "\n10.0.0.1 ssh-rsa " + _other64 + "\n", [&] {
        EXPECT_TRUE(Trusts("host", 22, _key, "10.0.0.1"));
        EXPECT_TRUE(Refuses("10.0.0.1", 22, _key));
    });
}

TEST_F(KnownHostsStore, AddressOfANewHostIsNotLearntImmediately) {
    WithStore([&] {
        EXPECT_TRUE(Trusts("host", 22, _key, "10.0.0.1"));
        EXPECT_TRUE(Trusts("10.0.0.1", 22, _other));
    });
}

TEST_F(KnownHostsStore, AddressIsKnownUnderThePortOfTheHost) {
    WithLines("[host]:2222 ssh-rsa " + _key64 + "\n", [&] {
        EXPECT_TRUE(Trusts("host", 2222, _key, "10.0.0.1"));
        EXPECT_TRUE(Refuses("10.0.0.1", 2222, _other));
        EXPECT_TRUE(Trusts("10.0.0.1", 22, _other));
    });
}

TEST_F(KnownHostsStore, EmptyHostIsNotTrusted) {
    WithStore([&] {
        EXPECT_FALSE(Trusts("", 22, _key, "10.0.0.1"));
        EXPECT_EQ(KnownHosts::IsIn(String_t(), 22, String_t(), _key), 0);
        EXPECT_TRUE(Refuses("10.0.0.1", 22, _other));
        EXPECT_EQ(Content(), "");
    });
}

TEST_F(KnownHostsStore, KeyThatIsNotLoadedHasAnUnknownAlgorithm) {
    WithStore([&] {
        EXPECT_TRUE(Trusts("host", 22, PublicKey()));
        EXPECT_EQ(Content(), "host ssh-unknown \n");
        EXPECT_TRUE(Refuses("host", 22, PublicKey()));
    });
}

TEST_F(KnownHostsStore, NameIsTruncatedTo1023Characters) {
    std::string const fits(1018, 'x'); // with its brackets and ":22" just 1023
    WithLines(fits + " ssh-rsa " + _key64 + "\n", [&] {
        EXPECT_TRUE(Refuses(fits, 22, _other));
        EXPECT_TRUE(Trusts(fits + "y", 22, _other)); // cut after ":2"
        EXPECT_TRUE(Refuses(fits + "y", 21, _key));
    });
    WithLines(std::string(2000, 'z') + " ssh-rsa " + _key64 + "\n", [&] {
        EXPECT_TRUE(Refuses(std::string(1022, 'z'), 9999, _other));
        EXPECT_TRUE(Trusts(std::string(1021, 'z'), 9999, _other));
    });
}

TEST_F(KnownHostsStore, MissingFileSetsErrnumOnly) {
    WithStore([&] {
        EXPECT_EQ(KnownHosts::Errnum(), -ENOENT);
        EXPECT_EQ(KnownHosts::Read(File().c_str()), -ENOENT);
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_EQ(KnownHosts::Read(File().c_str()), 0);
        EXPECT_EQ(KnownHosts::Errnum(), 0);
        EXPECT_EQ(KnownHosts::Read((_directory / "none/file").c_str()), -ENOENT);
        EXPECT_EQ(KnownHosts::Errnum(), -ENOENT);
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_EQ(KnownHosts::Read(static_cast<char const*>(nullptr)), -ENOENT);
    });
}

TEST_F(KnownHostsStore, UnreadableFileIsEmpty) {
    std::filesystem::create_directory(File());
    WithStore([&] {
        EXPECT_EQ(KnownHosts::Read(File().c_str()), 0);
        EXPECT_EQ(KnownHosts::Errnum(), 0);
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_TRUE(Refuses("host", 22, _other));
    });
}

TEST_F(KnownHostsStore, NewHostIsAcceptedWhenTheFileCannotBeWritten) {
    std::filesystem::remove_all(_directory / ".ssh");
    WithStore([&] {
        EXPECT_TRUE(Trusts("host", 22, _key));
        EXPECT_TRUE(Refuses("host", 22, _other));
    });
    EXPECT_FALSE(std::filesystem::exists(_directory / ".ssh"));
}

TEST_F(KnownHostsStore, NewHostIsAppendedToTheDefaultFileNotTheFileRead) {
    std::string const elsewhere = _directory / "elsewhere";
    std::string const line = "host ssh-rsa " + _key64 + "\n";
    std::ofstream(elsewhere) << line;
    WithStore([&] {
        EXPECT_EQ(KnownHosts::Read(elsewhere.c_str()), 0);
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_TRUE(Trusts("new", 22, _key));
    });
    EXPECT_EQ(Content(), "new ssh-rsa " + _key64 + "\n");
    std::ifstream in(elsewhere);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), line);
}

TEST_F(KnownHostsStore, DefaultFileIsReadAndKept) {
    std::string const before = "host ssh-rsa " + _key64 + "\n";
    SetContent(before);
    WithStore([&] {
        EXPECT_EQ(KnownHosts::Errnum(), 0);
        EXPECT_TRUE(Refuses("host", 22, _other));
        EXPECT_TRUE(Trusts("new", 22, _other));
    });
    EXPECT_EQ(Content(), before + "new ssh-rsa " + _other64 + "\n");
}

TEST_F(KnownHostsStore, FileLongerThanABlockIsReadWhole) {
    std::string lines;
    for (int i = 0; i < 1000; ++i) lines += "host" + std::to_string(i) + " ssh-rsa " + _key64 + "\n";
    SetContent(lines);
    WithStore([&] {
        for (int i = 0; i < 1000; ++i) EXPECT_TRUE(Refuses("host" + std::to_string(i), 22, _other)) << i;
    });
}

TEST_F(KnownHostsStore, StoreConstructedFromAStreamReadsItToItsEnd) {
    std::istringstream in("host ssh-rsa " + _key64 + "\nhost2 ssh-rsa " + _key64 + "\n");
    KnownHosts const hosts(in);
    EXPECT_TRUE(in.eof());
    EXPECT_FALSE(in.bad());
}

TEST_F(KnownHostsStore, SeparateStoreIsNotThatOfTheProcess) {
    std::string const elsewhere = _directory / "elsewhere";
    std::ofstream(elsewhere) << "host ssh-rsa " << _key64 << "\n";
    WithStore([&] {
        KnownHosts const hosts(elsewhere.c_str());
        KnownHosts const missing((_directory / "none").c_str());
        EXPECT_TRUE(Trusts("host", 22, _other));
    });
}

TEST_F(KnownHostsStore, StoreIsSharedByTheProcess) {
    WithLines("one ssh-rsa " + _key64 + "\n", [&] {
        EXPECT_EQ(KnownHosts::GetInstance(), KnownHosts::GetInstance());
        EXPECT_EQ(KnownHosts::Errnum(), 0);
        EXPECT_TRUE(Trusts("one", 22, _key));
        EXPECT_TRUE(Refuses("one", 22, _other));
    });
}

TEST_F(KnownHostsStore, ManyThreadsMayUseTheStoreConcurrently) {
    WithStore([&] {
        KnownHosts::GetInstance();
        std::vector<std::thread> threads;
        std::atomic<int> wrong{0};
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                PublicKey const key = RsaKey(20 + t);
                std::string const name = "thread" + std::to_string(t);
                for (int i = 0; i < 50; ++i) {
                    std::string const host = name + "-" + std::to_string(i);
                    std::istringstream in("common ssh-rsa " + _key64 + "\n" + name + " ssh-rsa " +
                                          Base64(key) + "\n");
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
    });
}
