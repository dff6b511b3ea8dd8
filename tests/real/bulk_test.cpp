// That 1 GiB arrives whole, in both directions, in memory that does not grow with it.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "support/client/forwarding_client.h"
#include "support/servers/python_servers.h"
#include "support/servers/server_suite.h"
#include "wire/tcp_end.h"

using client::Report;
using client::SessionClient;

namespace {

constexpr std::size_t BULK = std::size_t{1} << 30;
constexpr std::size_t PIECE = 65536;

/// Through a forwarding: sanitizers take their time.
constexpr std::size_t FORWARDED = BUILT_WITH_SANITIZER ? BULK / 8 : BULK;

/// How much larger the client may become while the data passes: its buffers are built by then, and a page
/// here and there is touched for the first time. Sanitizers keep some megabytes more, such as the stacks of
/// functions that have returned.
constexpr long GROWTH_LIMIT_KIB = BUILT_WITH_SANITIZER ? 16384 : 4096;

/// Bytes among which none can be lost, doubled or moved unseen: the key stream of AES in counter mode, with a
/// key and a counter of zeros.
class ByteSource {
public:
    ByteSource() : _context(EVP_CIPHER_CTX_new()) {
        std::array<unsigned char, 16> const zeros{};
        if (EVP_EncryptInit_ex(_context, EVP_aes_128_ctr(), nullptr, zeros.data(), zeros.data()) != 1)
            throw std::runtime_error("EVP_EncryptInit_ex");
    }
    ~ByteSource() { EVP_CIPHER_CTX_free(_context); }
    ByteSource(ByteSource const&) = delete;
    ByteSource& operator=(ByteSource const&) = delete;

    unsigned char const* Next(std::size_t count) {
        int written = 0;
        EVP_EncryptUpdate(_context, _piece.data(), &written, _zeros.data(), static_cast<int>(count));
        return _piece.data();
    }

    /// A command that prints the first `count` bytes.
    static std::string Command(std::size_t count) {
        std::string const zeros(32, '0');
        return "openssl enc -aes-128-ctr -K " + zeros + " -iv " + zeros +
               " -in /dev/zero 2>/dev/null | head -c " + std::to_string(count);
    }

private:
    EVP_CIPHER_CTX* _context;
    std::vector<unsigned char> _zeros = std::vector<unsigned char>(PIECE);
    std::vector<unsigned char> _piece = std::vector<unsigned char>(PIECE);
};

/// A pipe to or from a program that is about to be started.
class Pipe {
public:
    Pipe() {
        if (pipe2(_fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    }
    ~Pipe() {
        CloseReader();
        CloseWriter();
    }
    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    int Reader() const { return _fds[0]; }
    int Writer() const { return _fds[1]; }
    void CloseReader() { Close(_fds[0]); }
    void CloseWriter() { Close(_fds[1]); }

private:
    static void Close(int& fd) {
        if (fd >= 0) close(fd);
        fd = -1;
    }

    int _fds[2];
};

/// How many bytes come until the end, and whether they are the pattern.
struct Arrival {
    std::size_t count = 0;
    std::size_t pieceOfFirstDifference = 0; ///< counted from 1; 0 for none
};

Arrival ReadPattern(int fd) {
    Arrival arrival;
    ByteSource pattern;
    std::vector<char> piece(PIECE);
    for (std::size_t number = 1;; ++number) {
        ssize_t const count = read(fd, piece.data(), piece.size());
        if (count <= 0) return arrival;
        auto const length = static_cast<std::size_t>(count);
        bool const isSame = std::memcmp(piece.data(), pattern.Next(length), length) == 0;
        if (!isSame && arrival.pieceOfFirstDifference == 0) arrival.pieceOfFirstDifference = number;
        arrival.count += length;
    }
}

/// How many bytes could be written.
std::size_t WritePattern(int fd, std::size_t total = BULK) {
    ByteSource pattern;
    for (std::size_t done = 0; done < total; done += PIECE) {
        unsigned char const* bytes = pattern.Next(PIECE);
        for (std::size_t at = 0; at < PIECE;) {
            ssize_t const count = write(fd, bytes + at, PIECE - at);
            if (count < 0) return done + at;
            at += static_cast<std::size_t>(count);
        }
    }
    return total;
}

std::string ReadAll(int fd) {
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t count; (count = read(fd, piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<std::size_t>(count));
    return text;
}

class Bulk : public servers::ServerSuite<servers::AsyncsshServer> {
protected:
    Bulk() { client.WithKey("user_rsa").WithVariable("ASAN_OPTIONS=" + SanitizerOptions()); }

    void ExpectFlat(Report const& report) {
        EXPECT_EQ(report["run"], "-1") << report;
        EXPECT_EQ(report["thrown"], "") << report;
        EXPECT_EQ(report.errors, "");
        EXPECT_EQ(report.status, 0);
        long const before = std::stol(report["peak-kib-before"]);
        long const after = std::stol(report["peak-kib"]);
        RecordProperty("peak_kib_before", std::to_string(before));
        RecordProperty("peak_kib", std::to_string(after));
        EXPECT_LE(after - before, GROWTH_LIMIT_KIB) << after << " KiB at the end";
    }

    SessionClient client{TheServer()};

private:
    /// AddressSanitizer gives memory back at once: what it would keep to find late uses of it would hide what
    /// the client needs.
    static std::string SanitizerOptions() {
        char const* options = std::getenv("ASAN_OPTIONS");
        return std::string(options ? options : "") +
               ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
    }
};

} // namespace

TEST_F(Bulk, OutputArrivesComplete) {
    Pipe output;
    auto const session = client.StartCommand(ByteSource::Command(BULK), -1, output.Writer());
    output.CloseWriter();
    Arrival const arrival = ReadPattern(output.Reader());
    EXPECT_EQ(arrival.count, BULK);
    EXPECT_EQ(arrival.pieceOfFirstDifference, 0u);
    ExpectFlat(client.ReportOf(*session));
}

TEST_F(Bulk, InputArrivesComplete) {
    Pipe input, output;
    auto const session = client.StartCommand("cmp - <(" + ByteSource::Command(BULK) + ") && echo the same",
                                             input.Reader(), output.Writer());
    input.CloseReader();
    output.CloseWriter();
    std::size_t written = 0;
    std::thread writer([&] {
        written = WritePattern(input.Writer());
        input.CloseWriter();
    });
    std::string const verdict = ReadAll(output.Reader());
    writer.join();
    EXPECT_EQ(written, BULK);
    EXPECT_EQ(verdict, "the same\n");
    ExpectFlat(client.ReportOf(*session));
}

TEST_F(Bulk, ForwardedConnectionIsCompleteBothWays) {
    tcp::Service const service;
    client.WithLocalForwarding("127.0.0.1:0:127.0.0.1:" + std::to_string(service.Port()));
    client::Forwarding forwarding(client);
    tcp::End local = tcp::End::To(forwarding.Port());
    tcp::End remote = service.Accept();
    auto const expectArrival = [](tcp::End& from, tcp::End& to) {
        std::size_t written = 0;
        std::thread writer([&] {
            written = WritePattern(from.Fd(), FORWARDED);
            from.EndSending();
        });
        Arrival const arrival = ReadPattern(to.Fd());
        writer.join();
        EXPECT_EQ(written, FORWARDED);
        EXPECT_EQ(arrival.count, FORWARDED);
        EXPECT_EQ(arrival.pieceOfFirstDifference, 0u);
    };
    expectArrival(local, remote);
    expectArrival(remote, local);
    local.Close();
    remote.Close();
    forwarding.AwaitConnections(0);
    ExpectFlat(forwarding.End());
}
