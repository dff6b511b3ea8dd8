#ifndef BRANTLE_PACKET_SSH_BUFFER_H
#define BRANTLE_PACKET_SSH_BUFFER_H

#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/mac.h>
#include <brantle/export.h>

namespace cindral {

/// Plain bytes that a framing buffer holds at once, and its cipher area, a little larger.
constexpr unsigned int SSH_PLAIN_SIZE = 8192;
constexpr unsigned int SSH_CRYPT_SIZE = SSH_PLAIN_SIZE + 32;

/// The layer that encrypts and authenticates outgoing packets (RFC 4253, section 6).
///
/// Plain bytes gather in the buffer; a flush encrypts them into the layer below and feeds them to
/// the MAC. The cipher and the MAC belong to the session and must outlive the buffer; they are
/// looked up again on each operation, so that new keys take effect with the next packet.
/// One thread at a time, and one packet at a time: StartPacket, bytes, FinalizePacket.
class BRANTLE_API OSshBuffer : public CascadableOStreamBuffer {
public:
    /// `next` receives the cipher text and must outlive this buffer.
    OSshBuffer(CascadableOStreamBuf* next, BlockCipher& cipher, Mac& mac);
    ~OSshBuffer() override;
    OSshBuffer(OSshBuffer const&) = delete;
    OSshBuffer& operator=(OSshBuffer const&) = delete;

    /// Starts the MAC of a packet with the sequence number, if a MAC is set.
    void StartPacket();

    /// Encrypts and passes on the plain bytes at hand. Returns 0, a negative value of the layer
    /// below (the plain bytes then stay), or errno if the cipher failed.
    int Flush() override;

    /// Flushes, appends the MAC beneath the cipher and advances the sequence number.
    /// Returns 0, or a negative value; the sequence number then stays.
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
/// It takes no more from the layer below than the current packet has been allowed, so that a read
/// never runs into the MAC or the next packet. Ownership and threads as for OSshBuffer.
class BRANTLE_API ISshBuffer : public CascadableIStreamBuffer {
public:
    /// `next` delivers the cipher text and must outlive this buffer.
    ISshBuffer(CascadableIStreamBuf* next, BlockCipher& cipher, Mac& mac);
    ~ISshBuffer() override;
    ISshBuffer(ISshBuffer const&) = delete;
    ISshBuffer& operator=(ISshBuffer const&) = delete;

    /// Starts the MAC of a packet, if one is set, and allows `bytes` of it to be read.
    void StartPacket(unsigned int bytes);

    /// Allows `bytes` more of the current packet.
    void ContinuePacket(unsigned int bytes);

    /// Reads, decrypts and authenticates the next piece. Returns its length, 0 at the end of what
    /// is allowed or of the stream, or a negative value of the layer below or of the cipher.
    int Fill() override;

    /// As CascadableIStreamBuffer::get. What is larger than the buffer is decrypted in place, except in a
    /// derived class: its Fill() gives every byte.
    int get(char* begin, char* end) override;

    /// Reads the MAC beneath the cipher, compares it and advances the sequence number. A stream
    /// that ends within the MAC compares what came. Returns 0, or a negative value of the layer
    /// below. Throws SshProtocolError "invalid mac value"; the sequence number then stays.
    int FinalizePacket();

    BlockCipher& _cipher;
    Mac& _mac;
    unsigned int _plainBytes; ///< unused in this direction: 0
    unsigned int _sequence;   ///< number of the current packet, RFC 4253, section 6.4
    int _eof;                 ///< 1 once the layer below has reported the end of the stream
    unsigned int _remaining;  ///< bytes of the current packet still to be taken from below
    unsigned char _cryptBuffer[SSH_CRYPT_SIZE];

private:
    int Receive(unsigned char* raw, unsigned int room, unsigned char* plain);
    int Decrypt(unsigned char const* raw, unsigned int length, unsigned char* plain);

    char _plainBuffer[SSH_PLAIN_SIZE]; ///< of the InputBuffer
};

} // namespace cindral

#endif
