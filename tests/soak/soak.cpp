// Files of more than 4 GiB over SFTP: fetched from sshd, put to the scripted peer. Every byte and offset is
// compared, and the memory of this process may not grow while they pass.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

#include <brantle/brantle.h>
#include <brantle/thornel/file_descriptor.h>

#include "support/peer/scripted_peer.h"
#include "support/servers/openssh_server.h"

using namespace cindral;
using peer::Bytes;
using peer::Connection;
using peer::Reader;
using peer::Writer;

namespace {

constexpr std::int64_t GIB = std::int64_t{1} << 30;
constexpr std::int64_t MIB = std::int64_t{1} << 20;
constexpr std::int64_t SIZE = 5 * GIB;

/// From where on the process may not become larger, and by how much it may all the same.
constexpr std::int64_t SETTLED = 512 * MIB;
constexpr long GROWTH_LIMIT_KIB = 4096;

void Check(bool good, char const* what) {
    if (!good) throw std::system_error(errno, std::generic_category(), what);
}

/// A sparse file. Where an offset could lose its upper half, and at both ends, each place holds its own
/// offset.
class LargeFile {
public:
    LargeFile() : _fd(open(Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        Check(_fd >= 0 && fchmod(_fd, 0644) == 0 && ftruncate(_fd, SIZE) == 0, "large file");
        Check(chmod(_directory.Path().c_str(), 0755) == 0, "directory");
        for (std::int64_t const at : {std::int64_t{0}, GIB, 2 * GIB - 4, 4 * GIB - 4, 4 * GIB,
                                      4 * GIB + GIB / 2, 4 * GIB + 32544, SIZE - 8})
            Check(pwrite(_fd, &at, sizeof at, at) == sizeof at, "pwrite");
    }

    std::string Path() const { return _directory / "large"; }
    /// Whether the file has these bytes there.
    bool Holds(std::int64_t offset, void const* data, std::size_t count) const {
        std::array<char, 65536> own;
        return count <= own.size() && pread(_fd, own.data(), count, offset) == static_cast<ssize_t>(count) &&
               std::memcmp(own.data(), data, count) == 0;
    }

private:
    servers::TemporaryDirectory _directory;
    FileDescriptor _fd;
};

long ResidentKib() {
    std::ifstream statm("/proc/self/statm");
    long whole = 0, resident = 0;
    statm >> whole >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/// Watches the bytes that arrive at the other side: their order, their content, and the memory meanwhile.
class Arrival {
public:
    explicit Arrival(LargeFile const& file) : _file(file) {}

    /// Takes the next bytes.
    void Take(std::int64_t offset, void const* data, std::size_t count) {
        if (offset != _next || !_file.Holds(offset, data, count)) ++_faults;
        bool const wasSettled = _next >= SETTLED;
        _next = offset + static_cast<std::int64_t>(count);
        if (!wasSettled && _next >= SETTLED) _settledKib = ResidentKib();
        if (_next >= SIZE) _lastKib = ResidentKib();
    }
    std::int64_t Next() const { return _next; }

    void Expect(char const* what) const {
        std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - _start;
        EXPECT_EQ(_faults, 0);
        EXPECT_EQ(_next, SIZE);
        EXPECT_LE(_lastKib - _settledKib, GROWTH_LIMIT_KIB);
        std::cout << what << ": " << _next << " bytes in " << seconds.count() << " s, resident "
                  << _settledKib << " KiB after the first " << SETTLED / MIB << " MiB, " << _lastKib
                  << " KiB at the end\n";
    }

private:
    LargeFile const& _file;
    std::chrono::steady_clock::time_point const _start = std::chrono::steady_clock::now();
    std::int64_t _next = 0;
    int _faults = 0;
    long _settledKib = 0;
    long _lastKib = 0;
};

void LogIn(SftpClientSession& session, std::string const& identity, std::string const& user, int surplus) {
    EnterPassword enter(0, "");
    KbdCopyCallback callback("");
    if (session.Connect(20) != 0 || session.KeyExchange() != 0 ||
        session.Authenticate(identity.c_str(), user.c_str(), "", enter, callback) != 0)
        throw std::runtime_error("no login");
    for (; surplus > 0; --surplus) session.AuthReadPacket();
    if (session.Start() != 0) throw std::runtime_error("no SFTP");
}

/// The requests of a client, put together from what its channel data carries.
class Requests {
public:
    explicit Requests(Connection& c) : _connection(c) {}

    Reader Next() {
        while (Available() < 4 || Available() < 4 + Length()) ReadMore();
        Bytes const request(_bytes.begin() + Offset(4), _bytes.begin() + Offset(4 + Length()));
        _at += 4 + Length();
        return Reader(request);
    }

private:
    std::size_t Available() const { return _bytes.size() - _at; }
    std::ptrdiff_t Offset(std::size_t after) const { return static_cast<std::ptrdiff_t>(_at + after); }
    std::size_t Length() const {
        return Reader(Bytes(_bytes.begin() + Offset(0), _bytes.begin() + Offset(4))).U32();
    }

    void ReadMore() {
        _bytes.erase(_bytes.begin(), _bytes.begin() + Offset(0));
        _at = 0;
        Reader packet(_connection.ReadPacket());
        _connection.received.clear();
        _connection.sent.clear();
        if (packet.U8() != peer::CHANNEL_DATA) return; // a window
        packet.U32();
        Bytes const data = packet.Blob();
        _bytes.insert(_bytes.end(), data.begin(), data.end());
    }

    Connection& _connection;
    Bytes _bytes;
    std::size_t _at = 0;
};

/// An SFTP server of one file, which is written.
void TakeFile(Connection& c, Arrival& arrival) {
    enum {
        INIT = 1,
        VERSION,
        OPEN,
        CLOSE,
        WRITE = 6,
        FSETSTAT = 10,
        REALPATH = 16,
        STATUS = 101,
        HANDLE,
        NAME = 104
    };
    c.WellBehaved(peer::Stage::Opened);
    c.ReadChannelRequest();
    c.Wire().recording = false;
    Requests requests(c);
    auto const answer = [&c](Bytes const& reply) { c.SendData(peer::ToText(Writer().String(reply))); };
    for (bool isOpen = true; isOpen;) {
        Reader request = requests.Next();
        int const type = request.U8();
        std::uint32_t const id = request.U32();
        Bytes const done = Writer().U8(STATUS).U32(id).U32(0).String("done").String("en");
        switch (type) {
        case INIT:
            answer(Writer().U8(VERSION).U32(3));
            break;
        case REALPATH:
            answer(Writer().U8(NAME).U32(id).U32(1).String("/").String("/").U32(0));
            break;
        case OPEN:
            answer(Writer().U8(HANDLE).U32(id).String("file"));
            break;
        case FSETSTAT:
            answer(done);
            break;
        case WRITE: {
            EXPECT_EQ(request.String(), "file");
            auto const offset = static_cast<std::int64_t>(request.U64());
            Bytes const data = request.Blob();
            arrival.Take(offset, data.data(), data.size());
            answer(done);
            break;
        }
        case CLOSE:
            answer(done);
            isOpen = false;
            break;
        default:
            throw std::runtime_error("request of type " + std::to_string(type));
        }
    }
}

} // namespace

TEST(Soak, LargeFileIsDownloadedFromSshd) {
    servers::OpensshServer const server;
    LargeFile const file;
    Arrival arrival(file);
    int ends[2];
    Check(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
    std::thread reader([&] {
        std::array<char, 65536> piece;
        for (ssize_t count; (count = read(ends[0], piece.data(), piece.size())) > 0;)
            arrival.Take(arrival.Next(), piece.data(), static_cast<std::size_t>(count));
        close(ends[0]);
    });
    try {
        SftpClientSession session(server.Port(), server.Host().c_str());
        LogIn(session, server.File("user_rsa"), server.User(), 3);
        SftpStatus status;
        EXPECT_EQ(session.Receive(status, file.Path().c_str(), ends[1]), 0) << status._message;
    } catch (std::exception const& failure) {
        ADD_FAILURE() << failure.what();
    }
    close(ends[1]);
    reader.join();
    arrival.Expect("get from sshd");
}

TEST(Soak, LargeFileIsUploadedToThePeer) {
    LargeFile const file;
    Arrival arrival(file);
    peer::ServerSettings settings;
    settings.group = peer::DhGroup::Modp(1024);
    settings.noneAccepted = true;
    peer::ScriptedPeer server([&](Connection& c) { TakeFile(c, arrival); }, settings);
    {
        SftpClientSession session(server.Port(), "127.0.0.1");
        LogIn(session, "", "tester", 0);
        SftpStatus status;
        EXPECT_EQ(session.Send(status, file.Path().c_str(), "/large"), 0) << status._message;
    }
    server.Finish();
    arrival.Expect("put to the peer");
}
