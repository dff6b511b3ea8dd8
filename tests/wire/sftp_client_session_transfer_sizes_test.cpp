// SftpClientSession: files of all sizes around those of blocks and messages, there and back.

#include <map>

#include "wire/sftp_transfer_fixture.h"

using namespace sftp;

namespace {

/// An SFTP server that keeps its files in memory. The handle of a file is its name.
class RemoteFiles {
public:
    struct File {
        std::string bytes;
        std::uint32_t mode = REGULAR | 0600;
    };

    /// Answers until the client closes.
    void Serve(RemoteSftp& remote) {
        try {
            for (;;) {
                peer::Reader request(remote.ReadRequest());
                unsigned const type = request.U8();
                std::uint32_t const id = request.U32();
                ++requests[type];
                remote.SendMessage(Answer(type, request).Payload(id));
            }
        } catch (peer::Closed const&) {
        }
    }

    std::map<std::string, File> files;
    std::map<unsigned, std::size_t> requests; ///< number of each type

private:
    Message Answer(unsigned type, peer::Reader& request) {
        std::string const name = request.String();
        if (type == 3) return Open(name, request.U32());
        if (type == 4) return Done();
        File& file = files.at(name);
        if (type == 5) return Read(file.bytes, request);
        if (type == 6) return Write(file.bytes, request);
        if (type == 8) return Attrs(AllAttrs(file.bytes.size(), 0, 0, file.mode));
        if (type == 10) return SetMode(file.mode, request);
        throw peer::PeerError("a request of type " + std::to_string(type));
    }
    Message Open(std::string const& name, std::uint32_t flags) {
        if (flags == READING) return files.count(name) != 0 ? Opened(name) : Status(2);
        if (flags != WRITING) throw peer::PeerError("flags " + std::to_string(flags));
        files[name].bytes.clear();
        return Opened(name);
    }
    static Message Read(std::string const& bytes, peer::Reader& request) {
        std::uint64_t const offset = request.U64();
        return offset < bytes.size() ? FileData(bytes.substr(offset, request.U32())) : Status(1);
    }
    static Message Write(std::string& bytes, peer::Reader& request) {
        std::uint64_t const offset = request.U64();
        std::string const data = request.String();
        if (bytes.size() < offset + data.size()) bytes.resize(offset + data.size());
        bytes.replace(offset, data.size(), data);
        return Done();
    }
    static Message SetMode(std::uint32_t& mode, peer::Reader& request) {
        if (request.U32() != 4) throw peer::PeerError("attributes that are not the mode");
        mode = request.U32();
        return Done();
    }
};

class SftpTransferSizes : public SftpTransferTest {
protected:
    /// Puts a file of each size and gets it again; returns the outcome.
    std::string ThereAndBack(std::vector<std::size_t> const& sizes) {
        for (std::size_t const size : sizes) local.Store(std::to_string(size), Pattern(size), ModeFor(size));
        return TransferWith([this](RemoteSftp& sftp) { remote.Serve(sftp); },
                            [&](SftpProgram& session) {
                                int result = 0;
                                for (std::size_t const size : sizes) {
                                    std::string const name = std::to_string(size);
                                    String_t const there = name.c_str(), back = (name + ".back").c_str();
                                    if (result == 0) result = session.Put(status, there, there);
                                    if (result == 0) result = session.Get(status, there, back);
                                }
                                return result;
                            });
    }
    void ExpectUnchanged(std::size_t size) {
        SCOPED_TRACE(size);
        std::string const name = std::to_string(size);
        RemoteFiles::File const& there = remote.files["/home/u/" + name];
        EXPECT_TRUE(there.bytes == Pattern(size));
        EXPECT_EQ(there.mode, REGULAR | ModeFor(size));
        EXPECT_TRUE(local.Stored(name + ".back") == Pattern(size));
        EXPECT_EQ(local.ModeOf(name + ".back"), ModeFor(size));
    }
    /// Another for each size and its neighbours, always readable and without the bits that a write clears.
    static mode_t ModeFor(std::size_t size) { return static_cast<mode_t>(0400 | (size * 37 & 0777)); }

    RemoteFiles remote;
};

std::size_t Blocks(std::size_t size, std::size_t block) { return (size + block - 1) / block; }

} // namespace

TEST_F(SftpTransferSizes, EachSizeAroundTheLimitsSurvivesARoundTrip) {
    std::vector<std::size_t> sizes{0, 1, 8143, 8144, 8145};
    for (std::size_t size = 32543; size <= 32563; ++size) sizes.push_back(size);
    sizes.push_back(32786);
    EXPECT_EQ(ThereAndBack(sizes), "0");
    std::size_t reads = 0;
    std::size_t writes = 0;
    for (std::size_t const size : sizes) {
        ExpectUnchanged(size);
        reads += Blocks(size, READ_SIZE) + 1;
        writes += Blocks(size, WRITE_SIZE);
    }
    EXPECT_EQ(remote.requests[5], reads);
    EXPECT_EQ(remote.requests[6], writes);
}

TEST_F(SftpTransferSizes, OneMebibyteSurvivesARoundTrip) {
    EXPECT_EQ(ThereAndBack({1 << 20}), "0");
    ExpectUnchanged(1 << 20);
    EXPECT_EQ(remote.requests[5], Blocks(1 << 20, READ_SIZE) + 1);
    EXPECT_EQ(remote.requests[6], Blocks(1 << 20, WRITE_SIZE));
}
