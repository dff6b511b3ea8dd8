// The server's replies to a copy of a whole file over SFTP with the standard dialect.
//
// The first byte of the input chooses the direction, the number of requests in flight, whether the replies
// are given the ids of requests that wait, and whether messages are written in place. The second is the size
// of the file, in units of SIZE_UNIT, and the third that of the pieces in which the replies arrive. What
// follows are the replies, each with its length in front.
//
// A copy that succeeds must have every byte where the server put it, or have had every block accepted; and
// however a copy ends, no request may be left without its reply, nor more be in flight than asked for.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <brantle/cindral/exceptions.h>

#include "finding.h"
#include "memory_file.h"
#include "standard/sftp_pipeline.h"
#include "support/peer/wire.h"

using namespace cindral::standard;
using cindral::SftpStatus;
using cindral::SshProtocolError;
using fuzz::Require;

namespace {

constexpr unsigned int DOWNLOAD = 0x01, IDS_MATCH = 0x02, IN_PLACE = 0x04, IN_FLIGHT_SHIFT = 6;
constexpr unsigned int IN_FLIGHT[] = {1, 2, 5, 64};
constexpr std::size_t SETTINGS = 3, SIZE_UNIT = 4096;
constexpr std::size_t LENGTH_FIELD = 4, HEAD = 9; ///< length, type and id
constexpr unsigned int READ = 5, WRITE = 6, DATA = 103;
char const HANDLE[] = "handle";

struct Request {
    std::uint64_t offset = 0;
    std::size_t size = 0;
    std::string data; ///< of a WRITE
    int replies = 0;
};

/// The channel: keeps what is written as requests, and delivers the input as their replies.
class Port : public DataPort {
public:
    Port(peer::Bytes replies, std::size_t piece, unsigned int flags)
        : _replies(std::move(replies)), _piece(piece), _flags(flags) {}

    void SetReceiver(DataReceiver* receiver) override { _receiver = receiver; }
    void Write(View data) override { Take(data); }
    unsigned char* BeginWrite(std::size_t size) override {
        _room.resize(size);
        return _flags & IN_PLACE ? _room.data() : nullptr;
    }
    void EndWrite(std::size_t size) override {
        if (size > 0) Take(View(_room.data(), size));
    }
    void Serve() override {
        if (_at == _replies.size()) throw SshProtocolError("the channel has ended");
        if (_at == _next) BeginReply();
        std::size_t const size = std::min({_piece, _replies.size() - _at, _next - _at});
        View const data(_replies.data() + _at, size);
        _at += size;
        if (_receiver) _receiver->TakeData(data);
    }

    void Close() override { Require(false, "Close", "is not the pipeline's to call"); }

    std::size_t Waiting() const {
        return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(),
                                                      [](auto const& r) { return r.second.replies == 0; }));
    }

    std::map<std::uint32_t, Request> requests; ///< by id
    std::size_t mostWaiting = 0;
    std::map<std::uint64_t, std::string> blocks; ///< what the server sent, by offset

private:
    void Take(View message) {
        peer::Reader fields(peer::Bytes(message.begin(), message.end()));
        std::uint32_t const length = fields.U32();
        Require(length == fields.Left(), "request", "has another length than it says");
        unsigned int const type = fields.U8();
        Require(type == (_flags & DOWNLOAD ? READ : WRITE), "request", "is of another type");
        std::uint32_t const id = fields.U32();
        Require(requests.count(id) == 0, "request", "has an id that was used");
        Require(fields.String() == HANDLE, "request", "is for another file");
        Request request;
        request.offset = fields.U64();
        if (type == READ)
            request.size = fields.U32();
        else
            request.data = fields.String();
        fields.End();
        requests[id] = request;
        mostWaiting = std::max(mostWaiting, Waiting());
    }

    /// Finds the end of the next reply, and what a server means by it.
    void BeginReply() {
        _next = _replies.size();
        if (_replies.size() - _at < HEAD) return;
        peer::Reader head(peer::Slice(_replies, _at, HEAD));
        std::uint64_t const length = head.U32();
        unsigned int const type = head.U8();
        std::uint32_t id = head.U32();
        if (length < HEAD - LENGTH_FIELD || length > _replies.size() - _at - LENGTH_FIELD) return;
        _next = _at + LENGTH_FIELD + static_cast<std::size_t>(length);
        if (_flags & IDS_MATCH) id = Match(id);
        auto const found = requests.find(id);
        if (found == requests.end()) return;
        ++found->second.replies;
        if (type == DATA) Keep(found->second.offset, peer::Slice(_replies, _at + HEAD, _next - _at - HEAD));
    }
    /// Puts the id of a waiting request in the place of the reply's, which chooses among them.
    std::uint32_t Match(std::uint32_t id) {
        std::vector<std::uint32_t> waiting;
        for (auto const& [number, request] : requests)
            if (request.replies == 0) waiting.push_back(number);
        if (waiting.empty()) return id;
        std::uint32_t const chosen = waiting[id % waiting.size()];
        peer::Bytes const bytes = peer::Writer().U32(chosen);
        std::copy(bytes.begin(), bytes.end(), _replies.begin() + static_cast<std::ptrdiff_t>(_at + 5));
        return chosen;
    }
    void Keep(std::uint64_t offset, peer::Bytes const& fields) {
        try {
            blocks[offset] = peer::Reader(fields).String();
        } catch (peer::PeerError const&) { // the reply is malformed, and the copy has to fail
        }
    }

    peer::Bytes _replies;
    std::size_t const _piece;
    unsigned int const _flags;
    DataReceiver* _receiver = nullptr;
    Bytes _room;
    std::size_t _at = 0;   ///< delivered up to here
    std::size_t _next = 0; ///< end of the current reply
};

/// The content of a file in memory.
std::string ContentOf(int file) {
    std::string content(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
    Require(pread(file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()), "pread",
            "failed");
    return content;
}

void CheckDownload(Port const& port, std::string const& local) {
    std::string expected;
    for (auto const& [offset, block] : port.blocks) {
        if (offset != expected.size()) break;
        expected += block;
    }
    Require(local == expected, "download", "succeeds with other bytes than the server's");
}

void CheckUpload(Port const& port, std::string const& local) {
    std::string sent(local.size(), '\0');
    std::size_t size = 0;
    for (auto const& [id, request] : port.requests) {
        Require(request.offset + request.data.size() <= local.size(), "upload", "writes beyond the file");
        sent.replace(static_cast<std::size_t>(request.offset), request.data.size(), request.data);
        size += request.data.size();
    }
    Require(size == local.size() && sent == local, "upload", "succeeds with other bytes than the file's");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < SETTINGS) return 0;
    unsigned int const flags = data[0];
    bool const isDownload = (flags & DOWNLOAD) != 0;
    std::size_t const fileSize = data[1] * SIZE_UNIT;
    unsigned int const inFlight = IN_FLIGHT[flags >> IN_FLIGHT_SHIFT];
    Port port(peer::Bytes(data + SETTINGS, data + size), std::size_t{data[2]} + 1, flags);
    int const file = fuzz::MemoryFile(isDownload ? "" : std::string(fileSize, 'x'));
    unsigned long long last = 0;
    auto const progress = [&](unsigned long long done) {
        Require(done > last, "progress", "does not rise");
        last = done;
    };
    SftpStatus status;
    try {
        int result = 0;
        unsigned long long done = 0;
        if (isDownload) {
            SftpDownload download(port, status, View(HANDLE), inFlight, progress, file, fileSize);
            result = download.Run();
            done = download.Done();
        } else {
            SftpUpload upload(port, status, View(HANDLE), inFlight, progress, file);
            result = upload.Run();
            done = upload.Done();
        }
        Require(result == 0 || result == -1, "Run", "fails for a local reason");
        Require(port.Waiting() == 0, "Run", "leaves a request without its reply");
        for (char const* c = status._message.Text(); c && *c; ++c)
            Require(static_cast<unsigned char>(*c) >= 0x20 && *c != 0x7f, "status", "has control characters");
        std::string const local = ContentOf(file);
        if (result == 0) Require(done == local.size(), "Done", "is not the size");
        if (result == 0 && isDownload) CheckDownload(port, local);
        if (result == 0 && !isDownload) CheckUpload(port, local);
    } catch (SshProtocolError const&) {
    }
    Require(port.mostWaiting <= inFlight, "requests", "are too many in flight");
    for (auto const& [id, request] : port.requests)
        Require(request.size <= 0x8000 && request.data.size() <= 0x8000, "request", "is too large");
    return 0;
}
