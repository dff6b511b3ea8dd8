#ifndef BRANTLE_SFTP_SFTP_PACKET_H
#define BRANTLE_SFTP_SFTP_PACKET_H

#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/export.h>
#include <brantle/sftp/sftp_string.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

namespace cindral {

/// Base of all SFTP messages (version 3, draft-ietf-secsh-filexfer-02, section 3).
///
/// A message is built from its fields and encoded once by `Payload`, or built from a received payload. A
/// derived class declares its fields in wire order, once for writing and once for reading; this class handles
/// the type, the request id, the storage of the encoded bytes and decoding errors. Anything after the last
/// field of a received payload is ignored.
///
/// On the channel a message is sent as its length and its payload, in the form of a ByteString.
///
/// A message must be used on one thread.
class BRANTLE_API SftpPacket {
public:
    static constexpr int FXP_INIT = 1;
    static constexpr int FXP_VERSION = 2;
    static constexpr int FXP_OPEN = 3;
    static constexpr int FXP_CLOSE = 4;
    static constexpr int FXP_READ = 5;
    static constexpr int FXP_WRITE = 6;
    static constexpr int FXP_LSTAT = 7;
    static constexpr int FXP_FSTAT = 8;
    static constexpr int FXP_SETSTAT = 9;
    static constexpr int FXP_FSETSTAT = 10;
    static constexpr int FXP_OPENDIR = 11;
    static constexpr int FXP_READDIR = 12;
    static constexpr int FXP_REMOVE = 13;
    static constexpr int FXP_MKDIR = 14;
    static constexpr int FXP_RMDIR = 15;
    static constexpr int FXP_REALPATH = 16;
    static constexpr int FXP_STAT = 17;
    static constexpr int FXP_RENAME = 18;
    static constexpr int FXP_READLINK = 19;
    static constexpr int FXP_SYMLINK = 20;
    static constexpr int FXP_STATUS = 101;
    static constexpr int FXP_HANDLE = 102;
    static constexpr int FXP_DATA = 103;
    static constexpr int FXP_NAME = 104;
    static constexpr int FXP_ATTRS = 105;

    /// Writes a payload into memory.
    class BRANTLE_API EncoderStream : private OStringBuffer, public OSockStreamAdapter {
    public:
        EncoderStream();
        ~EncoderStream() override;

        /// Flushes, and returns everything that has been written.
        ByteString Bytes();
    };

    /// Reads a payload, which must remain valid meanwhile.
    class BRANTLE_API DecoderStream : private IStringBuffer, public ISockStreamAdapter {
    public:
        explicit DecoderStream(ByteString const& payload);
        ~DecoderStream() override;

    protected:
        int Fetch(char* begin, char* end) override;
    };

    virtual ~SftpPacket();

    /// The encoded message, shared: type, request id and fields. The first call encodes, later calls return
    /// the same bytes; for a received message they are the bytes received.
    virtual ByteString Payload();

    ByteString _payload; ///< the encoded message; empty before it is encoded
    int _type;           ///< FXP_...
    unsigned int _id;    ///< request id; 0 where a message has none

protected:
    /// A received message, whose fields are to be decoded.
    SftpPacket(int type, ByteString const& payload);
    /// A message not encoded yet.
    SftpPacket(int type, unsigned int id);

    /// The body of a `Payload` function: encodes type, id and these fields, unless that has already been
    /// done.
    template <class... Fields>
    ByteString Encode(Fields const&... fields) {
        if (_payload.Length() > 0) return _payload;
        EncoderStream out;
        BeginEncode(out);
        (Write(out, fields), ...);
        return _payload = out.Bytes();
    }

    /// The body of a decoding constructor: checks the type, then reads id and fields. A wrong type throws an
    /// `SshProtocolError` with the text `wrongType` and the type received. Malformed fields throw one with
    /// the text `badFields`, if the stream's status has any of the bits in `Failures`.
    template <unsigned int Failures = ~0u, class... Fields>
    void Decode(char const* wrongType, char const* badFields, Fields&... fields) {
        DecoderStream in(_payload);
        BeginDecode(in, wrongType);
        (Read(in, fields), ...);
        EndDecode(in.Status() & Failures, badFields);
    }

private:
    static void Write(OSockStream& out, String_t const& text) { WriteSftpString(out, text); }
    template <class Field>
    static void Write(OSockStream& out, Field const& field) {
        out << field;
    }
    static void Read(ISockStream& in, String_t& text) { ReadSftpString(in, text); }
    template <class Field>
    static void Read(ISockStream& in, Field& field) {
        in >> field;
    }

    bool HasId() const { return _type != FXP_INIT && _type != FXP_VERSION; }
    void BeginEncode(EncoderStream& out) const;
    void BeginDecode(DecoderStream& in, char const* wrongType);
    static void EndDecode(unsigned int failures, char const* badFields);
};

} // namespace cindral

#endif
