#ifndef BRANTLE_PACKET_SSH_BUFFER_H
#define BRANTLE_PACKET_SSH_BUFFER_H

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/mac.h>
#include <brantle/export.h>

namespace cindral {

/// Size of a framing buffer for plain bytes, and of its slightly larger area for encrypted bytes.
constexpr unsigned int SSH_PLAIN_SIZE = 8192;
constexpr unsigned int SSH_CRYPT_SIZE = SSH_PLAIN_SIZE + 32;

/// The layer that encrypts and authenticates outgoing packets (RFC 4253, section 6).
///
/// Plain bytes are collected in the buffer; a flush feeds them to the MAC and writes them encrypted to the
/// layer below. The cipher and the MAC belong to the session and must outlive the buffer; they are looked up
/// for each operation, so new keys take effect with the next packet. One thread at a time, and one packet at
/// a time: StartPacket, bytes, FinalizePacket.
class BRANTLE_API OSshBuffer : public CascadableOStreamBuffer {
public:
    /// `next` receives the cipher text and must outlive this buffer.
    OSshBuffer(CascadableOStreamBuf* next, BlockCipher& cipher, Mac& mac);
    ~OSshBuffer() override;
    OSshBuffer(OSshBuffer const&) = delete;
    OSshBuffer& operator=(OSshBuffer const&) = delete;

    /// Starts the MAC of a packet with the sequence number, if a MAC is set.
    void StartPacket();

    /// Encrypts and passes on the buffered plain bytes. Returns 0, a negative value of the layer below (the
    /// plain bytes then stay buffered), or errno if the cipher failed.
    int Flush() override;

    /// Flushes, appends the MAC, which is not encrypted, and advances the sequence number. Returns 0, or a
    /// negative value; the sequence number is then unchanged.
    int FinalizePacket();

    BlockCipher& _cipher;
    Mac& _mac;
    unsigned int _plainBytes; ///< total of plain bytes flushed
    unsigned int _sequence;   ///< number of the current packet, RFC 4253, section 6.4
    unsigned char _cryptBuffer[SSH_CRYPT_SIZE];

private:
    char _plainBuffer[SSH_PLAIN_SIZE]; ///< of the OutputBuffer
};

/// The layer that decrypts and checks incoming packets (RFC 4253, section 6).
///
/// It reads no more from the layer below than has been allowed for the current packet, so a read never
/// consumes part of the MAC or of the next packet. Ownership and threads as for OSshBuffer.
class BRANTLE_API ISshBuffer : public CascadableIStreamBuffer {
public:
    /// `next` provides the cipher text and must outlive this buffer.
    ISshBuffer(CascadableIStreamBuf* next, BlockCipher& cipher, Mac& mac);
    ~ISshBuffer() override;
    ISshBuffer(ISshBuffer const&) = delete;
    ISshBuffer& operator=(ISshBuffer const&) = delete;

    /// Starts the MAC of a packet, if one is set, and allows `bytes` of it to be read.
    void StartPacket(unsigned int bytes);

    /// Allows `bytes` more of the current packet.
    void ContinuePacket(unsigned int bytes);

    /// Reads the next piece, decrypts it and feeds it to the MAC. Returns its length, 0 at the end of the
    /// allowed bytes or of the stream, or a negative value of the layer below or of the cipher.
    int Fill() override;

    /// As CascadableIStreamBuffer::get. A range larger than the buffer is decrypted in place, except in a
    /// derived class, where every byte comes from its Fill().
    int get(char* begin, char* end) override;

    /// Reads the MAC, which is not encrypted, compares it and advances the sequence number. If the stream
    /// ends within the MAC, only the bytes received are compared. Returns 0, or a negative value of the layer
    /// below. Throws SshProtocolError "invalid mac value"; the sequence number is then unchanged.
    int FinalizePacket();

    BlockCipher& _cipher;
    Mac& _mac;
    unsigned int _plainBytes; ///< unused in this direction: 0
    unsigned int _sequence;   ///< number of the current packet, RFC 4253, section 6.4
    int _eof;                 ///< 1 once the layer below has reported the end of the stream
    unsigned int _remaining;  ///< bytes of the current packet still to be read from the layer below
    unsigned char _cryptBuffer[SSH_CRYPT_SIZE];

private:
    int Receive(unsigned char* raw, unsigned int room, unsigned char* plain);
    int Decrypt(unsigned char const* raw, unsigned int length, unsigned char* plain);

    char _plainBuffer[SSH_PLAIN_SIZE]; ///< of the InputBuffer
};

} // namespace cindral

#endif
