#ifndef TESTS_WIRE_STANDARD_SFTP_SERVER_H
#define TESTS_WIRE_STANDARD_SFTP_SERVER_H

#include <algorithm>
#include <functional>
#include <string>

#include "support/peer/standard_connection.h"

/// An SFTP server (draft-ietf-secsh-filexfer-02) with one file, on the channel of a StandardConnection. To be
/// served once the channel is open.
class SftpServer {
public:
    explicit SftpServer(peer::StandardConnection& connection) : _connection(connection) {}

    std::string content; ///< of the file, read and written
    /// Called before each answer, with the type of the request.
    std::function<void(unsigned type)> beforeAnswer;

    /// Called with a request's type, id and further fields; true if it has answered in the server's place.
    std::function<bool(unsigned type, std::uint32_t id, peer::Reader& fields)> instead;

    /// Takes the request of the subsystem and answers until the client has closed the file; then, and if the
    /// connection ends, it returns.
    void Serve() {
        _connection.ReadChannelRequest();
        while (!_closed) Answer(ReadMessage());
    }

    /// Whether bytes of a further request have been read.
    bool HasMore() const { return !_buffer.empty(); }

    /// A message, to which its length is put.
    void Send(peer::Bytes const& message) { SendBytes(peer::Writer().String(message)); }
    /// Any bytes of the channel.
    void SendBytes(peer::Bytes const& data) {
        constexpr std::size_t most = 0x8000; // what the client takes in one packet
        for (std::size_t at = 0; at < data.size(); at += most)
            _connection.SendPacket(
                peer::Writer().U8(peer::CHANNEL_DATA).U32(0).String(peer::Slice(data, at, most)));
    }

    /// Does what a request asks for, and answers it.
    void Perform(unsigned type, std::uint32_t id, peer::Reader request) {
        switch (type) {
        case 1: // INIT, whose version is in the place of the id
            return Send(peer::Writer().U8(2).U32(3));
        case 3: // OPEN
            return Send(peer::Writer().U8(102).U32(id).String("handle"));
        case 4: // CLOSE
            _closed = true;
            return SendStatus(id, 0, "");
        case 5: { // READ
            request.Blob();
            auto const offset = static_cast<std::size_t>(request.U64());
            std::size_t const size = request.U32();
            if (offset >= content.size()) return SendStatus(id, 1, "end of file");
            return Send(peer::Writer().U8(103).U32(id).String(content.substr(offset, size)));
        }
        case 6: { // WRITE
            request.Blob();
            auto const offset = static_cast<std::size_t>(request.U64());
            std::string const data = request.String();
            content.resize(std::max(content.size(), offset + data.size()));
            content.replace(offset, data.size(), data);
            return SendStatus(id, 0, "");
        }
        case 8: // FSTAT
            return Send(peer::Writer().U8(105).U32(id).U32(1).U64(content.size()));
        case 16: // REALPATH
            return Send(peer::Writer().U8(104).U32(id).U32(1).String("/home").String("").U32(0));
        default:
            return SendStatus(id, 8, "not supported");
        }
    }

private:
    peer::Bytes ReadMessage() {
        while (_buffer.size() < 4 || _buffer.size() - 4 < peer::Reader(_buffer).U32()) {
            peer::Reader packet(_connection.ReadPacket());
            if (packet.U8() != peer::CHANNEL_DATA) continue;
            packet.U32();
            peer::Bytes const data = packet.Blob();
            _buffer.insert(_buffer.end(), data.begin(), data.end());
            Grant(data.size());
        }
        std::size_t const size = peer::Reader(_buffer).U32();
        peer::Bytes const message = peer::Slice(_buffer, 4, size);
        _buffer = peer::Slice(_buffer, 4 + size, _buffer.size());
        return message;
    }

    /// Lets the client send as much again, once that is worth a message.
    void Grant(std::size_t bytes) {
        _taken += static_cast<std::uint32_t>(bytes);
        if (_taken < _connection.settings.window / 2) return;
        _connection.SendPacket(peer::Writer().U8(peer::CHANNEL_WINDOW_ADJUST).U32(0).U32(_taken));
        _taken = 0;
    }

    void SendStatus(std::uint32_t id, std::uint32_t code, char const* text) {
        Send(peer::Writer().U8(101).U32(id).U32(code).String(text).String(""));
    }

    void Answer(peer::Bytes const& message) {
        peer::Reader request(message);
        unsigned const type = request.U8();
        if (beforeAnswer) beforeAnswer(type);
        std::uint32_t const id = request.U32();
        if (peer::Reader fields = request; instead && instead(type, id, fields)) return;
        Perform(type, id, request);
    }

    peer::StandardConnection& _connection;
    peer::Bytes _buffer;
    std::uint32_t _taken = 0; ///< bytes that have not been granted again
    bool _closed = false;
};

#endif
